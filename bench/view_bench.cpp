// View benchmarks: views over large tables, against the table doing the same
// work on its own as the peer.
//
// Every benchmark takes the number of rows as its first argument (10000,
// 100000, 1000000); the deletion benchmarks take the percentage of rows
// deleted (1, 10, 50) as the second. The log of each size is generated once
// (LogGenerator, seed 1) into $ZYLDB_BENCH_DIR (default /tmp/zyldb-bench),
// shared with table_bench, and loaded once per size.
//
//   Build            a view over the whole table (displayAllRecords).
//   SortScene        sort a view in file order on "Scene" (the default
//                    comparator). Peer: Table_SortScene sorts the table.
//   SortStartTime    the same on "Start time" (a timecode column).
//   TagMatches       tag the view rows whose "Description" holds a phrase.
//                    Peer: Table_TagMatches (tag_matching_records).
//   DeleteRuns       delete the percentage of rows in evenly spaced runs of
//                    n/1000 rows (at least 1) through the table
//                    (delete_tagged_records), with three views on it: one
//                    over all rows, one sorted on "Scene", and one stacked
//                    on the first. Peer: Table_DeleteRuns, no views.
//   DeleteScattered  the same with rows picked at random: about one run per
//                    deleted row at 1 %, one per two rows at 50 %.
//   DeleteTaggedThroughView  the scattered rows tagged in a view over the
//                    whole table and deleted with its deleteTagged, with a
//                    second view (sorted on "Scene") open. Peer:
//                    Table_DeleteScattered.
//
// The table announces each run separately, but removes every run in one pass
// and the views catch up in one pass after the last announcement, so deleting
// m rows under a view of n rows costs O(n + m log n) per view.

#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/LightweightString.h>
#include <zyldb/view/ODBView.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "LogGenerator.h"

namespace {

constexpr uint64_t kSeed = 1;
constexpr int kGeneratorVersion = 1;
constexpr const char* kSearchText = "rain on the glass";

std::string benchDir() {
  const char* env = std::getenv("ZYLDB_BENCH_DIR");
  std::string dir = env && *env ? env : "/tmp/zyldb-bench";
  ::mkdir(dir.c_str(), 0777);
  return dir;
}

// The table loaded from the generated log of `rows` rows, made on first use.
zyldb& sourceTable(size_t rows) {
  static std::map<size_t, std::unique_ptr<zyldb>> tables;
  auto& t = tables[rows];
  if (t) return *t;
  const std::string path = benchDir() + "/clips-g" + std::to_string(kGeneratorVersion) + "-s" +
                           std::to_string(kSeed) + "-" + std::to_string(rows) + ".log";
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 && !zyl::writeGeneratedLog(path, rows, kSeed)) {
    std::fprintf(stderr, "view_bench: cannot write %s\n", path.c_str());
    std::exit(1);
  }
  t.reset(new zyldb(LightweightString<wchar_t>(std::wstring(path.begin(), path.end())), INT_MAX,
                    false));
  if (!t->get_valid() || t->get_num_records() != rows) {
    std::fprintf(stderr, "view_bench: cannot load %s\n", path.c_str());
    std::exit(1);
  }
  return *t;
}

int column(zyldb& t, const char* name) { return t.get_fieldnum(LightweightString<char>(name)); }

void setQuery(zyldb& t) {
  std::unique_ptr<dbrecord> query(t.make_dummy_record());
  query->set_field(column(t, "Description"), kSearchText);
  t.set_query(query.get());
}

// The rows to delete: `percent` of `n`, in evenly spaced runs or scattered.
std::vector<unsigned> doomedRows(size_t n, int percent, bool runs) {
  std::vector<unsigned> out;
  if (runs) {
    const size_t len = std::max<size_t>(1, n / 1000);
    const size_t count = n * static_cast<size_t>(percent) / 100 / len;
    const size_t stride = count ? n / count : n;
    for (size_t k = 0; k < count; ++k)
      for (size_t i = 0; i < len && k * stride + i < n; ++i)
        out.push_back(static_cast<unsigned>(k * stride + i));
  } else {
    uint64_t x = 0x9e3779b97f4a7c15ull;
    for (size_t r = 0; r < n; ++r) {
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      if (x % 100 < static_cast<uint64_t>(percent)) out.push_back(static_cast<unsigned>(r));
    }
  }
  return out;
}

size_t runsIn(const std::vector<unsigned>& rows) {
  size_t runs = 0;
  for (size_t i = 0; i < rows.size(); ++i) runs += i == 0 || rows[i] != rows[i - 1] + 1;
  return runs;
}

void BM_View_Build(benchmark::State& state) {
  zyldb& t = sourceTable(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    ODBView v(new ODBViewRep(&t));
    v->displayAllRecords();
    benchmark::DoNotOptimize(v->get_num_records());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void sortView(benchmark::State& state, const char* field) {
  zyldb& t = sourceTable(static_cast<size_t>(state.range(0)));
  ODBView v(new ODBViewRep(&t));
  for (auto _ : state) {
    state.PauseTiming();
    v->displayAllRecords();
    v->set_sortfield(column(t, field));
    state.ResumeTiming();
    v->sort(0, 0);
  }
  t.set_sortfield(0);
}

void BM_View_SortScene(benchmark::State& state) { sortView(state, "Scene"); }
void BM_View_SortStartTime(benchmark::State& state) { sortView(state, "Start time"); }

void BM_Table_SortScene(benchmark::State& state) {
  zyldb& src = sourceTable(static_cast<size_t>(state.range(0)));
  std::unique_ptr<zyldb> t;
  for (auto _ : state) {
    state.PauseTiming();
    t.reset(new zyldb(src, 1));
    t->set_sortfield(column(*t, "Scene"));
    state.ResumeTiming();
    t->sort(0, 0);
  }
}

void BM_View_TagMatches(benchmark::State& state) {
  zyldb& t = sourceTable(static_cast<size_t>(state.range(0)));
  setQuery(t);
  ODBView v(new ODBViewRep(&t));
  v->displayAllRecords();
  int found = 0;
  for (auto _ : state) found = v->tagMatches(0);
  state.counters["matches"] = found;
}

void BM_Table_TagMatches(benchmark::State& state) {
  zyldb& t = sourceTable(static_cast<size_t>(state.range(0)));
  setQuery(t);
  int found = 0;
  for (auto _ : state) found = t.tag_matching_records(0);
  t.set_all_tags(0);
  state.counters["matches"] = found;
}

void deleteRows(benchmark::State& state, bool runs, bool withViews) {
  const size_t n = static_cast<size_t>(state.range(0));
  const int percent = static_cast<int>(state.range(1));
  const std::vector<unsigned> doomed = doomedRows(n, percent, runs);
  const size_t announcements = runsIn(doomed);
  zyldb& src = sourceTable(n);
  for (auto _ : state) {
    state.PauseTiming();
    {
      zyldb t(src, 1);
      ODBView all, sorted, stacked;
      if (withViews) {
        all = ODBView(new ODBViewRep(&t));
        all->displayAllRecords();
        sorted = ODBView(new ODBViewRep(&t));
        sorted->displayAllRecords();
        sorted->set_sortfield(column(t, "Scene"));
        sorted->sort(0, 0);
        stacked = ODBView(new ODBViewRep(&t));
        stacked->baseView(all.rep());
        stacked->displayAllRecords();
      }
      t.set_all_tags(0);
      for (unsigned r : doomed) t.set_tag(r, 1);
      state.ResumeTiming();
      const int deleted = t.delete_tagged_records();
      state.PauseTiming();
      if (deleted != static_cast<int>(doomed.size()) ||
          (withViews && stacked->get_num_records() != n - doomed.size()))
        state.SkipWithError("wrong number of rows deleted");
    }
    state.ResumeTiming();
  }
  state.counters["runs"] = static_cast<double>(announcements);
  state.counters["deleted"] = static_cast<double>(doomed.size());
}

void BM_View_DeleteTaggedThroughView(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const std::vector<unsigned> doomed = doomedRows(n, static_cast<int>(state.range(1)), false);
  zyldb& src = sourceTable(n);
  for (auto _ : state) {
    state.PauseTiming();
    {
      zyldb t(src, 1);
      ODBView through(new ODBViewRep(&t)), second(new ODBViewRep(&t));
      through->displayAllRecords();
      second->displayAllRecords();
      second->set_sortfield(column(t, "Scene"));
      second->sort(0, 0);
      for (unsigned r : doomed) through->set_tag(r, 1);
      state.ResumeTiming();
      const int deleted = through->deleteTagged();
      state.PauseTiming();
      if (deleted != static_cast<int>(doomed.size()) ||
          second->get_num_records() != n - doomed.size() ||
          t.get_num_records() != n - doomed.size())
        state.SkipWithError("wrong number of rows deleted");
    }
    state.ResumeTiming();
  }
  state.counters["deleted"] = static_cast<double>(doomed.size());
}

void BM_View_DeleteRuns(benchmark::State& state) { deleteRows(state, true, true); }
void BM_Table_DeleteRuns(benchmark::State& state) { deleteRows(state, true, false); }
void BM_View_DeleteScattered(benchmark::State& state) { deleteRows(state, false, true); }
void BM_Table_DeleteScattered(benchmark::State& state) { deleteRows(state, false, false); }

void sizes(benchmark::internal::Benchmark* b) {
  for (int64_t n : {10000, 100000, 1000000}) b->Arg(n);
  b->Unit(benchmark::kMillisecond);
}

void sizesAndShares(benchmark::internal::Benchmark* b) {
  for (int64_t n : {10000, 100000, 1000000})
    for (int64_t pct : {1, 10, 50}) b->Args({n, pct});
  b->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3)->ReportAggregatesOnly(false);
}

}  // namespace

BENCHMARK(BM_View_Build)->Apply(sizes);
BENCHMARK(BM_View_SortScene)->Apply(sizes);
BENCHMARK(BM_Table_SortScene)->Apply(sizes);
BENCHMARK(BM_View_SortStartTime)->Apply(sizes);
BENCHMARK(BM_View_TagMatches)->Apply(sizes);
BENCHMARK(BM_Table_TagMatches)->Apply(sizes);
BENCHMARK(BM_View_DeleteRuns)->Apply(sizesAndShares);
BENCHMARK(BM_Table_DeleteRuns)->Apply(sizesAndShares);
BENCHMARK(BM_View_DeleteScattered)->Apply(sizesAndShares);
BENCHMARK(BM_Table_DeleteScattered)->Apply(sizesAndShares);
BENCHMARK(BM_View_DeleteTaggedThroughView)->Apply(sizesAndShares);

BENCHMARK_MAIN();
