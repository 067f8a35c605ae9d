// Parameter edits with their linked rows, resets and propagated differences. Values at lower levels
// are always effective numbers, so after an edit at an instrument or layer the levels below are
// refilled from the top; a level's own settings (its mask) are never overwritten by a refill.
#include "core/param_edit.h"

#include "core/collection.h"

namespace orlin {

namespace {

void RefillBelow(Item& item) {
  if (auto* instrument = dynamic_cast<Instrument*>(&item)) {
    for (uint32_t childId : instrument->children)
      if (Layer* layer = instrument->collection->Find<Layer>(childId)) {
        layer->articulation.FillFrom(instrument->articulation);
        RefillBelow(*layer);
      }
  } else if (auto* layer = dynamic_cast<Layer*>(&item)) {
    for (uint32_t childId : layer->children)
      if (Region* region = layer->collection->Find<Region>(childId)) region->articulation.FillFrom(layer->articulation);
  }
}

// Set or reset of one id with its linked rows, without the refill.
void ApplyWithLinks(Item& item, ParamId id, float value, uint64_t features) {
  if (value == kResetValue) {
    item.InheritParam(id, item.GetInheritedParam(id));
    for (ParamId linked : LinkedParams(id, features)) item.InheritParam(linked, item.GetInheritedParam(linked));
    return;
  }
  item.SetParam(id, value);
  for (ParamId linked : LinkedParams(id, features)) item.SetParam(linked, value);
}

// A level that sets the id moves by `delta`; one that does not simply inherits.
void ShiftIfSet(Item& item, ParamId id, float delta, uint64_t features) {
  if (item.IsParamSet(id)) ApplyWithLinks(item, id, item.GetParam(id) + delta, features);
}

}  // namespace

void EditParam(Item& item, ParamId id, float value, uint64_t features) {
  if (value == kDifferentValue) return;
  ApplyWithLinks(item, id, value, features);
  RefillBelow(item);
}

void EditParamOnSelection(const std::vector<Item*>& items, ParamId id, float value, bool propagateDelta,
                          uint64_t features) {
  if (items.empty() || value == kDifferentValue) return;
  const ParamInfo* row = GetParamRow(id);
  bool deltaMode = propagateDelta && id < kArticulationParamCount && row && row->kind >= kKindEffectTime &&
                   row->kind <= kKindGroup && value != kResetValue;
  const float oldValue = items[0]->GetParam(id);
  for (Item* item : items) deltaMode = deltaMode && item->GetParam(id) == oldValue;
  const float delta = value - oldValue;
  for (Item* item : items) ApplyWithLinks(*item, id, value, features);
  if (deltaMode) {
    for (Item* item : items) {
      if (item->Type() == ItemType::Instrument) {
        for (Layer* layer : ChildrenOf<Layer>(*item)) {
          ShiftIfSet(*layer, id, delta, features);
          for (Region* region : ChildrenOf<Region>(*layer)) ShiftIfSet(*region, id, delta, features);
        }
      } else if (item->Type() == ItemType::Layer) {
        for (Region* region : ChildrenOf<Region>(*item)) ShiftIfSet(*region, id, delta, features);
      }
    }
  }
  for (Item* item : items) RefillBelow(*item);
}

void SetSendLevel(Instrument& instrument, int send, float value) {
  const ParamId id = ParamId(57 + 2 * send);
  bool regionUnreached = false;
  for (Layer* layer : ChildrenOf<Layer>(instrument)) {
    const bool layerHolds = layer->articulation.IsSet(id);
    if (layerHolds) layer->articulation.Set(id, value);
    for (Region* region : ChildrenOf<Region>(*layer)) {
      if (region->articulation.IsSet(id)) region->articulation.Set(id, value);
      else if (!layerHolds) regionUnreached = true;
    }
  }
  if (regionUnreached) instrument.articulation.Set(id, value);
  RefillBelow(instrument);
}

}  // namespace orlin
