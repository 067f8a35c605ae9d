// WavPack through libwavpack, loaded at first use: lossless, hybrid and float files, with a
// correction file (.wvc) beside the file when there is one.
#pragma once
#include <memory>

#include "formats/audio/addons/audio_stream.h"

namespace orlin::addons {

constexpr const char* kWavPackMissing = "To read or write WavPack files (.wv) you need install the 'wavpackdll.dll' add-on";

std::unique_ptr<AudioStream> OpenWavPackStream(FileObject& file);
// `bits` 16, 24 or 32 (32: float).
bool EncodeWavPack(FileObject& file, const EncodeInput& input, uint32_t bits);

}  // namespace orlin::addons
