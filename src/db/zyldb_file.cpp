// The table's file header and whole-file loading and saving. The text format
// is described in docs/FILE_FORMAT.md.

#include <strings.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "db/LogFormat.h"

namespace {

using zyl::logformat::kCurrentRevision;
using zyl::logformat::kMagicName;
using zyl::logformat::kMaxColumns;
using zyl::logformat::Progress;
// Scratch record width while reading a header; it grows as lines need.
constexpr unsigned short kScratchFields = 24;
// Rows between two progress reports while loading or saving.
constexpr unsigned int kProgressRows = 4096;

inline bool isBlank(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  return u < 0x80 && std::isspace(u);
}

const char* skipBlanks(const char* s) {
  while (isBlank(*s)) ++s;
  return s;
}

// Asked of every record line on loading: the first byte settles nearly all.
bool equalsMagic(const char* field) {
  return field && (field[0] == 'Z' || field[0] == 'z') && strcasecmp(field, kMagicName) == 0;
}

// A copy for the parameter list; heap_strdup reports exhaustion as null,
// which the list cannot hold, so it is raised again here.
char* copyParamText(const char* s, size_t n) {
  std::string text(s, n);
  char* p = heap_strdup(text.c_str());
  if (!p) throw Qm::Exception::BadAlloc();
  return p;
}

// What saving needs to know of the rows, gathered in one pass over them
// (reading a value's length touches the value, so passes are costly).
struct RowsMeasure {
  std::vector<size_t> longest;  // the longest value of each column
  size_t lineBytes = 0;         // every row's line, unescaped, with its NUL
  size_t taggedLineBytes = 0;   // the same for the tagged rows only
  unsigned int taggedRows = 0;
};

RowsMeasure measureRows(dbrecord* const* rows, unsigned int count, unsigned int columns) {
  RowsMeasure m;
  m.longest.assign(columns, 0);
  for (unsigned int r = 0; r < count; ++r) {
    const dbrecord* rec = rows[r];
    if (rec == nullptr) continue;
    const unsigned int fields = rec->get_num_fields();
    size_t bytes = fields > 0 ? size_t{fields} * 3 : 1;  // quotes and commas, NUL
    for (unsigned int i = 0; i < fields; ++i) {
      const size_t size = rec->getField(static_cast<unsigned short>(i)).size();
      bytes += size;
      if (i < columns && size > m.longest[i]) m.longest[i] = size;
    }
    m.lineBytes += bytes;
    if (rec->getTag() != 0) {
      m.taggedLineBytes += bytes;
      ++m.taggedRows;
    }
  }
  return m;
}

// Room for the rows' lines. Escapes make a line longer than measured, so a
// little more is asked for; not much, as a large room is made resident at
// once.
void reserveLines(TextFile& f, unsigned int lines, size_t bytes) {
  f.reserve(lines, bytes + bytes / 32 + 4096);
}

bool endsWithCsv(const LightweightString<wchar_t>& name) {
  std::wstring_view v = name.view();
  return v.size() >= 4 && v.substr(v.size() - 4) == L".csv";
}

}  // namespace

// ---- Parameters ---------------------------------------------------------------

int zyldb::getMinFieldSize(const char* name) { return zyl::logformat::minWidth(name); }

int zyldb::find_param(const char* name) const {
  if (!name) return -1;
  for (unsigned int i = 0; i < numParams; ++i)
    if (strcasecmp(paramNames[i], name) == 0) return static_cast<int>(i);
  return -1;
}

const char* zyldb::get_param_val(const char* name) const {
  int i = find_param(name);
  return i < 0 ? nullptr : paramValues[i];
}

namespace {

// Appends (name, value) to a parameter list with room for it. Both copies
// are made before the list changes, so exhaustion leaves it as it was.
void appendParam(char** names, char** values, uint32_t& count, const char* name, size_t nameLen,
                 const char* value) {
  std::unique_ptr<char[]> n(copyParamText(name, nameLen));
  values[count] = copyParamText(value, std::strlen(value));
  names[count] = n.release();
  ++count;
}

}  // namespace

int zyldb::add_param(const char* name, const char* value) {
  if (!name || !*name || !value) return -1;
  int i = find_param(name);
  if (i >= 0) {
    if (std::strcmp(paramValues[i], value) == 0) return 0;
    char* copy = copyParamText(value, std::strlen(value));
    delete[] paramValues[i];
    paramValues[i] = copy;
    markChanged(false);
    return 0;
  }
  if (numParams == 0) {
    char rev[32];
    std::snprintf(rev, sizeof rev, "Rev %d", kCurrentRevision);
    appendParam(paramNames, paramValues, numParams, kMagicName, sizeof kMagicName - 1, rev);
  }
  // The magic name is refused only when spelled exactly: the list already
  // holds it, and other spellings were found by the lookup above.
  if (std::strcmp(name, kMagicName) == 0 || numParams >= kMaxParams) return -1;
  appendParam(paramNames, paramValues, numParams, name, std::strlen(name), value);
  markChanged(false);
  return 0;
}

int zyldb::set_param_val(const char* name, const char* value) { return add_param(name, value); }

int zyldb::read_params(TextFile& f, dbrecord* scratch) {
  for (unsigned int i = 0; i < numParams; ++i) {
    delete[] paramNames[i];
    delete[] paramValues[i];
    paramNames[i] = paramValues[i] = nullptr;
  }
  numParams = 0;

  int n = scratch->read(f);
  if (n == 0) return 0;
  const char* first = scratch->get_field(0);
  if (!first || strncasecmp(first, "ZYLDB:", 6) != 0) return -1;

  const char* name = skipBlanks(first);
  const char* colon = std::strchr(name, ':');
  const char* value = skipBlanks(colon + 1);
  appendParam(paramNames, paramValues, numParams, name, static_cast<size_t>(colon - name), value);

  // The revision is the first run of digits in the value ("Rev 1" -> 1).
  const char* digits = value;
  while (*digits && !std::isdigit(static_cast<unsigned char>(*digits))) ++digits;
  long rev = *digits ? std::strtol(digits, nullptr, 10) : 0;
  revision = rev > INT_MAX ? INT_MAX : static_cast<int32_t>(rev);
  if (revision != kCurrentRevision)
    vorn_printf("zyldb::read_text:  Warning: zyldb is revision %d, current level is %d\n", revision,
                kCurrentRevision);

  // Parameter lines up to the terminator. A line without a colon is not a
  // parameter: it ends the header there and stays in `scratch`, so that a
  // lenient load can take it as the names line. A missing terminator also
  // ends the loop at the first line without a field (an empty line or the
  // end of the file).
  for (;;) {
    scratch->read(f);
    const char* field = scratch->get_field(0);
    if (!field) return -1;
    if (equalsMagic(field)) return 0;
    const char* pname = skipBlanks(field);
    const char* pcolon = std::strchr(pname, ':');
    if (!pcolon) return -1;
    // An empty name holds no parameter; beyond the limit lines are dropped.
    if (pcolon == pname || numParams >= kMaxParams) continue;
    appendParam(paramNames, paramValues, numParams, pname, static_cast<size_t>(pcolon - pname),
                skipBlanks(pcolon + 1));
  }
}

void zyldb::save_params(TextFile& f) {
  std::string line;
  for (unsigned int i = 0; i < numParams; ++i) {
    line.assign(1, '"');
    line += paramNames[i];
    line += ':';
    line += paramValues[i];
    line += '"';
    f.appendLine(std::string_view(line));
  }
}

namespace {

// The terminator, widths, types and names lines; only the names line when
// `longest` (each column's longest value) is null.
void writeColumnHeader(const zyldb& table, TextFile& f, const std::vector<size_t>* longest) {
  const unsigned int n = table.get_num_fields();
  std::string line;
  if (longest != nullptr) {
    f.appendLine(std::string_view("\"ZYLDB\""));

    char buf[32];
    for (unsigned int i = 0; i < n; ++i) {
      int width = static_cast<int>((*longest)[i]);
      int minimum = zyldb::getMinFieldSize(table.get_fieldname(i));
      std::snprintf(buf, sizeof buf, "\"%d\"%s", width > minimum ? width : minimum,
                    i + 1 < n ? "," : "");
      line += buf;
    }
    f.appendLine(std::string_view(line));

    line.clear();
    for (unsigned int i = 0; i < n; ++i) {
      DBFieldTypes::eType type = table.get_field_type(i);
      line += '"';
      if (const char* keyword = zyl::logformat::writtenKeyword(type)) {
        line += keyword;
      } else {
        // An unnamed code is written as its one character. Characters that
        // would break the line are escaped as in a value.
        char c = static_cast<char>(type);
        if (c == '"')
          line += "\"\"";
        else if (c == '\n')
          line += "\\n";
        else if (c != '\r' && c != 0)
          line += c;
      }
      line += '"';
      if (i + 1 < n) line += ',';
    }
    f.appendLine(std::string_view(line));
    line.clear();
  }
  for (unsigned int i = 0; i < n; ++i) {
    line += '"';
    line += table.get_fieldname(i);
    line += '"';
    if (i + 1 < n) line += ',';
  }
  f.appendLine(std::string_view(line));
}

}  // namespace

int zyldb::save_column_header(TextFile& f, bool namesOnly) {
  if (namesOnly) {
    writeColumnHeader(*this, f, nullptr);
  } else {
    const RowsMeasure measure = measureRows(rows, numRecords, numFields);
    writeColumnHeader(*this, f, &measure.longest);
  }
  return 1;
}

// ---- Files ------------------------------------------------------------------------

void zyldb::set_filename(LightweightString<wchar_t> name) { fileName = std::move(name); }

LightweightString<wchar_t> zyldb::get_filename() { return fileName; }

void zyldb::loadFromFile(int maxRecords, bool strictHeader) {
  free();
  timecodeFields_.clear();

  TextFile file;
  if (!file.load(fileName, '\n', false)) return;

  if (endsWithCsv(fileName)) {
    // Plain comma-separated text: a names line, then one row per line; no
    // quoting, no trimming, every column text_s.
    if (file.getNumLines() > 0) {
      std::vector<LightweightString<char>> names = Qm::splitIf(file[0], ',', 2);
      if (names.size() > kMaxColumns) names.resize(kMaxColumns);
      fieldNames.resize(names.size());
      fieldTypes.resize(names.size(), DBFieldTypes::text_s);
      numFields = static_cast<uint32_t>(names.size());
      for (unsigned int i = 0; i < numFields; ++i) {
        set_fieldname(i, names[i].c_str());
        set_fieldtype(i, DBFieldTypes::text_s);
      }
    }
    post_init();
    Progress progress(&progress_, file.byteSize());
    for (unsigned int l = 1; l < file.getNumLines(); ++l) {
      if (progress.active() && l % kProgressRows == 0) progress.update(file.lineOffset(l));
      std::vector<LightweightString<char>> pieces = Qm::splitIf(file[l], ',', 2);
      size_t k = pieces.size() < numFields ? pieces.size() : numFields;
      if (k == 0) continue;
      int row = add_records(1);
      if (row < 0) break;
      for (size_t j = 0; j < k; ++j)
        setField(static_cast<unsigned int>(row), static_cast<unsigned int>(j), pieces[j]);
    }
    progress.finish(file.byteSize());
    valid = 1;
    return;
  }

  dbrecord scratch(kScratchFields);
  read_params(file, &scratch);
  if (numParams == 0) return;

  if (equalsMagic(scratch.get_field(0))) {
    int count = scratch.read(file);  // widths: only their number is used
    if (static_cast<unsigned int>(count) > kMaxColumns) return;
    unsigned int columns = static_cast<unsigned int>(count);

    if (scratch.read(file) != count) {
      fill_error_info(DBLoadError::columnHeader, DBLoadError::typesLine, 0, 0);
      return;
    }
    fieldNames.resize(columns);
    fieldTypes.resize(columns, DBFieldTypes::text);
    numFields = columns;
    for (unsigned int i = 0; i < columns; ++i) {
      const char* keyword = scratch.get_field(static_cast<unsigned short>(i));
      set_fieldtype(i, zyldb_string_to_fieldtype(keyword ? keyword : ""));
    }

    if (scratch.read(file) != count) {
      fill_error_info(DBLoadError::columnHeader, DBLoadError::namesLine, 0, 0);
      return;
    }
    valid = 1;
  } else {
    if (strictHeader) {
      valid = 0;
      return;
    }
    // The line after the parameters is taken as the names line; columns
    // that look like start or end labels are typed as timecodes.
    unsigned int columns = scratch.get_num_fields();
    fieldNames.resize(columns);
    fieldTypes.resize(columns, DBFieldTypes::text);
    numFields = columns;
    for (unsigned int i = 0; i < columns; ++i) {
      const LightweightString<char> lower =
          toLower(scratch.getField(static_cast<unsigned short>(i)));
      bool label = lower.view().find("start") != std::string_view::npos ||
                   lower.view().find("end") != std::string_view::npos;
      if (label) timecodeFields_.push_back(static_cast<int>(i));
      set_fieldtype(i, label ? DBFieldTypes::timecode : DBFieldTypes::text);
    }
    valid = 1;
  }
  timecodeFields_.push_back(-1);

  for (unsigned int i = 0; i < numFields; ++i) {
    const char* name = scratch.get_field(static_cast<unsigned short>(i));
    set_fieldname(i, name ? name : "");
  }
  post_init();
  add_text(file, 0, maxRecords);
}

int zyldb::load_text(int maxRecords) {
  TextFile file;
  if (!file.load(fileName, '\n', false)) return 0;
  return add_text(file, 1, maxRecords);
}

int zyldb::add_text(TextFile& f, int skipFirst, int maxRecords) {
  if (maxRecords < 1 || numRecords >= capacity) return 0;
  Progress progress(&progress_, f.byteSize());
  int added = 0;
  [&] {
    for (;;) {
      if (progress.active() && added % kProgressRows == 0)
        progress.update(f.lineOffset(f.currentLine));
      auto rec = std::make_unique<dbrecord>(static_cast<unsigned short>(numFields));
      rec->set_container(this);
      int count = rec->read(f);
      if (count == 0) return;
      if (static_cast<unsigned int>(count) != numFields) {
        fill_error_info(DBLoadError::rowFieldCount, added, 0, 0);
        LogBoth("zyldb::add_text: returning because not all fields filled\n");
        return;
      }
      if (added == 0 && skipFirst) {
        if (rec->read(f) == 0) {
          vorn_printf("zyldb::add_text: returning because no more lines\n");
          return;
        }
      } else if (equalsMagic(rec->get_field(0))) {
        // A header line among the records: skip it and the two lines after it.
        rec->read(f);
        rec->read(f);
        if (rec->read(f) == 0) {
          vorn_printf("zyldb::add_text: returning because no more lines\n");
          return;
        }
      }
      rows[numRecords++] = rec.release();
      while (numRecords >= capacity) add_chunk();
      if (++added >= maxRecords) return;
    }
  }();
  progress.finish(f.byteSize());
  return added;
}

namespace {

// Writes `n` raw rows to f, first storing each row's tag flag ("0"/"1") in
// the column `tagColumn` when there is one (visible and raw rows coincide
// unless only tags are shown). Returns the number of rows written.
int writeRows(zyldb& table, TextFile& f, dbrecord* const* rows, unsigned int n, int tagColumn,
              bool showTagsOnly, Progress& progress) {
  int written = 0;
  for (unsigned int i = 0; i < n; ++i) {
    if (progress.active() && i % kProgressRows == 0) progress.update(f.byteSize());
    dbrecord* rec = rows[i];
    if (tagColumn >= 0) {
      char text[8];
      std::snprintf(text, sizeof text, "%d", rec->getTag());
      if (!showTagsOnly)
        table.set_field(i, static_cast<unsigned int>(tagColumn), text);
      else
        rec->set_field(tagColumn, text, true);
    }
    if (!rec->write(f)) break;
    ++written;
  }
  return written;
}

// Saves f and reports the end of the save when it succeeded.
bool finishSave(const TextFile& f, const LightweightString<wchar_t>& name, Progress& progress) {
  if (!f.save(name, TextFile::eLF)) return false;
  progress.setTotal(f.byteSize());
  progress.finish(f.byteSize());
  return true;
}

}  // namespace

int zyldb::save_text() {
  const RowsMeasure measure = measureRows(rows, numRecords, numFields);
  TextFile f;
  reserveLines(f, numRecords, measure.lineBytes);
  save_params(f);
  writeColumnHeader(*this, f, &measure.longest);
  Progress progress(&progress_, f.byteSize() + measure.lineBytes);
  int written = writeRows(*this, f, rows, numRecords, get_fieldnum(LightweightString<char>("Tag")),
                          showTagsOnly != 0, progress);
  return finishSave(f, fileName, progress) ? written : 0;
}

int zyldb::save_text_without_header() {
  TextFile f;
  const size_t lineBytes = measureRows(rows, numRecords, 0).lineBytes;
  reserveLines(f, numRecords, lineBytes);
  save_params(f);
  writeColumnHeader(*this, f, nullptr);
  Progress progress(&progress_, f.byteSize() + lineBytes);
  int written = writeRows(*this, f, rows, numRecords, get_fieldnum(LightweightString<char>("Tag")),
                          showTagsOnly != 0, progress);
  return finishSave(f, fileName, progress) ? written : 0;
}

bool zyldb::save_tags() {
  const RowsMeasure measure = measureRows(rows, numRecords, numFields);
  TextFile f;
  reserveLines(f, measure.taggedRows, measure.taggedLineBytes);
  save_params(f);
  writeColumnHeader(*this, f, &measure.longest);
  Progress progress(&progress_, f.byteSize() + measure.taggedLineBytes);
  for (unsigned int i = 0; i < numRecords; ++i) {
    if (progress.active() && i % kProgressRows == 0) progress.update(f.byteSize());
    if (rows[i]->getTag() && !rows[i]->write(f)) break;
  }
  return finishSave(f, fileName, progress);
}

void zyldb::fill_error_info(int code, int detail, int extra1, int extra2) {
  errorPresent = 1;
  errorInfo.code = code;
  errorInfo.detail = detail;
  errorInfo.extra1 = extra1;
  errorInfo.extra2 = extra2;
}

int zyldb::read_error_info(dberror& e) {
  if (!errorPresent) return 0;
  e = errorInfo;
  return 1;
}

void zyldb::timecode_check(const char*) {}
