// Wave primitives. Every sample loop runs over the raw float block once; a change of length or layout
// builds a new block and swaps it in only when everything has worked.
#include "processing/wave_ops.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/last_error.h"
#include "processing/resample.h"

namespace orlin {

namespace {

constexpr double kDbToNeper = 0.115129255;  // ln(10) / 20
constexpr double kSilentGain = 1.5848933e-5;  // -96 dB

bool TooBig(uint64_t frames, uint64_t channels) {
  if (frames * channels <= kMaxWaveValues) return false;
  SetLastError("Wave would be too big for the 32-bit app");
  return true;
}

WaveData* NewBlock(uint64_t frames, uint32_t channels, float rate, bool clear) {
  WaveData* data = WaveData::Create(uint32_t(frames), channels, rate, clear);
  if (!data) SetLastError("Out of memory");
  return data;
}

const float* ReadableSamples(Waveform& wave) {
  if (!wave.Preload() && !wave.Data()) return nullptr;
  const float* samples = wave.GetSamplesForRead();
  if (!samples) {
    if (LastError().empty()) SetLastError("Zero length");
  }
  return samples;
}

// A frame position through a cut of [first, last): positions inside the cut go to its start.
uint32_t PositionAfterDelete(uint32_t position, uint32_t first, uint32_t last) {
  if (position >= last) return position - (last - first);
  return position > first ? first : position;
}

// Loop points through a cut, by the loop rules: a start inside the cut goes to the join, an end
// inside it to one past the join; a loop left empty is switched off.
void LoopAfterDelete(LoopInfo& loop, uint32_t oldLength, uint32_t first, uint32_t last) {
  const double n = double(last - first);
  if (loop.start >= float(first) && loop.end <= float(last)) {
    // The loop went with the cut. The point rules alone would leave a one-frame loop at the join;
    // an empty loop, switched off, is what is meant.
    loop.start = loop.end = float(first);
    loop.type = 0;
    return;
  }
  if (loop.end >= float(oldLength)) loop.end = float(double(oldLength) - n);
  else if (loop.end > float(first)) loop.end = double(last) >= loop.end ? float(first + 1) : float(loop.end - n);
  if (loop.start > float(first)) loop.start = double(last) > loop.start ? float(first) : float(loop.start - n);
  // One past the join lies beyond the wave when the cut ran to its end.
  loop.end = std::min(loop.end, float(double(oldLength) - n));
  if (loop.start >= loop.end) loop.type = 0;
}

void LoopAfterInsert(LoopInfo& loop, uint32_t oldLength, uint32_t position, uint32_t count) {
  if (loop.start >= float(position)) loop.start += float(count);
  if (loop.end > float(position) && loop.end <= float(oldLength)) loop.end += float(count);
}

void MarkersAfterDelete(std::vector<Marker>& markers, uint32_t first, uint32_t last) {
  const uint32_t n = last - first;
  std::vector<Marker> kept;
  kept.reserve(markers.size());
  for (Marker& marker : markers) {
    if (marker.start < first) {
      if (marker.section && marker.end >= first) marker.end = marker.end < last ? first : marker.end - n;
    } else if (marker.start < last) {
      // Inside the cut: only a section reaching past it survives, from the join on.
      if (!(marker.section && marker.end > last)) continue;
      marker.start = first;
      marker.end -= n;
    } else {
      marker.start -= n;
      if (marker.section) marker.end -= n;
    }
    kept.push_back(std::move(marker));
  }
  markers = std::move(kept);
}

void MarkersAfterInsert(std::vector<Marker>& markers, uint32_t position, uint32_t count) {
  for (Marker& marker : markers) {
    if (marker.start >= position) marker.start += count;
    if (marker.section && marker.end >= position) marker.end += count;
  }
}

// Region offsets count from the wave's start (start offset) and from its end (end offset, zero or
// negative); both stay on the same audio, as do the region's own loop points.
void RegionsAfterDelete(const Waveform& wave, uint32_t oldLength, uint32_t first, uint32_t last) {
  const uint32_t newLength = oldLength - (last - first);
  for (Region* region : RegionsPlaying(wave)) {
    const int64_t endPosition = std::clamp<int64_t>(int64_t(oldLength) + region->endOffset, 0, oldLength);
    region->startOffset = int32_t(PositionAfterDelete(uint32_t(std::max(region->startOffset, 0)), first, last));
    region->endOffset = int32_t(int64_t(PositionAfterDelete(uint32_t(endPosition), first, last)) - newLength);
    if (newLength > 0 && region->startOffset > int32_t(newLength - 1)) region->startOffset = int32_t(newLength - 1);
    if (region->overrideFlags & (Region::kOverrideLoopStart | Region::kOverrideLoopEnd)) {
      LoopInfo loop = region->EffectiveLoop();
      const uint8_t typeBefore = loop.type;
      LoopAfterDelete(loop, oldLength, first, last);
      if (region->overrideFlags & Region::kOverrideLoopStart) region->loop.start = loop.start;
      if (region->overrideFlags & Region::kOverrideLoopEnd) region->loop.end = loop.end;
      if (loop.type != typeBefore) {
        region->loop.type = 0;
        region->overrideFlags |= Region::kOverrideLoopType;
      }
    }
  }
}

void RegionsAfterInsert(const Waveform& wave, uint32_t oldLength, uint32_t position, uint32_t count) {
  for (Region* region : RegionsPlaying(wave)) {
    if (region->startOffset >= int32_t(position) && region->startOffset > 0) region->startOffset += int32_t(count);
    const int64_t endPosition = int64_t(oldLength) + region->endOffset;
    if (endPosition <= int64_t(position) && region->endOffset < 0) region->endOffset -= int32_t(count);
    if (region->overrideFlags & Region::kOverrideLoopStart && region->loop.start >= float(position))
      region->loop.start += float(count);
    if (region->overrideFlags & Region::kOverrideLoopEnd && region->loop.end > float(position))
      region->loop.end += float(count);
  }
}

// Moves a piece's start back and its end forward to a sign change of the first channel.
uint32_t ZeroCrossBefore(const float* samples, uint32_t channels, uint32_t start, uint32_t limitFrames, uint32_t floor) {
  const uint32_t lowest = start > limitFrames ? std::max(start - limitFrames, floor) : floor;
  float last = samples[size_t(start) * channels];
  for (uint32_t i = start; i > lowest; --i) {
    const float value = samples[size_t(i - 1) * channels];
    if (value == 0.0f) continue;  // stepping over exact zeros keeps the last non-zero value
    if (last != 0.0f && (value < 0.0f) != (last < 0.0f)) return i;
    last = value;
  }
  return start;
}

uint32_t ZeroCrossAfter(const float* samples, uint32_t channels, uint32_t end, uint32_t limitFrames, uint32_t ceiling) {
  if (end == 0) return end;
  const uint32_t highest = std::min<uint64_t>(uint64_t(end) + limitFrames, ceiling);
  float last = samples[size_t(end - 1) * channels];
  for (uint32_t i = end; i < highest; ++i) {
    const float value = samples[size_t(i) * channels];
    if (value == 0.0f) continue;
    if (last != 0.0f && (value < 0.0f) != (last < 0.0f)) return i;
    last = value;
  }
  return end;
}

bool IsSound(const float* frame, uint32_t channels, double threshold) {
  for (uint32_t c = 0; c < channels; ++c)
    if (std::fabs(frame[c]) >= threshold) return true;
  return false;
}

RateConverter gRateConverter = ConvertRateFir;

}  // namespace

void SetRateConverter(RateConverter converter) { gRateConverter = converter ? converter : ConvertRateFir; }
WaveData* ConvertRate(const WaveData& source, uint32_t targetRate) { return gRateConverter(source, targetRate); }

std::vector<Region*> RegionsPlaying(const Waveform& wave) {
  std::vector<Region*> regions;
  if (!wave.collection) return regions;
  for (Region* region : wave.collection->All<Region>())
    if (region->GetWave() == &wave) regions.push_back(region);
  return regions;
}

double DbToGain(double db) {
  if (db <= -96.0) return 0.0;
  // The stored table: 12 dB is 5.0, not 3.98, and stays so whatever the inverse says.
  if (db == 0.0) return 1.0;
  if (db == 6.0) return 2.0;
  if (db == 12.0) return 5.0;
  if (db == -6.0) return 0.5;
  if (db == -12.0) return 0.25;
  double gain = std::exp(db * kDbToNeper);
  if (gain >= 1.0) gain = std::trunc(gain * 1000.0 + 0.5) * 0.001;
  return gain;
}

double GainToDb(double gain) {
  if (gain <= kSilentGain) return -96.0;
  if (gain == 1.0) return 0.0;
  if (gain == 2.0) return 6.0;
  if (gain == 4.0) return 12.0;
  if (gain == 0.5) return -6.0;
  if (gain == 0.25) return -12.0;
  // Hundredths of a decibel: 868.5889 is 100 x 20 / ln(10).
  return std::round(std::log(gain) * 868.5889) * 0.01;
}

void ReplaceWaveData(Waveform& wave, WaveData* fresh) {
  wave.AdoptData(fresh);
  fresh->Release();  // the wave holds the one reference now
  wave.decoder = nullptr;
}

float* WritableSamples(Waveform& wave) {
  if (!ReadableSamples(wave)) return nullptr;
  WaveData* data = wave.Data();
  if (data->referenceCount > 1) {
    WaveData* copy = NewBlock(data->frames, data->channels, data->rate, false);
    if (!copy) return nullptr;
    std::memcpy(copy->samples, data->samples, size_t(data->frames) * data->channels * sizeof(float));
    ReplaceWaveData(wave, copy);
  }
  return wave.GetSamplesForWrite();
}

bool DeleteFrames(Waveform& wave, uint32_t first, uint32_t last) {
  const uint32_t length = wave.length;
  last = std::min(last, length);
  if (first >= last || (first == 0 && last == length)) {
    SetLastError(first >= last ? "Nothing to cut" : "Cutting the whole waveform is not allowed");
    return false;
  }
  const float* samples = ReadableSamples(wave);
  if (!samples) return false;
  const uint32_t channels = wave.channels;
  const uint32_t n = last - first;
  WaveData* fresh = NewBlock(length - n, channels, float(wave.sampleRate), false);
  if (!fresh) return false;
  std::memcpy(fresh->samples, samples, size_t(first) * channels * sizeof(float));
  std::memcpy(fresh->samples + size_t(first) * channels, samples + size_t(last) * channels,
              size_t(length - last) * channels * sizeof(float));
  RegionsAfterDelete(wave, length, first, last);
  LoopAfterDelete(wave.loop, length, first, last);
  MarkersAfterDelete(wave.markers, first, last);
  ReplaceWaveData(wave, fresh);
  return true;
}

bool InsertFrames(Waveform& wave, uint32_t position, Waveform* source, uint32_t sourceStart, uint32_t count) {
  const uint32_t channels = wave.channels;
  const uint32_t length = wave.length;
  const float* samples = length ? ReadableSamples(wave) : nullptr;
  if (length && !samples) return false;

  // The source, in this wave's channels and rate: a temporary block.
  WaveData* converted = nullptr;
  if (source) {
    const float* sourceSamples = ReadableSamples(*source);
    if (!sourceSamples) return false;
    Collection scratch;  // the temporary copy belongs to no user collection
    Waveform temporary(&scratch, *source, false, {});
    if (source->channels != channels) {
      if (!(channels == 1 ? ToMono(temporary, kMonoAverage) : ToStereo(temporary, kStereoDuplicate))) return false;
    }
    if (temporary.sampleRate != wave.sampleRate) {
      WaveData* resampled = ConvertRate(*temporary.Data(), wave.sampleRate);
      if (!resampled) return false;
      ReplaceWaveData(temporary, resampled);
      // A start of another rate is rescaled; the count follows from that start, not from the count
      // asked for, so a start of 0 inserts a single frame.
      const double ratio = double(wave.sampleRate) / double(source->sampleRate);
      const int64_t sourceLength = temporary.length;
      const int64_t start = std::clamp<int64_t>(std::llround(double(sourceStart) * ratio), 0, std::max<int64_t>(0, sourceLength - 1));
      sourceStart = uint32_t(start);
      count = uint32_t(std::clamp<int64_t>(std::llround(double(start) * ratio), 1, std::max<int64_t>(1, sourceLength - start)));
    } else if (count == 0) {
      count = sourceStart < temporary.length ? temporary.length - sourceStart : 0;
    }
    converted = temporary.Data();
    converted->AddRef();
  }
  struct Release {
    WaveData* data;
    ~Release() {
      if (data) data->Release();
    }
  } release{converted};

  if (count == 0) {
    SetLastError("Nothing to insert");
    return false;
  }
  const uint64_t base = std::max(position, length);
  const uint64_t newLength = base + count;
  if (TooBig(newLength, channels)) return false;
  WaveData* fresh = NewBlock(newLength, channels, float(wave.sampleRate), true);
  if (!fresh) return false;
  const uint32_t before = std::min(position, length);
  if (samples) {
    std::memcpy(fresh->samples, samples, size_t(before) * channels * sizeof(float));
    std::memcpy(fresh->samples + size_t(position + count) * channels, samples + size_t(before) * channels,
                size_t(length - before) * channels * sizeof(float));
  }
  if (converted && sourceStart < converted->frames) {
    // Source data shorter than the count leaves the cleared rest as silence.
    const uint32_t available = std::min(count, converted->frames - sourceStart);
    std::memcpy(fresh->samples + size_t(position) * channels, converted->samples + size_t(sourceStart) * channels,
                size_t(available) * channels * sizeof(float));
  }
  RegionsAfterInsert(wave, length, position, count);
  LoopAfterInsert(wave.loop, length, position, count);
  MarkersAfterInsert(wave.markers, position, count);
  ReplaceWaveData(wave, fresh);
  return true;
}

namespace {

// " S", "-s" and the like at the end of a stereo wave's name, with the blanks before them.
std::string WithoutStereoSuffix(std::string name) {
  if (name.size() >= 2) {
    const char mark = name.back();
    const char joint = name[name.size() - 2];
    if ((mark == 'S' || mark == 's') && (joint == '-' || joint == ' ')) {
      name.resize(name.size() - 2);
      while (!name.empty() && name.back() == ' ') name.pop_back();
    }
  }
  return name;
}

// One channel (0 left, 1 right) or the average (-1) of a stereo block into a new mono block.
WaveData* MonoFrom(const WaveData& data, int channel) {
  WaveData* out = NewBlock(data.frames, 1, data.rate, false);
  if (!out) return nullptr;
  const float* in = data.samples;
  float* o = out->samples;
  const size_t frames = data.frames;
  if (channel < 0) {
    for (size_t i = 0; i < frames; ++i) o[i] = (in[2 * i] + in[2 * i + 1]) * 0.5f;
  } else {
    for (size_t i = 0; i < frames; ++i) o[i] = in[2 * i + size_t(channel)];
  }
  return out;
}

}  // namespace

bool ToMono(Waveform& wave, int mode, Waveform** outSecond, bool* changed) {
  if (changed) *changed = false;
  if (outSecond) *outSecond = nullptr;
  if (mode < 0 || mode > kMonoIfIdentical) {
    SetLastError("Invalid algorithm");
    return false;
  }
  if (!ReadableSamples(wave)) return false;
  if (wave.channels == 1) return true;
  if (wave.channels != 2) {
    SetLastError("Too many channels");
    return false;
  }
  const WaveData& data = *wave.Data();
  if (mode == kMonoIfIdentical) {
    const float* s = data.samples;
    for (size_t i = 0; i < data.frames; ++i)
      if (s[2 * i] != s[2 * i + 1]) return true;
  }
  const int channel = mode == kMonoAverage ? -1 : mode == kMonoRight ? 1 : 0;
  WaveData* mono = MonoFrom(data, channel);
  if (!mono) return false;
  if (mode == kMonoSplit) {
    WaveData* right = MonoFrom(data, 1);
    if (!right) {
      mono->Release();
      return false;
    }
    const std::string base = WithoutStereoSuffix(wave.GetName());
    auto* clone = new Waveform(wave.collection, wave, false, base + " -R");
    ReplaceWaveData(*clone, right);
    wave.SetName(base + " -L");
    if (outSecond) *outSecond = clone;
  }
  ReplaceWaveData(wave, mono);
  if (changed) *changed = true;
  return true;
}

bool ToStereo(Waveform& wave, int mode, Waveform* other) {
  if (mode < 0 || mode > kStereoThisRight) {
    SetLastError("Invalid algorithm");
    return false;
  }
  if (!ReadableSamples(wave)) return false;
  if (wave.channels == 2) return true;
  const float* otherSamples = nullptr;
  uint32_t otherLength = 0;
  if (mode >= kStereoThisLeft) {
    if (!other) {
      SetLastError("No 2nd waveform specified");
      return false;
    }
    if (other->channels != 1) {
      SetLastError("2nd waveform is not mono");
      return false;
    }
    otherSamples = ReadableSamples(*other);
    if (!otherSamples) return false;
    otherLength = other->length;
  }
  const uint32_t length = std::max(wave.length, otherLength);
  if (TooBig(length, 2)) return false;
  WaveData* stereo = NewBlock(length, 2, float(wave.sampleRate), true);
  if (!stereo) return false;
  const float* in = wave.Data()->samples;
  float* out = stereo->samples;
  const size_t frames = wave.length;
  switch (mode) {
    case kStereoDuplicate:
      for (size_t i = 0; i < frames; ++i) out[2 * i] = out[2 * i + 1] = in[i];
      break;
    case kStereoLeftOnly:
    case kStereoThisLeft:
      for (size_t i = 0; i < frames; ++i) out[2 * i] = in[i];
      break;
    default:
      for (size_t i = 0; i < frames; ++i) out[2 * i + 1] = in[i];
      break;
  }
  if (otherSamples) {
    const size_t side = mode == kStereoThisLeft ? 1 : 0;
    for (size_t i = 0; i < otherLength; ++i) out[2 * i + side] = otherSamples[i];
  }
  ReplaceWaveData(wave, stereo);
  return true;
}

namespace {

struct Extremes {
  float min = 0.0f;
  float max = 0.0f;
  double mean = 0.0;
};

// Minimum, maximum and mean in one pass. Eight lanes keep the loop free of carried dependencies so
// that it runs at memory speed; the mean sums blocks in float and the blocks in double.
Extremes FindExtremes(const float* samples, size_t count) {
  Extremes result;
  if (count == 0) return result;
  constexpr size_t kLanes = 8;
  constexpr size_t kBlock = 4096;
  float lo[kLanes], hi[kLanes];
  for (size_t l = 0; l < kLanes; ++l) lo[l] = hi[l] = samples[0];
  double total = 0.0;
  size_t i = 0;
  while (i + kLanes <= count) {
    const size_t blockEnd = i + std::min(kBlock, (count - i) / kLanes * kLanes);
    float sum[kLanes] = {};
    for (; i < blockEnd; i += kLanes) {
      for (size_t l = 0; l < kLanes; ++l) {
        const float v = samples[i + l];
        lo[l] = v < lo[l] ? v : lo[l];
        hi[l] = v > hi[l] ? v : hi[l];
        sum[l] += v;
      }
    }
    for (size_t l = 0; l < kLanes; ++l) total += sum[l];
  }
  for (; i < count; ++i) {
    lo[0] = std::min(lo[0], samples[i]);
    hi[0] = std::max(hi[0], samples[i]);
    total += samples[i];
  }
  result.min = *std::min_element(lo, lo + kLanes);
  result.max = *std::max_element(hi, hi + kLanes);
  result.mean = total / double(count);
  return result;
}

void ScaleAndOffset(float* samples, size_t count, float a, float b) {
  for (size_t i = 0; i < count; ++i) samples[i] = samples[i] * a + b;
}

}  // namespace

bool Maximize(Waveform& wave, int mode, bool* changed) {
  if (changed) *changed = false;
  if (mode < 0 || mode > kMaximizeKeepMean) {
    SetLastError("Invalid algorithm");
    return false;
  }
  const float* samples = ReadableSamples(wave);
  if (!samples) return false;
  const size_t count = size_t(wave.length) * wave.channels;
  const Extremes e = FindExtremes(samples, count);
  double a = 1.0, b = 0.0;
  if (mode == kMaximizeFullSwing) {
    if (!(e.max > e.min)) {
      SetLastError("The waveform has no swing to maximize");
      return false;
    }
    a = 2.0 / (double(e.max) - e.min);
    b = 1.0 - a * e.max;
  } else if (mode == kMaximizeKeepZero) {
    const double peak = std::max(std::fabs(double(e.max)), std::fabs(double(e.min)));
    if (!(peak > 0.0)) {
      ClearLastError();  // an all-zero wave fails quietly
      return false;
    }
    a = 1.0 / peak;
  } else {
    const double peak = std::max(std::fabs(e.max - e.mean), std::fabs(e.min - e.mean));
    if (!(peak > 0.0) || peak < e.mean) {
      SetLastError("The waveform has no swing to maximize");
      return false;
    }
    a = 1.0 / peak;
    b = -a * e.mean;
  }
  if (float(a) == 1.0f && float(b) == 0.0f) return true;
  float* writable = WritableSamples(wave);
  if (!writable) return false;
  ScaleAndOffset(writable, count, float(a), float(b));
  if (changed) *changed = true;
  return true;
}

bool FadeRange(Waveform& wave, uint32_t first, uint32_t last, int shape) {
  if (shape < 0 || shape > kFadeLogarithmicOut) {
    SetLastError("Invalid algorithm");
    return false;
  }
  const uint32_t end = std::min(last, wave.length);
  if (first >= end) return true;
  float* samples = WritableSamples(wave);
  if (!samples) return false;
  const uint32_t channels = wave.channels;
  const double n = double(end - first);
  const double step = 1.0 / (n + 1.0);
  for (uint32_t j = 0; j < end - first; ++j) {
    double gain;
    switch (shape) {
      case kFadeLinearIn: gain = (j + 1) * step; break;
      case kFadeExponentialIn: gain = 1.0 - std::log10((n - j) * step * 9.0 + 1.0); break;
      case kFadeLinearOut: gain = (n - j) * step; break;
      default: gain = 1.0 - std::log10((j + 1) * step * 9.0 + 1.0); break;
    }
    float* frame = samples + size_t(first + j) * channels;
    for (uint32_t c = 0; c < channels; ++c) frame[c] = float(frame[c] * gain);
  }
  return true;
}

bool ApplyGainDb(Waveform& wave, double db, int64_t first, int64_t last) {
  if (first < 0) first = 0, last = wave.length;
  last = std::min<int64_t>(last, wave.length);
  if (first >= last) return true;
  float* samples = WritableSamples(wave);
  if (!samples) return false;
  const float gain = float(std::exp(db * kDbToNeper));
  float* from = samples + size_t(first) * wave.channels;
  const size_t count = size_t(last - first) * wave.channels;
  for (size_t i = 0; i < count; ++i) from[i] = std::clamp(from[i] * gain, -1.0f, 1.0f);
  return true;
}

namespace {

struct Piece {
  uint32_t start;
  uint32_t end;
};

// Softens a join per channel over the two values before it and the two from it on.
void SmoothJoin(float* samples, uint32_t channels, uint32_t length, uint32_t join) {
  for (uint32_t c = 0; c < channels; ++c) {
    auto at = [&](int64_t frame) -> float* {
      return frame >= 0 && frame < int64_t(length) ? samples + size_t(frame) * channels + c : nullptr;
    };
    float* a = at(int64_t(join) - 2);
    float* b = at(int64_t(join) - 1);
    float* cc = at(join);
    float* d = at(int64_t(join) + 1);
    const float oldB = b ? *b : 0.0f;
    const float oldC = cc ? *cc : 0.0f;
    if (a && cc) *a = 0.8f * *a + 0.2f * oldC;
    if (b && cc) *b = 0.67f * oldB + 0.33f * oldC;
    if (cc && b) *cc = 0.67f * oldC + 0.33f * oldB;
    if (d && b) *d = 0.8f * *d + 0.2f * oldB;
  }
}

}  // namespace

bool RemoveSilence(Waveform& wave, bool fromStart, bool fromEnd, bool anywhere, double threshold,
                   double minSilenceSeconds, bool smooth, bool deleteIfSilent, bool zeroCross,
                   RemoveSilenceResult* result) {
  RemoveSilenceResult local;
  RemoveSilenceResult& out = result ? *result : local;
  out = {};
  const float* samples = ReadableSamples(wave);
  if (!samples) return false;
  const uint32_t channels = wave.channels;
  const uint32_t length = wave.length;
  const uint32_t rate = wave.sampleRate;
  const uint32_t minFrames = std::max<uint32_t>(1, uint32_t(double(rate) * minSilenceSeconds));

  uint32_t s = 0, e = length;
  if (fromStart) {
    while (s < length && !IsSound(samples + size_t(s) * channels, channels, threshold)) ++s;
  }
  if (fromEnd) {
    while (e > s && !IsSound(samples + size_t(e - 1) * channels, channels, threshold)) --e;
  }
  if (uint64_t(s) + 4 >= e && (fromStart || fromEnd || anywhere)) {
    // All silence. Without permission to delete, the wave stays as it is.
    if (deleteIfSilent) {
      delete &wave;
      out.deleted = out.changed = true;
    }
    return true;
  }

  std::vector<Piece> pieces;
  if (!anywhere) {
    pieces.push_back({s, e});
  } else {
    uint32_t pieceStart = s;
    uint32_t i = s;
    while (i < e) {
      if (IsSound(samples + size_t(i) * channels, channels, threshold)) {
        ++i;
        continue;
      }
      uint32_t run = i;
      while (run < e && !IsSound(samples + size_t(run) * channels, channels, threshold)) ++run;
      if (run - i >= minFrames) {
        if (i - pieceStart > 1) pieces.push_back({pieceStart, i});
        pieceStart = run;
      }
      i = run;
    }
    if (e - pieceStart > 1) pieces.push_back({pieceStart, e});
  }
  if (zeroCross) {
    const uint32_t limit = rate / 80;
    for (size_t p = 0; p < pieces.size(); ++p) {
      const uint32_t floor = p ? pieces[p - 1].end : 0;
      const uint32_t ceiling = p + 1 < pieces.size() ? pieces[p + 1].start : length;
      pieces[p].start = ZeroCrossBefore(samples, channels, pieces[p].start, limit, floor);
      const uint32_t end = ZeroCrossAfter(samples, channels, pieces[p].end, limit, ceiling);
      pieces[p].end = end;
    }
  }
  if (pieces.empty() || (pieces.size() == 1 && pieces[0].start == 0 && pieces[0].end == length)) return true;

  uint64_t kept = 0;
  for (const Piece& piece : pieces) kept += piece.end - piece.start;
  WaveData* fresh = NewBlock(kept, channels, float(rate), false);
  if (!fresh) return false;
  uint64_t at = 0;
  std::vector<uint32_t> joins;
  for (const Piece& piece : pieces) {
    if (at) joins.push_back(uint32_t(at));
    std::memcpy(fresh->samples + at * channels, samples + size_t(piece.start) * channels,
                size_t(piece.end - piece.start) * channels * sizeof(float));
    at += piece.end - piece.start;
  }
  // Every removed gap moves what follows back; cut the gaps from the last to the first so that the
  // positions of the earlier ones still hold.
  std::vector<Piece> gaps;
  uint32_t previous = 0;
  for (const Piece& piece : pieces) {
    if (piece.start > previous) gaps.push_back({previous, piece.start});
    previous = piece.end;
  }
  if (previous < length) gaps.push_back({previous, length});
  uint32_t running = length;
  for (auto gap = gaps.rbegin(); gap != gaps.rend(); ++gap) {
    RegionsAfterDelete(wave, running, gap->start, gap->end);
    LoopAfterDelete(wave.loop, running, gap->start, gap->end);
    MarkersAfterDelete(wave.markers, gap->start, gap->end);
    running -= gap->end - gap->start;
  }
  if (smooth)
    for (uint32_t join : joins) SmoothJoin(fresh->samples, channels, uint32_t(kept), join);
  ReplaceWaveData(wave, fresh);
  out.changed = true;
  return true;
}

bool MakeSplitWaves(Waveform& wave, std::vector<SplitRecord>& pieces, bool remapRegions, bool replaceFirst,
                    std::vector<Waveform*>& result) {
  const float* samples = ReadableSamples(wave);
  if (!samples) return false;
  const uint32_t channels = wave.channels;
  // Every block first, so that running out of memory leaves the source and the collection as they were.
  std::vector<WaveData*> blocks;
  for (SplitRecord& piece : pieces) {
    WaveData* block = NewBlock(piece.end - piece.start, channels, float(wave.sampleRate), false);
    if (!block) {
      for (WaveData* made : blocks) made->Release();
      return false;
    }
    std::memcpy(block->samples, samples + size_t(piece.start) * channels,
                size_t(piece.end - piece.start) * channels * sizeof(float));
    blocks.push_back(block);
  }
  const std::vector<Region*> regions = remapRegions ? RegionsPlaying(wave) : std::vector<Region*>{};
  // The first piece may take over the source itself: what the others copy is taken first.
  const uint32_t sourceLength = wave.length;
  const LoopInfo sourceLoop = wave.loop;
  const std::vector<Marker> sourceMarkers = wave.markers;
  for (size_t p = 0; p < pieces.size(); ++p) {
    SplitRecord& piece = pieces[p];
    const bool takeOver = replaceFirst && p == 0;
    Waveform* made = takeOver ? &wave : new Waveform(wave.collection, wave, false, piece.name);
    const uint32_t pieceLength = piece.end - piece.start;
    LoopInfo loop = sourceLoop;
    std::vector<Marker> markers;
    for (const Marker& marker : sourceMarkers) {
      if (marker.start < piece.start || marker.start >= piece.end) continue;
      Marker copy = marker;
      copy.start -= piece.start;
      if (copy.section) copy.end = std::min(copy.end, piece.end) - piece.start;
      if (!takeOver) copy.id = NextMarkerId();
      markers.push_back(std::move(copy));
    }
    if (loop.end >= float(sourceLength)) loop.end = float(sourceLength);
    loop.start = std::clamp(loop.start - float(piece.start), 0.0f, float(pieceLength));
    loop.end = std::clamp(loop.end - float(piece.start), 0.0f, float(pieceLength));
    if (loop.start >= loop.end) loop.type = 0;
    if (takeOver) made->SetName(piece.name);
    made->loop = loop;
    made->markers = std::move(markers);
    ReplaceWaveData(*made, blocks[p]);
    if (piece.fadeIn) FadeRange(*made, 0, piece.fadeIn, kFadeLinearIn);
    if (piece.fadeOut) FadeRange(*made, pieceLength - piece.fadeOut, pieceLength, kFadeLinearOut);
    piece.wave = made;
    result.push_back(made);
  }
  // Regions follow the piece their start offset lies in; values all regions of a new wave agree on
  // move into the wave.
  for (Region* region : regions) {
    const uint32_t start = uint32_t(std::max(region->startOffset, 0));
    for (SplitRecord& piece : pieces) {
      if (start < piece.start || start >= piece.end) continue;
      const int32_t shift = int32_t(piece.start);
      const uint32_t pieceLength = piece.end - piece.start;
      region->startOffset -= shift;
      region->endOffset = std::min<int32_t>(0, std::max<int32_t>(region->endOffset, -int32_t(pieceLength) + region->startOffset + 1));
      if (region->overrideFlags & Region::kOverrideLoopStart) region->loop.start -= float(shift);
      if (region->overrideFlags & Region::kOverrideLoopEnd) region->loop.end -= float(shift);
      std::replace(region->children.begin(), region->children.end(), wave.id, piece.wave->id);
      break;
    }
  }
  if (remapRegions) {
    for (SplitRecord& piece : pieces) {
      std::vector<Region*> users = RegionsPlaying(*piece.wave);
      if (users.empty()) continue;
      auto allAgree = [&](uint8_t flag, auto value) {
        for (Region* region : users)
          if (!(region->overrideFlags & flag) || value(region) != value(users[0])) return false;
        return true;
      };
      if (allAgree(Region::kOverrideRoot, [](Region* r) { return float(r->rootKey); })) {
        piece.wave->rootKey = users[0]->rootKey;
        for (Region* region : users) region->overrideFlags &= uint8_t(~Region::kOverrideRoot);
      }
      const uint8_t loopFlags = Region::kOverrideLoopType | Region::kOverrideLoopStart | Region::kOverrideLoopEnd;
      if (allAgree(loopFlags, [](Region* r) { return r->loop.start * 3.0f + r->loop.end + float(r->loop.type); }) &&
          allAgree(Region::kOverrideLoopStart, [](Region* r) { return r->loop.start; }) &&
          allAgree(Region::kOverrideLoopEnd, [](Region* r) { return r->loop.end; })) {
        piece.wave->loop.type = users[0]->loop.type;
        piece.wave->loop.start = users[0]->loop.start;
        piece.wave->loop.end = users[0]->loop.end;
        for (Region* region : users) region->overrideFlags &= uint8_t(~loopFlags);
      }
      if (allAgree(Region::kOverrideLoopTune, [](Region* r) { return r->loop.tune; })) {
        piece.wave->loop.tune = users[0]->loop.tune;
        for (Region* region : users) region->overrideFlags &= uint8_t(~Region::kOverrideLoopTune);
      }
    }
  }
  return true;
}

bool SplitWave(Waveform& wave, double trig, double release, double minTrigSeconds, double minReleaseSeconds,
               double fadeInSeconds, double fadeOutSeconds, bool zeroCross, bool keepPostRelease, bool remapRegions,
               bool replaceFirst, std::vector<Waveform*>& result) {
  const float* samples = ReadableSamples(wave);
  if (!samples) return false;
  const uint32_t channels = wave.channels;
  const uint32_t length = wave.length;
  const double rate = wave.sampleRate;
  const uint32_t minTrig = std::max<uint32_t>(8, uint32_t(rate * minTrigSeconds));
  const uint32_t minRelease = std::max<uint32_t>(1, uint32_t(rate * minReleaseSeconds));

  std::vector<SplitRecord> pieces;
  uint32_t p = 0;
  while (p < length) {
    uint32_t start = p;
    while (start < length && !IsSound(samples + size_t(start) * channels, channels, trig)) ++start;
    if (start >= length) break;
    uint32_t end = length;
    uint32_t quiet = 0;
    for (uint32_t i = start + 1; i < length; ++i) {
      if (IsSound(samples + size_t(i) * channels, channels, release)) {
        quiet = 0;
        continue;
      }
      if (++quiet == minRelease) {
        end = i + 1 - minRelease;
        break;
      }
    }
    const bool tooSoon = p != 0 && start - p < minRelease;
    if (!tooSoon && end - start > minTrig) {
      SplitRecord record;
      record.start = start;
      record.end = end;
      pieces.push_back(record);
      if (pieces.size() > kMaxSplitPieces) break;
    }
    p = end;
  }
  if (pieces.empty() || pieces.size() > kMaxSplitPieces || (pieces.size() == 1 && pieces[0].start == 0 && pieces[0].end == length)) {
    SetLastError(pieces.size() > kMaxSplitPieces ? "More than 999 pieces: nothing was split" : "");
    return false;
  }

  const uint32_t limit = uint32_t(rate / 80);
  const size_t count = pieces.size();
  if (zeroCross) {
    for (size_t i = 0; i < count; ++i) {
      pieces[i].start = ZeroCrossBefore(samples, channels, pieces[i].start, limit, i ? pieces[i - 1].end : 0);
      if (!keepPostRelease)
        pieces[i].end = ZeroCrossAfter(samples, channels, pieces[i].end, limit, i + 1 < count ? pieces[i + 1].start : length);
    }
  }
  const uint32_t fadeInFrames = uint32_t(rate * fadeInSeconds);
  const uint32_t fadeOutFrames = uint32_t(rate * fadeOutSeconds);
  if (keepPostRelease) {
    for (size_t i = 0; i < count; ++i) {
      const uint32_t limitEnd = i + 1 < count ? pieces[i + 1].start : length;
      uint32_t end = pieces[i].end;
      while (end < limitEnd && !IsSound(samples + size_t(end) * channels, channels, release)) ++end;
      if (fadeOutFrames) pieces[i].fadeOut = std::min(fadeOutFrames, end - pieces[i].end);
      pieces[i].end = end;
    }
  }
  for (size_t i = 0; i < count; ++i) {
    const uint32_t floor = i ? pieces[i - 1].end : 0;
    const uint32_t moved = std::min(fadeInFrames, pieces[i].start - floor);
    pieces[i].start -= moved;
    pieces[i].fadeIn = moved;
  }
  if (!keepPostRelease) {
    for (size_t i = 0; i < count; ++i) {
      const uint32_t ceiling = i + 1 < count ? pieces[i + 1].start : length;
      const uint32_t moved = std::min<uint32_t>(fadeOutFrames, ceiling > pieces[i].end ? ceiling - pieces[i].end : 0);
      pieces[i].end += moved;
      pieces[i].fadeOut = moved;
    }
  }
  const int digits = count < 10 ? 1 : count < 100 ? 2 : 3;
  for (size_t i = 0; i < count; ++i) {
    std::string number = std::to_string(i + 1);
    number.insert(0, size_t(std::max<int>(0, digits - int(number.size()))), '0');
    pieces[i].name = wave.GetName() + " - " + number;
    // A fade of one to three frames is too short to hear as one: it is made four.
    for (uint32_t* fade : {&pieces[i].fadeIn, &pieces[i].fadeOut})
      if (*fade >= 1 && *fade <= 3) *fade = std::min<uint32_t>(4, pieces[i].end - pieces[i].start);
  }
  return MakeSplitWaves(wave, pieces, remapRegions, replaceFirst, result);
}

}  // namespace orlin
