// Round-trip oracle: whatever loads must survive editing and saving. The
// bytes are loaded as a log from an in-memory file (an input that does not
// load is rejected); the table is sorted on a column the input picks, rows
// are tagged in a view over it and deleted through the view, and the table
// is saved and loaded again. The reloaded table must have the same columns
// and exactly the rows expected: the sorted rows minus the deleted ones, in
// order, value for value. A save may refuse (report 0 rows for a table that
// has some); a save it reports as written must load back. The view's own
// save of the remaining rows is checked the same way.

#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/view/ODBView.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/MemoryFileService_internal.h"

namespace {

using Rows = std::vector<std::vector<std::string>>;

void check(bool ok) {
  if (!ok) std::abort();
}

std::vector<std::string> columns(zyldb& t) {
  std::vector<std::string> out;
  for (unsigned c = 0; c < t.get_num_fields(); ++c) out.push_back(t.get_fieldname(c));
  return out;
}

Rows rows(zyldb& t) {
  Rows out;
  for (unsigned r = 0; r < t.get_num_records(); ++r) {
    std::vector<std::string> row;
    for (unsigned c = 0; c < t.get_num_fields(); ++c) row.push_back(t.getField(r, c).toStdString());
    out.push_back(std::move(row));
  }
  return out;
}

// Loads `path` and checks it holds `cols` and `expected`.
void checkReload(const wchar_t* path, const std::vector<std::string>& cols, const Rows& expected) {
  zyldb back(LightweightString<wchar_t>(path), INT_MAX, false);
  check(back.get_valid() != 0);
  check(columns(back) == cols);
  check(rows(back) == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static zyl::testing::MemoryFileService* const mem = [] {
    zyl::setLogSink([](zyl::LogLevel, const char*) {});  // load warnings are expected
    auto* m = new zyl::testing::MemoryFileService;
    OS()->setFileService(m);
    return m;
  }();
  mem->clear();
  if (size < 2) return 0;
  // The first two bytes choose the edits; the rest is the file.
  const uint8_t pick = data[0], tagRule = data[1];
  mem->put(L"/mem/in.log", std::string(reinterpret_cast<const char*>(data) + 2, size - 2));

  zyldb t(LightweightString<wchar_t>(L"/mem/in.log"), INT_MAX, false);
  if (!t.get_valid() || t.get_num_fields() == 0) return 0;
  const std::vector<std::string> cols = columns(t);

  t.set_sortfield(static_cast<int>(pick % t.get_num_fields()));
  t.sort((pick & 0x80) ? -1 : 1, (pick & 0x40) ? 1 : 0);
  const Rows sorted = rows(t);

  ODBView view(new ODBViewRep(&t));
  view->buildIndex();
  check(view->get_num_records() == sorted.size());
  Rows expected;
  std::vector<bool> deleted(sorted.size(), false);
  for (unsigned r = 0; r < view->get_num_records(); ++r) {
    const bool tag = ((r * 7 + tagRule) % 5) < (tagRule % 4);
    if (!tag) continue;
    view->set_tag(r, 1);
    deleted[static_cast<size_t>(view->baseIndex(static_cast<int>(r)))] = true;
  }
  for (size_t r = 0; r < sorted.size(); ++r)
    if (!deleted[r]) expected.push_back(sorted[r]);
  view->deleteTagged();
  check(rows(t) == expected);

  t.set_filename(LightweightString<wchar_t>(L"/mem/saved.log"));
  const int written = t.save_text();
  if (written > 0 || expected.empty()) {
    if (mem->get(L"/mem/saved.log")) checkReload(L"/mem/saved.log", cols, expected);
  } else {
    check(mem->get(L"/mem/saved.log") == nullptr);  // refused: nothing written
  }

  const int viewWritten = view->saveAsText(LightweightString<wchar_t>(L"/mem/view.log"), false);
  if (viewWritten > 0) checkReload(L"/mem/view.log", cols, expected);
  return 0;
}
