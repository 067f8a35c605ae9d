// SFZ: the corpus files read as their text says, the text layer's edge cases, the four writer rows read
// back by our reader, an outside reader of our output when one is installed, and hostile input.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "core/user_interface.h"
#include "formats/audio/wav.h"
#include "formats/instrument/sfz/sfz.h"
#include "test_support.h"

namespace orlin {
namespace {

namespace fs = std::filesystem;

constexpr int32_t kReadRow = 392;
constexpr int32_t kWriteRows[4] = {393, 394, 395, 396};

fs::path SfzDir() { return test::TestDataDir() / "sfz" / "sfizz-TestFiles"; }

std::vector<Region*> RegionsOf(const Collection& collection) { return collection.All<Region>().ToVector(); }

Region* RegionAtKey(const Collection& collection, int key) {
  for (Region* region : collection.All<Region>())
    if (region->range.loKey <= key && key <= region->range.hiKey) return region;
  return nullptr;
}

// A mono sine written as a plain RIFF WAVE, with a loop when `loopEnd` > 0.
void WriteTestWave(const std::string& path, uint32_t frames, uint32_t loopStart = 0, uint32_t loopEnd = 0,
                   int fineTune = 0) {
  Collection collection;
  auto* wave = new Waveform(&collection);
  wave->length = frames;
  wave->sampleRate = 44100;
  wave->fineTune = int8_t(fineTune);
  float* samples = wave->GetSamplesForWrite();
  for (uint32_t i = 0; i < frames; ++i) samples[i] = 0.5f * std::sin(float(i) * 0.05f);
  if (loopEnd > 0) {
    wave->loop.type = 1;
    wave->loop.start = float(loopStart);
    wave->loop.end = float(loopEnd);
  }
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(WriteWaveToMemory(*wave, bytes, WaveWriteParams{}));
  test::WriteBytes(path, bytes);
}

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// Facts read off each corpus file's text: region count, then per key: low and high velocity, root.
struct RegionFact {
  int key;
  int loVelocity;
  int hiVelocity;
  int root;
};
struct FileFact {
  const char* file;
  size_t regions;
  size_t waves;
  std::vector<RegionFact> facts;
};

TEST(Sfz, CorpusFilesReadAsTheirTextSays) {
  ORLIN_REQUIRE_TESTDATA();
  const std::vector<FileFact> files = {
      // <group> key=36 volume=6, five velocity splits
      {"groups_avl.sfz", 5, 5, {{36, 1, 26, 36}}},
      // #define $KICKKEY 36 ...; the *sine region makes none
      {"defines.sfz", 3, 3, {{36, 0, 127, 36}, {38, 0, 127, 38}, {42, 0, 127, 42}}},
      // two waves used by eight regions at keys 30..61
      {"basic_hierarchy.sfz", 8, 2, {{60, 0, 127, 60}, {31, 0, 127, 31}}},
      {"basic_hierarchy_antislash.sfz", 8, 2, {{50, 0, 127, 50}, {41, 0, 127, 41}}},
      // default_path joined as text, then reset by a new <control>
      {"default_path.sfz", 4, 2, {}},
      // the sample file names differ from the files on disk in case only
      {"case_insensitive.sfz", 4, 2, {{61, 0, 127, 61}}},
      {"off_by.sfz", 4, 1, {{63, 0, 127, 63}, {65, 0, 127, 65}}},
      {"Includes/root_recursive.sfz", 2, 2, {}},
      {"Includes/root_subdir.sfz", 1, 1, {}},
      {"SpecificBugs/wrong-replacements.sfz", 3, 1, {{52, 0, 127, 52}, {57, 0, 127, 57}}},
  };
  for (const FileFact& fact : files) {
    SCOPED_TRACE(fact.file);
    Collection collection;
    ASSERT_TRUE(LoadFile(collection, (SfzDir() / fact.file).string(), false)) << LastError();
    EXPECT_EQ(collection.sourceRow, kReadRow);
    EXPECT_EQ(RegionsOf(collection).size(), fact.regions);
    EXPECT_EQ(collection.CountOf(ItemType::Waveform), fact.waves);
    for (const RegionFact& region : fact.facts) {
      Region* found = nullptr;
      for (Region* r : collection.All<Region>())
        if (r->range.loKey == region.key && r->range.hiKey == region.key && r->range.loVelocity == region.loVelocity)
          found = r;
      ASSERT_NE(found, nullptr) << "key " << region.key;
      EXPECT_EQ(found->range.hiVelocity, region.hiVelocity);
      EXPECT_EQ(found->EffectiveRootKey(), region.root);
    }
  }
}

TEST(Sfz, CorpusValuesReachTheArticulation) {
  ORLIN_REQUIRE_TESTDATA();
  Collection groups;
  ASSERT_TRUE(LoadFile(groups, (SfzDir() / "groups_avl.sfz").string(), false));
  for (Region* region : groups.All<Region>()) EXPECT_FLOAT_EQ(region->GetParam(kParamMasterVolume), 6.0f);  // volume=6

  Collection hierarchy;
  ASSERT_TRUE(LoadFile(hierarchy, (SfzDir() / "basic_hierarchy.sfz").string(), false));
  // <master> pan=30 covers keys 50..61, pan=-10 keys 30..41; each <group> has its own delay.
  EXPECT_NEAR(RegionAtKey(hierarchy, 60)->GetParam(51), 0.30f, 1e-4);
  EXPECT_NEAR(RegionAtKey(hierarchy, 41)->GetParam(51), -0.10f, 1e-4);
  EXPECT_NEAR(RegionAtKey(hierarchy, 61)->GetParam(kParamTriggerDelay), 67.0f, 1e-3);
  EXPECT_NEAR(RegionAtKey(hierarchy, 30)->GetParam(kParamTriggerDelay), 36.0f, 1e-3);

  Collection release;
  ASSERT_TRUE(LoadFile(release, (SfzDir() / "delay_release.sfz").string(), false));
  Region* region = RegionsOf(release).at(0);
  EXPECT_NEAR(region->GetParam(82), 0.005f, 1e-3);  // ampeg_delay -> V-ENV attack 1
  EXPECT_NEAR(region->GetParam(98), 1.0f, 1e-3);    // ampeg_release -> V-ENV release 1

  Collection offBy;
  ASSERT_TRUE(LoadFile(offBy, (SfzDir() / "off_by.sfz").string(), false));
  EXPECT_EQ(RegionAtKey(offBy, 65)->GetParam(202), 3.0f);  // group=3 off_by=3: self-exclusive group 3
}

TEST(Sfz, LoopsFromTheWaveAndFromTheText) {
  ORLIN_REQUIRE_TESTDATA();
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, (SfzDir() / "looped_regions.sfz").string(), false));
  const std::vector<Region*> regions = RegionsOf(collection);
  ASSERT_EQ(regions.size(), 3u);
  ASSERT_EQ(collection.CountOf(ItemType::Waveform), 1u) << "one wave shared by full path";
  // The wave's smpl loop 77554..186581 (inclusive); loop_mode=no_loop; loop_start=4 loop_end=124.
  std::map<float, LoopInfo> byStart;
  for (Region* region : regions) byStart[region->EffectiveLoop().type ? region->EffectiveLoop().start : -1] =
      region->EffectiveLoop();
  ASSERT_EQ(byStart.size(), 3u);
  EXPECT_EQ(byStart[-1].type, 0);
  EXPECT_EQ(byStart[4].end, 125.0f);
  EXPECT_EQ(byStart[77554].end, 186582.0f);
}

TEST(Sfz, FlacWavesByAbsolutePathDecodeLikeTheirWaveTwins) {
  ORLIN_REQUIRE_TESTDATA();
  test::ScratchDir dir;
  WriteText(dir.File("flac.sfz"), "<region> key=36 sample=" + (SfzDir() / "kick.flac").string() +
                                      "\n<region> key=37 sample=" + (SfzDir() / "kick.wav").string() + "\n");
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, dir.File("flac.sfz"), false)) << LastError();
  Waveform* flac = RegionAtKey(collection, 36)->GetWave();
  Waveform* wav = RegionAtKey(collection, 37)->GetWave();
  if (!flac) GTEST_SKIP() << "no FLAC reader here";
  ASSERT_NE(wav, nullptr);
  ASSERT_EQ(flac->length, wav->length);
  const float* a = flac->GetSamplesForRead();
  const float* b = wav->GetSamplesForRead();
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  float worst = 0.0f;
  for (uint32_t i = 0; i < wav->length * wav->channels; ++i) worst = std::max(worst, std::fabs(a[i] - b[i]));
  EXPECT_LT(worst, 1e-4f);
}

TEST(Sfz, IncludeLoopsEndAndMissingWavesAreLogged) {
  ORLIN_REQUIRE_TESTDATA();
  Collection loop;
  ASSERT_TRUE(LoadFile(loop, (SfzDir() / "Includes/root_loop.sfz").string(), false));
  EXPECT_GT(RegionsOf(loop).size(), 0u);
  EXPECT_EQ(loop.CountOf(ItemType::Waveform), 2u);

  test::ScriptedUserInterface ui;  // no answers: every "locate" is cancelled
  SetUserInterface(&ui);
  Collection bad;
  std::vector<SfzLogEntry> log;
  EXPECT_TRUE(ReadSfzFile(&bad, (SfzDir() / "Regions/regions_bad.sfz").string(), &log));
  SetUserInterface(nullptr);
  EXPECT_EQ(RegionsOf(bad).size(), 2u);
  size_t missing = 0;
  for (const SfzLogEntry& entry : log)
    if (entry.text.find("nonexistent.wav") != std::string::npos) {
      ++missing;
      EXPECT_GT(entry.line, 0);
      EXPECT_GT(entry.column, 0);
    }
  EXPECT_EQ(missing, 2u);
}

TEST(Sfz, TextLayerEdgeCases) {
  int key = -5;
  const std::vector<std::pair<const char*, int>> keys = {
      {"c4", 60}, {"C4", 60}, {"c#4", 61}, {"db4", 61}, {"a0", 21}, {"c-1", 0}, {"g9", 127}, {"36", 36}, {"-1", -1}};
  for (const auto& [text, expected] : keys) {
    ASSERT_TRUE(ParseSfzKey(text, key)) << text;
    EXPECT_EQ(key, expected) << text;
  }
  EXPECT_FALSE(ParseSfzKey("h4", key));
  EXPECT_FALSE(ParseSfzKey("", key));

  const auto tokens = TokenizeSfz("<region> sample=My Piano C4.wav lokey=3 // tail\nvolume=-3 / one slash\n\n<group>");
  ASSERT_EQ(tokens.size(), 8u);
  EXPECT_EQ(tokens[1].value, "My Piano C4.wav");
  EXPECT_EQ(tokens[2].key, "lokey");
  EXPECT_EQ(tokens[3].kind, SfzTokenKind::Comment);
  EXPECT_EQ(tokens[3].key, "tail");
  EXPECT_EQ(tokens[4].value, "-3");
  EXPECT_EQ(tokens[5].kind, SfzTokenKind::Comment);
  EXPECT_EQ(tokens[6].kind, SfzTokenKind::BlankLine);
  EXPECT_EQ(tokens[7].kind, SfzTokenKind::Header);
  EXPECT_EQ(tokens[7].line, 4);
  EXPECT_EQ(PreprocessSfz("#define $KICK 36 // kick\nkey=$KICK $KICKS", "", nullptr), "\nkey=36 36S");
}

TEST(Sfz, EdgeCaseRegions) {
  test::ScratchDir dir;
  WriteTestWave(dir.File("tone.wav"), 1000);
  WriteTestWave(dir.File("looped.wav"), 1000, 100, 900);
  WriteText(dir.File("edge.sfz"),
            "#define $KICK 36\n"
            "<region> sample=*sine key=70\n"
            "<region> sample=tone.wav key=c4 // a comment with key=99\n"
            "<region> sample=tone.wav lokey=0 hikey=-1\n"
            "<region> sample=tone.wav key=$KICK / volume=12\n"
            "<region> sample=looped.wav key=80 loop_mode=one_shot\n"
            "<region> sample=tone.wav key=81 loop_mode=loop_continuous\n"
            "<region> sample=looped.wav key=82 loop_mode=loop_sustain\n"
            "<region> sample=looped.wav key=83 loop_type=backward\n"
            "<region> sample=tone.wav key=84 loop_type=alternate\n");
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, dir.File("edge.sfz"), false));
  EXPECT_EQ(RegionsOf(collection).size(), 7u);
  EXPECT_EQ(RegionAtKey(collection, 70), nullptr);
  Region* c4 = RegionAtKey(collection, 60);
  ASSERT_NE(c4, nullptr);
  EXPECT_EQ(c4->range.loKey, 60);
  EXPECT_EQ(c4->range.hiKey, 60);
  EXPECT_EQ(c4->EffectiveRootKey(), 60);
  Region* kick = RegionAtKey(collection, 36);
  ASSERT_NE(kick, nullptr);
  EXPECT_EQ(kick->GetParam(kParamMasterVolume), 0.0f) << "text after one slash is a comment";
  Region* oneShot = RegionAtKey(collection, 80);
  EXPECT_EQ(oneShot->EffectiveLoop().type, 0);
  EXPECT_EQ(oneShot->GetParam(106), 1.0f);
  EXPECT_EQ(RegionAtKey(collection, 81)->EffectiveLoop().type, 0) << "no points, no loop";
  EXPECT_EQ(RegionAtKey(collection, 82)->EffectiveLoop().release, 1);
  EXPECT_EQ(RegionAtKey(collection, 83)->EffectiveLoop().type, 2) << "backward over the wave's own loop";
  EXPECT_EQ(RegionAtKey(collection, 84)->EffectiveLoop().type, 0) << "a direction alone makes no loop";
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), 2u);
}

// Players tune a region by its key center and `tune` alone and never hear the wave's smpl fraction
// (here +3 cents on 60, stored as unity note 59 plus 97 cents, and -30): the region sounds at its key
// center plus `tune`, whatever the wave says.
TEST(Sfz, KeyCenterAndTuneDecideThePitch) {
  test::ScratchDir dir;
  WriteTestWave(dir.File("up.wav"), 1000, 0, 0, 3);
  WriteTestWave(dir.File("down.wav"), 1000, 0, 0, -30);
  WriteText(dir.File("tuned.sfz"),
            "<region> sample=up.wav pitch_keycenter=60 lokey=0 hikey=63\n"
            "<region> sample=down.wav pitch_keycenter=72 tune=12 lokey=64 hikey=127\n");
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, dir.File("tuned.sfz"), false)) << LastError();
  auto cents = [](const Region* region) {
    return std::lround(region->GetWave()->fineTune + region->articulation.Get(kParamMasterTune) * 100.0);
  };
  Region* up = RegionAtKey(collection, 60);
  Region* down = RegionAtKey(collection, 72);
  ASSERT_NE(up, nullptr);
  ASSERT_NE(down, nullptr);
  EXPECT_EQ(up->EffectiveRootKey(), 60);
  EXPECT_EQ(cents(up), 0);
  EXPECT_EQ(down->EffectiveRootKey(), 72);
  EXPECT_EQ(cents(down), 12);
}

TEST(Sfz, ControllerStartValuesFiltersAndEffects) {
  test::ScratchDir dir;
  WriteTestWave(dir.File("tone.wav"), 1000);
  WriteText(dir.File("cc.sfz"),
            "<control> set_cc7=127 set_hdcc10=0.5 label_cc7=Volume\n"
            "<effect> type=fverb\n<effect> type=tlcr\n<effect> type=disto\n"
            "<region> sample=tone.wav key=60 volume_oncc7=-6 pan_oncc10=40 amplitude=50 note_polyphony=2\n"
            "<region> sample=tone.wav key=61 fil_type=peak cutoff=1000 fil_gain=6 eq2_freq=300 eq2_bw=1\n"
            "<region> sample=tone.wav key=62 fil_type=hpf_2p cutoff=500 resonance=6 fil_keytrack=100\n");
  Collection collection;
  std::vector<SfzLogEntry> log;
  ASSERT_TRUE(ReadSfzFile(&collection, dir.File("cc.sfz"), &log));
  Region* cc = RegionAtKey(collection, 60);
  // -6 dB at full controller, and amplitude 50% is another -6.02 dB.
  EXPECT_NEAR(cc->GetParam(kParamMasterVolume), -12.02f, 0.01f);
  EXPECT_NEAR(cc->GetParam(51), 0.20f, 1e-3);  // 40% of pan at half the controller
  Region* eq = RegionAtKey(collection, 61);
  EXPECT_EQ(eq->GetParam(kParamFilterType), 0.0f) << "a peak filter is an EQ band, not the filter";
  EXPECT_EQ(eq->GetParam(39), 0.0f);  // peak
  EXPECT_EQ(eq->GetParam(44), 300.0f);
  EXPECT_EQ(eq->GetParam(40), 1000.0f) << "the first free band";
  EXPECT_EQ(eq->GetParam(41), 6.0f);
  EXPECT_NEAR(eq->GetParam(46), 1.414f, 0.01f);  // one octave
  Region* filter = RegionAtKey(collection, 62);
  EXPECT_EQ(filter->GetParam(kParamFilterType), 6.0f);  // High-Pass 12 dB/oct
  EXPECT_EQ(filter->GetParam(24), 500.0f);
  EXPECT_EQ(filter->GetParam(35), 6.0f);
  EXPECT_EQ(filter->GetParam(kParamMasterVolume), -3.0f) << "half the resonance peak is taken off";
  EXPECT_EQ(filter->GetParam(26), 1.0f);
  Instrument* instrument = collection.All<Instrument>().ToVector().at(0);
  EXPECT_EQ(instrument->GetParam(231), 2.0f);  // reverb in slot 1
  EXPECT_EQ(instrument->GetParam(239), 6.0f) << "tlcr has no counterpart and is skipped";
  bool polyphonyLogged = false;
  for (const SfzLogEntry& entry : log)
    if (entry.text.find("note_polyphony") != std::string::npos) polyphonyLogged = entry.line == 5 && entry.column > 40;
  EXPECT_TRUE(polyphonyLogged);
}

TEST(Sfz, HostileFileGivesAClearResult) {
  test::ScratchDir dir;
  WriteTestWave(dir.File("tone.wav"), 500);
  WriteText(dir.File("hostile.sfz"),
            "<region> sample=tone.wav key=99999999999\n"
            "<region> sample=tone.wav key=50 volume=1e300 tune=-1e40 offset=1e40 end=-7 loop_start=-5 "
            "loop_end=1e30 cutoff=1e300 resonance=nan ampeg_attack=1e30 pitch_keycenter=zz\n"
            "<region> sample=../../../../../../etc/passwd key=10\n"
            "<region> sample=/nonexistent/x.wav key=11\n"
            "#include \"hostile.sfz\"\n"
            "<region\n<>\n=\n====\nsample=\n<region> sample=tone.wav lokey=20 hikey=30 lovel=200 hivel=-4\n");
  test::ScriptedUserInterface ui;
  SetUserInterface(&ui);
  Collection collection;
  std::vector<SfzLogEntry> log;
  const bool read = ReadSfzFile(&collection, dir.File("hostile.sfz"), &log);
  SetUserInterface(nullptr);
  EXPECT_TRUE(read);
  EXPECT_FALSE(log.empty());
  for (Region* region : collection.All<Region>()) {
    EXPECT_LE(region->range.hiKey, 127);
    EXPECT_GE(region->GetParam(kParamMasterVolume), -96.0f);
    EXPECT_LE(region->GetParam(kParamMasterVolume), 96.0f);
    EXPECT_TRUE(std::isfinite(region->GetParam(24)));
  }
  EXPECT_EQ(RegionAtKey(collection, 10), nullptr) << "a file that is not a wave leaves no region";
  EXPECT_NE(RegionAtKey(collection, 50), nullptr);

  WriteText(dir.File("generators.sfz"), "<region> sample=*sine\n");
  Collection empty;
  EXPECT_FALSE(LoadFile(empty, dir.File("generators.sfz"), false));
  EXPECT_EQ(LastError(), "The file holds no playable region");
}

// What a round trip keeps: keys, velocities, roots, loops, tunes and the shared articulation.
struct RegionSummary {
  int loKey, hiKey, loVelocity, hiVelocity, root, loopType;
  float loopStart, loopEnd, tune, volume, pan, cutoff, cutoffByModWheel, attack, release;
  bool operator==(const RegionSummary&) const = default;
};
std::vector<RegionSummary> Summarise(const Collection& collection) {
  std::vector<RegionSummary> out;
  for (Region* r : collection.All<Region>()) {
    const LoopInfo loop = r->EffectiveLoop();
    auto rounded = [](float v) { return std::round(v * 1000.0f) / 1000.0f; };
    out.push_back({r->range.loKey, r->range.hiKey, r->range.loVelocity, r->range.hiVelocity, r->EffectiveRootKey(),
                   loop.type, loop.type ? loop.start : 0, loop.type ? loop.end : 0, rounded(r->GetParam(0)),
                   rounded(r->GetParam(14)), rounded(r->GetParam(51)), rounded(r->GetParam(24)), rounded(r->GetParam(27)),
                   rounded(r->GetParam(86)), rounded(r->GetParam(98))});
  }
  std::sort(out.begin(), out.end(), [](auto& a, auto& b) {
    return std::tie(a.loKey, a.loVelocity, a.loopStart) < std::tie(b.loKey, b.loVelocity, b.loopStart);
  });
  return out;
}

TEST(Sfz, EveryWriterRowReadsBack) {
  test::ScratchDir dir;
  WriteTestWave(dir.File("a.wav"), 2000, 100, 1900);
  WriteTestWave(dir.File("b.wav"), 1500);
  WriteText(dir.File("source.sfz"),
            "<global> volume=-3 ampeg_release=0.4\n"
            "<group> pan=-25 tune=15 ampeg_attack=0.02\n"
            "<region> sample=a.wav lokey=40 hikey=59 pitch_keycenter=50 lovel=0 hivel=90 cutoff=2000 cutoff_oncc1=1200\n"
            "<region> sample=a.wav lokey=40 hikey=59 pitch_keycenter=50 lovel=91 hivel=127 loop_start=10 loop_end=999\n"
            "<group> transpose=-12 loop_mode=one_shot\n"
            "<region> sample=b.wav key=d#5 volume=2\n");
  Collection source;
  ASSERT_TRUE(LoadFile(source, dir.File("source.sfz"), false));
  const std::vector<RegionSummary> expected = Summarise(source);
  ASSERT_EQ(expected.size(), 3u);
  for (int32_t row : kWriteRows) {
    SCOPED_TRACE(row);
    const fs::path out = dir.Path() / ("row" + std::to_string(row));
    fs::create_directories(out);
    SaveOptions options;
    options.variant = GetFormatRow(row)->variant;
    ASSERT_TRUE(SaveItem(&source, row, (out / "out.sfz").string(), options)) << LastError();
    const bool subFolder = row == 394 || row == 396;
    EXPECT_EQ(fs::exists(out / "source" / "a.wav"), subFolder) << "the sub-folder has the instrument's name";
    EXPECT_EQ(fs::exists(out / "a.wav"), !subFolder);
    std::ifstream text(out / "out.sfz");
    std::string first;
    std::getline(text, first);
    EXPECT_EQ(first.substr(0, 3), row >= 395 ? "//-" : "///");
    const std::string whole = first + std::string(std::istreambuf_iterator<char>(text), {});
    EXPECT_NE(whole.find(row >= 395 ? " cutoff_oncc1=1200\n" : " cutoff_cc1=1200\n"), std::string::npos) << whole;
    Collection back;
    ASSERT_TRUE(LoadFile(back, (out / "out.sfz").string(), false)) << LastError();
    EXPECT_EQ(back.CountOf(ItemType::Waveform), 2u);
    EXPECT_EQ(back.All<Instrument>().ToVector().at(0)->GetName(), "source") << "the name rides on the head line";
    EXPECT_EQ(Summarise(back), expected);
  }
}

TEST(Sfz, SeveralInstrumentsGoToFilesOfTheirOwn) {
  test::ScratchDir dir;
  WriteTestWave(dir.File("a.wav"), 800);
  WriteText(dir.File("piano.sfz"), "<region> sample=a.wav key=60\n");
  WriteText(dir.File("organ.sfz"), "<region> sample=a.wav lokey=10 hikey=20\n<region> sample=a.wav key=30\n");
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, dir.File("piano.sfz"), false));
  ASSERT_TRUE(MergeFile(collection, dir.File("organ.sfz")));
  ASSERT_EQ(collection.CountOf(ItemType::Instrument), 2u);
  const fs::path out = dir.Path() / "out";
  fs::create_directories(out);
  SaveOptions options;
  options.variant = GetFormatRow(396)->variant;
  ASSERT_TRUE(SaveItem(&collection, 396, (out / "bank.sfz").string(), options)) << LastError();
  const fs::path second = out / "bank organ.sfz";  // named after the file the user chose
  ASSERT_TRUE(fs::exists(second)) << second;
  Collection first, other;
  ASSERT_TRUE(LoadFile(first, (out / "bank.sfz").string(), false)) << LastError();
  ASSERT_TRUE(LoadFile(other, second.string(), false)) << LastError();
  EXPECT_EQ(RegionsOf(first).size(), 1u);
  EXPECT_EQ(RegionsOf(other).size(), 2u);
  EXPECT_TRUE(fs::exists(out / "organ" / "a.wav")) << "each instrument's waves in its own sub-folder";
}

TEST(Sfz, CompressedSettingWritesFlacWaves) {
  if (FindWriteRow("flac", kMaskWaveform) < 0) GTEST_SKIP() << "no FLAC writer here";
  test::ScratchDir dir;
  WriteTestWave(dir.File("a.wav"), 3000, 200, 2900);
  WriteText(dir.File("source.sfz"), "<region> sample=a.wav lokey=40 hikey=59 pitch_keycenter=50\n");
  Collection source;
  ASSERT_TRUE(LoadFile(source, dir.File("source.sfz"), false));
  const fs::path out = dir.Path() / "out";
  fs::create_directories(out);
  SaveOptions options;
  options.variant = GetFormatRow(393)->variant;
  options.caps = kCapsCompressed;
  options.rate = 1.0f;  // the "FLAC" setting
  ASSERT_TRUE(SaveItem(&source, 393, (out / "x.sfz").string(), options)) << LastError();
  ASSERT_TRUE(fs::exists(out / "a.flac"));
  Collection back;
  ASSERT_TRUE(LoadFile(back, (out / "x.sfz").string(), false)) << LastError();
  ASSERT_EQ(back.CountOf(ItemType::Waveform), 1u);
  Region* region = RegionsOf(back).at(0);
  EXPECT_EQ(region->GetWave()->length, 3000u);
  EXPECT_EQ(region->EffectiveLoop().start, 200.0f) << "the loop rides in the SFZ text";
  EXPECT_EQ(region->EffectiveLoop().end, 2900.0f);
  EXPECT_EQ(region->EffectiveRootKey(), 50);
}

TEST(Sfz, OutsideReaderAcceptsOurOutput) {
  ORLIN_REQUIRE_TOOL("polyphone");
  test::ScratchDir dir;
  WriteTestWave(dir.File("a.wav"), 2000, 100, 1900);
  WriteText(dir.File("source.sfz"), "<region> sample=a.wav lokey=40 hikey=59 pitch_keycenter=50 volume=-6\n");
  Collection source;
  ASSERT_TRUE(LoadFile(source, dir.File("source.sfz"), false));
  const fs::path out = dir.Path() / "out";
  fs::create_directories(out);
  SaveOptions options;
  options.variant = GetFormatRow(395)->variant;
  ASSERT_TRUE(SaveItem(&source, 395, (out / "piano.sfz").string(), options));
  // Polyphone converts the SFZ into a SoundFont without a window.
  const int status = test::RunCommand("cd '" + out.string() + "' && QT_QPA_PLATFORM=offscreen timeout 60 polyphone -1 -i piano.sfz -d '" +
                                      out.string() + "' -o converted >/dev/null 2>&1");
  if (status != 0 || !fs::exists(out / "converted.sf2")) GTEST_SKIP() << "polyphone could not run here";
  EXPECT_GT(fs::file_size(out / "converted.sf2"), 2000u * 2);
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

// --- the SFZ text against the bank's own generators ---------------------------------------------------

// One instrument zone as libgig's sf2dump prints it.
struct DumpedZone {
  std::string sample;
  int loKey = 0, hiKey = 127, loVel = 0, hiVel = 127;
  int fineTune = 0, rootOverride = -1, cutoffCents = 13500;
  double hold = 0, decay = 0, sustainDb = 0, release = 0;
};
struct DumpedBank {
  std::map<std::string, int> samplePitch, sampleCorrection;
  std::map<std::string, std::vector<DumpedZone>> instruments;
  std::map<std::string, std::vector<std::string>> presetInstruments;
};

double NumberAfter(const std::string& line, const std::string& key) {
  const size_t at = line.find(key);
  return at == std::string::npos ? 0.0 : std::atof(line.c_str() + at + key.size());
}
void RangeAfter(const std::string& line, const std::string& key, int& lo, int& hi) {
  const size_t at = line.find(key);
  if (at == std::string::npos || line.compare(at + key.size(), 4, "None") == 0) return;
  lo = std::atoi(line.c_str() + at + key.size());
  hi = std::atoi(line.c_str() + line.find('-', at + key.size()) + 1);
}

DumpedBank DumpBank(const std::string& path) {
  std::string text;
  test::RunCommand("sf2dump '" + path + "' 2>/dev/null", &text);
  DumpedBank bank;
  std::istringstream lines(text);
  std::string section, current, pendingSample;
  DumpedZone* zone = nullptr;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("Samples", 0) == 0 || line.rfind("Instruments", 0) == 0 || line.rfind("Presets", 0) == 0) {
      section = line.substr(0, line.find(' '));
      continue;
    }
    const std::string trimmed = line.substr(std::min(line.find_first_not_of("\t "), line.size()));
    if (section == "Samples" && line.find(" (Depth:") != std::string::npos) {
      pendingSample = trimmed.substr(0, trimmed.find(" (Depth:"));
      bank.samplePitch[pendingSample] = int(NumberAfter(line, "Pitch: "));
      // sf2dump prints the signed correction byte unsigned.
      const int correction = int(NumberAfter(line, "Pitch Correction: "));
      bank.sampleCorrection[pendingSample] = correction > 127 ? correction - 256 : correction;
    } else if ((section == "Instruments" || section == "Presets") && line.size() > 1 && line[0] == '\t' &&
               line[1] != '\t' && line[1] != ' ') {
      current = trimmed.substr(0, trimmed.rfind(" ("));
      zone = nullptr;
    } else if (section == "Instruments" && trimmed.rfind("Region ", 0) == 0) {
      bank.instruments[current].emplace_back();
      zone = &bank.instruments[current].back();
    } else if (section == "Instruments" && trimmed.rfind("Global Region", 0) == 0) {
      zone = nullptr;
    } else if (section == "Presets" && trimmed.rfind("Instrument: ", 0) == 0) {
      bank.presetInstruments[current].push_back(trimmed.substr(12));
    } else if (zone && trimmed.rfind("Sample: ", 0) == 0) {
      zone->sample = trimmed.substr(8, trimmed.find(',') - 8);
      zone->fineTune = int(NumberAfter(line, "Fine Tune: "));
      if (line.find("Overriding Root Key: ") != std::string::npos)
        zone->rootOverride = int(NumberAfter(line, "Overriding Root Key: "));
    } else if (zone && trimmed.rfind("Key range=", 0) == 0) {
      RangeAfter(line, "Key range=", zone->loKey, zone->hiKey);
      RangeAfter(line, "Velocity range=", zone->loVel, zone->hiVel);
    } else if (zone && trimmed.rfind("Initial cutoff frequency=", 0) == 0) {
      zone->cutoffCents = int(NumberAfter(line, "frequency="));
    } else if (zone && trimmed.rfind("EG1PreAttackDelay", 0) == 0) {
      zone->hold = NumberAfter(line, "EG1Hold=");
      zone->decay = NumberAfter(line, "EG1Decay=");
      zone->sustainDb = NumberAfter(line, "EG1Sustain=");
      zone->release = NumberAfter(line, "EG1Release=");
    }
  }
  return bank;
}

// The regions of our SFZ files, opcodes of <global> and <group> folded in, by instrument name.
std::map<std::string, std::vector<std::map<std::string, std::string>>> SfzRegions(const fs::path& folder) {
  std::map<std::string, std::vector<std::map<std::string, std::string>>> out;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.path().extension() != ".sfz") continue;
    std::ifstream in(entry.path());
    std::string first;
    std::getline(in, first);
    const std::string name = first.substr(std::min(first.find_first_not_of('/'), first.size()) + 1);
    std::map<std::string, std::string> global, group, *level = &global;
    auto& regions = out[name];
    for (std::string line; std::getline(in, line);) {
      if (line == "<global>") level = &global;
      if (line == "<group>") {
        group = global;
        level = &group;
      }
      if (line == "<region>") {
        regions.push_back(group.empty() ? global : group);
        level = &regions.back();
      }
      const size_t equals = line.find('=');
      if (line.rfind(" ", 0) == 0 && equals != std::string::npos) (*level)[line.substr(1, equals - 1)] = line.substr(equals + 1);
    }
  }
  return out;
}

// Each region of TimGM6mb written as SFZ, read as the opcode definitions say, against the zone of
// the bank that sf2dump prints: pitch within 1 cent (tune holds the sample's correction), sustain as
// amplitude within 0.1 dB of the whole decibel sf2dump prints, cutoff within 1 cent or the 10 Hz grid the SoundFont reading tidies to above
// 1 kHz, hold and release within 1 %. Zones whose presets add offsets of their own, which sf2dump does
// not sum, and key-scaled decays are not compared here: a handful of regions may differ, not more.
TEST(Sfz, TextMeansWhatTheSoundFontGeneratorsSay) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("sf2dump");
  const std::string bankPath = (test::TestDataDir() / "soundfont/TimGM6mb.sf2").string();
  test::ScratchDir dir;
  test::ScriptedUserInterface ui;
  test::ScopedUserInterface scoped(ui);
  Collection bank;
  ASSERT_TRUE(LoadFile(bank, bankPath, false)) << LastError();
  ASSERT_TRUE(SaveItem(&bank, kWriteRows[0], dir.File("bank.sfz"), DefaultSaveOptions(kWriteRows[0]))) << LastError();
  const DumpedBank dumped = DumpBank(bankPath);
  ASSERT_GT(dumped.instruments.size(), 100u);
  const auto written = SfzRegions(dir.Path());
  int compared = 0, pitchOff = 0, sustainOff = 0, cutoffOff = 0, timeOff = 0;
  std::string report;
  for (const auto& [preset, instruments] : dumped.presetInstruments) {
    auto regions = written.find(preset);
    if (regions == written.end() || instruments.size() != 1) continue;
    for (const DumpedZone& zone : dumped.instruments.at(instruments[0])) {
      const std::map<std::string, std::string>* region = nullptr;
      for (const auto& candidate : regions->second) {
        auto get = [&](const char* key, int fallback) {
          auto at = candidate.find(key);
          return at == candidate.end() ? fallback : std::atoi(at->second.c_str());
        };
        if (candidate.count("sample") && candidate.at("sample") == zone.sample + ".wav" && get("lokey", 0) == zone.loKey &&
            get("hikey", 127) == zone.hiKey && get("lovel", 0) == zone.loVel && get("hivel", 127) == zone.hiVel)
          region = &candidate;
      }
      if (!region) continue;
      ++compared;
      auto value = [&](const char* key, double fallback) {
        auto at = region->find(key);
        return at == region->end() ? fallback : std::atof(at->second.c_str());
      };
      const std::string where = preset + " / " + zone.sample + ": ";
      // Pitch: the key center and the cents must place the sample where the bank does.
      const int root = zone.rootOverride >= 0 ? zone.rootOverride : dumped.samplePitch.at(zone.sample);
      const double bankCents = root * 100.0 - zone.fineTune - dumped.sampleCorrection.at(zone.sample);
      const double sfzCents = value("pitch_keycenter", 60) * 100.0 - value("transpose", 0) * 100.0 - value("tune", 0);
      if (std::fabs(bankCents - sfzCents) > 1.0) ++pitchOff, report += where + "pitch\n";
      // Sustain: percent of amplitude; 96 dB and below is silence.
      const double sustainDb = value("ampeg_sustain", 100) > 0 ? -20.0 * std::log10(value("ampeg_sustain", 100) / 100.0) : 96.0;
      // sf2dump prints whole decibels, cut toward zero.
      if (std::fabs(std::min(sustainDb, 96.0) - std::min(zone.sustainDb + 0.5, 96.0)) > 0.5 + 0.1)
        ++sustainOff, report += where + "sustain\n";
      // Cutoff: an open filter writes none.
      if (zone.cutoffCents < 13500) {
        const double hz = 8.176 * std::pow(2.0, zone.cutoffCents / 1200.0);
        const double cents = 1200.0 * std::log2(value("cutoff", 1e9) / hz);
        if (std::fabs(cents) > 1.0 && std::fabs(value("cutoff", 1e9) - hz) > 5.01) ++cutoffOff, report += where + "cutoff\n";
      }
      auto timeDiffers = [&](const char* key, double seconds) {
        const double wanted = seconds <= 0.001 ? 0.0 : seconds;
        return std::fabs(value(key, 0) - wanted) > 0.01 * wanted + 0.001;
      };
      if (timeDiffers("ampeg_hold", zone.hold) || timeDiffers("ampeg_release", zone.release))
        ++timeOff, report += where + "hold or release\n";
    }
  }
  EXPECT_GT(compared, 500) << "regions matched to the dump";
  for (int off : {pitchOff, sustainOff, cutoffOff, timeOff}) EXPECT_LE(off * 100, compared * 2) << report;
}

}  // namespace
}  // namespace orlin
