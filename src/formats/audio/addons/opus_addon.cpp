// Glue to libopusfile and libopusenc. Files are read through FileObject callbacks; the encoder
// writes pages through a write callback.
#include "formats/audio/addons/opus_addon.h"

#include <opusenc.h>
#include <opusfile.h>

#include <algorithm>
#include <cstdio>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/audio/addons/addon_loader.h"

namespace orlin::addons {

namespace {

constexpr int kOpusRates[] = {16, 24, 32, 48, 64, 96, 128, 160, 192, 256};

struct OpusFileApi {
  decltype(&op_open_callbacks) open;
  decltype(&op_free) free;
  decltype(&op_channel_count) channelCount;
  decltype(&op_pcm_total) pcmTotal;
  decltype(&op_tags) tags;
  decltype(&op_read_float) readFloat;
  decltype(&op_pcm_seek) pcmSeek;
  decltype(&op_raw_seek) rawSeek;
} fileApi;

struct OpusEncApi {
  decltype(&ope_encoder_create_callbacks) create;
  decltype(&ope_encoder_ctl) ctl;
  decltype(&ope_encoder_write_float) writeFloat;
  decltype(&ope_encoder_drain) drain;
  decltype(&ope_encoder_destroy) destroy;
  decltype(&ope_comments_create) commentsCreate;
  decltype(&ope_comments_add) commentsAdd;
  decltype(&ope_comments_destroy) commentsDestroy;
} encApi;

#define ORLIN_SYMBOL(table, field, name) {name, reinterpret_cast<void**>(&table.field)}
const AddonSymbol kFileSymbols[] = {
    ORLIN_SYMBOL(fileApi, open, "op_open_callbacks"),       ORLIN_SYMBOL(fileApi, free, "op_free"),
    ORLIN_SYMBOL(fileApi, channelCount, "op_channel_count"), ORLIN_SYMBOL(fileApi, pcmTotal, "op_pcm_total"),
    ORLIN_SYMBOL(fileApi, tags, "op_tags"),                 ORLIN_SYMBOL(fileApi, readFloat, "op_read_float"),
    ORLIN_SYMBOL(fileApi, pcmSeek, "op_pcm_seek"),     ORLIN_SYMBOL(fileApi, rawSeek, "op_raw_seek"),
};
const AddonSymbol kEncSymbols[] = {
    ORLIN_SYMBOL(encApi, create, "ope_encoder_create_callbacks"),
    ORLIN_SYMBOL(encApi, ctl, "ope_encoder_ctl"),
    ORLIN_SYMBOL(encApi, writeFloat, "ope_encoder_write_float"),
    ORLIN_SYMBOL(encApi, drain, "ope_encoder_drain"),
    ORLIN_SYMBOL(encApi, destroy, "ope_encoder_destroy"),
    ORLIN_SYMBOL(encApi, commentsCreate, "ope_comments_create"),
    ORLIN_SYMBOL(encApi, commentsAdd, "ope_comments_add"),
    ORLIN_SYMBOL(encApi, commentsDestroy, "ope_comments_destroy"),
};
#undef ORLIN_SYMBOL

AddonLibrary opusFileLibrary("opusfile", {"libopusfile.so.0", "libopusfile.so"});
AddonLibrary opusEncLibrary("opusenc", {"libopusenc.so.0", "libopusenc.so"});

int ReadCallback(void* data, unsigned char* buffer, int bytes) {
  return bytes <= 0 ? 0 : int(static_cast<FileSource*>(data)->Read(buffer, size_t(bytes)));
}
int SeekCallback(void* data, opus_int64 offset, int whence) {
  return static_cast<FileSource*>(data)->Seek(offset, whence) < 0 ? -1 : 0;
}
opus_int64 TellCallback(void* data) { return static_cast<FileSource*>(data)->Tell(); }

class OpusStream : public AudioStream {
 public:
  explicit OpusStream(FileObject& file) : source_{&file, file.Tell()} {}
  ~OpusStream() override {
    if (opus_) fileApi.free(opus_);
  }

  bool Open() {
    const OpusFileCallbacks callbacks{ReadCallback, SeekCallback, TellCallback, nullptr};
    opus_ = fileApi.open(&source_, &callbacks, nullptr, 0, nullptr);
    if (!opus_) return false;
    const int count = fileApi.channelCount(opus_, -1);
    if (count < 1 || count > 8) return false;
    channels = uint32_t(count);
    rate = 48000;
    const ogg_int64_t total = fileApi.pcmTotal(opus_, -1);
    frames = total > 0 ? uint64_t(total) : 0;
    if (const OpusTags* opusTags = fileApi.tags(opus_, -1))
      for (int i = 0; i < opusTags->comments; ++i)
        if (opusTags->user_comments[i])
          AddVorbisComment(tags, std::string_view(opusTags->user_comments[i], size_t(opusTags->comment_lengths[i])));
    return true;
  }

  int64_t Read(float* out, uint32_t wanted) override {
    uint32_t done = 0;
    while (done < wanted) {
      const int got = fileApi.readFloat(opus_, out + size_t(done) * channels, int((wanted - done) * channels), nullptr);
      if (got == OP_HOLE) continue;
      if (got < 0) return done ? int64_t(done) : -1;
      if (got == 0) break;
      done += uint32_t(got);
    }
    return done;
  }

  bool Seek(uint64_t frame) override {
    // libopusfile 0.12 can land a few hundred frames off when the target lies shortly after the
    // current position in the same link; a raw seek to the start first makes it search afresh.
    return fileApi.rawSeek(opus_, 0) == 0 && fileApi.pcmSeek(opus_, ogg_int64_t(frame)) == 0;
  }

 private:
  FileSource source_;
  OggOpusFile* opus_ = nullptr;
};

int EncoderWrite(void* data, const unsigned char* bytes, opus_int32 length) {
  return static_cast<FileObject*>(data)->Write(bytes, size_t(length)) ? 0 : 1;
}
int EncoderClose(void*) { return 0; }

}  // namespace

std::unique_ptr<AudioStream> OpenOpusStream(FileObject& file) {
  if (!opusFileLibrary.Bind(kFileSymbols, std::size(kFileSymbols))) {
    SetLastError("Failed opening Opus stream");
    return nullptr;
  }
  auto stream = std::make_unique<OpusStream>(file);
  if (!stream->Open()) {
    SetLastError("Failed opening Opus stream");
    return nullptr;
  }
  return stream;
}

bool EncodeOpus(FileObject& file, const EncodeInput& input, int kbps) {
  if (!opusEncLibrary.Bind(kEncSymbols, std::size(kEncSymbols))) {
    SetLastError("Couldn't create Opus");
    return false;
  }
  OggOpusComments* comments = encApi.commentsCreate();
  if (!comments) {
    SetLastError("Couldn't create Opus");
    return false;
  }
  for (const auto& [key, value] : VorbisComments(input.tags)) encApi.commentsAdd(comments, key.c_str(), value.c_str());
  const OpusEncCallbacks callbacks{EncoderWrite, EncoderClose};
  int error = 0;
  // Opus codes at 48 kHz; the encoder resamples other rates itself and keeps the input rate in
  // the header for players that want it.
  OggOpusEnc* encoder = encApi.create(&callbacks, &file, comments, opus_int32(input.rate), int(input.channels),
                                      input.channels > 2 ? 1 : 0, &error);
  encApi.commentsDestroy(comments);
  if (!encoder) {
    SetLastError("Couldn't create Opus");
    return false;
  }
  encApi.ctl(encoder, OPUS_SET_BITRATE(opus_int32(kbps) * 1000));
  bool ok = true;
  for (uint32_t at = 0; ok && at < input.frames; at += 4096) {
    const uint32_t count = std::min<uint32_t>(4096, input.frames - at);
    ok = encApi.writeFloat(encoder, input.samples + size_t(at) * input.channels, int(count)) == OPE_OK;
  }
  ok = ok && encApi.drain(encoder) == OPE_OK;
  encApi.destroy(encoder);
  if (!ok) SetLastError("Writing to file failed");
  return ok;
}

double OpusSetting(uint32_t index, uint32_t, std::string* labelOut) {
  if (index >= std::size(kOpusRates)) return 0.0;
  if (labelOut) *labelOut = "Opus " + std::to_string(kOpusRates[index]) + " kbit/s";
  return kOpusRates[index];
}

}  // namespace orlin::addons
