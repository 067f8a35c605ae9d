// Glue to the Ogg Vorbis libraries, loaded at first use. Reading goes through libvorbisfile over
// FileObject callbacks; writing builds Ogg pages from libvorbis packets.
#include "formats/audio/addons/vorbis_addon.h"

#include <vorbis/vorbisenc.h>
#include <vorbis/vorbisfile.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/audio/addons/addon_loader.h"

namespace orlin::addons {

namespace {

struct VorbisFileApi {
  decltype(&ov_open_callbacks) open;
  decltype(&ov_clear) clear;
  decltype(&ov_pcm_total) pcmTotal;
  decltype(&ov_info) info;
  decltype(&ov_comment) comment;
  decltype(&ov_read_float) readFloat;
  decltype(&ov_pcm_seek) pcmSeek;
} fileApi;

struct VorbisApi {
  decltype(&vorbis_info_init) infoInit;
  decltype(&vorbis_info_clear) infoClear;
  decltype(&vorbis_comment_init) commentInit;
  decltype(&vorbis_comment_add_tag) commentAddTag;
  decltype(&vorbis_comment_clear) commentClear;
  decltype(&vorbis_block_init) blockInit;
  decltype(&vorbis_block_clear) blockClear;
  decltype(&vorbis_dsp_clear) dspClear;
  decltype(&vorbis_analysis_init) analysisInit;
  decltype(&vorbis_analysis_headerout) headerOut;
  decltype(&vorbis_analysis_buffer) analysisBuffer;
  decltype(&vorbis_analysis_wrote) analysisWrote;
  decltype(&vorbis_analysis_blockout) blockOut;
  decltype(&vorbis_analysis) analysis;
  decltype(&vorbis_bitrate_addblock) bitrateAddBlock;
  decltype(&vorbis_bitrate_flushpacket) bitrateFlushPacket;
} codecApi;

struct VorbisEncApi {
  decltype(&vorbis_encode_init_vbr) initVbr;
} encApi;

struct OggApi {
  decltype(&ogg_stream_init) streamInit;
  decltype(&ogg_stream_clear) streamClear;
  decltype(&ogg_stream_packetin) packetIn;
  decltype(&ogg_stream_flush) flush;
  decltype(&ogg_stream_pageout) pageOut;
} oggApi;

#define ORLIN_SYMBOL(table, field, name) {name, reinterpret_cast<void**>(&table.field)}
const AddonSymbol kFileSymbols[] = {
    ORLIN_SYMBOL(fileApi, open, "ov_open_callbacks"),   ORLIN_SYMBOL(fileApi, clear, "ov_clear"),
    ORLIN_SYMBOL(fileApi, pcmTotal, "ov_pcm_total"),    ORLIN_SYMBOL(fileApi, info, "ov_info"),
    ORLIN_SYMBOL(fileApi, comment, "ov_comment"),       ORLIN_SYMBOL(fileApi, readFloat, "ov_read_float"),
    ORLIN_SYMBOL(fileApi, pcmSeek, "ov_pcm_seek"),
};
const AddonSymbol kCodecSymbols[] = {
    ORLIN_SYMBOL(codecApi, infoInit, "vorbis_info_init"),
    ORLIN_SYMBOL(codecApi, infoClear, "vorbis_info_clear"),
    ORLIN_SYMBOL(codecApi, commentInit, "vorbis_comment_init"),
    ORLIN_SYMBOL(codecApi, commentAddTag, "vorbis_comment_add_tag"),
    ORLIN_SYMBOL(codecApi, commentClear, "vorbis_comment_clear"),
    ORLIN_SYMBOL(codecApi, blockInit, "vorbis_block_init"),
    ORLIN_SYMBOL(codecApi, blockClear, "vorbis_block_clear"),
    ORLIN_SYMBOL(codecApi, dspClear, "vorbis_dsp_clear"),
    ORLIN_SYMBOL(codecApi, analysisInit, "vorbis_analysis_init"),
    ORLIN_SYMBOL(codecApi, headerOut, "vorbis_analysis_headerout"),
    ORLIN_SYMBOL(codecApi, analysisBuffer, "vorbis_analysis_buffer"),
    ORLIN_SYMBOL(codecApi, analysisWrote, "vorbis_analysis_wrote"),
    ORLIN_SYMBOL(codecApi, blockOut, "vorbis_analysis_blockout"),
    ORLIN_SYMBOL(codecApi, analysis, "vorbis_analysis"),
    ORLIN_SYMBOL(codecApi, bitrateAddBlock, "vorbis_bitrate_addblock"),
    ORLIN_SYMBOL(codecApi, bitrateFlushPacket, "vorbis_bitrate_flushpacket"),
};
const AddonSymbol kEncSymbols[] = {ORLIN_SYMBOL(encApi, initVbr, "vorbis_encode_init_vbr")};
const AddonSymbol kOggSymbols[] = {
    ORLIN_SYMBOL(oggApi, streamInit, "ogg_stream_init"), ORLIN_SYMBOL(oggApi, streamClear, "ogg_stream_clear"),
    ORLIN_SYMBOL(oggApi, packetIn, "ogg_stream_packetin"), ORLIN_SYMBOL(oggApi, flush, "ogg_stream_flush"),
    ORLIN_SYMBOL(oggApi, pageOut, "ogg_stream_pageout"),
};
#undef ORLIN_SYMBOL

AddonLibrary vorbisFileLibrary("vorbisfile", {"libvorbisfile.so.3", "libvorbisfile.so"});
AddonLibrary vorbisLibrary("vorbis", {"libvorbis.so.0", "libvorbis.so"});
AddonLibrary vorbisEncLibrary("vorbisenc", {"libvorbisenc.so.2", "libvorbisenc.so"});
AddonLibrary oggLibrary("ogg", {"libogg.so.0", "libogg.so"});

size_t ReadCallback(void* buffer, size_t size, size_t count, void* data) {
  return size == 0 ? 0 : static_cast<FileSource*>(data)->Read(buffer, size * count) / size;
}
int SeekCallback(void* data, ogg_int64_t offset, int whence) {
  return static_cast<FileSource*>(data)->Seek(offset, whence) < 0 ? -1 : 0;
}
long TellCallback(void* data) { return long(static_cast<FileSource*>(data)->Tell()); }

class VorbisStream : public AudioStream {
 public:
  explicit VorbisStream(FileObject& file) : source_{&file, file.Tell()} {}
  ~VorbisStream() override {
    if (open_) fileApi.clear(&vorbisFile_);
  }

  bool Open() {
    const ov_callbacks callbacks{ReadCallback, SeekCallback, nullptr, TellCallback};
    if (fileApi.open(&source_, &vorbisFile_, nullptr, 0, callbacks) != 0) return false;
    open_ = true;
    const vorbis_info* info = fileApi.info(&vorbisFile_, -1);
    if (!info || info->channels <= 0 || info->rate <= 0) return false;
    channels = uint32_t(info->channels);
    rate = uint32_t(info->rate);
    const ogg_int64_t total = fileApi.pcmTotal(&vorbisFile_, -1);
    frames = total > 0 ? uint64_t(total) : 0;
    if (const vorbis_comment* comment = fileApi.comment(&vorbisFile_, -1))
      for (int i = 0; i < comment->comments; ++i)
        if (comment->user_comments[i])
          AddVorbisComment(tags, std::string_view(comment->user_comments[i], size_t(comment->comment_lengths[i])));
    return true;
  }

  int64_t Read(float* out, uint32_t wanted) override {
    uint32_t done = 0;
    while (done < wanted) {
      float** pcm = nullptr;
      int section = 0;
      const long got = fileApi.readFloat(&vorbisFile_, &pcm, int(std::min<uint32_t>(wanted - done, 4096)), &section);
      if (got == OV_HOLE) continue;  // a gap in the data; the next packets still decode
      if (got < 0) return done ? int64_t(done) : -1;
      if (got == 0) break;
      // A chained file may change its channel count; only the first stream's layout is kept.
      const vorbis_info* info = fileApi.info(&vorbisFile_, -1);
      const uint32_t have = info ? uint32_t(std::max(info->channels, 0)) : 0;
      for (long i = 0; i < got; ++i)
        for (uint32_t c = 0; c < channels; ++c)
          out[(size_t(done) + size_t(i)) * channels + c] = c < have ? pcm[c][i] : 0.0f;
      done += uint32_t(got);
    }
    return done;
  }

  bool Seek(uint64_t frame) override { return fileApi.pcmSeek(&vorbisFile_, ogg_int64_t(frame)) == 0; }

 private:
  FileSource source_;
  OggVorbis_File vorbisFile_{};
  bool open_ = false;
};

// The end-of-stream flag of a page header, read here so that libogg needs one symbol less.
bool ogg_page_eos_local(const ogg_page& page) { return page.header_len > 5 && (page.header[5] & 4) != 0; }

bool WritePage(FileObject& file, const ogg_page& page) {
  return file.Write(page.header, size_t(page.header_len)) && file.Write(page.body, size_t(page.body_len));
}

}  // namespace

std::unique_ptr<AudioStream> OpenVorbisStream(FileObject& file) {
  if (!vorbisFileLibrary.Bind(kFileSymbols, std::size(kFileSymbols))) {
    SetLastError(kVorbisReadMissing);
    return nullptr;
  }
  auto stream = std::make_unique<VorbisStream>(file);
  if (!stream->Open()) {
    SetLastError("Could not open Ogg file");
    return nullptr;
  }
  return stream;
}

bool EncodeVorbis(FileObject& file, const EncodeInput& input, float quality) {
  if (!oggLibrary.Bind(kOggSymbols, std::size(kOggSymbols)) ||
      !vorbisLibrary.Bind(kCodecSymbols, std::size(kCodecSymbols)) ||
      !vorbisEncLibrary.Bind(kEncSymbols, std::size(kEncSymbols))) {
    SetLastError(kVorbisWriteMissing);
    return false;
  }
  vorbis_info info;
  codecApi.infoInit(&info);
  if (encApi.initVbr(&info, long(input.channels), long(input.rate), std::clamp(quality, -0.1f, 1.0f)) != 0) {
    codecApi.infoClear(&info);
    SetLastError("Could not initialize Ogg encoder with the selected format");
    return false;
  }
  vorbis_comment comment;
  codecApi.commentInit(&comment);
  for (const auto& [key, value] : VorbisComments(input.tags)) codecApi.commentAddTag(&comment, key.c_str(), value.c_str());
  vorbis_dsp_state dsp;
  vorbis_block block;
  ogg_stream_state ogg;
  codecApi.analysisInit(&dsp, &info);
  codecApi.blockInit(&dsp, &block);
  oggApi.streamInit(&ogg, 0x4F726C6E);
  bool ok = true;
  {
    ogg_packet header, commentHeader, codeHeader;
    codecApi.headerOut(&dsp, &comment, &header, &commentHeader, &codeHeader);
    oggApi.packetIn(&ogg, &header);
    oggApi.packetIn(&ogg, &commentHeader);
    oggApi.packetIn(&ogg, &codeHeader);
    ogg_page page;
    while (ok && oggApi.flush(&ogg, &page)) ok = WritePage(file, page);
  }
  uint32_t at = 0;
  bool ended = false;
  while (ok && !ended) {
    const uint32_t count = std::min<uint32_t>(4096, input.frames - at);
    if (count == 0) {
      codecApi.analysisWrote(&dsp, 0);  // end of stream
    } else {
      float** buffer = codecApi.analysisBuffer(&dsp, int(count));
      for (uint32_t c = 0; c < input.channels; ++c)
        for (uint32_t i = 0; i < count; ++i) buffer[c][i] = input.samples[size_t(at + i) * input.channels + c];
      codecApi.analysisWrote(&dsp, int(count));
      at += count;
    }
    while (ok && codecApi.blockOut(&dsp, &block) == 1) {
      codecApi.analysis(&block, nullptr);
      codecApi.bitrateAddBlock(&block);
      ogg_packet packet;
      while (ok && codecApi.bitrateFlushPacket(&dsp, &packet)) {
        oggApi.packetIn(&ogg, &packet);
        ogg_page page;
        while (ok && oggApi.pageOut(&ogg, &page)) {
          ok = WritePage(file, page);
          if (ogg_page_eos_local(page)) ended = true;
        }
      }
    }
    if (count == 0) ended = true;
  }
  ogg_page page;
  while (ok && oggApi.flush(&ogg, &page)) ok = WritePage(file, page);
  oggApi.streamClear(&ogg);
  codecApi.blockClear(&block);
  codecApi.dspClear(&dsp);
  codecApi.commentClear(&comment);
  codecApi.infoClear(&info);
  if (!ok) SetLastError("Writing to file failed");
  return ok;
}

double VorbisSetting(uint32_t index, uint32_t, std::string* labelOut) {
  if (index > 10) return 0.0;
  if (labelOut) *labelOut = "Ogg Vorbis Quality " + std::to_string(index);
  return double(index + 1);  // rising and above zero; quality = value - 1
}

}  // namespace orlin::addons
