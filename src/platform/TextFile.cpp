// TextFile: lines held in one buffer, each followed by a NUL, with the
// offset of every line kept beside it.

#include <zyldb/platform/TextFile.h>

#include <atomic>
#include <cstring>
#include <string>

#include <zyldb/platform/OS.h>

#include "platform/PosixFileService_internal.h"

TextFile::TextFile() = default;

void TextFile::clear() {
  buf_.clear();
  starts_.clear();
  currentLine = 0;
}

bool TextFile::load(const LightweightString<wchar_t>& name, char separator, bool) {
  clear();
  if (!OS()->fileService().readFile(name, &buf_)) {
    buf_.clear();
    return false;
  }
  // Split in place: each line moves down over the line ends removed before
  // it (nothing moves in an LF file) and gets a NUL after it.
  const size_t size = buf_.size();
  char* b = buf_.data();
  size_t read = 0, write = 0;
  while (read < size) {
    const char* sep = static_cast<const char*>(std::memchr(b + read, separator, size - read));
    size_t end = sep ? static_cast<size_t>(sep - b) : size;
    size_t len = end - read;
    if (sep && separator == '\n' && len > 0 && b[end - 1] == '\r') --len;
    if (write != read) std::memmove(b + write, b + read, len);
    starts_.push_back(write);
    write += len;
    if (write < size) b[write] = '\0';
    else buf_.push_back('\0');  // a last line without line end fills the buffer
    ++write;
    read = sep ? end + 1 : size;
    b = buf_.data();
  }
  buf_.resize(write);
  return true;
}

bool TextFile::save(const LightweightString<wchar_t>& name, eEOLStyle style) const {
  const std::string_view eol = style == eCRLF ? std::string_view("\r\n") : std::string_view("\n");
  std::string text;
  text.reserve(buf_.size() + starts_.size() * (eol.size() - 1));
  for (unsigned int i = 0; i < getNumLines(); ++i) {
    text.append(buf_.data() + starts_[i], lineLength(i));
    text.append(eol);
  }

  // A unique name beside the target: rename(2) only replaces in one step
  // within one file system.
  static std::atomic<unsigned long> counter{0};
  std::wstring tmp(name.view());
  tmp += L".zyltmp.";
  for (char c : std::to_string(zyl::detail::processId()) + "." +
                    std::to_string(counter.fetch_add(1, std::memory_order_relaxed)))
    tmp += static_cast<wchar_t>(c);
  LightweightString<wchar_t> tmpName(tmp);

  zyl::FileService& fs = OS()->fileService();
  if (fs.writeFile(tmpName, text.data(), text.size()) && fs.move(tmpName, name, 0)) return true;
  // A successful remove leaves lastError() describing the failed step.
  if (fs.exists(tmpName)) fs.remove(tmpName);
  return false;
}

void TextFile::appendLine(const LightweightString<char>& line) { appendLine(line.view()); }

void TextFile::appendLine(std::string_view line) {
  starts_.push_back(buf_.size());
  buf_.append(line);
  buf_.push_back('\0');
}

const char* TextFile::line(unsigned int n) const {
  if (n >= starts_.size()) return "";
  return buf_.data() + starts_[n];
}

size_t TextFile::lineLength(unsigned int n) const {
  if (n >= starts_.size()) return 0;
  size_t end = n + 1 < starts_.size() ? starts_[n + 1] : buf_.size();
  return end - starts_[n] - 1;
}

LightweightString<char> TextFile::operator[](unsigned int n) const {
  if (n >= starts_.size()) return LightweightString<char>();
  return LightweightString<char>(line(n), lineLength(n));
}
