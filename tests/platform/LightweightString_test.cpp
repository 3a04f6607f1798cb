#include <zyldb/platform/LightweightString.h>
#include <zyldb/platform/OS.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/LightweightString_internal.h"

namespace {

using LS = LightweightString<char>;
using zyl::detail::kPackedChunkSize;
using zyl::detail::kPackedMaxLength;

int64_t liveBlocks() { return OS()->allocator().stats().liveBlocks; }

uint32_t chunkRefs(const LS& s) {
  uintptr_t word = *reinterpret_cast<const uintptr_t*>(&s);
  auto* chunk = reinterpret_cast<const zyl::detail::PackedChunk*>(word & ~(kPackedChunkSize - 1));
  return chunk->refs.load();
}
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

TEST_F(LightweightStringTest, CopiesShareOneBlock) {
  LS a("hello");
  int64_t afterOne = liveBlocks();
  LS b = a, c;
  c = b;
  EXPECT_EQ(liveBlocks(), afterOne);
  EXPECT_EQ(a.c_str(), c.c_str());
  LS d = std::move(c);
  EXPECT_TRUE(c.isNull());
  EXPECT_EQ(d, "hello");
  a += " world";  // builds a new string; the others keep the old text
  EXPECT_EQ(a, "hello world");
  EXPECT_EQ(b, "hello");
}

TEST_F(LightweightStringTest, NullAndEmptyReadAlike) {
  LS null, empty(""), fromNull(static_cast<const char*>(nullptr));
  EXPECT_STREQ(null.c_str(), "");
  EXPECT_TRUE(empty.isNull());
  EXPECT_EQ(null, empty);
  EXPECT_EQ(fromNull.size(), 0u);
  EXPECT_TRUE(LS::packed("", 0).isNull());
}

TEST_F(LightweightStringTest, AppendsIntegers) {
  LS s("Tag");
  s += -42;
  s += 7;
  EXPECT_EQ(s, "Tag-427");
}

TEST_F(LightweightStringTest, PackedKeepsEveryLengthUpToTheLimit) {
  std::string big(kPackedMaxLength + 1, 'x');
  for (size_t n : {size_t{1}, size_t{2}, size_t{3}, kPackedMaxLength, kPackedMaxLength + 1}) {
    for (size_t i = 0; i < n; ++i) big[i] = static_cast<char>('a' + (i * 7 + n) % 26);
    LS s = LS::packed(big.data(), n);
    EXPECT_EQ(isPacked(s), n <= kPackedMaxLength) << n;
    ASSERT_EQ(s.size(), n);
    EXPECT_EQ(s.view(), std::string_view(big.data(), n));
    EXPECT_EQ(s.c_str()[n], '\0');
    EXPECT_EQ(s, LS(big.data(), n));
  }
}

TEST_F(LightweightStringTest, ChunkCountFollowsItsStrings) {
  LS a = LS::packed("abc", 3);
  LS b = LS::packed("defg", 4);
  uint32_t current = chunkRefs(a);  // both strings plus the thread's share
  LS a2 = a;
  EXPECT_EQ(chunkRefs(a), current + 1);
  a2 = LS();
  b = LS();
  EXPECT_EQ(chunkRefs(a), current - 1);
  int64_t withChunk = liveBlocks();
  zyl::detail::retireThreadChunk();  // now only `a` keeps the chunk
  EXPECT_EQ(liveBlocks(), withChunk);
  EXPECT_EQ(chunkRefs(a), 1u);
  EXPECT_EQ(a, "abc");
  a = LS();
  EXPECT_EQ(liveBlocks(), withChunk - 1);
}

TEST_F(LightweightStringTest, ChunkBoundaryStartsANewChunk) {
  // Fill chunks with strings of awkward sizes and check none is corrupted
  // by its neighbours or by the switch to a fresh chunk.
  std::vector<LS> strings;
  std::vector<std::string> expected;
  const void* first = nullptr;
  size_t chunksSeen = 0;
  for (int i = 0; chunksSeen < 3; ++i) {
    std::string text(static_cast<size_t>(1 + (i * 37) % 300), static_cast<char>('A' + i % 26));
    strings.push_back(LS::packed(text.data(), text.size()));
    expected.push_back(text);
    if (zyl::detail::currentThreadChunk() != first) {
      first = zyl::detail::currentThreadChunk();
      ++chunksSeen;
    }
  }
  for (size_t i = 0; i < strings.size(); ++i) ASSERT_EQ(strings[i].view(), expected[i]) << i;
  // Release in an order unrelated to creation.
  for (size_t i = 0; i < strings.size(); i += 2) strings[i] = LS();
  for (size_t i = 1; i < strings.size(); i += 2) ASSERT_EQ(strings[i].view(), expected[i]);
}

TEST_F(LightweightStringTest, PackedStringsOutliveTheirThread) {
  std::vector<LS> kept;
  std::thread maker([&] {
    for (int i = 0; i < 20000; ++i) {
      std::string t = "value " + std::to_string(i);
      kept.push_back(LS::packed(t.data(), t.size()));
    }
  });
  maker.join();  // the thread's current reference went at its exit
  std::vector<std::thread> readers;
  std::vector<LS> halves[2];
  for (int r = 0; r < 2; ++r) {
    for (size_t i = static_cast<size_t>(r); i < kept.size(); i += 2) halves[r].push_back(kept[i]);
  }
  kept.clear();
  for (int r = 0; r < 2; ++r)
    readers.emplace_back([&, r] {
      for (size_t i = 0; i < halves[r].size(); ++i) {
        LS copy = halves[r][i];
        ASSERT_EQ(copy, ("value " + std::to_string(2 * i + r)).c_str());
      }
      halves[r].clear();  // the last references die on this thread
    });
  for (auto& t : readers) t.join();
}

TEST_F(LightweightStringTest, CopiesRacingOnOneChunk) {
  LS shared = LS::packed("shared", 6);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        LS c = shared;
        LS d = LS::packed("own", 3);
        ASSERT_EQ(c.size(), 6u);
      }
    });
  for (auto& t : threads) t.join();
  zyl::detail::retireThreadChunk();
  EXPECT_EQ(chunkRefs(shared), 1u);
}

TEST(StrCmpCITest, OrdersAsStrcasecmp) {
  StrCmpCI less;
  EXPECT_TRUE(less(LS("apple"), LS("Banana")));
  EXPECT_FALSE(less(LS("APPLE"), LS("apple")));
  EXPECT_FALSE(less(LS("apple"), LS("APPLE")));
  EXPECT_TRUE(less(LS("app"), LS("APPLE")));
  // Letters compare lower-cased: 'Z' would sort before '_' byte-wise, 'z' after.
  EXPECT_TRUE(less(LS("_"), LS("Z")));
}

}  // namespace
