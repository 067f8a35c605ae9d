// Bounds-checked byte reading and writing over memory. A read past the end fails, yields zeros and
// leaves the reader failed for good, so a parser reads a whole record and checks once. Sub-readers
// are clamped to one chunk, so a chunk parser can never reach into its neighbour.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace orlin {

constexpr uint32_t FourCC(const char (&text)[5]) {
  return uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 | uint32_t(uint8_t(text[2])) << 16 |
         uint32_t(uint8_t(text[3])) << 24;
}

class ByteReader {
 public:
  ByteReader() = default;
  ByteReader(const uint8_t* data, size_t size) : data_(data), size_(data ? size : 0) {}
  explicit ByteReader(const std::vector<uint8_t>& bytes) : ByteReader(bytes.data(), bytes.size()) {}

  size_t Size() const { return size_; }
  size_t Position() const { return position_; }
  size_t Remaining() const { return size_ - position_; }
  bool CanRead(size_t count) const { return !failed_ && count <= Remaining(); }
  bool Failed() const { return failed_; }
  bool Ok() const { return !failed_; }
  const uint8_t* Data() const { return data_; }

  // Moves to an absolute position; past the end fails.
  bool Seek(size_t position) {
    if (position > size_) return Fail();
    position_ = position;
    return true;
  }
  bool Skip(size_t count) {
    if (!CanRead(count)) return Fail();
    position_ += count;
    return true;
  }
  // Copies `count` bytes, or zeros and fails when they are not there.
  bool Read(void* out, size_t count) {
    if (!CanRead(count)) {
      std::memset(out, 0, count);
      return Fail();
    }
    std::memcpy(out, data_ + position_, count);
    position_ += count;
    return true;
  }
  // A view of the next `count` bytes (fewer at the end: the reader then fails).
  std::string_view Text(size_t count) {
    const size_t taken = count <= Remaining() ? count : Remaining();
    std::string_view view(reinterpret_cast<const char*>(data_ + position_), taken);
    position_ += taken;
    if (taken != count) Fail();
    return view;
  }
  // A reader over the next `count` bytes, clamped to what is left; this reader moves past them.
  ByteReader Sub(size_t count) {
    const size_t taken = count <= Remaining() ? count : Remaining();
    ByteReader sub(data_ + position_, taken);
    position_ += taken;
    return sub;
  }

  uint8_t U8() { return uint8_t(Unsigned(1, false)); }
  int8_t I8() { return int8_t(U8()); }
  uint16_t U16() { return uint16_t(Unsigned(2, false)); }
  int16_t I16() { return int16_t(U16()); }
  uint32_t U32() { return uint32_t(Unsigned(4, false)); }
  int32_t I32() { return int32_t(U32()); }
  uint64_t U64() { return Unsigned(8, false); }
  int64_t I64() { return int64_t(U64()); }
  uint16_t U16Be() { return uint16_t(Unsigned(2, true)); }
  uint32_t U32Be() { return uint32_t(Unsigned(4, true)); }
  uint64_t U64Be() { return Unsigned(8, true); }
  float F32() {
    const uint32_t raw = U32();
    float value;
    std::memcpy(&value, &raw, 4);
    return value;
  }

 private:
  bool Fail() {
    failed_ = true;
    return false;
  }
  uint64_t Unsigned(size_t count, bool bigEndian) {
    if (!CanRead(count)) {
      Fail();
      return 0;
    }
    uint64_t value = 0;
    for (size_t k = 0; k < count; ++k) {
      const uint64_t byte = data_[position_ + k];
      value |= byte << (8 * (bigEndian ? count - 1 - k : k));
    }
    position_ += count;
    return value;
  }

  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  size_t position_ = 0;
  bool failed_ = false;
};

// A growing byte buffer with typed writes and back-patching.
class ByteWriter {
 public:
  std::vector<uint8_t>& Bytes() { return bytes_; }
  const std::vector<uint8_t>& Bytes() const { return bytes_; }
  size_t Size() const { return bytes_.size(); }

  void U8(uint8_t value) { bytes_.push_back(value); }
  void U16(uint16_t value) { Put(value, 2, false); }
  void U32(uint32_t value) { Put(value, 4, false); }
  void U64(uint64_t value) { Put(value, 8, false); }
  void U16Be(uint16_t value) { Put(value, 2, true); }
  void U32Be(uint32_t value) { Put(value, 4, true); }
  void Append(const void* data, size_t count) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    bytes_.insert(bytes_.end(), bytes, bytes + count);
  }
  void Append(std::string_view text) { Append(text.data(), text.size()); }
  void Fill(uint8_t value, size_t count) { bytes_.insert(bytes_.end(), count, value); }
  // Overwrites bytes already written; positions past the end are ignored.
  void PatchU32(size_t at, uint32_t value) { Patch(at, value, 4); }
  void PatchU64(size_t at, uint64_t value) { Patch(at, value, 8); }

 private:
  void Put(uint64_t value, size_t count, bool bigEndian) {
    for (size_t k = 0; k < count; ++k) bytes_.push_back(uint8_t(value >> (8 * (bigEndian ? count - 1 - k : k))));
  }
  void Patch(size_t at, uint64_t value, size_t count) {
    if (at + count > bytes_.size()) return;
    for (size_t k = 0; k < count; ++k) bytes_[at + k] = uint8_t(value >> (8 * k));
  }

  std::vector<uint8_t> bytes_;
};

}  // namespace orlin
