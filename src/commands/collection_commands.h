// The collection commands of the main window without the window: each asks its questions through
// UserInterface, records its undo step, changes the model and answers with the status line text.
// The desktop program binds menus and keys to these; tests drive them with a scripted interface.
#pragma once
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/undo.h"
#include "core/user_interface.h"

namespace orlin {

struct CommandResult {
  bool done = false;  // false: cancelled, nothing to do, or failed
  std::string status;
  StatusMode mode = StatusMode::Plain;
};

class CollectionCommands {
 public:
  CollectionCommands(Collection& collection, UndoRing& undo) : collection_(collection), undo_(undo) {}

  // Asks before the collection is dropped; yes at once without load.bConfirm, with no waves, or with
  // nothing in the undo ring.
  bool ConfirmDiscard(const std::string& title, bool replaceAll);

  CommandResult ClearAll();
  // "Open file...": asks under "Confirm loading file!", opens the first file in place of the
  // collection and merges the others; the undo ring starts afresh. False when nothing opened.
  CommandResult OpenFiles(const std::vector<std::string>& paths);
  // "Merge files...": each file merged; one undo step takes all merged items away again.
  CommandResult MergeFiles(const std::vector<std::string>& paths);
  CommandResult DeleteUnusedWaveforms();
  CommandResult DeleteDuplicateWaveforms();
  CommandResult DualMonoToStereo();
  CommandResult StereoToDualMono();
  // One instrument per unused waveform, its one region over the whole keyboard.
  CommandResult AutocreateInstruments();
  // The files given by the "Select waves to replace current waves of the same name" dialog.
  CommandResult ReplaceWaveforms(const std::vector<std::string>& paths);

  Instrument* AddInstrument();
  Layer* AddLayer(Instrument& instrument);
  // A region over the whole keyboard in `layer`, playing `waveId` (kNoWave for none).
  Region* AddRegion(Layer& layer, uint32_t waveId = kNoWave);
  // A copy beside the original: instruments and songs with all they own (sharing the waves),
  // layers and regions within their parent, waves with their samples.
  Item* CloneItem(Item& item);
  bool DeleteItems(const std::vector<Item*>& items);
  bool RenameItem(Item& item, const std::string& name);
  // Moves a layer up (-1) or down (+1) among its instrument's layers.
  bool MoveLayer(Layer& layer, int step);

  // The "12.7.0.4 Item" block of the items; for a cut, with load.bConfirm the user is asked first,
  // and a no leaves the items (the block is still made).
  CommandResult Copy(const std::vector<Item*>& items, std::vector<uint8_t>& block);
  CommandResult Cut(const std::vector<Item*>& items, std::vector<uint8_t>& block);
  CommandResult Paste(const std::vector<uint8_t>& block, uint32_t ownProcessId);
  // "12.7.0.4 Art" of the item's level; empty when the item has no articulation.
  std::vector<uint8_t> CopyArticulation(const Item& item);
  CommandResult PasteArticulation(const std::vector<Item*>& items, const std::vector<uint8_t>& record);

 private:
  CommandResult Report(bool done, std::string status, StatusMode mode = StatusMode::Plain);
  std::vector<Waveform*> UnusedWaves() const;
  bool Confirm(const std::string& text);

  Collection& collection_;
  UndoRing& undo_;
};

// Start and end of a session (the main function's part): with app.bPersistentState the state "Last
// session" is loaded at start (and pushed to the ring) and taken at the end; without it, the state
// files of the ring and of the undo ring are deleted at the end.
bool RestoreSessionAtStart(Collection& collection, StateRing& states);
bool EndSession(const Collection& collection, UndoRing& undo, StateRing& states);

}  // namespace orlin
