#pragma once

// Exceptions of the platform layer. The library reports by result values; the
// only exception it lets escape is BadAlloc, raised when the allocator cannot
// (or, under fault injection, will not) supply memory.

#include <zyldb/export.h>

#include <new>

namespace Qm::Exception {

class ZYLDB_EXPORT Base {
 public:
  virtual ~Base();
  virtual const char* what() const noexcept;
};

// Derives from std::bad_alloc too, so that standard-library code and hosts
// that catch std::bad_alloc see a memory failure as one.
class ZYLDB_EXPORT BadAlloc : public Base, public std::bad_alloc {
 public:
  const char* what() const noexcept override;
};

}  // namespace Qm::Exception
