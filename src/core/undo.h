// The undo ring and the navigation ring of the main collection. An undo entry holds only what an
// operation changes: the old values of one parameter on a set of items (13 bytes an item), the flat
// records of the items involved, a wave's markers, or the name of a whole state on disk. Applying an
// entry swaps it with what the model holds, so one entry serves for both undo and redo.
//
// For code that changes items (processing, wizards, commands), the contract is one call before the
// change:
//   RecordEdit(items, label)          the items change in place;
//   RecordDelete(items, label)        the items (and what they own) are about to be deleted;
//   RecordMove(items, inserted, rev)  items change and new ones appear; NoteInserted() after the
//                                     change names items that did not exist before;
//   SaveUndoState(label)              anything may change (a whole state goes to disk).
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "core/articulation.h"
#include "core/state_file.h"

namespace orlin {

class Collection;
class Item;
class Waveform;

enum class UndoKind : uint8_t {
  ParamEdit = 0,
  Restore = 1,
  Delete = 2,
  MoveBack = 3,
  Move = 4,
  Edit = 5,
  Markers = 6,
  State = 7,
  Empty = 8,
};

struct UndoEntry {
  uint32_t itemId = 0xFFFFFFFF;  // one item, a type with index 0 for many of one type, or null for mixed
  uint8_t view = 0;              // the tab to return to
  UndoKind kind = UndoKind::Empty;
  std::vector<uint8_t> data;     // ParamEdit block, ItemBlock, marker list, or the state's name
  std::string label;             // shown after "Undo: " / "Redo: "
};

// ItemBlock: u64 total size, u32 counts of removed, changed and inserted items, then per item a u64
// size and its flat record; after the records, for each removed item, the id of the item that stood
// after it in collection order, so that it comes back to its place.
// Applying it deletes the inserted items, brings the removed ones back and overwrites the changed
// ones, after building the block that undoes that.
std::vector<uint8_t> MakeItemBlock(const Collection& collection, const std::vector<const Item*>& removed,
                                   const std::vector<const Item*>& changed, const std::vector<const Item*>& inserted);

class UndoRing {
 public:
  static constexpr int kEntries = 64;

  explicit UndoRing(Collection& collection, StateRing* states = nullptr) : collection_(collection), states_(states) {}
  ~UndoRing();
  UndoRing(const UndoRing&) = delete;
  UndoRing& operator=(const UndoRing&) = delete;

  bool Undo();
  bool Redo();
  bool CanUndo() const;
  bool CanRedo() const;
  // The label of the entry Undo / Redo would apply; "" when none.
  std::string UndoLabel() const;
  std::string RedoLabel() const;

  // Before a parameter changes on the items. `noMerge` false is a drag: a call on the same parameter
  // and items as the current entry is dropped, so the entry keeps the values from the drag's start.
  void RecordParamEdit(const std::vector<Item*>& items, ParamId paramId, uint16_t extraId = 0, bool isReset = false,
                       bool noMerge = true);
  // Before the items are deleted; what they own goes into the entry with them, and so do their
  // parents' child lists and the regions that play a deleted wave.
  void RecordDelete(const std::vector<Item*>& items, const std::string& label = {});
  // Before items move between parents or in a child list; `insertedItems` already exist and go away
  // on undo. `reverse` records a move back.
  void RecordMove(const std::vector<Item*>& items, const std::vector<Item*>& insertedItems, bool reverse = false);
  // Before the items change in place.
  void RecordEdit(const std::vector<Item*>& items, const std::string& label = {});
  void RecordMarkers(const Waveform& wave);
  // Before items are created under `parents` (which may be empty for top-level items); NoteInserted()
  // names the new items afterwards.
  void RecordInsert(const std::vector<Item*>& parents, const std::string& label);
  // After the operation of the newest entry: items it created, which undo deletes (a paste, a new
  // instrument, a clone). Their owned items follow them.
  void NoteInserted(const std::vector<Item*>& items);
  // A whole state on disk ("Undo state %d"), for operations too big to record piecewise; `label`
  // null gives "Edit all". False when the state could not be written: the ring is then unchanged.
  bool SaveUndoState(const char* label);
  // A loaded state as an undo step: the model before it goes to disk first.
  bool PushLoadedState(const std::string& label);
  void ClearUndo();

  // For the status line after Undo/Redo: "Undo: ..." / "Redo: ...".
  const std::string& LastStatus() const { return lastStatus_; }
  int EntryCount() const;
  const UndoEntry* Current() const { return current_ < 0 ? nullptr : &entries_[size_t(current_)]; }
  // Item id and tab that the last Undo/Redo wants shown.
  uint32_t ShownItem() const { return shownItem_; }
  uint8_t ShownView() const { return shownView_; }
  // Names of the undo state files the ring holds, for deleting them at exit.
  std::vector<std::string> StateNames() const;

 private:
  void Push(UndoEntry entry);
  void Free(UndoEntry& entry);
  bool Apply(UndoEntry& entry);
  std::string Describe(const std::vector<Item*>& items) const;
  uint32_t EntryItemId(const std::vector<Item*>& items) const;

  Collection& collection_;
  StateRing* states_;
  std::array<UndoEntry, kEntries> entries_;
  int oldest_ = -1;
  int newest_ = -1;
  int current_ = -1;  // the entry Undo applies; one before oldest (-1 with entries) when all are undone
  bool allUndone_ = false;
  std::string lastStatus_;
  uint32_t shownItem_ = 0xFFFFFFFF;
  uint8_t shownView_ = 0;
};

// Back and Forward through the items and panes that were shown. An id with 8 in its top bits names
// a pane, not an item.
class NavigationRing {
 public:
  static constexpr int kEntries = 64;
  static constexpr uint32_t kPaneType = 8;

  explicit NavigationRing(const Collection& collection) : collection_(collection) {}
  void Visit(uint32_t itemId, uint8_t tab);
  void VisitPane(uint32_t paneId, uint8_t tab) { Visit((kPaneType << 28) | (paneId & 0x0FFFFFFF), tab); }
  // False when at the end, or when the entry's item no longer exists (the index stays moved).
  bool Back(uint32_t& itemId, uint8_t& tab);
  bool Forward(uint32_t& itemId, uint8_t& tab);

 private:
  bool Resolve(int at, uint32_t& itemId, uint8_t& tab) const;
  const Collection& collection_;
  std::array<std::pair<uint32_t, uint8_t>, kEntries> entries_{};
  int oldest_ = -1;
  int newest_ = -1;
  int current_ = -1;
};

}  // namespace orlin
