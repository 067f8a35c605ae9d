// Reading a run of codec bytes that a container points at: the shared tail of every decoder that a
// container reader leaves on its wave for data the generic PCM road cannot read.
#pragma once
#include <cstdint>

#include "formats/audio/codecs/codecs.h"

namespace orlin {

class Waveform;
class FileObject;

// Reads up to `byteCount` bytes at the wave's source offset (fewer when the file ends first), and
// decodes the wave's length of frames with `decode`; frames the bytes do not reach are silence.
// The wave keeps at most two channels. False with the last-error text.
bool DecodeCodedRange(Waveform* wave, FileObject* file, codecs::DecodeFunction decode,
                      const codecs::CodecParams& params, uint64_t byteCount);

}  // namespace orlin
