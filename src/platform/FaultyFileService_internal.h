#pragma once

// FaultyFileService: a file service for tests that wraps a real one and
// fails chosen operations on demand, to check that saves and replacements
// leave the old file intact (LevelDB's ErrorEnv plays the same part).
//
//   zyl::testing::FaultyFileService faulty;           // wraps OS()'s current one
//   zyl::testing::ScopedFileService use(&faulty);     // installs it in OS()
//   faulty.failNth(FaultyFileService::kMove);         // the next move fails
//   EXPECT_FALSE(textFile.save(name));
//
// Header-only so that every subsystem's tests can include it as
// "platform/FaultyFileService_internal.h". Meant for one test thread at a
// time; the counters are atomic only so that stray calls from other threads
// are not undefined behaviour.

#include <zyldb/platform/OS.h>

#include <atomic>
#include <string>
#include <vector>

namespace zyl::testing {

class FaultyFileService : public FileService {
 public:
  enum Op { kRead = 0, kWrite, kMove, kRemove, kOpCount };

  // Wraps `base` (not owned; it must outlive this object).
  explicit FaultyFileService(FileService& base = OS()->fileService()) : base_(base) {}

  // The n-th next call of `op` fails (1 = the very next one); 0 disarms.
  void failNth(Op op, int n = 1) { countdown_[op] = n; }
  // Every call of `op` fails while `on`.
  void failAlways(Op op, bool on = true) { always_[op] = on; }
  // A failing writeFile first writes half of the data through the real
  // service, as a full disk would leave it.
  void setTornWrites(bool on) { torn_ = on; }
  // Disarms everything and zeroes the counters.
  void reset() {
    for (int i = 0; i < kOpCount; ++i) {
      countdown_[i] = 0;
      always_[i] = false;
      calls_[i] = 0;
      failures_[i] = 0;
    }
    torn_ = false;
    injected_ = false;
  }

  int calls(Op op) const { return calls_[op]; }
  int failures(Op op) const { return failures_[op]; }

  bool readFile(const LightweightString<wchar_t>& path, std::string* out) override {
    if (shouldFail(kRead)) {
      out->clear();
      return false;
    }
    return real(base_.readFile(path, out));
  }
  bool writeFile(const LightweightString<wchar_t>& path, const char* data, size_t n) override {
    if (shouldFail(kWrite)) {
      if (torn_) base_.writeFile(path, data, n / 2);
      return false;
    }
    return real(base_.writeFile(path, data, n));
  }
  bool move(const LightweightString<wchar_t>& from, const LightweightString<wchar_t>& to,
            int flags) override {
    if (shouldFail(kMove)) return false;
    return real(base_.move(from, to, flags));
  }
  bool remove(const LightweightString<wchar_t>& path) override {
    if (shouldFail(kRemove)) return false;
    return real(base_.remove(path));
  }
  bool exists(const LightweightString<wchar_t>& path) override { return base_.exists(path); }
  bool isDirectory(const LightweightString<wchar_t>& path) override {
    return base_.isDirectory(path);
  }
  // Links, status and listings pass through; an in-place write counts as a
  // write.
  FileStatus status(const LightweightString<wchar_t>& path) override { return base_.status(path); }
  bool resolveLinks(const LightweightString<wchar_t>& path,
                    LightweightString<wchar_t>* target) override {
    return base_.resolveLinks(path, target);
  }
  bool writeInPlace(const LightweightString<wchar_t>& path, const char* data, size_t n) override {
    if (shouldFail(kWrite)) {
      if (torn_) base_.writeInPlace(path, data, n / 2);
      return false;
    }
    return real(base_.writeInPlace(path, data, n));
  }
  bool listDirectory(const LightweightString<wchar_t>& dir,
                     std::vector<LightweightString<wchar_t>>* names) override {
    return base_.listDirectory(dir, names);
  }
  std::string lastError() const override {
    return injected_ ? std::string("injected failure") : base_.lastError();
  }

 private:
  bool shouldFail(Op op) {
    ++calls_[op];
    bool fail = always_[op];
    int n = countdown_[op];
    if (n > 0) {
      countdown_[op] = n - 1;
      if (n == 1) fail = true;
    }
    if (fail) {
      ++failures_[op];
      injected_ = true;
    }
    return fail;
  }
  bool real(bool ok) {
    if (!ok) injected_ = false;
    return ok;
  }

  FileService& base_;
  std::atomic<int> countdown_[kOpCount] = {};
  std::atomic<bool> always_[kOpCount] = {};
  std::atomic<int> calls_[kOpCount] = {};
  std::atomic<int> failures_[kOpCount] = {};
  std::atomic<bool> torn_{false};
  std::atomic<bool> injected_{false};
};

// Installs a file service in OS() for the lifetime of the object and puts
// the previous one back afterwards.
class ScopedFileService {
 public:
  explicit ScopedFileService(FileService* fs) : previous_(OS()->setFileService(fs)) {}
  ~ScopedFileService() { OS()->setFileService(previous_); }
  ScopedFileService(const ScopedFileService&) = delete;
  ScopedFileService& operator=(const ScopedFileService&) = delete;

 private:
  FileService* previous_;
};

}  // namespace zyl::testing
