#include "formats/audio/coded_source.h"

#include <algorithm>
#include <new>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"

namespace orlin {

namespace {

// Past this a wave is refused rather than risking the machine's memory on a damaged size field.
constexpr uint64_t kMaxCodedBytes = 0x40000000;

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

}  // namespace

bool DecodeCodedRange(Waveform* wave, FileObject* file, codecs::DecodeFunction decode,
                      const codecs::CodecParams& params, uint64_t byteCount) {
  if (!file || !file->IsOpen()) return Fail("Reading from file failed");
  if (wave->length == 0) return Fail("Zero length");
  const uint32_t channels = std::max<uint32_t>(params.channels, 1);
  const int64_t fileSize = file->Size();
  const uint64_t present = fileSize > int64_t(wave->sourceOffset) ? uint64_t(fileSize) - wave->sourceOffset : 0;
  byteCount = std::min(byteCount, present);
  if (byteCount >= kMaxCodedBytes || uint64_t(wave->length) * channels * sizeof(float) >= kMaxCodedBytes)
    return Fail("Wave is too big!");
  std::vector<uint8_t> bytes;
  std::vector<float> all;
  try {
    bytes.resize(size_t(byteCount));
    all.resize(size_t(wave->length) * channels);
  } catch (const std::bad_alloc&) {
    return Fail("Out of memory");
  }
  if (!bytes.empty() && !file->ReadAt(wave->sourceOffset, bytes.data(), bytes.size()))
    return Fail("Reading from file failed");
  const uint64_t done = std::min<uint64_t>(wave->length, decode(bytes.data(), bytes.size(), params, all.data(), wave->length));
  std::fill(all.begin() + ptrdiff_t(done * channels), all.end(), 0.0f);
  const uint32_t kept = std::min<uint32_t>(channels, 2);
  wave->channels = uint8_t(kept);
  float* samples = wave->AllocSamples();
  if (!samples) return Fail("Out of memory");
  for (uint64_t frame = 0; frame < wave->length; ++frame)
    for (uint32_t c = 0; c < kept; ++c) samples[frame * kept + c] = all[frame * channels + c];
  return true;
}

}  // namespace orlin
