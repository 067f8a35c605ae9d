// A processing run through the frame, with the hook bound to the undo ring, is undone by Undo.
#include <gtest/gtest.h>

#include <cmath>

#include "core/undo.h"
#include "helpers.h"
#include "processing/undo_binding.h"

namespace orlin::test {
namespace {

TEST(UndoBinding, UndoBringsBackAResampledWave) {
  Collection collection;
  std::vector<float> sine(1000);
  for (size_t i = 0; i < sine.size(); ++i) sine[i] = float(0.5 * std::sin(0.05 * double(i)));
  Waveform* wave = MakeWave(collection, sine, 1, 44100);
  wave->loop = {1, 0, 100.0f, 900.0f};
  UndoRing ring(collection);
  RingUndoHook hook(ring);
  SetUndoHook(&hook);

  ProcessingWizard wizard;
  InitWizard(wizard, collection, {wave}, AlgorithmFamily::Audio);
  for (const SettingInfo& setting : SettingsOf(*FindAlgorithm(AlgorithmFamily::Audio, "Resample")))
    if (std::string(setting.key) == "rate") {
      ASSERT_TRUE(SetSettingValue(setting, "48000"));
    }
  EXPECT_TRUE(RunWizard(wizard, "Resample", true)) << wizard.resultText;
  EXPECT_EQ(wave->length, 1088u);
  EXPECT_EQ(wave->sampleRate, 48000u);
  EXPECT_EQ(ring.UndoLabel(), "Resample");

  ASSERT_TRUE(ring.Undo());
  EXPECT_EQ(wave->length, 1000u);
  EXPECT_EQ(wave->sampleRate, 44100u);
  EXPECT_EQ(wave->loop.end, 900.0f);
  EXPECT_EQ(Samples(*wave), sine);

  SetUndoHook(nullptr);
  ResetAlgorithmSettings();
}

}  // namespace
}  // namespace orlin::test
