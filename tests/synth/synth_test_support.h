// Helpers of the synthesizer tests: instruments built from generated waves, measurements taken from
// rendered output (frequency by interpolated zero crossings, RMS envelopes, correlation), and the
// allocation guard that fails the test when the render path allocates.
#pragma once
#include <atomic>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "core/collection.h"
#include "synth/synth_render.h"

namespace orlin::synth::test {

// A collection with generated waves and instruments.
struct GeneratedBank {
  Collection collection;
  // A mono sine of `hz` at `rate`, `frames` long; a forward loop over [loopStart, loopEnd) if given.
  Waveform* Sine(double hz, uint32_t rate, uint32_t frames, double loopStart = -1, double loopEnd = -1);
  // A mono wave of the given samples.
  Waveform* Samples(const std::vector<float>& samples, uint32_t rate);
  Instrument* NewInstrument(int program, bool drum = false);
};

// Counts allocations made while a ForbidAllocations scope is open, on any thread.
extern std::atomic<bool> gForbidAllocations;
extern std::atomic<int> gForbiddenAllocations;
// False in sanitizer builds, whose own allocator replaces ours: the count stays 0 there.
bool AllocationGuardActive();
struct ForbidAllocations {
  ForbidAllocations() { gForbidAllocations.store(true); }
  ~ForbidAllocations() { gForbidAllocations.store(false); }
};

// Frequency of a steady tone in `mono` from its first to last rising zero crossing, interpolated.
double MeasureFrequency(const std::vector<float>& mono, double rate);
std::vector<float> LeftChannel(const std::vector<float>& stereo);
std::vector<float> MonoMix(const std::vector<float>& stereo);
// RMS over windows of `window` frames of a mono signal.
std::vector<double> RmsEnvelope(const std::vector<float>& mono, size_t window);
double Correlation(const std::vector<double>& a, const std::vector<double>& b);
double Peak(const std::vector<float>& samples);

// A Standard MIDI file (format 0, 1000 ticks a quarter at 120 bpm: one tick is 0.5 ms) of the messages.
std::vector<uint8_t> MidiFileOf(const std::vector<TimedMessage>& messages);
// A dense General MIDI song: 16 channels, programs and drums, `notes` notes over `seconds`.
std::vector<TimedMessage> DenseSong(int notes, double seconds, uint64_t seed);

}  // namespace orlin::synth::test
