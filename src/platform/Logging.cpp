// Logging and zyl_splat.
//
// Sink calls are serialised by one mutex, held while the sink runs; a sink
// must therefore not log itself or call setLogSink (it would deadlock). The
// sink and the splat handler are kept on the heap behind plain pointers so
// that logging works during static initialisation and destruction.

#include <zyldb/platform/Logging.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

constinit std::mutex gLogMutex;
constinit zyl::LogSink* gSink = nullptr;  // null: stderr
constinit std::mutex gSplatMutex;
constinit zyl::SplatHandler* gSplat = nullptr;  // null: log and abort

void emit(zyl::LogLevel level, const char* message) {
  std::lock_guard<std::mutex> lock(gLogMutex);
  if (gSink) {
    (*gSink)(level, message);
  } else {
    std::fputs(message, stderr);
  }
}

void vemit(zyl::LogLevel level, const char* fmt, va_list ap) {
  char small[512];
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(small, sizeof small, fmt, copy);
  va_end(copy);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof small) {
    emit(level, small);
    return;
  }
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(big.data(), big.size(), fmt, ap);
  emit(level, big.c_str());
}

}  // namespace

void vorn_printf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vemit(zyl::LogLevel::kLog, fmt, ap);
  va_end(ap);
}

void LogBoth(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vemit(zyl::LogLevel::kUser, fmt, ap);
  va_end(ap);
}

void zyl_splat(const char* text) {
  if (!text) text = "";
  zyl::SplatHandler handler;
  {
    std::lock_guard<std::mutex> lock(gSplatMutex);
    if (gSplat) handler = *gSplat;
  }
  if (handler) {
    handler(text);
    return;
  }
  size_t n = std::strlen(text);
  bool needsNewline = n == 0 || text[n - 1] != '\n';
  vorn_printf("zyl_splat: %s%s", text, needsNewline ? "\n" : "");
  std::abort();
}

namespace zyl {

namespace {

// Swaps the heap-held handler in `slot` for `fresh` under `mutex`; returns
// the previous one (empty when there was none).
template <class Fn>
Fn exchangeHandler(Fn*& slot, std::mutex& mutex, Fn fresh) {
  Fn* next = fresh ? new Fn(std::move(fresh)) : nullptr;
  Fn* old;
  {
    std::lock_guard<std::mutex> lock(mutex);
    old = slot;
    slot = next;
  }
  Fn prev;
  if (old) {
    prev = std::move(*old);
    delete old;
  }
  return prev;
}

}  // namespace

LogSink setLogSink(LogSink sink) { return exchangeHandler(gSink, gLogMutex, std::move(sink)); }

SplatHandler setSplatHandler(SplatHandler handler) {
  return exchangeHandler(gSplat, gSplatMutex, std::move(handler));
}

}  // namespace zyl
