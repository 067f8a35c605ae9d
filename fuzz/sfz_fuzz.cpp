// SFZ text of any bytes: the pre-processor and tokenizer on memory, then the whole reader on a file
// beside a real wave, so that regions, paths and conversions run. Nothing may crash or hang, and a
// text the reader accepts must be detected.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/format_table.h"
#include "core/user_interface.h"
#include "formats/audio/wav.h"
#include "formats/instrument/sfz/sfz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  const std::string text(reinterpret_cast<const char*>(data), size);
  static const std::string folder = [] {
    char pattern[] = "/tmp/orlin-sfz-fuzz-XXXXXX";
    std::string made = mkdtemp(pattern);
    // A small wave that fuzzed regions can name as "a.wav".
    Collection collection;
    auto* wave = new Waveform(&collection);
    wave->length = 64;
    float* samples = wave->GetSamplesForWrite();
    for (int i = 0; i < 64; ++i) samples[i] = float(i % 8) / 8.0f;
    std::vector<uint8_t> bytes;
    WriteWaveToMemory(*wave, bytes, WaveWriteParams{});
    if (FILE* file = std::fopen((made + "/a.wav").c_str(), "wb")) {
      std::fwrite(bytes.data(), 1, bytes.size(), file);
      std::fclose(file);
    }
    return made;
  }();
  std::vector<SfzLogEntry> log;
  TokenizeSfz(PreprocessSfz(text, folder, &log));
  int key = 0;
  ParseSfzKey(text.substr(0, 8), key);

  const std::string path = folder + "/input.sfz";
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return 0;
  std::fwrite(data, 1, size, file);
  std::fclose(file);
  Collection collection;
  if (ReadSfzFile(&collection, path, &log)) {
    if (DetectSfz(data, 0, uint32_t(std::min<size_t>(size, kDetectHeadBytes)), size) <= 0) __builtin_trap();
  }
  return 0;
}
