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
// ODBView_internal.h. When the host listens to the view, each per-row
// message is delivered with the view as it stands after that drop (the rows
// still to go read as rows without record); otherwise the view is already in
// its final state, since only stacked views hear it and they catch up
// afterwards.
//
// Busy views. While a view announces (issues its messages and lets its
// stacked views catch up), the views stacked on it join the announcement and
// apply its list in one pass at the end; a deletion reaching the view from
// its source waits in its queue and is applied after the announcement; and
// changes to the view's own rows are refused. Deleting through the table
// with deleteTagged or deleteRecords lets the table remove every run in one
// pass (RowDeletion); the views of the table join that deletion and catch up
// in one pass when its messages have gone.

#include <zyldb/platform/Logging.h>
#include <zyldb/view/ODBView.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "db/NotifyTypes_internal.h"
#include "db/RowRuns_internal.h"
#include "view/ODBView_internal.h"

namespace {

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

// Raises a view's announcing depth for the lifetime of the object.
class Busy {
 public:
  explicit Busy(int32_t& depth) : depth_(depth) { ++depth_; }
  ~Busy() { --depth_; }
  Busy(const Busy&) = delete;
  Busy& operator=(const Busy&) = delete;

 private:
  int32_t& depth_;
};

// Issues one message, holding the first exception a listener throws so that
// the rest of the announcement still goes out.
void issue(ODBViewRep& v, const NotifyMsg& msg, int type, std::exception_ptr& failure) {
  try {
    v.issueNotification(msg, type);
  } catch (...) {
    if (!failure) failure = std::current_exception();
  }
}

void issueText(ODBViewRep& v, const GrowString& text, int type, std::exception_ptr& failure) {
  issue(v, NotifyMsg(text.str(), nullptr), type, failure);
}

// The source row of an entry that has gone from the source but whose drop is
// not announced yet: it names no record.
constexpr uint32_t kGoneRow = UINT32_MAX;

// Renumbers entries for the deleted source rows `points` (ascending, as
// numbered before the deletion) and drops the entries naming one, in place.
// Returns the new count. Never allocates.
int32_t applyKnownPoints(ODBViewIndexEntry* idx, int32_t count, const uint32_t* points,
                         size_t n) noexcept {
  int32_t w = 0;
  for (int32_t p = 0; p < count; ++p) {
    ODBViewIndexEntry e = idx[p];
    const uint32_t* at = std::lower_bound(points, points + n, e.row);
    if (at != points + n && *at == e.row) continue;
    e.row -= static_cast<uint32_t>(at - points);
    idx[w++] = e;
  }
  return w;
}

}  // namespace

namespace zyl {

ODBViewInternal::CapacityTrace ODBViewInternal::traceShrink(int32_t capacity,
                                                            const std::vector<RemovalStep>& steps) {
  CapacityTrace trace;
  trace.keepBelow.assign(steps.size(), INT64_MAX);
  int32_t cap = capacity;
  for (size_t t = 0; t < steps.size(); ++t) {
    const int64_t length = steps[t].length;
    const int64_t n = length - steps[t].n;
    const int32_t fresh = ViewIndex::capacityFor(cap, n);
    if (n == 0) {
      trace.keepBelow[t] = 0;
      trace.reallocated = true;
    } else if (fresh != cap) {
      trace.keepBelow[t] = fresh < length ? std::max<int64_t>(n, ViewIndex::kMinCapacity) : length;
      trace.reallocated = true;
    }
    cap = fresh;
  }
  for (size_t t = steps.size(); t-- > 1;)
    trace.keepBelow[t - 1] = std::min(trace.keepBelow[t - 1], trace.keepBelow[t]);
  trace.finalCapacity = cap;
  return trace;
}

namespace {

// What a removal sequence leaves outside the live entries: the slots past
// the count (tail[i] goes to slot tailSlot[i], unless a reallocation at or
// after step tailStep[i] dropped it) and the final capacity, with the array
// to move to when the capacity changes (allocated while preparing).
struct Settlement {
  ODBViewInternal::CapacityTrace trace;
  std::vector<ODBViewIndexEntry> tail;
  std::vector<int64_t> tailSlot;
  std::vector<size_t> tailStep;
  std::unique_ptr<ODBViewIndexEntry[]> fresh;

  void prepare(int32_t capacity) {
    if (trace.finalCapacity != capacity && trace.finalCapacity > 0)
      fresh.reset(ViewIndex::allocate(trace.finalCapacity));
  }
  // Finishes a sequence whose survivors are already compacted into the
  // first `newCount` slots.
  void commit(ViewIndex& idx, int32_t newCount) noexcept {
    const int32_t cap = trace.finalCapacity;
    if (cap != idx.capacity()) {
      ODBViewIndexEntry* next = fresh.release();
      if (next) {
        std::memcpy(next, idx.data(), static_cast<size_t>(newCount) * sizeof(ODBViewIndexEntry));
        for (size_t i = 0; i < tail.size(); ++i) {
          const int64_t s = tailSlot[i];
          if (s < cap && s < trace.keepBelow[tailStep[i]]) next[s] = tail[i];
        }
      }
      idx.adopt(next, cap);
    } else {
      for (size_t i = 0; i < tail.size(); ++i) idx[tailSlot[i]] = tail[i];
    }
    idx.setCount(newCount);
  }
};

}  // namespace

size_t ODBViewInternal::stackedCount(const ODBViewRep& v) noexcept {
  size_t n = 0;
  for (const ODBViewRep* c = v.firstStacked_; c; c = c->nextStacked_) ++n;
  return n;
}

void ODBViewInternal::resetAfterLoss(ODBViewRep& v) noexcept {
  v.index_.clear();
  v.queuedRows_.clear();
  v.queuedGroupEnds_.clear();
  v.lost_ = false;
  for (ODBViewRep* c = v.firstStacked_; c; c = c->nextStacked_) resetAfterLoss(*c);
}

void ODBViewInternal::queue(ODBViewRep& v, const int32_t* values, size_t n) noexcept {
  try {
    v.queuedRows_.insert(v.queuedRows_.end(), values, values + n);
    v.queuedGroupEnds_.push_back(static_cast<uint32_t>(v.queuedRows_.size()));
  } catch (...) {
    v.lost_ = true;
  }
}

std::exception_ptr ODBViewInternal::applyDeletions(ODBViewRep& v,
                                                   const std::vector<int32_t>& values,
                                                   const std::vector<uint32_t>& groupEnds) {
  const size_t steps = values.size();
  if (steps == 0) return nullptr;

  // ---- Prepare: everything that allocates. ----
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
  const int32_t count0 = v.index_.count();
  const std::vector<int64_t> o = originalPoints(d, count0);

  // The points in increasing order, with the step that deletes each.
  std::vector<std::pair<int64_t, uint32_t>> points(steps);
  for (size_t t = 0; t < steps; ++t) points[t] = {o[t], static_cast<uint32_t>(t)};
  if (!std::is_sorted(points.begin(), points.end())) std::sort(points.begin(), points.end());
  const int64_t lowest = points.front().first, highest = points.back().first;
  // How many points lie below an entry's row, and whether one equals it.
  auto locate = [&](int64_t r, bool& hit) -> size_t {
    hit = false;
    if (r < lowest) return 0;
    if (r > highest) return steps;
    const size_t below = static_cast<size_t>(
        std::lower_bound(points.begin(), points.end(), std::make_pair(r, uint32_t{0})) -
        points.begin());
    hit = points[below].first == r;
    return below;
  };

  // The dropped entries with their step and original position.
  struct Drop {
    uint32_t step;
    int32_t pos;
  };
  std::vector<Drop> drops;
  ODBViewIndexEntry* idx = v.index_.data();
  for (int32_t p = 0; p < count0; ++p) {
    bool hit;
    const size_t below = locate(static_cast<int32_t>(idx[p].row), hit);
    if (hit) drops.push_back({points[below].second, p});
  }
  const size_t dropped = drops.size();
  const int32_t newCount = count0 - static_cast<int32_t>(dropped);

  // The drops in the order the steps make them: by step, then position.
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
  Settlement settle;
  settle.tail.resize(dropped);
  settle.tailSlot.resize(dropped);
  settle.tailStep.resize(dropped);
  {
    std::vector<ODBViewInternal::RemovalStep> shrink(dropped);
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
      settle.tail[t] = idx[hi];
      settle.tailSlot[t] = count0 - 1 - static_cast<int64_t>(t);
      settle.tailStep[t] = t;
      shrink[t] = {count0 - static_cast<int64_t>(t), 1};
    }
    settle.trace = traceShrink(v.index_.capacity(), shrink);
  }
  if (dropped > 0) settle.prepare(v.index_.capacity());

  // What the stacked views will apply: one message per drop.
  const size_t listeners = v.numListeners();
  const bool host = listeners > stackedCount(v);
  std::vector<int32_t> announced(dropped);
  std::vector<uint32_t> announcedEnds(dropped);
  for (size_t t = 0; t < dropped; ++t) {
    announced[t] = static_cast<int32_t>(at[t]);
    announcedEnds[t] = static_cast<uint32_t>(t + 1);
  }
  v.deferredStacked_.reserve(listeners);

  // ---- Commit: renumber, and drop now unless the host watches each drop.
  int32_t w = 0;
  for (int32_t p = 0; p < count0; ++p) {
    ODBViewIndexEntry e = idx[p];
    bool hit;
    const size_t below = locate(static_cast<int32_t>(e.row), hit);
    if (hit) {
      if (!host) continue;
      e.row = kGoneRow;
    } else {
      e.row -= static_cast<uint32_t>(below);
    }
    idx[w++] = e;
  }
  if (dropped == 0) return nullptr;
  if (!host) settle.commit(v.index_, newCount);

  // ---- Announce, message by message: each drop's position, then the
  // closing list and "recordsChanged" for a message that cost rows.
  std::exception_ptr failure;
  {
    Busy busy(v.announcing_);
    v.announcedRows_.swap(announced);
    v.announcedEnds_.swap(announcedEnds);
    const int deletedType = recordsDeletedType();
    size_t t = 0;
    while (t < dropped) {
      const uint32_t start = groupStart[drops[order[t]].step];
      GrowString closing;
      GrowString one;
      for (; t < dropped && groupStart[drops[order[t]].step] == start; ++t) {
        const int64_t k = drops[order[t]].step - start;
        if (host) {
          const int32_t n = v.index_.count();
          std::memmove(idx + at[t], idx + at[t] + 1,
                       static_cast<size_t>(n - 1 - at[t]) * sizeof(ODBViewIndexEntry));
          v.index_.setCount(n - 1);
        }
        if (listeners > 0) {
          try {
            one.clear();
            one << static_cast<long long>(at[t]) << ' ';
            closing << static_cast<long long>(k + at[t] - 1) << ' ';
          } catch (...) {
            if (!failure) failure = std::current_exception();
          }
          issueText(v, one, deletedType, failure);
        }
      }
      if (listeners > 0) {
        v.announcingClosing_ = true;
        issueText(v, closing, deletedType, failure);
        v.announcingClosing_ = false;
        issue(v, NotifyMsg(), recordsChangedType(), failure);
      }
    }
    if (host) settle.commit(v.index_, newCount);
    // The stacked views catch up, one at a time from the front: one brought
    // up to date may cause another to leave the list.
    while (!v.deferredStacked_.empty()) {
      ODBViewRep* c = v.deferredStacked_.front();
      v.deferredStacked_.erase(v.deferredStacked_.begin());
      baseAnnouncementEnded(*c);
    }
    v.announcedRows_.clear();
    v.announcedEnds_.clear();
  }
  return failure;
}

void ODBViewInternal::applyDeletionsSafe(ODBViewRep& v, std::vector<int32_t>& values,
                                         const std::vector<uint32_t>& groupEnds,
                                         const std::vector<uint32_t>* known) noexcept {
  try {
    applyDeletions(v, values, groupEnds);
    return;
  } catch (...) {
  }
  // Out of memory before anything changed. The deleted points are known
  // when the caller has them, or when the numbers are one strictly
  // ascending message (each then names its row as numbered before any of
  // them, as tables and views send them).
  bool ascending = groupEnds.size() == 1 && !values.empty() && values[0] >= 0;
  for (size_t k = 1; ascending && k < values.size(); ++k) ascending = values[k] > values[k - 1];
  if (known) {
    v.index_.setCount(
        applyKnownPoints(v.index_.data(), v.index_.count(), known->data(), known->size()));
  } else if (ascending) {
    v.index_.setCount(applyKnownPoints(v.index_.data(), v.index_.count(),
                                       reinterpret_cast<const uint32_t*>(values.data()),
                                       values.size()));
  } else {
    v.index_.clear();
  }
  for (ODBViewRep* c = v.firstStacked_; c; c = c->nextStacked_) resetAfterLoss(*c);
}

void ODBViewInternal::processQueued(ODBViewRep& v) noexcept {
  while (v.announcing_ == 0 && !v.joinedTable_ && !v.joinedBase_ &&
         (!v.queuedGroupEnds_.empty() || v.lost_)) {
    if (v.lost_) {
      resetAfterLoss(v);
      return;
    }
    std::vector<int32_t> values = std::move(v.queuedRows_);
    std::vector<uint32_t> ends = std::move(v.queuedGroupEnds_);
    v.queuedRows_.clear();
    v.queuedGroupEnds_.clear();
    applyDeletionsSafe(v, values, ends, nullptr);
  }
}

void ODBViewInternal::tableDeletionEnded(void* view, const RowDeletion& deletion) noexcept {
  ODBViewRep& v = *static_cast<ODBViewRep*>(view);
  v.joinedTable_ = false;
  if (v.announcing_ > 0) {
    // A listener of this view deleted through the table: after the
    // announcement under way.
    const std::vector<int32_t>& values = deletion.values();
    size_t begin = 0;
    for (uint32_t end : deletion.groupEnds()) {
      queue(v, values.data() + begin, end - begin);
      begin = end;
    }
    return;
  }
  // The deletion's numbers go first; what was queued meanwhile came after.
  std::vector<int32_t> later = std::move(v.queuedRows_);
  std::vector<uint32_t> laterEnds = std::move(v.queuedGroupEnds_);
  v.queuedRows_.clear();
  v.queuedGroupEnds_.clear();
  try {
    std::vector<int32_t> values = deletion.values();
    applyDeletionsSafe(v, values, deletion.groupEnds(), &deletion.deleted());
  } catch (...) {
    // Not even a copy of the numbers: the deleted rows are known.
    v.index_.setCount(applyKnownPoints(v.index_.data(), v.index_.count(), deletion.deleted().data(),
                                       deletion.deleted().size()));
    for (ODBViewRep* c = v.firstStacked_; c; c = c->nextStacked_) resetAfterLoss(*c);
  }
  if (!later.empty()) {
    v.queuedRows_ = std::move(later);
    v.queuedGroupEnds_ = std::move(laterEnds);
  }
  processQueued(v);
}

void ODBViewInternal::baseAnnouncementEnded(ODBViewRep& v) noexcept {
  v.joinedBase_ = false;
  const ODBViewRep* base = v.baseView_;
  if (!base) return;
  const std::vector<int32_t>& values = base->announcedRows_;
  const std::vector<uint32_t>& ends = base->announcedEnds_;
  if (v.announcing_ > 0 || !v.queuedGroupEnds_.empty()) {
    size_t begin = 0;
    for (uint32_t end : ends) {
      queue(v, values.data() + begin, end - begin);
      begin = end;
    }
    processQueued(v);
    return;
  }
  try {
    std::vector<int32_t> copy = values;
    applyDeletionsSafe(v, copy, ends, nullptr);
  } catch (...) {
    resetAfterLoss(v);
  }
  processQueued(v);
}

int ODBViewInternal::removeRuns(ODBViewRep& v, bool (ODBViewRep::*pred)(int)) {
  const int32_t count0 = v.index_.count();
  // The runs in original positions; the predicate looks only at the row's
  // own entry, so evaluating it before any removal gives the same runs.
  std::vector<std::pair<int32_t, int32_t>> runs;
  scanRuns([count0] { return int64_t{count0}; },
           [&](int64_t p) { return (v.*pred)(static_cast<int>(p)); },
           [&](int64_t start, int64_t n) -> int64_t {
             runs.push_back({static_cast<int32_t>(start), static_cast<int32_t>(n)});
             return 0;
           });
  if (runs.empty()) return 0;
  const size_t listeners = v.numListeners();
  if (listeners > stackedCount(v)) {
    // The host watches: the literal steps, each run's message with the view
    // as it stands then (and a deletion the host makes meanwhile applied
    // before the next run is looked for).
    return static_cast<int>(scanRuns([&v] { return int64_t{v.index_.count()}; },
                                     [&](int64_t p) { return (v.*pred)(static_cast<int>(p)); },
                                     [&](int64_t start, int64_t n) -> int64_t {
                                       v.remove(static_cast<int>(start), static_cast<int>(n));
                                       return n;
                                     }));
  }

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
  ODBViewIndexEntry* idx = v.index_.data();
  Settlement settle;
  settle.tail.reserve(static_cast<size_t>(removed));
  settle.tailSlot.reserve(static_cast<size_t>(removed));
  settle.tailStep.reserve(static_cast<size_t>(removed));
  for (size_t i = 0; i < runs.size(); ++i) {
    const int64_t length = shrink[i].length;
    const int64_t n = shrink[i].n;
    for (int64_t s = length - n; s < length; ++s) {
      settle.tail.push_back(idx[count0 - longest + longest - n + (s - (length - n))]);
      settle.tailSlot.push_back(s);
      settle.tailStep.push_back(i);
    }
  }
  settle.trace = traceShrink(v.index_.capacity(), shrink);
  settle.prepare(v.index_.capacity());
  std::vector<int32_t> announced(static_cast<size_t>(removed));
  std::vector<uint32_t> announcedEnds(runs.size());
  {
    int64_t before = 0;
    size_t j = 0;
    for (size_t i = 0; i < runs.size(); ++i) {
      const int64_t at = runs[i].first - before;
      for (int64_t p = at; p < at + runs[i].second; ++p) announced[j++] = static_cast<int32_t>(p);
      announcedEnds[i] = static_cast<uint32_t>(j);
      before += runs[i].second;
    }
  }
  v.deferredStacked_.reserve(listeners);

  // Commit.
  int32_t w = 0;
  {
    size_t r = 0;
    for (int32_t p = 0; p < count0; ++p) {
      while (r < runs.size() && p >= runs[r].first + runs[r].second) ++r;
      if (r < runs.size() && p >= runs[r].first) continue;
      idx[w++] = idx[p];
    }
  }
  settle.commit(v.index_, newCount);

  if (listeners > 0) {
    std::exception_ptr failure;
    {
      Busy busy(v.announcing_);
      v.announcedRows_.swap(announced);
      v.announcedEnds_.swap(announcedEnds);
      const int deletedType = recordsDeletedType();
      GrowString text;
      size_t begin = 0;
      for (uint32_t end : v.announcedEnds_) {
        text.clear();
        for (size_t j = begin; j < end; ++j)
          text << static_cast<long long>(v.announcedRows_[j]) << ' ';
        issueText(v, text, deletedType, failure);
        begin = end;
      }
      while (!v.deferredStacked_.empty()) {
        ODBViewRep* c = v.deferredStacked_.front();
        v.deferredStacked_.erase(v.deferredStacked_.begin());
        baseAnnouncementEnded(*c);
      }
      v.announcedRows_.clear();
      v.announcedEnds_.clear();
    }
    processQueued(v);
    if (failure) std::rethrow_exception(failure);
  }
  return static_cast<int>(removed);
}

void ODBViewInternal::insertEach(ODBViewRep& v, const std::vector<uint32_t>& rows, int at) {
  if (rows.empty() || v.refuseWhileAnnouncing("insert")) return;
  if (at < 0 || at >= v.index_.count()) {
    // Before the front each goes in at 0 until the positions turn
    // non-negative; at the end each is an append. Both are cheap one by one.
    for (uint32_t row : rows) v.displayRecordsAt(static_cast<int>(row), 1, at++);
    return;
  }
  const int64_t k = static_cast<int64_t>(rows.size());
  const int32_t count0 = v.index_.count();
  if (k > INT_MAX - count0) return;
  // In the middle, each insertion opens the slot of the entry first found at
  // `at`, which moves up ahead of the new ones: every new entry takes that
  // entry's tag. The capacity follows one sizeIndexFor per insertion; a
  // reallocation keeps the live entries and clears the slots past them.
  int32_t cap = v.index_.capacity();
  for (int64_t c = count0; c < count0 + k; ++c) cap = ViewIndex::capacityFor(cap, c + 1);
  const uint8_t tag = v.index_[at].tag;
  ODBViewIndexEntry* idx = v.index_.data();
  const size_t moved = static_cast<size_t>(count0 - at);
  if (cap != v.index_.capacity()) {
    ODBViewIndexEntry* fresh = ViewIndex::allocate(cap);
    std::memcpy(fresh, idx, static_cast<size_t>(at) * sizeof(*idx));
    std::memcpy(fresh + at + k, idx + at, moved * sizeof(*idx));
    v.index_.adopt(fresh, cap);
    idx = fresh;
  } else {
    std::memmove(idx + at + k, idx + at, moved * sizeof(*idx));
  }
  for (int64_t i = 0; i < k; ++i) idx[at + i] = {rows[static_cast<size_t>(i)], tag};
  v.index_.setCount(count0 + static_cast<int32_t>(k));
}

bool ODBViewInternal::deleteThroughTable(ODBViewRep& v,
                                         const std::vector<std::pair<int64_t, int64_t>>& runs) {
  zyldb* table = v.table_;
  if (v.baseView_ || !table || runs.empty() || !RowDeletion::canBatch(*table)) return false;
  const int32_t count0 = v.index_.count();
  const ODBViewIndexEntry* idx = v.index_.data();
  // Every entry must name its own row of the table, so that deleting a row
  // removes exactly one entry and nothing else moves.
  const uint32_t tableRows = table->get_num_records();
  {
    std::vector<bool> seen(tableRows);
    for (int32_t p = 0; p < count0; ++p) {
      const uint32_t r = idx[p].row;
      if (r >= tableRows || seen[r]) return false;
      seen[r] = true;
    }
  }
  // The rows that will go, sorted, so that a row's number of the moment is
  // its first number less the rows already gone below it.
  std::vector<uint32_t> doomed;
  for (const auto& run : runs) {
    const int64_t end = std::min<int64_t>(run.first + run.second, count0);
    for (int64_t p = run.first; p < end; ++p) doomed.push_back(idx[p].row);
  }
  std::sort(doomed.begin(), doomed.end());
  std::vector<int32_t> gone(doomed.size() + 1, 0);  // Fenwick tree over `doomed`
  auto slot = [&](uint32_t row) {
    return static_cast<size_t>(std::lower_bound(doomed.begin(), doomed.end(), row) -
                               doomed.begin());
  };
  auto now = [&](uint32_t row) {
    int64_t below = 0;
    for (size_t j = slot(row); j > 0; j -= j & (~j + 1)) below += gone[j];
    return static_cast<int64_t>(row) - below;
  };
  auto markGone = [&](uint32_t row) {
    for (size_t j = slot(row) + 1; j < gone.size(); j += j & (~j + 1)) ++gone[j];
  };

  // The calls deleteRecords would make, run by run: from position `at` of
  // the moment, a run of entries naming consecutive rows of the moment (one
  // row only when m - 1 <= at), while rows remain.
  std::vector<uint32_t> rows;
  std::vector<uint32_t> ends;
  rows.reserve(doomed.size());
  int64_t removed = 0;
  for (const auto& run : runs) {
    const int64_t at = run.first - removed;
    int64_t n = run.second;
    int64_t next = run.first;  // original position of the entry now at `at`
    for (;;) {
      const int64_t m = std::min<int64_t>(n, count0 - removed - at);
      if (m < 1) break;
      int64_t len = 1;
      if (m - 1 > at) {
        const int64_t first = now(idx[next].row);
        while (len < m - at && now(idx[next + len].row) == first + len) ++len;
      }
      for (int64_t j = 0; j < len; ++j) {
        rows.push_back(idx[next + j].row);
        markGone(idx[next + j].row);
      }
      ends.push_back(static_cast<uint32_t>(rows.size()));
      removed += len;
      next += len;
      n = m - len;
      if (n < 1) break;
    }
  }
  RowDeletion::run(*table, rows, ends);
  return true;
}

}  // namespace zyl

// ---- Editing ------------------------------------------------------------------

bool ODBViewRep::refuseWhileAnnouncing(const char* what) const {
  if (announcing_ == 0 && !joinedTable_ && !joinedBase_ && queuedGroupEnds_.empty()) return false;
  vorn_printf("Warning: ODBView::%s refused: the view is delivering a deletion.\n", what);
  return true;
}

void ODBViewRep::insertBlankRecords(int at, int n) {
  ODBBase* src = source();
  if (!src || n < 0 || n > INT_MAX - index_.count()) return;
  if (refuseWhileAnnouncing("insertBlankRecords")) return;
  int pos;
  uint32_t first;
  const int inside = std::max(at, 0);
  if (index_.count() > at && index_.count() > inside) {
    pos = inside;
    first = index_[pos].row;
    src->insert_records(first, static_cast<unsigned int>(n));
  } else {
    pos = index_.count();
    first = src->get_num_records();
    src->add_records(n);
  }
  sizeIndexFor(index_.count() + n);
  // The view is taken to be in source order: the entries from `pos` on name
  // the source rows that moved up; those before it are left alone.
  for (int j = index_.count() - 1; j >= pos; --j) {
    index_[j + n].row = index_[j].row + static_cast<uint32_t>(n);
    index_[j + n].tag = index_[j].tag;
  }
  for (int i = 0; i < n; ++i) index_[pos + i].row = first + static_cast<uint32_t>(i);
  index_.setCount(index_.count() + n);
}

void ODBViewRep::deleteRecords(int at, int n) {
  if (at < 0) return;
  // Deleting through a view whose rows are not up to date would delete the
  // wrong records.
  if (refuseWhileAnnouncing("deleteRecords")) return;
  if (n >= 2 && at < index_.count() && zyl::ODBViewInternal::deleteThroughTable(*this, {{at, n}}))
    return;
  for (;;) {
    ODBBase* src = source();
    const int64_t m = std::min<int64_t>(n, static_cast<int64_t>(index_.count()) - at);
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

int ODBViewRep::deleteTagged() {
  if (index_.count() == 0) return 0;
  if (refuseWhileAnnouncing("deleteTagged")) return 0;
  auto tagged = [this](int64_t row) { return index_[row].tag != 0; };
  if (!baseView_ && table_) {
    std::vector<std::pair<int64_t, int64_t>> runs;
    const int64_t total = zyl::scanRuns([this] { return int64_t{index_.count()}; }, tagged,
                                        [&](int64_t start, int64_t n) -> int64_t {
                                          runs.push_back({start, n});
                                          return 0;
                                        });
    if (runs.empty()) return 0;
    if (zyl::ODBViewInternal::deleteThroughTable(*this, runs)) return static_cast<int>(total);
  }
  return static_cast<int>(zyl::scanRuns([this] { return int64_t{index_.count()}; }, tagged,
                                        [this](int64_t start, int64_t n) -> int64_t {
                                          deleteRecords(static_cast<int>(start),
                                                        static_cast<int>(n));
                                          return n;
                                        }));
}

void ODBViewRep::remove(int at, int n) {
  if (at < 0 || at >= index_.count() || n < 0) return;
  if (announcing_ > 0) {
    refuseWhileAnnouncing("remove");
    return;
  }
  const int32_t count0 = index_.count();
  n = static_cast<int>(std::min<int64_t>(n, count0 - at));
  const int32_t newCount = count0 - n;
  // Prepare: the new array when the capacity changes, and the list for the
  // stacked views.
  const int32_t cap = zyl::ViewIndex::capacityFor(index_.capacity(), newCount);
  std::unique_ptr<ODBViewIndexEntry[]> fresh;
  if (cap != index_.capacity()) fresh.reset(zyl::ViewIndex::allocate(cap));
  const size_t listeners = numListeners();
  std::vector<int32_t> announced;
  std::vector<uint32_t> announcedEnds;
  if (listeners > 0) {
    announced.resize(static_cast<size_t>(n));
    for (int j = 0; j < n; ++j) announced[static_cast<size_t>(j)] = at + j;
    announcedEnds.assign(1, static_cast<uint32_t>(n));
    deferredStacked_.reserve(listeners);
  }
  GrowString text;
  for (int j = at; listeners > 0 && j < at + n; ++j) text << static_cast<long long>(j) << ' ';

  // Commit.
  ODBViewIndexEntry* idx = index_.data();
  std::memmove(idx + at, idx + at + n, static_cast<size_t>(count0 - at - n) * sizeof(*idx));
  if (cap != index_.capacity()) {
    ODBViewIndexEntry* next = fresh.release();
    const int64_t keep =
        std::min<int64_t>(zyl::ViewIndex::keptByResize(count0, cap, newCount), cap);
    if (next && keep > 0) std::memcpy(next, idx, static_cast<size_t>(keep) * sizeof(*idx));
    index_.adopt(next, cap);
  }
  index_.setCount(newCount);
  // The list is for the views stacked on this one (and the host); with
  // nobody listening there is nothing to send.
  if (listeners == 0) return;
  std::exception_ptr failure;
  {
    Busy busy(announcing_);
    announcedRows_.swap(announced);
    announcedEnds_.swap(announcedEnds);
    issueText(*this, text, zyl::recordsDeletedType(), failure);
    while (!deferredStacked_.empty()) {
      ODBViewRep* c = deferredStacked_.front();
      deferredStacked_.erase(deferredStacked_.begin());
      zyl::ODBViewInternal::baseAnnouncementEnded(*c);
    }
    announcedRows_.clear();
    announcedEnds_.clear();
  }
  zyl::ODBViewInternal::processQueued(*this);
  if (failure) std::rethrow_exception(failure);
}

void ODBViewRep::removeRecordsFromBaseView(int at, int n) {
  if (at < 0) return;
  for (;;) {
    const int64_t m = std::min<int64_t>(static_cast<int64_t>(index_.count()) - at, n);
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
  if (index_.count() == 0 || !pred) return 0;
  if (refuseWhileAnnouncing("removeSome")) return 0;
  if (!baseView_ && table_) return zyl::ODBViewInternal::removeRuns(*this, pred);
  return static_cast<int>(
      zyl::scanRuns([this] { return int64_t{index_.count()}; },
                    [this, pred](int64_t row) { return (this->*pred)(static_cast<int>(row)); },
                    [this](int64_t at, int64_t n) -> int64_t {
                      removeRecordsFromBaseView(static_cast<int>(at), static_cast<int>(n));
                      return n;
                    }));
}

int ODBViewRep::removeTagged() { return removeSome(&ODBViewRep::tag); }

int ODBViewRep::removeNonTagged() { return removeSome(&ODBViewRep::notTagged); }

int ODBViewRep::recordsDeletedNotify(const NotifyMsg& msg) {
  std::vector<int32_t> values;
  try {
    for (NotifyMsgTokenIterator it(msg); !it.atEnd(); ++it)
      values.push_back(static_cast<int32_t>(it.asLong()));
  } catch (...) {
    lost_ = true;
  }
  if (lost_ || announcing_ > 0 || joinedTable_ || joinedBase_ || !queuedGroupEnds_.empty()) {
    // Busy: after what is under way (or waiting).
    if (!lost_) zyl::ODBViewInternal::queue(*this, values.data(), values.size());
    zyl::ODBViewInternal::processQueued(*this);
    return 0;
  }
  const std::vector<uint32_t> ends{static_cast<uint32_t>(values.size())};
  std::exception_ptr failure;
  try {
    failure = zyl::ODBViewInternal::applyDeletions(*this, values, ends);
  } catch (...) {
    zyl::ODBViewInternal::applyDeletionsSafe(*this, values, ends, nullptr);
  }
  zyl::ODBViewInternal::processQueued(*this);
  if (failure) std::rethrow_exception(failure);
  return 0;
}
