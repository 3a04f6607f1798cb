// Logging, zyl_splat and SystemWatchdog.
#include <gtest/gtest.h>
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
  EXPECT_TRUE(zyl::setLogSink(nullptr));            // gives back the previous sink
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(
      got[0],
      std::pair(
          zyl::LogLevel::kLog,
          std::string("zyldb::read_text:  Warning: zyldb is revision 2, current level is 1\n")));
  EXPECT_EQ(got[1], std::pair(zyl::LogLevel::kUser, std::string(2000, 'x') + "\n"));
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
  SystemWatchdog::setHook(nullptr);
  EXPECT_EQ(events, (std::vector<bool>{true, false}));
}

}  // namespace
