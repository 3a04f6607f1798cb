#include <strings.h>
#include <zyldb/db/DBFieldTypes.h>

#include <cstring>
#include <new>
#include <string>

namespace {

struct TypeKeyword {
  const char* keyword;
  DBFieldTypes::eType type;
};

// In the order the parser tests them.
constexpr TypeKeyword kTypeKeywords[] = {
    {"timecode", DBFieldTypes::timecode},
    {"timecode_s", DBFieldTypes::timecode_s},
    {"text", DBFieldTypes::text},
    {"text_s", DBFieldTypes::text_s},
    {"time_of_day", DBFieldTypes::time_of_day},
    {"date", DBFieldTypes::date},
    {"dos_date", DBFieldTypes::dos_date},
    {"char", DBFieldTypes::char_},
    {"numeric", DBFieldTypes::numeric},
    {"long", DBFieldTypes::long_},
    {"double", DBFieldTypes::double_},
};

}  // namespace

DBFieldTypes::eType zyldb_string_to_fieldtype(const char* s) {
  for (const TypeKeyword& k : kTypeKeywords)
    if (strcasecmp(s, k.keyword) == 0) return k.type;
  // Any single character is a type code as it stands, so that unnamed codes
  // survive a save and reload.
  if (s[0] != 0 && s[1] == 0)
    return static_cast<DBFieldTypes::eType>(static_cast<unsigned char>(s[0]));
  return DBFieldTypes::none;
}

LightweightString<char> strip_char_from_string(char ch, const char* s) {
  if (!s || !*s) return LightweightString<char>();
  std::string out;
  out.reserve(std::strlen(s));
  for (; *s; ++s)
    if (*s != ch) out += *s;
  return LightweightString<char>(out);
}

char* heap_strdup(const char* s) {
  if (!s) return nullptr;
  size_t n = std::strlen(s) + 1;
  char* p;
  try {
    p = new char[n];
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  std::memcpy(p, s, n);
  return p;
}
