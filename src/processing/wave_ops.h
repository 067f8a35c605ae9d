// The wave primitives every audio algorithm builds on: level conversions, deleting and inserting
// frames, channel conversions, maximizing, fades, silence removal and splitting. Samples are
// interleaved 32-bit floats; counts are frames unless named otherwise. A primitive that changes the
// length or layout builds a fresh WaveData block and swaps it in, so a failure leaves the old data.
// Loop points, markers and the offsets and loop overrides of the regions that play a wave follow
// every length change.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/collection.h"

namespace orlin {

// More sample values (frames x channels) than this give "Wave would be too big for the 32-bit app".
constexpr uint64_t kMaxWaveValues = 0x10000000;

// The shared level conversions. DbToGain(12) is 5.0 by the stored table while GainToDb(4) is 12.
double DbToGain(double db);
double GainToDb(double gain);

// Swaps `fresh` (a block of reference count 1, which the wave takes over) in for the wave's data.
// Frames, channels and rate follow the block; the wave is free of its source file afterwards.
void ReplaceWaveData(Waveform& wave, WaveData* fresh);
// Samples for an in-place edit: decoded, private to this wave (a shared block is copied first) and
// freed from the source file. Null with the last-error text on failure.
float* WritableSamples(Waveform& wave);

// Removes frames [first, last); `last` is clamped to the length. False when nothing would be cut or
// the whole wave would go.
bool DeleteFrames(Waveform& wave, uint32_t first, uint32_t last);
// Inserts `count` frames at `position`: silence when `source` is null, else frames of `source` from
// `sourceStart` (count 0 with a source: to its end). See the rules of a source of another rate in
// the implementation.
bool InsertFrames(Waveform& wave, uint32_t position, Waveform* source, uint32_t sourceStart, uint32_t count);

// Conversions of channel layout. Modes as in the tables of the "Convert to mono/stereo" rows.
enum MonoMode : int { kMonoAverage = 0, kMonoLeft = 1, kMonoRight = 2, kMonoSplit = 3, kMonoIfIdentical = 4 };
enum StereoMode : int { kStereoDuplicate = 0, kStereoLeftOnly = 1, kStereoRightOnly = 2, kStereoThisLeft = 3, kStereoThisRight = 4 };
// `outSecond` receives the right-channel clone of kMonoSplit. `changed` (optional) tells whether
// the wave was converted: kMonoIfIdentical leaves differing waves alone and still succeeds.
bool ToMono(Waveform& wave, int mode, Waveform** outSecond = nullptr, bool* changed = nullptr);
bool ToStereo(Waveform& wave, int mode, Waveform* other = nullptr);

enum MaximizeMode : int { kMaximizeFullSwing = 0, kMaximizeKeepZero = 1, kMaximizeKeepMean = 2 };
// Scales to full level with no clamping. `changed` is false when the wave already stands at full
// level. Mode 1 on an all-zero wave fails with an empty last-error text.
bool Maximize(Waveform& wave, int mode, bool* changed = nullptr);

enum FadeShape : int { kFadeLinearIn = 0, kFadeExponentialIn = 1, kFadeLinearOut = 2, kFadeLogarithmicOut = 3 };
// Fades frames [first, min(last, length)) with gains that never reach 0 or 1 inside the range.
bool FadeRange(Waveform& wave, uint32_t first, uint32_t last, int shape);

// Gain in decibels over [first, last), clamped to -1..1; first -1 means the whole wave.
bool ApplyGainDb(Waveform& wave, double db, int64_t first = -1, int64_t last = -1);

// Silence removal. `threshold` is a linear level; `deleted` is set when the wave was all silence
// and removed (the Waveform object is gone then); `changed` when samples were removed.
struct RemoveSilenceResult {
  bool changed = false;
  bool deleted = false;
};
bool RemoveSilence(Waveform& wave, bool fromStart, bool fromEnd, bool anywhere, double threshold,
                   double minSilenceSeconds, bool smooth, bool deleteIfSilent, bool zeroCross,
                   RemoveSilenceResult* result = nullptr);

// One planned piece of a split.
struct SplitRecord {
  uint32_t start = 0;    // first frame of the piece in the source
  uint32_t end = 0;      // first frame after it
  uint32_t fadeIn = 0;   // frames
  uint32_t fadeOut = 0;  // frames
  std::string name;
  Waveform* wave = nullptr;
};
constexpr size_t kMaxSplitPieces = 999;

// Finds the pieces of sound between silences (levels linear) and makes each a new wave, added to
// `result` in order. False when there is nothing to split or more than 999 pieces: then nothing
// changes at all.
bool SplitWave(Waveform& wave, double trig, double release, double minTrigSeconds, double minReleaseSeconds,
               double fadeInSeconds, double fadeOutSeconds, bool zeroCross, bool keepPostRelease, bool remapRegions,
               bool replaceFirst, std::vector<Waveform*>& result);
// Makes the planned pieces (names set) into waves: shared by SplitWave and the section split.
bool MakeSplitWaves(Waveform& wave, std::vector<SplitRecord>& pieces, bool remapRegions, bool replaceFirst,
                    std::vector<Waveform*>& result);

// The regions of the wave's collection that play it.
std::vector<Region*> RegionsPlaying(const Waveform& wave);

// Converts a wave's samples to another rate: the resampler's grade 16 FIR unless another converter
// is set (null restores it). It returns a new block of reference count 1, or null.
using RateConverter = WaveData* (*)(const WaveData& source, uint32_t targetRate);
void SetRateConverter(RateConverter converter);
WaveData* ConvertRate(const WaveData& source, uint32_t targetRate);

}  // namespace orlin
