// ALE reading and writing, and the mapping between ALE's column names and
// the library's.

#include <strings.h>
#include <zyldb/db/ODBBase.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/interchange/Interchange.h>
#include <zyldb/platform/LightweightString.h>

#include <string>
#include <vector>

#include "db/LibrarySettings_internal.h"
#include "interchange/Interchange_internal.h"

namespace zyl::interchange {

using detail::fail;

namespace {

// One entry per ALE column the library knows: its ALE name, the library's
// column name for it, and the type the column gets. docs/FORMATS.md lists
// the same table; keep them in step.
struct ColumnMapping {
  const char* ale;
  const char* library;
  DBFieldTypes::eType type;
};
constexpr ColumnMapping kMapping[] = {
    {"Name", "Name", DBFieldTypes::text},
    {"Tape", "Reel", DBFieldTypes::text},
    {"Start", "Start time", DBFieldTypes::timecode},
    {"End", "End time", DBFieldTypes::timecode},
    {"Duration", "Duration", DBFieldTypes::timecode},
    {"Scene", "Scene", DBFieldTypes::text},
    {"Take", "Take", DBFieldTypes::text},
    {"Tracks", "Tracks", DBFieldTypes::text},
    {"Comments", "Notes", DBFieldTypes::text},
    {"Description", "Description", DBFieldTypes::text},
    {"Soundroll", "snd reel", DBFieldTypes::text},
    {"Sound TC", "snd start", DBFieldTypes::timecode},
    {"Camroll", "cam reel", DBFieldTypes::text},
    {"Labroll", "lab reel", DBFieldTypes::text},
    {"KN Start", "start keycode", DBFieldTypes::text},
    {"KN End", "end keycode", DBFieldTypes::text},
    {"Ink Number", "start inkcode", DBFieldTypes::text},
    {"Auxiliary TC1", "Auxiliary TC1", DBFieldTypes::timecode},
};

bool same(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

const ColumnMapping* byAleName(std::string_view name) {
  for (const ColumnMapping& m : kMapping)
    if (same(name, m.ale)) return &m;
  return nullptr;
}

const ColumnMapping* byLibraryName(std::string_view name) {
  for (const ColumnMapping& m : kMapping)
    if (same(name, m.library)) return &m;
  return nullptr;
}

constexpr size_t kMappings = sizeof(kMapping) / sizeof(kMapping[0]);

// How many of a file's or table's column names are each mapping entry's ALE
// name and library name (ignoring case). One pass per entry keeps the
// renaming linear in the number of columns.
struct NameCounts {
  size_t ale[kMappings] = {};
  size_t library[kMappings] = {};

  template <class Names>
  explicit NameCounts(const Names& names) {
    for (const auto& n : names) {
      const std::string_view v(n.data(), n.size());
      for (size_t i = 0; i < kMappings; ++i) {
        ale[i] += same(v, kMapping[i].ale);
        library[i] += same(v, kMapping[i].library);
      }
    }
  }
  static size_t index(const ColumnMapping* m) { return static_cast<size_t>(m - kMapping); }
};

bool renames(const ColumnMapping& m) { return !same(m.ale, m.library); }

std::string_view trimBlanks(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

bool isBlankLine(std::string_view line) { return trimBlanks(line).empty(); }

constexpr const char* kFps = "FPS";
constexpr const char* kVideo = "VIDEO_FORMAT";
constexpr const char* kAudio = "AUDIO_FORMAT";
constexpr const char* kDelim = "FIELD_DELIM";
// ALE has no escapes: a value cannot hold a tab or a line break. A file this
// library writes for values that do declares the escapes of TSV with this
// heading entry; without it every byte is taken literally, so that files
// from elsewhere (Windows paths such as "D:\new") read as they are.
constexpr const char* kEscapes = "ESCAPES";
constexpr const char* kBackslash = "BACKSLASH";

// The entries the writer puts in the heading itself, and the log's magic
// parameter: a table's parameters of these names are not written again.
bool isHeadingSetting(std::string_view key) {
  return same(key, "ZYLDB") || same(key, kDelim) || same(key, kEscapes) || same(key, kVideo) ||
         same(key, kAudio) || same(key, kFps);
}

}  // namespace

std::unique_ptr<zyldb> readAle(std::string_view text, Error* err) {
  text.remove_prefix(detail::bomLength(text));
  detail::LineReader lines(text, true);
  std::string_view line;
  enum class Section { None, Heading, Column, Data } section = Section::None;
  std::vector<std::pair<std::string_view, std::string_view>> heading;  // raw
  std::vector<LightweightString<char>> names, fields;
  bool haveColumns = false, haveData = false, escapes = false;
  detail::TableBuilder builder;
  while (lines.next(&line)) {
    const int at = lines.lineNumber();
    // In the Column section the first non-blank line is the names line,
    // whatever it says; elsewhere a section word starts a new section.
    if (section == Section::Column && !haveColumns) {
      if (isBlankLine(line)) continue;
      detail::splitTabs(line, escapes, &names);
      // Column names are C strings: each ends at a NUL, before it is mapped.
      for (LightweightString<char>& name : names) {
        const size_t nul = name.view().find('\0');
        if (nul != std::string_view::npos) name = LightweightString<char>(name.c_str(), nul);
        // The table drops '&' from a name as it stores it; map the name it
        // will store, or "Tap&e" would be stored as "Tape" and read back as Reel.
        if (zyl::librarySettings().removeFieldnameAmpersands != 0 &&
            name.view().find('&') != std::string_view::npos)
          name = strip_char_from_string('&', name.c_str());
      }
      while (!names.empty() && names.back().empty()) names.pop_back();
      if (names.size() > detail::kMaxColumns) {
        fail(err, at, 0, "more than 65535 columns");
        return nullptr;
      }
      haveColumns = true;
      continue;
    }
    if (section != Section::Data) {
      const std::string_view word = trimBlanks(line);
      if (word.empty()) continue;
      if (same(word, "Heading")) {
        section = Section::Heading;
        continue;
      }
      if (same(word, "Column")) {
        section = Section::Column;
        continue;
      }
      if (same(word, "Data")) {
        if (!haveColumns) {
          fail(err, at, 0, "Data section before a Column section");
          return nullptr;
        }
        section = Section::Data;
        haveData = true;
        continue;
      }
      if (section != Section::Heading) {
        fail(err, at, 1, "expected Heading, Column or Data");
        return nullptr;
      }
      // KEY<tab>VALUE; the key ends at the first tab (or blank, for files
      // written by hand).
      size_t split = line.find('\t');
      if (split == std::string_view::npos) split = line.find(' ');
      // Parameters are C strings: a key ends at a NUL, before it is trimmed.
      std::string_view key = line.substr(0, split);
      key = trimBlanks(key.substr(0, key.find('\0')));
      const std::string_view value =
          split == std::string_view::npos ? std::string_view() : line.substr(split + 1);
      if (key.empty() || same(key, "ZYLDB")) continue;  // "ZYLDB" is the log's magic
      if (same(key, kDelim)) {
        if (!same(trimBlanks(value), "TABS")) {
          fail(err, at, 0,
               "FIELD_DELIM is \"" + std::string(trimBlanks(value)) + "\"; only TABS is supported");
          return nullptr;
        }
      } else if (same(key, kEscapes)) {
        escapes = same(trimBlanks(value), kBackslash);
      } else {
        heading.emplace_back(key, value);
      }
      continue;
    }
    // A data row.
    if (line.empty()) continue;
    detail::splitTabs(line, escapes, &fields);
    size_t n = fields.size();
    while (n > names.size() && fields[n - 1].empty()) --n;
    if (n > names.size()) {
      fail(err, at, 0,
           std::to_string(n) + " values, but the Column section names " +
               std::to_string(names.size()) + " columns");
      return nullptr;
    }
    builder.beginRow();
    for (size_t i = 0; i < n; ++i) builder.addValue(std::move(fields[i]));
  }
  if (!haveColumns) {
    fail(err, 0, 0, "no Column section");
    return nullptr;
  }
  if (!haveData) {
    fail(err, 0, 0, "no Data section");
    return nullptr;
  }
  // A known ALE name becomes the library's name unless another column of the
  // file already has that name (then it stays, so no two columns collide).
  // Names the two share keep the file's spelling.
  const NameCounts counts(names);
  for (size_t c = 0; c < names.size(); ++c) {
    const ColumnMapping* m = byAleName(names[c].view());
    if (m && renames(*m) && counts.library[NameCounts::index(m)] == 0)
      builder.addColumn(m->library, m->type);
    else
      builder.addColumn(names[c].view(), m ? m->type : DBFieldTypes::text);
  }
  // A table holds kMaxParams parameters, the magic one included.
  if (heading.size() > zyldb::kMaxParams - 1) {
    fail(err, 0, 0,
         "more than " + std::to_string(zyldb::kMaxParams - 1) +
             " heading entries; a table holds no more parameters");
    return nullptr;
  }
  std::unique_ptr<zyldb> table = builder.build();
  const auto decoded = [escapes](std::string_view s) {
    return escapes ? detail::decodeEscapes(s).toStdString() : std::string(s);
  };
  for (const auto& [key, value] : heading)
    table->add_param(decoded(key).c_str(), decoded(value).c_str());
  return table;
}

namespace {

// Whether anything the writer puts out needs the escapes declared.
bool anyNeedsEscapes(const ODBBase& rows, const zyldb* table) {
  const unsigned int columns = rows.get_num_fields();
  for (unsigned int c = 0; c < columns; ++c)
    if (detail::needsEscapes(rows.get_fieldname(c))) return true;
  if (table)
    for (unsigned int i = 0; i < table->getNumParams(); ++i)
      if (detail::needsEscapes(table->getParamName(i)) ||
          detail::needsEscapes(table->getParamValue(i)))
        return true;
  const unsigned int n = rows.get_num_records();
  for (unsigned int r = 0; r < n; ++r)
    for (unsigned int c = 0; c < columns; ++c)
      if (detail::needsEscapes(rows.getField(r, c).view())) return true;
  return false;
}

}  // namespace

bool writeAle(const ODBBase& rows, const AleOptions& options, const Sink& sink, Error* err) {
  const unsigned int columns = rows.get_num_fields();
  if (columns == 0) return fail(err, 0, 0, "ALE needs at least one column");
  std::vector<std::string_view> names(columns);
  for (unsigned int c = 0; c < columns; ++c) {
    names[c] = rows.get_fieldname(c);
    if (trimBlanks(names[c]).empty())
      return fail(err, 0, 0, "column " + std::to_string(c + 1) + " has no name, and ALE needs one");
  }
  // A view has no list of parameters; only a table's are written.
  const auto* table = dynamic_cast<const zyldb*>(&rows);
  const bool escapes = anyNeedsEscapes(rows, table);
  detail::Output out(sink);
  const auto put = [&](std::string_view s) {
    if (escapes)
      detail::encodeEscapes(s, out);
    else
      out.put(s);
  };
  const std::string_view eol = options.crlf ? "\r\n" : "\n";
  const auto entry = [&](std::string_view key, std::string_view value) {
    put(key);
    out.put('\t');
    put(value);
    out.put(eol);
  };
  const auto setting = [&](const std::string& given, const char* key, const char* fallback) {
    if (!given.empty()) return std::string_view(given);
    const char* p = rows.get_param_val(key);
    return std::string_view(p ? p : fallback);
  };
  // The reader makes each heading entry a parameter, so the heading may hold
  // no more entries than a table holds parameters.
  if (table) {
    size_t others = 0;
    for (unsigned int i = 0; i < table->getNumParams(); ++i)
      others += !isHeadingSetting(table->getParamName(i));
    if (others + 3 > zyldb::kMaxParams - 1)
      return fail(err, 0, 0,
                  "the table has " + std::to_string(others) +
                      " parameters besides FPS, VIDEO_FORMAT and AUDIO_FORMAT; an ALE heading "
                      "read back holds at most " +
                      std::to_string(zyldb::kMaxParams - 4));
  }
  out.put("Heading");
  out.put(eol);
  entry(kDelim, "TABS");
  if (escapes) entry(kEscapes, kBackslash);
  entry(kVideo, setting(options.videoFormat, kVideo, "1080"));
  entry(kAudio, setting(options.audioFormat, kAudio, "48khz"));
  entry(kFps, setting(options.fps, kFps, "24"));
  if (table) {
    for (unsigned int i = 0; i < table->getNumParams(); ++i) {
      const std::string_view key = table->getParamName(i);
      if (isHeadingSetting(key)) continue;
      entry(key, table->getParamValue(i));
    }
  }
  out.put(eol);
  out.put("Column");
  out.put(eol);
  // The mirror of the reader's renaming. Only the library's exact spelling
  // is renamed, and only when no other column could be mistaken for either
  // name, so that reading the file back gives every column its name again,
  // case included.
  const NameCounts counts(names);
  for (unsigned int c = 0; c < columns; ++c) {
    if (c) out.put('\t');
    const ColumnMapping* m = byLibraryName(names[c]);
    const bool rename = m && names[c] == m->library && renames(*m) &&
                        counts.ale[NameCounts::index(m)] == 0 &&
                        counts.library[NameCounts::index(m)] == 1;
    put(rename ? std::string_view(m->ale) : names[c]);
  }
  out.put(eol);
  out.put(eol);
  out.put("Data");
  out.put(eol);
  const unsigned int n = rows.get_num_records();
  for (unsigned int r = 0; r < n && out.ok(); ++r) {
    bool empty = true;
    for (unsigned int c = 0; c < columns; ++c) {
      if (c) out.put('\t');
      const LightweightString<char> v = rows.getField(r, c);
      empty = empty && v.empty();
      put(v.view());
    }
    // An empty line is no row to a reader; a lone tab is a row of empty
    // values (the extra empty value is dropped on reading).
    if (columns == 1 && empty) out.put('\t');
    out.put(eol);
  }
  return out.finish(err);
}

}  // namespace zyl::interchange
