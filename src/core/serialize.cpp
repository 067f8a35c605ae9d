// The flat form of every item kind: one record per item, no padding, integers little endian as this
// machine holds them. State files, undo blocks and the clipboard are all built from these records.
// Every record starts with id, parent id, source word, second source offset and the child ids; the
// rest depends on the kind. Reading is bounds-checked: clipboard bytes may come from anywhere.
#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstring>

#include "core/byte_stream.h"
#include "core/collection.h"

namespace orlin {

namespace {

constexpr uint16_t kTextRecordsEnd = 0xFFFF;
constexpr uint8_t kBytesPerStoredSample = 4;
constexpr size_t kMaxMarkerNameBytes = 255;
constexpr size_t kTriggerRecordBytes = 28;
constexpr size_t kRegionFieldBytes = 27;  // phase group to end offset
constexpr size_t kArticulationBytes = kArticulationParamCount * 4 + 3 * 8;  // 780
constexpr size_t kFxSlotBytes = 24;
constexpr size_t kWaveFieldBytes = 47;

// A fixed function of this library: decoder words are kept as distances from it, which stay the
// same from run to run of one build however the loader places the program.
bool DecoderAnchor(Waveform*, FileObject*) { return false; }

// 24 bits that name this build: a hash of the program's GNU build id, or, without one, of the
// anchor's address (then only this very process trusts its own decoder words).
uint32_t BuildTag() {
  static const uint32_t tag = [] {
    uint32_t hash = 0x811C9DC5;
    auto mix = [&hash](const uint8_t* bytes, size_t size) {
      for (size_t i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * 16777619u;
    };
    bool found = false;
    struct Search {
      decltype(mix)* mixer;
      bool* found;
    } search{&mix, &found};
    // The first object the loader reports is the program itself.
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* context) -> int {
          auto* s = static_cast<Search*>(context);
          for (int i = 0; i < info->dlpi_phnum; ++i) {
            const ElfW(Phdr)& header = info->dlpi_phdr[i];
            if (header.p_type != PT_NOTE) continue;
            const auto* at = reinterpret_cast<const uint8_t*>(info->dlpi_addr + header.p_vaddr);
            const uint8_t* end = at + header.p_memsz;
            while (at + sizeof(ElfW(Nhdr)) <= end) {
              ElfW(Nhdr) note;
              std::memcpy(&note, at, sizeof note);
              const uint8_t* name = at + sizeof note;
              const uint8_t* desc = name + ((note.n_namesz + 3) & ~3u);
              if (desc + note.n_descsz > end) break;
              if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0) {
                (*s->mixer)(desc, note.n_descsz);
                *s->found = true;
                return 1;
              }
              at = desc + ((note.n_descsz + 3) & ~3u);
            }
          }
          return 1;
        },
        &search);
    if (!found) {
      const auto address = reinterpret_cast<uintptr_t>(&DecoderAnchor);
      mix(reinterpret_cast<const uint8_t*>(&address), sizeof address);
    }
    const uint32_t folded = (hash ^ (hash >> 24)) & 0xFFFFFF;
    return folded ? folded : 1;
  }();
  return tag;
}

// Top 24 bits the build tag, low 40 bits the signed distance from the anchor; 0 for none.
uint64_t DecoderWord(WaveDecoder decoder) {
  if (!decoder) return 0;
  const int64_t distance =
      int64_t(reinterpret_cast<uintptr_t>(decoder)) - int64_t(reinterpret_cast<uintptr_t>(&DecoderAnchor));
  return (uint64_t(BuildTag()) << 40) | (uint64_t(distance) & 0xFFFFFFFFFFull);
}

// A word from another build is not followed: the wave then has no decoder.
WaveDecoder DecoderFromWord(uint64_t word) {
  if (word == 0 || uint32_t(word >> 40) != BuildTag()) return nullptr;
  int64_t distance = int64_t(word & 0xFFFFFFFFFFull);
  if (distance & (int64_t(1) << 39)) distance -= int64_t(1) << 40;
  return reinterpret_cast<WaveDecoder>(reinterpret_cast<uintptr_t>(&DecoderAnchor) + uintptr_t(distance));
}

}  // namespace

// Instrument > layer > region > wave or model; song > track. Nothing else has children.
bool ChildAllowed(ItemType parent, ItemType child) {
  switch (parent) {
    case ItemType::Instrument: return child == ItemType::Layer;
    case ItemType::Layer: return child == ItemType::Region;
    case ItemType::Region: return child == ItemType::Waveform || child == ItemType::SynthesisModel;
    case ItemType::Song: return child == ItemType::Track;
    default: return false;
  }
}

// Friend of the item classes: reads and writes their fields.
struct ItemCodec {
  // ---- common head
  static size_t HeadSize(const Item& item) { return 4 + 4 + 4 + 8 + 4 + 4 * item.children.size(); }
  static void WriteHead(const Item& item, ByteSink& out) {
    out.U32(item.id);
    out.U32(item.parentId);
    out.U32(item.sourceFormat);
    out.U64(item.sourceOffsetB);
    out.U32(uint32_t(item.children.size()));
    for (uint32_t child : item.children) out.U32(child);
  }
  static bool ReadHead(Item& item, ByteSource& in) {
    in.U32();  // the id: the item was made with it already
    item.parentId = in.U32();
    // Parents are walked upwards (the source path, the owner of a region): a parent of a kind that
    // cannot own this item could close a loop, so it is forgotten rather than followed.
    if (item.parentId != kNullId && TypeOfId(item.parentId) != ItemType::Collection &&
        !ChildAllowed(TypeOfId(item.parentId), item.Type()))
      item.parentId = kNullId;
    item.sourceFormat = in.U32();
    item.sourceOffsetB = in.U64();
    const uint32_t count = in.U32();
    if (!in.CanRead(uint64_t(count) * 4)) return false;
    // Owners delete their children: a child of the wrong kind could make a loop or delete the
    // collection itself, so the list is taken only when every id in it is allowed.
    std::vector<uint32_t> children(count);
    for (uint32_t& child : children) {
      child = in.U32();
      if (!ChildAllowed(item.Type(), TypeOfId(child))) return false;
    }
    item.children = std::move(children);
    item.flag = 0;
    return in.Ok();
  }

  // ---- names and texts
  static const std::string* SourcePathToCarry(const TextItem& item, std::string& holder) {
    // A wave still reading from its file carries the file's path, so that it can be decoded
    // wherever its record is read back.
    if (item.Type() != ItemType::Waveform || !item.texts_[kTextSourceFile - kTextName].empty()) return nullptr;
    const auto& wave = static_cast<const Waveform&>(item);
    if (wave.Data() || !wave.decoder) return nullptr;
    holder = item.GetSourcePath();
    return holder.empty() ? nullptr : &holder;
  }
  static size_t TextsSize(const TextItem& item) {
    size_t size = 2;
    for (const std::string& text : item.texts_)
      if (!text.empty()) size += 6 + text.size();
    std::string holder;
    if (const std::string* path = SourcePathToCarry(item, holder)) size += 6 + path->size();
    if (!item.image_.empty()) size += 6 + item.image_.size();
    return size;
  }
  static void WriteTexts(const TextItem& item, ByteSink& out) {
    std::string holder;
    const std::string* carried = SourcePathToCarry(item, holder);
    for (int slot = 0; slot < kTextSlotCount; ++slot) {
      const std::string& text = (slot == kTextSourceFile - kTextName && carried) ? *carried : item.texts_[slot];
      if (text.empty()) continue;
      out.U16(uint16_t(kTextName + slot));
      out.U32(uint32_t(text.size()));
      out.Bytes(text.data(), text.size());
    }
    if (!item.image_.empty()) {
      out.U16(kImage);
      out.U32(uint32_t(item.image_.size()));
      out.Bytes(item.image_.data(), item.image_.size());
    }
    out.U16(kTextRecordsEnd);
  }
  static bool ReadTexts(TextItem& item, ByteSource& in) {
    for (std::string& text : item.texts_) text.clear();
    item.image_.clear();
    for (;;) {
      const uint16_t field = in.U16();
      if (!in.Ok()) return false;
      if (field == kTextRecordsEnd) return true;
      const uint32_t size = in.U32();
      if (field < kTextName || field > kImage || !in.CanRead(size)) return false;
      const uint8_t* bytes = in.Take(size);
      if (field == kImage) item.image_.assign(bytes, bytes + size);
      else item.texts_[field - kTextName].assign(reinterpret_cast<const char*>(bytes), size);
    }
  }
  static size_t NameSize(const NamedItem& item) { return item.name_.size() + 1; }
  static void WriteName(const NamedItem& item, ByteSink& out) { out.Bytes(item.name_.c_str(), item.name_.size() + 1); }
  static bool ReadName(NamedItem& item, ByteSource& in) {
    const uint8_t* at = in.Here();
    const size_t limit = in.Remaining();
    const auto* nul = static_cast<const uint8_t*>(std::memchr(at, 0, limit));
    if (!nul) return false;
    item.name_.assign(reinterpret_cast<const char*>(at), size_t(nul - at));
    in.Take(size_t(nul - at) + 1);
    return true;
  }

  // ---- shared records
  static void WriteArticulation(const Articulation& art, ByteSink& out) {
    for (int i = 0; i < kArticulationParamCount; ++i) out.F32(art.Values()[i]);
    for (int i = 0; i < 3; ++i) out.U64(art.Mask()[i]);
  }
  static bool ReadArticulation(Articulation& art, ByteSource& in) {
    if (!in.CanRead(kArticulationBytes)) return false;
    float values[kArticulationParamCount];
    uint64_t mask[3];
    for (float& value : values) value = in.F32();
    for (uint64_t& word : mask) word = in.U64();
    art.Assign(values, mask);
    return true;
  }
  // Keys and velocities, then 189 and 194-203 packed: the enumerations, fades and switches as
  // bytes (all whole numbers of at most 126), the exclusion group as u16, the delay as f32, then
  // the mask of what this level sets.
  static uint8_t TriggerByte(const TriggerRange& range, ParamId id) {
    return uint8_t(std::clamp(range.values[id - kFirstTriggerParam], 0.0f, 255.0f));
  }
  static void WriteTrigger(const TriggerRange& range, ByteSink& out) {
    out.U8(range.loKey);
    out.U8(range.hiKey);
    out.U8(range.loVelocity);
    out.U8(range.hiVelocity);
    for (ParamId id : {189, 194, 195, 196, 197, 198, 199, 200, 203}) out.U8(TriggerByte(range, id));
    out.U8(0);  // spare, keeps the record at the size readers expect
    out.U16(uint16_t(std::clamp(range.values[202 - kFirstTriggerParam], 0.0f, 65535.0f)));
    out.F32(range.values[201 - kFirstTriggerParam]);
    out.U64(range.mask);
  }
  static void ReadTrigger(TriggerRange& range, ByteSource& in) {
    range.loKey = in.U8();
    range.hiKey = in.U8();
    range.loVelocity = in.U8();
    range.hiVelocity = in.U8();
    range.values[190 - kFirstTriggerParam] = range.loKey;
    range.values[191 - kFirstTriggerParam] = range.hiKey;
    range.values[192 - kFirstTriggerParam] = range.loVelocity;
    range.values[193 - kFirstTriggerParam] = range.hiVelocity;
    for (ParamId id : {189, 194, 195, 196, 197, 198, 199, 200, 203}) range.values[id - kFirstTriggerParam] = in.U8();
    in.U8();
    range.values[202 - kFirstTriggerParam] = in.U16();
    range.values[201 - kFirstTriggerParam] = in.F32();
    range.mask = in.U64();
  }

  // ---- sizes and bodies by kind
  static size_t BodySize(const Item& item) {
    switch (item.Type()) {
      case ItemType::Collection: return TextsSize(static_cast<const TextItem&>(item)) + 4;
      case ItemType::Instrument:
        return TextsSize(static_cast<const TextItem&>(item)) + 4 + kArticulationBytes + kEffectSlotCount * kFxSlotBytes;
      case ItemType::Layer: return NameSize(static_cast<const NamedItem&>(item)) + kTriggerRecordBytes + kArticulationBytes;
      case ItemType::Region:
        return NameSize(static_cast<const NamedItem&>(item)) + kTriggerRecordBytes + kRegionFieldBytes + kArticulationBytes;
      case ItemType::SynthesisModel:
        return NameSize(static_cast<const NamedItem&>(item)) + 8 + static_cast<const SynthesisModel&>(item).model.size();
      case ItemType::Track: return NameSize(static_cast<const NamedItem&>(item)) + 8 + static_cast<const Track&>(item).data.size();
      case ItemType::Song: return TextsSize(static_cast<const TextItem&>(item)) + 4;
      case ItemType::Waveform: {
        const auto& wave = static_cast<const Waveform&>(item);
        size_t size = TextsSize(wave) + kWaveFieldBytes + 1;
        if (wave.Data()) size += size_t(wave.length) * wave.channels * 4;
        return size + MarkerListSize(wave.markers);
      }
    }
    return 0;
  }

  static void WriteBody(const Item& item, ByteSink& out) {
    switch (item.Type()) {
      case ItemType::Collection:
        WriteTexts(static_cast<const TextItem&>(item), out);
        out.U32(uint32_t(static_cast<const Collection&>(item).sourceRow));
        break;
      case ItemType::Instrument: {
        const auto& instrument = static_cast<const Instrument&>(item);
        WriteTexts(instrument, out);
        out.U32(instrument.patch);
        WriteArticulation(instrument.articulation, out);
        // Each slot: type, the chorus voice count (for readers that want it as a byte), the two
        // switches of views 6 and 7, then views 1-5.
        for (int slot = 0; slot < kEffectSlotCount; ++slot) {
          const float* views = &instrument.effectSlots[size_t(slot) * kEffectViewsPerSlot];
          // A NaN read from a damaged state is written as 0, not converted out of range.
          auto asByte = [](float value) { return value > 0.0f ? uint8_t(std::min(value, 255.0f)) : uint8_t(0); };
          out.U8(asByte(views[0]));
          out.U8(asByte(views[0] == 1.0f ? views[3] : 0.0f));
          out.U8(asByte(views[6]));
          out.U8(asByte(views[7]));
          for (int view = 1; view <= 5; ++view) out.F32(views[view]);
        }
        break;
      }
      case ItemType::Layer: {
        const auto& layer = static_cast<const Layer&>(item);
        WriteName(layer, out);
        WriteTrigger(layer.range, out);
        WriteArticulation(layer.articulation, out);
        break;
      }
      case ItemType::Region: {
        const auto& region = static_cast<const Region&>(item);
        WriteName(region, out);
        WriteTrigger(region.range, out);
        out.U16(region.phaseGroup);
        out.U8(region.phaseMaster);
        out.U8(region.overrideFlags);
        out.U8(region.rootKey);
        out.U8(region.loop.type);
        out.U8(region.loop.release);
        out.F32(region.loop.start);
        out.F32(region.loop.end);
        out.F32(region.loop.tune);
        out.U32(uint32_t(region.startOffset));
        out.U32(uint32_t(region.endOffset));
        WriteArticulation(region.articulation, out);
        break;
      }
      case ItemType::SynthesisModel: {
        const auto& model = static_cast<const SynthesisModel&>(item);
        WriteName(model, out);
        out.U32(model.modelKind);
        out.U32(uint32_t(model.model.size()));
        out.Bytes(model.model.data(), model.model.size());
        break;
      }
      case ItemType::Track: {
        const auto& track = static_cast<const Track&>(item);
        WriteName(track, out);
        out.U16(track.patternNumber);
        out.U8(track.flags);
        out.U8(track.firstChannel);
        out.U32(uint32_t(track.data.size()));
        out.Bytes(track.data.data(), track.data.size());
        break;
      }
      case ItemType::Song: {
        const auto& song = static_cast<const Song&>(item);
        WriteTexts(song, out);
        out.U16(song.format);
        out.U16(song.division);
        break;
      }
      case ItemType::Waveform: WriteWave(static_cast<const Waveform&>(item), out); break;
    }
  }

  static void WriteWave(const Waveform& wave, ByteSink& out) {
    WriteTexts(wave, out);
    out.U32(wave.length);
    out.U32(wave.sampleRate);
    out.U8(wave.bits);
    out.U8(wave.channels);
    out.U8(wave.rootKey);
    out.U8(uint8_t(wave.fineTune));
    out.F32(wave.gain);
    out.U8(wave.loop.type);
    out.U8(wave.loop.release);
    out.F32(wave.loop.start);
    out.F32(wave.loop.end);
    out.F32(wave.loop.tune);
    out.U8(wave.dataFormat);
    out.U64(wave.sourceOffset);
    out.U64(DecoderWord(wave.decoder));
    const WaveData* data = wave.Data();
    out.U8(data ? kBytesPerStoredSample : 0);
    if (data) {
      // The block may be shorter than the fields say while an edit is under way: pad with silence.
      const size_t wanted = size_t(wave.length) * wave.channels;
      const size_t have = std::min(wanted, size_t(data->frames) * data->channels);
      out.Bytes(data->samples, have * 4);
      out.Zeros((wanted - have) * 4);
    }
    WriteMarkerList(wave.markers, out);
  }

  static bool ReadWave(Waveform& wave, ByteSource& in) {
    if (!ReadTexts(wave, in) || !in.CanRead(kWaveFieldBytes + 1)) return false;
    wave.length = in.U32();
    wave.sampleRate = in.U32();
    wave.bits = in.U8();
    wave.channels = in.U8();
    wave.rootKey = in.U8();
    wave.fineTune = int8_t(in.U8());
    wave.gain = in.F32();
    wave.loop.type = in.U8();
    wave.loop.release = in.U8();
    wave.loop.start = in.F32();
    wave.loop.end = in.F32();
    wave.loop.tune = in.F32();
    wave.dataFormat = in.U8();
    wave.sourceOffset = in.U64();
    const uint64_t decoderWord = in.U64();
    wave.decoder = DecoderFromWord(decoderWord);
    // Written by another build: the decoder is found again from the source file after the load.
    if (decoderWord != 0 && !wave.decoder) wave.flag = kFlagDecoderToFind;
    const uint8_t bytesPerSample = in.U8();
    wave.DropData();
    if (bytesPerSample == kBytesPerStoredSample) {
      const uint64_t count = uint64_t(wave.length) * wave.channels;
      if (wave.channels == 0 || !in.CanRead(count * 4)) return false;
      WaveData* data = WaveData::Create(wave.length, wave.channels, float(wave.sampleRate), false);
      if (!data) return false;
      std::memcpy(data->samples, in.Take(size_t(count) * 4), size_t(count) * 4);
      const uint32_t rate = wave.sampleRate;
      wave.AdoptData(data);
      data->Release();
      wave.sampleRate = rate;  // AdoptData rounds the float rate; the field is the truth
    } else if (bytesPerSample != 0) {
      return false;
    }
    return ReadMarkerList(in, wave.markers) && in.Ok();
  }

  static bool ReadBody(Item& item, ByteSource& in) {
    switch (item.Type()) {
      case ItemType::Collection: {
        auto& collection = static_cast<Collection&>(item);
        if (!ReadTexts(collection, in)) return false;
        collection.sourceRow = int32_t(in.U32());
        return in.Ok();
      }
      case ItemType::Instrument: {
        auto& instrument = static_cast<Instrument&>(item);
        if (!ReadTexts(instrument, in)) return false;
        instrument.patch = in.U32();
        if (!ReadArticulation(instrument.articulation, in)) return false;
        for (int slot = 0; slot < kEffectSlotCount; ++slot) {
          float* views = &instrument.effectSlots[size_t(slot) * kEffectViewsPerSlot];
          views[0] = in.U8();
          in.U8();  // the voice count again; view 3 holds it
          views[6] = in.U8();
          views[7] = in.U8();
          for (int view = 1; view <= 5; ++view) views[view] = in.F32();
        }
        return in.Ok();
      }
      case ItemType::Layer: {
        auto& layer = static_cast<Layer&>(item);
        if (!ReadName(layer, in)) return false;
        ReadTrigger(layer.range, in);
        return ReadArticulation(layer.articulation, in) && in.Ok();
      }
      case ItemType::Region: {
        auto& region = static_cast<Region&>(item);
        if (!ReadName(region, in)) return false;
        ReadTrigger(region.range, in);
        region.phaseGroup = in.U16();
        region.phaseMaster = in.U8();
        region.overrideFlags = in.U8();
        region.rootKey = in.U8();
        region.loop.type = in.U8();
        region.loop.release = in.U8();
        region.loop.start = in.F32();
        region.loop.end = in.F32();
        region.loop.tune = in.F32();
        region.startOffset = int32_t(in.U32());
        region.endOffset = int32_t(in.U32());
        return ReadArticulation(region.articulation, in) && in.Ok();
      }
      case ItemType::SynthesisModel: {
        auto& model = static_cast<SynthesisModel&>(item);
        if (!ReadName(model, in)) return false;
        model.modelKind = in.U32();
        const uint32_t size = in.U32();
        if (!in.CanRead(size)) return false;
        const uint8_t* bytes = in.Take(size);
        model.model.assign(bytes, bytes + size);
        return in.Ok();
      }
      case ItemType::Track: {
        auto& track = static_cast<Track&>(item);
        if (!ReadName(track, in)) return false;
        track.patternNumber = in.U16();
        track.flags = in.U8();
        track.firstChannel = in.U8();
        const uint32_t size = in.U32();
        if (!in.CanRead(size)) return false;
        const uint8_t* bytes = in.Take(size);
        track.data.assign(bytes, bytes + size);
        return in.Ok();
      }
      case ItemType::Song: {
        auto& song = static_cast<Song&>(item);
        if (!ReadTexts(song, in)) return false;
        song.format = in.U16();
        song.division = in.U16();
        return in.Ok();
      }
      case ItemType::Waveform: return ReadWave(static_cast<Waveform&>(item), in);
    }
    return false;
  }
};

size_t MarkerListSize(const std::vector<Marker>& markers) {
  size_t size = 2;
  for (size_t i = 0; i < std::min(markers.size(), kMaxMarkers); ++i)
    size += 14 + std::min(markers[i].name.size(), kMaxMarkerNameBytes);
  return size;
}

void WriteMarkerList(const std::vector<Marker>& markers, ByteSink& out) {
  const size_t count = std::min(markers.size(), kMaxMarkers);
  out.U16(uint16_t(count));
  for (size_t i = 0; i < count; ++i) {
    const Marker& marker = markers[i];
    out.U8(marker.section);
    out.U32(marker.start);
    out.U32(marker.end);
    out.U32(marker.id);
    const size_t nameBytes = std::min(marker.name.size(), kMaxMarkerNameBytes);
    out.U8(uint8_t(nameBytes));
    out.Bytes(marker.name.data(), nameBytes);
  }
}

bool ReadMarkerList(ByteSource& in, std::vector<Marker>& markers) {
  const uint16_t count = in.U16();
  markers.clear();
  markers.reserve(std::min<size_t>(count, in.Remaining() / 14));
  for (uint32_t i = 0; i < count; ++i) {
    Marker marker;
    marker.section = in.U8();
    marker.start = in.U32();
    marker.end = in.U32();
    marker.id = in.U32();
    const uint8_t nameBytes = in.U8();
    const uint8_t* name = in.Take(nameBytes);
    if (!name) return false;
    marker.name.assign(reinterpret_cast<const char*>(name), nameBytes);
    markers.push_back(std::move(marker));
  }
  return in.Ok();
}

size_t Item::SerializedSize() const { return ItemCodec::HeadSize(*this) + ItemCodec::BodySize(*this); }

uint8_t* Item::Serialize(uint8_t* out) const {
  ByteSink sink(out);
  ItemCodec::WriteHead(*this, sink);
  ItemCodec::WriteBody(*this, sink);
  return sink.Here();
}

const uint8_t* Item::Deserialize(const uint8_t* in, const uint8_t* end) {
  ByteSource source(in, end);
  if (!ItemCodec::ReadHead(*this, source) || !ItemCodec::ReadBody(*this, source)) return nullptr;
  return source.Here();
}

}  // namespace orlin
