// The processing frame: the one road through which every offline algorithm runs, from the window,
// the batch conversion and the command line. An algorithm is a row in one of three constant tables;
// the frame offers the rows whose predicate holds for the selection, applies the sub-range rules,
// takes one undo state through the undo hook, runs the row once over the whole selection and
// reports how many items it changed. Nothing here draws: the GUI builds its pages on these records
// and calls the preview functions below.
#pragma once
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/collection.h"

namespace orlin {

// Which table: the values are the ones stored with a request, 9 meaning "from the first selected item".
enum class AlgorithmFamily : uint8_t { Audio = 0, Instrument = 4, Song = 6, FromSelection = 9 };
const char* FamilyWord(AlgorithmFamily family);  // "Audio", "Instrument", "Song"

struct ProcessingWizard;
struct AlgorithmRow;

// Does the work of a row over wizard.items, adding one to wizard.processed per item changed. False
// with the last-error text when it could not run at all; per-item failures go through
// ReportItemFailure and the other items go on.
using AlgorithmProcedure = bool (*)(ProcessingWizard& wizard);
using AlgorithmPredicate = bool (*)(const ProcessingWizard& wizard);

// One setting of an algorithm: a field of the row's settings record, with its bounds. The GUI
// pages and `orlin process --set` fill the same record.
enum class SettingType : uint8_t { Number, Integer, Boolean, Choice, Text, Wave };
struct SettingInfo {
  const char* key;    // as given to --set
  const char* label;  // the page's text
  SettingType type;
  double minimum = 0.0;
  double maximum = 0.0;
  std::vector<const char*> choices;  // Choice: the labels, by index
  void* field = nullptr;             // double, int, bool, int (Choice), std::string (Text, Wave)
};
std::string SettingValueText(const SettingInfo& setting);
// Parses and stores `value`, clamped to the bounds; a Choice takes an index or a label (or a
// unique start of one). False with the last-error text when the value is not understood.
bool SetSettingValue(const SettingInfo& setting, std::string_view value);

enum RowFlags : uint8_t {
  kRowSubRange = 1,    // honours a sub-range of the wave
  kRowNoSettings = 2,  // has no setting of its own
};

struct AlgorithmRow {
  const char* name;
  uint16_t page;  // page template number; also names the page in the GUI
  AlgorithmProcedure procedure;  // null: the row is listed but its algorithm is not available yet
  AlgorithmPredicate enabled;
  const char* predicateName;
  uint8_t flags;
  std::span<const SettingInfo> (*settings)();  // null: none
};

// The three tables in list order (alphabetical by name, as shipped).
std::span<const AlgorithmRow> AlgorithmTable(AlgorithmFamily family);
const AlgorithmRow* FindAlgorithm(AlgorithmFamily family, std::string_view name);
std::span<const SettingInfo> SettingsOf(const AlgorithmRow& row);
// Every settings record back to its first values.
void ResetAlgorithmSettings();

// A horizontal level mark in the preview; a negative level means none.
struct LevelLine {
  float level = -1.0f;
  uint32_t colour = 0;
};

struct ProcessingWizard {
  Collection* collection = nullptr;  // not owned
  std::vector<Item*> items;          // the selection the algorithm walks; may be replaced by it
  uint32_t processed = 0;
  AlgorithmFamily family = AlgorithmFamily::Audio;
  std::string algorithmName;
  const AlgorithmRow* row = nullptr;  // the chosen row, whose procedure runs
  std::span<const AlgorithmRow> table;
  bool direct = false;        // start on the algorithm page, never show the list
  bool backAllowed = true;
  bool quiet = false;         // batch and recording: no undo state, no report, predicates ignored
  bool cancelled = false;
  bool restoreTitle = false;
  bool undoTaken = false;
  bool batchRunning = false;  // a batch conversion drives the frame
  Waveform* previewItem = nullptr;  // the private "<preview>" copy
  uint32_t previewIndex = 0;
  LevelLine levelLines[2];
  bool rangeOn = false;
  bool hideLoop = false;
  int32_t rangeStart = -1;  // first frame processed
  int32_t rangeEnd = -1;    // first frame after it
  std::string pageHelp;

  // What a run left for the caller.
  bool listShown = false;    // the list page had to open (no name, or an unknown one)
  bool treeChanged = false;  // items were added or removed: the tree must be rebuilt
  std::string resultText;    // the status line text of the run
  std::vector<std::string> failures;  // "item: reason" for each item an algorithm skipped

  bool HasRange() const { return rangeOn && rangeStart >= 0 && rangeEnd > rangeStart; }
};

// Prepares a wizard on `items` of `collection`; FromSelection is resolved by the first item.
void InitWizard(ProcessingWizard& wizard, Collection& collection, std::vector<Item*> items,
                AlgorithmFamily family = AlgorithmFamily::FromSelection);
// The rows the list page shows: all with `quiet`, else those whose predicate holds.
std::vector<const AlgorithmRow*> ListedRows(const ProcessingWizard& wizard);
// The row the list selects at first: the named one, else the remembered one, else the first listed.
const AlgorithmRow* InitialRow(const ProcessingWizard& wizard);
// "Working on waveforms", "Working on a region", ...
std::string ListPageText(const ProcessingWizard& wizard);
// "Audio processing wizard - Maximize amplitude - All waveforms", ...
std::string FrameTitle(const ProcessingWizard& wizard);
// Chooses a row as the list does (remembering it) and applies its sub-range rules.
void SelectRow(ProcessingWizard& wizard, const AlgorithmRow* row);

// Runs the named algorithm headless: true when at least one item was modified. With `autoStart`
// and a name in the table the row runs at once; an unknown name clears `direct`, sets `listShown`
// and runs nothing. resultText holds the status line's text afterwards.
bool RunWizard(ProcessingWizard& wizard, std::string_view algorithmName, bool autoStart);
// Runs the already selected row (wizard.row) with the Finish steps: undo state, one run, report.
bool FinishWizard(ProcessingWizard& wizard);
// The caller abandons a run: an undo state taken for it is rolled back.
void CancelWizard(ProcessingWizard& wizard);

// For algorithms: records that `item` was skipped, with the last-error text, and shows it under
// "Error!" (also in quiet mode: a batch must say what it skipped).
void ReportItemFailure(ProcessingWizard& wizard, const Item* item);
// The selected waveforms in order (null entries and other types skipped).
std::vector<Waveform*> SelectedWaves(const ProcessingWizard& wizard);

// The preview, headless: the GUI's Update, Restore, << and >> buttons.
Waveform* PreviewShownWave(const ProcessingWizard& wizard);
bool PreviewUpdate(ProcessingWizard& wizard);
void PreviewRestore(ProcessingWizard& wizard);
void PreviewCycle(ProcessingWizard& wizard, int direction);
// At Finish and Cancel: the preview copy goes.
void DropPreview(ProcessingWizard& wizard);
constexpr const char* kPreviewName = "<preview>";

// The undo ring is told before an algorithm changes anything, through this hook. The default does
// nothing; the undo subsystem installs its own. For the Instrument family the whole instrument side
// is to be saved, for the others the selected items (`family` Song marks a song entry).
class UndoHook {
 public:
  virtual ~UndoHook() = default;
  // True when a state stands for this run and can be rolled back.
  virtual bool TakeState(std::string_view label, const std::vector<Item*>& items, AlgorithmFamily family) {
    return false;
  }
  // After the run: the items it added (the pieces of a split, the right half of a mono split) and
  // the ids of those it removed (a wave deleted as all silence), which an entry of the selected
  // items alone cannot undo.
  virtual void RunFinished(const std::vector<Item*>& added, const std::vector<uint32_t>& removedIds) {}
  // Undoes the state taken last (a run that was cancelled after its state was taken).
  virtual void Rollback() {}
};
// Installs `hook` (not owned); null restores the no-op default.
void SetUndoHook(UndoHook* hook);
UndoHook& CurrentUndoHook();

}  // namespace orlin
