#include "formats/common/save_view.h"

#include <algorithm>
#include <unordered_set>

#include "core/text.h"

namespace orlin {

namespace {

Region* CopyRegionInto(Collection& collection, const Region& source, Layer& layer) {
  auto* region = new Region(&collection);
  region->CopySettingsFrom(source);
  // Waves are shared, never owned by a region; a synthesis model stays with its source region.
  for (uint32_t childId : source.children)
    if (TypeOfId(childId) == ItemType::Waveform) region->children.push_back(childId);
  region->parentId = layer.id;
  layer.children.push_back(region->id);
  return region;
}

Instrument* DeepCopy(Collection& collection, const Instrument& source) {
  auto* copy = new Instrument(&collection);
  copy->SetName(source.GetName());
  for (ParamId text = kTextArtist; text <= kTextSourceFile; ++text) copy->SetText(text, source.GetText(text));
  copy->patch = source.patch;
  copy->articulation = source.articulation;
  copy->effectSlots = source.effectSlots;
  for (uint32_t layerId : source.children) {
    const Layer* layer = collection.Find<Layer>(layerId);
    if (!layer) continue;
    auto* layerCopy = new Layer(&collection);
    layerCopy->SetName(layer->GetName());
    layerCopy->range = layer->range;
    layerCopy->articulation = layer->articulation;
    layerCopy->drumFlag = layer->drumFlag;
    layerCopy->hint = layer->hint;
    layerCopy->parentId = copy->id;
    copy->children.push_back(layerCopy->id);
    for (uint32_t regionId : layer->children)
      if (const Region* region = collection.Find<Region>(regionId)) CopyRegionInto(collection, *region, *layerCopy);
  }
  return copy;
}

}  // namespace

SaveView::SaveView(Item* item, bool resolve, bool collect) : collection_(item->collection), resolve_(resolve) {
  switch (item->Type()) {
    case ItemType::Collection:
      for (Instrument* instrument : collection_->All<Instrument>()) instruments_.push_back(instrument);
      // A collection of bare waves is saved as one instrument a wave, so no wave is lost.
      if (instruments_.empty())
        for (Waveform* wave : collection_->All<Waveform>()) {
          auto* wrapper = new Instrument(collection_);
          owned_.push_back(wrapper);
          wrapper->SetName(wave->GetName());
          wrapper->AddRegion(wave->id, kFullRange, kFullRange, -1);
          instruments_.push_back(wrapper);
        }
      break;
    case ItemType::Instrument: instruments_.push_back(static_cast<Instrument*>(item)); break;
    case ItemType::Waveform: {
      auto* wave = static_cast<Waveform*>(item);
      auto* wrapper = new Instrument(collection_);
      owned_.push_back(wrapper);
      wrapper->SetName(wave->GetName());
      wrapper->AddRegion(wave->id, kFullRange, kFullRange, -1);
      instruments_.push_back(wrapper);
      break;
    }
    case ItemType::Layer:
    case ItemType::Region: {
      auto* wrapper = new Instrument(collection_);
      owned_.push_back(wrapper);
      wrapper->SetName(item->GetName());
      if (item->Type() == ItemType::Region) {
        wrapper->AddRegionCopy(*static_cast<Region*>(item));
      } else {
        const auto* layer = static_cast<Layer*>(item);
        for (uint32_t regionId : layer->children)
          if (const Region* region = collection_->Find<Region>(regionId)) wrapper->AddRegionCopy(*region);
      }
      instruments_.push_back(wrapper);
      break;
    }
    default: break;
  }
  if (collect) Collect();
}

SaveView::~SaveView() {
  for (auto at = owned_.rbegin(); at != owned_.rend(); ++at) delete *at;
}

void SaveView::Collect() {
  waveforms_.clear();
  std::unordered_set<uint32_t> seen;
  for (Instrument* instrument : instruments_)
    for (uint32_t layerId : instrument->children)
      if (Layer* layer = collection_->Find<Layer>(layerId))
        for (uint32_t regionId : layer->children)
          if (Region* region = collection_->Find<Region>(regionId))
            if (Waveform* wave = region->GetWave(); wave && seen.insert(wave->id).second) waveforms_.push_back(wave);
}

int SaveView::WaveIndex(const Waveform* wave) const {
  auto at = std::find(waveforms_.begin(), waveforms_.end(), wave);
  return at == waveforms_.end() ? -1 : int(at - waveforms_.begin());
}

Instrument* SaveView::PrivateCopy(Instrument* instrument) {
  if (std::find(owned_.begin(), owned_.end(), instrument) != owned_.end()) return instrument;
  Instrument* copy = DeepCopy(*collection_, *instrument);
  owned_.push_back(copy);
  std::replace(instruments_.begin(), instruments_.end(), instrument, copy);
  return copy;
}

Waveform* SaveView::PrivateWave(Waveform* wave) {
  if (std::find(owned_.begin(), owned_.end(), wave) != owned_.end()) return wave;
  auto* copy = new Waveform(collection_, *wave, true, wave->GetName());
  owned_.push_back(copy);
  // Regions of the view that play the wave must play the copy: that needs private instruments.
  for (Instrument*& instrument : instruments_) {
    bool plays = false;
    for (uint32_t layerId : instrument->children)
      if (Layer* layer = collection_->Find<Layer>(layerId))
        for (uint32_t regionId : layer->children)
          if (Region* region = collection_->Find<Region>(regionId); region && region->GetWave() == wave) plays = true;
    if (!plays) continue;
    instrument = PrivateCopy(instrument);
    for (uint32_t layerId : instrument->children)
      if (Layer* layer = collection_->Find<Layer>(layerId))
        for (uint32_t regionId : layer->children)
          if (Region* region = collection_->Find<Region>(regionId))
            std::replace(region->children.begin(), region->children.end(), wave->id, copy->id);
  }
  std::replace(waveforms_.begin(), waveforms_.end(), wave, copy);
  return copy;
}

void SaveView::LimitLayers(int maxMelodic, int maxDrum, bool merge) {
  for (Instrument*& instrument : instruments_) {
    const int limit = instrument->IsDrumKit() ? maxDrum : maxMelodic;
    if (int(instrument->children.size()) <= limit) continue;
    instrument = PrivateCopy(instrument);
    Layer* first = collection_->Find<Layer>(instrument->children.front());
    if (merge && first) {
      for (size_t index = 1; index < instrument->children.size(); ++index) {
        Layer* later = collection_->Find<Layer>(instrument->children[index]);
        if (!later) continue;
        for (uint32_t regionId : std::vector<uint32_t>(later->children)) {
          Region* region = collection_->Find<Region>(regionId);
          if (!region) continue;
          const uint32_t keys = PackRange(region->range.loKey, region->range.hiKey);
          const uint32_t velocities = PackRange(region->range.loVelocity, region->range.hiVelocity);
          bool sameSound = true;
          for (ParamId id = 0; id < kArticulationParamCount && sameSound; ++id)
            sameSound = later->articulation.Get(id) == first->articulation.Get(id);
          if (!sameSound || first->Overlaps(keys, velocities)) continue;
          later->RemoveChild(regionId);
          region->parentId = first->id;
          first->children.push_back(regionId);
        }
      }
    }
    while (int(instrument->children.size()) > std::max(limit, 0)) {
      delete collection_->FindItem(instrument->children.back());
      if (!instrument->children.empty() && !collection_->FindItem(instrument->children.back()))
        instrument->children.pop_back();
    }
  }
  Collect();
}

Waveform* ConvertForSave(SaveView& view, Waveform* wave, uint32_t caps) {
  const bool holdsMono = caps & kCapsMono;
  const bool holdsStereo = (caps & kCapsStereo) || (caps & kCapsDualMonoOnly);
  const uint32_t wanted = wave->channels <= 1 ? (holdsMono ? 1 : 2) : (holdsStereo ? 2 : 1);
  if (wanted == wave->channels) return wave;
  const float* source = wave->GetSamplesForRead();
  if (!source) return nullptr;
  const uint32_t frames = wave->Data()->frames;
  const uint32_t sourceChannels = wave->Data()->channels;
  Waveform* copy = view.PrivateWave(wave);
  copy->channels = uint8_t(wanted);
  copy->length = frames;
  copy->decoder = nullptr;
  float* out = copy->AllocSamples();
  if (!out) return nullptr;
  for (uint32_t frame = 0; frame < frames; ++frame) {
    const float* in = source + size_t(frame) * sourceChannels;
    if (wanted == 1) out[frame] = 0.5f * (in[0] + in[1]);
    else out[2 * size_t(frame)] = out[2 * size_t(frame) + 1] = in[0];
  }
  return copy;
}

std::string CleanFixedName(std::string_view name, size_t width, std::string_view alphabet, bool upperCase) {
  std::string narrow = Utf8ToNarrow(name);
  if (upperCase) narrow = ToUpperAscii(narrow);
  std::string out;
  for (char c : narrow) {
    if (out.size() == width) break;
    out += alphabet.find(c) == std::string_view::npos ? ' ' : c;
  }
  out.resize(width, ' ');
  return out;
}

}  // namespace orlin
