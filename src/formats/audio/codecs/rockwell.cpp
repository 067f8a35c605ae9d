// Rockwell ADPCM, the 2, 3 and 4-bit voice coder of Rockwell modem chipsets (7200 Hz on the line).
// A two-pole, six-zero adaptive predictor over Q15 fixed point, a step that multiplies by a per-code
// factor, and a de-emphasis stage on the output. The arithmetic follows the chipset's 16-bit DSP
// code: products are doubled in 32 bits and wrap, sums saturate, halves round on bit 15.
#include <algorithm>
#include <cstdint>

#include "formats/audio/codecs/codecs.h"

namespace orlin::codecs {

namespace {

// Step multipliers (Q14) and inverse quantizer levels (Q15, signed) by code, for 2, 3 and 4 bits.
constexpr int16_t kStepFactor2[4] = {0x3333, 0x199A, 0x199A, 0x3333};
constexpr int16_t kStepFactor3[8] = {0x3800, 0x2800, 0x1CCD, 0x1CCD, 0x1CCD, 0x1CCD, 0x2800, 0x3800};
constexpr int16_t kStepFactor4[16] = {0x4CCD, 0x4000, 0x3333, 0x2666, 0x1CCD, 0x1CCD, 0x1CCD, 0x1CCD,
                                      0x1CCD, 0x1CCD, 0x1CCD, 0x1CCD, 0x2666, 0x3333, 0x4000, 0x4CCD};
constexpr int16_t kLevel2[4] = {-12370, -3709, 3709, 12370};
constexpr int16_t kLevel3[8] = {-17629, -11010, -6193, -2008, 2008, 6193, 11010, 17629};
constexpr int16_t kLevel4[16] = {-22389, -16949, -13271, -10289, -7720, -5381, -3179, -1052,
                                 1052,   3179,   5381,   7720,   10289,  13255,  16949,  22389};
// Largest step per width; the smallest is common to all.
constexpr int32_t kStepMax[3] = {0x54C4, 0x3B7A, 0x2ED5};
constexpr int32_t kStepMin = 0x1F;
// Coefficient leak (0.98) and the sign-sign update sizes of the poles (0.012) and zeros (0.006).
constexpr int32_t kLeak = 32113;
constexpr int32_t kPoleGain = 393;
constexpr int32_t kZeroGain = 197;
// De-emphasis feedback, 0.4.
constexpr int32_t kDeemphasis = 0x3333;

int32_t Saturate16(int64_t value) { return int32_t(std::clamp<int64_t>(value, INT16_MIN, INT16_MAX)); }
int32_t Saturate32(int64_t value) { return int32_t(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX)); }

// Q15 product, doubled in a 32-bit register: -1 times -1 wraps to -1, as on the chip.
int32_t Product(int32_t a, int32_t b) { return int32_t(uint32_t(a * b) << 1); }
// The high half, rounded on bit 15.
int32_t RoundHigh(int32_t value) {
  const uint32_t bits = uint32_t(value);
  return int16_t(uint16_t((bits >> 16) + ((bits >> 15) & 1)));
}
int32_t High(int32_t value) { return int16_t(uint16_t(uint32_t(value) >> 16)); }
// A Q15 product scaled back to 16 bits with the chip's two-bit point shift.
int32_t Scaled(int32_t a, int32_t b) { return Saturate16(int64_t(RoundHigh(Product(a, b))) * 4); }

class RockwellDecoder {
 public:
  explicit RockwellDecoder(uint32_t bits) {
    const uint32_t width = std::clamp(bits, 2u, 4u);
    stepMax_ = kStepMax[width - 2];
    factors_ = width == 2 ? kStepFactor2 : width == 3 ? kStepFactor3 : kStepFactor4;
    levels_ = width == 2 ? kLevel2 : width == 3 ? kLevel3 : kLevel4;
  }

  int16_t Decode(uint32_t code) {
    const int32_t difference = Scaled(levels_[code], step_);
    step_ = std::clamp(Scaled(factors_[code], step_), kStepMin, stepMax_);
    // history_: the last two reconstructed values, then the last six differences.
    int32_t sum = int32_t(uint32_t(difference) << 16);
    for (int i = 0; i < 8; ++i) sum = Saturate32(int64_t(sum) + Product(coef_[i], history_[i]));
    const int32_t reconstructed = High(sum);
    deemphasis_ = High(Saturate32(int64_t(sum) + Product(kDeemphasis, deemphasis_)));
    for (int i = 0; i < 8; ++i) {
      const int32_t gain = i < 2 ? kPoleGain : kZeroGain;
      const int32_t correlation = RoundHigh(Product(difference, history_[i]));
      coef_[i] = Saturate16(RoundHigh(Product(coef_[i], kLeak)) + (correlation < 0 ? -gain : gain));
    }
    std::copy_backward(history_ + 2, history_ + 7, history_ + 8);
    history_[2] = difference;
    history_[1] = history_[0];
    history_[0] = reconstructed;
    return int16_t(deemphasis_);
  }

 private:
  const int16_t* factors_;
  const int16_t* levels_;
  int32_t stepMax_;
  int32_t step_ = kStepMin;
  int32_t deemphasis_ = 0;
  int32_t coef_[8] = {};
  int32_t history_[8] = {};
};

}  // namespace

uint64_t RockwellFrames(uint64_t byteCount, const CodecParams& params) {
  return byteCount * 8 / std::clamp(params.bitsPerSample, 2u, 4u);
}

uint64_t DecodeRockwell(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                        uint64_t maxFrames) {
  const uint32_t width = std::clamp(params.bitsPerSample, 2u, 4u);
  RockwellDecoder decoder(width);
  const uint32_t mask = (1u << width) - 1;
  uint32_t pending = 0, pendingBits = 0;
  uint64_t done = 0;
  for (size_t i = 0; i < byteCount && done < maxFrames; ++i) {
    // Codes run from the low bits of each byte up, spilling into the next byte.
    pending |= uint32_t(bytes[i]) << pendingBits;
    pendingBits += 8;
    for (; pendingBits >= width && done < maxFrames; pendingBits -= width, pending >>= width)
      out[done++] = float(decoder.Decode(pending & mask)) * kSampleScale;
  }
  return done;
}

}  // namespace orlin::codecs
