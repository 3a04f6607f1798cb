// zyldb: the command-line tool for clip logs, built on the library's public
// API. Output goes to stdout, messages to stderr. Exit status: 0 on success,
// 1 when a check or a search finds problems or nothing (or a file cannot be
// used), 2 on a usage error.

#include <unistd.h>
#include <zyldb/zyldbDllVersion.h>

#include <clocale>
#include <iostream>
#include <string>
#include <vector>

#include "Common.h"
#include "Progress.h"

namespace zyl::cli {
Command auditCommand();  // AuditCommand.cpp
}

namespace {

using zyl::cli::Command;

// Every command, in the order of the list in --help. Each gets --quiet.
const std::vector<Command>& commands() {
  static const std::vector<Command> kCommands = [] {
    std::vector<Command> list = {
        zyl::cli::showCommand(),  zyl::cli::infoCommand(),    zyl::cli::checkCommand(),
        zyl::cli::sortCommand(),  zyl::cli::findCommand(),    zyl::cli::dedupeCommand(),
        zyl::cli::mergeCommand(), zyl::cli::convertCommand(), zyl::cli::demoCommand(),
        zyl::cli::auditCommand(),
    };
    for (Command& c : list)
      c.def.options.push_back({"quiet", 'q', "", "show no progress on stderr"});
    return list;
  }();
  return kCommands;
}

std::string mainHelp() {
  std::string out =
      "Usage: zyldb COMMAND [options]\n"
      "       zyldb --version\n\n"
      "Reads, checks and edits clip logs.\n\nCommands:\n";
  for (const Command& c : commands())
    out += "  " + c.def.name + std::string(10 - c.def.name.size(), ' ') + c.def.brief + "\n";
  out += "\nRun 'zyldb COMMAND --help' for a command's options.\n";
  return out;
}

int run(const Command& command, const std::vector<std::string>& args) {
  const std::string prefix = "zyldb " + command.def.name + ": ";
  try {
    zyl::cli::ParsedArgs parsed = zyl::cli::parseArgs(command.def, args);
    if (parsed.helpRequested) {
      std::cout << zyl::cli::helpText(command.def);
      return 0;
    }
    zyl::cli::enableProgress(isatty(STDERR_FILENO) != 0 && !parsed.has("quiet"));
    return command.run(parsed);
  } catch (const zyl::cli::UsageError& e) {
    std::cerr << prefix << e.what() << "\nTry 'zyldb " << command.def.name << " --help'.\n";
    return 2;
  } catch (const zyl::cli::Failure& e) {
    if (*e.what() != '\0') std::cerr << prefix << e.what() << "\n";
    return 1;
  } catch (const std::bad_alloc&) {
    std::cerr << prefix << "out of memory\n";
    return 1;
  } catch (const std::exception& e) {
    std::cerr << prefix << e.what() << "\n";
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  // Column widths come from wcwidth, which needs a UTF-8 character type.
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr) std::setlocale(LC_CTYPE, "en_US.UTF-8");
  zyl::cli::installInterruptCleanup();
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::cerr << mainHelp();
    return 2;
  }
  const std::string& first = args[0];
  if (first == "--version" || first == "-V") {
    std::cout << zyldbDllVersionStr() << "\n";
    return 0;
  }
  if (first == "--help" || first == "-h" || first == "help") {
    if (first == "help" && args.size() > 1)
      args = {args[1], "--help"};
    else {
      std::cout << mainHelp();
      return 0;
    }
  }
  for (const Command& c : commands())
    if (c.def.name == args[0])
      return run(c, std::vector<std::string>(args.begin() + 1, args.end()));
  std::cerr << "zyldb: unknown command '" << args[0] << "'\nTry 'zyldb --help'.\n";
  return 2;
}
