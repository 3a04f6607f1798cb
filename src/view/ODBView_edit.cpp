// Inserting, deleting and removing rows through a view, and the handling of
// deletions announced by the source.
//
// Message protocol. A view that loses rows on a "recordsDeleted" message from
// its source drops them one at a time; each drop announces the dropped
// position (numbered as the view stood at that moment) to the views stacked
// on it, and after the whole message the view sends a closing
// "recordsDeleted" list (for the drop caused by the k-th number at position
// j, the number k + j - 1) and a "recordsChanged" message without text.
// Stacked views apply the per-row messages and ignore the closing list.
//
// Doing each drop literally moves the rest of the index every time. Instead
// the final index is computed in one pass and the messages are issued
// afterwards, exactly as the literal steps would issue them; see
// ODBView_internal.h. While a view issues such a batch, the views stacked on
// it queue what they hear and catch up in one pass when the batch ends.

#include <zyldb/view/ODBView.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "view/ODBView_internal.h"

namespace {

constexpr int kMinIndexCapacity = 20;

// A Fenwick tree of counts over positions 0..n-1.
class CountTree {
 public:
  explicit CountTree(size_t n) : tree_(n + 1, 0) {}
  // Every position holding 1.
  void fillOnes() {
    for (size_t i = 1; i < tree_.size(); ++i) tree_[i] = static_cast<int32_t>(i & (~i + 1));
  }
  void add(size_t pos, int32_t delta) {
    for (size_t i = pos + 1; i < tree_.size(); i += i & (~i + 1)) tree_[i] += delta;
  }
  // The sum over positions 0..pos-1.
  int64_t prefix(size_t pos) const {
    int64_t s = 0;
    for (size_t i = pos; i > 0; i -= i & (~i + 1)) s += tree_[i];
    return s;
  }
  // The position of the (rank+1)-th unit. REQUIRES: that many units.
  size_t findRank(int64_t rank) const {
    size_t pos = 0;
    size_t step = 1;
    while (step * 2 < tree_.size()) step *= 2;
    int64_t remaining = rank + 1;
    for (; step > 0; step /= 2) {
      if (pos + step < tree_.size() && tree_[pos + step] < remaining) {
        pos += step;
        remaining -= tree_[pos];
      }
    }
    return pos;
  }

 private:
  std::vector<int32_t> tree_;
};

// Handling the numbers d_0, d_1, ... of deletion messages in turn (entries
// above d step down by one, entries equal to d go) is the same as deleting,
// from the line of all integers, the point that currently stands at d each
// time. Each step therefore names one original integer o_t, distinct from the
// others; an entry whose original row r equals some o_t goes at that step,
// and every other entry ends at r - #{o_t < r}. Returns the o_t.
std::vector<int64_t> originalPoints(const std::vector<int64_t>& d, int64_t count) {
  const size_t steps = d.size();
  std::vector<int64_t> o(steps);
  bool increasing = true;
  for (size_t t = 0; t < steps; ++t) {
    // When the points come in increasing order each lies above all earlier
    // ones, which shifted it down by t.
    o[t] = d[t] + static_cast<int64_t>(t);
    if (t > 0 && o[t] <= o[t - 1]) increasing = false;
  }
  if (increasing) return o;

  const int64_t lo = *std::min_element(d.begin(), d.end());
  const int64_t hi = *std::max_element(d.begin(), d.end()) + static_cast<int64_t>(steps);
  const int64_t span = hi - lo + 1;
  const int64_t limit =
      std::max<int64_t>(4 * (count + static_cast<int64_t>(steps)), int64_t{1} << 22);
  if (span <= limit) {
    // Every point lies in lo..hi; the point at value d is the (d - lo)-th
    // remaining one there.
    CountTree remaining(static_cast<size_t>(span));
    remaining.fillOnes();
    for (size_t t = 0; t < steps; ++t) {
      const size_t pos = remaining.findRank(d[t] - lo);
      remaining.add(pos, -1);
      o[t] = lo + static_cast<int64_t>(pos);
    }
    return o;
  }
  // Numbers spread too widely for a table over them (only hand-made
  // messages do that): keep the deleted points in a sorted list.
  std::vector<int64_t> deleted;
  for (size_t t = 0; t < steps; ++t) {
    int64_t u = d[t];
    for (int64_t x : deleted) {
      if (x > u) break;
      ++u;
    }
    deleted.insert(std::lower_bound(deleted.begin(), deleted.end(), u), u);
    o[t] = u;
  }
  return o;
}

// Raises a view's announcing depth for the lifetime of the object; when the
// outermost announcement ends, the views stacked on it that queued messages
// catch up.
class Announcement {
 public:
  Announcement(int32_t& depth, bool& closing) : depth_(depth), closing_(closing) { ++depth_; }
  ~Announcement() {
    closing_ = false;
    --depth_;
  }
  Announcement(const Announcement&) = delete;
  Announcement& operator=(const Announcement&) = delete;

 private:
  int32_t& depth_;
  bool& closing_;
};

void issueText(ODBViewRep& v, const GrowString& text, int type) {
  v.issueNotification(NotifyMsg(text.str(), nullptr), type);
}

}  // namespace

namespace zyl {

ODBViewInternal::CapacityTrace ODBViewInternal::traceShrink(int32_t capacity,
                                                            const std::vector<RemovalStep>& steps) {
  CapacityTrace trace;
  trace.keepBelow.assign(steps.size(), INT64_MAX);
  int64_t cap = capacity;
  for (size_t t = 0; t < steps.size(); ++t) {
    const int64_t length = steps[t].length;
    const int64_t n = length - steps[t].n;
    if (n == 0) {
      cap = 0;
      trace.keepBelow[t] = 0;
      trace.reallocated = true;
      continue;
    }
    const int64_t want = std::max<int64_t>(n, kMinIndexCapacity);
    int64_t fresh = cap;
    if (want <= cap) {
      if (cap > 2 * want) fresh = cap / 2;
    } else {
      fresh = std::min<int64_t>(std::max(2 * cap, want), INT_MAX);
    }
    if (fresh != cap) {
      trace.keepBelow[t] = fresh < length ? want : length;
      trace.reallocated = true;
      cap = fresh;
    }
  }
  for (size_t t = steps.size(); t-- > 1;)
    trace.keepBelow[t - 1] = std::min(trace.keepBelow[t - 1], trace.keepBelow[t]);
  trace.finalCapacity = static_cast<int32_t>(cap);
  return trace;
}

namespace {

// Finishes a removal sequence whose survivors are already compacted into
// v's first `newCount` slots: sets the capacity, and the slots past the
// count to `tail`, tail[t] being what step t leaves in slot `tailSlot[t]`.
template <class Index>
void settleIndex(Index& idx, int32_t& capacity, int32_t& count, int32_t newCount,
                 const ODBViewInternal::CapacityTrace& trace,
                 const std::vector<ODBViewIndexEntry>& tail, const std::vector<int64_t>& tailSlot,
                 const std::vector<size_t>& tailStep) {
  const int32_t cap = trace.finalCapacity;
  if (cap != capacity) {
    ODBViewIndexEntry* fresh = nullptr;
    if (cap > 0) {
      fresh = new ODBViewIndexEntry[static_cast<size_t>(cap)]();
      std::memcpy(fresh, idx, static_cast<size_t>(newCount) * sizeof(ODBViewIndexEntry));
      for (size_t i = 0; i < tail.size(); ++i) {
        const int64_t s = tailSlot[i];
        if (s < cap && s < trace.keepBelow[tailStep[i]]) fresh[s] = tail[i];
      }
    }
    delete[] idx;
    idx = fresh;
    capacity = cap;
  } else {
    for (size_t i = 0; i < tail.size(); ++i) idx[tailSlot[i]] = tail[i];
  }
  count = newCount;
}

}  // namespace

void ODBViewInternal::applyDeletions(ODBViewRep& v, const std::vector<int32_t>& values,
                                     const std::vector<uint32_t>& groupEnds) {
  const size_t steps = values.size();
  if (steps == 0) return;

  // Step t handles number k of its message: it compares against value - k.
  std::vector<int64_t> d(steps);
  std::vector<uint32_t> groupStart(steps);
  {
    size_t g = 0;
    uint32_t start = 0;
    for (size_t t = 0; t < steps; ++t) {
      while (g < groupEnds.size() && groupEnds[g] <= t) start = groupEnds[g++];
      groupStart[t] = start;
      d[t] = static_cast<int64_t>(values[t]) - static_cast<int64_t>(t - start);
    }
  }
  const int32_t count0 = v.count_;
  const std::vector<int64_t> o = originalPoints(d, count0);

  // The points in increasing order, with the step that deletes each.
  std::vector<std::pair<int64_t, uint32_t>> points(steps);
  for (size_t t = 0; t < steps; ++t) points[t] = {o[t], static_cast<uint32_t>(t)};
  if (!std::is_sorted(points.begin(), points.end())) std::sort(points.begin(), points.end());

  // One pass: survivors renumbered and compacted to the front; the dropped
  // entries recorded with their step and original position. Slots at or
  // past the new count keep their old contents, which the tail needs.
  struct Drop {
    uint32_t step;
    int32_t pos;
  };
  std::vector<Drop> drops;
  ODBViewIndexEntry* idx = v.index_;
  const int64_t lowest = points.front().first, highest = points.back().first;
  int32_t w = 0;
  for (int32_t p = 0; p < count0; ++p) {
    ODBViewIndexEntry e = idx[p];
    const int64_t r = static_cast<int32_t>(e.row);
    // Most entries lie below or above every point: no search for those.
    size_t below = steps;
    if (r < lowest) {
      below = 0;
    } else if (r <= highest) {
      below = static_cast<size_t>(
          std::lower_bound(points.begin(), points.end(), std::make_pair(r, uint32_t{0})) -
          points.begin());
      if (points[below].first == r) {
        drops.push_back({points[below].second, p});
        continue;
      }
    }
    e.row -= static_cast<uint32_t>(below);
    idx[w++] = e;
  }
  if (drops.empty()) return;

  // The drops in the order the steps make them: by step, then position.
  const size_t dropped = drops.size();
  std::vector<uint32_t> order(dropped);
  for (size_t i = 0; i < dropped; ++i) order[i] = static_cast<uint32_t>(i);
  const bool positionOrder = std::is_sorted(
      drops.begin(), drops.end(), [](const Drop& a, const Drop& b) { return a.step < b.step; });
  if (!positionOrder)
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return drops[a].step < drops[b].step; });

  // Each drop's position at its moment: its original position less the
  // drops before it (in step order) that lay below it.
  std::vector<int64_t> at(dropped);
  std::vector<size_t> rankOf(dropped);
  if (positionOrder) {
    for (size_t t = 0; t < dropped; ++t) {
      at[t] = drops[t].pos - static_cast<int64_t>(t);
      rankOf[t] = t;
    }
  } else {
    CountTree before(dropped);
    for (size_t t = 0; t < dropped; ++t) {
      const uint32_t i = order[t];
      at[t] = drops[i].pos - before.prefix(i);
      before.add(i, 1);
      rankOf[i] = t;
    }
  }

  // A drop leaves the last entry of the list of that moment in the slot
  // that falls out of the count: the highest original position not dropped
  // before it.
  std::vector<ODBViewIndexEntry> tail(dropped);
  std::vector<int64_t> tailSlot(dropped);
  std::vector<size_t> tailStep(dropped);
  std::vector<ODBViewInternal::RemovalStep> shrink(dropped);
  {
    int64_t hi = count0 - 1;
    int64_t q = static_cast<int64_t>(dropped) - 1;
    for (size_t t = 0; t < dropped; ++t) {
      for (;;) {
        while (q >= 0 && drops[static_cast<size_t>(q)].pos > hi) --q;
        if (q >= 0 && drops[static_cast<size_t>(q)].pos == hi &&
            rankOf[static_cast<size_t>(q)] < t) {
          --hi;
          continue;
        }
        break;
      }
      tail[t] = idx[hi];
      tailSlot[t] = count0 - 1 - static_cast<int64_t>(t);
      tailStep[t] = t;
      shrink[t] = {count0 - static_cast<int64_t>(t), 1};
    }
  }
  const CapacityTrace trace = traceShrink(v.capacity_, shrink);
  settleIndex(v.index_, v.capacity_, v.count_, w, trace, tail, tailSlot, tailStep);

  // The messages, message by message: each drop's position, then the
  // closing list and "recordsChanged" for a message that cost rows.
  Announcement announcing(v.announcing_, v.announcingClosing_);
  const bool listeners = v.numListeners() > 0;
  const int deletedType = recordsDeletedType();
  size_t t = 0;
  while (t < dropped) {
    const uint32_t start = groupStart[drops[order[t]].step];
    GrowString closing;
    GrowString one;
    for (; t < dropped && groupStart[drops[order[t]].step] == start; ++t) {
      const int64_t k = drops[order[t]].step - start;
      if (listeners) {
        one.clear();
        one << static_cast<long long>(at[t]) << ' ';
        issueText(v, one, deletedType);
      }
      closing << static_cast<long long>(k + at[t] - 1) << ' ';
    }
    v.announcingClosing_ = true;
    issueText(v, closing, deletedType);
    v.announcingClosing_ = false;
    v.issueNotification(NotifyMsg(), recordsChangedType());
  }
}

int ODBViewInternal::removeRuns(ODBViewRep& v, bool (ODBViewRep::*pred)(int)) {
  const int32_t count0 = v.count_;
  // The runs in original positions; the predicate looks only at the row's
  // own entry, so evaluating it before any removal gives the same runs.
  std::vector<std::pair<int32_t, int32_t>> runs;
  int32_t start = -1;
  for (int32_t p = 0; p < count0; ++p) {
    if ((v.*pred)(p)) {
      if (start < 0) start = p;
    } else if (start >= 0) {
      runs.push_back({start, p - start});
      start = -1;
    }
  }
  if (start >= 0) runs.push_back({start, count0 - start});
  if (runs.empty()) return 0;

  std::vector<RemovalStep> shrink(runs.size());
  int64_t removed = 0;
  for (size_t i = 0; i < runs.size(); ++i) {
    shrink[i] = {count0 - removed, runs[i].second};
    removed += runs[i].second;
  }
  const int32_t newCount = count0 - static_cast<int32_t>(removed);

  // Removing a run leaves the last n entries of the list of that moment in
  // the n slots that fall out of the count. Runs go from the front, so those
  // are always the original last n entries.
  int64_t longest = 0;
  for (const auto& r : runs) longest = std::max<int64_t>(longest, r.second);
  ODBViewIndexEntry* idx = v.index_;
  const std::vector<ODBViewIndexEntry> top(idx + count0 - longest, idx + count0);

  int32_t w = 0;
  {
    size_t r = 0;
    for (int32_t p = 0; p < count0; ++p) {
      while (r < runs.size() && p >= runs[r].first + runs[r].second) ++r;
      if (r < runs.size() && p >= runs[r].first) continue;
      idx[w++] = idx[p];
    }
  }

  std::vector<ODBViewIndexEntry> tail;
  std::vector<int64_t> tailSlot;
  std::vector<size_t> tailStep;
  tail.reserve(static_cast<size_t>(removed));
  tailSlot.reserve(static_cast<size_t>(removed));
  tailStep.reserve(static_cast<size_t>(removed));
  for (size_t i = 0; i < runs.size(); ++i) {
    const int64_t length = shrink[i].length;
    const int64_t n = shrink[i].n;
    for (int64_t s = length - n; s < length; ++s) {
      tail.push_back(top[static_cast<size_t>(longest - n + (s - (length - n)))]);
      tailSlot.push_back(s);
      tailStep.push_back(i);
    }
  }
  const CapacityTrace trace = traceShrink(v.capacity_, shrink);
  settleIndex(v.index_, v.capacity_, v.count_, newCount, trace, tail, tailSlot, tailStep);

  if (v.numListeners() > 0) {
    Announcement announcing(v.announcing_, v.announcingClosing_);
    const int deletedType = recordsDeletedType();
    int64_t before = 0;
    GrowString text;
    for (const auto& r : runs) {
      text.clear();
      const int64_t at = r.first - before;
      for (int64_t j = at; j < at + r.second; ++j) text << static_cast<long long>(j) << ' ';
      issueText(v, text, deletedType);
      before += r.second;
    }
  }
  if (v.announcing_ == 0) v.flushDeferredStacked();
  return static_cast<int>(removed);
}

void ODBViewInternal::insertEach(ODBViewRep& v, const std::vector<uint32_t>& rows, int at) {
  if (rows.empty()) return;
  if (at < 0 || at >= v.count_) {
    // Before the front each goes in at 0 until the positions turn
    // non-negative; at the end each is an append. Both are cheap one by one.
    for (uint32_t row : rows) v.displayRecordsAt(static_cast<int>(row), 1, at++);
    return;
  }
  const int64_t k = static_cast<int64_t>(rows.size());
  const int32_t count0 = v.count_;
  if (k > INT_MAX - count0) return;
  // In the middle, each insertion opens the slot of the entry first found at
  // `at`, which moves up ahead of the new ones: every new entry takes that
  // entry's tag. The capacity follows one sizeIndexFor per insertion; a
  // reallocation keeps the live entries and clears the slots past them.
  int64_t cap = v.capacity_;
  for (int64_t c = count0; c < count0 + k; ++c) {
    const int64_t want = std::max<int64_t>(c + 1, kMinIndexCapacity);
    if (want <= cap) {
      if (cap > 2 * want) cap /= 2;
    } else {
      cap = std::min<int64_t>(std::max(2 * cap, want), INT_MAX);
    }
  }
  const uint8_t tag = v.index_[at].tag;
  ODBViewIndexEntry* idx = v.index_;
  const size_t moved = static_cast<size_t>(count0 - at);
  if (cap != v.capacity_) {
    ODBViewIndexEntry* fresh = new ODBViewIndexEntry[static_cast<size_t>(cap)]();
    std::memcpy(fresh, idx, static_cast<size_t>(at) * sizeof(*idx));
    std::memcpy(fresh + at + k, idx + at, moved * sizeof(*idx));
    delete[] idx;
    v.index_ = idx = fresh;
    v.capacity_ = static_cast<int32_t>(cap);
  } else {
    std::memmove(idx + at + k, idx + at, moved * sizeof(*idx));
  }
  for (int64_t i = 0; i < k; ++i) idx[at + i] = {rows[static_cast<size_t>(i)], tag};
  v.count_ = count0 + static_cast<int32_t>(k);
}

void ODBViewInternal::processQueued(ODBViewRep& v) {
  if (v.queuedGroupEnds_.empty()) return;
  std::vector<int32_t> values = std::move(v.queuedRows_);
  std::vector<uint32_t> ends = std::move(v.queuedGroupEnds_);
  v.queuedRows_.clear();
  v.queuedGroupEnds_.clear();
  applyDeletions(v, values, ends);
  if (v.announcing_ == 0) v.flushDeferredStacked();
}

}  // namespace zyl

// ---- Editing ------------------------------------------------------------------

void ODBViewRep::insertBlankRecords(int at, int n) {
  ODBBase* src = source();
  if (!src || n < 0 || n > INT_MAX - count_) return;
  int pos;
  uint32_t first;
  const int inside = std::max(at, 0);
  if (count_ > at && count_ > inside) {
    pos = inside;
    first = index_[pos].row;
    src->insert_records(first, static_cast<unsigned int>(n));
  } else {
    pos = count_;
    first = src->get_num_records();
    src->add_records(n);
  }
  sizeIndexFor(count_ + n);
  // The view is taken to be in source order: the entries from `pos` on name
  // the source rows that moved up; those before it are left alone.
  for (int j = count_ - 1; j >= pos; --j) {
    index_[j + n].row = index_[j].row + static_cast<uint32_t>(n);
    index_[j + n].tag = index_[j].tag;
  }
  for (int i = 0; i < n; ++i) index_[pos + i].row = first + static_cast<uint32_t>(i);
  count_ += n;
}

void ODBViewRep::deleteRecords(int at, int n) {
  if (at < 0) return;
  for (;;) {
    ODBBase* src = source();
    const int64_t m = std::min<int64_t>(n, static_cast<int64_t>(count_) - at);
    if (!src || m < 1) return;
    // A run of consecutive source rows goes in one call. The bound is
    // measured from `at`, which only splits a deletion into more calls.
    int64_t run = 1;
    if (m - 1 > at) {
      while (run < m - at && index_[at + run].row == index_[at].row + static_cast<uint32_t>(run))
        ++run;
    }
    src->delete_records(index_[at].row, static_cast<unsigned int>(run));
    n = static_cast<int>(m - run);
    if (n < 1) return;
  }
}

namespace {

// Scans rows upward and calls drop(start, n) for every run of rows for which
// inRun(row) holds; `count` is read again at every step, since a drop shrinks
// the view. After a drop the scan goes on at start + 1: the row that ended the
// run now stands at `start`. Returns the number of rows dropped.
template <class Count, class InRun, class Drop>
int dropRuns(Count count, InRun inRun, Drop drop) {
  int total = 0;
  int start = -1;
  for (int row = 0; row < count(); ++row) {
    if (inRun(row)) {
      if (start < 0) start = row;
    } else if (start >= 0) {
      drop(start, row - start);
      total += row - start;
      row = start;
      start = -1;
    }
  }
  if (start >= 0) {
    const int n = count() - start;
    drop(start, n);
    total += n;
  }
  return total;
}

}  // namespace

int ODBViewRep::deleteTagged() {
  if (count_ == 0) return 0;
  return dropRuns([this] { return count_; }, [this](int row) { return index_[row].tag != 0; },
                  [this](int at, int n) { deleteRecords(at, n); });
}

void ODBViewRep::remove(int at, int n) {
  if (at < 0 || at >= count_ || n < 0) return;
  if (static_cast<int64_t>(at) + n > count_) {
    n = count_ - at;
  } else {
    std::memmove(index_ + at, index_ + at + n,
                 static_cast<size_t>(count_ - at - n) * sizeof(*index_));
  }
  sizeIndexFor(count_ - n);
  count_ -= n;
  // The list is for the views stacked on this one; with nobody listening
  // there is nothing to build.
  if (numListeners() == 0) return;
  GrowString text;
  for (int j = at; j < at + n; ++j) text << static_cast<long long>(j) << ' ';
  issueText(*this, text, zyl::ODBViewInternal::recordsDeletedType());
}

void ODBViewRep::removeRecordsFromBaseView(int at, int n) {
  if (at < 0) return;
  for (;;) {
    const int64_t m = std::min<int64_t>(static_cast<int64_t>(count_) - at, n);
    if (!baseView_) {
      if (table_ && m >= 1) remove(at, static_cast<int>(m));
      return;
    }
    if (m < 1) return;
    int64_t run = 1;
    if (at < m - 1) {
      while (run < m - at && index_[at + run].row == index_[at].row + static_cast<uint32_t>(run))
        ++run;
    }
    baseView_->removeRecordsFromBaseView(static_cast<int>(index_[at].row), static_cast<int>(run));
    n = static_cast<int>(m - run);
    if (n < 1) return;
  }
}

int ODBViewRep::removeSome(bool (ODBViewRep::*pred)(int)) {
  if (count_ == 0 || !pred) return 0;
  if (!baseView_ && table_) return zyl::ODBViewInternal::removeRuns(*this, pred);
  return dropRuns([this] { return count_; }, [this, pred](int row) { return (this->*pred)(row); },
                  [this](int at, int n) { removeRecordsFromBaseView(at, n); });
}

int ODBViewRep::removeTagged() { return removeSome(&ODBViewRep::tag); }

int ODBViewRep::removeNonTagged() { return removeSome(&ODBViewRep::notTagged); }

int ODBViewRep::recordsDeletedNotify(const NotifyMsg& msg) {
  // Messages queued earlier come first.
  zyl::ODBViewInternal::processQueued(*this);
  std::vector<int32_t> values;
  for (NotifyMsgTokenIterator it(msg); !it.atEnd(); ++it)
    values.push_back(static_cast<int32_t>(it.asLong()));
  const std::vector<uint32_t> ends{static_cast<uint32_t>(values.size())};
  zyl::ODBViewInternal::applyDeletions(*this, values, ends);
  if (announcing_ == 0) flushDeferredStacked();
  return 0;
}
