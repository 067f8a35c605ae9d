// Inputs built to hurt the readers: the mutated corpus files that once crashed, hung or asked for
// gigabytes, and the hand-made stress files, each run through `orlin convert` as a user would, with
// the process's peak memory and time measured from outside.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "test_support.h"

namespace orlin {
namespace {

namespace fs = std::filesystem;
using test::RunCommand;
using test::ScratchDir;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

struct RunResult {
  int exitCode = -1;
  double peakMiB = 0;
  double seconds = 0;
  std::string output;
};

// Runs `orlin ARGS` under /usr/bin/time for its peak resident memory; a hang is cut at 60 s.
RunResult RunMeasured(const std::string& args, const ScratchDir& dir) {
  RunResult result;
  const std::string stats = dir.File("time.txt");
  const std::string command = "timeout 60 /usr/bin/time -f '%M %e %x' -o " + stats + " " + test::OrlinProgram() +
                              " " + args + " 2>&1";
  RunCommand(command, &result.output);
  std::ifstream in(stats);
  std::string line, last;
  while (std::getline(in, line))
    if (!line.empty()) last = line;  // a killed child leaves a "Command terminated" line first
  std::istringstream fields(last);
  double kib = 0;
  fields >> kib >> result.seconds >> result.exitCode;
  result.peakMiB = kib / 1024.0;
  return result;
}

fs::path FoundFaults() { return test::TestDataDir() / "found-faults"; }

// The bound every hostile input must keep; a sanitized build pays for shadow memory and checks.
constexpr double kPeakMiB = 256;
constexpr double kSeconds = 2;
double TimeBound() { return kSanitized ? 30 * kSeconds : 5 * kSeconds; }  // slack for a loaded machine

void ExpectBounded(const RunResult& run, const std::string& what) {
  EXPECT_TRUE(run.exitCode == 0 || run.exitCode == 1) << what << " ended with " << run.exitCode << "\n" << run.output;
  if (!kSanitized) {
    EXPECT_LT(run.peakMiB, kPeakMiB) << what;
  }
  EXPECT_LT(run.seconds, TimeBound()) << what;
}

TEST(FoundFaults, MutatedCorpusFilesConvertOrAreRefusedInBoundedMemory) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("/usr/bin/time");
  struct Case {
    const char* file;
    const char* to;
    bool converts;
  };
  // The MPEG one has a data chunk of zero bytes; the FLAC and ADPCM ones forge their frame counts;
  // the sf3 one has a sample whose stream header asks for more than its bytes can hold.
  const Case cases[] = {{"01-ub-wav_mp3_in_riff.wav", "wav", false},
                        {"02-alloc-root_key_62.flac", "wav", true},
                        {"04-hang-wav_ima_adpcm_ffmpeg_bs512.wav", "wav", true},
                        {"05-alloc-VintageDreamsWaves-v2.sf3", "sf2", true}};
  for (const Case& c : cases) {
    const fs::path input = FoundFaults() / c.file;
    if (!fs::exists(input)) continue;
    ScratchDir dir;
    const RunResult run = RunMeasured(
        "convert '" + input.string() + "' --to " + c.to + " -o " + dir.Path().string() + "/ --yes", dir);
    ExpectBounded(run, c.file);
    EXPECT_EQ(run.output.find("runtime error"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find("Sanitizer"), std::string::npos) << run.output;
    if (c.converts) {
      EXPECT_EQ(run.exitCode, 0) << c.file << "\n" << run.output;
      // What was decoded stops where the data stops: no output is larger than a few times the input.
      uintmax_t written = 0;
      for (const auto& entry : fs::recursive_directory_iterator(dir.Path()))
        if (entry.is_regular_file() && entry.path().extension() == std::string(".") + c.to) written += entry.file_size();
      EXPECT_GT(written, 0u) << c.file;
      EXPECT_LT(written, 64u * fs::file_size(input) + 65536) << c.file;
    }
  }
}

TEST(FoundFaults, ZoneWalkBombsAreRefusedWithTheirRegionCount) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("/usr/bin/time");
  for (const char* name : {"sf2_zones_1000x1000.sf2", "sf2_zones_4000x4000.sf2"}) {
    const fs::path input = FoundFaults() / name;
    if (!fs::exists(input)) continue;
    ScratchDir dir;
    const RunResult info = RunMeasured("info '" + input.string() + "'", dir);
    ExpectBounded(info, name);
    EXPECT_EQ(info.exitCode, 1) << name;
    EXPECT_NE(info.output.find("Too many regions ("), std::string::npos) << info.output;
  }
}

TEST(FoundFaults, DoublingDefinesAreRefused) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("/usr/bin/time");
  const fs::path input = FoundFaults() / "sfz_define_bomb.sfz";
  if (!fs::exists(input)) GTEST_SKIP() << "no define bomb in this corpus";
  ScratchDir dir;
  const RunResult run = RunMeasured("info '" + input.string() + "'", dir);
  ExpectBounded(run, input.filename().string());
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.output.find("Too much text from #define and #include"), std::string::npos) << run.output;
}

TEST(FoundFaults, OneRegionLineOfTwoMillionOpcodesLoadsInLinearTime) {
  ORLIN_REQUIRE_TOOL("/usr/bin/time");
  ORLIN_REQUIRE_TOOL("sox");
  ScratchDir dir;
  ASSERT_EQ(RunCommand("sox -n -r 44100 -b 16 -c 1 " + dir.File("s.wav") + " synth 0.1 sine 440"), 0);
  {
    std::ofstream sfz(dir.File("long_line.sfz"), std::ios::binary);
    sfz << "<region> sample=s.wav";
    std::string chunk;
    for (int i = 0; i < 1000; ++i) chunk += " lokey=1";
    for (int i = 0; i < 2000; ++i) sfz << chunk;
    sfz << "\n";
  }
  const RunResult run = RunMeasured("convert " + dir.File("long_line.sfz") + " --to sf2 -o " + dir.File("out.sf2") + " --yes", dir);
  ExpectBounded(run, "long_line.sfz");
  EXPECT_EQ(run.exitCode, 0) << run.output;
}

TEST(FoundFaults, TwoHourRecordingConvertsToWaveInBoundedMemory) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("/usr/bin/time");
  ORLIN_REQUIRE_TOOL("soxi");
  const fs::path input = FoundFaults() / "silence_2h.flac";
  if (!fs::exists(input)) GTEST_SKIP() << "no two-hour recording in this corpus";
  if (kSanitized) GTEST_SKIP() << "a memory bound, measured on the plain build; 1.2 GB through the sanitizers takes minutes";
  ScratchDir dir;
  const RunResult run = RunMeasured("convert '" + input.string() + "' --to wav -o " + dir.File("long.wav") + " --yes", dir);
  EXPECT_EQ(run.exitCode, 0) << run.output;
  if (!kSanitized) {
    EXPECT_LT(run.peakMiB, kPeakMiB);
  }
  // sox reads what we wrote and finds every frame the FLAC stream holds.
  std::string ours, theirs;
  ASSERT_EQ(RunCommand("soxi -s " + dir.File("long.wav"), &ours), 0);
  ASSERT_EQ(RunCommand("soxi -s '" + input.string() + "'", &theirs), 0);
  EXPECT_EQ(std::stoull(ours), std::stoull(theirs));
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

// A conversion holds a few blocks of a wave, whatever its size: a 200 MB recording converts to raw
// floats, to 24-bit WAV and to FLAC within 64 MiB, and sox reads back what was written. It takes
// most of a minute: the bound only shows on an input far larger than the blocks.
TEST(StreamedConversion, TwoHundredMegabytesConvertInBoundedMemory) {
  ORLIN_REQUIRE_TOOL("/usr/bin/time");
  ORLIN_REQUIRE_TOOL("sox");
  if (kSanitized) GTEST_SKIP() << "a memory bound, measured on the plain build; 600 MB through the sanitizers takes minutes";
  ScratchDir dir;
  // 200 MB of 16-bit stereo at 44.1 kHz: about 19.8 minutes of quiet noise.
  ASSERT_EQ(RunCommand("sox -n -r 44100 -b 16 -c 2 " + dir.File("big.wav") + " synth 1189 whitenoise vol 0.1"), 0);
  constexpr double kBoundMiB = 64;
  struct Case {
    std::string args, output;
  };
  const Case cases[] = {{"--to f32", "out.f32"},
                        {"--to wav --data-format 'PCM 24-bit'", "out.wav"},
                        {"--to flac", "out.flac"}};
  for (const Case& c : cases) {
    const RunResult run =
        RunMeasured("convert " + dir.File("big.wav") + " " + c.args + " -o " + dir.File(c.output) + " --yes", dir);
    EXPECT_EQ(run.exitCode, 0) << c.args << "\n" << run.output;
    if (!kSanitized) {
      EXPECT_LT(run.peakMiB, kBoundMiB) << c.args;
    }
    if (c.output != "out.f32") {
      std::string frames;
      ASSERT_EQ(RunCommand("soxi -s " + dir.File(c.output), &frames), 0) << c.args;
      EXPECT_EQ(std::stoull(frames), 1189ull * 44100) << c.args;
    }
    fs::remove(dir.File(c.output));
  }
}

}  // namespace
}  // namespace orlin
