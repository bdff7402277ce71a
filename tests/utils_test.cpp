#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "NoxUtils.h"
#include "TestLog.h"

namespace {

using U = NoxUtils;

// Sanitizer builds replace operator new, which then never calls the new-handler.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define NOX_NEW_HANDLER_TESTABLE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define NOX_NEW_HANDLER_TESTABLE 0
#endif
#endif
#ifndef NOX_NEW_HANDLER_TESTABLE
#define NOX_NEW_HANDLER_TESTABLE 1
#endif

size_t gHuge = size_t(1) << 62;

TEST(OutOfMemoryDeathTest, AnyFailedAllocationPrintsAndExitsWithOne) {
  if (!NOX_NEW_HANDLER_TESTABLE) GTEST_SKIP() << "the sanitizer's allocator does not call it";
  EXPECT_EXIT(
      {
        U::init();
        std::vector<char> v(gHuge);
      },
      testing::ExitedWithCode(1), "");
}

// Values from clients and the modem that have no name: an empty name and a debug line.
TEST(NameTableTest, MissesReadAsEmpty) {
  LogCapture log;
  EXPECT_STREQ("rat_wlan", U::getNoxRatStr(NOX_RAT_WLAN));  // the first lookup fills the tables
  for (const char* miss :
       {U::getNoxRetTypeStr(NoxRetType(0)), U::getNoxRatSubTypeStr(NoxRatSubtype(17)),
        U::getNoxMsgStr(NoxMsgEnumType(15)), U::getNoxMsgStr(NoxMsgEnumType(-1)),
        U::getNoxRatStr(NoxRatType(5)), U::getNoxNwStateStr(NoxNetworkStateEnumType(6))})
    EXPECT_EQ(U::EMPTY_STRING, miss);
  std::vector<std::string> expected;
  for (const char* value :
       {"NoxRetType=0", "nox_rat_subtype=17", "nox_msg_enum_type=15", "nox_msg_enum_type=-1",
        "nox_rat_type=5", "nox_network_state_enum_type=6"})
    expected.push_back(std::string("|GENERIC| ") + value + " string value is not known");
  EXPECT_EQ(expected, log.matching(""));
  for (const auto& line : log.lines()) EXPECT_EQ(3, line.priority);  // debug
}

}  // namespace
