#include <zyldb/db/dbrecord.h>

#include <cstring>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zyldb/db/zyldb.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/configb.h>

#include "db/LibrarySettings_internal.h"

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::StrEq;

std::vector<std::string> values(const dbrecord& r) {
  std::vector<std::string> out;
  for (unsigned int i = 0; i < r.get_num_fields(); ++i)
    out.emplace_back(r.getField(static_cast<unsigned short>(i)).view());
  return out;
}

dbrecord makeRecord(const std::vector<std::string>& vals) {
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

struct ReadResult {
  int count;
  std::vector<std::string> values;
};

ReadResult readLine(const std::string& line) {
  TextFile f;
  f.appendLine(std::string_view(line));
  dbrecord r(2);
  int n = r.read(f);
  return {n, values(r)};
}

TEST(DbRecordWrite, EscapesEveryFieldInQuotes) {
  struct Case {
    std::vector<std::string> vals;
    std::string line;
  } cases[] = {
      {{"x", "y", "z"}, R"("x","y","z")"},
      {{"a", "b\"c", "x\ny"}, R"("a","b""c","x\ny")"},
      {{"a\r\nb"}, R"("a\nb")"},
      {{std::string("n\0ul", 4)}, R"("nul")"},
      {{"back\\slash", "lit\\n"}, R"("back\slash","lit\n")"},
      {{"", "", ""}, R"("","","")"},
      {{}, ""},
  };
  for (const Case& c : cases) {
    dbrecord r = makeRecord(c.vals);
    r.setChanged();
    EXPECT_EQ(writeLine(r), c.line);
    EXPECT_FALSE(r.isChanged());
  }
}

TEST(DbRecordRead, FollowsTheLineRules) {
  struct Case {
    std::string line;
    int count;
    std::vector<std::string> vals;
  } cases[] = {
      {R"("a","b""c","x\ny")", 3, {"a", "b\"c", "x\ny"}},
      {R"(a, b ,"c,d")", 3, {"a", "b", "c,d"}},
      {R"("  padded  ")", 1, {"padded"}},
      {R"("a",)", 1, {"a"}},
      {R"("a",  )", 2, {"a", ""}},
      {"\"a\",\t\"b\"", 3, {"a", "b"}},
      {R"(ab""cd,e"f"g)", 2, {"ab\"cd", "efg"}},
      {R"("back\slash")", 1, {"back\\slash"}},
      {R"("trail\n")", 1, {"trail"}},
      {"\" \xC3\xA9t\xC3\xA9 \"", 1, {"\xC3\xA9t\xC3\xA9"}},
      {R"("",x)", 2, {"", "x"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    ReadResult r = readLine(c.line);
    EXPECT_EQ(r.count, c.count);
    EXPECT_THAT(r.values, ElementsAreArray(c.vals));
  }
}

TEST(DbRecordRead, CutsValuesAt4095Bytes) {
  struct Case {
    size_t length;
    std::vector<size_t> pieces;
  } cases[] = {
      {4095, {4095}},
      {4096, {4095}},  // the 4096th byte is taken as the separator
      {4097, {4095, 1}},
      {5000, {4095, 904}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    ReadResult r = readLine(std::string(c.length, 'v'));
    EXPECT_EQ(r.count, static_cast<int>(c.pieces.size()));
    std::vector<size_t> got;
    for (const std::string& v : r.values) got.push_back(v.size());
    EXPECT_EQ(got, c.pieces);
  }
  // A full value followed by its separator is one field, quoted or not.
  ReadResult quoted = readLine('"' + std::string(4095, 'q') + R"(","b")");
  EXPECT_EQ(quoted.count, 2);
  EXPECT_THAT(quoted.values, ElementsAre(std::string(4095, 'q'), "b"));
  ReadResult bare = readLine(std::string(4095, 'q') + ",b");
  EXPECT_EQ(bare.count, 2);
  EXPECT_THAT(bare.values, ElementsAre(std::string(4095, 'q'), "b"));
  ReadResult longQuoted = readLine('"' + std::string(5000, 'q') + R"(","b")");
  EXPECT_EQ(longQuoted.count, 3);
  EXPECT_THAT(longQuoted.values, ElementsAre(std::string(4095, 'q'), std::string(904, 'q'), "b"));
}

TEST(DbRecordRead, EmptyLinesGiveNothingAndLeaveFlagsAlone) {
  TextFile f;
  f.appendLine(std::string_view(""));
  f.appendLine(std::string_view(" \t "));
  dbrecord r(3);
  r.set_field(0, "old", true);
  r.clearChanged();
  EXPECT_EQ(r.read(f), 0);
  EXPECT_EQ(r.get_num_fields(), 0u);
  EXPECT_EQ(r.read(f), 0);
  EXPECT_EQ(r.read(f), 0);  // past the end
  EXPECT_EQ(f.currentLine, 3u);
  EXPECT_FALSE(r.isChanged());
}

TEST(DbRecordRead, RoundTripsRandomValuesWithinBounds) {
  const unsigned int seed = std::random_device{}();
  std::cout << "DbRecordRead.RoundTripsRandomValuesWithinBounds seed " << seed << "\n";
  SCOPED_TRACE(seed);
  std::mt19937 rng(seed);
  const std::string alphabet = "ab Z9,\"\\\n\t'\x01\x7f\xC3\xA9\xFF;:";
  auto randomValue = [&] {
    size_t len = rng() % 4 == 0 ? rng() % 4096 : rng() % 12;
    std::string v;
    for (size_t i = 0; i < len; ++i) v += alphabet[rng() % alphabet.size()];
    // Keep within what the format round-trips: no backslash before 'n', no
    // leading or trailing white space.
    for (size_t p; (p = v.find("\\n")) != std::string::npos;) v[p] = '/';
    auto blank = [](char c) { return c == ' ' || c == '\n' || c == '\t'; };
    while (!v.empty() && blank(v.back())) v.pop_back();
    while (!v.empty() && blank(v.front())) v.erase(0, 1);
    return v;
  };

  TextFile f;
  std::vector<std::vector<std::string>> written;
  for (int row = 0; row < 300; ++row) {
    std::vector<std::string> vals(1 + rng() % 8);
    for (std::string& v : vals) v = randomValue();
    makeRecord(vals).write(f);
    written.push_back(vals);
  }
  dbrecord r(0);
  for (const auto& vals : written) {
    ASSERT_EQ(r.read(f), static_cast<int>(vals.size()));
    ASSERT_EQ(values(r), vals);
  }
}

TEST(DbRecordStore, SetFieldAlwaysMarksSetFieldOnlyOnChange) {
  zyldb table;
  dbrecord r(2);
  r.set_container(&table);
  r.set_field(0, "same", true);
  EXPECT_TRUE(r.isChanged());
  EXPECT_EQ(table.get_changed(), 1);

  r.clearChanged();
  table.clear_changed();
  EXPECT_EQ(r.setField(0, LightweightString<char>("same")), 1);
  EXPECT_EQ(r.setField(1, LightweightString<char>()), 1);  // empty equals empty
  EXPECT_FALSE(r.isChanged());
  EXPECT_EQ(table.get_changed(), 0);

  EXPECT_EQ(r.set_field(0, "same", true), 1);
  EXPECT_TRUE(r.isChanged());
  EXPECT_EQ(table.get_changed(), 1);

  r.clearChanged();
  EXPECT_EQ(r.setField(0, LightweightString<char>("other")), 1);
  EXPECT_TRUE(r.isChanged());
  EXPECT_EQ(r.setField(2, LightweightString<char>("x")), 0);
}

TEST(DbRecordStore, FormatsAndTrims) {
  dbrecord r(1);
  struct Case {
    std::function<int()> store;
    const char* stored;
  } cases[] = {
      {[&] { return r.set_field(0, "   abc  ", true); }, "abc  "},
      {[&] { return r.set_field(0, "   abc  ", false); }, "   abc  "},
      {[&] { return r.set_field(0, "\xA0x", true); }, "\xA0x"},
      {[&] { return r.set_field(0, nullptr, true); }, ""},
      {[&] { return r.set_field(0, 1.0); }, "1.00000000"},
      {[&] { return r.set_field(0, 2.5); }, "2.50000000"},
      {[&] { return r.set_field(0, -7); }, "-7"},
      {[&] { return r.set_field(0, 4000000000u); }, "4000000000"},
      {[&] { return r.set_field(0, true); }, "t"},
      {[&] { return r.set_field(0, false); }, "f"},
      {[&] { return r.set_field(0, "two"); }, "two"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.store(), 1);
    EXPECT_THAT(r.get_field(0), StrEq(c.stored));
  }
  EXPECT_EQ(r.set_field(-1, "x", true), 0);
  EXPECT_EQ(r.set_field(1, "x", true), 0);
  EXPECT_EQ(r.set_field(1, 3), 0);
  EXPECT_EQ(r.get_num_fields(), 1u);
}

TEST(DbRecordCopy, AssignmentTrimsAndKeepsTargetIdentity) {
  zyldb table;
  dbrecord src = makeRecord({" a", "b", "  c", "", "e "});
  src.setTag(1);
  src.set_container(&table);

  dbrecord copy(src);
  EXPECT_EQ(copy.get_container(), nullptr);
  EXPECT_FALSE(copy.isChanged());
  EXPECT_EQ(copy.getTag(), 0);
  EXPECT_THAT(values(copy), ElementsAre(" a", "b", "  c", "", "e "));

  zyldb other;
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

  dst = makeRecord({"  only"});
  EXPECT_THAT(values(dst), ElementsAre("only"));
  const dbrecord& self = dst;
  dst = self;
  EXPECT_THAT(values(dst), ElementsAre("only"));
}

TEST(DbRecordAccess, OutOfRangeAndCopyOut) {
  dbrecord r = makeRecord({"abcdef", "", "xyz"});
  char buf[8];
  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(r.in_field(0, buf, 3), 1);
  EXPECT_THAT(buf, StrEq("abc"));
  EXPECT_EQ(buf[3], 0);

  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(r.in_field(1, buf, 5), 1);
  EXPECT_EQ(buf[0], 0);

  std::memset(buf, '#', sizeof buf);
  EXPECT_EQ(r.in_field(3, buf, 5), 0);
  EXPECT_EQ(r.in_field(-1, buf, 5), 0);
  EXPECT_EQ(buf[0], '#');

  EXPECT_EQ(r.get_field(3), nullptr);
  EXPECT_THAT(r.get_field(1), StrEq(""));
  const LightweightString<char>& missing = r.getField(70000 & 0xFFFF);
  EXPECT_TRUE(missing.empty());
  EXPECT_EQ(&missing, &dbrecord(1).getField(9));
}

TEST(DbRecordShape, ResizeRemoveClear) {
  dbrecord r = makeRecord({"a", "b", "c"});
  r.clearChanged();
  r.removeField(1);
  EXPECT_THAT(values(r), ElementsAre("a", "c"));
  r.removeField(2);
  EXPECT_THAT(values(r), ElementsAre("a", "c"));

  int widths[1] = {0};
  r.resizeRecord(4, nullptr, false);
  EXPECT_EQ(r.get_num_fields(), 2u);
  r.resizeRecord(-1, widths, false);
  EXPECT_EQ(r.get_num_fields(), 2u);
  r.resizeRecord(4, widths, false);
  EXPECT_THAT(values(r), ElementsAre("a", "c", "", ""));
  r.resizeRecord(1, widths, false);
  EXPECT_THAT(values(r), ElementsAre("a"));
  EXPECT_FALSE(r.isChanged());

  EXPECT_EQ(r.is_blank(), 0);
  r.clear();
  EXPECT_EQ(r.get_num_fields(), 1u);
  EXPECT_EQ(r.is_blank(), 1);
  EXPECT_EQ(dbrecord(0).is_blank(), 1);
}

class DbRecordUpdate : public ::testing::Test {
 protected:
  void TearDown() override { zyl::librarySettings() = saved_; }

  static std::vector<DBFieldDesc> columns(std::vector<const char*> names) {
    std::vector<DBFieldDesc> d;
    for (const char* n : names) d.push_back({LightweightString<char>(n), DBFieldTypes::text});
    return d;
  }

  zyl::LibrarySettings saved_ = zyl::librarySettings();
};

TEST_F(DbRecordUpdate, PublishesMappedColumns) {
  zyldb table(columns({"Name", "REEL", "Notes", "snd reel", "Take", "lab reel", "Scene"}));
  dbrecord* r = table.make_dummy_record();
  r->set_container(&table);
  const char* vals[] = {"12-1A", "001", "good", "S01", "A", "L9", "12"};
  for (int i = 0; i < 7; ++i) r->set_field(i, vals[i], true);

  struct Case {
    int editable;
    int written;
    std::vector<std::pair<const char*, const char*>> keys;
  } cases[] = {
      {1, 5, {{"slate/take", "12-1A"}, {"name", "12-1A"}, {"reelid", "001"}, {"notes", "good"},
              {"reelid1", "S01"}, {"lab_reel", "L9"}, {"scene", "12"}}},
      {0, 3, {{"slate/take", "12-1A"}, {"name", "12-1A"}, {"reelid", "001"}, {"notes", "good"},
              {"scene", "12"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.editable);
    zyl::librarySettings().dbvReelFieldEditable = c.editable;
    configb cfg;
    EXPECT_EQ(r->update(&cfg), c.written);
    ASSERT_EQ(cfg.size(), c.keys.size());
    for (size_t i = 0; i < c.keys.size(); ++i) {
      EXPECT_THAT(cfg.keyAt(i).c_str(), StrEq(c.keys[i].first));
      EXPECT_THAT(cfg.valueAt(i).c_str(), StrEq(c.keys[i].second));
    }
  }
  delete r;
}

TEST_F(DbRecordUpdate, NeedsATableWithANameColumn) {
  zyldb table(columns({"Reel", "Notes"}));
  dbrecord r(2);
  configb cfg;
  EXPECT_EQ(r.update(&cfg), 0);
  r.set_container(&table);
  EXPECT_EQ(r.update(&cfg), 0);
  EXPECT_EQ(cfg.size(), 0u);
}

}  // namespace
