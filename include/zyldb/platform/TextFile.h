#pragma once

// TextFile: a text file held in memory as a list of lines, loaded and saved
// whole. Lines are stored without their line ends. Readers walk it with the
// public current-line counter `currentLine`.
//
// Loading accepts LF and CRLF line ends alike (a CR right before the LF is
// dropped) and keeps a last line that has no line end.
//
// Saving (the safe save every writer of the library goes through):
//  * A regular file (or a new one) is never left half-written: the text goes
//    to a temporary file beside it, which is flushed (fsync) and then
//    renamed over it. The temporary is named <name>.zyltmp.<pid>.<n>; when
//    that would pass the 255-byte limit of a file name, <name> is cut and a
//    hash of the whole name added ("~" and 8 hex digits), so every name up
//    to the limit can be saved and temporaries stay unique.
//  * A symbolic link stays a link: the file at the end of its chain is
//    replaced as above (a dangling link gets its target created).
//  * A pipe, terminal or device (anything that exists and is neither a
//    regular file nor a directory) is written directly, never renamed over.
//  * A regular file with several hard links is rewritten in place, so that
//    every link sees the new text. The cost: that rewrite is not atomic. The
//    full text is first written to a temporary as above; a failed rewrite
//    renames that temporary over the name saved to (this name then holds
//    the new text, the other links what the failed rewrite left, and save()
//    returns false); a process killed during the rewrite leaves a torn file
//    under every link and the temporary beside it.
//  * Temporaries that killed saves left (their process is gone) beside the
//    file are removed by the next save of the same file; strayTemporaries()
//    lists them. Every failure removes the save's own temporary, memory
//    exhaustion during the save included.
//  * Names are kept byte for byte, also when not valid UTF-8 (see
//    zyl::pathFromBytes in OS.h).
//
// A TextFile is used by one thread at a time.

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class ZYLDB_EXPORT TextFile {
 public:
  // Line-end styles for save(): 0 the platform's (LF here), 1 LF, 2 CRLF.
  enum eEOLStyle { eNative = 0, eLF = 1, eCRLF = 2 };

  TextFile();

  // Replaces the lines with those of the file `name`; `separator` is the
  // line-end character ('\n'); the bool is unused. Resets currentLine to 0.
  // Returns false (and holds no lines) when the file cannot be read.
  // A UTF-8 byte-order mark at the start of the file is dropped. A name that
  // is not a regular file (a FIFO, a device) is refused without blocking;
  // notRegularFile() then tells so.
  bool load(const LightweightString<wchar_t>& name, char separator = '\n', bool unused = false);
  // True when the last load() failed because the name is not a regular file.
  bool notRegularFile() const { return notRegular_; }

  // Writes every line followed by the style's line end, atomically as
  // described above. Returns false when the file could not be written (the
  // old file, if any, is then unchanged and no temporary file is left).
  // With LF line ends the lines' own buffer is written, the line ends put in
  // place for the while: no other thread may read the file meanwhile. The
  // lines are the same afterwards, whatever the result.
  bool save(const LightweightString<wchar_t>& name, eEOLStyle style = eLF) const;

  // The temporaries beside `name` (links followed) that saves no longer
  // running left behind, as paths; empty when there are none or the
  // directory cannot be read. Temporaries of this process are never listed.
  // Costs one directory listing.
  static std::vector<LightweightString<wchar_t>> strayTemporaries(
      const LightweightString<wchar_t>& name);

  // Unlinks the temporary files of every save in progress in this process
  // (at most 16 at once are tracked), so that a program interrupted by a
  // signal leaves none behind. Async-signal-safe: meant for SIGINT and
  // SIGTERM handlers, which should then end the process (the interrupted
  // saves fail; their targets are unchanged).
  static void removePendingTemporaries() noexcept;

  // The number of save() calls on the calling thread that returned true, so
  // that a caller whose own result cannot tell can learn whether its save
  // was written.
  static uint64_t successfulSaves() noexcept;

  // Memory exhaustion leaves the file as it was.
  void appendLine(const LightweightString<char>& line);
  void appendLine(const std::string& line);
  void appendLine(std::string_view line);
  // Resolves appendLine("literal"), which the two above make ambiguous; null
  // appends an empty line.
  void appendLine(const char* line) {
    appendLine(line ? std::string_view(line) : std::string_view());
  }

  // Makes room for `lines` more lines holding `bytes` bytes of text in all,
  // so that appending them moves no text. A large room is made resident at
  // once (cheaper than page by page as it fills). Changes no line.
  void reserve(size_t lines, size_t bytes);

  // Builds one line in place at the end of the file, without an intermediate
  // copy: the bytes appended to the builder are the line's, and finish()
  // adds the line. A builder destroyed without finish() (memory exhaustion
  // while building, say) leaves the file as it was. While a builder is
  // alive, its file may not be used otherwise.
  class ZYLDB_EXPORT LineBuilder {
   public:
    explicit LineBuilder(TextFile& f) : file_(f), start_(f.buf_.size()) {}
    LineBuilder(const LineBuilder&) = delete;
    LineBuilder& operator=(const LineBuilder&) = delete;
    ~LineBuilder() {
      if (!finished_) file_.buf_.resize(start_);
    }

    void append(std::string_view s) { file_.buf_.append(s); }
    // Appends n bytes for the caller to fill in place and returns the first;
    // valid until the builder is next used.
    char* extend(size_t n) {
      const size_t at = file_.buf_.size();
      file_.buf_.resize(at + n);
      return file_.buf_.data() + at;
    }
    // Removes the last n bytes. REQUIRES: n <= the bytes appended so far.
    void shrink(size_t n) { file_.buf_.resize(file_.buf_.size() - n); }
    // Adds the line. REQUIRES: not called before on this builder.
    void finish();

   private:
    TextFile& file_;
    size_t start_;
    bool finished_ = false;
  };

  // Line n as NUL-terminated text; "" for n at or past the end. Valid until
  // the file is next changed. A NUL byte inside a line ends the text here.
  const char* line(unsigned int n) const;
  // The length of line n in bytes (NULs included); 0 past the end.
  size_t lineLength(unsigned int n) const;
  // Line n as a string (a copy); the empty string past the end.
  LightweightString<char> operator[](unsigned int n) const;

  // The bytes held: every line and one terminator per line (the size of the
  // file save() writes with LF line ends).
  size_t byteSize() const { return buf_.size(); }
  // The offset of line n within those bytes; byteSize() at or past the end.
  size_t lineOffset(unsigned int n) const { return n < starts_.size() ? starts_[n] : buf_.size(); }

  unsigned int getNumLines() const { return static_cast<unsigned int>(starts_.size()); }
  unsigned int size() const { return getNumLines(); }
  void clear();

  // The number of the next line a reader takes.
  uint32_t currentLine = 0;
  uint32_t getCurrentLine() const { return currentLine; }
  void setCurrentLine(uint32_t n) { currentLine = n; }

 private:
  // Writes `size` bytes to a temporary file beside `name` and renames it
  // over `name`; on failure removes the temporary file and returns false.
  static bool writeAtomically(const LightweightString<wchar_t>& name, const char* text,
                              size_t size);

  // Every line followed by one NUL. save() turns those NULs into line feeds
  // while it writes and back before it returns.
  mutable std::string buf_;
  std::vector<size_t> starts_;  // offset of each line in buf_
  bool notRegular_ = false;
};
