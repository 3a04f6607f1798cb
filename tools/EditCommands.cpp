// zyldb sort, find, dedupe, merge and convert: commands that make a new log
// from one or two logs. The inputs stay as they are; the result goes to the
// file named by -o (replaced in one step) or to stdout.

#include <strings.h>
#include <zyldb/platform/TextUtil.h>

#include <cctype>
#include <iostream>
#include <unordered_set>

#include "Common.h"

namespace zyl::cli {

namespace {

const OptionDef kOutputOption = {"output", 'o', "OUT",
                                 "write the result to OUT (a log; CSV when OUT ends in "
                                 "\".csv\", JSON when in \".json\"); default: stdout, as a log"};

const char kWritingDetails[] =
    "The input is never changed, unless OUT names it. A file is written whole to a temporary "
    "file beside it and renamed over it, so an interrupted run leaves the old file or the new "
    "one.\n";

// Reports what was written when the result went to a file.
void reportWritten(const std::string& command, const std::string& out, unsigned int rows) {
  if (out.empty()) return;
  std::cerr << "zyldb " << command << ": wrote " << plural(static_cast<long>(rows), "row", "rows")
            << " to " << out << "\n";
}

int runSort(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  if (!args.has("by")) throw UsageError("missing --by COLS");
  OpenLog log = requireLog(args.positional[0], true);
  zyldb& table = *log.table;
  sortTable(table, requireColumns(log, args.get("by")), args.has("desc"));
  ODBView view = viewOfRows(table, allRows(table));
  writeView("sort", *view.rep(), args.get("output"));
  reportWritten("sort", args.get("output"), view->get_num_records());
  return 0;
}

int runFind(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  if (!args.has("where")) throw UsageError("missing --where COL=TEXT");
  if (args.has("tag") && args.has("only")) throw UsageError("--tag and --only exclude each other");
  OpenLog log = requireLog(args.positional[0], true);
  zyldb& table = *log.table;
  std::vector<unsigned int> matches = matchingRows(log, args.getAll("where"));
  unsigned int total = table.get_num_records();

  ODBView view;
  if (args.has("tag")) {
    // Every row, tagged when it matches; the tags are saved in a "Tag"
    // column, added when the log has none.
    table.addField(DBFieldDesc{"Tag", DBFieldTypes::numeric});
    view = newView(table);
    view->displayAllRecords();
    view->tagAll(false);
    for (unsigned int r : matches) view->set_tag(r, 1);
  } else {
    view = viewOfRows(table, matches);
  }
  std::cerr << "zyldb find: " << matches.size() << " of "
            << plural(static_cast<long>(total), "row matches", "rows match") << "\n";
  writeView("find", *view.rep(), args.get("output"));
  reportWritten("find", args.get("output"), view->get_num_records());
  return matches.empty() ? 1 : 0;
}

int runDedupe(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  if (!args.has("by")) throw UsageError("missing --by COL");
  OpenLog log = requireLog(args.positional[0], true);
  zyldb& table = *log.table;
  std::vector<int> columns = requireColumns(log, args.get("by"));
  if (columns.size() != 1) throw UsageError("--by takes one column");

  // The first row of every value, in table order; values equal ignoring
  // case, as the library's duplicate tagging compares them.
  std::unordered_set<std::string> seen;
  std::vector<unsigned int> keep;
  for (unsigned int r = 0; r < table.get_num_records(); ++r) {
    std::string value = table.getField(r, static_cast<unsigned int>(columns[0])).toStdString();
    for (char& ch : value) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (seen.insert(value).second) keep.push_back(r);
  }
  ODBView view = viewOfRows(table, keep);
  writeView("dedupe", *view.rep(), args.get("output"));
  std::cerr << "zyldb dedupe: kept " << keep.size() << " of "
            << plural(static_cast<long>(table.get_num_records()), "row", "rows") << ", one per "
            << table.get_fieldname(columns[0]) << " value\n";
  reportWritten("dedupe", args.get("output"), view->get_num_records());
  return 0;
}

int runMerge(const ParsedArgs& args) {
  expectPositional(args, {"LOG", "OTHER"});
  OpenLog log = requireLog(args.positional[0], true);
  OpenLog other = requireLog(args.positional[1], true);
  zyldb& table = *log.table;
  zyldb& source = *other.table;

  std::string unmatched;
  unsigned int matched = 0;
  for (unsigned int c = 0; c < source.get_num_fields(); ++c) {
    if (table.get_fieldnum(LightweightString<char>(source.get_fieldname(c))) >= 0)
      ++matched;
    else
      unmatched += std::string(unmatched.empty() ? "" : ", ") + source.get_fieldname(c);
  }
  unsigned int before = table.get_num_records();
  if (table.merge_all_matching(&source) == 0)
    throw Failure("no column of " + other.path + " has the name of a column of " + log.path +
                  "; nothing to merge");
  ODBView view = viewOfRows(table, allRows(table));
  writeView("merge", *view.rep(), args.get("output"));
  std::cerr << "zyldb merge: appended "
            << plural(static_cast<long>(table.get_num_records() - before), "row", "rows") << " of "
            << other.path << " by column name; " << matched << " of its "
            << plural(static_cast<long>(source.get_num_fields()), "column", "columns")
            << " matched";
  if (!unmatched.empty()) std::cerr << " (left out: " << unmatched << ")";
  std::cerr << "\n";
  reportWritten("merge", args.get("output"), view->get_num_records());
  return 0;
}

int runConvert(const ParsedArgs& args) {
  expectPositional(args, {"IN", "OUT"});
  const std::string& in = args.positional[0];
  if (endsWithIgnoringCase(std::string_view(in), ".json"))
    throw UsageError("JSON is written, not read: IN must be a log or a \".csv\" file");
  OpenLog log = requireLog(in, true);
  ODBView view = viewOfRows(*log.table, allRows(*log.table));
  writeView("convert", *view.rep(), args.positional[1]);
  reportWritten("convert", args.positional[1], view->get_num_records());
  return 0;
}

}  // namespace

Command sortCommand() {
  return {{"sort",
           "LOG --by COLS [--desc] [-o OUT]",
           "sort the records on columns",
           "Sorts the log's records on the columns named, with the library's comparators "
           "(ascending; --desc for the descending one).",
           {{"by", 0, "COLS", "the columns to sort on, comma-separated, in this order"},
            {"desc", 0, "", "sort descending"},
            kOutputOption},
           kWritingDetails},
          runSort};
}

Command findCommand() {
  return {{"find",
           "LOG --where COL=TEXT... [--tag | --only] [-o OUT]",
           "keep or tag the records that match a query",
           "Finds the records that match a query: every COL must contain its TEXT, ignoring "
           "case; start/end label columns match a label lying in their range.",
           {{"where", 0, "COL=TEXT", "a condition; repeatable", true},
            {"tag", 0, "", "keep every record and tag the matches in the \"Tag\" column"},
            {"only", 0, "", "keep only the matching records (the default)"},
            kOutputOption},
           std::string("Exit status: 0 when records match, 1 when none does, 2 on a usage "
                       "error.\n\n") +
               kWritingDetails},
          runFind};
}

Command dedupeCommand() {
  return {{"dedupe",
           "LOG --by COL [-o OUT]",
           "keep the first record of every value of a column",
           "Keeps the first record, in file order, of every value of a column (values that "
           "differ only in case are the same value).",
           {{"by", 0, "COL", "the column whose values must not repeat"}, kOutputOption},
           kWritingDetails},
          runDedupe};
}

Command mergeCommand() {
  return {{"merge",
           "LOG OTHER [-o OUT]",
           "append the records of another log by column name",
           "Appends the records of OTHER to those of LOG, column by column where the names "
           "match; timecodes are converted between their two column types.",
           {kOutputOption},
           kWritingDetails},
          runMerge};
}

Command convertCommand() {
  return {{"convert",
           "IN OUT",
           "convert between the log format, CSV and JSON",
           "Converts between the log format and comma-separated text (a name ending in "
           "\".csv\", both ways) and writes JSON (a name ending in \".json\").",
           {},
           kWritingDetails},
          runConvert};
}

}  // namespace zyl::cli
