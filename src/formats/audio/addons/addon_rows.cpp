// Readers, detectors, writers and settings lists of the add-on rows. A reader opens the stream
// once for its length, format and tags; the wave's decoder opens it again when samples are needed.
#include "formats/audio/addons/addon_rows.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/save_choice.h"
#include "core/wave_stream.h"
#include "formats/audio/wav.h"
#include "formats/audio/addons/aac_addon.h"
#include "formats/audio/addons/ffmpeg_addon.h"
#include "formats/audio/addons/flac_addon.h"
#include "formats/audio/addons/mpeg_addon.h"
#include "formats/audio/addons/opus_addon.h"
#include "formats/audio/addons/vorbis_addon.h"
#include "formats/audio/addons/wavpack_addon.h"

namespace orlin {

namespace {

using addons::AudioStream;
using StreamOpener = std::unique_ptr<AudioStream> (*)(FileObject&);

// Fills the wave's samples from `opener`'s stream; a stream shorter than its stated length leaves
// silence at the end rather than failing the whole wave.
bool DecodeWith(StreamOpener opener, Waveform* wave, FileObject* file, bool exactLength = true) {
  if (!file || !file->IsOpen()) {
    SetLastError("Could not open file");
    return false;
  }
  std::unique_ptr<AudioStream> stream = opener(*file);
  if (!stream) return false;
  if (stream->channels != wave->channels) {
    SetLastError("Stream error");
    return false;
  }
  const uint32_t channels = wave->channels;
  // A stated length the file could hold is decoded in place; a longer one (a forged header, or a
  // container's estimate) is decoded as far as the data goes, and the decoded frames decide.
  const int64_t fileBytes = file->Size();
  const bool plausible = uint64_t(wave->length) * channels * sizeof(float) <=
                         std::max<uint64_t>(64u << 20, uint64_t(std::max<int64_t>(fileBytes, 0)) * 32);
  if (!exactLength || !plausible) {
    std::vector<float> all;
    if (!addons::ReadAllFrames(*stream, all, wave->length ? wave->length : 0xFFFFFFFFull) || all.empty()) {
      SetLastError("Stream error");
      return false;
    }
    wave->length = uint32_t(all.size() / channels);
    float* samples = wave->AllocSamples();
    if (!samples) {
      SetLastError("Out of memory");
      return false;
    }
    std::copy(all.begin(), all.end(), samples);
    return true;
  }
  float* samples = wave->AllocSamples();
  if (!samples) {
    SetLastError("Out of memory");
    return false;
  }
  uint32_t done = 0;
  while (done < wave->length) {
    const int64_t got = stream->Read(samples + size_t(done) * channels, std::min<uint32_t>(wave->length - done, 65536));
    if (got <= 0) break;
    done += uint32_t(got);
  }
  std::fill(samples + size_t(done) * channels, samples + size_t(wave->length) * channels, 0.0f);
  return true;
}

// The streaming twin of a decoder: the codec's stream over a file of its own, handed out as it
// decodes. A stream shorter than its stated length simply ends.
class AddonWaveStream : public WaveStream {
 public:
  AddonWaveStream(std::unique_ptr<FileObject> file, std::unique_ptr<AudioStream> stream)
      : file_(std::move(file)), stream_(std::move(stream)) {
    channels = stream_->channels;
  }
  int64_t Read(float* out, uint32_t frames) override {
    const int64_t got = stream_->Read(out, frames);
    if (got < 0) SetLastError("Stream error");
    return got;
  }

 private:
  std::unique_ptr<FileObject> file_;  // the stream reads through it
  std::unique_ptr<AudioStream> stream_;
};

template <StreamOpener kOpener>
std::unique_ptr<WaveStream> OpenAddonWaveStream(Waveform&, std::unique_ptr<FileObject> file) {
  std::unique_ptr<AudioStream> stream = kOpener(*file);
  if (!stream) return nullptr;
  return std::make_unique<AddonWaveStream>(std::move(file), std::move(stream));
}

bool DecodeFlacWave(Waveform* wave, FileObject* file) { return DecodeWith(addons::OpenFlacStream, wave, file); }
bool DecodeVorbisWave(Waveform* wave, FileObject* file) { return DecodeWith(addons::OpenVorbisStream, wave, file); }
bool DecodeOpusWave(Waveform* wave, FileObject* file) { return DecodeWith(addons::OpenOpusStream, wave, file); }
bool DecodeMpegWave(Waveform* wave, FileObject* file) { return DecodeWith(addons::OpenMpegStream, wave, file); }
std::unique_ptr<AudioStream> OpenMedia(FileObject& file) { return addons::OpenFfmpegStream(file); }
std::unique_ptr<AudioStream> OpenApe(FileObject& file) { return addons::OpenFfmpegStream(file, addons::kApeMissing); }
std::unique_ptr<AudioStream> OpenAmr(FileObject& file) { return addons::OpenFfmpegStream(file, addons::kAmrMissing); }
bool DecodeWavPackWave(Waveform* wave, FileObject* file) { return DecodeWith(addons::OpenWavPackStream, wave, file); }
bool DecodeAacWave(Waveform* wave, FileObject* file) { return DecodeWith(addons::OpenAdtsStream, wave, file); }
bool DecodeMediaWave(Waveform* wave, FileObject* file) { return DecodeWith(OpenMedia, wave, file, false); }
bool DecodeApeWave(Waveform* wave, FileObject* file) { return DecodeWith(OpenApe, wave, file, false); }
bool DecodeAmrWave(Waveform* wave, FileObject* file) { return DecodeWith(OpenAmr, wave, file, false); }

// Streams whose stated length is exact stream straight into writers; those whose length is an
// estimate are decoded whole, so that the estimate is corrected first.
[[maybe_unused]] const bool kStreamsRegistered = [] {
  RegisterWaveStreamOpener(&DecodeFlacWave, &OpenAddonWaveStream<addons::OpenFlacStream>);
  RegisterWaveStreamOpener(&DecodeVorbisWave, &OpenAddonWaveStream<addons::OpenVorbisStream>);
  RegisterWaveStreamOpener(&DecodeOpusWave, &OpenAddonWaveStream<addons::OpenOpusStream>);
  RegisterWaveStreamOpener(&DecodeMpegWave, &OpenAddonWaveStream<addons::OpenMpegStream>);
  RegisterWaveStreamOpener(&DecodeWavPackWave, &OpenAddonWaveStream<addons::OpenWavPackStream>);
  return true;
}();

// The wave a writer encodes: the item itself, or the first wave of a bank or instrument handed
// to a row that may hold either.
Waveform* WaveOf(Item* item) {
  if (item->Type() == ItemType::Waveform) return static_cast<Waveform*>(item);
  const std::vector<Waveform*> waves = WavesOfItem(item);
  return waves.empty() ? nullptr : waves.front();
}

// Describes one wave from an open stream. `lossless` keeps the stream's bit depth as the source
// format; otherwise the wave is "Compressed" with its average bit rate.
Waveform* DescribeWave(Collection* collection, FileObject* file, AudioStream& stream, WaveDecoder decoder,
                       bool lossless, const char* unknownLength) {
  if (stream.frames == 0) {
    SetLastError(unknownLength);
    return nullptr;
  }
  if (stream.channels > 2) {
    SetLastError("Too many channels");
    return nullptr;
  }
  // No codec here packs more than this many frames into a byte of its file (silence in the largest
  // blocks of FLAC or WavPack, empty Vorbis and Opus packets): a header that states more is forged.
  constexpr uint64_t kMostFramesPerByte = 8192;
  const int64_t fileBytes = file->Size();
  auto* wave = new Waveform(collection);
  wave->length = uint32_t(std::min<uint64_t>({stream.frames, 0xFFFFFFFFu,
                                             uint64_t(std::max<int64_t>(fileBytes, 1)) * kMostFramesPerByte}));
  wave->channels = uint8_t(stream.channels);
  wave->sampleRate = stream.rate;
  wave->sourceOffset = 0;
  if (lossless) {
    wave->SetPcmSource(stream.bits, 0);
  } else {
    wave->sourceFormat = 1u << kStorageCompressed;
    wave->bits = 16;
    const int64_t size = file->Size();
    const double seconds = double(wave->length) / double(std::max<uint32_t>(stream.rate, 1));
    wave->dataFormat = DataFormatFromRate(seconds > 0 && size > 0 ? double(size) * 8.0 / seconds / 1000.0 : 128.0);
  }
  wave->decoder = decoder;
  addons::TagsToItem(stream.tags, *wave);
  if (!stream.keptChunks.empty()) ReadWaveMetadataChunks(*wave, stream.keptChunks.data(), stream.keptChunks.size());
  return wave;
}

// The wave to encode, in the channels the row and the user chose.
struct EncodeSource {
  std::vector<float> samples;
  addons::EncodeInput input;
};

bool PrepareEncode(Item* item, const SaveOptions* options, EncodeSource& source) {
  Waveform* wave = WaveOf(item);
  const float* samples = wave ? wave->GetSamplesForRead() : nullptr;
  if (!wave) SetLastError("Empty item - nothing to save");
  if (!wave) return false;
  if (!samples || wave->length == 0) {
    if (LastError().empty()) SetLastError("Zero length");
    return false;
  }
  const uint32_t outChannels = ChooseChannels(*wave, *options);
  const uint32_t inChannels = wave->channels;
  source.samples.resize(size_t(wave->length) * outChannels);
  for (uint32_t i = 0; i < wave->length; ++i) {
    const float* frame = samples + size_t(i) * inChannels;
    float* out = source.samples.data() + size_t(i) * outChannels;
    if (outChannels == inChannels) std::copy_n(frame, inChannels, out);
    else if (outChannels == 1) out[0] = 0.5f * (frame[0] + frame[1]);
    else out[0] = out[1] = frame[0];
  }
  source.input.samples = source.samples.data();
  source.input.frames = wave->length;
  source.input.channels = outChannels;
  source.input.rate = wave->sampleRate;
  source.input.tags = addons::TagsFromItem(*wave);
  return true;
}

bool StartsWith(const uint8_t* head, uint32_t headBytes, uint32_t at, const char* text) {
  const size_t length = std::strlen(text);
  return headBytes >= at + length && std::memcmp(head + at, text, length) == 0;
}

// Size of an ID3v2 tag at the start, with its header; 0 when there is none.
uint32_t Id3v2Size(const uint8_t* head, uint32_t headBytes) {
  if (headBytes < 10 || std::memcmp(head, "ID3", 3) != 0) return 0;
  if ((head[6] | head[7] | head[8] | head[9]) & 0x80) return 0;
  return 10 + (uint32_t(head[6]) << 21 | uint32_t(head[7]) << 14 | uint32_t(head[8]) << 7 | head[9]) +
         ((head[5] & 0x10) ? 10 : 0);
}

// Layer (1-3) of a plausible MPEG audio frame header at `at`, else 0.
int MpegLayerAt(const uint8_t* head, uint32_t headBytes, uint32_t at) {
  if (headBytes < 4 || at > headBytes - 4) return 0;
  const uint8_t* p = head + at;
  if (p[0] != 0xFF || (p[1] & 0xE0) != 0xE0) return 0;
  const int version = (p[1] >> 3) & 3, layerBits = (p[1] >> 1) & 3;
  const int bitRate = p[2] >> 4, rateIndex = (p[2] >> 2) & 3;
  if (version == 1 || layerBits == 0 || bitRate == 15 || rateIndex == 3) return 0;
  return 4 - layerBits;
}

int32_t DetectMpeg(const uint8_t* head, uint32_t headBytes, int wantedLayer) {
  const uint32_t tag = Id3v2Size(head, headBytes);
  const int layer = MpegLayerAt(head, headBytes, tag);
  if (tag && tag >= headBytes) return wantedLayer == 3 ? 4 : 2;  // a long tag hides the frames
  if (layer == 0) return 0;
  if (wantedLayer && layer != wantedLayer) return 0;
  return tag ? 6 : 4;
}

}  // namespace

// ------------------------------------------------------------------------------------------------
// FLAC

int32_t DetectFlac(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  const uint32_t tag = Id3v2Size(head, headBytes);
  return StartsWith(head, headBytes, tag, "fLaC") ? 6 : 0;
}

bool ReadFlac(Collection* collection, FileObject* file, uint32_t) {
  // Some taggers put an ID3v2 tag before the stream; the decoder starts after it.
  uint8_t head[10] = {};
  const uint32_t tag = file->ReadAt(0, head, sizeof head) ? Id3v2Size(head, sizeof head) : 0;
  file->Seek(tag);
  std::unique_ptr<AudioStream> stream = addons::OpenFlacStream(*file);
  if (!stream) return false;
  Waveform* wave = DescribeWave(collection, file, *stream, DecodeFlacWave, true, "Zero length");
  if (wave) wave->sourceOffset = tag;
  return wave != nullptr;
}

// The wave as blocks in the channels the row and the user chose, for encoders that pull them: the
// wave is never held whole unless it already is.
bool PrepareStreamedEncode(Item* item, const SaveOptions* options, std::unique_ptr<WaveStream>& stream,
                           addons::EncodeInput& input) {
  Waveform* wave = WaveOf(item);
  if (!wave || wave->length == 0) {
    SetLastError(wave ? "Zero length" : "Empty item - nothing to save");
    return false;
  }
  stream = OpenWaveStream(*wave);
  if (!stream) return false;
  const uint32_t outChannels = ChooseChannels(*wave, *options);
  const uint32_t inChannels = stream->channels;
  auto scratch = std::make_shared<std::vector<float>>();
  WaveStream* from = stream.get();
  input.pull = [from, scratch, inChannels, outChannels](float* out, uint32_t frames) -> int64_t {
    if (inChannels == outChannels) return from->Read(out, frames);
    scratch->resize(size_t(frames) * inChannels);
    const int64_t got = from->Read(scratch->data(), frames);
    for (int64_t i = 0; i < got; ++i) {
      const float* frame = scratch->data() + size_t(i) * inChannels;
      if (outChannels == 1) out[i] = 0.5f * (frame[0] + frame[1]);
      else out[2 * i] = out[2 * i + 1] = frame[0];
    }
    return got;
  };
  input.frames = wave->length;
  input.channels = outChannels;
  input.rate = wave->sampleRate;
  input.tags = addons::TagsFromItem(*wave);
  return true;
}

bool WriteFlac(Item* item, FileObject* file, const SaveOptions* options) {
  addons::EncodeInput input;
  std::unique_ptr<WaveStream> stream;
  if (!PrepareStreamedEncode(item, options, stream, input)) return false;
  double rate = 0;
  const uint32_t storage = ChooseSaveFormat(*WaveOf(item), *options, rate);
  const uint32_t bits = storage == kStoragePcm24 ? 24 : 16;
  const uint32_t level = options->variant == 2 ? 8 : 5;
  // Loop, root key, fine tune and markers travel as WAVE chunks, as flac keeps them from a WAVE.
  input.keptChunks = WaveMetadataChunks(*WaveOf(item));
  return addons::EncodeFlac(*file, input, bits, level);
}

// ------------------------------------------------------------------------------------------------
// Ogg Vorbis and Opus

int32_t DetectOggVorbis(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "OggS") && StartsWith(head, headBytes, 28, "\x01vorbis") ? 6 : 0;
}

bool ReadOggVorbis(Collection* collection, FileObject* file, uint32_t) {
  std::unique_ptr<AudioStream> stream = addons::OpenVorbisStream(*file);
  return stream && DescribeWave(collection, file, *stream, DecodeVorbisWave, false, "Unknown Ogg length");
}

double OggVorbisSettings(uint32_t index, uint32_t variant, std::string* labelOut) {
  return addons::VorbisSetting(index, variant, labelOut);
}

bool WriteOggVorbis(Item* item, FileObject* file, const SaveOptions* options) {
  EncodeSource source;
  if (!PrepareEncode(item, options, source)) return false;
  double rate = 0;
  ChooseSaveFormat(*WaveOf(item), *options, rate, OggVorbisSettings);
  // A setting's value is its quality plus one; anything else (a bit rate from another row) is
  // mapped onto the quality scale by the encoder's nominal rates.
  double quality = rate >= 1 && rate <= 11 ? (rate - 1) / 10.0 : std::clamp((rate - 64.0) / 256.0 + 0.2, 0.0, 1.0);
  return addons::EncodeVorbis(*file, source.input, float(quality));
}

int32_t DetectOpus(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "OggS") && StartsWith(head, headBytes, 28, "OpusHead") ? 6 : 0;
}

bool ReadOpus(Collection* collection, FileObject* file, uint32_t) {
  std::unique_ptr<AudioStream> stream = addons::OpenOpusStream(*file);
  return stream && DescribeWave(collection, file, *stream, DecodeOpusWave, false, "Unknown Opus length");
}

double OpusSettings(uint32_t index, uint32_t variant, std::string* labelOut) {
  return addons::OpusSetting(index, variant, labelOut);
}

bool WriteOpus(Item* item, FileObject* file, const SaveOptions* options) {
  EncodeSource source;
  if (!PrepareEncode(item, options, source)) return false;
  double rate = 0;
  ChooseSaveFormat(*WaveOf(item), *options, rate, OpusSettings);
  return addons::EncodeOpus(*file, source.input, int(std::clamp(rate, 6.0, 510.0)));
}

// ------------------------------------------------------------------------------------------------
// MPEG audio

int32_t DetectMpegLayer1(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return DetectMpeg(head, headBytes, 1);
}
int32_t DetectMpegLayer2(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return DetectMpeg(head, headBytes, 2);
}
int32_t DetectMpegLayer3(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return DetectMpeg(head, headBytes, 3);
}
int32_t DetectMpegAnyLayer(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return DetectMpeg(head, headBytes, 0);
}

bool ReadMpegAudio(Collection* collection, FileObject* file, uint32_t) {
  std::unique_ptr<AudioStream> stream = addons::OpenMpegStream(*file);
  return stream && DescribeWave(collection, file, *stream, DecodeMpegWave, false, "Zero length");
}

double Mp3Settings(uint32_t index, uint32_t variant, std::string* labelOut) {
  return addons::Mp3Setting(index, variant, labelOut);
}
double Mp2Settings(uint32_t index, uint32_t variant, std::string* labelOut) {
  return addons::Mp2Setting(index, variant, labelOut);
}

bool WriteMp3(Item* item, FileObject* file, const SaveOptions* options) {
  EncodeSource source;
  if (!PrepareEncode(item, options, source)) return false;
  double rate = 0;
  ChooseSaveFormat(*WaveOf(item), *options, rate, Mp3Settings);
  const addons::Mp3Mode mode = addons::Mp3ModeOfVariant(options->variant);
  const int value = mode == addons::Mp3Mode::Vbr ? addons::Mp3VbrQualityOfValue(rate) : int(rate);
  std::vector<uint8_t> bytes;
  if (!addons::EncodeMp3ToMemory(source.input, mode, value, true, bytes)) return false;
  if (!file->Write(bytes.data(), bytes.size())) {
    SetLastError("Writing to file failed");
    return false;
  }
  return true;
}

bool WriteMp2(Item* item, FileObject* file, const SaveOptions* options) {
  EncodeSource source;
  if (!PrepareEncode(item, options, source)) return false;
  double rate = 0;
  ChooseSaveFormat(*WaveOf(item), *options, rate, Mp2Settings);
  std::vector<uint8_t> bytes;
  if (!addons::EncodeMp2ToMemory(source.input, int(rate), bytes)) return false;
  if (!file->Write(bytes.data(), bytes.size())) {
    SetLastError("Writing to file failed");
    return false;
  }
  return true;
}

// ------------------------------------------------------------------------------------------------
// WavPack

int32_t DetectWavPack(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "wvpk") ? 6 : 0;
}

bool ReadWavPack(Collection* collection, FileObject* file, uint32_t) {
  std::unique_ptr<AudioStream> stream = addons::OpenWavPackStream(*file);
  if (!stream) return false;
  Waveform* wave = DescribeWave(collection, file, *stream, DecodeWavPackWave, true, "Zero length");
  if (wave && stream->bits == 32) {
    wave->SetPcmSourceByFormat(kStorageFloat32, 0);
    wave->decoder = DecodeWavPackWave;
  }
  return wave != nullptr;
}

bool WriteWavPack(Item* item, FileObject* file, const SaveOptions* options) {
  EncodeSource source;
  if (!PrepareEncode(item, options, source)) return false;
  double rate = 0;
  const uint32_t storage = ChooseSaveFormat(*WaveOf(item), *options, rate);
  const uint32_t bits = storage == kStorageFloat32 ? 32 : storage == kStoragePcm24 ? 24 : 16;
  source.input.keptChunks = WaveMetadataChunks(*WaveOf(item));
  return addons::EncodeWavPack(*file, source.input, bits);
}

// ------------------------------------------------------------------------------------------------
// Media containers through FFmpeg

namespace {

constexpr int kAacRates[] = {32, 48, 64, 80, 96, 112, 128, 160, 192, 256, 320};
constexpr int kWmaRates[] = {32, 48, 64, 96, 128, 160, 192};
constexpr double kAmrRates[] = {4.75, 5.15, 5.90, 6.70, 7.40, 7.95, 10.20, 12.20};

bool WriteThroughFfmpeg(Item* item, FileObject* file, const SaveOptions* options, FormatSettingsList settings,
                        addons::FfmpegEncodeRequest request) {
  EncodeSource source;
  if (!PrepareEncode(item, options, source)) return false;
  double rate = 0;
  const uint32_t storage = ChooseSaveFormat(*WaveOf(item), *options, rate, settings);
  if (storage == kStorageCompressed) request.bitRate = int(std::lround(rate * 1000.0));
  else request.bits = storage == kStoragePcm24 ? 24 : 16;
  return addons::EncodeWithFfmpeg(*file, source.input, request);
}

}  // namespace

int32_t DetectIsoMedia(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 4, "ftyp") ? 6 : 0;
}
int32_t DetectQuickTime(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (StartsWith(head, headBytes, 4, "ftyp")) return 6;
  for (const char* box : {"moov", "mdat", "wide", "free", "skip"})
    if (StartsWith(head, headBytes, 4, box)) return 4;
  return 0;
}
int32_t DetectMatroska(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "\x1A\x45\xDF\xA3") ? 6 : 0;
}
int32_t DetectAvi(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "RIFF") && StartsWith(head, headBytes, 8, "AVI ") ? 6 : 0;
}
int32_t DetectAsf(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  static constexpr uint8_t kHeaderGuid[8] = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11};
  return headBytes >= 8 && std::memcmp(head, kHeaderGuid, 8) == 0 ? 6 : 0;
}
int32_t DetectRealAudio(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, ".ra\xFD") || StartsWith(head, headBytes, 0, ".RMF") ? 6 : 0;
}
int32_t DetectCaf(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "caff") ? 6 : 0;
}
int32_t DetectMusepack(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "MPCK") || StartsWith(head, headBytes, 0, "MP+") ? 6 : 0;
}
int32_t DetectShorten(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "ajkg") ? 6 : 0;
}
int32_t DetectDss(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "\x02" "dss") || StartsWith(head, headBytes, 0, "\x03" "ds2") ? 6 : 0;
}
int32_t DetectApe(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  const uint32_t tag = Id3v2Size(head, headBytes);
  return StartsWith(head, headBytes, tag, "MAC ") ? 6 : 0;
}
int32_t DetectAmr(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return StartsWith(head, headBytes, 0, "#!AMR") ? 6 : 0;
}
int32_t DetectAacStream(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (StartsWith(head, headBytes, 0, "ADIF")) return 6;
  const uint32_t tag = Id3v2Size(head, headBytes);
  // ADTS: 12 sync bits, layer 0, a valid sampling index.
  if (headBytes >= tag + 7 && head[tag] == 0xFF && (head[tag + 1] & 0xF6) == 0xF0 && ((head[tag + 2] >> 2) & 15) < 13)
    return 4;
  return 0;
}
int32_t DetectMpegSystem(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 4 && head[0] == 0 && head[1] == 0 && head[2] == 1 && head[3] == 0xBA ? 6 : 0;
}

bool ReadMediaContainer(Collection* collection, FileObject* file, uint32_t) {
  std::unique_ptr<AudioStream> stream = OpenMedia(*file);
  return stream && DescribeWave(collection, file, *stream, DecodeMediaWave, stream->lossless, "Zero length");
}
bool ReadAacStream(Collection* collection, FileObject* file, uint32_t) {
  std::unique_ptr<AudioStream> stream = addons::OpenAdtsStream(*file);
  return stream && DescribeWave(collection, file, *stream, DecodeAacWave, false, "Zero length");
}
bool ReadApe(Collection* collection, FileObject* file, uint32_t) {
  std::unique_ptr<AudioStream> stream = OpenApe(*file);
  return stream && DescribeWave(collection, file, *stream, DecodeApeWave, true, "Zero length");
}
bool ReadAmr(Collection* collection, FileObject* file, uint32_t) {
  std::unique_ptr<AudioStream> stream = OpenAmr(*file);
  return stream && DescribeWave(collection, file, *stream, DecodeAmrWave, false, "Zero sized AMR data");
}

double AacSettings(uint32_t index, uint32_t, std::string* labelOut) {
  if (index >= std::size(kAacRates)) return 0.0;
  if (labelOut) *labelOut = "AAC " + std::to_string(kAacRates[index]) + " kbit/s";
  return kAacRates[index];
}
double WmaSettings(uint32_t index, uint32_t, std::string* labelOut) {
  if (index >= std::size(kWmaRates)) return 0.0;
  if (labelOut) *labelOut = "WMA " + std::to_string(kWmaRates[index]) + " kbit/s";
  return kWmaRates[index];
}
double AmrSettings(uint32_t index, uint32_t, std::string* labelOut) {
  if (index >= std::size(kAmrRates)) return 0.0;
  if (labelOut) {
    char text[32];
    std::snprintf(text, sizeof text, "AMR %.2f kbit/s", kAmrRates[index]);
    *labelOut = text;
  }
  return kAmrRates[index];
}

bool WriteAacStream(Item* item, FileObject* file, const SaveOptions* options) {
  // Variants 1 and 4 are the Main profile rows; the others Low Complexity.
  const bool main = options->variant == 1 || options->variant == 4;
  return WriteThroughFfmpeg(item, file, options, AacSettings,
                            {"adts", "aac", 0, main ? 0 : 1, 16, addons::kAacEncoderMissing});
}
bool WriteM4a(Item* item, FileObject* file, const SaveOptions* options) {
  return WriteThroughFfmpeg(item, file, options, AacSettings, {"ipod", "aac", 0, -99, 16, addons::kAacEncoderMissing});
}
bool WriteWma(Item* item, FileObject* file, const SaveOptions* options) {
  return WriteThroughFfmpeg(item, file, options, WmaSettings, {"asf", "wmav2", 0, -99, 16, addons::kFfmpegMissing});
}
bool WriteMka(Item* item, FileObject* file, const SaveOptions* options) {
  return WriteThroughFfmpeg(item, file, options, nullptr, {"matroska", "flac", 0, -99, 16, addons::kFfmpegMissing});
}
bool WriteCaf(Item* item, FileObject* file, const SaveOptions* options) {
  return WriteThroughFfmpeg(item, file, options, nullptr, {"caf", "alac", 0, -99, 16, addons::kFfmpegMissing});
}

namespace {

bool WriteAmrIn(const char* container, Item* item, FileObject* file, const SaveOptions* options) {
  // AMR narrow band codes 8 kHz mono only; the wave is not resampled behind the user's back.
  const Waveform* wave = WaveOf(item);
  if (!wave) {
    SetLastError("Empty item - nothing to save");
    return false;
  }
  if (wave->sampleRate != 8000) {
    SetLastError("AMR != 8kHz");
    return false;
  }
  SaveOptions mono = *options;
  mono.caps = (mono.caps & ~kCapsStereo) | kCapsMono;
  double rate = 0;
  ChooseSaveFormat(*wave, mono, rate, AmrSettings);
  EncodeSource source;
  if (!PrepareEncode(item, &mono, source)) return false;
  addons::FfmpegEncodeRequest request{container, "libopencore_amrnb", int(std::lround(rate * 1000.0)), -99, 16,
                                      addons::kAmrMissing};
  if (!addons::EncodeWithFfmpeg(*file, source.input, request)) {
    if (LastError() != addons::kAmrMissing) SetLastError("Failed initializing the AMR encoder");
    return false;
  }
  return true;
}

}  // namespace

bool WriteAmr(Item* item, FileObject* file, const SaveOptions* options) { return WriteAmrIn("amr", item, file, options); }
bool Write3gp(Item* item, FileObject* file, const SaveOptions* options) { return WriteAmrIn("3gp", item, file, options); }

}  // namespace orlin
