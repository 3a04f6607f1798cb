#pragma once

// OS(): the process-wide service object. It owns the allocator that every
// allocation of the library goes through (the library's global operator
// new/delete forward to it) and the file service that loading, saving and
// the container writer use.
//
// Thread safety: the allocator and the default file service may be used from
// any thread. setFileService() is meant for start-up and tests.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace zyl {

// A malloc-backed allocator that keeps exact counts of live blocks and bytes
// and can be told to fail an allocation, for tests of out-of-memory paths.
class ZYLDB_EXPORT Allocator {
 public:
  struct Stats {
    int64_t liveBlocks = 0;    // blocks handed out and not yet freed
    int64_t liveBytes = 0;     // their usable sizes, summed
    uint64_t allocations = 0;  // allocations made since start-up
  };

  // Returns a block of at least n bytes (n == 0 gives a valid block).
  // Throws Qm::Exception::BadAlloc when memory is exhausted or an injected
  // failure is due.
  void* allocate(size_t n);
  // As allocate, aligned to `alignment` (a power of two).
  void* allocateAligned(size_t n, size_t alignment);
  // As realloc: p may be null; on failure throws and leaves p valid.
  void* reallocate(void* p, size_t n);
  // Frees a block from any of the three calls above; null is ignored.
  void deallocate(void* p) noexcept;

  // Counts over all threads.
  Stats stats() const;

  // Makes the n-th allocation from now fail (1 = the very next one) with
  // Qm::Exception::BadAlloc; 0 disarms. One failure per arming.
  void failNthAllocation(uint64_t n);
  // True while an armed failure has not happened yet.
  bool failurePending() const;
};

// The file layer. The default implementation is POSIX; tests install one
// that fails on purpose. Paths are wide strings, converted to UTF-8 for the
// operating system.
class ZYLDB_EXPORT FileService {
 public:
  virtual ~FileService();

  // Reads the whole regular file at `path` into *out. False when it cannot be
  // opened or read, or is not a regular file (refused without blocking, even
  // for a FIFO without a writer).
  virtual bool readFile(const LightweightString<wchar_t>& path, std::string* out) = 0;
  // Creates or truncates `path`, writes n bytes and flushes them to stable
  // storage (fsync). False on any failure (the file may then be partial).
  virtual bool writeFile(const LightweightString<wchar_t>& path, const char* data, size_t n) = 0;
  // Renames `from` onto `to`, replacing `to` in one step. flags must be 0.
  // When `to` is an existing regular file, the moved file takes its
  // permission bits first (best effort), so a replaced file keeps its mode.
  virtual bool move(const LightweightString<wchar_t>& from, const LightweightString<wchar_t>& to,
                    int flags) = 0;
  virtual bool remove(const LightweightString<wchar_t>& path) = 0;
  // True when anything (file, directory, ...) exists at `path`.
  virtual bool exists(const LightweightString<wchar_t>& path) = 0;
  virtual bool isDirectory(const LightweightString<wchar_t>& path) = 0;
  // True when `path` is a regular file (not a FIFO, device or directory,
  // which a read could block on or fail). The default asks exists() and
  // isDirectory().
  virtual bool isRegularFile(const LightweightString<wchar_t>& path) {
    return exists(path) && !isDirectory(path);
  }
  // A person's description of the last failure on this thread ("No such file
  // or directory", ...).
  virtual std::string lastError() const = 0;
};

}  // namespace zyl

class ZYLDB_EXPORT iOS {
 public:
  zyl::Allocator& allocator();
  zyl::FileService& fileService();
  // Installs `fs` (not owned) as the file service; null restores the POSIX
  // one. Returns the previous service.
  zyl::FileService* setFileService(zyl::FileService* fs);
};

ZYLDB_EXPORT iOS* OS();
