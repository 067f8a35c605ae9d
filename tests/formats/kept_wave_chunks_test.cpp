// Loops in FLAC and WavPack as their own tools keep a WAVE's chunks: a looped WAVE we write comes
// back from `flac -d --keep-foreign-metadata` and `wvunpack` with its loop and base note (libsndfile
// reads them), and files those tools made of a looped WAVE open with the loop, root key and samples
// of that WAVE (whose smpl chunk stands after its samples).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>

#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "test_support.h"

namespace orlin {
namespace {

std::string Quote(const std::string& text) { return "'" + text + "'"; }

Waveform* FirstWave(Collection& collection) {
  for (Waveform* wave : collection.All<Waveform>()) return wave;
  return nullptr;
}

struct Packer {
  const char* extension;
  const char* tool;
  const char* pack;    // IN, OUT
  const char* unpack;  // IN, OUT
};
constexpr Packer kPackers[] = {
    {"flac", "flac", "flac -s --keep-foreign-metadata %1 -o %2", "flac -d -s --keep-foreign-metadata %1 -o %2"},
    {"wv", "wvunpack", "wavpack -q %1 -o %2", "wvunpack -q %1 -o %2"},
};

std::string Fill(std::string pattern, const std::string& in, const std::string& out) {
  pattern.replace(pattern.find("%1"), 2, Quote(in));
  pattern.replace(pattern.find("%2"), 2, Quote(out));
  return pattern + " 2>/dev/null";
}

void ExpectSameWave(const std::string& expectedPath, const std::string& path) {
  Collection expected, actual;
  ASSERT_TRUE(LoadFile(expected, expectedPath, false));
  ASSERT_TRUE(LoadFile(actual, path, false)) << LastError();
  Waveform* a = FirstWave(expected);
  Waveform* b = FirstWave(actual);
  EXPECT_EQ(b->loop, a->loop);
  EXPECT_EQ(b->rootKey, a->rootKey);
  EXPECT_EQ(b->fineTune, a->fineTune);
  ASSERT_EQ(a->length, b->length);
  EXPECT_EQ(std::memcmp(a->GetSamplesForRead(), b->GetSamplesForRead(), size_t(a->length) * 4), 0);
}

TEST(KeptWaveChunks, OurLoopSurvivesTheirTools) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("sndfile-info");
  const std::string looped = (test::TestDataDir() / "audio/generated/tone440/wav_s16_smpl_loop.wav").string();
  for (const Packer& packer : kPackers) {
    if (!test::HaveTool(packer.tool)) continue;
    SCOPED_TRACE(packer.extension);
    test::ScratchDir dir;
    const std::string packed = dir.File(std::string("ours.") + packer.extension), back = dir.File("back.wav");
    ASSERT_EQ(test::RunCommand(test::OrlinProgram() + " convert -q " + Quote(looped) + " -o " + Quote(packed)), 0);
    ASSERT_EQ(test::RunCommand(Fill(packer.unpack, packed, back)), 0);
    std::string instrument;
    test::RunCommand("sndfile-info --instrument " + Quote(back), &instrument);
    EXPECT_NE(instrument.find("Base note   : 69"), std::string::npos) << instrument;
    EXPECT_NE(instrument.find("Mode : fwd     Start :   4410   End :  17640"), std::string::npos) << instrument;
    ExpectSameWave(looped, back);
  }
}

TEST(KeptWaveChunks, TheirToolsLoopsAreRead) {
  ORLIN_REQUIRE_TESTDATA();
  const std::string looped = (test::TestDataDir() / "audio/generated/tone440/wav_s16_smpl_loop.wav").string();
  for (const Packer& packer : kPackers) {
    if (!test::HaveTool(packer.tool)) continue;
    SCOPED_TRACE(packer.extension);
    test::ScratchDir dir;
    const std::string packed = dir.File(std::string("theirs.") + packer.extension);
    ASSERT_EQ(test::RunCommand(Fill(packer.pack, looped, packed)), 0);
    ExpectSameWave(looped, packed);
  }
}

TEST(KeptWaveChunks, MarkersTravelBothWays) {
  // A wave with a loop, a named point and a named range.
  test::ScratchDir dir;
  Collection collection;
  auto* wave = new Waveform(&collection);
  wave->SetName("marked");
  wave->length = 20000;
  wave->sampleRate = 22050;
  float* samples = wave->AllocSamples();
  for (uint32_t i = 0; i < wave->length; ++i) samples[i] = 0.5f * float(std::sin(0.01 * i));
  wave->loop.type = 1, wave->loop.start = 1000, wave->loop.end = 19000;
  wave->rootKey = 64;
  Marker hit;
  hit.start = 4321, hit.name = "hit", hit.id = NextMarkerId();
  Marker verse;
  verse.section = 1, verse.start = 8000, verse.end = 12000, verse.name = "verse", verse.id = NextMarkerId();
  wave->markers = {hit, verse};
  auto expectMarkers = [](Waveform* read) {
    ASSERT_NE(read, nullptr) << LastError();
    ASSERT_EQ(read->markers.size(), 2u);
    EXPECT_EQ(read->markers[0].start, 4321u);
    EXPECT_EQ(read->markers[0].name, "hit");
    EXPECT_EQ(read->markers[1].section, 1);
    EXPECT_EQ(read->markers[1].end, 12000u);
    EXPECT_EQ(read->markers[1].name, "verse");
    EXPECT_EQ(read->loop.start, 1000.0f);
    EXPECT_EQ(read->rootKey, 64);
  };
  for (const Packer& packer : kPackers) {
    if (!test::HaveTool(packer.tool)) continue;
    SCOPED_TRACE(packer.extension);
    // Ours, through their unpacker into a WAVE.
    const std::string packed = dir.File(std::string("ours.") + packer.extension), back = dir.File("back.wav");
    const int32_t row = FindWriteRow(packer.extension, 1);
    ASSERT_TRUE(SaveItem(wave, row, packed, DefaultSaveOptions(row))) << LastError();
    ASSERT_EQ(test::RunCommand(Fill(packer.unpack, packed, back)), 0);
    Collection unpacked;
    ASSERT_TRUE(LoadFile(unpacked, back, false));
    expectMarkers(FirstWave(unpacked));
    // Their packer's file of that WAVE, read by us.
    const std::string theirs = dir.File(std::string("theirs.") + packer.extension);
    ASSERT_EQ(test::RunCommand(Fill(packer.pack, back, theirs)), 0);
    Collection read;
    ASSERT_TRUE(LoadFile(read, theirs, false));
    expectMarkers(FirstWave(read));
    std::filesystem::remove(back);
  }
}

}  // namespace
}  // namespace orlin
