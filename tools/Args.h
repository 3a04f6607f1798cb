#pragma once

// Command-line parsing for the zyldb tool: a subcommand's options and
// positional arguments, with the messages a person needs when they are wrong.

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zyl::cli {

// A mistake on the command line; the tool prints it with a pointer to
// --help and exits with status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A failure with the input or output files, already explained on stderr or
// carrying the explanation; the tool exits with status 1.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct OptionDef {
  std::string name;       // long name without "--"
  char shortName = 0;     // 0 when there is none
  std::string valueName;  // empty for a flag that takes no value
  std::string help;
  bool repeatable = false;
};

struct CommandDef {
  std::string name;      // "show"
  std::string synopsis;  // "LOG [options]"
  std::string brief;     // a few words for the list of commands
  std::string summary;   // a paragraph for the command's help
  std::vector<OptionDef> options;
  std::string details;  // free text printed after the options
};

class ParsedArgs {
 public:
  bool has(const std::string& name) const { return values_.count(name) != 0; }
  // The option's value (the last one when given more than once), or
  // `fallback` when the option is absent.
  std::string get(const std::string& name, const std::string& fallback = "") const;
  // Every value of a repeatable option, in command-line order.
  std::vector<std::string> getAll(const std::string& name) const;
  // A non-negative integer option; UsageError when the text is not one.
  long getCount(const std::string& name, long fallback) const;

  std::vector<std::string> positional;
  // Every option given, as (name, value), in command-line order: for
  // options whose meaning depends on their neighbours (--where ... --or).
  std::vector<std::pair<std::string, std::string>> ordered;
  bool helpRequested = false;

 private:
  friend ParsedArgs parseArgs(const CommandDef&, const std::vector<std::string>&);
  std::map<std::string, std::vector<std::string>> values_;
};

// Parses `args` (the words after the subcommand's name). Accepts --name,
// --name=value, --name value, -x value and "--" to end the options; -h and
// --help set helpRequested. Throws UsageError for an unknown option, a
// missing value or a value given to a flag.
ParsedArgs parseArgs(const CommandDef& def, const std::vector<std::string>& args);

// The --help text of a command, wrapped to 80 columns.
std::string helpText(const CommandDef& def);

// `text` wrapped at blanks into lines of at most `width` characters, every
// line but the first indented by `indent` blanks. Line feeds in `text` are
// kept; a line that starts with a blank is kept as it is.
std::string wrapText(const std::string& text, size_t width, size_t indent);

// Splits a comma-separated list of column names, trimming blanks around each
// and dropping empty items.
std::vector<std::string> splitList(const std::string& text);

}  // namespace zyl::cli
