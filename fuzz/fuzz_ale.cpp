// Fuzzes the ALE reader with a round-trip oracle: whatever it reads, writing
// that table and reading the text again gives the same names, values and
// parameters. The writer may refuse a table (a column without a name), and
// then must say why.

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
  auto first = readAle(text, &err);
  if (!first) {
    check(!err.message.empty());
    return 0;
  }
  AleOptions o;
  o.crlf = size > 0 && (data[0] & 1);
  std::string written;
  if (!writeAle(
          *first, o, [&](std::string_view s) { return written.append(s), true; }, &err)) {
    check(!err.message.empty());
    return 0;
  }
  auto second = readAle(written, &err);
  check(second != nullptr);
  check(sameTable(*first, *second));
  for (unsigned int i = 0; i < first->getNumParams(); ++i) {
    const char* v = second->get_param_val(first->getParamName(i));
    check(v != nullptr && std::string(v) == first->getParamValue(i));
  }
  return 0;
}
