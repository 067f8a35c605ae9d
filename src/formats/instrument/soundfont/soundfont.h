// SoundFont banks (sbk, sf2, sf3, packed sf2, sfArk): the sfbk tables as records, the reader that turns the
// two levels of additive zones into instruments, layers and regions, the writer of the reverse road,
// and the single-sample entry that other handlers use to take one sample out of any bank.
// Loop points in shdr are absolute sample numbers except in compressed banks, where they are relative.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "core/format_table.h"

namespace orlin {

class Waveform;

// phdr: 38 bytes.
struct SfPresetHeader {
  std::string name;     // 20 bytes, zero padded
  uint16_t preset = 0;  // MIDI program
  uint16_t bank = 0;    // 128 is the percussion bank
  uint16_t firstBag = 0;
  uint32_t library = 0, genre = 0, morphology = 0;  // unused by players, kept as read
};
// pbag, ibag: 4 bytes.
struct SfBag {
  uint16_t firstGenerator = 0;
  uint16_t firstModulator = 0;
};
// pmod, imod: 10 bytes.
struct SfModulator {
  uint16_t source = 0;
  uint16_t destination = 0;
  int16_t amount = 0;
  uint16_t amountSource = 0;
  uint16_t transform = 0;
};
// pgen, igen: 4 bytes; the amount is signed or two range bytes.
struct SfGenerator {
  uint16_t op = 0;
  int16_t amount = 0;
};
// inst: 22 bytes.
struct SfInstrumentHeader {
  std::string name;
  uint16_t firstBag = 0;
};
// shdr: 46 bytes (16 in version-1 banks, whose names stand in snam).
struct SfSampleHeader {
  std::string name;
  uint32_t start = 0, end = 0, startLoop = 0, endLoop = 0;  // sample numbers, or bytes in sf3 streams
  uint32_t rate = 44100;
  uint8_t pitch = 60;    // original key; above 254 means unpitched
  int8_t correction = 0;  // cents
  uint16_t link = 0;
  uint16_t type = 1;  // 1 mono, 2 right, 4 left, 8 linked; 0x8000 ROM; 0x10/0x20 compressed in sf3
};

// The tables of one bank as read, unchanged.
struct SoundFontFile {
  std::vector<SfPresetHeader> presets;
  std::vector<SfBag> presetBags, instrumentBags;
  std::vector<SfModulator> presetModulators, instrumentModulators;
  std::vector<SfGenerator> presetGenerators, instrumentGenerators;
  std::vector<SfInstrumentHeader> instruments;
  std::vector<SfSampleHeader> samples;
  uint64_t sampleDataOffset = 0;  // smpl body
  uint64_t sampleCount = 0;       // 16-bit words in smpl
  uint64_t sampleBytes = 0;       // smpl size; compressed banks may leave it odd
  uint64_t sample24Offset = 0;    // sm24 body, 0 when none
  uint16_t versionMajor = 2, versionMinor = 1;
  bool packed = false;      // form "sfpk": smpl is one WavPack stream
  bool compressed = false;  // ifil major 3: samples are Ogg Vorbis or FLAC streams
  uint32_t stereoPairs = 0;
  // INFO strings by model text slot.
  std::string bankName, engineer, copyright, comment, product;
};

// A sample without pitch (key field above 254) plays at key 60 and carries this bit in its
// interfaceState[1], so that a save writes it unpitched again.
constexpr uint32_t kSfUnpitched = 0x1000;

constexpr int kSfGeneratorCount = 60;
constexpr int kSfModulatorSlots = 66;
using ZoneGenerators = std::array<int16_t, kSfGeneratorCount>;
using ZoneModulators = std::array<int16_t, kSfModulatorSlots>;

// Reads the RIFF tables of a bank; false with "Not a SoundFont2 file" and the like.
bool ReadSoundFontTables(FileObject& file, SoundFontFile& out);
// Creates a Waveform from one sample header of `bank`; `romSource` (may be empty) is the ROM bank's
// path the sample comes from. Null when the sample cannot be read.
Waveform* ReadOneSample(Collection* collection, FileObject* file, uint32_t index, const SfSampleHeader& header,
                        const SoundFontFile& bank, const std::string& romSource);

// Generator defaults and the starting set of modulator slots.
ZoneGenerators DefaultZoneGenerators();
ZoneModulators DefaultZoneModulators();
// Slot of a modulator record, with `amount` sign-corrected; -1 when no slot takes it.
int ModulatorSlot(const SfModulator& modulator, int16_t& amount);
// The modulator record a slot writes back (source word with its own direction bit).
SfModulator SlotModulator(int slot, int16_t amount);
// Zone sums to articulation values, and back. `generators` gets only what the articulation holds.
class Articulation;
void ZoneToArticulation(const ZoneGenerators& g, const ZoneModulators& m, Articulation& art);
void ArticulationToZone(const Articulation& art, ZoneGenerators& g, ZoneModulators& m);
double TimecentsToSeconds(int value);
double AbsoluteCentsToHz(int value);

int32_t DetectSf2(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectSf3(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectSbk(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectSf2Pack(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadSoundFont(Collection* collection, FileObject* file, uint32_t variant);
// sfArk: "sfArk" at byte 26 of the archive header.
int32_t DetectSfArk(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
// Unpacks through the sfArk add-on into SfArkTargetPath(archive), then reads that bank.
bool ReadSfArk(Collection* collection, FileObject* file, uint32_t variant);
// "<folder>/<stem>.sf2", or "<stem> 1.sf2", "<stem> 2.sf2"... when taken.
std::string SfArkTargetPath(const std::string& archive);
bool WriteSf2(Item* item, FileObject* file, const SaveOptions* options);
bool WriteSbk(Item* item, FileObject* file, const SaveOptions* options);
bool WriteSf3(Item* item, FileObject* file, const SaveOptions* options);
// The compression settings of sf3: 0 "FLAC 16/24-bit", then the Vorbis qualities.
double Sf3Settings(uint32_t index, uint32_t variant, std::string* labelOut);

}  // namespace orlin
