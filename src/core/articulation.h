// The parameter vocabulary: one numbering for every item property, and the Articulation, the set of
// sound-shaping values an instrument, layer or region carries with a mask of what that level sets.
#pragma once
#include <cstdint>
#include <cstring>

namespace orlin {

using ParamId = uint16_t;

constexpr ParamId kArticulationParamCount = 189;  // ids 0-188
constexpr ParamId kFirstTriggerParam = 189;       // 189-203
constexpr ParamId kFirstLoopParam = 204;          // 204-208
constexpr ParamId kFirstTextParam = 209;          // 209-216
constexpr ParamId kFirstWaveParam = 217;          // 217-221
constexpr ParamId kFirstRegionParam = 222;        // 222-226
constexpr ParamId kFirstInstrumentParam = 227;    // 227-230
constexpr ParamId kFirstEffectParam = 231;        // 231-262
constexpr ParamId kParamCount = 263;

// The read-only row of one parameter.
struct ParamInfo {
  ParamId id;
  const char* name;
  const char* note;
  float defaultValue;
  float minValue;
  float maxValue;
};

// The row of `id`; null past the table.
const ParamInfo* GetParamRow(ParamId id);

class Articulation {
 public:
  Articulation() { Reset(); }

  // Every value to its default, no set bits.
  void Reset();
  float Get(ParamId id) const { return id < kArticulationParamCount ? values_[id] : 0.0f; }
  bool IsSet(ParamId id) const { return id < kArticulationParamCount && (mask_[id >> 6] >> (id & 63)) & 1; }
  bool AnySet() const { return mask_[0] | mask_[1] | mask_[2]; }
  // Sets the value as set at this level.
  void Set(ParamId id, float value);
  // Takes a value from the level above: stored, set bit cleared.
  void Inherit(ParamId id, float value);
  void ClearSet(ParamId id);

 private:
  float values_[kArticulationParamCount];
  uint64_t mask_[3];
};

}  // namespace orlin
