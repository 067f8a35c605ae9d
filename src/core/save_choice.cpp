#include "core/save_choice.h"

#include <algorithm>
#include <unordered_set>

#include "core/text.h"

namespace orlin {

namespace {

bool HasBit(uint32_t mask, uint32_t bit) { return bit < 32 && (mask >> bit) & 1; }

bool IsSingleBit(uint32_t mask) { return mask && !(mask & (mask - 1)); }

// "MP3 CBR 128 kbit/s" -> "128 kbit/s": the rate mode word goes, and the codec name before a number.
std::string ShortSettingLabel(const std::string& label) {
  std::vector<std::string> words;
  for (size_t at = 0; at < label.size();) {
    size_t blank = label.find(' ', at);
    if (blank == std::string::npos) blank = label.size();
    if (blank > at) words.push_back(label.substr(at, blank - at));
    at = blank + 1;
  }
  std::erase_if(words, [](const std::string& word) {
    return word.rfind("CBR", 0) == 0 || word.rfind("ABR", 0) == 0 || word.rfind("VBR", 0) == 0;
  });
  if (words.size() >= 2 && !words[1].empty() && std::isdigit(uint8_t(words[1][0]))) words.erase(words.begin());
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : " ") + word;
  return out;
}

// The label of the settings entry that `rate` picks, or "" when the row has no list.
std::string SettingLabelFor(int32_t row, double rate) {
  std::string found;
  for (const auto& [value, label] : GetSettingsList(row)) {
    found = label;
    if (value >= rate) break;
  }
  return found;
}

}  // namespace

uint32_t ChooseChannels(const Waveform& wave, const SaveOptions& options) {
  // A bank format that splits stereo into pairs counts as holding stereo.
  const bool holdsStereo = (options.caps & kCapsStereo) || (options.caps & kCapsDualMonoOnly);
  if (wave.channels <= 1) return (options.caps & kCapsMono) ? 1 : 2;
  return holdsStereo ? 2 : 1;
}

uint32_t OwnStorage(const Waveform& wave, double* rateOut) {
  if (rateOut) *rateOut = DataFormatRate(wave.dataFormat);
  return DataFormatStorage(wave.dataFormat);
}

uint32_t ChooseSaveFormat(const Waveform& wave, const SaveOptions& options, double& rate, FormatSettingsList settings) {
  const uint32_t mask = options.caps & kCapsStorageMask;
  double ownRate = 0.0;
  const uint32_t own = OwnStorage(wave, &ownRate);
  double wanted = options.rate;
  uint32_t answer = kStorageMixed;
  bool decided = false;
  if (HasBit(mask, own)) {
    const bool overridden = own == kStorageCompressed && wanted != 0.0 && wanted != ownRate;
    if (!overridden) {
      answer = own;
      wanted = ownRate;
      decided = true;
    }
  }
  if (!decided) {
    if (IsSingleBit(mask)) {
      answer = StorageFromMask(mask);
    } else if (mask & 0xFF) {
      answer = kStorageMixed;
      if (IsLinearStorage(own))
        for (uint32_t bit = own + 1; bit <= kStorageFloat64; ++bit)
          if (HasBit(mask, bit)) {
            answer = bit;
            break;
          }
      if (answer == kStorageMixed && HasBit(mask, kStoragePcm16)) answer = kStoragePcm16;
    } else if (HasBit(mask, kStorageDelta16) && own == kStoragePcm16) {
      answer = kStorageDelta16;
    } else if (HasBit(mask, kStorageDelta8) && own == kStoragePcm8) {
      answer = kStorageDelta8;
    } else if (HasBit(mask, kStorageCompressed)) {
      answer = kStorageCompressed;
      wanted = 256.0;
    } else {
      answer = StorageFromMask(mask);
    }
  }
  rate = wanted;
  if (answer == kStorageCompressed && settings) {
    if (wanted == 0.0) wanted = 256.0;
    double last = 0.0;
    bool found = false;
    for (uint32_t index = 0;; ++index) {
      const double value = settings(index, options.variant, nullptr);
      if (value <= 0.0) break;
      last = value;
      if (value >= wanted) {
        rate = value;
        found = true;
        break;
      }
    }
    if (!found) rate = last > 0.0 ? last : wanted;
  }
  return answer;
}

uint32_t ChooseGroupSaveFormat(const std::vector<const Waveform*>& waves, const SaveOptions& options, double& rate,
                               FormatSettingsList settings) {
  const uint32_t mask = options.caps & kCapsStorageMask;
  rate = 0.0;
  if (waves.empty()) return StorageFromMask(mask);
  if (waves.size() == 1) return ChooseSaveFormat(*waves[0], options, rate, settings);
  if (IsSingleBit(mask) && !HasBit(mask, kStorageCompressed)) return StorageFromMask(mask);
  uint32_t kept = 0;
  bool first = true;
  for (const Waveform* wave : waves) {
    double unused;
    const uint32_t result = ChooseSaveFormat(*wave, options, unused, settings);
    if (first) {
      kept = result;
      first = false;
    } else if (!IsLinearStorage(result)) {
      if (IsLinearStorage(kept)) kept = result;  // a codec wins over linear PCM, the first codec stays
    } else if (!IsLinearStorage(kept) || result > kept) {
      kept = result;
    }
  }
  rate = 0.0;
  return kept;
}

uint8_t SaveDialogMask(const Item* item) {
  if (!item) return 0xFF;
  switch (item->Type()) {
    case ItemType::Collection:
      return static_cast<const Collection*>(item)->CountOf(ItemType::Instrument) == 1 ? 0x90 : 0x80;
    case ItemType::Song:
    case ItemType::Track: return kMaskSong | kMaskWaveform;  // a song can be rendered to a wave
    case ItemType::Waveform: return kMaskWaveform;
    default: return kMaskInstrument;
  }
}

int LastExportIndex(const Item* item) {
  if (!item) return 4;
  switch (item->Type()) {
    case ItemType::Waveform: return 0;
    case ItemType::Instrument: case ItemType::Layer: case ItemType::Region: case ItemType::SynthesisModel: return 1;
    case ItemType::Song: case ItemType::Track: return 2;
    case ItemType::Collection: return 3;
  }
  return 4;
}

SaveOptions DefaultSaveOptions(int32_t row) {
  SaveOptions options;
  options.caps = GetRowCaps(row, &options.variant);
  return options;
}

std::vector<SaveComboEntry> DataFormatEntries(int32_t row, const std::vector<const Waveform*>& waves) {
  const SaveOptions options = DefaultSaveOptions(row);
  const FormatEntry* entry = GetFormatRow(row);
  const FormatSettingsList settings = entry ? entry->settings : nullptr;
  std::vector<SaveComboEntry> entries;
  // "Auto <...>": what the automatic choice gives, the common answer of several waves, or plain "Auto".
  std::string autoName;
  bool mixed = false;
  for (const Waveform* wave : waves) {
    double rate = 0.0;
    const uint32_t storage = ChooseSaveFormat(*wave, options, rate, settings);
    std::string name = storage == kStorageCompressed && settings ? ShortSettingLabel(SettingLabelFor(row, rate))
                                                                 : std::string(StorageName(storage));
    if (storage == kStorageMixed) name.clear();
    if (autoName.empty() && !mixed) autoName = name;
    else if (name != autoName) mixed = true;
  }
  entries.push_back({mixed || autoName.empty() ? "Auto" : "Auto <" + autoName + ">", SaveComboEntry::Kind::Auto});
  for (uint32_t bit = 0; bit < kStorageCount; ++bit) {
    if (!HasBit(options.caps, bit)) continue;
    if (bit == kStorageCompressed && settings) {
      for (const auto& [value, label] : GetSettingsList(row))
        entries.push_back({label, SaveComboEntry::Kind::Setting, kStorageCompressed, value});
    } else {
      entries.push_back({StorageName(bit), SaveComboEntry::Kind::Storage, bit});
    }
  }
  return entries;
}

std::vector<SaveComboEntry> ChannelEntries(int32_t row, const std::vector<const Waveform*>& waves) {
  const uint32_t caps = GetRowCaps(row);
  std::vector<SaveComboEntry> entries;
  if (!(caps & kCapsChannelMask) && !(caps & kCapsDualMonoOnly)) {
    entries.push_back({"N/A", SaveComboEntry::Kind::NotApplicable});
    return entries;
  }
  const SaveOptions options = DefaultSaveOptions(row);
  std::string autoName;
  for (const Waveform* wave : waves) {
    const std::string name = ChooseChannels(*wave, options) == 1 ? "Mono" : "Stereo";
    if (autoName.empty()) autoName = name;
    else if (autoName != name) autoName = "mixed";
  }
  entries.push_back({autoName.empty() ? "Auto" : "Auto <" + autoName + ">", SaveComboEntry::Kind::Auto});
  if (caps & kCapsMono) entries.push_back({"Mono", SaveComboEntry::Kind::Channel, 0, 0.0, kCapsMono});
  if (caps & kCapsStereo) entries.push_back({"Stereo", SaveComboEntry::Kind::Channel, 0, 0.0, kCapsStereo});
  return entries;
}

void ApplySaveComboEntry(int32_t row, const SaveComboEntry& entry, SaveOptions& options) {
  const uint32_t rowCaps = GetRowCaps(row, &options.variant);
  const uint32_t channelBits = kCapsChannelMask | kCapsDualMonoOnly;
  switch (entry.kind) {
    case SaveComboEntry::Kind::Auto:
      // The data combo's Auto restores the storage bits; the channel combo's the channel bits.
      if (entry.channelBit == 0 && entry.label.rfind("Auto", 0) == 0) {
        options.caps = (options.caps & ~kCapsStorageMask) | (rowCaps & kCapsStorageMask);
        options.rate = 0.0f;
      }
      break;
    case SaveComboEntry::Kind::Storage:
      options.caps = (options.caps & ~kCapsStorageMask) | (1u << entry.storage);
      options.rate = 0.0f;
      break;
    case SaveComboEntry::Kind::Setting:
      options.caps = (options.caps & ~kCapsStorageMask) | kCapsCompressed;
      options.rate = float(entry.rate);
      break;
    case SaveComboEntry::Kind::Channel:
      options.caps = (options.caps & ~channelBits) | entry.channelBit | (rowCaps & kCapsDualMonoOnly);
      break;
    case SaveComboEntry::Kind::NotApplicable: break;
  }
}

int FindComboEntry(const std::vector<SaveComboEntry>& entries, std::string_view label) {
  for (size_t i = 0; i < entries.size(); ++i)
    if (EqualsIgnoreCase(entries[i].label, label)) return int(i);
  return -1;
}

std::vector<Waveform*> WavesOfItem(Item* item) {
  std::vector<Waveform*> out;
  if (!item) return out;
  Collection* collection = item->collection;
  if (item->Type() == ItemType::Waveform) return {static_cast<Waveform*>(item)};
  if (item->Type() == ItemType::Collection) return collection->All<Waveform>().ToVector();
  std::unordered_set<uint32_t> seen;
  std::vector<Item*> pending{item};
  std::vector<uint32_t> order;
  while (!pending.empty()) {
    Item* at = pending.back();
    pending.pop_back();
    for (auto child = at->children.rbegin(); child != at->children.rend(); ++child) {
      Item* childItem = collection->FindItem(*child);
      if (!childItem) continue;
      if (childItem->Type() == ItemType::Waveform) {
        if (seen.insert(*child).second) order.push_back(*child);
      } else {
        pending.push_back(childItem);
      }
    }
  }
  // Collection order, as the writers number the waves.
  for (Waveform* wave : collection->All<Waveform>())
    if (seen.count(wave->id)) out.push_back(wave);
  return out;
}

std::string ResolveSavePath(const std::string& typedPath, const Item* item, int32_t& row, bool& resetChoices) {
  resetChoices = false;
  const std::string extension = ExtensionOf(typedPath);
  const uint8_t mask = item ? uint8_t(1u << uint32_t(item->Type())) | SaveDialogMask(item) : 0xFF;
  if (!extension.empty()) {
    const int32_t byExtension = FindWriteRow(extension, mask);
    if (byExtension >= 0) {
      if (!EqualsIgnoreCase(GetRowExtension(row), extension)) {
        row = byExtension;
        resetChoices = true;
      }
      return typedPath;
    }
  }
  return typedPath + "." + GetRowExtension(row);
}

}  // namespace orlin
