// SystemWatchdog: a per-thread bracket depth and a process-wide hook.
//
// The hook is copied under the lock and called outside it, so a hook may
// itself open brackets or replace the hook.

#include <zyldb/platform/SystemWatchdog.h>

#include <memory>
#include <mutex>

namespace {

constinit thread_local int tDepth = 0;
constinit std::mutex gHookMutex;
// Heap-held so that nothing needs constructing or destroying at start-up or
// exit; null when there is no hook.
constinit std::shared_ptr<std::function<void(bool)>>* gHook = nullptr;

void callHook(bool opening) {
  std::shared_ptr<std::function<void(bool)>> hook;
  {
    std::lock_guard<std::mutex> lock(gHookMutex);
    if (!gHook) return;
    hook = *gHook;
  }
  (*hook)(opening);
}

}  // namespace

void SystemWatchdog::beginLifeSupport() {
  if (tDepth++ == 0) callHook(true);
}

void SystemWatchdog::endLifeSupport() {
  if (tDepth == 0) return;  // unmatched: ignored
  if (--tDepth == 0) callHook(false);
}

int SystemWatchdog::depth() { return tDepth; }

void SystemWatchdog::setHook(std::function<void(bool)> hook) {
  std::shared_ptr<std::function<void(bool)>>* fresh = nullptr;
  if (hook)
    fresh = new std::shared_ptr<std::function<void(bool)>>(
        std::make_shared<std::function<void(bool)>>(std::move(hook)));
  std::shared_ptr<std::function<void(bool)>>* old;
  {
    std::lock_guard<std::mutex> lock(gHookMutex);
    old = gHook;
    gHook = fresh;
  }
  delete old;
}
