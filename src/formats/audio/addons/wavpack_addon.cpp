// Glue to libwavpack. Reading goes through a stream reader over FileObject; the samples come as
// right-justified integers (or floats normalised to 1.0) and are scaled here.
#include "formats/audio/addons/wavpack_addon.h"

#include <wavpack/wavpack.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/audio/addons/addon_loader.h"

namespace orlin::addons {

namespace {

struct WavPackApi {
  decltype(&WavpackOpenFileInputEx) openInput;
  decltype(&WavpackCloseFile) close;
  decltype(&WavpackGetNumSamples) numSamples;
  decltype(&WavpackSeekSample) seekSample;
  decltype(&WavpackGetMode) mode;
  decltype(&WavpackUnpackSamples) unpack;
  decltype(&WavpackGetSampleRate) sampleRate;
  decltype(&WavpackGetBitsPerSample) bitsPerSample;
  decltype(&WavpackGetBytesPerSample) bytesPerSample;
  decltype(&WavpackGetNumChannels) numChannels;
  decltype(&WavpackGetTagItem) tagItem;
  decltype(&WavpackOpenFileOutput) openOutput;
  decltype(&WavpackSetConfiguration) setConfiguration;
  decltype(&WavpackPackInit) packInit;
  decltype(&WavpackPackSamples) pack;
  decltype(&WavpackFlushSamples) flush;
  decltype(&WavpackAppendTagItem) appendTag;
  decltype(&WavpackWriteTag) writeTag;
  decltype(&WavpackAddWrapper) addWrapper;
  decltype(&WavpackGetWrapperBytes) wrapperBytes;
  decltype(&WavpackGetWrapperData) wrapperData;
  decltype(&WavpackSeekTrailingWrapper) seekTrailingWrapper;
} api;

#define ORLIN_SYMBOL(field, name) {name, reinterpret_cast<void**>(&api.field)}
const AddonSymbol kSymbols[] = {
    ORLIN_SYMBOL(openInput, "WavpackOpenFileInputEx"),   ORLIN_SYMBOL(close, "WavpackCloseFile"),
    ORLIN_SYMBOL(numSamples, "WavpackGetNumSamples"),    ORLIN_SYMBOL(seekSample, "WavpackSeekSample"),
    ORLIN_SYMBOL(mode, "WavpackGetMode"),                ORLIN_SYMBOL(unpack, "WavpackUnpackSamples"),
    ORLIN_SYMBOL(sampleRate, "WavpackGetSampleRate"),    ORLIN_SYMBOL(bitsPerSample, "WavpackGetBitsPerSample"),
    ORLIN_SYMBOL(bytesPerSample, "WavpackGetBytesPerSample"), ORLIN_SYMBOL(numChannels, "WavpackGetNumChannels"),
    ORLIN_SYMBOL(tagItem, "WavpackGetTagItem"),          ORLIN_SYMBOL(openOutput, "WavpackOpenFileOutput"),
    ORLIN_SYMBOL(setConfiguration, "WavpackSetConfiguration"), ORLIN_SYMBOL(packInit, "WavpackPackInit"),
    ORLIN_SYMBOL(pack, "WavpackPackSamples"),            ORLIN_SYMBOL(flush, "WavpackFlushSamples"),
    ORLIN_SYMBOL(appendTag, "WavpackAppendTagItem"),     ORLIN_SYMBOL(writeTag, "WavpackWriteTag"),
    ORLIN_SYMBOL(addWrapper, "WavpackAddWrapper"),       ORLIN_SYMBOL(wrapperBytes, "WavpackGetWrapperBytes"),
    ORLIN_SYMBOL(wrapperData, "WavpackGetWrapperData"), ORLIN_SYMBOL(seekTrailingWrapper, "WavpackSeekTrailingWrapper"),
};
#undef ORLIN_SYMBOL

AddonLibrary library("wavpack", {"libwavpack.so.1", "libwavpack.so"});

struct Source {
  FileObject* file;
  uint64_t base;
  int pushedBack = -1;
};

int32_t ReadBytes(void* id, void* data, int32_t count) {
  auto* source = static_cast<Source*>(id);
  if (count <= 0) return 0;
  auto* bytes = static_cast<uint8_t*>(data);
  int32_t done = 0;
  if (source->pushedBack >= 0) {
    *bytes++ = uint8_t(source->pushedBack);
    source->pushedBack = -1;
    ++done;
  }
  return done + int32_t(source->file->Read(bytes, size_t(count - done)));
}
uint32_t GetPosition(void* id) {
  auto* source = static_cast<Source*>(id);
  return uint32_t(source->file->Tell() - source->base - (source->pushedBack >= 0 ? 1 : 0));
}
int SetPositionAbsolute(void* id, uint32_t position) {
  auto* source = static_cast<Source*>(id);
  source->pushedBack = -1;
  return source->file->Seek(source->base + position) ? 0 : -1;
}
int SetPositionRelative(void* id, int32_t delta, int mode) {
  auto* source = static_cast<Source*>(id);
  int64_t target = delta;
  if (mode == SEEK_CUR) target += int64_t(GetPosition(id));
  else if (mode == SEEK_END) target += source->file->Size() - int64_t(source->base);
  if (target < 0) return -1;
  return SetPositionAbsolute(id, uint32_t(target));
}
int PushBackByte(void* id, int c) {
  static_cast<Source*>(id)->pushedBack = c & 0xFF;
  return c;
}
uint32_t GetLength(void* id) {
  auto* source = static_cast<Source*>(id);
  const int64_t size = source->file->Size();
  return size > int64_t(source->base) ? uint32_t(uint64_t(size) - source->base) : 0;
}
int CanSeek(void*) { return 1; }

WavpackStreamReader kReader = {ReadBytes, GetPosition, SetPositionAbsolute, SetPositionRelative,
                               PushBackByte, GetLength, CanSeek, nullptr};

class WavPackStream : public AudioStream {
 public:
  explicit WavPackStream(FileObject& file) : source_{&file, file.Tell()} {}
  ~WavPackStream() override {
    if (context_) api.close(context_);
  }

  bool Open() {
    // A hybrid file's correction data lies in "name.wvc" beside it; with it the decode is lossless.
    Source* correction = nullptr;
    if (source_.base == 0 && correctionFile_.Open(source_.file->Path() + "c", FileMode::Read)) {
      correctionSource_ = {&correctionFile_, 0};
      correction = &correctionSource_;
    }
    char error[128] = {};
    context_ = api.openInput(&kReader, &source_, correction, error,
                             OPEN_TAGS | OPEN_NORMALIZE | OPEN_WRAPPER | (correction ? OPEN_WVC : 0), 0);
    if (!context_) return false;
    // The head and trailer of the WAVE it was packed from (wavpack keeps both), where a loop may be;
    // the trailer is read from the last block, then decoding starts again from the first.
    if (api.wrapperBytes(context_) > 0) {
      api.seekTrailingWrapper(context_);
      const uint8_t* wrapper = api.wrapperData(context_);
      if (wrapper) keptChunks.assign(wrapper, wrapper + std::min<uint32_t>(api.wrapperBytes(context_), 1u << 20));
      api.seekSample(context_, 0);
    }
    channels = uint32_t(std::max(api.numChannels(context_), 0));
    rate = api.sampleRate(context_);
    const uint32_t total = api.numSamples(context_);
    frames = total == uint32_t(-1) ? 0 : total;
    bits = uint32_t(std::max(api.bitsPerSample(context_), 0));
    bytes_ = api.bytesPerSample(context_);
    float_ = (api.mode(context_) & MODE_FLOAT) != 0;
    lossless = true;
    if (channels == 0 || channels > 8 || rate == 0 || bytes_ < 1 || bytes_ > 4) return false;
    char text[1024];
    auto tag = [&](const char* key, std::string& out) {
      const int length = api.tagItem(context_, key, text, sizeof text);
      if (length > 0) out.assign(text, size_t(std::min<int>(length, int(sizeof text) - 1)));
    };
    tag("Title", tags.title);
    tag("Artist", tags.artist);
    tag("Comment", tags.comments);
    tag("Copyright", tags.copyright);
    tag("Album", tags.album);
    return true;
  }

  int64_t Read(float* out, uint32_t wanted) override {
    buffer_.resize(size_t(wanted) * channels);
    const uint32_t got = api.unpack(context_, buffer_.data(), wanted);
    const float scale = 1.0f / float(1u << (bytes_ * 8 - 1));
    for (size_t i = 0; i < size_t(got) * channels; ++i) {
      if (float_) std::memcpy(&out[i], &buffer_[i], 4);
      else out[i] = float(buffer_[i]) * scale;
    }
    return got;
  }

  bool Seek(uint64_t frame) override { return frame <= 0xFFFFFFFFu && api.seekSample(context_, uint32_t(frame)); }

 private:
  Source source_;
  FileObject correctionFile_;
  Source correctionSource_{nullptr, 0};
  WavpackContext* context_ = nullptr;
  std::vector<int32_t> buffer_;
  int bytes_ = 2;
  bool float_ = false;
};

int BlockOutput(void* id, void* data, int32_t count) {
  return count >= 0 && static_cast<FileObject*>(id)->Write(data, size_t(count)) ? 1 : 0;
}

}  // namespace

std::unique_ptr<AudioStream> OpenWavPackStream(FileObject& file) {
  if (!library.Bind(kSymbols, std::size(kSymbols))) {
    SetLastError(kWavPackMissing);
    return nullptr;
  }
  auto stream = std::make_unique<WavPackStream>(file);
  if (!stream->Open()) {
    SetLastError("Not a valid WavPack file");
    return nullptr;
  }
  return stream;
}

bool EncodeWavPack(FileObject& file, const EncodeInput& input, uint32_t bits) {
  if (!library.Bind(kSymbols, std::size(kSymbols))) {
    SetLastError(kWavPackMissing);
    return false;
  }
  WavpackContext* context = api.openOutput(BlockOutput, &file, nullptr);
  if (!context) {
    SetLastError("Out of memory");
    return false;
  }
  WavpackConfig config{};
  const bool isFloat = bits == 32;
  config.bytes_per_sample = isFloat ? 4 : int(bits / 8);
  config.bits_per_sample = int(bits);
  config.channel_mask = input.channels == 1 ? 4 : 3;
  config.num_channels = int(input.channels);
  config.sample_rate = int32_t(input.rate);
  if (isFloat) config.float_norm_exp = 127;
  bool ok = api.setConfiguration(context, &config, input.frames) && api.packInit(context);
  // A loop travels in the head of a WAVE, which wvunpack writes back in front of the samples.
  if (ok && !input.keptChunks.empty()) {
    std::vector<uint8_t> head;
    for (const std::vector<uint8_t>& chunk : ForeignRiffChunks(input, bits, isFloat))
      head.insert(head.end(), chunk.begin(), chunk.end());
    ok = api.addWrapper(context, head.data(), uint32_t(head.size()));
  }
  const double scale = double(1u << (bits - 1));
  std::vector<int32_t> block(size_t(4096) * input.channels);
  for (uint32_t at = 0; ok && at < input.frames; at += 4096) {
    const uint32_t count = std::min<uint32_t>(4096, input.frames - at);
    const float* source = input.samples + size_t(at) * input.channels;
    for (size_t i = 0; i < size_t(count) * input.channels; ++i) {
      if (isFloat) std::memcpy(&block[i], &source[i], 4);
      else block[i] = int32_t(std::clamp<double>(std::round(double(source[i]) * scale), -scale, scale - 1));
    }
    ok = api.pack(context, block.data(), count);
  }
  ok = ok && api.flush(context);
  if (ok) {
    const std::pair<const char*, const std::string*> items[] = {{"Title", &input.tags.title},
                                                                {"Artist", &input.tags.artist},
                                                                {"Comment", &input.tags.comments},
                                                                {"Copyright", &input.tags.copyright},
                                                                {"Album", &input.tags.album}};
    bool any = false;
    for (const auto& [key, value] : items)
      if (!value->empty()) any = api.appendTag(context, key, value->c_str(), int(value->size())) || any;
    if (any) ok = api.writeTag(context);
  }
  api.close(context);
  if (!ok) SetLastError("Writing to file failed");
  return ok;
}

}  // namespace orlin::addons
