// Arbitrary message streams into an engine, with a corpus instrument (1496.sf2 from FluidSynth's test
// files, else TimGM6mb) and a generated one whose parameters the input sets. Records of four bytes:
// 0x00-0x3F set a parameter of the generated region (id from the next two bytes, value scaled into
// the row's bounds by the last), 0xF0-0xFF render up to eight blocks, anything else is a message to
// Dispatch. Rendering is capped so an input cannot run long.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "core/pipeline.h"
#include "core/user_interface.h"
#include "synth/synth_engine.h"

namespace {

using namespace orlin;

Collection& CorpusBank() {
  static Collection collection;
  static bool loaded = [] {
    const char* root = std::getenv("ORLIN_TESTDATA");
    const std::string testdata = root ? root : "../shared/testdata";
    for (const std::string& path : {testdata + "/soundfont/fluidsynth-testdata/1496.sf2",
                                    std::string("/work/shared/testdata/soundfont/fluidsynth-testdata/1496.sf2"),
                                    std::string("/usr/share/sounds/sf2/TimGM6mb.sf2")})
      if (std::filesystem::exists(path) && LoadFile(collection, path, false)) return true;
    return false;
  }();
  (void)loaded;
  return collection;
}

constexpr int kMaxBlocks = 3000;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Collection& bank = CorpusBank();
  Collection generated;
  auto* wave = new Waveform(&generated);
  WaveData* samples = WaveData::Create(2000, 1 + (size & 1), 22050.0f, false);
  for (uint32_t i = 0; i < 2000 * samples->channels; ++i) samples->samples[i] = std::sin(float(i) * 0.05f);
  wave->AdoptData(samples);
  samples->Release();
  wave->loop = LoopInfo{1, 0, 100.0f, 1900.0f, 0.0f};
  auto* instrument = new Instrument(&generated);
  instrument->SetPatch(0, 0, 1, false);
  Region* region = instrument->AddRegion(wave->id, kFullRange, kFullRange, 60);

  size_t at = 0;
  for (; at + 4 <= size && data[at] < 0x40; at += 4) {
    const ParamId id = ParamId((data[at + 1] << 8 | data[at + 2]) % 230);
    const ParamInfo* row = GetParamRow(id);
    if (!row || row->kind == 0 || id >= 209 || id == 206 || id == 207) continue;
    const float value = row->minValue + (row->maxValue - row->minValue) * float(data[at + 3]) / 255.0f;
    region->SetParam(id, value);
  }
  if (data[0] & 0x40) {
    // Loop points anywhere, fractional, even past the wave.
    wave->loop.start = float(size % 2500) + 0.25f;
    wave->loop.end = float((size * 7) % 2600) + 0.5f;
  }

  synth::SynthEngine engine(16, 24, 1.0f, 22050, 1);
  engine.SetHardLimit(true);
  const synth::SynthInstrument* own = engine.LoadInstrument(*instrument);
  int loadedFromBank = 0;
  for (const Instrument* item : bank.All<Instrument>()) {
    if (++loadedFromBank > 4) break;  // a few are enough; compiling costs time under the sanitizers
    engine.LoadInstrument(*item);
  }
  engine.SelectInstrument(0, own);
  float block[2 * synth::kBlockFrames];
  int blocks = 0;
  for (; at + 4 <= size; at += 4) {
    const uint8_t op = data[at];
    if (op >= 0xF0) {
      for (int i = 0; i <= (op & 7) && blocks < kMaxBlocks; ++i, ++blocks) {
        engine.RenderBlock(block);
        for (float s : block)
          if (!std::isfinite(s)) std::abort();
      }
    } else {
      engine.Dispatch(uint32_t(op) | uint32_t(data[at + 1]) << 8 | uint32_t(data[at + 2]) << 16 |
                      uint32_t(data[at + 3] & 1) << 24);
    }
  }
  for (int i = 0; i < 20; ++i) engine.RenderBlock(block);
  return 0;
}
