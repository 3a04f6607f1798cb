// TextSearch::match. It runs once per row in searches of large tables, so it
// works on the texts in place: no copies, no allocation. Both texts go
// through one byte mapping (case folding without kCaseSensitive, and the
// timecode separators ':' ';' '.' ',' made one under kTimecode) and are then
// compared with the criterion's method.

#include <zyldb/platform/TextSearch.h>

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "platform/TextUtil_internal.h"

namespace TextSearch {
namespace {

struct Mapper {
  explicit Mapper(unsigned int flags)
      : fold((flags & kCaseSensitive) == 0), timecode((flags & kTimecode) != 0) {}
  unsigned char operator()(char c) const {
    unsigned char u = static_cast<unsigned char>(c);
    if (timecode && (u == ';' || u == '.' || u == ',')) return ':';
    return fold ? zyl::detail::kLower.map[u] : u;
  }
  bool plain() const { return !fold && !timecode; }
  bool fold, timecode;
};

bool equalAt(std::string_view text, size_t at, std::string_view q, const Mapper& m) {
  for (size_t i = 0; i < q.size(); ++i)
    if (m(text[at + i]) != m(q[i])) return false;
  return true;
}

inline uint64_t load8(const unsigned char* p) {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

constexpr uint64_t kOnes = 0x0101010101010101ull;
constexpr uint64_t kHighs = 0x8080808080808080ull;

// Sets the high bit of every byte of x that is zero (and may set it in bytes
// above a zero one as well; never misses one).
inline uint64_t zeroBytes(uint64_t x) { return (x - kOnes) & ~x & kHighs; }

// Whether q (not empty, not longer than text) occurs in text with ASCII
// letters compared caselessly. Eight places at a time are screened on the
// query's first and last bytes with bit 0x20 set on both sides (a letter and
// its capital then agree; unrelated bytes may too) and only the places that
// pass are compared in full, so patterns that start with a common letter
// cost no more than others.
bool containsFolded(std::string_view text, std::string_view q) {
  const auto* t = reinterpret_cast<const unsigned char*>(text.data());
  const auto* pq = reinterpret_cast<const unsigned char*>(q.data());
  const size_t n = text.size();
  const size_t k = q.size();
  const unsigned char* lower = zyl::detail::kLower.map;
  auto equalHere = [&](size_t at) {
    for (size_t i = 0; i < k; ++i)
      if (lower[t[at + i]] != lower[pq[i]]) return false;
    return true;
  };
  size_t at = 0;
  if constexpr (std::endian::native == std::endian::little) {
    const uint64_t first = kOnes * (lower[pq[0]] | 0x20u);
    const uint64_t last = kOnes * (lower[pq[k - 1]] | 0x20u);
    const uint64_t caseBits = kOnes * 0x20u;
    // Both loads of eight bytes stay inside the text.
    for (; at + k + 7 <= n; at += 8) {
      const uint64_t a = load8(t + at) | caseBits;
      const uint64_t b = load8(t + at + k - 1) | caseBits;
      uint64_t hits = zeroBytes(a ^ first) & zeroBytes(b ^ last);
      while (hits != 0) {
        const size_t j = static_cast<size_t>(std::countr_zero(hits)) / 8;
        if (equalHere(at + j)) return true;
        hits &= hits - 1;
      }
    }
  }
  const unsigned char first = lower[pq[0]];
  for (; at + k <= n; ++at)
    if (lower[t[at]] == first && equalHere(at)) return true;
  return false;
}

bool matchOne(std::string_view text, const Criterion& c, const Mapper& m) {
  std::string_view q = c.getText().view();
  if (q.empty()) return true;
  if (q.size() > text.size()) return false;
  switch (c.getMethod()) {
    case eExact:
      return q.size() == text.size() && equalAt(text, 0, q, m);
    case ePrefix:
      return equalAt(text, 0, q, m);
    case eSuffix:
      return equalAt(text, text.size() - q.size(), q, m);
    case eContains:
    default: {
      if (m.plain()) return text.find(q) != std::string_view::npos;
      if (m.fold && !m.timecode) return containsFolded(text, q);
      const unsigned char first = m(q[0]);
      const size_t last = text.size() - q.size();
      for (size_t at = 0; at <= last; ++at)
        if (m(text[at]) == first && equalAt(text, at, q, m)) return true;
      return false;
    }
  }
}

}  // namespace

void Criteria::add(const Criterion& c, LogicalOperator op) { items_.emplace_back(c, op); }

bool Criteria::empty() const {
  for (const auto& item : items_)
    if (!item.first.getText().empty()) return false;
  return true;
}

const Criterion& Criteria::getCriterion(unsigned short i) const {
  static const Criterion kNone;
  return i < items_.size() ? items_[i].first : kNone;
}

LogicalOperator Criteria::getOperator(unsigned short i) const {
  return i < items_.size() ? items_[i].second : eAnd;
}

bool match(const LightweightString<char>& text, const Criteria& criteria, unsigned int flags) {
  const unsigned short n = criteria.size();
  if (n == 0) return true;
  const Mapper m(flags);
  const std::string_view t = text.view();
  bool result = matchOne(t, criteria.getCriterion(0), m);
  for (unsigned short i = 1; i < n; ++i) {
    switch (criteria.getOperator(i)) {
      case eOr:
        if (!result) result = matchOne(t, criteria.getCriterion(i), m);
        break;
      case eAndNot:
        if (result) result = !matchOne(t, criteria.getCriterion(i), m);
        break;
      case eAnd:
      default:
        if (result) result = matchOne(t, criteria.getCriterion(i), m);
        break;
    }
  }
  return result;
}

}  // namespace TextSearch
