// Glue to FFmpeg's libraries, loaded at first use like every codec add-on. Input and output go
// through AVIO contexts over FileObject, so containers are read and written at any offset and
// the libraries never see a path.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/audio/addons/addon_loader.h"
#include "formats/audio/addons/ffmpeg_addon.h"

namespace orlin::addons {

namespace {

struct UtilApi {
  decltype(&av_frame_alloc) frameAlloc;
  decltype(&av_frame_free) frameFree;
  decltype(&av_frame_get_buffer) frameGetBuffer;
  decltype(&av_dict_get) dictGet;
  decltype(&av_dict_set) dictSet;
  decltype(&av_malloc) malloc;
  decltype(&av_free) free;
  decltype(&av_channel_layout_default) layoutDefault;
  decltype(&av_log_set_level) logSetLevel;
} util;

struct CodecApi {
  decltype(&avcodec_find_decoder) findDecoder;
  decltype(&avcodec_find_encoder_by_name) findEncoder;
  decltype(&avcodec_alloc_context3) allocContext;
  decltype(&avcodec_free_context) freeContext;
  decltype(&avcodec_parameters_to_context) parametersToContext;
  decltype(&avcodec_parameters_from_context) parametersFromContext;
  decltype(&avcodec_open2) open;
  decltype(&avcodec_send_packet) sendPacket;
  decltype(&avcodec_receive_frame) receiveFrame;
  decltype(&avcodec_send_frame) sendFrame;
  decltype(&avcodec_receive_packet) receivePacket;
  decltype(&avcodec_flush_buffers) flushBuffers;
  decltype(&av_packet_alloc) packetAlloc;
  decltype(&av_packet_free) packetFree;
  decltype(&av_packet_unref) packetUnref;
  decltype(&av_packet_rescale_ts) packetRescaleTs;
  decltype(&avcodec_descriptor_get) descriptorGet;
} codec;

struct FormatApi {
  decltype(&avformat_alloc_context) allocContext;
  decltype(&avformat_open_input) openInput;
  decltype(&avformat_find_stream_info) findStreamInfo;
  decltype(&avformat_close_input) closeInput;
  decltype(&av_find_best_stream) findBestStream;
  decltype(&av_read_frame) readFrame;
  decltype(&av_seek_frame) seekFrame;
  decltype(&avio_alloc_context) ioAlloc;
  decltype(&avio_context_free) ioFree;
  decltype(&avformat_alloc_output_context2) allocOutput;
  decltype(&avformat_new_stream) newStream;
  decltype(&avformat_write_header) writeHeader;
  decltype(&av_interleaved_write_frame) writeFrame;
  decltype(&av_write_trailer) writeTrailer;
  decltype(&avformat_free_context) freeContext;
  decltype(&avio_flush) ioFlush;
} format;

#define ORLIN_SYMBOL(table, field, name) {name, reinterpret_cast<void**>(&table.field)}
const AddonSymbol kUtilSymbols[] = {
    ORLIN_SYMBOL(util, frameAlloc, "av_frame_alloc"),
    ORLIN_SYMBOL(util, frameFree, "av_frame_free"),
    ORLIN_SYMBOL(util, frameGetBuffer, "av_frame_get_buffer"),
    ORLIN_SYMBOL(util, dictGet, "av_dict_get"),
    ORLIN_SYMBOL(util, dictSet, "av_dict_set"),
    ORLIN_SYMBOL(util, malloc, "av_malloc"),
    ORLIN_SYMBOL(util, free, "av_free"),
    ORLIN_SYMBOL(util, layoutDefault, "av_channel_layout_default"),
    ORLIN_SYMBOL(util, logSetLevel, "av_log_set_level"),
};
const AddonSymbol kCodecSymbols[] = {
    ORLIN_SYMBOL(codec, findDecoder, "avcodec_find_decoder"),
    ORLIN_SYMBOL(codec, findEncoder, "avcodec_find_encoder_by_name"),
    ORLIN_SYMBOL(codec, allocContext, "avcodec_alloc_context3"),
    ORLIN_SYMBOL(codec, freeContext, "avcodec_free_context"),
    ORLIN_SYMBOL(codec, parametersToContext, "avcodec_parameters_to_context"),
    ORLIN_SYMBOL(codec, parametersFromContext, "avcodec_parameters_from_context"),
    ORLIN_SYMBOL(codec, open, "avcodec_open2"),
    ORLIN_SYMBOL(codec, sendPacket, "avcodec_send_packet"),
    ORLIN_SYMBOL(codec, receiveFrame, "avcodec_receive_frame"),
    ORLIN_SYMBOL(codec, sendFrame, "avcodec_send_frame"),
    ORLIN_SYMBOL(codec, receivePacket, "avcodec_receive_packet"),
    ORLIN_SYMBOL(codec, flushBuffers, "avcodec_flush_buffers"),
    ORLIN_SYMBOL(codec, packetAlloc, "av_packet_alloc"),
    ORLIN_SYMBOL(codec, packetFree, "av_packet_free"),
    ORLIN_SYMBOL(codec, packetUnref, "av_packet_unref"),
    ORLIN_SYMBOL(codec, packetRescaleTs, "av_packet_rescale_ts"),
    ORLIN_SYMBOL(codec, descriptorGet, "avcodec_descriptor_get"),
};
const AddonSymbol kFormatSymbols[] = {
    ORLIN_SYMBOL(format, allocContext, "avformat_alloc_context"),
    ORLIN_SYMBOL(format, openInput, "avformat_open_input"),
    ORLIN_SYMBOL(format, findStreamInfo, "avformat_find_stream_info"),
    ORLIN_SYMBOL(format, closeInput, "avformat_close_input"),
    ORLIN_SYMBOL(format, findBestStream, "av_find_best_stream"),
    ORLIN_SYMBOL(format, readFrame, "av_read_frame"),
    ORLIN_SYMBOL(format, seekFrame, "av_seek_frame"),
    ORLIN_SYMBOL(format, ioAlloc, "avio_alloc_context"),
    ORLIN_SYMBOL(format, ioFree, "avio_context_free"),
    ORLIN_SYMBOL(format, allocOutput, "avformat_alloc_output_context2"),
    ORLIN_SYMBOL(format, newStream, "avformat_new_stream"),
    ORLIN_SYMBOL(format, writeHeader, "avformat_write_header"),
    ORLIN_SYMBOL(format, writeFrame, "av_interleaved_write_frame"),
    ORLIN_SYMBOL(format, writeTrailer, "av_write_trailer"),
    ORLIN_SYMBOL(format, freeContext, "avformat_free_context"),
    ORLIN_SYMBOL(format, ioFlush, "avio_flush"),
};
#undef ORLIN_SYMBOL

AddonLibrary utilLibrary("avutil", {"libavutil.so.57"});
AddonLibrary codecLibrary("avcodec", {"libavcodec.so.59"});
AddonLibrary formatLibrary("avformat", {"libavformat.so.59"});

bool Bind() {
  // The three are one add-on; the headers we build against fix their major versions.
  if (!utilLibrary.Bind(kUtilSymbols, std::size(kUtilSymbols)) ||
      !codecLibrary.Bind(kCodecSymbols, std::size(kCodecSymbols)) ||
      !formatLibrary.Bind(kFormatSymbols, std::size(kFormatSymbols)))
    return false;
  util.logSetLevel(AV_LOG_QUIET);
  return true;
}

constexpr int kIoBufferBytes = 65536;

int IoRead(void* data, uint8_t* buffer, int bytes) {
  auto* source = static_cast<FileSource*>(data);
  const size_t got = bytes > 0 ? source->file->Read(buffer, size_t(bytes)) : 0;
  return got ? int(got) : AVERROR_EOF;
}
int IoWrite(void* data, uint8_t* buffer, int bytes) {
  auto* source = static_cast<FileSource*>(data);
  return bytes >= 0 && source->file->Write(buffer, size_t(bytes)) ? bytes : AVERROR(EIO);
}
int64_t IoSeek(void* data, int64_t offset, int whence) {
  auto* source = static_cast<FileSource*>(data);
  if (whence & AVSEEK_SIZE) {
    const int64_t size = source->file->Size();
    return size < 0 ? -1 : size - int64_t(source->base);
  }
  return source->Seek(offset, whence & 3);
}

// One plane or interleaved buffer of any sample format into interleaved floats.
void ConvertFrame(const AVFrame* frame, uint32_t channels, float* out) {
  const auto sampleFormat = AVSampleFormat(frame->format);
  const bool planar = sampleFormat >= AV_SAMPLE_FMT_U8P && sampleFormat <= AV_SAMPLE_FMT_S64P;
  const int frameChannels = frame->ch_layout.nb_channels;
  for (int i = 0; i < frame->nb_samples; ++i)
    for (uint32_t c = 0; c < channels; ++c) {
      const int channel = std::min<int>(int(c), frameChannels - 1);
      const uint8_t* plane = planar ? frame->extended_data[channel] : frame->extended_data[0];
      const size_t index = planar ? size_t(i) : size_t(i) * size_t(frameChannels) + size_t(channel);
      float value = 0.0f;
      switch (sampleFormat) {
        case AV_SAMPLE_FMT_U8:
        case AV_SAMPLE_FMT_U8P: value = (float(plane[index]) - 128.0f) / 128.0f; break;
        case AV_SAMPLE_FMT_S16:
        case AV_SAMPLE_FMT_S16P: value = float(reinterpret_cast<const int16_t*>(plane)[index]) / 32768.0f; break;
        case AV_SAMPLE_FMT_S32:
        case AV_SAMPLE_FMT_S32P: value = float(double(reinterpret_cast<const int32_t*>(plane)[index]) / 2147483648.0); break;
        case AV_SAMPLE_FMT_S64:
        case AV_SAMPLE_FMT_S64P:
          value = float(double(reinterpret_cast<const int64_t*>(plane)[index]) / 9223372036854775808.0);
          break;
        case AV_SAMPLE_FMT_FLT:
        case AV_SAMPLE_FMT_FLTP: value = reinterpret_cast<const float*>(plane)[index]; break;
        case AV_SAMPLE_FMT_DBL:
        case AV_SAMPLE_FMT_DBLP: value = float(reinterpret_cast<const double*>(plane)[index]); break;
        default: break;
      }
      out[size_t(i) * channels + c] = value;
    }
}

std::string DictText(AVDictionary* dictionary, const char* key) {
  const AVDictionaryEntry* entry = dictionary ? util.dictGet(dictionary, key, nullptr, 0) : nullptr;
  return entry && entry->value ? entry->value : "";
}

class FfmpegStream : public PacketStream {
 public:
  explicit FfmpegStream(FileObject& file) : source_{&file, file.Tell()} {}
  ~FfmpegStream() override {
    if (frame_) util.frameFree(&frame_);
    if (packet_) codec.packetFree(&packet_);
    if (decoder_) codec.freeContext(&decoder_);
    if (container_) format.closeInput(&container_);
    if (io_) {
      util.free(io_->buffer);
      format.ioFree(&io_);
    }
  }

  bool Open() {
    auto* buffer = static_cast<unsigned char*>(util.malloc(kIoBufferBytes));
    if (!buffer) return false;
    io_ = format.ioAlloc(buffer, kIoBufferBytes, 0, &source_, IoRead, nullptr, IoSeek);
    if (!io_) {
      util.free(buffer);
      return false;
    }
    container_ = format.allocContext();
    if (!container_) return false;
    container_->pb = io_;
    container_->flags |= AVFMT_FLAG_CUSTOM_IO;
    if (format.openInput(&container_, nullptr, nullptr, nullptr) < 0) return false;  // frees the context
    if (format.findStreamInfo(container_, nullptr) < 0) return false;
    const AVCodec* decoderCodec = nullptr;
    streamIndex_ = format.findBestStream(container_, AVMEDIA_TYPE_AUDIO, -1, -1, &decoderCodec, 0);
    if (streamIndex_ < 0 || !decoderCodec) return false;
    AVStream* stream = container_->streams[streamIndex_];
    decoder_ = codec.allocContext(decoderCodec);
    if (!decoder_ || codec.parametersToContext(decoder_, stream->codecpar) < 0) return false;
    if (codec.open(decoder_, decoderCodec, nullptr) < 0) return false;
    channels = uint32_t(std::max(decoder_->ch_layout.nb_channels, 0));
    rate = uint32_t(std::max(decoder_->sample_rate, 0));
    if (channels == 0 || rate == 0) return false;
    bits = decoder_->bits_per_raw_sample > 0 ? uint32_t(decoder_->bits_per_raw_sample) : 16;
    const AVCodecDescriptor* descriptor = codec.descriptorGet(decoder_->codec_id);
    lossless = descriptor && (descriptor->props & AV_CODEC_PROP_LOSSLESS) && !(descriptor->props & AV_CODEC_PROP_LOSSY);
    if (stream->duration > 0 && stream->time_base.den > 0)
      frames = uint64_t(std::llround(double(stream->duration) * stream->time_base.num * rate / stream->time_base.den));
    else if (container_->duration > 0)
      frames = uint64_t(std::llround(double(container_->duration) * rate / AV_TIME_BASE));
    ReadTags(stream);
    frame_ = util.frameAlloc();
    packet_ = codec.packetAlloc();
    return frame_ && packet_;
  }

  bool Seek(uint64_t frame) override {
    // Containers seek to a packet before the target; the frames up to it are decoded and dropped.
    if (format.seekFrame(container_, -1, 0, AVSEEK_FLAG_BACKWARD) < 0) return false;
    codec.flushBuffers(decoder_);
    DropPending();
    ended_ = draining_ = false;
    return SkipFrames(frame);
  }

 private:
  // Decodes the next frame into `pending`; false at the end.
  bool DecodePacket() override {
    DropPending();
    while (!ended_) {
      const int received = codec.receiveFrame(decoder_, frame_);
      if (received == 0) {
        pending.resize(size_t(frame_->nb_samples) * channels);
        ConvertFrame(frame_, channels, pending.data());
        return true;
      }
      if (received == AVERROR_EOF) {
        ended_ = true;
        break;
      }
      if (draining_) {
        ended_ = true;
        break;
      }
      const int read = format.readFrame(container_, packet_);
      if (read < 0) {
        draining_ = true;
        codec.sendPacket(decoder_, nullptr);
        continue;
      }
      if (packet_->stream_index == streamIndex_) codec.sendPacket(decoder_, packet_);  // a bad packet is skipped
      codec.packetUnref(packet_);
    }
    return false;
  }

  void ReadTags(AVStream* stream) {
    for (AVDictionary* dictionary : {container_->metadata, stream->metadata}) {
      if (std::string text = DictText(dictionary, "title"); !text.empty()) tags.title = text;
      if (std::string text = DictText(dictionary, "artist"); !text.empty()) tags.artist = text;
      if (std::string text = DictText(dictionary, "comment"); !text.empty()) tags.comments = text;
      if (std::string text = DictText(dictionary, "copyright"); !text.empty()) tags.copyright = text;
      if (std::string text = DictText(dictionary, "album"); !text.empty()) tags.album = text;
    }
    for (unsigned i = 0; i < container_->nb_streams; ++i) {
      const AVStream* other = container_->streams[i];
      if ((other->disposition & AV_DISPOSITION_ATTACHED_PIC) && other->attached_pic.data &&
          other->attached_pic.size > 0) {
        tags.picture.assign(other->attached_pic.data, other->attached_pic.data + other->attached_pic.size);
        break;
      }
    }
  }

  FileSource source_;
  AVIOContext* io_ = nullptr;
  AVFormatContext* container_ = nullptr;
  AVCodecContext* decoder_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
  int streamIndex_ = -1;
  bool ended_ = false;
  bool draining_ = false;
};

// Fills an encoder frame of the codec's sample format from interleaved floats.
void FillFrame(AVFrame* frame, const float* samples, int count, uint32_t channels) {
  const auto sampleFormat = AVSampleFormat(frame->format);
  const bool planar = sampleFormat >= AV_SAMPLE_FMT_U8P && sampleFormat <= AV_SAMPLE_FMT_S64P;
  for (int i = 0; i < count; ++i)
    for (uint32_t c = 0; c < channels; ++c) {
      const float value = samples[size_t(i) * channels + c];
      uint8_t* plane = planar ? frame->extended_data[c] : frame->extended_data[0];
      const size_t index = planar ? size_t(i) : size_t(i) * channels + c;
      switch (sampleFormat) {
        case AV_SAMPLE_FMT_S16:
        case AV_SAMPLE_FMT_S16P:
          reinterpret_cast<int16_t*>(plane)[index] = int16_t(std::clamp(std::lround(value * 32768.0f), -32768L, 32767L));
          break;
        case AV_SAMPLE_FMT_S32:
        case AV_SAMPLE_FMT_S32P:
          reinterpret_cast<int32_t*>(plane)[index] =
              int32_t(std::clamp<double>(std::round(double(value) * 2147483648.0), -2147483648.0, 2147483647.0));
          break;
        case AV_SAMPLE_FMT_DBL:
        case AV_SAMPLE_FMT_DBLP: reinterpret_cast<double*>(plane)[index] = value; break;
        default: reinterpret_cast<float*>(plane)[index] = value; break;
      }
    }
}

bool SupportedEncoderFormat(AVSampleFormat sampleFormat) {
  switch (sampleFormat) {
    case AV_SAMPLE_FMT_S16: case AV_SAMPLE_FMT_S16P: case AV_SAMPLE_FMT_S32: case AV_SAMPLE_FMT_S32P:
    case AV_SAMPLE_FMT_FLT: case AV_SAMPLE_FMT_FLTP: case AV_SAMPLE_FMT_DBL: case AV_SAMPLE_FMT_DBLP:
      return true;
    default:
      return false;
  }
}

}  // namespace

std::unique_ptr<AudioStream> OpenFfmpegStream(FileObject& file, const char* missingText) {
  if (!Bind()) {
    SetLastError(missingText);
    return nullptr;
  }
  auto stream = std::make_unique<FfmpegStream>(file);
  if (!stream->Open()) {
    SetLastError("No audio stream that can be decoded");
    return nullptr;
  }
  return stream;
}

bool EncodeWithFfmpeg(FileObject& file, const EncodeInput& input, const FfmpegEncodeRequest& request) {
  if (!Bind()) {
    SetLastError(request.missingText);
    return false;
  }
  const AVCodec* encoderCodec = codec.findEncoder(request.codec);
  if (!encoderCodec) {
    SetLastError(request.missingText);
    return false;
  }
  FileSource sink{&file, file.Tell()};
  AVFormatContext* container = nullptr;
  AVCodecContext* encoder = nullptr;
  AVIOContext* io = nullptr;
  AVFrame* frame = nullptr;
  AVPacket* packet = nullptr;
  bool ok = format.allocOutput(&container, nullptr, request.container, nullptr) >= 0 && container;
  std::string problem = "Could not initialize the encoder with the selected format";
  AVStream* stream = ok ? format.newStream(container, nullptr) : nullptr;
  ok = ok && stream && (encoder = codec.allocContext(encoderCodec));
  if (ok) {
    encoder->sample_rate = int(input.rate);
    util.layoutDefault(&encoder->ch_layout, int(input.channels));
    AVSampleFormat chosen = AV_SAMPLE_FMT_NONE;
    const bool wide = request.bits > 16;
    for (const AVSampleFormat* f = encoderCodec->sample_fmts; f && *f != AV_SAMPLE_FMT_NONE; ++f) {
      if (!SupportedEncoderFormat(*f)) continue;
      const bool fWide = *f == AV_SAMPLE_FMT_S32 || *f == AV_SAMPLE_FMT_S32P;
      if (chosen == AV_SAMPLE_FMT_NONE || fWide == wide) chosen = *f;
      if (fWide == wide) break;
    }
    encoder->sample_fmt = chosen;
    if (wide) encoder->bits_per_raw_sample = int(request.bits);
    if (request.bitRate > 0) encoder->bit_rate = request.bitRate;
    if (request.profile != -99) encoder->profile = request.profile;
    encoder->time_base = AVRational{1, int(input.rate)};
    if (container->oformat->flags & AVFMT_GLOBALHEADER) encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    ok = chosen != AV_SAMPLE_FMT_NONE && codec.open(encoder, encoderCodec, nullptr) >= 0 &&
         codec.parametersFromContext(stream->codecpar, encoder) >= 0;
  }
  if (ok) {
    stream->time_base = encoder->time_base;
    for (const auto& [key, value] : std::initializer_list<std::pair<const char*, const std::string*>>{
             {"title", &input.tags.title}, {"artist", &input.tags.artist}, {"comment", &input.tags.comments},
             {"copyright", &input.tags.copyright}, {"album", &input.tags.album}})
      if (!value->empty()) util.dictSet(&container->metadata, key, value->c_str(), 0);
    auto* buffer = static_cast<unsigned char*>(util.malloc(kIoBufferBytes));
    io = buffer ? format.ioAlloc(buffer, kIoBufferBytes, 1, &sink, nullptr, IoWrite, IoSeek) : nullptr;
    ok = io != nullptr;
    if (!ok) util.free(buffer);
  }
  if (ok) {
    container->pb = io;
    container->flags |= AVFMT_FLAG_CUSTOM_IO;
    ok = format.writeHeader(container, nullptr) >= 0;
    frame = util.frameAlloc();
    packet = codec.packetAlloc();
    ok = ok && frame && packet;
  }
  auto drain = [&]() {
    int result;
    while ((result = codec.receivePacket(encoder, packet)) == 0) {
      packet->stream_index = stream->index;
      codec.packetRescaleTs(packet, encoder->time_base, stream->time_base);
      if (format.writeFrame(container, packet) < 0) return false;
    }
    return result == AVERROR(EAGAIN) || result == AVERROR_EOF;
  };
  if (ok) {
    const int frameSize = encoder->frame_size > 0 ? encoder->frame_size : 4096;
    int64_t pts = 0;
    for (uint32_t at = 0; ok && at < input.frames; at += uint32_t(frameSize)) {
      const int count = int(std::min<uint32_t>(uint32_t(frameSize), input.frames - at));
      frame->nb_samples = (encoder->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE) ? count : frameSize;
      frame->format = encoder->sample_fmt;
      frame->sample_rate = encoder->sample_rate;
      util.layoutDefault(&frame->ch_layout, int(input.channels));
      ok = util.frameGetBuffer(frame, 0) >= 0;
      if (!ok) break;
      if (count < frame->nb_samples) {
        // The last frame of a fixed-size codec is padded with silence.
        std::vector<float> padded(size_t(frame->nb_samples) * input.channels, 0.0f);
        std::copy_n(input.samples + size_t(at) * input.channels, size_t(count) * input.channels, padded.begin());
        FillFrame(frame, padded.data(), frame->nb_samples, input.channels);
        if (encoder->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME) frame->nb_samples = count;
      } else {
        FillFrame(frame, input.samples + size_t(at) * input.channels, count, input.channels);
      }
      frame->pts = pts;
      pts += count;
      ok = codec.sendFrame(encoder, frame) >= 0 && drain();
      util.frameFree(&frame);
      frame = util.frameAlloc();
      ok = ok && frame;
    }
    ok = ok && codec.sendFrame(encoder, nullptr) >= 0 && drain();
    ok = format.writeTrailer(container) >= 0 && ok;
    if (!ok) problem = "Writing to file failed";
    format.ioFlush(io);
  }
  if (frame) util.frameFree(&frame);
  if (packet) codec.packetFree(&packet);
  if (encoder) codec.freeContext(&encoder);
  if (container) format.freeContext(container);
  if (io) {
    util.free(io->buffer);
    format.ioFree(&io);
  }
  if (!ok) SetLastError(problem);
  return ok;
}

}  // namespace orlin::addons
