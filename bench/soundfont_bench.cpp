// Opening a large SoundFont reads its tables only, samples stay in the file; the full load adds the
// fix-ups. Saving a bank again is set beside a plain copy of the same file in the same run (cp copies
// in the kernel, with copy_file_range). The bank is FluidR3_GM from Debian's fluid-soundfont-gm, or
// TimGM6mb where that is missing.
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
