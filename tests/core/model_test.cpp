// The collection model: ids, insertion order, names, layer search, overlaps, patches, merges.
#include <gtest/gtest.h>

#include "core/collection.h"
#include "core/fixup.h"
#include "test_support.h"

namespace orlin {
namespace {

TEST(CollectionModel, IdsIterationOrderAndCounts) {
  Collection collection;
  EXPECT_EQ(collection.id, kCollectionId);
  EXPECT_EQ(collection.GetName(), "New collection");
  auto* a = new Waveform(&collection);
  auto* instrument = new Instrument(&collection);
  auto* b = new Waveform(&collection);
  EXPECT_EQ(TypeOfId(a->id), ItemType::Waveform);
  EXPECT_EQ(TypeOfId(instrument->id), ItemType::Instrument);
  EXPECT_NE(a->id, b->id);
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 2u);
  std::vector<Waveform*> waves = collection.All<Waveform>().ToVector();
  ASSERT_EQ(waves.size(), 2u);
  EXPECT_EQ(waves[0], a);
  EXPECT_EQ(waves[1], b);
  delete a;
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 1u);
  EXPECT_EQ(collection.FindItem(b->id), b);
  EXPECT_EQ(collection.FindItem(kNullId), nullptr);
  // Walking may delete the item at hand.
  for (Waveform* wave : collection.All<Waveform>()) delete wave;
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 0u);
}

TEST(CollectionModel, ClearEmptyCollectionStaysValid) {
  Collection collection;
  collection.Clear();
  EXPECT_EQ(collection.GetName(), "New collection");
  EXPECT_EQ(collection.sourceRow, -1);
  auto* instrument = new Instrument(&collection);
  instrument->AddRegion(kNoWave, PackRange(0, 10), kFullRange, -1);
  collection.SetName("Drums");
  collection.Clear();
  EXPECT_EQ(collection.CountOf(ItemType::Instrument), 0u);
  EXPECT_EQ(collection.CountOf(ItemType::Region), 0u);
  EXPECT_EQ(collection.CountOf(ItemType::Layer), 0u);
  EXPECT_EQ(collection.GetName(), "New collection");
}

TEST(CollectionModel, DefaultNamesFollowTheCollection) {
  Collection collection;
  collection.SetName("Bass");
  auto* only = new Waveform(&collection);
  only->FixUp();
  EXPECT_EQ(only->GetName(), "Bass");

  Collection drums;
  drums.SetName("Drums");
  auto* first = new Instrument(&drums);
  auto* second = new Instrument(&drums);
  first->SetName("");
  second->SetName("");
  EXPECT_EQ(first->GetName(), "Drums: 1st instrument");
  EXPECT_EQ(second->GetName(), "Drums: 2nd instrument");
}

TEST(CollectionModel, TextSlotsAreTrimmed) {
  Collection collection;
  auto* wave = new Waveform(&collection);
  wave->SetText(kTextName, "  Kick\tdrum \r\n");
  EXPECT_EQ(wave->GetName(), "Kick drum");
  wave->SetText(kTextComments, "line one\nline two\n");
  EXPECT_EQ(wave->GetText(kTextComments), "line one\nline two");
  wave->SetImage("GIF89a....", 10);
  EXPECT_STREQ(wave->ImageMimeType(), "image/gif");
  wave->SetImage("\xFF\xD8\xFF", 3);
  EXPECT_STREQ(wave->ImageMimeType(), "image/jpeg");
}

TEST(CollectionModel, EnsureUniqueNameCountsUpCaseBlind) {
  struct Case {
    const char* first;
    const char* second;
    const char* expected;
  };
  for (const Case& c : {Case{"Piano", "piano", "piano 1"}, Case{"Kick9", "kick9", "kick10"}, Case{"A4", "a4", "a4 1"},
                        Case{"F#4", "f#4", "f#4 1"}, Case{"123", "123", "124"}}) {
    Collection collection;
    auto* a = new Waveform(&collection);
    auto* b = new Waveform(&collection);
    a->SetName(c.first);
    b->SetName(c.second);
    EnsureUniqueName(*a);
    EnsureUniqueName(*b);
    EXPECT_EQ(a->GetName(), c.first);
    EXPECT_EQ(b->GetName(), c.expected) << c.first << " / " << c.second;
  }
}

TEST(CollectionModel, AddRegionLayerSearch) {
  Collection collection;
  auto* instrument = new Instrument(&collection);
  Region* low = instrument->AddRegion(kNoWave, PackRange(0, 59), PackRange(0, 127), 60);
  Region* high = instrument->AddRegion(kNoWave, PackRange(60, 127), PackRange(0, 127), 60);
  ASSERT_EQ(instrument->children.size(), 1u) << "disjoint keys share a layer";
  EXPECT_EQ(low->parentId, high->parentId);
  // An overlapping rectangle needs a layer of its own.
  Region* overlapping = instrument->AddRegion(kNoWave, PackRange(50, 70), PackRange(0, 127), 60);
  EXPECT_EQ(instrument->children.size(), 2u);
  EXPECT_NE(overlapping->parentId, low->parentId);
  // The constructor marks key and velocity as set only when given.
  EXPECT_TRUE(low->IsParamSet(190));
  auto* bare = new Region(&collection);
  EXPECT_FALSE(bare->IsParamSet(190));
  EXPECT_EQ(bare->GetName(), "C-1..G9 : unnamed");
  // With a hint only layers of that hint are searched.
  instrument->AddRegion(kNoWave, PackRange(0, 10), kFullRange, -1, 7);
  EXPECT_EQ(instrument->children.size(), 3u);
}

TEST(CollectionModel, RegionAtAndOverlaps) {
  Collection collection;
  auto* instrument = new Instrument(&collection);
  Region* soft = instrument->AddRegion(kNoWave, PackRange(36, 48), PackRange(0, 63), -1);
  Region* loud = instrument->AddRegion(kNoWave, PackRange(36, 48), PackRange(64, 127), -1);
  auto* layer = collection.Find<Layer>(soft->parentId);
  ASSERT_NE(layer, nullptr);
  ASSERT_EQ(loud->parentId, layer->id);
  EXPECT_EQ(layer->RegionAt(40, 10), soft);
  EXPECT_EQ(layer->RegionAt(40, 100), loud);
  EXPECT_EQ(layer->RegionAt(40, 255), soft);
  EXPECT_EQ(layer->RegionAt(200, 10), nullptr);
  EXPECT_EQ(layer->RegionAt(49, 10), nullptr);
  EXPECT_TRUE(layer->Overlaps(PackRange(48, 50), PackRange(63, 63)));
  EXPECT_FALSE(layer->Overlaps(PackRange(49, 50), kFullRange));
  EXPECT_FALSE(layer->Overlaps(PackRange(36, 48), PackRange(0, 63), soft->id) &&
               !layer->Overlaps(PackRange(36, 48), PackRange(0, 63), loud->id));
  uint32_t keys, velocities;
  layer->Bounds(keys, velocities);
  EXPECT_EQ(keys, PackRange(36, 48));
  EXPECT_EQ(velocities, PackRange(0, 127));
}

TEST(CollectionModel, ResolveOverlapsShrinksOrDeletes) {
  Collection collection;
  auto* instrument = new Instrument(&collection);
  Region* wide = instrument->AddRegion(kNoWave, PackRange(0, 127), PackRange(0, 127), -1);
  auto* layer = collection.Find<Layer>(wide->parentId);
  // A thin velocity band across all keys: the velocity range gives way, on the side that loses less.
  layer->ResolveOverlaps(PackRange(0, 127), PackRange(100, 127));
  EXPECT_EQ(wide->range.loVelocity, 0);
  EXPECT_EQ(wide->range.hiVelocity, 99);
  EXPECT_EQ(wide->range.hiKey, 127);
  // A few keys over the whole velocity range: keys give way.
  layer->ResolveOverlaps(PackRange(120, 127), PackRange(0, 127));
  EXPECT_EQ(wide->range.hiKey, 119);
  // Covering it whole deletes it.
  const uint32_t wideId = wide->id;
  layer->ResolveOverlaps(kFullRange, kFullRange);
  EXPECT_EQ(collection.FindItem(wideId), nullptr);
  EXPECT_TRUE(layer->children.empty());
}

TEST(CollectionModel, RegionOverridesFollowTheWave) {
  Collection collection;
  auto* wave = new Waveform(&collection);
  wave->length = 1000;
  wave->loop = {1, 0, 100.0f, 900.0f, 0.0f};
  wave->rootKey = 48;
  auto* instrument = new Instrument(&collection);
  Region* region = instrument->AddRegion(wave->id, kFullRange, kFullRange, -1);
  EXPECT_EQ(region->EffectiveRootKey(), 48);
  EXPECT_EQ(region->EffectiveLoop().start, 100.0f);
  wave->loop.start = 200.0f;
  EXPECT_EQ(region->GetParam(206), 200.0f);
  region->SetParam(222, 60);
  EXPECT_EQ(region->EffectiveRootKey(), 60);
  EXPECT_EQ(region->GetName(), "C-1..G9 : " + wave->GetName());
}

TEST(CollectionModel, UniquePatchesStepTheMajorBank) {
  Collection collection;
  std::vector<Instrument*> programs;
  for (uint32_t program = 0; program < 128; ++program) programs.push_back(new Instrument(&collection, program));
  collection.FixUp();
  for (uint32_t program = 0; program < 128; ++program) {
    EXPECT_EQ(programs[program]->Program(), int(program));
    EXPECT_EQ(programs[program]->MajorBank(), 0);
  }
  Collection clash;
  auto* a = new Instrument(&clash);
  auto* b = new Instrument(&clash);
  a->SetPatch(0, 0, 5, false);
  b->SetPatch(0, 0, 5, false);
  clash.FixUp();
  EXPECT_EQ(a->MajorBank(), 0);
  EXPECT_EQ(b->MajorBank(), 1);
  EXPECT_EQ(b->Program(), 5);
}

TEST(CollectionModel, MergeGivesNewIdsAndStepsPrograms) {
  Collection target;
  auto* existing = new Instrument(&target);
  existing->SetPatch(0, 0, 0, false);
  auto* existingNext = new Instrument(&target);
  existingNext->SetPatch(0, 0, 1, false);

  Collection source;
  source.SetText(kTextSourceFile, "/somewhere/bank.sf2");
  auto* wave = new Waveform(&source);
  wave->length = 10;
  auto* incoming = new Instrument(&source);
  incoming->SetPatch(0, 0, 0, false);
  Region* region = incoming->AddRegion(wave->id, kFullRange, kFullRange, -1);
  const uint32_t regionId = region->id;

  target.MergeFrom(source);
  EXPECT_EQ(target.CountOf(ItemType::Instrument), 3u);
  EXPECT_EQ(source.CountOf(ItemType::Instrument), 0u);
  EXPECT_EQ(incoming->collection, &target);
  EXPECT_EQ(incoming->Program(), 2) << "programs 0 and 1 were taken";
  // Child and parent ids were rewritten together.
  auto* layer = target.Find<Layer>(incoming->children.at(0));
  ASSERT_NE(layer, nullptr);
  auto* movedRegion = target.Find<Region>(layer->children.at(0));
  ASSERT_NE(movedRegion, nullptr);
  EXPECT_EQ(movedRegion, region);
  EXPECT_EQ(movedRegion->GetWave(), wave);
  EXPECT_EQ(movedRegion->parentId, layer->id);
  (void)regionId;
  EXPECT_EQ(wave->GetSourcePath(), "/somewhere/bank.sf2");
  EXPECT_EQ(source.FindItem(kCollectionId), &source);
}

TEST(CollectionModel, MoveChildAndDanglingIds) {
  Collection collection;
  auto* song = new Song(&collection);
  std::vector<uint32_t> ids;
  for (int i = 0; i < 4; ++i) {
    auto* track = new Track(&collection);
    track->parentId = song->id;
    song->children.push_back(track->id);
    ids.push_back(track->id);
  }
  song->MoveChild(0, 2);
  EXPECT_EQ(song->children, (std::vector<uint32_t>{ids[1], ids[2], ids[0], ids[3]}));
  song->MoveChild(3, 99);
  EXPECT_EQ(song->children.back(), ids[3]);
  song->children.push_back(MakeId(ItemType::Track, 0x0ABCDEF));
  song->DropDanglingChildren();
  EXPECT_EQ(song->children.size(), 4u);
  delete collection.FindItem(ids[1]);
  EXPECT_EQ(song->children.size(), 3u) << "a track leaves its song's list";
}

}  // namespace
}  // namespace orlin
