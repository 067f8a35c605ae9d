// Amiga IFF 8SVX and 16SV. A stereo BODY (CHAN 6) holds all of the left channel, then all of the
// right. A file of several octaves keeps only its first, highest one, whose loop is the repeat part
// behind the one-shot part.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"
#include "core/save_choice.h"
#include "formats/audio/codecs/codecs.h"
#include "formats/audio/iff.h"
#include "formats/audio/iff_chunks.h"

namespace orlin {

namespace {

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }

constexpr uint32_t kChanStereo = 6;

}  // namespace

int32_t DetectSvx(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 12 && std::memcmp(head, "FORM", 4) == 0 &&
                 (std::memcmp(head + 8, "8SVX", 4) == 0 || std::memcmp(head + 8, "16SV", 4) == 0)
             ? 6
             : 0;
}

bool ReadSvx(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  IffWalker walker(*file, 0, size > 0 ? uint64_t(size) : 0);
  uint32_t magic = 0, form = 0;
  if (!walker.ReadHead(magic, form) || magic != IffId("FORM")) return Fail("No FORM starting IFF file");
  if (form != IffId("8SVX") && form != IffId("16SV")) return Fail("Not an 8SVX or 16SV type FORM IFF");
  const uint32_t bytesPerSample = form == IffId("16SV") ? 2 : 1;
  auto* wave = new Waveform(collection);
  wave->SetName(std::filesystem::path(file->Path()).stem().string());
  bool haveHeader = false, haveBody = false;
  uint32_t oneShot = 0, repeat = 0, rate = 0, octaves = 1, channelWord = 0;
  uint64_t bodyOffset = 0, bodyBytes = 0;
  int chunks = 0;
  while (walker.Step() && ++chunks < 100000) {
    const uint32_t id = walker.Id();
    if (id == IffId("VHDR") && !haveHeader) {
      const std::vector<uint8_t> body = walker.Body(64);
      if (body.size() < 20) continue;
      haveHeader = true;
      oneShot = Be32(body.data());
      repeat = Be32(body.data() + 4);
      rate = uint32_t(body[12] << 8 | body[13]);
      octaves = std::max<uint32_t>(body[14], 1);
      if (body[15] != 0) {
        delete wave;
        return Fail("Can't handle compressed IFF:8SVX");
      }
      const uint32_t volume = Be32(body.data() + 16);  // 16.16 fixed point, 1.0 full
      if (volume > 0 && volume < 0x10000) wave->gain = float(20.0 * std::log10(volume / 65536.0));
    } else if (id == IffId("BODY") && !haveBody) {
      haveBody = true;
      bodyOffset = walker.BodyOffset();
      bodyBytes = walker.Size();
    } else if (id == IffId("CHAN")) {
      const std::vector<uint8_t> body = walker.Body(4);
      if (body.size() == 4) channelWord = Be32(body.data());
    } else if (id == IffId("COMT")) {
      // Comments with a time stamp and a marker id ahead of each text.
      const std::vector<uint8_t> body = walker.Body(1 << 16);
      if (body.size() >= 2) {
        ByteReader reader(body);
        const uint32_t count = uint32_t(body[0] << 8 | body[1]);
        reader.Skip(2);
        for (uint32_t i = 0; i < count && reader.CanRead(8); ++i) {
          reader.Skip(6);
          const uint32_t length = reader.U16Be();
          const std::string_view text = reader.Text(length);
          if (length & 1) reader.Skip(1);
          ReadIffText(*wave, kTextComments, std::vector<uint8_t>(text.begin(), text.end()));
        }
      }
    } else {
      for (const IffTextChunk& text : kIffTextChunks)
        if (text.id == id) ReadIffText(*wave, text.slot, walker.Body(1 << 16));
    }
  }
  if (!haveHeader || !haveBody) {
    delete wave;
    return Fail(haveHeader ? "No BODY chunk" : "No VHDR chunk");
  }
  const uint32_t channels = channelWord == kChanStereo ? 2 : 1;
  const uint64_t channelBytes = bodyBytes / channels / bytesPerSample * bytesPerSample;
  uint64_t frames = channelBytes / bytesPerSample;
  // Several octaves: the first is oneShot + repeat long, each next one twice as long.
  if (octaves > 1 && oneShot + uint64_t(repeat) > 0) frames = std::min<uint64_t>(frames, oneShot + uint64_t(repeat));
  wave->channels = uint8_t(channels);
  wave->sampleRate = rate ? rate : 8363;
  wave->SetPcmSourceByFormat(bytesPerSample == 2 ? kStoragePcm16 : kStoragePcm8,
                             (bytesPerSample == 2 ? kSourceBigEndian : 0) | (channels == 2 ? kSourceSequentialStereo : 0));
  wave->sourceOffset = bodyOffset;
  if (channels == 2) wave->sourceOffsetB = bodyOffset + channelBytes;
  wave->length = uint32_t(std::min<uint64_t>(frames, 0xFFFFFFFF));
  if (repeat > 0 && oneShot < wave->length) {
    wave->loop.type = 1;
    wave->loop.start = float(oneShot);
    wave->loop.end = float(std::min<uint64_t>(oneShot + uint64_t(repeat), wave->length));
  }
  return true;
}

bool WriteSvx(Item* item, FileObject* file, const SaveOptions* options) {
  if (!item || item->Type() != ItemType::Waveform) return Fail("The file format can not save this item");
  Waveform& wave = *static_cast<Waveform*>(item);
  double rate = 0;
  const uint32_t storage = ChooseSaveFormat(wave, *options, rate) == kStoragePcm8 ? kStoragePcm8 : kStoragePcm16;
  const uint32_t channels = ChooseChannels(wave, *options);
  if (!wave.GetSamplesForRead() && wave.length) return false;
  const uint32_t frames = wave.Data() ? wave.Data()->frames : 0;
  const bool wide = storage == kStoragePcm16;
  IffWriter iff;
  iff.Begin(IffId(wide ? "16SV" : "8SVX"));
  // The one-shot part runs to the loop start; the repeat part is the loop, and what follows the loop
  // can not be stored.
  uint32_t oneShot = frames, repeat = 0;
  if (wave.loop.type != 0) {
    const double start = std::clamp(std::floor(double(wave.loop.start) + 0.5), 0.0, double(frames));
    const double end = std::clamp(std::floor(double(wave.loop.end) + 0.5), start, double(frames));
    oneShot = uint32_t(start);
    repeat = uint32_t(end - start);
  }
  ByteWriter vhdr;
  vhdr.U32Be(oneShot);
  vhdr.U32Be(repeat);
  vhdr.U32Be(0);  // samples per cycle: not a tuned wave
  vhdr.U16Be(uint16_t(std::min<uint32_t>(wave.sampleRate, 0xFFFF)));
  vhdr.U8(1);  // octaves
  vhdr.U8(0);  // no compression
  const double volume = std::pow(10.0, std::min(0.0, double(wave.gain)) / 20.0);
  vhdr.U32Be(uint32_t(std::lround(volume * 65536.0)));
  iff.Chunk(IffId("VHDR"), vhdr.Bytes().data(), vhdr.Size());
  WriteIffTexts(iff, wave);
  if (channels == 2) {
    ByteWriter chan;
    chan.U32Be(kChanStereo);
    iff.Chunk(IffId("CHAN"), chan.Bytes().data(), chan.Size());
  }
  const size_t body = iff.Open(IffId("BODY"));
  if (channels == 1) {
    if (!AppendSamples(iff.Bytes(), wave, storage, 1, wide ? kSourceBigEndian : 0)) return false;
  } else {
    // Stereo is stored as two halves: each channel in turn through a mono copy.
    const float* samples = wave.GetSamplesForRead();
    const uint32_t sourceChannels = wave.Data() ? wave.Data()->channels : 1;
    Collection scratch;
    for (uint32_t c = 0; c < 2; ++c) {
      auto* half = new Waveform(&scratch);
      half->length = frames;
      half->channels = 1;
      half->sampleRate = wave.sampleRate;
      float* out = half->AllocSamples();
      if (!out && frames) return Fail("Out of memory");
      for (uint32_t i = 0; i < frames; ++i) out[i] = samples[size_t(i) * sourceChannels + std::min(c, sourceChannels - 1)];
      if (!AppendSamples(iff.Bytes(), *half, storage, 1, wide ? kSourceBigEndian : 0)) return false;
    }
  }
  iff.Close(body);
  if (!iff.Finish()) return Fail("Wave too big - use 64-bit version!");
  if (!file->Write(iff.Bytes().data(), iff.Bytes().size())) return Fail("Writing to file failed");
  return true;
}

}  // namespace orlin
