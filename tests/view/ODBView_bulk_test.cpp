// The bulk index operations against the same operations done literally,
// step by step, on a plain array: entries, capacity, the tags left in the
// slots past the count, and every message. Random states and messages,
// seeded (the first seed is printed, each failure names its own).

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <sstream>
#include <string>

#include "ViewTestUtil.h"
#include "view/ODBView_internal.h"

namespace zyl::test {
namespace {

struct LiteralIndex {
  std::vector<ODBViewIndexEntry> slots;  // size() is the capacity
  int count = 0;
  std::vector<std::string> msgs;  // "D:" per-row and remove lists, "X:" closing lists, "C:"

  void sizeIndexFor(int n) {
    const int cap = static_cast<int>(slots.size()), want = std::max(n, 20);
    int fresh = n == 0        ? 0
                : want <= cap ? (cap > 2 * want ? cap / 2 : cap)
                              : std::max(2 * cap, want);
    if (fresh == cap) return;
    std::vector<ODBViewIndexEntry> next(static_cast<size_t>(fresh), ODBViewIndexEntry{0, 0});
    for (int i = 0; n && i < (fresh < count ? want : count); ++i) next[i] = slots[i];
    slots.swap(next);
  }
  void displayRecordsAt(int first, int n, int at) {
    at = std::min(std::max(at, 0), count);
    sizeIndexFor(count + n);
    for (int j = count - 1; j >= at; --j) slots[j + n] = slots[j];
    for (int i = 0; i < n; ++i) slots[at + i].row = static_cast<uint32_t>(first + i);
    count += n;
  }
  void remove(int at, int n) {
    if (at < 0 || at >= count) return;
    n = std::min(n, count - at);
    for (int j = at; j + n < count; ++j) slots[j] = slots[j + n];
    sizeIndexFor(count - n);
    count -= n;
    std::string text;
    for (int j = at; j < at + n; ++j) text += std::to_string(j) + " ";
    msgs.push_back("D:" + text);
  }
  void notify(const std::string& text) {
    std::istringstream in(text);
    std::string token, closing;
    for (int64_t k = 0; in >> token; ++k) {
      const int64_t d = static_cast<int32_t>(std::strtol(token.c_str(), nullptr, 10)) - k;
      for (int j = 0; j < count;) {
        const int32_t r = static_cast<int32_t>(slots[j].row);
        if (r == d) {
          remove(j, 1);
          closing += std::to_string(k + j - 1) + " ";
        } else {
          if (r > d) --slots[j].row;
          ++j;
        }
      }
    }
    if (!closing.empty()) msgs.insert(msgs.end(), {"X:" + closing, "C:"});
  }
  int removeTagged() {  // one remove() per run of tagged entries
    int total = 0;
    for (int row = 0; row < count; ++row) {  // after a run, `row` holds the entry that ended it
      int end = row;
      while (end < count && slots[end].tag) ++end;
      if (end == row) continue;
      remove(row, end - row);
      total += end - row;
    }
    return total;
  }
};

using Rng = std::mt19937_64;
int pick(Rng& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

// A real view and a literal index driven through the same random edits.
struct Pair {
  ODBViewRep& view;
  LiteralIndex lit;

  void expectSame(const char* where) const {
    SCOPED_TRACE(where);
    ASSERT_EQ(view.get_num_records(), static_cast<unsigned>(lit.count));
    ASSERT_EQ(view.indexCapacity(), static_cast<int>(lit.slots.size()));
    const ODBViewIndexEntry* s = ODBViewInternal::slots(view);
    for (int i = 0; i < static_cast<int>(lit.slots.size()); ++i) {
      ASSERT_TRUE(i >= lit.count || s[i].row == lit.slots[i].row) << "row of entry " << i;
      ASSERT_EQ(s[i].tag, lit.slots[i].tag) << "tag of slot " << i;
    }
  }
  void randomState(Rng& rng, int maxRow) {
    for (int step = pick(rng, 0, 12); step > 0; --step) {
      const int op = pick(rng, 0, 2), at = pick(rng, -2, lit.count + 2), n = pick(rng, 1, 30);
      if (op == 0) {
        const int first = pick(rng, 0, maxRow);
        view.displayRecordsAt(first, n, at);
        lit.displayRecordsAt(first, n, at);
      } else if (op == 1) {
        for (int i = 0; i < lit.count; ++i) view.set_tag(i, lit.slots[i].tag = pick(rng, 0, 1));
      } else {
        view.remove(at, n);
        lit.remove(at, n);
      }
    }
    lit.msgs.clear();
  }
};

std::string randomMessage(Rng& rng, int maxRow) {
  std::string text;
  const int kind = pick(rng, 0, 9);
  for (int i = 0, n = pick(rng, 1, kind < 7 ? 12 : 5), v = pick(rng, -1, maxRow / 2); i < n; ++i) {
    if (kind < 7)  // ascending, as tables and views send them
      text += std::to_string(v += pick(rng, 1, 4));
    else if (kind == 7)  // any order, repeats
      text += std::to_string(pick(rng, -3, maxRow));
    else if (kind == 8)  // not numbers, or far out
      text += pick(rng, 0, 1) ? "x" : std::to_string(2000000000 + pick(rng, 0, 9));
    else  // descending
      text += std::to_string(maxRow - i * pick(rng, 1, 3));
    text += ' ';
  }
  return text;
}

// Each seed builds a random view `a` and applies one bulk operation to it and
// to its literal copy: a deletion message, removeTagged, or an insertion of
// single rows. Without listeners no per-row message is built; with them, a
// view stacked on `a` hears a's per-row messages (queued until a is done).
TEST(ODBViewBulkTest, MatchesLiteralSteps) {
  auto table = makeTable(10);
  std::printf("seeds from %d\n", 0x5eed);
  for (int i = 0; i < (std::getenv("ZYLDB_MODEL_ITERATIONS") ? 8000 : 1000) && !HasFailure(); ++i) {
    Rng rng(0x5eed + i);
    SCOPED_TRACE("seed " + std::to_string(0x5eed + i));
    ODBView ha(new ODBViewRep(table.get())), hb(new ODBViewRep(table.get()));
    Pair pa{*ha.rep(), {}}, pb{*hb.rep(), {}};
    pa.randomState(rng, 120);
    ASSERT_NO_FATAL_FAILURE(pa.expectSame("setup of a"));
    const int op = pick(rng, 0, 7);
    if (op < 2) {
      Recorder rec(*ha.rep());
      if (op == 0) {
        EXPECT_EQ(ha->removeTagged(), pa.lit.removeTagged());
        EXPECT_EQ(rec.log, pa.lit.msgs);
      } else {
        std::vector<uint32_t> rows(static_cast<size_t>(pick(rng, 1, 40)));
        for (uint32_t& r : rows) r = static_cast<uint32_t>(pick(rng, 0, 300));
        int at = pick(rng, -3, pa.lit.count + 3);
        ODBViewInternal::insertEach(*ha.rep(), rows, at);
        for (uint32_t r : rows) pa.lit.displayRecordsAt(static_cast<int>(r), 1, at++);
      }
      ASSERT_NO_FATAL_FAILURE(pa.expectSame("a after the operation"));
      continue;
    }
    const bool listening = op > 3;
    std::unique_ptr<Recorder> ra, rb;
    if (listening) {
      hb->baseView(ha.rep());
      pb.randomState(rng, 60);
      ra = std::make_unique<Recorder>(*ha.rep());
      rb = std::make_unique<Recorder>(*hb.rep());
    }
    const std::string text = randomMessage(rng, 120);
    SCOPED_TRACE("message \"" + text + "\"");
    ha->recordsDeletedNotify(NotifyMsg(LightweightString<char>(text.c_str()), nullptr));
    pa.lit.notify(text);
    ASSERT_NO_FATAL_FAILURE(pa.expectSame("a after the message"));
    if (!listening) continue;
    for (const std::string& m : pa.lit.msgs)
      if (m[0] == 'D') pb.lit.notify(m.substr(2));
    ASSERT_NO_FATAL_FAILURE(pb.expectSame("b after a's messages"));
    for (auto* p : {&pa, &pb})
      for (std::string& m : p->lit.msgs) m[0] = m[0] == 'X' ? 'D' : m[0];
    EXPECT_EQ(ra->log, pa.lit.msgs);
    EXPECT_EQ(rb->log, pb.lit.msgs);
  }
}

}  // namespace
}  // namespace zyl::test
