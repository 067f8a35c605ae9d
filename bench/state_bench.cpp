// State files of a large bank: FluidR3_GM (Debian's fluid-soundfont-gm) with every sample decoded,
// so that the state carries all sample memory. Bytes per second are those of the state file. The
// write includes the flush to disk; the plain write of the same bytes with the same flush is measured
// beside it as the floor of what the disk allows.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "core/collection.h"
#include "core/pipeline.h"
#include "core/state_file.h"

namespace {

std::string BankPath() {
  for (const char* path : {"/usr/share/sounds/sf2/FluidR3_GM.sf2", "/usr/share/sounds/sf2/TimGM6mb.sf2"})
    if (std::filesystem::exists(path)) return path;
  return {};
}

// One decoded bank for all benchmarks, and a data folder of its own.
orlin::Collection* Bank() {
  static std::unique_ptr<orlin::Collection> bank = [] {
    const std::string folder = (std::filesystem::temp_directory_path() / "orlin-state-bench").string();
    setenv("ORLIN_DATA_DIR", folder.c_str(), 1);
    auto collection = std::make_unique<orlin::Collection>();
    const std::string path = BankPath();
    if (path.empty() || !orlin::LoadFile(*collection, path, false)) return std::unique_ptr<orlin::Collection>();
    for (orlin::Waveform* wave : collection->All<orlin::Waveform>()) wave->GetSamplesForRead();
    return collection;
  }();
  return bank.get();
}

void BM_SerializeState(benchmark::State& state) {
  orlin::Collection* bank = Bank();
  if (!bank) return state.SkipWithError("no bank installed");
  std::vector<uint8_t> bytes;
  for (auto _ : state) benchmark::DoNotOptimize(orlin::SerializeState(*bank, bytes));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
  state.counters["state_MB"] = double(bytes.size()) / 1e6;
}

void BM_SaveStateFile(benchmark::State& state) {
  orlin::Collection* bank = Bank();
  if (!bank) return state.SkipWithError("no bank installed");
  for (auto _ : state) benchmark::DoNotOptimize(orlin::SaveStateFile(*bank, "bench"));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(std::filesystem::file_size(orlin::StateFilePath("bench"))));
}

// The same number of bytes written and flushed by plain calls: what the disk allows.
void BM_PlainWriteSameSize(benchmark::State& state) {
  orlin::Collection* bank = Bank();
  if (!bank) return state.SkipWithError("no bank installed");
  std::vector<uint8_t> bytes;
  orlin::SerializeState(*bank, bytes);
  const std::string path = orlin::StateFilePath("plain");
  for (auto _ : state) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t written = ::write(descriptor, bytes.data() + done, bytes.size() - done);
      if (written <= 0) break;
      done += size_t(written);
    }
    ::fsync(descriptor);
    ::close(descriptor);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
  std::filesystem::remove(path);
}

void BM_LoadStateFile(benchmark::State& state) {
  orlin::Collection* bank = Bank();
  if (!bank || !orlin::SaveStateFile(*bank, "bench")) return state.SkipWithError("no bank installed");
  for (auto _ : state) {
    orlin::Collection loaded;
    benchmark::DoNotOptimize(orlin::LoadStateFile(loaded, "bench"));
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(std::filesystem::file_size(orlin::StateFilePath("bench"))));
}

BENCHMARK(BM_SerializeState)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_SaveStateFile)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_PlainWriteSameSize)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
BENCHMARK(BM_LoadStateFile)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

}  // namespace
