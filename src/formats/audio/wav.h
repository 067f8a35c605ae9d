// RIFF WAVE: reading (RIFF, RF64 with ds64, a wave nested in LIST "wave", SDSS), the detectors of the
// wave rows, and the writer that builds a whole RIFF image in memory. Other handlers use the embedded
// entry points to read one wave between two offsets of their own file, or to get a wave as bytes.
// Samples stay in the file until first use: plain PCM goes through the generic decoder, ADPCM and GSM
// through the built-in codecs; the writer also stores GSM and G.72x ADPCM, always mono.
#pragma once
#include <cstdint>
#include <string_view>
#include <vector>

#include "core/format_table.h"

namespace orlin {

class Waveform;

// Variants of the writer.
constexpr uint32_t kWaveVariantExtensible = 0xFFFE;
constexpr uint32_t kWaveVariantBare = 0xFFFFFFFF;      // smpl ahead of data; no LIST, cue or trailing smpl
constexpr uint32_t kWaveVariantCwdt = 0x54445743;      // "CWDT": no ISFT, extended smpl

// What a writer is asked for: the row's caps (storage and channel bits), the variant, a bit rate.
struct WaveWriteParams {
  uint32_t caps = 0;
  uint32_t variant = 0;
  float rate = 0.0f;
};

int32_t DetectWav(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectBroadcastWav(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectRockwellRif(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
// A WAVE whose fmt (first chunk) holds the USR modem GSM tag.
int32_t DetectUsrGsmWav(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectSmartSoundSds(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

bool ReadWav(Collection* collection, FileObject* file, uint32_t variant);
bool WriteWav(Item* item, FileObject* file, const SaveOptions* options);

// Parses the wave between two offsets of an open file into `wave`; false with the last-error text.
bool ParseEmbeddedWave(Waveform& wave, FileObject& file, uint64_t startOffset, uint64_t endOffset);
// The same into a new Waveform of `collection`, named `name`; null (and nothing created) on failure.
Waveform* ReadEmbeddedWave(Collection* collection, FileObject& file, uint64_t startOffset, uint64_t endOffset,
                           std::string_view name);
// Builds the complete RIFF image of `wave` into `out`.
bool WriteWaveToMemory(Waveform& wave, std::vector<uint8_t>& out, const WaveWriteParams& params);
// The same straight into an open file; plain samples stream from the wave's source in blocks.
bool WriteWaveToFile(Waveform& wave, FileObject& file, const WaveWriteParams& params);

// The decoder the reader leaves on waves that the generic decoder cannot read (more than two channels,
// samples wider than 32 bits, compressed data): it re-reads the format record the wave points to.
bool DecodeWaveSamples(Waveform* wave, FileObject* file);

// The smpl chunk (loop, root key, fine tune) for containers that carry one beside their own chunks.
std::vector<uint8_t> SamplerChunkBody(const Waveform& wave);
void ReadSamplerChunk(Waveform& wave, const uint8_t* body, size_t size);
// The whole chunks (head and body) other containers keep of a WAVE for its loop, root key, fine tune
// and markers: "smpl" when any of the first three is set, "cue " and LIST "adtl" for markers; empty
// when there is nothing to keep. The reader takes them back from a run of chunks, which may start
// with a RIFF head and hold the head of "data" among them.
std::vector<uint8_t> WaveMetadataChunks(const Waveform& wave);
void ReadWaveMetadataChunks(Waveform& wave, const uint8_t* chunks, size_t size);

// Name of a format tag for messages and `orlin info` ("MS ADPCM", "MP3" ...); "" when unknown.
const char* WaveTagName(uint32_t tag);

// Save indices of plain samples that both WAVE writers hold; a row without a storage list gets these.
constexpr uint32_t kWaveWritableStorage = (1u << 0) | (1u << 2) | (1u << 4) | (1u << 5) | (1u << 6) | (1u << 8) |
                                          (1u << 9);

// Shared with the Wave-64 handler: the text chunks and their model slots, in search order.
struct InfoTag {
  uint32_t chunkId;
  uint16_t slot;
};
extern const InfoTag kInfoTags[6];
// The ISFT text every written wave carries.
extern const char kSoftwareTag[];

// Rounds half away from zero with 0.499, as the sampler chunk's numbers are rounded.
int64_t RoundSampler(double value);

}  // namespace orlin
