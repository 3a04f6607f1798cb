// Filling a view, and the view's own tags. How inserted entries and the tags
// left in their slots move is checked in ODBView_bulk_test.cpp.

#include <gmock/gmock.h>
#include <zyldb/view/ODBView.h>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

TEST(ODBViewSelectTest, TagsFromAndToTheSource) {
  auto table = makeTable(4);
  const char* tagTexts[] = {"2", "", "0", "x"};
  for (unsigned i = 0; i < 4; ++i) table->set_field(i, 2u, tagTexts[i]);
  table->set_tag(2, 1);
  ODBView v(new ODBViewRep(table.get()));
  v->displayAllRecordsWithBaseTagStatus();
  EXPECT_EQ(v->countTags(), 1);
  EXPECT_EQ(v->get_tag(2u), 1);
  v->setupViewTagsFromZyldbTagField();
  EXPECT_EQ(v->countTags(), 1);
  EXPECT_EQ(v->get_tag(0u), 1);
  v->invertAllTags();
  v->tagBaseFromTags();
  EXPECT_EQ(table->get_tag(0), 0);
  EXPECT_EQ(table->get_tag(3), 1);
}

TEST(ODBViewSelectTest, DuplicatesAndMatches) {
  auto table = makeTable(4);
  const char* reels[] = {"b", "a", "B", "c"};
  for (unsigned i = 0; i < 4; ++i) table->set_field(i, 1u, reels[i]);
  ODBViewRep loose(table.get());  // held by no handle: must survive
  loose.displayAllRecords();
  // Sorted, "B" comes before "b": row 0 is the later member of the run.
  EXPECT_EQ(loose.tagDuplicates(1), 1);
  EXPECT_EQ(loose.get_tag(0u), 1);
  EXPECT_EQ(loose.tag_all_different(1), 3);
  EXPECT_EQ(loose.get_tag(0u), 0);

  table->set_field(0u, 1u, "a");
  table->set_field(1u, 1u, "A");
  ODBView ordered(new ODBViewRep(table.get()));
  ordered->displayRecordsAt(0, 2, 0);
  ordered->displayRecordsAt(3, 1, 2);  // a A c
  ordered->set_tag(2u, 1);
  EXPECT_EQ(ordered->tagDuplicatesOrdered(1), 1);
  EXPECT_EQ(ordered->countTags(), 2);
  EXPECT_EQ(ordered->get_tag(1u), 1);

  std::unique_ptr<dbrecord> query(table->make_dummy_record());
  query->set_field(1, "c");
  ordered->set_query(query.get());
  ordered->tagAll(false);
  ordered->set_tag(0u, 1);
  EXPECT_EQ(ordered->tagMatches(1), 1);  // keeps the other tags
  EXPECT_EQ(ordered->countTags(), 2);
  EXPECT_EQ(ordered->tag_matching_records(1), 1);  // always with keep = 0
  EXPECT_EQ(ordered->countTags(), 1);
  EXPECT_EQ(ordered->find(nullptr), -1);
  EXPECT_EQ(ordered->find(table->get_record(3)), 2);
}

TEST(ODBViewSelectTest, RowsByIdentifierAndFromAnotherView) {
  auto table = makeTable(4, {"Name", "Cookie"});
  std::vector<Cookie> ids;
  for (unsigned i = 0; i < 4; ++i) table->set_field(i, ids.emplace_back(Cookie::make('C')));
  ODBView v(new ODBViewRep(table.get()));
  v->displayRecordsAt(0, 2, 0);
  CookieVec wanted;
  for (const Cookie& c : {ids[3], Cookie::make('C'), ids[2]}) wanted.push_back(c);
  EXPECT_EQ(v->displayRecordsAt(wanted, 1), 2);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r0", "r3", "r2", "r1"));

  ODBView target(new ODBViewRep(table.get()));
  target->displayRecordsAt(3, 1, 0);
  target->displayRecordsAt(0, 1, 1);
  v->remove(0, 1);                                     // r3 r2 r1
  EXPECT_EQ(target->displayAllFromAt(v.rep(), 1), 2);  // r3 is shown already
  EXPECT_THAT(names(*target.rep()), ElementsAre("r3", "r2", "r1", "r0"));
  ODBView stacked(v->newTagSubview());
  EXPECT_EQ(target->displayAllFromAt(stacked.rep(), 0), 0);
}

}  // namespace
}  // namespace zyl::test
