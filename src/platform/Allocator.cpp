// The platform allocator, OS() and the library's global operator new/delete.
//
// Counting. Every thread counts its own allocations and frees in a block of
// relaxed atomics that only it writes (a plain load and store, no locked
// instruction), so the hot path takes no lock and shares no cache line.
// stats() sums the blocks of all live threads plus the totals that exited
// threads folded in. A block freed on another thread than the one that made
// it makes one thread's count negative and another's positive; the sum is
// exact whenever no allocation is in flight.
//
// Static initialisation. OS(), the allocator and the counters are constant
// initialised: global operator new may run in any static constructor of the
// process, before or after this file's, and after static destruction.
//
// Thread exit. A thread registers its counter block on its first allocation
// and a thread_local guard folds it into the globals when the thread ends.
// Allocations and frees that happen later on that thread (other thread_local
// destructors) go straight to the global atomics.

#include <malloc.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "platform/Allocator_internal.h"

namespace zyl {
namespace {

#define ZYL_TLS_FAST __attribute__((tls_model("initial-exec")))

struct ThreadCounters {
  std::atomic<int64_t> blocks{0};
  std::atomic<int64_t> bytes{0};
  std::atomic<uint64_t> allocations{0};
  ThreadCounters* next = nullptr;
  ThreadCounters* prev = nullptr;
};

// Totals of exited threads and of allocations made while a thread had no
// block (before registration could run, or after its guard ran).
constinit std::atomic<int64_t> gBlocks{0};
constinit std::atomic<int64_t> gBytes{0};
constinit std::atomic<uint64_t> gAllocations{0};
constinit std::atomic<uint64_t> gFailCountdown{0};

constinit std::mutex gThreadsMutex;
constinit ThreadCounters* gThreads = nullptr;

enum ThreadState : unsigned char { kUnregistered = 0, kRegistering, kRegistered, kExited };
constinit thread_local ThreadCounters tCounters ZYL_TLS_FAST;
constinit thread_local unsigned char tState ZYL_TLS_FAST = kUnregistered;

struct ThreadGuard {
  ~ThreadGuard() {
    std::lock_guard<std::mutex> lock(gThreadsMutex);
    gBlocks.fetch_add(tCounters.blocks.load(std::memory_order_relaxed), std::memory_order_relaxed);
    gBytes.fetch_add(tCounters.bytes.load(std::memory_order_relaxed), std::memory_order_relaxed);
    gAllocations.fetch_add(tCounters.allocations.load(std::memory_order_relaxed),
                           std::memory_order_relaxed);
    if (tCounters.prev)
      tCounters.prev->next = tCounters.next;
    else
      gThreads = tCounters.next;
    if (tCounters.next) tCounters.next->prev = tCounters.prev;
    tState = kExited;
  }
};

// Links this thread's block into the list. Constructing the guard may itself
// allocate (the C++ runtime's list of thread_local destructors); the
// kRegistering state sends those counts to the globals instead of recursing.
void registerThread() {
  tState = kRegistering;
  static thread_local ThreadGuard guard;
  (void)&guard;
  std::lock_guard<std::mutex> lock(gThreadsMutex);
  tCounters.prev = nullptr;
  tCounters.next = gThreads;
  if (gThreads) gThreads->prev = &tCounters;
  gThreads = &tCounters;
  tState = kRegistered;
}

// Adds to a counter that only this thread writes.
template <class T>
inline void bump(std::atomic<T>& c, T delta) {
  c.store(c.load(std::memory_order_relaxed) + delta, std::memory_order_relaxed);
}

inline void countHere(int64_t blocks, int64_t bytes, uint64_t allocations) {
  bump(tCounters.blocks, blocks);
  bump(tCounters.bytes, bytes);
  if (allocations) bump(tCounters.allocations, allocations);
}

__attribute__((noinline)) void countSlow(int64_t blocks, int64_t bytes, uint64_t allocations) {
  if (tState == kUnregistered) {
    registerThread();
    countHere(blocks, bytes, allocations);
    return;
  }
  gBlocks.fetch_add(blocks, std::memory_order_relaxed);
  gBytes.fetch_add(bytes, std::memory_order_relaxed);
  gAllocations.fetch_add(allocations, std::memory_order_relaxed);
}

inline void count(int64_t blocks, int64_t bytes, uint64_t allocations) {
  if (tState == kRegistered) [[likely]] {
    countHere(blocks, bytes, allocations);
    return;
  }
  countSlow(blocks, bytes, allocations);
}

// Blocks from this size on grow with room to spare (see reallocate).
constexpr size_t kRoomyBlock = size_t{64} << 10;
constexpr size_t kMaxRoomyBlock = SIZE_MAX / 3;

[[noreturn]] __attribute__((noinline, cold)) void throwBadAlloc() {
  throw Qm::Exception::BadAlloc();
}

// Counts one allocation towards an armed failure; throws when it is due.
__attribute__((noinline)) void injectedFailureCheck() {
  uint64_t n = gFailCountdown.load(std::memory_order_relaxed);
  while (n != 0) {
    if (gFailCountdown.compare_exchange_weak(n, n - 1, std::memory_order_relaxed)) {
      if (n == 1) throwBadAlloc();
      return;
    }
  }
}

inline void checkInjectedFailure() {
  if (gFailCountdown.load(std::memory_order_relaxed) != 0) [[unlikely]]
    injectedFailureCheck();
}

}  // namespace

void* Allocator::allocate(size_t n) {
  checkInjectedFailure();
  void* p = std::malloc(n ? n : 1);
  if (!p) [[unlikely]]
    throwBadAlloc();
  count(1, static_cast<int64_t>(malloc_usable_size(p)), 1);
  return p;
}

void* Allocator::allocateAligned(size_t n, size_t alignment) {
  checkInjectedFailure();
  alignment = std::max(alignment, sizeof(void*));
  void* p = nullptr;
  if (posix_memalign(&p, alignment, n ? n : 1) != 0) throwBadAlloc();
  count(1, static_cast<int64_t>(malloc_usable_size(p)), 1);
  return p;
}

void* Allocator::reallocate(void* p, size_t n) {
  if (!p) return allocate(n);
  checkInjectedFailure();
  size_t before = malloc_usable_size(p);
  // Arrays that grow by a fixed step (a table's row slots, 500 at a time)
  // would be copied at every step once glibc has placed them in its heap,
  // where realloc moves by copying (only blocks it mapped on their own move
  // with mremap). So a large block that must grow gets half as much again
  // as asked, and keeps that room while it is at least half used, so that
  // such an array is copied a few times instead of at every step.
  if (before >= kRoomyBlock && n <= before && n > before / 2) {
    count(0, 0, 1);
    return p;
  }
  size_t want = n ? n : 1;
  if (n > before && n >= kRoomyBlock && n <= kMaxRoomyBlock) want = n + n / 2;
  void* q = std::realloc(p, want);
  if (!q && want != n) q = std::realloc(p, n ? n : 1);
  if (!q) [[unlikely]]
    throwBadAlloc();
  count(0, static_cast<int64_t>(malloc_usable_size(q)) - static_cast<int64_t>(before), 1);
  return q;
}

void Allocator::deallocate(void* p) noexcept {
  if (!p) return;
  count(-1, -static_cast<int64_t>(malloc_usable_size(p)), 0);
  std::free(p);
}

Allocator::Stats Allocator::stats() const {
  std::lock_guard<std::mutex> lock(gThreadsMutex);
  Stats s;
  s.liveBlocks = gBlocks.load(std::memory_order_relaxed);
  s.liveBytes = gBytes.load(std::memory_order_relaxed);
  s.allocations = gAllocations.load(std::memory_order_relaxed);
  for (ThreadCounters* t = gThreads; t; t = t->next) {
    s.liveBlocks += t->blocks.load(std::memory_order_relaxed);
    s.liveBytes += t->bytes.load(std::memory_order_relaxed);
    s.allocations += t->allocations.load(std::memory_order_relaxed);
  }
  return s;
}

void Allocator::failNthAllocation(uint64_t n) {
  gFailCountdown.store(n, std::memory_order_relaxed);
}

bool Allocator::failurePending() const {
  return gFailCountdown.load(std::memory_order_relaxed) != 0;
}

namespace detail {

Allocator& allocator() noexcept {
  static constinit Allocator a;
  return a;
}

}  // namespace detail
}  // namespace zyl

namespace {
constinit iOS gOS;
}

iOS* OS() { return &gOS; }

zyl::Allocator& iOS::allocator() { return zyl::detail::allocator(); }

// ---- Global operator new and delete ------------------------------------------
// Default visibility, so that the shared library's definitions replace the
// C++ runtime's for the whole process.

#define ZYL_NEW_API __attribute__((visibility("default")))

namespace {

inline void* newBlock(size_t n) { return zyl::detail::allocator().allocate(n); }
inline void* newAligned(size_t n, std::align_val_t a) {
  return zyl::detail::allocator().allocateAligned(n, static_cast<size_t>(a));
}
inline void* newBlockNoThrow(size_t n) noexcept {
  try {
    return newBlock(n);
  } catch (...) {
    return nullptr;
  }
}
inline void* newAlignedNoThrow(size_t n, std::align_val_t a) noexcept {
  try {
    return newAligned(n, a);
  } catch (...) {
    return nullptr;
  }
}
inline void freeBlock(void* p) noexcept { zyl::detail::allocator().deallocate(p); }

}  // namespace

ZYL_NEW_API void* operator new(size_t n) { return newBlock(n); }
ZYL_NEW_API void* operator new[](size_t n) { return newBlock(n); }
ZYL_NEW_API void* operator new(size_t n, const std::nothrow_t&) noexcept {
  return newBlockNoThrow(n);
}
ZYL_NEW_API void* operator new[](size_t n, const std::nothrow_t&) noexcept {
  return newBlockNoThrow(n);
}
ZYL_NEW_API void* operator new(size_t n, std::align_val_t a) { return newAligned(n, a); }
ZYL_NEW_API void* operator new[](size_t n, std::align_val_t a) { return newAligned(n, a); }
ZYL_NEW_API void* operator new(size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return newAlignedNoThrow(n, a);
}
ZYL_NEW_API void* operator new[](size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
  return newAlignedNoThrow(n, a);
}

ZYL_NEW_API void operator delete(void* p) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete[](void* p) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete(void* p, const std::nothrow_t&) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete[](void* p, const std::nothrow_t&) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete(void* p, size_t) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete[](void* p, size_t) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete(void* p, std::align_val_t) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete[](void* p, std::align_val_t) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete(void* p, size_t, std::align_val_t) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete[](void* p, size_t, std::align_val_t) noexcept { freeBlock(p); }
ZYL_NEW_API void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept {
  freeBlock(p);
}
ZYL_NEW_API void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
  freeBlock(p);
}
