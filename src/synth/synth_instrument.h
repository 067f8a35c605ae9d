// An instrument compiled for the synthesizer: a flat list of regions that hold every number a note
// needs, so the audio thread never walks the Collection. Samples are held once per wave in a cache
// shared by all regions, as float with the guard frames of WaveData around them.
#pragma once
#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/articulation.h"
#include "core/collection.h"

namespace orlin::synth {

constexpr uint32_t FourChars(const char (&text)[5]) {
  return uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 | uint32_t(uint8_t(text[2])) << 16 |
         uint32_t(uint8_t(text[3])) << 24;
}
constexpr uint32_t kTagWave = FourChars("Wave");
constexpr uint32_t kTagFm = FourChars("FMod");
constexpr uint32_t kTagLa = FourChars("AniL");

// The samples of one wave (or of a fused stereo pair), held by reference count.
struct SampleCacheEntry {
  const float* samples = nullptr;  // interleaved if stereo; guard frames before and after
  uint32_t frames = 0;
  uint32_t channels = 1;
  float rate = 44100.0f;
  uint32_t referenceCount = 0;
  WaveData* data = nullptr;  // the block `samples` points into; one reference held
};

// Waves by key: the Waveform id's low 28 bits, with the right wave's index in the top bits for a
// fused pair. Lookups take the lock; note-on on the audio thread expects no contention.
class SampleCache {
 public:
  ~SampleCache();
  // Finds or makes the entry for one wave or a left/right pair (`right` null for one wave) and
  // takes a reference. Null with the last-error text when the samples cannot be had.
  SampleCacheEntry* Acquire(Waveform& left, Waveform* right);
  void Release(SampleCacheEntry* entry);
  size_t Size() const;

 private:
  mutable std::mutex lock_;
  std::unordered_map<uint64_t, std::unique_ptr<SampleCacheEntry>> entries_;
};

// Trigger types and modes the note-on path tests.
constexpr uint8_t kTriggerKeyPress = 0;
constexpr uint8_t kTriggerKeyRelease = 1;
constexpr uint8_t kExclusionSelf = 0;
constexpr uint8_t kExclusionNone = 1;
constexpr uint8_t kLoopOff = 0, kLoopForward = 1, kLoopReverse = 2, kLoopAlternating = 3;

struct SynthRegion {
  uint32_t tag = kTagWave;
  uint32_t ownerId = kNullId;
  // The key and velocity rectangle, widened by half the fades (see the compile step).
  int16_t loKey = 0, hiKey = 127, loVelocity = 0, hiVelocity = 127;
  int16_t keyFadeIn = 0, keyFadeOut = 0, velocityFadeIn = 0, velocityFadeOut = 0;
  uint8_t keyFadeFormula = 0, velocityFadeFormula = 0;
  uint8_t triggerType = 0;
  uint8_t sustainSwitch = 0;  // 1 plays with the pedal down, 2 with it up
  uint16_t exclusionGroup = 0;
  uint8_t exclusionMode = kExclusionSelf;
  float delaySeconds = 0.0f;
  float pan = 0.0f, cc10Depth = 1.0f;
  std::array<float, 4> sendLevels{}, sendDepths{};
  std::array<float, kArticulationParamCount> values{};
  // "Wave" only.
  uint64_t waveKey = 0;
  SampleCacheEntry* sample = nullptr;
  uint8_t loopType = 0, loopRelease = 0;
  double loopStart = 0.0, loopEnd = 0.0;  // frames of the wave, end exclusive
  float loopTune = 0.0f;
  int32_t startOffset = 0, endOffset = 0;
  uint16_t phaseGroup = 0;
  uint8_t phaseMaster = 0;
  bool stereoFused = false;

  bool Contains(int key, int velocity) const {
    return key >= loKey && key <= hiKey && velocity >= loVelocity && velocity <= hiVelocity;
  }
  bool SameRectangle(const SynthRegion& other) const;
};

struct SynthInstrument {
  std::vector<SynthRegion> regions;  // in layer order
  std::array<float, 32> effectSlots{};
  std::string name;  // at most 79 characters
  uint32_t patch = 0;
  uint32_t ownerId = kNullId;
};

// Compiles `instrument` into `out`, registering its samples in `cache`. Regions without a wave or
// model are dropped; a wave whose samples cannot be decoded leaves its regions silent.
void CompileInstrument(const Instrument& instrument, SampleCache& cache, SynthInstrument& out);
// Gives back the instrument's references to the sample cache.
void ReleaseInstrumentSamples(SynthInstrument& instrument, SampleCache& cache);

// The widening of one edge pair of the rectangle: lo/fade-in and hi/fade-out become the rectangle
// on which the fades are centred. In place.
void WidenRange(int16_t& lo, int16_t& hi, int16_t& fadeIn, int16_t& fadeOut, int limit);

}  // namespace orlin::synth
