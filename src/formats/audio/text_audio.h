// Sample values written as text, one frame a line.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

int32_t DetectTextAudio(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadTextAudio(Collection* collection, FileObject* file, uint32_t variant);

}  // namespace orlin
