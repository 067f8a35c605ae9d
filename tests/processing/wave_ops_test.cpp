// The wave primitives at their edges: level tables, cuts and inserts with loops and markers, channel
// conversions, maximize, fades, silence removal and splits.
#include <gtest/gtest.h>

#include "helpers.h"
#include "processing/audio/edit_rows.h"

namespace orlin::test {
namespace {

std::vector<float> Ramp(size_t count, float step = 0.001f) {
  std::vector<float> values(count);
  for (size_t i = 0; i < count; ++i) values[i] = float(i) * step;
  return values;
}

TEST(LevelConversion, StoredTableWinsOverTheFormula) {
  EXPECT_EQ(DbToGain(12), 5.0);
  EXPECT_EQ(GainToDb(4), 12.0);
  EXPECT_EQ(DbToGain(-6), 0.5);
  EXPECT_EQ(DbToGain(-96), 0.0);
  EXPECT_EQ(GainToDb(1e-6), -96.0);
  // Above unity the gain is rounded to thousandths; below it is not.
  EXPECT_DOUBLE_EQ(DbToGain(3), 1.413);
  EXPECT_DOUBLE_EQ(DbToGain(-3), std::exp(-3 * 0.115129255));
  EXPECT_DOUBLE_EQ(GainToDb(DbToGain(-3)), -3.0);
  EXPECT_DOUBLE_EQ(GainToDb(3.0), 9.54);
}

TEST(DeleteFrames, WholeWaveRefusedAllButOneAllowed) {
  Collection collection;
  Waveform* wave = MakeWave(collection, Ramp(100));
  EXPECT_FALSE(DeleteFrames(*wave, 0, 100));
  EXPECT_FALSE(DeleteFrames(*wave, 0, 500));  // the end is clamped to the length first
  EXPECT_FALSE(DeleteFrames(*wave, 40, 40));
  EXPECT_EQ(wave->length, 100u);
  ASSERT_TRUE(DeleteFrames(*wave, 0, 99));
  ASSERT_EQ(wave->length, 1u);
  EXPECT_FLOAT_EQ(Samples(*wave)[0], 0.099f);
}

TEST(DeleteFrames, LoopsAndMarkersFollowTheCut) {
  Collection collection;
  Waveform* wave = MakeWave(collection, Ramp(1000));
  wave->loop = {1, 0, 300.0f, 400.0f, 0.0f};
  wave->markers = {{0, 50, 0, "before", 1},        {1, 80, 250, "section into cut", 2},
                   {0, 220, 0, "point in cut", 3}, {1, 230, 600, "section across", 4},
                   {1, 210, 240, "section in cut", 5}, {1, 700, 800, "after", 6}};
  // A loop lying wholly in the cut ends empty and switched off.
  ASSERT_TRUE(DeleteFrames(*wave, 200, 500));
  EXPECT_EQ(wave->length, 700u);
  EXPECT_GE(wave->loop.start, wave->loop.end);
  EXPECT_EQ(wave->loop.type, 0);
  ASSERT_EQ(wave->markers.size(), 4u);
  EXPECT_EQ(wave->markers[0].start, 50u);
  EXPECT_EQ(wave->markers[1].end, 200u);  // its end lay in the cut
  EXPECT_EQ(wave->markers[2].name, "section across");
  EXPECT_EQ(wave->markers[2].start, 200u);
  EXPECT_EQ(wave->markers[2].end, 300u);
  EXPECT_EQ(wave->markers[3].start, 400u);
  EXPECT_EQ(wave->markers[3].end, 500u);

  // A loop around the cut shrinks by it and stays on.
  Waveform* other = MakeWave(collection, Ramp(1000));
  other->loop = {1, 0, 100.0f, 900.0f, 0.0f};
  ASSERT_TRUE(DeleteFrames(*other, 200, 500));
  EXPECT_EQ(other->loop.start, 100.0f);
  EXPECT_EQ(other->loop.end, 600.0f);
  EXPECT_EQ(other->loop.type, 1);

  // A cut to the end that takes the loop's end: the end stops at the new end, not one past the join.
  Waveform* tail = MakeWave(collection, Ramp(4));
  tail->loop = {1, 0, 0.0f, 3.0f, 0.0f};
  ASSERT_TRUE(DeleteFrames(*tail, 2, 4));
  EXPECT_EQ(tail->loop.end, 2.0f);
  EXPECT_EQ(tail->loop.type, 1);
}

TEST(DeleteFrames, SharedBlockIsReplacedNotWritten) {
  Collection collection;
  Waveform* wave = MakeWave(collection, Ramp(100));
  Waveform copy(&collection, *wave, false, "copy");  // shares the block
  ASSERT_EQ(copy.Data(), wave->Data());
  ASSERT_TRUE(DeleteFrames(*wave, 10, 20));
  EXPECT_EQ(copy.length, 100u);
  EXPECT_EQ(Samples(copy), Ramp(100));
  // In-place edits make the block private first.
  Waveform second(&collection, copy, false, "second");
  ASSERT_TRUE(ApplyGainDb(second, -6.0));
  EXPECT_EQ(Samples(copy), Ramp(100));
}

TEST(DeleteFrames, RegionOffsetsStayOnTheirAudio) {
  Collection collection;
  Waveform* wave = MakeWave(collection, Ramp(1000));
  auto* instrument = new Instrument(&collection);
  Region* region = instrument->AddRegion(wave->id, kFullRange, kFullRange, 60);
  ASSERT_NE(region, nullptr);
  region->startOffset = 600;
  region->endOffset = -100;  // plays to frame 900
  region->overrideFlags |= Region::kOverrideLoopStart | Region::kOverrideLoopEnd;
  region->loop.start = 650;
  region->loop.end = 850;
  ASSERT_TRUE(DeleteFrames(*wave, 100, 300));
  EXPECT_EQ(region->startOffset, 400);
  EXPECT_EQ(region->endOffset, -100);
  EXPECT_EQ(region->loop.start, 450.0f);
  EXPECT_EQ(region->loop.end, 650.0f);
  ASSERT_TRUE(InsertFrames(*wave, 0, nullptr, 0, 50));
  EXPECT_EQ(region->startOffset, 450);
  EXPECT_EQ(region->loop.start, 500.0f);
}

TEST(InsertFrames, SilenceGapsSourcesAndLimits) {
  Collection collection;
  Waveform* wave = MakeWave(collection, {0.1f, 0.2f, 0.3f});
  wave->loop = {1, 0, 0.0f, 3.0f, 0.0f};
  wave->markers = {{0, 1, 0, "m", 1}};
  // Beyond the end: a gap of silence, then the inserted frames.
  ASSERT_TRUE(InsertFrames(*wave, 5, nullptr, 0, 2));
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.1f, 0.2f, 0.3f, 0, 0, 0, 0}));
  ASSERT_TRUE(InsertFrames(*wave, 1, nullptr, 0, 2));
  EXPECT_EQ(wave->loop.start, 0.0f);  // below the position: stays
  EXPECT_EQ(wave->loop.end, 5.0f);
  EXPECT_EQ(wave->markers[0].start, 3u);  // at the position: moves

  // A stereo source goes in as the average of its channels.
  Waveform* stereo = MakeWave(collection, {0.2f, 0.4f, -0.2f, -0.4f, 0.5f, 0.5f}, 2);
  Waveform* target = MakeWave(collection, {1.0f, 1.0f});
  ASSERT_TRUE(InsertFrames(*target, 1, stereo, 1, 0)) << LastError();
  EXPECT_EQ(Samples(*target), (std::vector<float>{1.0f, -0.3f, 0.5f, 1.0f}));
  EXPECT_EQ(stereo->channels, 2);

  // A source of another rate at source offset 0 inserts one frame: the count follows the start.
  Waveform* slow = MakeWave(collection, Ramp(100, 0.01f), 1, 22050);
  Waveform* fast = MakeWave(collection, {0.5f, 0.5f});
  ASSERT_TRUE(InsertFrames(*fast, 1, slow, 0, 50));
  EXPECT_EQ(fast->length, 3u);

  // Too big: reported, nothing changes.
  Waveform* small = MakeWave(collection, {0.1f, 0.2f}, 2);
  EXPECT_FALSE(InsertFrames(*small, 0, nullptr, 0, uint32_t(kMaxWaveValues / 2)));
  EXPECT_EQ(LastError(), "Wave would be too big for the 32-bit app");
  EXPECT_EQ(small->length, 1u);
}

TEST(ChannelConversion, ModesNamesAndFailures) {
  Collection collection;
  Waveform* wave = MakeWave(collection, {0.2f, 0.4f, -0.2f, 0.0f}, 2, 44100, "Piano S");
  bool changed = true;
  ASSERT_TRUE(ToMono(*wave, kMonoIfIdentical, nullptr, &changed));
  EXPECT_FALSE(changed);
  EXPECT_EQ(wave->channels, 2);
  Waveform* right = nullptr;
  ASSERT_TRUE(ToMono(*wave, kMonoSplit, &right));
  ASSERT_NE(right, nullptr);
  EXPECT_EQ(wave->GetName(), "Piano -L");
  EXPECT_EQ(right->GetName(), "Piano -R");
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.2f, -0.2f}));
  EXPECT_EQ(Samples(*right), (std::vector<float>{0.4f, 0.0f}));
  EXPECT_FALSE(ToMono(*wave, 7));
  EXPECT_EQ(LastError(), "Invalid algorithm");

  EXPECT_FALSE(ToStereo(*wave, kStereoThisLeft, nullptr));
  EXPECT_EQ(LastError(), "No 2nd waveform specified");
  Waveform* stereo = MakeWave(collection, {0, 0}, 2);
  EXPECT_FALSE(ToStereo(*wave, kStereoThisRight, stereo));
  EXPECT_EQ(LastError(), "2nd waveform is not mono");
  Waveform* longer = MakeWave(collection, {0.1f, 0.2f, 0.3f});
  ASSERT_TRUE(ToStereo(*wave, kStereoThisRight, longer));
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.1f, 0.2f, 0.2f, -0.2f, 0.3f, 0.0f}));
}

TEST(Maximize, ModesAndFailures) {
  Collection collection;
  Waveform* constant = MakeWave(collection, {0.3f, 0.3f, 0.3f});
  EXPECT_FALSE(Maximize(*constant, kMaximizeFullSwing));
  EXPECT_FALSE(LastError().empty());
  Waveform* zero = MakeWave(collection, {0.0f, 0.0f});
  SetLastError("stale");
  EXPECT_FALSE(Maximize(*zero, kMaximizeKeepZero));
  EXPECT_TRUE(LastError().empty());

  Waveform* wave = MakeWave(collection, {0.1f, -0.25f, 0.2f});
  ASSERT_TRUE(Maximize(*wave, kMaximizeKeepZero));
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.4f, -1.0f, 0.8f}));
  bool changed = true;
  ASSERT_TRUE(Maximize(*wave, kMaximizeKeepZero, &changed));
  EXPECT_FALSE(changed);
  ASSERT_TRUE(Maximize(*wave, kMaximizeFullSwing));
  const auto full = Samples(*wave);
  EXPECT_FLOAT_EQ(*std::max_element(full.begin(), full.end()), 1.0f);
  EXPECT_FLOAT_EQ(*std::min_element(full.begin(), full.end()), -1.0f);

  // Long enough for the wide loop and its tail; the mean stays at zero in mode 2.
  std::vector<float> values(1003);
  for (size_t i = 0; i < values.size(); ++i) values[i] = 0.1f + 0.2f * float(std::sin(double(i)));
  Waveform* offset = MakeWave(collection, values);
  ASSERT_TRUE(Maximize(*offset, kMaximizeKeepMean));
  double mean = 0, peak = 0;
  for (float v : Samples(*offset)) mean += v, peak = std::max(peak, double(std::fabs(v)));
  EXPECT_NEAR(mean / 1003, 0.0, 1e-5);
  EXPECT_NEAR(peak, 1.0, 1e-3);
}

TEST(FadeRange, GainsNeverReachTheEnds) {
  Collection collection;
  Waveform* wave = MakeWave(collection, std::vector<float>(6, 1.0f));
  ASSERT_TRUE(FadeRange(*wave, 1, 4, kFadeLinearIn));
  EXPECT_EQ(Samples(*wave), (std::vector<float>{1.0f, 0.25f, 0.5f, 0.75f, 1.0f, 1.0f}));
  Waveform* out = MakeWave(collection, std::vector<float>(4, 1.0f));
  ASSERT_TRUE(FadeRange(*out, 0, 100, kFadeLogarithmicOut));  // the end is clamped to the length
  const auto gains = Samples(*out);
  EXPECT_NEAR(gains[0], 1.0 - std::log10(0.2 * 9 + 1), 1e-6);
  EXPECT_NEAR(gains[3], 1.0 - std::log10(0.8 * 9 + 1), 1e-6);
  Waveform* in = MakeWave(collection, std::vector<float>(4, 1.0f));
  ASSERT_TRUE(FadeRange(*in, 0, 4, kFadeExponentialIn));
  EXPECT_NEAR(Samples(*in)[0], 1.0 - std::log10(0.8 * 9 + 1), 1e-6);
  EXPECT_FALSE(FadeRange(*in, 0, 4, 9));
}

TEST(RemoveSilence, EdgesGapsAndAllSilent) {
  Collection collection;
  std::vector<float> values(1000, 0.0f);
  for (size_t i = 100; i < 300; ++i) values[i] = 0.5f;
  for (size_t i = 600; i < 900; ++i) values[i] = -0.5f;
  Waveform* wave = MakeWave(collection, values, 1, 1000);
  wave->loop = {1, 0, 650.0f, 850.0f, 0.0f};
  RemoveSilenceResult result;
  // Anywhere, min silence 0.1 s = 100 frames: the gap of 300 frames goes, the edges too.
  ASSERT_TRUE(RemoveSilence(*wave, true, true, true, 0.1, 0.1, false, false, false, &result));
  EXPECT_TRUE(result.changed);
  EXPECT_EQ(wave->length, 500u);
  EXPECT_EQ(wave->loop.start, 250.0f);
  EXPECT_EQ(wave->loop.end, 450.0f);
  EXPECT_EQ(Samples(*wave)[199], 0.5f);
  EXPECT_EQ(Samples(*wave)[200], -0.5f);

  Waveform* silent = MakeWave(collection, std::vector<float>(100, 0.001f), 1, 1000);
  const uint32_t id = silent->id;
  ASSERT_TRUE(RemoveSilence(*silent, true, true, false, 0.1, 0.02, true, false, false, &result));
  EXPECT_FALSE(result.changed);
  EXPECT_EQ(silent->length, 100u);
  ASSERT_TRUE(RemoveSilence(*silent, true, true, false, 0.1, 0.02, true, true, false, &result));
  EXPECT_TRUE(result.deleted);
  EXPECT_EQ(collection.FindItem(id), nullptr);
}

// A wave of `pieces` bursts of 20 frames, each followed by 30 silent frames.
Waveform* Bursts(Collection& collection, size_t pieces) {
  std::vector<float> values;
  for (size_t p = 0; p < pieces; ++p) {
    values.insert(values.end(), 20, 0.8f);
    values.insert(values.end(), 30, 0.0f);
  }
  return MakeWave(collection, values, 1, 1000, "drums");
}

TEST(SplitWave, PiecesNamesAndTheLimit) {
  Collection collection;
  Waveform* wave = Bursts(collection, 12);
  wave->markers = {{0, 55, 0, "in second", 1}};
  std::vector<Waveform*> made;
  // min trig 8 frames, min release 10 frames at 1 kHz.
  ASSERT_TRUE(SplitWave(*wave, 0.5, 0.4, 0.0, 0.01, 0.0, 0.0, false, false, false, true, made));
  ASSERT_EQ(made.size(), 12u);
  EXPECT_EQ(made[0], wave);  // the first takes over the source
  EXPECT_EQ(made[0]->GetName(), "drums - 01");
  EXPECT_EQ(made[11]->GetName(), "drums - 12");
  EXPECT_EQ(made[1]->length, 20u);
  ASSERT_EQ(made[1]->markers.size(), 1u);
  EXPECT_EQ(made[1]->markers[0].start, 5u);
  EXPECT_TRUE(made[0]->markers.empty());

  // A single piece covering everything: nothing to split, and no error.
  Waveform* whole = MakeWave(collection, std::vector<float>(100, 0.9f), 1, 1000);
  made.clear();
  EXPECT_FALSE(SplitWave(*whole, 0.5, 0.4, 0.0, 0.01, 0.0, 0.0, false, false, false, true, made));
  EXPECT_TRUE(LastError().empty());
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 13u);

  // The thousandth piece makes the whole split fail.
  Waveform* many = Bursts(collection, 1000);
  const size_t before = collection.CountOf(ItemType::Waveform);
  made.clear();
  EXPECT_FALSE(SplitWave(*many, 0.5, 0.4, 0.0, 0.01, 0.0, 0.0, false, false, false, true, made));
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), before);
  EXPECT_EQ(many->length, 50000u);
  Waveform* most = Bursts(collection, 999);
  made.clear();
  ASSERT_TRUE(SplitWave(*most, 0.5, 0.4, 0.0, 0.01, 0.0, 0.0, false, false, false, false, made));
  EXPECT_EQ(made.size(), 999u);
  EXPECT_EQ(made[998]->GetName(), "drums - 999");
}

TEST(SplitWave, FadesAndRegionRemap) {
  Collection collection;
  Waveform* wave = Bursts(collection, 3);
  auto* instrument = new Instrument(&collection);
  Region* second = instrument->AddRegion(wave->id, PackRange(0, 60), kFullRange, 60);
  second->startOffset = 55;
  second->overrideFlags |= Region::kOverrideRoot;
  second->rootKey = 48;
  std::vector<Waveform*> made;
  // Fade-in of 2 frames is made 4; fade-out 5 frames into the silence.
  ASSERT_TRUE(SplitWave(*wave, 0.5, 0.4, 0.0, 0.01, 0.002, 0.005, false, false, true, true, made));
  ASSERT_EQ(made.size(), 3u);
  EXPECT_EQ(made[1]->length, 2u + 20u + 5u);
  const auto piece = Samples(*made[1]);
  EXPECT_NEAR(piece[0], 0.0f, 1e-6);  // the two silent frames before the burst
  EXPECT_NEAR(piece[2], 0.8f * 3 / 5, 1e-6);  // fade-in of 4 frames reaches into the burst
  EXPECT_EQ(second->GetWave(), made[1]);
  EXPECT_EQ(second->startOffset, 55 - 48);
  EXPECT_EQ(made[1]->rootKey, 48);  // the one region's override moved into the wave
  EXPECT_FALSE(second->overrideFlags & Region::kOverrideRoot);
}

TEST(Smooth, FiltersRunOnOldNeighboursAndReadSafelyAtTheEnds) {
  Collection collection;
  const std::vector<float> input = {1.0f, 0.0f, 1.0f, 0.0f};
  const std::vector<std::vector<float>> expected = {
      {1.0f, 0.5f, 0.5f, 0.0f},   // triangular: frames 1 and 2 only
      {1.0f, 1.0f, 0.0f, 0.0f},   // two towers
      {0.5f, 0.5f, 0.5f, 0.0f},   // rightsided: the last reads the zero guard frame after the wave
      {0.5f, 0.5f, 0.5f, 0.5f}};  // leftsided: the first reads the zero guard frame before it
  for (int filter = 0; filter < 4; ++filter) {
    Waveform* wave = MakeWave(collection, input);
    SmoothRange(WritableSamples(*wave), 1, 4, 0, 4, filter);
    EXPECT_EQ(Samples(*wave), expected[size_t(filter)]) << filter;
  }
}

}  // namespace
}  // namespace orlin::test
