// Any bytes as a tracker module of every kind in turn: reading never crashes or hangs, and every wave
// made decodes within its bounds (plain, delta, IT-packed and ADPCM samples alike).
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/format_table.h"
#include "formats/song/modules/modules.h"

namespace {

using orlin::ModuleKind;
constexpr orlin::FormatReader kReaders[] = {
    orlin::ReadModModule,
    orlin::ReadXmModule,
    orlin::ReadXiInstrument,
    orlin::ReadS3iSample,
    orlin::ReadS3mModule,
    orlin::ReadItModule,
    orlin::ReadItInstrument,
    orlin::ReadItSample,
    orlin::ReadOtherModule<ModuleKind::Composer669>,
    orlin::ReadOtherModule<ModuleKind::MultiTracker>,
    orlin::ReadOtherModule<ModuleKind::ScreamTracker2>,
    orlin::ReadOtherModule<ModuleKind::Farandole>,
    orlin::ReadOtherModule<ModuleKind::UltraTracker>,
    orlin::ReadOtherModule<ModuleKind::Oktalyzer>,
    orlin::ReadOtherModule<ModuleKind::PolyTracker>,
    orlin::ReadOtherModule<ModuleKind::OctaMed>,
};

std::string ScratchFolder() {
  char pattern[] = "/tmp/orlin-modules-fuzz-XXXXXX";
  return std::string(mkdtemp(pattern));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string folder = ScratchFolder();
  const std::string path = folder + "/input.bin";
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);

  for (const FormatReader reader : kReaders) {
    Collection collection;
    collection.SetText(kTextSourceFile, path);
    FileObject file;
    if (!file.Open(path, FileMode::Read)) return 0;
    if (!reader(&collection, &file, 0)) continue;
    file.Close();
    // Stated lengths of packed samples are not bounded by the file; keep the decode small.
    for (Waveform* wave : collection.All<Waveform>())
      if (uint64_t(wave->length) * wave->channels <= (1u << 20)) wave->Preload();
  }
  return 0;
}
