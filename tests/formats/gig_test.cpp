// GigaStudio banks: a file libgig's korg2gig wrote opens with what gigdump lists and with the samples
// gigextract writes, word for word; a hand-made bank with velocity and key-switch dimensions, which
// gigdump also reads, spreads over layers and velocity ranges as a GigaStudio user sees it; packed
// frames decode by the format's predictors.
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
#include "formats/instrument/gig/gig.h"
#include "test_support.h"

namespace orlin {
namespace {

using test::ScratchDir;

std::string Trimmed(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

bool ReadRaw(Collection& collection, const std::string& path) {
  FileObject file;
  collection.SetText(kTextSourceFile, path);
  return file.Open(path, FileMode::Read) && ReadGig(&collection, &file, 0);
}

// What gigdump prints of samples (name, loop start and end) and of dimension regions (keys, root).
struct GigListing {
  std::map<std::string, std::pair<long, long>> loops;  // sample -> loop start, loop end
  std::vector<std::string> regions;                    // "keys lo-hi root sample", sorted
};

GigListing DumpListing(const std::string& path) {
  GigListing listing;
  std::string text;
  test::RunCommand("gigdump '" + path + "' 2>/dev/null", &text);
  std::istringstream in(text);
  const std::regex sample(R"re(Sample \d+\) "(.*)", Group .* (\d+) Loops .*Start=(\d+), End=(\d+))re");
  const std::regex keys(R"re(KeyRange=(\d+)-(\d+))re");
  const std::regex dimension(R"re(^\s+Sample: "(.*)", \d+Hz, UnityNote=(\d+))re");
  std::smatch m;
  std::string range;
  for (std::string line; std::getline(in, line);) {
    if (std::regex_search(line, m, sample) && std::stoi(m[2]) > 0) {
      listing.loops[Trimmed(m[1])] = {std::stol(m[3]), std::stol(m[4])};
    } else if (std::regex_search(line, m, keys)) {
      range = m[1].str() + "-" + m[2].str();
    } else if (std::regex_search(line, m, dimension)) {
      listing.regions.push_back(range + " root " + m[2].str() + " " + Trimmed(m[1]));
    }
  }
  std::sort(listing.regions.begin(), listing.regions.end());
  return listing;
}

TEST(Gig, KorgToGigBankListsLikeGigdump) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("gigdump");
  const std::string path = (test::TestDataDir() / "derived/gig/GUITA000-korg2gig.gig").string();
  Collection collection;
  ASSERT_TRUE(ReadRaw(collection, path)) << LastError();
  const GigListing theirs = DumpListing(path);
  ASSERT_FALSE(theirs.regions.empty());
  std::vector<std::string> ours;
  for (Region* region : collection.All<Region>()) {
    const Waveform* wave = region->GetWave();
    ASSERT_NE(wave, nullptr);
    ours.push_back(std::to_string(region->range.loKey) + "-" + std::to_string(region->range.hiKey) + " root " +
                   std::to_string(region->EffectiveRootKey()) + " " + wave->GetName());
    // The loop the dimension region plays is the sample's: its start, and an end that the smpl chunk
    // of this writer holds exclusive.
    const LoopInfo loop = region->EffectiveLoop();
    auto expected = theirs.loops.find(wave->GetName());
    ASSERT_NE(expected, theirs.loops.end()) << wave->GetName();
    EXPECT_EQ(loop.type, 1) << wave->GetName();
    EXPECT_EQ(long(loop.start), expected->second.first) << wave->GetName();
    EXPECT_EQ(long(loop.end), expected->second.second) << wave->GetName();
  }
  std::sort(ours.begin(), ours.end());
  EXPECT_EQ(ours, theirs.regions);
  EXPECT_EQ(collection.CountOf(ItemType::Waveform), theirs.loops.size());
}

TEST(Gig, SamplesDecodeAsGigextractWritesThem) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("gigextract");
  ORLIN_REQUIRE_TOOL("sox");
  const std::string path = (test::TestDataDir() / "derived/gig/GUITA000-korg2gig.gig").string();
  ScratchDir dir;
  ASSERT_EQ(test::RunCommand("gigextract '" + path + "' '" + dir.Path().string() + "' >/dev/null 2>&1"), 0);
  Collection collection;
  ASSERT_TRUE(ReadRaw(collection, path)) << LastError();
  int compared = 0;
  int number = 1;
  for (Waveform* wave : collection.All<Waveform>()) {
    // gigextract names its files "<number>_<name padded to 16>.wav".
    std::string extracted;
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path()))
      if (entry.path().filename().string().rfind(std::to_string(number) + "_", 0) == 0) extracted = entry.path().string();
    ++number;
    ASSERT_FALSE(extracted.empty()) << wave->GetName();
    const std::string raw = dir.File("decoded.f32");
    ASSERT_EQ(test::RunCommand("sox -V1 '" + extracted + "' -t f32 '" + raw + "'"), 0);
    const std::vector<uint8_t> bytes = test::ReadBytes(raw);
    const float* ours = wave->GetSamplesForRead();
    ASSERT_NE(ours, nullptr) << LastError();
    ASSERT_EQ(bytes.size() / 4, size_t(wave->length) * wave->channels) << wave->GetName();
    std::vector<float> theirs(bytes.size() / 4);
    std::memcpy(theirs.data(), bytes.data(), bytes.size());
    for (size_t i = 0; i < theirs.size(); ++i) ASSERT_EQ(ours[i], theirs[i]) << wave->GetName() << " sample " << i;
    ++compared;
  }
  EXPECT_EQ(compared, 37);
}

// A v2 bank of one region over two dimensions: velocity (2 zones, split at 40) and key switch (2 zones).
std::vector<uint8_t> MakeDimensionBank() {
  RiffWriter riff;
  riff.Begin(FourCC("RIFF"), FourCC("DLS "));
  ByteWriter colh;
  colh.U32(1);
  riff.Chunk(FourCC("colh"), colh.Bytes().data(), colh.Size());
  size_t lins = riff.Open(FourCC("LIST"));
  riff.Body().Append("lins");
  size_t ins = riff.Open(FourCC("LIST"));
  riff.Body().Append("ins ");
  ByteWriter insh;
  insh.U32(1);
  insh.U32(0);
  insh.U32(3);
  riff.Chunk(FourCC("insh"), insh.Bytes().data(), insh.Size());
  size_t lrgn = riff.Open(FourCC("LIST"));
  riff.Body().Append("lrgn");
  size_t rgn = riff.Open(FourCC("LIST"));
  riff.Body().Append("rgn ");
  ByteWriter rgnh;
  for (int v : {36, 72, 0, 127, 0, 0}) rgnh.U16(uint16_t(v));
  riff.Chunk(FourCC("rgnh"), rgnh.Bytes().data(), rgnh.Size());
  ByteWriter link;  // 3lnk of v2: count, five dimension records, the pool indices of 32 dimension regions
  link.U32(4);
  const uint8_t velocity[8] = {0x82, 1, 0, 1, 2, 0, 0, 0}, keyswitch[8] = {0x85, 1, 1, 2, 2, 0, 0, 0};
  link.Append(velocity, 8);
  link.Append(keyswitch, 8);
  link.Fill(0, 24);
  for (int i = 0; i < 32; ++i) link.U32(i < 4 ? uint32_t(i % 2) : 0);  // velocity zone picks the wave
  riff.Chunk(FourCC("3lnk"), link.Bytes().data(), link.Size());
  size_t prg = riff.Open(FourCC("LIST"));
  riff.Body().Append("3prg");
  for (int i = 0; i < 4; ++i) {
    size_t ewl = riff.Open(FourCC("LIST"));
    riff.Body().Append("3ewl");
    ByteWriter wsmp;
    wsmp.U32(20);
    wsmp.U16(uint16_t(60 + i));
    wsmp.U16(0);
    wsmp.U32(0);
    wsmp.U32(0);
    wsmp.U32(0);
    riff.Chunk(FourCC("wsmp"), wsmp.Bytes().data(), wsmp.Size());
    std::vector<uint8_t> ewa(140, 0);
    ewa[0] = 140;
    ewa[38] = 0xE8, ewa[39] = 0x03;           // sustain 1000 permille
    ewa[124] = (i % 2) == 0 ? 40 : 127;       // velocity upper limit of the zone
    riff.Chunk(FourCC("3ewa"), ewa.data(), ewa.size());
    riff.Close(ewl);
  }
  riff.Close(prg);
  riff.Close(rgn);
  riff.Close(lrgn);
  riff.Close(ins);
  riff.Close(lins);
  ByteWriter ptbl;
  ptbl.U32(8);
  ptbl.U32(2);
  const size_t offsetsAt = ptbl.Size();
  ptbl.U32(0);
  ptbl.U32(0);
  const size_t ptblAt = riff.Bytes().size() + 8 + offsetsAt;
  riff.Chunk(FourCC("ptbl"), ptbl.Bytes().data(), ptbl.Size());
  size_t wvpl = riff.Open(FourCC("LIST"));
  riff.Body().Append("wvpl");
  const size_t poolBody = riff.Bytes().size();
  for (int w = 0; w < 2; ++w) {
    const uint32_t offset = uint32_t(riff.Bytes().size() - poolBody);
    std::memcpy(riff.Bytes().data() + ptblAt + 4 * size_t(w), &offset, 4);
    size_t wave = riff.Open(FourCC("LIST"));
    riff.Body().Append("wave");
    ByteWriter fmt;
    fmt.U16(1);
    fmt.U16(1);
    fmt.U32(44100);
    fmt.U32(88200);
    fmt.U16(2);
    fmt.U16(16);
    riff.Chunk(FourCC("fmt "), fmt.Bytes().data(), fmt.Size());
    std::vector<uint8_t> data(400, uint8_t(w + 1));
    riff.Chunk(FourCC("data"), data.data(), data.size());
    size_t info = riff.Open(FourCC("LIST"));
    riff.Body().Append("INFO");
    const char* name = w ? "loud\0" : "soft\0";
    riff.Chunk(FourCC("INAM"), name, 5);
    riff.Close(info);
    riff.Close(wave);
  }
  riff.Close(wvpl);
  riff.UpdateOuterSize();
  return riff.Bytes();
}

TEST(Gig, DimensionsBecomeLayersAndVelocityRanges) {
  ScratchDir dir;
  const std::string path = dir.File("dims.gig");
  test::WriteBytes(path, MakeDimensionBank());
  Collection collection;
  ASSERT_TRUE(ReadRaw(collection, path)) << LastError();
  ASSERT_EQ(collection.CountOf(ItemType::Instrument), 1u);
  Instrument* instrument = *collection.All<Instrument>().begin();
  const std::vector<Layer*> layers = ChildrenOf<Layer>(*instrument);
  ASSERT_EQ(layers.size(), 2u);
  EXPECT_EQ(layers[0]->GetName(), "Keyswitch 1");
  EXPECT_EQ(layers[1]->GetName(), "Keyswitch 2");
  for (Layer* layer : layers) {
    const std::vector<Region*> regions = ChildrenOf<Region>(*layer);
    ASSERT_EQ(regions.size(), 2u);
    EXPECT_EQ(regions[0]->range.loVelocity, 0);
    EXPECT_EQ(regions[0]->range.hiVelocity, 40);
    EXPECT_EQ(regions[1]->range.loVelocity, 41);
    EXPECT_EQ(regions[1]->range.hiVelocity, 127);
    EXPECT_EQ(regions[0]->GetWave()->GetName(), "soft");
    EXPECT_EQ(regions[1]->GetWave()->GetName(), "loud");
    EXPECT_EQ(regions[0]->range.loKey, 36);
    EXPECT_EQ(regions[0]->range.hiKey, 72);
  }
  // Each dimension region's own root.
  EXPECT_EQ(ChildrenOf<Region>(*layers[1])[1]->EffectiveRootKey(), 63);

  // libgig reads the same layout: two dimensions, four dimension regions.
  if (!test::HaveTool("gigdump")) return;
  std::string text;
  test::RunCommand("gigdump '" + path + "' 2>&1", &text);
  EXPECT_NE(text.find("Dimensions=2"), std::string::npos) << text;
  EXPECT_NE(text.find("Dimension Region 4)"), std::string::npos) << text;
}

// Packed 16-bit frames: mode 1 stores second differences against a head of y and dy.
TEST(Gig, PackedFramesDecodeByTheirPredictor) {
  std::vector<uint8_t> frame = {1, 100, 0, 0xFE, 0xFF};  // mode 1, y = 100, dy = -2
  const int8_t deltas[] = {0, 1, -1, 3};
  for (int8_t d : deltas) frame.push_back(uint8_t(d));
  ASSERT_EQ(CountGigFrames(frame.data(), frame.size(), 1, 16), 4u);
  float out[4];
  ASSERT_EQ(DecodeGigFrames(frame.data(), frame.size(), 1, 16, 0, out, 4), 4u);
  // dy -= delta; y -= dy: 102, 105, 107, 112
  const float expected[] = {102, 105, 107, 112};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(out[i] * 32768.0f, expected[i]) << i;
  // A mode the format does not have ends the walk at once.
  const uint8_t bad[] = {7, 0, 0, 0};
  EXPECT_EQ(CountGigFrames(bad, sizeof bad, 1, 16), 0u);
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

int32_t RowOf(const std::string& description) {
  for (int32_t row = 0; row < kFormatRowCount; ++row)
    if (GetRowExtension(row) == "gig" && GetRowDescription(row) == description) return row;
  return -1;
}

// Banks we write, plain and packed, version 2 and 3: gigdump reads them without a complaint and lists the
// regions we read back, and gigextract's samples of the packed file are ours word for word.
TEST(Gig, WrittenBanksReadInLibgigTools) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("gigdump");
  ORLIN_REQUIRE_TOOL("gigextract");
  ORLIN_REQUIRE_TOOL("sox");
  ScratchDir dir;
  test::ScriptedUserInterface ui;
  test::ScopedUserInterface scoped(ui);
  Collection source;
  ASSERT_TRUE(LoadFile(source, (test::TestDataDir() / "dls/VintageDreamsWaves-v2.dls").string(), false));
  for (const char* description : {"GigaStudio v1 - Normal", "GigaStudio v1 - Compressed", "GigaStudio v3 - Normal",
                                  "GigaStudio v3 - Compressed"}) {
    const int32_t row = RowOf(description);
    ASSERT_GE(row, 0) << description;
    const std::string path = dir.File("bank.gig");
    ASSERT_TRUE(SaveItem(&source, row, path, DefaultSaveOptions(row))) << description << ": " << LastError();
    std::string text;
    ASSERT_EQ(test::RunCommand("gigdump '" + path + "' 2>&1", &text), 0) << description << text.substr(0, 2000);
    EXPECT_EQ(text.find("Exception"), std::string::npos) << description;
    Collection back;
    ASSERT_TRUE(ReadRaw(back, path)) << description << ": " << LastError();
    EXPECT_EQ(back.CountOf(ItemType::Instrument), source.CountOf(ItemType::Instrument)) << description;
    EXPECT_EQ(back.CountOf(ItemType::Waveform), source.CountOf(ItemType::Waveform)) << description;
    // gigdump's dimension regions with a sample are our regions.
    size_t sampled = 0;
    for (size_t at = text.find("Dimension Region"); at != std::string::npos; at = text.find("Dimension Region", at + 1))
      if (text.compare(text.find('\n', at) + 1, 25, "                Sample: \"") == 0) ++sampled;
    EXPECT_EQ(sampled, back.CountOf(ItemType::Region)) << description;
    if (std::string(description).find("Compressed") == std::string::npos) continue;
    EXPECT_NE(text.find("Compressed=true"), std::string::npos) << description;
    const std::string extracted = dir.File("extracted");
    std::filesystem::create_directory(extracted);
    ASSERT_EQ(test::RunCommand("gigextract '" + path + "' '" + extracted + "' 1 2 3 >/dev/null 2>&1"), 0);
    int number = 1;
    for (Waveform* wave : back.All<Waveform>()) {
      if (number > 3) break;
      std::string file;
      for (const auto& entry : std::filesystem::directory_iterator(extracted))
        if (entry.path().filename().string().rfind(std::to_string(number) + "_", 0) == 0) file = entry.path().string();
      ++number;
      ASSERT_FALSE(file.empty());
      ASSERT_EQ(test::RunCommand("sox -V1 '" + file + "' -t f32 '" + dir.File("x.f32") + "'"), 0);
      const std::vector<uint8_t> bytes = test::ReadBytes(dir.File("x.f32"));
      const float* ours = wave->GetSamplesForRead();
      ASSERT_NE(ours, nullptr);
      ASSERT_EQ(bytes.size() / 4, size_t(wave->length) * wave->channels) << wave->GetName();
      EXPECT_EQ(std::memcmp(ours, bytes.data(), bytes.size()), 0) << wave->GetName();
    }
  }
}

}  // namespace
}  // namespace orlin
