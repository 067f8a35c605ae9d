// The collection commands and the clipboard block: their questions, status texts and undo steps, on
// a bank nobody here wrote; pasting within this process and as if from another; damaged blocks.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "commands/clipboard.h"
#include "commands/collection_commands.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/settings.h"
#include "core/state_file.h"
#include "test_support.h"

namespace orlin {
namespace {

std::vector<uint8_t> Snapshot(const Collection& collection) {
  std::vector<uint8_t> bytes;
  EXPECT_TRUE(SerializeState(collection, bytes));
  return bytes;
}

class CommandsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("ORLIN_DATA_DIR", scratch_.Path().c_str(), 1);
    savedConfirm_ = GetSettings().loadConfirm;
  }
  void TearDown() override {
    GetSettings().loadConfirm = savedConfirm_;
    unsetenv("ORLIN_DATA_DIR");
  }
  // Uplift: a small SoundFont bank from a Debian package.
  bool LoadBank() {
    if (test::TestDataDir().empty()) return false;
    return LoadFile(collection_, (test::TestDataDir() / "soundfont/sbk/Uplift.sf2").string(), false);
  }
  test::ScratchDir scratch_;
  Collection collection_;
  UndoRing undo_{collection_};
  CollectionCommands commands_{collection_, undo_};
  test::ScriptedUserInterface ui_;
  test::ScopedUserInterface scoped_{ui_};
  bool savedConfirm_ = false;
};

TEST(Clipboard, Crc32MatchesTheStandardCheckValue) {
  const char* text = "123456789";
  EXPECT_EQ(Crc32(reinterpret_cast<const uint8_t*>(text), 9), 0xCBF43926u);
  EXPECT_EQ(Crc32(nullptr, 0), 0u);
}

TEST_F(CommandsTest, PasteWithinTheProcessSharesWavesAndFromAnotherCopiesThem) {
  ORLIN_REQUIRE_TESTDATA();
  ASSERT_TRUE(LoadBank()) << LastError();
  Instrument* source = *collection_.All<Instrument>().begin();
  const uint32_t waves = collection_.CountOf(ItemType::Waveform);
  const uint32_t instruments = collection_.CountOf(ItemType::Instrument);
  std::vector<uint8_t> block;
  ASSERT_TRUE(commands_.Copy({source}, block).done);
  // The header: process, count, size, CRC of the records.
  uint32_t head[4];
  std::memcpy(head, block.data(), 16);
  EXPECT_EQ(head[0], CurrentProcessId());
  EXPECT_EQ(head[2], block.size() - 16);
  EXPECT_EQ(head[3], Crc32(block.data() + 16, block.size() - 16));

  CommandResult pasted = commands_.Paste(block, CurrentProcessId());
  ASSERT_TRUE(pasted.done) << pasted.status;
  EXPECT_EQ(pasted.status, "Pasted 1");
  EXPECT_EQ(collection_.CountOf(ItemType::Instrument), instruments + 1);
  EXPECT_EQ(collection_.CountOf(ItemType::Waveform), waves);  // the regions play the waves already here

  // From another process the waves come as copies of their own.
  ASSERT_TRUE(commands_.Paste(block, CurrentProcessId() + 1).done);
  EXPECT_GT(collection_.CountOf(ItemType::Waveform), waves);
  Instrument* last = collection_.All<Instrument>().ToVector().back();
  for (Layer* layer : ChildrenOf<Layer>(*last))
    for (Region* region : ChildrenOf<Region>(*layer)) {
      ASSERT_NE(region->GetWave(), nullptr);
      // An undecoded pasted wave still reads from the bank's file.
      EXPECT_NE(region->GetWave()->GetSamplesForRead(), nullptr) << LastError();
    }
  // Undo takes both pastes away.
  ASSERT_TRUE(undo_.Undo());
  ASSERT_TRUE(undo_.Undo());
  EXPECT_EQ(collection_.CountOf(ItemType::Instrument), instruments);
  EXPECT_EQ(collection_.CountOf(ItemType::Waveform), waves);
}

TEST_F(CommandsTest, DamagedBlocksAreRefused) {
  ORLIN_REQUIRE_TESTDATA();
  ASSERT_TRUE(LoadBank());
  std::vector<uint8_t> block;
  ASSERT_TRUE(CopyItemsToBlock(collection_, {*collection_.All<Instrument>().begin()}, 1, block));
  const std::vector<uint8_t> before = Snapshot(collection_);
  test::SeededRandom random(5);
  for (int round = 0; round < 50; ++round) {
    std::vector<uint8_t> damaged = block;
    damaged[16 + random.Next() % (damaged.size() - 16)] ^= uint8_t(1 + random.Next() % 255);
    CommandResult result = commands_.Paste(damaged, 1);
    EXPECT_FALSE(result.done);
    EXPECT_EQ(result.status, "Paste failed - Clipboard data corrupted!");
  }
  std::vector<uint8_t> none = block;
  std::memset(none.data() + 4, 0, 4);
  EXPECT_EQ(commands_.Paste(none, 1).status, "Paste failed - Clipboard data corrupted!");
  EXPECT_EQ(commands_.Paste({}, 1).status, "No Orlin Studio data on the clipboard");
  // A block whose CRC is right but whose records are nonsense still reads safely.
  for (int round = 0; round < 200; ++round) {
    std::vector<uint8_t> forged = block;
    forged[16 + random.Next() % (forged.size() - 16)] = uint8_t(random.Next());
    const uint32_t crc = Crc32(forged.data() + 16, forged.size() - 16);
    std::memcpy(forged.data() + 12, &crc, 4);
    Collection scratch;
    PasteItemsFromBlock(scratch, forged, 1);
  }
  EXPECT_EQ(Snapshot(collection_), before);
  EXPECT_EQ(undo_.EntryCount(), 0);
}

TEST_F(CommandsTest, ClearAllAsksOnlyWhenConfirmingAndEndsRedo) {
  ORLIN_REQUIRE_TESTDATA();
  ASSERT_TRUE(LoadBank());
  Item* instrument = *collection_.All<Instrument>().begin();
  commands_.RenameItem(*instrument, "renamed");
  ASSERT_TRUE(undo_.Undo());
  ASSERT_TRUE(undo_.CanRedo());

  GetSettings().loadConfirm = true;
  ui_.answers = {1};  // no
  EXPECT_FALSE(commands_.ClearAll().done);
  ASSERT_EQ(ui_.questions.size(), 1u);
  EXPECT_NE(collection_.CountOf(ItemType::Instrument), 0u);

  GetSettings().loadConfirm = false;
  CommandResult cleared = commands_.ClearAll();
  EXPECT_TRUE(cleared.done);
  EXPECT_EQ(cleared.status, "Done: Collection cleared.");
  EXPECT_EQ(ui_.questions.size(), 1u);  // nothing asked this time
  EXPECT_EQ(collection_.CountOf(ItemType::Instrument), 0u);
  EXPECT_FALSE(undo_.CanRedo());
  EXPECT_FALSE(undo_.Redo());
  EXPECT_FALSE(undo_.CanUndo());
}

TEST_F(CommandsTest, CutAnsweredNoKeepsTheItemsAndTheBlock) {
  ORLIN_REQUIRE_TESTDATA();
  ASSERT_TRUE(LoadBank());
  GetSettings().loadConfirm = true;
  Instrument* instrument = *collection_.All<Instrument>().begin();
  const uint32_t id = instrument->id;
  ui_.answers = {1};
  std::vector<uint8_t> block;
  EXPECT_FALSE(commands_.Cut({instrument}, block).done);
  EXPECT_NE(collection_.FindItem(id), nullptr);
  EXPECT_FALSE(block.empty());
  ASSERT_FALSE(ui_.questions.empty());
  EXPECT_NE(ui_.questions.back().find("This will delete \""), std::string::npos);
  ui_.answers = {0};
  EXPECT_TRUE(commands_.Cut({instrument}, block).done);
  EXPECT_EQ(collection_.FindItem(id), nullptr);
  ASSERT_TRUE(undo_.Undo());
  EXPECT_NE(collection_.FindItem(id), nullptr);
}

TEST_F(CommandsTest, WaveCommandsReportAndUndoThroughStates) {
  ORLIN_REQUIRE_TESTDATA();
  ASSERT_TRUE(LoadBank());
  EXPECT_EQ(commands_.DeleteUnusedWaveforms().status, "No unused waveforms found");
  EXPECT_EQ(commands_.AutocreateInstruments().status, "No unused waveforms found!\n\nNo new instrument created.");

  // Two unused waves, one a bit-for-bit copy of a used one.
  Waveform* used = *collection_.All<Waveform>().begin();
  ASSERT_NE(used->GetSamplesForRead(), nullptr);
  auto* twin = new Waveform(&collection_, *used, true, "twin");
  auto* spare = new Waveform(&collection_);
  spare->SetName("spare");
  spare->length = 1500;
  spare->AllocSamples();
  std::fill_n(spare->GetSamplesForWrite(), 1500, 0.25f);
  // Comparing samples decodes every wave; the snapshots are taken with all decoded alike.
  for (Waveform* wave : collection_.All<Waveform>()) ASSERT_NE(wave->GetSamplesForRead(), nullptr);
  const std::vector<uint8_t> before = Snapshot(collection_);
  const uint32_t twinId = twin->id;

  ui_.answers = {0};
  CommandResult duplicates = commands_.DeleteDuplicateWaveforms();
  EXPECT_EQ(duplicates.status.rfind("Deleted 1 duplicate waveforms (", 0), 0u) << duplicates.status;
  EXPECT_EQ(collection_.Find<Waveform>(twinId), nullptr);
  ui_.answers = {0};
  CommandResult unused = commands_.DeleteUnusedWaveforms();
  EXPECT_EQ(unused.status, "Done: Deleted 1 unused waveform (2K samples freed)");
  EXPECT_EQ(undo_.UndoLabel(), "Remove unused waveforms");
  ASSERT_TRUE(undo_.Undo());
  ASSERT_TRUE(undo_.Undo());
  EXPECT_EQ(Snapshot(collection_), before);
  EXPECT_NE(collection_.Find<Waveform>(twinId), nullptr);
  ASSERT_TRUE(undo_.Redo());
  EXPECT_EQ(collection_.Find<Waveform>(twinId), nullptr);

  EXPECT_EQ(commands_.DualMonoToStereo().status, "No waveforms merged");
  const uint32_t instruments = collection_.CountOf(ItemType::Instrument);
  CommandResult made = commands_.AutocreateInstruments();
  EXPECT_TRUE(made.done);
  EXPECT_EQ(collection_.CountOf(ItemType::Instrument), instruments + 1);
  ASSERT_TRUE(undo_.Undo());
  EXPECT_EQ(collection_.CountOf(ItemType::Instrument), instruments);
}

TEST_F(CommandsTest, ItemCommandsUndoToTheByte) {
  ORLIN_REQUIRE_TESTDATA();
  ASSERT_TRUE(LoadBank());
  std::vector<std::vector<uint8_t>> steps{Snapshot(collection_)};
  Instrument* instrument = *collection_.All<Instrument>().begin();
  Instrument* added = commands_.AddInstrument();
  steps.push_back(Snapshot(collection_));
  Layer* layer = commands_.AddLayer(*added);
  steps.push_back(Snapshot(collection_));
  Region* region = commands_.AddRegion(*layer, (*collection_.All<Waveform>().begin())->id);
  steps.push_back(Snapshot(collection_));
  ASSERT_NE(commands_.CloneItem(*region), nullptr);
  steps.push_back(Snapshot(collection_));
  ASSERT_NE(commands_.CloneItem(*instrument), nullptr);
  steps.push_back(Snapshot(collection_));
  ASSERT_TRUE(commands_.RenameItem(*instrument, "Renamed"));
  steps.push_back(Snapshot(collection_));
  if (instrument->children.size() > 1) {
    ASSERT_TRUE(commands_.MoveLayer(*collection_.Find<Layer>(instrument->children[0]), 1));
    steps.push_back(Snapshot(collection_));
  }
  std::vector<uint8_t> art = commands_.CopyArticulation(*instrument);
  ASSERT_EQ(art.size(), 780u);
  ASSERT_TRUE(commands_.PasteArticulation({added}, art).done);
  steps.push_back(Snapshot(collection_));
  ASSERT_TRUE(commands_.DeleteItems({instrument}));
  steps.push_back(Snapshot(collection_));
  for (size_t i = steps.size() - 1; i > 0; --i) {
    ASSERT_TRUE(undo_.Undo()) << i;
    ASSERT_EQ(Snapshot(collection_), steps[i - 1]) << "undo to step " << i - 1;
  }
  for (size_t i = 1; i < steps.size(); ++i) {
    ASSERT_TRUE(undo_.Redo()) << i;
    ASSERT_EQ(Snapshot(collection_), steps[i]) << "redo to step " << i;
  }
}

TEST_F(CommandsTest, OpenMergeAndTheSessionAcrossRuns) {
  ORLIN_REQUIRE_TESTDATA();
  const std::string bank = (test::TestDataDir() / "soundfont/sbk/Uplift.sf2").string();
  const std::string wave = (test::TestDataDir() / "audio/generated/dtmf8k/master_f32.wav").string();
  ASSERT_TRUE(commands_.OpenFiles({bank}).done);
  const std::vector<uint8_t> opened = Snapshot(collection_);
  commands_.RenameItem(**collection_.All<Instrument>().begin(), "edited");
  const uint32_t waves = collection_.CountOf(ItemType::Waveform);

  // Merging is one step that undo takes back.
  CommandResult merged = commands_.MergeFiles({wave, scratch_.File("missing.wav")});
  EXPECT_EQ(merged.mode, StatusMode::Failure);
  EXPECT_EQ(collection_.CountOf(ItemType::Waveform), waves + 1);
  ASSERT_TRUE(undo_.Undo());
  EXPECT_EQ(collection_.CountOf(ItemType::Waveform), waves);
  ASSERT_TRUE(undo_.Undo());
  EXPECT_EQ(Snapshot(collection_), opened);

  // Opening over changes asks first when confirming; the ring starts afresh.
  GetSettings().loadConfirm = true;
  commands_.RenameItem(**collection_.All<Instrument>().begin(), "edited again");
  ui_.answers = {1};
  EXPECT_FALSE(commands_.OpenFiles({wave}).done);
  EXPECT_EQ(ui_.questions.back(), "This will replace all loaded data.\n\nContinue?");
  ui_.answers = {0};
  ASSERT_TRUE(commands_.OpenFiles({wave}).done);
  EXPECT_EQ(collection_.CountOf(ItemType::Instrument), 0u);
  EXPECT_FALSE(undo_.CanUndo());

  // A session: kept with persistent state on, and nothing left behind with it off.
  const bool persistent = GetSettings().persistentState;
  StateRing states;
  ASSERT_FALSE(states.SaveState(collection_).empty());
  ASSERT_TRUE(undo_.SaveUndoState("Process"));
  GetSettings().persistentState = true;
  ASSERT_TRUE(EndSession(collection_, undo_, states));
  Collection next;
  StateRing nextStates;
  ASSERT_TRUE(RestoreSessionAtStart(next, nextStates));
  EXPECT_EQ(Snapshot(next), Snapshot(collection_));
  GetSettings().persistentState = false;
  ASSERT_TRUE(EndSession(collection_, undo_, states));
  std::vector<std::string> left;
  for (const StateFileInfo& info : ListStateFiles()) left.push_back(info.name);
  EXPECT_EQ(left, std::vector<std::string>{"Last session"});
  Collection third;
  EXPECT_FALSE(RestoreSessionAtStart(third, nextStates));
  GetSettings().persistentState = persistent;
}

TEST(ClipboardRecords, SmallRecordsRoundTrip) {
  LoopInfo loop{3, 1, 10.5f, 200.0f, -0.5f};
  LoopInfo back;
  ASSERT_TRUE(DecodeLoop(EncodeLoop(loop), back));
  EXPECT_EQ(back, loop);
  EXPECT_FALSE(DecodeLoop({1, 2, 3}, back));
  Articulation art;
  art.Set(24, 2000.0f);
  art.Set(40, 300.0f);
  EnvelopeRecord envelope = art.GetEnvelope(1);
  envelope.times[0] = 0.25f;
  EnvelopeRecord envelopeBack;
  ASSERT_TRUE(DecodeEnvelope(EncodeEnvelope(envelope), envelopeBack));
  EXPECT_EQ(envelopeBack.times[0], 0.25f);
  LfoRecord lfo{1, 3.5f, 0.1f, 0.2f}, lfoBack;
  ASSERT_TRUE(DecodeLfo(EncodeLfo(lfo), lfoBack));
  EXPECT_EQ(lfoBack.frequency, 3.5f);
  Articulation target;
  ASSERT_TRUE(DecodeParamRange(EncodeParamRange(art, kFirstFilterParam, kLastFilterParam), kFirstFilterParam,
                               kLastFilterParam, target));
  EXPECT_EQ(target.Get(24), 2000.0f);
  EXPECT_NE(target.Get(40), 300.0f);
  ASSERT_TRUE(DecodeParamRange(EncodeParamRange(art, kFirstEqParam, kLastEqParam), kFirstEqParam, kLastEqParam, target));
  EXPECT_EQ(target.Get(40), 300.0f);
  Articulation whole;
  ASSERT_TRUE(DecodeArticulation(EncodeArticulation(art), whole));
  EXPECT_TRUE(whole == art);
}

}  // namespace
}  // namespace orlin
