#include <zyldb/platform/Cookie.h>
#include <zyldb/platform/TextUtil.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* kText = "M0f3c9a2e4b5d6c7e8f90112233445566";

TEST(CookieTest, ParsesTheTextForm) {
  Cookie c(kText, true);
  ASSERT_TRUE(c.isValid());
  EXPECT_EQ(c.getType(), 'M');
  EXPECT_EQ(c.getId().hi, 0x0f3c9a2e4b5d6c7eULL);
  EXPECT_EQ(c.getId().lo, 0x8f90112233445566ULL);
  EXPECT_EQ(c.asString(), kText);
  EXPECT_EQ(Cookie(LightweightString<char>(kText), true), c);
  EXPECT_EQ(Cookie(Qm::WStringFromAscii(kText), true), c);
}

TEST(CookieTest, StrictAndLenientParsing) {
  std::string upper = "M0F3C9A2E4B5D6C7E8F90112233445566";
  std::string padded = std::string("  ") + kText + "\t";
  EXPECT_FALSE(Cookie(upper.c_str(), true).isValid());
  EXPECT_EQ(Cookie(upper.c_str(), false), Cookie(kText, true));
  EXPECT_FALSE(Cookie(padded.c_str(), true).isValid());
  EXPECT_EQ(Cookie(padded.c_str(), false), Cookie(kText, true));
  for (const char* bad : {"", "M", "M0f3c", "M0f3c9a2e4b5d6c7e8f901122334455667", "M0f3c9a2e4b5d6c7e8f9011223344556g",
                          "I0f3c9a2e4b5d6c7e8f90112233445566", " 0f3c9a2e4b5d6c7e8f90112233445566"}) {
    EXPECT_FALSE(Cookie(bad, false).isValid()) << bad;
    EXPECT_EQ(Cookie(bad, false).getId(), Qm::UUID{}) << bad;
  }
  EXPECT_FALSE(Cookie(static_cast<const char*>(nullptr), true).isValid());
  EXPECT_FALSE(Cookie(LightweightString<wchar_t>(L"M0f3c9a2e4b5d6c7e8f9011223344556\u00e9"), false).isValid());
}

TEST(CookieTest, MakeGivesFreshIdsThatRoundTrip) {
  std::set<Cookie> seen;
  for (char type : {'M', 'B', 'z', '!', '~'}) {
    for (int i = 0; i < 200; ++i) {
      Cookie c = Cookie::make(type);
      ASSERT_TRUE(c.isValid());
      EXPECT_EQ(c.getType(), type);
      EXPECT_TRUE(seen.insert(c).second);
      EXPECT_EQ(Cookie(c.asString(), true), c);
    }
  }
  EXPECT_FALSE(Cookie::make('I').isValid());
  EXPECT_FALSE(Cookie::make('\n').isValid());
  EXPECT_FALSE(Cookie::make(' ').isValid());
  EXPECT_TRUE(Cookie().asString().empty());
  EXPECT_EQ(Cookie(Cookie().asString(), true), Cookie());
}

TEST(CookieTest, MakeIsThreadSafe) {
  std::vector<Cookie> made[4];
  std::vector<std::thread> threads;
  for (auto& v : made)
    threads.emplace_back([&v] {
      for (int i = 0; i < 1000; ++i) v.push_back(Cookie::make('M'));
    });
  for (auto& t : threads) t.join();
  CookieSet all;
  for (auto& v : made)
    for (auto& c : v) all.insert(c);
  EXPECT_EQ(all.size(), 4000u);
}

TEST(CookieTest, CompareByTypeThenId) {
  Cookie a(Qm::UUID{1, 9}, 'A'), b(Qm::UUID{2, 0}, 'A'), c(Qm::UUID{0, 0}, 'B'), d(Qm::UUID{1, 10}, 'A');
  EXPECT_LT(a.compare(b), 0);
  EXPECT_LT(b.compare(c), 0);
  EXPECT_LT(a.compare(d), 0);
  EXPECT_GT(c.compare(a), 0);
  EXPECT_EQ(a.compare(Cookie(Qm::UUID{1, 9}, 'A')), 0);
  EXPECT_LT(Cookie().compare(Cookie::make('M')), 0);  // 'I' < 'M'
}

TEST(CookieTest, ConvertKeepsTheId) {
  Cookie c(kText, true);
  Cookie b = convertCookie(c, 'B', 255);
  EXPECT_EQ(b.getType(), 'B');
  EXPECT_EQ(b.getId(), c.getId());
  EXPECT_FALSE(convertCookie(Cookie(), 'B', 255).isValid());
}

TEST(CookieTest, CookieVecCopiesOnWrite) {
  CookieVec a;
  CookieVec::add(a, Cookie::make('M'));
  CookieVec b = a;
  EXPECT_EQ(&a[0], &b[0]);  // shared
  b.push_back(Cookie::make('B'));
  EXPECT_EQ(a.size(), 1u);
  EXPECT_EQ(b.size(), 2u);
  EXPECT_EQ(a[0], b[0]);
  CookieVec c = b;
  c.clear();
  EXPECT_TRUE(c.empty());
  EXPECT_EQ(b.size(), 2u);
  CookieVec::add(a, a[0]);  // duplicates kept
  EXPECT_EQ(a.size(), 2u);
}

}  // namespace
