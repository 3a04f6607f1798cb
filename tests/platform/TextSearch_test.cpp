#include <gtest/gtest.h>
#include <zyldb/platform/TextSearch.h>

#include <random>
#include <string>

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

// The screened caseless search must find exactly what a plain scan finds:
// random texts and patterns of 1 to 40 bytes over a small alphabet (so that
// near misses are common), with capitals, bytes >= 0x80 and the bytes that
// differ from a letter only in bit 0x20.
TEST(TextSearchTest, CaselessContainsMatchesPlainScan) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  const std::string alphabet = "eEaAtT @`[{\xc3\xe3\x80\xa0";
  auto randomText = [&](size_t len) {
    std::string v;
    for (size_t i = 0; i < len; ++i) v += alphabet[rng() % alphabet.size()];
    return v;
  };
  auto fold = [](std::string v) {
    for (char& c : v)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    return v;
  };
  for (int i = 0; i < 20000; ++i) {
    const std::string text = randomText(rng() % 80);
    std::string q = randomText(1 + rng() % (i % 4 == 0 ? 40 : 5));
    if (rng() % 3 == 0 && !text.empty()) {  // a pattern cut from the text, case changed
      const size_t at = rng() % text.size();
      q = text.substr(at, 1 + rng() % 40);
      for (char& c : q)
        if (rng() % 2 == 0 && c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    }
    const bool expected = fold(text).find(fold(q)) != std::string::npos;
    ASSERT_EQ(match(LS(text), Criteria(Criterion(LS(q), eContains)), 0), expected)
        << "'" << text << "' / '" << q << "'";
  }
}

}  // namespace
