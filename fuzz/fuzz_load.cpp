// Fuzzes whole-file loading. The bytes are put in an in-memory file named
// ".log" (first byte even) or ".csv" (first byte odd) and loaded leniently
// and with a strict header; a valid table is saved again and the saved file
// reloaded.
// Nothing may crash, hang or leak, and saving a valid table writes every one
// of its rows.

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

#include "platform/MemoryFileService_internal.h"

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
  static zyl::testing::MemoryFileService* const mem = [] {
    // Warnings about revisions and short rows are expected; keep them quiet.
    zyl::setLogSink([](zyl::LogLevel, const char*) {});
    auto* m = new zyl::testing::MemoryFileService;
    OS()->setFileService(m);
    return m;
  }();
  mem->clear();
  const std::string dir = "/mem";
  const bool csv = size > 0 && (data[0] & 1);
  const std::string input = dir + (csv ? "/input.csv" : "/input.log");
  const std::string saved = dir + "/saved.log";

  mem->put(std::wstring(widePath(input).view()),
           std::string(reinterpret_cast<const char*>(data), size));

  for (bool strict : {false, true}) {
    zyldb t(widePath(input), INT_MAX, strict);
    exercise(t);
    if (!t.get_valid()) continue;
    unsigned int rows = t.get_num_records();
    t.set_filename(widePath(saved));
    int written = t.save_text();
    if (written != static_cast<int>(rows)) {
      // A save that would not load back is refused, with the reason recorded.
      dberror e;
      (void)t.read_error_info(e);
      check(written == 0 && e.code == DBLoadError::saveRefused);
    }

    // Names are written verbatim, so a reload need not be valid; it must
    // only be safe.
    zyldb reloaded(widePath(saved), INT_MAX, strict);
    exercise(reloaded);
  }
  return 0;
}
