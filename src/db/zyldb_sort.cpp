// The table's tags, sorting (through the sort engine, SortEngine.h) and
// search.

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
#include <vector>

#include "db/RowDeletion_internal.h"
#include "db/RowRuns_internal.h"
#include "db/SortEngine.h"

namespace {

constexpr unsigned int kMaxFieldIndex = 0xFFFF;

const char* cellText(const dbrecord* rec, int field) {
  if (rec == nullptr || field < 0 || static_cast<unsigned int>(field) > kMaxFieldIndex) return "";
  return rec->getField(static_cast<unsigned short>(field)).c_str();
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

// Whether `rec` lies in the label range sought: its start label begins with
// `sought`, or the start label is at most and the end label at least `sought`
// (compared on sought's length). A missing start column or empty start label
// never matches; an empty `sought` always does.
bool labelRangeMatches(const dbrecord* rec, int startCol, int endCol,
                       const LightweightString<char>& sought) {
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

// The pair a label column belongs to, or kNumLabelPairs.
size_t labelPairOf(const char* name) {
  for (size_t i = 0; i < kNumLabelPairs; ++i)
    if (std::strcmp(name, kLabelPairs[i].start) == 0 || std::strcmp(name, kLabelPairs[i].end) == 0)
      return i;
  return kNumLabelPairs;
}

}  // namespace

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
  int timecodeField = -1;
  if (sortFields != nullptr) {
    for (int* f = sortFields; *f >= 0; ++f) {
      // Cutting the list in place is deliberate: the comparators stop at the
      // -1, and a caller's array keeps the change.
      if (static_cast<unsigned int>(*f) >= numFields) {
        *f = -1;
        continue;
      }
      if (get_field_type(static_cast<unsigned int>(*f)) == DBFieldTypes::timecode)
        timecodeField = *f;
    }
  }
  zyl::sortEnginePrepare(sortFields, flag, sortOffset, timecodeField);
}

// Row pointers move, records never do; rows that compare equal keep their
// order. The sort keys are built before the rows are touched, so running out
// of memory leaves the order as it was.
void zyldb::sort(int direction, int flag) {
  sortPrepare(direction, flag);
  zyl::sortRecords(rows, numRecords, direction);
  if (showTagsOnly != 0) index_tags();
}

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
  const size_t pair = labelPairOf(get_fieldname(static_cast<unsigned int>(field)));
  if (pair == kNumLabelPairs) return true;
  return labelRangeMatches(rec, get_fieldnum(labelName(pair, false)),
                           get_fieldnum(labelName(pair, true)), sought);
}

int zyldb::match_record(int row) const {
  const dbrecord* rec = row < 0 ? nullptr : get_record(static_cast<unsigned int>(row));
  if (rec == nullptr || query.empty()) return -1;
  for (unsigned int i = 0; i < numFields; ++i)
    if (match_field(rec, static_cast<int>(i)) == 0) return 0;
  return 1;
}

// The query worked out once for a whole search: only the columns with a
// criterion, each with what matching it needs, so that a row costs one look
// at each of those cells and nothing else. Matching a row gives exactly
// match_record's answer for a row with a record.
class zyldb::CompiledQuery {
 public:
  explicit CompiledQuery(const zyldb& table) : table_(table) {
    for (unsigned int f = 0; f < table.numFields; ++f) {
      const bool special = f < table.specialLabelFields.size() && table.specialLabelFields[f];
      if (f >= table.query.size() || table.query[f].empty()) continue;
      Column c{f, Kind::kText, -1, -1};
      if (special) {
        const size_t pair = labelPairOf(table.get_fieldname(f));
        if (pair == kNumLabelPairs) continue;
        c.kind = Kind::kLabelRange;
        c.startCol = table.get_fieldnum(labelName(pair, false));
        c.endCol = table.get_fieldnum(labelName(pair, true));
      } else {
        const DBFieldTypes::eType type = table.get_field_type(f);
        if (type == DBFieldTypes::timecode)
          c.kind = Kind::kTimecode;
        else if (type == DBFieldTypes::timecode_s || type == DBFieldTypes::dos_date)
          c.kind = Kind::kConverted;
      }
      columns_.push_back(c);
    }
  }

  bool matches(const dbrecord* rec) const {
    const unsigned int flags = table_.searchFlag != 0 ? 1u : 0u;
    for (const Column& c : columns_) {
      const TextSearch::Criteria& crit = table_.query[c.field];
      bool ok;
      switch (c.kind) {
        case Kind::kLabelRange:
          ok = labelRangeMatches(rec, c.startCol, c.endCol, crit.getCriterion(0).getText());
          break;
        case Kind::kText:
          ok = TextSearch::match(rec->getField(static_cast<unsigned short>(c.field)), crit, flags);
          break;
        case Kind::kTimecode:
          ok = TextSearch::match(rec->getField(static_cast<unsigned short>(c.field)), crit,
                                 flags | TextSearch::kTimecode);
          break;
        case Kind::kConverted:
        default:
          ok = table_.matchField(rec, static_cast<unsigned short>(c.field), crit);
          break;
      }
      if (!ok) return false;
    }
    return true;
  }

  // The first column with a criterion, or -1.
  int firstField() const {
    return columns_.empty() || columns_[0].field > 0xFFFF ? -1
                                                          : static_cast<int>(columns_[0].field);
  }

 private:
  enum class Kind { kText, kTimecode, kConverted, kLabelRange };
  struct Column {
    unsigned int field;
    Kind kind;
    int startCol, endCol;
  };
  const zyldb& table_;
  std::vector<Column> columns_;
};

// Tags every row match_record accepts (a missing record counts as accepted,
// as its -1 is non-zero). With the table's own steps the query is compiled
// once instead of being worked out again for every row.
int zyldb::tag_matching_records(int keepOthers) {
  if (query.empty() || numRecords == 0) return 0;
  int count = 0;
  if (batchesMayBypassSteps()) {
    const CompiledQuery compiled(*this);
    dbrecord* const* recs = showTagsOnly != 0 ? tagIndex : rows;
    const unsigned int visible = showTagsOnly != 0 ? numTagged : numRecords;
    for (unsigned int i = 0; i < numRecords; ++i) {
      if (compiled.firstField() >= 0)
        zyl::prefetchCellAhead(recs, i, visible,
                               static_cast<unsigned short>(compiled.firstField()));
      dbrecord* rec = get_record(i);
      if (rec == nullptr) {
        ++count;  // set_tag of a missing row does nothing
      } else if (compiled.matches(rec)) {
        rec->setTag(1);
        ++count;
      } else if (keepOthers == 0) {
        rec->setTag(0);
      }
    }
    return count;
  }
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
