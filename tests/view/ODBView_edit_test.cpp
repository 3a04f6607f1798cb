// Inserting, deleting and removing through views, and how deletions travel
// from the table up through stacked views, with the exact message texts.

#include <zyldb/view/ODBView.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

ODBView viewOf(zyldb* table, std::initializer_list<int> rows) {
  ODBView v(new ODBViewRep(table));
  for (int r : rows) v->displayRecordsAt(r, 1, static_cast<int>(v->get_num_records()));
  return v;
}

ODBView stackedOnAll(zyldb* table, const ODBView& base) {
  ODBView v(new ODBViewRep(table));
  v->baseView(base.rep());
  v->displayAllRecords();
  return v;
}

TEST(ODBViewEditTest, TableDeletionReachesStackedViewsWithExactMessages) {
  auto table = makeTable(10);
  ODBView a = viewOf(table.get(), {3, 5, 7});
  ODBView b = stackedOnAll(table.get(), a);
  ODBView c = stackedOnAll(table.get(), b);
  Recorder onTable(*table), onA(*a.rep()), onB(*b.rep()), onC(*c.rep());

  table->delete_records(4, 2);

  EXPECT_THAT(onTable.log, ElementsAre("D:4 5 "));
  // The drop of row 1 for the second number (k = 1, j = 1), then the
  // closing list k + j - 1 and "recordsChanged".
  EXPECT_THAT(onA.log, ElementsAre("D:1 ", "D:1 ", "C:"));
  EXPECT_THAT(onB.log, ElementsAre("D:1 ", "D:0 ", "C:"));
  EXPECT_THAT(onC.log, ElementsAre("D:1 ", "D:0 ", "C:"));
  for (const ODBView* v : {&a, &b, &c}) EXPECT_THAT(names(*v->rep()), ElementsAre("r3", "r7"));
  EXPECT_EQ(a->sourceRow(1), 5);

  // A view naming the same row twice loses both entries; the closing list
  // numbers the drops at position 0 with k + j - 1 = -1.
  ODBView twice = viewOf(table.get(), {2, 2, 3});
  Recorder onTwice(*twice.rep());
  table->delete_records(2, 1);
  EXPECT_THAT(onTwice.log, ElementsAre("D:0 ", "D:0 ", "D:-1 -1 ", "C:"));
  EXPECT_THAT(names(*twice.rep()), ElementsAre("r3"));
}

TEST(ODBViewEditTest, RemoveDropsRowsFromThisViewOnly) {
  auto table = makeTable(5);
  ODBView v = viewOf(table.get(), {0, 1, 2, 3, 4});
  ODBView top = stackedOnAll(table.get(), v);
  Recorder onV(*v.rep());
  v->remove(-1, 1);
  v->remove(5, 1);
  EXPECT_THAT(onV.log, IsEmpty());
  v->remove(2, 10);
  EXPECT_THAT(onV.log, ElementsAre("D:2 3 4 "));
  EXPECT_THAT(names(*v.rep()), ElementsAre("r0", "r1"));
  EXPECT_THAT(names(*top.rep()), ElementsAre("r0", "r1"));
  EXPECT_EQ(table->get_num_records(), 5u);

  // removeTagged on a stacked view drops the rows from the views below it
  // as well, never from the table.
  ODBView all = viewOf(table.get(), {0, 1, 2, 3, 4});
  ODBView mid = stackedOnAll(table.get(), all);
  ODBView leaf = stackedOnAll(table.get(), mid);
  ODBView sibling = stackedOnAll(table.get(), all);
  leaf->set_tag(1u, 1);
  leaf->set_tag(2u, 1);
  leaf->set_tag(4u, 1);
  EXPECT_EQ(leaf->removeTagged(), 3);
  for (const ODBView* x : {&all, &mid, &leaf, &sibling})
    EXPECT_THAT(names(*x->rep()), ElementsAre("r0", "r3"));
  EXPECT_EQ(table->get_num_records(), 5u);
}

TEST(ODBViewEditTest, InsertBlankRecordsGoesIntoTheSource) {
  auto table = makeTable(5);
  ODBView v = viewOf(table.get(), {1, 3});
  v->set_tag(1u, 1);
  v->insertBlankRecords(1, 2);  // before table row 3
  EXPECT_THAT(names(*table), ElementsAre("r0", "r1", "r2", "", "", "r3", "r4"));
  EXPECT_THAT(names(*v.rep()), ElementsAre("r1", "", "", "r3"));
  EXPECT_EQ(v->get_tag(3u), 1);  // moved with its row
  EXPECT_EQ(v->get_tag(1u), 1);  // the new rows keep the tags left in their slots

  EXPECT_EQ(v->add_records(1), 4);
  v->insertBlankRecords(v->get_num_records() + 5, 2);
  EXPECT_EQ(table->get_num_records(), 10u);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r1", "", "", "r3", "", "", ""));
  EXPECT_EQ(v->baseIndex(6), 9);

  // Through a stacked view the base view takes the rows as well.
  ODBView top = stackedOnAll(table.get(), v);
  top->insertBlankRecords(0, 1);
  EXPECT_EQ(v->get_num_records(), 8u);
  EXPECT_EQ(top->get_num_records(), 8u);
  EXPECT_EQ(names(*table).front(), "r0");
  EXPECT_EQ(top->baseIndex(0), 1);
  EXPECT_EQ(top->baseIndex(1), 2);
}

TEST(ODBViewEditTest, DeletingThroughViewsDeletesTableRecords) {
  auto table = makeTable(8);
  ODBView all(new ODBViewRep(table.get()));
  all->displayAllRecords();
  ODBView some(new ODBViewRep(table.get()));
  some->baseView(all.rep());
  some->displayRecordsAt(2, 2, 0);
  some->displayRecordsAt(5, 1, 2);  // r2 r3 r5
  some->deleteRecords(0, 3);
  EXPECT_THAT(names(*table), ElementsAre("r0", "r1", "r4", "r6", "r7"));
  EXPECT_THAT(names(*all.rep()), ElementsAre("r0", "r1", "r4", "r6", "r7"));
  EXPECT_EQ(some->get_num_records(), 0u);

  for (unsigned row : {1u, 2u, 4u}) all->set_tag(row, 1);
  EXPECT_EQ(all->deleteTagged(), 3);
  EXPECT_THAT(names(*table), ElementsAre("r0", "r6"));
  EXPECT_THAT(names(*all.rep()), ElementsAre("r0", "r6"));

  all->delete_records(0, 5);  // cut at the end
  EXPECT_EQ(table->get_num_records(), 0u);
  EXPECT_EQ(all->get_num_records(), 0u);
}

TEST(ODBViewEditTest, TableInShowTagsOnlyModeRefusesAndViewsStayIntact) {
  auto table = makeTable(4);
  ODBView v = viewOf(table.get(), {0, 1, 2, 3});
  table->set_tag(0, 1);
  table->set_show_tags_only(1);
  v->deleteRecords(1, 2);  // refused by the table, finishes all the same
  v->set_tag(1u, 1);
  EXPECT_EQ(v->deleteTagged(), 1);
  EXPECT_EQ(v->get_num_records(), 4u);
  table->set_show_tags_only(0);
  EXPECT_EQ(table->get_num_records(), 4u);
}

}  // namespace
}  // namespace zyl::test
