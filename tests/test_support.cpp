#include "test_support.h"

#include "core/pipeline.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>

namespace orlin::test {

std::filesystem::path TestDataDir() {
  std::vector<std::filesystem::path> candidates;
  if (const char* fromEnvironment = std::getenv("ORLIN_TESTDATA")) candidates.emplace_back(fromEnvironment);
  candidates.emplace_back(std::filesystem::path(ORLIN_SOURCE_DIR) / ".." / "shared" / "testdata");
  for (const auto& candidate : candidates) {
    std::error_code error;
    if (std::filesystem::is_regular_file(candidate / "MANIFEST.md", error))
      return std::filesystem::canonical(candidate, error);
  }
  return {};
}

bool HaveTool(const std::string& name) { return RunCommand("command -v " + name + " >/dev/null 2>&1") == 0; }

ScratchDir::ScratchDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "orlin-test-XXXXXX").string();
  path_ = mkdtemp(pattern.data());
}

ScratchDir::~ScratchDir() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

int RunCommand(const std::string& command, std::string* output) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  std::array<char, 4096> buffer;
  size_t n;
  if (output) output->clear();
  while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
    if (output) output->append(buffer.data(), n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::filesystem::path SourceDir() { return ORLIN_SOURCE_DIR; }

Waveform* LoadFirstWave(Collection& collection, const std::string& path) {
  if (!LoadFile(collection, path, false)) return nullptr;
  for (Waveform* wave : collection.All<Waveform>()) return wave;
  return nullptr;
}

std::string OrlinProgram() { return (std::filesystem::path(ORLIN_BINARY_DIR) / "orlin").string(); }

uint64_t SeededRandom::Next() {
  // xorshift64*
  state_ ^= state_ >> 12;
  state_ ^= state_ << 25;
  state_ ^= state_ >> 27;
  return state_ * 2685821657736338717ull;
}

float SeededRandom::Uniform(float lo, float hi) { return lo + (hi - lo) * float(Next() >> 40) / float(1 << 24); }

int ScriptedUserInterface::Ask(std::string_view, std::string_view question, const std::vector<std::string>&) {
  questions.emplace_back(question);
  if (answers.empty()) return defaultAnswer;
  const int answer = answers.front();
  answers.erase(answers.begin());
  return answer;
}

bool ScriptedUserInterface::LocateFile(std::string_view, std::string_view, std::string& pathOut) {
  if (locateAnswers.empty()) return false;
  pathOut = locateAnswers.front();
  locateAnswers.erase(locateAnswers.begin());
  return !pathOut.empty();
}

}  // namespace orlin::test
