#include "Args.h"

#include <algorithm>
#include <cctype>

namespace zyl::cli {

namespace {

const OptionDef* findLong(const CommandDef& def, const std::string& name) {
  for (const OptionDef& o : def.options)
    if (o.name == name) return &o;
  return nullptr;
}

const OptionDef* findShort(const CommandDef& def, char c) {
  for (const OptionDef& o : def.options)
    if (o.shortName != 0 && o.shortName == c) return &o;
  return nullptr;
}

std::string trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

}  // namespace

std::string ParsedArgs::get(const std::string& name, const std::string& fallback) const {
  auto it = values_.find(name);
  if (it == values_.end() || it->second.empty()) return fallback;
  return it->second.back();
}

std::vector<std::string> ParsedArgs::getAll(const std::string& name) const {
  auto it = values_.find(name);
  return it == values_.end() ? std::vector<std::string>() : it->second;
}

long ParsedArgs::getCount(const std::string& name, long fallback) const {
  if (!has(name)) return fallback;
  std::string text = get(name);
  bool digits = !text.empty() && text.size() <= 9 &&
                std::all_of(text.begin(), text.end(),
                            [](char c) { return std::isdigit(static_cast<unsigned char>(c)); });
  if (!digits) throw UsageError("--" + name + " needs a whole number, not \"" + text + "\"");
  return std::stol(text);
}

ParsedArgs parseArgs(const CommandDef& def, const std::vector<std::string>& args) {
  ParsedArgs out;
  bool optionsEnded = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (optionsEnded || a.size() < 2 || a[0] != '-') {
      out.positional.push_back(a);
      continue;
    }
    if (a == "--") {
      optionsEnded = true;
      continue;
    }
    if (a == "-h" || a == "--help") {
      out.helpRequested = true;
      continue;
    }
    const OptionDef* opt = nullptr;
    std::string shown;  // the option as the user wrote it, for messages
    std::string value;
    bool hasValue = false;
    if (a[1] == '-') {
      std::string name = a.substr(2);
      size_t eq = name.find('=');
      if (eq != std::string::npos) {
        value = name.substr(eq + 1);
        name.resize(eq);
        hasValue = true;
      }
      opt = findLong(def, name);
      shown = "--" + name;
    } else {
      opt = findShort(def, a[1]);
      shown = a.substr(0, 2);
      if (a.size() > 2) {
        value = a.substr(2);
        hasValue = true;
      }
    }
    if (opt == nullptr) throw UsageError("unknown option '" + shown + "'");
    if (opt->valueName.empty()) {
      if (hasValue) throw UsageError("option '" + shown + "' takes no value");
      value.clear();
    } else if (!hasValue) {
      if (i + 1 >= args.size())
        throw UsageError("option '" + shown + "' needs a value (" + opt->valueName + ")");
      value = args[++i];
    }
    out.ordered.emplace_back(opt->name, value);
    std::vector<std::string>& slot = out.values_[opt->name];
    if (!opt->repeatable) slot.clear();
    slot.push_back(value);
  }
  return out;
}

std::string wrapText(const std::string& text, size_t width, size_t indent) {
  std::string out;
  size_t start = 0;
  bool firstLine = true;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    start = end + 1;
    size_t column = 0;
    if (!firstLine) {
      out += "\n" + std::string(indent, ' ');
      column = indent;
    }
    firstLine = false;
    if (!line.empty() && line[0] == ' ') {
      out += line;
      continue;
    }
    bool lineEmpty = true;
    for (size_t pos = 0; pos < line.size();) {
      size_t blank = line.find(' ', pos);
      if (blank == std::string::npos) blank = line.size();
      std::string word = line.substr(pos, blank - pos);
      pos = blank + 1;
      if (word.empty()) continue;
      if (!lineEmpty && column + 1 + word.size() > width) {
        out += "\n" + std::string(indent, ' ');
        column = indent;
        lineEmpty = true;
      }
      if (!lineEmpty) {
        out += ' ';
        ++column;
      }
      out += word;
      column += word.size();
      lineEmpty = false;
    }
  }
  return out;
}

std::string helpText(const CommandDef& def) {
  constexpr size_t kWidth = 79;
  std::string out = "Usage: zyldb " + def.name;
  if (!def.synopsis.empty()) out += " " + def.synopsis;
  out += "\n\n" + wrapText(def.summary, kWidth, 0) + "\n";
  {
    out += "\nOptions:\n";
    std::vector<std::string> lefts;
    size_t widest = 0;
    for (const OptionDef& o : def.options) {
      std::string left = o.shortName ? std::string("-") + o.shortName + ", " : "    ";
      left += "--" + o.name;
      if (!o.valueName.empty()) left += " " + o.valueName;
      widest = std::max(widest, left.size());
      lefts.push_back(left);
    }
    for (size_t i = 0; i < def.options.size(); ++i) {
      std::string prefix = "  " + lefts[i] + std::string(widest - lefts[i].size() + 2, ' ');
      std::string help = wrapText(def.options[i].help, kWidth - prefix.size(), 0);
      for (size_t nl = help.find('\n'); nl != std::string::npos; nl = help.find('\n', nl + 1))
        help.insert(nl + 1, prefix.size(), ' ');
      out += prefix + help + "\n";
    }
    out +=
        "  -h, --help" + std::string(widest > 10 ? widest - 10 + 2 : 2, ' ') + "show this help\n";
  }
  if (!def.details.empty()) out += "\n" + wrapText(def.details, kWidth, 0) + "\n";
  return out;
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    std::string item = trim(text.substr(start, comma - start));
    if (!item.empty()) out.push_back(item);
    start = comma + 1;
  }
  return out;
}

}  // namespace zyl::cli
