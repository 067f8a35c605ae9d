// Normalisers that rewrite sample data after a load: loops played forward only, stereo waves split
// into mono pairs, and mono pairs panned hard left and right merged into stereo waves.
#pragma once

namespace orlin {

class Collection;
class Waveform;

// Rewrites the samples so that the loop plays forward: a reverse loop is reversed in place, a
// bi-directional one is unrolled (forward pass, then the backward pass without its turning points).
// `appendAfterLoop` inserts 32 frames continuing the loop after its end, for interpolating players.
// False with the last-error text when the samples cannot be had; the wave is then unchanged.
bool RewriteLoops(Waveform& wave, bool bidirectionalToForward, bool reverseToForward, bool appendAfterLoop);
// Each stereo wave becomes two mono waves (" L", " R"); each region on it becomes a pair panned
// hard left and right. The number of waves split.
int SplitStereo(Collection& collection);
// Region pairs of one instrument with the same key and velocity rectangle, panned -100 % and +100 %,
// on mono waves of the same length and rate, become one region on a new stereo wave. The mono waves
// go when nothing else plays them. The number of pairs merged.
int MergeDualMono(Collection& collection);

}  // namespace orlin
