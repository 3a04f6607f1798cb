#pragma once

// Back door to the allocator for code that may run before or after static
// initialisation (global operator new, string storage): it needs no OS()
// object and never fails to be there.

#include <zyldb/platform/OS.h>

namespace zyl::detail {

Allocator& allocator() noexcept;

}  // namespace zyl::detail
