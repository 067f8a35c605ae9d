// Any bytes through the add-on readers: the first byte picks the format, the rest is the file.
// Detection, opening and decoding must neither crash nor hang on damaged or hostile streams.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "core/collection.h"
#include "core/pipeline.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const char* const kExtensions[] = {"flac", "ogg", "opus", "mp3", "mp2", "mpa", "aac",
                                            "wv",   "ape", "m4a", "mka", "caf", "wma", "amr"};
  constexpr size_t kCount = sizeof kExtensions / sizeof kExtensions[0];
  if (size < 1) return 0;
  const std::string extension = kExtensions[data[0] % kCount];
  static const std::string folder = [] {
    char pattern[] = "/tmp/orlin-addons-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  const std::string path = folder + "/input." + extension;
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return 0;
  std::fwrite(data + 1, 1, size - 1, file);
  std::fclose(file);
  Collection collection;
  if (LoadFile(collection, path, false))
    for (Waveform* wave : collection.All<Waveform>())
      // A forged header may claim hours of audio; only modest lengths are decoded.
      if (uint64_t(wave->length) * wave->channels < (1u << 24)) wave->Preload();
  return 0;
}
