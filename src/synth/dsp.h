// The synthesizer's building blocks that run at block rate or per frame: the polynomial sine, the
// eight-stage envelope, the LFO, the one-pole and state-variable filter sections and the biquad EQ
// stage. They are plain records with no allocation, so the processing algorithms and the channel
// effects can reuse them. Recursive sections flush denormals by adding and taking away 1e-18.
#pragma once
#include <cstdint>

#include "core/articulation.h"

namespace orlin::synth {

constexpr int kBlockFrames = 64;
// Marks an unset float in the engine's records (bits 0xF30DCCD9).
constexpr float kUnsetFloat = -1.1234568e+31f;
// ln(2) / 12: semitones to a frequency ratio through exp.
constexpr double kSemitoneToLog = 0.057762265046662105;

// Without fast-math the compiler keeps the add and the subtract; a value below 1e-18 becomes 0.
inline float FlushDenormal(float value) {
  value += 1e-18f;
  value -= 1e-18f;
  return value;
}

// Sine of `x` cycles (0 up to 1) by a degree-11 series folded into the first quarter.
float PolySine(float x);
inline float PolyCosine(float x) {
  float moved = x + 0.25f;
  if (moved >= 1.0f) moved -= 1.0f;
  return PolySine(moved);
}

// V-ENV level (normalised dB, 1 = 0 dB, 0 = -96 dB) to a linear gain and back.
float EnvelopeLevelToGain(float level);
float EnvelopeGainToLevel(float gain);

// One envelope: up to eight stages, each a time or a rate to a target, in the dB or gain domain.
struct EnvelopeState {
  int32_t blocksLeft = 0;
  float level = 0.0f;
  float increment = 0.0f;
  float shutdownRate = 0.0f;  // `Shutdown Rate` times block rate, V-ENV only
  uint8_t stage = 8;
  uint8_t releaseStage = 8;
  bool gainDomain = false;
  float durations[8] = {};  // ticks, or ticks per unit of level for a rate stage
  float targets[8] = {};
  uint32_t rateMask = 0;
  uint32_t gainMask = 0;

  // Builds the stages from `record` at `key` and bipolar velocity; `volume` is the V-ENV case.
  void Setup(const EnvelopeRecord& record, float key, float bipolarVelocity, float blockRate, bool volume,
             bool keyReleaseTrigger);
  void Enter(int stageIndex);
  // One block: the result as a normalised dB level (gain-domain levels converted).
  float Tick();
  // Enters the release stage from the current level, whatever the stage.
  void Release();
  // Fades to silence at the shutdown rate unless the envelope is already ending faster.
  void Shutdown();
  bool Finished() const { return stage >= 8; }
  float CurrentLevel() const;
};

// LFO waves by the low bits of the shape byte.
enum LfoWave : uint8_t {
  kLfoSine = 0, kLfoTriangle = 1, kLfoSquare = 2, kLfoNoise = 3, kLfoSawUp = 4, kLfoSawDown = 5,
  kLfoShapedSawUp = 6, kLfoShapedSawDown = 7,
};

struct LfoState {
  uint8_t wave = 0;
  float phase = 0.0f;
  float step = 0.0f;
  float offset = 0.0f;
  float scale = 1.0f;
  float held = 0.0f;
  int32_t delayLeft = 0;
  int32_t fadeLeft = 0;
  float fade = 1.0f;
  float fadeStep = 0.0f;
  uint32_t randomState = 22222;  // the noise wave's own generator: no shared state between workers

  // `isNew`: the phase and the delay start afresh.
  void Setup(int shape, float frequency, float delaySeconds, float rampSeconds, float blockRate, bool isNew);
  float Tick();
};

// A 15-bit random number from a small generator (the C library's rand takes a lock).
int NextRandom15(uint32_t& state);

// One-pole low- or high-pass; state per channel.
struct OnePoleFilter {
  float lastShift = kUnsetFloat;
  float baseCutoff = 0.0f;  // cycles per sample
  bool highPass = false;
  float c0 = 1.0f, c1 = 0.0f, a1 = 0.0f;
  float x1[2] = {}, y1[2] = {};

  void Init(float normalisedCutoff, bool high);
  void Update(float shiftSemitones);
  void Process(float* samples, int frames, int channels);
};

// State-variable section: low-pass (2), high-pass (6), band-pass (9), band-reject (11).
struct SvfFilter {
  float lastShift = kUnsetFloat;
  float lastResonance = kUnsetFloat;
  float baseCutoff = 0.0f;
  uint8_t type = 2;
  bool oversampled = true;
  float f = 0.0f, q = 1.0f;
  float low[2] = {}, band[2] = {};
  // The passes of one frame are linear in (low, band, input): they run as one 3x3 map whose rows give
  // the new low, the new band and the output. Same arithmetic, a third of the dependent steps.
  float lowFrom[3] = {}, bandFrom[3] = {}, outFrom[3] = {};

  void Init(float normalisedCutoff, int sectionType, bool oversample);
  void Update(float shiftSemitones, float resonanceDb);
  void Process(float* samples, int frames, int channels);
};

// The filter of parameter 23 as its sections: an optional one-pole, then up to two SVF sections.
struct VoiceFilter {
  uint8_t type = 0;      // parameter 23; 0 means no filter code runs
  uint8_t sections = 0;  // how many of the three below take part
  bool hasOnePole = false;
  bool twoSvf = false;
  bool hasSvf = false;
  float fixedFirstResonance = 0.0f;  // the first of two SVF sections runs without resonance
  OnePoleFilter onePole;
  SvfFilter svf[2];

  // False for a type that cannot be set up, which leaves the voice without a filter.
  bool Setup(int filterType, float normalisedCutoff);
  void Update(float shiftSemitones, float resonanceDb);
  void Process(float* samples, int frames, int channels);
};

// EQ band modes.
enum EqMode : uint8_t { kEqPeak = 0, kEqLowShelf = 1, kEqHighShelf = 2 };

// One biquad in direct form I with coefficients divided by a0.
struct BiquadStage {
  float a1 = 0, a2 = 0, b0 = 1, b1 = 0, b2 = 0;
  float x1[2] = {}, x2[2] = {}, y1[2] = {}, y2[2] = {};

  void SetEq(int mode, float centreHz, float gainDb, float q, float sampleRate);
  void Process(float* samples, int frames, int channels);
};

}  // namespace orlin::synth
