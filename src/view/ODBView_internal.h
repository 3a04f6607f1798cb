#pragma once

// The view's bulk machinery, shared by the view's source files and reachable
// from tests.
//
// Several view operations are defined as a sequence of single steps: the
// deletion handler drops one entry at a time, announcing each position as it
// stood at that moment; removeSome drops one run at a time; the identifier
// and merge insertions add one entry at a time. Done literally each step
// moves the rest of the index, which is quadratic on large views. The
// functions here compute the final index in one pass and then issue the very
// messages the steps would have issued, in the same order. They also
// reproduce what the steps leave behind outside the live entries (the index
// capacity, and the stale tags of the slots past the count, which the next
// insertion picks up), so no later operation can tell the difference.

#include <zyldb/view/ODBView.h>

#include <cstdint>
#include <vector>

namespace zyl {

struct ODBViewInternal {
  // One removal step of a sequence: `n` entries at position `at` (numbered
  // as the index stood just before this step) leave a list of `length`
  // entries.
  struct RemovalStep {
    int64_t length;
    int64_t n;
  };

  // The index capacity after sizeIndexFor(count - n) for each step, and
  // what became of the slots past the count: `keepBelow` is the lowest
  // number of slots preserved by any reallocation at or after each step
  // (INT64_MAX when none reallocated).
  struct CapacityTrace {
    int32_t finalCapacity = 0;
    bool reallocated = false;
    std::vector<int64_t> keepBelow;  // one per step
  };
  static CapacityTrace traceShrink(int32_t capacity, const std::vector<RemovalStep>& steps);

  // Inserts an entry for each of `rows` at positions at, at+1, ... as that
  // many single displayRecordsAt(row, 1, at++) calls would. REQUIRES: a
  // source (the caller checked).
  static void insertEach(ODBViewRep& v, const std::vector<uint32_t>& rows, int at);

  // Applies deletion messages to the index. `values` holds the numbers of
  // every message in order; `groupEnds` the end of each message in it.
  // Entries are renumbered and dropped exactly as handling each number in
  // turn would (each dropped entry announced at its position of the moment),
  // then each message that cost rows is closed with its list and
  // "recordsChanged".
  static void applyDeletions(ODBViewRep& v, const std::vector<int32_t>& values,
                             const std::vector<uint32_t>& groupEnds);

  // Drops the runs of entries for which `pred` is true, as one remove() per
  // run from the first run on would. Returns the number dropped. REQUIRES:
  // no base view and a table.
  static int removeRuns(ODBViewRep& v, bool (ODBViewRep::*pred)(int));

  // Applies the deletion messages queued while the base view was announcing.
  static void processQueued(ODBViewRep& v);

  // Test access. Nothing in the library sets a condition or a sort order.
  static const ODBViewIndexEntry* slots(const ODBViewRep& v) { return v.index_; }
  static void setConditionAndOrder(ODBViewRep& v, void* condition, void* order) {
    v.condition_ = condition;
    v.sortOrder_ = order;
  }
  static bool hasQueuedWork(const ODBViewRep& v) { return !v.queuedGroupEnds_.empty(); }

  // Type ids of the two messages a view issues.
  static int recordsDeletedType();
  static int recordsChangedType();
};

}  // namespace zyl
