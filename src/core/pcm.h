// The generic PCM decoder and writer that most handlers use for plain sample data.
#pragma once
#include <cstdint>

#include "core/collection.h"

namespace orlin {

class FileObject;

// The decoder of plain PCM, float, mu-law, A-law and delta PCM, driven by the wave's source word.
WaveDecoder GenericPcmDecoder();
bool HasGenericDecoder(const Waveform& wave);

// Writes the wave's samples in `storage` with `channels` channels; `flags` is a source word
// (unsigned, big endian). Mono to stereo duplicates, stereo to mono averages.
bool WriteSamples(FileObject& file, Waveform& wave, uint32_t storage, uint32_t channels, uint32_t flags);
// Bytes WriteSamples will write.
uint64_t SampleBytes(uint64_t frames, uint32_t storage, uint32_t channels);

}  // namespace orlin
