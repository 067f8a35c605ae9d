#include <filesystem>

#include "cli/commands.h"
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

}  // namespace

int RunConvert(const ConvertRequest& request, std::ostream& out, std::ostream& err) {
  int status = kExitOk;
  const bool severalInputs = request.inputs.size() > 1;
  for (const std::string& input : request.inputs) {
    Collection collection;
    if (!LoadFile(collection, input, true)) {
      err << input << ": " << LastError() << "\n";
      status = kExitFileFailed;
      continue;
    }
    // Which row: by number, or the first writer of the extension for what the file holds.
    int32_t row = request.row;
    if (row < 0) {
      row = FindWriteRow(request.toExtension, 0xFF);
      for (const uint8_t mask : {kMaskCollection, kMaskInstrument, kMaskSong, kMaskWaveform}) {
        const ItemType type = mask == kMaskCollection ? ItemType::Collection
                              : mask == kMaskInstrument ? ItemType::Instrument
                              : mask == kMaskSong       ? ItemType::Song
                                                        : ItemType::Waveform;
        const int32_t candidate = FindWriteRow(request.toExtension, mask);
        if (candidate >= 0 && (type == ItemType::Collection || collection.CountOf(type) > 0)) {
          row = candidate;
          break;
        }
      }
    }
    const FormatEntry* entry = GetFormatRow(row);
    if (!entry || !entry->write) {
      err << input << ": no writable format "
          << (request.row >= 0 ? "row " + std::to_string(request.row) : "\"" + request.toExtension + "\"") << "\n";
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
      std::string problem;
      Item* probe = collection.CountOf(ItemType::Waveform) ? static_cast<Item*>(&collection) : nullptr;
      if (probe && !ApplyChoices(request, row, probe, saveAll.options, problem)) {
        err << problem << "\n";
        return kExitUsage;
      }
      std::error_code error;
      fs::create_directories(saveAll.folder, error);
      SaveAllResult result;
      if (!SaveAll(collection, saveAll, result)) {
        err << input << ": " << LastError() << "\n";
        status = kExitFileFailed;
        continue;
      }
      out << input << ": " << result.message << "\n";
      if (result.failed > 0 || result.cancelled) status = kExitFileFailed;
      continue;
    }

    Item* item = ItemToSave(collection, row);
    if (!item) {
      err << input << ": " << LastError() << "\n";
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
    std::string problem;
    if (!ApplyChoices(request, row, item, options, problem)) {
      err << problem << "\n";
      return kExitUsage;
    }
    std::string path;
    const std::string fileName = fs::path(input).stem().string() + "." + entry->extension;
    if (request.output.empty()) {
      path = (fs::path(input).parent_path() / fileName).string();
    } else if (severalInputs || fs::is_directory(request.output) || request.output.back() == '/') {
      // A folder: made when it does not exist yet.
      std::error_code error;
      fs::create_directories(request.output, error);
      path = (fs::path(request.output) / fileName).string();
    } else {
      bool resetChoices = false;
      path = ResolveSavePath(request.output, item, row, resetChoices);
      if (resetChoices) options = DefaultSaveOptions(row);
    }
    if (!SaveWithBackup(item, path, row, options, false)) {
      err << input << ": " << LastError() << "\n";
      status = kExitFileFailed;
      continue;
    }
    out << input << " -> " << path << " (" << GetRowDescription(row) << ")\n";
  }
  return status;
}

}  // namespace orlin::cli
