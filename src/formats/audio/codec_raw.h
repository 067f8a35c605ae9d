// Headerless files of one built-in codec: G.711, G.721/G.723/G.726, G.722, Dialogic VOX, GSM 06.10
// frames and modem records, Yamaha and Rockwell ADPCM. A row's variant names the codec:
//   bits 0-1   code packing of the G.72x rows: 0 or 1 first code in the top bits, 2 in the low bits
//   bits 4-7   G.72x code width (2..5), Rockwell code width (2..4), or the GSM framing (0 and 1 33-byte frames, 2 and 3 38-byte
//              records, 3 with the frame always at byte 2)
//   bits 8-11  the codec (CodecRawKind)
//   bits 16-23 the sample rate in kHz; 0 is the modems' 7200 Hz for Rockwell, else 44.1 kHz, which
//              the Source tab corrects
// The G.711 rows keep the plain raw reader's variant: the storage bit of their law.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

enum class CodecRawKind : uint32_t { G72x = 1, G722 = 2, Dialogic = 3, Gsm = 4, Yamaha = 5, Rockwell = 6 };

constexpr uint32_t CodecRawVariant(CodecRawKind kind, uint32_t width, uint32_t packing, uint32_t rateKhz) {
  return uint32_t(kind) << 8 | width << 4 | packing | rateKhz << 16;
}

bool ReadCodecRaw(Collection* collection, FileObject* file, uint32_t variant);
bool WriteCodecRaw(Item* item, FileObject* file, const SaveOptions* options);

// G.711 files: the plain raw reader at the telephone rate of 8 kHz.
bool ReadG711Raw(Collection* collection, FileObject* file, uint32_t variant);

}  // namespace orlin
