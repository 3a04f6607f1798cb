// The audit of a clip log: one pass reads the cells it needs, then each
// check works on plain arrays (one sort per reel, linear sweeps).

#include <zyldb/audit/Audit.h>
#include <zyldb/db/ODBBase.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/time_def.h>
#include <zyldb/view/ODBView.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "audit/Audit_internal.h"

namespace zyl::audit {

namespace {

using std::string_view;

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

string_view trim(string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(string_view a, string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (lower(a[i]) != lower(b[i])) return false;
  return true;
}

std::string twoDigits(int n) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%02d", n);
  return buf;
}

// A value as a message quotes it: control characters spelled out, long
// values cut.
std::string shown(string_view v) {
  std::string out;
  for (char c : v) {
    if (out.size() >= 40) {
      out += "...";
      break;
    }
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\x%02x", static_cast<unsigned char>(c));
          out += buf;
        } else {
          out.push_back(c);
        }
    }
  }
  return out;
}

// ---- Columns -------------------------------------------------------------

int findColumn(const ODBBase& source, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    int c = source.get_fieldnum(LightweightString<char>(name));
    if (c >= 0 && static_cast<unsigned int>(c) < source.get_num_fields()) return c;
  }
  return -1;
}

// ---- Rates ---------------------------------------------------------------

const char* const kPictureRateParams[] = {"fps",        "frame rate",   "framerate",
                                          "frame_rate", "video rate",   "timecode rate",
                                          "tc rate",    "project rate", "rate"};
const char* const kSoundRateParams[] = {"sound fps", "snd fps",   "sound rate",
                                        "snd rate",  "audio fps", "sound timecode rate"};

void rateFromParams(const ODBBase& source, const char* const* names, size_t count, Rate* out,
                    std::vector<std::string>* notes) {
  for (size_t i = 0; i < count; ++i) {
    const char* value = source.get_param_val(names[i]);
    if (value == nullptr || *value == '\0') continue;
    Rate r;
    if (parseRate(value, &r)) {
      r.source = Rate::Source::Parameter;
      r.how = std::string("from the log's parameter \"") + names[i] + "\"";
      *out = r;
      return;
    }
    notes->push_back(std::string("the log's parameter \"") + names[i] + "\" (\"" + shown(value) +
                     "\") is not a frame rate; it is ignored");
  }
}

// ---- Labels --------------------------------------------------------------

// A timecode cell, parsed once; frame numbers are worked out when the rate
// is known.
struct Label {
  enum State : uint8_t { Empty, Bad, Good } state = Empty;
  bool drop = false;
  uint8_t h = 0, m = 0, s = 0, f = 0;
};

}  // namespace

namespace detail {

// The plain rule: the platform's timecode parser.
bool parseLabelSlow(const LightweightString<char>& text, LabelParts* out) {
  time_def t(text.c_str(), eLabelTimecode);
  if (!t.isValid()) return false;
  *out = {t.hours(), t.minutes(), t.seconds(), t.frames(), t.isDropFrame()};
  return true;
}

// The usual "HH:MM:SS:FF" (or ';' before the frames) read directly; any
// other text goes to the plain rule.
bool parseLabel(const LightweightString<char>& text, LabelParts* out) {
  string_view v = text.view();
  auto d = [&](size_t i) { return v[i] >= '0' && v[i] <= '9'; };
  auto n = [&](size_t i) { return (v[i] - '0') * 10 + (v[i + 1] - '0'); };
  if (v.size() == 11 && d(0) && d(1) && v[2] == ':' && d(3) && d(4) && v[5] == ':' && d(6) &&
      d(7) && (v[8] == ':' || v[8] == ';') && d(9) && d(10)) {
    int h = n(0), m = n(3), s = n(6), f = n(9);
    if (h >= 24 || m >= 60 || s >= 60 || f >= 60) return false;
    *out = {h, m, s, f, v[8] == ';'};
    return true;
  }
  return parseLabelSlow(text, out);
}

}  // namespace detail

namespace {

Label parseLabel(const LightweightString<char>& text) {
  Label l;
  if (trim(text.view()).empty()) return l;
  detail::LabelParts p;
  if (!detail::parseLabel(text, &p)) {
    l.state = Label::Bad;
    return l;
  }
  l.state = Label::Good;
  l.drop = p.drop;
  l.h = static_cast<uint8_t>(p.h);
  l.m = static_cast<uint8_t>(p.m);
  l.s = static_cast<uint8_t>(p.s);
  l.f = static_cast<uint8_t>(p.f);
  return l;
}

int dropPerMinute(const Rate& r) { return r.timebase / 15; }  // 2 at 30, 4 at 60

// Why the label cannot exist at the rate; empty when it can.
std::string impossibility(const Label& l, const Rate& r) {
  if (l.f >= r.timebase)
    return "frame " + twoDigits(l.f) + " does not exist at " + r.name + " fps (frames 00 to " +
           twoDigits(r.timebase - 1) + ")";
  if (l.drop && !r.dropFrame)
    return "is a drop-frame label, and " + r.name + " fps has no drop-frame";
  if (l.drop && l.s == 0 && l.m % 10 != 0 && l.f < dropPerMinute(r)) {
    std::string skipped = dropPerMinute(r) == 2 ? "frames 00 and 01" : "frames 00 to 03";
    return "does not exist at " + r.name + " drop-frame (" + skipped + " of minute " +
           twoDigits(l.m) + " are skipped)";
  }
  return {};
}

int64_t frameOf(const Label& l, const Rate& r) {
  int64_t minutes = l.h * 60 + l.m;
  int64_t frames = (minutes * 60 + l.s) * r.timebase + l.f;
  if (l.drop && r.dropFrame) frames -= dropPerMinute(r) * (minutes - minutes / 10);
  return frames;
}

bool labelsFit(const std::vector<Label>& labels, const Rate& r) {
  for (const Label& l : labels)
    if (l.state == Label::Good && !impossibility(l, r).empty()) return false;
  return true;
}

Rate inferRate(const std::vector<Label>& a, const std::vector<Label>& b) {
  bool anyDrop = false, any = false;
  int maxFrame = 0;
  for (const auto* labels : {&a, &b})
    for (const Label& l : *labels) {
      if (l.state != Label::Good) continue;
      any = true;
      anyDrop = anyDrop || l.drop;
      maxFrame = std::max<int>(maxFrame, l.f);
    }
  Rate r;
  if (!any) {
    r.how = "no timecodes to infer it from";
    return r;
  }
  const char* name;
  if (anyDrop)
    name = maxFrame >= 30 ? "59.94" : "29.97";
  else if (maxFrame <= 23)
    name = "24";
  else if (maxFrame == 24)
    name = "25";
  else if (maxFrame <= 29)
    name = "30";
  else if (maxFrame <= 49)
    name = "50";
  else
    name = "60";
  parseRate(name, &r);
  r.source = Rate::Source::Inferred;
  r.how = std::string("inferred from ") + (anyDrop ? "drop-frame" : "non-drop") +
          " separators and frames up to " + twoDigits(maxFrame);
  return r;
}

// ---- Keycodes ------------------------------------------------------------

struct Keycode {
  enum State : uint8_t { Empty, Bad, Good } state = Empty;
  string_view prefix;  // the roll: everything before the feet
  int64_t feet = 0;
  int64_t frames = 0;
};

// "KU 12 3456 7890+00": the feet are the digits right before '+', the
// frames the digits after it.
Keycode parseKeycode(string_view text) {
  Keycode k;
  text = trim(text);
  if (text.empty()) return k;
  k.state = Keycode::Bad;
  size_t plus = text.rfind('+');
  if (plus == string_view::npos || plus + 1 >= text.size() || text.size() - plus > 4) return k;
  int64_t frames = 0;
  for (size_t i = plus + 1; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return k;
    frames = frames * 10 + (text[i] - '0');
  }
  size_t start = plus;
  while (start > 0 && text[start - 1] >= '0' && text[start - 1] <= '9' && plus - start < 9) --start;
  if (start == plus) return k;
  int64_t feet = 0;
  for (size_t i = start; i < plus; ++i) feet = feet * 10 + (text[i] - '0');
  k.state = Keycode::Good;
  k.prefix = trim(text.substr(0, start));
  k.feet = feet;
  k.frames = frames;
  return k;
}

// ---- Values a save keeps ---------------------------------------------------

// True when a value can only survive if the writer and reader treat it
// specially; every other value is written as it is and read back unchanged.
bool needsRoundTrip(string_view v) {
  if (v.empty()) return false;
  if (v.size() >= 4000 || isBlank(v.front()) || isBlank(v.back())) return true;
  // Eight bytes at a time: a byte below 0x20, 0x7F or a backslash.
  constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
  auto hasZero = [](uint64_t x) { return ((x - kOnes) & ~x & kHigh) != 0; };
  size_t i = 0;
  for (; i + 8 <= v.size(); i += 8) {
    uint64_t x;
    std::memcpy(&x, v.data() + i, 8);
    if (((x - kOnes * 0x20) & ~x & kHigh) != 0 || hasZero(x ^ (kOnes * 0x7F)) ||
        hasZero(x ^ (kOnes * '\\')))
      return true;
  }
  for (; i < v.size(); ++i) {
    unsigned char b = static_cast<unsigned char>(v[i]);
    if (b < 0x20 || b == 0x7F || b == '\\') return true;
  }
  return false;
}

}  // namespace

namespace detail {

bool survivesSaveSlow(const LightweightString<char>& value) {
  dbrecord out(1);
  out.setField(0, value);
  TextFile file;
  out.write(file);
  dbrecord back(1);
  file.currentLine = 0;
  int count = back.read(file);
  if (value.empty()) return count <= 1 && back.getField(0).empty();
  return count == 1 && back.get_num_fields() == 1 && back.getField(0).view() == value.view();
}

bool survivesSave(const LightweightString<char>& value) {
  return !needsRoundTrip(value.view()) || survivesSaveSlow(value);
}

bool isHeaderWord(string_view firstValue) { return equalsIgnoringCase(trim(firstValue), "ZYLDB"); }

}  // namespace detail

// ---- Public helpers --------------------------------------------------------------

bool parseRate(const std::string& text, Rate* out) {
  std::string t;
  for (char c : text)
    if (!isBlank(c)) t.push_back(lower(c));
  for (const char* suffix : {"ndf", "df", "fps"})
    if (t.size() > std::strlen(suffix) &&
        t.compare(t.size() - std::strlen(suffix), std::string::npos, suffix) == 0)
      t.resize(t.size() - std::strlen(suffix));
  struct Known {
    const char* text;
    const char* name;
    int timebase;
    bool drop;
  };
  static const Known kKnown[] = {
      {"23.976", "23.976", 24, false}, {"23.98", "23.976", 24, false}, {"24", "24", 24, false},
      {"25", "25", 25, false},         {"29.97", "29.97", 30, true},   {"30", "30", 30, false},
      {"50", "50", 50, false},         {"59.94", "59.94", 60, true},   {"60", "60", 60, false},
  };
  for (const Known& k : kKnown)
    if (t == k.text) {
      out->name = k.name;
      out->timebase = k.timebase;
      out->dropFrame = k.drop;
      return true;
    }
  return false;
}

std::string durationText(int64_t frames, int timebase) {
  if (timebase <= 0) return std::to_string(frames) + " frames";
  std::string sign = frames < 0 ? "-" : "";
  uint64_t f = frames < 0 ? 0 - static_cast<uint64_t>(frames) : static_cast<uint64_t>(frames);
  uint64_t secs = f / static_cast<uint64_t>(timebase);
  char buf[64];
  std::snprintf(
      buf, sizeof buf, "%02llu:%02llu:%02llu:%02llu", static_cast<unsigned long long>(secs / 3600),
      static_cast<unsigned long long>(secs / 60 % 60), static_cast<unsigned long long>(secs % 60),
      static_cast<unsigned long long>(f % static_cast<uint64_t>(timebase)));
  return sign + buf;
}

std::string labelText(int64_t frame, int timebase, bool dropFrame) {
  if (timebase <= 0 || frame < 0) return durationText(frame, timebase);
  const int drop = timebase / 15;
  if (dropFrame && drop > 0) {
    // Ten minutes hold 600 * timebase - 9 * drop frames; every minute but
    // each tenth skips its first `drop` labels.
    const int64_t perTen = 600LL * timebase - 9LL * drop, perMinute = 60LL * timebase - drop;
    int64_t tens = frame / perTen, rest = frame % perTen;
    frame += 9 * drop * tens + (rest < drop ? 0 : drop * ((rest - drop) / perMinute));
  }
  const int64_t secs = frame / timebase;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02d:%02d:%02d%c%02d", static_cast<int>(secs / 3600 % 24),
                static_cast<int>(secs / 60 % 60), static_cast<int>(secs % 60),
                dropFrame && drop > 0 ? ';' : ':', static_cast<int>(frame % timebase));
  return buf;
}

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::Overlap:
      return "overlap";
    case Kind::Gap:
      return "gap";
    case Kind::ReversedRange:
      return "reversed-range";
    case Kind::MissingPartner:
      return "missing-partner";
    case Kind::ImpossibleTimecode:
      return "impossible-timecode";
    case Kind::ImpossibleKeycode:
      return "impossible-keycode";
    case Kind::KeycodeMismatch:
      return "keycode-mismatch";
    case Kind::DuplicateName:
      return "duplicate-name";
    case Kind::DuplicateId:
      return "duplicate-id";
    case Kind::UnsavableValue:
      return "unsavable-value";
  }
  return "";
}

const char* severityName(Severity severity) {
  switch (severity) {
    case Severity::Error:
      return "error";
    case Severity::Warning:
      return "warning";
    case Severity::Info:
      return "info";
  }
  return "";
}

const char* trackName(Track track) {
  switch (track) {
    case Track::None:
      return "";
    case Track::Picture:
      return "picture";
    case Track::Sound:
      return "sound";
  }
  return "";
}

// ---- The audit -----------------------------------------------------------------

namespace {

class Auditor {
 public:
  Auditor(ODBBase& source, const Options& options, Report& report)
      : src_(source), opt_(options), rep_(report) {}

  void run();

 private:
  struct Pair {
    int start = -1, end = -1;
    const char* what;  // "picture", "sound" timecodes, "keycode"
  };
  // One clip placed on a reel: its row, its range in frames.
  struct Placed {
    uint32_t reel;
    int64_t start, end;
    long row;
    bool drop;
  };

  const LightweightString<char>& cell(long row, int column) const {
    static const LightweightString<char> kEmpty;
    if (column < 0) return kEmpty;
    const dbrecord* rec = records_[static_cast<size_t>(row)];
    return rec ? rec->getField(static_cast<unsigned short>(column)) : kEmpty;
  }
  std::string clipName(long row) const {
    string_view name = nameCol_ >= 0 ? trim(cell(row, nameCol_).view()) : string_view();
    return name.empty() ? "row " + std::to_string(row + 1) : std::string(name);
  }
  Cell cellOf(long row, int column) const {
    return {row, src_.get_fieldname(static_cast<unsigned int>(column)),
            std::string(cell(row, column).view())};
  }
  long lineOf(long row) const;
  Finding& add(Kind kind, Severity severity, Track track, std::vector<long> rows);

  // A name or identifier with a hash of its lower-cased text.
  struct Value {
    uint64_t hash;
    string_view text;
    long row;
  };
  // Reads every row once: the timecode labels, the names and identifiers,
  // and whether each cell survives a save. One pass keeps each record's
  // memory touched once, which is most of the audit's cost on large logs.
  void gather();
  void checkSaves(long row, const dbrecord& rec);
  void chooseRate(const std::string& option, const char* const* params, size_t count,
                  const std::vector<Label>& a, const std::vector<Label>& b, Rate* out);
  void checkTimecodes(Track track, int startCol, int endCol, const std::vector<Label>& starts,
                      const std::vector<Label>& ends, const Rate& rate, int reelCol);
  void checkReels(Track track, std::vector<Placed>& clips, const std::vector<string_view>& reels,
                  const Rate& rate, int startCol, int endCol);
  void checkKeycodes();
  void checkDuplicates(std::vector<Value>& values, int column, Kind kind, Severity severity,
                       const char* what);

  ODBBase& src_;
  const Options& opt_;
  Report& rep_;
  long n_ = 0;
  std::vector<const dbrecord*> records_;
  int nameCol_ = -1, idCol_ = -1, reelCol_ = -1, sndReelCol_ = -1;
  int startCol_ = -1, endCol_ = -1, sndStartCol_ = -1, sndEndCol_ = -1;
  int kcStartCol_ = -1, kcEndCol_ = -1;
  std::vector<Label> starts_, ends_, sndStarts_, sndEnds_;
  std::vector<Value> names_, ids_;
  // Picture ranges of the rows whose two timecodes are good and in order,
  // for the keycode check; -1 start when not.
  std::vector<int64_t> pictureStart_, pictureEnd_;
  zyldb* table_ = nullptr;  // the table of the source, to map rows to lines
  bool tableShowsTagsOnly_ = false;
  int pulldownVideo_ = 1, pulldownFilm_ = 1;
};

long Auditor::lineOf(long row) const {
  if (opt_.tableRowLines.empty()) return 0;
  long tableRow = src_.baseIndex(static_cast<int>(row));
  if (tableShowsTagsOnly_ && table_ != nullptr)
    tableRow = static_cast<int>(table_->get_raw_row(static_cast<unsigned int>(tableRow)));
  if (tableRow < 0 || static_cast<size_t>(tableRow) >= opt_.tableRowLines.size()) return 0;
  return opt_.tableRowLines[static_cast<size_t>(tableRow)];
}

Finding& Auditor::add(Kind kind, Severity severity, Track track, std::vector<long> rows) {
  Finding& f = rep_.findings.emplace_back();
  f.kind = kind;
  f.severity = severity;
  f.track = track;
  for (long r : rows) f.lines.push_back(lineOf(r));
  f.rows = std::move(rows);
  return f;
}

void Auditor::gather() {
  auto sized = [this](int column, std::vector<Label>& out) {
    if (column >= 0) out.resize(static_cast<size_t>(n_));
  };
  sized(startCol_, starts_);
  sized(endCol_, ends_);
  sized(sndStartCol_, sndStarts_);
  sized(sndEndCol_, sndEnds_);
  auto hashed = [](string_view v) {
    uint64_t h = 14695981039346656037ull;
    for (char c : v) h = (h ^ static_cast<unsigned char>(lower(c))) * 1099511628211ull;
    return h;
  };
  for (long r = 0; r < n_; ++r) {
    const dbrecord* rec = records_[static_cast<size_t>(r)];
    if (rec == nullptr) continue;
    const size_t i = static_cast<size_t>(r);
    auto field = [rec](int column) -> const LightweightString<char>& {
      return rec->getField(static_cast<unsigned short>(column));
    };
    if (startCol_ >= 0) starts_[i] = parseLabel(field(startCol_));
    if (endCol_ >= 0) ends_[i] = parseLabel(field(endCol_));
    if (sndStartCol_ >= 0) sndStarts_[i] = parseLabel(field(sndStartCol_));
    if (sndEndCol_ >= 0) sndEnds_[i] = parseLabel(field(sndEndCol_));
    if (nameCol_ >= 0) {
      string_view v = trim(field(nameCol_).view());
      if (!v.empty()) names_.push_back({hashed(v), v, r});
    }
    if (idCol_ >= 0) {
      string_view v = trim(field(idCol_).view());
      if (!v.empty()) ids_.push_back({hashed(v), v, r});
    }
    checkSaves(r, *rec);
  }
}

void Auditor::chooseRate(const std::string& option, const char* const* params, size_t count,
                         const std::vector<Label>& a, const std::vector<Label>& b, Rate* out) {
  if (!option.empty()) {
    parseRate(option, out);  // checked by run()
    out->source = Rate::Source::Option;
    out->how = "from the options";
    return;
  }
  rateFromParams(src_, params, count, out, &rep_.notes);
  if (out->source == Rate::Source::None) *out = inferRate(a, b);
}

void Auditor::run() {
  n_ = static_cast<long>(src_.get_num_records());
  rep_.rows = n_;
  rep_.framesPerFoot = opt_.framesPerFoot;
  Rate probe;
  if (!opt_.fps.empty() && !parseRate(opt_.fps, &probe)) {
    rep_.notes.push_back("\"" + opt_.fps + "\" is not a frame rate this audit knows (23.976, 24, " +
                         "25, 29.97, 30, 50, 59.94, 60); nothing was checked");
    return;
  }
  if (!opt_.soundFps.empty() && !parseRate(opt_.soundFps, &probe)) {
    rep_.notes.push_back("\"" + opt_.soundFps + "\" is not a frame rate this audit knows; " +
                         "nothing was checked");
    return;
  }
  if (opt_.framesPerFoot < 1 || opt_.pulldownVideo < 0 || opt_.pulldownFilm < 0 ||
      (opt_.pulldownVideo == 0) != (opt_.pulldownFilm == 0)) {
    rep_.notes.push_back("the film gauge or pulldown options are not usable; nothing was checked");
    return;
  }

  table_ = dynamic_cast<zyldb*>(&src_);
  if (auto* view = dynamic_cast<ODBViewRep*>(&src_)) table_ = view->odb();
  tableShowsTagsOnly_ = table_ != nullptr && table_->get_show_tags_only() != 0;

  records_.resize(static_cast<size_t>(n_));
  for (long r = 0; r < n_; ++r)
    records_[static_cast<size_t>(r)] = src_.get_record(static_cast<unsigned int>(r));

  nameCol_ = findColumn(src_, {"Name", "Clip name", "Clip"});
  idCol_ = findColumn(src_, {"Cookie"});
  reelCol_ = findColumn(src_, {"Reel", "Tape", "Tape name", "Reel name"});
  sndReelCol_ = findColumn(src_, {"snd reel", "Sound reel", "Sound roll"});
  startCol_ = findColumn(src_, {"Start time", "Start"});
  endCol_ = findColumn(src_, {"End time", "End"});
  sndStartCol_ = findColumn(src_, {"snd start", "Sound start"});
  sndEndCol_ = findColumn(src_, {"snd end", "Sound end"});
  kcStartCol_ = findColumn(src_, {"start keycode"});
  kcEndCol_ = findColumn(src_, {"end keycode"});

  gather();
  chooseRate(opt_.fps, kPictureRateParams, std::size(kPictureRateParams), starts_, ends_,
             &rep_.picture);
  chooseRate(opt_.soundFps.empty() ? opt_.fps : opt_.soundFps, kSoundRateParams,
             std::size(kSoundRateParams), sndStarts_, sndEnds_, &rep_.sound);
  // Sound timecodes usually run at the picture's timebase; a handful of
  // sound labels says little, so the picture rate is kept when they fit it.
  if (rep_.sound.source == Rate::Source::Inferred && rep_.picture.timebase > 0 &&
      labelsFit(sndStarts_, rep_.picture) && labelsFit(sndEnds_, rep_.picture)) {
    rep_.sound = rep_.picture;
    rep_.sound.how = "as the picture, which the sound labels fit";
  }

  if (opt_.pulldownVideo > 0) {
    pulldownVideo_ = opt_.pulldownVideo;
    pulldownFilm_ = opt_.pulldownFilm;
  } else if (rep_.picture.timebase == 30) {
    pulldownVideo_ = 5, pulldownFilm_ = 4;
  } else if (rep_.picture.timebase == 60) {
    pulldownVideo_ = 5, pulldownFilm_ = 2;
  }
  if (pulldownVideo_ * 4 == pulldownFilm_ * 5)
    rep_.pulldown = "3:2 (5 video frames for 4 film frames)";
  else if (pulldownVideo_ == pulldownFilm_)
    rep_.pulldown = "none (one video frame per film frame)";
  else
    rep_.pulldown = std::to_string(pulldownVideo_) + " video frames for " +
                    std::to_string(pulldownFilm_) + " film frames";

  if (reelCol_ < 0 && startCol_ >= 0)
    rep_.notes.push_back("no Reel or Tape column: overlaps and gaps are not checked");
  pictureStart_.assign(static_cast<size_t>(n_), -1);
  pictureEnd_.assign(static_cast<size_t>(n_), -1);
  if (startCol_ >= 0 && endCol_ >= 0)
    checkTimecodes(Track::Picture, startCol_, endCol_, starts_, ends_, rep_.picture, reelCol_);
  else if (startCol_ >= 0 || endCol_ >= 0)
    rep_.notes.push_back(
        "only one of Start time and End time is present: picture timecodes are "
        "not checked");
  if (sndStartCol_ >= 0 && sndEndCol_ >= 0)
    checkTimecodes(Track::Sound, sndStartCol_, sndEndCol_, sndStarts_, sndEnds_, rep_.sound,
                   sndReelCol_ >= 0 ? sndReelCol_ : reelCol_);
  else if (sndStartCol_ >= 0 || sndEndCol_ >= 0)
    rep_.notes.push_back(
        "only one of snd start and snd end is present: sound timecodes are not "
        "checked");
  if (kcStartCol_ >= 0 && kcEndCol_ >= 0)
    checkKeycodes();
  else if (kcStartCol_ >= 0 || kcEndCol_ >= 0)
    rep_.notes.push_back(
        "only one of start keycode and end keycode is present: keycodes are not "
        "checked");
  if (nameCol_ >= 0)
    checkDuplicates(names_, nameCol_, Kind::DuplicateName, Severity::Warning, "name");
  if (idCol_ >= 0) checkDuplicates(ids_, idCol_, Kind::DuplicateId, Severity::Error, "identifier");

  // Findings on a reel first, by reel and place; then the others by row.
  std::stable_sort(rep_.findings.begin(), rep_.findings.end(),
                   [](const Finding& a, const Finding& b) {
                     bool ar = !a.reel.empty(), br = !b.reel.empty();
                     if (ar != br) return ar;
                     if (ar) {
                       if (a.reel != b.reel) return a.reel < b.reel;
                       if (a.frame != b.frame) return a.frame < b.frame;
                     }
                     long ra = a.rows.empty() ? -1 : a.rows.front();
                     long rb = b.rows.empty() ? -1 : b.rows.front();
                     return ra < rb;
                   });
  for (const Finding& f : rep_.findings) {
    if (f.severity == Severity::Error) ++rep_.errors;
    if (f.severity == Severity::Warning) ++rep_.warnings;
    if (f.severity == Severity::Info) ++rep_.infos;
  }
}

void Auditor::checkTimecodes(Track track, int startCol, int endCol,
                             const std::vector<Label>& starts, const std::vector<Label>& ends,
                             const Rate& rate, int reelCol) {
  const char* trackWord = track == Track::Sound ? "sound " : "";
  std::vector<Placed> clips;
  std::vector<string_view> reelNames;
  std::unordered_map<string_view, uint32_t> reelIds;
  uint32_t lastReel = 0;
  auto reelOf = [&](long row) -> string_view {
    return reelCol >= 0 ? trim(cell(row, reelCol).view()) : string_view();
  };

  for (long r = 0; r < n_; ++r) {
    const Label& s = starts[static_cast<size_t>(r)];
    const Label& e = ends[static_cast<size_t>(r)];
    bool usable = true;
    for (auto [label, col] : {std::pair{&s, startCol}, std::pair{&e, endCol}}) {
      if (label->state == Label::Empty) continue;
      std::string why;
      if (label->state == Label::Bad)
        why = "is not a timecode (HH:MM:SS:FF)";
      else if (rate.timebase > 0)
        why = impossibility(*label, rate);
      if (why.empty()) continue;
      usable = false;
      Finding& f = add(Kind::ImpossibleTimecode, Severity::Error, track, {r});
      f.cells.push_back(cellOf(r, col));
      f.reel = std::string(reelOf(r));
      f.message = clipName(r) + ": " + src_.get_fieldname(static_cast<unsigned int>(col)) + " " +
                  shown(trim(cell(r, col).view())) + " " + why;
    }
    if ((s.state == Label::Empty) != (e.state == Label::Empty)) {
      int have = s.state != Label::Empty ? startCol : endCol;
      int lack = s.state != Label::Empty ? endCol : startCol;
      Finding& f = add(Kind::MissingPartner, Severity::Warning, track, {r});
      f.cells = {cellOf(r, have), cellOf(r, lack)};
      f.reel = std::string(reelOf(r));
      f.message = clipName(r) + " has a " + src_.get_fieldname(static_cast<unsigned int>(have)) +
                  " but no " + src_.get_fieldname(static_cast<unsigned int>(lack));
      continue;
    }
    if (!usable || s.state != Label::Good || e.state != Label::Good || rate.timebase == 0) continue;
    int64_t a = frameOf(s, rate), b = frameOf(e, rate);
    if (b <= a) {
      Finding& f =
          add(Kind::ReversedRange, b < a ? Severity::Error : Severity::Warning, track, {r});
      f.cells = {cellOf(r, startCol), cellOf(r, endCol)};
      f.reel = std::string(reelOf(r));
      f.frame = a;
      f.message = clipName(r) + (b < a ? " ends before it starts: " : " ends where it starts: ") +
                  trackWord + "end " + std::string(trim(cell(r, endCol).view())) + ", start " +
                  std::string(trim(cell(r, startCol).view()));
      continue;
    }
    if (track == Track::Picture) {
      pictureStart_[static_cast<size_t>(r)] = a;
      pictureEnd_[static_cast<size_t>(r)] = b;
    }
    if (reelCol < 0) continue;
    string_view reel = reelOf(r);
    if (reel.empty()) continue;
    // Rows of a reel usually follow each other: look the name up only when
    // it changes.
    if (reelNames.empty() || reel != reelNames[lastReel]) {
      auto [it, inserted] = reelIds.emplace(reel, static_cast<uint32_t>(reelNames.size()));
      if (inserted) reelNames.push_back(reel);
      lastReel = it->second;
    }
    clips.push_back({lastReel, a, b, r, s.drop && rate.dropFrame});
  }
  if (reelCol >= 0) checkReels(track, clips, reelNames, rate, startCol, endCol);
}

void Auditor::checkReels(Track track, std::vector<Placed>& clips,
                         const std::vector<string_view>& reels, const Rate& rate, int startCol,
                         int endCol) {
  // Reels are numbered in order of appearance; number them by name instead,
  // so that timelines come out by reel.
  std::vector<uint32_t> order(reels.size()), rank(reels.size());
  for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(),
            [&](uint32_t a, uint32_t b) { return reels[a] < reels[b]; });
  for (uint32_t i = 0; i < order.size(); ++i) rank[order[i]] = i;
  for (Placed& c : clips) c.reel = rank[c.reel];
  std::vector<string_view> byName(reels.size());
  for (uint32_t i = 0; i < order.size(); ++i) byName[i] = reels[order[i]];
  auto before = [](const Placed& a, const Placed& b) {
    if (a.reel != b.reel) return a.reel < b.reel;
    if (a.start != b.start) return a.start < b.start;
    return a.row < b.row;
  };
  // Logs are mostly written in reel and time order: check before sorting.
  if (!std::is_sorted(clips.begin(), clips.end(), before))
    std::sort(clips.begin(), clips.end(), before);
  const int64_t gapLimit =
      opt_.gapSeconds < 0 ? -1
                          : static_cast<int64_t>(std::llround(opt_.gapSeconds * rate.timebase));
  const std::string label = track == Track::Sound ? " (sound)" : "";
  // Sweep each reel in start order, keeping the clip that reaches furthest:
  // a clip starting before that end overlaps it; one starting well after it
  // leaves a gap.
  size_t furthest = 0;
  for (size_t i = 0; i < clips.size(); ++i) {
    const Placed& c = clips[i];
    if (opt_.keepTimelines) {
      if (i == 0 || clips[i - 1].reel != c.reel) {
        Timeline& t = rep_.timelines.emplace_back();
        t.reel = std::string(byName[c.reel]);
        t.track = track;
        t.timebase = rate.timebase;
        t.dropFrame = c.drop;
      }
      rep_.timelines.back().clips.push_back({c.row, c.start, c.end, clipName(c.row)});
    }
    if (i == 0 || clips[i - 1].reel != c.reel) {
      furthest = i;
      continue;
    }
    const Placed& f = clips[furthest];
    std::string reel(byName[c.reel]);
    if (c.start < f.end) {
      int64_t by = std::min(f.end, c.end) - c.start;
      Finding& x = add(Kind::Overlap, Severity::Error, track, {f.row, c.row});
      x.cells = {cellOf(f.row, startCol), cellOf(f.row, endCol), cellOf(c.row, startCol),
                 cellOf(c.row, endCol)};
      x.reel = reel;
      x.frame = c.start;
      x.length = by;
      x.message = reel + label + " " + clipName(c.row) + " overlaps " + clipName(f.row) + " by " +
                  durationText(by, rate.timebase);
    } else if (gapLimit >= 0 && c.start - f.end > gapLimit) {
      int64_t gap = c.start - f.end;
      Finding& x = add(Kind::Gap, Severity::Info, track, {f.row, c.row});
      x.cells = {cellOf(f.row, endCol), cellOf(c.row, startCol)};
      x.reel = reel;
      x.frame = f.end;
      x.length = gap;
      x.message = reel + label + " gap of " + durationText(gap, rate.timebase) + " between " +
                  clipName(f.row) + " and " + clipName(c.row);
    }
    if (c.end > f.end) furthest = i;
  }
}

void Auditor::checkKeycodes() {
  if (kcStartCol_ < 0 && kcEndCol_ < 0) return;
  const int64_t fpf = opt_.framesPerFoot;
  for (long r = 0; r < n_; ++r) {
    Keycode s = parseKeycode(cell(r, kcStartCol_).view());
    Keycode e = parseKeycode(cell(r, kcEndCol_).view());
    bool usable = true;
    for (auto [k, col] : {std::pair{&s, kcStartCol_}, std::pair{&e, kcEndCol_}}) {
      if (k->state == Keycode::Empty) continue;
      std::string why;
      if (k->state == Keycode::Bad)
        why = "cannot be read as a keycode (feet+frames, as in KU 12 3456 7890+00)";
      else if (k->frames >= fpf)
        why = "has frame " + std::to_string(k->frames) + ", but a foot holds " +
              std::to_string(fpf) + " frames";
      if (why.empty()) continue;
      usable = false;
      Finding& f = add(Kind::ImpossibleKeycode, Severity::Error, Track::None, {r});
      f.cells.push_back(cellOf(r, col));
      f.message = clipName(r) + ": " + src_.get_fieldname(static_cast<unsigned int>(col)) + " " +
                  shown(trim(cell(r, col).view())) + " " + why;
    }
    if ((s.state == Keycode::Empty) != (e.state == Keycode::Empty)) {
      int have = s.state != Keycode::Empty ? kcStartCol_ : kcEndCol_;
      int lack = s.state != Keycode::Empty ? kcEndCol_ : kcStartCol_;
      Finding& f = add(Kind::MissingPartner, Severity::Warning, Track::None, {r});
      f.cells = {cellOf(r, have), cellOf(r, lack)};
      f.message = clipName(r) + " has a " + src_.get_fieldname(static_cast<unsigned int>(have)) +
                  " but no " + src_.get_fieldname(static_cast<unsigned int>(lack));
      continue;
    }
    if (!usable || s.state != Keycode::Good) continue;
    if (!equalsIgnoringCase(s.prefix, e.prefix)) {
      Finding& f = add(Kind::KeycodeMismatch, Severity::Warning, Track::None, {r});
      f.cells = {cellOf(r, kcStartCol_), cellOf(r, kcEndCol_)};
      f.message = clipName(r) + ": the keycodes are on different rolls (" + std::string(s.prefix) +
                  " and " + std::string(e.prefix) + ")";
      continue;
    }
    int64_t a = s.feet * fpf + s.frames, b = e.feet * fpf + e.frames;
    if (b <= a) {
      Finding& f =
          add(Kind::ReversedRange, b < a ? Severity::Error : Severity::Warning, Track::None, {r});
      f.cells = {cellOf(r, kcStartCol_), cellOf(r, kcEndCol_)};
      f.message = clipName(r) + (b < a ? " ends before it starts: " : " ends where it starts: ") +
                  "end keycode " + std::string(trim(cell(r, kcEndCol_).view())) + ", start " +
                  std::string(trim(cell(r, kcStartCol_).view()));
      continue;
    }
    int64_t ps = pictureStart_[static_cast<size_t>(r)], pe = pictureEnd_[static_cast<size_t>(r)];
    if (ps < 0) continue;
    double expected = static_cast<double>(b - a) * pulldownVideo_ / pulldownFilm_;
    double diff = static_cast<double>(pe - ps) - expected;
    if (std::fabs(diff) <= opt_.keycodeToleranceFrames + 1e-9) continue;
    Finding& f = add(Kind::KeycodeMismatch, Severity::Warning, Track::None, {r});
    f.cells = {cellOf(r, kcStartCol_), cellOf(r, kcEndCol_), cellOf(r, startCol_),
               cellOf(r, endCol_)};
    char amount[64];
    std::snprintf(amount, sizeof amount, "%.4g", expected);
    f.message = clipName(r) + ": the keycodes span " + std::to_string(b - a) + " film frames (" +
                amount + " video frames), the timecodes " +
                durationText(pe - ps, rep_.picture.timebase) + " (" + std::to_string(pe - ps) +
                " frames)";
  }
}

void Auditor::checkDuplicates(std::vector<Value>& values, int column, Kind kind, Severity severity,
                              const char* what) {
  // Sorted by the hash first, so that texts are compared only where hashes
  // are equal.
  std::sort(values.begin(), values.end(), [](const Value& a, const Value& b) {
    return a.hash != b.hash ? a.hash < b.hash : a.row < b.row;
  });
  // Within a run of equal hashes, texts that differ (a collision) are moved
  // behind the group of the first text, and become a run of their own.
  for (size_t i = 0; i < values.size();) {
    size_t run = i + 1;
    while (run < values.size() && values[run].hash == values[i].hash) ++run;
    size_t j = run == i + 1
                   ? run
                   : std::stable_partition(values.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                                           values.begin() + static_cast<std::ptrdiff_t>(run),
                                           [&](const Value& v) {
                                             return equalsIgnoringCase(v.text, values[i].text);
                                           }) -
                         values.begin();
    if (j - i > 1) {
      std::vector<long> rows;
      for (size_t k = i; k < j; ++k) rows.push_back(values[k].row);
      Finding& f = add(kind, severity, Track::None, rows);
      for (long r : rows) f.cells.push_back(cellOf(r, column));
      f.message = std::string("the ") + what + " " + shown(values[i].text) + " is used by " +
                  std::to_string(j - i) + " rows";
      if (kind == Kind::DuplicateId && nameCol_ >= 0) {
        f.message += " (";
        for (size_t k = 0; k < rows.size(); ++k)
          f.message += (k == 0 ? "" : k + 1 == rows.size() ? " and " : ", ") + clipName(rows[k]);
        f.message += ")";
      }
    }
    i = j;
  }
}

void Auditor::checkSaves(long r, const dbrecord& rec) {
  const unsigned int columns = std::min(src_.get_num_fields(), rec.get_num_fields());
  if (columns > 0 && detail::isHeaderWord(rec.getField(0).view())) {
    Finding& f = add(Kind::UnsavableValue, Severity::Error, Track::None, {r});
    f.cells.push_back(cellOf(r, 0));
    f.message = clipName(r) + ": the " + src_.get_fieldname(0) +
                " value \"ZYLDB\" reads back as a header line: after a save the loader "
                "would drop this row and the two after it";
  }
  for (unsigned int c = 0; c < columns; ++c) {
    const LightweightString<char>& v = rec.getField(static_cast<unsigned short>(c));
    if (detail::survivesSave(v)) continue;
    Finding& f = add(Kind::UnsavableValue, Severity::Error, Track::None, {r});
    f.cells.push_back(cellOf(r, static_cast<int>(c)));
    dbrecord out(1), back(1);
    out.setField(0, v);
    TextFile file;
    out.write(file);
    file.currentLine = 0;
    int count = back.read(file);
    std::string after = count == 1 ? "\"" + shown(back.getField(0).view()) + "\""
                                   : std::to_string(count) + " values";
    f.message = clipName(r) + ": the " + src_.get_fieldname(c) + " value \"" + shown(v.view()) +
                "\" would come back from a save as " + after;
  }
}

}  // namespace

Report audit(ODBBase& source, const Options& options) {
  Report report;
  Auditor(source, options, report).run();
  return report;
}

}  // namespace zyl::audit
