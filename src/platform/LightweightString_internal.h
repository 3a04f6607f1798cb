#pragma once

// Internals of packed-string storage, for tests and for code that wants a
// thread's partly filled chunk given back early.

#include <cstddef>
#include <cstdint>

namespace zyl::detail {

// Drops the calling thread's reference to its current packed chunk (the
// chunk is freed once no string in it is left). The next packed string
// starts a new chunk. Thread exit does the same.
void retireThreadChunk() noexcept;

// The calling thread's current chunk (null when it has none).
const void* currentThreadChunk() noexcept;

}  // namespace zyl::detail
