// GigaStudio banks (gig v2 and v3): a DLS file whose regions carry a dimension table (3lnk) and one
// wsmp + 3ewa pair per dimension region (LIST 3prg of LIST 3ewl), whose waves may be packed in the
// format's own lossless frames (an ewav chunk marks them), and whose pool table may hold 64-bit entries.
#pragma once
#include <cstdint>
#include <string>

#include "core/format_table.h"

namespace orlin {

class Waveform;

int32_t DetectGig(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadGig(Collection* collection, FileObject* file, uint32_t variant);
// Variant 1 and 2 write version 2 files, 0, 3 and 4 version 3; 2 and 4 store waves in packed frames.
bool WriteGig(Item* item, FileObject* file, const SaveOptions* options);

// Dimension types of 3lnk, and the words `orlin info` shows for them.
const char* GigDimensionName(uint8_t type);

// Decodes the packed frames of a gig wave (16-bit: 2048 samples a frame, modes 0-1; 24-bit: 256 samples
// a frame, modes 2-5). `out` gets interleaved samples scaled to -1..1. Returns the frames decoded.
uint32_t DecodeGigFrames(const uint8_t* data, size_t size, uint32_t channels, uint32_t bits, uint32_t truncatedBits,
                         float* out, uint32_t maxFrames);
// Frames of a packed wave, by a scan of its frame heads.
uint32_t CountGigFrames(const uint8_t* data, size_t size, uint32_t channels, uint32_t bits);

}  // namespace orlin
