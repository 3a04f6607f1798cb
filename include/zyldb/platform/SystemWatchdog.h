#pragma once

// SystemWatchdog brackets long operations (sorting a big view, inserting many
// identifiers) so that a host's hang detector does not judge them hung.
// Brackets nest per thread. A host can install a hook that hears every change
// of the outermost bracket.

#include <zyldb/export.h>

#include <functional>

class ZYLDB_EXPORT SystemWatchdog {
 public:
  static void beginLifeSupport();
  static void endLifeSupport();
  // Depth of open brackets on the calling thread.
  static int depth();
  // hook(true) when a thread opens its outermost bracket, hook(false) when it
  // closes it. An empty hook removes it.
  static void setHook(std::function<void(bool)> hook);

  // Opens a bracket for the lifetime of the object.
  class LifeSupport {
   public:
    LifeSupport() { beginLifeSupport(); }
    ~LifeSupport() { endLifeSupport(); }
    LifeSupport(const LifeSupport&) = delete;
    LifeSupport& operator=(const LifeSupport&) = delete;
  };
};
