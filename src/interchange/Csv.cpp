// CSV reading and writing with RFC 4180 quoting.
//
// The reader is one pass over the text: each byte is looked at a bounded
// number of times, so any input, however malformed, costs linear time.
// Unquoted fields and quoted fields without doubled quotes become values
// without an intermediate copy.

#include <zyldb/db/ODBBase.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/interchange/Interchange.h>

#include <cstring>
#include <string>
#include <vector>

#include "interchange/Interchange_internal.h"

namespace zyl::interchange {

using detail::fail;

namespace {

bool badDelimiter(char d) { return d == '"' || d == '\r' || d == '\n'; }

// The reader's position: the byte offset, its line and where that line
// starts (for column numbers).
struct Cursor {
  std::string_view text;
  size_t pos = 0;
  int line = 1;
  size_t lineStart = 0;

  int column() const { return static_cast<int>(pos - lineStart) + 1; }
  bool atEnd() const { return pos >= text.size(); }
  char peek() const { return text[pos]; }
  // Counts the line ends in [from, to): LF, CRLF (once) and a lone CR.
  void countLines(size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
      const char c = text[i];
      if (c == '\n' || (c == '\r' && (i + 1 >= text.size() || text[i + 1] != '\n'))) {
        ++line;
        lineStart = i + 1;
      }
    }
  }
  // Consumes the line end at pos, if any.
  void skipLineEnd() {
    if (atEnd()) return;
    if (text[pos] == '\r') {
      ++pos;
      if (!atEnd() && text[pos] == '\n') ++pos;
    } else if (text[pos] == '\n') {
      ++pos;
    } else {
      return;
    }
    ++line;
    lineStart = pos;
  }
};

class CsvReader {
 public:
  CsvReader(std::string_view text, const CsvOptions& options, Error* err)
      : cur_{text}, options_(options), err_(err) {}

  std::unique_ptr<zyldb> read() {
    if (badDelimiter(options_.delimiter)) {
      fail(err_, 0, 0, "the delimiter cannot be a quote or a line end");
      return nullptr;
    }
    cur_.pos = detail::bomLength(cur_.text);
    cur_.lineStart = cur_.pos;
    bool first = true;
    size_t widest = 0;
    while (!cur_.atEnd()) {
      if (cur_.peek() == '\r' || cur_.peek() == '\n') {  // a blank line
        cur_.skipLineEnd();
        continue;
      }
      const int recordLine = cur_.line;
      if (!readRecord()) return nullptr;
      if (first && options_.header) {
        for (const LightweightString<char>& name : fields_)
          builder_.addColumn(name.view(), detail::typeFromName(name.view()));
      } else {
        if (options_.header) {
          size_t n = fields_.size();
          while (n > builder_.columns() && fields_[n - 1].empty()) --n;
          if (n > builder_.columns()) {
            fail(err_, recordLine, 0,
                 std::to_string(n) + " values, but the header names " +
                     std::to_string(builder_.columns()) + " columns");
            return nullptr;
          }
          fields_.resize(n);
        }
        widest = std::max(widest, fields_.size());
        builder_.beginRow();
        for (LightweightString<char>& v : fields_) builder_.addValue(std::move(v));
      }
      first = false;
    }
    if (!options_.header) {
      for (size_t c = 0; c < widest; ++c) {
        const std::string name = "Column " + std::to_string(c + 1);
        builder_.addColumn(name, detail::typeFromName(name));
      }
    }
    return builder_.build();
  }

 private:
  // Reads one record (at least one field) and its line end into fields_.
  bool readRecord() {
    fields_.clear();
    const char delim = options_.delimiter;
    for (;;) {
      if (fields_.size() == detail::kMaxColumns)
        return fail(err_, cur_.line, cur_.column(), "more than 65535 fields in a record");
      if (!cur_.atEnd() && cur_.peek() == '"') {
        if (!readQuoted()) return false;
        if (!cur_.atEnd() && cur_.peek() != delim && cur_.peek() != '\r' && cur_.peek() != '\n')
          return fail(err_, cur_.line, cur_.column(),
                      "unexpected character after the closing quote of a field");
      } else {
        const size_t start = cur_.pos;
        const std::string_view t = cur_.text;
        size_t i = start;
        while (i < t.size() && t[i] != delim && t[i] != '\r' && t[i] != '\n') ++i;
        fields_.push_back(LightweightString<char>::packed(t.data() + start, i - start));
        cur_.pos = i;
      }
      if (!cur_.atEnd() && cur_.peek() == delim) {
        ++cur_.pos;
        continue;
      }
      cur_.skipLineEnd();
      return true;
    }
  }

  // Reads a quoted field; pos is at its opening quote and ends after the
  // closing one.
  bool readQuoted() {
    const int openLine = cur_.line;
    const std::string_view t = cur_.text;
    size_t from = ++cur_.pos;
    std::string joined;  // used only when the field holds doubled quotes
    bool doubled = false;
    for (;;) {
      const void* q = std::memchr(t.data() + from, '"', t.size() - from);
      const size_t at = q ? static_cast<size_t>(static_cast<const char*>(q) - t.data()) : t.size();
      cur_.countLines(from, at);
      if (!q) {
        cur_.pos = t.size();
        return fail(err_, cur_.line, 0,
                    "unterminated quoted field that began on line " + std::to_string(openLine));
      }
      if (at + 1 < t.size() && t[at + 1] == '"') {
        joined.append(t.data() + from, at - from + 1);
        doubled = true;
        from = at + 2;
        continue;
      }
      if (doubled) {
        joined.append(t.data() + from, at - from);
        fields_.push_back(LightweightString<char>::packed(joined.data(), joined.size()));
      } else {
        fields_.push_back(LightweightString<char>::packed(t.data() + from, at - from));
      }
      cur_.pos = at + 1;
      return true;
    }
  }

  Cursor cur_;
  const CsvOptions& options_;
  Error* err_;
  std::vector<LightweightString<char>> fields_;
  detail::TableBuilder builder_;
};

bool startsFormula(std::string_view v) {
  if (v.empty()) return false;
  const char c = v.front();
  return c == '=' || c == '+' || c == '-' || c == '@' || c == '\t' || c == '\r';
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

void putField(std::string_view v, bool only, const CsvOptions& options, detail::Output& out) {
  const bool guard = options.guardFormulas && startsFormula(v);
  bool quote = (only && v.empty()) || (!v.empty() && (isBlank(v.front()) || isBlank(v.back())));
  if (!quote) {
    for (char c : v) {
      if (c == options.delimiter || c == '"' || c == '\r' || c == '\n') {
        quote = true;
        break;
      }
    }
  }
  if (!quote) {
    if (guard) out.put('\'');
    out.put(v);
    return;
  }
  out.put('"');
  if (guard) out.put('\'');
  size_t from = 0;
  for (size_t q = v.find('"'); q != std::string_view::npos; q = v.find('"', q + 1)) {
    out.put(v.substr(from, q + 1 - from));
    out.put('"');
    from = q + 1;
  }
  out.put(v.substr(from));
  out.put('"');
}

}  // namespace

std::unique_ptr<zyldb> readCsv(std::string_view text, const CsvOptions& options, Error* err) {
  return CsvReader(text, options, err).read();
}

bool writeCsv(const ODBBase& rows, const CsvOptions& options, const Sink& sink, Error* err) {
  if (badDelimiter(options.delimiter))
    return fail(err, 0, 0, "the delimiter cannot be a quote or a line end");
  const unsigned int columns = rows.get_num_fields();
  if (columns == 0) return true;
  detail::Output out(sink);
  const std::string_view eol = options.crlf ? "\r\n" : "\n";
  // Readers drop one leading byte-order mark; a first field that begins
  // with one gets another in front, so that it keeps its own.
  const unsigned int n = rows.get_num_records();
  const LightweightString<char> firstField =
      options.header ? LightweightString<char>(rows.get_fieldname(0))
                     : (n ? rows.getField(0, 0) : LightweightString<char>());
  if (options.bom || (detail::bomLength(firstField.view()) && (options.header || n)))
    out.put("\xEF\xBB\xBF");
  // Names are written unguarded: they are the header, not cells.
  CsvOptions names = options;
  names.guardFormulas = false;
  if (options.header) {
    for (unsigned int c = 0; c < columns; ++c) {
      if (c) out.put(options.delimiter);
      putField(rows.get_fieldname(c), columns == 1, names, out);
    }
    out.put(eol);
  }
  for (unsigned int r = 0; r < n; ++r) {
    for (unsigned int c = 0; c < columns; ++c) {
      if (c) out.put(options.delimiter);
      putField(rows.getField(r, c).view(), columns == 1, options, out);
    }
    out.put(eol);
    if (!out.ok()) break;
  }
  return out.finish(err);
}

}  // namespace zyl::interchange
