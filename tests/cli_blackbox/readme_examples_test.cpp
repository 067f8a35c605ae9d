// Every example the README shows runs as printed, on stand-ins for the files it names, so that the
// README cannot drift from the program: each `orlin ...` line of its example blocks exits 0.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace fs = std::filesystem;

namespace orlin {
namespace {

// The command lines of the README's example blocks: lines that start with "orlin " inside ``` fences,
// without their trailing comments.
std::vector<std::string> ReadmeExamples() {
  std::ifstream readme(test::SourceDir() / "README.md");
  std::vector<std::string> lines;
  std::string line;
  bool inBlock = false;
  while (std::getline(readme, line)) {
    if (line.rfind("```", 0) == 0) {
      inBlock = !inBlock;
      continue;
    }
    if (!inBlock || line.rfind("orlin ", 0) != 0) continue;
    // The synopsis block shows forms, not commands: brackets and ellipses mark it.
    if (line.find("...") != std::string::npos || line.find(" [") != std::string::npos) continue;
    const size_t comment = line.find("  #");
    if (comment != std::string::npos) line.erase(comment);
    while (!line.empty() && line.back() == ' ') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

TEST(Readme, EveryExampleRuns) {
  ORLIN_REQUIRE_TESTDATA();
  const std::vector<std::string> examples = ReadmeExamples();
  ASSERT_GE(examples.size(), 15u);
  test::ScratchDir dir;
  const fs::path data = test::TestDataDir();
  const fs::path tone440 = data / "audio/generated/tone440";
  auto copy = [&](const fs::path& from, const std::string& to) { fs::copy_file(from, dir.Path() / to); };
  copy(test::SourceDir() / "examples/tone.sw", "tone.sw");
  copy(test::SourceDir() / "examples/tone.sw", "a.sw");
  copy(test::SourceDir() / "examples/tone.sw", "b.sw");
  copy(tone440 / "wav_s16_smpl_loop.wav", "kit.wav");
  copy(tone440 / "wav_s16.wav", "song.wav");
  copy(tone440 / "wav_s16.wav", "take.wav");
  copy(tone440 / "wav_s16.wav", "loops.wav");
  copy(tone440 / "flac_s16.flac", "take.flac");
  copy(data / "soundfont/fluidsynth-testdata/DMOD.sf2", "bank.sf2");
  std::ofstream(dir.Path() / "kit.sfz") << "<region> sample=kit.wav lokey=0 hikey=127 pitch_keycenter=69\n";
  std::ofstream(dir.Path() / "unknown.bin") << std::string(4000, '\x17');
  // The settings the examples change stay in the scratch folder.
  const std::string prefix = "cd '" + dir.Path().string() + "' && ORLIN_CONFIG_DIR='" + dir.File("config") + "' " +
                             test::OrlinProgram() + " ";
  for (const std::string& example : examples) {
    std::string command = example.substr(6);
    const size_t pipe = command.find(" | ");
    if (pipe != std::string::npos) command.erase(pipe);  // `| jq .` needs nothing of ours
    std::string output;
    EXPECT_EQ(test::RunCommand(prefix + command + " </dev/null 2>&1", &output), 0) << example << "\n" << output;
  }
}

}  // namespace
}  // namespace orlin
