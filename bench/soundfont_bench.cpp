// Opening a large SoundFont reads its tables only, samples stay in the file; the full load adds the
// fix-ups. Saving a bank again is set beside a plain copy of the same file in the same run. The
// bank is FluidR3_GM from Debian's fluid-soundfont-gm, or TimGM6mb where that is missing.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <filesystem>
#include <string>

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
// A bank small enough for the format's 65535-record limit once every preset has its own instrument.
std::string SaveBankPath() {
  for (const char* path : {"/usr/share/sounds/sf2/TimGM6mb.sf2", "/work/shared/testdata/soundfont/TimGM6mb.sf2"})
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

void BM_SaveSoundFont(benchmark::State& state) {
  const std::string path = SaveBankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  orlin::Collection collection;
  orlin::LoadFile(collection, path, false);
  const int32_t row = orlin::FindWriteRow("sf2", orlin::kMaskCollection);
  const std::string out = "/tmp/orlin_soundfont_bench.sf2";
  for (auto _ : state) benchmark::DoNotOptimize(orlin::SaveItem(&collection, row, out, orlin::DefaultSaveOptions(row)));
  std::filesystem::remove(out);
}
BENCHMARK(BM_SaveSoundFont)->Unit(benchmark::kMillisecond);

void BM_CopySoundFont(benchmark::State& state) {
  const std::string path = SaveBankPath();
  if (path.empty()) return state.SkipWithError("no bank installed");
  const std::string out = "/tmp/orlin_soundfont_bench_copy.sf2";
  for (auto _ : state)
    std::filesystem::copy_file(path, out, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::remove(out);
}
BENCHMARK(BM_CopySoundFont)->Unit(benchmark::kMillisecond);

}  // namespace
