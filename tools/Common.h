#pragma once

// What the zyldb tool's commands share: the command table, opening logs for
// a command, naming columns, queries, views of chosen rows, and writing a
// view to stdout or, safely, to a file.

#include <zyldb/all.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/view/ODBView.h>

#include <string>
#include <vector>

#include "Args.h"
#include "LogFile.h"
#include "Output.h"

namespace zyl::cli {

struct Command {
  CommandDef def;
  // Runs the command; returns the exit status. Throws UsageError or Failure.
  int (*run)(const ParsedArgs& args);
};

Command showCommand();
Command infoCommand();
Command checkCommand();
Command sortCommand();
Command findCommand();
Command dedupeCommand();
Command mergeCommand();
Command convertCommand();
Command demoCommand();

// Throws UsageError unless exactly `names.size()` positional arguments were
// given; `names` are their names in the synopsis ("LOG", "OUT").
void expectPositional(const ParsedArgs& args, const std::vector<std::string>& names);

// Opens the log at `path` for a command. Problems that still let it load are
// printed to stderr and the command goes on, except when rows are missing
// and `forWriting` is set: writing would then lose them. Throws Failure
// (after printing why) when the log cannot be used.
OpenLog requireLog(const std::string& path, bool forWriting);

// The column named `name` (ignoring case); UsageError naming the log's
// columns when there is none.
int requireColumn(const OpenLog& log, const std::string& name);
std::vector<int> requireColumns(const OpenLog& log, const std::string& commaList);

// Sets the table's query from "COLUMN=TEXT" items (each cell must contain
// its TEXT, ignoring case; start/end label columns match a label lying in
// their range) and returns the raw rows that match, in order.
std::vector<unsigned int> matchingRows(const OpenLog& log, const std::vector<std::string>& where);

// Sorts the table's rows on `columns` with the library's comparators,
// ascending or descending. Rows that compare equal keep their order.
void sortTable(zyldb& table, const std::vector<int>& columns, bool descending);

// Whether raw row `row` is tagged by the table's "Tag" column (a non-zero
// number); false for every row of a table without that column.
bool tagColumnSays(const zyldb& table, unsigned int row);

// A new, empty view over `table`, with the table's parameters; a table
// without them gets the first parameter of a log ("ZYLDB" = "Rev 1").
ODBView newView(zyldb& table);

// A view over `table` showing `rows` in that order, each tagged as its
// "Tag" column says.
ODBView viewOfRows(zyldb& table, const std::vector<unsigned int>& rows);
// Every raw row, in table order.
std::vector<unsigned int> allRows(const zyldb& table);

// The keyword that names a column type in a log ("text", "timecode", ...);
// the code itself for a type without one.
std::string typeKeyword(DBFieldTypes::eType type);

// The cells of `columns` of every view row. A "Tag" column shows the view's
// tag of the row, as it is written when the view is saved.
Grid gridOf(ODBViewRep& view, const std::vector<int>& columns);
std::vector<int> allColumns(const ODBBase& source);

// Appends the log text of the view: its parameter lines, its table's column
// header and one line per view row ("Tag" carrying the view's tag).
void appendLogLines(ODBViewRep& view, TextFile& out);

// Writes the view's rows with all columns to `path`, in the log format, as
// comma-separated text when the name ends in ".csv", or as a JSON document
// when it ends in ".json"; the old file is replaced in one step. An empty
// `path` prints the log text to stdout. Throws Failure when the file cannot
// be written.
void writeView(const std::string& command, ODBViewRep& view, const std::string& path);

// Prints the lines of `file` to stdout.
void printLines(const TextFile& file);

}  // namespace zyl::cli
