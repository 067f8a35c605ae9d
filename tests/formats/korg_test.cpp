// Korg samples, keymaps and scripts against outside truth: the public Triton keymap reads with the
// zones, roots and loops that libgig's korg2gig made of it, and its samples decode as the repository's
// own KSF reader exported them (its exports carry no loop we could read; korg2gig's do).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "core/articulation.h"
#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace orlin {
namespace {

fs::path KeymapFolder() { return test::TestDataDir() / "korg/Triton-Guitar/GUITAR"; }

struct Zone {
  int lo, hi, root;
  uint32_t frames;
  float loopStart, loopEnd;
  bool operator==(const Zone&) const = default;
};

std::vector<Zone> ZonesOf(Collection& collection) {
  std::vector<Zone> zones;
  for (Region* region : collection.All<Region>()) {
    Waveform* wave = region->GetWave();
    if (!wave) continue;
    zones.push_back({region->range.loKey, region->range.hiKey, region->rootKey, wave->length, wave->loop.start,
                     wave->loop.end});
  }
  return zones;
}

TEST(KorgKeymap, ReadsAsKorg2gigConvertedIt) {
  ORLIN_REQUIRE_TESTDATA();
  Collection ours, converted;
  ASSERT_TRUE(LoadFile(ours, (KeymapFolder() / "GUITA000.KMP").string(), false)) << LastError();
  ASSERT_TRUE(LoadFile(converted, (test::TestDataDir() / "derived/gig/GUITA000-korg2gig.gig").string(), false))
      << LastError();
  const std::vector<Zone> zones = ZonesOf(ours);
  EXPECT_EQ(zones.size(), 37u);
  EXPECT_EQ(zones, ZonesOf(converted));
  int instruments = 0;
  for (Instrument* instrument : ours.All<Instrument>()) {
    ++instruments;
    EXPECT_EQ(instrument->GetName(), "Guitar Layer 1");
  }
  EXPECT_EQ(instruments, 1);
}

TEST(KorgSample, DecodesAsTheRepositorysExport) {
  ORLIN_REQUIRE_TESTDATA();
  int compared = 0;
  for (const auto& entry : fs::directory_iterator(KeymapFolder() / "GUITA000")) {
    if (entry.path().extension() != ".KSF") continue;
    // The export names MS0000NN.KSF as MS0000NN.KSF_<NN + 1>.wav.
    const int number = std::stoi(entry.path().stem().string().substr(2));
    const fs::path exported = entry.path().string() + "_" + std::to_string(number + 1) + ".wav";
    if (!fs::exists(exported)) continue;
    SCOPED_TRACE(entry.path().filename().string());
    Collection ksf, wav;
    ASSERT_TRUE(LoadFile(ksf, entry.path().string(), false)) << LastError();
    ASSERT_TRUE(LoadFile(wav, exported.string(), false)) << LastError();
    Waveform* ours = *ksf.All<Waveform>().begin();
    Waveform* theirs = *wav.All<Waveform>().begin();
    ASSERT_EQ(ours->length, theirs->length);
    EXPECT_EQ(ours->sampleRate, theirs->sampleRate);
    EXPECT_EQ(std::memcmp(ours->GetSamplesForRead(), theirs->GetSamplesForRead(), size_t(ours->length) * 4), 0);
    ++compared;
  }
  EXPECT_GE(compared, 30);
}

TEST(KorgKeymap, HolesLevelsAndRefusals) {
  ORLIN_REQUIRE_TESTDATA();
  test::ScratchDir scratch;
  fs::copy(KeymapFolder(), scratch.Path(), fs::copy_options::recursive);
  std::vector<uint8_t> keymap = test::ReadBytes((KeymapFolder() / "GUITA000.KMP").string());
  // Zones start behind MSP1 (8 + 18), MNO1 (8 + 4) and the RLP1 head.
  constexpr size_t kFirstZone = 26 + 12 + 8;
  ASSERT_EQ(std::memcmp(keymap.data() + kFirstZone - 8, "RLP1", 4), 0);
  keymap[kFirstZone + 3] = uint8_t(int8_t(-99));                    // zone 0: level -99
  std::memcpy(keymap.data() + kFirstZone + 18 + 6, "SKIPPEDSAMPL", 12);  // zone 1: a hole
  keymap[kFirstZone + 36 * 18 + 1] = 100;                           // the last zone stops at key 100
  test::WriteBytes(scratch.File("edited.KMP"), keymap);
  fs::rename(scratch.Path() / "GUITA000", scratch.Path() / "edited");
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, scratch.File("edited.KMP"), false)) << LastError();
  std::map<int, Region*> byLowKey;
  for (Region* region : collection.All<Region>()) byLowKey[region->range.loKey] = region;
  ASSERT_EQ(byLowKey.size(), 36u);
  EXPECT_FLOAT_EQ(byLowKey[0]->GetParam(kParamMasterVolume), -96.0f);
  EXPECT_EQ(byLowKey.count(41), 0u);  // F2, the skipped zone
  EXPECT_EQ(byLowKey.rbegin()->second->range.hiKey, 100);

  // A sample file standing for a skipped one says so.
  std::vector<uint8_t> skipped = test::ReadBytes((KeymapFolder() / "GUITA000/MS000000.KSF").string());
  std::memcpy(skipped.data() + 8, "SKIPPEDSAMPL", 12);
  test::WriteBytes(scratch.File("skipped.ksf"), skipped);
  Collection refused;
  EXPECT_FALSE(LoadFile(refused, scratch.File("skipped.ksf"), false));
  EXPECT_EQ(LastError(), "Skipped");
}

TEST(KorgScript, ListsKeymapsAndSamples) {
  ORLIN_REQUIRE_TESTDATA();
  test::ScratchDir scratch;
  fs::copy(KeymapFolder(), scratch.Path(), fs::copy_options::recursive);
  const std::string script = "#KORG Script Version 1.0\r\nGUITA000.KMP\r\nGUITA000\\MS000003.KSF\r\n";
  test::WriteBytes(scratch.File("BANK.KSC"), std::vector<uint8_t>(script.begin(), script.end()));
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, scratch.File("BANK.KSC"), false)) << LastError();
  std::vector<int> regionsPerInstrument;
  for (Instrument* instrument : collection.All<Instrument>()) {
    int regions = 0;
    for (Region* region : collection.All<Region>())
      if (collection.Find<Layer>(region->parentId) && collection.Find<Layer>(region->parentId)->parentId == instrument->id)
        ++regions;
    regionsPerInstrument.push_back(regions);
  }
  EXPECT_EQ(regionsPerInstrument, (std::vector<int>{37, 1}));
}

}  // namespace
}  // namespace orlin
