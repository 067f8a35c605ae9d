// Any bytes under any table extension: detection never fails, and a load never crashes or hangs.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "core/collection.h"
#include "core/format_table.h"
#include "core/pipeline.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  if (size < 2) return 0;
  // The first two bytes choose the extension the file is named with.
  const int32_t row = int32_t((data[0] | data[1] << 8) % kFormatRowCount);
  data += 2;
  size -= 2;
  std::string extension = GetRowExtension(row);
  for (char& c : extension)
    if (c == '*' || c == '?') c = 'x';
  int32_t confidence = 0;
  DetectFormatOfHead("fuzz." + extension, data, uint32_t(std::min<size_t>(size, kDetectHeadBytes)), size, confidence);

  static const std::string folder = [] {
    char pattern[] = "/tmp/orlin-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern));
  }();
  const std::string path = folder + "/input." + extension;
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) return 0;
  std::fwrite(data, 1, size, file);
  std::fclose(file);
  Collection collection;
  if (LoadFile(collection, path, true))
    for (Waveform* wave : collection.All<Waveform>()) wave->Preload();
  return 0;
}
