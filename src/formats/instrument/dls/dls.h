// DownLoadable Sounds banks (levels 1 and 2, the program's own 2+ with compressed waves and 2++ with
// stereo waves), the DirectMusic Producer project form, and the RIFF-MIDI and MLS wrappers that carry a
// bank beside a song. A bank is parsed into plain records first (DlsBank) and turned into items when the
// whole file is known, because the wave pool and its cue table stand behind the instruments.
// The GigaStudio handler reuses the records: a gig file is a DLS file with extension chunks.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/format_table.h"

namespace orlin {

class Articulation;
class Collection;
class Waveform;

// One connection block of art1/art2: 12 bytes.
struct DlsConnection {
  uint16_t source = 0;
  uint16_t control = 0;
  uint16_t destination = 0;
  uint16_t transform = 0;
  int32_t scale = 0;  // 16.16 fixed point in the destination's unit
};

// wsmp: a 20-byte head (cbSize, unity note, fine tune, attenuation, options, loop count) and 16-byte loops.
struct DlsSampleInfo {
  bool present = false;
  uint16_t unityNote = 60;
  int16_t fineTune = 0;      // cents
  int32_t attenuation = 0;   // 1/655360 dB
  uint32_t options = 0;
  uint32_t loopCount = 0;
  uint32_t loopType = 0;     // 0 forward, 1 forward with release
  uint32_t loopStart = 0;    // frames
  uint32_t loopLength = 0;   // frames
};

struct DlsRegion {
  uint16_t loKey = 0, hiKey = 127, loVelocity = 0, hiVelocity = 127;
  uint16_t options = 0;   // bit 0: self non-exclusive
  uint16_t keyGroup = 0;  // exclusive group
  uint16_t layer = 0;     // rgnh of 14 bytes only
  // wlnk
  uint16_t linkOptions = 0;  // bit 0 phase master
  uint16_t phaseGroup = 0;
  uint32_t channel = 1;      // 1 left (or mono), 2 right
  uint32_t tableIndex = 0xFFFFFFFF;
  DlsSampleInfo sample;
  std::vector<DlsConnection> connections;
  bool hasConnections = false;
  // GigaStudio: the 3lnk dimension definition and the 3ewa blocks of its dimension regions.
  std::vector<uint8_t> gigLink;
  std::vector<std::vector<uint8_t>> gigExtensions;
  std::vector<DlsSampleInfo> gigSamples;  // wsmp of each dimension region (3prg/3ewl)
  std::vector<uint32_t> gigTableIndices;  // wlnk table index of each dimension region
};

struct DlsInstrument {
  std::string name;
  uint32_t bank = 0;     // bit 31 drum kit, bits 8-14 bank select MSB, 0-6 LSB
  uint32_t program = 0;
  uint32_t regionCount = 0;
  std::vector<DlsConnection> connections;
  std::vector<DlsRegion> regions;
  std::string artist, comments, copyright, engineer, product;
};

// A bank as read: instruments, the waves of the pool with their offsets, and the cue table.
struct DlsBank {
  std::vector<DlsInstrument> instruments;
  std::vector<Waveform*> waves;        // in pool order
  std::vector<uint64_t> waveOffsets;   // offset of each wave's LIST from the wvpl body
  uint64_t poolTableOffset = 0;        // ptbl chunk head in the file; 0 when none
  uint64_t wavePoolBody = 0;           // first byte after "wvpl"
  bool haveWavePool = false;
  std::vector<DlsConnection> globalConnections;
};

// Reading --------------------------------------------------------------------------------------------

// "RIFF" at 0 and "DLS " (or "MLS ") at 8.
int32_t DetectDls(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadDls(Collection* collection, FileObject* file, uint32_t variant);
// The bank between two offsets of an open file: the whole file or a bank inside a RIFF-MIDI file.
// `embedded` takes the cue table even when its offset looks outside the file.
bool ReadDlsBank(Collection* collection, FileObject& file, uint64_t startOffset, uint64_t endOffset, bool embedded);

// The chunk walk alone, into records; waves are created in `collection`. GigaStudio calls it too.
bool ParseDlsBank(Collection* collection, FileObject& file, uint64_t startOffset, uint64_t endOffset, DlsBank& bank);
// The wave that a region's table index names, through the cue table; warns as a reader must.
Waveform* ResolveDlsWave(const DlsBank& bank, const std::vector<uint32_t>& cues, bool haveCues, uint32_t index,
                         bool& warnedCue, bool& warnedWave);
// Reads the cue table; false with "Could not read pool cue table".
bool ReadDlsCueTable(FileObject& file, const DlsBank& bank, uint64_t fileEnd, bool embedded,
                     std::vector<uint32_t>& cues, bool& haveCues);

// A wsmp body into the record; `cbSize` other than 20 moves the loop record as the writer said.
DlsSampleInfo ParseWaveSample(const uint8_t* body, size_t size);
// The unity note and fine tune of a wsmp with the tune folded into the note: beyond 100 cents the
// tune moves into the note until it lies within 50 cents. The tune raises what a key plays, so the
// note moves the other way: 60 with +150 becomes 59 with +50.
void FoldFineTune(int& note, int& fineTuneCents);

// "Velocity to Volume" of a DLS player's own velocity curve, which a bank need not state.
constexpr float kDlsVelocityToVolume = 38.4f;
constexpr uint16_t kDlsVelocityToVolumeParam = 15;

// A region's wsmp over its wave: root, loop and release go to the region's overrides; tune and gain
// beyond the wave's come back as offsets for the region's articulation.
class Region;
void ApplyRegionSample(Region& region, const Waveform& wave, const DlsSampleInfo& sample, float& tuneOffset,
                       float& gainOffset);

// Connection blocks into articulation values, in file order.
void ApplyConnections(const std::vector<DlsConnection>& blocks, Articulation& art);
// The blocks that say `art`; level 1 keeps to what art1 can hold.
std::vector<DlsConnection> ConnectionsOf(const Articulation& art, int level);

// Writing --------------------------------------------------------------------------------------------

// The bank of `item` as a complete RIFF "DLS " image; level 1 to 4 (2+ and 2++ as 3 and 4).
bool BuildDlsImage(Item* item, const SaveOptions& options, int level, std::vector<uint8_t>& out);
bool WriteDls(Item* item, FileObject* file, const SaveOptions* options);

// RIFF-MIDI ------------------------------------------------------------------------------------------

int32_t DetectRmi(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
// Reads the song and any embedded bank ("RIFF" "DLS " inside the RMID form).
bool ReadRmi(Collection* collection, FileObject* file, uint32_t variant);
// The RMID form at `start` of an open file; used for files and for the lRMI lists of MLS banks.
bool ReadRmiAt(Collection* collection, FileObject& file, uint64_t start, uint64_t end);
// Variant 0 and 3 write a level 2 bank when the item has instruments, 2 a level 1 bank, 1 the song alone.
bool WriteRmi(Item* item, FileObject* file, const SaveOptions* options);

}  // namespace orlin
