// Korg keymaps (.kmp) and scripts (.ksc).
//
// A keymap: "MSP1" (16-byte name, zone count, attributes), "MNO1" (its number), "NAME" (a long name),
// "RLP1" (18 bytes a zone). A zone: the original key (bit 7: no transpose), its top key, tune in
// cents, level (-99..99), pan (64 centre), a reserved byte and the 12-byte name of its sample file,
// "SKIPPEDSAMPL" for a hole and "INTERNAL" plus a number for a ROM sample. A zone starts one key above
// the previous zone's top key; keys above the last top key stay unmapped.
//
// Level to dB: -99 or less is -96 dB, otherwise 20 log10 of (100 + level) / 100, so that 0 is unity and
// +99 about +6 dB, rounded to a tenth. Pan 0..127 with 64 centre maps onto -100%..+100%.
//
// A script: "#KORG Script Version 1.0", then one file a line relative to the script's folder; each
// keymap becomes an instrument, each sample an instrument of one region, programs counted from 2000.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "core/articulation.h"
#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/user_interface.h"
#include "formats/instrument/korg/korg.h"
#include "formats/instrument/korg/korg_fields.h"

namespace fs = std::filesystem;

namespace orlin {

namespace {

constexpr size_t kZoneBytes = 18;
constexpr size_t kMaxZones = 128;
constexpr ParamId kParamKeyToPitch = 1;
constexpr ParamId kParamPanPosition = 51;

using korg::Be32;
using korg::Fail;
using korg::Field;

float LevelToDb(int8_t level) {
  if (level <= -99) return -96.0f;
  return float(std::round(std::log10((100.0 + level) / 100.0) * 200.0) * 0.1);
}

// Program numbers past 127 go on in the banks above.
void SetScriptPatch(Instrument& instrument, int number) { instrument.SetPatch(0, (number >> 7) & 0x7F, number & 0x7F, false); }

// Loads each named sample once per keymap or script into `collection`; null when it cannot be had.
class SampleLoader {
 public:
  SampleLoader(Collection* collection, std::string referencePath)
      : collection_(collection), referencePath_(std::move(referencePath)) {}

  Waveform* Load(const std::string& name, bool quiet = false) {
    // Korg's own layout keeps a keymap's samples in a folder named like the keymap.
    const fs::path reference(referencePath_);
    std::string path = (reference.parent_path() / reference.stem() / name).string();
    std::error_code exists;
    if (!fs::is_regular_file(path, exists) && !LocateFile(referencePath_, name, path)) {
      if (!quiet) Ui().Warn("Error!", "Couldn't find referenced file:\n\n" + name);
      return nullptr;
    }
    std::error_code error;
    const std::string key = fs::weakly_canonical(path, error).string();
    if (auto known = loaded_.find(key); known != loaded_.end()) return collection_->Find<Waveform>(known->second);
    Collection single;
    single.SetText(kTextSourceFile, path);
    FileObject file;
    if (!file.Open(path, FileMode::Read) || !ReadKorgSample(&single, &file, 0)) {
      // A skipped or ROM sample is a hole, not an error.
      if (LastError() != "Skipped" && LastError() != "Skipping ROM waveform reference")
        Ui().Warn("Error!", "Couldn't open KSF file:\n\n" + name + "\n\n" + LastError());
      return nullptr;
    }
    Waveform* source = nullptr;
    for (Waveform* wave : single.All<Waveform>()) {
      source = wave;
      break;
    }
    if (!source) return nullptr;
    auto* wave = new Waveform(collection_, *source, false, source->GetName());
    wave->SetText(kTextSourceFile, path);
    loaded_[key] = wave->id;
    return wave;
  }

 private:
  Collection* collection_;
  std::string referencePath_;
  std::map<std::string, uint32_t> loaded_;
};

// One keymap file into an instrument of `collection`.
bool ReadKeymapInto(Collection* collection, FileObject& file, SampleLoader& samples, int program) {
  const int64_t size = file.Size();
  const uint64_t fileBytes = size > 0 ? uint64_t(size) : 0;
  uint8_t head[8];
  if (fileBytes < 8 || !file.ReadAt(0, head, 8) || std::memcmp(head, "MSP1", 4) != 0) return Fail("Not a Korg keymap file");
  std::string name, longName;
  std::vector<uint8_t> zones;
  uint64_t at = 0;
  while (at + 8 <= fileBytes) {
    uint8_t chunk[8];
    if (!file.ReadAt(at, chunk, 8)) break;
    const uint64_t bytes = std::min<uint64_t>(Be32(chunk + 4), fileBytes - at - 8);
    const uint64_t body = at + 8;
    if (std::memcmp(chunk, "MSP1", 4) == 0 && bytes >= 16) {
      uint8_t text[16];
      if (file.ReadAt(body, text, 16)) name = Field(text, 16);
    } else if (std::memcmp(chunk, "NAME", 4) == 0 && bytes > 0 && bytes <= 64) {
      uint8_t text[64];
      if (file.ReadAt(body, text, size_t(bytes))) longName = Field(text, size_t(bytes));
    } else if (std::memcmp(chunk, "RLP1", 4) == 0 && zones.empty()) {
      zones.resize(size_t(std::min<uint64_t>(bytes / kZoneBytes, kMaxZones) * kZoneBytes));
      if (!file.ReadAt(body, zones.data(), zones.size())) zones.clear();
    }
    at = body + bytes;
  }
  if (zones.empty()) return Fail("No RLP1 chunk found in the KMP file");
  auto* instrument = new Instrument(collection);
  instrument->SetNameNarrow(longName.empty() ? name : longName);
  SetScriptPatch(*instrument, program);
  int low = 0;
  for (size_t z = 0; z + kZoneBytes <= zones.size(); z += kZoneBytes) {
    const uint8_t* zone = zones.data() + z;
    const int originalKey = zone[0] & 0x7F;
    const int top = std::min<int>(zone[1] & 0x7F, 127);
    const std::string sampleName = Field(zone + 6, 12);
    const int zoneLow = low;
    low = top + 1;
    if (top < zoneLow || sampleName.rfind("SKIPPEDSAMPL", 0) == 0 || sampleName.rfind("INTERNAL", 0) == 0) continue;
    Waveform* wave = samples.Load(sampleName);
    if (!wave) continue;
    Region* region = instrument->AddRegion(wave->id, PackRange(zoneLow, top), kFullRange, originalKey);
    const int8_t tune = int8_t(zone[2]);
    const int8_t level = int8_t(zone[3]);
    if (tune != wave->fineTune) region->SetParam(kParamMasterTune, float(tune - wave->fineTune) * 0.01f);
    if (level != 0) region->SetParam(kParamMasterVolume, LevelToDb(level));
    if (zone[4] != 64) region->SetParam(kParamPanPosition, std::clamp((float(zone[4]) - 64.0f) / 63.0f, -1.0f, 1.0f));
    // No transpose: every key plays the sample at its own pitch.
    if (zone[0] & 0x80) region->SetParam(kParamKeyToPitch, 0.0f);
  }
  return true;
}

}  // namespace

int32_t DetectKorgKeymap(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 8 && std::memcmp(head, "MSP1", 4) == 0 ? 6 : 0;
}

bool ReadKorgKeymap(Collection* collection, FileObject* file, uint32_t) {
  SampleLoader samples(collection, file->Path());
  return ReadKeymapInto(collection, *file, samples, 0);
}

int32_t DetectKorgScript(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  constexpr char kFirstLine[] = "#KORG Script";
  return headBytes >= sizeof(kFirstLine) - 1 && std::memcmp(head, kFirstLine, sizeof(kFirstLine) - 1) == 0 ? 6 : 0;
}

bool ReadKorgScript(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  if (size <= 0 || size > (1 << 20)) return Fail("Not a Korg script file");
  std::string text(size_t(size), '\0');
  if (!file->ReadAt(0, text.data(), text.size()) || !DetectKorgScript(reinterpret_cast<const uint8_t*>(text.data()), 0,
                                                                      uint32_t(text.size()), text.size()))
    return Fail("Not a Korg script file");
  SampleLoader samples(collection, file->Path());
  int program = 2000;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(at, end - at);
    at = end + 1;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    std::string lower = line;
    for (char& c : lower) c = char(std::tolower(static_cast<unsigned char>(c)));
    std::replace(line.begin(), line.end(), '\\', '/');
    if (lower.size() > 4 && lower.compare(lower.size() - 4, 4, ".kmp") == 0) {
      std::string path;
      FileObject keymap;
      if (!LocateFile(file->Path(), line, path) || !keymap.Open(path, FileMode::Read)) {
        Ui().Warn("Error!", "Couldn't open KMP file:\n\n" + line);
        continue;
      }
      SampleLoader beside(collection, path);
      if (!ReadKeymapInto(collection, keymap, beside, program++))
        Ui().Warn("Error!", "Couldn't open KMP file:\n\n" + line + "\n\n" + LastError());
    } else if (lower.size() > 4 && lower.compare(lower.size() - 4, 4, ".ksf") == 0) {
      Waveform* wave = samples.Load(line, true);
      if (!wave) {
        Ui().Warn("Error!", "Couldn't find referenced KSF file:\n\n" + line);
        continue;
      }
      auto* instrument = new Instrument(collection);
      instrument->SetNameNarrow(wave->GetName());
      SetScriptPatch(*instrument, program++);
      instrument->AddRegion(wave->id, kFullRange, kFullRange, wave->rootKey);
    }
  }
  return true;
}

}  // namespace orlin
