// Helpers of the synthesizer tests (the folder's test program is built from its *_test.cpp files).
#include "synth_test_support.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include "test_support.h"

// The allocation guard: every global allocation passes here; inside a ForbidAllocations scope it is
// counted as a fault (and still served, so the test can report rather than crash). Sanitizer builds
// keep their own operators, which see every allocation and free.
std::atomic<bool> orlin::synth::test::gForbidAllocations{false};
std::atomic<int> orlin::synth::test::gForbiddenAllocations{0};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ORLIN_ALLOCATION_GUARD 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define ORLIN_ALLOCATION_GUARD 0
#endif
#endif
#ifndef ORLIN_ALLOCATION_GUARD
#define ORLIN_ALLOCATION_GUARD 1
#endif

bool orlin::synth::test::AllocationGuardActive() { return ORLIN_ALLOCATION_GUARD; }

#if ORLIN_ALLOCATION_GUARD
namespace {
void* GuardedAllocate(std::size_t size, std::size_t alignment) {
  if (orlin::synth::test::gForbidAllocations.load(std::memory_order_relaxed))
    orlin::synth::test::gForbiddenAllocations.fetch_add(1);
  void* block = alignment > alignof(std::max_align_t)
                    ? std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment)
                    : std::malloc(size ? size : 1);
  if (!block) throw std::bad_alloc();
  return block;
}
}  // namespace

void* operator new(std::size_t size) { return GuardedAllocate(size, 0); }
void* operator new[](std::size_t size) { return GuardedAllocate(size, 0); }
void* operator new(std::size_t size, std::align_val_t a) { return GuardedAllocate(size, std::size_t(a)); }
void* operator new[](std::size_t size, std::align_val_t a) { return GuardedAllocate(size, std::size_t(a)); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
#endif

namespace orlin::synth::test {

Waveform* GeneratedBank::Samples(const std::vector<float>& samples, uint32_t rate) {
  auto* wave = new Waveform(&collection);
  WaveData* data = WaveData::Create(uint32_t(samples.size()), 1, float(rate), false);
  std::copy(samples.begin(), samples.end(), data->samples);
  wave->AdoptData(data);
  data->Release();
  wave->loop.end = float(samples.size());
  return wave;
}

Waveform* GeneratedBank::Sine(double hz, uint32_t rate, uint32_t frames, double loopStart, double loopEnd) {
  std::vector<float> samples(frames);
  for (uint32_t i = 0; i < frames; ++i) samples[i] = float(0.5 * std::sin(2.0 * M_PI * hz * i / rate));
  Waveform* wave = Samples(samples, rate);
  if (loopStart >= 0) {
    wave->loop.type = 1;
    wave->loop.start = float(loopStart);
    wave->loop.end = float(loopEnd);
  }
  return wave;
}

Instrument* GeneratedBank::NewInstrument(int program, bool drum) {
  auto* instrument = new Instrument(&collection);
  instrument->SetPatch(0, 0, program, drum);
  return instrument;
}

double MeasureFrequency(const std::vector<float>& mono, double rate) {
  double first = -1, last = -1;
  int crossings = 0;
  for (size_t i = 1; i < mono.size(); ++i) {
    if (mono[i - 1] < 0.0f && mono[i] >= 0.0f) {
      const double at = double(i - 1) + mono[i - 1] / double(mono[i - 1] - mono[i]);
      if (first < 0) first = at;
      else ++crossings;
      last = at;
    }
  }
  if (crossings < 1) return 0.0;
  return crossings * rate / (last - first);
}

std::vector<float> LeftChannel(const std::vector<float>& stereo) {
  std::vector<float> out(stereo.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) out[i] = stereo[2 * i];
  return out;
}

std::vector<float> MonoMix(const std::vector<float>& stereo) {
  std::vector<float> out(stereo.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) out[i] = 0.5f * (stereo[2 * i] + stereo[2 * i + 1]);
  return out;
}

std::vector<double> RmsEnvelope(const std::vector<float>& mono, size_t window) {
  std::vector<double> out;
  for (size_t start = 0; start + window <= mono.size(); start += window) {
    double sum = 0;
    for (size_t i = start; i < start + window; ++i) sum += double(mono[i]) * mono[i];
    out.push_back(std::sqrt(sum / double(window)));
  }
  return out;
}

double Correlation(const std::vector<double>& a, const std::vector<double>& b) {
  const size_t n = std::min(a.size(), b.size());
  if (n < 2) return 0.0;
  double ma = 0, mb = 0;
  for (size_t i = 0; i < n; ++i) ma += a[i], mb += b[i];
  ma /= double(n), mb /= double(n);
  double sab = 0, saa = 0, sbb = 0;
  for (size_t i = 0; i < n; ++i) {
    sab += (a[i] - ma) * (b[i] - mb);
    saa += (a[i] - ma) * (a[i] - ma);
    sbb += (b[i] - mb) * (b[i] - mb);
  }
  return saa > 0 && sbb > 0 ? sab / std::sqrt(saa * sbb) : 0.0;
}

double Peak(const std::vector<float>& samples) {
  double peak = 0;
  for (float s : samples) peak = std::max(peak, double(std::fabs(s)));
  return peak;
}

std::vector<uint8_t> MidiFileOf(const std::vector<TimedMessage>& messages) {
  std::vector<uint8_t> track;
  uint64_t lastTick = 0;
  auto varLength = [&](uint64_t value) {
    uint8_t bytes[10];
    int n = 0;
    bytes[n++] = uint8_t(value & 0x7F);
    while (value >>= 7) bytes[n++] = uint8_t(0x80 | (value & 0x7F));
    while (n) track.push_back(bytes[--n]);
  };
  for (const TimedMessage& m : messages) {
    const uint64_t tick = uint64_t(std::llround(m.seconds * 2000.0));
    varLength(tick - std::min(tick, lastTick));
    lastTick = std::max(tick, lastTick);
    const int status = int(m.message & 0xFF);
    track.push_back(uint8_t(status));
    track.push_back(uint8_t((m.message >> 8) & 0x7F));
    if ((status & 0xF0) != 0xC0 && (status & 0xF0) != 0xD0) track.push_back(uint8_t((m.message >> 16) & 0x7F));
  }
  varLength(2000);  // one second of tail before the end of the track
  track.insert(track.end(), {0xFF, 0x2F, 0x00});
  std::vector<uint8_t> file = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0x03, 0xE8, 'M', 'T', 'r', 'k'};
  const uint32_t size = uint32_t(track.size());
  for (int shift = 24; shift >= 0; shift -= 8) file.push_back(uint8_t(size >> shift));
  file.insert(file.end(), track.begin(), track.end());
  return file;
}

std::vector<TimedMessage> DenseSong(int notes, double seconds, uint64_t seed) {
  orlin::test::SeededRandom random(seed);
  std::vector<TimedMessage> song;
  for (int c = 0; c < 16; ++c) {
    if (c != 9) song.push_back({0.0, PackMessage(0xC0 | c, int(random.Next() % 128), 0)});
    song.push_back({0.0, PackMessage(0xB0 | c, 10, int(random.Next() % 128))});
  }
  struct Pending {
    double off;
    uint32_t message;
  };
  std::vector<Pending> offs;
  for (int n = 0; n < notes; ++n) {
    const double at = seconds * n / notes;
    const int channel = int(random.Next() % 16);
    const int key = channel == 9 ? 35 + int(random.Next() % 47) : 36 + int(random.Next() % 48);
    const int velocity = 40 + int(random.Next() % 88);
    song.push_back({at, PackMessage(0x90 | channel, key, velocity)});
    offs.push_back({at + 0.1 + double(random.Next() % 1000) / 1000.0, PackMessage(0x80 | channel, key, 0)});
  }
  for (const Pending& off : offs) song.push_back({off.off, off.message});
  std::stable_sort(song.begin(), song.end(), [](const TimedMessage& a, const TimedMessage& b) { return a.seconds < b.seconds; });
  return song;
}

}  // namespace orlin::synth::test
