// Uses the installed headers the ways a host may: every appendLine overload
// must resolve, and the safe save's public calls must link.
#include <zyldb/all.h>

#include <cstdio>
#include <string>

int main() {
  TextFile f;
  f.appendLine(std::string("std::string"));
  f.appendLine("literal");
  f.appendLine(std::string_view("view"));
  f.appendLine(LightweightString<char>("lightweight"));
  (void)TextFile::strayTemporaries(zyl::pathFromBytes("no-such-dir/x.log"));
  TextFile::removePendingTemporaries();
  std::printf("%u lines\n", f.getNumLines());
  return f.getNumLines() == 4 ? 0 : 1;
}
