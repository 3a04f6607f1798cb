// Storage of LightweightString representations.
//
// Packed strings. Each thread fills its own current chunk (kPackedChunkSize
// bytes, aligned to its size) by bumping an offset: a string takes a 16-bit
// length, its text and a NUL, rounded up to 2 bytes so that the tagged word
// (address | 1) has a free low bit.
//
// Chunk count invariant: refs == (strings alive in the chunk)
//                              + (the thread's current reference).
// The current reference is prepaid: when a chunk becomes current its count
// is set to 1 + kPrepaid, and each packString hands one of the prepaid
// references to the new string without touching the atomic. When the chunk
// is retired (full, or the thread ends) the thread gives back the unspent
// prepaid references and its own one in a single subtraction; whoever brings
// the count to zero frees the chunk. kPrepaid exceeds the number of strings a
// chunk can hold (each takes at least 4 bytes), so the count cannot reach
// zero while the chunk is current.

#include <zyldb/platform/LightweightString.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/Allocator_internal.h"
#include "platform/LightweightString_internal.h"

namespace zyl::detail {
namespace {

constexpr uint32_t kPrepaid = kPackedChunkSize / 2;
constexpr size_t kFirstOffset = 4;  // after the chunk's count, 2-aligned

struct CurrentChunk {
  char* base = nullptr;
  size_t offset = 0;
  uint32_t issued = 0;  // prepaid references handed to strings
};

constinit thread_local CurrentChunk tChunk __attribute__((tls_model("initial-exec")));

void retireCurrent() noexcept {
  if (!tChunk.base) return;
  auto* chunk = reinterpret_cast<PackedChunk*>(tChunk.base);
  uint32_t giveBack = kPrepaid - tChunk.issued + 1;
  tChunk.base = nullptr;
  tChunk.offset = 0;
  tChunk.issued = 0;
  if (chunk->refs.fetch_sub(giveBack, std::memory_order_acq_rel) == giveBack)
    freePackedChunk(chunk);
}

struct ChunkGuard {
  ~ChunkGuard() { retireCurrent(); }
};

void startChunk() {
  static thread_local ChunkGuard guard;  // retires the chunk at thread exit
  (void)&guard;
  void* mem = allocator().allocateAligned(kPackedChunkSize, kPackedChunkSize);
  auto* chunk = static_cast<PackedChunk*>(mem);
  new (&chunk->refs) std::atomic<uint32_t>(kPrepaid + 1);
  tChunk.base = static_cast<char*>(mem);
  tChunk.offset = kFirstOffset;
  tChunk.issued = 0;
}

// memcpy for the short texts of a log's values, without a library call:
// two possibly overlapping fixed-size moves cover any length in a range.
inline void copyText(char* d, const char* s, size_t n) {
  if (n > 32) {
    std::memcpy(d, s, n);
  } else if (n >= 16) {
    char a[16], b[16];
    std::memcpy(a, s, 16);
    std::memcpy(b, s + n - 16, 16);
    std::memcpy(d, a, 16);
    std::memcpy(d + n - 16, b, 16);
  } else if (n >= 8) {
    uint64_t a, b;
    std::memcpy(&a, s, 8);
    std::memcpy(&b, s + n - 8, 8);
    std::memcpy(d, &a, 8);
    std::memcpy(d + n - 8, &b, 8);
  } else if (n >= 4) {
    uint32_t a, b;
    std::memcpy(&a, s, 4);
    std::memcpy(&b, s + n - 4, 4);
    std::memcpy(d, &a, 4);
    std::memcpy(d + n - 4, &b, 4);
  } else if (n > 0) {
    d[0] = s[0];
    d[n / 2] = s[n / 2];
    d[n - 1] = s[n - 1];
  }
}

}  // namespace

void retireThreadChunk() noexcept { retireCurrent(); }

const void* currentThreadChunk() noexcept { return tChunk.base; }

void* allocStringRep(size_t bytes) { return allocator().allocate(bytes); }

void freeStringRep(void* p) noexcept { allocator().deallocate(p); }

uintptr_t packString(const char* s, size_t n) {
  size_t need = (2 + n + 1 + 1) & ~size_t{1};
  if (!tChunk.base || tChunk.offset + need > kPackedChunkSize) {
    retireCurrent();
    startChunk();
  }
  char* at = tChunk.base + tChunk.offset;
  uint16_t len = static_cast<uint16_t>(n);
  std::memcpy(at, &len, 2);
  copyText(at + 2, s, n);
  at[2 + n] = '\0';
  tChunk.offset += need;
  ++tChunk.issued;
  return reinterpret_cast<uintptr_t>(at) | 1;
}

void freePackedChunk(PackedChunk* chunk) noexcept {
  chunk->refs.~atomic();
  allocator().deallocate(chunk);
}

}  // namespace zyl::detail

LightweightString<char>& operator+=(LightweightString<char>& s, int n) {
  char buf[16];
  int len = std::snprintf(buf, sizeof buf, "%d", n);
  return s.append(std::string_view(buf, static_cast<size_t>(len)));
}

bool StrCmpCI::operator()(const LightweightString<char>& a,
                          const LightweightString<char>& b) const {
  std::string_view x = a.view(), y = b.view();
  size_t n = std::min(x.size(), y.size());
  for (size_t i = 0; i < n; ++i) {
    unsigned char c = static_cast<unsigned char>(x[i]), d = static_cast<unsigned char>(y[i]);
    if (c >= 'A' && c <= 'Z') c = static_cast<unsigned char>(c + 32);
    if (d >= 'A' && d <= 'Z') d = static_cast<unsigned char>(d + 32);
    if (c != d) return c < d;
  }
  return x.size() < y.size();
}
