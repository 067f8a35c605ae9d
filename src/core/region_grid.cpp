#include "core/region_grid.h"

#include <algorithm>

#include "core/collection.h"

namespace orlin {

namespace {

struct Rect {
  int keyLo, keyHi, velLo, velHi;
  bool empty() const { return keyLo > keyHi || velLo > velHi; }
};

Rect RectOf(uint32_t keyRange, uint32_t velocityRange) {
  auto lo = [](uint32_t range) { return int(range & 0xFF); };
  auto hi = [](uint32_t range) { return int((range >> 8) & 0xFF); };
  auto given = [&](uint32_t range) { return (lo(range) == 255 || hi(range) == 255) ? kFullRange : range; };
  keyRange = given(keyRange);
  velocityRange = given(velocityRange);
  // Cells stop at 127; a range reaching past it covers up to 127, which is what the overlap test sees
  // for any other region.
  return {lo(keyRange), std::min(hi(keyRange), 127), lo(velocityRange), std::min(hi(velocityRange), 127)};
}

// Bits lo..hi (inclusive) of the 64-bit word that holds bits `base`..`base + 63`.
uint64_t WordMask(int lo, int hi, int base) {
  lo = std::max(lo, base);
  hi = std::min(hi, base + 63);
  if (lo > hi) return 0;
  const int count = hi - lo + 1;
  const uint64_t ones = count == 64 ? ~0ull : ((1ull << count) - 1);
  return ones << (lo - base);
}

}  // namespace

void RegionGrid::Add(uint32_t keyRange, uint32_t velocityRange) {
  const Rect r = RectOf(keyRange, velocityRange);
  if (r.empty()) return;
  const uint64_t low = WordMask(r.velLo, r.velHi, 0), high = WordMask(r.velLo, r.velHi, 64);
  for (int key = r.keyLo; key <= r.keyHi; ++key) {
    bits_[size_t(key * 2)] |= low;
    bits_[size_t(key * 2 + 1)] |= high;
  }
}

bool RegionGrid::Touches(uint32_t keyRange, uint32_t velocityRange) const {
  const Rect r = RectOf(keyRange, velocityRange);
  if (r.empty()) return false;
  const uint64_t low = WordMask(r.velLo, r.velHi, 0), high = WordMask(r.velLo, r.velHi, 64);
  for (int key = r.keyLo; key <= r.keyHi; ++key)
    if ((bits_[size_t(key * 2)] & low) | (bits_[size_t(key * 2 + 1)] & high)) return true;
  return false;
}

bool RegionGrid::Touches(const RegionGrid& other) const {
  uint64_t any = 0;
  for (size_t i = 0; i < bits_.size(); ++i) any |= bits_[i] & other.bits_[i];
  return any != 0;
}

void RegionGrid::AddGrid(const RegionGrid& other) {
  for (size_t i = 0; i < bits_.size(); ++i) bits_[i] |= other.bits_[i];
}

bool RegionGrid::Empty() const {
  return std::all_of(bits_.begin(), bits_.end(), [](uint64_t word) { return word == 0; });
}

RegionGrid GridOf(const Layer& layer) {
  RegionGrid grid;
  for (uint32_t childId : layer.children)
    if (const Region* region = layer.collection->Find<Region>(childId))
      grid.Add(PackRange(region->range.loKey, region->range.hiKey),
               PackRange(region->range.loVelocity, region->range.hiVelocity));
  return grid;
}

LayerPlacer::LayerPlacer(Instrument& instrument) : instrument_(instrument) {
  for (Layer* layer : ChildrenOf<Layer>(instrument)) IndexOf(*layer);
}

size_t LayerPlacer::IndexOf(const Layer& layer) {
  auto found = indexById_.find(layer.id);
  if (found != indexById_.end()) return found->second;
  const size_t index = layers_.size();
  layers_.push_back(const_cast<Layer*>(&layer));
  grids_.push_back(GridOf(layer));
  uint32_t last = kRangeNotGiven;
  if (!layer.children.empty())
    if (const Region* region = layer.collection->Find<Region>(layer.children.back()))
      last = PackRange(region->range.loVelocity, region->range.hiVelocity);
  lastVelocity_.push_back(last);
  indexById_.emplace(layer.id, index);
  if (!cellCounts_.empty()) grids_.back().ForEachCell([&](int key, int velocity) { ++cellCounts_[size_t(key * 128 + velocity)]; });
  return index;
}

bool LayerPlacer::Overlaps(const Layer& layer, uint32_t keyRange, uint32_t velocityRange) {
  return grids_[IndexOf(layer)].Touches(keyRange, velocityRange);
}

void LayerPlacer::Occupy(const Layer& layer, uint32_t keyRange, uint32_t velocityRange) {
  const size_t index = IndexOf(layer);
  if (cellCounts_.empty()) {
    grids_[index].Add(keyRange, velocityRange);
  } else {
    // Only cells new to this layer count it once more.
    grids_[index].AddVisitingNew(keyRange, velocityRange,
                                 [&](int key, int velocity) { ++cellCounts_[size_t(key * 128 + velocity)]; });
  }
  const Rect r = RectOf(keyRange, velocityRange);
  lastVelocity_[index] = PackRange(r.velLo, r.velHi);
}

Layer* LayerPlacer::LayerFor(uint32_t keyRange, uint32_t velocityRange) {
  if (cellCounts_.empty()) {
    cellCounts_.assign(128 * 128, 0);
    for (const RegionGrid& grid : grids_)
      grid.ForEachCell([&](int key, int velocity) { ++cellCounts_[size_t(key * 128 + velocity)]; });
  }
  const Rect r = RectOf(keyRange, velocityRange);
  bool everyLayerTaken = false;
  const uint32_t layerCount = uint32_t(layers_.size());
  for (int key = r.keyLo; key <= r.keyHi && !r.empty() && !everyLayerTaken; ++key) {
    const uint32_t* row = cellCounts_.data() + key * 128;
    for (int velocity = r.velLo; velocity <= r.velHi; ++velocity) everyLayerTaken |= row[velocity] == layerCount;
  }
  if (!everyLayerTaken && !layers_.empty()) {
    const uint32_t velocity = PackRange(r.velLo, r.velHi);
    for (size_t i = 0; i < layers_.size(); ++i)
      if (lastVelocity_[i] == velocity && !grids_[i].Touches(keyRange, velocityRange)) return layers_[i];
    for (size_t i = 0; i < layers_.size(); ++i)
      if (!grids_[i].Touches(keyRange, velocityRange)) return layers_[i];
  }
  auto* layer = new Layer(instrument_.collection);
  layer->parentId = instrument_.id;
  instrument_.children.push_back(layer->id);
  IndexOf(*layer);
  return layer;
}

Region* LayerPlacer::AddRegion(uint32_t waveId, uint32_t keyRange, uint32_t velocityRange, int rootKey) {
  Layer* layer = LayerFor(keyRange, velocityRange);
  auto* region = new Region(instrument_.collection, MakeId(ItemType::Region, kNextFreeIndex), waveId, keyRange,
                            velocityRange, rootKey);
  region->parentId = layer->id;
  layer->children.push_back(region->id);
  Occupy(*layer, PackRange(region->range.loKey, region->range.hiKey),
         PackRange(region->range.loVelocity, region->range.hiVelocity));
  return region;
}

}  // namespace orlin
