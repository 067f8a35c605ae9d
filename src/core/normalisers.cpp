// Sample-rewriting normalisers. Loop points are whole frames here (start inclusive, end exclusive);
// a wave whose samples cannot be decoded is left as it was and reported through the last error.
#include "core/normalisers.h"

#include "core/pcm.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <unordered_map>
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

// The name of a joined pair: the two names without the letter that tells the sides apart, and the
// brackets or separator around it. "Flute L" and "Flute R", "Alto D4(L)" and "Alto D4(R)", "kick_l"
// and "kick_r" make "Flute", "Alto D4", "kick". Other names keep the left one's.
std::string StereoName(const std::string& left, const std::string& right) {
  if (left.size() != right.size()) return left;
  size_t at = std::string::npos;
  for (size_t i = 0; i < left.size(); ++i) {
    if (left[i] == right[i]) continue;
    if (at != std::string::npos) return left;
    at = i;
  }
  if (at == std::string::npos || std::tolower(static_cast<unsigned char>(left[at])) != 'l' ||
      std::tolower(static_cast<unsigned char>(right[at])) != 'r')
    return left;
  std::string name = left;
  size_t from = at, to = at + 1;
  if (from > 0 && to < name.size() && ((name[from - 1] == '(' && name[to] == ')') || (name[from - 1] == '[' && name[to] == ']')))
    --from, ++to;
  while (from > 0 && (name[from - 1] == ' ' || name[from - 1] == '_' || name[from - 1] == '-' || name[from - 1] == '.') &&
         to == name.size())
    --from;
  name.erase(from, to - from);
  return name.empty() ? left : name;
}

// One stereo wave for a left and a right mono wave. Both read by the generic decoder from the same file
// in the same format: the stereo wave reads them as sequential stereo, decoding nothing now. Both already
// decoded: the samples are interleaved now. Otherwise the pair stays dual mono (null).
Waveform* JoinPair(Collection& collection, Waveform& left, Waveform& right) {
  const bool lazy = !left.Data() && !right.Data() && HasGenericDecoder(left) && HasGenericDecoder(right) &&
                    left.sourceFormat == right.sourceFormat && !(left.sourceFormat & kSourceSequentialStereo) &&
                    left.GetSourcePath() == right.GetSourcePath();
  if (!lazy && !(left.Data() && right.Data())) return nullptr;
  auto* stereo = new Waveform(&collection, left, false, "");
  stereo->SetName(StereoName(left.GetName(), right.GetName()));
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

// The two sides of a pair play as one stereo region only when nothing but their pans and waves tells
// them apart: a bank that tunes or filters its sides apart keeps them as two panned mono regions.
bool SidesMatch(const Region& left, const Region& right, const Waveform& leftWave, const Waveform& rightWave) {
  if (leftWave.rootKey != rightWave.rootKey || leftWave.fineTune != rightWave.fineTune ||
      !(leftWave.loop == rightWave.loop))
    return false;
  // Values only: which level sets a value is bookkeeping of the load, not sound.
  if (left.range.values != right.range.values || left.startOffset != right.startOffset || left.endOffset != right.endOffset ||
      left.overrideFlags != right.overrideFlags || left.rootKey != right.rootKey || !(left.loop == right.loop))
    return false;
  for (ParamId id = 0; id < kArticulationParamCount; ++id)
    if (id != kParamPan && left.articulation.Get(id) != right.articulation.Get(id)) return false;
  return true;
}

}  // namespace

int MergeDualMono(Collection& collection) {
  // Region pairs that could play one stereo wave: a hard-left and a hard-right region over the same
  // keys and velocities, alike in all else.
  struct Candidate {
    Region* left;
    Region* right;
  };
  std::map<std::pair<uint32_t, uint32_t>, std::vector<Candidate>> byWaves;
  for (Instrument* instrument : collection.All<Instrument>().ToVector()) {
    std::vector<Region*> regions;
    for (Layer* layer : ChildrenOf<Layer>(*instrument))
      for (Region* region : ChildrenOf<Region>(*layer)) regions.push_back(region);
    std::vector<bool> taken(regions.size(), false);
    for (Region* left : regions) {
      if (left->GetParam(kParamPan) != -1.0f) continue;
      Waveform* leftWave = left->GetWave();
      if (!leftWave || leftWave->channels != 1) continue;
      for (size_t r = 0; r < regions.size(); ++r) {
        Region* right = regions[r];
        if (taken[r] || right == left || right->GetParam(kParamPan) != 1.0f) continue;
        Waveform* rightWave = right->GetWave();
        if (!rightWave || rightWave == leftWave || rightWave->channels != 1 ||
            rightWave->length != leftWave->length || rightWave->sampleRate != leftWave->sampleRate)
          continue;
        if (left->range.loKey != right->range.loKey || left->range.hiKey != right->range.hiKey ||
            left->range.loVelocity != right->range.loVelocity || left->range.hiVelocity != right->range.hiVelocity ||
            !SidesMatch(*left, *right, *leftWave, *rightWave))
          continue;
        taken[r] = true;
        byWaves[{leftWave->id, rightWave->id}].push_back({left, right});
        break;
      }
    }
  }
  // A bank plays one sample pair from many regions. The pair becomes one stereo wave only when every
  // region that plays either side is in such a pair: else the mono waves stay, and the file written
  // later would hold the same samples twice.
  std::unordered_map<uint32_t, size_t> playedBy;
  for (Region* region : collection.All<Region>())
    if (Waveform* wave = region->GetWave()) ++playedBy[wave->id];
  int merged = 0;
  for (auto& [waves, pairs] : byWaves) {
    if (playedBy[waves.first] != pairs.size() || playedBy[waves.second] != pairs.size()) continue;
    Waveform* leftWave = collection.Find<Waveform>(waves.first);
    Waveform* rightWave = collection.Find<Waveform>(waves.second);
    Waveform* stereo = JoinPair(collection, *leftWave, *rightWave);
    if (!stereo) continue;
    for (const Candidate& pair : pairs) {
      std::replace(pair.left->children.begin(), pair.left->children.end(), leftWave->id, stereo->id);
      pair.left->SetParam(kParamPan, 0.0f);
      delete pair.right;
      ++merged;
    }
    delete leftWave;
    delete rightWave;
  }
  return merged;
}

}  // namespace orlin
