#include "core/wave_data.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace orlin {

namespace {

struct StorageRow {
  const char* name;
  uint32_t bits;
};
constexpr StorageRow kStorageRows[kStorageCount] = {
    {"PCM 8-bit", 8},       {"PCM 12-bit", 12},     {"PCM 16-bit", 16},       {"PCM 20-bit", 20},
    {"PCM 24-bit", 24},     {"PCM 32-bit", 32},     {"Float 32-bit", 32},     {"Float 64-bit", 64},
    {"Mu-law 8-bit", 8},    {"A-law 8-bit", 8},     {"GSM 2-bit", 2},         {"ADPCM 2-bit", 2},
    {"ADPCM 3-bit", 3},     {"ADPCM 4-bit", 4},     {"ADPCM 5-bit", 5},       {"Delta PCM 8-bit", 8},
    {"Delta PCM 16-bit", 16}, {"Compressed", 1},    {"Ascii text", 8},        {"MIDI", 0},
};

struct DataFormatRow {
  const char* name;
  uint32_t storage;
  uint32_t rate;
};
constexpr DataFormatRow kDataFormatRows[kDataFormatCount] = {
    {"PCM 8-bit", 0, 0},
    {"PCM 16-bit", 2, 0},
    {"PCM 24-bit", 4, 0},
    {"PCM 32-bit", 5, 0},
    {"Float 32-bit", 6, 0},
    {"Mu-law 8-bit", 8, 0},
    {"A-law 8-bit", 9, 0},
    {"ADPCM 4-bit", 13, 0},
    {"Compressed 32 kbit/s", 17, 32},
    {"Compressed 48 kbit/s", 17, 48},
    {"Compressed 64 kbit/s", 17, 64},
    {"Compressed 80 kbit/s", 17, 80},
    {"Compressed 96 kbit/s", 17, 96},
    {"Compressed 112 kbit/s", 17, 112},
    {"Compressed 128 kbit/s", 17, 128},
    {"Compressed 144 kbit/s", 17, 144},
    {"Compressed 160 kbit/s", 17, 160},
    {"Compressed 192 kbit/s", 17, 192},
    {"Compressed 224 kbit/s", 17, 224},
    {"Compressed 256 kbit/s", 17, 256},
    {"Compressed 320 kbit/s", 17, 320},
    {"Default", 20, 0},
};

uint32_t markerIdCounter = 0;

}  // namespace

const char* StorageName(uint32_t storage) { return storage < kStorageCount ? kStorageRows[storage].name : "Mixed"; }

uint32_t BitsOf(uint32_t storage) { return storage < kStorageCount ? kStorageRows[storage].bits : 0; }

uint32_t StorageFromMask(uint32_t mask) {
  for (uint32_t bit = 0; bit < kStorageCount; ++bit)
    if (mask & (1u << bit)) return bit;
  return kStorageMixed;
}

const char* DataFormatName(uint8_t dataFormat) {
  return dataFormat < kDataFormatCount ? kDataFormatRows[dataFormat].name : "Default";
}

uint32_t DataFormatStorage(uint8_t dataFormat) {
  return dataFormat < kDataFormatCount ? kDataFormatRows[dataFormat].storage : kStorageMixed;
}

uint32_t DataFormatRate(uint8_t dataFormat) {
  return dataFormat < kDataFormatCount ? kDataFormatRows[dataFormat].rate : 0;
}

uint8_t DataFormatFromRate(double kbitPerSecond) {
  const long k = std::lround(kbitPerSecond);
  static constexpr long kUpperBounds[] = {40, 56, 72, 88, 104, 120, 136, 152, 176, 208, 240, 288};
  uint8_t format = 8;
  for (long bound : kUpperBounds) {
    if (k < bound) return format;
    ++format;
  }
  return 20;
}

uint8_t DataFormatFromStorage(uint32_t storage) {
  switch (storage) {
    case kStoragePcm8:
    case kStorageDelta8: return 0;
    case kStoragePcm12:
    case kStoragePcm16:
    case kStorageDelta16: return 1;
    case kStoragePcm20:
    case kStoragePcm24: return 2;
    case kStoragePcm32: return 3;
    case kStorageFloat32:
    case kStorageFloat64: return 4;
    case kStorageMuLaw: return 5;
    case kStorageALaw: return 6;
    default: return kDataFormatDefault;
  }
}

WaveData* WaveData::Create(uint32_t frames, uint32_t channels, float rate, bool clear) {
  // Header and the leading guard frame share the first aligned part; three guard frames follow. The
  // header is 32 bytes with 64-bit pointers, so the guard frame of a stereo block must lie past it
  // (the 20-byte header of a 32-bit build left room for it in the first 32 bytes).
  const size_t headBytes = (sizeof(WaveData) + size_t(channels) * 4 + 15) & ~size_t(15);
  const size_t sampleBytes = (size_t(frames) + 3) * channels * 4;
  static_assert(sizeof(WaveData) <= 32, "the header must fit before the first guard frame");
  void* block = std::aligned_alloc(16, (headBytes + sampleBytes + 15) & ~size_t(15));
  if (!block) return nullptr;
  auto* data = static_cast<WaveData*>(block);
  data->referenceCount = 1;
  data->samples = reinterpret_cast<float*>(static_cast<char*>(block) + headBytes);
  data->frames = frames;
  data->channels = channels;
  data->rate = rate;
  std::memset(data->samples - channels, 0, size_t(channels) * 4);
  if (clear) {
    std::memset(data->samples, 0, sampleBytes);
  } else {
    std::memset(data->samples + size_t(frames) * channels, 0, size_t(3) * channels * 4);
  }
  return data;
}

void WaveData::Release() {
  if (--referenceCount == 0) std::free(this);
}

void LoopInfo::Normalise(uint32_t length, bool fractional) {
  if (!fractional) {
    const float oldStart = start;
    start = std::floor(start + 0.5f);
    end = std::floor(start + (end - oldStart) + 0.5f);
  }
  if (end <= 0.0f || end > float(length)) end = float(length);
  if (start < 0.0f || start >= end) start = 0.0f;
  auto round2 = [](float v) { return float(std::round(double(v) * 100.0) / 100.0); };
  start = round2(start);
  end = round2(end);
  tune = std::fmin(12.0f, std::fmax(-12.0f, round2(tune)));
}

uint32_t NextMarkerId() { return ++markerIdCounter; }

}  // namespace orlin
