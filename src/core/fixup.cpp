#include "core/fixup.h"

#include <cctype>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/pcm.h"
#include "core/settings.h"
#include "core/text.h"
#include "core/user_interface.h"

namespace orlin {

namespace {

template <typename T>
void FixUpAll(Collection& collection) {
  for (T* item : collection.All<T>()) item->FixUp();
}

// Collects first, deletes afterwards, so that no walk sees a deleted item.
template <typename T, typename Predicate>
bool DeleteWhere(Collection& collection, Predicate isEmpty) {
  std::vector<T*> doomed;
  for (T* item : collection.All<T>())
    if (isEmpty(*item)) doomed.push_back(item);
  for (T* item : doomed) delete item;
  return !doomed.empty();
}

}  // namespace

void EnsureUniqueName(Item& item) {
  Collection& collection = *item.collection;
  for (;;) {
    const std::string mine = ToUpperAscii(Utf8ToNarrow(item.GetName()));
    bool clash = false;
    // Only the items before this one count: of "Piano" and "piano" the second is renamed.
    for (Item* other : collection.AllItems()) {
      if (other == &item) break;
      if (other->Type() != item.Type()) continue;
      if (ToUpperAscii(Utf8ToNarrow(other->GetName())) == mine) {
        clash = true;
        break;
      }
    }
    if (!clash) return;
    std::string name = item.GetName();
    uint64_t number = 0;
    const size_t length = name.size();
    // A trailing number counts up, unless the name ends in a note such as C3 or F#4.
    const bool endsInDigit = length > 0 && std::isdigit(uint8_t(name[length - 1]));
    const char beforeLast = length >= 2 ? char(std::toupper(uint8_t(name[length - 2]))) : '\0';
    if (endsInDigit && beforeLast != '#' && !(beforeLast >= 'A' && beforeLast <= 'G')) {
      size_t digitsFrom = length;
      while (digitsFrom > 0 && std::isdigit(uint8_t(name[digitsFrom - 1]))) --digitsFrom;
      const std::string digits = name.substr(digitsFrom, std::min<size_t>(length - digitsFrom, 18));
      number = std::stoull(digits);
      name.resize(digitsFrom);
    } else {
      name += ' ';
    }
    item.SetName(name + std::to_string(number + 1));
  }
}

void FixUpItems(Collection& collection, uint8_t typeMask, bool afterLoad) {
  SetStatus("Fixing up items...", StatusMode::ProgressLabel);

  // 1. Each item's own fix-up, by type.
  FixUpAll<Instrument>(collection);
  FixUpAll<Layer>(collection);
  for (Region* region : collection.All<Region>()) {
    region->FixUp();
    // An override that equals the wave's value does nothing, and goes.
    Waveform* wave = region->GetWave();
    if (afterLoad && wave && region->overrideFlags) {
      if (region->rootKey == wave->rootKey) region->overrideFlags &= ~Region::kOverrideRoot;
      if (region->loop.type == wave->loop.type) region->overrideFlags &= ~Region::kOverrideLoopType;
      if (region->loop.release == wave->loop.release) region->overrideFlags &= ~Region::kOverrideLoopRelease;
      if (region->loop.start == wave->loop.start) region->overrideFlags &= ~Region::kOverrideLoopStart;
      if (region->loop.end == wave->loop.end) region->overrideFlags &= ~Region::kOverrideLoopEnd;
      if (region->loop.tune == wave->loop.tune) region->overrideFlags &= ~Region::kOverrideLoopTune;
    }
  }
  FixUpAll<SynthesisModel>(collection);
  for (Waveform* wave : collection.All<Waveform>()) {
    if (afterLoad && wave->dataFormat == kDataFormatDefault && HasGenericDecoder(*wave))
      wave->dataFormat = DataFormatFromStorage(wave->SourceStorage());
    wave->FixUp();
  }
  FixUpAll<Song>(collection);
  FixUpAll<Track>(collection);

  // 2. Empty items, collected first and deleted afterwards.
  if (typeMask & 0x01)
    DeleteWhere<Waveform>(collection, [](Waveform& w) { return w.length == 0 || w.channels < 1 || w.channels > 2; });
  if (typeMask & 0x02) {
    for (SynthesisModel* model : collection.All<SynthesisModel>()) model->DropDanglingChildren();
    DeleteWhere<SynthesisModel>(collection, [](SynthesisModel& m) { return m.children.empty(); });
  }
  // Deleting a wave can leave regions with no children: drop the dangling ids first.
  for (Region* region : collection.All<Region>()) region->DropDanglingChildren();
  if (typeMask & 0x04) DeleteWhere<Region>(collection, [](Region& r) { return r.children.empty(); });
  for (Layer* layer : collection.All<Layer>()) layer->DropDanglingChildren();
  if (typeMask & 0x08) DeleteWhere<Layer>(collection, [](Layer& l) { return l.children.empty(); });
  for (Instrument* instrument : collection.All<Instrument>()) instrument->DropDanglingChildren();
  if (typeMask & 0x10) DeleteWhere<Instrument>(collection, [](Instrument& i) { return i.children.empty(); });
  if (typeMask & 0x20) DeleteWhere<Track>(collection, [](Track& t) { return t.data.empty(); });
  for (Song* song : collection.All<Song>()) song->DropDanglingChildren();
  if (typeMask & 0x40) DeleteWhere<Song>(collection, [](Song& s) { return s.children.empty(); });

  // 5. Normalisers after a load.
  if (afterLoad && GetSettings().loadEnsureUniqueNames) {
    for (Instrument* instrument : collection.All<Instrument>()) EnsureUniqueName(*instrument);
    for (Waveform* wave : collection.All<Waveform>()) EnsureUniqueName(*wave);
  }

  // 6. Unique patches.
  collection.FixUp();
  SetStatus("");
}

}  // namespace orlin
