// Envelopes, LFOs, filter sections and EQ stages, tested by the properties a listener would hear:
// times and levels of the envelope walk, LFO swing and delay, and filter responses measured with
// sines against the textbook responses within a tolerance in dB.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "synth/dsp.h"

namespace orlin::synth {
namespace {

EnvelopeRecord DefaultVolumeEnvelope() {
  const Articulation& defaults = DefaultArticulation();
  return defaults.GetEnvelope(0);
}

// Gain in dB of a section at `hz`, measured with a sine after the section settled.
template <typename Section>
double ResponseDb(Section& section, double hz, double rate = 44100.0) {
  const int frames = 44100;
  std::vector<float> signal(frames);
  for (int i = 0; i < frames; ++i) signal[size_t(i)] = float(std::sin(2.0 * M_PI * hz * i / rate));
  for (int i = 0; i < frames; i += kBlockFrames) section.Process(signal.data() + i, std::min(kBlockFrames, frames - i), 1);
  double in = 0, out = 0;
  for (int i = frames / 2; i < frames; ++i) {
    const double x = std::sin(2.0 * M_PI * hz * i / rate);
    in += x * x;
    out += double(signal[size_t(i)]) * signal[size_t(i)];
  }
  return 10.0 * std::log10(out / in);
}

TEST(SynthEnvelope, DefaultVolumeEnvelopeRisesAtOnceAndHolds) {
  EnvelopeState env;
  env.Setup(DefaultVolumeEnvelope(), 60, 1.0f, 44100.0f / 64, true, false);
  // Attack 2 to 1.0 with the 1 ms guard: one block at this rate.
  EXPECT_NEAR(env.Tick(), 1.0f, 1e-6f);
  for (int i = 0; i < 1000; ++i) ASSERT_NEAR(env.Tick(), 1.0f, 1e-6f);
  EXPECT_FALSE(env.Finished());
  EXPECT_LT(env.stage, env.releaseStage);
  // The release guard: 2 ms from full level at least, then silence and the end.
  env.Release();
  int ticks = 0;
  while (!env.Finished() && ticks < 100) env.Tick(), ++ticks;
  EXPECT_TRUE(env.Finished());
  EXPECT_GE(ticks, 1);
  EXPECT_LE(ticks, 4);
  EXPECT_NEAR(env.CurrentLevel(), 0.0f, 1e-6f);
}

TEST(SynthEnvelope, NoSustainAndNoReleaseLevelsEndWithoutKeyUp) {
  EnvelopeRecord record = DefaultVolumeEnvelope();
  record.times[2] = 0.5f;   // decay 1
  record.levels[3] = 0.0f;  // decay 1 level
  record.levels[4] = 0.0f;  // sustain
  EnvelopeState env;
  env.Setup(record, 60, 1.0f, 100.0f, true, false);
  int ticks = 0;
  while (!env.Finished() && ticks < 1000) env.Tick(), ++ticks;
  EXPECT_TRUE(env.Finished()) << "no hold stage: the voice must die after its decays";
  EXPECT_NEAR(ticks, 51, 2);
}

TEST(SynthEnvelope, ReleaseDuringAttackStartsFromTheEquivalentDbLevel) {
  EnvelopeRecord record = DefaultVolumeEnvelope();
  record.times[0] = 1.0f;  // attack 1 over 100 ticks, straight in amplitude
  record.levels[1] = 1.0f;
  record.times[4] = 1.0f;  // release rate: 1 s per unit of level
  EnvelopeState env;
  env.Setup(record, 60, 1.0f, 100.0f, true, false);
  for (int i = 0; i < 50; ++i) env.Tick();
  ASSERT_TRUE(env.gainDomain);
  EXPECT_NEAR(env.level, 0.5f, 1e-4f);  // halfway in amplitude
  env.Release();
  EXPECT_NEAR(env.CurrentLevel(), 0.9373f, 5e-4f);
  // Time = rate * delta-level: 0.9373 of a unit at 1 s a unit.
  int ticks = 0;
  while (!env.Finished() && ticks < 1000) env.Tick(), ++ticks;
  EXPECT_NEAR(ticks, 94, 2);
}

TEST(SynthEnvelope, KeyReleaseRegionsAndOneShotHaveNoReleaseStages) {
  EnvelopeState env;
  env.Setup(DefaultVolumeEnvelope(), 60, 1.0f, 100.0f, true, true);
  EXPECT_EQ(env.releaseStage, 8);
  env.Tick();
  const uint8_t stage = env.stage;
  env.Release();
  EXPECT_EQ(env.stage, stage);
  EnvelopeRecord oneShot = DefaultVolumeEnvelope();
  oneShot.releaseMode = 1.0f;
  env.Setup(oneShot, 60, 1.0f, 100.0f, true, false);
  EXPECT_EQ(env.releaseStage, 8);
}

TEST(SynthEnvelope, VelocityAndKeyScaleTheTimes) {
  EnvelopeRecord record = DefaultVolumeEnvelope();
  record.times[1] = 1.0f;          // attack 2: 100 ticks at neutral velocity and middle C
  record.velocityTo[1] = 4.0f;     // top velocity 4x the time of the bottom one
  record.keyTo[1] = 2.0f;          // twice as long per octave up
  auto attackTicks = [&](float key, float bipolar) {
    EnvelopeState env;
    env.Setup(record, key, bipolar, 100.0f, true, false);
    return env.blocksLeft;
  };
  EXPECT_NEAR(attackTicks(60, 0.0f), 100, 1);
  EXPECT_NEAR(attackTicks(60, 1.0f), 200, 1);
  EXPECT_NEAR(attackTicks(60, -1.0f), 50, 1);
  EXPECT_NEAR(attackTicks(72, 0.0f), 200, 1);
  EXPECT_NEAR(attackTicks(48, 0.0f), 50, 1);
}

TEST(SynthEnvelope, ShutdownFadesFromFullToSilenceAtItsRate) {
  EnvelopeState env;
  const float blockRate = 44100.0f / 64;
  env.Setup(DefaultVolumeEnvelope(), 60, 1.0f, blockRate, true, false);  // shutdown rate 0.015 s
  for (int i = 0; i < 10; ++i) env.Tick();
  env.Shutdown();
  int ticks = 0;
  while (!env.Finished() && ticks < 1000) env.Tick(), ++ticks;
  EXPECT_NEAR(ticks, int(0.015f * blockRate + 0.5f), 1);
}

TEST(SynthLfo, ShapesPolaritiesAndDelay) {
  const float blockRate = 44100.0f / 64;
  LfoState square;
  square.Setup(66, 5.0f, 0.0f, 0.0f, blockRate, true);  // "Square+"
  float lo = 9, hi = -9;
  for (int i = 0; i < 1000; ++i) {
    const float v = square.Tick();
    lo = std::min(lo, v), hi = std::max(hi, v);
  }
  EXPECT_EQ(lo, 0.0f);
  EXPECT_EQ(hi, 1.0f);

  LfoState sine;
  sine.Setup(64, 5.0f, 0.0f, 0.0f, blockRate, true);  // "Sine+" starts at its neutral level and rises
  const float first = sine.Tick(), second = sine.Tick();
  EXPECT_NEAR(first, 0.0f, 1e-6f);
  EXPECT_GT(second, first);

  LfoState delayed;
  delayed.Setup(0, 5.0f, 1.0f, 0.0f, 44100.0f / 64, true);
  for (int i = 0; i < 689; ++i) ASSERT_EQ(delayed.Tick(), 0.0f) << "tick " << i;
  EXPECT_EQ(delayed.phase, 0.0f);
  delayed.Tick();
  EXPECT_GT(delayed.Tick(), 0.0f);
}

TEST(SynthLfo, FrequencyAndFadeIn) {
  const float blockRate = 1000.0f;
  LfoState triangle;
  triangle.Setup(1, 10.0f, 0.0f, 0.5f, blockRate, true);  // 10 Hz, half a second of fade-in
  std::vector<float> values;
  for (int i = 0; i < 2000; ++i) values.push_back(triangle.Tick());
  int rising = 0;
  for (size_t i = 1000; i < values.size(); ++i) rising += values[i - 1] < 0.0f && values[i] >= 0.0f;
  EXPECT_EQ(rising, 10);
  float early = 0, late = 0;
  for (size_t i = 0; i < 100; ++i) early = std::max(early, std::fabs(values[i]));
  for (size_t i = 1000; i < 1100; ++i) late = std::max(late, std::fabs(values[i]));
  EXPECT_LT(early, 0.25f);
  EXPECT_NEAR(late, 1.0f, 1e-3f);
}

TEST(SynthDsp, PolynomialSineMatchesTheLibrary) {
  double worst = 0;
  for (int i = 0; i <= 10000; ++i) {
    const float x = float(i) / 10000.0f;
    worst = std::max(worst, std::fabs(double(PolySine(x)) - std::sin(2.0 * M_PI * x)));
  }
  EXPECT_LT(worst, 2e-6);
}

TEST(SynthFilter, PassThruIsNoFilterAndUnknownTypesAreRefused) {
  VoiceFilter filter;
  EXPECT_FALSE(filter.Setup(0, 0.1f));
  EXPECT_EQ(filter.type, 0);
  EXPECT_FALSE(filter.Setup(13, 0.1f));
  EXPECT_TRUE(filter.Setup(12, 0.1f));
}

TEST(SynthFilter, StateVariableLowPassResponse) {
  const double rate = 44100, cutoff = 1000;
  SvfFilter flat;
  flat.Init(float(cutoff / rate), 2, true);
  flat.Update(0.0f, 0.0f);
  EXPECT_NEAR(ResponseDb(flat, cutoff), 0.0, 0.5) << "resonance 0: flat at cutoff";
  flat.Init(float(cutoff / rate), 2, true);
  flat.Update(0.0f, 0.0f);
  EXPECT_NEAR(ResponseDb(flat, cutoff / 4), 0.0, 0.5);
  flat.Init(float(cutoff / rate), 2, true);
  flat.Update(0.0f, 0.0f);
  EXPECT_NEAR(ResponseDb(flat, cutoff * 4), -24.0, 2.0) << "12 dB per octave";

  SvfFilter resonant;
  resonant.Init(float(cutoff / rate), 2, true);
  resonant.Update(0.0f, 12.0f);
  EXPECT_NEAR(ResponseDb(resonant, cutoff), 12.0, 1.0) << "the resonance is the peak height";

  // A cutoff shift of +12 semitones doubles the cutoff.
  SvfFilter shifted;
  shifted.Init(float(cutoff / rate), 2, true);
  shifted.Update(12.0f, 12.0f);
  EXPECT_NEAR(ResponseDb(shifted, 2 * cutoff), 12.0, 1.0);
}

TEST(SynthFilter, SectionTypesAndSlopes) {
  const double rate = 44100, cutoff = 2000;
  auto response = [&](int type, double hz, float resonance = 0.0f) {
    VoiceFilter filter;
    filter.Setup(type, float(cutoff / rate));
    filter.Update(0.0f, resonance);
    return ResponseDb(filter, hz);
  };
  EXPECT_NEAR(response(1, cutoff), -3.0, 0.6);         // one-pole low-pass
  EXPECT_NEAR(response(1, cutoff * 8), -18.0, 2.5);    // 6 dB per octave
  EXPECT_NEAR(response(5, cutoff), -3.0, 0.8);         // one-pole high-pass
  EXPECT_NEAR(response(5, cutoff / 8), -18.0, 2.5);
  EXPECT_NEAR(response(6, cutoff / 4), -24.0, 2.0);    // 12 dB high-pass
  EXPECT_NEAR(response(6, cutoff * 4), 0.0, 0.5);
  EXPECT_NEAR(response(4, cutoff * 4), -48.0, 4.0);    // 24 dB low-pass
  EXPECT_NEAR(response(3, cutoff * 4), -36.0, 4.0);    // 18 dB low-pass
  EXPECT_NEAR(response(9, cutoff), 0.0, 0.6);          // band-pass peaks at the cutoff
  EXPECT_LT(response(9, cutoff * 8), -15.0);
  EXPECT_LT(response(11, cutoff), -15.0);              // band-reject notches it
  EXPECT_NEAR(response(11, cutoff * 8), 0.0, 0.6);
  // Above half the sample rate the cutoff stops at its limit: any higher cutoff sounds the same.
  auto capped = [&](double hz) {
    VoiceFilter filter;
    filter.Setup(4, float(hz / rate));
    filter.Update(0.0f, 0.0f);
    return ResponseDb(filter, 15000);
  };
  EXPECT_EQ(capped(30000), capped(22050));
  EXPECT_NE(capped(30000), 0.0);
}

TEST(SynthFilter, ResonanceOf96dBRingsButStaysBounded) {
  SvfFilter section;
  section.Init(0.05f, 2, true);
  section.Update(0.0f, 96.0f);
  EXPECT_EQ(section.q, 0.0f);
  std::vector<float> impulse(44100, 0.0f);
  impulse[0] = 1.0f;
  section.Process(impulse.data(), int(impulse.size()), 1);
  float tail = 0;
  for (size_t i = 40000; i < impulse.size(); ++i) tail = std::max(tail, std::fabs(impulse[i]));
  EXPECT_GT(tail, 0.01f);
  EXPECT_TRUE(std::isfinite(tail));
  EXPECT_LT(tail, 10.0f);
}

TEST(SynthEq, PeakAndShelvesReachTheirGains) {
  const float rate = 44100;
  BiquadStage peak;
  peak.SetEq(kEqPeak, 1000, 12, 1.0f, rate);
  EXPECT_NEAR(ResponseDb(peak, 1000), 12.0, 0.2);
  peak.SetEq(kEqPeak, 1000, 12, 1.0f, rate);
  EXPECT_NEAR(ResponseDb(peak, 100), 0.0, 0.5);
  BiquadStage low;
  low.SetEq(kEqLowShelf, 200, 6, 0.71f, rate);
  EXPECT_NEAR(ResponseDb(low, 30), 6.0, 0.5);
  low.SetEq(kEqLowShelf, 200, 6, 0.71f, rate);
  EXPECT_NEAR(ResponseDb(low, 8000), 0.0, 0.3);
  BiquadStage high;
  high.SetEq(kEqHighShelf, 3000, -6, 0.71f, rate);
  EXPECT_NEAR(ResponseDb(high, 15000), -6.0, 0.5);
  high.SetEq(kEqHighShelf, 3000, -6, 0.71f, rate);
  EXPECT_NEAR(ResponseDb(high, 100), 0.0, 0.3);
}

}  // namespace
}  // namespace orlin::synth
