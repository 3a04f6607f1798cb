// zyldb show and zyldb info: reading a log without changing it.

#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <zyldb/fieldmap/FieldMap.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>

#include "Common.h"
#include "Query.h"

namespace zyl::cli {

namespace {

// The width to fit a table in: --width when given (0: no limit); the
// terminal's width when stdout is one; else 80.
size_t outputWidth(const ParsedArgs& args) {
  if (args.has("width")) return static_cast<size_t>(args.getCount("width", 80));
  if (isatty(STDOUT_FILENO)) {
    if (const char* columns = std::getenv("COLUMNS")) {
      long n = std::strtol(columns, nullptr, 10);
      if (n > 0) return static_cast<size_t>(n);
    }
    winsize ws{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
  }
  return 80;
}

// The columns a person sees by default: the log's "V5_FIELD_MAP"
// arrangement of visible columns, or all columns in order without one.
std::vector<int> arrangedColumns(zyldb& table) {
  FieldMap map(table);
  std::vector<int> columns;
  for (int n = 0; n < map.numVisible(); ++n) {
    int column = map.getVisibleFieldIndex(n);
    if (column >= 0) columns.push_back(column);
  }
  return columns;
}

int runShow(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  std::string formatText = args.get("format", "table");
  std::optional<Format> format = formatFromOption(formatText);
  if (!format)
    throw UsageError("--format must be table, log, csv, tsv, ale or json, not \"" + formatText +
                     "\"");
  if (args.has("desc") && !args.has("sort")) throw UsageError("--desc needs --sort");
  long limit = args.getCount("limit", -1);
  size_t width = outputWidth(args);
  bool fold = args.has("fold-accents");

  // Without a sort or a filter the first N rows are the answer: read no
  // more of a log than those.
  OpenOptions options;
  if (limit >= 0 && !args.has("sort") && !args.has("where") && !args.has("tagged"))
    options.maxRows = limit;
  OpenLog log = requireLog(args.positional[0], false, options);
  zyldb& table = *log.table;
  std::vector<int> columns;
  if (args.has("columns"))
    columns = requireColumns(log, args.get("columns"));
  else
    columns = *format == Format::log ? allColumns(table) : arrangedColumns(table);
  std::vector<SortKey> keys;
  if (args.has("sort")) keys = parseSortKeys(log, args.get("sort"));

  std::vector<unsigned int> rows = filterRows(log, conditionGroups(log, args), fold);
  if (args.has("tagged")) {
    std::vector<unsigned int> tagged;
    for (unsigned int r : rows)
      if (tagColumnSays(table, r)) tagged.push_back(r);
    rows.swap(tagged);
  }
  size_t matched = rows.size();
  if (!keys.empty()) sortRows(table, rows, keys, args.has("desc"), fold);
  if (limit >= 0 && rows.size() > static_cast<size_t>(limit)) rows.resize(limit);

  RowSource source;
  source.table = &table;
  source.columns = columns;
  source.rows = &rows;
  source.params = tableParams(table);
  if (*format == Format::table) {
    std::vector<std::string> dropped;
    Sink sink("-");
    writeTable(source, width, sink, &dropped);
    sink.commit();
    if (!dropped.empty()) {
      std::string names;
      for (const std::string& n : dropped) names += (names.empty() ? "" : ", ") + n;
      std::cerr << "zyldb show: no room in " << width << " columns for " << names
                << " (see --columns, --width)\n";
    }
  } else {
    emitRows(source, "-", formatName(*format));
  }

  if ((args.has("where") || args.has("tagged")) && matched == 0) {
    if (args.has("tagged") && table.get_fieldnum(LightweightString<char>("Tag")) < 0)
      std::cerr << "zyldb show: " << log.shownName()
                << " has no \"Tag\" column, so no row is tagged\n";
    else
      std::cerr << "zyldb show: no rows match\n";
    return 1;
  }
  return 0;
}

int runInfo(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  OpenLog log = requireLog(args.positional[0], false);
  zyldb& table = *log.table;
  auto label = [](const std::string& text) { return text + std::string(12 - text.size(), ' '); };

  std::cout << label("File:") << log.shownName() << "\n";
  std::cout << label("Format:")
            << (log.format == Format::log   ? "log, revision " + std::to_string(table.getRevision())
                : log.format == Format::csv ? std::string("comma-separated text")
                                            : std::string(formatName(log.format)))
            << "\n";
  std::cout << label("Records:") << table.get_num_records() << "\n";
  if (table.get_fieldnum(LightweightString<char>("Tag")) >= 0) {
    long tagged = 0;
    for (unsigned int r = 0; r < table.get_num_records(); ++r)
      if (tagColumnSays(table, r)) ++tagged;
    std::cout << label("Tagged:") << tagged << " (by the \"Tag\" column)\n";
  } else {
    std::cout << label("Tagged:") << "0 (no \"Tag\" column)\n";
  }

  std::cout << label("Parameters:") << table.getNumParams() << "\n";
  size_t widest = 0;
  for (unsigned int i = 0; i < table.getNumParams(); ++i)
    widest = std::max(widest, displayWidth(table.getParamName(i)));
  for (unsigned int i = 0; i < table.getNumParams(); ++i) {
    std::string name = table.getParamName(i);
    std::cout << "  " << name << std::string(widest - displayWidth(name) + 2, ' ')
              << table.getParamValue(i) << "\n";
  }

  std::cout << label("Columns:") << table.get_num_fields() << "\n";
  Grid grid;
  grid.names = {"#", "Name", "Type", "Width"};
  grid.rightAligned = {true, false, false, true};
  for (unsigned int c = 0; c < table.get_num_fields(); ++c) {
    const char* name = table.get_fieldname(c);
    int width = std::max(table.get_fieldsize(c), zyldb::getMinFieldSize(name));
    grid.rows.push_back(
        {std::to_string(c + 1), name, typeKeyword(table.get_field_type(c)), std::to_string(width)});
  }
  std::string rendered = renderTable(grid, 0, nullptr);
  for (size_t start = 0; start < rendered.size();) {
    size_t end = rendered.find('\n', start);
    std::cout << "  " << rendered.substr(start, end - start) << "\n";
    start = end + 1;
  }
  return 0;
}

}  // namespace

Command showCommand() {
  return {
      {"show",
       "LOG [options]",
       "print the records as a table, CSV, JSON or log text",
       "Prints the log's records as a table fitted to the terminal, or as CSV, JSON or log "
       "text.",
       {{"columns", 0, "COLS",
         "the columns to show, comma-separated (default: the log's "
         "arrangement in V5_FIELD_MAP, else all)"},
        {"sort", 0, "KEYS",
         "sort on these columns, comma-separated, in this order; COL:desc sorts that "
         "column descending"},
        {"desc", 0, "", "reverse the sorted order"},
        kWhereOption,
        kOrOption,
        kFoldAccentsOption,
        {"tagged", 0, "", "only rows whose \"Tag\" column is non-zero"},
        {"limit", 0, "N", "at most N rows (a log is read no further when nothing else needs it)"},
        {"format", 0, "FORMAT", "table (default), log, csv, tsv or json"},
        {"width", 0, "N",
         "fit the table in N characters (0: no limit); default: the "
         "terminal's width, or 80"}},
       std::string(kMatchingDetails) +
           "\nExit status: 0 when rows were shown, 1 when --where or --tagged matched nothing, "
           "2 on a usage error.\n"},
      runShow};
}

Command infoCommand() {
  return {{"info",
           "LOG",
           "print the parameters, columns and counts",
           "Prints the log's parameters, its columns (name, type, width) and its record and tag "
           "counts.",
           {},
           ""},
          runInfo};
}

}  // namespace zyl::cli
