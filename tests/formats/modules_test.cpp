// Tracker modules: samples agree with libxmp on the corpus, the MOD song's notes follow the pattern
// data read here independently, and the edge cases of MOD, XM and IT hold on small files made here.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
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
        // Amiga formats tune from 8287 Hz here and from 8363 Hz in libxmp (MED with its own transposition);
        // the MOD rates are tested below.
        if (their.rate > 0 && extension != "mod" && extension != "okt" && extension != "med") {
          EXPECT_NEAR(wave.sampleRate, their.rate, their.rate * 0.005);
        }
      }
      ++compared;
    }
  EXPECT_GE(compared, 15);
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

// A MOD made here: 31 sample records, an order list, the ID, patterns, then sample data.
struct ModBuilder {
  std::vector<uint8_t> bytes = std::vector<uint8_t>(1084, 0);
  int patterns = 0;
  int channels = 4;

  void Sample(int index, const char* name, uint16_t words, uint8_t fineTune, uint8_t volume, uint16_t loopStart = 0,
              uint16_t loopWords = 1) {
    uint8_t* record = bytes.data() + 20 + 30 * index;
    std::memcpy(record, name, std::strlen(name));
    record[22] = uint8_t(words >> 8), record[23] = uint8_t(words);
    record[24] = fineTune, record[25] = volume;
    record[26] = uint8_t(loopStart >> 8), record[27] = uint8_t(loopStart);
    record[28] = uint8_t(loopWords >> 8), record[29] = uint8_t(loopWords);
  }
  void Orders(std::initializer_list<uint8_t> orders) {
    bytes[950] = uint8_t(orders.size());
    int i = 0;
    for (uint8_t order : orders) bytes[952 + i++] = order;
  }
  void Id(const char* id) { std::memcpy(bytes.data() + 1080, id, 4); }
  // Appends empty patterns up to `count`.
  void Patterns(int count) {
    patterns = count;
    bytes.resize(1084 + size_t(count) * 64 * channels * 4, 0);
  }
  void Cell(int pattern, int row, int channel, int sample, int period, int effect, int parameter) {
    uint8_t* cell = bytes.data() + 1084 + (size_t(pattern) * 64 * channels + size_t(row) * channels + channel) * 4;
    cell[0] = uint8_t((sample & 0xF0) | (period >> 8));
    cell[1] = uint8_t(period);
    cell[2] = uint8_t((sample & 0x0F) << 4 | effect);
    cell[3] = uint8_t(parameter);
  }
  void SampleData(size_t count) {
    for (size_t i = 0; i < count; ++i) bytes.push_back(uint8_t(i * 7));
  }
};

struct NoteOn {
  uint64_t tick;
  int channel, key, velocity;
  bool operator==(const NoteOn&) const = default;
};

std::vector<NoteOn> NoteOns(const Collection& collection, const Song& song) {
  std::vector<NoteOn> notes;
  for (uint32_t id : song.children) {
    const Track* track = collection.Find<Track>(id);
    MidiEventWalker walker(track->data.data(), track->data.size());
    MidiEvent event;
    uint64_t tick = 0;
    while (walker.Next(event)) {
      tick += event.delta;
      if ((event.status & 0xF0) == 0x90 && event.data2 > 0)
        notes.push_back({tick, event.status & 0x0F, event.data1, event.data2});
    }
  }
  std::stable_sort(notes.begin(), notes.end(), [](const NoteOn& a, const NoteOn& b) { return a.tick < b.tick; });
  return notes;
}

bool LoadMod(Collection& collection, const test::ScratchDir& scratch, const std::vector<uint8_t>& bytes) {
  const std::string path = scratch.File("made.mod");
  test::WriteBytes(path, bytes);
  return LoadFile(collection, path, false);
}

TEST(TrackerModules, ModSongTimingFromPatterns) {
  test::ScratchDir scratch;
  ModBuilder mod;
  mod.Sample(0, "lead", 8, 0, 64);
  mod.Sample(1, "", 8, 0, 48);
  mod.Orders({0, 1});
  mod.Id("M.K.");
  mod.Patterns(2);
  mod.Cell(0, 0, 0, 1, 428, 0, 0);         // key 60, full volume
  mod.Cell(0, 0, 1, 2, 214, 0xC, 32);      // key 72, volume 32
  mod.Cell(0, 4, 0, 0, 0, 0xF, 3);         // speed 3 from row 4 on
  mod.Cell(0, 5, 0, 0, 856, 0, 0);         // key 48 on the last sample of the channel
  mod.Cell(0, 8, 3, 0, 0, 0xD, 0x10);      // break to row 10 of the next order
  mod.Cell(1, 10, 2, 1, 428, 0xF, 200);    // tempo 200 on the row struck
  mod.SampleData(32);
  Collection collection;
  ASSERT_TRUE(LoadMod(collection, scratch, mod.bytes));
  const std::vector<Song*> songs = collection.All<Song>().ToVector();
  ASSERT_EQ(songs.size(), 1u);
  const Song& song = *songs[0];
  EXPECT_EQ(song.format, 1);
  EXPECT_EQ(song.division, 96);
  ASSERT_EQ(song.children.size(), 5u);
  const Track* control = collection.Find<Track>(song.children[0]);
  EXPECT_EQ(control->GetName(), "Control Track");
  EXPECT_EQ(control->flags, 254);
  EXPECT_EQ(collection.Find<Track>(song.children[3])->GetName(), "Track 3");
  // Rows 0-3 at speed 6 (24 MIDI ticks), rows 4-8 at speed 3, the break lands on row 10 at tick 156.
  const std::vector<NoteOn> expected = {{0, 0, 60, 127}, {0, 1, 72, 63}, {108, 0, 48, 127}, {156, 2, 60, 127}};
  EXPECT_EQ(NoteOns(collection, song), expected);
  // The control track: name, text, time signature, tempo 125 (480000 us), steps and the tempo change.
  std::vector<std::string> metas;
  MidiEventWalker walker(control->data.data(), control->data.size());
  MidiEvent event;
  while (walker.Next(event))
    if (event.status == 0xFF) metas.push_back(std::to_string(event.metaType) + ":" + std::string(reinterpret_cast<const char*>(event.data), event.size));
  ASSERT_GE(metas.size(), 7u);
  EXPECT_EQ(metas[0], "3:Control Track");
  EXPECT_EQ(metas[1], "1:Created from a MOD by Orlin Studio v12.7");
  EXPECT_EQ(metas[2], std::string("88:\x04\x02\x60\x08", 7));
  EXPECT_EQ(metas[3], std::string("81:\x07\x53\x00", 6));
  EXPECT_EQ(metas[4], "6:0 <- P0");
  EXPECT_EQ(metas[5], "6:1 <- P1");
  EXPECT_EQ(metas[6], std::string("81:\x04\x93\xE0", 6));  // 300000 us for tempo 200
  // Instruments: one per sample, by name or "No %d", program by sample number.
  const std::vector<Instrument*> instruments = collection.All<Instrument>().ToVector();
  ASSERT_EQ(instruments.size(), 2u);
  EXPECT_EQ(instruments[0]->GetName(), "lead");
  EXPECT_EQ(instruments[1]->GetName(), "No 2");
  EXPECT_EQ(instruments[1]->Program(), 1);
}

TEST(TrackerModules, ModEdgeCases) {
  test::ScratchDir scratch;
  {
    // Fine tune 0 gives 8287 Hz; -8 and +7 the ends of the range; a loop of more than one word.
    ModBuilder mod;
    mod.Sample(0, "a", 8, 0, 64, 2, 4);
    mod.Sample(1, "b", 8, 8, 64);
    mod.Sample(2, "c", 8, 7, 64);
    mod.Orders({0});
    mod.Id("M.K.");
    mod.Patterns(1);
    mod.SampleData(48);
    Collection collection;
    ASSERT_TRUE(LoadMod(collection, scratch, mod.bytes));
    const std::vector<Waveform*> waves = collection.All<Waveform>().ToVector();
    ASSERT_EQ(waves.size(), 3u);
    EXPECT_EQ(waves[0]->sampleRate, 8287u);
    EXPECT_EQ(waves[1]->sampleRate, uint32_t(8287.137 * std::pow(2.0, -8 / 96.0) + 0.499));
    EXPECT_EQ(waves[2]->sampleRate, uint32_t(8287.137 * std::pow(2.0, 7 / 96.0) + 0.499));
    EXPECT_EQ(waves[0]->loop.type, 1);
    EXPECT_EQ(waves[0]->loop.start, 4.0f);
    EXPECT_EQ(waves[0]->loop.end, 12.0f);
    EXPECT_EQ(waves[1]->loop.type, 0);
    EXPECT_EQ(waves[0]->length, 16u);
  }
  {
    // No known ID: 15 sample records, the order list at 470 and patterns at 600.
    std::vector<uint8_t> bytes(600 + 1024, 0);
    bytes[20 + 22 + 1] = 4;  // first sample: 4 words
    bytes[470] = 1;
    for (int i = 0; i < 8; ++i) bytes.push_back(uint8_t(i));
    std::memcpy(bytes.data() + 1080, "ABCD", 4);  // inside the pattern: not an ID
    Collection collection;
    ASSERT_TRUE(LoadMod(collection, scratch, bytes)) << LastError();
    const std::vector<Waveform*> waves = collection.All<Waveform>().ToVector();
    ASSERT_EQ(waves.size(), 1u);
    EXPECT_EQ(waves[0]->sourceOffset, 1624u);
    EXPECT_EQ(waves[0]->length, 8u);
  }
  {
    // A sample reaching past the end of the file is cut to it; an 8-channel ID widens the patterns.
    ModBuilder mod;
    mod.channels = 8;
    mod.Sample(0, "long", 1000, 0, 64);
    mod.Orders({0});
    mod.Id("8CHN");
    mod.Patterns(1);
    mod.SampleData(10);
    Collection collection;
    ASSERT_TRUE(LoadMod(collection, scratch, mod.bytes));
    const std::vector<Waveform*> waves = collection.All<Waveform>().ToVector();
    ASSERT_EQ(waves.size(), 1u);
    EXPECT_EQ(waves[0]->sourceOffset, 1084u + 2048u);
    EXPECT_EQ(waves[0]->length, 10u);
    EXPECT_EQ(collection.All<Song>().ToVector()[0]->children.size(), 9u);
  }
  {
    ModBuilder mod;
    mod.Sample(0, "a", 8, 0, 64);
    mod.Id("M.K.");
    mod.Patterns(1);
    mod.SampleData(16);
    Collection collection;
    EXPECT_FALSE(LoadMod(collection, scratch, mod.bytes));
    EXPECT_EQ(LastError(), "Zero song length");
  }
}

TEST(TrackerModules, ModCorpusNotesFollowFirstPattern) {
  ORLIN_REQUIRE_TESTDATA();
  for (const char* name : {"libxmp/ponylips.mod", "debian/high-score.mod"}) {
    const std::string path = (test::TestDataDir() / "modules" / name).string();
    SCOPED_TRACE(path);
    const std::vector<uint8_t> bytes = test::ReadBytes(path);
    ASSERT_GT(bytes.size(), 1084u);
    // The first pattern of the order list, walked here: speed from F cells, notes where a period
    // meets a sample with volume, the key by the period's distance from 428 in semitones.
    const int pattern = bytes[952];
    const uint8_t* cells = bytes.data() + 1084 + size_t(pattern) * 1024;
    std::vector<int> volume(4, 0), sample(4, 0);
    std::vector<NoteOn> expected;
    uint64_t tick = 0;
    int speed = 6;
    bool stopped = false;
    for (int row = 0; row < 64 && !stopped; ++row) {
      for (int c = 0; c < 4; ++c) {
        const uint8_t* cell = cells + (row * 4 + c) * 4;
        if ((cell[2] & 0x0F) == 0x0F && cell[3] > 0 && cell[3] < 32) speed = cell[3];
      }
      for (int c = 0; c < 4; ++c) {
        const uint8_t* cell = cells + (row * 4 + c) * 4;
        const int number = (cell[0] & 0xF0) | (cell[2] >> 4);
        const int period = (cell[0] & 0x0F) << 8 | cell[1];
        const int effect = cell[2] & 0x0F;
        if (number) sample[c] = number, volume[c] = std::min<int>(bytes[20 + 30 * (number - 1) + 25], 64);
        if (effect == 0xC) volume[c] = std::min<int>(cell[3], 64);
        if (effect == 0xD || effect == 0xB) stopped = true;
        const int words = sample[c] ? bytes[20 + 30 * (sample[c] - 1) + 22] << 8 | bytes[20 + 30 * (sample[c] - 1) + 23] : 0;
        if (period && words && volume[c] > 0 && effect != 3 && effect != 5) {
          const int key = int(std::lround(60 + 12 * std::log2(428.0 / period)));
          expected.push_back({tick, c, key, std::max(1, volume[c] * 127 / 64)});
        }
      }
      tick += uint64_t(speed) * 4;
    }
    ASSERT_FALSE(expected.empty());
    Collection collection;
    ASSERT_TRUE(LoadFile(collection, path, false));
    const std::vector<Song*> songs = collection.All<Song>().ToVector();
    ASSERT_EQ(songs.size(), 1u);
    std::vector<NoteOn> ours = NoteOns(collection, *songs[0]);
    ours.erase(std::remove_if(ours.begin(), ours.end(), [&](const NoteOn& n) { return n.tick >= tick; }), ours.end());
    std::stable_sort(expected.begin(), expected.end(), [](const NoteOn& a, const NoteOn& b) { return a.tick < b.tick; });
    EXPECT_EQ(ours, expected);
  }
}

}  // namespace
}  // namespace orlin

namespace orlin {
namespace {

void Put16(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
  bytes[at] = uint8_t(value), bytes[at + 1] = uint8_t(value >> 8);
}
void Put32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
  Put16(bytes, at, value & 0xFFFF), Put16(bytes, at + 2, value >> 16);
}

bool ReadWith(FormatReader reader, Collection& collection, const test::ScratchDir& scratch, const std::vector<uint8_t>& bytes) {
  const std::string path = scratch.File("made.bin");
  test::WriteBytes(path, bytes);
  collection.SetText(kTextSourceFile, path);  // where waves find their samples
  FileObject file;
  EXPECT_TRUE(file.Open(path, FileMode::Read));
  return reader(&collection, &file, 0);
}

// An Impulse Tracker instrument file: head, key map, one 8-bit sample of four frames.
std::vector<uint8_t> MakeIti(uint16_t version) {
  std::vector<uint8_t> bytes(554 + 80 + 4, 0);
  std::memcpy(bytes.data(), "IMPI", 4);
  Put16(bytes, 0x1C, version);
  bytes[0x1E] = 1;  // samples
  std::memcpy(bytes.data() + 0x20, "Strings", 7);
  Put16(bytes, 0x3E, 0x0203);  // MIDI bank
  for (int key = 0; key < 120; ++key) {
    bytes[0x40 + key * 2] = uint8_t(key < 60 ? key : key - 12);  // the upper half an octave down
    bytes[0x41 + key * 2] = key < 100 ? 1 : 0;                  // no sample above key 99
  }
  const size_t sample = 554;
  std::memcpy(bytes.data() + sample, "IMPS", 4);
  bytes[sample + 0x12] = 1 | 16;  // has data, loops
  std::memcpy(bytes.data() + sample + 0x14, "pluck", 5);
  bytes[sample + 0x2E] = 1;  // signed
  Put32(bytes, sample + 0x30, 4);
  Put32(bytes, sample + 0x34, 1);
  Put32(bytes, sample + 0x38, 4);
  Put32(bytes, sample + 0x3C, 22050);
  Put32(bytes, sample + 0x48, uint32_t(sample + 80));
  for (int i = 0; i < 4; ++i) bytes[sample + 80 + i] = uint8_t(i * 32);
  return bytes;
}

TEST(TrackerModules, ImpulseInstrumentLayouts) {
  test::ScratchDir scratch;
  for (uint16_t version : {uint16_t(0x0100), uint16_t(0x0214)}) {
    SCOPED_TRACE(version);
    Collection collection;
    ASSERT_TRUE(ReadWith(ReadItInstrument, collection, scratch, MakeIti(version)));
    const std::vector<Instrument*> instruments = collection.All<Instrument>().ToVector();
    const std::vector<Waveform*> waves = collection.All<Waveform>().ToVector();
    ASSERT_EQ(instruments.size(), 1u);
    ASSERT_EQ(waves.size(), 1u);
    EXPECT_EQ(instruments[0]->GetName(), "Strings");
    EXPECT_EQ(instruments[0]->MajorBank(), version < 512 ? 0 : 2);
    EXPECT_EQ(instruments[0]->MinorBank(), version < 512 ? 0 : 3);
    EXPECT_EQ(waves[0]->GetName(), "pluck");
    EXPECT_EQ(waves[0]->sampleRate, 22050u);
    EXPECT_EQ(waves[0]->loop.start, 1.0f);
    EXPECT_EQ(waves[0]->loop.end, 4.0f);
    // Two runs of keys on the one sample, told apart by their transposition.
    std::vector<std::string> regions;
    for (uint32_t layerId : instruments[0]->children)
      for (uint32_t regionId : collection.Find<Layer>(layerId)->children) {
        const Region* region = collection.Find<Region>(regionId);
        regions.push_back(std::to_string(region->range.loKey) + "-" + std::to_string(region->range.hiKey) + "@" +
                          std::to_string(region->rootKey));
      }
    EXPECT_EQ(regions, (std::vector<std::string>{"0-59@60", "60-99@72"}));
    const float* samples = waves[0]->GetSamplesForRead();
    ASSERT_NE(samples, nullptr);
    EXPECT_FLOAT_EQ(samples[3], 96.0f / 128.0f);
  }
  // The sample alone, as an .its file.
  const std::vector<uint8_t> iti = MakeIti(0x0214);
  std::vector<uint8_t> its(iti.begin() + 554, iti.end());
  Put32(its, 0x48, 80);
  Collection collection;
  ASSERT_TRUE(ReadWith(ReadItSample, collection, scratch, its));
  ASSERT_EQ(collection.CountOf(ItemType::Waveform), 1u);
  EXPECT_EQ(collection.CountOf(ItemType::Instrument), 0u);
}

TEST(TrackerModules, SignaturesAndRefusals) {
  test::ScratchDir scratch;
  const std::vector<uint8_t> junk(2048, 0x11);
  const struct {
    FormatReader reader;
    const char* text;
  } refusals[] = {
      {ReadXmModule, "Not an XM - Extended Module file"},
      {ReadS3mModule, "Not an S3M module!"},
      {ReadItModule, "Not an Impulse Tracker file"},
      {ReadItInstrument, "Not an Impulse Tracker file"},
      {ReadItSample, "Not an Impulse Tracker file"},
      {ReadOtherModule<ModuleKind::MultiTracker>, "Not a MultiTracker module"},
      {ReadOtherModule<ModuleKind::Farandole>, "Not a Farandole module"},
  };
  for (const auto& refusal : refusals) {
    Collection collection;
    EXPECT_FALSE(ReadWith(refusal.reader, collection, scratch, junk));
    EXPECT_EQ(LastError(), refusal.text);
  }
  // An XM without instruments reads and yields nothing.
  std::vector<uint8_t> xm(60 + 276, 0);
  std::memcpy(xm.data(), "Extended Module: Empty", 22);
  Put32(xm, 60, 276);
  Collection collection;
  EXPECT_TRUE(ReadWith(ReadXmModule, collection, scratch, xm));
  EXPECT_EQ(collection.CountOf(ItemType::Waveform) + collection.CountOf(ItemType::Instrument), 0u);
  EXPECT_EQ(collection.GetName(), "Empty");
  // Each corpus module is detected by its content under a neutral name.
  ORLIN_REQUIRE_TESTDATA();
  const std::map<std::string, std::string> expected = {
      {"debian/cerror-bomberclone_numero_2.xm", "xm"}, {"debian/decision.s3m", "s3m"},
      {"debian/the_big_march_in_space.it", "it"},       {"debian/high-score.mod", "mod"},
      {"libxmp/TEMPO.MTM", "mtm"},                      {"libxmp/far_effect1.far", "far"},
      {"libxmp/porta.ult", "ult"},                      {"libxmp/OKT.Yes-PartII", "okt"},
      {"libxmp/hold.med", "med"},                       {"libxmp/pattern_jump_ptm_break.ptm", "ptm"},
  };
  for (const auto& [name, extension] : expected) {
    const std::vector<uint8_t> head = test::ReadBytes((test::TestDataDir() / "modules" / name).string());
    int32_t confidence = 0;
    const int32_t row = DetectFormatOfHead("file.bin", head.data(), uint32_t(std::min<size_t>(head.size(), kDetectHeadBytes)),
                                           head.size(), confidence);
    EXPECT_EQ(GetRowExtension(row), extension) << name;
  }
  // A module cut inside its pointer tables is neither announced as a module nor read as one.
  std::vector<uint8_t> it = test::ReadBytes((test::TestDataDir() / "modules/debian/the_big_march_in_space.it").string());
  const size_t tables = 0xC0 + (it[0x20] | it[0x21] << 8) + 4 * ((it[0x22] | it[0x23] << 8) + (it[0x24] | it[0x25] << 8));
  ASSERT_GT(it.size(), tables);
  EXPECT_EQ(DetectItModule(it.data(), 0, uint32_t(tables), tables), 6);
  it.resize(tables - 1);
  EXPECT_EQ(DetectItModule(it.data(), 0, uint32_t(it.size()), it.size()), 0);
  Collection cut;
  EXPECT_FALSE(ReadWith(ReadItModule, cut, scratch, it));
  EXPECT_EQ(LastError(), "Not an Impulse Tracker file");
}

}  // namespace
}  // namespace orlin
