#include "Writers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/interchange/Interchange.h>
#include <zyldb/view/ODBView.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "Common.h"
#include "Progress.h"

namespace zyl::cli {

namespace {

// The temporary file being written, for the signal handler: a fixed buffer,
// since a handler may not allocate.
char gTempPath[4096];
volatile sig_atomic_t gTempSet = 0;

extern "C" void onInterrupt(int sig) {
  if (gTempSet != 0) ::unlink(gTempPath);
  TextFile::removePendingTemporaries();
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

void rememberTemp(const std::string& path) {
  gTempSet = 0;
  if (path.size() >= sizeof gTempPath) return;
  std::memcpy(gTempPath, path.c_str(), path.size() + 1);
  gTempSet = 1;
}

void forgetTemp() { gTempSet = 0; }

// Rows written between two looks at the progress clock, and in one batch
// of the log writer.
constexpr size_t kLogBatchRows = 1024;

void writeLines(const TextFile& file, Sink& sink) {
  for (unsigned int i = 0; i < file.getNumLines(); ++i) {
    sink.write(file[i].view());
    sink.write("\n");
  }
}

// A log parameter line, quoted as the library's record writer quotes it.
void writeParamLine(const std::string& name, const std::string& value, TextFile& out) {
  dbrecord record(1);
  std::string text = name + ":" + value;
  record.set_field(0, text.c_str(), false);
  record.write(out);
}

void writeLog(const RowSource& source, Sink& sink, Progress& progress) {
  zyldb& table = *source.table;
  bool allColumns = source.columns.size() == table.get_num_fields();
  for (size_t i = 0; allColumns && i < source.columns.size(); ++i)
    allColumns = source.columns[i] == static_cast<int>(i);
  // The column header of just the columns written, from a table holding no
  // rows; the column arrangement parameter would not fit other columns.
  Qm::Ptr<zyldb> headerTable;
  if (!allColumns) {
    std::vector<DBFieldDesc> descs;
    for (int c : source.columns) descs.push_back({table.get_fieldname(c), table.get_field_type(c)});
    headerTable = Qm::Ptr<zyldb>(new zyldb(descs));
  }
  TextFile batch;
  for (const auto& [name, value] : source.params) {
    if (!allColumns && strcasecmp(name.c_str(), "V5_FIELD_MAP") == 0) continue;
    writeParamLine(name, value, batch);
  }
  (allColumns ? table : *headerTable).save_column_header(batch, false);
  writeLines(batch, sink);

  for (size_t start = 0; start < source.size(); start += kLogBatchRows) {
    TextFile lines;
    size_t end = std::min(source.size(), start + kLogBatchRows);
    for (size_t i = start; i < end; ++i) {
      dbrecord* record = table.get_record((*source.rows)[i]);
      if (record == nullptr) continue;
      if (allColumns) {
        record->write(lines);
        continue;
      }
      dbrecord out(static_cast<unsigned short>(source.columns.size()));
      for (size_t j = 0; j < source.columns.size(); ++j)
        out.set_field(static_cast<int>(j), source.cell(i, j).c_str(), false);
      out.write(lines);
    }
    writeLines(lines, sink);
    progress.update(end);
  }
}

// A table or view holding `source`'s rows and columns for the library's
// interchange writers, which write every column of the visible rows. The
// table itself when the source is all of it in order, a view of its rows
// when only the rows differ, else (a choice of columns) a copy of the
// chosen cells.
class WritableRows {
 public:
  explicit WritableRows(const RowSource& source) {
    zyldb& table = *source.table;
    bool allColumns = source.columns == allColumns_(table);
    bool allRows = source.size() == table.get_num_records();
    for (size_t i = 0; allRows && i < source.size(); ++i) allRows = (*source.rows)[i] == i;
    if (allColumns && allRows) {
      base_ = &table;
    } else if (allColumns) {
      view_ = ODBView(new ODBViewRep(&table));
      for (unsigned int r : *source.rows) view_->append(static_cast<int>(r));
      base_ = view_.rep();
    } else {
      std::vector<DBFieldDesc> descs;
      for (int c : source.columns)
        descs.push_back({table.get_fieldname(c), table.get_field_type(c)});
      copy_ = Qm::Ptr<zyldb>(new zyldb(descs));
      for (const auto& [name, value] : source.params)
        if (strcasecmp(name.c_str(), "ZYLDB") != 0 && strcasecmp(name.c_str(), "V5_FIELD_MAP") != 0)
          copy_->add_param(name.c_str(), value.c_str());
      copy_->add_records(static_cast<int>(source.size()));
      for (size_t i = 0; i < source.size(); ++i)
        for (size_t j = 0; j < source.columns.size(); ++j)
          copy_->setField(static_cast<unsigned int>(i), static_cast<unsigned int>(j),
                          LightweightString<char>(source.cell(i, j)));
      base_ = copy_.get();
    }
  }
  const ODBBase& rows() const { return *base_; }

 private:
  static std::vector<int> allColumns_(const zyldb& table) {
    std::vector<int> columns(table.get_num_fields());
    for (size_t c = 0; c < columns.size(); ++c) columns[c] = static_cast<int>(c);
    return columns;
  }
  ODBBase* base_ = nullptr;
  ODBView view_;
  Qm::Ptr<zyldb> copy_;
};

void writeInterchange(Format format, const RowSource& source, Sink& sink, Progress& progress) {
  namespace ix = zyl::interchange;
  WritableRows rows(source);
  uint64_t bytes = 0;
  ix::Sink out = [&sink, &progress, &bytes](std::string_view chunk) {
    sink.write(chunk);
    progress.show(bytes += chunk.size());
    return true;
  };
  ix::Error err;
  bool ok = format == Format::csv   ? ix::writeCsv(rows.rows(), ix::CsvOptions{}, out, &err)
            : format == Format::tsv ? ix::writeTsv(rows.rows(), ix::TsvOptions{}, out, &err)
                                    : ix::writeAle(rows.rows(), ix::AleOptions{}, out, &err);
  if (!ok) throw Failure(err.message);
}

void writeJson(const RowSource& source, Sink& sink, Progress& progress) {
  const zyldb& table = *source.table;
  std::string out = "{\n  \"parameters\": {";
  bool first = true;
  for (const auto& [name, value] : source.params) {
    out += first ? "\n    " : ",\n    ";
    out += jsonString(name) + ": " + jsonString(value);
    first = false;
  }
  out += first ? "},\n" : "\n  },\n";
  out += "  \"columns\": [";
  std::vector<std::string> names;
  for (size_t j = 0; j < source.columns.size(); ++j) {
    int c = source.columns[j];
    names.push_back(jsonString(table.get_fieldname(c)) + ": ");
    out += j ? ",\n    " : "\n    ";
    out += "{\"name\": " + jsonString(table.get_fieldname(c)) +
           ", \"type\": " + jsonString(typeKeyword(table.get_field_type(c))) + "}";
  }
  out += source.columns.empty() ? "],\n" : "\n  ],\n";
  out += source.size() == 0 ? "  \"rows\": []\n" : "  \"rows\": [\n";
  sink.write(out);
  for (size_t i = 0; i < source.size(); ++i) {
    out = "    {";
    for (size_t j = 0; j < source.columns.size(); ++j) {
      if (j) out += ", ";
      out += names[j] + jsonString(source.cell(i, j));
    }
    out += i + 1 < source.size() ? "},\n" : "}\n";
    sink.write(out);
    progress.update(i + 1);
  }
  sink.write(source.size() == 0 ? "}\n" : "  ]\n}\n");
}

}  // namespace

Sink::Sink(const std::string& path) : path_(path) {
  if (path.empty() || path == "-") {
    fd_ = 1;
    return;
  }
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path target = path;
  // Follow symbolic links, so that the link stays and its target changes.
  for (int hops = 0; hops < 40 && fs::is_symlink(fs::symlink_status(target, ec)); ++hops) {
    fs::path next = fs::read_symlink(target, ec);
    if (ec) break;
    target = next.is_absolute() ? next : target.parent_path() / next;
  }
  fs::file_status status = fs::status(target, ec);
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    if (fs::is_directory(status)) throw Failure(path + ": is a directory");
    // A FIFO, a terminal or another device: written directly, never renamed
    // over.
    fd_ = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd_ < 0) throw Failure(path + ": cannot be written: " + std::strerror(errno));
    return;
  }
  target_ = target.string();
  temp_ = target_ + ".zyltmp." + std::to_string(::getpid()) + ".tool";
  mode_t mode = 0666;
  struct stat st {};
  bool existed = ::stat(target_.c_str(), &st) == 0;
  if (existed) mode = st.st_mode & 07777;
  fd_ = ::open(temp_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd_ < 0) throw Failure(path + ": cannot be written: " + std::strerror(errno));
  if (existed) ::fchmod(fd_, mode);
  rememberTemp(temp_);
}

Sink::~Sink() {
  if (fd_ > 2) ::close(fd_);
  if (!temp_.empty()) {
    ::unlink(temp_.c_str());
    forgetTemp();
  }
}

void Sink::flush() {
  const char* p = buffer_.data();
  size_t left = buffer_.size();
  while (left > 0 && !failed_) {
    ssize_t n = ::write(fd_, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      failed_ = true;
      error_ = errno;
      break;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  written_ += buffer_.size();
  buffer_.clear();
}

void Sink::commit() {
  flush();
  if (!failed_ && !temp_.empty() && ::fsync(fd_) != 0) failed_ = true, error_ = errno;
  if (fd_ > 2) {
    if (::close(fd_) != 0 && !failed_) failed_ = true, error_ = errno;
    fd_ = -1;
  }
  if (failed_)
    throw Failure((path_.empty() || path_ == "-" ? std::string("stdout") : path_) +
                  ": cannot be written: " + std::strerror(error_));
  if (temp_.empty()) return;
  if (::rename(temp_.c_str(), target_.c_str()) != 0)
    throw Failure(path_ + ": cannot be written: " + std::strerror(errno));
  temp_.clear();
  forgetTemp();
}

void installInterruptCleanup() {
  std::signal(SIGINT, onInterrupt);
  std::signal(SIGTERM, onInterrupt);
}

std::string RowSource::cell(size_t i, size_t columnIndex) const {
  return table->getField((*rows)[i], static_cast<unsigned int>(columns[columnIndex])).toStdString();
}

std::vector<std::pair<std::string, std::string>> tableParams(const zyldb& table) {
  std::vector<std::pair<std::string, std::string>> params;
  for (unsigned int i = 0; i < table.getNumParams(); ++i)
    params.emplace_back(table.getParamName(i), table.getParamValue(i));
  if (params.empty() || strcasecmp(params[0].first.c_str(), "ZYLDB") != 0)
    params.insert(params.begin(), {"ZYLDB", "Rev 1"});
  return params;
}

void writeRows(Format format, const RowSource& source, Sink& sink) {
  switch (format) {
    case Format::log: {
      Progress progress("writing", source.size(), Progress::Unit::rows);
      writeLog(source, sink, progress);
      return;
    }
    case Format::json: {
      Progress progress("writing", source.size(), Progress::Unit::rows);
      writeJson(source, sink, progress);
      return;
    }
    case Format::csv:
    case Format::tsv:
    case Format::ale: {
      Progress progress("writing", 0, Progress::Unit::bytes);
      writeInterchange(format, source, sink, progress);
      return;
    }
    case Format::table:
      break;
  }
  throw Failure("a table is written by writeTable");
}

void writeTable(const RowSource& source, size_t lineWidth, Sink& sink,
                std::vector<std::string>* dropped) {
  size_t n = source.columns.size();
  std::vector<std::string> names;
  std::vector<bool> right;
  std::vector<size_t> natural(n);
  for (size_t j = 0; j < n; ++j) {
    int c = source.columns[j];
    names.push_back(source.table->get_fieldname(c));
    DBFieldTypes::eType type = source.table->get_field_type(c);
    right.push_back(type == DBFieldTypes::numeric || type == DBFieldTypes::long_ ||
                    type == DBFieldTypes::double_);
    natural[j] = displayWidth(displayText(names[j]));
  }
  {
    Progress progress("measuring", source.size(), Progress::Unit::rows);
    for (size_t i = 0; i < source.size(); ++i) {
      for (size_t j = 0; j < n; ++j)
        natural[j] = std::max(natural[j], displayWidth(displayText(source.cell(i, j))));
      progress.update(i + 1);
    }
  }
  std::vector<size_t> widths = fitWidths(natural, lineWidth);
  if (dropped != nullptr)
    for (size_t j = widths.size(); j < n; ++j) dropped->push_back(names[j]);
  sink.write(renderRow(names, widths, right, true));
  sink.write(ruleLine(widths));
  Progress progress("writing", source.size(), Progress::Unit::rows);
  std::vector<std::string> cells(widths.size());
  for (size_t i = 0; i < source.size(); ++i) {
    for (size_t j = 0; j < widths.size(); ++j) cells[j] = source.cell(i, j);
    sink.write(renderRow(cells, widths, right, false));
    progress.update(i + 1);
  }
}

Format outputFormat(const std::string& path, const std::string& option) {
  if (!option.empty()) {
    std::optional<Format> f = formatFromOption(option);
    if (!f || *f == Format::table)
      throw UsageError("--format must be log, csv, tsv, ale or json, not \"" + option + "\"");
    return *f;
  }
  if (path.empty() || path == "-") return Format::log;
  std::optional<Format> f = formatFromExtension(path);
  if (f && *f != Format::table) return *f;
  std::string name = std::filesystem::path(path).filename().string();
  size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0)
    throw UsageError("cannot tell the format of \"" + path +
                     "\" from its name; add an extension (.log, .csv, .tsv, .ale, .json) or "
                     "give --format");
  throw UsageError("unknown extension \"" + name.substr(dot) + "\" in \"" + path +
                   "\"; use .log, .csv, .tsv, .ale or .json, or give --format");
}

}  // namespace zyl::cli
