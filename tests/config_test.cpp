#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>

#include "NoxConfig.h"
#include "TestLog.h"

namespace {

using Result = std::map<int, std::string>;

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
