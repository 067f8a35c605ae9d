// Any bytes through the SoundFont reader (all of its rows) and the sample decoders: never a crash or a
// hang, every bank it takes is one the detectors score, and what it reads can be written again. Each
// sfbk input is also tried as a packed (sfpk) bank, so that its smpl bytes reach the WavPack decoder.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/collection.h"
#include "core/file_object.h"
#include "formats/instrument/soundfont/soundfont.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string dir = [] {
    char pattern[] = "/tmp/orlin-soundfont-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  const std::string path = dir + "/input.sf2";
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  Collection collection;
  FileObject file;
  if (!file.Open(path, FileMode::Read)) return 0;
  const bool read = ReadSoundFont(&collection, &file, 0);
  const uint32_t head = uint32_t(std::min<size_t>(size, 32768));
  const int32_t best = std::max({DetectSf2(data, 0, head, size), DetectSf3(data, 0, head, size),
                                 DetectSbk(data, 0, head, size), DetectSf2Pack(data, 0, head, size)});
  if (read && best == 0) std::abort();
  for (Waveform* wave : collection.All<Waveform>()) {
    wave->SetText(kTextSourceFile, path);
    wave->Preload();
  }
  if (size >= 12 && std::equal(data + 8, data + 12, "sfbk")) {
    // The same bytes as a packed bank: its smpl chunk goes to the WavPack decoder.
    std::string packed(reinterpret_cast<const char*>(data), size);
    packed.replace(8, 4, "sfpk");
    const std::string packedPath = dir + "/packed.sf2";
    if (FILE* copy = std::fopen(packedPath.c_str(), "wb")) {
      std::fwrite(packed.data(), 1, packed.size(), copy);
      std::fclose(copy);
      Collection packedCollection;
      FileObject packedFile;
      if (packedFile.Open(packedPath, FileMode::Read) && ReadSoundFont(&packedCollection, &packedFile, 0)) {
        for (Waveform* wave : packedCollection.All<Waveform>()) {
          wave->SetText(kTextSourceFile, packedPath);
          wave->Preload();
        }
      }
    }
  }
  if (read) {
    FileObject saved;
    if (saved.Open(dir + "/saved.sf2", FileMode::Create)) {
      SaveOptions options;
      options.caps = 0x02100014;
      WriteSf2(&collection, &saved, &options);
    }
  }
  return 0;
}
