#include "Common.h"

#include <zyldb/db/dbrecord.h>

#include <cctype>
#include <cstdlib>
#include <iostream>
#include <memory>

namespace zyl::cli {

void expectPositional(const ParsedArgs& args, const std::vector<std::string>& names) {
  if (args.positional.size() < names.size())
    throw UsageError("missing " + names[args.positional.size()]);
  if (args.positional.size() > names.size())
    throw UsageError("unexpected argument \"" + args.positional[names.size()] + "\"");
}

OpenLog requireLog(const std::string& path, bool forWriting, const OpenOptions& options) {
  OpenLog log = openLog(path, options);
  for (const Problem& p : log.problems) std::cerr << log.describe(p) << "\n";
  if (log.failed()) throw Failure("");
  if (forWriting && log.incomplete)
    throw Failure("not writing a result that would lack what did not load from " + log.shownName() +
                  " (see 'zyldb check " + path + "')");
  return log;
}

int requireColumn(const OpenLog& log, const std::string& name) {
  zyldb& table = *log.table;
  int column = name.empty() ? -1 : table.get_fieldnum(LightweightString<char>(name));
  if (column >= 0) return column;
  std::string known;
  for (unsigned int c = 0; c < table.get_num_fields(); ++c)
    known += std::string(c ? ", " : "") + table.get_fieldname(c);
  throw UsageError("no column \"" + name + "\" in " + log.shownName() + " (its columns: " + known +
                   ")");
}

std::vector<int> requireColumns(const OpenLog& log, const std::string& commaList) {
  std::vector<int> columns;
  for (const std::string& name : splitList(commaList)) columns.push_back(requireColumn(log, name));
  if (columns.empty()) throw UsageError("no column named in \"" + commaList + "\"");
  return columns;
}

bool tagColumnSays(const zyldb& table, unsigned int row) {
  int column = table.get_fieldnum(LightweightString<char>("Tag"));
  if (column < 0) return false;
  return std::strtol(table.getField(row, static_cast<unsigned int>(column)).c_str(), nullptr, 10) !=
         0;
}

std::vector<unsigned int> allRows(const zyldb& table) {
  std::vector<unsigned int> rows(table.get_num_records());
  for (unsigned int r = 0; r < rows.size(); ++r) rows[r] = r;
  return rows;
}

std::string typeKeyword(DBFieldTypes::eType type) {
  // The library's written keyword, else the one-character code it writes.
  if (const char* keyword = zyldb_fieldtype_to_string(type)) return keyword;
  if (type == DBFieldTypes::none) return "none";
  return std::string(1, static_cast<char>(type));
}

std::vector<int> allColumns(const ODBBase& source) {
  std::vector<int> columns(source.get_num_fields());
  for (size_t c = 0; c < columns.size(); ++c) columns[c] = static_cast<int>(c);
  return columns;
}

void emitRows(const RowSource& source, const std::string& out, const std::string& formatOption) {
  Format format = outputFormat(out, formatOption);
  Sink sink(out);
  writeRows(format, source, sink);
  sink.commit();
}

}  // namespace zyl::cli
