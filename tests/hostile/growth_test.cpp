// Generated hostile inputs of growing size: the work and memory of a load must grow at most linearly
// with the input up to the load's budget, and past it the load stops with its message. The tests
// compare the growth between two sizes four times apart, never absolute times: a linear reader
// grows about 4x, a quadratic one 16x.
#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/resource.h>

#include <fstream>
#include <functional>

#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "test_support.h"

namespace orlin {
namespace {

using test::ScratchDir;

struct LoadCost {
  double seconds = 0;
  size_t liveBytes = 0;
  bool loaded = false;
  std::string error;
};

// Processor time of this process, less sensitive than the wall clock to other work on the machine.
double ProcessorSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + 1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

// The best of three loads, and the heap the loaded collection holds.
LoadCost MeasureLoad(const std::string& path) {
  LoadCost cost;
  cost.seconds = 1e9;
  for (int attempt = 0; attempt < 3; ++attempt) {
    Collection collection;
    const size_t before = mallinfo2().uordblks;
    const double start = ProcessorSeconds();
    cost.loaded = LoadFile(collection, path, false);
    const double seconds = ProcessorSeconds() - start;
    cost.seconds = std::min(cost.seconds, seconds);
    const size_t after = mallinfo2().uordblks;
    cost.liveBytes = after > before ? after - before : 0;
    cost.error = LastError();
  }
  return cost;
}

// Loads a small and a four times larger input; both load, and time and memory grow well under the
// square of the input's growth. The small input is already past the processor's caches, which
// would otherwise make the first step look steeper than it is.
void ExpectLinearGrowth(const std::function<std::string(int)>& make, int small, const char* what) {
  const LoadCost a = MeasureLoad(make(small));
  const LoadCost b = MeasureLoad(make(small * 4));
  ASSERT_TRUE(a.loaded && b.loaded) << what << ": " << a.error << " / " << b.error;
  constexpr double kMostGrowth = 8.0;      // linear is 4, quadratic 16
  constexpr double kTimingFloor = 0.01;  // below this, timer resolution decides
  EXPECT_LT(b.seconds / std::max(a.seconds, kTimingFloor), kMostGrowth) << what << ": " << a.seconds << " s, then " << b.seconds << " s";
  EXPECT_LT(double(b.liveBytes) / double(std::max<size_t>(a.liveBytes, 1 << 16)), kMostGrowth)
      << what << ": " << a.liveBytes << " bytes, then " << b.liveBytes;
}

void Put16(std::string& out, uint32_t v) { out += char(v & 0xFF), out += char((v >> 8) & 0xFF); }
void Put32(std::string& out, uint32_t v) { Put16(out, v & 0xFFFF), Put16(out, v >> 16); }
std::string Chunk(const char* id, const std::string& body) {
  std::string out(id, 4);
  Put32(out, uint32_t(body.size()));
  out += body;
  if (body.size() & 1) out += '\0';
  return out;
}
std::string Name20(const std::string& name) {
  std::string out = name.substr(0, 20);
  out.resize(20, '\0');
  return out;
}

// A SoundFont bank of `presets` presets over `instruments` instruments of `zones` key-split zones
// each, preset p using instrument p % instruments; one short sample serves every zone.
std::string Sf2Bank(int presets, int instruments, int zones) {
  std::string phdr, pbag, pgen, inst, ibag, igen, shdr;
  for (int p = 0; p < presets; ++p) {
    phdr += Name20("preset" + std::to_string(p));
    Put16(phdr, uint32_t(p % 128)), Put16(phdr, uint32_t(p / 128)), Put16(phdr, uint32_t(p));
    Put32(phdr, 0), Put32(phdr, 0), Put32(phdr, 0);
    Put16(pbag, uint32_t(p)), Put16(pbag, 0);
    Put16(pgen, 41), Put16(pgen, uint32_t(p % instruments));  // instrument
  }
  phdr += Name20("EOP");
  for (int k = 0; k < 6; ++k) Put16(phdr, k == 2 ? uint32_t(presets) : 0);
  phdr.resize(phdr.size() + 6, '\0');
  Put16(pbag, uint32_t(presets)), Put16(pbag, 0);
  Put32(pgen, 0);
  for (int i = 0; i < instruments; ++i) {
    inst += Name20("inst" + std::to_string(i));
    Put16(inst, uint32_t(i * zones));
    for (int z = 0; z < zones; ++z) {
      Put16(ibag, uint32_t((i * zones + z) * 2)), Put16(ibag, 0);
      const int key = z % 128;
      Put16(igen, 43), Put16(igen, uint32_t(key | key << 8));  // keyRange
      Put16(igen, 53), Put16(igen, 0);                         // sampleID
    }
  }
  inst += Name20("EOI");
  Put16(inst, uint32_t(instruments * zones));
  Put16(ibag, uint32_t(instruments * zones * 2)), Put16(ibag, 0);
  Put32(igen, 0);
  shdr += Name20("tone");
  Put32(shdr, 0), Put32(shdr, 100), Put32(shdr, 10), Put32(shdr, 90), Put32(shdr, 44100);
  shdr += char(60), shdr += char(0);
  Put16(shdr, 0), Put16(shdr, 1);
  shdr += Name20("EOS");
  shdr.resize(shdr.size() + 26, '\0');
  std::string mod(10, '\0');
  std::string smpl;
  for (int i = 0; i < 146; ++i) Put16(smpl, uint32_t(int16_t(i * 97)));
  std::string ifil;
  Put16(ifil, 2), Put16(ifil, 1);
  const std::string info = "INFO" + Chunk("ifil", ifil) + Chunk("INAM", std::string("gen\0", 4));
  const std::string sdta = "sdta" + Chunk("smpl", smpl);
  const std::string pdta = "pdta" + Chunk("phdr", phdr) + Chunk("pbag", pbag) + Chunk("pmod", mod) + Chunk("pgen", pgen) +
                           Chunk("inst", inst) + Chunk("ibag", ibag) + Chunk("imod", mod) + Chunk("igen", igen) +
                           Chunk("shdr", shdr);
  return Chunk("RIFF", "sfbk" + Chunk("LIST", info) + Chunk("LIST", sdta) + Chunk("LIST", pdta));
}

std::string WriteFile(const ScratchDir& dir, const std::string& name, const std::string& bytes) {
  std::ofstream(dir.File(name), std::ios::binary) << bytes;
  return dir.File(name);
}

TEST(HostileGrowth, SoundFontZoneWalkGrowsLinearlyUpToItsBudget) {
  ScratchDir dir;
  // Each preset its own instrument: the regions grow with the file.
  ExpectLinearGrowth([&](int presets) { return WriteFile(dir, "own.sf2", Sf2Bank(presets, presets, 32)); }, 128,
                     "presets with instruments of their own");
  // Every preset on one instrument: a few kilobytes ask for presets × zones regions, and past what
  // the zones justify the load stops before making any.
  for (int size : {1000, 4000}) {
    const LoadCost cost = MeasureLoad(WriteFile(dir, "shared.sf2", Sf2Bank(size, 1, size)));
    EXPECT_FALSE(cost.loaded);
    EXPECT_EQ(cost.error, "Too many regions (" + std::to_string(uint64_t(size) * size) + ") for this file");
    EXPECT_LT(cost.liveBytes, size_t(1) << 20);
  }
}

TEST(HostileGrowth, SfzLongLinesOverlapsAndDefinesGrowLinearly) {
  ORLIN_REQUIRE_TOOL("sox");
  ScratchDir dir;
  ASSERT_EQ(test::RunCommand("sox -n -r 22050 -b 16 -c 1 " + dir.File("s.wav") + " synth 0.01 sine 440"), 0);
  ExpectLinearGrowth(
      [&](int opcodes) {
        std::string text = "<region> sample=s.wav";
        for (int i = 0; i < opcodes; ++i) text += " lokey=1";
        return WriteFile(dir, "line.sfz", text + "\n");
      },
      200000, "one line of many opcodes");
  ExpectLinearGrowth(
      [&](int regions) {
        std::string text;
        for (int i = 0; i < regions; ++i) text += "<region> sample=s.wav\n";  // all on every key: a layer each
        return WriteFile(dir, "overlap.sfz", text);
      },
      1024, "regions that all overlap");
  ExpectLinearGrowth(
      [&](int defines) {
        std::string text;
        for (int i = 0; i < defines; ++i) text += "#define $KEY" + std::to_string(i) + " " + std::to_string(i % 128) + "\n";
        for (int i = 0; i < defines; ++i) text += "<region> sample=s.wav key=$KEY" + std::to_string(i) + "\n";
        return WriteFile(dir, "defines.sfz", text);
      },
      1024, "many defines");
}

TEST(HostileGrowth, ExpandingTextStopsAtItsBudget) {
  ScratchDir dir;
  // Each define doubles the one before, and each include level includes the next twice.
  std::string bomb = "#define $A0 xx\n";
  for (int i = 1; i < 40; ++i) bomb += "#define $A" + std::to_string(i) + " $A" + std::to_string(i - 1) + "$A" + std::to_string(i - 1) + "\n";
  bomb += "<region> sample=$A39.wav\n";
  for (int level = 0; level < 16; ++level) {
    const std::string next = "level" + std::to_string(level + 1) + ".sfz";
    WriteFile(dir, "level" + std::to_string(level) + ".sfz",
              "#include \"" + next + "\"\n#include \"" + next + "\"\n<region> sample=missing.wav\n");
  }
  WriteFile(dir, "level16.sfz", "<region> sample=missing.wav lokey=1 hikey=2\n");
  for (const std::string& path : {WriteFile(dir, "defines.sfz", bomb), dir.File("level0.sfz")}) {
    const LoadCost cost = MeasureLoad(path);
    EXPECT_FALSE(cost.loaded) << path;
    EXPECT_NE(cost.error.find("Too much text from #define and #include"), std::string::npos) << cost.error;
    EXPECT_LT(cost.liveBytes, size_t(1) << 20);
  }
}

TEST(HostileGrowth, ManyChunksGrowLinearly) {
  ScratchDir dir;
  ExpectLinearGrowth(
      [&](int chunks) {
        std::string fmt;
        Put16(fmt, 1), Put16(fmt, 1), Put32(fmt, 8000), Put32(fmt, 16000), Put16(fmt, 2), Put16(fmt, 16);
        std::string body = "WAVE" + Chunk("fmt ", fmt);
        for (int i = 0; i < chunks; ++i) body += Chunk("junk", "ab");
        body += Chunk("data", std::string(64, '\1'));
        return WriteFile(dir, "chunks.wav", Chunk("RIFF", body));
      },
      20000, "a wave of many chunks");
}

}  // namespace
}  // namespace orlin
