// Rows that belong to no format family: the raw import of unrecognized files, and zip archives,
// which are handed to the desktop rather than loaded.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

bool ReadUnrecognized(Collection* collection, FileObject* file, uint32_t variant);
// Forgets a "skip all" answer; the open pipeline calls it at the start of each user action.
void ResetUnrecognizedAnswers();

int32_t DetectZip(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadZipArchive(Collection* collection, FileObject* file, uint32_t variant);

}  // namespace orlin
