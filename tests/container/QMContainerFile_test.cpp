#include <zyldb/container/QMContainerFile.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/TextUtil.h>

#include "platform/FaultyFileService_internal.h"

namespace {

namespace fs = std::filesystem;
using Reader = QMContainerFile::Reader;
using Writer = QMContainerFile::Writer;

LightweightString<wchar_t> W(const std::string& s) {
  return fromUTF8(LightweightString<char>(s.c_str()));
}

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

class ContainerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("zyldb_container_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  std::string path(const std::string& name) const { return (dir_ / name).string(); }

  // A writer of columns Cookie, Rating (long) and Notes holding `items`,
  // each rated by its position.
  void writeBin(const std::string& file, const std::vector<Cookie>& items, const char* name,
                bool permanent) {
    DBFieldDesc descs[] = {{"Cookie", DBFieldTypes::text_s},
                           {"Rating", DBFieldTypes::long_},
                           {"Notes", DBFieldTypes::text},
                           {}};
    Writer w(descs);
    for (size_t i = 0; i < items.size(); ++i) {
      dbrecord* r = w.addItem(items[i]);
      ASSERT_NE(r, nullptr);
      r->set_field(1, static_cast<int>(i + 1));
      r->set_field(2, "note, with \"quotes\"");
    }
    w.setName(name);
    w.setPermanent(permanent);
    w.setAttrib("Speed", "23.976");
    w.save(W(file));
  }

  fs::path dir_;
};

TEST_F(ContainerTest, WriterReaderRoundTrip) {
  Cookie a = Cookie::make('C'), b = Cookie::make('C');
  writeBin(path("bin.bsg"), {a, b, a}, "Selects \xc3\xa9t\xc3\xa9", true);
  EXPECT_FALSE(fs::exists(path("bin.bsg.tmp")));

  Reader r(W(path("bin.bsg")), false);
  ASSERT_TRUE(r.valid());
  ASSERT_EQ(r.getNumItems(), 3u);
  EXPECT_EQ(r.getItem(0).getCookie(), a);
  EXPECT_EQ(r.getItem(1).getCookie(), b);
  EXPECT_EQ(r.getItem(2).getCookie(), a);  // duplicates are kept
  EXPECT_EQ(r.getContents().size(), 2u);
  EXPECT_TRUE(r.contains(b));
  EXPECT_FALSE(r.contains(Cookie::make('C')));
  EXPECT_FALSE(r.contains(Cookie()));

  int rating = r.getItemAttribIndex("RATING");
  ASSERT_EQ(rating, 1);
  Reader::Item item = r.getItem(1);
  EXPECT_EQ(item.getAttrib(rating, -1), 2);
  EXPECT_DOUBLE_EQ(item.getAttrib(rating, -1.0), 2.0);
  EXPECT_EQ(item.getAttrib(2), "note, with \"quotes\"");
  EXPECT_EQ(item.getAttrib(9), "");  // no such column: empty or the default
  EXPECT_EQ(item.getAttrib(9, 7), 7);
  EXPECT_EQ(r.getItem(3).getRecord(), nullptr);
  EXPECT_FALSE(r.getItem(3).getCookie().isValid());

  EXPECT_EQ(r.getName(), "Selects \xc3\xa9t\xc3\xa9");
  EXPECT_EQ(r.getNameW().view(), std::wstring_view(L"Selects \u00e9t\u00e9"));
  EXPECT_TRUE(r.isPermanent());
  EXPECT_DOUBLE_EQ(r.getAttrib("speed", 0.0), 23.976);
  EXPECT_EQ(r.getAttrib("Speed", 1), 23);
  EXPECT_EQ(r.getAttrib("Missing", 7), 7);
  EXPECT_EQ(r.getItemAttribIndex("Missing"), -1);
}

TEST_F(ContainerTest, WriterRefusesInvalidCookie) {
  DBFieldDesc descs[] = {{"cookie", DBFieldTypes::text_s}, {}};
  Writer w(descs);
  EXPECT_EQ(w.addItem(Cookie()), nullptr);
  EXPECT_EQ(w.get_num_records(), 0u);
  Cookie c = Cookie::make('M');
  dbrecord* r = w.addItem(c);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->getField(0), c.asString());  // the column is found ignoring case
}

TEST_F(ContainerTest, SavingOverExistingReplacesIt) {
  const std::string file = path("bin.bsg");
  Cookie a = Cookie::make('C'), b = Cookie::make('C');
  writeBin(file, {a}, "old", false);
  writeBin(file, {b, a}, "new", true);

  EXPECT_FALSE(fs::exists(file + ".tmp"));
  Reader r(W(file), false);
  ASSERT_TRUE(r.valid());
  EXPECT_EQ(r.getName(), "new");
  EXPECT_TRUE(r.isPermanent());
  ASSERT_EQ(r.getNumItems(), 2u);
  EXPECT_EQ(r.getItem(0).getCookie(), b);

  // An empty container replaces a full one too (save_text writes no rows).
  DBFieldDesc descs[] = {{"Cookie", DBFieldTypes::text_s}, {}};
  Writer empty(descs);
  empty.setName("emptied");
  empty.save(W(file));
  EXPECT_EQ(empty.get_filename().view(), W(file + ".tmp").view());
  EXPECT_FALSE(fs::exists(file + ".tmp"));
  Reader again(W(file), false);
  EXPECT_TRUE(again.valid());
  EXPECT_EQ(again.getName(), "emptied");
  EXPECT_EQ(again.getNumItems(), 0u);
}

TEST_F(ContainerTest, FailedReplacementLeavesOldContainer) {
  const std::string file = path("bin.bsg");
  writeBin(file, {Cookie::make('C')}, "old", false);
  const std::string before = slurp(file);

  using Faulty = zyl::testing::FaultyFileService;
  Faulty faulty;
  zyl::testing::ScopedFileService use(&faulty);
  // The text file layer writes and renames its own temporary file first, so
  // the second move is the one onto the container.
  struct Fault {
    Faulty::Op op;
    int nth;  // 0: every call fails
  } faults[] = {{Faulty::kWrite, 0}, {Faulty::kMove, 1}, {Faulty::kMove, 2}};
  for (const Fault& f : faults) {
    SCOPED_TRACE(testing::Message() << "op " << f.op << " nth " << f.nth);
    faulty.reset();
    faulty.setTornWrites(true);
    if (f.nth == 0)
      faulty.failAlways(f.op);
    else
      faulty.failNth(f.op, f.nth);
    writeBin(file, {Cookie::make('C'), Cookie::make('C')}, "new", true);
    EXPECT_GE(faulty.failures(f.op), 1);
    EXPECT_EQ(slurp(file), before);
    auto entries = fs::directory_iterator(dir_);
    EXPECT_EQ(std::distance(fs::begin(entries), fs::end(entries)), 1) << "stray temporary file";
  }
}

TEST_F(ContainerTest, HeaderOnlyReader) {
  const std::string file = path("bin.bsg");
  Cookie a = Cookie::make('C');
  writeBin(file, {a}, "bin", true);
  Reader r(W(file), true);
  EXPECT_TRUE(r.valid());
  EXPECT_EQ(r.getNumItems(), 0u);
  EXPECT_TRUE(r.getContents().empty());
  EXPECT_FALSE(r.contains(a));
  EXPECT_EQ(r.getName(), "bin");
  EXPECT_TRUE(r.isPermanent());
  EXPECT_EQ(r.getItemAttribIndex("Notes"), 2);
}

TEST_F(ContainerTest, InvalidContainers) {
  Cookie a = Cookie::make('C');
  const std::string noCookie = path("nocookie.bsg");
  std::ofstream(noCookie) << "\"ZYLDB:Rev 1\"\n\"Name:x\"\n\"Permanent:true\"\n\"ZYLDB\"\n\"10\"\n"
                             "\"text\"\n\"Reel\"\n\"" << a.asString().c_str() << "\"\n";
  const std::string oddFlag = path("odd.bsg");
  std::string upper = a.asString().c_str();
  for (size_t i = 1; i < upper.size(); ++i) upper[i] = static_cast<char>(toupper(upper[i]));
  std::ofstream(oddFlag) << "\"ZYLDB:Rev 1\"\n\"Permanent:maybe\"\n\"ZYLDB\"\n\"33\"\n\"text_s\"\n"
                            "\"Cookie\"\n\"" << upper << "\"\n";

  for (const std::string& file : {noCookie, path("missing.bsg")}) {
    SCOPED_TRACE(file);
    Reader r(W(file), false);
    EXPECT_FALSE(r.valid());
    EXPECT_EQ(r.getItem(0).getRecord(), nullptr);
    EXPECT_EQ(r.getName(), "");
    EXPECT_FALSE(r.isPermanent());
    EXPECT_EQ(r.getAttrib("Name", 5), 5);
    EXPECT_EQ(r.getItemAttribIndex("Reel"), -1);
    EXPECT_FALSE(r.contains(a));
  }
  Reader odd(W(oddFlag), false);
  EXPECT_TRUE(odd.valid());
  EXPECT_FALSE(odd.isPermanent());
  // contains() parses leniently and finds the upper-case cookie that
  // getItem's strict parse rejects.
  EXPECT_FALSE(odd.getItem(0).getCookie().isValid());
  EXPECT_TRUE(odd.contains(a));
}

TEST(ContainerNames, CookieFromFilename) {
  Cookie c = Cookie::make('C');
  std::string hex = c.asString().c_str();
  struct Case {
    std::string path;
    CookieType type;
  } cases[] = {
      {"/bins/" + hex + ".bsg", 'M'}, {"/bins/" + hex + ".BSG", 'M'},
      {"/bins/" + hex + ".rak", 'B'}, {"/bins/" + hex + ".Rak", 'B'},
      {"/bins/" + hex + ".log", 'C'}, {"/bins/" + hex, 'C'},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.path);
    Cookie got = QMContainerFile::getCookieFromFilename(W(k.path));
    EXPECT_EQ(got.getType(), k.type);
    EXPECT_EQ(got.getId(), c.getId());
  }
  EXPECT_FALSE(QMContainerFile::getCookieFromFilename(W("/bins/selects.bsg")).isValid());
  // The reader keeps the name's own cookie type.
  Reader r(W("/nonexistent/" + hex + ".bsg"), true);
  EXPECT_EQ(r.getCookie(), c);
}

}  // namespace
