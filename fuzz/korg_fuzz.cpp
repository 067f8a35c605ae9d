// Any bytes through the Korg sample, keymap and script readers and the samples they load: never a
// crash or a hang. The input is also written as the sample the corpus keymap names first, so that
// a keymap's walk to its samples meets damaged samples too.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/collection.h"
#include "core/file_object.h"
#include "formats/instrument/korg/korg.h"

namespace {

struct Family {
  bool (*read)(orlin::Collection*, orlin::FileObject*, uint32_t);
  int32_t (*detect)(const uint8_t*, uint32_t, uint32_t, uint64_t);
};

constexpr Family kFamilies[] = {
    {orlin::ReadKorgSample, orlin::DetectKorgSample},
    {orlin::ReadKorgKeymap, orlin::DetectKorgKeymap},
    {orlin::ReadKorgScript, orlin::DetectKorgScript},
};

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
  if (FILE* out = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, out);
    std::fclose(out);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string folder = [] {
    char pattern[] = "/tmp/orlin-korg-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  const std::string path = folder + "/input.kmp";
  WriteFile(path, data, size);
  WriteFile(folder + "/MS000000.KSF", data, size);
  const uint32_t head = uint32_t(std::min<size_t>(size, 32768));
  for (const Family& family : kFamilies) {
    if (family.detect(data, 0, head, size) == 0) continue;
    Collection collection;
    FileObject file;
    if (!file.Open(path, FileMode::Read)) return 0;
    if (!family.read(&collection, &file, 0)) continue;
    for (Waveform* wave : collection.All<Waveform>()) wave->Preload();
  }
  return 0;
}
