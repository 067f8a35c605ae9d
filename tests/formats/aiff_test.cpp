// AIFF, AIFF-C, MAUD and IFF 8SVX/16SV: outside files decode as their reference decodes, files we
// write are read by sox and libsndfile with the same shape and samples, libsndfile sees our loops
// and root keys, and loops survive WAV -> AIFF -> WAV.
#include <gtest/gtest.h>

#include <cmath>
#include <algorithm>
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "formats/audio/iff.h"
#include "formats/audio/wav.h"
#include "test_support.h"

namespace orlin {
namespace {

using test::ScratchDir;

Waveform* LoadOne(Collection& collection, const std::string& path) {
  if (!LoadFile(collection, path, false)) return nullptr;
  for (Waveform* wave : collection.All<Waveform>()) return wave;
  return nullptr;
}

std::vector<float> ReadF32(const std::string& path) {
  const std::vector<uint8_t> bytes = test::ReadBytes(path);
  std::vector<float> out(bytes.size() / 4);
  std::memcpy(out.data(), bytes.data(), out.size() * 4);
  return out;
}

double WorstDifference(const float* samples, const std::vector<float>& reference, size_t count) {
  double worst = 0;
  for (size_t i = 0; i < count; ++i) worst = std::max(worst, std::fabs(double(samples[i]) - reference[i]));
  return worst;
}

TEST(AiffCorpus, FilesDecodeAsTheirReferences) {
  ORLIN_REQUIRE_TESTDATA();
  const double lsb8 = 1.0 / 128, lsb16 = 1.0 / 32768, lsb24 = 1.0 / 8388608, lsb32 = 1.0 / 2147483648.0;
  const struct {
    const char* path;
    double tolerance;
  } cases[] = {
      {"audio/generated/sweep/aiff_s8.aiff", lsb8},          {"audio/generated/sweep/aiff_s16.aiff", lsb16},
      {"audio/generated/sweep/aiff_s24.aiff", lsb24},        {"audio/generated/sweep/aiff_s32.aiff", lsb32},
      {"audio/generated/sweep/aifc_none_s16.aifc", lsb16},   {"audio/generated/sweep/aifc_sowt_s16.aifc", lsb16},
      {"audio/generated/sweep/aifc_fl32.aifc", 0},           {"audio/generated/sweep/aifc_fl64.aifc", 1e-7},
      {"audio/generated/sweep/aifc_ulaw.aifc", lsb16},       {"audio/generated/sweep/aifc_alaw.aifc", lsb16},
      // The reference is ffmpeg's IMA decoder, which rounds its steps its own way (MANIFEST: 0.0039).
      {"audio/generated/sweep/aifc_ima4.aifc", 0.004},       {"audio/generated/tone440/aiff_dwvw16_sndfile.aiff", lsb16},
      {"audio/generated/tone440/aiff_s16.aiff", lsb16},      {"audio/generated/sweep/maud_s16.maud", lsb16},
      {"audio/generated/sweep/8svx_s8.8svx", lsb8},          {"audio/generated/tone440/8svx_s8.8svx", lsb8},
      {"audio/generated/tone440/iff_16sv_sndfile.svx", lsb16},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.path);
    const std::string path = (test::TestDataDir() / item.path).string();
    Collection collection;
    Waveform* wave = LoadOne(collection, path);
    ASSERT_NE(wave, nullptr) << LastError();
    const std::vector<float> reference = ReadF32(path + ".f32");
    ASSERT_EQ(size_t(wave->length) * wave->channels, reference.size());
    const float* samples = wave->GetSamplesForRead();
    ASSERT_NE(samples, nullptr) << LastError();
    EXPECT_LE(WorstDifference(samples, reference, reference.size()), item.tolerance);
  }
}

TEST(AiffCorpus, InstrumentChunkOfAnOutsideFile) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("sndfile-info");
  const std::string path = (test::TestDataDir() / "audio/aiff-inst-mark/DefaultPiano-100.aif").string();
  Collection collection;
  Waveform* wave = LoadOne(collection, path);
  ASSERT_NE(wave, nullptr) << LastError();
  std::string info;
  ASSERT_EQ(test::RunCommand("sndfile-info --instrument '" + path + "'", &info), 0);
  // libsndfile prints "Base note : N"; ours must agree.
  const size_t at = info.find("Base note");
  ASSERT_NE(at, std::string::npos) << info;
  EXPECT_EQ(std::stoi(info.substr(info.find(':', at) + 1)), wave->rootKey);
}

Waveform* MakeTone(Collection& collection, uint32_t frames, uint32_t channels) {
  auto* wave = new Waveform(&collection);
  wave->SetName("tone");
  wave->length = frames;
  wave->channels = uint8_t(channels);
  wave->sampleRate = 22050;
  float* samples = wave->AllocSamples();
  for (uint32_t i = 0; i < frames; ++i)
    for (uint32_t c = 0; c < channels; ++c)
      samples[i * channels + c] = 0.5f * std::sin(0.01f * float(i) * float(c + 1)) + (c ? 0.1f : 0.0f);
  return wave;
}

bool SaveAs(Waveform& wave, const std::string& path, const char* extension, uint32_t storageBit) {
  const int32_t row = FindWriteRow(extension, 1);
  if (row < 0) return false;
  FileObject file;
  if (!file.Open(path, FileMode::Create)) return false;
  SaveOptions options = DefaultSaveOptions(row);
  options.caps = (options.caps & ~kCapsStorageMask) | storageBit;
  return GetFormatRow(row)->write(&wave, &file, &options);
}

TEST(AiffWriter, OutsideToolsReadWhatWeWrite) {
  ORLIN_REQUIRE_TOOL("sox");
  ScratchDir scratch;
  for (const char* extension : {"aif", "svx"}) {
    for (uint32_t channels : {1u, 2u}) {
      SCOPED_TRACE(std::string(extension) + " " + std::to_string(channels));
      Collection collection;
      Waveform* wave = MakeTone(collection, 3001, channels);
      const std::string path = scratch.File(std::string("out.") + extension);
      // sox reads 8SVX but not 16SV, so the IFF case goes through 8 bits.
      const bool svx = std::string(extension) == "svx";
      ASSERT_TRUE(SaveAs(*wave, path, extension, 1u << (svx ? kStoragePcm8 : kStoragePcm16))) << LastError();
      const std::string raw = scratch.File("out.f32");
      const std::string type = svx ? "-t 8svx " : "";
      ASSERT_EQ(test::RunCommand("sox " + type + "'" + path + "' -t f32 -e floating-point '" + raw + "'"), 0);
      const std::vector<float> decoded = ReadF32(raw);
      ASSERT_EQ(decoded.size(), size_t(3001) * channels);
      EXPECT_LE(WorstDifference(wave->GetSamplesForRead(), decoded, decoded.size()), svx ? 1.0 / 128 : 1.0 / 32768);
      std::string info;
      ASSERT_EQ(test::RunCommand("soxi '" + path + "'", &info), 0);
      EXPECT_NE(info.find("22050"), std::string::npos) << info;
    }
  }
}

TEST(AiffWriter, LibsndfileSeesLoopAndRootKey) {
  ORLIN_REQUIRE_TOOL("sndfile-info");
  ScratchDir scratch;
  Collection collection;
  Waveform* wave = MakeTone(collection, 5000, 1);
  wave->rootKey = 57;
  wave->fineTune = -12;
  wave->loop.type = 1;
  wave->loop.start = 1000;
  wave->loop.end = 4000;
  const std::string path = scratch.File("loop.aif");
  ASSERT_TRUE(SaveAs(*wave, path, "aif", 1u << kStoragePcm24)) << LastError();
  std::string info;
  ASSERT_EQ(test::RunCommand("sndfile-info --instrument '" + path + "'", &info), 0);
  EXPECT_NE(info.find("Base note   : 57"), std::string::npos) << info;
  EXPECT_NE(info.find("Loop points : 1"), std::string::npos) << info;
  EXPECT_NE(info.find("Mode : fwd     Start :   1000   End :   4000"), std::string::npos) << info;
  // The plain dump shows the INST chunk's detune, which the instrument view leaves out.
  ASSERT_EQ(test::RunCommand("sndfile-info '" + path + "'", &info), 0);
  const size_t detune = info.find("Detune");
  ASSERT_NE(detune, std::string::npos) << info;
  // libsndfile prints the detune byte unsigned.
  EXPECT_EQ(int8_t(std::stoi(info.substr(info.find(':', detune) + 1))), -12) << info;
}

TEST(AiffWriter, WaveLoopSurvivesAiffAndBack) {
  ScratchDir scratch;
  Collection collection;
  Waveform* wave = MakeTone(collection, 5000, 2);
  // +23 cents: the smpl chunk holds it as 69 and -77, which AIFF's +-50 detune must fold back.
  wave->rootKey = 70;
  wave->fineTune = 23;
  wave->loop.type = 3;
  wave->loop.start = 123;
  wave->loop.end = 4567;
  Marker release;
  release.section = 1;
  release.start = 200;
  release.end = 300;
  release.name = "ReleaseLoop";
  wave->markers.push_back(release);
  ASSERT_TRUE(SaveAs(*wave, scratch.File("a.wav"), "wav", 1u << kStoragePcm16)) << LastError();
  Collection fromWav;
  Waveform* first = LoadOne(fromWav, scratch.File("a.wav"));
  ASSERT_NE(first, nullptr);
  ASSERT_TRUE(SaveAs(*first, scratch.File("b.aif"), "aif", 1u << kStoragePcm16)) << LastError();
  Collection fromAiff;
  Waveform* second = LoadOne(fromAiff, scratch.File("b.aif"));
  ASSERT_NE(second, nullptr) << LastError();
  EXPECT_EQ(second->rootKey, 70);
  EXPECT_EQ(second->fineTune, 23);
  EXPECT_EQ(second->loop.type, 3);
  EXPECT_EQ(second->loop.start, 123.0f);
  EXPECT_EQ(second->loop.end, 4567.0f);
  ASSERT_TRUE(SaveAs(*second, scratch.File("c.wav"), "wav", 1u << kStoragePcm16)) << LastError();
  Collection back;
  Waveform* third = LoadOne(back, scratch.File("c.wav"));
  ASSERT_NE(third, nullptr);
  // The same pitch: 70 and +23 cents, or 69 and -77 as the smpl chunk must store it.
  EXPECT_EQ(third->rootKey * 100 - third->fineTune, 70 * 100 - 23);
  EXPECT_EQ(third->loop.start, 123.0f);
  EXPECT_EQ(third->loop.end, 4567.0f);
  // The release loop travels as its own INST loop and comes back as the section marker.
  bool haveRelease = false;
  for (const Marker& marker : second->markers)
    if (marker.name == "ReleaseLoop" && marker.start == 200 && marker.end == 300) haveRelease = true;
  EXPECT_TRUE(haveRelease);
  // The loop through 8SVX: the repeat part behind the one-shot part.
  wave->loop.type = 1;
  ASSERT_TRUE(SaveAs(*wave, scratch.File("d.svx"), "svx", 1u << kStoragePcm16)) << LastError();
  Collection fromSvx;
  Waveform* svx = LoadOne(fromSvx, scratch.File("d.svx"));
  ASSERT_NE(svx, nullptr) << LastError();
  EXPECT_EQ(svx->loop.start, 123.0f);
  EXPECT_EQ(svx->loop.end, 4567.0f);
  EXPECT_EQ(svx->channels, 2);
}

// A minimal AIFC image: COMM of `type`, a MARK with markers 1 and 2, optional INST, SSND.
std::vector<uint8_t> BuildAifc(const char* type, bool inst, uint16_t sustainBegin, uint16_t sustainEnd) {
  std::vector<uint8_t> out;
  auto be16 = [&](uint32_t v) { out.push_back(uint8_t(v >> 8)); out.push_back(uint8_t(v)); };
  auto be32 = [&](uint32_t v) { be16(v >> 16); be16(v & 0xFFFF); };
  auto id = [&](const char* text) {
    for (int k = 0; k < 4; ++k) out.push_back(uint8_t(text[k]));
  };
  id("FORM");
  be32(0);
  id("AIFC");
  id("COMM");
  be32(24);
  be16(1);
  be32(4);
  be16(16);
  const uint8_t rate[10] = {0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0};
  for (uint8_t byte : rate) out.push_back(byte);
  id(type);
  be16(0);  // empty name, padded
  id("MARK");
  be32(2 + 2 * 8);
  be16(2);
  be16(1), be32(1), be16(0);
  be16(2), be32(3), be16(0);
  if (inst) {
    id("INST");
    be32(20);
    out.push_back(64), out.push_back(0), out.push_back(0), out.push_back(127);
    out.push_back(1), out.push_back(127);
    be16(0);
    be16(1), be16(sustainBegin), be16(sustainEnd);
    be16(0), be16(0), be16(0);
  }
  id("SSND");
  be32(8 + 8);
  be32(0), be32(0);
  const uint8_t samples[8] = {0x00, 0x40, 0x00, 0x20, 0xFF, 0xBF, 0x00, 0x01};
  for (uint8_t byte : samples) out.push_back(byte);
  const uint32_t size = uint32_t(out.size() - 8);
  out[4] = uint8_t(size >> 24), out[5] = uint8_t(size >> 16), out[6] = uint8_t(size >> 8), out[7] = uint8_t(size);
  return out;
}

TEST(AiffReader, EdgeCases) {
  ScratchDir scratch;
  {
    // sowt is little-endian: the bytes 00 40 read as 0x4000, not 0x0040.
    test::WriteBytes(scratch.File("le.aifc"), BuildAifc("sowt", true, 1, 2));
    Collection collection;
    Waveform* wave = LoadOne(collection, scratch.File("le.aifc"));
    ASSERT_NE(wave, nullptr) << LastError();
    EXPECT_FLOAT_EQ(wave->GetSamplesForRead()[0], 0.5f);
    EXPECT_EQ(wave->rootKey, 64);
    EXPECT_EQ(wave->loop.type, 1);
    EXPECT_EQ(wave->loop.start, 1.0f);
    EXPECT_EQ(wave->loop.end, 3.0f);
    EXPECT_TRUE(wave->markers.empty());  // the loop's markers are not also plain markers
  }
  {
    // A sustain loop whose marker ids are absent gives no loop; the markers stay markers.
    test::WriteBytes(scratch.File("absent.aifc"), BuildAifc("NONE", true, 7, 9));
    Collection collection;
    Waveform* wave = LoadOne(collection, scratch.File("absent.aifc"));
    ASSERT_NE(wave, nullptr) << LastError();
    EXPECT_FLOAT_EQ(wave->GetSamplesForRead()[0], 64.0f / 32768);
    EXPECT_EQ(wave->loop.type, 0);
    EXPECT_EQ(wave->markers.size(), 2u);
  }
  {
    test::WriteBytes(scratch.File("odd.aifc"), BuildAifc("QDMC", false, 0, 0));
    Collection collection;
    EXPECT_EQ(LoadOne(collection, scratch.File("odd.aifc")), nullptr);
    EXPECT_EQ(LastError(), "Unsupported compression type: QDMC");
  }
  {
    // Root 60, fine tune 0 and no loop: no INST is written.
    static const char kInst[] = "INST";
    Collection collection;
    Waveform* wave = MakeTone(collection, 100, 1);
    std::vector<uint8_t> image;
    ASSERT_TRUE(WriteAiffToMemory(*wave, image, 0x00300004));
    EXPECT_EQ(std::search(image.begin(), image.end(), kInst, kInst + 4), image.end());
    wave->rootKey = 61;
    ASSERT_TRUE(WriteAiffToMemory(*wave, image, 0x00300004));
    EXPECT_NE(std::search(image.begin(), image.end(), kInst, kInst + 4), image.end());
  }
  {
    std::vector<uint8_t> form = BuildAifc("NONE", false, 0, 0);
    std::memcpy(form.data() + 8, "WAVE", 4);
    test::WriteBytes(scratch.File("wrong.aif"), form);
    Collection collection;
    FileObject file;
    ASSERT_TRUE(file.Open(scratch.File("wrong.aif"), FileMode::Read));
    EXPECT_FALSE(ReadAiff(&collection, &file, 0));
    EXPECT_EQ(LastError(), "Not an AIFF, AIFC, MAUD type IFF-FORM");
  }
}

TEST(AiffReader, ExtendedRateRoundTrips) {
  for (double rate : {8000.0, 11025.0, 22050.0, 44100.0, 48000.0, 96000.0, 192000.0, 1.0}) {
    uint8_t bytes[10];
    WriteExtended(rate, bytes);
    EXPECT_EQ(ReadExtended(bytes), rate);
  }
}

}  // namespace
}  // namespace orlin
