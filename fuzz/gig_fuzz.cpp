// Any bytes through the GigaStudio reader: never a crash or a hang, every file it takes is one the
// detector scores, and its waves (packed frames included) decode. The input is also read as the
// packed frames of a mono and a stereo wave at both depths.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "formats/instrument/gig/gig.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string dir = [] {
    char pattern[] = "/tmp/orlin-gig-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  for (uint32_t channels : {1u, 2u})
    for (uint32_t bits : {16u, 24u}) {
      std::vector<float> out(size_t(std::min<uint32_t>(CountGigFrames(data, size, channels, bits), 1u << 16)) * channels + 1);
      DecodeGigFrames(data, size, channels, bits, 4, out.data(), uint32_t(out.size() / channels));
    }
  const std::string path = dir + "/input.gig";
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  Collection collection;
  collection.SetText(kTextSourceFile, path);
  FileObject file;
  if (!file.Open(path, FileMode::Read)) return 0;
  const bool read = ReadGig(&collection, &file, 0);
  if (read && DetectGig(data, 0, uint32_t(std::min<size_t>(size, 32768)), size) == 0) std::abort();
  for (Waveform* wave : collection.All<Waveform>()) wave->Preload();
  return 0;
}
