// `orlin process`: runs rows of the algorithm tables over every item of their family in each file and
// saves the result through the normal save road (backup, no partial file). `--list` shows the rows
// with their settings. The input is never overwritten without --in-place, nor any existing file
// without the overwrite question's yes (-y/--overwrite).
#include "cli/process_command.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>

#include "cli/command_registry.h"
#include "cli/json.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "processing/wizard.h"

namespace fs = std::filesystem;

namespace orlin::cli {

namespace {

constexpr AlgorithmFamily kFamilies[] = {AlgorithmFamily::Audio, AlgorithmFamily::Instrument, AlgorithmFamily::Song};

const char* SettingTypeWord(SettingType type) {
  switch (type) {
    case SettingType::Number: return "number";
    case SettingType::Integer: return "integer";
    case SettingType::Boolean: return "boolean";
    case SettingType::Choice: return "choice";
    case SettingType::Text: return "text";
    default: return "waveform";
  }
}

void ListJson(std::ostream& out) {
  JsonWriter json;
  json.BeginObject();
  for (AlgorithmFamily family : kFamilies) {
    json.Key(FamilyWord(family)).BeginArray();
    for (const AlgorithmRow& row : AlgorithmTable(family)) {
      json.BeginObject();
      json.Key("name").Value(row.name);
      json.Key("page").Value(int(row.page));
      json.Key("available").Value(row.procedure != nullptr);
      json.Key("predicate").Value(row.predicateName);
      json.Key("subRange").Value((row.flags & kRowSubRange) != 0);
      json.Key("settings").BeginArray();
      for (const SettingInfo& setting : SettingsOf(row)) {
        json.BeginObject();
        json.Key("key").Value(setting.key);
        json.Key("label").Value(setting.label);
        json.Key("type").Value(SettingTypeWord(setting.type));
        json.Key("default").Value(SettingValueText(setting));
        if (setting.type == SettingType::Number || setting.type == SettingType::Integer) {
          json.Key("minimum").Value(setting.minimum);
          json.Key("maximum").Value(setting.maximum);
        }
        if (setting.type == SettingType::Choice) {
          json.Key("choices").BeginArray();
          for (const char* choice : setting.choices) json.Value(choice);
          json.EndArray();
        }
        json.EndObject();
      }
      json.EndArray();
      json.EndObject();
    }
    json.EndArray();
  }
  json.EndObject();
  out << json.Text() << "\n";
}

void ListText(std::ostream& out) {
  for (AlgorithmFamily family : kFamilies) {
    out << FamilyWord(family) << " algorithms:\n";
    for (const AlgorithmRow& row : AlgorithmTable(family)) {
      out << "  " << row.name << (row.procedure ? "" : "  (not available yet)")
          << ((row.flags & kRowSubRange) ? "  [--range]" : "") << "\n";
      for (const SettingInfo& setting : SettingsOf(row)) {
        out << "      " << setting.key << " (" << SettingTypeWord(setting.type) << ", default "
            << SettingValueText(setting);
        if (setting.type == SettingType::Number || setting.type == SettingType::Integer)
          out << ", " << setting.minimum << ".." << setting.maximum;
        out << "): " << setting.label << "\n";
        for (size_t i = 0; i < setting.choices.size(); ++i) out << "          " << i << " = " << setting.choices[i] << "\n";
      }
    }
  }
  out << "A choice takes its number or its label (or a start of the label that names one entry). A waveform\n"
         "takes a name, #N for the N-th waveform of the file, <self>, <first>, <first other> or <none>.\n";
}

struct ChainStep {
  AlgorithmFamily family;
  const AlgorithmRow* row;
};

// The items of a family in a loaded file: every waveform, every song, or the collection itself
// (the instrument algorithms walk the whole instrument side from it).
std::vector<Item*> ItemsOfFamily(Collection& collection, AlgorithmFamily family) {
  std::vector<Item*> items;
  if (family == AlgorithmFamily::Audio)
    for (Waveform* wave : collection.All<Waveform>()) items.push_back(wave);
  else if (family == AlgorithmFamily::Song)
    for (Song* song : collection.All<Song>()) items.push_back(song);
  else
    items.push_back(&collection);
  return items;
}

// Where one input goes: the output file, or a file in the output folder.
std::string OutputPath(const ProcessRequest& request, const std::string& input, const std::string& extension) {
  if (request.inPlace) return input;
  const bool folder = request.inputs.size() > 1 || fs::is_directory(request.output) || request.output.back() == '/';
  if (!folder) return request.output;
  return (fs::path(request.output) / (fs::path(input).stem().string() + "." + extension)).string();
}

}  // namespace

ProcessCommand::ProcessCommand(CLI::App& app) {
  command_ = app.add_subcommand("process", "Run processing algorithms over the waveforms (or songs, instruments) of files");
  command_->add_option("inputs", request_.inputs, "Input files");
  command_->add_option("--algorithm,-a", request_.algorithms,
                       "Algorithm by its name (see --list); repeat to run a chain in order");
  command_->add_option("--set", request_.settings,
                       "KEY=VALUE for a setting of the chain's algorithms; N:KEY=VALUE for the N-th only");
  command_->add_option("--range", request_.range, "START:END, the sub-range of frames (end exclusive)");
  auto* output = command_->add_option("-o,--output", request_.output, "Output file, or folder for several inputs");
  auto* inPlace = command_->add_flag("--in-place", request_.inPlace, "Write the result over the input (the old file stays until the new one is whole)");
  output->excludes(inPlace);
  command_->add_option("--to", request_.toExtension, "Extension of the format to write (default: the input's format)");
  // Kept for scripts written before -y/--overwrite served every sub-command.
  command_->add_flag("--force", request_.force, "Same as -y/--overwrite")->group("");
  command_->add_flag("--list", request_.list, "List the algorithms with their settings");
  command_->add_flag("--json", request_.json, "JSON output for --list");
}

bool ProcessCommand::Chosen() const { return command_->parsed(); }

std::pair<CLI::App*, CommandRunner> AddProcessCommand(CLI::App& app, const GlobalOptions&, std::ostream& out,
                                                      std::ostream& err) {
  auto command = std::make_shared<ProcessCommand>(app);
  return {command->Command(), [command, &out, &err] { return command->Run(out, err); }};
}

int ProcessCommand::Run(std::ostream& out, std::ostream& err) { return RunProcess(request_, out, err); }

int RunProcess(const ProcessRequest& request, std::ostream& out, std::ostream& err) {
  if (request.list) {
    request.json ? ListJson(out) : ListText(out);
    return kExitOk;
  }
  if (request.inputs.empty() || request.algorithms.empty()) {
    err << "process: give input files and --algorithm NAME (orlin process --list shows the names)\n";
    return kExitUsage;
  }
  if (request.output.empty() && !request.inPlace) {
    err << "process: give -o OUTPUT, or --in-place to write over the input\n";
    return kExitUsage;
  }

  // The chain; an unknown name shows the list, as the frame opens its list for one.
  std::vector<ChainStep> chain;
  for (const std::string& name : request.algorithms) {
    const AlgorithmRow* row = nullptr;
    AlgorithmFamily found = AlgorithmFamily::Audio;
    for (AlgorithmFamily family : kFamilies)
      if ((row = FindAlgorithm(family, name))) {
        found = family;
        break;
      }
    if (!row) {
      err << "process: unknown algorithm \"" << name << "\"; the algorithms are:\n";
      for (AlgorithmFamily family : kFamilies)
        for (const AlgorithmRow& candidate : AlgorithmTable(family)) err << "  " << candidate.name << "\n";
      return kExitUsage;
    }
    chain.push_back({found, row});
  }
  for (const std::string& assignment : request.settings) {
    std::string text = assignment;
    size_t only = 0;
    if (const size_t colon = text.find(':'); colon != std::string::npos && colon < text.find('=')) {
      only = size_t(std::strtoul(text.substr(0, colon).c_str(), nullptr, 10));
      if (only == 0 || only > chain.size()) {
        err << "process: --set " << assignment << ": no algorithm number " << text.substr(0, colon) << " in the chain\n";
        return kExitUsage;
      }
      text = text.substr(colon + 1);
    }
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
      err << "process: --set takes KEY=VALUE, not \"" << assignment << "\"\n";
      return kExitUsage;
    }
    const std::string key = text.substr(0, equals), value = text.substr(equals + 1);
    bool used = false;
    for (size_t i = 0; i < chain.size(); ++i) {
      if (only && i + 1 != only) continue;
      for (const SettingInfo& setting : SettingsOf(*chain[i].row)) {
        if (key != setting.key) continue;
        if (!SetSettingValue(setting, value)) {
          err << "process: " << chain[i].row->name << ": " << LastError() << "\n";
          return kExitUsage;
        }
        used = true;
      }
    }
    if (!used) {
      err << "process: no algorithm of the chain has a setting \"" << key << "\"\n";
      return kExitUsage;
    }
  }
  int32_t rangeStart = -1, rangeEnd = -1;
  if (!request.range.empty()) {
    const size_t colon = request.range.find(':');
    char* end1 = nullptr;
    char* end2 = nullptr;
    const std::string first = request.range.substr(0, colon);
    const std::string last = colon == std::string::npos ? "" : request.range.substr(colon + 1);
    const long long a = std::strtoll(first.c_str(), &end1, 10), b = std::strtoll(last.c_str(), &end2, 10);
    if (colon == std::string::npos || first.empty() || last.empty() || *end1 || *end2 || a < 0 || b < 0 ||
        a > INT32_MAX || b > INT32_MAX) {
      err << "process: --range takes START:END in frames, not \"" << request.range << "\"\n";
      return kExitUsage;
    }
    rangeStart = int32_t(a), rangeEnd = int32_t(b);
    for (const ChainStep& step : chain)
      if (!(step.row->flags & kRowSubRange)) err << "process: " << step.row->name << " works on whole waves; --range does not apply to it\n";
  }

  int status = kExitOk;
  for (const std::string& input : request.inputs) {
    Collection collection;
    if (!LoadFile(collection, input, true)) {
      err << input << ": " << LastError() << "\n";
      status = kExitFileFailed;
      continue;
    }
    bool failed = false;
    for (const ChainStep& step : chain) {
      ProcessingWizard wizard;
      InitWizard(wizard, collection, ItemsOfFamily(collection, step.family), step.family);
      wizard.quiet = true;  // no undo ring here, and every row may be asked for
      wizard.batchRunning = true;
      wizard.rangeOn = rangeStart >= 0;
      wizard.rangeStart = rangeStart;
      wizard.rangeEnd = rangeEnd;
      if (wizard.items.empty()) {
        out << input << ": " << step.row->name << ": no items of the " << FamilyWord(step.family) << " family\n";
        continue;
      }
      RunWizard(wizard, step.row->name, true);
      out << input << ": " << wizard.resultText << "\n";
      for (const std::string& failure : wizard.failures)
        if (failure != wizard.resultText) err << input << ": " << failure << "\n";
      if (!wizard.failures.empty() || wizard.cancelled) failed = true;
    }
    if (failed) {
      // A chain that failed on an item writes nothing: the user's file is not replaced by half a result.
      status = kExitFileFailed;
      continue;
    }

    // The format: --to, else the output's extension, else the input's own row.
    const std::string extension = !request.toExtension.empty() ? request.toExtension
                                  : !request.inPlace && fs::path(request.output).has_extension() && request.inputs.size() == 1
                                      ? fs::path(request.output).extension().string().substr(1)
                                      : GetRowExtension(collection.sourceRow);
    const FormatEntry* sourceEntry = GetFormatRow(collection.sourceRow);
    int32_t row = -1;
    Item* item = nullptr;
    const bool oneWave = collection.CountOf(ItemType::Waveform) == 1 && collection.CountOf(ItemType::Instrument) == 0 &&
                         collection.CountOf(ItemType::Song) == 0;
    if (request.toExtension.empty() && sourceEntry && sourceEntry->write && extension == GetRowExtension(collection.sourceRow)) {
      row = collection.sourceRow;
    } else {
      row = FindWriteRow(extension, oneWave ? kMaskWaveform : 0xFF);
    }
    const FormatEntry* entry = GetFormatRow(row);
    if (!entry || !entry->write) {
      err << input << ": no writable format \"" << extension << "\"\n";
      status = kExitUsage;
      continue;
    }
    if (entry->itemTypes & kMaskCollection) item = &collection;
    else if (oneWave) item = *collection.All<Waveform>().begin();
    else if ((entry->itemTypes & kMaskInstrument) && collection.CountOf(ItemType::Instrument) == 1)
      item = *collection.All<Instrument>().begin();
    else if ((entry->itemTypes & kMaskSong) && collection.CountOf(ItemType::Song) == 1) item = *collection.All<Song>().begin();

    if (!item) {
      // Several waves (after a split, say): each to its own file in the output folder.
      if (request.inPlace) {
        err << input << ": the result holds " << collection.CountOf(ItemType::Waveform)
            << " waveforms, which a ." << extension << " file cannot hold; give -o FOLDER\n";
        status = kExitFileFailed;
        continue;
      }
      SaveAllRequest saveAll;
      saveAll.folder = request.output;
      saveAll.baseName = fs::path(input).stem().string();
      saveAll.row = row;
      saveAll.options = DefaultSaveOptions(row);
      saveAll.mode = kSaveAllName;
      std::error_code error;
      fs::create_directories(saveAll.folder, error);
      SaveAllResult result;
      if (!SaveAll(collection, saveAll, result) || result.failed > 0 || result.cancelled) {
        err << input << ": " << (result.message.empty() ? LastError() : result.message) << "\n";
        status = kExitFileFailed;
        continue;
      }
      out << input << " -> " << saveAll.folder << ": " << result.message << "\n";
      continue;
    }
    const std::string path = OutputPath(request, input, entry->extension);
    std::error_code error;
    if (!request.inPlace) {
      if (fs::exists(path, error) && fs::equivalent(path, input, error)) {
        err << input << ": the output is the input; use --in-place to write over it\n";
        status = kExitUsage;
        continue;
      }
      if (!MayReplaceOutput(path, request.force)) {
        err << input << ": " << path << " exists and was not replaced; -y/--overwrite replaces it\n";
        status = kExitFileFailed;
        continue;
      }
      if (fs::path(path).has_parent_path()) fs::create_directories(fs::path(path).parent_path(), error);
    }
    if (!SaveWithBackup(item, path, row, DefaultSaveOptions(row), false)) {
      err << input << ": " << LastError() << "\n";
      status = kExitFileFailed;
      continue;
    }
    out << input << " -> " << path << " (" << GetRowDescription(row) << ")\n";
  }
  return status;
}

}  // namespace orlin::cli
