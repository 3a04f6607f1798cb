// Fuzzes whole-file loading. The bytes are written to a file named ".log"
// (first byte even) or ".csv" (first byte odd) and loaded leniently and with
// a strict header; a valid table is saved again and the saved file reloaded.
// Nothing may crash, hang or leak, and saving a valid table writes every one
// of its rows.

#include <unistd.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/TextUtil.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

LightweightString<wchar_t> widePath(const std::string& s) {
  return fromUTF8(LightweightString<char>(s.c_str()));
}

void exercise(zyldb& t) {
  for (unsigned int r = 0; r < t.get_num_records() && r < 64; ++r)
    for (unsigned int c = 0; c <= t.get_num_fields() && c < 64; ++c) (void)t.getField(r, c);
  dberror e;
  (void)t.read_error_info(e);
  (void)t.get_param_val("ZYLDB");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/fuzz_load.XXXXXX";
    const char* d = mkdtemp(tmpl);
    if (!d) std::abort();
    // Warnings about revisions and short rows are expected; keep them quiet.
    zyl::setLogSink([](zyl::LogLevel, const char*) {});
    return std::string(d);
  }();
  const bool csv = size > 0 && (data[0] & 1);
  const std::string input = dir + (csv ? "/input.csv" : "/input.log");
  const std::string saved = dir + "/saved.log";

  FILE* f = std::fopen(input.c_str(), "wb");
  if (!f) return 0;
  if (size) std::fwrite(data, 1, size, f);
  std::fclose(f);

  for (bool strict : {false, true}) {
    zyldb t(widePath(input), INT_MAX, strict);
    exercise(t);
    if (!t.get_valid()) continue;
    unsigned int rows = t.get_num_records();
    t.set_filename(widePath(saved));
    int written = t.save_text();
    check(written == static_cast<int>(rows));

    // Names are written verbatim, so a reload need not be valid; it must
    // only be safe.
    zyldb reloaded(widePath(saved), INT_MAX, strict);
    exercise(reloaded);
  }
  std::remove(input.c_str());
  std::remove(saved.c_str());
  return 0;
}
