#pragma once

// GrowString: an append-only text buffer used to build messages and lines.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <cstdarg>
#include <string>
#include <string_view>

class ZYLDB_EXPORT GrowString {
 public:
  GrowString() = default;

  GrowString& append(const char* s) {
    if (s) buf_.append(s);
    return *this;
  }
  GrowString& append(const char* s, size_t n) {
    buf_.append(s, n);
    return *this;
  }
  GrowString& append(std::string_view s) {
    buf_.append(s);
    return *this;
  }
  GrowString& append(char c) {
    buf_.push_back(c);
    return *this;
  }
  GrowString& append(const LightweightString<char>& s) {
    buf_.append(s.view());
    return *this;
  }
  // Appends printf-formatted text.
  GrowString& appendf(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  GrowString& operator<<(const char* s) { return append(s); }
  GrowString& operator<<(const LightweightString<char>& s) { return append(s); }
  GrowString& operator<<(char c) { return append(c); }
  GrowString& operator<<(long long n) {
    buf_.append(std::to_string(n));
    return *this;
  }

  const char* c_str() const { return buf_.c_str(); }
  size_t size() const { return buf_.size(); }
  bool empty() const { return buf_.empty(); }
  std::string_view view() const { return buf_; }
  LightweightString<char> str() const { return LightweightString<char>(buf_); }
  void clear() { buf_.clear(); }
  void reserve(size_t n) { buf_.reserve(n); }

 private:
  std::string buf_;
};
