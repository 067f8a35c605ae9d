// The wave primitives on arbitrary audio and arbitrary settings: the first 48 bytes choose the
// operations and their parameters, the rest are 16-bit samples. After each edit the wave must still
// be whole: markers and loop inside the wave, and the length what the edit said.
#include <cstdint>
#include <cstring>
#include <vector>

#include "processing/audio/edit_rows.h"
#include "processing/wave_ops.h"

namespace {

struct Params {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  uint32_t Next(uint32_t modulo) {
    uint32_t value = 0;
    for (int k = 0; k < 4; ++k) value = value << 8 | (at < size ? data[at++] : 0);
    return modulo ? value % modulo : value;
  }
};

void Check(const orlin::Waveform& wave) {
  for (const orlin::Marker& marker : wave.markers)
    if (marker.start > wave.length || (marker.section && marker.end > wave.length)) __builtin_trap();
  if (wave.loop.type && (wave.loop.start < 0 || wave.loop.start >= wave.loop.end || wave.loop.end > float(wave.length)))
    __builtin_trap();
  if (wave.length && (!wave.Data() || wave.Data()->frames != wave.length)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 48 + 4) return 0;
  Params params{data, 48};
  const uint32_t channels = 1 + params.Next(2);
  const size_t frames = (size - 48) / 2 / channels;
  if (frames == 0 || frames > 32768) return 0;
  orlin::Collection collection;
  auto* wave = new orlin::Waveform(&collection);
  wave->channels = uint8_t(channels);
  wave->sampleRate = 8000 + params.Next(40000);
  wave->length = uint32_t(frames);
  float* samples = wave->AllocSamples();
  for (size_t i = 0; i < frames * channels; ++i) {
    int16_t value;
    std::memcpy(&value, data + 48 + 2 * i, 2);
    samples[i] = value / 32768.0f;
  }
  const uint32_t loopStart = params.Next(uint32_t(frames));
  wave->loop = {1, 0, float(loopStart), float(loopStart + 1 + params.Next(uint32_t(frames - loopStart))), 0.0f};
  const uint32_t markerStart = params.Next(uint32_t(frames));
  wave->markers = {{1, markerStart, markerStart + params.Next(uint32_t(frames - markerStart) + 1), "m", 1}};
  const uint32_t length = wave->length;
  const uint32_t first = params.Next(length + 1), last = params.Next(length + 2);
  switch (params.Next(6)) {
    case 0:
      if (orlin::DeleteFrames(*wave, first, last) && wave->length != length - (std::min(last, length) - first)) __builtin_trap();
      break;
    case 1:
      if (orlin::InsertFrames(*wave, first, nullptr, 0, 1 + last) && wave->length != std::max(first, length) + 1 + last)
        __builtin_trap();
      break;
    case 2: {
      orlin::RemoveSilenceResult result;
      orlin::RemoveSilence(*wave, params.Next(2), params.Next(2), params.Next(2), params.Next(1000) / 1000.0,
                           params.Next(100) / 1000.0, params.Next(2), params.Next(2), params.Next(2), &result);
      if (result.deleted) return 0;
      break;
    }
    case 3: {
      std::vector<orlin::Waveform*> made;
      const double trig = params.Next(1000) / 1000.0;
      orlin::SplitWave(*wave, trig, trig * params.Next(1000) / 1000.0, params.Next(20) / 1000.0, params.Next(20) / 1000.0,
                       params.Next(10) / 1000.0, params.Next(10) / 1000.0, params.Next(2), params.Next(2), true, true, made);
      for (orlin::Waveform* piece : made) Check(*piece);
      break;
    }
    case 4:
      orlin::SmoothRange(orlin::WritableSamples(*wave), channels, length, first, last, int(params.Next(4)));
      orlin::FadeRange(*wave, first, last, int(params.Next(4)));
      break;
    default:
      orlin::Maximize(*wave, int(params.Next(3)));
      orlin::ToStereo(*wave, orlin::kStereoDuplicate);
      break;
  }
  Check(*wave);
  return 0;
}
