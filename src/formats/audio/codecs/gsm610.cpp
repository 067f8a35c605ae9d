// GSM 06.10 full-rate speech: 160 samples per 260-bit frame, carried as 33-byte frames (signature
// nibble 0xD, fields from the top bit down), as the WAVE form's 65-byte pairs (fields from the low bit
// up, the second frame starting in the middle of byte 32), or inside 38-byte modem records. Decoding is
// the standard's 16-bit fixed-point arithmetic throughout; a stream shorter than a frame gives silence.
#include <algorithm>
#include <cstdlib>

#include "formats/audio/codecs/codecs.h"

namespace orlin::codecs {

namespace {

constexpr uint32_t kFrameSamples = 160;
constexpr uint32_t kSubframeSamples = 40;
constexpr size_t kRawFrameBytes = 33;
constexpr size_t kWavePairBytes = 65;
constexpr size_t kUsrRecordBytes = 38;

using Word = int16_t;
constexpr int32_t kMinWord = -32768;
constexpr int32_t kMaxWord = 32767;

Word Add(int32_t a, int32_t b) { return Word(std::clamp(a + b, kMinWord, kMaxWord)); }
Word Sub(int32_t a, int32_t b) { return Word(std::clamp(a - b, kMinWord, kMaxWord)); }
// Rounded Q15 product; -1 * -1 saturates.
Word MultR(int32_t a, int32_t b) {
  if (a == kMinWord && b == kMinWord) return kMaxWord;
  return Word((a * b + 16384) >> 15);
}
Word Mult(int32_t a, int32_t b) {
  if (a == kMinWord && b == kMinWord) return kMaxWord;
  return Word((a * b) >> 15);
}
Word ShiftRight(int32_t a, int32_t n) {
  if (n >= 16) return Word(a < 0 ? -1 : 0);
  if (n <= -16) return 0;
  if (n < 0) return Word(a << -n);
  return Word(a >> n);
}
Word ShiftLeft(int32_t a, int32_t n) {
  if (n >= 16) return 0;
  if (n <= -16) return Word(a < 0 ? -1 : 0);
  if (n < 0) return ShiftRight(a, -n);
  return Word(a << n);
}

// The parameters of one frame.
struct GsmFrame {
  Word larc[8];
  Word nc[4], bc[4], mc[4], xmaxc[4];
  Word xmc[4][13];
};

constexpr int32_t kLarBits[8] = {6, 6, 5, 5, 4, 4, 3, 3};

// Reads fields from a bit stream, top bit first or low bit first.
class BitReader {
 public:
  BitReader(const uint8_t* bytes, bool lowFirst, uint32_t startBit = 0)
      : bytes_(bytes), lowFirst_(lowFirst), position_(startBit) {}
  Word Get(int32_t bits) {
    int32_t value = 0;
    for (int32_t b = 0; b < bits; ++b, ++position_) {
      const uint32_t byte = bytes_[position_ / 8];
      if (lowFirst_)
        value |= int32_t((byte >> (position_ % 8)) & 1) << b;
      else
        value = (value << 1) | int32_t((byte >> (7 - position_ % 8)) & 1);
    }
    return Word(value);
  }

 private:
  const uint8_t* bytes_;
  bool lowFirst_;
  uint32_t position_;
};

class BitWriter {
 public:
  BitWriter(uint8_t* bytes, bool lowFirst, uint32_t startBit = 0)
      : bytes_(bytes), lowFirst_(lowFirst), position_(startBit) {}
  void Put(int32_t value, int32_t bits) {
    for (int32_t b = 0; b < bits; ++b, ++position_) {
      const uint32_t bit = lowFirst_ ? (value >> b) & 1 : (value >> (bits - 1 - b)) & 1;
      if (bit) bytes_[position_ / 8] |= uint8_t(lowFirst_ ? 1u << (position_ % 8) : 0x80u >> (position_ % 8));
    }
  }

 private:
  uint8_t* bytes_;
  bool lowFirst_;
  uint32_t position_;
};

template <typename Bits>
void ReadFields(Bits& bits, GsmFrame& frame) {
  for (int32_t i = 0; i < 8; ++i) frame.larc[i] = bits.Get(kLarBits[i]);
  for (int32_t j = 0; j < 4; ++j) {
    frame.nc[j] = bits.Get(7);
    frame.bc[j] = bits.Get(2);
    frame.mc[j] = bits.Get(2);
    frame.xmaxc[j] = bits.Get(6);
    for (int32_t k = 0; k < 13; ++k) frame.xmc[j][k] = bits.Get(3);
  }
}

template <typename Bits>
void WriteFields(Bits& bits, const GsmFrame& frame) {
  for (int32_t i = 0; i < 8; ++i) bits.Put(frame.larc[i], kLarBits[i]);
  for (int32_t j = 0; j < 4; ++j) {
    bits.Put(frame.nc[j], 7);
    bits.Put(frame.bc[j], 2);
    bits.Put(frame.mc[j], 2);
    bits.Put(frame.xmaxc[j], 6);
    for (int32_t k = 0; k < 13; ++k) bits.Put(frame.xmc[j][k], 3);
  }
}

// ---- Tables of the standard -------------------------------------------------------------------

constexpr Word kFac[8] = {18431, 20479, 22527, 24575, 26623, 28671, 30719, 32767};
constexpr Word kQlb[4] = {3277, 11469, 21299, 32767};
constexpr Word kMic[8] = {-32, -32, -16, -16, -8, -8, -4, -4};
constexpr Word kMac[8] = {31, 31, 15, 15, 7, 7, 3, 3};
constexpr Word kB[8] = {0, 0, 2048, -2560, 94, -1792, -341, -1144};
constexpr Word kA[8] = {20480, 20480, 20480, 20480, 13964, 15360, 8534, 9036};
constexpr Word kInvA[8] = {13107, 13107, 13107, 13107, 19223, 17476, 31454, 29708};
constexpr Word kDlb[4] = {6554, 16384, 26214, 32767};
constexpr Word kH[11] = {-134, -374, 0, 2054, 5741, 8192, 5741, 2054, 0, -374, -134};
constexpr Word kNrFac[8] = {29128, 26215, 23832, 21846, 20165, 18725, 17476, 16384};

// xmaxc to the exponent and mantissa of the APCM step.
void XmaxcToExpMant(Word xmaxc, Word& exponent, Word& mantissa) {
  Word e = 0;
  if (xmaxc > 15) e = Word((xmaxc >> 3) - 1);
  Word m = Word(xmaxc - (e << 3));
  if (m == 0) {
    e = -4;
    m = 7;
  } else {
    while (m <= 7) {
      m = Word(m << 1 | 1);
      --e;
    }
    m = Word(m - 8);
  }
  exponent = e;
  mantissa = m;
}

void ApcmInverse(const Word* xmc, Word mantissa, Word exponent, Word* xmp) {
  const Word factor = kFac[mantissa];
  const Word shift = Sub(6, exponent);
  const Word rounding = ShiftLeft(1, Sub(shift, 1));
  for (int32_t i = 0; i < 13; ++i) {
    Word t = Word(((xmc[i] << 1) - 7) << 12);
    t = MultR(factor, t);
    t = Add(t, rounding);
    xmp[i] = ShiftRight(t, shift);
  }
}

// Log-area ratios: decoding, interpolation between frames, and conversion to reflection coefficients.
void DecodeLar(const Word* larc, Word* larpp) {
  for (int32_t i = 0; i < 8; ++i) {
    Word t = Word(Add(larc[i], kMic[i]) << 10);
    t = Sub(t, kB[i] * 2);
    t = MultR(kInvA[i], t);
    larpp[i] = Add(t, t);
  }
}

void LarToReflection(Word* lar) {
  for (int32_t i = 0; i < 8; ++i) {
    Word t = lar[i];
    const bool negative = t < 0;
    if (negative) t = t == kMinWord ? Word(kMaxWord) : Word(-t);
    t = t < 11059 ? Word(t << 1) : t < 20070 ? Word(t + 11059) : Add(t >> 2, 26112);
    lar[i] = negative ? Word(-t) : t;
  }
}

// LARp for sample segment `segment` (0..3) from the previous and present frames.
void InterpolateLar(const Word* previous, const Word* present, int32_t segment, Word* larp) {
  for (int32_t i = 0; i < 8; ++i) {
    switch (segment) {
      case 0: larp[i] = Add(Add(previous[i] >> 2, present[i] >> 2), previous[i] >> 1); break;
      case 1: larp[i] = Add(previous[i] >> 1, present[i] >> 1); break;
      case 2: larp[i] = Add(Add(previous[i] >> 2, present[i] >> 2), present[i] >> 1); break;
      default: larp[i] = present[i]; break;
    }
  }
}

constexpr int32_t kSegmentStart[5] = {0, 13, 27, 40, 160};

// ---- Decoder --------------------------------------------------------------------------------------

struct GsmDecoder {
  Word dp[280] = {};  // 120 past samples of the long-term filter, then the present subframe
  Word larppPrevious[8] = {};
  Word v[9] = {};
  Word nrp = 40;
  Word msr = 0;

  void Decode(const GsmFrame& frame, int16_t* out) {
    Word wt[kFrameSamples];
    for (int32_t j = 0; j < 4; ++j) {
      Word exponent, mantissa, xmp[13], erp[kSubframeSamples] = {};
      XmaxcToExpMant(frame.xmaxc[j], exponent, mantissa);
      ApcmInverse(frame.xmc[j], mantissa, exponent, xmp);
      const int32_t grid = frame.mc[j] & 3;
      for (int32_t i = 0; i < 13; ++i) erp[grid + 3 * i] = xmp[i];
      // Long-term synthesis; a lag outside 40..120 keeps the previous one.
      const Word nr = frame.nc[j] < 40 || frame.nc[j] > 120 ? nrp : frame.nc[j];
      nrp = nr;
      const Word brp = kQlb[frame.bc[j] & 3];
      Word* drp = dp + 120;
      for (int32_t k = 0; k < 40; ++k) drp[k] = Add(erp[k], MultR(brp, drp[k - nr]));
      for (int32_t k = 0; k < 120; ++k) drp[k - 120] = drp[k - 80];
      for (int32_t k = 0; k < 40; ++k) wt[j * 40 + k] = drp[k];
    }
    // Short-term synthesis with interpolated coefficients.
    Word larpp[8];
    DecodeLar(frame.larc, larpp);
    Word s[kFrameSamples];
    for (int32_t segment = 0; segment < 4; ++segment) {
      Word rrp[8];
      InterpolateLar(larppPrevious, larpp, segment, rrp);
      LarToReflection(rrp);
      for (int32_t k = kSegmentStart[segment]; k < kSegmentStart[segment + 1]; ++k) {
        Word sri = wt[k];
        for (int32_t i = 8; i > 0; --i) {
          sri = Sub(sri, MultR(rrp[i - 1], v[i - 1]));
          v[i] = Add(v[i - 1], MultR(rrp[i - 1], sri));
        }
        s[k] = v[0] = sri;
      }
    }
    std::copy(larpp, larpp + 8, larppPrevious);
    // De-emphasis and upscaling to 16 bits.
    for (uint32_t k = 0; k < kFrameSamples; ++k) {
      msr = Add(s[k], MultR(msr, 28180));
      out[k] = int16_t(Add(msr, msr) & 0xFFF8);
    }
  }
};

// ---- Encoder --------------------------------------------------------------------------------------

int32_t Norm(int32_t a) {
  // Left shifts that bring a non-zero 32-bit value to the top without overflow.
  if (a < 0) {
    if (a <= -1073741824) return 0;
    a = ~a;
  }
  int32_t n = 0;
  while (a < 0x40000000) {
    a <<= 1;
    ++n;
  }
  return n;
}

Word Div(int32_t num, int32_t denum) {
  // num < denum, both positive: the Q15 quotient.
  int32_t l = num, result = 0;
  for (int32_t k = 0; k < 15; ++k) {
    result <<= 1;
    l <<= 1;
    if (l >= denum) {
      l -= denum;
      ++result;
    }
  }
  return Word(result);
}

struct GsmEncoder {
  Word z1 = 0;
  int32_t l_z2 = 0;
  Word mp = 0;
  Word u[8] = {};
  Word larppPrevious[8] = {};
  Word dp[160] = {};  // 120 past reconstructed excitation samples (dp0 + 120 is the present subframe)

  void Preprocess(const int16_t* in, Word* so) {
    for (uint32_t k = 0; k < kFrameSamples; ++k) {
      // Downscale, then offset compensation and pre-emphasis.
      const Word s0 = Word((in[k] >> 3) << 2);
      const Word s1 = Word(s0 - z1);
      z1 = s0;
      int32_t l_s2 = int32_t(s1) << 15;
      const Word msp = Word(l_z2 >> 15);
      const Word lsp = Word(l_z2 - (int32_t(msp) << 15));
      l_s2 += MultR(lsp, 32735);
      const int32_t l_temp = int32_t(msp) * 32735;
      l_z2 = int32_t(std::clamp<int64_t>(int64_t(l_temp) + l_s2, INT32_MIN, INT32_MAX));
      const int32_t rounded = int32_t(std::clamp<int64_t>(int64_t(l_z2) + 16384, INT32_MIN, INT32_MAX));
      const Word msp2 = MultR(mp, -28180);
      mp = Word(rounded >> 15);
      so[k] = Add(mp, msp2);
    }
  }

  static void Autocorrelation(Word* s, int32_t* l_acf) {
    Word smax = 0;
    for (uint32_t k = 0; k < kFrameSamples; ++k) smax = std::max<Word>(smax, Word(std::min(std::abs(int32_t(s[k])), kMaxWord)));
    Word scale = 0;
    if (smax != 0) scale = Word(4 - Norm(int32_t(smax) << 16));
    if (scale > 0) {
      const Word factor = Word(16384 >> (scale - 1));
      for (uint32_t k = 0; k < kFrameSamples; ++k) s[k] = MultR(s[k], factor);
    }
    for (int32_t k = 0; k < 9; ++k) {
      int64_t sum = 0;
      for (uint32_t i = k; i < kFrameSamples; ++i) sum += int32_t(s[i]) * s[i - k];
      l_acf[k] = int32_t(sum << 1);
    }
    if (scale > 0)
      for (uint32_t k = 0; k < kFrameSamples; ++k) s[k] = Word(s[k] << scale);
  }

  static void Reflection(int32_t* l_acf, Word* r) {
    if (l_acf[0] == 0) {
      for (int32_t i = 0; i < 8; ++i) r[i] = 0;
      return;
    }
    const int32_t shift = Norm(l_acf[0]);
    Word acf[9];
    for (int32_t k = 0; k < 9; ++k) acf[k] = Word((l_acf[k] << shift) >> 16);
    Word p[9], k9[9];
    for (int32_t i = 1; i < 8; ++i) k9[i] = acf[i];
    for (int32_t i = 0; i < 9; ++i) p[i] = acf[i];
    for (int32_t n = 1; n <= 8; ++n) {
      Word t = Word(std::abs(int32_t(p[1])));
      if (p[0] < t) {
        for (int32_t i = n; i <= 8; ++i) r[i - 1] = 0;
        return;
      }
      Word rn = Div(t, p[0]);
      if (p[1] > 0) rn = Word(-rn);
      r[n - 1] = rn;
      if (n == 8) return;
      p[0] = Add(p[0], MultR(p[1], rn));
      for (int32_t m = 1; m <= 8 - n; ++m) {
        p[m] = Add(p[m + 1], MultR(k9[m], rn));
        k9[m] = Add(k9[m], MultR(p[m + 1], rn));
      }
    }
  }

  static void ReflectionToLar(Word* r) {
    for (int32_t i = 0; i < 8; ++i) {
      Word t = Word(std::min(std::abs(int32_t(r[i])), kMaxWord));
      if (t < 22118)
        t = Word(t >> 1);
      else if (t < 31130)
        t = Word(t - 11059);
      else
        t = Word((t - 26112) << 2);
      r[i] = r[i] < 0 ? Word(-t) : t;
    }
  }

  static void QuantizeLar(const Word* lar, Word* larc) {
    for (int32_t i = 0; i < 8; ++i) {
      Word t = Mult(kA[i], lar[i]);
      t = Add(t, kB[i]);
      t = Add(t, 256);
      t = Word(t >> 9);
      larc[i] = Word(std::clamp<int32_t>(t, kMic[i], kMac[i]) - kMic[i]);
    }
  }

  void ShortTermAnalysis(const Word* larc, Word* s) {
    Word larpp[8];
    DecodeLar(larc, larpp);
    for (int32_t segment = 0; segment < 4; ++segment) {
      Word rp[8];
      InterpolateLar(larppPrevious, larpp, segment, rp);
      LarToReflection(rp);
      for (int32_t k = kSegmentStart[segment]; k < kSegmentStart[segment + 1]; ++k) {
        Word di = s[k], sav = di;
        for (int32_t i = 0; i < 8; ++i) {
          const Word ui = u[i];
          u[i] = sav;
          sav = Add(ui, MultR(rp[i], di));
          di = Add(di, MultR(rp[i], ui));
        }
        s[k] = di;
      }
    }
    std::copy(larpp, larpp + 8, larppPrevious);
  }

  // Long-term predictor: lag and gain from the cross-correlation with the past excitation.
  static void LtpParameters(const Word* d, const Word* dpPast, Word& bc, Word& nc) {
    Word dmax = 0;
    for (int32_t k = 0; k < 40; ++k) dmax = std::max<Word>(dmax, Word(std::min(std::abs(int32_t(d[k])), kMaxWord)));
    Word temp = 0;
    if (dmax != 0) temp = Word(Norm(int32_t(dmax) << 16));
    const Word scale = Word(temp > 6 ? 0 : 6 - temp);
    Word wt[40];
    for (int32_t k = 0; k < 40; ++k) wt[k] = ShiftRight(d[k], scale);
    int32_t lmax = 0;
    Word nBest = 40;
    for (int32_t lambda = 40; lambda <= 120; ++lambda) {
      int64_t sum = 0;
      for (int32_t k = 0; k < 40; ++k) sum += int32_t(wt[k]) * dpPast[k - lambda];
      if (sum > lmax) {
        lmax = int32_t(sum);
        nBest = Word(lambda);
      }
    }
    nc = nBest;
    lmax <<= 1;
    lmax >>= (6 - scale);
    int64_t power = 0;
    for (int32_t k = 0; k < 40; ++k) {
      const int32_t t = ShiftRight(dpPast[k - nBest], 3);
      power += t * t;
    }
    int32_t l_power = int32_t(std::min<int64_t>(power << 1, INT32_MAX));
    if (lmax <= 0) {
      bc = 0;
      return;
    }
    if (lmax >= l_power) {
      bc = 3;
      return;
    }
    const int32_t shift = Norm(l_power);
    const Word r = Word((lmax << shift) >> 16);
    const Word s = Word((l_power << shift) >> 16);
    for (bc = 0; bc <= 2; ++bc)
      if (r <= Mult(s, kDlb[bc])) break;
  }

  static void WeightingFilter(const Word* e, Word* x) {
    for (int32_t k = 0; k < 40; ++k) {
      int32_t sum = 4096;
      for (int32_t i = 0; i < 11; ++i) {
        const int32_t index = k + i - 5;
        if (index >= 0 && index < 40) sum += int32_t(e[index]) * kH[i];
      }
      // H is in Q13: 8192 is unity.
      x[k] = Word(std::clamp(sum >> 13, kMinWord, kMaxWord));
    }
  }

  static Word GridSelection(const Word* x, Word* xm) {
    int32_t emBest = 0;
    Word mBest = 0;
    for (Word m = 0; m < 4; ++m) {
      int32_t em = 0;
      for (int32_t i = 0; i < 13; ++i) {
        const int32_t t = ShiftRight(x[m + 3 * i], 2);
        em += t * t;
      }
      em <<= 1;
      if (em > emBest) {
        emBest = em;
        mBest = m;
      }
    }
    for (int32_t i = 0; i < 13; ++i) xm[i] = x[mBest + 3 * i];
    return mBest;
  }

  static void ApcmQuantize(const Word* xm, Word* xmc, Word& mantissa, Word& exponent, Word& xmaxc) {
    Word xmax = 0;
    for (int32_t i = 0; i < 13; ++i) xmax = std::max<Word>(xmax, Word(std::min(std::abs(int32_t(xm[i])), kMaxWord)));
    exponent = 0;
    Word t = Word(xmax >> 9);
    bool itest = false;
    for (int32_t i = 0; i <= 5; ++i) {
      itest |= t <= 0;
      t = Word(t >> 1);
      if (!itest) ++exponent;
    }
    t = Word(exponent + 5);
    xmaxc = Add(ShiftRight(xmax, t), exponent << 3);
    XmaxcToExpMant(xmaxc, exponent, mantissa);
    const Word temp1 = Word(6 - exponent);
    const Word temp2 = kNrFac[mantissa];
    for (int32_t i = 0; i < 13; ++i) {
      Word v = ShiftLeft(xm[i], temp1);
      v = Mult(v, temp2);
      v = Word(v >> 12);
      xmc[i] = Word(v + 4);
    }
  }

  void Encode(const int16_t* in, GsmFrame& frame) {
    Word so[kFrameSamples];
    Preprocess(in, so);
    int32_t l_acf[9];
    Autocorrelation(so, l_acf);
    Word r[8];
    Reflection(l_acf, r);
    ReflectionToLar(r);
    QuantizeLar(r, frame.larc);
    ShortTermAnalysis(frame.larc, so);
    Word* present = dp + 120;
    for (int32_t j = 0; j < 4; ++j) {
      const Word* d = so + 40 * j;
      LtpParameters(d, present, frame.bc[j], frame.nc[j]);
      // Long-term analysis filter: residual e = d - b * past.
      const Word bp = kQlb[frame.bc[j]];
      Word e[40];
      for (int32_t k = 0; k < 40; ++k) e[k] = Sub(d[k], MultR(bp, present[k - frame.nc[j]]));
      Word x[40], xm[13], mantissa, exponent, xmp[13];
      WeightingFilter(e, x);
      frame.mc[j] = GridSelection(x, xm);
      ApcmQuantize(xm, frame.xmc[j], mantissa, exponent, frame.xmaxc[j]);
      ApcmInverse(frame.xmc[j], mantissa, exponent, xmp);
      Word ep[40] = {};
      for (int32_t i = 0; i < 13; ++i) ep[frame.mc[j] + 3 * i] = xmp[i];
      // The decoder's reconstruction of the excitation feeds the next lag search.
      Word reconstructed[40];
      for (int32_t k = 0; k < 40; ++k) reconstructed[k] = Add(ep[k], MultR(bp, present[k - frame.nc[j]]));
      std::copy(reconstructed, reconstructed + 40, present);
      std::copy(dp + 40, dp + 160, dp);
    }
  }
};

// Where the 33-byte frame of a USR record stands.
size_t UsrFrameOffset(const uint8_t* record) {
  return record[0] == 254 || record[0] == 182 || record[35] == 0 ? 2 : 0;
}

}  // namespace

uint64_t GsmFrames(uint64_t byteCount, GsmFraming framing) {
  switch (framing) {
    case GsmFraming::Raw33: return byteCount / kRawFrameBytes * kFrameSamples;
    case GsmFraming::Wave65: return byteCount / kWavePairBytes * 2 * kFrameSamples;
    case GsmFraming::UsrRecord: return byteCount / kUsrRecordBytes * kFrameSamples;
  }
  return 0;
}

uint64_t DecodeGsm(const uint8_t* bytes, size_t byteCount, GsmFraming framing, float* out, uint64_t maxFrames) {
  GsmDecoder decoder;
  GsmFrame frame;
  int16_t samples[kFrameSamples];
  uint64_t done = 0;
  const auto emit = [&] {
    decoder.Decode(frame, samples);
    const uint64_t count = std::min<uint64_t>(kFrameSamples, maxFrames - done);
    for (uint64_t k = 0; k < count; ++k) out[done + k] = float(samples[k]) * kSampleScale;
    done += count;
  };
  if (framing == GsmFraming::Wave65) {
    for (size_t offset = 0; offset + kWavePairBytes <= byteCount && done < maxFrames; offset += kWavePairBytes) {
      BitReader first(bytes + offset, true);
      ReadFields(first, frame);
      emit();
      if (done >= maxFrames) break;
      BitReader second(bytes + offset, true, 260);
      ReadFields(second, frame);
      emit();
    }
    return done;
  }
  const size_t recordBytes = framing == GsmFraming::Raw33 ? kRawFrameBytes : kUsrRecordBytes;
  for (size_t offset = 0; offset + recordBytes <= byteCount && done < maxFrames; offset += recordBytes) {
    const uint8_t* p = bytes + offset;
    if (framing == GsmFraming::UsrRecord) p += UsrFrameOffset(p);
    BitReader bits(p, false, 4);  // past the signature nibble
    ReadFields(bits, frame);
    emit();
  }
  return done;
}

std::vector<uint8_t> EncodeGsm(const float* in, uint64_t frames, GsmFraming framing) {
  const uint64_t gsmFrames = (frames + kFrameSamples - 1) / kFrameSamples;
  const uint64_t coded = framing == GsmFraming::Wave65 ? (gsmFrames + 1) / 2 * 2 : gsmFrames;
  const size_t recordBytes = framing == GsmFraming::Raw33 ? kRawFrameBytes : kUsrRecordBytes;
  std::vector<uint8_t> outBytes(framing == GsmFraming::Wave65 ? coded / 2 * kWavePairBytes : coded * recordBytes, 0);
  GsmEncoder encoder;
  GsmFrame frame;
  int16_t samples[kFrameSamples];
  for (uint64_t f = 0; f < coded; ++f) {
    for (uint32_t k = 0; k < kFrameSamples; ++k) {
      const uint64_t index = f * kFrameSamples + k;
      samples[k] = index < frames ? FloatToPcm16(in[index]) : 0;
    }
    encoder.Encode(samples, frame);
    if (framing == GsmFraming::Wave65) {
      BitWriter bits(outBytes.data() + f / 2 * kWavePairBytes, true, f % 2 ? 260 : 0);
      WriteFields(bits, frame);
    } else {
      // A record's frame stands after a 2-byte head; its zero byte 35 tells readers so.
      uint8_t* p = outBytes.data() + f * recordBytes + (framing == GsmFraming::UsrRecord ? 2 : 0);
      BitWriter bits(p, false);
      bits.Put(0xD, 4);
      WriteFields(bits, frame);
    }
  }
  return outBytes;
}

uint64_t GsmWaveFrames(uint64_t byteCount, const CodecParams&) { return GsmFrames(byteCount, GsmFraming::Wave65); }

uint64_t DecodeGsmWave(const uint8_t* bytes, size_t byteCount, const CodecParams&, float* out, uint64_t maxFrames) {
  return DecodeGsm(bytes, byteCount, GsmFraming::Wave65, out, maxFrames);
}

uint64_t GsmUsrFrames(uint64_t byteCount, const CodecParams&) { return GsmFrames(byteCount, GsmFraming::UsrRecord); }

uint64_t DecodeGsmUsr(const uint8_t* bytes, size_t byteCount, const CodecParams&, float* out, uint64_t maxFrames) {
  return DecodeGsm(bytes, byteCount, GsmFraming::UsrRecord, out, maxFrames);
}

}  // namespace orlin::codecs
