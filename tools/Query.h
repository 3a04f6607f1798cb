#pragma once

// Choosing and ordering rows for the tool: --where conditions with OR
// between groups, and sorting on several keys, each ascending or
// descending, in the order people expect (natural, caseless, accents next
// to their base letter, timecodes and numbers by value).

#include <zyldb/db/zyldb.h>

#include <string>
#include <vector>

#include "Args.h"
#include "LogFile.h"

namespace zyl::cli {

// One condition "COLUMN OP VALUE". OP is one of
//   =   the library's search: the cell contains VALUE, ignoring case (Unicode
//       case folding); on a start/end label column, the label lies in the
//       column pair's range
//   ==  the whole cell equals VALUE, ignoring case; on a timecode or number
//       column, the same value ("1:00:00:00" == "01:00:00:00")
//   !=  not ==
//   ~   the cell matches the regular expression VALUE (ECMAScript, ASCII
//       letters ignoring case)
//   !~  not ~
//   < <= > >=  ordered, on timecode and number columns only
// Accents count unless `foldAccents`.
struct Condition {
  enum class Op {
    contains,
    equals,
    notEquals,
    regex,
    notRegex,
    less,
    lessEqual,
    greater,
    greaterEqual
  };
  int column = -1;
  Op op = Op::contains;
  std::string value;
};

// Parses "COLUMN OP VALUE" against the log's columns; UsageError when it is
// not one, or names an ordered comparison on a text column.
Condition parseCondition(const OpenLog& log, const std::string& text);

// The raw rows (in table order) that match any group of conditions, a group
// matching when all its conditions do. `groups` empty: every row.
// Throws UsageError for a bad regular expression. Costs one pass over the
// rows per group.
std::vector<unsigned int> filterRows(const OpenLog& log,
                                     const std::vector<std::vector<Condition>>& groups,
                                     bool foldAccents);

// The groups named by a command's --where and --or options: each --where
// adds a condition to the current group, --or starts a new one.
std::vector<std::vector<Condition>> conditionGroups(const OpenLog& log, const ParsedArgs& args);

struct SortKey {
  int column = -1;
  bool descending = false;
};

// Parses "Scene:desc,Take" (":asc" is the default) against the log's columns.
std::vector<SortKey> parseSortKeys(const OpenLog& log, const std::string& text);

// `rows` reordered on `keys`: empty cells after every value, then per column
// type: timecodes by time, numbers by value, text in natural caseless order
// (see Fold.h); a cell that does not parse as its column's type sorts after
// those that do, as text. Rows equal on every key keep their order. With
// `reverse` the result is exactly the reverse of the order without it.
// Costs O(n log n) comparisons of keys made once per row.
void sortRows(const zyldb& table, std::vector<unsigned int>& rows, const std::vector<SortKey>& keys,
              bool reverse, bool foldAccents);

}  // namespace zyl::cli
