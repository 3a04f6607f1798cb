// Exceptions and the destructors of the platform's object bases, defined out
// of line so that their vtables and type information live in one object file.

#include <zyldb/platform/QmException.h>
#include <zyldb/platform/QmPtr.h>

namespace Qm::Exception {

Base::~Base() = default;
const char* Base::what() const noexcept { return "Qm::Exception::Base"; }
const char* BadAlloc::what() const noexcept { return "Qm::Exception::BadAlloc"; }

}  // namespace Qm::Exception

Qm::InternalRefCount::~InternalRefCount() = default;
iVirtual::~iVirtual() = default;
iObject::~iObject() = default;
