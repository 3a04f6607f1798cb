#include "LogFile.h"

#include <strings.h>
#include <zyldb/db/dbrecord.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include "Output.h"

namespace zyl::cli {

namespace {

// How much of a file is looked at to tell text from binary data.
constexpr size_t kSniffBytes = 64 * 1024;
// More comma-separated lines of the wrong width than this are summed up in
// one message instead of one each.
constexpr int kMaxLineProblems = 10;

// Collects the library's log messages while it lives, instead of letting
// them reach stderr: the tool explains them in its own words.
class LogCapture {
 public:
  LogCapture() {
    previous_ = zyl::setLogSink(
        [this](zyl::LogLevel, const char* message) { messages.push_back(message ? message : ""); });
  }
  ~LogCapture() { zyl::setLogSink(previous_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> messages;

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
std::string quoteLine(const char* line) { return "\"" + cutToWidth(displayText(line), 40) + "\""; }

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

// The fields of line `index` (0-based) as the record reader sees them.
struct LineFields {
  int count = 0;
  dbrecord record;
};

void readLine(TextFile& file, unsigned int index, LineFields& out) {
  file.currentLine = index;
  out.count = out.record.read(file) > 0 ? static_cast<int>(out.record.get_num_fields()) : 0;
}

bool isBlank(TextFile& file, unsigned int index) { return isEssentiallyEmpty(file.line(index)); }

void diagnoseCsv(OpenLog& log, TextFile& file) {
  LightweightString<char> header = file[0];
  size_t columns = Qm::splitIf(header, ',', 2).size();
  if (file.getNumLines() > 0 && columns == 0) {
    log.problems.push_back({1, "the first line is blank, so the file has no column names"});
    return;
  }
  int reported = 0, unreported = 0;
  for (unsigned int i = 1; i < file.getNumLines(); ++i) {
    size_t values = Qm::splitIf(file[i], ',', 2).size();
    if (values == 0 || values == columns) continue;
    log.incomplete = true;
    if (reported == kMaxLineProblems) {
      ++unreported;
      continue;
    }
    ++reported;
    std::string text = "line has " + plural(static_cast<long>(values), "value", "values") +
                       ", the file has " + plural(static_cast<long>(columns), "column", "columns");
    text += values > columns
                ? "; the values after the " + ordinal(static_cast<long>(columns)) + " are dropped"
                : "; the missing values are left empty";
    log.problems.push_back({static_cast<int>(i) + 1, text});
  }
  if (unreported > 0)
    log.problems.push_back({0, plural(unreported, "more line has", "more lines have") +
                                   " the wrong number of values"});
}

void diagnoseLog(OpenLog& log, TextFile& file, const std::vector<std::string>& messages) {
  zyldb& table = *log.table;
  // Line numbers of the column header, found as the reader finds them.
  unsigned int terminator = 0;
  for (unsigned int i = 1; i < file.getNumLines(); ++i) {
    LineFields f;
    readLine(file, i, f);
    if (f.count > 0 && strcasecmp(f.record.get_field(0), "ZYLDB") == 0) {
      terminator = i;
      break;
    }
  }
  unsigned int widthsLine = terminator + 1, typesLine = terminator + 2, namesLine = terminator + 3;
  LineFields widths, types, names;
  readLine(file, widthsLine, widths);
  readLine(file, typesLine, types);
  readLine(file, namesLine, names);

  if (!table.get_valid()) {
    dberror e;
    if (terminator == 0) {
      log.problems.push_back(
          {0,
           "the header never ends: no \"ZYLDB\" line follows its parameter lines, so the file "
           "has no column header"});
    } else if (table.read_error_info(e) && e.code == DBLoadError::columnHeader &&
               e.detail == DBLoadError::typesLine) {
      log.problems.push_back({static_cast<int>(typesLine) + 1,
                              "the types line has " + plural(types.count, "field", "fields") +
                                  ", the widths line has " + std::to_string(widths.count) +
                                  "; they must have one per column"});
    } else if (table.read_error_info(e) && e.code == DBLoadError::columnHeader &&
               e.detail == DBLoadError::namesLine) {
      log.problems.push_back({static_cast<int>(namesLine) + 1,
                              "the names line has " + plural(names.count, "field", "fields") +
                                  ", the log has " + plural(widths.count, "column", "columns")});
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
  for (unsigned int c = 0; c < static_cast<unsigned int>(types.count); ++c) {
    const char* keyword = types.record.get_field(static_cast<unsigned short>(c));
    if (keyword != nullptr && zyldb_string_to_fieldtype(keyword) == DBFieldTypes::none)
      log.problems.push_back({static_cast<int>(typesLine) + 1,
                              "column " + std::to_string(c + 1) + " (\"" + table.get_fieldname(c) +
                                  "\") has the unknown type \"" + keyword +
                                  "\"; it is read as text"});
  }

  unsigned int rows = table.getNumRawRecords();
  dberror e;
  if (table.read_error_info(e) && e.code == DBLoadError::rowFieldCount) {
    unsigned int bad = namesLine + 1 + static_cast<unsigned int>(e.detail);
    LineFields record;
    readLine(file, bad, record);
    log.problems.push_back(
        {static_cast<int>(bad) + 1,
         "record has " + plural(record.count, "field", "fields") + ", the log has " +
             plural(static_cast<long>(table.get_num_fields()), "column", "columns") + "; " +
             plural(e.detail, "record", "records") + " before it " +
             (e.detail == 1 ? "is" : "are") + " usable"});
    log.incomplete = true;
  } else {
    unsigned int after = namesLine + 1 + rows;
    if (after < file.getNumLines() && isBlank(file, after)) {
      long ignored = 0;
      for (unsigned int i = after + 1; i < file.getNumLines(); ++i)
        if (!isBlank(file, i)) ++ignored;
      if (ignored > 0) {
        log.problems.push_back(
            {static_cast<int>(after) + 1, "a blank line ends the records; the " +
                                              plural(ignored, "line", "lines") + " after it " +
                                              (ignored == 1 ? "is" : "are") + " not read"});
        log.incomplete = true;
      }
    }
  }

  static const char* const kExplained[] = {
      "zyldb::add_text: returning because not all fields filled",
      "zyldb::add_text: returning because no more lines",
      "zyldb::read_text:  Warning: zyldb is revision"};
  for (const std::string& m : messages) {
    bool explained = false;
    for (const char* prefix : kExplained)
      if (m.rfind(prefix, 0) == 0) explained = true;
    if (explained) continue;
    std::string text = m;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    log.problems.push_back({0, "the library says: " + text});
  }
}

}  // namespace

std::string OpenLog::describe(const Problem& p) const {
  std::string out = path + ": ";
  if (p.line > 0) out += "line " + std::to_string(p.line) + ": ";
  return out + p.text;
}

LightweightString<wchar_t> widePath(const std::string& path) {
  return fromUTF8(LightweightString<char>(path));
}

bool isCsvName(const std::string& path) {
  return path.size() >= 4 && path.compare(path.size() - 4, 4, ".csv") == 0;
}

OpenLog openLog(const std::string& path) {
  OpenLog log;
  log.path = path;
  log.csv = isCsvName(path);
  auto fail = [&log](int line, std::string text) {
    log.problems.push_back({line, std::move(text)});
    return log;
  };

  namespace fs = std::filesystem;
  std::error_code ec;
  fs::file_status status = fs::status(path, ec);
  if (status.type() == fs::file_type::not_found) return fail(0, "no such file");
  if (ec) return fail(0, "cannot be read: " + ec.message());
  if (status.type() == fs::file_type::directory) return fail(0, "is a directory, not a log");
  if (status.type() != fs::file_type::regular) return fail(0, "is not a regular file");

  std::ifstream in(path, std::ios::binary);
  if (!in) return fail(0, std::string("cannot be read: ") + std::strerror(errno));
  std::string sample(kSniffBytes, '\0');
  in.read(sample.data(), static_cast<std::streamsize>(sample.size()));
  sample.resize(static_cast<size_t>(in.gcount()));
  if (sample.empty()) return fail(0, "the file is empty");
  if (auto reason = binaryReason(sample)) return fail(0, *reason);

  TextFile file;
  if (!file.load(widePath(path), '\n', false)) return fail(0, "cannot be read");

  if (!log.csv) {
    // The library treats a file without a first "ZYLDB:" parameter line as
    // no log at all, silently; say what the file starts with instead.
    LineFields first;
    readLine(file, 0, first);
    if (first.count == 0)
      return fail(1, "the first line is blank; a log starts with the line \"ZYLDB:Rev 1\"");
    if (strncasecmp(first.record.get_field(0), "ZYLDB:", 6) != 0) {
      std::string text = "no log header: a log starts with \"ZYLDB:Rev 1\", this file with " +
                         quoteLine(file.line(0));
      if (std::strchr(file.line(0), ',') != nullptr && std::strchr(file.line(0), '"') == nullptr)
        text += "; a comma-separated file needs a name ending in \".csv\"";
      return fail(1, text);
    }
  }

  LogCapture capture;
  log.table = Qm::Ptr<zyldb>(new zyldb(widePath(path), INT_MAX, true));
  if (log.csv) {
    if (!log.table->get_valid()) {
      log.table = nullptr;
      return fail(0, "the library could not load the file");
    }
    diagnoseCsv(log, file);
  } else {
    diagnoseLog(log, file, capture.messages);
  }
  return log;
}

}  // namespace zyl::cli
