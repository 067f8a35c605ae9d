// Glue to libFLAC, loaded at first use. Decoding runs block by block from the write callback into
// a small queue of float frames; encoding converts floats to integers of the chosen width.
#include "formats/audio/addons/flac_addon.h"

#include <FLAC/metadata.h>
#include <FLAC/stream_decoder.h>
#include <FLAC/stream_encoder.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <deque>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/audio/addons/addon_loader.h"

namespace orlin::addons {

namespace {

struct FlacApi {
  decltype(&FLAC__stream_decoder_new) decoderNew;
  decltype(&FLAC__stream_decoder_delete) decoderDelete;
  decltype(&FLAC__stream_decoder_set_metadata_respond_all) respondAll;
  decltype(&FLAC__stream_decoder_init_stream) decoderInit;
  decltype(&FLAC__stream_decoder_finish) decoderFinish;
  decltype(&FLAC__stream_decoder_process_until_end_of_metadata) untilMetadata;
  decltype(&FLAC__stream_decoder_process_single) processSingle;
  decltype(&FLAC__stream_decoder_get_state) decoderState;
  decltype(&FLAC__stream_decoder_seek_absolute) seekAbsolute;
  decltype(&FLAC__stream_encoder_new) encoderNew;
  decltype(&FLAC__stream_encoder_delete) encoderDelete;
  decltype(&FLAC__stream_encoder_set_verify) setVerify;
  decltype(&FLAC__stream_encoder_set_channels) setChannels;
  decltype(&FLAC__stream_encoder_set_bits_per_sample) setBits;
  decltype(&FLAC__stream_encoder_set_sample_rate) setRate;
  decltype(&FLAC__stream_encoder_set_compression_level) setLevel;
  decltype(&FLAC__stream_encoder_set_total_samples_estimate) setTotal;
  decltype(&FLAC__stream_encoder_set_metadata) setMetadata;
  decltype(&FLAC__stream_encoder_init_stream) encoderInit;
  decltype(&FLAC__stream_encoder_finish) encoderFinish;
  decltype(&FLAC__stream_encoder_process_interleaved) processInterleaved;
  decltype(&FLAC__metadata_object_new) metadataNew;
  decltype(&FLAC__metadata_object_delete) metadataDelete;
  decltype(&FLAC__metadata_object_vorbiscomment_append_comment) appendComment;
  decltype(&FLAC__metadata_object_picture_set_mime_type) pictureMime;
  decltype(&FLAC__metadata_object_picture_set_data) pictureData;
  decltype(&FLAC__metadata_object_application_set_data) applicationData;
} api;

#define ORLIN_SYMBOL(field, name) {name, reinterpret_cast<void**>(&api.field)}
const AddonSymbol kSymbols[] = {
    ORLIN_SYMBOL(decoderNew, "FLAC__stream_decoder_new"),
    ORLIN_SYMBOL(decoderDelete, "FLAC__stream_decoder_delete"),
    ORLIN_SYMBOL(respondAll, "FLAC__stream_decoder_set_metadata_respond_all"),
    ORLIN_SYMBOL(decoderInit, "FLAC__stream_decoder_init_stream"),
    ORLIN_SYMBOL(decoderFinish, "FLAC__stream_decoder_finish"),
    ORLIN_SYMBOL(untilMetadata, "FLAC__stream_decoder_process_until_end_of_metadata"),
    ORLIN_SYMBOL(processSingle, "FLAC__stream_decoder_process_single"),
    ORLIN_SYMBOL(decoderState, "FLAC__stream_decoder_get_state"),
    ORLIN_SYMBOL(seekAbsolute, "FLAC__stream_decoder_seek_absolute"),
    ORLIN_SYMBOL(encoderNew, "FLAC__stream_encoder_new"),
    ORLIN_SYMBOL(encoderDelete, "FLAC__stream_encoder_delete"),
    ORLIN_SYMBOL(setVerify, "FLAC__stream_encoder_set_verify"),
    ORLIN_SYMBOL(setChannels, "FLAC__stream_encoder_set_channels"),
    ORLIN_SYMBOL(setBits, "FLAC__stream_encoder_set_bits_per_sample"),
    ORLIN_SYMBOL(setRate, "FLAC__stream_encoder_set_sample_rate"),
    ORLIN_SYMBOL(setLevel, "FLAC__stream_encoder_set_compression_level"),
    ORLIN_SYMBOL(setTotal, "FLAC__stream_encoder_set_total_samples_estimate"),
    ORLIN_SYMBOL(setMetadata, "FLAC__stream_encoder_set_metadata"),
    ORLIN_SYMBOL(encoderInit, "FLAC__stream_encoder_init_stream"),
    ORLIN_SYMBOL(encoderFinish, "FLAC__stream_encoder_finish"),
    ORLIN_SYMBOL(processInterleaved, "FLAC__stream_encoder_process_interleaved"),
    ORLIN_SYMBOL(metadataNew, "FLAC__metadata_object_new"),
    ORLIN_SYMBOL(metadataDelete, "FLAC__metadata_object_delete"),
    ORLIN_SYMBOL(appendComment, "FLAC__metadata_object_vorbiscomment_append_comment"),
    ORLIN_SYMBOL(pictureMime, "FLAC__metadata_object_picture_set_mime_type"),
    ORLIN_SYMBOL(pictureData, "FLAC__metadata_object_picture_set_data"),
    ORLIN_SYMBOL(applicationData, "FLAC__metadata_object_application_set_data"),
};
#undef ORLIN_SYMBOL

AddonLibrary library("flac", {"libFLAC.so.12", "libFLAC.so.8", "libFLAC.so"});

bool Bind() { return library.Bind(kSymbols, std::size(kSymbols)); }

class FlacStream : public AudioStream {
 public:
  explicit FlacStream(FileObject& file) : file_(file), base_(file.Tell()) {}
  ~FlacStream() override {
    if (decoder_) {
      api.decoderFinish(decoder_);
      api.decoderDelete(decoder_);
    }
  }

  bool Open() {
    decoder_ = api.decoderNew();
    if (!decoder_) return false;
    api.respondAll(decoder_);
    if (api.decoderInit(decoder_, ReadCallback, SeekCallback, TellCallback, LengthCallback, EofCallback, WriteCallback,
                        MetadataCallback, ErrorCallback, this) != FLAC__STREAM_DECODER_INIT_STATUS_OK)
      return false;
    return api.untilMetadata(decoder_) && haveInfo_ && channels > 0 && rate > 0;
  }

  int64_t Read(float* out, uint32_t wanted) override {
    uint32_t done = 0;
    while (done < wanted) {
      if (queue_.empty()) {
        if (failed_) return -1;
        const FLAC__StreamDecoderState state = api.decoderState(decoder_);
        if (state == FLAC__STREAM_DECODER_END_OF_STREAM) break;
        if (!api.processSingle(decoder_) || failed_) return done ? int64_t(done) : -1;
        if (queue_.empty() && api.decoderState(decoder_) == FLAC__STREAM_DECODER_END_OF_STREAM) break;
        continue;
      }
      const size_t take = std::min<size_t>(queue_.size() / channels, wanted - done);
      std::copy_n(queue_.begin(), take * channels, out + size_t(done) * channels);
      queue_.erase(queue_.begin(), queue_.begin() + take * channels);
      done += uint32_t(take);
    }
    return done;
  }

  bool Seek(uint64_t frame) override {
    queue_.clear();
    return api.seekAbsolute(decoder_, frame);
  }

 private:
  static FLAC__StreamDecoderReadStatus ReadCallback(const FLAC__StreamDecoder*, FLAC__byte buffer[], size_t* bytes,
                                                    void* data) {
    auto* self = static_cast<FlacStream*>(data);
    *bytes = self->file_.Read(buffer, *bytes);
    return *bytes ? FLAC__STREAM_DECODER_READ_STATUS_CONTINUE : FLAC__STREAM_DECODER_READ_STATUS_END_OF_STREAM;
  }
  static FLAC__StreamDecoderSeekStatus SeekCallback(const FLAC__StreamDecoder*, FLAC__uint64 offset, void* data) {
    auto* self = static_cast<FlacStream*>(data);
    return self->file_.Seek(self->base_ + offset) ? FLAC__STREAM_DECODER_SEEK_STATUS_OK
                                                  : FLAC__STREAM_DECODER_SEEK_STATUS_ERROR;
  }
  static FLAC__StreamDecoderTellStatus TellCallback(const FLAC__StreamDecoder*, FLAC__uint64* offset, void* data) {
    auto* self = static_cast<FlacStream*>(data);
    *offset = self->file_.Tell() - self->base_;
    return FLAC__STREAM_DECODER_TELL_STATUS_OK;
  }
  static FLAC__StreamDecoderLengthStatus LengthCallback(const FLAC__StreamDecoder*, FLAC__uint64* length, void* data) {
    auto* self = static_cast<FlacStream*>(data);
    const int64_t size = self->file_.Size();
    if (size < 0 || uint64_t(size) < self->base_) return FLAC__STREAM_DECODER_LENGTH_STATUS_ERROR;
    *length = uint64_t(size) - self->base_;
    return FLAC__STREAM_DECODER_LENGTH_STATUS_OK;
  }
  static FLAC__bool EofCallback(const FLAC__StreamDecoder*, void* data) {
    auto* self = static_cast<FlacStream*>(data);
    const int64_t size = self->file_.Size();
    return size < 0 || self->file_.Tell() >= uint64_t(size);
  }
  static FLAC__StreamDecoderWriteStatus WriteCallback(const FLAC__StreamDecoder*, const FLAC__Frame* frame,
                                                      const FLAC__int32* const buffer[], void* data) {
    auto* self = static_cast<FlacStream*>(data);
    const uint32_t frameChannels = frame->header.channels;
    const uint32_t width = frame->header.bits_per_sample ? frame->header.bits_per_sample : self->bits;
    if (frameChannels != self->channels || width == 0 || width > 32) {
      self->failed_ = true;
      return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
    }
    const float scale = 1.0f / float(1ull << (width - 1));
    for (uint32_t i = 0; i < frame->header.blocksize; ++i)
      for (uint32_t c = 0; c < frameChannels; ++c) self->queue_.push_back(float(buffer[c][i]) * scale);
    return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
  }
  static void MetadataCallback(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* block, void* data) {
    auto* self = static_cast<FlacStream*>(data);
    if (block->type == FLAC__METADATA_TYPE_STREAMINFO) {
      self->channels = block->data.stream_info.channels;
      self->rate = block->data.stream_info.sample_rate;
      self->bits = block->data.stream_info.bits_per_sample;
      self->frames = block->data.stream_info.total_samples;
      self->haveInfo_ = true;
    } else if (block->type == FLAC__METADATA_TYPE_VORBIS_COMMENT) {
      const auto& comments = block->data.vorbis_comment;
      for (uint32_t i = 0; i < comments.num_comments; ++i) {
        const auto& entry = comments.comments[i];
        if (entry.entry)
          AddVorbisComment(self->tags, std::string_view(reinterpret_cast<const char*>(entry.entry), entry.length));
      }
    } else if (block->type == FLAC__METADATA_TYPE_APPLICATION && block->length > 4 &&
               std::memcmp(block->data.application.id, "riff", 4) == 0 && block->data.application.data) {
      // flac --keep-foreign-metadata keeps each RIFF chunk of the source WAVE in a block of its own.
      constexpr size_t kMostKeptBytes = 1 << 20;
      const uint8_t* data = block->data.application.data;
      if (self->keptChunks.size() + block->length - 4 <= kMostKeptBytes)
        self->keptChunks.insert(self->keptChunks.end(), data, data + block->length - 4);
    } else if (block->type == FLAC__METADATA_TYPE_PICTURE && self->tags.picture.empty()) {
      const auto& picture = block->data.picture;
      if (picture.data && picture.data_length) {
        self->tags.picture.assign(picture.data, picture.data + picture.data_length);
        self->tags.pictureMime = picture.mime_type ? picture.mime_type : "";
      }
    }
  }
  static void ErrorCallback(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus, void*) {
    // Lost sync and bad CRCs are skipped by the decoder; the frames it can read still come out.
  }

  FileObject& file_;
  uint64_t base_;
  FLAC__StreamDecoder* decoder_ = nullptr;
  std::deque<float> queue_;
  bool haveInfo_ = false;
  bool failed_ = false;
};

FLAC__StreamEncoderWriteStatus EncoderWrite(const FLAC__StreamEncoder*, const FLAC__byte buffer[], size_t bytes,
                                            uint32_t, uint32_t, void* data) {
  return static_cast<FileObject*>(data)->Write(buffer, bytes) ? FLAC__STREAM_ENCODER_WRITE_STATUS_OK
                                                               : FLAC__STREAM_ENCODER_WRITE_STATUS_FATAL_ERROR;
}
FLAC__StreamEncoderSeekStatus EncoderSeek(const FLAC__StreamEncoder*, FLAC__uint64 offset, void* data) {
  return static_cast<FileObject*>(data)->Seek(offset) ? FLAC__STREAM_ENCODER_SEEK_STATUS_OK
                                                      : FLAC__STREAM_ENCODER_SEEK_STATUS_ERROR;
}
FLAC__StreamEncoderTellStatus EncoderTell(const FLAC__StreamEncoder*, FLAC__uint64* offset, void* data) {
  *offset = static_cast<FileObject*>(data)->Tell();
  return FLAC__STREAM_ENCODER_TELL_STATUS_OK;
}

}  // namespace

bool FlacAvailable() { return Bind(); }

std::unique_ptr<AudioStream> OpenFlacStream(FileObject& file) {
  if (!Bind()) {
    SetLastError(kFlacReadMissing);
    return nullptr;
  }
  auto stream = std::make_unique<FlacStream>(file);
  if (!stream->Open()) {
    SetLastError("Not a valid FLAC stream");
    return nullptr;
  }
  return stream;
}

bool EncodeFlac(FileObject& file, const EncodeInput& input, uint32_t bits, uint32_t level) {
  if (!Bind()) {
    SetLastError(kFlacWriteMissing);
    return false;
  }
  FLAC__StreamEncoder* encoder = api.encoderNew();
  if (!encoder) {
    SetLastError("Out of memory");
    return false;
  }
  FLAC__StreamMetadata* metadata[8] = {};
  uint32_t blocks = 0;
  const auto comments = VorbisComments(input.tags);
  if (!comments.empty()) {
    metadata[blocks] = api.metadataNew(FLAC__METADATA_TYPE_VORBIS_COMMENT);
    for (const auto& [key, value] : comments) {
      if (key == "METADATA_BLOCK_PICTURE") continue;  // a PICTURE block of its own below
      std::string text = key + "=" + value;
      FLAC__StreamMetadata_VorbisComment_Entry entry{uint32_t(text.size()), reinterpret_cast<FLAC__byte*>(text.data())};
      api.appendComment(metadata[blocks], entry, true);
    }
    ++blocks;
  }
  if (!input.tags.picture.empty()) {
    metadata[blocks] = api.metadataNew(FLAC__METADATA_TYPE_PICTURE);
    std::string mime = input.tags.pictureMime.empty() ? "image/png" : input.tags.pictureMime;
    metadata[blocks]->data.picture.type = FLAC__STREAM_METADATA_PICTURE_TYPE_FRONT_COVER;
    api.pictureMime(metadata[blocks], mime.data(), true);
    std::vector<uint8_t> bytes = input.tags.picture;
    api.pictureData(metadata[blocks], bytes.data(), uint32_t(bytes.size()), true);
    ++blocks;
  }
  if (!input.keptChunks.empty()) {
    // The layout flac --keep-foreign-metadata writes and restores: the RIFF head, each chunk before
    // the samples in a block of its own ("fmt " first), then the head of the data chunk.
    for (const std::vector<uint8_t>& block : ForeignRiffChunks(input, bits, false)) {
      if (blocks == std::size(metadata)) break;
      metadata[blocks] = api.metadataNew(FLAC__METADATA_TYPE_APPLICATION);
      std::memcpy(metadata[blocks]->data.application.id, "riff", 4);
      std::vector<uint8_t> copy = block;
      api.applicationData(metadata[blocks], copy.data(), uint32_t(copy.size()), true);
      ++blocks;
    }
  }
  bool ok = api.setVerify(encoder, false) && api.setChannels(encoder, input.channels) && api.setBits(encoder, bits) &&
            api.setRate(encoder, input.rate) && api.setLevel(encoder, std::min(level, 8u)) &&
            api.setTotal(encoder, input.frames) && (blocks == 0 || api.setMetadata(encoder, metadata, blocks));
  ok = ok && api.encoderInit(encoder, EncoderWrite, EncoderSeek, EncoderTell, nullptr, &file) ==
                 FLAC__STREAM_ENCODER_INIT_STATUS_OK;
  bool pullFailed = false;  // the source has said why
  if (ok) {
    const double scale = double(1u << (bits - 1));
    const int32_t top = int32_t(scale) - 1, bottom = -int32_t(scale);
    constexpr uint32_t kBlockFrames = 65536;
    std::vector<FLAC__int32> block(size_t(kBlockFrames) * input.channels);
    std::vector<float> pulled(input.pull ? block.size() : 0);
    for (uint32_t at = 0; ok && (input.pull || at < input.frames);) {
      uint32_t count = std::min<uint32_t>(kBlockFrames, input.frames - at);
      // A pulled wave has no samples in memory: the pointer is only formed for one that has.
      const float* source = input.pull ? nullptr : input.samples + size_t(at) * input.channels;
      if (input.pull) {
        // Blocks come as the source decodes them; the encoder rewrites its stream header with the
        // count that really came.
        const int64_t got = input.pull(pulled.data(), kBlockFrames);
        if (got < 0) ok = false, pullFailed = true;
        if (got <= 0) break;
        count = uint32_t(got);
        source = pulled.data();
      }
      for (size_t i = 0; i < size_t(count) * input.channels; ++i)
        block[i] = std::clamp(int32_t(std::lround(double(source[i]) * scale)), bottom, top);
      ok = api.processInterleaved(encoder, block.data(), count);
      at += count;
    }
    ok = api.encoderFinish(encoder) && ok;
  }
  api.encoderDelete(encoder);
  for (uint32_t i = 0; i < blocks; ++i) api.metadataDelete(metadata[i]);
  if (!ok && !pullFailed) SetLastError("Writing to file failed");
  return ok;
}

}  // namespace orlin::addons
