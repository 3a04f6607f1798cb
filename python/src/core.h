#pragma once

// The objects behind the Python classes Log, View and Record.
//
// A LogCore owns one table. Views (ViewCore) and records (RecordRef) hold a
// shared_ptr to the LogCore, so a table outlives every Python object that can
// reach it; Log.close() frees the table early, unbinding its views first, and
// from then on every object of that log raises ClosedError instead of
// touching freed memory.
//
// Records name a table record by pointer. A record pointer survives sorting
// but not deletion, so every change of the row set or order bumps the
// LogCore's generation; a RecordRef made in an older generation finds its
// row again (or learns that the record is gone) before it is used.
//
// Callbacks: Python functions registered for "recordsDeleted" and
// "recordsChanged" run inside library code. An exception they raise cannot
// pass through it, so it is kept in the LogCore and raised by the Python
// call that made the change, once the change is complete.
//
// Threads: the GIL is released while a table loads, saves, sorts or is
// searched. Those operations take gLibraryLock, because the library's sort
// state and log sink are process-wide; a log that is busy in one thread
// raises in another rather than being read mid-change.

#include <pybind11/pybind11.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/view/ODBView.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zylpy {

namespace py = pybind11;

extern std::mutex gLibraryLock;

// Raised by pybind11 as zyldb.ClosedError.
struct ClosedError {
  std::string message;
};
// Raised as zyldb.SaveError (an OSError).
struct SaveError {
  std::string message;
};
// Raised as zyldb.DeletedRecordError.
struct DeletedRecordError {
  std::string message;
};

struct ViewCore;

struct LogCore {
  Qm::Ptr<zyldb> table;
  std::string path;                    // as the user gave it; "" for a log built in memory
  bool incomplete = false;             // rows of the file did not load
  std::vector<int> sortFields{0, -1};  // the table's sort list lives here
  uint64_t generation = 0;
  std::atomic<int> busy{0};
  std::vector<std::weak_ptr<ViewCore>> views;
  std::vector<Qm::Ptr<iObject>> registrations;  // the table's own listeners
  std::optional<py::error_already_set> pending;

  ~LogCore();
  // Raises ClosedError when the table is gone, RuntimeError when another
  // thread is working on it.
  zyldb& use() const;
  // Frees the table after unbinding every view. Idempotent.
  void close();
  // Raises the first exception a callback raised since the last call.
  void raisePending();
  // Keeps the exception of a callback for raisePending.
  void keep(py::error_already_set& e);
  void changed() { ++generation; }
  // The table's column named `name` (ignoring case); KeyError when none.
  int column(const py::handle& name) const;
  // Registers a listener for every "recordsDeleted" of the table that bumps
  // the generation (deletions made by any view reach it).
  void watchDeletions();
};

// A Python call that releases the GIL and takes the library lock; marks the
// log busy meanwhile.
class Unlocked {
 public:
  explicit Unlocked(LogCore* core) : core_(core) {
    if (core_) core_->busy.fetch_add(1);
  }
  ~Unlocked() {
    if (core_) core_->busy.fetch_sub(1);
  }
  Unlocked(const Unlocked&) = delete;
  Unlocked& operator=(const Unlocked&) = delete;

 private:
  LogCore* core_;
  py::gil_scoped_release release_;
  std::lock_guard<std::mutex> lock_{gLibraryLock};
};

struct ViewCore {
  std::shared_ptr<LogCore> log;
  std::shared_ptr<ViewCore> base;  // the view this one is stacked on
  ODBView view;
  std::vector<Qm::Ptr<iObject>> registrations;

  ~ViewCore();
  ODBViewRep& use() const;
  void unbind();
};

// A row of a log or a view, followed through sorts and deletions by its
// record pointer.
struct RecordRef {
  std::shared_ptr<LogCore> log;
  std::shared_ptr<ViewCore> view;  // null for a row of the log itself
  dbrecord* record = nullptr;
  mutable unsigned int row = 0;
  mutable uint64_t generation = 0;

  // The record's current row; DeletedRecordError when it is gone.
  unsigned int locate() const;
  ODBBase& source() const;
};

// The column named `name` (ignoring case), or -1. The table's name index
// keeps a renamed column's old name as well; only current names count here.
int columnNumber(const zyldb& table, const std::string& name);

// Cell text to str (bytes that are not UTF-8 kept with surrogateescape) and
// back.
py::str toPython(const char* text, size_t size);
std::string fromPython(const py::handle& value);

// The keyword of a column type ("text", "timecode", ...), as the library
// parses it; the code character itself for a type without a keyword.
std::string typeKeyword(DBFieldTypes::eType type);
// The type of a keyword or code; ValueError for anything else.
DBFieldTypes::eType typeOf(const std::string& keyword);

// A new LogCore owning `table` (which gets the first parameter of a log when
// it has none), read from `path` ("" for none).
std::shared_ptr<LogCore> adoptTable(zyldb* table, std::string path);

// Raises zyldb.LoadError(message, path, line, [message]).
[[noreturn]] void raiseLoadError(const std::string& message, const std::string& path, int line);

void bindAll(py::module_& m);
// The interchange readers and writers and the audit.
void bindExtras(py::module_& m);

}  // namespace zylpy
