#pragma once

// Opening a log for the tool: checks that the file is a readable text log
// before the library loads it, loads it, and explains in a person's words
// anything that kept it from loading cleanly, with line numbers.

#include <zyldb/all.h>
#include <zyldb/db/zyldb.h>

#include <string>
#include <vector>

namespace zyl::cli {

struct Problem {
  int line = 0;  // 1-based; 0 when the problem concerns the whole file
  std::string text;
};

struct OpenLog {
  std::string path;  // as the user gave it
  bool csv = false;  // read as comma-separated text (the name ends in ".csv")
  // The loaded table; null when the file could not be loaded at all.
  Qm::Ptr<zyldb> table;
  std::vector<Problem> problems;
  // Set when the table lacks rows or values of the file: a malformed record
  // or a blank line stopped the reading, or lines of a comma-separated file
  // have more or fewer values than it has columns.
  bool incomplete = false;

  bool failed() const { return table.get() == nullptr; }
  // "path: line N: text", or "path: text" for a whole-file problem.
  std::string describe(const Problem& p) const;
};

// Checks, loads and diagnoses the log at `path`. Never throws for a bad
// file: the result then has no table and says why in `problems`.
OpenLog openLog(const std::string& path);

// The file name as the library wants it.
LightweightString<wchar_t> widePath(const std::string& path);

// True when `path` ends in ".csv" exactly as the library tests it (case
// included), so that the library reads it as comma-separated text.
bool isCsvName(const std::string& path);

}  // namespace zyl::cli
