#include <gtest/gtest.h>
#include <zyldb/platform/Cookie.h>

#include <string>
#include <thread>
#include <vector>

namespace {

const char* kText = "M0f3c9a2e4b5d6c7e8f90112233445566";

TEST(CookieTest, ParsesTheTextFormStrictlyOrLeniently) {
  Cookie c(kText, true);
  ASSERT_TRUE(c.isValid());
  EXPECT_EQ(c.getType(), 'M');
  EXPECT_EQ(c.getId().hi, 0x0f3c9a2e4b5d6c7eULL);
  EXPECT_EQ(c.getId().lo, 0x8f90112233445566ULL);
  EXPECT_EQ(c.asString(), kText);
  std::string upper = "M0F3C9A2E4B5D6C7E8F90112233445566";
  std::string padded = "  " + std::string(kText) + "\t";
  for (const std::string& loose : {upper, padded}) {
    EXPECT_FALSE(Cookie(loose.c_str(), true).isValid()) << loose;
    EXPECT_EQ(Cookie(loose.c_str(), false), c) << loose;
  }
  for (const char* bad : {"", "M0f3c", "M0f3c9a2e4b5d6c7e8f901122334455667",
                          "M0f3c9a2e4b5d6c7e8f9011223344556g", "I0f3c9a2e4b5d6c7e8f90112233445566"})
    EXPECT_EQ(Cookie(bad, false).getId(), Qm::UUID{}) << bad;
  EXPECT_FALSE(Cookie(static_cast<const char*>(nullptr), true).isValid());
  EXPECT_FALSE(Cookie(LightweightString<wchar_t>(L"M0f3c9a2e4b5d6c7e8f9011223344556\u00e9"), false)
                   .isValid());

  EXPECT_EQ(convertCookie(c, 'B', 255), Cookie(c.getId(), 'B'));
  EXPECT_FALSE(convertCookie(Cookie(), 'B', 255).isValid());
}

TEST(CookieTest, MakeGivesFreshIdsThatRoundTripOnAnyThread) {
  const char types[] = "MBz!~";
  std::vector<Cookie> made[4];
  std::vector<std::thread> threads;
  for (auto& v : made)
    threads.emplace_back([&v, &types] {
      for (int i = 0; i < 1000; ++i) v.push_back(Cookie::make(types[i % 5]));
    });
  for (auto& t : threads) t.join();
  CookieSet all;
  for (auto& v : made)
    for (const Cookie& c : v) {
      EXPECT_EQ(Cookie(c.asString(), true), c);
      all.insert(c);
    }
  EXPECT_EQ(all.size(), 4000u);
  for (char bad : {'I', '\n', ' '}) EXPECT_FALSE(Cookie::make(bad).isValid()) << int(bad);
}

TEST(CookieTest, CompareByTypeThenId) {
  const Cookie sorted[] = {Cookie(Qm::UUID{1, 9}, 'A'),
                           Cookie(Qm::UUID{1, 10}, 'A'),
                           Cookie(Qm::UUID{2, 0}, 'A'),
                           Cookie(Qm::UUID{0, 0}, 'B'),
                           Cookie(),
                           Cookie::make('M')};  // the invalid cookie has type 'I'
  for (int i = 0; i < 6; ++i)
    for (int j = 0; j < 6; ++j) {
      int c = sorted[i].compare(sorted[j]);
      EXPECT_EQ((c > 0) - (c < 0), (i > j) - (i < j)) << i << " vs " << j;
    }
}

TEST(CookieTest, CookieVecCopiesOnWrite) {
  CookieVec a;
  CookieVec::add(a, Cookie::make('M'));
  CookieVec b = a;
  EXPECT_EQ(&a[0], &b[0]);  // shared
  b.push_back(Cookie::make('B'));
  EXPECT_EQ(a.size(), 1u);
  CookieVec::add(a, a[0]);  // duplicates kept
  EXPECT_EQ(a.size(), 2u);
  EXPECT_EQ(b.size(), 2u);
}

}  // namespace
