#include <binder/Parcel.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

using android::Parcel;
using android::String16;

namespace {

using Bytes = std::vector<uint8_t>;

class ParcelTest : public ::testing::Test {
 protected:
  Bytes written() const { return Bytes(p.data(), p.data() + p.dataSize()); }
  void load(const Bytes& b) { ASSERT_EQ(android::OK, p.setData(b.data(), b.size())); }

  Parcel p;
};

// Expected bytes are written out by hand from the wire format.
TEST_F(ParcelTest, WireBytesAndReadBack) {
  const String16 nonAscii("\xc3\xa9\xf0\x9f\x98\x80");  // U+00E9 U+1F600: 00E9 D83D DE00
  p.writeInt32(0x12345678);
  p.writeInt32(-2);
  p.writeString16(String16("ab"));
  p.writeString16(nonAscii);
  p.writeString16(String16());
  p.writeString16(nullptr, 5);
  EXPECT_EQ((Bytes{0x78, 0x56, 0x34, 0x12, 0xfe, 0xff, 0xff, 0xff,                 // the ints
                   2,    0,    0,    0,    'a',  0,    'b',  0,    0, 0,    0, 0,  // "ab", padded
                   3,    0,    0,    0,    0xe9, 0,    0x3d, 0xd8, 0, 0xde, 0, 0,  // non-ASCII
                   0,    0,    0,    0,    0,    0,    0,    0,                    // empty
                   0xff, 0xff, 0xff, 0xff}),                                       // null
            written());
  p.setDataPosition(0);
  EXPECT_EQ(0x12345678, p.readInt32());
  EXPECT_EQ(-2, p.readInt32());
  EXPECT_EQ(String16("ab"), p.readString16());
  EXPECT_EQ(nonAscii, p.readString16());
  size_t len = 99;
  EXPECT_NE(nullptr, p.readString16Inplace(&len));  // empty is not null
  EXPECT_EQ(nullptr, p.readString16Inplace(&len));
  EXPECT_EQ(0u, len);
  EXPECT_EQ(0u, p.dataAvail());
}

TEST_F(ParcelTest, SetDataCopiesAndReadsNeverPassTheEnd) {
  Bytes src{0x2a, 0, 0, 0, 1, 2, 3};
  load(src);
  src[0] = 6;
  EXPECT_EQ(42, p.readInt32());  // a copy: the source may go away
  int32_t v = 5;
  EXPECT_EQ(android::NOT_ENOUGH_DATA, p.readInt32(&v));
  EXPECT_EQ(0, v);
  EXPECT_EQ(4u, p.dataPosition());
  EXPECT_EQ(String16(), p.readString16());
  EXPECT_EQ(android::BAD_VALUE, p.setData(nullptr, 4));
}

TEST_F(ParcelTest, MalformedStringsReadAsEmpty) {
  const Bytes cases[] = {
      {5, 0, 0, 0, 'a', 0, 'b', 0},            // 5 units announced, 2 present
      {2, 0, 0, 0, 'a', 0, 'b', 0},            // no room for the 0 unit
      {1, 0, 0, 0, 'a', 0},                    // padding missing
      {1, 0, 0, 0, 'a', 0, 'b', 0},            // a unit where the 0 should be
      {0xfe, 0xff, 0xff, 0xff, 'a', 0, 0, 0},  // -2
      {0, 0, 0, 0x80, 'a', 0, 0, 0},           // INT32_MIN
      {0xff, 0xff, 0xff, 0x7f, 'a', 0, 0, 0},  // INT32_MAX: count + 1 overflows an int32
      {0, 0, 0, 0x40, 'a', 0, 0, 0},           // 2^30 units: 2^31 + 2 bytes
  };
  for (const Bytes& b : cases) {
    load(b);
    size_t len = 99;
    EXPECT_EQ(nullptr, p.readString16Inplace(&len)) << testing::PrintToString(b);
    EXPECT_EQ(0u, len);
    EXPECT_EQ(4u, p.dataPosition());
  }
  load({1, 0, 0, 0, 'a', 0, 0, 0});  // ends right after the terminator
  EXPECT_EQ(String16("a"), p.readString16());
}

}  // namespace
