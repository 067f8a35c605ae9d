// The global settings record, the recent-file list and the presets of the features word. The
// recent list keeps the limits of its stored block: at most 16 paths, and all of them, as
// zero-terminated UTF-16 strings closed by an empty one, within 1024 bytes.
#include "core/settings.h"

#include <algorithm>
#include <filesystem>

#include "core/text.h"

namespace orlin {

Settings& GetSettings() {
  static Settings settings;
  return settings;
}

namespace {

// Bytes the path takes in the stored block: UTF-16 units and a terminator.
size_t StoredBytes(const std::string& path) {
  size_t units = 0;
  for (size_t i = 0; i < path.size(); ++i) {
    const auto byte = uint8_t(path[i]);
    if ((byte & 0xC0) == 0x80) continue;  // continuation bytes add nothing
    units += byte >= 0xF0 ? 2 : 1;       // outside the BMP: a surrogate pair
  }
  return (units + 1) * 2;
}

bool SamePath(const std::string& a, const std::string& b) { return ToUpperAscii(a) == ToUpperAscii(b); }

}  // namespace

void RemoveRecentFile(const std::string& path) {
  std::erase_if(GetSettings().recentFiles, [&](const std::string& entry) { return SamePath(entry, path); });
}

void AddRecentFile(const std::string& path, bool isSave, bool failed) {
  Settings& settings = GetSettings();
  RemoveRecentFile(path);
  if (failed || path.empty()) return;
  std::vector<std::string>& list = settings.recentFiles;
  // Room for the new entry and the empty string that closes the block.
  auto usedBytes = [&] {
    size_t bytes = StoredBytes(path) + 2;
    for (const std::string& entry : list) bytes += StoredBytes(entry);
    return bytes;
  };
  while (!list.empty() && (list.size() >= kMaxRecentFiles || usedBytes() > kRecentBlockBytes)) list.pop_back();
  if (usedBytes() > kRecentBlockBytes) return;
  list.insert(list.begin(), path);
  const std::string folder = std::filesystem::path(path).parent_path().string();
  if (!folder.empty()) (isSave ? settings.lastPathOut : settings.lastPathIn) = folder;
}

const std::vector<FeaturePreset>& FeaturePresets() {
  static const std::vector<FeaturePreset> kPresets = {
      {"All parameters supported by Orlin Studio", 0xffffffffffffffffull},
      {"Akai S1000-series (.P)", 0xb42740c4e88ull},
      {"Akai S3000-series (.P)", 0xb43740d4e88ull},
      {"DLS level 1 melodic (.DLS)", 0x40c0002ull},
      {"DLS level 2 (.DLS)", 0x22a442c424aull},
      {"DLS level 2+ (.DLS)", 0x22a442c426aull},
      {"DLS level 2++ (.DLS)", 0xa6f5f2c426aull},
      {"GigaStudio (.GIG)", 0x300400c6608ull},
      {"Gravis UltraSound GF1 (.PAT)", 0x20000c04388ull},
      {"Kontakt (.NKI)", 0xb5ffd2d6f2dull},
      {"Korg Trinity (.PCG)", 0xb4eff6f3004ull},
      {"Korg Triton (.PCG)", 0xb4fff6f7804ull},
      {"Korg Kronos/M3 (.PCG)", 0xb5fff6f7805ull},
      {"Kurzweil K2000-series (.KRZ)", 0x353dfec4304ull},
      {"SFZ v1 (.SFZ)", 0xf5bff2e772dull},
      {"SFZ v2 (.SFZ)", 0xf5fffef7f2full},
      {"SoundFont 2.0 (.SF2)", 0x2084428460cull},
      {"SoundFont 2.01 (.SF2)", 0xb6f7f2c460cull},
      {"Yamaha Motif/Motif ES (.W2V/.W7V)", 0xb5fe46f5004ull},
      {"Yamaha Motif XS/Motif XF (.X0V/.X3V)", 0xb5fe46f7004ull},
      {"Yamaha Tyros 2/3 normal voice (.TVN/.UVN)", 0xa1fe66f5004ull},
      {"Minimal for portability", 0x0ull},
  };
  return kPresets;
}

const char* FeaturePresetName(uint64_t features) {
  for (const FeaturePreset& preset : FeaturePresets())
    if (preset.mask == features) return preset.name;
  return "Custom set";
}

const char* FeatureLabel(int bit) {
  static const char* const kLabels[44] = {
      "Trigger: X-fade between regions", "Architecture: Articulation on Instrument level",
      "Architecture: Articulation on Layer level", "Architecture: Articulation on Region level", "",
      "Waves: Compressed data formats", "Waves: DLS waveform flags", "Waves: Fractional loop-points",
      "Waves: Reverse and bi-directional loops", "Waves: Sampled release (key-up breaks loop)",
      "Waves: Region level start/end offsets", "Waves: Tuning of loop pitch", "Trigger: Delay time",
      "Trigger: Trigger type", "LFOs: Pitch/Modulation LFOs (2+ LFOs)", "LFOs: Separate P/V/F/X LFOs (3+ LFOs)",
      "LFOs: Shapes", "LFOs: Ramp time", "LFOs: MW/AT/Velocity to LFO",
      "Envs: Modulation/Volume envelopes (2+ envs)", "Envs: Separate P/V/F/X envelopes (3+ envs)",
      "Envs: Six-stages (DAHDSR)", "Envs: More levels + bi-directional (AADDSR)", "Envs: Three Release segments",
      "Envs: Key to Attack/Release", "Envs: Velocity to Attack 1 time (Delay)",
      "Envs: Velocity to Attack 2 time (Attack)", "Envs: Velocity to Decay 1/2 time (Hold/Dcy)",
      "Envs: Velocity to Release rate", "Envs: Velocity to M-EG to Pitch/Cutoff", "Filter: Low Pass Filter",
      "Filter: Additional filter types", "Filter: Mod wheel/Aftertouch to Cutoff", "Filter: Key/Velocity to Cutoff",
      "Filter: Velocity/MW/AT to Resonance", "Effects: Effect send levels", "Effects: EQ",
      "Mixer: Channel command depths", "Mixer: Key to Volume/Pan", "Mixer: Random to Pan",
      "Pitch: Pitch bend to Pitch", "Pitch: Key to Pitch", "Pitch: Random to Pitch",
      "Volume: Mod wheel/Aftertouch to Volume",
  };
  return bit >= 0 && bit < 44 ? kLabels[bit] : "";
}

}  // namespace orlin
