// configb, and config_int's sources: the environment, then the file named
// by ZYLDB_CONFIG, then the default.

#include <strings.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/platform/configb.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

bool sameKey(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

// A whole decimal integer in int range, blanks around it allowed.
bool parseInt(std::string_view text, int* out) {
  std::string s(trim(text));
  if (s.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long v = std::strtol(s.c_str(), &end, 10);
  if (end == s.c_str() || *end != '\0' || errno == ERANGE || v < INT_MIN || v > INT_MAX)
    return false;
  *out = static_cast<int>(v);
  return true;
}

bool fromEnvironment(const char* key, int* out) {
  std::string name = "ZYLDB_";
  for (const char* p = key; *p; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    name += std::isalnum(c) && c < 0x80 ? static_cast<char>(std::toupper(c)) : '_';
  }
  const char* v = std::getenv(name.c_str());
  return v && parseInt(v, out);
}

bool fromFile(const char* key, int* out) {
  const char* path = std::getenv("ZYLDB_CONFIG");
  if (!path || !*path) return false;
  std::string text;
  if (!OS()->fileService().readFile(fromUTF8(LightweightString<char>(path)), &text)) return false;
  std::string_view rest(text);
  while (!rest.empty()) {
    size_t nl = rest.find('\n');
    std::string_view line = rest.substr(0, nl);
    rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
    size_t hash = line.find('#');
    if (hash != std::string_view::npos) line = line.substr(0, hash);
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    // The first line that names the key decides.
    if (sameKey(trim(line.substr(0, eq)), key)) return parseInt(line.substr(eq + 1), out);
  }
  return false;
}

}  // namespace

int configb::set(const char* key, const strp_field& value) {
  std::string_view k = key ? std::string_view(key) : std::string_view();
  for (auto& e : entries_) {
    if (sameKey(e.first.view(), k)) {
      e.second = value.value();
      return 1;
    }
  }
  entries_.emplace_back(LightweightString<char>(k), value.value());
  return 1;
}

const char* configb::get(const char* key) const {
  std::string_view k = key ? std::string_view(key) : std::string_view();
  for (const auto& e : entries_)
    if (sameKey(e.first.view(), k)) return e.second.c_str();
  return nullptr;
}

int config_int(const char* key, int defaultValue) {
  if (!key) return defaultValue;
  int v;
  if (fromEnvironment(key, &v)) return v;
  if (fromFile(key, &v)) return v;
  return defaultValue;
}
