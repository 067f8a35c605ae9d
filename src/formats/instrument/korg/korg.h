// Korg workstation files: samples (.ksf), keymaps of samples (.kmp) and scripts listing both (.ksc).
// All numbers are big-endian; samples and keymaps are chunk files of a 4-byte id and a 4-byte size.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

int32_t DetectKorgSample(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadKorgSample(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectKorgKeymap(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadKorgKeymap(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectKorgScript(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadKorgScript(Collection* collection, FileObject* file, uint32_t variant);

}  // namespace orlin
