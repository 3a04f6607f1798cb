#include "Progress.h"

#include <unistd.h>

#include <cstdio>

namespace zyl::cli {

namespace {

bool gEnabled = false;

constexpr double kQuietSeconds = 1.0;    // a step shorter than this shows nothing
constexpr double kRedrawSeconds = 0.25;  // time between two drawings

std::string amount(double n, Progress::Unit unit) {
  char text[32];
  if (unit == Progress::Unit::bytes) {
    if (n >= 1e9)
      std::snprintf(text, sizeof text, "%.1f GB", n / 1e9);
    else if (n >= 1e6)
      std::snprintf(text, sizeof text, "%.0f MB", n / 1e6);
    else
      std::snprintf(text, sizeof text, "%.0f kB", n / 1e3);
  } else {
    std::snprintf(text, sizeof text, "%.0f rows", n);
  }
  return text;
}

}  // namespace

void enableProgress(bool on) { gEnabled = on; }
bool progressEnabled() { return gEnabled; }

Progress::Progress(std::string what, uint64_t total, Unit unit)
    : what_(std::move(what)), total_(total), unit_(unit), enabled_(gEnabled) {
  start_ = lastDraw_ = std::chrono::steady_clock::now();
}

Progress::~Progress() {
  if (shown_) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
}

std::string Progress::line(const std::string& what, uint64_t done, uint64_t total, Unit unit,
                           double seconds) {
  std::string out = what + ": " + amount(static_cast<double>(done), unit);
  if (total > 0) out += " of " + amount(static_cast<double>(total), unit);
  if (seconds > 0) {
    double rate = static_cast<double>(done) / seconds;
    out += ", " + amount(rate, unit) + "/s";
    if (total > done && rate > 0) {
      char left[32];
      std::snprintf(left, sizeof left, ", %.0f s left", static_cast<double>(total - done) / rate);
      out += left;
    }
  }
  return out;
}

void Progress::draw(uint64_t done, bool force) {
  auto now = std::chrono::steady_clock::now();
  double running = std::chrono::duration<double>(now - start_).count();
  double sinceDraw = std::chrono::duration<double>(now - lastDraw_).count();
  if (running < kQuietSeconds || (!force && shown_ && sinceDraw < kRedrawSeconds)) return;
  lastDraw_ = now;
  shown_ = true;
  std::string text = "\r\033[K" + line(what_, done, total_, unit_, running);
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
}

}  // namespace zyl::cli
