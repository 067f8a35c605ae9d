// The plain waveform edit rows. Each walks the selection in order, skips what is not a waveform,
// and counts a wave as processed only when its samples or fields really changed.
#include "processing/audio/edit_rows.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "core/last_error.h"
#include "core/text.h"
#include "processing/wave_ops.h"

namespace orlin {

namespace {

AdjustVolumeSettings gAdjustVolume;
AppendSettings gAppend;
ToMonoSettings gToMono;
ToStereoSettings gToStereo;
FadeSettings gFade;
FilterSettings gFilter;
InsertSettings gInsertSilence;
InsertSettings gInsertWave;
MixSettings gMix;
RemoveSilenceSettings gRemoveSilence;
RootKeyNameSettings gRootKeyNames;
SmoothSettings gSmooth;
SplitSilenceSettings gSplitSilence;
SplitSectionsSettings gSplitSections;

constexpr ParamId kParamWaveVolume = 220;  // the wave's Volume parameter, in dB

// [first, last) of the sub-range on this wave, or false when the row needs one and there is none.
bool RangeOn(const ProcessingWizard& wizard, const Waveform& wave, uint32_t& first, uint32_t& last) {
  if (!wizard.HasRange()) {
    first = 0;
    last = wave.length;
    return false;
  }
  first = std::min<uint32_t>(uint32_t(wizard.rangeStart), wave.length);
  last = std::min<uint32_t>(uint32_t(wizard.rangeEnd), wave.length);
  return true;
}

// A wave named in a setting: "<self>", "<first>", "<first other>", "<none>", a name, or "#N" for
// the N-th waveform of the collection (from 1).
Waveform* ResolveWave(const ProcessingWizard& wizard, Waveform* self, const std::string& text) {
  if (text == "<none>" || text.empty()) return nullptr;
  if (text == "<self>") return self;
  const auto waves = wizard.collection->All<Waveform>().ToVector();
  if (text == "<first>") return waves.empty() ? nullptr : waves[0];
  if (text == "<first other>") {
    for (Waveform* wave : waves)
      if (wave != self && wave->GetName() != kPreviewName) return wave;
    return nullptr;
  }
  if (text.size() > 1 && text[0] == '#') {
    const size_t index = size_t(std::strtoul(text.c_str() + 1, nullptr, 10));
    return index >= 1 && index <= waves.size() ? waves[index - 1] : nullptr;
  }
  for (Waveform* wave : waves)
    if (wave->GetName() == text) return wave;
  return nullptr;
}

// Runs `work` on each selected wave; a false result reports the item and the walk goes on.
template <typename Work>
bool ForEachWave(ProcessingWizard& wizard, Work work) {
  for (Waveform* wave : SelectedWaves(wizard)) {
    bool changed = false;
    if (!work(*wave, changed)) {
      ReportItemFailure(wizard, wave);
      continue;
    }
    if (changed) ++wizard.processed;
  }
  return true;
}

const char* const kLevelUnits[] = {"dB", "%"};

}  // namespace

double LevelFromSetting(double value, int unit) {
  if (unit == 1) return std::clamp(value, 0.0, 100.0) / 100.0;
  return DbToGain(std::clamp(value, -144.0, 0.0));
}

namespace {
double ClampLevel(double value, int unit) { return unit == 1 ? std::clamp(value, 0.0, 100.0) : std::clamp(value, -144.0, 0.0); }
}  // namespace

void SetSplitTrig(double value) {
  gSplitSilence.trig = ClampLevel(value, gSplitSilence.unit);
  gSplitSilence.release = std::min(gSplitSilence.release, gSplitSilence.trig);
}

void SetSplitRelease(double value) {
  gSplitSilence.release = std::min(ClampLevel(value, gSplitSilence.unit), gSplitSilence.trig);
}

void SetSplitUnit(int unit) {
  if (unit == gSplitSilence.unit || unit < 0 || unit > 1) return;
  auto convert = [&](double value) { return unit == 1 ? DbToGain(value) * 100.0 : GainToDb(value / 100.0); };
  gSplitSilence.trig = convert(gSplitSilence.trig);
  gSplitSilence.release = convert(gSplitSilence.release);
  gSplitSilence.unit = unit;
}

void UpdateSplitLevelLines(ProcessingWizard& wizard) {
  constexpr uint32_t kTrigColour = 0x008000, kReleaseColour = 0x600000;
  wizard.levelLines[0] = {float(LevelFromSetting(gSplitSilence.trig, gSplitSilence.unit)), kTrigColour};
  wizard.levelLines[1] = {float(LevelFromSetting(gSplitSilence.release, gSplitSilence.unit)), kReleaseColour};
}

AdjustVolumeSettings& AdjustVolumeStatics() { return gAdjustVolume; }
RemoveSilenceSettings& RemoveSilenceStatics() { return gRemoveSilence; }
SplitSilenceSettings& SplitSilenceStatics() { return gSplitSilence; }

void ResetEditRowSettings() {
  gAdjustVolume = {};
  gAppend = {};
  gToMono = {};
  gToStereo = {};
  gFade = {};
  gFilter = {};
  gInsertSilence = {};
  gInsertWave = {};
  gMix = {};
  gRemoveSilence = {};
  gRootKeyNames = {};
  gSmooth = {};
  gSplitSilence = {};
  gSplitSections = {};
}

// --- Settings lists ------------------------------------------------------------------------------

std::span<const SettingInfo> AdjustVolumeSettingList() {
  static const SettingInfo list[] = {
      {"db", "Gain in dB", SettingType::Number, -96.0, 96.0, {}, &gAdjustVolume.db},
      {"target", "Apply to", SettingType::Choice, 0, 1,
       {"Apply gain to the actual wavesamples", "Modify the Volume parameter (meta data)"}, &gAdjustVolume.target},
  };
  return list;
}

std::span<const SettingInfo> AppendSettingList() {
  static const SettingInfo list[] = {
      {"wave1", "First waveform", SettingType::Wave, 0, 0, {}, &gAppend.waves[0]},
      {"wave2", "Second waveform", SettingType::Wave, 0, 0, {}, &gAppend.waves[1]},
      {"wave3", "Third waveform", SettingType::Wave, 0, 0, {}, &gAppend.waves[2]},
      {"wave4", "Fourth waveform", SettingType::Wave, 0, 0, {}, &gAppend.waves[3]},
  };
  return list;
}

std::span<const SettingInfo> ToMonoSettingList() {
  static const SettingInfo list[] = {
      {"mode", "Conversion", SettingType::Choice, 0, 4,
       {"The average of the stereo channels", "Left channel only", "Right channel only", "Split into two mono waveforms",
        "Only convert if left && right chs are identical"},
       &gToMono.mode},
      {"fix-phase", "Auto-detect and fix phase inversion", SettingType::Boolean, 0, 1, {}, &gToMono.fixPhase},
  };
  return list;
}

std::span<const SettingInfo> ToStereoSettingList() {
  static const SettingInfo list[] = {
      {"mode", "Conversion", SettingType::Choice, 0, 2, {"duplicate", "left channel", "right channel"}, &gToStereo.mode},
      {"other", "The other mono waveform", SettingType::Wave, 0, 0, {}, &gToStereo.other},
  };
  return list;
}

std::span<const SettingInfo> FadeSettingList() {
  static const SettingInfo list[] = {
      {"shape", "Fade shape", SettingType::Choice, 0, 3,
       {"Linear fade in", "Exponential fade in", "Linear fade out", "Logarithmic fade out"}, &gFade.shape},
  };
  return list;
}

std::span<const SettingInfo> FilterSettingList() {
  static const SettingInfo list[] = {
      {"type", "Filter type", SettingType::Choice, 0, 12,
       {"Pass-thru", "Low-Pass 6 dB/oct", "Low-Pass 12 dB/oct", "Low-Pass 18 dB/oct", "Low-Pass 24 dB/oct",
        "High-Pass 6 dB/oct", "High-Pass 12 dB/oct", "High-Pass 18 dB/oct", "High-Pass 24 dB/oct", "Band-Pass 6 dB/oct",
        "Band-Pass 12 dB/oct", "Band-Reject 6 dB/oct", "Band-Reject 12 dB/oct"},
       &gFilter.type},
      {"cutoff", "Cutoff frequency in Hz", SettingType::Number, 1.0, 96000.0, {}, &gFilter.cutoffHz},
  };
  return list;
}

namespace {
const std::vector<const char*> kInsertPositions = {"The start of the waveform", "The start of the selection",
                                                   "The end of the selection", "The end of the waveform"};
}

std::span<const SettingInfo> InsertSilenceSettingList() {
  static const SettingInfo list[] = {
      {"frames", "Frames of silence", SettingType::Integer, 1, double(kMaxWaveValues), {}, &gInsertSilence.frames},
      {"position", "Insert at", SettingType::Choice, 0, 3, kInsertPositions, &gInsertSilence.position},
  };
  return list;
}

std::span<const SettingInfo> InsertWaveSettingList() {
  static const SettingInfo list[] = {
      {"wave", "Waveform to insert", SettingType::Wave, 0, 0, {}, &gInsertWave.wave},
      {"position", "Insert at", SettingType::Choice, 0, 3, kInsertPositions, &gInsertWave.position},
  };
  return list;
}

std::span<const SettingInfo> MixSettingList() {
  static const SettingInfo list[] = {
      {"a", "a", SettingType::Number, -100.0, 100.0, {}, &gMix.a},
      {"b", "b", SettingType::Number, -100.0, 100.0, {}, &gMix.b},
      {"c", "c", SettingType::Number, -1.0, 1.0, {}, &gMix.c},
      {"wave1", "wave1", SettingType::Wave, 0, 0, {}, &gMix.wave1},
      {"wave2", "wave2", SettingType::Wave, 0, 0, {}, &gMix.wave2},
  };
  return list;
}

std::span<const SettingInfo> RemoveSilenceSettingList() {
  static const SettingInfo list[] = {
      {"from-start", "From start", SettingType::Boolean, 0, 1, {}, &gRemoveSilence.fromStart},
      {"from-end", "From end", SettingType::Boolean, 0, 1, {}, &gRemoveSilence.fromEnd},
      {"anywhere", "From anywhere", SettingType::Boolean, 0, 1, {}, &gRemoveSilence.anywhere},
      {"threshold", "Threshold", SettingType::Number, -144.0, 100.0, {}, &gRemoveSilence.threshold},
      {"threshold-unit", "Threshold unit", SettingType::Choice, 0, 1, {kLevelUnits[0], kLevelUnits[1]},
       &gRemoveSilence.thresholdUnit},
      {"min-silence", "Min silence", SettingType::Number, 1.0, 1e9, {}, &gRemoveSilence.minSilence},
      {"min-silence-unit", "Min silence unit", SettingType::Choice, 0, 1, {"samples", "ms"},
       &gRemoveSilence.minSilenceUnit},
      {"smooth", "Smooth samples near cut", SettingType::Boolean, 0, 1, {}, &gRemoveSilence.smooth},
      {"maximize-before", "Maximize amplitude before silence removal", SettingType::Boolean, 0, 1, {},
       &gRemoveSilence.maximizeBefore},
      {"maximize-after", "Maximize amplitude after silence removal", SettingType::Boolean, 0, 1, {},
       &gRemoveSilence.maximizeAfter},
      {"delete-if-silent", "Delete waveform if it is all silence", SettingType::Boolean, 0, 1, {},
       &gRemoveSilence.deleteIfSilent},
  };
  return list;
}

std::span<const SettingInfo> RootKeyNameSettingList() {
  static const SettingInfo list[] = {
      {"mode", "Names", SettingType::Choice, 0, 2,
       {"Prepending the root keys to existing names.", "Appending the root keys to existing names.",
        "Constructing new names like:"},
       &gRootKeyNames.mode},
      {"prefix", "Prefix", SettingType::Text, 0, 0, {}, &gRootKeyNames.prefix},
      {"suffix", "Suffix", SettingType::Text, 0, 0, {}, &gRootKeyNames.suffix},
  };
  return list;
}

std::span<const SettingInfo> SmoothSettingList() {
  static const SettingInfo list[] = {
      {"filter", "Filter", SettingType::Choice, 0, 3,
       {"Using 3 point triangular filter.", "Using 2 point left-right 'two towers' filter.",
        "Using 2 point rightsided block filter.", "Using 2 point leftsided block filter."},
       &gSmooth.filter},
  };
  return list;
}

std::span<const SettingInfo> SplitSilenceSettingList() {
  static const SettingInfo list[] = {
      {"trig", "Trig level", SettingType::Number, -144.0, 100.0, {}, &gSplitSilence.trig},
      {"release", "Release level", SettingType::Number, -144.0, 100.0, {}, &gSplitSilence.release},
      {"unit", "Level unit", SettingType::Choice, 0, 1, {kLevelUnits[0], kLevelUnits[1]}, &gSplitSilence.unit},
      {"min-trig", "Min. trig time (ms)", SettingType::Number, 0.0, 1e7, {}, &gSplitSilence.minTrigMs},
      {"min-release", "Min. release time (ms)", SettingType::Number, 0.0, 1e7, {}, &gSplitSilence.minReleaseMs},
      {"fade-in", "Fade-in (ms)", SettingType::Number, 0.0, 1e7, {}, &gSplitSilence.fadeInMs},
      {"fade-out", "Fade-out (ms)", SettingType::Number, 0.0, 1e7, {}, &gSplitSilence.fadeOutMs},
      {"zero-cross", "Find zero crossing", SettingType::Boolean, 0, 1, {}, &gSplitSilence.zeroCross},
      {"keep-post-release", "Keep post-release", SettingType::Boolean, 0, 1, {}, &gSplitSilence.keepPostRelease},
  };
  return list;
}

std::span<const SettingInfo> SplitSectionsSettingList() {
  static const SettingInfo list[] = {
      {"remap-regions", "Remap regions to the new split waveforms", SettingType::Boolean, 0, 1, {},
       &gSplitSections.remapRegions},
      {"replace-first", "Replace original waveform with the first split", SettingType::Boolean, 0, 1, {},
       &gSplitSections.replaceFirst},
  };
  return list;
}

// --- Rows ----------------------------------------------------------------------------------------

bool RunAdjustVolume(ProcessingWizard& wizard) {
  const AdjustVolumeSettings settings = gAdjustVolume;
  if (settings.db == 0.0) return true;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    if (settings.target == 1) {
      wave.SetParam(kParamWaveVolume, float(wave.GetParam(kParamWaveVolume) + settings.db));
      return changed = true;
    }
    uint32_t first, last;
    RangeOn(wizard, wave, first, last);
    if (!ApplyGainDb(wave, settings.db, first, last)) return false;
    // The samples no longer match any stored form: the wave saves from memory, at 16 bits.
    wave.bits = 16;
    return changed = true;
  });
}

bool RunAppendWaves(ProcessingWizard& wizard) {
  std::vector<Waveform*> selected = SelectedWaves(wizard);
  if (selected.empty()) return true;
  Waveform& target = *selected[0];
  std::vector<Waveform*> chosen;
  for (const std::string& text : gAppend.waves)
    if (Waveform* wave = ResolveWave(wizard, &target, text)) chosen.push_back(wave);
  if (chosen.empty()) {
    SetLastError("You must select at least one waveform...");
    ReportItemFailure(wizard, &target);
    return true;
  }
  uint64_t total = 0;
  for (Waveform* wave : chosen) {
    if (!wave->Preload() || wave->channels != target.channels) {
      if (wave->channels != target.channels) SetLastError("Incompatible channel formats");
      ReportItemFailure(wizard, &target);
      return true;
    }
    total += wave->length;
  }
  if (total == 0) {
    SetLastError("All null waveforms");
    ReportItemFailure(wizard, &target);
    return true;
  }
  if (total * target.channels > kMaxWaveValues) {
    SetLastError("Wave would be too big for the 32-bit app");
    ReportItemFailure(wizard, &target);
    return true;
  }
  WaveData* joined = WaveData::Create(uint32_t(total), target.channels, float(target.sampleRate), false);
  if (!joined) {
    SetLastError("Out of memory");
    ReportItemFailure(wizard, &target);
    return true;
  }
  uint64_t at = 0;
  std::vector<Marker> markers;
  bool targetMarkersTaken = false;
  for (Waveform* wave : chosen) {
    // A wave chosen twice brings its markers once, at its first place.
    const bool takeMarkers = wave != &target || !targetMarkersTaken;
    if (wave == &target) targetMarkersTaken = true;
    std::memcpy(joined->samples + at * target.channels, wave->GetSamplesForRead(),
                size_t(wave->length) * target.channels * sizeof(float));
    // Markers of every part stay on their audio.
    for (Marker marker : takeMarkers ? wave->markers : std::vector<Marker>{}) {
      marker.start += uint32_t(at);
      marker.end += uint32_t(at);
      if (wave != &target) marker.id = NextMarkerId();
      markers.push_back(std::move(marker));
    }
    at += wave->length;
  }
  target.loop = chosen[0]->loop;
  target.markers = std::move(markers);
  ReplaceWaveData(target, joined);
  ++wizard.processed;
  return true;
}

bool RunConvertToMono(ProcessingWizard& wizard) {
  const ToMonoSettings settings = gToMono;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    if (wave.channels != 2) return true;
    if (settings.mode == kMonoAverage && settings.fixPhase) {
      float* samples = WritableSamples(wave);
      if (!samples) return false;
      double sum = 0.0, difference = 0.0;
      for (size_t i = 0; i < wave.length; ++i) {
        sum += std::fabs(samples[2 * i] + samples[2 * i + 1]);
        difference += std::fabs(samples[2 * i] - samples[2 * i + 1]);
      }
      // The right channel was recorded inverted: averaging would cancel the sound.
      if (sum < difference)
        for (size_t i = 0; i < wave.length; ++i) samples[2 * i + 1] = -samples[2 * i + 1];
    }
    Waveform* second = nullptr;
    if (!ToMono(wave, settings.mode, &second, &changed)) return false;
    if (second) wizard.treeChanged = true;
    return true;
  });
}

bool RunConvertToStereo(ProcessingWizard& wizard) {
  const ToStereoSettings settings = gToStereo;
  const std::vector<Waveform*> waves = SelectedWaves(wizard);
  // With several waves only duplication makes sense.
  const int mode = waves.size() > 1 || settings.mode == 0 ? kStereoDuplicate
                   : settings.mode == 1                   ? kStereoThisLeft
                                                          : kStereoThisRight;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    if (wave.channels != 1) return true;
    Waveform* other = mode == kStereoDuplicate ? nullptr : ResolveWave(wizard, &wave, settings.other);
    if (!ToStereo(wave, mode, other)) return false;
    return changed = true;
  });
}

bool RunCutSelection(ProcessingWizard& wizard) {
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    uint32_t first, last;
    if (!RangeOn(wizard, wave, first, last)) return true;
    if (!DeleteFrames(wave, first, last)) return false;
    return changed = true;
  });
}

bool RunFadeSelection(ProcessingWizard& wizard) {
  const int shape = gFade.shape;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    uint32_t first, last;
    if (!RangeOn(wizard, wave, first, last) || first >= last) return true;
    if (!FadeRange(wave, first, last, shape)) return false;
    return changed = true;
  });
}

namespace {

// One-pole section: low-pass or high-pass at normalised cutoff w.
struct OnePole {
  double c0 = 0, c1 = 0, a1 = 0;
  double x1[2] = {}, y1[2] = {};
  OnePole(double fc, bool highPass) {
    const double w = std::min(fc, 0.5);
    a1 = std::exp(-6.2831855 * w);
    if (highPass) {
      c0 = (1.0 + a1) / 2.0;
      c1 = -c0;
    } else {
      c0 = 1.0 - a1;
    }
  }
  float Step(float x, int channel) {
    double y = c0 * x + c1 * x1[channel] + a1 * y1[channel];
    y += 1e-18;  // keeps the recursion out of denormals
    y -= 1e-18;
    x1[channel] = x;
    y1[channel] = y;
    return float(y);
  }
};

// State-variable section, run twice per sample (twofold oversampling), resonance 0 dB.
struct StateVariable {
  int output;  // 2 low, 6 high, 9 band, 11 notch
  double f, q;
  double low[2] = {}, band[2] = {};
  StateVariable(double fc, int type) : output(type) {
    f = 2.0 * std::sin(3.14159265358979 * std::min(fc, 0.5) / 2.0);
    q = std::min(1.0, 2.0 - f);
  }
  float Step(float x, int channel) {
    double high = 0, notch = 0;
    for (int pass = 0; pass < 2; ++pass) {
      low[channel] += f * band[channel];
      notch = x - q * band[channel];
      high = notch - low[channel];
      band[channel] += f * high;
      band[channel] += 1e-18;
      band[channel] -= 1e-18;
    }
    switch (output) {
      case 2: return float(low[channel]);
      case 6: return float(high);
      case 9: return float(band[channel]);
      default: return float(notch);
    }
  }
};

}  // namespace

bool FilterSamples(float* samples, uint32_t channels, uint32_t frames, int type, double fc) {
  if (type == 0) return true;
  if (type < 0 || type > 12 || channels > 2) {
    SetLastError("Invalid algorithm");
    return false;
  }
  // The sections in signal order, by the filter list.
  std::vector<OnePole> poles;
  std::vector<StateVariable> sections;
  switch (type) {
    case 1: poles.emplace_back(fc, false); break;
    case 5: poles.emplace_back(fc, true); break;
    case 2: case 6: case 9: case 11: sections.emplace_back(fc, type); break;
    case 3: poles.emplace_back(fc, false), sections.emplace_back(fc, 2); break;
    case 7: poles.emplace_back(fc, true), sections.emplace_back(fc, 6); break;
    case 4: sections.emplace_back(fc, 2), sections.emplace_back(fc, 2); break;
    case 8: sections.emplace_back(fc, 6), sections.emplace_back(fc, 6); break;
    case 10: sections.emplace_back(fc, 9), sections.emplace_back(fc, 9); break;
    case 12: sections.emplace_back(fc, 11), sections.emplace_back(fc, 11); break;
  }
  for (size_t i = 0; i < frames; ++i) {
    for (uint32_t c = 0; c < channels; ++c) {
      float value = samples[i * channels + c];
      for (OnePole& pole : poles) value = pole.Step(value, int(c));
      for (StateVariable& section : sections) value = section.Step(value, int(c));
      samples[i * channels + c] = value;
    }
  }
  return true;
}

bool RunFilterWaveform(ProcessingWizard& wizard) {
  const FilterSettings settings = gFilter;
  if (settings.type == 0) return true;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    float* samples = WritableSamples(wave);
    if (!samples) return false;
    if (!FilterSamples(samples, wave.channels, wave.length, settings.type, settings.cutoffHz / wave.sampleRate))
      return false;
    return changed = true;
  });
}

namespace {

uint32_t InsertPosition(const ProcessingWizard& wizard, const Waveform& wave, int position) {
  uint32_t first, last;
  const bool range = RangeOn(wizard, wave, first, last);
  switch (position) {
    case 1: return range ? first : 0;
    case 2: return range ? last : wave.length;
    case 3: return wave.length;
    default: return 0;
  }
}

}  // namespace

bool RunInsertSilence(ProcessingWizard& wizard) {
  const InsertSettings settings = gInsertSilence;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    if (settings.frames <= 0) return true;
    if (!InsertFrames(wave, InsertPosition(wizard, wave, settings.position), nullptr, 0, uint32_t(settings.frames)))
      return false;
    return changed = true;
  });
}

bool RunInsertWaveform(ProcessingWizard& wizard) {
  const InsertSettings settings = gInsertWave;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    Waveform* source = ResolveWave(wizard, &wave, settings.wave);
    if (!source) {
      SetLastError("No 2nd waveform selected");
      return false;
    }
    if (!InsertFrames(wave, InsertPosition(wizard, wave, settings.position), source, 0, 0)) return false;
    return changed = true;
  });
}

bool RunInvertSign(ProcessingWizard& wizard) {
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    uint32_t first, last;
    if (!RangeOn(wizard, wave, first, last) || first >= last) return true;
    float* samples = WritableSamples(wave);
    if (!samples) return false;
    for (size_t i = size_t(first) * wave.channels; i < size_t(last) * wave.channels; ++i) samples[i] = -samples[i];
    return changed = true;
  });
}

bool RunMaximize(ProcessingWizard& wizard) {
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    // An all-zero wave fails without a message: it is simply left alone.
    return Maximize(wave, kMaximizeKeepZero, &changed) || LastError().empty();
  });
}

bool RunMix(ProcessingWizard& wizard) {
  const MixSettings settings = gMix;
  std::vector<Waveform*> selected = SelectedWaves(wizard);
  if (selected.empty()) return true;
  Waveform& target = *selected[0];
  Waveform* w1 = ResolveWave(wizard, &target, settings.wave1);
  Waveform* w2 = ResolveWave(wizard, &target, settings.wave2);
  if (!w1 || !w2 || !w1->Preload() || !w2->Preload() || !w1->GetSamplesForRead() || !w2->GetSamplesForRead()) {
    SetLastError("A null wave was supplied");
    ReportItemFailure(wizard, &target);
    return true;
  }
  const uint32_t length = std::max(w1->length, w2->length);
  const uint32_t channels = std::max(w1->channels, w2->channels);
  if (uint64_t(length) * channels > kMaxWaveValues) {
    SetLastError("Wave would be too big for the 32-bit app");
    ReportItemFailure(wizard, &target);
    return true;
  }
  WaveData* out = WaveData::Create(length, channels, float(target.sampleRate), false);
  if (!out) {
    SetLastError("Out of memory");
    ReportItemFailure(wizard, &target);
    return true;
  }
  const float* s1 = w1->GetSamplesForRead();
  const float* s2 = w2->GetSamplesForRead();
  // A mono input feeds both channels; the shorter wave continues as silence.
  auto value = [&](const Waveform* w, const float* s, size_t frame, uint32_t channel) -> double {
    if (frame >= w->length) return 0.0;
    return s[frame * w->channels + std::min<uint32_t>(channel, w->channels - 1u)];
  };
  for (size_t i = 0; i < length; ++i)
    for (uint32_t c = 0; c < channels; ++c)
      out->samples[i * channels + c] =
          float(std::clamp(settings.a * value(w1, s1, i, c) + settings.b * value(w2, s2, i, c) + settings.c, -1.0, 1.0));
  const uint8_t bits = std::max(w1->bits, w2->bits);
  const uint8_t rootKey = uint8_t((w1->rootKey + w2->rootKey) / 2);
  const int8_t fineTune = int8_t((w1->fineTune + w2->fineTune) / 2);
  ReplaceWaveData(target, out);
  target.bits = bits;
  target.rootKey = rootKey;
  target.fineTune = fineTune;
  ++wizard.processed;
  return true;
}

bool RunRemoveDc(ProcessingWizard& wizard) {
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    float* samples = WritableSamples(wave);
    if (!samples) return false;
    const size_t count = size_t(wave.length) * wave.channels;
    double total = 0.0;
    for (size_t i = 0; i < count; ++i) total += samples[i];
    const double mean = count ? total / double(count) : 0.0;
    if (float(mean) == 0.0f) return true;
    const float offset = float(mean);
    for (size_t i = 0; i < count; ++i) samples[i] = std::clamp(samples[i] - offset, -1.0f, 1.0f);
    return changed = true;
  });
}

bool RunRemoveSilence(ProcessingWizard& wizard) {
  const RemoveSilenceSettings settings = gRemoveSilence;
  const double threshold = LevelFromSetting(settings.threshold, settings.thresholdUnit);
  for (Waveform* wave : SelectedWaves(wizard)) {
    const uint32_t id = wave->id;
    if (settings.maximizeBefore && !Maximize(*wave, kMaximizeKeepZero) && !LastError().empty()) {
      ReportItemFailure(wizard, wave);
      continue;
    }
    const double minSeconds = settings.minSilenceUnit == 0 ? std::max(1.0, settings.minSilence) / wave->sampleRate
                                                           : std::max(1.0, settings.minSilence) / 1000.0;
    RemoveSilenceResult result;
    if (!RemoveSilence(*wave, settings.fromStart, settings.fromEnd, settings.anywhere, threshold, minSeconds,
                       settings.smooth, settings.deleteIfSilent, false, &result)) {
      ReportItemFailure(wizard, wave);
      continue;
    }
    if (result.deleted) {
      // The selection must not keep a pointer to the deleted wave.
      std::replace(wizard.items.begin(), wizard.items.end(), static_cast<Item*>(wave), static_cast<Item*>(nullptr));
      wizard.treeChanged = true;
      ++wizard.processed;
      continue;
    }
    if (settings.maximizeAfter && wizard.collection->FindItem(id) == wave) Maximize(*wave, kMaximizeKeepZero);
    if (result.changed || settings.maximizeBefore || settings.maximizeAfter) ++wizard.processed;
  }
  return true;
}

bool RunReverse(ProcessingWizard& wizard) {
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    uint32_t first, last;
    if (!RangeOn(wizard, wave, first, last) || last - first < 2) return true;
    float* samples = WritableSamples(wave);
    if (!samples) return false;
    const uint32_t channels = wave.channels;
    for (uint32_t a = first, b = last - 1; a < b; ++a, --b)
      for (uint32_t c = 0; c < channels; ++c) std::swap(samples[size_t(a) * channels + c], samples[size_t(b) * channels + c]);
    return changed = true;
  });
}

bool RunNamesFromFiles(ProcessingWizard& wizard) {
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    std::string path = wave.GetSourcePath();
    std::replace(path.begin(), path.end(), '\\', '/');  // stored paths may use either separator
    const std::string stem = std::filesystem::path(path).stem().string();
    if (stem.empty() || stem == wave.GetName()) return true;
    wave.SetName(stem);
    return changed = true;
  });
}

bool RunNamesFromRootKeys(ProcessingWizard& wizard) {
  const RootKeyNameSettings settings = gRootKeyNames;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    const std::string note = NoteName(wave.rootKey);
    std::string name = settings.mode == 0   ? note + " " + wave.GetName()
                       : settings.mode == 1 ? wave.GetName() + " " + note
                                            : settings.prefix + note + settings.suffix;
    if (name == wave.GetName()) return true;
    wave.SetName(name);
    return changed = true;
  });
}

void SmoothRange(float* samples, uint32_t channels, uint32_t length, uint32_t s, uint32_t e, int filter) {
  if (e > length) e = length;
  if (s >= e) return;
  for (uint32_t c = 0; c < channels; ++c) {
    // Frame -1 is the block's zero guard frame before the first: a signed index reaches it.
    auto x = [&](int64_t frame) -> float& { return samples[frame * int64_t(channels) + int64_t(c)]; };
    if (filter == 0 || filter == 1) {
      if (e - s < 3) continue;
      // Runs on the old neighbours: the previous input is carried along.
      float previous = x(s);
      for (uint32_t i = s + 1; i + 1 < e; ++i) {
        const float old = x(i);
        x(i) = filter == 0 ? (previous + x(i + 1)) * 0.25f + old * 0.5f : (previous + x(i + 1)) * 0.5f;
        previous = old;
      }
    } else if (filter == 2) {
      // Reads one frame past the range; at the wave's end the zero guard frame of the block.
      for (uint32_t i = s; i < e; ++i) x(i) = (x(i) + x(int64_t(i) + 1)) * 0.5f;
    } else {
      // Reads one frame before the range; before the first frame the zero guard frame.
      for (int64_t i = int64_t(e) - 1; i >= int64_t(s); --i) x(i) = (x(i) + x(i - 1)) * 0.5f;
    }
  }
}

bool RunSmooth(ProcessingWizard& wizard) {
  const int filter = gSmooth.filter;
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    uint32_t first, last;
    if (!RangeOn(wizard, wave, first, last) || first >= last) return true;
    float* samples = WritableSamples(wave);
    if (!samples) return false;
    SmoothRange(samples, wave.channels, wave.length, first, last, filter);
    return changed = true;
  });
}

bool RunSplitAtSilence(ProcessingWizard& wizard) {
  const SplitSilenceSettings settings = gSplitSilence;
  const double trig = LevelFromSetting(settings.trig, settings.unit);
  const double release = std::min(trig, LevelFromSetting(settings.release, settings.unit));
  for (Waveform* wave : SelectedWaves(wizard)) {
    std::vector<Waveform*> made;
    if (!SplitWave(*wave, trig, release, settings.minTrigMs / 1000.0, settings.minReleaseMs / 1000.0,
                   settings.fadeInMs / 1000.0, settings.fadeOutMs / 1000.0, settings.zeroCross, settings.keepPostRelease,
                   true, true, made)) {
      // Nothing to split is not a failure; too many pieces is.
      if (!LastError().empty()) ReportItemFailure(wizard, wave);
      continue;
    }
    ++wizard.processed;
    wizard.treeChanged = true;
  }
  return true;
}

bool RunSplitSections(ProcessingWizard& wizard) {
  const SplitSectionsSettings settings = gSplitSections;
  for (Waveform* wave : SelectedWaves(wizard)) {
    std::vector<SplitRecord> pieces;
    uint32_t previousEnd = UINT32_MAX;
    int number = 0;
    for (const Marker& marker : wave->markers) {
      if (!marker.section) continue;
      const uint32_t end = std::min(marker.end, wave->length);
      if (end == previousEnd || marker.start >= end) continue;
      previousEnd = end;
      SplitRecord record;
      record.start = marker.start;
      record.end = end;
      ++number;
      record.name = marker.name.size() < 2 ? wave->GetName() + "-" + std::to_string(number) : marker.name;
      pieces.push_back(std::move(record));
      if (pieces.size() > kMaxSplitPieces) break;
    }
    if (pieces.empty()) continue;
    if (pieces.size() > kMaxSplitPieces) {
      SetLastError("More than 999 pieces: nothing was split");
      ReportItemFailure(wizard, wave);
      continue;
    }
    std::vector<Waveform*> made;
    if (!MakeSplitWaves(*wave, pieces, settings.remapRegions, settings.replaceFirst, made)) {
      ReportItemFailure(wizard, wave);
      continue;
    }
    ++wizard.processed;
    wizard.treeChanged = true;
  }
  return true;
}

bool RunSwapChannels(ProcessingWizard& wizard) {
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    if (wave.channels != 2) return true;
    float* samples = WritableSamples(wave);
    if (!samples) return false;
    for (size_t i = 0; i < wave.length; ++i) std::swap(samples[2 * i], samples[2 * i + 1]);
    return changed = true;
  });
}

bool RunTrimToSelection(ProcessingWizard& wizard) {
  return ForEachWave(wizard, [&](Waveform& wave, bool& changed) {
    uint32_t first, last;
    if (!RangeOn(wizard, wave, first, last) || first >= last) return true;
    const uint32_t length = wave.length;
    if (last < length) {
      if (!DeleteFrames(wave, last, length)) return false;
      changed = true;
    }
    if (first > 0) {
      if (!DeleteFrames(wave, 0, first)) return false;
      changed = true;
    }
    return true;
  });
}

}  // namespace orlin
