// The POSIX file service: the one place where the file layer calls the
// operating system (LevelDB keeps its env_posix.cc the same way).
//
// Errors. Every failing call goes through recordError(), which keeps errno in
// a thread_local slot; lastError() turns it into text with strerror_r. A
// call that succeeds leaves the slot alone, so lastError() always describes
// the most recent failure on the calling thread.

#include <fcntl.h>
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

zyl::FileService::~FileService() = default;

namespace zyl {
namespace {

constinit thread_local int tLastErrno = 0;

// The one error-mapping function: records `err` (an errno value) as this
// thread's last failure and returns false, so that callers can
// `return recordError(errno);`.
bool recordError(int err) {
  tLastErrno = err != 0 ? err : EIO;
  return false;
}

std::string utf8Path(const LightweightString<wchar_t>& path) { return toUTF8(path).toStdString(); }

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
    while (n > 0) {
      ssize_t w = ::write(fd, data, n);
      if (w < 0) {
        if (errno == EINTR) continue;
        int e = errno;
        retryClose(fd);
        return recordError(e);
      }
      data += w;
      n -= static_cast<size_t>(w);
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
