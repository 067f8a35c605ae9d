#include "core/articulation.h"

namespace orlin {

// Until the full parameter table lands every articulation value defaults to zero.
const ParamInfo* GetParamRow(ParamId id) {
  static const ParamInfo kUnknown{0, "", "", 0.0f, -1e30f, 1e30f};
  return id < kParamCount ? &kUnknown : nullptr;
}

void Articulation::Reset() {
  for (ParamId id = 0; id < kArticulationParamCount; ++id) values_[id] = GetParamRow(id)->defaultValue;
  mask_[0] = mask_[1] = mask_[2] = 0;
}

void Articulation::Set(ParamId id, float value) {
  if (id >= kArticulationParamCount) return;
  values_[id] = value;
  mask_[id >> 6] |= uint64_t(1) << (id & 63);
}

void Articulation::Inherit(ParamId id, float value) {
  if (id >= kArticulationParamCount) return;
  values_[id] = value;
  ClearSet(id);
}

void Articulation::ClearSet(ParamId id) {
  if (id < kArticulationParamCount) mask_[id >> 6] &= ~(uint64_t(1) << (id & 63));
}

}  // namespace orlin
