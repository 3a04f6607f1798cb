// The view core: rows resolved through stacked views, the lifetime of
// handles and stacked views, copies and sorting. The index policy is checked
// in ODBView_bulk_test.cpp.

#include <gmock/gmock.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/view/ODBView.h>

#include "ViewTestUtil.h"
#include "view/ODBView_internal.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

TEST(ODBViewTest, RowsResolveThroughStackedViews) {
  auto table = makeTable(6);
  ODBView a(new ODBViewRep(table.get())), b(new ODBViewRep(table.get()));
  a->displayRecordsAt(2, 3, 0);  // table rows 2, 3, 4
  b->baseView(a.rep());
  b->displayRecordsAt(1, 2, 0);  // a's rows 1, 2
  for (int row : {-1, 2}) {
    EXPECT_EQ((*b.rep())[row], nullptr);
    EXPECT_EQ(b->baseIndex(row), 0);
  }
  EXPECT_EQ(b->set_field(0u, 1u, "R-7"), 1);
  EXPECT_STREQ(table->get_record(3)->get_field(1), "R-7");
  // match_record passes its row number on untranslated: b's row 1 is asked
  // about as table row 1.
  std::unique_ptr<dbrecord> query(table->make_dummy_record());
  query->set_field(0, "r1");
  b->set_query(query.get());
  EXPECT_EQ(b->match_record(1), 1);
  EXPECT_EQ(b->match_record(0), 0);
}

// A stacked view keeps its base view alive; views unsubscribe when destroyed
// in either order, and may outlive their table.
TEST(ODBViewTest, Lifetime) {
  auto table = makeTable(3);
  ODBView top(new ODBViewRep(table.get()));
  top->baseView(ODBView(new ODBViewRep(table.get())).rep());
  top->baseView()->displayAllRecords();
  top->displayAllRecords();
  EXPECT_EQ(top->get_num_records(), 3u);
  top->baseView(nullptr);  // releases the base view's last reference
  EXPECT_EQ(table->numListeners(), 1u);

  ODBView a(new ODBViewRep(table.get())), b(new ODBViewRep(table.get()));
  b->baseView(a.rep());
  a->baseView(b.rep());  // no cycles
  a->baseView(a.rep());
  EXPECT_EQ(a->baseView(), nullptr);
  a->displayAllRecords();
  b = ODBView(a->newTagSubview());
  a = ODBView();
  top = b = ODBView();
  EXPECT_EQ(table->numListeners(), 0u);
  table->delete_records(0, 2);

  a = ODBView(new ODBViewRep(table.get()));
  a->displayAllRecords();
  b = ODBView(a->newTagSubview());
  table.reset();  // b then a go after their table
}

TEST(ODBViewTest, CopyWithNewBaseViewOwnsItsTable) {
  auto table = makeTable(6);
  ODBView a(new ODBViewRep(table.get()));
  a->displayRecordsAt(4, 2, 0);
  a->displayRecordsAt(1, 1, 2);
  a->set_tag(1u, 1);
  ODBView own = a.copyWithNewBaseView();
  std::unique_ptr<zyldb> ownTable(own->odb());
  ASSERT_NE(ownTable.get(), table.get());
  EXPECT_THAT(names(*own.rep()), ElementsAre("r4", "r5", "r1"));
  EXPECT_NE((*own.rep())[0], (*a.rep())[0]);
  EXPECT_EQ(own->get_tag(1u), 1);
  own = ODBView();
  EXPECT_FALSE(ODBView().copy());
  EXPECT_EQ(ODBViewRep(static_cast<zyldb*>(nullptr)).copy(), nullptr);
}

TEST(ODBViewTest, SortsByTheTableSortFieldEitherWay) {
  auto table = makeTable(5);
  const char* reels[] = {"B10", "a2", "b9", "", "A1"};
  for (unsigned i = 0; i < 5; ++i) table->set_field(i, 1u, reels[i]);
  ODBView v(new ODBViewRep(table.get()));
  v->displayAllRecords();
  v->set_sortfield(1);
  v->sort(0, 0);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r4", "r1", "r2", "r0", "r3"));
  v->sort(-1, 0);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r2", "r0", "r1", "r4", "r3"));
  v->append(99);  // no record: equal to every row
  v->sort(0, 0);
  EXPECT_EQ(v->get_num_records(), 6u);
}

TEST(ODBViewTest, UnimplementedConditionAndOrderReportThemselves) {
  auto table = makeTable(3);
  ODBView v(new ODBViewRep(table.get()));
  std::vector<std::string> splats;
  const SplatHandler previous = setSplatHandler([&](const char* t) { splats.push_back(t); });
  int condition = 0, order = 0;
  ODBViewInternal::setConditionAndOrder(*v.rep(), &condition, &order);
  v->buildIndex();
  ODBViewInternal::setConditionAndOrder(*v.rep(), nullptr, nullptr);
  setSplatHandler(previous);
  EXPECT_EQ(v->get_num_records(), 3u);  // every row satisfies it all the same
  ASSERT_EQ(splats.size(), 4u);
  EXPECT_EQ(splats[0], "ODBViewRep::satisfiesCondition, not implemented\n");
  EXPECT_EQ(splats[3], "ODBViewRep::sortIndex(), not implemented!\n");
}

}  // namespace
}  // namespace zyl::test
