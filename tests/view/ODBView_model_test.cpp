// Random sequences of table and view operations on a table carrying several
// views, some stacked, checked after every step against a plain model: per
// view, the source rows it shows (so, through the chain, the table rows) and
// its tags. Every table row holds a unique identifier, so a view naming a
// deleted row or losing one that stays shows up at once.
//
// A bounded number of sequences normally; ZYLDB_MODEL_ITERATIONS sets how
// many. The seeds are printed; ZYLDB_MODEL_SEED replays from a given one.

#include <gtest/gtest.h>
#include <strings.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/view/ODBView.h>

#include <algorithm>
#include <cstdio>
#include <random>

#include "ViewTestUtil.h"

namespace zyl::test {
namespace {

using Rows = std::vector<int64_t>;

struct ModelView {
  int base = -1;  // the base view, or -1 for the table
  Rows rows;      // source rows in view order
  std::vector<uint8_t> tags;
  ODBView handle;
  bool alive = true;
};

class ModelRun {
 public:
  explicit ModelRun(uint64_t seed) : rng_(seed) {}

  void run(int steps) {
    grow(40);
    for (auto [base, all] :
         std::initializer_list<std::pair<int, bool>>{{-1, true}, {-1, false}, {0, true}, {2, true}})
      addView(base, all);
    for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
      last_.clear();
      maybeListen();
      doOneStep();
      for (int64_t id : deletedByListener_) {
        const auto it = std::find(ids_.begin(), ids_.end(), id);
        ASSERT_NE(it, ids_.end());
        deleteTableRows({it - ids_.begin()});
      }
      deletedByListener_.clear();
      const bool edited = editor_ != nullptr;
      editor_.reset();
      grow(0);
      check("step " + std::to_string(step) + ": " + last_ +
            (edited ? ", a listener deleting table rows" : ""));
    }
  }

 private:
  // Sometimes a listener on a view (or the table) deletes a table row while
  // a deletion message is delivered, at most twice per step; the model
  // applies those deletions after the step's own change.
  void maybeListen() {
    if (pick(0, 3) != 0) return;
    std::vector<int> alive;
    for (size_t i = 0; i < views_.size(); ++i)
      if (views_[i].alive) alive.push_back(static_cast<int>(i));
    const int v = pick(-1, static_cast<int>(alive.size()) - 1);
    Notifier& n = v < 0 ? static_cast<Notifier&>(*table_)
                        : static_cast<Notifier&>(*views_[alive[v]].handle.rep());
    const int when = pick(0, 2);
    editor_ = n.addListener("recordsDeleted", [this, when](const NotifyMsg& m) {
      const bool closing = m.getText().size() > 2;  // an arbitrary pick of messages
      if (deletedByListener_.size() >= 2 || table_->get_num_records() == 0 ||
          (when == 1 && !closing))
        return 0;
      const unsigned row = static_cast<unsigned>(pick(0, int(table_->get_num_records()) - 1));
      deletedByListener_.push_back(std::stoll(table_->getField(row, 0).toStdString().substr(2)));
      table_->delete_records(row, 1);
      return 0;
    });
  }

  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
  std::string name(int v) const { return "view " + std::to_string(v); }

  // The number of rows of a view's source, given as the view's base.
  int64_t rowsOf(int base) const {
    return static_cast<int64_t>(base < 0 ? ids_.size() : views_[base].rows.size());
  }
  int64_t tableRow(int v, int64_t pos) const {
    const int64_t r = views_[v].rows[pos];
    return views_[v].base < 0 ? r : tableRow(views_[v].base, r);
  }
  template <class F>
  void forStackedOn(int v, F f) {
    for (size_t x = 0; x < views_.size(); ++x)
      if (views_[x].alive && views_[x].base == v) f(static_cast<int>(x));
  }
  // Source rows `gone` (sorted) of view w are gone: it drops the entries
  // naming them and renumbers the rest; the views stacked on it follow.
  void dropSourceRows(int w, const Rows& gone) {
    ModelView& m = views_[w];
    Rows rows, lost;
    std::vector<uint8_t> tags;
    for (size_t p = 0; p < m.rows.size(); ++p) {
      const auto it = std::lower_bound(gone.begin(), gone.end(), m.rows[p]);
      if (it != gone.end() && *it == m.rows[p]) {
        lost.push_back(static_cast<int64_t>(p));
      } else {
        rows.push_back(m.rows[p] - (it - gone.begin()));
        tags.push_back(m.tags[p]);
      }
    }
    m.rows.swap(rows);
    m.tags.swap(tags);
    if (!lost.empty()) forStackedOn(w, [&](int x) { dropSourceRows(x, lost); });
  }
  void removeEntries(int v, Rows positions) {
    std::sort(positions.begin(), positions.end());
    for (size_t i = positions.size(); i-- > 0;) {
      views_[v].rows.erase(views_[v].rows.begin() + positions[i]);
      views_[v].tags.erase(views_[v].tags.begin() + positions[i]);
    }
    forStackedOn(v, [&](int x) { dropSourceRows(x, positions); });
  }
  // The positions of view v's entries in the lowest view of its chain, which
  // is where removeRecordsFromBaseView takes them out.
  int lowest(int v, Rows& positions) const {
    for (; views_[v].base >= 0; v = views_[v].base)
      for (int64_t& p : positions) p = views_[v].rows[p];
    return v;
  }
  void deleteTableRows(Rows rows) {
    std::sort(rows.begin(), rows.end());
    for (size_t i = rows.size(); i-- > 0;) ids_.erase(ids_.begin() + rows[i]);
    forStackedOn(-1, [&](int x) { dropSourceRows(x, rows); });
  }
  // Blank rows before source row rows[at], or at the source's end: the views
  // of the chain take them; no other view is told.
  void insert(int v, int64_t at, int64_t n) {
    const bool inside = at < static_cast<int64_t>(views_[v].rows.size());
    const int64_t first = inside ? views_[v].rows[at] : rowsOf(views_[v].base);
    if (!inside) at = static_cast<int64_t>(views_[v].rows.size());
    if (views_[v].base >= 0) insert(views_[v].base, first, n);
    for (int64_t i = 0; i < n && views_[v].base < 0; ++i)
      ids_.insert(ids_.begin() + first + i, nextId_++);
    ModelView& m = views_[v];
    for (size_t j = static_cast<size_t>(at); j < m.rows.size(); ++j) m.rows[j] += n;
    for (int64_t i = 0; i < n; ++i) m.rows.insert(m.rows.begin() + at + i, first + i);
    m.tags.assign(m.rows.size(), 0);  // the test clears the chain's tags
    m.handle->tagAll(false);
  }

  // Appends n rows to the table and names every blank row by its identifier.
  void grow(int n) {
    table_->add_records(n);
    for (int i = 0; i < n; ++i) ids_.push_back(nextId_++);
    for (size_t r = 0; r < ids_.size(); ++r)
      if (table_->getField(static_cast<unsigned>(r), 0).empty())
        table_->set_field(static_cast<unsigned>(r), 0u, ("id" + std::to_string(ids_[r])).c_str());
  }
  void randomTags(int v) {
    const int density = pick(0, 4);
    for (size_t i = 0; i < views_[v].rows.size(); ++i)
      views_[v].handle->set_tag(i, views_[v].tags[i] = pick(0, 4) < density);
  }
  Rows tagged(int v, bool on) const {
    Rows out;
    for (size_t p = 0; p < views_[v].tags.size(); ++p)
      if ((views_[v].tags[p] != 0) == on) out.push_back(static_cast<int64_t>(p));
    return out;
  }
  void addView(int base, bool all, ODBViewRep* made = nullptr, Rows rows = {}) {
    ModelView m{base, {}, {}, ODBView(made ? made : new ODBViewRep(table_.get()))};
    if (!made && base >= 0) m.handle->baseView(views_[base].handle.rep());
    for (int64_t r = 0; !made && r < rowsOf(m.base); ++r)
      if (all || pick(0, 2) == 0) {
        m.handle->displayRecordsAt(static_cast<int>(r), 1, static_cast<int>(rows.size()));
        rows.push_back(r);
      }
    m.tags.assign(rows.size(), 0);
    m.rows = std::move(rows);
    views_.push_back(std::move(m));
  }

  void doOneStep() {
    std::vector<int> alive;
    for (size_t i = 0; i < views_.size(); ++i)
      if (views_[i].alive) alive.push_back(static_cast<int>(i));
    const int v = alive[static_cast<size_t>(pick(0, static_cast<int>(alive.size()) - 1))];
    ODBViewRep& rep = *views_[v].handle.rep();
    const int count = static_cast<int>(views_[v].rows.size());
    const int rows = static_cast<int>(ids_.size());
    const int at = pick(0, std::max(count - 1, 0)), n = pick(1, 6);
    Rows gone;
    const int op = pick(0, 15);
    // A stacked view deletes or removes one run at a time: a listener deleting rows
    // between the runs could take rows the deletion still means to delete.
    // removeTagged with a listener of the host's own does the same.
    if (((op == 2 || op == 3) && views_[v].base >= 0) || op == 5 || op == 6) editor_.reset();
    switch (op) {
      case 0:  // delete a range through the table
        if ((last_ = "table delete_records", rows == 0)) return;
        for (int r = std::min(at, rows - 1); r < std::min(rows, at + n); ++r) gone.push_back(r);
        table_->delete_records(static_cast<unsigned>(gone[0]), static_cast<unsigned>(n));
        return deleteTableRows(gone);
      case 1: {  // delete scattered rows and runs through the table
        last_ = "table delete_tagged_records";
        table_->set_all_tags(0);
        const int density = pick(1, 4);
        for (int r = 0; r < rows; ++r)
          if (pick(0, 9) < density) table_->set_tag(static_cast<unsigned>(r), 1), gone.push_back(r);
        EXPECT_EQ(table_->delete_tagged_records(), static_cast<int>(gone.size()));
        return deleteTableRows(gone);
      }
      case 2:  // delete through a view
        if ((last_ = name(v) + " deleteRecords", count == 0)) return;
        for (int p = at; p < std::min(count, at + n); ++p) gone.push_back(tableRow(v, p));
        rep.deleteRecords(at, n);
        return deleteTableRows(gone);
      case 3:  // delete the tagged rows through a view
        last_ = name(v) + " deleteTagged";
        randomTags(v);
        for (int64_t p : tagged(v, true)) gone.push_back(tableRow(v, p));
        EXPECT_EQ(rep.deleteTagged(), static_cast<int>(gone.size()));
        return deleteTableRows(gone);
      case 4:  // remove from the view only
        if ((last_ = name(v) + " remove", count == 0)) return;
        for (int p = at; p < std::min(count, at + n); ++p) gone.push_back(p);
        rep.remove(at, n);
        return removeEntries(v, gone);
      case 5:  // the tagged rows, or the untagged ones, out of this view and the views below it
      case 6: {
        const bool tags = pick(0, 1);
        last_ = name(v) + (tags ? " removeTagged" : " set_show_tags_only");
        randomTags(v);
        gone = tagged(v, tags);
        const int expected = static_cast<int>(gone.size()), low = lowest(v, gone);
        EXPECT_EQ(tags ? rep.removeTagged() : (rep.set_show_tags_only(1), expected), expected);
        return removeEntries(low, gone);
      }
      case 7:  // append to the table: no view changes
        last_ = "table add_records";
        return grow(n);
      case 8:  // append through a view
        last_ = name(v) + " add_records";
        EXPECT_EQ(rep.add_records(n), count);
        return insert(v, count, n);
      case 9:  // insert through a view in source order (elsewhere it makes duplicates)
        for (int c = v; c >= 0; c = views_[c].base)
          if (!std::is_sorted(views_[c].rows.begin(), views_[c].rows.end())) return;
        if ((last_ = name(v) + " insertBlankRecords", count == 0)) return;
        rep.insertBlankRecords(at, n);
        return insert(v, at, n);
      case 10: {  // sort on the unique identifiers, either way
        const int direction = pick(0, 1) ? 1 : -1;
        last_ = name(v) + " sort " + std::to_string(direction);
        randomTags(v);
        rep.set_sortfield(0);
        rep.sort(direction, 0);
        std::vector<std::pair<std::string, std::pair<int64_t, uint8_t>>> keyed;
        for (int i = 0; i < count; ++i)
          keyed.push_back({"id" + std::to_string(ids_[tableRow(v, i)]),
                           {views_[v].rows[i], views_[v].tags[i]}});
        std::sort(keyed.begin(), keyed.end(), [&](const auto& a, const auto& b) {
          return direction > 0 ? strxcmp(a.first.c_str(), b.first.c_str()) < 0
                               : strcasecmp(a.first.c_str(), b.first.c_str()) > 0;
        });
        for (int i = 0; i < count; ++i)
          std::tie(views_[v].rows[i], views_[v].tags[i]) = keyed[i].second;
        return;
      }
      case 11:  // stack a new view on this one
        if (alive.size() >= 8) return;
        last_ = "stack on " + name(v);
        if (pick(0, 1)) return addView(v, pick(0, 2) != 0);
        randomTags(v);
        return addView(v, false, rep.newTagSubview(), tagged(v, true));
      case 12:  // unstack or drop a view nothing is stacked on
        for (const ModelView& w : views_)
          if (w.alive && w.base == v) return;
        if (alive.size() <= 2) return;
        last_ = name(v) + " unstacked or dropped";
        if (views_[v].base >= 0 && pick(0, 1)) {
          rep.baseView(nullptr);
          views_[v] = ModelView{-1, {}, {}, views_[v].handle, true};
        } else {
          views_[v] = ModelView{-1, {}, {}, {}, false};
        }
        return;
      case 13: {  // copy: over a base view it shows all of the base's rows
        if (alive.size() >= 8) return;
        last_ = "copy " + name(v);
        Rows copied = views_[v].rows;
        if (views_[v].base >= 0) {
          copied.clear();
          for (int64_t r = 0; r < rowsOf(views_[v].base); ++r) copied.push_back(r);
        }
        addView(views_[v].base, false, rep.copy(), copied);
        std::copy_n(views_[v].tags.begin(), std::min(copied.size(), views_[v].tags.size()),
                    views_.back().tags.begin());
        return;
      }
      case 14:  // show everything again (the old rows are announced as removed)
        last_ = name(v) + " displayAllRecords";
        rep.displayAllRecords();
        for (int p = 0; p < count; ++p) gone.push_back(p);
        removeEntries(v, gone);
        for (int64_t r = 0; r < rowsOf(views_[v].base); ++r) views_[v].rows.push_back(r);
        views_[v].tags.assign(views_[v].rows.size(), 0);
        return;
      default:
        last_ = name(v) + " tags";
        return randomTags(v);
    }
  }

  void check(const std::string& where) {
    SCOPED_TRACE(where);
    ASSERT_EQ(table_->get_num_records(), ids_.size());
    for (size_t v = 0; v < views_.size(); ++v) {
      const ModelView& m = views_[v];
      if (!m.alive) continue;
      SCOPED_TRACE(name(static_cast<int>(v)));
      ASSERT_EQ(m.handle->get_num_records(), m.rows.size());
      ASSERT_EQ(m.handle->baseView(), m.base < 0 ? nullptr : views_[m.base].handle.rep());
      for (size_t i = 0; i < m.rows.size(); ++i) {
        // identifiers are unique, so this pins the table row behind entry i
        const int64_t row = tableRow(static_cast<int>(v), static_cast<int64_t>(i));
        ASSERT_EQ(m.handle->getField(i, 0).toStdString(), "id" + std::to_string(ids_[row])) << i;
        ASSERT_EQ(m.handle->get_tag(i), m.tags[i]) << "row " << i;
      }
    }
  }

  std::mt19937_64 rng_;
  std::unique_ptr<zyldb> table_ = makeTable(0);
  Rows ids_;  // the identifier of each table row
  int64_t nextId_ = 0;
  std::vector<ModelView> views_;
  std::string last_;
  Qm::Ptr<iObject> editor_;
  std::vector<int64_t> deletedByListener_;
};

TEST(ODBViewModelTest, ViewsFollowRandomOperations) {
  const char* env = std::getenv("ZYLDB_MODEL_ITERATIONS");
  const int sequences = env ? std::max(1, std::atoi(env)) : 60;
  const char* fixed = std::getenv("ZYLDB_MODEL_SEED");
  const uint64_t base = fixed ? std::strtoull(fixed, nullptr, 10) : std::random_device{}();
  std::printf("model: %d sequences from seed %llu\n", sequences,
              static_cast<unsigned long long>(base));
  for (int i = 0; i < sequences && !::testing::Test::HasFailure(); ++i) {
    SCOPED_TRACE("seed " + std::to_string(base + static_cast<uint64_t>(i)));
    ModelRun(base + static_cast<uint64_t>(i)).run(120);
  }
}

}  // namespace
}  // namespace zyl::test
