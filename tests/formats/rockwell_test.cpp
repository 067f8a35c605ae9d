// Rockwell ADPCM against the voice-modem tools of mgetty-pvftools: a test signal coded by pvftormd at
// 2, 3 and 4 bits decodes here as rmdtopvf decodes it, whether it arrives as a whole RMD file, as bare
// codes in the raw rows, or inside a RIFF WAVE under either Rockwell tag. The WAVE reader refuses
// widths and channel counts the coder does not have.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "formats/audio/codecs/codecs.h"
#include "test_support.h"

namespace orlin {
namespace {

using test::ScratchDir;

constexpr uint32_t kFrames = 4000;
constexpr uint32_t kRmdHeadBytes = 32;
// The only rate the tools code Rockwell at.
constexpr uint32_t kModemRate = 7200;
// The ±2 LSB at 16 bits that a decode may differ from the tools' by.
constexpr float kTolerance = 2.0f / 32768.0f;

struct Coded {
  std::vector<uint8_t> rmd;          // the whole file pvftormd wrote
  std::vector<int16_t> reference;    // rmdtopvf's decode of it, 16-bit
};

// Speech-like test signal: two tones, a sweep in level, and noise, as 16-bit little-endian.
std::vector<uint8_t> TestSignal(uint32_t rate) {
  test::SeededRandom random(59);
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < kFrames; ++i) {
    const double t = double(i) / rate;
    const double level = 0.2 + 0.6 * double(i) / kFrames;
    const double value = level * (0.6 * std::sin(2 * M_PI * 440 * t) + 0.3 * std::sin(2 * M_PI * 1270 * t)) +
                         random.Uniform(-0.02f, 0.02f);
    const auto sample = int16_t(std::lrint(value * 32767));
    bytes.push_back(uint8_t(sample & 0xFF));
    bytes.push_back(uint8_t(uint16_t(sample) >> 8));
  }
  return bytes;
}

// Codes the test signal with pvftormd at `bits` and decodes it back with rmdtopvf.
bool CodeWithTools(const ScratchDir& dir, uint32_t bits, Coded& out) {
  test::WriteBytes(dir.File("in.raw"), TestSignal(kModemRate));
  const std::string b = std::to_string(bits);
  const std::string command = "cd '" + dir.Path().string() + "' && lintopvf -W -S -I -s " + std::to_string(kModemRate) +
                              " in.raw in.pvf && pvftormd Rockwell " + b + " in.pvf out.rmd && rmdtopvf out.rmd " +
                              "back.pvf && pvftolin -W -S -I back.pvf back.raw";
  if (test::RunCommand(command + " 2>/dev/null") != 0) return false;
  out.rmd = test::ReadBytes(dir.File("out.rmd"));
  const std::vector<uint8_t> raw = test::ReadBytes(dir.File("back.raw"));
  out.reference.resize(raw.size() / 2);
  for (size_t i = 0; i < out.reference.size(); ++i) out.reference[i] = int16_t(raw[2 * i] | raw[2 * i + 1] << 8);
  return out.rmd.size() > kRmdHeadBytes && out.reference.size() == kFrames;
}

// Largest difference to the reference, in 16-bit steps.
float WorstDifference(const std::vector<int16_t>& reference, const float* samples, size_t count) {
  float worst = 0;
  for (size_t i = 0; i < count; ++i) worst = std::max(worst, std::fabs(samples[i] - reference[i] / 32768.0f));
  return worst;
}

void PutU16(std::vector<uint8_t>& out, uint32_t value) {
  out.push_back(uint8_t(value));
  out.push_back(uint8_t(value >> 8));
}
void PutU32(std::vector<uint8_t>& out, uint32_t value) {
  PutU16(out, value & 0xFFFF);
  PutU16(out, value >> 16);
}

// A RIFF WAVE holding `codes` under `tag` with the given width and channels.
std::vector<uint8_t> WaveOf(const std::vector<uint8_t>& codes, uint16_t tag, uint32_t bits, uint32_t channels) {
  std::vector<uint8_t> out = {'R', 'I', 'F', 'F'};
  PutU32(out, uint32_t(4 + 8 + 20 + 8 + codes.size() + (codes.size() & 1)));
  out.insert(out.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
  PutU32(out, 20);
  PutU16(out, tag);
  PutU16(out, channels);
  PutU32(out, kModemRate);
  PutU32(out, kModemRate * bits / 8);
  PutU16(out, 1);
  PutU16(out, bits);
  PutU16(out, 2);  // cbSize, then two spare bytes
  PutU16(out, 0);
  out.insert(out.end(), {'d', 'a', 't', 'a'});
  PutU32(out, uint32_t(codes.size()));
  out.insert(out.end(), codes.begin(), codes.end());
  if (codes.size() & 1) out.push_back(0);
  return out;
}

Waveform* LoadOne(Collection& collection, const std::string& path) {
  if (!LoadFile(collection, path, false)) return nullptr;
  for (Waveform* wave : collection.All<Waveform>()) return wave;
  return nullptr;
}

class RockwellWidths : public testing::TestWithParam<uint32_t> {};

TEST_P(RockwellWidths, DecodesAsTheModemToolsInEveryContainer) {
  ORLIN_REQUIRE_TOOL("pvftormd");
  ORLIN_REQUIRE_TOOL("rmdtopvf");
  const uint32_t bits = GetParam();
  ScratchDir dir;
  Coded coded;
  ASSERT_TRUE(CodeWithTools(dir, bits, coded));
  const std::vector<uint8_t> codes(coded.rmd.begin() + kRmdHeadBytes, coded.rmd.end());
  ASSERT_EQ(codes.size(), (kFrames * bits + 7) / 8);

  // The codec alone.
  codecs::CodecParams params;
  params.bitsPerSample = bits;
  std::vector<float> decoded(kFrames);
  ASSERT_EQ(codecs::DecodeRockwell(codes.data(), codes.size(), params, decoded.data(), kFrames), kFrames);
  EXPECT_LE(WorstDifference(coded.reference, decoded.data(), kFrames), kTolerance);

  // The whole RMD file through the generic row, whose own width is 4: the head's width and rate win.
  // Bare codes through the row of their width.
  test::WriteBytes(dir.File("whole.rockwell"), coded.rmd);
  test::WriteBytes(dir.File("bare.rockwell-" + std::to_string(bits)), codes);
  // The codes in WAVE under both tags.
  test::WriteBytes(dir.File("tag59.wav"), WaveOf(codes, 59, bits, 1));
  test::WriteBytes(dir.File("tag768.wav"), WaveOf(codes, 768, bits, 1));
  const std::vector<std::string> names = {"whole.rockwell", "bare.rockwell-" + std::to_string(bits), "tag59.wav",
                                         "tag768.wav"};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    Collection collection;
    Waveform* wave = LoadOne(collection, dir.File(name));
    ASSERT_NE(wave, nullptr) << LastError();
    EXPECT_EQ(wave->channels, 1u);
    EXPECT_EQ(wave->sampleRate, kModemRate);
    ASSERT_EQ(wave->length, kFrames);
    const float* samples = wave->GetSamplesForRead();
    ASSERT_NE(samples, nullptr) << LastError();
    EXPECT_LE(WorstDifference(coded.reference, samples, kFrames), kTolerance);
  }
}

INSTANTIATE_TEST_SUITE_P(Bits, RockwellWidths, testing::Values(2u, 3u, 4u));

TEST(RockwellRaw, RmdHeadGivesRateAndCutFilesDecodeWhatTheyHold) {
  ORLIN_REQUIRE_TOOL("pvftormd");
  ORLIN_REQUIRE_TOOL("rmdtopvf");
  ScratchDir dir;
  Coded coded;
  ASSERT_TRUE(CodeWithTools(dir, 3, coded));
  // The rate is the head's big-endian word at 22 (set to 8000 here), and the head's width wins over the
  // 2-bit row's.
  std::vector<uint8_t> rmd = coded.rmd;
  rmd[22] = 8000 >> 8;
  rmd[23] = 8000 & 0xFF;
  test::WriteBytes(dir.File("speed.rockwell-2"), rmd);
  {
    Collection collection;
    Waveform* wave = LoadOne(collection, dir.File("speed.rockwell-2"));
    ASSERT_NE(wave, nullptr) << LastError();
    EXPECT_EQ(wave->sampleRate, 8000u);
    ASSERT_EQ(wave->length, kFrames);
    const float* samples = wave->GetSamplesForRead();
    ASSERT_NE(samples, nullptr);
    EXPECT_LE(WorstDifference(coded.reference, samples, kFrames), kTolerance);
  }
  // A WAVE whose data chunk claims more than the file holds: what is there decodes, the rest is silent.
  std::vector<uint8_t> codes(coded.rmd.begin() + kRmdHeadBytes, coded.rmd.end());
  std::vector<uint8_t> wav = WaveOf(codes, 59, 3, 1);
  wav.resize(wav.size() - codes.size() / 2);
  test::WriteBytes(dir.File("cut.wav"), wav);
  Collection collection;
  Waveform* wave = LoadOne(collection, dir.File("cut.wav"));
  ASSERT_NE(wave, nullptr) << LastError();
  const float* samples = wave->GetSamplesForRead();
  ASSERT_NE(samples, nullptr) << LastError();
  const size_t held = (codes.size() - codes.size() / 2) * 8 / 3;
  ASSERT_GE(wave->length, held);
  EXPECT_LE(WorstDifference(coded.reference, samples, held), kTolerance);
  for (size_t i = held; i < wave->length; ++i) ASSERT_EQ(samples[i], 0.0f) << i;
}

TEST(RockwellWave, RefusesWidthsAndChannelsTheCoderLacks) {
  ScratchDir dir;
  const std::vector<uint8_t> codes(64, 0x5A);
  test::WriteBytes(dir.File("five.wav"), WaveOf(codes, 59, 5, 1));
  test::WriteBytes(dir.File("stereo.wav"), WaveOf(codes, 768, 4, 2));
  Collection five, stereo;
  EXPECT_FALSE(LoadFile(five, dir.File("five.wav"), false));
  EXPECT_EQ(LastError(), "Unsupported or invalid Rockwell ADPCM file");
  EXPECT_FALSE(LoadFile(stereo, dir.File("stereo.wav"), false));
  EXPECT_EQ(LastError(), "Can only handle mono Rockwell ADPCM format");
}

}  // namespace
}  // namespace orlin
