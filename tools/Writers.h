#pragma once

// Writing rows as they go: a sink (stdout, a device, or a file replaced in
// one step) and one writer per output format. Nothing holds more than a
// batch of rows beyond the table they come from.

#include <zyldb/all.h>
#include <zyldb/db/zyldb.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "LogFile.h"

namespace zyl::cli {

// Where output goes. For a regular file (or a new one) the bytes go to a
// temporary file beside it, "NAME.zyltmp.PID.tool", which commit() flushes
// to disk and renames over NAME; a symbolic link is followed, so the link
// stays and its target is replaced. Anything else that exists (a FIFO, a
// terminal, /dev/stdout) is written directly. "-" is stdout.
class Sink {
 public:
  // Opens the sink for `path`; throws Failure naming the path when it
  // cannot be created.
  explicit Sink(const std::string& path);
  // Removes the temporary file unless commit() ran.
  ~Sink();
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  void write(std::string_view bytes) {
    buffer_.append(bytes);
    if (buffer_.size() >= kBufferBytes) flush();
  }
  // Makes the output final: flushes, and for a replaced file syncs it and
  // renames it into place. Throws Failure when any write failed.
  void commit();
  bool isStdout() const { return fd_ == 1; }
  uint64_t bytesWritten() const { return written_ + buffer_.size(); }

 private:
  static constexpr size_t kBufferBytes = 1 << 16;
  void flush();

  std::string path_;    // as given
  std::string target_;  // the file renamed over; empty when written directly
  std::string temp_;
  int fd_ = -1;
  bool failed_ = false;
  int error_ = 0;
  uint64_t written_ = 0;
  std::string buffer_;
};

// Installs SIGINT and SIGTERM handlers that remove the temporary file of
// the sink being written (and the library's own temporaries), then end the
// process as the signal would.
void installInterruptCleanup();

// The rows to write: raw rows of a table, in output order, and its columns.
struct RowSource {
  zyldb* table = nullptr;
  std::vector<int> columns;
  const std::vector<unsigned int>* rows = nullptr;
  // Parameters written before the rows (log, JSON).
  std::vector<std::pair<std::string, std::string>> params;

  size_t size() const { return rows->size(); }
  std::string cell(size_t i, size_t columnIndex) const;
};

// The parameters of `table`, the first being the magic "ZYLDB" one (given
// "Rev 1" when the table has none, as a table read from CSV).
std::vector<std::pair<std::string, std::string>> tableParams(const zyldb& table);

// Writes `source` to `sink` in `format` (not `table`; see writeTable), row
// by row: the log format with the library's record writer, JSON here, CSV,
// TSV and ALE with the library's interchange writers. Memory beyond the
// table: a batch of lines, plus, for CSV, TSV and ALE of a choice of
// columns, a copy of those columns' cells (those writers write every
// column). Throws Failure when the writer refuses the rows.
void writeRows(Format format, const RowSource& source, Sink& sink);

// Writes `source` as an aligned table fitted to `lineWidth` columns (0: no
// limit); the names of the columns left out go to `dropped`. Reads the rows
// twice (widths, then lines) and keeps none.
void writeTable(const RowSource& source, size_t lineWidth, Sink& sink,
                std::vector<std::string>* dropped);

// The format to write `path` in: `option` (a --format value) when given,
// else from the extension; "-" without --format is a log. Throws UsageError
// for an unknown --format value or extension.
Format outputFormat(const std::string& path, const std::string& option);

}  // namespace zyl::cli
