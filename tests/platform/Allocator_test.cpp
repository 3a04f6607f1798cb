#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <thread>
#include <vector>

#include "platform/LightweightString_internal.h"

namespace {

zyl::Allocator& alloc() { return OS()->allocator(); }

// Keeps the compiler from eliding a new/delete pair.
template <class T>
T* keep(T* p) {
  asm volatile("" : : "g"(p) : "memory");
  return p;
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAsan = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAsan = true;
#else
constexpr bool kAsan = false;
#endif
#else
constexpr bool kAsan = false;
#endif

class AllocatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zyl::detail::retireThreadChunk();
    base_ = alloc().stats();
  }
  void TearDown() override { alloc().failNthAllocation(0); }
  void expectBaseline() {
    auto now = alloc().stats();
    EXPECT_EQ(now.liveBlocks, base_.liveBlocks);
    EXPECT_EQ(now.liveBytes, base_.liveBytes);
  }
  zyl::Allocator::Stats base_;
};

TEST_F(AllocatorTest, CountsBlocksAndUsableBytes) {
  void* p = alloc().allocate(100);
  void* q = alloc().allocate(0);  // a valid block
  ASSERT_NE(p, nullptr);
  ASSERT_NE(q, nullptr);
  auto s = alloc().stats();
  EXPECT_EQ(s.liveBlocks, base_.liveBlocks + 2);
  EXPECT_GE(s.liveBytes, base_.liveBytes + 100);
  EXPECT_EQ(s.allocations, base_.allocations + 2);
  p = alloc().reallocate(p, 1 << 20);
  EXPECT_GE(alloc().stats().liveBytes, base_.liveBytes + (1 << 20));
  alloc().deallocate(p);
  alloc().deallocate(q);
  alloc().deallocate(nullptr);
  expectBaseline();
}

TEST_F(AllocatorTest, GlobalNewAndDeleteGoThroughTheAllocator) {
  auto* one = keep(new int(7));
  auto* many = keep(new int[1000]);
  auto* nothrow = keep(new (std::nothrow) char[10]);
  struct alignas(256) Wide { char c; };
  auto* wide = keep(new Wide);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(wide) % 256, 0u);
  EXPECT_EQ(alloc().stats().liveBlocks, base_.liveBlocks + 4);
  delete one;
  delete[] many;
  delete[] nothrow;
  delete wide;
  expectBaseline();
}

TEST_F(AllocatorTest, InjectedFailureThrowsBadAllocOnce) {
  std::vector<int*> made;
  made.reserve(4);  // before arming: this allocates too
  alloc().failNthAllocation(3);
  EXPECT_TRUE(alloc().failurePending());
  made.push_back(keep(new int(1)));
  made.push_back(keep(new int(2)));
  EXPECT_THROW(made.push_back(keep(new int(3))), Qm::Exception::BadAlloc);
  EXPECT_FALSE(alloc().failurePending());
  made.push_back(keep(new int(4)));  // one failure per arming
  EXPECT_EQ(made.size(), 3u);
  for (int* p : made) delete p;
  made.clear();
  made.shrink_to_fit();
  expectBaseline();
}

TEST_F(AllocatorTest, InjectedFailureIsAStdBadAllocAndNothrowGivesNull) {
  alloc().failNthAllocation(1);
  EXPECT_THROW((void)alloc().allocateAligned(64, 64), std::bad_alloc);
  alloc().failNthAllocation(1);
  EXPECT_EQ(keep(new (std::nothrow) int[4]), nullptr);
  void* p = alloc().allocate(8);
  alloc().failNthAllocation(1);
  EXPECT_THROW(p = alloc().reallocate(p, 64), Qm::Exception::BadAlloc);
  alloc().deallocate(p);  // still valid after the failed reallocation
  expectBaseline();
}

TEST_F(AllocatorTest, RealExhaustionThrows) {
  if (kAsan) GTEST_SKIP() << "AddressSanitizer aborts on impossible sizes";
  EXPECT_THROW((void)alloc().allocate(SIZE_MAX / 2), Qm::Exception::BadAlloc);
  expectBaseline();
}

TEST_F(AllocatorTest, CountsStayExactAcrossThreads) {
  // Blocks made on one thread and freed on others, by threads that exit.
  std::vector<void*> blocks(4000);
  std::vector<std::thread> threads;
  threads.reserve(5);
  auto before = alloc().stats();
  threads.emplace_back([&] {
    for (auto& b : blocks) b = alloc().allocate(24);
  });
  threads.back().join();
  EXPECT_EQ(alloc().stats().liveBlocks, before.liveBlocks + 4000);
  for (size_t t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (size_t i = t; i < blocks.size(); i += 4) alloc().deallocate(blocks[i]);
    });
  for (size_t t = 1; t < threads.size(); ++t) threads[t].join();
  auto after = alloc().stats();
  EXPECT_EQ(after.liveBlocks, before.liveBlocks);
  EXPECT_EQ(after.liveBytes, before.liveBytes);
}

}  // namespace
