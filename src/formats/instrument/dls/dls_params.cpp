// DLS connection blocks and the articulation. One table names each block (source, control, destination)
// with the parameter it fills and the scaling of its 16.16 value; the reader walks blocks through it and
// the writer walks it backwards. DLS times are absolute timecents, frequencies absolute pitch cents from
// A440 at 6900, levels tenths of a percent, gains 1/65536 centibel. A velocity or key quotient on an
// envelope time moves the time to the middle of the velocity range or to mid-C, where the model keeps it.
#include <algorithm>
#include <cmath>

#include "core/articulation.h"
#include "formats/instrument/dls/dls.h"

namespace orlin {

namespace {

// Sources and destinations of the published block layout.
constexpr uint16_t kSrcNone = 0x0000, kSrcLfo = 0x0001, kSrcVelocity = 0x0002, kSrcKey = 0x0003,
                   kSrcEg2 = 0x0005, kSrcPressure = 0x0008, kSrcVibrato = 0x0009, kSrcModWheel = 0x0081,
                   kSrcPan = 0x008A, kSrcReverb = 0x00DB, kSrcChorus = 0x00DD, kSrcBendRange = 0x0100;
constexpr uint16_t kDstGain = 0x0001, kDstPitch = 0x0003, kDstPan = 0x0004, kDstChorus = 0x0080,
                   kDstReverb = 0x0081, kDstLfoRate = 0x0104, kDstLfoDelay = 0x0105, kDstVibRate = 0x0114,
                   kDstVibDelay = 0x0115, kDstEg1Attack = 0x0206, kDstEg1Decay = 0x0207,
                   kDstEg1SustainShort = 0x0208, kDstEg1Release = 0x0209, kDstEg1Sustain = 0x020A,
                   kDstEg1Delay = 0x020B, kDstEg1Hold = 0x020C, kDstEg1Shutdown = 0x020D,
                   kDstEg2Attack = 0x030A, kDstEg2Decay = 0x030B, kDstEg2Release = 0x030D,
                   kDstEg2Sustain = 0x030E, kDstEg2Delay = 0x030F, kDstEg2Hold = 0x0310, kDstCutoff = 0x0500,
                   kDstResonance = 0x0501;
constexpr uint16_t kTransformConcave = 1;

constexpr int32_t kZeroTime = int32_t(0x80000000);  // "no time at all"
constexpr int32_t kFilterOff = 0x7FFFFFFF;
constexpr float kOpenCutoffHz = 24000.0f;

constexpr ParamId kVEnv = kParamFirstEnvelope, kPEnv = kVEnv + kEnvelopeRows, kFEnv = kPEnv + kEnvelopeRows;
// Envelope rows counted from the envelope's first row.
constexpr int kAttack1 = 1, kAttack2 = 5, kVelAttack2 = 6, kDecay1 = 9, kKeyDecay1 = 11, kDecay2 = 13, kKeyDecay2 = 15,
              kSustain = 16, kRelease = 17;
constexpr ParamId kShutdown = 107, kCutoff = 24, kResonance = 35, kVelocityToVolume = 15, kModWheelToVibrato = 4;

enum class Scale : uint8_t {
  Time,          // seconds
  Frequency,     // Hz
  Percent,       // fraction
  PercentShort,  // tenths of a percent in the low word, as a few level-1 writers store sustain
  Gain,          // dB
  InvertedGain,  // dB, sign turned: velocity to volume
  Semitones,     // cents to semitones
  KeyPitch,      // semitones per key from the cents of the whole key range
  Pan,
  KeyPan,
  ControllerPan,
  VelocityQuotient,  // time factor between velocity 127 and 0
  KeyQuotient,       // time factor per octave
  Cutoff,
};

struct Rule {
  uint16_t source, control, destination;
  ParamId param;
  Scale scale;
  bool level1;  // art1 can say it
  bool always;  // written even at its default, because a DLS player's default differs or it is the envelope
};

// In table order; where several rows share a block, the first one is what the writer writes.
constexpr Rule kRules[] = {
    {kSrcNone, kSrcNone, kDstLfoRate, 70, Scale::Frequency, true, true},
    {kSrcNone, kSrcNone, kDstLfoRate, 74, Scale::Frequency, true, false},
    {kSrcNone, kSrcNone, kDstLfoRate, 78, Scale::Frequency, true, false},
    {kSrcNone, kSrcNone, kDstLfoDelay, 71, Scale::Time, true, true},
    {kSrcNone, kSrcNone, kDstLfoDelay, 75, Scale::Time, true, false},
    {kSrcNone, kSrcNone, kDstLfoDelay, 79, Scale::Time, true, false},
    {kSrcNone, kSrcNone, kDstVibRate, 66, Scale::Frequency, false, true},
    {kSrcNone, kSrcNone, kDstVibDelay, 67, Scale::Time, false, true},
    {kSrcNone, kSrcNone, kDstEg1Delay, kVEnv + kAttack1, Scale::Time, false, true},
    {kSrcNone, kSrcNone, kDstEg1Attack, kVEnv + kAttack2, Scale::Time, true, true},
    {kSrcNone, kSrcNone, kDstEg1Hold, kVEnv + kDecay1, Scale::Time, false, true},
    {kSrcNone, kSrcNone, kDstEg1Decay, kVEnv + kDecay2, Scale::Time, true, true},
    {kSrcNone, kSrcNone, kDstEg1Sustain, kVEnv + kSustain, Scale::Percent, true, true},
    {kSrcNone, kSrcNone, kDstEg1SustainShort, kVEnv + kSustain, Scale::PercentShort, true, false},
    {kSrcNone, kSrcNone, kDstEg1Release, kVEnv + kRelease, Scale::Time, true, true},
    {kSrcNone, kSrcNone, kDstEg1Shutdown, kShutdown, Scale::Time, false, false},
    {kSrcVelocity, kSrcNone, kDstEg1Attack, kVEnv + kVelAttack2, Scale::VelocityQuotient, true, false},
    {kSrcKey, kSrcNone, kDstEg1Hold, kVEnv + kKeyDecay1, Scale::KeyQuotient, false, false},
    {kSrcKey, kSrcNone, kDstEg1Decay, kVEnv + kKeyDecay2, Scale::KeyQuotient, true, false},
    // The one modulation envelope drives the model's pitch and filter envelopes alike.
    {kSrcNone, kSrcNone, kDstEg2Delay, kPEnv + kAttack1, Scale::Time, false, false},
    {kSrcNone, kSrcNone, kDstEg2Delay, kFEnv + kAttack1, Scale::Time, false, false},
    {kSrcNone, kSrcNone, kDstEg2Attack, kPEnv + kAttack2, Scale::Time, true, false},
    {kSrcNone, kSrcNone, kDstEg2Attack, kFEnv + kAttack2, Scale::Time, true, false},
    {kSrcNone, kSrcNone, kDstEg2Hold, kPEnv + kDecay1, Scale::Time, false, false},
    {kSrcNone, kSrcNone, kDstEg2Hold, kFEnv + kDecay1, Scale::Time, false, false},
    {kSrcNone, kSrcNone, kDstEg2Decay, kPEnv + kDecay2, Scale::Time, true, false},
    {kSrcNone, kSrcNone, kDstEg2Decay, kFEnv + kDecay2, Scale::Time, true, false},
    {kSrcNone, kSrcNone, kDstEg2Sustain, kPEnv + kSustain, Scale::Percent, true, false},
    {kSrcNone, kSrcNone, kDstEg2Sustain, kFEnv + kSustain, Scale::Percent, true, false},
    {kSrcNone, kSrcNone, kDstEg2Release, kPEnv + kRelease, Scale::Time, true, false},
    {kSrcNone, kSrcNone, kDstEg2Release, kFEnv + kRelease, Scale::Time, true, false},
    {kSrcVelocity, kSrcNone, kDstEg2Attack, kPEnv + kVelAttack2, Scale::VelocityQuotient, true, false},
    {kSrcVelocity, kSrcNone, kDstEg2Attack, kFEnv + kVelAttack2, Scale::VelocityQuotient, true, false},
    {kSrcKey, kSrcNone, kDstEg2Hold, kPEnv + kKeyDecay1, Scale::KeyQuotient, false, false},
    {kSrcKey, kSrcNone, kDstEg2Hold, kFEnv + kKeyDecay1, Scale::KeyQuotient, false, false},
    {kSrcKey, kSrcNone, kDstEg2Decay, kPEnv + kKeyDecay2, Scale::KeyQuotient, true, false},
    {kSrcKey, kSrcNone, kDstEg2Decay, kFEnv + kKeyDecay2, Scale::KeyQuotient, true, false},
    // Filter.
    {kSrcNone, kSrcNone, kDstCutoff, kCutoff, Scale::Cutoff, false, false},
    {kSrcNone, kSrcNone, kDstResonance, kResonance, Scale::Gain, false, false},
    {kSrcVelocity, kSrcNone, kDstCutoff, 25, Scale::Semitones, false, false},
    {kSrcKey, kSrcNone, kDstCutoff, 26, Scale::Semitones, false, false},
    {kSrcModWheel, kSrcNone, kDstCutoff, 27, Scale::Semitones, false, false},
    {kSrcPressure, kSrcNone, kDstCutoff, 28, Scale::Semitones, false, false},
    {kSrcLfo, kSrcNone, kDstCutoff, 29, Scale::Semitones, false, false},
    {kSrcLfo, kSrcModWheel, kDstCutoff, 30, Scale::Semitones, false, false},
    {kSrcLfo, kSrcPressure, kDstCutoff, 31, Scale::Semitones, false, false},
    {kSrcLfo, kSrcVelocity, kDstCutoff, 32, Scale::Semitones, false, false},
    {kSrcEg2, kSrcNone, kDstCutoff, 33, Scale::Semitones, false, false},
    {kSrcVelocity, kSrcNone, kDstResonance, 36, Scale::Gain, false, false},
    {kSrcModWheel, kSrcNone, kDstResonance, 37, Scale::Gain, false, false},
    {kSrcPressure, kSrcNone, kDstResonance, 38, Scale::Gain, false, false},
    // Volume.
    {kSrcNone, kSrcNone, kDstGain, kParamMasterVolume, Scale::Gain, true, false},
    {kSrcVelocity, kSrcNone, kDstGain, kVelocityToVolume, Scale::InvertedGain, true, false},
    {kSrcLfo, kSrcNone, kDstGain, 19, Scale::Gain, true, false},
    {kSrcLfo, kSrcModWheel, kDstGain, 20, Scale::Gain, true, false},
    {kSrcLfo, kSrcPressure, kDstGain, 21, Scale::Gain, false, false},
    {kSrcLfo, kSrcVelocity, kDstGain, 22, Scale::Gain, false, false},
    // Pitch.
    {kSrcNone, kSrcNone, kDstPitch, kParamMasterTune, Scale::Semitones, true, false},
    {kSrcKey, kSrcNone, kDstPitch, 1, Scale::KeyPitch, true, false},
    {kSrcBendRange, kSrcNone, kDstPitch, 2, Scale::Semitones, true, false},
    {kSrcVibrato, kSrcNone, kDstPitch, 3, Scale::Semitones, false, false},
    {kSrcVibrato, kSrcModWheel, kDstPitch, kModWheelToVibrato, Scale::Semitones, false, true},
    {kSrcVibrato, kSrcPressure, kDstPitch, 5, Scale::Semitones, false, false},
    {kSrcVibrato, kSrcVelocity, kDstPitch, 6, Scale::Semitones, false, false},
    {kSrcLfo, kSrcNone, kDstPitch, 7, Scale::Semitones, true, false},
    {kSrcLfo, kSrcModWheel, kDstPitch, 8, Scale::Semitones, true, false},
    {kSrcLfo, kSrcPressure, kDstPitch, 9, Scale::Semitones, false, false},
    {kSrcLfo, kSrcVelocity, kDstPitch, 10, Scale::Semitones, false, false},
    {kSrcEg2, kSrcNone, kDstPitch, 11, Scale::Semitones, true, false},
    // Pan and sends.
    {kSrcNone, kSrcNone, kDstPan, 51, Scale::Pan, true, false},
    {kSrcKey, kSrcNone, kDstPan, 53, Scale::KeyPan, false, false},
    {kSrcPan, kSrcNone, kDstPan, 52, Scale::ControllerPan, true, false},
    {kSrcLfo, kSrcNone, kDstPan, 54, Scale::Pan, false, false},
    {kSrcEg2, kSrcNone, kDstPan, 55, Scale::Pan, false, false},
    {kSrcNone, kSrcNone, kDstReverb, 57, Scale::Percent, false, false},
    {kSrcReverb, kSrcNone, kDstReverb, 58, Scale::Percent, false, false},
    {kSrcNone, kSrcNone, kDstChorus, 61, Scale::Percent, false, false},
    {kSrcChorus, kSrcNone, kDstChorus, 62, Scale::Percent, false, false},
};

constexpr double kTimecentUnit = 1200.0 * 65536.0;
constexpr double kPitchScale = 8.813823e-9;  // ln 2 / (1200 * 65536)
constexpr double kPitchOffset = 3.9855962;   // ln(440 / 8.1758): absolute pitch 0 against A440
constexpr double kPercentUnit = 1.525879e-8; // 1 / (65536 * 1000)
constexpr double kGainUnit = 1.5258789e-6;   // 1 / 655360: 1/65536 centibel in dB
constexpr double kSemitoneUnit = 1.5258789e-7;
constexpr double kPanUnit = 3.051758e-8;
constexpr double kKeyPanUnit = 2.861023e-9;
constexpr double kControllerPanUnit = 3.0036986e-8;
// The velocity curve of a DLS player is the SoundFont one (concave, 96 dB); the SoundFont handler holds that
// curve as 0.4 of its depth, and so does this one, so that banks convert into each other at the same level.
constexpr double kVelocityCurveShare = 0.4;

double ToHz(int32_t scale) {
  const double hz = 440.0 * std::exp(double(scale) * kPitchScale - kPitchOffset);
  return hz > 2.0 ? std::round(hz * 100.0) / 100.0 : hz;
}
int32_t FromHz(double hz) {
  if (hz <= 0.0) hz = 0.001;
  return int32_t(std::clamp(std::round((std::log(hz / 440.0) + kPitchOffset) / kPitchScale), -2147483647.0, 2147483646.0));
}
double ToSeconds(int32_t scale) { return scale == kZeroTime ? 0.0 : std::exp2(double(scale) / kTimecentUnit); }
int32_t FromSeconds(double seconds) {
  if (seconds <= 0.0005) return kZeroTime;  // below a timecent's reach: "none"
  return int32_t(std::clamp(std::round(std::log2(seconds) * kTimecentUnit), -2147483647.0, 2147483647.0));
}
int32_t Clamp32(double value) { return int32_t(std::clamp(std::round(value), -2147483648.0, 2147483647.0)); }

double FromBlock(const Rule& rule, int32_t scale) {
  switch (rule.scale) {
    case Scale::Time: return ToSeconds(scale);
    case Scale::Frequency: return ToHz(scale);
    case Scale::Percent: return scale * kPercentUnit;
    case Scale::PercentShort: return (uint32_t(scale) & 0xFFFF) * 0.001;
    case Scale::Gain: return scale * kGainUnit;
    case Scale::InvertedGain: return -scale * kGainUnit * kVelocityCurveShare;
    case Scale::Semitones: return scale * kSemitoneUnit;
    case Scale::KeyPitch: return scale * kSemitoneUnit * 0.0078125;
    case Scale::Pan: return scale * kPanUnit;
    case Scale::KeyPan: return scale * kKeyPanUnit;
    case Scale::ControllerPan: return scale * kControllerPanUnit;
    case Scale::VelocityQuotient: return std::exp2(double(scale) / kTimecentUnit);
    case Scale::KeyQuotient: return std::exp2(double(scale) / kTimecentUnit * 12.0 / 128.0);
    case Scale::Cutoff: return ToHz(scale);
  }
  return 0.0;
}

int32_t ToBlock(const Rule& rule, double value) {
  switch (rule.scale) {
    case Scale::Time: return FromSeconds(value);
    case Scale::Frequency: case Scale::Cutoff: return FromHz(value);
    case Scale::Percent: case Scale::PercentShort: return Clamp32(value / kPercentUnit);
    case Scale::Gain: return Clamp32(value / kGainUnit);
    case Scale::InvertedGain: return Clamp32(-value / kVelocityCurveShare / kGainUnit);
    case Scale::Semitones: return Clamp32(value / kSemitoneUnit);
    case Scale::KeyPitch: return Clamp32(value / 0.0078125 / kSemitoneUnit);
    case Scale::Pan: return Clamp32(value / kPanUnit);
    case Scale::KeyPan: return Clamp32(value / kKeyPanUnit);
    case Scale::ControllerPan: return Clamp32(value / kControllerPanUnit);
    case Scale::VelocityQuotient: return Clamp32(std::log2(std::max(value, 1e-6)) * kTimecentUnit);
    case Scale::KeyQuotient: return Clamp32(std::log2(std::max(value, 1e-6)) * kTimecentUnit * 128.0 / 12.0);
  }
  return 0;
}

// The envelope time each quotient row scales.
ParamId ScaledTime(ParamId quotientRow) {
  const ParamId base = quotientRow >= kFEnv ? kFEnv : quotientRow >= kPEnv ? kPEnv : kVEnv;
  switch (quotientRow - base) {
    case kVelAttack2: return ParamId(base + kAttack2);
    case kKeyDecay1: return ParamId(base + kDecay1);
    case kKeyDecay2: return ParamId(base + kDecay2);
    default: return quotientRow;
  }
}
bool IsVelocityQuotient(ParamId row) {
  return row == kVEnv + kVelAttack2 || row == kPEnv + kVelAttack2 || row == kFEnv + kVelAttack2;
}

}  // namespace

void ApplyConnections(const std::vector<DlsConnection>& blocks, Articulation& art) {
  std::vector<ParamId> quotients;
  for (const DlsConnection& block : blocks) {
    for (const Rule& rule : kRules) {
      if (rule.source != block.source || rule.control != block.control || rule.destination != block.destination)
        continue;
      if (rule.scale == Scale::Cutoff) {
        if (block.scale >= kFilterOff) continue;  // the filter stays off
        if (art.Get(kParamFilterType) == 0.0f) art.Set(kParamFilterType, 2.0f);
      } else if (rule.destination == kDstCutoff && block.scale != 0 && art.Get(kParamFilterType) == 0.0f) {
        // A cutoff that moves needs a filter: it starts wide open, as a DLS filter left unstated is.
        art.Set(kParamFilterType, 2.0f);
        if (!art.IsSet(kCutoff)) art.Set(kCutoff, kOpenCutoffHz);
      }
      art.Set(rule.param, float(FromBlock(rule, block.scale)));
      if (rule.scale == Scale::VelocityQuotient || rule.scale == Scale::KeyQuotient) quotients.push_back(rule.param);
    }
  }
  // DLS times hold at velocity 0 and key 0; the model's in the middle of the velocity range and at mid-C.
  for (ParamId row : quotients) {
    const double q = art.Get(row);
    if (q == 1.0 || q <= 0.0) continue;
    const ParamId time = ScaledTime(row);
    const double factor = IsVelocityQuotient(row) ? std::sqrt(q) : std::pow(q, 5.0);
    if (art.Get(time) > 0.0f) art.Set(time, float(art.Get(time) * factor));
  }
  if (art.IsSet(kResonance) && art.Get(kParamFilterType) != 0.0f && art.Get(kResonance) != 0.0f)
    art.Set(kParamMasterVolume, art.Get(kParamMasterVolume) - art.Get(kResonance) * 0.5f);
}

std::vector<DlsConnection> ConnectionsOf(const Articulation& art, int level) {
  std::vector<DlsConnection> out;
  const bool filter = level >= 2 && art.Get(kParamFilterType) != 0.0f;
  const bool modEnvelope = art.Get(11) != 0.0f || (filter && art.Get(33) != 0.0f);
  const bool lfo = art.Get(7) != 0.0f || art.Get(8) != 0.0f || art.Get(19) != 0.0f || art.Get(20) != 0.0f ||
                   (filter && art.Get(29) != 0.0f);
  for (size_t i = 0; i < std::size(kRules); ++i) {
    const Rule& rule = kRules[i];
    if (level == 1 && !rule.level1) continue;
    bool shadowed = false;  // a row further up writes the same block
    for (size_t j = 0; j < i && !shadowed; ++j)
      shadowed = kRules[j].source == rule.source && kRules[j].control == rule.control &&
                 kRules[j].destination == rule.destination;
    if (shadowed) continue;
    const bool filterRow = rule.destination == kDstCutoff || rule.destination == kDstResonance;
    if (filterRow && !filter) continue;
    if (rule.scale == Scale::PercentShort) continue;
    double value = art.Get(rule.param);
    const ParamInfo* info = GetParamRow(rule.param);
    const bool atDefault = rule.scale == Scale::InvertedGain ? float(value) == kDlsVelocityToVolume
                                                             : info && float(value) == info->defaultValue;
    const bool envelopeTwo = rule.destination >= kDstEg2Attack && rule.destination <= kDstEg2Hold;
    const bool lfoRow = rule.destination == kDstLfoRate || rule.destination == kDstLfoDelay;
    bool write = rule.always || !atDefault;
    if (envelopeTwo && modEnvelope && rule.source == kSrcNone) write = true;
    if (lfoRow && !lfo && !rule.always) write = false;
    if (rule.scale == Scale::Cutoff) write = true;
    if (rule.destination == kDstVibRate || rule.destination == kDstVibDelay || rule.param == kModWheelToVibrato)
      write = write && level >= 2;
    if (!write) continue;
    // Times go back to key 0 and velocity 0.
    if (rule.scale == Scale::Time) {
      for (const Rule& quotient : kRules)
        if ((quotient.scale == Scale::VelocityQuotient || quotient.scale == Scale::KeyQuotient) &&
            ScaledTime(quotient.param) == rule.param && (level >= 2 || quotient.level1)) {
          const double q = art.Get(quotient.param);
          if (q > 0.0 && q != 1.0) value /= quotient.scale == Scale::VelocityQuotient ? std::sqrt(q) : std::pow(q, 5.0);
        }
    }
    if (rule.param == kParamMasterVolume && filter) value += art.Get(kResonance) * 0.5;
    DlsConnection block;
    block.source = rule.source;
    block.control = rule.control;
    block.destination = rule.destination;
    block.transform = rule.scale == Scale::InvertedGain ? kTransformConcave : 0;
    block.scale = ToBlock(rule, value);
    out.push_back(block);
  }
  return out;
}

}  // namespace orlin
