#pragma once

// CriticalSection: a recursive lock (a thread may take it again while it
// holds it, as happens when a notification handler issues notifications).

#include <zyldb/export.h>

#include <mutex>

class ZYLDB_EXPORT CriticalSection {
 public:
  void enter() { m_.lock(); }
  void leave() { m_.unlock(); }

  class Lock {
   public:
    explicit Lock(CriticalSection& cs) : cs_(cs) { cs_.enter(); }
    ~Lock() { cs_.leave(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    CriticalSection& cs_;
  };

 private:
  std::recursive_mutex m_;
};
