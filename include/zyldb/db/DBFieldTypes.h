#pragma once

// Column types and column descriptors.
//
// Every value is held as text; a column's type only decides how it is named
// in a file's type line, how it sorts and how it is searched. A type is one
// ASCII character code; any other single character is a valid (unnamed) type
// that survives a save and reload unchanged. 0 means no valid type.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

struct DBFieldTypes {
  enum eType : int {
    none = 0,
    timecode = 't',
    timecode_s = 'T',
    text = 'a',
    text_s = 'A',
    time_of_day = 'D',
    date = 'd',
    dos_date = 'M',
    char_ = 'c',
    numeric = 'n',
    long_ = 'l',
    double_ = 'f',
  };
};

// One column for the table constructors. Arrays passed by pointer end at the
// first descriptor whose type is 0.
struct DBFieldDesc {
  LightweightString<char> name;
  DBFieldTypes::eType type = DBFieldTypes::none;
};

// Parses a type keyword ("timecode", "TEXT_S", ...; case-insensitive, whole
// word) or a single character taken as the code itself (case-sensitive).
// Returns 0 for anything else. REQUIRES: s != nullptr.
ZYLDB_EXPORT DBFieldTypes::eType zyldb_string_to_fieldtype(const char* s);

// The keyword the log writer puts in a file's types line for `t`:
// "timecode", "text_s", ... for the ten types that have one. Null for every
// other code (char_ and unnamed codes are written as their one character,
// which zyldb_string_to_fieldtype reads back as the same code; none is never
// written). The text is static. Reading and writing share one table, so
// zyldb_string_to_fieldtype(zyldb_fieldtype_to_string(t)) == t for every
// named t. Constant time.
ZYLDB_EXPORT const char* zyldb_fieldtype_to_string(DBFieldTypes::eType t);

// A copy of `s` without any `ch`; the empty (null) string for an empty `s`.
ZYLDB_EXPORT LightweightString<char> strip_char_from_string(char ch, const char* s);

// A copy of `s` in a block from operator new[] (free it with delete[]); null
// for a null `s` or when memory is exhausted.
ZYLDB_EXPORT char* heap_strdup(const char* s);
