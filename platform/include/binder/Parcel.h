#ifndef NOX_PLATFORM_BINDER_PARCEL_H
#define NOX_PLATFORM_BINDER_PARCEL_H

// Host implementation of the subset of android::Parcel that the framework uses,
// byte-for-byte compatible with libbinder's flat encoding:
//  - int32: little-endian, in a 4-byte slot;
//  - String16: int32 count of UTF-16 units (-1 for a null string), the units,
//    a 0 unit, zero padding to a multiple of 4 bytes.
// Reads never go past the end: a missing int reads as 0, a missing, negative or
// oversized string reads as empty (null for readString16Inplace). Writes go to the
// current position, overwriting what is there, and extend the data as needed; a
// Parcel stays below 2 GiB, and a write that would not fit returns NO_MEMORY and
// writes nothing.

#include <stddef.h>
#include <stdint.h>

#include <utils/Errors.h>
#include <utils/String16.h>

namespace android {

class Parcel {
 public:
  Parcel();
  ~Parcel();
  Parcel(const Parcel&) = delete;
  Parcel& operator=(const Parcel&) = delete;

  // Never null, even when empty.
  const uint8_t* data() const;
  size_t dataSize() const;
  size_t dataAvail() const;
  size_t dataPosition() const;
  // Positions past the end are clamped to the end.
  void setDataPosition(size_t pos) const;
  // Replaces the content with a copy of `len` bytes and rewinds to 0. BAD_VALUE for
  // a null buffer with len > 0 or len >= 2 GiB, NO_MEMORY if the copy cannot be made;
  // the content is unchanged on failure.
  status_t setData(const uint8_t* buffer, size_t len);
  void freeData();

  status_t writeInt32(int32_t val) {
    // The common case inline: room at the position, nothing to pad (little-endian host).
    if (mDataPos <= mDataCapacity && mDataCapacity - mDataPos >= sizeof(val)) {
      __builtin_memcpy(mData + mDataPos, &val, sizeof(val));
      mDataPos += sizeof(val);
      if (mDataPos > mDataSize) mDataSize = mDataPos;
      return OK;
    }
    return writeInt32Slow(val);
  }
  // A null `str` writes the null string (count -1).
  status_t writeString16(const char16_t* str, size_t len);
  status_t writeString16(const String16& str);

  // Fewer than 4 bytes left: 0 (NOT_ENOUGH_DATA) and the position does not move.
  int32_t readInt32() const {
    int32_t val;
    readInt32(&val);
    return val;
  }
  status_t readInt32(int32_t* out) const {
    if (mDataPos > mDataSize || mDataSize - mDataPos < sizeof(*out)) {
      *out = 0;
      return NOT_ENOUGH_DATA;
    }
    __builtin_memcpy(out, mData + mDataPos, sizeof(*out));
    mDataPos += sizeof(*out);
    return OK;
  }
  // Points into the Parcel's own buffer; null (and *outLen 0) for a null, negative,
  // oversized or truncated string, one without its 0 unit, or one at an odd position.
  // After the count has been read, a bad string leaves the position just past it.
  const char16_t* readString16Inplace(size_t* outLen) const;
  String16 readString16() const;

 private:
  static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "int32s are stored as they are");
  status_t writeInt32Slow(int32_t val);
  // A parcel of a client message fits here; only bigger ones allocate.
  static constexpr size_t kInlineSize = 128;

  status_t growTo(size_t size);
  status_t writeAligned(const void* bytes, size_t len);
  bool onHeap() const { return mData != mInline; }

  uint8_t* mData;
  size_t mDataSize;
  size_t mDataCapacity;
  mutable size_t mDataPos;
  alignas(8) uint8_t mInline[kInlineSize];
};

}  // namespace android

#endif  // NOX_PLATFORM_BINDER_PARCEL_H
