// What an instrument or bank writer iterates: the instruments of the item being saved and the waves they
// play, each wave once, with private copies wherever a writer must change something. Writers never touch
// the user's items; the copies go when the view does.
#pragma once
#include <memory>
#include <vector>

#include "core/collection.h"
#include "core/format_table.h"

namespace orlin {

class SaveView {
 public:
  // `item` may be the collection, an instrument, a waveform (wrapped in an instrument made for the
  // occasion) or a layer/region (wrapped likewise). `collect` gathers the waves the instruments play;
  // `resolve` drops regions whose wave or model does not resolve.
  explicit SaveView(Item* item, bool resolve = true, bool collect = true);
  SaveView(const SaveView&) = delete;
  SaveView& operator=(const SaveView&) = delete;
  ~SaveView();

  const std::vector<Instrument*>& Instruments() const { return instruments_; }
  const std::vector<Waveform*>& Waveforms() const { return waveforms_; }
  // Position of `wave` in Waveforms(), or -1.
  int WaveIndex(const Waveform* wave) const;
  Collection& Owner() const { return *collection_; }

  // A private deep copy of `instrument` (layers and regions; waves are shared) that replaces it in the
  // view; returns the copy. A copy already made is returned as it is.
  Instrument* PrivateCopy(Instrument* instrument);
  // A private wave the writer may change (channels, samples); replaces `wave` in the view and in the
  // view's regions. Registered for deletion with the view.
  Waveform* PrivateWave(Waveform* wave);

  // For formats with a limit on layers: instruments with more layers than allowed get a private copy;
  // with `merge` the regions of later layers move into the first where they collide with nothing and
  // their articulation is equal; then layers are dropped from the end until the limit holds.
  void LimitLayers(int maxMelodic, int maxDrum, bool merge);

 private:
  void Collect();
  // Regions whose wave or model is gone leave the view (in private copies).
  void DropUnresolvedRegions();
  Collection* collection_;
  std::vector<Instrument*> instruments_;
  std::vector<Waveform*> waveforms_;
  std::vector<Item*> owned_;  // private copies and wrappers, deleted last first
  bool resolve_;
};

// A wave that fits the channel bits of `caps` (mono 20, stereo 21, dual-mono-only banks 25): `wave` itself
// when it fits, else a converted copy owned by `view`.
Waveform* ConvertForSave(SaveView& view, Waveform* wave, uint32_t caps);

// The shared name cleaner of fixed-width name fields: upper-cases when asked, maps every character outside
// `alphabet` to a blank, cuts or pads with blanks to `width`.
std::string CleanFixedName(std::string_view name, size_t width, std::string_view alphabet, bool upperCase);

}  // namespace orlin
