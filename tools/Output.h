#pragma once

// Rendering of a selection of a log for people and programs: an aligned
// table fitted to a terminal's width, comma-separated text and JSON.
//
// Cell texts are bytes as the log holds them, normally UTF-8. The table and
// JSON renderers read them as UTF-8 and show any invalid byte as U+FFFD; the
// CSV renderer passes bytes through unchanged.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zyl::cli {

// The cells to render: one name per column and one row of texts per record,
// each row as long as `names`.
struct Grid {
  std::vector<std::string> names;
  std::vector<bool> rightAligned;  // per column; numbers read better right-aligned
  std::vector<std::vector<std::string>> rows;
};

// Decodes the UTF-8 character at `pos` and advances past it. An invalid,
// overlong, surrogate or truncated sequence yields U+FFFD and advances one
// byte. REQUIRES: pos < text.size().
char32_t decodeUtf8(std::string_view text, size_t& pos);
// Appends the UTF-8 form of code point `cp` (at most four bytes).
void appendUtf8(std::string& out, char32_t cp);

// The width of a text on a terminal, after displayText, from the C
// library's wcwidth (main sets a UTF-8 LC_CTYPE): two for wide East Asian
// characters and emoji, none for combining marks and the byte-order mark.
size_t displayWidth(std::string_view text);

// The text as it should appear in one table cell: line feeds become "↵",
// tabs blanks, other control characters and invalid UTF-8 bytes U+FFFD.
std::string displayText(std::string_view text);

// `text` (already passed through displayText) cut to at most `width`
// terminal columns; a cut text ends in "…".
std::string cutToWidth(std::string_view text, size_t width);

// Column widths chosen for a table: the first `widths.size()` columns of the
// grid are shown with these widths; the rest do not fit.
struct TableLayout {
  std::vector<size_t> widths;
};

// Chooses widths so that the table's lines fit in `lineWidth` columns (0 for
// no limit). Every column gets the width of its longest cell or name when
// that fits; otherwise columns keep a minimum width, columns that do not fit
// even so are left out from the right, and the room left is shared out so
// that narrow columns are shown whole before wide ones grow. At least one
// column is always kept.
TableLayout layoutTable(const Grid& grid, size_t lineWidth);
// The same choice from each column's natural width (its widest cell or
// name); the result has one width per column kept.
std::vector<size_t> fitWidths(const std::vector<size_t>& natural, size_t lineWidth);

// One line of a table: `cells` cut and padded to `widths` (numbers right-
// aligned unless `header`), two blanks apart, no trailing blanks.
std::string renderRow(const std::vector<std::string>& cells, const std::vector<size_t>& widths,
                      const std::vector<bool>& rightAligned, bool header);
// The line of dashes under a table's names.
std::string ruleLine(const std::vector<size_t>& widths);

// The aligned table: a line of names, a line of dashes and one line per row,
// columns two blanks apart, no trailing blanks. Names of the columns left
// out are appended to `dropped` when it is not null.
std::string renderTable(const Grid& grid, size_t lineWidth, std::vector<std::string>* dropped);

// A names line and one line per row, values quoted only when they hold a
// comma, a double quote or a line break (quotes doubled). `quoted`, when not
// null, receives the number of values that needed quoting.
std::string renderCsv(const Grid& grid, size_t* quoted);

// The text in double quotes with JSON escapes; invalid UTF-8 becomes U+FFFD.
std::string jsonString(std::string_view text);

// An array with one object per row, members named after the columns in
// column order, values as strings.
std::string renderJsonRows(const Grid& grid);

// "1 row", "2 rows": the number and the word that fits it.
std::string plural(long n, const char* one, const char* many);

}  // namespace zyl::cli
