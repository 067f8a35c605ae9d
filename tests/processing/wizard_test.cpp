// The frame: tables and predicates, the run and its report, sub-range rules, the undo hook and
// the preview.
#include <gtest/gtest.h>

#include <set>

#include "helpers.h"
#include "processing/audio/edit_rows.h"

namespace orlin::test {
namespace {

class RecordingUndo : public UndoHook {
 public:
  bool TakeState(std::string_view label, const std::vector<Item*>& items, AlgorithmFamily family) override {
    labels.emplace_back(label);
    itemCounts.push_back(items.size());
    return true;
  }
  void RunFinished(const std::vector<Item*>& added, const std::vector<uint32_t>& removedIds) override {
    finished.push_back(added.size() * 100 + removedIds.size());
  }
  void Rollback() override { ++rollbacks; }
  std::vector<size_t> finished;
  std::vector<std::string> labels;
  std::vector<size_t> itemCounts;
  int rollbacks = 0;
};

class WizardTest : public ::testing::Test {
 protected:
  void SetUp() override { ResetAlgorithmSettings(); }
  void TearDown() override {
    SetUndoHook(nullptr);
    ResetAlgorithmSettings();
  }
  Collection collection;
};

TEST_F(WizardTest, TablesHoldEveryRowAndLaterRowsSayTheyAreNotAvailable) {
  EXPECT_EQ(AlgorithmTable(AlgorithmFamily::Audio).size(), 42u);
  EXPECT_EQ(AlgorithmTable(AlgorithmFamily::Instrument).size(), 19u);
  EXPECT_EQ(AlgorithmTable(AlgorithmFamily::Song).size(), 8u);
  Waveform* wave = MakeWave(collection, {0.1f, 0.2f, 0.3f, 0.4f}, 2);
  wave->loop = {1, 0, 0.0f, 2.0f, 0.0f};
  for (AlgorithmFamily family : {AlgorithmFamily::Audio, AlgorithmFamily::Instrument, AlgorithmFamily::Song}) {
    std::set<uint16_t> pages;
    for (const AlgorithmRow& row : AlgorithmTable(family)) {
      EXPECT_TRUE(pages.insert(row.page).second) << row.name;
      // Rows with no setting of their own have no settings list, and the other way round.
      if (row.procedure) {
        EXPECT_EQ((row.flags & kRowNoSettings) != 0, row.settings == nullptr) << row.name;
        continue;
      }
      ProcessingWizard wizard;
      InitWizard(wizard, collection, {family == AlgorithmFamily::Audio ? static_cast<Item*>(wave) : &collection}, family);
      EXPECT_FALSE(RunWizard(wizard, row.name, true)) << row.name;
      EXPECT_EQ(wizard.resultText, std::string("\"") + row.name + "\" is not available yet");
      EXPECT_EQ(wizard.processed, 0u);
    }
  }
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.1f, 0.2f, 0.3f, 0.4f}));
}

TEST_F(WizardTest, PredicatesQuietModeAndTexts) {
  Waveform* mono = MakeWave(collection, {0.1f, 0.2f}, 1, 44100, "one");
  ProcessingWizard wizard;
  InitWizard(wizard, collection, {mono});
  EXPECT_EQ(wizard.family, AlgorithmFamily::Audio);
  auto listed = [&] {
    std::set<std::string> names;
    for (const AlgorithmRow* row : ListedRows(wizard)) names.insert(row->name);
    return names;
  };
  EXPECT_TRUE(listed().count("Convert to stereo"));
  EXPECT_FALSE(listed().count("Convert to mono"));
  EXPECT_FALSE(listed().count("Cut away selection"));  // needs the range on
  EXPECT_FALSE(listed().count("Auto loop finder") == 0);
  wizard.rangeOn = true;
  EXPECT_TRUE(listed().count("Cut away selection"));
  wizard.batchRunning = true;
  EXPECT_FALSE(listed().count("Append/combine waveforms"));
  wizard.quiet = true;
  EXPECT_EQ(listed().size(), 42u);
  EXPECT_EQ(ListPageText(wizard), "Working on a waveform");
  EXPECT_EQ(FrameTitle(wizard), "Audio processing wizard - one");

  // No predicate holds: an empty list, and the frame opens all the same.
  ProcessingWizard songs;
  InitWizard(songs, collection, {&collection}, AlgorithmFamily::Song);
  EXPECT_TRUE(ListedRows(songs).empty());
  EXPECT_EQ(InitialRow(songs), nullptr);
  ProcessingWizard instruments;
  InitWizard(instruments, collection, {&collection});
  EXPECT_EQ(instruments.family, AlgorithmFamily::Instrument);
  EXPECT_EQ(ListPageText(instruments), "Working on a collection");
  auto* instrument = new Instrument(&collection);
  instrument->SetName("Organ");
  InitWizard(instruments, collection, {instrument});
  EXPECT_EQ(ListPageText(instruments), "Working on an instrument");

  Waveform* second = MakeWave(collection, {0.1f, 0.2f}, 1, 44100, "two");
  InitWizard(wizard, collection, {mono, second});
  wizard.algorithmName = "Maximize amplitude";
  EXPECT_EQ(FrameTitle(wizard), "Audio processing wizard - Maximize amplitude - All waveforms");
  EXPECT_EQ(ListPageText(wizard), "Working on waveforms");
}

TEST_F(WizardTest, RunReportsUndoAndUnknownNames) {
  RecordingUndo undo;
  SetUndoHook(&undo);
  Waveform* a = MakeWave(collection, {0.1f, -0.2f});
  Waveform* b = MakeWave(collection, {0.5f, -0.5f});
  Waveform* full = MakeWave(collection, {1.0f, -1.0f});
  ProcessingWizard wizard;
  InitWizard(wizard, collection, {a, b, full});
  EXPECT_TRUE(RunWizard(wizard, "Maximize amplitude", true));
  EXPECT_EQ(wizard.resultText, "Processed 2 items using Maximize amplitude");
  EXPECT_EQ(undo.labels, std::vector<std::string>{"Maximize amplitude"});
  EXPECT_EQ(undo.itemCounts, std::vector<size_t>{3});
  EXPECT_TRUE(wizard.undoTaken);
  EXPECT_EQ(undo.finished, std::vector<size_t>{0});
  CancelWizard(wizard);
  EXPECT_EQ(undo.rollbacks, 1);

  InitWizard(wizard, collection, {full});
  EXPECT_FALSE(RunWizard(wizard, "Maximize amplitude", true));
  EXPECT_EQ(wizard.resultText, "No items were modified");

  // Quiet: no undo state.
  InitWizard(wizard, collection, {a});
  wizard.quiet = true;
  RunWizard(wizard, "Remove DC offset", true);
  EXPECT_EQ(undo.labels.size(), 2u);

  // A mono split adds one wave; a wave found all silent and deleted is removed: the hook hears both.
  Waveform* stereo = MakeWave(collection, {0.1f, 0.2f, 0.3f, 0.4f}, 2, 44100, "pair");
  Waveform* silent = MakeWave(collection, std::vector<float>(10, 0.0f), 1, 44100, "hush");
  ASSERT_TRUE(SetSettingValue(ToMonoSettingList()[0], "Split into two mono waveforms"));
  InitWizard(wizard, collection, {stereo});
  EXPECT_TRUE(RunWizard(wizard, "Convert to mono", true));
  EXPECT_TRUE(wizard.treeChanged);
  ASSERT_TRUE(SetSettingValue(RemoveSilenceSettingList()[10], "on"));
  InitWizard(wizard, collection, {silent});
  EXPECT_TRUE(RunWizard(wizard, "Remove silent sections", true));
  EXPECT_EQ(undo.finished, (std::vector<size_t>{0, 0, 100, 1}));
  EXPECT_EQ(wizard.resultText, "Processed 1 item using Remove silent sections");

  // An unknown name opens the list, clears direct and runs nothing.
  InitWizard(wizard, collection, {a});
  EXPECT_FALSE(RunWizard(wizard, "Maximise amplitude", true));
  EXPECT_FALSE(wizard.direct);
  EXPECT_TRUE(wizard.listShown);
  EXPECT_EQ(wizard.processed, 0u);

  // A wave that cannot be decoded keeps the frame from opening; nothing runs, no state is taken.
  Waveform* broken = new Waveform(&collection);
  broken->SetName("broken");
  broken->length = 10;
  broken->decoder = [](Waveform*, FileObject*) {
    SetLastError("Reading from file failed");
    return false;
  };
  broken->SetText(kTextSourceFile, "<memory>");
  InitWizard(wizard, collection, {a, broken});
  const size_t statesBefore = undo.labels.size();
  EXPECT_FALSE(RunWizard(wizard, "Maximize amplitude", true));
  EXPECT_TRUE(wizard.cancelled);
  EXPECT_EQ(wizard.failures, std::vector<std::string>{"broken: Reading from file failed"});
  EXPECT_EQ(undo.labels.size(), statesBefore);

  // No items: false at once.
  InitWizard(wizard, collection, {});
  EXPECT_FALSE(RunWizard(wizard, "Maximize amplitude", true));
}

TEST_F(WizardTest, SubRangeRules) {
  Waveform* wave = MakeWave(collection, {0.1f, 0.2f, 0.3f, 0.4f});
  ProcessingWizard wizard;
  // A range of start = end is dropped without a word; the rows that need one then do nothing.
  InitWizard(wizard, collection, {wave});
  wizard.rangeOn = true;
  wizard.rangeStart = wizard.rangeEnd = 2;
  SelectRow(wizard, FindAlgorithm(AlgorithmFamily::Audio, "Cut away selection"));
  // Selecting the row widens an empty range to the one wave; the page's fields then say 2..4.
  EXPECT_EQ(wizard.rangeEnd, 4);
  wizard.rangeEnd = 2;
  EXPECT_FALSE(FinishWizard(wizard));
  EXPECT_EQ(wizard.resultText, "No items were modified");
  EXPECT_EQ(wave->length, 4u);

  // A row that needs the range forces it on; with nothing given it covers the one wave.
  InitWizard(wizard, collection, {wave});
  EXPECT_TRUE(RunWizard(wizard, "Reverse audio within selection", true));
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.4f, 0.3f, 0.2f, 0.1f}));
  // A row without range support drops a given range.
  InitWizard(wizard, collection, {wave});
  wizard.rangeOn = true;
  wizard.rangeStart = 0;
  wizard.rangeEnd = 1;
  EXPECT_TRUE(RunWizard(wizard, "Remove DC offset", true));
  EXPECT_FALSE(wizard.rangeOn);
  double mean = 0;
  for (float v : Samples(*wave)) mean += v;
  EXPECT_NEAR(mean, 0.0, 1e-6);
  // With several items an empty range becomes start + 1.
  Waveform* other = MakeWave(collection, {0.5f, 0.5f});
  InitWizard(wizard, collection, {wave, other});
  wizard.rangeOn = true;
  wizard.rangeStart = -5;
  SelectRow(wizard, FindAlgorithm(AlgorithmFamily::Audio, "Fade in/out selection"));
  EXPECT_EQ(wizard.rangeStart, 0);
  EXPECT_EQ(wizard.rangeEnd, 1);
}

TEST_F(WizardTest, FailuresSkipTheItemAndTheRestGoOn) {
  ScriptedUserInterface ui;
  ScopedUserInterface scope(ui);
  Waveform* a = MakeWave(collection, {0.1f, 0.2f}, 1, 44100, "a");
  Waveform* b = MakeWave(collection, {0.1f, 0.2f}, 1, 44100, "b");
  ProcessingWizard wizard;
  InitWizard(wizard, collection, {a, b});
  ASSERT_TRUE(SetSettingValue(ToStereoSettingList()[0], "left"));
  ASSERT_TRUE(SetSettingValue(ToStereoSettingList()[1], "<none>"));
  // Several waves: only duplication, so both convert.
  EXPECT_TRUE(RunWizard(wizard, "Convert to stereo", true));
  EXPECT_EQ(wizard.processed, 2u);
  Waveform* c = MakeWave(collection, {0.1f}, 1, 44100, "c");
  InitWizard(wizard, collection, {c});
  EXPECT_FALSE(RunWizard(wizard, "Convert to stereo", true));
  ASSERT_EQ(wizard.failures.size(), 1u);
  EXPECT_EQ(wizard.failures[0], "c: No 2nd waveform specified");
  ASSERT_EQ(ui.warnings.size(), 1u);
}

TEST_F(WizardTest, SettingValues) {
  const auto fade = FadeSettingList();
  EXPECT_EQ(SettingValueText(fade[0]), "Exponential fade in");
  EXPECT_TRUE(SetSettingValue(fade[0], "Linear fade o"));
  EXPECT_EQ(SettingValueText(fade[0]), "Linear fade out");
  EXPECT_FALSE(SetSettingValue(fade[0], "Linear fade"));  // two labels start so
  EXPECT_TRUE(SetSettingValue(fade[0], "0"));
  EXPECT_FALSE(SetSettingValue(fade[0], "7"));
  const auto volume = AdjustVolumeSettingList();
  EXPECT_TRUE(SetSettingValue(volume[0], "500"));
  EXPECT_EQ(AdjustVolumeStatics().db, 96.0);
  EXPECT_FALSE(SetSettingValue(volume[0], "loud"));
  EXPECT_FALSE(SetSettingValue(RemoveSilenceSettingList()[0], "maybe"));
  ResetAlgorithmSettings();
  EXPECT_EQ(AdjustVolumeStatics().db, -6.0);
}

TEST_F(WizardTest, SplitPageLevels) {
  SetSplitTrig(-40);  // below the release of -36: release follows
  EXPECT_EQ(SplitSilenceStatics().release, -40.0);
  SetSplitRelease(-20);  // release may not exceed trig
  EXPECT_EQ(SplitSilenceStatics().release, -40.0);
  SetSplitTrig(-12);
  SetSplitUnit(1);
  EXPECT_DOUBLE_EQ(SplitSilenceStatics().trig, 25.0);  // DbToGain(-12) is the stored 0.25
  SetSplitUnit(0);
  EXPECT_DOUBLE_EQ(SplitSilenceStatics().trig, -12.0);
  ProcessingWizard wizard;
  UpdateSplitLevelLines(wizard);
  EXPECT_FLOAT_EQ(wizard.levelLines[0].level, 0.25f);
  EXPECT_EQ(wizard.levelLines[0].colour, 0x008000u);
  EXPECT_EQ(wizard.levelLines[1].colour, 0x600000u);
}

TEST_F(WizardTest, PreviewLeavesNoExtraWaves) {
  std::vector<float> values;
  for (int burst = 0; burst < 3; ++burst) {
    values.insert(values.end(), 500, 0.9f);
    values.insert(values.end(), 2000, 0.0f);
  }
  Waveform* wave = MakeWave(collection, values, 1, 44100, "loops");
  Waveform* other = MakeWave(collection, {0.2f, 0.1f}, 1, 44100, "other");
  ProcessingWizard wizard;
  InitWizard(wizard, collection, {wave, other});
  SelectRow(wizard, FindAlgorithm(AlgorithmFamily::Audio, "Split waveform at silent sections"));
  ASSERT_TRUE(PreviewUpdate(wizard));
  ASSERT_NE(wizard.previewItem, nullptr);
  EXPECT_EQ(wizard.previewItem->GetName().rfind("<preview>", 0), 0u);
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 3u);
  EXPECT_EQ(wave->length, values.size());
  EXPECT_EQ(wizard.processed, 0u);
  PreviewCycle(wizard, -1);
  EXPECT_EQ(wizard.previewIndex, 1u);
  EXPECT_EQ(wizard.previewItem, nullptr);
  EXPECT_EQ(PreviewShownWave(wizard), other);
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 2u);
  PreviewCycle(wizard, 1);
  ASSERT_TRUE(PreviewUpdate(wizard));
  // Finishing drops the preview and runs on the real selection.
  EXPECT_TRUE(FinishWizard(wizard));
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 4u);
  for (Waveform* w : collection.All<Waveform>()) EXPECT_EQ(w->GetName().find("<preview"), std::string::npos);
}

}  // namespace
}  // namespace orlin::test
