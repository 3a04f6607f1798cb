#pragma once

// Progress of a long step on stderr: "reading clips.log: 120 MB of 252 MB,
// 45 MB/s, 3 s left". Shown only when stderr is a terminal, the tool was not
// told to be quiet, and the step has run for more than a second; the line is
// redrawn in place a few times a second and cleared when the step ends.

#include <chrono>
#include <cstdint>
#include <string>

namespace zyl::cli {

// Turns progress reports on or off for the whole run (main decides from
// isatty(stderr) and --quiet). Off by default.
void enableProgress(bool on);
bool progressEnabled();

class Progress {
 public:
  enum class Unit { bytes, rows };
  // `total` 0 when unknown: then no time left is shown.
  Progress(std::string what, uint64_t total, Unit unit);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Records that `done` of the total are done; cheap enough to call per row
  // (it looks at the clock only every few thousand calls).
  void update(uint64_t done) {
    if (!enabled_ || ++calls_ % kCallsPerClockLook != 0) return;
    draw(done, false);
  }
  void setTotal(uint64_t total) { total_ = total; }
  // As update, for callers that report seldom (the library's load, about
  // once per MiB): looks at the clock every time.
  void show(uint64_t done) {
    if (enabled_) draw(done, false);
  }

  // The line for `done` of `total` after `seconds`, as drawn; for tests.
  static std::string line(const std::string& what, uint64_t done, uint64_t total, Unit unit,
                          double seconds);

 private:
  static constexpr uint64_t kCallsPerClockLook = 4096;
  void draw(uint64_t done, bool force);

  std::string what_;
  uint64_t total_;
  Unit unit_;
  bool enabled_;
  bool shown_ = false;
  uint64_t calls_ = 0;
  std::chrono::steady_clock::time_point start_, lastDraw_;
};

}  // namespace zyl::cli
