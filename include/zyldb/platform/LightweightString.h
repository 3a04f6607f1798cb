#pragma once

// LightweightString<C>: the platform's immutable, reference-counted string.
//
// A string is one pointer wide and cheap to copy (copying shares the text and
// bumps a count). A null string and an empty string are the same to every
// reader: c_str() never returns null. The text is never changed in place;
// the modifying operators build a new string.
//
// Two representations share the one pointer word:
//  * a standalone block {count, size, text, NUL} from the platform allocator;
//  * a packed string (narrow strings only, made by packed()): a 16-bit length
//    and the text laid end to end with others in a 64 KiB chunk whose single
//    count covers every string in it. Loading a log makes its millions of
//    values this way, which saves the per-value block header and allocation;
//    a chunk is freed when the last string in it is released.
//    The word's low bit tells the two apart.
//
// Thread safety: distinct strings, and copies of one string, may be used on
// different threads (the counts are atomic).

#include <zyldb/export.h>

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>

namespace zyl::detail {

template <class C>
struct StringRep {
  std::atomic<uint32_t> refs;
  uint32_t size;
  C data[1];  // size + 1 characters, the last one 0
};

// Header at the start of every packed chunk; the chunk is kPackedChunkSize
// bytes and aligned to that size, so a packed string finds its chunk by
// masking its own address.
struct PackedChunk {
  std::atomic<uint32_t> refs;
};
inline constexpr size_t kPackedChunkSize = size_t{1} << 16;
// The longest text that packed() stores in a chunk; longer ones go standalone.
inline constexpr size_t kPackedMaxLength = 4095;

// Allocate and free standalone representations (platform allocator; the
// allocation throws Qm::Exception::BadAlloc).
ZYLDB_EXPORT void* allocStringRep(size_t bytes);
ZYLDB_EXPORT void freeStringRep(void* p) noexcept;
// Copies n (<= kPackedMaxLength) bytes into the calling thread's current chunk
// and returns the tagged word (address of the length prefix | 1), with the
// chunk's count raised by one.
ZYLDB_EXPORT uintptr_t packString(const char* s, size_t n);
ZYLDB_EXPORT void freePackedChunk(PackedChunk* chunk) noexcept;

}  // namespace zyl::detail

template <class C>
class LightweightString {
 public:
  using value_type = C;
  using view_type = std::basic_string_view<C>;

  LightweightString() noexcept = default;
  LightweightString(std::nullptr_t) noexcept {}
  // A null `s` makes the empty string.
  LightweightString(const C* s) { assign(s, s ? std::char_traits<C>::length(s) : 0); }
  LightweightString(const C* s, size_t n) { assign(s, n); }
  LightweightString(const std::basic_string<C>& s) { assign(s.data(), s.size()); }
  explicit LightweightString(view_type s) { assign(s.data(), s.size()); }

  LightweightString(const LightweightString& o) noexcept : bits_(o.bits_) { retain(); }
  LightweightString(LightweightString&& o) noexcept : bits_(o.bits_) { o.bits_ = 0; }
  LightweightString& operator=(const LightweightString& o) noexcept {
    LightweightString(o).swap(*this);
    return *this;
  }
  LightweightString& operator=(LightweightString&& o) noexcept {
    LightweightString(std::move(o)).swap(*this);
    return *this;
  }
  ~LightweightString() { release(); }

  // A string whose text lives in a shared packed chunk (see the file
  // comment). Same value as LightweightString(s, n); narrow strings only.
  static LightweightString packed(const char* s, size_t n) {
    static_assert(std::is_same_v<C, char>, "packed strings are narrow");
    LightweightString r;
    if (n == 0) return r;
    if (n > zyl::detail::kPackedMaxLength) return LightweightString(s, n);
    r.bits_ = zyl::detail::packString(s, n);
    return r;
  }

  const C* c_str() const noexcept {
    if (bits_ == 0) return kEmpty;
    if (bits_ & 1) return reinterpret_cast<const C*>((bits_ & ~uintptr_t{1}) + 2);
    return rep()->data;
  }
  const C* data() const noexcept { return c_str(); }
  size_t size() const noexcept {
    if (bits_ == 0) return 0;
    if (bits_ & 1) {
      uint16_t n;
      std::memcpy(&n, reinterpret_cast<const void*>(bits_ & ~uintptr_t{1}), 2);
      return n;
    }
    return rep()->size;
  }
  size_t length() const noexcept { return size(); }
  bool empty() const noexcept { return size() == 0; }
  // True for the default-constructed (null) string; an empty text built from
  // "" is null as well, since empty strings hold no block.
  bool isNull() const noexcept { return bits_ == 0; }
  view_type view() const noexcept { return view_type(c_str(), size()); }
  std::basic_string<C> toStdString() const { return std::basic_string<C>(view()); }
  C operator[](size_t i) const noexcept { return c_str()[i]; }

  void swap(LightweightString& o) noexcept { std::swap(bits_, o.bits_); }

  LightweightString& operator+=(const LightweightString& o) { return append(o.view()); }
  LightweightString& operator+=(const C* s) { return append(s ? view_type(s) : view_type()); }
  LightweightString& append(view_type tail) {
    if (tail.empty()) return *this;
    std::basic_string<C> joined(view());
    joined.append(tail);
    *this = LightweightString(joined);
    return *this;
  }

  friend LightweightString operator+(const LightweightString& a, const LightweightString& b) {
    LightweightString r(a);
    r += b;
    return r;
  }
  friend LightweightString operator+(const LightweightString& a, const C* b) {
    LightweightString r(a);
    r += b;
    return r;
  }

  friend bool operator==(const LightweightString& a, const LightweightString& b) noexcept {
    return a.bits_ == b.bits_ || a.view() == b.view();
  }
  friend bool operator==(const LightweightString& a, const C* b) noexcept {
    return a.view() == (b ? view_type(b) : view_type());
  }
  friend std::strong_ordering operator<=>(const LightweightString& a,
                                          const LightweightString& b) noexcept {
    int c = a.view().compare(b.view());
    return c < 0   ? std::strong_ordering::less
           : c > 0 ? std::strong_ordering::greater
                   : std::strong_ordering::equal;
  }

 private:
  using Rep = zyl::detail::StringRep<C>;
  static constexpr C kEmpty[1] = {};

  Rep* rep() const noexcept { return reinterpret_cast<Rep*>(bits_); }

  void assign(const C* s, size_t n) {
    if (n == 0) return;
    size_t bytes = offsetof(Rep, data) + (n + 1) * sizeof(C);
    Rep* r = static_cast<Rep*>(zyl::detail::allocStringRep(bytes));
    new (&r->refs) std::atomic<uint32_t>(1);
    r->size = static_cast<uint32_t>(n);
    std::memcpy(r->data, s, n * sizeof(C));
    r->data[n] = C();
    bits_ = reinterpret_cast<uintptr_t>(r);
  }
  zyl::detail::PackedChunk* chunk() const noexcept {
    return reinterpret_cast<zyl::detail::PackedChunk*>(bits_ &
                                                       ~(zyl::detail::kPackedChunkSize - 1));
  }
  void retain() const noexcept {
    if (bits_ == 0) return;
    if (bits_ & 1)
      chunk()->refs.fetch_add(1, std::memory_order_relaxed);
    else
      rep()->refs.fetch_add(1, std::memory_order_relaxed);
  }
  void release() noexcept {
    if (bits_ == 0) return;
    if (bits_ & 1) {
      zyl::detail::PackedChunk* c = chunk();
      if (c->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) zyl::detail::freePackedChunk(c);
    } else if (rep()->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      zyl::detail::freeStringRep(rep());
    }
    bits_ = 0;
  }

  uintptr_t bits_ = 0;
};

// Appends the decimal text of `n`.
ZYLDB_EXPORT LightweightString<char>& operator+=(LightweightString<char>& s, int n);

// Case-insensitive (ASCII) ordering of narrow strings, as strcasecmp orders
// them; the order of column names in a table's name map.
struct ZYLDB_EXPORT StrCmpCI {
  bool operator()(const LightweightString<char>& a, const LightweightString<char>& b) const;
};

template <class C>
struct std::hash<LightweightString<C>> {
  size_t operator()(const LightweightString<C>& s) const noexcept {
    return std::hash<std::basic_string_view<C>>()(s.view());
  }
};
