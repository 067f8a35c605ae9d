// Mending after every load and before every save: each item's own fix-up, deletion of empty items,
// the clearing of values that say nothing, moving parameters to the levels the features allow, the
// optional normalisers after a load, and unique patches.
#pragma once
#include <cstdint>
#include <vector>

#include "core/articulation.h"

namespace orlin {

class Collection;
class Item;
class Instrument;
class Layer;
class Region;
class Waveform;

// `typeMask` bit t: delete empty items of type t. `afterLoad`: a reader has just run.
void FixUpItems(Collection& collection, uint8_t typeMask, bool afterLoad);
// Makes the item's name unique among items of its type, case ignored ("piano" -> "piano 1").
void EnsureUniqueName(Item& item);
// The same for every instrument, then every waveform, in one pass each.
void EnsureUniqueNames(Collection& collection);

// The per-kind fix-ups behind each item's FixUp slot.
void FixUpInstrument(Instrument& instrument);
void FixUpLayer(Layer& layer);
void FixUpRegion(Region& region);
void FixUpWaveform(Waveform& wave);

// Moves parameters [first, last) from the children of a layer (its regions) or an instrument (its
// layers) into it. `partial`: move what the children agree on; else all or nothing (false when
// they differ). `skipLevels`: leave master tune (0) and volume (14) alone.
bool MoveUp(Item& parent, bool partial, ParamId first, ParamId last, bool skipLevels);
// MoveUp on a layer, an instrument (its layers, then into it) or every instrument of a collection;
// the number of successful moves.
int MoveArticulationUp(Item& item, bool toLayer, bool toInstrument, bool partial, bool skipLevels);
// Trigger groups on which all regions of the layer agree go to the layer; false if none.
bool MoveTriggerParamsUp(Layer& layer);
// Merges layers whose regions do not overlap; the number of merges.
int CompactLayers(Instrument& instrument, bool compareTriggers, bool compareArticulations);

// The Articulation of an instrument, layer or region; null for other items.
Articulation* ArticulationOf(Item& item);

// Chooses a preset of the features word and fixes up the collection under it.
void ApplyFeatures(Collection& collection, uint64_t features);

}  // namespace orlin
