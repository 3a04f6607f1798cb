// Cookie: type letter + 128-bit id; text form: the letter and 32 lower-case
// hex digits.
//
// Valid type letters are the printable ASCII characters other than blank and
// 'I' (0x21..0x7e); any other type makes the invalid cookie, so that every
// valid cookie survives its text form: Cookie(c.asString(), true) == c.

#include <zyldb/platform/Cookie.h>

#include <memory>
#include <random>
#include <string>
#include <string_view>

namespace {

bool validType(CookieType t) {
  unsigned char c = static_cast<unsigned char>(t);
  return c > 0x20 && c < 0x7f && c != 'I';
}

int hexValue(char c, bool allowUpper) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (allowUpper && c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Parses the text form into (type, id); false when malformed.
bool parse(std::string_view s, bool strict, CookieType* type, Qm::UUID* id) {
  if (!strict) {
    while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
    while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  }
  if (s.size() != 33 || !validType(s[0])) return false;
  uint64_t words[2] = {0, 0};
  for (size_t i = 0; i < 32; ++i) {
    int v = hexValue(s[1 + i], !strict);
    if (v < 0) return false;
    words[i / 16] = (words[i / 16] << 4) | static_cast<uint64_t>(v);
  }
  *type = s[0];
  id->hi = words[0];
  id->lo = words[1];
  return true;
}

}  // namespace

namespace Qm {

UUID UUID::generate() {
  // One generator per thread, seeded from the system's entropy source. It
  // lives on the heap: the library's thread-local data must stay small,
  // because a module loaded with dlopen (the Python extension) that uses
  // initial-exec thread-locals gets its whole block from the loader's small
  // static reserve.
  thread_local std::unique_ptr<std::mt19937_64> gen;
  if (!gen) {
    std::random_device rd;
    std::seed_seq seq{rd(), rd(), rd(), rd(), rd(), rd(), rd(), rd()};
    gen = std::make_unique<std::mt19937_64>(seq);
  }
  UUID id;
  do {
    id.hi = (*gen)();
    id.lo = (*gen)();
  } while (id.isNull());
  return id;
}

}  // namespace Qm

Cookie::Cookie(const Qm::UUID& id, CookieType type) {
  if (validType(type)) {
    id_ = id;
    type_ = type;
  }
}

Cookie::Cookie(const char* text, bool strict) {
  if (text) parse(text, strict, &type_, &id_);
}

Cookie::Cookie(const LightweightString<char>& text, bool strict) {
  parse(text.view(), strict, &type_, &id_);
}

Cookie::Cookie(const LightweightString<wchar_t>& text, bool strict) {
  std::string narrow;
  narrow.reserve(text.size());
  for (wchar_t w : text.view()) {
    if (w < 0 || w > 0x7e) return;  // not ASCII: malformed
    narrow.push_back(static_cast<char>(w));
  }
  parse(narrow, strict, &type_, &id_);
}

Cookie Cookie::make(CookieType type) {
  if (!validType(type)) return Cookie();
  return Cookie(Qm::UUID::generate(), type);
}

LightweightString<char> Cookie::asString(bool) const {
  if (!isValid()) return LightweightString<char>();
  static constexpr char kHex[] = "0123456789abcdef";
  char buf[33];
  buf[0] = type_;
  for (int i = 0; i < 16; ++i) {
    buf[1 + i] = kHex[(id_.hi >> (60 - 4 * i)) & 0xF];
    buf[17 + i] = kHex[(id_.lo >> (60 - 4 * i)) & 0xF];
  }
  return LightweightString<char>(buf, 33);
}

int Cookie::compare(const Cookie& other) const {
  unsigned char a = static_cast<unsigned char>(type_), b = static_cast<unsigned char>(other.type_);
  if (a != b) return a < b ? -1 : 1;
  if (id_.hi != other.id_.hi) return id_.hi < other.id_.hi ? -1 : 1;
  if (id_.lo != other.id_.lo) return id_.lo < other.id_.lo ? -1 : 1;
  return 0;
}

Cookie convertCookie(const Cookie& c, CookieType type, unsigned char) {
  if (!c.isValid()) return Cookie();
  return Cookie(c.getId(), type);
}

CookieVec::CookieVec() : items_(std::make_shared<std::vector<Cookie>>()) {}

void CookieVec::push_back(const Cookie& c) {
  // Copy on write: another CookieVec shares the elements.
  if (items_.use_count() > 1) items_ = std::make_shared<std::vector<Cookie>>(*items_);
  items_->push_back(c);
}

void CookieVec::clear() {
  if (items_.use_count() > 1)
    items_ = std::make_shared<std::vector<Cookie>>();
  else
    items_->clear();
}
