// TSV reading and writing: one line per row, tab-separated, with backslash
// escapes for the bytes that would break the line structure.

#include <zyldb/db/ODBBase.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/interchange/Interchange.h>

#include <string>
#include <vector>

#include "interchange/Interchange_internal.h"

namespace zyl::interchange {

using detail::fail;

std::unique_ptr<zyldb> readTsv(std::string_view text, Error* err) {
  text.remove_prefix(detail::bomLength(text));
  // A lone CR is data here (the writer escapes every CR), so only LF and
  // CRLF end lines.
  detail::LineReader lines(text, false);
  detail::TableBuilder builder;
  std::vector<LightweightString<char>> fields;
  std::string_view line;
  if (!lines.next(&line)) return builder.build();
  detail::splitTabs(line, true, &fields);
  if (fields.size() > detail::kMaxColumns) {
    fail(err, 1, 0, "more than 65535 columns");
    return nullptr;
  }
  for (const LightweightString<char>& name : fields)
    builder.addColumn(name.view(), detail::typeFromName(name.view()));
  while (lines.next(&line)) {
    detail::splitTabs(line, true, &fields);
    size_t n = fields.size();
    while (n > builder.columns() && fields[n - 1].empty()) --n;
    if (n > builder.columns()) {
      fail(err, lines.lineNumber(), 0,
           std::to_string(n) + " values, but the header names " +
               std::to_string(builder.columns()) + " columns");
      return nullptr;
    }
    builder.beginRow();
    for (size_t i = 0; i < n; ++i) builder.addValue(std::move(fields[i]));
  }
  return builder.build();
}

bool writeTsv(const ODBBase& rows, const TsvOptions& options, const Sink& sink, Error* err) {
  const unsigned int columns = rows.get_num_fields();
  if (columns == 0) return true;
  detail::Output out(sink);
  const std::string_view eol = options.crlf ? "\r\n" : "\n";
  // The reader drops one leading byte-order mark; a first name that begins
  // with one gets another in front, so that it keeps its own.
  if (detail::bomLength(rows.get_fieldname(0))) out.put("\xEF\xBB\xBF");
  for (unsigned int c = 0; c < columns; ++c) {
    if (c) out.put('\t');
    detail::encodeEscapes(rows.get_fieldname(c), out);
  }
  out.put(eol);
  const unsigned int n = rows.get_num_records();
  for (unsigned int r = 0; r < n && out.ok(); ++r) {
    for (unsigned int c = 0; c < columns; ++c) {
      if (c) out.put('\t');
      detail::encodeEscapes(rows.getField(r, c).view(), out);
    }
    out.put(eol);
  }
  return out.finish(err);
}

}  // namespace zyl::interchange
