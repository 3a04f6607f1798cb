// Tests of the tool's reading, matching, sorting and writing, below its
// command line: folding against its plain rule, sorting's reverse, the
// library's search against the tool's caseless "contains", one read per
// input, and every writer read back.

#include <gtest/gtest.h>
#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/db/dbrecord.h>

#include <clocale>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "Common.h"
#include "Fold.h"
#include "Progress.h"
#include "Query.h"
#include "Writers.h"

namespace zyl::cli {
namespace {

const bool kUtf8 = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;

// A scratch directory removed at the end of the test.
class Scratch {
 public:
  Scratch() {
    path_ = std::filesystem::temp_directory_path() /
            ("zyldb-tool-" + std::to_string(::getpid()) + "-" + std::to_string(counter_++));
    std::filesystem::create_directories(path_);
  }
  ~Scratch() { std::filesystem::remove_all(path_); }
  std::string file(const std::string& name, const std::string& content = {}) const {
    std::string p = (path_ / name).string();
    if (!content.empty()) std::ofstream(p, std::ios::binary) << content;
    return p;
  }

 private:
  static inline int counter_ = 0;
  std::filesystem::path path_;
};

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A log with the given columns (all text) and rows, in the library's format.
std::string logText(const std::vector<std::string>& names,
                    const std::vector<std::vector<std::string>>& rows) {
  std::vector<DBFieldDesc> descs;
  for (const std::string& n : names) descs.push_back({n, DBFieldTypes::text});
  zyldb table(descs);
  table.add_param("ZYLDB", "Rev 1");
  table.add_records(static_cast<int>(rows.size()));
  for (size_t r = 0; r < rows.size(); ++r)
    for (size_t c = 0; c < names.size(); ++c)
      table.setField(static_cast<unsigned int>(r), static_cast<unsigned int>(c),
                     LightweightString<char>(rows[r][c]));
  std::vector<unsigned int> all = allRows(table);
  RowSource source{&table, allColumns(table), &all, tableParams(table)};
  Scratch dir;
  std::string path = dir.file("t.log");
  {
    Sink sink(path);
    writeRows(Format::log, source, sink);
    sink.commit();
  }
  return readAll(path);
}

TEST(FoldTest, AsciiFastPathAgreesWithTheTable) {
  // Every ASCII byte folds as the Unicode table folds it; the fast path
  // lower-cases A-Z only.
  for (int b = 1; b < 0x80; ++b) {
    std::string c(1, static_cast<char>(b));
    std::string expected = (b >= 'A' && b <= 'Z') ? std::string(1, static_cast<char>(b + 32)) : c;
    EXPECT_EQ(foldText(c, false), expected) << b;
    EXPECT_EQ(foldText(c, true), expected) << b;
  }
}

TEST(FoldTest, FoldsCaseInEveryScriptAndAccentsOnRequest) {
  EXPECT_EQ(foldText("ZOË", false), foldText("zoë", false));
  EXPECT_NE(foldText("Zoë", false), foldText("Zoe", false));
  EXPECT_EQ(foldText("Zoë", true), "zoe");
  EXPECT_EQ(foldText("ΣΟΦΊΑ", false), foldText("σοφία", false));
  EXPECT_EQ(foldText("ОЛЕГ", false), "олег");
  EXPECT_EQ(foldText("STRASSE", false), foldText("straße", false));
  EXPECT_EQ(foldText("E\xCC\x81mile", true), "emile");  // combining acute dropped
  EXPECT_EQ(foldText("\xFF"
                     "A",
                     false),
            "\xFF"
            "a");  // invalid bytes kept
}

TEST(FoldTest, NaturalOrderComparesDigitRunsByValue) {
  std::vector<std::string> sorted = {"", "2", "9", "9A", "10", "11", "A2", "A10", "a10b"};
  for (size_t i = 0; i < sorted.size(); ++i)
    for (size_t j = 0; j < sorted.size(); ++j) {
      int c = naturalCompare(sorted[i], sorted[j]);
      EXPECT_EQ(c < 0, i < j) << sorted[i] << " " << sorted[j];
      EXPECT_EQ(c == 0, i == j) << sorted[i] << " " << sorted[j];
    }
  EXPECT_LT(naturalCompare("7", "007"), 0);  // equal value: shorter run first
  EXPECT_LT(naturalCompare(sortKey("Émile", false), sortKey("Zoë", false)), 0);
  EXPECT_LT(naturalCompare(sortKey("Emile", false), sortKey("Émile", false)), 0);
  EXPECT_EQ(naturalCompare(sortKey("Emile", true), sortKey("émile", true)), 0);
}

// A table of random short cells for property tests.
OpenLog randomLog(std::mt19937& rng, unsigned int rows) {
  static const char* const kPieces[] = {"a", "B", "é", "É", "1", "10", "9", " ", "z", "Ω", "ω", ""};
  std::vector<std::vector<std::string>> cells(rows);
  for (auto& row : cells)
    for (int c = 0; c < 2; ++c) {
      std::string cell;
      for (int k = std::uniform_int_distribution<int>(0, 3)(rng); k > 0; --k)
        cell += kPieces[std::uniform_int_distribution<size_t>(0, std::size(kPieces) - 1)(rng)];
      row.push_back(cell);
    }
  Scratch dir;
  std::string path = dir.file("r.log", logText({"Name", "Who"}, cells));
  return openLog(path);
}

TEST(QueryTest, DescendingIsExactlyTheAscendingOrderReversed) {
  std::mt19937 rng(7);
  for (int round = 0; round < 20; ++round) {
    OpenLog log = randomLog(rng, 60);
    ASSERT_FALSE(log.failed());
    for (bool fold : {false, true}) {
      std::vector<SortKey> keys = {{1, false}, {0, round % 2 == 0}};
      std::vector<unsigned int> up = allRows(*log.table), down = up;
      sortRows(*log.table, up, keys, false, fold);
      sortRows(*log.table, down, keys, true, fold);
      std::reverse(down.begin(), down.end());
      EXPECT_EQ(up, down);
    }
  }
}

TEST(QueryTest, ContainsAgreesWithTheLibrarysSearchOnAsciiText) {
  // On ASCII cells the tool's caseless "contains" is the library's search.
  std::mt19937 rng(11);
  const char* const kQueries[] = {"a", "A", "1", "10", "b1", " a", "z", "aB"};
  std::vector<std::vector<std::string>> cells;
  for (int r = 0; r < 200; ++r) {
    std::string cell;
    for (int k = std::uniform_int_distribution<int>(0, 5)(rng); k > 0; --k)
      cell += "aAbB01z "[std::uniform_int_distribution<int>(0, 7)(rng)];
    cells.push_back({cell});
  }
  Scratch dir;
  OpenLog log = openLog(dir.file("a.log", logText({"Notes"}, cells)));
  ASSERT_FALSE(log.failed());
  zyldb& table = *log.table;
  for (const char* q : kQueries) {
    std::vector<unsigned int> tool = filterRows(log, {{{0, Condition::Op::contains, q}}}, false);
    std::unique_ptr<dbrecord> query(table.make_dummy_record());
    query->set_field(0, q, true);
    table.set_query(query.get());
    std::vector<unsigned int> library;
    for (unsigned int r = 0; r < table.get_num_records(); ++r)
      if (table.match_record(static_cast<int>(r)) != 0) library.push_back(r);
    EXPECT_EQ(tool, library) << "query \"" << q << "\"";
  }
}

// Counts whole-file reads and passes every call on to the POSIX service.
class CountingService : public zyl::FileService {
 public:
  CountingService() { inner_ = OS()->setFileService(this); }
  ~CountingService() override { OS()->setFileService(inner_); }
  bool readFile(const LightweightString<wchar_t>& p, std::string* out) override {
    ++reads;
    return inner_->readFile(p, out);
  }
  bool writeFile(const LightweightString<wchar_t>& p, const char* d, size_t n) override {
    return inner_->writeFile(p, d, n);
  }
  bool move(const LightweightString<wchar_t>& a, const LightweightString<wchar_t>& b,
            int f) override {
    return inner_->move(a, b, f);
  }
  bool remove(const LightweightString<wchar_t>& p) override { return inner_->remove(p); }
  bool exists(const LightweightString<wchar_t>& p) override { return inner_->exists(p); }
  bool isDirectory(const LightweightString<wchar_t>& p) override { return inner_->isDirectory(p); }
  std::string lastError() const override { return inner_->lastError(); }
  int reads = 0;

 private:
  zyl::FileService* inner_;
};

TEST(OpenLogTest, ADamagedLogIsReadOnceAndDiagnosedWithItsLineNumbers) {
  std::vector<std::vector<std::string>> rows;
  for (int r = 0; r < 10000; ++r) rows.push_back({"n" + std::to_string(r), "x"});
  std::string text = logText({"Name", "Who"}, rows);
  // Cut a field from the record on line 9000 (past the remembered line
  // starts, so the line is read on demand), then a blank line ends another.
  size_t at = 0;
  for (int line = 1; line < 9000; ++line) at = text.find('\n', at) + 1;
  size_t comma = text.find(',', at);
  std::string damaged = text.substr(0, comma) + text.substr(text.find('\n', comma));
  Scratch dir;
  std::string path = dir.file("d.log", damaged);
  CountingService counter;
  OpenLog log = openLog(path);
  EXPECT_EQ(counter.reads, 1);
  ASSERT_FALSE(log.failed());
  ASSERT_EQ(log.problems.size(), 1u);
  EXPECT_EQ(log.problems[0].line, 9000);
  EXPECT_EQ(log.problems[0].text,
            "record has 1 field, the log has 2 columns; 8994 records before it are usable");
  EXPECT_TRUE(log.incomplete);

  std::string blank = text.substr(0, at) + "\n" + text.substr(at);
  counter.reads = 0;
  OpenLog cut = openLog(dir.file("b.log", blank));
  EXPECT_EQ(counter.reads, 1);
  ASSERT_EQ(cut.problems.size(), 1u);
  EXPECT_EQ(cut.problems[0].line, 9000);
  EXPECT_EQ(cut.problems[0].text,
            "a blank line ends the records; the 1006 lines after it are not read");
}

TEST(WritersTest, EveryFormatReadsBackToTheSameCells) {
  std::vector<std::vector<std::string>> rows = {{"1A", "trailing blank ", "comma, \"quotes\""},
                                                {"2B", "tab\there", "line\nbreak"},
                                                {"3C", "Zoë 港", "back\\slash"},
                                                {"4D", "", "=formula"}};
  Scratch dir;
  OpenLog log = openLog(dir.file("w.log", logText({"Name", "Who", "Notes"}, rows)));
  ASSERT_FALSE(log.failed());
  std::vector<unsigned int> all = allRows(*log.table);
  RowSource source{log.table.get(), allColumns(*log.table), &all, tableParams(*log.table)};
  for (Format f : {Format::log, Format::csv, Format::tsv, Format::ale, Format::json}) {
    std::string path = dir.file(std::string("out.") + formatName(f));
    {
      Sink sink(path);
      writeRows(f, source, sink);
      sink.commit();
    }
    OpenLog back = openLog(path);
    ASSERT_FALSE(back.failed()) << formatName(f) << ": " << back.describe(back.problems.at(0));
    ASSERT_EQ(back.table->get_num_records(), rows.size()) << formatName(f);
    for (unsigned int r = 0; r < rows.size(); ++r)
      for (unsigned int c = 0; c < 3; ++c) {
        int column = back.table->get_fieldnum(LightweightString<char>(log.table->get_fieldname(c)));
        ASSERT_GE(column, 0) << formatName(f);
        // The cells as the log holds them (its reader trims blanks at the ends).
        EXPECT_EQ(back.table->getField(r, static_cast<unsigned int>(column)).toStdString(),
                  log.table->getField(r, c).toStdString())
            << formatName(f) << " row " << r << " column " << c;
      }
  }
}

TEST(WritersTest, JsonKeywordsAreTheLibrarysForEveryType) {
  // Every type code the library names round-trips through the tool's JSON.
  for (int code = 0; code < 256; ++code) {
    auto type = static_cast<DBFieldTypes::eType>(code);
    const char* keyword = zyldb_fieldtype_to_string(type);
    if (keyword == nullptr) continue;
    zyldb table(std::vector<DBFieldDesc>{{"c", type}});
    std::vector<unsigned int> none;
    RowSource source{&table, {0}, &none, tableParams(table)};
    Scratch dir;
    std::string path = dir.file("k.json");
    {
      Sink sink(path);
      writeRows(Format::json, source, sink);
      sink.commit();
    }
    nlohmann::json doc = nlohmann::json::parse(readAll(path));
    EXPECT_EQ(doc["columns"][0]["type"], keyword);
    OpenLog back = openLog(path);
    ASSERT_FALSE(back.failed());
    EXPECT_EQ(back.table->get_field_type(0), type) << keyword;
  }
}

TEST(WritersTest, AFailedWriteLeavesTheOldFileAndNoTemporary) {
  Scratch dir;
  std::string path = dir.file("keep.log", "old\n");
  {
    Sink sink(path);
    sink.write("new\n");
  }  // not committed
  EXPECT_EQ(readAll(path), "old\n");
  EXPECT_TRUE(TextFile::strayTemporaries(widePath(path)).empty());
  EXPECT_EQ(
      std::distance(std::filesystem::directory_iterator(std::filesystem::path(path).parent_path()),
                    std::filesystem::directory_iterator()),
      1);
}

TEST(WritersTest, OutputFormatComesFromTheOptionOrTheExtensionIgnoringCase) {
  EXPECT_EQ(outputFormat("a.CSV", ""), Format::csv);
  EXPECT_EQ(outputFormat("a.Tsv", ""), Format::tsv);
  EXPECT_EQ(outputFormat("a.ale", ""), Format::ale);
  EXPECT_EQ(outputFormat("a.txt", "json"), Format::json);
  EXPECT_EQ(outputFormat("-", ""), Format::log);
  EXPECT_THROW(outputFormat("a.xlsx", ""), UsageError);
  EXPECT_THROW(outputFormat("a", ""), UsageError);
  EXPECT_THROW(outputFormat("a.log", "table"), UsageError);
}

TEST(ProgressTest, LineSaysDoneTotalRateAndTimeLeft) {
  EXPECT_EQ(Progress::line("reading a.log", 50'000'000, 200'000'000, Progress::Unit::bytes, 2.0),
            "reading a.log: 50 MB of 200 MB, 25 MB/s, 6 s left");
  EXPECT_EQ(Progress::line("writing", 1000, 0, Progress::Unit::rows, 0.5),
            "writing: 1000 rows, 2000 rows/s");
}

}  // namespace
}  // namespace zyl::cli
