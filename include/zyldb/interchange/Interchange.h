#pragma once

// Interchange: reading and writing tables in the text formats other programs
// exchange logs in: CSV (RFC 4180 quoting), TSV (backslash escapes) and ALE
// (the tab-delimited clip log of dailies and editing systems). docs/FORMATS.md
// describes each format, the ALE column mapping, and what each direction keeps
// and drops.
//
// Readers build an ordinary table, the same kind a log file loads into:
// every value is text, stored exactly as the input carries it (no trimming,
// no character set conversion), and the table is valid with one column per
// input column. The table's file name is left empty, so that its save_text()
// never writes the log format over an interchange file by accident.
//
// Writers stream: they format the rows one at a time and hand the text to a
// Sink in chunks of a few tens of kilobytes, so a large table is never held
// twice in memory. They take any ODBBase (a table or a view) and write its
// visible rows in order.
//
// Round trips are exact: for every table T that a format can carry (see each
// writer), reading what the writer wrote gives T's column names and every
// value byte for byte. Column types and header parameters are carried only
// where a format has room for them (ALE's heading; see docs/FORMATS.md).
//
// Cost: every reader and writer runs in time linear in the size of its input
// or output, whatever the input holds; readers hold the input text and the
// table, nothing quadratic.
//
// Errors: no exceptions but the platform's Qm::Exception::BadAlloc on memory
// exhaustion. A failing call returns null or false and, when `err` is not
// null, fills it in; a successful call leaves *err alone.
//
// Threads: the functions keep no state; calls on different tables may run on
// different threads. A table or view being written must not change during
// the call.

#include <zyldb/export.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

class ODBBase;
class zyldb;

namespace zyl::interchange {

enum class Format {
  Unknown = 0,
  Log,   // the library's own log file (zyldb::loadFromFile / save_text)
  Csv,   // comma-separated values, RFC 4180 quoting
  Tsv,   // tab-separated values, backslash escapes
  Ale,   // ALE clip log
  Json,  // recognised by name only: the library neither reads nor writes it
};

// What went wrong, for a person. `line` and `column` are 1-based positions in
// the input (columns count bytes; line ends are LF, CRLF or, outside quoted
// fields, a lone CR); 0 where a position does not apply (a failed write, a
// file that cannot be read). `message` is the whole text, position included,
// e.g. "line 12: unterminated quoted field that began on line 9".
struct ZYLDB_EXPORT Error {
  int line = 0;
  int column = 0;
  std::string message;
};

struct ZYLDB_EXPORT CsvOptions {
  // The field separator: ',' (the default), ';' or '\t' are the usual ones;
  // any byte but '"', CR and LF is accepted. Readers and writers refuse the
  // others with an error.
  char delimiter = ',';
  // Reading: the first record holds the column names. Without it the columns
  // are named "Column 1", "Column 2", ... and every record is a row.
  // Writing: whether to write the names record.
  bool header = true;
  // Writing only: start with a UTF-8 byte-order mark (spreadsheets then read
  // the file as UTF-8). Readers always drop a leading mark.
  bool bom = false;
  // Writing only: end records with CRLF (as RFC 4180 and spreadsheets do)
  // instead of LF. Readers accept LF, CRLF and CR.
  bool crlf = false;
  // Writing only: put a single quote before every value that begins with
  // '=', '+', '-', '@', a tab or a carriage return, so that a spreadsheet
  // shows it as text instead of evaluating it as a formula. This changes
  // those values (it is not lossless), so it is off by default.
  bool guardFormulas = false;
};

struct ZYLDB_EXPORT TsvOptions {
  // Writing only: end lines with CRLF instead of LF. Readers accept both.
  bool crlf = false;
};

struct ZYLDB_EXPORT AleOptions {
  // Writing: the heading's FPS, VIDEO_FORMAT and AUDIO_FORMAT. An empty
  // string takes the table's parameter of that name (which an ALE read
  // sets), else the default: "24", "1080" and "48khz".
  std::string fps;
  std::string videoFormat;
  std::string audioFormat;
  // Writing only: end lines with CRLF instead of LF. Readers accept LF, CRLF
  // and CR.
  bool crlf = false;
};

// Options for loadFile and saveFile; each format reads only its own member.
struct ZYLDB_EXPORT Options {
  CsvOptions csv;
  TsvOptions tsv;
  AleOptions ale;
};

// ---- Readers ------------------------------------------------------------------
// Each returns a new valid table that the caller owns, or null with *err
// filled in. A leading UTF-8 byte-order mark is dropped.

// CSV: records separated by line ends; fields by the delimiter; a field may
// be quoted, and a quoted field holds delimiters, line ends (kept exactly as
// they are, CRLF included) and doubled quotes (one quote each). A quote
// inside an unquoted field is taken literally. Blank lines are skipped.
// A record with fewer fields than the header is padded with empty values; a
// record with more is an error unless the extra fields are all empty.
// Columns whose names contain "start" or "end" (ignoring case) are typed
// timecode, the others text, as for a log without a column header.
// Errors: an unterminated quoted field, a character after a closing quote
// other than a delimiter or line end, too many fields, more than 65535
// columns, a bad delimiter.
ZYLDB_EXPORT std::unique_ptr<zyldb> readCsv(std::string_view text, const CsvOptions& options,
                                            Error* err);

// TSV: the first line holds the column names, every further line is one row
// (a file's final line end does not start a row). Fields are separated by
// tabs; "\t", "\n", "\r" and "\\" stand for a tab, line feed, carriage return
// and backslash; any other backslash is taken literally. Row lengths and
// column types as for CSV. Empty text gives a table without columns.
ZYLDB_EXPORT std::unique_ptr<zyldb> readTsv(std::string_view text, Error* err);

// ALE: an optional "Heading" section of KEY<tab>VALUE lines, a "Column"
// section with one line of tab-separated column names and a "Data" section of
// tab-separated rows; section words ignore case, blank lines are skipped.
// Bytes are taken literally (ALE has no escapes), unless the heading holds
// the entry ESCAPES<tab>BACKSLASH that writeAle adds when it must: then
// names, values and heading entries are decoded as TSV's are. Columns are
// renamed and typed by the mapping of docs/FORMATS.md (Tape -> "Reel",
// Start -> "Start time" typed timecode, ...); unknown columns are kept as
// text columns. A row with fewer values than columns is padded with empty
// ones. Every heading entry but FIELD_DELIM and ESCAPES becomes a table
// parameter (FPS, VIDEO_FORMAT, AUDIO_FORMAT, ...). Errors: FIELD_DELIM other
// than TABS, a missing Column or Data section, a row with more non-empty
// values than columns, more heading entries than a table holds parameters.
ZYLDB_EXPORT std::unique_ptr<zyldb> readAle(std::string_view text, Error* err);

// ---- Writers --------------------------------------------------------------------

// Receives the output in order; returns false to stop the write (the writer
// then fails with "could not write the output").
using Sink = std::function<bool(std::string_view chunk)>;

// CSV: the names record (unless !options.header), then one record per
// visible row, each ended by LF or CRLF. A field is quoted when it holds the
// delimiter, a quote, CR or LF, when it begins or ends with a blank, or when
// it is the only field of a record and empty; quotes are doubled. Every
// value is carried exactly unless guardFormulas is set. A table without
// columns writes nothing. Fails only for a bad delimiter or a failing sink.
ZYLDB_EXPORT bool writeCsv(const ODBBase& rows, const CsvOptions& options, const Sink& sink,
                           Error* err);

// TSV: the names line, then one line per visible row; tab, LF, CR and
// backslash in names and values are written as "\t", "\n", "\r" and "\\".
// Every value is carried exactly. A table without columns writes nothing.
// Fails only for a failing sink.
ZYLDB_EXPORT bool writeTsv(const ODBBase& rows, const TsvOptions& options, const Sink& sink,
                           Error* err);

// ALE: Heading (FIELD_DELIM TABS, VIDEO_FORMAT, AUDIO_FORMAT, FPS, then the
// table's other parameters except "ZYLDB"), Column (names mapped back to
// ALE's, "Reel" -> Tape, ...) and Data, one line per visible row. Timecodes
// are written as stored. ALE cannot hold a tab, LF or CR in a value: when
// any name, value or parameter holds one, the heading declares ESCAPES
// BACKSLASH and everything is escaped as TSV does (readAle undoes it; other
// programs show the escapes as text). Otherwise every byte is written as it
// is. Reads the rows twice (once to look for those bytes). Fails for a table
// without columns, a column whose name is empty or blank (ALE cannot carry
// one), a table with more than 36 parameters besides FPS, VIDEO_FORMAT and
// AUDIO_FORMAT (the heading would not fit a table read back) and a failing
// sink.
ZYLDB_EXPORT bool writeAle(const ODBBase& rows, const AleOptions& options, const Sink& sink,
                           Error* err);

// ---- Files --------------------------------------------------------------------

// Reads the file at `path` (UTF-8) through the library's file layer and
// parses it as `format` (Csv, Tsv or Ale; Log loads it as zyldb's constructor
// does, strict header off). Returns the new table, owned by the caller, or
// null with *err filled in ("path: No such file or directory", or the
// parser's error prefixed with the path). Json and Unknown are refused.
ZYLDB_EXPORT std::unique_ptr<zyldb> loadFile(const std::string& path, Format format,
                                             const Options& options, Error* err);

// Writes `rows` to `path` as `format` (Csv, Tsv or Ale) through TextFile's
// safe save: the old file is replaced whole or not at all. Returns false
// with *err filled in when the writer or the save fails. Log, Json and
// Unknown are refused (a log is saved with zyldb::save_text or a view's
// saveAsText). Holds the whole output in memory once.
ZYLDB_EXPORT bool saveFile(const ODBBase& rows, const std::string& path, Format format,
                           const Options& options, Error* err);

// ---- Format names ---------------------------------------------------------------

// The format a file name's extension names, ignoring case: ".log", ".csv",
// ".tsv" (and ".tab"), ".ale", ".json"; Unknown for anything else, a name
// without an extension included.
ZYLDB_EXPORT Format formatFromExtension(std::string_view path);
// The format a word names, ignoring case ("log", "csv", "tsv", "ale",
// "json"); Unknown for anything else.
ZYLDB_EXPORT Format formatFromName(std::string_view name);
// The lower-case word for a format ("csv", ...); "unknown" for Unknown.
ZYLDB_EXPORT const char* formatName(Format format);

}  // namespace zyl::interchange
