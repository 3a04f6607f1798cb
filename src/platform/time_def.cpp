// time_def: timecode text in its punctuated ("01:00:00:12", "01:00:00;12")
// and database ("01000012", "01000012D") forms.
//
// Drop-frame is read from the separator before the frames: ';' or ',' mean
// drop-frame, ':' or '.' non-drop (the usual display conventions). The
// other separators may be any of the four. Each punctuated field has one or
// two digits. Label types other than timecodes keep their text.

#include <zyldb/platform/time_def.h>

#include <cstdio>
#include <string_view>

namespace {

inline bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool isSeparator(char c) { return c == ':' || c == ';' || c == '.' || c == ','; }

bool isTimecodeLabel(label_t type) {
  return type == eLabelNone || type == eLabelSoundTimecode || type == eLabelTimecode;
}

struct Parsed {
  int f[4];
  bool drop;
};

bool parseDatabase(std::string_view s, Parsed* out) {
  out->drop = false;
  if (s.size() == 9 && (s[8] == 'D' || s[8] == 'd')) {
    out->drop = true;
    s.remove_suffix(1);
  }
  if (s.size() != 8) return false;
  for (int i = 0; i < 4; ++i) {
    if (!isDigit(s[2 * i]) || !isDigit(s[2 * i + 1])) return false;
    out->f[i] = (s[2 * i] - '0') * 10 + (s[2 * i + 1] - '0');
  }
  return true;
}

bool parsePunctuated(std::string_view s, Parsed* out) {
  size_t pos = 0;
  for (int i = 0; i < 4; ++i) {
    if (i > 0) {
      if (pos >= s.size() || !isSeparator(s[pos])) return false;
      if (i == 3) out->drop = s[pos] == ';' || s[pos] == ',';
      ++pos;
    }
    int digits = 0, value = 0;
    while (pos < s.size() && isDigit(s[pos]) && digits < 2) {
      value = value * 10 + (s[pos] - '0');
      ++pos;
      ++digits;
    }
    if (digits == 0) return false;
    out->f[i] = value;
  }
  return pos == s.size();
}

}  // namespace

time_def::time_def(const char* text, label_t type) : type_(type) {
  std::string_view s = text ? std::string_view(text) : std::string_view();
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  text_ = LightweightString<char>(s);
  if (!isTimecodeLabel(type)) return;
  Parsed p{};
  if (!parseDatabase(s, &p) && !parsePunctuated(s, &p)) return;
  if (p.f[0] >= 24 || p.f[1] >= 60 || p.f[2] >= 60 || p.f[3] >= 60) return;
  valid_ = true;
  drop_ = p.drop;
  h_ = p.f[0];
  m_ = p.f[1];
  s_ = p.f[2];
  f_ = p.f[3];
}

LightweightString<char> time_def::get_punctuated_str() const {
  if (!valid_ || !isTimecodeLabel(type_)) return text_;
  char buf[16];
  int n = std::snprintf(buf, sizeof buf, "%02d:%02d:%02d%c%02d", h_, m_, s_, drop_ ? ';' : ':', f_);
  return LightweightString<char>(buf, static_cast<size_t>(n));
}

LightweightString<char> time_def::get_database_str() const {
  if (!valid_ || !isTimecodeLabel(type_)) return text_;
  char buf[16];
  int n = std::snprintf(buf, sizeof buf, "%02d%02d%02d%02d%s", h_, m_, s_, f_, drop_ ? "D" : "");
  return LightweightString<char>(buf, static_cast<size_t>(n));
}
