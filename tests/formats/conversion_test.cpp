// Conversions across instrument formats, judged by an outside player: a SoundFont bank goes to SFZ and
// back, and FluidSynth renders both banks preset by preset (the bank-fidelity measuring stick).
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <sstream>

#include "core/collection.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "test_support.h"

namespace orlin {
namespace {

int32_t RowOf(const std::string& extension, const std::string& description) {
  for (int32_t row = 0; row < kFormatRowCount; ++row)
    if (GetRowExtension(row) == extension && GetRowDescription(row) == description) return row;
  return -1;
}

TEST(Conversion, SoundFontThroughSfzAndBackSoundsTheSame) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("fluidsynth");
  ORLIN_REQUIRE_TOOL("sf2dump");
  const std::filesystem::path tool = test::TestDataDir().parent_path() / "tools" / "bank-fidelity";
  if (!std::filesystem::exists(tool)) GTEST_SKIP() << "bank-fidelity is not there";
  const std::string original = (test::TestDataDir() / "soundfont/sbk/Uplift.sf2").string();
  test::ScratchDir dir;
  test::ScriptedUserInterface ui;
  test::ScopedUserInterface scoped(ui);

  // One SFZ file per preset, waves beside them.
  Collection bank;
  ASSERT_TRUE(LoadFile(bank, original, false)) << LastError();
  const int32_t sfzRow = RowOf("sfz", "Cakewalk SFZ v2 (waves in same folder)");
  ASSERT_GE(sfzRow, 0);
  SaveAllRequest request{dir.Path().string(), "uplift", sfzRow, DefaultSaveOptions(sfzRow), kSaveAllName, false};
  SaveAllResult result;
  ASSERT_TRUE(SaveAll(bank, request, result)) << LastError();
  ASSERT_EQ(result.failed, 0);

  // Every SFZ file back into one collection, then one SoundFont bank.
  Collection back;
  int merged = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.Path()))
    if (entry.path().extension() == ".sfz") {
      ASSERT_TRUE(MergeFile(back, entry.path().string())) << entry.path() << ": " << LastError();
      ++merged;
    }
  // The SFZ rows hold a whole collection: one save writes a file for each instrument.
  ASSERT_EQ(merged, int(bank.CountOf(ItemType::Instrument)));
  const int32_t sf2Row = RowOf("sf2", "SoundFont v2 bank");
  const std::string converted = dir.File("converted.sf2");
  ASSERT_TRUE(SaveWithBackup(&back, converted, sf2Row, DefaultSaveOptions(sf2Row), false)) << LastError();

  // SFZ keeps no bank or program numbers: presets are matched by name.
  std::string output;
  const int status =
      test::RunCommand("/usr/bin/python3 '" + tool.string() + "' '" + original + "' '" + converted + "' --by-name 2>&1", &output);
  std::cout << output;
  // Every preset must survive the trip; the lines bank-fidelity prints are the presets that differ. The
  // bank's waves carry small fine tunes under regions with their own key centers, which the WAV files
  // hold as a unity note below plus a fraction: a good guard for that reading.
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);)
    if (line.find(" corr ") != std::string::npos && line.find("presets match") == std::string::npos)
      ADD_FAILURE() << "a preset does not survive the trip: " << line;
  EXPECT_NE(output.find("presets match"), std::string::npos) << output;
  EXPECT_EQ(status, 0) << output;
}

}  // namespace
}  // namespace orlin
