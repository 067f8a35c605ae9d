// The software synthesizer: plays compiled instruments from a stream of MIDI channel messages in
// blocks of 64 stereo float frames. Other threads post messages into a lock-free ring and swap
// instruments through atomic words; only the thread that calls RenderBlock (the audio thread)
// changes notes, channels and voices. Up to four workers share the voices of a block through one
// atomic index; a channel mix is guarded by a spin lock. RenderBlock allocates nothing and takes no
// blocking lock.
#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "synth/dsp.h"
#include "synth/synth_instrument.h"

namespace orlin::synth {

constexpr int kEventRingSize = 1024;
constexpr int kMaxVoicesPerNote = 32;
constexpr int kMaxWorkers = 4;
constexpr int kSendCount = 4;

// Packs a channel message as PostEvent and Dispatch take it: status, two data bytes, and the
// channel's high part (port) in bits 24-31.
constexpr uint32_t PackMessage(int status, int data1, int data2, int port = 0) {
  return uint32_t(status & 0xFF) | uint32_t(data1 & 0xFF) << 8 | uint32_t(data2 & 0xFF) << 16 |
         uint32_t(port & 0xFF) << 24;
}
// The internal controller that selects a channel's drum map (bit 21 of the patch word).
constexpr int kControllerDrumMap = 128;

// A control value moving toward its target over whole blocks.
struct Ramp {
  float value = 0.0f;
  float target = 0.0f;
  float increment = 0.0f;
  int32_t stepsLeft = 0;
  void Step() {
    if (stepsLeft <= 0) return;
    value = --stepsLeft ? value + increment : target;
  }
};

struct SynthChannel {
  const SynthInstrument* instrument = nullptr;
  Ramp volume, pressure, wheel, bend, pan;
  Ramp sends[kSendCount];
  float portamentoPosition = 0.0f;  // semitones added to the voices' pitch while gliding
  float portamentoIncrement = 0.0f;
  int32_t portamentoStepsLeft = 0;
  float portamentoTime = 0.005f;
  float bendRange = kUnsetFloat;  // from RPN 0, else unset
  float fineTune = 0.0f;          // semitones, RPN 1
  int coarseTune = 0;             // semitones, RPN 2
  int velocityOffset = 0;
  bool sustain = false, sostenuto = false, soft = false, mono = false, portamento = false;
  uint8_t roundRobin[16] = {};
  int32_t rampRate = 17;  // sample rate / 2560, cut
};

// The last raw controller bytes of a channel; LSBs hold 255 until received.
struct ChannelShadow {
  uint32_t patch = 0;
  uint8_t cc7 = 100, cc11 = 127, cc1 = 0, cc10 = 64, cc101 = 127, cc6 = 0, cc5 = 1;
  uint8_t cc39 = 255, cc43 = 255, cc33 = 255, cc42 = 255, cc100 = 127, cc38 = 255, cc37 = 255;
};

// A channel's audio of one block: the main stereo buffer and four sends, for the channel effects.
struct ChannelMix {
  alignas(16) float main[2 * kBlockFrames];
  alignas(16) float sends[kSendCount][2 * kBlockFrames];
  bool mainEmpty = true;
  bool sendEmpty[kSendCount] = {true, true, true, true};
  bool reset = false;
  std::atomic_flag lock = ATOMIC_FLAG_INIT;
  float pan = 0.0f, gain = 1.0f;
  float sendLevels[kSendCount] = {};
  float peak = 0.0f;
};

// Where the channel effects plug in: called on the audio thread for each channel, in order, after
// the voices are mixed, when effects are on.
class ChannelEffects {
 public:
  virtual ~ChannelEffects() = default;
  // A channel took an instrument: its four effect slots (parameters 231-262 of the instrument).
  virtual void Configure(int channel, const std::array<float, 32>& slots, int sampleRate) = 0;
  // Runs the units on the main buffer and the sends of `mix`.
  virtual void Process(int channel, ChannelMix& mix) = 0;
  // Clears the units' state (a channel reset).
  virtual void Clear(int channel) = 0;
};

struct PositionRecord {
  struct Zone {
    double end = 0.0;
    uint32_t repeats = 1;  // 255 and up: endless
    uint8_t loopType = kLoopForward;
    bool breakOnRelease = false;
  };
  const float* samples = nullptr;
  uint32_t frames = 0;
  bool stereo = false;
  double step = 1.0, baseStep = 1.0;
  float lastPitch = kUnsetFloat;
  double position = 0.0;
  Zone zones[3];
  double zoneStart = 0.0;
  uint8_t zoneIndex = 0, zoneCount = 1;
  int8_t direction = 1;  // 1 forward, -1 backward
  double tuneMultiplier = 1.0;
  uint8_t tuneState = 0;  // 0 none, 1 pending, 2 active
  bool released = false;
  bool done = false;

  // Moves one frame on; at a zone's edge, Settle handles ends, wraps, bounces and loop tuning.
  void Advance() {
    position += step;
    if (direction > 0 ? position < zones[zoneIndex].end : position >= zoneStart) return;
    Settle();
  }
  void Settle();
};

struct Voice {
  uint32_t tag = kTagWave;
  int32_t note = -1;  // slot of the owning SynthNote
  const SynthRegion* region = nullptr;
  uint16_t channel = 0;
  float key = 60.0f, velocity = 1.0f, bipolar = 1.0f, bendRange = 2.0f;
  float wheel = 0.0f, pressure = 0.0f, bend = 0.0f, tuneOffset = 0.0f;
  float keyPressure = 0.0f;  // poly pressure of the voice's key; the larger of it and the channel's counts
  float delayLeft = 0.0f;
  bool releasePending = false, shutdownPending = false, released = false, shuttingDown = false;
  bool softPedal = false, finished = false, held = false;
  // Mix.
  float basePan = 0.0f, cc10Depth = 1.0f, panBase = 0.0f, panOffset = 0.0f;
  float sendLevels[kSendCount] = {}, sendDepths[kSendCount] = {};
  float outputGain = 0.0f, fade = 1.0f, lastLeft = 0.0f, lastRight = 0.0f, crossFade = 1.0f;
  // Modulation.
  EnvelopeState envelopes[4];  // V, P, F, X
  LfoState lfos[4];            // P, V, F, X
  bool envelopeOn[4] = {}, lfoOn[4] = {};
  float pitchBase = 0.0f, volumeBase = 0.0f, cutoffOffset = 0.0f, resonance = 0.0f;
  float pitchEnvelopeDepth = 0.0f, filterEnvelopeDepth = 0.0f, panEnvelopeDepth = 0.0f;
  float pitchLfoDepth = 0.0f, volumeLfoDepth = 0.0f, filterLfoDepth = 0.0f, crossLfoPitchDepth = 0.0f,
        crossLfoPanDepth = 0.0f;
  float lastEnvelope = 0.0f;  // the V-ENV result of the last tick
  uint32_t randomState = 1;
  VoiceFilter filter;
  BiquadStage eq[3];
  uint8_t eqCount = 0;
  PositionRecord position;
};

struct SynthNote {
  int16_t voices[kMaxVoicesPerNote];
  uint8_t voiceCount = 0;
  bool active = false;
  uint16_t channel = 0;
  uint8_t key = 0, velocity = 0;
  bool released = false, shuttingDown = false, heldBySustain = false, heldBySostenuto = false, isReleaseNote = false;
  uint64_t sequence = 0;  // order of note-on within the engine
};

class SynthEngine {
 public:
  // `masterGain` below 0 means 1 / sqrt(voices). `workers` 0 takes min(processors, 4).
  SynthEngine(int channels, int voices, float masterGain, int sampleRate, int workers = 0);
  ~SynthEngine();
  SynthEngine(const SynthEngine&) = delete;
  SynthEngine& operator=(const SynthEngine&) = delete;

  // Releases all voices, stores the rate, recomputes the channels' ramp rates.
  void SetSampleRate(int rate);
  int SampleRate() const { return sampleRate_; }
  // Compiles and registers under its patch word (the first of a patch word wins lookups).
  const SynthInstrument* LoadInstrument(const Instrument& instrument);
  void SelectInstrument(int channel, const SynthInstrument* instrument);
  // Any thread. `timeMs` counts from the engine's start; the event plays in the block whose clock it
  // reaches. A word of 0 is not posted.
  void PostEvent(uint32_t message, uint32_t timeMs);
  // Audio thread: one message now.
  void Dispatch(uint32_t message);
  // Audio thread: 64 stereo frames into `out`; false when nothing sounded.
  bool RenderBlock(float* out);
  // Any thread; the audio thread carries them out at its next block, and these wait for that.
  void ReplaceInstrument(const SynthInstrument* old, const SynthInstrument* replacement);
  void RemoveInstrument(const SynthInstrument* instrument);
  // Ends the worker threads.
  void Stop();

  // Thins voices: the quietest note is removed now (`soft` false) or faded by its shutdown rate.
  void KillQuietest(bool soft);

  void SetHardLimit(bool on) { hardLimit_ = on; }
  void SetMetering(bool on) { metering_ = on; }
  void SetChannelEffects(ChannelEffects* effects) { effects_ = effects; }
  void SetEffectsOn(bool on) { effectsOn_ = on; }
  float MasterGain() const { return masterGain_; }
  void SetMasterGain(float gain) { masterGain_ = gain; }

  float LastPeak() const { return lastPeak_; }
  // True if the output clipped since the last call.
  bool TakeClipFlag() { return clip_.exchange(0) != 0; }
  // "%d region%s", with " -CLIPPING-" when clipping since the last read.
  std::string StatusText();
  int VoiceCount() const { return voiceCount_.load(std::memory_order_relaxed); }
  int VoiceCapacity() const { return int(voices_.size()); }
  int NoteCount() const;
  int ChannelCount() const { return int(channels_.size()); }
  int WorkerCount() const { return int(workers_.size()) + 1; }
  uint32_t BlockClock() const { return blockClock_.load(std::memory_order_relaxed); }
  const Voice& GetVoice(int index) const { return voices_[size_t(index)]; }
  const SynthChannel& Channel(int index) const { return channels_[size_t(index)]; }
  const ChannelMix& Mix(int index) const { return *mixes_[size_t(index)]; }
  const SampleCache& Samples() const { return samples_; }

 private:
  struct Worker;

  void NoteOn(int channel, int key, int velocity, bool releaseTrigger);
  void NoteOff(int channel, int key);
  void ReleaseNote(int noteSlot, bool trigger);
  void ReleaseNoteVoices(SynthNote& note);
  void ControlChange(int channel, int controller, int value);
  void ProgramChange(int channel);
  void ApplyRpn(int channel, int delta);
  void UpdateChannelGain(int channel);
  void SetRamp(int channel, Ramp& ramp, float target, float scale);
  void KillNote(int noteSlot);
  void KillChannel(int channel);
  void ShutDownVoice(Voice& voice);
  void RemoveVoiceAt(int index);
  void PrepareWaveVoice(Voice& voice, const SynthChannel& channel);
  void RenderVoice(Voice& voice, ChannelMix& mix);
  void RunVoiceJob();
  void WorkerLoop(Worker* worker);
  void CarryOutPending();
  bool ChannelHasNotes(int channel) const;
  const SynthInstrument* FindInstrument(uint32_t patch);
  int FreeNoteSlot() const;

  int sampleRate_ = 0;
  float inverseRate_ = 0.0f;
  float masterGain_ = 1.0f;
  float lastPeak_ = 0.0f;
  std::atomic<uint8_t> clip_{0};
  bool hardLimit_ = false, effectsOn_ = true, metering_ = false;
  ChannelEffects* effects_ = nullptr;

  std::vector<std::unique_ptr<SynthInstrument>> instruments_;
  std::unordered_map<uint32_t, const SynthInstrument*> instrumentMap_;
  std::atomic_flag mapLock_ = ATOMIC_FLAG_INIT;
  SampleCache samples_;
  std::atomic<const SynthInstrument*> pendingOld_{nullptr}, pendingNew_{nullptr};
  std::atomic<bool> pendingRequest_{false};

  std::vector<SynthNote> notes_;
  uint64_t nextSequence_ = 1;
  std::vector<Voice> voices_;
  std::atomic<int> voiceCount_{0};
  std::vector<SynthChannel> channels_;
  std::vector<std::unique_ptr<ChannelMix>> mixes_;
  std::vector<ChannelShadow> shadows_;
  uint32_t randomState_ = 12345;

  struct EngineEvent {
    std::atomic<uint32_t> message{0};
    std::atomic<uint32_t> block{0};
  };
  std::unique_ptr<EngineEvent[]> ring_;
  std::atomic<uint32_t> ringWrite_{0};
  uint32_t ringRead_ = 0;

  std::atomic<int> finishedCount_{0};
  std::atomic<uint32_t> blockClock_{0};
  std::atomic<int> workIndex_{0}, workDone_{0}, workersBusy_{0};
  int jobVoiceCount_ = 0;
  std::vector<std::unique_ptr<Worker>> workers_;
  std::atomic<bool> stopping_{false};
};

// Raises the calling thread for audio: SCHED_FIFO when permitted, else a lower nice value; never
// fails. True when either took effect.
bool RaiseAudioThreadPriority();

}  // namespace orlin::synth
