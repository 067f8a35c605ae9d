// Changing a wave's number of frames by a real ratio, with one of nine interpolators, carrying the
// loop, the markers and the region loop overrides along. Nearest, linear and cubic are plain
// polynomial taps; the FIR grades are Kaiser-windowed sinc filters named by the S/N they reach; the
// auto mode picks grade 16 or 20 by the wave's bit depth.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "core/collection.h"
#include "processing/wizard.h"

namespace orlin {

enum ResampleMode : int {
  kResampleNearest = 0,
  kResampleLinear = 1,
  kResampleCubic = 2,
  kResampleFir8 = 3,
  kResampleFir12 = 4,
  kResampleFir16 = 5,
  kResampleFir20 = 6,
  kResampleFir24 = 7,
  kResampleFirAuto = 8,
};
constexpr int kResampleModeCount = 9;
extern const char* const kResampleModeTexts[kResampleModeCount];

// The FIR grade (8..24) a mode stands for with a wave of `bits` per sample; 0 for the polynomial
// modes. An unknown mode acts as linear.
int FirGradeOf(int mode, unsigned bits);

// The interpolators' common base: each channel de-interleaved to float with `preTaps` zero frames
// ahead of the data and `postTaps + 1` after it, so reads around both ends meet silence.
class ResampleSource {
 public:
  ResampleSource(const WaveData& data, uint32_t preTaps, uint32_t postTaps);
  virtual ~ResampleSource() = default;
  // The value between frames `index` and `index + 1` at `fraction` (0 <= fraction < 1).
  virtual double Sample(uint32_t channel, uint32_t index, double fraction) = 0;

 protected:
  std::vector<std::vector<float>> arrays_;
  std::vector<const float*> channels_;  // each channel's first real frame
};

// The Kaiser-windowed sinc: a table of 2049 phases, each row filled on first use.
class FirSource : public ResampleSource {
 public:
  FirSource(const WaveData& data, int grade, double ratio);
  double Sample(uint32_t channel, uint32_t index, double fraction) override;

  uint32_t Taps() const { return taps_; }
  uint32_t Stride() const { return stride_; }
  double Scale() const { return scale_; }
  double Cutoff() const { return cutoff_; }
  double Beta() const { return beta_; }
  // How many of the 2049 rows have been filled so far.
  uint32_t FilledRows() const;
  // The kernel row for `row` / 2048, filled if needed.
  const double* Row(uint32_t row);

 private:
  double Dot(uint32_t n, double phase, const float* x, int step);
  void FillRow(uint32_t row);

  std::vector<double> table_;
  uint32_t stride_ = 0;
  uint32_t taps_ = 0;
  double scale_ = 1.0;
  double cutoff_ = 1.0;
  double beta_ = 9.0;
};

// The interpolator for `mode`; `bits` decides the auto grade.
std::unique_ptr<ResampleSource> MakeResampleSource(const WaveData& data, int mode, unsigned bits, double ratio);

// A new block of `newLength` frames at `newRate` read from `source` at step 1 / ratio, clamped to
// -1..1. Null with "Out of memory" when the block cannot be had.
WaveData* ResampleBlock(const WaveData& source, double ratio, uint32_t newLength, float newRate, int mode, unsigned bits);

// `destination` and `source` may be the same wave. Ratio exactly 1.0 onto the same wave does nothing.
bool Resample(Waveform& destination, Waveform& source, double ratio, uint32_t newLength, uint32_t newRate, int mode);
bool ResampleToLength(Waveform& destination, Waveform& source, uint32_t newLength, int mode, Collection* collection);
bool ResampleToRate(Waveform& destination, Waveform& source, uint32_t newRate, int mode, Collection* collection);
// Multiplies the loop start and end overrides of every region of `collection` that plays `wave`.
void ScaleRegionLoops(Collection& collection, const Waveform& wave, double ratio);
// The wave's loop (whole points rounded so the length is rounded once; fractional ones kept
// fractional) and markers, scaled by `ratio`.
void ScaleLoopAndMarkers(Waveform& wave, double ratio);

// The rate converter the frame uses wherever a wave must change rate (grade 16).
WaveData* ConvertRateFir(const WaveData& source, uint32_t targetRate);

// The "Resample" row. Length and rate 0 mean "not given": with one wave the other follows from the
// one given; with several only the rate counts.
struct ResampleSettings {
  int mode = kResampleFirAuto;
  int length = 0;  // frames
  int rate = 0;    // Hz
  bool onlyDownsample = false;
};
void ResetResampleSettings();
bool RunResample(ProcessingWizard& wizard);
std::span<const SettingInfo> ResampleSettingList();

}  // namespace orlin
