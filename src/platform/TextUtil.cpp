// Text helpers: strxcmp, UTF-8, paths, booleans, numbers, splitting.

#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextUtil.h>

#include <climits>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/TextUtil_internal.h"

namespace zyl::detail {

// ASCII lower-case of every byte; other bytes map to themselves.
constexpr LowerTable::LowerTable() : map() {
  for (int i = 0; i < 256; ++i)
    map[i] = static_cast<unsigned char>(i >= 'A' && i <= 'Z' ? i + 32 : i);
}
constinit const LowerTable kLower;

}  // namespace zyl::detail

using zyl::detail::kLower;

namespace {

inline bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
inline bool isBlank(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

namespace {

template <typename Char>
bool endsWithNoCase(std::basic_string_view<Char> s, std::basic_string_view<Char> suffix) {
  if (s.size() < suffix.size()) return false;
  s.remove_prefix(s.size() - suffix.size());
  auto lower = [](Char c) { return c >= 'A' && c <= 'Z' ? static_cast<Char>(c + 32) : c; };
  for (size_t i = 0; i < suffix.size(); ++i)
    if (lower(s[i]) != lower(suffix[i])) return false;
  return true;
}

}  // namespace

bool endsWithIgnoringCase(std::string_view s, std::string_view suffix) {
  return endsWithNoCase(s, suffix);
}

bool endsWithIgnoringCase(std::wstring_view s, std::wstring_view suffix) {
  return endsWithNoCase(s, suffix);
}

// Walks both texts once. Runs of identical bytes are skipped in a tight
// loop (the common case in a sort, where neighbours share prefixes); where
// the texts differ, a digit run on both sides is compared by value from its
// start (the skip backs up over identical digits before the difference):
// leading zeros skipped, then the longer run is the larger, then digit by
// digit. The first difference in leading zeros (shorter run first) and the
// first case-only difference are remembered as tie-breaks, in that order.
int strxcmp(const char* a, const char* b) {
  if (!a) a = "";
  if (!b) b = "";
  const unsigned char* const a0 = reinterpret_cast<const unsigned char*>(a);
  const unsigned char* p = a0;
  const unsigned char* q = reinterpret_cast<const unsigned char*>(b);
  int zeroTie = 0, caseTie = 0;
  for (;;) {
    while (*p == *q) {
      if (*p == 0) return zeroTie != 0 ? zeroTie : caseTie;
      ++p;
      ++q;
    }
    if (isDigit(*p) || isDigit(*q)) {
      // The skipped bytes were identical, so backing up keeps p and q in step.
      while (p > a0 && isDigit(p[-1])) {
        --p;
        --q;
      }
    }
    unsigned char c = *p, d = *q;
    if (isDigit(c) && isDigit(d)) {
      const unsigned char* p0 = p;
      const unsigned char* q0 = q;
      while (*p == '0') ++p;
      while (*q == '0') ++q;
      const unsigned char* ps = p;
      const unsigned char* qs = q;
      while (isDigit(*p)) ++p;
      while (isDigit(*q)) ++q;
      ptrdiff_t lp = p - ps, lq = q - qs;
      if (lp != lq) return lp < lq ? -1 : 1;
      for (ptrdiff_t i = 0; i < lp; ++i)
        if (ps[i] != qs[i]) return ps[i] < qs[i] ? -1 : 1;
      if (zeroTie == 0) {
        ptrdiff_t rp = p - p0, rq = q - q0;
        if (rp != rq) zeroTie = rp < rq ? -1 : 1;
      }
      continue;
    }
    unsigned char lc = kLower.map[c], ld = kLower.map[d];
    if (lc != ld) return lc < ld ? -1 : 1;
    if (caseTie == 0) caseTie = c < d ? -1 : 1;  // c != d here
    ++p;
    ++q;
  }
}

bool isEssentiallyEmpty(const char* s) {
  if (!s) return true;
  for (; *s; ++s)
    if (!isBlank(static_cast<unsigned char>(*s))) return false;
  return true;
}

bool isEssentiallyEmpty(const LightweightString<char>& s) {
  for (char c : s.view())
    if (!isBlank(static_cast<unsigned char>(c))) return false;
  return true;
}

LightweightString<char> toLower(const LightweightString<char>& s) {
  std::string_view v = s.view();
  size_t i = 0;
  while (i < v.size() &&
         kLower.map[static_cast<unsigned char>(v[i])] == static_cast<unsigned char>(v[i]))
    ++i;
  if (i == v.size()) return s;  // nothing to change: share the text
  std::string out(v);
  for (; i < out.size(); ++i)
    out[i] = static_cast<char>(kLower.map[static_cast<unsigned char>(out[i])]);
  return LightweightString<char>(out);
}

LightweightString<wchar_t> fromUTF8(const LightweightString<char>& s) {
  std::string_view v = s.view();
  std::wstring out;
  out.reserve(v.size());
  size_t i = 0;
  while (i < v.size()) {
    unsigned char c = static_cast<unsigned char>(v[i]);
    if (c < 0x80) {
      out.push_back(static_cast<wchar_t>(c));
      ++i;
      continue;
    }
    int extra;
    char32_t cp, min;
    if (c >= 0xC2 && c <= 0xDF)
      extra = 1, cp = c & 0x1F, min = 0x80;
    else if (c >= 0xE0 && c <= 0xEF)
      extra = 2, cp = c & 0x0F, min = 0x800;
    else if (c >= 0xF0 && c <= 0xF4)
      extra = 3, cp = c & 0x07, min = 0x10000;
    else {
      out.push_back(L'\uFFFD');
      ++i;
      continue;
    }
    bool ok = true;
    for (size_t j = 1; j <= static_cast<size_t>(extra); ++j) {
      unsigned char t = i + j < v.size() ? static_cast<unsigned char>(v[i + j]) : 0;
      if ((t & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      cp = (cp << 6) | (t & 0x3F);
    }
    if (ok && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
    if (!ok) {
      // One replacement for the lead byte; the bytes after it are read again.
      out.push_back(L'\uFFFD');
      ++i;
      continue;
    }
    out.push_back(static_cast<wchar_t>(cp));
    i += static_cast<size_t>(extra) + 1;
  }
  return LightweightString<wchar_t>(out);
}

LightweightString<char> toUTF8(const LightweightString<wchar_t>& s) {
  std::string out;
  out.reserve(s.size());
  for (wchar_t w : s.view()) {
    char32_t cp = static_cast<char32_t>(w);
    zyl::detail::appendUtf8(out, cp);
  }
  return LightweightString<char>(out);
}

LightweightString<wchar_t> stripPathAndExt(const LightweightString<wchar_t>& path) {
  std::wstring_view v = path.view();
  size_t slash = v.find_last_of(L'/');
  if (slash != std::wstring_view::npos) v.remove_prefix(slash + 1);
  size_t dot = v.find_last_of(L'.');
  // A leading dot names a hidden file; it is not an extension.
  if (dot != std::wstring_view::npos && dot > 0) v = v.substr(0, dot);
  if (v.size() == path.size()) return path;
  return LightweightString<wchar_t>(v);
}

LightweightString<char> BoolAsString(bool b) {
  return LightweightString<char>(b ? "true" : "false");
}

bool BoolFromString(const LightweightString<char>& s, bool fallback) {
  std::string_view v = s.view();
  while (!v.empty() && isBlank(static_cast<unsigned char>(v.front()))) v.remove_prefix(1);
  while (!v.empty() && isBlank(static_cast<unsigned char>(v.back()))) v.remove_suffix(1);
  if (v.size() > 5) return fallback;
  char low[6] = {};
  for (size_t i = 0; i < v.size(); ++i)
    low[i] = static_cast<char>(kLower.map[static_cast<unsigned char>(v[i])]);
  std::string_view l(low, v.size());
  if (l == "true" || l == "yes" || l == "on" || l == "t" || l == "1") return true;
  if (l == "false" || l == "no" || l == "off" || l == "f" || l == "0") return false;
  return fallback;
}

LightweightString<char> StringFromInteger(long long n) {
  char buf[24];
  int len = std::snprintf(buf, sizeof buf, "%lld", n);
  return LightweightString<char>(buf, static_cast<size_t>(len));
}

unsigned int UIntFromString(const LightweightString<char>& s, unsigned int fallback) {
  std::string_view v = s.view();
  size_t i = 0;
  while (i < v.size() && isBlank(static_cast<unsigned char>(v[i]))) ++i;
  if (i == v.size() || !isDigit(static_cast<unsigned char>(v[i]))) return fallback;
  unsigned long long value = 0;
  for (; i < v.size() && isDigit(static_cast<unsigned char>(v[i])); ++i) {
    value = value * 10 + static_cast<unsigned>(v[i] - '0');
    if (value > UINT_MAX) return fallback;
  }
  return static_cast<unsigned int>(value);
}

bool fileExists(const LightweightString<wchar_t>& path) {
  return !path.empty() && OS()->fileService().exists(path);
}

namespace Qm {

LightweightString<wchar_t> WStringFromAscii(const char* s) {
  if (!s) return LightweightString<wchar_t>();
  std::wstring out;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(s); *p; ++p)
    out.push_back(static_cast<wchar_t>(*p));
  return LightweightString<wchar_t>(out);
}

std::vector<LightweightString<char>> splitIf(const LightweightString<char>& s, char sep, int mode) {
  std::vector<LightweightString<char>> out;
  std::string_view rest = s.view();
  if (rest.empty()) return out;
  const bool trim = (mode & 1) != 0;
  const bool keepEmpty = (mode & 2) != 0;
  for (;;) {
    size_t at = rest.find(sep);
    std::string_view piece = rest.substr(0, at);
    if (trim) {
      while (!piece.empty() && isBlank(static_cast<unsigned char>(piece.front())))
        piece.remove_prefix(1);
      while (!piece.empty() && isBlank(static_cast<unsigned char>(piece.back())))
        piece.remove_suffix(1);
    }
    if (!piece.empty() || keepEmpty)
      out.push_back(LightweightString<char>::packed(piece.data(), piece.size()));
    if (at == std::string_view::npos) break;
    rest.remove_prefix(at + 1);
  }
  return out;
}

}  // namespace Qm
