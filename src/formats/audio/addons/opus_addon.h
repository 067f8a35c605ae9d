// Opus through libopusfile (reading) and libopusenc (writing), loaded at first use. Opus always
// decodes at 48 kHz.
#pragma once
#include <memory>

#include "formats/audio/addons/audio_stream.h"

namespace orlin::addons {

std::unique_ptr<AudioStream> OpenOpusStream(FileObject& file);
bool EncodeOpus(FileObject& file, const EncodeInput& input, int kbps);
// "Opus %d kbit/s" from 16 to 256.
double OpusSetting(uint32_t index, uint32_t variant, std::string* labelOut);

}  // namespace orlin::addons
