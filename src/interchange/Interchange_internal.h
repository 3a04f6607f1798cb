#pragma once

// Pieces shared by the interchange readers and writers: the table builder,
// the chunked output, error texts, line splitting and the backslash escapes
// of TSV and ALE.

#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/interchange/Interchange.h>
#include <zyldb/platform/LightweightString.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zyl::interchange::detail {

// A record's most fields (dbrecord indexes them with 16 bits).
inline constexpr size_t kMaxColumns = 65535;

// Fills *err (when not null) with `what` at the given position; line 0 means
// no position, column 0 a line without a column. Returns false, so that
// callers can `return fail(...)`.
bool fail(Error* err, int line, int column, std::string_view what);

// Collects column names and rows, then makes the table in one go.
class TableBuilder {
 public:
  void addColumn(std::string_view name, DBFieldTypes::eType type);
  size_t columns() const { return names_.size(); }
  // Starts a row; the values that follow fill it from column 0. A row left
  // short is padded with empty values by build().
  void beginRow() { rowStarts_.push_back(cells_.size()); }
  void addValue(std::string_view v) {
    cells_.push_back(LightweightString<char>::packed(v.data(), v.size()));
  }
  void addValue(LightweightString<char> v) { cells_.push_back(std::move(v)); }
  // Values added to the current row so far.
  size_t rowSize() const { return cells_.size() - rowStarts_.back(); }
  // Drops the current row's values from index `keep` on.
  void truncateRow(size_t keep) { cells_.resize(rowStarts_.back() + keep); }
  size_t rows() const { return rowStarts_.size(); }
  // The table: the columns as added, every row, each value stored as it is.
  std::unique_ptr<zyldb> build();

 private:
  std::vector<std::string> names_;
  std::vector<DBFieldTypes::eType> types_;
  std::vector<LightweightString<char>> cells_;
  std::vector<size_t> rowStarts_;
};

// The type a CSV or TSV column gets from its name: timecode when the name
// holds "start" or "end" (ignoring case), else text, as for a log without a
// column header.
DBFieldTypes::eType typeFromName(std::string_view name);

// Gathers output and passes it to the sink in chunks.
class Output {
 public:
  explicit Output(const Sink& sink) : sink_(sink) { buf_.reserve(kChunk + 4096); }
  void put(std::string_view s) {
    buf_.append(s);
    if (buf_.size() >= kChunk) flush();
  }
  void put(char c) {
    buf_.push_back(c);
    if (buf_.size() >= kChunk) flush();
  }
  // Hands over what is buffered; false once the sink has refused.
  bool flush();
  // False once the sink has refused; writers stop then.
  bool ok() const { return ok_; }
  // Flushes and reports; fills *err when the sink refused.
  bool finish(Error* err);

 private:
  static constexpr size_t kChunk = 64 * 1024;
  const Sink& sink_;
  std::string buf_;
  bool ok_ = true;
};

// The number of bytes a leading UTF-8 byte-order mark takes (3), or 0.
size_t bomLength(std::string_view text);

// Splits text into lines at LF, CRLF or a lone CR. Each call to next()
// returns the next line without its line end; a final line end does not
// start an empty line. `cr` false makes a lone CR part of the line (TSV).
class LineReader {
 public:
  LineReader(std::string_view text, bool cr) : text_(text), cr_(cr) {}
  bool next(std::string_view* line);
  // The 1-based number of the line next() last returned.
  int lineNumber() const { return line_; }

 private:
  std::string_view text_;
  size_t pos_ = 0;
  int line_ = 0;
  bool cr_;
};

// Backslash escapes of TSV (and of ALE files that declare them). decode:
// "\t", "\n", "\r", "\\" become tab, LF, CR and backslash; any other
// backslash stays. encode escapes every tab, LF, CR and backslash, so
// decode(encode(v)) == v.
LightweightString<char> decodeEscapes(std::string_view field);
void encodeEscapes(std::string_view value, Output& out);
// Whether encodeEscapes would change `value`, backslashes aside.
bool needsEscapes(std::string_view value);

// Splits a line at tabs into `fields`, decoding each piece when `decode`.
void splitTabs(std::string_view line, bool decode, std::vector<LightweightString<char>>* fields);

}  // namespace zyl::interchange::detail
