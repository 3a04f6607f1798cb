#pragma once

// The log format's one home: the magic name and revision, the type keywords
// (read and written from one table), the minimum column widths, and the
// writers and readers of the header's lines. Internal to the library; the
// line form of values is dbrecord's (read and write), the file layout is
// described in docs/FILE_FORMAT.md.

#include <zyldb/db/DBFieldTypes.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

class TextFile;
class zyldb;

namespace zyl::logformat {

// The magic parameter's name, which also forms the terminator line.
inline constexpr char kMagicName[] = "ZYLDB";
inline constexpr size_t kMagicNameLength = sizeof kMagicName - 1;
// The revision written in the magic parameter ("Rev 1").
inline constexpr int kCurrentRevision = 1;
// Records hold at most this many fields, so a wider file cannot be a table.
inline constexpr unsigned int kMaxColumns = 0xFFFF;
// The longest value a line can hold (the reader's limit).
inline constexpr size_t kMaxValueBytes = 4095;
// The width written for a column whose name has no listed minimum.
inline constexpr int kDefaultMinWidth = 4;

// One entry of the type table. `written` is false for a keyword that is read
// but not written (the type is then written as its one-character code).
struct TypeKeyword {
  const char* keyword;
  DBFieldTypes::eType type;
  bool written;
};

// The type table, in the order the parser tests the keywords.
const TypeKeyword* typeKeywords(size_t* count);

// The keyword written for `t`, or null when `t` is written as its code.
const char* writtenKeyword(DBFieldTypes::eType t);
// The type a types-line field names: a keyword (ignoring case), else a
// single character taken as the code itself, else none.
DBFieldTypes::eType parseType(const char* s);

// The minimum display width of a column of that name (ignoring case);
// kDefaultMinWidth for unlisted names and for null.
int minWidth(const char* name);

// Writes `v` as one quoted field at `out` and returns the end; `out` must
// have room for maxQuotedSize(v.size()) bytes. A quote is doubled, a line
// feed written as \n; a carriage return, a NUL, a backslash before 'n',
// blanks at either end and, in a line's first field, the first letter of a
// value spelled as the terminator are written as "xHH (a quote, 'x', two hex
// digits), which the reader decodes inside quotes. Lives beside the reader
// (dbrecord.cpp).
char* writeQuoted(char* out, std::string_view v, bool firstField);
size_t maxQuotedSize(size_t n);

// Appends one line of quoted fields (writeQuoted each).
void appendFields(TextFile& f, const std::vector<std::string_view>& fields);

// ---- Parameter lines ----------------------------------------------------------

struct Param {
  std::string_view name;
  std::string_view value;
};
// Appends one line per parameter ("name:value" as one quoted field). With
// `magicFirst`, a list that does not begin with the magic parameter gets the
// magic line "ZYLDB:Rev 1" first, without which a file does not load.
void appendParamLines(TextFile& f, const std::vector<Param>& params, bool magicFirst);
// Why these parameters would not read back as they are (a name with a colon
// or a leading blank, a value with a leading blank, a line too long, a
// second magic name), or null when they would.
const char* paramsProblem(const std::vector<Param>& params);

// ---- Column header -------------------------------------------------------------

// Appends the terminator, widths, types and names lines of `table`'s columns
// (only the names line with `namesOnly`). A column's width is the larger of
// the table's get_fieldsize and its name's minimum width.
void appendColumnHeader(TextFile& f, const zyldb& table, bool namesOnly);
// Why the columns would not read back (a name too long, a type code that
// reads back as another), or null.
const char* columnsProblem(const zyldb& table);

// A progress reporter over a byte count: calls `fn` (when set) at most once
// per kStep bytes and once from finish(). Cheap when no function is set.
class Progress {
 public:
  static constexpr uint64_t kStep = uint64_t{1} << 20;
  using Fn = std::function<void(uint64_t done, uint64_t total)>;

  Progress(const Fn* fn, uint64_t total) : fn_(fn && *fn ? fn : nullptr), total_(total) {}
  void update(uint64_t done) {
    if (fn_ && done >= next_) {
      next_ = done + kStep;
      (*fn_)(done, total_);
    }
  }
  void setTotal(uint64_t total) { total_ = total; }
  void finish(uint64_t done) {
    if (fn_) (*fn_)(done, total_ != 0 ? total_ : done);
  }
  bool active() const { return fn_ != nullptr; }

 private:
  const Fn* fn_;
  uint64_t total_;
  uint64_t next_ = kStep;
};

}  // namespace zyl::logformat
