// zyldb check: tells whether logs load cleanly, and if not, why.

#include <filesystem>
#include <iostream>

#include "Common.h"

namespace zyl::cli {

namespace {

// The names of the temporary files that unfinished saves left beside `path`.
std::vector<std::string> strayTemporaries(const std::string& path) {
  std::vector<std::string> names;
  for (const LightweightString<wchar_t>& temp : TextFile::strayTemporaries(widePath(path)))
    names.push_back(std::filesystem::path(toUTF8(temp).toStdString()).filename().string());
  return names;
}

int runCheck(const ParsedArgs& args) {
  if (args.positional.empty()) throw UsageError("missing LOG");
  int status = 0;
  for (const std::string& path : args.positional) {
    OpenLog log = openLog(path);
    if (path != "-")
      for (const std::string& temp : strayTemporaries(path))
        log.problems.push_back({0, "a save that did not finish left \"" + temp +
                                       "\" beside it; remove it once no save is running"});
    if (log.problems.empty()) {
      std::cout << log.shownName() << ": ok, "
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
           "for a bad one says on stderr what is wrong and on which line. A byte-order mark at "
           "the start and temporary files left beside a log by an unfinished save are named "
           "too. Each file is read once.",
           {},
           "Exit status: 0 when every file loads cleanly, 1 when any does not, 2 on a usage "
           "error.\n"},
          runCheck};
}

}  // namespace zyl::cli
