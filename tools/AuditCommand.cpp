// zyldb audit: checks logs for overlapping clips, gaps, impossible codes,
// keycode lengths, duplicates and values a save would lose; prints the
// findings as text or JSON and can draw them as one HTML page.

#include <zyldb/audit/Audit.h>
#include <zyldb/platform/TextFile.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "Common.h"

namespace zyl::cli {

namespace {

namespace za = zyl::audit;

struct Audited {
  std::string path;
  za::Report report;
};

// "line 7", "lines 7 and 9", "lines 7, 9 and 12"; rows (1-based) when the
// lines are not known.
std::string placeText(const za::Finding& f) {
  std::vector<long> numbers;
  bool lines =
      !f.lines.empty() && std::all_of(f.lines.begin(), f.lines.end(), [](long l) { return l > 0; });
  if (lines)
    numbers = f.lines;
  else
    for (long r : f.rows) numbers.push_back(r + 1);
  std::sort(numbers.begin(), numbers.end());
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  if (numbers.empty()) return "";
  std::string word = lines ? "line" : "row";
  std::string out = numbers.size() == 1 ? word + " " : word + "s ";
  const size_t shownMax = 8;
  size_t shown = std::min(numbers.size(), shownMax);
  for (size_t i = 0; i < shown; ++i) {
    if (i > 0) out += (i + 1 == numbers.size()) ? " and " : ", ";
    out += std::to_string(numbers[i]);
  }
  if (numbers.size() > shown) out += " and " + std::to_string(numbers.size() - shown) + " more";
  return out;
}

std::string rateText(const za::Rate& r) {
  if (r.timebase == 0) return "unknown (" + r.how + ")";
  return r.name + " fps (" + r.how + ")";
}

std::string summaryText(const Audited& a) {
  const za::Report& r = a.report;
  std::string out = a.path + ": " + plural(r.rows, "clip", "clips") + ", " +
                    plural(r.errors, "error", "errors") + ", " +
                    plural(r.warnings, "warning", "warnings") + ", " +
                    plural(r.infos, "remark", "remarks") + "; picture " + rateText(r.picture);
  if (r.sound.timebase != 0) out += ", sound " + rateText(r.sound);
  return out;
}

void printText(const std::vector<Audited>& logs) {
  for (const Audited& a : logs) {
    for (const za::Finding& f : a.report.findings) {
      std::string place = placeText(f);
      std::cout << a.path << ": " << (place.empty() ? "" : place + ": ") << f.message << " ("
                << za::severityName(f.severity) << ")\n";
    }
    for (const std::string& note : a.report.notes)
      std::cout << a.path << ": note: " << note << "\n";
    std::cout << summaryText(a) << "\n";
  }
}

nlohmann::ordered_json rateJson(const za::Rate& r) {
  static const char* const kSources[] = {"none", "option", "parameter", "inferred"};
  nlohmann::ordered_json j;
  j["name"] = r.name;
  j["timebase"] = r.timebase;
  j["drop_frame"] = r.dropFrame;
  j["source"] = kSources[static_cast<int>(r.source)];
  j["how"] = r.how;
  return j;
}

void printJson(const std::vector<Audited>& logs) {
  nlohmann::ordered_json out;
  out["logs"] = nlohmann::ordered_json::array();
  for (const Audited& a : logs) {
    const za::Report& r = a.report;
    nlohmann::ordered_json j;
    j["file"] = a.path;
    j["clips"] = r.rows;
    j["errors"] = r.errors;
    j["warnings"] = r.warnings;
    j["infos"] = r.infos;
    j["picture_rate"] = rateJson(r.picture);
    j["sound_rate"] = rateJson(r.sound);
    j["pulldown"] = r.pulldown;
    j["frames_per_foot"] = r.framesPerFoot;
    j["notes"] = r.notes;
    j["findings"] = nlohmann::ordered_json::array();
    for (const za::Finding& f : r.findings) {
      nlohmann::ordered_json x;
      x["kind"] = za::kindName(f.kind);
      x["severity"] = za::severityName(f.severity);
      x["track"] = za::trackName(f.track);
      x["reel"] = f.reel;
      std::vector<long> rows;
      for (long row : f.rows) rows.push_back(row + 1);
      x["rows"] = rows;
      x["lines"] = f.lines;
      x["frame"] = f.frame;
      x["length"] = f.length;
      x["cells"] = nlohmann::ordered_json::array();
      for (const za::Cell& c : f.cells)
        x["cells"].push_back({{"row", c.row + 1}, {"column", c.column}, {"value", c.value}});
      x["message"] = f.message;
      j["findings"].push_back(std::move(x));
    }
    out["logs"].push_back(std::move(j));
  }
  // Invalid UTF-8 in a cell is replaced rather than refused.
  std::cout << out.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
}

// ---- HTML ------------------------------------------------------------------

std::string esc(std::string_view s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        // Control characters are not allowed in XML; show them as blanks.
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t')
          out.push_back(' ');
        else
          out.push_back(c);
    }
  }
  return out;
}

std::string num(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f", v);
  return buf;
}

// The label of frame `f` on a timeline, without frames ("01:02:03").
std::string clockText(int64_t f, const za::Timeline& t) {
  std::string d = za::labelText(f, t.timebase, t.dropFrame);
  return d.size() > 3 ? d.substr(0, d.size() - 3) : d;
}

const char* const kStyle = R"(
body { font: 14px/1.45 "DejaVu Sans", "Helvetica Neue", Arial, sans-serif; color: #1d2330;
       background: #f4f5f8; margin: 0; padding: 24px 32px; }
h1 { font-size: 22px; margin: 0 0 4px; }
h2 { font-size: 16px; margin: 0 0 6px; }
h2 small { font-weight: normal; color: #5b6475; margin-left: 8px; }
.log { background: #fff; border-radius: 8px; padding: 16px 20px; margin-bottom: 22px;
       box-shadow: 0 1px 3px rgba(20, 30, 50, 0.12); }
.summary { color: #3b4252; margin: 0 0 12px; }
.pill { display: inline-block; border-radius: 10px; padding: 0 9px; font-size: 12px;
        font-weight: bold; color: #fff; margin-right: 4px; }
.error { background: #d43c3c; } .warning { background: #d9891c; } .info { background: #4a79c4; }
.ok { background: #3b9b5b; }
.reel { margin: 10px 0 16px; }
svg { display: block; }
svg text { font-family: "DejaVu Sans", Arial, sans-serif; }
table { border-collapse: collapse; width: 100%; margin-top: 6px; }
th, td { text-align: left; padding: 5px 8px; border-bottom: 1px solid #e3e6ec; vertical-align: top; }
th { font-size: 12px; color: #5b6475; text-transform: uppercase; letter-spacing: 0.04em; }
td.where { white-space: nowrap; color: #3b4252; }
a { color: #245fb8; text-decoration: none; }
a:hover { text-decoration: underline; }
tr:target { background: #fff4c4; }
.legend span { display: inline-block; margin-right: 16px; font-size: 12px; color: #3b4252; }
.sw { display: inline-block; width: 18px; height: 10px; border-radius: 2px; margin-right: 5px;
      vertical-align: -1px; }
.notes { color: #5b6475; font-size: 13px; }
)";

class HtmlPage {
 public:
  std::string render(const std::vector<Audited>& logs);

 private:
  void renderLog(const Audited& a, size_t index);
  void renderTimeline(const za::Timeline& t, const za::Report& r, const std::string& prefix);

  std::ostringstream out_;
  int timelines_ = 0;
  // The bar of each (track, row), and the first finding of each.
  std::map<std::pair<za::Track, long>, std::string> bars_;
  std::map<std::pair<za::Track, long>, std::pair<std::string, za::Severity>> findingOf_;
};

std::string HtmlPage::render(const std::vector<Audited>& logs) {
  out_ << "<!DOCTYPE html>\n<html xmlns=\"http://www.w3.org/1999/xhtml\" lang=\"en\">\n<head>\n"
       << "<meta charset=\"utf-8\"/>\n<title>Audit of ";
  for (size_t i = 0; i < logs.size(); ++i) out_ << (i ? ", " : "") << esc(logs[i].path);
  out_ << "</title>\n<style>" << kStyle << "</style>\n</head>\n<body>\n";
  for (size_t i = 0; i < logs.size(); ++i) renderLog(logs[i], i);
  out_ << "</body>\n</html>\n";
  return out_.str();
}

void HtmlPage::renderLog(const Audited& a, size_t index) {
  const za::Report& r = a.report;
  const std::string prefix = "log" + std::to_string(index + 1) + "-";
  bars_.clear();
  findingOf_.clear();
  for (const za::Timeline& t : r.timelines)
    for (const za::Placement& p : t.clips)
      bars_[{t.track, p.row}] =
          prefix + (t.track == za::Track::Sound ? "snd-" : "pic-") + std::to_string(p.row + 1);
  for (size_t i = 0; i < r.findings.size(); ++i) {
    const za::Finding& f = r.findings[i];
    for (long row : f.rows) {
      za::Track track = f.track == za::Track::None ? za::Track::Picture : f.track;
      auto key = std::make_pair(track, row);
      auto it = findingOf_.find(key);
      // The most severe finding of a clip decides its colour.
      if (it == findingOf_.end() || f.severity < it->second.second)
        findingOf_[key] = {prefix + "finding-" + std::to_string(i + 1), f.severity};
    }
  }

  out_ << "<div class=\"log\">\n<h1>Audit of " << esc(a.path) << "</h1>\n<p class=\"summary\">";
  out_ << plural(r.rows, "clip", "clips") << " &#160; ";
  if (r.errors)
    out_ << "<span class=\"pill error\">" << plural(r.errors, "error", "errors") << "</span>";
  if (r.warnings)
    out_ << "<span class=\"pill warning\">" << plural(r.warnings, "warning", "warnings")
         << "</span>";
  if (r.infos)
    out_ << "<span class=\"pill info\">" << plural(r.infos, "remark", "remarks") << "</span>";
  if (r.findings.empty()) out_ << "<span class=\"pill ok\">no findings</span>";
  out_ << "<br/>Picture: " << esc(rateText(r.picture));
  if (r.sound.timebase != 0) out_ << " &#183; Sound: " << esc(rateText(r.sound));
  out_ << " &#183; Keycodes: " << r.framesPerFoot << " frames a foot, pulldown " << esc(r.pulldown)
       << "</p>\n";
  out_ << "<p class=\"legend\"><span><i class=\"sw\" style=\"background:#5b7fb0\"></i>clip</span>"
       << "<span><i class=\"sw\" style=\"background:#d43c3c\"></i>overlap / error</span>"
       << "<span><i class=\"sw\" style=\"background:#d9891c\"></i>warning</span>"
       << "<span><i class=\"sw\" style=\"background:#c9ced8\"></i>gap</span></p>\n";

  for (const za::Timeline& t : r.timelines) renderTimeline(t, r, prefix);
  if (r.timelines.empty())
    out_ << "<p class=\"notes\">No reel has clips with usable timecodes.</p>\n";

  if (!r.notes.empty()) {
    out_ << "<ul class=\"notes\">\n";
    for (const std::string& n : r.notes) out_ << "<li>" << esc(n) << "</li>\n";
    out_ << "</ul>\n";
  }
  if (!r.findings.empty()) {
    out_ << "<table>\n<tr><th>Severity</th><th>Where</th><th>Kind</th><th>Finding</th></tr>\n";
    for (size_t i = 0; i < r.findings.size(); ++i) {
      const za::Finding& f = r.findings[i];
      za::Track track = f.track == za::Track::None ? za::Track::Picture : f.track;
      out_ << "<tr id=\"" << prefix << "finding-" << i + 1 << "\"><td><span class=\"pill "
           << za::severityName(f.severity) << "\">" << za::severityName(f.severity)
           << "</span></td><td class=\"where\">" << esc(placeText(f)) << "</td><td>"
           << za::kindName(f.kind) << "</td><td>" << esc(f.message);
      std::set<long> linked;
      for (long row : f.rows) {
        auto bar = bars_.find({track, row});
        if (bar == bars_.end() || !linked.insert(row).second) continue;
        out_ << " <a href=\"#" << bar->second << "\">[clip " << row + 1 << "]</a>";
      }
      out_ << "</td></tr>\n";
    }
    out_ << "</table>\n";
  }
  out_ << "</div>\n";
}

void HtmlPage::renderTimeline(const za::Timeline& t, const za::Report& r,
                              const std::string& prefix) {
  if (t.clips.empty()) return;
  const double width = 1280, left = 12, right = 12, top = 30, lane = 30, barHeight = 22;
  int64_t t0 = t.clips.front().start, t1 = t0;
  for (const za::Placement& p : t.clips) t1 = std::max(t1, p.end);
  if (t1 <= t0) t1 = t0 + 1;
  auto x = [&](int64_t f) {
    return left +
           static_cast<double>(f - t0) / static_cast<double>(t1 - t0) * (width - left - right);
  };
  // Lanes: each clip goes to the first lane free at its start, so that
  // overlapping clips stack instead of hiding each other.
  std::vector<int64_t> laneEnds;
  std::vector<size_t> laneOf(t.clips.size());
  for (size_t i = 0; i < t.clips.size(); ++i) {
    size_t l = 0;
    while (l < laneEnds.size() && laneEnds[l] > t.clips[i].start) ++l;
    if (l == laneEnds.size()) laneEnds.push_back(0);
    laneEnds[l] = t.clips[i].end;
    laneOf[i] = l;
  }
  const double height = top + static_cast<double>(laneEnds.size()) * lane + 8;
  const bool sound = t.track == za::Track::Sound;
  const std::string hatch = prefix + "hatch-" + std::to_string(++timelines_);

  out_ << "<div class=\"reel\">\n<h2>" << (sound ? "Sound reel " : "Reel ") << esc(t.reel)
       << "<small>" << plural(static_cast<long>(t.clips.size()), "clip", "clips") << " &#183; "
       << za::labelText(t0, t.timebase, t.dropFrame) << " to "
       << za::labelText(t1, t.timebase, t.dropFrame) << "</small></h2>\n";
  out_ << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\""
       << num(height) << "\" viewBox=\"0 0 " << width << " " << num(height) << "\">\n";
  out_ << "<defs><pattern id=\"" << hatch << "\" width=\"8\" height=\"8\" "
       << "patternUnits=\"userSpaceOnUse\" patternTransform=\"rotate(45)\">"
       << "<rect width=\"8\" height=\"8\" fill=\"#eceef2\"/>"
       << "<line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"8\" stroke=\"#c9ced8\" stroke-width=\"4\"/>"
       << "</pattern></defs>\n";
  out_ << "<rect x=\"0\" y=\"0\" width=\"" << width << "\" height=\"" << num(height)
       << "\" fill=\"#fafbfc\" rx=\"4\"/>\n";

  // Ticks: a round step giving about eight of them.
  static const int kSteps[] = {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200};
  int64_t span = t1 - t0, step = static_cast<int64_t>(kSteps[0]) * t.timebase;
  for (int s : kSteps) {
    step = static_cast<int64_t>(s) * t.timebase;
    if (span / step <= 8) break;
  }
  for (int64_t f = (t0 / step + 1) * step; f < t1; f += step) {
    if (x(f) < left + 30 || x(f) > width - right - 30) continue;  // keep the labels inside
    out_ << "<line x1=\"" << num(x(f)) << "\" y1=\"18\" x2=\"" << num(x(f)) << "\" y2=\""
         << num(height - 4) << "\" stroke=\"#e1e4ea\"/>"
         << "<text x=\"" << num(x(f)) << "\" y=\"13\" font-size=\"10\" fill=\"#7a8294\" "
         << "text-anchor=\"middle\">" << clockText(f, t) << "</text>\n";
  }

  // Gaps and overlaps of this reel, under the bars.
  std::vector<std::pair<int64_t, int64_t>> overlaps;
  for (size_t i = 0; i < r.findings.size(); ++i) {
    const za::Finding& f = r.findings[i];
    if (f.reel != t.reel || f.track != t.track) continue;
    if (f.kind == za::Kind::Gap) {
      double a = x(f.frame), b = x(f.frame + f.length);
      out_ << "<a href=\"#" << prefix << "finding-" << i + 1 << "\"><rect x=\"" << num(a)
           << "\" y=\"" << num(top - 4) << "\" width=\"" << num(b - a) << "\" height=\""
           << num(height - top) << "\" fill=\"url(#" << hatch << ")\"><title>" << esc(f.message)
           << "</title></rect>";
      if (b - a > 90)
        out_ << "<text x=\"" << num((a + b) / 2) << "\" y=\"" << num(top + 15)
             << "\" font-size=\"11\" fill=\"#5b6475\" text-anchor=\"middle\">gap "
             << za::durationText(f.length, t.timebase) << "</text>";
      out_ << "</a>\n";
    }
    if (f.kind == za::Kind::Overlap) overlaps.emplace_back(f.frame, f.frame + f.length);
  }

  for (size_t i = 0; i < t.clips.size(); ++i) {
    const za::Placement& p = t.clips[i];
    double a = x(p.start), b = std::max(x(p.end), a + 2);
    double y = top + static_cast<double>(laneOf[i]) * lane;
    std::string id = bars_[{t.track, p.row}];
    auto finding = findingOf_.find({t.track, p.row});
    std::string fill = "#5b7fb0", stroke = "#41618f";
    if (finding != findingOf_.end() && finding->second.second == za::Severity::Error)
      fill = "#e06666", stroke = "#b52f2f";
    else if (finding != findingOf_.end() && finding->second.second == za::Severity::Warning)
      fill = "#e8a43c", stroke = "#b87714";
    out_ << "<g id=\"" << id << "\">";
    if (finding != findingOf_.end()) out_ << "<a href=\"#" << finding->second.first << "\">";
    out_ << "<clipPath id=\"" << id << "-clip\"><rect x=\"" << num(a) << "\" y=\"" << num(y)
         << "\" width=\"" << num(b - a) << "\" height=\"" << barHeight << "\"/></clipPath>"
         << "<rect class=\"bar\" x=\"" << num(a) << "\" y=\"" << num(y) << "\" width=\""
         << num(b - a) << "\" height=\"" << barHeight << "\" rx=\"3\" fill=\"" << fill
         << "\" stroke=\"" << stroke << "\"><title>" << esc(p.name) << " "
         << za::durationText(p.start, t.timebase) << " to " << za::durationText(p.end, t.timebase)
         << "</title></rect>"
         << "<text x=\"" << num(a + 5) << "\" y=\"" << num(y + 15)
         << "\" font-size=\"12\" fill=\"#fff\" clip-path=\"url(#" << id << "-clip)\">"
         << esc(p.name) << "</text>";
    if (finding != findingOf_.end()) out_ << "</a>";
    out_ << "</g>\n";
  }
  // Overlaps on top, so that they show over both bars.
  for (auto [from, to] : overlaps) {
    double a = x(from), b = std::max(x(to), a + 2);
    out_ << "<rect x=\"" << num(a) << "\" y=\"" << num(top - 3) << "\" width=\"" << num(b - a)
         << "\" height=\"" << num(height - top - 2)
         << "\" fill=\"#d43c3c\" fill-opacity=\"0.35\" stroke=\"#d43c3c\"/>\n";
  }
  out_ << "</svg>\n</div>\n";
}

void writeHtml(const std::string& path, const std::vector<Audited>& logs) {
  std::string html = HtmlPage().render(logs);
  TextFile file;
  size_t start = 0;
  while (start < html.size()) {
    size_t end = html.find('\n', start);
    if (end == std::string::npos) end = html.size();
    file.appendLine(std::string_view(html).substr(start, end - start));
    start = end + 1;
  }
  if (!file.save(widePath(path), TextFile::eLF)) throw Failure("cannot write " + path);
}

int runAudit(const ParsedArgs& args) {
  if (args.positional.empty()) throw UsageError("missing LOG");
  za::Options options;
  za::Rate rate;
  if (args.has("fps")) {
    options.fps = args.get("fps");
    if (!za::parseRate(options.fps, &rate))
      throw UsageError("--fps: \"" + options.fps +
                       "\" is not a frame rate (23.976, 24, 25, 29.97, 30, 50, 59.94, 60)");
  }
  if (args.has("gap")) {
    std::string text = args.get("gap");
    char* end = nullptr;
    double seconds = std::strtod(text.c_str(), &end);
    if (text.empty() || end == nullptr || *end != '\0' || !(seconds >= 0) || seconds > 1e7)
      throw UsageError("--gap: \"" + text + "\" is not a number of seconds");
    options.gapSeconds = seconds;
  }
  std::string format = args.get("format", "text");
  if (format != "text" && format != "json")
    throw UsageError("--format: \"" + format + "\" is neither text nor json");
  options.keepTimelines = args.has("html");

  int status = 0;
  std::vector<Audited> audited;
  for (const std::string& path : args.positional) {
    OpenLog log = openLog(path);
    for (const Problem& p : log.problems) std::cerr << log.describe(p) << "\n";
    if (log.failed()) {
      status = 1;
      continue;
    }
    options.tableRowLines = za::recordLines(widePath(path));
    Audited a{path, za::audit(*log.table, options)};
    if (a.report.errors > 0) status = 1;
    audited.push_back(std::move(a));
  }
  if (format == "json")
    printJson(audited);
  else
    printText(audited);
  if (args.has("html")) writeHtml(args.get("html"), audited);
  return status;
}

}  // namespace

Command auditCommand() {
  return {{"audit",
           "LOG... [options]",
           "check logs for overlaps, gaps and impossible codes",
           "Checks each log as an editor needs it before the edit: clips of a reel whose "
           "timecodes overlap (picture, and sound on the sound reel), gaps longer than --gap "
           "between clips, ends before starts and half-empty ranges, timecodes impossible at the "
           "frame rate, keycode ranges whose length disagrees with the timecodes, names and "
           "identifiers used twice, and values a save would not give back. Prints one line per "
           "finding with its file and lines, sorted by reel and time, then a summary.",
           {{"fps", 0, "RATE",
             "the frame rate of the timecodes: 23.976, 24, 25, 29.97, 30, 50, 59.94 or 60 "
             "(default: the log's \"fps\" parameter, else inferred from the timecodes)"},
            {"gap", 0, "SECONDS", "report gaps longer than this on a reel (default 60)"},
            {"format", 0, "FORMAT", "text (default) or json"},
            {"html", 0, "OUT.html", "also write a page with a timeline per reel and the findings"}},
           "Severities: an error is something the edit will trip over (overlaps, impossible "
           "codes, duplicate identifiers, values lost on saving); a warning needs a look "
           "(half-empty ranges, keycode lengths, duplicate names); a remark is for information "
           "(gaps). Keycodes are counted at 16 frames a foot (35 mm 4-perf) with 3:2 pulldown "
           "at 29.97 and 30 fps.\n\n"
           "Exit status: 0 when no log has an error, 1 when one has or cannot be read, 2 on a "
           "usage error.\n"},
          runAudit};
}

}  // namespace zyl::cli
