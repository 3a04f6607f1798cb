#pragma once

// Opening an input for the tool: a log, comma-separated text or a JSON
// document, from a file or from stdin ("-"). The file is read once, by the
// library's load; the tool watches that read through a file service of its
// own and keeps only what a diagnosis needs (the header, where blank lines
// are, a sparse index of line starts). A problem is explained from the
// library's error record plus the header and, read on demand, the line at
// fault.

#include <zyldb/all.h>
#include <zyldb/db/zyldb.h>

#include <optional>
#include <string>
#include <vector>

namespace zyl::cli {

// The formats the tool reads or writes. `table` is written only (show).
enum class Format { log, csv, tsv, ale, json, table };

// "log", "csv", ...
const char* formatName(Format format);
// The format a --format value names; nullopt for an unknown name.
std::optional<Format> formatFromOption(const std::string& text);
// The format a file name's extension names, ignoring case (".CSV", ".Tsv",
// ".ale", ".json", ".log"); nullopt for any other extension or none.
std::optional<Format> formatFromExtension(const std::string& path);

struct Problem {
  int line = 0;  // 1-based; 0 when the problem concerns the whole file
  std::string text;
};

struct OpenLog {
  std::string path;  // as the user gave it; "-" for stdin
  Format format = Format::log;
  // The loaded table; null when the input could not be loaded at all.
  Qm::Ptr<zyldb> table;
  std::vector<Problem> problems;
  // Set when the table lacks rows or values of the input: a malformed
  // record or a blank line stopped the reading, or lines of a
  // comma-separated file have more or fewer values than it has columns.
  bool incomplete = false;
  // Bytes read and whether they began with a UTF-8 byte-order mark.
  uint64_t bytes = 0;
  bool byteOrderMark = false;

  bool failed() const { return table.get() == nullptr; }
  // "path: line N: text", or "path: text" for a whole-file problem.
  std::string describe(const Problem& p) const;
  // "stdin" for "-", else the path.
  std::string shownName() const;
};

struct OpenOptions {
  // Read at most this many rows (a log only; the rest of the file is not
  // parsed). Negative: all.
  long maxRows = -1;
  // The format of stdin or of a file; nullopt: from the extension (a log
  // for any other name), or for stdin from its first bytes.
  std::optional<Format> format;
};

// Loads and diagnoses the input at `path` ("-" for stdin). Never throws for
// a bad input: the result then has no table and says why in `problems`.
OpenLog openLog(const std::string& path, const OpenOptions& options = {});

// The file name as the library wants it.
LightweightString<wchar_t> widePath(const std::string& path);

}  // namespace zyl::cli
