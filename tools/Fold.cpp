#include "Fold.h"

#include <algorithm>
#include <cstdint>

#include "Output.h"

namespace zyl::cli {

namespace {

#include "UnicodeFold.inc"

bool isMark(char32_t cp) {
  auto it = std::upper_bound(std::begin(kMarks), std::end(kMarks), cp,
                             [](char32_t c, const MarkRange& r) { return c < r.lo; });
  return it != std::begin(kMarks) && cp <= std::prev(it)->hi;
}

char32_t accentBase(char32_t cp) {
  auto it = std::lower_bound(std::begin(kAccentBase), std::end(kAccentBase), cp,
                             [](const AccentEntry& e, char32_t c) { return e.from < c; });
  return it != std::end(kAccentBase) && it->from == cp ? it->base : cp;
}

// Appends the folded form of one code point.
void appendFolded(std::string& out, char32_t cp, bool foldAccents) {
  if (foldAccents) {
    if (isMark(cp)) return;
    cp = accentBase(cp);
  }
  auto it = std::lower_bound(std::begin(kCaseFold), std::end(kCaseFold), cp,
                             [](const CaseFoldEntry& e, char32_t c) { return e.from < c; });
  if (it == std::end(kCaseFold) || it->from != cp) {
    appendUtf8(out, cp);
    return;
  }
  for (char32_t to : it->to) {
    if (to == 0) break;
    // A folded letter may itself carry an accent (U+1E9E folds to "ss", but
    // U+0130 folds to "i" and a combining dot).
    if (foldAccents && isMark(to)) continue;
    appendUtf8(out, foldAccents ? accentBase(to) : to);
  }
}

}  // namespace

std::string foldText(std::string_view text, bool foldAccents) {
  std::string out;
  out.reserve(text.size());
  for (size_t pos = 0; pos < text.size();) {
    unsigned char b = static_cast<unsigned char>(text[pos]);
    if (b < 0x80) {
      out += static_cast<char>(b >= 'A' && b <= 'Z' ? b + ('a' - 'A') : b);
      ++pos;
      continue;
    }
    size_t start = pos;
    char32_t cp = decodeUtf8(text, pos);
    if (cp == 0xFFFD && pos == start + 1) {
      out += text[start];  // an invalid byte stays as it was
      continue;
    }
    appendFolded(out, cp, foldAccents);
  }
  return out;
}

int naturalCompare(std::string_view a, std::string_view b) {
  auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (isDigit(a[i]) && isDigit(b[j])) {
      size_t ei = i, ej = j;
      while (ei < a.size() && isDigit(a[ei])) ++ei;
      while (ej < b.size() && isDigit(b[ej])) ++ej;
      size_t zi = i, zj = j;  // first significant digits
      while (zi + 1 < ei && a[zi] == '0') ++zi;
      while (zj + 1 < ej && b[zj] == '0') ++zj;
      if (ei - zi != ej - zj) return ei - zi < ej - zj ? -1 : 1;
      int c = a.substr(zi, ei - zi).compare(b.substr(zj, ej - zj));
      if (c != 0) return c < 0 ? -1 : 1;
      if (ei - i != ej - j) return ei - i < ej - j ? -1 : 1;
      i = ei, j = ej;
      continue;
    }
    unsigned char ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
    if (ca != cb) return ca < cb ? -1 : 1;
    ++i, ++j;
  }
  if (i < a.size()) return 1;
  if (j < b.size()) return -1;
  return 0;
}

std::string sortKey(std::string_view text, bool foldAccents) {
  std::string key = foldText(text, true);
  if (foldAccents) return key;
  // The accent-folded text first, then, after a separator below every
  // character, the case-folded text that still tells accents apart.
  key += '\x01';
  key += foldText(text, false);
  return key;
}

}  // namespace zyl::cli
