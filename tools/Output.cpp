#include "Output.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>

namespace zyl::cli {

namespace {

constexpr size_t kGap = 2;  // blanks between table columns
// A column that has to shrink keeps at least this many columns: enough for
// a timecode or a scene label, so that only long texts get cut.
constexpr size_t kMinColumnWidth = 12;
constexpr char32_t kReplacement = 0xFFFD;

}  // namespace

char32_t decodeUtf8(std::string_view s, size_t& pos) {
  unsigned char b0 = static_cast<unsigned char>(s[pos]);
  if (b0 < 0x80) {
    ++pos;
    return b0;
  }
  int extra;
  char32_t cp, minimum;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    extra = 1, cp = b0 & 0x1F, minimum = 0x80;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    extra = 2, cp = b0 & 0x0F, minimum = 0x800;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    extra = 3, cp = b0 & 0x07, minimum = 0x10000;
  } else {
    ++pos;
    return kReplacement;
  }
  if (pos + extra >= s.size()) {
    ++pos;
    return kReplacement;
  }
  for (int i = 1; i <= extra; ++i) {
    unsigned char b = static_cast<unsigned char>(s[pos + i]);
    if ((b & 0xC0) != 0x80) {
      ++pos;
      return kReplacement;
    }
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
    ++pos;
    return kReplacement;
  }
  pos += extra + 1;
  return cp;
}

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

namespace {

// The terminal width of one character, as the C library's wcwidth gives it
// under a UTF-8 locale (main sets one): 2 for wide East Asian characters and
// emoji, 0 for combining marks and format characters such as the byte-order
// mark. A character wcwidth does not know (-1) takes one column.
size_t charWidth(char32_t cp) {
  int w = ::wcwidth(static_cast<wchar_t>(cp));
  return w < 0 ? 1 : static_cast<size_t>(w);
}

std::string padRight(const std::string& text, size_t width) {
  size_t w = displayWidth(text);
  return w >= width ? text : text + std::string(width - w, ' ');
}

std::string padLeft(const std::string& text, size_t width) {
  size_t w = displayWidth(text);
  return w >= width ? text : std::string(width - w, ' ') + text;
}

void rtrimBlanks(std::string& line) {
  while (!line.empty() && line.back() == ' ') line.pop_back();
}

}  // namespace

namespace {

// Printable ASCII (blank to tilde) shows as it is, one column a byte.
bool plainAscii(std::string_view text) {
  for (char c : text)
    if (c < 0x20 || c > 0x7E) return false;
  return true;
}

}  // namespace

size_t displayWidth(std::string_view text) {
  if (plainAscii(text)) return text.size();
  size_t width = 0;
  for (size_t pos = 0; pos < text.size();) width += charWidth(decodeUtf8(text, pos));
  return width;
}

std::string displayText(std::string_view text) {
  if (plainAscii(text)) return std::string(text);
  std::string out;
  out.reserve(text.size());
  for (size_t pos = 0; pos < text.size();) {
    char32_t cp = decodeUtf8(text, pos);
    if (cp == '\n') {
      appendUtf8(out, 0x21B5);  // ↵
    } else if (cp == '\t') {
      out += ' ';
    } else if (cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp <= 0x9F)) {
      appendUtf8(out, kReplacement);
    } else {
      appendUtf8(out, cp);
    }
  }
  return out;
}

std::string cutToWidth(std::string_view text, size_t width) {
  if (displayWidth(text) <= width) return std::string(text);
  if (width == 0) return std::string();
  std::string out;
  size_t used = 0;
  for (size_t pos = 0; pos < text.size();) {
    size_t start = pos;
    size_t w = charWidth(decodeUtf8(text, pos));
    if (used + w > width - 1) break;
    out.append(text.substr(start, pos - start));
    used += w;
  }
  out += "\u2026";  // …
  return out;
}

std::vector<size_t> fitWidths(const std::vector<size_t>& naturalWidths, size_t lineWidth) {
  size_t n = naturalWidths.size();
  std::vector<size_t> natural(naturalWidths);
  for (size_t& w : natural) w = std::max<size_t>(w, 1);
  std::vector<size_t> widths;
  size_t total = 0;
  for (size_t c = 0; c < n; ++c) total += natural[c] + (c ? kGap : 0);
  if (lineWidth == 0 || total <= lineWidth) return natural;
  // Keep columns from the left while their minimum widths fit.
  size_t used = 0;
  for (size_t c = 0; c < n; ++c) {
    size_t minimum = std::min(natural[c], kMinColumnWidth);
    size_t need = minimum + (c ? kGap : 0);
    if (used + need > lineWidth) {
      if (c == 0) {
        widths.push_back(std::max<size_t>(lineWidth, 1));
        used = lineWidth;
      }
      break;
    }
    widths.push_back(minimum);
    used += need;
  }
  // Share out the room left, one column at a time to the narrowest column
  // that is still short of its natural width.
  size_t spare = lineWidth > used ? lineWidth - used : 0;
  while (spare > 0) {
    size_t best = SIZE_MAX;
    for (size_t c = 0; c < widths.size(); ++c) {
      if (widths[c] >= natural[c]) continue;
      if (best == SIZE_MAX || widths[c] < widths[best]) best = c;
    }
    if (best == SIZE_MAX) break;
    ++widths[best];
    --spare;
  }
  return widths;
}

TableLayout layoutTable(const Grid& grid, size_t lineWidth) {
  std::vector<size_t> natural(grid.names.size());
  for (size_t c = 0; c < natural.size(); ++c) {
    size_t w = displayWidth(displayText(grid.names[c]));
    for (const auto& row : grid.rows)
      if (c < row.size()) w = std::max(w, displayWidth(displayText(row[c])));
    natural[c] = w;
  }
  return TableLayout{fitWidths(natural, lineWidth)};
}

std::string renderRow(const std::vector<std::string>& cells, const std::vector<size_t>& widths,
                      const std::vector<bool>& rightAligned, bool header) {
  std::string line;
  for (size_t c = 0; c < widths.size(); ++c) {
    if (c) line += std::string(kGap, ' ');
    std::string text = cutToWidth(displayText(c < cells.size() ? cells[c] : ""), widths[c]);
    bool right = !header && c < rightAligned.size() && rightAligned[c];
    line += right ? padLeft(text, widths[c]) : padRight(text, widths[c]);
  }
  rtrimBlanks(line);
  return line + "\n";
}

std::string ruleLine(const std::vector<size_t>& widths) {
  std::string rule;
  for (size_t c = 0; c < widths.size(); ++c) {
    if (c) rule += std::string(kGap, ' ');
    rule += std::string(widths[c], '-');
  }
  return rule + "\n";
}

std::string renderTable(const Grid& grid, size_t lineWidth, std::vector<std::string>* dropped) {
  TableLayout layout = layoutTable(grid, lineWidth);
  if (dropped != nullptr)
    for (size_t c = layout.widths.size(); c < grid.names.size(); ++c)
      dropped->push_back(grid.names[c]);
  std::string out = renderRow(grid.names, layout.widths, grid.rightAligned, true);
  out += ruleLine(layout.widths);
  for (const auto& row : grid.rows) out += renderRow(row, layout.widths, grid.rightAligned, false);
  return out;
}

std::string renderCsv(const Grid& grid, size_t* quoted) {
  size_t count = 0;
  auto field = [&count](const std::string& v) {
    if (v.find_first_of(",\"\r\n") == std::string::npos) return v;
    ++count;
    std::string out = "\"";
    for (char ch : v) {
      if (ch == '"') out += '"';
      out += ch;
    }
    return out + "\"";
  };
  auto line = [&](const std::vector<std::string>& cells) {
    std::string out;
    for (size_t c = 0; c < grid.names.size(); ++c) {
      if (c) out += ',';
      out += field(c < cells.size() ? cells[c] : "");
    }
    return out + "\n";
  };
  std::string out = line(grid.names);
  for (const auto& row : grid.rows) out += line(row);
  if (quoted != nullptr) *quoted = count;
  return out;
}

std::string jsonString(std::string_view text) {
  if (plainAscii(text) && text.find_first_of("\"\\") == std::string_view::npos)
    return "\"" + std::string(text) + "\"";
  std::string out = "\"";
  for (size_t pos = 0; pos < text.size();) {
    char32_t cp = decodeUtf8(text, pos);
    switch (cp) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      default:
        if (cp < 0x20) {
          static const char kHex[] = "0123456789abcdef";
          out += "\\u00";
          out += kHex[cp >> 4];
          out += kHex[cp & 0xF];
        } else {
          appendUtf8(out, cp);
        }
    }
  }
  return out + "\"";
}

std::string renderJsonRows(const Grid& grid) {
  if (grid.rows.empty()) return "[]\n";
  std::string out = "[\n";
  for (size_t r = 0; r < grid.rows.size(); ++r) {
    out += "  {";
    for (size_t c = 0; c < grid.names.size(); ++c) {
      if (c) out += ", ";
      out += jsonString(grid.names[c]) + ": " +
             jsonString(c < grid.rows[r].size() ? grid.rows[r][c] : "");
    }
    out += r + 1 < grid.rows.size() ? "},\n" : "}\n";
  }
  return out + "]\n";
}

std::string plural(long n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace zyl::cli
