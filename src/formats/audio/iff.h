// The IFF family of sound files, all big-endian: AIFF, AIFF-C and MAUD through one reader, the AIFF
// writer, and Amiga 8SVX/16SV. Other handlers read an AIFF that sits inside their own file through
// the embedded entry point, between two offsets.
#pragma once
#include <cstdint>
#include <vector>

#include "core/format_table.h"

namespace orlin {

class Waveform;

int32_t DetectAiff(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectAifc(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectMaud(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectSvx(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

// AIFF, AIFC and MAUD forms; one Waveform named after the file unless a NAME chunk names it.
bool ReadAiff(Collection* collection, FileObject* file, uint32_t variant);
bool WriteAiff(Item* item, FileObject* file, const SaveOptions* options);
// 8SVX and 16SV forms.
bool ReadSvx(Collection* collection, FileObject* file, uint32_t variant);
bool WriteSvx(Item* item, FileObject* file, const SaveOptions* options);

// Parses the FORM between two offsets of an open file into `wave`; false with the last-error text.
bool ParseEmbeddedAiff(Waveform& wave, FileObject& file, uint64_t startOffset, uint64_t endOffset);
// The complete AIFF image of `wave` with samples chosen from `caps` (storage and channel bits).
bool WriteAiffToMemory(Waveform& wave, std::vector<uint8_t>& out, uint32_t caps);

// The 80-bit extended float of COMM; NaN, infinities and denormals read as 0.
double ReadExtended(const uint8_t* bytes);
void WriteExtended(double value, uint8_t* bytes);

}  // namespace orlin
