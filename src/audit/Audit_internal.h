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
// A timecode label's parts.
struct LabelParts {
  int h = 0, m = 0, s = 0, f = 0;
  bool drop = false;
};
// Reads a timecode label as the platform's time_def does; false when it is
// not one. The fast form takes "HH:MM:SS:FF" directly.
bool parseLabelSlow(const LightweightString<char>& text, LabelParts* out);
bool parseLabel(const LightweightString<char>& text, LabelParts* out);

// Whether a first-column value makes the loader take its line for a header.
bool isHeaderWord(std::string_view firstValue);

}  // namespace zyl::audit::detail
