#include <zyldb/platform/GrowString.h>

#include <cstdio>

GrowString& GrowString::appendf(const char* fmt, ...) {
  char small[256];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(small, sizeof small, fmt, ap);
  va_end(ap);
  if (n < 0) return *this;
  if (static_cast<size_t>(n) < sizeof small) {
    buf_.append(small, static_cast<size_t>(n));
    return *this;
  }
  size_t old = buf_.size();
  buf_.resize(old + static_cast<size_t>(n) + 1);
  va_start(ap, fmt);
  std::vsnprintf(buf_.data() + old, static_cast<size_t>(n) + 1, fmt, ap);
  va_end(ap);
  buf_.resize(old + static_cast<size_t>(n));
  return *this;
}
