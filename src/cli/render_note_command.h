// `orlin render-note`: one note of one instrument of a bank, rendered through the synthesizer to a
// 32-bit float stereo WAV file, so a user can hear an instrument without a window.
#pragma once
#include <ostream>
#include <string>

namespace CLI {
class App;
}

namespace orlin::cli {

class RenderNoteCommand {
 public:
  // Registers the sub-command and its options on `app`.
  explicit RenderNoteCommand(CLI::App& app);
  bool Selected() const;
  CLI::App* Command() const { return command_; }
  int Run(std::ostream& out, std::ostream& err) const;

  std::string bank;
  std::string preset;        // "BANK:PROG"; bank 128 is the drum bank
  int instrument = -1;       // index in the file's order, from 0
  int key = 60, velocity = 100;
  double seconds = 1.0;      // time the key is held; the release follows
  int rate = 44100;
  std::string output;
  bool force = false;

 private:
  CLI::App* command_ = nullptr;
};

// Writes interleaved stereo float frames as a WAVE file of format 3 (IEEE float) through the save
// pipeline: whole or not at all. The caller has asked about an existing file. False with the
// last-error text.
bool WriteFloatWav(const std::string& path, const float* frames, size_t frameCount, int rate);

}  // namespace orlin::cli
