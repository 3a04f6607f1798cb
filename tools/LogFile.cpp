#include "LogFile.h"

#include <strings.h>
#include <unistd.h>
#include <zyldb/db/dbrecord.h>
#include <zyldb/interchange/Interchange.h>
#include <zyldb/platform/OS.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

#include "Output.h"
#include "Progress.h"

namespace zyl::cli {

namespace {

// How much of an input is looked at to tell text from binary data.
constexpr size_t kSniffBytes = 64 * 1024;
// The lines kept for diagnosing a header: more than the most parameter
// lines a log holds plus its four column-header lines.
constexpr size_t kHeaderLines = 256;
constexpr size_t kHeaderBytes = 1 << 20;
// Every this many lines the start of a line is remembered, so that a line
// named by an error is found by reading at most this many lines.
constexpr uint32_t kCheckpointLines = 4096;
// Blank lines whose positions are remembered.
constexpr size_t kBlankLinesKept = 64;
// The name the library is given for stdin; the watching service serves it.
const wchar_t kStdinName[] = L"-";

const char kByteOrderMark[] = "\xEF\xBB\xBF";

// Keeps the library's log messages off stderr while it lives: every
// condition of a load they report is explained by the tool from the
// table's error record and the header, in a person's words.
class QuietLibrary {
 public:
  QuietLibrary() {
    previous_ = zyl::setLogSink([](zyl::LogLevel, const char*) {});
  }
  ~QuietLibrary() { zyl::setLogSink(previous_); }
  QuietLibrary(const QuietLibrary&) = delete;
  QuietLibrary& operator=(const QuietLibrary&) = delete;

 private:
  zyl::LogSink previous_;
};

std::string ordinal(long n) {
  const char* suffix = "th";
  if (n % 100 < 11 || n % 100 > 13) {
    if (n % 10 == 1) suffix = "st";
    if (n % 10 == 2) suffix = "nd";
    if (n % 10 == 3) suffix = "rd";
  }
  return std::to_string(n) + suffix;
}

// A short, printable quotation of a line for a message.
std::string quoteLine(std::string_view line) {
  return "\"" + cutToWidth(displayText(line), 40) + "\"";
}

// Why the sample of a file is not text, or nothing when it is.
std::optional<std::string> binaryReason(std::string_view sample) {
  size_t nul = sample.find('\0');
  if (nul != std::string_view::npos)
    return "binary data, not a text log (a zero byte at offset " + std::to_string(nul) + ")";
  size_t odd = 0;
  for (size_t pos = 0; pos < sample.size();) {
    unsigned char b = static_cast<unsigned char>(sample[pos]);
    if (b < 0x80) {
      if ((b < 0x20 && std::strchr("\t\n\r\f\v", b) == nullptr) || b == 0x7F) ++odd;
      ++pos;
      continue;
    }
    size_t start = pos;
    // A sequence cut by the end of the sample is not held against the file.
    if (decodeUtf8(sample, pos) == 0xFFFD && sample.size() - start > 3) ++odd;
  }
  if (odd * 10 > sample.size())
    return "binary data, not a text log (" + std::to_string(odd) + " of its first " +
           plural(static_cast<long>(sample.size()), "byte", "bytes") + " are not text)";
  return std::nullopt;
}

bool blankLine(std::string_view line) {
  return line.find_first_not_of(" \t\r\f\v") == std::string_view::npos;
}

// What the watching service learnt from the one read of an input.
struct ReadNotes {
  bool read = false;
  uint64_t bytes = 0;
  bool byteOrderMark = false;
  std::optional<std::string> binary;
  std::vector<std::string> header;  // the first lines, up to kHeaderLines
  uint32_t lines = 0;
  uint64_t nonBlankLines = 0;
  // (line index, non-blank lines before it) of the first blank lines.
  std::vector<std::pair<uint32_t, uint64_t>> blanks;
  // Byte offset of line i * kCheckpointLines.
  std::vector<uint64_t> checkpoints;
};

// The file service in force while the tool loads an input: forwards every
// call to the service it replaced, serves stdin under kStdinName, and notes
// what a diagnosis needs while the bytes pass by, so that the input is
// never read a second time.
class WatchingService : public zyl::FileService {
 public:
  WatchingService(ReadNotes& notes, std::string* stdinBytes)
      : notes_(notes), stdinBytes_(stdinBytes) {
    inner_ = OS()->setFileService(this);
  }
  ~WatchingService() override { OS()->setFileService(inner_); }
  WatchingService(const WatchingService&) = delete;
  WatchingService& operator=(const WatchingService&) = delete;

  bool readFile(const LightweightString<wchar_t>& path, std::string* out) override {
    bool isStdin = stdinBytes_ != nullptr && path.view() == kStdinName;
    if (isStdin) {
      *out = std::move(*stdinBytes_);
    } else if (!inner_->readFile(path, out)) {
      return false;
    }
    notes_.read = true;
    notes_.bytes = out->size();
    std::string_view text(*out);
    if (text.substr(0, 3) == kByteOrderMark) {
      // The mark is no part of the first line: the reader gets the text
      // without it, and check names it.
      notes_.byteOrderMark = true;
      out->erase(0, 3);
      text = *out;
    }
    notes_.binary = binaryReason(text.substr(0, kSniffBytes));
    if (notes_.binary) {
      out->clear();
      return false;
    }
    scan(text);
    return true;
  }
  bool writeFile(const LightweightString<wchar_t>& path, const char* data, size_t n) override {
    return inner_->writeFile(path, data, n);
  }
  bool move(const LightweightString<wchar_t>& from, const LightweightString<wchar_t>& to,
            int flags) override {
    return inner_->move(from, to, flags);
  }
  bool remove(const LightweightString<wchar_t>& path) override { return inner_->remove(path); }
  bool exists(const LightweightString<wchar_t>& path) override { return inner_->exists(path); }
  bool isDirectory(const LightweightString<wchar_t>& path) override {
    return inner_->isDirectory(path);
  }
  std::string lastError() const override { return inner_->lastError(); }

 private:
  void scan(std::string_view text) {
    size_t headerBytes = 0;
    for (size_t start = 0; start < text.size();) {
      size_t end = text.find('\n', start);
      if (end == std::string_view::npos) end = text.size();
      std::string_view line = text.substr(start, end - start);
      uint32_t index = notes_.lines++;
      if (index % kCheckpointLines == 0) notes_.checkpoints.push_back(start);
      if (notes_.header.size() < kHeaderLines && headerBytes < kHeaderBytes) {
        notes_.header.emplace_back(line);
        headerBytes += line.size();
      }
      if (blankLine(line)) {
        if (notes_.blanks.size() < kBlankLinesKept)
          notes_.blanks.emplace_back(index, notes_.nonBlankLines);
      } else {
        ++notes_.nonBlankLines;
      }
      start = end + 1;
    }
  }

  ReadNotes& notes_;
  std::string* stdinBytes_;
  zyl::FileService* inner_;
};

// Line `index` (0-based) of the file at `path`, read on demand from the
// nearest remembered line start; nullopt when it cannot be read.
std::optional<std::string> lineOnDemand(const std::string& path, const ReadNotes& notes,
                                        uint32_t index) {
  if (index < notes.header.size()) return notes.header[index];
  if (path == "-" || index / kCheckpointLines >= notes.checkpoints.size()) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(notes.checkpoints[index / kCheckpointLines]));
  std::string line;
  for (uint32_t i = index - index % kCheckpointLines; i <= index; ++i)
    if (!std::getline(in, line)) return std::nullopt;
  return line;
}

// The number of fields dbrecord reads from `line`; 0 for a blank line.
int fieldCount(std::string_view line) {
  TextFile file;
  file.appendLine(line);
  dbrecord record;
  return record.read(file) > 0 ? static_cast<int>(record.get_num_fields()) : 0;
}

void diagnoseLog(OpenLog& log, const ReadNotes& notes) {
  zyldb& table = *log.table;
  TextFile header;
  for (const std::string& line : notes.header) header.appendLine(std::string_view(line));
  auto fields = [&header](unsigned int index, dbrecord& record) {
    header.currentLine = index;
    return record.read(header) > 0 ? static_cast<int>(record.get_num_fields()) : 0;
  };
  // Line numbers of the column header, found as the reader finds them.
  unsigned int terminator = 0;
  for (unsigned int i = 1; i < header.getNumLines(); ++i) {
    dbrecord record;
    if (fields(i, record) > 0 && strcasecmp(record.get_field(0), "ZYLDB") == 0) {
      terminator = i;
      break;
    }
  }
  unsigned int widthsLine = terminator + 1, typesLine = terminator + 2, namesLine = terminator + 3;
  dbrecord widths, types, names;
  int widthCount = fields(widthsLine, widths);
  int typeCount = fields(typesLine, types);
  int nameCount = fields(namesLine, names);

  dberror e;
  bool hasError = table.read_error_info(e) != 0;
  if (!table.get_valid()) {
    if (terminator == 0) {
      log.problems.push_back(
          {0,
           "the header never ends: no \"ZYLDB\" line follows its parameter lines, so the file "
           "has no column header"});
    } else if (hasError && e.code == DBLoadError::columnHeader &&
               e.detail == DBLoadError::typesLine) {
      log.problems.push_back({static_cast<int>(typesLine) + 1,
                              "the types line has " + plural(typeCount, "field", "fields") +
                                  ", the widths line has " + std::to_string(widthCount) +
                                  "; they must have one per column"});
    } else if (hasError && e.code == DBLoadError::columnHeader &&
               e.detail == DBLoadError::namesLine) {
      log.problems.push_back({static_cast<int>(namesLine) + 1,
                              "the names line has " + plural(nameCount, "field", "fields") +
                                  ", the log has " + plural(widthCount, "column", "columns")});
    } else {
      log.problems.push_back({0, "the library could not load the file"});
    }
    log.table = nullptr;
    return;
  }

  unsigned int parameters = terminator - 1;  // after the first line
  if (parameters + 1 > zyldb::kMaxParams)
    log.problems.push_back({static_cast<int>(zyldb::kMaxParams) + 1,
                            "the header has " + std::to_string(parameters + 1) +
                                " parameter lines; those after the " + ordinal(zyldb::kMaxParams) +
                                " are dropped"});
  if (table.getRevision() != 1)
    log.problems.push_back({1, "the log is revision " + std::to_string(table.getRevision()) +
                                   "; this library reads revision 1 and may misread it"});
  if (table.get_num_fields() == 0)
    log.problems.push_back(
        {static_cast<int>(widthsLine) + 1, "the widths line is empty, so the log has no columns"});
  for (unsigned int c = 0; c < static_cast<unsigned int>(typeCount); ++c) {
    const char* keyword = types.get_field(static_cast<unsigned short>(c));
    if (keyword != nullptr && zyldb_string_to_fieldtype(keyword) == DBFieldTypes::none)
      log.problems.push_back({static_cast<int>(typesLine) + 1,
                              "column " + std::to_string(c + 1) + " (\"" + table.get_fieldname(c) +
                                  "\") has the unknown type \"" + keyword +
                                  "\"; it is read as text"});
  }

  unsigned int rows = table.getNumRawRecords();
  if (hasError && e.code == DBLoadError::rowFieldCount) {
    unsigned int bad = namesLine + 1 + static_cast<unsigned int>(e.detail);
    std::optional<std::string> line = lineOnDemand(log.path, notes, bad);
    std::string count =
        line ? "record has " + plural(fieldCount(*line), "field", "fields") + ", the log has "
             : "record does not have one field per column; the log has ";
    log.problems.push_back(
        {static_cast<int>(bad) + 1,
         count + plural(static_cast<long>(table.get_num_fields()), "column", "columns") + "; " +
             plural(e.detail, "record", "records") + " before it " +
             (e.detail == 1 ? "is" : "are") + " usable"});
    log.incomplete = true;
  } else {
    uint32_t after = namesLine + 1 + rows;
    for (auto [index, nonBlankBefore] : notes.blanks) {
      if (index != after) continue;
      uint64_t ignored = notes.nonBlankLines - nonBlankBefore;
      if (ignored > 0) {
        log.problems.push_back({static_cast<int>(after) + 1,
                                "a blank line ends the records; the " +
                                    plural(static_cast<long>(ignored), "line", "lines") +
                                    " after it " + (ignored == 1 ? "is" : "are") + " not read"});
        log.incomplete = true;
      }
    }
  }
}

// Builds a table from a JSON document of the shape the tool writes:
// {"parameters": {NAME: VALUE, ...}, "columns": [{"name": N, "type": T}, ...],
//  "rows": [{COLUMN: VALUE, ...}, ...]}.
void loadJson(OpenLog& log, const std::string& bytes) {
  using json = nlohmann::ordered_json;
  auto fail = [&log](std::string text) {
    log.problems.push_back({0, std::move(text)});
    log.table = nullptr;
  };
  json doc;
  try {
    doc = json::parse(bytes);
  } catch (const json::parse_error& e) {
    // Report the line of the byte where parsing stopped.
    size_t at = std::min<size_t>(e.byte > 0 ? e.byte - 1 : 0, bytes.size());
    int line = 1 + static_cast<int>(std::count(bytes.begin(), bytes.begin() + at, '\n'));
    log.problems.push_back({line, "not a JSON document the tool reads: syntax error"});
    return;
  }
  if (!doc.is_object() || !doc.contains("columns") || !doc["columns"].is_array())
    return fail("a JSON log needs an object with a \"columns\" array");
  std::vector<DBFieldDesc> descs;
  for (const json& column : doc["columns"]) {
    if (!column.is_object() || !column.contains("name") || !column["name"].is_string())
      return fail("every member of \"columns\" needs a \"name\" string");
    std::string type = column.contains("type") && column["type"].is_string()
                           ? column["type"].get<std::string>()
                           : "text";
    DBFieldTypes::eType t = zyldb_string_to_fieldtype(type.c_str());
    if (t == DBFieldTypes::none) {
      log.problems.push_back({0, "column \"" + column["name"].get<std::string>() +
                                     "\" has the unknown type \"" + type +
                                     "\"; it is read as text"});
      t = DBFieldTypes::text;
    }
    descs.push_back({column["name"].get<std::string>(), t});
  }
  log.table = Qm::Ptr<zyldb>(new zyldb(descs));
  zyldb& table = *log.table;
  if (doc.contains("parameters") && doc["parameters"].is_object())
    for (const auto& [name, value] : doc["parameters"].items())
      table.add_param(name.c_str(),
                      value.is_string() ? value.get<std::string>().c_str() : value.dump().c_str());
  if (!doc.contains("rows")) return;
  if (!doc["rows"].is_array()) return fail("\"rows\" must be an array of objects");
  const json& rows = doc["rows"];
  table.add_records(static_cast<int>(rows.size()));
  for (size_t r = 0; r < rows.size(); ++r) {
    if (!rows[r].is_object()) return fail("row " + std::to_string(r + 1) + " is not an object");
    for (const auto& [name, value] : rows[r].items()) {
      int column = table.get_fieldnum(LightweightString<char>(name));
      if (column < 0) {
        log.problems.push_back({0, "row " + std::to_string(r + 1) + " has \"" + name +
                                       "\", which is not a column; it is dropped"});
        log.incomplete = true;
        continue;
      }
      std::string text = value.is_string() ? value.get<std::string>()
                                           : (value.is_null() ? std::string() : value.dump());
      table.setField(static_cast<unsigned int>(r), static_cast<unsigned int>(column),
                     LightweightString<char>(text));
    }
  }
}

bool readStdin(std::string& out) {
  char buffer[1 << 16];
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n == 0) return true;
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    out.append(buffer, static_cast<size_t>(n));
  }
}

}  // namespace

namespace {

namespace ix = zyl::interchange;

std::optional<Format> fromInterchange(ix::Format f) {
  switch (f) {
    case ix::Format::Log:
      return Format::log;
    case ix::Format::Csv:
      return Format::csv;
    case ix::Format::Tsv:
      return Format::tsv;
    case ix::Format::Ale:
      return Format::ale;
    case ix::Format::Json:
      return Format::json;
    case ix::Format::Unknown:
      break;
  }
  return std::nullopt;
}

}  // namespace

const char* formatName(Format format) {
  switch (format) {
    case Format::log:
      return ix::formatName(ix::Format::Log);
    case Format::csv:
      return ix::formatName(ix::Format::Csv);
    case Format::tsv:
      return ix::formatName(ix::Format::Tsv);
    case Format::ale:
      return ix::formatName(ix::Format::Ale);
    case Format::json:
      return ix::formatName(ix::Format::Json);
    case Format::table:
      return "table";
  }
  return "table";
}

std::optional<Format> formatFromOption(const std::string& text) {
  if (strcasecmp(text.c_str(), "table") == 0) return Format::table;
  return fromInterchange(ix::formatFromName(text));
}

std::optional<Format> formatFromExtension(const std::string& path) {
  return fromInterchange(ix::formatFromExtension(path));
}

std::string OpenLog::describe(const Problem& p) const {
  std::string out = shownName() + ": ";
  if (p.line > 0) out += "line " + std::to_string(p.line) + ": ";
  return out + p.text;
}

std::string OpenLog::shownName() const { return path == "-" ? "stdin" : path; }

// Names from the command line keep their bytes, valid UTF-8 or not.
LightweightString<wchar_t> widePath(const std::string& path) { return zyl::pathFromBytes(path); }

OpenLog openLog(const std::string& path, const OpenOptions& options) {
  OpenLog log;
  log.path = path;
  auto fail = [&log](int line, std::string text) {
    log.problems.push_back({line, std::move(text)});
    return log;
  };

  bool isStdin = path == "-";
  std::string stdinBytes;
  if (isStdin) {
    if (!readStdin(stdinBytes))
      return fail(0, std::string("cannot be read: ") + std::strerror(errno));
    if (options.format) {
      log.format = *options.format;
    } else {
      // Guess from the first bytes: a log header, a JSON object, else CSV.
      std::string_view start(stdinBytes);
      if (start.substr(0, 3) == kByteOrderMark) start.remove_prefix(3);
      size_t first = start.find_first_not_of(" \t\r\n");
      if (first != std::string_view::npos && start[first] == '{')
        log.format = Format::json;
      else if (strncasecmp(std::string(start.substr(0, 7)).c_str(), "\"ZYLDB:", 7) == 0 ||
               strncasecmp(std::string(start.substr(0, 6)).c_str(), "ZYLDB:", 6) == 0)
        log.format = Format::log;
      else
        log.format = Format::csv;
    }
  } else {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::file_status status = fs::status(path, ec);
    if (status.type() == fs::file_type::not_found) return fail(0, "no such file");
    if (ec) return fail(0, "cannot be read: " + ec.message());
    if (status.type() == fs::file_type::directory) return fail(0, "is a directory, not a log");
    if (status.type() != fs::file_type::regular) return fail(0, "is not a regular file");
    log.format = options.format ? *options.format : formatFromExtension(path).value_or(Format::log);
    if (log.format == Format::table) log.format = Format::log;
  }
  ReadNotes notes;
  if (log.format != Format::log) {
    std::string bytes;
    {
      WatchingService watch(notes, isStdin ? &stdinBytes : nullptr);
      if (!OS()->fileService().readFile(
              isStdin ? LightweightString<wchar_t>(kStdinName) : widePath(path), &bytes) &&
          !notes.binary)
        return fail(0, "cannot be read: " + OS()->fileService().lastError());
    }
    log.bytes = notes.bytes;
    if (notes.binary) return fail(0, *notes.binary);
    if (notes.bytes == 0) return fail(0, "the file is empty");
    if (log.format == Format::json) {
      loadJson(log, bytes);
      return log;
    }
    ix::Error err;
    std::unique_ptr<zyldb> table;
    if (log.format == Format::csv)
      table = ix::readCsv(bytes, ix::CsvOptions{}, &err);
    else if (log.format == Format::tsv)
      table = ix::readTsv(bytes, &err);
    else
      table = ix::readAle(bytes, &err);
    if (!table) return fail(0, err.message);
    log.table = Qm::Ptr<zyldb>(table.release());
    return log;
  }

  LightweightString<wchar_t> name =
      isStdin ? LightweightString<wchar_t>(kStdinName) : widePath(path);

  QuietLibrary quiet;
  {
    WatchingService watch(notes, isStdin ? &stdinBytes : nullptr);
    int maxRows = options.maxRows >= 0 && options.maxRows < INT_MAX
                      ? static_cast<int>(std::max<long>(options.maxRows, 1))
                      : INT_MAX;
    log.table = Qm::Ptr<zyldb>(new zyldb());
    Progress progress("reading " + log.shownName(), 0, Progress::Unit::bytes);
    log.table->setProgress([&progress](uint64_t done, uint64_t total) {
      progress.setTotal(total);
      progress.show(done);
    });
    log.table->set_filename(name);
    log.table->loadFromFile(maxRows, true);
    log.table->setProgress({});
  }
  log.bytes = notes.bytes;
  log.byteOrderMark = notes.byteOrderMark;
  if (notes.binary) {
    log.table = nullptr;
    return fail(0, *notes.binary);
  }
  if (!notes.read) {
    log.table = nullptr;
    return fail(0, "cannot be read");
  }
  if (notes.bytes == 0) {
    log.table = nullptr;
    return fail(0, "the file is empty");
  }
  if (log.byteOrderMark)
    log.problems.push_back({1, "the file starts with a UTF-8 byte-order mark"});

  // The library treats an input without a first "ZYLDB:" parameter line as
  // no log at all, silently; say what it starts with instead.
  std::string_view first = notes.header.empty() ? std::string_view() : notes.header[0];
  int firstFields = fieldCount(first);
  if (firstFields == 0) {
    log.table = nullptr;
    return fail(1, "the first line is blank; a log starts with the line \"ZYLDB:Rev 1\"");
  }
  {
    TextFile one;
    one.appendLine(first);
    dbrecord record;
    record.read(one);
    if (strncasecmp(record.get_field(0), "ZYLDB:", 6) != 0) {
      log.table = nullptr;
      std::string text =
          "no log header: a log starts with \"ZYLDB:Rev 1\", this file with " + quoteLine(first);
      if (first.find(',') != std::string_view::npos && first.find('"') == std::string_view::npos)
        text += "; a comma-separated file needs a name ending in \".csv\"";
      return fail(1, text);
    }
  }
  diagnoseLog(log, notes);
  return log;
}

}  // namespace zyl::cli
