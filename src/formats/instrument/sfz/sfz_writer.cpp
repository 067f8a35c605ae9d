// Writes SFZ text: one file per instrument, <global> with the instrument's values, a <group> per layer
// and a <region> per region with only what differs from the level above; defaults are left out. The
// v1 dialect writes the old controller spellings (cutoff_cc1), v2 the _oncc forms. Waves go beside the
// text or into a sub-folder named after the instrument, as .wav, or .flac/.ogg when asked and a writer
// for them is present.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/wave_stream.h"
#include "core/pipeline.h"
#include "core/save_transaction.h"
#include "core/text.h"
#include "core/user_interface.h"
#include "formats/audio/wav.h"
#include "formats/common/save_view.h"
#include "formats/instrument/sfz/sfz.h"

namespace orlin {

namespace fs = std::filesystem;

namespace {

constexpr const char* kVersion1Head[] = {
    "/////////////////////////////////////////////////////////////////////////////",
    "/// sfz definition file",
    "/// written by Orlin Studio v12.7",
    "/// -------------------------------------------------------------------------",
};
constexpr const char* kVersion2Head[] = {
    "//-------------------------------------------------------------------------------------------------",
    "// sfz Definition File",
    "// Version 2",
    "// Written by Orlin Studio v12.7",
};

// Model filter types back to fil_type names; 0 ("Pass-thru") writes no filter. 3 and 7 (18 dB/oct)
// have no SFZ name and take the nearest steeper one.
constexpr const char* kFilterTypeNames[13] = {
    "", "lpf_1p", "lpf_2p", "lpf_4p", "lpf_4p", "hpf_1p", "hpf_2p", "hpf_4p", "hpf_4p",
    "bpf_1p", "bpf_2p", "brf_1p", "brf_2p",
};
constexpr int kDrumChannel = 10;
constexpr const char* kEqTypeNames[3] = {"peak", "lshelf", "hshelf"};

std::string FormatG(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%g", value);
  return buffer;
}

class Lines {
 public:
  void Int(const char* key, long value) { text += " " + std::string(key) + "=" + std::to_string(value) + "\n"; }
  void Float(const std::string& key, double value) { text += " " + key + "=" + FormatG(value) + "\n"; }
  void Text(const char* key, const std::string& value) { text += " " + std::string(key) + "=" + value + "\n"; }
  std::string text;
};

// Bandwidth in octaves of a band of quality `q`.
double BandwidthFromQ(double q) { return 2.0 / std::log(2.0) * std::asinh(1.0 / (2.0 * std::max(q, 0.01))); }

// What one level writes beyond its articulation: the wave's own fine tune (SFZ players never hear
// the smpl fraction once pitch_keycenter is given, so `tune` carries it), and whether this is <global>.
struct LevelContext {
  int waveFineCents = 0;
  bool global = false;
};

// The pitch LFO as SFZ sees it: the model's P-LFO, or, when that is silent, the X-LFO's pitch part (a
// SoundFont's modulation LFO vibrato) on the pitch LFO the file leaves free.
struct PitchLfoView {
  double freq, delay, fade, depth, depthCc1, depthChanAft;
  bool operator!=(const PitchLfoView& o) const {
    return freq != o.freq || delay != o.delay || fade != o.fade || depth != o.depth || depthCc1 != o.depthCc1 ||
           depthChanAft != o.depthChanAft;
  }
};
PitchLfoView PitchLfoOf(const Articulation& art) {
  // The wheel and pressure depths (a SoundFont's default 50 cents) ride whichever LFO is written.
  const bool ownSilent = art.Get(3) == 0.0f && art.Get(6) == 0.0f;
  const bool modulation = art.Get(7) != 0.0f || art.Get(10) != 0.0f;
  const ParamId rows = ownSilent && modulation ? 77 : 65;
  const ParamId depth = ownSilent && modulation ? 7 : 3;
  return {art.Get(rows + 1), art.Get(rows + 2), art.Get(rows + 3),
          art.Get(depth) * 100.0, art.Get(4) * 100.0, art.Get(5) * 100.0};
}

// One level's opcodes: ids set at `art` whose value differs from `parent`'s effective value.
void WriteArticulation(Lines& out, const Articulation& art, const Articulation& parent, bool v2, bool forceAll,
                       const LevelContext& context = {}) {
  auto differs = [&](ParamId id) {
    return art.IsSet(id) && (forceAll ? art.Get(id) != DefaultArticulation().Get(id) : art.Get(id) != parent.Get(id));
  };
  auto value = [&](ParamId id) { return double(art.Get(id)); };
  // Tuning in cents, the wave's fine tune included; transpose and tune replace the level above's, so
  // both are written when either changes.
  const long cents = std::lround(value(kParamMasterTune) * 100.0) + context.waveFineCents;
  const long parentCents = forceAll ? 0 : std::lround(double(parent.Get(kParamMasterTune)) * 100.0);
  if (cents != parentCents) {
    const long transpose = cents / 100;  // toward zero, so that |tune| stays under 100
    if (transpose != 0 || parentCents / 100 != 0) out.Int("transpose", transpose);
    out.Int("tune", cents - transpose * 100);
  }
  if (differs(1)) out.Float("pitch_keytrack", value(1) * 100.0);
  if (differs(2)) {
    out.Float("bend_up", value(2) * 100.0);
    out.Float("bend_down", -value(2) * 100.0);
  }
  if (differs(13)) out.Float("pitch_random", value(13) * 100.0);
  // Volume carries back the half of the resonance peak that reading took off.
  const bool filterOn = art.Get(kParamFilterType) != 0.0f;
  if (differs(kParamMasterVolume) || (filterOn && differs(35)))
    out.Float("volume", value(kParamMasterVolume) + (filterOn ? value(35) * 0.5 : 0.0));
  // A file without amp_veltrack tracks velocity at 100 %, which is not the model's default.
  if (context.global ? value(15) != sfz_units::kDefaultVelocityTrackDb : differs(15))
    out.Float("amp_veltrack", value(15) / sfz_units::kVelocityTrackDbPerPercent);
  if (differs(16)) out.Float("amp_keytrack", value(16) / 0.12);
  if (differs(17)) out.Float(v2 ? "volume_oncc1" : "volumecc1", value(17));
  if (filterOn) {
    // The SFZ cutoff depends on the velocity track as well: both go together.
    if (differs(kParamFilterType) || differs(24) || differs(25)) {
      const int type = std::clamp(int(value(kParamFilterType)), 0, 12);
      out.Text("fil_type", kFilterTypeNames[type]);
      out.Float("cutoff", sfz_units::SfzCutoff(value(24), value(25)));
      if (sfz_units::WritesVelocityTrack(value(25))) out.Float("fil_veltrack", value(25) * 100.0);
    }
    if (differs(35)) out.Float("resonance", value(35));
    if (differs(26)) out.Float("fil_keytrack", value(26) * 100.0);
    if (differs(27)) out.Float(v2 ? "cutoff_oncc1" : "cutoff_cc1", value(27) * 100.0);
    if (differs(28)) out.Float("cutoff_chanaft", value(28) * 100.0);
    if (differs(37)) out.Float(v2 ? "resonance_oncc1" : "resonance_cc1", value(37));
  }
  for (int band = 0; band < 3; ++band) {
    const ParamId first = ParamId(39 + band * 4);
    const std::string p = "eq" + std::to_string(band + 1) + "_";
    if (differs(first)) out.Text((p + "type").c_str(), kEqTypeNames[std::clamp(int(value(first)), 0, 2)]);
    if (differs(first + 1)) out.Float(p + "freq", value(first + 1));
    if (differs(first + 2)) out.Float(p + "gain", value(first + 2));
    if (differs(first + 3)) out.Float(p + "bw", BandwidthFromQ(value(first + 3)));
  }
  if (differs(51)) out.Float("pan", value(51) * 100.0);
  if (differs(53)) out.Float("pan_keytrack", value(53) / 0.12);
  if (differs(56)) out.Float("pan_random", value(56) * 100.0);
  for (int send = 0; send < 4; ++send) {
    const ParamId id = ParamId(57 + send * 2);
    if (differs(id)) out.Float("effect" + std::to_string(send + 1), value(id) * 100.0);
  }
  // LFOs: the pitch LFO as SFZ sees it, then the amplitude and filter LFOs; timing rows, then depths.
  const PitchLfoView pitchLfo = PitchLfoOf(art);
  const PitchLfoView pitchParent = PitchLfoOf(forceAll ? DefaultArticulation() : parent);
  if (pitchLfo != pitchParent) {
    out.Float("pitchlfo_freq", pitchLfo.freq);
    if (pitchLfo.delay != 0.0 || pitchParent.delay != 0.0) out.Float("pitchlfo_delay", pitchLfo.delay);
    if (pitchLfo.fade != 0.0 || pitchParent.fade != 0.0) out.Float("pitchlfo_fade", pitchLfo.fade);
    if (pitchLfo.depth != pitchParent.depth) out.Float("pitchlfo_depth", pitchLfo.depth);
    if (pitchLfo.depthCc1 != pitchParent.depthCc1) out.Float("pitchlfo_depthcc1", pitchLfo.depthCc1);
    if (pitchLfo.depthChanAft != pitchParent.depthChanAft) out.Float("pitchlfo_depthchanaft", pitchLfo.depthChanAft);
  }
  struct Lfo {
    const char* prefix;
    ParamId rows;
    ParamId depth;
    double scale;
  };
  static const Lfo kLfos[] = {{"amplfo_", 69, 19, 1.0}, {"fillfo_", 73, 29, 100.0}};
  for (const Lfo& lfo : kLfos) {
    const std::string p = lfo.prefix;
    if (differs(lfo.rows + 1)) out.Float(p + "freq", value(lfo.rows + 1));
    if (differs(lfo.rows + 2)) out.Float(p + "delay", value(lfo.rows + 2));
    if (differs(lfo.rows + 3)) out.Float(p + "fade", value(lfo.rows + 3));
    if (differs(lfo.depth)) out.Float(p + "depth", value(lfo.depth) * lfo.scale);
    if (differs(lfo.depth + 1)) out.Float(p + "depthcc1", value(lfo.depth + 1) * lfo.scale);
    if (differs(lfo.depth + 2)) out.Float(p + "depthchanaft", value(lfo.depth + 2) * lfo.scale);
  }
  // Envelopes: attack 1 is the delay, attack 2 the attack, decay 1 the hold, decay 2 the decay.
  struct Envelope {
    const char* prefix;
    ParamId base;
    ParamId depth;
    ParamId velocityToDepth;
  };
  static const Envelope kEnvelopes[] = {{"ampeg_", 81, 0, 0}, {"pitcheg_", 108, 11, 12}, {"fileg_", 135, 33, 34}};
  for (const Envelope& env : kEnvelopes) {
    const std::string p = env.prefix;
    const ParamId b = env.base;
    // Amplifier levels are percent of linear amplitude; the modulation envelopes' are plain factors.
    auto level = [&](ParamId id) {
      return b == kParamFirstEnvelope ? sfz_units::PercentFromLevel(value(id)) : value(id) * 100.0;
    };
    if (differs(b + 4)) out.Float(p + "start", level(ParamId(b + 4)));
    if (differs(b + 1)) out.Float(p + "delay", value(b + 1));
    if (differs(b + 5)) out.Float(p + "attack", value(b + 5));
    if (differs(b + 9)) out.Float(p + "hold", value(b + 9));
    if (differs(b + 13)) out.Float(p + "decay", value(b + 13));
    if (differs(b + 16)) out.Float(p + "sustain", level(ParamId(b + 16)));
    if (differs(b + 17)) out.Float(p + "release", value(b + 17));
    // Velocity quotients back to time offsets at full velocity.
    static const std::pair<int, const char*> kVelocity[] = {
        {2, "vel2delay"}, {6, "vel2attack"}, {10, "vel2hold"}, {14, "vel2decay"}, {23, "vel2release"}};
    static const int kTimeOf[] = {1, 5, 9, 13, 17};
    for (int stage = 0; stage < 5; ++stage) {
      const ParamId id = ParamId(b + kVelocity[stage].first);
      if (differs(id)) out.Float(p + kVelocity[stage].second, (value(id) - 1.0) * value(ParamId(b + kTimeOf[stage])));
    }
    if (env.depth) {
      if (differs(env.depth)) out.Float(p + "depth", value(env.depth) * 100.0);
      if (differs(env.velocityToDepth)) out.Float(p + "vel2depth", value(env.velocityToDepth) * 100.0);
    }
  }
}

// SFZ has no key-to-time scaling of envelope stages: a region takes the times its middle key would
// play, and the scaling is written as done.
Articulation BakeKeyToTime(const Articulation& effective, int key) {
  Articulation baked = effective;
  // Per envelope: (time row, key factor row) from the envelope's first row.
  static const std::pair<int, int> kStages[] = {{1, 3}, {5, 7}, {9, 11}, {13, 15}, {17, 24}};
  for (ParamId base : {ParamId(81), ParamId(108), ParamId(135)}) {
    for (const auto& [time, factor] : kStages) {
      const double perOctave = effective.Get(ParamId(base + factor));
      if (perOctave == 1.0) continue;
      const ParamId timeId = ParamId(base + time);
      baked.Set(timeId, float(effective.Get(timeId) * std::pow(perOctave, (key - 60) / 12.0)));
      baked.Set(ParamId(base + factor), 1.0f);
    }
  }
  return baked;
}

// Effective articulation of a level: its own values over the parent's.
Articulation Effective(const Articulation& own, const Articulation& parent) {
  Articulation result = own;
  result.FillFrom(parent);
  return result;
}

// Every file of the kit goes through the save's transaction: written under a temporary name and
// renamed into place with the others, so a kit saved over itself (or over the folder its waves come
// from) never truncates a wave that is still to be read.
bool WriteText(const std::string& path, const std::string& text, FileObject* given) {
  FileObject* file = given ? given : CreateSaveFile(path);
  if (!file) return false;
  if (!file->Write(text.data(), text.size())) {
    SetLastError(FileErrorText("Writing to file failed", path, errno));
    return false;
  }
  return true;
}

struct WaveTarget {
  std::string extension = "wav";
  int32_t row = -1;  // a compressed writer's row; -1 writes RIFF WAVE
};

enum class WaveResult { Written, Unreadable, Failed };

// Writes one wave file; `finalPath` gets the name it will have (another one when the user keeps a file
// of that name). The wave's source is opened before the file is made, so a wave that cannot be read
// makes no file; a wave whose file cannot be written fails the whole save, leaving the old kit as it
// was. RIFF WAVE samples stream from the source in blocks, never whole in memory.
WaveResult WriteWaveFile(Waveform& wave, const std::string& path, const WaveTarget& target,
                         const SaveOptions& options, std::string& finalPath) {
  finalPath = path;
  if (target.row < 0 && !OpenWaveStream(wave)) return WaveResult::Unreadable;
  if (target.row >= 0 && !wave.Preload()) return WaveResult::Unreadable;
  FileObject* file = CreateSaveFile(path, &finalPath);
  if (!file) return WaveResult::Failed;
  if (target.row >= 0) {
    const FormatEntry* entry = GetFormatRow(target.row);
    SaveOptions waveOptions = options;
    waveOptions.caps = entry->caps;
    waveOptions.variant = entry->variant;
    return entry->write(&wave, file, &waveOptions) ? WaveResult::Written : WaveResult::Failed;
  }
  return WriteWaveToFile(wave, *file, WaveWriteParams{}) ? WaveResult::Written : WaveResult::Failed;
}

std::string RegionText(const Region& region, const std::string& sample, bool v2,
                       const Articulation& layerEffective) {
  Lines out;
  out.text = "<region>\n";
  out.Text("sample", sample);
  const Waveform* wave = region.GetWave();
  if (region.startOffset > 0) out.Int("offset", region.startOffset);
  if (region.endOffset < 0 && wave) out.Int("end", long(wave->length) + region.endOffset - 1);
  const LoopInfo loop = region.EffectiveLoop();
  const Articulation effective = Effective(region.articulation, layerEffective);
  if (loop.type == 0) {
    out.Text("loop_mode", effective.Get(106) != 0.0f ? "one_shot" : "no_loop");
  } else {
    out.Text("loop_mode", loop.release ? "loop_sustain" : "loop_continuous");
    if (v2 && loop.type == 2) out.Text("loop_type", "backward");
    if (v2 && loop.type == 3) out.Text("loop_type", "alternate");
    out.Int("loop_start", long(loop.start));
    // Exclusive in the model, inclusive in the text.
    if (loop.end < kLoopEndUnset) out.Int("loop_end", long(loop.end) - 1);
    if (loop.tune != 0.0f) out.Float("loop_tune", loop.tune * 100.0);
  }
  out.Int("pitch_keycenter", region.EffectiveRootKey());
  if (region.range.loKey != 0) out.Int("lokey", region.range.loKey);
  if (region.range.hiKey != 127) out.Int("hikey", region.range.hiKey);
  if (region.range.loVelocity != 0) out.Int("lovel", region.range.loVelocity);
  if (region.range.hiVelocity != 127) out.Int("hivel", region.range.hiVelocity);
  const float trigger = region.GetParam(kParamTriggerType);
  if (trigger == 1.0f) out.Text("trigger", "release");
  const int group = int(region.GetParam(202));
  if (group != 0) {
    out.Int("group", group);
    if (region.GetParam(203) == 0.0f) out.Int("off_by", group);
  }
  auto fade = [&](ParamId id, const char* lo, const char* hi, int edge, bool in) {
    const int width = int(region.GetParam(id));
    if (width <= 0) return;
    if (in) {
      out.Int(lo, edge);
      out.Int(hi, edge + width);
    } else {
      out.Int(lo, edge - width);
      out.Int(hi, edge);
    }
  };
  fade(194, "xfin_lokey", "xfin_hikey", region.range.loKey, true);
  fade(195, "xfout_lokey", "xfout_hikey", region.range.hiKey, false);
  fade(197, "xfin_lovel", "xfin_hivel", region.range.loVelocity, true);
  fade(198, "xfout_lovel", "xfout_hivel", region.range.hiVelocity, false);
  const float pedal = region.GetParam(kParamPedalSwitch);
  if (pedal == 1.0f) out.Int("locc64", 64);
  if (pedal == 2.0f) out.Int("hicc64", 63);
  if (region.GetParam(kParamTriggerDelay) > 0.0f) out.Float("delay", region.GetParam(kParamTriggerDelay));
  LevelContext context;
  context.waveFineCents = wave ? wave->fineTune : 0;
  const int middleKey = (region.range.loKey + region.range.hiKey + 1) / 2;
  WriteArticulation(out, BakeKeyToTime(effective, middleKey), layerEffective, v2, false, context);
  return out.text;
}

// The wave files of one save: each wave is written once per folder, however many instruments and
// regions use it, and names stay unique within a folder across all instruments.
struct WaveFiles {
  std::map<std::pair<const Waveform*, std::string>, std::string> names;  // (wave, folder) -> file name
  std::map<std::string, std::set<std::string>> usedNames;                // folder -> lower-case names
};

bool WriteInstrument(Instrument& instrument, const std::string& path, FileObject* given, bool v2, bool subFolder,
                     const SaveOptions& options, const WaveTarget& target, WaveFiles& waveFiles) {
  Collection& collection = *instrument.collection;
  std::string text;
  const auto& head = v2 ? kVersion2Head : kVersion1Head;
  // The first line also carries the instrument's name.
  text += std::string(head[0]) + " " + instrument.GetName() + "\n";
  for (int i = 1; i < 4; ++i) text += std::string(head[i]) + "\n";
  if (v2) text += std::string(kVersion2Head[0]) + "\n";
  const std::string& comments = instrument.GetText(kTextComments);
  size_t at = 0;
  while (at < comments.size()) {
    size_t end = comments.find('\n', at);
    if (end == std::string::npos) end = comments.size();
    std::string line = comments.substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    text += (v2 ? "// " : "/// ") + line + "\n";
    at = end + 1;
  }
  text += "\n";

  const fs::path folder = fs::path(path).parent_path();
  std::string subName;
  fs::path waveFolder = folder;
  if (subFolder) {
    subName = FileNameFromItemName(instrument.GetName());
    waveFolder = folder / subName;
    std::error_code error;
    fs::create_directories(waveFolder, error);
    text += "<control>\n default_path=" + subName + "\\\n\n";
  }
  Lines global;
  global.text = "<global>\n";
  // Drum kits carry the usual channel-10 mark.
  if (instrument.IsDrumKit()) {
    global.Int("lochan", kDrumChannel);
    global.Int("hichan", kDrumChannel);
  }
  LevelContext globalContext;
  globalContext.global = true;
  WriteArticulation(global, instrument.articulation, DefaultArticulation(), v2, true, globalContext);
  text += global.text + "\n";
  const Articulation instrumentEffective = Effective(instrument.articulation, DefaultArticulation());

  const std::string folderKey = waveFolder.lexically_normal().string();
  std::set<std::string>& usedNames = waveFiles.usedNames[folderKey];
  for (uint32_t layerId : instrument.children) {
    Layer* layer = collection.Find<Layer>(layerId);
    if (!layer) continue;
    Lines group;
    group.text = "<group>\n";
    WriteArticulation(group, layer->articulation, instrumentEffective, v2, false);
    text += group.text;
    const Articulation layerEffective = Effective(layer->articulation, instrumentEffective);
    for (uint32_t regionId : layer->children) {
      Region* region = collection.Find<Region>(regionId);
      Waveform* wave = region ? region->GetWave() : nullptr;
      if (!wave) continue;
      auto known = waveFiles.names.find({wave, folderKey});
      if (known == waveFiles.names.end()) {
        std::string base = FileNameFromItemName(wave->GetName());
        std::string name = base + "." + target.extension;
        for (int n = 2; usedNames.count(ToLowerAscii(name)); ++n) name = base + " " + std::to_string(n) + "." + target.extension;
        usedNames.insert(ToLowerAscii(name));
        std::string finalPath;
        const WaveResult result = WriteWaveFile(*wave, (waveFolder / name).string(), target, options, finalPath);
        if (result == WaveResult::Failed) return false;
        if (result == WaveResult::Unreadable) Ui().Warn("Error!", wave->GetName() + ": " + LastError());
        known = waveFiles.names.emplace(std::make_pair(wave, folderKey), fs::path(finalPath).filename().string()).first;
      }
      text += RegionText(*region, known->second, v2, layerEffective);
    }
    text += "\n";
  }
  return WriteText(path, text, given);
}

}  // namespace

bool WriteSfz(Item* item, FileObject* file, const SaveOptions* options) {
  SaveView view(item);
  if (view.Instruments().empty()) {
    SetLastError("The file format can not save this item");
    return false;
  }
  // The row's variant packs the choices in bits 8 and 9; the rows may also number them 1 to 4.
  uint32_t variant = options->variant;
  if (variant >= 1 && variant <= 4) variant = ((variant - 1) & 1 ? kSfzVariantSubFolder : 0) | (variant >= 3 ? kSfzVariantVersion2 : 0);
  const bool v2 = variant & kSfzVariantVersion2;
  const bool subFolder = variant & kSfzVariantSubFolder;
  WaveTarget target;
  // Compressed waves only when the user chose a compressed setting (the storage choice is then that bit
  // alone) and a writer is present; "Auto" keeps waves lossless.
  if ((options->caps & kCapsStorageMask) == kCapsCompressed) {
    const char* extension = options->rate == 1.0f ? "flac" : "ogg";
    const int32_t row = FindWriteRow(extension, kMaskWaveform);
    if (row >= 0) {
      target.extension = extension;
      target.row = row;
    }
  }
  const std::string path = SavePathOf(*file);
  const fs::path folder = fs::path(path).parent_path();
  const auto& instruments = view.Instruments();
  WaveFiles waveFiles;
  for (size_t i = 0; i < instruments.size(); ++i) {
    // Further instruments get files of their own, named as the file the user chose plus the instrument.
    std::string targetPath = path;
    if (i > 0) {
      const std::string name = FileNameFromItemName(fs::path(path).stem().string() + " " + instruments[i]->GetName());
      targetPath = (folder / (name + ".sfz")).string();
    }
    if (!WriteInstrument(*instruments[i], targetPath, i == 0 ? file : nullptr, v2, subFolder, *options, target,
                         waveFiles))
      return false;
  }
  return true;
}

}  // namespace orlin
