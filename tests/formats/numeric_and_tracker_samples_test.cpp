// MAT-files, text audio and single tracker instruments: what libsndfile and sox write (and decode) is
// what we read, a zlib-packed MAT-file and a two-column matrix as Octave saves them read as their
// numbers say, and a tracker's single sample or instrument reads like the same sample in its module.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "test_support.h"

namespace orlin {
namespace {

std::vector<float> SamplesOf(Waveform& wave) {
  const float* samples = wave.GetSamplesForRead();
  if (!samples) return {};
  return std::vector<float>(samples, samples + size_t(wave.length) * wave.channels);
}

std::vector<float> FloatsOf(const std::string& path) {
  const std::vector<uint8_t> bytes = test::ReadBytes(path);
  std::vector<float> out(bytes.size() / 4);
  std::memcpy(out.data(), bytes.data(), out.size() * 4);
  return out;
}

double WorstDifference(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size()) return 1e9;
  double worst = 0;
  for (size_t i = 0; i < a.size(); ++i) worst = std::max(worst, std::fabs(double(a[i]) - b[i]));
  return worst;
}

// ---- MAT-files

TEST(MatlabFiles, WhatLibsndfileWritesDecodesAsLibsndfileDecodesIt) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("sndfile-convert");
  ORLIN_REQUIRE_TOOL("sox");
  test::ScratchDir scratch;
  const std::string source = (test::TestDataDir() / "audio/generated/tone440/wav_s16.wav").string();
  // A stereo source, so that the column-major layout of two rows is checked too.
  const std::string stereo = scratch.File("stereo.wav");
  ASSERT_EQ(test::RunCommand("sox '" + source + "' -c 2 '" + stereo + "' remix 1 1v0.5"), 0);
  const struct {
    const char* name;
    const char* option;
    double tolerance;
  } cases[] = {{"pcm16.mat4", "-pcm16", 0}, {"pcm16.mat5", "-pcm16", 0}, {"pcm32.mat5", "-pcm32", 0},
               {"u8.mat5", "-pcmu8", 0},    {"float.mat4", "-float32", 1e-7}, {"double.mat5", "-float64", 1e-7}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string written = scratch.File(c.name);
    ASSERT_EQ(test::RunCommand(std::string("sndfile-convert ") + c.option + " '" + stereo + "' '" + written + "'"), 0);
    // Our row is named by ".mat"; libsndfile wants the level in the extension.
    const std::string path = written + ".mat";
    std::filesystem::rename(written, path);
    const std::string reference = scratch.File("reference.f32");
    std::filesystem::copy_file(path, written);
    // libsndfile scales integers to a float file's peak; through 32-bit PCM its decode stays exact.
    const std::string decodeAs = c.tolerance > 0 ? "-float32" : "-pcm32";
    ASSERT_EQ(test::RunCommand("sndfile-convert " + decodeAs + " '" + written + "' '" + reference + ".wav' && sox '" +
                               reference + ".wav' -t f32 '" + reference + "'"),
              0);
    std::filesystem::remove(written);
    Collection collection;
    Waveform* wave = test::LoadFirstWave(collection, path);
    ASSERT_NE(wave, nullptr) << LastError();
    EXPECT_EQ(wave->channels, 2);
    EXPECT_EQ(wave->sampleRate, 44100u);
    EXPECT_LE(WorstDifference(SamplesOf(*wave), FloatsOf(reference)), c.tolerance + 1e-9);
  }
}

// Level 5 elements built from the published layout: tag words, 8-byte padding, small elements.
struct Mat5Builder {
  std::vector<uint8_t> bytes;
  void U32(uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes.push_back(uint8_t(v >> (8 * i)));
  }
  void Pad() {
    while (bytes.size() % 8) bytes.push_back(0);
  }
  void Element(uint32_t type, const void* data, uint32_t size) {
    U32(type);
    U32(size);
    const auto* p = static_cast<const uint8_t*>(data);
    bytes.insert(bytes.end(), p, p + size);
    Pad();
  }
  // A double matrix named `name`, rows x columns, column-major values.
  static std::vector<uint8_t> Matrix(const std::string& name, uint32_t rows, uint32_t columns,
                                     const std::vector<double>& values) {
    Mat5Builder body;
    const uint32_t flags[2] = {6, 0};  // class double
    body.Element(6, flags, 8);
    const uint32_t dims[2] = {rows, columns};
    body.Element(5, dims, 8);
    body.Element(1, name.data(), uint32_t(name.size()));
    body.Element(9, values.data(), uint32_t(values.size() * 8));
    Mat5Builder matrix;
    matrix.Element(14, body.bytes.data(), uint32_t(body.bytes.size()));
    return matrix.bytes;
  }
  static std::vector<uint8_t> Head() {
    std::vector<uint8_t> head(128, ' ');
    const char text[] = "MATLAB 5.0 MAT-file, Platform: GLNXA64";
    std::memcpy(head.data(), text, sizeof(text) - 1);
    head[124] = 0x00, head[125] = 0x01, head[126] = 'I', head[127] = 'M';
    return head;
  }
};

TEST(MatlabFiles, PackedTwoColumnMatrixIsLeftThenRight) {
  test::ScratchDir scratch;
  // Octave's default: each variable zlib-packed; audio as a frames x 2 matrix, column-major.
  constexpr uint32_t kFrames = 300;
  std::vector<double> values(2 * kFrames);
  for (uint32_t i = 0; i < kFrames; ++i) {
    values[i] = 0.5 * std::sin(0.05 * i);            // left column
    values[kFrames + i] = -0.25 * std::cos(0.02 * i);  // right column
  }
  std::vector<uint8_t> file = Mat5Builder::Head();
  for (const auto& matrix : {Mat5Builder::Matrix("fs", 1, 1, {48000.0}), Mat5Builder::Matrix("y", kFrames, 2, values)}) {
    uLongf packedBytes = compressBound(uLong(matrix.size()));
    std::vector<uint8_t> packed(packedBytes);
    ASSERT_EQ(compress(packed.data(), &packedBytes, matrix.data(), uLong(matrix.size())), Z_OK);
    Mat5Builder element;
    element.U32(15);
    element.U32(uint32_t(packedBytes));
    element.bytes.insert(element.bytes.end(), packed.begin(), packed.begin() + long(packedBytes));
    file.insert(file.end(), element.bytes.begin(), element.bytes.end());
  }
  const std::string path = scratch.File("octave.mat");
  test::WriteBytes(path, file);
  Collection collection;
  Waveform* wave = test::LoadFirstWave(collection, path);
  ASSERT_NE(wave, nullptr) << LastError();
  EXPECT_EQ(wave->sampleRate, 48000u);
  ASSERT_EQ(wave->channels, 2);
  ASSERT_EQ(wave->length, kFrames);
  const std::vector<float> samples = SamplesOf(*wave);
  for (uint32_t i = 0; i < kFrames; i += 37) {
    EXPECT_NEAR(samples[2 * i], values[i], 1e-7) << i;
    EXPECT_NEAR(samples[2 * i + 1], values[kFrames + i], 1e-7) << i;
  }
  // Dropped from memory, the wave inflates again from the file.
  wave->DropData();
  EXPECT_EQ(SamplesOf(*wave), samples);
}

// ---- text audio

TEST(TextAudio, SoxDatFilesReadAsSoxReadsThem) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("sox");
  test::ScratchDir scratch;
  const std::string source = (test::TestDataDir() / "audio/generated/tone440/wav_s16.wav").string();
  const std::string dat = scratch.File("tone.dat");
  ASSERT_EQ(test::RunCommand("sox '" + source + "' -r 22050 -c 2 '" + dat + "' trim 0 0.05"), 0);
  const std::string reference = scratch.File("tone.f32");
  ASSERT_EQ(test::RunCommand("sox '" + dat + "' -t f32 '" + reference + "'"), 0);
  const std::string path = scratch.File("tone.txt");
  std::filesystem::rename(dat, path);
  Collection collection;
  Waveform* wave = test::LoadFirstWave(collection, path);
  ASSERT_NE(wave, nullptr) << LastError();
  EXPECT_EQ(wave->sampleRate, 22050u);
  EXPECT_EQ(wave->channels, 2);
  EXPECT_LE(WorstDifference(SamplesOf(*wave), FloatsOf(reference)), 1e-6);
}

TEST(TextAudio, IntegerColumnsScaleByTheirWidthAndOtherTextIsRefused) {
  test::ScratchDir scratch;
  const std::string path = scratch.File("ints.txt");
  const std::string text = "# exported from a logger\n100, -200\n32767, 0\n-32768, 5\n";
  test::WriteBytes(path, std::vector<uint8_t>(text.begin(), text.end()));
  Collection collection;
  Waveform* wave = test::LoadFirstWave(collection, path);
  ASSERT_NE(wave, nullptr) << LastError();
  EXPECT_EQ(wave->channels, 2);
  EXPECT_EQ(wave->length, 3u);
  const std::vector<float> samples = SamplesOf(*wave);
  EXPECT_FLOAT_EQ(samples[0], 100.0f / 32768);
  EXPECT_FLOAT_EQ(samples[4], -1.0f);
  const std::string prose = scratch.File("notes.txt");
  const std::string words = "Shopping list\neggs\nmilk\n";
  test::WriteBytes(prose, std::vector<uint8_t>(words.begin(), words.end()));
  Collection other;
  EXPECT_EQ(test::LoadFirstWave(other, prose), nullptr);
}

// ---- tracker instruments

TEST(TrackerInstruments, LibsndfileXiDecodesAsItsReference) {
  ORLIN_REQUIRE_TESTDATA();
  const auto path = test::TestDataDir() / "audio/generated/tone440/xi_ft2_sndfile.xi";
  Collection collection;
  Waveform* wave = test::LoadFirstWave(collection, path.string());
  ASSERT_NE(wave, nullptr) << LastError();
  EXPECT_EQ(wave->length, 22050u);
  EXPECT_LE(WorstDifference(SamplesOf(*wave), FloatsOf(path.string() + ".f32")), 1.0 / 32768);
  // The instrument maps its sample over the keyboard.
  int instruments = 0;
  for (Instrument* instrument : collection.All<Instrument>()) instruments += instrument != nullptr;
  EXPECT_EQ(instruments, 1);
}

TEST(TrackerInstruments, S3iCutFromAModuleReadsLikeTheModulesSample) {
  ORLIN_REQUIRE_TESTDATA();
  // The first sample instrument of a corpus module, saved alone as the tracker saves it: its 80-byte
  // record with the data pointer moved to just behind it, then the data.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(test::TestDataDir())) {
    if (entry.path().extension() != ".s3m") continue;
    const std::vector<uint8_t> module = test::ReadBytes(entry.path().string());
    if (module.size() < 96) continue;
    const uint32_t orders = module[0x20] | module[0x21] << 8, instruments = module[0x22] | module[0x23] << 8;
    const bool signedSamples = (module[0x2A] | module[0x2B] << 8) == 1;
    for (uint32_t i = 0; i < instruments && !signedSamples; ++i) {
      const size_t at = 96 + orders + 2 * i;
      if (at + 2 > module.size()) break;
      const size_t record = size_t(module[at] | module[at + 1] << 8) * 16;
      if (record + 80 > module.size() || module[record] != 1) continue;
      const uint32_t data = uint32_t(module[record + 13] << 16 | module[record + 14] | module[record + 15] << 8) * 16;
      const uint32_t length = module[record + 16] | module[record + 17] << 8 | module[record + 18] << 16;
      const uint32_t width = (module[record + 31] & 4) ? 2 : 1, channels = (module[record + 31] & 2) ? 2 : 1;
      const uint64_t bytes = uint64_t(length) * width * channels;
      if (length < 100 || module[record + 30] != 0 || data + bytes > module.size()) continue;
      std::vector<uint8_t> s3i(80 + size_t(bytes));
      std::memcpy(s3i.data(), module.data() + record, 80);
      std::memcpy(s3i.data() + 80, module.data() + data, size_t(bytes));
      s3i[13] = 0, s3i[14] = 5, s3i[15] = 0;  // 80 bytes = 5 paragraphs
      test::ScratchDir scratch;
      const std::string path = scratch.File("cut.s3i");
      test::WriteBytes(path, s3i);
      Collection single, whole;
      Waveform* wave = test::LoadFirstWave(single, path);
      ASSERT_NE(wave, nullptr) << LastError();
      ASSERT_TRUE(LoadFile(whole, entry.path().string(), false));
      const std::vector<float> cut = SamplesOf(*wave);
      bool matched = false;
      for (Waveform* original : whole.All<Waveform>())
        if (original->length == wave->length && SamplesOf(*original) == cut) matched = true;
      EXPECT_TRUE(matched) << entry.path();
      EXPECT_EQ(wave->loop.type != 0, (module[record + 31] & 1) != 0);
      return;
    }
  }
  GTEST_SKIP() << "no corpus module with an unsigned plain sample";
}

}  // namespace
}  // namespace orlin
