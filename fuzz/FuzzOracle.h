#pragma once

// The oracle the round-trip fuzz targets share: a failed check aborts, which
// libFuzzer reports as a crash with the input that caused it.

#include <zyldb/db/zyldb.h>

#include <cstdlib>
#include <string>

namespace zyl::fuzz {

inline void check(bool ok) {
  if (!ok) std::abort();
}

// Same column names, row count and values, byte for byte.
inline bool sameTable(const zyldb& a, const zyldb& b) {
  if (a.get_num_fields() != b.get_num_fields() || a.get_num_records() != b.get_num_records())
    return false;
  for (unsigned int c = 0; c < a.get_num_fields(); ++c)
    if (std::string(a.get_fieldname(c)) != b.get_fieldname(c)) return false;
  for (unsigned int r = 0; r < a.get_num_records(); ++r)
    for (unsigned int c = 0; c < a.get_num_fields(); ++c)
      if (a.getField(r, c).view() != b.getField(r, c).view()) return false;
  return true;
}

}  // namespace zyl::fuzz
