// TextFile: lines held in one buffer, each followed by a NUL, with the
// offset of every line kept beside it.

#include <sys/mman.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextFile.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

namespace {

constexpr std::string_view kTmpMark = ".zyltmp.";
// The longest name a directory entry may have (NAME_MAX on the file systems
// we meet), and the most the part after the stem can take:
// ".zyltmp." + pid + "." + counter.
constexpr size_t kNameMax = 255;
constexpr size_t kSuffixMax = kTmpMark.size() + 20 + 1 + 20;

thread_local uint64_t tSuccessfulSaves = 0;

// Splits a path's bytes into its directory (with the slash, maybe empty) and
// its last name.
std::pair<std::string, std::string> splitPath(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {std::string(), path};
  return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

// The part of a temporary's name before ".zyltmp.": the target's own name
// when the whole fits in kNameMax bytes; else its first bytes (cut at a
// character boundary), "~" and a hash of the whole name, so that different
// long names sharing a start get different stems.
std::string temporaryStem(const std::string& base) {
  if (base.size() + kSuffixMax <= kNameMax) return base;
  uint32_t h = 2166136261u;  // FNV-1a
  for (char c : base) h = (h ^ static_cast<unsigned char>(c)) * 16777619u;
  size_t keep = kNameMax - kSuffixMax - 9;
  while (keep > 0 && (static_cast<unsigned char>(base[keep]) & 0xC0) == 0x80) --keep;
  char hex[10];
  std::snprintf(hex, sizeof hex, "~%08x", static_cast<unsigned>(h));
  return base.substr(0, keep) + hex;
}

bool allDigits(std::string_view s) {
  if (s.empty() || s.size() > 20) return false;
  for (char c : s)
    if (c < '0' || c > '9') return false;
  return true;
}

// The process id in a directory entry that has the form
// stem ".zyltmp." pid "." counter; -1 for any other name.
long temporaryOwner(std::string_view entry, std::string_view stem) {
  if (entry.size() <= stem.size() + kTmpMark.size() || entry.substr(0, stem.size()) != stem ||
      entry.substr(stem.size(), kTmpMark.size()) != kTmpMark)
    return -1;
  entry.remove_prefix(stem.size() + kTmpMark.size());
  const size_t dot = entry.find('.');
  if (dot == std::string_view::npos || !allDigits(entry.substr(0, dot)) ||
      !allDigits(entry.substr(dot + 1)))
    return -1;
  return std::strtol(std::string(entry.substr(0, dot)).c_str(), nullptr, 10);
}

// The temporaries beside `target` (bytes, links already followed) that
// saves no longer running left: their process is gone. Temporaries of this
// process are never listed: they may belong to a save on another thread.
std::vector<std::string> strayTemporariesOf(zyl::FileService& fs, const std::string& target) {
  std::vector<std::string> out;
  const auto [dir, base] = splitPath(target);
  if (base.empty()) return out;
  const std::string stem = temporaryStem(base);
  std::vector<LightweightString<wchar_t>> entries;
  if (!fs.listDirectory(zyl::pathFromBytes(dir.empty() ? std::string(".") : dir), &entries))
    return out;
  const long self = zyl::detail::processId();
  for (const LightweightString<wchar_t>& e : entries) {
    const std::string name = zyl::pathToBytes(e);
    const long owner = temporaryOwner(name, stem);
    if (owner < 0 || owner == self || zyl::detail::processRuns(owner)) continue;
    out.push_back(dir + name);
  }
  return out;
}

// Frees a registry slot of a temporary and removes the temporary when the
// save did not hand it over, also when an exception leaves the save.
class TemporaryFile {
 public:
  TemporaryFile(zyl::FileService& fs, const std::string& bytes)
      : fs_(fs),
        name_(zyl::pathFromBytes(bytes)),
        slot_(zyl::detail::registerPendingTemporary(bytes)) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (!handedOver_) {
      // A successful remove leaves lastError() describing the failed step.
      try {
        if (fs_.exists(name_)) fs_.remove(name_);
      } catch (...) {  // memory exhaustion again: nothing more can be done
      }
    }
    zyl::detail::releasePendingTemporary(slot_);
  }
  const LightweightString<wchar_t>& name() const { return name_; }
  // The temporary now has another name (or is gone).
  void handedOver() { handedOver_ = true; }

 private:
  zyl::FileService& fs_;
  LightweightString<wchar_t> name_;
  int slot_;
  bool handedOver_ = false;
};

}  // namespace

bool TextFile::writeAtomically(const LightweightString<wchar_t>& name, const char* text,
                               size_t size) {
  zyl::FileService& fs = OS()->fileService();
  // A pipe, terminal or device is written as it is: renaming a file over it
  // would replace the device node, not feed it.
  const zyl::FileStatus status = fs.status(name);
  if (status.type == zyl::FileStatus::kOther) return fs.writeInPlace(name, text, size);

  // A symbolic link is kept: the file it leads to is the one replaced, and
  // the temporary goes beside that file, as rename(2) only replaces in one
  // step within one file system.
  LightweightString<wchar_t> target;
  if (!fs.resolveLinks(name, &target)) return false;
  const std::string targetBytes = zyl::pathToBytes(target);
  for (const std::string& stray : strayTemporariesOf(fs, targetBytes))
    fs.remove(zyl::pathFromBytes(stray));

  static std::atomic<unsigned long> counter{0};
  const auto [dir, base] = splitPath(targetBytes);
  TemporaryFile tmp(fs, dir + temporaryStem(base) + std::string(kTmpMark) +
                            std::to_string(zyl::detail::processId()) + "." +
                            std::to_string(counter.fetch_add(1, std::memory_order_relaxed)));
  if (!fs.writeFile(tmp.name(), text, size)) return false;

  if (status.type == zyl::FileStatus::kRegular && status.links > 1) {
    // A rename would give this name a new file and leave the other hard
    // links on the old one, so the file is rewritten in place. The complete
    // temporary stands by meanwhile: when the rewrite fails, it takes this
    // name's place, so that no text is lost under the name saved to.
    if (fs.writeInPlace(target, text, size)) {
      ++tSuccessfulSaves;
      return true;
    }
    if (fs.move(tmp.name(), target, 0)) tmp.handedOver();
    return false;
  }
  if (!fs.move(tmp.name(), target, 0)) return false;
  tmp.handedOver();
  ++tSuccessfulSaves;
  return true;
}

std::vector<LightweightString<wchar_t>> TextFile::strayTemporaries(
    const LightweightString<wchar_t>& name) {
  zyl::FileService& fs = OS()->fileService();
  LightweightString<wchar_t> target;
  if (!fs.resolveLinks(name, &target)) return {};
  std::vector<LightweightString<wchar_t>> out;
  for (const std::string& stray : strayTemporariesOf(fs, zyl::pathToBytes(target)))
    out.push_back(zyl::pathFromBytes(stray));
  return out;
}

void TextFile::removePendingTemporaries() noexcept { zyl::detail::unlinkPendingTemporaries(); }

uint64_t TextFile::successfulSaves() noexcept { return tSuccessfulSaves; }

void TextFile::appendLine(const LightweightString<char>& line) { appendLine(line.view()); }

void TextFile::appendLine(const std::string& line) { appendLine(std::string_view(line)); }

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
