#pragma once

// The view's bulk machinery, shared by the view's source files and reachable
// from tests.
//
// Several view operations are defined as a sequence of single steps: the
// deletion handler drops one entry at a time, announcing each position as it
// stood at that moment; removeSome drops one run at a time; deleteTagged
// deletes one run of table rows at a time; the identifier and merge
// insertions add one entry at a time. Done literally each step moves the
// rest of the index (and of the table), which is quadratic on large views.
// The functions here compute the final index in one pass and issue the very
// messages the steps would have issued, in the same order. They also
// reproduce what the steps leave behind outside the live entries (the index
// capacity, and the stale tags of the slots past the count, which the next
// insertion picks up), so no later operation can tell the difference.
//
// Every change to an index is made in three phases: prepare (everything that
// allocates: may throw, changes nothing), commit (never fails) and announce
// (messages; a listener's exception is held until the state is complete).

#include <zyldb/view/ODBView.h>

#include <cstdint>
#include <exception>
#include <utility>
#include <vector>

#include "db/RowDeletion_internal.h"

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
  // "recordsChanged". Throws (BadAlloc) only before changing anything;
  // returns the first exception a listener threw.
  static std::exception_ptr applyDeletions(ODBViewRep& v, const std::vector<int32_t>& values,
                                           const std::vector<uint32_t>& groupEnds);
  // applyDeletions that never fails: when memory runs out the view is still
  // brought up to date (`known`, the deleted source rows as numbered before
  // the messages, ascending, when the caller has them), and the views
  // stacked on it, which then cannot hear the positions, are emptied.
  static void applyDeletionsSafe(ODBViewRep& v, std::vector<int32_t>& values,
                                 const std::vector<uint32_t>& groupEnds,
                                 const std::vector<uint32_t>* known) noexcept;

  // Drops the runs of entries for which `pred` is true, as one remove() per
  // run from the first run on would. Returns the number dropped. REQUIRES:
  // no base view and a table.
  static int removeRuns(ODBViewRep& v, bool (ODBViewRep::*pred)(int));

  // Deletes the records of view rows through the table in one pass, as
  // deleteRecords(start - (rows deleted before), n) for each (start, n) of
  // `runs` (view positions before any deletion, ascending) would. False,
  // with nothing done, when that cannot be worked out in advance (a base
  // view, a table that cannot batch, two entries naming one row, or an
  // entry past the table's end).
  static bool deleteThroughTable(ODBViewRep& v,
                                 const std::vector<std::pair<int64_t, int64_t>>& runs);

  // Applies the deletions that waited while the view was busy.
  static void processQueued(ODBViewRep& v) noexcept;
  // Appends a message's numbers to the queue (marks the view lost when
  // memory runs out).
  static void queue(ODBViewRep& v, const int32_t* values, size_t n) noexcept;
  // The table's one-pass deletion that `view` joined has sent its messages.
  static void tableDeletionEnded(void* view, const RowDeletion& deletion) noexcept;
  // The base view's announcement that `v` joined is over.
  static void baseAnnouncementEnded(ODBViewRep& v) noexcept;
  // Empties v and every view stacked on it, without messages: what a view
  // can still do when memory runs out before it could hear which rows went.
  static void resetAfterLoss(ODBViewRep& v) noexcept;
  // The number of views stacked directly on v.
  static size_t stackedCount(const ODBViewRep& v) noexcept;

  // Test access. Nothing in the library sets a condition or a sort order.
  static const ODBViewIndexEntry* slots(const ODBViewRep& v) { return v.index_.data(); }
  static void setConditionAndOrder(ODBViewRep& v, void* condition, void* order) {
    v.condition_ = condition;
    v.sortOrder_ = order;
  }
  static bool hasQueuedWork(const ODBViewRep& v) { return !v.queuedGroupEnds_.empty(); }
};

}  // namespace zyl
