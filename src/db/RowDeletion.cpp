// Deleting many runs of rows from a table in one pass; see
// RowDeletion_internal.h.

#include <zyldb/db/dbrecord.h>

#include <algorithm>
#include <charconv>
#include <exception>
#include <string>

#include "db/NotifyTypes_internal.h"
#include "db/RowDeletion_internal.h"

namespace zyl {

namespace {

thread_local RowDeletion* tActive = nullptr;

// A table's deletion messages being delivered on this thread, and those made
// meanwhile, waiting their turn.
struct Delivery {
  const zyldb* table;
  Delivery* outer;
  std::vector<LightweightString<char>> waiting;
};
thread_local Delivery* tDelivering = nullptr;

Delivery* deliveringFor(const zyldb* table) {
  for (Delivery* d = tDelivering; d; d = d->outer)
    if (d->table == table) return d;
  return nullptr;
}

// Marks `table` as delivering for its lifetime and sends what waits.
class DeliveryScope {
 public:
  explicit DeliveryScope(zyldb& table) : table_(table), d_{&table, tDelivering, {}} {
    tDelivering = &d_;
  }
  ~DeliveryScope() { tDelivering = d_.outer; }
  DeliveryScope(const DeliveryScope&) = delete;
  DeliveryScope& operator=(const DeliveryScope&) = delete;
  void sendWaiting() {
    for (size_t i = 0; i < d_.waiting.size(); ++i)
      table_.issueNotification(NotifyMsg(d_.waiting[i], nullptr), recordsDeletedType());
    d_.waiting.clear();
  }

 private:
  zyldb& table_;
  Delivery d_;
};

}  // namespace

void RowDeletion::announce(zyldb& table, const LightweightString<char>& text) {
  if (Delivery* d = deliveringFor(&table)) {
    d->waiting.push_back(text);
    return;
  }
  DeliveryScope scope(table);
  table.issueNotification(NotifyMsg(text, nullptr), recordsDeletedType());
  scope.sendWaiting();
}

bool RowDeletion::canBatch(const zyldb& table) {
  return table.batchesMayBypassSteps() && table.showTagsOnly == 0;
}

RowDeletion* RowDeletion::active(const zyldb* table) noexcept {
  for (RowDeletion* d = tActive; d; d = d->outer_)
    if (d->table_ == table) return d;
  return nullptr;
}

void RowDeletion::join(void* context, EndFn fn) noexcept {
  for (const auto& j : joined_)
    if (j.first == context) return;
  if (joined_.size() < joined_.capacity()) {
    joined_.emplace_back(context, fn);
    return;
  }
  // More joiners than the table had listeners when the deletion began (one
  // registered during the delivery): bring it up to date at once.
  fn(context, *this);
}

void RowDeletion::finish() noexcept {
  tActive = outer_;
  current_ = nullptr;
  for (size_t i = 0; i < joined_.size(); ++i) joined_[i].second(joined_[i].first, *this);
}

int64_t RowDeletion::run(zyldb& table, const std::vector<uint32_t>& rows,
                         const std::vector<uint32_t>& groupEnds) {
  const size_t m = rows.size();
  if (m == 0) return 0;
  RowDeletion d;
  d.table_ = &table;
  d.groupEnds_ = groupEnds;
  d.values_.resize(m);
  d.deleted_ = rows;

  // Each row as numbered when its group goes: less the rows of earlier
  // groups below it.
  bool increasing = true;
  for (size_t i = 1; i < m && increasing; ++i) increasing = rows[i] > rows[i - 1];
  if (increasing) {
    // Every earlier group lies below: less the rows before the group.
    size_t begin = 0;
    for (uint32_t end : groupEnds) {
      for (size_t i = begin; i < end; ++i) d.values_[i] = static_cast<int32_t>(rows[i] - begin);
      begin = end;
    }
  } else {
    std::sort(d.deleted_.begin(), d.deleted_.end());
    std::vector<int32_t> tree(m + 1, 0);  // Fenwick tree over the sorted rows
    size_t begin = 0;
    for (uint32_t end : groupEnds) {
      for (size_t i = begin; i < end; ++i) {
        const size_t pos = static_cast<size_t>(
            std::lower_bound(d.deleted_.begin(), d.deleted_.end(), rows[i]) - d.deleted_.begin());
        int64_t below = 0;
        for (size_t j = pos; j > 0; j -= j & (~j + 1)) below += tree[j];
        d.values_[i] = static_cast<int32_t>(rows[i] - below);
      }
      for (size_t i = begin; i < end; ++i) {
        const size_t pos = static_cast<size_t>(
            std::lower_bound(d.deleted_.begin(), d.deleted_.end(), rows[i]) - d.deleted_.begin());
        for (size_t j = pos + 1; j <= m; j += j & (~j + 1)) ++tree[j];
      }
      begin = end;
    }
  }

  // The texts, built before any row goes.
  std::vector<LightweightString<char>> texts;
  texts.reserve(groupEnds.size());
  {
    std::string list;
    char digits[16];
    size_t begin = 0;
    for (uint32_t end : groupEnds) {
      list.clear();
      for (size_t i = begin; i < end; ++i) {
        const auto res = std::to_chars(digits, digits + sizeof digits, d.values_[i]);
        list.append(digits, res.ptr);
        list.push_back(' ');
      }
      texts.emplace_back(list);
      begin = end;
    }
  }
  d.joined_.reserve(table.numListeners() + 1);
  std::vector<NotifyMsg> messages;
  messages.reserve(texts.size());
  for (const auto& text : texts) messages.emplace_back(text, nullptr);

  // One pass: nothing below allocates.
  uint32_t kept = 0;
  size_t next = 0;
  for (uint32_t r = 0; r < table.numRecords; ++r) {
    if (next < m && d.deleted_[next] == r) {
      delete table.rows[r];
      ++next;
    } else {
      table.rows[kept++] = table.rows[r];
    }
  }
  table.numRecords = kept;
  table.clearIdCache();
  table.changed = 1;

  d.outer_ = tActive;
  tActive = &d;
  std::exception_ptr failure;
  {
    DeliveryScope scope(table);
    for (const NotifyMsg& msg : messages) {
      d.current_ = &msg;
      try {
        table.issueNotification(msg, recordsDeletedType());
      } catch (...) {
        if (!failure) failure = std::current_exception();
      }
    }
    d.current_ = nullptr;
    try {
      scope.sendWaiting();
    } catch (...) {
      if (!failure) failure = std::current_exception();
    }
  }
  d.finish();
  if (failure) std::rethrow_exception(failure);
  return static_cast<int64_t>(m);
}

}  // namespace zyl
