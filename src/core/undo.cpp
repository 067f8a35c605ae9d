// The undo ring: entries of parameter values, item records, markers or state names, each applied by
// swapping it with the model; and the navigation ring.
#include "core/undo.h"

#include <algorithm>
#include <cstdio>
#include <unordered_set>

#include "core/byte_stream.h"
#include "core/collection.h"
#include "core/fixup.h"
#include "core/last_error.h"
#include "core/settings.h"
#include "core/user_interface.h"

namespace orlin {

namespace {

constexpr uint32_t kMixedTypes = 0xFFFFFFFF;
constexpr size_t kNumericRecordBytes = 13;
constexpr size_t kParamHeadBytes = 9;

// ---- parameter values as an entry keeps them

bool IsRegionOverride(ParamId id) { return (id >= kFirstLoopParam && id < kFirstTextParam) || id == 222; }

uint8_t OverrideBitOf(ParamId id) {
  switch (id) {
    case 204: return Region::kOverrideLoopType;
    case 205: return Region::kOverrideLoopRelease;
    case 206: return Region::kOverrideLoopStart;
    case 207: return Region::kOverrideLoopEnd;
    case 208: return Region::kOverrideLoopTune;
    default: return Region::kOverrideRoot;
  }
}


TriggerRange* TriggerOf(Item& item) {
  if (item.Type() == ItemType::Layer) return &static_cast<Layer&>(item).range;
  if (item.Type() == ItemType::Region) return &static_cast<Region&>(item).range;
  return nullptr;
}

struct ParamState {
  uint8_t set = 1;
  float value = 0.0f;
  float inherited = 0.0f;
};

ParamState ReadParam(Item& item, ParamId id) {
  ParamState state;
  state.inherited = item.GetInheritedParam(id);
  if (item.Type() == ItemType::Region && IsRegionOverride(id)) {
    const auto& region = static_cast<Region&>(item);
    state.set = (region.overrideFlags & OverrideBitOf(id)) ? 1 : 0;
    switch (id) {
      case 204: state.value = region.loop.type; break;
      case 205: state.value = region.loop.release; break;
      case 206: state.value = region.loop.start; break;
      case 207: state.value = region.loop.end; break;
      case 208: state.value = region.loop.tune; break;
      default: state.value = region.rootKey; break;
    }
    return state;
  }
  if (TriggerRange* range = TriggerOf(item); range && id >= kFirstTriggerParam && id < kFirstLoopParam) {
    state.set = (range->mask >> (id - kFirstTriggerParam)) & 1;
    state.value = item.GetParam(id);
    return state;
  }
  if (ArticulationOf(item) && id < kArticulationParamCount) state.set = item.IsParamSet(id) ? 1 : 0;
  state.value = item.GetParam(id);
  return state;
}

// Puts a recorded value back exactly as it was, without the rounding of SetParam, and lets the
// levels below that do not set it take it again.
void WriteParam(Item& item, ParamId id, const ParamState& state) {
  Collection& collection = *item.collection;
  if (Articulation* art = ArticulationOf(item); art && id < kArticulationParamCount) {
    float values[kArticulationParamCount];
    uint64_t mask[3];
    std::copy_n(art->Values(), kArticulationParamCount, values);
    std::copy_n(art->Mask(), 3, mask);
    values[id] = state.value;
    const uint64_t bit = uint64_t(1) << (id & 63);
    mask[id >> 6] = state.set ? mask[id >> 6] | bit : mask[id >> 6] & ~bit;
    art->Assign(values, mask);
    if (item.Type() == ItemType::Instrument) {
      for (Layer* layer : ChildrenOf<Layer>(item)) {
        layer->articulation.FillFrom(*art);
        for (Region* region : ChildrenOf<Region>(*layer)) region->articulation.FillFrom(layer->articulation);
      }
    } else if (item.Type() == ItemType::Layer) {
      for (Region* region : ChildrenOf<Region>(item)) region->articulation.FillFrom(*art);
    }
    return;
  }
  if (TriggerRange* range = TriggerOf(item); range && id >= kFirstTriggerParam && id < kFirstLoopParam) {
    auto store = [id](TriggerRange& into, float value, bool set) {
      into.values[id - kFirstTriggerParam] = value;
      switch (id) {
        case 190: into.loKey = uint8_t(value); break;
        case 191: into.hiKey = uint8_t(value); break;
        case 192: into.loVelocity = uint8_t(value); break;
        case 193: into.hiVelocity = uint8_t(value); break;
        default: break;
      }
      const uint64_t bit = uint64_t(1) << (id - kFirstTriggerParam);
      into.mask = set ? into.mask | bit : into.mask & ~bit;
    };
    store(*range, state.value, state.set);
    if (item.Type() == ItemType::Layer)
      for (Region* region : ChildrenOf<Region>(item))
        if (!((region->range.mask >> (id - kFirstTriggerParam)) & 1)) store(region->range, state.value, false);
    return;
  }
  if (item.Type() == ItemType::Region && IsRegionOverride(id)) {
    auto& region = static_cast<Region&>(item);
    region.overrideFlags = state.set ? region.overrideFlags | OverrideBitOf(id) : region.overrideFlags & ~OverrideBitOf(id);
    switch (id) {
      case 204: region.loop.type = uint8_t(state.value); break;
      case 205: region.loop.release = uint8_t(state.value); break;
      case 206: region.loop.start = state.value; break;
      case 207: region.loop.end = state.value; break;
      case 208: region.loop.tune = state.value; break;
      default: region.rootKey = uint8_t(state.value); break;
    }
    return;
  }
  if (item.Type() == ItemType::Waveform) {
    auto& wave = static_cast<Waveform&>(item);
    switch (id) {
      case 204: wave.loop.type = uint8_t(state.value); return;
      case 205: wave.loop.release = uint8_t(state.value); return;
      case 206: wave.loop.start = state.value; return;
      case 207: wave.loop.end = state.value; return;
      case 208: wave.loop.tune = state.value; return;
      case 217: wave.sampleRate = uint32_t(state.value); return;
      case 218: wave.rootKey = uint8_t(state.value); return;
      case 219: wave.fineTune = int8_t(state.value); return;
      case 220: wave.gain = state.value; return;
      case 221: wave.dataFormat = uint8_t(state.value); return;
      default: break;
    }
  }
  if (item.Type() == ItemType::Instrument && id >= kFirstEffectParam && id < kParamCount) {
    static_cast<Instrument&>(item).effectSlots[id - kFirstEffectParam] = state.value;
    return;
  }
  (void)collection;
  item.SetParam(id, state.value);
}

bool IsTextParam(ParamId id) { return id >= kTextName && id <= kImage; }

std::string ReadTextParam(const Item& item, ParamId id) {
  if (id == kImage) {
    if (item.Type() == ItemType::Region || item.Type() == ItemType::Layer || item.Type() == ItemType::Track ||
        item.Type() == ItemType::SynthesisModel)
      return {};
    const auto& image = static_cast<const TextItem&>(item).GetImage();
    return std::string(image.begin(), image.end());
  }
  if (auto* text = dynamic_cast<const TextItem*>(&item)) return text->GetText(id);
  if (id == kTextName) {
    const auto* region = dynamic_cast<const Region*>(&item);
    return region && !region->HasOwnName() ? std::string() : item.GetName();
  }
  return {};
}

void WriteTextParam(Item& item, ParamId id, const std::string& text) {
  if (auto* textItem = dynamic_cast<TextItem*>(&item)) {
    if (id == kImage) textItem->SetImage(text.data(), text.size());
    else textItem->SetText(id, text);
  } else if (id == kTextName) {
    item.SetName(text);
  }
}

// ---- item blocks

void OwnedItems(const Collection& collection, const Item& item, std::vector<const Item*>& out) {
  out.push_back(&item);
  if (item.Type() == ItemType::Waveform) return;
  for (uint32_t childId : item.children) {
    // A region does not own its wave.
    if (TypeOfId(childId) == ItemType::Waveform) continue;
    if (const Item* child = collection.FindItem(childId)) OwnedItems(collection, *child, out);
  }
}

// Unique, in collection order.
std::vector<const Item*> InCollectionOrder(const Collection& collection, const std::vector<const Item*>& items) {
  std::unordered_set<const Item*> wanted(items.begin(), items.end());
  std::vector<const Item*> out;
  for (const Item* item : collection.AllItems())
    if (wanted.erase(item)) out.push_back(item);
  return out;
}

struct BlockRecord {
  uint32_t id;
  const uint8_t* bytes;
  size_t size;
};
struct ParsedBlock {
  std::vector<BlockRecord> removed, changed, inserted;
  std::vector<uint32_t> successors;  // per removed record
};

bool ParseItemBlock(const std::vector<uint8_t>& block, ParsedBlock& parsed) {
  ByteSource in(block.data(), block.data() + block.size());
  const uint64_t total = in.U64();
  const uint32_t counts[3] = {in.U32(), in.U32(), in.U32()};
  if (!in.Ok() || total != block.size()) return false;
  std::vector<BlockRecord>* lists[3] = {&parsed.removed, &parsed.changed, &parsed.inserted};
  for (int list = 0; list < 3; ++list) {
    for (uint32_t i = 0; i < counts[list]; ++i) {
      const uint64_t size = in.U64();
      if (size < 4 || !in.CanRead(size)) return false;
      const uint8_t* bytes = in.Take(size_t(size));
      ByteSource idReader(bytes, bytes + 4);
      lists[list]->push_back({idReader.U32(), bytes, size_t(size)});
    }
  }
  for (uint32_t i = 0; i < counts[0]; ++i) parsed.successors.push_back(in.U32());
  return in.Ok();
}

std::vector<uint8_t> AssembleBlock(const std::vector<BlockRecord>& removed, const std::vector<BlockRecord>& changed,
                                   const std::vector<BlockRecord>& inserted, const std::vector<uint32_t>& successors) {
  uint64_t total = 20 + 4 * successors.size();
  for (const auto* list : {&removed, &changed, &inserted})
    for (const BlockRecord& record : *list) total += 8 + record.size;
  std::vector<uint8_t> block(static_cast<size_t>(total));
  ByteSink sink(block.data());
  sink.U64(total);
  sink.U32(uint32_t(removed.size()));
  sink.U32(uint32_t(changed.size()));
  sink.U32(uint32_t(inserted.size()));
  for (const auto* list : {&removed, &changed, &inserted})
    for (const BlockRecord& record : *list) {
      sink.U64(record.size);
      sink.Bytes(record.bytes, record.size);
    }
  for (uint32_t successor : successors) sink.U32(successor);
  return block;
}

std::vector<const Item*> Resolve(const Collection& collection, const std::vector<BlockRecord>& records) {
  std::vector<const Item*> out;
  for (const BlockRecord& record : records)
    if (const Item* item = collection.FindItem(record.id)) out.push_back(item);
  return out;
}

// Applies a block and returns the block that undoes it.
std::vector<uint8_t> ApplyItemBlock(Collection& collection, const std::vector<uint8_t>& block) {
  ParsedBlock parsed;
  if (!ParseItemBlock(block, parsed)) return block;
  // What is there now, first: inserted items come back on redo, changed ones swap.
  std::vector<const Item*> nowInserted = Resolve(collection, parsed.inserted);
  std::vector<const Item*> nowChanged = Resolve(collection, parsed.changed);
  std::vector<uint8_t> partial =
      MakeItemBlock(collection, InCollectionOrder(collection, nowInserted), nowChanged, std::vector<const Item*>());
  ParsedBlock now;
  ParseItemBlock(partial, now);
  // The removed records become the inverse's inserted list: only their ids matter there.
  std::vector<uint8_t> inverse = AssembleBlock(now.removed, now.changed, parsed.removed, now.successors);
  // Delete what the block inserted, last first. An inserted owner may hold items that were there
  // before (a new layer holding a moved region): those are let go first, not deleted with it.
  std::unordered_set<uint32_t> insertedIds;
  for (const BlockRecord& record : parsed.inserted) insertedIds.insert(record.id);
  for (const BlockRecord& record : parsed.inserted)
    if (Item* item = collection.FindItem(record.id))
      std::erase_if(item->children, [&insertedIds](uint32_t childId) { return !insertedIds.count(childId); });
  for (auto it = parsed.inserted.rbegin(); it != parsed.inserted.rend(); ++it)
    delete collection.FindItem(it->id);
  // Bring back what it removed, then put each before the item that followed it.
  std::vector<Item*> restored(parsed.removed.size(), nullptr);
  for (size_t i = 0; i < parsed.removed.size(); ++i) {
    const BlockRecord& record = parsed.removed[i];
    if (collection.FindItem(record.id)) continue;
    Item* item = collection.CreateItem(record.id);
    if (!item) continue;
    if (item->id != record.id || !item->Deserialize(record.bytes, record.bytes + record.size)) {
      delete item;
      continue;
    }
    restored[i] = item;
  }
  for (size_t i = restored.size(); i-- > 0;)
    if (restored[i]) collection.PlaceBefore(restored[i], parsed.successors[i]);
  // Missing items are skipped.
  for (const BlockRecord& record : parsed.changed)
    if (Item* item = collection.FindItem(record.id)) item->Deserialize(record.bytes, record.bytes + record.size);
  return inverse;
}

UndoKind InverseKind(UndoKind kind) {
  switch (kind) {
    case UndoKind::Restore: return UndoKind::Delete;
    case UndoKind::Delete: return UndoKind::Restore;
    case UndoKind::MoveBack: return UndoKind::Move;
    case UndoKind::Move: return UndoKind::MoveBack;
    default: return kind;
  }
}

std::vector<uint8_t> SerializeMarkers(uint32_t waveId, const std::vector<Marker>& markers) {
  std::vector<uint8_t> out(4 + MarkerListSize(markers));
  ByteSink sink(out.data());
  sink.U32(waveId);
  WriteMarkerList(markers, sink);
  return out;
}

bool ParseMarkers(const std::vector<uint8_t>& bytes, uint32_t& waveId, std::vector<Marker>& markers) {
  ByteSource in(bytes.data(), bytes.data() + bytes.size());
  waveId = in.U32();
  return ReadMarkerList(in, markers);
}

std::string NextUndoStateName() {
  // Numbers already on disk (another running copy, or a crashed one) are skipped.
  static int counter = 0;
  for (;;) {
    const std::string name = "Undo state " + std::to_string(++counter);
    const std::string path = StateFilePath(name);
    if (std::FILE* existing = path.empty() ? nullptr : std::fopen(path.c_str(), "rb")) {
      std::fclose(existing);
      continue;
    }
    return name;
  }
}

}  // namespace

std::vector<uint8_t> MakeItemBlock(const Collection& collection, const std::vector<const Item*>& removed,
                                   const std::vector<const Item*>& changed, const std::vector<const Item*>& inserted) {
  uint64_t total = 8 + 12 + 4 * removed.size();
  for (const auto* list : {&removed, &changed, &inserted})
    for (const Item* item : *list) total += 8 + item->SerializedSize();
  std::vector<uint8_t> block(static_cast<size_t>(total));
  ByteSink sink(block.data());
  sink.U64(total);
  sink.U32(uint32_t(removed.size()));
  sink.U32(uint32_t(changed.size()));
  sink.U32(uint32_t(inserted.size()));
  uint8_t* at = sink.Here();
  for (const auto* list : {&removed, &changed, &inserted}) {
    for (const Item* item : *list) {
      ByteSink size(at);
      size.U64(item->SerializedSize());
      at = item->Serialize(size.Here());
    }
  }
  ByteSink successors(at);
  for (const Item* item : removed) {
    // The item right after; removed items come back last first, so a removed successor is back
    // before its predecessor is placed.
    const Item* next = collection.NextInOrder(item);
    successors.U32(next ? next->id : kNullId);
  }
  return block;
}

// ---------------------------------------------------------------------------------------------
// The undo ring

UndoRing::~UndoRing() { ClearUndo(); }

void UndoRing::Free(UndoEntry& entry) {
  if (entry.kind == UndoKind::State)
    DeleteStateFile(std::string(entry.data.begin(), entry.data.end()));
  entry = UndoEntry{};
}

void UndoRing::ClearUndo() {
  if (oldest_ >= 0)
    for (int at = oldest_;; at = (at + 1) % kEntries) {
      Free(entries_[size_t(at)]);
      if (at == newest_) break;
    }
  oldest_ = newest_ = current_ = -1;
  allUndone_ = false;
}

int UndoRing::EntryCount() const {
  if (oldest_ < 0) return 0;
  return (newest_ - oldest_ + kEntries) % kEntries + 1;
}

bool UndoRing::CanUndo() const { return current_ >= 0 && !allUndone_; }
bool UndoRing::CanRedo() const { return current_ >= 0 && (allUndone_ || current_ != newest_); }

std::string UndoRing::UndoLabel() const { return CanUndo() ? entries_[size_t(current_)].label : std::string(); }

std::string UndoRing::RedoLabel() const {
  if (!CanRedo()) return {};
  return entries_[size_t(allUndone_ ? current_ : (current_ + 1) % kEntries)].label;
}

std::vector<std::string> UndoRing::StateNames() const {
  std::vector<std::string> out;
  if (oldest_ < 0) return out;
  for (int at = oldest_;; at = (at + 1) % kEntries) {
    const UndoEntry& entry = entries_[size_t(at)];
    if (entry.kind == UndoKind::State) out.emplace_back(entry.data.begin(), entry.data.end());
    if (at == newest_) break;
  }
  return out;
}

void UndoRing::Push(UndoEntry entry) {
  // A repeated set of one parameter to the same values on the same items is one step.
  if (entry.kind == UndoKind::ParamEdit && CanUndo()) {
    const UndoEntry& last = entries_[size_t(current_)];
    if (last.kind == UndoKind::ParamEdit && last.itemId == entry.itemId && last.data == entry.data) return;
  }
  // Redo is gone.
  if (allUndone_) {
    ClearUndo();
  } else if (current_ >= 0) {
    for (int at = current_; at != newest_;) {
      at = (at + 1) % kEntries;
      Free(entries_[size_t(at)]);
    }
    newest_ = current_;
  }
  const int next = current_ < 0 ? 0 : (current_ + 1) % kEntries;
  if (oldest_ >= 0 && next == oldest_) {
    Free(entries_[size_t(oldest_)]);
    oldest_ = (oldest_ + 1) % kEntries;
  }
  if (oldest_ < 0) oldest_ = next;
  entries_[size_t(next)] = std::move(entry);
  current_ = newest_ = next;
}

std::string UndoRing::Describe(const std::vector<Item*>& items) const {
  if (items.size() == 1) {
    const std::string& name = items[0]->GetName();
    return name.empty() ? std::string("item") : name;
  }
  bool oneType = true;
  for (const Item* item : items) oneType = oneType && item->Type() == items[0]->Type();
  const std::string word = oneType && !items.empty() ? ItemTypeWord(uint32_t(items[0]->Type())) : "item";
  return "<" + std::to_string(items.size()) + " " + word + "s>";
}

uint32_t UndoRing::EntryItemId(const std::vector<Item*>& items) const {
  if (items.size() == 1) return items[0]->id;
  for (const Item* item : items)
    if (item->Type() != items[0]->Type()) return kMixedTypes;
  return items.empty() ? kMixedTypes : MakeId(items[0]->Type(), 0);
}

void UndoRing::RecordParamEdit(const std::vector<Item*>& items, ParamId paramId, uint16_t extraId, bool isReset,
                               bool noMerge) {
  if (items.empty()) return;
  const ParamInfo* row = GetParamRow(paramId);
  const std::string paramName = row && row->name ? row->name : "";
  const std::string label = Describe(items) + (isReset ? ": Reset " : ": Edit ") + paramName;
  // Rows the feature word ties to this one change with it: the items are recorded whole then.
  if (paramId < kArticulationParamCount && !LinkedParams(paramId, GetSettings().features).empty()) {
    std::vector<Item*> withBelow;
    for (Item* item : items) {
      withBelow.push_back(item);
      for (Layer* layer : ChildrenOf<Layer>(*item)) {
        withBelow.push_back(layer);
        for (Region* region : ChildrenOf<Region>(*layer)) withBelow.push_back(region);
      }
      if (item->Type() == ItemType::Layer)
        for (Region* region : ChildrenOf<Region>(*item)) withBelow.push_back(region);
    }
    if (!noMerge && CanUndo()) {
      const UndoEntry& last = entries_[size_t(current_)];
      if (last.kind == UndoKind::Edit && last.label == label && last.itemId == EntryItemId(items)) return;
    }
    RecordEdit(withBelow, label);
    entries_[size_t(current_)].itemId = EntryItemId(items);
    return;
  }
  const bool text = IsTextParam(paramId);
  std::vector<uint8_t> data;
  size_t size = kParamHeadBytes;
  std::vector<std::string> texts;
  if (text) {
    for (Item* item : items) texts.push_back(ReadTextParam(*item, paramId));
    for (const std::string& value : texts) size += 8 + value.size();
  } else {
    size += kNumericRecordBytes * items.size();
  }
  data.resize(size);
  ByteSink sink(data.data());
  sink.U16(paramId);
  sink.U16(extraId);
  sink.U8(text ? 1 : 0);
  sink.U32(uint32_t(items.size()));
  for (size_t i = 0; i < items.size(); ++i) {
    sink.U32(items[i]->id);
    if (text) {
      sink.U32(uint32_t(texts[i].size()));
      sink.Bytes(texts[i].data(), texts[i].size());
    } else {
      const ParamState state = ReadParam(*items[i], paramId);
      sink.U8(state.set);
      sink.F32(state.value);
      sink.F32(state.inherited);
    }
  }
  // A drag: the entry from its start stays while the same parameter of the same items changes.
  if (!noMerge && CanUndo()) {
    const UndoEntry& last = entries_[size_t(current_)];
    if (last.kind == UndoKind::ParamEdit && last.data.size() >= kParamHeadBytes &&
        std::equal(data.begin(), data.begin() + 4, last.data.begin())) {
      ByteSource a(last.data.data() + kParamHeadBytes, last.data.data() + last.data.size());
      bool sameItems = last.data.size() == data.size() || text;
      ByteSource countReader(last.data.data() + 5, last.data.data() + 9);
      sameItems = sameItems && countReader.U32() == items.size();
      for (size_t i = 0; sameItems && i < items.size(); ++i) {
        sameItems = a.U32() == items[i]->id;
        a.Take(text ? a.U32() : 9);
      }
      if (sameItems) return;
    }
  }
  UndoEntry entry;
  entry.itemId = EntryItemId(items);
  entry.kind = UndoKind::ParamEdit;
  entry.data = std::move(data);
  entry.label = label;
  Push(std::move(entry));
}

void UndoRing::RecordDelete(const std::vector<Item*>& items, const std::string& label) {
  if (items.empty()) return;
  std::vector<const Item*> removed;
  for (const Item* item : items) OwnedItems(collection_, *item, removed);
  removed = InCollectionOrder(collection_, removed);
  std::unordered_set<const Item*> leaving(removed.begin(), removed.end());
  std::unordered_set<uint32_t> leavingWaves;
  for (const Item* item : removed)
    if (item->Type() == ItemType::Waveform) leavingWaves.insert(item->id);
  // Parents lose a child id, and regions that play a deleted wave keep a dangling one that a later
  // fix-up drops: both are kept as they stand now.
  std::vector<const Item*> changed;
  for (const Item* item : removed)
    if (const Item* parent = item->Parent(); parent && !leaving.count(parent)) changed.push_back(parent);
  if (!leavingWaves.empty())
    for (const Region* region : collection_.All<Region>())
      if (!leaving.count(region))
        for (uint32_t childId : region->children)
          if (leavingWaves.count(childId)) changed.push_back(region);
  changed = InCollectionOrder(collection_, changed);
  UndoEntry entry;
  entry.itemId = EntryItemId(items);
  entry.kind = UndoKind::Restore;
  entry.data = MakeItemBlock(collection_, removed, changed, {});
  entry.label = (label.empty() ? std::string("Delete") : label) + " " + Describe(items);
  Push(std::move(entry));
}

void UndoRing::RecordMove(const std::vector<Item*>& items, const std::vector<Item*>& insertedItems, bool reverse) {
  if (items.empty() && insertedItems.empty()) return;
  std::vector<const Item*> changed;
  for (const Item* item : items) {
    changed.push_back(item);
    if (const Item* parent = item->Parent()) changed.push_back(parent);
  }
  std::vector<const Item*> inserted;
  for (const Item* item : insertedItems) OwnedItems(collection_, *item, inserted);
  UndoEntry entry;
  entry.itemId = EntryItemId(items.empty() ? insertedItems : items);
  entry.kind = reverse ? UndoKind::MoveBack : UndoKind::Move;
  entry.data = MakeItemBlock(collection_, {}, InCollectionOrder(collection_, changed), InCollectionOrder(collection_, inserted));
  entry.label = std::string(reverse ? "Move back " : "Move ") + Describe(items.empty() ? insertedItems : items);
  Push(std::move(entry));
}

void UndoRing::RecordEdit(const std::vector<Item*>& items, const std::string& label) {
  if (items.empty()) return;
  std::vector<const Item*> changed(items.begin(), items.end());
  UndoEntry entry;
  entry.itemId = EntryItemId(items);
  entry.kind = UndoKind::Edit;
  entry.data = MakeItemBlock(collection_, {}, InCollectionOrder(collection_, changed), {});
  entry.label = label.empty() ? "Edit " + Describe(items) : label;
  Push(std::move(entry));
}

void UndoRing::RecordInsert(const std::vector<Item*>& parents, const std::string& label) {
  std::vector<const Item*> changed(parents.begin(), parents.end());
  UndoEntry entry;
  entry.itemId = parents.empty() ? kMixedTypes : EntryItemId(parents);
  entry.kind = UndoKind::Move;
  entry.data = MakeItemBlock(collection_, {}, InCollectionOrder(collection_, changed), {});
  entry.label = label;
  Push(std::move(entry));
}

void UndoRing::NoteInserted(const std::vector<Item*>& items) {
  if (current_ < 0 || allUndone_ || items.empty()) return;
  UndoEntry& entry = entries_[size_t(current_)];
  if (entry.kind < UndoKind::Restore || entry.kind > UndoKind::Edit) return;
  ParsedBlock parsed;
  if (!ParseItemBlock(entry.data, parsed)) return;
  std::vector<const Item*> inserted = Resolve(collection_, parsed.inserted);
  // What a new item holds is new too, unless the entry already keeps it as it was (a moved child).
  std::unordered_set<uint32_t> kept;
  for (const BlockRecord& record : parsed.changed) kept.insert(record.id);
  for (const BlockRecord& record : parsed.removed) kept.insert(record.id);
  std::vector<const Item*> owned;
  for (const Item* item : items) OwnedItems(collection_, *item, owned);
  for (const Item* item : owned)
    if (!kept.count(item->id)) inserted.push_back(item);
  inserted = InCollectionOrder(collection_, inserted);
  // The removed and changed records stand as they were taken.
  std::vector<uint8_t> insertedPart = MakeItemBlock(collection_, {}, {}, inserted);
  ParsedBlock insertedParsed;
  ParseItemBlock(insertedPart, insertedParsed);
  std::vector<uint8_t> rebuilt = AssembleBlock(parsed.removed, parsed.changed, insertedParsed.inserted, parsed.successors);
  entry.data.swap(rebuilt);
}

void UndoRing::RecordMarkers(const Waveform& wave) {
  UndoEntry entry;
  entry.itemId = wave.id;
  entry.kind = UndoKind::Markers;
  entry.data = SerializeMarkers(wave.id, wave.markers);
  entry.label = "Edit markers " + wave.GetName();
  Push(std::move(entry));
}

bool UndoRing::SaveUndoState(const char* label) {
  const std::string name = NextUndoStateName();
  if (!SaveStateFile(collection_, name)) return false;  // the operation goes on, not undoable
  UndoEntry entry;
  entry.itemId = kMixedTypes;
  entry.kind = UndoKind::State;
  entry.data.assign(name.begin(), name.end());
  entry.label = label ? label : "Edit all";
  Push(std::move(entry));
  return true;
}

bool UndoRing::PushLoadedState(const std::string& label) { return SaveUndoState(label.c_str()); }

bool UndoRing::Apply(UndoEntry& entry) {
  switch (entry.kind) {
    case UndoKind::ParamEdit: {
      ByteSource in(entry.data.data(), entry.data.data() + entry.data.size());
      const ParamId paramId = in.U16();
      in.U16();
      const bool text = in.U8() != 0;
      const uint32_t count = in.U32();
      std::vector<uint8_t> swapped(entry.data.begin(), entry.data.begin() + kParamHeadBytes);
      for (uint32_t i = 0; i < count && in.Ok(); ++i) {
        const uint32_t itemId = in.U32();
        Item* item = collection_.FindItem(itemId);
        if (text) {
          const uint32_t size = in.U32();
          const uint8_t* bytes = in.Take(size);
          if (!bytes) break;
          std::string now = item ? ReadTextParam(*item, paramId) : std::string(reinterpret_cast<const char*>(bytes), size);
          if (item) WriteTextParam(*item, paramId, std::string(reinterpret_cast<const char*>(bytes), size));
          const size_t at = swapped.size();
          swapped.resize(at + 8 + now.size());
          ByteSink sink(swapped.data() + at);
          sink.U32(itemId);
          sink.U32(uint32_t(now.size()));
          sink.Bytes(now.data(), now.size());
        } else {
          ParamState recorded;
          recorded.set = in.U8();
          recorded.value = in.F32();
          recorded.inherited = in.F32();
          ParamState now = item ? ReadParam(*item, paramId) : recorded;
          if (item && in.Ok()) WriteParam(*item, paramId, recorded);
          const size_t at = swapped.size();
          swapped.resize(at + kNumericRecordBytes);
          ByteSink sink(swapped.data() + at);
          sink.U32(itemId);
          sink.U8(now.set);
          sink.F32(now.value);
          sink.F32(now.inherited);
        }
      }
      entry.data.swap(swapped);
      return true;
    }
    case UndoKind::Restore:
    case UndoKind::Delete:
    case UndoKind::MoveBack:
    case UndoKind::Move:
    case UndoKind::Edit:
      entry.data = ApplyItemBlock(collection_, entry.data);
      entry.kind = InverseKind(entry.kind);
      return true;
    case UndoKind::Markers: {
      uint32_t waveId;
      std::vector<Marker> markers;
      if (!ParseMarkers(entry.data, waveId, markers)) return false;
      Waveform* wave = collection_.Find<Waveform>(waveId);
      if (!wave) return false;
      entry.data = SerializeMarkers(waveId, wave->markers);
      wave->markers = std::move(markers);
      return true;
    }
    case UndoKind::State: {
      const std::string name(entry.data.begin(), entry.data.end());
      const std::string path = StateFilePath(name);
      if (path.empty()) return false;
      if (std::FILE* file = std::fopen(path.c_str(), "rb")) {
        std::fclose(file);
      } else {
        return false;  // the file has vanished: nothing happens and the entry stays
      }
      const std::string now = NextUndoStateName();
      if (!SaveStateFile(collection_, now)) return false;
      if (!LoadStateFile(collection_, name)) {
        DeleteStateFile(now);
        return false;
      }
      DeleteStateFile(name);
      entry.data.assign(now.begin(), now.end());
      return true;
    }
    case UndoKind::Empty: return false;
  }
  return false;
}

bool UndoRing::Undo() {
  if (!CanUndo()) return false;
  UndoEntry& entry = entries_[size_t(current_)];
  if (!Apply(entry)) return false;
  if (entry.kind != UndoKind::ParamEdit) collection_.FixUp();
  shownItem_ = entry.itemId;
  shownView_ = entry.view;
  lastStatus_ = "Undo: " + entry.label;
  SetStatus(lastStatus_);
  if (current_ == oldest_) allUndone_ = true;
  else current_ = (current_ + kEntries - 1) % kEntries;
  return true;
}

bool UndoRing::Redo() {
  if (!CanRedo()) return false;
  const int at = allUndone_ ? current_ : (current_ + 1) % kEntries;
  UndoEntry& entry = entries_[size_t(at)];
  if (!Apply(entry)) return false;
  if (entry.kind != UndoKind::ParamEdit) collection_.FixUp();
  allUndone_ = false;
  current_ = at;
  shownItem_ = entry.itemId;
  shownView_ = entry.view;
  lastStatus_ = "Redo: " + entry.label;
  SetStatus(lastStatus_);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Navigation

void NavigationRing::Visit(uint32_t itemId, uint8_t tab) {
  if (current_ >= 0 && entries_[size_t(current_)] == std::make_pair(itemId, tab)) return;
  const int next = current_ < 0 ? 0 : (current_ + 1) % kEntries;
  if (oldest_ >= 0 && next == oldest_ && current_ == newest_) oldest_ = (oldest_ + 1) % kEntries;
  if (oldest_ < 0) oldest_ = next;
  entries_[size_t(next)] = {itemId, tab};
  current_ = newest_ = next;
}

bool NavigationRing::Resolve(int at, uint32_t& itemId, uint8_t& tab) const {
  itemId = entries_[size_t(at)].first;
  tab = entries_[size_t(at)].second;
  return (itemId >> 28) == kPaneType || collection_.FindItem(itemId) != nullptr;
}

bool NavigationRing::Back(uint32_t& itemId, uint8_t& tab) {
  if (current_ < 0 || current_ == oldest_) return false;
  current_ = (current_ + kEntries - 1) % kEntries;
  return Resolve(current_, itemId, tab);
}

bool NavigationRing::Forward(uint32_t& itemId, uint8_t& tab) {
  if (current_ < 0 || current_ == newest_) return false;
  current_ = (current_ + 1) % kEntries;
  return Resolve(current_, itemId, tab);
}

}  // namespace orlin
