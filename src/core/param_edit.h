// Edits of parameters as the property panes make them: the reset value, the rows that the feature
// word folds together, the refill of lower levels, and the "propagate down delta" mode.
#pragma once
#include <vector>

#include "core/articulation.h"

namespace orlin {

class Item;
class Instrument;

// Sets `value` on the item and on the rows linked to `id` under `features`; kResetValue takes the
// inherited value instead and clears the set bits. An instrument or layer then refills the levels
// below, leaving their overrides alone.
void EditParam(Item& item, ParamId id, float value, uint64_t features);
// The edit of a multi-selection. With `propagateDelta` and an articulation id of a numeric kind on
// which all selected items agree, lower levels that set the id move by the same difference.
void EditParamOnSelection(const std::vector<Item*>& items, ParamId id, float value, bool propagateDelta,
                          uint64_t features);
// Send level `send` (0-3) on a whole instrument: set where a level already holds it, else at the
// instrument, then refilled down.
void SetSendLevel(Instrument& instrument, int send, float value);

}  // namespace orlin
