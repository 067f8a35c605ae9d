#include "core/pipeline.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <system_error>

#include "core/file_object.h"
#include "core/fixup.h"
#include "core/last_error.h"
#include "core/save_choice.h"
#include "core/save_transaction.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/user_interface.h"

namespace fs = std::filesystem;

namespace orlin {

namespace {

// Runs a reader, writer or fix-up; a failed allocation inside becomes the failure "Out of memory".
// Readers size memory by what a file can deliver, so this is the last line, not the rule.
template <typename Step>
bool CatchOutOfMemory(Step&& step) {
  try {
    return step();
  } catch (const std::bad_alloc&) {
    SetLastError("Out of memory");
    return false;
  } catch (const std::length_error&) {
    SetLastError("Out of memory");
    return false;
  }
}

// Flags of the one load or save running on this thread (batch conversion runs files in parallel).
thread_local bool loadingFlag = false;
thread_local bool savingFlag = false;
// The folder of the user's last answer to "locate file", for the rest of one load.
thread_local std::string rememberedLocateFolder;

std::string FileStem(const std::string& path) { return fs::path(path).stem().string(); }

bool PathExists(const std::string& path) {
  std::error_code error;
  return fs::exists(path, error);
}

std::string SizeText(uint64_t bytes) {
  char text[64];
  if (bytes < 1024) std::snprintf(text, sizeof text, "(%d Bytes)", int(bytes));
  else if (bytes < 1048576) std::snprintf(text, sizeof text, "(%.1f KB)", double(bytes) / 1024.0);
  else std::snprintf(text, sizeof text, "(%.1f MB)", double(bytes) / 1048576.0);
  return text;
}

bool SameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  return fs::equivalent(a, b, error);
}

// Waves not yet decoded from `path` must be read before that file is renamed or overwritten.
bool PreloadWavesFrom(Collection& collection, const std::string& path) {
  for (Waveform* wave : collection.All<Waveform>())
    if (!wave->Data() && wave->decoder && SameFile(wave->GetSourcePath(), path) && !wave->Preload()) return false;
  return true;
}

}  // namespace

bool LoadingInProgress() { return loadingFlag; }
bool SavingInProgress() { return savingFlag; }

namespace {

// Detection (when `forcedRow` is negative), the read and the fix-ups of one file.
bool LoadWithRow(Collection& collection, const std::string& path, bool allowUnknown, int32_t forcedRow) {
  // Readers find files named inside this one through LocateFile, against this file's folder: the
  // process's current folder is left alone so that files can load in parallel.
  ResetLocateFolder();
  FileObject file;
  if (!file.Open(path, FileMode::Read)) {
    // The text names the path and the reason.
    RemoveRecentFile(path);
    return false;
  }
  if (file.Size() <= 0) {
    SetLastError("File is of zero size");
    return false;
  }
  int32_t row = forcedRow;
  if (row < 0) {
    int32_t confidence = 0;
    row = DetectFileFormat(path, file, confidence);
    // A file of a known format whose reader is not written yet is said to be so, never read as noise.
    if (row <= kUnrecognizedRow) {
      const int32_t known = RecognisedRowWithoutReader(path);
      if (known >= 0) {
        SetLastError(GetRowDescription(known) + " (." + GetRowExtension(known) + ", row " + std::to_string(known) +
                     ") is recognised but cannot be read yet");
        return false;
      }
    }
    if (row < 0) {
      SetLastError("Not a supported import file type");
      return false;
    }
    if (confidence == 0 && !allowUnknown) {
      SetLastError("Not detected as any supported file type");
      return false;
    }
  } else if (!GetFormatRow(row) || !GetFormatRow(row)->read) {
    SetLastError("Row " + std::to_string(row) + " (" + GetRowDescription(row) + ") has no reader");
    return false;
  }
  collection.Clear();
  collection.SetText(kTextSourceFile, path);
  collection.sourceRow = row;
  collection.SetName(FileStem(path));

  const FormatEntry& entry = *GetFormatRow(row);
  loadingFlag = true;
  file.Seek(0);
  ClearLastError();
  // A file that asks for more memory than there is fails its load and frees what it made; the
  // process and the rest of the user's work go on.
  const bool read = CatchOutOfMemory([&] { return entry.read(&collection, &file, entry.variant); });
  loadingFlag = false;
  file.Close();
  if (!read) {
    const std::string reason = LastError();
    collection.Clear();
    collection.SetName("Empty collection");
    SetLastError(reason.empty() ? "Reading from file failed" : reason);
    return false;
  }
  if (!CatchOutOfMemory([&] {
        FixUpItems(collection, 0xFF, true);
        return true;
      })) {
    collection.Clear();
    collection.SetName("Empty collection");
    return false;
  }
  return true;
}

}  // namespace

bool LoadFile(Collection& collection, const std::string& path, bool allowUnknown) {
  return LoadWithRow(collection, path, allowUnknown, -1);
}

bool LoadFileAsRow(Collection& collection, const std::string& path, int32_t row) {
  return LoadWithRow(collection, path, true, row);
}

namespace {

bool OpenOne(Collection& collection, const std::string& path, OpenMode mode) {
  SetStatus("Reading data...");
  bool ok = false;
  switch (mode) {
    case OpenMode::Replace: ok = LoadFile(collection, path, true); break;
    case OpenMode::Merge: ok = MergeFile(collection, path); break;
    case OpenMode::ReplaceWaves: ok = ReplaceWavesFromFile(collection, path); break;
  }
  if (ok) AddRecentFile(path, false);
  return ok;
}

}  // namespace

bool OpenFile(Collection& collection, const std::string& path, OpenMode mode) {
  if (path.empty()) return true;
  std::error_code error;
  if (fs::is_directory(path, error)) {
    std::vector<fs::path> entries;
    for (const auto& entry : fs::directory_iterator(path, error))
      if (entry.path().filename().string().rfind('.', 0) != 0) entries.push_back(entry.path());
    std::sort(entries.begin(), entries.end());
    for (const fs::path& entry : entries) {
      if (!OpenFile(collection, entry.string(), mode)) return false;
      SetStatus((mode == OpenMode::Replace ? "Opened " : "Merged ") + entry.string());
      // After the first entry the rest of the folder is merged in.
      if (mode == OpenMode::Replace) mode = OpenMode::Merge;
    }
    return true;
  }
  return OpenOne(collection, path, mode);
}

void MergeCollection(Collection& target, Collection& source) { target.MergeFrom(source); }

bool MergeFile(Collection& collection, const std::string& path) {
  Collection loaded;
  if (!LoadFile(loaded, path, true)) return false;
  MergeCollection(collection, loaded);
  // Removing duplicate waves after a merge belongs to the collection algorithms.
  return true;
}

bool ReplaceWavesFromFile(Collection& collection, const std::string& path, int* replacedCount) {
  Collection loaded;
  if (!LoadFile(loaded, path, true)) return false;
  int replaced = 0;
  for (Waveform* wave : collection.All<Waveform>()) {
    Waveform* replacement = nullptr;
    for (Waveform* candidate : loaded.All<Waveform>())
      if (candidate->GetName() == wave->GetName()) {
        replacement = candidate;
        break;
      }
    if (!replacement || !replacement->Preload()) continue;
    wave->AdoptData(replacement->Data());
    wave->decoder = nullptr;
    wave->bits = replacement->bits;
    const LoopInfo& newLoop = replacement->loop;
    const bool noLoop = newLoop.type == 0 && newLoop.start == 0.0f &&
                        (newLoop.end == 0.0f || newLoop.end >= float(replacement->length));
    const bool unchanged = newLoop.start == wave->loop.start && newLoop.end == wave->loop.end;
    if (!noLoop && !unchanged) wave->loop = newLoop;
    wave->FixUp();
    ++replaced;
  }
  if (replacedCount) *replacedCount = replaced;
  return true;
}

void ResetLocateFolder() { rememberedLocateFolder.clear(); }

bool LocateFile(const std::string& sourcePath, const std::string& name, std::string& pathOut) {
  // Names stored by Windows programs use backslashes.
  std::string cleaned = name;
  std::replace(cleaned.begin(), cleaned.end(), '\\', '/');
  const fs::path folder = fs::path(sourcePath).parent_path();
  const std::string fileName = fs::path(cleaned).filename().string();
  std::vector<fs::path> candidates{cleaned, folder / cleaned, folder / fileName};
  if (!rememberedLocateFolder.empty()) candidates.push_back(fs::path(rememberedLocateFolder) / fileName);
  std::error_code error;
  for (const fs::path& candidate : candidates) {
    if (!candidate.empty() && fs::is_regular_file(candidate, error)) {
      pathOut = candidate.string();
      return true;
    }
  }
  std::string answer;
  if (!Ui().LocateFile("Please locate the missing file: " + name, name, answer)) return false;
  rememberedLocateFolder = fs::path(answer).parent_path().string();
  pathOut = answer;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Saving

namespace {

// Wrappers a layer, region or track is saved in; deleted when the save ends.
struct SaveWrapper {
  Item* wrapper = nullptr;
  ~SaveWrapper() { delete wrapper; }
};

Item* WrapForSave(Item* item, SaveWrapper& holder) {
  Collection* collection = item->collection;
  switch (item->Type()) {
    case ItemType::Region: {
      auto* instrument = new Instrument(collection);
      holder.wrapper = instrument;
      instrument->SetName(item->GetName());
      instrument->AddRegionCopy(*static_cast<Region*>(item));
      return instrument;
    }
    case ItemType::Layer: {
      auto* source = static_cast<Layer*>(item);
      auto* instrument = new Instrument(collection);
      holder.wrapper = instrument;
      instrument->SetName(source->GetName());
      if (auto* owner = collection->Find<Instrument>(source->parentId)) {
        instrument->articulation = owner->articulation;
        instrument->patch = owner->patch;
      }
      auto* layer = new Layer(collection);
      layer->parentId = instrument->id;
      instrument->children.push_back(layer->id);
      layer->range = source->range;
      layer->articulation = source->articulation;
      layer->SetName(source->GetName());
      for (uint32_t childId : source->children)
        if (auto* region = collection->Find<Region>(childId)) {
          Region* copy = instrument->AddRegionCopy(*region);
          // Keep the copies together in the one layer.
          if (copy->parentId != layer->id) {
            if (Item* placed = collection->FindItem(copy->parentId)) placed->RemoveChild(copy->id);
            copy->parentId = layer->id;
            layer->children.push_back(copy->id);
          }
        }
      // Layers the search made along the way are empty now.
      for (uint32_t childId : std::vector<uint32_t>(instrument->children))
        if (auto* extra = collection->Find<Layer>(childId); extra && extra != layer && extra->children.empty())
          delete extra;
      return instrument;
    }
    case ItemType::Track: {
      auto* source = static_cast<Track*>(item);
      auto* song = new Song(collection);
      holder.wrapper = song;
      song->SetName(source->GetName());
      if (auto* owner = collection->Find<Song>(source->parentId)) {
        song->format = owner->format;
        song->division = owner->division;
      }
      auto* track = new Track(collection);
      track->SetName(source->GetName());
      track->data = source->data;
      track->patternNumber = source->patternNumber;
      track->flags = source->flags;
      track->firstChannel = source->firstChannel;
      track->parentId = song->id;
      song->children.push_back(track->id);
      return song;
    }
    default: return item;
  }
}

bool HoldsSynthesisModel(const Item* item) {
  if (item->Type() == ItemType::SynthesisModel) return true;
  for (uint32_t childId : item->children) {
    const Item* child = item->collection->FindItem(childId);
    if (child && child->Type() != ItemType::Waveform && HoldsSynthesisModel(child)) return true;
  }
  return false;
}

}  // namespace

bool SaveItem(Item* item, int32_t row, const std::string& path, const SaveOptions& requested, bool noItemCheck) {
  if (!item) {
    SetLastError("No item selected");
    return false;
  }
  const FormatEntry* entry = GetFormatRow(row);
  if (!entry || !entry->write) {
    SetLastError("Invalid export format selected");
    return false;
  }
  const ItemType originalType = item->Type();
  Collection& collection = *item->collection;
  // Empty children vanish before the wrappers copy anything.
  FixUpItems(collection, uint8_t((1u << uint32_t(originalType)) - 1), false);
  SaveWrapper holder;
  Item* saved = WrapForSave(item, holder);
  SaveOptions options = requested;
  options.variant = entry->variant;
  const bool isSong = saved->Type() == ItemType::Song;
  const bool needsRendering = isSong && !(options.caps & kCapsMidi) && !(entry->itemTypes & kMaskSong);
  if (HoldsSynthesisModel(saved)) {
    // Synthesis models become waves only through their synthesis engines, which this build lacks.
    SetLastError("Failed to render synth to wave");
    return false;
  }

  savingFlag = true;
  struct FlagReset {
    ~FlagReset() { savingFlag = false; }
  } flagReset;
  // Waves are not decoded here: writers take their samples in blocks (OpenWaveStream), from memory
  // when a wave is decoded and straight from its source when not, so a conversion never holds a
  // whole wave it does not change.
  if (needsRendering) {
    // Songs are rendered by the synthesizer's song player; without it the save cannot go on.
    SetLastError("Save aborted!");
    return false;
  }
  if (!options.noItemCheck && !noItemCheck) {
    bool holdsSomething = saved->Type() == ItemType::Waveform || !saved->children.empty();
    if (saved->Type() == ItemType::Collection) {
      holdsSomething = collection.CountOf(ItemType::Waveform) > 0 || collection.CountOf(ItemType::Instrument) > 0;
      if ((options.caps & kCapsMidi) || (entry->itemTypes & kMaskSong))
        holdsSomething = holdsSomething || collection.CountOf(ItemType::Song) > 0;
    }
    if (!holdsSomething) {
      SetLastError("Empty item - nothing to save");
      return false;
    }
  }
  SetStatus("Writing: " + saved->GetName() + " (" + entry->description + ")");
  // Every file of the save is written under a temporary name and renamed into place at the end.
  SaveTransaction transaction;
  FileObject* file = transaction.Create(path, true);
  if (!file) return false;
  ClearLastError();
  const bool written = CatchOutOfMemory([&] { return entry->write(saved, file, &options); });
  if (!written) {
    if (LastError().empty()) SetLastError(FileErrorText("Writing to file failed", path, 0));
    return false;
  }
  // Waves not decoded yet from a file about to be replaced are read now, while it is the old one.
  for (const std::string& replaced : transaction.ReplacedTargets())
    if (!PreloadWavesFrom(collection, replaced)) return false;
  if (!transaction.Commit()) return false;
  SetLastSavedPaths(transaction.CommittedPaths());
  SetStatus("");
  return true;
}

bool SaveWithBackup(Item* item, const std::string& path, int32_t row, const SaveOptions& options, bool showStatus) {
  if (showStatus) SetStatus("Saving...");
  // The old file is the backup: it is not moved or touched until the new one is complete and renamed
  // over it, so a failed or interrupted save leaves it as it was and no ".bak" is ever made.
  if (!SaveItem(item, row, path, options)) {
    const std::string reason = LastError();
    if (showStatus) SetStatus("Failed to Save.", StatusMode::Failure);
    AddRecentFile(path, true, true);
    SetLastError(reason);
    return false;
  }
  if (item->Type() == ItemType::Collection) {
    auto* collection = static_cast<Collection*>(item);
    collection->SetText(kTextSourceFile, path);
    collection->sourceRow = row;
  }
  std::error_code error;
  const uint64_t size = fs::file_size(path, error);
  if (showStatus) SetStatus("Saved: " + path + " " + SizeText(error ? 0 : size));
  AddRecentFile(path, true);
  return true;
}

bool SaveCollection(Collection& collection) {
  const std::string path = collection.GetText(kTextSourceFile);
  const int32_t row = collection.sourceRow;
  if (path.empty() || !CanSaveType(row, uint32_t(ItemType::Collection))) {
    SetLastError("Invalid export format selected");
    return false;
  }
  SetStatus("Reading waveforms...");
  for (Waveform* wave : collection.All<Waveform>())
    if (!wave->Preload()) return false;
  return SaveWithBackup(&collection, path, row, DefaultSaveOptions(row), true);
}

const char* SaveAllModeText(int32_t mode) {
  switch (mode) {
    case kSaveAllBaseNumber: return "Save as:  foo - <number>.bar";
    case kSaveAllNumberBase: return "Save as:  <number> - foo.bar";
    case kSaveAllBaseName: return "Save as:  foo - <name>.bar";
    case kSaveAllName: return "Save as:  <name>.bar";
    case kSaveAllNumberName: return "Save as:  <number> - <name>.bar";
    case kSaveAllSourceName: return "Save as:  <source-file-name>.bar";
    case kSaveAllPrompt: return "Prompt on each file";
    case kSaveAllPatchName: return "Save as:  <hibank>-<lobank>-<prg> - <name>.bar";
    default: return "";
  }
}

std::string FileNameFromItemName(std::string_view name) {
  // A name that ends in an extension we write ("kick.wav") loses it first.
  const size_t dot = name.find_last_of('.');
  if (dot != std::string_view::npos && dot > 0 && dot + 1 < name.size() &&
      FindWriteRow(name.substr(dot + 1), 0xFF) >= 0)
    name = name.substr(0, dot);
  std::string out;
  for (char c : name) {
    switch (c) {
      case '.': case 0x7F: case ':': case '\\': case '/': case '*': case '?':
        if (!out.empty()) out += '_';
        break;
      case '"': out += '\''; break;
      case '|': out += ','; break;
      case '<': out += '('; break;
      case '>': out += ')'; break;
      default: out += c;
    }
  }
  if (out.size() > 259) out.resize(259);
  return out.empty() ? "noname" : out;
}

std::string SaveAllFileName(const Item& item, int32_t mode, std::string_view baseName, int number) {
  const std::string counter = std::to_string(number / 10) + std::to_string(number % 10);
  const std::string name = FileNameFromItemName(item.GetName());
  switch (mode) {
    case kSaveAllBaseNumber: return std::string(baseName) + " - " + counter;
    case kSaveAllNumberBase: return counter + " - " + std::string(baseName);
    case kSaveAllBaseName: return std::string(baseName) + " - " + name;
    case kSaveAllNumberName: return counter + " - " + name;
    case kSaveAllSourceName: {
      const std::string source = fs::path(item.GetSourcePath()).stem().string();
      return source.empty() ? name : source;
    }
    case kSaveAllPatchName: {
      const Instrument* instrument = nullptr;
      std::string suffix;
      for (const Item* at = &item; at; at = at->Parent()) {
        if (at->Type() == ItemType::Instrument) {
          instrument = static_cast<const Instrument*>(at);
          break;
        }
      }
      if (!instrument) return name;
      if (instrument != &item) suffix = "." + name;
      return std::string(instrument->IsDrumKit() ? "Drums " : "") + std::to_string(instrument->MajorBank()) + "-" +
             std::to_string(instrument->MinorBank()) + "-" + std::to_string(instrument->Program()) + " - " +
             FileNameFromItemName(instrument->GetName()) + suffix;
    }
    default: return name;
  }
}

bool SaveAll(Collection& collection, const SaveAllRequest& request, SaveAllResult& result) {
  result = {};
  FixUpItems(collection, 0, false);
  const FormatEntry* entry = GetFormatRow(request.row);
  if (!entry || !entry->write) {
    SetLastError("Invalid export format selected");
    return false;
  }
  const std::string extension = entry->extension;
  if (entry->itemTypes & kMaskCollection) {
    const std::string path = (fs::path(request.folder) / (request.baseName + "." + extension)).string();
    if (!SaveItem(&collection, request.row, path, request.options)) return false;
    result.saved = 1;
    result.message = "Saved 1 collection!";
    return true;
  }
  std::vector<Item*> items;
  if (entry->itemTypes & kMaskInstrument) {
    for (Instrument* instrument : collection.All<Instrument>()) items.push_back(instrument);
    if (items.empty()) return SetLastError("No instruments to save!"), false;
  } else if (entry->itemTypes & kMaskWaveform) {
    for (Waveform* wave : collection.All<Waveform>()) items.push_back(wave);
    if (items.empty()) return SetLastError("No waveforms to save!"), false;
  } else if (entry->itemTypes & kMaskSong) {
    for (Song* song : collection.All<Song>()) items.push_back(song);
    if (items.empty()) return SetLastError("No songs to save!"), false;
  } else {
    SetLastError("Can't 'Save all...' with this file format!");
    return false;
  }

  int number = 0;
  int rememberedAnswer = -1;  // the answer to use for every further collision
  bool askedToRemember = false;
  for (Item* item : items) {
    ++number;
    std::string path;
    if (request.mode == kSaveAllPrompt) {
      const std::string suggested = (fs::path(request.folder) / FileNameFromItemName(item->GetName())).string();
      if (!Ui().AskSavePath("Save as", suggested + "." + extension, path)) continue;
    } else {
      const std::string stem = SaveAllFileName(*item, request.mode, request.baseName, number);
      fs::path folder = request.folder;
      if (request.subFolders) {
        folder /= stem;
        std::error_code error;
        fs::create_directories(folder, error);
      }
      path = (folder / (stem + "." + extension)).string();
    }
    bool skip = false;
    while (PathExists(path)) {
      int answer = rememberedAnswer;
      if (answer < 0) {
        char question[1024];
        std::snprintf(question, sizeof question,
                      "The auto-named file \"%s\" already exists!\nWhat do you want to do with it?", path.c_str());
        answer = Ui().Ask(item->GetName(), question, {"Overwrite", "Skip this", "Rename it", "Cancel all"});
        if (answer < 0) answer = int(CollisionAnswer::CancelAll);
        if (!askedToRemember) {
          askedToRemember = true;
          if (Ui().Ask("Don't ask again?", "Do you want to do the same thing for any additional name collisions?",
                       {"Yes", "No"}) == 0)
            rememberedAnswer = answer;
        }
      }
      if (answer == int(CollisionAnswer::Overwrite)) break;
      if (answer == int(CollisionAnswer::Skip)) {
        skip = true;
        break;
      }
      if (answer == int(CollisionAnswer::CancelAll)) {
        result.cancelled = true;
        result.message = "Failed: Cancelled after " + std::to_string(result.saved) + " files.";
        return true;
      }
      std::string renamed;
      if (!Ui().AskSavePath("Save as", path, renamed)) {
        skip = true;
        break;
      }
      path = renamed;
    }
    if (skip) continue;
    if (SaveWithBackup(item, path, request.row, request.options, false)) {
      ++result.saved;
    } else {
      ++result.failed;
      Ui().Warn("Error!", LastError());
    }
  }
  result.message = "Done: Saved " + std::to_string(result.saved) + " files.";
  return true;
}

}  // namespace orlin
