#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/configb.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include "db/LibrarySettings_internal.h"

namespace {

using ::testing::ElementsAre;
using ::testing::StrEq;
using Values = std::vector<std::string>;

Values values(const dbrecord& r) {
  Values out;
  for (unsigned int i = 0; i < r.get_num_fields(); ++i)
    out.emplace_back(r.getField(static_cast<unsigned short>(i)).view());
  return out;
}

dbrecord makeRecord(const Values& vals) {
  dbrecord r(static_cast<unsigned short>(vals.size()));
  for (size_t i = 0; i < vals.size(); ++i)
    r.setField(static_cast<unsigned short>(i), LightweightString<char>(vals[i]));
  return r;
}

TEST(DbRecordLine, WriteEscapesInsideQuotes) {
  struct Case {
    Values vals;
    std::string line;
  } cases[] = {
      {{"a", "b\"c", "x\ny"}, R"("a","b""c","x\ny")"},
      // Carriage returns and NULs as hex escapes, a backslash too when an
      // 'n' follows it.
      {{"a\r\nb", std::string("n\0ul", 4), "back\\slash", ""},
       R"("a"x0D\nb","n"x00ul","back\slash","")"},
      {{"12345678\"", "abcdefghijklmno\r", "\xC3\xA9\xFF\x80\x7F\x01\t\x1F"},
       "\"12345678\"\"\",\"abcdefghijklmno\"x0D\",\"\xC3\xA9\xFF\x80\x7F\x01\t\x1F\""},
      // Blanks at either end, a literal backslash-n, and a first value that
      // reads as the terminator.
      {{"ZyLdB", " a\t", "C:\\new", "ZYLDB"}, R"(""x5AyLdB",""x20a"x09","C:"x5Cnew","ZYLDB")"},
  };
  for (const Case& c : cases) {
    dbrecord r = makeRecord(c.vals);
    r.setChanged();
    TextFile f;
    r.write(f);
    EXPECT_EQ(std::string(f.line(0), f.lineLength(0)), c.line);
    EXPECT_FALSE(r.isChanged());
  }
}

TEST(DbRecordLine, ReadFollowsTheLineRules) {
  const std::string v4095(4095, 'v'), v5000(5000, 'v'), v904(904, 'v');
  struct Case {
    std::string line;
    int count;
    Values vals;
  } cases[] = {
      {R"("a","b""c","x\ny")", 3, {"a", "b\"c", "x\ny"}},
      {R"(a, b ,"c,d")", 3, {"a", "b", "c,d"}},
      {R"("a",)", 1, {"a"}},
      {"\"a\",\t\"b\"", 3, {"a", "b"}},
      {R"(ab""cd,e"f"g)", 2, {"ab\"cd", "efg"}},
      {v5000, 2, {v4095, v904}},  // the 4096th byte is the separator
      {'"' + v5000 + R"(","b")", 3, {v4095, v904, "b"}},
      {R"("quoted, with commas, past sixteen bytes",x)",
       2,
       {"quoted, with commas, past sixteen bytes", "x"}},
      // A doubled quote fills the value; the byte after it is the separator.
      {'"' + std::string(4094, 'v') + R"(""x",y)", 2, {std::string(4094, 'v') + '"', ",y"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 40));
    TextFile f;
    f.appendLine(std::string_view(c.line));
    dbrecord r(2);
    EXPECT_EQ(r.read(f), c.count);
    EXPECT_EQ(values(r), c.vals);
  }
  TextFile blank;
  blank.appendLine(std::string_view(" \t "));
  dbrecord r = makeRecord({"old"});
  r.clearChanged();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(r.read(blank), 0);  // the last one is past the end
  EXPECT_EQ(r.get_num_fields(), 0u);
  EXPECT_FALSE(r.isChanged());
}

TEST(DbRecordLine, RandomValuesWithinBoundsRoundTrip) {
  const unsigned int seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 rng(seed);
  const std::string alphabet = "ab Z9,\"\\\n\t'\x01\x7f\xC3\xA9\xFF;:";
  auto randomValue = [&] {
    size_t len = rng() % 4 == 0 ? rng() % 4096 : rng() % 12;
    std::string v;
    for (size_t i = 0; i < len; ++i) v += alphabet[rng() % alphabet.size()];
    // Stay within what the format round-trips.
    for (size_t p; (p = v.find("\\n")) != std::string::npos;) v[p] = '/';
    while (!v.empty() && std::isspace(static_cast<unsigned char>(v.back()))) v.pop_back();
    while (!v.empty() && std::isspace(static_cast<unsigned char>(v.front()))) v.erase(0, 1);
    return v;
  };
  TextFile f;
  std::vector<Values> written;
  for (int row = 0; row < 300; ++row) {
    Values vals(1 + rng() % 8);
    for (std::string& v : vals) v = randomValue();
    makeRecord(vals).write(f);
    written.push_back(vals);
  }
  dbrecord r(0);
  for (const Values& vals : written) {
    ASSERT_EQ(r.read(f), static_cast<int>(vals.size()));
    ASSERT_EQ(values(r), vals);
  }
}

TEST(DbRecordStore, SetFieldFormatsTrimsAndMarksChanges) {
  zyldb table;
  dbrecord r(2);
  r.set_container(&table);
  r.set_field(0, "same", true);
  r.clearChanged();
  table.clear_changed();
  EXPECT_EQ(r.setField(0, LightweightString<char>("same")), 1);
  EXPECT_FALSE(r.isChanged());
  EXPECT_EQ(r.set_field(0, "same", true), 1);  // marks even when equal
  EXPECT_TRUE(r.isChanged());
  EXPECT_EQ(table.get_changed(), 1);

  auto stored = [&](int result) { return result == 1 ? std::string(r.get_field(0)) : "refused"; };
  EXPECT_EQ(stored(r.set_field(0, "   abc  ", true)), "abc  ");
  EXPECT_EQ(stored(r.set_field(0, 1.0)), "1.00000000");
  EXPECT_EQ(stored(r.set_field(0, true)) + stored(r.set_field(0, false)), "tf");
  EXPECT_EQ(stored(r.set_field(0, "two")), "two");  // not the bool overload
  EXPECT_EQ(r.set_field(-1, "x", true) + r.set_field(2, 3), 0);
}

TEST(DbRecordStore, CopyAndAssignment) {
  zyldb table, other;
  dbrecord src = makeRecord({" a", "b", "  c", "", "e "});
  src.setTag(1);
  src.set_container(&table);
  EXPECT_THAT(values(dbrecord(src)), ElementsAre(" a", "b", "  c", "", "e "));
  dbrecord dst = makeRecord({"x", "y", "z"});
  dst.set_container(&other);
  dst.setTag(2);
  dst = src;
  EXPECT_THAT(values(dst), ElementsAre("a", "b", "c", "", "e "));
  EXPECT_EQ(dst.get_container(), &other);
  EXPECT_EQ(dst.getTag(), 2);
  EXPECT_EQ(other.get_changed(), 1);
}

TEST(DbRecordAccess, CopyOutOutOfRangeAndShapeChanges) {
  dbrecord r = makeRecord({"abcdef", "b", "c"});
  char buf[8] = "#######";
  EXPECT_EQ(r.in_field(0, buf, 3), 1);
  EXPECT_THAT(buf, StrEq("abc"));
  EXPECT_EQ(r.in_field(3, buf, 5) + r.in_field(-1, buf, 5), 0);
  EXPECT_THAT(buf, StrEq("abc"));
  r.clearChanged();  // shape changes keep the flags
  r.removeField(1);
  r.removeField(2);
  int widths[1] = {0};
  r.resizeRecord(3, widths, false);
  EXPECT_THAT(values(r), ElementsAre("abcdef", "c", ""));
  EXPECT_FALSE(r.isChanged());
}

TEST(DbRecordUpdate, PublishesMappedColumnsPerSetting) {
  const zyl::LibrarySettings saved = zyl::librarySettings();
  std::vector<DBFieldDesc> cols;
  for (const char* n : {"Name", "REEL", "Notes", "snd reel", "Take", "lab reel", "Scene"})
    cols.push_back({LightweightString<char>(n), DBFieldTypes::text});
  zyldb table(cols);
  dbrecord r(7);
  int i = 0;
  for (const char* v : {"12-1A", "001", "good", "S01", "A", "L9", "12"}) r.set_field(i++, v, true);
  r.set_container(&table);
  for (int editable : {1, 0}) {
    zyl::librarySettings().dbvReelFieldEditable = editable;
    configb out;
    EXPECT_EQ(r.update(&out), editable ? 5 : 3);
    std::string keys;
    for (size_t k = 0; k < out.size(); ++k)
      keys += std::string(out.keyAt(k).view()) + "=" + std::string(out.valueAt(k).view()) + " ";
    EXPECT_EQ(keys, editable ? "slate/take=12-1A name=12-1A reelid=001 notes=good reelid1=S01 "
                               "lab_reel=L9 scene=12 "
                             : "slate/take=12-1A name=12-1A reelid=001 notes=good scene=12 ");
  }
  zyl::librarySettings() = saved;
}

}  // namespace
