// zyldb_profile_bench: one operation on one log, in a process of its own.
//
//   zyldb_profile_bench gen PROFILE ROWS FILE
//   zyldb_profile_bench run ENGINE OP FILE [SEARCH]
//
// `gen` writes a log of one of the profiles below, unlike the default
// generator's rows:
//   long      8 columns; descriptions of 200 to 2000 bytes
//   sparse    16 columns of short values, about seven cells in ten empty
//   wide      60 columns
//   narrow    4 columns
//   nonascii  descriptions and names in UTF-8 (accents, CJK, Cyrillic)
//   mixedtc   timecodes at 23.976, 24, 25, 29.97 drop and non-drop, 50 and
//             59.94 drop, mixed row by row
// Every profile has the columns "Name", "Scene" (text), "Start time"
// (timecode) and "Description"; the rows come in a random order.
//
// `run` loads FILE into ENGINE (zyldb, sqlite: in-memory database with one
// TEXT column per log column, or floor: read the file and split every line,
// store nothing) and, unless OP is load, sorts the table on "Scene" first, so
// that its rows are scattered as a host's table is, then times OP:
//   load        the load itself (in a fresh process, as a user opens a log)
//   sortscene   sort on "Scene"      (sqlite: ORDER BY COLLATE NOCASE)
//   sorttc      sort on "Start time" (sqlite: ORDER BY start time)
//   search      substring SEARCH (default "the") in Description, caseless
//               (zyldb: tag_matching_records; sqlite: count(*) ... LIKE)
//   destroy     destroying the table (sqlite: closing the database)
// It prints "ENGINE OP CPU_SECONDS RESIDENT_MB RESULT" (RESIDENT after the load;
// RESULT: rows sorted or found). scripts/bench.sh --profiles runs the grid.

#include <sqlite3.h>
#include <zyldb/db/DBFieldTypes.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "LogGenerator.h"

namespace {

struct Col {
  std::string name, type;
};

// A small deterministic random source (splitmix64).
struct Rng {
  uint64_t s;
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  int between(int lo, int hi) { return lo + static_cast<int>(next() % uint64_t(hi - lo + 1)); }
};

const char* const kWords[] = {"the",   "rain", "on",   "glass", "actor", "enters", "left",
                              "close", "wide", "slow", "pan",   "light", "Scene",  "boom",
                              "in",    "shot", "of",   "and",   "door",  "street", "night"};
const char* const kForeign[] = {"caf\xc3\xa9",
                                "\xc3\xbc\x62\x65\x72",  // "über"
                                "\xe6\x97\xa5\xe6\x9c\xac",
                                "\xd0\xbc\xd0\xb8\xd1\x80",
                                "se\xc3\xb1or",
                                "\xc3\xa9t\xc3\xa9"};

std::string words(Rng& r, int minBytes, int maxBytes, bool foreign) {
  const int target = r.between(minBytes, maxBytes);
  std::string s;
  while (static_cast<int>(s.size()) < target) {
    if (!s.empty()) s += ' ';
    if (foreign && r.next() % 3 == 0)
      s += kForeign[r.next() % (sizeof kForeign / sizeof kForeign[0])];
    else
      s += kWords[r.next() % (sizeof kWords / sizeof kWords[0])];
  }
  return s;
}

// A timecode label at one of the common rates.
std::string randomTimecode(Rng& r, bool mixed) {
  static const struct {
    int fps;
    bool drop;
  } rates[] = {{24, false}, {24, false}, {25, false}, {30, true},
               {30, false}, {50, false}, {60, true}};
  const auto& rate = mixed ? rates[r.next() % 7] : rates[2];
  const long long frame = static_cast<long long>(r.next() % (24ull * 3600 * rate.fps));
  if (rate.drop && rate.fps == 30) return zyl::timecodeText(frame, 30, true);
  if (rate.drop) {  // 59.94 drop frame: the label, with ';' before the frames
    std::string t = zyl::timecodeText(frame, 60, false);
    t[8] = ';';
    return t;
  }
  return zyl::timecodeText(frame, rate.fps, false);
}

std::vector<Col> profileColumns(const std::string& p) {
  std::vector<Col> cols{
      {"Name", "text"}, {"Scene", "text"}, {"Start time", "timecode"}, {"Description", "text"}};
  if (p == "narrow") return cols;
  cols.push_back({"Take", "text"});
  cols.push_back({"End time", "timecode"});
  cols.push_back({"Who", "text"});
  cols.push_back({"Notes", "text"});
  const int extra = p == "wide" ? 52 : (p == "sparse" ? 8 : 0);
  for (int i = 0; i < extra; ++i) cols.push_back({"Extra " + std::to_string(i + 1), "text"});
  return cols;
}

void makeRow(const std::string& p, Rng& r, const std::vector<Col>& cols,
             std::vector<std::string>& cells) {
  const bool foreign = p == "nonascii";
  cells.assign(cols.size(), std::string());
  cells[0] =
      (foreign ? std::string("\xc3\x89") : std::string("C")) + std::to_string(r.next() % 100000);
  cells[1] = std::to_string(r.between(1, 300)) + (r.next() % 3 == 0 ? "A" : "");
  cells[2] = randomTimecode(r, p == "mixedtc");
  cells[3] = p == "long" ? words(r, 200, 2000, false) : words(r, 10, 80, foreign);
  for (size_t c = 4; c < cols.size(); ++c) {
    if (p == "sparse" && r.next() % 10 < 7) continue;
    if (cols[c].type == "timecode")
      cells[c] = randomTimecode(r, p == "mixedtc");
    else
      cells[c] = words(r, 1, p == "sparse" ? 8 : 20, foreign);
  }
  if (p == "sparse" && r.next() % 10 < 3) cells[3].clear();
}

int generate(const std::string& p, size_t rows, const std::string& path) {
  const std::vector<Col> cols = profileColumns(p);
  std::vector<size_t> widths(cols.size(), 4);
  std::vector<std::string> cells;
  Rng r{7};
  for (size_t i = 0; i < rows; ++i) {
    makeRow(p, r, cols, cells);
    for (size_t c = 0; c < cols.size(); ++c) widths[c] = std::max(widths[c], cells[c].size());
  }
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return 1;
  std::string text = "\"ZYLDB:Rev 1\"\n\"owner:profile " + p + "\"\n\"ZYLDB\"\n";
  std::string w, t, n;
  for (size_t c = 0; c < cols.size(); ++c) {
    const char* sep = c + 1 < cols.size() ? "," : "\n";
    w += "\"" + std::to_string(widths[c]) + "\"" + sep;
    t += "\"" + cols[c].type + "\"" + sep;
    n += "\"" + cols[c].name + "\"" + sep;
  }
  text += w + t + n;
  r = Rng{7};
  for (size_t i = 0; i < rows; ++i) {
    makeRow(p, r, cols, cells);
    zyl::appendRecordLine(text, cells);
    text += '\n';
    if (text.size() > (1u << 20)) {
      std::fwrite(text.data(), 1, text.size(), f);
      text.clear();
    }
  }
  std::fwrite(text.data(), 1, text.size(), f);
  return std::fclose(f) == 0 ? 0 : 1;
}

double residentMB() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
  return 0;
}

// Times are the process's CPU time: on a shared machine a process waits for
// a core for as long as the others run, which wall-clock time would count.
struct Clock {
  using time_point = std::clock_t;
  static time_point now() { return std::clock(); }
};
double since(Clock::time_point t0) {
  return static_cast<double>(std::clock() - t0) / CLOCKS_PER_SEC;
}

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Calls onLine for every record line (after the six header lines).
template <class F>
void forEachRecordLine(const std::string& text, F&& onLine) {
  size_t pos = 0;
  int lineNo = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    if (lineNo++ >= 6) onLine(std::string_view(text).substr(pos, end - pos));
    pos = end + 1;
  }
}

int runZyldb(const std::string& op, const std::string& path, const std::string& sought) {
  const double rss0 = residentMB();
  auto t0 = Clock::now();
  auto table = std::make_unique<zyldb>(
      LightweightString<wchar_t>(std::wstring(path.begin(), path.end())), INT_MAX, false);
  double seconds = since(t0);
  const double rss = residentMB() - rss0;
  const int scene = table->get_fieldnum("Scene");
  long result = table->get_num_records();
  if (op != "load") {
    table->set_sortfield(scene);
    table->sort(1, 0);
    t0 = Clock::now();
    if (op == "sortscene") {
      table->set_sortfield(table->get_fieldnum("Name"));
      table->sort(1, 0);
      table->set_sortfield(scene);
      t0 = Clock::now();
      table->sort(1, 0);
    } else if (op == "sorttc") {
      table->set_sortfield(table->get_fieldnum("Start time"));
      table->sort(1, 0);
    } else if (op == "search") {
      dbrecord* q = table->make_dummy_record();
      q->set_field(table->get_fieldnum("Description"), sought.c_str(), false);
      table->set_query(q);
      delete q;
      result = table->tag_matching_records(0);
    } else if (op == "destroy") {
      table.reset();
    }
    seconds = since(t0);
  }
  std::printf("zyldb %s %.4f %.1f %ld\n", op.c_str(), seconds, rss, result);
  return 0;
}

int runSqlite(const std::string& op, const std::string& path, const std::string& sought) {
  const double rss0 = residentMB();
  auto t0 = Clock::now();
  sqlite3* db = nullptr;
  sqlite3_open(":memory:", &db);
  sqlite3_exec(db, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF", nullptr, nullptr, nullptr);
  const std::string text = readAll(path);
  // The column names are the sixth line's; columns are c0, c1, ...
  size_t ncols = 0;
  {
    size_t pos = 0;
    for (int i = 0; i < 5; ++i) pos = text.find('\n', pos) + 1;
    const std::string names = text.substr(pos, text.find('\n', pos) - pos);
    std::string scratch;
    ncols = zyl::splitRecordLine(names, scratch, [](std::string_view) {});
  }
  std::string create = "CREATE TABLE t(";
  std::string insert = "INSERT INTO t VALUES(";
  for (size_t c = 0; c < ncols; ++c) {
    create += (c ? ",c" : "c") + std::to_string(c) + " TEXT";
    insert += c ? ",?" : "?";
  }
  sqlite3_exec(db, (create + ")").c_str(), nullptr, nullptr, nullptr);
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  sqlite3_stmt* ins = nullptr;
  sqlite3_prepare_v2(db, (insert + ")").c_str(), -1, &ins, nullptr);
  std::string scratch;
  forEachRecordLine(text, [&](std::string_view line) {
    int i = 0;
    zyl::splitRecordLine(line, scratch, [&](std::string_view v) {
      if (i < static_cast<int>(ncols))
        sqlite3_bind_text(ins, ++i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    });
    for (; i < static_cast<int>(ncols);) sqlite3_bind_null(ins, ++i);
    sqlite3_step(ins);
    sqlite3_reset(ins);
  });
  sqlite3_finalize(ins);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  double seconds = since(t0);
  const double rss = residentMB() - rss0;
  long result = 0;
  // Steps through every row of `sql`, reading its rowid; the row count.
  auto count = [&](const char* sql) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &s, nullptr);
    long n = 0;
    while (sqlite3_step(s) == SQLITE_ROW) n += sqlite3_column_int64(s, 0) > 0 ? 1 : 0;
    sqlite3_finalize(s);
    return n;
  };
  if (op != "load") {
    // The peer of the table's first sort: the rows in Scene order.
    count("SELECT rowid FROM t ORDER BY c1 COLLATE NOCASE");
    t0 = Clock::now();
    if (op == "sortscene") {
      result = count("SELECT rowid FROM t ORDER BY c1 COLLATE NOCASE");
    } else if (op == "sorttc") {
      result = count("SELECT rowid FROM t ORDER BY c2");
    } else if (op == "search") {
      sqlite3_stmt* s = nullptr;
      sqlite3_prepare_v2(db, "SELECT count(*) FROM t WHERE c3 LIKE ?1", -1, &s, nullptr);
      const std::string like = "%" + sought + "%";
      sqlite3_bind_text(s, 1, like.c_str(), -1, SQLITE_TRANSIENT);
      if (sqlite3_step(s) == SQLITE_ROW) result = sqlite3_column_int64(s, 0);
      sqlite3_finalize(s);
    } else if (op == "destroy") {
      sqlite3_close(db);
      db = nullptr;
    }
    seconds = since(t0);
  }
  if (db) sqlite3_close(db);
  std::printf("sqlite %s %.4f %.1f %ld\n", op.c_str(), seconds, rss, result);
  return 0;
}

int runFloor(const std::string& path) {
  auto t0 = Clock::now();
  const std::string text = readAll(path);
  std::string scratch;
  size_t fields = 0;
  forEachRecordLine(text, [&](std::string_view line) {
    fields += zyl::splitRecordLine(line, scratch, [](std::string_view) {});
  });
  std::printf("floor load %.4f 0 %zu\n", since(t0), fields);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> a(argv, argv + argc);
  if (argc == 5 && a[1] == "gen")
    return generate(a[2], static_cast<size_t>(std::strtoull(a[3].c_str(), nullptr, 10)), a[4]);
  if ((argc == 5 || argc == 6) && a[1] == "run") {
    const std::string sought = argc == 6 ? a[5] : "the";
    if (a[2] == "zyldb") return runZyldb(a[3], a[4], sought);
    if (a[2] == "sqlite") return runSqlite(a[3], a[4], sought);
    if (a[2] == "floor") return runFloor(a[4]);
  }
  std::fprintf(stderr,
               "usage: zyldb_profile_bench gen PROFILE ROWS FILE\n"
               "       zyldb_profile_bench run zyldb|sqlite|floor OP FILE [SEARCH]\n");
  return 2;
}
