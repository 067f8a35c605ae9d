// Helpers shared by the module readers: loading the file, and making lazily decoded waves from the
// sample records, cut to what the file holds.
#include "formats/song/modules/module_common.h"

#include <algorithm>
#include <new>

#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"

namespace orlin {

bool LoadModuleBytes(FileObject* file, std::vector<uint8_t>& bytes) {
  const int64_t size = file->Size();
  try {
    bytes.resize(size > 0 ? size_t(size) : 0);
  } catch (const std::bad_alloc&) {
    SetLastError("Reading from file failed");
    return false;
  }
  if (!bytes.empty() && !file->ReadAt(0, bytes.data(), bytes.size())) {
    SetLastError("Reading from file failed");
    return false;
  }
  return true;
}

Waveform* MakeModuleWave(Collection* collection, const ModuleSample& sample, uint64_t fileSize) {
  const uint32_t bytesPerFrame = (sample.storage == kStoragePcm16 || sample.storage == kStorageDelta16 ? 2 : 1) * sample.channels;
  if (sample.offset >= fileSize || sample.frames == 0) return nullptr;
  const uint64_t framesInFile = (fileSize - sample.offset) / bytesPerFrame;
  const uint32_t frames = uint32_t(std::min<uint64_t>(sample.frames, framesInFile));
  if (frames == 0) return nullptr;
  auto* wave = new Waveform(collection);
  wave->SetNameNarrow(TrimName(sample.name));
  uint32_t flags = sample.flags;
  if (sample.channels == 2) {
    // Left block, then right block of the header's length.
    flags |= kSourceSequentialStereo;
    wave->sourceOffsetB = sample.offset + uint64_t(sample.frames) * (bytesPerFrame / 2);
  }
  wave->SetPcmSourceByFormat(sample.storage, flags);
  wave->channels = sample.channels;
  wave->sourceOffset = sample.offset;
  wave->length = frames;
  wave->sampleRate = sample.rate ? sample.rate : 8363;
  wave->rootKey = 60;
  if (sample.loopType != 0 && sample.loopEnd > sample.loopStart && sample.loopStart < frames) {
    wave->loop.type = sample.loopType;
    wave->loop.start = float(sample.loopStart);
    wave->loop.end = float(std::min(sample.loopEnd, frames));
  }
  return wave;
}

Instrument* MakeSingleWaveInstrument(Collection* collection, std::string_view name, Waveform* wave, int program) {
  auto* instrument = new Instrument(collection);
  instrument->SetNameNarrow(TrimName(name));
  instrument->SetPatch(0, 0, program & 0x7F, false);
  if (wave) instrument->AddRegion(wave->id, kFullRange, kFullRange, 60);
  return instrument;
}

bool IsBlank(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c == ' ' || c == 0; });
}

std::string TrimName(std::string_view text) {
  size_t end = text.find('\0');
  if (end == std::string_view::npos) end = text.size();
  while (end > 0 && text[end - 1] == ' ') --end;
  return std::string(text.substr(0, end));
}

}  // namespace orlin
