// Logging, zyl_splat, SystemWatchdog, GrowString and AssocList.
#include <gtest/gtest.h>
#include <zyldb/platform/AssocList.h>
#include <zyldb/platform/GrowString.h>
#include <zyldb/platform/Logging.h>
#include <zyldb/platform/SystemWatchdog.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

TEST(LoggingTest, SinkReceivesFormattedMessagesElseStderr) {
  std::vector<std::pair<zyl::LogLevel, std::string>> got;
  zyl::setLogSink([&](zyl::LogLevel level, const char* msg) { got.emplace_back(level, msg); });
  vorn_printf("zyldb::read_text:  Warning: zyldb is revision %d, current level is %d\n", 2, 1);
  LogBoth("%s\n", std::string(2000, 'x').c_str());  // longer than any fixed buffer
  zyl::LogSink previous = zyl::setLogSink(nullptr);
  EXPECT_TRUE(previous);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].first, zyl::LogLevel::kLog);
  EXPECT_EQ(got[0].second, "zyldb::read_text:  Warning: zyldb is revision 2, current level is 1\n");
  EXPECT_EQ(got[1].first, zyl::LogLevel::kUser);
  EXPECT_EQ(got[1].second.size(), 2001u);
  testing::internal::CaptureStderr();
  vorn_printf("to stderr %d\n", 7);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "to stderr 7\n");
}

TEST(LoggingTest, SplatHandlerAndDefaultAbort) {
  std::string text;
  zyl::setSplatHandler([&](const char* t) { text = t; });
  zyl_splat("ODBViewRep::sortIndex(), not implemented!\n");
  EXPECT_EQ(text, "ODBViewRep::sortIndex(), not implemented!\n");
  zyl::setSplatHandler(nullptr);
  EXPECT_DEATH(zyl_splat("fatal thing"), "zyl_splat: fatal thing");
}

TEST(SystemWatchdogTest, HookHearsOutermostBracketsPerThread) {
  std::vector<bool> events;
  SystemWatchdog::setHook([&](bool on) { events.push_back(on); });
  {
    SystemWatchdog::LifeSupport outer;
    SystemWatchdog::beginLifeSupport();
    EXPECT_EQ(SystemWatchdog::depth(), 2);
    std::thread([] { EXPECT_EQ(SystemWatchdog::depth(), 0); }).join();
    SystemWatchdog::endLifeSupport();
  }
  SystemWatchdog::endLifeSupport();  // unmatched: ignored
  EXPECT_EQ(SystemWatchdog::depth(), 0);
  SystemWatchdog::setHook(nullptr);
  SystemWatchdog::beginLifeSupport();
  SystemWatchdog::endLifeSupport();
  EXPECT_EQ(events, (std::vector<bool>{true, false}));
}

TEST(GrowStringTest, AppendsFormattedText) {
  GrowString g;
  g << "a" << LightweightString<char>("b") << 'c' << -12LL;
  g.appendf("[%05.1f|%s]", 3.14159, "x");
  g.appendf("%s", std::string(600, 'y').c_str());
  EXPECT_EQ(g.view().substr(0, 15), "abc-12[003.1|x]");
  EXPECT_EQ(g.str().size(), 15u + 600u);
}

TEST(AssocListTest, CaseInsensitiveInsertionOrdered) {
  using LS = LightweightString<char>;
  AssocList l;
  l[LS("Name")].set(LS("Bin 1"));
  l[LS("ZYLDB")];
  l[LS("name")].set(LS("Bin 2"));
  ASSERT_EQ(l.size(), 2u);
  EXPECT_EQ(l.begin()->key, "Name");
  EXPECT_EQ(l.find(LS("NAME"))->value, "Bin 2");
  const AssocList::Entry* z = l.find(LS("zyldb"));
  ASSERT_NE(z, nullptr);
  EXPECT_FALSE(z->hasValue);
  EXPECT_EQ(l.find(LS("other")), nullptr);
}

}  // namespace
