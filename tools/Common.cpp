#include "Common.h"

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/TextUtil.h>

#include <cctype>
#include <cstdlib>
#include <iostream>
#include <memory>

namespace zyl::cli {

namespace {

std::string trimBlanks(const std::string& s) {
  size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

// Appends `text` to `file` one line per line feed; a final line feed ends
// the last line rather than starting an empty one.
void appendText(TextFile& file, const std::string& text) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    file.appendLine(std::string_view(text).substr(start, end - start));
    start = end + 1;
  }
}

std::string jsonDocument(ODBViewRep& view) {
  std::string out = "{\n  \"parameters\": {";
  bool first = true;
  for (const AssocList::Entry& e : view.params()) {
    out += first ? "\n    " : ",\n    ";
    out += jsonString(e.key.view()) + ": " + jsonString(e.value.view());
    first = false;
  }
  out += first ? "},\n" : "\n  },\n";
  std::vector<int> columns = allColumns(view);
  out += "  \"columns\": [";
  for (size_t i = 0; i < columns.size(); ++i) {
    out += i ? ",\n    " : "\n    ";
    out += "{\"name\": " + jsonString(view.get_fieldname(columns[i])) +
           ", \"type\": " + jsonString(typeKeyword(view.get_field_type(columns[i]))) + "}";
  }
  out += columns.empty() ? "],\n" : "\n  ],\n";
  std::string rows = renderJsonRows(gridOf(view, columns));
  // Indent the rows array to sit inside the document.
  std::string indented;
  for (size_t i = 0; i < rows.size(); ++i) {
    indented += rows[i];
    if (rows[i] == '\n' && i + 1 < rows.size()) indented += "  ";
  }
  while (!indented.empty() && indented.back() == '\n') indented.pop_back();
  return out + "  \"rows\": " + indented + "\n}\n";
}

}  // namespace

void expectPositional(const ParsedArgs& args, const std::vector<std::string>& names) {
  if (args.positional.size() < names.size())
    throw UsageError("missing " + names[args.positional.size()]);
  if (args.positional.size() > names.size())
    throw UsageError("unexpected argument \"" + args.positional[names.size()] + "\"");
}

OpenLog requireLog(const std::string& path, bool forWriting) {
  OpenLog log = openLog(path);
  for (const Problem& p : log.problems) std::cerr << log.describe(p) << "\n";
  if (log.failed()) throw Failure("");
  if (forWriting && log.incomplete)
    throw Failure("not writing a result that would lack what did not load from " + path +
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
  throw UsageError("no column \"" + name + "\" in " + log.path + " (its columns: " + known + ")");
}

std::vector<int> requireColumns(const OpenLog& log, const std::string& commaList) {
  std::vector<int> columns;
  for (const std::string& name : splitList(commaList)) columns.push_back(requireColumn(log, name));
  if (columns.empty()) throw UsageError("no column named in \"" + commaList + "\"");
  return columns;
}

std::vector<unsigned int> matchingRows(const OpenLog& log, const std::vector<std::string>& where) {
  zyldb& table = *log.table;
  std::unique_ptr<dbrecord> query(table.make_dummy_record());
  std::vector<bool> named(table.get_num_fields(), false);
  for (const std::string& item : where) {
    size_t eq = item.find('=');
    if (eq == std::string::npos || trimBlanks(item.substr(0, eq)).empty())
      throw UsageError("--where needs COLUMN=TEXT, not \"" + item + "\"");
    std::string name = trimBlanks(item.substr(0, eq));
    int column = requireColumn(log, name);
    if (named[column])
      throw UsageError("--where names the column \"" + name +
                       "\" twice; a query holds one text per column");
    named[column] = true;
    query->set_field(column, item.c_str() + eq + 1, true);
  }
  table.set_query(query.get());
  std::vector<unsigned int> rows;
  for (unsigned int r = 0; r < table.get_num_records(); ++r)
    if (table.match_record(static_cast<int>(r)) != 0) rows.push_back(r);
  return rows;
}

void sortTable(zyldb& table, const std::vector<int>& columns, bool descending) {
  std::vector<int> fields(columns);
  fields.push_back(-1);
  table.set_sortfields(fields.data());
  table.sort(descending ? -1 : 1, 0);
  // The table keeps the list it was given; point it back at its own one
  // before `fields` goes away.
  table.set_sortfield(0);
}

bool tagColumnSays(const zyldb& table, unsigned int row) {
  int column = table.get_fieldnum(LightweightString<char>("Tag"));
  if (column < 0) return false;
  return std::strtol(table.getField(row, static_cast<unsigned int>(column)).c_str(), nullptr, 10) !=
         0;
}

ODBView newView(zyldb& table) {
  ODBView view(new ODBViewRep(&table));
  // A table read from a comma-separated file has no parameters, and a view
  // takes its parameters from its table; give it the magic one so that it
  // saves as a log.
  if (*view->get_param_val("ZYLDB") == '\0') view->set_param_val("ZYLDB", "Rev 1");
  return view;
}

ODBView viewOfRows(zyldb& table, const std::vector<unsigned int>& rows) {
  ODBView view = newView(table);
  for (size_t i = 0; i < rows.size(); ++i) {
    view->append(static_cast<int>(rows[i]));
    view->set_tag(static_cast<unsigned int>(i), tagColumnSays(table, rows[i]) ? 1 : 0);
  }
  return view;
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

Grid gridOf(ODBViewRep& view, const std::vector<int>& columns) {
  Grid grid;
  int tagColumn = view.get_fieldnum(LightweightString<char>("Tag"));
  for (int c : columns) {
    grid.names.push_back(view.get_fieldname(c));
    DBFieldTypes::eType type = view.get_field_type(c);
    grid.rightAligned.push_back(type == DBFieldTypes::numeric || type == DBFieldTypes::long_ ||
                                type == DBFieldTypes::double_);
  }
  for (unsigned int r = 0; r < view.get_num_records(); ++r) {
    std::vector<std::string> row;
    for (int c : columns) {
      if (c == tagColumn)
        row.push_back(std::to_string(view.get_tag(r) != 0 ? 1 : 0));
      else
        row.push_back(view.getField(r, static_cast<unsigned int>(c)).toStdString());
    }
    grid.rows.push_back(std::move(row));
  }
  return grid;
}

void appendLogLines(ODBViewRep& view, TextFile& out) {
  for (const AssocList::Entry& e : view.params())
    out.appendLine(
        std::string_view("\"" + e.key.toStdString() + ":" + e.value.toStdString() + "\""));
  view.odb()->save_column_header(out, false);
  int tagColumn = view.get_fieldnum(LightweightString<char>("Tag"));
  for (unsigned int r = 0; r < view.get_num_records(); ++r) {
    dbrecord* record = view.get_record(r);
    if (record == nullptr) continue;
    dbrecord copy(*record);
    if (tagColumn >= 0)
      copy.set_field(tagColumn, std::to_string(view.get_tag(r) != 0 ? 1 : 0).c_str(), true);
    copy.write(out);
  }
}

void writeView(const std::string& command, ODBViewRep& view, const std::string& path) {
  TextFile file;
  if (path.empty()) {
    appendLogLines(view, file);
    printLines(file);
    return;
  }
  if (isCsvName(path)) {
    size_t quoted = 0;
    appendText(file, renderCsv(gridOf(view, allColumns(view)), &quoted));
    if (quoted > 0)
      std::cerr << "zyldb " << command << ": "
                << plural(static_cast<long>(quoted), "value holds", "values hold")
                << " a comma, quote or line break and " << (quoted == 1 ? "is" : "are")
                << " quoted; this library's .csv reader does not undo the quoting\n";
  } else if (endsWithIgnoringCase(path, ".json")) {
    appendText(file, jsonDocument(view));
  } else {
    appendLogLines(view, file);
  }
  if (!file.save(widePath(path), TextFile::eLF))
    throw Failure(path + ": cannot be written: " + OS()->fileService().lastError());
}

void printLines(const TextFile& file) {
  for (unsigned int i = 0; i < file.getNumLines(); ++i) std::cout << file[i].view() << '\n';
}

}  // namespace zyl::cli
