// Saving a view and converting it into a table.

#include <gmock/gmock.h>
#include <unistd.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/view/ODBView.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "ViewTestUtil.h"
#include "platform/FaultyFileService_internal.h"

namespace zyl::test {
namespace {

using Faulty = zyl::testing::FaultyFileService;
namespace fs = std::filesystem;

// The view r2 r0 r1, its row 1 tagged, of a table with parameter Take and
// columns Name and Tag, every Tag "7".
class ODBViewSaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(dir_);
    table_->add_param("Take", "4");
    setColumn(*table_, 1, {"7", "7", "7"});
    table_->clear_changed();
    view_ = viewOf(table_.get(), {2, 0, 1});  // takes the parameters now
    view_->set_tag(1u, 1);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string slurp() const {
    std::ostringstream s;
    s << std::ifstream(file_, std::ios::binary).rdbuf();
    return s.str();
  }

  const fs::path dir_ = fs::temp_directory_path() / ("zyldb_view_save_" + std::to_string(getpid()));
  const std::string file_ = (dir_ / "v.log").string();
  const char* name_ = file_.c_str();
  std::unique_ptr<zyldb> table_ = makeTable(3, {"Name", "Tag"});
  ODBView view_;
};

TEST_F(ODBViewSaveTest, WritesParametersHeaderAndRowsWithTheViewsTags) {
  view_->add_param("Lens", "35");
  const std::string header =
      "\"ZYLDB:Rev 1\"\n\"Take:5\"\n\"Lens:35\"\n\"ZYLDB\"\n\"32\",\"1\"\n\"text\",\"text\"\n"
      "\"Name\",\"Tag\"\n";
  view_->set_param_val("take", "5");  // keys ignore case; the table keeps its own
  EXPECT_STREQ(table_->get_param_val("Take"), "4");
  EXPECT_EQ(view_->saveAsText(name_, false), 3);
  EXPECT_EQ(slurp(), header + "\"r2\",\"0\"\n\"r0\",\"1\"\n\"r1\",\"0\"\n");
  for (unsigned i = 0; i < 3; ++i) {  // only the written copies carry the view's tags
    EXPECT_STREQ(table_->get_record(i)->get_field(1), "7");
    EXPECT_FALSE(table_->get_record(i)->isChanged());
  }
  EXPECT_EQ(view_->saveAsText(name_, true), 0);
  EXPECT_EQ(slurp(), header);
  EXPECT_EQ(view_->saveAsText("", false), 0);

  // Without parameters and without a "Tag" column; saveOnlyTagged looks at
  // the table's tags, not the view's, and counts the rows it examined.
  auto plain = makeTable(5, {"Name"});
  plain->set_tag(1, 1);
  plain->set_tag(4, 1);
  ODBView v = viewOf(plain.get(), {0, 1, 2, 3, 4});
  v->tagAll(true);
  v->set_filename(Qm::WStringFromAscii(name_));
  // The magic line is written even without parameters: a file needs it.
  const std::string head = "\"ZYLDB:Rev 1\"\n\"ZYLDB\"\n\"32\"\n\"text\"\n\"Name\"\n";
  EXPECT_EQ(v->save_text(), 5);
  EXPECT_EQ(slurp(), head + "\"r0\"\n\"r1\"\n\"r2\"\n\"r3\"\n\"r4\"\n");
  EXPECT_EQ(v->saveOnlyTagged(name_), 5);
  EXPECT_EQ(slurp(), head + "\"r1\"\n\"r4\"\n");
}

TEST_F(ODBViewSaveTest, FailedSaveKeepsTheOldFileAndConvertCopies) {
  ASSERT_EQ(view_->saveAsText(name_, false), 3);
  const std::string before = slurp();
  view_->remove(0, 1);
  Faulty faulty;
  zyl::testing::ScopedFileService use(&faulty);
  for (auto op : {Faulty::kWrite, Faulty::kMove}) {
    faulty.reset();
    faulty.setTornWrites(true);
    faulty.failAlways(op);
    EXPECT_EQ(view_->saveAsText(name_, false), 0);
    EXPECT_EQ(view_->saveOnlyTagged(name_), 0);
    EXPECT_EQ(slurp(), before);
  }
  std::unique_ptr<zyldb> copy(Convert_ODBView_to_zyldb(view_));
  ASSERT_NE(copy, nullptr);
  EXPECT_THAT(names(*copy), ::testing::ElementsAre("r0", "r1"));
  EXPECT_STREQ(copy->get_param_val("Take"), "4");
  copy->set_field(0u, 0u, "changed");
  EXPECT_STREQ(table_->get_record(0)->get_field(0), "r0");
  EXPECT_EQ(Convert_ODBView_to_zyldb(ODBView()), nullptr);
}

}  // namespace
}  // namespace zyl::test
