// Readers and writers of headerless codec files. A read only describes the wave: its decoder is one of
// the instances below, chosen by codec and packing, and reads the bytes the length needs when the
// samples are first used. The file's own size bounds the read, so a cut file decodes what it holds
// and the rest of the wave stays silent.
#include "formats/audio/codec_raw.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/audio/codecs/codecs.h"
#include "formats/audio/raw.h"

namespace orlin {

namespace {

using codecs::GsmFraming;

enum class Stream { G72xTopFirst, G72xLowFirst, G722, Dialogic, Gsm33, GsmRecord, GsmRecordAtTwo, Yamaha, Rockwell };

constexpr uint32_t kGsmSamplesPerFrame = 160;
constexpr uint32_t kGsmRecordBytes = 38;
constexpr uint32_t kGsmFrameBytes = 33;
constexpr uint32_t kGsmRecordFrameOffset = 2;
constexpr uint32_t kDefaultRate = 44100;
// Rockwell voice modems sample at 7200 Hz; the 32-byte head of their RMD files ("RMD1", modem name,
// compression and speed as big-endian words at 20 and 22, code width at 24) may precede the codes.
constexpr uint32_t kRockwellRate = 7200;
constexpr uint32_t kRmdHeadBytes = 32;
// The source word of VOX files (setting fmt.vox.dwDataFormat): 4-bit ADPCM; not asked of the store yet.
constexpr uint32_t kVoxSourceWord = 0x8002000;

// Bytes a stream of `frames` frames takes.
uint64_t BytesFor(Stream stream, uint64_t frames, uint32_t bits) {
  switch (stream) {
    case Stream::G72xTopFirst:
    case Stream::G72xLowFirst:
    case Stream::Rockwell: return (frames * bits + 7) / 8;
    case Stream::Gsm33: return (frames + kGsmSamplesPerFrame - 1) / kGsmSamplesPerFrame * kGsmFrameBytes;
    case Stream::GsmRecord:
    case Stream::GsmRecordAtTwo: return (frames + kGsmSamplesPerFrame - 1) / kGsmSamplesPerFrame * kGsmRecordBytes;
    default: return (frames + 1) / 2;
  }
}

uint64_t FramesFor(Stream stream, uint64_t bytes, uint32_t bits) {
  switch (stream) {
    case Stream::G72xTopFirst:
    case Stream::G72xLowFirst:
    case Stream::Rockwell: return bytes * 8 / std::max(bits, 2u);
    case Stream::Gsm33: return codecs::GsmFrames(bytes, GsmFraming::Raw33);
    case Stream::GsmRecord:
    case Stream::GsmRecordAtTwo: return codecs::GsmFrames(bytes, GsmFraming::UsrRecord);
    default: return bytes * 2;
  }
}

uint64_t DecodeStream(Stream stream, const uint8_t* bytes, size_t count, uint32_t bits, float* out, uint64_t frames) {
  codecs::CodecParams params;
  params.bitsPerSample = bits;
  switch (stream) {
    case Stream::G72xTopFirst: return codecs::DecodeG726(bytes, count, params, out, frames);
    case Stream::G72xLowFirst: return codecs::DecodeG726LittleEndian(bytes, count, params, out, frames);
    case Stream::G722: return codecs::DecodeG722(bytes, count, params, out, frames);
    case Stream::Dialogic: return codecs::DecodeDialogic(bytes, count, params, out, frames);
    case Stream::Gsm33: return codecs::DecodeGsm(bytes, count, GsmFraming::Raw33, out, frames);
    case Stream::GsmRecord: return codecs::DecodeGsm(bytes, count, GsmFraming::UsrRecord, out, frames);
    case Stream::Yamaha: return codecs::DecodeYamaha(bytes, count, params, out, frames);
    case Stream::Rockwell: return codecs::DecodeRockwell(bytes, count, params, out, frames);
    case Stream::GsmRecordAtTwo: {
      // Records whose frame always stands after a 2-byte head: decode frame by frame.
      uint64_t done = 0;
      for (size_t offset = 0; offset + kGsmRecordBytes <= count && done < frames; offset += kGsmRecordBytes)
        done += codecs::DecodeGsm(bytes + offset + kGsmRecordFrameOffset, kGsmFrameBytes, GsmFraming::Raw33,
                                  out + done, frames - done);
      return done;
    }
  }
  return 0;
}

template <Stream kStream>
bool DecodeCodecFile(Waveform* wave, FileObject* file) {
  if (wave->length == 0) {
    SetLastError("Zero length");
    return false;
  }
  if (!file || !file->IsOpen()) {
    SetLastError("Reading from file failed");
    return false;
  }
  const int64_t size = file->Size();
  const uint64_t available = size > int64_t(wave->sourceOffset) ? uint64_t(size) - wave->sourceOffset : 0;
  const uint64_t wanted = std::min(available, BytesFor(kStream, wave->length, wave->bits));
  std::vector<uint8_t> bytes;
  try {
    bytes.resize(wanted);
  } catch (const std::bad_alloc&) {
    SetLastError("Out of memory");
    return false;
  }
  if (!file->ReadAt(wave->sourceOffset, bytes.data(), bytes.size())) {
    SetLastError("Reading from file failed");
    return false;
  }
  float* samples = wave->AllocSamples();
  if (!samples) return false;
  const uint64_t done = std::min<uint64_t>(
      wave->length, DecodeStream(kStream, bytes.data(), bytes.size(), wave->bits, samples, wave->length));
  std::fill(samples + done, samples + wave->length, 0.0f);
  return true;
}

struct RowCodec {
  Stream stream;
  WaveDecoder decoder;
  uint32_t bits;     // code width; 4 for the nibble codecs
  uint32_t storage;  // the source word's storage number
};

bool RowCodecOf(uint32_t variant, RowCodec& out) {
  const auto kind = CodecRawKind((variant >> 8) & 15);
  const uint32_t width = (variant >> 4) & 15;
  switch (kind) {
    case CodecRawKind::G72x: {
      const uint32_t bits = std::clamp(width, 2u, 5u);
      const uint32_t storage = kStorageAdpcm2 + bits - 2;
      if ((variant & 3) == 2)
        out = {Stream::G72xLowFirst, DecodeCodecFile<Stream::G72xLowFirst>, bits, storage};
      else
        out = {Stream::G72xTopFirst, DecodeCodecFile<Stream::G72xTopFirst>, bits, storage};
      return true;
    }
    case CodecRawKind::G722:
      // `bits` carries the mode here (8, 7, 6 for 64, 56, 48 kbit/s); a byte is two samples either way.
      out = {Stream::G722, DecodeCodecFile<Stream::G722>, std::clamp(width, 6u, 8u), kStorageAdpcm4};
      return true;
    case CodecRawKind::Dialogic:
      out = {Stream::Dialogic, DecodeCodecFile<Stream::Dialogic>, 4, kStorageAdpcm4};
      return true;
    case CodecRawKind::Yamaha: out = {Stream::Yamaha, DecodeCodecFile<Stream::Yamaha>, 4, kStorageAdpcm4}; return true;
    case CodecRawKind::Rockwell: {
      const uint32_t bits = std::clamp(width, 2u, 4u);
      out = {Stream::Rockwell, DecodeCodecFile<Stream::Rockwell>, bits, kStorageAdpcm2 + bits - 2};
      return true;
    }
    case CodecRawKind::Gsm:
      if (width <= 1)
        out = {Stream::Gsm33, DecodeCodecFile<Stream::Gsm33>, 2, kStorageGsm};
      else if (width == 2)
        out = {Stream::GsmRecord, DecodeCodecFile<Stream::GsmRecord>, 2, kStorageGsm};
      else
        out = {Stream::GsmRecordAtTwo, DecodeCodecFile<Stream::GsmRecordAtTwo>, 2, kStorageGsm};
      return true;
  }
  return false;
}

// An RMD head in front of Rockwell codes: the codes start after it, and its width and speed win over
// the row's. A head naming another width or no speed is taken as plain codes.
void ReadRmdHead(FileObject* file, int64_t size, RowCodec& codec, uint64_t& start, uint32_t& rate) {
  uint8_t head[kRmdHeadBytes];
  if (size < int64_t(kRmdHeadBytes) || !file->ReadAt(0, head, kRmdHeadBytes) || std::memcmp(head, "RMD1", 4) != 0)
    return;
  const uint32_t bits = head[24];
  const uint32_t speed = uint32_t(head[22]) << 8 | head[23];
  if (bits < 2 || bits > 4 || speed == 0) return;
  RowCodecOf(CodecRawVariant(CodecRawKind::Rockwell, bits, 0, 0), codec);
  start = kRmdHeadBytes;
  rate = speed;
}

}  // namespace

bool ReadCodecRaw(Collection* collection, FileObject* file, uint32_t variant) {
  RowCodec codec;
  const int64_t size = file->Size();
  if (!RowCodecOf(variant, codec) || size <= 0) {
    SetLastError("File is of zero size");
    return false;
  }
  uint64_t start = 0;
  uint32_t rate = 0;
  if (codec.stream == Stream::Rockwell) ReadRmdHead(file, size, codec, start, rate);
  const uint64_t frames = FramesFor(codec.stream, uint64_t(size) - start, codec.bits);
  const bool gsm = codec.stream == Stream::Gsm33 || codec.stream == Stream::GsmRecord ||
                   codec.stream == Stream::GsmRecordAtTwo;
  // A GSM file shorter than one frame still loads, as one frame of silence; other streams need a code.
  if (frames == 0 && !gsm) {
    SetLastError("File is of zero size");
    return false;
  }
  auto* wave = new Waveform(collection);
  wave->channels = 1;
  const uint32_t rateKhz = (variant >> 16) & 0xFF;
  const uint32_t rowRate = codec.stream == Stream::Rockwell ? kRockwellRate : kDefaultRate;
  wave->sampleRate = rate ? rate : rateKhz ? rateKhz * 1000 : rowRate;
  wave->sourceOffset = start;
  wave->length = uint32_t(std::min<uint64_t>(frames ? frames : kGsmSamplesPerFrame, 0xFFFFFFFF));
  wave->bits = uint8_t(codec.bits);
  wave->sourceFormat = codec.stream == Stream::Dialogic ? kVoxSourceWord : 1u << codec.storage;
  if (codec.stream == Stream::G72xTopFirst) wave->sourceFormat |= kSourceBigEndian;
  wave->dataFormat = 7;  // "ADPCM 4-bit" stands for every ADPCM kind
  wave->decoder = codec.decoder;
  return true;
}

bool WriteCodecRaw(Item* item, FileObject* file, const SaveOptions* options) {
  auto* wave = static_cast<Waveform*>(item);
  RowCodec codec;
  if (!RowCodecOf(options->variant, codec) || codec.stream == Stream::Dialogic || codec.stream == Stream::Rockwell) {
    SetLastError("The file format can not save this item");
    return false;
  }
  const float* samples = wave->GetSamplesForRead();
  if (!samples) return false;
  // Every stream here is mono: stereo is averaged.
  std::vector<float> mono(wave->length);
  const uint32_t channels = std::max<uint32_t>(1, wave->channels);
  for (uint32_t i = 0; i < wave->length; ++i) {
    float sum = 0;
    for (uint32_t c = 0; c < channels; ++c) sum += samples[uint64_t(i) * channels + c];
    mono[i] = sum / float(channels);
  }
  std::vector<uint8_t> bytes;
  switch (codec.stream) {
    case Stream::G72xTopFirst: bytes = codecs::EncodeG726(mono.data(), mono.size(), codec.bits, false); break;
    case Stream::G72xLowFirst: bytes = codecs::EncodeG726(mono.data(), mono.size(), codec.bits, true); break;
    case Stream::G722: bytes = codecs::EncodeG722(mono.data(), mono.size()); break;
    case Stream::Yamaha: bytes = codecs::EncodeYamaha(mono.data(), mono.size(), 1); break;
    case Stream::Gsm33: bytes = codecs::EncodeGsm(mono.data(), mono.size(), GsmFraming::Raw33); break;
    case Stream::GsmRecord:
    case Stream::GsmRecordAtTwo: bytes = codecs::EncodeGsm(mono.data(), mono.size(), GsmFraming::UsrRecord); break;
    case Stream::Dialogic:
    case Stream::Rockwell: break;
  }
  if (!file->Write(bytes.data(), bytes.size())) {
    SetLastError("Writing to file failed");
    return false;
  }
  return true;
}

bool ReadG711Raw(Collection* collection, FileObject* file, uint32_t variant) {
  if (!ReadRawPcm(collection, file, variant)) return false;
  constexpr uint32_t kTelephoneRate = 8000;
  for (Waveform* wave : collection->All<Waveform>()) wave->sampleRate = kTelephoneRate;
  return true;
}

}  // namespace orlin
