#include "Query.h"

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/time_def.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <optional>
#include <regex>

#include "Common.h"
#include "Fold.h"
#include "Progress.h"

namespace zyl::cli {

namespace {

std::string trimBlanks(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

bool isTimecodeType(DBFieldTypes::eType t) {
  return t == DBFieldTypes::timecode || t == DBFieldTypes::timecode_s;
}

bool isNumberType(DBFieldTypes::eType t) {
  return t == DBFieldTypes::numeric || t == DBFieldTypes::long_ || t == DBFieldTypes::double_;
}

// The value of a cell of a timecode or number column, or nothing when it
// does not parse as one.
std::optional<double> valueOf(DBFieldTypes::eType type, const std::string& text) {
  if (isTimecodeType(type)) {
    time_def tc(text.c_str(), eLabelTimecode);
    if (!tc.isValid()) return std::nullopt;
    return ((tc.hours() * 60.0 + tc.minutes()) * 60.0 + tc.seconds()) * 64.0 + tc.frames();
  }
  if (isNumberType(type)) {
    std::string t = trimBlanks(text);
    if (t.empty()) return std::nullopt;
    char* end = nullptr;
    double v = std::strtod(t.c_str(), &end);
    if (end != t.c_str() + t.size() || std::isnan(v)) return std::nullopt;
    return v;
  }
  return std::nullopt;
}

struct OpName {
  const char* text;
  Condition::Op op;
};
// Longest first, so that "==" is not read as "=" followed by "=".
constexpr OpName kOps[] = {{"==", Condition::Op::equals},       {"!=", Condition::Op::notEquals},
                           {"!~", Condition::Op::notRegex},     {"<=", Condition::Op::lessEqual},
                           {">=", Condition::Op::greaterEqual}, {"=", Condition::Op::contains},
                           {"~", Condition::Op::regex},         {"<", Condition::Op::less},
                           {">", Condition::Op::greater}};

bool ordered(Condition::Op op) {
  return op == Condition::Op::less || op == Condition::Op::lessEqual ||
         op == Condition::Op::greater || op == Condition::Op::greaterEqual;
}

// A condition made ready to test cells.
struct Test {
  Condition cond;
  DBFieldTypes::eType type;
  bool library = false;  // '=' on a label column: the library's range search
  std::string folded;    // the folded value, for = == !=
  std::optional<double> value;
  std::optional<std::regex> re;
};

bool passes(const Test& t, const std::string& cell, bool foldAccents) {
  using Op = Condition::Op;
  switch (t.cond.op) {
    case Op::contains:
      return foldText(cell, foldAccents).find(t.folded) != std::string::npos;
    case Op::equals:
    case Op::notEquals: {
      bool equal;
      std::optional<double> v = t.value ? valueOf(t.type, cell) : std::nullopt;
      if (v)
        equal = *v == *t.value;
      else
        equal = foldText(cell, foldAccents) == t.folded;
      return equal == (t.cond.op == Op::equals);
    }
    case Op::regex:
    case Op::notRegex:
      return std::regex_search(cell, *t.re) == (t.cond.op == Op::regex);
    default: {
      std::optional<double> v = valueOf(t.type, cell);
      if (!v) return false;
      switch (t.cond.op) {
        case Op::less:
          return *v < *t.value;
        case Op::lessEqual:
          return *v <= *t.value;
        case Op::greater:
          return *v > *t.value;
        default:
          return *v >= *t.value;
      }
    }
  }
}

}  // namespace

Condition parseCondition(const OpenLog& log, const std::string& text) {
  size_t at = text.find_first_of("=!~<>");
  if (at == std::string::npos || trimBlanks(text.substr(0, at)).empty())
    throw UsageError("--where needs COLUMN=TEXT (or ==, !=, ~, !~, <, <=, >, >=), not \"" + text +
                     "\"");
  Condition c;
  bool found = false;
  for (const OpName& o : kOps) {
    if (text.compare(at, std::strlen(o.text), o.text) == 0) {
      c.op = o.op;
      c.value = text.substr(at + std::strlen(o.text));
      found = true;
      break;
    }
  }
  if (!found)
    throw UsageError("--where: no comparison in \"" + text +
                     "\" (use =, ==, !=, ~, !~, <, <=, >, >=)");
  std::string name = trimBlanks(text.substr(0, at));
  c.column = requireColumn(log, name);
  DBFieldTypes::eType type = log.table->get_field_type(static_cast<unsigned int>(c.column));
  if (ordered(c.op)) {
    if (!isTimecodeType(type) && !isNumberType(type))
      throw UsageError("--where: \"" + name +
                       "\" is a text column; <, <=, > and >= compare timecode and number columns");
    if (!valueOf(type, c.value))
      throw UsageError("--where: \"" + trimBlanks(c.value) + "\" is not a " +
                       (isTimecodeType(type) ? "timecode" : "number") + " to compare \"" + name +
                       "\" with");
  }
  return c;
}

std::vector<std::vector<Condition>> conditionGroups(const OpenLog& log, const ParsedArgs& args) {
  std::vector<std::vector<Condition>> groups;
  bool open = false;
  for (const auto& [name, value] : args.ordered) {
    if (name == "or") {
      if (!open) throw UsageError("--or must stand between two --where conditions");
      open = false;
    } else if (name == "where") {
      if (!open) groups.emplace_back();
      open = true;
      groups.back().push_back(parseCondition(log, value));
    }
  }
  if (!groups.empty() && !open) throw UsageError("--or must stand between two --where conditions");
  return groups;
}

std::vector<unsigned int> filterRows(const OpenLog& log,
                                     const std::vector<std::vector<Condition>>& groups,
                                     bool foldAccents) {
  zyldb& table = *log.table;
  unsigned int n = table.get_num_records();
  std::vector<unsigned int> rows;
  if (groups.empty()) {
    rows.resize(n);
    std::iota(rows.begin(), rows.end(), 0u);
    return rows;
  }
  std::vector<char> matched(n, 0);
  Progress progress("searching", static_cast<uint64_t>(n) * groups.size(), Progress::Unit::rows);
  uint64_t done = 0;
  for (const std::vector<Condition>& group : groups) {
    std::vector<Test> tests;
    std::unique_ptr<dbrecord> query(table.make_dummy_record());
    bool libraryQuery = false;
    std::vector<bool> named(table.get_num_fields(), false);
    for (const Condition& c : group) {
      Test t{c, table.get_field_type(static_cast<unsigned int>(c.column)), false, {}, {}, {}};
      if (c.op == Condition::Op::contains &&
          table.isSpecialLabelField(static_cast<unsigned long>(c.column)) != 0) {
        if (named[c.column])
          throw UsageError(std::string("--where names the label column \"") +
                           table.get_fieldname(c.column) +
                           "\" twice in one group; a range search holds one label per column");
        named[c.column] = true;
        query->set_field(c.column, c.value.c_str(), true);
        libraryQuery = true;
        continue;
      }
      if (c.op == Condition::Op::regex || c.op == Condition::Op::notRegex) {
        try {
          t.re.emplace(c.value, std::regex::ECMAScript | std::regex::icase);
        } catch (const std::regex_error& e) {
          throw UsageError("--where: bad regular expression \"" + c.value + "\": " + e.what());
        }
      } else if (c.op == Condition::Op::contains) {
        // The library's search drops the query's leading blanks too.
        std::string v = c.value;
        v.erase(0, v.find_first_not_of(" \t"));
        t.folded = foldText(v, foldAccents);
      } else {
        t.folded = foldText(c.value, foldAccents);
        t.value = valueOf(t.type, c.value);
      }
      tests.push_back(std::move(t));
    }
    if (libraryQuery) table.set_query(query.get());
    for (unsigned int r = 0; r < n; ++r) {
      progress.update(++done);
      if (matched[r]) continue;
      bool ok = !libraryQuery || table.match_record(static_cast<int>(r)) != 0;
      for (size_t i = 0; ok && i < tests.size(); ++i)
        ok =
            passes(tests[i],
                   table.getField(r, static_cast<unsigned int>(tests[i].cond.column)).toStdString(),
                   foldAccents);
      if (ok) matched[r] = 1;
    }
  }
  for (unsigned int r = 0; r < n; ++r)
    if (matched[r]) rows.push_back(r);
  return rows;
}

std::vector<SortKey> parseSortKeys(const OpenLog& log, const std::string& text) {
  std::vector<SortKey> keys;
  for (const std::string& item : splitList(text)) {
    SortKey key;
    std::string name = item;
    size_t colon = item.rfind(':');
    if (colon != std::string::npos) {
      std::string dir = trimBlanks(item.substr(colon + 1));
      if (dir == "desc" || dir == "asc") {
        key.descending = dir == "desc";
        name = trimBlanks(item.substr(0, colon));
      }
    }
    key.column = requireColumn(log, name);
    keys.push_back(key);
  }
  if (keys.empty()) throw UsageError("no column named in \"" + text + "\"");
  return keys;
}

namespace {

// A cell's sort key: its class (a value, text, or empty), then the value or
// the folded text.
struct CellKey {
  uint8_t rank = 2;  // 0 value, 1 text, 2 empty
  double value = 0;
  std::string text;
};

int compareKeys(const CellKey& a, const CellKey& b) {
  if (a.rank != b.rank) return a.rank < b.rank ? -1 : 1;
  if (a.rank == 0) return a.value < b.value ? -1 : (a.value > b.value ? 1 : 0);
  if (a.rank == 1) return naturalCompare(a.text, b.text);
  return 0;
}

}  // namespace

void sortRows(const zyldb& table, std::vector<unsigned int>& rows, const std::vector<SortKey>& keys,
              bool reverse, bool foldAccents) {
  size_t n = rows.size();
  std::vector<std::vector<CellKey>> cellKeys(keys.size(), std::vector<CellKey>(n));
  for (size_t k = 0; k < keys.size(); ++k) {
    DBFieldTypes::eType type = table.get_field_type(static_cast<unsigned int>(keys[k].column));
    for (size_t i = 0; i < n; ++i) {
      std::string cell =
          table.getField(rows[i], static_cast<unsigned int>(keys[k].column)).toStdString();
      CellKey& key = cellKeys[k][i];
      if (isEssentiallyEmpty(cell.c_str())) continue;
      if (std::optional<double> v = valueOf(type, cell)) {
        key.rank = 0;
        key.value = *v;
      } else {
        key.rank = 1;
        key.text = sortKey(cell, foldAccents);
      }
    }
  }
  std::vector<size_t> order(n);
  std::iota(order.begin(), order.end(), size_t{0});
  uint64_t estimate = n < 2 ? 1 : static_cast<uint64_t>(n * std::log2(static_cast<double>(n)));
  Progress progress("sorting", estimate, Progress::Unit::rows);
  uint64_t comparisons = 0;
  // A total order: the keys, then the rows' positions; reversing the
  // comparison reverses the whole order exactly.
  auto before = [&](size_t a, size_t b) {
    progress.update(++comparisons);
    for (size_t k = 0; k < keys.size(); ++k) {
      int c = compareKeys(cellKeys[k][a], cellKeys[k][b]);
      if (keys[k].descending) c = -c;
      if (c != 0) return reverse ? c > 0 : c < 0;
    }
    return reverse ? a > b : a < b;
  };
  std::sort(order.begin(), order.end(), before);
  std::vector<unsigned int> sorted(n);
  for (size_t i = 0; i < n; ++i) sorted[i] = rows[order[i]];
  rows.swap(sorted);
}

}  // namespace zyl::cli
