// A view's parameters, field spec and file name.

#include <gmock/gmock.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/view/ODBView.h>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

using ::testing::ElementsAre;

std::string describe(ODBViewRep& v) {
  GrowString out;
  v.asString(out);
  return std::string(out.view());
}

TEST(ODBViewParamsTest, FieldSpecs) {
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

  // A second field list does not empty the list: the earlier fields come first,
  // reversed.
  ODBView twice(new ODBViewRep(table.get(), "Name,Reel"));
  twice->fieldSpec("Scene");
  EXPECT_EQ(describe(*twice.rep()), "fieldSpec: Scene\nfields: (Reel Name Scene)\n");

  const char* names[] = {"Reel", "Name", nullptr};
  EXPECT_STREQ(ODBView(new ODBViewRep(table.get(), names))->fieldSpec(), "Reel,Name,");
  EXPECT_STREQ(
      ODBView(new ODBViewRep(table.get(), static_cast<const char**>(nullptr)))->fieldSpec(),
      "Name,Reel,Scene");
}

TEST(ODBViewParamsTest, ParametersComeFromTheSourceAndStayTheViews) {
  auto table = makeTable(1);
  table->add_param("Project", "North");
  table->add_param("Camera", "B");
  table->set_filename(LightweightString<wchar_t>(L"/logs/day1.log"));
  ODBView v(new ODBViewRep(table.get()));
  std::vector<std::string> lines;
  for (const AssocList::Entry& e : v->params())
    lines.push_back(e.key.toStdString() + ":" + e.value.toStdString());
  EXPECT_THAT(lines, ElementsAre("ZYLDB:Rev 1", "Project:North", "Camera:B"));
  EXPECT_TRUE(v->get_filename() == L"/logs/day1.log");

  EXPECT_STREQ(v->get_param_val("nope"), "");
  EXPECT_EQ(v->params().size(), 3u);  // reading adds nothing
  EXPECT_EQ(v->add_param("Lens", "35mm"), 0);
  v->set_param_val("camera", "C");
  EXPECT_STREQ(v->get_param_val("CAMERA"), "C");
  EXPECT_STREQ(table->get_param_val("Camera"), "B");

  ODBView top(new ODBViewRep(table.get()));
  top->baseView(v.rep());
  EXPECT_STREQ(top->get_param_val("Lens"), "35mm");

  auto other = makeTable(1);  // no parameters: none, not even a revision
  v->odb(other.get());
  EXPECT_TRUE(v->params().empty());
}

}  // namespace
}  // namespace zyl::test
