#include <gtest/gtest.h>
#include <zyldb/platform/configb.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace {

class ConfigIntTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unsetenv("ZYLDB_TEST_KEY_1");
    unsetenv("ZYLDB_CONFIG");
    std::remove(file_.c_str());
  }
  void writeConfig(const std::string& text) {
    std::ofstream(file_) << text;
    setenv("ZYLDB_CONFIG", file_.c_str(), 1);
  }
  std::string file_ = "/tmp/zyldb_config_test_" + std::to_string(getpid()) + ".conf";
};

TEST_F(ConfigIntTest, EnvironmentThenFileThenDefault) {
  EXPECT_EQ(config_int("test.key-1", 5), 5);
  writeConfig("# settings\nother = 1\n  TEST.KEY-1 = 12  # twelve\n");
  EXPECT_EQ(config_int("test.key-1", 5), 12);
  setenv("ZYLDB_TEST_KEY_1", " -3 ", 1);
  EXPECT_EQ(config_int("test.key-1", 5), -3);
  setenv("ZYLDB_TEST_KEY_1", "3x", 1);  // not an integer: next source
  EXPECT_EQ(config_int("test.key-1", 5), 12);
  writeConfig("test.key-1 = 99999999999\n");  // out of int range
  EXPECT_EQ(config_int("test.key-1", 5), 5);
}

}  // namespace
