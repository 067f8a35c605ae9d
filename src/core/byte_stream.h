// Plain little-endian byte writing and bounds-checked reading over memory, for the flat records of
// items, undo entries, state files and clipboard blocks. A failed read is sticky and yields zeros.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/wave_data.h"

namespace orlin {

// Writes into memory already sized by the caller (the sizes are computed first).
class ByteSink {
 public:
  explicit ByteSink(uint8_t* at) : at_(at) {}
  void Bytes(const void* bytes, size_t size) {
    if (size) std::memcpy(at_, bytes, size);
    at_ += size;
  }
  void Zeros(size_t size) {
    std::memset(at_, 0, size);
    at_ += size;
  }
  void U8(uint8_t value) { *at_++ = value; }
  void U16(uint16_t value) { Little(value, 2); }
  void U32(uint32_t value) { Little(value, 4); }
  void U64(uint64_t value) { Little(value, 8); }
  void F32(float value) {
    uint32_t bits;
    std::memcpy(&bits, &value, 4);
    U32(bits);
  }
  uint8_t* Here() const { return at_; }

 private:
  void Little(uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) *at_++ = uint8_t(value >> (8 * i));
  }
  uint8_t* at_;
};

class ByteSource {
 public:
  ByteSource(const uint8_t* begin, const uint8_t* end) : at_(begin), end_(end) {}
  bool CanRead(uint64_t size) const { return ok_ && size <= uint64_t(end_ - at_); }
  size_t Remaining() const { return size_t(end_ - at_); }
  bool Ok() const { return ok_; }
  const uint8_t* Here() const { return at_; }
  // The next `size` bytes, or null (and failed) when they are not there.
  const uint8_t* Take(size_t size) {
    if (!CanRead(size)) {
      ok_ = false;
      return nullptr;
    }
    const uint8_t* bytes = at_;
    at_ += size;
    return bytes;
  }
  uint8_t U8() { return uint8_t(Little(1)); }
  uint16_t U16() { return uint16_t(Little(2)); }
  uint32_t U32() { return uint32_t(Little(4)); }
  uint64_t U64() { return Little(8); }
  float F32() {
    const uint32_t bits = U32();
    float value;
    std::memcpy(&value, &bits, 4);
    return value;
  }

 private:
  uint64_t Little(int bytes) {
    const uint8_t* at = Take(size_t(bytes));
    if (!at) return 0;
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value |= uint64_t(at[i]) << (8 * i);
    return value;
  }
  const uint8_t* at_;
  const uint8_t* end_;
  bool ok_ = true;
};

// A wave's markers in their flat form: u16 count, then per marker u8 section flag, u32 start,
// u32 end, u32 id, u8 name length (names are cut at 255 bytes) and the name (core/serialize.cpp).
size_t MarkerListSize(const std::vector<Marker>& markers);
void WriteMarkerList(const std::vector<Marker>& markers, ByteSink& out);
bool ReadMarkerList(ByteSource& in, std::vector<Marker>& markers);

}  // namespace orlin
