#include "core/collection.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <unordered_map>
#include <unordered_set>

#include "core/file_object.h"
#include "core/fixup.h"
#include "core/last_error.h"
#include "core/pcm.h"
#include "core/pipeline.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/user_interface.h"

namespace orlin {

namespace {

constexpr ParamId kParamPan = 51;
constexpr const char* kNewCollectionName = "New collection";

// Process-wide counters: the next index per type, and the running numbers of default names.
std::atomic<uint32_t> nextIndexCounters[kItemTypeCount];
std::atomic<uint32_t> waveNameCounter{0};
std::atomic<uint32_t> instrumentNameCounter{0};

const char* OrdinalSuffix(uint32_t n) {
  const uint32_t lastTwo = n % 100;
  if (lastTwo >= 11 && lastTwo <= 13) return "th";
  switch (n % 10) {
    case 1: return "st";
    case 2: return "nd";
    case 3: return "rd";
    default: return "th";
  }
}

// Leading characters at or below blank and trailing ones below 33 go; in a name, control
// characters become blanks.
std::string TrimText(std::string_view text, bool isName) {
  size_t begin = 0;
  while (begin < text.size() && uint8_t(text[begin]) <= ' ') ++begin;
  size_t end = text.size();
  while (end > begin && uint8_t(text[end - 1]) < 33) --end;
  std::string out(text.substr(begin, end - begin));
  if (isName)
    for (char& c : out)
      if (uint8_t(c) < ' ') c = ' ';
  return out;
}

int RangeLo(uint32_t range) { return int(range & 0xFF); }
int RangeHi(uint32_t range) { return int((range >> 8) & 0xFF); }
// A range not given counts as the whole range.
uint32_t GivenOrFull(uint32_t range) {
  return (RangeLo(range) == 255 || RangeHi(range) == 255) ? kFullRange : range;
}

bool RangesTouch(int lo1, int hi1, int lo2, int hi2) { return lo1 <= hi2 && lo2 <= hi1; }

}  // namespace

const char* ItemTypeWord(uint32_t type) {
  static constexpr const char* kWords[] = {"waveform", "synth", "region", "layer", "instrument",
                                           "track",    "song",  "collection", "special"};
  return kWords[std::min<uint32_t>(type, 8)];
}

const char* TextSlotLabel(ParamId id) {
  static constexpr const char* kLabels[] = {"Name", "Artist", "Comments", "Copyright", "Engineer", "Product",
                                            "Source file on disk", "Image"};
  return (id >= kTextName && id <= kImage) ? kLabels[id - kTextName] : "";
}

// ---------------------------------------------------------------------------------------------
// Item

Item::Item(Collection* owner, uint32_t requestedId) : collection(owner) {
  // The collection registers itself once its map exists.
  if (requestedId != kCollectionId) owner->Register(this, requestedId);
}

Item::~Item() {
  if (collection && Type() != ItemType::Collection) collection->Unregister(this);
}

void Item::SetNameNarrow(std::string_view bytes) { SetName(NarrowToUtf8(bytes)); }

std::string Item::GetSourcePath() const {
  if (Item* parent = Parent()) return parent->GetSourcePath();
  if (collection && collection != this) return collection->GetSourcePath();
  return {};
}

void Item::FixUp() { DropDanglingChildren(); }

bool Item::Preload() {
  for (uint32_t childId : std::vector<uint32_t>(children)) {
    Item* child = collection->FindItem(childId);
    if (child && !child->Preload()) return false;
  }
  return true;
}

float Item::GetInheritedParam(ParamId id) const {
  const ParamInfo* row = GetParamRow(id);
  return row ? row->defaultValue : 0.0f;
}

const ParamInfo* Item::GetParamInfo(ParamId id) const {
  return id >= kFirstTextParam && id < kFirstWaveParam ? GetParamRow(id) : nullptr;
}

namespace {

// Trigger parameters 189-203 of a layer or region; 190-193 live in the range bytes. Whole-number
// kinds are rounded to integers, the delay (201) to its time grid.
void StoreTrigger(TriggerRange& range, ParamId id, float value, bool asSet) {
  const ParamInfo* row = GetParamRow(id);
  if (std::isnan(value)) value = row->defaultValue;
  value = RoundToGrid(row->kind, value);
  if (row->kind != kKindTime) value = std::round(value);
  value = std::clamp(value, row->minValue, row->maxValue);
  switch (id) {
    case 190: range.loKey = uint8_t(value); break;
    case 191: range.hiKey = uint8_t(value); break;
    case 192: range.loVelocity = uint8_t(value); break;
    case 193: range.hiVelocity = uint8_t(value); break;
    default: break;
  }
  range.values[id - kFirstTriggerParam] = value;
  const uint64_t bit = uint64_t(1) << (id - kFirstTriggerParam);
  range.mask = asSet ? range.mask | bit : range.mask & ~bit;
}

float TriggerValue(const TriggerRange& range, ParamId id) {
  switch (id) {
    case 190: return range.loKey;
    case 191: return range.hiKey;
    case 192: return range.loVelocity;
    case 193: return range.hiVelocity;
    default: return range.values[id - kFirstTriggerParam];
  }
}

bool IsTriggerParam(ParamId id) { return id >= kFirstTriggerParam && id < kFirstLoopParam; }

}  // namespace

Item* Item::Parent() const { return collection ? collection->FindItem(parentId) : nullptr; }

Item* Item::FirstChildOfType(ItemType type) const {
  for (uint32_t childId : children)
    if (TypeOfId(childId) == type)
      if (Item* child = collection->FindItem(childId)) return child;
  return nullptr;
}

void Item::RemoveChild(uint32_t childId) {
  auto at = std::find(children.begin(), children.end(), childId);
  if (at != children.end()) children.erase(at);
}

void Item::DropDanglingChildren() {
  std::erase_if(children, [this](uint32_t childId) { return collection->FindItem(childId) == nullptr; });
}

void Item::MoveChild(size_t from, size_t to) {
  if (from >= children.size()) return;
  to = std::min(to, children.size() - 1);
  const uint32_t moving = children[from];
  children.erase(children.begin() + ptrdiff_t(from));
  children.insert(children.begin() + ptrdiff_t(std::min(to, children.size())), moving);
}

// ---------------------------------------------------------------------------------------------
// TextItem and NamedItem

void TextItem::SetText(ParamId id, std::string_view text) {
  if (id < kTextName || id >= kTextName + kTextSlotCount) return;
  std::string& slot = texts_[id - kTextName];
  slot = TrimText(text, id == kTextName);
  if (id == kTextName && slot.empty()) AssignDefaultName();
}

const std::string& TextItem::GetText(ParamId id) const {
  static const std::string kEmpty;
  if (id < kTextName || id >= kTextName + kTextSlotCount) return kEmpty;
  return texts_[id - kTextName];
}

std::string TextItem::GetTextNarrow(ParamId id) const { return Utf8ToNarrow(GetText(id)); }

void TextItem::SetImage(const void* bytes, size_t size) {
  const auto* begin = static_cast<const uint8_t*>(bytes);
  image_.assign(begin, begin + (bytes ? size : 0));
}

const char* TextItem::ImageMimeType() const {
  static constexpr uint8_t kPngMark[4] = {0x89, 'P', 'N', 'G'};
  if (image_.size() >= 6 && std::equal(image_.begin(), image_.begin() + 6, "GIF89a")) return "image/gif";
  if (image_.size() >= 4 && std::equal(image_.begin(), image_.begin() + 4, kPngMark)) return "image/png";
  return "image/jpeg";
}

std::string TextItem::GetSourcePath() const {
  if (!texts_[kTextSourceFile - kTextName].empty()) return texts_[kTextSourceFile - kTextName];
  return Item::GetSourcePath();
}

void TextItem::AssignDefaultName() {
  std::string& name = texts_[0];
  if (Type() == ItemType::Collection) {
    name = kNewCollectionName;
    return;
  }
  name = collection->GetName();
  const uint32_t type = uint32_t(Type());
  const bool sole = collection->CountOf(Type()) <= 1;
  std::atomic<uint32_t>* counter = Type() == ItemType::Waveform     ? &waveNameCounter
                                   : Type() == ItemType::Instrument ? &instrumentNameCounter
                                                                    : nullptr;
  if (sole) {
    if (counter) *counter = 0;
    return;
  }
  if (!counter) {
    name += ": ";
    name += ItemTypeWord(type);
    return;
  }
  const uint32_t n = ++*counter;
  if (Type() == ItemType::Waveform) {
    name += " " + std::to_string(n);
  } else {
    name += ": " + std::to_string(n) + OrdinalSuffix(n) + " " + ItemTypeWord(type);
  }
}

void NamedItem::SetName(std::string_view name) { name_ = TrimText(name, true); }

std::string NamedItem::GetSourcePath() const { return Item::GetSourcePath(); }

// ---------------------------------------------------------------------------------------------
// Waveform

Waveform::Waveform(Collection* owner, uint32_t requestedId)
    : TextItem(owner, MakeId(ItemType::Waveform, requestedId)) {}

Waveform::Waveform(Collection* owner, const Waveform& source, bool copySamples, std::string_view name)
    : Waveform(owner) {
  texts_ = source.texts_;
  image_ = source.image_;
  sourceFormat = source.sourceFormat;
  sourceOffsetB = source.sourceOffsetB;
  interfaceState = source.interfaceState;
  length = source.length;
  sampleRate = source.sampleRate;
  bits = source.bits;
  channels = source.channels;
  rootKey = source.rootKey;
  fineTune = source.fineTune;
  gain = source.gain;
  loop = source.loop;
  dataFormat = source.dataFormat;
  sourceOffset = source.sourceOffset;
  decoder = source.decoder;
  markers = source.markers;
  for (Marker& marker : markers) marker.id = NextMarkerId();
  // An undecoded copy must still find the source file after it leaves the source's collection.
  if (texts_[kTextSourceFile - kTextName].empty()) texts_[kTextSourceFile - kTextName] = source.GetSourcePath();
  if (copySamples && source.data_) {
    const WaveData* from = source.data_;
    data_ = WaveData::Create(from->frames, from->channels, from->rate, false);
    if (data_) std::copy_n(from->samples, size_t(from->frames) * from->channels, data_->samples);
  } else if (source.data_) {
    data_ = source.data_;
    data_->AddRef();
  }
  if (!name.empty()) SetName(name);
}

Waveform::~Waveform() { DropData(); }

void Waveform::DropData() {
  if (data_) data_->Release();
  data_ = nullptr;
}

void Waveform::AdoptData(WaveData* data) {
  if (data == data_) return;
  if (data) data->AddRef();
  DropData();
  data_ = data;
  if (data_) {
    length = data_->frames;
    channels = uint8_t(data_->channels);
    sampleRate = uint32_t(std::lround(data_->rate));
  }
}

float* Waveform::AllocSamples() {
  DropData();
  data_ = WaveData::Create(length, channels, float(sampleRate), false);
  if (!data_) {
    SetLastError("Out of memory");
    return nullptr;
  }
  return data_->samples;
}

bool Waveform::Preload() {
  if (data_) return true;
  if (!decoder) {
    SetLastError("No wave data import procedure");
    return false;
  }
  SetStatus("Reading: " + GetName());
  const std::string path = GetSourcePath();
  FileObject file;
  if (!path.empty() && path[0] != '<') {
    if (!file.Open(path, FileMode::Read)) {
      SetLastError("Could not open file");
      return false;
    }
    file.Seek(sourceOffset);
  }
  const bool decoded = decoder(this, &file);
  SetStatus("");
  if (decoded && !data_) {
    SetLastError("Reading from file failed");
    return false;
  }
  return decoded;
}

float* Waveform::GetSamplesForRead() {
  if (data_) return data_->samples;
  if (decoder) return Preload() ? data_->samples : nullptr;
  if (length == 0) return nullptr;
  data_ = WaveData::Create(length, channels, float(sampleRate), true);
  if (!data_) SetLastError("Out of memory");
  return data_ ? data_->samples : nullptr;
}

float* Waveform::GetSamplesForWrite() {
  float* samples = GetSamplesForRead();
  if (samples) decoder = nullptr;
  return samples;
}

void Waveform::SetPcmSource(uint32_t bitsPerSample, uint32_t flags) {
  uint32_t storage;
  if (bitsPerSample < 9) storage = kStoragePcm8, dataFormat = 0;
  else if (bitsPerSample < 17) storage = kStoragePcm16, dataFormat = 1;
  else if (bitsPerSample < 25) storage = kStoragePcm24, dataFormat = 2;
  else storage = kStoragePcm32, dataFormat = 3;
  sourceFormat = (flags & ~kSourceStorageMask) | (1u << storage);
  bits = uint8_t(BitsOf(storage));
  decoder = GenericPcmDecoder();
}

void Waveform::SetPcmSourceByFormat(uint32_t storage, uint32_t flags) {
  const uint8_t implied = DataFormatFromStorage(storage);
  if (implied != kDataFormatDefault) dataFormat = implied;
  sourceFormat = (flags & ~kSourceStorageMask) | (storage < kStorageCount ? 1u << storage : 0);
  bits = uint8_t(BitsOf(storage));
  decoder = GenericPcmDecoder();
}

void Waveform::FixUp() { FixUpWaveform(*this); }

float Waveform::GetParam(ParamId id) const {
  switch (id) {
    case 204: return loop.type;
    case 205: return loop.release;
    case 206: return loop.start;
    case 207: return loop.end;
    case 208: return loop.tune;
    case 217: return float(sampleRate);
    case 218: return rootKey;
    case 219: return fineTune;
    case 220: return gain;
    case 221: return dataFormat;
    default: return 0.0f;
  }
}

const ParamInfo* Waveform::GetParamInfo(ParamId id) const {
  if (id >= kFirstWaveParam && id < kFirstRegionParam) return GetParamRow(id);
  if (id >= kFirstLoopParam && id < kFirstTextParam) return LoopView(id, GetSettings().features);
  return Item::GetParamInfo(id);
}
void Waveform::SetParam(ParamId id, float value) {
  if (std::isnan(value)) return;  // a reader's garbage never reaches an integer field
  switch (id) {
    case 204: loop.type = uint8_t(std::clamp(value, 0.0f, 3.0f)); break;
    case 205: loop.release = value != 0.0f; break;
    case 206: loop.start = value; break;
    case 207: loop.end = value; break;
    case 208: loop.tune = std::clamp(value, -12.0f, 12.0f); break;
    case 217: sampleRate = uint32_t(std::clamp(value, 1.0f, 768000.0f)); break;
    case 218: rootKey = uint8_t(std::clamp(value, 0.0f, 127.0f)); break;
    case 219: fineTune = int8_t(std::clamp(value, -100.0f, 100.0f)); break;
    case 220: gain = std::round(std::clamp(value, -96.0f, 96.0f) * 100.0f) / 100.0f; break;
    case 221: dataFormat = uint8_t(std::clamp(value, 0.0f, float(kDataFormatDefault))); break;
    default: break;
  }
}

// ---------------------------------------------------------------------------------------------
// SynthesisModel

SynthesisModel::SynthesisModel(Collection* owner, uint32_t requestedId)
    : NamedItem(owner, MakeId(ItemType::SynthesisModel, requestedId)) {}

// ---------------------------------------------------------------------------------------------
// Region

Region::Region(Collection* owner, uint32_t requestedId, uint32_t waveId, uint32_t keyRange, uint32_t velocityRange,
               int root)
    : NamedItem(owner, MakeId(ItemType::Region, requestedId)) {
  if (waveId != kNoWave && waveId != kNullId) {
    // A bare index names a waveform.
    const uint32_t childId = (waveId >> 28) ? waveId : MakeId(ItemType::Waveform, waveId);
    children.push_back(childId);
  }
  if (RangeLo(keyRange) != 255 && RangeHi(keyRange) != 255) {
    range.loKey = uint8_t(std::min(RangeLo(keyRange), 127));
    range.hiKey = uint8_t(std::min(RangeHi(keyRange), 127));
    range.mask |= (1u << 1) | (1u << 2);  // 190, 191
  }
  if (RangeLo(velocityRange) != 255 && RangeHi(velocityRange) != 255) {
    range.loVelocity = uint8_t(std::min(RangeLo(velocityRange), 127));
    range.hiVelocity = uint8_t(std::min(RangeHi(velocityRange), 127));
    range.mask |= (1u << 3) | (1u << 4);  // 192, 193
  }
  if (root >= 0 && root <= 127) {
    rootKey = uint8_t(root);
    overrideFlags |= kOverrideRoot;
  }
}

Region::~Region() {
  // A synthesis model belongs to its region; a waveform does not.
  for (uint32_t childId : std::vector<uint32_t>(children))
    if (TypeOfId(childId) == ItemType::SynthesisModel) delete collection->FindItem(childId);
  if (Item* parent = Parent()) parent->RemoveChild(id);
}

Waveform* Region::GetWave() const { return static_cast<Waveform*>(FirstChildOfType(ItemType::Waveform)); }

SynthesisModel* Region::GetSynthesisModel() const {
  return static_cast<SynthesisModel*>(FirstChildOfType(ItemType::SynthesisModel));
}

uint8_t Region::EffectiveRootKey() const {
  if (overrideFlags & kOverrideRoot) return rootKey;
  const Waveform* wave = GetWave();
  return wave ? wave->rootKey : rootKey;
}

LoopInfo Region::EffectiveLoop() const {
  const Waveform* wave = GetWave();
  LoopInfo out = wave ? wave->loop : LoopInfo{};
  if (overrideFlags & kOverrideLoopType) out.type = loop.type;
  if (overrideFlags & kOverrideLoopRelease) out.release = loop.release;
  if (overrideFlags & kOverrideLoopStart) out.start = loop.start;
  if (overrideFlags & kOverrideLoopEnd) out.end = loop.end;
  if (overrideFlags & kOverrideLoopTune) out.tune = loop.tune;
  return out;
}

std::string Region::GeneratedName() const {
  std::string out = NoteName(range.loKey);
  if (range.hiKey != range.loKey) out += ".." + NoteName(range.hiKey);
  if (range.loVelocity >= 2 || range.hiVelocity != 127)
    out += " : " + std::to_string(range.loVelocity) + ".." + std::to_string(range.hiVelocity);
  out += " : ";
  if (const Waveform* wave = GetWave()) out += wave->GetName();
  else if (const SynthesisModel* model = GetSynthesisModel()) out += model->GetName();
  else out += "unnamed";
  return out;
}

const std::string& Region::GetName() const {
  if (!name_.empty()) return name_;
  generatedName_ = GeneratedName();
  return generatedName_;
}

void Region::FixUp() { FixUpRegion(*this); }

bool Region::Preload() { return Item::Preload(); }

bool Region::IsParamSet(ParamId id) const {
  if (id < kArticulationParamCount) return articulation.IsSet(id);
  if (id >= kFirstTriggerParam && id < kFirstLoopParam) return (range.mask >> (id - kFirstTriggerParam)) & 1;
  return false;
}

float Region::GetParam(ParamId id) const {
  if (id < kArticulationParamCount) return articulation.Get(id);
  if (IsTriggerParam(id)) return TriggerValue(range, id);
  switch (id) {
    case 204: return EffectiveLoop().type;
    case 205: return EffectiveLoop().release;
    case 206: return EffectiveLoop().start;
    case 207: return EffectiveLoop().end;
    case 208: return EffectiveLoop().tune;
    case 222: return EffectiveRootKey();
    case 223: return float(startOffset);
    case 224: return float(endOffset);
    case 225: return phaseGroup;
    case 226: return phaseMaster;
    default: return 0.0f;
  }
}
void Region::SetParam(ParamId id, float value) {
  if (std::isnan(value)) return;  // a reader's garbage never reaches an integer field
  if (id < kArticulationParamCount) {
    articulation.Set(id, value);
    return;
  }
  if (IsTriggerParam(id)) {
    StoreTrigger(range, id, value, true);
    return;
  }
  const ParamInfo* row = GetParamRow(id);
  if (!row) return;
  // Loop points stay fractional; the other region rows are whole numbers within the row's bounds.
  const float bounded = std::clamp(id == 206 || id == 207 || id == 208 ? RoundToGrid(row->kind, value) : std::round(value),
                                   row->minValue, row->maxValue);
  switch (id) {
    case 204: loop.type = uint8_t(bounded); overrideFlags |= kOverrideLoopType; break;
    case 205: loop.release = bounded != 0.0f; overrideFlags |= kOverrideLoopRelease; break;
    case 206: loop.start = std::max(value, 0.0f); overrideFlags |= kOverrideLoopStart; break;
    case 207: loop.end = std::max(value, 0.0f); overrideFlags |= kOverrideLoopEnd; break;
    case 208: loop.tune = bounded; overrideFlags |= kOverrideLoopTune; break;
    case 222: rootKey = uint8_t(bounded); overrideFlags |= kOverrideRoot; break;
    case 223: startOffset = int32_t(bounded); break;
    case 224: endOffset = int32_t(bounded); break;  // only zero or negative
    case 225: phaseGroup = uint16_t(bounded); break;
    case 226: phaseMaster = bounded != 0.0f; break;
    default: break;
  }
}
void Region::InheritParam(ParamId id, float value) {
  if (id < kArticulationParamCount) articulation.Inherit(id, value);
  else if (IsTriggerParam(id)) StoreTrigger(range, id, value, false);
}

float Region::GetInheritedParam(ParamId id) const {
  const Item* parent = Parent();
  if (parent && (id < kArticulationParamCount || IsTriggerParam(id))) return parent->GetParam(id);
  // A loop or root override falls back to the wave's value.
  if (const Waveform* wave = GetWave(); wave && ((id >= kFirstLoopParam && id < kFirstTextParam) || id == 222))
    return wave->GetParam(id == 222 ? 218 : id);
  return Item::GetInheritedParam(id);
}

const ParamInfo* Region::GetParamInfo(ParamId id) const {
  if (id < kArticulationParamCount) return ArticulationView(id, GetSettings().features);
  if (IsTriggerParam(id)) return GetParamRow(id);
  if (id >= kFirstRegionParam && id < kFirstInstrumentParam) return GetParamRow(id);
  if (id >= kFirstLoopParam && id < kFirstTextParam) return LoopView(id, GetSettings().features);
  return Item::GetParamInfo(id);
}
// ---------------------------------------------------------------------------------------------
// Layer

Layer::Layer(Collection* owner, uint32_t requestedId) : NamedItem(owner, MakeId(ItemType::Layer, requestedId)) {}

Layer::~Layer() {
  while (!children.empty()) {
    const uint32_t childId = children.back();
    children.pop_back();
    // The child is off the list already: it must not search the list for itself, which made
    // deleting a level of many children quadratic.
    Item* child = collection->FindItem(childId);
    // Only a child this item owns goes with it; a damaged list naming the item itself or another
    // item's child is only dropped, and the collection deletes what hangs nowhere.
    if (!child || child == this || child->parentId != id) continue;
    child->parentId = kNullId;
    delete child;
  }
  if (Item* parent = Parent()) parent->RemoveChild(id);
}

void Layer::FixUp() { FixUpLayer(*this); }

bool Layer::Preload() { return Item::Preload(); }

bool Layer::IsParamSet(ParamId id) const {
  if (id < kArticulationParamCount) return articulation.IsSet(id);
  if (id >= kFirstTriggerParam && id < kFirstLoopParam) return (range.mask >> (id - kFirstTriggerParam)) & 1;
  return false;
}

float Layer::GetParam(ParamId id) const {
  if (id < kArticulationParamCount) return articulation.Get(id);
  if (IsTriggerParam(id)) return TriggerValue(range, id);
  return 0.0f;
}
void Layer::SetParam(ParamId id, float value) {
  if (std::isnan(value)) return;  // a reader's garbage never reaches an integer field
  if (id < kArticulationParamCount) articulation.Set(id, value);
  else if (IsTriggerParam(id)) StoreTrigger(range, id, value, true);
}

void Layer::InheritParam(ParamId id, float value) {
  if (id < kArticulationParamCount) articulation.Inherit(id, value);
  else if (IsTriggerParam(id)) StoreTrigger(range, id, value, false);
  else return;
  // Regions that do not set the id take the value down with them.
  for (uint32_t childId : children)
    if (Region* region = collection->Find<Region>(childId); region && !region->IsParamSet(id))
      region->InheritParam(id, GetParam(id));
}

float Layer::GetInheritedParam(ParamId id) const {
  const Item* parent = Parent();
  if (parent && id < kArticulationParamCount) return parent->GetParam(id);
  return Item::GetInheritedParam(id);
}

const ParamInfo* Layer::GetParamInfo(ParamId id) const {
  if (id < kArticulationParamCount) return ArticulationView(id, GetSettings().features);
  if (IsTriggerParam(id)) return GetParamRow(id);
  return Item::GetParamInfo(id);
}
bool Layer::Overlaps(uint32_t keyRange, uint32_t velocityRange, uint32_t exceptId) const {
  keyRange = GivenOrFull(keyRange);
  velocityRange = GivenOrFull(velocityRange);
  for (uint32_t childId : children) {
    if (childId == exceptId) continue;
    const Region* region = collection->Find<Region>(childId);
    if (!region) continue;
    if (RangesTouch(region->range.loKey, region->range.hiKey, RangeLo(keyRange), RangeHi(keyRange)) &&
        RangesTouch(region->range.loVelocity, region->range.hiVelocity, RangeLo(velocityRange), RangeHi(velocityRange)))
      return true;
  }
  return false;
}

Region* Layer::RegionAt(int key, int velocity) const {
  if ((key >= 128 && key <= 254) || (velocity >= 128 && velocity <= 254)) return nullptr;
  for (uint32_t childId : children) {
    Region* region = collection->Find<Region>(childId);
    if (!region) continue;
    const bool keyIn = key == 255 || (key >= region->range.loKey && key <= region->range.hiKey);
    const bool velocityIn =
        velocity == 255 || (velocity >= region->range.loVelocity && velocity <= region->range.hiVelocity);
    if (keyIn && velocityIn) return region;
  }
  return nullptr;
}

namespace {

// Cuts [lo, hi] so that it no longer touches [cutLo, cutHi], on the side that loses less.
// False when nothing would remain.
bool CutRange(uint8_t& lo, uint8_t& hi, int cutLo, int cutHi) {
  const bool keepLowPart = cutLo > lo;    // new hi = cutLo - 1
  const bool keepHighPart = cutHi < hi;   // new lo = cutHi + 1
  if (!keepLowPart && !keepHighPart) return false;
  const int lostKeepingLow = hi - cutLo + 1;
  const int lostKeepingHigh = cutHi - lo + 1;
  if (keepLowPart && (!keepHighPart || lostKeepingLow <= lostKeepingHigh)) {
    hi = uint8_t(cutLo - 1);
  } else {
    lo = uint8_t(cutHi + 1);
  }
  return true;
}

}  // namespace

void Layer::ResolveOverlaps(uint32_t keyRange, uint32_t velocityRange, uint32_t exceptId) {
  keyRange = GivenOrFull(keyRange);
  velocityRange = GivenOrFull(velocityRange);
  const int keyLo = RangeLo(keyRange), keyHi = RangeHi(keyRange);
  const int velLo = RangeLo(velocityRange), velHi = RangeHi(velocityRange);
  std::vector<Region*> doomed;
  for (uint32_t childId : children) {
    if (childId == exceptId) continue;
    Region* region = collection->Find<Region>(childId);
    if (!region) continue;
    TriggerRange& r = region->range;
    if (!RangesTouch(r.loKey, r.hiKey, keyLo, keyHi) || !RangesTouch(r.loVelocity, r.hiVelocity, velLo, velHi))
      continue;
    const int keySpan = r.hiKey - r.loKey + 1;
    const int velSpan = r.hiVelocity - r.loVelocity + 1;
    const int keyOverlap = std::min<int>(r.hiKey, keyHi) - std::max<int>(r.loKey, keyLo) + 1;
    const int velOverlap = std::min<int>(r.hiVelocity, velHi) - std::max<int>(r.loVelocity, velLo) + 1;
    bool kept;
    // The velocity range is cut by a smaller fraction than the key range: velocities give way.
    if (keyOverlap * velSpan > keySpan * velOverlap) {
      kept = CutRange(r.loVelocity, r.hiVelocity, velLo, velHi);
    } else if (keyOverlap < keySpan) {
      kept = CutRange(r.loKey, r.hiKey, keyLo, keyHi);
    } else {
      kept = CutRange(r.loVelocity, r.hiVelocity, velLo, velHi);
    }
    if (!kept) doomed.push_back(region);
  }
  for (Region* region : doomed) delete region;
}

void Layer::Bounds(uint32_t& keyRange, uint32_t& velocityRange) const {
  int keyLo = 127, keyHi = 0, velLo = 127, velHi = 0;
  bool any = false;
  for (uint32_t childId : children) {
    const Region* region = collection->Find<Region>(childId);
    if (!region) continue;
    any = true;
    keyLo = std::min<int>(keyLo, region->range.loKey);
    keyHi = std::max<int>(keyHi, region->range.hiKey);
    velLo = std::min<int>(velLo, region->range.loVelocity);
    velHi = std::max<int>(velHi, region->range.hiVelocity);
  }
  if (!any) keyLo = 0, keyHi = 127, velLo = 0, velHi = 127;
  keyRange = PackRange(keyLo, keyHi);
  velocityRange = PackRange(velLo, velHi);
}

std::string Layer::StereoMark() const {
  bool allStereo = true, allLeft = true, allRight = true, any = false;
  for (uint32_t childId : children) {
    const Region* region = collection->Find<Region>(childId);
    if (!region) continue;
    any = true;
    const Waveform* wave = region->GetWave();
    if (!wave || wave->channels != 2) allStereo = false;
    const float pan = region->GetParam(kParamPan);
    if (pan != -1.0f) allLeft = false;
    if (pan != 1.0f) allRight = false;
  }
  if (!any) return {};
  if (allStereo) return "S";
  if (allLeft) return "L";
  if (allRight) return "R";
  return {};
}

// ---------------------------------------------------------------------------------------------
// Instrument

Instrument::Instrument(Collection* owner, uint32_t requestedId)
    : TextItem(owner, MakeId(ItemType::Instrument, requestedId)) {
  // A bare index is the program number too: readers make instrument n on program n.
  if ((requestedId >> 28) == 0 && (requestedId & kIndexMask) != kNextFreeIndex) patch = requestedId & 0x7F;
  if (LoadingInProgress()) SetStatus("Reading: " + GetName());
}

Instrument::~Instrument() {
  while (!children.empty()) {
    const uint32_t childId = children.back();
    children.pop_back();
    // The child is off the list already: it must not search the list for itself, which made
    // deleting a level of many children quadratic.
    Item* child = collection->FindItem(childId);
    // Only a child this item owns goes with it; a damaged list naming the item itself or another
    // item's child is only dropped, and the collection deletes what hangs nowhere.
    if (!child || child == this || child->parentId != id) continue;
    child->parentId = kNullId;
    delete child;
  }
}

void Instrument::SetPatch(int majorBank, int minorBank, int program, bool drum) {
  patch = uint32_t(program & 0x7F) | (uint32_t(minorBank & 0x7F) << 7) | (uint32_t(majorBank & 0x7F) << 14) |
          (drum ? 1u << 21 : 0u);
}

void Instrument::FixUp() { FixUpInstrument(*this); }

bool Instrument::Preload() { return Item::Preload(); }

bool Instrument::IsParamSet(ParamId id) const { return id < kArticulationParamCount && articulation.IsSet(id); }

float Instrument::GetParam(ParamId id) const {
  if (id < kArticulationParamCount) return articulation.Get(id);
  switch (id) {
    case 227: return IsDrumKit() ? 1.0f : 0.0f;
    case 228: return float(MajorBank());
    case 229: return float(MinorBank());
    case 230: return float(Program());
    default:
      if (id >= kFirstEffectParam && id < kParamCount) return effectSlots[id - kFirstEffectParam];
      return 0.0f;
  }
}

void Instrument::SetParam(ParamId id, float value) {
  if (std::isnan(value)) return;  // a reader's garbage never reaches an integer field
  if (id < kArticulationParamCount) {
    articulation.Set(id, value);
    return;
  }
  const int v = int(std::clamp(std::round(value), 0.0f, 127.0f));
  switch (id) {
    case 227: SetPatch(MajorBank(), MinorBank(), Program(), value != 0.0f); break;
    case 228: SetPatch(v, MinorBank(), Program(), IsDrumKit()); break;
    case 229: SetPatch(MajorBank(), v, Program(), IsDrumKit()); break;
    case 230: SetPatch(MajorBank(), MinorBank(), v, IsDrumKit()); break;
    default:
      if (id >= kFirstEffectParam && id < kParamCount) {
        const ParamInfo* row = GetParamInfo(id);
        if (row->kind == kKindNone) break;
        value = RoundToGrid(row->kind, value);
        effectSlots[id - kFirstEffectParam] = std::clamp(value, row->minValue, row->maxValue);
      }
  }
}

void Instrument::InheritParam(ParamId id, float value) {
  if (id >= kArticulationParamCount) return;
  articulation.Inherit(id, value);
  for (uint32_t childId : children)
    if (Layer* layer = collection->Find<Layer>(childId); layer && !layer->IsParamSet(id)) layer->InheritParam(id, value);
}

const ParamInfo* Instrument::GetParamInfo(ParamId id) const {
  if (id < kArticulationParamCount) return ArticulationView(id, GetSettings().features);
  if (id >= kFirstInstrumentParam && id < kFirstEffectParam) return GetParamRow(id);
  if (id >= kFirstEffectParam && id < kParamCount) {
    const int slotBase = (id - kFirstEffectParam) / kEffectViewsPerSlot * kEffectViewsPerSlot;
    constexpr int kGateReverbView = 6;
    return EffectView(id, int(effectSlots[slotBase]), effectSlots[slotBase + kGateReverbView] != 0.0f);
  }
  return Item::GetParamInfo(id);
}
Layer* Instrument::FindLayerFor(uint32_t keyRange, uint32_t velocityRange, int layerHint, Layer* startAt) {
  std::vector<Layer*> layers;
  for (uint32_t childId : children)
    if (Layer* layer = collection->Find<Layer>(childId))
      if (layerHint < 0 || layer->hint == layerHint) layers.push_back(layer);
  if (startAt) {
    auto at = std::find(layers.begin(), layers.end(), startAt);
    if (at != layers.end()) std::rotate(layers.begin(), at, layers.end());
  }
  // First a layer whose last region has exactly this velocity range, so velocity splits stay together.
  const uint32_t velocity = GivenOrFull(velocityRange);
  for (Layer* layer : layers) {
    if (layer->children.empty()) continue;
    const Region* last = collection->Find<Region>(layer->children.back());
    if (last && PackRange(last->range.loVelocity, last->range.hiVelocity) == velocity &&
        !layer->Overlaps(keyRange, velocityRange))
      return layer;
  }
  for (Layer* layer : layers)
    if (!layer->Overlaps(keyRange, velocityRange)) return layer;
  auto* layer = new Layer(collection);
  layer->hint = layerHint;
  layer->parentId = id;
  children.push_back(layer->id);
  return layer;
}

Region* Instrument::AddRegion(uint32_t waveId, uint32_t keyRange, uint32_t velocityRange, int rootKey, int layerHint) {
  Layer* layer = FindLayerFor(keyRange, velocityRange, layerHint, nullptr);
  auto* region = new Region(collection, MakeId(ItemType::Region, kNextFreeIndex), waveId, keyRange, velocityRange, rootKey);
  region->parentId = layer->id;
  layer->children.push_back(region->id);
  return region;
}

void Region::CopySettingsFrom(const Region& source) {
  SetName(source.HasOwnName() ? source.GetName() : std::string());
  sourceFormat = source.sourceFormat;
  interfaceState = source.interfaceState;
  range = source.range;
  phaseGroup = source.phaseGroup;
  phaseMaster = source.phaseMaster;
  overrideFlags = source.overrideFlags;
  rootKey = source.rootKey;
  loop = source.loop;
  startOffset = source.startOffset;
  endOffset = source.endOffset;
  articulation = source.articulation;
}

Region* Instrument::AddRegionCopy(const Region& source) {
  Layer* startAt = source.collection == collection ? source.collection->Find<Layer>(source.parentId) : nullptr;
  if (startAt && startAt->parentId != id) startAt = nullptr;
  const uint32_t keyRange = PackRange(source.range.loKey, source.range.hiKey);
  const uint32_t velocityRange = PackRange(source.range.loVelocity, source.range.hiVelocity);
  Layer* layer = FindLayerFor(keyRange, velocityRange, -1, startAt);
  auto* region = new Region(collection);
  region->CopySettingsFrom(source);
  for (uint32_t childId : source.children) {
    if (TypeOfId(childId) == ItemType::SynthesisModel) {
      const auto* model = source.collection->Find<SynthesisModel>(childId);
      if (!model) continue;
      auto* copy = new SynthesisModel(collection);
      copy->SetName(model->GetName());
      copy->modelKind = model->modelKind;
      copy->model = model->model;
      copy->parentId = region->id;
      region->children.push_back(copy->id);
    } else {
      region->children.push_back(childId);
    }
  }
  region->parentId = layer->id;
  layer->children.push_back(region->id);
  return region;
}

// ---------------------------------------------------------------------------------------------
// Songs

Track::Track(Collection* owner, uint32_t requestedId) : NamedItem(owner, MakeId(ItemType::Track, requestedId)) {}

Track::~Track() {
  if (Item* parent = Parent()) parent->RemoveChild(id);
}

Song::Song(Collection* owner, uint32_t requestedId) : TextItem(owner, MakeId(ItemType::Song, requestedId)) {}

Song::~Song() {
  while (!children.empty()) {
    const uint32_t childId = children.back();
    children.pop_back();
    // The child is off the list already: it must not search the list for itself, which made
    // deleting a level of many children quadratic.
    Item* child = collection->FindItem(childId);
    // Only a child this item owns goes with it; a damaged list naming the item itself or another
    // item's child is only dropped, and the collection deletes what hangs nowhere.
    if (!child || child == this || child->parentId != id) continue;
    child->parentId = kNullId;
    delete child;
  }
}

void Song::FixUp() {
  Item::FixUp();
  if (GetName().empty()) AssignDefaultName();
}

// ---------------------------------------------------------------------------------------------
// Collection

Collection::Collection() : TextItem(this, kCollectionId) {
  id = kCollectionId;
  items_.reserve(8);
  items_[id] = this;
  LinkAtEnd(this);
  ++typeCounts_[uint32_t(ItemType::Collection)];
  texts_[0] = kNewCollectionName;
}

Collection::~Collection() {
  clearing_ = true;
  Unlink(this);
  items_.erase(id);
  while (firstInOrder_) delete firstInOrder_;
}

void Collection::LinkAtEnd(Item* item) {
  item->previousInOrder_ = lastInOrder_;
  item->nextInOrder_ = nullptr;
  if (lastInOrder_) lastInOrder_->nextInOrder_ = item;
  else firstInOrder_ = item;
  lastInOrder_ = item;
  const uint32_t type = uint32_t(item->Type());
  item->previousOfType_ = lastOfType_[type];
  item->nextOfType_ = nullptr;
  if (lastOfType_[type]) lastOfType_[type]->nextOfType_ = item;
  else firstOfType_[type] = item;
  lastOfType_[type] = item;
}

void Collection::Unlink(Item* item) {
  if (item->previousInOrder_) item->previousInOrder_->nextInOrder_ = item->nextInOrder_;
  else if (firstInOrder_ == item) firstInOrder_ = item->nextInOrder_;
  if (item->nextInOrder_) item->nextInOrder_->previousInOrder_ = item->previousInOrder_;
  else if (lastInOrder_ == item) lastInOrder_ = item->previousInOrder_;
  item->previousInOrder_ = item->nextInOrder_ = nullptr;
  const uint32_t type = uint32_t(item->Type());
  if (item->previousOfType_) item->previousOfType_->nextOfType_ = item->nextOfType_;
  else if (firstOfType_[type] == item) firstOfType_[type] = item->nextOfType_;
  if (item->nextOfType_) item->nextOfType_->previousOfType_ = item->previousOfType_;
  else if (lastOfType_[type] == item) lastOfType_[type] = item->previousOfType_;
  item->previousOfType_ = item->nextOfType_ = nullptr;
}

uint32_t Collection::NextFreeIndex(ItemType type) {
  std::atomic<uint32_t>& counter = nextIndexCounters[uint32_t(type)];
  uint32_t index = counter.load();
  // Indexes wrap at 28 bits and skip those in use; kNextFreeIndex and kNoWave are never given out.
  for (;;) {
    index = (index + 1) & kIndexMask;
    if (index >= kNoWave) index = 0;
    if (!items_.count(MakeId(type, index))) break;
  }
  counter.store(index);
  return index;
}

void Collection::Register(Item* item, uint32_t requestedId) {
  const ItemType type = TypeOfId(requestedId);
  uint32_t index = requestedId & kIndexMask;
  if (index == kNextFreeIndex || index == kNoWave || items_.count(MakeId(type, index))) {
    index = NextFreeIndex(type);
  } else {
    nextIndexCounters[uint32_t(type)].store(index);  // an explicit index sets the counter
  }
  item->id = MakeId(type, index);
  items_[item->id] = item;
  LinkAtEnd(item);
  ++typeCounts_[uint32_t(type)];
}

void Collection::Unregister(Item* item) {
  auto at = items_.find(item->id);
  if (at == items_.end() || at->second != item) return;
  items_.erase(at);
  Unlink(item);
  --typeCounts_[uint32_t(item->Type())];
}

Item* Collection::FindItem(uint32_t itemId) const {
  if (itemId == kNullId) return nullptr;
  auto at = items_.find(itemId);
  return at == items_.end() ? nullptr : at->second;
}

Item* Collection::CreateItem(uint32_t itemId) {
  switch (TypeOfId(itemId)) {
    case ItemType::Waveform: return new Waveform(this, itemId);
    case ItemType::SynthesisModel: return new SynthesisModel(this, itemId);
    case ItemType::Region: return new Region(this, itemId, kNoWave, kRangeNotGiven, kRangeNotGiven, -1);
    case ItemType::Layer: return new Layer(this, itemId);
    case ItemType::Instrument: return new Instrument(this, itemId);
    case ItemType::Track: return new Track(this, itemId);
    case ItemType::Song: return new Song(this, itemId);
    default: return nullptr;
  }
}

void Collection::TakeItemsFrom(Collection& source) {
  for (Item* item : source.AllItems()) {
    if (item == &source) continue;
    source.items_.erase(item->id);
    source.Unlink(item);
    --source.typeCounts_[uint32_t(item->Type())];
    item->collection = this;
    if (items_.count(item->id)) item->id = MakeId(item->Type(), NextFreeIndex(item->Type()));
    items_[item->id] = item;
    LinkAtEnd(item);
    ++typeCounts_[uint32_t(item->Type())];
  }
}

void Collection::PlaceBefore(Item* item, uint32_t beforeId) {
  Item* before = FindItem(beforeId);
  if (before == item || item->collection != this) return;
  Unlink(item);
  if (!before) {
    LinkAtEnd(item);
    return;
  }
  item->nextInOrder_ = before;
  item->previousInOrder_ = before->previousInOrder_;
  if (before->previousInOrder_) before->previousInOrder_->nextInOrder_ = item;
  else firstInOrder_ = item;
  before->previousInOrder_ = item;
  // The list of the item's type keeps the same order: it goes before the next item of its type.
  const uint32_t type = uint32_t(item->Type());
  Item* nextOfType = before;
  while (nextOfType && nextOfType->Type() != item->Type()) nextOfType = nextOfType->nextInOrder_;
  if (!nextOfType) {
    item->previousOfType_ = lastOfType_[type];
    if (lastOfType_[type]) lastOfType_[type]->nextOfType_ = item;
    else firstOfType_[type] = item;
    lastOfType_[type] = item;
    return;
  }
  item->nextOfType_ = nextOfType;
  item->previousOfType_ = nextOfType->previousOfType_;
  if (nextOfType->previousOfType_) nextOfType->previousOfType_->nextOfType_ = item;
  else firstOfType_[type] = item;
  nextOfType->previousOfType_ = item;
}

std::vector<Item*> Collection::AllItems() const {
  std::vector<Item*> out;
  for (Item* at = firstInOrder_; at; at = at->nextInOrder_) out.push_back(at);
  return out;
}

void Collection::Clear() {
  for (Song* song : All<Song>().ToVector()) delete song;
  for (Instrument* instrument : All<Instrument>().ToVector()) delete instrument;
  for (Waveform* wave : All<Waveform>().ToVector()) delete wave;
  // Whatever hangs nowhere (a lone layer, region, track or model) goes too.
  for (Item* item = firstInOrder_; item;) {
    if (item == this) {
      item = item->nextInOrder_;
      continue;
    }
    delete item;
    item = firstInOrder_;
  }
  sourceRow = -1;
  texts_[0] = kNewCollectionName;
  texts_[kTextSourceFile - kTextName].clear();
}

void Collection::FixUp() {
  // Unique patches. The key puts the major bank lowest, so that a clash steps the major bank first.
  // A taken key points on to a later key to try, and every walk shortens the chains it followed, so
  // that thousands of instruments on one patch cost linear time, not a walk past all the others each.
  std::unordered_set<uint32_t> taken;
  std::unordered_map<uint32_t, uint32_t> tryNext;
  std::vector<uint32_t> walked;
  for (Instrument* instrument : All<Instrument>()) {
    const uint32_t patch = instrument->patch;
    uint32_t key = ((patch & 0x3FFF) << 7) | ((patch >> 14) & 0x7F) | (patch & 0x200000);
    walked.clear();
    while (taken.count(key)) {
      walked.push_back(key);
      auto next = tryNext.find(key);
      key = next != tryNext.end() ? next->second : (key + 1) & 0x3FFFFF;
    }
    for (uint32_t step : walked) tryNext[step] = key;
    taken.insert(key);
    tryNext[key] = (key + 1) & 0x3FFFFF;
    instrument->patch = ((key >> 7) & 0x3FFF) | ((key & 0x7F) << 14) | (key & 0x200000);
  }
}

void Collection::MergeFrom(Collection& source) {
  if (source.items_.size() < 2) return;
  source.Unlink(&source);
  source.items_.erase(source.id);

  const std::string sourcePath = source.GetSourcePath();
  std::unordered_map<uint32_t, uint32_t> newIds{{kNullId, kNullId}};
  const std::vector<Item*> moving = source.AllItems();
  for (Item* item : moving) {
    // Take the index now so that two moving items never get the same one.
    const uint32_t newId = MakeId(item->Type(), NextFreeIndex(item->Type()));
    newIds[item->id] = newId;
    items_[newId] = nullptr;
  }
  auto remap = [&newIds](uint32_t oldId) {
    auto at = newIds.find(oldId);
    if (at == newIds.end()) at = newIds.emplace(oldId, oldId).first;
    return at->second;
  };
  for (Item* item : moving) {
    source.items_.erase(item->id);
    source.Unlink(item);
    item->id = remap(item->id);
    item->parentId = remap(item->parentId);
    for (uint32_t& childId : item->children) childId = remap(childId);
    item->collection = this;
    if (item->Type() == ItemType::Waveform) {
      auto* wave = static_cast<Waveform*>(item);
      if (wave->GetText(kTextSourceFile).empty()) wave->SetText(kTextSourceFile, sourcePath);
    }
    if (item->Type() == ItemType::Instrument) {
      auto* instrument = static_cast<Instrument*>(item);
      for (;;) {
        bool clash = false;
        for (Instrument* other : All<Instrument>())
          if (other->patch == instrument->patch) clash = true;
        if (!clash) break;
        // Program first, carrying into the minor bank; the drum bit stays.
        instrument->patch = (instrument->patch & 0x200000) | ((instrument->patch + 1) & 0x1FFFFF);
      }
    }
    items_[item->id] = item;
    LinkAtEnd(item);
  }
  for (uint32_t type = 0; type < kItemTypeCount; ++type) {
    if (type == uint32_t(ItemType::Collection)) continue;
    typeCounts_[type] += source.typeCounts_[type];
    source.typeCounts_[type] = 0;
  }
  source.items_[source.id] = &source;
  source.LinkAtEnd(&source);
  FixUp();
}

}  // namespace orlin
