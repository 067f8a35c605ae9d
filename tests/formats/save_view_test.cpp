// The view writers walk: wrappers for lone waves, private copies, layer limits, channel conversion.
#include <gtest/gtest.h>

#include "formats/common/save_view.h"

namespace orlin {
namespace {

Waveform* MakeWave(Collection& collection, uint8_t channels, uint32_t frames) {
  auto* wave = new Waveform(&collection);
  wave->channels = channels;
  wave->length = frames;
  float* samples = wave->GetSamplesForWrite();
  for (uint32_t i = 0; i < frames * channels; ++i) samples[i] = (i % 2) ? 0.5f : -0.25f;
  return wave;
}

TEST(SaveView, LoneWaveBecomesOneInstrumentWithOneRegion) {
  Collection collection;
  Waveform* wave = MakeWave(collection, 1, 8);
  const uint32_t instrumentsBefore = collection.CountOf(ItemType::Instrument);
  {
    SaveView view(wave);
    ASSERT_EQ(view.Instruments().size(), 1u);
    ASSERT_EQ(view.Waveforms().size(), 1u);
    EXPECT_EQ(view.Waveforms()[0], wave);
    EXPECT_EQ(view.Instruments()[0]->children.size(), 1u);
  }
  EXPECT_EQ(collection.CountOf(ItemType::Instrument), instrumentsBefore) << "the wrapper goes with the view";
  EXPECT_EQ(collection.CountOf(ItemType::Region), 0u);
}

TEST(SaveView, WavesOnceInOrderOfUse) {
  Collection collection;
  Waveform* a = MakeWave(collection, 1, 8);
  Waveform* b = MakeWave(collection, 1, 8);
  auto* instrument = new Instrument(&collection);
  instrument->AddRegion(b->id, PackRange(0, 10), kFullRange, -1);
  instrument->AddRegion(a->id, PackRange(11, 20), kFullRange, -1);
  instrument->AddRegion(b->id, PackRange(21, 30), kFullRange, -1);
  SaveView view(&collection);
  ASSERT_EQ(view.Waveforms().size(), 2u);
  EXPECT_EQ(view.Waveforms()[0], b);
  EXPECT_EQ(view.WaveIndex(a), 1);
}

Instrument* ThreeLayers(Collection& collection, Waveform* wave, bool overlapping) {
  auto* instrument = new Instrument(&collection);
  for (int layer = 0; layer < 3; ++layer) {
    const int lo = overlapping ? 0 : layer * 40;
    instrument->AddRegion(wave->id, PackRange(lo, lo + 30), kFullRange, -1, layer);
  }
  return instrument;
}

TEST(SaveView, LimitLayersMergesOrDrops) {
  Collection collection;
  Waveform* wave = MakeWave(collection, 1, 8);
  Instrument* disjoint = ThreeLayers(collection, wave, false);
  Instrument* overlapping = ThreeLayers(collection, wave, true);
  ASSERT_EQ(disjoint->children.size(), 3u);
  SaveView view(&collection);
  view.LimitLayers(1, 1, true);
  ASSERT_EQ(view.Instruments().size(), 2u);
  const Instrument* merged = view.Instruments()[0];
  EXPECT_NE(merged, disjoint) << "a private copy";
  ASSERT_EQ(merged->children.size(), 1u);
  EXPECT_EQ(collection.Find<Layer>(merged->children[0])->children.size(), 3u);
  const Instrument* cut = view.Instruments()[1];
  ASSERT_EQ(cut->children.size(), 1u);
  EXPECT_EQ(collection.Find<Layer>(cut->children[0])->children.size(), 1u) << "overlapping regions are lost";
  // The user's instruments are untouched.
  EXPECT_EQ(disjoint->children.size(), 3u);
  EXPECT_EQ(overlapping->children.size(), 3u);
}

TEST(SaveView, ConvertForSaveMatchesTheChannelBits) {
  Collection collection;
  Waveform* stereo = MakeWave(collection, 2, 4);
  auto* instrument = new Instrument(&collection);
  instrument->AddRegion(stereo->id, kFullRange, kFullRange, -1);
  SaveView view(&collection);
  EXPECT_EQ(ConvertForSave(view, stereo, kCapsMono | kCapsStereo), stereo);
  Waveform* mono = ConvertForSave(view, stereo, kCapsMono);
  ASSERT_NE(mono, stereo);
  EXPECT_EQ(mono->channels, 1);
  EXPECT_FLOAT_EQ(mono->Data()->samples[0], 0.125f);
  EXPECT_EQ(view.Waveforms()[0], mono);
  EXPECT_EQ(stereo->channels, 2) << "the user's wave is untouched";
  EXPECT_EQ(CleanFixedName("Piano é!", 10, "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 ", true), "PIANO     ");
}

}  // namespace
}  // namespace orlin
