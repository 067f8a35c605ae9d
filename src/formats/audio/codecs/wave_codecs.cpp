// The WAVE format tags the built-in codecs answer, so that a container reader needs one lookup and
// one call. Tags of one family share a row: the G.72x tags differ only in their code width, which
// the caller passes as wBitsPerSample, and GSM's two tags carry the same 65-byte pairs.
#include <algorithm>

#include "formats/audio/codecs/codecs.h"

namespace orlin::codecs {

namespace {

constexpr WaveCodec kWaveCodecs[] = {
    {2, DecodeMsAdpcm, MsAdpcmFrames},      // Microsoft ADPCM
    {17, DecodeImaWave, ImaWaveFrames},     // IMA (DVI) ADPCM
    {23, DecodeDialogic, DialogicFrames},   // Dialogic OKI ADPCM
    {32, DecodeYamaha, YamahaFrames},       // Yamaha ADPCM
    {49, DecodeGsmWave, GsmWaveFrames},     // GSM 6.10
    {4096, DecodeGsmWave, GsmWaveFrames},   // GSM 6.10 under a second tag
    {771, DecodeGsmUsr, GsmUsrFrames},      // GSM in 38-byte modem records
    {20, DecodeG726, G726Frames},           // G.723 ADPCM
    {64, DecodeG726, G726Frames},           // G.721 ADPCM
    {69, DecodeG726, G726Frames},           // G.726 ADPCM
    {100, DecodeG726, G726Frames},          // G.726 at 16 kbit/s
    {101, DecodeG722, G722Frames},          // G.722
    {59, DecodeRockwell, RockwellFrames},   // Rockwell ADPCM
    {768, DecodeRockwell, RockwellFrames},  // Rockwell ADPCM under a second tag
};

}  // namespace

const WaveCodec* FindWaveCodec(uint16_t formatTag) {
  for (const WaveCodec& codec : kWaveCodecs)
    if (codec.formatTag == formatTag) return &codec;
  return nullptr;
}

uint64_t DecodeAndPad(const WaveCodec& codec, const uint8_t* bytes, size_t byteCount, const CodecParams& params,
                      float* out, uint64_t frames) {
  const uint64_t done = std::min(frames, codec.decode(bytes, byteCount, params, out, frames));
  const uint64_t channels = std::max(1u, params.channels);
  std::fill(out + done * channels, out + frames * channels, 0.0f);
  return done;
}

}  // namespace orlin::codecs
