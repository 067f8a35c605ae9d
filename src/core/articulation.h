// The parameter vocabulary: one numbering (ParamId 0-262) for every item property, its read-only
// table of rows (kind, unit, default, bounds, control, labels), the views that adapt rows to the
// user's feature word, and the Articulation: the 189 sound-shaping values an instrument, layer or
// region carries, always effective numbers, with a mask of what that level sets itself.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

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
constexpr int kEffectSlotCount = 4;
constexpr int kEffectViewsPerSlot = 8;
constexpr int kEffectTypeCount = 9;

// Well-known ids.
constexpr ParamId kParamMasterTune = 0;
constexpr ParamId kParamMasterVolume = 14;
constexpr ParamId kParamFilterType = 23;
constexpr ParamId kParamFirstLfo = 65;       // P-LFO 65, V-LFO 69, F-LFO 73, X-LFO 77: shape, rate, delay, ramp
constexpr ParamId kParamFirstEnvelope = 81;  // V-ENV 81, P-ENV 108, F-ENV 135, X-ENV 162, 27 rows each
constexpr ParamId kEnvelopeRows = 27;
constexpr ParamId kParamTriggerType = 189;
constexpr ParamId kParamPedalSwitch = 200;
constexpr ParamId kParamTriggerDelay = 201;

// A control writes this to ask for the inherited value ("-- reset --"); the other marks a
// multi-selection whose values differ ("<different>").
constexpr float kResetValue = -98765.0f;
constexpr float kDifferentValue = -98767.0f;

// Value kinds: how SetParam rounds and how a value prints.
enum ParamKind : uint8_t {
  kKindNone = 0, kKindEffectTime = 1, kKindSigned = 2, kKindFrequency = 3, kKindWhole = 4, kKindTime = 5,
  kKindPercent = 6, kKindMilliseconds = 7, kKindEnvelopeLevel = 8, kKindGroup = 9, kKindOnOff = 10,
  kKindText = 11, kKindImage = 12, kKindKey = 13, kKindTriggerType = 14, kKindPedalSwitch = 15,
  kKindLfoShape = 16, kKindReleaseMode = 17, kKindFilterType = 18, kKindEqMode = 19, kKindLoopType = 20,
  kKindLoopRelease = 21, kKindEffectType = 22, kKindExclusionMode = 23, kKindXfadeFormula = 24,
  kKindDataFormat = 25,
};

// The read-only row of one parameter.
struct ParamInfo {
  ParamId id;
  uint8_t kind;
  uint8_t unit;   // 0 none, 1 "dB", 2 "st", 3 "x", 4 "%", 5 "Hz", 6 "s", 7 "ms"
  uint8_t flags;  // what an edit refreshes in the pane; bits 5-6 mark rows acting on the wave
  uint16_t control;
  float defaultValue;
  float minValue;
  float maxValue;
  const char* name;  // empty for unused rows
  const char* note;  // tool-tip; null when none
};

// The plain row of `id`; null past the table.
const ParamInfo* GetParamRow(ParamId id);
// Row `view` (0-7) of an FX slot of type `fxType` (0-8), as for slot 0; null when out of range.
const ParamInfo* GetEffectRow(int fxType, int view);
// "dB", "st", ... or "" for none.
const char* UnitLabel(uint8_t unit);

// Feature bits of the features word that the table and the fix-ups consult.
enum FeatureBit : int {
  kFeatureXfade = 0, kFeatureInstrumentLevel = 1, kFeatureLayerLevel = 2, kFeatureRegionLevel = 3,
  kFeatureCompressedFormats = 5, kFeatureDlsFlags = 6, kFeatureFractionalLoops = 7, kFeatureReverseLoops = 8,
  kFeatureSampledRelease = 9, kFeatureRegionOffsets = 10, kFeatureLoopTune = 11, kFeatureTriggerDelay = 12,
  kFeatureTriggerType = 13, kFeatureTwoLfos = 14, kFeatureSeparateLfos = 15, kFeatureTwoEnvelopes = 19,
  kFeatureSeparateEnvelopes = 20, kFeatureThreeReleases = 23, kFeatureMoreFilterTypes = 31,
};
constexpr bool HasFeature(uint64_t features, int bit) { return (features >> bit) & 1; }

// The views: a copy of the row changed where the features require it, in static storage per call
// site. Use at once; do not hold.
const ParamInfo* ArticulationView(ParamId id, uint64_t features);  // ids below 189
const ParamInfo* LoopView(ParamId id, uint64_t features);          // 204-208
// Ids 231-262: the row of the slot's FX type, moved to the slot; gate rows hidden unless gated.
const ParamInfo* EffectView(ParamId id, int fxType, bool gateReverb);

// Symmetric rounding to the kind's grid (none for kinds without one).
float RoundToGrid(uint8_t kind, float value);
// The value as the pane prints it; `midCIsC3` names key 60 C3.
std::string FormatParamValue(const ParamInfo& row, float value, bool midCIsC3 = false);
// Value/label pairs of an enumerated kind, in list order; empty for other kinds.
std::vector<std::pair<int, std::string>> EnumLabels(uint8_t kind);
// "C4" style key name.
std::string KeyName(int key, bool midCIsC3 = false);

// One envelope in bulk: seven times, eight levels, five velocity and five key factors, shutdown
// rate and release mode, in the order of the rows.
struct EnvelopeRecord {
  std::array<float, 7> times{};       // attack 1, attack 2, decay 1, decay 2, release 1 rate, release 2, release 3
  std::array<float, 8> levels{};      // initial, attack 1, attack 2, decay 1, sustain, release 1, 2, 3
  std::array<float, 5> velocityTo{};  // attack 1, attack 2, decay 1, decay 2, total release
  std::array<float, 5> keyTo{};
  float shutdownRate = 0.0f;
  float releaseMode = 0.0f;
};
struct LfoRecord {
  float shape = 0.0f;
  float frequency = 5.0f;
  float delay = 0.0f;
  float ramp = 0.0f;
};

class Articulation;
Articulation MergeArticulations(const std::vector<const Articulation*>& sources);

class Articulation {
 public:
  // A copy of the default set with an empty mask.
  Articulation() { Reset(); }

  // Every value to its default, no set bits.
  void Reset();
  float Get(ParamId id) const { return id < kArticulationParamCount ? values_[id] : 0.0f; }
  const float* Values() const { return values_; }
  bool IsSet(ParamId id) const { return id < kArticulationParamCount && (mask_[id >> 6] >> (id & 63)) & 1; }
  bool AnySet() const { return mask_[0] | mask_[1] | mask_[2]; }
  const uint64_t* Mask() const { return mask_; }
  // Takes 189 values and the three mask words as they stand, unrounded (a stored snapshot).
  void Assign(const float* values, const uint64_t* mask);
  // Rounds by the row's kind, clamps to the plain row's bounds, stores and sets the bit.
  void Set(ParamId id, float value);
  // Takes a value from the level above as it is: stored, set bit cleared.
  void Inherit(ParamId id, float value);
  void ClearSet(ParamId id);
  void ClearAllSet() { mask_[0] = mask_[1] = mask_[2] = 0; }
  // Copies the parent's value into each id not set here; true if a value changed.
  bool FillFrom(const Articulation& parent);
  // Clears the bit of each set id whose value equals the parent's exactly; true if any cleared.
  bool DropEqual(const Articulation& parent);
  // Ids [first, last): set here where `from` sets them, else the parent's value with the bit clear.
  void CopyRange(const Articulation& from, ParamId first, ParamId last, const float* parentValues);
  // Re-applies grid and bounds to every value (after a reader wrote raw numbers).
  void Clamp();

  // Envelope 0 V-ENV, 1 P-ENV, 2 F-ENV, 3 X-ENV; LFO 0 P, 1 V, 2 F, 3 X. Setting marks the rows set.
  void SetEnvelope(int index, const EnvelopeRecord& record);
  EnvelopeRecord GetEnvelope(int index) const;
  void SetLfo(int index, const LfoRecord& record);
  LfoRecord GetLfo(int index) const;
  // Anything set here; the filter rows 24-39 count only with a filter type other than "Pass-thru".
  bool IsLevelUsed() const;
  bool HasEnvelope(int index) const;

  bool operator==(const Articulation& other) const;

 private:
  friend Articulation MergeArticulations(const std::vector<const Articulation*>& sources);
  float values_[kArticulationParamCount];
  uint64_t mask_[3];
};

// The process-wide default set: every row's default, no set bits.
const Articulation& DefaultArticulation();

// Ids that an edit of `id` also changes under the features (LFOs or envelopes folded together,
// release levels following release 1). Does not include `id`.
std::vector<ParamId> LinkedParams(ParamId id, uint64_t features);

// The combined set of several (means on a 0.001 grid, counted modes for shapes and modes).
Articulation MergeArticulations(const std::vector<const Articulation*>& sources);

}  // namespace orlin

namespace orlin {

// One modulator slot of a format with fewer LFOs than four: the shape and timing of the strongest
// LFO it takes, and the depths (base, mod wheel, aftertouch, velocity) of every LFO that joined.
struct MergedLfo {
  LfoRecord lfo;
  std::array<float, 4> toPitch{};
  std::array<float, 4> toVolume{};
  std::array<float, 4> toCutoff{};
  float toPan = 0.0f;
  bool empty = true;
};
// Destinations a format's modulator can reach.
enum LfoReach : uint32_t {
  kReachPitchLfo = 1, kReachVolumeLfo = 2, kReachFilterLfo = 4, kReachPanByXLfo = 8, kReachPitchByXLfo = 16,
};
// Folds the four LFOs of `art` into `count` slots; the first slot reaches `firstMask`, the others
// `secondMask`. LFOs of the same shape, rate (0.1 Hz) and start time share a slot.
std::vector<MergedLfo> MergeLfos(const Articulation& art, int count, uint32_t firstMask, uint32_t secondMask);

// One envelope slot of a format with fewer envelopes than four, from MergeEnvelopes: the envelope it
// takes, and the depths (base, velocity) of every envelope that joined.
struct MergedEnvelope {
  EnvelopeRecord envelope;
  std::array<float, 2> toPitch{};
  std::array<float, 2> toCutoff{};
  float toPan = 0.0f;
  bool empty = true;
};
// Destinations a format's modulation envelope can reach.
enum EnvelopeReach : uint32_t { kReachPitchEnvelope = 1, kReachFilterEnvelope = 2, kReachPanByXEnvelope = 4 };
// Folds the P-, F- and X-ENV of `art` into `count` slots, as MergeLfos does for LFOs: envelopes whose
// attack, decay and release times (0.1 s) and sustain (0.01) agree share a slot.
std::vector<MergedEnvelope> MergeEnvelopes(const Articulation& art, int count, uint32_t firstMask,
                                           uint32_t secondMask);

}  // namespace orlin
