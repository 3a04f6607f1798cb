#pragma once

// Cookie: the identifier of a record, clip or container.
//
// A cookie is a type letter and a 128-bit id. Its text form is the type
// letter followed by 32 lower-case hexadecimal digits, for example
// "M0f3c9a2e4b5d6c7e8f90112233445566": no blank, comma, quote or dot, so it
// can stand in a log cell and name a file. The invalid cookie has type 'I'
// and id 0; its text form is the empty string.
//
// Type letters used by the library: 'I' invalid, 'M' a bin ("...sg" files),
// 'B' a rack ("...rak" files); hosts use any other printable ASCII character
// except the blank. Any other type (control characters, blank, bytes >= 0x7f)
// makes the invalid cookie, so Cookie(c.asString(), true) == c for every c.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <compare>
#include <cstdint>
#include <memory>
#include <set>
#include <vector>

namespace Qm {

struct ZYLDB_EXPORT UUID {
  uint64_t hi = 0;
  uint64_t lo = 0;
  // A fresh random id, unique in practice.
  static UUID generate();
  bool isNull() const { return hi == 0 && lo == 0; }
  friend auto operator<=>(const UUID&, const UUID&) = default;
};

}  // namespace Qm

using CookieType = char;

class ZYLDB_EXPORT Cookie {
 public:
  // The invalid cookie.
  Cookie() = default;
  Cookie(const Qm::UUID& id, CookieType type);
  // Parses the text form. With `strict` false, blanks around the text and
  // upper-case hex digits are accepted as well. Empty or malformed text gives
  // the invalid cookie.
  Cookie(const char* text, bool strict);
  Cookie(const LightweightString<char>& text, bool strict);
  Cookie(const LightweightString<wchar_t>& text, bool strict);

  // A fresh unique cookie of the given type letter.
  static Cookie make(CookieType type);

  CookieType getType() const { return type_; }
  bool isValid() const { return type_ != 'I'; }
  const Qm::UUID& getId() const { return id_; }

  // The text form; the flag is accepted for interface compatibility and does
  // not change it. The invalid cookie gives the empty string.
  LightweightString<char> asString(bool = false) const;

  // Total order: by type letter, then by id. 0 when equal.
  int compare(const Cookie& other) const;
  friend bool operator==(const Cookie& a, const Cookie& b) { return a.compare(b) == 0; }
  friend bool operator<(const Cookie& a, const Cookie& b) { return a.compare(b) < 0; }

 private:
  Qm::UUID id_;
  CookieType type_ = 'I';
};

// The same id under another type letter. `subtype` is accepted for interface
// compatibility (the text form has no room for it). Converting the invalid
// cookie gives the invalid cookie.
ZYLDB_EXPORT Cookie convertCookie(const Cookie& c, CookieType type, unsigned char subtype);

// A reference-counted vector of cookies: copies share the elements until one
// of them is changed (copy on write). add() keeps duplicates and the order of
// adding.
class ZYLDB_EXPORT CookieVec {
 public:
  CookieVec();
  static void add(CookieVec& v, const Cookie& c) { v.push_back(c); }
  void push_back(const Cookie& c);
  size_t size() const { return items_->size(); }
  bool empty() const { return items_->empty(); }
  const Cookie& operator[](size_t i) const { return (*items_)[i]; }
  std::vector<Cookie>::const_iterator begin() const { return items_->begin(); }
  std::vector<Cookie>::const_iterator end() const { return items_->end(); }
  void clear();

 private:
  std::shared_ptr<std::vector<Cookie>> items_;
};

// An ordered set of cookies (Cookie::compare order).
class ZYLDB_EXPORT CookieSet {
 public:
  bool insert(const Cookie& c) { return items_.insert(c).second; }
  bool contains(const Cookie& c) const { return items_.count(c) != 0; }
  size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  std::set<Cookie>::const_iterator begin() const { return items_.begin(); }
  std::set<Cookie>::const_iterator end() const { return items_.end(); }

 private:
  std::set<Cookie> items_;
};
