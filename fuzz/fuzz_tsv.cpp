// Fuzzes the TSV reader with a round-trip oracle: whatever it reads, writing
// that table and reading the text again gives the same names and values.

#include <zyldb/db/zyldb.h>
#include <zyldb/interchange/Interchange.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzOracle.h"

using zyl::fuzz::check;
using zyl::fuzz::sameTable;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace zyl::interchange;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Error err;
  auto first = readTsv(text, &err);
  if (!first) {
    check(!err.message.empty());
    return 0;
  }
  TsvOptions o;
  o.crlf = size > 0 && (data[0] & 1);
  std::string written;
  check(writeTsv(
      *first, o, [&](std::string_view s) { return written.append(s), true; }, &err));
  auto second = readTsv(written, &err);
  check(second != nullptr);
  check(sameTable(*first, *second));
  return 0;
}
