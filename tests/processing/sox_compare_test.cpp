// Our rows against sox on the same corpus audio: both get the samples we decoded, so the
// comparison is of the algorithms alone. Where the definitions differ, the sox command is shaped to
// the same definition and the reason stands beside it.
#include <gtest/gtest.h>

#include "helpers.h"
#include "processing/audio/edit_rows.h"

namespace orlin::test {
namespace {

class SoxCompare : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    ORLIN_REQUIRE_TESTDATA();
    ORLIN_REQUIRE_TOOL("sox");
    ResetAlgorithmSettings();
    wave = LoadCorpusWave(collection, GetParam());
    ASSERT_NE(wave, nullptr);
    original = Samples(*wave);
  }
  void TearDown() override { ResetAlgorithmSettings(); }

  // Runs a row on the wave, optionally over [first, last).
  void Run(const char* name, int64_t first = -1, int64_t last = -1) {
    ProcessingWizard wizard;
    InitWizard(wizard, collection, {wave});
    wizard.quiet = true;
    if (first >= 0) {
      wizard.rangeOn = true;
      wizard.rangeStart = int32_t(first);
      wizard.rangeEnd = int32_t(last);
    }
    RunWizard(wizard, name, true);
    EXPECT_TRUE(wizard.failures.empty()) << name;
  }
  std::vector<float> Sox(const std::string& effects) { return RunSox(original, channels(), wave->sampleRate, effects); }
  uint32_t channels() const { return uint32_t(original.size() / frames); }
  void Remember() { frames = wave->length; }

  Collection collection;
  Waveform* wave = nullptr;
  std::vector<float> original;
  uint32_t frames = 0;
};

// Real recordings: stereo 22.05 kHz with a LIST chunk, stereo 16 kHz, mono 16 kHz, and an odd rate.
INSTANTIATE_TEST_SUITE_P(Corpus, SoxCompare,
                         ::testing::Values("audio/real/send.wav", "audio/real/dead.wav", "audio/real/blip.wav",
                                           "audio/real/door_pass.wav"),
                         [](const auto& info) {
                           std::string name = std::filesystem::path(info.param).stem().string();
                           std::replace(name.begin(), name.end(), '-', '_');
                           return name;
                         });

TEST_P(SoxCompare, ReverseAndTrimAreExact) {
  Remember();
  Run("Reverse audio within selection");  // the range is forced on over the whole wave
  EXPECT_EQ(MaxDifference(Samples(*wave), Sox("reverse")), 0.0);
  collection.Clear();
  wave = LoadCorpusWave(collection, GetParam());
  const uint32_t first = frames / 5, last = frames - frames / 3;
  Run("Trim waveform to selection", first, last);
  EXPECT_EQ(MaxDifference(Samples(*wave), Sox("trim " + std::to_string(first) + "s " + std::to_string(last - first) + "s")), 0.0);
}

TEST_P(SoxCompare, LinearFades) {
  Remember();
  // sox's linear ramp of L samples gives k / L from k = 0, ours (j + 1) / (n + 1): so sox fades
  // n + 1 samples starting one padded sample early, and the pad is trimmed again.
  const uint32_t n = frames / 4;
  ASSERT_TRUE(SetSettingValue(FadeSettingList()[0], "Linear fade in"));
  Run("Fade in/out selection", 0, n);
  EXPECT_LT(MaxDifference(Samples(*wave), Sox("pad 1s fade t " + std::to_string(n + 1) + "s trim 1s")), 1e-6);
  // Fading out over the last n frames: sox's ramp of n + 1 samples starts at gain 1 one frame before.
  collection.Clear();
  wave = LoadCorpusWave(collection, GetParam());
  ASSERT_TRUE(SetSettingValue(FadeSettingList()[0], "Linear fade out"));
  Run("Fade in/out selection", frames - n, frames);
  EXPECT_LT(MaxDifference(Samples(*wave), Sox("fade t 0 " + std::to_string(frames) + "s " + std::to_string(n + 1) + "s")), 1e-6);
}

TEST_P(SoxCompare, GainAndNormalise) {
  Remember();
  ASSERT_TRUE(SetSettingValue(AdjustVolumeSettingList()[0], "-7.5"));
  Run("Adjust volume");
  EXPECT_LT(MaxDifference(Samples(*wave), Sox("vol -7.5dB")), 1e-6);
  // Normalising to the peak: sox's norm is gain -n, to 0 dBFS.
  collection.Clear();
  wave = LoadCorpusWave(collection, GetParam());
  Run("Maximize amplitude");
  EXPECT_LT(MaxDifference(Samples(*wave), Sox("norm")), 1e-6);
  // Above full level both clamp at the rails (sox warns that it clipped).
  ASSERT_TRUE(SetSettingValue(AdjustVolumeSettingList()[0], "4"));
  const std::vector<float> maximized = Samples(*wave);
  Run("Adjust volume");
  EXPECT_LT(MaxDifference(Samples(*wave), RunSox(maximized, channels(), wave->sampleRate, "vol 4dB")), 1e-6);
}

TEST_P(SoxCompare, ChannelRows) {
  if (original.size() / wave->length != 2) GTEST_SKIP() << "mono file";
  Remember();
  Run("Swap left and right channels");
  EXPECT_EQ(MaxDifference(Samples(*wave), Sox("swap")), 0.0);
  for (const char* mode : {"The average of the stereo channels", "Left channel only", "Right channel only"}) {
    collection.Clear();
    wave = LoadCorpusWave(collection, GetParam());
    ASSERT_TRUE(SetSettingValue(ToMonoSettingList()[0], mode));
    Run("Convert to mono");
    ASSERT_EQ(wave->channels, 1);
    const std::string remix = mode[0] == 'T' ? "remix 1v0.5,2v0.5" : mode[0] == 'L' ? "remix 1" : "remix 2";
    EXPECT_LT(MaxDifference(Samples(*wave), RunSox(original, 2, wave->sampleRate, remix, nullptr, 1)), 1e-6) << mode;
  }
}

TEST_P(SoxCompare, SilenceAtStartAndEnd) {
  Remember();
  // sox's silence effect measures an RMS level over a window, so its cut points differ from our
  // per-frame level wherever the audio fades; at the edge of true digital silence the two agree to
  // the frame. So the wave gets digital silence at both ends, and a threshold below its quietest
  // non-zero value.
  ASSERT_TRUE(InsertFrames(*wave, 0, nullptr, 0, 1000));
  ASSERT_TRUE(InsertFrames(*wave, wave->length, nullptr, 0, 1500));
  ASSERT_TRUE(SetSettingValue(RemoveSilenceSettingList()[4], "%"));
  ASSERT_TRUE(SetSettingValue(RemoveSilenceSettingList()[3], "0.0001"));
  Run("Remove silent sections");
  const std::vector<float> ours = Samples(*wave);
  const std::string trim = "silence 1 1s 0.0001%";
  EXPECT_EQ(MaxDifference(ours, Sox("pad 1000s 1500s " + trim + " reverse " + trim + " reverse")), 0.0);
  EXPECT_LE(ours.size(), original.size());
}

TEST_P(SoxCompare, DcOffsetAndHighPass) {
  Remember();
  // sox measures the offset (stats prints six decimals) and dcshift takes it away: the two agree to
  // the printed precision.
  // Our offset is the mean of all values of all channels together: for sox, that of the mix.
  std::string stats;
  RunSox(original, channels(), wave->sampleRate, channels() == 2 ? "remix 1v0.5,2v0.5 stats" : "stats", &stats, 1);
  const size_t at = stats.find("DC offset");
  ASSERT_NE(at, std::string::npos) << stats;
  const double offset = std::strtod(stats.c_str() + at + 9, nullptr);
  Run("Remove DC offset");
  if (std::fabs(offset) < 1e-6) GTEST_SKIP() << "no offset to remove";
  char shift[32];
  std::snprintf(shift, sizeof shift, "%.6f", -offset);
  EXPECT_LT(MaxDifference(Samples(*wave), Sox(std::string("dcshift ") + shift)), 2e-6);

  // A one-pole high-pass takes the offset away too: ours and sox's "highpass -1" are the same
  // first-order section, so they agree to rounding, except that sox clips its output at full level
  // where ours, like every filter in float, lets the overshoot stand.
  collection.Clear();
  wave = LoadCorpusWave(collection, GetParam());
  ASSERT_TRUE(SetSettingValue(FilterSettingList()[0], "High-Pass 6 dB/oct"));
  ASSERT_TRUE(SetSettingValue(FilterSettingList()[1], "120"));
  Run("Filter waveform");
  std::vector<float> filtered = Samples(*wave);
  for (float& value : filtered) value = std::clamp(value, -1.0f, 1.0f);
  EXPECT_LT(MaxDifference(filtered, Sox("highpass -1 120")), 1e-5);
}

}  // namespace
}  // namespace orlin::test
