#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/fieldmap/FieldMap.h>

#include <memory>
#include <string>
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
