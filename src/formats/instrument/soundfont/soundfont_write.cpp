// Writing SoundFont banks: each Instrument becomes one preset over one instrument of the same name,
// each Region one instrument zone (two for a stereo wave, written as a linked left/right pair), with a
// global zone holding what all zones share. Only generators that differ from the default or from the
// global zone are written. Version-1 banks keep names in snam and write 16-byte sample records.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <future>
#include <map>
#include <tuple>
#include <unistd.h>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"
#include "core/save_choice.h"
#include "core/text.h"
#include "core/user_interface.h"
#include "formats/audio/addons/flac_addon.h"
#include "formats/audio/addons/vorbis_addon.h"
#include "formats/common/riff.h"
#include "formats/common/save_view.h"
#include "formats/instrument/soundfont/soundfont.h"

namespace orlin {

namespace {

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

enum class BankKind { Sbk, Sf2, Sf3 };

constexpr int kPadSamples = 46;  // zero samples the format requires behind every sample
constexpr size_t kMaxRecords = 65535;
constexpr const char kSf2TooMuch[] =
    "Save failed - Too much data!\n\nThe SF2 file format is by its construction limited to storing a maximum of "
    "65536 parameter values... Remove some instruments then try saving again.\n";
constexpr const char kSbkTooMuch[] =
    "Save failed - Too many 'parameter' values!\nThe SBK format can handle a maximum of 65536 parameter values...\n";

void PutName(ByteWriter& out, const std::string& name) {
  std::string narrow = Utf8ToNarrow(name).substr(0, 20);
  narrow.resize(20, '\0');
  out.Append(narrow);
}

struct Tables {
  ByteWriter phdr, pbag, pmod, pgen, inst, ibag, imod, igen, shdr, snam;
  size_t presetBags = 0, presetMods = 0, presetGens = 0, instBags = 0, instMods = 0, instGens = 0;
};

struct WrittenSample {
  uint32_t first = 0;  // shdr index of the left (or only) channel
  uint8_t channels = 1;
};

void AddGenerator(Tables& t, bool preset, uint16_t op, int16_t amount) {
  ByteWriter& out = preset ? t.pgen : t.igen;
  out.U16(op);
  out.U16(uint16_t(amount));
  ++(preset ? t.presetGens : t.instGens);
}
void AddModulator(Tables& t, bool preset, int slot, int16_t amount) {
  const SfModulator m = SlotModulator(slot, amount);
  ByteWriter& out = preset ? t.pmod : t.imod;
  out.U16(m.source);
  out.U16(m.destination);
  out.U16(uint16_t(m.amount));
  out.U16(0);
  out.U16(0);
  ++(preset ? t.presetMods : t.instMods);
}
void AddBag(Tables& t, bool preset) {
  ByteWriter& out = preset ? t.pbag : t.ibag;
  out.U16(uint16_t(preset ? t.presetGens : t.instGens));
  out.U16(uint16_t(preset ? t.presetMods : t.instMods));
  ++(preset ? t.presetBags : t.instBags);
}

// Generators the zone arrays carry but which are written from region fields instead.
bool IsStructural(int op) {
  return op == 41 || op == 43 || op == 44 || op == 53 || op == 54 || op == 57 || op == 58 || op == 0 || op == 1 ||
         op == 2 || op == 3 || op == 4 || op == 12 || op == 45 || op == 50 || op == 46 || op == 47;
}

int16_t Coarse(int32_t value) { return int16_t(value / 32768); }
int16_t Fine(int32_t value) { return int16_t(value % 32768); }

constexpr uint16_t kTypeCompressedVorbis = 0x10;

// Encodes one channel through a temporary file: FLAC when the setting is the FLAC entry (1.0),
// else Ogg Vorbis at the setting's quality.
bool EncodeChannel(const std::vector<float>& samples, uint32_t rate, float setting, std::vector<uint8_t>& out) {
  char pattern[] = "/tmp/orlin-sf3-XXXXXX";
  const int fd = mkstemp(pattern);
  if (fd < 0) return Fail("Could not create file");
  close(fd);
  const std::string path = pattern;
  addons::EncodeInput input;
  input.samples = samples.data();
  input.frames = uint32_t(samples.size());
  input.channels = 1;
  input.rate = rate;
  bool ok = false;
  {
    FileObject file;
    if (file.Open(path, FileMode::Create)) {
      const float vorbisQuality = setting > 1.0f ? (setting - 1.0f) / 10.0f : 0.5f;
      ok = setting == 1.0f ? addons::EncodeFlac(file, input, 16, 5) : addons::EncodeVorbis(file, input, vorbisQuality);
    }
  }
  std::string bytes;
  if (ok) ok = ReadWholeFile(path, bytes);
  std::remove(path.c_str());
  out.assign(bytes.begin(), bytes.end());
  return ok;
}

// Generators a zone takes from its region rather than from its articulation: key range first, then
// offsets, loop shifts, sample mode, exclusive class and root key, and the sample last, as the format
// orders them. None of them may stand at preset level.
using GeneratorList = std::vector<std::pair<uint16_t, int16_t>>;

GeneratorList RegionGenerators(const Region& region, uint32_t sampleIndex) {
  GeneratorList out;
  auto add = [&out](uint16_t op, int32_t value) { out.emplace_back(op, int16_t(value)); };
  if (region.range.loKey != 0 || region.range.hiKey != 127) add(43, region.range.loKey | region.range.hiKey << 8);
  if (region.startOffset) {
    add(0, Fine(region.startOffset));
    if (Coarse(region.startOffset)) add(4, Coarse(region.startOffset));
  }
  if (region.endOffset) {
    add(1, Fine(region.endOffset));
    if (Coarse(region.endOffset)) add(12, Coarse(region.endOffset));
  }
  const Waveform* wave = region.GetWave();
  if (region.overrideFlags & (Region::kOverrideLoopStart | Region::kOverrideLoopEnd)) {
    const LoopInfo effective = region.EffectiveLoop();
    const int32_t startShift = int32_t(std::lround(effective.start - wave->loop.start));
    const int32_t endShift = int32_t(std::lround(effective.end - (wave->loop.end == kLoopEndUnset ? 0 : wave->loop.end)));
    if (startShift) add(2, Fine(startShift));
    if (Coarse(startShift)) add(45, Coarse(startShift));
    if (endShift) add(3, Fine(endShift));
    if (Coarse(endShift)) add(50, Coarse(endShift));
  }
  const LoopInfo loop = region.EffectiveLoop();
  if (loop.type != 0) add(54, loop.release ? 3 : 1);
  const int group = int(region.range.values[202 - kFirstTriggerParam]);
  if (group > 0) add(57, std::min(group, 32767));
  if ((region.overrideFlags & Region::kOverrideRoot) && region.rootKey != wave->rootKey) add(58, region.rootKey);
  add(53, int32_t(sampleIndex));
  return out;
}

struct ZoneOut {
  ZoneGenerators g;
  ZoneModulators m;
  GeneratorList fixed;  // RegionGenerators
  uint8_t loVelocity = 0, hiVelocity = 127;
};

// A preset zone over the one instrument: its velocity range and the offsets it adds to every zone.
struct PresetZone {
  uint8_t loVelocity = 0, hiVelocity = 127;
  ZoneGenerators g{};
  ZoneModulators m{};
};

std::vector<ZoneOut> CollectZones(SaveView& view, const std::vector<WrittenSample>& written, const Instrument& instrument,
                                  BankKind kind) {
  std::vector<ZoneOut> zones;
  for (uint32_t layerId : instrument.children) {
    const Layer* layer = instrument.collection->Find<Layer>(layerId);
    if (!layer) continue;
    for (uint32_t regionId : layer->children) {
      const Region* region = instrument.collection->Find<Region>(regionId);
      const Waveform* wave = region ? region->GetWave() : nullptr;
      const int w = wave ? view.WaveIndex(wave) : -1;
      if (w < 0) continue;
      const WrittenSample& sample = written[size_t(w)];
      ZoneOut zone{};
      ArticulationToZone(region->articulation, zone.g, zone.m);
      if (kind == BankKind::Sbk) zone.m = DefaultZoneModulators();
      zone.loVelocity = region->range.loVelocity;
      zone.hiVelocity = region->range.hiVelocity;
      // A stereo wave is a linked left/right pair: two zones, panned hard.
      for (uint32_t c = 0; c < sample.channels; ++c) {
        if (sample.channels == 2) zone.g[17] = int16_t(c == 0 ? -500 : 500);
        zone.fixed = RegionGenerators(*region, sample.first + c);
        zones.push_back(zone);
      }
    }
  }
  return zones;
}

template <typename ValueOf>
bool CommonestOffset(const std::vector<std::pair<const ZoneOut*, const ZoneOut*>>& pairs, int16_t& offset,
                     ValueOf valueOf) {
  std::map<int32_t, size_t> counts;
  for (const auto& [zone, partner] : pairs) ++counts[valueOf(*zone) - valueOf(*partner)];
  const auto best = std::max_element(counts.begin(), counts.end(),
                                     [](const auto& a, const auto& b) { return a.second < b.second; });
  offset = int16_t(best->first);
  return best->first >= -32768 && best->first <= 32767;
}

// True when `partner` plus the preset offsets reads back as `zone` does. Exact offsets always do; else
// the two are compared after conversion, since values read in Hz or seconds are rounded there and the
// generator numbers written back from them may differ by a unit that the rounding hides again.
bool ReadsTheSame(const ZoneOut& zone, const ZoneOut& partner, const PresetZone& preset) {
  bool exact = true;
  ZoneGenerators g;
  ZoneModulators m;
  for (int op = 0; op < kSfGeneratorCount; ++op) {
    const int32_t sum = partner.g[size_t(op)] + (IsStructural(op) ? 0 : preset.g[size_t(op)]);
    g[size_t(op)] = int16_t(std::clamp(sum, -32768, 32767));
    exact = exact && g[size_t(op)] == zone.g[size_t(op)];
  }
  for (int slot = 0; slot < kSfModulatorSlots; ++slot) {
    m[size_t(slot)] = int16_t(std::clamp(partner.m[size_t(slot)] + preset.m[size_t(slot)], -32768, 32767));
    exact = exact && m[size_t(slot)] == zone.m[size_t(slot)];
  }
  if (exact) return true;
  Articulation wanted, split;
  ZoneToArticulation(zone.g, zone.m, wanted);
  ZoneToArticulation(g, m, split);
  return std::equal(wanted.Values(), wanted.Values() + kArticulationParamCount, split.Values()) &&
         std::equal(wanted.Mask(), wanted.Mask() + 3, split.Mask());
}

// Finds a velocity split that can stand at preset level: the zones fall into velocity ranges that each
// hold the same zones (same sample, keys and other region generators), and within one range every
// generator and modulator differs from the first range's by one offset. Then the instrument keeps
// the first range's zones over the full velocity range, and each range becomes a preset zone.
bool SplitByVelocity(const std::vector<ZoneOut>& zones, std::vector<PresetZone>& presetZones, std::vector<ZoneOut>& base) {
  std::vector<std::pair<uint16_t, std::vector<size_t>>> ranges;  // in order of first appearance
  for (size_t i = 0; i < zones.size(); ++i) {
    const uint16_t key = uint16_t(zones[i].loVelocity | zones[i].hiVelocity << 8);
    auto it = std::find_if(ranges.begin(), ranges.end(), [key](const auto& range) { return range.first == key; });
    if (it == ranges.end()) it = ranges.insert(ranges.end(), {key, {}});
    it->second.push_back(i);
  }
  if (ranges.size() < 2) return false;
  // Zones of one range by shape. Within a shape (one sample over the same keys, say two detuned
  // copies) they are ordered by their generators and modulators: one offset added to all of them
  // keeps that order, so the n-th of a shape pairs with the n-th of the first range's.
  auto byShape = [&zones](const std::vector<size_t>& members) {
    std::map<GeneratorList, std::vector<size_t>> shapes;
    for (size_t i : members) shapes[zones[i].fixed].push_back(i);
    for (auto& [shape, list] : shapes)
      std::sort(list.begin(), list.end(), [&zones](size_t a, size_t b) {
        return std::tie(zones[a].g, zones[a].m) < std::tie(zones[b].g, zones[b].m);
      });
    return shapes;
  };
  const std::vector<size_t>& first = ranges.front().second;
  const std::map<GeneratorList, std::vector<size_t>> firstShapes = byShape(first);
  std::vector<PresetZone> found;
  for (const auto& [key, members] : ranges) {
    if (members.size() != first.size()) return false;
    PresetZone preset;
    preset.loVelocity = uint8_t(key & 0xFF);
    preset.hiVelocity = uint8_t(key >> 8);
    std::vector<std::pair<const ZoneOut*, const ZoneOut*>> pairs;
    for (const auto& [shape, list] : byShape(members)) {
      const auto twins = firstShapes.find(shape);
      if (twins == firstShapes.end() || twins->second.size() != list.size()) return false;
      for (size_t n = 0; n < list.size(); ++n) pairs.emplace_back(&zones[list[n]], &zones[twins->second[n]]);
    }
    // Each offset is the difference most pairs show; every pair must then read back as it is.
    for (int op = 0; op < kSfGeneratorCount; ++op)
      if (!IsStructural(op) && !CommonestOffset(pairs, preset.g[size_t(op)], [op](const ZoneOut& z) { return z.g[size_t(op)]; }))
        return false;
    for (int slot = 0; slot < kSfModulatorSlots; ++slot)
      if (!CommonestOffset(pairs, preset.m[size_t(slot)], [slot](const ZoneOut& z) { return z.m[size_t(slot)]; }))
        return false;
    for (const auto& [zone, partner] : pairs)
      if (!ReadsTheSame(*zone, *partner, preset)) return false;
    found.push_back(preset);
  }
  presetZones = std::move(found);
  base.clear();
  for (size_t i : first) {
    base.push_back(zones[i]);
    base.back().loVelocity = 0;
    base.back().hiVelocity = 127;
  }
  return true;
}

// Writes each Instrument as one preset over one instrument of the same name. With `splitVelocities`
// an instrument whose zones form a velocity split keeps the split at preset level. False when a table
// passes the format's 65535 records.
bool WritePresets(SaveView& view, const std::vector<std::vector<ZoneOut>>& zonesOf, bool splitVelocities, Tables& t) {
  const ZoneGenerators defaultsG = DefaultZoneGenerators();
  const ZoneModulators defaultsM = DefaultZoneModulators();
  uint16_t instIndex = 0;
  for (size_t i = 0; i < view.Instruments().size(); ++i) {
    const Instrument* instrument = view.Instruments()[i];
    std::vector<ZoneOut> zones = zonesOf[i];
    std::vector<PresetZone> presetZones;
    std::vector<ZoneOut> base;
    if (splitVelocities && SplitByVelocity(zones, presetZones, base)) {
      zones = std::move(base);
    } else {
      presetZones.assign(1, PresetZone{});
    }
    // Attenuation below zero is a gain: players take it so when they sum the levels, but an
    // instrument zone may not hold it. The part below zero moves into the preset zones, whose
    // values are offsets.
    int16_t lowest = 0;
    for (const ZoneOut& z : zones) lowest = std::min(lowest, z.g[48]);
    for (ZoneOut& z : zones) z.g[48] = int16_t(z.g[48] - lowest);
    for (PresetZone& preset : presetZones) preset.g[48] = int16_t(preset.g[48] + lowest);
    // Global zone: for each generator and slot the value most zones hold, when that is not the
    // default; zones then write only where they differ.
    ZoneGenerators globalG = defaultsG;
    ZoneModulators globalM = defaultsM;
    bool anyGlobal = false;
    // The value most zones hold; on a tie the default, else the smallest.
    std::vector<int16_t> values(zones.size());
    auto commonest = [&zones, &values](auto valueOf, int16_t fallback) {
      for (size_t z = 0; z < zones.size(); ++z) values[z] = valueOf(zones[z]);
      std::sort(values.begin(), values.end());
      const auto [first, last] = std::equal_range(values.begin(), values.end(), fallback);
      int16_t best = fallback;
      size_t bestCount = size_t(last - first);
      for (size_t run = 0; run < values.size();) {
        size_t end = run + 1;
        while (end < values.size() && values[end] == values[run]) ++end;
        if (end - run > bestCount) best = values[run], bestCount = end - run;
        run = end;
      }
      return best;
    };
    for (int op = 0; op < kSfGeneratorCount && !zones.empty(); ++op) {
      if (IsStructural(op)) continue;
      globalG[size_t(op)] = commonest([op](const ZoneOut& z) { return z.g[size_t(op)]; }, defaultsG[size_t(op)]);
      anyGlobal = anyGlobal || globalG[size_t(op)] != defaultsG[size_t(op)];
    }
    for (int slot = 0; slot < kSfModulatorSlots && !zones.empty(); ++slot) {
      globalM[size_t(slot)] = commonest([slot](const ZoneOut& z) { return z.m[size_t(slot)]; }, defaultsM[size_t(slot)]);
      anyGlobal = anyGlobal || globalM[size_t(slot)] != defaultsM[size_t(slot)];
    }
    PutName(t.phdr, instrument->GetName());
    t.phdr.U16(uint16_t(instrument->Program()));
    t.phdr.U16(uint16_t(instrument->IsDrumKit() ? 128 : instrument->MajorBank()));
    t.phdr.U16(uint16_t(t.presetBags));
    t.phdr.U32(0); t.phdr.U32(0); t.phdr.U32(0);
    for (const PresetZone& preset : presetZones) {
      AddBag(t, true);
      if (preset.loVelocity != 0 || preset.hiVelocity != 127)
        AddGenerator(t, true, 44, int16_t(preset.loVelocity | preset.hiVelocity << 8));
      for (int op = 0; op < kSfGeneratorCount; ++op)
        if (preset.g[size_t(op)]) AddGenerator(t, true, uint16_t(op), preset.g[size_t(op)]);
      for (int slot = 0; slot < kSfModulatorSlots; ++slot)
        if (preset.m[size_t(slot)]) AddModulator(t, true, slot, preset.m[size_t(slot)]);
      AddGenerator(t, true, 41, int16_t(instIndex));
    }
    PutName(t.inst, instrument->GetName());
    t.inst.U16(uint16_t(t.instBags));
    if (anyGlobal) {
      AddBag(t, false);
      for (int op = 0; op < kSfGeneratorCount; ++op)
        if (globalG[size_t(op)] != defaultsG[size_t(op)]) AddGenerator(t, false, uint16_t(op), globalG[size_t(op)]);
      for (int slot = 0; slot < kSfModulatorSlots; ++slot)
        if (globalM[size_t(slot)] != defaultsM[size_t(slot)]) AddModulator(t, false, slot, globalM[size_t(slot)]);
    }
    for (const ZoneOut& z : zones) {
      AddBag(t, false);
      // Key range, then velocity range, lead; the sample ends the zone.
      size_t next = 0;
      if (z.fixed[next].first == 43) AddGenerator(t, false, 43, z.fixed[next++].second);
      if (z.loVelocity != 0 || z.hiVelocity != 127) AddGenerator(t, false, 44, int16_t(z.loVelocity | z.hiVelocity << 8));
      for (int op = 0; op < kSfGeneratorCount; ++op)
        if (!IsStructural(op) && z.g[size_t(op)] != globalG[size_t(op)]) AddGenerator(t, false, uint16_t(op), z.g[size_t(op)]);
      for (; next < z.fixed.size(); ++next) AddGenerator(t, false, z.fixed[next].first, z.fixed[next].second);
      for (int slot = 0; slot < kSfModulatorSlots; ++slot)
        if (z.m[size_t(slot)] != globalM[size_t(slot)]) AddModulator(t, false, slot, z.m[size_t(slot)]);
    }
    ++instIndex;
    if (t.presetGens > kMaxRecords || t.instGens > kMaxRecords || t.presetBags > kMaxRecords ||
        t.instBags > kMaxRecords || t.presetMods > kMaxRecords || t.instMods > kMaxRecords || instIndex == 0xFFFF)
      return false;
  }
  return true;
}

// Scaled and rounded half away from zero, clamped to the word's range; no branches, so that the
// loops vectorise.
template <uint32_t Stride, bool Use24, bool LowBytes>
void ConvertChannel(const float* samples, uint32_t frames, uint8_t* out) {
  constexpr float kScale = Use24 ? 8388608.0f : 32768.0f;
  for (uint32_t f = 0; f < frames; ++f) {
    const float scaled = std::min(std::max(samples[size_t(f) * Stride] * kScale, -kScale), kScale - 1.0f);
    const int32_t v = int32_t(scaled + std::copysign(0.5f, scaled));
    if constexpr (LowBytes) {
      out[f] = uint8_t(v);
    } else {
      const auto word = int16_t(Use24 ? v >> 8 : v);
      std::memcpy(out + 2 * size_t(f), &word, 2);
    }
  }
}

template <bool Use24, bool LowBytes>
void ConvertChannel(const float* samples, uint32_t stride, uint32_t frames, uint8_t* out) {
  if (stride == 1) return ConvertChannel<1, Use24, LowBytes>(samples, frames, out);
  if (stride == 2) return ConvertChannel<2, Use24, LowBytes>(samples, frames, out);
  for (uint32_t f = 0; f < frames; ++f)
    ConvertChannel<1, Use24, LowBytes>(samples + size_t(f) * stride, 1, out + f * (LowBytes ? 1 : 2));
}

// A run of one channel's frames, or with no samples the zero pad behind a sample.
struct SamplePiece {
  const float* from;
  uint32_t stride;
  uint32_t frames;
};

// The frames and channels a wave takes in smpl, fixed by the sample headers before any sample is
// written.
struct PlannedSample {
  uint32_t frames = 0;
  uint32_t channels = 1;
};

// Writes the 16-bit words of smpl (or with `lowBytes` the low bytes of sm24) for every channel of
// every wave, each followed by its zero pad. Waves are decoded a group of about 16 MB at a time and
// those this save decoded are let go once written, so a bank of any size is written in bounded
// memory. The pieces go in blocks of about a megabyte; a helper thread converts the next block
// while this one writes the last, since both take about as long. A wave that yields fewer frames
// than its header planned (or fails to decode) is filled with zeros to its planned length.
bool StreamSampleWords(FileObject& file, const std::vector<Waveform*>& waves, const std::vector<PlannedSample>& planned,
                       bool use24, bool lowBytes) {
  constexpr uint32_t kBlockFrames = 1u << 19;
  constexpr uint64_t kGroupBytes = 16u << 20;
  const size_t width = lowBytes ? 1 : 2;
  for (size_t groupStart = 0; groupStart < waves.size();) {
    std::vector<Waveform*> decodedHere;
    size_t groupEnd = groupStart;
    uint64_t groupBytes = 0;
    do {
      Waveform* wave = waves[groupEnd];
      if (!wave->Data() && wave->decoder && wave->GetSamplesForRead()) decodedHere.push_back(wave);
      if (const WaveData* data = wave->Data()) groupBytes += uint64_t(data->frames) * data->channels * sizeof(float);
      ++groupEnd;
    } while (groupEnd < waves.size() && groupBytes < kGroupBytes);

    std::vector<std::vector<SamplePiece>> blocks(1);
    uint32_t blockFrames = 0;
    auto add = [&](const float* from, uint32_t stride, uint32_t frames) {
      while (frames) {
        if (blockFrames == kBlockFrames) blocks.emplace_back(), blockFrames = 0;
        const uint32_t count = std::min(frames, kBlockFrames - blockFrames);
        blocks.back().push_back({from, stride, count});
        blockFrames += count;
        frames -= count;
        if (from) from += size_t(count) * stride;
      }
    };
    for (size_t w = groupStart; w < groupEnd; ++w) {
      const WaveData* data = waves[w]->Data();
      const uint32_t stride = data ? data->channels : 1;
      for (uint32_t c = 0; c < planned[w].channels; ++c) {
        const uint32_t have = data && c < stride ? std::min(data->frames, planned[w].frames) : 0;
        if (have) add(data->samples + c, stride, have);
        add(nullptr, 0, planned[w].frames - have + kPadSamples);
      }
    }
    auto convert = [use24, lowBytes, width](const std::vector<SamplePiece>& pieces, std::vector<uint8_t>& out) {
      out.resize(kBlockFrames * width);
      uint8_t* at = out.data();
      for (const SamplePiece& piece : pieces) {
        if (!piece.from) std::memset(at, 0, piece.frames * width);
        else if (lowBytes) ConvertChannel<true, true>(piece.from, piece.stride, piece.frames, at);
        else if (use24) ConvertChannel<true, false>(piece.from, piece.stride, piece.frames, at);
        else ConvertChannel<false, false>(piece.from, piece.stride, piece.frames, at);
        at += piece.frames * width;
      }
      out.resize(size_t(at - out.data()));
    };
    std::vector<uint8_t> buffers[2];
    convert(blocks[0], buffers[0]);
    bool ok = true;
    for (size_t b = 0; b < blocks.size(); ++b) {
      std::future<void> next;
      if (b + 1 < blocks.size())
        next = std::async(std::launch::async, convert, std::cref(blocks[b + 1]), std::ref(buffers[(b + 1) % 2]));
      const std::vector<uint8_t>& ready = buffers[b % 2];
      ok = ok && file.Write(ready.data(), ready.size());
      if (next.valid()) next.get();
    }
    for (Waveform* wave : decodedHere) wave->DropData();
    if (!ok) return false;
    groupStart = groupEnd;
  }
  return true;
}

// Presets and instruments, one each per Instrument, then the pdta list. A bank too big for the tables
// in that plain form is laid out again with velocity splits kept at preset level, the way large banks
// are made. False when even that passes the 65535 records.
bool LayOutTables(SaveView& view, const std::vector<WrittenSample>& written, BankKind kind, Tables& t, RiffWriter& pdta) {
  std::vector<std::vector<ZoneOut>> zonesOf;
  for (const Instrument* instrument : view.Instruments()) zonesOf.push_back(CollectZones(view, written, *instrument, kind));
  const Tables samplesOnly = t;
  if (!WritePresets(view, zonesOf, false, t)) {
    t = samplesOnly;
    if (!WritePresets(view, zonesOf, true, t)) return false;
  }
  PutName(t.phdr, "EOP");
  t.phdr.U16(0); t.phdr.U16(0); t.phdr.U16(uint16_t(t.presetBags));
  t.phdr.U32(0); t.phdr.U32(0); t.phdr.U32(0);
  AddBag(t, true);
  PutName(t.inst, "EOI");
  t.inst.U16(uint16_t(t.instBags));
  AddBag(t, false);
  t.pmod.Fill(0, 10);
  t.imod.Fill(0, 10);
  t.pgen.Fill(0, 4);
  t.igen.Fill(0, 4);

  pdta.Begin(FourCC("LIST"), FourCC("pdta"));
  pdta.Chunk(FourCC("phdr"), t.phdr.Bytes().data(), t.phdr.Size());
  pdta.Chunk(FourCC("pbag"), t.pbag.Bytes().data(), t.pbag.Size());
  pdta.Chunk(FourCC("pmod"), t.pmod.Bytes().data(), t.pmod.Size());
  pdta.Chunk(FourCC("pgen"), t.pgen.Bytes().data(), t.pgen.Size());
  pdta.Chunk(FourCC("inst"), t.inst.Bytes().data(), t.inst.Size());
  pdta.Chunk(FourCC("ibag"), t.ibag.Bytes().data(), t.ibag.Size());
  pdta.Chunk(FourCC("imod"), t.imod.Bytes().data(), t.imod.Size());
  pdta.Chunk(FourCC("igen"), t.igen.Bytes().data(), t.igen.Size());
  pdta.Chunk(FourCC("shdr"), t.shdr.Bytes().data(), t.shdr.Size());
  return true;
}

bool WriteBank(Item* item, FileObject* file, const SaveOptions* options, BankKind kind) {
  if (!item || (item->Type() != ItemType::Collection && item->Type() != ItemType::Instrument &&
                item->Type() != ItemType::Waveform))
    return Fail("The file format can not save this item");
  SaveView view(item);
  const std::vector<Waveform*>& waves = view.Waveforms();
  bool use24 = false;
  if (kind == BankKind::Sf2 && options) {
    std::vector<const Waveform*> constWaves(waves.begin(), waves.end());
    double rate = 0.0;
    SaveOptions choice = *options;
    use24 = !waves.empty() && ChooseGroupSaveFormat(constWaves, choice, rate) == kStoragePcm24;
  }

  // Sample headers first: every position is known from the lengths before a sample is converted.
  Tables t;
  std::vector<WrittenSample> written(waves.size());
  ByteWriter compressed;  // the sf3 streams; plain sample data is converted as it is written
  uint64_t words = 0;     // 16-bit words of smpl
  uint32_t shdrIndex = 0;
  std::vector<PlannedSample> planned(waves.size());
  for (size_t w = 0; w < waves.size(); ++w) {
    Waveform* wave = waves[w];
    // Plain banks take the sizes of plain PCM waves, which their data's size fixes, from the wave's
    // description and decode them while the samples are written; a codec's stated length is only
    // trusted once decoded, and compressed banks encode each wave here.
    const bool described = !wave->Data() && HasGenericDecoder(*wave) && kind != BankKind::Sf3 && wave->length &&
                           wave->channels >= 1 && wave->channels <= 2;
    const float* samples = described ? nullptr : wave->GetSamplesForRead();
    const WaveData* data = samples ? wave->Data() : nullptr;
    const uint32_t frames = described ? wave->length : data ? data->frames : 0;
    const uint32_t channels = described ? wave->channels : data ? std::min<uint32_t>(data->channels, 2) : 1;
    planned[w] = {frames, channels};
    written[w].first = shdrIndex;
    written[w].channels = uint8_t(channels);
    const LoopInfo loop = wave->loop;
    const bool looped = loop.end != kLoopEndUnset && loop.end > loop.start && frames;
    const uint32_t loopStart = looped ? uint32_t(std::max(0.0f, loop.start)) : 0;
    const uint32_t loopEnd = looped ? uint32_t(std::min(float(frames), loop.end)) : 0;
    for (uint32_t c = 0; c < channels; ++c, ++shdrIndex) {
      std::string name = wave->GetName();
      if (channels == 2) name = name.substr(0, 18) + (c == 0 ? "-L" : "-R");
      uint32_t start = 0, end = 0, sampleLoopStart = loopStart, sampleLoopEnd = loopEnd;
      uint16_t type = channels == 2 ? (c == 0 ? 4 : 2) : 1;
      if (kind == BankKind::Sf3) {
        // A whole Ogg Vorbis or FLAC stream per channel; offsets in bytes, loop points relative.
        SetStatus("Compressing: " + wave->GetName(), StatusMode::ProgressLabel);
        std::vector<float> mono(frames);
        for (uint32_t f = 0; f < frames; ++f) mono[f] = samples[size_t(f) * data->channels + c];
        std::vector<uint8_t> stream;
        if (!EncodeChannel(mono, wave->sampleRate, options ? options->rate : 0.0f, stream)) {
          Ui().Warn("Error!", LastError());
          return false;
        }
        start = uint32_t(compressed.Size());
        compressed.Append(stream.data(), stream.size());
        end = uint32_t(compressed.Size());
        type |= kTypeCompressedVorbis;
      } else {
        if (words + frames + kPadSamples > 0xFFFFFFFFull) return Fail("Wave too big - use 64-bit version!");
        start = uint32_t(words);
        end = uint32_t(words + frames);
        sampleLoopStart = looped ? start + loopStart : start;
        sampleLoopEnd = looped ? start + loopEnd : start;
        words += frames + kPadSamples;  // zero samples behind each sample, as players expect
      }
      ByteWriter& names = kind == BankKind::Sbk ? t.snam : t.shdr;
      PutName(names, name);
      t.shdr.U32(start); t.shdr.U32(end); t.shdr.U32(sampleLoopStart); t.shdr.U32(sampleLoopEnd);
      if (kind == BankKind::Sbk) continue;
      t.shdr.U32(wave->sampleRate);
      t.shdr.U8((wave->interfaceState[1] & kSfUnpitched) ? 255 : std::min<uint8_t>(wave->rootKey, 127));
      t.shdr.U8(uint8_t(wave->fineTune));
      t.shdr.U16(uint16_t(channels == 2 ? shdrIndex + (c == 0 ? 1 : -1) : 0));
      t.shdr.U16(type);
    }
  }
  if (kind == BankKind::Sbk) {
    PutName(t.snam, "EOS");
    t.shdr.Fill(0, 16);
  } else {
    PutName(t.shdr, "EOS");
    t.shdr.Fill(0, 26);
  }

  // Everything before the sample data.
  RiffWriter head;
  head.Begin(FourCC("RIFF"), FourCC("sfbk"));
  const size_t info = head.Open(FourCC("LIST"));
  head.Body().Append("INFO");
  ByteWriter version;
  // Compressed banks are version 3.0; plain ones 2.01, or 2.04 with 24-bit samples.
  version.U16(kind == BankKind::Sbk ? 1 : kind == BankKind::Sf3 ? 3 : 2);
  version.U16(kind == BankKind::Sf2 ? (use24 ? 4 : 1) : 0);
  head.Chunk(FourCC("ifil"), version.Bytes().data(), version.Size());
  auto text = [&](uint32_t id, std::string value, size_t maxBytes) {
    value = Utf8ToNarrow(value).substr(0, maxBytes - 1);
    value.push_back('\0');
    if (value.size() & 1) value.push_back('\0');
    head.Chunk(id, value.data(), value.size());
  };
  text(FourCC("isng"), "EMU8000", 256);
  Collection& owner = view.Owner();
  std::string bankName = item->Type() == ItemType::Collection ? owner.GetName() : item->GetName();
  text(FourCC("INAM"), bankName.empty() ? "Untitled" : bankName, 256);
  const TextItem* texts = item->Type() == ItemType::Waveform ? nullptr : static_cast<const TextItem*>(item);
  if (texts && !texts->GetText(kTextEngineer).empty()) text(FourCC("IENG"), texts->GetText(kTextEngineer), 256);
  if (texts && !texts->GetText(kTextCopyright).empty()) text(FourCC("ICOP"), texts->GetText(kTextCopyright), 256);
  if (texts && !texts->GetText(kTextComments).empty()) text(FourCC("ICMT"), texts->GetText(kTextComments), 65536);
  text(FourCC("ISFT"), "Orlin Studio v12.7", 256);
  head.Close(info);
  const uint64_t smplBytes = kind == BankKind::Sf3 ? compressed.Size() : words * 2;
  const uint64_t sm24Bytes = use24 ? words : 0;
  const uint64_t sm24Chunk = use24 ? 8 + sm24Bytes + (sm24Bytes & 1) : 0;
  const uint64_t sdtaBody = 4 + (kind == BankKind::Sbk ? 8 + t.snam.Size() : 0) + 8 + smplBytes + (smplBytes & 1) + sm24Chunk;
  if (sdtaBody > 0xFFFFFFFFull) return Fail("Wave too big - use 64-bit version!");
  ByteWriter& body = head.Body();
  body.U32(FourCC("LIST"));
  body.U32(uint32_t(sdtaBody));
  body.Append("sdta");
  if (kind == BankKind::Sbk) head.Chunk(FourCC("snam"), t.snam.Bytes().data(), t.snam.Size());
  body.U32(FourCC("smpl"));
  body.U32(uint32_t(smplBytes));

  // The preset tables are laid out on a helper thread while the samples are written; the outer
  // size, which depends on them, is put in at the end.
  RiffWriter pdta;  // a LIST chunk is laid out like a RIFF form
  std::future<bool> tables =
      std::async(std::launch::async, [&] { return LayOutTables(view, written, kind, t, pdta); });
  if (!file->Write(head.Bytes().data(), head.Bytes().size())) return Fail("Writing to file failed");
  bool ok = kind == BankKind::Sf3 ? file->Write(compressed.Bytes().data(), compressed.Size())
                                  : StreamSampleWords(*file, waves, planned, use24, false);
  if (ok && (smplBytes & 1)) ok = file->Write("", 1);
  if (ok && use24) {
    ByteWriter chunk;
    chunk.U32(FourCC("sm24"));
    chunk.U32(uint32_t(sm24Bytes));
    ok = file->Write(chunk.Bytes().data(), chunk.Size()) && StreamSampleWords(*file, waves, planned, true, true) &&
         ((sm24Bytes & 1) == 0 || file->Write("", 1));
  }
  if (!tables.get()) return Fail(kind == BankKind::Sbk ? kSbkTooMuch : kSf2TooMuch);
  if (!ok || !file->Write(pdta.Bytes().data(), pdta.Bytes().size())) return Fail("Writing to file failed");
  const uint64_t riffBody = head.Bytes().size() - 8 + smplBytes + (smplBytes & 1) + sm24Chunk + pdta.Bytes().size();
  if (riffBody > 0xFFFFFFFFull) return Fail("Wave too big - use 64-bit version!");
  ByteWriter size;
  size.U32(uint32_t(riffBody));
  if (!file->Seek(4) || !file->Write(size.Bytes().data(), 4)) return Fail("Writing to file failed");
  return true;
}

}  // namespace

bool WriteSf2(Item* item, FileObject* file, const SaveOptions* options) {
  return WriteBank(item, file, options, BankKind::Sf2);
}
bool WriteSbk(Item* item, FileObject* file, const SaveOptions* options) {
  return WriteBank(item, file, options, BankKind::Sbk);
}
bool WriteSf3(Item* item, FileObject* file, const SaveOptions* options) {
  return WriteBank(item, file, options, BankKind::Sf3);
}

double Sf3Settings(uint32_t index, uint32_t variant, std::string* labelOut) {
  if (index != 0) return addons::VorbisSetting(index - 1, variant, labelOut);
  if (labelOut) *labelOut = "FLAC 16/24-bit";
  return 1.0;
}

}  // namespace orlin
