#include <gtest/gtest.h>
#include <zyldb/platform/TextSearch.h>

namespace {

using namespace TextSearch;
using LS = LightweightString<char>;

TEST(TextSearchTest, MethodsAndFlags) {
  struct Case {
    const char *cell, *query;
    eMatchMethod method;
    unsigned flags;
    bool expected;
  } cases[] = {
      {"Scene 12 take 3", "TAKE", eContains, 0, true},
      {"Scene 12 take 3", "TAKE", eContains, kCaseSensitive, false},
      {"Reels", "REE", ePrefix, 0, true},
      {"Reels", "ELS", eSuffix, 0, true},
      {"01:00:00;10", "00:00:10", eContains, kTimecode, true},
      {"01.00.00,10", "01:00:00:10", eExact, kTimecode, true},
      {"a:b", "A;B", eContains, kTimecode | kCaseSensitive, false},
      {"\xc9t", "\xe9", eContains, 0, false},  // only ASCII letters fold
  };
  for (const Case& c : cases)
    EXPECT_EQ(match(LS(c.cell), Criteria(Criterion(LS(c.query), c.method)), c.flags), c.expected)
        << "'" << c.cell << "' / '" << c.query << "' method " << c.method << " flags " << c.flags;
}

TEST(TextSearchTest, OperatorsLeftToRight) {
  Criteria c;
  EXPECT_TRUE(match(LS("anything"), c, 0));
  c.add(Criterion(LS("a"), eContains), eOr);  // operator of the first is ignored
  c.add(Criterion(LS("b"), eContains), eOr);
  c.add(Criterion(LS("c"), eContains), eAnd);
  c.add(Criterion(LS("d"), eContains), eAndNot);
  // ((a or b) and c) and not d
  for (const char* yes : {"ac", "bc"}) EXPECT_TRUE(match(LS(yes), c, 0)) << yes;
  for (const char* no : {"ab", "acd", "c"}) EXPECT_FALSE(match(LS(no), c, 0)) << no;
}

}  // namespace
