// Fuzzes opening arbitrary bytes as a container file. Every reader operation
// must give a result without failing hard, for the header-only and the full
// reader alike; the items of a valid container, written again with a Writer
// and read back, must give the same cookies in the same order.

#include <zyldb/container/QMContainerFile.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextUtil.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/MemoryFileService_internal.h"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

LightweightString<wchar_t> widePath(const std::string& s) {
  return fromUTF8(LightweightString<char>(s.c_str()));
}

void exercise(const QMContainerFile::Reader& r) {
  bool valid = r.valid();
  unsigned n = r.getNumItems();
  for (unsigned i = 0; i <= n && i < 64; ++i) {
    QMContainerFile::Reader::Item item = r.getItem(i);
    check(valid == (item.getRecord() != nullptr) || i == n);
    if (!item.getRecord()) continue;
    for (unsigned col = 0; col <= r.get_num_fields() + 1; ++col) {
      (void)item.getAttrib(col);
      (void)item.getAttrib(col, 7);
      (void)item.getAttrib(col, 0.5);
    }
    // The reader parses leniently in contains(), so every item it reads
    // strictly must be found.
    if (item.getCookie().isValid()) check(r.contains(item.getCookie()));
  }
  CookieSet contents = r.getContents();
  check(contents.size() <= n);
  (void)r.getName();
  (void)r.getNameW();
  (void)r.isPermanent();
  (void)r.getAttrib("Name", 3);
  (void)r.getAttrib("Permanent", 1.5);
  (void)r.getItemAttribIndex("Cookie");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Files live in memory: no disk time per input.
  static zyl::testing::MemoryFileService* const mem = [] {
    zyl::setLogSink([](zyl::LogLevel, const char*) {});  // load warnings are expected
    auto* m = new zyl::testing::MemoryFileService;
    OS()->setFileService(m);
    return m;
  }();
  mem->clear();
  const std::string dir = "/mem";
  const std::string path = dir + "/C00000000000000000000000000000001.bsg";
  LightweightString<wchar_t> wpath = widePath(path);
  mem->put(std::wstring(wpath.view()), std::string(reinterpret_cast<const char*>(data), size));

  QMContainerFile::Reader headerOnly(wpath, true);
  check(headerOnly.getNumItems() == 0);
  exercise(headerOnly);

  QMContainerFile::Reader full(wpath, false);
  exercise(full);
  if (!full.valid()) return 0;

  // Write the valid cookies again and read them back.
  std::vector<DBFieldDesc> descs = {{"Cookie", DBFieldTypes::text_s}, {}};
  QMContainerFile::Writer w(descs.data());
  std::vector<Cookie> added;
  for (unsigned i = 0; i < full.getNumItems() && i < 256; ++i) {
    Cookie c = full.getItem(i).getCookie();
    if (w.addItem(c)) added.push_back(c);
  }
  w.setName(full.getName());
  w.setPermanent(full.isPermanent());
  const std::string out = dir + "/copy.bsg";
  check(w.trySave(widePath(out)));
  QMContainerFile::Reader back(widePath(out), false);
  check(back.valid());
  check(back.getNumItems() == added.size());
  for (unsigned i = 0; i < added.size(); ++i) check(back.getItem(i).getCookie() == added[i]);
  check(back.isPermanent() == full.isPermanent());
  return 0;
}
