// G.722 sub-band ADPCM at 64 kbit/s: a 24-tap QMF pair splits 16 kHz audio into a low band coded with
// 6 bits and a high band coded with 2; each byte holds the high code in its top two bits. Both bands
// share the standard's pole-zero predictor (block 4). All arithmetic is the standard's 16-bit fixed
// point with saturation, so a stream decodes bit for bit as other conforming decoders do.
#include <algorithm>

#include "formats/audio/codecs/codecs.h"

namespace orlin::codecs {

namespace {

// QMF coefficients h0..h23 (symmetric).
constexpr int32_t kQmf[24] = {3,    -11, -11, 53,   12,   -156, 32,  362, -210, -805, 951, 3876,
                              3876, 951, -805, -210, 362, 32,   -156, 12, 53,   -11,  -11, 3};
// Low band: 6-bit inverse quantizer, its 4-bit form for the predictor, log-scale step and its index.
constexpr int32_t kQm6[64] = {-136,   -136,   -136,   -136,   -24808, -21904, -19008, -16704, -14984, -13512, -12280,
                              -11192, -10232, -9360,  -8576,  -7856,  -7192,  -6576,  -6000,  -5456,  -4944,  -4464,
                              -4008,  -3576,  -3168,  -2776,  -2400,  -2032,  -1688,  -1360,  -1040,  -728,   24808,
                              21904,  19008,  16704,  14984,  13512,  12280,  11192,  10232,  9360,   8576,   7856,
                              7192,   6576,   6000,   5456,   4944,   4464,   4008,   3576,   3168,   2776,   2400,
                              2032,   1688,   1360,   1040,   728,    432,    136,    -432,   -136};
// The 5-bit inverse quantizer of the 56 kbit/s mode.
constexpr int32_t kQm5[32] = {-280,  -280,  -23352, -17560, -14120, -11664, -9752, -8184, -6864, -5712, -4696,
                              -3784, -2960, -2208,  -1520,  -880,   23352,  17560, 14120, 11664, 9752,  8184,
                              6864,  5712,  4696,   3784,   2960,   2208,   1520,  880,   280,   -280};
constexpr int32_t kQm4[16] = {0,     -20456, -12896, -8968, -6288, -4240, -2584, -1200,
                              20456, 12896,  8968,   6288,  4240,  2584,  1200,  0};
constexpr int32_t kRl42[16] = {0, 7, 6, 5, 4, 3, 2, 1, 7, 6, 5, 4, 3, 2, 1, 0};
constexpr int32_t kWl[8] = {-60, -30, 58, 172, 334, 538, 1198, 3042};
// Low band quantizer decision levels and the codes for negative and positive differences.
constexpr int32_t kQ6[32] = {0,   35,  72,  110, 150,  190,  233,  276,  323,  370,  422,  473,  530,  587,  650,  714,
                             786, 858, 940, 1023, 1121, 1219, 1339, 1458, 1612, 1765, 1980, 2195, 2557, 2919, 0, 0};
constexpr int32_t kIln[32] = {0,  63, 62, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19,
                              18, 17, 16, 15, 14, 13, 12, 11, 10, 9,  8,  7,  6,  5,  4,  0};
constexpr int32_t kIlp[32] = {0,  61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47,
                              46, 45, 44, 43, 42, 41, 40, 39, 38, 37, 36, 35, 34, 33, 32, 0};
// High band.
constexpr int32_t kQm2[4] = {-7408, -1616, 7408, 1616};
constexpr int32_t kRh2[4] = {2, 1, 2, 1};
constexpr int32_t kWh[3] = {0, -214, 798};
constexpr int32_t kIhn[3] = {0, 1, 0};
constexpr int32_t kIhp[3] = {0, 3, 2};
// Inverse log-scale table.
constexpr int32_t kIlb[32] = {2048, 2093, 2139, 2186, 2233, 2282, 2332, 2383, 2435, 2489, 2543,
                              2599, 2656, 2714, 2774, 2834, 2896, 2960, 3025, 3091, 3158, 3228,
                              3298, 3371, 3444, 3520, 3597, 3676, 3756, 3838, 3922, 4008};
constexpr int32_t kLowScaleLimit = 18432;
constexpr int32_t kHighScaleLimit = 22528;

int32_t Saturate(int32_t value) { return std::clamp(value, -32768, 32767); }

struct Band {
  int32_t s = 0, sp = 0, sz = 0;
  int32_t r[3] = {}, a[3] = {}, ap[3] = {}, p[3] = {}, d[7] = {}, b[7] = {}, bp[7] = {}, sg[7] = {};
  int32_t nb = 0, det = 0;

  // Log-scale adaptation and the step it gives; `shift` is 8 for the low band, 10 for the high.
  void Scale(int32_t weight, int32_t limit, int32_t shift) {
    nb = std::clamp(((nb * 127) >> 7) + weight, 0, limit);
    const int32_t index = (nb >> 6) & 31;
    const int32_t exponent = shift - (nb >> 11);
    const int32_t step = exponent < 0 ? kIlb[index] << -exponent : kIlb[index] >> exponent;
    det = step << 2;
  }

  // Block 4: reconstruct, adapt the two poles and six zeros, predict the next sample.
  void Predict(int32_t dq) {
    d[0] = dq;
    r[0] = Saturate(s + dq);
    p[0] = Saturate(sz + dq);
    for (int32_t i = 0; i < 3; ++i) sg[i] = p[i] >> 15;
    // Second pole.
    int32_t wd1 = Saturate(a[1] * 4);
    int32_t wd2 = sg[0] == sg[1] ? -wd1 : wd1;
    wd2 = std::min(wd2, 32767);
    int32_t wd3 = (sg[0] == sg[2] ? 128 : -128) + (wd2 >> 7) + ((a[2] * 32512) >> 15);
    ap[2] = std::clamp(wd3, -12288, 12288);
    // First pole, bounded by the second.
    wd1 = sg[0] == sg[1] ? 192 : -192;
    wd2 = (a[1] * 32640) >> 15;
    ap[1] = Saturate(wd1 + wd2);
    wd3 = Saturate(15360 - ap[2]);
    ap[1] = std::clamp(ap[1], -wd3, wd3);
    // Zeros.
    wd1 = dq == 0 ? 0 : 128;
    sg[0] = dq >> 15;
    for (int32_t i = 1; i < 7; ++i) {
      sg[i] = d[i] >> 15;
      wd2 = sg[i] == sg[0] ? wd1 : -wd1;
      wd3 = (b[i] * 32640) >> 15;
      bp[i] = Saturate(wd2 + wd3);
    }
    // Delays.
    for (int32_t i = 6; i > 0; --i) {
      d[i] = d[i - 1];
      b[i] = bp[i];
    }
    for (int32_t i = 2; i > 0; --i) {
      r[i] = r[i - 1];
      p[i] = p[i - 1];
      a[i] = ap[i];
    }
    // Pole and zero sections of the prediction.
    wd1 = (a[1] * Saturate(r[1] + r[1])) >> 15;
    wd2 = (a[2] * Saturate(r[2] + r[2])) >> 15;
    sp = Saturate(wd1 + wd2);
    sz = 0;
    for (int32_t i = 6; i > 0; --i) sz += (b[i] * Saturate(d[i] + d[i])) >> 15;
    sz = Saturate(sz);
    s = Saturate(sp + sz);
  }
};

struct G722State {
  Band low, high;
  int32_t x[24] = {};  // QMF delay line, newest last

  G722State() {
    low.det = 32;
    high.det = 8;
  }

  // `bits` is 8, 7 or 6 for 64, 56 and 48 kbit/s: the lower modes ignore one or two low bits of
  // the low band code, which carry side data.
  void DecodeByte(uint8_t code, uint32_t bits, int16_t* outPair) {
    const int32_t lowCode = code & 0x3F;
    const int32_t highCode = code >> 6;
    // Low band: the code less the side bits for the output, its top 4 bits for adaptation.
    const int32_t step = bits == 6 ? kQm4[lowCode >> 2] : bits == 7 ? kQm5[lowCode >> 1] : kQm6[lowCode];
    const int32_t rlow = std::clamp(low.s + ((low.det * step) >> 15), -16384, 16383);
    const int32_t lowCode4 = lowCode >> 2;
    const int32_t dlow = (low.det * kQm4[lowCode4]) >> 15;
    low.Scale(kWl[kRl42[lowCode4]], kLowScaleLimit, 8);
    low.Predict(dlow);
    // High band.
    const int32_t dhigh = (high.det * kQm2[highCode]) >> 15;
    const int32_t rhigh = std::clamp(dhigh + high.s, -16384, 16383);
    high.Scale(kWh[kRh2[highCode]], kHighScaleLimit, 10);
    high.Predict(dhigh);
    // Receive QMF: even taps on the band difference, odd taps on the sum.
    std::copy(x + 2, x + 24, x);
    x[22] = rlow + rhigh;
    x[23] = rlow - rhigh;
    int32_t first = 0, second = 0;
    for (int32_t i = 0; i < 12; ++i) {
      first += x[2 * i + 1] * kQmf[22 - 2 * i];
      second += x[2 * i] * kQmf[23 - 2 * i];
    }
    outPair[0] = int16_t(Saturate(first >> 11));
    outPair[1] = int16_t(Saturate(second >> 11));
  }

  uint8_t EncodePair(int32_t in0, int32_t in1) {
    // Transmit QMF.
    std::copy(x + 2, x + 24, x);
    x[22] = in0;
    x[23] = in1;
    int32_t sumOdd = 0, sumEven = 0;
    for (int32_t i = 0; i < 12; ++i) {
      sumOdd += x[2 * i] * kQmf[23 - 2 * i];
      sumEven += x[2 * i + 1] * kQmf[22 - 2 * i];
    }
    const int32_t xlow = (sumEven + sumOdd) >> 14;
    const int32_t xhigh = (sumEven - sumOdd) >> 14;
    // Low band quantizer: the first decision level above |el|.
    const int32_t el = Saturate(xlow - low.s);
    const int32_t magnitude = el >= 0 ? el : -(el + 1);
    int32_t level = 1;
    for (; level < 30; ++level)
      if (magnitude < ((kQ6[level] * low.det) >> 12)) break;
    const int32_t lowCode = el < 0 ? kIln[level] : kIlp[level];
    const int32_t lowCode4 = lowCode >> 2;
    const int32_t dlow = (low.det * kQm4[lowCode4]) >> 15;
    low.Scale(kWl[kRl42[lowCode4]], kLowScaleLimit, 8);
    low.Predict(dlow);
    // High band quantizer: two levels.
    const int32_t eh = Saturate(xhigh - high.s);
    const int32_t highMagnitude = eh >= 0 ? eh : -(eh + 1);
    const int32_t highLevel = highMagnitude >= ((564 * high.det) >> 12) ? 2 : 1;
    const int32_t highCode = eh < 0 ? kIhn[highLevel] : kIhp[highLevel];
    const int32_t dhigh = (high.det * kQm2[highCode]) >> 15;
    high.Scale(kWh[kRh2[highCode]], kHighScaleLimit, 10);
    high.Predict(dhigh);
    return uint8_t(highCode << 6 | lowCode);
  }
};

}  // namespace

uint64_t G722Frames(uint64_t byteCount, const CodecParams&) { return byteCount * 2; }

uint64_t DecodeG722(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                    uint64_t maxFrames) {
  const uint32_t bits = params.bitsPerSample == 6 || params.bitsPerSample == 7 ? params.bitsPerSample : 8;
  G722State state;
  uint64_t done = 0;
  int16_t pair[2];
  for (size_t i = 0; i < byteCount && done < maxFrames; ++i) {
    state.DecodeByte(bytes[i], bits, pair);
    out[done++] = float(pair[0]) * kSampleScale;
    if (done < maxFrames) out[done++] = float(pair[1]) * kSampleScale;
  }
  return done;
}

std::vector<uint8_t> EncodeG722(const float* in, uint64_t frames) {
  G722State state;
  std::vector<uint8_t> outBytes((frames + 1) / 2);
  for (uint64_t i = 0; i < outBytes.size(); ++i) {
    const int32_t first = FloatToPcm16(in[2 * i]);
    const int32_t second = 2 * i + 1 < frames ? FloatToPcm16(in[2 * i + 1]) : 0;
    outBytes[i] = state.EncodePair(first, second);
  }
  return outBytes;
}

}  // namespace orlin::codecs
