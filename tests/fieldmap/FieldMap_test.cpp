#include <zyldb/fieldmap/FieldMap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <zyldb/db/zyldb.h>

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

std::unique_ptr<zyldb> makeTable(const std::vector<std::string>& columns,
                                 const char* fieldMap = nullptr) {
  std::vector<DBFieldDesc> descs;
  for (const std::string& c : columns) descs.push_back({c.c_str(), DBFieldTypes::text});
  auto t = std::make_unique<zyldb>(descs);
  if (fieldMap) t->add_param(FieldMap::kFieldMapParam, fieldMap);
  return t;
}

std::vector<std::string> numberedColumns(int n) {
  std::vector<std::string> v;
  for (int i = 0; i < n; ++i) v.push_back("c" + std::to_string(i));
  return v;
}

// The entries as "Name" (visible) and "-Name" (hidden).
std::vector<std::string> entries(const FieldMap& m) {
  std::vector<std::string> v;
  for (int i = 0; i < m.size(); ++i)
    v.push_back((m.isVisible(i) ? "" : "-") + m.getName(i).toStdString());
  return v;
}

const std::vector<std::string> kABC = {"Alpha", "Beta", "Gamma"};

TEST(FieldMapText, ReadingRules) {
  struct Case {
    const char* text;
    std::vector<std::string> want;
  } cases[] = {
      {nullptr, {"Alpha", "Beta", "Gamma"}},  // no parameter: every column
      {"", {"Alpha", "Beta", "Gamma"}},
      {"3 -1 2", {"Gamma", "-Alpha", "Beta"}},
      {"2 2 -2", {"Beta"}},            // later duplicates are ignored
      {"1 x 3", {"Alpha"}},            // stops at the letter, no default
      {"x1 2", {"Alpha", "Beta", "Gamma"}},  // nothing read: default
      {"-", {"Alpha", "Beta", "Gamma"}},
      {"0 -0 2", {"Beta"}},            // 0 and -0 are skipped
      {"1  3", {"Alpha", "Gamma"}},    // a chunk of blanks is no stop
      {"   ", {"Alpha", "Beta", "Gamma"}},
      {"9 1 8", {"", "Alpha"}},        // beyond the last column: one empty name
      {"+2 \t3", {"Beta", "Gamma"}},   // accepted by %d, then stepped over
      {"1-2 3", {"Alpha", "Gamma"}},   // digits and '-' after an item are skipped
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text ? c.text : "(none)");
    auto t = makeTable(kABC, c.text);
    FieldMap m(*t);
    EXPECT_THAT(entries(m), ElementsAreArray(c.want));
  }
}

TEST(FieldMapText, ItemsReadFromThreeCharacters) {
  auto t = makeTable(numberedColumns(200), "-123 999 200 -99");
  FieldMap m(*t);
  // -123 reads as -12; 999 is beyond the columns; 200 reads as 200.
  EXPECT_THAT(entries(m), ElementsAre("-c11", "", "c199", "-c98"));
  EXPECT_EQ(m.asString(), "-12 0 200 -99");
}

TEST(FieldMapText, RoundTrip) {
  auto t = makeTable({"Reel", "Scene", "Take", "Notes", "Who"});
  FieldMap m(*t);
  EXPECT_EQ(m.asString(), "1 2 3 4 5");
  m.swap(0, 2);
  m.setVisible(1, false);
  m.setVisible(4, false);
  m.remove("notes");
  EXPECT_EQ(m.asString(), "3 -2 1 -5");

  m.append("Vanished", false);  // a name the source lacks is written as -0
  EXPECT_EQ(m.asString(), "3 -2 1 -5 -0");
  t->add_param(FieldMap::kFieldMapParam, m.asString().c_str());
  FieldMap back(*t);
  EXPECT_THAT(entries(back), ElementsAre("Take", "-Scene", "Reel", "-Who"));

  FieldMap unbound;  // without a source entries are numbered by position
  unbound.append("x", true);
  unbound.append("y", false);
  unbound.append("z", true);
  EXPECT_EQ(unbound.asString(), "1 -2 3");
  EXPECT_EQ(FieldMap().asString(), "");
}

TEST(FieldMapList, LookupAndEdits) {
  FieldMap m;
  m.append("Reel", true);
  m.append("Scene", false);
  m.append("Take", true);
  m.append("REEL", false);  // already held: unchanged
  EXPECT_THAT(entries(m), ElementsAre("Reel", "-Scene", "Take"));
  EXPECT_EQ(m.getFieldIdx("take"), 2);
  EXPECT_TRUE(m.isVisible("REEL"));
  EXPECT_FALSE(m.isVisible("Missing"));

  for (int bad : {-1, 3}) {
    EXPECT_FALSE(m.isVisible(bad));
    EXPECT_EQ(m.getName(bad), "");
    m.set(bad, "X", true);
    m.setName(bad, "X");
    m.setVisible(bad, true);
    m.invertVisible(bad);
    m.swap(bad, 0);
  }
  EXPECT_THAT(entries(m), ElementsAre("Reel", "-Scene", "Take"));

  EXPECT_FALSE(m.remove("Missing"));
  EXPECT_TRUE(m.remove("reel"));  // later names and flags move up together
  EXPECT_THAT(entries(m), ElementsAre("-Scene", "Take"));
  m.invertVisible(0);
  m.set(1, "scene", false);  // set does not keep names unique
  EXPECT_THAT(entries(m), ElementsAre("Scene", "-scene"));
  EXPECT_EQ(m.getFieldIdx("SCENE"), 0);
}

TEST(FieldMapList, VisibleFieldIndexAsksTheSource) {
  auto t = makeTable({"Reel", "Alpha", "Beta", "Gamma"}, "2 -3 4");
  FieldMap m(*t);
  EXPECT_EQ(m.numVisible(), 2);
  EXPECT_EQ(m.getVisibleFieldIndex(0), 1);
  EXPECT_EQ(m.getVisibleFieldIndex(1), 3);  // Gamma: the source's column
  EXPECT_EQ(m.getVisibleFieldIndex(2), -1);
  EXPECT_EQ(m.getVisibleFieldIndex(-1), -1);
  m.setName(0, "Nowhere");
  EXPECT_EQ(m.getVisibleFieldIndex(0), -1);

  m.clear();  // the source stays
  EXPECT_EQ(m.getVisibleFieldIndex(0), -1);
  m.append("reel", true);
  EXPECT_EQ(m.getVisibleFieldIndex(0), 0);
}

TEST(FieldMapBinding, RebindKeepsOrAppendsEntries) {
  auto withText = makeTable({"Who", "Reel", "Take"}, "3 -2");
  auto without = makeTable({"Take", "Who", "Reel"});
  FieldMap textMap(*withText);
  FieldMap plainMap(*without);

  FieldMap m;
  m.append("Reel", true);
  m.append("Notes", false);
  m.setSourceDb(plainMap.getSourceDb());  // no text: entries kept as they are
  EXPECT_THAT(entries(m), ElementsAre("Reel", "-Notes"));
  EXPECT_EQ(m.asString(), "3 -0");  // now numbered by the new source

  m.setSourceDb(textMap.getSourceDb());  // parsed entries go after
  EXPECT_THAT(entries(m), ElementsAre("Reel", "-Notes", "Take"));
  EXPECT_EQ(m.asString(), "2 -0 3");

  FieldMap copy(m);
  FieldMap assigned;
  assigned = m;
  const FieldMap& alias = assigned;
  assigned = alias;  // self-assignment keeps the map
  EXPECT_EQ(copy.getSourceDb().rep(), m.getSourceDb().rep());
  EXPECT_EQ(assigned.getSourceDb().rep(), m.getSourceDb().rep());
  EXPECT_EQ(assigned.asString(), m.asString());
}

}  // namespace
