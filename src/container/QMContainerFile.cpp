#include <zyldb/container/QMContainerFile.h>
#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>

#include <climits>
#include <cstdlib>

namespace {

constexpr const char* kCookieColumn = "Cookie";
constexpr const wchar_t* kTmpSuffix = L".tmp";

// True when `path` ends in `suffix` (lower-case ASCII), ignoring case.
bool endsWithNoCase(const LightweightString<wchar_t>& path, const wchar_t* suffix) {
  std::wstring_view p = path.view();
  std::wstring_view s(suffix);
  if (p.size() < s.size()) return false;
  p.remove_prefix(p.size() - s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    wchar_t c = p[i];
    if (c >= L'A' && c <= L'Z') c = c - L'A' + L'a';
    if (c != s[i]) return false;
  }
  return true;
}

LightweightString<char> fromNullable(const char* s) { return LightweightString<char>(s ? s : ""); }

}  // namespace

// ---- QMContainerFile ------------------------------------------------------

const char* QMContainerFile::getNameParamKey() { return "Name"; }

const char* QMContainerFile::getPermanentParamKey() { return "Permanent"; }

Cookie QMContainerFile::getCookieFromFilename(const LightweightString<wchar_t>& path) {
  Cookie cookie(stripPathAndExt(path), false);
  if (endsWithNoCase(path, L"sg")) return convertCookie(cookie, 'M', 255);
  if (endsWithNoCase(path, L"rak")) return convertCookie(cookie, 'B', 255);
  return cookie;
}

// ---- Reader::Item -----------------------------------------------------------

LightweightString<char> QMContainerFile::Reader::Item::getAttrib(unsigned int col) const {
  if (!record_) return LightweightString<char>();
  return fromNullable(record_->get_field(static_cast<unsigned short>(col)));
}

int QMContainerFile::Reader::Item::getAttrib(unsigned int col, int def) const {
  if (!record_) return def;
  const char* text = record_->get_field(static_cast<unsigned short>(col));
  if (!text) return def;
  return static_cast<int>(std::strtol(text, nullptr, 10));
}

double QMContainerFile::Reader::Item::getAttrib(unsigned int col, double def) const {
  if (!record_) return def;
  const char* text = record_->get_field(static_cast<unsigned short>(col));
  if (!text) return def;
  return std::strtod(text, nullptr);
}

// ---- Reader -------------------------------------------------------------------

// The record limit 0 reads the header and the columns only.
QMContainerFile::Reader::Reader(LightweightString<wchar_t> path, bool headerOnly)
    : zyldb(path, headerOnly ? 0 : INT_MAX, true), cookie_(stripPathAndExt(path), false) {}

QMContainerFile::Reader::~Reader() = default;

int QMContainerFile::Reader::cookieColumn() const { return get_fieldnum(kCookieColumn); }

bool QMContainerFile::Reader::valid() const { return get_valid() != 0 && cookieColumn() >= 0; }

unsigned int QMContainerFile::Reader::getNumItems() const { return get_num_records(); }

QMContainerFile::Reader::Item QMContainerFile::Reader::getItem(unsigned int i) const {
  if (!valid() || i >= getNumItems()) return Item();
  dbrecord* record = get_record(i);
  if (!record) return Item();
  const LightweightString<char>& text =
      record->getField(static_cast<unsigned short>(cookieColumn()));
  return Item(record, Cookie(text.c_str(), true));
}

CookieSet QMContainerFile::Reader::getContents() const {
  CookieSet set;
  unsigned int n = getNumItems();
  for (unsigned int i = 0; i < n; ++i) set.insert(getItem(i).getCookie());
  return set;
}

// Parses leniently (unlike getItem), so a cookie written with blanks around
// it or in upper case is still found.
bool QMContainerFile::Reader::contains(const Cookie& c) const {
  unsigned int n = getNumItems();
  if (n == 0) return false;
  int col = cookieColumn();
  if (col < 0) return false;
  for (unsigned int i = 0; i < n; ++i) {
    dbrecord* record = get_record(i);
    const char* text = record ? record->getField(static_cast<unsigned short>(col)).c_str() : "";
    if (Cookie(text, false).compare(c) == 0) return true;
  }
  return false;
}

int QMContainerFile::Reader::getItemAttribIndex(const char* name) const {
  if (!valid()) return -1;
  return get_fieldnum(fromNullable(name));
}

LightweightString<char> QMContainerFile::Reader::getAttrib(LightweightString<char> key) const {
  if (!valid()) return LightweightString<char>();
  return fromNullable(get_param_val(key.c_str()));
}

int QMContainerFile::Reader::getAttrib(LightweightString<char> key, int def) const {
  LightweightString<char> text = getAttrib(key);
  if (text.empty()) return def;
  return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

double QMContainerFile::Reader::getAttrib(LightweightString<char> key, double def) const {
  LightweightString<char> text = getAttrib(key);
  if (text.empty()) return def;
  return std::strtod(text.c_str(), nullptr);
}

LightweightString<char> QMContainerFile::Reader::getName() const {
  return getAttrib(getNameParamKey());
}

LightweightString<wchar_t> QMContainerFile::Reader::getNameW() const { return fromUTF8(getName()); }

bool QMContainerFile::Reader::isPermanent() const {
  return BoolFromString(getAttrib(getPermanentParamKey()), false);
}

// ---- Writer -------------------------------------------------------------------

QMContainerFile::Writer::Writer(DBFieldDesc* descs)
    : zyldb(static_cast<const DBFieldDesc*>(descs)), cookieField_(get_fieldnum(kCookieColumn)) {}

QMContainerFile::Writer::~Writer() = default;

dbrecord* QMContainerFile::Writer::addItem(const Cookie& c) {
  if (c.getType() == 'I') return nullptr;
  int row = add_records(1);
  dbrecord* record = get_record(static_cast<unsigned int>(row));
  if (!record) return nullptr;
  record->set_field(cookieField_, c.asString(true).c_str(), true);
  return record;
}

void QMContainerFile::Writer::setAttrib(LightweightString<char> key,
                                        LightweightString<char> value) {
  add_param(key.c_str(), value.c_str());
}

void QMContainerFile::Writer::setName(LightweightString<char> name) {
  setAttrib(getNameParamKey(), name);
}

void QMContainerFile::Writer::setPermanent(bool permanent) {
  setAttrib(getPermanentParamKey(), BoolAsString(permanent));
}

// An existing container is replaced through path + ".tmp" and one rename, so
// that a reader never meets a half-written container and a failed write
// leaves the old one as it was. save_text() returns 0 both for a failed write
// and for a container without items, so the count of successful text saves
// on this thread is what tells whether it was written.
void QMContainerFile::Writer::save(const LightweightString<wchar_t>& path) { (void)trySave(path); }

bool QMContainerFile::Writer::trySave(const LightweightString<wchar_t>& path) {
  saveError_.clear();
  zyl::FileService& files = OS()->fileService();
  const uint64_t before = TextFile::successfulSaves();
  if (!fileExists(path)) {
    set_filename(path);
    save_text();
    if (TextFile::successfulSaves() > before) return true;
    saveError_ = files.lastError();
    return false;
  }
  LightweightString<wchar_t> tmp = path + kTmpSuffix;
  set_filename(tmp);
  if (files.exists(tmp)) files.remove(tmp);
  save_text();
  if (TextFile::successfulSaves() > before && files.move(tmp, path, 0)) return true;
  saveError_ = files.lastError();
  if (files.exists(tmp)) files.remove(tmp);
  return false;
}
