// Any bytes through the AIFF/AIFC/MAUD and 8SVX/16SV readers and their decoders: never a crash or a
// hang, and a file a reader takes is one its detector scores.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/collection.h"
#include "core/file_object.h"
#include "formats/audio/iff.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string path = [] {
    char pattern[] = "/tmp/orlin-iff-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern)) + "/input";
  }();
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  const uint32_t head = uint32_t(std::min<size_t>(size, 32768));
  for (int family = 0; family < 2; ++family) {
    Collection collection;
    FileObject file;
    if (!file.Open(path, FileMode::Read)) return 0;
    const bool read = family == 0 ? ReadAiff(&collection, &file, 0) : ReadSvx(&collection, &file, 0);
    const int32_t score = family == 0 ? DetectAiff(data, 0, head, size) + DetectAifc(data, 0, head, size) +
                                            DetectMaud(data, 0, head, size)
                                      : DetectSvx(data, 0, head, size);
    if (read && score == 0) std::abort();
    for (Waveform* wave : collection.All<Waveform>()) {
      wave->SetText(kTextSourceFile, path);
      wave->Preload();
    }
  }
  return 0;
}
