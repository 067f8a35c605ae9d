// Any bytes through the old plain-audio container readers (au, AVR, NIST, IRCAM, Samplevision, Psion,
// VOC, MIDI sample dump, PAF, MAT-files, text audio) and their decoders: never a crash or a hang, and
// a file a reader takes is one its detector scores.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/collection.h"
#include "core/file_object.h"
#include "formats/audio/matlab.h"
#include "formats/audio/plain_containers.h"
#include "formats/audio/text_audio.h"

namespace {

struct Family {
  bool (*read)(orlin::Collection*, orlin::FileObject*, uint32_t);
  int32_t (*detect)(const uint8_t*, uint32_t, uint32_t, uint64_t);
};

constexpr Family kFamilies[] = {
    {orlin::ReadAu, orlin::DetectAu},       {orlin::ReadAvr, orlin::DetectAvr},
    {orlin::ReadNist, orlin::DetectNist},   {orlin::ReadIrcam, orlin::DetectIrcam},
    {orlin::ReadSamplevision, orlin::DetectSamplevision}, {orlin::ReadPsion, orlin::DetectPsion},
    {orlin::ReadVoc, orlin::DetectVoc},     {orlin::ReadSds, orlin::DetectSds},
    {orlin::ReadPaf, orlin::DetectPaf},     {orlin::ReadMatlab, orlin::DetectMatlab},
    {orlin::ReadTextAudio, orlin::DetectTextAudio},
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string path = [] {
    char pattern[] = "/tmp/orlin-plain-fuzz-XXXXXX";
    return std::string(mkdtemp(pattern)) + "/input";
  }();
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);
  const uint32_t head = uint32_t(std::min<size_t>(size, 32768));
  for (const Family& family : kFamilies) {
    // Only the families whose signature is there: the others refuse at their magic.
    if (family.detect(data, 0, head, size) == 0) continue;
    Collection collection;
    FileObject file;
    if (!file.Open(path, FileMode::Read)) return 0;
    if (!family.read(&collection, &file, 0)) continue;
    for (Waveform* wave : collection.All<Waveform>()) {
      wave->SetText(kTextSourceFile, path);
      wave->Preload();
    }
  }
  return 0;
}
