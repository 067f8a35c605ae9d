// Rendering a dense General MIDI song through the synthesizer to a file, with one and with two
// workers. The song is ORLIN_BENCH_EVENTS (lines of "seconds status data1 data2", as
// bench/synth_vs_fluidsynth.sh writes them from its MIDI file) or, without it, a generated one; the bank
// is ORLIN_BENCH_SF2, else FluidR3_GM, else TimGM6mb. Counters: real-time factor, and voices per
// second: how many voices one second of the render's CPU time keeps going at 44.1 kHz.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "core/pipeline.h"
#include "synth/synth_render.h"

namespace {

using orlin::synth::PackMessage;
using orlin::synth::TimedMessage;

std::string BankPath() {
  if (const char* path = std::getenv("ORLIN_BENCH_SF2")) return path;
  for (const char* path : {"/usr/share/sounds/sf2/FluidR3_GM.sf2", "/usr/share/sounds/sf2/TimGM6mb.sf2"})
    if (std::filesystem::exists(path)) return path;
  return {};
}

std::vector<TimedMessage> Song() {
  std::vector<TimedMessage> song;
  if (const char* path = std::getenv("ORLIN_BENCH_EVENTS")) {
    std::ifstream in(path);
    double seconds;
    int status, data1, data2;
    while (in >> seconds >> status >> data1 >> data2) song.push_back({seconds, PackMessage(status, data1, data2)});
    return song;
  }
  // 16 channels, 8000 notes over 70 seconds.
  std::mt19937 random(5);
  for (int c = 0; c < 16; ++c)
    if (c != 9) song.push_back({0.0, PackMessage(0xC0 | c, int(random() % 128), 0)});
  std::vector<TimedMessage> offs;
  for (int n = 0; n < 8000; ++n) {
    const double at = 70.0 * n / 8000;
    const int channel = int(random() % 16);
    const int key = channel == 9 ? 35 + int(random() % 47) : 36 + int(random() % 48);
    song.push_back({at, PackMessage(0x90 | channel, key, 40 + int(random() % 88))});
    offs.push_back({at + 0.1 + double(random() % 1000) / 1000.0, PackMessage(0x80 | channel, key, 0)});
  }
  song.insert(song.end(), offs.begin(), offs.end());
  std::stable_sort(song.begin(), song.end(), [](const TimedMessage& a, const TimedMessage& b) { return a.seconds < b.seconds; });
  return song;
}

double CpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + 1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

void BM_RenderDenseSong(benchmark::State& state) {
  static orlin::Collection bank;
  static bool loaded = !BankPath().empty() && orlin::LoadFile(bank, BankPath(), false);
  if (!loaded) return state.SkipWithError("no bank");
  static const std::vector<TimedMessage> song = Song();
  const int workers = int(state.range(0));
  constexpr int kRate = 44100, kPolyphony = 256;
  orlin::synth::SynthEngine engine(16, kPolyphony, -1.0f, kRate, workers);
  for (const orlin::Instrument* instrument : bank.All<orlin::Instrument>()) engine.LoadInstrument(*instrument);
  const std::string outPath = std::filesystem::temp_directory_path() / "orlin_synth_bench.f32";
  double audioSeconds = 0, voiceSeconds = 0, cpu = 0;
  for (auto _ : state) {
    std::FILE* out = std::fopen(outPath.c_str(), "wb");
    engine.Dispatch(PackMessage(0xB9, orlin::synth::kControllerDrumMap, 127));
    const double startCpu = CpuSeconds();
    const double end = song.back().seconds + 2.0;
    float block[2 * orlin::synth::kBlockFrames];
    size_t next = 0;
    uint64_t voiceBlocks = 0, blocks = 0;
    for (double t = 0; t < end; t += double(orlin::synth::kBlockFrames) / kRate) {
      const double blockEnd = t + double(orlin::synth::kBlockFrames) / kRate;
      while (next < song.size() && song[next].seconds < blockEnd) engine.Dispatch(song[next++].message);
      engine.RenderBlock(block);
      voiceBlocks += uint64_t(engine.VoiceCount());
      ++blocks;
      std::fwrite(block, sizeof block, 1, out);
    }
    std::fclose(out);
    cpu += CpuSeconds() - startCpu;
    audioSeconds += double(blocks * orlin::synth::kBlockFrames) / kRate;
    voiceSeconds += double(voiceBlocks * orlin::synth::kBlockFrames) / kRate;
    engine.Dispatch(PackMessage(0xB0, 120, 0));
  }
  std::filesystem::remove(outPath);
  state.counters["audio_seconds"] = audioSeconds / double(state.iterations());
  state.counters["realtime_factor"] = benchmark::Counter(audioSeconds, benchmark::Counter::kIsRate);
  state.counters["mean_voices"] = voiceSeconds / audioSeconds;
  state.counters["voices_per_cpu_second"] = voiceSeconds / cpu;
}
BENCHMARK(BM_RenderDenseSong)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

}  // namespace
