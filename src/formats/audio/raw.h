// Headerless sample files: signed and unsigned bytes, words and dwords in both byte orders, floats,
// G.711 bytes and DVD LPCM. A row's variant is the source word its samples are read with; the rate and
// channels are those of the row (DVD rows) or 44100 Hz mono, which the Source tab corrects.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

bool ReadRawPcm(Collection* collection, FileObject* file, uint32_t variant);
bool WriteRawPcm(Item* item, FileObject* file, const SaveOptions* options);

// Variants of the DVD LPCM rows: rate code in bits 28-30 on top of the source word.
constexpr uint32_t RawVariant(uint32_t storage, uint32_t flags) { return (1u << storage) | flags; }

}  // namespace orlin
