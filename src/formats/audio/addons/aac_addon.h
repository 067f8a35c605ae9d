// AAC decoding of ADTS streams through FAAD2, loaded at first use. (AAC in MPEG-4 files and AAC
// encoding go through the FFmpeg add-on.)
#pragma once
#include <memory>
#include <vector>

#include "formats/audio/addons/audio_stream.h"

namespace orlin::addons {

constexpr const char* kAacDecoderMissing =
    "You need to install the free libfaad2.dll add-on before you can read AAC-compressed data";

// Decodes an ADTS stream (after an optional ID3v2 tag) from memory or from the rest of a file.
std::unique_ptr<AudioStream> OpenAdtsMemoryStream(std::vector<uint8_t> bytes);
std::unique_ptr<AudioStream> OpenAdtsStream(FileObject& file);

}  // namespace orlin::addons
