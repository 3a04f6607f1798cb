// A host application in miniature: what a program linking zyldb typically
// does with a log and a bin.
//
//   host_example [LOG [OUT [BIN]]]
//
//   LOG  the log to open (default examples/clips.log; when it does not exist a
//        small log is built in memory instead)
//   OUT  where the log is saved with the user's column arrangement
//        (default host_example_out.log)
//   BIN  the bin (container file) to write (default: a file named after a
//        new bin cookie, ending in .bsg, next to OUT)
//
// The example never changes LOG. It prints what it does and exits with 1 when
// something does not read back as written.

#include <zyldb/all.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

namespace {

LightweightString<wchar_t> widen(const std::string& s) {
  return fromUTF8(LightweightString<char>(s.c_str()));
}

bool fail(const char* what) {
  std::fprintf(stderr, "host_example: %s\n", what);
  return false;
}

// A few clips, for when no log file is at hand.
void fillSmallLog(zyldb& table) {
  const char* rows[][5] = {
      {"12-1A", "001", "12", "A", "Wide master"},
      {"12-1B", "001", "12", "B", "Wide master, second pass"},
      {"14-2A", "002", "14", "A", "Tom on the steps"},
  };
  for (const auto& r : rows) {
    unsigned int row = static_cast<unsigned int>(table.add_records(1));
    table.set_field(row, Cookie::make('C'));
    for (unsigned int c = 0; c < 5; ++c) table.set_field(row, c == 0 ? 0 : c + 1, r[c]);
  }
}

void printMap(const char* title, const FieldMap& map) {
  std::printf("%s: \"%s\"\n  visible:", title, map.asString().c_str());
  for (int i = 0; i < map.size(); ++i)
    if (map.isVisible(i)) std::printf(" [%s]", map.getName(i).c_str());
  std::printf("\n");
}

// Opens the log, arranges its columns and saves it with the arrangement.
bool arrangeColumns(zyldb& table, const std::string& out) {
  std::string before;
  {
    FieldMap map(table);  // destroyed before the table, as views must be
    printMap("field map as stored", map);

    // Hide the notes, put Scene first and Take second.
    map.setVisible(map.getFieldIdx("notes"), false);
    int scene = map.getFieldIdx("Scene");
    if (scene > 0) map.swap(0, scene);
    int take = map.getFieldIdx("Take");
    if (take > 1) map.swap(1, take);
    printMap("field map arranged", map);

    before = map.asString().toStdString();
    table.add_param(FieldMap::kFieldMapParam, before.c_str());
  }
  table.set_filename(widen(out));
  int rows = table.save_text();
  std::printf("saved %d rows to %s\n", rows, out.c_str());

  zyldb reloaded(widen(out), INT_MAX, false);
  if (!reloaded.get_valid()) return fail("the saved log does not load");
  FieldMap again(reloaded);
  if (again.asString().toStdString() != before) return fail("the arrangement did not survive");
  std::printf("reloaded: %u rows, arrangement kept\n", reloaded.get_num_records());
  return true;
}

// Writes a bin of the log's first clips, replaces it with a bigger one and
// reads it back.
bool writeBin(zyldb& table, const std::string& bin) {
  DBFieldDesc descs[] = {{"Cookie", DBFieldTypes::text_s}, {"Rating", DBFieldTypes::long_}, {}};
  int cookieCol = table.get_fieldnum("Cookie");
  std::vector<Cookie> clips;
  for (unsigned int r = 0; r < table.get_num_records() && clips.size() < 6; ++r) {
    Cookie c(table.getField(r, static_cast<unsigned int>(cookieCol)), true);
    if (c.isValid()) clips.push_back(c);
  }
  if (clips.size() < 2) return fail("the log has too few clips with a cookie");

  for (size_t count : {size_t{2}, clips.size()}) {
    QMContainerFile::Writer w(descs);
    for (size_t i = 0; i < count; ++i)
      w.addItem(clips[i])->set_field(1, static_cast<int>(5 - i % 5));
    w.setName(count == 2 ? "Selects (draft)" : "Selects");
    w.setPermanent(count != 2);
    w.save(widen(bin));
    std::printf("wrote bin %s with %zu items\n", bin.c_str(), count);
  }
  if (fileExists(widen(bin + ".tmp"))) return fail("a temporary file was left behind");

  QMContainerFile::Reader r(widen(bin), false);
  if (!r.valid()) return fail("the bin does not read back");
  std::printf("bin \"%s\", %s, type '%c', %u items:\n", r.getName().c_str(),
              r.isPermanent() ? "permanent" : "not permanent",
              QMContainerFile::getCookieFromFilename(widen(bin)).getType(), r.getNumItems());
  int rating = r.getItemAttribIndex("Rating");
  for (unsigned int i = 0; i < r.getNumItems(); ++i) {
    QMContainerFile::Reader::Item item = r.getItem(i);
    std::printf("  %s rating %d\n", item.getCookie().asString().c_str(), item.getAttrib(rating, 0));
  }
  if (r.getNumItems() != clips.size() || !r.isPermanent()) return fail("the bin was not replaced");
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string log = argc > 1 ? argv[1] : "examples/clips.log";
  std::string out = argc > 2 ? argv[2] : "host_example_out.log";
  std::string bin;
  if (argc > 3) {
    bin = argv[3];
  } else {
    size_t slash = out.find_last_of('/');
    std::string dir = slash == std::string::npos ? "" : out.substr(0, slash + 1);
    bin = dir + Cookie::make('M').asString().c_str() + ".bsg";
  }
  std::printf("zyldb %s\n", zyldbDllVersionStr());

  bool ok;
  if (fileExists(widen(log))) {
    zyldb table(widen(log), INT_MAX, false);
    if (!table.get_valid()) {
      std::fprintf(stderr, "host_example: %s is not a log\n", log.c_str());
      return 1;
    }
    std::printf("opened %s: %u rows, %u columns\n", log.c_str(), table.get_num_records(),
                table.get_num_fields());
    ok = arrangeColumns(table, out) && writeBin(table, bin);
  } else {
    DBFieldDesc descs[] = {{"Name", DBFieldTypes::text},
                           {"Cookie", DBFieldTypes::text_s},
                           {"Reel", DBFieldTypes::text},
                           {"Scene", DBFieldTypes::text},
                           {"Take", DBFieldTypes::text},
                           {"Notes", DBFieldTypes::text},
                           {}};
    zyldb table(descs);
    fillSmallLog(table);
    std::printf("%s not found; built a log of %u rows\n", log.c_str(), table.get_num_records());
    ok = arrangeColumns(table, out) && writeBin(table, bin);
  }
  return ok ? 0 : 1;
}
