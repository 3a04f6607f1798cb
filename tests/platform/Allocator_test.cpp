#include <gtest/gtest.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>

#include <cstdint>
#include <new>
#include <thread>
#include <vector>

#include "platform/LightweightString_internal.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZYL_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZYL_TEST_ASAN 1
#endif
#endif

namespace {

zyl::Allocator& alloc() { return OS()->allocator(); }

// Keeps the compiler from eliding a new/delete pair.
template <class T>
T* keep(T* p) {
  asm volatile("" : : "g"(p) : "memory");
  return p;
}

// Every test must give back all it took.
class AllocatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zyl::detail::retireThreadChunk();
    base_ = alloc().stats();
  }
  void TearDown() override {
    alloc().failNthAllocation(0);
    auto now = alloc().stats();
    EXPECT_EQ(now.liveBlocks, base_.liveBlocks);
    EXPECT_EQ(now.liveBytes, base_.liveBytes);
  }
  zyl::Allocator::Stats base_;
};

TEST_F(AllocatorTest, LargeBlockGrownInSmallStepsKeepsItsBytesAndCounts) {
  auto byteAt = [](size_t i) { return static_cast<unsigned char>(i * 7 + i / 251); };
  size_t n = 64 << 10;
  auto* p = static_cast<unsigned char*>(alloc().allocate(n));
  for (size_t i = 0; i < n; ++i) p[i] = byteAt(i);
  for (; n < (3 << 20); n += 4000) {
    p = static_cast<unsigned char*>(alloc().reallocate(p, n + 4000));
    for (size_t i = n; i < n + 4000; ++i) p[i] = byteAt(i);
  }
  size_t wrong = 0;
  for (size_t i = 0; i < n; ++i) wrong += p[i] != byteAt(i);
  EXPECT_EQ(wrong, 0u);
  alloc().deallocate(p);
}

TEST_F(AllocatorTest, InjectedFailureThrowsBadAllocOncePerArming) {
  std::vector<int*> made;
  made.reserve(4);  // before arming: this allocates too
  alloc().failNthAllocation(3);
  made.push_back(keep(new int(1)));
  made.push_back(keep(new int(2)));
  EXPECT_THROW(made.push_back(keep(new int(3))), Qm::Exception::BadAlloc);
  made.push_back(keep(new int(4)));
  EXPECT_EQ(made.size(), 3u);
  for (int* p : made) delete p;

  alloc().failNthAllocation(1);
  EXPECT_THROW((void)alloc().allocateAligned(64, 64), std::bad_alloc);
  alloc().failNthAllocation(1);
  EXPECT_EQ(keep(new (std::nothrow) int[4]), nullptr);
  void* p = alloc().allocate(8);
  alloc().failNthAllocation(1);
  EXPECT_THROW(p = alloc().reallocate(p, 64), Qm::Exception::BadAlloc);
  alloc().deallocate(p);  // still valid after the failed reallocation
#ifndef ZYL_TEST_ASAN     // AddressSanitizer aborts on impossible sizes
  EXPECT_THROW((void)alloc().allocate(SIZE_MAX / 2), Qm::Exception::BadAlloc);
#endif
}

TEST_F(AllocatorTest, CountsStayExactAcrossThreads) {
  // Blocks made on one thread and freed on others, by threads that exit.
  std::vector<void*> blocks(4000);
  std::vector<std::thread> threads;
  threads.reserve(4);  // before counting: this allocates too
  const int64_t before = alloc().stats().liveBlocks;
  std::thread([&] {
    for (auto& b : blocks) b = alloc().allocate(24);
  }).join();
  EXPECT_EQ(alloc().stats().liveBlocks, before + 4000);
  for (size_t t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (size_t i = t; i < blocks.size(); i += 4) alloc().deallocate(blocks[i]);
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(alloc().stats().liveBlocks, before);
}

}  // namespace
