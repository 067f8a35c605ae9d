// The memory-bound wave loops over a 10-minute stereo wave at 44.1 kHz (212 MB of floats), next to
// sox doing the same work on the same samples in the same run. Bytes are the float data of the
// wave, once per iteration, whatever the number of passes. Times are CPU time on one core (ours:
// the benchmark's own; sox: its process's user and system time), so that a busy machine does not
// blur the ratio.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/collection.h"
#include "processing/resample.h"
#include "processing/wave_ops.h"

namespace {

constexpr uint32_t kRate = 44100;
constexpr uint32_t kFrames = kRate * 600;
constexpr int64_t kBytes = int64_t(kFrames) * 2 * 4;

// One shared stereo block of noise at half level, made once.
orlin::WaveData* Source() {
  static orlin::WaveData* data = [] {
    orlin::WaveData* block = orlin::WaveData::Create(kFrames, 2, float(kRate), false);
    uint64_t state = 0x9E3779B97F4A7C15ull;
    for (size_t i = 0; i < size_t(kFrames) * 2; ++i) {
      state ^= state << 13, state ^= state >> 7, state ^= state << 17;
      block->samples[i] = float(int32_t(state >> 32)) * (0.5f / 2147483648.0f);
    }
    return block;
  }();
  return data;
}

// The same samples as a raw float file for sox, written once.
const std::string& SourceFile() {
  static const std::string path = [] {
    const std::string file = "/tmp/orlin_processing_bench_" + std::to_string(getpid()) + ".f32";
    if (FILE* out = std::fopen(file.c_str(), "wb")) {
      std::fwrite(Source()->samples, 4, size_t(kFrames) * 2, out);
      std::fclose(out);
    }
    std::atexit([] { std::remove(SourceFile().c_str()); });
    return file;
  }();
  return path;
}

void MakePrivateCopy(orlin::Waveform& wave) {
  orlin::WaveData* copy = orlin::WaveData::Create(kFrames, 2, float(kRate), false);
  std::copy_n(Source()->samples, size_t(kFrames) * 2, copy->samples);
  orlin::ReplaceWaveData(wave, copy);
}

void BM_Maximize(benchmark::State& state) {
  orlin::Collection collection;
  orlin::Waveform wave(&collection);
  MakePrivateCopy(wave);
  bool up = true;
  for (auto _ : state) {
    // Every other run brings the level down again, so that each run has work to do.
    state.PauseTiming();
    if (!up) orlin::ApplyGainDb(wave, -6.0);
    up = !up;
    state.ResumeTiming();
    benchmark::DoNotOptimize(orlin::Maximize(wave, orlin::kMaximizeKeepZero));
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kBytes);
}
BENCHMARK(BM_Maximize)->Unit(benchmark::kMillisecond);

void BM_ApplyGainDb(benchmark::State& state) {
  orlin::Collection collection;
  orlin::Waveform wave(&collection);
  MakePrivateCopy(wave);
  double db = -0.5;
  for (auto _ : state) {
    benchmark::DoNotOptimize(orlin::ApplyGainDb(wave, db));
    db = -db;
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kBytes);
}
BENCHMARK(BM_ApplyGainDb)->Unit(benchmark::kMillisecond);

void BM_ToMono(benchmark::State& state) {
  orlin::Collection collection;
  for (auto _ : state) {
    orlin::Waveform wave(&collection);
    wave.AdoptData(Source());  // shared: the conversion builds a new block and leaves it alone
    benchmark::DoNotOptimize(orlin::ToMono(wave, orlin::kMonoAverage));
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kBytes);
}
BENCHMARK(BM_ToMono)->Unit(benchmark::kMillisecond);

// 44.1 to 48 kHz by one mode (the argument); grade 16 is mode 5, to be set against BM_SoxRate.
void BM_Resample(benchmark::State& state) {
  const int mode = int(state.range(0));
  for (auto _ : state) {
    orlin::WaveData* out = orlin::ResampleBlock(*Source(), 48000.0 / kRate, uint32_t(uint64_t(kFrames) * 48000 / kRate),
                                                48000.0f, mode, 16);
    if (!out) state.SkipWithError("out of memory");
    else out->Release();
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kBytes);
}
BENCHMARK(BM_Resample)->Unit(benchmark::kMillisecond)->Iterations(1)->DenseRange(orlin::kResampleCubic, orlin::kResampleFir24);

// sox on the same samples, reading the file from the page cache and writing nowhere.
double ChildCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

void RunSox(benchmark::State& state, const std::string& effects, uint32_t outRate = kRate) {
  const std::string format = " -t f32 -c 2 -r 44100 ";
  const std::string outFormat = " -t f32 -c 2 -r " + std::to_string(outRate) + " ";
  const std::string command = "sox -D -V1" + format + SourceFile() + outFormat + "/dev/null " + effects;
  if (std::system(command.c_str()) != 0) state.SkipWithError("sox failed");
  for (auto _ : state) {
    const double before = ChildCpuSeconds();
    if (std::system(command.c_str()) != 0) state.SkipWithError("sox failed");
    state.SetIterationTime(ChildCpuSeconds() - before);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * kBytes);
}
void BM_SoxNorm(benchmark::State& state) { RunSox(state, "norm"); }
void BM_SoxVol(benchmark::State& state) { RunSox(state, "vol -0.5dB"); }
void BM_SoxRemixMono(benchmark::State& state) { RunSox(state, "remix 1v0.5,2v0.5"); }
// libsoxr at its high quality, the grade the FIR 16 is held against.
void BM_SoxRate(benchmark::State& state) { RunSox(state, "rate -h 48000", 48000); }
BENCHMARK(BM_SoxRate)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);
BENCHMARK(BM_SoxNorm)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
BENCHMARK(BM_SoxVol)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);
BENCHMARK(BM_SoxRemixMono)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(2);

}  // namespace
