#include <strings.h>
#include <zyldb/db/dbrecord.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <zyldb/db/zyldb.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/platform/configb.h>

#include "db/LibrarySettings_internal.h"
#include "db/LogFormat.h"

namespace {

using Value = LightweightString<char>;

constexpr unsigned int kMaxFields = 0xFFFF;
// The reader's buffer; a value holds at most kReadBufferSize - 1 bytes.
constexpr size_t kReadBufferSize = zyl::logformat::kMaxValueBytes + 1;

// Byte classes of the line form. kBlank is isspace and kControl iscntrl of
// the "C" locale, for the ASCII range only: bytes with the high bit set
// (UTF-8 sequences, Latin-1 letters) are neither, whatever the locale, and
// below 0x80 every locale agrees with these. kStop marks the bytes that end a
// run of plain value bytes on reading (the comma only outside quotes) and
// kEscaped those that the writer does not copy as they are.
enum ByteClass : uint8_t {
  kBlank = 1,
  kControl = 2,
  kStop = 4,
  kComma = 8,
  kEscaped = 16,
};

struct ByteClasses {
  uint8_t of[256];
  constexpr ByteClasses() : of() {
    for (int c = 0; c < 256; ++c) {
      uint8_t k = 0;
      if (c == ' ' || (c >= '\t' && c <= '\r')) k |= kBlank;
      if (c < 0x20 || c == 0x7f) k |= kControl;
      if (c == 0 || c == '"' || c == '\\') k |= kStop;
      if (c == ',') k |= kComma;
      if (c == 0 || c == '"' || c == '\n' || c == '\r' || c == '\\') k |= kEscaped;
      of[c] = k;
    }
  }
};
constexpr ByteClasses kClasses;

inline bool is(char c, uint8_t classes) {
  return (kClasses.of[static_cast<unsigned char>(c)] & classes) != 0;
}

inline bool isBlank(char c) { return is(c, kBlank); }

// The first byte at or after p in class `stops`, or `end` when there is
// none before it. Reads nothing past `end`, so that a scan costs no more
// than the bytes it may take (a value's remaining room).
inline const char* skipPlain(const char* p, const char* end, uint8_t stops) {
  if (p == end || is(*p, stops)) return p;  // an empty run, as after a closing quote
#if defined(__SSE2__)
  // Sixteen bytes at a time while they lie before `end`.
  const __m128i quote = _mm_set1_epi8('"');
  const __m128i backslash = _mm_set1_epi8('\\');
  const __m128i comma = _mm_set1_epi8((stops & kComma) ? ',' : '"');
  const __m128i zero = _mm_setzero_si128();
  while (end - p >= 16) {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i hit =
        _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(x, quote), _mm_cmpeq_epi8(x, backslash)),
                     _mm_or_si128(_mm_cmpeq_epi8(x, comma), _mm_cmpeq_epi8(x, zero)));
    const int mask = _mm_movemask_epi8(hit);
    if (mask != 0) return p + __builtin_ctz(static_cast<unsigned int>(mask));
    p += 16;
  }
#endif
  while (p < end && !is(*p, stops)) ++p;
  return p;
}

// Copies the n bytes at p to out, unless one of them is in kEscaped; returns
// whether it copied (it may have written some of them when it did not).
// Eight bytes at a time, the last word overlapping the one before, so that
// nothing outside the value is read and nothing past out + n written.
inline bool copyUnescaped(char* out, const char* p, size_t n) {
  if (n < 8) {
    for (size_t i = 0; i < n; ++i) {
      if (is(p[i], kEscaped)) return false;
      out[i] = p[i];
    }
    return true;
  }
  constexpr uint64_t kOnes = 0x0101010101010101u;
  constexpr uint64_t kHighs = 0x8080808080808080u;
  // Non-zero exactly when some byte of x is zero.
  auto zeroByte = [](uint64_t x) { return (x - kOnes) & ~x & kHighs; };
  auto escaped = [&](uint64_t x) {
    return zeroByte(x) | zeroByte(x ^ (kOnes * '"')) | zeroByte(x ^ (kOnes * '\n')) |
           zeroByte(x ^ (kOnes * '\r')) | zeroByte(x ^ (kOnes * '\\'));
  };
  uint64_t word;
  for (size_t i = 0; i + 8 <= n; i += 8) {
    std::memcpy(&word, p + i, 8);
    if (escaped(word)) return false;
    std::memcpy(out + i, &word, 8);
  }
  std::memcpy(&word, p + n - 8, 8);
  if (escaped(word)) return false;
  std::memcpy(out + n - 8, &word, 8);
  return true;
}

// A value being read. While it is one unbroken stretch of the line it stays
// there (`text_` points into the line) and is packed straight from it; the
// first piece that does not continue the stretch (after an escape, or the
// decoded line feed) copies it into the scratch buffer.
class ValueReader {
 public:
  explicit ValueReader(char* scratch) : scratch_(scratch) {}

  size_t size() const { return n_; }

  // Adds `k` bytes that are in the line at `s`.
  void addFromLine(const char* s, size_t k) {
    if (k == 0) return;
    if (n_ == 0 && text_ != scratch_) {
      text_ = s;
    } else if (text_ != scratch_ && text_ + n_ != s) {
      toScratch();
    }
    if (text_ == scratch_) std::memcpy(scratch_ + n_, s, k);
    n_ += k;
  }

  // Adds a byte that is not in the line. A byte written as a hex escape
  // (`kept`) is never trimmed as trailing white space.
  void addDecoded(char c, bool kept = false) {
    toScratch();
    scratch_[n_++] = c;
    if (kept) kept_ = n_;
  }

  // The value without its trailing white space.
  Value take() {
    while (n_ > kept_ && isBlank(text_[n_ - 1])) --n_;
    return Value::packed(text_, n_);
  }

 private:
  void toScratch() {
    if (text_ == scratch_) return;
    if (n_ > 0) std::memmove(scratch_, text_, n_);
    text_ = scratch_;
  }

  char* const scratch_;
  const char* text_ = nullptr;
  size_t n_ = 0;
  size_t kept_ = 0;
};

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
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
    {"notes", "notes"},       {"who", "who"},
    {"scene", "scene"},       {"description", "description"},
    {"shot", "shot"},         {"reel", "reelid"},
    {"snd reel", "reelid1"},  {"24P reel", "24P_reel"},
    {"cam reel", "camreel"},  {"comp reel", "comp_reel"},
    {"lab reel", "lab_reel"},
};
constexpr size_t kAlwaysMapped = 6;

}  // namespace

namespace zyl::logformat {

char* writeQuoted(char* out, std::string_view v, bool firstField) {
  const char* p = v.data();
  const size_t n = v.size();
  *out++ = '"';
  // Blanks at either end, which the reader trims, and the first letter of
  // a first value that reads as the terminator are written as hex escapes.
  const bool ends = n > 0 && (isBlank(p[0]) || isBlank(p[n - 1]));
  const bool magic = firstField && n == kMagicNameLength && strncasecmp(p, kMagicName, n) == 0;
  if (!ends && !magic && copyUnescaped(out, p, n)) {
    out += n;
  } else {
    size_t lead = 0, trail = n;
    while (lead < n && isBlank(p[lead])) ++lead;
    while (trail > lead && isBlank(p[trail - 1])) --trail;
    auto hex = [&out](unsigned char c) {
      static constexpr char kDigits[] = "0123456789ABCDEF";
      *out++ = '"';
      *out++ = 'x';
      *out++ = kDigits[c >> 4];
      *out++ = kDigits[c & 15];
    };
    for (size_t i = 0; i < n; ++i) {
      const char c = p[i];
      if (i < lead || i >= trail || (magic && i == 0)) {
        hex(static_cast<unsigned char>(c));
        continue;
      }
      switch (c) {
        case '"':
          *out++ = '"';
          *out++ = '"';
          break;
        case '\n':
          *out++ = '\\';
          *out++ = 'n';
          break;
        case '\r':
        case '\0':
          hex(static_cast<unsigned char>(c));
          break;
        case '\\':
          // Before an 'n' it would read as a line feed.
          if (i + 1 < n && p[i + 1] == 'n')
            hex('\\');
          else
            *out++ = c;
          break;
        default:
          *out++ = c;
          break;
      }
    }
  }
  *out++ = '"';
  return out;
}

size_t maxQuotedSize(size_t n) { return 4 * n + 2; }

}  // namespace zyl::logformat

dbrecord::dbrecord(unsigned short n) { setCount(n); }

dbrecord::dbrecord(const dbrecord& other) {
  reserve(other.count_);
  for (unsigned int i = 0; i < other.count_; ++i) new (&fields_[i]) Value(other.fields_[i]);
  count_ = other.count_;
}

// Self-assignment is a real assignment (leading white space is dropped and the
// changed flags are raised), and safe: set_field copies the text before the
// old value is released.
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
dbrecord& dbrecord::operator=(const dbrecord& other) {
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

inline void dbrecord::append(Value&& v) {
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
  // The line is written in place into room for its longest form (every
  // byte escaped to four), and the room left over is given back.
  size_t most = count_ > 0 ? size_t{count_} * 3 : 0;
  for (unsigned int i = 0; i < count_; ++i) most += 4 * fields_[i].size();
  TextFile::LineBuilder line(f);
  char* const start = line.extend(most);
  char* out = start;
  for (unsigned int i = 0; i < count_; ++i) {
    if (i) *out++ = ',';
    out = zyl::logformat::writeQuoted(out, fields_[i].view(), i == 0);
  }
  line.shrink(most - static_cast<size_t>(out - start));
  line.finish();
  changed_ = 0;
  return 1;
}

bool dbrecord::fitsLineForm() const {
  for (unsigned int i = 0; i < count_; ++i)
    if (fields_[i].size() > zyl::logformat::kMaxValueBytes) return false;
  return count_ > 0;
}

int dbrecord::read(TextFile& f) {
  setCount(0);
  const char* p = f.line(f.currentLine);
  const char* const end = p + f.lineLength(f.currentLine);
  ++f.currentLine;
  if (isEssentiallyEmpty(p)) return 0;

  // The longest value is kReadBufferSize - 1 bytes.
  constexpr size_t kMaxValue = kReadBufferSize - 1;
  char scratch[kReadBufferSize];
  int starts = 0;
  while (*p) {
    if (starts < INT_MAX) ++starts;
    // A control character where a field starts counts as a field start but
    // gives no value (a tab before a field makes one extra start).
    if (is(*p, kControl)) {
      ++p;
      continue;
    }
    bool inQuotes = false;
    if (*p == '"') {
      inQuotes = true;
      ++p;
    }
    while (isBlank(*p)) ++p;

    ValueReader value(scratch);
    for (;;) {
      // A run of plain bytes, cut where the value is full. The scan may look
      // past that point but never past the line's NUL, which stops it.
      const uint8_t stops = inQuotes ? kStop : kStop | kComma;
      const char* run = p;
      const size_t room = kMaxValue - value.size();
      p = skipPlain(p, static_cast<size_t>(end - p) > room ? p + room : end, stops);
      size_t k = static_cast<size_t>(p - run);
      if (k > kMaxValue - value.size()) {
        k = kMaxValue - value.size();
        p = run + k;
      }
      value.addFromLine(run, k);
      if (value.size() < kMaxValue) {
        const char c = *p;
        if (c == 0) break;
        if (c == '"') {
          if (inQuotes && p[1] == 'x' && hexDigit(p[2]) >= 0 && hexDigit(p[3]) >= 0) {
            // A byte the plain form cannot hold (see escapeValue).
            value.addDecoded(static_cast<char>(hexDigit(p[2]) * 16 + hexDigit(p[3])), true);
            p += 4;
          } else if (p[1] != '"') {
            inQuotes = false;
            ++p;
            continue;
          } else {
            value.addFromLine(p, 1);
            p += 2;
          }
        } else if (c == '\\') {
          if (p[1] == 'n') {
            value.addDecoded('\n');
            p += 2;
          } else {
            value.addFromLine(p, 1);
            ++p;
          }
        } else {  // a comma outside quotes
          ++p;
          break;
        }
        if (value.size() < kMaxValue) continue;
      }
      // A full value ends here; the byte after it is taken as the separator
      // and the rest of the line goes on as further fields. When that byte
      // is the closing quote of a full quoted value, the comma after it is
      // the real separator and goes too, so that every value the writer can
      // produce (up to kMaxValue bytes) reads back as one field.
      if (*p) {
        if (inQuotes && p[0] == '"' && p[1] == ',') ++p;
        ++p;
      }
      break;
    }
    if (count_ < kMaxFields) append(value.take());
  }

  changed_ = 1;
  if (container_) container_->markChanged(true);
  return starts;
}
