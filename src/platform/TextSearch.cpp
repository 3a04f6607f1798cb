// TextSearch::match. It runs once per row in searches of large tables, so it
// works on the texts in place: no copies, no allocation. Both texts go
// through one byte mapping (case folding without kCaseSensitive, and the
// timecode separators ':' ';' '.' ',' made one under kTimecode) and are then
// compared with the criterion's method.

#include <zyldb/platform/TextSearch.h>

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
      if (m.fold && !m.timecode) {
        // Candidates are the places of the first byte in either case, found
        // with memchr; only they are compared in full.
        const unsigned char lo = zyl::detail::kLower.map[static_cast<unsigned char>(q[0])];
        const unsigned char up = lo >= 'a' && lo <= 'z' ? static_cast<unsigned char>(lo - 32) : lo;
        const char* base = text.data();
        const size_t limit = text.size() - q.size() + 1;
        const char* pl = static_cast<const char*>(std::memchr(base, lo, limit));
        const char* pu =
            up == lo ? nullptr : static_cast<const char*>(std::memchr(base, up, limit));
        while (pl || pu) {
          const char* p = !pu || (pl && pl < pu) ? pl : pu;
          const size_t at = static_cast<size_t>(p - base);
          if (equalAt(text, at, q, m)) return true;
          if (p == pl)
            pl = static_cast<const char*>(std::memchr(p + 1, lo, limit - at - 1));
          else
            pu = static_cast<const char*>(std::memchr(p + 1, up, limit - at - 1));
        }
        return false;
      }
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
