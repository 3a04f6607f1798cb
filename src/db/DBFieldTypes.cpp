#include <strings.h>
#include <zyldb/db/DBFieldTypes.h>

#include <cstring>
#include <new>
#include <string>

#include "db/LogFormat.h"

DBFieldTypes::eType zyldb_string_to_fieldtype(const char* s) {
  return zyl::logformat::parseType(s);
}

const char* zyldb_fieldtype_to_string(DBFieldTypes::eType t) {
  return zyl::logformat::writtenKeyword(t);
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
