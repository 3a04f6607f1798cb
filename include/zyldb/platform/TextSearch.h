#pragma once

// TextSearch: what a query looks for in a cell.
//
// A Criterion is a text and a match method; a Criteria is a list of criteria
// joined by logical operators, evaluated left to right (no precedence).
//
// match(text, criteria, flags):
//  * methods: eExact (whole text equal), eContains (the criterion's text
//    occurs anywhere; method value 1, what a log query uses), ePrefix,
//    eSuffix;
//  * flag 1 (kCaseSensitive): compare bytes exactly; without it ASCII letters
//    compare ignoring case;
//  * flag 2 (kTimecode): the texts are timecodes: the separators ':', ';',
//    '.' and ',' are all taken as one, so "01:00:00;10" matches a query of
//    "00:00:10" and a query typed with ':' finds drop-frame cells.
// An empty Criteria, and a criterion with an empty text, match everything.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <vector>

namespace TextSearch {

enum eMatchMethod { eExact = 0, eContains = 1, ePrefix = 2, eSuffix = 3 };
enum LogicalOperator { eAnd = 0, eOr = 1, eAndNot = 2 };
enum Flags : unsigned int { kCaseSensitive = 1, kTimecode = 2 };

class ZYLDB_EXPORT Criterion {
 public:
  Criterion() = default;
  Criterion(const LightweightString<char>& text, eMatchMethod method)
      : text_(text), method_(method) {}
  const LightweightString<char>& getText() const { return text_; }
  eMatchMethod getMethod() const { return method_; }

 private:
  LightweightString<char> text_;
  eMatchMethod method_ = eContains;
};

class ZYLDB_EXPORT Criteria {
 public:
  Criteria() = default;
  explicit Criteria(const Criterion& c) { add(c, eAnd); }
  // Appends a criterion; `op` joins it to the ones before (ignored for the
  // first).
  void add(const Criterion& c, LogicalOperator op);
  // True when there is no criterion with a non-empty text.
  bool empty() const;
  unsigned short size() const { return static_cast<unsigned short>(items_.size()); }
  // Criterion i; an empty criterion for i out of range.
  const Criterion& getCriterion(unsigned short i) const;
  LogicalOperator getOperator(unsigned short i) const;

 private:
  std::vector<std::pair<Criterion, LogicalOperator>> items_;
};

ZYLDB_EXPORT bool match(const LightweightString<char>& text, const Criteria& criteria,
                        unsigned int flags);

}  // namespace TextSearch
