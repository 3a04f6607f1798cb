// TextFile: lines held in one buffer, each followed by a NUL, with the
// offset of every line kept beside it.

#include <sys/mman.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextFile.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#include "platform/PosixFileService_internal.h"

TextFile::TextFile() = default;

void TextFile::clear() {
  buf_.clear();
  starts_.clear();
  currentLine = 0;
}

bool TextFile::load(const LightweightString<wchar_t>& name, char separator, bool) {
  clear();
  notRegular_ = false;
  zyl::FileService& fs = OS()->fileService();
  if (!fs.readFile(name, &buf_)) {
    buf_.clear();
    notRegular_ = fs.exists(name) && !fs.isRegularFile(name);
    return false;
  }
  // Split in place: each line moves down over the line ends removed before
  // it (nothing moves in an LF file) and gets a NUL after it. A UTF-8
  // byte-order mark is skipped like a removed line end.
  const size_t size = buf_.size();
  char* b = buf_.data();
  size_t read = 0, write = 0;
  if (size >= 3 && std::memcmp(b, "\xEF\xBB\xBF", 3) == 0) read = 3;
  while (read < size) {
    const char* sep = static_cast<const char*>(std::memchr(b + read, separator, size - read));
    size_t end = sep ? static_cast<size_t>(sep - b) : size;
    size_t len = end - read;
    if (sep && separator == '\n' && len > 0 && b[end - 1] == '\r') --len;
    if (write != read) std::memmove(b + write, b + read, len);
    starts_.push_back(write);
    write += len;
    if (write < size)
      b[write] = '\0';
    else
      buf_.push_back('\0');  // a last line without line end fills the buffer
    ++write;
    read = sep ? end + 1 : size;
    b = buf_.data();
  }
  buf_.resize(write);
  return true;
}

bool TextFile::save(const LightweightString<wchar_t>& name, eEOLStyle style) const {
  // With LF line ends the buffer itself becomes the file's text: the NUL
  // after each line is turned into a line feed for the write and back
  // afterwards, so that no copy of a large file is made. CRLF needs one more
  // byte per line and is built in a separate string.
  std::string crlfText;
  const char* text = buf_.data();
  size_t textSize = buf_.size();
  if (style == eCRLF) {
    crlfText.reserve(buf_.size() + starts_.size());
    for (unsigned int i = 0; i < getNumLines(); ++i) {
      crlfText.append(buf_.data() + starts_[i], lineLength(i));
      crlfText.append("\r\n", 2);
    }
    text = crlfText.data();
    textSize = crlfText.size();
  }
  // Each line's NUL is the byte before the next line's start; the last one
  // is the buffer's last byte. The destructor puts the NULs back on every
  // way out.
  struct LineFeedsInPlace {
    const TextFile& file;
    const bool active;
    void set(char c) const {
      for (size_t i = 1; i < file.starts_.size(); ++i) file.buf_[file.starts_[i] - 1] = c;
      if (!file.buf_.empty()) file.buf_.back() = c;
    }
    LineFeedsInPlace(const TextFile& f, bool on) : file(f), active(on) {
      if (active) set('\n');
    }
    ~LineFeedsInPlace() {
      if (active) set('\0');
    }
  } lineFeeds(*this, style != eCRLF);
  return writeAtomically(name, text, textSize);
}

bool TextFile::writeAtomically(const LightweightString<wchar_t>& name, const char* text,
                               size_t size) {
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
  if (fs.writeFile(tmpName, text, size) && fs.move(tmpName, name, 0)) return true;
  // A successful remove leaves lastError() describing the failed step.
  if (fs.exists(tmpName)) fs.remove(tmpName);
  return false;
}

void TextFile::appendLine(const LightweightString<char>& line) { appendLine(line.view()); }

void TextFile::appendLine(std::string_view line) {
  LineBuilder b(*this);
  b.append(line);
  b.finish();
}

void TextFile::LineBuilder::finish() {
  // The text is complete before the line is counted, and the count is
  // undone if the NUL cannot be added, so that a failure changes nothing.
  file_.starts_.push_back(start_);
  try {
    file_.buf_.push_back('\0');
  } catch (...) {
    file_.starts_.pop_back();
    throw;
  }
  finished_ = true;
}

void TextFile::reserve(size_t lines, size_t bytes) {
  starts_.reserve(starts_.size() + lines);
  buf_.reserve(buf_.size() + bytes + lines);
#if defined(MADV_POPULATE_WRITE)
  // A large text is about to be written into the new room page by page.
  // Asking for all its pages at once costs far less than one page fault per
  // page; kernels without the request refuse it, which changes nothing.
  constexpr size_t kPage = 4096;
  constexpr size_t kPopulateFrom = size_t{1} << 20;
  const uintptr_t from =
      (reinterpret_cast<uintptr_t>(buf_.data() + buf_.size()) + kPage - 1) & ~(kPage - 1);
  const uintptr_t to = reinterpret_cast<uintptr_t>(buf_.data() + buf_.capacity()) & ~(kPage - 1);
  if (to > from && to - from >= kPopulateFrom)
    (void)::madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE);
#endif
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
