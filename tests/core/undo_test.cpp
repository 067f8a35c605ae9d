// Flat item records, state files and the undo ring: round trips of every item kind and of real banks,
// damaged input, the ring's edges, a long seeded run of edits against whole-collection snapshots, and
// a writer killed in the middle of a state.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "core/collection.h"
#include "core/last_error.h"
#include "core/param_edit.h"
#include "core/pipeline.h"
#include "core/settings.h"
#include "core/state_file.h"
#include "core/undo.h"
#include "test_support.h"

namespace orlin {
namespace {

namespace fs = std::filesystem;

std::vector<uint8_t> Snapshot(const Collection& collection) {
  std::vector<uint8_t> bytes;
  EXPECT_TRUE(SerializeState(collection, bytes)) << LastError();
  return bytes;
}

// Every state file of the test goes to a scratch data folder.
class DataFolderTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("ORLIN_DATA_DIR", scratch_.Path().c_str(), 1); }
  void TearDown() override { unsetenv("ORLIN_DATA_DIR"); }
  test::ScratchDir scratch_;
};

// One of every kind, with the fields that a careless codec would drop set to unusual values.
void BuildEveryKind(Collection& collection) {
  collection.SetName("Every kind");
  collection.SetText(kTextComments, "comment\twith tab");
  collection.sourceRow = 17;
  auto* wave = new Waveform(&collection);
  wave->SetName("Wave with memory");
  wave->length = 5;
  wave->channels = 2;
  wave->sampleRate = 44100;
  wave->rootKey = 61;
  wave->fineTune = -7;
  wave->gain = -3.25f;
  wave->loop = {2, 1, 1.5f, 4.0f, 0.25f};
  wave->dataFormat = 3;
  wave->sourceOffset = 0x123456789ull;
  wave->sourceOffsetB = 99;
  float* samples = wave->AllocSamples();
  for (int i = 0; i < 10; ++i) samples[i] = float(i) * 0.1f - 0.5f;
  wave->sampleRate = 44100;
  wave->markers.push_back({1, 1, 3, "section", 77});
  wave->markers.push_back({0, 4, 4, std::string(300, 'x'), 78});
  const uint8_t image[] = {0x89, 'P', 'N', 'G', 0, 1, 2};
  wave->SetImage(image, sizeof image);

  auto* bare = new Waveform(&collection);
  bare->SetName("Wave without memory");
  bare->length = 100;

  auto* instrument = new Instrument(&collection);
  instrument->SetName("Piano");
  instrument->SetPatch(3, 2, 1, true);
  instrument->articulation.Set(14, -6.0f);
  instrument->effectSlots[0] = 1;   // chorus
  instrument->effectSlots[3] = 5;   // voice count
  instrument->effectSlots[6] = 1;
  instrument->effectSlots[1] = 0.3f;
  Region* region = instrument->AddRegion(wave->id, PackRange(10, 20), PackRange(5, 90), 64);
  region->SetName("named region");
  region->SetParam(206, 1.25f);
  region->SetParam(201, 0.5f);    // trigger delay
  region->SetParam(202, 300.0f);  // exclusion group
  region->SetParam(194, 12.0f);
  region->SetParam(223, 4.0f);
  region->SetParam(224, -2.0f);
  region->phaseGroup = 3;
  region->articulation.Set(24, 1234.5f);
  auto* layer = collection.Find<Layer>(region->parentId);
  layer->SetName("Layer 1");
  layer->SetParam(200, 1.0f);
  auto* model = new SynthesisModel(&collection);
  model->SetName("FM");
  model->modelKind = 0;
  model->model.assign(824, 0x5A);
  Region* synthRegion = instrument->AddRegion(kNoWave, PackRange(30, 40), kFullRange, -1);
  synthRegion->children.push_back(model->id);
  model->parentId = synthRegion->id;

  auto* song = new Song(&collection);
  song->SetName("Song");
  song->format = 0;
  song->division = 0xE728;
  auto* track = new Track(&collection);
  track->SetName("Track 01");
  track->data = {0x00, 0x90, 60, 100, 0x60, 0x80, 60, 0, 0x00, 0xFF, 0x2F, 0x00};
  track->patternNumber = 4;
  track->flags = 254;
  track->firstChannel = 0;
  track->parentId = song->id;
  song->children.push_back(track->id);
}

TEST_F(DataFolderTest, EveryItemKindSurvivesAStateWithItsFields) {
  Collection original;
  BuildEveryKind(original);
  const std::vector<uint8_t> bytes = Snapshot(original);
  ASSERT_TRUE(SaveStateFile(original, "every kind"));

  // Each record is exactly as long as its size says.
  for (const Item* item : original.AllItems()) {
    std::vector<uint8_t> record(item->SerializedSize() + 8);
    EXPECT_EQ(item->Serialize(record.data()), record.data() + item->SerializedSize()) << std::hex << item->id;
  }
  Collection loaded;
  ASSERT_TRUE(LoadStateFile(loaded, "every kind")) << LastError();
  EXPECT_EQ(Snapshot(loaded), bytes);
  EXPECT_EQ(loaded.GetName(), "Every kind");
  EXPECT_EQ(loaded.GetText(kTextComments), "comment\twith tab");
  EXPECT_EQ(loaded.sourceRow, 17);

  // Ids are kept, so every item is found where it was.
  for (const Item* item : original.AllItems()) {
    const Item* twin = loaded.FindItem(item->id);
    ASSERT_NE(twin, nullptr) << std::hex << item->id;
    EXPECT_EQ(twin->parentId, item->parentId);
    EXPECT_EQ(twin->children, item->children);
    EXPECT_EQ(twin->GetName(), item->GetName());
  }
  const auto originalWaves = original.All<Waveform>().ToVector();
  const auto* wave = loaded.Find<Waveform>(originalWaves[0]->id);
  ASSERT_NE(wave->Data(), nullptr);
  EXPECT_EQ(wave->Data()->samples[9], originalWaves[0]->Data()->samples[9]);
  EXPECT_EQ(wave->loop, originalWaves[0]->loop);
  EXPECT_EQ(wave->sourceOffset, 0x123456789ull);
  EXPECT_EQ(wave->sourceOffsetB, 99u);
  EXPECT_EQ(wave->fineTune, -7);
  EXPECT_EQ(wave->GetImage(), originalWaves[0]->GetImage());
  ASSERT_EQ(wave->markers.size(), 2u);
  EXPECT_EQ(wave->markers[0].name, "section");
  EXPECT_EQ(wave->markers[0].id, 77u);
  EXPECT_EQ(wave->markers[1].name.size(), 255u);  // names are cut at 255 bytes
  EXPECT_EQ(loaded.Find<Waveform>(originalWaves[1]->id)->Data(), nullptr);

  const Region* region = nullptr;
  for (const Region* each : loaded.All<Region>())
    if (each->HasOwnName()) region = each;
  ASSERT_NE(region, nullptr);
  EXPECT_EQ(region->range.loKey, 10);
  EXPECT_EQ(region->range.hiVelocity, 90);
  EXPECT_EQ(region->GetParam(201), 0.5f);
  EXPECT_EQ(region->GetParam(202), 300.0f);
  EXPECT_EQ(region->GetParam(194), 12.0f);
  EXPECT_TRUE(region->IsParamSet(202));
  EXPECT_EQ(region->loop.start, 1.25f);
  EXPECT_EQ(region->rootKey, 64);
  EXPECT_EQ(region->startOffset, 4);
  EXPECT_EQ(region->endOffset, -2);
  EXPECT_EQ(region->phaseGroup, 3);
  EXPECT_EQ(region->articulation.Get(24), 1234.5f);
  EXPECT_TRUE(region->articulation.IsSet(24));
  const Instrument* instrument = *loaded.All<Instrument>().begin();
  EXPECT_TRUE(instrument->IsDrumKit());
  EXPECT_EQ(instrument->MajorBank(), 3);
  EXPECT_EQ(instrument->articulation.Get(14), -6.0f);
  EXPECT_EQ(instrument->effectSlots[3], 5.0f);
  EXPECT_EQ(instrument->effectSlots[6], 1.0f);
  EXPECT_EQ(instrument->effectSlots[1], 0.3f);
  const SynthesisModel* model = *loaded.All<SynthesisModel>().begin();
  EXPECT_EQ(model->model.size(), 824u);
  const Track* track = *loaded.All<Track>().begin();
  EXPECT_EQ(track->data.size(), 12u);
  EXPECT_EQ(track->flags, 254);
  EXPECT_EQ(track->patternNumber, 4);
  const Song* song = *loaded.All<Song>().begin();
  EXPECT_EQ(song->division, 0xE728);
  EXPECT_EQ(song->format, 0);
}

TEST_F(DataFolderTest, StateHeaderAndRecordOrder) {
  Collection collection;
  BuildEveryKind(collection);
  const std::vector<uint8_t> bytes = Snapshot(collection);
  ASSERT_GE(bytes.size(), 12u);
  EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 4), "OlSt");
  EXPECT_EQ(bytes[4] | bytes[5] << 8 | bytes[6] << 16 | bytes[7] << 24, 12070004);
  const uint32_t count = bytes[8] | bytes[9] << 8 | bytes[10] << 16 | uint32_t(bytes[11]) << 24;
  EXPECT_EQ(count, collection.AllItems().size());
  // Waves come first, the collection last.
  const Waveform* first = *collection.All<Waveform>().begin();
  EXPECT_EQ(bytes[12] | bytes[13] << 8 | bytes[14] << 16 | uint32_t(bytes[15]) << 24, first->id);
  // Records carry no padding: a wave without memory is its fields, the byte 0 and its markers.
  Collection lone;
  auto* wave = new Waveform(&lone);
  wave->SetName("w");
  const size_t head = 4 + 4 + 4 + 8 + 4;
  const size_t texts = (2 + 4 + 1) + 2;
  EXPECT_EQ(wave->SerializedSize(), head + texts + 47 + 1 + 2);
}

TEST_F(DataFolderTest, WaveWithoutMemoryIsDecodedFromItsFileAfterLoad) {
  ORLIN_REQUIRE_TESTDATA();
  const std::string path = (test::TestDataDir() / "audio/generated/dtmf8k/wav_alaw.wav").string();
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, path, false)) << LastError();
  Waveform* wave = *collection.All<Waveform>().begin();
  ASSERT_EQ(wave->Data(), nullptr);
  ASSERT_TRUE(SaveStateFile(collection, "lazy"));
  std::vector<uint8_t> lazyBytes = Snapshot(collection);

  Collection loaded;
  ASSERT_TRUE(LoadStateFile(loaded, "lazy"));
  Waveform* twin = loaded.Find<Waveform>(wave->id);
  ASSERT_NE(twin, nullptr);
  EXPECT_EQ(twin->Data(), nullptr);
  const float* decoded = twin->GetSamplesForRead();
  ASSERT_NE(decoded, nullptr) << LastError();
  const float* reference = wave->GetSamplesForRead();
  ASSERT_NE(reference, nullptr);
  EXPECT_EQ(std::memcmp(decoded, reference, wave->length * wave->channels * 4), 0);
  // A state from another build of the program (the GUI's "Last session" read by the command line):
  // the decoder word is not followed, the decoder is found again from the file.
  {
    std::vector<uint8_t>& bytes = lazyBytes;
    ASSERT_TRUE(wave->markers.empty());
    wave->DropData();  // sizes as when the state was taken
    const size_t recordEnd = 12 + wave->SerializedSize();
    bytes[recordEnd - 4] ^= 0x5A;  // the build tag: the top bytes of the decoder word
    Collection foreign;
    ASSERT_TRUE(DeserializeState(foreign, bytes.data(), bytes.size()));
    Waveform* relinked = foreign.Find<Waveform>(wave->id);
    ASSERT_NE(relinked, nullptr);
    ASSERT_NE(relinked->decoder, nullptr);
    const float* again = relinked->GetSamplesForRead();
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(std::memcmp(again, wave->GetSamplesForRead(), wave->length * wave->channels * 4), 0);
  }
  // With its samples in memory now, the next state carries them.
  ASSERT_TRUE(SaveStateFile(loaded, "decoded"));
  EXPECT_GT(fs::file_size(StateFilePath("decoded")), fs::file_size(StateFilePath("lazy")) + wave->length * 4 - 1);
}

TEST_F(DataFolderTest, WrongVersionAndDamageLeaveTheCollectionAlone) {
  Collection source;
  BuildEveryKind(source);
  std::vector<uint8_t> bytes = Snapshot(source);

  Collection target;
  auto* keep = new Instrument(&target);
  keep->SetName("keep me");
  std::vector<uint8_t> otherVersion = bytes;
  otherVersion[4] ^= 1;
  EXPECT_FALSE(DeserializeState(target, otherVersion.data(), otherVersion.size()));
  EXPECT_EQ(LastError(), "Wrong state version");
  EXPECT_EQ(target.FindItem(keep->id), keep);
  std::vector<uint8_t> otherMagic = bytes;
  otherMagic[0] = 'X';
  EXPECT_FALSE(DeserializeState(target, otherMagic.data(), otherMagic.size()));
  EXPECT_EQ(LastError(), "Wrong state version");

  // Every cut of the file fails cleanly and touches nothing.
  for (size_t size = 0; size < bytes.size(); size += (size < 200 ? 1 : 97)) {
    ASSERT_FALSE(DeserializeState(target, bytes.data(), size)) << size;
    ASSERT_EQ(target.FindItem(keep->id), keep);
  }
  // Flipped bytes never crash; the collection is either untouched or a complete load.
  test::SeededRandom random(7);
  for (int round = 0; round < 400; ++round) {
    std::vector<uint8_t> damaged = bytes;
    damaged[12 + random.Next() % (damaged.size() - 12)] ^= uint8_t(1 + random.Next() % 255);
    Collection scratch;
    if (!DeserializeState(scratch, damaged.data(), damaged.size())) {
      EXPECT_EQ(scratch.AllItems().size(), 1u);
    }
  }
  // A layer that names itself as its child (a loop its destructor would follow) is refused whole.
  {
    size_t at = 12;
    for (ItemType type : {ItemType::Waveform, ItemType::SynthesisModel, ItemType::Region})
      for (const Item* item : source.AllItems())
        if (item->Type() == type) at += item->SerializedSize();
    const Layer* layer = *source.All<Layer>().begin();
    ASSERT_FALSE(layer->children.empty());
    std::vector<uint8_t> looped = bytes;
    std::memcpy(looped.data() + at + 24, &layer->id, 4);
    Collection scratch;
    EXPECT_FALSE(DeserializeState(scratch, looped.data(), looped.size()));
  }
  // An empty file on disk is no state.
  test::WriteBytes(scratch_.File("empty.ost"), {});
  EXPECT_FALSE(LoadStateFromPath(target, scratch_.File("empty.ost")));
  EXPECT_EQ(target.FindItem(keep->id), keep);
}

TEST_F(DataFolderTest, StateNamesBecomeFileNames) {
  EXPECT_EQ(fs::path(StateFilePath("Saved state 12:34.56")).filename(), "Saved state 12_34_56.ost");
  EXPECT_EQ(fs::path(StateFilePath("a/b")).filename(), "a_b.ost");
  Collection collection;
  new Waveform(&collection);
  ASSERT_TRUE(SaveStateFile(collection, "Saved state 12:34.56"));
  EXPECT_TRUE(fs::exists(scratch_.Path() / "Saved state 12_34_56.ost"));
  ASSERT_EQ(ListStateFiles().size(), 1u);
  EXPECT_EQ(ListStateFiles()[0].name, "Saved state 12_34_56");
  // No temporary file is left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(scratch_.Path()), fs::directory_iterator()), 1);
}

TEST_F(DataFolderTest, StateRingKeepsThirtyTwoAndDropsWhatComesAfterCurrent) {
  Collection collection;
  StateRing ring;
  for (int i = 0; i < 34; ++i) {
    collection.SetName("state " + std::to_string(i));
    ASSERT_TRUE(ring.SaveNamedState(collection, "s" + std::to_string(i)));
  }
  EXPECT_EQ(ring.Names().size(), 32u);
  EXPECT_FALSE(fs::exists(StateFilePath("s0")));
  EXPECT_FALSE(fs::exists(StateFilePath("s1")));
  EXPECT_TRUE(fs::exists(StateFilePath("s2")));
  ASSERT_TRUE(ring.PrevState(collection));
  EXPECT_EQ(collection.GetName(), "state 32");
  ASSERT_TRUE(ring.LoadState(collection, -30));
  EXPECT_EQ(collection.GetName(), "state 2");
  EXPECT_FALSE(ring.PrevState(collection));
  ASSERT_TRUE(ring.NextState(collection));
  EXPECT_EQ(collection.GetName(), "state 3");
  // A new state here forgets s4..s33.
  ASSERT_TRUE(ring.SaveNamedState(collection, "branch"));
  EXPECT_FALSE(fs::exists(StateFilePath("s4")));
  EXPECT_FALSE(fs::exists(StateFilePath("s33")));
  EXPECT_EQ(ring.Names().back(), "branch");
  EXPECT_FALSE(ring.NextState(collection));
  ring.DeleteAll();
  EXPECT_TRUE(ListStateFiles().empty());
}

TEST_F(DataFolderTest, LastSessionComesBackAndItsAbsenceIsSilent) {
  Collection collection;
  StateRing ring;
  SetLastError("");
  EXPECT_FALSE(RestoreLastSession(collection, &ring));
  EXPECT_EQ(LastError(), "");
  EXPECT_TRUE(ring.Names().empty());
  BuildEveryKind(collection);
  const std::vector<uint8_t> before = Snapshot(collection);
  ASSERT_TRUE(SaveLastSession(collection));
  Collection next;
  ASSERT_TRUE(RestoreLastSession(next, &ring));
  EXPECT_EQ(Snapshot(next), before);
  EXPECT_EQ(ring.Names(), std::vector<std::string>{"Last session"});
}

// ---------------------------------------------------------------------------------------------
// The undo ring

struct Bank {
  Collection collection;
  Instrument* instrument;
  std::vector<Region*> regions;
  Waveform* wave;
  explicit Bank(int regionCount) {
    instrument = new Instrument(&collection);
    instrument->SetName("Strings");
    wave = new Waveform(&collection);
    wave->SetName("Cello");
    wave->length = 10;
    for (int i = 0; i < regionCount; ++i)
      regions.push_back(instrument->AddRegion(wave->id, PackRange(i % 128, i % 128), kFullRange, -1, 0));
  }
};

TEST_F(DataFolderTest, SixtyFiveDeletesKeepSixtyFourUndoable) {
  Bank bank(65);
  UndoRing undo(bank.collection);
  const std::vector<uint8_t> start = Snapshot(bank.collection);
  std::vector<std::vector<uint8_t>> before;
  for (Region* region : bank.regions) {
    before.push_back(Snapshot(bank.collection));
    undo.RecordDelete({region});
    delete region;
  }
  EXPECT_EQ(undo.EntryCount(), 64);
  for (int i = 64; i >= 1; --i) {
    ASSERT_TRUE(undo.Undo()) << i;
    ASSERT_EQ(Snapshot(bank.collection), before[size_t(i)]) << i;
  }
  EXPECT_FALSE(undo.Undo());  // the first delete fell out of the ring
  EXPECT_FALSE(undo.CanUndo());
  EXPECT_NE(Snapshot(bank.collection), start);
  EXPECT_EQ(bank.collection.CountOf(ItemType::Region), 64u);
}

TEST_F(DataFolderTest, UndoRedoUndoOfADeleteKeepsIds) {
  Bank bank(3);
  UndoRing undo(bank.collection);
  const uint32_t instrumentId = bank.instrument->id;
  std::vector<uint32_t> ids;
  for (const Item* item : bank.collection.AllItems()) ids.push_back(item->id);
  const std::vector<uint8_t> before = Snapshot(bank.collection);
  undo.RecordDelete({bank.instrument});
  delete bank.instrument;
  EXPECT_EQ(bank.collection.CountOf(ItemType::Region), 0u);
  EXPECT_EQ(undo.UndoLabel(), "Delete Strings");
  ASSERT_TRUE(undo.Undo());
  EXPECT_EQ(undo.LastStatus(), "Undo: Delete Strings");
  EXPECT_EQ(Snapshot(bank.collection), before);
  ASSERT_TRUE(undo.Redo());
  EXPECT_EQ(bank.collection.FindItem(instrumentId), nullptr);
  EXPECT_EQ(bank.collection.CountOf(ItemType::Layer), 0u);
  EXPECT_EQ(bank.collection.CountOf(ItemType::Waveform), 1u);
  ASSERT_TRUE(undo.Undo());
  std::vector<uint32_t> after;
  for (const Item* item : bank.collection.AllItems()) after.push_back(item->id);
  EXPECT_EQ(after, ids);  // same ids, same order
  EXPECT_EQ(Snapshot(bank.collection), before);
  // The walks of one type see the restored items too, in the same order as the whole walk.
  std::vector<uint32_t> byType;
  for (const Item* item : bank.collection.All<Instrument>()) byType.push_back(item->id);
  for (const Item* item : bank.collection.All<Layer>()) byType.push_back(item->id);
  for (const Item* item : bank.collection.All<Region>()) byType.push_back(item->id);
  std::vector<uint32_t> expected;
  for (const ItemType type : {ItemType::Instrument, ItemType::Layer, ItemType::Region})
    for (const Item* item : bank.collection.AllItems())
      if (item->Type() == type) expected.push_back(item->id);
  EXPECT_EQ(byType, expected);
  EXPECT_EQ(bank.collection.All<Region>().ToVector().size(), bank.collection.CountOf(ItemType::Region));
}

TEST_F(DataFolderTest, ANewEditFreesRedoAndStateFilesOfFreedEntries) {
  Bank bank(2);
  UndoRing undo(bank.collection);
  const uint32_t waveId = bank.wave->id;
  ASSERT_TRUE(undo.SaveUndoState(nullptr));
  EXPECT_EQ(undo.UndoLabel(), "Edit all");
  bank.wave->length = 99;
  ASSERT_TRUE(undo.Undo());
  // A state load makes new objects: find the wave again.
  EXPECT_EQ(bank.collection.Find<Waveform>(waveId)->length, 10u);
  ASSERT_EQ(undo.StateNames().size(), 1u);  // now the state after the edit, for redo
  const std::string redoFile = StateFilePath(undo.StateNames()[0]);
  EXPECT_TRUE(fs::exists(redoFile));
  ASSERT_TRUE(undo.CanRedo());
  EXPECT_EQ(undo.RedoLabel(), "Edit all");
  undo.RecordEdit({bank.collection.FindItem(waveId)}, "Rename");
  EXPECT_FALSE(undo.CanRedo());
  EXPECT_FALSE(fs::exists(redoFile));
  // Undo then a new edit in the middle of the ring.
  bank.collection.Find<Waveform>(waveId)->length = 5;
  undo.RecordEdit({bank.collection.FindItem(waveId)}, "Second");
  bank.collection.Find<Waveform>(waveId)->length = 6;
  ASSERT_TRUE(undo.Undo());
  EXPECT_EQ(undo.RedoLabel(), "Second");
  undo.RecordEdit({bank.collection.FindItem(waveId)}, "Third");
  EXPECT_FALSE(undo.CanRedo());
  EXPECT_EQ(undo.EntryCount(), 2);
  undo.ClearUndo();
  EXPECT_TRUE(ListStateFiles().empty());
}

TEST_F(DataFolderTest, ParameterEditsMergeAndCostThirteenBytesAnItem) {
  Bank bank(1000);
  UndoRing undo(bank.collection);
  std::vector<Item*> items(bank.regions.begin(), bank.regions.end());
  constexpr ParamId kCutoff = 24;
  undo.RecordParamEdit(items, kCutoff);
  EditParamOnSelection(items, kCutoff, 500.0f, false, 0);
  ASSERT_EQ(undo.EntryCount(), 1);
  EXPECT_EQ(undo.Current()->data.size(), 9u + 13u * 1000u);
  EXPECT_EQ(undo.Current()->itemId, MakeId(ItemType::Region, 0));
  EXPECT_EQ(undo.UndoLabel(), "<1000 regions>: Edit Filter Cutoff frequency");

  // A drag of another parameter: many calls, one entry, holding the values from before the drag.
  constexpr ParamId kResonance = 35;
  for (float value : {6.0f, 7.0f, 8.0f}) {
    undo.RecordParamEdit(items, kResonance, 0, false, false);
    EditParamOnSelection(items, kResonance, value, false, 0);
  }
  EXPECT_EQ(undo.EntryCount(), 2);
  // A drag of the same parameter right after joins the entry before it.
  undo.RecordParamEdit(items, kResonance, 0, false, false);
  EXPECT_EQ(undo.EntryCount(), 2);
  ASSERT_TRUE(undo.Undo());
  EXPECT_EQ(bank.regions[7]->GetParam(kResonance), 0.0f);
  EXPECT_EQ(bank.regions[7]->GetParam(kCutoff), 500.0f);
  ASSERT_TRUE(undo.Undo());
  EXPECT_EQ(bank.regions[7]->GetParam(kCutoff), 8000.0f);
  EXPECT_FALSE(bank.regions[7]->IsParamSet(kCutoff));
  ASSERT_TRUE(undo.Redo());
  ASSERT_TRUE(undo.Redo());
  EXPECT_EQ(bank.regions[7]->GetParam(kResonance), 8.0f);
  EXPECT_EQ(bank.regions[7]->GetParam(kCutoff), 500.0f);
  EXPECT_TRUE(bank.regions[7]->IsParamSet(kCutoff));

  // The same value set twice on the same items is one step.
  UndoRing again(bank.collection);
  for (int i = 0; i < 2; ++i) {
    again.RecordParamEdit({bank.wave}, 218);
    bank.wave->SetParam(218, 60.0f);
  }
  EXPECT_EQ(again.EntryCount(), 1);
  EXPECT_EQ(again.UndoLabel(), std::string("Cello: Edit ") + GetParamRow(218)->name);
  // A region's root override: undo clears the override bit again.
  Region* one = bank.regions[0];
  again.RecordParamEdit({one}, 222);
  one->SetParam(222, 70.0f);
  ASSERT_TRUE(again.Undo());
  EXPECT_FALSE(one->overrideFlags & Region::kOverrideRoot);
  EXPECT_EQ(one->EffectiveRootKey(), 60);
  // Texts: a rename comes back byte for byte.
  again.RecordParamEdit({bank.instrument}, kTextName);
  bank.instrument->SetName("Violas");
  ASSERT_TRUE(again.Undo());
  EXPECT_EQ(bank.instrument->GetName(), "Strings");
  ASSERT_TRUE(again.Redo());
  EXPECT_EQ(bank.instrument->GetName(), "Violas");
}

TEST_F(DataFolderTest, MarkersMovesAndInsertsUndo) {
  Bank bank(4);
  UndoRing undo(bank.collection);
  bank.wave->markers.push_back({0, 3, 3, "hit", 5});
  const std::vector<uint8_t> start = Snapshot(bank.collection);
  undo.RecordMarkers(*bank.wave);
  bank.wave->markers.clear();
  // A region moves to a new layer of the same instrument.
  Region* moving = bank.regions[1];
  Layer* from = bank.collection.Find<Layer>(moving->parentId);
  undo.RecordMove({moving, bank.instrument}, {}, false);  // the instrument gains a layer
  auto* to = new Layer(&bank.collection);
  to->parentId = bank.instrument->id;
  bank.instrument->children.push_back(to->id);
  from->RemoveChild(moving->id);
  moving->parentId = to->id;
  to->children.push_back(moving->id);
  undo.NoteInserted({to});
  undo.RecordInsert({}, "Add new instrument");
  auto* added = new Instrument(&bank.collection);
  bank.collection.FixUp();  // as the command does: undo steps end with the collection's fix-up
  undo.NoteInserted({added});
  const std::vector<uint8_t> end = Snapshot(bank.collection);
  ASSERT_TRUE(undo.Undo());
  ASSERT_TRUE(undo.Undo());
  ASSERT_TRUE(undo.Undo());
  EXPECT_EQ(Snapshot(bank.collection), start);
  ASSERT_TRUE(undo.Redo());
  ASSERT_TRUE(undo.Redo());
  ASSERT_TRUE(undo.Redo());
  EXPECT_EQ(Snapshot(bank.collection), end);
}

TEST(NavigationRing, BackForwardAndVanishedItems) {
  Collection collection;
  auto* a = new Waveform(&collection);
  auto* b = new Waveform(&collection);
  NavigationRing ring(collection);
  ring.Visit(a->id, 0);
  ring.VisitPane(3, 1);
  ring.Visit(b->id, 2);
  uint32_t id;
  uint8_t tab;
  ASSERT_TRUE(ring.Back(id, tab));
  EXPECT_EQ(id, (8u << 28) | 3u);
  EXPECT_EQ(tab, 1);
  const uint32_t aId = a->id;
  delete a;
  EXPECT_FALSE(ring.Back(id, tab));  // the item is gone; the index moved anyway
  EXPECT_EQ(id, aId);
  EXPECT_FALSE(ring.Back(id, tab));
  ASSERT_TRUE(ring.Forward(id, tab));
  ASSERT_TRUE(ring.Forward(id, tab));
  EXPECT_EQ(id, b->id);
  EXPECT_FALSE(ring.Forward(id, tab));
  for (int i = 0; i < 100; ++i) ring.Visit(b->id, uint8_t(i % 3));
  int steps = 0;
  while (ring.Back(id, tab)) ++steps;
  EXPECT_EQ(steps, 63);
}

// ---------------------------------------------------------------------------------------------
// A long seeded run of edits, undos and redos, checked against whole-collection snapshots.

TEST_F(DataFolderTest, SeededEditsUndoAndRedoToTheByte) {
  ORLIN_REQUIRE_TESTDATA();
  Collection collection;
  const std::string bank = (test::TestDataDir() / "soundfont/sbk/Uplift.sf2").string();
  ASSERT_TRUE(LoadFile(collection, bank, false)) << LastError();
  UndoRing undo(collection);
  // history[0] is the oldest state undo can reach, history[position] the present one.
  std::vector<std::vector<uint8_t>> history{Snapshot(collection)};
  size_t position = 0;
  test::SeededRandom random(20261123);
  auto pick = [&random](auto view) {
    auto all = view.ToVector();
    return all.empty() ? nullptr : all[random.Next() % all.size()];
  };
  int edits = 0, undos = 0, redos = 0, lastKind = -1;
  for (int step = 0; step < 10000; ++step) {
    const uint64_t roll = random.Next() % 100;
    ASSERT_EQ(undo.CanUndo(), position > 0) << step;
    ASSERT_EQ(undo.CanRedo(), position + 1 < history.size()) << step << " last kind " << lastKind;
    if (roll < 20 && position > 0) {
      ASSERT_TRUE(undo.Undo()) << step;
      --position;
      ++undos;
      ASSERT_EQ(Snapshot(collection), history[position]) << "undo at step " << step;
      continue;
    }
    if (roll < 30 && position + 1 < history.size()) {
      ASSERT_TRUE(undo.Redo()) << step;
      ++position;
      ++redos;
      ASSERT_EQ(Snapshot(collection), history[position]) << "redo at step " << step;
      continue;
    }
    const uint64_t kind = random.Next() % 100;
    lastKind = int(kind);
    bool made = true;
    const UndoEntry* entryBefore = undo.CanUndo() ? undo.Current() : nullptr;
    const int countBefore = undo.EntryCount();
    if (kind < 45) {
      std::vector<Item*> items;
      const ParamId id = ParamId(random.Next() % 60);
      for (int n = 1 + int(random.Next() % 4); n > 0; --n)
        if (Region* region = pick(collection.All<Region>())) items.push_back(region);
      if (random.Next() % 3 == 0)
        if (Instrument* instrument = pick(collection.All<Instrument>())) items = {instrument};
      std::sort(items.begin(), items.end());
      items.erase(std::unique(items.begin(), items.end()), items.end());
      if (items.empty() || !LinkedParams(id, GetSettings().features).empty()) {
        made = false;
      } else {
        undo.RecordParamEdit(items, id, 0, false, true);
        const ParamInfo* row = GetParamRow(id);
        const float value = random.Uniform(row->minValue, row->maxValue);
        EditParamOnSelection(items, id, random.Next() % 5 == 0 ? kResetValue : value, false, GetSettings().features);
      }
    } else if (kind < 60) {
      Item* victim = random.Next() % 2 ? static_cast<Item*>(pick(collection.All<Region>()))
                                       : static_cast<Item*>(pick(collection.All<Waveform>()));
      if (!victim) {
        made = false;
      } else {
        undo.RecordDelete({victim});
        delete victim;
      }
    } else if (kind < 72) {
      Instrument* instrument = pick(collection.All<Instrument>());
      if (!instrument || instrument->children.size() < 2) {
        made = false;
      } else {
        undo.RecordEdit({instrument}, "Move layer");
        instrument->MoveChild(random.Next() % instrument->children.size(), random.Next() % instrument->children.size());
      }
    } else if (kind < 84) {
      Item* item = random.Next() % 2 ? static_cast<Item*>(pick(collection.All<Waveform>()))
                                     : static_cast<Item*>(pick(collection.All<Instrument>()));
      if (!item) {
        made = false;
      } else {
        undo.RecordParamEdit({item}, kTextName);
        item->SetName("renamed " + std::to_string(step));
      }
    } else if (kind < 96) {
      Waveform* wave = pick(collection.All<Waveform>());
      if (!wave) {
        made = false;
      } else {
        undo.RecordMarkers(*wave);
        if (random.Next() % 3 == 0) {
          wave->markers.clear();
        } else {
          wave->markers.push_back({uint8_t(random.Next() % 2), uint32_t(random.Next() % 100), 200, "m", NextMarkerId()});
        }
      }
    } else {
      // A clear takes the history with it.
      collection.Clear();
      undo.ClearUndo();
      // and the bank comes back for more edits
      Collection fresh;
      ASSERT_TRUE(LoadFile(fresh, bank, false));
      MergeCollection(collection, fresh);
      history = {Snapshot(collection)};
      position = 0;
      continue;
    }
    if (!made) continue;
    // A new edit: redo is gone.
    history.resize(position + 1);
    ++edits;
    if (entryBefore && undo.Current() == entryBefore && undo.EntryCount() == countBefore) {
      // Dropped as a repeat of the entry before, which restores what this edit touched as well.
      history[position] = Snapshot(collection);
      continue;
    }
    history.push_back(Snapshot(collection));
    ++position;
    // The ring holds 64 steps: the oldest state falls out.
    if (history.size() > UndoRing::kEntries + 1) {
      history.erase(history.begin());
      --position;
    }
  }
  // Undo to the oldest reachable state gives its bytes back, redo to the end the final ones.
  while (undo.CanUndo()) ASSERT_TRUE(undo.Undo());
  EXPECT_EQ(Snapshot(collection), history.front());
  while (undo.CanRedo()) ASSERT_TRUE(undo.Redo());
  EXPECT_EQ(Snapshot(collection), history.back());
  std::printf("seeded run: %d edits, %d undos, %d redos\n", edits, undos, redos);
  EXPECT_GT(edits, 3000);
}

// ---------------------------------------------------------------------------------------------
// A writer killed at random moments never leaves an unreadable "Last session".

TEST_F(DataFolderTest, KilledWriterLeavesALastSessionThatReads) {
  Collection collection;
  BuildEveryKind(collection);
  // Big enough that a write takes a while.
  auto* big = new Waveform(&collection);
  big->length = 4'000'000;
  big->AllocSamples();
  ASSERT_TRUE(SaveLastSession(collection));
  test::SeededRandom random(99);
  for (int round = 0; round < 12; ++round) {
    big->GetSamplesForWrite()[0] = float(round);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (;;) SaveLastSession(collection);
    }
    usleep(useconds_t(1000 + random.Next() % 60000));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    Collection check;
    ASSERT_TRUE(RestoreLastSession(check, nullptr)) << "round " << round << ": " << LastError();
    ASSERT_EQ(check.AllItems().size(), collection.AllItems().size());
  }
  // Stray temporaries of killed writers carry another name and never shadow the state.
  for (const StateFileInfo& info : ListStateFiles()) EXPECT_EQ(info.name, "Last session");
}

// ---------------------------------------------------------------------------------------------
// Every bank of the outside corpus through a state file.

TEST_F(DataFolderTest, CorpusBanksComeBackFromAStateByteForByte) {
  ORLIN_REQUIRE_TESTDATA();
  const fs::path root = test::TestDataDir();
  std::vector<fs::path> files;
  for (const char* folder : {"soundfont", "sfz", "modules/debian", "modules/libxmp", "midi", "dls"}) {
    if (!fs::exists(root / folder)) continue;
    for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
      if (!entry.is_regular_file()) continue;
      const std::string extension = entry.path().extension().string();
      if (extension == ".wav" || extension == ".flac" || extension == ".ogg" || extension == ".txt" ||
          extension == ".md" || extension == ".f32")
        continue;
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  int compared = 0;
  for (const fs::path& file : files) {
    Collection collection;
    test::ScriptedUserInterface ui;
    ui.defaultAnswer = 1;
    test::ScopedUserInterface scoped(ui);
    if (!LoadFile(collection, file.string(), false)) continue;
    const std::vector<uint8_t> before = Snapshot(collection);
    ASSERT_TRUE(SaveStateFile(collection, "corpus")) << file;
    Collection loaded;
    ASSERT_TRUE(LoadStateFile(loaded, "corpus")) << file << ": " << LastError();
    ASSERT_EQ(Snapshot(loaded), before) << file;
    ++compared;
  }
  std::printf("corpus files through a state: %d of %zu\n", compared, files.size());
  EXPECT_GT(compared, 50);
}

}  // namespace
}  // namespace orlin
