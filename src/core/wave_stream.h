// The frames of a wave in blocks, for writers and other readers that go through a wave once: from
// memory when the wave is decoded, else straight from its source file through the streaming twin of
// its decoder, so that a conversion holds a few blocks of a wave and never the whole of it. A wave
// whose decoder has no twin is decoded whole first, as Preload does.
#pragma once
#include <cstdint>
#include <memory>

#include "core/collection.h"

namespace orlin {

class FileObject;

class WaveStream {
 public:
  virtual ~WaveStream() = default;
  // Up to `frames` frames of `channels` interleaved floats into `out`: 0 at the end, which may come
  // before the wave's length when the source's data stops there; -1 on a failure, with the last-error text.
  virtual int64_t Read(float* out, uint32_t frames) = 0;
  uint32_t channels = 1;
};

// Opens a stream on a wave's source: `file` is open at the wave's source offset and is the stream's
// to keep. Null with the last-error text when the source cannot be decoded.
using WaveStreamOpener = std::unique_ptr<WaveStream> (*)(Waveform& wave, std::unique_ptr<FileObject> file);

// Makes `opener` the streaming twin of `decoder`. Handlers register theirs once, at start-up.
void RegisterWaveStreamOpener(WaveDecoder decoder, WaveStreamOpener opener);

// The wave's frames, at most its length. Null with the last-error text on failure.
std::unique_ptr<WaveStream> OpenWaveStream(Waveform& wave);

}  // namespace orlin
