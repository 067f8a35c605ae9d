// The clipboard formats of the main window as bytes: the front end puts them on the system clipboard
// under their names and hands back what it finds there.
//   "12.7.0.4 Item": u32 id of the copying process, u32 item count, u32 byte size of what follows,
//   u32 CRC-32 of what follows, then each item's flat record.
//   "12.7.0.4 Art", "LFO", "EG", "Loop", "EQs", "Filter": one record each (little-endian floats).
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/articulation.h"
#include "core/wave_data.h"

namespace orlin {

class Collection;
class Item;
class UndoRing;

constexpr const char* kClipboardItemFormat = "12.7.0.4 Item";
constexpr const char* kClipboardArticulationFormat = "12.7.0.4 Art";
constexpr const char* kClipboardLfoFormat = "12.7.0.4 LFO";
constexpr const char* kClipboardEnvelopeFormat = "12.7.0.4 EG";
constexpr const char* kClipboardLoopFormat = "12.7.0.4 Loop";
constexpr const char* kClipboardEqFormat = "12.7.0.4 EQs";
constexpr const char* kClipboardFilterFormat = "12.7.0.4 Filter";

// CRC-32 with the reflected polynomial 0xEDB88320, starting from and finally inverted with all ones.
uint32_t Crc32(const uint8_t* bytes, size_t size);

// The items with all they need (what they own, and the waves their regions play), in collection
// order. False with "Too large for the clipboard!" when the block would pass 0xFFFFFFF0 bytes.
bool CopyItemsToBlock(const Collection& collection, const std::vector<const Item*>& items, uint32_t processId,
                      std::vector<uint8_t>& block);
// Reads a block into the collection. Within the copying process, a pasted region whose wave is still
// in the collection under the same name, source path and length plays that wave, and the pasted copy
// is dropped. `pasted` gets the new top-level items. False with "Paste failed - Clipboard data
// corrupted!" on a CRC mismatch, zero items or a record that does not read.
bool PasteItemsFromBlock(Collection& collection, const std::vector<uint8_t>& block, uint32_t processId,
                         std::vector<Item*>* pasted = nullptr);
uint32_t CurrentProcessId();

// The small records.
std::vector<uint8_t> EncodeArticulation(const Articulation& articulation);
bool DecodeArticulation(const std::vector<uint8_t>& bytes, Articulation& articulation);
std::vector<uint8_t> EncodeLfo(const LfoRecord& lfo);
bool DecodeLfo(const std::vector<uint8_t>& bytes, LfoRecord& lfo);
std::vector<uint8_t> EncodeEnvelope(const EnvelopeRecord& envelope);
bool DecodeEnvelope(const std::vector<uint8_t>& bytes, EnvelopeRecord& envelope);
std::vector<uint8_t> EncodeLoop(const LoopInfo& loop);
bool DecodeLoop(const std::vector<uint8_t>& bytes, LoopInfo& loop);
// EQ: parameters 39-50 (three bands of mode, frequency, gain, Q); filter: 23-38. Values with the
// set bits of the level they were copied from.
std::vector<uint8_t> EncodeParamRange(const Articulation& articulation, ParamId first, ParamId last);
// Sets the ids the record holds on `articulation`; false when the size does not fit the range.
bool DecodeParamRange(const std::vector<uint8_t>& bytes, ParamId first, ParamId last, Articulation& articulation);
constexpr ParamId kFirstFilterParam = 23, kLastFilterParam = 38, kFirstEqParam = 39, kLastEqParam = 50;

}  // namespace orlin
