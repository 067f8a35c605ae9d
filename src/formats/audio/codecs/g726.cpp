// The CCITT adaptive differential coder of G.721 (4-bit), G.723 (3- and 5-bit) and G.726 (2- to 5-bit).
// One state runs over the whole stream; the code width picks the quantizer tables. Numbers follow the
// standard's fixed-point blocks: signals are 14-bit, dq and sr are kept in its 11-bit float form, and
// the 16-bit result is the 14-bit reconstruction shifted up by two.
#include <algorithm>
#include <cstdlib>

#include "formats/audio/codecs/codecs.h"

namespace orlin::codecs {

namespace {

// Per code width: quantizer thresholds, log magnitudes of the inverse quantizer, the scale factor
// multipliers (already in the yu domain) and the speed-control weights.
constexpr int32_t kQuant2[] = {261};
constexpr int32_t kDqln2[] = {116, 365, 365, 116};
constexpr int32_t kWi2[] = {-704, 14048, 14048, -704};
constexpr int32_t kFi2[] = {0, 0xE00, 0xE00, 0};

constexpr int32_t kQuant3[] = {8, 218, 331};
constexpr int32_t kDqln3[] = {-2048, 135, 273, 373, 373, 273, 135, -2048};
constexpr int32_t kWi3[] = {-128, 960, 4384, 18624, 18624, 4384, 960, -128};
constexpr int32_t kFi3[] = {0, 0x200, 0x400, 0xE00, 0xE00, 0x400, 0x200, 0};

constexpr int32_t kQuant4[] = {-124, 80, 178, 246, 300, 349, 400};
constexpr int32_t kDqln4[] = {-2048, 4, 135, 213, 273, 323, 373, 425, 425, 373, 323, 273, 213, 135, 4, -2048};
constexpr int32_t kWi4[] = {-384, 576, 1312, 2048, 3584, 6336, 11360, 35904,
                            35904, 11360, 6336, 3584, 2048, 1312, 576, -384};
constexpr int32_t kFi4[] = {0, 0, 0, 0x200, 0x200, 0x200, 0x600, 0xE00, 0xE00, 0x600, 0x200, 0x200, 0x200, 0, 0, 0};

constexpr int32_t kQuant5[] = {-122, -16, 68, 139, 198, 250, 298, 339, 378, 413, 445, 475, 502, 528, 553};
constexpr int32_t kDqln5[] = {-2048, -66, 28,  104, 169, 224, 274, 318, 358, 395, 429, 459, 488, 514, 539, 566,
                              566,   539, 514, 488, 459, 429, 395, 358, 318, 274, 224, 169, 104, 28,  -66, -2048};
constexpr int32_t kWi5[] = {448,   448,   768,   1248,  1280,  1312,  1856,  3200, 4512, 5728, 7008,
                            8960,  11456, 14080, 16928, 22272, 22272, 16928, 14080, 11456, 8960, 7008,
                            5728,  4512,  3200,  1856,  1312,  1280,  1248,  768,   448,   448};
constexpr int32_t kFi5[] = {0,     0,     0,     0,     0,     0x200, 0x200, 0x200, 0x200, 0x200, 0x400,
                            0x600, 0x800, 0xA00, 0xC00, 0xC00, 0xC00, 0xC00, 0xA00, 0x800, 0x600, 0x400,
                            0x200, 0x200, 0x200, 0x200, 0x200, 0,     0,     0,     0,     0};

struct Tables {
  const int32_t* quant;
  int32_t quantCount;
  const int32_t* dqln;
  const int32_t* wi;
  const int32_t* fi;
};

Tables TablesFor(uint32_t bits) {
  switch (bits) {
    case 2: return {kQuant2, 1, kDqln2, kWi2, kFi2};
    case 3: return {kQuant3, 3, kDqln3, kWi3, kFi3};
    case 5: return {kQuant5, 15, kDqln5, kWi5, kFi5};
    default: return {kQuant4, 7, kDqln4, kWi4, kFi4};
  }
}

// Number of powers of two (1, 2, 4 ... 2^14) not above `value`: the exponent of the float form.
int32_t Exponent(int32_t value) {
  int32_t e = 0;
  while (e < 15 && value >= (1 << e)) ++e;
  return e;
}

// Number of thresholds not above `value`.
int32_t Quantize(int32_t value, const int32_t* table, int32_t count) {
  int32_t i = 0;
  while (i < count && value >= table[i]) ++i;
  return i;
}

// Multiplies a predictor coefficient by a signal in the 11-bit float form (6-bit mantissa, 4-bit
// exponent, sign in bit 10).
int32_t FloatMultiply(int32_t an, int32_t srn) {
  const int32_t anMagnitude = an > 0 ? an : (-an) & 0x1FFF;
  const int32_t anExponent = Exponent(anMagnitude) - 6;
  const int32_t anMantissa =
      anMagnitude == 0 ? 32 : anExponent >= 0 ? anMagnitude >> anExponent : anMagnitude << -anExponent;
  const int32_t exponent = anExponent + ((srn >> 6) & 15) - 13;
  const int32_t mantissa = (anMantissa * (srn & 63) + 0x30) >> 4;
  const int32_t product = exponent >= 0 ? (mantissa << exponent) & 0x7FFF : mantissa >> -exponent;
  return (an ^ srn) < 0 ? -product : product;
}

// A negative zero in the float form: 0xFC20 as a 16-bit word, whose sign the products test.
constexpr int32_t kNegativeZero = int16_t(0xFC20);

// The 11-bit float form of a magnitude with its sign.
int32_t ToFloatForm(int32_t magnitude, bool negative) {
  if (magnitude == 0) return negative ? kNegativeZero : 0x20;
  const int32_t e = Exponent(magnitude);
  const int32_t value = (e << 6) + ((magnitude << 6) >> e);
  return negative ? value - 0x400 : value;
}

}  // namespace

void G726State::Reset(uint32_t bits) {
  bits_ = std::clamp(bits, 2u, 5u);
  yl_ = 34816;
  yu_ = 544;
  dms_ = dml_ = ap_ = td_ = 0;
  for (int32_t i = 0; i < 2; ++i) a_[i] = pk_[i] = 0, sr_[i] = 32;
  for (int32_t i = 0; i < 6; ++i) b_[i] = 0, dq_[i] = 32;
}

int32_t G726State::PredictZero() const {
  int32_t sum = 0;
  for (int32_t i = 0; i < 6; ++i) sum += FloatMultiply(b_[i] >> 2, dq_[i]);
  return sum;
}

int32_t G726State::PredictPole() const { return FloatMultiply(a_[1] >> 2, sr_[1]) + FloatMultiply(a_[0] >> 2, sr_[0]); }

int32_t G726State::StepSize() const {
  if (ap_ >= 256) return yu_;
  int32_t y = yl_ >> 6;
  const int32_t dif = yu_ - y;
  const int32_t al = ap_ >> 2;
  if (dif > 0)
    y += (dif * al) >> 6;
  else if (dif < 0)
    y += (dif * al + 0x3F) >> 6;
  return y;
}

// dq in sign-magnitude: a negative value is the magnitude minus 0x8000.
int32_t G726State::Reconstruct(bool negative, int32_t dqln, int32_t y) const {
  const int32_t dql = dqln + (y >> 2);
  if (dql < 0) return negative ? -0x8000 : 0;
  const int32_t dex = (dql >> 7) & 15;
  const int32_t dqt = 128 + (dql & 127);
  const int32_t dq = (dqt << 7) >> (14 - dex);
  return negative ? dq - 0x8000 : dq;
}

void G726State::Update(int32_t y, int32_t wi, int32_t fi, int32_t dq, int32_t sr, int32_t dqsez) {
  const int32_t pk0 = dqsez < 0 ? 1 : 0;
  const int32_t magnitude = dq & 0x7FFF;
  // Transition detector: a large dq after a tone resets the predictor.
  const int32_t ylInteger = yl_ >> 15;
  const int32_t ylFraction = (yl_ >> 10) & 0x1F;
  const int32_t threshold1 = (32 + ylFraction) << ylInteger;
  const int32_t threshold2 = ylInteger > 9 ? 31 << 10 : threshold1;
  const int32_t dqThreshold = (threshold2 + (threshold2 >> 1)) >> 1;
  const bool transition = td_ != 0 && magnitude > dqThreshold;

  yu_ = std::clamp(y + ((wi - y) >> 5), 544, 5120);
  yl_ += yu_ + ((-yl_) >> 6);

  int32_t a2p = 0;
  if (transition) {
    a_[0] = a_[1] = 0;
    for (int32_t& b : b_) b = 0;
  } else {
    const int32_t pks1 = pk0 ^ pk_[0];
    a2p = a_[1] - (a_[1] >> 7);
    if (dqsez != 0) {
      const int32_t fa1 = pks1 ? a_[0] : -a_[0];
      if (fa1 < -8191)
        a2p -= 0x100;
      else if (fa1 > 8191)
        a2p += 0xFF;
      else
        a2p += fa1 >> 5;
      if (pk0 ^ pk_[1]) {
        if (a2p <= -12160)
          a2p = -12288;
        else if (a2p >= 12416)
          a2p = 12288;
        else
          a2p -= 0x80;
      } else if (a2p <= -12416) {
        a2p = -12288;
      } else if (a2p >= 12160) {
        a2p = 12288;
      } else {
        a2p += 0x80;
      }
    }
    a_[1] = a2p;
    a_[0] -= a_[0] >> 8;
    if (dqsez != 0) a_[0] += pks1 == 0 ? 192 : -192;
    const int32_t a1Limit = 15360 - a2p;
    a_[0] = std::clamp(a_[0], -a1Limit, a1Limit);
    for (int32_t i = 0; i < 6; ++i) {
      b_[i] -= b_[i] >> (bits_ == 5 ? 9 : 8);
      if (magnitude) b_[i] += (dq ^ dq_[i]) >= 0 ? 128 : -128;
    }
  }
  for (int32_t i = 5; i > 0; --i) dq_[i] = dq_[i - 1];
  dq_[0] = ToFloatForm(magnitude, dq < 0);
  sr_[1] = sr_[0];
  if (sr <= -32768)
    sr_[0] = kNegativeZero;
  else
    sr_[0] = ToFloatForm(std::abs(sr), sr < 0);
  pk_[1] = pk_[0];
  pk_[0] = pk0;
  // Tone detector.
  td_ = !transition && a2p < -11776 ? 1 : 0;
  // Speed control.
  dms_ += (fi - dms_) >> 5;
  dml_ += ((fi << 2) - dml_) >> 7;
  if (transition)
    ap_ = 256;
  else if (y < 1536 || td_ == 1 || std::abs((dms_ << 2) - dml_) >= (dml_ >> 3))
    ap_ += (0x200 - ap_) >> 4;
  else
    ap_ += (-ap_) >> 4;
}

int32_t G726State::Step(uint32_t code, int32_t se, int32_t sez, int32_t y) {
  const Tables tables = TablesFor(bits_);
  const uint32_t signBit = 1u << (bits_ - 1);
  const int32_t dq = Reconstruct((code & signBit) != 0, tables.dqln[code], y);
  const int32_t sr = dq < 0 ? se - (dq & 0x3FFF) : se + dq;
  const int32_t dqsez = sr - se + sez;
  Update(y, tables.wi[code], tables.fi[code], dq, sr, dqsez);
  return sr;
}

int16_t G726State::Decode(uint32_t code) {
  code &= (1u << bits_) - 1;
  const int32_t sezi = PredictZero();
  const int32_t sez = sezi >> 1;
  const int32_t se = (sezi + PredictPole()) >> 1;
  const int32_t y = StepSize();
  const int32_t sr = Step(code, se, sez, y);
  return int16_t(std::clamp(sr * 4, -32768, 32767));
}

uint32_t G726State::Encode(int16_t sample) {
  const Tables tables = TablesFor(bits_);
  const int32_t sl = sample >> 2;  // 14-bit input
  const int32_t sezi = PredictZero();
  const int32_t sez = sezi >> 1;
  const int32_t se = (sezi + PredictPole()) >> 1;
  const int32_t y = StepSize();
  // Quantizer: log2 of |d| with a 7-bit mantissa, less the scale factor.
  const int32_t d = sl - se;
  const int32_t dqm = std::abs(d);
  const int32_t exponent = Exponent(dqm >> 1);
  const int32_t mantissa = ((dqm << 7) >> exponent) & 0x7F;
  const int32_t dln = (exponent << 7) + mantissa - (y >> 2);
  const int32_t i = Quantize(dln, tables.quant, tables.quantCount);
  const uint32_t mask = (1u << bits_) - 1;
  uint32_t code;
  if (d < 0)
    code = ~uint32_t(i) & mask;
  else if (i == 0 && bits_ != 2)
    code = mask;  // the wider coders have no positive zero code: it shares the top code
  else
    code = uint32_t(i);
  Step(code, se, sez, y);
  return code;
}

// ---- Packed streams ------------------------------------------------------------------------------

uint64_t G726Frames(uint64_t byteCount, const CodecParams& params) {
  const uint32_t bits = std::clamp(params.bitsPerSample, 2u, 5u);
  return byteCount * 8 / bits;
}

namespace {

uint64_t DecodePacked(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                      uint64_t maxFrames, bool littleEndian) {
  const uint32_t bits = std::clamp(params.bitsPerSample, 2u, 5u);
  G726State state(bits);
  const uint64_t frames = std::min<uint64_t>(maxFrames, uint64_t(byteCount) * 8 / bits);
  uint32_t buffer = 0, held = 0;
  size_t next = 0;
  for (uint64_t i = 0; i < frames; ++i) {
    while (held < bits) {
      if (littleEndian)
        buffer |= uint32_t(bytes[next++]) << held;
      else
        buffer = (buffer << 8) | bytes[next++];
      held += 8;
    }
    uint32_t code;
    if (littleEndian) {
      code = buffer & ((1u << bits) - 1);
      buffer >>= bits;
    } else {
      code = (buffer >> (held - bits)) & ((1u << bits) - 1);
    }
    held -= bits;
    out[i] = float(state.Decode(code)) * kSampleScale;
  }
  return frames;
}

}  // namespace

uint64_t DecodeG726(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                    uint64_t maxFrames) {
  return DecodePacked(bytes, byteCount, params, out, maxFrames, false);
}

uint64_t DecodeG726LittleEndian(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                                uint64_t maxFrames) {
  return DecodePacked(bytes, byteCount, params, out, maxFrames, true);
}

std::vector<uint8_t> EncodeG726(const float* in, uint64_t frames, uint32_t bits, bool littleEndian) {
  bits = std::clamp(bits, 2u, 5u);
  G726State state(bits);
  std::vector<uint8_t> outBytes((frames * bits + 7) / 8, 0);
  uint64_t bitPosition = 0;
  for (uint64_t i = 0; i < frames; ++i) {
    const uint32_t code = state.Encode(FloatToPcm16(in[i]));
    for (uint32_t b = 0; b < bits; ++b, ++bitPosition) {
      // Big endian: the code's top bit first, into each byte's top bit first.
      const uint32_t bit = littleEndian ? (code >> b) & 1 : (code >> (bits - 1 - b)) & 1;
      if (bit) outBytes[bitPosition / 8] |= uint8_t(littleEndian ? 1u << (bitPosition % 8) : 0x80u >> (bitPosition % 8));
    }
  }
  return outBytes;
}

}  // namespace orlin::codecs
