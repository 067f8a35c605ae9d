// `orlin states`: the data folder's state files listed, shown and written out, checked by sox.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "cli/commands.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/state_file.h"
#include "test_support.h"

namespace orlin {
namespace {

int RunStates(std::vector<const char*> args, std::string& out, std::string& err) {
  args.insert(args.begin(), {"orlin", "states"});
  std::ostringstream outStream, errStream;
  const int status = cli::RunCli(int(args.size()), args.data(), outStream, errStream);
  out = outStream.str();
  err = errStream.str();
  return status;
}

TEST(StatesCommand, ListShowAndRestoreAWaveThatSoxReads) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("soxi");
  test::ScratchDir scratch;
  setenv("ORLIN_DATA_DIR", scratch.File("data").c_str(), 1);
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, (test::TestDataDir() / "audio/generated/dtmf8k/master_f32.wav").string(), false))
      << LastError();
  ASSERT_TRUE(SaveStateFile(collection, "Saved state 10:11.12"));
  ASSERT_TRUE(SaveLastSession(collection));

  std::string out, err;
  ASSERT_EQ(RunStates({"list"}, out, err), 0) << err;
  EXPECT_NE(out.find("Saved state 10_11_12"), std::string::npos) << out;
  EXPECT_NE(out.find("Last session"), std::string::npos);
  ASSERT_EQ(RunStates({"show", "Saved state 10:11.12"}, out, err), 0) << err;
  EXPECT_NE(out.find("master_f32"), std::string::npos) << out;
  EXPECT_EQ(RunStates({"show", "no such state"}, out, err), 1);

  const std::string wav = scratch.File("restored.wav");
  ASSERT_EQ(RunStates({"restore", "Last session", "-o", wav.c_str()}, out, err), 0) << err;
  std::string frames;
  ASSERT_EQ(test::RunCommand("soxi -s '" + wav + "'", &frames), 0);
  EXPECT_EQ(std::stoul(frames), 4000u);
  // An existing file is left alone.
  EXPECT_EQ(RunStates({"restore", "Last session", "-o", wav.c_str()}, out, err), 1);
  EXPECT_NE(err.find("not overwritten"), std::string::npos);
  EXPECT_EQ(RunStates({"restore", "Last session"}, out, err), 2);
  unsetenv("ORLIN_DATA_DIR");
}

}  // namespace
}  // namespace orlin
