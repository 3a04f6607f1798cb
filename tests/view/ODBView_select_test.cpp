// Filling a view and its own tags.

#include <zyldb/view/ODBView.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zyldb/db/dbrecord.h>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

TEST(ODBViewSelectTest, InsertedEntriesKeepTheTagsOfTheirSlots) {
  auto table = makeTable(10);
  ODBView v(new ODBViewRep(table.get()));
  EXPECT_EQ(v->displayRecordsAt(0, 2, 0), 2);
  EXPECT_EQ(v->displayRecordsAt(5, 3, 100), 3);  // clamped to the end
  EXPECT_THAT(names(*v.rep()), ElementsAre("r0", "r1", "r5", "r6", "r7"));
  v->set_tag(0u, 1);
  v->displayRecordsAt(9, 1, -4);  // clamped to the front
  EXPECT_THAT(names(*v.rep()), ElementsAre("r9", "r0", "r1", "r5", "r6", "r7"));
  EXPECT_EQ(v->get_tag(0u), 1);  // the slot of the tagged entry it displaced
  EXPECT_EQ(v->get_tag(1u), 1);
  v->tagAll(true);
  v->remove(4, 2);
  v->tagAll(false);
  v->append(3);  // the slot past the end still holds a tagged entry
  EXPECT_EQ(v->get_tag(4u), 1);
  EXPECT_EQ(v->displayRecordsAt(0, 0, 0), 0);
  EXPECT_EQ(v->displayRecordsAt(0, -3, 0), 0);
}

TEST(ODBViewSelectTest, TagsFromTheSource) {
  // Without a "Tag" column the tags are whatever the slots hold: the old
  // rows were all removed, which freed the index, so none.
  auto plain = makeTable(3, {"Name"});
  plain->set_tag(2, 1);
  ODBView p(new ODBViewRep(plain.get()));
  p->displayAllRecords();
  p->set_tag(0u, 1);
  p->displayAllRecordsWithBaseTagStatus();
  EXPECT_EQ(p->get_num_records(), 3u);
  EXPECT_EQ(p->countTags(), 0);

  auto table = makeTable(4);
  table->set_tag(2, 1);
  const char* tagTexts[] = {"2", "", "0", "x"};
  for (unsigned i = 0; i < 4; ++i) table->set_field(i, 2u, tagTexts[i]);
  ODBView v(new ODBViewRep(table.get()));
  v->displayAllRecordsWithBaseTagStatus();
  EXPECT_EQ(v->countTags(), 1);
  EXPECT_EQ(v->get_tag(2u), 1);
  v->setupViewTagsFromZyldbTagField();
  EXPECT_EQ(v->get_tag(0u), 1);
  EXPECT_EQ(v->get_tag(1u), 0);
  EXPECT_EQ(v->get_tag(2u), 0);
  EXPECT_EQ(v->get_tag(3u), 0);

  // And back: the view's tags onto the table's rows it shows.
  ODBView part(new ODBViewRep(table.get()));
  part->displayRecordsAt(1, 2, 0);
  part->tagAll(true);
  part->tagBaseFromTags();
  EXPECT_EQ(table->get_tag(1), 1);
  EXPECT_EQ(table->get_tag(0), 0);

  ODBView sub(v->newTagSubview());
  EXPECT_THAT(names(*sub.rep()), ElementsAre("r0"));
}

TEST(ODBViewSelectTest, DuplicatesAndMatches) {
  auto table = makeTable(4);
  const char* reels[] = {"b", "a", "B", "c"};
  for (unsigned i = 0; i < 4; ++i) table->set_field(i, 1u, reels[i]);
  ODBView v(new ODBViewRep(table.get()));
  v->displayAllRecords();
  // "B" sorts before "b": row 0 is the later member of the run.
  EXPECT_EQ(v->tagDuplicates(1), 1);
  EXPECT_EQ(v->get_tag(0u), 1);
  EXPECT_EQ(v->countTags(), 1);
  EXPECT_EQ(v->tag_all_different(1), 3);
  EXPECT_EQ(v->get_tag(0u), 0);

  // A view nobody holds survives tagDuplicates.
  ODBViewRep loose(table.get());
  loose.displayAllRecords();
  EXPECT_EQ(loose.tagDuplicates(1), 1);

  auto runs = makeTable(4);
  const char* values[] = {"a", "A", "b", "B"};
  for (unsigned i = 0; i < 4; ++i) runs->set_field(i, 1u, values[i]);
  ODBView ordered(new ODBViewRep(runs.get()));
  ordered->displayAllRecords();
  ordered->set_tag(2u, 1);  // not a duplicate: keeps its tag
  EXPECT_EQ(ordered->tagDuplicatesOrdered(1), 2);
  EXPECT_EQ(ordered->get_tag(0u), 0);
  EXPECT_EQ(ordered->get_tag(1u), 1);
  EXPECT_EQ(ordered->get_tag(2u), 1);
  EXPECT_EQ(ordered->get_tag(3u), 1);

  dbrecord* query = table->make_dummy_record();
  query->set_field(1, "c");
  v->set_query(query);
  v->tagAll(false);
  v->set_tag(0u, 1);
  EXPECT_EQ(v->tagMatches(1), 1);
  EXPECT_EQ(v->countTags(), 2);
  EXPECT_EQ(v->tag_matching_records(1), 1);  // always keep = 0
  EXPECT_EQ(v->countTags(), 1);
  EXPECT_EQ(v->get_tag(3u), 1);
  delete query;

  EXPECT_EQ(v->find(nullptr), -1);
  EXPECT_EQ(v->find(table->get_record(2)), 2);
}

TEST(ODBViewSelectTest, RowsByIdentifierAndFromAnotherView) {
  auto table = makeTable(4, {"Name", "Cookie"});
  std::vector<Cookie> ids;
  for (unsigned i = 0; i < 4; ++i) {
    ids.push_back(Cookie::make('C'));
    table->set_field(i, ids.back());
  }
  ODBView v(new ODBViewRep(table.get()));
  v->displayRecordsAt(0, 2, 0);
  CookieVec wanted;
  wanted.push_back(ids[3]);
  wanted.push_back(Cookie::make('C'));  // matches nothing
  wanted.push_back(ids[2]);
  EXPECT_EQ(v->displayRecordsAt(wanted, 1), 2);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r0", "r3", "r2", "r1"));

  ODBView other(new ODBViewRep(table.get()));
  other->displayRecordsAt(2, 2, 0);
  ODBView target(new ODBViewRep(table.get()));
  target->displayRecordsAt(3, 1, 0);
  target->displayRecordsAt(0, 1, 1);
  EXPECT_EQ(target->displayAllFromAt(other.rep(), 1), 1);  // r3 is shown already
  EXPECT_THAT(names(*target.rep()), ElementsAre("r3", "r2", "r0"));
  ODBView stacked(new ODBViewRep(table.get()));
  stacked->baseView(other.rep());
  stacked->displayAllRecords();
  EXPECT_EQ(target->displayAllFromAt(stacked.rep(), 0), 0);
  EXPECT_EQ(stacked->displayAllFromAt(other.rep(), 0), 0);
}

}  // namespace
}  // namespace zyl::test
