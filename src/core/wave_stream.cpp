#include "core/wave_stream.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "core/file_object.h"
#include "core/last_error.h"

namespace orlin {

namespace {

std::vector<std::pair<WaveDecoder, WaveStreamOpener>>& Openers() {
  static std::vector<std::pair<WaveDecoder, WaveStreamOpener>> openers;
  return openers;
}
std::mutex openersLock;

WaveStreamOpener OpenerOf(WaveDecoder decoder) {
  std::lock_guard<std::mutex> hold(openersLock);
  for (const auto& [known, opener] : Openers())
    if (known == decoder) return opener;
  return nullptr;
}

// A decoded wave: the stream holds a reference, so the samples outlive any change to the wave.
class MemoryWaveStream : public WaveStream {
 public:
  explicit MemoryWaveStream(WaveData* data) : data_(data) {
    data_->AddRef();
    channels = data_->channels;
  }
  ~MemoryWaveStream() override { data_->Release(); }
  int64_t Read(float* out, uint32_t frames) override {
    const uint32_t count = std::min(frames, data_->frames - at_);
    std::memcpy(out, data_->samples + size_t(at_) * channels, size_t(count) * channels * sizeof(float));
    at_ += count;
    return count;
  }

 private:
  WaveData* data_;
  uint32_t at_ = 0;
};

class EmptyStream : public WaveStream {
 public:
  int64_t Read(float*, uint32_t) override { return 0; }
};

// Cuts a source stream at the wave's length.
class LengthLimitedStream : public WaveStream {
 public:
  LengthLimitedStream(std::unique_ptr<WaveStream> source, uint32_t length) : source_(std::move(source)), left_(length) {
    channels = source_->channels;
  }
  int64_t Read(float* out, uint32_t frames) override {
    if (left_ == 0) return 0;
    const int64_t got = source_->Read(out, std::min(frames, left_));
    if (got > 0) left_ -= uint32_t(got);
    return got;
  }

 private:
  std::unique_ptr<WaveStream> source_;
  uint32_t left_;
};

}  // namespace

void RegisterWaveStreamOpener(WaveDecoder decoder, WaveStreamOpener opener) {
  std::lock_guard<std::mutex> hold(openersLock);
  for (auto& entry : Openers())
    if (entry.first == decoder) {
      entry.second = opener;
      return;
    }
  Openers().emplace_back(decoder, opener);
}

std::unique_ptr<WaveStream> OpenWaveStream(Waveform& wave) {
  if (!wave.Data() && wave.decoder) {
    const std::string path = wave.GetSourcePath();
    if (WaveStreamOpener opener = OpenerOf(wave.decoder); opener && !path.empty() && path[0] != '<') {
      auto file = std::make_unique<FileObject>();
      if (!file->Open(path, FileMode::Read)) {
        SetLastError("Could not open file");
        return nullptr;
      }
      file->Seek(wave.sourceOffset);
      std::unique_ptr<WaveStream> stream = opener(wave, std::move(file));
      if (!stream) return nullptr;
      if (stream->channels != wave.channels) {
        SetLastError("Stream error");
        return nullptr;
      }
      return std::make_unique<LengthLimitedStream>(std::move(stream), wave.length);
    }
  }
  if (!wave.GetSamplesForRead() || !wave.Data()) {
    if (wave.length != 0) return nullptr;
    auto empty = std::make_unique<EmptyStream>();
    empty->channels = wave.channels;
    return empty;
  }
  return std::make_unique<MemoryWaveStream>(wave.Data());
}

}  // namespace orlin
