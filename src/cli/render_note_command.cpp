// `orlin render-note BANK --preset B:P | --instrument N --key K --velocity V --seconds S -o out.wav`.
// The note is held for S seconds, then released; rendering goes on until the voices fall silent
// (at most ten seconds of tail). The master gain is 1: a single note keeps its own level.
#include "cli/render_note_command.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "cli/command_registry.h"
#include "cli/commands.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "synth/synth_render.h"

namespace orlin::cli {

namespace {
constexpr double kMaxTailSeconds = 10.0;
}  // namespace

// Through the WAVE writer as 32-bit float, so the file is saved as every other: whole or not at all.
bool WriteFloatWav(const std::string& path, const float* frames, size_t frameCount, int rate) {
  if (frameCount > 0xFFFFFFFFull / 8 - 64) {
    SetLastError("Too long for a WAVE file");
    return false;
  }
  Collection collection;
  auto* wave = new Waveform(&collection);
  wave->SetName(std::filesystem::path(path).stem().string());
  wave->channels = 2;
  wave->sampleRate = uint32_t(rate);
  wave->length = uint32_t(frameCount);
  float* samples = wave->AllocSamples();
  if (!samples) return false;
  std::copy_n(frames, frameCount * 2, samples);
  const int32_t row = FindWriteRow("wav", 1);
  SaveOptions options = DefaultSaveOptions(row);
  options.caps = (options.caps & ~kCapsStorageMask) | (1u << kStorageFloat32);
  return SaveWithBackup(wave, path, row, options, false);
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
  // Kept for scripts written before -y/--overwrite served every sub-command.
  command_->add_flag("--force", force, "Same as -y/--overwrite")->group("");
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
  if (!MayReplaceOutput(output, force)) {
    err << output << ": exists and was not replaced; -y/--overwrite replaces it\n";
    return 1;
  }
  if (!WriteFloatWav(output, frames.data(), frames.size() / 2, rate)) {
    err << output << ": " << LastError() << "\n";
    return 1;
  }
  out << output << ": \"" << chosen->GetName() << "\" key " << key << " velocity " << velocity << ", "
      << frames.size() / 2 << " frames at " << rate << " Hz, peak " << engine.LastPeak() << "\n";
  return 0;
}

}  // namespace orlin::cli
