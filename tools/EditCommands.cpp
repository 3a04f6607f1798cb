// zyldb sort, find, dedupe, merge and convert: commands that make a new log
// from one or two logs. The inputs stay as they are; the result goes to the
// file named by -o (replaced in one step) or to stdout.

#include <strings.h>

#include <algorithm>
#include <iostream>
#include <unordered_set>

#include "Common.h"
#include "Fold.h"
#include "Query.h"

namespace zyl::cli {

namespace {

const char kWritingDetails[] =
    "The input is never changed, unless OUT names it. A file is written row by row to a "
    "temporary file beside it and renamed over it, so an interrupted run leaves the old file or "
    "the new one; a symbolic link stays and its target is replaced; a FIFO or device is written "
    "directly. \"-\" reads stdin or writes stdout.\n";

// Reports what was written when the result went to a file.
void reportWritten(const std::string& command, const std::string& out, size_t rows) {
  if (out.empty() || out == "-") return;
  std::cerr << "zyldb " << command << ": wrote " << plural(static_cast<long>(rows), "row", "rows")
            << " to " << out << "\n";
}

// The rows of `table` to write, with every column.
RowSource sourceOf(zyldb& table, const std::vector<unsigned int>& rows) {
  RowSource source;
  source.table = &table;
  source.columns = allColumns(table);
  source.rows = &rows;
  source.params = tableParams(table);
  return source;
}

// Writes the rows to -o (stdout by default) and reports it.
void writeResult(const std::string& command, const ParsedArgs& args, const RowSource& source) {
  std::string out = args.get("output");
  emitRows(source, out, args.get("format"));
  reportWritten(command, out, source.size());
}

int runSort(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  if (!args.has("by")) throw UsageError("missing --by COLS");
  outputFormat(args.get("output"), args.get("format"));  // refuse a bad name before reading
  OpenLog log = requireLog(args.positional[0], true);
  zyldb& table = *log.table;
  std::vector<SortKey> keys = parseSortKeys(log, args.get("by"));
  std::vector<unsigned int> rows = allRows(table);
  sortRows(table, rows, keys, args.has("desc"), args.has("fold-accents"));
  writeResult("sort", args, sourceOf(table, rows));
  return 0;
}

int runFind(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  if (!args.has("where")) throw UsageError("missing --where COND");
  if (args.has("tag") && args.has("only")) throw UsageError("--tag and --only exclude each other");
  outputFormat(args.get("output"), args.get("format"));
  OpenLog log = requireLog(args.positional[0], true);
  zyldb& table = *log.table;
  std::vector<unsigned int> matches =
      filterRows(log, conditionGroups(log, args), args.has("fold-accents"));
  unsigned int total = table.get_num_records();
  std::cerr << "zyldb find: " << matches.size() << " of "
            << plural(static_cast<long>(total), "row matches", "rows match") << "\n";

  if (args.has("tag")) {
    // Every row, tagged when it matches; the tags are saved in a "Tag"
    // column, added when the log has none.
    table.addField(DBFieldDesc{"Tag", DBFieldTypes::numeric});
    unsigned int tagColumn =
        static_cast<unsigned int>(table.get_fieldnum(LightweightString<char>("Tag")));
    LightweightString<char> no("0"), yes("1");
    for (unsigned int r = 0; r < total; ++r) table.setField(r, tagColumn, no);
    for (unsigned int r : matches) table.setField(r, tagColumn, yes);
    std::vector<unsigned int> rows = allRows(table);
    writeResult("find", args, sourceOf(table, rows));
  } else {
    writeResult("find", args, sourceOf(table, matches));
  }
  return matches.empty() ? 1 : 0;
}

int runDedupe(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  if (!args.has("by")) throw UsageError("missing --by COL");
  outputFormat(args.get("output"), args.get("format"));
  OpenLog log = requireLog(args.positional[0], true);
  zyldb& table = *log.table;
  std::vector<int> columns = requireColumns(log, args.get("by"));
  if (columns.size() != 1) throw UsageError("--by takes one column");
  bool fold = args.has("fold-accents");

  // The first row of every value, in table order; values equal ignoring
  // case (and accents with --fold-accents) are the same value.
  std::unordered_set<std::string> seen;
  std::vector<unsigned int> keep;
  for (unsigned int r = 0; r < table.get_num_records(); ++r) {
    std::string value = table.getField(r, static_cast<unsigned int>(columns[0])).toStdString();
    if (seen.insert(foldText(value, fold)).second) keep.push_back(r);
  }
  emitRows(sourceOf(table, keep), args.get("output"), args.get("format"));
  std::cerr << "zyldb dedupe: kept " << keep.size() << " of "
            << plural(static_cast<long>(table.get_num_records()), "row", "rows") << ", one per "
            << table.get_fieldname(columns[0]) << " value\n";
  reportWritten("dedupe", args.get("output"), keep.size());
  return 0;
}

// What merging OTHER into LOG does to columns and parameters.
struct MergePlan {
  std::vector<std::string> matched, renamed, converted, added, leftOut;
  std::vector<std::pair<std::string, std::string>> paramsAdded;
  std::vector<std::string> paramsKept, paramsDropped;
};

MergePlan planMerge(const zyldb& table, const zyldb& source, bool allColumns) {
  MergePlan plan;
  for (unsigned int c = 0; c < source.get_num_fields(); ++c) {
    std::string name = source.get_fieldname(c);
    int mine = table.get_fieldnum(LightweightString<char>(name));
    if (mine < 0) {
      if (allColumns)
        plan.added.push_back(name + " (" + typeKeyword(source.get_field_type(c)) + ")");
      else
        plan.leftOut.push_back(name);
      continue;
    }
    plan.matched.push_back(name);
    std::string myName = table.get_fieldname(static_cast<unsigned int>(mine));
    if (myName != name) plan.renamed.push_back("\"" + name + "\" as \"" + myName + "\"");
    DBFieldTypes::eType from = source.get_field_type(c);
    DBFieldTypes::eType to = table.get_field_type(static_cast<unsigned int>(mine));
    if (from != to)
      plan.converted.push_back(myName + " (" + typeKeyword(from) + " to " + typeKeyword(to) + ")");
  }
  unsigned int room = zyldb::kMaxParams - std::max(table.getNumParams(), 1u);
  for (unsigned int i = 0; i < source.getNumParams(); ++i) {
    std::string name = source.getParamName(i), value = source.getParamValue(i);
    if (strcasecmp(name.c_str(), "ZYLDB") == 0 || strcasecmp(name.c_str(), "V5_FIELD_MAP") == 0)
      continue;
    bool found = false;
    for (unsigned int j = 0; j < table.getNumParams() && !found; ++j) {
      if (strcasecmp(table.getParamName(j), name.c_str()) != 0) continue;
      found = true;
      if (value != table.getParamValue(j))
        plan.paramsKept.push_back(name + " (LOG: \"" + table.getParamValue(j) + "\", OTHER: \"" +
                                  value + "\")");
    }
    if (found) continue;
    if (plan.paramsAdded.size() < room)
      plan.paramsAdded.emplace_back(name, value);
    else
      plan.paramsDropped.push_back(name);
  }
  return plan;
}

void printList(const char* title, const std::vector<std::string>& items) {
  if (items.empty()) return;
  std::string line;
  for (const std::string& item : items) line += (line.empty() ? "" : ", ") + item;
  std::cout << title << ": " << line << "\n";
}

int runMerge(const ParsedArgs& args) {
  expectPositional(args, {"LOG", "OTHER"});
  if (args.positional[0] == "-" && args.positional[1] == "-")
    throw UsageError("LOG and OTHER cannot both be stdin");
  if (!args.has("dry-run")) outputFormat(args.get("output"), args.get("format"));
  OpenLog log = requireLog(args.positional[0], true);
  OpenLog other = requireLog(args.positional[1], true);
  zyldb& table = *log.table;
  zyldb& source = *other.table;
  bool allColumns = args.has("all-columns");
  MergePlan plan = planMerge(table, source, allColumns);
  if (plan.matched.empty())
    throw Failure("no column of " + other.shownName() + " has the name of a column of " +
                  log.shownName() + "; nothing to merge");

  if (args.has("dry-run")) {
    std::cout << "rows: " << table.get_num_records() << " + "
              << plural(static_cast<long>(source.get_num_records()), "row", "rows") << " of "
              << other.shownName()
              << " appended = " << table.get_num_records() + source.get_num_records() << "\n";
    printList("columns matched", plan.matched);
    printList("columns matched ignoring case", plan.renamed);
    printList("columns converted", plan.converted);
    printList("columns added", plan.added);
    printList("columns left out (see --all-columns)", plan.leftOut);
    std::vector<std::string> added;
    for (const auto& [name, value] : plan.paramsAdded) added.push_back(name + "=" + value);
    printList("parameters added", added);
    printList("parameters kept from LOG", plan.paramsKept);
    printList("parameters dropped (no room)", plan.paramsDropped);
    return 0;
  }

  if (allColumns)
    for (unsigned int c = 0; c < source.get_num_fields(); ++c)
      if (table.get_fieldnum(LightweightString<char>(source.get_fieldname(c))) < 0)
        table.addField(DBFieldDesc{source.get_fieldname(c), source.get_field_type(c)});
  for (const auto& [name, value] : plan.paramsAdded) table.add_param(name.c_str(), value.c_str());
  unsigned int before = table.get_num_records();
  table.merge_all_matching(&source);
  std::vector<unsigned int> rows = allRows(table);
  emitRows(sourceOf(table, rows), args.get("output"), args.get("format"));
  std::cerr << "zyldb merge: appended "
            << plural(static_cast<long>(table.get_num_records() - before), "row", "rows") << " of "
            << other.shownName() << " by column name; " << plan.matched.size() << " of its "
            << plural(static_cast<long>(source.get_num_fields()), "column", "columns")
            << " matched";
  if (!plan.added.empty()) std::cerr << ", " << plan.added.size() << " added";
  if (!plan.leftOut.empty()) {
    std::string names;
    for (const std::string& n : plan.leftOut) names += (names.empty() ? "" : ", ") + n;
    std::cerr << " (left out: " << names << ")";
  }
  std::cerr << "\n";
  if (!plan.paramsKept.empty() || !plan.paramsDropped.empty())
    std::cerr << "zyldb merge: kept " << log.shownName() << "'s value of "
              << plural(static_cast<long>(plan.paramsKept.size()), "parameter", "parameters")
              << " both set; dropped "
              << plural(static_cast<long>(plan.paramsDropped.size()), "parameter", "parameters")
              << " for want of room (see --dry-run)\n";
  reportWritten("merge", args.get("output"), rows.size());
  return 0;
}

int runConvert(const ParsedArgs& args) {
  expectPositional(args, {"IN", "OUT"});
  const std::string& out = args.positional[1];
  outputFormat(out, args.get("format"));
  OpenLog log = requireLog(args.positional[0], true);
  std::vector<unsigned int> rows = allRows(*log.table);
  emitRows(sourceOf(*log.table, rows), out, args.get("format"));
  reportWritten("convert", out, rows.size());
  return 0;
}

}  // namespace

Command sortCommand() {
  return {{"sort",
           "LOG --by KEYS [--desc] [-o OUT]",
           "sort the records on columns",
           "Sorts the log's records on the columns named: empty cells last, timecodes by time, "
           "numbers by value, text in natural order ignoring case (2, 9, 9A, 10), letters with "
           "accents beside their base letter. Rows equal on every key keep their order.",
           {{"by", 0, "KEYS",
             "the columns to sort on, comma-separated, in this order; COL:desc sorts that "
             "column descending (Scene:desc,Take)"},
            {"desc", 0, "", "reverse the whole order: exactly the ascending order backwards"},
            kFoldAccentsOption,
            kOutputOption,
            kFormatOption},
           kWritingDetails},
          runSort};
}

Command findCommand() {
  return {{"find",
           "LOG --where COND... [--or --where COND...] [--tag | --only] [-o OUT]",
           "keep or tag the records that match a query",
           "Finds the records that match a query: a record matches when it meets every "
           "condition of any group (groups are separated by --or).",
           {kWhereOption,
            kOrOption,
            kFoldAccentsOption,
            {"tag", 0, "", "keep every record and tag the matches in the \"Tag\" column"},
            {"only", 0, "", "keep only the matching records (the default)"},
            kOutputOption,
            kFormatOption},
           std::string(kMatchingDetails) +
               "\nExit status: 0 when records match, 1 when none does, 2 on a usage error.\n\n" +
               kWritingDetails},
          runFind};
}

Command dedupeCommand() {
  return {{"dedupe",
           "LOG --by COL [-o OUT]",
           "keep the first record of every value of a column",
           "Keeps the first record, in file order, of every value of a column (values that "
           "differ only in case, in any script, are the same value).",
           {{"by", 0, "COL", "the column whose values must not repeat"},
            kFoldAccentsOption,
            kOutputOption,
            kFormatOption},
           kWritingDetails},
          runDedupe};
}

Command mergeCommand() {
  return {
      {"merge",
       "LOG OTHER [--all-columns] [--dry-run] [-o OUT]",
       "append the records of another log by column name",
       "Appends the records of OTHER to those of LOG, column by column where the names "
       "match ignoring case; timecodes are converted between their two column types. "
       "The result has LOG's columns (and, with --all-columns, OTHER's other columns after "
       "them) and LOG's parameters, followed by those of OTHER's parameters that LOG lacks "
       "(not its column arrangement, V5_FIELD_MAP) while there is room; where both set a "
       "parameter, LOG's value is kept.",
       {{"all-columns", 0, "", "add OTHER's columns that LOG lacks instead of leaving them out"},
        {"dry-run", 0, "",
         "print what would be appended, matched, converted and added, and write nothing"},
        kOutputOption,
        kFormatOption},
       kWritingDetails},
      runMerge};
}

Command convertCommand() {
  return {{"convert",
           "IN OUT",
           "convert between the log format, CSV, TSV and JSON",
           "Converts between formats. IN is read as its extension says (.csv, .json, else a "
           "log; stdin \"-\" by its first bytes); OUT is written as --format or its extension "
           "says (.log, .csv, .tsv, .ale, .json, any case). JSON has one shape, read and "
           "written: {\"parameters\": {NAME: VALUE}, \"columns\": [{\"name\": N, \"type\": T}], "
           "\"rows\": [{COLUMN: VALUE}]}.",
           {kFormatOption},
           kWritingDetails},
          runConvert};
}

}  // namespace zyl::cli
