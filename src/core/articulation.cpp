// Rows, views, rounding and printing of parameters, and the Articulation operations. Values are
// stored in the unit shown except kind 6 (a fraction shown as percent), kind 7 (seconds shown as
// ms) and kind 8 (normalised V-ENV level: 1.0 is 0 dB, 0.0 is -96 dB and silent).
#include "core/articulation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

namespace orlin {

extern const ParamInfo kParamRows[kParamCount];
extern const ParamInfo kEffectRows[kEffectTypeCount][kEffectViewsPerSlot];

const ParamInfo* GetParamRow(ParamId id) { return id < kParamCount ? &kParamRows[id] : nullptr; }

const ParamInfo* GetEffectRow(int fxType, int view) {
  if (fxType < 0 || fxType >= kEffectTypeCount || view < 0 || view >= kEffectViewsPerSlot) return nullptr;
  return &kEffectRows[fxType][view];
}

const char* UnitLabel(uint8_t unit) {
  static const char* const kLabels[] = {"", "dB", "st", "x", "%", "Hz", "s", "ms"};
  return unit < std::size(kLabels) ? kLabels[unit] : "";
}

namespace {

bool NamesAnLfo(ParamId id) {
  return (id >= 65 && id <= 80) || (id >= 3 && id <= 10) || (id >= 19 && id <= 22) || (id >= 29 && id <= 32) ||
         id == 54;
}
bool NamesAnEnvelope(ParamId id) {
  return (id >= 108 && id <= 188) || id == 11 || id == 12 || id == 33 || id == 34 || id == 55;
}

// Replaces the letter before `tag` ("-LFO", "-ENV") by 'M' in a copy of the name.
const ParamInfo* WithModulatorName(const ParamInfo& row, const char* tag, ParamInfo& copy, std::string& name) {
  name = row.name;
  const size_t at = name.find(tag);
  if (at != std::string::npos && at > 0) name[at - 1] = 'M';
  copy = row;
  copy.name = name.c_str();
  return &copy;
}

}  // namespace

const ParamInfo* ArticulationView(ParamId id, uint64_t features) {
  const ParamInfo* row = GetParamRow(id);
  if (!row || id >= kArticulationParamCount) return row;
  if (!HasFeature(features, kFeatureSeparateLfos) && NamesAnLfo(id)) {
    const bool pitchLfo = (id >= 65 && id <= 68) || (id >= 3 && id <= 6);
    if (HasFeature(features, kFeatureTwoLfos) && pitchLfo) return row;
    static thread_local ParamInfo copy;
    static thread_local std::string name;
    return WithModulatorName(*row, "-LFO", copy, name);
  }
  if (!HasFeature(features, kFeatureSeparateEnvelopes) && NamesAnEnvelope(id)) {
    static thread_local ParamInfo copy;
    static thread_local std::string name;
    return WithModulatorName(*row, "-ENV", copy, name);
  }
  return row;
}

const ParamInfo* LoopView(ParamId id, uint64_t features) {
  const ParamInfo* row = GetParamRow(id);
  if (!row || (id != 206 && id != 207) || HasFeature(features, kFeatureFractionalLoops)) return row;
  // Without fractional loop points, loop points are edited as whole samples.
  static thread_local ParamInfo copy;
  copy = *row;
  copy.kind = kKindWhole;
  return &copy;
}

const ParamInfo* EffectView(ParamId id, int fxType, bool gateReverb) {
  if (id < kFirstEffectParam || id >= kParamCount) return GetParamRow(id);
  const int slot = (id - kFirstEffectParam) / kEffectViewsPerSlot;
  const int view = (id - kFirstEffectParam) % kEffectViewsPerSlot;
  const ParamInfo* row = GetEffectRow(std::clamp(fxType, 0, kEffectTypeCount - 1), view);
  static thread_local ParamInfo copy;
  copy = *row;
  copy.id = id;
  if (copy.control) copy.control = uint16_t(copy.control + 20 * slot);
  // The gate rows of the reverb only mean something while "Gate reverb" is on.
  if (fxType == 2 && view >= 3 && view <= 5 && !gateReverb) copy.kind = kKindNone;
  return &copy;
}

float RoundToGrid(uint8_t kind, float value) {
  double steps = 0.0;  // grid steps per unit
  switch (kind) {
    case kKindEffectTime: case kKindPercent: steps = 1000.0; break;
    case kKindSigned: steps = 100.0; break;
    case kKindFrequency: steps = 10.0; break;
    case kKindTime: steps = std::fabs(value) < 10.0f ? 1000.0 : 100.0; break;
    case kKindEnvelopeLevel: steps = 10000.0; break;
    default: return value;
  }
  // Symmetric: half a step away from zero, then cut toward zero.
  // The product is taken in single precision, as the stored value is: -0.005 * 100 is then -0.5.
  double scaled = double(value * float(steps));
  scaled = std::trunc(scaled >= 0.0 ? scaled + 0.5 : scaled - 0.5);
  return float(scaled / steps);
}

std::string KeyName(int key, bool midCIsC3) {
  static const char* const kNotes[] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
  const int octave = (key < 0 ? (key - 11) / 12 : key / 12) + (midCIsC3 ? -2 : -1);
  const int note = ((key % 12) + 12) % 12;
  return std::string(kNotes[note]) + std::to_string(octave);
}

std::vector<std::pair<int, std::string>> EnumLabels(uint8_t kind) {
  std::vector<std::pair<int, std::string>> out;
  switch (kind) {
    case kKindTriggerType:
      out = {{0, "Key Press"}, {1, "Key Release"}};
      for (int group = 1; group <= 16; ++group) out.push_back({group + 1, "Alternate Gr." + std::to_string(group)});
      break;
    case kKindPedalSwitch: out = {{0, "Don't switch"}, {1, "Play on Down"}, {2, "Play on Up"}}; break;
    case kKindLfoShape:
      out = {{0, "Sine"}, {64, "Sine+"}, {2, "Square"}, {66, "Square+"}, {1, "Triangle"}, {65, "Triangle+"},
             {4, "Saw-Up"}, {68, "Saw-Up+"}, {5, "Saw-Down"}, {69, "Saw-Down+"}, {3, "Noise"}, {67, "Noise+"}};
      break;
    case kKindReleaseMode: out = {{0, "Key Release"}, {1, "No Release"}}; break;
    case kKindFilterType:
      out = {{0, "Pass-thru"}, {1, "Low-Pass 6 dB/oct"}, {2, "Low-Pass 12 dB/oct"}, {3, "Low-Pass 18 dB/oct"},
             {4, "Low-Pass 24 dB/oct"}, {5, "High-Pass 6 dB/oct"}, {6, "High-Pass 12 dB/oct"},
             {7, "High-Pass 18 dB/oct"}, {8, "High-Pass 24 dB/oct"}, {9, "Band-Pass 6 dB/oct"},
             {10, "Band-Pass 12 dB/oct"}, {11, "Band-Reject 6 dB/oct"}, {12, "Band-Reject 12 dB/oct"}};
      break;
    case kKindEqMode: out = {{0, "Peak"}, {1, "Lo-shelf"}, {2, "Hi-shelf"}}; break;
    case kKindLoopType: out = {{0, "off"}, {1, "Forward"}, {2, "Reverse"}, {3, "Alternating"}}; break;
    case kKindLoopRelease: out = {{0, "Infinite"}, {1, "Break on Release"}}; break;
    case kKindEffectType:
      out = {{0, "None"}, {1, "Chorus"}, {2, "Reverb"}, {3, "Delay"}, {4, "Tremolo"},
             {5, "Compressor"}, {6, "Distortion"}, {7, "Phaser"}, {8, "Transients"}};
      break;
    case kKindExclusionMode: out = {{0, "Self exclusive"}, {1, "Non-exclusive"}}; break;
    case kKindXfadeFormula: out = {{0, "Equal-Power"}, {1, "Linear Gain"}}; break;
    default: break;
  }
  return out;
}

std::string FormatParamValue(const ParamInfo& row, float value, bool midCIsC3) {
  char text[64];
  switch (row.kind) {
    case kKindNone: case kKindText: case kKindImage: return "";
    case kKindEffectTime: std::snprintf(text, sizeof text, "%.3f", value); return text;
    case kKindSigned: std::snprintf(text, sizeof text, "%.2f", value); return text;
    case kKindFrequency: std::snprintf(text, sizeof text, "%.1f", value); return text;
    case kKindTime: case kKindEnvelopeLevel: std::snprintf(text, sizeof text, "%.3g", value); return text;
    case kKindPercent: std::snprintf(text, sizeof text, "%.1f %%", double(value) * 100.0); return text;
    case kKindMilliseconds: std::snprintf(text, sizeof text, "%.0f m", double(value) * 1000.0); return text;
    case kKindOnOff: return value != 0.0f ? "on" : "off";
    case kKindKey: return KeyName(int(value), midCIsC3);
    default: break;
  }
  for (const auto& [number, label] : EnumLabels(row.kind))
    if (number == int(value)) return label;
  return std::to_string(int64_t(value));
}

// ---------------------------------------------------------------------------------------------
// Articulation

void Articulation::Assign(const float* values, const uint64_t* mask) {
  std::copy_n(values, kArticulationParamCount, values_);
  std::copy_n(mask, 3, mask_);
}

void Articulation::Reset() {
  for (ParamId id = 0; id < kArticulationParamCount; ++id) values_[id] = kParamRows[id].defaultValue;
  mask_[0] = mask_[1] = mask_[2] = 0;
}

void Articulation::Set(ParamId id, float value) {
  if (id >= kArticulationParamCount || std::isnan(value)) return;
  const ParamInfo& row = kParamRows[id];
  value = RoundToGrid(row.kind, value);
  if (row.kind != kKindNone) value = std::clamp(value, row.minValue, row.maxValue);
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

bool Articulation::FillFrom(const Articulation& parent) {
  bool changed = false;
  for (ParamId id = 0; id < kArticulationParamCount; ++id) {
    if (IsSet(id) || values_[id] == parent.values_[id]) continue;
    values_[id] = parent.values_[id];
    changed = true;
  }
  return changed;
}

bool Articulation::DropEqual(const Articulation& parent) {
  bool cleared = false;
  for (ParamId id = 0; id < kArticulationParamCount; ++id) {
    if (IsSet(id) && values_[id] == parent.values_[id]) {
      ClearSet(id);
      cleared = true;
    }
  }
  return cleared;
}

void Articulation::CopyRange(const Articulation& from, ParamId first, ParamId last, const float* parentValues) {
  for (ParamId id = first; id < last && id < kArticulationParamCount; ++id) {
    if (from.IsSet(id)) Set(id, from.values_[id]);
    else Inherit(id, parentValues[id]);
  }
}

void Articulation::Clamp() {
  // Most values of a large bank are defaults; those that the grid and bounds leave as they are need
  // no rounding. Runs before every save over every item, so the check pays.
  static const std::array<bool, kArticulationParamCount> defaultIsClean = [] {
    std::array<bool, kArticulationParamCount> clean{};
    for (ParamId id = 0; id < kArticulationParamCount; ++id) {
      const ParamInfo& row = kParamRows[id];
      clean[id] = row.kind == kKindNone ||
                  std::clamp(RoundToGrid(row.kind, row.defaultValue), row.minValue, row.maxValue) == row.defaultValue;
    }
    return clean;
  }();
  for (ParamId id = 0; id < kArticulationParamCount; ++id) {
    const ParamInfo& row = kParamRows[id];
    if (row.kind == kKindNone || (defaultIsClean[id] && values_[id] == row.defaultValue)) continue;
    float value = values_[id];
    if (!std::isfinite(value)) value = row.defaultValue;
    values_[id] = std::clamp(RoundToGrid(row.kind, value), row.minValue, row.maxValue);
  }
}

namespace {
// Row offsets within an envelope of 27 rows, by record field.
constexpr int kEnvTimeRows[7] = {1, 5, 9, 13, 17, 19, 21};
constexpr int kEnvLevelRows[8] = {0, 4, 8, 12, 16, 18, 20, 22};
constexpr int kEnvVelocityRows[5] = {2, 6, 10, 14, 23};
constexpr int kEnvKeyRows[5] = {3, 7, 11, 15, 24};
constexpr int kEnvReleaseModeRow = 25;
constexpr int kEnvShutdownRow = 26;
}  // namespace

void Articulation::SetEnvelope(int index, const EnvelopeRecord& record) {
  const ParamId base = ParamId(kParamFirstEnvelope + kEnvelopeRows * index);
  for (int i = 0; i < 7; ++i) Set(ParamId(base + kEnvTimeRows[i]), record.times[i]);
  for (int i = 0; i < 8; ++i) Set(ParamId(base + kEnvLevelRows[i]), record.levels[i]);
  for (int i = 0; i < 5; ++i) Set(ParamId(base + kEnvVelocityRows[i]), record.velocityTo[i]);
  for (int i = 0; i < 5; ++i) Set(ParamId(base + kEnvKeyRows[i]), record.keyTo[i]);
  Set(ParamId(base + kEnvReleaseModeRow), record.releaseMode);
  // Only the V-ENV has a shutdown rate; the row of the others is empty.
  if (index == 0) Set(ParamId(base + kEnvShutdownRow), record.shutdownRate);
}

EnvelopeRecord Articulation::GetEnvelope(int index) const {
  const ParamId base = ParamId(kParamFirstEnvelope + kEnvelopeRows * index);
  EnvelopeRecord record;
  for (int i = 0; i < 7; ++i) record.times[i] = values_[base + kEnvTimeRows[i]];
  for (int i = 0; i < 8; ++i) record.levels[i] = values_[base + kEnvLevelRows[i]];
  for (int i = 0; i < 5; ++i) record.velocityTo[i] = values_[base + kEnvVelocityRows[i]];
  for (int i = 0; i < 5; ++i) record.keyTo[i] = values_[base + kEnvKeyRows[i]];
  record.releaseMode = values_[base + kEnvReleaseModeRow];
  record.shutdownRate = values_[kParamFirstEnvelope + kEnvShutdownRow];
  return record;
}

void Articulation::SetLfo(int index, const LfoRecord& record) {
  const ParamId base = ParamId(kParamFirstLfo + 4 * index);
  Set(base, record.shape);
  Set(ParamId(base + 1), record.frequency);
  Set(ParamId(base + 2), record.delay);
  Set(ParamId(base + 3), record.ramp);
}

LfoRecord Articulation::GetLfo(int index) const {
  const ParamId base = ParamId(kParamFirstLfo + 4 * index);
  return {values_[base], values_[base + 1], values_[base + 2], values_[base + 3]};
}

bool Articulation::IsLevelUsed() const {
  uint64_t low = mask_[0];
  // With a "Pass-thru" filter the sixteen filter rows from 24 count for nothing.
  if (values_[kParamFilterType] == 0.0f) low &= ~(((uint64_t(1) << 16) - 1) << 24);
  return low | mask_[1] | mask_[2];
}

bool Articulation::HasEnvelope(int index) const {
  static constexpr ParamId kRows[] = {81, 82, 85, 86, 89, 90, 93, 94, 97, 98, 99, 100, 102, 106};
  for (ParamId row : kRows)
    if (IsSet(ParamId(row + kEnvelopeRows * index))) return true;
  return false;
}

bool Articulation::operator==(const Articulation& other) const {
  return std::memcmp(values_, other.values_, sizeof values_) == 0 &&
         std::memcmp(mask_, other.mask_, sizeof mask_) == 0;
}

const Articulation& DefaultArticulation() {
  static const Articulation defaults;
  return defaults;
}

std::vector<ParamId> LinkedParams(ParamId id, uint64_t features) {
  std::vector<ParamId> out;
  auto add = [&](ParamId other) {
    if (other != id && kParamRows[other].kind != kKindNone && std::find(out.begin(), out.end(), other) == out.end())
      out.push_back(other);
  };
  // The rules may chain (an envelope fold and the release levels), so they run to a fixed point.
  std::vector<ParamId> pending{id};
  while (!pending.empty()) {
    const ParamId at = pending.back();
    pending.pop_back();
    const size_t before = out.size();
    if (!HasFeature(features, kFeatureSeparateLfos) && at >= 65 && at <= 80) {
      const int lfo = (at - 65) / 4;
      const int position = (at - 65) % 4;
      const bool twoLfos = HasFeature(features, kFeatureTwoLfos);
      if (!(twoLfos && lfo == 0))
        for (int other = 0; other < 4; ++other)
          if (other != lfo && !(twoLfos && other == 0)) add(ParamId(65 + 4 * other + position));
    }
    if (at >= 81 && at <= 188) {
      const int envelope = (at - 81) / kEnvelopeRows;
      const int row = 81 + (at - 81) % kEnvelopeRows;  // the V-ENV id of this row
      if (!HasFeature(features, kFeatureThreeReleases) && row == 99) {
        add(ParamId(101 + kEnvelopeRows * envelope));
        add(ParamId(103 + kEnvelopeRows * envelope));
      }
      if (HasFeature(features, kFeatureTwoEnvelopes) && !HasFeature(features, kFeatureSeparateEnvelopes))
        for (int other = 0; other < 4; ++other)
          if (other != envelope) add(ParamId(row + kEnvelopeRows * other));
    }
    for (size_t i = before; i < out.size(); ++i) pending.push_back(out[i]);
  }
  return out;
}

Articulation MergeArticulations(const std::vector<const Articulation*>& sources) {
  if (sources.empty()) return DefaultArticulation();
  if (sources.size() == 1) return *sources[0];
  Articulation merged;
  const double count = double(sources.size());
  for (ParamId id = 0; id < kArticulationParamCount; ++id) {
    const uint8_t kind = kParamRows[id].kind;
    bool anySet = false;
    for (const Articulation* source : sources) anySet |= source->IsSet(id);
    if (kind == kKindLfoShape) {
      // The most frequent wave in the low six bits; bit 6 when more than half have it.
      std::map<int, int> waves;
      int positive = 0;
      for (const Articulation* source : sources) {
        const int shape = int(source->Get(id));
        ++waves[shape & 0x3F];
        positive += (shape >> 6) & 1;
      }
      int best = 0, bestCount = -1;
      for (const auto& [wave, n] : waves)
        if (n > bestCount) best = wave, bestCount = n;
      merged.values_[id] = float(best | (positive * 2 > int(count) ? 0x40 : 0));
    } else if (kind == kKindReleaseMode || kind == kKindFilterType || kind == kKindEqMode) {
      std::map<float, int> counts;
      for (const Articulation* source : sources) ++counts[source->Get(id)];
      float best = 0.0f;
      int bestCount = -1;
      for (const auto& [value, n] : counts)
        if (n > bestCount) best = value, bestCount = n;
      merged.values_[id] = best;
    } else {
      double sum = 0.0;
      for (const Articulation* source : sources) sum += source->Get(id);
      merged.values_[id] = float(std::round(sum / count * 1000.0) / 1000.0);
    }
    if (anySet) merged.mask_[id >> 6] |= uint64_t(1) << (id & 63);
  }
  return merged;
}

}  // namespace orlin

namespace orlin {

namespace {

// Depth rows of each LFO: P to pitch, V to volume, F to cutoff, X to pitch; base, mod wheel,
// aftertouch, velocity.
constexpr ParamId kLfoDepthRows[4][4] = {{3, 4, 5, 6}, {19, 20, 21, 22}, {29, 30, 31, 32}, {7, 8, 9, 10}};
constexpr ParamId kXLfoToPan = 54;
constexpr float kPanStrengthScale = 24.0f;  // pan depth counts as this many semitones or dB

float DepthStrength(const float* values, const ParamId rows[4]) {
  const float base = values[rows[0]];
  float strength = std::fabs(base);
  for (int i = 1; i < 4; ++i) strength = std::max(strength, std::fabs(base + values[rows[i]]));
  return strength;
}

}  // namespace

std::vector<MergedLfo> MergeLfos(const Articulation& art, int count, uint32_t firstMask, uint32_t secondMask) {
  std::vector<MergedLfo> slots(size_t(std::max(count, 0)));
  std::vector<float> work(art.Values(), art.Values() + kArticulationParamCount);
  for (MergedLfo& slot : slots) {
    const uint32_t reach = &slot == &slots[0] ? firstMask : secondMask;
    std::array<float, 4> strength{};
    if (reach & kReachPitchLfo) strength[0] = DepthStrength(work.data(), kLfoDepthRows[0]);
    if (reach & kReachVolumeLfo) strength[1] = DepthStrength(work.data(), kLfoDepthRows[1]);
    if (reach & kReachFilterLfo) strength[2] = DepthStrength(work.data(), kLfoDepthRows[2]);
    if (reach & kReachPitchByXLfo) strength[3] = DepthStrength(work.data(), kLfoDepthRows[3]);
    if (reach & kReachPanByXLfo) strength[3] = std::max(strength[3], std::fabs(work[kXLfoToPan]) * kPanStrengthScale);
    // A tie goes to the V-LFO, then the F-LFO, the X-LFO and the P-LFO.
    int strongest = -1;
    for (int lfo : {1, 2, 3, 0})
      if (strength[lfo] > 0.0f && (strongest < 0 || strength[lfo] > strength[strongest])) strongest = lfo;
    if (strongest < 0) break;  // nothing left: this and the later slots stay empty
    auto timing = [&](int lfo) {
      const float* at = &work[kParamFirstLfo + 4 * lfo];
      return std::array<int, 3>{int(at[0]), int(at[1] * 10.0f + 0.5f), int(2.0f * (at[2] + at[3]) + 1.0f)};
    };
    slot.lfo = art.GetLfo(strongest);
    slot.empty = false;
    const std::array<int, 3> key = timing(strongest);
    for (int lfo = 0; lfo < 4; ++lfo) {
      if (strength[lfo] <= 0.0f || timing(lfo) != key) continue;
      auto take = [&](std::array<float, 4>& into, int rowsOf) {
        for (int i = 0; i < 4; ++i) {
          into[i] += work[kLfoDepthRows[rowsOf][i]];
          work[kLfoDepthRows[rowsOf][i]] = 0.0f;
        }
      };
      if (lfo == 0) take(slot.toPitch, 0);
      if (lfo == 1) take(slot.toVolume, 1);
      if (lfo == 2) take(slot.toCutoff, 2);
      if (lfo == 3) {
        if (reach & kReachPitchByXLfo) take(slot.toPitch, 3);
        if (reach & kReachPanByXLfo) {
          slot.toPan += work[kXLfoToPan];
          work[kXLfoToPan] = 0.0f;
        }
      }
    }
  }
  return slots;
}

namespace {

// Depth rows of the modulation envelopes: P-ENV to pitch, F-ENV to cutoff (base, velocity); X-ENV to pan.
constexpr ParamId kPitchEnvelopeDepth[2] = {11, 12};
constexpr ParamId kFilterEnvelopeDepth[2] = {33, 34};
constexpr ParamId kXEnvelopeToPan = 55;
constexpr int kPitchEnvelope = 1, kFilterEnvelope = 2, kXEnvelope = 3;

float EnvelopeDepthStrength(const float* values, const ParamId rows[2]) {
  return std::max(std::fabs(values[rows[0]]), std::fabs(values[rows[0]] + values[rows[1]]));
}

// What two envelopes must share to join one slot: summed attack, decay and release times to 0.1 s,
// and the sustain to 0.01.
std::array<int, 4> EnvelopeTiming(const Articulation& art, int index) {
  const EnvelopeRecord e = art.GetEnvelope(index);
  auto tenths = [](float seconds) { return int(std::floor(seconds * 10.0f + 0.5f)); };
  return {tenths(e.times[0] + e.times[1]), tenths(e.times[2] + e.times[3]), tenths(e.times[4] + e.times[5] + e.times[6]),
          int(std::floor(e.levels[4] * 100.0f + 0.5f))};
}

}  // namespace

std::vector<MergedEnvelope> MergeEnvelopes(const Articulation& art, int count, uint32_t firstMask,
                                           uint32_t secondMask) {
  std::vector<MergedEnvelope> slots(size_t(std::max(count, 0)));
  std::vector<float> work(art.Values(), art.Values() + kArticulationParamCount);
  for (MergedEnvelope& slot : slots) {
    const uint32_t reach = &slot == &slots[0] ? firstMask : secondMask;
    std::array<float, 4> strength{};
    if (reach & kReachPitchEnvelope) strength[kPitchEnvelope] = EnvelopeDepthStrength(work.data(), kPitchEnvelopeDepth);
    if (reach & kReachFilterEnvelope) strength[kFilterEnvelope] = EnvelopeDepthStrength(work.data(), kFilterEnvelopeDepth);
    if (reach & kReachPanByXEnvelope) strength[kXEnvelope] = std::fabs(work[kXEnvelopeToPan]) * kPanStrengthScale;
    // A tie goes to the F-ENV, then the X-ENV and the P-ENV, as it does among the LFOs.
    int strongest = -1;
    for (int envelope : {kFilterEnvelope, kXEnvelope, kPitchEnvelope})
      if (strength[envelope] > 0.0f && (strongest < 0 || strength[envelope] > strength[strongest])) strongest = envelope;
    if (strongest < 0) break;  // nothing left: this and the later slots stay empty
    slot.envelope = art.GetEnvelope(strongest);
    slot.empty = false;
    const std::array<int, 4> key = EnvelopeTiming(art, strongest);
    for (int envelope : {kPitchEnvelope, kFilterEnvelope, kXEnvelope}) {
      if (strength[envelope] <= 0.0f || EnvelopeTiming(art, envelope) != key) continue;
      auto take = [&](std::array<float, 2>& into, const ParamId rows[2]) {
        for (int i = 0; i < 2; ++i) {
          into[i] += work[rows[i]];
          work[rows[i]] = 0.0f;
        }
      };
      if (envelope == kPitchEnvelope) take(slot.toPitch, kPitchEnvelopeDepth);
      if (envelope == kFilterEnvelope) take(slot.toCutoff, kFilterEnvelopeDepth);
      if (envelope == kXEnvelope) {
        slot.toPan += work[kXEnvelopeToPan];
        work[kXEnvelopeToPan] = 0.0f;
      }
    }
  }
  return slots;
}

}  // namespace orlin
