// Reads an SFZ file into one instrument. Levels inherit by copy: a <group> starts from the current
// <master>, which starts from <global>; a <region> starts from its group. Each region's effective
// opcodes are then converted into the region's own fields and articulation, and what the regions of a
// layer or the whole instrument share is folded upwards. Waves are read through the format table and
// shared by full path within one load.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/fixup.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/region_grid.h"
#include "core/text.h"
#include "formats/instrument/sfz/sfz.h"

namespace orlin {

namespace fs = std::filesystem;

namespace {

[[maybe_unused]] constexpr int kDrumChannel = 10;

constexpr float kLargestValue = 1e9f;  // hostile numbers are cut here before any conversion
constexpr int kMaxRegions = 200000;

struct Value {
  std::string text;
  int line = 0;
  int column = 0;
};
using Level = std::map<std::string, Value>;

// Old spellings onto the one key the converter reads.
const std::unordered_map<std::string, std::string>& Synonyms() {
  static const std::unordered_map<std::string, std::string> table = {
      {"wave", "sample"}, {"loopmode", "loop_mode"}, {"looptype", "loop_type"}, {"loopstart", "loop_start"},
      {"loopend", "loop_end"}, {"loop_tune01", "loop_tune"}, {"keycenter", "pitch_keycenter"},
      {"keytrack", "pitch_keytrack"}, {"veltrack", "pitch_veltrack"}, {"offby", "off_by"},
      {"polyphony_group", "group"}, {"bendup", "bend_up"}, {"benddown", "bend_down"}, {"filtype", "fil_type"},
      {"tune_", "tune"}, {"pitch", "tune"}, {"pitch_", "tune"}, {"volume_", "volume"}, {"gain", "volume"},
      {"gain_", "volume"}, {"amp_", "amplitude"}, {"on_locc64", "locc64"}, {"on_hicc64", "hicc64"},
      {"effect", "effect1"}, {"start", "offset"}, {"tune_random", "pitch_random"},
      {"cutoff_polyaft", "cutoff_chanaft"}, {"cutoff2_polyaft", "cutoff2_chanaft"},
      {"pitch_cc135", "pitch_random"}, {"tune_cc135", "pitch_random"}, {"pan_cc135", "pan_random"},
  };
  return table;
}

// "volumecc1", "volume_cc1", "gain_cc1", "pitchcc1", "cutoff_cc1" ... become "<base>_onccN".
std::string CanonicalKey(const std::string& key) {
  const auto& synonyms = Synonyms();
  if (auto found = synonyms.find(key); found != synonyms.end()) return found->second;
  size_t digits = key.size();
  while (digits > 0 && std::isdigit(uint8_t(key[digits - 1]))) --digits;
  if (digits == key.size() || digits < 3 || key.compare(digits - 2, 2, "cc") != 0) return key;
  std::string base = key.substr(0, digits - 2);
  if (base.size() > 3 && base.compare(base.size() - 3, 3, "_on") == 0) base.resize(base.size() - 3);
  if (!base.empty() && base.back() == '_') base.pop_back();
  if (base == "gain" || base == "volume") base = "volume";
  else if (base == "pitch" || base == "tune") base = "tune";
  else if (base == "amp" || base == "amplitude") base = "amplitude";
  else if (base == "pan" || base == "cutoff" || base == "cutoff2" || base == "resonance" || base == "resonance2") {
  } else {
    // Envelope and LFO controller forms ("pitchlfo_depthcc1") keep their own spelling.
    return key;
  }
  return base + "_oncc" + key.substr(digits);
}

double ToNumber(const std::string& text, double fallback) {
  if (text.empty()) return fallback;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || !std::isfinite(value)) return fallback;
  return std::clamp(value, double(-kLargestValue), double(kLargestValue));
}

// The fil_type names in the order of the model's filter types; peak and shelves go to EQ instead.
struct FilterName {
  const char* name;
  int type;
};
constexpr FilterName kFilterNames[] = {
    {"lpf_1p", 1}, {"lpf_2p", 2}, {"lpf_4p", 4}, {"hpf_1p", 5}, {"hpf_2p", 6}, {"hpf_4p", 8},
    {"bpf_1p", 9}, {"bpf_2p", 10}, {"brf_1p", 11}, {"brf_2p", 12}, {"lpf_2p_sv", 2}, {"hpf_2p_sv", 6},
    {"bpf_2p_sv", 10}, {"brf_2p_sv", 12}, {"pkf_2p", 10},
};

int EqModeOf(const std::string& name) {
  if (name == "peak") return 0;
  if (name == "lshelf") return 1;
  if (name == "hshelf") return 2;
  return -1;
}

// Q of a band given in octaves of bandwidth.
float QFromBandwidth(double octaves) {
  octaves = std::clamp(octaves, 0.01, 10.0);
  const double ratio = std::pow(2.0, octaves);
  return float(std::sqrt(ratio) / (ratio - 1.0));
}

class SfzReader {
 public:
  SfzReader(Collection* collection, const std::string& path, std::vector<SfzLogEntry>* log)
      : collection_(collection), path_(path), folder_(fs::path(path).parent_path()), log_(log) {}

  bool Run(const std::string& rawText);

 private:
  enum class Section { None, Control, Global, Master, Group, Region, Curve, Effect, Midi, Sample };

  void Log(const Value& at, const std::string& text) {
    if (log_) log_->push_back({at.line, at.column, text});
  }
  void Log(int line, int column, const std::string& text) {
    if (log_) log_->push_back({line, column, text});
  }
  void FinishRegion();
  void FinishEffect();
  Waveform* LoadWave(const std::string& sample, const Value& at);
  bool FindSample(const std::string& sample, std::string& found) const;
  void Convert(const Level& opcodes, Region& region, Waveform& wave, bool keyCenterGiven);

  Collection* collection_;
  std::string path_;
  fs::path folder_;
  std::vector<SfzLogEntry>* log_;
  Instrument* instrument_ = nullptr;
  std::unique_ptr<LayerPlacer> placer_;  // layers of instrument_, by the collision rule
  Level global_, master_, group_, region_, effect_;
  std::string defaultPath_;
  std::map<int, float> ccDefaults_;  // controller number -> 0..1
  std::unordered_map<std::string, uint32_t> wavesByPath_;
  std::set<std::string> loggedKeys_;
  int effectSlot_ = 0;
  int regionCount_ = 0;
};

bool SfzReader::FindSample(const std::string& sample, std::string& found) const {
  std::string name = sample;
  std::replace(name.begin(), name.end(), '\\', '/');
  std::error_code error;
  auto exists = [&](const fs::path& candidate) { return fs::is_regular_file(candidate, error); };
  std::vector<fs::path> candidates;
  std::string defaultPath = defaultPath_;
  std::replace(defaultPath.begin(), defaultPath.end(), '\\', '/');
  const bool absolute = !name.empty() && (name[0] == '/' || (name.size() > 1 && name[1] == ':'));
  if (absolute) candidates.emplace_back(name);
  // default_path is joined as text: "Sub/sample" + "1.wav" names "Sub/sample1.wav".
  if (!defaultPath.empty() && !absolute) candidates.push_back(folder_ / (defaultPath + name));
  if (!absolute) candidates.push_back(folder_ / name);
  const std::string fileName = fs::path(name).filename().string();
  if (fileName != name) {
    candidates.push_back(folder_ / fileName);
    if (!defaultPath.empty()) candidates.push_back(folder_ / (defaultPath + fileName));
  }
  for (const fs::path& candidate : candidates) {
    if (exists(candidate)) {
      found = candidate.lexically_normal().string();
      return true;
    }
  }
  // Wave folders copied from Windows often differ in case only, in any part of the path.
  for (const fs::path& candidate : candidates) {
    fs::path resolved;
    bool matched = true;
    for (const fs::path& part : candidate.lexically_normal()) {
      const fs::path next = resolved / part;
      if (resolved.empty() || part == ".." || part == "." || fs::exists(next, error)) {
        resolved = next;
        continue;
      }
      matched = false;
      const std::string wanted = ToLowerAscii(part.string());
      for (const auto& entry : fs::directory_iterator(resolved, error)) {
        if (ToLowerAscii(entry.path().filename().string()) == wanted) {
          resolved = entry.path();
          matched = true;
          break;
        }
      }
      if (!matched) break;
    }
    if (matched && exists(resolved)) {
      found = resolved.string();
      return true;
    }
  }
  return LocateFile(path_, defaultPath + name, found);
}

Waveform* SfzReader::LoadWave(const std::string& sample, const Value& at) {
  std::string path;
  if (!FindSample(sample, path)) {
    Log(at, "wave not found: " + sample);
    return nullptr;
  }
  std::error_code error;
  const std::string key = fs::weakly_canonical(path, error).string();
  if (auto shared = wavesByPath_.find(key); shared != wavesByPath_.end())
    return collection_->Find<Waveform>(shared->second);

  // The extension chooses the reader; everything unknown is read as RIFF WAVE.
  std::string extension = ToLowerAscii(ExtensionOf(path));
  if (extension != "flac" && extension != "aif" && extension != "aiff" && extension != "aifc" &&
      extension != "ogg" && extension != "mp3")
    extension = "wav";
  const int32_t row = FindReadRow(extension);
  const FormatEntry* entry = GetFormatRow(row);
  FileObject file;
  Collection loaded;
  loaded.SetText(kTextSourceFile, path);
  loaded.SetName(fs::path(path).stem().string());
  const std::string reason = std::string("Couldn't openwave ") + sample;
  if (!entry || !entry->read) {
    Log(at, reason + ": no reader for ." + extension);
    return nullptr;
  }
  if (!file.Open(path, FileMode::Read) || !entry->read(&loaded, &file, entry->variant)) {
    Log(at, reason + (LastError().empty() ? "" : ": " + LastError()));
    return nullptr;
  }
  Waveform* source = nullptr;
  for (Waveform* wave : loaded.All<Waveform>()) {
    source = wave;
    break;
  }
  if (!source) {
    Log(at, reason + ": the file holds no wave");
    return nullptr;
  }
  std::string name = source->GetName();
  if (name.empty()) name = fs::path(path).stem().string();
  auto* wave = new Waveform(collection_, *source, true, name);
  wave->SetText(kTextSourceFile, path);
  wavesByPath_[key] = wave->id;
  return wave;
}

void SfzReader::FinishEffect() {
  auto type = effect_.find("type");
  if (type != effect_.end() && instrument_) {
    // Channel FX types of the model: 1 chorus, 2 reverb, 5 compressor, 6 distortion, 7 phaser.
    static const std::map<std::string, int> kTypes = {
        {"chorus", 1}, {"fverb", 2}, {"comp", 5}, {"disto", 6}, {"phaser", 7}};
    auto known = kTypes.find(ToLowerAscii(type->second.text));
    if (known == kTypes.end()) {
      Log(type->second, "<effect> type=" + type->second.text + " has no counterpart and is dropped");
    } else if (effectSlot_ >= kEffectSlotCount) {
      Log(type->second, "more than four <effect> sections; this one is dropped");
    } else {
      instrument_->SetParam(ParamId(kFirstEffectParam + effectSlot_ * kEffectViewsPerSlot), float(known->second));
      ++effectSlot_;
    }
  }
  effect_.clear();
}

void SfzReader::FinishRegion() {
  Level opcodes = region_;
  region_.clear();
  auto sample = opcodes.find("sample");
  if (sample == opcodes.end() || sample->second.text.empty()) return;
  // "*sine" and the other generators have no wave.
  if (sample->second.text[0] == '*') {
    Log(sample->second, "generator " + sample->second.text + " has no wave; region left out");
    return;
  }
  int loKey = 0, hiKey = 127, root = -1;
  auto key = [&](const char* name, int& out) {
    auto found = opcodes.find(name);
    if (found == opcodes.end()) return false;
    int value = 0;
    if (!ParseSfzKey(found->second.text, value)) {
      Log(found->second, std::string(name) + "=" + found->second.text + " is not a key");
      return false;
    }
    out = value;
    return true;
  };
  int single = 0;
  if (key("key", single)) loKey = hiKey = root = single;
  key("lokey", loKey);
  key("hikey", hiKey);
  auto keycenter = opcodes.find("pitch_keycenter");
  if (keycenter != opcodes.end() && ToLowerAscii(keycenter->second.text) != "sample") key("pitch_keycenter", root);
  const int loVel = int(ToNumber(opcodes.count("lovel") ? opcodes["lovel"].text : "", 0));
  const int hiVel = int(ToNumber(opcodes.count("hivel") ? opcodes["hivel"].text : "", 127));
  loKey = std::max(loKey, 0);
  hiKey = std::min(hiKey, 127);
  // An empty range (hikey=-1 is the usual way to write one) makes no region.
  if (hiKey < loKey || std::clamp(hiVel, 0, 127) < std::clamp(loVel, 0, 127)) return;
  if (++regionCount_ > kMaxRegions) {
    if (regionCount_ == kMaxRegions + 1) Log(sample->second, "too many regions; the rest are left out");
    return;
  }
  Waveform* wave = LoadWave(sample->second.text, sample->second);
  if (!wave) return;
  if (root > 127) root = 127;
  if (root < 0) root = -1;  // not given: the wave keeps its own root
  Region* region = placer_->AddRegion(wave->id, PackRange(loKey, hiKey),
                                          PackRange(std::clamp(loVel, 0, 127), std::clamp(hiVel, 0, 127)), root);
  if (!region) return;
  Convert(opcodes, *region, *wave, root >= 0);
}

void SfzReader::Convert(const Level& opcodes, Region& region, Waveform& wave, bool keyCenterGiven) {
  Articulation& art = region.articulation;
  auto has = [&](const char* name) { return opcodes.count(name) != 0; };
  auto text = [&](const char* name) -> std::string {
    auto found = opcodes.find(name);
    return found == opcodes.end() ? std::string() : ToLowerAscii(found->second.text);
  };
  auto num = [&](const std::string& name, double fallback) {
    auto found = opcodes.find(name);
    return found == opcodes.end() ? fallback : ToNumber(found->second.text, fallback);
  };
  std::set<std::string> used = {"sample", "key", "lokey", "hikey", "lovel", "hivel", "pitch_keycenter"};
  auto use = [&](const char* name) {
    used.insert(name);
    return has(name);
  };
  // Marks both names used (no short cut) and tells whether either is given.
  auto useEither = [&](const char* first, const char* second) {
    const bool a = use(first);
    const bool b = use(second);
    return a || b;
  };
  // A controller opcode moves the value by its depth times the controller's start value.
  auto ccSum = [&](const std::string& base) {
    double sum = 0.0;
    const std::string prefix = base + "_oncc";
    for (auto at = opcodes.lower_bound(prefix); at != opcodes.end() && at->first.compare(0, prefix.size(), prefix) == 0;
         ++at) {
      const int cc = std::atoi(at->first.c_str() + prefix.size());
      if (cc == 1 && (base == "volume" || base == "cutoff" || base == "resonance")) continue;  // mod wheel rows
      used.insert(at->first);
      auto start = ccDefaults_.find(cc);
      if (start != ccDefaults_.end()) sum += ToNumber(at->second.text, 0.0) * start->second;
    }
    return sum;
  };

  // Offsets and loop.
  if (use("offset")) region.startOffset = int32_t(std::clamp(num("offset", 0), 0.0, 1000000.0));
  if (use("end")) {
    const double end = num("end", 0);
    // `end` names the last frame played; the model keeps a non-positive distance from the wave's end.
    if (end >= 0 && wave.length > 0)
      region.endOffset = int32_t(std::clamp(end + 1.0 - double(wave.length), -1000000.0, 0.0));
  }
  const bool hasStart = use("loop_start"), hasEnd = use("loop_end");
  if (hasStart) {
    region.loop.start = float(std::max(0.0, num("loop_start", 0)));
    region.overrideFlags |= Region::kOverrideLoopStart;
  }
  if (hasEnd) {
    // Inclusive in the text, exclusive in the model.
    region.loop.end = float(std::max(0.0, num("loop_end", 0)) + 1.0);
    region.overrideFlags |= Region::kOverrideLoopEnd;
  }
  const std::string loopMode = text("loop_mode");
  used.insert("loop_mode");
  auto setLoopType = [&](uint8_t type) {
    region.loop.type = type;
    region.overrideFlags |= Region::kOverrideLoopType;
  };
  if (loopMode == "no_loop") {
    setLoopType(0);
  } else if (loopMode == "one_shot") {
    setLoopType(0);
    art.Set(106, 1.0f);  // V-ENV Release Mode "No Release"
  } else if (loopMode == "loop_continuous" || loopMode == "loop_sustain") {
    // A wave without loop points keeps none unless the region gives them.
    if (wave.loop.type != 0 || hasStart || hasEnd) {
      setLoopType(1);
      region.loop.release = loopMode == "loop_sustain" ? 1 : 0;
      region.overrideFlags |= Region::kOverrideLoopRelease;
    }
  } else if (!loopMode.empty()) {
    Log(opcodes.at("loop_mode"), "loop_mode=" + loopMode + " is not known");
  } else if ((hasStart || hasEnd) && wave.loop.type == 0) {
    setLoopType(1);
  }
  const std::string loopType = text("loop_type");
  used.insert("loop_type");
  // A reverse or alternating direction applies to whatever loop the region ends up with.
  const bool looping = (region.overrideFlags & Region::kOverrideLoopType) ? region.loop.type != 0 : wave.loop.type != 0;
  if ((loopType == "backward" || loopType == "alternate") && looping) setLoopType(loopType == "backward" ? 2 : 3);
  if (use("loop_tune")) {
    region.loop.tune = float(std::clamp(num("loop_tune", 0) * 0.01, -12.0, 12.0));
    region.overrideFlags |= Region::kOverrideLoopTune;
  }

  // Trigger parameters.
  const std::string trigger = text("trigger");
  used.insert("trigger");
  if (trigger == "release" || trigger == "release_key") region.SetParam(kParamTriggerType, 1.0f);
  else if (trigger == "first" || trigger == "legato") Log(opcodes.at("trigger"), "trigger=" + trigger + " is not carried");
  // Round-robin and random choices both become alternate group 1: the regions of one key take turns.
  const bool roundRobin = num("seq_length", 1) > 1 || num("lorand", 0) > 0 || num("hirand", 1) < 1;
  use("seq_length"), use("seq_position"), use("lorand"), use("hirand");
  if (roundRobin && trigger.empty()) region.SetParam(kParamTriggerType, 2.0f);
  if (useEither("locc64", "hicc64")) {
    if (num("locc64", 0) >= 64) region.SetParam(kParamPedalSwitch, 1.0f);
    else if (num("hicc64", 127) < 64) region.SetParam(kParamPedalSwitch, 2.0f);
  }
  if (use("delay")) region.SetParam(kParamTriggerDelay, float(num("delay", 0)));
  if (useEither("group", "off_by")) {
    const double group = num("group", 0), offBy = num("off_by", 0);
    if (group != 0 && offBy == group) {
      region.SetParam(202, float(group));
      region.SetParam(203, 0.0f);
    } else if (group != 0 && offBy != 0) {
      region.SetParam(202, float(group));
      region.SetParam(203, 1.0f);
      if (loggedKeys_.insert("off_by-other").second)
        Log(opcodes.at("off_by"), "off_by naming another group is kept only as the region's group");
    }
  }
  // Crossfades: the model keeps the width of each fade.
  auto fade = [&](const char* lo, const char* hi, ParamId id) {
    if (useEither(lo, hi)) region.SetParam(id, float(std::max(0.0, num(hi, 0) - num(lo, 0))));
  };
  fade("xfin_lokey", "xfin_hikey", 194);
  fade("xfout_lokey", "xfout_hikey", 195);
  fade("xfin_lovel", "xfin_hivel", 197);
  fade("xfout_lovel", "xfout_hivel", 198);
  if (use("xf_keycurve")) region.SetParam(196, text("xf_keycurve") == "gain" ? 1.0f : 0.0f);
  if (use("xf_velcurve")) region.SetParam(199, text("xf_velcurve") == "gain" ? 1.0f : 0.0f);

  // Pitch.
  // With a key center, players tune by `tune` alone and never hear the wave's smpl fraction: the
  // region takes the wave's fine tune back out.
  const double tuneCc = ccSum("tune");
  const double waveFine = keyCenterGiven ? wave.fineTune : 0.0;
  if (useEither("tune", "transpose") || tuneCc != 0.0 || waveFine != 0.0)
    art.Set(kParamMasterTune, float(num("transpose", 0) + (num("tune", 0) + tuneCc - waveFine) * 0.01));
  if (use("pitch_keytrack")) art.Set(1, float(num("pitch_keytrack", 100) * 0.01));
  if (useEither("bend_up", "bend_down")) {
    const double up = num("bend_up", 200), down = num("bend_down", -200);
    art.Set(2, float((std::fabs(up) >= std::fabs(down) ? up : -down) * 0.01));
  }
  if (use("pitch_random")) art.Set(13, float(std::fabs(num("pitch_random", 0)) * 0.01));

  // Amplifier: volume, amplitude in percent and the controllers' start values all land in dB.
  double volume = num("volume", 0) + ccSum("volume");
  bool volumeSet = use("volume");
  const double amplitude = (num("amplitude", 100) + ccSum("amplitude")) * 0.01;
  if (use("amplitude") || amplitude != 1.0) {
    volume += amplitude > 0.0 ? 20.0 * std::log10(amplitude) : -96.0;
    volumeSet = true;
  }
  if (ccSum("volume") != 0.0) volumeSet = true;
  use("amp_veltrack");  // without it a region tracks velocity at 100 %, not at the model's default
  art.Set(15, float(num("amp_veltrack", 100) * sfz_units::kVelocityTrackDbPerPercent));
  if (use("amp_keytrack")) art.Set(16, float(num("amp_keytrack", 0) * 0.12));
  if (use("volume_oncc1")) art.Set(17, float(num("volume_oncc1", 0)));

  // Filter; peak and shelf types fill the first free EQ band instead.
  const std::string filterType = text("fil_type");
  used.insert("fil_type");
  int eqBand = 0;
  auto nextFreeBand = [&]() {
    while (eqBand < 3 && art.IsSet(ParamId(40 + eqBand * 4))) ++eqBand;
    return eqBand < 3 ? eqBand : -1;
  };
  for (int band = 1; band <= 3; ++band) {
    const std::string p = "eq" + std::to_string(band) + "_";
    const ParamId first = ParamId(39 + (band - 1) * 4);
    if (use((p + "type").c_str()) && EqModeOf(text((p + "type").c_str())) >= 0)
      art.Set(first, float(EqModeOf(text((p + "type").c_str()))));
    if (use((p + "freq").c_str())) art.Set(first + 1, float(num(p + "freq", 0)));
    if (use((p + "gain").c_str())) art.Set(first + 2, float(num(p + "gain", 0)));
    if (use((p + "bw").c_str())) art.Set(first + 3, QFromBandwidth(num(p + "bw", 1)));
  }
  const double cutoffCc = ccSum("cutoff");
  const int eqMode = EqModeOf(filterType);
  if (eqMode >= 0) {
    const int band = nextFreeBand();
    if (band >= 0 && use("cutoff")) {
      art.Set(ParamId(39 + band * 4), float(eqMode));
      art.Set(ParamId(40 + band * 4), float(num("cutoff", 1000)));
      art.Set(ParamId(41 + band * 4), float(num("fil_gain", 0)));
      used.insert("fil_gain");
    } else {
      Log(opcodes.at("fil_type"), "fil_type=" + filterType + " without a cutoff or a free EQ band is dropped");
    }
  } else if (use("cutoff")) {
    int type = 2;  // a cutoff without a type is the two-pole low-pass
    if (!filterType.empty()) {
      auto found = std::find_if(std::begin(kFilterNames), std::end(kFilterNames),
                                [&](const FilterName& f) { return filterType == f.name; });
      if (found != std::end(kFilterNames)) type = found->type;
      else Log(opcodes.at("fil_type"), "fil_type=" + filterType + " is taken as lpf_2p");
    }
    double cutoff = num("cutoff", 8000) * std::exp(cutoffCc * 0.01 * 0.057762265);  // cents to a ratio
    const double keyTrack = num("fil_keytrack", 0) * 0.01;
    // The model tracks around key 60; a track around another key shifts the cutoff to match.
    if (use("fil_keycenter") && keyTrack != 0.0) {
      int center = 60;
      ParseSfzKey(text("fil_keycenter"), center);
      cutoff *= std::exp((60 - center) * keyTrack * 0.057762265);
    }
    // `cutoff` is the frequency at velocity 0; the model's stands higher by part of the velocity track.
    const double velocityTrack = num("fil_veltrack", 0) * 0.01;
    cutoff = sfz_units::ModelCutoff(cutoff, velocityTrack);
    art.Set(kParamFilterType, float(type));
    art.Set(24, float(cutoff));
    if (use("resonance")) {
      const double resonance = num("resonance", 0);
      art.Set(35, float(resonance));
      volume -= resonance * 0.5;  // the peak is compensated by half its height
      volumeSet = true;
    }
    if (use("fil_veltrack")) art.Set(25, float(velocityTrack));
    if (use("fil_keytrack")) art.Set(26, float(keyTrack));
    if (use("cutoff_oncc1")) art.Set(27, float(num("cutoff_oncc1", 0) * 0.01));
    if (use("cutoff_chanaft")) art.Set(28, float(num("cutoff_chanaft", 0) * 0.01));
    if (use("resonance_oncc1")) art.Set(37, float(num("resonance_oncc1", 0)));
  }
  if (volumeSet) art.Set(kParamMasterVolume, float(volume));

  // Pan and sends.
  const double panCc = ccSum("pan");
  if (use("pan") || panCc != 0.0) art.Set(51, float((num("pan", 0) + panCc) * 0.01));
  if (use("pan_keytrack")) art.Set(53, float(num("pan_keytrack", 0) * 0.12));
  if (use("pan_random")) art.Set(56, float(std::fabs(num("pan_random", 0)) * 0.01));
  static const char* kSends[4] = {"effect1", "effect2", "effect3", "effect4"};
  for (int send = 0; send < 4; ++send)
    if (use(kSends[send])) art.Set(ParamId(57 + send * 2), float(num(kSends[send], 0) * 0.01));

  // Envelopes: delay, attack, hold, decay, release onto attack 1, attack 2, decay 1, decay 2, release 1.
  struct EnvelopeKind {
    const char* prefix;
    int index;
    ParamId depth;
    ParamId velocityToDepth;
  };
  static const EnvelopeKind kEnvelopes[] = {{"ampeg_", 0, 0, 0}, {"pitcheg_", 1, 11, 12}, {"fileg_", 2, 33, 34}};
  for (const EnvelopeKind& kind : kEnvelopes) {
    const std::string p = kind.prefix;
    static const char* kStages[] = {"delay", "start", "attack", "hold", "decay", "sustain", "release"};
    bool any = false;
    for (const char* stage : kStages) any |= use((p + stage).c_str());
    static const char* kVelocityStages[] = {"vel2delay", "vel2attack", "vel2hold", "vel2decay", "vel2release"};
    for (const char* stage : kVelocityStages) any |= use((p + stage).c_str());
    if (kind.depth) {
      if (use((p + "depth").c_str())) art.Set(kind.depth, float(num(p + "depth", 0) * 0.01));
      if (use((p + "vel2depth").c_str())) art.Set(kind.velocityToDepth, float(num(p + "vel2depth", 0) * 0.01));
    }
    if (!any) continue;
    EnvelopeRecord record = art.GetEnvelope(kind.index);
    const float start = float(num(p + "start", 0) * 0.01);
    record.times[0] = float(num(p + "delay", 0));
    record.times[1] = float(num(p + "attack", 0));
    record.times[2] = float(num(p + "hold", 0));
    record.times[3] = float(num(p + "decay", 0));
    record.times[4] = float(num(p + "release", 0));
    // The amplifier's levels are percent of linear amplitude, the V-ENV's normalised decibels.
    const bool amplifier = kind.index == 0;
    auto level = [&](double percent) {
      return float(amplifier ? sfz_units::LevelFromPercent(percent) : percent * 0.01);
    };
    record.levels[0] = level(start * 100.0);
    record.levels[1] = record.levels[0];
    record.levels[2] = 1.0f;
    record.levels[3] = 1.0f;
    record.levels[4] = level(num(p + "sustain", 100));
    if (num(p + "sustain", 100) > 100.0 && loggedKeys_.insert(p + "sustain>100").second)
      Log(opcodes.at(p + "sustain"), p + "sustain above 100 % is clamped to 100 %");
    // Velocity to time: the quotient of the time at full velocity and the plain time.
    for (int stage = 0; stage < 5; ++stage) {
      const std::string name = p + kVelocityStages[stage];
      const float base = stage == 4 ? record.times[4] : record.times[stage];
      if (has(name.c_str()) && base > 0.0f)
        record.velocityTo[stage] = std::clamp(float((base + num(name, 0)) / base), 0.015625f, 64.0f);
    }
    if (kind.index == 0) record.shutdownRate = 0.015f;
    if (kind.index == 0 && loopMode == "one_shot") record.releaseMode = 1.0f;
    art.SetEnvelope(kind.index, record);
  }

  // LFOs: amplfo onto V-LFO, pitchlfo onto P-LFO, fillfo onto F-LFO.
  struct LfoKind {
    const char* prefix;
    int index;
    ParamId depth;
    double scale;
  };
  static const LfoKind kLfos[] = {{"pitchlfo_", 0, 3, 0.01}, {"amplfo_", 1, 19, 1.0}, {"fillfo_", 2, 29, 0.01}};
  for (const LfoKind& kind : kLfos) {
    const std::string p = kind.prefix;
    bool any = false;
    for (const char* field : {"freq", "delay", "fade"}) any |= use((p + field).c_str());
    if (any) {
      LfoRecord lfo = art.GetLfo(kind.index);
      lfo.frequency = float(num(p + "freq", lfo.frequency));
      lfo.delay = float(num(p + "delay", 0));
      lfo.ramp = float(num(p + "fade", 0));
      art.SetLfo(kind.index, lfo);
    }
    if (use((p + "depth").c_str())) art.Set(kind.depth, float(num(p + "depth", 0) * kind.scale));
    if (useEither((p + "depthcc1").c_str(), (p + "depth_oncc1").c_str()))
      art.Set(kind.depth + 1, float(num(has((p + "depthcc1").c_str()) ? p + "depthcc1" : p + "depth_oncc1", 0) * kind.scale));
    if (use((p + "depthchanaft").c_str())) art.Set(kind.depth + 2, float(num(p + "depthchanaft", 0) * kind.scale));
  }

  // Everything else goes to the log, once per opcode name.
  for (const auto& [name, value] : opcodes) {
    if (used.count(name)) continue;
    if (loggedKeys_.insert(name).second) Log(value, name + " is not carried into the instrument");
  }
}

bool SfzReader::Run(const std::string& rawText) {
  std::string text;
  if (!PreprocessSfz(rawText, folder_.string(), log_, text)) return false;
  const std::vector<SfzToken> tokens = TokenizeSfz(text);
  instrument_ = new Instrument(collection_);
  instrument_->SetName(fs::path(path_).stem().string());
  placer_ = std::make_unique<LayerPlacer>(*instrument_);
  Section section = Section::None;
  bool sawComment = false;
  auto close = [&]() {
    if (section == Section::Region) FinishRegion();
    if (section == Section::Effect) FinishEffect();
  };
  for (const SfzToken& token : tokens) {
    if (token.kind == SfzTokenKind::Header) {
      close();
      const std::string& name = token.key;
      if (name == "region") {
        section = Section::Region;
        region_ = group_;
      } else if (name == "group") {
        section = Section::Group;
        group_ = master_;
      } else if (name == "master") {
        section = Section::Master;
        master_ = global_;
        group_ = master_;
      } else if (name == "global") {
        section = Section::Global;
        global_.clear();
        master_.clear();
        group_.clear();
      } else if (name == "control") {
        // A new <control> resets default_path.
        section = Section::Control;
        defaultPath_.clear();
      } else if (name == "effect") {
        section = Section::Effect;
      } else if (name == "curve") {
        section = Section::Curve;
      } else if (name == "midi") {
        section = Section::Midi;
      } else if (name == "sample") {
        section = Section::Sample;
        Log(token.line, token.column, "<sample> with embedded data is not read");
      } else {
        section = Section::None;
        Log(token.line, token.column, "<" + name + "> is not a known header");
      }
      continue;
    }
    if (token.kind == SfzTokenKind::Comment && !sawComment) {
      // The first comment line may carry the instrument's name behind a divider, as the writer puts it.
      sawComment = true;
      std::string name = token.key;
      name.erase(0, name.find_first_not_of("-/ \t"));
      if (!name.empty() && ToLowerAscii(name).compare(0, 3, "sfz") != 0 && name != "Version 2")
        instrument_->SetName(name);
    }
    if (token.kind != SfzTokenKind::Opcode) continue;
    const std::string key = CanonicalKey(token.key);
    const Value value{token.value, token.line, token.column};
    switch (section) {
      case Section::Control:
        if (key == "default_path") {
          defaultPath_ = token.value;
        } else if (key.compare(0, 6, "set_cc") == 0 || key.compare(0, 8, "set_hdcc") == 0) {
          const bool high = key[4] == 'h';
          const int cc = std::atoi(key.c_str() + (high ? 8 : 6));
          const double raw = ToNumber(token.value, 0);
          ccDefaults_[cc] = float(std::clamp(high ? raw : raw / 127.0, 0.0, 1.0));
        } else if (loggedKeys_.insert(key).second) {
          Log(value, key + " is not carried into the instrument");
        }
        break;
      case Section::Global: global_[key] = value; break;
      case Section::Master: master_[key] = value; group_[key] = value; break;
      case Section::Group: group_[key] = value; break;
      case Section::Region: region_[key] = value; break;
      case Section::Effect: effect_[key] = value; break;
      case Section::None:
        if (loggedKeys_.insert("outside:" + key).second) Log(value, key + " stands outside any header");
        break;
      default: break;
    }
  }
  close();
  if (instrument_->children.empty()) {
    delete instrument_;
    instrument_ = nullptr;
    if (collection_->CountOf(ItemType::Waveform) == 0) {
      SetLastError("The file holds no playable region");
      return false;
    }
    return true;
  }
  // What the regions of a layer share goes to the layer, what the layers share to the instrument.
  MoveArticulationUp(*instrument_, true, true, true, false);
  return true;
}

}  // namespace

bool ReadSfzFile(Collection* collection, const std::string& path, std::vector<SfzLogEntry>* log) {
  std::string text;
  if (!ReadWholeFile(path, text)) {
    SetLastError("Out of memory");
    return false;
  }
  if (text.size() >= 2 && ((uint8_t(text[0]) == 0xFF && uint8_t(text[1]) == 0xFE) ||
                           (uint8_t(text[0]) == 0xFE && uint8_t(text[1]) == 0xFF))) {
    SetLastError("SFZ text in UTF-16 is not supported");
    return false;
  }
  SfzReader reader(collection, path, log);
  return reader.Run(text);
}

bool ReadSfz(Collection* collection, FileObject* file, uint32_t) {
  return ReadSfzFile(collection, file->Path(), nullptr);
}

}  // namespace orlin
