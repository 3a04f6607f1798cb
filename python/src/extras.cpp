// The interchange formats (CSV, TSV, ALE) and the audit, for Python.

#include <pybind11/stl.h>
#include <zyldb/audit/Audit.h>
#include <zyldb/interchange/Interchange.h>
#include <zyldb/platform/TextUtil.h>

#include "core.h"

namespace zylpy {

namespace ix = zyl::interchange;

void raiseLoadError(const std::string& message, const std::string& path, int line) {
  py::object error = py::module_::import("zyldb").attr("LoadError");
  py::list problems;
  problems.append(message);
  py::object instance = error(message, path, line, problems);
  PyErr_SetObject(error.ptr(), instance.ptr());
  throw py::error_already_set();
}

namespace {

char oneByte(const std::string& text, const char* what) {
  if (text.size() != 1) throw py::value_error(std::string(what) + " is one character");
  return text[0];
}

std::shared_ptr<LogCore> readFile(const std::string& path, ix::Format format,
                                  const ix::Options& options) {
  std::unique_ptr<zyldb> table;
  ix::Error error;
  {
    Unlocked unlocked(nullptr);
    table = ix::loadFile(path, format, options, &error);
  }
  if (!table) raiseLoadError(error.message, path, error.line);
  // The file is not a log: saving it needs a path, so that save() never
  // writes the log format over it.
  return adoptTable(table.release(), "");
}

// The log or view `rows` stands for, and the log it belongs to.
ODBBase& sourceOf(const py::handle& rows, LogCore*& core) {
  if (py::isinstance<LogCore>(rows)) {
    LogCore& log = rows.cast<LogCore&>();
    core = &log;
    return log.use();
  }
  if (py::isinstance<ViewCore>(rows)) {
    ViewCore& view = rows.cast<ViewCore&>();
    core = view.log.get();
    return view.use();
  }
  throw py::type_error("a Log or a View is needed");
}

void writeFile(const py::handle& rows, const std::string& path, ix::Format format,
               const ix::Options& options) {
  LogCore* core = nullptr;
  ODBBase& source = sourceOf(rows, core);
  ix::Error error;
  bool ok;
  {
    Unlocked unlocked(core);
    ok = ix::saveFile(source, path, format, options, &error);
  }
  if (!ok) throw SaveError{error.message};
}

py::dict rateOf(const zyl::audit::Rate& r) {
  py::dict d;
  d["name"] = r.name;
  d["timebase"] = r.timebase;
  d["drop_frame"] = r.dropFrame;
  d["how"] = r.how;
  return d;
}

py::dict auditOf(const py::handle& rows, const py::object& fps, const py::object& gap) {
  LogCore* core = nullptr;
  ODBBase& source = sourceOf(rows, core);
  zyl::audit::Options options;
  if (!fps.is_none()) options.fps = py::str(fps).cast<std::string>();
  if (!gap.is_none()) options.gapSeconds = gap.cast<double>();
  zyl::audit::Report report;
  {
    Unlocked unlocked(core);
    if (!core->path.empty())
      options.tableRowLines =
          zyl::audit::recordLines(fromUTF8(LightweightString<char>(core->path)));
    report = zyl::audit::audit(source, options);
  }
  py::list findings;
  for (const zyl::audit::Finding& f : report.findings) {
    py::dict d;
    d["kind"] = zyl::audit::kindName(f.kind);
    d["severity"] = zyl::audit::severityName(f.severity);
    d["track"] = zyl::audit::trackName(f.track);
    d["rows"] = f.rows;
    d["lines"] = f.lines;
    py::list cells;
    for (const zyl::audit::Cell& c : f.cells)
      cells.append(py::make_tuple(c.row, toPython(c.column.data(), c.column.size()),
                                  toPython(c.value.data(), c.value.size())));
    d["cells"] = cells;
    d["reel"] = toPython(f.reel.data(), f.reel.size());
    d["frame"] = f.frame;
    d["length"] = f.length;
    d["message"] = toPython(f.message.data(), f.message.size());
    findings.append(d);
  }
  py::dict out;
  out["findings"] = findings;
  out["picture"] = rateOf(report.picture);
  out["sound"] = rateOf(report.sound);
  out["notes"] = report.notes;
  out["rows"] = report.rows;
  return out;
}

}  // namespace

void bindExtras(py::module_& m) {
  m.def(
      "_read",
      [](const std::string& path, const std::string& format, const std::string& delimiter,
         bool header) {
        ix::Options options;
        ix::Format f = ix::formatFromName(format);
        options.csv.delimiter = oneByte(delimiter, "delimiter");
        options.csv.header = header;
        return readFile(path, f, options);
      },
      py::arg("path"), py::arg("format"), py::arg("delimiter") = ",", py::arg("header") = true);
  m.def(
      "_write",
      [](const py::handle& rows, const std::string& path, const std::string& format,
         const py::dict& settings) {
        ix::Options options;
        auto text = [&](const char* key, std::string& into) {
          if (settings.contains(key) && !settings[key].is_none())
            into = py::str(settings[key]).cast<std::string>();
        };
        auto flag = [&](const char* key, bool& into) {
          if (settings.contains(key)) into = settings[key].cast<bool>();
        };
        if (settings.contains("delimiter"))
          options.csv.delimiter = oneByte(settings["delimiter"].cast<std::string>(), "delimiter");
        flag("header", options.csv.header);
        flag("bom", options.csv.bom);
        flag("crlf", options.csv.crlf);
        flag("guard_formulas", options.csv.guardFormulas);
        flag("crlf", options.tsv.crlf);
        flag("crlf", options.ale.crlf);
        text("fps", options.ale.fps);
        text("video_format", options.ale.videoFormat);
        text("audio_format", options.ale.audioFormat);
        writeFile(rows, path, ix::formatFromName(format), options);
      },
      py::arg("rows"), py::arg("path"), py::arg("format"), py::arg("settings"));
  m.def("_audit", &auditOf, py::arg("rows"), py::arg("fps") = py::none(),
        py::arg("gap") = py::none());
}

}  // namespace zylpy
