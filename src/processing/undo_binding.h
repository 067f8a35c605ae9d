// Binds the processing frame's undo hook to an undo ring: a run records the selected items (a whole
// state for the instrument family), names the items it added, and a cancelled run is undone.
#pragma once
#include "core/undo.h"
#include "processing/wizard.h"

namespace orlin {

class RingUndoHook : public UndoHook {
 public:
  explicit RingUndoHook(UndoRing& ring) : ring_(ring) {}
  bool TakeState(std::string_view label, const std::vector<Item*>& items, AlgorithmFamily family) override;
  void RunFinished(const std::vector<Item*>& added, const std::vector<uint32_t>& removedIds) override;
  void Rollback() override { ring_.Undo(); }

 private:
  UndoRing& ring_;
};

}  // namespace orlin
