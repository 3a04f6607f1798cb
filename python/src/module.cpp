// The compiled part of the zyldb Python package: Log, View and Record over
// the library's table and views. The pure-Python layer (zyldb/__init__.py)
// adds open(), the pandas conversions and the parameter mapping.

#include <fcntl.h>
#include <pybind11/numpy.h>
#include <pybind11/stl.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/Notifier.h>
#include <zyldb/platform/TextFile.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/version.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <optional>

#include "LogFile.h"
#include "core.h"

namespace zylpy {

namespace {

using LogP = std::shared_ptr<LogCore>;
using ViewP = std::shared_ptr<ViewCore>;

// The Column named tuple, made once at import.
py::handle gColumnType;

// ---- Shared helpers ----------------------------------------------------------

// A Python index (negative counts from the end) as a row of `n` rows.
unsigned int rowIndex(py::ssize_t i, unsigned int n, const char* what) {
  py::ssize_t r = i < 0 ? i + static_cast<py::ssize_t>(n) : i;
  if (r < 0 || r >= static_cast<py::ssize_t>(n))
    throw py::index_error("row " + std::to_string(i) + " out of range (the " + what + " has " +
                          std::to_string(n) + (n == 1 ? " row)" : " rows)"));
  return static_cast<unsigned int>(r);
}

// `rows` as a list of valid rows: one int or an iterable of ints.
std::vector<unsigned int> rowList(const py::handle& rows, unsigned int n, const char* what) {
  std::vector<unsigned int> out;
  if (py::isinstance<py::int_>(rows)) {
    out.push_back(rowIndex(rows.cast<py::ssize_t>(), n, what));
    return out;
  }
  for (py::handle r : py::iter(rows)) {
    if (!py::isinstance<py::int_>(r)) throw py::type_error("rows are given as ints");
    out.push_back(rowIndex(r.cast<py::ssize_t>(), n, what));
  }
  return out;
}

int tagValue(const py::handle& value) {
  long v = py::isinstance<py::bool_>(value) ? (value.cast<bool>() ? 1 : 0) : value.cast<long>();
  if (v < 0 || v > 255) throw py::value_error("a tag is 0..255");
  return static_cast<int>(v);
}

// A mutating call must not come from a callback: the library is in the middle
// of the change that issued it.
struct ChangeGuard {
  explicit ChangeGuard(LogCore& core) {
    core.use();
    if (notifying > 0)
      throw std::runtime_error("a zyldb callback may read the log but not change it");
  }
  static int notifying;
};
int ChangeGuard::notifying = 0;

py::object columnTuple(const ODBBase& src, unsigned int c) {
  const char* name = src.get_fieldname(c);
  return gColumnType(toPython(name, std::strlen(name)), typeKeyword(src.get_field_type(c)),
                     src.get_fieldsize(c));
}

py::list columnsOf(const ODBBase& src) {
  py::list out;
  for (unsigned int c = 0; c < src.get_num_fields(); ++c) out.append(columnTuple(src, c));
  return out;
}

py::dict paramsOfTable(const zyldb& t) {
  py::dict out;
  for (unsigned int i = 0; i < t.getNumParams(); ++i) {
    const char* k = t.getParamName(i);
    const char* v = t.getParamValue(i);
    if (!k) continue;
    out[toPython(k, std::strlen(k))] = v ? toPython(v, std::strlen(v)) : py::str("");
  }
  return out;
}

// The table's query from {column: text}; KeyError for an unknown column.
void setQuery(LogCore& core, const py::dict& where) {
  zyldb& t = core.use();
  std::unique_ptr<dbrecord> query(t.make_dummy_record());
  std::vector<bool> named(t.get_num_fields(), false);
  for (auto item : where) {
    int c = core.column(item.first);
    if (named[static_cast<size_t>(c)])
      throw py::value_error("where names the column \"" + item.first.cast<std::string>() +
                            "\" twice; a query holds one text per column");
    named[static_cast<size_t>(c)] = true;
    query->set_field(c, fromPython(item.second).c_str(), true);
  }
  t.set_query(query.get());
}

// Runs a callback for a notification; an exception is kept for the caller.
int deliver(LogCore* core, const py::object& fn, const py::object& arg) {
  py::gil_scoped_acquire gil;
  ++ChangeGuard::notifying;
  try {
    fn(arg);
  } catch (py::error_already_set& e) {
    core->keep(e);
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
    py::error_already_set kept;
    core->keep(kept);
  }
  --ChangeGuard::notifying;
  return 0;
}

py::list rowsOfMessage(const NotifyMsg& msg) {
  py::list rows;
  for (NotifyMsgTokenIterator it(msg); !it.atEnd(); ++it) rows.append(it.asLong());
  return rows;
}

py::list idsOfMessage(const NotifyMsg& msg) {
  py::list ids;
  if (auto* payload = dynamic_cast<WrappedData<CookieVec>*>(msg.getObject()))
    for (const Cookie& c : payload->get()) {
      LightweightString<char> s = c.asString();
      ids.append(toPython(s.c_str(), s.size()));
    }
  return ids;
}

Qm::Ptr<iObject> listen(Notifier& notifier, LogCore* core, const char* type, py::function fn,
                        bool rows) {
  return notifier.addListener(type, [core, fn, rows](const NotifyMsg& msg) {
    py::gil_scoped_acquire gil;
    return deliver(core, fn, rows ? rowsOfMessage(msg) : idsOfMessage(msg));
  });
}

// Every column's cells as numpy object arrays of str. A cell equal to the one
// above it shares its str object, which saves most of the conversions in a
// typical log (reels, scenes, people, tags repeat).
py::list columnArrays(const ODBBase& src) {
  const unsigned int n = src.get_num_records();
  const unsigned int k = src.get_num_fields();
  std::vector<const dbrecord*> records(n);
  for (unsigned int r = 0; r < n; ++r) records[r] = src.get_record(r);
  py::list out;
  for (unsigned int c = 0; c < k; ++c) {
    py::array column(py::dtype("O"), std::vector<py::ssize_t>{static_cast<py::ssize_t>(n)});
    auto** slots = static_cast<PyObject**>(column.mutable_data());
    PyObject* previous = nullptr;
    const char* prevText = nullptr;
    size_t prevSize = 0;
    for (unsigned int r = 0; r < n; ++r) {
      static const LightweightString<char> kEmpty;
      const LightweightString<char>& cell =
          records[r] ? records[r]->getField(static_cast<unsigned short>(c)) : kEmpty;
      const char* text = cell.c_str();
      const size_t size = cell.size();
      PyObject* value;
      if (previous && size == prevSize && std::memcmp(text, prevText, size) == 0) {
        value = previous;
        Py_INCREF(value);
      } else {
        value = PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(size), "surrogateescape");
        if (!value) throw py::error_already_set();
        previous = value;
        prevText = text;
        prevSize = size;
      }
      PyObject* old = slots[r];
      slots[r] = value;
      Py_XDECREF(old);
    }
    out.append(column);
  }
  return out;
}

py::list rowsOf(const ODBBase& src) {
  const unsigned int n = src.get_num_records();
  const unsigned int k = src.get_num_fields();
  py::list out(n);
  for (unsigned int r = 0; r < n; ++r) {
    const dbrecord* rec = src.get_record(r);
    py::list row(k);
    for (unsigned int c = 0; c < k; ++c) {
      const LightweightString<char>& cell = rec->getField(static_cast<unsigned short>(c));
      row[c] = toPython(cell.c_str(), cell.size());
    }
    out[r] = row;
  }
  return out;
}

// ---- Log ---------------------------------------------------------------------------

std::vector<DBFieldDesc> columnSpecs(const py::iterable& columns) {
  std::vector<DBFieldDesc> descs;
  for (py::handle column : columns) {
    DBFieldDesc d;
    if (py::isinstance<py::str>(column)) {
      d.name = LightweightString<char>(fromPython(column));
      d.type = DBFieldTypes::text;
    } else {
      py::sequence seq = py::reinterpret_borrow<py::sequence>(column);
      if (seq.size() < 1) throw py::value_error("a column is a name or (name, type)");
      d.name = LightweightString<char>(fromPython(seq[0]));
      d.type = seq.size() > 1 ? typeOf(fromPython(seq[1])) : DBFieldTypes::text;
    }
    if (d.name.empty()) throw py::value_error("a column needs a name");
    for (const DBFieldDesc& e : descs)
      if (strcasecmp(e.name.c_str(), d.name.c_str()) == 0)
        throw py::value_error("two columns are named \"" + d.name.toStdString() + "\"");
    descs.push_back(d);
  }
  return descs;
}

LogP newLog(const py::iterable& columns) {
  std::vector<DBFieldDesc> descs = columnSpecs(columns);
  return adoptTable(new zyldb(descs), "");
}

// The number of lines of the file at `path` holding more than blanks, or -1
// when it cannot be read; its first `keep` lines go to `head`. One pass over
// the mapped file.
long nonBlankLines(const std::string& path, size_t keep, std::vector<std::string>& head) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return -1;
  }
  const size_t size = static_cast<size_t>(st.st_size);
  if (size == 0) {
    ::close(fd);
    return 0;
  }
  void* map = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  ::close(fd);
  if (map == MAP_FAILED) return -1;
  const char* p = static_cast<const char*>(map);
  const char* end = p + size;
  long lines = 0;
  while (p < end) {
    const char* eol = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
    if (!eol) eol = end;
    if (head.size() < keep) head.emplace_back(p, static_cast<size_t>(eol - p));
    for (const char* c = p; c < eol; ++c)
      if (*c != ' ' && *c != '\t' && *c != '\r') {
        ++lines;
        break;
      }
    p = eol + 1;
  }
  ::munmap(map, size);
  return lines;
}

// The quick way to open a well-formed log: load it and check that every line
// of the file became a parameter, header or row line. Null when anything
// else happened; the full diagnosis then reads the file again.
zyldb* openClean(const std::string& path) {
  std::optional<zyl::cli::Format> format = zyl::cli::formatFromExtension(path);
  if (format && *format != zyl::cli::Format::log) return nullptr;
  bool logged = false;
  zyl::LogSink previous = zyl::setLogSink([&logged](zyl::LogLevel, const char*) { logged = true; });
  std::unique_ptr<zyldb> table(new zyldb(fromUTF8(LightweightString<char>(path)), INT_MAX, true));
  zyl::setLogSink(previous);
  dberror e;
  if (logged || !table->get_valid() || table->read_error_info(e) || table->getRevision() != 1 ||
      table->get_num_fields() == 0)
    return nullptr;
  // The parameter lines, then the terminator, widths, types and names lines.
  const long expected =
      static_cast<long>(table->getNumParams()) + 4 + static_cast<long>(table->get_num_records());
  const size_t typesLine = table->getNumParams() + 2;
  std::vector<std::string> head;
  if (table->getNumParams() >= zyldb::kMaxParams ||
      nonBlankLines(path, typesLine + 1, head) != expected || head.size() <= typesLine)
    return nullptr;
  // A type keyword the library does not know is read as text; the
  // diagnosis warns about it.
  TextFile types;
  types.appendLine(std::string_view(head[typesLine]));
  types.currentLine = 0;
  dbrecord keywords;
  if (keywords.read(types) != static_cast<int>(table->get_num_fields())) return nullptr;
  for (unsigned int c = 0; c < table->get_num_fields(); ++c)
    if (zyldb_string_to_fieldtype(keywords.get_field(static_cast<unsigned short>(c))) ==
        DBFieldTypes::none)
      return nullptr;
  return table.release();
}

// Loads a log; returns (log or None, [(line, text, message)], incomplete).
py::tuple openFile(const std::string& path) {
  zyl::cli::OpenLog result;
  zyldb* clean = nullptr;
  {
    Unlocked unlocked(nullptr);
    clean = openClean(path);
    if (!clean) result = zyl::cli::openLog(path);
  }
  if (clean) return py::make_tuple(adoptTable(clean, path), py::list(), false);
  py::list problems;
  for (const zyl::cli::Problem& p : result.problems)
    problems.append(py::make_tuple(p.line, p.text, result.describe(p)));
  if (result.failed()) return py::make_tuple(py::none(), problems, true);
  LogP core = adoptTable(result.table.get(), path);
  core->incomplete = result.incomplete;
  return py::make_tuple(core, problems, result.incomplete);
}

void appendRows(LogCore& core, const py::iterable& rows) {
  ChangeGuard guard(core);
  zyldb& t = *core.table;
  const unsigned int k = t.get_num_fields();
  for (py::handle row : rows) {
    const unsigned int r = static_cast<unsigned int>(t.add_records(1));
    dbrecord* rec = t.get_record(r);
    if (py::isinstance<py::dict>(row) || py::hasattr(row, "keys")) {
      for (py::handle key : row.attr("keys")())
        rec->setField(static_cast<unsigned short>(core.column(key)),
                      LightweightString<char>(fromPython(row[key])));
    } else {
      py::sequence seq = py::reinterpret_borrow<py::sequence>(row);
      if (seq.size() > k) {
        t.delete_records(r, 1);
        throw py::value_error("a row has " + std::to_string(seq.size()) + " values, the log has " +
                              std::to_string(k) + " columns");
      }
      for (size_t c = 0; c < seq.size(); ++c)
        rec->setField(static_cast<unsigned short>(c), LightweightString<char>(fromPython(seq[c])));
    }
  }
}

// Appends len(columns[0]) rows from one sequence of cells per column.
void appendColumns(LogCore& core, const py::list& columns) {
  ChangeGuard guard(core);
  zyldb& t = *core.table;
  if (columns.size() != t.get_num_fields())
    throw py::value_error("one sequence per column is needed");
  std::vector<py::object> fast;
  Py_ssize_t n = -1;
  for (py::handle col : columns) {
    PyObject* f = PySequence_Fast(col.ptr(), "a column's cells are a sequence");
    if (!f) throw py::error_already_set();
    fast.push_back(py::reinterpret_steal<py::object>(f));
    Py_ssize_t size = PySequence_Fast_GET_SIZE(f);
    if (n >= 0 && size != n) throw py::value_error("the columns differ in length");
    n = size;
  }
  if (n <= 0) return;
  const unsigned int first = static_cast<unsigned int>(t.add_records(static_cast<int>(n)));
  for (size_t c = 0; c < fast.size(); ++c) {
    PyObject** items = PySequence_Fast_ITEMS(fast[c].ptr());
    for (Py_ssize_t i = 0; i < n; ++i) {
      PyObject* v = items[i];
      if (v == Py_None || (PyFloat_Check(v) && PyFloat_AS_DOUBLE(v) != PyFloat_AS_DOUBLE(v)))
        continue;  // None and NaN are empty cells
      t.get_record(first + static_cast<unsigned int>(i))
          ->setField(static_cast<unsigned short>(c), LightweightString<char>(fromPython(v)));
    }
  }
}

int saveLog(LogCore& core, const py::object& path, bool force) {
  ChangeGuard guard(core);
  zyldb& t = *core.table;
  if (core.incomplete && !force)
    throw SaveError{"not saving: rows of " + core.path +
                    " did not load, and saving would lose them (save(force=True) saves anyway)"};
  std::string target = path.is_none() ? core.path : py::str(path).cast<std::string>();
  if (target.empty()) throw py::value_error("the log has no file name: give save() a path");
  if (!path.is_none()) t.set_filename(fromUTF8(LightweightString<char>(target)));
  int written;
  int error;
  {
    Unlocked unlocked(&core);
    errno = 0;
    written = t.save_text();
    error = errno;
  }
  if (written == 0 && (t.get_num_records() > 0 || !std::filesystem::exists(target)))
    throw SaveError{target + ": could not be written" +
                    (error ? std::string(": ") + std::strerror(error) : std::string())};
  if (!path.is_none()) {
    core.path = target;
    core.incomplete = false;
  }
  return written;
}

// Sets the table's sort list from `by` (a name or names); the caller sorts.
void setSortColumns(LogCore& core, const py::object& by) {
  ChangeGuard guard(core);
  std::vector<int> fields;
  if (py::isinstance<py::str>(by)) {
    fields.push_back(core.column(by));
  } else {
    for (py::handle name : py::iter(by)) fields.push_back(core.column(name));
  }
  if (fields.empty()) throw py::value_error("sort needs at least one column");
  fields.push_back(-1);
  core.sortFields = std::move(fields);
  zyldb& t = *core.table;
  t.set_sortfields(core.sortFields.data());
  core.changed();
}

std::vector<unsigned int> findRows(LogCore& core, const py::dict& where) {
  setQuery(core, where);
  zyldb& t = *core.table;
  std::vector<unsigned int> rows;
  Unlocked unlocked(&core);
  for (unsigned int r = 0; r < t.get_num_records(); ++r)
    if (t.match_record(static_cast<int>(r)) != 0) rows.push_back(r);
  return rows;
}

// ---- View ---------------------------------------------------------------------------

ViewP newView(const LogP& core, const ViewP& base) {
  zyldb& t = core->use();
  auto v = std::make_shared<ViewCore>();
  v->log = core;
  v->base = base;
  v->view = ODBView(new ODBViewRep(&t));
  if (base) v->view->baseView(base->view.rep());
  if (*v->view->get_param_val("ZYLDB") == '\0') v->view->set_param_val("ZYLDB", "Rev 1");
  v->view->displayAllRecords();
  v->view->tagAll(false);
  core->views.push_back(v);
  return v;
}

std::vector<unsigned int> findViewRows(ViewCore& v, const py::dict& where) {
  ODBViewRep& rep = v.use();
  setQuery(*v.log, where);
  zyldb& t = *v.log->table;
  std::vector<unsigned int> rows;
  Unlocked unlocked(v.log.get());
  const int n = static_cast<int>(rep.get_num_records());
  for (int i = 0; i < n; ++i)
    if (t.match_record(rep.baseIndex(i)) != 0) rows.push_back(static_cast<unsigned int>(i));
  return rows;
}

// ---- Record ---------------------------------------------------------------------------

RecordRef recordAt(const LogP& core, const ViewP& view, py::ssize_t i) {
  ODBBase& src = view ? static_cast<ODBBase&>(view->use()) : core->use();
  unsigned int r = rowIndex(i, src.get_num_records(), view ? "view" : "log");
  RecordRef ref;
  ref.log = core;
  ref.view = view;
  ref.record = src.get_record(r);
  ref.row = r;
  ref.generation = core->generation;
  return ref;
}

unsigned int recordColumn(const RecordRef& ref, const py::handle& key) {
  ref.locate();
  if (py::isinstance<py::int_>(key)) {
    py::ssize_t i = key.cast<py::ssize_t>();
    const py::ssize_t k = static_cast<py::ssize_t>(ref.log->table->get_num_fields());
    if (i < 0) i += k;
    if (i < 0 || i >= k)
      throw py::index_error("column " + std::to_string(key.cast<py::ssize_t>()) +
                            " out of range (the log has " + std::to_string(k) + " columns)");
    return static_cast<unsigned int>(i);
  }
  return static_cast<unsigned int>(ref.log->column(key));
}

py::str cellOf(const RecordRef& ref, unsigned int c) {
  const LightweightString<char>& cell = ref.record->getField(static_cast<unsigned short>(c));
  return toPython(cell.c_str(), cell.size());
}

py::list recordKeys(const RecordRef& ref) {
  ref.locate();
  const zyldb& t = *ref.log->table;
  py::list out;
  for (unsigned int c = 0; c < t.get_num_fields(); ++c) {
    const char* name = t.get_fieldname(c);
    out.append(toPython(name, std::strlen(name)));
  }
  return out;
}

// ---- Row iteration ----------------------------------------------------------------------

struct RowIterator {
  LogP log;
  ViewP view;
  py::ssize_t next = 0;
};

}  // namespace

std::shared_ptr<LogCore> adoptTable(zyldb* table, std::string path) {
  auto core = std::make_shared<LogCore>();
  core->table = Qm::Ptr<zyldb>(table);
  core->path = std::move(path);
  // A log built in memory or read from comma-separated text has no
  // parameters; the first one of a log file makes it saveable as a log.
  const char* magic = core->table->get_param_val("ZYLDB");
  if (magic == nullptr || *magic == '\0') core->table->add_param("ZYLDB", "Rev 1");
  core->watchDeletions();
  return core;
}

void bindAll(py::module_& m) {
  m.doc() =
      "zyldb: clip logs for film and video post-production (compiled core; use the zyldb "
      "package).";
  m.attr("__version__") = ZYLDB_VERSION_STRING;
  py::object namedtuple = py::module_::import("collections").attr("namedtuple");
  py::object column = namedtuple("Column", py::make_tuple("name", "type", "width"));
  column.attr("__module__") = "zyldb";
  column.attr("__doc__") =
      "A column of a log: its name, its type keyword (\"text\", \"timecode\", ...) and its "
      "width, the length of its longest cell.";
  m.attr("Column") = column;
  gColumnType = column.inc_ref();

  static py::exception<ClosedError> closedError(m, "ClosedError", PyExc_ValueError);
  static py::exception<DeletedRecordError> deletedError(m, "DeletedRecordError", PyExc_LookupError);
  static py::exception<SaveError> saveError(m, "SaveError", PyExc_OSError);
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const ClosedError& e) {
      PyErr_SetString(closedError.ptr(), e.message.c_str());
    } catch (const DeletedRecordError& e) {
      PyErr_SetString(deletedError.ptr(), e.message.c_str());
    } catch (const SaveError& e) {
      PyErr_SetString(saveError.ptr(), e.message.c_str());
    }
  });

  m.def("_open", &openFile, py::arg("path"));
  // For bench/python_bench.py: the seconds the plain C++ load of `path` takes
  // (the table constructor alone), timed in C++.
  m.def("_time_cpp_load", [](const std::string& path) {
    Unlocked unlocked(nullptr);
    const auto start = std::chrono::steady_clock::now();
    zyldb table(fromUTF8(LightweightString<char>(path)), INT_MAX, false);
    const auto loaded = std::chrono::steady_clock::now();
    if (!table.get_valid()) throw std::runtime_error(path + ": not a log");
    return std::chrono::duration<double>(loaded - start).count();
  });

  py::class_<RowIterator>(m, "_RowIterator")
      .def("__iter__", [](RowIterator& it) -> RowIterator& { return it; })
      .def("__next__", [](RowIterator& it) {
        ODBBase& src = it.view ? static_cast<ODBBase&>(it.view->use()) : it.log->use();
        if (it.next >= static_cast<py::ssize_t>(src.get_num_records())) throw py::stop_iteration();
        return recordAt(it.log, it.view, it.next++);
      });

  // ---- Record
  py::class_<RecordRef>(m, "Record", R"doc(One row of a log or a view, read like a mapping.

rec["Scene"] is the cell of column "Scene" (names ignore case; an unknown name
raises KeyError; an int indexes the columns). rec.get(name, default), keys(),
values(), items(), len(rec), "Scene" in rec and dict(rec) work as for a dict.
rec["Notes"] = "text" stores a value. rec.tag is the row's tag (a log's own tag,
or the view's tag for a row of a view); rec.row its current row number.

A record follows its row through sorting; once the row is deleted, using the
record raises DeletedRecordError.)doc")
      .def("__getitem__", [](const RecordRef& r,
                             const py::handle& key) { return cellOf(r, recordColumn(r, key)); })
      .def("__setitem__",
           [](const RecordRef& r, const py::handle& key, const py::handle& value) {
             ChangeGuard guard(*r.log);
             unsigned int c = recordColumn(r, key);
             r.record->setField(static_cast<unsigned short>(c),
                                LightweightString<char>(fromPython(value)));
           })
      .def(
          "get",
          [](const RecordRef& r, const py::handle& key, const py::object& fallback) -> py::object {
            r.locate();
            if (py::isinstance<py::str>(key)) {
              std::string name = key.cast<std::string>();
              int c = columnNumber(*r.log->table, name);
              if (c < 0) return fallback;
              return cellOf(r, static_cast<unsigned int>(c));
            }
            return cellOf(r, recordColumn(r, key));
          },
          py::arg("key"), py::arg("default") = py::none(),
          "The cell of the column, or `default` when the log has no such column.")
      .def("keys", &recordKeys, "The column names, in column order.")
      .def(
          "values",
          [](const RecordRef& r) {
            r.locate();
            py::list out;
            for (unsigned int c = 0; c < r.log->table->get_num_fields(); ++c)
              out.append(cellOf(r, c));
            return out;
          },
          "The cells, in column order.")
      .def(
          "items",
          [](const RecordRef& r) {
            py::list keys = recordKeys(r);
            py::list out;
            for (size_t c = 0; c < keys.size(); ++c)
              out.append(py::make_tuple(keys[c], cellOf(r, static_cast<unsigned int>(c))));
            return out;
          },
          "(name, cell) pairs, in column order.")
      .def("__iter__", [](const RecordRef& r) { return py::iter(recordKeys(r)); })
      .def("__len__",
           [](const RecordRef& r) {
             r.locate();
             return r.log->table->get_num_fields();
           })
      .def("__contains__",
           [](const RecordRef& r, const py::handle& key) {
             r.locate();
             if (!py::isinstance<py::str>(key)) return false;
             std::string name = key.cast<std::string>();
             return columnNumber(*r.log->table, name) >= 0;
           })
      .def_property(
          "tag",
          [](const RecordRef& r) {
            unsigned int row = r.locate();
            return r.view ? (r.view->view->tag(static_cast<int>(row)) ? 1 : 0)
                          : static_cast<int>(r.record->getTag());
          },
          [](const RecordRef& r, const py::handle& value) {
            ChangeGuard guard(*r.log);
            unsigned int row = r.locate();
            r.source().set_tag(row, tagValue(value));
          },
          "The row's tag: 0 untagged, non-zero tagged.")
      .def_property_readonly(
          "row", [](const RecordRef& r) { return r.locate(); },
          "The record's current row number in its log or view.")
      .def("__repr__", [](const RecordRef& r) {
        unsigned int row = r.locate();
        py::dict d;
        py::list keys = recordKeys(r);
        for (size_t c = 0; c < keys.size(); ++c)
          d[keys[c]] = cellOf(r, static_cast<unsigned int>(c));
        return "<zyldb.Record row " + std::to_string(row) + " " +
               std::string(py::str(py::repr(d))) + ">";
      });

  // ---- Log
  py::class_<LogCore, LogP>(m, "Log",
                            R"doc(A clip log: an ordered table of records with named, typed columns.

Open one with zyldb.open(path) or build one with Log(columns),
Log.from_rows(columns, rows) or Log.from_pandas(df). len(log), log[i] (a
Record; negative i counts from the end; IndexError past the end) and
iteration give its rows. Sorting, searching and tagging act on the log's own
rows; log.view() gives a View, an ordered selection sharing the records.

A closed log (log.close(), or the end of a with block) raises ClosedError on
any use, as do its views and records.)doc")
      .def(py::init(&newLog), py::arg("columns"),
           "An empty log with `columns`: names, or (name, type keyword) pairs.")
      .def("__len__", [](const LogCore& c) { return c.use().get_num_records(); })
      .def(
          "__getitem__", [](const LogP& c, py::ssize_t i) { return recordAt(c, nullptr, i); },
          py::arg("row"))
      .def(
          "__getitem__",
          [](const LogP& c, const py::slice& s) {
            size_t start, stop, step, length;
            if (!s.compute(c->use().get_num_records(), &start, &stop, &step, &length))
              throw py::error_already_set();
            py::list out;
            for (size_t i = 0; i < length; ++i)
              out.append(recordAt(c, nullptr, static_cast<py::ssize_t>(start + i * step)));
            return out;
          },
          py::arg("rows"))
      .def(
          "__delitem__",
          [](LogCore& c, py::ssize_t i) {
            ChangeGuard guard(c);
            unsigned int r = rowIndex(i, c.table->get_num_records(), "log");
            c.table->delete_records(r, 1);
            c.changed();
            c.raisePending();
          },
          py::arg("row"))
      .def("__iter__",
           [](const LogP& c) {
             c->use();
             return RowIterator{c, nullptr, 0};
           })
      .def_property_readonly(
          "columns", [](const LogCore& c) { return columnsOf(c.use()); },
          "The columns as Column(name, type, width) tuples, in order.")
      .def_property_readonly(
          "path",
          [](const LogCore& c) {
            return c.path.empty() ? py::object(py::none()) : py::str(c.path);
          },
          "The file the log was read from or last saved to; None for a log built in memory.")
      .def_property_readonly(
          "incomplete", [](const LogCore& c) { return c.incomplete; },
          "True when rows of the file did not load (see zyldb.open(strict=False)).")
      .def_property_readonly(
          "closed", [](const LogCore& c) { return !c.table; }, "True after close().")
      .def("_params", [](const LogCore& c) { return paramsOfTable(c.use()); })
      .def("_set_param",
           [](LogCore& c, const std::string& name, const py::handle& value) {
             ChangeGuard guard(c);
             std::string v = fromPython(value);
             if (name.empty() || name.find('\0') != std::string::npos)
               throw py::value_error("a parameter needs a name");
             if (c.table->add_param(name.c_str(), v.c_str()) != 0)
               throw py::value_error("the log cannot hold more parameters (at most " +
                                     std::to_string(zyldb::kMaxParams) + ")");
           })
      .def(
          "save", &saveLog, py::arg("path") = py::none(), py::arg("force") = false,
          R"doc(Writes the log to `path` (default: its own file) and returns the number of rows written.

The file is replaced in one step: a failed save leaves the old file intact and
raises SaveError. Giving a path makes it the log's file. A log opened with
strict=False that lost rows refuses to save unless force=True. The GIL is
released while the file is written.)doc")
      .def(
          "sort",
          [](LogCore& c, const py::object& by, bool descending) {
            setSortColumns(c, by);
            zyldb& t = *c.table;
            Unlocked unlocked(&c);
            t.sort(descending ? -1 : 1, 0);
          },
          py::arg("by"), py::arg("descending") = false,
          R"doc(Sorts the rows on the columns named in `by` (a name or a list of names).

Ascending order is the log's own: timecode columns compare as timecodes,
numbers inside text in natural order ("12A" after "12", "9" before "10"),
empty cells last; rows that compare equal keep their order. Descending order
compares the cells as plain text, ignoring case. KeyError for an unknown
column. Records already taken follow their rows. Releases the GIL.)doc")
      .def(
          "find", [](LogCore& c, const py::dict& where) { return findRows(c, where); },
          py::arg("where"),
          R"doc(The rows matching every {column: text} of `where`, in row order.

A cell matches when it contains the text, ignoring case (timecodes ignore
their separators). The start and end columns of a label pair ("Start time",
"start keycode", ...) match when the label lies within the row's start..end
range. An empty `where` matches every row. KeyError for an unknown column.
Releases the GIL.)doc")
      .def(
          "tag",
          [](LogCore& c, const py::object& rows, const py::handle& value) {
            ChangeGuard guard(c);
            int v = tagValue(value);
            for (unsigned int r : rowList(rows, c.table->get_num_records(), "log"))
              c.table->set_tag(r, v);
          },
          py::arg("rows"), py::arg("value") = 1,
          "Sets the tag of a row or of each row of an iterable (1 tags, 0 untags).")
      .def(
          "tagged",
          [](LogCore& c) {
            zyldb& t = c.use();
            std::vector<unsigned int> out;
            for (unsigned int r = 0; r < t.get_num_records(); ++r)
              if (t.get_record(r)->getTag() != 0) out.push_back(r);
            return out;
          },
          "The tagged rows, in row order.")
      .def(
          "clear_tags",
          [](LogCore& c) {
            ChangeGuard guard(c);
            c.table->set_all_tags(0);
          },
          "Untags every row.")
      .def(
          "delete_tagged",
          [](LogCore& c) {
            ChangeGuard guard(c);
            int n = c.table->delete_tagged_records();
            c.changed();
            c.raisePending();
            return n;
          },
          "Deletes the rows tagged 1 and returns how many; every view drops them too.")
      .def(
          "add_column",
          [](LogCore& c, const std::string& name, const std::string& type) {
            ChangeGuard guard(c);
            if (name.empty() || name.find('\0') != std::string::npos)
              throw py::value_error("a column needs a name");
            if (columnNumber(*c.table, name) >= 0)
              throw py::value_error("the log already has a column \"" + name + "\"");
            DBFieldDesc d{LightweightString<char>(name), typeOf(type)};
            int col = c.table->addField(d);
            if (columnNumber(*c.table, name) != col)
              throw py::value_error(
                  "the log cannot add a column named as a column renamed "
                  "before (\"" +
                  name + "\")");
            return columnTuple(*c.table, static_cast<unsigned int>(col));
          },
          py::arg("name"), py::arg("type") = "text",
          "Appends an empty column and returns it; ValueError when the name is taken.")
      .def(
          "remove_column",
          [](LogCore& c, const py::str& name) {
            ChangeGuard guard(c);
            int col = c.column(name);
            c.table->removeField(LightweightString<char>(c.table->get_fieldname(col)));
          },
          py::arg("name"), "Removes a column and its cells; KeyError when there is none.")
      .def(
          "rename_column",
          [](LogCore& c, const py::str& name, const std::string& newName) {
            ChangeGuard guard(c);
            int col = c.column(name);
            if (newName.empty() || newName.find('\0') != std::string::npos)
              throw py::value_error("a column needs a name");
            int other = columnNumber(*c.table, newName);
            if (other >= 0 && other != col)
              throw py::value_error("the log already has a column \"" + newName + "\"");
            c.table->set_fieldname(static_cast<unsigned int>(col), newName.c_str());
          },
          py::arg("name"), py::arg("new_name"), "Renames a column; KeyError when there is none.")
      .def(
          "merge",
          [](LogCore& c, LogCore& other) {
            ChangeGuard guard(c);
            zyldb& src = other.use();
            if (&other == &c) throw py::value_error("a log cannot be merged into itself");
            unsigned int before = c.table->get_num_records();
            if (c.table->merge_all_matching(&src) == 0)
              throw py::value_error("the logs have no column name in common");
            return c.table->get_num_records() - before;
          },
          py::arg("other"),
          R"doc(Appends copies of `other`'s rows, filling the columns whose names match.

Timecodes are converted between the two timecode forms; other columns stay
empty. Returns the number of rows appended; ValueError when no column name
matches.)doc")
      .def("_append_rows", &appendRows)
      .def("_append_columns", &appendColumns)
      .def("_column_arrays", [](LogCore& c) { return columnArrays(c.use()); })
      .def(
          "to_rows", [](LogCore& c) { return rowsOf(c.use()); },
          "Every row as a list of its cells (str), in row and column order.")
      .def(
          "view", [](const LogP& c) { return newView(c, nullptr); },
          "A new View showing every row of the log in its current order, untagged.")
      .def(
          "on_deleted",
          [](LogCore& c, py::function fn) {
            c.registrations.push_back(listen(c.use(), &c, "recordsDeleted", fn, true));
          },
          py::arg("callback"),
          R"doc(Calls callback(rows) for every "recordsDeleted" message of the log.

The log sends one message per run of deleted rows; `rows` lists the deleted
row numbers as they stood. See View.on_deleted for errors raised by the
callback.)doc")
      .def(
          "on_changed",
          [](LogCore& c, py::function fn) {
            c.registrations.push_back(listen(c.use(), &c, "recordsChanged", fn, false));
          },
          py::arg("callback"),
          "Calls callback(ids) for every \"recordsChanged\" message of the log; `ids` are the "
          "changed records' identifiers (their \"Cookie\" cells).")
      .def(
          "close",
          [](LogCore& c) {
            if (ChangeGuard::notifying > 0)
              throw std::runtime_error("a zyldb callback may not close the log");
            c.close();
          },
          "Frees the log; its views and records raise ClosedError from then on.")
      .def("__enter__", [](const LogP& c) { return c; })
      .def("__exit__", [](LogCore& c, py::args) { c.close(); })
      .def("__repr__", [](const LogCore& c) {
        if (!c.table) return std::string("<zyldb.Log closed>");
        return "<zyldb.Log " + (c.path.empty() ? std::string("in memory") : "'" + c.path + "'") +
               ": " + std::to_string(c.table->get_num_records()) + " rows, " +
               std::to_string(c.table->get_num_fields()) + " columns>";
      });

  // ---- View
  py::class_<ViewCore, ViewP>(m, "View",
                              R"doc(An ordered selection of a log's rows, sharing its records.

Made by log.view() (every row) or view.view() (a view stacked on this one).
Rows are accessed like a log's: len(view), view[i], iteration. Sorting and
tags are the view's own and leave the log's order and tags alone; editing a
cell edits the log's record; view.delete_tagged() deletes the records from
the log, and every view of the log (stacked ones included) drops them.

A view keeps its log alive; after log.close() it raises ClosedError.)doc")
      .def("__len__", [](const ViewCore& v) { return v.use().get_num_records(); })
      .def(
          "__getitem__", [](const ViewP& v, py::ssize_t i) { return recordAt(v->log, v, i); },
          py::arg("row"))
      .def(
          "__delitem__",
          [](ViewCore& v, py::ssize_t i) {
            ODBViewRep& rep = v.use();
            ChangeGuard guard(*v.log);
            unsigned int r = rowIndex(i, rep.get_num_records(), "view");
            rep.deleteRecords(static_cast<int>(r), 1);
            v.log->changed();
            v.log->raisePending();
          },
          py::arg("row"), "Deletes the row's record from the log.")
      .def("__iter__",
           [](const ViewP& v) {
             v->use();
             return RowIterator{v->log, v, 0};
           })
      .def_property_readonly(
          "log", [](const ViewCore& v) { return v.log; }, "The log the view shows rows of.")
      .def_property_readonly(
          "columns", [](const ViewCore& v) { return columnsOf(v.use()); },
          "The log's columns, as Log.columns.")
      .def("_params",
           [](const ViewCore& v) {
             py::dict out;
             for (const AssocList::Entry& e : v.use().params())
               out[toPython(e.key.c_str(), e.key.size())] =
                   toPython(e.value.c_str(), e.value.size());
             return out;
           })
      .def("_set_param",
           [](ViewCore& v, const std::string& name, const py::handle& value) {
             ODBViewRep& rep = v.use();
             ChangeGuard guard(*v.log);
             if (name.empty() || name.find('\0') != std::string::npos)
               throw py::value_error("a parameter needs a name");
             rep.set_param_val(name.c_str(), fromPython(value).c_str());
           })
      .def(
          "sort",
          [](ViewCore& v, const py::object& by, bool descending) {
            ODBViewRep& rep = v.use();
            setSortColumns(*v.log, by);
            Unlocked unlocked(v.log.get());
            rep.sort(descending ? -1 : 1, 0);
          },
          py::arg("by"), py::arg("descending") = false,
          "Sorts the view's rows (and their tags) on the named columns, as Log.sort orders; "
          "the log's order is unchanged. Releases the GIL.")
      .def(
          "find", [](ViewCore& v, const py::dict& where) { return findViewRows(v, where); },
          py::arg("where"),
          "The view rows matching `where`, as Log.find matches. Releases the GIL.")
      .def(
          "tag",
          [](ViewCore& v, const py::object& rows, const py::handle& value) {
            ODBViewRep& rep = v.use();
            ChangeGuard guard(*v.log);
            int t = tagValue(value);
            for (unsigned int r : rowList(rows, rep.get_num_records(), "view")) rep.set_tag(r, t);
          },
          py::arg("rows"), py::arg("value") = 1,
          "Sets the view's tag of a row or of each row of an iterable (a view's tags are 0 or 1).")
      .def(
          "tagged",
          [](ViewCore& v) {
            ODBViewRep& rep = v.use();
            std::vector<unsigned int> out;
            for (int r = 0; r < static_cast<int>(rep.get_num_records()); ++r)
              if (rep.tag(r)) out.push_back(static_cast<unsigned int>(r));
            return out;
          },
          "The view rows tagged in the view.")
      .def(
          "clear_tags",
          [](ViewCore& v) {
            ODBViewRep& rep = v.use();
            ChangeGuard guard(*v.log);
            rep.tagAll(false);
          },
          "Untags every row of the view.")
      .def(
          "delete_tagged",
          [](ViewCore& v) {
            ODBViewRep& rep = v.use();
            ChangeGuard guard(*v.log);
            int n = rep.deleteTagged();
            v.log->changed();
            v.log->raisePending();
            return n;
          },
          "Deletes the records of the view's tagged rows from the log; returns how many.")
      .def(
          "remove",
          [](ViewCore& v, const py::object& rows) {
            ODBViewRep& rep = v.use();
            ChangeGuard guard(*v.log);
            std::vector<unsigned int> list = rowList(rows, rep.get_num_records(), "view");
            std::sort(list.begin(), list.end());
            list.erase(std::unique(list.begin(), list.end()), list.end());
            for (auto it = list.rbegin(); it != list.rend(); ++it)
              rep.remove(static_cast<int>(*it), 1);
            v.log->changed();
            v.log->raisePending();
          },
          py::arg("rows"),
          "Drops a row or the rows of an iterable from this view only (and from the views "
          "stacked on it); the log keeps the records.")
      .def(
          "view", [](const ViewP& v) { return newView(v->log, v); },
          "A new View stacked on this one, showing all its rows in its order, untagged.")
      .def(
          "to_log",
          [](ViewCore& v) {
            ODBViewRep& rep = v.use();
            zyldb* t = Convert_ODBView_to_zyldb(v.view);
            if (!t) throw std::runtime_error("the view's rows could not be copied");
            (void)rep;
            return adoptTable(t, "");
          },
          "A new Log holding copies of the view's rows in view order.")
      .def(
          "save",
          [](ViewCore& v, const std::string& path) {
            ODBViewRep& rep = v.use();
            ChangeGuard guard(*v.log);
            if (path.empty()) throw py::value_error("save() needs a path");
            int written;
            int error;
            {
              Unlocked unlocked(v.log.get());
              errno = 0;
              written = rep.saveAsText(path.c_str(), false);
              error = errno;
            }
            if (written == 0 && (rep.get_num_records() > 0 || !std::filesystem::exists(path)))
              throw SaveError{path + ": could not be written" +
                              (error ? std::string(": ") + std::strerror(error) : std::string())};
            return written;
          },
          py::arg("path"),
          "Writes the view's rows as a log file (a \"Tag\" column carries the view's tags), "
          "replacing `path` in one step; returns the number of rows written.")
      .def("_column_arrays", [](ViewCore& v) { return columnArrays(v.use()); })
      .def(
          "to_rows", [](ViewCore& v) { return rowsOf(v.use()); },
          "Every view row as a list of its cells, in view order.")
      .def(
          "on_deleted",
          [](ViewCore& v, py::function fn) {
            v.registrations.push_back(listen(v.use(), v.log.get(), "recordsDeleted", fn, true));
          },
          py::arg("callback"),
          R"doc(Calls callback(rows) for every "recordsDeleted" message the view sends.

These are the messages a C++ host registered with the view receives, in the
same order: for each row it drops, a message naming its position at that
moment ([1], then [1] again for the next row that moves up), then a closing
message listing every dropped row. If the callback raises, the deletion still
completes, the remaining callbacks still run, and the first exception is
raised by the call that made the deletion (later ones go to
sys.unraisablehook). A callback may read the log but not change it.)doc")
      .def(
          "on_changed",
          [](ViewCore& v, py::function fn) {
            v.registrations.push_back(listen(v.use(), v.log.get(), "recordsChanged", fn, false));
          },
          py::arg("callback"),
          "Calls callback(ids) for every \"recordsChanged\" message the view sends (after each "
          "deletion that reached it; `ids` is empty for a view).")
      .def("__repr__", [](const ViewCore& v) {
        if (!v.log->table || !v.view || !v.view->odb()) return std::string("<zyldb.View closed>");
        return "<zyldb.View " + std::to_string(v.view->get_num_records()) + " rows" +
               (v.base ? ", stacked>" : ">");
      });
}

}  // namespace zylpy

PYBIND11_MODULE(_zyldb, m) {
  zylpy::bindAll(m);
  zylpy::bindExtras(m);
}
