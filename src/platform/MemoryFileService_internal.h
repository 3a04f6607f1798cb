#pragma once

// MemoryFileService: a file service that keeps its files in memory, so that
// fuzzers and tests load and save without touching the disk.
//
//   zyl::testing::MemoryFileService mem;
//   zyl::testing::ScopedFileService use(&mem);
//   mem.put(L"/mem/in.log", bytes);
//   zyldb t(L"/mem/in.log", INT_MAX, false);
//
// Paths are plain keys: "/mem/a" and "/mem/./a" are different files. A
// directory exists when some file lies under it (or it was made with
// makeDirectory); writing a file needs no directory, so a missing one is
// simulated with failWritesUnder(). No links, no devices. Header-only, one
// thread at a time, like FaultyFileService_internal.h.

#include <zyldb/platform/OS.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace zyl::testing {

class MemoryFileService : public FileService {
 public:
  void put(const std::wstring& path, std::string bytes) { files_[path] = std::move(bytes); }
  // The file's bytes; null when there is none.
  const std::string* get(const std::wstring& path) const {
    auto it = files_.find(path);
    return it == files_.end() ? nullptr : &it->second;
  }
  void makeDirectory(const std::wstring& path) { dirs_.insert(path); }
  // Writes and moves to paths starting with `prefix` fail with ENOENT.
  void failWritesUnder(const std::wstring& prefix) { refused_ = prefix; }
  void clear() {
    files_.clear();
    dirs_.clear();
  }
  size_t fileCount() const { return files_.size(); }

  bool readFile(const LightweightString<wchar_t>& path, std::string* out) override {
    out->clear();
    auto it = files_.find(std::wstring(path.view()));
    if (it == files_.end()) return fail(isDirectory(path) ? EISDIR : ENOENT);
    *out = it->second;
    return true;
  }
  bool writeFile(const LightweightString<wchar_t>& path, const char* data, size_t n) override {
    const std::wstring p(path.view());
    if (refused(p)) return fail(ENOENT);
    if (isDirectory(path)) return fail(EISDIR);
    files_[p].assign(data, n);
    return true;
  }
  bool move(const LightweightString<wchar_t>& from, const LightweightString<wchar_t>& to,
            int flags) override {
    const std::wstring f(from.view()), t(to.view());
    auto it = files_.find(f);
    if (flags != 0) return fail(EINVAL);
    if (it == files_.end()) return fail(ENOENT);
    if (refused(t)) return fail(ENOENT);
    if (isDirectory(to)) return fail(EISDIR);
    std::string bytes = std::move(it->second);
    files_.erase(it);
    files_[t] = std::move(bytes);
    return true;
  }
  bool remove(const LightweightString<wchar_t>& path) override {
    return files_.erase(std::wstring(path.view())) ? true : fail(ENOENT);
  }
  bool exists(const LightweightString<wchar_t>& path) override {
    return files_.count(std::wstring(path.view())) || isDirectory(path);
  }
  bool isDirectory(const LightweightString<wchar_t>& path) override {
    std::wstring p(path.view());
    if (dirs_.count(p)) return true;
    if (p.empty() || p.back() != L'/') p += L'/';
    auto it = files_.lower_bound(p);
    return it != files_.end() && it->first.compare(0, p.size(), p) == 0;
  }
  bool listDirectory(const LightweightString<wchar_t>& dir,
                     std::vector<LightweightString<wchar_t>>* names) override {
    names->clear();
    if (!isDirectory(dir)) return fail(ENOENT);
    std::wstring p(dir.view());
    if (p.back() != L'/') p += L'/';
    std::set<std::wstring> seen;
    for (auto it = files_.lower_bound(p);
         it != files_.end() && it->first.compare(0, p.size(), p) == 0; ++it) {
      const std::wstring rest = it->first.substr(p.size());
      seen.insert(rest.substr(0, rest.find(L'/')));
    }
    for (const std::wstring& n : seen) names->emplace_back(n);
    return true;
  }
  std::string lastError() const override { return error_ ? std::strerror(error_) : std::string(); }

 private:
  bool fail(int err) {
    error_ = err;
    return false;
  }
  bool refused(const std::wstring& p) const {
    return !refused_.empty() && p.compare(0, refused_.size(), refused_) == 0;
  }

  std::map<std::wstring, std::string> files_;
  std::set<std::wstring> dirs_;
  std::wstring refused_;
  int error_ = 0;
};

}  // namespace zyl::testing
