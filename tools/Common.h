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
#include "Writers.h"

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

// Options that several commands share.
inline const OptionDef kWhereOption = {
    "where", 0, "COND",
    "only rows that meet COND: COL=TEXT (contains), COL==TEXT, COL!=TEXT, COL~REGEX, COL!~REGEX, "
    "COL<VALUE, COL<=VALUE, COL>VALUE, COL>=VALUE; repeatable, all must hold",
    true};
inline const OptionDef kOrOption = {
    "or", 0, "", "start another group of --where conditions; a row matches when any group does",
    true};
inline const OptionDef kFoldAccentsOption = {
    "fold-accents", 0, "", "treat letters with accents as their base letter (e matches é)"};
inline const OptionDef kOutputOption = {
    "output", 'o', "OUT",
    "write the result to OUT (\"-\": stdout); its format comes from --format or from OUT's "
    "extension (.log, .csv, .tsv, .ale, .json, any case); default: stdout, as a log"};
inline const OptionDef kFormatOption = {"format", 0, "FORMAT",
                                        "write log, csv, tsv, ale or json, whatever OUT's name"};
inline const char kMatchingDetails[] =
    "Matching ignores case in every script (\"ZOË\" finds \"Zoë\"); accents count unless "
    "--fold-accents. On start/end label columns (\"Start time\"/\"End time\", \"start "
    "keycode\"/\"end keycode\", ...) COL=TEXT finds the rows whose range holds the label. "
    "<, <=, >, >= compare timecodes by time and numbers by value. For example:\n"
    "  zyldb show clips.log --where Scene==12 --or --where \"Start time>=02:00:00:00\"\n";

// Throws UsageError unless exactly `names.size()` positional arguments were
// given; `names` are their names in the synopsis ("LOG", "OUT").
void expectPositional(const ParsedArgs& args, const std::vector<std::string>& names);

// Opens the log at `path` ("-": stdin) for a command. Problems that still
// let it load are printed to stderr and the command goes on, except when
// rows are missing and `forWriting` is set: writing would then lose them.
// Throws Failure (after printing why) when the log cannot be used.
OpenLog requireLog(const std::string& path, bool forWriting, const OpenOptions& options = {});

// The column named `name` (ignoring case); UsageError naming the log's
// columns when there is none.
int requireColumn(const OpenLog& log, const std::string& name);
std::vector<int> requireColumns(const OpenLog& log, const std::string& commaList);

// Whether raw row `row` is tagged by the table's "Tag" column (a non-zero
// number); false for every row of a table without that column.
bool tagColumnSays(const zyldb& table, unsigned int row);

// Every raw row, in table order.
std::vector<unsigned int> allRows(const zyldb& table);
std::vector<int> allColumns(const ODBBase& source);

// The keyword that names a column type in a log ("text", "timecode", ...).
std::string typeKeyword(DBFieldTypes::eType type);

// Writes `source` to `out` ("-" or empty: stdout) in the format --format
// names (`formatOption`, empty when not given) or the extension gives, row
// by row; a file is replaced in one step. Throws UsageError for an unknown
// format, Failure when the output cannot be written.
void emitRows(const RowSource& source, const std::string& out, const std::string& formatOption);

}  // namespace zyl::cli
