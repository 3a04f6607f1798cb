#include <gtest/gtest.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/platform/OS.h>

#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/LightweightString_internal.h"

namespace {

using LS = LightweightString<char>;
using zyl::detail::kPackedMaxLength;

int64_t liveBlocks() { return OS()->allocator().stats().liveBlocks; }

bool isPacked(const LS& s) { return (*reinterpret_cast<const uintptr_t*>(&s) & 1) != 0; }

class LightweightStringTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zyl::detail::retireThreadChunk();
    base_ = liveBlocks();
  }
  void TearDown() override {
    zyl::detail::retireThreadChunk();
    EXPECT_EQ(liveBlocks(), base_) << "a string block or chunk leaked";
  }
  int64_t base_ = 0;
};

TEST_F(LightweightStringTest, CopiesShareOneBlockAndNullReadsAsEmpty) {
  LS a("hello");
  int64_t afterOne = liveBlocks();
  LS c;
  c = a;
  EXPECT_EQ(liveBlocks(), afterOne);
  LS d = std::move(c);
  EXPECT_STREQ(c.c_str(), "");
  a += " world";  // builds a new string; the others keep the old text
  a += -42;
  EXPECT_EQ(a, "hello world-42");
  EXPECT_EQ(d, "hello");
  EXPECT_TRUE(LS("").isNull());
  EXPECT_TRUE(LS::packed("", 0).isNull());
}

TEST_F(LightweightStringTest, PackedTextSurvivesNeighboursAndChunkSwitches) {
  // Awkward sizes, now and then the longest packed one or one too long to
  // pack, over three chunks, released in an order unrelated to creation.
  std::vector<LS> strings;
  std::vector<std::string> expected;
  const void* chunk = nullptr;
  for (int i = 0, chunksSeen = 0; chunksSeen < 3; ++i) {
    size_t n = i % 10 == 9 ? kPackedMaxLength + i % 20 / 10 : 1 + (i * 37) % 300;
    std::string text(n, static_cast<char>('A' + i % 26));
    text[n / 2] = '*';
    strings.push_back(LS::packed(text.data(), n));
    expected.push_back(text);
    ASSERT_EQ(isPacked(strings.back()), n <= kPackedMaxLength) << n;
    ASSERT_EQ(strings.back().c_str()[n], '\0');
    ASSERT_EQ(strings.back(), LS(text.data(), n));
    if (zyl::detail::currentThreadChunk() != chunk) {
      chunk = zyl::detail::currentThreadChunk();
      ++chunksSeen;
    }
  }
  for (size_t i = 0; i < strings.size(); ++i) ASSERT_EQ(strings[i].view(), expected[i]) << i;
  for (size_t i = 0; i < strings.size(); i += 2) strings[i] = LS();
  for (size_t i = 1; i < strings.size(); i += 2) ASSERT_EQ(strings[i].view(), expected[i]);
}

TEST_F(LightweightStringTest, PackedStringsOutliveTheirThread) {
  std::vector<LS> halves[2];
  std::thread maker([&] {
    for (int i = 0; i < 20000; ++i) {
      std::string t = "value " + std::to_string(i);
      halves[i % 2].push_back(LS::packed(t.data(), t.size()));
    }
  });
  maker.join();  // the thread's current reference went at its exit
  // Two threads copy and drop interleaved strings of the same chunks at once,
  // while making packed strings of their own.
  std::vector<std::thread> readers;
  for (int r = 0; r < 2; ++r)
    readers.emplace_back([&, r] {
      for (size_t i = 0; i < halves[r].size(); ++i) {
        LS copy = halves[r][i], own = LS::packed("own", 3);
        ASSERT_EQ(copy, ("value " + std::to_string(2 * i + r)).c_str());
      }
      halves[r].clear();  // the last references die on this thread
    });
  for (auto& t : readers) t.join();
}

TEST(StrCmpCITest, OrdersAsStrcasecmp) {
  StrCmpCI less;
  // Letters compare lower-cased: 'Z' would sort before '_' byte-wise, 'z' after.
  for (auto [a, b, expected] : {std::tuple{"apple", "Banana", true},
                                {"APPLE", "apple", false},
                                {"app", "APPLE", true},
                                {"_", "Z", true}})
    EXPECT_EQ(less(LS(a), LS(b)), expected) << a << " < " << b;
}

}  // namespace
