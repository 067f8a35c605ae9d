// What a conversion could not carry is said, and only that: each reported loss is confirmed by an
// outside tool reading the written file, and a conversion that keeps everything reports nothing.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "test_support.h"

namespace orlin {
namespace {

using test::RunCommand;
using test::ScratchDir;

std::string Quote(const std::string& text) { return "'" + text + "'"; }
std::string Orlin() { return test::OrlinProgram() + " "; }

size_t Count(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

TEST(ConversionLosses, LoopsRootsAndChannelsThatDidNotSurviveAreNamed) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("sndfile-info");
  ORLIN_REQUIRE_TOOL("sox");
  ORLIN_REQUIRE_TOOL("ffprobe");
  ScratchDir dir;
  const std::string looped = (test::TestDataDir() / "audio/generated/tone440/wav_s16_smpl_loop.wav").string();
  std::string text;

  // AIFF keeps the loop and the base note: nothing to report, and libsndfile sees both.
  ASSERT_EQ(RunCommand(Orlin() + "convert " + Quote(looped) + " -o " + Quote(dir.File("a.aiff")) + " 2>&1", &text), 0);
  EXPECT_EQ(text.find("dropped"), std::string::npos) << text;
  EXPECT_EQ(text.find("became"), std::string::npos) << text;
  std::string instrument;
  RunCommand("sndfile-info --instrument " + Quote(dir.File("a.aiff")), &instrument);
  EXPECT_NE(instrument.find("Base note   : 69"), std::string::npos) << instrument;
  EXPECT_NE(instrument.find("Loop points : 1"), std::string::npos) << instrument;

  // Sun au holds neither: both are named, once each, and libsndfile finds no loop there.
  ASSERT_EQ(RunCommand(Orlin() + "convert " + Quote(looped) + " -o " + Quote(dir.File("a.au")) + " 2>&1", &text), 0);
  EXPECT_EQ(Count(text, "loop dropped"), 1u) << text;
  EXPECT_EQ(Count(text, "root key A4 became C4"), 1u) << text;
  RunCommand("sndfile-info --instrument " + Quote(dir.File("a.au")) + " 2>&1", &instrument);
  EXPECT_NE(instrument.find("does not contain instrument data"), std::string::npos) << instrument;

  // A stereo wave through a mono-only codec.
  const std::string stereo = dir.File("stereo.wav");
  ASSERT_EQ(RunCommand("sox -n -r 8000 -c 2 -b 16 " + Quote(stereo) + " synth 0.3 sine 300 sine 500"), 0);
  ASSERT_EQ(RunCommand(Orlin() + "convert " + Quote(stereo) + " --data-format 'ADPCM 4-bit' -o " +
                           Quote(dir.File("mono.wav")) + " 2>&1",
                       &text),
            0);
  EXPECT_NE(text.find("2 channels became 1"), std::string::npos) << text;
  std::string channels;
  RunCommand("ffprobe -v error -show_entries stream=channels -of csv=p=0 " + Quote(dir.File("mono.wav")), &channels);
  EXPECT_EQ(channels, "1\n");

  // --json carries the same as data, and -q keeps standard error quiet.
  ASSERT_EQ(RunCommand(Orlin() + "convert -q --json " + Quote(looped) + " -o " + Quote(dir.File("b.au")) + " 2>&1",
                       &text),
            0);
  EXPECT_NE(text.find("\"lost\":[{\"item\":\"waveform \\\"wav_s16_smpl_loop\\\"\",\"what\":\"loop dropped\"}"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.find("orlin: "), std::string::npos) << text;
}

TEST(ConversionLosses, AWholeBankIntoAKitReportsNothingItKept) {
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  const std::string bank = (test::TestDataDir() / "soundfont/TimGM6mb.sf2").string();
  std::string text;
  // One SFZ an instrument: every file of the kit is read back, so nothing is missing.
  ASSERT_EQ(RunCommand(Orlin() + "convert " + Quote(bank) + " --to sfz -o " + Quote(dir.File("kit") + "/") + " 2>&1",
                       &text),
            0);
  EXPECT_EQ(text.find("orlin:"), std::string::npos) << text.substr(0, 2000);
  // The bank saved again as a bank loses nothing.
  ASSERT_EQ(RunCommand(Orlin() + "convert " + Quote(bank) + " --json -o " + Quote(dir.File("kit.sf2")) + " 2>&1", &text),
            0);
  EXPECT_NE(text.find("\"lost\":[]"), std::string::npos) << text.substr(0, 2000);
}

}  // namespace
}  // namespace orlin
