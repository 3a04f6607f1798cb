#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <strings.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/fieldmap/FieldMap.h>

#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

std::unique_ptr<zyldb> makeTable(std::vector<std::string> columns, const char* fieldMap = nullptr) {
  std::vector<DBFieldDesc> descs;
  for (const std::string& c : columns) descs.push_back({c.c_str(), DBFieldTypes::text});
  auto t = std::make_unique<zyldb>(descs);
  if (fieldMap) t->add_param(FieldMap::kFieldMapParam, fieldMap);
  return t;
}

// The entries as "Name" (visible) and "-Name" (hidden).
std::vector<std::string> entries(const FieldMap& m) {
  std::vector<std::string> v;
  for (int i = 0; i < m.size(); ++i)
    v.push_back((m.isVisible(i) ? "" : "-") + m.getName(i).toStdString());
  return v;
}

TEST(FieldMapText, ReadingRules) {
  const std::vector<std::string> all = {"Alpha", "Beta", "Gamma"};
  struct Case {
    const char* text;
    std::vector<std::string> want;
  } cases[] = {
      {nullptr, all},  // no parameter: every column
      {"3 -1 2", {"Gamma", "-Alpha", "Beta"}},
      {"2 2 -2", {"Beta"}},           // later duplicates are ignored
      {"1 x 3", {"Alpha"}},           // stops at the letter, no default
      {"x1 2", all},                  // nothing read: the default
      {"0 -0 2", {"Beta"}},           // 0 and -0 are skipped
      {"1  3", {"Alpha", "Gamma"}},   // a chunk of blanks is no stop
      {"9 1 8", {"", "Alpha"}},       // beyond the last column: one empty name
      {"+2 \t3", {"Beta", "Gamma"}},  // accepted by %d, then stepped over
      {"1-2 3", {"Alpha", "Gamma"}},  // digits and '-' after an item are skipped
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text ? c.text : "(none)");
    auto t = makeTable(all, c.text);
    EXPECT_THAT(entries(FieldMap(*t)), ElementsAreArray(c.want));
  }

  std::vector<std::string> many;
  for (int i = 0; i < 200; ++i) many.push_back("c" + std::to_string(i));
  auto t = makeTable(many, "-123 999 200 -99");
  FieldMap m(*t);  // items are read from their first three characters
  EXPECT_THAT(entries(m), ElementsAre("-c11", "", "c199", "-c98"));
  EXPECT_EQ(m.asString(), "-12 0 200 -99");
}

TEST(FieldMapText, RoundTrip) {
  auto t = makeTable({"Reel", "Scene", "Take", "Notes", "Who"});
  FieldMap m(*t);
  m.swap(0, 2);
  m.setVisible(1, false);
  m.invertVisible(4);
  m.remove("notes");
  m.append("Vanished", false);  // a name the source lacks is written as -0
  EXPECT_EQ(m.asString(), "3 -2 1 -5 -0");
  t->add_param(FieldMap::kFieldMapParam, m.asString().c_str());
  EXPECT_THAT(entries(FieldMap(*t)), ElementsAre("Take", "-Scene", "Reel", "-Who"));

  FieldMap unbound;  // without a source entries are numbered by position
  unbound.append("x", true);
  unbound.append("y", false);
  EXPECT_EQ(unbound.asString(), "1 -2");
}

TEST(FieldMapList, LookupEditsAndVisibleFieldIndex) {
  FieldMap m;
  m.append("Reel", true);
  m.append("Scene", false);
  m.append("REEL", false);  // already held: unchanged
  m.set(2, "X", true);      // out of range: ignored
  EXPECT_THAT(entries(m), ElementsAre("Reel", "-Scene"));
  EXPECT_TRUE(m.isVisible("reel"));
  EXPECT_FALSE(m.isVisible(-1));
  EXPECT_EQ(m.getVisibleFieldIndex(0), -1);  // no source
  m.append("Take", true);
  EXPECT_FALSE(m.remove("Missing"));
  EXPECT_TRUE(m.remove("REEL"));  // later names and flags move up together
  EXPECT_THAT(entries(m), ElementsAre("-Scene", "Take"));
  m.set(1, "scene", true);  // set does not keep names unique; lookups find the first
  EXPECT_FALSE(m.isVisible("SCENE"));

  auto t = makeTable({"Reel", "Alpha", "Beta", "Gamma"}, "2 -3 4");
  FieldMap bound(*t);
  EXPECT_EQ(bound.numVisible(), 2);
  EXPECT_EQ(bound.getVisibleFieldIndex(1), 3);  // Gamma: the source's column
  EXPECT_EQ(bound.getVisibleFieldIndex(2), -1);
  bound.setName(0, "Nowhere");
  EXPECT_EQ(bound.getVisibleFieldIndex(0), -1);
  bound.clear();  // the source stays
  bound.append("reel", true);
  EXPECT_EQ(bound.getVisibleFieldIndex(0), 0);
}

TEST(FieldMapBinding, RebindKeepsOrAppendsEntries) {
  auto withText = makeTable({"Who", "Reel", "Take"}, "3 -2");
  auto without = makeTable({"Take", "Who", "Reel"});
  FieldMap textMap(*withText), plainMap(*without);
  FieldMap m;
  m.append("Reel", true);
  m.append("Notes", false);
  m.setSourceDb(plainMap.getSourceDb());  // no text: entries kept as they are
  EXPECT_EQ(m.asString(), "3 -0");        // but numbered by the new source
  m.setSourceDb(textMap.getSourceDb());   // parsed entries go after
  EXPECT_THAT(entries(m), ElementsAre("Reel", "-Notes", "Take"));

  FieldMap copy;
  copy = m;  // shares the source
  EXPECT_EQ(copy.getSourceDb().rep(), textMap.getSourceDb().rep());
  EXPECT_EQ(copy.asString(), "2 -0 3");
}

}  // namespace

namespace {

// The plain rules that the name counts and the visible positions replace:
// every lookup a scan of the entries.
struct PlainMap {
  std::vector<std::pair<std::string, bool>> entries;
  int find(const std::string& name) const {
    for (size_t i = 0; i < entries.size(); ++i)
      if (strcasecmp(entries[i].first.c_str(), name.c_str()) == 0) return static_cast<int>(i);
    return -1;
  }
  int visibleAt(int n) const {
    for (size_t i = 0; i < entries.size(); ++i)
      if (entries[i].second && n-- == 0) return static_cast<int>(i);
    return -1;
  }
};

TEST(FieldMapIndex, AgreesWithPlainScansUnderRandomEdits) {
  const std::vector<std::string> names = {"Reel", "REEL", "Scene", "take", "Take", "", "Zz"};
  std::mt19937 rng(5);
  for (int round = 0; round < 50; ++round) {
    FieldMap m;
    PlainMap plain;
    for (int step = 0; step < 200; ++step) {
      const std::string& name = names[rng() % names.size()];
      const int i = static_cast<int>(rng() % 8) - 1;
      const bool inRange = i >= 0 && i < static_cast<int>(plain.entries.size());
      switch (rng() % 6) {
        case 0:
          m.append(name.c_str(), rng() % 2);
          if (plain.find(name) < 0) plain.entries.push_back({name, m.isVisible(m.size() - 1)});
          break;
        case 1:
          m.setName(i, name.c_str());
          if (inRange) plain.entries[i].first = name;
          break;
        case 2:
          m.invertVisible(i);
          if (inRange) plain.entries[i].second = !plain.entries[i].second;
          break;
        case 3: {
          const int j = static_cast<int>(rng() % 8);
          m.swap(i, j);
          if (inRange && j < static_cast<int>(plain.entries.size()))
            std::swap(plain.entries[i], plain.entries[j]);
          break;
        }
        case 4:
          if (m.remove(name.c_str())) plain.entries.erase(plain.entries.begin() + plain.find(name));
          break;
        default:
          if (rng() % 10 == 0) m.clear(), plain.entries.clear();
          if (rng() % 2) m = FieldMap(m);
          break;
      }
      ASSERT_EQ(m.size(), static_cast<int>(plain.entries.size()));
      for (const std::string& n : names) {
        ASSERT_EQ(m.getFieldIdx(n.c_str()), plain.find(n)) << n;
        ASSERT_EQ(m.containsField(n.c_str()), plain.find(n) >= 0);
      }
      int visible = 0;
      for (const auto& e : plain.entries) visible += e.second;
      ASSERT_EQ(m.numVisible(), visible);
      for (int n = 0; n <= visible; ++n)
        ASSERT_EQ(m.getVisibleFieldIndex(n), -1);  // no source: always -1
      (void)plain.visibleAt(0);
    }
  }
}

// 65 535 columns: filling, editing and the visible lookups must stay near
// linear (as plain scans they take billions of comparisons). Without a
// source, so that only the map's own cost counts.
TEST(FieldMapIndex, SixtyFiveThousandColumns) {
  constexpr int kColumns = 65535;
  FieldMap m;
  for (int i = 0; i < kColumns; ++i) m.append(("Col" + std::to_string(i)).c_str(), i % 2 == 1);
  for (int i = 0; i < kColumns; ++i) m.append(("col" + std::to_string(i)).c_str(), true);
  ASSERT_EQ(m.size(), kColumns);  // every name already held, ignoring case
  ASSERT_EQ(m.numVisible(), kColumns / 2);
  for (int i = 0; i < kColumns; ++i)
    ASSERT_EQ(m.isVisible(("COL" + std::to_string(i)).c_str()), i % 2 == 1);
  for (int n = 0; n < kColumns / 2; ++n) ASSERT_EQ(m.getVisibleFieldIndex(n), -1);
  m.invertVisible(0);
  EXPECT_EQ(m.numVisible(), kColumns / 2 + 1);
  EXPECT_TRUE(m.remove("col65534"));
  EXPECT_FALSE(m.containsField("Col65534"));
}

// With a source, the visible lookups give the source's column numbers.
TEST(FieldMapIndex, VisibleLookupsWithASource) {
  std::vector<std::string> cols;
  for (int i = 0; i < 3000; ++i) cols.push_back("Col" + std::to_string(i));
  auto t = makeTable(cols, "3 -1 2 5");
  FieldMap m(*t);
  ASSERT_THAT(entries(m), ElementsAre("Col2", "-Col0", "Col1", "Col4"));
  EXPECT_EQ(m.getVisibleFieldIndex(0), 2);
  EXPECT_EQ(m.getVisibleFieldIndex(1), 1);
  m.swap(0, 1);
  m.setVisible(0, true);
  EXPECT_EQ(m.getVisibleFieldIndex(0), 0);
  EXPECT_EQ(m.getVisibleFieldIndex(3), 4);
  EXPECT_EQ(m.getVisibleFieldIndex(4), -1);
  EXPECT_EQ(m.asString(), "1 3 2 5");
}

}  // namespace
