// RIFF WAVE and Wave-64: outside files decode as their reference decodes, files we write are read by
// sox and ffprobe, loops, markers and tuning survive both containers, and the chunk quirks that bit
// real readers (fact past the data, inst after smpl, cue loop labels, many channels, odd pads).
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "formats/audio/w64.h"
#include "formats/audio/wav.h"
#include "formats/common/byte_reader.h"
#include "formats/common/riff.h"
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

struct CorpusCase {
  const char* path;
  double tolerance;  // one step of the file's depth; 0 for floats
};

TEST(WavCorpus, PlainFilesDecodeAsTheirReferences) {
  ORLIN_REQUIRE_TESTDATA();
  const double lsb8 = 1.0 / 128, lsb16 = 1.0 / 32768, lsb24 = 1.0 / 8388608, lsb32 = 1.0 / 2147483648.0;
  const CorpusCase cases[] = {
      {"audio/generated/sweep/wav_s16.wav", lsb16},          {"audio/generated/sweep/wav_s24.wav", lsb24},
      {"audio/generated/sweep/wav_s24_extensible.wav", lsb24}, {"audio/generated/sweep/wav_s32.wav", lsb32},
      {"audio/generated/sweep/wav_u8.wav", lsb8},            {"audio/generated/sweep/wav_f32.wav", 0},
      {"audio/generated/sweep/wav_f64.wav", 1e-7},           {"audio/generated/sweep/wav_alaw.wav", lsb16},
      {"audio/generated/sweep/wav_ulaw.wav", lsb16},         {"audio/generated/sweep/wavex_s16_sndfile.wav", lsb16},
      {"audio/generated/sweep/rf64_s16.wav", lsb16},         {"audio/generated/sweep/wav_s16_bext.wav", lsb16},
      {"audio/generated/sweep/wav_s16_listinfo.wav", lsb16}, {"audio/generated/sweep/w64_s16.w64", lsb16},
      {"audio/generated/sweep/w64_f32_ffmpeg.w64", 0},       {"audio/generated/tone440/wav_s16_smpl_loop.wav", lsb16},
      {"audio/generated/dtmf8k/wav_s16.wav", lsb16},         {"audio/generated/dtmf8k/wav_u8.wav", lsb8},
      {"audio/generated/dtmf8k/wav_alaw.wav", lsb16},        {"audio/generated/dtmf8k/wav_ulaw.wav", lsb16},
      {"audio/generated/dtmf8k/master_f32.wav", 0},          {"audio/real/blip.wav", lsb16},
      {"audio/real/blip8.wav", lsb8},                        {"audio/real/dead.wav", lsb16},
      {"audio/real/door_pass.wav", lsb16},                   {"audio/real/ratom.wav", lsb8},
      {"audio/real/rraquette.wav", lsb8},                    {"audio/real/send.wav", lsb16},
  };
  for (const CorpusCase& item : cases) {
    SCOPED_TRACE(item.path);
    const std::string path = (test::TestDataDir() / item.path).string();
    Collection collection;
    Waveform* wave = LoadOne(collection, path);
    ASSERT_NE(wave, nullptr) << LastError();
    const std::vector<float> reference = ReadF32(path + ".f32");
    ASSERT_EQ(size_t(wave->length) * wave->channels, reference.size());
    const float* samples = wave->GetSamplesForRead();
    ASSERT_NE(samples, nullptr) << LastError();
    double worst = 0;
    for (size_t i = 0; i < reference.size(); ++i) worst = std::max(worst, std::fabs(double(samples[i]) - reference[i]));
    EXPECT_LE(worst, item.tolerance);
  }
}

TEST(WavCorpus, MetadataOfOutsideFiles) {
  ORLIN_REQUIRE_TESTDATA();
  Collection a;
  Waveform* looped = LoadOne(a, (test::TestDataDir() / "audio/generated/tone440/wav_s16_smpl_loop.wav").string());
  ASSERT_NE(looped, nullptr);
  EXPECT_EQ(looped->rootKey, 69);
  EXPECT_EQ(looped->loop.type, 1);
  EXPECT_EQ(looped->loop.start, 4410.0f);
  Collection b;
  Waveform* info = LoadOne(b, (test::TestDataDir() / "audio/generated/sweep/wav_s16_listinfo.wav").string());
  ASSERT_NE(info, nullptr);
  EXPECT_FALSE(info->GetText(kTextArtist).empty());
  EXPECT_FALSE(info->GetText(kTextComments).empty());
  // A chunk of unknown kind ahead of data, and a loop that ends at the last frame.
  Collection c;
  Waveform* flute = LoadOne(c, (test::TestDataDir() / "sfz/sfizz-TestFiles/looped_flute.wav").string());
  ASSERT_NE(flute, nullptr);
  EXPECT_EQ(flute->loop.start, 77554.0f);
  EXPECT_EQ(flute->loop.end, 186582.0f);
  Collection d;
  EXPECT_NE(LoadOne(d, (test::TestDataDir() / "sfz/sfizz-TestFiles/wavetables/surge.wav").string()), nullptr);
}

// The best correlation of `ours` against `reference` over lags of up to `maxLag` frames either way:
// MPEG decoders differ in how much of the encoder's delay they keep.
double BestAlignedCorrelation(const float* ours, size_t ourFrames, const std::vector<float>& reference,
                              uint32_t channels, int maxLag) {
  const size_t referenceFrames = reference.size() / channels;
  double best = -1.0;
  for (int lag = -maxLag; lag <= maxLag; ++lag) {
    double sumXY = 0, sumXX = 0, sumYY = 0;
    for (size_t frame = 0; frame < ourFrames; ++frame) {
      const int64_t at = int64_t(frame) + lag;
      if (at < 0 || size_t(at) >= referenceFrames) continue;
      for (uint32_t c = 0; c < channels; ++c) {
        const double x = ours[frame * channels + c], y = reference[size_t(at) * channels + c];
        sumXY += x * y, sumXX += x * x, sumYY += y * y;
      }
    }
    if (sumXX > 0 && sumYY > 0) best = std::max(best, sumXY / std::sqrt(sumXX * sumYY));
  }
  return best;
}

TEST(WavCorpus, Mp3InsideWaveDecodesLikeFfmpeg) {
  ORLIN_REQUIRE_TESTDATA();
  const std::string path = (test::TestDataDir() / "audio/generated/sweep/wav_mp3_in_riff.wav").string();
  Collection collection;
  Waveform* wave = LoadOne(collection, path);
  ASSERT_NE(wave, nullptr) << LastError();
  EXPECT_EQ(wave->bits, 1);
  const float* samples = wave->GetSamplesForRead();
  ASSERT_NE(samples, nullptr) << LastError();
  EXPECT_EQ(wave->channels, 2);
  EXPECT_LE(wave->length, 23155u) << "never more than the fact count";
  EXPECT_GT(wave->length, 22000u);
  const auto bytes = test::ReadBytes(path + ".f32");
  std::vector<float> reference(bytes.size() / 4);
  std::memcpy(reference.data(), bytes.data(), reference.size() * 4);
  EXPECT_GT(BestAlignedCorrelation(samples, wave->length, reference, 2, 1200), 0.999);
}

TEST(WavWriter, Mp3InsideWaveIsReadByFfmpeg) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("ffprobe");
  test::ScratchDir dir;
  const std::string source = (test::TestDataDir() / "audio/generated/sweep/master_f32.wav").string();
  const std::string out = dir.File("mp3.wav");
  std::string output;
  ASSERT_EQ(test::RunCommand(test::OrlinProgram() + " convert '" + source + "' --to wav --data-format 'MP3 CBR 96 kbit/s' -o " +
                             out + " 2>&1", &output), 0) << output;
  output.clear();
  test::RunCommand("ffprobe -v error -show_entries stream=codec_name,sample_rate,channels -of csv=p=0 " + out, &output);
  EXPECT_EQ(output, "mp3,44100,2\n") << "the rate of the wave, whatever the bit rate";
  Collection original, written;
  Waveform* before = LoadOne(original, source);
  Waveform* after = LoadOne(written, out);
  ASSERT_NE(before, nullptr);
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(after->dataFormat, 12) << "96 kbit/s";
  const float* ours = after->GetSamplesForRead();
  ASSERT_NE(ours, nullptr) << LastError();
  const float* input = before->GetSamplesForRead();
  std::vector<float> reference(input, input + size_t(before->length) * before->channels);
  EXPECT_GT(BestAlignedCorrelation(ours, after->length, reference, before->channels, 2400), 0.99);
}

// --- hand-made files --------------------------------------------------------------------------------

struct WaveBuilder {
  RiffWriter riff;
  WaveBuilder() { riff.Begin(FourCC("RIFF"), FourCC("WAVE")); }
  void Fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
    ByteWriter w;
    w.U16(tag);
    w.U16(channels);
    w.U32(rate);
    w.U32(rate * channels * bits / 8);
    w.U16(uint16_t(channels * bits / 8));
    w.U16(bits);
    Add("fmt ", w);
  }
  void Add(const char (&id)[5], const ByteWriter& body) { riff.Chunk(FourCC(id), body.Bytes().data(), body.Size()); }
  void Data(const std::vector<uint8_t>& bytes) { riff.Chunk(FourCC("data"), bytes.data(), bytes.size()); }
  std::string Save(const ScratchDir& dir, const std::string& name) {
    const std::string path = dir.File(name);
    test::WriteBytes(path, riff.Bytes());
    return path;
  }
};

std::vector<uint8_t> Pcm16(const std::vector<int16_t>& values) {
  std::vector<uint8_t> out;
  for (int16_t v : values) {
    out.push_back(uint8_t(v));
    out.push_back(uint8_t(uint16_t(v) >> 8));
  }
  return out;
}

ByteWriter SmplBody(uint32_t note, uint32_t fraction, bool loop, uint32_t start, uint32_t endInclusive) {
  ByteWriter w;
  for (uint32_t v : {0u, 0u, 22676u, note, fraction, 0u, 0u, loop ? 1u : 0u, 0u}) w.U32(v);
  if (loop)
    for (uint32_t v : {0u, 0u, start, endInclusive, 0u, 0u}) w.U32(v);
  return w;
}

TEST(WavEdges, FactPastDataIsCutForPcmOnly) {
  ScratchDir dir;
  WaveBuilder pcm;
  pcm.Fmt(1, 1, 8000, 16);
  ByteWriter fact;
  fact.U32(1000);
  pcm.Add("fact", fact);
  pcm.Data(Pcm16(std::vector<int16_t>(100, 7)));
  Collection collection;
  Waveform* wave = LoadOne(collection, pcm.Save(dir, "fact.wav"));
  ASSERT_NE(wave, nullptr) << LastError();
  EXPECT_EQ(wave->length, 100u);
  ASSERT_NE(wave->GetSamplesForRead(), nullptr);
}

TEST(WavEdges, InstAfterSmplLosesTuningButSetsGain) {
  ScratchDir dir;
  WaveBuilder file;
  file.Fmt(1, 1, 8000, 16);
  file.Data(Pcm16(std::vector<int16_t>(64, 0)));
  file.Add("smpl", SmplBody(48, 0, false, 0, 0));
  ByteWriter inst;
  for (int b : {72, 20, -6, 0, 127, 1, 127}) inst.U8(uint8_t(b));
  file.Add("inst", inst);
  Collection collection;
  Waveform* wave = LoadOne(collection, file.Save(dir, "inst.wav"));
  ASSERT_NE(wave, nullptr);
  EXPECT_EQ(wave->rootKey, 48);
  EXPECT_EQ(wave->fineTune, 0);
  EXPECT_EQ(wave->gain, -6.0f);
}

TEST(WavEdges, SwappedUnityNoteAndCueLoopLabels) {
  ScratchDir dir;
  WaveBuilder file;
  file.Fmt(1, 1, 8000, 16);
  file.Data(Pcm16(std::vector<int16_t>(500, 0)));
  ByteWriter cue;
  cue.U32(3);
  for (uint32_t id : {1u, 2u, 3u})
    for (uint32_t v : {id, id, FourCC("data"), 0u, 0u, id * 100}) cue.U32(v);
  file.Add("cue ", cue);
  ByteWriter list;
  list.U32(FourCC("adtl"));
  auto label = [&](uint32_t id, const std::string& text) {
    list.U32(FourCC("labl"));
    list.U32(uint32_t(4 + text.size() + 1));
    list.U32(id);
    list.Append(text);
    list.U8(0);
    if ((text.size() + 1) & 1) list.U8(0);
  };
  label(1, "Loop Start");
  label(2, "Loop End");
  label(3, "Hit");
  file.Add("LIST", list);
  Collection collection;
  Waveform* wave = LoadOne(collection, file.Save(dir, "cues.wav"));
  ASSERT_NE(wave, nullptr);
  EXPECT_EQ(wave->loop.start, 100.0f);
  EXPECT_EQ(wave->loop.end, 200.0f);
  EXPECT_EQ(wave->loop.type, 0);
  ASSERT_EQ(wave->markers.size(), 1u);
  EXPECT_EQ(wave->markers[0].name, "Hit");
  EXPECT_EQ(wave->markers[0].start, 300u);

  WaveBuilder swapped;
  swapped.Fmt(1, 1, 8000, 16);
  swapped.Data(Pcm16(std::vector<int16_t>(10, 0)));
  swapped.Add("smpl", SmplBody(0x3C000000, 0, false, 0, 0));
  Collection other;
  Waveform* swappedWave = LoadOne(other, swapped.Save(dir, "swapped.wav"));
  ASSERT_NE(swappedWave, nullptr);
  EXPECT_EQ(swappedWave->rootKey, 60);
}

TEST(WavEdges, SixChannelsReadAsTheFirstTwo) {
  ScratchDir dir;
  WaveBuilder file;
  file.Fmt(1, 6, 48000, 16);
  std::vector<int16_t> values;
  for (int frame = 0; frame < 50; ++frame)
    for (int channel = 0; channel < 6; ++channel) values.push_back(int16_t(channel * 1000 + frame));
  file.Data(Pcm16(values));
  Collection collection;
  Waveform* wave = LoadOne(collection, file.Save(dir, "six.wav"));
  ASSERT_NE(wave, nullptr) << LastError();
  EXPECT_EQ(wave->channels, 2);
  EXPECT_EQ(wave->length, 50u);
  const float* samples = wave->GetSamplesForRead();
  ASSERT_NE(samples, nullptr) << LastError();
  EXPECT_FLOAT_EQ(samples[2 * 7], 7 / 32768.0f);
  EXPECT_FLOAT_EQ(samples[2 * 7 + 1], 1007 / 32768.0f);
}

TEST(WavEdges, TruncatedAndForgedSizesNeverOverrun) {
  ScratchDir dir;
  WaveBuilder file;
  file.Fmt(1, 1, 8000, 16);
  file.Data(Pcm16(std::vector<int16_t>(100, 1)));
  std::vector<uint8_t> bytes = file.riff.Bytes();
  bytes[40] = 0xFF;  // data size far past the end
  bytes[41] = 0xFF;
  test::WriteBytes(dir.File("forged.wav"), bytes);
  Collection collection;
  Waveform* wave = LoadOne(collection, dir.File("forged.wav"));
  ASSERT_NE(wave, nullptr);
  EXPECT_EQ(wave->length, 100u);
  bytes.resize(30);
  test::WriteBytes(dir.File("short.wav"), bytes);
  Collection other;
  EXPECT_EQ(LoadOne(other, dir.File("short.wav")), nullptr);
}

// --- writing ----------------------------------------------------------------------------------------

Waveform* MakeWave(Collection& collection, uint32_t channels, uint32_t frames) {
  auto* wave = new Waveform(&collection);
  wave->channels = uint8_t(channels);
  wave->length = frames;
  wave->sampleRate = 32000;
  float* samples = wave->AllocSamples();
  test::SeededRandom random(7);
  for (size_t i = 0; i < size_t(frames) * channels; ++i) samples[i] = random.Uniform(-0.9f, 0.9f);
  return wave;
}

TEST(WavWrite, OddEightBitPadAndNegativeFineTune) {
  Collection collection;
  Waveform* wave = MakeWave(collection, 1, 5);
  wave->dataFormat = 0;  // PCM 8-bit
  wave->rootKey = 60;
  wave->fineTune = 30;
  std::vector<uint8_t> image;
  ASSERT_TRUE(WriteWaveToMemory(*wave, image, {}));
  size_t dataAt = 0;
  for (size_t at = 12; at + 8 < image.size(); at += 8 + ((image[at + 4] | image[at + 5] << 8) + 1) / 2 * 2)
    if (std::memcmp(&image[at], "data", 4) == 0) dataAt = at;
  ASSERT_NE(dataAt, 0u);
  EXPECT_EQ(image[dataAt + 8 + 5], 0x80);
  ScratchDir dir;
  test::WriteBytes(dir.File("tune.wav"), image);
  Collection back;
  Waveform* read = LoadOne(back, dir.File("tune.wav"));
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->rootKey, 59);
  EXPECT_EQ(read->fineTune, -70);
}

TEST(WavWrite, OutsideToolsReadWhatWeWrite) {
  ORLIN_REQUIRE_TOOL("sox");
  ORLIN_REQUIRE_TOOL("ffprobe");
  ScratchDir dir;
  const struct {
    const char* name;
    uint8_t dataFormat;
    int32_t row;
  } cases[] = {{"s16.wav", 1, FindWriteRow("wav", kMaskWaveform)}, {"s24.wav", 2, FindWriteRow("wav", kMaskWaveform)},
               {"f32.wav", 4, FindWriteRow("wav", kMaskWaveform)}, {"s16.w64", 1, FindWriteRow("w64", kMaskWaveform)},
               {"f32.w64", 4, FindWriteRow("w64", kMaskWaveform)}};
  for (const auto& item : cases) {
    SCOPED_TRACE(item.name);
    Collection collection;
    Waveform* wave = MakeWave(collection, 2, 1001);
    wave->dataFormat = item.dataFormat;
    wave->loop = {1, 0, 10.0f, 900.0f, 0.0f};
    SaveOptions options;
    options.caps = kCapsStorageMask | kCapsChannelMask;
    ASSERT_GE(item.row, 0);
    FileObject file;
    ASSERT_TRUE(file.Open(dir.File(item.name), FileMode::Create));
    ASSERT_TRUE(GetFormatRow(item.row)->write(wave, &file, &options)) << LastError();
    file.Close();
    std::string out;
    const std::string quiet = " " + dir.File(item.name) + " 2>/dev/null";
    ASSERT_EQ(test::RunCommand("(sox --i -s" + quiet + "; sox --i -r" + quiet + "; sox --i -c" + quiet + ") | tr '\\n' ' '", &out), 0);
    EXPECT_EQ(out, "1001 32000 2 ");
    out.clear();
    ASSERT_EQ(test::RunCommand("ffprobe -v error -show_entries stream=duration_ts,sample_rate,channels -of csv=p=0 " +
                                   dir.File(item.name),
                               &out),
              0);
    EXPECT_EQ(out, "32000,2,1001\n");
    // sox's samples agree with ours within the depth written (its Wave-64 float reading is unreliable).
    if (item.dataFormat == 4 && std::string(item.name).ends_with(".w64")) continue;
    ASSERT_EQ(test::RunCommand("sox " + dir.File(item.name) + " -t f32 " + dir.File("out.f32") + " 2>/dev/null"), 0);
    const std::vector<float> decoded = ReadF32(dir.File("out.f32"));
    ASSERT_EQ(decoded.size(), 2002u);
    const float* samples = wave->GetSamplesForRead();
    double worst = 0;
    for (size_t i = 0; i < decoded.size(); ++i) worst = std::max(worst, std::fabs(double(decoded[i]) - samples[i]));
    EXPECT_LE(worst, item.dataFormat == 1 ? 1.0 / 32768 : item.dataFormat == 2 ? 1.0 / 8388608 : 1e-7);  // sox holds 32-bit integers
  }
}

TEST(WavWrite, LoopMarkersAndTuningSurviveWavToW64ToWav) {
  ScratchDir dir;
  Collection collection;
  Waveform* wave = MakeWave(collection, 1, 4000);
  wave->SetName("Round trip");
  wave->SetText(kTextArtist, "Somebody");
  wave->rootKey = 64;
  wave->fineTune = -12;
  wave->gain = -3.0f;
  wave->loop = {3, 0, 100.0f, 3000.0f, 0.0f};
  wave->markers.push_back({0, 50, 50, "point", NextMarkerId()});
  wave->markers.push_back({1, 500, 800, "region", NextMarkerId()});
  const int32_t wavRow = FindWriteRow("wav", kMaskWaveform), w64Row = FindWriteRow("w64", kMaskWaveform);
  SaveOptions options;
  options.caps = kCapsStorageMask | kCapsChannelMask;
  ASSERT_TRUE(SaveItem(wave, wavRow, dir.File("a.wav"), options, true)) << LastError();
  Collection c1;
  Waveform* first = LoadOne(c1, dir.File("a.wav"));
  ASSERT_NE(first, nullptr);
  ASSERT_TRUE(SaveItem(first, w64Row, dir.File("b.w64"), options, true)) << LastError();
  Collection c2;
  Waveform* second = LoadOne(c2, dir.File("b.w64"));
  ASSERT_NE(second, nullptr);
  ASSERT_TRUE(SaveItem(second, wavRow, dir.File("c.wav"), options, true)) << LastError();
  Collection c3;
  Waveform* last = LoadOne(c3, dir.File("c.wav"));
  ASSERT_NE(last, nullptr);
  for (Waveform* read : {first, second, last}) {
    EXPECT_EQ(read->length, 4000u);
    EXPECT_EQ(read->rootKey, 64);
    EXPECT_EQ(read->fineTune, -12);
    EXPECT_EQ(read->loop.start, 100.0f);
    EXPECT_EQ(read->loop.end, 3000.0f);
    EXPECT_EQ(read->GetText(kTextArtist), "Somebody");
    ASSERT_EQ(read->markers.size(), 2u);
    EXPECT_EQ(read->markers[0].name, "point");
    EXPECT_EQ(read->markers[1].section, 1);
    EXPECT_EQ(read->markers[1].end, 800u);
  }
  EXPECT_EQ(first->loop.type, 3);
  EXPECT_EQ(first->gain, -3.0f);  // Wave-64 has no chunk for gain
}

TEST(WavWrite, CommandLineConvertsWavToW64) {
  ORLIN_REQUIRE_TESTDATA();
  ScratchDir dir;
  const std::string input = (test::TestDataDir() / "audio/generated/tone440/wav_s16_smpl_loop.wav").string();
  std::string out;
  ASSERT_EQ(test::RunCommand(test::OrlinProgram() + " convert '" + input + "' --to w64 -o " + dir.File("x.w64"), &out), 0)
      << out;
  Collection collection;
  Waveform* wave = LoadOne(collection, dir.File("x.w64"));
  ASSERT_NE(wave, nullptr);
  EXPECT_EQ(wave->length, 22050u);
  EXPECT_EQ(wave->rootKey, 69);
  EXPECT_EQ(wave->loop.start, 4410.0f);
}

}  // namespace
}  // namespace orlin
