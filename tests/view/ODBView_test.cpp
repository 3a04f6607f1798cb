// The view core: index growth, row resolution through stacked views,
// lifetime of handles and stacked views, copies and sorting.

#include <zyldb/view/ODBView.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/Logging.h>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

TEST(ODBViewTest, IndexGrowsAndShrinksByPolicy) {
  auto table = makeTable(3);
  ODBView v(new ODBViewRep(table.get()));
  EXPECT_EQ(v->get_num_records(), 0u);
  EXPECT_EQ(v->indexCapacity(), 0);

  // Each row: the request and the capacity after it, from the one before.
  const struct {
    int n;
    int capacity;
  } steps[] = {{5, 20}, {20, 20}, {21, 40}, {100, 100}, {30, 50}, {30, 50},
               {10, 25}, {10, 25}, {1, 25}, {300, 300}, {0, 0}};
  for (const auto& s : steps) {
    v->sizeIndexFor(s.n);
    EXPECT_EQ(v->indexCapacity(), s.capacity) << "sizeIndexFor(" << s.n << ")";
  }
  // Appending one row at a time doubles.
  for (int i = 0; i < 41; ++i) v->append(i % 3);
  EXPECT_EQ(v->indexCapacity(), 80);
  v->clear();
  EXPECT_EQ(v->get_num_records(), 0u);
  EXPECT_EQ(v->indexCapacity(), 0);
}

TEST(ODBViewTest, RowsResolveThroughStackedViews) {
  auto table = makeTable(6);
  ODBView a(new ODBViewRep(table.get()));
  a->displayRecordsAt(2, 3, 0);  // table rows 2, 3, 4
  ODBView b(new ODBViewRep(table.get()));
  b->baseView(a.rep());
  b->displayRecordsAt(1, 2, 0);  // a's rows 1, 2 -> table rows 3, 4
  EXPECT_EQ(b->baseIndex(0), 3);
  EXPECT_EQ(b->baseIndex(1), 4);
  EXPECT_EQ((*b.rep())[1], table->get_record(4));
  EXPECT_THAT(names(*b.rep()), ElementsAre("r3", "r4"));
  for (int row : {-1, 2}) {
    EXPECT_EQ((*b.rep())[row], nullptr);
    EXPECT_EQ(b->baseIndex(row), 0);
  }
  EXPECT_EQ(b->findViewIndexForBaseRow(2), 1);
  EXPECT_EQ(b->findViewIndexForBaseRow(0), -1);
  // Edits through a view reach the table's record.
  EXPECT_EQ(b->set_field(0u, 1u, "R-7"), 1);
  EXPECT_STREQ(table->get_record(3)->get_field(1), "R-7");
  // Column numbers are never remapped.
  EXPECT_STREQ(b->get_fieldname(1), "Reel");
  // match_record passes its row number down untranslated: row 1 of b is
  // asked as table row 1 ("r1"), not as table row 4.
  dbrecord* query = table->make_dummy_record();
  query->set_field(0, "r1");
  b->set_query(query);
  EXPECT_EQ(b->match_record(0), 0);
  EXPECT_EQ(b->match_record(1), 1);
  delete query;
}

TEST(ODBViewTest, ShowTagsOnlyRemovesUntaggedRowsWhateverTheArgument) {
  auto table = makeTable(4);
  ODBView v(new ODBViewRep(table.get()));
  v->displayAllRecords();
  v->set_tag(1u, 5);
  v->set_tag(3u, 1);
  v->set_show_tags_only(0);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r1", "r3"));
  EXPECT_EQ(v->get_show_tags_only(), 0);
  EXPECT_EQ(v->get_tag(0u), 1);
  EXPECT_EQ(v->get_tag(9u), 0);
  EXPECT_EQ(table->get_num_records(), 4u);
}

TEST(ODBViewTest, BaseViewOutlivesItsLastHandleWhileStackedOn) {
  auto table = makeTable(3);
  ODBViewRep* base = new ODBViewRep(table.get());
  ODBView baseHandle(base);
  ODBView top(new ODBViewRep(table.get()));
  top->baseView(base);
  EXPECT_EQ(base->refCount(), 2u);
  baseHandle = ODBView();
  EXPECT_EQ(base->refCount(), 1u);
  base->displayAllRecords();  // still alive
  top->displayAllRecords();
  EXPECT_EQ(top->get_num_records(), 3u);
  top->baseView(nullptr);  // the last reference: destroys the base view
  EXPECT_EQ(top->get_num_records(), 0u);

  // A view cannot be stacked on itself or on a view above it.
  ODBView a(new ODBViewRep(table.get()));
  ODBView b(new ODBViewRep(table.get()));
  b->baseView(a.rep());
  a->baseView(b.rep());
  a->baseView(a.rep());
  EXPECT_EQ(a->baseView(), nullptr);
}

TEST(ODBViewTest, DestructionInEitherOrder) {
  {
    auto table = makeTable(5);
    ODBView a(new ODBViewRep(table.get()));
    a->displayAllRecords();
    ODBView b(a->newTagSubview());
    a = ODBView();
    b = ODBView();
    EXPECT_EQ(table->numListeners(), 0u);
    table->delete_records(0, 2);  // nobody left to hear it
  }
  {
    auto table = makeTable(5);
    ODBView a(new ODBViewRep(table.get()));
    a->displayAllRecords();
    ODBView b(new ODBViewRep(table.get()));
    b->baseView(a.rep());
    b->displayAllRecords();
    table.reset();  // the views' table pointer now dangles: only destroy them
    b = ODBView();
    a = ODBView();
  }
}

TEST(ODBViewTest, CopiesKeepRowsAndTags) {
  auto table = makeTable(6);
  ODBView a(new ODBViewRep(table.get()));
  a->displayRecordsAt(4, 2, 0);
  a->displayRecordsAt(1, 1, 2);  // r4 r5 r1
  a->set_tag(1u, 1);

  ODBView c = a.copy();
  EXPECT_THAT(names(*c.rep()), ElementsAre("r4", "r5", "r1"));
  EXPECT_EQ(c->get_tag(1u), 1);
  EXPECT_EQ(c->get_tag(0u), 0);
  EXPECT_EQ(c->refCount(), 1u);

  // Over a base view a copy shows all of the base view's rows; tags go by
  // position.
  ODBView s(new ODBViewRep(table.get()));
  s->baseView(a.rep());
  s->displayRecordsAt(2, 1, 0);
  s->set_tag(0u, 1);
  ODBView sc = s.copy();
  EXPECT_EQ(sc->baseView(), a.rep());
  EXPECT_THAT(names(*sc.rep()), ElementsAre("r4", "r5", "r1"));
  EXPECT_EQ(sc->get_tag(0u), 1);

  // A copy over a table of its own.
  ODBView w = a.copyWithNewBaseView();
  zyldb* own = w->odb();
  ASSERT_NE(own, table.get());
  EXPECT_THAT(names(*w.rep()), ElementsAre("r4", "r5", "r1"));
  EXPECT_NE((*w.rep())[0], (*a.rep())[0]);
  EXPECT_EQ(w->get_tag(1u), 1);
  w = ODBView();
  delete own;

  ODBView t(a->newTagSubview());
  EXPECT_EQ(t->baseView(), a.rep());
  EXPECT_THAT(names(*t.rep()), ElementsAre("r5"));

  EXPECT_FALSE(ODBView().copy());
}

TEST(ODBViewTest, SortsAscendingOrDescendingByTheTableSortField) {
  auto table = makeTable(5);
  const char* reels[] = {"B10", "a2", "b9", "", "A1"};
  for (unsigned i = 0; i < 5; ++i) table->set_field(i, 1u, reels[i]);
  ODBView v(new ODBViewRep(table.get()));
  v->displayAllRecords();
  v->set_tag(0u, 1);
  v->set_sortfield(1);
  v->sort(0, 0);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r4", "r1", "r2", "r0", "r3"));
  EXPECT_EQ(v->get_tag(3u), 1);  // the tag moved with its row
  v->sort(-1, 0);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r2", "r0", "r1", "r4", "r3"));
  EXPECT_EQ(table->get_record(0)->get_field(1), std::string("B10"));  // the table is not reordered
  EXPECT_STREQ(table->get_record(0)->get_field(0), "r0");
}

TEST(ODBViewTest, UnboundViewDoesNothing) {
  ODBView v(new ODBViewRep(static_cast<zyldb*>(nullptr)));
  EXPECT_EQ(v->displayRecordsAt(0, 3, 0), 0);
  v->displayAllRecords();
  v->insertBlankRecords(0, 2);
  EXPECT_EQ(v->get_num_records(), 0u);
  EXPECT_EQ(v->get_num_fields(), 0u);
  EXPECT_EQ(v->get_record(0), nullptr);
  EXPECT_EQ(v->make_dummy_record(), nullptr);
  EXPECT_EQ(v->get_valid(), 0);
  EXPECT_EQ(v->copy(), nullptr);
  EXPECT_EQ(v->saveAsText("x.log", false), 0);
  EXPECT_EQ(Convert_ODBView_to_zyldb(v), nullptr);
}

}  // namespace
}  // namespace zyl::test
