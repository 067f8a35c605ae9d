// The "Resample" row over the selection.
#include <cmath>

#include "core/last_error.h"
#include "processing/resample.h"
#include "processing/wave_ops.h"

namespace orlin {

namespace {
ResampleSettings gResample;
}  // namespace

void ResetResampleSettings() { gResample = {}; }

std::span<const SettingInfo> ResampleSettingList() {
  static const SettingInfo list[] = {
      {"mode", "Algorithm", SettingType::Choice, 0, kResampleModeCount - 1,
       std::vector<const char*>(kResampleModeTexts, kResampleModeTexts + kResampleModeCount), &gResample.mode},
      {"length", "New length:", SettingType::Integer, 0, double(kMaxWaveValues), {}, &gResample.length},
      {"rate", "New sample rate:", SettingType::Integer, 0, 1e7, {}, &gResample.rate},
      {"only-down", "Only downsample (i.e. never incread s-rate)", SettingType::Boolean, 0, 1, {},
       &gResample.onlyDownsample},
  };
  return list;
}

bool RunResample(ProcessingWizard& wizard) {
  const ResampleSettings settings = gResample;
  if (settings.length <= 0 && settings.rate <= 0) {
    SetLastError("Invalid length or frequency specified");
    return false;
  }
  const std::vector<Waveform*> waves = SelectedWaves(wizard);
  if (waves.size() == 1) {
    Waveform& wave = *waves[0];
    if (wave.length == 0 || wave.sampleRate == 0) {
      SetLastError("Zero length");
      ReportItemFailure(wizard, &wave);
      return true;
    }
    // The page keeps length and rate in step; the one not given follows the other.
    double newLength = settings.length, newRate = settings.rate;
    if (newLength <= 0) newLength = std::round(double(wave.length) * newRate / wave.sampleRate);
    if (newRate <= 0) newRate = std::round(double(wave.sampleRate) * newLength / wave.length);
    // The ratio comes from the larger of the two scales, where the rounding weighs least.
    const double ratio = wave.length > wave.sampleRate ? newLength / wave.length : newRate / wave.sampleRate;
    if (ratio == 1.0) return true;
    if (!Resample(wave, wave, ratio, uint32_t(newLength), uint32_t(newRate), settings.mode)) {
      ReportItemFailure(wizard, &wave);
      return true;
    }
    if (wizard.collection) ScaleRegionLoops(*wizard.collection, wave, ratio);
    ++wizard.processed;
    return true;
  }
  if (settings.rate <= 0) {
    SetLastError("Invalid length or frequency specified");
    return false;
  }
  for (Waveform* wave : waves) {
    if (settings.onlyDownsample && wave->sampleRate <= uint32_t(settings.rate)) continue;
    if (wave->sampleRate == uint32_t(settings.rate)) continue;
    if (!ResampleToRate(*wave, *wave, uint32_t(settings.rate), settings.mode, wizard.collection)) {
      ReportItemFailure(wizard, wave);
      continue;
    }
    ++wizard.processed;
  }
  return true;
}

}  // namespace orlin
