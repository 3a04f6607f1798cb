// Tests of the table: storage, notifications, tags, sorting, columns,
// merging, the identifier cache, search and update brackets.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/configb.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "db/LibrarySettings_internal.h"

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

// Inserted rows are blank and owned; deleting past the end cuts there, and
// listeners hear the deleted rows once the table is already shorter.
TEST(ZyldbStorage, InsertAndDeleteRows) {
  struct Case {
    bool insert;
    unsigned int first, count;
    std::vector<std::string> rows, texts;
  } cases[] = {
      {true, 1, 2, {"0", "", "", "1", "2", "3", "4"}, {}},
      {false, 2, 2, {"0", "1", "4"}, {"2 3 "}},
      {false, 3, 10, {"0", "1", "2"}, {"3 4 "}},
      {false, 5, 1, {"0", "1", "2", "3", "4"}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.insert << " " << c.first << "+" << c.count);
    Table t({"Name"}, {{"0"}, {"1"}, {"2"}, {"3"}, {"4"}});
    t.clear_changed();
    DeletionLog log(t);
    EXPECT_EQ(
        c.insert ? t.insert_records(c.first, c.count) : (t.delete_records(c.first, c.count), 0), 0);
    EXPECT_THAT(column(t, 0), ElementsAreArray(c.rows));
    EXPECT_THAT(log.texts, ElementsAreArray(c.texts));
    EXPECT_THAT(log.countsSeen,
                ElementsAreArray(std::vector<size_t>(c.texts.size(), c.rows.size())));
    EXPECT_TRUE(c.insert || t.get_changed() == (c.texts.empty() ? 0 : 1));
  }
}

TEST(ZyldbTags, TagsOnlyViewCopiesAndRefusesEdits) {
  Table t({"Name"}, {{"a"}, {"b"}, {"c"}, {"d"}});
  setTags(t, {0, 1, 2, 0});
  t.set_show_tags_only(1);
  zyldb copy(t, 1);
  EXPECT_THAT(column(copy, 0), ElementsAre("b", "c"));
  EXPECT_EQ(copy.get_record(0)->get_container(), nullptr);
  DeletionLog log(t);
  EXPECT_EQ(t.add_records(1) + t.delete_tagged_records(), -2);
  t.delete_records(0, 1);
  EXPECT_EQ(t.getNumRawRecords(), 4u);
  EXPECT_THAT(log.texts, IsEmpty());
  // set_all_tags covers the raw count of visible rows: visible 0 and 1 only.
  t.set_all_tags(5);
  t.set_show_tags_only(0);
  EXPECT_THAT(tags(t), ElementsAre(0, 5, 5, 0));
  EXPECT_EQ(t.invert_all_tags(), 4);
  t.set_tag(0, 0x101);
  EXPECT_THAT(tags(t), ElementsAre(1, 0, 0, 1));
}

TEST(ZyldbTags, DeleteTaggedRecordsDeletesRunsOfTagOne) {
  struct Case {
    std::vector<int> tags;
    int deleted;
    std::vector<std::string> remaining, texts;
  } cases[] = {
      {{1, 1, 0, 1}, 3, {"2"}, {"0 1 ", "1 "}},
      {{2, 1, 2, 0}, 1, {"0", "2", "3"}, {"1 "}},
      {{0, 0, 0, 0}, 0, {"0", "1", "2", "3"}, {}},
  };
  for (const Case& c : cases) {
    Table t({"Name"}, {{"0"}, {"1"}, {"2"}, {"3"}});
    setTags(t, c.tags);
    t.clear_changed();
    DeletionLog log(t);
    EXPECT_EQ(t.delete_tagged_records(), c.deleted);
    EXPECT_THAT(column(t, 0), ElementsAreArray(c.remaining));
    EXPECT_EQ(t.get_changed(), c.deleted > 0 ? 1 : 0);
    EXPECT_THAT(log.texts, ElementsAreArray(c.texts));
  }
}

TEST(ZyldbSort, AscendingOrderRules) {
  struct Case {
    DBFieldTypes::eType type;
    int offset, plain;
    std::vector<const char*> values;
    std::vector<std::string> expected;
  } cases[] = {
      {kText, 0, 0, {"scene 10", "Scene 9", "scene 1"}, {"scene 1", "Scene 9", "scene 10"}},
      {kText, 0, 0, {"", "b", "  ", "a"}, {"a", "b", "", "  "}},
      {kTc,
       0,
       0,
       {"01:00:00;10", "01:00:00:10", "01:00:00:09"},
       {"01:00:00:09", "01:00:00;10", "01:00:00:10"}},
      {kText, -2, 0, {"XY12", "AB12", "CD11"}, {"CD11", "XY12", "AB12"}},
      {kText, 2, 0, {"aaCD", "xxAB", "b"}, {"b", "xxAB", "aaCD"}},
  };
  for (const Case& c : cases) {
    zyldb t(std::vector<DBFieldDesc>{{"V", c.type}, {"Other", kText}});
    for (const char* v : c.values) fill(t, {{v, "x"}});
    t.set_sort_offset(c.offset);
    t.sort(1, c.plain);
    EXPECT_THAT(column(t, 0), ElementsAreArray(c.expected));
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
  // A column out of range ends the caller's own list.
  int many[] = {1, 99, 0, -1};
  t.set_sortfields(many);
  t.sortPrepare(1, 0);
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
    t.sort(m.direction, m.plain);
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

TEST(ZyldbColumns, LookupAddRemoveRenameMerge) {
  Table t({"Name", "reel", "Scene"}, {{"n0", "r0", "s0"}, {"n1", "r1", "s1"}});
  EXPECT_EQ(t.get_fieldnum("Reel"), 1);
  EXPECT_EQ(t.addField({"SCENE", DBFieldTypes::numeric}), 2);  // found: not added
  EXPECT_EQ(t.addField({"Notes", kText}), 3);
  EXPECT_EQ(t.set_field(1, 3, "note"), 1);
  t.removeField("REEL");
  EXPECT_THAT(column(t, 1), ElementsAre("s0", "s1"));
  EXPECT_THAT(column(t, 2), ElementsAre("", "note"));
  dberror e;
  EXPECT_EQ(t.set_fieldtype(1, DBFieldTypes::none), 1);
  EXPECT_EQ(t.get_fieldtype(1), DBFieldTypes::text);
  ASSERT_EQ(t.read_error_info(e), 1);
  EXPECT_EQ(e.code * 10 + e.detail, 23);

  // '&' is stripped from new names only while the library setting says so.
  for (int strip : {1, 0}) {
    zyl::librarySettings().removeFieldnameAmpersands = strip;
    EXPECT_EQ(t.set_fieldname(0, "Sc&ene"), 1);
    EXPECT_STREQ(t.get_fieldname(0), strip ? "Scene" : "Sc&ene");
  }
  zyl::librarySettings().removeFieldnameAmpersands = 1;

  Table u({"Reel", "Scene"}, {{"r0", "s0"}});
  zyldb typed(std::vector<DBFieldDesc>{{"Reel", kText}, {"Scene", DBFieldTypes::numeric}});
  EXPECT_EQ(u.add_zyldb(&typed), -1);
  Table other({"Reel", "Scene"}, {{"r1", "s1"}, {"r2", "s2"}});
  EXPECT_EQ(u.add_zyldb(&other), 2);
  EXPECT_THAT(column(u, 0), ElementsAre("r0", "r1", "r2"));
  EXPECT_EQ(u.get_record(2)->get_container(), &u);

  // Merging matches names ignoring case and converts timecodes to the column's kind.
  zyldb m(std::vector<DBFieldDesc>{
      {"Name", kText}, {"Start time", kTc}, {"End time", kTcS}, {"Mine", kText}});
  zyldb from(std::vector<DBFieldDesc>{
      {"start TIME", kTcS}, {"End time", kTc}, {"name", kText}, {"Theirs", kText}});
  fill(from, {{"01000012D", "01:00:00:12", "clip", "x"}});
  EXPECT_EQ(m.merge_all_matching(&from), 1);
  EXPECT_THAT(column(m, 1), ElementsAre("01:00:00;12"));
  EXPECT_THAT(column(m, 2), ElementsAre("01000012"));
  EXPECT_EQ(m.merge_all_matching(&u), 0);
}

TEST(ZyldbCookies, CacheSurvivesSortAndIsEmptiedByInsertAndDelete) {
  const Cookie a = Cookie::make('M'), b = Cookie::make('M'), c = Cookie::make('B');
  const Cookie d = Cookie::make('M');
  Table t({"Name", "Cookie"},
          {{"z", b.asString().c_str()}, {"y", a.asString().c_str()}, {"x", a.asString().c_str()}});
  EXPECT_EQ(t.getRowIndexByID(a), 1);  // the first row wins
  t.sort(1, 0);                        // rows now x, y, z
  EXPECT_EQ(t.getRowIndexByID(b), 0);  // stale on purpose
  t.insert_records(3, 0);
  EXPECT_EQ(t.getRowIndexByID(b), 2);
  // A text edit is not seen by the cache; findFirst then scans the column.
  t.set_field(1, 1, c.asString().c_str());
  EXPECT_EQ(t.getRowIndexByID(c), -1);
  EXPECT_EQ(t.findFirst("COOKIE", c.asString().c_str(), 0), 1);
  t.delete_records(0, 1);
  EXPECT_EQ(t.set_field(1, d), 1);
  // Entries made by set_field keep the cache from being rebuilt.
  EXPECT_EQ(t.getRowIndexByID(d), 1);
  EXPECT_EQ(t.getRowIndexByID(c), -1);
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
  setTags(t, {0, 1, 0});
  dbrecord* q = t.make_dummy_record();
  q->set_field(0, "ALPHA", true);
  q->set_field(1, "12", true);
  t.set_query(q);
  delete q;
  EXPECT_EQ(t.tag_matching_records(1), 2);
  EXPECT_EQ(t.tag_matching_records(0), 2);
  EXPECT_THAT(tags(t), ElementsAre(1, 0, 1));
  dbrecord shortQuery(1);
  t.set_query(&shortQuery);  // ignored: fewer fields than columns
  EXPECT_EQ(t.match_record(1), 0);

  Table d({"Name", "Scene"}, {{"b", "1"}, {"", "2"}, {"A", "3"}, {"b", "4"}, {"a", "5"}});
  d.set_show_tags_only(1);
  EXPECT_EQ(d.tag_all_different(0), 3);
  EXPECT_THAT(column(d, 0), ElementsAre("A", "a", "b", "b", ""));
  EXPECT_THAT(tags(d), ElementsAre(1, 0, 1, 0, 1));
  EXPECT_EQ(d.findFirst("Name", "B", 0), -1);
  EXPECT_EQ(d.findFirst("Scene", "4x", 1), 3);
}

TEST(ZyldbSearch, TimeRanges) {
  Table t({"Name", "Start time", "End time"}, {{"clip", "01:00:00:00", "01:00:20:00"}});
  for (auto [sought, expected] :
       {std::pair{"01:00:10", 1}, {"01:00:30", 0}, {"01", 1}, {"00:59", 0}, {"01:00:20:00", 1}}) {
    EXPECT_EQ(matches(t, 1, sought), expected) << sought;
    EXPECT_EQ(matches(t, 2, sought), expected) << sought << " via end column";
  }
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
  for (int row : {0, 1, 2}) EXPECT_EQ(t.update(&cfg, row), 1);  // row 2 has no identifier
  t.endUpdate();
  EXPECT_THAT(log.messages, IsEmpty());
  t.endUpdate();
  EXPECT_THAT(log.messages, ElementsAre("|" + a + " " + b + " "));
  EXPECT_STREQ(cfg.get("notes"), "z");
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
    Table t({"Name"}, {{"a"}});  // warms up the pieces made on first use
    DeletionLog log(t);
    t.delete_records(0, 1);
    t.getRowIndexByID(Cookie());
    Cookie::make('M');  // the thread's identifier generator
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
