// The sample codecs the program carries itself: IMA, MS, Dialogic, Yamaha and Rockwell ADPCM, the
// CCITT G.721/G.723/G.726 and G.722 coders and GSM 06.10. Plain functions over byte buffers, with no
// model types, so that WAVE, AIFF, raw and bank readers share them. Decoders give interleaved float,
// the 16-bit result times 3.0517578e-5; they never fail, they decode what they are given and stop at
// the bytes or the frame limit, whichever comes first.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace orlin::codecs {

// 1/32768: the 16-bit result of every codec to float.
constexpr float kSampleScale = 3.0517578e-5f;

// What the container says about a coded stream.
struct CodecParams {
  uint32_t channels = 1;
  // Bytes per block (nBlockAlign) for the block codecs; 0 takes the whole stream as one block.
  uint32_t blockAlign = 0;
  // The `fmt ` extension after its cbSize word (MS ADPCM: wSamplesPerBlock, wNumCoef, coefficients).
  const uint8_t* extension = nullptr;
  size_t extensionBytes = 0;
  // Code width (wBitsPerSample) of the G.72x family, 2..5; 6..8 the G.722 mode (8: 64 kbit/s).
  uint32_t bitsPerSample = 4;
};

// Decodes into `out` (room for maxFrames * channels floats); returns the frames written. Frames past
// the returned count are left alone: DecodeAndPad zero fills them.
using DecodeFunction = uint64_t (*)(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                                    uint64_t maxFrames);
// Frames a stream of `byteCount` bytes decodes to.
using FrameCountFunction = uint64_t (*)(uint64_t byteCount, const CodecParams& params);

struct WaveCodec {
  uint16_t formatTag;
  DecodeFunction decode;
  FrameCountFunction frames;
};

// The codec of a WAVE format tag (after the Extensible sub-tag is taken), or null. The G.72x tags
// 20, 64, 69 and 100 and the GSM tags 49 and 4096 share one entry each.
const WaveCodec* FindWaveCodec(uint16_t formatTag);
// Runs `codec` and zero fills the frames it did not reach; returns the frames that came from data.
uint64_t DecodeAndPad(const WaveCodec& codec, const uint8_t* bytes, size_t byteCount, const CodecParams& params,
                      float* out, uint64_t frames);

// Float to the 16-bit value the encoders work on (rounded, clamped).
int16_t FloatToPcm16(float value);

// ---- IMA ADPCM -------------------------------------------------------------------------------------
// WAVE form: blocks with a 4-byte head per channel (first sample, step index), then words of eight
// 4-bit codes per channel, low nibble first.
uint64_t ImaWaveFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeImaWave(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                       uint64_t maxFrames);
// Encodes whole blocks of blockAlign bytes (the last one padded by repeating silence).
std::vector<uint8_t> EncodeImaWave(const float* in, uint64_t frames, uint32_t channels, uint32_t blockAlign);
// Headerless mono form: one code per nibble, high nibble first, starting from silence and step 0.
uint64_t ImaRawFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeImaRaw(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                      uint64_t maxFrames);
std::vector<uint8_t> EncodeImaRaw(const float* in, uint64_t frames);

// ---- Apple IMA4 (decode only): 34-byte packets of 64 frames per channel, channels in turn ------------
constexpr uint32_t kAppleImaPacketBytes = 34;
constexpr uint32_t kAppleImaPacketFrames = 64;
uint64_t AppleImaFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeAppleIma(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                        uint64_t maxFrames);

// ---- DWVW, delta with variable word width (decode only): one bit stream, channels interleaved;
// bitsPerSample is the word width (12, 16, 24) ------------------------------------------------------
uint64_t DecodeDwvw(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                    uint64_t maxFrames);

// ---- MS ADPCM (decode only) -----------------------------------------------------------------------
uint64_t MsAdpcmFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeMsAdpcm(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                       uint64_t maxFrames);

// ---- Dialogic (OKI) 4-bit ADPCM, mono, high nibble first; 12-bit samples -----------------------
uint64_t DialogicFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeDialogic(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                        uint64_t maxFrames);

// ---- Yamaha 4-bit ADPCM: low nibble first; in stereo the low nibble is the left channel ------------
uint64_t YamahaFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeYamaha(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                      uint64_t maxFrames);
std::vector<uint8_t> EncodeYamaha(const float* in, uint64_t frames, uint32_t channels);

// ---- Rockwell ADPCM (decode only): mono, bitsPerSample 2..4, codes from the low bits of each byte up;
// one state for the whole stream, as the modems send it at 7200 Hz ------------------------------------
uint64_t RockwellFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeRockwell(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                        uint64_t maxFrames);

// ---- G.721 / G.723 / G.726: one state for the whole stream, codes packed from the top bit down ---------
class G726State {
 public:
  explicit G726State(uint32_t bits = 4) { Reset(bits); }
  // Back to the initial state; `bits` (2..5) selects the quantizer tables.
  void Reset(uint32_t bits);
  // One code to a 16-bit sample.
  int16_t Decode(uint32_t code);
  // One 16-bit sample to a code (the decoder's state follows, as in the standard's encoder).
  uint32_t Encode(int16_t sample);
  uint32_t Bits() const { return bits_; }

 private:
  int32_t PredictZero() const;
  int32_t PredictPole() const;
  int32_t StepSize() const;
  int32_t Reconstruct(bool negative, int32_t dqln, int32_t y) const;
  void Update(int32_t y, int32_t wi, int32_t fi, int32_t dq, int32_t sr, int32_t dqsez);
  // Decodes `code` given the predictions already made; returns the reconstructed 14-bit signal.
  int32_t Step(uint32_t code, int32_t se, int32_t sez, int32_t y);

  uint32_t bits_ = 4;
  int32_t yl_ = 0, yu_ = 0, dms_ = 0, dml_ = 0, ap_ = 0, td_ = 0;
  int32_t a_[2] = {}, b_[6] = {}, pk_[2] = {}, dq_[6] = {}, sr_[2] = {};
};
uint64_t G726Frames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeG726(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                    uint64_t maxFrames);
// Little-endian packing (first code in the low bits), as some raw files have it.
uint64_t DecodeG726LittleEndian(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                                uint64_t maxFrames);
std::vector<uint8_t> EncodeG726(const float* in, uint64_t frames, uint32_t bits, bool littleEndian = false);

// ---- G.722: one byte per two 16 kHz samples; bitsPerSample 7 or 6 decodes the 56 and 48 kbit/s
// modes, whose low bits carry side data. The encoder writes the 64 kbit/s mode. -------------------------
uint64_t G722Frames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeG722(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                    uint64_t maxFrames);
std::vector<uint8_t> EncodeG722(const float* in, uint64_t frames);

// ---- GSM 06.10 ----------------------------------------------------------------------------------------
enum class GsmFraming {
  Raw33,      // 33-byte frames of 160 samples, signature nibble 0xD first
  Wave65,     // 65-byte pairs of 320 samples, bits from the low end (WAVE tags 49, 4096)
  UsrRecord,  // 38-byte records holding a 33-byte frame at byte 0 or 2 (WAVE tag 771)
};
uint64_t GsmFrames(uint64_t byteCount, GsmFraming framing);
uint64_t DecodeGsm(const uint8_t* bytes, size_t byteCount, GsmFraming framing, float* out, uint64_t maxFrames);
// Whole frames; the last is padded with silence. UsrRecord is written with the frame at byte 2.
std::vector<uint8_t> EncodeGsm(const float* in, uint64_t frames, GsmFraming framing);
uint64_t GsmWaveFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeGsmWave(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                       uint64_t maxFrames);
uint64_t GsmUsrFrames(uint64_t byteCount, const CodecParams& params);
uint64_t DecodeGsmUsr(const uint8_t* bytes, size_t byteCount, const CodecParams& params, float* out,
                      uint64_t maxFrames);

}  // namespace orlin::codecs
