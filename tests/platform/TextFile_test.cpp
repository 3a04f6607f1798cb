#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/FaultyFileService_internal.h"

namespace {

using zyl::testing::FaultyFileService;
using zyl::testing::ScopedFileService;

class TextFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zyldb_textfile_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    for (const auto& f : files()) std::remove((dir_ + "/" + f).c_str());
    rmdir((dir_ + "/sub").c_str());
    rmdir(dir_.c_str());
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  LightweightString<wchar_t> wide(const std::string& name) const {
    return fromUTF8(LightweightString<char>(path(name)));
  }
  void write(const std::string& name, const std::string& bytes) {
    std::ofstream(path(name), std::ios::binary) << bytes;
  }
  std::string read(const std::string& name) {
    std::ifstream in(path(name), std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
  std::vector<std::string> files() const {
    std::vector<std::string> out;
    if (DIR* d = opendir(dir_.c_str())) {
      while (dirent* e = readdir(d))
        if (e->d_name[0] != '.' && std::string(e->d_name) != "sub") out.push_back(e->d_name);
      closedir(d);
    }
    return out;
  }
  std::vector<std::string> lines(const std::string& bytes) {
    write("in.txt", bytes);
    TextFile f;
    EXPECT_TRUE(f.load(wide("in.txt")));
    std::vector<std::string> out;
    for (unsigned i = 0; i < f.getNumLines(); ++i) out.push_back(f[i].toStdString());
    return out;
  }
  TextFile threeLines() {
    TextFile f;
    f.appendLine("one");
    f.appendLine(std::string_view("two"));
    f.appendLine(LightweightString<char>("three"));
    return f;
  }
  std::string dir_;
};

using Lines = std::vector<std::string>;

TEST_F(TextFileTest, SplitsLfCrlfAndAKeptLastLine) {
  EXPECT_EQ(lines(""), Lines{});
  EXPECT_EQ(lines("\n"), Lines{""});
  EXPECT_EQ(lines("a\nb\n"), (Lines{"a", "b"}));
  EXPECT_EQ(lines("a\r\nb\r\n"), (Lines{"a", "b"}));
  EXPECT_EQ(lines("a\r\nb\nc"), (Lines{"a", "b", "c"}));
  EXPECT_EQ(lines("a\n\n\nb"), (Lines{"a", "", "", "b"}));
  EXPECT_EQ(lines("a\r\r\nb\r"), (Lines{"a\r", "b\r"}));  // one CR per LF only
  EXPECT_EQ(lines("\r\n\r\n"), (Lines{"", ""}));
}

TEST_F(TextFileTest, NulBytesStayInTheLine) {
  write("in.txt", std::string("ab\0cd\nx", 7));
  TextFile f;
  ASSERT_TRUE(f.load(wide("in.txt")));
  ASSERT_EQ(f.getNumLines(), 2u);
  EXPECT_STREQ(f.line(0), "ab");
  EXPECT_EQ(f.lineLength(0), 5u);
  EXPECT_EQ(f[0].view(), std::string_view("ab\0cd", 5));
  EXPECT_STREQ(f.line(1), "x");
}

TEST_F(TextFileTest, PastTheEndIsEmpty) {
  TextFile f = threeLines();
  EXPECT_STREQ(f.line(3), "");
  EXPECT_EQ(f.lineLength(99), 0u);
  EXPECT_TRUE(f[3].empty());
}

TEST_F(TextFileTest, HugeLineAndManyLines) {
  std::string huge(3'000'000, 'q');
  std::string text = huge + "\r\n";
  for (int i = 0; i < 100000; ++i) text += std::to_string(i) + "\r\n";
  write("in.txt", text);
  TextFile f;
  ASSERT_TRUE(f.load(wide("in.txt")));
  ASSERT_EQ(f.getNumLines(), 100001u);
  EXPECT_EQ(f.lineLength(0), huge.size());
  EXPECT_EQ(f[100000], "99999");
  EXPECT_EQ(f[12345], "12344");
}

TEST_F(TextFileTest, LoadFailsOnMissingFileAndDirectory) {
  TextFile f = threeLines();
  f.currentLine = 2;
  EXPECT_FALSE(f.load(wide("missing.txt")));
  EXPECT_EQ(f.getNumLines(), 0u);
  EXPECT_EQ(f.currentLine, 0u);
  EXPECT_FALSE(f.load(fromUTF8(LightweightString<char>(dir_))));
  EXPECT_EQ(OS()->fileService().lastError(), "Is a directory");
}

TEST_F(TextFileTest, SavesEveryLineWithTheChosenLineEnd) {
  TextFile f = threeLines();
  ASSERT_TRUE(f.save(wide("lf.txt")));
  ASSERT_TRUE(f.save(wide("native.txt"), TextFile::eNative));
  ASSERT_TRUE(f.save(wide("crlf.txt"), TextFile::eCRLF));
  EXPECT_EQ(read("lf.txt"), "one\ntwo\nthree\n");
  EXPECT_EQ(read("native.txt"), "one\ntwo\nthree\n");
  EXPECT_EQ(read("crlf.txt"), "one\r\ntwo\r\nthree\r\n");
  TextFile back;
  ASSERT_TRUE(back.load(wide("crlf.txt")));
  EXPECT_EQ(back.getNumLines(), 3u);
  EXPECT_EQ(back[2], "three");
  EXPECT_EQ(files().size(), 3u) << "temporary file left behind";
}

TEST_F(TextFileTest, SaveReplacesAndKeepsPermissions) {
  write("t.txt", "old\n");
  chmod(path("t.txt").c_str(), 0640);
  ASSERT_TRUE(threeLines().save(wide("t.txt")));
  EXPECT_EQ(read("t.txt"), "one\ntwo\nthree\n");
  struct stat st;
  ASSERT_EQ(stat(path("t.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

TEST_F(TextFileTest, SaveIntoMissingDirectoryFails) {
  EXPECT_FALSE(threeLines().save(wide("nodir/t.txt")));
  EXPECT_EQ(OS()->fileService().lastError(), "No such file or directory");
}

TEST_F(TextFileTest, SaveIntoReadOnlyDirectoryFails) {
  if (geteuid() == 0) GTEST_SKIP() << "root ignores directory permissions";
  write("t.txt", "old\n");
  chmod(dir_.c_str(), 0555);
  EXPECT_FALSE(threeLines().save(wide("t.txt")));
  chmod(dir_.c_str(), 0755);
  EXPECT_EQ(read("t.txt"), "old\n");
}

TEST_F(TextFileTest, FailedWriteOrMoveLeavesOldFileAndNoTemporary) {
  write("t.txt", "old\n");
  FaultyFileService faulty;
  ScopedFileService use(&faulty);
  for (auto op : {FaultyFileService::kWrite, FaultyFileService::kMove}) {
    faulty.reset();
    faulty.setTornWrites(true);
    faulty.failNth(op);
    EXPECT_FALSE(threeLines().save(wide("t.txt"))) << op;
    EXPECT_EQ(faulty.failures(op), 1);
    EXPECT_EQ(read("t.txt"), "old\n");
    EXPECT_EQ(files(), Lines{"t.txt"});
    EXPECT_EQ(OS()->fileService().lastError(), "injected failure");
  }
  faulty.reset();
  faulty.failNth(FaultyFileService::kRead);
  TextFile f;
  EXPECT_FALSE(f.load(wide("t.txt")));
  EXPECT_TRUE(f.load(wide("t.txt")));
}

TEST_F(TextFileTest, FileServiceBasics) {
  zyl::FileService& fs = OS()->fileService();
  write("a", "x");
  EXPECT_TRUE(fs.exists(wide("a")));
  EXPECT_FALSE(fs.isDirectory(wide("a")));
  EXPECT_TRUE(fs.isDirectory(fromUTF8(LightweightString<char>(dir_))));
  EXPECT_TRUE(fileExists(wide("a")));
  EXPECT_FALSE(fs.move(wide("a"), wide("b"), 1));  // flags must be 0
  EXPECT_TRUE(fs.move(wide("a"), wide("b"), 0));
  EXPECT_FALSE(fs.exists(wide("a")));
  EXPECT_TRUE(fs.remove(wide("b")));
  EXPECT_FALSE(fs.remove(wide("b")));
  EXPECT_EQ(fs.lastError(), "No such file or directory");
  // Non-ASCII names go to the system as UTF-8.
  LightweightString<wchar_t> name = wide("caf\xc3\xa9.txt");
  ASSERT_TRUE(fs.writeFile(name, "ok", 2));
  EXPECT_EQ(read("caf\xc3\xa9.txt"), "ok");
}

}  // namespace
