#pragma once

// Text helpers of the platform layer.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <string_view>
#include <vector>

// The default ordering of cell texts: case-insensitive (ASCII), with runs of
// decimal digits compared by value, so "Scene 9" < "scene 10" and "A2" < "a10".
// Equal values with different leading zeros order the shorter run first;
// texts that are otherwise equal order by plain byte comparison last, so the
// result is 0 only for identical texts. A null pointer reads as "".
ZYLDB_EXPORT int strxcmp(const char* a, const char* b);

// True for an empty text and for one made of white space only (isspace on
// bytes below 0x80).
ZYLDB_EXPORT bool isEssentiallyEmpty(const LightweightString<char>& s);
ZYLDB_EXPORT bool isEssentiallyEmpty(const char* s);

// True when `s` ends with `suffix`, ASCII letters compared ignoring case
// (other characters exactly). Linear in the suffix's length.
ZYLDB_EXPORT bool endsWithIgnoringCase(std::string_view s, std::string_view suffix);
ZYLDB_EXPORT bool endsWithIgnoringCase(std::wstring_view s, std::wstring_view suffix);

// ASCII lower-casing; other bytes are kept.
ZYLDB_EXPORT LightweightString<char> toLower(const LightweightString<char>& s);

// UTF-8 <-> wide (UTF-32) conversions; an invalid byte becomes U+FFFD.
ZYLDB_EXPORT LightweightString<wchar_t> fromUTF8(const LightweightString<char>& s);
ZYLDB_EXPORT LightweightString<char> toUTF8(const LightweightString<wchar_t>& s);

// The file name without its directory and its last extension:
// "/bins/M0a1b.bsg" -> "M0a1b"; "name" -> "name"; "dir.x/name" -> "name".
ZYLDB_EXPORT LightweightString<wchar_t> stripPathAndExt(const LightweightString<wchar_t>& path);

// Boolean text form: "true" and "false". BoolFromString accepts, ignoring case
// and surrounding blanks, true/false, yes/no, on/off, t/f, 1/0; it returns
// `fallback` for anything else.
ZYLDB_EXPORT LightweightString<char> BoolAsString(bool b);
ZYLDB_EXPORT bool BoolFromString(const LightweightString<char>& s, bool fallback = false);

ZYLDB_EXPORT LightweightString<char> StringFromInteger(long long n);
// Parses an unsigned decimal number (leading blanks allowed, trailing text
// ignored); `fallback` when there are no digits or the value overflows.
ZYLDB_EXPORT unsigned int UIntFromString(const LightweightString<char>& s, unsigned int fallback);

// True when a file system object exists at `path` (through OS()'s file service).
ZYLDB_EXPORT bool fileExists(const LightweightString<wchar_t>& path);

namespace Qm {

// Widens ASCII (bytes are taken as code points); null gives the empty string.
ZYLDB_EXPORT LightweightString<wchar_t> WStringFromAscii(const char* s);

// Splits `s` at every `sep`. Mode bits: 1 trims blanks around each piece,
// 2 keeps empty pieces (without it they are dropped). "a,,b" with mode 2 gives
// "a", "", "b"; with mode 0 "a", "b". An empty text gives no pieces.
ZYLDB_EXPORT std::vector<LightweightString<char>> splitIf(const LightweightString<char>& s,
                                                          char sep, int mode);

}  // namespace Qm
