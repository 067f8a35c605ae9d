// Decode throughput of each built-in codec, in frames per second, over one second of a coded test
// signal (a tone with noise, made by our own encoders or by a plain byte pattern for decode-only codecs).
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "formats/audio/codecs/codecs.h"

namespace {

using namespace orlin::codecs;

constexpr uint32_t kRate = 44100;

std::vector<float> TestSignal(uint32_t frames, uint32_t channels) {
  std::vector<float> signal(size_t(frames) * channels);
  uint32_t noise = 1;
  for (size_t i = 0; i < signal.size(); ++i) {
    noise = noise * 1664525u + 1013904223u;
    signal[i] = 0.5f * std::sin(float(i / channels) * 0.0627f) + float(noise >> 8) / float(1u << 24) * 0.1f - 0.05f;
  }
  return signal;
}

void RunDecode(benchmark::State& state, const std::vector<uint8_t>& bytes, const CodecParams& params,
               DecodeFunction decode, FrameCountFunction frames) {
  const uint64_t count = frames(bytes.size(), params);
  std::vector<float> out(count * params.channels);
  for (auto _ : state) {
    benchmark::DoNotOptimize(decode(bytes.data(), bytes.size(), params, out.data(), count));
    benchmark::ClobberMemory();
  }
  state.counters["frames/s"] = benchmark::Counter(double(count), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_ImaWave(benchmark::State& state) {
  CodecParams params;
  params.channels = 2;
  params.blockAlign = 2048;
  const auto bytes = EncodeImaWave(TestSignal(kRate, 2).data(), kRate, 2, params.blockAlign);
  RunDecode(state, bytes, params, DecodeImaWave, ImaWaveFrames);
}

void BM_MsAdpcm(benchmark::State& state) {
  CodecParams params;
  params.channels = 2;
  params.blockAlign = 2048;
  // Decode-only codec: any bytes make a valid stream.
  std::vector<uint8_t> bytes(kRate);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 37 % 251);
  RunDecode(state, bytes, params, DecodeMsAdpcm, MsAdpcmFrames);
}

void BM_Dialogic(benchmark::State& state) {
  std::vector<uint8_t> bytes(kRate / 2);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 37 % 251);
  RunDecode(state, bytes, {}, DecodeDialogic, DialogicFrames);
}

void BM_Yamaha(benchmark::State& state) {
  const auto bytes = EncodeYamaha(TestSignal(kRate, 1).data(), kRate, 1);
  RunDecode(state, bytes, {}, DecodeYamaha, YamahaFrames);
}

void BM_G726(benchmark::State& state) {
  CodecParams params;
  params.bitsPerSample = uint32_t(state.range(0));
  const auto bytes = EncodeG726(TestSignal(kRate, 1).data(), kRate, params.bitsPerSample);
  RunDecode(state, bytes, params, DecodeG726, G726Frames);
}

void BM_G722(benchmark::State& state) {
  const auto bytes = EncodeG722(TestSignal(kRate, 1).data(), kRate);
  RunDecode(state, bytes, {}, DecodeG722, G722Frames);
}

void BM_GsmWave(benchmark::State& state) {
  const auto bytes = EncodeGsm(TestSignal(kRate, 1).data(), kRate, GsmFraming::Wave65);
  RunDecode(state, bytes, {}, DecodeGsmWave, GsmWaveFrames);
}

void BM_GsmEncode(benchmark::State& state) {
  const auto signal = TestSignal(kRate, 1);
  for (auto _ : state) benchmark::DoNotOptimize(EncodeGsm(signal.data(), kRate, GsmFraming::Raw33));
  state.counters["frames/s"] = benchmark::Counter(double(kRate), benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

BENCHMARK(BM_ImaWave);
BENCHMARK(BM_MsAdpcm);
BENCHMARK(BM_Dialogic);
BENCHMARK(BM_Yamaha);
BENCHMARK(BM_G726)->DenseRange(2, 5);
BENCHMARK(BM_G722);
BENCHMARK(BM_GsmWave);
BENCHMARK(BM_GsmEncode);
