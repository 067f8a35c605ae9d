// Writing GigaStudio banks. GigaStudio regions may not overlap on the keyboard, so the model's regions
// are cut at every key boundary into spans that the same regions cover; within a span, regions whose
// velocities overlap go to separate zones of a layer dimension, velocity ranges become the zones of a
// velocity dimension (with their upper limits), and a stereo wave adds the sample-channel dimension.
// Waves are stored plain (16 or 24-bit); the "Compressed" rows store them in the format's frames of
// mode 0, which every reader of packed waves takes. Version 2 files have 5 dimensions and 32 dimension
// regions a region, version 3 files 8 and 256.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <set>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/text.h"
#include "core/user_interface.h"
#include "formats/audio/wav.h"
#include "formats/common/riff.h"
#include "formats/common/save_view.h"
#include "formats/instrument/gig/gig.h"

namespace orlin {

namespace {

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

constexpr uint8_t kDimSampleChannel = 0x80, kDimLayer = 0x81, kDimVelocity = 0x82;
constexpr uint32_t kNoSample = 0xFFFFFFFF;
constexpr int kMaxLayers = 8;
constexpr uint32_t kFramesPerPackedFrame = 2048;

struct Options {
  bool version3 = true;
  bool packed = false;
};

int BitsFor(size_t count) {
  int bits = 0;
  while ((size_t(1) << bits) < count) ++bits;
  return bits;
}

void PutName(RiffWriter& riff, const std::string& name) {
  const size_t info = riff.Open(FourCC("LIST"));
  riff.Body().Append("INFO");
  std::string narrow = Utf8ToNarrow(name);
  narrow.push_back('\0');
  riff.Chunk(FourCC("INAM"), narrow.data(), narrow.size());
  riff.Close(info);
}

int32_t Timecents(double seconds) {
  if (seconds <= 0.0) return int32_t(0x80000000);
  return int32_t(std::clamp(std::round(std::log2(seconds) * 1200.0 * 65536.0), -2147483647.0, 2147483646.0));
}

// One dimension region's 3ewa: the envelope of the region, its pan, and the velocity zone's upper limit.
std::vector<uint8_t> DimensionBlock(const Region* region, const Options& options, int velocitySlot, int upperLimit) {
  std::vector<uint8_t> ewa(options.version3 ? 148 : 140, 0);
  auto put32 = [&](size_t at, uint32_t value) { for (int b = 0; b < 4; ++b) ewa[at + size_t(b)] = uint8_t(value >> (8 * b)); };
  auto put16 = [&](size_t at, uint16_t value) { ewa[at] = uint8_t(value), ewa[at + 1] = uint8_t(value >> 8); };
  put32(0, uint32_t(ewa.size()));
  const Articulation* art = region ? &region->articulation : nullptr;
  auto get = [&](ParamId id, float fallback) { return art ? art->Get(id) : fallback; };
  put32(28, uint32_t(Timecents(get(kParamFirstEnvelope + 5, 0.0f))));   // attack
  put32(32, uint32_t(Timecents(get(kParamFirstEnvelope + 13, 0.0f))));  // decay 1
  // The sustain is a linear level in thousandths; the model's is decibels over 96.
  const double level = get(kParamFirstEnvelope + 16, 1.0f);
  put16(38, uint16_t(std::lround(level <= 0.0 ? 0.0 : std::pow(10.0, (level - 1.0) * 96.0 / 20.0) * 1000.0)));
  put32(40, uint32_t(Timecents(std::max(0.001f, get(kParamFirstEnvelope + 17, 0.0f)))));  // release
  put32(80, 0x7FFFFFFF);  // decay 2 never ends: the sustain holds
  put32(88, 0x7FFFFFFF);
  ewa[96] = 3;            // velocity response: non-linear, depth 3, the format's default
  ewa[97] = 3;
  ewa[98] = 32;
  const int pan = int(std::lround(std::clamp(get(51, 0.0f), -1.0f, 1.0f) * 63.0f));
  ewa[109] = uint8_t(pan >= 0 ? pan : -pan + 63);
  if (!options.version3 && velocitySlot >= 0) ewa[124] = uint8_t(upperLimit);
  if (options.version3) {
    for (int d = 0; d < 8; ++d) ewa[140 + size_t(d)] = 127;
    if (velocitySlot >= 0) ewa[140 + size_t(velocitySlot)] = uint8_t(upperLimit);
  }
  return ewa;
}

void PutSample(RiffWriter& riff, const Region* region, int poolFineTune) {
  ByteWriter w;
  const LoopInfo loop = region ? region->EffectiveLoop() : LoopInfo();
  const bool looped = region && loop.type != 0 && loop.end != kLoopEndUnset && loop.end > loop.start;
  w.U32(20);
  w.U16(region ? region->EffectiveRootKey() : 60);
  const float tune = region ? region->articulation.Get(kParamMasterTune) * 100.0f : 0.0f;
  w.U16(uint16_t(int16_t(std::clamp<long>(std::lround(poolFineTune + tune), -32768, 32767))));
  // The wave's gain and the region's volume, in 1/655360 dB.
  const double gain = region ? double(region->GetWave()->gain) + region->articulation.Get(kParamMasterVolume) : 0.0;
  w.U32(uint32_t(int32_t(std::clamp(std::round(gain * 655360.0), -2147483648.0, 2147483647.0))));
  w.U32(0);
  w.U32(looped ? 1 : 0);
  if (looped) {
    w.U32(16);
    w.U32(loop.release ? 1 : 0);
    w.U32(uint32_t(std::floor(loop.start + 0.5f)));
    w.U32(uint32_t(std::max(1.0, std::floor(double(loop.end) - loop.start + 0.5))));
  }
  riff.Chunk(FourCC("wsmp"), w.Bytes().data(), w.Size());
}

// The model's regions of one instrument cut into key spans that the same regions cover.
struct Span {
  int loKey, hiKey;
  std::vector<const Region*> regions;
};

std::vector<Span> KeySpans(const std::vector<const Region*>& regions) {
  std::set<int> cuts = {0, 128};
  for (const Region* r : regions) cuts.insert({r->range.loKey, r->range.hiKey + 1});
  std::vector<Span> spans;
  for (auto at = cuts.begin(); std::next(at) != cuts.end(); ++at) {
    Span span{*at, *std::next(at) - 1, {}};
    for (const Region* r : regions)
      if (r->range.loKey <= span.loKey && r->range.hiKey >= span.hiKey) span.regions.push_back(r);
    if (span.regions.empty()) continue;
    if (!spans.empty() && spans.back().hiKey + 1 == span.loKey && spans.back().regions == span.regions)
      spans.back().hiKey = span.hiKey;
    else
      spans.push_back(span);
  }
  return spans;
}

bool WriteGigBank(Item* item, FileObject* file, const SaveOptions* saveOptions, Options options) {
  if (!item || item->Type() == ItemType::Song || item->Type() == ItemType::Track)
    return Fail("The file format can not save this item");
  SaveView view(item);
  const SaveOptions chosen = saveOptions ? *saveOptions : SaveOptions{};
  std::map<const Waveform*, uint32_t> poolIndex;
  for (Waveform* wave : view.Waveforms()) poolIndex.emplace(wave, uint32_t(poolIndex.size()));

  RiffWriter riff;
  riff.Begin(FourCC("RIFF"), FourCC("DLS "));
  ByteWriter version;
  version.U32(options.version3 ? 0x00030000 : 0x00020000);
  version.U32(0);
  riff.Chunk(FourCC("vers"), version.Bytes().data(), version.Size());
  ByteWriter colh;
  colh.U32(uint32_t(view.Instruments().size()));
  riff.Chunk(FourCC("colh"), colh.Bytes().data(), colh.Size());

  bool warned = false;
  const size_t lins = riff.Open(FourCC("LIST"));
  riff.Body().Append("lins");
  for (Instrument* instrument : view.Instruments()) {
    std::vector<const Region*> regions;
    for (Layer* layer : ChildrenOf<Layer>(*instrument))
      for (Region* region : ChildrenOf<Region>(*layer))
        if (region->GetWave() && poolIndex.count(region->GetWave())) regions.push_back(region);
    const std::vector<Span> spans = KeySpans(regions);
    const size_t ins = riff.Open(FourCC("LIST"));
    riff.Body().Append("ins ");
    PutName(riff, instrument->GetName());
    ByteWriter insh;
    insh.U32(uint32_t(spans.size()));
    insh.U32((instrument->IsDrumKit() ? 0x80000000u : 0) | uint32_t(instrument->MajorBank()) << 8 |
             uint32_t(instrument->MinorBank()));
    insh.U32(uint32_t(instrument->Program()));
    riff.Chunk(FourCC("insh"), insh.Bytes().data(), insh.Size());
    const size_t lrgn = riff.Open(FourCC("LIST"));
    riff.Body().Append("lrgn");
    for (const Span& span : spans) {
      // Layers: regions whose velocities overlap cannot share one.
      std::vector<std::vector<const Region*>> layers;
      std::vector<const Region*> byVelocity = span.regions;
      std::stable_sort(byVelocity.begin(), byVelocity.end(),
                       [](const Region* a, const Region* b) { return a->range.loVelocity < b->range.loVelocity; });
      for (const Region* r : byVelocity) {
        auto fits = [&](const std::vector<const Region*>& layer) {
          for (const Region* other : layer)
            if (r->range.loVelocity <= other->range.hiVelocity && other->range.loVelocity <= r->range.hiVelocity)
              return false;
          return true;
        };
        auto layer = std::find_if(layers.begin(), layers.end(), fits);
        if (layer != layers.end()) layer->push_back(r);
        else if (layers.size() < kMaxLayers) layers.push_back({r});
        else if (!warned) {
          warned = true;
          Ui().Warn("Warning", "More than 8 layers overlap on some keys: the regions beyond are left out");
        }
      }
      // Velocity zones: every range boundary of the span's regions.
      std::set<int> cuts = {0, 128};
      for (const Region* r : span.regions) cuts.insert({r->range.loVelocity, r->range.hiVelocity + 1});
      std::vector<int> uppers;
      for (auto at = std::next(cuts.begin()); at != cuts.end(); ++at) uppers.push_back(*at - 1);
      bool stereo = false;
      for (const Region* r : span.regions) stereo = stereo || r->GetWave()->channels == 2;
      struct Dim { uint8_t type; int bits; int zones; };
      std::vector<Dim> dims;
      if (stereo) dims.push_back({kDimSampleChannel, 1, 2});
      if (layers.size() > 1) dims.push_back({kDimLayer, BitsFor(layers.size()), int(layers.size())});
      if (uppers.size() > 1) dims.push_back({kDimVelocity, BitsFor(uppers.size()), int(uppers.size())});
      int totalBits = 0;
      for (const Dim& d : dims) totalBits += d.bits;
      const int maxBits = options.version3 ? 8 : 5;
      while (totalBits > maxBits && uppers.size() > 1) {  // too many zones: merge the narrowest away
        uppers.erase(uppers.begin());
        dims.back().zones = int(uppers.size());
        totalBits -= dims.back().bits;
        dims.back().bits = BitsFor(uppers.size());
        totalBits += dims.back().bits;
      }
      const uint32_t count = 1u << totalBits;

      const size_t rgn = riff.Open(FourCC("LIST"));
      riff.Body().Append("rgn ");
      ByteWriter rgnh;
      for (int v : {span.loKey, span.hiKey, 0, 127, 1, int(span.regions.front()->GetParam(202))}) rgnh.U16(uint16_t(v));
      riff.Chunk(FourCC("rgnh"), rgnh.Bytes().data(), rgnh.Size());
      const Region* first = layers.empty() || layers[0].empty() ? nullptr : layers[0][0];
      PutSample(riff, first, first ? first->GetWave()->fineTune : 0);
      ByteWriter wlnk;
      wlnk.U16(0);
      wlnk.U16(0);
      wlnk.U32(1);
      wlnk.U32(first ? poolIndex[first->GetWave()] : 0);
      riff.Chunk(FourCC("wlnk"), wlnk.Bytes().data(), wlnk.Size());

      // Each dimension region: its layer and velocity zone pick the model region that plays.
      std::vector<const Region*> picked(count, nullptr);
      std::vector<int> zoneOf(count, 0);
      for (uint32_t i = 0; i < count; ++i) {
        int position = 0, layer = 0, zone = 0;
        bool valid = true;
        for (const Dim& d : dims) {
          const int value = int((i >> position) & ((1u << d.bits) - 1));
          if (value >= d.zones) valid = false;
          if (d.type == kDimLayer) layer = value;
          if (d.type == kDimVelocity) zone = value;
          position += d.bits;
        }
        if (!valid || layer >= int(layers.size())) continue;
        zoneOf[i] = zone;
        const int lo = zone == 0 ? 0 : uppers[size_t(zone) - 1] + 1, hi = uppers[size_t(zone)];
        for (const Region* r : layers[size_t(layer)])
          if (r->range.loVelocity <= lo && r->range.hiVelocity >= hi) picked[i] = r;
      }
      ByteWriter link;
      link.U32(count);
      int position = 0;
      for (int d = 0; d < (options.version3 ? 8 : 5); ++d) {
        if (d < int(dims.size())) {
          const Dim& dim = dims[size_t(d)];
          link.U8(dim.type);
          link.U8(uint8_t(dim.bits));
          link.U8(uint8_t(position));
          link.U8(uint8_t((1u << (position + dim.bits)) - (1u << position)));
          link.U8(uint8_t(dim.zones));
          link.Fill(0, 3);
          position += dim.bits;
        } else {
          link.Fill(0, 8);
        }
      }
      link.Bytes().resize(options.version3 ? 68 : 44, 0);
      for (uint32_t i = 0; i < (options.version3 ? 256u : 32u); ++i)
        link.U32(i < count && picked[i] ? poolIndex[picked[i]->GetWave()] : kNoSample);
      riff.Chunk(FourCC("3lnk"), link.Bytes().data(), link.Size());
      int velocitySlot = -1;
      for (size_t d = 0; d < dims.size(); ++d)
        if (dims[d].type == kDimVelocity) velocitySlot = int(d);
      const size_t prg = riff.Open(FourCC("LIST"));
      riff.Body().Append("3prg");
      for (uint32_t i = 0; i < count; ++i) {
        const size_t ewl = riff.Open(FourCC("LIST"));
        riff.Body().Append("3ewl");
        PutSample(riff, picked[i], picked[i] ? picked[i]->GetWave()->fineTune : 0);
        const std::vector<uint8_t> ewa = DimensionBlock(picked[i], options, velocitySlot, uppers[size_t(zoneOf[i])]);
        riff.Chunk(FourCC("3ewa"), ewa.data(), ewa.size());
        riff.Close(ewl);
      }
      riff.Close(prg);
      riff.Close(rgn);
    }
    riff.Close(lrgn);
    riff.Close(ins);
  }
  riff.Close(lins);

  // One sample group, which every wave names.
  const size_t gri = riff.Open(FourCC("LIST"));
  riff.Body().Append("3gri");
  const size_t gnl = riff.Open(FourCC("LIST"));
  riff.Body().Append("3gnl");
  char group[64] = "Default Group";
  riff.Chunk(FourCC("3gnm"), group, sizeof group);
  riff.Close(gnl);
  riff.Close(gri);

  const size_t ptbl = riff.Open(FourCC("ptbl"));
  riff.Body().U32(8);
  riff.Body().U32(uint32_t(view.Waveforms().size()));
  const size_t offsetsAt = riff.Body().Size();
  riff.Body().Fill(0, view.Waveforms().size() * 4);
  riff.Close(ptbl);
  const size_t wvpl = riff.Open(FourCC("LIST"));
  riff.Body().Append("wvpl");
  const size_t poolBody = riff.Body().Size();
  for (size_t w = 0; w < view.Waveforms().size(); ++w) {
    Waveform& wave = *view.Waveforms()[w];
    const uint32_t offset = uint32_t(riff.Body().Size() - poolBody);
    riff.Body().PatchU32(offsetsAt + 4 * w, offset);
    SetStatus("Writing: " + wave.GetName(), StatusMode::ProgressLabel);
    WaveWriteParams params;
    params.caps = (chosen.caps ? chosen.caps : 0x00300014) & ~kCapsDualMonoOnly;
    std::vector<uint8_t> image;
    if (!WriteWaveToMemory(wave, image, params)) return false;
    ByteReader reader(image);
    reader.Skip(12);
    ByteReader fmt, data;
    while (reader.CanRead(8)) {
      const uint32_t id = reader.U32();
      const uint32_t size = reader.U32();
      ByteReader body = reader.Sub(size);
      reader.Skip(std::min<size_t>(size & 1, reader.Remaining()));
      if (id == FourCC("fmt ")) fmt = body;
      if (id == FourCC("data")) data = body;
    }
    ByteReader fmtFields = fmt;
    fmtFields.Skip(2);
    const uint32_t channels = fmtFields.U16();
    fmtFields.Skip(10);
    const uint32_t bits = fmtFields.U16();
    const size_t list = riff.Open(FourCC("LIST"));
    riff.Body().Append("wave");
    riff.Chunk(FourCC("fmt "), fmt.Data(), fmt.Size());
    if (options.packed && bits == 16) {
      // Frames of mode 0: a mode byte a channel, then the frame's samples as they are.
      ByteWriter version2;
      version2.U32(2);
      riff.Chunk(FourCC("ewav"), version2.Bytes().data(), version2.Size());
      const size_t chunk = riff.Open(FourCC("data"));
      const size_t frameBytes = size_t(kFramesPerPackedFrame) * 2 * channels;
      for (size_t at = 0; at < data.Size(); at += frameBytes) {
        riff.Body().Fill(0, channels);
        riff.Body().Append(data.Data() + at, std::min(frameBytes, data.Size() - at));
      }
      riff.Close(chunk);
    } else {
      riff.Chunk(FourCC("data"), data.Data(), data.Size());
    }
    std::vector<uint8_t> smpl = SamplerChunkBody(wave);
    smpl.resize(std::max<size_t>(smpl.size(), 60), 0);  // readers take the loop record whether or not one is counted
    riff.Chunk(FourCC("smpl"), smpl.data(), smpl.size());
    ByteWriter gix;
    gix.U16(0);
    gix.U16(0);
    riff.Chunk(FourCC("3gix"), gix.Bytes().data(), gix.Size());
    PutName(riff, wave.GetName());
    riff.Close(list);
  }
  riff.Close(wvpl);
  const size_t info = riff.Open(FourCC("LIST"));
  riff.Body().Append("INFO");
  std::string name = Utf8ToNarrow(item->Type() == ItemType::Collection ? view.Owner().GetName() : item->GetName());
  name.push_back('\0');
  riff.Chunk(FourCC("INAM"), name.data(), name.size());
  const char software[] = "Orlin Studio";
  riff.Chunk(FourCC("ISFT"), software, sizeof software);
  riff.Close(info);
  riff.UpdateOuterSize();
  if (riff.Bytes().size() - 8 > 0xFFFFFFFFull) return Fail("Wave too big - use 64-bit version!");
  if (!file->Write(riff.Bytes().data(), riff.Bytes().size())) return Fail("Writing to file failed");
  return true;
}

}  // namespace

bool WriteGig(Item* item, FileObject* file, const SaveOptions* options) {
  const uint32_t variant = options ? options->variant : 0;
  Options choice;
  choice.version3 = variant == 0 || variant >= 3;
  choice.packed = variant == 2 || variant == 4;
  return WriteGigBank(item, file, options, choice);
}

}  // namespace orlin
