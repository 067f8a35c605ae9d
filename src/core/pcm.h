// The generic PCM decoder and writer that most handlers use for plain sample data.
#pragma once
#include <cstdint>
#include <vector>

#include "core/collection.h"

namespace orlin {

class FileObject;

// The decoder of plain PCM, float, mu-law, A-law and delta PCM, driven by the wave's source word.
WaveDecoder GenericPcmDecoder();
bool HasGenericDecoder(const Waveform& wave);

// Writes the wave's samples in `storage` with `channels` channels; `flags` is a source word
// (unsigned, big endian). Mono to stereo duplicates, stereo to mono averages. The samples come in
// blocks from memory or straight from the wave's source (OpenWaveStream), so an undecoded wave is
// written without being held whole. `framesWritten` gets the frames written, fewer than the wave's
// length when its source data ends early.
bool WriteSamples(FileObject& file, Waveform& wave, uint32_t storage, uint32_t channels, uint32_t flags,
                  uint64_t* framesWritten = nullptr);
// The same into a memory image: the encoded bytes are appended to `out`.
bool AppendSamples(std::vector<uint8_t>& out, Waveform& wave, uint32_t storage, uint32_t channels, uint32_t flags);
// Converts `count` samples of one storage (8- to 64-bit linear, G.711, delta) to floats; `flags` as the
// source word (unsigned, big endian). Packed 12/20-bit and delta storage need whole streams.
void DecodeSampleBlock(uint32_t storage, uint32_t flags, const uint8_t* bytes, size_t count, float* out);
// Bytes WriteSamples will write.
uint64_t SampleBytes(uint64_t frames, uint32_t storage, uint32_t channels);

}  // namespace orlin
