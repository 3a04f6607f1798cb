#include "LogGenerator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/TextFile.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace {

class LogGeneratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("zyldb_loggen_test_" + std::to_string(getpid()));
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  static LightweightString<wchar_t> wide(const std::string& s) {
    return LightweightString<wchar_t>(std::wstring(s.begin(), s.end()));
  }
  static std::string slurp(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  fs::path dir_;
};

std::vector<std::string> split(std::string_view line) {
  std::vector<std::string> out;
  std::string scratch;
  zyl::splitRecordLine(line, scratch, [&](std::string_view v) { out.emplace_back(v); });
  return out;
}

// Frames of a punctuated timecode at 30 labels per second; drop-frame labels
// are compared as labels, which order like the frames they stand for.
long labelValue(const std::string& tc) {
  return ((std::stol(tc.substr(0, 2)) * 60 + std::stol(tc.substr(3, 2))) * 60 +
          std::stol(tc.substr(6, 2))) *
             30 +
         std::stol(tc.substr(9, 2));
}

// Frames of a keycode's "FFFF+ff" footage at 16 frames per foot.
long footage(const std::string& kc) {
  size_t plus = kc.find('+');
  return std::stol(kc.substr(plus - 4, 4)) * 16 + std::stol(kc.substr(plus + 1));
}

TEST(TimecodeText, NonDropAndDropFrameLabels) {
  struct Case {
    long long frame;
    int fps;
    bool drop;
    const char* text;
  } cases[] = {
      {0, 30, false, "00:00:00:00"},           {108000, 30, false, "01:00:00:00"},
      {24 * 61 + 5, 24, false, "00:01:01:05"}, {0, 30, true, "00:00:00;00"},
      {1799, 30, true, "00:00:59;29"},         {1800, 30, true, "00:01:00;02"},
      {3597, 30, true, "00:01:59;29"},         {3598, 30, true, "00:02:00;02"},
      {17981, 30, true, "00:09:59;29"},        {17982, 30, true, "00:10:00;00"},
      {107892, 30, true, "01:00:00;00"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(zyl::timecodeText(c.frame, c.fps, c.drop), c.text) << c.frame << " at " << c.fps;
}

TEST(RecordLine, WritesAndSplitsTheLogForm) {
  std::string line;
  zyl::appendRecordLine(line, {"a", "b\"c", "x\ny", "", "p\rq"});
  EXPECT_EQ(line, R"("a","b""c","x\ny","","pq")");
  EXPECT_THAT(split(line), ElementsAre("a", "b\"c", "x\ny", "", "pq"));

  struct Case {
    const char* line;
    std::vector<std::string> fields;
  } cases[] = {
      {"", {}},
      {R"("")", {""}},
      {R"("a",)", {"a"}},
      {R"(a, b ,"c,d")", {"a", " b ", "c,d"}},
      {R"("""quoted""","end\")", {"\"quoted\"", "end\\"}},
      {R"("a\nb\x",plain)", {"a\nb\\x", "plain"}},
  };
  for (const Case& c : cases) EXPECT_THAT(split(c.line), ElementsAreArray(c.fields)) << c.line;
}

TEST(LogGenerator, RowsAreDeterministicAndConsistent) {
  zyl::LogGenerator a(42), b(42), other(43);
  std::vector<std::string> ra, rb, ro;
  int quoted = 0, multiLine = 0, withComma = 0, empty = 0, dropFrame = 0, differs = 0;
  for (int i = 0; i < 5000; ++i) {
    a.next(ra);
    b.next(rb);
    other.next(ro);
    ASSERT_EQ(ra, rb) << "row " << i;
    differs += ra != ro;
    ASSERT_EQ(ra.size(), zyl::kLogNumColumns);
    for (const std::string& v : ra) {
      empty += v.empty();
      ASSERT_EQ(v.find('\r'), std::string::npos);
      if (!v.empty()) {
        ASSERT_FALSE(std::isspace(static_cast<unsigned char>(v.front()))) << v;
        ASSERT_FALSE(std::isspace(static_cast<unsigned char>(v.back()))) << v;
      }
    }
    const std::string& desc = ra[14];
    quoted += desc.find('"') != std::string::npos;
    multiLine += desc.find('\n') != std::string::npos;
    withComma += desc.find(',') != std::string::npos;
    dropFrame += ra[6][8] == ';';

    EXPECT_LT(labelValue(ra[6]), labelValue(ra[7])) << ra[6] << " " << ra[7];
    EXPECT_LT(labelValue(ra[8]), labelValue(ra[9])) << ra[8] << " " << ra[9];
    ASSERT_EQ(ra[11].empty(), ra[12].empty());
    if (!ra[11].empty()) {
      EXPECT_EQ(ra[11].substr(0, 10), ra[12].substr(0, 10));
      EXPECT_LT(footage(ra[11]), footage(ra[12])) << ra[11] << " " << ra[12];
    }
    ASSERT_EQ(ra[1].size(), 33u);
  }
  EXPECT_GT(differs, 4900);
  EXPECT_GT(quoted, 100);
  EXPECT_GT(multiLine, 50);
  EXPECT_GT(withComma, 2500);
  EXPECT_GT(empty, 2000);
  EXPECT_GT(dropFrame, 500);
  EXPECT_LT(dropFrame, 4500);
}

TEST_F(LogGeneratorTest, LogLoadsAndSavesUnchanged) {
  const size_t kRows = 1200;
  const std::string log = path("gen.log");
  ASSERT_TRUE(zyl::writeGeneratedLog(log, kRows, 7));
  EXPECT_FALSE(fs::exists(log + ".tmp"));

  zyldb t(wide(log), INT_MAX, false);
  ASSERT_EQ(t.get_valid(), 1);
  ASSERT_EQ(t.get_num_records(), kRows);
  ASSERT_EQ(t.get_num_fields(), zyl::kLogNumColumns);
  for (size_t c = 0; c < zyl::kLogNumColumns; ++c) {
    EXPECT_STREQ(t.get_fieldname(static_cast<unsigned int>(c)), zyl::kLogColumns[c].name);
    EXPECT_EQ(zyldb::getMinFieldSize(zyl::kLogColumns[c].name), zyl::kLogColumns[c].minWidth);
  }

  // The table holds exactly the generated values, and the splitter agrees
  // with the library's record reader on every line.
  zyl::LogGenerator gen(7);
  std::vector<std::string> row;
  TextFile f;
  ASSERT_TRUE(f.load(wide(log)));
  dbrecord rec;
  for (unsigned int r = 0; r < kRows; ++r) {
    gen.next(row);
    for (unsigned int c = 0; c < zyl::kLogNumColumns; ++c)
      ASSERT_EQ(t.getField(r, c).view(), row[c]) << "row " << r << " column " << c;
    f.currentLine = 6 + r;
    std::vector<std::string> fields = split(f.line(f.currentLine));
    ASSERT_EQ(rec.read(f), static_cast<int>(fields.size()));
    for (unsigned int c = 0; c < fields.size(); ++c)
      ASSERT_EQ(rec.getField(static_cast<unsigned short>(c)).view(), fields[c]);
  }

  // Saving the loaded table gives the file back byte for byte: the widths
  // line follows the same rule in both.
  t.set_filename(wide(path("saved.log")));
  ASSERT_EQ(t.save_text(), static_cast<int>(kRows));
  EXPECT_EQ(slurp(path("saved.log")), slurp(log));

  ASSERT_TRUE(zyl::writeGeneratedLog(path("again.log"), kRows, 7));
  EXPECT_EQ(slurp(path("again.log")), slurp(log));
}

TEST_F(LogGeneratorTest, UnwritableTargetLeavesNothing) {
  EXPECT_FALSE(zyl::writeGeneratedLog(path("missing/dir/gen.log"), 10, 1));
  EXPECT_TRUE(zyl::writeGeneratedLog(path("empty.log"), 0, 1));
  zyldb t(wide(path("empty.log")), INT_MAX, false);
  EXPECT_EQ(t.get_valid(), 1);
  EXPECT_EQ(t.get_num_records(), 0u);
  EXPECT_EQ(t.get_num_fields(), zyl::kLogNumColumns);
}

}  // namespace
