// DLS banks and RIFF-MIDI: corpus banks open with what libgig's dlsdump lists, waves decode to what sox
// reads from the same bytes, hand-made banks pin the pool, loop and tuning rules, banks we write are read
// by dlsdump, and FluidSynth renders our conversions like the originals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "formats/common/riff.h"
#include "formats/instrument/dls/dls.h"
#include "test_support.h"

namespace orlin {
namespace {

using test::ScratchDir;

int32_t RowOf(const std::string& extension, const std::string& description) {
  for (int32_t row = 0; row < kFormatRowCount; ++row)
    if (GetRowExtension(row) == extension && GetRowDescription(row) == description) return row;
  return -1;
}

bool ReadRaw(Collection& collection, const std::string& path) {
  FileObject file;
  return file.Open(path, FileMode::Read) && ReadDls(&collection, &file, 0);
}

// One region as both sides can print it.
std::string RegionLine(const std::string& sample, int rate, int loKey, int hiKey, int loVel, int hiVel, int loops) {
  std::ostringstream out;
  out << sample << " " << rate << " " << loKey << "-" << hiKey << " " << loVel << "-" << hiVel << " loops " << loops;
  return out.str();
}

struct BankListing {
  int samples = 0;
  std::vector<std::string> instruments;                  // "name bank:program"
  std::map<std::string, std::vector<std::string>> regions;  // by instrument line, sorted
};

BankListing DumpListing(const std::string& path) {
  BankListing listing;
  std::string text;
  test::RunCommand("dlsdump '" + path + "' 2>/dev/null", &text);
  std::istringstream in(text);
  const std::regex sample(R"re(^\s+Sample \d+\) )re");
  const std::regex instrument(R"re(^\s+Instrument \d+\) "(.*)",\s+MIDIBank=(\d+), MIDIProgram=(\d+))re");
  const std::regex region(R"re(Region \d+\) Sample: "(.*)", (\d+)Hz, KeyRange=(\d+)-(\d+), VelocityRange=(\d+)-(\d+))re");
  const std::regex loops(R"re(^\s+Loops=(\d+))re");
  std::string current, pending;
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_search(line, sample)) ++listing.samples;
    if (std::regex_search(line, m, instrument)) {
      const int bank = std::stoi(m[2]);
      current = m[1].str() + " " + std::to_string(bank >> 7) + "-" + std::to_string(bank & 127) + ":" + m[3].str();
      listing.instruments.push_back(current);
    } else if (std::regex_search(line, m, region)) {
      pending = RegionLine(m[1], std::stoi(m[2]), std::stoi(m[3]), std::stoi(m[4]), std::stoi(m[5]), std::stoi(m[6]), 0);
    } else if (std::regex_search(line, m, loops) && !pending.empty()) {
      pending.back() = char('0' + std::min(std::stoi(m[1]), 1));
      listing.regions[current].push_back(pending);
      pending.clear();
    }
  }
  for (auto& [name, list] : listing.regions) std::sort(list.begin(), list.end());
  return listing;
}

BankListing OurListing(const Collection& collection) {
  BankListing listing;
  listing.samples = int(collection.CountOf(ItemType::Waveform));
  for (Instrument* instrument : collection.All<Instrument>()) {
    const std::string line = instrument->GetName() + " " + std::to_string(instrument->MajorBank()) + "-" +
                             std::to_string(instrument->MinorBank()) + ":" + std::to_string(instrument->Program());
    listing.instruments.push_back(line);
    std::vector<std::string>& regions = listing.regions[line];
    for (Layer* layer : ChildrenOf<Layer>(*instrument))
      for (Region* region : ChildrenOf<Region>(*layer)) {
        const Waveform* wave = region->GetWave();
        if (!wave) continue;
        const LoopInfo loop = region->EffectiveLoop();
        regions.push_back(RegionLine(wave->GetName(), int(wave->sampleRate), region->range.loKey, region->range.hiKey,
                                     region->range.loVelocity, region->range.hiVelocity, loop.type != 0 ? 1 : 0));
      }
    std::sort(regions.begin(), regions.end());
  }
  return listing;
}

void ExpectSameListing(const std::string& path, const Collection& collection) {
  const BankListing theirs = DumpListing(path);
  const BankListing ours = OurListing(collection);
  EXPECT_EQ(ours.samples, theirs.samples) << path;
  ASSERT_EQ(ours.instruments, theirs.instruments) << path;
  for (const std::string& instrument : theirs.instruments)
    EXPECT_EQ(ours.regions.at(instrument), theirs.regions.at(instrument)) << path << ": " << instrument;
}

std::vector<std::string> CorpusBanks() {
  const std::filesystem::path dir = test::TestDataDir() / "dls";
  return {(dir / "Streetwise/Streetwise.dls").string(), (dir / "VintageDreamsWaves-v2.dls").string(),
          (dir / "sonivox-carved/Leadsol.dls").string()};
}

TEST(Dls, CorpusBanksListLikeDlsdump) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("dlsdump");
  for (const std::string& path : CorpusBanks()) {
    Collection collection;
    ASSERT_TRUE(ReadRaw(collection, path)) << path << ": " << LastError();
    ExpectSameListing(path, collection);
  }
}

// A wave of the pool, lifted out as a RIFF WAVE file of the same bytes, as sox decodes it.
std::vector<float> SoxDecodeOfPoolWave(const std::string& bank, uint64_t listAt, const ScratchDir& dir) {
  FileObject file;
  if (!file.Open(bank, FileMode::Read)) return {};
  uint8_t head[8];
  if (!file.ReadAt(listAt, head, 8)) return {};
  const uint32_t size = uint32_t(head[4] | head[5] << 8 | head[6] << 16 | uint32_t(head[7]) << 24);
  std::vector<uint8_t> bytes(size + 8);
  if (!file.ReadAt(listAt, bytes.data(), bytes.size())) return {};
  std::memcpy(bytes.data(), "RIFF", 4);
  std::memcpy(bytes.data() + 8, "WAVE", 4);
  const std::string wav = dir.File("pool.wav"), raw = dir.File("pool.f32");
  test::WriteBytes(wav, bytes);
  if (test::RunCommand("sox -V1 '" + wav + "' -t f32 -e floating-point '" + raw + "' 2>/dev/null") != 0) return {};
  const std::vector<uint8_t> floats = test::ReadBytes(raw);
  std::vector<float> out(floats.size() / 4);
  std::memcpy(out.data(), floats.data(), out.size() * 4);
  return out;
}

TEST(Dls, PoolWavesDecodeAsSoxReadsThem) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("sox");
  ScratchDir dir;
  for (const std::string& path : CorpusBanks()) {
    Collection collection;
    collection.SetText(kTextSourceFile, path);  // where the waves decode from
    FileObject file;
    ASSERT_TRUE(file.Open(path, FileMode::Read));
    DlsBank bank;
    ASSERT_TRUE(ParseDlsBank(&collection, file, 0, uint64_t(file.Size()), bank)) << path;
    ASSERT_FALSE(bank.waves.empty()) << path;
    // Every fifth wave keeps the test short on the large bank; all of the small ones.
    for (size_t w = 0; w < bank.waves.size(); w += bank.waves.size() > 20 ? 5 : 1) {
      Waveform* wave = bank.waves[w];
      ASSERT_NE(wave, nullptr) << path << " wave " << w;
      const float* ours = wave->GetSamplesForRead();
      ASSERT_NE(ours, nullptr) << LastError();
      const std::vector<float> theirs = SoxDecodeOfPoolWave(path, bank.wavePoolBody + bank.waveOffsets[w], dir);
      ASSERT_EQ(theirs.size(), size_t(wave->length) * wave->channels) << path << " " << wave->GetName();
      for (size_t i = 0; i < theirs.size(); ++i)
        ASSERT_EQ(ours[i], theirs[i]) << path << " " << wave->GetName() << " sample " << i;
    }
  }
}

// --- hand-made banks ---------------------------------------------------------------------------------

struct WaveLayout {
  int unityNote = 60;
  int fineTune = 0;
  bool loop = true;
};

void PutWsmp(RiffWriter& riff, int note, int fine, bool loop, uint32_t start, uint32_t length) {
  ByteWriter w;
  w.U32(20);
  w.U16(uint16_t(note));
  w.U16(uint16_t(int16_t(fine)));
  w.U32(0);
  w.U32(0);
  w.U32(loop ? 1 : 0);
  if (loop) {
    w.U32(16);
    w.U32(0);
    w.U32(start);
    w.U32(length);
  }
  riff.Chunk(FourCC("wsmp"), w.Bytes().data(), w.Size());
}

struct RegionLayout {
  int loKey, hiKey;
  uint32_t tableIndex;
  bool ownWsmp = false;  // with a loopless wsmp of its own
};

// A bank of one wave (100 frames, loop 10..90) and one instrument; `form` "DLS " or "MLS ".
std::vector<uint8_t> MakeBank(const WaveLayout& waveLayout, const std::vector<RegionLayout>& regions, bool poolTable,
                              const char* form = "DLS ", const std::vector<uint8_t>& song = {}) {
  RiffWriter riff;
  riff.Begin(FourCC("RIFF"), uint32_t(uint8_t(form[0]) | uint8_t(form[1]) << 8 | uint8_t(form[2]) << 16 |
                                      uint32_t(uint8_t(form[3])) << 24));
  ByteWriter colh;
  colh.U32(1);
  riff.Chunk(FourCC("colh"), colh.Bytes().data(), colh.Size());
  size_t lins = riff.Open(FourCC("LIST"));
  riff.Body().Append("lins");
  size_t ins = riff.Open(FourCC("LIST"));
  riff.Body().Append("ins ");
  ByteWriter insh;
  insh.U32(uint32_t(regions.size()));
  insh.U32(0);
  insh.U32(5);
  riff.Chunk(FourCC("insh"), insh.Bytes().data(), insh.Size());
  size_t lrgn = riff.Open(FourCC("LIST"));
  riff.Body().Append("lrgn");
  for (const RegionLayout& layout : regions) {
    size_t rgn = riff.Open(FourCC("LIST"));
    riff.Body().Append("rgn ");
    ByteWriter rgnh;
    rgnh.U16(uint16_t(layout.loKey));
    rgnh.U16(uint16_t(layout.hiKey));
    rgnh.U16(0);
    rgnh.U16(127);
    rgnh.U16(0);
    rgnh.U16(0);
    riff.Chunk(FourCC("rgnh"), rgnh.Bytes().data(), rgnh.Size());
    if (layout.ownWsmp) PutWsmp(riff, 60, 0, false, 0, 0);
    ByteWriter wlnk;
    wlnk.U16(0);
    wlnk.U16(0);
    wlnk.U32(1);
    wlnk.U32(layout.tableIndex);
    riff.Chunk(FourCC("wlnk"), wlnk.Bytes().data(), wlnk.Size());
    riff.Close(rgn);
  }
  riff.Close(lrgn);
  riff.Close(ins);
  riff.Close(lins);
  if (poolTable) {
    ByteWriter ptbl;
    ptbl.U32(8);
    ptbl.U32(1);
    ptbl.U32(0);
    riff.Chunk(FourCC("ptbl"), ptbl.Bytes().data(), ptbl.Size());
  }
  size_t wvpl = riff.Open(FourCC("LIST"));
  riff.Body().Append("wvpl");
  size_t wave = riff.Open(FourCC("LIST"));
  riff.Body().Append("wave");
  ByteWriter fmt;
  fmt.U16(1);
  fmt.U16(1);
  fmt.U32(22050);
  fmt.U32(44100);
  fmt.U16(2);
  fmt.U16(16);
  riff.Chunk(FourCC("fmt "), fmt.Bytes().data(), fmt.Size());
  PutWsmp(riff, waveLayout.unityNote, waveLayout.fineTune, waveLayout.loop, 10, 80);
  std::vector<uint8_t> data(200);
  for (size_t i = 0; i < data.size(); i += 2) data[i + 1] = uint8_t(i);
  riff.Chunk(FourCC("data"), data.data(), data.size());
  riff.Close(wave);
  riff.Close(wvpl);
  if (!song.empty()) {
    size_t list = riff.Open(FourCC("LIST"));
    riff.Body().Append("lRMI");
    riff.Body().Append(song.data(), song.size());
    riff.Close(list);
  }
  riff.UpdateOuterSize();
  return riff.Bytes();
}

Region* OnlyRegion(const Collection& collection, int index = 0) {
  int at = 0;
  for (Region* region : collection.All<Region>())
    if (at++ == index) return region;
  return nullptr;
}

TEST(Dls, PoolCuesAndRegionLoops) {
  ScratchDir dir;
  test::ScriptedUserInterface ui;
  test::ScopedUserInterface scoped(ui);
  // Region 1 plays the wave; region 2 names cue 4 of a table of one: "Missing cue", once, and no wave.
  // Region 3 has a wsmp without loops of its own: the wave's loop is off for it alone.
  const std::string path = dir.File("cues.dls");
  test::WriteBytes(path, MakeBank({}, {{0, 40, 0}, {41, 60, 4}, {61, 127, 0, true}}, true));
  Collection collection;
  ASSERT_TRUE(ReadRaw(collection, path)) << LastError();
  ASSERT_EQ(std::count(ui.warnings.begin(), ui.warnings.end(), "Missing cue"), 1);
  EXPECT_EQ(ui.warnings.size(), 1u);
  Region* plain = OnlyRegion(collection, 0);
  Region* noCue = OnlyRegion(collection, 1);
  Region* unlooped = OnlyRegion(collection, 2);
  ASSERT_TRUE(plain && noCue && unlooped);
  EXPECT_NE(plain->GetWave(), nullptr);
  EXPECT_EQ(noCue->GetWave(), nullptr);
  EXPECT_EQ(plain->EffectiveLoop().type, 1);
  EXPECT_EQ(plain->EffectiveLoop().start, 10.0f);
  EXPECT_EQ(plain->EffectiveLoop().end, 90.0f);
  EXPECT_EQ(unlooped->EffectiveLoop().type, 0);
  EXPECT_EQ(unlooped->GetWave(), plain->GetWave());

  // Without a pool table the index is the wave number, after the warning.
  ui.warnings.clear();
  test::WriteBytes(path, MakeBank({}, {{0, 127, 0}}, false));
  Collection direct;
  ASSERT_TRUE(ReadRaw(direct, path));
  ASSERT_EQ(ui.warnings.size(), 1u);
  EXPECT_NE(ui.warnings[0].find("Mandatory 'ptbl' chunk is missing"), std::string::npos);
  EXPECT_NE(OnlyRegion(direct)->GetWave(), nullptr);
}

// A wave tuned 150 cents up on note 60 sounds at 61.5 on key 60: it becomes note 59 with +50 (not 58 with
// -50), so that every key sounds as before. Real banks store octave shifts this way: the corpus bank's
// saw waves carry -1190 cents, and folding the other way puts them two octaves off.
TEST(Dls, FineTuneBeyondASemitoneFoldsIntoTheNote) {
  int note = 60, fine = 150;
  FoldFineTune(note, fine);
  EXPECT_EQ(note, 59);
  EXPECT_EQ(fine, 50);
  note = 45, fine = -1190;
  FoldFineTune(note, fine);
  EXPECT_EQ(note, 57);
  EXPECT_EQ(fine, 10);
  note = 60, fine = 90;  // within a semitone: left alone
  FoldFineTune(note, fine);
  EXPECT_EQ(note, 60);
  EXPECT_EQ(fine, 90);

  ScratchDir dir;
  test::WriteBytes(dir.File("tune.dls"), MakeBank({60, 150, true}, {{0, 127, 0}}, true));
  Collection collection;
  ASSERT_TRUE(ReadRaw(collection, dir.File("tune.dls")));
  Waveform* wave = OnlyRegion(collection)->GetWave();
  ASSERT_NE(wave, nullptr);
  EXPECT_EQ(wave->rootKey, 59);
  EXPECT_EQ(wave->fineTune, 50);
}

TEST(Dls, MlsBankCarriesSongsInItsRmiList) {
  ScratchDir dir;
  // A RIFF-MIDI form holding one track with one note.
  const std::vector<uint8_t> smf = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0, 96, 'M', 'T', 'r', 'k', 0, 0, 0, 12,
                                    0, 0x90, 60, 100, 96, 0x80, 60, 0, 0, 0xFF, 0x2F, 0};
  RiffWriter rmid;
  rmid.Begin(FourCC("RIFF"), FourCC("RMID"));
  rmid.Chunk(FourCC("data"), smf.data(), smf.size());
  rmid.UpdateOuterSize();
  const std::string path = dir.File("bank.mls");
  test::WriteBytes(path, MakeBank({}, {{0, 127, 0}}, true, "MLS ", rmid.Bytes()));
  Collection collection;
  ASSERT_TRUE(ReadRaw(collection, path)) << LastError();
  EXPECT_EQ(collection.CountOf(ItemType::Instrument), 1u);
  ASSERT_EQ(collection.CountOf(ItemType::Song), 1u);
  Song* song = *collection.All<Song>().begin();
  const std::vector<Track*> tracks = ChildrenOf<Track>(*song);
  ASSERT_EQ(tracks.size(), 1u);
  EXPECT_EQ(tracks[0]->data, std::vector<uint8_t>(smf.begin() + 22, smf.end()));
  // The detector takes the MLS form as a bank.
  int32_t confidence = 0;
  FileObject file;
  ASSERT_TRUE(file.Open(path, FileMode::Read));
  EXPECT_EQ(GetRowExtension(DetectFileFormat(path, file, confidence)), "mls");
}

// --- writing -----------------------------------------------------------------------------------------

TEST(Dls, LevelOneRegionLimitAsksOnceAndKeepsSixteenOnNo) {
  ORLIN_REQUIRE_TOOL("dlsdump");
  ScratchDir dir;
  Collection collection;
  auto* wave = new Waveform(&collection);
  wave->SetName("tone");
  wave->length = 64;
  wave->sampleRate = 22050;
  float* samples = wave->AllocSamples();
  for (int i = 0; i < 64; ++i) samples[i] = std::sin(i * 0.3f) * 0.5f;
  auto* instrument = new Instrument(&collection);
  instrument->SetName("Twenty");
  for (int k = 0; k < 20; ++k) instrument->AddRegion(wave->id, PackRange(k * 6, k * 6 + 5), kFullRange, -1);
  const int32_t level1 = RowOf("dls", "DownLoadable Sounds level 1");
  ASSERT_GE(level1, 0);
  for (int answer : {1, 0}) {
    test::ScriptedUserInterface ui;
    ui.answers = {answer};
    test::ScopedUserInterface scoped(ui);
    const std::string path = dir.File(answer ? "no.dls" : "yes.dls");
    ASSERT_TRUE(SaveItem(&collection, level1, path, DefaultSaveOptions(level1))) << LastError();
    ASSERT_EQ(ui.questions.size(), 1u);
    EXPECT_NE(ui.questions[0].find("more regions than what is allowed by the DLS level 1"), std::string::npos);
    const BankListing listing = DumpListing(path);
    ASSERT_EQ(listing.instruments.size(), 1u);
    EXPECT_EQ(listing.regions.begin()->second.size(), answer ? 16u : 20u);
  }
}

// Banks we write list in dlsdump as we read them back, at every level.
TEST(Dls, WrittenBanksListLikeDlsdumpAtEveryLevel) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("dlsdump");
  ScratchDir dir;
  test::ScriptedUserInterface ui;
  ui.defaultAnswer = 0;
  test::ScopedUserInterface scoped(ui);
  Collection source;
  ASSERT_TRUE(LoadFile(source, (test::TestDataDir() / "dls/VintageDreamsWaves-v2.dls").string(), false));
  for (const char* description : {"DownLoadable Sounds level 1", "DownLoadable Sounds level 2",
                                  "DownLoadable Sounds level 2+", "DownLoadable Sounds level 2++"}) {
    const int32_t row = RowOf("dls", description);
    const std::string path = dir.File(std::string(description).substr(20) + ".dls");
    ASSERT_TRUE(SaveItem(&source, row, path, DefaultSaveOptions(row))) << description << ": " << LastError();
    Collection back;
    ASSERT_TRUE(ReadRaw(back, path)) << description;
    ExpectSameListing(path, back);
    EXPECT_EQ(back.CountOf(ItemType::Instrument), source.CountOf(ItemType::Instrument)) << description;
  }
}

TEST(Dls, StereoWavesSplitBelowLevelTwoPlusPlus) {
  ScratchDir dir;
  Collection collection;
  auto* wave = new Waveform(&collection);
  wave->SetName("wide");
  wave->channels = 2;
  wave->length = 100;
  wave->sampleRate = 44100;
  float* samples = wave->AllocSamples();
  for (int i = 0; i < 100; ++i) samples[2 * i] = 0.25f, samples[2 * i + 1] = -0.5f;
  auto* instrument = new Instrument(&collection);
  instrument->AddRegion(wave->id, kFullRange, kFullRange, -1);
  for (const auto& [description, waves] : {std::pair{"DownLoadable Sounds level 2", 2u},
                                           std::pair{"DownLoadable Sounds level 2++", 1u}}) {
    const int32_t row = RowOf("dls", description);
    const std::string path = dir.File("stereo.dls");
    ASSERT_TRUE(SaveItem(&collection, row, path, DefaultSaveOptions(row))) << LastError();
    Collection back;
    ASSERT_TRUE(ReadRaw(back, path));
    EXPECT_EQ(back.CountOf(ItemType::Waveform), waves) << description;
    EXPECT_EQ(back.CountOf(ItemType::Region), waves) << description;
    if (waves == 2) {
      // Each side plays from its own region, panned to its side.
      std::vector<float> pans;
      for (Region* region : back.All<Region>()) pans.push_back(region->articulation.Get(51));
      std::sort(pans.begin(), pans.end());
      EXPECT_EQ(pans, (std::vector<float>{-1.0f, 1.0f}));
    }
  }
}

// Connection blocks: times, levels and filter values come back as written.
TEST(Dls, ConnectionBlocksCarryTheArticulation) {
  Articulation art;
  art.Set(86, 0.25f);   // V-ENV attack
  art.Set(94, 1.5f);    // decay
  art.Set(97, 0.6f);    // sustain
  art.Set(98, 0.8f);    // release
  art.Set(23, 2.0f);    // low-pass
  art.Set(24, 2000.0f); // cutoff
  art.Set(51, -0.5f);   // pan
  art.Set(87, 0.25f);   // velocity quotient on the attack
  Articulation back;
  ApplyConnections(ConnectionsOf(art, 2), back);
  for (ParamId id : {86, 94, 97, 98, 23, 51, 87}) EXPECT_NEAR(back.Get(id), art.Get(id), 0.002) << id;
  EXPECT_NEAR(back.Get(24), 2000.0f, 0.5f);
  // Level 1 has no filter.
  Articulation level1;
  ApplyConnections(ConnectionsOf(art, 1), level1);
  EXPECT_EQ(level1.Get(23), 0.0f);
  // A velocity quotient of 4 on a 1 s attack held at velocity 0 is 2 s in the middle of the range.
  std::vector<DlsConnection> blocks = {{0, 0, 0x206, 0, 0}, {2, 0, 0x206, 0, int32_t(2 * 1200 * 65536)}};
  Articulation quotient;
  ApplyConnections(blocks, quotient);
  EXPECT_NEAR(quotient.Get(86), 2.0f, 0.01f);
}

// --- outside engine ----------------------------------------------------------------------------------

bool HaveFidelityTools() {
  return test::HaveTool("fluidsynth") &&
         std::filesystem::exists(test::TestDataDir().parent_path() / "tools" / "bank-fidelity");
}

// The corpus DLS bank was made from the corpus SoundFont of the same name: our SoundFont of the DLS bank
// must render like that original. (FluidSynth's own DLS road is no yardstick: Debian's libinstpatch takes
// an unstated sustain as silence, so sustained instruments die away there.) What still differs is what
// the DLS conversion of the original lost: modulators and detuned layers the bank no longer holds.
TEST(Dls, OurSoundFontOfTheBankSoundsLikeItsOrigin) {
  ORLIN_REQUIRE_TESTDATA();
  if (!HaveFidelityTools()) GTEST_SKIP() << "fluidsynth or bank-fidelity absent";
  ScratchDir dir;
  test::ScriptedUserInterface ui;
  test::ScopedUserInterface scoped(ui);
  const std::string origin = (test::TestDataDir() / "soundfont/VintageDreamsWaves/VintageDreamsWaves-v2.sf2").string();
  Collection bank;
  ASSERT_TRUE(LoadFile(bank, (test::TestDataDir() / "dls/VintageDreamsWaves-v2.dls").string(), false)) << LastError();
  const int32_t sf2 = RowOf("sf2", "SoundFont v2 bank");
  const std::string converted = dir.File("converted.sf2");
  ASSERT_TRUE(SaveItem(&bank, sf2, converted, DefaultSaveOptions(sf2))) << LastError();
  std::string output;
  test::RunCommand("/usr/bin/python3 '" + (test::TestDataDir().parent_path() / "tools/bank-fidelity").string() + "' '" +
                       origin + "' '" + converted + "' --keys 48,72 --vels 100 2>&1",
                   &output);
  std::cout << output;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(output, m, std::regex(R"re((\d+)/(\d+) presets match)re"))) << output;
  EXPECT_EQ(std::stoi(m[2]), 136);
  EXPECT_GE(std::stoi(m[1]), 100) << output;
}

TEST(Dls, SoundFontThroughLevelTwoAndBackSoundsTheSame) {
  ORLIN_REQUIRE_TESTDATA();
  if (!HaveFidelityTools()) GTEST_SKIP() << "fluidsynth or bank-fidelity absent";
  ScratchDir dir;
  const std::string original = (test::TestDataDir() / "soundfont/TimGM6mb.sf2").string();
  Collection bank;
  ASSERT_TRUE(LoadFile(bank, original, false)) << LastError();
  const int32_t dls = RowOf("dls", "DownLoadable Sounds level 2");
  const std::string middle = dir.File("tim.dls");
  ASSERT_TRUE(SaveItem(&bank, dls, middle, DefaultSaveOptions(dls))) << LastError();
  Collection back;
  ASSERT_TRUE(LoadFile(back, middle, false)) << LastError();
  const int32_t sf2 = RowOf("sf2", "SoundFont v2 bank");
  const std::string converted = dir.File("tim.sf2");
  ASSERT_TRUE(SaveItem(&back, sf2, converted, DefaultSaveOptions(sf2))) << LastError();
  std::string output;
  test::RunCommand("/usr/bin/python3 '" + (test::TestDataDir().parent_path() / "tools/bank-fidelity").string() + "' '" +
                       original + "' '" + converted + "' --keys 36,60,84 --vels 100 2>&1",
                   &output);
  std::cout << output;
  // Breath Noise is a noise sample played at a fixed pitch: two renders of noise through different
  // interpolation phases do not correlate sample for sample.
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);)
    if (line.find(" corr ") != std::string::npos && line.find("Breath Noise") == std::string::npos &&
        line.find("presets match") == std::string::npos)
      ADD_FAILURE() << line;
  EXPECT_NE(output.find("presets match"), std::string::npos) << output;
}

// --- RIFF-MIDI -----------------------------------------------------------------------------------------

TEST(Rmi, SongsWithAndWithoutTheirBank) {
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  // A corpus song whose form also holds a SoundFont: the song is read, the bank is not ours to read.
  Collection song;
  ASSERT_TRUE(LoadFile(song, (test::TestDataDir() / "midi/rmi/Unreeeal superhero 3.rmi").string(), false))
      << LastError();
  EXPECT_EQ(song.CountOf(ItemType::Song), 1u);
  // A song with a DLS bank: both come in, the bank as the bank file alone reads.
  Collection both;
  ASSERT_TRUE(LoadFile(both, (test::TestDataDir() / "derived/rmid/Streetwise-with-DLS.rmi").string(), false));
  EXPECT_EQ(both.CountOf(ItemType::Song), 1u);
  Collection bankAlone;
  ASSERT_TRUE(LoadFile(bankAlone, (test::TestDataDir() / "dls/Streetwise/Streetwise.dls").string(), false));
  EXPECT_EQ(both.CountOf(ItemType::Instrument), bankAlone.CountOf(ItemType::Instrument));
  EXPECT_EQ(both.CountOf(ItemType::Region), bankAlone.CountOf(ItemType::Region));

  // Written back with its bank and without: the song bytes stand, the bank is there or not.
  const Song* original = *both.All<Song>().begin();
  for (const char* description : {"RIFF-MIDI w DLS level 2 instruments", "RIFF-MIDI w no instruments"}) {
    const int32_t row = RowOf("rmi", description);
    const std::string path = dir.File("song.rmi");
    ASSERT_TRUE(SaveItem(&both, row, path, DefaultSaveOptions(row))) << LastError();
    Collection back;
    ASSERT_TRUE(LoadFile(back, path, false)) << LastError();
    ASSERT_EQ(back.CountOf(ItemType::Song), 1u);
    const Song* song2 = *back.All<Song>().begin();
    const std::vector<Track*> a = ChildrenOf<Track>(*original), b = ChildrenOf<Track>(*song2);
    ASSERT_EQ(a.size(), b.size());
    for (size_t t = 0; t < a.size(); ++t) EXPECT_EQ(a[t]->data, b[t]->data);
    EXPECT_EQ(back.CountOf(ItemType::Instrument), std::string(description).find("no instr") == std::string::npos ? 1u : 0u);
  }
}

}  // namespace
}  // namespace orlin
