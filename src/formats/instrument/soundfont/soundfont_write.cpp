// Writing SoundFont banks: each Instrument becomes one preset over one instrument of the same name,
// each Region one instrument zone (two for a stereo wave, written as a linked left/right pair), with a
// global zone holding what all zones share. Only generators that differ from the default or from the
// global zone are written. Version-1 banks keep names in snam and write 16-byte sample records.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <cstdio>
#include <map>
#include <unistd.h>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
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
void AddModulator(Tables& t, int slot, int16_t amount) {
  const SfModulator m = SlotModulator(slot, amount);
  t.imod.U16(m.source);
  t.imod.U16(m.destination);
  t.imod.U16(uint16_t(m.amount));
  t.imod.U16(0);
  t.imod.U16(0);
  ++t.instMods;
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

struct ZoneOut {
  ZoneGenerators g;
  ZoneModulators m;
  const Region* region;
  int channel;  // -1 mono, 0 left, 1 right
};

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

  // Sample data: each channel of each wave, then the zero pad.
  ByteWriter smpl, sm24;
  Tables t;
  std::vector<WrittenSample> written(waves.size());
  uint32_t shdrIndex = 0;
  uint64_t totalFrames = 0;
  for (const Waveform* wave : waves) totalFrames += uint64_t(wave->length + kPadSamples) * std::max<uint32_t>(wave->channels, 1);
  if (kind != BankKind::Sf3) smpl.Bytes().reserve(size_t(std::min<uint64_t>(totalFrames * 2, 1ull << 31)));
  for (size_t w = 0; w < waves.size(); ++w) {
    Waveform* wave = waves[w];
    const float* samples = wave->GetSamplesForRead();
    const uint32_t frames = samples && wave->Data() ? wave->Data()->frames : 0;
    const uint32_t channels = wave->Data() ? std::min<uint32_t>(wave->Data()->channels, 2) : 1;
    const uint32_t stride = wave->Data() ? wave->Data()->channels : 1;
    written[w].first = shdrIndex;
    written[w].channels = uint8_t(channels);
    const LoopInfo loop = wave->loop;
    const bool looped = loop.end != kLoopEndUnset && loop.end > loop.start && frames;
    for (uint32_t c = 0; c < channels; ++c) {
      if (kind == BankKind::Sf3) {
        // A whole Ogg Vorbis or FLAC stream per channel; offsets in bytes, loop points relative.
        SetStatus("Compressing: " + wave->GetName(), StatusMode::ProgressLabel);
        std::vector<float> mono(frames);
        for (uint32_t f = 0; f < frames; ++f) mono[f] = samples[size_t(f) * stride + c];
        std::vector<uint8_t> stream;
        if (!EncodeChannel(mono, wave->sampleRate, options ? options->rate : 0.0f, stream)) {
          Ui().Warn("Error!", LastError());
          return false;
        }
        const uint32_t s = uint32_t(smpl.Size());
        smpl.Append(stream.data(), stream.size());
        PutName(t.shdr, channels == 2 ? wave->GetName().substr(0, 18) + (c == 0 ? "-L" : "-R") : wave->GetName());
        t.shdr.U32(s); t.shdr.U32(uint32_t(smpl.Size()));
        t.shdr.U32(looped ? uint32_t(std::max(0.0f, loop.start)) : 0);
        t.shdr.U32(looped ? uint32_t(std::min(float(frames), loop.end)) : 0);
        t.shdr.U32(wave->sampleRate);
        t.shdr.U8((wave->interfaceState[1] & kSfUnpitched) ? 255 : std::min<uint8_t>(wave->rootKey, 127));
        t.shdr.U8(uint8_t(wave->fineTune));
        t.shdr.U16(uint16_t(channels == 2 ? shdrIndex + (c == 0 ? 1 : -1) : 0));
        t.shdr.U16(uint16_t((channels == 2 ? (c == 0 ? 4 : 2) : 1) | kTypeCompressedVorbis));
        ++shdrIndex;
        continue;
      }
      const uint64_t start = smpl.Size() / 2;
      if (start + frames + kPadSamples > 0xFFFFFFFFull) return Fail("Wave too big - use 64-bit version!");
      // Straight into the grown buffers: this loop sees every sample of the bank.
      std::vector<uint8_t>& words = smpl.Bytes();
      const size_t wordsAt = words.size();
      words.resize(wordsAt + size_t(frames) * 2);
      uint8_t* word = words.data() + wordsAt;
      uint8_t* low = nullptr;
      if (use24) {
        sm24.Bytes().resize(sm24.Size() + frames);
        low = sm24.Bytes().data() + sm24.Size() - frames;
      }
      const float scale = use24 ? 8388608.0f : 32768.0f;
      const int32_t top = use24 ? 8388607 : 32767;
      if (!use24 && stride == 1) {
        // Mono 16-bit, the common case: a loop without branches, so that it vectorises.
        for (uint32_t f = 0; f < frames; ++f) {
          const float scaled = std::min(std::max(samples[f] * 32768.0f, -32768.0f), 32767.0f);
          const auto v = int16_t(int32_t(scaled + std::copysign(0.5f, scaled)));  // half away from zero
          std::memcpy(word + 2 * size_t(f), &v, 2);
        }
      }
      for (uint32_t f = 0; f < frames && (use24 || stride != 1); ++f) {
        const float scaled = std::clamp(samples[size_t(f) * stride + c], -1.0f, 1.0f) * scale;
        const int32_t v = std::min(int32_t(scaled < 0 ? scaled - 0.5f : scaled + 0.5f), top);  // half away from zero
        const int32_t high = use24 ? v >> 8 : v;
        word[2 * size_t(f)] = uint8_t(high);
        word[2 * size_t(f) + 1] = uint8_t(high >> 8);
        if (low) low[f] = uint8_t(v);
      }
      smpl.Fill(0, kPadSamples * 2);  // zero samples behind each sample, as players expect
      if (use24) sm24.Fill(0, kPadSamples);
      const uint32_t s = uint32_t(start), e = uint32_t(start + frames);
      const uint32_t loopStart = looped ? s + uint32_t(std::max(0.0f, loop.start)) : s;
      const uint32_t loopEnd = looped ? s + uint32_t(std::min(float(frames), loop.end)) : s;
      std::string name = wave->GetName();
      if (channels == 2) name = name.substr(0, 18) + (c == 0 ? "-L" : "-R");
      if (kind == BankKind::Sbk) {
        PutName(t.snam, name);
        t.shdr.U32(s); t.shdr.U32(e); t.shdr.U32(loopStart); t.shdr.U32(loopEnd);
      } else {
        PutName(t.shdr, name);
        t.shdr.U32(s); t.shdr.U32(e); t.shdr.U32(loopStart); t.shdr.U32(loopEnd);
        t.shdr.U32(wave->sampleRate);
        t.shdr.U8((wave->interfaceState[1] & kSfUnpitched) ? 255 : std::min<uint8_t>(wave->rootKey, 127));
        t.shdr.U8(uint8_t(wave->fineTune));
        t.shdr.U16(uint16_t(channels == 2 ? shdrIndex + (c == 0 ? 1 : -1) : 0));
        t.shdr.U16(channels == 2 ? (c == 0 ? 4 : 2) : 1);
      }
      ++shdrIndex;
    }
  }
  if (kind == BankKind::Sbk) {
    PutName(t.snam, "EOS");
    t.shdr.Fill(0, 16);
  } else {
    PutName(t.shdr, "EOS");
    t.shdr.Fill(0, 26);
  }

  // Presets and instruments, one each per Instrument.
  uint16_t instIndex = 0;
  for (Instrument* instrument : view.Instruments()) {
    std::vector<ZoneOut> zones;
    for (uint32_t layerId : instrument->children) {
      const Layer* layer = instrument->collection->Find<Layer>(layerId);
      if (!layer) continue;
      for (uint32_t regionId : layer->children) {
        const Region* region = instrument->collection->Find<Region>(regionId);
        const Waveform* wave = region ? region->GetWave() : nullptr;
        const int w = wave ? view.WaveIndex(wave) : -1;
        if (w < 0) continue;
        ZoneOut zone{};
        zone.region = region;
        ArticulationToZone(region->articulation, zone.g, zone.m);
        if (kind == BankKind::Sbk) zone.m = DefaultZoneModulators();
        if (written[size_t(w)].channels == 2) {
          for (int c = 0; c < 2; ++c) {
            zone.channel = c;
            zone.g[17] = int16_t(c == 0 ? -500 : 500);
            zones.push_back(zone);
          }
        } else {
          zone.channel = -1;
          zones.push_back(zone);
        }
      }
    }
    // Global zone: for each generator and slot the value most zones hold, when that is not the
    // default; zones then write only where they differ. This keeps large banks under the 65535 limit.
    const ZoneGenerators defaultsG = DefaultZoneGenerators();
    const ZoneModulators defaultsM = DefaultZoneModulators();
    ZoneGenerators globalG = defaultsG;
    ZoneModulators globalM = defaultsM;
    bool anyGlobal = false;
    auto commonest = [&](auto valueOf, int16_t fallback) {
      std::map<int16_t, size_t> counts;
      for (const ZoneOut& z : zones) ++counts[valueOf(z)];
      int16_t best = fallback;
      size_t bestCount = counts.count(fallback) ? counts[fallback] : 0;
      for (const auto& [value, count] : counts)
        if (count > bestCount) best = value, bestCount = count;
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
    // Preset: a single zone naming the instrument.
    PutName(t.phdr, instrument->GetName());
    t.phdr.U16(uint16_t(instrument->Program()));
    t.phdr.U16(uint16_t(instrument->IsDrumKit() ? 128 : instrument->MajorBank()));
    t.phdr.U16(uint16_t(t.presetBags));
    t.phdr.U32(0); t.phdr.U32(0); t.phdr.U32(0);
    AddBag(t, true);
    AddGenerator(t, true, 41, int16_t(instIndex));
    PutName(t.inst, instrument->GetName());
    t.inst.U16(uint16_t(t.instBags));
    if (anyGlobal) {
      AddBag(t, false);
      for (int op = 0; op < kSfGeneratorCount; ++op)
        if (globalG[size_t(op)] != defaultsG[size_t(op)]) AddGenerator(t, false, uint16_t(op), globalG[size_t(op)]);
      for (int slot = 0; slot < kSfModulatorSlots; ++slot)
        if (globalM[size_t(slot)] != defaultsM[size_t(slot)]) AddModulator(t, slot, globalM[size_t(slot)]);
    }
    for (const ZoneOut& z : zones) {
      const Region& region = *z.region;
      const WrittenSample& sample = written[size_t(view.WaveIndex(region.GetWave()))];
      AddBag(t, false);
      if (region.range.loKey != 0 || region.range.hiKey != 127)
        AddGenerator(t, false, 43, int16_t(region.range.loKey | region.range.hiKey << 8));
      if (region.range.loVelocity != 0 || region.range.hiVelocity != 127)
        AddGenerator(t, false, 44, int16_t(region.range.loVelocity | region.range.hiVelocity << 8));
      for (int op = 0; op < kSfGeneratorCount; ++op) {
        if (IsStructural(op)) continue;
        if (z.g[size_t(op)] != globalG[size_t(op)]) AddGenerator(t, false, uint16_t(op), z.g[size_t(op)]);
      }
      if (region.startOffset) {
        AddGenerator(t, false, 0, Fine(region.startOffset));
        if (Coarse(region.startOffset)) AddGenerator(t, false, 4, Coarse(region.startOffset));
      }
      if (region.endOffset) {
        AddGenerator(t, false, 1, Fine(region.endOffset));
        if (Coarse(region.endOffset)) AddGenerator(t, false, 12, Coarse(region.endOffset));
      }
      const Waveform* wave = region.GetWave();
      if (region.overrideFlags & (Region::kOverrideLoopStart | Region::kOverrideLoopEnd)) {
        const LoopInfo effective = region.EffectiveLoop();
        const int32_t startShift = int32_t(std::lround(effective.start - wave->loop.start));
        const int32_t endShift = int32_t(std::lround(effective.end - (wave->loop.end == kLoopEndUnset ? 0 : wave->loop.end)));
        if (startShift) AddGenerator(t, false, 2, Fine(startShift));
        if (Coarse(startShift)) AddGenerator(t, false, 45, Coarse(startShift));
        if (endShift) AddGenerator(t, false, 3, Fine(endShift));
        if (Coarse(endShift)) AddGenerator(t, false, 50, Coarse(endShift));
      }
      const LoopInfo loop = region.EffectiveLoop();
      if (loop.type != 0) AddGenerator(t, false, 54, int16_t(loop.release ? 3 : 1));
      const int group = int(region.range.values[202 - kFirstTriggerParam]);
      if (group > 0) AddGenerator(t, false, 57, int16_t(std::min(group, 32767)));
      if ((region.overrideFlags & Region::kOverrideRoot) && region.rootKey != wave->rootKey)
        AddGenerator(t, false, 58, int16_t(region.rootKey));
      for (int slot = 0; slot < kSfModulatorSlots; ++slot)
        if (z.m[size_t(slot)] != globalM[size_t(slot)]) AddModulator(t, slot, z.m[size_t(slot)]);
      AddGenerator(t, false, 53, int16_t(sample.first + uint32_t(std::max(z.channel, 0))));
    }
    ++instIndex;
    if (t.presetGens > kMaxRecords || t.instGens > kMaxRecords || t.presetBags > kMaxRecords ||
        t.instBags > kMaxRecords || t.instMods > kMaxRecords || instIndex == 0xFFFF)
      return Fail(kind == BankKind::Sbk ? kSbkTooMuch : kSf2TooMuch);
  }
  // Terminators.
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

  // The RIFF image.
  RiffWriter riff;
  riff.Begin(FourCC("RIFF"), FourCC("sfbk"));
  const size_t info = riff.Open(FourCC("LIST"));
  riff.Body().Append("INFO");
  ByteWriter version;
  // Compressed banks are version 3.0; plain ones 2.01, or 2.04 with 24-bit samples.
  version.U16(kind == BankKind::Sbk ? 1 : kind == BankKind::Sf3 ? 3 : 2);
  version.U16(kind == BankKind::Sf2 ? (use24 ? 4 : 1) : 0);
  riff.Chunk(FourCC("ifil"), version.Bytes().data(), version.Size());
  auto text = [&](uint32_t id, std::string value, size_t maxBytes) {
    value = Utf8ToNarrow(value).substr(0, maxBytes - 1);
    value.push_back('\0');
    if (value.size() & 1) value.push_back('\0');
    riff.Chunk(id, value.data(), value.size());
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
  riff.Close(info);
  const size_t sdta = riff.Open(FourCC("LIST"));
  riff.Body().Append("sdta");
  if (kind == BankKind::Sbk) riff.Chunk(FourCC("snam"), t.snam.Bytes().data(), t.snam.Size());
  riff.Chunk(FourCC("smpl"), smpl.Bytes().data(), smpl.Size());
  if (use24) riff.Chunk(FourCC("sm24"), sm24.Bytes().data(), sm24.Size());
  riff.Close(sdta);
  const size_t pdta = riff.Open(FourCC("LIST"));
  riff.Body().Append("pdta");
  riff.Chunk(FourCC("phdr"), t.phdr.Bytes().data(), t.phdr.Size());
  riff.Chunk(FourCC("pbag"), t.pbag.Bytes().data(), t.pbag.Size());
  riff.Chunk(FourCC("pmod"), t.pmod.Bytes().data(), t.pmod.Size());
  riff.Chunk(FourCC("pgen"), t.pgen.Bytes().data(), t.pgen.Size());
  riff.Chunk(FourCC("inst"), t.inst.Bytes().data(), t.inst.Size());
  riff.Chunk(FourCC("ibag"), t.ibag.Bytes().data(), t.ibag.Size());
  riff.Chunk(FourCC("imod"), t.imod.Bytes().data(), t.imod.Size());
  riff.Chunk(FourCC("igen"), t.igen.Bytes().data(), t.igen.Size());
  riff.Chunk(FourCC("shdr"), t.shdr.Bytes().data(), t.shdr.Size());
  riff.Close(pdta);
  if (!file->Write(riff.Bytes().data(), riff.Bytes().size())) return Fail("Writing to file failed");
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
