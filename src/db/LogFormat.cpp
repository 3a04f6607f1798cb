// The log format's tables and header-line writers and readers.

#include "db/LogFormat.h"

#include <strings.h>

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

}  // namespace zyl::logformat
