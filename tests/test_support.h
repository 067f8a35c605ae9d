// What every test needs: the outside corpus, scratch folders, a scripted user interface, and
// helpers to run outside tools.
#pragma once
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/user_interface.h"

namespace orlin::test {

// The folder of the outside test corpus (../shared/testdata), or "" when it is absent.
std::filesystem::path TestDataDir();
// Skips the calling test with a clear message when the corpus is absent.
#define ORLIN_REQUIRE_TESTDATA()                                                           \
  do {                                                                                     \
    if (::orlin::test::TestDataDir().empty()) GTEST_SKIP() << "outside test corpus absent"; \
  } while (0)
// Skips when an outside tool is not on the PATH.
bool HaveTool(const std::string& name);
#define ORLIN_REQUIRE_TOOL(name) \
  do {                           \
    if (!::orlin::test::HaveTool(name)) GTEST_SKIP() << name << " is not installed"; \
  } while (0)

// A fresh folder removed at the end of the test.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  const std::filesystem::path& Path() const { return path_; }
  std::string File(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> ReadBytes(const std::string& path);
// Runs a shell command; returns its exit status and stores standard output (replacing what
// `output` held).
int RunCommand(const std::string& command, std::string* output = nullptr);
// The path of the built `orlin` program.
std::string OrlinProgram();
// The project's source folder (where README.md is).
std::filesystem::path SourceDir();
// Reads `path` into `collection` (cleared first) and gives its first wave; null when the load fails
// or holds no wave.
Waveform* LoadFirstWave(Collection& collection, const std::string& path);

// Deterministic noise for test signals.
class SeededRandom {
 public:
  explicit SeededRandom(uint64_t seed) : state_(seed ? seed : 1) {}
  uint64_t Next();
  float Uniform(float lo, float hi);

 private:
  uint64_t state_;
};

// Answers questions from a script and records everything it was asked.
class ScriptedUserInterface : public UserInterface {
 public:
  std::vector<int> answers;  // consumed in order; when empty, `defaultAnswer`
  int defaultAnswer = 0;
  std::vector<std::string> questions;
  std::vector<std::string> warnings;
  std::vector<std::string> statusLines;
  std::vector<std::string> openedExternally;
  std::vector<std::string> locateAnswers;  // consumed in order; empty string cancels

  int Ask(std::string_view title, std::string_view question, const std::vector<std::string>& buttons) override;
  void Warn(std::string_view title, std::string_view text) override { warnings.emplace_back(text); }
  bool LocateFile(std::string_view title, std::string_view name, std::string& pathOut) override;
  void SetStatus(std::string_view text, StatusMode) override { statusLines.emplace_back(text); }
  void ProgressTick(uint64_t, uint64_t) override {}
  bool CancelRequested() override { return false; }
  bool OpenExternally(const std::string& path) override {
    openedExternally.push_back(path);
    return true;
  }
};

// Installs a scripted interface for the scope of a test.
class ScopedUserInterface {
 public:
  explicit ScopedUserInterface(UserInterface& ui) { SetUserInterface(&ui); }
  ~ScopedUserInterface() { SetUserInterface(nullptr); }
};

}  // namespace orlin::test
