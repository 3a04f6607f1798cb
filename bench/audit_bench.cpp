// Audit benchmark: auditing a log against loading it, the audit's peer.
//
// Every benchmark takes the number of rows (10000, 100000, 1000000). The log
// of each size is generated once (LogGenerator, seed 1) into
// $ZYLDB_BENCH_DIR (default /tmp/zyldb-bench), shared with table_bench.
//
//   Load          zyldb(file): what a host pays before it can audit.
//   Audit         zyl::audit::audit of the loaded table, default options.
//   AuditLines    the same plus recordLines (the file read again to point
//                 findings at their lines), as `zyldb audit` does.
//   AuditTimeline the same as Audit, keeping the reels' timelines (--html).

#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <zyldb/audit/Audit.h>
#include <zyldb/db/zyldb.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "LogGenerator.h"

namespace {

constexpr uint64_t kSeed = 1;
constexpr int kGeneratorVersion = 1;

LightweightString<wchar_t> logPath(size_t rows) {
  const char* env = std::getenv("ZYLDB_BENCH_DIR");
  std::string dir = env && *env ? env : "/tmp/zyldb-bench";
  ::mkdir(dir.c_str(), 0777);
  const std::string path = dir + "/clips-g" + std::to_string(kGeneratorVersion) + "-s" +
                           std::to_string(kSeed) + "-" + std::to_string(rows) + ".log";
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 && !zyl::writeGeneratedLog(path, rows, kSeed)) {
    std::fprintf(stderr, "audit_bench: cannot write %s\n", path.c_str());
    std::exit(1);
  }
  return LightweightString<wchar_t>(std::wstring(path.begin(), path.end()));
}

zyldb& table(size_t rows) {
  static std::map<size_t, std::unique_ptr<zyldb>> tables;
  auto& t = tables[rows];
  if (!t) t.reset(new zyldb(logPath(rows), INT_MAX, false));
  return *t;
}

void BM_Load(benchmark::State& state) {
  LightweightString<wchar_t> path = logPath(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    zyldb t(path, INT_MAX, false);
    benchmark::DoNotOptimize(t.get_num_records());
  }
}

void runAudit(benchmark::State& state, bool lines, bool timelines) {
  size_t rows = static_cast<size_t>(state.range(0));
  zyldb& t = table(rows);
  size_t findings = 0;
  for (auto _ : state) {
    zyl::audit::Options o;
    if (lines) o.tableRowLines = zyl::audit::recordLines(logPath(rows));
    o.keepTimelines = timelines;
    zyl::audit::Report r = zyl::audit::audit(t, o);
    findings = r.findings.size();
    benchmark::DoNotOptimize(findings);
  }
  state.counters["findings"] = static_cast<double>(findings);
}

void BM_Audit(benchmark::State& state) { runAudit(state, false, false); }
void BM_AuditLines(benchmark::State& state) { runAudit(state, true, false); }
void BM_AuditTimeline(benchmark::State& state) { runAudit(state, false, true); }

}  // namespace

BENCHMARK(BM_Load)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Audit)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AuditLines)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AuditTimeline)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
