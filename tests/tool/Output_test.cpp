#include "Output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace zyl::cli {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Le;

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

TEST(OutputTest, TextWidthsCountTerminalColumns) {
  struct Case {
    std::string text;
    size_t width;
  } cases[] = {
      {"", 0},
      {"Scene 12", 8},
      {"Caf\xC3\xA9", 4},               // é
      {"e\xCC\x81", 1},                 // e + combining acute
      {"\xE6\xB8\xAF\xE3\x81\xAE", 4},  // two wide characters
      {"\xFF", 1},                      // invalid byte: U+FFFD
      {"\xC0\xAF", 2},                  // overlong: two U+FFFD
      {"\xED\xA0\x80", 3},              // surrogate: three U+FFFD
      {"\xE2\x82", 2},                  // truncated sequence
  };
  for (const Case& c : cases) EXPECT_EQ(displayWidth(c.text), c.width) << c.text;
}

TEST(OutputTest, DisplayTextMakesEveryCellOneLineOfPrintableText) {
  EXPECT_EQ(displayText("a\nb"),
            "a\xE2\x86\xB5"
            "b");
  EXPECT_EQ(displayText("a\tb"), "a b");
  EXPECT_EQ(displayText("a\x1B[31mb"), "a\xEF\xBF\xBD[31mb");
  EXPECT_EQ(displayText("\xC3("), "\xEF\xBF\xBD(");
  EXPECT_EQ(displayText("Caf\xC3\xA9"), "Caf\xC3\xA9");
}

TEST(OutputTest, CutToWidthEndsCutTextsWithAnEllipsis) {
  struct Case {
    std::string text;
    size_t width;
    std::string expected;
  } cases[] = {
      {"abcdef", 4, "abc\xE2\x80\xA6"},
      {"abcd", 4, "abcd"},
      {"abcd", 1, "\xE2\x80\xA6"},
      {"abcd", 0, ""},
      // A wide character that would overrun the width is left out whole.
      {"\xE6\xB8\xAF\xE6\xB8\xAF\xE6\xB8\xAF", 4, "\xE6\xB8\xAF\xE2\x80\xA6"},
      {"\xE6\xB8\xAF\xE6\xB8\xAF\xE6\xB8\xAF", 3, "\xE6\xB8\xAF\xE2\x80\xA6"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(cutToWidth(c.text, c.width), c.expected) << c.text << " in " << c.width;
    EXPECT_LE(displayWidth(cutToWidth(c.text, c.width)), c.width);
  }
}

Grid makeGrid(std::vector<std::string> names, std::vector<std::vector<std::string>> rows) {
  Grid g;
  g.names = std::move(names);
  g.rightAligned.assign(g.names.size(), false);
  g.rows = std::move(rows);
  return g;
}

TEST(OutputTest, LayoutKeepsNaturalWidthsWhenTheyFit) {
  Grid g = makeGrid({"Name", "Description"}, {{"12-1A", "Wide"}, {"12-1B", "Wide master"}});
  EXPECT_THAT(layoutTable(g, 80).widths, ElementsAre(5, 11));
  EXPECT_THAT(layoutTable(g, 0).widths, ElementsAre(5, 11));
  EXPECT_THAT(layoutTable(g, 18).widths, ElementsAre(5, 11));
}

TEST(OutputTest, LayoutShrinksLongColumnsThenLeavesOutWhatCannotFit) {
  std::string long40(40, 'x');
  Grid g = makeGrid({"A", "B", "C", "D"}, {{"abc", long40, long40, "1234567890"}});
  // Minimums 3 + 12 + 12 + 10 and three gaps make 43: all four stay, and
  // the spare room goes to the narrower of the two long columns first.
  EXPECT_THAT(layoutTable(g, 43).widths, ElementsAre(3, 12, 12, 10));
  EXPECT_THAT(layoutTable(g, 46).widths, ElementsAre(3, 14, 13, 10));
  // One column fewer fits in 42; the two long ones share the room.
  EXPECT_THAT(layoutTable(g, 42).widths, ElementsAre(3, 18, 17));
  // The first column is kept even when nothing fits.
  EXPECT_THAT(layoutTable(g, 2).widths, ElementsAre(2));
}

TEST(OutputTest, RenderTableAlignsCutsAndReportsDroppedColumns) {
  Grid g = makeGrid({"Name", "Take", "Description", "Notes"},
                    {{"12-1A", "1", "Wide master, kitchen", "NG"}, {"12-10B", "10", "", "ok"}});
  g.rightAligned[1] = true;
  std::vector<std::string> dropped;
  EXPECT_EQ(renderTable(g, 30, &dropped),
            "Name    Take  Description\n"
            "------  ----  ----------------\n"
            "12-1A      1  Wide master, ki\xE2\x80\xA6\n"
            "12-10B    10\n");
  EXPECT_THAT(dropped, ElementsAre("Notes"));
}

TEST(OutputTest, RandomTablesFitTheirWidth) {
  unsigned seed = 20240611;
  std::mt19937 rng(seed);
  const std::string pieces[] = {"a", "Scene", " ", "\xE6\xB8\xAF", "\xC3\xA9", "\n", "0123456789"};
  for (int round = 0; round < 200; ++round) {
    Grid g;
    size_t columns = 1 + rng() % 8;
    for (size_t c = 0; c < columns; ++c) {
      g.names.push_back("col" + std::to_string(c));
      g.rightAligned.push_back(rng() % 2 == 0);
    }
    for (size_t r = 0; r < 1 + rng() % 5; ++r) {
      std::vector<std::string> row;
      for (size_t c = 0; c < columns; ++c) {
        std::string cell;
        for (size_t k = rng() % 12; k > 0; --k) cell += pieces[rng() % std::size(pieces)];
        row.push_back(cell);
      }
      g.rows.push_back(row);
    }
    size_t width = 8 + rng() % 100;
    std::vector<size_t> widths;
    for (const std::string& line : lines(renderTable(g, width, nullptr)))
      widths.push_back(displayWidth(line));
    EXPECT_THAT(widths, Each(Le(width))) << "seed " << seed << " round " << round;
  }
}

TEST(OutputTest, CsvQuotesOnlyWhatNeedsIt) {
  Grid g = makeGrid({"Name", "Description"}, {{"12-1A", "Wide, kitchen"},
                                              {"12-1B", "says \"no\""},
                                              {"12-1C", "a\nb"},
                                              {"12-1D", "plain"}});
  size_t quoted = 0;
  EXPECT_EQ(renderCsv(g, &quoted),
            "Name,Description\n"
            "12-1A,\"Wide, kitchen\"\n"
            "12-1B,\"says \"\"no\"\"\"\n"
            "12-1C,\"a\nb\"\n"
            "12-1D,plain\n");
  EXPECT_EQ(quoted, 3u);
}

TEST(OutputTest, JsonStringsEscapeWhatJsonRequires) {
  struct Case {
    std::string text, expected;
  } cases[] = {
      {"", "\"\""},
      {"say \"hi\"", "\"say \\\"hi\\\"\""},
      {"C:\\temp", "\"C:\\\\temp\""},
      {"a\nb\tc\r", "\"a\\nb\\tc\\r\""},
      {std::string("\x01\x1f", 2), "\"\\u0001\\u001f\""},
      {"Caf\xC3\xA9", "\"Caf\xC3\xA9\""},
      {"bad\xFF", "\"bad\xEF\xBF\xBD\""},
  };
  for (const Case& c : cases) EXPECT_EQ(jsonString(c.text), c.expected);
}

TEST(OutputTest, JsonRowsAreObjectsNamedByColumn) {
  EXPECT_EQ(renderJsonRows(makeGrid({"Name"}, {})), "[]\n");
  EXPECT_EQ(renderJsonRows(makeGrid({"Name", "Tag"}, {{"a", "1"}, {"b", "0"}})),
            "[\n"
            "  {\"Name\": \"a\", \"Tag\": \"1\"},\n"
            "  {\"Name\": \"b\", \"Tag\": \"0\"}\n"
            "]\n");
}

}  // namespace
}  // namespace zyl::cli
