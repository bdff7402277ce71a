#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "NoxParcel.h"
#include "TestLog.h"
#include "Wire.h"

namespace {

Wire wwan(std::initializer_list<std::u16string> strings) {
  Wire w = Wire().i32(1).i32(2).i32(13).i32(0).i32(5);
  for (const auto& s : strings) w.str(s);
  return w;
}

class ParcelCodecTest : public ::testing::Test {
 protected:
  template <typename T>
  void decode(const Wire& w, T& out) {
    ASSERT_EQ(android::OK, p.setData(w.b.data(), w.b.size()));
    NoxParcel::unparcel(p, out);
  }
  std::vector<uint8_t> written() const { return {p.data(), p.data() + p.dataSize()}; }
  bool logged(const std::string& text) const { return log.has("|COMMON:COM| " + text); }

  LogCapture log;
  android::Parcel p;
};

TEST_F(ParcelCodecTest, IntListLimitsAndFeatureInfoCount) {
  std::vector<int> list = {7, 8};
  Wire over = Wire().i32(101), full = Wire().i32(100);
  for (int i = 1; i <= 101; ++i) over.i32(i), full.i32(-i);  // full: 100 values and one more
  decode(over, list);
  EXPECT_EQ((std::vector<int>{7, 8}), list);
  EXPECT_EQ(1, p.readInt32());  // none of the values consumed
  EXPECT_TRUE(logged("Parcel ints 101 greater than allowed 100"));
  decode(full, list);
  ASSERT_EQ(100u, list.size());
  EXPECT_EQ(-100, list.back());
  EXPECT_EQ(-101, p.readInt32());
  for (int count : {0, -3}) {
    decode(Wire().i32(count).i32(9), list);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(9, p.readInt32());
  }

  NoxFeatureInfoType info = {0, 77};
  decode(Wire().i32(1).i32(2).i32(3), info);  // count 1: the status is not read
  EXPECT_EQ(2, info.featureId);
  EXPECT_EQ(77, info.featureStatus);
  EXPECT_EQ(3, p.readInt32());
  decode(Wire().i32(2).i32(4).i32(1), info);
  EXPECT_EQ(1, info.featureStatus);
}

TEST_F(ParcelCodecTest, WwanStringMustBeStrictlyShorterThanItsField) {
  NoxWwanInfoType info;
  memset(&info, 'x', sizeof(info));
  decode(wwan({u"10.0.0.1", u"mdlnk_modem0123", u"fe80::1", u"mdlnk_modem01234", u"310260"}), info);
  EXPECT_STREQ("mdlnk_modem0123", info.ifaceV4);  // 15 units
  EXPECT_STREQ("", info.ifaceV6);                 // 16 units
  EXPECT_STREQ("310260", info.mccmnc);
  EXPECT_TRUE(logged("source (length: 16) is longer than dest (length: 16)"));
  EXPECT_TRUE(
      logged("     data: type:1 status:2 nwType:13 roaming:0 apn:5 ipV4:10.0.0.1 "
             "ifaceV4:mdlnk_modem0123 ipV6:fe80::1 ifaceV6: mccmnc = 310260"));

  // An unpaired surrogate is left out; a pair is one character; the rest converts.
  decode(wwan({u"", u"md\xd800x", u"\U0001F600", u"", u""}), info);
  EXPECT_STREQ("mdx", info.ifaceV4);
  EXPECT_STREQ("\xf0\x9f\x98\x80", info.ipV6);

  // 15 units of U+00E9 are 30 bytes of UTF-8: cut at 15, mid-character.
  decode(wwan({u"", std::u16string(15, u'\u00e9'), u"", u"", u"3102601"}), info);
  EXPECT_STREQ("", info.mccmnc);
  EXPECT_EQ(
      0, memcmp("\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3\xa9\xc3", info.ifaceV4, 16));
}

TEST_F(ParcelCodecTest, AppListOrderAndCount) {
  NoxAppInfoMsgDataType msg, capped, wrapped;
  Wire w = Wire().i32(0).i32(4).app(u"big", 0xfffffff0u).app(u"first", 10005);
  decode(w.app(u"second", 10005).app(u"small", 3), msg);
  std::vector<std::string> order;
  for (const NoxAppInfoType& a : msg.apps) order.push_back(a.pkg_name);
  EXPECT_EQ((std::vector<std::string>{"small", "first", "second", "big"}), order);

  Wire many = Wire().i32(1).i32(501);
  for (int i = 0; i < 501; ++i) many.app(i < 500 ? u"p" : u"tail", i);
  decode(many, capped);
  EXPECT_EQ(500, capped.numApps);
  EXPECT_EQ(500u, capped.apps.size());
  EXPECT_EQ(4, p.readInt32());  // the 501st entry, "tail", is left unread
  EXPECT_TRUE(logged("API info results (501) is greater than NOX_MAX_APPLIST_SIZE (500)"));
  decode(Wire().i32(0).i32(65537).app(u"only", 1).app(u"never", 2), wrapped);
  EXPECT_EQ(1, wrapped.numApps);
  EXPECT_EQ(1u, wrapped.apps.size());
}

// Strings from the client: a length that lies, overflows or leaves no room for the
// terminator and padding reads as empty, never past the data.
TEST_F(ParcelCodecTest, MalformedStringsDecodeAsEmpty) {
  const std::vector<uint8_t> cases[] = {
      {5, 0, 0, 0, 'a', 0, 'b', 0},            // 5 units announced, 2 present
      {2, 0, 0, 0, 'a', 0, 'b', 0},            // no room for the 0 unit
      {1, 0, 0, 0, 'a', 0},                    // padding missing
      {1, 0, 0, 0, 'a', 0, 'b', 0},            // a unit where the 0 should be
      {0xfe, 0xff, 0xff, 0xff, 'a', 0, 0, 0},  // -2
      {0, 0, 0, 0x80, 'a', 0, 0, 0},           // INT32_MIN
      {0xff, 0xff, 0xff, 0x7f, 'a', 0, 0, 0},  // INT32_MAX: count + 1 overflows an int32
      {0, 0, 0, 0x40, 'a', 0, 0, 0},           // 2^30 units: 2^31 + 2 bytes
      {1, 0, 0, 0, 'a', 0, 0, 0},              // well formed, ends right after the padding
  };
  for (const auto& b : cases) {
    Wire w;
    w.b = b;
    std::string text = "stale";
    decode(w, text);
    EXPECT_EQ(&b == &cases[8] ? "a" : "", text) << testing::PrintToString(b);
  }
  _WlanInfo wlan;
  decode(Wire().i32(1), wlan);  // what is missing reads as 0
  EXPECT_EQ(1, wlan.type);
  EXPECT_EQ(0, wlan.softAp);
}

TEST_F(ParcelCodecTest, EncodersWriteExactLayouts) {
  NoxAppInfoMsgDataType apps;
  apps.action = NOX_PKG_ACTION_ADD;
  apps.numApps = 3;
  for (uint32_t uid : {1u, 2u, 3u}) apps.apps.insert(NoxAppInfoType{"pkg", uid, "name"});
  NoxParcel::parcel(apps, p);  // the count alone
  NoxParcel::parcel(NoxFeatureInfoType{2, 1}, p);
  NoxParcel::parcel(NoxFeatureRespType{2, 3, -1}, p);
  NoxParcel::parcel(NoxNsrmBlockedUidType{0x01020304, 1}, p);
  NoxParcel::parcel(NoxPolicyUpdateRespType{5, 6}, p);
  NoxParcel::writeStringToParcel(p, "a\xc3\xa9");
  // clang-format off
  EXPECT_EQ((std::vector<uint8_t>{3, 0, 0, 0, 2, 0, 0, 0, 1, 0, 0, 0,           // apps, feature
                                  2, 0, 0, 0, 3, 0, 0, 0, 0xff, 0xff, 0xff, 0xff,  // response
                                  4, 3, 2, 1, 1, 0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0,  // uid, policy
                                  2, 0, 0, 0, 'a', 0, 0xe9, 0, 0, 0, 0, 0}),       // "aé"
            written());
  // clang-format on
  EXPECT_TRUE(logged("parceled: feature id: 2, feature status: 3, result code: -1"));
}

}  // namespace
