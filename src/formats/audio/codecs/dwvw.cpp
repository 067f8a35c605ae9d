// Delta With Variable Word width: each sample is a delta from the last, whose bit width moves by a
// unary-coded step from the width before. Words are read from the top bit of each byte down.
#include <algorithm>

#include "formats/audio/codecs/codecs.h"

namespace orlin::codecs {

namespace {

class BitReader {
 public:
  BitReader(const uint8_t* bytes, size_t count) : bytes_(bytes), bitsLeft_(uint64_t(count) * 8) {}
  bool Empty() const { return bitsLeft_ == 0; }
  uint64_t Left() const { return bitsLeft_; }
  uint32_t Bit() {
    if (!bitsLeft_) return 0;
    const uint32_t bit = (bytes_[position_ >> 3] >> (7 - (position_ & 7))) & 1;
    ++position_;
    --bitsLeft_;
    return bit;
  }
  uint32_t Bits(uint32_t count) {
    uint32_t value = 0;
    for (uint32_t k = 0; k < count; ++k) value = value << 1 | Bit();
    return value;
  }

 private:
  const uint8_t* bytes_;
  uint64_t position_ = 0;
  uint64_t bitsLeft_;
};

}  // namespace

uint64_t DecodeDwvw(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                    uint64_t maxFrames) {
  const int32_t width = int32_t(std::clamp<uint32_t>(params.bitsPerSample, 2, 24));
  const int32_t maxStep = width / 2;  // the longest unary run; it has no closing one bit
  const int32_t maxDelta = 1 << (width - 1);
  const int32_t span = 1 << width;
  const float scale = 1.0f / float(maxDelta);
  const uint32_t channels = std::max<uint32_t>(params.channels, 1);
  const uint64_t limit = maxFrames * channels;
  BitReader reader(bytes, byteCount);
  int32_t deltaWidth = 0;
  int32_t sample = 0;
  uint64_t done = 0;
  while (done < limit && !reader.Empty()) {
    int32_t step = 0;
    while (step < maxStep && reader.Left() && !reader.Bit()) ++step;
    if (step && reader.Bit()) step = -step;
    deltaWidth = (deltaWidth + step + width) % width;
    int32_t delta = 0;
    if (deltaWidth) {
      delta = int32_t(reader.Bits(uint32_t(deltaWidth - 1))) | 1 << (deltaWidth - 1);
      const bool negative = reader.Bit();
      if (delta == maxDelta - 1) delta += int32_t(reader.Bit());
      if (negative) delta = -delta;
    }
    sample += delta;
    if (sample >= maxDelta) sample -= span;
    else if (sample < -maxDelta) sample += span;
    out[done++] = float(sample) * scale;
  }
  return done / channels;
}

}  // namespace orlin::codecs
