// The plain rows that sox has no counterpart for: what they change, what they leave, and their
// failure texts.
#include <gtest/gtest.h>

#include "helpers.h"
#include "core/text.h"
#include "processing/audio/edit_rows.h"

namespace orlin::test {
namespace {

class EditRows : public ::testing::Test {
 protected:
  void SetUp() override { ResetAlgorithmSettings(); }
  void TearDown() override { ResetAlgorithmSettings(); }
  // Runs `name` on `items`; the wizard is kept for its counts and failures.
  bool Run(const char* name, std::vector<Item*> items, int32_t first = -1, int32_t last = -1) {
    InitWizard(wizard, collection, std::move(items));
    if (first >= 0) wizard.rangeOn = true, wizard.rangeStart = first, wizard.rangeEnd = last;
    return RunWizard(wizard, name, true);
  }
  void Set(std::span<const SettingInfo> list, const char* key, const char* value) {
    for (const SettingInfo& setting : list) {
      if (std::string_view(setting.key) == key) {
        ASSERT_TRUE(SetSettingValue(setting, value)) << key;
      }
    }
  }
  ScriptedUserInterface ui;
  ScopedUserInterface scope{ui};
  Collection collection;
  ProcessingWizard wizard;
};

TEST_F(EditRows, MixAndAppend) {
  Waveform* stereo = MakeWave(collection, {0.5f, -0.5f, 0.9f, 0.9f}, 2, 44100, "stereo");
  stereo->rootKey = 60;
  stereo->bits = 16;
  Waveform* mono = MakeWave(collection, {0.2f, 0.4f, 0.6f}, 1, 44100, "mono");
  mono->rootKey = 65;
  mono->bits = 24;
  Set(MixSettingList(), "b", "1");
  Set(MixSettingList(), "c", "0.1");
  Set(MixSettingList(), "wave2", "mono");
  ASSERT_TRUE(Run("Mix out = a*wave1 + b*wave2 + c", {stereo}));
  // Stereo from the stereo input, three frames from the longer, the mono feeding both sides,
  // everything clamped.
  const auto mixed = Samples(*stereo);
  const std::vector<float> expected = {0.8f, -0.2f, 1.0f, 1.0f, 0.7f, 0.7f};
  ASSERT_EQ(mixed.size(), expected.size());
  for (size_t i = 0; i < mixed.size(); ++i) EXPECT_NEAR(mixed[i], expected[i], 1e-6) << i;
  EXPECT_EQ(stereo->bits, 24);
  EXPECT_EQ(stereo->rootKey, 62);

  // Append: channel formats must agree; the joined wave keeps every part's markers.
  mono->markers = {{0, 1, 0, "hit", NextMarkerId()}};
  Waveform* other = MakeWave(collection, {0.7f, 0.8f}, 1, 44100, "other");
  other->markers = {{0, 1, 0, "second hit", NextMarkerId()}};
  Set(AppendSettingList(), "wave2", "other");
  ASSERT_TRUE(Run("Append/combine waveforms", {mono}));
  EXPECT_EQ(Samples(*mono), (std::vector<float>{0.2f, 0.4f, 0.6f, 0.7f, 0.8f}));
  ASSERT_EQ(mono->markers.size(), 2u);
  EXPECT_EQ(mono->markers[1].start, 4u);
  Set(AppendSettingList(), "wave2", "stereo");
  EXPECT_FALSE(Run("Append/combine waveforms", {mono}));
  EXPECT_EQ(wizard.failures, std::vector<std::string>{"mono: Incompatible channel formats"});
  for (const char* key : {"wave1", "wave2"}) Set(AppendSettingList(), key, "<none>");
  EXPECT_FALSE(Run("Append/combine waveforms", {mono}));
  EXPECT_EQ(wizard.failures, std::vector<std::string>{"mono: You must select at least one waveform..."});
}

TEST_F(EditRows, InsertPositionsAndMissingSource) {
  Waveform* wave = MakeWave(collection, {0.1f, 0.2f, 0.3f}, 1, 44100, "w");
  Set(InsertSilenceSettingList(), "frames", "2");
  Set(InsertSilenceSettingList(), "position", "The end of the selection");
  // Without a range the selection choices fall back to the wave's start and end.
  ASSERT_TRUE(Run("Insert silence", {wave}));
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.1f, 0.2f, 0.3f, 0, 0}));
  ASSERT_TRUE(Run("Insert silence", {wave}, 1, 2));
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.1f, 0.2f, 0, 0, 0.3f, 0, 0}));
  Set(InsertWaveSettingList(), "wave", "nothing of that name");
  EXPECT_FALSE(Run("Insert another waveform", {wave}));
  EXPECT_EQ(wizard.failures, std::vector<std::string>{"w: No 2nd waveform selected"});
}

TEST_F(EditRows, SignPhaseAndOffset) {
  Waveform* wave = MakeWave(collection, {0.1f, 0.2f, 0.3f, 0.4f});
  ASSERT_TRUE(Run("Invert sign throughout selection", {wave}, 1, 3));
  EXPECT_EQ(Samples(*wave), (std::vector<float>{0.1f, -0.2f, -0.3f, 0.4f}));
  // An inverted right channel would cancel in the average; detected, it is turned first.
  Waveform* inverted = MakeWave(collection, {0.5f, -0.5f, -0.3f, 0.3f}, 2);
  Set(ToMonoSettingList(), "fix-phase", "on");
  ASSERT_TRUE(Run("Convert to mono", {inverted}));
  EXPECT_EQ(Samples(*inverted), (std::vector<float>{0.5f, -0.3f}));
  // A wave without offset is not counted as modified.
  Waveform* centred = MakeWave(collection, {0.5f, -0.5f});
  EXPECT_FALSE(Run("Remove DC offset", {centred}));
  Waveform* offset = MakeWave(collection, {0.9f, 0.7f});
  ASSERT_TRUE(Run("Remove DC offset", {offset}));
  EXPECT_NEAR(Samples(*offset)[0], 0.1f, 1e-6);
}

TEST_F(EditRows, SplitOfOnePieceModifiesNothing) {
  Waveform* loud = MakeWave(collection, std::vector<float>(4000, 0.8f), 1, 8000, "pad");
  EXPECT_FALSE(Run("Split waveform at silent sections", {loud}));
  EXPECT_EQ(wizard.resultText, "No items were modified");
  EXPECT_TRUE(wizard.failures.empty());
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 1u);
  EXPECT_EQ(loud->GetName(), "pad");
}

TEST_F(EditRows, VolumeTargetsAndNames) {
  Waveform* wave = MakeWave(collection, {0.5f, -0.5f}, 1, 44100, "Kick");
  wave->bits = 24;
  Set(AdjustVolumeSettingList(), "target", "1");
  ASSERT_TRUE(Run("Adjust volume", {wave}));
  EXPECT_FLOAT_EQ(wave->gain, -6.0f);
  EXPECT_EQ(Samples(*wave)[0], 0.5f);
  Set(AdjustVolumeSettingList(), "target", "0");
  Set(AdjustVolumeSettingList(), "db", "0");
  EXPECT_FALSE(Run("Adjust volume", {wave}));  // 0 dB does nothing
  Set(AdjustVolumeSettingList(), "db", "6");
  ASSERT_TRUE(Run("Adjust volume", {wave}));
  EXPECT_NEAR(Samples(*wave)[0], 0.5 * std::exp(6 * 0.115129255), 1e-6);
  EXPECT_EQ(wave->bits, 16);  // saves from memory now

  wave->SetText(kTextSourceFile, "C:\\Samples\\Drums\\kick 01.wav");
  ASSERT_TRUE(Run("Set waveform names from file names", {wave}));
  EXPECT_EQ(wave->GetName(), "kick 01");
  Set(RootKeyNameSettingList(), "mode", "Constructing");
  wave->rootKey = 61;
  ASSERT_TRUE(Run("Set waveform names from root keys", {wave}));
  EXPECT_EQ(wave->GetName(), "foo - " + NoteName(61) + " - bar");
}

}  // namespace
}  // namespace orlin::test
