// `orlin process` as a user runs it: real files in, files out, read back by sox; exit codes, the
// help, and the JSON listing parsed by Python.
#include <gtest/gtest.h>

#include <filesystem>

#include "helpers.h"

namespace orlin::test {
namespace {

namespace fs = std::filesystem;

int Orlin(const std::string& arguments, std::string* output = nullptr) {
  return RunCommand(OrlinProgram() + " " + arguments + " 2>&1", output);
}

// The samples of a file as sox decodes them.
std::vector<float> SoxDecode(const std::string& path, const std::string& effects = "") {
  ScratchDir scratch;
  const std::string raw = scratch.File("decoded.f32");
  std::string output;
  EXPECT_EQ(RunCommand("sox -D -V1 '" + path + "' -t f32 " + raw + " " + effects + " 2>&1", &output), 0) << output;
  const std::vector<uint8_t> bytes = ReadBytes(raw);
  std::vector<float> values(bytes.size() / 4);
  std::memcpy(values.data(), bytes.data(), values.size() * 4);
  return values;
}

class ProcessCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ORLIN_REQUIRE_TESTDATA();
    ORLIN_REQUIRE_TOOL("sox");
    input = scratch.File("send.wav");
    fs::copy_file(TestDataDir() / "audio/real/send.wav", input);
  }
  ScratchDir scratch;
  std::string input;
};

TEST_F(ProcessCommandTest, RowsAndChainsOnARealFile) {
  const std::string out = scratch.File("reversed.wav");
  std::string text;
  ASSERT_EQ(Orlin("process " + input + " -a 'Reverse audio within selection' -o " + out, &text), 0) << text;
  EXPECT_NE(text.find("Processed 1 item using Reverse audio within selection"), std::string::npos) << text;
  EXPECT_EQ(MaxDifference(SoxDecode(out), SoxDecode(input, "reverse")), 0.0);

  // A chain, with a setting and a range; the 16-bit save rounds to its step.
  const std::string chained = scratch.File("chained.wav");
  ASSERT_EQ(Orlin("process " + input + " -a 'Adjust volume' --set db=-6 -a 'Reverse audio within selection' " +
                      "--range 1000:5000 -o " + chained, &text), 0) << text;
  std::vector<float> expected = SoxDecode(input);
  const double gain = std::exp(-6 * 0.115129255);
  for (size_t i = 2000; i < 10000; ++i) expected[i] = float(expected[i] * gain);
  for (size_t a = 1000, b = 4999; a < b; ++a, --b) std::swap(expected[2 * a], expected[2 * b]), std::swap(expected[2 * a + 1], expected[2 * b + 1]);
  EXPECT_LE(MaxDifference(SoxDecode(chained), expected), 1.0 / 32768 + 1e-7);

  // In place: the input is replaced, and no backup is left behind.
  const auto before = SoxDecode(input);
  ASSERT_EQ(Orlin("process " + input + " -a 'Swap left and right channels' --in-place", &text), 0) << text;
  EXPECT_EQ(MaxDifference(SoxDecode(input), RunSox(before, 2, 22050, "swap")), 0.0);
  EXPECT_FALSE(fs::exists(input + ".bak"));
  EXPECT_FALSE(fs::exists(scratch.File("send.bak")));
}

TEST_F(ProcessCommandTest, SplitWritesEachPieceToTheFolder) {
  const std::string bursts = scratch.File("bursts.wav");
  ASSERT_EQ(RunCommand("sox -n -r 8000 -c 1 -b 16 " + bursts + " synth 0.1 sine 440 pad 0 0.2 repeat 2"), 0);
  const std::string folder = scratch.File("pieces");
  std::string text;
  ASSERT_EQ(Orlin("process " + bursts + " -a 'Split waveform at silent sections' -o " + folder + "/", &text), 0) << text;
  size_t files = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    ++files;
    EXPECT_GT(SoxDecode(entry.path().string()).size(), 700u) << entry.path();
  }
  EXPECT_EQ(files, 3u) << text;
}

TEST_F(ProcessCommandTest, ExitCodesAndTheUsersFiles) {
  std::string text;
  const std::string out = scratch.File("out.wav");
  // Usage: 2.
  EXPECT_EQ(Orlin("process " + input + " -a 'Maximise amplitude' -o " + out, &text), 2);
  EXPECT_NE(text.find("Maximize amplitude"), std::string::npos);  // the list is shown
  EXPECT_EQ(Orlin("process " + input + " -a 'Maximize amplitude'", &text), 2);  // no output named
  EXPECT_EQ(Orlin("process " + input + " -a 'Adjust volume' --set loudness=3 -o " + out, &text), 2);
  EXPECT_EQ(Orlin("process " + input + " -a 'Adjust volume' --set db=loud -o " + out, &text), 2);
  EXPECT_EQ(Orlin("process " + input + " -a 'Cut away selection' --range 10-20 -o " + out, &text), 2);
  EXPECT_EQ(Orlin("process " + input + " -a 'Maximize amplitude' -o " + input, &text), 2);  // that is the input
  EXPECT_FALSE(fs::exists(out));

  // A file failed: 1, and nothing written.
  EXPECT_EQ(Orlin("process " + scratch.File("missing.wav") + " -a 'Maximize amplitude' -o " + out, &text), 1);
  EXPECT_EQ(Orlin("process " + input + " -a 'Auto tune' -o " + out, &text), 1);
  EXPECT_NE(text.find("\"Auto tune\" is not available yet"), std::string::npos) << text;
  EXPECT_FALSE(fs::exists(out));
  // An existing output is kept unless -y/--overwrite (or the older --force) says otherwise.
  WriteBytes(out, {1, 2, 3});
  EXPECT_EQ(Orlin("process " + input + " -a 'Maximize amplitude' -o " + out, &text), 1);
  EXPECT_EQ(ReadBytes(out).size(), 3u);
  EXPECT_EQ(Orlin("process " + input + " -a 'Maximize amplitude' --no -o " + out, &text), 1);
  EXPECT_EQ(ReadBytes(out).size(), 3u);
  EXPECT_EQ(Orlin("process " + input + " -a 'Maximize amplitude' -y -o " + out, &text), 0) << text;
  EXPECT_GT(ReadBytes(out).size(), 1000u);
  WriteBytes(out, {1, 2, 3});
  EXPECT_EQ(Orlin("process " + input + " -a 'Maximize amplitude' --force -o " + out, &text), 0) << text;
  EXPECT_GT(ReadBytes(out).size(), 1000u);

  EXPECT_EQ(Orlin("process --help", &text), 0);
  EXPECT_NE(text.find("--algorithm"), std::string::npos);
  EXPECT_NE(text.find("--in-place"), std::string::npos);
}

// The row end to end on a real recording, set against sox's own resampler on the same file: the
// two differ by what separates two good filters, not by a shift, a gain or a wrong length.
TEST_F(ProcessCommandTest, ResampleRowMatchesSoxOnARealFile) {
  const std::string out = scratch.File("48k.wav");
  std::string text;
  ASSERT_EQ(Orlin("process " + input + " --algorithm Resample --set rate=48000 --set mode=8 -o " + out, &text), 0)
      << text;
  std::string rate;
  ASSERT_EQ(RunCommand("soxi -r " + out, &rate), 0);
  EXPECT_EQ(std::stoi(rate), 48000);
  const std::vector<float> ours = SoxDecode(out);
  const std::vector<float> theirs = SoxDecode(input, "rate -v 48000");
  ASSERT_FALSE(ours.empty());
  EXPECT_LE(std::max(ours.size(), theirs.size()) - std::min(ours.size(), theirs.size()), 2u);
  double signal = 0.0, error = 0.0;
  for (size_t i = 0; i < std::min(ours.size(), theirs.size()); ++i) {
    signal += double(theirs[i]) * theirs[i];
    error += (double(ours[i]) - theirs[i]) * (double(ours[i]) - theirs[i]);
  }
  ASSERT_GT(signal, 0.0);
  EXPECT_GT(10.0 * std::log10(signal / std::max(error, 1e-30)), 60.0);
}

TEST(ProcessList, JsonListsEveryRowWithItsSettings) {
  if (!HaveTool("python3")) GTEST_SKIP() << "python3 is not installed";
  ScratchDir scratch;
  const std::string listing = scratch.File("list.json");
  ASSERT_EQ(RunCommand(OrlinProgram() + " process --list --json > " + listing), 0);
  // Python reads the JSON and prints what the test checks.
  const std::string script =
      "import json,sys\n"
      "d=json.load(open(sys.argv[1]))\n"
      "print(len(d['Audio']),len(d['Instrument']),len(d['Song']))\n"
      "rows={r['name']:r for r in d['Audio']}\n"
      "v=rows['Adjust volume']\n"
      "print(v['available'],v['subRange'],[(s['key'],s['type'],s['default'],s.get('minimum'),s.get('maximum')) for s in v['settings']][0])\n"
      "print(rows['Resample']['available'],rows['Cut away selection']['predicate'])\n"
      "print(sum(r['available'] for r in d['Audio']))\n";
  WriteBytes(scratch.File("check.py"), std::vector<uint8_t>(script.begin(), script.end()));
  std::string output;
  ASSERT_EQ(RunCommand("python3 " + scratch.File("check.py") + " " + listing, &output), 0) << output;
  EXPECT_EQ(output,
            "42 19 8\n"
            "True True ('db', 'number', '-6', -96, 96)\n"
            "True SubRangeOn\n"
            "23\n");
}

}  // namespace
}  // namespace orlin::test
