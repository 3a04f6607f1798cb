// Tests of the table: storage, notifications, tags, sorting, columns,
// merging, the identifier cache, search and update brackets.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/platform/configb.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "db/LibrarySettings_internal.h"
#include "db/zyldb_sort_internal.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

namespace {

using Rows = std::vector<std::vector<const char*>>;
constexpr auto kText = DBFieldTypes::text, kTc = DBFieldTypes::timecode,
               kTcS = DBFieldTypes::timecode_s;

std::vector<DBFieldDesc> textColumns(std::initializer_list<const char*> names) {
  std::vector<DBFieldDesc> cols;
  for (const char* n : names) cols.push_back({n, kText});
  return cols;
}

void fill(zyldb& t, const Rows& rows) {
  for (const auto& row : rows) {
    const int r = t.add_records(1);
    for (unsigned int f = 0; f < row.size(); ++f)
      t.setField(static_cast<unsigned int>(r), f, LightweightString<char>(row[f]));
  }
}

std::vector<std::string> column(zyldb& t, unsigned int f) {
  std::vector<std::string> out;
  for (unsigned int r = 0; r < t.get_num_records(); ++r)
    out.push_back(t.getField(r, f).toStdString());
  return out;
}

std::vector<int> tags(zyldb& t) {
  std::vector<int> out;
  for (unsigned int r = 0; r < t.get_num_records(); ++r) out.push_back(t.get_tag(r));
  return out;
}

// A table of text columns holding `rows`.
struct Table : zyldb {
  Table(std::initializer_list<const char*> names, const Rows& rows) : zyldb(textColumns(names)) {
    fill(*this, rows);
  }
};

void setTags(zyldb& t, const std::vector<int>& values) {
  for (unsigned int r = 0; r < values.size(); ++r) t.set_tag(r, values[r]);
}

// Collects the texts of "recordsDeleted" and the row count each listener saw.
struct DeletionLog {
  explicit DeletionLog(zyldb& t)
      : reg(t.addListener("recordsDeleted", [this, &t](const NotifyMsg& m) {
          texts.push_back(m.getText().toStdString());
          countsSeen.push_back(t.get_num_records());
          return 0;
        })) {}
  std::vector<std::string> texts;
  std::vector<unsigned int> countsSeen;
  Qm::Ptr<iObject> reg;
};

TEST(ZyldbStorage, GrowsInChunksOfFiveHundred) {
  Table t({"Name"}, {});
  EXPECT_EQ(t.add_records(499), 0);
  EXPECT_EQ(t.getCapacity(), 500u);
  EXPECT_EQ(t.add_records(0), 499);
  EXPECT_EQ(t.add_records(2), 499);
  EXPECT_EQ(t.getCapacity(), 1000u);
  EXPECT_EQ(t.get_record(500)->get_container(), &t);
  EXPECT_EQ(t.get_record(501), nullptr);
  EXPECT_EQ(zyldb().get_valid(), 0);
}

// Inserted rows are blank and owned; deleting past the end cuts there, and
// listeners hear the deleted rows once the table is already shorter.
TEST(ZyldbStorage, InsertAndDeleteRows) {
  struct Case {
    bool insert;
    unsigned int first, count;
    std::vector<std::string> rows, texts;
  } cases[] = {
      {true, 1, 2, {"0", "", "", "1", "2", "3", "4"}, {}},
      {true, 0, 1, {"", "0", "1", "2", "3", "4"}, {}},
      {true, 99, 2, {"0", "1", "2", "3", "4", "", ""}, {}},
      {true, 1, 0, {"0", "1", "2", "3", "4"}, {}},
      {false, 2, 2, {"0", "1", "4"}, {"2 3 "}},
      {false, 3, 10, {"0", "1", "2"}, {"3 4 "}},
      {false, 0, 5, {}, {"0 1 2 3 4 "}},
      {false, 5, 1, {"0", "1", "2", "3", "4"}, {}},
      {false, 1, 0, {"0", "1", "2", "3", "4"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message()
                 << (c.insert ? "insert " : "delete ") << c.first << "+" << c.count);
    Table t({"Name"}, {{"0"}, {"1"}, {"2"}, {"3"}, {"4"}});
    t.clear_changed();
    DeletionLog log(t);
    if (c.insert)
      EXPECT_EQ(t.insert_records(c.first, c.count), 0);
    else
      t.delete_records(c.first, c.count);
    EXPECT_THAT(column(t, 0), ElementsAreArray(c.rows));
    for (unsigned int r = 0; r < t.get_num_records(); ++r)
      EXPECT_EQ(t.get_record(r)->get_container(), &t);
    EXPECT_THAT(log.texts, ElementsAreArray(c.texts));
    const std::vector<size_t> seen(c.texts.size(), c.rows.size());  // already shortened
    EXPECT_THAT(log.countsSeen, ElementsAreArray(seen));
    if (!c.insert) {
      EXPECT_EQ(t.get_changed(), c.texts.empty() ? 0 : 1);
    }
  }
}

TEST(ZyldbStorage, CopyConstructors) {
  zyldb src(textColumns({"Name", "Scene"}));
  src.add_param("Owner", "unit 2");
  fill(src, {{"a", "1"}, {"b", "2"}, {"c", "3"}});

  zyldb bare(src, 0);
  EXPECT_EQ(bare.get_valid(), 1);
  EXPECT_EQ(bare.get_num_records(), 0u);
  EXPECT_TRUE(bare.sameColumns(&src));
  EXPECT_STREQ(bare.get_param_val("owner"), "unit 2");
  EXPECT_EQ(bare.get_fieldnum("scene"), 1);

  src.set_tag(1, 1);
  src.set_show_tags_only(1);
  zyldb tagged(src, 1);
  EXPECT_THAT(column(tagged, 0), ElementsAre("b"));
  EXPECT_EQ(tagged.get_record(0)->get_container(), nullptr);

  src.set_show_tags_only(0);
  zyldb noParams(src, static_cast<DBFieldDesc*>(nullptr));
  EXPECT_THAT(column(noParams, 1), ElementsAre("1", "2", "3"));
  EXPECT_EQ(noParams.get_param_val("Owner"), nullptr);
  EXPECT_EQ(noParams.get_record(2)->get_container(), nullptr);
}

TEST(ZyldbStorage, CellAccessors) {
  Table t({"Text", "Other"}, {{"abcdef"}, {"42xyz"}, {"2.5"}, {"true"}, {"True"}});
  char buf[8];
  std::memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(t.in_field(0, 0, buf, 4), 1);
  EXPECT_STREQ(buf, "abcd");
  std::memset(buf, 'Z', sizeof buf);
  EXPECT_EQ(t.in_field(0, 1, buf, 4), 0);
  EXPECT_EQ(buf[0], 'Z');
  EXPECT_EQ(t.in_field(9, 0, buf, 4), 0);

  int i = -1;
  double d = 0;
  bool yes = false, no = true;
  EXPECT_EQ(t.in_field(1, 0, i) + t.in_field(2, 0, d) + t.in_field(3, 0, yes), 3);
  EXPECT_EQ(t.in_field(4, 0, no), 1);
  EXPECT_EQ(i, 42);
  EXPECT_DOUBLE_EQ(d, 2.5);
  EXPECT_TRUE(yes);
  EXPECT_FALSE(no);
  EXPECT_EQ(t.in_field(0, 1, i), 0);
  EXPECT_EQ(i, 42);

  EXPECT_EQ(t.set_field(9, 0, "x"), 0);
  EXPECT_EQ(t.set_field(0, 70000u, "x"), 0);
  EXPECT_EQ(t.getField(0, 70000u), "");
}

TEST(ZyldbTags, ShowTagsOnlyAndTagValues) {
  Table t({"Name"}, {{"a"}, {"b"}, {"c"}, {"d"}});
  setTags(t, {0, 1, 2, 0});
  t.set_show_tags_only(1);
  EXPECT_EQ(t.get_num_records(), 2u);
  EXPECT_THAT(column(t, 0), ElementsAre("b", "c"));
  EXPECT_EQ(t.get_raw_row(1), 2u);
  EXPECT_EQ(t.get_raw_row(2), ~0u);
  EXPECT_EQ(t.get_new_row(2), 1u);
  EXPECT_EQ(t.get_new_row(0), ~0u);
  EXPECT_EQ(t.get_num_tags(), 2);

  DeletionLog log(t);
  EXPECT_EQ(t.add_records(1), -1);
  EXPECT_EQ(t.insert_records(0, 1), 1);
  t.delete_records(0, 1);
  EXPECT_EQ(t.delete_tagged_records(), -1);
  EXPECT_EQ(t.getNumRawRecords(), 4u);
  EXPECT_THAT(log.texts, IsEmpty());

  // The index is only rebuilt on request, not by a tag change.
  t.set_tag(0, 0);
  EXPECT_EQ(t.get_num_records(), 2u);
  // Over the raw count: visible rows 0 and 1 get the value, 2 and 3 are
  // skipped.
  t.set_all_tags(5);
  t.set_show_tags_only(0);
  EXPECT_THAT(tags(t), ElementsAre(0, 5, 5, 0));

  t.invert_tag(0);
  t.invert_tag(1);
  EXPECT_THAT(tags(t), ElementsAre(1, 0, 5, 0));
  EXPECT_EQ(t.get_tag(4), -1);
  EXPECT_EQ(t.invert_all_tags(), 4);
  EXPECT_THAT(tags(t), ElementsAre(0, 1, 0, 1));
  t.set_tag(0, 0x101);
  EXPECT_EQ(t.get_tag(0), 1);
}

TEST(ZyldbTags, DeleteTaggedRecordsDeletesRunsOfTagOne) {
  struct Case {
    std::vector<int> tags;
    int deleted;
    std::vector<std::string> remaining;
    std::vector<std::string> texts;
  } cases[] = {
      {{1, 1, 0, 1}, 3, {"2"}, {"0 1 ", "1 "}},
      {{2, 1, 2, 0}, 1, {"0", "2", "3"}, {"1 "}},
      {{0, 0, 0, 0}, 0, {"0", "1", "2", "3"}, {}},
      {{1, 1, 1, 1}, 4, {}, {"0 1 2 3 "}},
  };
  for (const Case& c : cases) {
    for (bool listening : {true, false}) {
      Table t({"Name"}, {{"0"}, {"1"}, {"2"}, {"3"}});
      setTags(t, c.tags);
      t.clear_changed();
      std::optional<DeletionLog> log;
      if (listening) log.emplace(t);
      EXPECT_EQ(t.delete_tagged_records(), c.deleted);
      EXPECT_THAT(column(t, 0), ElementsAreArray(c.remaining));
      EXPECT_EQ(t.get_changed(), c.deleted > 0 ? 1 : 0);
      if (listening) {
        EXPECT_THAT(log->texts, ElementsAreArray(c.texts));
      }
    }
  }
}

TEST(ZyldbSort, AscendingOrderRules) {
  struct Case {
    const char* what;
    DBFieldTypes::eType type;
    int offset, plain;
    std::vector<const char*> values;
    std::vector<std::string> expected;
  } cases[] = {
      {"strxcmp",
       kText,
       0,
       0,
       {"scene 10", "Scene 9", "scene 1"},
       {"scene 1", "Scene 9", "scene 10"}},
      {"plain text with flag", kText, 0, 1, {"scene 10", "Scene 9"}, {"scene 10", "Scene 9"}},
      {"empty cells last", kText, 0, 0, {"", "b", "  ", "a"}, {"a", "b", "", "  "}},
      {"leading blanks ignored", kText, 0, 1, {"  b", "a"}, {"a", "  b"}},
      {"timecode separator",
       kTc,
       0,
       0,
       {"01:00:00;10", "01:00:00:10", "01:00:00:09"},
       {"01:00:00:09", "01:00:00;10", "01:00:00:10"}},
      {"negative offset", kText, -2, 0, {"XY12", "AB12", "CD11"}, {"CD11", "XY12", "AB12"}},
      {"positive offset", kText, 2, 0, {"aaCD", "xxAB", "b"}, {"b", "xxAB", "aaCD"}},
  };
  for (const Case& c : cases) {
    zyldb t(std::vector<DBFieldDesc>{{"V", c.type}, {"Other", kText}});
    for (const char* v : c.values) fill(t, {{v, "x"}});
    t.set_sort_offset(c.offset);
    t.sort(1, c.plain);
    EXPECT_THAT(column(t, 0), ElementsAreArray(c.expected)) << c.what;
    EXPECT_GT(comco, 0);
  }
}

TEST(ZyldbSort, BlankRecordsEarlyEndAndPrepare) {
  Table t({"A", "B"}, {{"", ""}, {"", "z"}, {"", "a"}, {"k", "1"}});
  int fields[] = {0, 1, -1};
  t.set_sortfields(fields);
  t.sort(1, 0);
  // Empty first cells end the comparison, so "z" stays before "a"; the blank
  // record goes last.
  EXPECT_THAT(column(t, 1), ElementsAre("1", "z", "a", ""));

  // Descending compares whole texts only: the blank record ties with the
  // empty cell and keeps its place.
  Table d({"A", "B"}, {{"", ""}, {"", "x"}, {"  b", "1"}, {"a", "2"}});
  d.set_sortfield(0);
  d.sort(-1, 0);
  EXPECT_THAT(column(d, 1), ElementsAre("2", "1", "", "x"));

  // A column out of range ends the caller's own list.
  int many[] = {1, 99, 0, -1};
  d.set_sortfields(many);
  d.sortPrepare(1, 0);
  EXPECT_THAT(many, ElementsAre(1, -1, 0, -1));
  EXPECT_EQ(comco, 0);
}

// Random tables sorted in every mode must come out ordered by the exported
// comparators, with equal rows in their original order.
TEST(ZyldbSort, AgreesWithComparatorsOnRandomTables) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  const std::string alphabet = "aAbB0019 -:.\xc3\xa9\t";
  auto randomText = [&] {
    std::string v;
    const int len = static_cast<int>(rng() % 10);
    for (int i = 0; i < len; ++i) v += alphabet[rng() % alphabet.size()];
    // Now and then a digit run too long for the sort's prefix to count.
    if (rng() % 8 == 0)
      v.insert(std::min<size_t>(rng() % 3, v.size()), std::string(250 + rng() % 10, '7'));
    return v;
  };
  struct Mode {
    int direction, plain, offset;
  } modes[] = {{1, 0, 0}, {1, 1, 0}, {-1, 0, 0}, {1, 0, 3}, {1, 0, -2}};
  for (const Mode& m : modes) {
    SCOPED_TRACE(testing::Message()
                 << "direction " << m.direction << " plain " << m.plain << " offset " << m.offset);
    zyldb t(std::vector<DBFieldDesc>{{"A", kText}, {"B", kTc}, {"Index", kText}});
    for (int i = 0; i < 400; ++i) {
      const int row = t.add_records(1);
      if (rng() % 50 == 0) continue;  // a blank record
      t.setField(row, 0, LightweightString<char>(randomText()));
      t.setField(row, 1, LightweightString<char>(randomText()));
      t.set_field(row, 2, i);
    }
    int fields[] = {0, 1, -1};
    t.set_sortfields(fields);
    t.set_sort_offset(m.offset);
    std::vector<dbrecord*> before;
    for (unsigned int r = 0; r < t.get_num_records(); ++r) before.push_back(t.get_record(r));
    t.sort(m.direction, m.plain);
    // The views' entry point gives the same order.
    const std::vector<uint32_t> order = zyl::stableSortOrder(before, m.direction);
    ASSERT_EQ(order.size(), before.size());
    for (unsigned int r = 0; r < order.size(); ++r) ASSERT_EQ(before[order[r]], t.get_record(r));
    auto cmp = m.direction < 0 ? dbr_backcmp : dbr_cmp;
    for (unsigned int r = 1; r < t.get_num_records(); ++r) {
      dbrecord *a = t.get_record(r - 1), *b = t.get_record(r);
      const int c = cmp(&a, &b);
      ASSERT_LE(c, 0) << "rows " << r - 1 << " and " << r;
      int ia = -1, ib = -1;
      if (c == 0 && t.in_field(r - 1, 2, ia) && t.in_field(r, 2, ib)) {
        ASSERT_LT(ia, ib) << "rows " << r - 1 << " and " << r;
      }
    }
  }
}

TEST(ZyldbColumns, LookupAddRemoveRename) {
  Table t({"Name", "reel", "Scene"}, {{"n0", "r0", "s0"}, {"n1", "r1", "s1"}});
  EXPECT_EQ(t.get_fieldnum("Reel"), 1);
  EXPECT_EQ(t.get_fieldnum("nope"), -1);
  EXPECT_EQ(t.get_fieldnum(""), -1);
  EXPECT_STREQ(t.get_fieldname(7), "");

  EXPECT_EQ(t.addField({"SCENE", DBFieldTypes::numeric}), 2);  // found: not added
  EXPECT_EQ(t.addField({"Notes", kText}), 3);
  EXPECT_EQ(t.get_record(1)->get_num_fields(), 4u);
  EXPECT_EQ(t.set_field(1, 3, "note"), 1);

  t.removeField("REEL");
  t.removeField("missing");
  EXPECT_EQ(t.get_num_fields(), 3u);
  EXPECT_EQ(t.get_fieldnum("Notes"), 2);
  EXPECT_THAT(column(t, 1), ElementsAre("s0", "s1"));
  EXPECT_THAT(column(t, 2), ElementsAre("", "note"));

  EXPECT_EQ(t.set_fieldname(0, "Clip"), 1);
  EXPECT_EQ(t.get_fieldnum("clip"), 0);
  EXPECT_EQ(t.set_fieldname(3, "x"), 0);
  EXPECT_EQ(t.get_fieldsize(1), 2);
  EXPECT_EQ(t.get_fieldsize(9), 0);

  dberror e;
  EXPECT_EQ(t.read_error_info(e), 0);
  EXPECT_EQ(t.set_fieldtype(1, DBFieldTypes::none), 1);
  EXPECT_EQ(t.get_fieldtype(1), DBFieldTypes::text);
  ASSERT_EQ(t.read_error_info(e), 1);
  EXPECT_EQ(e.code, 2);
  EXPECT_EQ(e.detail, 3);
}

TEST(ZyldbColumns, AmpersandsFollowTheSetting) {
  zyl::LibrarySettings& settings = zyl::librarySettings();
  const int saved = settings.removeFieldnameAmpersands;
  for (int on : {1, 0}) {
    settings.removeFieldnameAmpersands = on;
    zyldb t(textColumns({"Sc&ene", "&Reel &Name"}));
    EXPECT_STREQ(t.get_fieldname(0), on ? "Scene" : "Sc&ene");
    EXPECT_STREQ(t.get_fieldname(1), on ? "Reel Name" : "&Reel &Name");
    EXPECT_EQ(t.get_fieldnum(on ? "scene" : "sc&ene"), 0);
  }
  settings.removeFieldnameAmpersands = saved;
}

TEST(ZyldbColumns, AddZyldbAndMergeAllMatching) {
  Table t({"Reel", "Scene"}, {{"r0", "s0"}});
  zyldb lower(textColumns({"reel", "Scene"}));
  EXPECT_FALSE(t.sameColumns(&lower));
  EXPECT_EQ(t.add_zyldb(&lower), -1);
  zyldb wider(textColumns({"Reel", "Scene", "Shot"}));
  EXPECT_EQ(t.add_zyldb(&wider), -1);
  zyldb typed(std::vector<DBFieldDesc>{{"Reel", kText}, {"Scene", DBFieldTypes::numeric}});
  EXPECT_TRUE(t.sameColumns(&typed));
  EXPECT_EQ(t.add_zyldb(&typed), -1);
  zyldb other(textColumns({"Reel", "Scene"}));
  EXPECT_EQ(t.add_zyldb(&other), 0);
  fill(other, {{"r1", "s1"}, {"r2", "s2"}});
  EXPECT_EQ(t.add_zyldb(&other), 2);
  EXPECT_THAT(column(t, 0), ElementsAre("r0", "r1", "r2"));
  EXPECT_EQ(t.get_record(2)->get_container(), &t);
  EXPECT_NE(t.get_record(2), other.get_record(1));
  t.set_show_tags_only(1);
  EXPECT_EQ(t.add_zyldb(&other), -1);

  // Merging matches names ignoring case and converts timecodes to the column's kind.
  zyldb m(std::vector<DBFieldDesc>{
      {"Name", kText}, {"Start time", kTc}, {"End time", kTcS}, {"Mine", kText}});
  zyldb from(std::vector<DBFieldDesc>{
      {"start TIME", kTcS}, {"End time", kTc}, {"name", kText}, {"Theirs", kText}});
  fill(from, {{"01000012D", "01:00:00:12", "clip", "x"}});
  EXPECT_EQ(m.merge_all_matching(&from), 1);
  ASSERT_EQ(m.get_num_records(), 1u);
  EXPECT_EQ(m.getField(0, 0), "clip");
  EXPECT_EQ(m.getField(0, 1), "01:00:00;12");
  EXPECT_EQ(m.getField(0, 2), "01000012");
  EXPECT_EQ(m.getField(0, 3), "");
  Table unrelated({"Other"}, {{"x"}});
  EXPECT_EQ(m.merge_all_matching(&unrelated), 0);
  zyldb empty(textColumns({"Name"}));
  EXPECT_EQ(m.merge_all_matching(&empty), 1);
  EXPECT_EQ(m.get_num_records(), 1u);
}

TEST(ZyldbCookies, CacheSurvivesSortAndIsEmptiedByInsertAndDelete) {
  const Cookie a = Cookie::make('M'), b = Cookie::make('M'), c = Cookie::make('B');
  const Cookie d = Cookie::make('M');
  Table t({"Name", "Cookie"},
          {{"z", b.asString().c_str()}, {"y", a.asString().c_str()}, {"x", a.asString().c_str()}});
  EXPECT_EQ(t.getRowIndexByID(a), 1);  // the first row wins
  EXPECT_EQ(t.getRowIndexByID(b), 0);
  t.sort(1, 0);                        // rows now x, y, z
  EXPECT_EQ(t.getRowIndexByID(b), 0);  // stale on purpose
  t.insert_records(3, 0);
  EXPECT_EQ(t.getRowIndexByID(b), 2);
  EXPECT_EQ(t.getRowIndexByID(a), 0);

  // A text edit is not seen by the cache; findFirst then scans the column.
  t.set_field(1, 1, c.asString().c_str());
  EXPECT_EQ(t.getRowIndexByID(c), -1);
  EXPECT_EQ(t.findFirst("COOKIE", c.asString().c_str(), 0), 1);

  t.delete_records(0, 1);
  EXPECT_EQ(t.set_field(1, d), 1);
  EXPECT_EQ(t.getField(1, 1), d.asString());
  // Entries made by set_field keep the cache from being rebuilt.
  EXPECT_EQ(t.getRowIndexByID(d), 1);
  EXPECT_EQ(t.getRowIndexByID(c), -1);

  Table none({"Name"}, {{"x"}});
  EXPECT_EQ(none.getRowIndexByID(d), -1);
  EXPECT_EQ(none.set_field(0, d), 0);
}

int matches(zyldb& t, unsigned int field, const char* text) {
  dbrecord* q = t.make_dummy_record();
  q->set_field(static_cast<int>(field), text, true);
  t.set_query(q);
  delete q;
  return t.match_record(0);
}

TEST(ZyldbSearch, QueriesTaggingAndFindFirst) {
  Table t({"Name", "Scene"}, {{"Alpha", "12"}, {"beta", "13"}, {"alphabet", "12"}});
  EXPECT_EQ(t.match_record(0), -1);
  setTags(t, {0, 1, 0});
  EXPECT_EQ(t.tag_matching_records(0), 0);
  EXPECT_THAT(tags(t), ElementsAre(0, 1, 0));

  dbrecord* q = t.make_dummy_record();
  q->set_field(0, "ALPHA", true);
  q->set_field(1, "12", true);
  t.set_query(q);
  EXPECT_EQ(t.tag_matching_records(1), 2);
  EXPECT_THAT(tags(t), ElementsAre(1, 1, 1));
  EXPECT_EQ(t.tag_matching_records(0), 2);
  EXPECT_THAT(tags(t), ElementsAre(1, 0, 1));
  EXPECT_EQ(t.match_record(9), -1);

  dbrecord shortQuery(1);
  shortQuery.set_field(0, "beta", true);
  t.set_query(&shortQuery);  // ignored: fewer fields than columns
  EXPECT_EQ(t.match_record(1), 0);
  delete q;

  Table d({"Name", "Scene"}, {{"b", "1"}, {"", "2"}, {"A", "3"}, {"b", "4"}, {"a", "5"}});
  d.set_show_tags_only(1);
  EXPECT_EQ(d.tag_all_different(0), 3);
  EXPECT_EQ(d.get_show_tags_only(), 0);
  EXPECT_THAT(column(d, 0), ElementsAre("A", "a", "b", "b", ""));
  EXPECT_THAT(tags(d), ElementsAre(1, 0, 1, 0, 1));
  EXPECT_EQ(d.findFirst("name", "b", 0), 2);
  EXPECT_EQ(d.findFirst("Name", "B", 0), -1);
  EXPECT_EQ(d.findFirst("Scene", "4x", 1), 3);
  EXPECT_EQ(d.findFirst("Nope", "b", 0), -1);
  EXPECT_EQ(d.findFirst(nullptr, "b", 0), -1);
}

TEST(ZyldbSearch, TimeRangesAndTypedColumns) {
  Table t({"Name", "Start time", "End time"}, {{"clip", "01:00:00:00", "01:00:20:00"}});
  for (auto [sought, expected] :
       {std::pair{"01:00:10", 1}, {"01:00:30", 0}, {"01", 1}, {"00:59", 0}, {"01:00:20:00", 1}}) {
    EXPECT_EQ(matches(t, 1, sought), expected) << sought;
    EXPECT_EQ(matches(t, 2, sought), expected) << sought << " via end column";
  }
  Table noEnd({"Name", "Start time"}, {{"clip", "01:00:00:00"}});
  EXPECT_EQ(matches(noEnd, 1, "01:00:00"), 1);
  EXPECT_EQ(matches(noEnd, 1, "01:00:10"), 0);
  Table noStart({"Name", "End time"}, {{"clip", "01:00:20:00"}});
  EXPECT_EQ(matches(noStart, 1, "01"), 0);
  Table empty({"Start time", "End time"}, {{"", "01:00:20:00"}});
  EXPECT_EQ(matches(empty, 0, "01"), 0);

  // Typed columns: a date matches its printed form, timecodes their own kind.
  zyldb typed(std::vector<DBFieldDesc>{{"Date", DBFieldTypes::dos_date}, {"T", kTc}, {"S", kTcS}});
  fill(typed, {{"0", "01:00:00;10", "01000010"}});
  time_t epoch = 0;
  char text[64];
  ASSERT_NE(ctime_r(&epoch, text), nullptr);
  text[std::strlen(text) - 1] = 0;  // the query has no line feed
  EXPECT_EQ(matches(typed, 0, text), 1);
  EXPECT_EQ(matches(typed, 0, "2001"), 0);
  EXPECT_EQ(matches(typed, 1, "00:00:10"), 1);
  EXPECT_EQ(matches(typed, 2, "01:00:00:10"), 1);
  EXPECT_EQ(matches(typed, 2, "01000010"), 0);
}

// Collects each "recordsChanged" message as its text, "|" and the identifiers it carries.
struct ChangeLog {
  explicit ChangeLog(zyldb& t)
      : reg(t.addListener("recordsChanged", [this](const NotifyMsg& m) {
          std::string line = m.getText().toStdString() + "|";
          if (auto* data = dynamic_cast<WrappedData<CookieVec>*>(m.getObject()))
            for (const Cookie& c : data->get()) line += c.asString().toStdString() + " ";
          messages.push_back(line);
          return 0;
        })) {}
  std::vector<std::string> messages;
  Qm::Ptr<iObject> reg;
};

TEST(ZyldbUpdate, BracketsSendOneMessagePerOutermostEnd) {
  const std::string a = Cookie::make('M').asString().toStdString();
  const std::string b = Cookie::make('M').asString().toStdString();
  Table t({"name", "notes", "cookie"},
          {{"n0", "x", a.c_str()}, {"n1", "y", b.c_str()}, {"n2", "z", "junk"}});
  ChangeLog log(t);
  configb cfg;

  t.endUpdate();  // unmatched: ignored
  EXPECT_EQ(t.beginUpdate(), 1u);
  EXPECT_EQ(t.beginUpdate(), 2u);
  EXPECT_EQ(t.update(&cfg, 0), 1);
  EXPECT_EQ(t.update(&cfg, 1), 1);
  EXPECT_EQ(t.update(&cfg, 2), 1);  // no valid identifier: not collected
  EXPECT_EQ(t.update(&cfg, 7), 0);
  t.endUpdate();
  EXPECT_THAT(log.messages, IsEmpty());
  t.endUpdate();
  EXPECT_THAT(log.messages, ElementsAre("|" + a + " " + b + " "));
  EXPECT_STREQ(cfg.get("notes"), "z");

  t.beginUpdate();
  t.endUpdate();  // nothing collected: nothing sent
  t.addToUpdate(Cookie(a.c_str(), true));
  t.beginUpdate();  // a bracket opened at depth 0 drops what waited
  t.endUpdate();
  t.endUpdate();
  EXPECT_EQ(log.messages.size(), 1u);

  Table plain({"name", "notes"}, {{"n", "x"}});
  ChangeLog plainLog(plain);
  plain.beginUpdate();
  EXPECT_EQ(plain.update(&cfg, 0), 1);
  plain.endUpdate();
  EXPECT_THAT(plainLog.messages, IsEmpty());

  t.clear_changed();
  EXPECT_EQ(t.get_changed(), 0);
  EXPECT_FALSE(t.get_record(0)->isChanged());
}

// Fills a table with `rows` and runs `op` on it, with the n-th allocation
// failing, for n = 1, 2, ... until a run ends before the failure was due. A
// failed operation leaves the table consistent, and the live block count
// returns to its value before every run.
template <class Op>
void failEachAllocation(const Rows& rows, Op op) {
  zyl::Allocator& alloc = OS()->allocator();
  for (uint64_t n = 1; n < 100000; ++n) {
    const int64_t before = alloc.stats().liveBlocks;
    alloc.failNthAllocation(n);
    bool threw = false;
    try {
      zyldb t(textColumns({"Name", "cookie", "Start time"}));
      fill(t, rows);
      try {
        op(t);
      } catch (const Qm::Exception::BadAlloc&) {
        for (unsigned int r = 0; r < t.getNumRawRecords(); ++r) EXPECT_NE(t.get_record(r), nullptr);
        EXPECT_LE(t.getNumRawRecords(), t.getCapacity());
        throw;
      }
    } catch (const Qm::Exception::BadAlloc&) {
      threw = true;
    }
    const bool fired = !alloc.failurePending();
    alloc.failNthAllocation(0);
    ASSERT_EQ(alloc.stats().liveBlocks, before) << "failing allocation " << n;
    ASSERT_TRUE(fired || !threw) << "failing allocation " << n;
    if (!fired) return;
  }
  FAIL() << "never completed";
}

TEST(ZyldbMemory, FailedOperationsLeakNothing) {
  {
    // Warm up the process-wide pieces made on first use.
    Table t({"Name"}, {{"a"}});
    DeletionLog log(t);
    t.delete_records(0, 1);
    t.getRowIndexByID(Cookie());
  }
  failEachAllocation({{"a", "", "01"}, {"b", "", "02"}}, [](zyldb& t) { zyldb copy(t, 1); });
  failEachAllocation({{"a"}, {"b"}}, [](zyldb& t) {
    t.add_records(600);
    t.insert_records(1, 3);
    t.addField({"Notes", kText});
  });
  failEachAllocation({{"a"}, {"b"}, {"c"}}, [](zyldb& t) {
    DeletionLog log(t);
    setTags(t, {1, 0, 1});
    t.delete_tagged_records();
    t.getRowIndexByID(Cookie::make('M'));
    t.set_field(0, Cookie::make('M'));
  });
}

}  // namespace
