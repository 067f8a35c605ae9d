// The three algorithm tables and their predicates. Rows stay in alphabetical order of their names,
// which is list order. A row whose algorithm comes with a later subsystem has no procedure yet: it
// is listed, and running it reports that it is not available.
#include <algorithm>

#include "processing/audio/edit_rows.h"
#include "processing/resample.h"
#include "processing/wizard.h"

namespace orlin {

namespace {

// --- Predicates: an item is tested by the type bits of its id ------------------------------------

template <typename Test>
bool AnySelected(const ProcessingWizard& wizard, Test test) {
  for (const Item* item : wizard.items)
    if (item && test(*item)) return true;
  return false;
}

bool CollectionHoldsSongs(const ProcessingWizard& wizard) {
  return wizard.collection && wizard.collection->CountOf(ItemType::Song) > 0;
}

template <typename Test>
bool AnySelectedWave(const ProcessingWizard& wizard, Test test) {
  return AnySelected(wizard, [&](const Item& item) {
    return item.Type() == ItemType::Waveform && test(static_cast<const Waveform&>(item));
  });
}

bool Always(const ProcessingWizard&) { return true; }
bool AnyLooped(const ProcessingWizard& w) { return AnySelectedWave(w, [](const Waveform& wave) { return wave.loop.type != 0; }); }
bool SubRangeOn(const ProcessingWizard& w) { return w.rangeOn; }
bool AnySections(const ProcessingWizard& w) {
  return AnySelectedWave(w, [](const Waveform& wave) {
    return std::any_of(wave.markers.begin(), wave.markers.end(), [](const Marker& m) { return m.section != 0; });
  });
}
bool OneWaveNoBatch(const ProcessingWizard& w) { return w.items.size() == 1 && !w.batchRunning; }
bool AnyMono(const ProcessingWizard& w) { return AnySelectedWave(w, [](const Waveform& wave) { return wave.channels == 1; }); }
bool AnyStereo(const ProcessingWizard& w) { return AnySelectedWave(w, [](const Waveform& wave) { return wave.channels == 2; }); }
bool AnySongData(const ProcessingWizard& w) {
  return AnySelected(w, [&](const Item& item) {
    return item.Type() == ItemType::Song || item.Type() == ItemType::Track ||
           (item.Type() == ItemType::Collection && CollectionHoldsSongs(w));
  });
}
bool AnySong(const ProcessingWizard& w) {
  return AnySelected(w, [&](const Item& item) {
    return item.Type() == ItemType::Song || (item.Type() == ItemType::Collection && CollectionHoldsSongs(w));
  });
}
bool IsType(const Item& item, std::initializer_list<ItemType> types) {
  return std::find(types.begin(), types.end(), item.Type()) != types.end();
}
bool InstrTree(const ProcessingWizard& w) {
  return AnySelected(w, [](const Item& i) {
    return IsType(i, {ItemType::Collection, ItemType::Instrument, ItemType::Layer, ItemType::Region});
  });
}
bool InstrLayer(const ProcessingWizard& w) {
  return AnySelected(w, [](const Item& i) { return IsType(i, {ItemType::Collection, ItemType::Instrument, ItemType::Layer}); });
}
bool InstrOnly(const ProcessingWizard& w) {
  return AnySelected(w, [](const Item& i) { return IsType(i, {ItemType::Collection, ItemType::Instrument}); });
}
bool CollOnly(const ProcessingWizard& w) {
  return AnySelected(w, [](const Item& i) { return i.Type() == ItemType::Collection; });
}
bool CollWithSongs(const ProcessingWizard& w) { return CollectionHoldsSongs(w) && CollOnly(w); }

// The instruments a selected item stands for: itself, or all of a selected collection.
template <typename Test>
bool AnyInstrumentOfSelection(const ProcessingWizard& w, Test test) {
  return AnySelected(w, [&](const Item& item) {
    if (item.Type() == ItemType::Instrument) return test(static_cast<const Instrument&>(item));
    if (item.Type() == ItemType::Collection)
      for (const Instrument* instrument : item.collection->All<Instrument>())
        if (test(*instrument)) return true;
    return false;
  });
}
bool PlaysStereo(const Instrument& instrument) {
  for (const Layer* layer : ChildrenOf<Layer>(instrument))
    for (const Region* region : ChildrenOf<Region>(*layer))
      if (const Waveform* wave = region->GetWave(); wave && wave->channels == 2) return true;
  return false;
}
bool DrumSelected(const ProcessingWizard& w) {
  return AnyInstrumentOfSelection(w, [](const Instrument& i) { return i.IsDrumKit(); });
}
bool StereoInInstr(const ProcessingWizard& w) {
  return AnySelected(w, [&](const Item& item) {
    if (item.Type() == ItemType::Collection)
      for (const Waveform* wave : item.collection->All<Waveform>())
        if (wave->channels == 2) return true;
    return item.Type() == ItemType::Instrument && PlaysStereo(static_cast<const Instrument&>(item));
  });
}
bool HasOffsets(const Region& region) { return region.startOffset != 0 || region.endOffset != 0; }
bool OffsetRegions(const ProcessingWizard& w) {
  return AnySelected(w, [](const Item& item) {
    switch (item.Type()) {
      case ItemType::Region: return HasOffsets(static_cast<const Region&>(item));
      case ItemType::Layer:
        for (const Region* region : ChildrenOf<Region>(item))
          if (HasOffsets(*region)) return true;
        return false;
      case ItemType::Instrument:
        for (const Layer* layer : ChildrenOf<Layer>(item))
          for (const Region* region : ChildrenOf<Region>(*layer))
            if (HasOffsets(*region)) return true;
        return false;
      case ItemType::Collection:
        for (const Region* region : item.collection->All<Region>())
          if (HasOffsets(*region)) return true;
        return false;
      default: return false;
    }
  });
}

#define PRED(name) name, #name
constexpr uint8_t kRange = kRowSubRange;
constexpr uint8_t kBare = kRowNoSettings;

// 42 rows. The procedures of the loop, tuning, resampling, pitch, naming and plug-in rows arrive with
// their subsystems.
const AlgorithmRow kAudioRows[] = {
    {"Adjust volume", 334, RunAdjustVolume, PRED(Always), kRange, AdjustVolumeSettingList},
    {"Append/combine waveforms", 323, RunAppendWaves, PRED(OneWaveNoBatch), 0, AppendSettingList},
    {"Auto loop finder", 335, nullptr, PRED(Always), 0, nullptr},
    {"Auto tune", 326, nullptr, PRED(Always), 0, nullptr},
    {"Calculate tuning", 325, nullptr, PRED(Always), 0, nullptr},
    {"Convert to mono", 306, RunConvertToMono, PRED(AnyStereo), 0, ToMonoSettingList},
    {"Convert to stereo", 305, RunConvertToStereo, PRED(AnyMono), 0, ToStereoSettingList},
    {"Convert loop to section marker", 342, nullptr, PRED(AnyLooped), kBare, nullptr},
    {"Convert section marker to loop", 341, nullptr, PRED(AnySections), kBare, nullptr},
    {"Cross-fade loop", 309, nullptr, PRED(AnyLooped), 0, nullptr},
    {"Cut away selection", 311, RunCutSelection, PRED(SubRangeOn), kRange | kBare, nullptr},
    {"Enable/disable loops", 332, nullptr, PRED(Always), 0, nullptr},
    {"Fade in/out selection", 310, RunFadeSelection, PRED(SubRangeOn), kRange, FadeSettingList},
    {"Find volume", 321, nullptr, PRED(Always), 0, nullptr},
    {"Filter waveform", 340, RunFilterWaveform, PRED(Always), 0, FilterSettingList},
    {"Insert silence", 316, RunInsertSilence, PRED(Always), kRange, InsertSilenceSettingList},
    {"Insert another waveform", 317, RunInsertWaveform, PRED(Always), kRange, InsertWaveSettingList},
    {"Invert sign throughout selection", 319, RunInvertSign, PRED(SubRangeOn), kRange | kBare, nullptr},
    {"Loop sanitizer/converter", 302, nullptr, PRED(AnyLooped), 0, nullptr},
    {"Maximize amplitude", 307, RunMaximize, PRED(Always), kBare, nullptr},
    {"Mix out = a*wave1 + b*wave2 + c", 320, RunMix, PRED(OneWaveNoBatch), 0, MixSettingList},
    {"Move loop points to zero-crossing", 339, nullptr, PRED(AnyLooped), 0, nullptr},
    {"Normalize volume", 337, nullptr, PRED(Always), 0, nullptr},
    {"Parse root key from waveform name", 333, nullptr, PRED(Always), 0, nullptr},
    {"Pitch scale", 336, nullptr, PRED(Always), 0, nullptr},
    {"Remove DC offset", 331, RunRemoveDc, PRED(Always), kBare, nullptr},
    {"Remove silent sections", 304, RunRemoveSilence, PRED(Always), 0, RemoveSilenceSettingList},
    {"Resample", 303, RunResample, PRED(Always), 0, ResampleSettingList},
    {"Reverse audio within selection", 312, RunReverse, PRED(SubRangeOn), kRange | kBare, nullptr},
    {"Search and replace text in names", 329, nullptr, PRED(Always), 0, nullptr},
    {"Set loop points to selection", 313, nullptr, PRED(SubRangeOn), kRange | kBare, nullptr},
    {"Set waveform names from file names", 338, RunNamesFromFiles, PRED(Always), kBare, nullptr},
    {"Set waveform names from root keys", 328, RunNamesFromRootKeys, PRED(Always), 0, RootKeyNameSettingList},
    {"Smooth within the selection", 314, RunSmooth, PRED(SubRangeOn), kRange, SmoothSettingList},
    {"Split waveform at silent sections", 318, RunSplitAtSilence, PRED(Always), 0, SplitSilenceSettingList},
    {"Split sections/slices into separate waves", 343, RunSplitSections, PRED(AnySections), 0, SplitSectionsSettingList},
    {"Statistics", 315, nullptr, PRED(Always), kBare, nullptr},
    {"Swap left and right channels", 301, RunSwapChannels, PRED(AnyStereo), kBare, nullptr},
    {"Time stretch", 324, nullptr, PRED(Always), 0, nullptr},
    {"Trim waveform after loop", 330, nullptr, PRED(AnyLooped), kBare, nullptr},
    {"Trim waveform to selection", 308, RunTrimToSelection, PRED(SubRangeOn), kRange | kBare, nullptr},
    {"VST plug-in effects", 327, nullptr, PRED(Always), kRange, nullptr},
};

// 19 rows, all of the collection algorithms.
const AlgorithmRow kInstrumentRows[] = {
    {"Add downsampled waves at every octave", 364, nullptr, PRED(InstrTree), 0, nullptr},
    {"Adjust common parameters", 368, nullptr, PRED(Always), 0, nullptr},
    {"Adjust region key ranges", 351, nullptr, PRED(Always), 0, nullptr},
    {"Auto-extend region key ranges", 367, nullptr, PRED(InstrLayer), 0, nullptr},
    {"Format text in names", 361, nullptr, PRED(Always), 0, nullptr},
    {"Merge instruments into a single instrument", 365, nullptr, PRED(InstrOnly), 0, nullptr},
    {"Merge layers into a single layer", 355, nullptr, PRED(InstrLayer), 0, nullptr},
    {"Merge mono waveform pairs to stereo", 363, nullptr, PRED(InstrOnly), 0, nullptr},
    {"Move articulation level", 356, nullptr, PRED(InstrLayer), 0, nullptr},
    {"Move instruments between banks", 357, nullptr, PRED(CollOnly), 0, nullptr},
    {"Move up articulation level if all equal below", 369, nullptr, PRED(InstrLayer), 0, nullptr},
    {"Remove items not used by any song", 354, nullptr, PRED(CollWithSongs), 0, nullptr},
    {"Renumber instruments", 370, nullptr, PRED(CollOnly), 0, nullptr},
    {"Search and replace text in names", 359, nullptr, PRED(Always), 0, nullptr},
    {"Split drum kit into multiple melodic inst.", 366, nullptr, PRED(DrumSelected), 0, nullptr},
    {"Split layers with velocity splits", 350, nullptr, PRED(InstrLayer), 0, nullptr},
    {"Split multi-layered instruments", 358, nullptr, PRED(InstrOnly), 0, nullptr},
    {"Split stereo waveforms to dual layers", 353, nullptr, PRED(StereoInInstr), 0, nullptr},
    {"Trim waves to region start/end offsets", 371, nullptr, PRED(OffsetRegions), 0, nullptr},
};

// 8 rows, all of the MIDI algorithms.
const AlgorithmRow kSongRows[] = {
    {"Change tick rate", 380, nullptr, PRED(AnySong), 0, nullptr},
    {"Compact MIDI file size", 387, nullptr, PRED(AnySongData), 0, nullptr},
    {"Convert MIDI format", 381, nullptr, PRED(AnySong), 0, nullptr},
    {"Filter MIDI messages", 382, nullptr, PRED(AnySongData), 0, nullptr},
    {"Fix compatibility issues & improve portability", 385, nullptr, PRED(AnySongData), 0, nullptr},
    {"Replace Note-On with velocity 0 with Note-Off", 386, nullptr, PRED(AnySongData), 0, nullptr},
    {"Transpose notes", 383, nullptr, PRED(AnySongData), 0, nullptr},
    {"Trim start and/or length", 384, nullptr, PRED(AnySongData), 0, nullptr},
};
#undef PRED

}  // namespace

std::span<const AlgorithmRow> AlgorithmTable(AlgorithmFamily family) {
  switch (family) {
    case AlgorithmFamily::Instrument: return kInstrumentRows;
    case AlgorithmFamily::Song: return kSongRows;
    default: return kAudioRows;
  }
}

void ResetAlgorithmSettings() {
  ResetEditRowSettings();
  ResetResampleSettings();
}

}  // namespace orlin
