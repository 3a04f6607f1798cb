// The table's tags, sorting (with the exported comparators dbr_cmp and
// dbr_backcmp and their process-wide state) and search.
//
// The comparison state is global because the comparators have the two-pointer
// qsort signature and are shared with the views: sortPrepare of a table sets
// it, and a sort of that table or of a view over it reads it. Only one sort
// may run at a time in the process.

#include <strings.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/platform/time_def.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <typeinfo>
#include <vector>

#include "db/RowDeletion_internal.h"
#include "db/RowRuns_internal.h"
#include "db/zyldb_sort_internal.h"

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
    if (result != 0) return result < 0 ? 1 : -1;
  }
  return 0;
}

int compareDescending(const dbrecord* a, const dbrecord* b) {
  ++comco;
  return cmp_fields == nullptr ? 0 : compareDescendingFrom(cmp_fields, a, b);
}

// What a table sort moves: the record and, worked out once per row, the text
// of its first sort field (blanks skipped for the ascending order; null for a
// blank record in the ascending order) and the first eight bytes of an
// encoding of that text whose plain byte order is the comparison's order:
//  * caseless (strcasecmp): the ASCII-lower-cased bytes;
//  * strxcmp: the same, except that a run of digits becomes '0', the number
//    of its digits after leading zeros, and those digits. No other byte of
//    the encoding is a '0', so runs line up and compare by value, and a run
//    compares with other characters as a digit does.
// Zeros pad the encoding after the text's end. Bytes from `clean` on are not
// to be trusted (a byte >= 0x80 in the caseless order, whose case folding
// belongs to the C library; a digit run too long to count in one byte).
// Where two prefixes differ at a trusted byte, that byte decides, so most
// comparisons never read the texts; the tie-breaks of both orders (case,
// leading zeros) only matter between prefixes that are equal.
struct SortEntry {
  const char* key;
  dbrecord* rec;
  uint64_t prefix;
  uint32_t index;  // the entry's place before the sort
  uint8_t clean;
  bool emptyKey;  // saves reading the text to apply the empty-cell rule
};

enum class KeyOrder { kCaseless, kStrx };

inline bool isDigitByte(unsigned char c) { return c >= '0' && c <= '9'; }

SortEntry makeEntry(const char* key, dbrecord* rec, uint32_t index, KeyOrder order) {
  SortEntry e{key, rec, 0, index, 8, key == nullptr || *key == 0};
  if (key == nullptr) return e;
  unsigned char out[8] = {};
  unsigned int n = 0;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(key);
  while (n < 8 && *p != 0) {
    const unsigned char c = *p;
    if (order == KeyOrder::kStrx && isDigitByte(c)) {
      while (*p == '0') ++p;
      const unsigned char* digits = p;
      while (isDigitByte(*p)) ++p;
      const size_t len = static_cast<size_t>(p - digits);
      out[n++] = '0';
      if (n == 8) break;
      if (len > 254) {
        e.clean = static_cast<uint8_t>(n);
        break;
      }
      out[n++] = static_cast<unsigned char>(len);
      for (size_t i = 0; i < len && n < 8; ++i) out[n++] = digits[i];
      continue;
    }
    if (order == KeyOrder::kCaseless && c >= 0x80) {
      e.clean = static_cast<uint8_t>(n);
      break;
    }
    out[n++] = static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    ++p;
  }
  for (unsigned int i = 0; i < 8; ++i) e.prefix = (e.prefix << 8) | out[i];
  return e;
}

// -1 or 1 when the prefixes decide the order, 0 when the texts must be read.
int comparePrefixes(const SortEntry& x, const SortEntry& y) {
  if (x.prefix == y.prefix) return 0;
  const unsigned int at = static_cast<unsigned int>(__builtin_clzll(x.prefix ^ y.prefix)) / 8;
  if (at >= x.clean || at >= y.clean) return 0;
  return x.prefix < y.prefix ? -1 : 1;
}

int compareEntriesAscending(const SortEntry& x, const SortEntry& y) {
  ++comco;
  if (x.key == nullptr || y.key == nullptr)
    return (x.key == nullptr) == (y.key == nullptr) ? 0 : (x.key == nullptr ? 1 : -1);
  if (cmp_fields == nullptr || cmp_fields[0] < 0) return 0;
  if (x.emptyKey || y.emptyKey) return x.emptyKey == y.emptyKey ? 0 : (x.emptyKey ? 1 : -1);
  if (cmp_fields[0] == cmp_tc_field || cmp_offset == 0) {
    const int byPrefix = comparePrefixes(x, y);
    if (byPrefix != 0) return byPrefix;
  }
  bool stop = false;
  const int result = compareCells(cmp_fields[0], x.key, y.key, stop);
  if (stop || result != 0) return result;
  return compareAscendingFrom(cmp_fields + 1, x.rec, y.rec);
}

int compareEntriesDescending(const SortEntry& x, const SortEntry& y) {
  ++comco;
  if (cmp_fields == nullptr || cmp_fields[0] < 0) return 0;
  int result = comparePrefixes(x, y);
  if (result == 0) result = strcasecmp(x.key, y.key);
  if (result != 0) return result < 0 ? 1 : -1;
  return compareDescendingFrom(cmp_fields + 1, x.rec, y.rec);
}

// The entries of `records` sorted stably in the order of the comparison
// state: ascending as dbr_cmp orders the records, descending (direction < 0)
// as dbr_backcmp does.
std::vector<SortEntry> sortedEntries(dbrecord* const* records, size_t n, int direction) {
  std::vector<SortEntry> entries(n);
  const int first = cmp_fields != nullptr ? cmp_fields[0] : -1;
  // A timecode column compares its first eight characters caselessly
  // before anything else, so its caseless prefix decides as well.
  const KeyOrder order = direction < 0 || cmp_plain != 0 || (first >= 0 && first == cmp_tc_field)
                             ? KeyOrder::kCaseless
                             : KeyOrder::kStrx;
  for (size_t i = 0; i < n; ++i) {
    dbrecord* rec = records[i];
    const char* key = cellText(rec, first);
    if (direction >= 0) key = rec == nullptr || rec->is_blank() != 0 ? nullptr : skipBlanks(key);
    entries[i] = makeEntry(key, rec, static_cast<uint32_t>(i), order);
  }
  if (direction < 0) {
    std::stable_sort(entries.begin(), entries.end(), [](const SortEntry& x, const SortEntry& y) {
      return compareEntriesDescending(x, y) < 0;
    });
  } else {
    std::stable_sort(entries.begin(), entries.end(), [](const SortEntry& x, const SortEntry& y) {
      return compareEntriesAscending(x, y) < 0;
    });
  }
  return entries;
}

struct LabelPair {
  const char* start;
  const char* end;
};

constexpr LabelPair kLabelPairs[] = {
    {"Start time", "End time"},         {"snd start", "snd end"},
    {"start 24P code", "end 24P code"}, {"start keycode", "end keycode"},
    {"start camcode", "end camcode"},   {"start inkcode", "end inkcode"},
};
constexpr size_t kNumLabelPairs = sizeof kLabelPairs / sizeof kLabelPairs[0];

// The pair's names as strings made once, so that looking the columns up while
// matching every row allocates nothing.
const LightweightString<char>& labelName(size_t pair, bool end) {
  static const struct Names {
    LightweightString<char> start[kNumLabelPairs];
    LightweightString<char> end[kNumLabelPairs];
    Names() {
      for (size_t i = 0; i < kNumLabelPairs; ++i) {
        start[i] = LightweightString<char>(kLabelPairs[i].start);
        end[i] = LightweightString<char>(kLabelPairs[i].end);
      }
    }
  } names;
  return end ? names.end[pair] : names.start[pair];
}

}  // namespace

int dbr_cmp(const void* a, const void* b) {
  return compareAscending(*static_cast<dbrecord* const*>(a), *static_cast<dbrecord* const*>(b));
}

int dbr_backcmp(const void* a, const void* b) {
  return compareDescending(*static_cast<dbrecord* const*>(a), *static_cast<dbrecord* const*>(b));
}

// ---- Tags -----------------------------------------------------------------------

void zyldb::set_tag(unsigned int row, int value) {
  if (dbrecord* rec = get_record(row)) rec->setTag(static_cast<uint8_t>(value));
}

void zyldb::invert_tag(unsigned int row) {
  if (dbrecord* rec = get_record(row)) rec->setTag(rec->getTag() == 0 ? 1 : 0);
}

int zyldb::get_tag(unsigned int row) {
  const dbrecord* rec = get_record(row);
  return rec != nullptr ? rec->getTag() : -1;
}

// Walks the raw count also in show-tags-only mode, where set_tag skips the
// rows past the visible ones.
int zyldb::set_all_tags(int value) {
  for (unsigned int i = 0; i < numRecords; ++i) set_tag(i, value);
  return 0;
}

int zyldb::invert_all_tags() {
  for (unsigned int i = 0; i < numRecords; ++i)
    if (dbrecord* rec = rows[i]) rec->setTag(rec->getTag() == 0 ? 1 : 0);
  return static_cast<int>(numRecords);
}

int zyldb::get_num_tags() {
  const unsigned int n = get_num_records();
  int count = 0;
  for (unsigned int i = 0; i < n; ++i)
    if (get_tag(i) != 0) ++count;
  return count;
}

// Deletes each run of rows tagged exactly 1 as one delete_records call would,
// so that listeners get one message per run. Other non-zero tags survive. A
// plain table removes all the runs in one pass (RowDeletion) and then sends
// the messages.
int zyldb::delete_tagged_records() {
  if (showTagsOnly != 0) return -1;
  if (zyl::RowDeletion::canBatch(*this)) {
    std::vector<uint32_t> doomed, ends;
    zyl::scanRuns([this] { return int64_t{numRecords}; },
                  [this](int64_t r) { return rows[r] != nullptr && rows[r]->getTag() == 1; },
                  [&](int64_t start, int64_t n) -> int64_t {
                    for (int64_t r = start; r < start + n; ++r)
                      doomed.push_back(static_cast<uint32_t>(r));
                    ends.push_back(static_cast<uint32_t>(doomed.size()));
                    return 0;
                  });
    return static_cast<int>(zyl::RowDeletion::run(*this, doomed, ends));
  }
  return static_cast<int>(zyl::scanRuns(
      [this] { return int64_t{get_num_records()}; },
      [this](int64_t r) { return get_tag(static_cast<unsigned int>(r)) == 1; },
      [this](int64_t start, int64_t n) -> int64_t {
        delete_records(static_cast<unsigned int>(start), static_cast<unsigned int>(n));
        return n;
      }));
}

void zyldb::index_tags() {
  numTagged = 0;
  for (unsigned int i = 0; i < numRecords; ++i) {
    dbrecord* rec = rows[i];
    if (rec == nullptr || rec->getTag() != 0) tagIndex[numTagged++] = rec;
  }
}

void zyldb::set_show_tags_only(int on) {
  showTagsOnly = on;
  if (on != 0) index_tags();
}

// ---- Sorting ------------------------------------------------------------------

void zyldb::set_sortfield(int field) {
  defaultSortFields[0] = field;
  defaultSortFields[1] = -1;
  sortFields = defaultSortFields;
}

void zyldb::set_sortfields(int* fields) { sortFields = fields; }

void zyldb::set_sort_offset(int offset) { sortOffset = offset; }

void zyldb::sortPrepare(int /*direction*/, int flag) {
  cmp_plain = flag;
  cmp_offset = sortOffset;
  cmp_tc_field = -1;
  comco = 0;
  cmp_fields = sortFields;
  if (sortFields == nullptr) return;
  int timecodeField = -1;
  for (int* f = sortFields; *f >= 0; ++f) {
    // Cutting the list in place is deliberate: the comparators stop at the
    // -1, and a caller's array keeps the change.
    if (static_cast<unsigned int>(*f) >= numFields) {
      *f = -1;
      continue;
    }
    if (get_field_type(static_cast<unsigned int>(*f)) == DBFieldTypes::timecode) timecodeField = *f;
  }
  if (timecodeField >= 0) cmp_tc_field = timecodeField;
}

// A stable merge sort of the row pointers: records never move, and rows that
// compare equal keep their order. The entries are built before the rows are
// touched, so running out of memory leaves the order as it was.
void zyldb::sort(int direction, int flag) {
  sortPrepare(direction, flag);
  if (numRecords >= 2) {
    const std::vector<SortEntry> entries = sortedEntries(rows, numRecords, direction);
    for (unsigned int i = 0; i < numRecords; ++i) rows[i] = entries[i].rec;
  }
  if (showTagsOnly != 0) index_tags();
}

namespace zyl {

std::vector<uint32_t> stableSortOrder(const std::vector<dbrecord*>& records, int direction) {
  if (records.size() > UINT32_MAX) throw Qm::Exception::BadAlloc();
  const std::vector<SortEntry> entries = sortedEntries(records.data(), records.size(), direction);
  std::vector<uint32_t> order(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) order[i] = entries[i].index;
  return order;
}

}  // namespace zyl

// ---- Search ----------------------------------------------------------------------

int zyldb::isSpecialLabelField(unsigned long field) const {
  if (field >= numFields || field >= fieldNames.size()) return 0;
  const char* name = fieldNames[field].c_str();
  for (const LabelPair& p : kLabelPairs)
    if (std::strcmp(name, p.start) == 0 || std::strcmp(name, p.end) == 0) return 1;
  return 0;
}

void zyldb::setQuery(const std::vector<TextSearch::Criteria>& criteria) {
  if (criteria.size() >= numFields) query = criteria;
}

void zyldb::set_query(dbrecord* q) {
  if (q == nullptr || q->get_num_fields() < numFields) return;
  std::vector<TextSearch::Criteria> criteria;
  criteria.reserve(q->get_num_fields());
  for (unsigned int i = 0; i < q->get_num_fields(); ++i)
    criteria.emplace_back(
        TextSearch::Criterion(q->getField(static_cast<unsigned short>(i)), TextSearch::eContains));
  setQuery(criteria);
}

int zyldb::match_field(const dbrecord* rec, int field) const {
  if (field < 0) return 1;
  const size_t f = static_cast<size_t>(field);
  if (f < specialLabelFields.size() && specialLabelFields[f])
    return found_in_special_label_field(rec, field) ? 1 : 0;
  if (f >= query.size() || query[f].empty()) return 1;
  return matchField(rec, static_cast<unsigned short>(field), query[f]) ? 1 : 0;
}

bool zyldb::matchField(const dbrecord* rec, unsigned short field,
                       const TextSearch::Criteria& crit) const {
  if (rec == nullptr) return false;
  const unsigned int flags = searchFlag != 0 ? 1u : 0u;
  const LightweightString<char>& text = rec->getField(field);
  switch (get_field_type(field)) {
    case DBFieldTypes::timecode_s:
      return TextSearch::match(time_def(text.c_str(), eLabelTimecode).get_punctuated_str(), crit,
                               flags | TextSearch::kTimecode);
    case DBFieldTypes::timecode:
      return TextSearch::match(text, crit, flags | TextSearch::kTimecode);
    case DBFieldTypes::dos_date: {
      const time_t seconds = static_cast<time_t>(UIntFromString(text, 0));
      char buf[64];
      if (ctime_r(&seconds, buf) == nullptr) buf[0] = 0;
      return TextSearch::match(LightweightString<char>(buf), crit, flags);
    }
    default:
      return TextSearch::match(text, crit, flags);
  }
}

bool zyldb::found_in_special_label_field(const dbrecord* rec, int field) const {
  if (field < 0 || static_cast<size_t>(field) >= query.size() ||
      query[static_cast<size_t>(field)].empty())
    return true;
  const LightweightString<char>& sought =
      query[static_cast<size_t>(field)].getCriterion(0).getText();
  const char* name = get_fieldname(static_cast<unsigned int>(field));
  size_t pair = kNumLabelPairs;
  for (size_t i = 0; i < kNumLabelPairs && pair == kNumLabelPairs; ++i)
    if (std::strcmp(name, kLabelPairs[i].start) == 0 || std::strcmp(name, kLabelPairs[i].end) == 0)
      pair = i;
  if (pair == kNumLabelPairs) return true;
  const int startCol = get_fieldnum(labelName(pair, false));
  const int endCol = get_fieldnum(labelName(pair, true));
  if (startCol < 0) return false;
  const char* s = cellText(rec, startCol);
  if (*s == 0) return false;
  const size_t n = sought.size();
  if (n == 0) return true;
  const char* q = sought.c_str();
  if (std::strncmp(s, q, n) == 0) return true;
  if (endCol < 0) return false;
  const char* e = cellText(rec, endCol);
  if (*e == 0) return false;
  if (std::strncmp(q, s, n) < 0) return false;
  return std::strncmp(q, e, n) <= 0;
}

int zyldb::match_record(int row) const {
  const dbrecord* rec = row < 0 ? nullptr : get_record(static_cast<unsigned int>(row));
  if (rec == nullptr || query.empty()) return -1;
  for (unsigned int i = 0; i < numFields; ++i)
    if (match_field(rec, static_cast<int>(i)) == 0) return 0;
  return 1;
}

int zyldb::tag_matching_records(int keepOthers) {
  if (query.empty() || numRecords == 0) return 0;
  int count = 0;
  for (unsigned int i = 0; i < numRecords; ++i) {
    if (match_record(static_cast<int>(i)) != 0) {
      set_tag(i, 1);
      ++count;
    } else if (keepOthers == 0) {
      set_tag(i, 0);
    }
  }
  return count;
}

int zyldb::tag_all_different(int field) {
  set_all_tags(0);
  set_show_tags_only(0);
  set_sortfield(field);
  sort(1, 0);
  // The previous value is kept to 255 characters, as a fixed buffer would.
  char previous[256] = {};
  const unsigned int f = field < 0 ? ~0u : static_cast<unsigned int>(field);
  for (unsigned int i = 0; i < numRecords; ++i) {
    const LightweightString<char> text = getField(i, f);
    if ((text.empty() && previous[0] == 0) || strcasecmp(text.c_str(), previous) == 0) continue;
    set_tag(i, 1);
    const size_t n = std::min<size_t>(text.size(), sizeof previous - 1);
    std::memcpy(previous, text.c_str(), n);
    previous[n] = 0;
  }
  return get_num_tags();
}

int zyldb::findFirst(const char* fieldName, const char* value, int n) {
  if (fieldName == nullptr) return -1;
  if (value == nullptr) value = "";
  if (strcasecmp(fieldName, "cookie") == 0) {
    const int row = getRowIndexByID(Cookie(value, false));
    if (row >= 0) return row;
  }
  const int col = get_fieldnum(LightweightString<char>(fieldName));
  if (col < 0 || numRecords == 0) return -1;
  for (unsigned int i = 0; i < numRecords; ++i) {
    const char* cell = cellText(rows[i], col);
    const int result =
        n != 0 ? std::strncmp(cell, value, static_cast<size_t>(n)) : std::strcmp(cell, value);
    if (result == 0) return static_cast<int>(i);
  }
  return -1;
}
