// Fuzzes the CSV reader with a round-trip oracle: whatever it reads, writing
// that table and reading the text again gives the same names and values. The
// first byte picks the delimiter, the header mode and the writer's line ends
// and byte-order mark; the rest is the text.

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
  if (size == 0) return 0;
  CsvOptions o;
  o.delimiter = ",;\t|"[data[0] & 3];
  o.header = !(data[0] & 4);
  o.crlf = data[0] & 8;
  o.bom = data[0] & 16;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  Error err;
  auto first = readCsv(text, o, &err);
  if (!first) {
    check(!err.message.empty());
    return 0;
  }
  std::string written;
  check(writeCsv(
      *first, o, [&](std::string_view s) { return written.append(s), true; }, &err));
  auto second = readCsv(written, o, &err);
  check(second != nullptr);
  check(sameTable(*first, *second));
  return 0;
}
