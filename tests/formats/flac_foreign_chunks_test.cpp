// Loops in FLAC as the flac tool keeps them: a looped WAVE we write as FLAC comes back from
// `flac -d --keep-foreign-metadata` with its loop and base note (libsndfile reads them), and a FLAC
// the flac tool made of a looped WAVE opens with the loop, root key and samples of that WAVE.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "test_support.h"

namespace orlin {
namespace {

std::string Quote(const std::string& text) { return "'" + text + "'"; }

Waveform* FirstWave(Collection& collection) {
  for (Waveform* wave : collection.All<Waveform>()) return wave;
  return nullptr;
}

TEST(FlacForeignChunks, OurLoopSurvivesTheFlacTool) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("flac");
  ORLIN_REQUIRE_TOOL("sndfile-info");
  test::ScratchDir dir;
  const std::string looped = (test::TestDataDir() / "audio/generated/tone440/wav_s16_smpl_loop.wav").string();
  const std::string flac = dir.File("looped.flac"), back = dir.File("back.wav");
  ASSERT_EQ(test::RunCommand(test::OrlinProgram() + " convert -q " + Quote(looped) + " -o " + Quote(flac)), 0);
  ASSERT_EQ(test::RunCommand("flac -d -s --keep-foreign-metadata " + Quote(flac) + " -o " + Quote(back) + " 2>/dev/null"),
            0);
  std::string instrument;
  test::RunCommand("sndfile-info --instrument " + Quote(back), &instrument);
  EXPECT_NE(instrument.find("Base note   : 69"), std::string::npos) << instrument;
  EXPECT_NE(instrument.find("Mode : fwd     Start :   4410   End :  17640"), std::string::npos) << instrument;
  // The restored WAVE holds the same samples as the source.
  Collection source, restored;
  ASSERT_TRUE(LoadFile(source, looped, false));
  ASSERT_TRUE(LoadFile(restored, back, false)) << LastError();
  Waveform* a = FirstWave(source);
  Waveform* b = FirstWave(restored);
  ASSERT_EQ(a->length, b->length);
  EXPECT_EQ(std::memcmp(a->GetSamplesForRead(), b->GetSamplesForRead(), size_t(a->length) * 4), 0);
}

TEST(FlacForeignChunks, TheFlacToolsLoopIsRead) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("flac");
  test::ScratchDir dir;
  const std::string looped = (test::TestDataDir() / "audio/generated/tone440/wav_s16_smpl_loop.wav").string();
  const std::string flac = dir.File("theirs.flac");
  ASSERT_EQ(test::RunCommand("flac -s --keep-foreign-metadata " + Quote(looped) + " -o " + Quote(flac) + " 2>/dev/null"),
            0);
  Collection source, theirs;
  ASSERT_TRUE(LoadFile(source, looped, false));
  ASSERT_TRUE(LoadFile(theirs, flac, false)) << LastError();
  Waveform* a = FirstWave(source);
  Waveform* b = FirstWave(theirs);
  EXPECT_EQ(b->loop, a->loop);
  EXPECT_EQ(b->rootKey, 69);
  EXPECT_EQ(b->fineTune, a->fineTune);
  ASSERT_EQ(a->length, b->length);
  EXPECT_EQ(std::memcmp(a->GetSamplesForRead(), b->GetSamplesForRead(), size_t(a->length) * 4), 0);
}

}  // namespace
}  // namespace orlin
