// Saving a view and converting it into a table.

#include <zyldb/view/ODBView.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/TextUtil.h>

#include "ViewTestUtil.h"
#include "platform/FaultyFileService_internal.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;
using Faulty = zyl::testing::FaultyFileService;

class ODBViewSaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/zyldb_view_saveXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    table_->add_param("Take", "4");
    for (unsigned i = 0; i < 3; ++i) table_->set_field(i, 1u, "7");
    table_->clear_changed();
    view_ = ODBView(new ODBViewRep(table_.get()));
    view_->displayRecordsAt(2, 1, 0);
    view_->displayRecordsAt(0, 2, 1);  // r2 r0 r1
    view_->set_tag(1u, 1);
  }
  void TearDown() override {
    std::remove(file_.c_str());
    rmdir(dir_.c_str());
  }
  std::string slurp() const {
    std::ostringstream s;
    s << std::ifstream(file_, std::ios::binary).rdbuf();
    return s.str();
  }

  std::string dir_;
  std::string file_;
  std::unique_ptr<zyldb> table_ = makeTable(3, {"Name", "Tag"});
  ODBView view_;
  const char* name() {
    file_ = dir_ + "/v.log";
    return file_.c_str();
  }
};

TEST_F(ODBViewSaveTest, WritesParametersHeaderAndRowsWithTheViewsTags) {
  view_->add_param("Lens", "35");
  const std::string header =
      "\"ZYLDB:Rev 1\"\n\"Take:4\"\n\"Lens:35\"\n\"ZYLDB\"\n\"32\",\"1\"\n\"text\",\"text\"\n\"Name\",\"Tag\"\n";
  EXPECT_EQ(view_->saveAsText(name(), false), 3);
  EXPECT_EQ(slurp(), header + "\"r2\",\"0\"\n\"r0\",\"1\"\n\"r1\",\"0\"\n");
  for (unsigned i = 0; i < 3; ++i) {  // only the written copies carry the view's tags
    EXPECT_STREQ(table_->get_record(i)->get_field(1), "7");
    EXPECT_FALSE(table_->get_record(i)->isChanged());
  }
  EXPECT_EQ(view_->saveAsText(name(), true), 0);
  EXPECT_EQ(slurp(), header);
  EXPECT_EQ(view_->saveAsText("", false), 0);

  // Without parameters and without a "Tag" column.
  auto plain = makeTable(2, {"Name"});
  ODBView v(new ODBViewRep(plain.get()));
  v->displayAllRecords();
  v->tagAll(true);
  v->set_filename(Qm::WStringFromAscii(name()));
  EXPECT_EQ(v->save_text(), 2);
  EXPECT_EQ(slurp(), "\"ZYLDB\"\n\"32\"\n\"text\"\n\"Name\"\n\"r0\"\n\"r1\"\n");
}

TEST_F(ODBViewSaveTest, SaveOnlyTaggedCountsRowsExamined) {
  auto five = makeTable(5, {"Name"});
  five->set_tag(1, 1);
  five->set_tag(4, 1);
  ODBView v(new ODBViewRep(five.get()));
  v->displayAllRecords();
  v->set_tag(0u, 1);  // the view's tags are not consulted
  EXPECT_EQ(v->saveOnlyTagged(name()), 5);
  EXPECT_EQ(slurp(), "\"ZYLDB\"\n\"32\"\n\"text\"\n\"Name\"\n\"r1\"\n\"r4\"\n");
}

TEST_F(ODBViewSaveTest, FailedSaveKeepsTheOldFile) {
  ASSERT_EQ(view_->saveAsText(name(), false), 3);
  const std::string before = slurp();
  view_->remove(0, 1);
  Faulty faulty;
  zyl::testing::ScopedFileService use(&faulty);
  for (auto op : {Faulty::kWrite, Faulty::kMove}) {
    faulty.reset();
    faulty.setTornWrites(true);
    faulty.failAlways(op);
    EXPECT_EQ(view_->saveAsText(name(), false), 0);
    EXPECT_EQ(view_->saveOnlyTagged(name()), 0);
    EXPECT_EQ(slurp(), before);
  }
}

TEST_F(ODBViewSaveTest, ConvertMakesAnIndependentTableInViewOrder) {
  std::unique_ptr<zyldb> copy(Convert_ODBView_to_zyldb(view_));
  ASSERT_NE(copy, nullptr);
  EXPECT_THAT(names(*copy), ElementsAre("r2", "r0", "r1"));
  EXPECT_STREQ(copy->get_param_val("Take"), "4");
  copy->set_field(0u, 0u, "changed");
  EXPECT_STREQ(table_->get_record(2)->get_field(0), "r2");
  EXPECT_EQ(Convert_ODBView_to_zyldb(ODBView()), nullptr);
}

}  // namespace
}  // namespace zyl::test
