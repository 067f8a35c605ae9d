// Sample memory and the numbers that describe how samples lie in a file.
// All audio in memory is 32-bit float, interleaved, nominally -1.0..1.0; a WaveData block keeps one
// zero frame before the first and three after the last, so interpolating readers may run over the ends.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace orlin {

// Storage formats: how samples lie in a file. The same numbers are the low bits of a format row's caps
// and of a wave's source word.
enum Storage : uint32_t {
  kStoragePcm8 = 0,
  kStoragePcm12 = 1,
  kStoragePcm16 = 2,
  kStoragePcm20 = 3,
  kStoragePcm24 = 4,
  kStoragePcm32 = 5,
  kStorageFloat32 = 6,
  kStorageFloat64 = 7,
  kStorageMuLaw = 8,
  kStorageALaw = 9,
  kStorageGsm = 10,
  kStorageAdpcm2 = 11,
  kStorageAdpcm3 = 12,
  kStorageAdpcm4 = 13,
  kStorageAdpcm5 = 14,
  kStorageDelta8 = 15,
  kStorageDelta16 = 16,
  kStorageCompressed = 17,
  kStorageAsciiText = 18,
  kStorageMidi = 19,
  kStorageMixed = 20,  // "not one format"
};
constexpr uint32_t kStorageCount = 20;

const char* StorageName(uint32_t storage);  // "PCM 16-bit"...; "Mixed" for 20 and above
uint32_t BitsOf(uint32_t storage);
uint32_t StorageFromMask(uint32_t mask);  // lowest set bit of 0-19, else 20
inline bool IsLinearStorage(uint32_t storage) { return storage <= kStorageFloat64; }

// Bits of a wave's source word above the storage bit.
constexpr uint32_t kSourceSequentialStereo = 1u << 22;
constexpr uint32_t kSourceUnsigned = 1u << 23;
constexpr uint32_t kSourceBigEndian = 1u << 24;
constexpr uint32_t kSourceStorageMask = 0xFFFFF;

// DataFormat: the user's preferred format for saving a wave (parameter 221).
constexpr uint8_t kDataFormatCount = 22;
constexpr uint8_t kDataFormatDefault = 21;
const char* DataFormatName(uint8_t dataFormat);
uint32_t DataFormatStorage(uint8_t dataFormat);  // 20 for "Default"
uint32_t DataFormatRate(uint8_t dataFormat);     // kbit/s for the compressed entries, else 0
uint8_t DataFormatFromRate(double kbitPerSecond);
// The data format that a storage number implies, or kDataFormatDefault when it implies none.
uint8_t DataFormatFromStorage(uint32_t storage);

// A reference-counted block of interleaved float samples. The count is not atomic: references change
// only on the main thread or while the synthesizer is stopped.
struct WaveData {
  uint32_t referenceCount;
  float* samples;
  uint32_t frames;
  uint32_t channels;
  float rate;

  // Null when the memory cannot be had. The samples are not cleared unless asked.
  static WaveData* Create(uint32_t frames, uint32_t channels, float rate, bool clear);
  void AddRef() { ++referenceCount; }
  void Release();
};

// Loop of a wave; positions in frames, the end exclusive.
struct LoopInfo {
  uint8_t type = 0;     // 0 off, 1 forward, 2 reverse, 3 alternating
  uint8_t release = 0;  // 1: leave the loop when the key is released
  float start = 0.0f;
  float end = 4294967296.0f;  // "to the end" until normalised
  float tune = 0.0f;          // semitones during loop playback

  // Rounds and clamps against `length` frames; `fractional` keeps fractions of loop points.
  void Normalise(uint32_t length, bool fractional);
  bool operator==(const LoopInfo&) const = default;
};
constexpr float kLoopEndUnset = 4294967296.0f;

struct Marker {
  uint8_t section = 0;  // nonzero: a range
  uint32_t start = 0;
  uint32_t end = 0;
  std::string name;
  uint32_t id = 0;  // from NextMarkerId(); a copy takes a new one
};
uint32_t NextMarkerId();

constexpr size_t kMaxMarkers = 65535;

}  // namespace orlin
