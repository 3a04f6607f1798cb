#include <gtest/gtest.h>
#include <zyldb/view/ODBViewCursor.h>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

// Five rows with reels "A1" "a2" "B3" "b4" "C5"; rows 1 and 3 tagged.
class ODBViewCursorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* reels[] = {"A1", "a2", "B3", "b4", "C5"};
    for (unsigned i = 0; i < 5; ++i) table_->set_field(i, 1u, reels[i]);
    view_->displayAllRecords();
    view_->set_tag(1u, 1);
    view_->set_tag(3u, 1);
  }
  std::vector<int> walk(bool forward, uint8_t tagsOnly) {
    ODBViewCursor c{view_, -1, tagsOnly};
    std::vector<int> out;
    do out.push_back((forward ? ++c : --c).index);
    while (c.index >= 0);
    return out;
  }

  std::unique_ptr<zyldb> table_ = makeTable(5);
  ODBView view_{new ODBViewRep(table_.get())};
};

TEST_F(ODBViewCursorTest, Stepping) {
  EXPECT_EQ(walk(true, 1), (std::vector<int>{1, 3, -1}));
  EXPECT_EQ(walk(false, 1), (std::vector<int>{3, 1, -1}));
  EXPECT_EQ(walk(true, 0), (std::vector<int>{0, 1, 2, 3, 4, -1}));
  EXPECT_EQ(walk(false, 0), (std::vector<int>{4, 3, 2, 1, 0, -1}));
  view_->tagAll(false);
  EXPECT_EQ(walk(false, 1), (std::vector<int>{-1}));
  ODBViewCursor c{view_, 2, 0};
  c.set_index(5);
  EXPECT_EQ(c.index, -1);
  ODBViewCursor empty{ODBView(), 0, 0};
  EXPECT_EQ((++empty).index, -1);
}

TEST_F(ODBViewCursorTest, RemoveAndFind) {
  ODBViewCursor c{view_, 1, 1};  // remove and find ignore tagsOnly
  c.remove();
  EXPECT_EQ(c.index, 1);  // now the row that followed
  EXPECT_EQ(view_->getField(1u, 0u), "r2");
  c.set_index(3);
  c.remove();
  EXPECT_EQ(c.index, -1);  // was the last row
  EXPECT_EQ(c.find(table_->get_record(2)), 1);
  EXPECT_EQ(c.find(table_->get_record(1)), -1);
}

// findField compares ignoring case, forward only, from the current row on.
// findFieldSorted stops at an equal probe rather than repeating forever, and
// every way out gives -1.
TEST_F(ODBViewCursorTest, FindField) {
  ODBViewCursor c{view_, 0, 0};
  EXPECT_EQ(c.findField("Reel", "b3"), 2);
  EXPECT_EQ(c.findField("Reel", "b3"), 2);
  EXPECT_EQ(c.findField("Reel", "A1"), -1);
  EXPECT_EQ(c.findField("Reel", "C5"), -1);  // at -1 nothing is searched
  c.set_index(0);
  EXPECT_EQ(c.findField("Nope", "C5"), -1);
  EXPECT_EQ(c.index, -1);
  ODBViewCursor tagged{view_, 0, 1};
  EXPECT_EQ(tagged.findField("reel", "b4"), 3);
  tagged.set_index(0);
  EXPECT_EQ(tagged.findField("Reel", "C5"), -1);  // row 4 is not tagged

  for (const char* value : {"A1", "a2", "B3", "b4", "C5", "", "zz"}) {
    for (int start : {-1, 2}) {
      ODBViewCursor s{view_, start, 0};
      EXPECT_EQ(s.findFieldSorted("Reel", value), -1) << value;
      EXPECT_EQ(s.index, -1);
    }
  }
}

}  // namespace
}  // namespace zyl::test
