#include <gtest/gtest.h>
#include <zyldb/platform/TextUtil.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using LS = LightweightString<char>;
using WS = LightweightString<wchar_t>;

int sign(int v) { return (v > 0) - (v < 0); }

TEST(StrxcmpTest, OrderTable) {
  struct Case {
    const char *a, *b;
    int expected;
  } cases[] = {
      {"Scene 9", "scene 10", -1},
      {"x100", "x99", 1},
      {"x007", "x7", 1},   // equal value: the shorter run first
      {"x07b", "x7a", 1},  // ...but only when the rest is equal
      {"abc", "ABC", 1},   // equal ignoring case: byte order last
      {"1a", "a", -1},     // digits before letters, as in ASCII
      {"99999999999999999999", "100000000000000000000", -1},  // beyond 64 bits
  };
  for (const Case& c : cases) {
    EXPECT_EQ(sign(strxcmp(c.a, c.b)), c.expected) << c.a << " vs " << c.b;
    EXPECT_EQ(sign(strxcmp(c.b, c.a)), -c.expected) << c.b << " vs " << c.a;
  }
  EXPECT_EQ(strxcmp(nullptr, ""), 0);
}

TEST(StrxcmpTest, IsAStrictWeakOrderOnRandomTexts) {
  std::mt19937 rng(12345);
  const char alphabet[] = "aAbB0019 .";
  std::vector<std::string> texts(300);
  for (auto& t : texts) {
    size_t n = rng() % 7;
    for (size_t i = 0; i < n; ++i) t += alphabet[rng() % (sizeof alphabet - 1)];
  }
  std::sort(texts.begin(), texts.end(), [](const std::string& a, const std::string& b) {
    return strxcmp(a.c_str(), b.c_str()) < 0;
  });
  for (size_t i = 0; i + 1 < texts.size(); ++i)
    for (size_t j = i + 1; j < texts.size(); ++j)
      ASSERT_LE(strxcmp(texts[i].c_str(), texts[j].c_str()), 0) << texts[i] << " / " << texts[j];
}

TEST(TextUtilTest, EssentiallyEmptyLowerAndStrip) {
  EXPECT_TRUE(isEssentiallyEmpty(" \t\r\n"));
  EXPECT_TRUE(isEssentiallyEmpty(static_cast<const char*>(nullptr)));
  EXPECT_FALSE(isEssentiallyEmpty("\xa0"));
  EXPECT_EQ(toLower(LS("MiXeD 12 \xc9")), "mixed 12 \xc9");
  for (auto [in, out] : {std::pair{L"/bins/M0a1b.bsg", L"M0a1b"},
                         {L"a.b.c", L"a.b"},
                         {L"/x/.hidden", L".hidden"},
                         {L"/x/", L""}})
    EXPECT_EQ(stripPathAndExt(WS(in)).view(), out);
}

TEST(TextUtilTest, Utf8BothWays) {
  const char* utf8 = "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x8e\xac";
  const wchar_t* wide = L"caf\u00e9 \u20ac \U0001F3AC";
  EXPECT_EQ(fromUTF8(LS(utf8)).view(), wide);
  EXPECT_EQ(toUTF8(WS(wide)), utf8);
  // Invalid: a stray continuation, a truncated sequence, an overlong form,
  // an encoded surrogate; each bad byte becomes one U+FFFD.
  EXPECT_EQ(fromUTF8(LS("a\x80z")).view(), L"a\uFFFDz");
  EXPECT_EQ(fromUTF8(LS("a\xe2\x82")).view(), L"a\uFFFD\uFFFD");
  EXPECT_EQ(fromUTF8(LS("\xc0\xaf")).view(), L"\uFFFD\uFFFD");
  EXPECT_EQ(fromUTF8(LS("\xed\xa0\x80")).view(), L"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(toUTF8(WS(std::wstring(1, static_cast<wchar_t>(0x110000)))), "\xef\xbf\xbd");
}

TEST(TextUtilTest, BooleansAndNumbers) {
  for (const char* t : {"true", " TRUE ", "yes", "On", "t", "1"})
    EXPECT_TRUE(BoolFromString(LS(t), false)) << t;
  for (const char* f : {"false", "No", "off", "F", "0"})
    EXPECT_FALSE(BoolFromString(LS(f), true)) << f;
  for (const char* x : {"", "2", "yess", "truex"}) EXPECT_TRUE(BoolFromString(LS(x), true)) << x;
  EXPECT_EQ(StringFromInteger(-9223372036854775807LL - 1), "-9223372036854775808");
  for (auto [in, out] :
       {std::pair{"  42abc", 42u}, {"4294967295", 4294967295u}, {"4294967296", 7u}, {"-1", 7u}})
    EXPECT_EQ(UIntFromString(LS(in), 7), out) << in;
  EXPECT_EQ(Qm::WStringFromAscii("ab\xe9").view(), L"ab\u00e9");
}

TEST(TextUtilTest, SplitIfModes) {
  using V = std::vector<std::string>;
  auto split = [](const char* s, char sep, int mode) {
    V out;
    for (const LS& piece : Qm::splitIf(LS(s), sep, mode)) out.push_back(piece.toStdString());
    return out;
  };
  EXPECT_EQ(split(",a,,b", ',', 2), (V{"", "a", "", "b"}));
  EXPECT_EQ(split(",a,,b", ',', 0), (V{"a", "b"}));
  EXPECT_EQ(split(" a , b ,  ", ',', 1), (V{"a", "b"}));
  EXPECT_EQ(split(" a , b ,  ", ',', 3), (V{"a", "b", ""}));
  EXPECT_EQ(split("", ',', 2), V{});
}

}  // namespace

TEST(EndsWithIgnoringCase, FoldsAsciiLettersOnly) {
  EXPECT_TRUE(endsWithIgnoringCase(std::string_view("clips.JSON"), ".json"));
  EXPECT_TRUE(endsWithIgnoringCase(std::wstring_view(L"bin.bSG"), L"sg"));
  EXPECT_TRUE(endsWithIgnoringCase(std::string_view("x"), ""));
  EXPECT_FALSE(endsWithIgnoringCase(std::string_view("json"), ".json"));
  EXPECT_FALSE(endsWithIgnoringCase(std::string_view("a.\xC3\x89"), ".\xC3\xA9"));
  EXPECT_FALSE(endsWithIgnoringCase(std::string_view("a[json"), "{json"));
}
