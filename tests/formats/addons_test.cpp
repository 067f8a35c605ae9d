// Codec add-on rows against outside decoders: our decode of corpus files against the reference
// decode stored beside them, our encodes decoded by ffmpeg, and missing add-ons.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/commands.h"
#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "core/save_choice.h"
#include "core/format_table.h"
#include "formats/audio/addons/addon_loader.h"
#include "core/file_object.h"
#include "formats/audio/addons/aac_addon.h"
#include "formats/audio/addons/audio_stream.h"
#include "formats/audio/addons/ffmpeg_addon.h"
#include "formats/audio/addons/flac_addon.h"
#include "formats/audio/addons/mpeg_addon.h"
#include "formats/audio/addons/opus_addon.h"
#include "formats/audio/addons/vorbis_addon.h"
#include "formats/audio/addons/wavpack_addon.h"
#include "test_support.h"

namespace orlin {
namespace {

std::vector<float> ReadFloats(const std::string& path) {
  const std::vector<uint8_t> bytes = test::ReadBytes(path);
  std::vector<float> out(bytes.size() / 4);
  std::memcpy(out.data(), bytes.data(), out.size() * 4);
  return out;
}

double MaxDifference(const float* a, const std::vector<float>& b) {
  double worst = 0;
  for (size_t i = 0; i < b.size(); ++i) worst = std::max(worst, std::fabs(double(a[i]) - b[i]));
  return worst;
}

// Correlation of the left channels of two stereo signals at the best shift of `b` within
// `maxShift` frames, over the middle of `a`: lossy codecs delay and pad the signal.
double BestCorrelation(const float* a, size_t aFrames, const float* b, size_t bFrames, int maxShift) {
  double best = 0;
  for (int shift = -maxShift; shift <= maxShift; ++shift) {
    double xy = 0, xx = 0, yy = 0;
    for (size_t i = 4000; i + 4000 < aFrames; i += 3) {
      const int64_t j = int64_t(i) + shift;
      if (j < 0 || size_t(j) >= bFrames) continue;
      const double x = a[i * 2], y = b[size_t(j) * 2];
      xy += x * y, xx += x * x, yy += y * y;
    }
    if (xx > 0 && yy > 0) best = std::max(best, xy / std::sqrt(xx * yy));
  }
  return best;
}

int RunOrlin(std::vector<const char*> args, std::string* err = nullptr) {
  args.insert(args.begin(), "orlin");
  std::ostringstream out, errors;
  const int status = cli::RunCli(int(args.size()), args.data(), out, errors);
  if (err) *err = errors.str();
  return status;
}

struct CorpusCase {
  const char* file;
  uint32_t channels, rate, frames;
  double tolerance;  // 0: bit-exact lossless
};

TEST(CodecAddons, DecodesCorpusFilesLikeTheReferenceDecoder) {
  ORLIN_REQUIRE_TESTDATA();
  const CorpusCase cases[] = {
      {"sweep/flac_s16.flac", 2, 44100, 22050, 0.0},     {"sweep/flac_s24.flac", 2, 44100, 22050, 0.0},
      {"tone440/flac_s16.flac", 1, 44100, 22050, 0.0},   {"sweep/ogg_vorbis_q4.ogg", 2, 44100, 22050, 1e-4},
      {"tone440/ogg_vorbis_q4.ogg", 1, 44100, 22050, 1e-4}, {"sweep/opus_96k.opus", 2, 48000, 24000, 1e-3},
      {"sweep/mp3_cbr128.mp3", 2, 44100, 22050, 1e-3},   {"sweep/mp3_vbr_q2.mp3", 2, 44100, 22050, 1e-3},
      {"tone440/mp3_cbr128.mp3", 1, 44100, 22050, 1e-3}, {"sweep/mp2_192k.mp2", 2, 44100, 23040, 1e-3},
      {"sweep/wv_s16.wv", 2, 44100, 22050, 0.0},         {"sweep/wv_s24_hx.wv", 2, 44100, 22050, 0.0},
      {"sweep/wv_f32.wv", 2, 44100, 22050, 0.0},         {"sweep/wv_hybrid_with_wvc.wv", 2, 44100, 22050, 0.0},
      {"sweep/wv_hybrid_lossy_256k.wv", 2, 44100, 22050, 1e-4}, {"tone440/wv_s16.wv", 1, 44100, 22050, 0.0},
      {"sweep/caf_alac16_sndfile.caf", 2, 44100, 22050, 0.0}, {"sweep/caf_s16be.caf", 2, 44100, 22050, 0.0},
      // The reference is the 3GPP fixed-point decoder; FFmpeg's own AMR decoder differs by up to 0.03.
      {"dtmf8k/amr_nb_sox.amr", 1, 8000, 4000, 0.035},
  };
  for (const CorpusCase& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string path = (test::TestDataDir() / "audio/generated" / c.file).string();
    Collection collection;
    ASSERT_TRUE(LoadFile(collection, path, false)) << LastError();
    auto waves = collection.All<Waveform>().ToVector();
    ASSERT_EQ(waves.size(), 1u);
    Waveform* wave = waves[0];
    EXPECT_EQ(wave->channels, c.channels);
    EXPECT_EQ(wave->sampleRate, c.rate);
    EXPECT_EQ(wave->Data(), nullptr) << "opening must not decode";
    const float* samples = wave->GetSamplesForRead();
    ASSERT_NE(samples, nullptr) << LastError();
    // Container durations may be estimates; the length after decoding is what counts.
    ASSERT_EQ(wave->length, c.frames);
    const std::vector<float> reference = ReadFloats(path + ".f32");
    ASSERT_EQ(reference.size(), size_t(c.frames) * c.channels);
    EXPECT_LE(MaxDifference(samples, reference), c.tolerance);
  }
}

// Our encode, decoded by ffmpeg: frames, rate, channels, and the title tag.
TEST(CodecAddons, FfmpegDecodesWhatWeWrite) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("ffmpeg");
  ORLIN_REQUIRE_TOOL("ffprobe");
  test::ScratchDir scratch;
  const std::string source = (test::TestDataDir() / "audio/generated/sweep/flac_s16.flac").string();
  const std::vector<float> master = ReadFloats(source + ".f32");
  struct WriteCase {
    const char* extension;
    const char* dataFormat;
    uint32_t rate;
    bool lossless;
  };
  const WriteCase cases[] = {{"flac", "", 44100, true},
                             {"ogg", "", 44100, false},
                             {"opus", "", 48000, false},
                             {"mp3", "MP3 CBR 192 kbit/s", 44100, false},
                             {"mp3", "MP3 VBR Quality 5", 44100, false},
                             {"mp2", "", 44100, false},
                             {"wv", "PCM 16-bit", 44100, true},
                             {"mka", "", 44100, true},
                             {"caf", "", 44100, true},
                             {"m4a", "AAC 128 kbit/s", 44100, false},
                             {"aac", "AAC 160 kbit/s", 44100, false},
                             {"wma", "", 44100, false}};
  int index = 0;
  for (const WriteCase& c : cases) {
    SCOPED_TRACE(std::string(c.extension) + " " + c.dataFormat);
    const std::string out = scratch.File("out" + std::to_string(index++) + "." + c.extension);
    std::vector<const char*> args = {"convert", source.c_str(), "--to", c.extension, "-o", out.c_str()};
    if (*c.dataFormat) {
      args.push_back("--data-format");
      args.push_back(c.dataFormat);
    }
    std::string err;
    ASSERT_EQ(RunOrlin(args, &err), 0) << err;
    std::string title;
    test::RunCommand("ffprobe -v error -show_entries format_tags=title:stream_tags=title -of default=nw=1:nk=1 '" + out + "'",
                     &title);
    if (std::string(c.extension) != "aac" && std::string(c.extension) != "mp2" && std::string(c.extension) != "caf") {
      EXPECT_NE(title.find("flac_s16"), std::string::npos) << "the wave's name is written as the title";
    }
    std::string probe;
    ASSERT_EQ(test::RunCommand("ffprobe -v error -show_entries stream=sample_rate,channels -of csv=p=0 '" + out + "'",
                               &probe), 0);
    EXPECT_EQ(probe.substr(0, probe.find('\n')), std::to_string(c.rate) + ",2");
    const std::string raw = out + ".f32";
    ASSERT_EQ(test::RunCommand("ffmpeg -nostdin -v error -y -i '" + out + "' -f f32le '" + raw + "'"), 0);
    const std::vector<float> decoded = ReadFloats(raw);
    if (c.lossless) {
      ASSERT_EQ(decoded.size(), master.size());
      EXPECT_LE(MaxDifference(decoded.data(), master), 0.0);
      continue;
    }
    if (c.rate != 44100) continue;  // resampled by the codec: only the format is checked
    // Lossy: correlation with the master after the best alignment within 3000 frames.
    // Raw ADTS has no place for the encoder's delay, so its priming and padding stay in; FFmpeg's
    // WMA decoder drops the last block (its own encodes lose it too).
    const bool looseLength = std::string(c.extension) == "aac" || std::string(c.extension) == "wma";
    EXPECT_NEAR(double(decoded.size()) / 2, double(master.size()) / 2, looseLength ? 2100.0 : 1200.0);
    const double best = BestCorrelation(master.data(), master.size() / 2, decoded.data(), decoded.size() / 2, 3000);
    EXPECT_GE(best, 0.99);
  }
}

// ADTS AAC has no corpus file: FFmpeg encodes one, and our FAAD2 decode must follow FFmpeg's.
TEST(CodecAddons, AdtsDecodeFollowsFfmpeg) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("ffmpeg");
  test::ScratchDir scratch;
  const std::string source = (test::TestDataDir() / "audio/generated/sweep/flac_s16.flac").string();
  const std::string aac = scratch.File("sweep.aac"), raw = scratch.File("sweep.f32");
  ASSERT_EQ(test::RunCommand("ffmpeg -nostdin -v error -y -i '" + source + "' -c:a aac -b:a 160k '" + aac + "'"), 0);
  ASSERT_EQ(test::RunCommand("ffmpeg -nostdin -v error -y -i '" + aac + "' -f f32le '" + raw + "'"), 0);
  const std::vector<float> reference = ReadFloats(raw);
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, aac, false)) << LastError();
  Waveform* wave = collection.All<Waveform>().ToVector().at(0);
  EXPECT_EQ(wave->sampleRate, 44100u);
  EXPECT_EQ(wave->channels, 2);
  EXPECT_EQ(size_t(wave->length), reference.size() / 2);
  const float* samples = wave->GetSamplesForRead();
  ASSERT_NE(samples, nullptr) << LastError();
  EXPECT_GE(BestCorrelation(reference.data(), reference.size() / 2, samples, wave->length, 2048), 0.999);

  ASSERT_TRUE(addons::HideAddonForTest("faad2", true));
  Collection hidden;
  EXPECT_FALSE(LoadFile(hidden, aac, false));
  EXPECT_EQ(LastError(), "You need to install the free libfaad2.dll add-on before you can read AAC-compressed data");
  ASSERT_TRUE(addons::HideAddonForTest("faad2", false));
}

TEST(CodecAddons, MissingAddonGivesItsTextAndTheBatchGoesOn) {
  ORLIN_REQUIRE_TESTDATA();
  const std::string dir = (test::TestDataDir() / "audio/generated").string();
  const std::string flac = dir + "/sweep/flac_s16.flac", ogg = dir + "/sweep/ogg_vorbis_q4.ogg",
                    mp3 = dir + "/sweep/mp3_cbr128.mp3";
  ASSERT_TRUE(addons::HideAddonForTest("flac", true));
  Collection collection;
  EXPECT_FALSE(LoadFile(collection, flac, false));
  EXPECT_EQ(LastError(), "You need to install the libFLAC.dll codec add-on if you wish to read FLAC files.");

  test::ScratchDir scratch;
  std::string err;
  const std::string folder = scratch.Path().string();
  EXPECT_EQ(RunOrlin({"convert", ogg.c_str(), flac.c_str(), mp3.c_str(), "--to", "ogg", "-o", folder.c_str()}, &err),
            cli::kExitFileFailed);
  EXPECT_NE(err.find("libFLAC.dll"), std::string::npos) << err;
  EXPECT_TRUE(std::filesystem::exists(scratch.Path() / "ogg_vorbis_q4.ogg"));
  EXPECT_TRUE(std::filesystem::exists(scratch.Path() / "mp3_cbr128.ogg"));

  // Saving: the same library is needed to write.
  EXPECT_EQ(RunOrlin({"convert", ogg.c_str(), "--to", "flac", "-o", folder.c_str()}, &err), cli::kExitFileFailed);
  EXPECT_NE(err.find("if you wish to write FLAC files."), std::string::npos) << err;
  ASSERT_TRUE(addons::HideAddonForTest("flac", false));

  ASSERT_TRUE(addons::HideAddonForTest("lame", true));
  EXPECT_EQ(RunOrlin({"convert", ogg.c_str(), "--to", "mp3", "-o", folder.c_str()}, &err), cli::kExitFileFailed);
  EXPECT_NE(err.find("Lame_Enc.dll"), std::string::npos) << err;
  ASSERT_TRUE(addons::HideAddonForTest("lame", false));

  // Retried on the next use: the library is found again without a restart.
  Collection again;
  EXPECT_TRUE(LoadFile(again, flac, false)) << LastError();
}

// Tags written by ffmpeg (Vorbis comments, Opus tags, ID3v2, APE) land in the text fields; a
// picture we save comes out of ffmpeg as an attached picture.
TEST(CodecAddons, TagsAndPicturesBothWays) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("ffmpeg");
  ORLIN_REQUIRE_TOOL("ffprobe");
  test::ScratchDir scratch;
  const std::string source = (test::TestDataDir() / "audio/generated/sweep/flac_s16.flac").string();
  const std::string tags =
      "-metadata title=Tune -metadata artist=Someone -metadata album=Record -metadata comment=Notes "
      "-metadata copyright=Owner";
  for (const char* extension : {"flac", "ogg", "opus", "mp3", "wv", "m4a"}) {
    SCOPED_TRACE(extension);
    const std::string tagged = scratch.File(std::string("tagged.") + extension);
    ASSERT_EQ(test::RunCommand("ffmpeg -nostdin -v error -y -i '" + source + "' " + tags + " '" + tagged + "'"), 0);
    Collection collection;
    ASSERT_TRUE(LoadFile(collection, tagged, false)) << LastError();
    Waveform* wave = collection.All<Waveform>().ToVector().at(0);
    EXPECT_EQ(wave->GetText(kTextName), "Tune");
    EXPECT_EQ(wave->GetText(kTextArtist), "Someone");
    EXPECT_EQ(wave->GetText(kTextProduct), "Record");
    EXPECT_EQ(wave->GetText(kTextComments), "Notes");
    if (std::string(extension) != "m4a") {
      EXPECT_EQ(wave->GetText(kTextCopyright), "Owner");
    }
  }

  // A tiny PNG (the signature and an IHDR are enough for ffmpeg to call it a picture).
  const std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 13, 'I', 'H', 'D', 'R',
                                    0, 0, 0, 1, 0, 0, 0, 1, 8, 2, 0, 0, 0, 0x90, 0x77, 0x53, 0xDE};
  for (const char* extension : {"flac", "mp3"}) {
    SCOPED_TRACE(extension);
    Collection collection;
    ASSERT_TRUE(LoadFile(collection, source, false)) << LastError();
    Waveform* wave = collection.All<Waveform>().ToVector().at(0);
    wave->SetImage(png.data(), png.size());
    const std::string out = scratch.File(std::string("picture.") + extension);
    const int32_t row = FindWriteRow(extension, kMaskWaveform);
    ASSERT_TRUE(SaveItem(wave, row, out, DefaultSaveOptions(row))) << LastError();
    std::string streams;
    test::RunCommand("ffprobe -v error -show_entries stream=codec_type,codec_name -of csv=p=0 '" + out + "'", &streams);
    EXPECT_NE(streams.find("png,video"), std::string::npos) << streams;
    Collection again;
    ASSERT_TRUE(LoadFile(again, out, false)) << LastError();
    EXPECT_EQ(again.All<Waveform>().ToVector().at(0)->GetImage(), png);
  }
}

// Containers FFmpeg reads, with lossless codecs so that our decode must equal ffmpeg's own.
TEST(CodecAddons, LosslessContainersDecodeExactlyLikeFfmpeg) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("ffmpeg");
  test::ScratchDir scratch;
  const std::string source = (test::TestDataDir() / "audio/generated/sweep/flac_s16.flac").string();
  const std::pair<const char*, const char*> cases[] = {{"avi", "-c:a pcm_s16le"}, {"mov", "-c:a alac"},
                                                       {"mkv", "-c:a flac"},      {"mp4", "-c:a alac"},
                                                       {"wma", "-c:a wmav2 -b:a 128k"}};
  for (const auto& [extension, options] : cases) {
    SCOPED_TRACE(extension);
    const std::string file = scratch.File(std::string("in.") + extension), raw = file + ".f32";
    ASSERT_EQ(test::RunCommand("ffmpeg -nostdin -v error -y -i '" + source + "' " + options + " '" + file + "'"), 0);
    ASSERT_EQ(test::RunCommand("ffmpeg -nostdin -v error -y -i '" + file + "' -f f32le '" + raw + "'"), 0);
    const std::vector<float> reference = ReadFloats(raw);
    Collection collection;
    ASSERT_TRUE(LoadFile(collection, file, false)) << LastError();
    Waveform* wave = collection.All<Waveform>().ToVector().at(0);
    const float* samples = wave->GetSamplesForRead();
    ASSERT_NE(samples, nullptr) << LastError();
    ASSERT_EQ(size_t(wave->length) * 2, reference.size());
    // The same decoder: bit-exact for lossless codecs, and for WMA too.
    EXPECT_LE(MaxDifference(samples, reference), 1e-6);
  }
}

TEST(CodecAddons, LibraryNamesAreTriedInOrderAndAmrNeedsEightKilohertz) {
  ORLIN_REQUIRE_TESTDATA();
  addons::AddonLibrary* library = addons::FindAddonLibrary("vorbisfile");
  ASSERT_NE(library, nullptr);
  // The first name is absent, the second present: reading works.
  library->OverrideSonames({"libvorbisfile-absent.so.3", "libvorbisfile.so.3"});
  Collection collection;
  EXPECT_TRUE(LoadFile(collection, (test::TestDataDir() / "audio/generated/sweep/ogg_vorbis_q4.ogg").string(), false))
      << LastError();
  library->OverrideSonames({});

  Collection sweep;
  ASSERT_TRUE(LoadFile(sweep, (test::TestDataDir() / "audio/generated/sweep/flac_s16.flac").string(), false));
  test::ScratchDir scratch;
  const int32_t row = FindWriteRow("amr", kMaskWaveform);
  EXPECT_FALSE(SaveItem(sweep.All<Waveform>().ToVector().at(0), row, scratch.File("x.amr"), DefaultSaveOptions(row)));
  EXPECT_EQ(LastError(), "AMR != 8kHz");
}

// Every glue layer seeks by frame index: reading from a seek lands on the same frames as reading
// through from the start.
TEST(CodecAddons, SeekBySampleIndexMatchesAStraightRead) {
  ORLIN_REQUIRE_TESTDATA();
  using Opener = std::unique_ptr<addons::AudioStream> (*)(FileObject&);
  const std::pair<const char*, Opener> cases[] = {
      {"sweep/flac_s16.flac", addons::OpenFlacStream},
      {"sweep/ogg_vorbis_q4.ogg", addons::OpenVorbisStream},
      {"sweep/opus_96k.opus", addons::OpenOpusStream},
      {"sweep/mp3_cbr128.mp3", addons::OpenMpegStream},
      {"sweep/wv_s24_hx.wv", addons::OpenWavPackStream},
      {"sweep/caf_alac16_sndfile.caf", [](FileObject& file) { return addons::OpenFfmpegStream(file); }},
  };
  for (const auto& [name, open] : cases) {
    SCOPED_TRACE(name);
    FileObject file;
    ASSERT_TRUE(file.Open((test::TestDataDir() / "audio/generated" / name).string(), FileMode::Read));
    std::unique_ptr<addons::AudioStream> stream = open(file);
    ASSERT_NE(stream, nullptr) << LastError();
    std::vector<float> whole;
    ASSERT_TRUE(addons::ReadAllFrames(*stream, whole, 1u << 20));
    const uint32_t channels = stream->channels;
    for (const uint64_t at : {uint64_t(0), uint64_t(5000), uint64_t(12345)}) {
      SCOPED_TRACE(at);
      ASSERT_TRUE(stream->Seek(at));
      std::vector<float> part(size_t(1000) * channels);
      ASSERT_EQ(stream->Read(part.data(), 1000), 1000);
      // Opus restarts its decoder with an 80 ms pre-roll after a seek: the state converges but is
      // not bit-identical. The others land exactly.
      const double tolerance = std::string(name).ends_with(".opus") ? 0.1 : 1e-6;
      double worst = 0;
      for (size_t i = 0; i < part.size(); ++i)
        worst = std::max(worst, std::fabs(double(part[i]) - whole[size_t(at) * channels + i]));
      EXPECT_LE(worst, tolerance);
    }
  }
}

// Damaged files fail with a message or decode what is there; cut streams never crash, and an ID3
// tag before a FLAC stream is stepped over.
TEST(CodecAddons, CutAndPrefixedStreams) {
  ORLIN_REQUIRE_TESTDATA();
  test::ScratchDir scratch;
  for (const char* name : {"sweep/flac_s16.flac", "sweep/ogg_vorbis_q4.ogg", "sweep/opus_96k.opus",
                           "sweep/mp3_cbr128.mp3", "sweep/wv_s16.wv", "sweep/caf_alac16_sndfile.caf"}) {
    SCOPED_TRACE(name);
    std::vector<uint8_t> bytes = test::ReadBytes((test::TestDataDir() / "audio/generated" / name).string());
    for (const size_t keep : {size_t(40), bytes.size() / 2}) {
      const std::string cut = scratch.File("cut" + std::to_string(keep) + "." + std::filesystem::path(name).extension().string().substr(1));
      test::WriteBytes(cut, std::vector<uint8_t>(bytes.begin(), bytes.begin() + ptrdiff_t(keep)));
      Collection collection;
      if (!LoadFile(collection, cut, false)) {
        EXPECT_FALSE(LastError().empty());
        continue;
      }
      for (Waveform* wave : collection.All<Waveform>()) {
        if (wave->GetSamplesForRead() == nullptr) {
          EXPECT_FALSE(LastError().empty());
        }
      }
    }
  }

  const std::string source = (test::TestDataDir() / "audio/generated/sweep/flac_s16.flac").string();
  std::vector<uint8_t> tagged = {'I', 'D', '3', 4, 0, 0, 0, 0, 0, 20};
  tagged.resize(30, 0);
  const std::vector<uint8_t> flac = test::ReadBytes(source);
  tagged.insert(tagged.end(), flac.begin(), flac.end());
  const std::string path = scratch.File("tagged.flac");
  test::WriteBytes(path, tagged);
  Collection collection;
  ASSERT_TRUE(LoadFile(collection, path, false)) << LastError();
  Waveform* wave = collection.All<Waveform>().ToVector().at(0);
  EXPECT_EQ(wave->sourceOffset, 30u);
  const float* samples = wave->GetSamplesForRead();
  ASSERT_NE(samples, nullptr) << LastError();
  EXPECT_EQ(MaxDifference(samples, ReadFloats(source + ".f32")), 0.0);
}

// With each library hidden, reading and writing give that library's own words.
TEST(CodecAddons, EachMissingLibraryHasItsText) {
  ORLIN_REQUIRE_TESTDATA();
  const std::string dir = (test::TestDataDir() / "audio/generated/sweep/").string();
  struct Case {
    const char* key;
    const char* file;  // read with the library hidden; null to skip reading
    const char* writeTo;  // extension written with the library hidden; null to skip writing
    const char* text;
  };
  const Case cases[] = {
      {"vorbisfile", "ogg_vorbis_q4.ogg", nullptr, "You need to install the Ogg Vorbis DLL's"},
      {"vorbisenc", nullptr, "ogg", "You need to install the Vorbis Ogg DLL's"},
      {"opusfile", "opus_96k.opus", nullptr, "Failed opening Opus stream"},
      {"opusenc", nullptr, "opus", "Couldn't create Opus"},
      {"twolame", nullptr, "mp2", "You need to install the free tooLameF.dll encoder add-on if you wish to compress MP3-audio."},
      {"wavpack", "wv_s16.wv", "wv", "To read or write WavPack files (.wv) you need install the 'wavpackdll.dll' add-on"},
      {"avformat", "caf_alac16_sndfile.caf", "m4a", nullptr},
  };
  Collection source;
  ASSERT_TRUE(LoadFile(source, dir + "flac_s16.flac", false)) << LastError();
  Waveform* wave = source.All<Waveform>().ToVector().at(0);
  ASSERT_NE(wave->GetSamplesForRead(), nullptr);
  test::ScratchDir scratch;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    const std::string text = c.text ? c.text : addons::kFfmpegMissing;
    ASSERT_TRUE(addons::HideAddonForTest(c.key, true));
    if (c.file) {
      Collection collection;
      EXPECT_FALSE(LoadFile(collection, dir + c.file, false));
      EXPECT_EQ(LastError(), text);
    }
    if (c.writeTo) {
      const int32_t row = FindWriteRow(c.writeTo, kMaskWaveform);
      const std::string out = scratch.File(std::string("out.") + c.writeTo);
      EXPECT_FALSE(SaveItem(wave, row, out, DefaultSaveOptions(row)));
      EXPECT_EQ(LastError(), c.key == std::string("avformat") ? addons::kAacEncoderMissing : text);
      EXPECT_FALSE(std::filesystem::exists(out)) << "a failed save leaves no file";
    }
    ASSERT_TRUE(addons::HideAddonForTest(c.key, false));
  }
}

// A stereo wave saved to a mono choice, and a mono wave to a stereo-only codec.
TEST(CodecAddons, ChannelChoiceIsWhatTheFileHolds) {
  ORLIN_REQUIRE_TESTDATA();
  ORLIN_REQUIRE_TOOL("ffprobe");
  test::ScratchDir scratch;
  const std::string stereo = (test::TestDataDir() / "audio/generated/sweep/flac_s16.flac").string();
  for (const char* extension : {"flac", "mp3", "mp2", "ogg", "opus", "wv", "m4a"}) {
    SCOPED_TRACE(extension);
    const std::string out = scratch.File(std::string("mono.") + extension);
    std::string err;
    ASSERT_EQ(RunOrlin({"convert", stereo.c_str(), "--to", extension, "--channels", "mono", "-o", out.c_str()}, &err), 0)
        << err;
    std::string probe;
    test::RunCommand("ffprobe -v error -show_entries stream=channels -of csv=p=0 '" + out + "'", &probe);
    EXPECT_EQ(probe.substr(0, probe.find('\n')), "1");
  }
}

// Each corpus file is found by its own row, and by its signature alone under a foreign name.
TEST(CodecAddons, DetectorsFindTheirFilesWithAndWithoutTheExtension) {
  ORLIN_REQUIRE_TESTDATA();
  test::ScratchDir scratch;
  const std::pair<const char*, const char*> cases[] = {
      {"sweep/flac_s16.flac", "flac"}, {"sweep/ogg_vorbis_q4.ogg", "ogg"}, {"sweep/opus_96k.opus", "opus"},
      {"sweep/mp3_vbr_q2.mp3", "mp3"}, {"sweep/mp2_192k.mp2", "mp2"},     {"sweep/wv_s16.wv", "wv"},
      {"sweep/caf_s16be.caf", "caf"},  {"dtmf8k/amr_nb_sox.amr", "amr"},
  };
  for (const auto& [name, extension] : cases) {
    SCOPED_TRACE(name);
    const std::string path = (test::TestDataDir() / "audio/generated" / name).string();
    FileObject file;
    ASSERT_TRUE(file.Open(path, FileMode::Read));
    int32_t confidence = 0;
    const int32_t row = DetectFileFormat(path, file, confidence);
    EXPECT_EQ(GetRowExtension(row), extension);
    // Bare MPEG frames have no magic, only a plausible header: a weak signature. An ID3 tag in
    // front of them makes it certain.
    const bool bareFrames = std::string(extension) == "mp2";
    EXPECT_EQ(confidence, bareFrames ? 77 : 100);
    const std::string renamed = scratch.File("renamed.xyz");
    std::filesystem::copy_file(path, renamed, std::filesystem::copy_options::overwrite_existing);
    FileObject other;
    ASSERT_TRUE(other.Open(renamed, FileMode::Read));
    const int32_t found = DetectFileFormat(renamed, other, confidence);
    if (bareFrames) {
      EXPECT_EQ(GetRowExtension(found), "*") << "a weak signature alone does not beat the raw import";
      continue;
    }
    EXPECT_EQ(GetRowExtension(found), extension);
    EXPECT_EQ(confidence, 66);
  }
}

// ORLIN_ADDON_PATH names a folder searched before the system's library path.
TEST(CodecAddons, AddonFolderIsSearchedFirst) {
  ORLIN_REQUIRE_TESTDATA();
  const std::filesystem::path system = "/usr/lib/x86_64-linux-gnu/libFLAC.so.12";
  if (!std::filesystem::exists(system)) GTEST_SKIP() << "libFLAC.so.12 is not at " << system;
  test::ScratchDir scratch;
  std::filesystem::create_symlink(system, scratch.Path() / "liborlin-private-flac.so");
  addons::AddonLibrary* library = addons::FindAddonLibrary("flac");
  ASSERT_NE(library, nullptr);
  library->OverrideSonames({"liborlin-private-flac.so"});
  const std::string flac = (test::TestDataDir() / "audio/generated/sweep/flac_s16.flac").string();
  Collection without;
  EXPECT_FALSE(LoadFile(without, flac, false)) << "the private name is nowhere on the system path";
  setenv("ORLIN_ADDON_PATH", scratch.Path().c_str(), 1);
  Collection with;
  EXPECT_TRUE(LoadFile(with, flac, false)) << LastError();
  unsetenv("ORLIN_ADDON_PATH");
  library->OverrideSonames({});
}

// The settings lists the save dialog and `--data-format` offer, read through the table.
TEST(CodecAddons, Mp3SettingsListsAndLabels) {
  auto labels = [](int32_t row) {
    std::vector<std::string> out;
    for (const auto& [value, label] : GetSettingsList(row)) out.push_back(label);
    return out;
  };
  const auto cbr = labels(245), abr = labels(246), vbr = labels(247);
  ASSERT_FALSE(cbr.empty());
  EXPECT_EQ(cbr.front(), "MP3 CBR 32 kbit/s");
  EXPECT_EQ(cbr.back(), "MP3 CBR 320 kbit/s");
  EXPECT_EQ(abr.front(), "MP3 ABR 32 kbit/s");
  ASSERT_EQ(vbr.size(), 10u);
  EXPECT_EQ(vbr.front(), "MP3 VBR Quality 0 (min)");
  EXPECT_EQ(vbr[5], "MP3 VBR Quality 5");
  EXPECT_EQ(vbr.back(), "MP3 VBR Quality 9 (max)");
  const auto values = GetSettingsList(247);
  EXPECT_EQ(values.front().first, 32.0);
  EXPECT_EQ(values.back().first, 256.0);
  EXPECT_EQ(labels(243).front(), "MP2 CBR 32 kbit/s");
}

// The entry points a container with embedded MPEG frames uses: bare frames in memory, and back.
TEST(CodecAddons, Mp3FramesInMemoryRoundTrip) {
  std::vector<float> tone(44100 * 2);
  for (size_t i = 0; i < tone.size() / 2; ++i)
    tone[2 * i] = tone[2 * i + 1] = 0.5f * float(std::sin(2 * M_PI * 440.0 * double(i) / 44100.0));
  addons::EncodeInput input;
  input.samples = tone.data();
  input.frames = 44100;
  input.channels = 2;
  input.rate = 44100;
  std::vector<uint8_t> frames;
  ASSERT_TRUE(addons::EncodeMp3ToMemory(input, addons::Mp3Mode::Cbr, 128, false, frames)) << LastError();
  ASSERT_GT(frames.size(), 1000u);
  EXPECT_EQ(frames[0], 0xFF) << "bare frames start with a sync word, no tag";
  std::unique_ptr<addons::AudioStream> stream = addons::OpenMpegMemoryStream(frames);
  ASSERT_NE(stream, nullptr) << LastError();
  EXPECT_EQ(stream->rate, 44100u);
  EXPECT_EQ(stream->channels, 2u);
  std::vector<float> decoded;
  ASSERT_TRUE(addons::ReadAllFrames(*stream, decoded, 1u << 20));
  // Without an info frame the encoder's delay and padding stay: at most two frames of 1152 more.
  EXPECT_GE(decoded.size() / 2, 44100u);
  EXPECT_LE(decoded.size() / 2, 44100u + 2 * 1152 + 576);
  EXPECT_GE(BestCorrelation(tone.data(), 44100, decoded.data(), decoded.size() / 2, 2400), 0.99);
}

}  // namespace
}  // namespace orlin
