// FLAC through libFLAC: a decoding stream over a FileObject, and an encoder of float frames.
#pragma once
#include <memory>

#include "formats/audio/addons/audio_stream.h"

namespace orlin::addons {

constexpr const char* kFlacReadMissing = "You need to install the libFLAC.dll codec add-on if you wish to read FLAC files.";
constexpr const char* kFlacWriteMissing = "You need to install the libFLAC.dll codec add-on if you wish to write FLAC files.";

bool FlacAvailable();
// Opens the FLAC stream at the file's current position; null with the last-error text set.
std::unique_ptr<AudioStream> OpenFlacStream(FileObject& file);
// Writes a whole FLAC stream of `bits` (16 or 24) at compression `level` (0-8).
bool EncodeFlac(FileObject& file, const EncodeInput& input, uint32_t bits, uint32_t level);

}  // namespace orlin::addons
