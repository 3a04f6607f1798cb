// recordLines: the line each loaded row came from, checked against the
// loader itself: the row's values are those of the record read from its line.

#include <gtest/gtest.h>
#include <unistd.h>
#include <zyldb/audit/Audit.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>

#include <fstream>
#include <string>

namespace zyl::audit {
namespace {

std::string writeTemp(const std::string& name, const std::string& text) {
  std::string path = ::testing::TempDir() + std::to_string(::getpid()) + "_" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// Loads `path` and checks that every row equals the record on its line.
void expectLinesMatchLoader(const std::string& path, size_t expectedRows) {
  LightweightString<wchar_t> wide = fromUTF8(LightweightString<char>(path));
  zyldb table(wide, 1 << 30, false);
  ASSERT_TRUE(table.get_valid()) << path;
  ASSERT_EQ(table.get_num_records(), expectedRows) << path;
  std::vector<long> lines = recordLines(wide);
  ASSERT_GE(lines.size(), expectedRows) << path;
  TextFile file;
  ASSERT_TRUE(file.load(wide));
  bool csv = path.size() > 4 && path.substr(path.size() - 4) == ".csv";
  for (unsigned int r = 0; r < expectedRows; ++r) {
    long line = lines[r];
    ASSERT_GT(line, 0);
    if (csv) {
      auto pieces = Qm::splitIf(file[static_cast<unsigned int>(line - 1)], ',', 2);
      EXPECT_EQ(table.getField(r, 0).view(), pieces[0].view()) << path << " row " << r;
      continue;
    }
    file.currentLine = static_cast<uint32_t>(line - 1);
    dbrecord rec;
    rec.read(file);
    for (unsigned int c = 0; c < table.get_num_fields(); ++c)
      EXPECT_EQ(table.getField(r, c).view(), rec.getField(static_cast<unsigned short>(c)).view())
          << path << " row " << r << " column " << c;
  }
  // Remove only what writeTemp made: the source tree may itself lie under the
  // temporary directory.
  if (path.rfind(::testing::TempDir() + std::to_string(::getpid()) + "_", 0) == 0)
    ::unlink(path.c_str());
}

TEST(RecordLines, AgreeWithTheLoader) {
  const std::string header =
      "\"ZYLDB:Rev 1\"\n\"a:1\"\n\"ZYLDB\"\n\"4\",\"4\"\n\"text\",\"text\"\n"
      "\"X\",\"Y\"\n";
  expectLinesMatchLoader(writeTemp("plain.log", header + "\"1\",\"a\"\n\"2\",\"b\"\n"), 2);
  // A header line among the records: it and the two after it are skipped.
  expectLinesMatchLoader(
      writeTemp("skip.log", header + "\"1\",\"a\"\n\"zyldb\",\"\"\n\"w\",\"w\"\n\"t\",\"t\"\n"
                                     "\"2\",\"b\"\n\"3\",\"c\"\n"),
      3);
  // A blank line ends the records.
  expectLinesMatchLoader(writeTemp("blank.log", header + "\"1\",\"a\"\n\n\"2\",\"b\"\n"), 1);
  // More parameters than a table keeps, CRLF line ends.
  std::string many = "\"ZYLDB:Rev 1\"\r\n";
  for (int i = 0; i < 45; ++i) many += "\"p" + std::to_string(i) + ":v\"\r\n";
  many += "\"ZYLDB\"\r\n\"4\"\r\n\"text\"\r\n\"X\"\r\n\"1\"\r\n\"2\"\r\n";
  expectLinesMatchLoader(writeTemp("many.log", many), 2);
  // A header without terminator, loaded leniently: the names line follows
  // the parameters.
  expectLinesMatchLoader(writeTemp("lenient.log",
                                   "\"ZYLDB:Rev 1\"\n\"Name\",\"Start\"\n"
                                   "\"1\",\"01:00:00:00\"\n"),
                         1);
  expectLinesMatchLoader(writeTemp("lines.csv", "X,Y\n1,a\n\n2,b\n 3,c\n"), 3);
  expectLinesMatchLoader(ZYLDB_SOURCE_DIR "/examples/clips.log" + std::string(), 36);
}

TEST(RecordLines, NoRowsForWhatIsNotALog) {
  TextFile f;
  f.appendLine("Name,Reel");
  EXPECT_TRUE(recordLines(f, false).empty());
  EXPECT_TRUE(recordLines(LightweightString<wchar_t>(L"/nonexistent/x.log")).empty());
}

}  // namespace
}  // namespace zyl::audit
