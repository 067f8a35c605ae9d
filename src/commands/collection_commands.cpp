// The collection commands: questions, undo steps, the change, and the status text.
#include "commands/collection_commands.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "commands/clipboard.h"
#include "core/last_error.h"
#include "core/normalisers.h"
#include "core/pipeline.h"
#include "core/settings.h"
#include "core/state_file.h"

namespace orlin {

namespace {

const std::vector<std::string> kYesNo = {"Yes", "No"};

// Frames of the waves in thousands, rounded, as the status line shows sizes.
std::string KiloSamples(uint64_t frames) { return std::to_string((frames + 500) / 1000); }

std::string Plural(int count, const char* word) { return std::to_string(count) + " " + word + (count == 1 ? "" : "s"); }

bool SameSamples(Waveform& a, Waveform& b) {
  if (a.length != b.length || a.channels != b.channels || a.sampleRate != b.sampleRate) return false;
  const float* left = a.GetSamplesForRead();
  const float* right = b.GetSamplesForRead();
  if (!left || !right) return false;
  return std::memcmp(left, right, size_t(a.length) * a.channels * sizeof(float)) == 0;
}

// The item and what it owns, for records that must bring back a whole branch.
void WithOwned(Item& item, std::vector<Item*>& out) {
  out.push_back(&item);
  for (uint32_t childId : item.children)
    if (TypeOfId(childId) != ItemType::Waveform)
      if (Item* child = item.collection->FindItem(childId)) WithOwned(*child, out);
}

}  // namespace

CommandResult CollectionCommands::Report(bool done, std::string status, StatusMode mode) {
  SetStatus(status, mode);
  return {done, std::move(status), mode};
}

bool CollectionCommands::Confirm(const std::string& text) {
  return Ui().Ask("Please confirm!", text, kYesNo) == 0;
}

bool CollectionCommands::ConfirmDiscard(const std::string& title, bool replaceAll) {
  if (!GetSettings().loadConfirm || collection_.CountOf(ItemType::Waveform) == 0 || undo_.EntryCount() == 0)
    return true;
  const char* text = replaceAll ? "This will replace all loaded data.\n\nContinue?"
                                : "This will discard any changes that you have made.\n\nContinue?";
  return Ui().Ask(title, text, kYesNo) == 0;
}

CommandResult CollectionCommands::ClearAll() {
  if (GetSettings().loadConfirm &&
      Ui().Ask("Confirm clearing collection!", "Collection will be cleared!\n\nAre you sure that you want to proceed?",
               kYesNo) != 0)
    return {};
  collection_.Clear();
  // Nothing of the old collection can be redone or undone into the empty one.
  undo_.ClearUndo();
  return Report(true, "Done: Collection cleared.");
}

CommandResult CollectionCommands::OpenFiles(const std::vector<std::string>& paths) {
  if (paths.empty() || !ConfirmDiscard("Confirm loading file!", true)) return {};
  // The first file that opens replaces the collection; later ones are merged into it.
  bool opened = false;
  std::string failure;
  for (const std::string& path : paths) {
    if (OpenFile(collection_, path, opened ? OpenMode::Merge : OpenMode::Replace)) {
      if (!opened) undo_.ClearUndo();  // nothing before the new file can be undone into it
      opened = true;
    } else {
      failure = path + ": " + LastError();
    }
  }
  if (!opened) return Report(false, "Failed: " + failure, StatusMode::Failure);
  return Report(true, failure.empty() ? "Done: Opened " + Plural(int(paths.size()), "file") : "Failed: " + failure,
                failure.empty() ? StatusMode::Plain : StatusMode::Failure);
}

CommandResult CollectionCommands::MergeFiles(const std::vector<std::string>& paths) {
  if (paths.empty()) return {};
  std::unordered_set<const Item*> before;
  for (const Item* item : collection_.AllItems()) before.insert(item);
  std::string failure;
  int merged = 0;
  for (const std::string& path : paths) {
    if (OpenFile(collection_, path, OpenMode::Merge)) ++merged;
    else failure = path + ": " + LastError();
  }
  // Merged items are new at the end of the collection; undo deletes them.
  std::vector<Item*> added;
  for (Item* item : collection_.AllItems())
    if (!before.count(item) && !item->Parent()) added.push_back(item);
  if (!added.empty()) {
    undo_.RecordInsert({}, "Merge files");
    undo_.NoteInserted(added);
  }
  if (merged == 0) return Report(false, "Failed: " + failure, StatusMode::Failure);
  return Report(true, failure.empty() ? "Done: Merged " + Plural(merged, "file") : "Failed: " + failure,
                failure.empty() ? StatusMode::Plain : StatusMode::Failure);
}

bool RestoreSessionAtStart(Collection& collection, StateRing& states) {
  return GetSettings().persistentState && RestoreLastSession(collection, &states);
}

bool EndSession(const Collection& collection, UndoRing& undo, StateRing& states) {
  if (GetSettings().persistentState) return SaveLastSession(collection);
  states.DeleteAll();
  undo.ClearUndo();  // deletes the files of its state entries
  return true;
}

std::vector<Waveform*> CollectionCommands::UnusedWaves() const {
  std::unordered_set<uint32_t> used;
  for (const Region* region : collection_.All<Region>())
    for (uint32_t childId : region->children) used.insert(childId);
  std::vector<Waveform*> out;
  for (Waveform* wave : collection_.All<Waveform>())
    if (!used.count(wave->id)) out.push_back(wave);
  return out;
}

CommandResult CollectionCommands::DeleteUnusedWaveforms() {
  const std::vector<Waveform*> unused = UnusedWaves();
  if (unused.empty()) return Report(false, "No unused waveforms found");
  if (!Confirm("Do you really want to delete all unused waveforms?")) return {};
  undo_.SaveUndoState("Remove unused waveforms");
  uint64_t frames = 0;
  for (Waveform* wave : unused) {
    frames += uint64_t(wave->length) * wave->channels;
    delete wave;
  }
  const int count = int(unused.size());
  return Report(true, "Done: Deleted " + std::to_string(count) + " unused waveform" + (count == 1 ? "" : "s") + " (" +
                          KiloSamples(frames) + "K samples freed)");
}

CommandResult CollectionCommands::DeleteDuplicateWaveforms() {
  // Waves are grouped by their shape first; samples are compared only within a group.
  std::vector<Waveform*> waves = collection_.All<Waveform>().ToVector();
  std::unordered_map<Waveform*, Waveform*> duplicateOf;
  for (size_t i = 0; i < waves.size(); ++i) {
    if (duplicateOf.count(waves[i])) continue;
    for (size_t j = i + 1; j < waves.size(); ++j)
      if (!duplicateOf.count(waves[j]) && SameSamples(*waves[i], *waves[j])) duplicateOf[waves[j]] = waves[i];
  }
  if (duplicateOf.empty()) return Report(false, "No duplicate waveforms found");
  if (!Confirm("Do you really want to delete any 'duplicate' (bit by bit identical) waveforms?")) return {};
  undo_.SaveUndoState("Remove duplicate waveforms");
  // Regions move to the first of each set of equal waves.
  for (Region* region : collection_.All<Region>())
    for (uint32_t& childId : region->children)
      if (auto* wave = collection_.Find<Waveform>(childId))
        if (auto at = duplicateOf.find(wave); at != duplicateOf.end()) childId = at->second->id;
  uint64_t frames = 0;
  for (Waveform* wave : waves)
    if (duplicateOf.count(wave)) {
      frames += uint64_t(wave->length) * wave->channels;
      delete wave;
    }
  return Report(true, "Deleted " + std::to_string(duplicateOf.size()) + " duplicate waveforms (" + KiloSamples(frames) +
                          "K samples freed)");
}

CommandResult CollectionCommands::DualMonoToStereo() {
  undo_.SaveUndoState("Dual mono -> Stereo");
  const int merged = MergeDualMono(collection_);
  if (merged == 0) return Report(false, "No waveforms merged");
  return Report(true, "Done: Merged " + std::to_string(2 * merged) + " mono waveforms into " +
                          Plural(merged, "stereo waveform"));
}

CommandResult CollectionCommands::StereoToDualMono() {
  undo_.SaveUndoState("Stereo -> Dual mono");
  const int split = SplitStereo(collection_);
  if (split == 0) return Report(false, "No waveforms split");
  return Report(true, "Done: Split " + Plural(split, "stereo waveform"));
}

CommandResult CollectionCommands::AutocreateInstruments() {
  const std::vector<Waveform*> unused = UnusedWaves();
  if (unused.empty()) {
    Ui().Warn("Error!", "No unused waveforms found!\n\nNo new instrument created.");
    return Report(false, "No unused waveforms found!\n\nNo new instrument created.");
  }
  undo_.RecordInsert({}, "Autocreate instruments");
  std::vector<Item*> made;
  for (Waveform* wave : unused) {
    auto* instrument = new Instrument(&collection_);
    instrument->SetName(wave->GetName());
    instrument->AddRegion(wave->id, kFullRange, kFullRange, -1);
    made.push_back(instrument);
  }
  collection_.FixUp();
  undo_.NoteInserted(made);
  return Report(true, "Done: Created " + Plural(int(made.size()), "instrument"));
}

CommandResult CollectionCommands::ReplaceWaveforms(const std::vector<std::string>& paths) {
  if (paths.empty()) return {};
  undo_.SaveUndoState("Replace waveforms");
  int replaced = 0;
  bool failed = false;
  for (const std::string& path : paths) {
    int count = 0;
    if (ReplaceWavesFromFile(collection_, path, &count)) replaced += count;
    else failed = true;
  }
  return Report(replaced > 0, "Replaced " + std::to_string(replaced), failed ? StatusMode::Failure : StatusMode::Plain);
}

Instrument* CollectionCommands::AddInstrument() {
  undo_.RecordInsert({}, "Add new instrument");
  auto* instrument = new Instrument(&collection_);
  instrument->AssignDefaultName();
  collection_.FixUp();
  undo_.NoteInserted({instrument});
  return instrument;
}

Layer* CollectionCommands::AddLayer(Instrument& instrument) {
  undo_.RecordInsert({&instrument}, "Add new layer");
  auto* layer = new Layer(&collection_);
  layer->parentId = instrument.id;
  layer->articulation.FillFrom(instrument.articulation);
  instrument.children.push_back(layer->id);
  layer->SetName("Layer " + std::to_string(instrument.children.size()));
  undo_.NoteInserted({layer});
  return layer;
}

Region* CollectionCommands::AddRegion(Layer& layer, uint32_t waveId) {
  undo_.RecordInsert({&layer}, "Add new region");
  auto* region = new Region(&collection_, MakeId(ItemType::Region, kNextFreeIndex), waveId, kFullRange, kFullRange, -1);
  region->parentId = layer.id;
  region->articulation.FillFrom(layer.articulation);
  layer.children.push_back(region->id);
  undo_.NoteInserted({region});
  return region;
}

Item* CollectionCommands::CloneItem(Item& item) {
  switch (item.Type()) {
    case ItemType::Waveform: {
      undo_.RecordInsert({}, "Clone " + item.GetName());
      auto* copy = new Waveform(&collection_, static_cast<Waveform&>(item), true, item.GetName() + " copy");
      undo_.NoteInserted({copy});
      return copy;
    }
    case ItemType::Region: {
      auto* layer = collection_.Find<Layer>(item.parentId);
      auto* instrument = layer ? collection_.Find<Instrument>(layer->parentId) : nullptr;
      if (!instrument) return nullptr;
      std::vector<Item*> parents{instrument};
      for (Layer* each : ChildrenOf<Layer>(*instrument)) parents.push_back(each);
      undo_.RecordInsert(parents, "Clone region");
      const size_t layersBefore = instrument->children.size();
      Region* copy = instrument->AddRegionCopy(static_cast<Region&>(item));
      std::vector<Item*> made{copy};
      if (instrument->children.size() > layersBefore) made.push_back(collection_.FindItem(instrument->children.back()));
      undo_.NoteInserted(made);
      return copy;
    }
    default: {
      // The branch goes through the clipboard form: new ids for all, the waves shared.
      std::vector<uint8_t> block;
      std::vector<const Item*> items{&item};
      Item* parent = item.Parent();
      undo_.RecordInsert(parent ? std::vector<Item*>{parent} : std::vector<Item*>{}, "Clone " + item.GetName());
      std::vector<Item*> pasted;
      if (!CopyItemsToBlock(collection_, items, CurrentProcessId(), block) ||
          !PasteItemsFromBlock(collection_, block, CurrentProcessId(), &pasted) || pasted.empty())
        return nullptr;
      Item* copy = nullptr;
      for (Item* each : pasted)
        if (each->Type() == item.Type()) copy = each;
      if (copy && parent) {
        copy->parentId = parent->id;
        parent->children.push_back(copy->id);
      }
      undo_.NoteInserted(pasted);
      return copy;
    }
  }
}

bool CollectionCommands::DeleteItems(const std::vector<Item*>& items) {
  if (items.empty()) return false;
  // An item whose owner is deleted too goes with its owner.
  std::unordered_set<const Item*> chosen(items.begin(), items.end());
  std::vector<uint32_t> ids;
  for (Item* item : items) {
    bool ownerChosen = false;
    for (const Item* up = item->Parent(); up && !ownerChosen; up = up->Parent())
      ownerChosen = chosen.count(up) && !(item->Type() == ItemType::Waveform);
    if (!ownerChosen) ids.push_back(item->id);
  }
  undo_.RecordDelete(items);
  for (uint32_t id : ids) delete collection_.FindItem(id);
  return true;
}

bool CollectionCommands::RenameItem(Item& item, const std::string& name) {
  undo_.RecordParamEdit({&item}, kTextName);
  item.SetName(name);
  return true;
}

bool CollectionCommands::MoveLayer(Layer& layer, int step) {
  auto* instrument = collection_.Find<Instrument>(layer.parentId);
  if (!instrument) return false;
  auto at = std::find(instrument->children.begin(), instrument->children.end(), layer.id);
  if (at == instrument->children.end()) return false;
  const std::ptrdiff_t from = at - instrument->children.begin();
  const std::ptrdiff_t to = from + step;
  if (to < 0 || to >= std::ptrdiff_t(instrument->children.size())) return false;
  undo_.RecordEdit({instrument}, step < 0 ? "Move up layer" : "Move down layer");
  std::swap(instrument->children[size_t(from)], instrument->children[size_t(to)]);
  return true;
}

CommandResult CollectionCommands::Copy(const std::vector<Item*>& items, std::vector<uint8_t>& block) {
  std::vector<const Item*> constItems(items.begin(), items.end());
  if (!CopyItemsToBlock(collection_, constItems, CurrentProcessId(), block))
    return Report(false, LastError(), StatusMode::Failure);
  return Report(true, "Copied " + std::to_string(items.size()));
}

CommandResult CollectionCommands::Cut(const std::vector<Item*>& items, std::vector<uint8_t>& block) {
  CommandResult copied = Copy(items, block);
  if (!copied.done) return copied;
  if (GetSettings().loadConfirm) {
    const std::string text = "This will delete \"" + items[0]->GetName() + (items.size() > 1 ? " ..." : "") +
                             "\" - proceed?";
    if (Ui().Ask("Please confirm cut operation", text, kYesNo) != 0) return {false, {}, StatusMode::Plain};
  }
  DeleteItems(items);
  return Report(true, "Cut " + std::to_string(items.size()));
}

CommandResult CollectionCommands::Paste(const std::vector<uint8_t>& block, uint32_t ownProcessId) {
  if (block.empty()) return Report(false, "No Orlin Studio data on the clipboard", StatusMode::Failure);
  std::vector<Item*> pasted;
  if (!PasteItemsFromBlock(collection_, block, ownProcessId, &pasted)) return Report(false, LastError(), StatusMode::Failure);
  // Top-level items only: nothing that stood before changes, so the step is taken afterwards.
  undo_.RecordInsert({}, "Paste");
  undo_.NoteInserted(pasted);
  return Report(true, "Pasted " + std::to_string(pasted.size()));
}

std::vector<uint8_t> CollectionCommands::CopyArticulation(const Item& item) {
  switch (item.Type()) {
    case ItemType::Instrument: return EncodeArticulation(static_cast<const Instrument&>(item).articulation);
    case ItemType::Layer: return EncodeArticulation(static_cast<const Layer&>(item).articulation);
    case ItemType::Region: return EncodeArticulation(static_cast<const Region&>(item).articulation);
    default: return {};
  }
}

CommandResult CollectionCommands::PasteArticulation(const std::vector<Item*>& items, const std::vector<uint8_t>& record) {
  Articulation pastedSet;
  if (!DecodeArticulation(record, pastedSet)) return Report(false, "Nothing to paste", StatusMode::Failure);
  std::vector<Item*> touched;
  for (Item* item : items)
    if (item->Type() == ItemType::Instrument || item->Type() == ItemType::Layer || item->Type() == ItemType::Region)
      WithOwned(*item, touched);
  if (touched.empty()) return Report(false, "Nothing to paste", StatusMode::Failure);
  undo_.RecordEdit(touched, "Paste articulation");
  for (Item* item : items) {
    Articulation* target = item->Type() == ItemType::Instrument ? &static_cast<Instrument*>(item)->articulation
                           : item->Type() == ItemType::Layer    ? &static_cast<Layer*>(item)->articulation
                           : item->Type() == ItemType::Region   ? &static_cast<Region*>(item)->articulation
                                                                : nullptr;
    if (!target) continue;
    // The copied level's own settings become this level's; the rest still comes from above.
    const Item* parent = item->Parent();
    const Articulation* above = parent && parent->Type() == ItemType::Instrument ? &static_cast<const Instrument*>(parent)->articulation
                                : parent && parent->Type() == ItemType::Layer    ? &static_cast<const Layer*>(parent)->articulation
                                                                                 : nullptr;
    *target = pastedSet;
    if (above) target->FillFrom(*above);
    for (Layer* layer : ChildrenOf<Layer>(*item)) {
      layer->articulation.FillFrom(*target);
      for (Region* region : ChildrenOf<Region>(*layer)) region->articulation.FillFrom(layer->articulation);
    }
    if (item->Type() == ItemType::Layer)
      for (Region* region : ChildrenOf<Region>(*item)) region->articulation.FillFrom(*target);
  }
  return Report(true, "Pasted articulation");
}

}  // namespace orlin
