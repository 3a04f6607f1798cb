// Fuzzes the record line reader. The input is split at line feeds into the
// lines of a TextFile; each line is read into a record and written again.
// Whenever every value read lies within the bounds in which the line form
// round-trips (no leading or trailing white space, no carriage return, no
// backslash followed by 'n', at most 4095 bytes, at least one value), reading
// the written line must give the same values and a count equal to their
// number, and writing that again must give the same line.

#include <zyldb/db/dbrecord.h>
#include <zyldb/platform/TextFile.h>

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

bool isBlank(char c) {
  unsigned char u = static_cast<unsigned char>(c);
  return u < 0x80 && std::isspace(u);
}

bool withinBounds(const dbrecord& r) {
  if (r.get_num_fields() == 0) return false;
  for (unsigned int i = 0; i < r.get_num_fields(); ++i) {
    std::string_view v = r.getField(static_cast<unsigned short>(i)).view();
    if (v.size() > 4095) return false;
    if (!v.empty() && (isBlank(v.front()) || isBlank(v.back()))) return false;
    if (v.find('\r') != std::string_view::npos) return false;
    if (v.find("\\n") != std::string_view::npos) return false;
    if (v.find('\0') != std::string_view::npos) return false;
  }
  return true;
}

std::string lastLine(const TextFile& f) {
  unsigned int n = f.getNumLines() - 1;
  return std::string(f.line(n), f.lineLength(n));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  TextFile in;
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    in.appendLine(text.substr(start, end - start));
    start = end + 1;
  }

  dbrecord first(3);
  dbrecord second(0);
  while (in.currentLine < in.getNumLines()) {
    int count = first.read(in);
    check(count >= 0);
    check(count > 0 || first.get_num_fields() == 0);

    TextFile once;
    first.write(once);
    check(!first.isChanged());
    if (!withinBounds(first)) continue;

    int again = second.read(once);
    check(again == static_cast<int>(first.get_num_fields()));
    check(second.get_num_fields() == first.get_num_fields());
    for (unsigned int i = 0; i < first.get_num_fields(); ++i)
      check(second.getField(static_cast<unsigned short>(i)) ==
            first.getField(static_cast<unsigned short>(i)));

    TextFile twice;
    second.write(twice);
    check(lastLine(twice) == lastLine(once));
  }
  return 0;
}
