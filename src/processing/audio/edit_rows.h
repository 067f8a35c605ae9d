// The plain waveform edit rows of the Audio table: each walks the selected waves with the settings
// record of its row. The records keep the values of the last run for the run of the program.
#pragma once
#include <span>
#include <string>

#include "processing/wizard.h"

namespace orlin {

// Settings records with their first values.
struct AdjustVolumeSettings {
  double db = -6.0;
  int target = 0;  // 0 the wavesamples, 1 the Volume parameter
};
struct AppendSettings {
  std::string waves[4] = {"<self>", "<first other>", "<none>", "<none>"};
};
struct ToMonoSettings {
  int mode = 0;  // MonoMode
  bool fixPhase = false;
};
struct ToStereoSettings {
  int mode = 0;  // 0 duplicate, 1 this wave left, 2 this wave right
  std::string other = "<first other>";
};
struct FadeSettings {
  int shape = 1;  // FadeShape
};
struct FilterSettings {
  int type = 2;  // 0 none, 1-12 the filter list
  double cutoffHz = 8000.0;
};
struct InsertSettings {
  int frames = 10000;
  int position = 0;  // 0 wave start, 1 selection start, 2 selection end, 3 wave end
  std::string wave = "<first>";
};
struct MixSettings {
  double a = 1.0, b = 0.0, c = 0.0;
  std::string wave1 = "<self>", wave2 = "<self>";
};
struct RemoveSilenceSettings {
  bool fromStart = true, fromEnd = true, anywhere = false;
  double threshold = -48.0;
  int thresholdUnit = 0;  // 0 dB, 1 %
  double minSilence = 20.0;
  int minSilenceUnit = 1;  // 0 samples, 1 ms
  bool smooth = true, maximizeBefore = false, maximizeAfter = false, deleteIfSilent = false;
};
struct RootKeyNameSettings {
  int mode = 0;  // 0 prepend, 1 append, 2 construct
  std::string prefix = "foo - ", suffix = " - bar";
};
struct SmoothSettings {
  int filter = 0;  // 0 triangular, 1 two towers, 2 rightsided block, 3 leftsided block
};
struct SplitSilenceSettings {
  double trig = -30.0, release = -36.0;
  int unit = 0;  // 0 dB, 1 %
  double minTrigMs = 5.0, minReleaseMs = 10.0, fadeInMs = 0.0, fadeOutMs = 0.0;
  bool zeroCross = true, keepPostRelease = false;
};
struct SplitSectionsSettings {
  bool remapRegions = true, replaceFirst = true;
};

// The live records (the statics of the pages).
AdjustVolumeSettings& AdjustVolumeStatics();
RemoveSilenceSettings& RemoveSilenceStatics();
SplitSilenceSettings& SplitSilenceStatics();
void ResetEditRowSettings();

// Level settings in dB or percent, as a linear level.
double LevelFromSetting(double value, int unit);

// The split page's edits: trig below release drags release down; a change of unit converts both
// levels; the preview's two level lines follow (trig green, release dark red).
void SetSplitTrig(double value);
void SetSplitRelease(double value);
void SetSplitUnit(int unit);
void UpdateSplitLevelLines(ProcessingWizard& wizard);

// Smoothing of frames [s, e) per channel, one of the four filters.
void SmoothRange(float* samples, uint32_t channels, uint32_t length, uint32_t s, uint32_t e, int filter);
// The filter list's sections over a whole block, in place. Type 0 does nothing.
bool FilterSamples(float* samples, uint32_t channels, uint32_t frames, int type, double normalisedCutoff);

bool RunAdjustVolume(ProcessingWizard& wizard);
bool RunAppendWaves(ProcessingWizard& wizard);
bool RunConvertToMono(ProcessingWizard& wizard);
bool RunConvertToStereo(ProcessingWizard& wizard);
bool RunCutSelection(ProcessingWizard& wizard);
bool RunFadeSelection(ProcessingWizard& wizard);
bool RunFilterWaveform(ProcessingWizard& wizard);
bool RunInsertSilence(ProcessingWizard& wizard);
bool RunInsertWaveform(ProcessingWizard& wizard);
bool RunInvertSign(ProcessingWizard& wizard);
bool RunMaximize(ProcessingWizard& wizard);
bool RunMix(ProcessingWizard& wizard);
bool RunRemoveDc(ProcessingWizard& wizard);
bool RunRemoveSilence(ProcessingWizard& wizard);
bool RunReverse(ProcessingWizard& wizard);
bool RunNamesFromFiles(ProcessingWizard& wizard);
bool RunNamesFromRootKeys(ProcessingWizard& wizard);
bool RunSmooth(ProcessingWizard& wizard);
bool RunSplitAtSilence(ProcessingWizard& wizard);
bool RunSplitSections(ProcessingWizard& wizard);
bool RunSwapChannels(ProcessingWizard& wizard);
bool RunTrimToSelection(ProcessingWizard& wizard);

std::span<const SettingInfo> AdjustVolumeSettingList();
std::span<const SettingInfo> AppendSettingList();
std::span<const SettingInfo> ToMonoSettingList();
std::span<const SettingInfo> ToStereoSettingList();
std::span<const SettingInfo> FadeSettingList();
std::span<const SettingInfo> FilterSettingList();
std::span<const SettingInfo> InsertSilenceSettingList();
std::span<const SettingInfo> InsertWaveSettingList();
std::span<const SettingInfo> MixSettingList();
std::span<const SettingInfo> RemoveSilenceSettingList();
std::span<const SettingInfo> RootKeyNameSettingList();
std::span<const SettingInfo> SmoothSettingList();
std::span<const SettingInfo> SplitSilenceSettingList();
std::span<const SettingInfo> SplitSectionsSettingList();

}  // namespace orlin
