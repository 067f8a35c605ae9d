// Load fix-ups: idempotence, the deletion cascade of one pass, overrides dropped after a load only,
// data formats under the feature word, offsets and loop overrides, moving parameters between levels,
// trigger groups and layer compaction.
#include <gtest/gtest.h>

#include <sstream>

#include "core/collection.h"
#include "core/fixup.h"
#include "core/settings.h"

namespace orlin {
namespace {

// Restores the global settings a test changes.
class FixUpTest : public ::testing::Test {
 protected:
  void TearDown() override { GetSettings() = saved_; }
  Settings saved_ = GetSettings();
};

Waveform* MakeWave(Collection& collection, uint32_t length, const char* name) {
  auto* wave = new Waveform(&collection);
  wave->length = length;
  wave->sampleRate = 44100;
  wave->SetName(name);
  return wave;
}

// Every parameter and set bit of every item, as text.
std::string Describe(const Collection& collection) {
  std::ostringstream out;
  for (Item* item : collection.AllItems()) {
    out << std::hex << item->id << std::dec << ' ' << item->GetName() << ':';
    for (ParamId id = 0; id < kFirstTextParam; ++id) out << ' ' << item->GetParam(id) << (item->IsParamSet(id) ? "*" : "");
    for (ParamId id = kFirstWaveParam; id < kParamCount; ++id) out << ' ' << item->GetParam(id);
    out << '\n';
  }
  return out.str();
}

TEST_F(FixUpTest, SecondRunChangesNothing) {
  Collection collection;
  Waveform* wave = MakeWave(collection, 1000, "Piano");
  wave->loop = {1, 0, 10.4f, 2000.0f, 0.0f};
  MakeWave(collection, 500, "piano");
  auto* instrument = new Instrument(&collection);
  Region* low = instrument->AddRegion(wave->id, PackRange(0, 59), kFullRange, 48);
  Region* high = instrument->AddRegion(wave->id, PackRange(60, 127), kFullRange, -1);
  low->SetParam(14, -6.0f);
  high->SetParam(14, -6.0f);
  high->SetParam(207, 800.5f);
  high->SetParam(24, 1200.0f);
  auto* second = new Instrument(&collection);
  second->AddRegion(wave->id, kFullRange, PackRange(0, 63), -1);
  second->AddRegion(wave->id, kFullRange, PackRange(64, 127), -1, 1);

  FixUpItems(collection, 0xFF, true);
  const std::string first = Describe(collection);
  FixUpItems(collection, 0xFF, true);
  EXPECT_EQ(Describe(collection), first);
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 2u);
  EXPECT_NE(instrument->patch, second->patch);
}

TEST_F(FixUpTest, ZeroLengthWaveTakesItsTreeInOnePass) {
  Collection collection;
  Waveform* empty = MakeWave(collection, 0, "silent");
  auto* instrument = new Instrument(&collection);
  instrument->AddRegion(empty->id, kFullRange, kFullRange, -1);
  FixUpItems(collection, 0xFF, true);
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 0u);
  EXPECT_EQ(collection.CountOf(ItemType::Region), 0u);
  EXPECT_EQ(collection.CountOf(ItemType::Layer), 0u);
  EXPECT_EQ(collection.CountOf(ItemType::Instrument), 0u);
}

TEST_F(FixUpTest, SaveOfALayerDeletesOnlyLowerTypes) {
  Collection collection;
  auto* instrument = new Instrument(&collection);
  auto* layer = new Layer(&collection);
  layer->parentId = instrument->id;
  instrument->children.push_back(layer->id);
  MakeWave(collection, 0, "silent");
  FixUpItems(collection, (1 << 3) - 1, false);
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 0u);
  EXPECT_EQ(collection.CountOf(ItemType::Layer), 1u);
  EXPECT_EQ(collection.CountOf(ItemType::Instrument), 1u);
}

TEST_F(FixUpTest, RootOverrideEqualToTheWaveGoesAfterALoadOnly) {
  Collection collection;
  Waveform* wave = MakeWave(collection, 100, "w");
  wave->rootKey = 64;
  auto* instrument = new Instrument(&collection);
  Region* region = instrument->AddRegion(wave->id, kFullRange, kFullRange, -1);
  region->SetParam(222, 64);
  FixUpItems(collection, 0xFF, false);
  EXPECT_TRUE(region->overrideFlags & Region::kOverrideRoot);
  FixUpItems(collection, 0xFF, true);
  EXPECT_FALSE(region->overrideFlags & Region::kOverrideRoot);
  EXPECT_EQ(region->GetParam(222), 64.0f);
  // A different override stands.
  region->SetParam(222, 70);
  FixUpItems(collection, 0xFF, true);
  EXPECT_EQ(region->GetParam(222), 70.0f);
}

TEST_F(FixUpTest, DataFormatsAndBitsUnderTheFeatureWord) {
  Collection collection;
  Waveform* compressed = MakeWave(collection, 100, "a");
  compressed->dataFormat = 10;
  compressed->bits = 16;
  Waveform* deep = MakeWave(collection, 100, "b");
  deep->bits = 24;
  FixUpItems(collection, 0xFF, false);
  EXPECT_EQ(compressed->dataFormat, 10);
  EXPECT_EQ(deep->dataFormat, 2);  // default format by bits: 17-24 bits
  GetSettings().features &= ~(uint64_t(1) << kFeatureCompressedFormats);
  FixUpItems(collection, 0xFF, false);
  EXPECT_EQ(compressed->dataFormat, 1);
}

TEST_F(FixUpTest, WaveAndRegionFieldsAreMended) {
  Collection collection;
  Waveform* wave = MakeWave(collection, 1000, "w");
  wave->sampleRate = 0;
  wave->gain = 3.14159f;
  wave->loop = {2, 0, 100.0f, 900.0f, 1.5f};
  wave->markers.push_back({1, 500, 400, "b", 0});
  wave->markers.push_back({0, 1200, 0, "gone", 0});
  wave->markers.push_back({0, 100, 0, "a", 0});
  auto* instrument = new Instrument(&collection);
  Region* region = instrument->AddRegion(wave->id, kFullRange, kFullRange, -1);
  region->startOffset = 5000;
  region->endOffset = -5000;
  region->SetParam(207, 2000.0f);  // past the wave's end
  GetSettings().features &= ~((uint64_t(1) << kFeatureReverseLoops) | (uint64_t(1) << kFeatureLoopTune));
  FixUpItems(collection, 0xFF, false);
  EXPECT_EQ(wave->sampleRate, 44100u);
  EXPECT_FLOAT_EQ(wave->gain, 3.14f);
  EXPECT_EQ(wave->loop.type, 1);
  EXPECT_EQ(wave->loop.tune, 0.0f);
  ASSERT_EQ(wave->markers.size(), 2u);
  EXPECT_EQ(wave->markers[0].name, "a");
  EXPECT_EQ(wave->markers[1].start, 400u);
  EXPECT_EQ(wave->markers[1].end, 500u);
  EXPECT_EQ(region->startOffset, 999);
  EXPECT_EQ(region->endOffset, 0);  // at least start - length + 1
  EXPECT_EQ(region->GetParam(207), 1000.0f);
  // Without region offsets both go to zero.
  region->startOffset = 10;
  GetSettings().features &= ~(uint64_t(1) << kFeatureRegionOffsets);
  FixUpItems(collection, 0xFF, false);
  EXPECT_EQ(region->startOffset, 0);
}

TEST_F(FixUpTest, RegionLevelOffMovesValuesToTheLayer) {
  Collection collection;
  Waveform* wave = MakeWave(collection, 100, "w");
  auto* instrument = new Instrument(&collection);
  Region* a = instrument->AddRegion(wave->id, PackRange(0, 59), kFullRange, -1);
  Region* b = instrument->AddRegion(wave->id, PackRange(60, 127), kFullRange, -1);
  a->SetParam(24, 1000.0f);
  b->SetParam(24, 1000.0f);
  a->SetParam(14, -3.0f);
  Layer* layer = collection.Find<Layer>(a->parentId);
  GetSettings().features &= ~(uint64_t(1) << kFeatureRegionLevel);
  FixUpItems(collection, 0xFF, false);
  EXPECT_TRUE(layer->IsParamSet(24));
  EXPECT_EQ(layer->GetParam(24), 1000.0f);
  EXPECT_FALSE(a->IsParamSet(24));
  EXPECT_EQ(a->GetParam(24), 1000.0f);
  // Master volume differs between the regions and stays with each.
  EXPECT_EQ(a->GetParam(14), -3.0f);
  EXPECT_EQ(b->GetParam(14), 0.0f);
}

TEST_F(FixUpTest, MoveUpAllOrNothingAndPartial) {
  Collection collection;
  auto* instrument = new Instrument(&collection);
  Region* a = instrument->AddRegion(kNoWave, PackRange(0, 59), kFullRange, -1);
  Region* b = instrument->AddRegion(kNoWave, PackRange(60, 127), kFullRange, -1);
  Layer* layer = collection.Find<Layer>(a->parentId);
  a->SetParam(24, 500.0f);
  b->SetParam(24, 500.0f);
  a->SetParam(35, 6.0f);
  EXPECT_FALSE(MoveUp(*layer, false, 0, kArticulationParamCount, false));
  EXPECT_FALSE(layer->IsParamSet(24));
  EXPECT_TRUE(MoveUp(*layer, true, 0, kArticulationParamCount, false));
  EXPECT_EQ(layer->GetParam(24), 500.0f);
  EXPECT_FALSE(a->IsParamSet(24));
  EXPECT_TRUE(a->IsParamSet(35));
}

TEST_F(FixUpTest, TriggerGroupsMoveUpWhenRegionsAgree) {
  Collection collection;
  auto* instrument = new Instrument(&collection);
  Region* a = instrument->AddRegion(kNoWave, PackRange(0, 59), PackRange(10, 100), -1);
  Region* b = instrument->AddRegion(kNoWave, PackRange(60, 127), PackRange(10, 100), -1);
  Layer* layer = collection.Find<Layer>(a->parentId);
  a->SetParam(202, 3);
  b->SetParam(202, 4);
  a->SetParam(201, 0.25f);
  b->SetParam(201, 0.25f);
  EXPECT_TRUE(MoveTriggerParamsUp(*layer));
  EXPECT_TRUE(layer->IsParamSet(201));
  EXPECT_EQ(layer->GetParam(192), 10.0f);
  EXPECT_FALSE(a->IsParamSet(201));
  EXPECT_EQ(a->GetParam(201), 0.25f);
  EXPECT_EQ(b->GetParam(191), 127.0f);  // keys differ: stay with the regions
}

TEST_F(FixUpTest, CompactLayersMergesDisjointLayers) {
  Collection collection;
  auto* instrument = new Instrument(&collection);
  // Different hints force two layers.
  Region* a = instrument->AddRegion(kNoWave, PackRange(0, 59), kFullRange, -1, 0);
  Region* b = instrument->AddRegion(kNoWave, PackRange(60, 127), kFullRange, -1, 1);
  ASSERT_NE(a->parentId, b->parentId);
  Layer* second = collection.Find<Layer>(b->parentId);
  second->SetParam(14, -6.0f);
  b->articulation.FillFrom(second->articulation);
  EXPECT_EQ(CompactLayers(*instrument, true, true), 0);  // articulations differ
  EXPECT_EQ(CompactLayers(*instrument, true, false), 1);
  EXPECT_EQ(collection.CountOf(ItemType::Layer), 1u);
  EXPECT_EQ(b->parentId, a->parentId);
  EXPECT_EQ(b->GetParam(14), -6.0f);  // the sound of the moved region is kept
}

}  // namespace
}  // namespace orlin
