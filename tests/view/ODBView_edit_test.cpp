// Inserting and removing through views, and deletions travelling from the
// table up through stacked views with their exact messages. Random messages,
// repeated rows and drops at position 0 are checked in ODBView_bulk_test.cpp.

#include <gmock/gmock.h>
#include <zyldb/view/ODBView.h>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

ODBView viewOf(zyldb* table, std::initializer_list<int> rows, ODBViewRep* base = nullptr) {
  ODBView v(new ODBViewRep(table));
  v->baseView(base);
  for (int r : rows) v->append(r);
  return v;
}

TEST(ODBViewEditTest, TableDeletionReachesStackedViewsWithExactMessages) {
  auto table = makeTable(10);
  ODBView a = viewOf(table.get(), {3, 5, 7});
  ODBView b = viewOf(table.get(), {0, 1, 2}, a.rep());
  ODBView c = viewOf(table.get(), {0, 1}, b.rep());
  Recorder onTable(*table), onA(*a.rep()), onB(*b.rep()), onC(*c.rep());
  table->delete_records(4, 2);
  EXPECT_THAT(onTable.log, ElementsAre("D:4 5 "));
  // a drops row 1 for the second number (k = 1, j = 1): the drop, the
  // closing list k + j - 1, "recordsChanged".
  EXPECT_THAT(onA.log, ElementsAre("D:1 ", "D:1 ", "C:"));
  EXPECT_THAT(onB.log, ElementsAre("D:1 ", "D:0 ", "C:"));
  EXPECT_THAT(onC.log, ElementsAre("D:1 ", "D:0 ", "C:"));
  EXPECT_THAT(names(*b.rep()), ElementsAre("r3", "r7"));
  EXPECT_THAT(names(*c.rep()), ElementsAre("r3"));
}

TEST(ODBViewEditTest, InsertBlankRecordsGoesIntoTheSource) {
  auto table = makeTable(5);
  ODBView v = viewOf(table.get(), {1, 3});
  v->set_tag(1u, 1);
  v->insertBlankRecords(1, 2);  // before table row 3
  EXPECT_THAT(names(*table), ElementsAre("r0", "r1", "r2", "", "", "r3", "r4"));
  EXPECT_THAT(names(*v.rep()), ElementsAre("r1", "", "", "r3"));
  EXPECT_EQ(v->get_tag(3u), 1);                        // moved with its row
  EXPECT_EQ(v->get_tag(1u), 1);                        // the new row kept the tag left in its slot
  v->insertBlankRecords(v->get_num_records() + 5, 2);  // past the end: appended
  EXPECT_EQ(table->get_num_records(), 9u);
  EXPECT_EQ(v->baseIndex(5), 8);
}

TEST(ODBViewEditTest, RefusedDeletionsLeaveViewsIntact) {
  auto table = makeTable(4);
  ODBView v = viewOf(table.get(), {0, 1, 2, 3});
  table->set_tag(0, 1);
  table->set_show_tags_only(1);  // the table refuses to delete
  v->deleteRecords(1, 2);
  v->set_tag(1u, 1);
  EXPECT_EQ(v->deleteTagged(), 1);
  EXPECT_EQ(v->get_num_records(), 4u);
  table->set_show_tags_only(0);
  EXPECT_EQ(table->get_num_records(), 4u);
}

}  // namespace
}  // namespace zyl::test
