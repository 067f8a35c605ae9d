// The voice engine: messages, note-on with its trigger rules, stealing, the per-block voice work
// shared among workers, mixing into channels, and the removal of finished voices that keeps the
// voice array packed. Everything here after the constructor runs without allocation.
#include "synth/synth_engine.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace orlin::synth {

namespace {

constexpr float kQuietGain = 1e-6f;         // a voice below this is skipped for the block
constexpr float kEndLevel = 0.004f;         // a finished V-ENV below this ends the voice
constexpr float kSoftPedalDb = 9.0f;
constexpr float kDbToLog = 0.115129255f;    // ln(10) / 20
constexpr float kRandomScale = 6.103702e-05f;  // 2 / 32767: a 15-bit random number to -1..1
constexpr uint32_t kDrumBit = 1u << 21;
constexpr uint32_t kEndlessRepeats = 255;

void SpinLock(std::atomic_flag& flag) {
  while (flag.test_and_set(std::memory_order_acquire))
    while (flag.test(std::memory_order_relaxed)) {
    }
}
void SpinUnlock(std::atomic_flag& flag) { flag.clear(std::memory_order_release); }

EnvelopeRecord EnvelopeFromValues(const float* v, int index) {
  const float* e = v + kParamFirstEnvelope + kEnvelopeRows * index;
  EnvelopeRecord r;
  r.levels = {e[0], e[4], e[8], e[12], e[16], e[18], e[20], e[22]};
  r.times = {e[1], e[5], e[9], e[13], e[17], e[19], e[21]};
  r.velocityTo = {e[2], e[6], e[10], e[14], e[23]};
  r.keyTo = {e[3], e[7], e[11], e[15], e[24]};
  r.releaseMode = e[25];
  r.shutdownRate = v[kParamFirstEnvelope + 26];  // one shutdown rate, at the V-ENV
  return r;
}

// Equal-power pan from the polynomial sine: left = cos, right = sin of (p + 1) / 8 of a cycle.
void PanGains(float pan, float& left, float& right) {
  if (pan <= -1.0f) {
    left = 1.0f, right = 0.0f;
  } else if (pan >= 1.0f) {
    left = 0.0f, right = 1.0f;
  } else {
    const float phase = (pan + 1.0f) / 8.0f;
    left = PolyCosine(phase);
    right = PolySine(phase);
  }
}

// 4-point Catmull-Rom at a position that is never negative (so the cut is the floor).
inline float CatmullRom(const float* samples, double position) {
  const int64_t whole = int64_t(position);
  const float t = float(position - double(whole));
  const float* p = samples + whole;
  const float p0 = p[-1], p1 = p[0], p2 = p[1], p3 = p[2];
  return p1 + 0.5f * t * (p2 - p0 + t * (2.0f * p0 - 5.0f * p1 + 4.0f * p2 - p3 + t * (3.0f * (p1 - p2) + p3 - p0)));
}
inline void CatmullRomStereo(const float* samples, double position, float* out) {
  const int64_t whole = int64_t(position);
  const float t = float(position - double(whole));
  const float* p = samples + 2 * whole;
  const float w0 = 0.5f * t * (-1.0f + t * (2.0f - t));
  const float w1 = 1.0f + 0.5f * t * t * (-5.0f + 3.0f * t);
  const float w2 = 0.5f * t * (1.0f + t * (4.0f - 3.0f * t));
  const float w3 = 0.5f * t * t * (t - 1.0f);
  out[0] = w0 * p[-2] + w1 * p[0] + w2 * p[2] + w3 * p[4];
  out[1] = w0 * p[-1] + w1 * p[1] + w2 * p[3] + w3 * p[5];
}

float FadeGain(int distance, int fade, uint8_t formula) {
  const float g = float(distance + 1) / float(fade + 1);
  return formula == 1 ? g : std::sqrt(g);
}

}  // namespace

bool RaiseAudioThreadPriority() {
  sched_param param{};
  param.sched_priority = std::max(sched_get_priority_min(SCHED_FIFO), sched_get_priority_max(SCHED_FIFO) / 2);
  if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0) return true;
  // Without the right to real-time scheduling, a lower nice value where permitted; else as it was.
  const pid_t tid = pid_t(syscall(SYS_gettid));
  return setpriority(PRIO_PROCESS, id_t(tid), -10) == 0;
}

// ---------------------------------------------------------------------------------------------
// Position

void PositionRecord::Settle() {
  for (;;) {
    Zone& zone = zones[zoneIndex];
    if (direction > 0 ? position < zone.end : position >= zoneStart) return;
    if (zone.repeats < kEndlessRepeats) --zone.repeats;
    if (zone.repeats == 0) {
      if (zoneIndex + 1 >= zoneCount) {
        position = zone.end + 1.0;
        done = true;
        return;
      }
      zoneStart = zone.end;
      ++zoneIndex;
      Zone& next = zones[zoneIndex];
      if (next.breakOnRelease && released) next.repeats = 1;
      if (tuneState == 2) {
        step /= tuneMultiplier;
        tuneState = 1;
      }
      continue;
    }
    // A step longer than the loop would wrap many times in one frame: fold the overshoot first
    // (by one loop length when wrapping, by two when bouncing).
    const double length = zone.end - zoneStart;
    const double period = (direction > 0 ? zone.loopType == kLoopForward : zone.loopType == kLoopReverse) ? length : 2 * length;
    if (direction > 0 && position - zone.end >= period) position = zone.end + std::fmod(position - zone.end, period);
    if (direction < 0 && zoneStart - position >= period) position = zoneStart - std::fmod(zoneStart - position, period);
    if (direction > 0) {
      if (zone.loopType == kLoopForward) {
        position -= length;
      } else {
        direction = -1;
        step = -step;
        position = zone.end - (position - zone.end);
      }
    } else {
      if (zone.loopType == kLoopReverse) {
        position += length;
      } else {
        direction = 1;
        step = -step;
        position = zoneStart - (position - zoneStart);
      }
    }
    if (tuneState == 1) {
      step *= tuneMultiplier;
      tuneState = 2;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Engine

struct SynthEngine::Worker {
  std::binary_semaphore wake{0};
  std::thread thread;
};

SynthEngine::SynthEngine(int channels, int voices, float masterGain, int sampleRate, int workers) {
  channels = std::max(channels, 1);
  voices = std::clamp(voices, 1, 32767);
  masterGain_ = masterGain < 0.0f ? 1.0f / std::sqrt(float(voices)) : masterGain;
  voices_.resize(size_t(voices));
  notes_.resize(size_t(voices));
  channels_.resize(size_t(channels));
  shadows_.resize(size_t(channels));
  for (int c = 0; c < channels; ++c) mixes_.push_back(std::make_unique<ChannelMix>());
  ring_ = std::make_unique<EngineEvent[]>(kEventRingSize);
  instrumentMap_.reserve(1024);
  SetSampleRate(sampleRate > 0 ? sampleRate : 44100);
  for (int c = 0; c < channels; ++c) UpdateChannelGain(c);
  int count = workers > 0 ? workers : int(std::max(1u, std::thread::hardware_concurrency()));
  count = std::clamp(count, 1, kMaxWorkers);
  for (int i = 1; i < count; ++i) {
    auto worker = std::make_unique<Worker>();
    Worker* raw = worker.get();
    try {
      worker->thread = std::thread([this, raw] { WorkerLoop(raw); });
    } catch (...) {
      continue;  // a worker that cannot start is dropped; the job runs on the rest
    }
    workers_.push_back(std::move(worker));
  }
}

SynthEngine::~SynthEngine() {
  Stop();
  for (auto& instrument : instruments_) ReleaseInstrumentSamples(*instrument, samples_);
}

void SynthEngine::Stop() {
  stopping_.store(true);
  for (auto& worker : workers_) worker->wake.release();
  for (auto& worker : workers_)
    if (worker->thread.joinable()) worker->thread.join();
  workers_.clear();
}

void SynthEngine::WorkerLoop(Worker* worker) {
  RaiseAudioThreadPriority();
  for (;;) {
    worker->wake.acquire();
    if (stopping_.load()) return;
    RunVoiceJob();
    workersBusy_.fetch_sub(1, std::memory_order_acq_rel);
  }
}

void SynthEngine::SetSampleRate(int rate) {
  const int count = voiceCount_.load();
  for (int i = count - 1; i >= 0; --i) RemoveVoiceAt(i);
  sampleRate_ = rate;
  inverseRate_ = 1.0f / float(rate);
  for (SynthChannel& channel : channels_) channel.rampRate = int32_t(float(rate) * (1.0f / 2560.0f));
  if (effects_)
    for (size_t c = 0; c < channels_.size(); ++c)
      if (channels_[c].instrument) effects_->Configure(int(c), channels_[c].instrument->effectSlots, rate);
}

const SynthInstrument* SynthEngine::LoadInstrument(const Instrument& instrument) {
  auto compiled = std::make_unique<SynthInstrument>();
  CompileInstrument(instrument, samples_, *compiled);
  const SynthInstrument* raw = compiled.get();
  SpinLock(mapLock_);
  instruments_.push_back(std::move(compiled));
  instrumentMap_.emplace(raw->patch, raw);
  SpinUnlock(mapLock_);
  return raw;
}

const SynthInstrument* SynthEngine::FindInstrument(uint32_t patch) {
  SpinLock(mapLock_);
  auto found = instrumentMap_.find(patch);
  const SynthInstrument* result = found == instrumentMap_.end() ? nullptr : found->second;
  SpinUnlock(mapLock_);
  return result;
}

void SynthEngine::SelectInstrument(int channel, const SynthInstrument* instrument) {
  if (channel < 0 || size_t(channel) >= channels_.size()) return;
  channels_[size_t(channel)].instrument = instrument;
  if (instrument) shadows_[size_t(channel)].patch = instrument->patch;
  if (instrument && effects_) effects_->Configure(channel, instrument->effectSlots, sampleRate_);
}

void SynthEngine::ReplaceInstrument(const SynthInstrument* old, const SynthInstrument* replacement) {
  pendingOld_.store(old);
  pendingNew_.store(replacement);
  pendingRequest_.store(true, std::memory_order_release);
  while (pendingRequest_.load(std::memory_order_acquire)) std::this_thread::yield();
}

void SynthEngine::RemoveInstrument(const SynthInstrument* instrument) { ReplaceInstrument(instrument, nullptr); }

void SynthEngine::CarryOutPending() {
  const SynthInstrument* old = pendingOld_.load();
  const SynthInstrument* replacement = pendingNew_.load();
  if (old) {
    for (int i = voiceCount_.load() - 1; i >= 0; --i)
      if (voices_[size_t(i)].region && voices_[size_t(i)].note >= 0) {
        const SynthRegion* region = voices_[size_t(i)].region;
        if (region >= old->regions.data() && region < old->regions.data() + old->regions.size()) RemoveVoiceAt(i);
      }
    for (SynthChannel& channel : channels_)
      if (channel.instrument == old) channel.instrument = replacement;
    SpinLock(mapLock_);
    for (auto it = instrumentMap_.begin(); it != instrumentMap_.end();) {
      if (it->second == old) {
        if (replacement) {
          it->second = replacement;
          ++it;
        } else {
          it = instrumentMap_.erase(it);
        }
      } else {
        ++it;
      }
    }
    SpinUnlock(mapLock_);
  }
  pendingOld_.store(nullptr);
  pendingNew_.store(nullptr);
  pendingRequest_.store(false, std::memory_order_release);
}

void SynthEngine::PostEvent(uint32_t message, uint32_t timeMs) {
  if (message == 0) return;
  const uint32_t block = uint32_t((uint64_t(timeMs) * uint64_t(sampleRate_) + 500) / 64000);
  uint32_t index = ringWrite_.load(std::memory_order_relaxed);
  while (!ringWrite_.compare_exchange_weak(index, index + 1, std::memory_order_acq_rel)) {
  }
  EngineEvent& slot = ring_[index % kEventRingSize];
  slot.block.store(block, std::memory_order_relaxed);
  slot.message.store(message, std::memory_order_release);
}

int SynthEngine::NoteCount() const {
  int count = 0;
  for (const SynthNote& note : notes_) count += note.active;
  return count;
}

std::string SynthEngine::StatusText() {
  const int count = VoiceCount();
  std::string text = std::to_string(count) + " region" + (count == 1 ? "" : "s");
  if (TakeClipFlag()) text += " -CLIPPING-";
  return text;
}

bool SynthEngine::ChannelHasNotes(int channel) const {
  for (const SynthNote& note : notes_)
    if (note.active && note.channel == channel) return true;
  return false;
}

int SynthEngine::FreeNoteSlot() const {
  for (size_t i = 0; i < notes_.size(); ++i)
    if (!notes_[i].active) return int(i);
  return -1;
}

void SynthEngine::SetRamp(int channel, Ramp& ramp, float target, float scale) {
  ramp.target = target;
  if (!ChannelHasNotes(channel)) {
    ramp.value = target;
    ramp.stepsLeft = 0;
    return;
  }
  const float delta = target - ramp.value;
  const int32_t steps = std::max<int32_t>(1, int32_t(float(channels_[size_t(channel)].rampRate) * scale * std::fabs(delta)));
  ramp.increment = delta / float(steps);
  ramp.stepsLeft = steps;
}

// ---------------------------------------------------------------------------------------------
// Messages

void SynthEngine::Dispatch(uint32_t message) {
  const int status = int(message & 0xFF);
  const int channel = int(message >> 24) * 16 + (status & 0x0F);
  if (status < 0x80 || size_t(channel) >= channels_.size()) return;
  const int data1 = int((message >> 8) & 0xFF), data2 = int((message >> 16) & 0xFF);
  SynthChannel& ch = channels_[size_t(channel)];
  switch (status & 0xF0) {
    case 0x80: NoteOff(channel, data1 & 0x7F); break;
    case 0x90:
      if (data2 == 0) NoteOff(channel, data1 & 0x7F);
      else NoteOn(channel, data1 & 0x7F, data2 & 0x7F, false);
      break;
    case 0xA0:
      for (SynthNote& note : notes_) {
        if (!note.active || note.channel != channel || note.key != (data1 & 0x7F)) continue;
        for (int v = 0; v < note.voiceCount; ++v) {
          Voice& voice = voices_[size_t(note.voices[v])];
          voice.keyPressure = float(data2 & 0x7F) / 127.0f;
          voice.pressure = std::max(voice.keyPressure, ch.pressure.value);
        }
      }
      break;
    case 0xB0: ControlChange(channel, data1, data2 & 0x7F); break;
    case 0xC0:
      shadows_[size_t(channel)].patch = (shadows_[size_t(channel)].patch & ~0x7Fu) | uint32_t(data1 & 0x7F);
      ProgramChange(channel);
      break;
    case 0xD0: SetRamp(channel, ch.pressure, float(data1 & 0x7F) / 127.0f, 1.0f); break;
    case 0xE0: {
      int v = ((data2 & 0x7F) - 64) * 128 + (data1 & 0x7F);
      if (v >= 1) ++v;  // so that the top value reaches exactly +1
      SetRamp(channel, ch.bend, float(v) / 8192.0f, 0.5f);
      break;
    }
    default: break;
  }
}

void SynthEngine::ProgramChange(int channel) {
  const uint32_t patch = shadows_[size_t(channel)].patch;
  const SynthInstrument* found = FindInstrument(patch);
  if (!found) found = FindInstrument(patch & ~(0x7Fu << 7));                // without the bank LSB
  if (!found) found = FindInstrument(patch & ~(0x7Fu << 7) & ~(0x7Fu << 14));  // and without the MSB
  if (!found && (patch & kDrumBit) && (patch & 0x7F)) found = FindInstrument(kDrumBit);
  if (!found) return;
  SynthChannel& ch = channels_[size_t(channel)];
  if (found != ch.instrument && effects_) effects_->Configure(channel, found->effectSlots, sampleRate_);
  ch.instrument = found;
}

void SynthEngine::UpdateChannelGain(int channel) {
  const ChannelShadow& s = shadows_[size_t(channel)];
  // 14-bit values where an LSB came, else the 7-bit byte.
  const float volume = s.cc39 != 255 ? float(s.cc7 * 128 + s.cc39) / 16129.0f : float(s.cc7) / 127.0f;
  const float expression = s.cc43 != 255 ? float(s.cc11 * 128 + s.cc43) / 16129.0f : float(s.cc11) / 127.0f;
  SetRamp(channel, channels_[size_t(channel)].volume, volume * volume * expression * expression, 1.0f / 96.0f);
}

void SynthEngine::ApplyRpn(int channel, int delta) {
  ChannelShadow& s = shadows_[size_t(channel)];
  SynthChannel& ch = channels_[size_t(channel)];
  const int rpn = s.cc101 * 128 + s.cc100;
  int msb = s.cc6, lsb = s.cc38 == 255 ? 0 : s.cc38;
  if (delta != 0) {
    if (rpn == 0 || rpn == 1) {
      int value = std::clamp(msb * 128 + lsb + delta, 0, 16383);
      msb = value >> 7, lsb = value & 0x7F;
    } else {
      msb = std::clamp(msb + delta, 0, 127);
    }
    s.cc6 = uint8_t(msb);
    s.cc38 = uint8_t(lsb);
  }
  switch (rpn) {
    case 0: ch.bendRange = float(msb) + float(lsb) * 0.01f; break;
    case 1: ch.fineTune = float((msb - 64) * 128 + lsb) / 8192.0f; break;
    case 2: ch.coarseTune = msb - 64; break;
    case 16383:
      ch.bendRange = kUnsetFloat;
      ch.fineTune = 0.0f;
      ch.coarseTune = 0;
      break;
    default: break;
  }
}

void SynthEngine::ControlChange(int channel, int controller, int value) {
  SynthChannel& ch = channels_[size_t(channel)];
  ChannelShadow& s = shadows_[size_t(channel)];
  const uint8_t byte = uint8_t(value);
  switch (controller) {
    case 0: s.patch = (s.patch & ~(0x7Fu << 14)) | uint32_t(value) << 14; break;
    case 32: s.patch = (s.patch & ~(0x7Fu << 7)) | uint32_t(value) << 7; break;
    case 1:
    case 33: {
      (controller == 1 ? s.cc1 : s.cc33) = byte;
      const float wheel = s.cc33 == 255 ? float(s.cc1) / 127.0f : float(s.cc1 * 128 + s.cc33) / 16129.0f;
      SetRamp(channel, ch.wheel, std::min(wheel, 1.0f), 1.0f);
      break;
    }
    case 5:
    case 37:
      (controller == 5 ? s.cc5 : s.cc37) = byte;
      ch.portamentoTime = 0.005f * std::exp(float(s.cc5 * 128 + (s.cc37 == 255 ? 0 : s.cc37) + 1) * 0.00027076062f);
      break;
    case 6: s.cc6 = byte; ApplyRpn(channel, 0); break;
    case 38: s.cc38 = byte; ApplyRpn(channel, 0); break;
    case 96: ApplyRpn(channel, 1); break;
    case 97: ApplyRpn(channel, -1); break;
    case 7: s.cc7 = byte; UpdateChannelGain(channel); break;
    case 11: s.cc11 = byte; UpdateChannelGain(channel); break;
    case 39: s.cc39 = byte; UpdateChannelGain(channel); break;
    case 43: s.cc43 = byte; UpdateChannelGain(channel); break;
    case 10:
    case 42: {
      (controller == 10 ? s.cc10 : s.cc42) = byte;
      float pan;
      if (s.cc42 == 255) {
        const int v = s.cc10;
        pan = float(v - 64 + (v < 64 ? 1 : 0)) / 63.0f;
      } else {
        const int v = s.cc10 * 128 + s.cc42;
        pan = float(v - 8192 + (v < 8192 ? 1 : 0)) * 0.00012208521f;
      }
      SetRamp(channel, ch.pan, pan, 0.5f);
      break;
    }
    case 64: {
      const bool down = value >= 64;
      if (ch.sustain && !down) {
        ch.sustain = false;
        for (size_t n = 0; n < notes_.size(); ++n) {
          SynthNote& note = notes_[n];
          if (note.active && note.channel == channel && note.heldBySustain) {
            note.heldBySustain = false;
            ReleaseNote(int(n), true);
          }
        }
      }
      ch.sustain = down;
      break;
    }
    case 65: ch.portamento = value >= 64; break;
    case 66: {
      const bool down = value >= 64;
      if (down && !ch.sostenuto) {
        for (SynthNote& note : notes_)
          if (note.active && note.channel == channel && !note.released) note.heldBySostenuto = true;
      } else if (!down && ch.sostenuto) {
        ch.sostenuto = false;
        for (size_t n = 0; n < notes_.size(); ++n) {
          SynthNote& note = notes_[n];
          if (!note.active || note.channel != channel || !note.heldBySostenuto) continue;
          note.heldBySostenuto = false;
          if (note.released) ReleaseNote(int(n), true);
        }
      }
      ch.sostenuto = down;
      break;
    }
    case 67:
      ch.soft = value >= 64;
      if (ch.soft)
        for (int i = 0; i < voiceCount_.load(); ++i)
          if (voices_[size_t(i)].channel == channel) voices_[size_t(i)].softPedal = true;
      break;
    case 91: SetRamp(channel, ch.sends[0], float(value) / 127.0f, 1.0f); break;
    case 93: SetRamp(channel, ch.sends[1], float(value) / 127.0f, 1.0f); break;
    case 100: s.cc100 = byte; break;
    case 101: s.cc101 = byte; break;
    case 120: KillChannel(channel); break;
    case 121: {
      s.cc7 = 100, s.cc11 = 127, s.cc1 = 0;
      s.cc39 = s.cc43 = s.cc33 = s.cc42 = 255;
      const int status = 0xB0 | (channel & 0x0F), port = channel >> 4;
      Dispatch(PackMessage(status, 7, 100, port));
      Dispatch(PackMessage(status, 11, 127, port));
      Dispatch(PackMessage(status, 1, 0, port));
      for (int cc : {64, 69, 65, 66, 68}) Dispatch(PackMessage(status, cc, 0, port));
      Dispatch(PackMessage(0xE0 | (channel & 0x0F), 0, 64, port));
      Dispatch(PackMessage(0xD0 | (channel & 0x0F), 0, 0, port));
      break;
    }
    case 123:
      for (size_t n = 0; n < notes_.size(); ++n)
        if (notes_[n].active && notes_[n].channel == channel && !notes_[n].released) ReleaseNote(int(n), true);
      break;
    case 126:
    case 127: {
      ch.mono = controller == 126;
      // All notes of the channel but the newest end now.
      int newest = -1;
      for (size_t n = 0; n < notes_.size(); ++n)
        if (notes_[n].active && notes_[n].channel == channel &&
            (newest < 0 || notes_[n].sequence > notes_[size_t(newest)].sequence))
          newest = int(n);
      for (size_t n = 0; n < notes_.size(); ++n)
        if (notes_[n].active && notes_[n].channel == channel && int(n) != newest) KillNote(int(n));
      break;
    }
    case kControllerDrumMap:
      s.patch = value >= 64 ? s.patch | kDrumBit : s.patch & ~kDrumBit;
      break;
    default: break;
  }
}

void SynthEngine::NoteOff(int channel, int key) {
  int found = -1;
  for (size_t n = 0; n < notes_.size(); ++n) {
    const SynthNote& note = notes_[n];
    if (note.active && note.channel == channel && note.key == key && !note.released &&
        (found < 0 || note.sequence < notes_[size_t(found)].sequence))
      found = int(n);
  }
  if (found >= 0) ReleaseNote(found, true);
  else NoteOn(channel, key, 64, true);  // a release sample can play for a key we never saw go down
}

void SynthEngine::ReleaseNoteVoices(SynthNote& note) {
  for (int v = 0; v < note.voiceCount; ++v) {
    Voice& voice = voices_[size_t(note.voices[v])];
    voice.held = false;
    if (!voice.released) {
      voice.released = true;
      voice.releasePending = true;
    }
  }
}

void SynthEngine::ReleaseNote(int noteSlot, bool trigger) {
  SynthNote& note = notes_[size_t(noteSlot)];
  const SynthChannel& ch = channels_[note.channel];
  note.released = true;
  if (!note.heldBySostenuto && ch.sustain) note.heldBySustain = true;
  if (note.heldBySostenuto || note.heldBySustain) {
    for (int v = 0; v < note.voiceCount; ++v) voices_[size_t(note.voices[v])].held = true;
    return;
  }
  ReleaseNoteVoices(note);
  if (trigger && !note.isReleaseNote) NoteOn(note.channel, note.key, note.velocity, true);
}

void SynthEngine::ShutDownVoice(Voice& voice) {
  if (voice.shuttingDown) return;
  voice.shuttingDown = true;
  voice.shutdownPending = true;
}

void SynthEngine::KillChannel(int channel) {
  for (size_t n = 0; n < notes_.size(); ++n)
    if (notes_[n].active && notes_[n].channel == channel) KillNote(int(n));
}

void SynthEngine::KillNote(int noteSlot) {
  SynthNote& note = notes_[size_t(noteSlot)];
  while (note.active && note.voiceCount > 0) RemoveVoiceAt(note.voices[0]);
  note.active = false;
}

void SynthEngine::KillQuietest(bool soft) {
  int quietest = -1;
  int64_t lowest = 0;
  uint64_t firstSequence = 0;
  for (size_t n = 0; n < notes_.size(); ++n) {
    const SynthNote& note = notes_[n];
    if (!note.active || (soft && note.shuttingDown)) continue;
    float loudest = 0.0f;
    for (int v = 0; v < note.voiceCount; ++v) loudest = std::max(loudest, voices_[size_t(note.voices[v])].outputGain);
    const int64_t loudness = int64_t(loudest * 65536.0f);
    // Among equals the oldest note is "the first found".
    if (quietest < 0 || loudness < lowest || (loudness == lowest && note.sequence < firstSequence)) {
      quietest = int(n);
      lowest = loudness;
      firstSequence = note.sequence;
    }
  }
  if (quietest < 0) return;
  if (!soft) {
    KillNote(quietest);
    return;
  }
  SynthNote& note = notes_[size_t(quietest)];
  note.shuttingDown = true;
  for (int v = 0; v < note.voiceCount; ++v) ShutDownVoice(voices_[size_t(note.voices[v])]);
}

void SynthEngine::RemoveVoiceAt(int index) {
  const int last = voiceCount_.load(std::memory_order_relaxed) - 1;
  if (index < 0 || index > last) return;
  const int noteSlot = voices_[size_t(index)].note;
  if (noteSlot >= 0) {
    SynthNote& note = notes_[size_t(noteSlot)];
    for (int v = 0; v < note.voiceCount; ++v)
      if (note.voices[v] == index) {
        note.voices[v] = note.voices[--note.voiceCount];
        break;
      }
    if (note.voiceCount == 0) note.active = false;
  }
  if (index != last) {
    voices_[size_t(index)] = voices_[size_t(last)];
    const int movedNote = voices_[size_t(index)].note;
    if (movedNote >= 0) {
      SynthNote& note = notes_[size_t(movedNote)];
      for (int v = 0; v < note.voiceCount; ++v)
        if (note.voices[v] == last) note.voices[v] = int16_t(index);
    }
  }
  voices_[size_t(last)].note = -1;
  voiceCount_.store(last, std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------
// Note-on

void SynthEngine::NoteOn(int channel, int key, int velocity, bool releaseTrigger) {
  SynthChannel& ch = channels_[size_t(channel)];
  if (!ch.instrument) ch.instrument = FindInstrument(shadows_[size_t(channel)].patch);
  if (!ch.instrument) return;

  if (ch.mono && ch.portamento && !releaseTrigger) {
    for (SynthNote& note : notes_) {
      if (!note.active || note.channel != channel || note.released) continue;
      // Glide: the voices keep their pitch base and the channel's offset walks to the new key.
      const float interval = float(key - int(note.key));
      const int32_t blocks = std::max<int32_t>(
          1, int32_t(float(sampleRate_) * ch.portamentoTime / float(std::max(ch.rampRate, 1) * kBlockFrames) *
                     std::fabs(interval)));
      const float target = ch.portamentoPosition + interval;
      ch.portamentoIncrement = (target - ch.portamentoPosition) / float(blocks);
      ch.portamentoStepsLeft = blocks;
      note.key = uint8_t(key);
      return;
    }
  }
  velocity = std::clamp(velocity - ch.velocityOffset, 0, 127);

  // Collect the regions that play.
  const SynthRegion* selected[kMaxVoicesPerNote];
  int selectedCount = 0;
  uint32_t playedGroups = 0;
  const auto& regions = ch.instrument->regions;
  auto passesBasics = [&](const SynthRegion& r) {
    if (!r.Contains(key, velocity)) return false;
    if (r.sustainSwitch == 1 && !ch.sustain) return false;
    if (r.sustainSwitch == 2 && ch.sustain) return false;
    if (r.triggerType == kTriggerKeyPress) return !releaseTrigger;
    if (r.triggerType == kTriggerKeyRelease) return releaseTrigger;
    return !releaseTrigger && r.triggerType <= 17;
  };
  for (size_t i = 0; i < regions.size() && selectedCount < kMaxVoicesPerNote; ++i) {
    const SynthRegion& r = regions[i];
    if (!passesBasics(r)) continue;
    if (r.triggerType >= 2) {
      const int group = r.triggerType - 2;  // alternate groups 1-16 as bits 0-15
      if (playedGroups & (1u << group)) continue;
      int members = 0, mine = 0;
      for (size_t j = 0; j < regions.size(); ++j) {
        if (regions[j].triggerType != r.triggerType || !passesBasics(regions[j])) continue;
        if (j == i) mine = members;
        ++members;
      }
      if (mine != ch.roundRobin[group] % members) continue;
      ch.roundRobin[group] = uint8_t((mine + 1) % members);
      playedGroups |= 1u << group;
    }
    selected[selectedCount++] = &r;
  }
  if (selectedCount == 0) return;

  // Exclusion.
  if (!releaseTrigger) {
    const int count = voiceCount_.load(std::memory_order_relaxed);
    for (int i = 0; i < count; ++i) {
      Voice& voice = voices_[size_t(i)];
      if (voice.channel != channel) continue;
      if (ch.mono) {
        ShutDownVoice(voice);
        continue;
      }
      const SynthNote& owner = notes_[size_t(voice.note)];
      if (owner.key == key && voice.region->exclusionMode != kExclusionNone) ShutDownVoice(voice);
      for (int s = 0; s < selectedCount; ++s)
        if (selected[s]->exclusionGroup && voice.region->exclusionGroup == selected[s]->exclusionGroup)
          ShutDownVoice(voice);
    }
  }

  // Make room: the quietest notes go at once.
  if (FreeNoteSlot() < 0) KillQuietest(false);
  while (VoiceCapacity() - VoiceCount() < selectedCount && NoteCount() > 0) KillQuietest(false);
  const int freeVoices = VoiceCapacity() - VoiceCount();
  if (freeVoices <= 0) return;
  selectedCount = std::min(selectedCount, freeVoices);
  const int noteSlot = FreeNoteSlot();
  if (noteSlot < 0) return;
  if (!ch.mono || !ch.portamento) {
    ch.portamentoPosition = 0.0f;
    ch.portamentoStepsLeft = 0;
  }

  SynthNote& note = notes_[size_t(noteSlot)];
  note = SynthNote{};
  note.active = true;
  note.channel = uint16_t(channel);
  note.key = uint8_t(key);
  note.velocity = uint8_t(velocity);
  note.isReleaseNote = releaseTrigger;
  note.sequence = nextSequence_++;
  for (int s = 0; s < selectedCount; ++s) {
    const SynthRegion& region = *selected[s];
    const int index = voiceCount_.fetch_add(1, std::memory_order_relaxed);
    note.voices[note.voiceCount++] = int16_t(index);
    Voice& voice = voices_[size_t(index)];
    voice = Voice{};
    voice.tag = region.tag;
    voice.note = noteSlot;
    voice.region = &region;
    voice.channel = uint16_t(channel);
    voice.key = float(key);
    voice.velocity = float(velocity) / 127.0f;
    voice.wheel = ch.wheel.value;
    voice.pressure = ch.pressure.value;
    voice.bend = ch.bend.value;
    voice.tuneOffset = ch.fineTune + float(ch.coarseTune) + ch.portamentoPosition;
    voice.softPedal = ch.soft;
    voice.delayLeft = region.delaySeconds;
    voice.randomState = randomState_ = randomState_ * 1103515245u + 12345u;
    voice.basePan = region.pan;
    voice.cc10Depth = region.cc10Depth;
    for (int i = 0; i < kSendCount; ++i) {
      voice.sendLevels[i] = region.sendLevels[size_t(i)];
      voice.sendDepths[i] = region.sendDepths[size_t(i)];
    }
    // Cross-fade on the widened rectangle.
    float fade = 1.0f;
    if (key < region.loKey + region.keyFadeIn) fade *= FadeGain(key - region.loKey, region.keyFadeIn, region.keyFadeFormula);
    if (key > region.hiKey - region.keyFadeOut)
      fade *= FadeGain(region.hiKey - key, region.keyFadeOut, region.keyFadeFormula);
    if (velocity < region.loVelocity + region.velocityFadeIn)
      fade *= FadeGain(velocity - region.loVelocity, region.velocityFadeIn, region.velocityFadeFormula);
    if (velocity > region.hiVelocity - region.velocityFadeOut)
      fade *= FadeGain(region.hiVelocity - velocity, region.velocityFadeOut, region.velocityFadeFormula);
    voice.crossFade = fade;
    if (region.tag == kTagWave) PrepareWaveVoice(voice, ch);
    else voice.position.done = true;  // model voices are not played by this engine
    // First gains, so the voice starts without a ramp from elsewhere.
    float left, right;
    PanGains(ch.pan.value * voice.cc10Depth + voice.basePan + voice.panBase, left, right);
    voice.lastLeft = left * voice.outputGain * voice.crossFade;
    voice.lastRight = right * voice.outputGain * voice.crossFade;
  }
}

void SynthEngine::PrepareWaveVoice(Voice& voice, const SynthChannel& ch) {
  const SynthRegion& region = *voice.region;
  const float* v = region.values.data();
  const float blockRate = float(sampleRate_) / float(kBlockFrames);
  const float b = voice.velocity * 2.0158732f - 1.0158731f;  // 64/127 gives 0, 1 gives 1
  voice.bipolar = b;
  const bool keyRelease = region.triggerType == kTriggerKeyRelease;

  voice.envelopes[0].Setup(EnvelopeFromValues(v, 0), voice.key, b, blockRate, true, keyRelease);
  voice.envelopeOn[0] = true;
  voice.pitchEnvelopeDepth = v[11] + b * v[12];
  voice.filterEnvelopeDepth = v[33] + b * v[34];
  voice.panEnvelopeDepth = v[55];
  const float depths[4] = {0.0f, voice.pitchEnvelopeDepth, voice.filterEnvelopeDepth, voice.panEnvelopeDepth};
  for (int e = 1; e < 4; ++e)
    if (depths[e] != 0.0f) {
      voice.envelopes[e].Setup(EnvelopeFromValues(v, e), voice.key, b, blockRate, false, keyRelease);
      voice.envelopeOn[e] = true;
    }

  voice.pitchLfoDepth = v[3] + b * v[6];
  voice.volumeLfoDepth = v[19] + b * v[22];
  voice.filterLfoDepth = v[29] + b * v[32];
  voice.crossLfoPitchDepth = v[7] + b * v[10];
  voice.crossLfoPanDepth = v[54];
  const bool lfoUsed[4] = {
      voice.pitchLfoDepth != 0.0f || v[4] != 0.0f || v[5] != 0.0f,
      voice.volumeLfoDepth != 0.0f || v[20] != 0.0f || v[21] != 0.0f,
      voice.filterLfoDepth != 0.0f || v[30] != 0.0f || v[31] != 0.0f,
      voice.crossLfoPitchDepth != 0.0f || v[8] != 0.0f || v[9] != 0.0f || voice.crossLfoPanDepth != 0.0f,
  };
  for (int l = 0; l < 4; ++l) {
    const float* row = v + kParamFirstLfo + 4 * l;
    if (row[1] <= 0.0f || !lfoUsed[l]) continue;
    voice.lfos[l].randomState = voice.randomState + uint32_t(l);
    voice.lfos[l].Setup(int(row[0]), row[1], row[2], row[3], blockRate, true);
    voice.lfoOn[l] = true;
  }

  voice.pitchBase = v[0] + (voice.key - 60.0f) * v[1];
  if (v[13] != 0.0f) voice.pitchBase += (float(NextRandom15(randomState_)) * kRandomScale - 1.0f) * v[13];
  voice.bendRange = (ch.bendRange != kUnsetFloat && v[2] != 0.0f) ? ch.bendRange : v[2];

  float depth = v[15], velocity = voice.velocity;
  if (depth < 0.0f) depth = -depth, velocity = 1.0f - velocity;
  const float curve = velocity >= 0.0039810715f ? std::log10(velocity) / 2.4f : -1.0f;
  voice.volumeBase = v[14] + depth * curve + (voice.key - 60.0f) * v[16] / 12.0f;

  voice.cutoffOffset = b * v[25] + (voice.key - 60.0f) / 12.0f * v[26];
  voice.resonance = std::max(0.0f, v[35] + b * v[36]);
  voice.filter.Setup(int(v[kParamFilterType]), v[24] / float(sampleRate_));

  voice.eqCount = 0;
  for (int band = 0; band < 3; ++band) {
    const float* row = v + 39 + 4 * band;  // mode, centre, gain, Q
    if (row[2] == 0.0f) continue;
    voice.eq[voice.eqCount++].SetEq(int(row[0]), row[1], row[2], row[3], float(sampleRate_));
  }
  voice.panBase = (voice.key - 60.0f) / 12.0f * v[53];
  if (v[56] != 0.0f) voice.panBase += (float(NextRandom15(randomState_)) * kRandomScale - 1.0f) * v[56];

  // The sample and its zones.
  PositionRecord& pos = voice.position;
  const SampleCacheEntry* entry = region.sample;
  if (!entry || !entry->samples) {
    pos.done = true;  // a missing sample: silent, ends at its first block
  } else {
    const uint32_t start = std::min<uint32_t>(uint32_t(region.startOffset), entry->frames);
    const int64_t length = std::max<int64_t>(0, int64_t(entry->frames) - start + region.endOffset);
    pos.samples = entry->samples + size_t(start) * entry->channels;
    pos.frames = uint32_t(length);
    pos.stereo = entry->channels == 2;
    pos.baseStep = double(entry->rate) / double(sampleRate_);
    pos.step = pos.baseStep;
    pos.position = 0.0;
    pos.zones[0] = {double(length), 1, kLoopForward, false};
    pos.zoneCount = 1;
    if (region.loopType != kLoopOff) {
      const double loopStart = std::max(0.0, region.loopStart - start);
      const double loopEnd = std::min(double(length), region.loopEnd - start);
      if (loopStart < loopEnd) {
        pos.zones[0] = {loopStart, 1, kLoopForward, false};
        pos.zones[1] = {loopEnd, kEndlessRepeats, region.loopType, region.loopRelease != 0};
        pos.zoneCount = 2;
        if (region.loopRelease) {
          pos.zones[2] = {double(length), 1, kLoopForward, false};
          pos.zoneCount = 3;
        }
        if (region.loopTune != 0.0f) {
          pos.tuneMultiplier = std::exp(double(region.loopTune) * kSemitoneToLog);
          pos.tuneState = 1;
        }
      }
    }
    if (length == 0) pos.done = true;
  }
  voice.lastEnvelope = voice.envelopes[0].CurrentLevel();
  const float db = voice.volumeBase + (voice.lastEnvelope - 1.0f) * 96.0f;
  voice.outputGain = db <= -96.0f ? 0.0f : std::exp(std::min(db, 12.0f) * kDbToLog);
}

// ---------------------------------------------------------------------------------------------
// The voice block

void SynthEngine::RenderVoice(Voice& voice, ChannelMix& mix) {
  const float* v = voice.region->values.data();
  PositionRecord& pos = voice.position;
  if (voice.releasePending) {
    voice.releasePending = false;
    for (int e = 0; e < 4; ++e)
      if (voice.envelopeOn[e]) voice.envelopes[e].Release();
    PositionRecord::Zone& zone = pos.zones[pos.zoneIndex];
    if (zone.breakOnRelease) {
      zone.repeats = 1;
      if (pos.direction < 0) {
        zone.loopType = kLoopForward;  // bounce once at the start, then leave forward
        zone.repeats = 2;
      }
    }
    pos.released = true;
  }
  if (voice.shutdownPending) {
    voice.shutdownPending = false;
    voice.envelopes[0].Shutdown();
  }
  if (voice.delayLeft > 0.0f) {
    if (voice.released) {
      voice.finished = true;
      finishedCount_.fetch_add(1, std::memory_order_relaxed);
    } else {
      voice.delayLeft -= float(kBlockFrames) * inverseRate_;
    }
    return;
  }

  const float e = voice.envelopes[0].Tick();
  voice.lastEnvelope = e;
  float envelope[4] = {e, 0.0f, 0.0f, 0.0f}, lfo[4] = {};
  for (int i = 1; i < 4; ++i)
    if (voice.envelopeOn[i]) envelope[i] = voice.envelopes[i].Tick();
  for (int i = 0; i < 4; ++i)
    if (voice.lfoOn[i]) lfo[i] = voice.lfos[i].Tick();
  const float wheel = voice.wheel, pressure = voice.pressure;

  const float pitch = voice.pitchBase + voice.tuneOffset +
                      (voice.pitchLfoDepth + wheel * v[4] + pressure * v[5]) * lfo[0] +
                      (voice.crossLfoPitchDepth + wheel * v[8] + pressure * v[9]) * lfo[3] +
                      voice.pitchEnvelopeDepth * envelope[1] + voice.bend * voice.bendRange;
  if (voice.filter.type) {
    const float shift = voice.cutoffOffset + wheel * v[27] + pressure * v[28] + voice.filterEnvelopeDepth * envelope[2] +
                        (voice.filterLfoDepth + wheel * v[30] + pressure * v[31]) * lfo[2];
    voice.filter.Update(shift, std::max(0.0f, voice.resonance + wheel * v[37] + pressure * v[38]));
  }
  float db = voice.volumeBase + (e - 1.0f) * 96.0f + wheel * v[17] + pressure * v[18] +
             (voice.volumeLfoDepth + wheel * v[20] + pressure * v[21]) * lfo[1];
  if (voice.softPedal) db -= kSoftPedalDb;
  db = std::min(db, 12.0f);
  voice.outputGain = FlushDenormal(db <= -96.0f ? 0.0f : std::exp(db * kDbToLog));
  voice.fade = 1.0f;
  voice.panOffset = voice.crossLfoPanDepth * lfo[3] + voice.panEnvelopeDepth * envelope[3] + voice.panBase;
  if (pitch != pos.lastPitch) {
    // Ten octaves up is far past any use; the bound keeps positions within reach of the sample.
    const float bounded = std::clamp(pitch, -240.0f, 120.0f);
    pos.lastPitch = pitch;
    double step = std::exp(double(bounded) * kSemitoneToLog) * pos.baseStep;
    if (pos.tuneState == 2) step *= pos.tuneMultiplier;
    pos.step = pos.direction < 0 ? -step : step;
  }

  const bool ended = pos.done || (voice.envelopes[0].Finished() && e < kEndLevel);
  const float gain = voice.outputGain * voice.fade;
  if (!ended && gain > kQuietGain) {
    alignas(16) float buffer[2 * kBlockFrames];
    const int channels = pos.stereo ? 2 : 1;
    const float* s = pos.samples;
    int frame = 0;
    // Catmull-Rom on samples i-1..i+2; the guard frames of the sample memory cover both ends. The
    // position lives in registers; only a frame that leaves the zone goes through the zone logic.
    double position = pos.position, step = pos.step;
    bool forward = pos.direction > 0;
    double edge = forward ? pos.zones[pos.zoneIndex].end : pos.zoneStart;
    for (; frame < kBlockFrames; ++frame) {
      if (channels == 1) buffer[frame] = CatmullRom(s, position);
      else CatmullRomStereo(s, position, buffer + 2 * frame);
      position += step;
      if (forward ? position < edge : position >= edge) continue;
      pos.position = position;
      pos.Settle();
      if (pos.done) {
        ++frame;
        break;
      }
      position = pos.position, step = pos.step;
      forward = pos.direction > 0;
      edge = forward ? pos.zones[pos.zoneIndex].end : pos.zoneStart;
    }
    if (!pos.done) pos.position = position;
    for (int i = frame * channels; i < kBlockFrames * channels; ++i) buffer[i] = 0.0f;
    if (voice.filter.type) voice.filter.Process(buffer, kBlockFrames, channels);
    for (int i = 0; i < voice.eqCount; ++i) voice.eq[i].Process(buffer, kBlockFrames, channels);

    float left, right;
    PanGains(mix.pan * voice.cc10Depth + voice.basePan + voice.panOffset, left, right);
    left *= gain * voice.crossFade;
    right *= gain * voice.crossFade;
    const float leftStep = (left - voice.lastLeft) / float(kBlockFrames);
    const float rightStep = (right - voice.lastRight) / float(kBlockFrames);
    float sendLevel[kSendCount];
    for (int i = 0; i < kSendCount; ++i)
      sendLevel[i] = std::min(1.0f, voice.sendLevels[i] + voice.sendDepths[i] * mix.sendLevels[i]);
    // The voice's stereo output with the gains ramped across the block, made before taking the lock.
    alignas(16) float output[2 * kBlockFrames];
    float l = voice.lastLeft, r = voice.lastRight;
    if (channels == 2) {
      for (int i = 0; i < kBlockFrames; ++i) {
        l += leftStep, r += rightStep;
        output[2 * i] = buffer[2 * i] * l, output[2 * i + 1] = buffer[2 * i + 1] * r;
      }
    } else {
      for (int i = 0; i < kBlockFrames; ++i) {
        l += leftStep, r += rightStep;
        output[2 * i] = buffer[i] * l, output[2 * i + 1] = buffer[i] * r;
      }
    }
    SpinLock(mix.lock);
    if (mix.mainEmpty) std::memcpy(mix.main, output, sizeof output);
    else
      for (int i = 0; i < 2 * kBlockFrames; ++i) mix.main[i] += output[i];
    mix.mainEmpty = false;
    for (int send = 0; send < kSendCount; ++send) {
      const float level = sendLevel[send];
      if (level <= 0.0f) continue;
      float* target = mix.sends[send];
      if (mix.sendEmpty[send])
        for (int i = 0; i < 2 * kBlockFrames; ++i) target[i] = output[i] * level;
      else
        for (int i = 0; i < 2 * kBlockFrames; ++i) target[i] += output[i] * level;
      mix.sendEmpty[send] = false;
    }
    SpinUnlock(mix.lock);
    voice.lastLeft = left, voice.lastRight = right;
  } else if (!ended) {
    // Too quiet to hear: the position still moves, so it is in place when the voice comes back up.
    for (int frame = 0; frame < kBlockFrames && !pos.done; ++frame) pos.Advance();
    voice.lastLeft = voice.lastRight = 0.0f;
  }
  if (pos.done || (voice.envelopes[0].Finished() && e < kEndLevel)) {
    voice.finished = true;
    finishedCount_.fetch_add(1, std::memory_order_relaxed);
  }
}

void SynthEngine::RunVoiceJob() {
  for (;;) {
    const int index = workIndex_.fetch_add(1, std::memory_order_acq_rel);
    if (index >= jobVoiceCount_) return;
    Voice& voice = voices_[size_t(index)];
    RenderVoice(voice, *mixes_[voice.channel]);
    workDone_.fetch_add(1, std::memory_order_acq_rel);
  }
}

// ---------------------------------------------------------------------------------------------
// The block

bool SynthEngine::RenderBlock(float* out) {
  const uint32_t clock = blockClock_.fetch_add(1, std::memory_order_relaxed) + 1;
  if (pendingRequest_.load(std::memory_order_acquire)) CarryOutPending();

  // Events due by this block.
  for (;;) {
    EngineEvent& slot = ring_[ringRead_ % kEventRingSize];
    const uint32_t message = slot.message.load(std::memory_order_acquire);
    if (message == 0 || int32_t(slot.block.load(std::memory_order_relaxed) - clock) > 0) break;
    slot.message.store(0, std::memory_order_relaxed);
    ++ringRead_;
    Dispatch(message);
  }

  // Channel ramps, copied into the voices before the job.
  for (size_t c = 0; c < channels_.size(); ++c) {
    SynthChannel& ch = channels_[c];
    ch.volume.Step(), ch.pressure.Step(), ch.wheel.Step(), ch.bend.Step(), ch.pan.Step();
    for (Ramp& send : ch.sends) send.Step();
    if (ch.portamentoStepsLeft > 0) {
      --ch.portamentoStepsLeft;
      ch.portamentoPosition += ch.portamentoIncrement;
    }
    ChannelMix& mix = *mixes_[c];
    mix.mainEmpty = true;
    for (bool& empty : mix.sendEmpty) empty = true;
    mix.pan = ch.pan.value;
    mix.gain = ch.volume.value * masterGain_;
    for (int s = 0; s < kSendCount; ++s) mix.sendLevels[s] = ch.sends[s].value;
  }
  const int count = voiceCount_.load(std::memory_order_relaxed);
  for (int i = 0; i < count; ++i) {
    Voice& voice = voices_[size_t(i)];
    const SynthChannel& ch = channels_[voice.channel];
    voice.wheel = ch.wheel.value;
    voice.bend = ch.bend.value;
    voice.pressure = std::max(ch.pressure.value, voice.keyPressure);
    voice.tuneOffset = ch.fineTune + float(ch.coarseTune) + ch.portamentoPosition;
  }

  // The voice job, shared by the workers through one index.
  jobVoiceCount_ = count;
  workIndex_.store(0, std::memory_order_relaxed);
  workDone_.store(0, std::memory_order_relaxed);
  finishedCount_.store(0, std::memory_order_relaxed);
  const int helpers = count >= 64 ? std::min(int(workers_.size()), (count + 63) / 64 - 1) : 0;
  workersBusy_.store(helpers, std::memory_order_release);
  for (int w = 0; w < helpers; ++w) workers_[size_t(w)]->wake.release();
  RunVoiceJob();
  while (workDone_.load(std::memory_order_acquire) < count || workersBusy_.load(std::memory_order_acquire) > 0)
    sched_yield();

  // Channels into the output.
  bool any = false;
  for (size_t c = 0; c < channels_.size(); ++c) {
    ChannelMix& mix = *mixes_[c];
    if (effectsOn_ && effects_) effects_->Process(int(c), mix);
    if (mix.reset) {
      if (!mix.mainEmpty)
        for (int i = 0; i < kBlockFrames; ++i) {
          const float ramp = 1.0f - float(i) * (63.0f / 64.0f) / 63.0f;
          mix.main[2 * i] *= ramp, mix.main[2 * i + 1] *= ramp;
        }
      if (effects_) effects_->Clear(int(c));
      mix.reset = false;
    }
    if (mix.mainEmpty) {
      mix.peak = 0.0f;
      continue;
    }
    float peak = 0.0f;
    for (int i = 0; i < 2 * kBlockFrames; ++i) {
      const float sample = mix.main[i] * mix.gain;
      if (any) out[i] += sample;
      else out[i] = sample;
      if (metering_) peak = std::max(peak, std::fabs(mix.main[i]));
    }
    mix.peak = peak * mix.gain;
    any = true;
  }
  if (!any) {
    std::memset(out, 0, sizeof(float) * 2 * kBlockFrames);
    lastPeak_ = 0.0f;
  } else {
    float peak = 0.0f;
    for (int i = 0; i < 2 * kBlockFrames; ++i) peak = std::max(peak, std::fabs(out[i]));
    lastPeak_ = peak;
    if (peak > 1.0f) {
      clip_.store(1);
      if (hardLimit_)
        for (int i = 0; i < 2 * kBlockFrames; ++i) out[i] = std::clamp(out[i], -1.0f, 1.0f);
    }
  }

  // Finished voices leave; the array stays packed.
  if (finishedCount_.load(std::memory_order_relaxed) > 0)
    for (int i = 0; i < voiceCount_.load(std::memory_order_relaxed);) {
      if (voices_[size_t(i)].finished) RemoveVoiceAt(i);
      else ++i;
    }
  return any;
}

}  // namespace orlin::synth
