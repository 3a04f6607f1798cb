#include "core.h"

#include <strings.h>
#include <zyldb/platform/Notifier.h>

#include <cstring>

namespace zylpy {

std::mutex gLibraryLock;

// ---- LogCore ---------------------------------------------------------------

LogCore::~LogCore() { close(); }

zyldb& LogCore::use() const {
  if (!table) throw ClosedError{"the log is closed"};
  if (busy.load() != 0) throw std::runtime_error("the log is busy in another thread");
  return *table;
}

void LogCore::close() {
  if (!table) return;
  // Views stacked higher were made later: unbind from the top down.
  for (auto it = views.rbegin(); it != views.rend(); ++it)
    if (std::shared_ptr<ViewCore> v = it->lock()) v->unbind();
  views.clear();
  registrations.clear();
  table = nullptr;
  ++generation;
}

void LogCore::raisePending() {
  if (!pending) return;
  py::error_already_set e = std::move(*pending);
  pending.reset();
  e.restore();
  throw py::error_already_set();
}

void LogCore::keep(py::error_already_set& e) {
  if (pending) {
    e.discard_as_unraisable("zyldb callback (an earlier callback had already raised)");
    return;
  }
  pending.emplace(std::move(e));
}

int columnNumber(const zyldb& table, const std::string& name) {
  if (name.empty()) return -1;
  int c = table.get_fieldnum(LightweightString<char>(name));
  if (c >= 0 && strcasecmp(table.get_fieldname(static_cast<unsigned int>(c)), name.c_str()) == 0)
    return c;
  for (unsigned int i = 0; i < table.get_num_fields(); ++i)
    if (strcasecmp(table.get_fieldname(i), name.c_str()) == 0) return static_cast<int>(i);
  return -1;
}

int LogCore::column(const py::handle& name) const {
  zyldb& t = use();
  if (!py::isinstance<py::str>(name))
    throw py::type_error("a column is named by a str, not " +
                         std::string(py::str(py::type::of(name).attr("__name__"))));
  std::string text = name.cast<std::string>();
  int c = columnNumber(t, text);
  if (c < 0) throw py::key_error(text);
  return c;
}

void LogCore::watchDeletions() {
  registrations.push_back(table->addListener("recordsDeleted", [this](const NotifyMsg&) {
    ++generation;
    return 0;
  }));
}

// ---- ViewCore --------------------------------------------------------------

ViewCore::~ViewCore() {
  registrations.clear();
  view = ODBView();
}

ODBViewRep& ViewCore::use() const {
  log->use();
  if (!view || view->odb() == nullptr) throw ClosedError{"the view's log is closed"};
  return *view.rep();
}

void ViewCore::unbind() {
  registrations.clear();
  if (view) view->odb(nullptr);
}

// ---- RecordRef -------------------------------------------------------------

ODBBase& RecordRef::source() const {
  if (view) return view->use();
  return log->use();
}

unsigned int RecordRef::locate() const {
  ODBBase& src = source();
  if (generation == log->generation) return row;
  int found = -1;
  if (view) {
    found = view->view->find(record);
  } else {
    // Sorting moves the record, deleting may destroy it: look for it.
    const unsigned int n = src.get_num_records();
    if (row < n && src.get_record(row) == record) found = static_cast<int>(row);
    for (unsigned int r = 0; found < 0 && r < n; ++r)
      if (src.get_record(r) == record) found = static_cast<int>(r);
  }
  if (found < 0) throw DeletedRecordError{"the record's row has been deleted"};
  row = static_cast<unsigned int>(found);
  generation = log->generation;
  return row;
}

// ---- Text and types --------------------------------------------------------

py::str toPython(const char* text, size_t size) {
  PyObject* s = PyUnicode_DecodeUTF8(text, static_cast<Py_ssize_t>(size), "surrogateescape");
  if (!s) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(s);
}

std::string fromPython(const py::handle& value) {
  if (value.is_none()) return std::string();
  py::object text = py::isinstance<py::str>(value) ? py::reinterpret_borrow<py::object>(value)
                                                   : py::object(py::str(value));
  PyObject* bytes = PyUnicode_AsEncodedString(text.ptr(), "utf-8", "surrogateescape");
  if (!bytes) throw py::error_already_set();
  std::string out(PyBytes_AS_STRING(bytes), static_cast<size_t>(PyBytes_GET_SIZE(bytes)));
  Py_DECREF(bytes);
  if (out.find('\0') != std::string::npos)
    throw py::value_error("a cell cannot hold a NUL character");
  return out;
}

namespace {
const char* const kKeywords[] = {"text",    "text_s",   "timecode",    "timecode_s",
                                 "date",    "dos_date", "time_of_day", "char",
                                 "numeric", "long",     "double"};
}

std::string typeKeyword(DBFieldTypes::eType type) {
  const char* keyword = zyldb_fieldtype_to_string(type);
  return keyword ? std::string(keyword) : std::string(1, static_cast<char>(type));
}

DBFieldTypes::eType typeOf(const std::string& keyword) {
  DBFieldTypes::eType t = keyword.empty() || keyword.find('\0') != std::string::npos
                              ? DBFieldTypes::none
                              : zyldb_string_to_fieldtype(keyword.c_str());
  if (t == DBFieldTypes::none) {
    std::string known;
    for (const char* k : kKeywords) known += std::string(known.empty() ? "" : ", ") + k;
    throw py::value_error("unknown column type \"" + keyword + "\" (known: " + known + ")");
  }
  return t;
}

}  // namespace zylpy
