// After every row that changes a wave's length, its loop and markers still stand on the same audio:
// the frames around each point of a real recording are compared before and after.
#include <gtest/gtest.h>

#include <functional>

#include "helpers.h"
#include "processing/audio/edit_rows.h"

namespace orlin::test {
namespace {

constexpr uint32_t kWindow = 64;  // frames compared from each point on

struct Points {
  std::vector<uint32_t> frames;  // loop start, loop end, marker starts, section ends
};

Points PointsOf(const Waveform& wave) {
  Points points;
  points.frames.push_back(uint32_t(wave.loop.start));
  points.frames.push_back(uint32_t(wave.loop.end) - kWindow);  // the audio before the exclusive end
  for (const Marker& marker : wave.markers) {
    points.frames.push_back(marker.start);
    if (marker.section) points.frames.push_back(marker.end - kWindow);
  }
  return points;
}

void ExpectSameAudio(const std::vector<float>& before, const Points& old, const Waveform& after, uint32_t channels,
                     const std::string& row) {
  const Points now = PointsOf(after);
  ASSERT_EQ(now.frames.size(), old.frames.size()) << row;
  EXPECT_EQ(after.loop.type, 1) << row;
  const std::vector<float> samples = Samples(after);
  for (size_t p = 0; p < old.frames.size(); ++p) {
    for (uint32_t i = 0; i < kWindow * channels; ++i) {
      const size_t a = size_t(old.frames[p]) * channels + i, b = size_t(now.frames[p]) * channels + i;
      ASSERT_LT(b, samples.size()) << row;
      ASSERT_EQ(before[a], samples[b]) << row << ": point " << p << " moved off its audio";
    }
  }
}

class LoopsAndMarkers : public ::testing::Test {
 protected:
  void SetUp() override {
    ORLIN_REQUIRE_TESTDATA();
    ResetAlgorithmSettings();
  }
  void TearDown() override { ResetAlgorithmSettings(); }

  // send.wav (a real stereo recording) with a loop, two point markers and a section laid on it.
  Waveform* Prepare(Collection& collection) {
    Waveform* wave = LoadCorpusWave(collection, "audio/real/send.wav");
    if (!wave) return nullptr;
    const uint32_t n = wave->length;
    wave->loop = {1, 0, float(n / 2), float(n / 2 + n / 8), 0.0f};
    wave->markers = {{0, n / 10, 0, "attack", NextMarkerId()},
                     {1, n / 4, n / 4 + n / 10, "body", NextMarkerId()},
                     {0, n - n / 10, 0, "tail", NextMarkerId()}};
    return wave;
  }

  void Check(const char* row, int64_t first, int64_t last, const std::function<void(Collection&, Waveform&)>& setup = {}) {
    Collection collection;
    Waveform* wave = Prepare(collection);
    ASSERT_NE(wave, nullptr);
    const std::vector<float> before = Samples(*wave);
    const Points points = PointsOf(*wave);
    const uint32_t length = wave->length;
    if (setup) setup(collection, *wave);
    ProcessingWizard wizard;
    InitWizard(wizard, collection, {wave});
    if (first >= 0) {
      wizard.rangeOn = true;
      wizard.rangeStart = int32_t(first * length / 1000);
      wizard.rangeEnd = int32_t(last * length / 1000);
    }
    ASSERT_TRUE(RunWizard(wizard, row, true)) << row << ": " << wizard.resultText;
    EXPECT_NE(wave->length, length) << row;
    ExpectSameAudio(before, points, *wave, wave->channels, row);
  }
};

// Ranges in thousandths of the wave, chosen between the points.
TEST_F(LoopsAndMarkers, CutInsertTrimAppendAndSilence) {
  Check("Cut away selection", 150, 240);
  Check("Cut away selection", 400, 480);
  Check("Insert silence", 30, 60);
  ASSERT_TRUE(SetSettingValue(InsertSilenceSettingList()[1], "The start of the selection"));
  Check("Insert silence", 360, 400);
  ASSERT_TRUE(SetSettingValue(InsertWaveSettingList()[1], "The end of the selection"));
  ASSERT_TRUE(SetSettingValue(InsertWaveSettingList()[0], "<self>"));
  Check("Insert another waveform", 700, 800);
  Check("Trim waveform to selection", 50, 950);
  // Another take appended after the wave: the points stay where they were.
  Check("Append/combine waveforms", -1, -1, [](Collection& collection, Waveform& wave) {
    auto* take = new Waveform(&collection, wave, true, "take two");
    take->markers.clear();
    ASSERT_TRUE(SetSettingValue(AppendSettingList()[1], "take two"));
  });
}

TEST_F(LoopsAndMarkers, SilenceRemovedFromTheEnds) {
  Collection collection;
  Waveform* wave = Prepare(collection);
  ASSERT_NE(wave, nullptr);
  ASSERT_TRUE(InsertFrames(*wave, 0, nullptr, 0, 3000));
  ASSERT_TRUE(InsertFrames(*wave, wave->length, nullptr, 0, 3000));
  const std::vector<float> before = Samples(*wave);
  const Points points = PointsOf(*wave);
  ProcessingWizard wizard;
  InitWizard(wizard, collection, {wave});
  ASSERT_TRUE(RunWizard(wizard, "Remove silent sections", true));
  EXPECT_LE(wave->length, before.size() / 2 - 6000);
  ExpectSameAudio(before, points, *wave, 2, "Remove silent sections");
}

TEST_F(LoopsAndMarkers, SplitSectionsKeepTheirPointsOnTheirAudio) {
  Collection collection;
  Waveform* wave = LoadCorpusWave(collection, "audio/real/send.wav");
  ASSERT_NE(wave, nullptr);
  const uint32_t n = wave->length;
  wave->markers = {{1, n / 10, n / 3, "intro", NextMarkerId()},
                   {1, n / 2, n / 2 + n / 4, "hook", NextMarkerId()},
                   {0, n / 2 + n / 8, 0, "accent", NextMarkerId()}};
  wave->loop = {1, 0, float(n / 2 + n / 16), float(n / 2 + n / 5), 0.0f};
  const std::vector<float> before = Samples(*wave);
  ProcessingWizard wizard;
  InitWizard(wizard, collection, {wave});
  ASSERT_TRUE(RunWizard(wizard, "Split sections/slices into separate waves", true));
  ASSERT_EQ(collection.CountOf(ItemType::Waveform), 2u);
  Waveform* hook = nullptr;
  for (Waveform* piece : collection.All<Waveform>())
    if (piece->GetName() == "hook") hook = piece;
  ASSERT_NE(hook, nullptr);
  ASSERT_EQ(hook->length, n / 4);
  const std::vector<float> piece = Samples(*hook);
  // The piece is the section's audio; the accent and the loop stand on the same frames as before.
  for (uint32_t i = 0; i < hook->length * 2; ++i) ASSERT_EQ(piece[i], before[size_t(n / 2) * 2 + i]);
  ASSERT_EQ(hook->markers.size(), 2u);
  EXPECT_EQ(hook->markers[1].name, "accent");
  EXPECT_EQ(hook->markers[1].start, n / 8);
  EXPECT_EQ(hook->loop.type, 1);
  EXPECT_EQ(hook->loop.start, float(n / 16));
}

}  // namespace
}  // namespace orlin::test
