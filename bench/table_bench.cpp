// Table benchmarks: the in-memory table (zyldb) against a peer, an in-memory
// SQLite database holding the same rows, and against the floor, the least
// work any loader must do.
//
// Every benchmark takes one argument, the number of rows (10000, 100000,
// 1000000). The log of each size is generated once (LogGenerator, seed 1)
// into $ZYLDB_BENCH_DIR (default /tmp/zyldb-bench) and reused by later runs.
// Each operation has one function per engine, named BM_<Engine>_<Operation>,
// so that scripts/bench.sh can pair them:
//
//   Load        zyldb: construct the table from the file.
//               Sqlite: read the file, split it with a small quoted-field
//               splitter and insert every row (16 text columns) in one
//               transaction through one prepared statement.
//               Floor: read the file and split every line into fields,
//               storing nothing.
//   Save        zyldb: save_text to a new file. Sqlite: select every row
//               and write it as quoted lines. Floor: write the file's bytes.
//               All three write a whole buffer, fsync it and rename it into
//               place, as the library's file layer does.
//   SortScene   zyldb: sort on "Scene" (default comparator), starting from
//               file order every time. Sqlite: ORDER BY scene COLLATE NOCASE,
//               reading out every rowid.
//   SortStartTime  the same on "Start time" (a timecode column).
//   Search      zyldb: tag_matching_records for a substring of "Description".
//               Sqlite: count(*) WHERE description LIKE '%...%'.
//   FindFirst   the first row whose "Name" equals the name of a row near the
//               end (a full scan in both engines).
//   LookupById  one identifier lookup (zyldb: getRowIndexByID after its
//               cache was built; Sqlite: an indexed equality query on the
//               cookie column, the index built beforehand). Time per lookup.
//   Resident    memory, not time: in a fresh process (this program run with
//               --resident), the growth of resident memory from loading the
//               file into the engine (counter "rss_MB") and the growth of the
//               peak (counter "peak_MB").

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/Cookie.h>
#include <zyldb/platform/LightweightString.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "LogGenerator.h"

namespace {

constexpr uint64_t kSeed = 1;
// Part of the cached file names: change it when the generator's output
// changes, so that stale logs are not reused.
constexpr int kGeneratorVersion = 1;
constexpr const char* kSearchText = "rain on the glass";

// ---- Files ------------------------------------------------------------------

std::string benchDir() {
  const char* env = std::getenv("ZYLDB_BENCH_DIR");
  std::string dir = env && *env ? env : "/tmp/zyldb-bench";
  ::mkdir(dir.c_str(), 0777);
  return dir;
}

// The generated log of `rows` rows, made on first use.
const std::string& logFile(size_t rows) {
  static std::vector<std::pair<size_t, std::string>> known;
  for (auto& [n, path] : known)
    if (n == rows) return path;
  std::string path = benchDir() + "/clips-g" + std::to_string(kGeneratorVersion) + "-s" +
                     std::to_string(kSeed) + "-" + std::to_string(rows) + ".log";
  struct stat st;
  if (::stat(path.c_str(), &st) != 0 && !zyl::writeGeneratedLog(path, rows, kSeed)) {
    std::fprintf(stderr, "table_bench: cannot write %s\n", path.c_str());
    std::exit(1);
  }
  known.emplace_back(rows, path);
  return known.back().second;
}

std::string outFile(const char* engine) { return benchDir() + "/out-" + engine + ".log"; }

LightweightString<wchar_t> widePath(const std::string& path) {
  return LightweightString<wchar_t>(std::wstring(path.begin(), path.end()));
}

bool readWholeFile(const std::string& path, std::string& out) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  bool ok = ::fstat(fd, &st) == 0;
  if (ok) {
    out.resize(static_cast<size_t>(st.st_size));
    size_t used = 0;
    while (ok && used < out.size()) {
      ssize_t r = ::read(fd, out.data() + used, out.size() - used);
      ok = r > 0;
      if (ok) used += static_cast<size_t>(r);
    }
  }
  ::close(fd);
  return ok;
}

// Writes `text` as the library's file layer does: a temporary file, written
// whole, fsync'ed, then renamed over `path`.
bool writeFileSafely(const std::string& path, std::string_view text) {
  std::string tmp = path + ".tmp";
  int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  bool ok = true;
  while (ok && !text.empty()) {
    ssize_t w = ::write(fd, text.data(), text.size());
    ok = w > 0;
    if (ok) text.remove_prefix(static_cast<size_t>(w));
  }
  ok = ::fsync(fd) == 0 && ok;
  ok = ::close(fd) == 0 && ok;
  ok = ok && ::rename(tmp.c_str(), path.c_str()) == 0;
  if (!ok) ::unlink(tmp.c_str());
  return ok;
}

// Calls onLine for every line of `text` (without its line end).
template <class OnLine>
void forEachLine(std::string_view text, OnLine&& onLine) {
  while (!text.empty()) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    onLine(line);
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

// The record lines of a log: everything after the names line.
std::string_view recordLines(std::string_view text) {
  size_t pos = text.find("\n\"ZYLDB\"\n");
  if (pos == std::string_view::npos) return {};
  pos += 9;
  for (int i = 0; i < 3 && pos != std::string_view::npos; ++i) {
    pos = text.find('\n', pos);
    if (pos != std::string_view::npos) ++pos;
  }
  return pos == std::string_view::npos ? std::string_view() : text.substr(pos);
}

// The header of a log: everything up to and including the names line.
std::string_view headerLines(std::string_view text) {
  std::string_view records = recordLines(text);
  return text.substr(0, text.size() - records.size());
}

// ---- The process-wide state cache ---------------------------------------------
//
// Loading a million rows takes a while, so the loaded table or database is
// kept between benchmark functions and repetitions. Only one object is held
// at a time, so two large engines never sit in memory together.

class StateCache {
 public:
  // The object under `key`, made with make() (which returns a unique_ptr)
  // after dropping the one held before, when the key differs.
  template <class T, class Make>
  T* get(const std::string& key, Make make) {
    if (key != key_) {
      object_.reset();
      key_.clear();
      object_ = std::shared_ptr<T>(make());
      key_ = key;
    }
    return static_cast<T*>(object_.get());
  }

 private:
  std::string key_;
  std::shared_ptr<void> object_;
};

StateCache& cache() {
  static StateCache c;
  return c;
}

// ---- zyldb ------------------------------------------------------------------

std::unique_ptr<zyldb> loadTable(size_t rows) {
  auto t = std::make_unique<zyldb>(widePath(logFile(rows)), INT_MAX, false);
  if (!t->get_valid() || t->get_num_records() != rows) {
    std::fprintf(stderr, "table_bench: loading %s gave %u rows (valid %d)\n", logFile(rows).c_str(),
                 t->get_num_records(), t->get_valid());
    std::exit(1);
  }
  return t;
}

zyldb& loadedTable(size_t rows) {
  return *cache().get<zyldb>("zyldb-" + std::to_string(rows), [rows] { return loadTable(rows); });
}

// A loaded table with an extra column "seq" holding each row's position in
// the file, so that a sort benchmark can put the rows back in file order.
struct SortableTable {
  std::unique_ptr<zyldb> table;
  int seqColumn = -1;
};

SortableTable& sortableTable(size_t rows) {
  return *cache().get<SortableTable>("zyldb-seq-" + std::to_string(rows), [rows] {
    auto s = std::make_unique<SortableTable>();
    s->table = loadTable(rows);
    s->seqColumn = s->table->addField(DBFieldDesc{"seq", DBFieldTypes::text});
    char buf[16];
    for (unsigned int r = 0; r < rows; ++r) {
      std::snprintf(buf, sizeof buf, "%09u", r);
      s->table->set_field(r, static_cast<unsigned int>(s->seqColumn), buf);
    }
    return s;
  });
}

void BM_Zyldb_Load(benchmark::State& state) {
  const size_t rows = static_cast<size_t>(state.range(0));
  const std::string& path = logFile(rows);
  // Drop any cached engine: loads are measured without one in memory.
  cache().get<int>("none", [] { return std::make_unique<int>(0); });
  for (auto _ : state) {
    auto t = std::make_unique<zyldb>(widePath(path), INT_MAX, false);
    benchmark::DoNotOptimize(t->get_num_records());
    state.PauseTiming();
    if (t->get_num_records() != rows) state.SkipWithError("short load");
    t.reset();
    state.ResumeTiming();
  }
}

void BM_Zyldb_Save(benchmark::State& state) {
  const size_t rows = static_cast<size_t>(state.range(0));
  zyldb& t = loadedTable(rows);
  const std::string out = outFile("zyldb");
  LightweightString<wchar_t> original = t.get_filename();
  t.set_filename(widePath(out));
  for (auto _ : state) {
    if (t.save_text() != static_cast<int>(rows)) state.SkipWithError("save_text failed");
  }
  t.set_filename(original);
}

void zyldbSort(benchmark::State& state, const char* column) {
  const size_t rows = static_cast<size_t>(state.range(0));
  SortableTable& s = sortableTable(rows);
  zyldb& t = *s.table;
  const int field = t.get_fieldnum(column);
  for (auto _ : state) {
    state.PauseTiming();
    t.set_sortfield(s.seqColumn);
    t.sort(1, 1);
    t.set_sortfield(field);
    state.ResumeTiming();
    t.sort(1, 0);
  }
}

void BM_Zyldb_SortScene(benchmark::State& state) { zyldbSort(state, "Scene"); }
void BM_Zyldb_SortStartTime(benchmark::State& state) { zyldbSort(state, "Start time"); }

void BM_Zyldb_Search(benchmark::State& state) {
  zyldb& t = loadedTable(static_cast<size_t>(state.range(0)));
  std::unique_ptr<dbrecord> q(t.make_dummy_record());
  q->set_field(t.get_fieldnum("Description"), kSearchText);
  t.set_query(q.get());
  int matches = 0;
  for (auto _ : state) {
    matches = t.tag_matching_records(0);
    benchmark::DoNotOptimize(matches);
  }
  state.counters["matches"] = matches;
}

// The "Name" of the row five from the end: names are unique in generated
// logs, so a search for it scans nearly every row.
std::string lateName(zyldb& t) {
  return std::string(
      t.getField(t.get_num_records() - 5, static_cast<unsigned int>(t.get_fieldnum("Name")))
          .view());
}

void BM_Zyldb_FindFirst(benchmark::State& state) {
  zyldb& t = loadedTable(static_cast<size_t>(state.range(0)));
  const std::string name = lateName(t);
  int row = -1;
  for (auto _ : state) {
    row = t.findFirst("Name", name.c_str(), 0);
    benchmark::DoNotOptimize(row);
  }
  if (row != static_cast<int>(t.get_num_records()) - 5)
    state.SkipWithError("findFirst found the wrong row");
}

// Every n/1000th row's identifier, in a scattered order.
std::vector<std::string> sampleCookies(const std::function<std::string(size_t)>& cookieAt,
                                       size_t rows) {
  std::vector<std::string> ids;
  const size_t step = rows / 1000 ? rows / 1000 : 1;
  for (size_t r = 0; r < rows; r += step) ids.push_back(cookieAt(r));
  for (size_t i = 0; i + 1 < ids.size(); i += 2) std::swap(ids[i], ids[ids.size() - 1 - i]);
  return ids;
}

void BM_Zyldb_LookupById(benchmark::State& state) {
  const size_t rows = static_cast<size_t>(state.range(0));
  zyldb& t = loadedTable(rows);
  const unsigned int col = static_cast<unsigned int>(t.get_fieldnum("Cookie"));
  std::vector<Cookie> ids;
  for (const std::string& text : sampleCookies(
           [&](size_t r) {
             return std::string(t.getField(static_cast<unsigned int>(r), col).view());
           },
           rows))
    ids.emplace_back(text.c_str(), false);
  t.getRowIndexByID(ids[0]);  // builds the cache
  size_t i = 0;
  long found = 0;
  for (auto _ : state) {
    int row = t.getRowIndexByID(ids[i]);
    found += row >= 0;
    if (++i == ids.size()) i = 0;
  }
  if (found != static_cast<long>(state.iterations()))
    state.SkipWithError("an identifier was not found");
}

// ---- SQLite -------------------------------------------------------------------

struct SqliteCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct StmtFinalizer {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Db = std::unique_ptr<sqlite3, SqliteCloser>;
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

void sqliteCheck(sqlite3* db, int rc, const char* what) {
  if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
    std::fprintf(stderr, "table_bench: sqlite %s: %s\n", what, sqlite3_errmsg(db));
    std::exit(1);
  }
}

void exec(sqlite3* db, const char* sql) {
  sqliteCheck(db, sqlite3_exec(db, sql, nullptr, nullptr, nullptr), sql);
}

Stmt prepare(sqlite3* db, const char* sql) {
  sqlite3_stmt* s = nullptr;
  sqliteCheck(db, sqlite3_prepare_v2(db, sql, -1, &s, nullptr), sql);
  return Stmt(s);
}

constexpr const char* kSqlColumns[zyl::kLogNumColumns] = {
    "name",        "cookie",   "reel",        "scene",   "shot",     "take",
    "start_time",  "end_time", "snd_start",   "snd_end", "snd_reel", "start_keycode",
    "end_keycode", "who",      "description", "notes",
};

// An in-memory database with the rows of the log at `path`, built the way
// BM_Sqlite_Load measures it. Returns the row count through `rowsOut`.
Db sqliteLoad(const std::string& path, size_t* rowsOut) {
  sqlite3* raw = nullptr;
  if (sqlite3_open(":memory:", &raw) != SQLITE_OK) {
    std::fprintf(stderr, "table_bench: cannot open an in-memory database\n");
    std::exit(1);
  }
  Db db(raw);
  // The most favourable settings for bulk loading: no journal, no syncing.
  exec(db.get(), "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA temp_store=MEMORY");
  std::string create = "CREATE TABLE clips(";
  std::string insert = "INSERT INTO clips VALUES(";
  for (size_t c = 0; c < zyl::kLogNumColumns; ++c) {
    create += std::string(c ? "," : "") + kSqlColumns[c] + " TEXT";
    insert += c ? ",?" : "?";
  }
  exec(db.get(), (create + ")").c_str());
  Stmt stmt = prepare(db.get(), (insert + ")").c_str());

  std::string text;
  if (!readWholeFile(path, text)) {
    std::fprintf(stderr, "table_bench: cannot read %s\n", path.c_str());
    std::exit(1);
  }
  exec(db.get(), "BEGIN");
  std::string scratch;
  size_t rows = 0;
  sqlite3_stmt* s = stmt.get();
  forEachLine(recordLines(text), [&](std::string_view line) {
    if (line.empty()) return;
    int col = 0;
    zyl::splitRecordLine(line, scratch, [&](std::string_view v) {
      if (col < static_cast<int>(zyl::kLogNumColumns)) {
        // Views into the file buffer stay valid until the step; decoded
        // values live in `scratch`, which the next field overwrites.
        bool decoded = !scratch.empty() && v.data() == scratch.data();
        sqlite3_bind_text(s, ++col, v.data(), static_cast<int>(v.size()),
                          decoded ? SQLITE_TRANSIENT : SQLITE_STATIC);
      }
    });
    sqliteCheck(db.get(), sqlite3_step(s), "insert");
    sqlite3_reset(s);
    ++rows;
  });
  exec(db.get(), "COMMIT");
  if (rowsOut) *rowsOut = rows;
  return db;
}

sqlite3* loadedDb(size_t rows) {
  return cache().get<sqlite3>("sqlite-" + std::to_string(rows),
                              [rows] { return sqliteLoad(logFile(rows), nullptr); });
}

void BM_Sqlite_Load(benchmark::State& state) {
  const size_t rows = static_cast<size_t>(state.range(0));
  const std::string& path = logFile(rows);
  cache().get<int>("none", [] { return std::make_unique<int>(0); });
  for (auto _ : state) {
    size_t n = 0;
    Db db = sqliteLoad(path, &n);
    state.PauseTiming();
    if (n != rows) state.SkipWithError("short load");
    db.reset();
    state.ResumeTiming();
  }
}

void BM_Sqlite_Save(benchmark::State& state) {
  const size_t rows = static_cast<size_t>(state.range(0));
  std::string original;
  readWholeFile(logFile(rows), original);
  const std::string header(headerLines(original));
  original.clear();
  original.shrink_to_fit();
  sqlite3* db = loadedDb(rows);
  const std::string out = outFile("sqlite");
  std::string sql = "SELECT ";
  for (size_t c = 0; c < zyl::kLogNumColumns; ++c)
    sql += std::string(c ? "," : "") + kSqlColumns[c];
  Stmt stmt = prepare(db, (sql + " FROM clips ORDER BY rowid").c_str());
  sqlite3_stmt* s = stmt.get();
  for (auto _ : state) {
    std::string text = header;
    while (sqlite3_step(s) == SQLITE_ROW) {
      for (int c = 0; c < static_cast<int>(zyl::kLogNumColumns); ++c) {
        if (c) text.push_back(',');
        text.push_back('"');
        const char* v = reinterpret_cast<const char*>(sqlite3_column_text(s, c));
        for (int i = 0, n = sqlite3_column_bytes(s, c); i < n; ++i) {
          char ch = v[i];
          if (ch == '"')
            text += "\"\"";
          else if (ch == '\n')
            text += "\\n";
          else if (ch != '\r')
            text.push_back(ch);
        }
        text.push_back('"');
      }
      text.push_back('\n');
    }
    sqlite3_reset(s);
    if (!writeFileSafely(out, text)) state.SkipWithError("write failed");
  }
}

void sqliteSort(benchmark::State& state, const char* sql) {
  sqlite3* db = loadedDb(static_cast<size_t>(state.range(0)));
  Stmt stmt = prepare(db, sql);
  std::vector<sqlite3_int64> order;
  for (auto _ : state) {
    order.clear();
    while (sqlite3_step(stmt.get()) == SQLITE_ROW)
      order.push_back(sqlite3_column_int64(stmt.get(), 0));
    sqlite3_reset(stmt.get());
    benchmark::DoNotOptimize(order.data());
  }
  if (order.size() != static_cast<size_t>(state.range(0))) state.SkipWithError("short result");
}

void BM_Sqlite_SortScene(benchmark::State& state) {
  sqliteSort(state, "SELECT rowid FROM clips ORDER BY scene COLLATE NOCASE");
}
void BM_Sqlite_SortStartTime(benchmark::State& state) {
  sqliteSort(state, "SELECT rowid FROM clips ORDER BY start_time");
}

void BM_Sqlite_Search(benchmark::State& state) {
  sqlite3* db = loadedDb(static_cast<size_t>(state.range(0)));
  Stmt stmt = prepare(db, "SELECT count(*) FROM clips WHERE description LIKE ?1");
  const std::string pattern = std::string("%") + kSearchText + "%";
  sqlite3_bind_text(stmt.get(), 1, pattern.c_str(), -1, SQLITE_STATIC);
  sqlite3_int64 matches = 0;
  for (auto _ : state) {
    sqlite3_step(stmt.get());
    matches = sqlite3_column_int64(stmt.get(), 0);
    sqlite3_reset(stmt.get());
  }
  state.counters["matches"] = static_cast<double>(matches);
}

std::string sqliteText(sqlite3* db, const char* sql, sqlite3_int64 arg) {
  Stmt stmt = prepare(db, sql);
  sqlite3_bind_int64(stmt.get(), 1, arg);
  std::string out;
  if (sqlite3_step(stmt.get()) == SQLITE_ROW)
    out = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0));
  return out;
}

void BM_Sqlite_FindFirst(benchmark::State& state) {
  const size_t rows = static_cast<size_t>(state.range(0));
  sqlite3* db = loadedDb(rows);
  const std::string name = sqliteText(db, "SELECT name FROM clips WHERE rowid = ?1",
                                      static_cast<sqlite3_int64>(rows) - 4);
  Stmt stmt = prepare(db, "SELECT rowid FROM clips WHERE name = ?1 LIMIT 1");
  sqlite3_bind_text(stmt.get(), 1, name.c_str(), -1, SQLITE_STATIC);
  sqlite3_int64 row = -1;
  for (auto _ : state) {
    row = sqlite3_step(stmt.get()) == SQLITE_ROW ? sqlite3_column_int64(stmt.get(), 0) : -1;
    sqlite3_reset(stmt.get());
  }
  if (row != static_cast<sqlite3_int64>(rows) - 4) state.SkipWithError("found the wrong row");
}

void BM_Sqlite_LookupById(benchmark::State& state) {
  const size_t rows = static_cast<size_t>(state.range(0));
  sqlite3* db = loadedDb(rows);
  exec(db, "CREATE INDEX IF NOT EXISTS clips_cookie ON clips(cookie)");
  std::vector<std::string> ids = sampleCookies(
      [&](size_t r) {
        return sqliteText(db, "SELECT cookie FROM clips WHERE rowid = ?1",
                          static_cast<sqlite3_int64>(r) + 1);
      },
      rows);
  Stmt stmt = prepare(db, "SELECT rowid FROM clips WHERE cookie = ?1");
  sqlite3_stmt* s = stmt.get();
  size_t i = 0;
  long found = 0;
  for (auto _ : state) {
    sqlite3_bind_text(s, 1, ids[i].data(), static_cast<int>(ids[i].size()), SQLITE_STATIC);
    found += sqlite3_step(s) == SQLITE_ROW;
    sqlite3_reset(s);
    if (++i == ids.size()) i = 0;
  }
  if (found != static_cast<long>(state.iterations()))
    state.SkipWithError("an identifier was not found");
}

// ---- The floor ----------------------------------------------------------------

void BM_Floor_Load(benchmark::State& state) {
  const std::string& path = logFile(static_cast<size_t>(state.range(0)));
  std::string text, scratch;
  size_t fields = 0;
  for (auto _ : state) {
    if (!readWholeFile(path, text)) state.SkipWithError("read failed");
    fields = 0;
    forEachLine(text, [&](std::string_view line) {
      fields += zyl::splitRecordLine(
          line, scratch, [](std::string_view v) { benchmark::DoNotOptimize(v.data()); });
    });
    benchmark::DoNotOptimize(fields);
    state.PauseTiming();
    text.clear();
    text.shrink_to_fit();
    state.ResumeTiming();
  }
}

void BM_Floor_Save(benchmark::State& state) {
  std::string text;
  readWholeFile(logFile(static_cast<size_t>(state.range(0))), text);
  const std::string out = outFile("floor");
  for (auto _ : state) {
    if (!writeFileSafely(out, text)) state.SkipWithError("write failed");
  }
}

// ---- Memory -----------------------------------------------------------------------

// A field of /proc/self/status in kB ("VmRSS", "VmHWM"); -1 if absent.
long statusKb(const char* key) {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return -1;
  char line[256];
  long value = -1;
  const size_t n = std::strlen(key);
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, key, n) == 0 && line[n] == ':')
      value = std::strtol(line + n + 1, nullptr, 10);
  }
  std::fclose(f);
  return value;
}

// The child's side of the Resident benchmarks: loads the file into `engine`
// and prints the growth of VmRSS and of VmHWM, in kB, over the state before.
int residentChild(const char* engine, const char* path) {
  const long rss0 = statusKb("VmRSS");
  long rss = -1, hwm = -1;
  if (std::strcmp(engine, "zyldb") == 0) {
    zyldb t(widePath(path), INT_MAX, false);
    rss = statusKb("VmRSS");
    hwm = statusKb("VmHWM");
  } else {
    Db db = sqliteLoad(path, nullptr);
    rss = statusKb("VmRSS");
    hwm = statusKb("VmHWM");
  }
  std::printf("%ld %ld\n", rss - rss0, hwm - rss0);
  return 0;
}

void resident(benchmark::State& state, const char* engine) {
  const std::string& path = logFile(static_cast<size_t>(state.range(0)));
  long rssKb = -1, peakKb = -1;
  for (auto _ : state) {
    int fds[2];
    if (::pipe(fds) != 0) {
      state.SkipWithError("pipe failed");
      break;
    }
    pid_t pid = ::fork();
    if (pid == 0) {
      ::dup2(fds[1], 1);
      ::close(fds[0]);
      ::close(fds[1]);
      ::execl("/proc/self/exe", "table_bench", "--resident", engine, path.c_str(),
              static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(fds[1]);
    char buf[128] = {};
    size_t used = 0;
    ssize_t r;
    while (used + 1 < sizeof buf && (r = ::read(fds[0], buf + used, sizeof buf - 1 - used)) > 0)
      used += static_cast<size_t>(r);
    ::close(fds[0]);
    int status = 0;
    if (pid > 0) ::waitpid(pid, &status, 0);
    if (pid < 0 || std::sscanf(buf, "%ld %ld", &rssKb, &peakKb) != 2)
      state.SkipWithError("the child failed");
  }
  state.counters["rss_MB"] = static_cast<double>(rssKb) / 1024.0;
  state.counters["peak_MB"] = static_cast<double>(peakKb) / 1024.0;
}

void BM_Zyldb_Resident(benchmark::State& state) { resident(state, "zyldb"); }
void BM_Sqlite_Resident(benchmark::State& state) { resident(state, "sqlite"); }

void sizes(benchmark::internal::Benchmark* b) {
  b->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
}
void lookupSizes(benchmark::internal::Benchmark* b) {
  b->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kNanosecond);
}
void memorySizes(benchmark::internal::Benchmark* b) {
  b->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(1);
}

}  // namespace

// Registered engine by engine, so that each loaded table or database is
// built once and used by every benchmark that needs it.
BENCHMARK(BM_Floor_Load)->Apply(sizes);
BENCHMARK(BM_Floor_Save)->Apply(sizes);
BENCHMARK(BM_Zyldb_Load)->Apply(sizes);
BENCHMARK(BM_Zyldb_Save)->Apply(sizes);
BENCHMARK(BM_Zyldb_Search)->Apply(sizes);
BENCHMARK(BM_Zyldb_FindFirst)->Apply(sizes);
BENCHMARK(BM_Zyldb_LookupById)->Apply(lookupSizes);
BENCHMARK(BM_Zyldb_SortScene)->Apply(sizes);
BENCHMARK(BM_Zyldb_SortStartTime)->Apply(sizes);
BENCHMARK(BM_Sqlite_Load)->Apply(sizes);
BENCHMARK(BM_Sqlite_Save)->Apply(sizes);
BENCHMARK(BM_Sqlite_Search)->Apply(sizes);
BENCHMARK(BM_Sqlite_FindFirst)->Apply(sizes);
BENCHMARK(BM_Sqlite_LookupById)->Apply(lookupSizes);
BENCHMARK(BM_Sqlite_SortScene)->Apply(sizes);
BENCHMARK(BM_Sqlite_SortStartTime)->Apply(sizes);
BENCHMARK(BM_Zyldb_Resident)->Apply(memorySizes);
BENCHMARK(BM_Sqlite_Resident)->Apply(memorySizes);

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--resident") == 0) return residentChild(argv[2], argv[3]);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
