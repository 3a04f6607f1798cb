#pragma once

// LogGenerator: synthetic clip logs for benchmarks and tests.
//
// A generator makes an endless, deterministic sequence of realistic clip
// rows from a 64-bit seed: the same seed gives the same rows on every
// machine (the generator uses its own random number source, not the
// implementation-defined standard distributions). Each row has the sixteen
// columns of kLogColumns. Values never start or end with white space and hold
// no carriage return, so a log written from them reads back unchanged; about
// one description in twelve quotes dialogue ("..."), one in thirty spans two
// lines, most hold commas, and some cells are empty. Start and end
// timecodes, sound timecodes and keycodes of a row always satisfy
// start < end; some reels are drop-frame (';' before the frames).
//
// The record-line helpers write and split the quoted, comma-separated line
// form of the log files, independently of the library, so that peers and the
// floor measurement in the benchmarks read the same bytes the library reads.
//
// A generator object is used by one thread at a time; the free functions
// are thread-safe.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zyl {

struct LogColumn {
  const char* name;
  const char* type;  // the type keyword written in the log's types line
  int minWidth;      // the format's minimum display width for the name
};

inline constexpr size_t kLogNumColumns = 16;
extern const LogColumn kLogColumns[kLogNumColumns];

class LogGenerator {
 public:
  explicit LogGenerator(uint64_t seed);

  // Replaces `cells` with the next row's kLogNumColumns values, in column
  // order, unescaped.
  void next(std::vector<std::string>& cells);

 private:
  uint64_t random();
  // A uniformly drawn number in [lo, hi]. REQUIRES: lo <= hi.
  int between(int lo, int hi);
  bool chance(int percent) { return between(0, 99) < percent; }
  const char* pick(const char* const* list, size_t n) {
    return list[between(0, static_cast<int>(n) - 1)];
  }
  void startReel();
  void nextScene();
  std::string description();
  std::string notes();

  uint64_t state_;
  // Camera reel in progress.
  int reelNumber_ = 0;
  int clipsLeftInReel_ = 0;
  bool dropFrame_ = false;
  long long videoFrame_ = 0;  // next free frame on the reel, 29.97/30 fps count
  long long soundFrame_ = 0;  // next free frame on the sound roll, 30 fps
  long long filmFrame_ = 0;   // next free frame of negative, 24 fps, 16 per foot
  int keycodePrefix_ = 0;
  int keycodeRoll_ = 0;
  // Scene in progress.
  int sceneNumber_ = 0;
  char sceneSuffix_ = 0;
  int shotsLeftInScene_ = 0;
  int shot_ = 0;
  int take_ = 0;
  int takesLeftInShot_ = 0;
};

// The punctuated timecode of a frame count: "HH:MM:SS:FF" at `fps` frames
// per second, or, with `dropFrame`, the 29.97 drop-frame label
// "HH:MM:SS;FF" (frame numbers 0 and 1 skipped at each minute but every
// tenth). REQUIRES: frame >= 0; fps == 30 when dropFrame.
std::string timecodeText(long long frame, int fps, bool dropFrame);

// Appends the log line of `values`: each value in double quotes with '"'
// doubled, a line feed written as backslash-n and carriage returns and NUL
// bytes dropped; fields joined by single commas; no line end.
void appendRecordLine(std::string& out, const std::vector<std::string>& values);

// Splits one record line into its field values and calls
// `onField(std::string_view value)` for each. Quoted and unquoted fields are
// accepted, '""' gives '"', backslash-n gives a line feed; blanks are not
// trimmed. A field without escapes is passed as a view into `line`; one with
// escapes is decoded into `scratch`, which the view then points into until
// the next call. Returns the number of fields; an empty line gives 0.
template <class OnField>
size_t splitRecordLine(std::string_view line, std::string& scratch, OnField&& onField) {
  size_t count = 0;
  size_t i = 0;
  const size_t n = line.size();
  if (n == 0) return 0;
  for (;;) {
    ++count;
    if (i < n && line[i] == '"') {
      size_t start = ++i;
      // Fast path: find the closing quote; fall back to decoding on an escape.
      while (i < n && line[i] != '"' && line[i] != '\\') ++i;
      bool closed = i < n && line[i] == '"' && (i + 1 >= n || line[i + 1] != '"');
      if (closed) {
        onField(line.substr(start, i - start));
        ++i;
      } else {
        scratch.assign(line.data() + start, i - start);
        while (i < n) {
          char c = line[i];
          if (c == '"') {
            if (i + 1 < n && line[i + 1] == '"') {
              scratch.push_back('"');
              i += 2;
              continue;
            }
            ++i;
            break;
          }
          if (c == '\\' && i + 1 < n && line[i + 1] == 'n') {
            scratch.push_back('\n');
            i += 2;
            continue;
          }
          scratch.push_back(c);
          ++i;
        }
        onField(std::string_view(scratch));
      }
      // Skip anything between the closing quote and the separator.
      while (i < n && line[i] != ',') ++i;
    } else {
      size_t start = i;
      while (i < n && line[i] != ',') ++i;
      onField(line.substr(start, i - start));
    }
    if (i >= n) return count;
    // Past the comma; one at the very end of the line yields no field.
    if (++i >= n) return count;
  }
}

// Writes a complete log file of `rows` generated rows from `seed` to `path`:
// the magic and owner parameter lines, the column header (each width the
// larger of the column's longest value and its minimum width) and one record
// line per row, with LF line ends. The file is written under a temporary
// name and renamed into place, so `path` never holds a partial log.
// Returns true on success; false when the file could not be written (then
// nothing is left behind).
bool writeGeneratedLog(const std::string& path, size_t rows, uint64_t seed);

}  // namespace zyl
