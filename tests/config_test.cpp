#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>

#include "NoxConfig.h"
#include "TestLog.h"

namespace {

using Result = std::map<int, std::string>;

// Known features a fresh NoxConfig reports on, as bits 0..2, for a mask property (null: unset).
int enabledBits(const char* mask) {
  property_host_reset();
  if (mask != nullptr) property_set("persist.nox.feature", mask);
  NoxConfig config;
  int bits = 0;
  for (int f = NOX_FEATURE_FDMGR; f <= NOX_FEATURE_NSRM; ++f)
    bits |= config.isEnabled(static_cast<NoxFeatureType>(f)) << f;
  EXPECT_FALSE(config.isEnabled(static_cast<NoxFeatureType>(3)));
  EXPECT_FALSE(config.isEnabled(static_cast<NoxFeatureType>(-1)));
  property_host_reset();
  return bits;
}

TEST(FeatureSwitchTest, MaskFromProperty) {
  LogCapture log;
  EXPECT_EQ(0, enabledBits(nullptr));
  EXPECT_TRUE(log.has("|CONFIG| NoxConfig::NoxConfig nFeatureEnableMask_ 0"));
  EXPECT_TRUE(log.has("|CONFIG| NoxConfig::isEnabled: Feature 3 not known"));
  EXPECT_EQ(3, enabledBits("0x3"));
  EXPECT_EQ(4, enabledBits("12"));  // bit 3 is no feature
  EXPECT_EQ(7, enabledBits("07"));
  EXPECT_EQ(0, enabledBits("on"));
}

TEST(ConfigParserTest, EdgeCases) {
  LogCapture log;
  char path[] = "/tmp/noxcfgXXXXXX";
  close(mkstemp(path));
  const NoxConfigParseControl control{path, {{"MODE", 1}, {"TIMEOUT", 2}}};
  Result result = {{9, "previous"}};
  const struct {
    std::string content;
    NoxRetType ret;
    Result after;
  } cases[] = {
      {"# MODE:on\nOTHER:1\nmode:on\n\n", NOX_RET_PARSER_NO_MATCH, {{9, "previous"}}},
      // Blanks before the tag are trimmed, a blank before the colon is not; the first line
      // for a tag wins; the value keeps its newline; the result is replaced.
      {" \tMODE: fast \nTIMEOUT :5\nMODE:off\n", NOX_RET_OK, {{1, " fast \n"}}},
      // 256 characters end the first chunk; "MODE:x\n" is read as a line of its own.
      {"TIMEOUT:" + std::string(248, 'a') + "MODE:x\n",
       NOX_RET_OK,
       {{1, "x\n"}, {2, std::string(248, 'a')}}},
      {"MODE:on\n \t ", NOX_RET_OK, {{1, "on\n"}}},  // a blank-only last line is skipped
  };
  for (const auto& c : cases) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << c.content;
    EXPECT_EQ(c.ret, NoxBaseConfig().parseConfigFile(control, result)) << c.content;
    EXPECT_EQ(c.after, result) << c.content;
  }
  EXPECT_EQ(1, log.count("|CONFIG| NoxConfig::parseConfigFile: Couldn't find any valid tag from "
                         "file " +
                         control.fileName));
  unlink(path);
  EXPECT_EQ(NOX_RET_ERR_OPENING_FILE, NoxBaseConfig().parseConfigFile(control, result));
  EXPECT_EQ((Result{{1, "on\n"}}), result);
  EXPECT_TRUE(
      log.has(std::string("|CONFIG| NoxConfig::parseConfigFile: Failed to open file ") + path));
}

}  // namespace
