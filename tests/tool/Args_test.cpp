#include "Args.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zyl::cli {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const CommandDef kDef = {"show",
                         "LOG",
                         "show a log",
                         "Shows a log.",
                         {{"where", 0, "COL=TEXT", "a condition", true},
                          {"sort", 0, "COLS", "sort columns"},
                          {"desc", 0, "", "descending"},
                          {"limit", 0, "N", "at most N rows"},
                          {"output", 'o', "OUT", "output file"}},
                         ""};

ParsedArgs parse(std::vector<std::string> args) { return parseArgs(kDef, args); }

TEST(ArgsTest, AcceptsEveryFormOfOption) {
  ParsedArgs a = parse({"clips.log", "--sort=Scene", "--where", "start keycode=KU 12",
                        "--where=Who=Lee", "--desc", "-o", "out.log", "--limit", "3"});
  EXPECT_THAT(a.positional, ElementsAre("clips.log"));
  EXPECT_EQ(a.get("sort"), "Scene");
  EXPECT_THAT(a.getAll("where"), ElementsAre("start keycode=KU 12", "Who=Lee"));
  EXPECT_TRUE(a.has("desc"));
  EXPECT_EQ(a.get("output"), "out.log");
  EXPECT_EQ(a.getCount("limit", -1), 3);
  EXPECT_FALSE(a.helpRequested);

  ParsedArgs b = parse({"-oout.log", "--sort", "A", "--sort", "B", "--", "--desc", "-"});
  EXPECT_EQ(b.get("output"), "out.log");
  EXPECT_EQ(b.get("sort"), "B");  // a plain option keeps its last value
  EXPECT_THAT(b.positional, ElementsAre("--desc", "-"));
  EXPECT_FALSE(b.has("desc"));
  EXPECT_EQ(b.getCount("limit", -1), -1);
  EXPECT_THAT(b.getAll("where"), IsEmpty());

  EXPECT_TRUE(parse({"-h"}).helpRequested);
  EXPECT_TRUE(parse({"clips.log", "--help"}).helpRequested);
}

TEST(ArgsTest, RejectsMistakesWithAMessageNamingTheOption) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"--colour"}, "unknown option '--colour'"},
      {{"-x"}, "unknown option '-x'"},
      {{"--sort"}, "option '--sort' needs a value (COLS)"},
      {{"-o"}, "option '-o' needs a value (OUT)"},
      {{"--desc=yes"}, "option '--desc' takes no value"},
  };
  for (const Case& c : cases) {
    try {
      parse(c.args);
      ADD_FAILURE() << "accepted " << c.args[0];
    } catch (const UsageError& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
    }
  }
  for (const char* bad : {"-1", "ten", "", "99999999999"}) {
    ParsedArgs a = parse({"--limit", bad});
    EXPECT_THROW(a.getCount("limit", 0), UsageError) << bad;
  }
}

TEST(ArgsTest, HelpListsOptionsWithTheirValues) {
  std::string help = helpText(kDef);
  EXPECT_THAT(help, HasSubstr("Usage: zyldb show LOG\n"));
  EXPECT_THAT(help, HasSubstr("  -o, --output OUT      output file\n"));
  EXPECT_THAT(help, HasSubstr("      --where COL=TEXT  a condition\n"));
  EXPECT_THAT(help, HasSubstr("  -h, --help"));
}

TEST(ArgsTest, WrapTextBreaksAtBlanksAndKeepsIndentedLines) {
  EXPECT_EQ(wrapText("one two three four", 9, 2), "one two\n  three\n  four");
  EXPECT_EQ(wrapText("a longwordthatdoesnotfit b", 5, 0), "a\nlongwordthatdoesnotfit\nb");
  EXPECT_EQ(wrapText("Example:\n  zyldb show clips.log --where x\nEnd", 10, 0),
            "Example:\n  zyldb show clips.log --where x\nEnd");
  EXPECT_EQ(wrapText("", 10, 0), "");
}

TEST(ArgsTest, SplitListTrimsNamesAndSkipsEmptyOnes) {
  EXPECT_THAT(splitList("Name, Start time ,,Take,"), ElementsAre("Name", "Start time", "Take"));
  EXPECT_THAT(splitList(" , "), IsEmpty());
}

}  // namespace
}  // namespace zyl::cli
