// Packed SoundFont banks: an outside bank whose smpl chunk is re-encoded as one WavPack stream (by
// the wavpack tool, and by our encoder, whose stream wvunpack must decode) reads back to the same
// samples and zones; sfArk archives are refused or unpacked as the add-on and header allow.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "formats/audio/addons/addon_loader.h"
#include "formats/audio/addons/sfark_addon.h"
#include "formats/audio/addons/wavpack_addon.h"
#include "formats/instrument/soundfont/soundfont.h"
#include "test_support.h"

namespace orlin {
namespace {

using test::ScratchDir;

uint32_t Le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
void PutLe32(std::vector<uint8_t>& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(uint8_t(v >> (8 * i)));
}
void PutChunk(std::vector<uint8_t>& out, const char* id, const std::vector<uint8_t>& body) {
  out.insert(out.end(), id, id + 4);
  PutLe32(out, uint32_t(body.size()));
  out.insert(out.end(), body.begin(), body.end());
  if (body.size() & 1) out.push_back(0);
}

// The body of the smpl chunk of an sfbk file.
std::vector<uint8_t> SmplOf(const std::vector<uint8_t>& bank) {
  for (size_t at = 12; at + 8 <= bank.size();) {
    const uint32_t size = Le32(&bank[at + 4]);
    if (std::memcmp(&bank[at], "LIST", 4) == 0 && std::memcmp(&bank[at + 8], "sdta", 4) == 0) {
      for (size_t in = at + 12; in + 8 <= at + 8 + size;) {
        const uint32_t inner = Le32(&bank[in + 4]);
        if (std::memcmp(&bank[in], "smpl", 4) == 0) return {bank.begin() + long(in + 8), bank.begin() + long(in + 8 + inner)};
        in += 8 + inner + (inner & 1);
      }
    }
    at += 8 + size + (size & 1);
  }
  return {};
}

// The same bank as form "sfpk" with `stream` in place of the smpl body; every other chunk is kept.
std::vector<uint8_t> PackedBank(const std::vector<uint8_t>& bank, const std::vector<uint8_t>& stream) {
  std::vector<uint8_t> body = {'s', 'f', 'p', 'k'};
  for (size_t at = 12; at + 8 <= bank.size();) {
    const uint32_t size = Le32(&bank[at + 4]);
    if (std::memcmp(&bank[at], "LIST", 4) == 0 && std::memcmp(&bank[at + 8], "sdta", 4) == 0) {
      std::vector<uint8_t> sdta = {'s', 'd', 't', 'a'};
      PutChunk(sdta, "smpl", stream);
      PutChunk(body, "LIST", sdta);
    } else {
      body.insert(body.end(), bank.begin() + long(at), bank.begin() + long(std::min(bank.size(), at + 8 + size + (size & 1))));
    }
    at += 8 + size + (size & 1);
  }
  std::vector<uint8_t> out;
  PutChunk(out, "RIFF", body);
  return out;
}

std::vector<Waveform*> WavesOf(Collection& collection) {
  std::vector<Waveform*> waves;
  for (Waveform* wave : collection.All<Waveform>()) waves.push_back(wave);
  return waves;
}

void ExpectSameBank(Collection& original, Collection& packed) {
  EXPECT_EQ(original.CountOf(ItemType::Instrument), packed.CountOf(ItemType::Instrument));
  EXPECT_EQ(original.CountOf(ItemType::Region), packed.CountOf(ItemType::Region));
  const auto a = WavesOf(original), b = WavesOf(packed);
  ASSERT_EQ(a.size(), b.size());
  ASSERT_GT(a.size(), 0u);
  size_t differing = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    ASSERT_EQ(a[i]->length, b[i]->length) << a[i]->GetName();
    EXPECT_EQ(a[i]->loop.start, b[i]->loop.start);
    EXPECT_EQ(a[i]->loop.end, b[i]->loop.end);
    const float* x = a[i]->GetSamplesForRead();
    const float* y = b[i]->GetSamplesForRead();
    ASSERT_TRUE(x && y) << LastError();
    for (uint32_t k = 0; k < a[i]->length; ++k) differing += x[k] != y[k];
  }
  EXPECT_EQ(differing, 0u);  // WavPack is lossless at 16 bits
}

std::string VintageBank() { return (test::TestDataDir() / "soundfont/VintageDreamsWaves/VintageDreamsWaves-v2.sf2").string(); }

TEST(PackedSoundFont, StreamFromTheWavPackToolReadsAsTheOriginalBank) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("wavpack");
  ScratchDir dir;
  const std::vector<uint8_t> bank = test::ReadBytes(VintageBank());
  const std::vector<uint8_t> smpl = SmplOf(bank);
  ASSERT_GT(smpl.size(), 1000u);
  test::WriteBytes(dir.File("smpl.raw"), smpl);
  ASSERT_EQ(test::RunCommand("wavpack -q -y --raw-pcm=44100,16s,1,le " + dir.File("smpl.raw") + " -o " +
                             dir.File("smpl.wv") + " 2>&1"),
            0);
  const std::vector<uint8_t> stream = test::ReadBytes(dir.File("smpl.wv"));
  EXPECT_LT(stream.size(), smpl.size());
  test::WriteBytes(dir.File("packed.sf2"), PackedBank(bank, stream));

  FileObject file;
  int32_t confidence = 0;
  ASSERT_TRUE(file.Open(dir.File("packed.sf2"), FileMode::Read));
  const int32_t row = DetectFileFormat(dir.File("packed.sf2"), file, confidence);
  ASSERT_GE(row, 0);
  EXPECT_STREQ(GetFormatRow(row)->extension, "sf2pack");

  Collection original, packed;
  ASSERT_TRUE(LoadFile(original, VintageBank(), false)) << LastError();
  ASSERT_TRUE(LoadFile(packed, dir.File("packed.sf2"), false)) << LastError();
  ExpectSameBank(original, packed);
}

TEST(PackedSoundFont, OurStreamDecodesInWvunpackAndReadsBack) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("wvunpack");
  ScratchDir dir;
  const std::vector<uint8_t> bank = test::ReadBytes(VintageBank());
  const std::vector<uint8_t> smpl = SmplOf(bank);
  std::vector<float> words(smpl.size() / 2);
  for (size_t i = 0; i < words.size(); ++i) words[i] = float(int16_t(smpl[2 * i] | smpl[2 * i + 1] << 8)) / 32768.0f;
  {
    FileObject out;
    ASSERT_TRUE(out.Open(dir.File("ours.wv"), FileMode::Create));
    addons::EncodeInput input;
    input.samples = words.data();
    input.frames = uint32_t(words.size());
    ASSERT_TRUE(addons::EncodeWavPack(out, input, 16)) << LastError();
  }
  const std::vector<uint8_t> stream = test::ReadBytes(dir.File("ours.wv"));
  test::WriteBytes(dir.File("packed.sf2"), PackedBank(bank, stream));
  // The stream as it stands in the bank is what the outside decoder gets.
  test::WriteBytes(dir.File("embedded.wv"), SmplOf(test::ReadBytes(dir.File("packed.sf2"))));
  ASSERT_EQ(test::RunCommand("wvunpack -q -y --raw " + dir.File("embedded.wv") + " -o " + dir.File("back.raw") + " 2>&1"), 0);
  EXPECT_EQ(test::ReadBytes(dir.File("back.raw")), smpl);

  Collection original, packed;
  FileObject a, b;
  ASSERT_TRUE(a.Open(VintageBank(), FileMode::Read) && b.Open(dir.File("packed.sf2"), FileMode::Read));
  original.SetText(kTextSourceFile, VintageBank());
  packed.SetText(kTextSourceFile, dir.File("packed.sf2"));
  ASSERT_TRUE(ReadSoundFont(&original, &a, 0) && ReadSoundFont(&packed, &b, 0)) << LastError();
  ExpectSameBank(original, packed);
}

TEST(PackedSoundFont, MissingWavPackAddonFailsTheSampleWithItsText) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("wavpack");
  ScratchDir dir;
  const std::vector<uint8_t> bank = test::ReadBytes(VintageBank());
  test::WriteBytes(dir.File("smpl.raw"), SmplOf(bank));
  ASSERT_EQ(test::RunCommand("wavpack -q -y --raw-pcm " + dir.File("smpl.raw") + " -o " + dir.File("smpl.wv") + " 2>&1"), 0);
  test::WriteBytes(dir.File("packed.sf2"), PackedBank(bank, test::ReadBytes(dir.File("smpl.wv"))));
  // A sample past the end of the stream is not read as silence.
  Collection collection;
  collection.SetText(kTextSourceFile, dir.File("packed.sf2"));
  FileObject file;
  ASSERT_TRUE(file.Open(dir.File("packed.sf2"), FileMode::Read));
  ASSERT_TRUE(ReadSoundFont(&collection, &file, 0)) << LastError();
  auto waves = WavesOf(collection);
  ASSERT_FALSE(waves.empty());
  ASSERT_TRUE(addons::HideAddonForTest("wavpack", true));
  EXPECT_EQ(waves[0]->GetSamplesForRead(), nullptr);
  EXPECT_EQ(LastError(), addons::kWavPackMissing);
  ASSERT_TRUE(addons::HideAddonForTest("wavpack", false));
  waves[0]->sourceOffsetB = 0xFFFFFF00u;
  EXPECT_EQ(waves[0]->GetSamplesForRead(), nullptr);
  waves[0]->sourceOffsetB = 0;
  EXPECT_NE(waves[0]->GetSamplesForRead(), nullptr) << LastError();
}

// A 298-byte sfArk v2 header: "sfArk" at 26, the compression method at 31.
std::vector<uint8_t> SfArkHeader(uint8_t method) {
  std::vector<uint8_t> head(298, 0);
  std::memcpy(&head[21], "2.15 ", 5);
  std::memcpy(&head[26], "sfArk", 5);
  head[31] = method;
  std::memcpy(&head[42], "bank.sf2", 8);
  for (int i = 0; i < 200; ++i) head.push_back(uint8_t(i * 37));
  return head;
}

TEST(SfArk, HeaderRefusalsAndAFailedUnpackLeaveNoBank) {
  ScratchDir dir;
  struct Case {
    uint8_t method;
    const char* text;
  };
  // Method 5 passes the header test; its checksum does not, so the add-on (when present) fails it.
  const bool haveAddon = addons::UnpackSfArk("/nonexistent", dir.File("none.sf2")) != addons::kSfArkNotLoaded;
  const Case cases[] = {{0, "sfArk v1 files are not supported"},
                        {2, "sfArk v1 files are not supported"},
                        {9, "Unknown sfArk compression type"},
                        {5, haveAddon ? "sfArk decompression failed" : addons::kSfArkMissing}};
  for (const Case& c : cases) {
    const std::string path = dir.File("song" + std::to_string(c.method) + ".sfArk");
    test::WriteBytes(path, SfArkHeader(c.method));
    FileObject file;
    int32_t confidence = 0;
    ASSERT_TRUE(file.Open(path, FileMode::Read));
    const int32_t row = DetectFileFormat(path, file, confidence);
    ASSERT_GE(row, 0);
    EXPECT_STREQ(GetFormatRow(row)->extension, "sfark");
    Collection collection;
    EXPECT_FALSE(LoadFile(collection, path, false));
    EXPECT_EQ(LastError(), c.text) << int(c.method);
    EXPECT_FALSE(std::filesystem::exists(dir.File("song" + std::to_string(c.method) + ".sf2")));
  }
}

TEST(SfArk, MissingAddonGivesItsText) {
  ScratchDir dir;
  const std::string path = dir.File("bank.sfArk");
  test::WriteBytes(path, SfArkHeader(6));
  test::ScriptedUserInterface ui;
  test::ScopedUserInterface scope(ui);
  ASSERT_TRUE(addons::HideAddonForTest("sfark", true));
  Collection collection;
  EXPECT_FALSE(LoadFile(collection, path, false));
  EXPECT_EQ(LastError(), addons::kSfArkMissing);
  EXPECT_NE(std::find(ui.statusLines.begin(), ui.statusLines.end(), "Decompressing sfArk"), ui.statusLines.end());
  ASSERT_TRUE(addons::HideAddonForTest("sfark", false));
}

TEST(SfArk, UnpackedBankTakesTheFirstFreeNumberedName) {
  ScratchDir dir;
  const std::string archive = dir.File("Piano Set.sfArk");
  EXPECT_EQ(SfArkTargetPath(archive), dir.File("Piano Set.sf2"));
  test::WriteBytes(dir.File("Piano Set.sf2"), {1});
  EXPECT_EQ(SfArkTargetPath(archive), dir.File("Piano Set 1.sf2"));
  test::WriteBytes(dir.File("Piano Set 1.sf2"), {1});
  test::WriteBytes(dir.File("Piano Set 3.sf2"), {1});
  EXPECT_EQ(SfArkTargetPath(archive), dir.File("Piano Set 2.sf2"));
}

}  // namespace
}  // namespace orlin
