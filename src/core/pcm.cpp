#include "core/pcm.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "core/file_object.h"
#include "core/last_error.h"
#include "core/user_interface.h"

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
    int exponent = 1;
    while (magnitude >= (64 << exponent) && exponent < 7) ++exponent;
    code = uint8_t((exponent << 4) | ((magnitude >> exponent) & 15));
  }
  return uint8_t((code | sign) ^ 0x55);
}

struct DecodeState {
  uint32_t storage;
  bool isUnsigned;
  bool bigEndian;
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
  uint64_t bytes = (uint64_t(wave->length) * channelCount * width + 7) / 8;
  if (bytes >= 0x80000000ull) {
    Ui().Warn("Warning!",
              "Warning! Wave is too big for the 32-bit application.\nIt will try to read it truncated, but may run "
              "out of memory.");
    // Keep what a 2 GiB read would hold.
    wave->length = uint32_t(std::min<uint64_t>(wave->length, (0x7FFFFFFFull * 8) / (channelCount * width)));
  }
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

// Stores one float as `storage`, little or big endian.
void StoreSample(uint8_t* out, float value, uint32_t storage, bool isUnsigned, bool bigEndian, int32_t& delta) {
  auto clampRound = [](double v, double scale, double lo, double hi) {
    return int64_t(std::clamp(std::nearbyint(v * scale), lo, hi));
  };
  auto putBytes = [&](uint64_t raw, int count) {
    for (int k = 0; k < count; ++k) out[bigEndian ? count - 1 - k : k] = uint8_t(raw >> (8 * k));
  };
  switch (storage) {
    case kStoragePcm8: out[0] = uint8_t(clampRound(value, 128, -128, 127) ^ (isUnsigned ? 0x80 : 0)); break;
    case kStorageMuLaw: out[0] = LinearToMuLaw(int(clampRound(value, 32768, -32768, 32767))); break;
    case kStorageALaw: out[0] = LinearToALaw(int(clampRound(value, 32768, -32768, 32767))); break;
    case kStorageDelta8: {
      const int32_t sample = int32_t(clampRound(value, 128, -128, 127));
      out[0] = uint8_t(int8_t(sample - delta) ^ (isUnsigned ? 0x80 : 0));
      delta = sample;
      break;
    }
    case kStoragePcm16: putBytes(uint16_t(clampRound(value, 32768, -32768, 32767) ^ (isUnsigned ? 0x8000 : 0)), 2); break;
    case kStorageDelta16: {
      const int32_t sample = int32_t(clampRound(value, 32768, -32768, 32767));
      putBytes(uint16_t(int16_t(sample - delta) ^ (isUnsigned ? 0x8000 : 0)), 2);
      delta = sample;
      break;
    }
    case kStoragePcm24:
      putBytes(uint32_t(clampRound(value, 8388608, -8388608, 8388607) ^ (isUnsigned ? 0x800000 : 0)) & 0xFFFFFF, 3);
      break;
    case kStoragePcm32:
      putBytes(uint32_t(clampRound(value, 2147483648.0, -2147483648.0, 2147483647.0) ^ (isUnsigned ? 0x80000000u : 0)), 4);
      break;
    case kStorageFloat32: {
      uint32_t raw;
      std::memcpy(&raw, &value, 4);
      putBytes(raw, 4);
      break;
    }
    case kStorageFloat64: {
      const double wide = value;
      uint64_t raw;
      std::memcpy(&raw, &wide, 8);
      putBytes(raw, 8);
      break;
    }
    default: break;
  }
}

}  // namespace

WaveDecoder GenericPcmDecoder() { return &DecodeGenericPcm; }

bool HasGenericDecoder(const Waveform& wave) { return wave.decoder == &DecodeGenericPcm; }

uint64_t SampleBytes(uint64_t frames, uint32_t storage, uint32_t channels) {
  return (frames * channels * WidthOf(storage) + 7) / 8;
}

namespace {

// Encodes the wave block by block and hands each block to `sink`; false when the sink fails.
template <typename Sink>
bool EncodeSamples(Waveform& wave, uint32_t storage, uint32_t channels, uint32_t flags, Sink&& sink) {
  const uint32_t width = WidthOf(storage);
  if (width == 0 || storage == kStoragePcm12 || storage == kStoragePcm20 || channels == 0 || channels > 2) {
    SetLastError("Invalid format for generic export function!");
    return false;
  }
  const float* samples = wave.GetSamplesForRead();
  if (!samples && wave.length) return false;
  const uint32_t sourceChannels = wave.Data() ? wave.Data()->channels : wave.channels;
  const uint32_t frames = wave.Data() ? wave.Data()->frames : 0;
  const bool isUnsigned = (flags & kSourceUnsigned) != 0;
  const bool bigEndian = (flags & kSourceBigEndian) != 0;
  const size_t bytesPerSample = width / 8;
  constexpr size_t kFramesPerBlock = 16384;
  std::vector<uint8_t> buffer(kFramesPerBlock * channels * bytesPerSample);
  std::vector<int32_t> deltas(channels, 0);
  for (uint32_t done = 0; done < frames;) {
    const uint32_t count = uint32_t(std::min<size_t>(kFramesPerBlock, frames - done));
    uint8_t* out = buffer.data();
    for (uint32_t f = 0; f < count; ++f) {
      const float* frame = samples + size_t(done + f) * sourceChannels;
      for (uint32_t c = 0; c < channels; ++c) {
        float value;
        if (channels == sourceChannels) value = frame[c];
        else if (channels == 1) value = 0.5f * (frame[0] + frame[1]);  // stereo to mono
        else value = frame[0];                                         // mono to stereo
        StoreSample(out, value, storage, isUnsigned, bigEndian, deltas[c]);
        out += bytesPerSample;
      }
    }
    if (!sink(buffer.data(), size_t(out - buffer.data()))) return false;
    done += count;
  }
  return true;
}

}  // namespace

bool WriteSamples(FileObject& file, Waveform& wave, uint32_t storage, uint32_t channels, uint32_t flags) {
  return EncodeSamples(wave, storage, channels, flags, [&](const uint8_t* bytes, size_t count) {
    if (file.Write(bytes, count)) return true;
    SetLastError("Writing to file failed");
    return false;
  });
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
