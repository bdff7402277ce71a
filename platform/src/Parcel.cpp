#include <binder/Parcel.h>

#include <stdlib.h>
#include <string.h>

namespace android {

namespace {

// libbinder keeps a Parcel below 2 GiB; sizes are checked against this before any
// arithmetic that could wrap.
constexpr size_t kMaxParcelSize = INT32_MAX;

constexpr size_t padSize(size_t len) { return (len + 3) & ~static_cast<size_t>(3); }

}  // namespace

Parcel::Parcel() : mData(mInline), mDataSize(0), mDataCapacity(kInlineSize), mDataPos(0) {}

Parcel::~Parcel() {
  if (onHeap()) free(mData);
}

const uint8_t* Parcel::data() const { return mData; }

size_t Parcel::dataSize() const { return mDataSize; }

size_t Parcel::dataAvail() const { return mDataSize - mDataPos; }

size_t Parcel::dataPosition() const { return mDataPos; }

void Parcel::setDataPosition(size_t pos) const { mDataPos = pos < mDataSize ? pos : mDataSize; }

status_t Parcel::setData(const uint8_t* buffer, size_t len) {
  if (len > kMaxParcelSize || (buffer == nullptr && len > 0)) return BAD_VALUE;
  if (len <= kInlineSize) {
    if (len > 0) memmove(mInline, buffer, len);  // the buffer may be our own data
    if (onHeap()) free(mData);
    mData = mInline;
    mDataCapacity = kInlineSize;
  } else {
    uint8_t* copy = static_cast<uint8_t*>(malloc(len));
    if (copy == nullptr) return NO_MEMORY;
    memcpy(copy, buffer, len);
    if (onHeap()) free(mData);
    mData = copy;
    mDataCapacity = len;
  }
  mDataSize = len;
  mDataPos = 0;
  return OK;
}

void Parcel::freeData() {
  if (onHeap()) free(mData);
  mData = mInline;
  mDataCapacity = kInlineSize;
  mDataSize = mDataPos = 0;
}

status_t Parcel::growTo(size_t size) {
  if (size <= mDataCapacity) return OK;
  if (size > kMaxParcelSize) return NO_MEMORY;
  // Grow by half again as libbinder does, so a run of small writes stays linear.
  size_t capacity = size + size / 2;
  if (capacity > kMaxParcelSize) capacity = kMaxParcelSize;
  uint8_t* grown = static_cast<uint8_t*>(onHeap() ? realloc(mData, capacity) : malloc(capacity));
  if (grown == nullptr) return NO_MEMORY;
  if (!onHeap()) memcpy(grown, mInline, mDataSize);
  mData = grown;
  mDataCapacity = capacity;
  return OK;
}

// Writes at the current position (overwriting what is there, as libbinder does) and
// pads with zeros to the next 4-byte boundary.
status_t Parcel::writeAligned(const void* bytes, size_t len) {
  if (len > kMaxParcelSize - mDataPos) return NO_MEMORY;
  const size_t padded = padSize(len);
  if (padded > kMaxParcelSize - mDataPos) return NO_MEMORY;
  const status_t err = growTo(mDataPos + padded);
  if (err != OK) return err;
  if (len > 0) memcpy(mData + mDataPos, bytes, len);
  memset(mData + mDataPos + len, 0, padded - len);
  mDataPos += padded;
  if (mDataPos > mDataSize) mDataSize = mDataPos;
  return OK;
}

status_t Parcel::writeInt32Slow(int32_t val) { return writeAligned(&val, sizeof(val)); }

status_t Parcel::writeString16(const char16_t* str, size_t len) {
  if (str == nullptr) return writeInt32(-1);
  // Count, units, terminator and padding are sized up front so a failure writes nothing.
  if (len >= kMaxParcelSize / sizeof(char16_t)) return NO_MEMORY;
  const size_t units = (len + 1) * sizeof(char16_t);
  if (4 + padSize(units) > kMaxParcelSize - mDataPos) return NO_MEMORY;
  const status_t err = growTo(mDataPos + 4 + padSize(units));
  if (err != OK) return err;
  writeInt32(static_cast<int32_t>(len));
  uint8_t* out = mData + mDataPos;
  for (size_t i = 0; i < len; ++i) {
    out[2 * i] = static_cast<uint8_t>(str[i]);
    out[2 * i + 1] = static_cast<uint8_t>(str[i] >> 8);
  }
  memset(out + 2 * len, 0, padSize(units) - 2 * len);
  mDataPos += padSize(units);
  if (mDataPos > mDataSize) mDataSize = mDataPos;
  return OK;
}

status_t Parcel::writeString16(const String16& str) { return writeString16(str.string(), str.size()); }

const char16_t* Parcel::readString16Inplace(size_t* outLen) const {
  *outLen = 0;
  const int32_t count = readInt32();
  if (count < 0) return nullptr;
  // A position moved to an odd offset cannot yield an aligned char16_t pointer.
  if (mDataPos % alignof(char16_t) != 0) return nullptr;
  const size_t units = static_cast<size_t>(count);
  if (units >= dataAvail() / sizeof(char16_t)) return nullptr;  // no room for units + 0
  const size_t bytes = (units + 1) * sizeof(char16_t);
  if (padSize(bytes) > dataAvail()) return nullptr;
  const char16_t* str = reinterpret_cast<const char16_t*>(mData + mDataPos);
  if (str[units] != 0) return nullptr;  // malformed: libbinder rejects it too
  mDataPos += padSize(bytes);
  *outLen = units;
  return str;
}

String16 Parcel::readString16() const {
  size_t len;
  const char16_t* str = readString16Inplace(&len);
  return str != nullptr ? String16(str, len) : String16();
}

}  // namespace android
