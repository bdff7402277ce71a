#include <binder/Parcel.h>
#include <cutils/jstring.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

using android::Parcel;
using android::String16;

namespace {

using Bytes = std::vector<uint8_t>;

class ParcelTest : public ::testing::Test {
 protected:
  Bytes written() const { return Bytes(p_.data(), p_.data() + p_.dataSize()); }

  void load(const Bytes& bytes) { ASSERT_EQ(android::OK, p_.setData(bytes.data(), bytes.size())); }

  // Reads one string in place and returns its units; `ok` says whether it was valid.
  std::u16string readInplace(bool* ok) {
    size_t len = 99;
    const char16_t* s = p_.readString16Inplace(&len);
    *ok = s != nullptr;
    if (s == nullptr) {
      EXPECT_EQ(0u, len);
    }
    return s != nullptr ? std::u16string(s, len) : std::u16string();
  }

  Parcel p_;
};

// Expected bytes below are written out from the wire format by hand.

TEST_F(ParcelTest, Int32IsLittleEndianInFourBytes) {
  p_.writeInt32(1);
  p_.writeInt32(-1);
  p_.writeInt32(0x12345678);
  p_.writeInt32(INT32_MIN);
  p_.writeInt32(-2);
  EXPECT_EQ((Bytes{0x01, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff, 0x78, 0x56, 0x34, 0x12,
                   0x00, 0x00, 0x00, 0x80, 0xfe, 0xff, 0xff, 0xff}),
            written());
}

TEST_F(ParcelTest, AsciiStringHasCountUnitsTerminatorAndPadding) {
  p_.writeString16(String16("ab"));
  p_.writeString16(String16("abc"));
  EXPECT_EQ((Bytes{0x02, 0x00, 0x00, 0x00, 'a', 0x00, 'b', 0x00, 0x00, 0x00, 0x00, 0x00,
                   0x03, 0x00, 0x00, 0x00, 'a', 0x00, 'b', 0x00, 'c', 0x00, 0x00, 0x00}),
            written());
}

TEST_F(ParcelTest, NonAsciiStringsAreUtf16Units) {
  p_.writeString16(String16("\xc3\xa9"));          // U+00E9
  p_.writeString16(String16("\xf0\x9f\x98\x80"));  // U+1F600: D83D DE00
  p_.writeString16(String16("\xe2\x82\xac"));      // U+20AC
  EXPECT_EQ((Bytes{0x01, 0x00, 0x00, 0x00, 0xe9, 0x00, 0x00, 0x00,
                   0x02, 0x00, 0x00, 0x00, 0x3d, 0xd8, 0x00, 0xde, 0x00, 0x00, 0x00, 0x00,
                   0x01, 0x00, 0x00, 0x00, 0xac, 0x20, 0x00, 0x00}),
            written());
}

TEST_F(ParcelTest, EmptyAndNullStrings) {
  p_.writeString16(String16());
  p_.writeString16(nullptr, 5);
  EXPECT_EQ((Bytes{0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff}),
            written());

  p_.setDataPosition(0);
  bool ok;
  EXPECT_EQ(u"", readInplace(&ok));
  EXPECT_TRUE(ok);
  EXPECT_EQ(u"", readInplace(&ok));
  EXPECT_FALSE(ok);
  EXPECT_EQ(0u, p_.dataAvail());
}

TEST_F(ParcelTest, RoundTripOfMixedValues) {
  const std::u16string pair = u"x\U0001F600y";
  p_.writeInt32(7);
  p_.writeString16(pair.data(), pair.size());
  p_.writeInt32(-7);
  p_.writeString16(String16("wlan0"));

  Parcel copy;
  ASSERT_EQ(android::OK, copy.setData(p_.data(), p_.dataSize()));
  EXPECT_EQ(7, copy.readInt32());
  size_t len;
  const char16_t* s = copy.readString16Inplace(&len);
  ASSERT_NE(nullptr, s);
  EXPECT_EQ(pair, std::u16string(s, len));
  EXPECT_EQ(-7, copy.readInt32());
  EXPECT_EQ(String16("wlan0"), copy.readString16());
  EXPECT_EQ(0u, copy.dataAvail());
}

TEST_F(ParcelTest, WritesOverwriteAtThePosition) {
  p_.writeInt32(1);
  p_.writeInt32(2);
  p_.writeInt32(3);
  p_.setDataPosition(4);
  p_.writeInt32(9);
  EXPECT_EQ(12u, p_.dataSize());
  EXPECT_EQ(8u, p_.dataPosition());
  EXPECT_EQ((Bytes{1, 0, 0, 0, 9, 0, 0, 0, 3, 0, 0, 0}), written());
}

TEST_F(ParcelTest, SetDataCopiesRewindsAndRejectsNull) {
  Bytes src{0x05, 0x00, 0x00, 0x00};
  p_.writeInt32(1);
  load(src);
  src[0] = 0x06;
  EXPECT_EQ(0u, p_.dataPosition());
  EXPECT_EQ(5, p_.readInt32());

  EXPECT_EQ(android::BAD_VALUE, p_.setData(nullptr, 4));
  EXPECT_EQ(4u, p_.dataSize());

  EXPECT_EQ(android::OK, p_.setData(nullptr, 0));
  EXPECT_EQ(0u, p_.dataSize());
  EXPECT_NE(nullptr, p_.data());
}

TEST_F(ParcelTest, SetDataPositionClampsToTheEnd) {
  load({1, 0, 0, 0, 2, 0, 0, 0});
  p_.setDataPosition(100);
  EXPECT_EQ(8u, p_.dataPosition());
  EXPECT_EQ(0u, p_.dataAvail());
  p_.setDataPosition(SIZE_MAX);
  EXPECT_EQ(8u, p_.dataPosition());
  p_.setDataPosition(4);
  EXPECT_EQ(2, p_.readInt32());
}

TEST_F(ParcelTest, ReadingPastTheEndYieldsZeroAndStays) {
  load({0x2a, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03});
  EXPECT_EQ(42, p_.readInt32());
  int32_t v = 5;
  EXPECT_EQ(android::NOT_ENOUGH_DATA, p_.readInt32(&v));
  EXPECT_EQ(0, v);
  EXPECT_EQ(4u, p_.dataPosition());
  EXPECT_EQ(0, p_.readInt32());
  EXPECT_EQ(String16(), p_.readString16());
}

TEST_F(ParcelTest, TruncatedStringsReadAsEmpty) {
  bool ok;
  load({0x05, 0x00, 0x00, 0x00, 'a', 0x00, 'b', 0x00});  // 5 units announced, 2 present
  EXPECT_EQ(u"", readInplace(&ok));
  EXPECT_FALSE(ok);

  load({0x02, 0x00, 0x00, 0x00, 'a', 0x00, 'b', 0x00});  // no room for the 0 unit
  EXPECT_EQ(u"", readInplace(&ok));
  EXPECT_FALSE(ok);

  load({0x01, 0x00, 0x00, 0x00, 'a', 0x00, 0x00, 0x00});  // ends right after the terminator
  EXPECT_EQ(u"a", readInplace(&ok));
  EXPECT_TRUE(ok);

  load({0x01, 0x00, 0x00, 0x00, 'a', 0x00});  // padding missing
  EXPECT_EQ(u"", readInplace(&ok));
  EXPECT_FALSE(ok);

  load({0x01, 0x00, 0x00, 0x00, 'a', 0x00, 'b', 0x00});  // unit where the 0 should be
  EXPECT_EQ(u"", readInplace(&ok));
  EXPECT_FALSE(ok);

  load({0x00, 0x01, 0x00, 0x00, 0x00, 'a', 0x00, 0x00, 0x00});
  p_.setDataPosition(1);  // units would sit at an odd address
  readInplace(&ok);
  EXPECT_FALSE(ok);
}

TEST_F(ParcelTest, NegativeAndHugeCountsReadAsEmpty) {
  const Bytes tail{'a', 0x00, 0x00, 0x00};
  const Bytes counts[] = {
      {0xfe, 0xff, 0xff, 0xff},  // -2
      {0x00, 0x00, 0x00, 0x80},  // INT32_MIN
      {0xff, 0xff, 0xff, 0x7f},  // INT32_MAX: count + 1 overflows an int32
      {0x00, 0x00, 0x00, 0x40},  // 2^30 units: 2^31 + 2 bytes
  };
  for (const Bytes& count : counts) {
    Bytes msg = count;
    msg.insert(msg.end(), tail.begin(), tail.end());
    load(msg);
    EXPECT_EQ(String16(), p_.readString16());
    EXPECT_EQ(4u, p_.dataPosition());
  }
}

TEST_F(ParcelTest, OversizedStringWritesNothing) {
  p_.writeInt32(3);
  const char16_t unit = u'a';
  // Both sizes are rejected before the units are read, so one unit is enough.
  EXPECT_EQ(android::NO_MEMORY, p_.writeString16(&unit, 0x40000000));
  EXPECT_EQ(android::NO_MEMORY, p_.writeString16(&unit, 0x3ffffffe));
  EXPECT_EQ(android::NO_MEMORY, p_.writeString16(&unit, SIZE_MAX));
  EXPECT_EQ((Bytes{3, 0, 0, 0}), written());
  EXPECT_EQ(4u, p_.dataPosition());
}

// The UTF-8 <-> UTF-16 helpers that feed String16 payloads.
class Utf16DupTest : public ::testing::Test {
 protected:
  static std::u16string to16(const char* s) {
    size_t len = 99;
    char16_t* units = strdup8to16(s, &len);
    EXPECT_NE(nullptr, units);
    std::u16string out(units, len);
    free(units);
    return out;
  }
  static std::string to8(const std::u16string& s, size_t n) {
    char* bytes = strndup16to8(s.data(), n);
    EXPECT_NE(nullptr, bytes);
    std::string out = bytes != nullptr ? bytes : "";
    free(bytes);
    return out;
  }
};

TEST_F(Utf16DupTest, Utf8ToUtf16) {
  EXPECT_EQ(u"rmnet0", to16("rmnet0"));
  EXPECT_EQ(u"", to16(""));
  EXPECT_EQ((std::u16string{0x00e9, 0x20ac}), to16("\xc3\xa9\xe2\x82\xac"));
  EXPECT_EQ((std::u16string{'a', 0xd83d, 0xde00, 'b'}), to16("a\xf0\x9f\x98\x80" "b"));
}

TEST_F(Utf16DupTest, CutShortUtf8IsTakenAsLatin1) {
  EXPECT_EQ((std::u16string{'a', 0xe2, 0x82}), to16("a\xe2\x82"));
  EXPECT_EQ((std::u16string{0xf0}), to16("\xf0"));
}

TEST_F(Utf16DupTest, NullInputs) {
  size_t len = 99;
  EXPECT_EQ(nullptr, strdup8to16(nullptr, &len));
  EXPECT_EQ(0u, len);
  EXPECT_EQ(nullptr, strndup16to8(nullptr, 3));
}

TEST_F(Utf16DupTest, Utf16ToUtf8) {
  const std::u16string text{'a', 0x00e9, 0x20ac, 0xd83d, 0xde00, 'z'};
  EXPECT_EQ("a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z", to8(text, text.size()));
  EXPECT_EQ("a\xc3\xa9", to8(text, 2));
  EXPECT_EQ("", to8(text, 0));
  // Cut inside the pair: its first half cannot stand alone.
  EXPECT_EQ("a\xc3\xa9\xe2\x82\xac", to8(text, 4));
}

}  // namespace
