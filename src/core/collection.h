// The in-memory model: one Collection owns every item (waveforms, synthesis models, instruments with
// their layers and regions, songs with their tracks) in one map from id to item. A parent names its
// children by id, a child its parent by id; iteration always follows insertion order.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/articulation.h"
#include "core/wave_data.h"

namespace orlin {

class Collection;
class FileObject;
class Waveform;

// Item ids: the top four bits are the type, the low 28 an index within the type.
enum class ItemType : uint8_t {
  Waveform = 0,
  SynthesisModel = 1,
  Region = 2,
  Layer = 3,
  Instrument = 4,
  Track = 5,
  Song = 6,
  Collection = 7,
};
constexpr uint32_t kItemTypeCount = 8;
constexpr uint32_t kNullId = 0xFFFFFFFF;
constexpr uint32_t kNextFreeIndex = 0x0FFFFFFF;  // low bits given to a constructor: take the next index
constexpr uint32_t kNoWave = 0x0FFFFFFE;          // a region made without a wave
constexpr uint32_t kCollectionId = 0x70000000;
constexpr uint32_t kIndexMask = 0x0FFFFFFF;
// Item::flag of a wave read from a record of another build, whose decoder must be found again.
constexpr uint8_t kFlagDecoderToFind = 1;

constexpr uint32_t MakeId(ItemType type, uint32_t index) { return (uint32_t(type) << 28) | (index & kIndexMask); }
constexpr ItemType TypeOfId(uint32_t id) { return ItemType(id >> 28); }
// "waveform", "synth", ..., "collection"; "special" past the list.
const char* ItemTypeWord(uint32_t type);

// Text slots of a TextItem, by parameter id.
constexpr ParamId kTextName = 209;
constexpr ParamId kTextArtist = 210;
constexpr ParamId kTextComments = 211;
constexpr ParamId kTextCopyright = 212;
constexpr ParamId kTextEngineer = 213;
constexpr ParamId kTextProduct = 214;
constexpr ParamId kTextSourceFile = 215;
constexpr ParamId kImage = 216;
constexpr int kTextSlotCount = 7;
const char* TextSlotLabel(ParamId id);

class Item {
 public:
  // Registers the item in `collection` under `id` (type bits decide the kind; low bits kNextFreeIndex
  // take the next free index of the type).
  Item(Collection* collection, uint32_t id);
  Item(const Item&) = delete;
  Item& operator=(const Item&) = delete;
  virtual ~Item();

  virtual void SetName(std::string_view name) = 0;
  // Names from legacy 8-bit fields: decoded as UTF-8 when valid, else Windows-1252.
  void SetNameNarrow(std::string_view bytes);
  virtual const std::string& GetName() const = 0;
  // Field 215 of this item if set, else the parent's.
  virtual std::string GetSourcePath() const;
  virtual void FixUp();
  virtual bool Preload();
  virtual bool IsParamSet(ParamId id) const { return false; }
  virtual float GetParam(ParamId id) const { return 0.0f; }
  virtual void SetParam(ParamId id, float value) {}
  virtual void InheritParam(ParamId id, float value) {}
  virtual float GetInheritedParam(ParamId id) const;
  // Base: the text rows 209-216; null for other ids.
  virtual const ParamInfo* GetParamInfo(ParamId id) const;
  // The flat form of the item, for state files, undo blocks and the clipboard (core/serialize.cpp).
  // Serialize writes exactly SerializedSize() bytes and returns the end; Deserialize reads a record
  // of the same kind over a default-made item, keeps the id it has, and returns the end or null when
  // the record is malformed or runs past `end`.
  virtual size_t SerializedSize() const;
  virtual uint8_t* Serialize(uint8_t* out) const;
  virtual const uint8_t* Deserialize(const uint8_t* in, const uint8_t* end);

  ItemType Type() const { return TypeOfId(id); }
  Item* Parent() const;
  // The first child of the given type, or null.
  Item* FirstChildOfType(ItemType type) const;
  void RemoveChild(uint32_t childId);
  // Drops child ids that no longer resolve.
  void DropDanglingChildren();
  // Moves the child at `from` to stand before `to` (clipped to the last index).
  void MoveChild(size_t from, size_t to);

  uint32_t id = kNullId;
  uint32_t parentId = kNullId;
  uint32_t sourceFormat = 0;   // a Waveform's source word
  uint64_t sourceOffsetB = 0;  // second source offset of sequential stereo
  std::array<uint32_t, 6> interfaceState{};
  uint8_t flag = 0;
  Collection* collection = nullptr;
  std::vector<uint32_t> children;

 private:
  friend class Collection;
  Item* previousInOrder_ = nullptr;
  Item* nextInOrder_ = nullptr;
  // The same order among the items of one type: walking one type never visits the others.
  Item* previousOfType_ = nullptr;
  Item* nextOfType_ = nullptr;
};

// An item with the seven text fields and an image.
class TextItem : public Item {
  friend struct ItemCodec;

 public:
  using Item::Item;
  void SetName(std::string_view name) override { SetText(kTextName, name); }
  const std::string& GetName() const override { return texts_[0]; }
  std::string GetSourcePath() const override;

  // Trims the text; an empty name is replaced by the default name.
  void SetText(ParamId id, std::string_view text);
  const std::string& GetText(ParamId id) const;
  std::string GetTextNarrow(ParamId id) const;
  const std::string& GetTextUtf8(ParamId id) const { return GetText(id); }
  void SetImage(const void* bytes, size_t size);
  const std::vector<uint8_t>& GetImage() const { return image_; }
  // "image/gif", "image/png", else "image/jpeg".
  const char* ImageMimeType() const;
  // Writes the generated default name into the name slot (Waveform and Instrument).
  void AssignDefaultName();

 protected:
  std::array<std::string, kTextSlotCount> texts_;
  std::vector<uint8_t> image_;
};

// An item that carries only a name.
class NamedItem : public Item {
  friend struct ItemCodec;

 public:
  using Item::Item;
  void SetName(std::string_view name) override;
  const std::string& GetName() const override { return name_; }
  std::string GetSourcePath() const override;

 protected:
  std::string name_;
};

// Key and velocity rectangle plus trigger parameters 189-203.
struct TriggerRange {
  uint8_t loKey = 0;
  uint8_t hiKey = 127;
  uint8_t loVelocity = 0;
  uint8_t hiVelocity = 127;
  std::array<float, 15> values{};  // parameters 189-203; 190-193 mirror the four bytes above
  uint64_t mask = 0;               // bit id-189 set: this level sets the parameter

  bool Contains(int key, int velocity) const {
    return key >= loKey && key <= hiKey && velocity >= loVelocity && velocity <= hiVelocity;
  }
};

// Packed ranges as constructors take them: low byte lo, high byte hi; 255 in a byte means "not given".
constexpr uint32_t PackRange(int lo, int hi) { return uint32_t(lo & 0xFF) | (uint32_t(hi & 0xFF) << 8); }
constexpr uint32_t kRangeNotGiven = 0xFFFF;
constexpr uint32_t kFullRange = PackRange(0, 127);

class Waveform;
class Region;
class Layer;

using WaveDecoder = bool (*)(Waveform* wave, FileObject* file);

class Waveform : public TextItem {
 public:
  static constexpr ItemType kType = ItemType::Waveform;
  explicit Waveform(Collection* collection, uint32_t id = MakeId(ItemType::Waveform, kNextFreeIndex));
  // A copy with all fields and markers; samples are copied only when asked and present.
  Waveform(Collection* collection, const Waveform& source, bool copySamples, std::string_view name);
  ~Waveform() override;

  void FixUp() override;
  bool Preload() override;
  float GetParam(ParamId id) const override;
  void SetParam(ParamId id, float value) override;
  const ParamInfo* GetParamInfo(ParamId id) const override;

  // Plain PCM of `bits` per sample; `flags` are the source word's upper bits.
  void SetPcmSource(uint32_t bits, uint32_t flags);
  void SetPcmSourceByFormat(uint32_t storage, uint32_t flags);
  uint32_t SourceStorage() const { return StorageFromMask(sourceFormat & kSourceStorageMask); }

  // Decodes on first use. Null when the wave has no samples or decoding failed.
  float* GetSamplesForRead();
  // As GetSamplesForRead, then frees the wave from its source file.
  float* GetSamplesForWrite();
  // New, uncleared samples for the present length and channels; null when out of memory.
  float* AllocSamples();
  // Takes a counted reference to `data`; length, channels and rate follow it.
  void AdoptData(WaveData* data);
  void DropData();
  WaveData* Data() const { return data_; }

  uint32_t length = 0;
  uint32_t sampleRate = 22050;
  uint8_t bits = 0;
  uint8_t channels = 1;
  uint8_t rootKey = 60;
  int8_t fineTune = 0;  // cents
  float gain = 0.0f;    // dB
  LoopInfo loop;
  uint8_t dataFormat = kDataFormatDefault;
  uint64_t sourceOffset = 0;
  WaveDecoder decoder = nullptr;
  std::vector<Marker> markers;

 private:
  WaveData* data_ = nullptr;
};

class SynthesisModel : public NamedItem {
 public:
  static constexpr ItemType kType = ItemType::SynthesisModel;
  explicit SynthesisModel(Collection* collection, uint32_t id = MakeId(ItemType::SynthesisModel, kNextFreeIndex));
  uint32_t modelKind = 2;
  std::vector<uint8_t> model;
};

class Region : public NamedItem {
 public:
  static constexpr ItemType kType = ItemType::Region;
  // `waveId` kNoWave for none; ranges packed as PackRange, kRangeNotGiven when not given; `rootKey` -1.
  Region(Collection* collection, uint32_t id, uint32_t waveId, uint32_t keyRange, uint32_t velocityRange, int rootKey);
  explicit Region(Collection* collection) : Region(collection, MakeId(ItemType::Region, kNextFreeIndex), kNoWave, kRangeNotGiven, kRangeNotGiven, -1) {}
  ~Region() override;

  const std::string& GetName() const override;
  void FixUp() override;
  bool Preload() override;
  bool IsParamSet(ParamId id) const override;
  float GetParam(ParamId id) const override;
  void SetParam(ParamId id, float value) override;
  void InheritParam(ParamId id, float value) override;
  float GetInheritedParam(ParamId id) const override;
  const ParamInfo* GetParamInfo(ParamId id) const override;

  Waveform* GetWave() const;
  SynthesisModel* GetSynthesisModel() const;
  // Loop and root: the override when its flag is set, else the wave's.
  uint8_t EffectiveRootKey() const;
  LoopInfo EffectiveLoop() const;
  // Rebuilds the generated name (keys, velocities, wave name) for a region without its own name.
  std::string GeneratedName() const;
  bool HasOwnName() const { return !name_.empty(); }
  // Takes the name, ranges, overrides, offsets and articulation of `source`; children are left alone.
  void CopySettingsFrom(const Region& source);

  enum OverrideBit : uint8_t {
    kOverrideRoot = 1, kOverrideLoopType = 2, kOverrideLoopRelease = 4, kOverrideLoopStart = 8,
    kOverrideLoopEnd = 16, kOverrideLoopTune = 32,
  };

  TriggerRange range;
  uint16_t phaseGroup = 0;
  uint8_t phaseMaster = 0;
  uint8_t overrideFlags = 0;
  uint8_t rootKey = 60;
  LoopInfo loop;  // overrides, each valid only with its flag
  int32_t startOffset = 0;
  int32_t endOffset = 0;
  Articulation articulation;

 private:
  mutable std::string generatedName_;
};

class Layer : public NamedItem {
 public:
  static constexpr ItemType kType = ItemType::Layer;
  explicit Layer(Collection* collection, uint32_t id = MakeId(ItemType::Layer, kNextFreeIndex));
  ~Layer() override;

  void FixUp() override;
  bool Preload() override;
  bool IsParamSet(ParamId id) const override;
  float GetParam(ParamId id) const override;
  void SetParam(ParamId id, float value) override;
  void InheritParam(ParamId id, float value) override;
  float GetInheritedParam(ParamId id) const override;
  const ParamInfo* GetParamInfo(ParamId id) const override;

  // True if any region but `except` overlaps the rectangle (bounds inclusive).
  bool Overlaps(uint32_t keyRange, uint32_t velocityRange, uint32_t exceptId = kNullId) const;
  // The first region containing the point; 255 means any; 128-254 give null.
  Region* RegionAt(int key, int velocity) const;
  // Shrinks or deletes regions so that none overlaps the rectangle.
  void ResolveOverlaps(uint32_t keyRange, uint32_t velocityRange, uint32_t exceptId = kNullId);
  // Union of the regions' keys and velocities, packed ranges.
  void Bounds(uint32_t& keyRange, uint32_t& velocityRange) const;
  // "S" all stereo, "L"/"R" all panned hard, "" otherwise.
  std::string StereoMark() const;

  TriggerRange range;
  Articulation articulation;
  uint8_t drumFlag = 0;
  int32_t hint = -1;  // the layer hint regions were added with
};

class Instrument : public TextItem {
 public:
  static constexpr ItemType kType = ItemType::Instrument;
  // Explicit low bits of `id` set the program number as well.
  explicit Instrument(Collection* collection, uint32_t id = MakeId(ItemType::Instrument, kNextFreeIndex));
  ~Instrument() override;

  void FixUp() override;
  bool Preload() override;
  bool IsParamSet(ParamId id) const override;
  float GetParam(ParamId id) const override;
  void SetParam(ParamId id, float value) override;
  void InheritParam(ParamId id, float value) override;
  const ParamInfo* GetParamInfo(ParamId id) const override;

  // Hangs a new region in a layer (see the layer search in the model notes); null on failure.
  Region* AddRegion(uint32_t waveId, uint32_t keyRange, uint32_t velocityRange, int rootKey, int layerHint = -1);
  // A deep copy of `source` placed by the same search, starting at the source's layer.
  Region* AddRegionCopy(const Region& source);

  int Program() const { return patch & 0x7F; }
  int MinorBank() const { return (patch >> 7) & 0x7F; }
  int MajorBank() const { return (patch >> 14) & 0x7F; }
  bool IsDrumKit() const { return (patch >> 21) & 1; }
  void SetPatch(int majorBank, int minorBank, int program, bool drum);

  uint32_t patch = 0;  // bits 0-6 program, 7-13 minor bank, 14-20 major bank, 21 drum kit
  Articulation articulation;
  std::array<float, 32> effectSlots{};  // parameters 231-262, eight a slot

 private:
  Layer* FindLayerFor(uint32_t keyRange, uint32_t velocityRange, int layerHint, Layer* startAt);
};

class Track : public NamedItem {
 public:
  static constexpr ItemType kType = ItemType::Track;
  explicit Track(Collection* collection, uint32_t id = MakeId(ItemType::Track, kNextFreeIndex));
  ~Track() override;
  std::vector<uint8_t> data;  // SMF event bytes with delta times
  uint16_t patternNumber = 0;
  uint8_t flags = 0;            // 254: the control track of a format 1 file
  uint8_t firstChannel = 255;   // 254 several channels, 255 none
};

class Song : public TextItem {
 public:
  static constexpr ItemType kType = ItemType::Song;
  explicit Song(Collection* collection, uint32_t id = MakeId(ItemType::Song, kNextFreeIndex));
  ~Song() override;
  void FixUp() override;
  uint16_t format = 1;
  uint16_t division = 0x180;  // from the defaults word 0x180001: 384 ticks per quarter, format 1
};

// The collection: owner of every item, and itself the item with id kCollectionId.
class Collection : public TextItem {
 public:
  Collection();
  ~Collection() override;

  Item* FindItem(uint32_t id) const;
  template <typename T>
  T* Find(uint32_t id) const {
    Item* item = FindItem(id);
    return item && item->Type() == T::kType ? static_cast<T*>(item) : nullptr;
  }
  // Default-constructed item of the id's type; null for the collection or other types.
  Item* CreateItem(uint32_t id);
  // Deletes songs, instruments and waveforms; the collection becomes "New collection".
  void Clear();
  uint32_t CountOf(ItemType type) const { return typeCounts_[uint32_t(type)]; }
  void FixUp() override;

  // Items in insertion order, of one type. Deleting the item at hand while walking is allowed;
  // deleting others is not.
  template <typename T>
  class View {
   public:
    class Iterator {
     public:
      // The item after the current one is taken now, so the current one may be deleted.
      explicit Iterator(Item* at) : at_(at), next_(at ? at->nextOfType_ : nullptr) {}
      T* operator*() const { return static_cast<T*>(at_); }
      Iterator& operator++() {
        at_ = next_;
        next_ = at_ ? at_->nextOfType_ : nullptr;
        return *this;
      }
      bool operator!=(const Iterator& other) const { return at_ != other.at_; }

     private:
      Item* at_;
      Item* next_;
    };
    explicit View(Item* first) : first_(first) {}
    Iterator begin() const { return Iterator(first_); }
    Iterator end() const { return Iterator(nullptr); }
    // A snapshot as a vector: for loops that delete or create items of the same type.
    std::vector<T*> ToVector() const {
      std::vector<T*> out;
      for (T* item : *this) out.push_back(item);
      return out;
    }

   private:
    Item* first_;
  };
  template <typename T>
  View<T> All() const { return View<T>(firstOfType_[uint32_t(T::kType)]); }
  // Every item in insertion order.
  std::vector<Item*> AllItems() const;

  // Moves every item of `source` into this collection with new ids (the merge of two files).
  void MergeFrom(Collection& source);
  // Moves every item of `source` into this collection keeping its id; an item whose id is taken here
  // gets a new one (states are loaded into an empty collection, so that never happens there).
  void TakeItemsFrom(Collection& source);
  // Puts `item` before the item `beforeId` in insertion order (at the end for kNullId or an id that
  // does not resolve): undo brings deleted items back to where they stood.
  void PlaceBefore(Item* item, uint32_t beforeId);
  // The item after `item` in insertion order, or null.
  Item* NextInOrder(const Item* item) const { return item->nextInOrder_; }

  int32_t sourceRow = -1;

  static constexpr ItemType kType = ItemType::Collection;

 private:
  friend class Item;
  void Register(Item* item, uint32_t requestedId);
  void Unregister(Item* item);
  uint32_t NextFreeIndex(ItemType type);
  void LinkAtEnd(Item* item);
  void Unlink(Item* item);

  std::unordered_map<uint32_t, Item*> items_;
  Item* firstInOrder_ = nullptr;
  Item* lastInOrder_ = nullptr;
  // One list per type beside the whole order, so that the fix-ups' walks of one type cost what that
  // type holds, not what the collection holds.
  std::array<Item*, kItemTypeCount> firstOfType_{};
  std::array<Item*, kItemTypeCount> lastOfType_{};
  std::array<uint32_t, kItemTypeCount> typeCounts_{};
  bool clearing_ = false;
};

// The children of `parent` that are of kind T and resolve, in order.
template <typename T>
std::vector<T*> ChildrenOf(const Item& parent) {
  std::vector<T*> out;
  for (uint32_t childId : parent.children)
    if (T* child = parent.collection->Find<T>(childId)) out.push_back(child);
  return out;
}

}  // namespace orlin
