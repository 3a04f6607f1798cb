#pragma once

// The scan for runs of rows: used wherever rows are deleted or removed one
// run at a time (the table's delete_tagged_records, a view's deleteTagged and
// removeSome).

#include <cstdint>

namespace zyl {

// Scans rows 0, 1, ... while row < count() and calls drop(start, n) for each
// run of consecutive rows for which inRun(row) holds. drop returns how many
// rows left the numbering (n when it removed the run, 0 when it only noted
// it); the scan goes on after the row that ended the run, wherever that row
// now stands. count() is read again at every step. Returns the sum of the
// run lengths.
template <class Count, class InRun, class Drop>
int64_t scanRuns(Count count, InRun inRun, Drop drop) {
  int64_t total = 0;
  int64_t start = -1;
  for (int64_t row = 0; row < count(); ++row) {
    if (inRun(row)) {
      if (start < 0) start = row;
    } else if (start >= 0) {
      const int64_t n = row - start;
      row -= drop(start, n);
      total += n;
      start = -1;
    }
  }
  if (start >= 0) {
    const int64_t n = count() - start;
    drop(start, n);
    total += n;
  }
  return total;
}

}  // namespace zyl
