// Audit: hand-written logs with one kind of problem each, both sides of
// every threshold, and a clean log that yields nothing.

#include <gtest/gtest.h>
#include <unistd.h>
#include <zyldb/audit/Audit.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/platform/TextUtil.h>
#include <zyldb/view/ODBView.h>

#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "audit/Audit_internal.h"

namespace zyl::audit {
namespace {

// A log file with the audited columns; each row is Name, Reel, Start time,
// End time, snd start, snd end, snd reel, start keycode, end keycode, Cookie.
class AuditTest : public ::testing::Test {
 protected:
  struct Row {
    std::string name, reel, start, end, sndStart = "", sndEnd = "", sndReel = "", kcStart = "",
                                        kcEnd = "", cookie = "";
  };

  void TearDown() override {
    if (!path_.empty()) ::unlink(path_.c_str());
  }

  Report run(const std::vector<Row>& rows, Options options = Options(),
             const std::vector<std::string>& params = {}) {
    path_ = ::testing::TempDir() + "audit_test_" + std::to_string(::getpid()) + ".log";
    std::ofstream out(path_);
    out << "\"ZYLDB:Rev 1\"\n";
    for (const std::string& p : params) out << "\"" << p << "\"\n";
    out << "\"ZYLDB\"\n"
        << "\"8\",\"8\",\"12\",\"12\",\"12\",\"12\",\"8\",\"20\",\"20\",\"8\"\n"
        << "\"text\",\"text\",\"timecode\",\"timecode\",\"timecode\",\"timecode\",\"text\","
           "\"text\",\"text\",\"text\"\n"
        << "\"Name\",\"Reel\",\"Start time\",\"End time\",\"snd start\",\"snd end\",\"snd "
           "reel\",\"start keycode\",\"end keycode\",\"Cookie\"\n";
    for (const Row& r : rows)
      out << '"' << r.name << "\",\"" << r.reel << "\",\"" << r.start << "\",\"" << r.end << "\",\""
          << r.sndStart << "\",\"" << r.sndEnd << "\",\"" << r.sndReel << "\",\"" << r.kcStart
          << "\",\"" << r.kcEnd << "\",\"" << r.cookie << "\"\n";
    out.close();
    table_ = std::make_unique<zyldb>(fromUTF8(LightweightString<char>(path_)), 1 << 30, true);
    EXPECT_TRUE(table_->get_valid());
    EXPECT_EQ(table_->get_num_records(), rows.size());
    options.tableRowLines = recordLines(fromUTF8(LightweightString<char>(path_)));
    return audit(*table_, options);
  }

  static std::vector<const Finding*> ofKind(const Report& r, Kind kind) {
    std::vector<const Finding*> out;
    for (const Finding& f : r.findings)
      if (f.kind == kind) out.push_back(&f);
    return out;
  }

  std::string path_;
  std::unique_ptr<zyldb> table_;
};

TEST_F(AuditTest, CleanLogHasNoFindings) {
  Report r = run({
      {"1A", "001", "01:00:00:00", "01:00:10:00", "10:00:00:00", "10:00:10:00", "S1",
       "KU 12 3456 1000+00", "KU 12 3456 1015+00", "C1"},
      {"1B", "001", "01:00:10:00", "01:00:20:00", "10:00:10:00", "10:00:20:00", "S1",
       "KU 12 3456 1015+00", "KU 12 3456 1030+00", "C2"},
      {"2A", "002", "02:00:00:00", "02:00:05:00"},
  });
  EXPECT_TRUE(r.findings.empty()) << r.findings.front().message;
  EXPECT_TRUE(r.notes.empty());
  EXPECT_EQ(r.rows, 3);
  EXPECT_EQ(r.picture.name, "24");
  EXPECT_EQ(r.picture.source, Rate::Source::Inferred);
}

TEST_F(AuditTest, ExampleLogIsClean) {
  zyldb table(fromUTF8(LightweightString<char>(ZYLDB_SOURCE_DIR "/examples/clips.log")), 1 << 30,
              true);
  ASSERT_TRUE(table.get_valid());
  Report r = audit(table);
  for (const Finding& f : r.findings) ADD_FAILURE() << f.message;
  EXPECT_EQ(r.picture.name, "29.97");
  EXPECT_EQ(r.pulldown.substr(0, 3), "3:2");
}

TEST_F(AuditTest, OverlapsOnOneReelOnlyWithLinesAndAmount) {
  Report r = run({
      {"12-3A", "A001", "01:00:00:00", "01:00:10:00"},
      {"12-3B", "A001", "01:00:08:18", "01:00:20:00"},  // overlaps 12-3A by 1:12
      {"12-3C", "A001", "01:00:20:00", "01:00:30:00"},  // touches 12-3B: no overlap
      {"9-1A", "A002", "01:00:05:00", "01:00:06:29"},   // another reel
  });
  auto overlaps = ofKind(r, Kind::Overlap);
  ASSERT_EQ(overlaps.size(), 1u);
  const Finding& f = *overlaps[0];
  EXPECT_EQ(f.message, "A001 12-3B overlaps 12-3A by 00:00:01:12");
  EXPECT_EQ(f.severity, Severity::Error);
  EXPECT_EQ(f.rows, (std::vector<long>{0, 1}));
  EXPECT_EQ(f.lines, (std::vector<long>{6, 7}));
  EXPECT_EQ(f.length, 42);
  EXPECT_EQ(f.reel, "A001");
  EXPECT_EQ(f.track, Track::Picture);
  ASSERT_EQ(f.cells.size(), 4u);
  EXPECT_EQ(f.cells[2].column, "Start time");
  EXPECT_EQ(f.cells[2].value, "01:00:08:18");
  EXPECT_EQ(r.errors, 1);
}

TEST_F(AuditTest, ContainedClipsAndLogOrderDoNotMatter) {
  // Out of order in the log; C lies inside A, D overlaps A (which reaches
  // furthest), not C.
  Report r = run({
      {"D", "R", "01:00:50:00", "01:01:10:00"},
      {"A", "R", "01:00:00:00", "01:01:00:00"},
      {"C", "R", "01:00:10:00", "01:00:20:00"},
  });
  auto overlaps = ofKind(r, Kind::Overlap);
  ASSERT_EQ(overlaps.size(), 2u);
  EXPECT_EQ(overlaps[0]->message, "R C overlaps A by 00:00:10:00");
  EXPECT_EQ(overlaps[1]->message, "R D overlaps A by 00:00:10:00");
}

TEST_F(AuditTest, SoundOverlapsUseTheSoundReel) {
  Report r = run({
      {"1A", "001", "01:00:00:00", "01:00:10:00", "10:00:00:00", "10:00:10:00", "S1"},
      {"1B", "002", "02:00:00:00", "02:00:10:00", "10:00:09:00", "10:00:20:00", "S1"},
      {"1C", "003", "03:00:00:00", "03:00:10:00", "10:00:15:00", "10:00:20:00", "S2"},
  });
  auto overlaps = ofKind(r, Kind::Overlap);
  ASSERT_EQ(overlaps.size(), 1u);
  EXPECT_EQ(overlaps[0]->track, Track::Sound);
  EXPECT_EQ(overlaps[0]->message, "S1 (sound) 1B overlaps 1A by 00:00:01:00");
}

TEST_F(AuditTest, GapThresholdBothSides) {
  Options o;
  o.gapSeconds = 10;
  o.fps = "30";
  Report r = run(
      {
          {"A", "R", "01:00:00:00", "01:00:10:00"},
          {"B", "R", "01:00:20:00", "01:00:30:00"},  // gap of exactly 10 s: none
          {"C", "R", "01:00:40:01", "01:00:50:00"},  // 10 s and a frame: a gap
      },
      o);
  auto gaps = ofKind(r, Kind::Gap);
  ASSERT_EQ(gaps.size(), 1u);
  EXPECT_EQ(gaps[0]->severity, Severity::Info);
  EXPECT_EQ(gaps[0]->message, "R gap of 00:00:10:01 between B and C");
  EXPECT_EQ(gaps[0]->length, 301);
  EXPECT_EQ(r.errors, 0);

  o.gapSeconds = -1;
  EXPECT_TRUE(ofKind(run({{"A", "R", "01:00:00:00", "01:00:01:00"},
                          {"B", "R", "02:00:00:00", "02:00:01:00"}},
                         o),
                     Kind::Gap)
                  .empty());
}

TEST_F(AuditTest, ReversedAndHalfEmptyRanges) {
  Report r = run({
      {"back", "R", "01:00:10:00", "01:00:00:00"},
      {"zero", "R", "01:00:20:00", "01:00:20:00"},
      {"nostart", "R", "", "01:00:30:00"},
      {"noend", "R", "01:00:40:00", ""},
      {"kc", "R", "", "", "", "", "", "KU 1 2 100+00", "KU 1 2 90+00"},
      {"kc2", "R", "", "", "", "", "", "KU 1 2 100+00", ""},
  });
  auto reversed = ofKind(r, Kind::ReversedRange);
  ASSERT_EQ(reversed.size(), 3u);
  EXPECT_EQ(reversed[0]->message, "back ends before it starts: end 01:00:00:00, start 01:00:10:00");
  EXPECT_EQ(reversed[0]->severity, Severity::Error);
  EXPECT_EQ(reversed[1]->message, "zero ends where it starts: end 01:00:20:00, start 01:00:20:00");
  EXPECT_EQ(reversed[1]->severity, Severity::Warning);
  EXPECT_EQ(reversed[2]->message,
            "kc ends before it starts: end keycode KU 1 2 90+00, start KU 1 2 100+00");
  auto missing = ofKind(r, Kind::MissingPartner);
  ASSERT_EQ(missing.size(), 3u);
  EXPECT_EQ(missing[0]->message, "nostart has a End time but no Start time");
  EXPECT_EQ(missing[1]->message, "noend has a Start time but no End time");
  EXPECT_EQ(missing[2]->message, "kc2 has a start keycode but no end keycode");
}

TEST_F(AuditTest, DropFrameBoundaries) {
  Options o;
  o.fps = "29.97";
  o.gapSeconds = -1;
  Report r = run(
      {
          {"a", "R1", "01:01:00;00", "01:01:00;10"},  // 00 of minute 1: impossible
          {"b", "R2", "01:01:00;01", "01:01:00;10"},  // 01: impossible
          {"c", "R3", "01:01:00;02", "01:01:00;10"},  // 02: exists
          {"d", "R4", "01:10:00;00", "01:10:00;10"},  // minute 10 keeps 00
          {"e", "R5", "01:00:59;29", "01:01:01;00"},  // last frame of minute 0
          {"f", "R6", "01:01:00:00", "01:01:01:00"},  // non-drop label: fine
      },
      o);
  auto bad = ofKind(r, Kind::ImpossibleTimecode);
  ASSERT_EQ(bad.size(), 2u);
  EXPECT_EQ(bad[0]->message,
            "a: Start time 01:01:00;00 does not exist at 29.97 drop-frame (frames 00 and 01 of "
            "minute 01 are skipped)");
  EXPECT_EQ(bad[1]->rows, std::vector<long>{1});
  EXPECT_EQ(r.picture.source, Rate::Source::Option);
  EXPECT_EQ(r.findings.size(), 2u);

  // Across the skipped labels, 01:00:59;29 to 01:01:00;02 is one frame.
  Options p;
  p.fps = "59.94";
  Report q =
      run({{"g", "R", "01:01:00;03", "01:01:00;10"}, {"h", "S", "01:01:00;04", "01:01:01;00"}}, p);
  ASSERT_EQ(ofKind(q, Kind::ImpossibleTimecode).size(), 1u);
  EXPECT_EQ(ofKind(q, Kind::ImpossibleTimecode)[0]->rows, std::vector<long>{0});
}

TEST_F(AuditTest, DropFrameDurationsSkipTheDroppedLabels) {
  Report r =
      run({{"a", "R", "01:00:59;28", "01:01:00;04"}, {"b", "R", "01:01:00;03", "01:02:00;02"}});
  auto overlaps = ofKind(r, Kind::Overlap);
  ASSERT_EQ(overlaps.size(), 1u);
  EXPECT_EQ(overlaps[0]->length, 1);  // only 01:01:00;03 is shared
}

TEST_F(AuditTest, FramesAtOrAboveTheRateAndBadText) {
  Options o;
  o.fps = "25";
  Report r = run(
      {
          {"ok", "R1", "01:00:00:24", "01:00:01:00"},
          {"high", "R2", "01:00:00:25", "01:00:01:00"},
          {"drop", "R3", "01:00:00;10", "01:00:01:00"},
          {"text", "R4", "soon", "01:00:01:00"},
          {"range", "R5", "01:61:00:00", "01:62:00:00"},
      },
      o);
  auto bad = ofKind(r, Kind::ImpossibleTimecode);
  ASSERT_EQ(bad.size(), 5u);
  EXPECT_EQ(bad[0]->message,
            "high: Start time 01:00:00:25 frame 25 does not exist at 25 fps (frames 00 to 24)");
  EXPECT_EQ(bad[1]->message,
            "drop: Start time 01:00:00;10 is a drop-frame label, and 25 fps has no drop-frame");
  EXPECT_EQ(bad[2]->message, "text: Start time soon is not a timecode (HH:MM:SS:FF)");
  EXPECT_EQ(bad[3]->rows, std::vector<long>{4});
  EXPECT_EQ(bad[4]->rows, std::vector<long>{4});
  // Rows with impossible codes take no part in overlaps.
  EXPECT_TRUE(ofKind(r, Kind::Overlap).empty());
}

TEST_F(AuditTest, RateFromOptionParameterOrInference) {
  std::vector<Row> rows = {{"a", "R", "01:00:00:10", "01:00:00:20"}};
  EXPECT_EQ(run(rows).picture.name, "24");
  EXPECT_EQ(run(rows, Options(), {"fps:25"}).picture.name, "25");
  EXPECT_EQ(run(rows, Options(), {"fps:25"}).picture.source, Rate::Source::Parameter);
  Options o;
  o.fps = "23.976";
  Report r = run(rows, o, {"Frame rate:25"});
  EXPECT_EQ(r.picture.name, "23.976");
  EXPECT_EQ(r.picture.timebase, 24);

  Report bad = run(rows, Options(), {"fps:fast"});
  EXPECT_EQ(bad.picture.source, Rate::Source::Inferred);
  ASSERT_EQ(bad.notes.size(), 1u);

  EXPECT_EQ(run({{"a", "R", "01:00:00;29", "01:00:01;00"}}).picture.name, "29.97");
  EXPECT_EQ(run({{"a", "R", "01:00:00:24", "01:00:01:00"}}).picture.name, "25");
  EXPECT_EQ(run({{"a", "R", "01:00:00:49", "01:00:01:00"}}).picture.name, "50");
  EXPECT_EQ(run({{"a", "R", "01:00:00;59", "01:00:01;00"}}).picture.name, "59.94");
  EXPECT_EQ(run({{"a", "R", "", ""}}).picture.source, Rate::Source::None);

  o.fps = "31";
  Report none = run(rows, o);
  EXPECT_TRUE(none.findings.empty());
  ASSERT_EQ(none.notes.size(), 1u);
}

TEST_F(AuditTest, KeycodeLengthAgainstTimecodeDuration) {
  // 10 s at 30 fps = 300 video frames = 240 film frames at 3:2 = 15 feet.
  Options o;
  o.fps = "29.97";
  Report r = run(
      {
          {"ok", "R1", "01:00:00:00", "01:00:10:00", "", "", "", "KU 1 2 1000+00",
           "KU 1 2 1015+00"},
          {"within", "R2", "01:00:00:00", "01:00:10:01", "", "", "", "KU 1 2 1000+00",
           "KU 1 2 1015+00"},  // one video frame off: tolerated
          {"off", "R3", "01:00:00:00", "01:00:10:02", "", "", "", "KU 1 2 1000+00",
           "KU 1 2 1015+00"},  // two off: reported
          {"rolls", "R4", "01:00:00:00", "01:00:10:00", "", "", "", "KU 1 2 1000+00",
           "KU 1 3 1015+00"},
          {"frame16", "R5", "01:00:00:00", "01:00:10:00", "", "", "", "KU 1 2 1000+16",
           "KU 1 2 1015+00"},
          {"junk", "R6", "01:00:00:00", "01:00:10:00", "", "", "", "twelve", "KU 1 2 1015+00"},
      },
      o);
  auto mismatch = ofKind(r, Kind::KeycodeMismatch);
  ASSERT_EQ(mismatch.size(), 2u);
  EXPECT_EQ(mismatch[0]->message,
            "off: the keycodes span 240 film frames (300 video frames), the timecodes "
            "00:00:10:02 (302 frames)");
  EXPECT_EQ(mismatch[1]->message, "rolls: the keycodes are on different rolls (KU 1 2 and KU 1 3)");
  auto bad = ofKind(r, Kind::ImpossibleKeycode);
  ASSERT_EQ(bad.size(), 2u);
  EXPECT_EQ(bad[0]->message,
            "frame16: start keycode KU 1 2 1000+16 has frame 16, but a foot "
            "holds 16 frames");
  EXPECT_EQ(bad[1]->rows, std::vector<long>{5});

  // 16 mm without pulldown: 40 frames a foot, one video frame per film frame.
  o.fps = "24";
  o.framesPerFoot = 40;
  Report s = run({{"a", "R", "01:00:00:00", "01:00:10:00", "", "", "", "A 100+00", "A 106+00"}}, o);
  EXPECT_TRUE(s.findings.empty());
  EXPECT_EQ(s.pulldown, "none (one video frame per film frame)");
}

TEST_F(AuditTest, DuplicateNamesAndIdentifiers) {
  Report r = run({
      {"12-1A", "R", "", "", "", "", "", "", "", "C1"},
      {"12-1a", "R", "", "", "", "", "", "", "", "C2"},
      {"12-1B", "R", "", "", "", "", "", "", "", "C1"},
      {"", "R", "", "", "", "", "", "", "", ""},
      {"", "R", "", "", "", "", "", "", "", ""},
  });
  auto names = ofKind(r, Kind::DuplicateName);
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(names[0]->rows, (std::vector<long>{0, 1}));
  EXPECT_EQ(names[0]->severity, Severity::Warning);
  EXPECT_EQ(names[0]->message, "the name 12-1A is used by 2 rows");
  auto ids = ofKind(r, Kind::DuplicateId);
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_EQ(ids[0]->message, "the identifier C1 is used by 2 rows (12-1A and 12-1B)");
  EXPECT_EQ(ids[0]->severity, Severity::Error);
  EXPECT_EQ(ids[0]->lines, (std::vector<long>{6, 8}));
}

TEST_F(AuditTest, ValuesASaveWouldNotGiveBack) {
  run({{"a", "R", "", ""}, {"b", "R", "", ""}, {"c", "R", "", ""}});
  table_->setField(0, 0, LightweightString<char>(" padded"));
  table_->setField(1, 1, LightweightString<char>("a\rb"));
  table_->setField(2, 0, LightweightString<char>("zyldb"));
  Report r = audit(*table_);
  auto lost = ofKind(r, Kind::UnsavableValue);
  ASSERT_EQ(lost.size(), 3u);
  EXPECT_EQ(lost[0]->message,
            "padded: the Name value \" padded\" would come back from a save as \"padded\"");
  EXPECT_EQ(lost[1]->message, "b: the Reel value \"a\\rb\" would come back from a save as \"ab\"");
  EXPECT_EQ(lost[2]->cells[0].value, "zyldb");
  EXPECT_EQ(r.errors, 3);
}

// The fast rule must agree with the plain round trip on every value.
TEST(AuditSaveRule, FastPathAgreesWithRoundTrip) {
  std::vector<std::string> values = {"",
                                     "plain",
                                     "with, comma",
                                     "say \"hi\"",
                                     " lead",
                                     "trail ",
                                     "\tx",
                                     "a\nb",
                                     "a\n",
                                     "\na",
                                     "back\\slash",
                                     "back\\n",
                                     "a\rb",
                                     "ctl\x01",
                                     std::string(4095, 'x'),
                                     std::string(4096, 'y'),
                                     "\xc3\xa9t\xc3\xa9",
                                     "\"",
                                     "\"\"",
                                     "x\"",
                                     "a\\",
                                     std::string("nul\0x", 5)};
  unsigned seed = 7;
  const char alphabet[] = "ab ,\"\\n\r\t\x01\x7f";
  for (int i = 0; i < 2000; ++i) {
    std::string v;
    int len = static_cast<int>((seed = seed * 1103515245u + 12345u) >> 16) % 6;
    for (int k = 0; k < len; ++k)
      v.push_back(alphabet[((seed = seed * 1103515245u + 12345u) >> 16) % (sizeof alphabet - 1)]);
    values.push_back(v);
  }
  for (const std::string& v : values) {
    LightweightString<char> s{std::string_view(v)};
    EXPECT_EQ(detail::survivesSave(s), detail::survivesSaveSlow(s)) << '"' << v << '"';
  }
  EXPECT_TRUE(detail::isHeaderWord(" ZyLdB "));
  EXPECT_FALSE(detail::isHeaderWord("ZYLDB:Rev 1"));
}

TEST_F(AuditTest, ViewsAuditTheirOwnRowsAndFindTheirLines) {
  run({{"A", "R", "01:00:00:00", "01:00:10:00"},
       {"B", "R", "01:00:05:00", "01:00:20:00"},
       {"C", "R", "01:00:30:00", "01:00:40:00"}});
  ODBViewRep* view = new ODBViewRep(table_.get());
  ODBView handle(view);
  view->append(2);
  view->append(1);
  Options o;
  o.tableRowLines = recordLines(fromUTF8(LightweightString<char>(path_)));
  Report r = audit(*view, o);
  EXPECT_EQ(r.rows, 2);
  EXPECT_TRUE(ofKind(r, Kind::Overlap).empty());  // A is not in the view
  view->append(0);
  r = audit(*view, o);
  auto overlaps = ofKind(r, Kind::Overlap);
  ASSERT_EQ(overlaps.size(), 1u);
  EXPECT_EQ(overlaps[0]->rows, (std::vector<long>{2, 1}));  // view rows of A and B
  EXPECT_EQ(overlaps[0]->lines, (std::vector<long>{6, 7}));
}

TEST(AuditText, Names) {
  EXPECT_STREQ(kindName(Kind::UnsavableValue), "unsavable-value");
  EXPECT_EQ(durationText(42, 30), "00:00:01:12");
  EXPECT_EQ(durationText(-25 * 3600, 25), "-01:00:00:00");
  Rate r;
  EXPECT_TRUE(parseRate(" 29.97 DF", &r));
  EXPECT_TRUE(r.dropFrame);
  EXPECT_TRUE(parseRate("25fps", &r));
  EXPECT_EQ(r.timebase, 25);
  EXPECT_FALSE(parseRate("29", &r));
}

}  // namespace
}  // namespace zyl::audit

namespace zyl::audit {
namespace {

// The direct reading of "HH:MM:SS:FF" must agree with the platform parser.
TEST(AuditLabels, FastParseAgreesWithTimeDef) {
  std::vector<std::string> texts = {
      "01:00:00:00", "23:59:59;29", "24:00:00:00", "00:60:00:00",  "00:00:60:00",
      "00:00:00:60", "00:00:00:59", "1:00:00:00",  " 01:00:00:00", "01:00:00,10",
      "01.00.00.10", "01000010D",   "0a:00:00:00", "01:00:00:0",   "",
      "99:99:99:99"};
  unsigned seed = 3;
  const char digits[] = "0123456789:;";
  for (int i = 0; i < 3000; ++i) {
    std::string t;
    for (int k = 0; k < 11; ++k) {
      seed = seed * 1103515245u + 12345u;
      t.push_back(k == 2 || k == 5 || k == 8 ? digits[10 + (seed >> 16) % 2]
                                             : digits[(seed >> 16) % 10]);
    }
    texts.push_back(t);
  }
  for (const std::string& t : texts) {
    LightweightString<char> s{std::string_view(t)};
    detail::LabelParts a, b;
    bool fast = detail::parseLabel(s, &a), slow = detail::parseLabelSlow(s, &b);
    ASSERT_EQ(fast, slow) << t;
    if (!fast) continue;
    EXPECT_EQ(std::tie(a.h, a.m, a.s, a.f, a.drop), std::tie(b.h, b.m, b.s, b.f, b.drop)) << t;
  }
}

}  // namespace
}  // namespace zyl::audit

namespace zyl::audit {
namespace {

// Frame numbers and labels both ways, around the drop-frame minute rollover
// and at 59.94.
TEST(AuditLabels, LabelTextInvertsTheFrameCount) {
  struct Case {
    int64_t frame;
    int timebase;
    bool drop;
    const char* label;
  } cases[] = {
      {1799, 30, true, "00:00:59;29"},   {1800, 30, true, "00:01:00;02"},
      {17981, 30, true, "00:09:59;29"},  {17982, 30, true, "00:10:00;00"},
      {107892, 30, true, "01:00:00;00"}, {3599, 60, true, "00:00:59;59"},
      {3600, 60, true, "00:01:00;04"},   {90000, 25, false, "01:00:00:00"},
      {86399, 24, false, "00:59:59:23"},
  };
  for (const Case& c : cases) EXPECT_EQ(labelText(c.frame, c.timebase, c.drop), c.label);
  // Every label of the first eleven minutes at 29.97 drop-frame reads back
  // as the frame it was made from.
  LightweightString<char> text;
  for (int64_t f = 0; f < 11 * 1800; ++f) {
    std::string l = labelText(f, 30, true);
    detail::LabelParts p;
    ASSERT_TRUE(detail::parseLabel(LightweightString<char>(l), &p)) << l;
    int64_t minutes = p.h * 60 + p.m;
    ASSERT_EQ((minutes * 60 + p.s) * 30 + p.f - 2 * (minutes - minutes / 10), f) << l;
  }
}

}  // namespace
}  // namespace zyl::audit
