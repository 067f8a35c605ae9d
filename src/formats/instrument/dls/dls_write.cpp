// Writing DLS banks. Level 1 keeps one layer per instrument, 16 regions per melodic instrument and 128
// per drum kit (or all, when the user says so), and articulation at instrument level except in drum
// kits. Level 2 writes rgn2 regions with their layer word and art2 lists; stereo waves become a left
// and a right mono wave played by two regions panned apart. Levels 2+ and 2++ are the program's own:
// their waves may be any format the WAVE writer stores (2+ still mono, 2++ stereo as well).
#include <algorithm>
#include <cmath>
#include <map>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/text.h"
#include "core/user_interface.h"
#include "formats/audio/wav.h"
#include "formats/common/riff.h"
#include "formats/common/save_view.h"
#include "formats/instrument/dls/dls.h"

namespace orlin {

namespace {

constexpr ParamId kKeyGroup = 202, kNoteExclusion = 203, kPan = 51;
constexpr uint32_t kDrumBit = 0x80000000u;
constexpr int kLevel1MelodicRegions = 16, kLevel1DrumRegions = 128;
constexpr const char kRegionLimitQuestion[] =
    "The collection contains instruments with more regions than what is allowed by the DLS level 1 "
    "specification.\n\nDo you want to write all regions anyway?\n(if you answer No, then some regions will be "
    "skipped)";
constexpr const char kSoftware[] = "Orlin Studio";

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

// One wave of the pool: a view wave, or one side of a stereo wave that the level keeps as two monos.
struct PoolWave {
  Waveform* wave = nullptr;
  int side = -1;  // -1 the whole wave, 0 left, 1 right
};

// What a region writes: its wave's pool entries and the pan that splitting gave it.
struct RegionOut {
  const Region* region = nullptr;
  uint32_t poolIndex = 0;
  int side = -1;
  uint16_t layer = 0;
};

void PutText(RiffWriter& riff, uint32_t id, const std::string& text) {
  std::string narrow = Utf8ToNarrow(text);
  narrow.push_back('\0');
  riff.Chunk(id, narrow.data(), narrow.size());
}

void PutInfo(RiffWriter& riff, const TextItem* item, const std::string& name, bool software) {
  const size_t list = riff.Open(FourCC("LIST"));
  riff.Body().Append("INFO");
  if (!name.empty()) PutText(riff, FourCC("INAM"), name);
  if (item) {
    const std::pair<uint32_t, ParamId> tags[] = {{FourCC("IART"), kTextArtist},
                                                 {FourCC("ICMT"), kTextComments},
                                                 {FourCC("ICOP"), kTextCopyright},
                                                 {FourCC("IENG"), kTextEngineer},
                                                 {FourCC("IPRD"), kTextProduct}};
    for (const auto& [id, slot] : tags)
      if (!item->GetText(slot).empty()) PutText(riff, id, item->GetText(slot));
  }
  if (software) PutText(riff, FourCC("ISFT"), kSoftware);
  riff.Close(list);
}

void PutWaveSample(RiffWriter& riff, int note, int fineTune, float gainDb, const LoopInfo& loop, uint32_t frames,
                   bool releaseAllowed) {
  const bool looped = loop.type != 0 && loop.end != kLoopEndUnset && loop.end > loop.start && frames;
  const size_t chunk = riff.Open(FourCC("wsmp"));
  ByteWriter& out = riff.Body();
  out.U32(20);
  out.U16(uint16_t(std::clamp(note, 0, 127)));
  out.U16(uint16_t(int16_t(fineTune)));
  const double attenuation = gainDb * 655360.0;
  out.U32(uint32_t(int32_t(attenuation >= 0 ? attenuation + 0.499 : attenuation - 0.499)));
  out.U32(0);  // options: the wave may be truncated and compressed by a player
  out.U32(looped ? 1 : 0);
  if (looped) {
    const double start = std::floor(double(loop.start) + 0.5);
    const double end = std::min<double>(loop.end, frames);
    out.U32(16);
    out.U32(releaseAllowed && loop.release ? 1 : 0);
    out.U32(uint32_t(start));
    out.U32(uint32_t(std::max(1.0, std::floor(end - double(loop.start) + 0.5))));
  }
  riff.Close(chunk);
}

void PutConnections(RiffWriter& riff, const std::vector<DlsConnection>& blocks, int level) {
  if (blocks.empty()) return;
  const size_t list = riff.Open(FourCC("LIST"));
  riff.Body().Append(level == 1 ? "lart" : "lar2");
  const size_t chunk = riff.Open(level == 1 ? FourCC("art1") : FourCC("art2"));
  ByteWriter& out = riff.Body();
  out.U32(8);
  out.U32(uint32_t(blocks.size()));
  for (const DlsConnection& block : blocks) {
    out.U16(block.source);
    out.U16(block.control);
    out.U16(block.destination);
    out.U16(block.transform);
    out.U32(uint32_t(block.scale));
  }
  riff.Close(chunk);
  riff.Close(list);
}

bool SameBlocks(const std::vector<DlsConnection>& a, const std::vector<DlsConnection>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i].source != b[i].source || a[i].control != b[i].control || a[i].destination != b[i].destination ||
        a[i].transform != b[i].transform || a[i].scale != b[i].scale)
      return false;
  return true;
}

// One side of a stereo wave as a mono wave of `scratch`.
Waveform* SideOf(Collection& scratch, Waveform& wave, int side) {
  const float* samples = wave.GetSamplesForRead();
  if (!samples || !wave.Data()) return nullptr;
  const WaveData& data = *wave.Data();
  auto* mono = new Waveform(&scratch, wave, false, wave.GetName() + (side == 0 ? " L" : " R"));
  mono->channels = 1;
  mono->length = data.frames;
  mono->decoder = nullptr;
  float* out = mono->AllocSamples();
  if (!out) return nullptr;
  for (uint32_t f = 0; f < data.frames; ++f) out[f] = samples[size_t(f) * data.channels + size_t(side)];
  return mono;
}

// The wave list of one pool wave: fmt (and fact) and data from the WAVE writer, our wsmp and name.
bool PutWave(RiffWriter& riff, Waveform& wave, const std::string& name, const SaveOptions& options, int level) {
  WaveWriteParams params;
  params.caps = options.caps & ~kCapsDualMonoOnly;
  if (level < 4) params.caps = (params.caps & ~kCapsStereo) | kCapsMono;
  params.rate = options.rate;
  std::vector<uint8_t> image;
  if (!WriteWaveToMemory(wave, image, params)) return false;
  ByteReader reader(image);
  reader.Skip(12);
  std::vector<std::pair<uint32_t, ByteReader>> chunks;
  while (reader.CanRead(8)) {
    const uint32_t id = reader.U32();
    const uint32_t size = reader.U32();
    chunks.emplace_back(id, reader.Sub(size));
    reader.Skip(std::min<size_t>(size & 1, reader.Remaining()));
  }
  const uint32_t frames = wave.Data() ? wave.Data()->frames : wave.length;
  const size_t list = riff.Open(FourCC("LIST"));
  riff.Body().Append("wave");
  for (uint32_t wanted : {FourCC("fmt "), FourCC("fact")})
    for (auto& [id, body] : chunks)
      if (id == wanted) riff.Chunk(id, body.Data(), body.Size());
  PutWaveSample(riff, wave.rootKey, wave.fineTune, wave.gain, wave.loop, frames, level >= 2);
  for (auto& [id, body] : chunks)
    if (id == FourCC("data")) riff.Chunk(id, body.Data(), body.Size(), 0);
  PutInfo(riff, nullptr, name, false);
  riff.Close(list);
  return true;
}

}  // namespace

bool BuildDlsImage(Item* item, const SaveOptions& options, int level, std::vector<uint8_t>& out) {
  if (!item || item->Type() == ItemType::Song || item->Type() == ItemType::Track ||
      item->Type() == ItemType::SynthesisModel)
    return Fail("The file format can not save this item");
  level = std::clamp(level, 1, 4);
  SaveView view(item);
  if (level == 1) view.LimitLayers(1, 1, true);

  // The pool: stereo waves split where the level keeps only mono.
  Collection scratch;
  std::vector<PoolWave> pool;
  std::map<const Waveform*, uint32_t> firstPoolIndex;
  for (Waveform* wave : view.Waveforms()) {
    firstPoolIndex[wave] = uint32_t(pool.size());
    if (wave->channels == 2 && level < 4) {
      for (int side = 0; side < 2; ++side) {
        Waveform* mono = SideOf(scratch, *wave, side);
        if (!mono) return Fail("Out of memory");
        pool.push_back({mono, side});
      }
    } else {
      pool.push_back({wave, -1});
    }
  }

  RiffWriter riff;
  riff.Begin(FourCC("RIFF"), FourCC("DLS "));
  ByteWriter count;
  count.U32(uint32_t(view.Instruments().size()));
  riff.Chunk(FourCC("colh"), count.Bytes().data(), count.Size());
  if (level >= 2) {
    ByteWriter version;
    version.U32(0x00020000);  // 2.0
    version.U32(0);
    riff.Chunk(FourCC("vers"), version.Bytes().data(), version.Size());
  }

  bool asked = false, writeAll = true;
  const size_t lins = riff.Open(FourCC("LIST"));
  riff.Body().Append("lins");
  for (Instrument* instrument : view.Instruments()) {
    std::vector<RegionOut> regions;
    const std::vector<Layer*> layers = ChildrenOf<Layer>(*instrument);
    for (size_t l = 0; l < layers.size(); ++l)
      for (const Region* region : ChildrenOf<Region>(*layers[l])) {
        const Waveform* wave = region->GetWave();
        auto at = wave ? firstPoolIndex.find(wave) : firstPoolIndex.end();
        if (at == firstPoolIndex.end()) continue;
        if (pool[at->second].side >= 0) {
          regions.push_back({region, at->second, 0, uint16_t(l)});
          regions.push_back({region, at->second + 1, 1, uint16_t(l)});
        } else {
          regions.push_back({region, at->second, -1, uint16_t(l)});
        }
      }
    const bool drum = instrument->IsDrumKit();
    if (level == 1) {
      const size_t limit = drum ? kLevel1DrumRegions : kLevel1MelodicRegions;
      if (regions.size() > limit) {
        if (!asked) {
          asked = true;
          writeAll = Ui().Ask("Question", kRegionLimitQuestion, {"Yes", "No"}) == 0;
        }
        if (!writeAll) regions.resize(limit);
      }
    }

    // Instrument-level blocks; level 1 melodic instruments keep no region lists, so theirs come from the
    // first region, whose values are complete.
    const bool regionLists = level >= 2 || drum;
    std::vector<DlsConnection> instrumentBlocks =
        (!regionLists && !regions.empty()) ? ConnectionsOf(regions.front().region->articulation, level)
                                           : ConnectionsOf(instrument->articulation, level);

    const size_t ins = riff.Open(FourCC("LIST"));
    riff.Body().Append("ins ");
    ByteWriter header;
    header.U32(uint32_t(regions.size()));
    header.U32((drum ? kDrumBit : 0) | uint32_t(instrument->MajorBank()) << 8 | uint32_t(instrument->MinorBank()));
    header.U32(uint32_t(instrument->Program()));
    riff.Chunk(FourCC("insh"), header.Bytes().data(), header.Size());
    const size_t lrgn = riff.Open(FourCC("LIST"));
    riff.Body().Append("lrgn");
    for (const RegionOut& r : regions) {
      const Region& region = *r.region;
      const Waveform& wave = *region.GetWave();
      const size_t rgn = riff.Open(FourCC("LIST"));
      riff.Body().Append(level == 1 ? "rgn " : "rgn2");
      ByteWriter rgnh;
      rgnh.U16(region.range.loKey);
      rgnh.U16(region.range.hiKey);
      rgnh.U16(region.range.loVelocity);
      rgnh.U16(region.range.hiVelocity);
      rgnh.U16(region.GetParam(kNoteExclusion) != 0.0f ? 1 : 0);
      rgnh.U16(uint16_t(region.GetParam(kKeyGroup)));
      if (level >= 2) rgnh.U16(r.layer);
      riff.Chunk(FourCC("rgnh"), rgnh.Bytes().data(), rgnh.Size());
      PutWaveSample(riff, region.EffectiveRootKey(), wave.fineTune, wave.gain, region.EffectiveLoop(),
                    wave.Data() ? wave.Data()->frames : wave.length, level >= 2);
      ByteWriter wlnk;
      const bool split = r.side >= 0;
      wlnk.U16(split && r.side == 0 ? 1 : region.phaseMaster ? 1 : 0);
      wlnk.U16(split ? uint16_t(1 + r.poolIndex / 2) : region.phaseGroup);
      wlnk.U32(split && r.side == 1 ? 2 : 1);
      wlnk.U32(r.poolIndex);
      riff.Chunk(FourCC("wlnk"), wlnk.Bytes().data(), wlnk.Size());
      if (regionLists) {
        Articulation art = region.articulation;
        if (split) art.Set(kPan, r.side == 0 ? -1.0f : 1.0f);
        const std::vector<DlsConnection> blocks = ConnectionsOf(art, level);
        if (!SameBlocks(blocks, instrumentBlocks)) PutConnections(riff, blocks, level);
      }
      riff.Close(rgn);
    }
    riff.Close(lrgn);
    PutConnections(riff, instrumentBlocks, level);
    PutInfo(riff, instrument, instrument->GetName(), false);
    riff.Close(ins);
  }
  riff.Close(lins);

  // The pool after its table; the table's offsets count from the first byte after "wvpl".
  const size_t ptbl = riff.Open(FourCC("ptbl"));
  riff.Body().U32(8);
  riff.Body().U32(uint32_t(pool.size()));
  const size_t offsetsAt = riff.Body().Size();
  riff.Body().Fill(0, pool.size() * 4);
  riff.Close(ptbl);
  const size_t wvpl = riff.Open(FourCC("LIST"));
  riff.Body().Append("wvpl");
  const size_t poolBody = riff.Body().Size();
  for (size_t w = 0; w < pool.size(); ++w) {
    const uint32_t offset = uint32_t(riff.Body().Size() - poolBody);
    for (int b = 0; b < 4; ++b) riff.Bytes()[offsetsAt + w * 4 + size_t(b)] = uint8_t(offset >> (8 * b));
    Waveform& wave = *pool[w].wave;
    SetStatus("Writing: " + wave.GetName(), StatusMode::ProgressLabel);
    if (!PutWave(riff, wave, wave.GetName(), options, level)) {
      // The wave is left out of the pool; its regions then name a missing cue.
      Ui().Warn("Error!", LastError());
      for (int b = 0; b < 4; ++b) riff.Bytes()[offsetsAt + w * 4 + size_t(b)] = 0xFF;
    }
  }
  riff.Close(wvpl);
  const TextItem* texts = item->Type() == ItemType::Collection || item->Type() == ItemType::Instrument
                              ? static_cast<const TextItem*>(item)
                              : nullptr;
  std::string bankName = item->Type() == ItemType::Collection ? view.Owner().GetName() : item->GetName();
  PutInfo(riff, texts, bankName, true);
  riff.UpdateOuterSize();
  if (riff.Bytes().size() - 8 > 0xFFFFFFFFull) return Fail("Wave too big - use 64-bit version!");
  out = std::move(riff.Bytes());
  return true;
}

bool WriteDls(Item* item, FileObject* file, const SaveOptions* options) {
  SaveOptions chosen = options ? *options : SaveOptions{};
  std::vector<uint8_t> image;
  if (!BuildDlsImage(item, chosen, int(chosen.variant ? chosen.variant : 2), image)) return false;
  if (!file->Write(image.data(), image.size())) return Fail("Writing to file failed");
  return true;
}

}  // namespace orlin
