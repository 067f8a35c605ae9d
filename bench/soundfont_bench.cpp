// Opening a large SoundFont reads its tables only, samples stay in the file; the full load adds the
// fix-ups. Saving a bank again is set beside a plain copy of the same file in the same run (cp copies
// in the kernel, with copy_file_range). The bank is FluidR3_GM from Debian's fluid-soundfont-gm, or
// TimGM6mb where that is missing.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/format_table.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "formats/instrument/soundfont/soundfont.h"

namespace {

std::string BankPath() {
  for (const char* path : {"/usr/share/sounds/sf2/FluidR3_GM.sf2", "/usr/share/sounds/sf2/TimGM6mb.sf2"})
    if (std::filesystem::exists(path)) return path;
  return {};
}
double PeakMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_maxrss) / 1024.0;
}

void BM_ReadSoundFontTables(benchmark::State& state) {
  const std::string path = BankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  for (auto _ : state) {
    orlin::Collection collection;
    orlin::FileObject file;
    file.Open(path, orlin::FileMode::Read);
    benchmark::DoNotOptimize(orlin::ReadSoundFont(&collection, &file, 0));
  }
  state.counters["peak_MiB"] = PeakMiB();
}
BENCHMARK(BM_ReadSoundFontTables)->Unit(benchmark::kMillisecond);

void BM_LoadSoundFont(benchmark::State& state) {
  const std::string path = BankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  for (auto _ : state) {
    orlin::Collection collection;
    benchmark::DoNotOptimize(orlin::LoadFile(collection, path, false));
  }
  state.counters["peak_MiB"] = PeakMiB();
}
BENCHMARK(BM_LoadSoundFont)->Unit(benchmark::kMillisecond)->Iterations(1);

// Saving a bank that is open and whose samples are in memory, as after editing it.
void BM_SaveSoundFont(benchmark::State& state) {
  const std::string path = BankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  orlin::Collection collection;
  orlin::LoadFile(collection, path, false);
  collection.Preload();
  const int32_t row = orlin::FindWriteRow("sf2", orlin::kMaskCollection);
  const std::string out = "/tmp/orlin_soundfont_bench.sf2";
  for (auto _ : state)
    if (!orlin::SaveItem(&collection, row, out, orlin::DefaultSaveOptions(row))) return state.SkipWithError("save failed");
  std::filesystem::remove(out);
}
BENCHMARK(BM_SaveSoundFont)->Unit(benchmark::kMillisecond);

// Opening and saving, as a conversion does: the save decodes every sample first.
void BM_OpenAndSaveSoundFont(benchmark::State& state) {
  const std::string path = BankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  const int32_t row = orlin::FindWriteRow("sf2", orlin::kMaskCollection);
  const std::string out = "/tmp/orlin_soundfont_bench.sf2";
  for (auto _ : state) {
    orlin::Collection collection;
    orlin::LoadFile(collection, path, false);
    if (!orlin::SaveItem(&collection, row, out, orlin::DefaultSaveOptions(row))) return state.SkipWithError("save failed");
  }
  std::filesystem::remove(out);
}
BENCHMARK(BM_OpenAndSaveSoundFont)->Unit(benchmark::kMillisecond);

// Opening the bank in a process of its own, `orlin info` against libgig's sf2dump in the same run:
// wall time, the child's CPU time and its peak memory, both reading the whole bank's tables and
// printing them. The peak comes from /usr/bin/time, which starts the program from a small process of
// its own: a child of this one would count the benchmark's memory too (Linux keeps the high-water
// mark across exec).
void RunProcess(benchmark::State& state, const std::vector<std::string>& command) {
  const std::string peakFile = "/tmp/orlin_soundfont_bench_peak.txt";
  std::vector<std::string> args = {"/usr/bin/time", "-f", "%M", "-o", peakFile};
  args.insert(args.end(), command.begin(), command.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  double peakMiB = 0.0, cpuSeconds = 0.0;
  int runs = 0;
  for (auto _ : state) {
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
      state.SkipWithError("cannot start the program");
      break;
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    cpuSeconds += double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                  double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    ++runs;
    std::string peak;
    if (orlin::ReadWholeFile(peakFile, peak)) peakMiB = std::max(peakMiB, std::atof(peak.c_str()) / 1024.0);
  }
  posix_spawn_file_actions_destroy(&actions);
  std::filesystem::remove(peakFile);
  state.counters["peak_MiB"] = peakMiB;
  state.counters["cpu_ms"] = runs ? cpuSeconds * 1000.0 / runs : 0.0;
}

void BM_OrlinInfoProcess(benchmark::State& state) {
  const std::string path = BankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  // The benchmarks live in <build>/benchmarks, the command line program in <build>.
  const std::filesystem::path cli = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "orlin";
  if (!std::filesystem::exists(cli)) return state.SkipWithError("orlin not built beside the benchmarks");
  if (!std::filesystem::exists("/usr/bin/time")) return state.SkipWithError("/usr/bin/time is not installed");
  RunProcess(state, {cli.string(), "info", path});
}
BENCHMARK(BM_OrlinInfoProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Sf2dumpProcess(benchmark::State& state) {
  const std::string path = BankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  if (!std::filesystem::exists("/usr/bin/sf2dump")) return state.SkipWithError("gigtools' sf2dump is not installed");
  if (!std::filesystem::exists("/usr/bin/time")) return state.SkipWithError("/usr/bin/time is not installed");
  RunProcess(state, {"/usr/bin/sf2dump", path});
}
BENCHMARK(BM_Sf2dumpProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CopySoundFont(benchmark::State& state) {
  const std::string path = BankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  const std::string out = "/tmp/orlin_soundfont_bench_copy.sf2";
  for (auto _ : state)
    std::filesystem::copy_file(path, out, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::remove(out);
}
BENCHMARK(BM_CopySoundFont)->Unit(benchmark::kMillisecond);

}  // namespace
