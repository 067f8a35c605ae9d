// Which key × velocity cells the regions of a layer cover, as a 128 × 128 bit map, and a placer that
// puts the regions of a load on layers by the collision rule without walking every region of every
// layer for each new one: an instrument of many thousand overlapping regions loads in linear time.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace orlin {

class Instrument;
class Layer;
class Region;

class RegionGrid {
 public:
  // Ranges packed as PackRange; a range not given counts as the whole range, as in Layer::Overlaps.
  void Add(uint32_t keyRange, uint32_t velocityRange);
  // As Add, calling `visit(key, velocity)` for each cell that was not covered before.
  template <typename Visit>
  void AddVisitingNew(uint32_t keyRange, uint32_t velocityRange, Visit&& visit) {
    RegionGrid added;
    added.Add(keyRange, velocityRange);
    for (size_t i = 0; i < bits_.size(); ++i) {
      for (uint64_t fresh = added.bits_[i] & ~bits_[i]; fresh; fresh &= fresh - 1)
        visit(int(i / 2), int(i % 2) * 64 + __builtin_ctzll(fresh));
      bits_[i] |= added.bits_[i];
    }
  }
  bool Touches(uint32_t keyRange, uint32_t velocityRange) const;
  bool Touches(const RegionGrid& other) const;
  void AddGrid(const RegionGrid& other);
  bool Empty() const;
  friend RegionGrid Intersection(const RegionGrid& a, const RegionGrid& b) {
    RegionGrid both;
    for (size_t i = 0; i < both.bits_.size(); ++i) both.bits_[i] = a.bits_[i] & b.bits_[i];
    return both;
  }
  // Calls `visit(key, velocity)` for each covered cell.
  template <typename Visit>
  void ForEachCell(Visit&& visit) const {
    for (int key = 0; key < 128; ++key)
      for (int word = 0; word < 2; ++word)
        for (uint64_t bits = bits_[size_t(key * 2 + word)]; bits; bits &= bits - 1)
          visit(key, word * 64 + __builtin_ctzll(bits));
  }

 private:
  std::array<uint64_t, 256> bits_{};  // key k covers words 2k (velocities 0-63) and 2k+1 (64-127)
};

// The grid of a layer's regions as they stand.
RegionGrid GridOf(const Layer& layer);

// Places regions of one instrument during a load. It must see every region added to the instrument
// while it lives: the readers own the ranges until the load ends, so its grids stay true.
class LayerPlacer {
 public:
  explicit LayerPlacer(Instrument& instrument);
  // The layer Instrument::FindLayerFor would choose without a hint: the first layer whose last region
  // has exactly this velocity range and room, else the first with room, else a new one.
  Layer* LayerFor(uint32_t keyRange, uint32_t velocityRange);
  Region* AddRegion(uint32_t waveId, uint32_t keyRange, uint32_t velocityRange, int rootKey);
  // For readers with a collision rule of their own: test and record against a layer of this instrument.
  bool Overlaps(const Layer& layer, uint32_t keyRange, uint32_t velocityRange);
  void Occupy(const Layer& layer, uint32_t keyRange, uint32_t velocityRange);

 private:
  size_t IndexOf(const Layer& layer);
  Instrument& instrument_;
  std::vector<Layer*> layers_;
  std::vector<RegionGrid> grids_;
  std::vector<uint32_t> lastVelocity_;  // packed velocity range of the last region; kRangeNotGiven for none
  std::unordered_map<uint32_t, size_t> indexById_;
  // How many layers cover each cell: a rectangle over a cell that all layers cover needs a new layer,
  // found without trying each.
  std::vector<uint32_t> cellCounts_;
};

}  // namespace orlin
