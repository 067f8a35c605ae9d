// Compiling an Instrument into a SynthInstrument: fades widened so they centre on the nominal
// edges, the wave's tuning and gain folded into the parameters, phase groups copied from their
// master, left/right pairs fused into one stereo region, and samples registered in the cache.
#include "synth/synth_instrument.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/last_error.h"

namespace orlin::synth {

namespace {
constexpr ParamId kParamPanId = 51;
constexpr ParamId kParamCc10Depth = 52;
constexpr ParamId kParamFirstSend = 57;
constexpr int kFirstPitchEnvelopeRow = 108;  // P-ENV rows 108-134
constexpr int kFirstPitchLfoRow = 65;        // P-LFO rows 65-68
constexpr int kFirstCrossLfoRow = 77;        // X-LFO rows 77-80
constexpr uint32_t kRightKeyShift = 32;      // the right wave of a fused pair keys the top half
}  // namespace

SampleCache::~SampleCache() {
  for (auto& [key, entry] : entries_)
    if (entry->data) entry->data->Release();
}

size_t SampleCache::Size() const {
  std::lock_guard<std::mutex> guard(lock_);
  return entries_.size();
}

SampleCacheEntry* SampleCache::Acquire(Waveform& left, Waveform* right) {
  const uint64_t key = uint64_t(left.id & kIndexMask) | (right ? uint64_t(right->id & kIndexMask) + 1 : 0) << kRightKeyShift;
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto found = entries_.find(key);
    if (found != entries_.end()) {
      ++found->second->referenceCount;
      return found->second.get();
    }
  }
  // Decoding happens outside the lock: it may read a file.
  if (!left.GetSamplesForRead() || !left.Data()) return nullptr;
  WaveData* data = left.Data();
  if (right) {
    if (!right->GetSamplesForRead() || !right->Data()) return nullptr;
    // The pair is interleaved once, left first; the shorter side is padded with silence.
    const WaveData* l = left.Data();
    const WaveData* r = right->Data();
    const uint32_t frames = std::max(l->frames, r->frames);
    WaveData* fused = WaveData::Create(frames, 2, l->rate, true);
    if (!fused) {
      SetLastError("Out of memory");
      return nullptr;
    }
    for (uint32_t i = 0; i < l->frames; ++i) fused->samples[2 * i] = l->samples[size_t(i) * l->channels];
    for (uint32_t i = 0; i < r->frames; ++i) fused->samples[2 * i + 1] = r->samples[size_t(i) * r->channels];
    data = fused;
  } else {
    data->AddRef();
  }
  auto entry = std::make_unique<SampleCacheEntry>();
  entry->data = data;
  entry->samples = data->samples;
  entry->frames = data->frames;
  entry->channels = std::clamp<uint32_t>(data->channels, 1, 2);
  entry->rate = left.sampleRate > 0 ? float(left.sampleRate) : data->rate;
  entry->referenceCount = 1;
  std::lock_guard<std::mutex> guard(lock_);
  auto [slot, inserted] = entries_.emplace(key, std::move(entry));
  if (!inserted) {
    // Another thread made it meanwhile: keep theirs.
    ++slot->second->referenceCount;
  }
  return slot->second.get();
}

void SampleCache::Release(SampleCacheEntry* entry) {
  if (!entry) return;
  std::lock_guard<std::mutex> guard(lock_);
  if (--entry->referenceCount > 0) return;
  for (auto it = entries_.begin(); it != entries_.end(); ++it)
    if (it->second.get() == entry) {
      if (entry->data) entry->data->Release();
      entries_.erase(it);
      return;
    }
}

bool SynthRegion::SameRectangle(const SynthRegion& other) const {
  return loKey == other.loKey && hiKey == other.hiKey && loVelocity == other.loVelocity &&
         hiVelocity == other.hiVelocity && keyFadeIn == other.keyFadeIn && keyFadeOut == other.keyFadeOut &&
         velocityFadeIn == other.velocityFadeIn && velocityFadeOut == other.velocityFadeOut &&
         keyFadeFormula == other.keyFadeFormula && velocityFadeFormula == other.velocityFadeFormula &&
         triggerType == other.triggerType && sustainSwitch == other.sustainSwitch &&
         exclusionGroup == other.exclusionGroup && exclusionMode == other.exclusionMode;
}

void WidenRange(int16_t& lo, int16_t& hi, int16_t& fadeIn, int16_t& fadeOut, int limit) {
  // a..b is the fade-in ramp and c..d the fade-out ramp, centred on the nominal edges.
  int a = lo - 1, d = hi + 1;
  int in = fadeIn, out = fadeOut;
  if (in != 0) a = lo - (in / 2 + 1);
  if (out != 0) d = hi + out - out / 2 + 1;
  if (a < -1) {
    in += a + 1;  // the ramp loses what lies below the keyboard
    a = -1;
  }
  if (d > limit + 1) {
    out -= d - (limit + 1);
    d = limit + 1;
  }
  lo = int16_t(a + 1);
  hi = int16_t(d - 1);
  fadeIn = int16_t(std::max(in, 0));
  fadeOut = int16_t(std::max(out, 0));
}

namespace {

// Values 0-188 equal when the pans are set aside, and every non-value field equal.
bool FusableValues(const SynthRegion& left, const SynthRegion& right) {
  for (int id = 0; id < kArticulationParamCount; ++id)
    if (id != kParamPanId && left.values[size_t(id)] != right.values[size_t(id)]) return false;
  return left.SameRectangle(right) && left.delaySeconds == right.delaySeconds && left.loopType == right.loopType &&
         left.loopRelease == right.loopRelease && left.loopStart == right.loopStart && left.loopEnd == right.loopEnd &&
         left.loopTune == right.loopTune && left.startOffset == right.startOffset &&
         left.endOffset == right.endOffset && left.phaseGroup == right.phaseGroup;
}

void CopyRows(SynthRegion& to, const SynthRegion& from, int first, int count) {
  std::copy_n(from.values.begin() + first, count, to.values.begin() + first);
}

}  // namespace

void CompileInstrument(const Instrument& instrument, SampleCache& cache, SynthInstrument& out) {
  out.regions.clear();
  out.name = instrument.GetName().substr(0, 79);
  out.patch = instrument.patch;
  out.ownerId = instrument.id;
  out.effectSlots = instrument.effectSlots;
  std::vector<Waveform*> waves;   // per compiled region
  for (Layer* layer : ChildrenOf<Layer>(instrument)) {
    for (Region* region : ChildrenOf<Region>(*layer)) {
      SynthRegion r;
      r.ownerId = region->id;
      const TriggerRange& range = region->range;
      auto trigger = [&](ParamId id) { return region->GetParam(id); };
      r.loKey = range.loKey, r.hiKey = range.hiKey, r.loVelocity = range.loVelocity, r.hiVelocity = range.hiVelocity;
      r.keyFadeIn = int16_t(trigger(194)), r.keyFadeOut = int16_t(trigger(195));
      r.velocityFadeIn = int16_t(trigger(197)), r.velocityFadeOut = int16_t(trigger(198));
      WidenRange(r.loKey, r.hiKey, r.keyFadeIn, r.keyFadeOut, 127);
      WidenRange(r.loVelocity, r.hiVelocity, r.velocityFadeIn, r.velocityFadeOut, 127);
      r.keyFadeFormula = uint8_t(trigger(196)), r.velocityFadeFormula = uint8_t(trigger(199));
      r.triggerType = uint8_t(trigger(189));
      r.sustainSwitch = uint8_t(trigger(200));
      r.delaySeconds = trigger(201);
      r.exclusionGroup = uint16_t(trigger(202));
      r.exclusionMode = uint8_t(trigger(203));
      std::copy_n(region->articulation.Values(), kArticulationParamCount, r.values.begin());

      Waveform* wave = nullptr;
      if (SynthesisModel* model = region->GetSynthesisModel()) {
        // FM and LA voices have their own generators; this engine plays sampled voices only.
        r.tag = model->modelKind == 1 ? kTagFm : kTagLa;
        continue;
      }
      wave = region->GetWave();
      if (!wave) continue;
      r.tag = kTagWave;
      // The wave's own tuning and gain, folded into the values the voice reads.
      const int root = region->EffectiveRootKey();
      r.values[kParamMasterTune] += float(wave->fineTune) / 100.0f + float(60 - root) * r.values[1];
      r.values[kParamMasterVolume] += wave->gain;
      const LoopInfo loop = region->EffectiveLoop();
      r.loopType = loop.type;
      r.loopRelease = loop.release;
      r.loopStart = loop.start;
      r.loopEnd = loop.end == kLoopEndUnset ? double(wave->length) : double(loop.end);
      r.loopTune = loop.tune;
      r.startOffset = std::max(region->startOffset, 0);
      r.endOffset = std::min(region->endOffset, 0);
      r.phaseGroup = region->phaseGroup;
      r.phaseMaster = region->phaseMaster;
      out.regions.push_back(r);
      waves.push_back(wave);
    }
  }

  // Phase groups: members take the pitch rows of their group's master of the same rectangle.
  for (size_t i = 0; i < out.regions.size(); ++i) {
    SynthRegion& member = out.regions[i];
    if (!member.phaseGroup || member.phaseMaster) continue;
    for (const SynthRegion& master : out.regions) {
      if (!master.phaseMaster || master.phaseGroup != member.phaseGroup || !master.SameRectangle(member)) continue;
      if (master.values[11] != 0.0f || master.values[12] != 0.0f) CopyRows(member, master, kFirstPitchEnvelopeRow, 27);
      if (master.values[7] != 0.0f || master.values[8] != 0.0f || master.values[9] != 0.0f ||
          master.values[10] != 0.0f)
        CopyRows(member, master, kFirstCrossLfoRow, 4);
      CopyRows(member, master, kFirstPitchLfoRow, 4);
      CopyRows(member, master, 0, 14);
      break;
    }
  }

  // Left/right pairs: a mono wave panned left and a mono wave panned right by the same amount, at one
  // rate, with everything else equal, play as one stereo voice.
  std::vector<Waveform*> rightOf(out.regions.size(), nullptr);
  std::vector<bool> dropped(out.regions.size(), false);
  for (size_t i = 0; i < out.regions.size(); ++i) {
    SynthRegion& left = out.regions[i];
    const float p = left.values[kParamPanId];
    if (dropped[i] || p >= 0.0f || waves[i]->channels != 1) continue;
    for (size_t j = i + 1; j < out.regions.size(); ++j) {
      const SynthRegion& right = out.regions[j];
      if (dropped[j] || rightOf[j] || right.values[kParamPanId] != -p || waves[j]->channels != 1 ||
          waves[j]->sampleRate != waves[i]->sampleRate || !FusableValues(left, right))
        continue;
      rightOf[i] = waves[j];
      dropped[j] = true;
      // At the centre the equal-power law gives each side cos(pi/4); the pair panned apart gave each
      // wave cos(pi (1 - |p|) / 4) on its own side. The difference goes into the volume, so fusing
      // keeps the level (at |p| = 1, +3.01 dB).
      left.values[kParamMasterVolume] +=
          20.0f * std::log10(std::cos(float(M_PI) * (1.0f + p) / 4.0f) / std::cos(float(M_PI) / 4.0f));
      left.values[kParamPanId] = 0.0f;
      left.stereoFused = true;
      break;
    }
  }

  std::vector<SynthRegion> kept;
  kept.reserve(out.regions.size());
  for (size_t i = 0; i < out.regions.size(); ++i) {
    if (dropped[i]) continue;
    SynthRegion& r = out.regions[i];
    r.sample = cache.Acquire(*waves[i], rightOf[i]);
    r.waveKey = uint64_t(waves[i]->id & kIndexMask) | (rightOf[i] ? uint64_t(rightOf[i]->id & kIndexMask) + 1 : 0) << kRightKeyShift;
    r.pan = r.values[kParamPanId];
    r.cc10Depth = r.values[kParamCc10Depth];
    for (int s = 0; s < 4; ++s) {
      r.sendLevels[size_t(s)] = r.values[size_t(kParamFirstSend + 2 * s)];
      r.sendDepths[size_t(s)] = r.values[size_t(kParamFirstSend + 2 * s + 1)];
    }
    kept.push_back(r);
  }
  out.regions = std::move(kept);
}

void ReleaseInstrumentSamples(SynthInstrument& instrument, SampleCache& cache) {
  for (SynthRegion& region : instrument.regions) {
    cache.Release(region.sample);
    region.sample = nullptr;
  }
}

}  // namespace orlin::synth
