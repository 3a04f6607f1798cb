#pragma once

// Deleting many runs of rows from a table in one pass.
//
// Deleting k runs one delete_records call at a time moves the rest of the
// row array k times, and every view of the table renumbers its whole index
// for each of the k messages. RowDeletion removes all the rows in one pass
// and then sends the very messages the k calls would have sent, in the same
// order and with the same texts (each run's rows numbered as they stood just
// before that run went). While the messages go out the deletion is "active"
// for the table: views that hear a message then join it instead of
// renumbering, and bring themselves up to date in one pass when the last
// message has gone (the function given to join).
//
// What listeners can observe: the messages are those of the run-by-run
// deletion; the table is already in its final state while they are
// delivered, and views of the table catch up after the last message.
//
// Exception safety: every allocation happens before the first row goes; a
// failure there throws Qm::Exception::BadAlloc and leaves the table as it
// was. After that nothing allocates except message delivery; a listener that
// throws does not stop the later messages, and the first exception is
// rethrown once the joined listeners are up to date.
//
// Cost: O(rows + m log m) for m deleted rows, plus the messages' delivery.

#include <zyldb/db/zyldb.h>
#include <zyldb/platform/Notifier.h>

#include <cstdint>
#include <utility>
#include <vector>

namespace zyl {

class RowDeletion {
 public:
  // Called for a joined listener when the deletion's messages have all
  // gone: bring `context` up to date.
  using EndFn = void (*)(void* context, const RowDeletion& deletion) noexcept;

  // True when `table` can delete in one pass: one whose
  // batchesMayBypassSteps() says so (no override of delete_records to
  // honour), outside show-tags-only mode.
  static bool canBatch(const zyldb& table);

  // Deletes the groups of rows of `table`: group g is rows[groupEnds[g-1]
  // .. groupEnds[g]-1] (groupEnds[-1] = 0), given as raw row numbers from
  // before the whole deletion, ascending within a group, and forming one
  // run of consecutive rows once the earlier groups are gone. The same as
  // delete_records(first, n) for each group in turn, with `first` its first
  // row as numbered at that moment. Returns the number of rows deleted.
  // REQUIRES: canBatch(table); distinct rows below the row count.
  static int64_t run(zyldb& table, const std::vector<uint32_t>& rows,
                     const std::vector<uint32_t>& groupEnds);

  // Sends "recordsDeleted" with `text` for `table`: at once, or, while a
  // deletion of the table is being delivered on this thread (a listener
  // deleted more rows), after that delivery and those queued before it, so
  // that every listener hears the deletions in the order they were made.
  static void announce(zyldb& table, const LightweightString<char>& text);

  // The deletion whose messages are being delivered on this thread for
  // `table`, or null.
  static RowDeletion* active(const zyldb* table) noexcept;

  // Asks for rowDeletionEnded at the end. Never fails (room for every
  // listener of the table is reserved beforehand).
  void join(void* context, EndFn fn) noexcept;
  // True when `msg` is the deletion's own message being delivered (not one
  // sent by a deletion that a listener made meanwhile).
  bool issuing(const NotifyMsg* msg) const noexcept { return current_ == msg; }

  // The deleted raw rows, ascending, numbered as before the deletion.
  const std::vector<uint32_t>& deleted() const { return deleted_; }
  // The numbers of every message in order, and the end of each message in
  // that list: what the messages' texts say.
  const std::vector<int32_t>& values() const { return values_; }
  const std::vector<uint32_t>& groupEnds() const { return groupEnds_; }

 private:
  RowDeletion() = default;
  void finish() noexcept;

  const zyldb* table_ = nullptr;
  RowDeletion* outer_ = nullptr;
  const NotifyMsg* current_ = nullptr;
  std::vector<uint32_t> deleted_;
  std::vector<int32_t> values_;
  std::vector<uint32_t> groupEnds_;
  std::vector<std::pair<void*, EndFn>> joined_;
};

}  // namespace zyl
