#include "processing/undo_binding.h"

#include <string>

namespace orlin {

bool RingUndoHook::TakeState(std::string_view label, const std::vector<Item*>& items, AlgorithmFamily family) {
  const std::string text(label);
  // Instrument algorithms restructure whole trees: only a whole state brings them back.
  if (family == AlgorithmFamily::Instrument) return ring_.SaveUndoState(text.c_str());
  ring_.RecordEdit(items, text);
  return true;
}

void RingUndoHook::RunFinished(const std::vector<Item*>& added, const std::vector<uint32_t>& removedIds) {
  // Items the run deleted are not in an entry of the selection; an all-silence wave that went stays
  // gone after Undo (the instrument family's whole state does bring it back).
  if (!added.empty()) ring_.NoteInserted(added);
}

}  // namespace orlin
