// MPEG audio glue. libmpg123 reads from an in-memory copy of the stream through replaced reader
// callbacks, which serves files and embedded frames alike; LAME and TwoLAME are loaded at first use.
#include "formats/audio/addons/mpeg_addon.h"

#include <lame/lame.h>
#include <mpg123.h>
#include <twolame.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <strings.h>
#include <mutex>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/audio/addons/addon_loader.h"

namespace orlin::addons {

namespace {

constexpr int kMp3Rates[] = {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320};
constexpr int kMp3VbrValues[] = {32, 48, 64, 80, 96, 112, 128, 160, 192, 256};
// MPEG-1 layer II bit rates, from the encoder's own table.
constexpr int kMp2Rates[] = {32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};

struct LameApi {
  decltype(&lame_init) init;
  decltype(&lame_close) close;
  decltype(&lame_set_in_samplerate) setInRate;
  decltype(&lame_set_out_samplerate) setOutRate;
  decltype(&lame_set_num_channels) setChannels;
  decltype(&lame_set_mode) setMode;
  decltype(&lame_set_brate) setBitRate;
  decltype(&lame_set_VBR) setVbr;
  decltype(&lame_set_VBR_quality) setVbrQuality;
  decltype(&lame_set_VBR_mean_bitrate_kbps) setVbrMean;
  decltype(&lame_set_bWriteVbrTag) setWriteVbrTag;
  decltype(&lame_set_write_id3tag_automatic) setId3Automatic;
  decltype(&lame_init_params) initParams;
  decltype(&lame_encode_buffer_ieee_float) encodeFloat;
  decltype(&lame_encode_flush) flush;
  decltype(&lame_get_lametag_frame) lametagFrame;
  decltype(&lame_get_id3v2_tag) id3v2Tag;
  decltype(&id3tag_init) id3Init;
  decltype(&id3tag_add_v2) id3AddV2;
  decltype(&id3tag_set_title) id3Title;
  decltype(&id3tag_set_artist) id3Artist;
  decltype(&id3tag_set_album) id3Album;
  decltype(&id3tag_set_comment) id3Comment;
  decltype(&id3tag_set_fieldvalue) id3Field;
  decltype(&id3tag_set_albumart) id3AlbumArt;
} lame;

struct TwoLameApi {
  decltype(&twolame_init) init;
  decltype(&twolame_init_params) initParams;
  decltype(&twolame_set_num_channels) setChannels;
  decltype(&twolame_set_in_samplerate) setInRate;
  decltype(&twolame_set_out_samplerate) setOutRate;
  decltype(&twolame_set_bitrate) setBitRate;
  decltype(&twolame_set_mode) setMode;
  decltype(&twolame_encode_buffer_float32_interleaved) encodeFloat;
  decltype(&twolame_encode_flush) flush;
  decltype(&twolame_close) close;
  decltype(&twolame_set_verbosity) setVerbosity;
} twolame;

#define ORLIN_SYMBOL(table, field, name) {name, reinterpret_cast<void**>(&table.field)}
const AddonSymbol kLameSymbols[] = {
    ORLIN_SYMBOL(lame, init, "lame_init"),
    ORLIN_SYMBOL(lame, close, "lame_close"),
    ORLIN_SYMBOL(lame, setInRate, "lame_set_in_samplerate"),
    ORLIN_SYMBOL(lame, setOutRate, "lame_set_out_samplerate"),
    ORLIN_SYMBOL(lame, setChannels, "lame_set_num_channels"),
    ORLIN_SYMBOL(lame, setMode, "lame_set_mode"),
    ORLIN_SYMBOL(lame, setBitRate, "lame_set_brate"),
    ORLIN_SYMBOL(lame, setVbr, "lame_set_VBR"),
    ORLIN_SYMBOL(lame, setVbrQuality, "lame_set_VBR_quality"),
    ORLIN_SYMBOL(lame, setVbrMean, "lame_set_VBR_mean_bitrate_kbps"),
    ORLIN_SYMBOL(lame, setWriteVbrTag, "lame_set_bWriteVbrTag"),
    ORLIN_SYMBOL(lame, setId3Automatic, "lame_set_write_id3tag_automatic"),
    ORLIN_SYMBOL(lame, initParams, "lame_init_params"),
    ORLIN_SYMBOL(lame, encodeFloat, "lame_encode_buffer_ieee_float"),
    ORLIN_SYMBOL(lame, flush, "lame_encode_flush"),
    ORLIN_SYMBOL(lame, lametagFrame, "lame_get_lametag_frame"),
    ORLIN_SYMBOL(lame, id3v2Tag, "lame_get_id3v2_tag"),
    ORLIN_SYMBOL(lame, id3Init, "id3tag_init"),
    ORLIN_SYMBOL(lame, id3AddV2, "id3tag_add_v2"),
    ORLIN_SYMBOL(lame, id3Title, "id3tag_set_title"),
    ORLIN_SYMBOL(lame, id3Artist, "id3tag_set_artist"),
    ORLIN_SYMBOL(lame, id3Album, "id3tag_set_album"),
    ORLIN_SYMBOL(lame, id3Comment, "id3tag_set_comment"),
    ORLIN_SYMBOL(lame, id3Field, "id3tag_set_fieldvalue"),
    ORLIN_SYMBOL(lame, id3AlbumArt, "id3tag_set_albumart"),
};
const AddonSymbol kTwoLameSymbols[] = {
    ORLIN_SYMBOL(twolame, init, "twolame_init"),
    ORLIN_SYMBOL(twolame, initParams, "twolame_init_params"),
    ORLIN_SYMBOL(twolame, setChannels, "twolame_set_num_channels"),
    ORLIN_SYMBOL(twolame, setInRate, "twolame_set_in_samplerate"),
    ORLIN_SYMBOL(twolame, setOutRate, "twolame_set_out_samplerate"),
    ORLIN_SYMBOL(twolame, setBitRate, "twolame_set_bitrate"),
    ORLIN_SYMBOL(twolame, setMode, "twolame_set_mode"),
    ORLIN_SYMBOL(twolame, encodeFloat, "twolame_encode_buffer_float32_interleaved"),
    ORLIN_SYMBOL(twolame, flush, "twolame_encode_flush"),
    ORLIN_SYMBOL(twolame, close, "twolame_close"),
    ORLIN_SYMBOL(twolame, setVerbosity, "twolame_set_verbosity"),
};
#undef ORLIN_SYMBOL

AddonLibrary lameLibrary("lame", {"libmp3lame.so.0", "libmp3lame.so"});
AddonLibrary twolameLibrary("twolame", {"libtwolame.so.0", "libtwolame.so"});

struct MemorySource {
  std::vector<uint8_t> bytes;
  size_t at = 0;
};

mpg123_ssize_t MemoryRead(void* handle, void* buffer, size_t bytes) {
  auto* source = static_cast<MemorySource*>(handle);
  const size_t take = std::min(bytes, source->bytes.size() - source->at);
  if (take == 0) return 0;  // an empty source has no data pointer to copy from
  std::memcpy(buffer, source->bytes.data() + source->at, take);
  source->at += take;
  return mpg123_ssize_t(take);
}
off_t MemorySeek(void* handle, off_t offset, int whence) {
  auto* source = static_cast<MemorySource*>(handle);
  int64_t target = offset;
  if (whence == SEEK_CUR) target += int64_t(source->at);
  else if (whence == SEEK_END) target += int64_t(source->bytes.size());
  if (target < 0 || uint64_t(target) > source->bytes.size()) return -1;
  source->at = size_t(target);
  return off_t(target);
}

std::string FromMpgString(const mpg123_string* text) {
  if (!text || !text->p || text->fill == 0) return {};
  return std::string(text->p, strnlen(text->p, text->fill));
}

class MpegStream : public AudioStream {
 public:
  explicit MpegStream(std::vector<uint8_t> bytes) { source_.bytes = std::move(bytes); }
  ~MpegStream() override {
    if (handle_) {
      mpg123_close(handle_);
      mpg123_delete(handle_);
    }
  }

  bool Open() {
    static std::once_flag once;
    std::call_once(once, [] { mpg123_init(); });
    handle_ = mpg123_new(nullptr, nullptr);
    if (!handle_) return false;
    mpg123_param(handle_, MPG123_ADD_FLAGS, MPG123_QUIET | MPG123_PICTURE, 0.0);
    mpg123_param(handle_, MPG123_RESYNC_LIMIT, 65536, 0.0);
    mpg123_format_none(handle_);
    for (long rateOption : {8000L, 11025L, 12000L, 16000L, 22050L, 24000L, 32000L, 44100L, 48000L})
      mpg123_format(handle_, rateOption, MPG123_MONO | MPG123_STEREO, MPG123_ENC_FLOAT_32);
    if (mpg123_replace_reader_handle(handle_, MemoryRead, MemorySeek, nullptr) != MPG123_OK) return false;
    if (mpg123_open_handle(handle_, &source_) != MPG123_OK) return false;
    if (mpg123_scan(handle_) != MPG123_OK) return false;
    long formatRate = 0;
    int formatChannels = 0, encoding = 0;
    if (mpg123_getformat(handle_, &formatRate, &formatChannels, &encoding) != MPG123_OK) return false;
    if (formatRate <= 0 || formatChannels <= 0 || formatChannels > 2) return false;
    rate = uint32_t(formatRate);
    channels = uint32_t(formatChannels);
    const off_t length = mpg123_length(handle_);
    frames = length > 0 ? uint64_t(length) : 0;
    ReadTags();
    return true;
  }

  int64_t Read(float* out, uint32_t wanted) override {
    size_t doneBytes = 0;
    const size_t wantedBytes = size_t(wanted) * channels * sizeof(float);
    while (doneBytes < wantedBytes) {
      size_t got = 0;
      const int result = mpg123_read(handle_, reinterpret_cast<unsigned char*>(out) + doneBytes,
                                     wantedBytes - doneBytes, &got);
      doneBytes += got;
      if (result == MPG123_DONE) break;
      if (result == MPG123_NEW_FORMAT) continue;
      if (result != MPG123_OK) {
        if (doneBytes) break;
        return result == MPG123_ERR && got == 0 ? 0 : -1;
      }
      if (got == 0) break;
    }
    return int64_t(doneBytes / (channels * sizeof(float)));
  }

  bool Seek(uint64_t frame) override { return mpg123_seek(handle_, off_t(frame), SEEK_SET) >= 0; }

 private:
  void ReadTags() {
    mpg123_id3v1* v1 = nullptr;
    mpg123_id3v2* v2 = nullptr;
    if (mpg123_id3(handle_, &v1, &v2) != MPG123_OK) return;
    if (v2) {
      tags.title = FromMpgString(v2->title);
      tags.artist = FromMpgString(v2->artist);
      tags.album = FromMpgString(v2->album);
      tags.comments = FromMpgString(v2->comment);
      for (size_t i = 0; i < v2->texts; ++i)
        if (std::memcmp(v2->text[i].id, "TCOP", 4) == 0) tags.copyright = FromMpgString(&v2->text[i].text);
      // Some writers keep the comment in a user text frame named "comment".
      for (size_t i = 0; i < v2->extras && tags.comments.empty(); ++i)
        if (strcasecmp(FromMpgString(&v2->extra[i].description).c_str(), "comment") == 0)
          tags.comments = FromMpgString(&v2->extra[i].text);
      for (size_t i = 0; i < v2->pictures; ++i) {
        const mpg123_picture& picture = v2->picture[i];
        if (picture.data && picture.size && (tags.picture.empty() || picture.type == mpg123_id3_pic_front_cover)) {
          tags.picture.assign(picture.data, picture.data + picture.size);
          tags.pictureMime = FromMpgString(&picture.mime_type);
        }
      }
    } else if (v1) {
      tags.title = std::string(v1->title, strnlen(v1->title, sizeof v1->title));
      tags.artist = std::string(v1->artist, strnlen(v1->artist, sizeof v1->artist));
      tags.album = std::string(v1->album, strnlen(v1->album, sizeof v1->album));
    }
  }

  MemorySource source_;
  mpg123_handle* handle_ = nullptr;
};

void AppendBytes(std::vector<uint8_t>& out, const unsigned char* bytes, int count) {
  if (count > 0) out.insert(out.end(), bytes, bytes + count);
}

}  // namespace

std::unique_ptr<AudioStream> OpenMpegMemoryStream(std::vector<uint8_t> bytes) {
  auto stream = std::make_unique<MpegStream>(std::move(bytes));
  if (!stream->Open()) {
    SetLastError("Not a valid MPEG audio stream");
    return nullptr;
  }
  return stream;
}

std::unique_ptr<AudioStream> OpenMpegStream(FileObject& file) {
  std::vector<uint8_t> bytes;
  if (!ReadRestOfFile(file, bytes)) return nullptr;
  return OpenMpegMemoryStream(std::move(bytes));
}

bool EncodeMp3ToMemory(const EncodeInput& input, Mp3Mode mode, int value, bool withTags, std::vector<uint8_t>& out) {
  if (!lameLibrary.Bind(kLameSymbols, std::size(kLameSymbols))) {
    SetLastError(kMp3EncoderMissing);
    return false;
  }
  out.clear();
  lame_global_flags* flags = lame.init();
  if (!flags) {
    SetLastError("Format not supported by MP3 encoder");
    return false;
  }
  lame.setInRate(flags, int(input.rate));
  // LAME would pick a lower rate for low bit rates; the file must keep the wave's rate.
  lame.setOutRate(flags, int(input.rate));
  lame.setChannels(flags, int(input.channels));
  lame.setMode(flags, input.channels == 1 ? MONO : JOINT_STEREO);
  lame.setWriteVbrTag(flags, withTags);
  lame.setId3Automatic(flags, 0);
  if (mode == Mp3Mode::Cbr) {
    lame.setVbr(flags, vbr_off);
    lame.setBitRate(flags, value);
  } else if (mode == Mp3Mode::Abr) {
    lame.setVbr(flags, vbr_abr);
    lame.setVbrMean(flags, value);
  } else {
    lame.setVbr(flags, vbr_default);
    lame.setVbrQuality(flags, float(9 - std::clamp(value, 0, 9)));
  }
  const AudioTags& tags = input.tags;
  const bool anyTag = !tags.title.empty() || !tags.artist.empty() || !tags.album.empty() || !tags.comments.empty() ||
                      !tags.copyright.empty() || !tags.picture.empty();
  if (withTags && anyTag) {
    lame.id3Init(flags);
    lame.id3AddV2(flags);
    if (!tags.title.empty()) lame.id3Title(flags, tags.title.c_str());
    if (!tags.artist.empty()) lame.id3Artist(flags, tags.artist.c_str());
    if (!tags.album.empty()) lame.id3Album(flags, tags.album.c_str());
    if (!tags.comments.empty()) lame.id3Comment(flags, tags.comments.c_str());
    if (!tags.copyright.empty()) lame.id3Field(flags, ("TCOP=" + tags.copyright).c_str());
    if (!tags.picture.empty())
      lame.id3AlbumArt(flags, reinterpret_cast<const char*>(tags.picture.data()), tags.picture.size());
  }
  if (lame.initParams(flags) < 0) {
    lame.close(flags);
    SetLastError("Format not supported by MP3 encoder");
    return false;
  }
  size_t tagBytes = 0;
  if (withTags && anyTag) {
    std::vector<unsigned char> tag(lame.id3v2Tag(flags, nullptr, 0));
    tagBytes = lame.id3v2Tag(flags, tag.data(), tag.size());
    out.assign(tag.begin(), tag.begin() + std::min(tagBytes, tag.size()));
  }
  std::vector<unsigned char> buffer(size_t(1.25 * 4096 + 7200) * 2);
  // The encoder's interleaved entry point always reads two channels, so the planes are split here.
  std::vector<float> left(4096), right(4096);
  bool ok = true;
  for (uint32_t at = 0; ok && at < input.frames; at += 4096) {
    const uint32_t count = std::min<uint32_t>(4096, input.frames - at);
    const float* source = input.samples + size_t(at) * input.channels;
    for (uint32_t i = 0; i < count; ++i) {
      left[i] = source[size_t(i) * input.channels];
      right[i] = source[size_t(i) * input.channels + (input.channels > 1 ? 1 : 0)];
    }
    const int got = lame.encodeFloat(flags, left.data(), right.data(), int(count), buffer.data(), int(buffer.size()));
    ok = got >= 0;
    AppendBytes(out, buffer.data(), got);
  }
  if (ok) {
    const int got = lame.flush(flags, buffer.data(), int(buffer.size()));
    ok = got >= 0;
    AppendBytes(out, buffer.data(), got);
  }
  if (ok && withTags) {
    // The info frame written first is a placeholder; it is filled in now that the length is known.
    const size_t infoBytes = lame.lametagFrame(flags, buffer.data(), buffer.size());
    if (infoBytes > 0 && tagBytes + infoBytes <= out.size())
      std::copy_n(buffer.data(), infoBytes, out.begin() + ptrdiff_t(tagBytes));
  }
  lame.close(flags);
  if (!ok) SetLastError("Format not supported by MP3 encoder");
  return ok;
}

bool EncodeMp2ToMemory(const EncodeInput& input, int kbps, std::vector<uint8_t>& out) {
  if (!twolameLibrary.Bind(kTwoLameSymbols, std::size(kTwoLameSymbols))) {
    SetLastError(kMp2EncoderMissing);
    return false;
  }
  out.clear();
  twolame_options* options = twolame.init();
  if (!options) {
    SetLastError("tooLame failed initializing!");
    return false;
  }
  twolame.setChannels(options, int(input.channels));
  twolame.setInRate(options, int(input.rate));
  twolame.setOutRate(options, int(input.rate));
  // Layer II mono stops at 192 kbit/s; a higher stereo setting is brought down to it.
  twolame.setBitRate(options, input.channels == 1 ? std::min(kbps, 192) : kbps);
  twolame.setVerbosity(options, 0);
  twolame.setMode(options, input.channels == 1 ? TWOLAME_MONO : TWOLAME_JOINT_STEREO);
  if (twolame.initParams(options) != 0) {
    twolame.close(&options);
    SetLastError("tooLame failed initializing!");
    return false;
  }
  std::vector<unsigned char> buffer(65536);
  bool ok = true;
  for (uint32_t at = 0; ok && at < input.frames; at += 4096) {
    const uint32_t count = std::min<uint32_t>(4096, input.frames - at);
    // The encoder takes a non-const pointer but only reads from it.
    const int got = twolame.encodeFloat(options, const_cast<float*>(input.samples + size_t(at) * input.channels),
                                        int(count), buffer.data(), int(buffer.size()));
    ok = got >= 0;
    AppendBytes(out, buffer.data(), got);
  }
  if (ok) {
    const int got = twolame.flush(options, buffer.data(), int(buffer.size()));
    ok = got >= 0;
    AppendBytes(out, buffer.data(), got);
  }
  twolame.close(&options);
  if (!ok) SetLastError("tooLame failed initializing!");
  return ok;
}

Mp3Mode Mp3ModeOfVariant(uint32_t variant) {
  return variant == 2 ? Mp3Mode::Abr : variant == 3 ? Mp3Mode::Vbr : Mp3Mode::Cbr;
}

double Mp3Setting(uint32_t index, uint32_t variant, std::string* labelOut) {
  const Mp3Mode mode = Mp3ModeOfVariant(variant);
  if (mode == Mp3Mode::Vbr) {
    if (index >= std::size(kMp3VbrValues)) return 0.0;
    if (labelOut) {
      *labelOut = "MP3 VBR Quality " + std::to_string(index);
      if (index == 0) *labelOut += " (min)";
      if (index == 9) *labelOut += " (max)";
    }
    return kMp3VbrValues[index];
  }
  if (index >= std::size(kMp3Rates)) return 0.0;
  if (labelOut)
    *labelOut = (mode == Mp3Mode::Cbr ? "MP3 CBR " : "MP3 ABR ") + std::to_string(kMp3Rates[index]) + " kbit/s";
  return kMp3Rates[index];
}

int Mp3VbrQualityOfValue(double value) {
  for (int i = 0; i < int(std::size(kMp3VbrValues)); ++i)
    if (value <= kMp3VbrValues[i]) return i;
  return 9;
}

double Mp2Setting(uint32_t index, uint32_t, std::string* labelOut) {
  if (index >= std::size(kMp2Rates)) return 0.0;
  if (labelOut) *labelOut = "MP2 CBR " + std::to_string(kMp2Rates[index]) + " kbit/s";
  return kMp2Rates[index];
}

}  // namespace orlin::addons
