// A view's parameters, field spec and file name.

#include <zyldb/view/ODBView.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <zyldb/platform/Logging.h>
#include <zyldb/sexpr/SExpr.h>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

class ODBViewParamsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_ = zyl::setLogSink([this](zyl::LogLevel, const char* m) { warnings_.push_back(m); });
  }
  void TearDown() override { zyl::setLogSink(previous_); }

  static std::string describe(ODBViewRep& v) {
    GrowString out;
    v.asString(out);
    return std::string(out.view());
  }
  static std::vector<std::string> paramLines(const ODBViewRep& v) {
    std::vector<std::string> out;
    for (const AssocList::Entry& e : v.params()) out.push_back(e.key.toStdString() + ":" + e.value.toStdString());
    return out;
  }

  std::vector<std::string> warnings_;
  zyl::LogSink previous_;
  std::unique_ptr<zyldb> table_ = makeTable(2, {"Name", "Reel", "Scene"});
};

TEST_F(ODBViewParamsTest, FieldSpecParsing) {
  const struct {
    const char* spec;
    const char* fields;
    int warnings;
  } cases[] = {
      {"Name,,Reel\tScene", "(Name Reel Scene)", 0},
      {"\t,Scene,", "(Scene)", 0},
      {"Name,Bogus,Reel", "(Name Reel)", 1},
      {"name", nullptr, 1},  // names match exactly, case included
      {"", nullptr, 0},
  };
  for (const auto& c : cases) {
    warnings_.clear();
    ODBView v(new ODBViewRep(table_.get(), c.spec));
    std::string expected = std::string("fieldSpec: ") + c.spec + "\n";
    if (c.fields) expected += std::string("fields: ") + c.fields + "\n";
    EXPECT_EQ(describe(*v.rep()), expected) << c.spec;
    EXPECT_EQ(static_cast<int>(warnings_.size()), c.warnings) << c.spec;
  }
  warnings_.clear();
  ODBView v(new ODBViewRep(table_.get(), "Name,Bogus"));
  EXPECT_THAT(warnings_, ElementsAre("Warning: ODBView::fieldSpec, non-existant fieldname \"Bogus\".\n"));

  // A second spec does not empty the list: the earlier fields come first,
  // reversed.
  ODBView twice(new ODBViewRep(table_.get(), "Name,Reel"));
  twice->fieldSpec("Scene");
  EXPECT_EQ(describe(*twice.rep()), "fieldSpec: Scene\nfields: (Reel Name Scene)\n");
}

TEST_F(ODBViewParamsTest, SpecsFromConstructors) {
  ODBView identity(new ODBViewRep(table_.get()));
  EXPECT_STREQ(identity->fieldSpec(), "Name,Reel,Scene");
  ODBView nullNames(new ODBViewRep(table_.get(), static_cast<const char**>(nullptr)));
  EXPECT_STREQ(nullNames->fieldSpec(), "Name,Reel,Scene");
  const char* names[] = {"Reel", "Name", nullptr};
  ODBView named(new ODBViewRep(table_.get(), names));
  EXPECT_STREQ(named->fieldSpec(), "Reel,Name,");
  EXPECT_EQ(describe(*named.rep()), "fieldSpec: Reel,Name,\nfields: (Reel Name)\n");
  const char* none[] = {nullptr};
  ODBView empty(new ODBViewRep(table_.get(), none));
  EXPECT_STREQ(empty->fieldSpec(), "");
  EXPECT_EQ(empty->fields(), nullptr);
  EXPECT_EQ(identity->dbFieldIndex("Scene"), 2);
  EXPECT_EQ(identity->dbFieldIndex("scene"), -1);
}

TEST_F(ODBViewParamsTest, ParametersComeFromTheTableAndStayTheViews) {
  table_->add_param("Project", "North");
  table_->add_param("Camera", "B");
  table_->set_filename(LightweightString<wchar_t>(L"/logs/day1.log"));
  ODBView v(new ODBViewRep(table_.get()));
  EXPECT_THAT(paramLines(*v.rep()), ElementsAre("ZYLDB:Rev 1", "Project:North", "Camera:B"));
  EXPECT_TRUE(v->get_filename() == L"/logs/day1.log");

  EXPECT_STREQ(v->get_param_val("nope"), "");
  EXPECT_EQ(v->params().size(), 3u);  // reading adds nothing
  EXPECT_EQ(v->add_param("Lens", "35mm"), 0);
  v->set_param_val("camera", "C");  // names ignore case
  v->set_param_val("Project", "");
  EXPECT_STREQ(v->get_param_val("CAMERA"), "C");
  EXPECT_STREQ(v->get_param_val("Project"), "");
  EXPECT_STREQ(table_->get_param_val("Camera"), "B");
  v->set_filename(LightweightString<wchar_t>(L"/tmp/v.log"));
  EXPECT_TRUE(table_->get_filename() == L"/logs/day1.log");

  // A view stacked on `v` takes v's parameters.
  ODBView top(new ODBViewRep(table_.get()));
  top->baseView(v.rep());
  EXPECT_STREQ(top->get_param_val("Lens"), "35mm");
  EXPECT_STREQ(top->get_param_val("Camera"), "C");

  // Binding to another table starts over from that table's parameters.
  auto other = makeTable(1);
  other->add_param("Roll", "9");
  v->odb(other.get());
  EXPECT_STREQ(v->get_param_val("Lens"), "");
  EXPECT_STREQ(v->get_param_val("ZYLDB"), "Rev 1");

  // A revision entry without text is filled in; an absent one is not.
  ODBView unbound(new ODBViewRep(static_cast<zyldb*>(nullptr)));
  unbound->internRevision();
  EXPECT_TRUE(unbound->params().empty());
  ODBView noParams(new ODBViewRep(makeTable(1).get()));
  EXPECT_TRUE(noParams->params().empty());
}

}  // namespace
}  // namespace zyl::test
