// Sample-rewriting normalisers. Loop points are whole frames here (start inclusive, end exclusive);
// a wave whose samples cannot be decoded is left as it was and reported through the last error.
#include "core/normalisers.h"

#include "core/pcm.h"

#include <algorithm>
#include <map>
#include <unordered_set>
#include <cmath>
#include <cstddef>
#include <vector>

#include "core/collection.h"
#include "core/last_error.h"

namespace orlin {

namespace {

constexpr uint32_t kAppendedFrames = 32;
constexpr ParamId kParamPan = 51;

// Writes `frames` of interleaved samples into the wave, length following.
bool StoreSamples(Waveform& wave, const std::vector<float>& samples) {
  wave.length = uint32_t(samples.size() / wave.channels);
  float* target = wave.AllocSamples();
  if (!target) return false;
  std::copy(samples.begin(), samples.end(), target);
  return true;
}

}  // namespace

bool RewriteLoops(Waveform& wave, bool bidirectionalToForward, bool reverseToForward, bool appendAfterLoop) {
  const bool rewriteType = (wave.loop.type == 2 && reverseToForward) || (wave.loop.type == 3 && bidirectionalToForward);
  if (wave.loop.type == 0 || (!rewriteType && !appendAfterLoop)) return true;
  const float* samples = wave.GetSamplesForWrite();
  if (!samples) {
    if (LastError().empty()) SetLastError("No sample data for " + wave.GetName());
    return false;
  }
  const size_t channels = wave.channels;
  const size_t length = wave.length;
  const size_t start = std::min<size_t>(size_t(std::max(std::lround(wave.loop.start), 0L)), length);
  const size_t end = std::clamp<size_t>(size_t(std::max(std::lround(std::min(wave.loop.end, float(length))), 0L)), start, length);
  if (end - start < 2) return true;
  auto frame = [&](std::vector<float>& out, size_t at) {
    out.insert(out.end(), samples + at * channels, samples + (at + 1) * channels);
  };
  std::vector<float> out;
  out.reserve((length + (end - start) + kAppendedFrames) * channels);
  for (size_t i = 0; i < start; ++i) frame(out, i);
  size_t newEnd = end;
  if (wave.loop.type == 2 && reverseToForward) {
    for (size_t i = end; i-- > start;) frame(out, i);
    wave.loop.type = 1;
  } else if (wave.loop.type == 3 && bidirectionalToForward) {
    for (size_t i = start; i < end; ++i) frame(out, i);
    // The way back leaves out both turning points, which the forward pass plays.
    for (size_t i = end - 2; i > start; --i) frame(out, i);
    newEnd = end + (end - start) - 2;
    wave.loop.type = 1;
  } else {
    for (size_t i = start; i < end; ++i) frame(out, i);
  }
  if (appendAfterLoop) {
    // The loop goes on past its end, so an interpolating reader finds the right neighbours.
    const size_t loopStart = start;
    const size_t loopFrames = newEnd - start;
    std::vector<float> loopCopy(out.begin() + std::ptrdiff_t(loopStart * channels), out.end());
    for (size_t i = 0; i < kAppendedFrames; ++i)
      out.insert(out.end(), loopCopy.begin() + std::ptrdiff_t((i % loopFrames) * channels),
                 loopCopy.begin() + std::ptrdiff_t((i % loopFrames + 1) * channels));
  }
  for (size_t i = end; i < length; ++i) frame(out, i);
  const LoopInfo loop = wave.loop;
  if (!StoreSamples(wave, out)) return false;
  wave.loop = loop;
  wave.loop.start = float(start);
  wave.loop.end = float(newEnd);
  return true;
}

int SplitStereo(Collection& collection) {
  int split = 0;
  for (Waveform* wave : collection.All<Waveform>().ToVector()) {
    if (wave->channels != 2) continue;
    const float* samples = wave->GetSamplesForRead();
    if (!samples) continue;
    Waveform* halves[2] = {new Waveform(&collection, *wave, false, ""), new Waveform(&collection, *wave, false, "")};
    bool ok = true;
    for (int side = 0; side < 2; ++side) {
      halves[side]->SetName(wave->GetName() + (side ? " R" : " L"));
      halves[side]->channels = 1;
      halves[side]->decoder = nullptr;
      float* target = halves[side]->AllocSamples();
      if (!target) {
        ok = false;
        break;
      }
      for (uint32_t i = 0; i < wave->length; ++i) target[i] = samples[2 * size_t(i) + size_t(side)];
    }
    if (!ok) {
      delete halves[0];
      delete halves[1];
      continue;
    }
    for (Region* region : collection.All<Region>().ToVector()) {
      auto at = std::find(region->children.begin(), region->children.end(), wave->id);
      if (at == region->children.end()) continue;
      *at = halves[0]->id;
      region->SetParam(kParamPan, -1.0f);
      Instrument* instrument = nullptr;
      if (Layer* layer = collection.Find<Layer>(region->parentId)) instrument = collection.Find<Instrument>(layer->parentId);
      if (!instrument) continue;
      if (Region* right = instrument->AddRegionCopy(*region)) {
        std::replace(right->children.begin(), right->children.end(), halves[0]->id, halves[1]->id);
        right->SetParam(kParamPan, 1.0f);
      }
    }
    delete wave;
    ++split;
  }
  return split;
}

namespace {

// One stereo wave for a left and a right mono wave. Both read by the generic decoder from the same file
// in the same format: the stereo wave reads them as sequential stereo, decoding nothing now. Both already
// decoded: the samples are interleaved now. Otherwise the pair stays dual mono (null).
Waveform* JoinPair(Collection& collection, Waveform& left, Waveform& right) {
  const bool lazy = !left.Data() && !right.Data() && HasGenericDecoder(left) && HasGenericDecoder(right) &&
                    left.sourceFormat == right.sourceFormat && !(left.sourceFormat & kSourceSequentialStereo) &&
                    left.GetSourcePath() == right.GetSourcePath();
  if (!lazy && !(left.Data() && right.Data())) return nullptr;
  auto* stereo = new Waveform(&collection, left, false, "");
  std::string name = left.GetName();
  // "Flute L" and "Flute R" make "Flute".
  if (name.size() > 2 && name[name.size() - 2] == ' ' && (name.back() == 'L' || name.back() == 'l')) name.resize(name.size() - 2);
  stereo->SetName(name);
  stereo->channels = 2;
  if (lazy) {
    stereo->sourceFormat |= kSourceSequentialStereo;
    stereo->sourceOffsetB = right.sourceOffset;
    return stereo;
  }
  stereo->DropData();
  stereo->decoder = nullptr;
  float* target = stereo->AllocSamples();
  if (!target) {
    delete stereo;
    return nullptr;
  }
  const float* l = left.Data()->samples;
  const float* r = right.Data()->samples;
  for (uint32_t i = 0; i < left.length; ++i) {
    target[2 * size_t(i)] = l[i];
    target[2 * size_t(i) + 1] = r[i];
  }
  return stereo;
}

}  // namespace

int MergeDualMono(Collection& collection) {
  int merged = 0;
  // A bank plays one sample pair from many regions: each pair becomes one stereo wave, once.
  std::map<std::pair<uint32_t, uint32_t>, Waveform*> joined;
  std::vector<Waveform*> replaced;
  for (Instrument* instrument : collection.All<Instrument>().ToVector()) {
    std::vector<Region*> regions;
    for (Layer* layer : ChildrenOf<Layer>(*instrument))
      for (Region* region : ChildrenOf<Region>(*layer)) regions.push_back(region);
    for (Region* left : regions) {
      if (!left || left->GetParam(kParamPan) != -1.0f) continue;
      Waveform* leftWave = left->GetWave();
      if (!leftWave || leftWave->channels != 1) continue;
      for (Region*& right : regions) {
        if (!right || right == left || right->GetParam(kParamPan) != 1.0f) continue;
        Waveform* rightWave = right->GetWave();
        if (!rightWave || rightWave == leftWave || rightWave->channels != 1 ||
            rightWave->length != leftWave->length || rightWave->sampleRate != leftWave->sampleRate)
          continue;
        if (left->range.loKey != right->range.loKey || left->range.hiKey != right->range.hiKey ||
            left->range.loVelocity != right->range.loVelocity || left->range.hiVelocity != right->range.hiVelocity)
          continue;
        Waveform*& stereo = joined[{leftWave->id, rightWave->id}];
        if (!stereo) stereo = JoinPair(collection, *leftWave, *rightWave);
        if (!stereo) continue;
        std::replace(left->children.begin(), left->children.end(), leftWave->id, stereo->id);
        left->SetParam(kParamPan, 0.0f);
        delete right;
        right = nullptr;
        replaced.push_back(leftWave);
        replaced.push_back(rightWave);
        ++merged;
        break;
      }
    }
  }
  // Mono waves no region plays any more go, each once.
  std::sort(replaced.begin(), replaced.end());
  replaced.erase(std::unique(replaced.begin(), replaced.end()), replaced.end());
  std::unordered_set<uint32_t> played;
  for (Region* region : collection.All<Region>())
    if (Waveform* wave = region->GetWave()) played.insert(wave->id);
  for (Waveform* wave : replaced)
    if (!played.count(wave->id)) delete wave;
  return merged;
}

}  // namespace orlin
