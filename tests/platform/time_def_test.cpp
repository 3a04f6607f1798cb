#include <gtest/gtest.h>
#include <zyldb/platform/time_def.h>

namespace {

TEST(TimeDefTest, ConversionTable) {
  struct Case {
    const char* text;
    int type;
    bool valid;
    const char *punctuated, *database;
  } cases[] = {
      {"01000012D", eLabelTimecode, true, "01:00:00;12", "01000012D"},
      {"01000012d", eLabelSoundTimecode, true, "01:00:00;12", "01000012D"},
      {"  10:09:59:29 ", eLabelNone, true, "10:09:59:29", "10095929"},
      {"01.02.03,04", eLabelTimecode, true, "01:02:03;04", "01020304D"},
      // invalid: passes through, trimmed
      {"24:00:00:00", eLabelTimecode, false, "24:00:00:00", "24:00:00:00"},
      {" 01:00:00 ", eLabelTimecode, false, "01:00:00", "01:00:00"},
      {"01:00:00:123", eLabelTimecode, false, "01:00:00:123", "01:00:00:123"},
      {"01000012X", eLabelTimecode, false, "01000012X", "01000012X"},
      // other label types keep their text
      {" KJ 12 3456+07 ", eLabelKeycode, false, "KJ 12 3456+07", "KJ 12 3456+07"},
  };
  for (const Case& c : cases) {
    time_def t(c.text, c.type);
    EXPECT_EQ(t.isValid(), c.valid) << c.text;
    EXPECT_EQ(t.get_punctuated_str(), c.punctuated) << c.text;
    EXPECT_EQ(t.get_database_str(), c.database) << c.text;
  }
  EXPECT_TRUE(time_def(nullptr, eLabelTimecode).get_database_str().empty());
}

TEST(TimeDefTest, EveryValidTimecodeRoundTrips) {
  for (int h : {0, 1, 23})
    for (int m : {0, 9, 59})
      for (int s : {0, 30, 59})
        for (int f : {0, 1, 29, 59})
          for (bool drop : {false, true}) {
            char text[16];
            std::snprintf(text, sizeof text, "%02d:%02d:%02d%c%02d", h, m, s, drop ? ';' : ':', f);
            time_def a(text, eLabelTimecode);
            ASSERT_TRUE(a.isValid()) << text;
            EXPECT_EQ(a.isDropFrame(), drop);
            time_def back(a.get_database_str().c_str(), eLabelTimecode);
            EXPECT_EQ(back.get_punctuated_str(), text);
          }
}

}  // namespace
