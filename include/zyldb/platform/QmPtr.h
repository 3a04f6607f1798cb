#pragma once

// Reference-counted objects and the smart pointer that holds them.
//
// Objects deriving from iObject carry an intrusive count (Qm::InternalRefCount)
// and are destroyed when the last Qm::Ptr to them goes away. The count is
// atomic, so Ptrs to one object may be copied and dropped on several threads;
// the object itself is not made thread-safe by this.

#include <zyldb/export.h>

#include <atomic>
#include <cstdint>
#include <utility>

namespace Qm {

class ZYLDB_EXPORT InternalRefCount {
 public:
  InternalRefCount() = default;
  InternalRefCount(const InternalRefCount&) : refs_(0) {}
  InternalRefCount& operator=(const InternalRefCount&) { return *this; }
  virtual ~InternalRefCount();

  void addRef() const { refs_.fetch_add(1, std::memory_order_relaxed); }
  // Drops one reference and destroys the object when it was the last.
  void release() const {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }
  int refCount() const { return refs_.load(std::memory_order_relaxed); }

 private:
  mutable std::atomic<int> refs_{0};
};

// Holds one counted reference to a T (T derives from InternalRefCount).
template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  Ptr(T* p) : p_(p) {
    if (p_) p_->addRef();
  }
  Ptr(const Ptr& o) : p_(o.p_) {
    if (p_) p_->addRef();
  }
  Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  template <class U>
  Ptr(const Ptr<U>& o) : p_(o.get()) {
    if (p_) p_->addRef();
  }
  ~Ptr() {
    // The analyzer does not follow the atomic count, so it takes the last
    // release of a shared object for a use after free.
    if (p_) p_->release();  // NOLINT(clang-analyzer-cplusplus.NewDelete)
  }

  Ptr& operator=(Ptr o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }

  T* get() const { return p_; }
  T* operator->() const { return p_; }
  T& operator*() const { return *p_; }
  explicit operator bool() const { return p_ != nullptr; }
  void reset() { Ptr().swap(*this); }
  void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  friend bool operator==(const Ptr& a, const Ptr& b) { return a.p_ == b.p_; }

 private:
  T* p_ = nullptr;
};

}  // namespace Qm

// Marker base for objects with a virtual destructor.
class ZYLDB_EXPORT iVirtual {
 public:
  virtual ~iVirtual();
};

// The platform's reference-counted object.
class ZYLDB_EXPORT iObject : public virtual Qm::InternalRefCount, public virtual iVirtual {
 public:
  ~iObject() override;
};
