#pragma once

// ViewIndex: the row index of a view (ODBViewRep), one entry per view row.
//
// Each entry names a row of the view's source and carries the view's tag of
// that row. The entries live in one flat array whose size follows a single
// rule (capacityFor): at least kMinCapacity entries, doubling to grow, and
// halving at most once per resize, and only when less than half is used, so
// that repeated inserts and removals do not reallocate each time. The slots
// past the count keep whatever they held (an entry inserted later takes the
// tag its slot held), except that a reallocation clears the slots it does
// not copy.
//
// Every operation is O(1) except sizeFor and allocate, which are O(capacity).
// Allocation failure throws Qm::Exception::BadAlloc and leaves the index as
// it was.

#include <zyldb/export.h>

#include <cstdint>

// One view row: a row of the source and the view's tag (0 or 1) for it.
struct ODBViewIndexEntry {
  uint32_t row;
  uint8_t tag;
};

namespace zyl {

class ZYLDB_EXPORT ViewIndex {
 public:
  static constexpr int32_t kMinCapacity = 20;

  ViewIndex() = default;
  ViewIndex(const ViewIndex&) = delete;
  ViewIndex& operator=(const ViewIndex&) = delete;
  ~ViewIndex() { delete[] entries_; }

  int32_t count() const { return count_; }
  int32_t capacity() const { return capacity_; }
  // The array (null exactly when the capacity is 0). REQUIRES for an
  // element: 0 <= i < capacity().
  ODBViewIndexEntry* data() { return entries_; }
  const ODBViewIndexEntry* data() const { return entries_; }
  ODBViewIndexEntry& operator[](int64_t i) { return entries_[i]; }
  const ODBViewIndexEntry& operator[](int64_t i) const { return entries_[i]; }

  // The growth rule: the capacity that sizeFor(n) gives an index whose
  // capacity is `capacity`. 0 for n == 0; else with want = max(n, 20):
  // capacity / 2 when capacity > 2 x want, capacity when want <= capacity,
  // else max(2 x capacity, want) (capped at INT32_MAX).
  static int32_t capacityFor(int32_t capacity, int64_t n);
  // How many leading slots a resize from `count` live entries to
  // `newCapacity` keeps: the count, or max(n, 20) when the new capacity is
  // below the count.
  static int64_t keptByResize(int32_t count, int32_t newCapacity, int64_t n);

  // Resizes the array to capacityFor(capacity(), n), copying the slots that
  // keptByResize names; new slots are zero. n == 0 frees the array. The
  // count is left alone (callers set it).
  void sizeFor(int64_t n);
  // REQUIRES: 0 <= n <= capacity().
  void setCount(int32_t n) { count_ = n; }
  // Frees the array; count and capacity 0. Never fails.
  void clear() noexcept;
  // A zeroed array of `capacity` entries for adopt (null for 0).
  static ODBViewIndexEntry* allocate(int32_t capacity);
  // Takes `fresh` (from allocate, `capacity` entries) as the array, freeing
  // the old one. Never fails.
  void adopt(ODBViewIndexEntry* fresh, int32_t capacity) noexcept;

 private:
  ODBViewIndexEntry* entries_ = nullptr;
  int32_t count_ = 0;
  int32_t capacity_ = 0;
};

}  // namespace zyl
