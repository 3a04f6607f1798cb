// zyldb show and zyldb info: reading a log without changing it.

#include <strings.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <zyldb/fieldmap/FieldMap.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "Common.h"

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

// Prints the view's rows of `columns` in the log format: a table of just
// those columns, with the log's parameters except its column arrangement,
// which would not fit the new columns.
void printLogOfColumns(zyldb& table, ODBViewRep& view, const std::vector<int>& columns) {
  std::vector<DBFieldDesc> descs;
  for (int c : columns) descs.push_back({table.get_fieldname(c), table.get_field_type(c)});
  Qm::Ptr<zyldb> part(new zyldb(descs));
  for (unsigned int i = 0; i < table.getNumParams(); ++i)
    if (strcasecmp(table.getParamName(i), FieldMap::kFieldMapParam) != 0)
      part->add_param(table.getParamName(i), table.getParamValue(i));
  part->add_records(static_cast<int>(view.get_num_records()));
  for (unsigned int r = 0; r < view.get_num_records(); ++r)
    for (unsigned int j = 0; j < columns.size(); ++j)
      part->setField(r, j, view.getField(r, static_cast<unsigned int>(columns[j])));
  TextFile file;
  {
    ODBView partView = viewOfRows(*part, allRows(*part));
    appendLogLines(*partView.rep(), file);
  }
  printLines(file);
}

int runShow(const ParsedArgs& args) {
  expectPositional(args, {"LOG"});
  std::string format = args.get("format", "table");
  if (format != "table" && format != "csv" && format != "json" && format != "log")
    throw UsageError("--format must be table, csv, json or log, not \"" + format + "\"");
  if (args.has("desc") && !args.has("sort")) throw UsageError("--desc needs --sort");
  long limit = args.getCount("limit", -1);
  size_t width = outputWidth(args);

  OpenLog log = requireLog(args.positional[0], false);
  zyldb& table = *log.table;
  std::vector<int> columns;
  if (args.has("columns"))
    columns = requireColumns(log, args.get("columns"));
  else
    columns = format == "log" ? allColumns(table) : arrangedColumns(table);
  if (args.has("sort")) sortTable(table, requireColumns(log, args.get("sort")), args.has("desc"));

  std::vector<unsigned int> rows =
      args.has("where") ? matchingRows(log, args.getAll("where")) : allRows(table);
  if (args.has("tagged")) {
    std::vector<unsigned int> tagged;
    for (unsigned int r : rows)
      if (tagColumnSays(table, r)) tagged.push_back(r);
    rows.swap(tagged);
  }
  size_t matched = rows.size();
  if (limit >= 0 && rows.size() > static_cast<size_t>(limit)) rows.resize(limit);

  ODBView view = viewOfRows(table, rows);
  if (format == "table") {
    std::vector<std::string> dropped;
    std::cout << renderTable(gridOf(*view.rep(), columns), width, &dropped);
    if (!dropped.empty()) {
      std::string names;
      for (const std::string& n : dropped) names += (names.empty() ? "" : ", ") + n;
      std::cerr << "zyldb show: no room in " << width << " columns for " << names
                << " (see --columns, --width)\n";
    }
  } else if (format == "csv") {
    std::cout << renderCsv(gridOf(*view.rep(), columns), nullptr);
  } else if (format == "json") {
    std::cout << renderJsonRows(gridOf(*view.rep(), columns));
  } else if (columns == allColumns(table)) {
    TextFile file;
    appendLogLines(*view.rep(), file);
    printLines(file);
  } else {
    printLogOfColumns(table, *view.rep(), columns);
  }

  if ((args.has("where") || args.has("tagged")) && matched == 0) {
    if (args.has("tagged") && table.get_fieldnum(LightweightString<char>("Tag")) < 0)
      std::cerr << "zyldb show: " << log.path << " has no \"Tag\" column, so no row is tagged\n";
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

  std::cout << label("File:") << log.path << "\n";
  std::cout << label("Format:")
            << (log.csv ? std::string("comma-separated text")
                        : "log, revision " + std::to_string(table.getRevision()))
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
  return {{"show",
           "LOG [options]",
           "print the records as a table, CSV, JSON or log text",
           "Prints the log's records as a table fitted to the terminal, or as CSV, JSON or log "
           "text.",
           {{"columns", 0, "COLS",
             "the columns to show, comma-separated (default: the log's "
             "arrangement in V5_FIELD_MAP, else all)"},
            {"sort", 0, "COLS", "sort on these columns, comma-separated, in this order"},
            {"desc", 0, "", "sort descending"},
            {"where", 0, "COL=TEXT",
             "only rows whose COL contains TEXT (ignoring case); "
             "repeatable",
             true},
            {"tagged", 0, "", "only rows whose \"Tag\" column is non-zero"},
            {"limit", 0, "N", "at most N rows"},
            {"format", 0, "FORMAT", "table (default), csv, json or log"},
            {"width", 0, "N",
             "fit the table in N characters (0: no limit); default: the "
             "terminal's width, or 80"}},
           "On start/end label columns (\"Start time\"/\"End time\", \"start keycode\"/\"end "
           "keycode\", ...) --where finds the rows whose range holds the label:\n"
           "  zyldb show clips.log --where \"start keycode=KU 12 3456 7900\"\n\n"
           "Exit status: 0 when rows were shown, 1 when --where or --tagged matched nothing, "
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
