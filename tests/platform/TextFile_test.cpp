#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/FaultyFileService_internal.h"

namespace {

using zyl::testing::FaultyFileService;
using Lines = std::vector<std::string>;

class TextFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zyldb_textfile_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  LightweightString<wchar_t> wide(const std::string& name) const {
    return fromUTF8(LightweightString<char>(path(name)));
  }
  void write(const std::string& name, const std::string& bytes) {
    std::ofstream(path(name), std::ios::binary) << bytes;
  }
  std::string read(const std::string& name) {
    std::ifstream in(path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  long fileCount() const { return std::distance(std::filesystem::directory_iterator(dir_), {}); }
  Lines lines(const std::string& bytes) {
    write("in.txt", bytes);
    TextFile f;
    EXPECT_TRUE(f.load(wide("in.txt")));
    Lines out;
    for (unsigned i = 0; i < f.getNumLines(); ++i) out.push_back(f[i].toStdString());
    return out;
  }
  static TextFile threeLines() {
    TextFile f;
    f.appendLine("one");
    f.appendLine(std::string_view("two"));
    f.appendLine(LightweightString<char>("three"));
    return f;
  }
  std::string dir_;
};

TEST_F(TextFileTest, SplitsLfCrlfAndAKeptLastLineOfAnySize) {
  EXPECT_EQ(lines(""), Lines{});
  EXPECT_EQ(lines("\n"), Lines{""});
  EXPECT_EQ(lines("a\r\nb\nc"), (Lines{"a", "b", "c"}));
  EXPECT_EQ(lines("a\n\n\nb"), (Lines{"a", "", "", "b"}));
  EXPECT_EQ(lines("a\r\r\nb\r"), (Lines{"a\r", "b\r"}));  // one CR per LF only
  EXPECT_EQ(lines(std::string("ab\0cd\nx", 7)), (Lines{std::string("ab\0cd", 5), "x"}));
  std::string huge(3'000'000, 'q');
  for (int i = 0; i < 100000; ++i) huge += "\r\n" + std::to_string(i);
  Lines many = lines(huge);
  ASSERT_EQ(many.size(), 100001u);
  EXPECT_EQ(many[0].size(), 3'000'000u);
  EXPECT_EQ(many[100000], "99999");
}

TEST_F(TextFileTest, SavesChosenLineEndsAndKeepsPermissions) {
  write("lf.txt", "old\n");
  chmod(path("lf.txt").c_str(), 0640);
  TextFile f = threeLines();
  ASSERT_TRUE(f.save(wide("lf.txt")));
  ASSERT_TRUE(f.save(wide("caf\xc3\xa9.txt"), TextFile::eNative));  // UTF-8 name
  ASSERT_TRUE(f.save(wide("crlf.txt"), TextFile::eCRLF));
  EXPECT_EQ(read("lf.txt"), "one\ntwo\nthree\n");
  EXPECT_EQ(read("caf\xc3\xa9.txt"), "one\ntwo\nthree\n");
  EXPECT_EQ(read("crlf.txt"), "one\r\ntwo\r\nthree\r\n");
  struct stat st;
  ASSERT_EQ(stat(path("lf.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_EQ(fileCount(), 3) << "temporary file left behind";
  EXPECT_STREQ(f.line(3), "");  // past the end
}

TEST_F(TextFileTest, FailuresReportTheSystemError) {
  TextFile f = threeLines();
  f.currentLine = 2;
  EXPECT_FALSE(f.load(wide("missing.txt")));
  EXPECT_EQ(f.getNumLines(), 0u);
  EXPECT_EQ(f.currentLine, 0u);
  EXPECT_FALSE(f.load(fromUTF8(LightweightString<char>(dir_))));
  EXPECT_EQ(OS()->fileService().lastError(), "Is a directory");
  EXPECT_FALSE(threeLines().save(wide("nodir/t.txt")));
  EXPECT_EQ(OS()->fileService().lastError(), "No such file or directory");
}

// Saving turns the buffer's NULs into line feeds for the write: the lines
// must come back whole, after a failed save as after a good one.
TEST_F(TextFileTest, FailedSaveLeavesOldFileLinesAndNoTemporary) {
  write("t.txt", "old\n");
  FaultyFileService faulty;
  zyl::testing::ScopedFileService use(&faulty);
  TextFile f = threeLines();
  f.appendLine(std::string_view("nul\0inside", 10));
  for (auto op : {FaultyFileService::kWrite, FaultyFileService::kMove}) {
    faulty.reset();
    faulty.setTornWrites(true);
    faulty.failNth(op);
    EXPECT_FALSE(f.save(wide("t.txt"))) << op;
    EXPECT_EQ(faulty.failures(op), 1);
    EXPECT_EQ(read("t.txt"), "old\n");
    EXPECT_EQ(fileCount(), 1);
    EXPECT_EQ(OS()->fileService().lastError(), "injected failure");
  }
  faulty.reset();
  EXPECT_TRUE(f.save(wide("t.txt")));
  EXPECT_EQ(read("t.txt"), std::string("one\ntwo\nthree\nnul\0inside\n", 25));
  ASSERT_EQ(f.getNumLines(), 4u);
  EXPECT_STREQ(f.line(2), "three");
  EXPECT_EQ(f[3].view(), std::string_view("nul\0inside", 10));
  faulty.failNth(FaultyFileService::kRead);
  EXPECT_FALSE(f.load(wide("t.txt")));
  EXPECT_TRUE(f.load(wide("t.txt")));
}

TEST_F(TextFileTest, LinesAreAddedWholeOrNotAtAll) {
  TextFile f = threeLines();
  f.reserve(2, 3'000'000);  // large enough to be made resident at once
  {
    TextFile::LineBuilder abandoned(f);
    abandoned.append("dropped");
  }
  {
    TextFile::LineBuilder b(f);
    b.append("ab");
    std::memcpy(b.extend(5), "cdXYZ", 5);
    b.shrink(3);
    b.finish();
  }
  const std::string big(4'000'000, 'x');  // outgrows the room reserved
  OS()->allocator().failNthAllocation(1);
  EXPECT_THROW(f.appendLine(std::string_view(big)), Qm::Exception::BadAlloc);
  OS()->allocator().failNthAllocation(0);
  f.appendLine("last");
  EXPECT_EQ(f.getNumLines(), 5u);
  EXPECT_EQ(f[3], "abcd");
  EXPECT_EQ(f[4], "last");
}

}  // namespace
