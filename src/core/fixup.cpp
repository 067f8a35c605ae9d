// Load fix-ups and collection normalisers. Each step is one pass over the items of a type;
// deletions collect first and delete afterwards, so no walk meets a deleted item. Empty items go in
// the order waves, models, regions, layers, instruments, so a zero-length wave takes its regions,
// their layers and instrument with it in the same pass.
#include "core/fixup.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <string>
#include <unordered_set>
#include <vector>

#include "core/collection.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/normalisers.h"
#include "core/pcm.h"
#include "core/region_grid.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/user_interface.h"

namespace orlin {

namespace {

// Collects first, deletes afterwards, so that no walk sees a deleted item.
template <typename T, typename Predicate>
bool DeleteWhere(Collection& collection, Predicate isEmpty) {
  std::vector<T*> doomed;
  for (T* item : collection.All<T>())
    if (isEmpty(*item)) doomed.push_back(item);
  for (T* item : doomed) delete item;
  return !doomed.empty();
}

bool HasLiveChild(const Item& item) {
  for (uint32_t childId : item.children)
    if (item.collection->FindItem(childId)) return true;
  return false;
}


const Articulation& ParentArticulation(const Item& item) {
  Item* parent = item.Parent();
  const Articulation* art = parent ? ArticulationOf(*parent) : nullptr;
  return art ? *art : DefaultArticulation();
}

uint64_t TriggerBit(ParamId id) { return uint64_t(1) << (id - kFirstTriggerParam); }

void ClearTrigger(TriggerRange& range, ParamId id) { range.mask &= ~TriggerBit(id); }

// Keys and velocities in order and in 0-127; trigger rows of features the user does not keep are
// zeroed and no longer set.
void NormaliseTrigger(TriggerRange& range, uint64_t features) {
  range.loKey = std::min<uint8_t>(range.loKey, 127);
  range.hiKey = std::min<uint8_t>(range.hiKey, 127);
  range.loVelocity = std::min<uint8_t>(range.loVelocity, 127);
  range.hiVelocity = std::min<uint8_t>(range.hiVelocity, 127);
  if (range.loKey > range.hiKey) std::swap(range.loKey, range.hiKey);
  if (range.loVelocity > range.hiVelocity) std::swap(range.loVelocity, range.hiVelocity);
  range.values[190 - kFirstTriggerParam] = range.loKey;
  range.values[191 - kFirstTriggerParam] = range.hiKey;
  range.values[192 - kFirstTriggerParam] = range.loVelocity;
  range.values[193 - kFirstTriggerParam] = range.hiVelocity;
  auto drop = [&](ParamId id) {
    range.values[id - kFirstTriggerParam] = 0.0f;
    ClearTrigger(range, id);
  };
  if (!HasFeature(features, kFeatureXfade))
    for (ParamId id : {194, 195, 197, 198}) drop(id);
  if (!HasFeature(features, kFeatureTriggerType)) {
    drop(kParamTriggerType);
    drop(kParamPedalSwitch);
  }
  if (!HasFeature(features, kFeatureTriggerDelay)) drop(kParamTriggerDelay);
}

// The layer's value for each trigger row the region does not set. The key and velocity bytes stay:
// readers place regions by them without marking them.
void InheritTrigger(Region& region, const Layer& layer) {
  for (ParamId id = kFirstTriggerParam; id < kFirstLoopParam; ++id) {
    if (id >= 190 && id <= 193) continue;
    if (!(region.range.mask & TriggerBit(id))) region.range.values[id - kFirstTriggerParam] = layer.range.values[id - kFirstTriggerParam];
  }
}

// Each region below the layer takes the layer's values where it sets none.
void FillRegions(Layer& layer) {
  for (Region* region : ChildrenOf<Region>(layer)) region->articulation.FillFrom(layer.articulation);
}

}  // namespace

Articulation* ArticulationOf(Item& item) {
  switch (item.Type()) {
    case ItemType::Instrument: return &static_cast<Instrument&>(item).articulation;
    case ItemType::Layer: return &static_cast<Layer&>(item).articulation;
    case ItemType::Region: return &static_cast<Region&>(item).articulation;
    default: return nullptr;
  }
}

namespace {

std::string NameKey(const Item& item) { return ToUpperAscii(Utf8ToNarrow(item.GetName())); }

// Renames `item` until its name, case ignored, is not in `taken`: a trailing number counts up, unless
// the name ends in a note such as C3 or F#4; otherwise " 1" is appended.
void RenameUntilFree(Item& item, const std::unordered_set<std::string>& taken) {
  while (taken.count(NameKey(item))) {
    std::string name = item.GetName();
    uint64_t number = 0;
    const size_t length = name.size();
    const bool endsInDigit = length > 0 && std::isdigit(uint8_t(name[length - 1]));
    const char beforeLast = length >= 2 ? char(std::toupper(uint8_t(name[length - 2]))) : '\0';
    if (endsInDigit && beforeLast != '#' && !(beforeLast >= 'A' && beforeLast <= 'G')) {
      size_t digitsFrom = length;
      while (digitsFrom > 0 && std::isdigit(uint8_t(name[digitsFrom - 1]))) --digitsFrom;
      number = std::stoull(name.substr(digitsFrom, std::min<size_t>(length - digitsFrom, 18)));
      name.resize(digitsFrom);
    } else {
      name += ' ';
    }
    item.SetName(name + std::to_string(number + 1));
  }
}

// One pass over a kind: each item is compared with the (final) names of the items before it.
template <typename T>
void EnsureUniqueNamesOf(Collection& collection) {
  std::unordered_set<std::string> taken;
  for (T* item : collection.All<T>()) {
    RenameUntilFree(*item, taken);
    taken.insert(NameKey(*item));
  }
}

}  // namespace

void EnsureUniqueName(Item& item) {
  // Only the items before this one count: of "Piano" and "piano" the second is renamed.
  std::unordered_set<std::string> taken;
  for (Item* other : item.collection->AllItems()) {
    if (other == &item) break;
    if (other->Type() == item.Type()) taken.insert(NameKey(*other));
  }
  RenameUntilFree(item, taken);
}

void EnsureUniqueNames(Collection& collection) {
  EnsureUniqueNamesOf<Instrument>(collection);
  EnsureUniqueNamesOf<Waveform>(collection);
}

// ---------------------------------------------------------------------------------------------
// Per-kind fix-ups

void FixUpInstrument(Instrument& instrument) {
  instrument.DropDanglingChildren();
  if (instrument.GetName().empty()) {
    if (instrument.GetText(kTextSourceFile).empty())
      instrument.SetText(kTextSourceFile, instrument.collection->GetText(kTextSourceFile));
    instrument.AssignDefaultName();
  }
  int number = 1;
  for (Layer* layer : ChildrenOf<Layer>(instrument)) {
    layer->drumFlag = instrument.IsDrumKit();
    if (layer->GetName().empty()) layer->SetName("Layer " + std::to_string(number));
    ++number;
  }
  // Effect slots: the type first, since it decides the rows of the other seven values.
  for (int slot = 0; slot < kEffectSlotCount; ++slot) {
    for (int view = 0; view < kEffectViewsPerSlot; ++view) {
      const ParamId id = ParamId(kFirstEffectParam + slot * kEffectViewsPerSlot + view);
      float& value = instrument.effectSlots[id - kFirstEffectParam];
      const ParamInfo* row = instrument.GetParamInfo(id);
      if (!std::isfinite(value)) value = row->defaultValue;
      if (row->kind != kKindNone) value = std::clamp(value, row->minValue, row->maxValue);
    }
  }
  instrument.articulation.Clamp();
  if (std::memcmp(instrument.articulation.Values(), DefaultArticulation().Values(),
                  sizeof(float) * kArticulationParamCount) != 0) {
    for (Layer* layer : ChildrenOf<Layer>(instrument))
      if (layer->articulation.FillFrom(instrument.articulation)) FillRegions(*layer);
  }
  // Phase-locked regions of other layers take the master's pitch rows where they set none.
  const std::vector<Layer*> layers = ChildrenOf<Layer>(instrument);
  for (Layer* layer : layers) {
    for (Region* master : ChildrenOf<Region>(*layer)) {
      if (!master->phaseMaster || master->phaseGroup == 0) continue;
      bool xLfoUsed = false;
      for (ParamId id = 77; id <= 80; ++id) xLfoUsed |= master->articulation.IsSet(id);
      for (Layer* other : layers) {
        if (other == layer) continue;
        for (Region* region : ChildrenOf<Region>(*other)) {
          if (region->phaseMaster || region->phaseGroup != master->phaseGroup) continue;
          if (region->range.loKey != master->range.loKey || region->range.hiKey != master->range.hiKey ||
              region->range.loVelocity != master->range.loVelocity || region->range.hiVelocity != master->range.hiVelocity)
            continue;
          auto copy = [&](ParamId id) {
            if (!region->articulation.IsSet(id)) region->articulation.Inherit(id, master->articulation.Get(id));
          };
          for (ParamId id = 0; id <= 13; ++id) copy(id);
          if (xLfoUsed)
            for (ParamId id = 77; id <= 80; ++id) copy(id);
        }
      }
    }
  }
}

void FixUpLayer(Layer& layer) {
  layer.DropDanglingChildren();
  NormaliseTrigger(layer.range, GetSettings().features);
  layer.articulation.Clamp();
  if (Instrument* instrument = layer.collection->Find<Instrument>(layer.parentId))
    layer.articulation.FillFrom(instrument->articulation);
  FillRegions(layer);
}

void FixUpRegion(Region& region) {
  const uint64_t features = GetSettings().features;
  region.DropDanglingChildren();
  NormaliseTrigger(region.range, features);
  region.articulation.Clamp();
  if (Layer* layer = region.collection->Find<Layer>(region.parentId)) {
    InheritTrigger(region, *layer);
    region.articulation.FillFrom(layer->articulation);
  }
  const Waveform* wave = region.GetWave();
  const int64_t length = wave ? int64_t(wave->length) : 0;
  if (HasFeature(features, kFeatureRegionOffsets) && wave) {
    region.startOffset = int32_t(std::clamp<int64_t>(region.startOffset, 0, std::max<int64_t>(length - 1, 0)));
    region.endOffset = int32_t(std::clamp<int64_t>(region.endOffset, std::min<int64_t>(region.startOffset - length + 1, 0), 0));
  } else if (HasFeature(features, kFeatureRegionOffsets)) {
    region.startOffset = std::max(region.startOffset, 0);
    region.endOffset = std::min(region.endOffset, 0);
  } else {
    region.startOffset = region.endOffset = 0;
  }
  if (wave) {
    // Values without an override follow the wave.
    if (!(region.overrideFlags & Region::kOverrideRoot)) region.rootKey = wave->rootKey;
    if (!(region.overrideFlags & Region::kOverrideLoopType)) region.loop.type = wave->loop.type;
    if (!(region.overrideFlags & Region::kOverrideLoopRelease)) region.loop.release = wave->loop.release;
    if (!(region.overrideFlags & Region::kOverrideLoopStart)) region.loop.start = wave->loop.start;
    if (!(region.overrideFlags & Region::kOverrideLoopEnd)) region.loop.end = wave->loop.end;
    if (!(region.overrideFlags & Region::kOverrideLoopTune)) region.loop.tune = wave->loop.tune;
  }
  constexpr uint8_t kMiddleC = 60;
  if (region.rootKey >= 128) region.rootKey = kMiddleC;
  if (region.overrideFlags & Region::kOverrideLoopEnd)
    region.loop.end = std::clamp(region.loop.end, 0.0f, float(length));
  if (region.overrideFlags & Region::kOverrideLoopStart) {
    const float end = (region.overrideFlags & Region::kOverrideLoopEnd) || !wave ? region.loop.end : wave->loop.end;
    if (!(region.loop.start < end)) region.loop.start = end - 1.0f;
    region.loop.start = std::max(region.loop.start, 0.0f);
  }
  if (!HasFeature(features, kFeatureFractionalLoops)) {
    // Whole samples: the start to the nearest, the end so that the loop's length rounds alike.
    const float start = region.loop.start;
    if (region.overrideFlags & Region::kOverrideLoopStart) region.loop.start = std::round(start);
    if (region.overrideFlags & Region::kOverrideLoopEnd)
      region.loop.end = std::round(start) + std::round(region.loop.end - start);
  }
}

void FixUpWaveform(Waveform& wave) {
  const uint64_t features = GetSettings().features;
  wave.DropDanglingChildren();
  if (wave.GetName().empty()) wave.AssignDefaultName();
  if (wave.GetText(kTextSourceFile).empty() && !wave.collection->GetText(kTextSourceFile).empty())
    wave.SetText(kTextSourceFile, wave.collection->GetText(kTextSourceFile));
  constexpr uint32_t kRateOfUnknown = 44100;
  if (wave.sampleRate == 0) wave.sampleRate = kRateOfUnknown;
  wave.rootKey = std::min<uint8_t>(wave.rootKey, 127);
  wave.fineTune = std::clamp<int8_t>(wave.fineTune, -100, 100);
  wave.gain = std::isfinite(wave.gain) ? std::round(std::clamp(wave.gain, -96.0f, 96.0f) * 100.0f) / 100.0f : 0.0f;
  wave.loop.Normalise(wave.length, HasFeature(features, kFeatureFractionalLoops));
  if (!HasFeature(features, kFeatureLoopTune)) wave.loop.tune = 0.0f;
  // Reverse and alternating loops are rewritten to play forward where the user keeps no such loops;
  // without samples at hand the loop at least plays forward.
  if (!HasFeature(features, kFeatureReverseLoops) && (wave.loop.type == 2 || wave.loop.type == 3) && wave.length > 0 &&
      !RewriteLoops(wave, true, true, false))
    wave.loop.type = 1;
  for (Marker& marker : wave.markers)
    if (marker.section && marker.end < marker.start) std::swap(marker.start, marker.end);
  std::erase_if(wave.markers, [&](const Marker& marker) { return marker.start >= wave.length; });
  for (Marker& marker : wave.markers) marker.end = std::min(marker.end, wave.length);
  // Insertion sort keeps markers of equal start in their order.
  for (size_t i = 1; i < wave.markers.size(); ++i)
    for (size_t j = i; j > 0 && wave.markers[j].start < wave.markers[j - 1].start; --j)
      std::swap(wave.markers[j], wave.markers[j - 1]);
  constexpr size_t kMaxWaveMarkers = 65535;
  if (wave.markers.size() > kMaxWaveMarkers) wave.markers.resize(kMaxWaveMarkers);
  if (wave.dataFormat == kDataFormatDefault) wave.dataFormat = wave.bits < 17 ? 1 : wave.bits < 25 ? 2 : 4;
  // Formats 5 and up are the compressed ones.
  if (!HasFeature(features, kFeatureCompressedFormats) && wave.dataFormat > 4) wave.dataFormat = 1;
  if (wave.bits == 0) wave.bits = uint8_t(BitsOf(DataFormatStorage(wave.dataFormat)));
  if (wave.bits == 0) wave.bits = 16;
}

// ---------------------------------------------------------------------------------------------
// Moving parameters between levels

bool MoveUp(Item& parent, bool partial, ParamId first, ParamId last, bool skipLevels) {
  Articulation* target = ArticulationOf(parent);
  if (!target) return false;
  std::vector<Articulation*> children;
  if (parent.Type() == ItemType::Layer)
    for (Region* region : ChildrenOf<Region>(parent)) children.push_back(&region->articulation);
  else if (parent.Type() == ItemType::Instrument)
    for (Layer* layer : ChildrenOf<Layer>(parent)) children.push_back(&layer->articulation);
  auto skipped = [&](ParamId id) { return skipLevels && (id == kParamMasterTune || id == kParamMasterVolume); };
  bool anySet = false;
  for (Articulation* child : children)
    for (ParamId id = first; id < last; ++id) anySet |= !skipped(id) && child->IsSet(id);
  if (!anySet) return true;
  for (Articulation* child : children) child->FillFrom(*target);
  if (children.size() == 1) {
    Articulation& child = *children[0];
    for (ParamId id = first; id < last; ++id) {
      if (skipped(id) || !child.IsSet(id)) continue;
      target->Set(id, child.Get(id));
      child.Inherit(id, target->Get(id));
    }
    return true;
  }
  auto agree = [&](ParamId id) {
    for (Articulation* child : children)
      if (child->Get(id) != children[0]->Get(id)) return false;
    return true;
  };
  if (!partial)
    for (ParamId id = first; id < last; ++id)
      if (!skipped(id) && !agree(id)) return false;
  for (ParamId id = first; id < last; ++id) {
    if (skipped(id) || !agree(id)) continue;
    const float value = children[0]->Get(id);
    if (value != target->Get(id)) target->Set(id, value);
    for (Articulation* child : children) child->Inherit(id, target->Get(id));
  }
  return true;
}

int MoveArticulationUp(Item& item, bool toLayer, bool toInstrument, bool partial, bool skipLevels) {
  const uint64_t features = GetSettings().features;
  toLayer = toLayer && HasFeature(features, kFeatureLayerLevel);
  toInstrument = toInstrument && HasFeature(features, kFeatureInstrumentLevel);
  int moves = 0;
  switch (item.Type()) {
    case ItemType::Layer:
      if (toLayer) moves += MoveUp(item, partial, 0, kArticulationParamCount, skipLevels);
      break;
    case ItemType::Instrument:
      if (toLayer)
        for (Layer* layer : ChildrenOf<Layer>(item)) moves += MoveUp(*layer, partial, 0, kArticulationParamCount, skipLevels);
      if (toInstrument) moves += MoveUp(item, partial, 0, kArticulationParamCount, skipLevels);
      break;
    case ItemType::Collection:
      for (Instrument* instrument : item.collection->All<Instrument>())
        moves += MoveArticulationUp(*instrument, toLayer, toInstrument, partial, skipLevels);
      break;
    default: break;
  }
  return moves;
}

bool MoveTriggerParamsUp(Layer& layer) {
  const std::vector<Region*> regions = ChildrenOf<Region>(layer);
  if (regions.empty()) return false;
  static const std::vector<std::vector<ParamId>> kGroups = {
      {190, 191}, {192, 193}, {194, 195}, {197, 198}, {196}, {199}, {189}, {200}, {201}};
  bool anyMoved = false;
  for (const std::vector<ParamId>& group : kGroups) {
    bool agree = true;
    for (ParamId id : group)
      for (Region* region : regions) agree &= region->GetParam(id) == regions[0]->GetParam(id);
    if (!agree) continue;
    anyMoved = true;
    for (ParamId id : group) {
      const float value = regions[0]->GetParam(id);
      if (value == GetParamRow(id)->defaultValue) layer.InheritParam(id, value);
      else layer.SetParam(id, value);
      for (Region* region : regions) region->InheritParam(id, layer.GetParam(id));
    }
  }
  return anyMoved;
}

int CompactLayers(Instrument& instrument, bool compareTriggers, bool compareArticulations) {
  std::vector<Layer*> layers = ChildrenOf<Layer>(instrument);
  if (layers.size() < 2) return 0;
  constexpr int kMixedTriggers = 18;  // a mark no trigger type has
  std::vector<int> marks(layers.size(), 0);
  if (compareTriggers) {
    for (size_t i = 0; i < layers.size(); ++i) {
      const std::vector<Region*> regions = ChildrenOf<Region>(*layers[i]);
      if (regions.empty()) continue;
      marks[i] = int(regions[0]->GetParam(kParamTriggerType));
      for (Region* region : regions)
        if (int(region->GetParam(kParamTriggerType)) != marks[i]) marks[i] = kMixedTriggers;
    }
  }
  // Each layer in turn joins the first earlier layer still standing that it fits; the key × velocity
  // grids make the fit test a few hundred word operations, and the cells all standing layers share
  // turn away a layer that fits none without trying each.
  std::vector<RegionGrid> grids;
  grids.reserve(layers.size());
  for (Layer* layer : layers) grids.push_back(GridOf(*layer));
  std::vector<size_t> targets;
  RegionGrid takenByAll;  // cells every standing layer covered when it was added: never shrinks in truth
  int merges = 0;
  std::vector<bool> emptied(layers.size(), false);
  for (size_t b = 0; b < layers.size(); ++b) {
    if (layers[b]->children.empty()) continue;
    size_t chosen = layers.size();
    if (!targets.empty() && !takenByAll.Touches(grids[b])) {
      for (size_t a : targets) {
        if (compareTriggers && marks[a] != marks[b]) continue;
        if (grids[a].Touches(grids[b])) continue;
        if (compareArticulations && std::memcmp(layers[a]->articulation.Values(), layers[b]->articulation.Values(),
                                                sizeof(float) * kArticulationParamCount) != 0)
          continue;
        chosen = a;
        break;
      }
    }
    if (chosen == layers.size()) {
      takenByAll = targets.empty() ? grids[b] : Intersection(takenByAll, grids[b]);
      targets.push_back(b);
      continue;
    }
    Layer* into = layers[chosen];
    // What the regions heard from their old layer they now set themselves, so nothing changes.
    for (Region* region : ChildrenOf<Region>(*layers[b])) {
      for (ParamId id = 0; id < kArticulationParamCount; ++id)
        if (!region->articulation.IsSet(id) && layers[b]->articulation.Get(id) != into->articulation.Get(id))
          region->articulation.Set(id, layers[b]->articulation.Get(id));
      region->parentId = into->id;
      into->children.push_back(region->id);
    }
    grids[chosen].AddGrid(grids[b]);
    layers[b]->children.clear();
    emptied[b] = true;
    ++merges;
  }
  for (size_t i = 0; i < layers.size(); ++i)
    if (emptied[i]) delete layers[i];
  return merges;
}

// ---------------------------------------------------------------------------------------------
// FixUpItems

namespace {

// Keeps articulation only at the levels the features allow.
void MoveToAllowedLevels(Collection& collection, uint64_t features) {
  const bool instrumentLevel = HasFeature(features, kFeatureInstrumentLevel);
  const bool layerLevel = HasFeature(features, kFeatureLayerLevel);
  const bool regionLevel = HasFeature(features, kFeatureRegionLevel);
  if (instrumentLevel == layerLevel && layerLevel == regionLevel) return;
  if (!instrumentLevel) {
    for (Instrument* instrument : collection.All<Instrument>()) {
      if (!instrument->articulation.AnySet()) continue;
      for (Layer* layer : ChildrenOf<Layer>(*instrument))
        for (ParamId id = 0; id < kArticulationParamCount; ++id)
          if (instrument->articulation.IsSet(id) && !layer->articulation.IsSet(id))
            layer->articulation.Set(id, instrument->articulation.Get(id));
      instrument->articulation.Reset();
    }
  }
  if (!regionLevel) {
    for (Layer* layer : collection.All<Layer>()) {
      if (MoveUp(*layer, false, 0, kArticulationParamCount, true)) continue;
      const std::vector<Region*> regions = ChildrenOf<Region>(*layer);
      std::vector<const Articulation*> sources;
      bool anySet = false;
      for (Region* region : regions) {
        sources.push_back(&region->articulation);
        anySet |= region->articulation.AnySet();
      }
      if (!anySet) continue;
      const float tune = layer->articulation.Get(kParamMasterTune);
      const float volume = layer->articulation.Get(kParamMasterVolume);
      const Articulation merged = MergeArticulations(sources);
      const Articulation& above = ParentArticulation(*layer);
      layer->articulation = above;
      layer->articulation.ClearAllSet();
      for (ParamId id = 0; id < kArticulationParamCount; ++id)
        if (merged.Get(id) != layer->articulation.Get(id)) layer->articulation.Set(id, merged.Get(id));
      // Master tune and volume stay where they were, at the layer and at each region.
      for (auto [id, value] : {std::pair{kParamMasterTune, tune}, std::pair{kParamMasterVolume, volume}}) {
        if (value != above.Get(id)) layer->articulation.Set(id, value);
        else layer->articulation.Inherit(id, value);
      }
      for (Region* region : regions) {
        const float ownTune = region->articulation.Get(kParamMasterTune);
        const float ownVolume = region->articulation.Get(kParamMasterVolume);
        region->articulation = layer->articulation;
        region->articulation.ClearAllSet();
        for (auto [id, value] : {std::pair{kParamMasterTune, ownTune}, std::pair{kParamMasterVolume, ownVolume}})
          if (value != layer->articulation.Get(id)) region->articulation.Set(id, value);
      }
    }
  }
  if (!layerLevel && instrumentLevel)
    for (Instrument* instrument : collection.All<Instrument>()) MoveUp(*instrument, false, 0, kArticulationParamCount, false);
  if (!layerLevel && !regionLevel) {
    for (Instrument* instrument : collection.All<Instrument>()) {
      const std::vector<Layer*> layers = ChildrenOf<Layer>(*instrument);
      std::vector<const Articulation*> sources;
      bool anySet = false;
      for (Layer* layer : layers) {
        sources.push_back(&layer->articulation);
        anySet |= layer->articulation.AnySet();
      }
      if (!anySet) continue;
      const Articulation merged = MergeArticulations(sources);
      instrument->articulation.Reset();
      for (ParamId id = 0; id < kArticulationParamCount; ++id)
        if (merged.Get(id) != instrument->articulation.Get(id)) instrument->articulation.Set(id, merged.Get(id));
      for (Layer* layer : layers) {
        layer->articulation = instrument->articulation;
        layer->articulation.ClearAllSet();
        for (Region* region : ChildrenOf<Region>(*layer)) region->articulation = layer->articulation;
      }
    }
  }
  if (!layerLevel && regionLevel) {
    for (Layer* layer : collection.All<Layer>()) {
      if (!layer->articulation.AnySet()) continue;
      for (Region* region : ChildrenOf<Region>(*layer))
        for (ParamId id = 0; id < kArticulationParamCount; ++id)
          if (layer->articulation.IsSet(id) && !region->articulation.IsSet(id))
            region->articulation.Set(id, layer->articulation.Get(id));
      layer->articulation = ParentArticulation(*layer);
      layer->articulation.ClearAllSet();
    }
  }
}

// Trigger rows set at this level that equal the level above say nothing.
void DropEqualTriggers(TriggerRange& range, const TriggerRange* above) {
  for (ParamId id = kFirstTriggerParam; id < kFirstLoopParam; ++id) {
    const size_t at = id - kFirstTriggerParam;
    const float reference = above ? above->values[at] : GetParamRow(id)->defaultValue;
    if ((range.mask & TriggerBit(id)) && range.values[at] == reference) ClearTrigger(range, id);
  }
}

}  // namespace

void FixUpItems(Collection& collection, uint8_t typeMask, bool afterLoad) {
  const Settings& settings = GetSettings();
  SetStatus("Fixing up items...", StatusMode::ProgressLabel);

  // 1. Each item's own fix-up, by type.
  for (Instrument* instrument : collection.All<Instrument>()) instrument->FixUp();
  for (Layer* layer : collection.All<Layer>()) layer->FixUp();
  for (Region* region : collection.All<Region>()) {
    region->FixUp();
    // After a load, an override that equals the wave's value does nothing, and goes.
    Waveform* wave = region->GetWave();
    if (afterLoad && wave && (region->overrideFlags || region->startOffset || region->endOffset)) {
      if (region->rootKey == wave->rootKey) region->overrideFlags &= ~Region::kOverrideRoot;
      if (region->loop.type == wave->loop.type) region->overrideFlags &= ~Region::kOverrideLoopType;
      if (region->loop.release == wave->loop.release) region->overrideFlags &= ~Region::kOverrideLoopRelease;
      if (region->loop.start == wave->loop.start) region->overrideFlags &= ~Region::kOverrideLoopStart;
      if (region->loop.end == wave->loop.end) region->overrideFlags &= ~Region::kOverrideLoopEnd;
      if (region->loop.tune == wave->loop.tune) region->overrideFlags &= ~Region::kOverrideLoopTune;
    }
  }
  for (SynthesisModel* model : collection.All<SynthesisModel>()) model->FixUp();
  for (Waveform* wave : collection.All<Waveform>()) {
    if (afterLoad && wave->dataFormat == kDataFormatDefault && HasGenericDecoder(*wave))
      wave->dataFormat = DataFormatFromStorage(wave->SourceStorage());
    wave->FixUp();
  }
  for (Song* song : collection.All<Song>()) song->FixUp();
  for (Track* track : collection.All<Track>()) track->FixUp();

  // 2. Empty items. A child id that no longer resolves counts for nothing, so that a deleted wave
  // takes its regions, their layers and their instruments with it in this one pass.
  if (typeMask & 0x01)
    DeleteWhere<Waveform>(collection, [](Waveform& w) { return w.length == 0 || w.channels < 1 || w.channels > 2; });
  if (typeMask & 0x02) {
    for (SynthesisModel* model : collection.All<SynthesisModel>()) model->DropDanglingChildren();
    DeleteWhere<SynthesisModel>(collection, [](SynthesisModel& m) { return m.children.empty(); });
  }
  if (typeMask & 0x04) DeleteWhere<Region>(collection, [](Region& r) { return !HasLiveChild(r); });
  if (typeMask & 0x08) DeleteWhere<Layer>(collection, [](Layer& l) { return !HasLiveChild(l); });
  if (typeMask & 0x10) DeleteWhere<Instrument>(collection, [](Instrument& i) { return !HasLiveChild(i); });
  if (typeMask & 0x20) DeleteWhere<Track>(collection, [](Track& t) { return t.data.empty(); });
  if (typeMask & 0x40) DeleteWhere<Song>(collection, [](Song& s) { return !HasLiveChild(s); });
  SetStatus("", StatusMode::Tick);

  // 3. After a load, values that equal the level above lose their set bits.
  if (afterLoad) {
    for (Instrument* instrument : collection.All<Instrument>()) {
      instrument->articulation.DropEqual(DefaultArticulation());
      for (Layer* layer : ChildrenOf<Layer>(*instrument)) {
        layer->articulation.DropEqual(instrument->articulation);
        DropEqualTriggers(layer->range, nullptr);
        for (Region* region : ChildrenOf<Region>(*layer)) {
          region->articulation.DropEqual(layer->articulation);
          DropEqualTriggers(region->range, &layer->range);
        }
      }
    }
  }

  // 4. Articulation only at the levels the features allow.
  MoveToAllowedLevels(collection, settings.features);
  SetStatus("", StatusMode::Tick);

  // 5. Normalisers after a load.
  if (afterLoad) {
    if (settings.loadEnsureUniqueNames) {
      EnsureUniqueNames(collection);
    }
    if (settings.loadAutoMoveArticulation) MoveArticulationUp(collection, true, true, true, false);
    if (settings.loadAutoMoveTriggerParams)
      for (Layer* layer : collection.All<Layer>()) MoveTriggerParamsUp(*layer);
    if (settings.loadAutoSplitStereo) SplitStereo(collection);
    // A format that can hold stereo means what it says with two mono waves.
    constexpr uint32_t kCapsStereo = 1u << 21;
    const FormatEntry* source = GetFormatRow(collection.sourceRow);
    if (settings.loadAutoMergeStereo && !(source && (source->caps & kCapsStereo))) MergeDualMono(collection);
    if (settings.loadAutoCompactLayers) {
      const bool regionLevelOff = !HasFeature(settings.features, kFeatureRegionLevel);
      for (Instrument* instrument : collection.All<Instrument>().ToVector()) CompactLayers(*instrument, true, regionLevelOff);
    }
    if (settings.loadAutoBid2Fwd || settings.loadAutoAppend32) {
      for (Waveform* wave : collection.All<Waveform>()) {
        if (wave->loop.type == 0) continue;
        if (!RewriteLoops(*wave, settings.loadAutoBid2Fwd, settings.loadAutoBid2Fwd, settings.loadAutoAppend32))
          Ui().Warn("Error!", LastError());
      }
    }
    // Sorting the wave list and the tree (normalisers 8 and 9) belongs to the panes.
  }

  // 6. Unique patches.
  collection.FixUp();
  SetStatus("");
}

void ApplyFeatures(Collection& collection, uint64_t features) {
  GetSettings().features = features;
  FixUpItems(collection, 0, false);
}

}  // namespace orlin
