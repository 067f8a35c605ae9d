// What a conversion could not carry, found by reading the written file back with our own readers
// (without decoding samples) and comparing it with what was saved: waves' loops, markers, root keys,
// fine tunes, channels, rates and lengths; instruments' and regions' counts. Reading back rather than
// consulting a table of what each format holds means that a writer's own limits (one loop in a WAV
// smpl chunk, no metadata in a plain FLAC) are reported as they are, not as they are meant to be.
#include "cli/conversion_losses.h"

#include <cmath>
#include <filesystem>
#include <map>
#include <string>

#include "core/collection.h"
#include "core/pipeline.h"
#include "core/save_choice.h"

namespace fs = std::filesystem;

namespace orlin::cli {

namespace {

std::string Quoted(const std::string& name) { return "\"" + name + "\""; }

std::string KeyName(int key) {
  static const char* kNames[] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
  return std::string(kNames[key % 12]) + std::to_string(key / 12 - 1);
}

// `pitchInRegions`: an instrument's regions carry the pitch, and a writer may move a wave's root
// into them (a SoundFont correction above 50 cents becomes the next key and a negative tune).
void CompareWaves(const Waveform& before, const Waveform& after, bool pitchInRegions,
                  std::vector<ConversionLoss>& losses) {
  const std::string item = "waveform " + Quoted(before.GetName());
  auto add = [&](std::string what) { losses.push_back({item, std::move(what)}); };
  if (before.loop.type != 0 && after.loop.type == 0) {
    add("loop dropped");
  } else if (before.loop.type != 0) {
    LoopInfo a = before.loop, b = after.loop;
    a.Normalise(before.length, false);
    b.Normalise(after.length, false);
    if (std::fabs(a.start - b.start) > 1 || std::fabs(a.end - b.end) > 1)
      add("loop moved from " + std::to_string(int64_t(a.start)) + ".." + std::to_string(int64_t(a.end)) + " to " +
          std::to_string(int64_t(b.start)) + ".." + std::to_string(int64_t(b.end)));
    else if (a.type != b.type)
      add("loop kind changed");
  }
  if (after.markers.size() < before.markers.size())
    add(std::to_string(before.markers.size() - after.markers.size()) + " of " + std::to_string(before.markers.size()) +
        " markers dropped");
  if (before.rootKey != after.rootKey && !pitchInRegions)
    add("root key " + KeyName(before.rootKey) + " became " + KeyName(after.rootKey));
  if (before.fineTune != after.fineTune && before.rootKey == after.rootKey && !pitchInRegions)
    add("fine tune " + std::to_string(before.fineTune) + " ct became " + std::to_string(after.fineTune) + " ct");
  if (after.channels < before.channels)
    add(std::to_string(before.channels) + " channels became " + std::to_string(after.channels));
  if (after.sampleRate != before.sampleRate)
    add("rate " + std::to_string(before.sampleRate) + " Hz became " + std::to_string(after.sampleRate) + " Hz");
  // Codecs pad to whole blocks; only a shortening or a growth beyond one block is news.
  if (after.length + 4 < before.length)
    add(std::to_string(before.length - after.length) + " of " + std::to_string(before.length) + " frames dropped");
}

template <typename T>
size_t CountOf(Collection& collection) {
  size_t count = 0;
  for (T* item : collection.All<T>()) count += item != nullptr;
  return count;
}

}  // namespace

std::vector<ConversionLoss> FindConversionLosses(Item* saved, const std::vector<std::string>& writtenPaths) {
  std::vector<ConversionLoss> losses;
  if (writtenPaths.empty()) return losses;
  // The file the user named is the last written; files of its kind beside it (one SFZ an instrument)
  // are read too, the waves they point at come with them.
  const std::string primary = writtenPaths.back();
  const std::string kind = fs::path(primary).extension().string();
  Collection back;
  if (!LoadFile(back, primary, false)) return losses;  // a format we write but cannot read back
  for (size_t i = 0; i + 1 < writtenPaths.size(); ++i)
    if (fs::path(writtenPaths[i]).extension() == kind) MergeFile(back, writtenPaths[i]);
  std::vector<Waveform*> before = WavesOfItem(saved);
  std::vector<Waveform*> after;
  for (Waveform* wave : back.All<Waveform>()) after.push_back(wave);

  // Instruments and regions, when an instrument or a whole collection was saved.
  if (saved->Type() == ItemType::Collection || saved->Type() == ItemType::Instrument) {
    Collection& source = *saved->collection;
    const size_t instruments = saved->Type() == ItemType::Instrument ? 1 : CountOf<Instrument>(source);
    size_t regions = 0;
    for (Region* region : source.All<Region>()) {
      if (saved->Type() == ItemType::Collection) {
        ++regions;
        continue;
      }
      Layer* layer = source.Find<Layer>(region->parentId);
      regions += layer && layer->parentId == saved->id;
    }
    const size_t instrumentsBack = CountOf<Instrument>(back), regionsBack = CountOf<Region>(back);
    const std::string item = saved->Type() == ItemType::Instrument ? "instrument " + Quoted(saved->GetName()) : "collection";
    if (instruments > 0 && instrumentsBack < instruments)
      losses.push_back({item, std::to_string(instruments - instrumentsBack) + " of " + std::to_string(instruments) +
                                  " instruments dropped"});
    if (regions > 0 && regionsBack < regions)
      losses.push_back(
          {item, std::to_string(regions - regionsBack) + " of " + std::to_string(regions) + " regions dropped"});
  }
  // Counted in channels: a writer may join a stereo pair of mono waves into one stereo wave.
  size_t channelsBefore = 0, channelsAfter = 0;
  for (Waveform* wave : before) channelsBefore += wave->channels;
  for (Waveform* wave : after) channelsAfter += wave->channels;
  if (before.size() > 1 && channelsAfter < channelsBefore && after.size() < before.size())
    losses.push_back({"collection", std::to_string(before.size() - after.size()) + " of " +
                                        std::to_string(before.size()) + " waves dropped"});

  // Waves are matched by name where names are unique on both sides, else in order.
  std::map<std::string, Waveform*> byName;
  bool unique = true;
  for (Waveform* wave : after) unique = byName.emplace(wave->GetName(), wave).second && unique;
  for (size_t i = 0; i < before.size(); ++i) {
    Waveform* match = nullptr;
    if (before.size() == 1 && after.size() == 1) {
      match = after[0];
    } else if (unique) {
      auto found = byName.find(before[i]->GetName());
      if (found != byName.end()) match = found->second;
    } else if (before.size() == after.size()) {
      match = after[i];
    }
    if (match) CompareWaves(*before[i], *match, saved->Type() != ItemType::Waveform && CountOf<Region>(back) > 0, losses);
  }
  return losses;
}

}  // namespace orlin::cli
