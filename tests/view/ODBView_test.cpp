// The view core: rows through stacked views, lifetimes, copies, selection,
// edits, field specs and cursors. Bulk handling is checked against the
// literal steps in ODBView_bulk_test.cpp, random edits in
// ODBView_model_test.cpp.

#include <gmock/gmock.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/sexpr/SExpr.h>
#include <zyldb/view/ODBView.h>
#include <zyldb/view/ODBViewCursor.h>

#include "ViewTestUtil.h"
#include "view/ODBView_internal.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

TEST(ODBViewTest, RowsResolveThroughStackedViewsAndCopies) {
  auto table = makeTable(6);
  ODBView a = viewOf(table.get(), {2, 3, 4});
  ODBView b = viewOf(table.get(), {1, 2}, a.rep());
  for (int row : {-1, 2}) {
    EXPECT_EQ((*b.rep())[row], nullptr);
    EXPECT_EQ(b->baseIndex(row), 0);
  }
  EXPECT_EQ(b->set_field(0u, 1u, "R-7"), 1);
  EXPECT_STREQ(table->get_record(3)->get_field(1), "R-7");
  // match_record passes its row number on untranslated.
  std::unique_ptr<dbrecord> query(table->make_dummy_record());
  query->set_field(0, "r1");
  b->set_query(query.get());
  EXPECT_EQ(b->match_record(1), 1);
  EXPECT_EQ(b->match_record(0), 0);

  ODBView own = viewOf(table.get(), {4, 5, 1}).copyWithNewBaseView();
  std::unique_ptr<zyldb> ownTable(own->odb());  // the copy owns its table
  ASSERT_NE(ownTable.get(), table.get());
  EXPECT_THAT(names(*own.rep()), ElementsAre("r4", "r5", "r1"));
  own = ODBView();
  EXPECT_EQ(ODBViewRep(static_cast<zyldb*>(nullptr)).copy(), nullptr);
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
  top->baseView(nullptr);
  EXPECT_EQ(table->numListeners(), 1u);

  ODBView a(new ODBViewRep(table.get())), b(new ODBViewRep(table.get()));
  b->baseView(a.rep());
  a->baseView(b.rep());  // no cycles
  a->baseView(a.rep());
  EXPECT_EQ(a->baseView(), nullptr);
  a->displayAllRecords();
  b = ODBView(a->newTagSubview());
  top = a = b = ODBView();
  EXPECT_EQ(table->numListeners(), 0u);
  table->delete_records(0, 2);

  a = ODBView(new ODBViewRep(table.get()));
  a->displayAllRecords();
  b = ODBView(a->newTagSubview());
  table.reset();
}

TEST(ODBViewTest, IndexGrowsByDoublingAndShrinksByHalvingOnce) {
  auto table = makeTable(3);
  ODBView v(new ODBViewRep(table.get()));
  EXPECT_EQ(v->indexCapacity(), 0);
  const std::pair<int, int> steps[] = {{5, 20}, {21, 40}, {100, 100}, {30, 50}, {30, 50}, {0, 0}};
  for (auto [n, capacity] : steps) {
    v->sizeIndexFor(n);
    EXPECT_EQ(v->indexCapacity(), capacity) << "sizeIndexFor(" << n << ")";
  }
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
  EXPECT_EQ(v->get_num_records(), 3u);
  ASSERT_EQ(splats.size(), 4u);
  EXPECT_EQ(splats[0], "ODBViewRep::satisfiesCondition, not implemented\n");
  EXPECT_EQ(splats[3], "ODBViewRep::sortIndex(), not implemented!\n");
}

TEST(ODBViewTest, TagsFromAndToTheSource) {
  auto table = makeTable(4);
  setColumn(*table, 2, {"2", "", "0", "x"});
  table->set_tag(2, 1);
  ODBView v(new ODBViewRep(table.get()));
  v->displayAllRecordsWithBaseTagStatus();
  EXPECT_EQ(v->countTags(), 1);
  v->setupViewTagsFromZyldbTagField();
  EXPECT_EQ(v->countTags(), 1);
  EXPECT_EQ(v->get_tag(0u), 1);
  v->invertAllTags();
  v->tagBaseFromTags();
  EXPECT_EQ(table->get_tag(0), 0);
  EXPECT_EQ(table->get_tag(3), 1);
}

TEST(ODBViewTest, DuplicatesAndMatches) {
  auto table = makeTable(4);
  setColumn(*table, 1, {"b", "a", "B", "c"});
  ODBViewRep loose(table.get());  // held by no handle: must survive
  loose.displayAllRecords();
  // Sorted, "B" comes before "b": row 0 is the later member of the run.
  EXPECT_EQ(loose.tagDuplicates(1), 1);
  EXPECT_EQ(loose.get_tag(0u), 1);
  EXPECT_EQ(loose.tag_all_different(1), 3);

  setColumn(*table, 1, {"a", "A"});
  ODBView ordered = viewOf(table.get(), {0, 1, 3});
  ordered->set_tag(2u, 1);
  EXPECT_EQ(ordered->tagDuplicatesOrdered(1), 1);
  EXPECT_EQ(ordered->get_tag(1u), 1);

  std::unique_ptr<dbrecord> query(table->make_dummy_record());
  query->set_field(1, "c");
  ordered->set_query(query.get());
  EXPECT_EQ(ordered->tagMatches(1), 1);  // keeps the other tags
  EXPECT_EQ(ordered->countTags(), 2);
  EXPECT_EQ(ordered->tag_matching_records(1), 1);  // always with keep = 0
  EXPECT_EQ(ordered->countTags(), 1);
  EXPECT_EQ(ordered->find(table->get_record(3)), 2);
}

TEST(ODBViewTest, RowsByIdentifier) {
  auto table = makeTable(4, {"Name", "Cookie"});
  std::vector<Cookie> ids;
  for (unsigned i = 0; i < 4; ++i) table->set_field(i, ids.emplace_back(Cookie::make('C')));
  ODBView v = viewOf(table.get(), {0, 1});
  CookieVec wanted;
  for (const Cookie& c : {ids[3], Cookie::make('C'), ids[2]}) wanted.push_back(c);
  EXPECT_EQ(v->displayRecordsAt(wanted, 1), 2);
  EXPECT_THAT(names(*v.rep()), ElementsAre("r0", "r3", "r2", "r1"));
}

TEST(ODBViewTest, TableDeletionReachesStackedViewsWithExactMessages) {
  auto table = makeTable(10);
  ODBView a = viewOf(table.get(), {3, 5, 7});
  ODBView b = viewOf(table.get(), {0, 1, 2}, a.rep());
  ODBView c = viewOf(table.get(), {0, 1}, b.rep());
  Recorder onTable(*table), onA(*a.rep()), onC(*c.rep());
  table->delete_records(4, 2);
  EXPECT_THAT(onTable.log, ElementsAre("D:4 5 "));
  // a drops row 1 for the second number (k = 1, j = 1): the drop, the
  // closing list k + j - 1, "recordsChanged".
  EXPECT_THAT(onA.log, ElementsAre("D:1 ", "D:1 ", "C:"));
  EXPECT_THAT(onC.log, ElementsAre("D:1 ", "D:0 ", "C:"));
  EXPECT_THAT(names(*c.rep()), ElementsAre("r3"));
}

TEST(ODBViewTest, InsertBlankRecordsAndRefusedDeletions) {
  auto table = makeTable(5);
  ODBView v = viewOf(table.get(), {1, 3});
  v->set_tag(1u, 1);
  v->insertBlankRecords(1, 2);  // before table row 3
  EXPECT_THAT(names(*v.rep()), ElementsAre("r1", "", "", "r3"));
  EXPECT_EQ(v->get_tag(3u), 1);                        // moved with its row
  EXPECT_EQ(v->get_tag(1u), 1);                        // the new row kept the tag left in its slot
  v->insertBlankRecords(v->get_num_records() + 5, 2);  // past the end: appended
  EXPECT_EQ(v->baseIndex(5), 8);

  table->set_show_tags_only(1);  // the table refuses to delete
  v->deleteRecords(1, 2);
  EXPECT_EQ(v->deleteTagged(), 2);
  EXPECT_EQ(v->get_num_records(), 6u);
  table->set_show_tags_only(0);
  EXPECT_EQ(table->get_num_records(), 9u);
}

TEST(ODBViewTest, FieldSpecs) {
  auto describe = [](ODBViewRep& v) {
    GrowString out;
    v.asString(out);
    return std::string(out.view());
  };
  std::vector<std::string> warnings;
  const LogSink previous = setLogSink([&](LogLevel, const char* m) { warnings.push_back(m); });
  auto table = makeTable(2, {"Name", "Reel", "Scene"});
  const char* cases[][2] = {
      {"Name,,Reel\tScene", "(Name Reel Scene)"},
      {"\t,Scene,", "(Scene)"},
      {"Name,Bogus,Reel", "(Name Reel)"},
      {"name", nullptr},  // names match exactly
  };
  for (const auto& c : cases) {
    ODBView v(new ODBViewRep(table.get(), c[0]));
    EXPECT_EQ(describe(*v.rep()), std::string("fieldSpec: ") + c[0] + "\n" +
                                      (c[1] ? std::string("fields: ") + c[1] + "\n" : ""));
  }
  setLogSink(previous);
  EXPECT_THAT(warnings,
              ElementsAre("Warning: ODBView::fieldSpec, non-existant fieldname \"Bogus\".\n",
                          "Warning: ODBView::fieldSpec, non-existant fieldname \"name\".\n"));
  // A second field list puts the earlier fields first, reversed.
  ODBView twice(new ODBViewRep(table.get(), "Name,Reel"));
  twice->fieldSpec("Scene");
  EXPECT_EQ(describe(*twice.rep()), "fieldSpec: Scene\nfields: (Reel Name Scene)\n");
}

// The fields of a field list come from one lookup table of column names; each must
// be the column dbFieldIndex gives (the first of equal names). And a view of
// 65 535 columns, which used to cost one scan of the columns per name, is
// built with every one of them.
TEST(ODBViewTest, FieldSpecLookupMatchesDbFieldIndex) {
  auto table = makeTable(1, {"A", "B", "A", "C", "B"});
  ODBView v(new ODBViewRep(table.get(), "B,A,C,B,X,A"));
  std::vector<int> expected;
  for (const char* name : {"B", "A", "C", "B", "A"}) expected.push_back(v->dbFieldIndex(name));
  std::vector<int> got;
  for (SExpr* cell = v->fields(); cell; cell = cell->next())
    got.push_back(static_cast<int>(static_cast<SExprRef*>(cell->element())->field()));
  EXPECT_EQ(got, expected);
  EXPECT_EQ(expected, (std::vector<int>{1, 0, 3, 1, 0}));

  std::vector<std::string> names;
  for (int k = 0; k < 65535; ++k) names.push_back("c" + std::to_string(k));
  std::vector<const char*> columns;
  for (const std::string& n : names) columns.push_back(n.c_str());
  auto wide = makeTable(1, columns);
  ODBView all(new ODBViewRep(wide.get()));
  int n = 0;
  for (SExpr* cell = all->fields(); cell; cell = cell->next()) ++n;
  EXPECT_EQ(n, 65535);
}

// Rows 1 and 3 of five are tagged; reels "A1" "a2" "B3" "b4" "C5".
TEST(ODBViewCursorTest, SteppingAndFinding) {
  auto table = makeTable(5);
  setColumn(*table, 1, {"A1", "a2", "B3", "b4", "C5"});
  ODBView view = viewOf(table.get(), {0, 1, 2, 3, 4});
  view->set_tag(1u, 1);
  view->set_tag(3u, 1);
  auto walk = [&](bool forward, uint8_t tagsOnly) {
    ODBViewCursor c{view, -1, tagsOnly};
    std::vector<int> out;
    do out.push_back((forward ? ++c : --c).index);
    while (c.index >= 0);
    return out;
  };
  EXPECT_EQ(walk(true, 1), (std::vector<int>{1, 3, -1}));
  EXPECT_EQ(walk(false, 0), (std::vector<int>{4, 3, 2, 1, 0, -1}));

  // findField ignores case, searches forward from the current row, and at -1
  // searches nothing. findFieldSorted always ends at -1.
  ODBViewCursor c{view, 0, 0};
  EXPECT_EQ(c.findField("Reel", "b3"), 2);
  EXPECT_EQ(c.findField("Reel", "A1"), -1);
  EXPECT_EQ(c.findField("Reel", "C5"), -1);
  ODBViewCursor tagged{view, 0, 1};
  EXPECT_EQ(tagged.findField("reel", "b4"), 3);
  EXPECT_EQ(tagged.findField("Reel", "C5"), -1);  // row 4 is not tagged
  for (const char* value : {"A1", "C5", "zz"}) {
    ODBViewCursor s{view, 2, 0};
    EXPECT_EQ(s.findFieldSorted("Reel", value) + s.index, -2) << value;
  }
}

}  // namespace
}  // namespace zyl::test
