// Golden tests of the CSV, TSV and ALE readers and writers: hand-written
// fixtures read into the expected tables, tables written as the expected
// text, and each reader's errors.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/interchange/Interchange.h>

#include <string>
#include <vector>

#include "InterchangeTestUtil.h"

namespace zyl::interchange {
namespace {

using ::testing::ElementsAre;
using testing::fixture;
using testing::makeTable;
using testing::namesOf;
using testing::Rows;
using testing::rowsOf;
using testing::toAle;
using testing::toCsv;
using testing::toTsv;
using testing::typesOf;

// ---- CSV ------------------------------------------------------------------------

TEST(Csv, ReadsASpreadsheetExport) {
  // BOM, CRLF, quoted commas, doubled quotes, a line break inside a quoted
  // field, a blank value, an empty last field and UTF-8 text.
  Error err;
  auto t = readCsv(fixture("spreadsheet.csv"), {}, &err);
  ASSERT_TRUE(t) << err.message;
  EXPECT_TRUE(t->get_valid());
  EXPECT_THAT(namesOf(*t), ElementsAre("Reel", "Scene", "Description", "Start time"));
  EXPECT_EQ(typesOf(*t), "aaat");
  EXPECT_EQ(rowsOf(*t), (Rows{
                            {"A001", "12", "Wide, slow push-in", "01:00:00:00"},
                            {"A002", "12A", "Actor says \"cut\" early", "01:00:10:12"},
                            {"A003", "13", "Two lines:\r\nsecond line", ""},
                            {"", "", " ", "01:00:20;02"},
                            {"B001", "14", "Caf\xC3\xA9 \xE2\x80\x94 night", ""},
                        }));
  EXPECT_EQ(t->get_filename().size(), 0u);
}

TEST(Csv, WritesQuotingOnlyWhereNeeded) {
  auto t = makeTable(
      {"Name", "Notes"},
      {{"plain", "a,b"}, {"say \"hi\"", "two\nlines"}, {" lead", "trail "}, {"", "=1+1"}});
  EXPECT_EQ(toCsv(*t),
            "Name,Notes\n"
            "plain,\"a,b\"\n"
            "\"say \"\"hi\"\"\",\"two\nlines\"\n"
            "\" lead\",\"trail \"\n"
            ",=1+1\n");
  CsvOptions sheet;
  sheet.delimiter = ';';
  sheet.bom = true;
  sheet.crlf = true;
  sheet.header = false;
  EXPECT_EQ(toCsv(*t, sheet),
            "\xEF\xBB\xBF"
            "plain;a,b\r\n"
            "\"say \"\"hi\"\"\";\"two\nlines\"\r\n"
            "\" lead\";\"trail \"\r\n"
            ";=1+1\r\n");
}

TEST(Csv, GuardsFormulasOnlyWhenAsked) {
  auto t = makeTable({"=Name"}, {{"=SUM(A1)"}, {"+1"}, {"-2"}, {"@x"}, {"a=b"}, {"=a,b"}, {""}});
  CsvOptions guarded;
  guarded.guardFormulas = true;
  // The header is not guarded; an empty single field is quoted so that the
  // row is not a blank line.
  EXPECT_EQ(toCsv(*t, guarded), "=Name\n'=SUM(A1)\n'+1\n'-2\n'@x\na=b\n\"'=a,b\"\n\"\"\n");
  EXPECT_EQ(toCsv(*t), "=Name\n=SUM(A1)\n+1\n-2\n@x\na=b\n\"=a,b\"\n\"\"\n");
}

TEST(Csv, ToleratesWhatSpreadsheetsAndPeopleWrite) {
  struct Case {
    const char* text;
    char delimiter;
    Rows rows;
  } cases[] = {
      // Short rows are padded; trailing empty fields beyond the header dropped.
      {"a,b,c\n1\n1,2,3,,\n", ',', {{"1", "", ""}, {"1", "2", "3"}}},
      // Blank lines are skipped; lone CR ends lines; no final line end.
      {"\n\na,b\r\r1,2\r\n\n3,4", ',', {{"1", "2"}, {"3", "4"}}},
      // A quote inside an unquoted field is literal.
      {"a,b\n5'10\",x\"y\n", ',', {{"5'10\"", "x\"y"}}},
      // Semicolons and tabs as delimiters; commas are then plain text.
      {"a;b\n1,5;\"x;y\"\n", ';', {{"1,5", "x;y"}}},
      {"a\tb\n1,5\t\"x\ty\"\n", '\t', {{"1,5", "x\ty"}}},
      // An empty quoted field and a quoted field ending the text.
      {"a,b\n\"\",\"z\"", ',', {{"", "z"}}},
  };
  for (const Case& c : cases) {
    CsvOptions o;
    o.delimiter = c.delimiter;
    Error err;
    auto t = readCsv(c.text, o, &err);
    ASSERT_TRUE(t) << c.text << ": " << err.message;
    EXPECT_EQ(rowsOf(*t), c.rows) << c.text;
  }
}

TEST(Csv, WithoutHeaderNamesColumnsByNumber) {
  CsvOptions o;
  o.header = false;
  Error err;
  auto t = readCsv("x\ny,z\n", o, &err);
  ASSERT_TRUE(t);
  EXPECT_THAT(namesOf(*t), ElementsAre("Column 1", "Column 2"));
  EXPECT_EQ(rowsOf(*t), (Rows{{"x", ""}, {"y", "z"}}));
  auto empty = readCsv("", {}, &err);
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->get_num_fields(), 0u);
  EXPECT_EQ(empty->get_num_records(), 0u);
}

TEST(Csv, ErrorsNameTheLineAndColumn) {
  struct Case {
    const char* text;
    int line, column;
    const char* message;
  } cases[] = {
      {"a,b\n1,\"open\n\nstill open", 4, 0,
       "line 4: unterminated quoted field that began on line 2"},
      {"a,b\r\n\"x\"y,2\r\n", 2, 4,
       "line 2, column 4: unexpected character after the closing quote of a field"},
      {"a,b\n1,2\n1,2,3\n", 3, 0, "line 3: 3 values, but the header names 2 columns"},
      {"a,b\n\"multi\nline\",2,3\n", 2, 0, "line 2: 3 values, but the header names 2 columns"},
  };
  for (const Case& c : cases) {
    Error err;
    EXPECT_FALSE(readCsv(c.text, {}, &err)) << c.text;
    EXPECT_EQ(err.message, c.message);
    EXPECT_EQ(err.line, c.line);
    EXPECT_EQ(err.column, c.column);
  }
  CsvOptions bad;
  bad.delimiter = '"';
  Error err;
  EXPECT_FALSE(readCsv("a", bad, &err));
  EXPECT_FALSE(writeCsv(
      *makeTable({"a"}, {}), bad, [](std::string_view) { return true; }, &err));
  EXPECT_EQ(err.message, "the delimiter cannot be a quote or a line end");
}

TEST(Csv, StopsWhenTheSinkRefuses) {
  auto t = makeTable({"a"}, Rows(100000, {"0123456789"}));
  int calls = 0;
  Error err;
  EXPECT_FALSE(writeCsv(
      *t, {}, [&](std::string_view) { return ++calls < 2; }, &err));
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(err.message, "could not write the output");
}

// ---- TSV ------------------------------------------------------------------------

TEST(Tsv, ReadsAndWritesEscapes) {
  const std::string text =
      "Name\tNotes\\tmore\n"
      "a\\tb\tline\\nbreak\n"
      "back\\\\slash\tcr\\r\n"
      "\t\n";
  Error err;
  auto t = readTsv(text, &err);
  ASSERT_TRUE(t) << err.message;
  EXPECT_THAT(namesOf(*t), ElementsAre("Name", "Notes\tmore"));
  EXPECT_EQ(rowsOf(*t), (Rows{{"a\tb", "line\nbreak"}, {"back\\slash", "cr\r"}, {"", ""}}));
  EXPECT_EQ(toTsv(*t), text);
  TsvOptions crlf;
  crlf.crlf = true;
  EXPECT_EQ(toTsv(*t), toTsv(*readTsv(toTsv(*t, crlf), &err)));
}

TEST(Tsv, KeepsUnknownEscapesAndLoneCarriageReturns) {
  Error err;
  auto t = readTsv("\xEF\xBB\xBFPath\tx\r\nC:\\clips\\a\tone\rtwo\r\n\n", &err);
  ASSERT_TRUE(t) << err.message;
  EXPECT_THAT(namesOf(*t), ElementsAre("Path", "x"));
  EXPECT_EQ(rowsOf(*t), (Rows{{"C:\\clips\\a", "one\rtwo"}, {"", ""}}));
}

TEST(Tsv, RefusesRowsLongerThanTheHeader) {
  Error err;
  EXPECT_FALSE(readTsv("a\tb\n1\t2\t3\n", &err));
  EXPECT_EQ(err.message, "line 2: 3 values, but the header names 2 columns");
  auto one = readTsv("a\n\n", &err);  // one column, one empty row
  ASSERT_TRUE(one);
  EXPECT_EQ(rowsOf(*one), (Rows{{""}}));
}

// ---- ALE ------------------------------------------------------------------------

TEST(Ale, ReadsADailiesLog) {
  Error err;
  auto t = readAle(fixture("dailies.ale"), &err);
  ASSERT_TRUE(t) << err.message;
  EXPECT_THAT(namesOf(*t), ElementsAre("Name", "Tracks", "Start time", "End time", "Reel", "Scene",
                                       "Take", "cam reel", "Source File"));
  EXPECT_EQ(typesOf(*t), "aattaaaaa");
  EXPECT_STREQ(t->get_param_val("FPS"), "23.976");
  EXPECT_STREQ(t->get_param_val("VIDEO_FORMAT"), "1080");
  EXPECT_STREQ(t->get_param_val("AUDIO_FORMAT"), "48khz");
  EXPECT_EQ(t->get_param_val("FIELD_DELIM"), nullptr);
  EXPECT_EQ(rowsOf(*t), (Rows{
                            {"A001C003_230912_R1AB", "VA1A2", "14:22:05:11", "14:22:41:03", "A001",
                             "12", "3", "A", "A001C003.mov"},
                            {"A001C004_230912_R1AB", "VA1A2", "14:25:00:00", "14:25:12:20", "A001",
                             "12", "4", "A", ""},
                            // Without declared escapes a backslash is only a backslash.
                            {"A002C001_230912_R2CD", "V", "15:01:02;04", "15:01:09;00", "A002",
                             "14B", "1", "B", "C:\\clips\\new\\take 1.mov"},
                        }));
}

TEST(Ale, KeepsBothNamesWhenTheyWouldCollide) {
  Error err;
  auto t = readAle(fixture("collide.ale"), &err);
  ASSERT_TRUE(t) << err.message;
  EXPECT_THAT(namesOf(*t), ElementsAre("Name", "Start time", "End time", "Reel", "Tape"));
  EXPECT_EQ(toAle(*t),
            "Heading\nFIELD_DELIM\tTABS\nVIDEO_FORMAT\t1080\nAUDIO_FORMAT\t48khz\nFPS\t25\n\n"
            "Column\nName\tStart\tEnd\tReel\tTape\n\n"
            "Data\nclip 1\t10:00:00:00\t10:00:05:00\tR1\tT1\n");
}

TEST(Ale, WritesHeadingColumnsAndData) {
  auto t = makeTable({"Name", "Reel", "Start time", "Custom"},
                     {{"c1", "R1", "01:00:00:00", "D:\\new"}, {"c2", "", "", ""}});
  t->add_param("Owner", "unit 2");
  AleOptions o;
  o.fps = "29.97";
  o.crlf = true;
  EXPECT_EQ(toAle(*t, o),
            "Heading\r\nFIELD_DELIM\tTABS\r\nVIDEO_FORMAT\t1080\r\nAUDIO_FORMAT\t48khz\r\n"
            "FPS\t29.97\r\nOwner\tunit 2\r\n\r\n"
            "Column\r\nName\tTape\tStart\tCustom\r\n\r\n"
            "Data\r\nc1\tR1\t01:00:00:00\tD:\\new\r\nc2\t\t\t\r\n");
}

TEST(Ale, EscapesOnlyWhenAValueNeedsIt) {
  auto t = makeTable({"Name", "Notes"}, {{"a\tb", "two\nlines"}, {"C:\\new", "x"}});
  const std::string ale = toAle(*t);
  EXPECT_EQ(ale,
            "Heading\nFIELD_DELIM\tTABS\nESCAPES\tBACKSLASH\nVIDEO_FORMAT\t1080\n"
            "AUDIO_FORMAT\t48khz\nFPS\t24\n\n"
            "Column\nName\tComments\n\n"
            "Data\na\\tb\ttwo\\nlines\nC:\\\\new\tx\n");
  Error err;
  auto back = readAle(ale, &err);
  ASSERT_TRUE(back) << err.message;
  EXPECT_EQ(rowsOf(*back), rowsOf(*t));
  EXPECT_EQ(back->get_param_val("ESCAPES"), nullptr);
}

TEST(Ale, Errors) {
  struct Case {
    std::string text;
    const char* message;
  } cases[] = {
      {fixture("commas.ale"), "line 2: FIELD_DELIM is \"COMMAS\"; only TABS is supported"},
      {"Heading\nFPS\t25\n", "no Column section"},
      {"Column\nName\n", "no Data section"},
      {"Heading\nData\nx\n", "line 2: Data section before a Column section"},
      {"Column\nName\tEnd\nData\na\tb\tc\n",
       "line 4: 3 values, but the Column section names 2 columns"},
      {"Name\tStart\n", "line 1, column 1: expected Heading, Column or Data"},
  };
  for (const Case& c : cases) {
    Error err;
    EXPECT_FALSE(readAle(c.text, &err)) << c.text;
    EXPECT_EQ(err.message, c.message);
  }
  Error err;
  EXPECT_FALSE(writeAle(
      *makeTable({"a", " "}, {}), {}, [](std::string_view) { return true; }, &err));
  EXPECT_EQ(err.message, "column 2 has no name, and ALE needs one");
  EXPECT_FALSE(writeAle(
      *makeTable({}, {}), {}, [](std::string_view) { return true; }, &err));
}

TEST(Formats, RegressionsFoundByFuzzing) {
  // A first name beginning with a byte-order mark keeps it: the writers put
  // another in front for the reader to drop.
  const std::string bom = "\xEF\xBB\xBF";
  auto t = makeTable({bom + "x", "y"}, {{bom, ""}});
  Error err;
  auto csv = readCsv(toCsv(*t), {}, &err);
  ASSERT_TRUE(csv) << err.message;
  EXPECT_EQ(namesOf(*csv), namesOf(*t));
  CsvOptions noHeader;
  noHeader.header = false;
  auto csvRows = readCsv(toCsv(*t, noHeader), noHeader, &err);
  ASSERT_TRUE(csvRows) << err.message;
  EXPECT_EQ(rowsOf(*csvRows), rowsOf(*t));
  auto tsv = readTsv(toTsv(*t), &err);
  ASSERT_TRUE(tsv) << err.message;
  EXPECT_EQ(namesOf(*tsv), namesOf(*t));
  // An empty FPS parameter stays empty instead of taking the default.
  auto ale = readAle("Heading\nFPS\t\nColumn\nName\nData\n", &err);
  ASSERT_TRUE(ale) << err.message;
  auto again = readAle(toAle(*ale), &err);
  ASSERT_TRUE(again) << err.message;
  EXPECT_STREQ(again->get_param_val("FPS"), "");
  // A heading key ends at a NUL before it is trimmed, as a parameter name
  // would: "FIELD_DELIM <NUL>x" is FIELD_DELIM, not a parameter "FIELD_DELIM ".
  auto nul = readAle(std::string("Heading\nFIELD_DELIM \0x\tTABS\nColumn\nA\nData\n", 42), &err);
  ASSERT_TRUE(nul) << err.message;
  EXPECT_EQ(nul->getNumParams(), 0u);
  // So does a column name, before it is mapped: "Start<NUL>x" is Start.
  auto nulName = readAle(std::string("Column\nStart\0x\nData\n", 20), &err);
  ASSERT_TRUE(nulName) << err.message;
  EXPECT_THAT(namesOf(*nulName), ElementsAre("Start time"));
}

// ---- Names ----------------------------------------------------------------------

TEST(Formats, NamesAndExtensions) {
  struct Case {
    const char* path;
    Format format;
  } cases[] = {
      {"a.log", Format::Log},     {"dir.x/b.CSV", Format::Csv}, {"c.Tsv", Format::Tsv},
      {"d.tab", Format::Tsv},     {"e.ale", Format::Ale},       {"f.JSON", Format::Json},
      {"g.txt", Format::Unknown}, {"noext", Format::Unknown},   {"dir.csv/x", Format::Unknown},
      {".csv", Format::Unknown},  {"", Format::Unknown},
  };
  for (const Case& c : cases) EXPECT_EQ(formatFromExtension(c.path), c.format) << c.path;
  for (Format f : {Format::Log, Format::Csv, Format::Tsv, Format::Ale, Format::Json})
    EXPECT_EQ(formatFromName(formatName(f)), f);
  EXPECT_EQ(formatFromName("ALE"), Format::Ale);
  EXPECT_EQ(formatFromName("xml"), Format::Unknown);
}

}  // namespace
}  // namespace zyl::interchange
