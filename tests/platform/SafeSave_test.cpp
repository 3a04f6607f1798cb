// The safe save: temporaries (names, strays, failure paths, signals), and
// saves through links, to pipes, to hard-linked files and to names that are
// not UTF-8.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zyldb/platform/OS.h>
#include <zyldb/platform/QmException.h>
#include <zyldb/platform/TextFile.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/FaultyFileService_internal.h"
#include "platform/MemoryFileService_internal.h"

namespace {

namespace fs = std::filesystem;
using zyl::pathFromBytes;
using zyl::pathToBytes;

// Passes every call to the POSIX service and lets a test act just before a
// move (the last step of a save) and see the temporaries written.
class HookedFileService : public zyl::testing::FaultyFileService {
 public:
  using FaultyFileService::FaultyFileService;
  bool writeFile(const LightweightString<wchar_t>& path, const char* data, size_t n) override {
    written.push_back(pathToBytes(path));
    return FaultyFileService::writeFile(path, data, n);
  }
  bool move(const LightweightString<wchar_t>& from, const LightweightString<wchar_t>& to,
            int flags) override {
    if (beforeMove) beforeMove();
    return FaultyFileService::move(from, to, flags);
  }
  std::vector<std::string> written;
  std::function<void()> beforeMove;
};

class SafeSaveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zyldb_safesave_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }
  LightweightString<wchar_t> wide(const std::string& name) const {
    return pathFromBytes(path(name));
  }
  void write(const std::string& name, const std::string& bytes) {
    std::ofstream(path(name), std::ios::binary) << bytes;
  }
  std::string read(const std::string& name) const {
    std::ifstream in(path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // Every entry of the directory (recursively) whose name holds ".zyltmp.".
  std::vector<std::string> temporaries() const {
    std::vector<std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(dir_))
      if (e.path().filename().string().find(".zyltmp.") != std::string::npos)
        out.push_back(e.path().string());
    return out;
  }
  static TextFile text(const std::string& first = "one") {
    TextFile f;
    f.appendLine(first);  // std::string: must pick one overload
    f.appendLine("two");
    return f;
  }
  // The pid of a process that has ended.
  static long deadPid() {
    pid_t child = fork();
    if (child == 0) _exit(0);
    int status = 0;
    waitpid(child, &status, 0);
    return child;
  }
  std::string dir_;
};

TEST_F(SafeSaveTest, NamesUpToTheLimitSaveWithUniqueShortTemporaries) {
  const std::string shared(200, 's');
  const std::string euro = "\xe2\x82\xac";  // 3 bytes: cuts must not split it
  std::string euros;
  while (euros.size() + 3 <= 255) euros += euro;
  for (const std::string& name :
       {std::string(240, 'a'), std::string(254, 'b') + "c", shared + std::string(55, 'x'),
        shared + std::string(55, 'y'), euros, std::string("short.log")}) {
    HookedFileService hook;
    zyl::testing::ScopedFileService use(&hook);
    ASSERT_TRUE(text(name.substr(0, 8)).save(wide(name))) << name.size();
    EXPECT_EQ(read(name), name.substr(0, 8) + "\ntwo\n");
    ASSERT_EQ(hook.written.size(), 1u);
    const std::string tmp = fs::path(hook.written[0]).filename().string();
    EXPECT_LE(tmp.size(), 255u);
    EXPECT_EQ(pathFromBytes(tmp).view().find(L'\xDCE2'), std::wstring_view::npos)
        << "a character was cut in half";
  }
  EXPECT_TRUE(temporaries().empty());
}

TEST_F(SafeSaveTest, StrayTemporariesOfEndedSavesAreListedThenRemovedByTheNextSave) {
  const std::string longName(250, 'L');
  for (const std::string& name : {std::string("t.log"), longName}) {
    // A save killed after writing its temporary: the child ends inside the
    // last step.
    pid_t child = fork();
    if (child == 0) {
      HookedFileService hook;
      zyl::testing::ScopedFileService use(&hook);
      hook.beforeMove = [] { _exit(9); };
      text("killed").save(wide(name));
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_EQ(WEXITSTATUS(status), 9);
    ASSERT_EQ(temporaries().size(), 1u);
    const std::string stray = temporaries()[0];

    // Look-alikes that are no strays of this file: another file's, one of
    // this process, one of a live process (pid 1), a malformed one.
    const std::string stem = stray.substr(0, stray.find(".zyltmp."));
    const std::string self = std::to_string(getpid());
    write("other.log.zyltmp." + std::to_string(deadPid()) + ".1", "x");
    std::ofstream(stem + ".zyltmp." + self + ".77") << "x";
    std::ofstream(stem + ".zyltmp.1.5") << "x";
    std::ofstream(stem + ".zyltmp.x.5") << "x";
    std::ofstream(stem + ".zyltmp." + std::to_string(deadPid()) + ".0") << "x";

    std::set<std::string> listed;
    for (const auto& p : TextFile::strayTemporaries(wide(name))) listed.insert(pathToBytes(p));
    EXPECT_EQ(listed.size(), 2u);
    EXPECT_TRUE(listed.count(stray));
    ASSERT_TRUE(text().save(wide(name)));
    EXPECT_TRUE(TextFile::strayTemporaries(wide(name)).empty());
    for (const std::string& p : listed) EXPECT_FALSE(fs::exists(p)) << p;
    EXPECT_EQ(temporaries().size(), 4u);  // the look-alikes stay
    for (const std::string& t : temporaries()) fs::remove(t);
  }
}

// Every allocation of a save is failed in turn: each failure leaves the old
// file or the new one, never a temporary.
TEST_F(SafeSaveTest, AllocationFailureAnywhereLeavesNoTemporary) {
  write("t.log", "old\n");
  int failures = 0;
  for (uint64_t n = 1;; ++n) {
    TextFile f = text();
    OS()->allocator().failNthAllocation(n);
    bool threw = false;
    try {
      f.save(wide("t.log"));
    } catch (const Qm::Exception::BadAlloc&) {
      threw = true;
      ++failures;
    }
    const bool pending = OS()->allocator().failurePending();
    OS()->allocator().failNthAllocation(0);
    ASSERT_TRUE(temporaries().empty()) << "allocation " << n;
    const std::string now = read("t.log");
    EXPECT_TRUE(now == "old\n" || now == "one\ntwo\n") << now;
    if (pending) break;
    EXPECT_TRUE(threw);
  }
  EXPECT_GT(failures, 3);
}

TEST_F(SafeSaveTest, SignalHandlerRemovesTheTemporaryOfASaveInProgress) {
  write("t.log", "old\n");
  struct sigaction sa = {}, old = {};
  sa.sa_handler = [](int) { TextFile::removePendingTemporaries(); };
  sigaction(SIGUSR1, &sa, &old);
  HookedFileService hook;
  zyl::testing::ScopedFileService use(&hook);
  hook.beforeMove = [&] {
    EXPECT_EQ(temporaries().size(), 1u);
    raise(SIGUSR1);
  };
  EXPECT_FALSE(text().save(wide("t.log")));
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_TRUE(temporaries().empty());
  EXPECT_EQ(read("t.log"), "old\n");
  hook.beforeMove = nullptr;
  EXPECT_TRUE(text().save(wide("t.log")));  // the registry slot was freed
  TextFile::removePendingTemporaries();     // nothing pending: removes nothing
  EXPECT_EQ(read("t.log"), "one\ntwo\n");
}

TEST_F(SafeSaveTest, SymbolicLinksStayAndTheirTargetsAreReplaced) {
  fs::create_directory(path("sub"));
  write("sub/real.log", "old\n");
  fs::create_symlink("sub/hop.log", path("link.log"));  // relative to the link's directory
  fs::create_symlink("real.log", path("sub/hop.log"));
  fs::create_symlink(path("sub/new.log"), path("dangling.log"));  // absolute, target missing
  fs::create_symlink("loop.log", path("loop.log"));

  ASSERT_TRUE(text().save(wide("link.log")));
  EXPECT_TRUE(fs::is_symlink(path("link.log")));
  EXPECT_TRUE(fs::is_symlink(path("sub/hop.log")));
  EXPECT_EQ(read("sub/real.log"), "one\ntwo\n");
  ASSERT_TRUE(text("dangle").save(wide("dangling.log")));
  EXPECT_TRUE(fs::is_symlink(path("dangling.log")));
  EXPECT_EQ(read("sub/new.log"), "dangle\ntwo\n");
  EXPECT_FALSE(text().save(wide("loop.log")));
  EXPECT_TRUE(fs::is_symlink(path("loop.log")));
  EXPECT_TRUE(temporaries().empty());
}

TEST_F(SafeSaveTest, PipesAreWrittenIntoNeverReplaced) {
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
  fs::create_symlink("pipe", path("pipe.log"));
  std::string got;
  std::thread reader([&] {
    std::ifstream in(path("pipe"), std::ios::binary);
    got.assign(std::istreambuf_iterator<char>(in), {});
  });
  const bool saved = text().save(wide("pipe.log"));
  reader.join();
  EXPECT_TRUE(saved);
  EXPECT_EQ(got, "one\ntwo\n");
  EXPECT_TRUE(fs::is_fifo(path("pipe")));
  EXPECT_TRUE(fs::is_symlink(path("pipe.log")));
  EXPECT_TRUE(temporaries().empty());
}

TEST_F(SafeSaveTest, HardLinksAllSeeTheNewText) {
  write("a.log", "a much longer old text than the new one\n");
  fs::create_hard_link(path("a.log"), path("b.log"));
  ASSERT_TRUE(text().save(wide("a.log")));
  EXPECT_EQ(read("b.log"), "one\ntwo\n");
  EXPECT_EQ(fs::hard_link_count(path("a.log")), 2u);
  EXPECT_TRUE(temporaries().empty());

  // A failed rewrite: the name saved to still gets the whole new text.
  zyl::testing::FaultyFileService faulty;
  zyl::testing::ScopedFileService use(&faulty);
  faulty.failNth(zyl::testing::FaultyFileService::kWrite, 2);  // the first is the temporary
  EXPECT_FALSE(text("three").save(wide("a.log")));
  EXPECT_EQ(read("a.log"), "three\ntwo\n");
  EXPECT_EQ(read("b.log"), "one\ntwo\n");
  EXPECT_TRUE(temporaries().empty());
}

TEST_F(SafeSaveTest, NamesThatAreNotUtf8KeepTheirBytes) {
  const std::string name = "bad\xff\xfe-\xc3(-\xe2\x82\xac.log";
  ASSERT_TRUE(text().save(wide(name)));
  EXPECT_EQ(read(name), "one\ntwo\n");
  TextFile back;
  ASSERT_TRUE(back.load(wide(name)));
  EXPECT_EQ(back[0], "one");
  EXPECT_TRUE(temporaries().empty());
}

// pathFromBytes agrees with the plain decoding on valid UTF-8 and gives
// every byte string back.
TEST(PathBytesTest, RoundTripsAnyBytesAndDecodesValidUtf8) {
  EXPECT_EQ(pathFromBytes("caf\xc3\xa9 \xf0\x9f\x8e\xac").view(), L"caf\u00e9 \U0001F3AC");
  EXPECT_EQ(pathFromBytes("a\x80\xc3").view(), L"a\xDC80\xDCC3");
  EXPECT_EQ(pathToBytes(LightweightString<wchar_t>(L"\xD800\xDC41")), "\xef\xbf\xbd\xef\xbf\xbd");
  std::mt19937 rng(7);
  const char pieces[][5] = {"a",    "\xc3\xa9",     "\xe2\x82\xac", "\xf0\x9f\x8e\xac", "\x80",
                            "\xc3", "\xed\xa0\x80", "\xf5",         "\xc0\xaf",         "/"};
  for (int i = 0; i < 2000; ++i) {
    std::string bytes;
    for (int n = rng() % 12; n > 0; --n) bytes += pieces[rng() % std::size(pieces)];
    EXPECT_EQ(pathToBytes(pathFromBytes(bytes)), bytes);
  }
}

// The memory-backed service saves and loads through the same safe save.
TEST(MemoryFileServiceTest, SavesAndLoadsWithoutTheDisk) {
  zyl::testing::MemoryFileService mem;
  zyl::testing::ScopedFileService use(&mem);
  mem.put(L"/mem/in.log", "x\ny\n");
  TextFile f;
  ASSERT_TRUE(f.load(L"/mem/in.log"));
  ASSERT_TRUE(f.save(L"/mem/out.log"));
  ASSERT_NE(mem.get(L"/mem/out.log"), nullptr);
  EXPECT_EQ(*mem.get(L"/mem/out.log"), "x\ny\n");
  EXPECT_EQ(mem.fileCount(), 2u);
  mem.failWritesUnder(L"/gone/");
  EXPECT_FALSE(f.save(L"/gone/out.log"));
  EXPECT_EQ(mem.fileCount(), 2u);
}

}  // namespace
