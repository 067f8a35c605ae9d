// The voice engine on generated instruments: note-on rules (exclusion, stealing, round robin,
// release triggers), loops and their release, stereo fusion, the silent block, and pitch measured
// from the rendered output at every key with bend, RPN tunings and loop tuning.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <thread>

#include "synth_test_support.h"
#include "test_support.h"

namespace orlin::synth {
namespace {

using test::GeneratedBank;

constexpr int kRate = 48000;

uint32_t NoteOnMsg(int key, int velocity, int channel = 0) { return PackMessage(0x90 | channel, key, velocity); }
uint32_t NoteOffMsg(int key, int channel = 0) { return PackMessage(0x80 | channel, key, 0); }
uint32_t Cc(int controller, int value, int channel = 0) { return PackMessage(0xB0 | channel, controller, value); }

void Blocks(SynthEngine& engine, int count, std::vector<float>* out = nullptr) {
  float block[2 * kBlockFrames];
  for (int i = 0; i < count; ++i) {
    engine.RenderBlock(block);
    if (out) out->insert(out->end(), block, block + 2 * kBlockFrames);
  }
}

// One looped sine region over all keys.
Instrument* SineInstrument(GeneratedBank& bank, int program = 0) {
  Waveform* wave = bank.Sine(440.0, kRate, 4800, 0, 4800);
  wave->rootKey = 69;
  Instrument* instrument = bank.NewInstrument(program);
  instrument->AddRegion(wave->id, kFullRange, kFullRange, -1);
  return instrument;
}

Region* OnlyRegion(Instrument* instrument) {
  Layer* layer = ChildrenOf<Layer>(*instrument).front();
  return ChildrenOf<Region>(*layer).front();
}

TEST(SynthEngine, SelfExclusiveNotesShutDownInShutdownRateAndNonExclusiveOnesStack) {
  for (const bool exclusive : {true, false}) {
    GeneratedBank bank;
    Instrument* instrument = SineInstrument(bank);
    OnlyRegion(instrument)->SetParam(203, exclusive ? 0.0f : 1.0f);
    SynthEngine engine(16, 32, 1.0f, 44100, 1);
    engine.SelectInstrument(0, engine.LoadInstrument(*instrument));
    engine.Dispatch(NoteOnMsg(60, 100));
    Blocks(engine, 50);
    engine.Dispatch(NoteOnMsg(60, 100));
    EXPECT_EQ(engine.VoiceCount(), 2);
    int blocks = 0;
    while (engine.VoiceCount() > 1 && blocks < 200) Blocks(engine, 1), ++blocks;
    if (exclusive) {
      // 0.015 s at 689 blocks a second: ten blocks from full level to silence, and one to notice.
      EXPECT_GE(blocks, 9);
      EXPECT_LE(blocks, 13);
    } else {
      EXPECT_EQ(engine.VoiceCount(), 2);
    }
  }
}

TEST(SynthEngine, StealingKillsExactlyEnoughOfTheQuietestNotes) {
  GeneratedBank bank;
  Instrument* single = SineInstrument(bank, 0);
  Instrument* triple = bank.NewInstrument(1);
  for (int i = 0; i < 3; ++i) triple->AddRegion(bank.Sine(220.0 * (i + 1), kRate, 4800, 0, 4800)->id, kFullRange, kFullRange, 60);
  SynthEngine engine(16, 128, 1.0f, kRate, 1);
  engine.SelectInstrument(0, engine.LoadInstrument(*single));
  engine.SelectInstrument(1, engine.LoadInstrument(*triple));
  // 128 notes, each key louder than the one below it.
  for (int key = 0; key < 128; ++key) engine.Dispatch(NoteOnMsg(key, 1 + key % 127));
  Blocks(engine, 4);
  ASSERT_EQ(engine.VoiceCount(), 128);
  engine.Dispatch(NoteOnMsg(60, 127, 1));
  EXPECT_EQ(engine.VoiceCount(), 128);
  std::set<int> keys;
  int chordVoices = 0;
  for (int i = 0; i < engine.VoiceCount(); ++i) {
    if (engine.GetVoice(i).channel == 0) keys.insert(int(engine.GetVoice(i).key));
    else ++chordVoices;
  }
  EXPECT_EQ(chordVoices, 3);
  EXPECT_EQ(keys.size(), 125u);
  // Keys 0 and 127 share the lowest velocity: the older goes first, then the other, then key 1.
  for (int gone : {0, 127, 1}) EXPECT_FALSE(keys.count(gone)) << gone;
  EXPECT_TRUE(keys.count(2));
}

TEST(SynthEngine, RoundRobinPlaysOneTwoThreeOne) {
  GeneratedBank bank;
  Instrument* instrument = bank.NewInstrument(0);
  std::vector<uint32_t> owners;
  for (int i = 0; i < 3; ++i) {
    Region* region = instrument->AddRegion(bank.Sine(440.0, kRate, 4800)->id, kFullRange, kFullRange, 60);
    region->SetParam(189, 2.0f);  // "Alternate Gr.1"
    owners.push_back(region->id);
  }
  SynthEngine engine(16, 32, 1.0f, kRate, 1);
  engine.SelectInstrument(0, engine.LoadInstrument(*instrument));
  std::vector<uint32_t> played;
  for (int press = 0; press < 4; ++press) {
    engine.Dispatch(NoteOnMsg(60, 100));
    ASSERT_EQ(engine.VoiceCount(), 1);
    played.push_back(engine.GetVoice(0).region->ownerId);
    engine.Dispatch(Cc(120, 0));
  }
  EXPECT_EQ(played, (std::vector<uint32_t>{owners[0], owners[1], owners[2], owners[0]}));
}

TEST(SynthEngine, VelocityZeroIsNoteOffAndReleaseTriggersPlay) {
  GeneratedBank bank;
  Instrument* instrument = SineInstrument(bank);
  Region* release = instrument->AddRegion(bank.Sine(880.0, kRate, 4800)->id, kFullRange, kFullRange, 60);
  release->SetParam(189, 1.0f);  // "Key Release"
  SynthEngine engine(16, 32, 1.0f, kRate, 1);
  engine.SelectInstrument(0, engine.LoadInstrument(*instrument));
  engine.Dispatch(NoteOnMsg(60, 100));
  ASSERT_EQ(engine.VoiceCount(), 1);
  engine.Dispatch(NoteOnMsg(60, 0));
  ASSERT_EQ(engine.VoiceCount(), 2);
  EXPECT_TRUE(engine.GetVoice(0).released);
  EXPECT_EQ(engine.GetVoice(1).region->ownerId, release->id);
  EXPECT_FLOAT_EQ(engine.GetVoice(1).velocity, 100.0f / 127.0f);
  // A key never pressed: the release region plays at velocity 64.
  engine.Dispatch(Cc(120, 0));
  engine.Dispatch(NoteOffMsg(61));
  ASSERT_EQ(engine.VoiceCount(), 1);
  EXPECT_FLOAT_EQ(engine.GetVoice(0).velocity, 64.0f / 127.0f);
}

TEST(SynthEngine, SustainHoldsAndSostenutoHoldsOnlyNotesDownAtThePress) {
  GeneratedBank bank;
  SynthEngine engine(16, 32, 1.0f, kRate, 1);
  engine.SelectInstrument(0, engine.LoadInstrument(*SineInstrument(bank)));
  engine.Dispatch(Cc(64, 127));
  engine.Dispatch(NoteOnMsg(60, 100));
  engine.Dispatch(NoteOffMsg(60));
  EXPECT_FALSE(engine.GetVoice(0).released);
  engine.Dispatch(Cc(64, 0));
  EXPECT_TRUE(engine.GetVoice(0).released);
  engine.Dispatch(Cc(120, 0));
  engine.Dispatch(NoteOnMsg(60, 100));
  engine.Dispatch(Cc(66, 127));
  engine.Dispatch(NoteOnMsg(64, 100));
  engine.Dispatch(NoteOffMsg(60));
  engine.Dispatch(NoteOffMsg(64));
  ASSERT_EQ(engine.VoiceCount(), 2);
  EXPECT_FALSE(engine.GetVoice(0).released);
  EXPECT_TRUE(engine.GetVoice(1).released);
  engine.Dispatch(Cc(66, 0));
  EXPECT_TRUE(engine.GetVoice(0).released);
}

TEST(SynthEngine, LoopWithStartAtEndPlaysAsNoLoop) {
  GeneratedBank bank;
  Waveform* wave = bank.Sine(440.0, kRate, 6400, 3200, 3200);
  Instrument* instrument = bank.NewInstrument(0);
  instrument->AddRegion(wave->id, kFullRange, kFullRange, 60);
  SynthEngine engine(16, 32, 1.0f, kRate, 1);
  engine.SelectInstrument(0, engine.LoadInstrument(*instrument));
  engine.Dispatch(NoteOnMsg(60, 100));
  int blocks = 0;
  while (engine.VoiceCount() > 0 && blocks < 1000) Blocks(engine, 1), ++blocks;
  EXPECT_EQ(blocks, 100) << "6400 frames at step 1 end in the hundredth block while the key is held";
}

TEST(SynthEngine, BreakOnReleasePlaysPastTheLoopToTheSampleEnd) {
  for (const bool breakLoop : {true, false}) {
    GeneratedBank bank;
    Waveform* wave = bank.Sine(480.0, kRate, 9600, 1000, 2000);  // 7600 frames after the loop
    wave->loop.release = breakLoop;
    Instrument* instrument = bank.NewInstrument(0);
    Region* region = instrument->AddRegion(wave->id, kFullRange, kFullRange, 60);
    region->articulation.Set(98, 10.0f);  // a slow release: the sample end must come first
    SynthEngine engine(16, 32, 1.0f, kRate, 1);
    engine.SelectInstrument(0, engine.LoadInstrument(*instrument));
    engine.Dispatch(NoteOnMsg(60, 100));
    Blocks(engine, 200);  // looping by now
    engine.Dispatch(NoteOffMsg(60));
    std::vector<float> out;
    int blocks = 0;
    while (engine.VoiceCount() > 0 && blocks < 2000) Blocks(engine, 1, &out), ++blocks;
    if (breakLoop) {
      // At most one loop length to finish, then the 7600 frames of the rest.
      EXPECT_GE(blocks * kBlockFrames, 7600);
      EXPECT_LE(blocks * kBlockFrames, 7600 + 1000 + kBlockFrames);
      EXPECT_NEAR(test::MeasureFrequency(test::LeftChannel(out), kRate), 480.0, 1.0);
    } else {
      EXPECT_EQ(blocks, 2000) << "an unbroken loop lasts as long as the release";
    }
  }
}

TEST(SynthEngine, ReverseAndAlternatingLoopsStayInsideTheLoop) {
  for (uint8_t type : {kLoopReverse, kLoopAlternating}) {
    GeneratedBank bank;
    // A ramp: the position can be read back from the output level.
    std::vector<float> ramp(4000);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = float(i) / 4000.0f;
    Waveform* wave = bank.Samples(ramp, kRate);
    wave->loop = LoopInfo{type, 0, 1000.0f, 2000.0f, 0.0f};
    Instrument* instrument = bank.NewInstrument(0);
    instrument->AddRegion(wave->id, kFullRange, kFullRange, 60)->articulation.Set(51, -1.0f);
    SynthEngine engine(16, 32, 1.0f, kRate, 1);
    engine.Dispatch(Cc(7, 127));
    engine.SelectInstrument(0, engine.LoadInstrument(*instrument));
    engine.Dispatch(NoteOnMsg(60, 127));
    std::vector<float> out;
    Blocks(engine, 300, &out);
    const std::vector<float> left = test::LeftChannel(out);
    float lo = 1, hi = 0;
    for (size_t i = 4000; i < left.size(); ++i) lo = std::min(lo, left[i]), hi = std::max(hi, left[i]);
    EXPECT_NEAR(lo, 0.25f, 0.002f) << int(type);
    EXPECT_NEAR(hi, 0.5f, 0.002f) << int(type);
  }
}

TEST(SynthEngine, StereoPairsFuseOnlyWhenEverythingButPanAgreesAndKeepTheirLevel) {
  enum Variant { kSame, kLouder, kOtherRate, kOtherCc10Depth };
  auto compile = [](Variant variant, std::vector<float>* out) {
    GeneratedBank bank;
    Waveform* left = bank.Sine(440.0, kRate, 4800, 0, 4800);
    Waveform* right = bank.Sine(600.0, variant == kOtherRate ? kRate / 2 : kRate, 4800, 0, 4800);
    Instrument* instrument = bank.NewInstrument(0);
    Region* l = instrument->AddRegion(left->id, kFullRange, kFullRange, 60);
    Region* r = instrument->AddRegion(right->id, kFullRange, kFullRange, 60);
    l->articulation.Set(51, -1.0f);
    r->articulation.Set(51, 1.0f);
    if (variant == kLouder) r->articulation.Set(14, -0.5f);
    if (variant == kOtherCc10Depth) r->articulation.Set(52, 0.5f);  // no sound of its own at centre pan
    SynthEngine engine(16, 32, 1.0f, kRate, 1);
    const SynthInstrument* compiled = engine.LoadInstrument(*instrument);
    if (out) {
      engine.SelectInstrument(0, compiled);
      engine.Dispatch(NoteOnMsg(60, 100));
      Blocks(engine, 200, out);
    }
    return compiled->regions.size();
  };
  std::vector<float> fused, apart;
  EXPECT_EQ(compile(kSame, &fused), 1u);
  std::vector<float> left = test::LeftChannel(fused), right(fused.size() / 2);
  for (size_t i = 0; i < right.size(); ++i) right[i] = fused[2 * i + 1];
  EXPECT_NEAR(test::MeasureFrequency(left, kRate), 440.0, 0.5);
  EXPECT_NEAR(test::MeasureFrequency(right, kRate), 600.0, 0.5);
  EXPECT_EQ(compile(kLouder, nullptr), 2u);
  EXPECT_EQ(compile(kOtherRate, nullptr), 2u);
  ASSERT_EQ(compile(kOtherCc10Depth, &apart), 2u);
  const auto rms = [](const std::vector<float>& x) {
    return test::RmsEnvelope(std::vector<float>(x.begin() + 4800, x.end()), x.size() - 4800).at(0);
  };
  EXPECT_NEAR(20 * std::log10(rms(fused) / rms(apart)), 0.0, 0.05) << "fusing must not change the level";
}

TEST(SynthEngine, FadesWidenAroundTheEdgesAndFullVelocityHasUnitGain) {
  int16_t lo = 60, hi = 72, in = 4, out = 0;
  WidenRange(lo, hi, in, out, 127);
  EXPECT_EQ(lo, 58);  // the fade is centred on the nominal lower edge
  EXPECT_EQ(hi, 72);
  lo = 1, hi = 127, in = 6, out = 10;
  WidenRange(lo, hi, in, out, 127);
  EXPECT_EQ(lo, 0);   // the part below key 0 is cut off the fade
  EXPECT_EQ(in, 4);
  EXPECT_EQ(hi, 127);
  EXPECT_EQ(out, 5);

  GeneratedBank bank;
  SynthEngine engine(16, 32, 1.0f, kRate, 1);
  engine.SelectInstrument(0, engine.LoadInstrument(*SineInstrument(bank)));
  engine.Dispatch(NoteOnMsg(60, 127));
  EXPECT_EQ(engine.GetVoice(0).crossFade, 1.0f);
}

TEST(SynthEngine, PassThruFilterAndUnitGainsGiveTheSampleBitForBit) {
  GeneratedBank bank;
  orlin::test::SeededRandom random(7);
  std::vector<float> noise(20000);
  for (float& s : noise) s = random.Uniform(-0.5f, 0.5f);
  Waveform* wave = bank.Samples(noise, kRate);
  Instrument* instrument = bank.NewInstrument(0);
  instrument->AddRegion(wave->id, kFullRange, kFullRange, 60)->articulation.Set(51, -1.0f);
  SynthEngine engine(16, 32, 1.0f, kRate, 1);
  engine.SelectInstrument(0, engine.LoadInstrument(*instrument));
  engine.Dispatch(Cc(7, 127));
  engine.Dispatch(NoteOnMsg(60, 127));
  std::vector<float> out;
  Blocks(engine, 310, &out);
  for (size_t i = 10 * kBlockFrames; i < 19000; ++i) {
    ASSERT_EQ(out[2 * i], noise[i]) << "frame " << i;
    ASSERT_EQ(out[2 * i + 1], 0.0f);
  }
}

TEST(SynthEngine, SilentBlockGivesZerosAndPeakZero) {
  GeneratedBank bank;
  SynthEngine engine(16, 32, 1.0f, kRate, 1);
  engine.SelectInstrument(0, engine.LoadInstrument(*SineInstrument(bank)));
  float block[2 * kBlockFrames];
  std::fill(std::begin(block), std::end(block), 0.7f);
  EXPECT_FALSE(engine.RenderBlock(block));
  for (float s : block) ASSERT_EQ(s, 0.0f);
  EXPECT_EQ(engine.LastPeak(), 0.0f);
  EXPECT_EQ(engine.StatusText(), "0 regions");
  engine.Dispatch(NoteOnMsg(60, 127));
  EXPECT_TRUE(engine.RenderBlock(block));
  EXPECT_GT(engine.LastPeak(), 0.0f);
  EXPECT_EQ(engine.StatusText(), "1 region");
}

TEST(SynthEngine, PostedEventsPlayInTheirBlockFromAnyThread) {
  GeneratedBank bank;
  SynthEngine engine(16, 32, 1.0f, 64000, 1);  // 1000 blocks a second: one block per millisecond
  engine.SelectInstrument(0, engine.LoadInstrument(*SineInstrument(bank)));
  std::thread poster([&] {
    engine.PostEvent(NoteOnMsg(60, 100), 10);
    engine.PostEvent(NoteOnMsg(64, 100), 20);
    engine.PostEvent(0, 5);  // word 0 is never posted
  });
  poster.join();
  Blocks(engine, 9);
  EXPECT_EQ(engine.VoiceCount(), 0);
  Blocks(engine, 1);
  EXPECT_EQ(engine.VoiceCount(), 1);
  Blocks(engine, 10);
  EXPECT_EQ(engine.VoiceCount(), 2);
}

TEST(SynthEngine, ChannelVolumePanAndPolyPressureShapeTheOutput) {
  auto render = [](std::initializer_list<uint32_t> setup, uint32_t after = 0) {
    GeneratedBank bank;
    Instrument* instrument = SineInstrument(bank);
    Region* region = OnlyRegion(instrument);
    region->articulation.Set(18, -12.0f);  // aftertouch to volume: -12 dB at full pressure
    SynthEngine engine(16, 32, 1.0f, kRate, 1);
    engine.SelectInstrument(0, engine.LoadInstrument(*instrument));
    for (uint32_t message : setup) engine.Dispatch(message);
    engine.Dispatch(NoteOnMsg(69, 127));
    if (after) engine.Dispatch(after);
    std::vector<float> out;
    Blocks(engine, 100, &out);
    std::vector<float> left(out.size() / 2 - 4800), right(out.size() / 2 - 4800);
    for (size_t i = 0; i < left.size(); ++i) left[i] = out[2 * (i + 4800)], right[i] = out[2 * (i + 4800) + 1];
    return std::pair{test::RmsEnvelope(left, left.size()).at(0), test::RmsEnvelope(right, right.size()).at(0)};
  };
  const auto full = render({Cc(7, 127)});
  const auto half = render({Cc(7, 64)});
  EXPECT_NEAR(20 * std::log10(half.first / full.first), 40 * std::log10(64.0 / 127.0), 0.05);  // squared curve
  EXPECT_NEAR(full.first, full.second, 1e-6);                                              // centre: equal power
  const auto leftOnly = render({Cc(7, 127), Cc(10, 0)});
  EXPECT_NEAR(20 * std::log10(leftOnly.first / full.first), 3.01, 0.05);
  EXPECT_LT(leftOnly.second, 1e-6);
  const auto rightOnly = render({Cc(7, 127), Cc(10, 127)});
  EXPECT_LT(rightOnly.first, 1e-6);
  const auto pressed = render({Cc(7, 127)}, PackMessage(0xA0, 69, 127));
  EXPECT_NEAR(20 * std::log10(pressed.first / full.first), -12.0, 0.1);
}

// Pitch at every key, measured from the output: plain, with full bend over an RPN range, with RPN
// fine and coarse tuning, and with loop tuning (which starts at the first wrap of the loop).
TEST(SynthEngine, PitchIsWithinOneCentAtEveryKey) {
  GeneratedBank bank;
  Waveform* plainWave = bank.Sine(200.0, kRate, 4800, 0, 4800);  // whole periods in the loop
  Waveform* tunedWave = bank.Sine(200.0, kRate, 480, 0, 480);
  tunedWave->loop.tune = 0.5f;
  Instrument* plain = bank.NewInstrument(0);
  plain->AddRegion(plainWave->id, kFullRange, kFullRange, 60);
  Instrument* tuned = bank.NewInstrument(1);
  tuned->AddRegion(tunedWave->id, kFullRange, kFullRange, 60);
  SynthEngine engine(16, 32, 1.0f, kRate, 1);
  const SynthInstrument* plainCompiled = engine.LoadInstrument(*plain);
  const SynthInstrument* tunedCompiled = engine.LoadInstrument(*tuned);
  double worstCents = 0;
  int worstKey = -1;
  for (int key = 0; key < 128; ++key) {
    const int mode = key % 4;
    engine.Dispatch(Cc(121, 0));
    engine.Dispatch(Cc(101, 127));
    engine.Dispatch(Cc(100, 127));
    engine.Dispatch(Cc(6, 0));  // RPN 16383: tunings back to 0
    engine.SelectInstrument(0, mode == 3 ? tunedCompiled : plainCompiled);
    double semitones = key - 60;
    if (mode == 1) {
      engine.Dispatch(Cc(101, 0));
      engine.Dispatch(Cc(100, 0));
      engine.Dispatch(Cc(6, 7));  // bend range 7 semitones
      const bool up = key % 8 == 1;
      engine.Dispatch(up ? PackMessage(0xE0, 127, 127) : PackMessage(0xE0, 0, 0));
      semitones += up ? 7 : -7;
    } else if (mode == 2) {
      engine.Dispatch(Cc(101, 0));
      engine.Dispatch(Cc(100, 1));
      engine.Dispatch(Cc(6, 96));  // fine tune +0.5 semitone
      engine.Dispatch(Cc(38, 0));
      engine.Dispatch(Cc(100, 2));
      engine.Dispatch(Cc(6, 61));  // coarse tune -3
      semitones += 0.5 - 3;
    } else if (mode == 3) {
      semitones += 0.5;
    }
    engine.Dispatch(NoteOnMsg(key, 100));
    std::vector<float> out;
    Blocks(engine, kRate * 3 / 2 / kBlockFrames, &out);
    engine.Dispatch(Cc(120, 0));
    const std::vector<float> left = test::LeftChannel(out);
    const std::vector<float> steady(left.begin() + kRate / 2, left.end());
    const double measured = test::MeasureFrequency(steady, kRate);
    const double expected = 200.0 * std::pow(2.0, semitones / 12.0);
    const double cents = 1200.0 * std::log2(measured / expected);
    if (std::fabs(cents) > worstCents) worstCents = std::fabs(cents), worstKey = key;
  }
  EXPECT_LT(worstCents, 1.0) << "key " << worstKey;
}

}  // namespace
}  // namespace orlin::synth
