// The view core: index growth, rows resolved through stacked views, the
// lifetime of handles and stacked views, copies and sorting.

#include <zyldb/view/ODBView.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/Logging.h>

#include "ViewTestUtil.h"
#include "view/ODBView_internal.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

TEST(ODBViewTest, IndexGrowsAndShrinksByPolicy) {
  auto table = makeTable(3);
  ODBView v(new ODBViewRep(table.get()));
  EXPECT_EQ(v->indexCapacity(), 0);
  // Each request and the capacity after it, starting from the one before.
  const int steps[][2] = {{5, 20},  {20, 20}, {21, 40}, {100, 100}, {30, 50}, {30, 50},
                          {10, 25}, {1, 25},  {300, 300}, {0, 0}};
  for (const auto& s : steps) {
    v->sizeIndexFor(s[0]);
    EXPECT_EQ(v->indexCapacity(), s[1]) << "sizeIndexFor(" << s[0] << ")";
  }
  for (int i = 0; i < 41; ++i) v->append(i % 3);
  EXPECT_EQ(v->indexCapacity(), 80);
}

TEST(ODBViewTest, RowsResolveThroughStackedViews) {
  auto table = makeTable(6);
  ODBView a(new ODBViewRep(table.get()));
  a->displayRecordsAt(2, 3, 0);  // table rows 2, 3, 4
  ODBView b(new ODBViewRep(table.get()));
  b->baseView(a.rep());
  b->displayRecordsAt(1, 2, 0);  // a's rows 1, 2
  EXPECT_EQ(b->baseIndex(1), 4);
  EXPECT_EQ((*b.rep())[1], table->get_record(4));
  EXPECT_THAT(names(*b.rep()), ElementsAre("r3", "r4"));
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

TEST(ODBViewTest, LifetimeOfHandlesAndStackedViews) {
  auto table = makeTable(3);
  ODBViewRep* base = new ODBViewRep(table.get());
  ODBView baseHandle(base), top(new ODBViewRep(table.get()));
  top->baseView(base);
  baseHandle = ODBView();  // the stacked view keeps the base view alive
  EXPECT_EQ(base->refCount(), 1u);
  base->displayAllRecords();
  top->displayAllRecords();
  EXPECT_EQ(top->get_num_records(), 3u);
  top->baseView(nullptr);  // releases the base view's last reference
  EXPECT_EQ(table->numListeners(), 1u);

  // No cycles: a view is not stacked on itself or on a view above it.
  ODBView a(new ODBViewRep(table.get())), b(new ODBViewRep(table.get()));
  b->baseView(a.rep());
  a->baseView(b.rep());
  a->baseView(a.rep());
  EXPECT_EQ(a->baseView(), nullptr);
}

TEST(ODBViewTest, DestructionInEitherOrder) {
  auto table = makeTable(5);
  ODBView a(new ODBViewRep(table.get()));
  a->displayAllRecords();
  ODBView b(a->newTagSubview());
  a = ODBView();
  b = ODBView();
  EXPECT_EQ(table->numListeners(), 0u);
  table->delete_records(0, 2);

  a = ODBView(new ODBViewRep(table.get()));
  a->displayAllRecords();
  b = ODBView(a->newTagSubview());
  table.reset();  // the views' table is gone: they may only be destroyed
  b = ODBView();
  a = ODBView();
}

TEST(ODBViewTest, Copies) {
  auto table = makeTable(6);
  ODBView a(new ODBViewRep(table.get()));
  a->displayRecordsAt(4, 2, 0);
  a->displayRecordsAt(1, 1, 2);  // r4 r5 r1
  a->set_tag(1u, 1);
  ODBView c = a.copy();
  EXPECT_THAT(names(*c.rep()), ElementsAre("r4", "r5", "r1"));
  EXPECT_EQ(c->countTags(), 1);
  EXPECT_EQ(c->get_tag(1u), 1);

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
  v->set_tag(0u, 1);
  v->set_sortfield(1);
  v->sort(0, 0);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r4", "r1", "r2", "r0", "r3"));
  EXPECT_EQ(v->get_tag(3u), 1);  // moved with its row
  v->sort(-1, 0);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r2", "r0", "r1", "r4", "r3"));
  EXPECT_STREQ(table->get_record(0)->get_field(0), "r0");  // the table keeps its order
  v->append(99);  // no record: equal to every row
  v->sort(0, 0);
  EXPECT_EQ(v->get_num_records(), 6u);
}

TEST(ODBViewTest, UnimplementedConditionAndOrderReportThemselves) {
  auto table = makeTable(3);
  ODBView v(new ODBViewRep(table.get()));
  std::vector<std::string> splats;
  const zyl::SplatHandler previous = zyl::setSplatHandler([&](const char* t) { splats.push_back(t); });
  int condition = 0, order = 0;
  ODBViewInternal::setConditionAndOrder(*v.rep(), &condition, &order);
  v->buildIndex();
  ODBViewInternal::setConditionAndOrder(*v.rep(), nullptr, nullptr);
  zyl::setSplatHandler(previous);
  EXPECT_EQ(v->get_num_records(), 3u);  // every row satisfies it all the same
  ASSERT_EQ(splats.size(), 4u);
  EXPECT_EQ(splats[0], "ODBViewRep::satisfiesCondition, not implemented\n");
  EXPECT_EQ(splats[3], "ODBViewRep::sortIndex(), not implemented!\n");
}

}  // namespace
}  // namespace zyl::test
