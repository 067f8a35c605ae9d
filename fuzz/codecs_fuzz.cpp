// Every built-in decoder over any bytes with any container parameters: no read past the input, no
// write past the frames the codec's own count gives, whatever the block size, channels or extension.
#include <cstdint>
#include <vector>

#include "formats/audio/codecs/codecs.h"

namespace {

constexpr uint16_t kTags[] = {2, 17, 23, 32, 49, 4096, 771, 20, 64, 69, 100, 101, 59};
constexpr size_t kHeadBytes = 8;
constexpr size_t kMaxExtension = 64;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin::codecs;
  if (size < kHeadBytes) return 0;
  // Head: codec choice, channels, code width, block align (2 bytes), extension length, spare.
  const uint8_t choice = data[0];
  CodecParams params;
  params.channels = 1 + data[1] % 8;
  params.bitsPerSample = data[2];
  params.blockAlign = uint32_t(data[3] | data[4] << 8);
  const size_t extensionBytes = std::min<size_t>(data[5] % kMaxExtension, size - kHeadBytes);
  // The extension and the stream are copied so that any overrun lands outside an allocation.
  const std::vector<uint8_t> extension(data + kHeadBytes, data + kHeadBytes + extensionBytes);
  const std::vector<uint8_t> stream(data + kHeadBytes + extensionBytes, data + size);
  params.extension = extension.empty() ? nullptr : extension.data();
  params.extensionBytes = extension.size();

  std::vector<float> out;
  const auto run = [&](DecodeFunction decode, FrameCountFunction frames) {
    const uint64_t count = std::min<uint64_t>(frames(stream.size(), params), 1u << 16);
    out.assign(count * params.channels, 0.0f);
    const uint64_t done = decode(stream.data(), stream.size(), params, out.data(), count);
    if (done > count) __builtin_trap();
  };
  const size_t tagCount = sizeof(kTags) / sizeof(kTags[0]);
  if (choice % 16 < tagCount) {
    const WaveCodec* codec = FindWaveCodec(kTags[choice % 16]);
    run(codec->decode, codec->frames);
  } else {
    switch (choice % 16 - tagCount) {
      case 0: run(DecodeImaRaw, ImaRawFrames); break;
      case 1: run(DecodeG726LittleEndian, G726Frames); break;
      case 2: {
        const uint64_t count = GsmFrames(stream.size(), GsmFraming::Raw33);
        out.assign(count, 0.0f);
        if (DecodeGsm(stream.data(), stream.size(), GsmFraming::Raw33, out.data(), count) > count) __builtin_trap();
        break;
      }
      default: break;
    }
  }
  return 0;
}
