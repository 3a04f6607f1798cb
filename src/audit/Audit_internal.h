#pragma once

// Back doors of the audit for its tests: the rule for values a save keeps,
// in its fast and its plain form.

#include <zyldb/platform/LightweightString.h>

#include <string_view>

namespace zyl::audit::detail {

// Whether the record line writer and reader give `value` back unchanged:
// checked by writing it and reading it back (dbrecord::write/read).
bool survivesSaveSlow(const LightweightString<char>& value);
// The same answer, reaching the round trip only for values holding a byte
// the writer or reader treats specially (blanks at an end, control
// characters, a backslash or a quote) or long enough to be split.
bool survivesSave(const LightweightString<char>& value);
// Whether a first-column value makes the loader take its line for a header.
bool isHeaderWord(std::string_view firstValue);

}  // namespace zyl::audit::detail
