// The file line of each row a load gives, found by the loader's own rules
// for where records start and which lines are skipped. The table does not
// keep lines; a host that wants to point at them asks here.

#include <strings.h>
#include <zyldb/audit/Audit.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>

#include <cstring>

namespace zyl::audit {

namespace {

bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The first field of line `n` as the record reader gives it. Only lines
// whose start could spell "ZYLDB" are read in full.
bool firstFieldIs(const TextFile& file, unsigned int n, const char* word, bool prefixOnly) {
  const char* p = file.line(n);
  while (*p && (isBlank(*p) || static_cast<unsigned char>(*p) < 0x20 || *p == '"')) ++p;
  size_t len = std::strlen(word);
  if (strncasecmp(p, word, len) != 0) return false;
  TextFile copy;
  copy.appendLine(std::string_view(file.line(n), file.lineLength(n)));
  dbrecord rec;
  if (rec.read(copy) == 0) return false;
  const char* first = rec.get_field(0);
  if (first == nullptr) return false;
  return prefixOnly ? strncasecmp(first, word, len) == 0 : strcasecmp(first, word) == 0;
}

bool hasColonInFirstField(const TextFile& file, unsigned int n) {
  TextFile copy;
  copy.appendLine(std::string_view(file.line(n), file.lineLength(n)));
  dbrecord rec;
  if (rec.read(copy) == 0) return false;
  const char* first = rec.get_field(0);
  return first != nullptr && std::strchr(first, ':') != nullptr;
}

}  // namespace

std::vector<long> recordLines(const TextFile& file, bool csv) {
  std::vector<long> lines;
  const unsigned int total = file.getNumLines();
  if (csv) {
    // Line 1 names the columns; every further line with any text is a row.
    for (unsigned int i = 1; i < total; ++i)
      if (file.lineLength(i) > 0) lines.push_back(static_cast<long>(i) + 1);
    return lines;
  }
  if (total == 0 || !firstFieldIs(file, 0, "ZYLDB:", true)) return lines;
  // Parameter lines run to the terminator "ZYLDB"; a line that is not a
  // parameter (no colon) ends them and is read as the names line.
  unsigned int first = 0;
  for (unsigned int i = 1; i < total; ++i) {
    if (isEssentiallyEmpty(file.line(i))) return lines;
    if (firstFieldIs(file, i, "ZYLDB", false)) {
      first = i + 4;
      break;
    }
    if (!hasColonInFirstField(file, i)) {
      first = i + 1;
      break;
    }
  }
  if (first == 0) return lines;
  for (unsigned int i = first; i < total; ++i) {
    if (isEssentiallyEmpty(file.line(i))) break;
    if (firstFieldIs(file, i, "ZYLDB", false)) {
      // A header line among the records: it and the two after it are
      // skipped, the third is the row.
      i += 3;
      if (i >= total || isEssentiallyEmpty(file.line(i))) break;
    }
    lines.push_back(static_cast<long>(i) + 1);
  }
  return lines;
}

std::vector<long> recordLines(const LightweightString<wchar_t>& fileName) {
  TextFile file;
  if (!file.load(fileName, '\n', false)) return {};
  std::wstring_view name = fileName.view();
  bool csv = name.size() >= 4 && name.substr(name.size() - 4) == L".csv";
  return recordLines(file, csv);
}

}  // namespace zyl::audit
