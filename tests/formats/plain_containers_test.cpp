// The old plain-audio containers: outside files decode as their reference decodes, the au we write is
// read by sox and libsndfile with the same shape and samples, and VOC's repeat blocks become the loop.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "test_support.h"

namespace orlin {
namespace {

std::vector<float> FloatsOf(const std::string& path) {
  const std::vector<uint8_t> bytes = test::ReadBytes(path);
  std::vector<float> out(bytes.size() / 4);
  std::memcpy(out.data(), bytes.data(), out.size() * 4);
  return out;
}

TEST(PlainContainersCorpus, FilesDecodeAsTheirReferences) {
  ORLIN_REQUIRE_TESTDATA();
  const double lsb8 = 1.0 / 128, lsb16 = 1.0 / 32768, lsb24 = 1.0 / 8388608, lsb32 = 1.0 / 2147483648.0;
  const struct {
    const char* path;
    double tolerance;
    size_t compared;  // samples to compare; 0 all
  } cases[] = {
      {"audio/generated/sweep/au_s8.au", lsb8, 0},        {"audio/generated/sweep/au_s16.au", lsb16, 0},
      {"audio/generated/sweep/au_s24.au", lsb24, 0},      {"audio/generated/sweep/au_s32.au", lsb32, 0},
      {"audio/generated/sweep/au_f32.au", 0, 0},          {"audio/generated/sweep/au_f64.au", 1e-7, 0},
      {"audio/generated/sweep/au_ulaw.au", lsb16, 0},     {"audio/generated/sweep/au_alaw.au", lsb16, 0},
      {"audio/generated/dtmf8k/au_ulaw.au", lsb16, 0},    {"audio/generated/sweep/avr_s16.avr", lsb16, 0},
      {"audio/generated/tone440/avr_s8.avr", lsb8, 0},    {"audio/generated/sweep/nist_s16.sph", lsb16, 0},
      {"audio/generated/sweep/ircam_f32.sf", 0, 0},      {"audio/generated/tone440/smp_samplevision.smp", lsb16, 0},
      {"audio/generated/dtmf8k/wve_psion_alaw.wve", lsb16, 0}, {"audio/generated/sweep/voc_u8.voc", lsb8, 0},
      {"audio/generated/sweep/voc_u8_ffmpeg.voc", lsb8, 0}, {"audio/generated/dtmf8k/voc_u8.voc", lsb8, 0},
      {"audio/generated/sweep/voc_s16.voc", lsb16, 0},     {"audio/generated/sweep/paf_s24_sndfile.paf", lsb24, 0},   {"audio/generated/tone440/voc_s16.voc", lsb16, 0},
      // libsndfile leaves the last, partly filled packet out of its decode, which is the reference.
      {"audio/generated/tone440/sds_midi_sds_sndfile.sds", lsb16, 22040},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.path);
    const std::string path = (test::TestDataDir() / item.path).string();
    Collection collection;
    Waveform* wave = test::LoadFirstWave(collection, path);
    ASSERT_NE(wave, nullptr) << LastError();
    const std::vector<float> reference = FloatsOf(path + ".f32");
    ASSERT_EQ(size_t(wave->length) * wave->channels, reference.size());
    const float* samples = wave->GetSamplesForRead();
    ASSERT_NE(samples, nullptr) << LastError();
    double worst = 0;
    const size_t compared = item.compared ? item.compared : reference.size();
    for (size_t i = 0; i < compared; ++i) worst = std::max(worst, std::fabs(double(samples[i]) - reference[i]));
    EXPECT_LE(worst, item.tolerance);
  }
}

TEST(PlainContainersWriter, OutsideToolsReadOurAu) {
  ORLIN_REQUIRE_TOOL("sox");
  test::ScratchDir scratch;
  const struct {
    uint32_t storage;
    double tolerance;
  } kinds[] = {{kStoragePcm16, 1.0 / 32768}, {kStoragePcm24, 1.0 / 8388608}, {kStorageFloat32, 1e-7},
               {kStorageMuLaw, 0.03}, {kStorageALaw, 0.03}, {kStoragePcm8, 1.0 / 128}};
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.storage);
    Collection collection;
    auto* wave = new Waveform(&collection);
    wave->length = 2000;
    wave->channels = 2;
    wave->sampleRate = 11025;
    float* samples = wave->AllocSamples();
    for (uint32_t i = 0; i < 4000; ++i) samples[i] = 0.6f * std::sin(0.003f * float(i * (i % 2 + 1)));
    const int32_t row = FindWriteRow("au", 1);
    ASSERT_GE(row, 0);
    SaveOptions options = DefaultSaveOptions(row);
    options.caps = (options.caps & ~kCapsStorageMask) | (1u << kind.storage);
    const std::string path = scratch.File("out.au");
    {
      FileObject file;
      ASSERT_TRUE(file.Open(path, FileMode::Create));
      ASSERT_TRUE(GetFormatRow(row)->write(wave, &file, &options)) << LastError();
    }
    const std::string raw = scratch.File("out.f32");
    const std::string command = "sox '" + path + "' -t f32 -e floating-point '" + raw + "'";
    ASSERT_EQ(test::RunCommand(command), 0);
    const std::vector<float> decoded = FloatsOf(raw);
    ASSERT_EQ(decoded.size(), 4000u);
    double worst = 0;
    for (size_t i = 0; i < decoded.size(); ++i) worst = std::max(worst, std::fabs(double(samples[i]) - decoded[i]));
    EXPECT_LE(worst, kind.tolerance);
    if (test::HaveTool("sndfile-info")) {
      std::string info;
      ASSERT_EQ(test::RunCommand("sndfile-info '" + path + "'", &info), 0);
      EXPECT_NE(info.find("Frames      : 2000"), std::string::npos) << info;
      EXPECT_NE(info.find("Sample Rate : 11025"), std::string::npos) << info;
    }
  }
}

TEST(PlainContainersReader, VocRepeatBlocksBecomeTheLoop) {
  // Head, an 8-bit block of 4 samples, repeat start, 6 samples, repeat end, 2 samples, terminator.
  std::vector<uint8_t> voc = {'C', 'r', 'e', 'a', 't', 'i', 'v', 'e', ' ', 'V', 'o', 'i', 'c', 'e', ' ',
                              'F', 'i', 'l', 'e', 0x1A, 26, 0, 0x0A, 0x01, 0x29, 0x11};
  auto block = [&](uint8_t type, std::vector<uint8_t> body) {
    voc.push_back(type);
    voc.push_back(uint8_t(body.size())), voc.push_back(0), voc.push_back(0);
    voc.insert(voc.end(), body.begin(), body.end());
  };
  block(1, {256 - 125, 0, 0x80, 0x90, 0xA0, 0xB0});  // 8000 Hz
  block(6, {0xFF, 0xFF});
  block(2, {0x80, 0x70, 0x60, 0x50, 0x40, 0x30});
  block(7, {});
  block(4, {1, 0});
  block(2, {0x80, 0x80});
  voc.push_back(0);
  test::ScratchDir scratch;
  test::WriteBytes(scratch.File("loop.voc"), voc);
  Collection collection;
  Waveform* wave = test::LoadFirstWave(collection, scratch.File("loop.voc"));
  ASSERT_NE(wave, nullptr) << LastError();
  EXPECT_EQ(wave->sampleRate, 8000u);
  EXPECT_EQ(wave->length, 12u);
  EXPECT_EQ(wave->loop.type, 1);
  EXPECT_EQ(wave->loop.start, 4.0f);
  EXPECT_EQ(wave->loop.end, 10.0f);
  ASSERT_EQ(wave->markers.size(), 1u);
  EXPECT_EQ(wave->markers[0].start, 10u);
  const float* samples = wave->GetSamplesForRead();
  ASSERT_NE(samples, nullptr) << LastError();
  EXPECT_FLOAT_EQ(samples[5], -0x10 / 128.0f);  // 0x70 in the second block, across the block edge
}

}  // namespace
}  // namespace orlin
