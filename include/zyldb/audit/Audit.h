#pragma once

// Audit: checks a clip log for what an editor would trip over before the
// edit starts, and reports each problem as a finding a person can act on.
//
// audit() reads a table or a view (any ODBBase) and returns plain structs
// and vectors, so that hosts and language bindings can use the result as it
// stands. What is checked, by the columns the log has (names compared
// ignoring case):
//  * Overlaps: two clips of one reel ("Reel" or "Tape") whose "Start
//    time".."End time" ranges share frames; the same for "snd start".."snd
//    end" on the sound reel ("snd reel", else the picture reel). An end code
//    is the first frame after the clip, so a clip ending where the next one
//    starts does not overlap it.
//  * Gaps: stretches of a reel covered by no clip, longer than
//    Options::gapSeconds (information, not an error).
//  * Ranges: an end before its start (or equal to it), or one of the two
//    empty while the other is set, for the picture and sound timecodes and
//    the keycodes.
//  * Impossible codes: text in a timecode column that is not a timecode,
//    frames at or above the rate, drop-frame labels that do not exist
//    (frames 00 and 01 of every minute not divisible by ten at 29.97, 00 to
//    03 at 59.94), drop-frame labels at a rate without drop-frame; keycodes
//    that cannot be read or whose frame count is not below the frames per
//    foot.
//  * Keycode length: a start..end keycode range whose length in film frames,
//    at the stated pulldown, differs from the picture timecode duration by
//    more than Options::keycodeToleranceFrames.
//  * Duplicates: two rows with the same "Name" (ignoring case) or the same
//    identifier ("Cookie").
//  * Values a save would not give back: each cell is written and read back
//    with the record's own line writer and reader (dbrecord::write/read), and
//    a first column holding "ZYLDB", which the loader takes for a header
//    line, is flagged.
//
// The frame rate of the picture timecodes comes from Options::fps, else from
// a parameter of the log that names one ("fps", "frame rate", ...), else it
// is inferred from the labels (drop-frame separators, the largest frame
// number seen); Report::picture says which. The sound rate is found the same
// way (Options::soundFps, a "sound fps" parameter, the sound labels).
//
// Cost: O(n log n) for n rows (one sort per reel and one for each duplicate
// check), otherwise linear passes over the cells; it reads every cell once
// or twice and copies only the few columns it orders. It never changes the
// source. Threads: as for the source (one thread at a time).

#include <zyldb/export.h>
#include <zyldb/platform/LightweightString.h>

#include <cstdint>
#include <string>
#include <vector>

class ODBBase;
class TextFile;

namespace zyl::audit {

enum class Kind {
  Overlap,             // error: two clips of a reel share frames
  Gap,                 // info: a stretch of a reel longer than the threshold is covered by no clip
  ReversedRange,       // error: end before start; warning: end equal to start
  MissingPartner,      // warning: start set and end empty, or the other way round
  ImpossibleTimecode,  // error: not a timecode, or a label that cannot exist at the rate
  ImpossibleKeycode,   // error: a keycode that cannot be read, or frames past a foot
  KeycodeMismatch,     // warning: keycode length disagrees with the timecode duration
  DuplicateName,       // warning: the same name on two rows or more
  DuplicateId,         // error: the same identifier on two rows or more
  UnsavableValue,      // error: a value the log's save would not give back
};

enum class Severity { Error, Warning, Info };

// Which timecodes a finding concerns.
enum class Track { None, Picture, Sound };

// A column and the value it held on one row of a finding.
struct Cell {
  long row = -1;  // the source row (0-based)
  std::string column;
  std::string value;
};

struct Finding {
  Kind kind = Kind::Overlap;
  Severity severity = Severity::Error;
  Track track = Track::None;
  // The source rows concerned (0-based, as ODBBase numbers them: the view's
  // rows for a view), in the order the message names them.
  std::vector<long> rows;
  // The file line (1-based) of each row, 0 when unknown; same size as rows.
  std::vector<long> lines;
  // The columns and values involved.
  std::vector<Cell> cells;
  // The reel (or sound reel) concerned; empty when the finding has none.
  std::string reel;
  // Where on the reel it happens, in frames from 00:00:00:00 at the rate;
  // -1 when it is not about a place on a reel.
  int64_t frame = -1;
  // The frames it concerns (the overlap or the gap); 0 when none.
  int64_t length = 0;
  // A sentence in a person's words, without file or line: "001 12-3B
  // overlaps 12-3A by 00:00:01:12".
  std::string message;
};

// A frame rate as the audit uses it.
struct Rate {
  std::string name;        // "29.97", "25", ...; empty when no rate was found
  int timebase = 0;        // frames counted per labelled second: 24, 25, 30, 50, 60
  bool dropFrame = false;  // drop-frame labels exist at this rate (29.97, 59.94)
  enum class Source { None, Option, Parameter, Inferred } source = Source::None;
  // How it was chosen, in words: "from the option --fps", "from the log's
  // parameter \"fps\"", "inferred from drop-frame separators and frames up to
  // 29", "no timecodes to infer it from".
  std::string how;
};

// A clip placed on a reel's timeline.
struct Placement {
  long row = -1;               // the source row
  int64_t start = 0, end = 0;  // frames at the timeline's rate; end is the first frame after
  std::string name;            // the clip's name ("row N" when it has none)
};

// The clips of one reel with good, ordered timecodes, by start.
struct Timeline {
  std::string reel;
  Track track = Track::Picture;
  int timebase = 0;        // of the rate the frames count at
  bool dropFrame = false;  // the reel's labels are drop-frame (taken from its first clip)
  std::vector<Placement> clips;
};

struct Options {
  // The picture rate: "23.976", "24", "25", "29.97", "30", "50", "59.94",
  // "60" (a "DF"/"NDF" suffix and blanks are allowed and ignored). Empty:
  // from the log's parameters, else inferred.
  std::string fps;
  // The sound timecodes' rate, as fps; empty: a sound rate parameter, else
  // inferred from the sound timecodes.
  std::string soundFps;
  // Gaps longer than this many seconds (of labelled time) are reported; a
  // negative value reports none.
  double gapSeconds = 60;
  // Film frames per foot of the keycodes: 16 for 35 mm 4-perf, 32 for 35 mm
  // 2-perf, 40 for 16 mm.
  int framesPerFoot = 16;
  // Video frames per film frame, as a fraction: 5/4 for 3:2 pulldown
  // (24 fps film on 30-frame video), 1/1 when every film frame is one video
  // frame. 0/0: chosen from the picture rate (5/4 at a 30-frame
  // timebase, 5/2 at 60, else 1/1).
  int pulldownVideo = 0;
  int pulldownFilm = 0;
  // A keycode length may differ from the timecode duration by this many
  // video frames before it is reported (cadence rounding).
  double keycodeToleranceFrames = 1;
  // The file line of each table row (see recordLines); empty when the
  // table did not come from a file. Looked up by the row of the table that
  // each source row stands for.
  std::vector<long> tableRowLines;
  // Fill Report::timelines (a copy of every placed clip's name and range).
  bool keepTimelines = false;
};

struct Report {
  std::vector<Finding> findings;  // sorted: by reel and frame, then by first row
  Rate picture;                   // the rate of "Start time"/"End time"
  Rate sound;                     // the rate of "snd start"/"snd end"
  int framesPerFoot = 16;
  std::string pulldown;  // "3:2 (5 video frames per 4 film frames)", ...
  // What could not be checked and why ("no Reel column: overlaps and gaps
  // are not checked").
  std::vector<std::string> notes;
  // With Options::keepTimelines: picture reels by name, then sound reels.
  std::vector<Timeline> timelines;
  long rows = 0;
  long errors = 0, warnings = 0, infos = 0;
};

// Audits the rows of `source` (a table or a view). Never throws for bad
// values; a bad option (an unknown fps text, frames per foot below 1) gives
// a report with no findings and a note saying what is wrong. Memory
// exhaustion raises as the library does.
ZYLDB_EXPORT Report audit(ODBBase& source, const Options& options = Options());

// The file line (1-based) of every row that loading `file` as a log (or as
// comma-separated text with `csv`) gives, in row order, found by the rules
// the loader follows; rows past the last one the file holds are not listed.
// Costs one pass over the lines, reading only a line's start except for
// lines that begin with "ZYLDB".
ZYLDB_EXPORT std::vector<long> recordLines(const TextFile& file, bool csv);
// The same for the file named `fileName` (".csv" at its end means
// comma-separated, as for the loader); empty when it cannot be read.
ZYLDB_EXPORT std::vector<long> recordLines(const LightweightString<wchar_t>& fileName);

// Parses a rate text as Options::fps takes it; false when it is not one.
ZYLDB_EXPORT bool parseRate(const std::string& text, Rate* out);

// `frames` as a duration "HH:MM:SS:FF" at `timebase` frames a second
// (negative durations get a leading '-').
ZYLDB_EXPORT std::string durationText(int64_t frames, int timebase);

// The label of frame `frame` counted from 00:00:00:00 at `timebase`:
// "HH:MM:SS:FF", or drop-frame "HH:MM:SS;FF" when `dropFrame` (at a 30 or
// 60 frame timebase); the inverse of reading a label. Hours wrap at 24.
ZYLDB_EXPORT std::string labelText(int64_t frame, int timebase, bool dropFrame);

// Lower-case names for output: "overlap", "gap", "reversed-range",
// "missing-partner", "impossible-timecode", "impossible-keycode",
// "keycode-mismatch", "duplicate-name", "duplicate-id", "unsavable-value";
// "error", "warning", "info"; "", "picture", "sound".
ZYLDB_EXPORT const char* kindName(Kind kind);
ZYLDB_EXPORT const char* severityName(Severity severity);
ZYLDB_EXPORT const char* trackName(Track track);

}  // namespace zyl::audit
