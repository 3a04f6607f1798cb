// zyldb_genlog: writes a synthetic clip log for benchmarks and trials.
//
//   zyldb_genlog ROWS OUT [SEED]
//
// ROWS generated rows (see LogGenerator.h) go to the file OUT, in the log
// text format; SEED (default 1) selects the rows, and the same seed always
// gives the same file.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "LogGenerator.h"

namespace {

bool parseCount(const char* text, unsigned long long& out) {
  if (text == nullptr || *text < '0' || *text > '9') return false;
  char* end = nullptr;
  errno = 0;
  out = std::strtoull(text, &end, 10);
  return errno == 0 && *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::fprintf(stderr, "usage: zyldb_genlog ROWS OUT [SEED]\n");
    return 2;
  }
  unsigned long long rows = 0;
  unsigned long long seed = 1;
  if (!parseCount(argv[1], rows)) {
    std::fprintf(stderr, "zyldb_genlog: ROWS must be a non-negative whole number, not '%s'\n",
                 argv[1]);
    return 2;
  }
  if (argc == 4 && !parseCount(argv[3], seed)) {
    std::fprintf(stderr, "zyldb_genlog: SEED must be a non-negative whole number, not '%s'\n",
                 argv[3]);
    return 2;
  }
  if (!zyl::writeGeneratedLog(argv[2], static_cast<size_t>(rows), seed)) {
    std::fprintf(stderr, "zyldb_genlog: %s: cannot write the file\n", argv[2]);
    return 1;
  }
  return 0;
}
