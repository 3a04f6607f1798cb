// Deleting many rows through the table's one-pass deletion against the same
// deletion done run by run, and deletions and view construction under
// allocation failure.
//
// A table that says batches may not bypass the steps never takes the
// one-pass path, so the same random world built over `zyldb` and
// over `LiteralTable` gives the new path and the literal steps side by side:
// every listener's messages, every view's entries, tags, capacity and stale
// slots must agree.

#include <gtest/gtest.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>

#include <algorithm>
#include <random>
#include <string>

#include "ViewTestUtil.h"
#include "view/ODBView_internal.h"

namespace zyl::test {
namespace {

struct LiteralTable : zyldb {
  using zyldb::zyldb;
  bool batchesMayBypassSteps() const override { return false; }
};

using Rng = std::mt19937_64;
int pick(Rng& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

// A table, two views over it (a, b), one stacked on a (c), and recorders on
// any of them.
struct World {
  std::unique_ptr<zyldb> table;
  ODBView a, b, c;
  std::vector<std::unique_ptr<Recorder>> recorders;

  World(bool literal, uint64_t seed) {
    Rng rng(seed);
    const int rows = pick(rng, 1, pick(rng, 0, 3) == 0 ? 3000 : 120);
    std::vector<DBFieldDesc> descs{{"Name", DBFieldTypes::text}};
    table = literal ? std::make_unique<LiteralTable>(descs) : std::make_unique<zyldb>(descs);
    table->add_records(rows);
    for (int i = 0; i < rows; ++i) table->set_field(i, 0u, ("r" + std::to_string(i)).c_str());
    auto fill = [&](ODBView& v, int sourceRows) {
      std::vector<int> order;
      for (int r = 0; r < sourceRows; ++r)
        if (pick(rng, 0, 4) != 0) order.push_back(r);
      if (pick(rng, 0, 1)) std::shuffle(order.begin(), order.end(), rng);
      if (!order.empty() && pick(rng, 0, 9) == 0)  // a row named twice
        order.push_back(order[static_cast<size_t>(pick(rng, 0, int(order.size()) - 1))]);
      for (int r : order) v->append(r);
      for (unsigned i = 0; i < v->get_num_records(); ++i) v->set_tag(i, pick(rng, 0, 3) == 0);
    };
    a = ODBView(new ODBViewRep(table.get()));
    b = ODBView(new ODBViewRep(table.get()));
    c = ODBView(new ODBViewRep(table.get()));
    c->baseView(a.rep());
    fill(a, rows);
    fill(b, rows);
    fill(c, static_cast<int>(a->get_num_records()));
    for (Notifier* n : {static_cast<Notifier*>(table.get()), static_cast<Notifier*>(a.rep()),
                        static_cast<Notifier*>(b.rep()), static_cast<Notifier*>(c.rep())})
      if (pick(rng, 0, 2) != 0) recorders.push_back(std::make_unique<Recorder>(*n));
  }

  // One random deletion; returns what it returned.
  int act(uint64_t seed) {
    Rng rng(seed);
    const int op = pick(rng, 0, 3);
    if (op == 0) {
      table->set_all_tags(0);
      const int density = pick(rng, 1, 9);
      for (unsigned r = 0; r < table->get_num_records(); ++r)
        if (pick(rng, 0, 9) < density) table->set_tag(r, 1);
      return table->delete_tagged_records();
    }
    ODBViewRep& v = op == 3 ? *c.rep() : *a.rep();
    if (op == 2) {
      const int n = static_cast<int>(v.get_num_records());
      v.deleteRecords(pick(rng, 0, n), pick(rng, 1, n + 2));
      return 0;
    }
    return v.deleteTagged();
  }
};

void expectSameView(ODBViewRep& x, ODBViewRep& y, const char* name) {
  SCOPED_TRACE(name);
  ASSERT_EQ(x.get_num_records(), y.get_num_records());
  ASSERT_EQ(x.indexCapacity(), y.indexCapacity());
  const ODBViewIndexEntry* sx = ODBViewInternal::slots(x);
  const ODBViewIndexEntry* sy = ODBViewInternal::slots(y);
  for (int i = 0; i < x.indexCapacity(); ++i) {
    if (i < static_cast<int>(x.get_num_records())) {
      ASSERT_EQ(sx[i].row, sy[i].row) << i;
    }
    ASSERT_EQ(sx[i].tag, sy[i].tag) << "slot " << i;
  }
}

TEST(ODBViewDeletionTest, OnePassMatchesRunByRun) {
  for (uint64_t seed = 1; seed <= 400 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    World fast(false, seed), literal(true, seed);
    for (uint64_t step = 0; step < 3 && !HasFailure(); ++step) {
      EXPECT_EQ(fast.act(seed * 31 + step), literal.act(seed * 31 + step));
      EXPECT_EQ(names(*fast.table), names(*literal.table));
      ASSERT_NO_FATAL_FAILURE(expectSameView(*fast.a.rep(), *literal.a.rep(), "a"));
      ASSERT_NO_FATAL_FAILURE(expectSameView(*fast.b.rep(), *literal.b.rep(), "b"));
      ASSERT_NO_FATAL_FAILURE(expectSameView(*fast.c.rep(), *literal.c.rep(), "c"));
      ASSERT_EQ(fast.recorders.size(), literal.recorders.size());
      for (size_t i = 0; i < fast.recorders.size(); ++i)
        EXPECT_EQ(fast.recorders[i]->log, literal.recorders[i]->log) << "recorder " << i;
    }
  }
}

// A listener reading the view during its per-row messages sees the view as
// that message describes it: one row fewer at each, the rows still to go
// showing no record; the closing list comes with the final state.
TEST(ODBViewDeletionTest, PerRowMessagesComeWithTheirState) {
  auto table = makeTable(10);
  ODBView v = viewOf(table.get(), {0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
  std::vector<std::string> seen;
  auto reg = v->addListener("recordsDeleted", [&](const NotifyMsg& m) {
    seen.push_back(m.getText().toStdString() + "/" + std::to_string(v->get_num_records()) + "/" +
                   std::to_string(names(*v.rep()).size()));
    std::string shown;
    for (const std::string& n : names(*v.rep())) shown += (n.empty() ? "-" : n) + ",";
    seen.push_back(shown);
    return 0;
  });
  table->delete_records(3, 2);
  EXPECT_EQ(seen, (std::vector<std::string>{"3 /9/9", "r0,r1,r2,-,r5,r6,r7,r8,r9,", "3 /8/8",
                                            "r0,r1,r2,r5,r6,r7,r8,r9,", "2 3 /8/8",
                                            "r0,r1,r2,r5,r6,r7,r8,r9,"}));
}

// Listeners that delete table rows while a view delivers a deletion: the
// deletion is applied after the delivery, and the views stacked on the view
// stay in step (they show all of its rows).
TEST(ODBViewDeletionTest, ListenersDeletingDuringADelivery) {
  for (int kind = 0; kind < 2; ++kind) {
    SCOPED_TRACE(kind == 0 ? "during the closing list" : "during removeTagged");
    auto table = makeTable(10);
    ODBView a = viewOf(table.get(), {0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    ODBView b(new ODBViewRep(table.get()));
    b->baseView(a.rep());
    b->displayAllRecords();
    Recorder heard(*a.rep());
    bool done = false;
    auto reg = a->addListener("recordsDeleted", [&](const NotifyMsg& m) {
      const bool closing = kind == 0 && m.getText().toStdString() == "2 ";
      if (!done && (closing || kind == 1)) {
        done = true;
        const std::vector<std::string> rows = names(*table);
        table->delete_records(
            static_cast<unsigned>(std::find(rows.begin(), rows.end(), "r8") - rows.begin()), 1);
      }
      return 0;
    });
    if (kind == 0) {
      table->delete_records(3, 1);
    } else {
      for (int r : {4, 5, 7}) a->set_tag(r, 1);
      EXPECT_EQ(a->removeTagged(), 3);
    }
    EXPECT_EQ(names(*b.rep()), names(*a.rep()));
    for (const std::string& n : names(*a.rep())) EXPECT_NE(n, "r8");
    if (kind == 0) {
      EXPECT_EQ(names(*a.rep()),
                (std::vector<std::string>{"r0", "r1", "r2", "r4", "r5", "r6", "r7", "r9"}));
      EXPECT_EQ(heard.log, (std::vector<std::string>{"D:3 ", "D:2 ", "C:", "D:7 ", "D:6 ", "C:"}));
    } else {
      EXPECT_EQ(names(*a.rep()), (std::vector<std::string>{"r0", "r1", "r2", "r3", "r6", "r9"}));
      // The run of r4 and r5 goes; then r8, deleted meanwhile, with its own
      // messages; then the run of r7, found in the view as it now stands.
      EXPECT_EQ(heard.log, (std::vector<std::string>{"D:4 5 ", "D:6 ", "D:5 ", "C:", "D:5 "}));
    }
  }
}

// Each row of a view must show the record its entry names: every record is
// named "r<n>" and appears once, so a view row whose name is not in the table
// any more, or a wrong count, shows a view out of step.
void expectConsistent(ODBViewRep& v, zyldb& table, const std::vector<std::string>& before,
                      const char* name) {
  SCOPED_TRACE(name);
  const std::vector<std::string> rows = names(table);
  for (unsigned i = 0; i < v.get_num_records(); ++i) {
    ASSERT_NE(v.get_record(i), nullptr) << i;
    const std::string shown = v.getField(i, 0).toStdString();
    ASSERT_NE(std::find(rows.begin(), rows.end(), shown), rows.end()) << shown;
  }
  (void)before;
}

Allocator& alloc() { return OS()->allocator(); }

// Fails the n-th allocation of a deletion, for n = 1, 2, ... until one
// succeeds: the table either keeps every row or loses exactly the tagged
// ones, every view stays in step with the table, a retried deleteTagged
// deletes only tagged rows, and nothing leaks.
TEST(ODBViewDeletionTest, AllocationFailureLeavesViewsInStep) {
  for (int kind = 0; kind < 2; ++kind) {
    bool completed = false;
    // n = 0 runs once without failure, so that what is set up on first use
    // is not counted as a leak.
    for (uint64_t n = 0; !completed && n < 5000 && !HasFailure(); ++n) {
      SCOPED_TRACE("kind " + std::to_string(kind) + ", allocation " + std::to_string(n));
      const int64_t liveBefore = alloc().stats().liveBlocks;
      {
        auto table = makeTable(300, {"Name"});
        ODBView a(new ODBViewRep(table.get())), b(new ODBViewRep(table.get()));
        a->displayAllRecords();
        b->displayAllRecords();
        b->set_sortfield(0);
        b->sort(-1, 0);
        ODBView c(new ODBViewRep(table.get()));
        c->baseView(a.rep());
        c->displayAllRecords();
        std::vector<std::string> tagged;
        for (unsigned r = 0; r < 300; r += 1 + r % 4) {
          a->set_tag(r, 1);
          tagged.push_back("r" + std::to_string(r));
        }
        const std::vector<std::string> before = names(*table);
        alloc().failNthAllocation(n);
        try {
          if (kind == 0) {
            a->deleteTagged();
          } else {
            for (unsigned r = 0; r < 300; ++r) table->set_tag(r, a->get_tag(r));
            table->delete_tagged_records();
          }
          completed = n > 0 && !alloc().failurePending();
        } catch (const Qm::Exception::BadAlloc&) {
        }
        alloc().failNthAllocation(0);
        const std::vector<std::string> after = names(*table);
        for (const std::string& gone : before) {
          if (std::find(after.begin(), after.end(), gone) == after.end()) {
            ASSERT_NE(std::find(tagged.begin(), tagged.end(), gone), tagged.end()) << gone;
          }
        }
        ASSERT_NO_FATAL_FAILURE(expectConsistent(*a.rep(), *table, before, "a"));
        ASSERT_NO_FATAL_FAILURE(expectConsistent(*b.rep(), *table, before, "b"));
        ASSERT_NO_FATAL_FAILURE(expectConsistent(*c.rep(), *table, before, "c"));
        ASSERT_LE(a->get_num_records(), table->get_num_records());
        ASSERT_EQ(b->get_num_records(), table->get_num_records());
        // A retry deletes what is still tagged, and nothing else.
        if (kind == 0) {
          a->deleteTagged();
          for (const std::string& name : names(*table))
            ASSERT_EQ(std::find(tagged.begin(), tagged.end(), name), tagged.end()) << name;
          ASSERT_EQ(table->get_num_records(), 300 - tagged.size());
        }
      }
      if (n > 0) {
        EXPECT_EQ(alloc().stats().liveBlocks, liveBefore);
      }
    }
    EXPECT_TRUE(completed) << "kind " << kind;
  }
}

// Creating a view, of every kind, with each of its allocations failing in
// turn leaks nothing.
TEST(ODBViewDeletionTest, ViewConstructionLeaksNothingWhenAllocationFails) {
  auto table = makeTable(50);
  ODBView base(new ODBViewRep(table.get()));
  base->displayAllRecords();
  // Once beforehand, so that the notifiers' listener lists have their room.
  for (int i = 0; i < 2; ++i) ODBView warm(base->newTagSubview()), copy = base.copy();
  const char* names[] = {"Name", "Reel", nullptr};
  for (int kind = 0; kind < 5; ++kind) {
    bool completed = false;
    for (uint64_t n = 1; !completed && n < 2000 && !HasFailure(); ++n) {
      SCOPED_TRACE("kind " + std::to_string(kind) + ", allocation " + std::to_string(n));
      const int64_t liveBefore = alloc().stats().liveBlocks;
      alloc().failNthAllocation(n);
      try {
        ODBView v;
        if (kind == 0) v = ODBView(new ODBViewRep(table.get()));
        if (kind == 1) v = ODBView(new ODBViewRep(table.get(), "Name,Reel"));
        if (kind == 2) v = ODBView(new ODBViewRep(table.get(), names));
        if (kind == 3) v = base.copy();
        if (kind == 4) v = ODBView(base->newTagSubview());
        completed = !alloc().failurePending();
      } catch (const Qm::Exception::BadAlloc&) {
      }
      alloc().failNthAllocation(0);
      EXPECT_EQ(alloc().stats().liveBlocks, liveBefore);
    }
    EXPECT_TRUE(completed);
  }
}

}  // namespace
}  // namespace zyl::test
