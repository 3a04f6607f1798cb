#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/configb.h>

#include <cctype>
#include <cstring>
#include <iostream>
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

std::string writeLine(const dbrecord& r) {
  TextFile f;
  r.write(f);
  return std::string(f.line(0), f.lineLength(0));
}

std::pair<int, Values> readLine(const std::string& line) {
  TextFile f;
  f.appendLine(std::string_view(line));
  dbrecord r(2);
  int n = r.read(f);
  return {n, values(r)};
}

TEST(DbRecordLine, WriteEscapesInsideQuotes) {
  struct Case {
    Values vals;
    std::string line;
  } cases[] = {
      {{"a", "b\"c", "x\ny"}, R"("a","b""c","x\ny")"},
      {{"a\r\nb", std::string("n\0ul", 4)}, R"("a\nb","nul")"},
      {{"back\\slash", "lit\\n", ""}, R"("back\slash","lit\n","")"},
      {{}, ""},
      // Values of eight bytes and more are checked a word at a time.
      {{"12345678\"", "abcdefghijklmno\r", "\xC3\xA9\xFF\x80\x7F\x01\t\x1F"},
       "\"12345678\"\"\",\"abcdefghijklmno\",\"\xC3\xA9\xFF\x80\x7F\x01\t\x1F\""},
      {{"a-long-value-with\na-break-late"}, R"("a-long-value-with\na-break-late")"},
  };
  for (const Case& c : cases) {
    dbrecord r = makeRecord(c.vals);
    r.setChanged();
    EXPECT_EQ(writeLine(r), c.line);
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
      {R"("  padded  ")", 1, {"padded"}},
      {R"("a",)", 1, {"a"}},
      {R"("a",  )", 2, {"a", ""}},
      {"\"a\",\t\"b\"", 3, {"a", "b"}},
      {R"(ab""cd,e"f"g)", 2, {"ab\"cd", "efg"}},
      {R"("back\slash","trail\n")", 2, {"back\\slash", "trail"}},
      {"\" \xC3\xA9t\xC3\xA9 \"", 1, {"\xC3\xA9t\xC3\xA9"}},
      {v5000, 2, {v4095, v904}},  // the 4096th byte is the separator
      {v4095 + "v", 1, {v4095}},
      {'"' + v4095 + R"(","b")", 2, {v4095, "b"}},  // a full value keeps its comma
      {'"' + v5000 + R"(","b")", 3, {v4095, v904, "b"}},
      // Runs longer than sixteen bytes, with the stops late in them.
      {R"("quoted, with commas, past sixteen bytes",x)",
       2,
       {"quoted, with commas, past sixteen bytes", "x"}},
      {R"(unquoted value longer than sixteen,and more)",
       2,
       {"unquoted value longer than sixteen", "and more"}},
      {R"("a plain stretch then an escape 
 and ""more""   ")",
       1,
       {"a plain stretch then an escape \n and \"more\""}},
      {R"("\nstarts with a break","""quoted""")", 2, {"\nstarts with a break", "\"quoted\""}},
      // A doubled quote fills the value; the byte after it is the separator.
      {'"' + std::string(4094, 'v') + R"(""x",y)", 2, {std::string(4094, 'v') + '"', ",y"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 40));
    auto [count, vals] = readLine(c.line);
    EXPECT_EQ(count, c.count);
    EXPECT_EQ(vals, c.vals);
  }
}

TEST(DbRecordLine, EmptyLinesGiveNothingAndLeaveFlagsAlone) {
  TextFile f;
  f.appendLine(std::string_view(""));
  f.appendLine(std::string_view(" \t "));
  dbrecord r = makeRecord({"old"});
  r.clearChanged();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(r.read(f), 0);  // the last one is past the end
  EXPECT_EQ(r.get_num_fields(), 0u);
  EXPECT_EQ(f.currentLine, 3u);
  EXPECT_FALSE(r.isChanged());
}

TEST(DbRecordLine, RandomValuesWithinBoundsRoundTrip) {
  const unsigned int seed = std::random_device{}();
  std::cout << "seed " << seed << "\n";
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

TEST(DbRecordStore, SetFieldAlwaysMarksSetFieldOnlyOnChange) {
  zyldb table;
  dbrecord r(2);
  r.set_container(&table);
  EXPECT_EQ(r.set_field(0, "same", true), 1);
  r.clearChanged();
  table.clear_changed();
  EXPECT_EQ(r.setField(0, LightweightString<char>("same")), 1);
  EXPECT_EQ(r.setField(1, LightweightString<char>()), 1);
  EXPECT_FALSE(r.isChanged());
  EXPECT_EQ(table.get_changed(), 0);
  EXPECT_EQ(r.set_field(0, "same", true), 1);
  EXPECT_TRUE(r.isChanged());
  EXPECT_EQ(table.get_changed(), 1);
  EXPECT_EQ(r.setField(2, LightweightString<char>("x")), 0);
}

TEST(DbRecordStore, FormatsTrimsAndChecksIndexes) {
  dbrecord r(1);
  auto stored = [&](int result) { return result == 1 ? std::string(r.get_field(0)) : "refused"; };
  EXPECT_EQ(stored(r.set_field(0, "   abc  ", true)), "abc  ");
  EXPECT_EQ(stored(r.set_field(0, "   abc  ", false)), "   abc  ");
  EXPECT_EQ(stored(r.set_field(0, " \xA0x", true)), "\xA0x");
  EXPECT_EQ(stored(r.set_field(0, nullptr, true)), "");
  EXPECT_EQ(stored(r.set_field(0, 1.0)), "1.00000000");
  EXPECT_EQ(stored(r.set_field(0, -7)), "-7");
  EXPECT_EQ(stored(r.set_field(0, 4000000000u)), "4000000000");
  EXPECT_EQ(stored(r.set_field(0, true)), "t");
  EXPECT_EQ(stored(r.set_field(0, false)), "f");
  EXPECT_EQ(stored(r.set_field(0, "two")), "two");  // not the bool overload
  EXPECT_EQ(r.set_field(-1, "x", true), 0);
  EXPECT_EQ(r.set_field(1, 3), 0);
  EXPECT_EQ(r.get_num_fields(), 1u);
}

TEST(DbRecordStore, CopyAndAssignment) {
  zyldb table, other;
  dbrecord src = makeRecord({" a", "b", "  c", "", "e "});
  src.setTag(1);
  src.set_container(&table);
  dbrecord copy(src);
  EXPECT_EQ(copy.get_container(), nullptr);
  EXPECT_FALSE(copy.isChanged());
  EXPECT_EQ(copy.getTag(), 0);
  EXPECT_THAT(values(copy), ElementsAre(" a", "b", "  c", "", "e "));

  dbrecord dst = makeRecord({"x", "y", "z"});
  dst.set_container(&other);
  dst.setTag(2);
  dst.clearChanged();
  dst = src;
  EXPECT_THAT(values(dst), ElementsAre("a", "b", "c", "", "e "));
  EXPECT_TRUE(dst.isChanged());
  EXPECT_EQ(dst.get_container(), &other);
  EXPECT_EQ(dst.getTag(), 2);
  EXPECT_EQ(other.get_changed(), 1);
  const dbrecord& self = dst = makeRecord({"  only"});
  dst = self;
  EXPECT_THAT(values(dst), ElementsAre("only"));
}

TEST(DbRecordAccess, CopyOutOutOfRangeAndShapeChanges) {
  dbrecord r = makeRecord({"abcdef", ""});
  char buf[8];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(r.in_field(0, buf, 3), 1);
  EXPECT_THAT(buf, StrEq("abc"));
  EXPECT_EQ(r.in_field(1, buf, 5), 1);
  EXPECT_EQ(buf[0], 0);
  buf[0] = '#';
  EXPECT_EQ(r.in_field(2, buf, 5), 0);
  EXPECT_EQ(r.in_field(-1, buf, 5), 0);
  EXPECT_EQ(buf[0], '#');
  EXPECT_EQ(r.get_field(2), nullptr);
  EXPECT_THAT(r.get_field(1), StrEq(""));
  EXPECT_EQ(&r.getField(70000 & 0xFFFF), &dbrecord(1).getField(9));
  EXPECT_TRUE(r.getField(2).empty());

  // Shape changes keep the flags.
  r = makeRecord({"a", "b", "c"});
  r.clearChanged();
  r.removeField(1);
  r.removeField(2);
  EXPECT_THAT(values(r), ElementsAre("a", "c"));
  int widths[1] = {0};
  r.resizeRecord(4, nullptr, false);
  r.resizeRecord(-1, widths, false);
  EXPECT_EQ(r.get_num_fields(), 2u);
  r.resizeRecord(3, widths, false);
  EXPECT_THAT(values(r), ElementsAre("a", "c", ""));
  EXPECT_EQ(r.is_blank(), 0);
  r.clear();
  EXPECT_EQ(r.get_num_fields(), 3u);
  EXPECT_EQ(r.is_blank(), 1);
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
  configb cfg;
  EXPECT_EQ(r.update(&cfg), 0);  // no container
  r.set_container(&table);

  struct Case {
    int editable;
    int written;
    std::string keys;
  } cases[] = {
      {1, 5, "slate/take=12-1A name=12-1A reelid=001 notes=good reelid1=S01 lab_reel=L9 scene=12 "},
      {0, 3, "slate/take=12-1A name=12-1A reelid=001 notes=good scene=12 "},
  };
  for (const Case& c : cases) {
    zyl::librarySettings().dbvReelFieldEditable = c.editable;
    configb out;
    EXPECT_EQ(r.update(&out), c.written);
    std::string keys;
    for (size_t k = 0; k < out.size(); ++k)
      keys += std::string(out.keyAt(k).view()) + "=" + std::string(out.valueAt(k).view()) + " ";
    EXPECT_EQ(keys, c.keys);
  }
  zyl::librarySettings() = saved;

  zyldb noName(std::vector<DBFieldDesc>{{LightweightString<char>("Reel"), DBFieldTypes::text}});
  dbrecord lone(1);
  lone.set_container(&noName);
  EXPECT_EQ(lone.update(&cfg), 0);
  EXPECT_EQ(cfg.size(), 0u);
}

}  // namespace
