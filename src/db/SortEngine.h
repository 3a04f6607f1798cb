#pragma once

// The sort engine shared by tables and views: the process-wide comparison
// state, the exported comparators dbr_cmp and dbr_backcmp that read it, and a
// key-based sort that orders records exactly as those comparators do.
//
// The state is global because the comparators have the two-pointer qsort
// signature: a table's sortPrepare sets it (through prepare), and a sort of
// that table or of a view over it reads it. Only one sort may run at a time in
// the process.

#include <zyldb/db/dbrecord.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zyl {

// Reading one cell of every record in row order takes three dependent loads
// per row (the record, its value slot, the text), each a cache miss once a
// sort has scattered the rows. Called for row i of a scan of records[0..n),
// this starts those loads for rows a little ahead, one stage each, so that
// they overlap. Only a hint: it changes nothing.
inline void prefetchCellAhead(dbrecord* const* records, size_t i, size_t n, unsigned short field) {
  constexpr size_t kRecordAhead = 24, kSlotAhead = 16, kTextAhead = 8;
  if (i + kRecordAhead < n) __builtin_prefetch(records[i + kRecordAhead]);
  if (i + kSlotAhead < n && records[i + kSlotAhead] != nullptr)
    __builtin_prefetch(&records[i + kSlotAhead]->getField(field));
  if (i + kTextAhead < n && records[i + kTextAhead] != nullptr)
    __builtin_prefetch(records[i + kTextAhead]->getField(field).c_str());
}

// Sets the comparison state: comco = 0, cmp_fields = fields (ended by a
// negative entry; null sorts nothing), plain order (strcasecmp instead of
// strxcmp) when `plain` is non-zero, the text offset, and the timecode column
// (-1 for none). Costs O(1).
void sortEnginePrepare(int* fields, int plain, int offset, int timecodeField);

// Sorts records[0..n) in place into the order of the comparison state:
// ascending as dbr_cmp orders them, descending (direction < 0) as dbr_backcmp
// does; records that compare equal keep their order. A null record counts as
// a blank one. Each record is read once to build a sort key (16 bytes of an
// order-preserving encoding of its first sort cell), so most comparisons read
// no record; comco counts the comparisons as the comparators do.
// O(n log n) time, O(n) extra memory. Throws Qm::Exception::BadAlloc, leaving
// the records as they were.
void sortRecords(dbrecord** records, size_t n, int direction);

// The same order as indexes into `records`, which are not moved.
// Throws Qm::Exception::BadAlloc.
std::vector<uint32_t> stableSortOrder(const std::vector<dbrecord*>& records, int direction);

}  // namespace zyl
