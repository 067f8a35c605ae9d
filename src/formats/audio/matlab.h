// Matlab and GNU Octave MAT-files, levels 4 and 5, read as audio.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

int32_t DetectMatlab(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadMatlab(Collection* collection, FileObject* file, uint32_t variant);

}  // namespace orlin
