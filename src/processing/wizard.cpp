// The headless processing frame: row choice, sub-range rules, the undo state, one run over the
// selection, the status line's report, and the preview copy.
#include "processing/wizard.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <unordered_set>

#include "core/last_error.h"
#include "core/user_interface.h"

namespace orlin {

namespace {

UndoHook gNoUndo;
UndoHook* gUndoHook = &gNoUndo;

// The row chosen last, one per family, for the run of the program.
const AlgorithmRow* gRemembered[3] = {};
int FamilySlot(AlgorithmFamily family) {
  return family == AlgorithmFamily::Instrument ? 1 : family == AlgorithmFamily::Song ? 2 : 0;
}

bool AllWavesSelected(const ProcessingWizard& wizard) {
  if (!wizard.collection) return false;
  size_t waves = 0;
  for (const Item* item : wizard.items)
    if (item && item->Type() == ItemType::Waveform) ++waves;
  return waves == wizard.items.size() && waves == wizard.collection->CountOf(ItemType::Waveform);
}

}  // namespace

void SetUndoHook(UndoHook* hook) { gUndoHook = hook ? hook : &gNoUndo; }
UndoHook& CurrentUndoHook() { return *gUndoHook; }

const char* FamilyWord(AlgorithmFamily family) {
  switch (family) {
    case AlgorithmFamily::Instrument: return "Instrument";
    case AlgorithmFamily::Song: return "Song";
    default: return "Audio";
  }
}

const AlgorithmRow* FindAlgorithm(AlgorithmFamily family, std::string_view name) {
  for (const AlgorithmRow& row : AlgorithmTable(family))
    if (name == row.name) return &row;
  return nullptr;
}

std::span<const SettingInfo> SettingsOf(const AlgorithmRow& row) {
  return row.settings ? row.settings() : std::span<const SettingInfo>{};
}

std::string SettingValueText(const SettingInfo& setting) {
  switch (setting.type) {
    case SettingType::Number: {
      char buffer[32];
      auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, *static_cast<double*>(setting.field));
      return std::string(buffer, end);
    }
    case SettingType::Integer: return std::to_string(*static_cast<int*>(setting.field));
    case SettingType::Boolean: return *static_cast<bool*>(setting.field) ? "on" : "off";
    case SettingType::Choice: {
      const int index = *static_cast<int*>(setting.field);
      return index >= 0 && size_t(index) < setting.choices.size() ? setting.choices[size_t(index)] : std::to_string(index);
    }
    default: return *static_cast<std::string*>(setting.field);
  }
}

bool SetSettingValue(const SettingInfo& setting, std::string_view value) {
  auto number = [&](double& out) {
    const std::string text(value);
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return !text.empty() && end && *end == '\0' && std::isfinite(out);
  };
  double parsed = 0;
  switch (setting.type) {
    case SettingType::Number:
      if (!number(parsed)) break;
      *static_cast<double*>(setting.field) = std::clamp(parsed, setting.minimum, setting.maximum);
      return true;
    case SettingType::Integer:
      if (!number(parsed)) break;
      *static_cast<int*>(setting.field) = int(std::clamp(std::round(parsed), setting.minimum, setting.maximum));
      return true;
    case SettingType::Boolean:
      for (const char* yes : {"on", "1", "true", "yes"})
        if (value == yes) return *static_cast<bool*>(setting.field) = true;
      for (const char* no : {"off", "0", "false", "no"})
        if (value == no) return !(*static_cast<bool*>(setting.field) = false);
      break;
    case SettingType::Choice: {
      if (number(parsed) && parsed >= 0 && size_t(parsed) < setting.choices.size() && parsed == std::floor(parsed)) {
        *static_cast<int*>(setting.field) = int(parsed);
        return true;
      }
      // A label, or a start of one that names a single entry.
      int found = -1, matches = 0;
      for (size_t i = 0; i < setting.choices.size(); ++i) {
        const std::string_view label = setting.choices[i];
        if (label == value) {
          found = int(i), matches = 1;
          break;
        }
        if (!value.empty() && label.substr(0, value.size()) == value) found = int(i), ++matches;
      }
      if (matches == 1) {
        *static_cast<int*>(setting.field) = found;
        return true;
      }
      break;
    }
    default:
      *static_cast<std::string*>(setting.field) = std::string(value);
      return true;
  }
  SetLastError("Bad value \"" + std::string(value) + "\" for " + setting.key);
  return false;
}

void InitWizard(ProcessingWizard& wizard, Collection& collection, std::vector<Item*> items, AlgorithmFamily family) {
  wizard = ProcessingWizard{};
  wizard.collection = &collection;
  wizard.items = std::move(items);
  if (family == AlgorithmFamily::FromSelection) {
    const Item* first = wizard.items.empty() ? nullptr : wizard.items[0];
    const ItemType type = first ? first->Type() : ItemType::Collection;
    family = type == ItemType::Waveform                                   ? AlgorithmFamily::Audio
             : type == ItemType::Track || type == ItemType::Song          ? AlgorithmFamily::Song
                                                                          : AlgorithmFamily::Instrument;
  }
  wizard.family = family;
  wizard.table = AlgorithmTable(family);
}

std::vector<const AlgorithmRow*> ListedRows(const ProcessingWizard& wizard) {
  std::vector<const AlgorithmRow*> rows;
  for (const AlgorithmRow& row : wizard.table)
    if (wizard.quiet || row.enabled(wizard)) rows.push_back(&row);
  return rows;
}

const AlgorithmRow* InitialRow(const ProcessingWizard& wizard) {
  const auto listed = ListedRows(wizard);
  auto isListed = [&](const AlgorithmRow* row) { return row && std::find(listed.begin(), listed.end(), row) != listed.end(); };
  if (const AlgorithmRow* named = FindAlgorithm(wizard.family, wizard.algorithmName); isListed(named)) return named;
  if (const AlgorithmRow* remembered = gRemembered[FamilySlot(wizard.family)]; isListed(remembered)) return remembered;
  return listed.empty() ? nullptr : listed[0];
}

std::string ListPageText(const ProcessingWizard& wizard) {
  std::string text = "Working on ";
  if (wizard.items.size() > 1) return text + (wizard.family == AlgorithmFamily::Audio ? "waveforms" : "multiple items");
  const Item* item = wizard.items.empty() ? nullptr : wizard.items[0];
  const std::string word = ItemTypeWord(item ? uint32_t(item->Type()) : 8);
  return text + (word[0] == 'i' ? "an " : "a ") + word;
}

std::string FrameTitle(const ProcessingWizard& wizard) {
  std::string title = std::string(FamilyWord(wizard.family)) + " processing wizard - ";
  if (!wizard.algorithmName.empty()) title += wizard.algorithmName + " - ";
  if (wizard.items.size() == 1 && wizard.items[0]) return title + wizard.items[0]->GetName();
  if (wizard.family == AlgorithmFamily::Audio)
    return title + (AllWavesSelected(wizard) ? "All waveforms" : std::to_string(wizard.items.size()) + " waveforms");
  return title + std::to_string(wizard.items.size()) + " items";
}

void SelectRow(ProcessingWizard& wizard, const AlgorithmRow* row) {
  wizard.row = row;
  wizard.pageHelp.clear();
  if (!row) return;
  wizard.algorithmName = row->name;
  gRemembered[FamilySlot(wizard.family)] = row;
  if (wizard.family != AlgorithmFamily::Audio) {
    wizard.rangeOn = false;
    return;
  }
  // The sub-range controls: a row without range support drops it, a row that needs one forces it.
  if (!(row->flags & kRowSubRange)) {
    wizard.rangeOn = false;
    wizard.rangeStart = wizard.rangeEnd = -1;
    return;
  }
  if (std::strcmp(row->predicateName, "SubRangeOn") == 0) wizard.rangeOn = true;
  if (wizard.rangeOn) {
    if (wizard.rangeStart < 0) wizard.rangeStart = 0;
    if (wizard.rangeEnd <= wizard.rangeStart) {
      const auto waves = SelectedWaves(wizard);
      wizard.rangeEnd = waves.size() == 1 && wizard.items.size() == 1 ? int32_t(waves[0]->length) : wizard.rangeStart + 1;
    }
  }
}

std::vector<Waveform*> SelectedWaves(const ProcessingWizard& wizard) {
  std::vector<Waveform*> waves;
  for (Item* item : wizard.items)
    if (item && item->Type() == ItemType::Waveform) waves.push_back(static_cast<Waveform*>(item));
  return waves;
}

void ReportItemFailure(ProcessingWizard& wizard, const Item* item) {
  const std::string text = LastError().empty() ? "Failed" : LastError();
  wizard.failures.push_back((item ? item->GetName() + ": " : std::string()) + text);
  Ui().Warn("Error!", wizard.failures.back());
}

bool RunWizard(ProcessingWizard& wizard, std::string_view algorithmName, bool autoStart) {
  if (wizard.items.empty()) return false;
  // Every selected wave must decode before the frame opens.
  for (Waveform* wave : SelectedWaves(wizard)) {
    if (!wave->Preload() && !wave->GetSamplesForRead() && wave->length > 0) {
      ReportItemFailure(wizard, wave);
      wizard.cancelled = true;
      wizard.resultText = "Processing was cancelled";
      return false;
    }
  }
  wizard.algorithmName = std::string(algorithmName);
  const AlgorithmRow* row = algorithmName.empty() ? nullptr : FindAlgorithm(wizard.family, algorithmName);
  wizard.direct = autoStart && row;
  if (!wizard.direct) {
    // The list opens; headless, there is nobody to choose from it.
    wizard.listShown = true;
    wizard.row = InitialRow(wizard);
    wizard.cancelled = true;
    if (!wizard.quiet) SetStatus("Processing was cancelled");
    wizard.resultText = "Processing was cancelled";
    return false;
  }
  SelectRow(wizard, row);
  return FinishWizard(wizard);
}

bool FinishWizard(ProcessingWizard& wizard) {
  const AlgorithmRow* row = wizard.row;
  if (!row) return false;
  DropPreview(wizard);
  // A range that is empty or reversed, or outside the Audio family, is dropped without a word.
  if (wizard.family != AlgorithmFamily::Audio || wizard.rangeStart == wizard.rangeEnd || wizard.rangeStart < 0 ||
      wizard.rangeEnd < 0)
    wizard.rangeOn = false;
  if (!row->procedure) {
    SetLastError(std::string("\"") + row->name + "\" is not available yet");
    wizard.failures.push_back(LastError());
    wizard.cancelled = true;
    wizard.resultText = LastError();
    if (!wizard.quiet) SetStatus(wizard.resultText, StatusMode::Failure);
    return false;
  }
  if (!wizard.quiet) {
    wizard.undoTaken = CurrentUndoHook().TakeState(row->name, wizard.items, wizard.family);
  }
  wizard.processed = 0;
  // Which items the run adds or removes, by id: for the tree and for the undo hook.
  std::unordered_set<uint32_t> idsBefore;
  if (wizard.collection)
    for (const Item* item : wizard.collection->AllItems()) idsBefore.insert(item->id);
  ClearLastError();
  if (!row->procedure(wizard)) {
    wizard.failures.push_back(LastError());
    Ui().Warn("Error!", LastError());
  }
  std::vector<Item*> added;
  std::vector<uint32_t> removed;
  if (wizard.collection) {
    for (Item* item : wizard.collection->AllItems())
      if (!idsBefore.erase(item->id)) added.push_back(item);
    removed.assign(idsBefore.begin(), idsBefore.end());
  }
  if (!added.empty() || !removed.empty() || wizard.family != AlgorithmFamily::Audio) wizard.treeChanged = true;
  if (wizard.undoTaken) CurrentUndoHook().RunFinished(added, removed);
  if (wizard.processed == 0) {
    wizard.resultText = "No items were modified";
  } else {
    wizard.resultText = "Processed " + std::to_string(wizard.processed) + " item" +
                        (wizard.processed == 1 ? " using " : "s using ") + row->name;
  }
  if (!wizard.quiet) SetStatus(wizard.resultText);
  return wizard.processed > 0;
}

void CancelWizard(ProcessingWizard& wizard) {
  DropPreview(wizard);
  wizard.cancelled = true;
  if (wizard.undoTaken) {
    CurrentUndoHook().Rollback();
    wizard.undoTaken = false;
  }
  wizard.resultText = "Processing was cancelled";
  if (!wizard.quiet) SetStatus(wizard.resultText);
}

// --- Preview --------------------------------------------------------------------------------------

Waveform* PreviewShownWave(const ProcessingWizard& wizard) {
  if (wizard.previewItem) return wizard.previewItem;
  const auto waves = SelectedWaves(wizard);
  return waves.empty() ? nullptr : waves[std::min<size_t>(wizard.previewIndex, waves.size() - 1)];
}

void DropPreview(ProcessingWizard& wizard) {
  if (wizard.previewItem && wizard.collection &&
      wizard.collection->FindItem(wizard.previewItem->id) == wizard.previewItem)
    delete wizard.previewItem;
  wizard.previewItem = nullptr;
}

void PreviewRestore(ProcessingWizard& wizard) {
  DropPreview(wizard);
  if (!wizard.rangeOn) wizard.rangeStart = wizard.rangeEnd = -1;
}

void PreviewCycle(ProcessingWizard& wizard, int direction) {
  const size_t count = SelectedWaves(wizard).size();
  if (count > 0) {
    const int64_t next = (int64_t(wizard.previewIndex) + direction) % int64_t(count);
    wizard.previewIndex = uint32_t(next < 0 ? next + int64_t(count) : next);
  }
  PreviewRestore(wizard);
}

bool PreviewUpdate(ProcessingWizard& wizard) {
  PreviewRestore(wizard);
  const auto waves = SelectedWaves(wizard);
  if (waves.empty() || !wizard.row || !wizard.row->procedure) return false;
  Waveform* original = waves[std::min<size_t>(wizard.previewIndex, waves.size() - 1)];
  if (!original->Preload()) {
    Ui().Warn("Error!", LastError());
    return false;
  }
  auto* copy = new Waveform(wizard.collection, *original, true, kPreviewName);
  const uint32_t copyId = copy->id;
  // The run sees the one copy; what it counts or reports belongs to the preview, not to the run.
  std::vector<Item*> selection = std::move(wizard.items);
  const uint32_t processed = wizard.processed;
  const size_t failures = wizard.failures.size();
  const bool treeChanged = wizard.treeChanged;
  wizard.items = {copy};
  wizard.row->procedure(wizard);
  wizard.items = std::move(selection);
  wizard.processed = processed;
  wizard.failures.resize(failures);
  wizard.treeChanged = treeChanged;
  Item* still = wizard.collection->FindItem(copyId);
  wizard.previewItem = still == copy ? copy : nullptr;
  // A split adds waves beside the copy: they go again.
  if (wizard.algorithmName.find("Split") != std::string::npos) {
    for (Waveform* wave : wizard.collection->All<Waveform>().ToVector())
      if (wave != wizard.previewItem && wave->GetName().rfind("<preview", 0) == 0) delete wave;
  }
  return wizard.previewItem != nullptr;
}

}  // namespace orlin
