// `orlin params`, `orlin info --params` helpers and `orlin settings`: the table dump is valid JSON
// as python reads it, items are found by name, TYPE:N and id, and settings round-trip through a file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "cli/commands.h"
#include "core/collection.h"
#include "core/settings.h"
#include "test_support.h"

namespace orlin::cli {
namespace {

TEST(ParamsCommand, JsonDumpReadsInPython) {
  ORLIN_REQUIRE_TOOL("python3");
  std::ostringstream out;
  ASSERT_EQ(RunParams(true, out), kExitOk);
  test::ScratchDir scratch;
  std::ofstream(scratch.File("params.json")) << out.str();
  const std::string script =
      "import json, sys\n"
      "d = json.load(open(sys.argv[1]))\n"
      "assert len(d) == 263\n"
      "assert [r['id'] for r in d] == list(range(263))\n"
      "assert d[226]['name'] == 'Region is \"phase master\"'\n"
      "assert d[0]['note'] is None\n"
      "assert d[24]['unit'] == 'Hz' and d[24]['default'] == 8000\n"
      "assert all(len(r['fxViews']) == 9 for r in d[231:])\n"
      "assert d[260]['fxViews'][7]['name'] == 'Feedback'\n"
      "assert d[260]['fxViews'][7]['control'] == 3073\n";
  std::ofstream(scratch.File("check.py")) << script;
  const std::string command = "python3 '" + scratch.File("check.py") + "' '" + scratch.File("params.json") + "'";
  EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST(ParamsCommand, ItemsAreSelectedAndDescribed) {
  Collection collection;
  auto* wave = new Waveform(&collection);
  wave->SetName("Kick");
  wave->length = 10;
  auto* instrument = new Instrument(&collection);
  instrument->SetName("Drums");
  Region* region = instrument->AddRegion(wave->id, PackRange(36, 36), kFullRange, -1);
  region->SetParam(24, 1200.0f);

  EXPECT_EQ(SelectItems(collection, "Kick").size(), 1u);
  ASSERT_EQ(SelectItems(collection, "region:0").size(), 1u);
  EXPECT_EQ(SelectItems(collection, "region:0")[0], region);
  char id[16];
  std::snprintf(id, sizeof id, "0x%08X", instrument->id);
  EXPECT_EQ(SelectItems(collection, id)[0], instrument);
  EXPECT_TRUE(SelectItems(collection, "region:5").empty());

  const std::vector<std::string> lines = DescribeParams(*region);
  auto has = [&](const std::string& text) {
    for (const std::string& line : lines)
      if (line == text) return true;
    return false;
  };
  EXPECT_TRUE(has(" 24 * Filter Cutoff frequency: 1200.0 Hz"));
  EXPECT_TRUE(has(" 51   Pan position: 0.0 %"));
  EXPECT_TRUE(has("190 * Trigger lo-key: C2")) << ::testing::PrintToString(lines);
  // A waveform offers its own rows and the loop rows, not articulation.
  for (const std::string& line : DescribeParams(*wave)) EXPECT_EQ(line.find("Filter"), std::string::npos);
}

TEST(SettingsCommand, SetGetAndList) {
  test::ScratchDir scratch;
  const char* old = std::getenv("ORLIN_CONFIG_DIR");
  const std::string saved = old ? old : "";
  setenv("ORLIN_CONFIG_DIR", scratch.Path().c_str(), 1);
  const Settings before = GetSettings();
  std::ostringstream out, err;
  EXPECT_EQ(RunSettings({"set", "load.bAutoSplitStereo", "1"}, out, err), kExitOk);
  EXPECT_EQ(RunSettings({"set", "no.such", "1"}, out, err), kExitUsage);
  std::ostringstream value;
  EXPECT_EQ(RunSettings({"get", "load.bAutoSplitStereo"}, value, err), kExitOk);
  EXPECT_EQ(value.str(), "1\n");
  std::ostringstream list;
  EXPECT_EQ(RunSettings({}, list, err), kExitOk);
  EXPECT_NE(list.str().find("app.iPaneSplitL = 221"), std::string::npos);
  GetSettings() = before;
  if (old) setenv("ORLIN_CONFIG_DIR", saved.c_str(), 1);
  else unsetenv("ORLIN_CONFIG_DIR");
}

}  // namespace
}  // namespace orlin::cli
