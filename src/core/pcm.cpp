#include "core/pcm.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "core/file_object.h"
#include "core/last_error.h"
#include "core/user_interface.h"
#include "core/wave_stream.h"

namespace orlin {

namespace {

// Bits each sample takes in the file, by storage; 0 where the generic decoder has no business.
uint32_t WidthOf(uint32_t storage) {
  switch (storage) {
    case kStoragePcm8: case kStorageMuLaw: case kStorageALaw: case kStorageDelta8: return 8;
    case kStoragePcm12: return 12;
    case kStoragePcm16: case kStorageDelta16: return 16;
    case kStoragePcm20: return 20;
    case kStoragePcm24: return 24;
    case kStoragePcm32: case kStorageFloat32: return 32;
    case kStorageFloat64: return 64;
    default: return 0;
  }
}

// G.711 expansions to 16-bit linear, from the recommendation's segment rules.
int16_t MuLawToLinear(uint8_t code) {
  code = uint8_t(~code);
  const int exponent = (code >> 4) & 7;
  const int mantissa = code & 15;
  const int magnitude = (((mantissa << 3) + 0x84) << exponent) - 0x84;
  return int16_t((code & 0x80) ? -magnitude : magnitude);
}

int16_t ALawToLinear(uint8_t code) {
  code ^= 0x55;
  const int exponent = (code >> 4) & 7;
  const int mantissa = code & 15;
  int magnitude = exponent == 0 ? (mantissa << 4) + 8 : ((mantissa << 4) + 0x108) << (exponent - 1);
  return int16_t((code & 0x80) ? magnitude : -magnitude);
}

uint8_t LinearToMuLaw(int sample) {
  constexpr int kBias = 0x84, kClip = 32635;
  const int sign = sample < 0 ? 0x80 : 0;
  int magnitude = std::min(sample < 0 ? -sample : sample, kClip) + kBias;
  int exponent = 7;
  for (int mask = 0x4000; !(magnitude & mask) && exponent > 0; mask >>= 1) --exponent;
  const int mantissa = (magnitude >> (exponent + 3)) & 15;
  return uint8_t(~(sign | (exponent << 4) | mantissa));
}

uint8_t LinearToALaw(int sample) {
  const int sign = sample >= 0 ? 0x80 : 0;
  int magnitude = std::min(sample < 0 ? -sample - 1 : sample, 32767) >> 3;  // 13-bit magnitude
  uint8_t code;
  if (magnitude < 32) {
    code = uint8_t(magnitude >> 1);
  } else {
    // Segment e (1..7) holds the 13-bit magnitudes 32 << (e - 1) up to 32 << e.
    int exponent = 1;
    while (magnitude >= (32 << exponent) && exponent < 7) ++exponent;
    code = uint8_t((exponent << 4) | ((magnitude >> exponent) & 15));
  }
  return uint8_t((code | sign) ^ 0x55);
}

struct DecodeState {
  uint32_t storage = 0;
  bool isUnsigned = false;
  bool bigEndian = false;
  int32_t deltaAccumulator = 0;
};

// Converts `count` samples of `bytes` into floats written every `stride` floats.
void ConvertBlock(DecodeState& state, const uint8_t* bytes, size_t count, float* out, size_t stride) {
  const bool be = state.bigEndian;
  const int32_t flip8 = state.isUnsigned ? 0x80 : 0;
  switch (state.storage) {
    case kStoragePcm8:
      for (size_t i = 0; i < count; ++i) out[i * stride] = float(int8_t(bytes[i] ^ flip8)) * (1.0f / 128.0f);
      break;
    case kStorageMuLaw:
      for (size_t i = 0; i < count; ++i) out[i * stride] = float(MuLawToLinear(bytes[i])) * (1.0f / 32768.0f);
      break;
    case kStorageALaw:
      for (size_t i = 0; i < count; ++i) out[i * stride] = float(ALawToLinear(bytes[i])) * (1.0f / 32768.0f);
      break;
    case kStorageDelta8:
      for (size_t i = 0; i < count; ++i) {
        state.deltaAccumulator = int8_t(state.deltaAccumulator + int8_t(bytes[i] ^ flip8));
        out[i * stride] = float(state.deltaAccumulator) * (1.0f / 128.0f);
      }
      break;
    case kStoragePcm16:
    case kStorageDelta16: {
      const uint16_t flip = state.isUnsigned ? 0x8000 : 0;
      if (state.storage == kStoragePcm16 && !be && stride == 1) {
        // The common case, kept free of per-sample branches so that it vectorises.
        for (size_t i = 0; i < count; ++i) {
          uint16_t raw;
          std::memcpy(&raw, bytes + i * 2, 2);
          out[i] = float(int16_t(raw ^ flip)) * (1.0f / 32768.0f);
        }
        break;
      }
      for (size_t i = 0; i < count; ++i) {
        const uint8_t* p = bytes + i * 2;
        const uint16_t raw = be ? uint16_t(p[0] << 8 | p[1]) : uint16_t(p[1] << 8 | p[0]);
        int32_t value = int16_t(raw ^ flip);
        if (state.storage == kStorageDelta16) value = state.deltaAccumulator = int16_t(state.deltaAccumulator + value);
        out[i * stride] = float(value) * (1.0f / 32768.0f);
      }
      break;
    }
    case kStoragePcm24: {
      const uint32_t flip = state.isUnsigned ? 0x800000 : 0;
      for (size_t i = 0; i < count; ++i) {
        const uint8_t* p = bytes + i * 3;
        uint32_t raw = be ? (uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2])
                          : (uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
        raw ^= flip;
        const int32_t value = int32_t(raw << 8) >> 8;
        out[i * stride] = float(value) * (1.0f / 8388608.0f);
      }
      break;
    }
    case kStoragePcm32: {
      const uint32_t flip = state.isUnsigned ? 0x80000000u : 0;
      for (size_t i = 0; i < count; ++i) {
        const uint8_t* p = bytes + i * 4;
        uint32_t raw = be ? (uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3])
                          : (uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
        out[i * stride] = float(double(int32_t(raw ^ flip)) * (1.0 / 2147483648.0));
      }
      break;
    }
    case kStorageFloat32:
      for (size_t i = 0; i < count; ++i) {
        const uint8_t* p = bytes + i * 4;
        const uint32_t raw = be ? (uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3])
                                : (uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
        float value;
        std::memcpy(&value, &raw, 4);
        out[i * stride] = value;
      }
      break;
    case kStorageFloat64:
      for (size_t i = 0; i < count; ++i) {
        uint64_t raw = 0;
        for (int k = 0; k < 8; ++k) raw |= uint64_t(bytes[i * 8 + (be ? 7 - k : k)]) << (8 * k);
        double value;
        std::memcpy(&value, &raw, 8);
        out[i * stride] = float(value);
      }
      break;
    case kStoragePcm12: {
      // Two samples in three bytes, most significant first: aaaaaaaa aaaabbbb bbbbbbbb.
      const int32_t flip = state.isUnsigned ? 0x800 : 0;
      for (size_t i = 0; i < count; ++i) {
        const uint8_t* p = bytes + (i / 2) * 3;
        const uint32_t raw = (i & 1) ? (uint32_t(p[1] & 15) << 8 | p[2]) : (uint32_t(p[0]) << 4 | p[1] >> 4);
        const int32_t value = int32_t(((raw ^ flip) & 0xFFF) << 20) >> 20;
        out[i * stride] = float(value) * (1.0f / 2048.0f);
      }
      break;
    }
    case kStoragePcm20: {
      // Two samples in five bytes, most significant first.
      const int32_t flip = state.isUnsigned ? 0x80000 : 0;
      for (size_t i = 0; i < count; ++i) {
        const uint8_t* p = bytes + (i / 2) * 5;
        const uint32_t raw = (i & 1) ? (uint32_t(p[2] & 15) << 16 | uint32_t(p[3]) << 8 | p[4])
                                     : (uint32_t(p[0]) << 12 | uint32_t(p[1]) << 4 | p[2] >> 4);
        const int32_t value = int32_t(((raw ^ flip) & 0xFFFFF) << 12) >> 12;
        out[i * stride] = float(value) * (1.0f / 524288.0f);
      }
      break;
    }
    default: break;
  }
}

// Reads `samples` samples of one stream (a whole interleaved stream, or one channel of sequential
// stereo) into `out` with the given stride, in blocks so that no second copy of the file is held.
bool ReadStream(FileObject& file, DecodeState state, uint32_t width, uint64_t samples, float* out, size_t stride) {
  // Blocks hold a whole number of sample pairs, so packed 12- and 20-bit pairs never split.
  constexpr uint64_t kSamplesPerBlock = 32768;
  std::vector<uint8_t> buffer(kSamplesPerBlock * 8);
  for (uint64_t done = 0; done < samples;) {
    const uint64_t count = std::min(kSamplesPerBlock, samples - done);
    const size_t bytes = size_t((count * width + 7) / 8);
    if (file.Read(buffer.data(), bytes) != bytes) {
      SetLastError("Reading from file failed");
      return false;
    }
    ConvertBlock(state, buffer.data(), size_t(count), out + done * stride, stride);
    done += count;
  }
  return true;
}

bool DecodeGenericPcm(Waveform* wave, FileObject* file) {
  if (wave->length == 0) {
    SetLastError("Zero length");
    return false;
  }
  if (wave->channels == 0) {
    SetLastError("No channels");
    return false;
  }
  if (wave->channels > 2) {
    SetLastError("Too many channels");
    return false;
  }
  const uint32_t storage = wave->SourceStorage();
  const uint32_t width = WidthOf(storage);
  if (width == 0) {
    SetLastError("Invalid format for generic import function!");
    return false;
  }
  const uint64_t channelCount = wave->channels;
  // A 64-bit process reads any length the frame count can state; memory alone may say no.
  if (!wave->AllocSamples()) return false;
  float* samples = wave->Data()->samples;
  DecodeState state{storage, (wave->sourceFormat & kSourceUnsigned) != 0,
                    (wave->sourceFormat & kSourceBigEndian) != 0 && width >= 16};
  const bool sequential = channelCount == 2 && (wave->sourceFormat & kSourceSequentialStereo);
  bool ok;
  if (sequential) {
    ok = ReadStream(*file, state, width, wave->length, samples, 2);
    if (ok && wave->sourceOffsetB != 0) file->Seek(wave->sourceOffsetB);
    state.deltaAccumulator = 0;
    ok = ok && ReadStream(*file, state, width, wave->length, samples + 1, 2);
  } else {
    ok = ReadStream(*file, state, width, uint64_t(wave->length) * channelCount, samples, 1);
  }
  if (!ok) wave->DropData();
  return ok;
}

// The generic decoder in blocks: interleaved data is read in order, sequential stereo from its two
// positions. A file that ends early ends the stream there.
class GenericPcmStream : public WaveStream {
 public:
  GenericPcmStream(const Waveform& wave, std::unique_ptr<FileObject> file)
      : file_(std::move(file)), width_(WidthOf(wave.SourceStorage())), length_(wave.length) {
    channels = wave.channels;
    const DecodeState state{wave.SourceStorage(), (wave.sourceFormat & kSourceUnsigned) != 0,
                            (wave.sourceFormat & kSourceBigEndian) != 0 && width_ >= 16};
    states_[0] = states_[1] = state;
    sequential_ = channels == 2 && (wave.sourceFormat & kSourceSequentialStereo);
    offsets_[0] = wave.sourceOffset;
    offsets_[1] = wave.sourceOffsetB ? wave.sourceOffsetB : wave.sourceOffset + (uint64_t(length_) * width_ + 7) / 8;
  }

  int64_t Read(float* out, uint32_t frames) override {
    // Whole sample pairs per block, so that packed 12- and 20-bit pairs never split.
    uint64_t count = std::min<uint64_t>({frames, length_ - done_, kFramesPerBlock});
    if (ended_ || count == 0) return 0;
    if (count > 1 && (count & 1) && done_ + count < length_) --count;
    if (!sequential_) {
      const uint64_t samples = count * channels;
      const size_t bytes = size_t((samples * width_ + 7) / 8);
      buffer_.resize(bytes);
      const size_t got = file_->Read(buffer_.data(), bytes);
      if (got < bytes) {
        ended_ = true;
        count = std::min<uint64_t>(count, uint64_t(got) * 8 / width_ / channels);
      }
      ConvertBlock(states_[0], buffer_.data(), size_t(count * channels), out, 1);
    } else {
      for (int side = 0; side < 2 && count; ++side) {
        const uint64_t at = offsets_[side] + done_ * width_ / 8;
        const size_t bytes = size_t((count * width_ + 7) / 8);
        buffer_.resize(bytes);
        if (!file_->Seek(at)) count = 0;
        const size_t got = count ? file_->Read(buffer_.data(), bytes) : 0;
        if (got < bytes) {
          ended_ = true;
          count = std::min<uint64_t>(count, uint64_t(got) * 8 / width_);
        }
        ConvertBlock(states_[side], buffer_.data(), size_t(count), out + side, 2);
      }
    }
    done_ += count;
    return int64_t(count);
  }

 private:
  static constexpr uint64_t kFramesPerBlock = 65536;
  std::unique_ptr<FileObject> file_;
  uint32_t width_;
  uint32_t length_;
  bool sequential_ = false;
  bool ended_ = false;
  DecodeState states_[2];
  uint64_t offsets_[2];
  uint64_t done_ = 0;
  std::vector<uint8_t> buffer_;
};

std::unique_ptr<WaveStream> OpenGenericPcmStream(Waveform& wave, std::unique_ptr<FileObject> file) {
  if (wave.length == 0 || wave.channels == 0 || wave.channels > 2 || WidthOf(wave.SourceStorage()) == 0) {
    SetLastError("Invalid format for generic import function!");
    return nullptr;
  }
  return std::make_unique<GenericPcmStream>(wave, std::move(file));
}

[[maybe_unused]] const bool kGenericStreamRegistered = (RegisterWaveStreamOpener(&DecodeGenericPcm, &OpenGenericPcmStream), true);

}  // namespace

WaveDecoder GenericPcmDecoder() { return &DecodeGenericPcm; }

bool HasGenericDecoder(const Waveform& wave) { return wave.decoder == &DecodeGenericPcm; }

uint64_t SampleBytes(uint64_t frames, uint32_t storage, uint32_t channels) {
  return (frames * channels * WidthOf(storage) + 7) / 8;
}

namespace {

// Rounds to the nearest integer, ties to even, as nearbyint does in the default rounding mode: adding
// and taking away 1.5 * 2^52 leaves the rounded value for any |x| below 2^51, and the loop vectorises.
inline int64_t RoundEven(double x) {
  constexpr double kMagic = 6755399441055744.0;
  return int64_t((x + kMagic) - kMagic);
}
inline int64_t ClampRound(float value, double scale, double lo, double hi) {
  // Clamping before rounding gives what rounding then clamping gives, for every finite value. A NaN
  // became the lowest 64-bit integer, whose low 32 bits are zero: zero gives the same bytes.
  const double scaled = value == value ? double(value) * scale : 0.0;
  return RoundEven(std::clamp(scaled, lo, hi));
}

template <int kBytes, bool kBigEndian>
inline void PutBytes(uint8_t* out, uint64_t raw) {
  for (int k = 0; k < kBytes; ++k) out[kBigEndian ? kBytes - 1 - k : k] = uint8_t(raw >> (8 * k));
}

// One loop per storage, byte order and signedness, chosen once per wave: floats in, bytes out.
struct EncodeState {
  int32_t delta[2] = {0, 0};  // last sample of each channel, for delta storage
};
using BlockEncoder = void (*)(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState& state);

template <bool kUnsigned>
void EncodePcm8(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState&) {
  for (size_t i = 0; i < frames * channels; ++i) out[i] = uint8_t(ClampRound(in[i], 128, -128, 127) ^ (kUnsigned ? 0x80 : 0));
}
template <bool kALaw>
void EncodeG711(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState&) {
  for (size_t i = 0; i < frames * channels; ++i) {
    const int sample = int(ClampRound(in[i], 32768, -32768, 32767));
    out[i] = kALaw ? LinearToALaw(sample) : LinearToMuLaw(sample);
  }
}
template <bool kUnsigned, bool kBigEndian>
void EncodePcm16(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState&) {
  for (size_t i = 0; i < frames * channels; ++i)
    PutBytes<2, kBigEndian>(out + i * 2, uint16_t(ClampRound(in[i], 32768, -32768, 32767) ^ (kUnsigned ? 0x8000 : 0)));
}
template <bool kUnsigned, bool kBigEndian>
void EncodePcm24(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState&) {
  if (!kBigEndian) {
    // Four bytes stored per sample and the next sample's store covering the fourth: one store, not
    // three. The block buffer has room behind its end for the last one.
    for (size_t i = 0; i < frames * channels; ++i) {
      const uint32_t raw = uint32_t(ClampRound(in[i], 8388608, -8388608, 8388607) ^ (kUnsigned ? 0x800000 : 0));
      std::memcpy(out + i * 3, &raw, 4);
    }
    return;
  }
  for (size_t i = 0; i < frames * channels; ++i)
    PutBytes<3, kBigEndian>(
        out + i * 3, uint32_t(ClampRound(in[i], 8388608, -8388608, 8388607) ^ (kUnsigned ? 0x800000 : 0)) & 0xFFFFFF);
}
template <bool kUnsigned, bool kBigEndian>
void EncodePcm32(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState&) {
  for (size_t i = 0; i < frames * channels; ++i)
    PutBytes<4, kBigEndian>(out + i * 4, uint32_t(ClampRound(in[i], 2147483648.0, -2147483648.0, 2147483647.0) ^
                                                  (kUnsigned ? 0x80000000u : 0)));
}
template <bool kBigEndian>
void EncodeFloat32(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState&) {
  if (!kBigEndian) {
    std::memcpy(out, in, frames * channels * 4);
    return;
  }
  for (size_t i = 0; i < frames * channels; ++i) {
    uint32_t raw;
    std::memcpy(&raw, &in[i], 4);
    PutBytes<4, true>(out + i * 4, raw);
  }
}
template <bool kBigEndian>
void EncodeFloat64(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState&) {
  for (size_t i = 0; i < frames * channels; ++i) {
    const double wide = in[i];
    uint64_t raw;
    std::memcpy(&raw, &wide, 8);
    PutBytes<8, kBigEndian>(out + i * 8, raw);
  }
}
// Delta storage keeps each channel's last sample; the difference wraps at the sample width.
template <bool kUnsigned>
void EncodeDelta8(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState& state) {
  for (size_t i = 0; i < frames * channels; ++i) {
    int32_t& last = state.delta[i % channels];
    const int32_t sample = int32_t(ClampRound(in[i], 128, -128, 127));
    out[i] = uint8_t(int8_t(sample - last) ^ (kUnsigned ? 0x80 : 0));
    last = sample;
  }
}
template <bool kUnsigned, bool kBigEndian>
void EncodeDelta16(const float* in, size_t frames, uint32_t channels, uint8_t* out, EncodeState& state) {
  for (size_t i = 0; i < frames * channels; ++i) {
    int32_t& last = state.delta[i % channels];
    const int32_t sample = int32_t(ClampRound(in[i], 32768, -32768, 32767));
    PutBytes<2, kBigEndian>(out + i * 2, uint16_t(int16_t(sample - last) ^ (kUnsigned ? 0x8000 : 0)));
    last = sample;
  }
}

template <template <bool, bool> class Pick>
BlockEncoder ByFlags(bool isUnsigned, bool bigEndian) {
  if (isUnsigned) return bigEndian ? Pick<true, true>::kEncoder : Pick<true, false>::kEncoder;
  return bigEndian ? Pick<false, true>::kEncoder : Pick<false, false>::kEncoder;
}
template <bool U, bool B> struct Pcm16Pick { static constexpr BlockEncoder kEncoder = &EncodePcm16<U, B>; };
template <bool U, bool B> struct Pcm24Pick { static constexpr BlockEncoder kEncoder = &EncodePcm24<U, B>; };
template <bool U, bool B> struct Pcm32Pick { static constexpr BlockEncoder kEncoder = &EncodePcm32<U, B>; };
template <bool U, bool B> struct Delta16Pick { static constexpr BlockEncoder kEncoder = &EncodeDelta16<U, B>; };

BlockEncoder ChooseEncoder(uint32_t storage, bool isUnsigned, bool bigEndian) {
  switch (storage) {
    case kStoragePcm8: return isUnsigned ? &EncodePcm8<true> : &EncodePcm8<false>;
    case kStorageMuLaw: return &EncodeG711<false>;
    case kStorageALaw: return &EncodeG711<true>;
    case kStorageDelta8: return isUnsigned ? &EncodeDelta8<true> : &EncodeDelta8<false>;
    case kStoragePcm16: return ByFlags<Pcm16Pick>(isUnsigned, bigEndian);
    case kStorageDelta16: return ByFlags<Delta16Pick>(isUnsigned, bigEndian);
    case kStoragePcm24: return ByFlags<Pcm24Pick>(isUnsigned, bigEndian);
    case kStoragePcm32: return ByFlags<Pcm32Pick>(isUnsigned, bigEndian);
    case kStorageFloat32: return bigEndian ? &EncodeFloat32<true> : &EncodeFloat32<false>;
    case kStorageFloat64: return bigEndian ? &EncodeFloat64<true> : &EncodeFloat64<false>;
    default: return nullptr;
  }
}

// Streams the wave block by block through its encoder into `sink`; false when the source or the sink
// fails. `framesWritten`, when given, gets the frames that went out: fewer than the wave's length when
// its source data stops early.
template <typename Sink>
bool EncodeSamples(Waveform& wave, uint32_t storage, uint32_t channels, uint32_t flags, Sink&& sink,
                   uint64_t* framesWritten = nullptr) {
  const uint32_t width = WidthOf(storage);
  const BlockEncoder encode =
      ChooseEncoder(storage, (flags & kSourceUnsigned) != 0, (flags & kSourceBigEndian) != 0);
  if (width == 0 || !encode || channels == 0 || channels > 2) {
    SetLastError("Invalid format for generic export function!");
    return false;
  }
  std::unique_ptr<WaveStream> stream = OpenWaveStream(wave);
  if (!stream) return false;
  const uint32_t sourceChannels = stream->channels;
  if (sourceChannels == 0 || sourceChannels > 2) {
    SetLastError("Too many channels");
    return false;
  }
  const size_t bytesPerSample = width / 8;
  // About a megabyte of output per write: few system calls, and the blocks stay in the cache.
  constexpr size_t kFramesPerBlock = 65536;
  std::vector<float> source(kFramesPerBlock * sourceChannels), mixed;
  if (channels != sourceChannels) mixed.resize(kFramesPerBlock * channels);
  constexpr size_t kStoreSlack = 8;  // an encoder may store a whole word at its last sample
  std::vector<uint8_t> buffer(kFramesPerBlock * channels * bytesPerSample + kStoreSlack);
  EncodeState state;
  uint64_t done = 0;
  for (;;) {
    const int64_t got = stream->Read(source.data(), uint32_t(kFramesPerBlock));
    if (got < 0) return false;
    if (got == 0) break;
    const size_t count = size_t(got);
    const float* block = source.data();
    if (channels != sourceChannels) {
      if (channels == 1) {
        for (size_t f = 0; f < count; ++f) mixed[f] = 0.5f * (source[f * 2] + source[f * 2 + 1]);  // stereo to mono
      } else {
        for (size_t f = 0; f < count; ++f) mixed[f * 2] = mixed[f * 2 + 1] = source[f];  // mono to stereo
      }
      block = mixed.data();
    }
    encode(block, count, channels, buffer.data(), state);
    if (!sink(buffer.data(), count * channels * bytesPerSample)) return false;
    done += count;
  }
  if (framesWritten) *framesWritten = done;
  return true;
}

}  // namespace

bool WriteSamples(FileObject& file, Waveform& wave, uint32_t storage, uint32_t channels, uint32_t flags,
                  uint64_t* framesWritten) {
  return EncodeSamples(
      wave, storage, channels, flags,
      [&](const uint8_t* bytes, size_t count) {
        if (file.Write(bytes, count)) return true;
        SetLastError("Writing to file failed");
        return false;
      },
      framesWritten);
}

bool AppendSamples(std::vector<uint8_t>& out, Waveform& wave, uint32_t storage, uint32_t channels, uint32_t flags) {
  return EncodeSamples(wave, storage, channels, flags, [&](const uint8_t* bytes, size_t count) {
    out.insert(out.end(), bytes, bytes + count);
    return true;
  });
}

void DecodeSampleBlock(uint32_t storage, uint32_t flags, const uint8_t* bytes, size_t count, float* out) {
  DecodeState state{storage, (flags & kSourceUnsigned) != 0, (flags & kSourceBigEndian) != 0 && WidthOf(storage) >= 16};
  ConvertBlock(state, bytes, count, out, 1);
}

}  // namespace orlin
