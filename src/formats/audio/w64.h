// Wave-64: the RIFF WAVE model in a container of 16-byte chunk ids and 64-bit sizes. Plain PCM, float
// and G.711 only; markers and the loop (a region named "Loop") live in the markers chunk.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

int32_t DetectW64(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadW64(Collection* collection, FileObject* file, uint32_t variant);
bool WriteW64(Item* item, FileObject* file, const SaveOptions* options);

}  // namespace orlin
