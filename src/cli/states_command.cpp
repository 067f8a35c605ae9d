// `orlin states`: the state files of the data folder ("Last session" and the saved and undo
// states): list them, show what one holds, or write one out as a file of any writable format.
#include <CLI/CLI.hpp>
#include <ctime>
#include <filesystem>

#include "cli/command_registry.h"
#include "cli/commands.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "core/state_file.h"

namespace orlin::cli {

namespace {

namespace fs = std::filesystem;

// A state by its name ("Last session", "Saved state 12:34.56"), its file name, or a path.
std::string StatePath(const std::string& name) {
  if (name.size() > 4 && name.ends_with(".ost") && fs::exists(name)) return name;
  const std::string path = StateFilePath(name);
  return fs::exists(path) ? path : std::string();
}

// The item a state is written out as: the collection where the row holds one, else its one
// instrument, song or wave.
Item* StateItemToSave(Collection& collection, int32_t row) {
  const uint8_t mask = GetFormatRow(row)->itemTypes;
  if (mask & kMaskCollection) return &collection;
  if ((mask & kMaskInstrument) && collection.CountOf(ItemType::Instrument) == 1) return *collection.All<Instrument>().begin();
  if ((mask & kMaskSong) && collection.CountOf(ItemType::Song) == 1) return *collection.All<Song>().begin();
  if ((mask & kMaskWaveform) && collection.CountOf(ItemType::Waveform) == 1) return *collection.All<Waveform>().begin();
  SetLastError("The state holds more than this format can take in one file");
  return nullptr;
}

int Run(const std::vector<std::string>& arguments, const std::string& output, std::ostream& out, std::ostream& err) {
  const std::string verb = arguments.empty() ? "list" : arguments[0];
  if (verb == "list" && arguments.size() <= 1) {
    out << "# " << DataFolder() << "\n";
    for (const StateFileInfo& info : ListStateFiles()) {
      char when[32];
      const std::time_t seconds = std::time_t(info.modifiedSeconds);
      std::tm local{};
      localtime_r(&seconds, &local);
      std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
      out << when << "  " << info.bytes << "  " << info.name << "\n";
    }
    return kExitOk;
  }
  if ((verb == "show" || verb == "restore") && arguments.size() == 2) {
    const std::string path = StatePath(arguments[1]);
    if (path.empty()) {
      err << "states: no state \"" << arguments[1] << "\" in " << DataFolder() << "\n";
      return kExitFileFailed;
    }
    Collection collection;
    if (!LoadStateFromPath(collection, path)) {
      err << path << ": " << LastError() << "\n";
      return kExitFileFailed;
    }
    if (verb == "show") {
      for (const std::string& line : DescribeTree(collection)) out << line << "\n";
      return kExitOk;
    }
    if (output.empty()) {
      err << "states: restore needs -o FILE\n";
      return kExitUsage;
    }
    if (fs::exists(output)) {
      err << "states: " << output << " exists; it is not overwritten\n";
      return kExitFileFailed;
    }
    const int32_t row = FindWriteRow(fs::path(output).extension().string(), 0xFF);
    if (row < 0) {
      err << "states: no format writes \"" << fs::path(output).extension().string() << "\"\n";
      return kExitUsage;
    }
    Item* item = StateItemToSave(collection, row);
    if (!item || !SaveItem(item, row, output, DefaultSaveOptions(row))) {
      err << output << ": " << LastError() << "\n";
      return kExitFileFailed;
    }
    return kExitOk;
  }
  err << "states: use list, show NAME or restore NAME -o FILE\n";
  return kExitUsage;
}

}  // namespace

std::pair<CLI::App*, CommandRunner> AddStatesCommand(CLI::App& app, const GlobalOptions&, std::ostream& out,
                                                     std::ostream& err) {
  struct Request {
    std::vector<std::string> arguments;
    std::string output;
  };
  auto request = std::make_shared<Request>();
  CLI::App* states = app.add_subcommand("states", "State files of the data folder: list, show NAME, restore NAME -o FILE");
  states->add_option("arguments", request->arguments, "list | show NAME | restore NAME");
  states->add_option("-o,--output", request->output, "File to write a restored state to");
  return {states, [request, &out, &err]() { return Run(request->arguments, request->output, out, err); }};
}

}  // namespace orlin::cli
