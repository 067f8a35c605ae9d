// What the module readers share: the file in memory, and waves that point at their samples in the file.
// Sample lengths are cut to the file, so a module truncated in its sample data still loads.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/collection.h"

namespace orlin {

// The whole file; false with "Reading from file failed" when it cannot be had.
bool LoadModuleBytes(FileObject* file, std::vector<uint8_t>& bytes);

struct ModuleSample {
  std::string name;
  uint64_t offset = 0;     // of the first sample byte in the file
  uint32_t frames = 0;     // as the header states; cut to the file on making the wave
  uint32_t storage = 0;    // kStoragePcm8, kStoragePcm16, kStorageDelta8, kStorageDelta16
  uint32_t flags = 0;      // source word bits: unsigned, big endian
  uint8_t channels = 1;    // stereo samples lie left block, then right block
  uint32_t rate = 8363;
  uint8_t loopType = 0;    // 0 none, 1 forward, 3 alternating
  uint32_t loopStart = 0;  // frames
  uint32_t loopEnd = 0;    // frames, exclusive
};

// A Waveform for the sample, or null when it has no frames inside the file.
Waveform* MakeModuleWave(Collection* collection, const ModuleSample& sample, uint64_t fileSize);
// An instrument named `name` with one region over the whole keyboard.
Instrument* MakeSingleWaveInstrument(Collection* collection, std::string_view name, Waveform* wave, int program);
// True when the text holds nothing but blanks and zeros.
bool IsBlank(std::string_view text);
// Trailing blanks dropped.
std::string TrimName(std::string_view text);

}  // namespace orlin
