// zyldb_load: the library's own load of a log and nothing else, the
// baseline the tool's commands are measured against (bench/tool_bench.sh).
//
//   zyldb_load LOG
//
// Prints the number of rows loaded; exits 1 when the log does not load.

#include <zyldb/all.h>
#include <zyldb/db/zyldb.h>

#include <climits>
#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: zyldb_load LOG\n");
    return 2;
  }
  zyldb table(fromUTF8(LightweightString<char>(argv[1])), INT_MAX, true);
  if (!table.get_valid()) return 1;
  std::printf("%u\n", table.get_num_records());
  return 0;
}
