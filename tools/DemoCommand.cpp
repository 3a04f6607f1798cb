// zyldb demo: a host's typical request, step by step, on the example log.
// The code of each step is what a host writes; the tool prints it beside
// what the step did.

#include <unistd.h>
#include <zyldb/db/dbrecord.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>

#include "Common.h"

#ifndef ZYLDB_EXAMPLES_DIR
#define ZYLDB_EXAMPLES_DIR "examples"
#endif
#ifndef ZYLDB_INSTALLED_EXAMPLES_DIR
#define ZYLDB_INSTALLED_EXAMPLES_DIR ZYLDB_EXAMPLES_DIR
#endif

namespace zyl::cli {

namespace {

// Every line a step prints is indented this much, so that its tables fit in
// 80 columns.
constexpr size_t kIndent = 3;
constexpr size_t kTableWidth = 80 - 2 * kIndent;
constexpr unsigned int kRowsShown = 5;

// The example log: in the source tree when the tool runs from its build
// directory, else where it was installed.
std::string defaultExample() {
  std::string built = std::string(ZYLDB_EXAMPLES_DIR) + "/clips.log";
  if (std::filesystem::exists(built)) return built;
  return std::string(ZYLDB_INSTALLED_EXAMPLES_DIR) + "/clips.log";
}

// A temporary file name for the saved view, removed when this goes away.
class TemporaryFile {
 public:
  TemporaryFile() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "zyldb-demo-XXXXXX.log").string();
    int fd = mkstemps(pattern.data(), 4);
    if (fd < 0) throw Failure("cannot make a temporary file in " + pattern);
    close(fd);
    path_ = pattern;
  }
  ~TemporaryFile() {
    std::error_code ec;
    std::filesystem::remove(path_, ec);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void step(int n, const std::string& title) { std::cout << "\n" << n << ". " << title << "\n"; }

void code(const std::string& text) { std::cout << std::string(kIndent, ' ') << text << "\n"; }

void result(const std::string& text) {
  std::cout << std::string(kIndent, ' ') << "-> " << text << "\n";
}

// The cells of `columns` of every view row; a "Tag" column shows the view's
// tag of the row, as it is written when the view is saved.
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

// The first `limit` rows of the view in a few telling columns.
void printRows(ODBViewRep& view, const std::vector<int>& columns, unsigned int limit) {
  Grid grid = gridOf(view, columns);
  size_t total = grid.rows.size();
  if (grid.rows.size() > limit) grid.rows.resize(limit);
  std::string table = renderTable(grid, kTableWidth, nullptr);
  for (size_t start = 0; start < table.size();) {
    size_t end = table.find('\n', start);
    std::cout << std::string(kIndent * 2, ' ') << table.substr(start, end - start) << "\n";
    start = end + 1;
  }
  if (total > limit)
    std::cout << std::string(kIndent * 2, ' ') << "... "
              << plural(static_cast<long>(total - limit), "more row", "more rows") << "\n";
}

int runDemo(const ParsedArgs& args) {
  expectPositional(args, {});
  std::string path = args.has("log") ? args.get("log") : defaultExample();
  std::string shownPath = args.has("log") ? path : "examples/clips.log";
  std::unique_ptr<TemporaryFile> temporary;
  std::string out = args.get("output");
  if (out.empty()) {
    temporary = std::make_unique<TemporaryFile>();
    out = temporary->path();
  }

  std::cout << "zyldb demo: a host's typical request on " << shownPath << "\n";

  step(1, "Open the log");
  code("Qm::Ptr<zyldb> table(new zyldb(fromUTF8(path), INT_MAX, true));");
  OpenLog log = requireLog(path, false);
  zyldb* table = log.table.get();
  result("valid, " + plural(static_cast<long>(table->get_num_records()), "record", "records") +
         " in " + plural(static_cast<long>(table->get_num_fields()), "column", "columns") + ", " +
         plural(static_cast<long>(table->getNumParams()), "parameter", "parameters"));

  int scene = requireColumn(log, "Scene");
  std::vector<int> shown = {requireColumn(log, "Name"), scene, requireColumn(log, "Take"),
                            requireColumn(log, "Start time"), requireColumn(log, "Description")};

  step(2, "Make a view of every row, and a second view that watches the same table");
  code("ODBView view(new ODBViewRep(table.get()));  view->displayAllRecords();");
  ODBView view(new ODBViewRep(table));
  view->displayAllRecords();
  ODBView watcher(new ODBViewRep(table));
  watcher->displayAllRecords();
  result("the view shows " + plural(static_cast<long>(view->get_num_records()), "row", "rows") +
         ", and so does the second view");

  step(3, "Sort the view by scene, shot and take, descending");
  int fields[] = {scene, requireColumn(log, "Shot"), requireColumn(log, "Take"), -1};
  code("int fields[] = {scene, shot, take, -1};");
  code("view->set_sortfields(fields);  view->sort(-1, 0);");
  view->set_sortfields(fields);
  view->sort(-1, 0);
  result("the view's first rows:");
  printRows(*view.rep(), shown, kRowsShown);
  table->set_sortfield(0);  // `fields` is about to go away

  step(4, "Tag the rows whose Scene contains \"27\" (the scene was cut)");
  code("std::unique_ptr<dbrecord> query(view->make_dummy_record());");
  code("query->set_field(scene, \"27\");  view->set_query(query.get());");
  code("view->tag_matching_records(0);");
  std::unique_ptr<dbrecord> query(view->make_dummy_record());
  query->set_field(scene, "27");
  view->set_query(query.get());
  int tagged = view->tag_matching_records(0);
  result(plural(tagged, "row", "rows") + " tagged in the view:");
  {
    ODBView taggedRows(view->newTagSubview());
    printRows(*taggedRows.rep(), shown, kRowsShown + 5);
  }

  step(5, "Delete the tagged rows through the view");
  code("view->deleteTagged();");
  int deleted = view->deleteTagged();
  result(plural(deleted, "record", "records") + " deleted; the table has " +
         std::to_string(table->get_num_records()) + ", the view " +
         std::to_string(view->get_num_records()) + " rows, the second view " +
         std::to_string(watcher->get_num_records()));
  code("   (the table's \"recordsDeleted\" message reached both views)");

  step(6, "Save the view");
  code("view->saveAsText(fromUTF8(out), false);");
  int written = view->saveAsText(widePath(out), false);
  if (written <= 0 && view->get_num_records() > 0)
    throw Failure(out + ": cannot be written: " + OS()->fileService().lastError());
  Qm::Ptr<zyldb> reloaded(new zyldb(widePath(out), INT_MAX, true));
  result(plural(written, "record", "records") + " written to " +
         (temporary ? std::string("a temporary file") : out));
  code("   read back: " +
       plural(static_cast<long>(reloaded->get_num_records()), "record", "records") +
       ", the first " + reloaded->getField(0, static_cast<unsigned int>(shown[0])).toStdString());
  if (!temporary) code("   (see it with: zyldb show " + out + ")");
  return 0;
}

}  // namespace

Command demoCommand() {
  return {{"demo",
           "[--log LOG] [-o OUT]",
           "run a host's typical request on the example log",
           "Runs a host's typical request on the example log and prints each step: open the "
           "log, make a view, sort it, tag the rows matching a query, delete them through the "
           "view, save the view. The log itself is not changed.",
           {{"log", 0, "LOG",
             "use LOG instead of the example (it needs the columns Name, "
             "Scene, Shot, Take, Start time and Description)"},
            {"output", 'o', "OUT",
             "save the view to OUT (default: a temporary file, removed "
             "afterwards)"}},
           ""},
          runDemo};
}

}  // namespace zyl::cli
