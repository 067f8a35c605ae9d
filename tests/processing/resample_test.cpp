// The resampler: its filters' shapes, what it reads beyond the ends, how loops and markers follow,
// and the S/N each FIR grade reaches on a sine, with sox's resampler measured beside it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "helpers.h"
#include "processing/resample.h"

namespace orlin::test {
namespace {

WaveData* Block(const std::vector<float>& samples, uint32_t rate = 44100) {
  WaveData* data = WaveData::Create(uint32_t(samples.size()), 1, float(rate), false);
  std::copy(samples.begin(), samples.end(), data->samples);
  return data;
}

TEST(Resample, SameWaveAtRatioOneKeepsItsSourceAndAnotherGetsACopy) {
  ORLIN_REQUIRE_TESTDATA();
  Collection collection;
  Waveform* wave = LoadCorpusWave(collection, "audio/real/send.wav");
  ASSERT_NE(wave, nullptr);
  ASSERT_NE(wave->decoder, nullptr);
  const WaveData* before = wave->Data();
  ASSERT_TRUE(Resample(*wave, *wave, 1.0, wave->length, wave->sampleRate, kResampleFir16));
  EXPECT_EQ(wave->Data(), before);
  EXPECT_NE(wave->decoder, nullptr);

  Waveform copy(&collection);
  ASSERT_TRUE(Resample(copy, *wave, 1.0, wave->length, wave->sampleRate, kResampleFir16));
  EXPECT_NE(copy.Data(), before);
  EXPECT_EQ(Samples(copy), Samples(*wave));

  // Any other ratio makes the wave its own: the file no longer backs it.
  ASSERT_TRUE(ResampleToRate(*wave, *wave, wave->sampleRate / 2, kResampleCubic, &collection));
  EXPECT_EQ(wave->decoder, nullptr);
  EXPECT_EQ(wave->length, copy.length / 2);
  // A rate so low that no frame is left is refused, and the wave stays as it was.
  EXPECT_FALSE(ResampleToRate(*wave, *wave, 1, kResampleFir16, &collection));
  EXPECT_EQ(wave->length, copy.length / 2);
}

// A wave of ones: whatever an interpolator reads beyond either end must be silence, not wrapped
// or repeated data, so the edges come out lower than the middle.
TEST(Resample, ReadsBeyondBothEndsMeetZeros) {
  WaveData* ones = Block(std::vector<float>(400, 1.0f));
  auto linear = MakeResampleSource(*ones, kResampleLinear, 16, 2.0);
  EXPECT_DOUBLE_EQ(linear->Sample(0, 399, 0.5), 0.5);
  EXPECT_DOUBLE_EQ(linear->Sample(0, 200, 0.5), 1.0);
  auto cubic = MakeResampleSource(*ones, kResampleCubic, 16, 2.0);
  // Lagrange weights at one half: -1/16, 9/16, 9/16, -1/16; the missing left point adds 1/16.
  EXPECT_DOUBLE_EQ(cubic->Sample(0, 0, 0.5), 17.0 / 16.0);
  EXPECT_NEAR(cubic->Sample(0, 200, 0.5), 1.0, 1e-12);
  auto nearest = MakeResampleSource(*ones, kResampleNearest, 16, 2.0);
  EXPECT_EQ(nearest->Sample(0, 399, 0.75), 0.0);
  for (int mode = kResampleFir8; mode <= kResampleFir24; ++mode) {
    for (double ratio : {2.0, 0.5}) {
      auto fir = MakeResampleSource(*ones, mode, 16, ratio);
      SCOPED_TRACE(testing::Message() << "mode " << mode << " ratio " << ratio);
      // The padding is the same at both ends, so the two edges mirror each other and stay well
      // below the middle; wrapped or repeated data would read full level there.
      const double start = fir->Sample(0, 0, 0.0), end = fir->Sample(0, 399, 0.0);
      EXPECT_NEAR(start, end, 1e-6);
      EXPECT_NEAR(fir->Sample(0, 200, 0.0), 1.0, 0.01);
      EXPECT_NEAR(fir->Sample(0, 200, 0.5), 1.0, 0.01);
      if (ratio > 1.0) {
        EXPECT_NEAR(fir->Sample(0, 399, 0.5), 0.5, 0.06);  // half way into the silence
      } else {
        EXPECT_LT(start, 0.8);
      }
    }
  }
  ones->Release();
}

TEST(Resample, FirShapesFollowTheGradeAndTheRatio) {
  WaveData* data = Block(std::vector<float>(64, 0.25f));
  const uint32_t baseTaps[] = {8, 17, 34, 132, 499};
  for (int mode = kResampleFir8; mode <= kResampleFir24; ++mode) {
    FirSource up(*data, FirGradeOf(mode, 16), 48000.0 / 44100.0);
    EXPECT_EQ(up.Cutoff(), 1.0);
    EXPECT_EQ(up.Beta(), 9.0);
    EXPECT_EQ(up.Scale(), 1.0);
    EXPECT_EQ(up.Taps(), baseTaps[mode - kResampleFir8]);
    EXPECT_EQ(up.Stride() % 4, 0u);
    EXPECT_GE(up.Stride(), up.Taps());
    // Upsampling at full band: the kernel is zero at every whole frame but the centre.
    EXPECT_EQ(up.Row(0)[0], 1.0);
    EXPECT_NEAR(up.Row(0)[3], 0.0, 1e-15);
  }
  FirSource half(*data, 16, 0.5);
  EXPECT_EQ(half.Taps(), 68u);
  EXPECT_EQ(half.Cutoff(), 0.905);
  EXPECT_EQ(half.Beta(), 9.5);
  EXPECT_EQ(half.Scale(), 0.5);
  // Stretched by two: the kernel at frame 2 is where the unstretched one is at 1, so it has its
  // first zero crossing twice as far out (1 / (cutoff x scale) = 2.21 frames).
  EXPECT_GT(half.Row(0)[2], 0.0);
  EXPECT_LT(half.Row(0)[3], 0.0);
  // Rows are filled on demand only: reading one phase fills its row and the next.
  EXPECT_EQ(half.FilledRows(), 1u);
  half.Sample(0, 10, 0.25);
  EXPECT_LE(half.FilledRows(), 5u);

  EXPECT_EQ(FirGradeOf(kResampleFirAuto, 24), 20);
  EXPECT_EQ(FirGradeOf(kResampleFirAuto, 16), 16);
  EXPECT_EQ(FirGradeOf(kResampleFirAuto, 8), 16);
  EXPECT_EQ(FirGradeOf(kResampleCubic, 24), 0);
  auto autoSource = MakeResampleSource(*data, kResampleFirAuto, 24, 2.0);
  EXPECT_EQ(dynamic_cast<FirSource&>(*autoSource).Taps(), 132u);
  data->Release();
}

TEST(Resample, LoopsMarkersAndRegionOverridesFollow) {
  Collection collection;
  Waveform* wave = MakeWave(collection, std::vector<float>(1000, 0.1f), 1, 44100);
  wave->loop = {1, 0, 100.5f, 200.0f};
  wave->markers.push_back({0, 333, 0, "cue"});
  wave->markers.push_back({1, 101, 301, "section"});
  auto* region = new Region(&collection, MakeId(ItemType::Region, kNextFreeIndex), wave->id, kRangeNotGiven,
                            kRangeNotGiven, -1);
  region->overrideFlags |= Region::kOverrideLoopEnd;
  region->loop.end = 800.0f;
  ASSERT_TRUE(ResampleToRate(*wave, *wave, 22050, kResampleFir16, &collection));
  EXPECT_EQ(wave->length, 500u);
  EXPECT_EQ(wave->sampleRate, 22050u);
  EXPECT_EQ(wave->loop.start, 50.25f);
  EXPECT_EQ(wave->loop.end, 100.0f);
  EXPECT_EQ(wave->markers[0].start, 167u);  // 166.5 rounds up
  EXPECT_EQ(wave->markers[1].start, 51u);
  EXPECT_EQ(wave->markers[1].end, 151u);
  EXPECT_EQ(region->loop.end, 400.0f);

  // Whole points: the length is rounded once. 101..202 at one half: start 51, length 51.
  wave->loop = {1, 0, 101.0f, 202.0f};
  ScaleLoopAndMarkers(*wave, 0.5);
  EXPECT_EQ(wave->loop.start, 51.0f);
  EXPECT_EQ(wave->loop.end, 102.0f);
  wave->loop = {1, 0, 100.0f, 200.0f};
  ScaleLoopAndMarkers(*wave, 0.5);
  EXPECT_EQ(wave->loop.start, 50.0f);
  EXPECT_EQ(wave->loop.end, 100.0f);
}

// S/N in dB of `got` against the sine it should hold, away from both ends.
double SineSnr(const std::vector<float>& got, double frequency, double rate, double amplitude, size_t margin) {
  double signal = 0.0, error = 0.0;
  for (size_t i = margin; i + margin < got.size(); ++i) {
    const double ideal = amplitude * std::sin(2.0 * M_PI * frequency * double(i) / rate);
    signal += ideal * ideal;
    error += (got[i] - ideal) * (got[i] - ideal);
  }
  return 10.0 * std::log10(signal / std::max(error, 1e-300));
}

// Each FIR grade promises the S/N of its name (6.02 dB a bit); a 1 kHz sine from 44.1 to 48 kHz
// must reach it. sox's figure is measured in the same run and printed beside ours.
TEST(Resample, EachFirGradeReachesItsPromisedSnr) {
  ORLIN_REQUIRE_TOOL("sox");
  const double amplitude = 0.5;
  std::vector<float> sine(44100);
  for (size_t i = 0; i < sine.size(); ++i) sine[i] = float(amplitude * std::sin(2.0 * M_PI * 1000.0 * double(i) / 44100.0));
  WaveData* data = Block(sine);
  const size_t margin = 2000;
  const std::vector<float> sox = RunSox(sine, 1, 44100, "rate -v 48000", nullptr, 0, 48000);
  const double soxSnr = SineSnr(sox, 1000.0, 48000.0, amplitude, margin);
  std::printf("sox -v: %.1f dB\n", soxSnr);
  EXPECT_GT(soxSnr, 120.0);  // the reference itself is sound
  const std::vector<float> soxQuick = RunSox(sine, 1, 44100, "rate -q 48000", nullptr, 0, 48000);
  std::printf("sox -q: %.1f dB\n", SineSnr(soxQuick, 1000.0, 48000.0, amplitude, margin));
  // The polynomial modes promise nothing; their figures are for the documentation.
  for (int mode = kResampleNearest; mode <= kResampleCubic; ++mode) {
    WaveData* out = ResampleBlock(*data, 48000.0 / 44100.0, 48000, 48000.0f, mode, 16);
    ASSERT_NE(out, nullptr);
    std::printf("mode %d: %.1f dB\n", mode,
                SineSnr(std::vector<float>(out->samples, out->samples + out->frames), 1000.0, 48000.0, amplitude, margin));
    out->Release();
  }
  const int promise[] = {8, 12, 16, 20, 24};
  for (int mode = kResampleFir8; mode <= kResampleFir24; ++mode) {
    WaveData* out = ResampleBlock(*data, 48000.0 / 44100.0, 48000, 48000.0f, mode, 16);
    ASSERT_NE(out, nullptr);
    const std::vector<float> got(out->samples, out->samples + out->frames);
    out->Release();
    const double snr = SineSnr(got, 1000.0, 48000.0, amplitude, margin);
    const int bits = promise[mode - kResampleFir8];
    std::printf("grade %d: %.1f dB\n", bits, snr);
    // The 2049-phase table read by a linear blend between neighbouring phases sets a floor near
    // 128 dB whatever the taps, so grade 24 is held to that floor.
    EXPECT_GT(snr, std::min(6.02 * bits, 125.0)) << "grade " << bits;
  }
  data->Release();
}

}  // namespace
}  // namespace orlin::test
