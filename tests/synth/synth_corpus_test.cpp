// The engine on banks nobody here wrote (Debian's General MIDI SoundFonts), checked against
// FluidSynth: the RMS envelope of a probe of notes must follow FluidSynth's. Also the real-time
// rules on a dense song: no allocation inside Dispatch and RenderBlock, and the same output from one
// worker as from four.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "core/pipeline.h"
#include "synth_test_support.h"
#include "test_support.h"

namespace orlin::synth {
namespace {

const char* kTimBank = "/usr/share/sounds/sf2/TimGM6mb.sf2";
const char* kFluidBank = "/usr/share/sounds/sf2/FluidR3_GM.sf2";

// A bank loaded once per test program and compiled into engines on demand.
struct LoadedBank {
  Collection collection;
  bool ok = false;
};
LoadedBank& Bank(const std::string& path) {
  static std::map<std::string, std::unique_ptr<LoadedBank>> banks;
  auto& slot = banks[path];
  if (!slot) {
    slot = std::make_unique<LoadedBank>();
    orlin::test::ScriptedUserInterface ui;
    orlin::test::ScopedUserInterface scope(ui);
    slot->ok = std::filesystem::exists(path) && LoadFile(slot->collection, path, false);
  }
  return *slot;
}
#define REQUIRE_BANK(path)                                                      \
  do {                                                                          \
    if (!Bank(path).ok) GTEST_SKIP() << path << " is not installed (fluid-soundfont-gm, timgm6mb-soundfont)"; \
  } while (0)

void LoadAll(SynthEngine& engine, const Collection& collection) {
  for (const Instrument* instrument : collection.All<Instrument>()) engine.LoadInstrument(*instrument);
}

TEST(SynthCorpus, DenseSongRendersWithoutAllocationAndAlikeOnOneOrFourWorkers) {
  REQUIRE_BANK(kTimBank);
  const std::vector<TimedMessage> song = test::DenseSong(1000, 4.0, 11);
  std::vector<float> outputs[2];
  int maxVoices[2] = {};
  const int workers[2] = {1, 4};
  for (int run = 0; run < 2; ++run) {
    SynthEngine engine(16, 256, -1.0f, 44100, workers[run]);
    LoadAll(engine, Bank(kTimBank).collection);
    engine.Dispatch(PackMessage(0xB9, kControllerDrumMap, 127));
    std::vector<float>& out = outputs[run];
    const size_t blocks = size_t(5.0 * 44100 / kBlockFrames);
    out.assign(blocks * 2 * kBlockFrames, 0.0f);
    size_t next = 0;
    test::gForbiddenAllocations.store(0);
    for (size_t block = 0; block < blocks; ++block) {
      const double blockEnd = double((block + 1) * kBlockFrames) / 44100.0;
      test::ForbidAllocations guard;
      while (next < song.size() && song[next].seconds < blockEnd) engine.Dispatch(song[next++].message);
      engine.RenderBlock(out.data() + block * 2 * kBlockFrames);
      maxVoices[run] = std::max(maxVoices[run], engine.VoiceCount());
    }
    if (test::AllocationGuardActive()) {
      EXPECT_EQ(test::gForbiddenAllocations.load(), 0) << workers[run] << " workers";
    }
  }
  EXPECT_GT(maxVoices[0], 100) << "the song must be dense enough to bring in the workers";
  EXPECT_EQ(maxVoices[0], maxVoices[1]);
  const double peak = test::Peak(outputs[0]);
  ASSERT_GT(peak, 0.01);
  double worst = 0;
  for (size_t i = 0; i < outputs[0].size(); ++i) worst = std::max(worst, double(std::fabs(outputs[0][i] - outputs[1][i])));
  EXPECT_LT(worst, 1e-5 * peak) << "only the order of summing within a channel may differ";
}

// The probe of the bank-fidelity tool: keys 36, 60, 84 at velocities 60 and 120, 0.6 s each with
// 0.25 s gaps, one preset after another.
struct ProbeSegment {
  int bank, program;
  std::string name;
  double start, end;
};
std::vector<TimedMessage> Probe(const std::vector<const Instrument*>& presets, std::vector<ProbeSegment>& segments) {
  std::vector<TimedMessage> song;
  double t = 0;
  for (const Instrument* preset : presets) {
    const bool drum = preset->IsDrumKit();
    const int channel = drum ? 9 : 0;
    if (!drum) song.push_back({t, PackMessage(0xB0, 0, preset->MajorBank())});
    song.push_back({t, PackMessage(0xC0 | channel, preset->Program(), 0)});
    const double start = t + 0.05;
    double at = start;
    for (int key : {36, 60, 84})
      for (int velocity : {60, 120}) {
        song.push_back({at, PackMessage(0x90 | channel, key, velocity)});
        song.push_back({at + 0.6, PackMessage(0x80 | channel, key, 0)});
        at += 0.85;
      }
    segments.push_back({drum ? 128 : preset->MajorBank(), preset->Program(), preset->GetName(), start, at});
    t = at + 0.2;
  }
  return song;
}

// Spectral centroid in Hz of a mono signal: magnitude-weighted, by a plain DFT on frames of 1024
// taken every 8192 frames, every second bin.
double Centroid(const std::vector<float>& x, double rate) {
  const size_t n = 1024;
  double weighted = 0, total = 0;
  for (size_t start = 0; start + n <= x.size(); start += 8192) {
    for (size_t k = 1; k < n / 2; k += 2) {
      double re = 0, im = 0;
      for (size_t i = 0; i < n; ++i) {
        const double phase = 2 * M_PI * double(k) * double(i) / double(n);
        re += x[start + i] * std::cos(phase), im -= x[start + i] * std::sin(phase);
      }
      const double power = std::sqrt(re * re + im * im);
      weighted += power * double(k) * rate / double(n);
      total += power;
    }
  }
  return total > 0 ? weighted / total : 0.0;
}

struct PresetResult {
  ProbeSegment segment;
  double correlation = 1.0;      // of the whole probe: level steps between velocities count
  double noteCorrelation = 1.0;  // mean over the notes, each note's envelope shape on its own
  double centroidOurs = 0, centroidTheirs = 0, levelDb = 0;
  bool silent = false;
};

// Renders the probe of `presets` through FluidSynth and through the engine; one result per preset.
std::vector<PresetResult> CompareWithFluidSynth(const std::string& bankPath, const std::vector<const Instrument*>& presets,
                                                const orlin::test::ScratchDir& scratch) {
  std::vector<ProbeSegment> segments;
  const std::vector<TimedMessage> probe = Probe(presets, segments);
  orlin::test::WriteBytes(scratch.File("probe.mid"), test::MidiFileOf(probe));
  const std::string theirsPath = scratch.File("theirs.f32");
  const std::string command = "fluidsynth -ni -q -g 1 -R 0 -C 0 -r 44100 -T raw -O float -F '" + theirsPath + "' '" +
                              bankPath + "' '" + scratch.File("probe.mid") + "' >/dev/null 2>&1";
  if (orlin::test::RunCommand(command) != 0) return {};
  const std::vector<uint8_t> bytes = orlin::test::ReadBytes(theirsPath);
  std::vector<float> theirs(bytes.size() / 4);
  std::memcpy(theirs.data(), bytes.data(), theirs.size() * 4);

  SynthEngine engine(16, 256, 1.0f, 44100, 0);
  for (const Instrument* preset : presets) engine.LoadInstrument(*preset);
  std::vector<float> ours;
  RenderRequest request;
  request.tailSeconds = 1.0;
  RenderMessages(engine, probe, request, ours);

  const std::vector<float> a = test::MonoMix(ours), b = test::MonoMix(theirs);
  std::vector<PresetResult> results;
  for (const ProbeSegment& segment : segments) {
    const size_t from = size_t(segment.start * 44100), to = size_t(segment.end * 44100);
    if (to > a.size() || to > b.size()) break;
    const std::vector<float> x(a.begin() + long(from), a.begin() + long(to)), y(b.begin() + long(from), b.begin() + long(to));
    PresetResult result;
    result.segment = segment;
    const auto ex = test::RmsEnvelope(x, 441), ey = test::RmsEnvelope(y, 441);
    double sx = 0, sy = 0;
    for (float s : x) sx += double(s) * s;
    for (float s : y) sy += double(s) * s;
    result.silent = sx < 1e-8 && sy < 1e-8;
    result.correlation = result.silent ? 1.0 : test::Correlation(ex, ey);
    // Each note is 0.85 s: 85 windows of 10 ms.
    double sum = 0;
    int notes = 0;
    for (size_t n = 0; (n + 1) * 85 <= std::min(ex.size(), ey.size()); ++n) {
      const std::vector<double> nx(ex.begin() + long(n * 85), ex.begin() + long((n + 1) * 85));
      const std::vector<double> ny(ey.begin() + long(n * 85), ey.begin() + long((n + 1) * 85));
      if (*std::max_element(nx.begin(), nx.end()) < 1e-4 && *std::max_element(ny.begin(), ny.end()) < 1e-4) continue;
      sum += test::Correlation(nx, ny);
      ++notes;
    }
    result.noteCorrelation = notes ? sum / notes : 1.0;
    result.levelDb = 10 * std::log10((sx + 1e-20) / (sy + 1e-20));
    result.centroidOurs = Centroid(x, 44100);
    result.centroidTheirs = Centroid(y, 44100);
    results.push_back(result);
  }
  return results;
}

// The SoundFont reader takes the velocity-to-attenuation modulator at 0.4 of its amount, as the
// hardware the banks were made for does; FluidSynth takes all of it. Scaling it back up lines the
// velocity curves up, so the comparison sees everything else.
void AlignVelocityCurve(const Collection& collection) {
  for (Region* region : collection.All<Region>())
    region->articulation.Set(15, std::clamp(region->articulation.Get(15) / 0.4f, -96.0f, 96.0f));
}

std::vector<const Instrument*> Presets(const Collection& collection) {
  std::vector<const Instrument*> out;
  for (const Instrument* instrument : collection.All<Instrument>()) out.push_back(instrument);
  return out;
}

TEST(SynthCorpus, EnvelopesFollowFluidSynthOnGeneralMidiPresets) {
  REQUIRE_BANK(kTimBank);
  ORLIN_REQUIRE_TOOL("fluidsynth");
  orlin::test::ScratchDir scratch;
  std::vector<const Instrument*> chosen;
  // Piano, nylon guitar, violin, trumpet, flute, pad, and the drum kit.
  for (const Instrument* preset : Presets(Bank(kTimBank).collection))
    if ((!preset->IsDrumKit() && preset->MajorBank() == 0 &&
         (preset->Program() == 0 || preset->Program() == 24 || preset->Program() == 40 || preset->Program() == 56 ||
          preset->Program() == 73 || preset->Program() == 89)) ||
        (preset->IsDrumKit() && preset->Program() == 0))
      chosen.push_back(preset);
  ASSERT_EQ(chosen.size(), 7u);
  AlignVelocityCurve(Bank(kTimBank).collection);
  const std::vector<PresetResult> results = CompareWithFluidSynth(kTimBank, chosen, scratch);
  ASSERT_EQ(results.size(), chosen.size());
  for (const PresetResult& r : results) {
    EXPECT_GE(r.correlation, 0.9) << r.segment.name;
    EXPECT_LT(std::fabs(std::log2((r.centroidOurs + 1) / (r.centroidTheirs + 1))), 1.0) << r.segment.name;
  }
}

// The full comparison report over both banks, run by hand (it takes minutes):
//   ORLIN_SYNTH_FIDELITY_REPORT=report.txt build/tests/synth_tests --gtest_filter='*FidelityReport*'
TEST(SynthCorpus, FidelityReport) {
  const char* reportPath = std::getenv("ORLIN_SYNTH_FIDELITY_REPORT");
  if (!reportPath) GTEST_SKIP() << "set ORLIN_SYNTH_FIDELITY_REPORT to write the report";
  ORLIN_REQUIRE_TOOL("fluidsynth");
  std::ofstream report(reportPath);
  for (const char* path : {kTimBank, kFluidBank}) {
    if (!Bank(path).ok) continue;
    orlin::test::ScratchDir scratch;
    const std::vector<PresetResult> asRead = CompareWithFluidSynth(path, Presets(Bank(path).collection), scratch);
    AlignVelocityCurve(Bank(path).collection);
    const std::vector<PresetResult> results = CompareWithFluidSynth(path, Presets(Bank(path).collection), scratch);
    int goodAsRead = 0;
    for (const PresetResult& r : asRead) goodAsRead += r.correlation >= 0.95;
    int good = 0, goodNotes = 0, centroidClose = 0;
    std::vector<double> correlations, noteCorrelations, centroidOctaves, levels;
    std::ostringstream lines;
    for (const PresetResult& r : results) {
      const double octaves = std::log2((r.centroidOurs + 1) / (r.centroidTheirs + 1));
      good += r.correlation >= 0.95;
      goodNotes += r.noteCorrelation >= 0.95;
      noteCorrelations.push_back(r.noteCorrelation);
      centroidClose += std::fabs(octaves) <= 0.5;
      correlations.push_back(r.correlation);
      centroidOctaves.push_back(octaves);
      levels.push_back(r.levelDb);
      char line[200];
      std::snprintf(line, sizeof line, "%3d:%3d %-22s probe %6.3f  notes %6.3f  centroid %7.0f / %7.0f Hz (%+5.2f oct)  level %+6.1f dB\n",
                    r.segment.bank, r.segment.program, r.segment.name.substr(0, 22).c_str(), r.correlation, r.noteCorrelation,
                    r.centroidOurs, r.centroidTheirs, octaves, r.levelDb);
      lines << line;
    }
    auto median = [](std::vector<double> v) {
      if (v.empty()) return 0.0;
      std::sort(v.begin(), v.end());
      return v[v.size() / 2];
    };
    report << path << ": " << results.size() << " presets; envelope correlation >= 0.95: " << goodNotes
           << " note by note, " << good << " over the whole probe with the velocity curves aligned, " << goodAsRead
           << " as read; "
           << centroidClose << "/" << results.size() << " with centroids within half an octave; median correlation "
           << median(noteCorrelations) << " note by note, " << median(correlations) << " whole probe" << ", median centroid difference " << median(centroidOctaves)
           << " octaves, median level difference " << median(levels) << " dB\n"
           << lines.str() << "\n";
  }
}

TEST(SynthCorpus, RenderNoteWritesAWaveThatSoxReadsAndKeepsExistingFiles) {
  REQUIRE_BANK(kTimBank);
  ORLIN_REQUIRE_TOOL("sox");
  orlin::test::ScratchDir scratch;
  const std::string out = scratch.File("note.wav");
  auto command = [&](int key) {
    return orlin::test::OrlinProgram() + " render-note " + kTimBank + " --preset 0:0 --key " + std::to_string(key) +
           " --velocity 100 --seconds 0.5 -o '" + out + "'";
  };
  ASSERT_EQ(orlin::test::RunCommand(command(69) + " >/dev/null 2>&1"), 0);
  std::string stats;
  orlin::test::RunCommand("sox '" + out + "' -n stat 2>&1", &stats);
  EXPECT_NE(stats.find("Length (seconds)"), std::string::npos) << stats;
  const double length = std::atof(stats.substr(stats.find("Length (seconds):") + 17).c_str());
  EXPECT_GT(length, 0.5);
  EXPECT_LT(length, 10.6);
  const double peak = std::atof(stats.substr(stats.find("Maximum amplitude:") + 18).c_str());
  EXPECT_GT(peak, 0.01);
  // A second run leaves the file alone and fails unless told to replace it; no temporary is left.
  const auto before = orlin::test::ReadBytes(out);
  EXPECT_EQ(orlin::test::RunCommand(command(40) + " >/dev/null 2>&1"), 1);
  EXPECT_EQ(orlin::test::ReadBytes(out), before);
  EXPECT_EQ(orlin::test::RunCommand(command(40) + " -y >/dev/null 2>&1"), 0);
  EXPECT_NE(orlin::test::ReadBytes(out), before);
  for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(out).parent_path()))
    EXPECT_EQ(entry.path().filename().string().find(".part"), std::string::npos) << entry.path();
}

}  // namespace
}  // namespace orlin::synth
