// `orlin render-note BANK --preset B:P | --instrument N --key K --velocity V --seconds S -o out.wav`.
// The note is held for S seconds, then released; rendering goes on until the voices fall silent
// (at most ten seconds of tail). The master gain is 1: a single note keeps its own level.
#include "cli/render_note_command.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "cli/command_registry.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "synth/synth_render.h"

namespace orlin::cli {

namespace {
constexpr double kMaxTailSeconds = 10.0;

void PutU32(std::vector<uint8_t>& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(uint8_t(v >> (8 * i)));
}
void PutU16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(uint8_t(v)), out.push_back(uint8_t(v >> 8));
}
void PutTag(std::vector<uint8_t>& out, const char* tag) { out.insert(out.end(), tag, tag + 4); }
}  // namespace

bool WriteFloatWav(const std::string& path, const float* frames, size_t frameCount, int rate, bool replace) {
  namespace fs = std::filesystem;
  std::error_code ec;
  if (!replace && fs::exists(path, ec)) {
    SetLastError("File exists: " + path);
    return false;
  }
  const uint64_t dataBytes = uint64_t(frameCount) * 8;
  if (dataBytes > 0xFFFFFFFFull - 64) {
    SetLastError("Too long for a WAVE file");
    return false;
  }
  std::vector<uint8_t> head;
  PutTag(head, "RIFF");
  PutU32(head, uint32_t(4 + 26 + 12 + 8 + dataBytes));
  PutTag(head, "WAVE");
  PutTag(head, "fmt ");
  PutU32(head, 18);
  PutU16(head, 3);  // IEEE float
  PutU16(head, 2);
  PutU32(head, uint32_t(rate));
  PutU32(head, uint32_t(rate) * 8);
  PutU16(head, 8);
  PutU16(head, 32);
  PutU16(head, 0);  // no extension
  PutTag(head, "fact");
  PutU32(head, 4);
  PutU32(head, uint32_t(frameCount));
  PutTag(head, "data");
  PutU32(head, uint32_t(dataBytes));
  const std::string temporary = path + ".part";
  {
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(head.data()), std::streamsize(head.size()));
    // Little-endian floats as they lie in memory on this platform.
    file.write(reinterpret_cast<const char*>(frames), std::streamsize(dataBytes));
    if (!file.good()) {
      file.close();
      fs::remove(temporary, ec);
      SetLastError("Could not write file");
      return false;
    }
  }
  fs::rename(temporary, path, ec);
  if (ec) {
    fs::remove(temporary, ec);
    SetLastError("Could not write file");
    return false;
  }
  return true;
}

RenderNoteCommand::RenderNoteCommand(CLI::App& app) {
  command_ = app.add_subcommand("render-note", "Render one note of an instrument to a float WAV file");
  command_->add_option("bank", bank, "Instrument file (SoundFont, SFZ, ...)")->required();
  auto* presetOption = command_->add_option("--preset", preset, "BANK:PROG (bank 128: drum kits)");
  auto* instrumentOption = command_->add_option("--instrument", instrument, "Instrument index in the file, from 0");
  presetOption->excludes(instrumentOption);
  command_->add_option("--key", key, "MIDI key")->check(CLI::Range(0, 127));
  command_->add_option("--velocity", velocity, "Velocity")->check(CLI::Range(1, 127));
  command_->add_option("--seconds", seconds, "Seconds the key is held")->check(CLI::Range(0.0, 600.0));
  command_->add_option("--rate", rate, "Output sample rate")->check(CLI::Range(8000, 192000));
  command_->add_option("-o,--output", output, "Output WAV file")->required();
  command_->add_flag("--force", force, "Replace an existing output file");
}

bool RenderNoteCommand::Selected() const { return command_ && command_->parsed(); }

std::pair<CLI::App*, CommandRunner> AddRenderNoteCommand(CLI::App& app, const GlobalOptions&, std::ostream& out,
                                                         std::ostream& err) {
  auto command = std::make_shared<RenderNoteCommand>(app);
  return {command->Command(), [command, &out, &err] { return command->Run(out, err); }};
}

int RenderNoteCommand::Run(std::ostream& out, std::ostream& err) const {
  Collection collection;
  if (!LoadFile(collection, bank, false)) {
    err << bank << ": " << LastError() << "\n";
    return 1;
  }
  const Instrument* chosen = nullptr;
  int index = 0;
  int wantBank = -1, wantProgram = -1;
  if (!preset.empty() && std::sscanf(preset.c_str(), "%d:%d", &wantBank, &wantProgram) != 2) {
    err << "render-note: --preset takes BANK:PROG\n";
    return 2;
  }
  for (const Instrument* item : collection.All<Instrument>()) {
    const bool drum = item->IsDrumKit();
    const int itemBank = drum ? 128 : item->MajorBank();
    if ((preset.empty() && (instrument < 0 || index == instrument)) ||
        (!preset.empty() && itemBank == wantBank && item->Program() == wantProgram)) {
      chosen = item;
      break;
    }
    ++index;
  }
  if (!chosen) {
    err << "render-note: no such instrument in " << bank << "\n";
    return 1;
  }
  synth::SynthEngine engine(16, 256, 1.0f, rate, 0);
  const synth::SynthInstrument* compiled = engine.LoadInstrument(*chosen);
  engine.SelectInstrument(0, compiled);
  const synth::TimedMessage messages[] = {{0.0, synth::PackMessage(0x90, key, velocity)},
                                          {seconds, synth::PackMessage(0x80, key, 0)}};
  synth::RenderRequest request;
  request.tailSeconds = kMaxTailSeconds;
  request.untilSilent = true;
  request.drumChannel10 = false;
  std::vector<float> frames;
  synth::RenderMessages(engine, messages, request, frames);
  if (!WriteFloatWav(output, frames.data(), frames.size() / 2, rate, force)) {
    err << output << ": " << LastError() << "\n";
    return 1;
  }
  out << output << ": \"" << chosen->GetName() << "\" key " << key << " velocity " << velocity << ", "
      << frames.size() / 2 << " frames at " << rate << " Hz, peak " << engine.LastPeak() << "\n";
  return 0;
}

}  // namespace orlin::cli
