// The log format's tables and header-line writers and readers.

#include "db/LogFormat.h"

#include <strings.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/TextFile.h>

#include <cstdio>

namespace zyl::logformat {

namespace {

// Read and written from this one table. "char" is read but the type is
// written as its code 'c', as every unnamed code is.
constexpr TypeKeyword kTypeKeywords[] = {
    {"timecode", DBFieldTypes::timecode, true},
    {"timecode_s", DBFieldTypes::timecode_s, true},
    {"text", DBFieldTypes::text, true},
    {"text_s", DBFieldTypes::text_s, true},
    {"time_of_day", DBFieldTypes::time_of_day, true},
    {"date", DBFieldTypes::date, true},
    {"dos_date", DBFieldTypes::dos_date, true},
    {"char", DBFieldTypes::char_, false},
    {"numeric", DBFieldTypes::numeric, true},
    {"long", DBFieldTypes::long_, true},
    {"double", DBFieldTypes::double_, true},
};

struct MinWidth {
  const char* name;
  int width;
};

// Display widths below which a column of that name is never written; the
// first match (ignoring case) wins.
constexpr MinWidth kMinWidths[] = {
    {"Cookie", 12},
    {"Type", 6},
    {"Flags", 8},
    {"Name", 32},
    {"Date", 12},
    {"Size", 8},
    {"pic qual", 4},
    {"aud qual", 32},
    {"chans", 64},
    {"Start time", 12},
    {"End time", 12},
    {"Duration", 16},
    {"Reel", 10},
    {"Reel Type", 30},
    {"Scene", 24},
    {"Shot", 24},
    {"Who", 24},
    {"Description", 64},
    {"Notes", 100},
    {"snd start", 12},
    {"snd end", 12},
    {"snd reel", 10},
    {"start 24P code", 12},
    {"end 24P code", 12},
    {"24P reel", 10},
    {"film_origin", 3},
    {"pulldown", 3},
    {"sequence", 2},
    {"start keycode", 17},
    {"end keycode", 17},
    {"film duration", 9},
    {"start camcode", 12},
    {"end camcode", 12},
    {"cam reel", 10},
    {"comp reel", 10},
    {"cam_date", 6},
    {"start inkcode", 15},
    {"end inkcode", 15},
    {"lab reel", 10},
    {"Mdrive", 4},
    {"Tag", 1},
};

}  // namespace

const TypeKeyword* typeKeywords(size_t* count) {
  *count = sizeof kTypeKeywords / sizeof kTypeKeywords[0];
  return kTypeKeywords;
}

const char* writtenKeyword(DBFieldTypes::eType t) {
  for (const TypeKeyword& k : kTypeKeywords)
    if (k.type == t) return k.written ? k.keyword : nullptr;
  return nullptr;
}

DBFieldTypes::eType parseType(const char* s) {
  for (const TypeKeyword& k : kTypeKeywords)
    if (strcasecmp(s, k.keyword) == 0) return k.type;
  // Any single character is a type code as it stands, so that unnamed codes
  // survive a save and reload.
  if (s[0] != 0 && s[1] == 0)
    return static_cast<DBFieldTypes::eType>(static_cast<unsigned char>(s[0]));
  return DBFieldTypes::none;
}

int minWidth(const char* name) {
  if (!name) return kDefaultMinWidth;
  for (const MinWidth& m : kMinWidths)
    if (strcasecmp(name, m.name) == 0) return m.width;
  return kDefaultMinWidth;
}

void appendFields(TextFile& f, const std::vector<std::string_view>& fields) {
  size_t most = 0;
  for (std::string_view v : fields) most += maxQuotedSize(v.size()) + 1;
  TextFile::LineBuilder line(f);
  char* const start = line.extend(most);
  char* out = start;
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i) *out++ = ',';
    out = writeQuoted(out, fields[i], i == 0);
  }
  line.shrink(most - static_cast<size_t>(out - start));
  line.finish();
}

namespace {

bool isMagic(std::string_view name) {
  return name.size() == kMagicNameLength && strncasecmp(name.data(), kMagicName, name.size()) == 0;
}

bool startsBlank(std::string_view s) {
  return !s.empty() && (s[0] == ' ' || (s[0] >= '\t' && s[0] <= '\r'));
}

}  // namespace

void appendParamLines(TextFile& f, const std::vector<Param>& params, bool magicFirst) {
  std::string field;
  if (magicFirst && (params.empty() || !isMagic(params[0].name))) {
    char rev[32];
    std::snprintf(rev, sizeof rev, "%s:Rev %d", kMagicName, kCurrentRevision);
    appendFields(f, {rev});
  }
  for (const Param& p : params) {
    field.assign(p.name);
    field += ':';
    field += p.value;
    appendFields(f, {field});
  }
}

const char* paramsProblem(const std::vector<Param>& params) {
  for (size_t i = 0; i < params.size(); ++i) {
    const Param& p = params[i];
    if (p.name.empty() || p.name.find(':') != std::string_view::npos)
      return "a parameter name is empty or holds a colon";
    if (startsBlank(p.name) || startsBlank(p.value))
      return "a parameter name or value begins with white space";
    if (i > 0 && isMagic(p.name)) return "a parameter other than the first is named ZYLDB";
    if (p.name.size() + 1 + p.value.size() > kMaxValueBytes)
      return "a parameter is longer than 4095 bytes";
  }
  return nullptr;
}

void appendColumnHeader(TextFile& f, const zyldb& table, bool namesOnly) {
  const unsigned int n = table.get_num_fields();
  std::vector<std::string_view> fields(n);
  if (!namesOnly) {
    f.appendLine(std::string_view("\"ZYLDB\""));
    std::vector<std::string> widths(n);
    for (unsigned int i = 0; i < n; ++i) {
      const int size = table.get_fieldsize(i);
      const int minimum = minWidth(table.get_fieldname(i));
      widths[i] = std::to_string(size > minimum ? size : minimum);
      fields[i] = widths[i];
    }
    appendFields(f, fields);
    std::vector<char> codes(n);
    for (unsigned int i = 0; i < n; ++i) {
      const DBFieldTypes::eType type = table.get_field_type(i);
      if (const char* keyword = writtenKeyword(type)) {
        fields[i] = keyword;
      } else {
        codes[i] = static_cast<char>(type);
        fields[i] = std::string_view(&codes[i], 1);
      }
    }
    appendFields(f, fields);
  }
  for (unsigned int i = 0; i < n; ++i) fields[i] = table.get_fieldname(i);
  appendFields(f, fields);
}

const char* columnsProblem(const zyldb& table) {
  for (unsigned int i = 0; i < table.get_num_fields(); ++i) {
    if (std::string_view(table.get_fieldname(i)).size() > kMaxValueBytes)
      return "a column name is longer than 4095 bytes";
    const DBFieldTypes::eType type = table.get_field_type(i);
    if (writtenKeyword(type) == nullptr) {
      const char code[2] = {static_cast<char>(type), 0};
      if (type < 0 || type > 0xFF || parseType(code) != type)
        return "a column type has no written form that reads back";
    }
  }
  return nullptr;
}

}  // namespace zyl::logformat
