// The resampler. The read position is summed in double from frame to frame, never recomputed, and
// the fraction is rounded to single precision before use, so a wave resampled twice at one ratio
// reads the same phases both times.
#include "processing/resample.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/last_error.h"
#include "processing/wave_ops.h"

namespace orlin {

const char* const kResampleModeTexts[kResampleModeCount] = {
    "Nearest neighbor - '1-tap'",
    "Linear interpolation - '2-tap'",
    "Cubic interpolation - '4-tap'",
    "FIR filter: > 8-bits S/N (fast)",
    "FIR filter: > 12-bits S/N (fast)",
    "FIR filter: > 16-bits S/N (fast)",
    "FIR filter: > 20-bits S/N (slower)",
    "FIR filter: > 24-bits S/N (very slow)",
    "FIR filter: Auto-select >16 or >20-bits S/N",
};

namespace {

constexpr uint32_t kPhases = 2048;  // rows 0..2048: 2049 of them
constexpr double kPi = 3.1415926535897922;

struct FirGrade {
  int grade;
  double cutoff;  // below ratio 1
  double beta;    // below ratio 1
  uint32_t baseTaps;
};
constexpr FirGrade kGrades[] = {
    {8, 0.77, 6.0, 8}, {12, 0.86, 7.5, 17}, {16, 0.905, 9.5, 34}, {20, 0.97, 11.0, 132}, {24, 0.985, 14.0, 499},
};

// The modified Bessel function I0 by its series, to 1e-21 of the sum.
double BesselI0(double z) {
  double sum = 1.0 + z, term = z;
  for (double k = 2.0; sum * 1e-21 <= term; k += 1.0) {
    term = term / k * z / k;
    sum += term;
  }
  return sum;
}

class NearestSource : public ResampleSource {
 public:
  explicit NearestSource(const WaveData& data) : ResampleSource(data, 0, 1) {}
  double Sample(uint32_t c, uint32_t i, double t) override { return t < 0.5 ? channels_[c][i] : channels_[c][i + 1]; }
};

class LinearSource : public ResampleSource {
 public:
  explicit LinearSource(const WaveData& data) : ResampleSource(data, 0, 1) {}
  double Sample(uint32_t c, uint32_t i, double t) override {
    const float* x = channels_[c];
    return x[i] + (double(x[i + 1]) - x[i]) * t;
  }
};

// Four-point Lagrange.
class CubicSource : public ResampleSource {
 public:
  explicit CubicSource(const WaveData& data) : ResampleSource(data, 1, 2) {}
  double Sample(uint32_t c, uint32_t i, double t) override {
    const float* x = channels_[c] + i;
    const double a = x[-1], b = x[0], c1 = x[1], d = x[2];
    const double inner = ((b - c1) * 3.0 + d - a) * t + ((a + c1) * 3.0 - b * 6.0);
    return ((inner * t + (c1 * 6.0 - d - b * 3.0 - a * 2.0)) * t + b * 6.0) * 0.16666666666666666;
  }
};

}  // namespace

int FirGradeOf(int mode, unsigned bits) {
  if (mode == kResampleFirAuto) return bits <= 16 ? 16 : 20;
  if (mode >= kResampleFir8 && mode <= kResampleFir24) return kGrades[mode - kResampleFir8].grade;
  return 0;
}

ResampleSource::ResampleSource(const WaveData& data, uint32_t preTaps, uint32_t postTaps) {
  const uint32_t frames = data.frames, count = data.channels;
  arrays_.resize(count);
  channels_.resize(count);
  for (uint32_t c = 0; c < count; ++c) {
    std::vector<float>& array = arrays_[c];
    array.assign(size_t(preTaps) + frames + postTaps + 1, 0.0f);
    for (uint32_t i = 0; i < frames; ++i) array[preTaps + i] = data.samples[size_t(i) * count + c];
    channels_[c] = array.data() + preTaps;
  }
}

namespace {
const FirGrade& GradeRow(int grade) {
  for (const FirGrade& g : kGrades)
    if (g.grade == grade) return g;
  return kGrades[2];
}
uint32_t TapsFor(int grade, double ratio) {
  return uint32_t(std::ceil(double(GradeRow(grade).baseTaps) / std::min(ratio, 1.0)));
}
}  // namespace

FirSource::FirSource(const WaveData& data, int grade, double ratio)
    : ResampleSource(data, TapsFor(grade, ratio) - 1, TapsFor(grade, ratio)),
      stride_((TapsFor(grade, ratio) + 3) / 4 * 4),
      taps_(TapsFor(grade, ratio)),
      scale_(std::min(ratio, 1.0)),
      // Upsampling keeps the whole band whatever the grade.
      cutoff_(ratio >= 1.0 ? 1.0 : GradeRow(grade).cutoff),
      beta_(ratio >= 1.0 ? 9.0 : GradeRow(grade).beta) {
  table_.assign(size_t(kPhases + 1) * stride_, 0.0);
  for (uint32_t row = 0; row <= kPhases; ++row) table_[size_t(row) * stride_] = std::numeric_limits<double>::quiet_NaN();
}

uint32_t FirSource::FilledRows() const {
  uint32_t filled = 0;
  for (uint32_t row = 0; row <= kPhases; ++row) filled += !std::isnan(table_[size_t(row) * stride_]);
  return filled;
}

const double* FirSource::Row(uint32_t row) {
  double* h = &table_[size_t(row) * stride_];
  if (std::isnan(h[0])) FillRow(row);
  return h;
}

void FirSource::FillRow(uint32_t row) {
  double* h = &table_[size_t(row) * stride_];
  const double q = double(row) / kPhases;
  const double quarterBetaSquared = beta_ * beta_ * 0.25;
  const double inverseI0Beta = 1.0 / BesselI0(quarterBetaSquared);
  const double inverseSpan = 1.0 / (taps_ * scale_);
  uint32_t k = 0;
  if (q == 0.0) {
    h[0] = cutoff_;  // the limit of sin(w x cutoff) / w
    k = 1;
  }
  for (; k < taps_; ++k) {
    const double u = (k + q) * scale_;
    const double w = u * kPi;
    const double v = u * inverseSpan;
    const double window = BesselI0((1.0 - v * v) * quarterBetaSquared) * inverseI0Beta;
    h[k] = std::sin(w * cutoff_) / w * window;
  }
  for (k = taps_; k < stride_; ++k) h[k] = 0.0;
}

double FirSource::Dot(uint32_t n, double phase, const float* x, int step) {
  const double p = phase * kPhases;
  const uint32_t row = std::min(uint32_t(p), kPhases);
  const double f = p - row;
  const double* low = Row(row);
  const double* high = Row(std::min(row + 1, kPhases));
  double lowSum = 0.0;
  if (f == 0.0) {
    for (uint32_t k = 0; k < n; ++k) lowSum += double(x[ptrdiff_t(k) * step]) * low[k];
    return lowSum;
  }
  double highSum = 0.0;
  for (uint32_t k = 0; k < n; ++k) {
    const double value = x[ptrdiff_t(k) * step];
    lowSum += value * low[k];
    highSum += value * high[k];
  }
  return f * highSum + (1.0 - f) * lowSum;
}

double FirSource::Sample(uint32_t c, uint32_t i, double t) {
  const float* x = channels_[c] + i;
  return (Dot(taps_, t, x, -1) + Dot(taps_ - 1, 1.0 - t, x + 1, +1)) * scale_;
}

std::unique_ptr<ResampleSource> MakeResampleSource(const WaveData& data, int mode, unsigned bits, double ratio) {
  if (const int grade = FirGradeOf(mode, bits)) return std::make_unique<FirSource>(data, grade, ratio);
  if (mode == kResampleNearest) return std::make_unique<NearestSource>(data);
  if (mode == kResampleCubic) return std::make_unique<CubicSource>(data);
  return std::make_unique<LinearSource>(data);
}

WaveData* ResampleBlock(const WaveData& source, double ratio, uint32_t newLength, float newRate, int mode, unsigned bits) {
  WaveData* out = WaveData::Create(newLength, source.channels, newRate, true);
  if (!out) {
    SetLastError("Out of memory");
    return nullptr;
  }
  std::unique_ptr<ResampleSource> reader;
  try {
    reader = MakeResampleSource(source, mode, bits, ratio);
  } catch (const std::bad_alloc&) {
    return out;  // the frames stay silent rather than stop the run
  }
  const double step = 1.0 / ratio;
  const uint32_t channels = source.channels;
  // Past the last frame the padding reads zeros; the index never runs beyond it.
  const uint32_t lastIndex = source.frames;
  double position = 0.0;
  for (uint32_t i = 0; i < newLength; ++i) {
    uint32_t index = uint32_t(position);
    double fraction = double(float(position - index));
    if (index > lastIndex || (index == lastIndex && fraction > 0.0)) {
      index = lastIndex;
      fraction = 0.0;
    }
    float* frame = out->samples + size_t(i) * channels;
    for (uint32_t c = 0; c < channels; ++c) frame[c] = float(std::clamp(reader->Sample(c, index, fraction), -1.0, 1.0));
    position += step;
  }
  return out;
}

void ScaleLoopAndMarkers(Waveform& wave, double ratio) {
  LoopInfo& loop = wave.loop;
  if (loop.end != kLoopEndUnset) {
    const float r = float(ratio);
    if (loop.start == std::trunc(loop.start) && loop.end == std::trunc(loop.end)) {
      // The length is rounded once, not as the difference of two rounded ends.
      const float start = std::trunc(loop.start * r + 0.5f);
      const float length = std::trunc(loop.end * r - loop.start * r + 0.5f);
      loop.start = start;
      loop.end = start + length;
    } else {
      loop.start *= r;
      loop.end *= r;
    }
  }
  for (Marker& marker : wave.markers) {
    marker.start = uint32_t(std::trunc(marker.start * ratio + 0.5));
    if (marker.section) marker.end = uint32_t(std::trunc(marker.end * ratio + 0.5));
  }
}

void ScaleRegionLoops(Collection& collection, const Waveform& wave, double ratio) {
  for (Region* region : collection.All<Region>()) {
    if (region->GetWave() != &wave) continue;
    if (region->overrideFlags & Region::kOverrideLoopStart) region->loop.start = float(region->loop.start * ratio);
    if (region->overrideFlags & Region::kOverrideLoopEnd) region->loop.end = float(region->loop.end * ratio);
  }
}

bool Resample(Waveform& destination, Waveform& source, double ratio, uint32_t newLength, uint32_t newRate, int mode) {
  if (!source.Preload() || !source.Data()) {
    if (LastError().empty()) SetLastError("Zero length");
    return false;
  }
  if (ratio == 1.0 && &destination == &source) return true;
  if (!(ratio > 0.0) || newLength == 0) {
    SetLastError("Invalid length or frequency specified");
    return false;
  }
  WaveData* fresh = nullptr;
  if (ratio == 1.0) {
    const WaveData& data = *source.Data();
    fresh = WaveData::Create(data.frames, data.channels, data.rate, false);
    if (fresh) std::copy_n(data.samples, size_t(data.frames) * data.channels, fresh->samples);
    else SetLastError("Out of memory");
  } else {
    fresh = ResampleBlock(*source.Data(), ratio, newLength, float(newRate), mode, source.bits);
  }
  if (!fresh) return false;
  if (&destination != &source) {
    destination.loop = source.loop;
    destination.markers = source.markers;
  }
  ReplaceWaveData(destination, fresh);
  destination.sampleRate = newRate;
  if (ratio != 1.0) ScaleLoopAndMarkers(destination, ratio);
  return true;
}

bool ResampleToLength(Waveform& destination, Waveform& source, uint32_t newLength, int mode, Collection* collection) {
  if (source.length == 0) {
    SetLastError("Zero length");
    return false;
  }
  const double ratio = double(newLength) / source.length;
  if (!Resample(destination, source, ratio, newLength, uint32_t(source.sampleRate * ratio), mode)) return false;
  if (collection && &destination == &source) ScaleRegionLoops(*collection, destination, ratio);
  return true;
}

bool ResampleToRate(Waveform& destination, Waveform& source, uint32_t newRate, int mode, Collection* collection) {
  if (source.sampleRate == 0) {
    SetLastError("Invalid length or frequency specified");
    return false;
  }
  const double ratio = double(newRate) / source.sampleRate;
  if (!Resample(destination, source, ratio, uint32_t(source.length * ratio), newRate, mode)) return false;
  if (collection && &destination == &source) ScaleRegionLoops(*collection, destination, ratio);
  return true;
}

WaveData* ConvertRateFir(const WaveData& source, uint32_t targetRate) {
  const double ratio = double(targetRate) / source.rate;
  const uint64_t frames = std::max<uint64_t>(1, uint64_t(source.frames * ratio));
  if (frames * source.channels > kMaxWaveValues) {
    SetLastError("Wave would be too big for the 32-bit app");
    return nullptr;
  }
  return ResampleBlock(source, ratio, uint32_t(frames), float(targetRate), kResampleFir16, 16);
}

}  // namespace orlin
