// MPEG audio: decoding of layers I-III (libmpg123, built in) and encoding of layer III (LAME) and
// layer II (TwoLAME), both loaded at first use. The memory entry points serve formats that embed
// MPEG frames in their own container (MP3 inside a WAVE file).
#pragma once
#include <memory>
#include <vector>

#include "formats/audio/addons/audio_stream.h"

namespace orlin::addons {

constexpr const char* kMp3EncoderMissing =
    "You need to install the free Lame_Enc.dll encoder add-on if you wish to compress MP3-audio.";
constexpr const char* kMp2EncoderMissing =
    "You need to install the free tooLameF.dll encoder add-on if you wish to compress MP3-audio.";

// Decodes MPEG audio frames (with or without ID3 tags) from memory. Null with the last-error text
// set when no frame is found.
std::unique_ptr<AudioStream> OpenMpegMemoryStream(std::vector<uint8_t> bytes);
// The same over the rest of a file from its current position.
std::unique_ptr<AudioStream> OpenMpegStream(FileObject& file);

enum class Mp3Mode { Cbr, Abr, Vbr };
// Encodes to a complete MP3 stream in memory: ID3v2 tag when `input.tags` holds any, then frames
// with a LAME info frame, so that decoders drop the encoder's delay and padding. `value` is the bit
// rate in kbit/s for CBR/ABR and the VBR quality 0 (lowest) to 9 (highest) for VBR.
// `withTags` false leaves out ID3 and the info frame, for frames embedded in another container.
bool EncodeMp3ToMemory(const EncodeInput& input, Mp3Mode mode, int value, bool withTags, std::vector<uint8_t>& out);
// MPEG layer II at `kbps`.
bool EncodeMp2ToMemory(const EncodeInput& input, int kbps, std::vector<uint8_t>& out);

// Settings lists. MP3 variant 0/1 CBR, 2 ABR, 3 VBR; MP2 CBR.
double Mp3Setting(uint32_t index, uint32_t variant, std::string* labelOut);
double Mp2Setting(uint32_t index, uint32_t variant, std::string* labelOut);
Mp3Mode Mp3ModeOfVariant(uint32_t variant);
// The VBR quality of a VBR list value (its kbit/s equivalent).
int Mp3VbrQualityOfValue(double value);

}  // namespace orlin::addons
