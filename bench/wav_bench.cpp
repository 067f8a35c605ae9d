// Opening a wave parses chunks only, so a 1 GiB file opens as fast as a 1 MiB one; and the cost of
// turning 16-bit PCM into floats next to a plain copy of the same bytes.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/pcm.h"
#include "formats/audio/wav.h"

namespace {

// A sparse wave file of `dataBytes` 16-bit stereo samples: a real head, a hole for the samples.
std::string MakeSparseWave(uint64_t dataBytes) {
  const std::string path = "/tmp/orlin_wav_bench_" + std::to_string(dataBytes) + ".wav";
  std::vector<uint8_t> head(44);
  auto put32 = [&](size_t at, uint32_t v) { for (int k = 0; k < 4; ++k) head[at + k] = uint8_t(v >> (8 * k)); };
  std::memcpy(&head[0], "RIFF", 4);
  put32(4, uint32_t(36 + dataBytes));
  std::memcpy(&head[8], "WAVEfmt ", 8);
  put32(16, 16);
  put32(20, 1 | 2 << 16);  // PCM, stereo
  put32(24, 44100);
  put32(28, 44100 * 4);
  put32(32, 4 | 16 << 16);  // block align 4, 16 bits
  std::memcpy(&head[36], "data", 4);
  put32(40, uint32_t(dataBytes));
  const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  if (fd < 0) return path;
  (void)!write(fd, head.data(), head.size());
  (void)!ftruncate(fd, off_t(44 + dataBytes));
  close(fd);
  return path;
}

void BM_OpenWave(benchmark::State& state) {
  const std::string path = MakeSparseWave(uint64_t(state.range(0)));
  for (auto _ : state) {
    orlin::Collection collection;
    orlin::FileObject file;
    file.Open(path, orlin::FileMode::Read);
    benchmark::DoNotOptimize(orlin::ReadWav(&collection, &file, 0));
  }
  unlink(path.c_str());
}
BENCHMARK(BM_OpenWave)->Arg(1 << 20)->Arg(1 << 30);

void BM_DecodePcm16(benchmark::State& state) {
  std::vector<uint8_t> bytes(1 << 22);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = uint8_t(i * 37);
  std::vector<float> out(bytes.size() / 2);
  for (auto _ : state) {
    orlin::DecodeSampleBlock(orlin::kStoragePcm16, 0, bytes.data(), out.size(), out.data());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}
BENCHMARK(BM_DecodePcm16);

void BM_CopySameBytes(benchmark::State& state) {
  std::vector<uint8_t> bytes(1 << 22, 1), copy(1 << 22);
  for (auto _ : state) {
    std::memcpy(copy.data(), bytes.data(), bytes.size());
    benchmark::DoNotOptimize(copy.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}
BENCHMARK(BM_CopySameBytes);

}  // namespace
