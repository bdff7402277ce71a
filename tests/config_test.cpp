#include <gtest/gtest.h>

#include <cutils/properties.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "NoxConfig.h"
#include "TestLog.h"

namespace {

class FeatureSwitchTest : public ::testing::Test {
 protected:
  void SetUp() override { property_host_reset(); }
  void TearDown() override { property_host_reset(); }
  // Known features that a fresh NoxConfig reports on, as bits 0..2.
  static int enabledBits() {
    NoxConfig config;
    int bits = 0;
    for (int f = NOX_FEATURE_FDMGR; f <= NOX_FEATURE_NSRM; ++f)
      bits |= config.isEnabled(static_cast<NoxFeatureType>(f)) << f;
    return bits;
  }
  static int bitsFor(const char* mask) {
    property_set("persist.nox.feature", mask);
    return enabledBits();
  }
  LogCapture log;
};

TEST_F(FeatureSwitchTest, MaskFromProperty) {
  EXPECT_EQ(0, enabledBits());
  EXPECT_TRUE(log.has("|CONFIG| NoxConfig::NoxConfig nFeatureEnableMask_ 0"));
  EXPECT_EQ(3, bitsFor("0x3"));
  EXPECT_EQ(4, bitsFor("12"));  // bit 3 is no feature
  EXPECT_EQ(7, bitsFor("07"));
  EXPECT_EQ(0, bitsFor("on"));
}

TEST_F(FeatureSwitchTest, UnknownFeatureIsOffAndLogged) {
  property_set("persist.nox.feature", "0xff");
  EXPECT_FALSE(NoxConfig().isEnabled(static_cast<NoxFeatureType>(3)));
  EXPECT_TRUE(log.has("|CONFIG| NoxConfig::isEnabled: Feature 3 not known"));
}

class ConfigParserTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char path[] = "/tmp/noxcfgXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    control.fileName = path;
    control.tags = {{"MODE", 1}, {"TIMEOUT", 2}};
  }
  void TearDown() override { unlink(control.fileName.c_str()); }
  NoxRetType parse(const std::string& content) {
    std::ofstream(control.fileName, std::ios::binary | std::ios::trunc) << content;
    return NoxBaseConfig().parseConfigFile(control, result);
  }
  using Result = std::map<int, std::string>;

  LogCapture log;
  NoxConfigParseControl control;
  Result result = {{9, "previous"}};
};

TEST_F(ConfigParserTest, NoMatchOrMissingFileLeavesResultUntouched) {
  EXPECT_EQ(NOX_RET_PARSER_NO_MATCH, parse("# MODE:on\nOTHER:1\nmode:on\n\n"));
  EXPECT_EQ((Result{{9, "previous"}}), result);
  EXPECT_TRUE(log.has("|CONFIG| NoxConfig::parseConfigFile: Couldn't find any valid tag from file " +
                      control.fileName));
  unlink(control.fileName.c_str());
  EXPECT_EQ(NOX_RET_ERR_OPENING_FILE, NoxBaseConfig().parseConfigFile(control, result));
  EXPECT_EQ((Result{{9, "previous"}}), result);
}

TEST_F(ConfigParserTest, MatchReplacesResultFirstLineWinsValueKeepsNewline) {
  EXPECT_EQ(NOX_RET_OK, parse(" \tMODE: fast \nTIMEOUT :5\nMODE:off\n"));
  EXPECT_EQ((Result{{1, " fast \n"}}), result);  // blank before the colon: no match
}

TEST_F(ConfigParserTest, LongLineIsReadAsSeveral) {
  // 256 characters end the first chunk; "MODE:x\n" is read as a line of its own.
  EXPECT_EQ(NOX_RET_OK, parse("TIMEOUT:" + std::string(248, 'a') + "MODE:x\n"));
  EXPECT_EQ((Result{{1, "x\n"}, {2, std::string(248, 'a')}}), result);
}

TEST_F(ConfigParserTest, BlankOnlyLastLineIsSkipped) {
  EXPECT_EQ(NOX_RET_OK, parse("MODE:on\n \t "));
  EXPECT_EQ((Result{{1, "on\n"}}), result);
}

}  // namespace
