// The shared pieces of the interchange formats (Interchange_internal.h), the
// file functions and the format names.

#include <zyldb/db/zyldb.h>
#include <zyldb/interchange/Interchange.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>

#include <climits>
#include <cstring>
#include <string>

#include "interchange/Interchange_internal.h"

namespace zyl::interchange {
namespace detail {

bool fail(Error* err, int line, int column, std::string_view what) {
  if (!err) return false;
  std::string m;
  if (line > 0) {
    m = "line " + std::to_string(line);
    if (column > 0) m += ", column " + std::to_string(column);
    m += ": ";
  }
  m += what;
  err->line = line;
  err->column = column;
  err->message = std::move(m);
  return false;
}

void TableBuilder::addColumn(std::string_view name, DBFieldTypes::eType type) {
  names_.emplace_back(name);
  types_.push_back(type);
}

std::unique_ptr<zyldb> TableBuilder::build() {
  std::vector<DBFieldDesc> descs(names_.size());
  for (size_t c = 0; c < names_.size(); ++c) {
    descs[c].name = LightweightString<char>(names_[c]);
    descs[c].type = types_[c];
  }
  auto table = std::make_unique<zyldb>(descs);
  if (names_.empty()) return table;
  // add_records takes an int; the row count is far below that for any input
  // that fits in memory, but stay within it regardless.
  size_t done = 0;
  while (done < rowStarts_.size()) {
    const size_t n = std::min<size_t>(rowStarts_.size() - done, INT_MAX);
    table->add_records(static_cast<int>(n));
    done += n;
  }
  for (size_t r = 0; r < rowStarts_.size(); ++r) {
    const size_t begin = rowStarts_[r];
    const size_t end = r + 1 < rowStarts_.size() ? rowStarts_[r + 1] : cells_.size();
    for (size_t i = begin; i < end; ++i)
      if (!cells_[i].empty())
        table->setField(static_cast<unsigned int>(r), static_cast<unsigned int>(i - begin),
                        cells_[i]);
  }
  return table;
}

DBFieldTypes::eType typeFromName(std::string_view name) {
  std::string lower(name);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  bool label = lower.find("start") != std::string::npos || lower.find("end") != std::string::npos;
  return label ? DBFieldTypes::timecode : DBFieldTypes::text;
}

bool Output::flush() {
  if (ok_ && !buf_.empty()) ok_ = sink_(buf_);
  buf_.clear();
  return ok_;
}

bool Output::finish(Error* err) {
  if (flush()) return true;
  return fail(err, 0, 0, "could not write the output");
}

size_t bomLength(std::string_view text) { return text.substr(0, 3) == "\xEF\xBB\xBF" ? 3 : 0; }

bool LineReader::next(std::string_view* line) {
  if (pos_ >= text_.size()) return false;
  size_t end = pos_;
  const size_t n = text_.size();
  if (cr_) {
    while (end < n && text_[end] != '\n' && text_[end] != '\r') ++end;
  } else {
    const void* lf = std::memchr(text_.data() + pos_, '\n', n - pos_);
    end = lf ? static_cast<size_t>(static_cast<const char*>(lf) - text_.data()) : n;
  }
  size_t next = end;
  if (end < n) {
    // A CR before the LF belongs to the line end in both modes.
    if (text_[end] == '\r' && end + 1 < n && text_[end + 1] == '\n') ++next;
    ++next;
  }
  size_t len = end - pos_;
  if (!cr_ && end < n && len > 0 && text_[end - 1] == '\r') --len;
  *line = text_.substr(pos_, len);
  pos_ = next;
  ++line_;
  return true;
}

LightweightString<char> decodeEscapes(std::string_view field) {
  if (field.find('\\') == std::string_view::npos)
    return LightweightString<char>::packed(field.data(), field.size());
  std::string v;
  v.reserve(field.size());
  for (size_t i = 0; i < field.size(); ++i) {
    char c = field[i];
    if (c == '\\' && i + 1 < field.size()) {
      switch (field[i + 1]) {
        case 't':
          c = '\t';
          ++i;
          break;
        case 'n':
          c = '\n';
          ++i;
          break;
        case 'r':
          c = '\r';
          ++i;
          break;
        case '\\':
          ++i;
          break;
        default:
          break;
      }
    }
    v.push_back(c);
  }
  return LightweightString<char>::packed(v.data(), v.size());
}

void encodeEscapes(std::string_view value, Output& out) {
  size_t from = 0;
  for (size_t i = 0; i < value.size(); ++i) {
    const char* esc = nullptr;
    switch (value[i]) {
      case '\t':
        esc = "\\t";
        break;
      case '\n':
        esc = "\\n";
        break;
      case '\r':
        esc = "\\r";
        break;
      case '\\':
        esc = "\\\\";
        break;
      default:
        continue;
    }
    out.put(value.substr(from, i - from));
    out.put(std::string_view(esc, 2));
    from = i + 1;
  }
  out.put(value.substr(from));
}

bool needsEscapes(std::string_view value) {
  return value.find_first_of("\t\n\r") != std::string_view::npos;
}

void splitTabs(std::string_view line, bool decode, std::vector<LightweightString<char>>* fields) {
  fields->clear();
  size_t from = 0;
  for (;;) {
    const size_t tab = line.find('\t', from);
    const std::string_view piece =
        line.substr(from, tab == std::string_view::npos ? tab : tab - from);
    fields->push_back(decode ? decodeEscapes(piece)
                             : LightweightString<char>::packed(piece.data(), piece.size()));
    if (tab == std::string_view::npos) return;
    from = tab + 1;
  }
}

}  // namespace detail

using detail::fail;

namespace {

LightweightString<wchar_t> widePath(const std::string& path) {
  return fromUTF8(LightweightString<char>(path));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

struct FormatWord {
  Format format;
  const char* word;
};
constexpr FormatWord kFormatWords[] = {
    {Format::Log, "log"}, {Format::Csv, "csv"},   {Format::Tsv, "tsv"},
    {Format::Ale, "ale"}, {Format::Json, "json"},
};

}  // namespace

Format formatFromName(std::string_view name) {
  for (const FormatWord& w : kFormatWords)
    if (equalsIgnoringCase(name, w.word)) return w.format;
  return Format::Unknown;
}

const char* formatName(Format format) {
  for (const FormatWord& w : kFormatWords)
    if (w.format == format) return w.word;
  return "unknown";
}

Format formatFromExtension(std::string_view path) {
  const size_t slash = path.find_last_of('/');
  const std::string_view base = slash == std::string_view::npos ? path : path.substr(slash + 1);
  const size_t dot = base.find_last_of('.');
  if (dot == std::string_view::npos || dot == 0) return Format::Unknown;
  const std::string_view ext = base.substr(dot + 1);
  if (equalsIgnoringCase(ext, "tab")) return Format::Tsv;
  return formatFromName(ext);
}

std::unique_ptr<zyldb> loadFile(const std::string& path, Format format, const Options& options,
                                Error* err) {
  if (format == Format::Log) {
    auto table = std::make_unique<zyldb>(widePath(path), INT_MAX, false);
    if (table->get_valid()) return table;
    zyl::FileService& fs = OS()->fileService();
    if (!fs.exists(widePath(path))) {
      fail(err, 0, 0, path + ": " + fs.lastError());
    } else {
      fail(err, 0, 0, path + ": not a log (no log header)");
    }
    return nullptr;
  }
  if (format != Format::Csv && format != Format::Tsv && format != Format::Ale) {
    fail(err, 0, 0, path + ": the library cannot read " + formatName(format) + " files");
    return nullptr;
  }
  std::string text;
  zyl::FileService& fs = OS()->fileService();
  if (!fs.readFile(widePath(path), &text)) {
    fail(err, 0, 0, path + ": " + fs.lastError());
    return nullptr;
  }
  Error e;
  std::unique_ptr<zyldb> table;
  if (format == Format::Csv) table = readCsv(text, options.csv, &e);
  if (format == Format::Tsv) table = readTsv(text, &e);
  if (format == Format::Ale) table = readAle(text, &e);
  if (!table && err) {
    err->line = e.line;
    err->column = e.column;
    err->message = path + ": " + e.message;
  }
  return table;
}

bool saveFile(const ODBBase& rows, const std::string& path, Format format, const Options& options,
              Error* err) {
  std::string text;
  const Sink sink = [&text](std::string_view chunk) {
    text.append(chunk);
    return true;
  };
  Error e;
  bool ok = false;
  switch (format) {
    case Format::Csv:
      ok = writeCsv(rows, options.csv, sink, &e);
      break;
    case Format::Tsv:
      ok = writeTsv(rows, options.tsv, sink, &e);
      break;
    case Format::Ale:
      ok = writeAle(rows, options.ale, sink, &e);
      break;
    default:
      return fail(err, 0, 0,
                  path + ": the interchange layer does not write " + formatName(format) + " files");
  }
  if (!ok) return fail(err, e.line, e.column, path + ": " + e.message);
  // TextFile saves lines and adds the line ends itself. Every writer ends its
  // output with a line end, so the whole output goes in as one line without
  // its last line end, and TextFile puts back the same one.
  TextFile file;
  TextFile::eEOLStyle style = TextFile::eLF;
  std::string_view body(text);
  if (body.size() >= 2 && body.substr(body.size() - 2) == "\r\n") {
    body.remove_suffix(2);
    style = TextFile::eCRLF;
  } else if (!body.empty() && body.back() == '\n') {
    body.remove_suffix(1);
  }
  if (!text.empty()) file.appendLine(body);
  text.clear();
  text.shrink_to_fit();
  if (file.save(widePath(path), style)) return true;
  return fail(err, 0, 0, path + ": " + OS()->fileService().lastError());
}

}  // namespace zyl::interchange
