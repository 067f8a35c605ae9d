#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>

#include "cli/command_registry.h"
#include "cli/conversion_losses.h"
#include "cli/commands.h"
#include "cli/json.h"
#include "core/file_object.h"
#include "core/save_transaction.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "core/text.h"

namespace fs = std::filesystem;

namespace orlin::cli {

namespace {

int32_t SaveAllModeByName(const std::string& name) {
  if (name == "number-name") return kSaveAllNumberName;
  if (name == "base-number") return kSaveAllBaseNumber;
  if (name == "number-base") return kSaveAllNumberBase;
  if (name == "base-name") return kSaveAllBaseName;
  if (name == "source-name") return kSaveAllSourceName;
  if (name == "patch-name") return kSaveAllPatchName;
  return kSaveAllName;
}

// The item one file is saved as: the whole collection where the row holds one, else the one
// instrument, wave or song the row can hold. Null (with the error text) when there are several.
Item* ItemToSave(Collection& collection, int32_t row) {
  const uint8_t mask = GetFormatRow(row)->itemTypes;
  if (mask & kMaskCollection) return &collection;
  auto pickOne = [](auto view, const char* word) -> Item* {
    auto items = view.ToVector();
    if (items.size() == 1) return items[0];
    SetLastError(std::string("The file holds ") + std::to_string(items.size()) + " " + word +
                 "s: use --save-all to write each to its own file");
    return nullptr;
  };
  if ((mask & kMaskInstrument) && collection.CountOf(ItemType::Instrument) > 0)
    return pickOne(collection.All<Instrument>(), "instrument");
  if ((mask & kMaskSong) && collection.CountOf(ItemType::Song) > 0) return pickOne(collection.All<Song>(), "song");
  if (mask & kMaskWaveform) {
    if (collection.CountOf(ItemType::Waveform) > 0) return pickOne(collection.All<Waveform>(), "waveform");
    if (collection.CountOf(ItemType::Song) > 0) return pickOne(collection.All<Song>(), "song");
  }
  SetLastError("Empty item - nothing to save");
  return nullptr;
}

// Narrows the row's options by --data-format and --channels; false with a message on a bad name.
bool ApplyChoices(const ConvertRequest& request, int32_t row, Item* item, SaveOptions& options, std::string& problem) {
  std::vector<const Waveform*> waves;
  for (Waveform* wave : WavesOfItem(item)) waves.push_back(wave);
  if (!request.dataFormat.empty()) {
    const auto entries = DataFormatEntries(row, waves);
    const int index = FindComboEntry(entries, request.dataFormat);
    if (index < 0) {
      problem = "data format \"" + request.dataFormat + "\" is not offered by row " + std::to_string(row) + "; choose one of:";
      for (const auto& entry : entries) problem += "\n  " + entry.label;
      return false;
    }
    ApplySaveComboEntry(row, entries[size_t(index)], options);
  }
  if (request.channels != "auto") {
    const auto entries = ChannelEntries(row, waves);
    const int index = FindComboEntry(entries, request.channels);
    if (index < 0) {
      problem = "channel format \"" + request.channels + "\" is not offered by row " + std::to_string(row);
      return false;
    }
    ApplySaveComboEntry(row, entries[size_t(index)], options);
  }
  return true;
}

// One thing to convert: a file, or (with --merge) every input at once.
struct Source {
  std::string label;               // what messages call it
  std::vector<std::string> paths;  // with --merge, the first is opened and the rest merged in
};

bool IsFolderName(const std::string& path) {
  std::error_code error;
  return path.back() == '/' || fs::is_directory(path, error);
}

// Regular files of a folder, in name order, hidden ones left out.
std::vector<std::string> FilesOfFolder(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error))
    if (entry.is_regular_file(error) && entry.path().filename().string()[0] != '.') files.push_back(entry.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

// Standard input is kept in a temporary file: readers want to seek, and waves decode lazily.
std::string StdinToFile(std::string& problem) {
  char pattern[] = "/tmp/orlin-stdin-XXXXXX";
  const int descriptor = mkstemp(pattern);
  if (descriptor < 0) return problem = FileErrorText("Could not create file", pattern, errno), "";
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (::write(descriptor, buffer, size_t(n)) != n) {
      problem = FileErrorText("Writing to file failed", pattern, errno);
      break;
    }
  }
  ::close(descriptor);
  return pattern;
}

// The row to write: --row, else --to, else the extension of -o. Checks that they agree.
bool ChooseRowExtension(const ConvertRequest& request, std::string& extension, std::string& problem) {
  const std::string outputExtension =
      request.output.empty() || request.output == "-" || IsFolderName(request.output) ? "" : ExtensionOf(request.output);
  const bool outputNamesFormat = !outputExtension.empty() && FindWriteRow(outputExtension, 0xFF) >= 0;
  if (request.row >= 0) {
    extension = GetRowExtension(request.row);
    if (outputNamesFormat && ToLowerAscii(outputExtension) != extension) {
      problem = "-o " + request.output + " names a ." + outputExtension + " file but --row " +
                std::to_string(request.row) + " writes ." + extension;
      return false;
    }
    return true;
  }
  if (!request.toExtension.empty()) {
    extension = ToLowerAscii(request.toExtension);
    if (!extension.empty() && extension[0] == '.') extension.erase(0, 1);
    if (outputNamesFormat && ToLowerAscii(outputExtension) != extension) {
      problem = "-o " + request.output + " contradicts --to " + request.toExtension + "; give one of them";
      return false;
    }
    return true;
  }
  if (outputNamesFormat) {
    extension = ToLowerAscii(outputExtension);
    return true;
  }
  problem = request.output.empty() || request.output == "-" || IsFolderName(request.output)
                ? "give --to EXT or --row N (or -o with a file name whose extension names the format)"
                : "-o " + request.output + ": its extension names no format we write; give --to EXT or --row N";
  return false;
}

// Lossy audio written to a container whose usual form is PCM becomes PCM at 16 bits, as other tools
// do, rather than the compressed data re-wrapped. True when it narrowed the options.
bool PreferPcmForLossySource(int32_t row, Item* item, SaveOptions& options) {
  if (GetFormatRow(row)->itemTypes != kMaskWaveform || !(options.caps & kCapsCompressed) ||
      !(options.caps & (1u << kStoragePcm16)))
    return false;
  for (Waveform* wave : WavesOfItem(item))
    if (OwnStorage(*wave) == kStorageCompressed) {
      options.caps &= ~kCapsCompressed;
      options.rate = 0;
      return true;
    }
  return false;
}

// Loads one source; false with the message in the last-error text.
bool LoadSource(const ConvertRequest& request, const Source& source, Collection& collection) {
  if (request.merge) {
    bool first = true;
    for (const std::string& path : source.paths) {
      if (!OpenFile(collection, path, first ? OpenMode::Replace : OpenMode::Merge)) {
        SetLastError(path + ": " + LastError());
        return false;
      }
      first = false;
    }
    return true;
  }
  const std::string& path = source.paths.front();
  if (request.rawRow >= 0) return LoadFileAsRow(collection, path, request.rawRow);
  if (request.raw) {
    if (CurrentTerminal()) CurrentTerminal()->rawImport = true;
    return LoadFileAsRow(collection, path, kUnrecognizedRow);
  }
  if (LoadFile(collection, path, false)) return true;
  if (LastError() == "Not detected as any supported file type")
    SetLastError(LastError() + " (--raw reads it as raw 8-bit data, --raw-row N with a row's reader)");
  return false;
}

bool SameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  return fs::equivalent(a, b, error) || fs::weakly_canonical(a, error) == fs::weakly_canonical(b, error);
}

// Copies a finished file to standard output.
bool CopyToStdout(const std::string& path) {
  std::string bytes;
  if (!ReadWholeFile(path, bytes)) return false;
  std::cout.write(bytes.data(), std::streamsize(bytes.size()));
  std::cout.flush();
  return bool(std::cout);
}

}  // namespace

int RunConvert(const ConvertRequest& request, std::ostream& out, std::ostream& err) {
  TerminalUserInterface* terminal = CurrentTerminal();
  const bool toStdout = request.output == "-" || request.output == "/dev/stdout";
  // What is printed about the files goes to standard error when standard output carries the data.
  std::ostream& report = toStdout ? err : out;
  std::string extension, problem;
  if (!ChooseRowExtension(request, extension, problem)) {
    err << "orlin: convert: " << problem << "\n";
    return kExitUsage;
  }

  // Inputs: '-' is standard input, a folder stands for its files (or, with --merge, is merged whole).
  std::vector<Source> sources;
  std::vector<std::string> temporaries;
  struct RemoveTemporaries {
    std::vector<std::string>& paths;
    ~RemoveTemporaries() {
      for (const std::string& path : paths) ::unlink(path.c_str());
    }
  } removeTemporaries{temporaries};
  Source merged{"merged inputs", {}};
  for (const std::string& input : request.inputs) {
    std::string path = input;
    if (input == "-") {
      path = StdinToFile(problem);
      if (path.empty()) {
        err << "orlin: standard input: " << problem << "\n";
        return kExitFileFailed;
      }
      temporaries.push_back(path);
    }
    std::error_code error;
    if (request.merge) {
      merged.paths.push_back(path);
    } else if (fs::is_directory(path, error)) {
      for (const std::string& file : FilesOfFolder(path)) sources.push_back({file, {file}});
    } else {
      sources.push_back({input == "-" ? "standard input" : input, {path}});
    }
  }
  if (request.merge) {
    merged.label = request.inputs.front();
    sources.push_back(merged);
  }
  if (sources.empty()) {
    err << "orlin: convert: nothing to convert\n";
    return kExitFileFailed;
  }
  const bool outputIsFolder = !request.output.empty() && !toStdout && IsFolderName(request.output);
  if (sources.size() > 1 && !request.output.empty() && !outputIsFolder) {
    err << "orlin: convert: " << sources.size() << " inputs cannot all be written to \"" << request.output
        << "\": give -o a folder (ending in /) or --merge them into one\n";
    return kExitUsage;
  }

  JsonWriter json;
  json.BeginArray();
  int status = kExitOk;
  for (const Source& source : sources) {
    const std::string& input = source.paths.front();
    Collection collection;
    if (!LoadSource(request, source, collection)) {
      err << "orlin: " << source.label << ": " << LastError() << "\n";
      status = kExitFileFailed;
      continue;
    }
    // Which row: by number, or the first writer of the extension for what the file holds.
    int32_t row = request.row;
    if (row < 0) {
      row = FindWriteRow(extension, 0xFF);
      for (const uint8_t mask : {kMaskCollection, kMaskInstrument, kMaskSong, kMaskWaveform}) {
        const ItemType type = mask == kMaskCollection ? ItemType::Collection
                              : mask == kMaskInstrument ? ItemType::Instrument
                              : mask == kMaskSong       ? ItemType::Song
                                                        : ItemType::Waveform;
        const int32_t candidate = FindWriteRow(extension, mask);
        if (candidate >= 0 && (type == ItemType::Collection || collection.CountOf(type) > 0)) {
          row = candidate;
          break;
        }
      }
    }
    const FormatEntry* entry = GetFormatRow(row);
    if (!entry || !entry->write) {
      err << "orlin: convert: no writable format "
          << (request.row >= 0 ? "row " + std::to_string(request.row) : "\"" + extension + "\"") << "\n";
      return kExitUsage;
    }

    if (!request.saveAllMode.empty()) {
      SaveAllRequest saveAll;
      saveAll.folder = request.output.empty() ? fs::path(input).parent_path().string() : request.output;
      if (saveAll.folder.empty()) saveAll.folder = ".";
      saveAll.baseName = fs::path(input).stem().string();
      saveAll.row = row;
      saveAll.options = DefaultSaveOptions(row);
      saveAll.mode = SaveAllModeByName(request.saveAllMode);
      Item* probe = collection.CountOf(ItemType::Waveform) ? static_cast<Item*>(&collection) : nullptr;
      if (probe && !ApplyChoices(request, row, probe, saveAll.options, problem)) {
        err << "orlin: " << problem << "\n";
        return kExitUsage;
      }
      std::error_code error;
      fs::create_directories(saveAll.folder, error);
      SaveAllResult result;
      if (!SaveAll(collection, saveAll, result)) {
        err << "orlin: " << source.label << ": " << LastError() << "\n";
        status = kExitFileFailed;
        continue;
      }
      if (!request.quiet) report << source.label << ": " << result.message << "\n";
      if (result.failed > 0 || result.cancelled) status = kExitFileFailed;
      continue;
    }

    Item* item = ItemToSave(collection, row);
    if (!item) {
      err << "orlin: " << source.label << ": " << LastError() << "\n";
      status = kExitFileFailed;
      continue;
    }
    // A format with variant rows (MP3 CBR, ABR, VBR) offers each list on its own row: when the
    // row found by extension lacks the named setting, a later row of that extension may have it.
    if (request.row < 0 && !request.dataFormat.empty()) {
      std::vector<const Waveform*> waves;
      for (Waveform* wave : WavesOfItem(item)) waves.push_back(wave);
      const uint8_t itemTypes = entry->itemTypes;
      for (int32_t next = row; next < kFormatRowCount && GetRowExtension(next) == entry->extension; ++next) {
        const FormatEntry* candidate = GetFormatRow(next);
        if (!candidate->write || !(candidate->itemTypes & itemTypes)) continue;
        if (FindComboEntry(DataFormatEntries(next, waves), request.dataFormat) >= 0) {
          row = next;
          entry = candidate;
          break;
        }
      }
    }
    SaveOptions options = DefaultSaveOptions(row);
    if (!ApplyChoices(request, row, item, options, problem)) {
      err << "orlin: " << problem << "\n";
      return kExitUsage;
    }
    if (request.dataFormat.empty() && PreferPcmForLossySource(row, item, options) && !request.quiet)
      err << "orlin: " << source.label << ": lossy source written as PCM 16-bit (--data-format chooses another)\n";

    // Where it goes.
    std::string path;
    std::string stdoutFolder;
    const std::string fileName = fs::path(input).stem().string() + "." + entry->extension;
    if (toStdout) {
      char pattern[] = "/tmp/orlin-stdout-XXXXXX";
      if (!mkdtemp(pattern)) {
        err << "orlin: " << FileErrorText("Could not create file", pattern, errno) << "\n";
        return kExitFileFailed;
      }
      stdoutFolder = pattern;
      path = (fs::path(stdoutFolder) / fileName).string();
    } else if (request.output.empty()) {
      path = (fs::path(input).parent_path() / fileName).string();
    } else if (outputIsFolder) {
      std::error_code error;
      fs::create_directories(request.output, error);
      path = (fs::path(request.output) / fileName).string();
    } else {
      struct stat info;
      if (::stat(request.output.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        path = request.output;  // a device such as /dev/null takes the data as it is
      } else {
        bool resetChoices = false;
        path = ResolveSavePath(request.output, item, row, resetChoices);
        if (resetChoices) options = DefaultSaveOptions(row);
        // The folder of a named output is made as a folder output's is.
        std::error_code error;
        if (fs::path(path).has_parent_path()) fs::create_directories(fs::path(path).parent_path(), error);
      }
    }
    // The input is never the output unless the user says so.
    bool replacesInput = false;
    for (const std::string& sourcePath : source.paths) replacesInput = replacesInput || SameFile(sourcePath, path);
    if (replacesInput && !request.inPlace) {
      err << "orlin: " << source.label << ": the output \"" << path
          << "\" is the input; give another -o, or --in-place to replace the input\n";
      status = kExitUsage;
      continue;
    }
    struct stat existing;
    if (!replacesInput && ::stat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode) &&
        !(terminal ? terminal->ConfirmOverwrite(path) : false)) {
      status = kExitFileFailed;
      continue;
    }
    const bool saved = SaveWithBackup(item, path, row, options, false);
    // Read back before a standard-output copy goes away.
    std::vector<ConversionLoss> losses;
    if (saved) losses = FindConversionLosses(item, LastSavedPaths());
    if (!saved) {
      std::string reason = LastError();
      if (reason.find("read-only") != std::string::npos) reason += " (--force replaces it)";
      err << "orlin: " << source.label << ": " << reason << "\n";
      status = kExitFileFailed;
    } else if (toStdout) {
      if (LastSavedPaths().size() != 1) {
        err << "orlin: " << entry->description << " writes " << LastSavedPaths().size()
            << " files, which cannot go to standard output; give -o a folder\n";
        status = kExitUsage;
      } else if (!CopyToStdout(path)) {
        err << "orlin: standard output: " << std::strerror(errno) << "\n";
        status = kExitFileFailed;
      }
    }
    if (!stdoutFolder.empty()) {
      std::error_code error;
      fs::remove_all(stdoutFolder, error);
    }
    if (!saved) continue;
    // Every file written is named.
    json.BeginObject().Key("input").Value(source.label).Key("row").Value(row).Key("format").Value(entry->description);
    json.Key("files").BeginArray();
    for (const std::string& written : LastSavedPaths()) {
      json.Value(toStdout ? std::string("-") : written);
      if (!request.quiet && !request.json)
        report << source.label << " -> " << (toStdout ? std::string("-") : written) << " (" << entry->description << ")\n";
    }
    json.EndArray();
    // And everything the written file could not hold, one line an item and kind of loss.
    json.Key("lost").BeginArray();
    for (const ConversionLoss& loss : losses) {
      json.BeginObject().Key("item").Value(loss.item).Key("what").Value(loss.what).EndObject();
      if (!request.json && !request.quiet) err << "orlin: " << source.label << ": " << loss.item << ": " << loss.what << "\n";
    }
    json.EndArray().EndObject();
  }
  json.EndArray();
  if (request.json) out << json.Text() << "\n";
  return status;
}

std::pair<CLI::App*, CommandRunner> AddConvertCommand(CLI::App& app, const GlobalOptions& global, std::ostream& out,
                                                       std::ostream& err) {
  auto request = std::make_shared<ConvertRequest>();
  auto* command = app.add_subcommand("convert", "Convert files to another format");
  command->footer(
      "Examples:\n"
      "  orlin convert take.wav -o take.flac                # the format from -o's extension\n"
      "  orlin convert kit/ --merge --to sf2 -o kit.sf2     # every file of a folder into one bank\n"
      "  orlin convert bank.sf2 --to sfz -o kit/             # one SFZ per instrument, with its waves\n"
      "  orlin convert bank.sf2 --to wav --save-all name -o waves/          # waves/<name>.wav\n"
      "  orlin convert bank.sf2 --to wav --save-all number-name -o waves/   # waves/01 - <name>.wav\n"
      "  orlin convert bank.sf2 --to wav --save-all base-number -o waves/   # waves/bank - 01.wav\n"
      "  orlin convert bank.sf2 --to wav --save-all number-base -o waves/   # waves/01 - bank.wav\n"
      "  orlin convert bank.sf2 --to wav --save-all base-name -o waves/     # waves/bank - <name>.wav\n"
      "  orlin convert bank.sf2 --to wav --save-all source-name -o waves/   # named after each wave's source file\n"
      "  orlin convert bank.sf2 --to sfz --save-all patch-name -o kits/     # kits/0-0-5 - <name>.sfz\n"
      "  cat take.flac | orlin convert - --to wav -o - > take.wav\n"
      "An existing output is replaced only after a question (-y/--overwrite replaces, --no keeps);\n"
      "the input is replaced only with --in-place.");
  command->add_option("inputs", request->inputs, "Input files or folders; - reads standard input")->required();
  auto* to = command->add_option("--to", request->toExtension, "Extension of the format to write");
  auto* row = command->add_option("--row", request->row, "Row of the format table to write");
  to->excludes(row);
  command->add_option("-o,--output", request->output,
                      "Output file (its extension names the format when --to is absent), a folder for several "
                      "outputs, or - for standard output");
  command->add_option("--data-format", request->dataFormat,
                      "Storage format by name, e.g. \"PCM 24-bit\" (default: automatic; PCM for lossy sources)");
  command->add_option("--channels", request->channels, "auto, mono or stereo")
      ->check(CLI::IsMember({"auto", "mono", "stereo"}));
  command
      ->add_option("--save-all", request->saveAllMode,
                   "Save every instrument, wave or song in its own file: name, number-name, base-number, "
                   "number-base, base-name, source-name, patch-name (see the examples below)")
      ->check(CLI::IsMember({"name", "number-name", "base-number", "number-base", "base-name", "source-name",
                             "patch-name"}));
  command->add_flag("--merge", request->merge, "Open the first input and merge the rest (folders too) into one");
  command->add_flag("--in-place", request->inPlace, "Allow the output to replace the input");
  auto* raw = command->add_flag("--raw", request->raw, "Read unrecognised inputs as raw 8-bit mono data");
  command->add_option("--raw-row", request->rawRow, "Read every input with the reader of this row")->excludes(raw);
  command->add_flag("--json", request->json, "Print what was written as JSON");
  return {command, [request, &global, &out, &err] {
            request->quiet = global.quiet;
            return RunConvert(*request, out, err);
          }};
}

}  // namespace orlin::cli
