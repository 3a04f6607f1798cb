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
#include <string_view>
#include <vector>

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

// File names. Paths are wide strings; the operating system sees their UTF-8
// bytes. A name that is not valid UTF-8 keeps its bytes: pathFromBytes
// carries each byte that is not part of a valid UTF-8 sequence as the code
// point U+DC00 + byte (a lone surrogate, which no valid text holds), and
// pathToBytes writes such a code point back as that byte. Both are linear.
// Hosts that take names from the command line or a directory listing should
// use pathFromBytes rather than fromUTF8, which replaces bad bytes.
ZYLDB_EXPORT LightweightString<wchar_t> pathFromBytes(std::string_view bytes);
ZYLDB_EXPORT std::string pathToBytes(const LightweightString<wchar_t>& path);

// What a path names, following symbolic links.
struct FileStatus {
  enum Type { kMissing, kRegular, kDirectory, kOther };
  Type type = kMissing;  // kOther: a FIFO, terminal, device or socket
  uint64_t links = 0;    // hard links of a regular file
};

// The file layer. The default implementation is POSIX; tests install one
// that fails on purpose, and fuzzers one that keeps files in memory.
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

  // The calls below have defaults built on the ones above, for services
  // that know neither links nor devices.

  // What `path` names, following links. Default: from exists() and
  // isDirectory(), one link.
  virtual FileStatus status(const LightweightString<wchar_t>& path);
  // The file a save of `path` must replace: `path` itself unless it is a
  // symbolic link, else the end of its chain of links (which need not
  // exist; a relative link is read from the link's directory). False, with
  // lastError(), for a chain of more than 40 links. Default: `path`.
  virtual bool resolveLinks(const LightweightString<wchar_t>& path,
                            LightweightString<wchar_t>* target);
  // Writes n bytes into the existing file or device at `path` without
  // replacing it: a regular file is overwritten from its start, cut to n
  // bytes and flushed (fsync); anything else (a FIFO, a terminal) just gets
  // the bytes, and may block until a reader comes. Default: writeFile.
  virtual bool writeInPlace(const LightweightString<wchar_t>& path, const char* data, size_t n);
  // The names (not paths) in directory `dir`, "." and ".." left out, in no
  // particular order. Default: false (listing not supported).
  virtual bool listDirectory(const LightweightString<wchar_t>& dir,
                             std::vector<LightweightString<wchar_t>>* names);
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
