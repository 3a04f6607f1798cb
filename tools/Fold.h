#pragma once

// Caseless text for the tool's matching and sorting: Unicode full case
// folding (every script the Unicode case-folding data covers, Latin, Greek
// and Cyrillic among them) and, on request, accent folding, plus the natural
// order people expect of clip names ("2" < "9" < "9A" < "10").
//
// Tables come from tools/UnicodeFold.inc, generated from the Unicode
// Character Database by scripts/gen_unicode_fold.py.

#include <string>
#include <string_view>

namespace zyl::cli {

// `text` (UTF-8) case-folded: "ZOË" and "zoë" give the same text, "STRASSE"
// and "straße" too. With `foldAccents`, letters with diacritics become their
// base letter and combining marks are dropped ("Émile" gives "emile").
// Invalid UTF-8 bytes are kept as they are. Costs O(text.size()), one
// binary search per non-ASCII character.
std::string foldText(std::string_view text, bool foldAccents);

// Three-way natural comparison of two texts: runs of ASCII digits compare
// by their value (leading zeros ignored; on equal value the shorter run
// first), everything else byte by byte, which for UTF-8 is code point
// order. Negative, zero or positive as a is before, equal to or after b.
int naturalCompare(std::string_view a, std::string_view b);

// The key the tool sorts text on: texts whose keys are equal sort as equal.
// Caseless; letters with diacritics sort next to their base letter
// ("Émile" before "Zoë"), and, unless `foldAccents`, after it when the rest
// is equal ("Emile" before "Émile"). Compare keys with naturalCompare.
std::string sortKey(std::string_view text, bool foldAccents);

}  // namespace zyl::cli
