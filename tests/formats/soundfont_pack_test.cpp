// Packed SoundFont banks: an outside bank whose smpl chunk is re-encoded as one WavPack stream (by
// the wavpack tool, and by our encoder, whose stream wvunpack must decode) reads back to the same
// samples and zones; sfArk archives are refused or unpacked as the add-on and header allow, and an
// archive from our own small packer unpacks through the real library to the original bank.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

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

// A test-only sfArk v2 packer, so that a real unpack by libsfark can be checked; no packer exists
// for Linux. An archive is a header, then one bit stream:
//  - header (little-endian): flags 0, original size 4, archive size 8, content check 12, header
//    check 16 (Adler-32 from 0 over the header with this field zeroed), version needed 20, creator
//    version text 21, "sfArk" 26, method 31, file type 32, audio start 34, audio end 38, and the
//    original file name with its NUL at 42, which ends the header;
//  - the bank's bytes before the smpl data, in runs of a 32-bit length and a zlib stream;
//  - the smpl data in blocks of 4096 words (method 4, "Turbo"): the number of difference passes,
//    then per window of 256 words a width code (14: sixteen raw bits a word);
//  - the bytes after the smpl data, in zlib runs as before.
// The content check is Adler-32 from 0 over the zlib runs' bytes; with no difference passes the
// audio adds nothing to it. Our runs are zlib streams of stored blocks: nothing here compresses.
// Bits go out most significant first, sixteen to a little-endian word, as the unpacker reads them.
class SfArkBits {
 public:
  void Put(uint32_t value, int count) {
    for (int bit = count - 1; bit >= 0; --bit) PutBit((value >> bit) & 1);
  }
  // A change from the previous value: that many zeros, a one, then the sign if it moved.
  void PutDelta(int delta) {
    for (int i = 0; i < std::abs(delta); ++i) PutBit(0);
    PutBit(1);
    if (delta != 0) PutBit(delta < 0);
  }
  void PutBytes(const uint8_t* bytes, size_t count) {
    for (size_t i = 0; i < count; ++i) Put(bytes[i], 8);
  }
  std::vector<uint8_t> Finish() {
    while (used_ != 0) PutBit(0);
    // The reader fetches a word ahead; two spare words keep it from running off the end.
    for (int i = 0; i < 2; ++i) words_.push_back(0);
    std::vector<uint8_t> out;
    for (uint16_t word : words_) out.insert(out.end(), {uint8_t(word), uint8_t(word >> 8)});
    return out;
  }

 private:
  void PutBit(uint32_t bit) {
    word_ = uint16_t(word_ << 1 | bit);
    if (++used_ == 16) {
      words_.push_back(word_);
      word_ = 0;
      used_ = 0;
    }
  }
  std::vector<uint16_t> words_;
  uint16_t word_ = 0;
  int used_ = 0;
};

uint32_t Adler32(uint32_t seed, const uint8_t* bytes, size_t count) {
  uint32_t low = seed & 0xffff, high = seed >> 16;
  for (size_t i = 0; i < count; ++i) {
    low = (low + bytes[i]) % 65521;
    high = (high + low) % 65521;
  }
  return high << 16 | low;
}

void SetLe32(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = uint8_t(value >> (8 * i));
}

// Bytes outside the sample data: zlib streams of one stored deflate block each, behind their length.
void PutStoredRun(SfArkBits& bits, uint32_t& check, const uint8_t* bytes, size_t count) {
  constexpr size_t kRun = 60000;  // under both the 64 KiB stored-block and the 256 KiB unpack limits
  for (size_t at = 0; at < count; at += kRun) {
    const uint16_t length = uint16_t(std::min(kRun, count - at));
    std::vector<uint8_t> stream = {0x78, 0x01, 0x01, uint8_t(length), uint8_t(length >> 8),
                                   uint8_t(~length), uint8_t(~length >> 8)};
    stream.insert(stream.end(), bytes + at, bytes + at + length);
    const uint32_t adler = Adler32(1, bytes + at, length);
    for (int shift = 24; shift >= 0; shift -= 8) stream.push_back(uint8_t(adler >> shift));
    uint8_t size[4];
    SetLe32(size, uint32_t(stream.size()));
    bits.PutBytes(size, 4);
    bits.PutBytes(stream.data(), stream.size());
    check = Adler32(check, bytes + at, length);
  }
}

// The smpl chunk's data: where the archive's audio section begins and ends.
bool FindSampleData(const std::vector<uint8_t>& sf2, uint32_t* begin, uint32_t* end) {
  auto le32 = [&](size_t at) { return Le32(&sf2[at]); };
  for (size_t at = 12; at + 12 <= sf2.size(); at += 8 + ((le32(at + 4) + 1) & ~1u)) {
    if (std::memcmp(&sf2[at], "LIST", 4) != 0 || std::memcmp(&sf2[at + 8], "sdta", 4) != 0) continue;
    const size_t listEnd = std::min(sf2.size(), at + 8 + le32(at + 4));
    for (size_t sub = at + 12; sub + 8 <= listEnd; sub += 8 + ((le32(sub + 4) + 1) & ~1u))
      if (std::memcmp(&sf2[sub], "smpl", 4) == 0 && sub + 8 + le32(sub + 4) <= sf2.size()) {
        *begin = uint32_t(sub + 8);
        *end = *begin + le32(sub + 4);
        return *end > *begin;
      }
  }
  return false;
}

std::vector<uint8_t> PackSfArk(const std::vector<uint8_t>& sf2, const std::string& name) {
  uint32_t audioStart = 0, audioEnd = 0;
  if (!FindSampleData(sf2, &audioStart, &audioEnd)) return {};
  SfArkBits bits;
  uint32_t check = 0;
  PutStoredRun(bits, check, sf2.data(), audioStart);
  // Turbo blocks of 4096 words with no differencing; every 256-word window stored raw (window
  // code 14, sent as a change from the previous window's code, which starts at 8).
  int windowCode = 8;
  for (uint32_t at = audioStart; at < audioEnd; at += 8192) {
    const uint32_t words = std::min<uint32_t>(4096, (audioEnd - at) / 2);
    bits.PutDelta(0);  // no difference passes; the check then covers only the bytes around the audio
    for (uint32_t word = 0; word < words; ++word) {
      if (word % 256 == 0) {
        bits.PutDelta(14 - windowCode);
        windowCode = 14;
      }
      bits.Put(uint32_t(sf2[at + 2 * word] | sf2[at + 2 * word + 1] << 8), 16);
    }
  }
  PutStoredRun(bits, check, sf2.data() + audioEnd, sf2.size() - audioEnd);
  const std::vector<uint8_t> body = bits.Finish();

  std::vector<uint8_t> out(42 + name.size() + 1, 0);
  SetLe32(&out[4], uint32_t(sf2.size()));
  SetLe32(&out[8], uint32_t(out.size() + body.size()));
  SetLe32(&out[12], check);
  out[20] = 20;  // unpacker version 2.0 or later
  std::memcpy(&out[21], " 2.00sfArk", 10);
  out[31] = 4;   // Turbo
  SetLe32(&out[34], audioStart);
  SetLe32(&out[38], audioEnd);
  std::memcpy(&out[42], name.data(), name.size());
  SetLe32(&out[16], Adler32(0, out.data(), out.size()));
  out.insert(out.end(), body.begin(), body.end());
  return out;
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

TEST(SfArk, PackedBankUnpacksBesideTheArchiveAsTheOriginal) {
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  if (addons::UnpackSfArk("/nonexistent", dir.File("none.sf2")) == addons::kSfArkNotLoaded)
    GTEST_SKIP() << "libsfark is not installed";
  // A small bank, and one whose audio spans many blocks and ends in a short one.
  for (const char* name : {"fluidsynth-testdata/1496.sf2", "sbk/Uplift.sf2"}) {
    SCOPED_TRACE(name);
    const std::filesystem::path original = test::TestDataDir() / "soundfont" / name;
    const std::vector<uint8_t> bank = test::ReadBytes(original.string());
    const std::vector<uint8_t> archive = PackSfArk(bank, original.filename().string());
    ASSERT_FALSE(archive.empty());
    const std::string stem = original.stem().string();
    const std::string path = dir.File(stem + ".sfArk");
    test::WriteBytes(path, archive);
    Collection direct;
    ASSERT_TRUE(LoadFile(direct, original.string(), false)) << LastError();
    // A second open finds the first unpacked bank in the way and takes the next name.
    for (const std::string& unpacked : {dir.File(stem + ".sf2"), dir.File(stem + " 1.sf2")}) {
      Collection collection;
      ASSERT_TRUE(LoadFile(collection, path, false)) << LastError();
      ASSERT_TRUE(std::filesystem::exists(unpacked)) << unpacked;
      EXPECT_TRUE(test::ReadBytes(unpacked) == bank) << unpacked;
      ExpectSameBank(direct, collection);
      for (Waveform* wave : WavesOf(collection)) EXPECT_EQ(wave->GetText(kTextSourceFile), unpacked);
    }
  }
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
