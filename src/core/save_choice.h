// The choices a save makes for each wave (channels, storage format) and what the save dialog offers.
// Headless, so the desktop program and the command line make the same choices.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/format_table.h"

namespace orlin {

uint32_t ChooseChannels(const Waveform& wave, const SaveOptions& options);
// The storage number to write `wave` in; `rate` gets the compression setting where it applies.
uint32_t ChooseSaveFormat(const Waveform& wave, const SaveOptions& options, double& rate,
                          FormatSettingsList settings = nullptr);
// One storage for a whole bank.
uint32_t ChooseGroupSaveFormat(const std::vector<const Waveform*>& waves, const SaveOptions& options, double& rate,
                               FormatSettingsList settings = nullptr);

// The storage number a wave prefers (its data format), and its compression rate if any.
uint32_t OwnStorage(const Waveform& wave, double* rateOut = nullptr);

// The type-mask of rows the save dialog lists for `item` (null: all rows).
uint8_t SaveDialogMask(const Item* item);
// Index into app.aiLastExp for an item type.
int LastExportIndex(const Item* item);

// An entry of the dialog's data or channel combo: its label and what choosing it does to the options.
struct SaveComboEntry {
  std::string label;
  enum class Kind { Auto, Storage, Setting, Channel, NotApplicable } kind;
  uint32_t storage = 0;     // Storage entries
  double rate = 0.0;        // Setting entries
  uint32_t channelBit = 0;  // Channel entries: kCapsMono or kCapsStereo
};
std::vector<SaveComboEntry> DataFormatEntries(int32_t row, const std::vector<const Waveform*>& waves);
std::vector<SaveComboEntry> ChannelEntries(int32_t row, const std::vector<const Waveform*>& waves);
// Applies a chosen entry to `options` (which start as the row's caps and variant).
void ApplySaveComboEntry(int32_t row, const SaveComboEntry& entry, SaveOptions& options);
// The options of a row with "Auto" choices.
SaveOptions DefaultSaveOptions(int32_t row);
// Finds a data entry by label, case ignored ("PCM 24-bit", "MP3 VBR Quality 5"); -1 if none.
int FindComboEntry(const std::vector<SaveComboEntry>& entries, std::string_view label);

// The waves an item plays or holds, each once, in collection order.
std::vector<Waveform*> WavesOfItem(Item* item);

// When the dialog closes: the row follows a typed extension of a writer row for this item, or the
// chosen row's extension is appended. Returns the final path; `row` and `resetChoices` updated.
std::string ResolveSavePath(const std::string& typedPath, const Item* item, int32_t& row, bool& resetChoices);

}  // namespace orlin
