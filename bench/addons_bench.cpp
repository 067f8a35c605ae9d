// Decode speed of the codec add-ons against the ffmpeg program decoding the same file to raw
// floats in the same run. Each codec gets a 60-second stereo file made by ffmpeg from the sweep
// of the test corpus (ORLIN_TESTDATA or ../shared/testdata); the counter "vs_ffmpeg" is our time
// over ffmpeg's (below 1: faster).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "core/collection.h"
#include "core/pipeline.h"

namespace {

namespace fs = std::filesystem;

fs::path CorpusSweep() {
  const char* fromEnvironment = std::getenv("ORLIN_TESTDATA");
  for (const char* candidate : {fromEnvironment, static_cast<const char*>("../shared/testdata"),
                                static_cast<const char*>("../../shared/testdata")})
    if (candidate && fs::exists(fs::path(candidate) / "audio/generated/sweep/master_f32.wav"))
      return fs::path(candidate) / "audio/generated/sweep/master_f32.wav";
  return {};
}

// The long test file for a codec, made once per run; "" when ffmpeg or the corpus is missing.
std::string LongFile(const std::string& extension, const std::string& codecOptions) {
  static std::map<std::string, std::string> made;
  if (auto found = made.find(extension); found != made.end()) return found->second;
  static const fs::path folder = [] {
    char pattern[] = "/tmp/orlin-addons-bench-XXXXXX";
    return fs::path(mkdtemp(pattern));
  }();
  const fs::path sweep = CorpusSweep();
  std::string path = (folder / ("long." + extension)).string();
  const std::string command = "ffmpeg -nostdin -v error -y -stream_loop 119 -i '" + sweep.string() + "' " +
                              codecOptions + " '" + path + "'";
  if (sweep.empty() || std::system(command.c_str()) != 0) path.clear();
  made[extension] = path;
  return path;
}

double FfmpegSeconds(const std::string& path) {
  const auto start = std::chrono::steady_clock::now();
  const std::string command = "ffmpeg -nostdin -v error -threads 1 -i '" + path + "' -f f32le -y /dev/null";
  if (std::system(command.c_str()) != 0) return 0;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void DecodeAgainstFfmpeg(benchmark::State& state, const std::string& extension, const std::string& options) {
  const std::string path = LongFile(extension, options);
  if (path.empty()) {
    state.SkipWithError("ffmpeg or the test corpus is missing");
    return;
  }
  double ours = 0;
  uint64_t frames = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    orlin::Collection collection;
    if (!orlin::LoadFile(collection, path, false)) {
      state.SkipWithError("load failed");
      return;
    }
    for (orlin::Waveform* wave : collection.All<orlin::Waveform>()) {
      benchmark::DoNotOptimize(wave->GetSamplesForRead());
      frames += wave->length;
    }
    ours += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  const double theirs = FfmpegSeconds(path) * double(state.iterations());
  state.counters["vs_ffmpeg"] = theirs > 0 ? ours / theirs : 0;
  state.counters["frames/s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}

void BM_DecodeFlac(benchmark::State& state) { DecodeAgainstFfmpeg(state, "flac", "-c:a flac -sample_fmt s16"); }
void BM_DecodeVorbis(benchmark::State& state) { DecodeAgainstFfmpeg(state, "ogg", "-c:a libvorbis -q:a 4"); }
void BM_DecodeOpus(benchmark::State& state) { DecodeAgainstFfmpeg(state, "opus", "-c:a libopus -b:a 96k"); }
void BM_DecodeMp3(benchmark::State& state) { DecodeAgainstFfmpeg(state, "mp3", "-c:a libmp3lame -b:a 128k"); }

BENCHMARK(BM_DecodeFlac)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_DecodeVorbis)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_DecodeOpus)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_DecodeMp3)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
