// Offline rendering of timed messages: the caller's thread is the audio thread; events go through
// Dispatch at block boundaries, so timing is exact to one block (64 frames).
#include "synth/synth_render.h"

#include <cmath>

namespace orlin::synth {

void RenderMessages(SynthEngine& engine, std::span<const TimedMessage> messages, const RenderRequest& request,
                    std::vector<float>& out) {
  const double rate = engine.SampleRate();
  if (request.drumChannel10)
    for (int port = 0; port * 16 + 9 < engine.ChannelCount(); ++port)
      engine.Dispatch(PackMessage(0xB9, kControllerDrumMap, 127, port));
  const double lastTime = messages.empty() ? 0.0 : messages.back().seconds;
  const double total = request.seconds > 0.0 ? request.seconds : lastTime + request.tailSeconds;
  const size_t blocks = size_t(std::ceil(total * rate / kBlockFrames));
  out.assign(blocks * 2 * kBlockFrames, 0.0f);
  size_t next = 0;
  for (size_t block = 0; block < blocks; ++block) {
    const double blockEnd = double((block + 1) * kBlockFrames) / rate;
    while (next < messages.size() && messages[next].seconds < blockEnd) engine.Dispatch(messages[next++].message);
    const bool sounded = engine.RenderBlock(out.data() + block * 2 * kBlockFrames);
    if (request.seconds <= 0.0 && request.untilSilent && next == messages.size() && !sounded &&
        blockEnd >= lastTime) {
      out.resize((block + 1) * 2 * kBlockFrames);
      break;
    }
  }
}

}  // namespace orlin::synth
