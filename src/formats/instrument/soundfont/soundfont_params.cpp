// SoundFont zones and the articulation: the modulator slot table, the generator defaults, and the
// conversion of summed generators and modulator slots to parameter values and back. One SF modulation
// LFO drives the model's X-, V- and F-LFO, one modulation envelope its P- and F-ENV. Attenuation is
// read as 0.4 of a centibel, as the hardware these banks were made for behaves.
#include <algorithm>
#include <cmath>

#include "core/articulation.h"
#include "formats/instrument/soundfont/soundfont.h"

namespace orlin {

namespace {

struct SlotRule {
  uint16_t destination;
  uint16_t source;  // low byte source, 0x100 negative, 0x200 bipolar
  uint8_t slot;
};

// In test order: bipolar forms ahead of their unipolar twins.
constexpr SlotRule kSlotRules[] = {
    {33, 514, 8}, {33, 2, 0}, {33, 515, 13}, {33, 3, 5},
    {34, 514, 9}, {34, 2, 1}, {34, 515, 14}, {34, 3, 6},
    {35, 514, 10}, {35, 2, 2},
    {36, 514, 11}, {36, 2, 3},
    {38, 514, 12}, {38, 2, 4}, {38, 515, 15}, {38, 3, 7},
    {25, 514, 24}, {25, 2, 16}, {25, 515, 29}, {25, 3, 21},
    {26, 514, 25}, {26, 2, 17}, {26, 515, 30}, {26, 3, 22},
    {27, 514, 26}, {27, 2, 18},
    {28, 514, 27}, {28, 2, 19},
    {30, 514, 28}, {30, 2, 20}, {30, 515, 31}, {30, 3, 23},
    {48, 258, 32}, {48, 515, 34}, {48, 3, 33}, {48, 129, 35}, {48, 13, 36},
    {13, 129, 37}, {13, 13, 38}, {13, 514, 39},
    {52, 526, 40},
    {5, 129, 41}, {5, 514, 42}, {5, 13, 43},
    {6, 129, 44}, {6, 514, 45}, {6, 13, 46},
    {7, 514, 48}, {7, 2, 47},
    {8, 258, 49}, {8, 515, 51}, {8, 3, 50}, {8, 129, 52}, {8, 13, 53},
    {10, 129, 54}, {10, 13, 55}, {10, 514, 56},
    {11, 514, 58}, {11, 2, 57},
    {17, 515, 59}, {17, 650, 60},
    {16, 219, 61},
    {15, 221, 62},
    {9, 514, 63}, {9, 129, 64}, {9, 13, 65},
};

constexpr uint16_t kNegative = 0x100;
constexpr uint16_t kBipolar = 0x200;

// Model envelope rows, counted from the envelope's first row.
constexpr int kAttack1Time = 1, kVelAttack1 = 2, kKeyAttack1 = 3, kAttack1Level = 4, kAttack2Time = 5, kVelAttack2 = 6,
              kKeyAttack2 = 7, kAttack2Level = 8, kDecay1Time = 9, kVelDecay1 = 10, kKeyDecay1 = 11,
              kDecay1Level = 12, kDecay2Time = 13, kVelDecay2 = 14, kKeyDecay2 = 15, kSustain = 16,
              kRelease1 = 17, kVelRelease = 23, kKeyRelease = 24;
constexpr ParamId kVEnv = kParamFirstEnvelope, kPEnv = kVEnv + kEnvelopeRows, kFEnv = kPEnv + kEnvelopeRows;
constexpr ParamId kPLfo = 65, kVLfo = 69, kFLfo = 73, kXLfo = 77;  // shape, frequency, delay, ramp
constexpr ParamId kCutoff = 24, kResonance = 35, kFEnvToCutoff = 33, kFEnvVelToCutoff = 34;
constexpr ParamId kPan = 51;
constexpr int16_t kDefaultEffectDepth = 200;  // the CC91 and CC93 default modulators' amount
constexpr float kSustainPerCentibel = 0.0010416667f;  // 1/960: 96 dB over the level range

double TidySeconds(double seconds) {
  if (seconds > 24.0) return std::round(seconds * 10.0) / 10.0;
  if (seconds > 2.0) return std::round(seconds * 100.0) / 100.0;
  return seconds;
}

// Velocity modulators: a bipolar slot spans twice the range of the unipolar one.
float VelocityFactor(int bipolar, int unipolar) {
  if (bipolar) return float(std::pow(2.0, 2.0 * bipolar / 1200.0));
  if (unipolar) {
    const double f = std::pow(2.0, unipolar / 1200.0);
    return float(f * std::sqrt(f));
  }
  return 1.0f;
}
// Key modulators span 128 keys; the model's factor is per octave.
float KeyFactor(int bipolar, int unipolar) {
  if (bipolar) return float(std::pow(2.0, 2.0 * bipolar / 1200.0 * 12.0 / 128.0));
  if (unipolar) return float(std::pow(2.0, unipolar / 1200.0 * 12.0 / 128.0));
  return 1.0f;
}

struct EnvelopeSources {
  int delay, attack, hold, decay, sustain, release;
  int keyToHold, keyToDecay;
  int firstVelSlot, firstKeySlot;  // unipolar slots; bipolar ones 8 further
  float sustainScale;
};

void SetEnvelope(Articulation& art, ParamId base, const ZoneGenerators& g, const ZoneModulators& m,
                 const EnvelopeSources& s) {
  auto time = [&](int gen) { return float(TimecentsToSeconds(g[size_t(gen)])); };
  art.Set(ParamId(base + kAttack1Time), time(s.delay));
  art.Set(ParamId(base + kAttack1Level), 0.0f);
  art.Set(ParamId(base + kAttack2Time), time(s.attack));
  art.Set(ParamId(base + kAttack2Level), 1.0f);
  art.Set(ParamId(base + kDecay1Time), time(s.hold));
  art.Set(ParamId(base + kDecay1Level), 1.0f);
  art.Set(ParamId(base + kDecay2Time), time(s.decay));
  art.Set(ParamId(base + kSustain), std::clamp(1.0f - g[size_t(s.sustain)] * s.sustainScale, 0.0f, 1.0f));
  art.Set(ParamId(base + kRelease1), time(s.release));
  const int velRows[5] = {kVelAttack1, kVelAttack2, kVelDecay1, kVelDecay2, kVelRelease};
  for (int i = 0; i < 5; ++i)
    art.Set(ParamId(base + velRows[i]), VelocityFactor(m[size_t(s.firstVelSlot + 8 + i)], m[size_t(s.firstVelSlot + i)]));
  const int keyRows[3] = {kKeyAttack1, kKeyAttack2, kKeyRelease};
  for (int i = 0; i < 3; ++i)
    art.Set(ParamId(base + keyRows[i]), KeyFactor(m[size_t(s.firstKeySlot + 8 + i)], m[size_t(s.firstKeySlot + i)]));
  art.Set(ParamId(base + kKeyDecay1), float(std::pow(2.0, -g[size_t(s.keyToHold)] / 100.0)));
  art.Set(ParamId(base + kKeyDecay2), float(std::pow(2.0, -g[size_t(s.keyToDecay)] / 100.0)));
}

// Depth from a generator and its velocity modulators: a unipolar velocity depth becomes a bipolar one
// of half the size with the other half moved into the base.
void SetEnvelopeDepth(Articulation& art, ParamId depthId, ParamId velocityId, int base, int bipolar, int unipolar) {
  float depth = base * 0.01f, velocity = bipolar * 0.01f;
  if (bipolar == 0 && unipolar != 0) {
    velocity = unipolar * 0.005f;
    depth += velocity;
  }
  art.Set(depthId, depth);
  art.Set(velocityId, velocity);
}

int16_t Clamp16(double value, double lo, double hi) {
  return int16_t(std::lround(std::clamp(value, lo, hi)));
}
int16_t SecondsToTimecents(float seconds) {
  if (seconds <= 0.0f) return -12000;
  return Clamp16(1200.0 * std::log2(double(seconds)), -12000, 12000);
}
int16_t HzToAbsoluteCents(float hz) { return Clamp16(1200.0 * std::log2(double(hz) / 8.176), -16000, 13500); }

}  // namespace

double TimecentsToSeconds(int value) {
  if (value < -11999) return 0.0;
  return TidySeconds(std::pow(2.0, value / 1200.0));
}

double AbsoluteCentsToHz(int value) {
  if (value >= 13500) return 20000.0;
  const double hz = 8.176 * std::pow(2.0, value / 1200.0);
  if (hz > 1000.0) return std::round(hz / 10.0) * 10.0;
  if (hz > 100.0) return std::round(hz);
  return std::round(hz * 100.0) / 100.0;
}

ZoneGenerators DefaultZoneGenerators() {
  ZoneGenerators g{};
  g[8] = 13500;  // initialFilterFc: open
  for (int gen : {21, 23, 25, 26, 27, 28, 30, 33, 34, 35, 36, 38}) g[size_t(gen)] = -12000;
  g[43] = 0x7F00;
  g[44] = 0x7F00;
  g[46] = -1;
  g[47] = -1;
  g[56] = 100;
  g[58] = -1;
  return g;
}

ZoneModulators DefaultZoneModulators() {
  ZoneModulators m{};
  m[32] = 960;
  m[44] = 50;
  m[46] = 50;
  m[49] = -2400;
  m[60] = 500;
  m[61] = 200;
  m[62] = 200;
  return m;
}

int ModulatorSlot(const SfModulator& modulator, int16_t& amount) {
  if (modulator.amountSource != 0 || modulator.transform != 0) return -1;
  for (const SlotRule& rule : kSlotRules) {
    if (rule.destination != modulator.destination) continue;
    if ((rule.source & 0xFF) != (modulator.source & 0xFF)) continue;
    if ((rule.source & kBipolar) && !(modulator.source & kBipolar)) continue;
    if (!(rule.source & kBipolar) && (modulator.source & kBipolar)) continue;
    // A direction other than the slot's flips the amount instead of missing the slot.
    const bool flip = (rule.source & kNegative) != (modulator.source & kNegative);
    amount = flip ? int16_t(std::clamp(-int(modulator.amount), -32768, 32767)) : modulator.amount;
    return rule.slot;
  }
  return -1;
}

SfModulator SlotModulator(int slot, int16_t amount) {
  SfModulator out;
  for (const SlotRule& rule : kSlotRules) {
    if (rule.slot != slot) continue;
    out.source = rule.source;
    out.destination = rule.destination;
    break;
  }
  out.amount = amount;
  return out;
}

void ZoneToArticulation(const ZoneGenerators& g, const ZoneModulators& m, Articulation& art) {
  auto mod = [&](int slot) { return int(m[size_t(slot)]); };
  auto gen = [&](int index) { return int(g[size_t(index)]); };
  // LFOs: the vibrato LFO is the model's P-LFO; the modulation LFO feeds the other three.
  art.Set(kPLfo + 1, float(AbsoluteCentsToHz(gen(24))));
  art.Set(kPLfo + 2, float(TimecentsToSeconds(gen(23))));
  for (ParamId lfo : {kXLfo, kVLfo, kFLfo}) {
    art.Set(ParamId(lfo + 1), float(AbsoluteCentsToHz(gen(22))));
    art.Set(ParamId(lfo + 2), float(TimecentsToSeconds(gen(21))));
  }
  art.Set(3, gen(6) * 0.01f);
  art.Set(4, mod(44) * 0.01f);
  art.Set(5, mod(46) * 0.01f);
  art.Set(6, mod(45) * 0.01f);
  art.Set(7, gen(5) * 0.01f);
  art.Set(8, mod(41) * 0.01f);
  art.Set(9, mod(43) * 0.01f);
  art.Set(10, mod(42) * 0.01f);
  art.Set(19, gen(13) * 0.1f);
  art.Set(20, mod(37) * 0.1f);
  art.Set(21, mod(38) * 0.1f);
  art.Set(22, mod(39) * 0.1f);

  SetEnvelope(art, kVEnv, g, m, {33, 34, 35, 36, 37, 38, 39, 40, 0, 5, kSustainPerCentibel});
  SetEnvelope(art, kPEnv, g, m, {25, 26, 27, 28, 29, 30, 31, 32, 16, 21, 0.001f});
  SetEnvelope(art, kFEnv, g, m, {25, 26, 27, 28, 29, 30, 31, 32, 16, 21, 0.001f});
  SetEnvelopeDepth(art, 11, 12, gen(7), mod(48), mod(47));

  float volume = gen(48) * -0.04f;
  art.Set(15, mod(32) * 0.04f);
  if (mod(34)) {
    const float keyToVolume = mod(34) * 0.04f * 0.1875f;
    art.Set(16, keyToVolume);
    volume -= keyToVolume / 3.0f;
  } else if (mod(33)) {
    const float keyToVolume = mod(33) * 0.04f * 0.09375f;
    art.Set(16, keyToVolume);
    volume += 5.0f * keyToVolume;
  }
  art.Set(17, mod(35) * 0.04f);
  art.Set(18, mod(36) * 0.04f);
  art.Set(kParamMasterTune, gen(51) + gen(52) * 0.01f);
  art.Set(1, gen(56) * 0.01f);
  art.Set(2, mod(40) * 0.01f + 2.0f);

  // Filter.
  float cutoff = float(AbsoluteCentsToHz(gen(8)));
  SetEnvelopeDepth(art, kFEnvToCutoff, kFEnvVelToCutoff, gen(11), mod(58), mod(57));
  if (cutoff >= 19900.0f && art.Get(kFEnvToCutoff) <= 0.0f) {
    // An open filter with nothing sweeping it down: no filter at all. Players still run it near the
    // top of the band and take its resonance's gain compensation off the level (FluidSynth: half the
    // peak, measured on FluidR3_GM's Fiddle and Steel Drums), so that much stays in the volume.
    for (ParamId id = kParamFilterType; id <= 38; ++id) {
      art.Set(id, DefaultArticulation().Get(id));
      art.ClearSet(id);
    }
    volume -= gen(9) * 0.1f * 0.5f;
  } else {
    art.Set(kParamFilterType, 2.0f);  // low-pass 12 dB/oct
    const float velocityToCutoff = mod(49) * -0.01f;
    art.Set(25, velocityToCutoff);
    if (velocityToCutoff != 0.0f) cutoff *= float(std::pow(2.0, velocityToCutoff / 24.0));
    if (mod(51)) {
      const float p = mod(51) * 0.001875f;
      art.Set(26, p);
      cutoff *= float(std::pow(2.0, -p / 3.0 / 12.0));
    } else if (mod(50)) {
      const float p = mod(50) * 0.0009375f;
      art.Set(26, p);
      cutoff *= float(std::pow(2.0, 5.0 * p / 12.0));
    }
    art.Set(27, mod(52) * 0.01f);
    art.Set(28, mod(53) * 0.01f);
    art.Set(29, gen(10) * 0.01f);
    art.Set(30, mod(54) * 0.01f);
    art.Set(31, mod(55) * 0.01f);
    art.Set(32, mod(56) * 0.01f);
    art.Set(kCutoff, cutoff);
    const float resonance = gen(9) * 0.1f;
    art.Set(kResonance, resonance);
    art.Set(36, mod(63) * 0.1f);
    art.Set(37, mod(64) * 0.1f);
    art.Set(38, mod(65) * 0.1f);
    // The resonance peak is compensated by half its height.
    volume -= resonance * 0.5f;
  }
  art.Set(kParamMasterVolume, volume);

  art.Set(kPan, gen(17) * 0.002f);
  art.Set(52, mod(60) * 0.002f);
  art.Set(53, mod(59) * 0.000375f);
  art.Set(57, gen(16) * 0.001f);
  art.Set(58, mod(61) * 0.001f);
  art.Set(59, gen(15) * 0.001f);
  art.Set(60, mod(62) * 0.001f);
}

void ArticulationToZone(const Articulation& art, ZoneGenerators& g, ZoneModulators& m) {
  g = DefaultZoneGenerators();
  m = DefaultZoneModulators();
  auto cents = [](float semitones) { return Clamp16(semitones * 100.0, -12000, 12000); };
  g[24] = HzToAbsoluteCents(art.Get(kPLfo + 1));
  g[23] = SecondsToTimecents(art.Get(kPLfo + 2));
  // The strongest of the three modulation LFOs gives the one SF modulation LFO its rate.
  ParamId modLfo = kXLfo;
  if (art.Get(19) != 0.0f) modLfo = kVLfo;
  else if (art.Get(29) != 0.0f) modLfo = kFLfo;
  g[22] = HzToAbsoluteCents(art.Get(ParamId(modLfo + 1)));
  g[21] = SecondsToTimecents(art.Get(ParamId(modLfo + 2)));
  g[6] = cents(art.Get(3));
  m[44] = cents(art.Get(4));
  m[46] = cents(art.Get(5));
  m[45] = cents(art.Get(6));
  g[5] = cents(art.Get(7));
  m[41] = cents(art.Get(8));
  m[43] = cents(art.Get(9));
  m[42] = cents(art.Get(10));
  g[13] = Clamp16(art.Get(19) * 10.0, -960, 960);
  m[37] = Clamp16(art.Get(20) * 10.0, -960, 960);
  m[38] = Clamp16(art.Get(21) * 10.0, -960, 960);
  m[39] = Clamp16(art.Get(22) * 10.0, -960, 960);

  auto envelope = [&](ParamId base, int first, int sustainGen, double sustainScale, int keyToHold, int velSlot,
                      int keySlot) {
    g[size_t(first)] = SecondsToTimecents(art.Get(ParamId(base + kAttack1Time)));
    g[size_t(first + 1)] = SecondsToTimecents(art.Get(ParamId(base + kAttack2Time)));
    g[size_t(first + 2)] = SecondsToTimecents(art.Get(ParamId(base + kDecay1Time)));
    g[size_t(first + 3)] = SecondsToTimecents(art.Get(ParamId(base + kDecay2Time)));
    g[size_t(first + 5)] = SecondsToTimecents(art.Get(ParamId(base + kRelease1)));
    // A silent sustain is the format's full 100 dB (1000), not the model's 96 dB floor: players end
    // the decay there.
    const float sustain = art.Get(ParamId(base + kSustain));
    g[size_t(sustainGen)] = sustain <= 0.0f ? int16_t(1000) : Clamp16((1.0 - sustain) * sustainScale, 0, 1000);
    g[size_t(keyToHold)] = Clamp16(-100.0 * std::log2(std::max(1e-6f, art.Get(ParamId(base + kKeyDecay1)))), -1200, 1200);
    g[size_t(keyToHold + 1)] = Clamp16(-100.0 * std::log2(std::max(1e-6f, art.Get(ParamId(base + kKeyDecay2)))), -1200, 1200);
    const int velRows[5] = {kVelAttack1, kVelAttack2, kVelDecay1, kVelDecay2, kVelRelease};
    for (int i = 0; i < 5; ++i)
      m[size_t(velSlot + 8 + i)] = Clamp16(600.0 * std::log2(std::max(1e-6f, art.Get(ParamId(base + velRows[i])))), -12000, 12000);
    const int keyRows[3] = {kKeyAttack1, kKeyAttack2, kKeyRelease};
    for (int i = 0; i < 3; ++i)
      m[size_t(keySlot + 8 + i)] =
          Clamp16(600.0 * 128.0 / 12.0 * std::log2(std::max(1e-6f, art.Get(ParamId(base + keyRows[i])))), -12000, 12000);
  };
  envelope(kVEnv, 33, 37, 960.0, 39, 0, 5);
  // The pitch envelope wins the one modulation envelope when it is in use, else the filter's.
  const bool pitchEnvelope = art.Get(11) != 0.0f || art.Get(12) != 0.0f;
  envelope(pitchEnvelope ? kPEnv : kFEnv, 25, 29, 1000.0, 31, 16, 21);
  g[7] = cents(art.Get(11));
  m[48] = cents(art.Get(12));

  const bool filter = art.Get(kParamFilterType) != 0.0f;
  double volume = art.Get(kParamMasterVolume);
  m[32] = Clamp16(art.Get(15) / 0.04, -32768, 32767);
  if (art.Get(16) != 0.0f) {
    m[34] = Clamp16(art.Get(16) / (0.04 * 0.1875), -32768, 32767);
    volume += art.Get(16) / 3.0;
  }
  m[35] = Clamp16(art.Get(17) / 0.04, -32768, 32767);
  m[36] = Clamp16(art.Get(18) / 0.04, -32768, 32767);
  const double tune = art.Get(kParamMasterTune);
  g[51] = Clamp16(std::trunc(tune), -120, 120);
  g[52] = Clamp16((tune - std::trunc(tune)) * 100.0, -99, 99);
  g[56] = Clamp16(art.Get(1) * 100.0, 0, 1200);
  m[40] = cents(art.Get(2) - 2.0f);
  if (filter) {
    double cutoff = art.Get(kCutoff);
    const float velocityToCutoff = art.Get(25);
    m[49] = cents(-velocityToCutoff);
    if (velocityToCutoff != 0.0f) cutoff /= std::pow(2.0, velocityToCutoff / 24.0);
    if (art.Get(26) != 0.0f) {
      m[51] = Clamp16(art.Get(26) / 0.001875, -32768, 32767);
      cutoff /= std::pow(2.0, -art.Get(26) / 3.0 / 12.0);
    }
    g[8] = HzToAbsoluteCents(float(cutoff));
    m[52] = cents(art.Get(27));
    m[53] = cents(art.Get(28));
    g[10] = cents(art.Get(29));
    m[54] = cents(art.Get(30));
    m[55] = cents(art.Get(31));
    m[56] = cents(art.Get(32));
    g[11] = cents(art.Get(kFEnvToCutoff));
    m[58] = cents(art.Get(kFEnvVelToCutoff));
    g[9] = Clamp16(art.Get(kResonance) * 10.0, 0, 960);
    volume += art.Get(kResonance) * 0.5;
    m[63] = Clamp16(art.Get(36) * 10.0, -960, 960);
    m[64] = Clamp16(art.Get(37) * 10.0, -960, 960);
    m[65] = Clamp16(art.Get(38) * 10.0, -960, 960);
  }
  g[48] = Clamp16(volume / -0.04, -1440, 1440);  // below zero a gain; the writer keeps it at preset level
  g[17] = Clamp16(art.Get(kPan) / 0.002, -500, 500);
  m[60] = Clamp16(art.Get(52) / 0.002, -1000, 1000);
  m[59] = Clamp16(art.Get(53) / 0.000375, -32768, 32767);
  g[16] = Clamp16(art.Get(57) * 1000.0, 0, 1000);
  // The model's controller depths default to 100 %, which no SoundFont reader means: a bank's own
  // default (200, a fifth of the send) stands for them, or every song would get five times the effect.
  m[61] = art.Get(58) == DefaultArticulation().Get(58) ? kDefaultEffectDepth : Clamp16(art.Get(58) * 1000.0, 0, 1000);
  g[15] = Clamp16(art.Get(59) * 1000.0, 0, 1000);
  m[62] = art.Get(60) == DefaultArticulation().Get(60) ? kDefaultEffectDepth : Clamp16(art.Get(60) * 1000.0, 0, 1000);
}

}  // namespace orlin
