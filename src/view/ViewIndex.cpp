// The view's row index and its one growth rule.

#include <zyldb/view/ViewIndex.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace zyl {

int32_t ViewIndex::capacityFor(int32_t capacity, int64_t n) {
  if (n == 0) return 0;
  const int64_t want = std::max<int64_t>(n, kMinCapacity);
  if (want <= capacity) return capacity > 2 * want ? capacity / 2 : capacity;
  return static_cast<int32_t>(
      std::min<int64_t>(std::max<int64_t>(2 * int64_t{capacity}, want), INT32_MAX));
}

int64_t ViewIndex::keptByResize(int32_t count, int32_t newCapacity, int64_t n) {
  return newCapacity < count ? std::max<int64_t>(n, kMinCapacity) : count;
}

void ViewIndex::sizeFor(int64_t n) {
  if (n == 0) {
    delete[] entries_;
    entries_ = nullptr;
    capacity_ = 0;
    return;
  }
  const int32_t fresh = capacityFor(capacity_, n);
  if (fresh == capacity_) return;
  ODBViewIndexEntry* next = allocate(fresh);
  const int64_t keep = std::min<int64_t>(keptByResize(count_, fresh, n), fresh);
  if (entries_ && keep > 0)
    std::memcpy(next, entries_, static_cast<size_t>(keep) * sizeof(ODBViewIndexEntry));
  adopt(next, fresh);
}

void ViewIndex::clear() noexcept {
  delete[] entries_;
  entries_ = nullptr;
  count_ = 0;
  capacity_ = 0;
}

ODBViewIndexEntry* ViewIndex::allocate(int32_t capacity) {
  if (capacity <= 0) return nullptr;
  return new ODBViewIndexEntry[static_cast<size_t>(capacity)]();
}

void ViewIndex::adopt(ODBViewIndexEntry* fresh, int32_t capacity) noexcept {
  delete[] entries_;
  entries_ = fresh;
  capacity_ = capacity;
}

}  // namespace zyl
