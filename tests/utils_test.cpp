#include <gtest/gtest.h>

#include "NoxUtils.h"
#include "TestLog.h"

namespace {

class NameTableTest : public ::testing::Test {
 protected:
  // A miss is one debug line (logcat priority 3) in GENERIC.
  bool missLogged(const std::string& text) const {
    for (const LogCapture::Line& l : log.lines())
      if (l.text == "|GENERIC| " + text) return l.priority == 3;
    return false;
  }
  LogCapture log;
};

TEST_F(NameTableTest, FirstLookupFillsAllFiveTablesOnce) {
  EXPECT_STREQ("rat_wlan", NoxUtils::getNoxRatStr(NOX_RAT_WLAN));
  EXPECT_FALSE(NoxUtils::isInitNeeded);
  EXPECT_EQ(15u, NoxUtils::msg.size());
  EXPECT_EQ(13u, NoxUtils::retType.size());
  EXPECT_EQ(18u, NoxUtils::ratSubtype.size());
  EXPECT_EQ(6u, NoxUtils::netState.size());
  NoxUtils::msg[NOX_S_NOTIFY_INIT_DONE] = "kept";
  NoxUtils::init();  // insert-if-absent
  EXPECT_STREQ("kept", NoxUtils::getNoxMsgStr(NOX_S_NOTIFY_INIT_DONE));
  NoxUtils::msg[NOX_S_NOTIFY_INIT_DONE] = "NOX_S_NOTIFY_INIT_DONE";
}

TEST_F(NameTableTest, EdgesOfEachTable) {
  EXPECT_STREQ("NOX_S_NOTIFY_TETHERING_STATE_CHG", NoxUtils::getNoxMsgStr(NOX_S_NOTIFY_TETHERING_STATE_CHG));
  EXPECT_STREQ("NOX_S_RESP_SET_FEATURE_PREF", NoxUtils::getNoxMsgStr(NOX_S_RESP_SET_FEATURE_PREF));
  EXPECT_STREQ("WLAN_G", NoxUtils::getNoxRatSubTypeStr(NOX_RAT_SUBTYPE_WLAN_G));
  EXPECT_STREQ("unknown or invalid", NoxUtils::getNoxNwStateStr(NOX_NW_STATE_UNKNOWN));
  EXPECT_TRUE(log.lines().empty());

  EXPECT_EQ(NoxUtils::EMPTY_STRING, NoxUtils::getNoxRetTypeStr(static_cast<NoxRetType>(0)));
  EXPECT_TRUE(missLogged("NoxRetType=0 string value is not known"));
  EXPECT_STREQ("", NoxUtils::getNoxRatSubTypeStr(static_cast<NoxRatSubtype>(17)));
  EXPECT_TRUE(missLogged("nox_rat_subtype=17 string value is not known"));
  EXPECT_STREQ("", NoxUtils::getNoxMsgStr(static_cast<NoxMsgEnumType>(15)));
  EXPECT_STREQ("", NoxUtils::getNoxMsgStr(static_cast<NoxMsgEnumType>(-1)));
  EXPECT_TRUE(missLogged("nox_msg_enum_type=-1 string value is not known"));
  EXPECT_STREQ("", NoxUtils::getNoxRatStr(static_cast<NoxRatType>(5)));
  EXPECT_TRUE(missLogged("nox_rat_type=5 string value is not known"));
  EXPECT_STREQ("", NoxUtils::getNoxNwStateStr(static_cast<NoxNetworkStateEnumType>(6)));
  EXPECT_TRUE(missLogged("nox_network_state_enum_type=6 string value is not known"));
}

}  // namespace
