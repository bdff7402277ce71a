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

// The feature mask property as the daemon reads it: a number in any base, unknown bits
// and features ignored. What the mask then starts: nox_test.cpp's start-up table.
TEST(FeatureSwitchTest, MaskFromProperty) {
  LogCapture quiet;
  const struct {
    const char* mask;  // null: unset
    int bits;          // of the known features 0..2
  } cases[] = {{nullptr, 0}, {"12", 4}, {"07", 7}, {"0x3", 3}, {"on", 0}};
  for (const auto& c : cases) {
    property_host_reset();
    if (c.mask != nullptr) property_set("persist.nox.feature", c.mask);
    NoxConfig config;
    int bits = 0;
    for (int f = NOX_FEATURE_FDMGR; f <= NOX_FEATURE_NSRM; ++f)
      bits |= config.isEnabled(static_cast<NoxFeatureType>(f)) << f;
    EXPECT_EQ(c.bits, bits) << (c.mask ? c.mask : "unset");
    EXPECT_FALSE(config.isEnabled(static_cast<NoxFeatureType>(3)));
    EXPECT_FALSE(config.isEnabled(static_cast<NoxFeatureType>(-1)));
  }
  property_host_reset();
}

TEST(ConfigParserTest, EdgeCases) {
  LogCapture quiet;
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
  unlink(path);
  EXPECT_EQ(NOX_RET_ERR_OPENING_FILE, NoxBaseConfig().parseConfigFile(control, result));
  EXPECT_EQ((Result{{1, "on\n"}}), result);
}

}  // namespace
