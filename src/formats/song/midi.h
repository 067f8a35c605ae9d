// Standard MIDI files: a Song keeps each track's bytes exactly as they stood in the file, and everything
// that needs events walks those bytes by the running-status rules. Reading names the tracks, the writer
// writes the bytes back untouched, and the walker below is shared with the module converters.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/format_table.h"

namespace orlin {

// One event as met on a walk of a track's bytes.
struct MidiEvent {
  uint32_t delta = 0;           // ticks since the previous event
  uint8_t status = 0;           // the status in force, running status resolved
  uint8_t metaType = 0;         // for 0xFF
  const uint8_t* data = nullptr;  // data bytes (for sysex and metas: the payload after the length)
  uint32_t size = 0;            // bytes at `data`
  uint8_t data1 = 0;            // first and second data byte of channel messages, masked with 0x7F
  uint8_t data2 = 0;
};

// Walks events until the end-of-track meta or the end of the bytes; never reads past them.
class MidiEventWalker {
 public:
  MidiEventWalker(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  // False at the end: the end-of-track meta is returned once, then the walk stops.
  bool Next(MidiEvent& event);

 private:
  const uint8_t* data_;
  size_t size_;
  size_t position_ = 0;
  uint8_t runningStatus_ = 0;
  bool ended_ = false;
};

inline bool IsNoteEvent(const MidiEvent& event) { return event.status >= 0x80 && event.status < 0xA0; }

// Events of a track, the end-of-track meta included.
uint32_t CountTrackEvents(const Track& track);
// Channel of the first channel message; 254 when the track uses several, 255 when none.
uint8_t FirstChannelOf(const Track& track);
// "Format %d (%s), %d ticks/4th" or the time-code form.
std::string SongInfoLine(const Song& song);
// Length of the song in seconds, by the tempo metas of all its tracks.
double SongDurationSeconds(const Song& song);

// Reads the chunks between the offsets into a new Song; null with the last error on failure.
Song* ReadMidi(Collection* collection, FileObject* file, uint64_t startOffset, uint64_t endOffset);

bool ReadMidiFile(Collection* collection, FileObject* file, uint32_t variant);
bool WriteMidi(Item* item, FileObject* file, const SaveOptions* options);
int32_t DetectMidi(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

}  // namespace orlin
