// Any bytes through the DLS reader (banks, MLS forms and RIFF-MIDI with an embedded bank): never a crash
// or a hang, every file it takes is one the detectors score, its waves decode, and what it reads can be
// written again at level 1 and level 2.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/user_interface.h"
#include "formats/instrument/dls/dls.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string dir = [] {
    char pattern[] = "/tmp/orlin-dls-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  const std::string path = dir + "/input.dls";
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  Collection collection;
  collection.SetText(kTextSourceFile, path);
  FileObject file;
  if (!file.Open(path, FileMode::Read)) return 0;
  const uint32_t head = uint32_t(std::min<size_t>(size, 32768));
  const bool rmi = DetectRmi(data, 0, head, size) > 0;
  const bool read = rmi ? ReadRmi(&collection, &file, 0) : ReadDls(&collection, &file, 0);
  if (read && DetectDls(data, 0, head, size) == 0 && !rmi) std::abort();
  for (Waveform* wave : collection.All<Waveform>()) wave->Preload();
  uint64_t frames = 0;
  for (Waveform* wave : collection.All<Waveform>()) frames += wave->length;
  if (read && frames < (1u << 18)) {  // rewriting big banks only costs time
    for (int level : {1, 2}) {
      std::vector<uint8_t> image;
      SaveOptions options;
      options.caps = 0x02100005;
      options.variant = uint32_t(level);
      BuildDlsImage(&collection, options, level, image);
    }
  }
  return 0;
}
