// A small bounds-checked reader over bytes in memory, for the song and module handlers.
// A read past the end is sticky: it sets `failed` and yields zeros, so a parser checks once per record.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace orlin {

class SpanReader {
 public:
  SpanReader(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool CanRead(size_t bytes) const { return !failed && bytes <= size_ - position_; }
  size_t Remaining() const { return size_ - position_; }
  size_t Position() const { return position_; }
  const uint8_t* Here() const { return data_ + position_; }
  void Seek(size_t offset) {
    if (offset > size_) failed = true;
    else position_ = offset;
  }
  void Skip(size_t bytes) {
    if (!CanRead(bytes)) failed = true, position_ = size_;
    else position_ += bytes;
  }
  uint8_t U8() { return CanRead(1) ? data_[position_++] : Fail(); }
  uint16_t U16be() { return uint16_t(U8() << 8 | U8()); }
  uint16_t U16le() { const uint16_t lo = U8(); return uint16_t(lo | U8() << 8); }
  uint32_t U32be() { const uint32_t hi = U16be(); return hi << 16 | U16be(); }
  uint32_t U32le() { const uint32_t lo = U16le(); return lo | uint32_t(U16le()) << 16; }
  // A fixed-width text field: stops at the first zero, keeps the raw bytes.
  std::string Text(size_t bytes) {
    std::string out;
    if (!CanRead(bytes)) {
      Skip(bytes);
      return out;
    }
    for (size_t i = 0; i < bytes && data_[position_ + i]; ++i) out += char(data_[position_ + i]);
    position_ += bytes;
    return out;
  }
  // A variable-length number of the MIDI kind: seven bits a byte, high bit set on all but the last.
  uint32_t VarLength() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      const uint8_t byte = U8();
      value = value << 7 | (byte & 0x7F);
      if (!(byte & 0x80)) break;
    }
    return value;
  }

  bool failed = false;

 private:
  uint8_t Fail() {
    failed = true;
    return 0;
  }
  const uint8_t* data_;
  size_t size_;
  size_t position_ = 0;
};

}  // namespace orlin
