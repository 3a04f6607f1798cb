// The POSIX file service: the one place where the file layer calls the
// operating system (LevelDB keeps its env_posix.cc the same way).
//
// Errors. Every failing call goes through recordError(), which keeps errno in
// a thread_local slot; lastError() turns it into text with strerror_r. A
// call that succeeds leaves the slot alone, so lastError() always describes
// the most recent failure on the calling thread.

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/TextUtil.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/PosixFileService_internal.h"
#include "platform/TextUtil_internal.h"

zyl::FileService::~FileService() = default;

namespace zyl {

LightweightString<wchar_t> pathFromBytes(std::string_view v) {
  std::wstring out;
  out.reserve(v.size());
  size_t i = 0;
  while (i < v.size()) {
    const unsigned char c = static_cast<unsigned char>(v[i]);
    if (c < 0x80) {
      out.push_back(static_cast<wchar_t>(c));
      ++i;
      continue;
    }
    size_t extra = 0;
    char32_t cp = 0, min = 0;
    if (c >= 0xC2 && c <= 0xDF)
      extra = 1, cp = c & 0x1F, min = 0x80;
    else if (c >= 0xE0 && c <= 0xEF)
      extra = 2, cp = c & 0x0F, min = 0x800;
    else if (c >= 0xF0 && c <= 0xF4)
      extra = 3, cp = c & 0x07, min = 0x10000;
    bool ok = extra > 0 && i + extra < v.size();
    for (size_t j = 1; ok && j <= extra; ++j) {
      const unsigned char t = i + j < v.size() ? static_cast<unsigned char>(v[i + j]) : 0;
      if ((t & 0xC0) != 0x80) ok = false;
      cp = (cp << 6) | (t & 0x3F);
    }
    if (ok && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) ok = false;
    if (!ok) {
      // The byte is kept as an escape; the bytes after it are read again.
      out.push_back(static_cast<wchar_t>(0xDC00 + c));
      ++i;
      continue;
    }
    out.push_back(static_cast<wchar_t>(cp));
    i += extra + 1;
  }
  return LightweightString<wchar_t>(out);
}

std::string pathToBytes(const LightweightString<wchar_t>& path) {
  std::string out;
  out.reserve(path.size());
  for (wchar_t w : path.view()) {
    char32_t cp = static_cast<char32_t>(w);
    if (cp >= 0xDC80 && cp <= 0xDCFF) {
      out.push_back(static_cast<char>(cp - 0xDC00));
      continue;
    }
    zyl::detail::appendUtf8(out, cp);
  }
  return out;
}

FileStatus FileService::status(const LightweightString<wchar_t>& path) {
  FileStatus st;
  if (isDirectory(path))
    st.type = FileStatus::kDirectory;
  else if (exists(path))
    st.type = FileStatus::kRegular, st.links = 1;
  return st;
}

bool FileService::resolveLinks(const LightweightString<wchar_t>& path,
                               LightweightString<wchar_t>* target) {
  *target = path;
  return true;
}

bool FileService::writeInPlace(const LightweightString<wchar_t>& path, const char* data, size_t n) {
  return writeFile(path, data, n);
}

bool FileService::listDirectory(const LightweightString<wchar_t>&,
                                std::vector<LightweightString<wchar_t>>* names) {
  names->clear();
  return false;
}

namespace {

constinit thread_local int tLastErrno = 0;

// The one error-mapping function: records `err` (an errno value) as this
// thread's last failure and returns false, so that callers can
// `return recordError(errno);`.
bool recordError(int err) {
  tLastErrno = err != 0 ? err : EIO;
  return false;
}

std::string utf8Path(const LightweightString<wchar_t>& path) { return pathToBytes(path); }

// Writes all n bytes to fd, retrying short writes and EINTR.
bool writeAll(int fd, const char* data, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, data, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += w;
    n -= static_cast<size_t>(w);
  }
  return true;
}

int retryClose(int fd) {
  // close() must not be retried on EINTR on Linux: the descriptor is gone.
  return ::close(fd);
}

class PosixFileService final : public FileService {
 public:
  constexpr PosixFileService() = default;

  bool readFile(const LightweightString<wchar_t>& path, std::string* out) override {
    out->clear();
    std::string p = utf8Path(path);
    int fd;
    // O_NONBLOCK: opening a FIFO without a writer would wait for one. It
    // changes nothing for the regular files that are read.
    do fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) return recordError(errno);
    struct stat st;
    if (::fstat(fd, &st) != 0) {
      int e = errno;
      retryClose(fd);
      return recordError(e);
    }
    if (!S_ISREG(st.st_mode)) {
      retryClose(fd);
      return recordError(S_ISDIR(st.st_mode) ? EISDIR : EINVAL);
    }
    // Read to the end rather than trusting st_size: the file may grow.
    size_t used = 0;
    size_t cap = static_cast<size_t>(st.st_size) + 1;
    out->resize(cap);
    for (;;) {
      if (used == cap) {
        cap = cap * 2;
        out->resize(cap);
      }
      ssize_t r = ::read(fd, out->data() + used, cap - used);
      if (r < 0) {
        if (errno == EINTR) continue;
        int e = errno;
        retryClose(fd);
        out->clear();
        return recordError(e);
      }
      if (r == 0) break;
      used += static_cast<size_t>(r);
    }
    out->resize(used);
    retryClose(fd);
    return true;
  }

  bool writeFile(const LightweightString<wchar_t>& path, const char* data, size_t n) override {
    std::string p = utf8Path(path);
    int fd;
    do fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) return recordError(errno);
    if (!writeAll(fd, data, n)) {
      int e = errno;
      retryClose(fd);
      return recordError(e);
    }
    if (::fsync(fd) != 0) {
      int e = errno;
      retryClose(fd);
      return recordError(e);
    }
    if (retryClose(fd) != 0) return recordError(errno);
    return true;
  }

  bool move(const LightweightString<wchar_t>& from, const LightweightString<wchar_t>& to,
            int flags) override {
    if (flags != 0) return recordError(EINVAL);
    std::string f = utf8Path(from);
    std::string t = utf8Path(to);
    // Replacing a file keeps its permission bits (best effort: a failure
    // here does not stop the move).
    struct stat target, source;
    if (::stat(t.c_str(), &target) == 0 && S_ISREG(target.st_mode) &&
        ::stat(f.c_str(), &source) == 0 && S_ISREG(source.st_mode) &&
        (source.st_mode & 07777) != (target.st_mode & 07777)) {
      (void)::chmod(f.c_str(), target.st_mode & 07777);
    }
    if (::rename(f.c_str(), t.c_str()) != 0) return recordError(errno);
    return true;
  }

  bool remove(const LightweightString<wchar_t>& path) override {
    std::string p = utf8Path(path);
    if (::remove(p.c_str()) != 0) return recordError(errno);
    return true;
  }

  bool exists(const LightweightString<wchar_t>& path) override {
    struct stat st;
    return ::stat(utf8Path(path).c_str(), &st) == 0;
  }

  bool isRegularFile(const LightweightString<wchar_t>& path) override {
    struct stat st;
    return ::stat(utf8Path(path).c_str(), &st) == 0 && S_ISREG(st.st_mode);
  }

  bool isDirectory(const LightweightString<wchar_t>& path) override {
    struct stat st;
    return ::stat(utf8Path(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  }

  FileStatus status(const LightweightString<wchar_t>& path) override {
    FileStatus out;
    struct stat st;
    if (::stat(utf8Path(path).c_str(), &st) != 0) {
      recordError(errno);
      return out;
    }
    if (S_ISREG(st.st_mode)) {
      out.type = FileStatus::kRegular;
      out.links = static_cast<uint64_t>(st.st_nlink);
    } else {
      out.type = S_ISDIR(st.st_mode) ? FileStatus::kDirectory : FileStatus::kOther;
    }
    return out;
  }

  bool resolveLinks(const LightweightString<wchar_t>& path,
                    LightweightString<wchar_t>* target) override {
    std::string p = utf8Path(path);
    for (int hops = 0;; ++hops) {
      struct stat st;
      if (::lstat(p.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) break;
      if (hops == 40) return recordError(ELOOP);
      std::string link(static_cast<size_t>(st.st_size > 0 ? st.st_size : PATH_MAX) + 1, '\0');
      ssize_t len = ::readlink(p.c_str(), link.data(), link.size());
      if (len < 0) return recordError(errno);
      if (static_cast<size_t>(len) >= link.size()) return recordError(ENAMETOOLONG);
      link.resize(static_cast<size_t>(len));
      if (link.empty()) return recordError(ENOENT);
      if (link[0] != '/') {
        const size_t slash = p.rfind('/');
        link.insert(0, slash == std::string::npos ? std::string() : p.substr(0, slash + 1));
      }
      p = std::move(link);
    }
    *target = pathFromBytes(p);
    return true;
  }

  bool writeInPlace(const LightweightString<wchar_t>& path, const char* data, size_t n) override {
    std::string p = utf8Path(path);
    int fd;
    do fd = ::open(p.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) return recordError(errno);
    struct stat st;
    bool ok = ::fstat(fd, &st) == 0 && writeAll(fd, data, n);
    // A regular file is cut to the new length and flushed; a device or a
    // pipe has no length, and fsync of one fails with EINVAL.
    if (ok && S_ISREG(st.st_mode))
      ok = ::ftruncate(fd, static_cast<off_t>(n)) == 0 && ::fsync(fd) == 0;
    int e = errno;
    if (retryClose(fd) != 0 && ok) return recordError(errno);
    return ok ? true : recordError(e);
  }

  bool listDirectory(const LightweightString<wchar_t>& dir,
                     std::vector<LightweightString<wchar_t>>* names) override {
    names->clear();
    DIR* d = ::opendir(utf8Path(dir).c_str());
    if (!d) return recordError(errno);
    // Closed on every way out, memory exhaustion while listing included.
    struct Closer {
      DIR* d;
      ~Closer() { ::closedir(d); }
    } closer{d};
    errno = 0;
    while (const dirent* e = ::readdir(d)) {
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
        names->push_back(pathFromBytes(e->d_name));
      errno = 0;
    }
    const int e = errno;
    return e == 0 ? true : recordError(e);
  }

  std::string lastError() const override {
    if (tLastErrno == 0) return std::string();
    char buf[256];
    // GNU strerror_r returns the text, which may or may not be in buf.
    const char* text = ::strerror_r(tLastErrno, buf, sizeof buf);
    return std::string(text ? text : "unknown error");
  }
};

// Constant-initialised and never destroyed, so that the file service works
// during static initialisation and destruction.
union PosixHolder {
  constexpr PosixHolder() : service() {}
  ~PosixHolder() {}
  PosixFileService service;
};
constinit PosixHolder gPosix;
constinit std::atomic<FileService*> gInstalled{nullptr};

}  // namespace

namespace detail {

FileService& posixFileService() noexcept { return gPosix.service; }

long processId() noexcept { return static_cast<long>(::getpid()); }

bool processRuns(long pid) noexcept {
  if (pid <= 0 || pid != static_cast<long>(static_cast<pid_t>(pid))) return false;
  // EPERM: the process exists but belongs to someone else.
  return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// ---- Temporaries of saves in progress ------------------------------------------
// A fixed table, so that a signal handler can walk it: a slot is claimed
// (kFilling) while its path is copied in, published (kActive) before the
// temporary is created, and freed once the temporary has been renamed or
// removed. The handler unlinks only published slots.

namespace {
constexpr int kPendingSlots = 16;
enum : int { kFree = 0, kFilling = 1, kActive = 2 };
struct PendingSlot {
  std::atomic<int> state{kFree};
  char path[PATH_MAX] = {};
};
constinit PendingSlot gPending[kPendingSlots];
static_assert(std::atomic<int>::is_always_lock_free);
}  // namespace

int registerPendingTemporary(const std::string& path) noexcept {
  if (path.size() >= PATH_MAX) return -1;
  for (int i = 0; i < kPendingSlots; ++i) {
    int expected = kFree;
    if (!gPending[i].state.compare_exchange_strong(expected, kFilling, std::memory_order_acquire))
      continue;
    std::memcpy(gPending[i].path, path.c_str(), path.size() + 1);
    gPending[i].state.store(kActive, std::memory_order_release);
    return i;
  }
  return -1;
}

void releasePendingTemporary(int slot) noexcept {
  if (slot >= 0 && slot < kPendingSlots)
    gPending[slot].state.store(kFree, std::memory_order_release);
}

bool isPendingTemporary(const std::string& path) noexcept {
  for (const PendingSlot& s : gPending)
    if (s.state.load(std::memory_order_acquire) == kActive && path == s.path) return true;
  return false;
}

void unlinkPendingTemporaries() noexcept {
  for (PendingSlot& s : gPending)
    if (s.state.load(std::memory_order_acquire) == kActive) (void)::unlink(s.path);
}

}  // namespace detail
}  // namespace zyl

zyl::FileService& iOS::fileService() {
  zyl::FileService* fs = zyl::gInstalled.load(std::memory_order_acquire);
  return fs ? *fs : zyl::gPosix.service;
}

zyl::FileService* iOS::setFileService(zyl::FileService* fs) {
  zyl::FileService* prev = zyl::gInstalled.exchange(fs, std::memory_order_acq_rel);
  return prev ? prev : &zyl::gPosix.service;
}
