// Sample-rewriting normalisers: loops turned forward play the same frames, and splitting a stereo
// wave then merging the mono pair gives back the samples and one region.
#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "core/collection.h"
#include "core/normalisers.h"

namespace orlin {
namespace {

Waveform* Ramp(Collection& collection, uint32_t length, uint8_t channels) {
  auto* wave = new Waveform(&collection);
  wave->length = length;
  wave->channels = channels;
  wave->sampleRate = 8000;
  float* samples = wave->AllocSamples();
  for (uint32_t i = 0; i < length * channels; ++i) samples[i] = float(i);
  return wave;
}

TEST(Normalisers, ReverseLoopIsReversedInPlace) {
  Collection collection;
  Waveform* wave = Ramp(collection, 10, 1);
  wave->loop = {2, 0, 2.0f, 6.0f, 0.0f};
  ASSERT_TRUE(RewriteLoops(*wave, true, true, false));
  EXPECT_EQ(wave->loop.type, 1);
  EXPECT_EQ(wave->length, 10u);
  const float* s = wave->GetSamplesForRead();
  const float expected[] = {0, 1, 5, 4, 3, 2, 6, 7, 8, 9};
  for (int i = 0; i < 10; ++i) EXPECT_EQ(s[i], expected[i]) << i;
}

TEST(Normalisers, AlternatingLoopIsUnrolledWithoutRepeatedTurningPoints) {
  Collection collection;
  Waveform* wave = Ramp(collection, 8, 1);
  wave->loop = {3, 0, 2.0f, 6.0f, 0.0f};  // plays 2 3 4 5 4 3 2 3 ...
  ASSERT_TRUE(RewriteLoops(*wave, true, true, true));
  EXPECT_EQ(wave->loop.start, 2.0f);
  EXPECT_EQ(wave->loop.end, 8.0f);
  ASSERT_EQ(wave->length, 8u + 2u + 32u);
  const float* s = wave->GetSamplesForRead();
  const float expected[] = {0, 1, 2, 3, 4, 5, 4, 3, 2, 3};  // then the loop continues after its end
  for (int i = 0; i < 10; ++i) EXPECT_EQ(s[i], expected[i]) << i;
  EXPECT_EQ(s[40], 6.0f);  // the tail after the appended frames
}

TEST(Normalisers, SplitThenMergeRestoresTheStereoWave) {
  Collection collection;
  Waveform* wave = Ramp(collection, 100, 2);
  wave->SetName("Pad");
  auto* instrument = new Instrument(&collection);
  instrument->AddRegion(wave->id, kFullRange, kFullRange, -1);
  EXPECT_EQ(SplitStereo(collection), 1);
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 2u);
  EXPECT_EQ(collection.CountOf(ItemType::Region), 2u);
  for (Waveform* half : collection.All<Waveform>()) EXPECT_EQ(half->channels, 1);

  EXPECT_EQ(MergeDualMono(collection), 1);
  ASSERT_EQ(collection.CountOf(ItemType::Waveform), 1u);
  EXPECT_EQ(collection.CountOf(ItemType::Region), 1u);
  Waveform* merged = *collection.All<Waveform>().begin();
  EXPECT_EQ(merged->channels, 2);
  EXPECT_EQ(merged->GetName(), "Pad");
  const float* s = merged->GetSamplesForRead();
  for (int i = 0; i < 200; ++i) ASSERT_EQ(s[i], float(i));
  Region* region = *collection.All<Region>().begin();
  EXPECT_EQ(region->GetParam(51), 0.0f);
}

// A hard-left and a hard-right region over the same keys, playing two mono waves of one length.
struct DualMono {
  Collection collection;
  Waveform* left = nullptr;
  Waveform* right = nullptr;
  Instrument* instrument = nullptr;
  Region* leftRegion = nullptr;
  Region* rightRegion = nullptr;
  DualMono(const char* leftName, const char* rightName) {
    left = Ramp(collection, 50, 1);
    right = Ramp(collection, 50, 1);
    left->SetName(leftName);
    right->SetName(rightName);
    instrument = new Instrument(&collection);
    leftRegion = instrument->AddRegion(left->id, kFullRange, kFullRange, -1);
    rightRegion = instrument->AddRegion(right->id, kFullRange, kFullRange, -1);
    leftRegion->SetParam(51, -1.0f);
    rightRegion->SetParam(51, 1.0f);
  }
};

TEST(Normalisers, DualMonoJoinsOnlySidesThatPlayAlike) {
  for (const auto& [leftName, rightName, joined] :
       std::vector<std::tuple<const char*, const char*, const char*>>{{"Alto D4(L)", "Alto D4(R)", "Alto D4"},
                                                                    {"Flute L", "Flute R", "Flute"},
                                                                    {"kick_l", "kick_r", "kick"},
                                                                    {"Left one", "Other", "Left one"}}) {
    DualMono pair(leftName, rightName);
    EXPECT_EQ(MergeDualMono(pair.collection), 1);
    EXPECT_EQ((*pair.collection.All<Waveform>().begin())->GetName(), joined);
  }
  {
    // Sides tuned apart stay two mono regions: one stereo wave would lose the detune.
    DualMono pair("Str L", "Str R");
    pair.rightRegion->SetParam(0, 0.05f);
    EXPECT_EQ(MergeDualMono(pair.collection), 0);
    EXPECT_EQ(pair.collection.CountOf(ItemType::Waveform), 2u);
  }
  {
    // A side also played on its own elsewhere keeps the pair apart everywhere, so that no sample
    // is saved twice, once in a stereo wave and once alone.
    DualMono pair("Str L", "Str R");
    auto* solo = new Instrument(&pair.collection);
    solo->AddRegion(pair.left->id, kFullRange, kFullRange, -1);
    EXPECT_EQ(MergeDualMono(pair.collection), 0);
    EXPECT_EQ(pair.collection.CountOf(ItemType::Waveform), 2u);
  }
}

}  // namespace
}  // namespace orlin
