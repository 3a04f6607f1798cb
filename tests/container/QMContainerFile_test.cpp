#include <gtest/gtest.h>
#include <unistd.h>
#include <zyldb/container/QMContainerFile.h>
#include <zyldb/platform/TextUtil.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/FaultyFileService_internal.h"

namespace {

namespace fs = std::filesystem;
using Reader = QMContainerFile::Reader;
using Faulty = zyl::testing::FaultyFileService;

LightweightString<wchar_t> W(const std::string& s) { return fromUTF8(s.c_str()); }

std::string slurp(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class ContainerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Writes `items` to file_ with columns Cookie and Rating, each item rated
  // by its position from 1.
  void writeBin(const std::vector<Cookie>& items, const char* name, bool permanent) {
    DBFieldDesc descs[] = {{"Cookie", DBFieldTypes::text_s}, {"Rating", DBFieldTypes::long_}, {}};
    QMContainerFile::Writer w(descs);
    EXPECT_EQ(w.addItem(Cookie()), nullptr);  // the invalid cookie is refused
    for (size_t i = 0; i < items.size(); ++i) w.addItem(items[i])->set_field(1, int(i) + 1);
    EXPECT_EQ(w.get_num_records(), items.size());
    w.setName(name);
    w.setPermanent(permanent);
    w.setAttrib("Speed", "23.976");
    w.save(W(file_));
  }
  size_t filesInDir() const {
    return std::distance(fs::directory_iterator(dir_), fs::directory_iterator());
  }

  const fs::path dir_ =
      fs::temp_directory_path() / ("zyldb_container_" + std::to_string(::getpid()));
  const std::string file_ = (dir_ / "bin.bsg").string();
};

TEST_F(ContainerTest, WriterReaderRoundTripReplacingTheOldFile) {
  Cookie a = Cookie::make('C'), b = Cookie::make('C');
  writeBin({b}, "old", false);
  writeBin({a, b, a}, "S\xc3\xa9lects", true);
  EXPECT_EQ(filesInDir(), 1u);  // no temporary file left

  Reader r(W(file_), false);
  ASSERT_TRUE(r.valid());
  ASSERT_EQ(r.getNumItems(), 3u);
  EXPECT_EQ(r.getItem(2).getCookie(), a);  // duplicates keep their place
  EXPECT_EQ(r.getContents().size(), 2u);
  EXPECT_TRUE(r.contains(b));
  EXPECT_FALSE(r.contains(Cookie::make('C')));
  EXPECT_EQ(r.getItem(3).getRecord(), nullptr);

  int rating = r.getItemAttribIndex("RATING");
  ASSERT_EQ(rating, 1);
  Reader::Item item = r.getItem(1);
  EXPECT_EQ(item.getAttrib(rating, -1), 2);
  EXPECT_EQ(item.getAttrib(rating), "2");
  EXPECT_EQ(item.getAttrib(9, 7), 7);  // no such column: the default
  EXPECT_EQ(item.getAttrib(9), "");

  EXPECT_EQ(r.getNameW().view(), std::wstring_view(L"S\u00e9lects"));
  EXPECT_TRUE(r.isPermanent());
  EXPECT_DOUBLE_EQ(r.getAttrib("speed", 0.0), 23.976);
  EXPECT_EQ(r.getAttrib("Speed", 1), 23);
  EXPECT_EQ(r.getAttrib("Missing", 7), 7);

  Reader header(W(file_), true);  // parameters and columns, no items
  EXPECT_EQ(header.getNumItems(), 0u);
  EXPECT_FALSE(header.contains(a));
  EXPECT_TRUE(header.isPermanent());

  writeBin({}, "emptied", false);  // no rows to write: replaced all the same
  EXPECT_EQ(filesInDir(), 1u);
  Reader again(W(file_), false);
  EXPECT_EQ(again.getName(), "emptied");
  EXPECT_EQ(again.getNumItems(), 0u);
}

TEST_F(ContainerTest, FailedReplacementLeavesOldContainer) {
  writeBin({Cookie::make('C')}, "old", false);
  const std::string before = slurp(file_);
  Faulty faulty;
  zyl::testing::ScopedFileService use(&faulty);
  // The text file layer renames its own temporary file onto the ".tmp" file
  // first; the second move is the one onto the container.
  struct {
    Faulty::Op op;
    int nth;
  } faults[] = {{Faulty::kWrite, 1}, {Faulty::kMove, 1}, {Faulty::kMove, 2}};
  for (const auto& f : faults) {
    SCOPED_TRACE(testing::Message() << "op " << f.op << " nth " << f.nth);
    faulty.reset();
    faulty.setTornWrites(true);
    faulty.failNth(f.op, f.nth);
    writeBin({Cookie::make('C'), Cookie::make('C')}, "new", true);
    EXPECT_EQ(faulty.failures(f.op), 1);
    EXPECT_EQ(slurp(file_), before);
    EXPECT_EQ(filesInDir(), 1u) << "stray temporary file";
  }
}

// trySave tells a written container from a failed one, with items or
// without (save_text's own count cannot tell those apart).
TEST_F(ContainerTest, TrySaveReportsFailures) {
  DBFieldDesc descs[] = {{"Cookie", DBFieldTypes::text_s}, {}};
  for (int items : {0, 2}) {
    SCOPED_TRACE(items);
    QMContainerFile::Writer w(descs);
    for (int i = 0; i < items; ++i) w.addItem(Cookie::make('C'));
    w.setName("bin");
    EXPECT_FALSE(w.trySave(W((dir_ / "no-such-dir" / "x.bsg").string())));
    EXPECT_EQ(w.saveError(), "No such file or directory");
    fs::remove(file_);
    EXPECT_TRUE(w.trySave(W(file_)));  // new
    EXPECT_EQ(w.saveError(), "");
    EXPECT_TRUE(w.trySave(W(file_)));  // replacing
    Faulty faulty;
    zyl::testing::ScopedFileService use(&faulty);
    for (Faulty::Op op : {Faulty::kWrite, Faulty::kMove}) {
      for (int nth : {1, 2}) {
        faulty.reset();
        faulty.failNth(op, nth);
        const bool saved = w.trySave(W(file_));
        EXPECT_EQ(saved, faulty.failures(op) == 0) << op << " " << nth;
        if (!saved) {
          EXPECT_EQ(w.saveError(), "injected failure");
        }
        EXPECT_EQ(filesInDir(), 1u);
      }
    }
    EXPECT_EQ(Reader(W(file_), false).getNumItems(), static_cast<unsigned>(items));
  }
}

TEST_F(ContainerTest, InvalidContainers) {
  Cookie a = Cookie::make('C');
  std::string upper = a.asString().c_str();
  for (size_t i = 1; i < upper.size(); ++i) upper[i] = char(toupper(upper[i]));
  std::ofstream(file_) << "\"ZYLDB:Rev 1\"\n\"Permanent:maybe\"\n\"ZYLDB\"\n\"33\"\n\"text_s\"\n"
                       << "\"Cookie\"\n\"" << upper << "\"\n";
  Reader odd(W(file_), false);
  EXPECT_TRUE(odd.valid());
  EXPECT_FALSE(odd.isPermanent());
  // getItem parses strictly, contains() leniently.
  EXPECT_FALSE(odd.getItem(0).getCookie().isValid());
  EXPECT_TRUE(odd.contains(a));

  const std::string noCookie = (dir_ / "reels.bsg").string();
  std::ofstream(noCookie) << "\"ZYLDB:Rev 1\"\n\"Name:x\"\n\"ZYLDB\"\n\"10\"\n\"text\"\n\"Reel\"\n"
                          << "\"" << a.asString().c_str() << "\"\n";
  for (const std::string& file : {noCookie, (dir_ / "missing.bsg").string()}) {
    SCOPED_TRACE(file);
    Reader r(W(file), false);
    EXPECT_FALSE(r.valid());
    EXPECT_EQ(r.getItem(0).getRecord(), nullptr);
    EXPECT_EQ(r.getName(), "");
    EXPECT_EQ(r.getItemAttribIndex("Reel"), -1);
    EXPECT_FALSE(r.contains(a));
  }
}

TEST(ContainerNames, CookieFromFilename) {
  Cookie c = Cookie::make('C');
  std::string name = std::string("/bins/") + c.asString().c_str();
  struct {
    const char* ext;
    CookieType type;
  } cases[] = {{".bsg", 'M'}, {".BSG", 'M'}, {".rak", 'B'},
               {".rAK", 'B'}, {".log", 'C'}, {"", 'C'}};
  for (const auto& k : cases) {
    SCOPED_TRACE(k.ext);
    Cookie got = QMContainerFile::getCookieFromFilename(W(name + k.ext));
    EXPECT_EQ(got.getType(), k.type);
    EXPECT_EQ(got.getId(), c.getId());
  }
  EXPECT_FALSE(QMContainerFile::getCookieFromFilename(W("/bins/selects.bsg")).isValid());
  EXPECT_EQ(Reader(W(name + ".bsg"), true).getCookie(), c);  // the reader does not convert
}

}  // namespace
