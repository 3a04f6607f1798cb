// Round-trip properties: whatever a writer writes, its reader gives back
// (names and every value byte for byte), over randomized tables full of the
// bytes that formats find hard; a log file through CSV, TSV and ALE back to
// the same log file; and the file functions.

#include <gtest/gtest.h>
#include <strings.h>
#include <unistd.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/interchange/Interchange.h>
#include <zyldb/platform/TextUtil.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "InterchangeTestUtil.h"

namespace zyl::interchange {
namespace {

using testing::makeTable;
using testing::namesOf;
using testing::Rows;
using testing::rowsOf;
using testing::toAle;
using testing::toCsv;
using testing::toTsv;

// Pieces that values are made of: blanks, quotes, delimiters, line ends,
// backslashes and the letters that follow them in escapes, formula starters
// and multi-byte UTF-8.
// clang-format off
const std::vector<std::string> kPieces = {
    "a", "Z", "0", " ", "  ", "\"", "\"\"", ",", ";", "\t", "\n", "\r", "\r\n", "\\", "n", "t", "r", "=",
    "-", "'", "\xC3\xA9", "\xE2\x80\x94", "\xF0\x9F\x8E\xAC", "\xEF\xBB\xBF", "Heading", "Data", ":",
};
// clang-format on

std::string randomText(std::mt19937& rng, int maxPieces) {
  std::string s;
  const int n = std::uniform_int_distribution<int>(0, maxPieces)(rng);
  for (int i = 0; i < n; ++i) s += kPieces[rng() % kPieces.size()];
  return s;
}

// Column names a table can hold: not empty or blank (ALE needs a name), no
// '&' (the table drops it), no NUL (names are C strings), unique ignoring
// case. Some are the library's
// names that ALE renames.
std::vector<std::string> randomNames(std::mt19937& rng, int columns) {
  const std::vector<std::string> library = {"Name",  "Reel",     "Start time", "End time",
                                            "Notes", "snd reel", "Scene"};
  std::vector<std::string> names;
  while (static_cast<int>(names.size()) < columns) {
    std::string n = rng() % 3 == 0 ? library[rng() % library.size()]
                                   : randomText(rng, 3) + "c" + std::to_string(names.size());
    bool taken = false;
    for (const std::string& o : names) taken = taken || strcasecmp(o.c_str(), n.c_str()) == 0;
    if (!taken) names.push_back(n);
  }
  return names;
}

struct RandomTable {
  std::vector<std::string> names;
  Rows rows;
};

RandomTable randomTable(std::mt19937& rng) {
  RandomTable t;
  const int columns = std::uniform_int_distribution<int>(1, 5)(rng);
  t.names = randomNames(rng, columns);
  const int rows = std::uniform_int_distribution<int>(0, 8)(rng);
  for (int r = 0; r < rows; ++r) {
    t.rows.emplace_back();
    for (int c = 0; c < columns; ++c) t.rows.back().push_back(rng() % 4 ? randomText(rng, 6) : "");
  }
  return t;
}

unsigned int testSeed() {
  const char* s = std::getenv("ZYLDB_SEED");
  return s ? static_cast<unsigned int>(std::strtoul(s, nullptr, 10)) : std::random_device{}();
}

TEST(RoundTrip, RandomTablesThroughEveryFormat) {
  const unsigned int seed = testSeed();
  SCOPED_TRACE("ZYLDB_SEED=" + std::to_string(seed));
  std::mt19937 rng(seed);
  for (int i = 0; i < 400; ++i) {
    const RandomTable model = randomTable(rng);
    auto t = makeTable(model.names, model.rows);
    ASSERT_EQ(namesOf(*t), model.names);
    ASSERT_EQ(rowsOf(*t), model.rows);
    Error err;

    CsvOptions csv;
    csv.delimiter = ",;\t"[i % 3];
    csv.crlf = i % 2;
    csv.bom = i % 5 == 0;
    const std::string csvText = toCsv(*t, csv);
    auto fromCsv = readCsv(csvText, csv, &err);
    ASSERT_TRUE(fromCsv) << err.message << "\n" << csvText;
    EXPECT_EQ(namesOf(*fromCsv), model.names) << csvText;
    EXPECT_EQ(rowsOf(*fromCsv), model.rows) << csvText;

    TsvOptions tsv;
    tsv.crlf = i % 2;
    const std::string tsvText = toTsv(*t, tsv);
    auto fromTsv = readTsv(tsvText, &err);
    ASSERT_TRUE(fromTsv) << err.message << "\n" << tsvText;
    EXPECT_EQ(namesOf(*fromTsv), model.names) << tsvText;
    EXPECT_EQ(rowsOf(*fromTsv), model.rows) << tsvText;

    t->add_param("Shoot day", randomText(rng, 4).c_str());
    AleOptions ale;
    ale.crlf = i % 2;
    const std::string aleText = toAle(*t, ale);
    auto fromAle = readAle(aleText, &err);
    ASSERT_TRUE(fromAle) << err.message << "\n" << aleText;
    EXPECT_EQ(namesOf(*fromAle), model.names) << aleText;
    EXPECT_EQ(rowsOf(*fromAle), model.rows) << aleText;
    EXPECT_STREQ(fromAle->get_param_val("Shoot day"), t->get_param_val("Shoot day"));
  }
}

// Scratch files in a directory of their own, removed afterwards.
class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zyldb_interchange.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  std::string dir_;
};

std::string readBytes(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

TEST_F(FilesTest, LogThroughEachFormatGivesTheSameLog) {
  // A log whose values hold what the log format carries: quotes, commas,
  // tabs inside, line breaks, UTF-8. Its parameters are the ones an ALE
  // heading carries, in the order the ALE writer puts them.
  auto t = makeTable({"Name", "Reel", "Start time", "Notes"},
                     {{"clip, \"one\"", "A001", "01:00:00:00", "two\nlines"},
                      {"caf\xC3\xA9", "", "01:00:10;12", "tab\tinside"},
                      {"x", "B002", "", ""}});
  t->set_fieldtype(2, DBFieldTypes::timecode);
  t->add_param("VIDEO_FORMAT", "1080");
  t->add_param("AUDIO_FORMAT", "48khz");
  t->add_param("FPS", "25");
  const std::string original = path("original.log");
  t->set_filename(fromUTF8(LightweightString<char>(original)));
  ASSERT_EQ(t->save_text(), 3);

  for (Format f : {Format::Csv, Format::Tsv, Format::Ale}) {
    SCOPED_TRACE(formatName(f));
    Error err;
    auto loaded = loadFile(original, Format::Log, {}, &err);
    ASSERT_TRUE(loaded) << err.message;
    const std::string exchanged = path(std::string("x.") + formatName(f));
    ASSERT_TRUE(saveFile(*loaded, exchanged, f, {}, &err)) << err.message;
    auto back = loadFile(exchanged, f, {}, &err);
    ASSERT_TRUE(back) << err.message;
    EXPECT_EQ(rowsOf(*back), rowsOf(*loaded));
    // CSV and TSV carry no parameters; put them back to compare whole files.
    if (f != Format::Ale)
      for (const char* p : {"VIDEO_FORMAT", "AUDIO_FORMAT", "FPS"})
        back->add_param(p, loaded->get_param_val(p));
    const std::string again = path("again.log");
    back->set_filename(fromUTF8(LightweightString<char>(again)));
    ASSERT_EQ(back->save_text(), 3);
    EXPECT_EQ(readBytes(again), readBytes(original));
  }
}

TEST_F(FilesTest, SaveReplacesWholeAndLoadReportsFailures) {
  auto t = makeTable({"Name"}, {{"a"}, {""}});
  Options o;
  o.csv.crlf = true;
  const std::string p = path("out.csv");
  Error err;
  ASSERT_TRUE(saveFile(*t, p, Format::Csv, o, &err)) << err.message;
  EXPECT_EQ(readBytes(p), "Name\r\na\r\n\"\"\r\n");
  ASSERT_TRUE(saveFile(*makeTable({"B"}, {}), p, Format::Tsv, o, &err));
  EXPECT_EQ(readBytes(p), "B\n");
  for (const auto& e : std::filesystem::directory_iterator(dir_))
    EXPECT_EQ(e.path().filename(), "out.csv");  // no temporary file left

  EXPECT_FALSE(loadFile(path("missing.csv"), Format::Csv, {}, &err));
  EXPECT_EQ(err.message, path("missing.csv") + ": No such file or directory");
  EXPECT_FALSE(loadFile(path("missing.log"), Format::Log, {}, &err));
  EXPECT_EQ(err.message, path("missing.log") + ": No such file or directory");
  EXPECT_FALSE(saveFile(*t, path("no/dir/x.csv"), Format::Csv, o, &err));
  EXPECT_EQ(err.message.rfind(path("no/dir/x.csv") + ": ", 0), 0u) << err.message;
  EXPECT_FALSE(saveFile(*t, path("x.json"), Format::Json, o, &err));
  EXPECT_FALSE(loadFile(p, Format::Unknown, o, &err));

  std::ofstream(path("bad.ale")) << "Column\nA\nData\n1\t2\n";
  EXPECT_FALSE(loadFile(path("bad.ale"), Format::Ale, o, &err));
  EXPECT_EQ(err.message,
            path("bad.ale") + ": line 4: 2 values, but the Column section names 1 columns");
  EXPECT_EQ(err.line, 4);
}

}  // namespace
}  // namespace zyl::interchange
