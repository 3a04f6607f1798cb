// zyldb check: tells whether logs load cleanly, and if not, why.

#include <iostream>

#include "Common.h"

namespace zyl::cli {

namespace {

int runCheck(const ParsedArgs& args) {
  if (args.positional.empty()) throw UsageError("missing LOG");
  int status = 0;
  for (const std::string& path : args.positional) {
    OpenLog log = openLog(path);
    if (log.problems.empty()) {
      std::cout << path << ": ok, "
                << plural(static_cast<long>(log.table->get_num_records()), "record", "records")
                << " in "
                << plural(static_cast<long>(log.table->get_num_fields()), "column", "columns")
                << "\n";
      continue;
    }
    status = 1;
    for (const Problem& p : log.problems) std::cerr << log.describe(p) << "\n";
  }
  return status;
}

}  // namespace

Command checkCommand() {
  return {{"check",
           "LOG...",
           "check that logs load cleanly",
           "Checks that each log loads cleanly. Prints \"ok\" with the counts for a good file; "
           "for a bad one says on stderr what is wrong and on which line.",
           {},
           "Exit status: 0 when every file loads cleanly, 1 when any does not, 2 on a usage "
           "error.\n"},
          runCheck};
}

}  // namespace zyl::cli
