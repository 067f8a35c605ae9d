// Headless rendering: a list of timed MIDI channel messages played through an engine into a float
// buffer, without a device. The song renderer and the tests stand on it.
#pragma once
#include <cstdint>
#include <span>
#include <vector>

#include "synth/synth_engine.h"

namespace orlin::synth {

struct TimedMessage {
  double seconds = 0.0;  // from the start of the render
  uint32_t message = 0;  // packed as SynthEngine::Dispatch takes it
};

struct RenderRequest {
  double seconds = 0.0;       // length of the result; 0 renders until the last message plus `tailSeconds`
  double tailSeconds = 2.0;
  bool untilSilent = false;   // with `seconds` 0: stop at the first silent block after the tail began
  bool drumChannel10 = true;  // channel 10 of each port plays the drum map, as General MIDI has it
};

// Renders interleaved stereo frames into `out` (resized; frames are whole blocks). Each message is
// dispatched at the start of the block that holds its time; messages must be in time order.
void RenderMessages(SynthEngine& engine, std::span<const TimedMessage> messages, const RenderRequest& request,
                    std::vector<float>& out);

}  // namespace orlin::synth
