// The 4-bit ADPCM families that adapt a step size per code: IMA (WAVE blocks and headerless), MS ADPCM
// blocks with their predictor coefficient table, Dialogic/OKI (12-bit samples) and Yamaha. Block codecs
// trust no count: a block shorter than nBlockAlign decodes what its bytes hold, and a block head that
// names a step index past the table is clamped into it.
#include <algorithm>
#include <cmath>

#include "formats/audio/codecs/codecs.h"

namespace orlin::codecs {

namespace {

constexpr int16_t kImaSteps[89] = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,    21,    23,    25,    28,
    31,    34,    37,    41,    45,    50,    55,    60,    66,    73,    80,    88,    97,    107,   118,
    130,   143,   157,   173,   190,   209,   230,   253,   279,   307,   337,   371,   408,   449,   494,
    544,   598,   658,   724,   796,   876,   963,   1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,
    2272,  2499,  2749,  3024,  3327,  3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,
    9493,  10442, 11487, 12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767};
constexpr int8_t kImaIndexShift[8] = {-1, -1, -1, -1, 2, 4, 6, 8};
constexpr int32_t kImaLastIndex = 88;

struct ImaChannel {
  int32_t sample = 0;
  int32_t index = 0;
  // Headerless streams are made by the voice-file coders, which take (2c+1)*step/8 in one product;
  // WAVE blocks use the shift-and-add form. The two round differently.
  bool oneProduct = false;

  int16_t Decode(uint32_t code) {
    const int32_t step = kImaSteps[index];
    int32_t diff;
    if (oneProduct) {
      diff = ((int32_t(code & 7) * 2 + 1) * step) >> 3;
    } else {
      diff = step >> 3;
      if (code & 4) diff += step;
      if (code & 2) diff += step >> 1;
      if (code & 1) diff += step >> 2;
    }
    sample = std::clamp(code & 8 ? sample - diff : sample + diff, -32768, 32767);
    index = std::clamp(index + kImaIndexShift[code & 7], 0, kImaLastIndex);
    return int16_t(sample);
  }

  uint32_t Encode(int32_t target) {
    const int32_t step = kImaSteps[index];
    int32_t diff = target - sample;
    uint32_t code = 0;
    if (diff < 0) {
      code = 8;
      diff = -diff;
    }
    int32_t part = step;
    for (uint32_t bit = 4; bit; bit >>= 1) {
      if (diff >= part) {
        code |= bit;
        diff -= part;
      }
      part >>= 1;
    }
    Decode(code);  // keeps the encoder's state where the decoder's will be
    return code;
  }
};

// Yamaha's step adaptation (scaled by 256) and code magnitudes (times step / 8).
constexpr int32_t kYamahaScale[8] = {230, 230, 230, 230, 307, 409, 512, 614};
constexpr int32_t kYamahaMinStep = 127;
constexpr int32_t kYamahaMaxStep = 24576;

struct YamahaChannel {
  int32_t sample = 0;
  int32_t step = kYamahaMinStep;

  int16_t Decode(uint32_t code) {
    const int32_t magnitude = int32_t(code & 7) * 2 + 1;
    const int32_t diff = step * magnitude / 8;
    sample = std::clamp(code & 8 ? sample - diff : sample + diff, -32768, 32767);
    step = std::clamp((step * kYamahaScale[code & 7]) >> 8, kYamahaMinStep, kYamahaMaxStep);
    return int16_t(sample);
  }

  uint32_t Encode(int32_t target) {
    const int32_t diff = target - sample;
    // Nearest of the eight magnitudes (2c+1)*step/8.
    int32_t code = int32_t(std::lround(std::min(7.0, std::max(0.0, (std::abs(double(diff)) * 8 / step - 1) / 2))));
    code = std::clamp(code, 0, 7);
    const uint32_t full = uint32_t(code) | (diff < 0 ? 8u : 0u);
    Decode(full);
    return full;
  }
};

// OKI: 49 steps of a 12-bit coder; the index moves as IMA's does.
constexpr int16_t kOkiSteps[49] = {16,  17,  19,  21,  23,  25,  28,  31,  34,  37,  41,  45,  50,  55,  60,  66,  73,
                                   80,  88,  97,  107, 118, 130, 143, 157, 173, 190, 209, 230, 253, 279, 307, 337, 371,
                                   408, 449, 494, 544, 598, 658, 724, 796, 876, 963, 1060, 1166, 1282, 1411, 1552};
constexpr int32_t kOkiLastIndex = 48;

// MS ADPCM.
constexpr int32_t kMsAdapt[16] = {230, 230, 230, 230, 307, 409, 512, 614, 768, 614, 512, 409, 307, 230, 230, 230};
constexpr int16_t kMsDefaultCoefficients[7][2] = {{256, 0}, {512, -256}, {0, 0},     {192, 64},
                                                 {240, 0}, {460, -208}, {392, -232}};
constexpr int32_t kMsMinDelta = 16;
constexpr int32_t kMsMaxDelta = 0x7FFFFFFF / 768;  // the largest adaptation factor is 768
constexpr size_t kMsHeadBytesPerChannel = 7;  // predictor, delta, sample 1, sample 2

int16_t ReadS16(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }

}  // namespace

int16_t FloatToPcm16(float value) {
  const float scaled = value * 32768.0f;
  if (!(scaled > -32768.0f)) return -32768;  // also NaN
  if (scaled >= 32767.0f) return 32767;
  return int16_t(std::lrint(scaled));
}

// ---- IMA ------------------------------------------------------------------------------------------

uint64_t ImaWaveFrames(uint64_t byteCount, const CodecParams& params) {
  const uint32_t channels = std::max(1u, params.channels);
  const uint64_t block = params.blockAlign ? params.blockAlign : byteCount;
  const auto framesOf = [&](uint64_t bytes) -> uint64_t {
    if (bytes < 4ull * channels) return 0;
    return (bytes - 4ull * channels) / (4ull * channels) * 8 + 1;
  };
  if (block == 0) return 0;
  return byteCount / block * framesOf(block) + framesOf(byteCount % block);
}

uint64_t DecodeImaWave(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                       uint64_t maxFrames) {
  const uint32_t channels = std::max(1u, params.channels);
  const size_t block = params.blockAlign ? params.blockAlign : byteCount;
  const size_t headBytes = 4 * size_t(channels);
  if (block < headBytes) return 0;
  std::vector<ImaChannel> state(channels);
  uint64_t done = 0;
  for (size_t offset = 0; offset + headBytes <= byteCount && done < maxFrames; offset += block) {
    const uint8_t* p = bytes + offset;
    const size_t blockBytes = std::min(block, byteCount - offset);
    for (uint32_t c = 0; c < channels; ++c) {
      const int16_t first = ReadS16(p + 4 * c);
      state[c].sample = first;
      state[c].index = std::min<int32_t>(p[4 * c + 2], kImaLastIndex);
      out[done * channels + c] = float(first) * kSampleScale;
    }
    ++done;
    // Then groups of four bytes per channel, eight frames each.
    const size_t groups = (blockBytes - headBytes) / headBytes;
    for (size_t g = 0; g < groups && done < maxFrames; ++g) {
      const uint8_t* group = p + headBytes + g * headBytes;
      const uint64_t count = std::min<uint64_t>(8, maxFrames - done);
      for (uint32_t c = 0; c < channels; ++c) {
        const uint8_t* word = group + 4 * c;
        ImaChannel& channel = state[c];
        for (uint32_t k = 0; k < 8; ++k) {
          const uint32_t code = (word[k >> 1] >> ((k & 1) * 4)) & 15;
          const int16_t value = channel.Decode(code);
          if (k < count) out[(done + k) * channels + c] = float(value) * kSampleScale;
        }
      }
      done += count;
    }
  }
  return done;
}

std::vector<uint8_t> EncodeImaWave(const float* in, uint64_t frames, uint32_t channels, uint32_t blockAlign) {
  std::vector<uint8_t> outBytes;
  channels = std::max(1u, channels);
  if (blockAlign < 8 * channels) return outBytes;
  const uint64_t perBlock = (blockAlign - 4ull * channels) / (4ull * channels) * 8 + 1;
  const uint64_t blocks = (frames + perBlock - 1) / perBlock;
  outBytes.assign(blocks * blockAlign, 0);
  std::vector<ImaChannel> state(channels);
  const auto sampleAt = [&](uint64_t frame, uint32_t c) -> int32_t {
    return frame < frames ? FloatToPcm16(in[frame * channels + c]) : 0;
  };
  for (uint64_t b = 0; b < blocks; ++b) {
    uint8_t* p = outBytes.data() + b * blockAlign;
    const uint64_t first = b * perBlock;
    for (uint32_t c = 0; c < channels; ++c) {
      // The head carries the exact first sample; the step index continues from the last block.
      const int16_t value = int16_t(sampleAt(first, c));
      state[c].sample = value;
      p[4 * c] = uint8_t(value);
      p[4 * c + 1] = uint8_t(uint16_t(value) >> 8);
      p[4 * c + 2] = uint8_t(state[c].index);
    }
    const uint64_t groups = (perBlock - 1) / 8;
    for (uint64_t g = 0; g < groups; ++g) {
      uint8_t* group = p + 4 * channels * (g + 1);
      for (uint32_t c = 0; c < channels; ++c)
        for (uint32_t k = 0; k < 8; ++k) {
          const uint32_t code = state[c].Encode(sampleAt(first + 1 + g * 8 + k, c));
          group[4 * c + (k >> 1)] |= uint8_t(code << ((k & 1) * 4));
        }
    }
  }
  return outBytes;
}

uint64_t ImaRawFrames(uint64_t byteCount, const CodecParams&) { return byteCount * 2; }

uint64_t DecodeImaRaw(const uint8_t* bytes, size_t byteCount, const CodecParams&, float* out, uint64_t maxFrames) {
  ImaChannel state;
  state.oneProduct = true;
  uint64_t done = 0;
  for (size_t i = 0; i < byteCount && done < maxFrames; ++i) {
    out[done++] = float(state.Decode(bytes[i] >> 4)) * kSampleScale;
    if (done < maxFrames) out[done++] = float(state.Decode(bytes[i] & 15)) * kSampleScale;
  }
  return done;
}

std::vector<uint8_t> EncodeImaRaw(const float* in, uint64_t frames) {
  std::vector<uint8_t> outBytes((frames + 1) / 2, 0);
  ImaChannel state;
  state.oneProduct = true;
  for (uint64_t i = 0; i < frames; ++i) {
    const uint32_t code = state.Encode(FloatToPcm16(in[i]));
    outBytes[i / 2] |= uint8_t(i & 1 ? code : code << 4);
  }
  return outBytes;
}

// ---- Apple IMA4 -------------------------------------------------------------------------------------
// 34-byte packets per channel, the channels' packets in turn: a big-endian word whose top nine bits are
// the predictor and low seven the step index, then 64 codes, low nibble first. The predictor restarts
// from each packet's head, so a damaged packet does not spoil the rest.

uint64_t AppleImaFrames(uint64_t byteCount, const CodecParams& params) {
  const uint64_t channels = std::max<uint32_t>(params.channels, 1);
  return byteCount / (kAppleImaPacketBytes * channels) * kAppleImaPacketFrames;
}

uint64_t DecodeAppleIma(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                        uint64_t maxFrames) {
  const uint32_t channels = std::max<uint32_t>(params.channels, 1);
  const uint64_t packets = byteCount / (kAppleImaPacketBytes * uint64_t(channels));
  uint64_t done = 0;
  for (uint64_t packet = 0; packet < packets && done < maxFrames; ++packet) {
    const uint64_t frames = std::min<uint64_t>(kAppleImaPacketFrames, maxFrames - done);
    for (uint32_t c = 0; c < channels; ++c) {
      const uint8_t* p = bytes + (packet * channels + c) * kAppleImaPacketBytes;
      const uint16_t head = uint16_t(p[0] << 8 | p[1]);
      ImaChannel state;
      state.sample = int16_t(head & 0xFF80);
      state.index = std::min<int32_t>(head & 0x7F, kImaLastIndex);
      for (uint64_t k = 0; k < frames; ++k) {
        const uint32_t code = k & 1 ? p[2 + k / 2] >> 4 : p[2 + k / 2] & 15;
        out[(done + k) * channels + c] = float(state.Decode(code)) * kSampleScale;
      }
    }
    done += frames;
  }
  return done;
}

// ---- MS ADPCM ---------------------------------------------------------------------------------------

namespace {

struct MsLayout {
  uint64_t framesPerBlock = 0;
  std::vector<int16_t> coefficients;  // pairs
};

MsLayout ReadMsLayout(const CodecParams& params, uint64_t block) {
  MsLayout layout;
  const uint32_t channels = std::max(1u, params.channels);
  const uint64_t head = kMsHeadBytesPerChannel * channels;
  // Two head samples, then two codes a byte.
  const uint64_t fromBytes = block >= head ? (block - head) * 2 / channels + 2 : 0;
  layout.framesPerBlock = fromBytes;
  const uint8_t* ext = params.extension;
  if (ext && params.extensionBytes >= 4) {
    const uint32_t stated = uint32_t(ext[0] | ext[1] << 8);
    // A writer's wSamplesPerBlock may be smaller than the block holds, never larger.
    if (stated > 0 && stated < fromBytes) layout.framesPerBlock = stated;
    const size_t count = std::min<size_t>(uint32_t(ext[2] | ext[3] << 8), (params.extensionBytes - 4) / 4);
    for (size_t i = 0; i < count; ++i) {
      layout.coefficients.push_back(ReadS16(ext + 4 + 4 * i));
      layout.coefficients.push_back(ReadS16(ext + 6 + 4 * i));
    }
  }
  if (layout.coefficients.empty())
    for (const auto& pair : kMsDefaultCoefficients) layout.coefficients.insert(layout.coefficients.end(), pair, pair + 2);
  return layout;
}

}  // namespace

uint64_t MsAdpcmFrames(uint64_t byteCount, const CodecParams& params) {
  const uint64_t block = params.blockAlign ? params.blockAlign : byteCount;
  if (block == 0) return 0;
  const MsLayout layout = ReadMsLayout(params, block);
  const uint64_t tail = byteCount % block;
  uint64_t tailFrames = 0;
  const uint64_t head = kMsHeadBytesPerChannel * std::max(1u, params.channels);
  if (tail >= head) tailFrames = std::min(layout.framesPerBlock, (tail - head) * 2 / std::max(1u, params.channels) + 2);
  return byteCount / block * layout.framesPerBlock + tailFrames;
}

uint64_t DecodeMsAdpcm(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                       uint64_t maxFrames) {
  const uint32_t channels = std::max(1u, params.channels);
  const size_t block = params.blockAlign ? params.blockAlign : byteCount;
  const size_t head = kMsHeadBytesPerChannel * channels;
  if (block < head) return 0;
  const MsLayout layout = ReadMsLayout(params, block);
  const size_t coefficientPairs = layout.coefficients.size() / 2;
  struct State {
    int32_t c1, c2, delta, s1, s2;
  };
  std::vector<State> state(channels);
  uint64_t done = 0;
  for (size_t offset = 0; offset + head <= byteCount && done < maxFrames; offset += block) {
    const uint8_t* p = bytes + offset;
    const size_t blockBytes = std::min(block, byteCount - offset);
    for (uint32_t c = 0; c < channels; ++c) {
      const size_t predictor = std::min<size_t>(p[c], coefficientPairs - 1);
      state[c].c1 = layout.coefficients[2 * predictor];
      state[c].c2 = layout.coefficients[2 * predictor + 1];
      state[c].delta = ReadS16(p + channels + 2 * c);
      state[c].s1 = ReadS16(p + 3 * channels + 2 * c);
      state[c].s2 = ReadS16(p + 5 * channels + 2 * c);
    }
    const uint64_t blockFrames = std::min<uint64_t>(layout.framesPerBlock, maxFrames - done);
    // The head holds the two oldest samples, the older one second.
    for (uint32_t c = 0; c < channels && blockFrames > 0; ++c) out[done * channels + c] = state[c].s2 * kSampleScale;
    for (uint32_t c = 0; c < channels && blockFrames > 1; ++c)
      out[(done + 1) * channels + c] = state[c].s1 * kSampleScale;
    uint64_t frame = std::min<uint64_t>(blockFrames, 2);
    // Codes high nibble first, channels interleaved code by code.
    uint64_t nibble = 0;
    const uint64_t nibbles = (blockBytes - head) * 2;
    while (frame < blockFrames && nibble + channels <= nibbles) {
      for (uint32_t c = 0; c < channels; ++c, ++nibble) {
        const uint8_t byte = p[head + nibble / 2];
        const uint32_t code = nibble & 1 ? byte & 15 : byte >> 4;
        State& s = state[c];
        const int32_t signedCode = code & 8 ? int32_t(code) - 16 : int32_t(code);
        // Coefficients and delta come from the file: 64-bit sums, and a delta kept where the next
        // adaptation step cannot overflow (hostile blocks would otherwise grow it without end).
        const int64_t predicted = (int64_t(s.s1) * s.c1 + int64_t(s.s2) * s.c2) >> 8;
        const int32_t value = int32_t(std::clamp<int64_t>(predicted + int64_t(signedCode) * s.delta, -32768, 32767));
        s.s2 = s.s1;
        s.s1 = value;
        s.delta = int32_t(std::clamp<int64_t>((int64_t(kMsAdapt[code]) * s.delta) >> 8, kMsMinDelta, kMsMaxDelta));
        out[(done + frame) * channels + c] = float(value) * kSampleScale;
      }
      ++frame;
    }
    done += frame;
    if (frame < blockFrames) break;  // a short last block ends the stream
  }
  return done;
}

// ---- Dialogic ----------------------------------------------------------------------------------------

uint64_t DialogicFrames(uint64_t byteCount, const CodecParams&) { return byteCount * 2; }

uint64_t DecodeDialogic(const uint8_t* bytes, size_t byteCount, const CodecParams&, float* out, uint64_t maxFrames) {
  int32_t sample = 0, index = 0;
  uint64_t done = 0;
  const auto decode = [&](uint32_t code) {
    const int32_t step = kOkiSteps[index];
    // Magnitude (2c+1)*step/8, the 12-bit coder's rounding.
    int32_t diff = ((int32_t(code & 7) * 2 + 1) * step) >> 3;
    sample = std::clamp(code & 8 ? sample - diff : sample + diff, -2048, 2047);
    index = std::clamp(index + kImaIndexShift[code & 7], 0, kOkiLastIndex);
    // 12-bit samples take the top of the 16-bit range.
    return float(sample * 16) * kSampleScale;
  };
  for (size_t i = 0; i < byteCount && done < maxFrames; ++i) {
    out[done++] = decode(bytes[i] >> 4);
    if (done < maxFrames) out[done++] = decode(bytes[i] & 15);
  }
  return done;
}

// ---- Yamaha ------------------------------------------------------------------------------------------

uint64_t YamahaFrames(uint64_t byteCount, const CodecParams& params) {
  return params.channels >= 2 ? byteCount : byteCount * 2;
}

uint64_t DecodeYamaha(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                      uint64_t maxFrames) {
  YamahaChannel left, right;
  uint64_t done = 0;
  if (params.channels >= 2) {
    for (size_t i = 0; i < byteCount && done < maxFrames; ++i, ++done) {
      out[done * 2] = float(left.Decode(bytes[i] & 15)) * kSampleScale;
      out[done * 2 + 1] = float(right.Decode(bytes[i] >> 4)) * kSampleScale;
    }
    return done;
  }
  for (size_t i = 0; i < byteCount && done < maxFrames; ++i) {
    out[done++] = float(left.Decode(bytes[i] & 15)) * kSampleScale;
    if (done < maxFrames) out[done++] = float(left.Decode(bytes[i] >> 4)) * kSampleScale;
  }
  return done;
}

std::vector<uint8_t> EncodeYamaha(const float* in, uint64_t frames, uint32_t channels) {
  YamahaChannel left, right;
  if (channels >= 2) {
    std::vector<uint8_t> outBytes(frames);
    for (uint64_t i = 0; i < frames; ++i)
      outBytes[i] = uint8_t(left.Encode(FloatToPcm16(in[2 * i])) | right.Encode(FloatToPcm16(in[2 * i + 1])) << 4);
    return outBytes;
  }
  std::vector<uint8_t> outBytes((frames + 1) / 2, 0);
  for (uint64_t i = 0; i < frames; ++i) {
    const uint32_t code = left.Encode(FloatToPcm16(in[i]));
    outBytes[i / 2] |= uint8_t(i & 1 ? code << 4 : code);
  }
  return outBytes;
}

}  // namespace orlin::codecs
