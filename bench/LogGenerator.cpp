#include "LogGenerator.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace zyl {

const LogColumn kLogColumns[kLogNumColumns] = {
    {"Name", "text", 32},           {"Cookie", "text", 12},       {"Reel", "text", 10},
    {"Scene", "text", 24},          {"Shot", "text", 24},         {"Take", "text", 4},
    {"Start time", "timecode", 12}, {"End time", "timecode", 12}, {"snd start", "timecode", 12},
    {"snd end", "timecode", 12},    {"snd reel", "text", 10},     {"start keycode", "text", 17},
    {"end keycode", "text", 17},    {"Who", "text", 24},          {"Description", "text", 64},
    {"Notes", "text", 100},
};

namespace {

enum Column {
  kName,
  kCookie,
  kReel,
  kScene,
  kShot,
  kTake,
  kStart,
  kEnd,
  kSndStart,
  kSndEnd,
  kSndReel,
  kStartKeycode,
  kEndKeycode,
  kWho,
  kDescription,
  kNotes,
};

const char* const kPeople[] = {"Dana",  "Lee",  "Sam Ortiz",  "J. Whitfield",
                               "Priya", "Kofi", "M. Laurent", "Ines"};

const char* const kShots[] = {
    "Wide master", "Medium",   "Close on Tom",     "Close on Maria", "Over the shoulder",
    "Two-shot",    "Insert",   "POV from the car", "Cutaway",        "Tracking shot",
    "Crane down",  "Handheld", "Extreme close-up", "Reverse",        "Establishing",
};
const char* const kPlaces[] = {
    "kitchen",        "porch at dusk",     "hallway",     "bedroom",
    "diner interior", "bus stop at night", "parking lot", "rooftop",
    "stairwell",      "car interior",      "office",      "beach, overcast",
};
const char* const kActions[] = {
    "enters from the hall", "crosses to the window", "sits, lights a cigarette",
    "phone rings",          "door slams off",        "rain on the glass",
    "looks back",           "drops the keys",        "laughs",
    "long pause",           "car pulls up",          "lights flicker",
    "reads the letter",     "walks out of frame",    "turns to camera",
};
const char* const kLines[] = {
    "not tonight", "I said I'd call", "fine, fine",      "we close at ten, hon",     "refill?",
    "you knew",    "where were you",  "keep the change", "it's not about the money",
};
const char* const kRemarks[] = {
    "Circle take",
    "NG sound",
    "Best read",
    "Soft focus at head",
    "Boom in frame",
    "Use for the cut",
    "Dolly bump",
    "Plane overhead",
    "PU",
    "Wild sound after",
    "Reflection of crew, check",
    "Tail slate",
    "Light is practical, not a fault",
    "Slate missing; see sound report",
    "Good for the exit",
    "Silent take",
};

constexpr long long kFramesPerTenDropMinutes = 17982;

}  // namespace

std::string timecodeText(long long frame, int fps, bool dropFrame) {
  if (dropFrame) {
    // Ten minutes hold 17982 real frames; every minute but each tenth skips
    // the labels 0 and 1.
    long long tens = frame / kFramesPerTenDropMinutes;
    long long rest = frame % kFramesPerTenDropMinutes;
    frame += 18 * tens + (rest < 2 ? 0 : 2 * ((rest - 2) / 1798));
  }
  long long secs = frame / fps;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02lld:%02lld:%02lld%c%02lld", secs / 3600 % 24, secs / 60 % 60,
                secs % 60, dropFrame ? ';' : ':', frame % fps);
  return buf;
}

void appendRecordLine(std::string& out, const std::vector<std::string>& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    if (i > 0) out.push_back(',');
    out.push_back('"');
    for (char c : values[i]) {
      switch (c) {
        case '\r':
        case '\0':
          break;
        case '\n':
          out += "\\n";
          break;
        case '"':
          out += "\"\"";
          break;
        default:
          out.push_back(c);
      }
    }
    out.push_back('"');
  }
}

LogGenerator::LogGenerator(uint64_t seed) : state_(seed) {}

uint64_t LogGenerator::random() {
  // splitmix64: small, fast, and identical everywhere.
  uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  return z ^ (z >> 31);
}

int LogGenerator::between(int lo, int hi) {
  uint64_t span = static_cast<uint64_t>(hi - lo) + 1;
  return lo + static_cast<int>(random() % span);
}

void LogGenerator::startReel() {
  ++reelNumber_;
  clipsLeftInReel_ = between(20, 60);
  dropFrame_ = chance(35);
  // Each reel starts on its own hour; a reel holds well under two hours, so
  // its timecodes never pass midnight.
  int hour = 1 + (reelNumber_ - 1) % 20;
  videoFrame_ =
      dropFrame_ ? static_cast<long long>(hour) * 107892 : static_cast<long long>(hour) * 108000;
  soundFrame_ = static_cast<long long>(hour) * 108000 + between(0, 600) * 30;
  // Keycode feet stay below 10000 over a whole reel.
  filmFrame_ = static_cast<long long>(between(100, 2000)) * 16;
  keycodePrefix_ = between(10, 99);
  keycodeRoll_ = between(1000, 9999);
}

void LogGenerator::nextScene() {
  sceneNumber_ += between(1, 3);
  sceneSuffix_ = chance(10) ? static_cast<char>('A' + between(0, 2)) : 0;
  shotsLeftInScene_ = between(1, 8);
  shot_ = 0;
}

std::string LogGenerator::description() {
  if (chance(4)) return std::string();
  std::string d = pick(kShots, std::size(kShots));
  d += ", ";
  d += pick(kPlaces, std::size(kPlaces));
  int actions = between(0, 3);
  for (int i = 0; i < actions; ++i) {
    d += chance(30) ? "; " : ", ";
    d += pick(kActions, std::size(kActions));
  }
  if (chance(8)) {
    d += chance(50) ? ", \"" : ". She says \"";
    d += pick(kLines, std::size(kLines));
    d += '"';
  }
  if (chance(3)) {
    d += '\n';
    d += pick(kRemarks, std::size(kRemarks));
  }
  return d;
}

std::string LogGenerator::notes() {
  if (chance(45)) return std::string();
  std::string n = pick(kRemarks, std::size(kRemarks));
  if (chance(20)) {
    const char* more = pick(kRemarks, std::size(kRemarks));
    if (n != more) {
      n += ", ";
      n += more;
    }
  }
  return n;
}

void LogGenerator::next(std::vector<std::string>& cells) {
  cells.assign(kLogNumColumns, std::string());
  if (clipsLeftInReel_ == 0) startReel();
  --clipsLeftInReel_;
  if (takesLeftInShot_ == 0) {
    if (shotsLeftInScene_ == 0) nextScene();
    --shotsLeftInScene_;
    ++shot_;
    take_ = 0;
    takesLeftInShot_ = between(1, 6);
  }
  --takesLeftInShot_;
  ++take_;

  char buf[96];
  std::string scene = std::to_string(sceneNumber_);
  if (sceneSuffix_ != 0) scene.push_back(sceneSuffix_);
  std::snprintf(buf, sizeof buf, "%s-%d/%d", scene.c_str(), shot_, take_);
  cells[kName] = buf;

  cells[kCookie].reserve(33);
  cells[kCookie] = "C";
  static const char kHex[] = "0123456789abcdef";
  uint64_t hi = random(), lo = random();
  for (int i = 60; i >= 0; i -= 4) cells[kCookie].push_back(kHex[(hi >> i) & 15]);
  for (int i = 60; i >= 0; i -= 4) cells[kCookie].push_back(kHex[(lo >> i) & 15]);

  std::snprintf(buf, sizeof buf, "%c%03d", reelNumber_ % 3 == 0 ? 'B' : 'A', reelNumber_);
  cells[kReel] = buf;
  cells[kScene] = scene;
  cells[kShot] = std::to_string(shot_);
  cells[kTake] = std::to_string(take_);

  // Duration: 3 s to about 2 min of 24 fps film, shown on 30 fps video with
  // 2:3 pulldown (five video frames per four film frames).
  long long filmFrames = between(72, 2900);
  long long videoFrames = filmFrames * 5 / 4;
  cells[kStart] = timecodeText(videoFrame_, 30, dropFrame_);
  cells[kEnd] = timecodeText(videoFrame_ + videoFrames, 30, dropFrame_);
  videoFrame_ += videoFrames + between(30, 300);

  cells[kSndStart] = timecodeText(soundFrame_, 30, false);
  cells[kSndEnd] = timecodeText(soundFrame_ + videoFrames, 30, false);
  soundFrame_ += videoFrames + between(60, 900);
  std::snprintf(buf, sizeof buf, "S%03d", 1 + (reelNumber_ - 1) / 2);
  cells[kSndReel] = buf;

  // Labels made up for a quick log carry no keycodes.
  if (!chance(3)) {
    long long end = filmFrame_ + filmFrames;
    std::snprintf(buf, sizeof buf, "KU %02d %04d %04lld+%02lld", keycodePrefix_, keycodeRoll_,
                  filmFrame_ / 16, filmFrame_ % 16);
    cells[kStartKeycode] = buf;
    std::snprintf(buf, sizeof buf, "KU %02d %04d %04lld+%02lld", keycodePrefix_, keycodeRoll_,
                  end / 16, end % 16);
    cells[kEndKeycode] = buf;
  }
  filmFrame_ += filmFrames + 16 * between(1, 4);

  if (!chance(5)) cells[kWho] = pick(kPeople, std::size(kPeople));
  cells[kDescription] = description();
  cells[kNotes] = notes();
}

namespace {

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

bool writeAll(std::FILE* f, const std::string& s) {
  return std::fwrite(s.data(), 1, s.size(), f) == s.size();
}

}  // namespace

bool writeGeneratedLog(const std::string& path, size_t rows, uint64_t seed) {
  // First pass: the widths line needs each column's longest value.
  size_t widths[kLogNumColumns];
  for (size_t c = 0; c < kLogNumColumns; ++c)
    widths[c] = static_cast<size_t>(kLogColumns[c].minWidth);
  std::vector<std::string> cells;
  {
    LogGenerator gen(seed);
    for (size_t r = 0; r < rows; ++r) {
      gen.next(cells);
      for (size_t c = 0; c < kLogNumColumns; ++c) widths[c] = std::max(widths[c], cells[c].size());
    }
  }

  const std::string tmp = path + ".tmp";
  bool ok = false;
  {
    std::unique_ptr<std::FILE, FileCloser> f(std::fopen(tmp.c_str(), "wb"));
    if (!f) return false;
    std::string text = "\"ZYLDB:Rev 1\"\n\"owner:generated log, seed " + std::to_string(seed) +
                       ", " + std::to_string(rows) + " rows\"\n\"ZYLDB\"\n";
    std::string widthsLine, typesLine, namesLine;
    for (size_t c = 0; c < kLogNumColumns; ++c) {
      const char* sep = c + 1 < kLogNumColumns ? "," : "";
      widthsLine += "\"" + std::to_string(widths[c]) + "\"" + sep;
      typesLine += std::string("\"") + kLogColumns[c].type + "\"" + sep;
      namesLine += std::string("\"") + kLogColumns[c].name + "\"" + sep;
    }
    text += widthsLine + "\n" + typesLine + "\n" + namesLine + "\n";
    ok = writeAll(f.get(), text);

    LogGenerator gen(seed);
    for (size_t r = 0; ok && r < rows; ++r) {
      gen.next(cells);
      text.clear();
      appendRecordLine(text, cells);
      text.push_back('\n');
      ok = writeAll(f.get(), text);
    }
    ok = ok && std::fflush(f.get()) == 0;
    ok = std::fclose(f.release()) == 0 && ok;
  }
  if (ok) ok = std::rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) std::remove(tmp.c_str());
  return ok;
}

}  // namespace zyl
