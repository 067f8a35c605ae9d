// What the processing tests share: waves made from sample lists, corpus waves, and sox runs on
// float data.
#pragma once
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"
#include "processing/wave_ops.h"
#include "processing/wizard.h"
#include "test_support.h"

namespace orlin::test {

// A decoded wave in `collection` holding `samples` (interleaved).
inline Waveform* MakeWave(Collection& collection, const std::vector<float>& samples, uint32_t channels = 1,
                          uint32_t rate = 44100, const std::string& name = "wave") {
  auto* wave = new Waveform(&collection);
  wave->SetName(name);
  wave->channels = uint8_t(channels);
  wave->sampleRate = rate;
  wave->length = uint32_t(samples.size() / channels);
  float* data = wave->AllocSamples();
  std::copy(samples.begin(), samples.end(), data);
  return wave;
}

inline std::vector<float> Samples(const Waveform& wave) {
  const float* data = wave.Data()->samples;
  return std::vector<float>(data, data + size_t(wave.length) * wave.channels);
}

// The first waveform of a corpus file, decoded; null (with a failure) when it does not load.
inline Waveform* LoadCorpusWave(Collection& collection, const std::string& relative) {
  const std::string path = (TestDataDir() / relative).string();
  if (!LoadFile(collection, path, false)) {
    ADD_FAILURE() << path << ": " << LastError();
    return nullptr;
  }
  for (Waveform* wave : collection.All<Waveform>()) {
    if (!wave->Preload()) ADD_FAILURE() << "decode failed";
    return wave;
  }
  ADD_FAILURE() << path << " holds no waveform";
  return nullptr;
}

// Writes `samples` as raw float, runs `sox -t f32 ... EFFECTS` and reads what sox wrote (at
// `outRate` when a rate effect changes it).
inline std::vector<float> RunSox(const std::vector<float>& samples, uint32_t channels, uint32_t rate,
                                 const std::string& effects, std::string* stderrText = nullptr,
                                 uint32_t outChannels = 0, uint32_t outRate = 0) {
  ScratchDir scratch;
  const std::string in = scratch.File("in.f32"), out = scratch.File("out.f32");
  std::vector<uint8_t> bytes(samples.size() * 4);
  std::memcpy(bytes.data(), samples.data(), bytes.size());
  WriteBytes(in, bytes);
  const std::string format = " -t f32 -c " + std::to_string(channels) + " -r " + std::to_string(rate) + " ";
  const std::string outFormat =
      " -t f32 -c " + std::to_string(outChannels ? outChannels : channels) + " -r " + std::to_string(outRate ? outRate : rate) + " ";
  const std::string command = "sox -D -V1" + format + in + outFormat + out + " " + effects + " 2>&1";
  std::string output;
  if (RunCommand(command, &output) != 0) {
    ADD_FAILURE() << command << ": " << output;
    return {};
  }
  if (stderrText) *stderrText = output;
  const std::vector<uint8_t> result = ReadBytes(out);
  std::vector<float> values(result.size() / 4);
  std::memcpy(values.data(), result.data(), values.size() * 4);
  return values;
}

// Largest absolute difference; a length mismatch is a failure.
inline double MaxDifference(const std::vector<float>& a, const std::vector<float>& b) {
  EXPECT_EQ(a.size(), b.size());
  double worst = 0.0;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) worst = std::max(worst, double(std::fabs(a[i] - b[i])));
  return worst;
}

}  // namespace orlin::test
