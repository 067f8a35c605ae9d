// Glue to FAAD2. The stream is held in memory; its length comes from walking the ADTS frame
// headers, which costs no decoding.
#include "formats/audio/addons/aac_addon.h"

#include <neaacdec.h>

#include <algorithm>
#include <cstring>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/audio/addons/addon_loader.h"

namespace orlin::addons {

namespace {

struct FaadApi {
  decltype(&NeAACDecOpen) open;
  decltype(&NeAACDecGetCurrentConfiguration) getConfiguration;
  decltype(&NeAACDecSetConfiguration) setConfiguration;
  decltype(&NeAACDecInit) init;
  decltype(&NeAACDecDecode) decode;
  decltype(&NeAACDecClose) close;
} api;

#define ORLIN_SYMBOL(field, name) {name, reinterpret_cast<void**>(&api.field)}
const AddonSymbol kSymbols[] = {
    ORLIN_SYMBOL(open, "NeAACDecOpen"),     ORLIN_SYMBOL(getConfiguration, "NeAACDecGetCurrentConfiguration"),
    ORLIN_SYMBOL(setConfiguration, "NeAACDecSetConfiguration"), ORLIN_SYMBOL(init, "NeAACDecInit"),
    ORLIN_SYMBOL(decode, "NeAACDecDecode"), ORLIN_SYMBOL(close, "NeAACDecClose"),
};
#undef ORLIN_SYMBOL

AddonLibrary library("faad2", {"libfaad.so.2", "libfaad.so"});

constexpr uint32_t kAdtsRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000,  7350};

size_t Id3v2Bytes(const std::vector<uint8_t>& bytes) {
  if (bytes.size() < 10 || std::memcmp(bytes.data(), "ID3", 3) != 0) return 0;
  const size_t size = 10 + (size_t(bytes[6] & 0x7F) << 21 | size_t(bytes[7] & 0x7F) << 14 |
                            size_t(bytes[8] & 0x7F) << 7 | size_t(bytes[9] & 0x7F));
  return std::min(size, bytes.size());
}

bool AdtsHeaderAt(const std::vector<uint8_t>& bytes, size_t at, size_t& frameBytes, uint32_t& blocks, uint32_t& rate) {
  if (at + 7 > bytes.size()) return false;
  const uint8_t* p = bytes.data() + at;
  if (p[0] != 0xFF || (p[1] & 0xF6) != 0xF0) return false;
  const uint32_t rateIndex = (p[2] >> 2) & 15;
  frameBytes = size_t(p[3] & 3) << 11 | size_t(p[4]) << 3 | size_t(p[5] >> 5);
  if (rateIndex >= 13 || frameBytes < 7) return false;
  rate = kAdtsRates[rateIndex];
  blocks = (p[6] & 3) + 1u;
  return true;
}

class AdtsStream : public PacketStream {
 public:
  explicit AdtsStream(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  ~AdtsStream() override {
    if (decoder_) api.close(decoder_);
  }

  bool Open() {
    start_ = Id3v2Bytes(bytes_);
    size_t frameBytes = 0;
    uint32_t blocks = 0, adtsRate = 0;
    if (!AdtsHeaderAt(bytes_, start_, frameBytes, blocks, adtsRate)) {
      SetLastError("Unsupported AAC container format");
      return false;
    }
    // The length: every frame header in turn, each frame's blocks holding 1024 samples.
    uint64_t blockCount = 0;
    for (size_t at = start_; AdtsHeaderAt(bytes_, at, frameBytes, blocks, adtsRate) && at + frameBytes <= bytes_.size();
         at += frameBytes)
      blockCount += blocks;
    decoder_ = api.open();
    if (!decoder_) {
      SetLastError("Failed retrieving AAC decoder handle");
      return false;
    }
    NeAACDecConfigurationPtr configuration = api.getConfiguration(decoder_);
    configuration->outputFormat = FAAD_FMT_FLOAT;
    configuration->downMatrix = 1;  // more than two channels come down to stereo
    api.setConfiguration(decoder_, configuration);
    unsigned long initRate = 0;
    unsigned char initChannels = 0;
    const long skip = api.init(decoder_, bytes_.data() + start_, (unsigned long)(bytes_.size() - start_), &initRate,
                               &initChannels);
    if (skip < 0 || initRate == 0 || initChannels == 0) {
      SetLastError("Unsupported AAC container format");
      return false;
    }
    at_ = start_ + size_t(skip);
    rate = uint32_t(initRate);
    channels = std::min<uint32_t>(initChannels, 2);
    frames = blockCount * 1024 * rate / std::max<uint32_t>(adtsRate, 1);
    return true;
  }

  bool Seek(uint64_t frame) override {
    // ADTS frames decode on their own: start again and skip the frames before the target.
    at_ = start_;
    DropPending();
    return SkipFrames(frame);
  }

 private:
  bool DecodePacket() override {
    DropPending();
    while (at_ < bytes_.size()) {
      NeAACDecFrameInfo info{};
      auto* samples = static_cast<float*>(
          api.decode(decoder_, &info, bytes_.data() + at_, (unsigned long)(bytes_.size() - at_)));
      if (info.error || info.bytesconsumed == 0) {
        // A damaged frame: step to the next sync word and go on.
        size_t next = at_ + 1;
        while (next + 1 < bytes_.size() && !(bytes_[next] == 0xFF && (bytes_[next + 1] & 0xF6) == 0xF0)) ++next;
        at_ = next + 1 < bytes_.size() ? next : bytes_.size();
        continue;
      }
      at_ += info.bytesconsumed;
      if (!samples || info.samples == 0 || info.channels == 0) continue;
      const size_t count = info.samples / info.channels;
      pending.resize(count * channels);
      for (size_t i = 0; i < count; ++i)
        for (uint32_t c = 0; c < channels; ++c)
          pending[i * channels + c] = samples[i * info.channels + std::min<uint32_t>(c, info.channels - 1u)];
      return true;
    }
    return false;
  }

  std::vector<uint8_t> bytes_;
  size_t start_ = 0;
  size_t at_ = 0;
  NeAACDecHandle decoder_ = nullptr;
};

}  // namespace

std::unique_ptr<AudioStream> OpenAdtsMemoryStream(std::vector<uint8_t> bytes) {
  if (!library.Bind(kSymbols, std::size(kSymbols))) {
    SetLastError(kAacDecoderMissing);
    return nullptr;
  }
  auto stream = std::make_unique<AdtsStream>(std::move(bytes));
  return stream->Open() ? std::move(stream) : nullptr;
}

std::unique_ptr<AudioStream> OpenAdtsStream(FileObject& file) {
  std::vector<uint8_t> bytes;
  if (!ReadRestOfFile(file, bytes)) return nullptr;
  return OpenAdtsMemoryStream(std::move(bytes));
}

}  // namespace orlin::addons
