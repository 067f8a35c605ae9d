// Clipboard blocks: items as their flat records behind a CRC, and the small records of articulation
// parts. Pasting reads into a scratch collection first and merges it, so ids never clash.
#include "commands/clipboard.h"

#include <unistd.h>

#include <array>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "core/byte_stream.h"
#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/state_file.h"

namespace orlin {

namespace {

constexpr size_t kBlockHeadBytes = 16;
constexpr uint64_t kClipboardLimit = 0xFFFFFFF0;
constexpr const char* kCorrupted = "Paste failed - Clipboard data corrupted!";

const std::array<uint32_t, 256>& CrcTable() {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> out{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t value = i;
      for (int bit = 0; bit < 8; ++bit) value = (value & 1) ? (value >> 1) ^ 0xEDB88320u : value >> 1;
      out[i] = value;
    }
    return out;
  }();
  return table;
}

void Collect(const Collection& collection, const Item& item, std::unordered_set<const Item*>& out) {
  if (!out.insert(&item).second) return;
  for (uint32_t childId : item.children)
    if (const Item* child = collection.FindItem(childId)) Collect(collection, *child, out);
}

std::vector<uint8_t> FloatRecord(const float* values, size_t count) {
  std::vector<uint8_t> out(count * 4);
  ByteSink sink(out.data());
  for (size_t i = 0; i < count; ++i) sink.F32(values[i]);
  return out;
}

bool ReadFloats(const std::vector<uint8_t>& bytes, float* values, size_t count) {
  if (bytes.size() != count * 4) return false;
  ByteSource in(bytes.data(), bytes.data() + bytes.size());
  for (size_t i = 0; i < count; ++i) values[i] = in.F32();
  return true;
}

}  // namespace

uint32_t Crc32(const uint8_t* bytes, size_t size) {
  const auto& table = CrcTable();
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 0; i < size; ++i) crc = table[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFF;
}

uint32_t CurrentProcessId() { return uint32_t(::getpid()); }

bool CopyItemsToBlock(const Collection& collection, const std::vector<const Item*>& items, uint32_t processId,
                      std::vector<uint8_t>& block) {
  std::unordered_set<const Item*> wanted;
  for (const Item* item : items)
    if (item && item->Type() != ItemType::Collection) Collect(collection, *item, wanted);
  std::vector<const Item*> ordered;
  uint64_t size = 0;
  for (const Item* item : collection.AllItems())
    if (wanted.count(item)) {
      ordered.push_back(item);
      size += item->SerializedSize();
    }
  if (size + kBlockHeadBytes >= kClipboardLimit) {
    SetLastError("Too large for the clipboard!");
    return false;
  }
  try {
    block.assign(size_t(size) + kBlockHeadBytes, 0);
  } catch (const std::bad_alloc&) {
    SetLastError("Couldn't alloc global memory");
    return false;
  }
  uint8_t* at = block.data() + kBlockHeadBytes;
  for (const Item* item : ordered) at = item->Serialize(at);
  ByteSink head(block.data());
  head.U32(processId);
  head.U32(uint32_t(ordered.size()));
  head.U32(uint32_t(size));
  head.U32(Crc32(block.data() + kBlockHeadBytes, size_t(size)));
  return true;
}

bool PasteItemsFromBlock(Collection& collection, const std::vector<uint8_t>& block, uint32_t processId,
                         std::vector<Item*>* pasted) {
  ByteSource head(block.data(), block.data() + block.size());
  const uint32_t copier = head.U32();
  const uint32_t count = head.U32();
  const uint32_t size = head.U32();
  const uint32_t crc = head.U32();
  if (!head.Ok() || count == 0 || size != block.size() - kBlockHeadBytes ||
      Crc32(block.data() + kBlockHeadBytes, size) != crc) {
    SetLastError(kCorrupted);
    return false;
  }
  auto scratch = std::make_unique<Collection>();
  const uint8_t* at = block.data() + kBlockHeadBytes;
  const uint8_t* end = block.data() + block.size();
  for (uint32_t i = 0; i < count; ++i) {
    if (end - at < 4) {
      SetLastError(kCorrupted);
      return false;
    }
    uint32_t id;
    std::memcpy(&id, at, 4);
    Item* item = scratch->FindItem(id) ? nullptr : scratch->CreateItem(id);
    if (!item || item->id != id || !(at = item->Deserialize(at, end))) {
      SetLastError(kCorrupted);
      return false;
    }
  }
  // Waves copied by another build of the program find their decoders from their files again.
  RelinkDecoders(*scratch);
  // The old ids of the waves, by their new item after the merge: the merge renumbers.
  std::unordered_map<Item*, uint32_t> oldIds;
  for (Item* item : scratch->AllItems())
    if (item != scratch.get()) oldIds[item] = item->id;
  // A parent that was not copied is not this collection's business.
  for (auto& [item, oldId] : oldIds)
    if (item->parentId != kNullId && !scratch->FindItem(item->parentId)) item->parentId = kNullId;
  MergeCollection(collection, *scratch);
  int pastedCount = 0;
  std::vector<Item*> topLevel;
  for (auto& [item, oldId] : oldIds) {
    if (!item->Parent()) topLevel.push_back(item);
  }
  if (copier == processId) {
    // Within one process, a region goes back to the wave it played when that wave is still here and
    // the same; the pasted copy then goes.
    std::unordered_set<Item*> dropped;
    for (auto& [item, oldId] : oldIds) {
      if (item->Type() != ItemType::Region) continue;
      auto* region = static_cast<Region*>(item);
      Waveform* copy = region->GetWave();
      if (!copy || !oldIds.count(copy)) continue;
      Waveform* original = collection.Find<Waveform>(oldIds[copy]);
      if (!original || original == copy || original->GetName() != copy->GetName() ||
          original->GetSourcePath() != copy->GetSourcePath() || original->length != copy->length)
        continue;
      for (uint32_t& childId : region->children)
        if (childId == copy->id) childId = original->id;
      dropped.insert(copy);
    }
    for (Item* wave : dropped) {
      std::erase(topLevel, wave);
      delete wave;
    }
  }
  // Top-level items in the order they were copied.
  std::vector<Item*> ordered;
  std::unordered_set<Item*> top(topLevel.begin(), topLevel.end());
  for (Item* item : collection.AllItems())
    if (top.count(item)) ordered.push_back(item);
  pastedCount = int(ordered.size());
  if (pasted) *pasted = std::move(ordered);
  return pastedCount > 0;
}

std::vector<uint8_t> EncodeArticulation(const Articulation& articulation) {
  std::vector<uint8_t> out(kArticulationParamCount * 4 + 24);
  ByteSink sink(out.data());
  for (int i = 0; i < kArticulationParamCount; ++i) sink.F32(articulation.Values()[i]);
  for (int i = 0; i < 3; ++i) sink.U64(articulation.Mask()[i]);
  return out;
}

bool DecodeArticulation(const std::vector<uint8_t>& bytes, Articulation& articulation) {
  if (bytes.size() != kArticulationParamCount * 4 + 24) return false;
  ByteSource in(bytes.data(), bytes.data() + bytes.size());
  float values[kArticulationParamCount];
  uint64_t mask[3];
  for (float& value : values) value = in.F32();
  for (uint64_t& word : mask) word = in.U64();
  articulation.Assign(values, mask);
  articulation.Clamp();
  return true;
}

std::vector<uint8_t> EncodeLfo(const LfoRecord& lfo) {
  const float values[4] = {lfo.shape, lfo.frequency, lfo.delay, lfo.ramp};
  return FloatRecord(values, 4);
}

bool DecodeLfo(const std::vector<uint8_t>& bytes, LfoRecord& lfo) {
  float values[4];
  if (!ReadFloats(bytes, values, 4)) return false;
  lfo = {values[0], values[1], values[2], values[3]};
  return true;
}

std::vector<uint8_t> EncodeEnvelope(const EnvelopeRecord& envelope) {
  std::vector<float> values;
  values.insert(values.end(), envelope.times.begin(), envelope.times.end());
  values.insert(values.end(), envelope.levels.begin(), envelope.levels.end());
  values.insert(values.end(), envelope.velocityTo.begin(), envelope.velocityTo.end());
  values.insert(values.end(), envelope.keyTo.begin(), envelope.keyTo.end());
  values.push_back(envelope.shutdownRate);
  values.push_back(envelope.releaseMode);
  return FloatRecord(values.data(), values.size());
}

bool DecodeEnvelope(const std::vector<uint8_t>& bytes, EnvelopeRecord& envelope) {
  float values[27];
  if (!ReadFloats(bytes, values, 27)) return false;
  const float* at = values;
  for (float& v : envelope.times) v = *at++;
  for (float& v : envelope.levels) v = *at++;
  for (float& v : envelope.velocityTo) v = *at++;
  for (float& v : envelope.keyTo) v = *at++;
  envelope.shutdownRate = *at++;
  envelope.releaseMode = *at;
  return true;
}

std::vector<uint8_t> EncodeLoop(const LoopInfo& loop) {
  std::vector<uint8_t> out(14);
  ByteSink sink(out.data());
  sink.U8(loop.type);
  sink.U8(loop.release);
  sink.F32(loop.start);
  sink.F32(loop.end);
  sink.F32(loop.tune);
  return out;
}

bool DecodeLoop(const std::vector<uint8_t>& bytes, LoopInfo& loop) {
  if (bytes.size() != 14) return false;
  ByteSource in(bytes.data(), bytes.data() + bytes.size());
  loop.type = uint8_t(std::min<int>(in.U8(), 3));
  loop.release = in.U8() != 0;
  loop.start = in.F32();
  loop.end = in.F32();
  loop.tune = in.F32();
  return true;
}

std::vector<uint8_t> EncodeParamRange(const Articulation& articulation, ParamId first, ParamId last) {
  std::vector<float> values(articulation.Values() + first, articulation.Values() + last + 1);
  return FloatRecord(values.data(), values.size());
}

bool DecodeParamRange(const std::vector<uint8_t>& bytes, ParamId first, ParamId last, Articulation& articulation) {
  std::vector<float> values(size_t(last - first + 1));
  if (!ReadFloats(bytes, values.data(), values.size())) return false;
  for (ParamId id = first; id <= last; ++id) articulation.Set(id, values[id - first]);
  return true;
}

}  // namespace orlin
