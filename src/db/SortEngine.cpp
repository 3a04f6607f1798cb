// The sort engine: comparison state, the comparators and the key-based sort
// (see SortEngine.h).

#include "db/SortEngine.h"

#include <strings.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/TextUtil.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>

int comco = 0;
int* cmp_fields = nullptr;

namespace {

int cmp_plain = 0;
int cmp_offset = 0;
int cmp_tc_field = -1;

constexpr unsigned int kMaxFieldIndex = 0xFFFF;

const char* cellText(const dbrecord* rec, int field) {
  if (rec == nullptr || field < 0 || static_cast<unsigned int>(field) > kMaxFieldIndex) return "";
  return rec->getField(static_cast<unsigned short>(field)).c_str();
}

// Skips white space the way the record reader does: a byte with the high bit
// set is never taken as white space.
const char* skipBlanks(const char* s) {
  while (*s != 0 && (static_cast<unsigned char>(*s) & 0x80) == 0 &&
         std::isspace(static_cast<unsigned char>(*s)))
    ++s;
  return s;
}

// The text from character `at` on, or "" when the text is shorter.
const char* from(const char* s, size_t at) {
  const size_t n = std::strlen(s);
  return at < n ? s + at : s + n;
}

// -r without overflow.
int negated(int r) { return r == INT_MIN ? INT_MAX : -r; }

// One field of the ascending comparison, on texts whose leading blanks are
// skipped. Sets `stop` when both cells are empty: that ends the comparison
// with "equal", and later sort fields are not consulted.
int compareCells(int field, const char* ta, const char* tb, bool& stop) {
  if (*ta == 0 || *tb == 0) {
    stop = true;
    if (*ta == 0 && *tb == 0) return 0;
    return *ta == 0 ? 1 : -1;
  }
  if (field == cmp_tc_field) {
    // The ninth character separates the frames; ':' and ';' (non-drop and
    // drop frame) must compare equal, so it is skipped.
    const int result = strncasecmp(ta, tb, 8);
    return result != 0 ? result : strcasecmp(from(ta, 9), from(tb, 9));
  }
  if (cmp_offset > 0)
    return strcasecmp(from(ta, static_cast<size_t>(cmp_offset)),
                      from(tb, static_cast<size_t>(cmp_offset)));
  if (cmp_plain != 0) return strcasecmp(ta, tb);
  if (cmp_offset < 0) {
    const size_t tail = static_cast<size_t>(-static_cast<long>(cmp_offset));
    const size_t la = std::strlen(ta);
    const size_t lb = std::strlen(tb);
    return strcasecmp(ta + (la > tail ? la - tail : 0), tb + (lb > tail ? lb - tail : 0));
  }
  return strxcmp(ta, tb);
}

// The ascending comparison from sort field `f` on (the blank-record rule
// already applied).
int compareAscendingFrom(const int* f, const dbrecord* a, const dbrecord* b) {
  for (; *f >= 0; ++f) {
    bool stop = false;
    const int result =
        compareCells(*f, skipBlanks(cellText(a, *f)), skipBlanks(cellText(b, *f)), stop);
    if (stop || result != 0) return result;
  }
  return 0;
}

int compareAscending(const dbrecord* a, const dbrecord* b) {
  ++comco;
  const bool blankA = a == nullptr || a->is_blank() != 0;
  const bool blankB = b == nullptr || b->is_blank() != 0;
  if (blankA || blankB) return blankA == blankB ? 0 : (blankA ? 1 : -1);
  return cmp_fields == nullptr ? 0 : compareAscendingFrom(cmp_fields, a, b);
}

int compareDescendingFrom(const int* f, const dbrecord* a, const dbrecord* b) {
  for (; *f >= 0; ++f) {
    const int result = strcasecmp(cellText(a, *f), cellText(b, *f));
    if (result != 0) return negated(result);
  }
  return 0;
}

int compareDescending(const dbrecord* a, const dbrecord* b) {
  ++comco;
  return cmp_fields == nullptr ? 0 : compareDescendingFrom(cmp_fields, a, b);
}

// ---- Keys ------------------------------------------------------------------------
//
// What a sort moves: the record and, worked out once per row, the text of its
// first sort field (blanks skipped for the ascending order; null for a blank
// record in the ascending order) and the first sixteen bytes of an encoding of
// that text whose plain byte order is the comparison's order:
//  * caseless (strcasecmp): the ASCII-lower-cased bytes;
//  * timecode: the same for the first eight characters; then, for a text of
//    eight characters or more, the characters from the tenth on (the
//    separator before the frames takes no part, so drop and non-drop frame
//    values of one time get one key);
//  * strxcmp: lower-cased, except that a run of digits becomes '0', the
//    number of its digits after leading zeros, and those digits. No other
//    byte of the encoding is a '0', so runs line up and compare by value, and
//    a run compares with other characters as a digit does.
// Zeros pad the encoding after the text's end, standing for its terminator.
// Bytes from `clean` on are not to be trusted (a byte >= 0x80 in the caseless
// orders, whose case folding belongs to the C library; a digit run too long to
// count in one byte). Where two keys differ at a trusted byte, that byte
// decides, so most comparisons never read the texts.
//
// A key is `complete` when the whole text, terminator included, is encoded in
// trusted bytes. Two complete keys that are equal settle the field: the
// caseless orders find the texts equal; for strxcmp the texts then differ in
// letter case only (complete excludes leading zeros), and strxcmp's tie-break,
// the first case-only difference with the capital first, is read from
// `upper`, which marks the encoding's positions that hold a capital.
struct SortEntry {
  uint64_t k0, k1;
  const char* key;
  dbrecord* rec;
  uint32_t index;  // the entry's place before the sort
  uint16_t upper;
  uint8_t clean;
  uint8_t flags;
};

constexpr uint8_t kNullKey = 1;   // a blank (or null) record, ascending order
constexpr uint8_t kEmptyKey = 2;  // an empty first cell, saves reading the text
constexpr uint8_t kComplete = 4;

enum class KeyOrder { kCaseless, kTimecode, kStrx };

constexpr unsigned int kKeyBytes = 16;

inline bool isDigitByte(unsigned char c) { return c >= '0' && c <= '9'; }
inline unsigned char lowerAscii(unsigned char c) {
  return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
}

// Fills e's key from `text` (not null).
void encodeKey(SortEntry& e, const char* text, KeyOrder order) {
  unsigned char out[kKeyBytes] = {};
  unsigned int n = 0;
  unsigned int clean = kKeyBytes;
  bool ended = false;        // the terminator was reached inside the key
  bool leadingZero = false;  // strxcmp: a digit run starts with '0'
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* const start = p;
  while (n < kKeyBytes) {
    const unsigned char c = *p;
    if (c == 0) {
      ended = true;
      break;
    }
    if (order == KeyOrder::kTimecode && p - start == 8) {
      // Skip the separator; a text of exactly eight characters ends here.
      ++p;
      if (*p == 0) {
        ended = true;
        break;
      }
      continue;
    }
    if (order == KeyOrder::kStrx && isDigitByte(c)) {
      if (c == '0') leadingZero = true;
      while (*p == '0') ++p;
      const unsigned char* digits = p;
      while (isDigitByte(*p)) ++p;
      const size_t len = static_cast<size_t>(p - digits);
      out[n++] = '0';
      if (n == kKeyBytes) break;
      if (len > 254) {
        clean = n;
        break;
      }
      out[n++] = static_cast<unsigned char>(len);
      for (size_t i = 0; i < len; ++i) {
        if (n == kKeyBytes) break;
        out[n++] = digits[i];
      }
      continue;
    }
    if (order != KeyOrder::kStrx && c >= 0x80) {
      clean = n;
      break;
    }
    if (c >= 'A' && c <= 'Z') e.upper = static_cast<uint16_t>(e.upper | (1u << n));
    out[n++] = lowerAscii(c);
    ++p;
  }
  // The encoding stops at kKeyBytes; a text whose encoding ends exactly there
  // has its terminator just past the key, which is not complete.
  if (n < kKeyBytes && *p == 0) ended = true;
  for (unsigned int i = 0; i < 8; ++i) e.k0 = (e.k0 << 8) | out[i];
  for (unsigned int i = 8; i < kKeyBytes; ++i) e.k1 = (e.k1 << 8) | out[i];
  e.clean = static_cast<uint8_t>(clean);
  if (ended && clean == kKeyBytes && !(order == KeyOrder::kStrx && leadingZero))
    e.flags |= kComplete;
}

enum KeyResult { kLess = -1, kUnknown = 0, kGreater = 1, kEqual = 2 };

KeyResult compareKeys(const SortEntry& x, const SortEntry& y) {
  unsigned int at;
  bool less;
  if (x.k0 != y.k0) {
    at = static_cast<unsigned int>(__builtin_clzll(x.k0 ^ y.k0)) / 8;
    less = x.k0 < y.k0;
  } else if (x.k1 != y.k1) {
    at = 8 + static_cast<unsigned int>(__builtin_clzll(x.k1 ^ y.k1)) / 8;
    less = x.k1 < y.k1;
  } else {
    return (x.flags & y.flags & kComplete) != 0 ? kEqual : kUnknown;
  }
  if (at >= x.clean || at >= y.clean) return kUnknown;
  return less ? kLess : kGreater;
}

// strxcmp of two texts whose complete keys are equal: the first position
// where exactly one holds a capital decides, the capital first.
int caseTieBreak(const SortEntry& x, const SortEntry& y) {
  const unsigned int diff = static_cast<unsigned int>(x.upper ^ y.upper);
  if (diff == 0) return 0;
  const unsigned int bit = diff & (~diff + 1u);
  return (x.upper & bit) != 0 ? -1 : 1;
}

struct Plan {
  KeyOrder order;
  bool useKeys;  // the key decides the first field (not so with an offset)
  int first;
};

Plan makePlan(int direction) {
  const int first = cmp_fields != nullptr ? cmp_fields[0] : -1;
  if (direction < 0) return {KeyOrder::kCaseless, true, first};
  if (first >= 0 && first == cmp_tc_field) return {KeyOrder::kTimecode, true, first};
  if (cmp_offset != 0) return {KeyOrder::kCaseless, false, first};
  return {cmp_plain != 0 ? KeyOrder::kCaseless : KeyOrder::kStrx, true, first};
}

SortEntry makeEntry(dbrecord* rec, uint32_t index, int direction, const Plan& plan) {
  SortEntry e{0, 0, nullptr, rec, index, 0, 0, 0};
  const char* text = cellText(rec, plan.first);
  if (direction >= 0) {
    text = skipBlanks(text);
    // A record with a non-empty cell is not blank, so is_blank (which reads
    // every value) is asked only about records whose key cell is empty.
    if (rec == nullptr || (*text == 0 && rec->is_blank() != 0)) {
      e.flags = kNullKey | kEmptyKey;
      return e;
    }
  }
  e.key = text;
  if (*text == 0) e.flags |= kEmptyKey;
  if (plan.useKeys) encodeKey(e, text, plan.order);
  return e;
}

int compareEntriesAscending(const SortEntry& x, const SortEntry& y, const Plan& plan) {
  ++comco;
  if (((x.flags | y.flags) & kNullKey) != 0)
    return (x.flags & kNullKey) == (y.flags & kNullKey) ? 0 : ((x.flags & kNullKey) ? 1 : -1);
  if (plan.first < 0) return 0;
  if (((x.flags | y.flags) & kEmptyKey) != 0)
    return (x.flags & kEmptyKey) == (y.flags & kEmptyKey) ? 0 : ((x.flags & kEmptyKey) ? 1 : -1);
  int result = 0;
  const KeyResult byKey = plan.useKeys ? compareKeys(x, y) : kUnknown;
  if (byKey == kLess || byKey == kGreater) return byKey;
  if (byKey == kEqual) {
    if (plan.order == KeyOrder::kStrx) result = caseTieBreak(x, y);
  } else {
    bool stop = false;
    result = compareCells(plan.first, x.key, y.key, stop);
    if (stop) return result;
  }
  if (result != 0) return result;
  return compareAscendingFrom(cmp_fields + 1, x.rec, y.rec);
}

int compareEntriesDescending(const SortEntry& x, const SortEntry& y, const Plan& plan) {
  ++comco;
  if (plan.first < 0) return 0;
  const KeyResult byKey = compareKeys(x, y);
  if (byKey == kLess || byKey == kGreater) return -byKey;
  if (byKey == kUnknown) {
    const int result = strcasecmp(x.key, y.key);
    if (result != 0) return negated(result);
  }
  return compareDescendingFrom(cmp_fields + 1, x.rec, y.rec);
}

// The entries of `records` sorted in the order of the comparison state, ties
// in their original order. The original index breaks ties, which makes the
// order total, so an unstable sort gives the stable result.
std::vector<SortEntry> sortedEntries(dbrecord* const* records, size_t n, int direction) {
  if (n > UINT32_MAX) throw Qm::Exception::BadAlloc();
  const Plan plan = makePlan(direction);
  std::vector<SortEntry> entries(n);
  const bool prefetch = plan.first >= 0 && static_cast<unsigned int>(plan.first) <= kMaxFieldIndex;
  for (size_t i = 0; i < n; ++i) {
    if (prefetch) zyl::prefetchCellAhead(records, i, n, static_cast<unsigned short>(plan.first));
    entries[i] = makeEntry(records[i], static_cast<uint32_t>(i), direction, plan);
  }
  if (direction < 0) {
    std::sort(entries.begin(), entries.end(), [&plan](const SortEntry& x, const SortEntry& y) {
      const int c = compareEntriesDescending(x, y, plan);
      return c != 0 ? c < 0 : x.index < y.index;
    });
  } else {
    std::sort(entries.begin(), entries.end(), [&plan](const SortEntry& x, const SortEntry& y) {
      const int c = compareEntriesAscending(x, y, plan);
      return c != 0 ? c < 0 : x.index < y.index;
    });
  }
  return entries;
}

}  // namespace

int dbr_cmp(const void* a, const void* b) {
  return compareAscending(*static_cast<dbrecord* const*>(a), *static_cast<dbrecord* const*>(b));
}

int dbr_backcmp(const void* a, const void* b) {
  return compareDescending(*static_cast<dbrecord* const*>(a), *static_cast<dbrecord* const*>(b));
}

namespace zyl {

void sortEnginePrepare(int* fields, int plain, int offset, int timecodeField) {
  cmp_plain = plain;
  cmp_offset = offset;
  cmp_tc_field = timecodeField;
  comco = 0;
  cmp_fields = fields;
}

void sortRecords(dbrecord** records, size_t n, int direction) {
  if (n < 2) return;
  const std::vector<SortEntry> entries = sortedEntries(records, n, direction);
  for (size_t i = 0; i < n; ++i) records[i] = entries[i].rec;
}

std::vector<uint32_t> stableSortOrder(const std::vector<dbrecord*>& records, int direction) {
  const std::vector<SortEntry> entries = sortedEntries(records.data(), records.size(), direction);
  std::vector<uint32_t> order(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) order[i] = entries[i].index;
  return order;
}

}  // namespace zyl
