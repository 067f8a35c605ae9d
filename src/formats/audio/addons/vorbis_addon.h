// Ogg Vorbis through libvorbisfile (reading) and libvorbisenc, libvorbis and libogg (writing).
#pragma once
#include <memory>

#include "formats/audio/addons/audio_stream.h"

namespace orlin::addons {

constexpr const char* kVorbisReadMissing = "You need to install the Ogg Vorbis DLL's";
constexpr const char* kVorbisWriteMissing = "You need to install the Vorbis Ogg DLL's";

std::unique_ptr<AudioStream> OpenVorbisStream(FileObject& file);
// `quality` in the encoder's -0.1..1.0 scale.
bool EncodeVorbis(FileObject& file, const EncodeInput& input, float quality);

// The settings list of Vorbis rows: qualities 0-10 as "Ogg Vorbis Quality %d".
double VorbisSetting(uint32_t index, uint32_t variant, std::string* labelOut);

}  // namespace orlin::addons
