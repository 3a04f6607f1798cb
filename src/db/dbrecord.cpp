#include <zyldb/db/dbrecord.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include <strings.h>

#include <zyldb/db/zyldb.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/platform/configb.h>

#include "db/LibrarySettings_internal.h"

namespace {

using Value = LightweightString<char>;

constexpr unsigned int kMaxFields = 0xFFFF;
// The reader's buffer; a value holds at most kReadBufferSize - 1 bytes.
constexpr size_t kReadBufferSize = 4096;

// isspace for the ASCII range only: bytes with the high bit set (UTF-8
// sequences, Latin-1 letters) are never white space, whatever the locale.
inline bool isBlank(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  return u < 0x80 && std::isspace(u);
}

inline bool isControl(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  return u < 0x80 && std::iscntrl(u);
}

const Value& emptyValue() {
  static const Value kEmpty;
  return kEmpty;
}

struct ConfigMapping {
  const char* column;
  const char* key;
};

// The first kAlwaysMapped entries (the plain reel among them) are published
// whatever the settings; the other reel columns only when reel fields are
// editable.
constexpr ConfigMapping kConfigMappings[] = {
    {"notes", "notes"},         {"who", "who"},           {"scene", "scene"},
    {"description", "description"}, {"shot", "shot"},     {"reel", "reelid"},
    {"snd reel", "reelid1"},    {"24P reel", "24P_reel"}, {"cam reel", "camreel"},
    {"comp reel", "comp_reel"}, {"lab reel", "lab_reel"},
};
constexpr size_t kAlwaysMapped = 6;

}  // namespace

dbrecord::dbrecord(unsigned short n) { setCount(n); }

dbrecord::dbrecord(const dbrecord& other) {
  reserve(other.count_);
  for (unsigned int i = 0; i < other.count_; ++i) new (&fields_[i]) Value(other.fields_[i]);
  count_ = other.count_;
}

dbrecord& dbrecord::operator=(const dbrecord& other) {
  // Safe for self-assignment: set_field copies the text before the old value
  // is released.
  setCount(other.count_);
  for (unsigned int i = 0; i < count_; ++i)
    set_field(static_cast<int>(i), other.fields_[i].c_str(), true);
  return *this;
}

dbrecord::~dbrecord() {
  for (unsigned int i = 0; i < count_; ++i) fields_[i].~Value();
  OS()->allocator().deallocate(fields_);
}

void dbrecord::reserve(unsigned int n) {
  if (n <= capacity_) return;
  // Grow geometrically for records built by appending (read, resize by one);
  // records built at their final width get exactly what they need.
  unsigned int want = capacity_ == 0 ? n : capacity_ * 2u;
  if (want < n) want = n;
  if (want > kMaxFields) want = kMaxFields;
  // A LightweightString is one pointer word with no self-reference, so the
  // array may be moved bytewise by reallocate.
  void* p = OS()->allocator().reallocate(fields_, want * sizeof(Value));
  fields_ = static_cast<Value*>(p);
  capacity_ = static_cast<uint16_t>(want);
}

void dbrecord::setCount(unsigned int n) {
  if (n > kMaxFields) n = kMaxFields;
  while (count_ > n) fields_[--count_].~Value();
  if (n > count_) {
    reserve(n);
    for (unsigned int i = count_; i < n; ++i) new (&fields_[i]) Value();
    count_ = static_cast<uint16_t>(n);
  }
}

void dbrecord::append(Value&& v) {
  if (count_ == kMaxFields) return;
  if (count_ == capacity_) reserve(count_ + 1u);
  new (&fields_[count_]) Value(std::move(v));
  ++count_;
}

void dbrecord::markEdited() {
  changed_ = 1;
  if (container_) container_->markChanged(false);
}

const char* dbrecord::get_field(unsigned short i) const {
  return i < count_ ? fields_[i].c_str() : nullptr;
}

const LightweightString<char>& dbrecord::getField(unsigned short i) const {
  return i < count_ ? fields_[i] : emptyValue();
}

int dbrecord::in_field(int i, char* dst, int len) const {
  if (i < 0 || i >= count_ || len < 0) return 0;
  const Value& v = fields_[i];
  size_t n = v.size() < static_cast<size_t>(len) ? v.size() : static_cast<size_t>(len);
  std::memcpy(dst, v.c_str(), n);
  dst[n] = 0;
  dst[len] = 0;
  return 1;
}

int dbrecord::is_blank() const {
  for (unsigned int i = 0; i < count_; ++i)
    if (!fields_[i].empty()) return 0;
  return 1;
}

int dbrecord::setField(unsigned short i, const LightweightString<char>& v) {
  if (i >= count_) return 0;
  if (std::strcmp(fields_[i].c_str(), v.c_str()) == 0) return 1;
  fields_[i] = v;
  markEdited();
  return 1;
}

int dbrecord::set_field(int i, const char* s, bool trimLeading) {
  if (i < 0 || i >= count_) return 0;
  if (!s) s = "";
  if (trimLeading)
    while (isBlank(*s)) ++s;
  fields_[i] = Value(s);
  markEdited();
  return 1;
}

int dbrecord::set_field(int i, int v) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "%d", v);
  return set_field(i, buf, true);
}

int dbrecord::set_field(int i, unsigned int v) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "%u", v);
  return set_field(i, buf, true);
}

int dbrecord::set_field(int i, double v) {
  // Large magnitudes print every integer digit: 1e308 needs over 300 bytes.
  char buf[512];
  std::snprintf(buf, sizeof buf, "%.8lf", v);
  return set_field(i, buf, true);
}

int dbrecord::set_field(int i, bool v) { return set_field(i, v ? "t" : "f", true); }

void dbrecord::removeField(unsigned short i) {
  if (i >= count_) return;
  for (unsigned int j = i; j + 1 < count_; ++j) fields_[j] = std::move(fields_[j + 1]);
  fields_[--count_].~Value();
}

void dbrecord::resizeRecord(int n, int* widths, bool) {
  if (n < 0 || widths == nullptr) return;
  setCount(static_cast<unsigned int>(n));
}

void dbrecord::resizeField(int, int) {}

void dbrecord::clear() {
  for (unsigned int i = 0; i < count_; ++i) fields_[i] = Value();
}

int dbrecord::update(configb* cfg) {
  if (!container_) return 0;
  int nameCol = container_->get_fieldnum(Value("name"));
  if (nameCol < 0) return 0;
  const Value& name = getField(static_cast<unsigned short>(nameCol));
  cfg->set("slate/take", strp_field(name));
  cfg->set("name", strp_field(name));

  size_t mappings = zyl::librarySettings().dbvReelFieldEditable
                        ? sizeof kConfigMappings / sizeof kConfigMappings[0]
                        : kAlwaysMapped;
  int written = 0;
  for (unsigned int i = 0; i < count_; ++i) {
    const char* column = container_->get_fieldname(i);
    if (!column) continue;
    for (size_t m = 0; m < mappings; ++m) {
      if (strcasecmp(column, kConfigMappings[m].column) == 0) {
        cfg->set(kConfigMappings[m].key, strp_field(fields_[i]));
        ++written;
        break;
      }
    }
  }
  return written;
}

int dbrecord::write(TextFile& f) const {
  // One buffer per thread, reused for every line so that saving a large
  // table allocates only when a line is longer than any before it.
  thread_local std::string line;
  line.clear();
  for (unsigned int i = 0; i < count_; ++i) {
    if (i) line += ',';
    line += '"';
    const char* p = fields_[i].c_str();
    const char* end = p + fields_[i].size();
    while (p < end) {
      // Copy the run of bytes that need no escaping in one go.
      const char* run = p;
      while (p < end && *p != '"' && *p != '\n' && *p != '\r' && *p != 0) ++p;
      line.append(run, static_cast<size_t>(p - run));
      if (p == end) break;
      switch (*p) {
        case '"': line += "\"\""; break;
        case '\n': line += "\\n"; break;
        default: break;  // CR and NUL are dropped
      }
      ++p;
    }
    line += '"';
  }
  f.appendLine(std::string_view(line));
  changed_ = 0;
  return 1;
}

int dbrecord::read(TextFile& f) {
  setCount(0);
  const char* p = f.line(f.currentLine++);
  if (isEssentiallyEmpty(p)) return 0;

  char buf[kReadBufferSize];
  int starts = 0;
  while (*p) {
    if (starts < INT_MAX) ++starts;
    // A control character where a field starts counts as a field start but
    // gives no value (a tab before a field makes one extra start).
    if (isControl(*p)) {
      ++p;
      continue;
    }
    bool inQuotes = false;
    if (*p == '"') {
      inQuotes = true;
      ++p;
    }
    while (isBlank(*p)) ++p;

    size_t n = 0;
    while (*p) {
      char c = *p;
      if (c == '"') {
        if (p[1] == '"') {
          buf[n++] = '"';
          p += 2;
        } else {
          inQuotes = false;
          ++p;
          continue;
        }
      } else if (c == '\\') {
        if (p[1] == 'n') {
          buf[n++] = '\n';
          p += 2;
        } else {
          buf[n++] = '\\';
          ++p;
        }
      } else if (c == ',' && !inQuotes) {
        ++p;
        break;
      } else {
        buf[n++] = c;
        ++p;
      }
      // A full buffer ends the value; the byte after it is taken as the
      // separator and the rest of the line goes on as further fields. When
      // that byte is the closing quote of a full quoted value, the comma
      // after it is the real separator and goes too, so that every value the
      // writer can produce (up to 4095 bytes) reads back as one field.
      if (n == kReadBufferSize - 1 && *p) {
        if (inQuotes && p[0] == '"' && p[1] == ',') ++p;
        ++p;
        break;
      }
    }
    while (n > 0 && isBlank(buf[n - 1])) --n;
    append(Value::packed(buf, n));
  }

  changed_ = 1;
  if (container_) container_->markChanged(true);
  return starts;
}
