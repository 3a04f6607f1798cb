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
  size_t lineBytes = 0;        // every row's line, unescaped, with its NUL
  size_t taggedLineBytes = 0;  // the same for the tagged rows only
  unsigned int taggedRows = 0;
};

RowsMeasure measureRows(dbrecord* const* rows, unsigned int count) {
  RowsMeasure m;
  for (unsigned int r = 0; r < count; ++r) {
    const dbrecord* rec = rows[r];
    if (rec == nullptr) continue;
    const unsigned int fields = rec->get_num_fields();
    size_t bytes = fields > 0 ? size_t{fields} * 3 : 1;  // quotes and commas, NUL
    for (unsigned int i = 0; i < fields; ++i) {
      const size_t size = rec->getField(static_cast<unsigned short>(i)).size();
      bytes += size;
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

namespace {

std::vector<zyl::logformat::Param> paramsOf(const zyldb& t) {
  std::vector<zyl::logformat::Param> out(t.getNumParams());
  for (unsigned int i = 0; i < out.size(); ++i) out[i] = {t.getParamName(i), t.getParamValue(i)};
  return out;
}

}  // namespace

void zyldb::save_params(TextFile& f) {
  zyl::logformat::appendParamLines(f, paramsOf(*this), false);
}

int zyldb::save_column_header(TextFile& f, bool namesOnly) {
  zyl::logformat::appendColumnHeader(f, *this, namesOnly);
  return 1;
}

// ---- Files ------------------------------------------------------------------------

void zyldb::set_filename(LightweightString<wchar_t> name) { fileName = std::move(name); }

LightweightString<wchar_t> zyldb::get_filename() { return fileName; }

void zyldb::loadFromFile(int maxRecords, bool strictHeader) {
  free();
  timecodeFields_.clear();

  TextFile file;
  if (!file.load(fileName, '\n', false)) {
    if (file.notRegularFile()) fill_error_info(DBLoadError::notRegularFile, 0, 0, 0);
    return;
  }
  if (endsWithCsv(fileName)) {
    loadCsv(file);
    return;
  }
  dbrecord scratch(kScratchFields);
  read_params(file, &scratch);
  if (numParams == 0) return;
  if (equalsMagic(scratch.get_field(0))) {
    if (!loadColumnHeader(file, scratch)) return;
  } else {
    if (strictHeader) {
      valid = 0;
      return;
    }
    loadNamesOnlyHeader(scratch);
  }
  timecodeFields_.push_back(-1);

  for (unsigned int i = 0; i < numFields; ++i) {
    const char* name = scratch.get_field(static_cast<unsigned short>(i));
    set_fieldname(i, name ? name : "");
  }
  post_init();
  add_text(file, 0, maxRecords);
}

void zyldb::loadCsv(const TextFile& file) {
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
}

bool zyldb::loadColumnHeader(TextFile& file, dbrecord& scratch) {
  int count = scratch.read(file);  // widths: only their number is used
  if (static_cast<unsigned int>(count) > kMaxColumns) return false;
  unsigned int columns = static_cast<unsigned int>(count);

  if (scratch.read(file) != count) {
    fill_error_info(DBLoadError::columnHeader, DBLoadError::typesLine, 0, 0);
    return false;
  }
  fieldNames.resize(columns);
  fieldTypes.resize(columns, DBFieldTypes::text);
  numFields = columns;
  for (unsigned int i = 0; i < columns; ++i) {
    const char* keyword = scratch.get_field(static_cast<unsigned short>(i));
    set_fieldtype(i, zyl::logformat::parseType(keyword ? keyword : ""));
  }

  if (scratch.read(file) != count) {
    fill_error_info(DBLoadError::columnHeader, DBLoadError::namesLine, 0, 0);
    return false;
  }
  valid = 1;
  return true;
}

void zyldb::loadNamesOnlyHeader(const dbrecord& scratch) {
  // The line after the parameters is taken as the names line; columns
  // that look like start or end labels are typed as timecodes.
  unsigned int columns = scratch.get_num_fields();
  fieldNames.resize(columns);
  fieldTypes.resize(columns, DBFieldTypes::text);
  numFields = columns;
  for (unsigned int i = 0; i < columns; ++i) {
    const LightweightString<char> lower = toLower(scratch.getField(static_cast<unsigned short>(i)));
    bool label = lower.view().find("start") != std::string_view::npos ||
                 lower.view().find("end") != std::string_view::npos;
    if (label) timecodeFields_.push_back(static_cast<int>(i));
    set_fieldtype(i, label ? DBFieldTypes::timecode : DBFieldTypes::text);
  }
  valid = 1;
}

int zyldb::load_text(int maxRecords) {
  TextFile file;
  if (!file.load(fileName, '\n', false)) return 0;
  return add_text(file, 1, maxRecords);
}

namespace {

// Whether line n is a terminator line as the writer writes one: its first
// field is ZYLDB (ignoring case) written plainly, quoted or not. The writer
// escapes the first letter of a value that reads as ZYLDB, so such a row is
// not taken for a header.
bool isTerminatorLine(const TextFile& f, unsigned int n) {
  const char* p = f.line(n);
  while (*p && (isBlank(*p) || static_cast<unsigned char>(*p) < 0x20)) ++p;
  const bool quoted = *p == '"';
  if (quoted) ++p;
  if (strncasecmp(p, kMagicName, zyl::logformat::kMagicNameLength) != 0) return false;
  p += zyl::logformat::kMagicNameLength;
  if (quoted && *p == '"') ++p;
  while (isBlank(*p)) ++p;
  return *p == 0 || *p == ',';
}

}  // namespace

int zyldb::add_text(TextFile& f, int skipFirst, int maxRecords) {
  if (maxRecords < 1 || numRecords >= capacity) return 0;
  Progress progress(&progress_, f.byteSize());
  int added = 0;
  [&] {
    for (;;) {
      if (progress.active() && added % kProgressRows == 0)
        progress.update(f.lineOffset(f.currentLine));
      auto rec = makeRecord();
      const unsigned int line = f.currentLine;
      int count = rec->read(f);
      if (count == 0) return;
      // A control character where a field starts counts as a start without
      // a value, so the values are counted too: a line short of values is
      // refused like any short line.
      if (static_cast<unsigned int>(count) != numFields || rec->get_num_fields() != numFields) {
        fill_error_info(DBLoadError::rowFieldCount, added, 0, 0);
        LogBoth("zyldb::add_text: returning because not all fields filled\n");
        return;
      }
      if (added == 0 && skipFirst) {
        if (rec->read(f) == 0) {
          vorn_printf("zyldb::add_text: returning because no more lines\n");
          return;
        }
      } else if (equalsMagic(rec->get_field(0)) && isTerminatorLine(f, line)) {
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

std::unique_ptr<dbrecord> zyldb::makeRecord() {
  // Every record the loader creates is made here.
  auto rec = std::make_unique<dbrecord>(static_cast<unsigned short>(numFields));
  rec->set_container(this);
  return rec;
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

bool csvSafe(std::string_view v) {
  return v.find_first_of(std::string_view(",\n\r\0", 4)) == std::string_view::npos;
}

}  // namespace

bool zyldb::refuseSave(const char* function, DBLoadError::SaveProblem problem, const char* reason) {
  fill_error_info(DBLoadError::saveRefused, problem, 0, 0);
  LogBoth("%s: not saved, the file would not load back: %s\n", function, reason);
  return false;
}

bool zyldb::checkSavable(const char* function, dbrecord* const* list, unsigned int n) {
  if (endsWithCsv(fileName)) {
    // A log written under a ".csv" name would load as CSV: such a name gets
    // CSV, and only when CSV holds the table as it is.
    return refuseSave(function, DBLoadError::csvName,
                      "a name ending in \".csv\" is loaded as plain CSV");
  }
  if (const char* why = zyl::logformat::paramsProblem(paramsOf(*this)))
    return refuseSave(function, DBLoadError::badParameter, why);
  if (const char* why = zyl::logformat::columnsProblem(*this))
    return refuseSave(function, DBLoadError::badColumn, why);
  for (unsigned int i = 0; i < n; ++i) {
    if (list[i] == nullptr) continue;
    if (numFields == 0)
      return refuseSave(function, DBLoadError::noColumns, "rows without columns have no line");
    if (!list[i]->fitsLineForm())
      return refuseSave(function, DBLoadError::longValue, "a value is longer than 4095 bytes");
  }
  return true;
}

int zyldb::saveCsv() {
  // Only a table that CSV holds exactly: text_s columns, no parameters
  // beyond the magic one, no separators in names or values, and no row
  // whose line would be empty.
  const char* fn = "zyldb::save_text";
  if (numParams > 1) return refuseSave(fn, DBLoadError::csvName, "CSV holds no parameters");
  std::string line;
  for (unsigned int c = 0; c < numFields; ++c) {
    if (fieldTypes[c] != DBFieldTypes::text_s || !csvSafe(fieldNames[c].view()))
      return refuseSave(fn, DBLoadError::csvName, "CSV holds only text_s columns without commas");
    if (c) line += ',';
    line += fieldNames[c].view();
  }
  if (numFields == 0 && numRecords > 0)
    return refuseSave(fn, DBLoadError::noColumns, "rows without columns have no line");
  TextFile f;
  f.appendLine(std::string_view(line));
  for (unsigned int r = 0; r < numRecords; ++r) {
    line.clear();
    for (unsigned int c = 0; c < numFields; ++c) {
      std::string_view v = rows[r]->getField(static_cast<unsigned short>(c)).view();
      if (!csvSafe(v))
        return refuseSave(fn, DBLoadError::csvName, "a value holds a comma or a line break");
      if (c) line += ',';
      line += v;
    }
    if (line.empty()) return refuseSave(fn, DBLoadError::csvName, "a row would be an empty line");
    f.appendLine(std::string_view(line));
  }
  Progress progress(&progress_, f.byteSize());
  return finishSave(f, fileName, progress) ? static_cast<int>(numRecords) : 0;
}

int zyldb::save_text() {
  if (endsWithCsv(fileName) && showTagsOnly == 0) return saveCsv();
  if (!checkSavable("zyldb::save_text", rows, numRecords)) return 0;
  const RowsMeasure measure = measureRows(rows, numRecords);
  TextFile f;
  reserveLines(f, numRecords, measure.lineBytes);
  // A table without parameters still gets the magic line: a file needs it
  // to load.
  zyl::logformat::appendParamLines(f, paramsOf(*this), true);
  save_column_header(f, false);
  Progress progress(&progress_, f.byteSize() + measure.lineBytes);
  int written = writeRows(*this, f, rows, numRecords, get_fieldnum(LightweightString<char>("Tag")),
                          showTagsOnly != 0, progress);
  return finishSave(f, fileName, progress) ? written : 0;
}

int zyldb::save_text_without_header() {
  if (!checkSavable("zyldb::save_text_without_header", rows, numRecords)) return 0;
  const size_t lineBytes = measureRows(rows, numRecords).lineBytes;
  TextFile f;
  reserveLines(f, numRecords, lineBytes);
  save_params(f);
  save_column_header(f, true);
  Progress progress(&progress_, f.byteSize() + lineBytes);
  int written = writeRows(*this, f, rows, numRecords, get_fieldnum(LightweightString<char>("Tag")),
                          showTagsOnly != 0, progress);
  return finishSave(f, fileName, progress) ? written : 0;
}

bool zyldb::save_tags() {
  if (!checkSavable("zyldb::save_tags", rows, numRecords)) return false;
  const RowsMeasure measure = measureRows(rows, numRecords);
  TextFile f;
  reserveLines(f, measure.taggedRows, measure.taggedLineBytes);
  zyl::logformat::appendParamLines(f, paramsOf(*this), true);
  save_column_header(f, false);
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
