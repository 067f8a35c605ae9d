// Envelopes, LFOs, filter sections and EQ stages of the voice path. Envelopes and LFOs tick once a
// block; filters and EQ run per frame on mono or interleaved stereo with shared coefficients.
#include "synth/dsp.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace orlin::synth {

namespace {
constexpr float kTwoPi = 6.2831855f;
constexpr float kDbPerLevel = 96.0f;  // a V-ENV level of 1 spans 96 dB
// 20 / 96: log10 of a gain to a V-ENV level step.
constexpr float kLevelPerLog10 = 0.20833334f;
constexpr float kHoldTicks = 2147483648.0f;
}  // namespace

float PolySine(float x) {
  float u;
  if (x <= 0.25f) u = x;
  else if (x <= 0.5f) u = 0.5f - x;
  else if (x <= 0.75f) u = -(x - 0.5f);
  else u = -(1.0f - x);
  const float w = kTwoPi * u;
  const float y = u * u * 39.47842f;  // w squared
  return w * (((((2.7557319e-6f - y * 2.5052108e-8f) * y - 0.0001984127f) * y + 0.008333334f) * y - 0.16666667f) * y +
              1.0f);
}

float EnvelopeLevelToGain(float level) {
  const float db = (level - 1.0f) * kDbPerLevel;
  if (level <= 0.0f || db <= -kDbPerLevel) return 0.0f;
  return std::pow(10.0f, db / 20.0f);
}

float EnvelopeGainToLevel(float gain) { return gain > 0.0f ? std::log10(gain) * kLevelPerLog10 + 1.0f : 0.0f; }

int NextRandom15(uint32_t& state) {
  // The multiplier and increment of the classic C library generator, kept per owner.
  state = state * 214013u + 2531011u;
  return int((state >> 16) & 0x7FFF);
}

// ---------------------------------------------------------------------------------------------
// Envelope

void EnvelopeState::Setup(const EnvelopeRecord& record, float key, float bipolarVelocity, float blockRate, bool volume,
                          bool keyReleaseTrigger) {
  const float velocityExponent = bipolarVelocity / 2.0f;
  const float keyExponent = (key - 60.0f) / 12.0f;
  // The factor of a row is the time ratio between top and bottom velocity, or per octave of key.
  auto scaled = [&](float time, int row) {
    const float byVelocity = record.velocityTo[size_t(row)], byKey = record.keyTo[size_t(row)];
    if (byVelocity != 1.0f) time *= std::pow(byVelocity, velocityExponent);
    if (byKey != 1.0f) time *= std::pow(byKey, keyExponent);
    return time;
  };
  float times[7];
  for (int i = 0; i < 4; ++i) times[i] = scaled(record.times[size_t(i)], i);
  for (int i = 4; i < 7; ++i) times[i] = scaled(record.times[size_t(i)], 4);
  const float* levels = record.levels.data();  // initial, A1, A2, D1, sustain, R1, R2, R3
  const bool oneShot = record.releaseMode != 0.0f;

  if (volume) {
    // Against clicks: a start from silence gets at least 1 ms of rise, a release at least 2 ms.
    if (levels[0] == 0.0f) {
      for (int i = 0; i < 4; ++i)
        if (levels[i + 1] > 0.0f) {
          times[i] = std::max(times[i], 0.001f);
          break;
        }
    }
    if (!oneShot) {
      times[4] = std::max(times[4], 0.002f);
      if (levels[6] != levels[5]) times[5] = std::max(times[5], 0.002f);
      if (levels[7] != levels[6]) times[6] = std::max(times[6], 0.002f);
    }
    shutdownRate = record.shutdownRate * blockRate;
  }

  level = levels[0];
  gainDomain = false;
  rateMask = gainMask = 0;
  int count = 0;
  float previous = levels[0];
  bool previousGain = false;
  auto add = [&](float ticks, float target, bool gain, bool rate) {
    durations[count] = ticks;
    targets[count] = gain ? EnvelopeLevelToGain(target) : target;
    if (gain) gainMask |= 1u << count;
    if (rate) rateMask |= 1u << count;
    ++count;
    previous = target;
    previousGain = gain;
  };
  auto addTimed = [&](float time, float target, bool gain) {
    if (time == 0.0f && target == previous) return;
    add(time * blockRate, target, gain, false);
  };
  addTimed(times[0], levels[1], volume);
  addTimed(times[1], levels[2], volume);
  addTimed(times[2], levels[3], false);
  addTimed(times[3], levels[4], false);
  if (levels[4] > 0.0f || levels[5] > 0.0f || levels[6] > 0.0f || levels[7] > 0.0f)
    add(kHoldTicks, previous, previousGain, false);
  releaseStage = 8;
  if (!keyReleaseTrigger && !oneShot) {
    releaseStage = uint8_t(count);
    add(times[4] * blockRate, levels[5], false, true);
    if (levels[6] != levels[5]) add(times[5] * blockRate, levels[6], false, false);
    if (levels[7] != levels[6]) add(times[6] * blockRate, levels[7], false, false);
  }
  // Unused slots pass through at once with the last level, so the walk reaches stage 8 from any end.
  const float lastTarget = count ? targets[count - 1] : level;
  for (int i = count; i < 8; ++i) {
    durations[i] = 0.0f;
    targets[i] = lastTarget;
    if (previousGain) gainMask |= 1u << i;
  }
  Enter(0);
}

void EnvelopeState::Enter(int stageIndex) {
  const bool wantGain = (gainMask >> stageIndex) & 1;
  if (wantGain != gainDomain) {
    level = wantGain ? EnvelopeLevelToGain(level) : EnvelopeGainToLevel(level);
    gainDomain = wantGain;
  }
  const float delta = FlushDenormal(targets[stageIndex] - level);
  double ticks = durations[stageIndex];
  if ((rateMask >> stageIndex) & 1) ticks *= std::fabs(delta);  // Time = Rate * Delta-Level
  ticks = std::min(ticks + 0.5, double(INT32_MAX));
  blocksLeft = int32_t(ticks);
  stage = uint8_t(stageIndex);
  increment = blocksLeft ? delta / float(blocksLeft) : 0.0f;
}

float EnvelopeState::CurrentLevel() const {
  if (!gainDomain) return level;
  return level > 0.0f ? std::log10(level) * kLevelPerLog10 + 1.0f : 0.0f;
}

float EnvelopeState::Tick() {
  while (blocksLeft <= 0) {
    if (stage > 7) break;
    level = targets[stage];
    const int finished = stage++;
    if (finished == 7) {
      increment = 0.0f;
      break;
    }
    Enter(stage);
    if (blocksLeft > 0) break;
  }
  if (blocksLeft > 0) {
    --blocksLeft;
    level += increment;
  }
  return CurrentLevel();
}

void EnvelopeState::Release() {
  if (releaseStage < 8 && stage < releaseStage) Enter(releaseStage);
}

void EnvelopeState::Shutdown() {
  const int32_t fastest = int32_t(CurrentLevel() * shutdownRate + 0.5f);
  if (stage >= 7 && blocksLeft <= fastest) return;
  durations[7] = shutdownRate;
  targets[7] = 0.0f;
  rateMask |= 1u << 7;
  gainMask &= ~(1u << 7);
  Enter(7);
}

// ---------------------------------------------------------------------------------------------
// LFO

void LfoState::Setup(int shape, float frequency, float delaySeconds, float rampSeconds, float blockRate, bool isNew) {
  wave = uint8_t(shape & 0x3F);
  const int polarity = (shape >> 6) & 3;
  step = frequency / blockRate;
  offset = polarity == 0 ? 0.0f : 1.0f;
  scale = polarity == 0 ? 1.0f : polarity == 1 ? 0.5f : -0.5f;
  if (wave == kLfoShapedSawUp || wave == kLfoShapedSawDown) held = std::max(0.5f, 1.0f - step * 75.0f);
  if (!isNew && delayLeft <= 0) return;
  if (isNew) {
    // A new LFO starts at its neutral level.
    switch (wave) {
      case kLfoSine: phase = polarity == 0 ? 0.0f : 0.75f; break;
      case kLfoTriangle: phase = polarity == 0 ? 0.25f : 0.0f; break;
      case kLfoSawUp:
      case kLfoSawDown: phase = polarity == 0 ? 0.5f : 0.0f; break;
      default: phase = 0.0f; break;
    }
  }
  delayLeft = int32_t(delaySeconds * blockRate);
  fadeLeft = int32_t(rampSeconds * blockRate);
  fadeStep = fadeLeft > 0 ? 1.0f / float(fadeLeft) : 0.0f;
  fade = fadeLeft > 0 ? 0.0f : 1.0f;
}

float LfoState::Tick() {
  if (delayLeft > 0) {
    --delayLeft;
    return 0.0f;
  }
  const float p = phase;
  float value;
  switch (wave) {
    case kLfoSine: value = PolySine(p); break;
    case kLfoTriangle: value = p < 0.5f ? 4.0f * p - 1.0f : 3.0f - 4.0f * p; break;
    case kLfoSquare: value = p < 0.5f ? 1.0f : -1.0f; break;
    case kLfoNoise:
      if (p - step < 0.0f) held = float(NextRandom15(randomState)) * 6.103702e-05f - 1.0f;
      value = held;
      break;
    case kLfoSawUp: value = 2.0f * p - 1.0f; break;
    case kLfoSawDown: value = 1.0f - 2.0f * p; break;
    case kLfoShapedSawUp:
    case kLfoShapedSawDown: {
      const float x = wave == kLfoShapedSawUp ? p : 1.0f - p;
      value = x < held ? 2.0f * x / held - 1.0f : 1.0f - 2.0f * (x - held) / (1.0f - held);
      break;
    }
    default: value = 0.0f; break;
  }
  float result = (value + offset) * scale;
  if (fadeLeft > 0) {
    --fadeLeft;
    result *= fade;
    fade += fadeStep;
  }
  phase += step;
  phase -= std::floor(phase);
  return result;
}

// ---------------------------------------------------------------------------------------------
// Filters

namespace {
// ln(2) / 12 in f32, for the cutoff shift in semitones.
constexpr float kSemitoneToLogF = 0.05776227f;
}

void OnePoleFilter::Init(float normalisedCutoff, bool high) {
  baseCutoff = normalisedCutoff;
  highPass = high;
  lastShift = kUnsetFloat;
  x1[0] = x1[1] = y1[0] = y1[1] = 0.0f;
}

void OnePoleFilter::Update(float shiftSemitones) {
  if (shiftSemitones == lastShift) return;
  lastShift = shiftSemitones;
  const float w = std::min(std::exp(shiftSemitones * kSemitoneToLogF) * baseCutoff, 0.5f);
  a1 = std::exp(-kTwoPi * w);
  if (highPass) {
    c0 = (1.0f + a1) / 2.0f;
    c1 = -c0;
  } else {
    c0 = 1.0f - a1;
    c1 = 0.0f;
  }
}

void OnePoleFilter::Process(float* samples, int frames, int channels) {
  for (int c = 0; c < channels; ++c) {
    float xPrev = x1[c], yPrev = y1[c];
    for (int i = 0; i < frames; ++i) {
      float& s = samples[i * channels + c];
      const float y = FlushDenormal(c0 * s + c1 * xPrev + a1 * yPrev);
      xPrev = s;
      yPrev = y;
      s = y;
    }
    x1[c] = xPrev;
    y1[c] = yPrev;
  }
}

void SvfFilter::Init(float normalisedCutoff, int sectionType, bool oversample) {
  baseCutoff = normalisedCutoff;
  type = uint8_t(sectionType);
  oversampled = oversample;
  lastShift = lastResonance = kUnsetFloat;
  low[0] = low[1] = band[0] = band[1] = 0.0f;
}

void SvfFilter::Update(float shiftSemitones, float resonanceDb) {
  if (shiftSemitones == lastShift && resonanceDb == lastResonance) return;
  lastShift = shiftSemitones;
  lastResonance = resonanceDb;
  const float limit = oversampled ? 0.5f : 0.36f;
  const float w = std::min(std::exp(shiftSemitones * kSemitoneToLogF) * baseCutoff, limit);
  // f = 2 sin(w * m) with m = pi/2 oversampled, pi otherwise; the sine takes cycles.
  f = 2.0f * PolySine(oversampled ? w * 0.25f : w * 0.5f);
  // The resonance is the height of the peak in dB; damping is its inverse gain, clamped for stability.
  q = resonanceDb < 96.0f ? std::exp(resonanceDb * -0.115129255f) : 0.0f;
  q = std::min(2.0f - f, q);
  // The map's columns: the passes run on a unit low, a unit band and a unit input.
  const int passes = oversampled ? 2 : 1;
  const float unit[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  for (int column = 0; column < 3; ++column) {
    float lo = unit[column][0], bp = unit[column][1];
    const float x = unit[column][2];
    float notch = 0.0f, high = 0.0f;
    for (int pass = 0; pass < passes; ++pass) {
      lo += f * bp;
      notch = x - q * bp;
      high = notch - lo;
      bp += f * high;
    }
    lowFrom[column] = lo;
    bandFrom[column] = bp;
    outFrom[column] = type == 2 ? lo : type == 6 ? high : type == 9 ? bp : notch;
  }
}

void SvfFilter::Process(float* samples, int frames, int channels) {
  const float ll = lowFrom[0], lb = lowFrom[1], lx = lowFrom[2];
  const float bl = bandFrom[0], bb = bandFrom[1], bx = bandFrom[2];
  const float ol = outFrom[0], ob = outFrom[1], ox = outFrom[2];
  if (channels == 2) {
    // Both channels in one loop: two independent chains keep the processor busy.
    float lo0 = low[0], bp0 = band[0], lo1 = low[1], bp1 = band[1];
    for (int i = 0; i < frames; ++i) {
      const float x0 = samples[2 * i], x1 = samples[2 * i + 1];
      samples[2 * i] = ol * lo0 + ob * bp0 + ox * x0;
      samples[2 * i + 1] = ol * lo1 + ob * bp1 + ox * x1;
      const float newLo0 = ll * lo0 + lb * bp0 + lx * x0, newLo1 = ll * lo1 + lb * bp1 + lx * x1;
      bp0 = bl * lo0 + bb * bp0 + bx * x0, bp1 = bl * lo1 + bb * bp1 + bx * x1;
      lo0 = newLo0, lo1 = newLo1;
    }
    // Denormals are flushed from the state once a block: within 64 frames nothing decays that far.
    low[0] = FlushDenormal(lo0), band[0] = FlushDenormal(bp0);
    low[1] = FlushDenormal(lo1), band[1] = FlushDenormal(bp1);
    return;
  }
  float lo = low[0], bp = band[0];
  for (int i = 0; i < frames; ++i) {
    const float x = samples[i];
    samples[i] = ol * lo + ob * bp + ox * x;
    const float newLo = ll * lo + lb * bp + lx * x;
    bp = bl * lo + bb * bp + bx * x;
    lo = newLo;
  }
  low[0] = FlushDenormal(lo), band[0] = FlushDenormal(bp);
}

bool VoiceFilter::Setup(int filterType, float normalisedCutoff) {
  type = 0;
  hasOnePole = hasSvf = twoSvf = false;
  int svfType = 0;
  switch (filterType) {
    case 1: hasOnePole = true, onePole.Init(normalisedCutoff, false); break;
    case 5: hasOnePole = true, onePole.Init(normalisedCutoff, true); break;
    case 2: case 6: case 9: case 11: svfType = filterType; break;
    case 3: hasOnePole = true, onePole.Init(normalisedCutoff, false), svfType = 2; break;
    case 7: hasOnePole = true, onePole.Init(normalisedCutoff, true), svfType = 6; break;
    case 4: twoSvf = true, svfType = 2; break;
    case 8: twoSvf = true, svfType = 6; break;
    case 10: twoSvf = true, svfType = 9; break;
    case 12: twoSvf = true, svfType = 11; break;
    default: return false;
  }
  if (svfType) {
    hasSvf = true;
    svf[0].Init(normalisedCutoff, svfType, true);
    if (twoSvf) svf[1].Init(normalisedCutoff, svfType, true);
  }
  type = uint8_t(filterType);
  sections = uint8_t(int(hasOnePole) + int(hasSvf) + int(twoSvf));
  return true;
}

void VoiceFilter::Update(float shiftSemitones, float resonanceDb) {
  if (hasOnePole) onePole.Update(shiftSemitones);
  if (!hasSvf) return;
  if (twoSvf) {
    // The first of two sections runs flat; the second carries the resonance.
    svf[0].Update(shiftSemitones, 0.0f);
    svf[1].Update(shiftSemitones, resonanceDb);
  } else {
    svf[0].Update(shiftSemitones, resonanceDb);
  }
}

void VoiceFilter::Process(float* samples, int frames, int channels) {
  if (hasOnePole) onePole.Process(samples, frames, channels);
  if (hasSvf) svf[0].Process(samples, frames, channels);
  if (twoSvf) svf[1].Process(samples, frames, channels);
}

// ---------------------------------------------------------------------------------------------
// EQ

void BiquadStage::SetEq(int mode, float centreHz, float gainDb, float q, float sampleRate) {
  // A centre at or above half the sample rate would mirror into an unstable section: it stops below.
  const float w0 = std::min(centreHz / sampleRate, 0.49f) * kTwoPi;
  const float c = std::cos(w0), s = std::sin(w0);
  const float alpha = s * 0.5f / q;
  const float a = std::exp(gainDb * 0.057564627f);  // 10^(g/40)
  float nb0, nb1, nb2, na0, na1, na2;
  if (mode == kEqLowShelf || mode == kEqHighShelf) {
    const float b = 2.0f * std::sqrt(a) * alpha;
    if (mode == kEqLowShelf) {
      nb0 = a * ((a + 1) - (a - 1) * c + b);
      nb1 = 2 * a * ((a - 1) - (a + 1) * c);
      nb2 = a * ((a + 1) - (a - 1) * c - b);
      na0 = (a + 1) + (a - 1) * c + b;
      na1 = -2 * ((a - 1) + (a + 1) * c);
      na2 = (a + 1) + (a - 1) * c - b;
    } else {
      nb0 = a * ((a + 1) + (a - 1) * c + b);
      nb1 = -2 * a * ((a - 1) + (a + 1) * c);
      nb2 = a * ((a + 1) + (a - 1) * c - b);
      na0 = (a + 1) - (a - 1) * c + b;
      na1 = 2 * ((a - 1) - (a + 1) * c);
      na2 = (a + 1) - (a - 1) * c - b;
    }
  } else {
    nb0 = 1 + alpha * a;
    nb1 = -2 * c;
    nb2 = 1 - alpha * a;
    na0 = 1 + alpha / a;
    na1 = -2 * c;
    na2 = 1 - alpha / a;
  }
  b0 = FlushDenormal(nb0 / na0);
  b1 = FlushDenormal(nb1 / na0);
  b2 = FlushDenormal(nb2 / na0);
  a1 = FlushDenormal(na1 / na0);
  a2 = FlushDenormal(na2 / na0);
  for (int ch = 0; ch < 2; ++ch) x1[ch] = x2[ch] = y1[ch] = y2[ch] = 0.0f;
}

void BiquadStage::Process(float* samples, int frames, int channels) {
  for (int c = 0; c < channels; ++c) {
    float px1 = x1[c], px2 = x2[c], py1 = y1[c], py2 = y2[c];
    for (int i = 0; i < frames; ++i) {
      float& s = samples[i * channels + c];
      const float x = s;
      const float y = FlushDenormal(b0 * x + b1 * px1 + b2 * px2 - a1 * py1 - a2 * py2);
      px2 = px1;
      px1 = x;
      py2 = py1;
      py1 = y;
      s = y;
    }
    x1[c] = px1, x2[c] = px2, y1[c] = py1, y2[c] = py2;
  }
}

}  // namespace orlin::synth
