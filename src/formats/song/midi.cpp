// Standard MIDI files. Chunks are walked by their sizes, so a forged size only ends the walk; a track's
// bytes are copied as they stand, and the writer puts them back unchanged, so a file of MThd and MTrk
// chunks alone comes back byte for byte. Track names are made here ("Master Track", "Control Track",
// "Track %02d"); a format 1 first track that holds notes is a music track after all.
#include "formats/song/midi.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <new>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/song/span_reader.h"

namespace orlin {

namespace {

constexpr char kCorruptMidi[] = "Invalid or corrupt Midi file";
constexpr uint8_t kControlFlag = 254;
constexpr uint32_t kMinTrackBytes = 5;  // four bytes hold at most an end-of-track alone
constexpr uint32_t kDefaultTempo = 500000;  // microseconds per quarter note when no tempo meta is met

uint32_t BigEndian32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

void PutBigEndian(std::vector<uint8_t>& out, uint32_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out.push_back(uint8_t(value >> (8 * i)));
}

std::string TrackNumberName(uint32_t number) {
  char text[32];
  std::snprintf(text, sizeof text, "Track %02u", number);
  return text;
}

bool HasNotes(const Track& track) {
  MidiEventWalker walker(track.data.data(), track.data.size());
  MidiEvent event;
  while (walker.Next(event))
    if (IsNoteEvent(event)) return true;
  return false;
}

// A name is still the generated one when it reads "Track " and digits only.
bool IsGeneratedTrackName(const std::string& name) {
  if (name.size() < 8 || name.compare(0, 6, "Track ") != 0) return false;
  return std::all_of(name.begin() + 6, name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Format 2 tracks are patterns: name them by pattern number, unless several claim pattern 0.
void FixUpPatternNames(Collection* collection, Song* song) {
  uint32_t zeroPatterns = 0;
  for (uint32_t id : song->children)
    if (const Track* track = collection->Find<Track>(id); track && track->patternNumber == 0) ++zeroPatterns;
  uint32_t runningCount = 0;
  for (uint32_t id : song->children) {
    Track* track = collection->Find<Track>(id);
    if (!track) continue;
    if (track->patternNumber == 0) ++runningCount;
    if (!IsGeneratedTrackName(track->GetName())) continue;
    char text[32];
    if (zeroPatterns > 1 && track->patternNumber == 0) std::snprintf(text, sizeof text, "Track %02u", runningCount);
    else std::snprintf(text, sizeof text, "Pattern %02u", unsigned(track->patternNumber));
    track->SetName(text);
  }
}

}  // namespace

bool MidiEventWalker::Next(MidiEvent& event) {
  if (ended_ || position_ >= size_) return false;
  SpanReader reader(data_ + position_, size_ - position_);
  event = MidiEvent{};
  event.delta = reader.VarLength();
  uint8_t status = reader.U8();
  if (reader.failed) return ended_ = true, false;
  if (status < 0x80) {
    if (runningStatus_ == 0) return ended_ = true, false;  // data byte with no status to run on
    status = runningStatus_;
    reader.Seek(reader.Position() - 1);
  }
  event.status = status;
  if (status < 0xF0) {
    // Only channel messages set running status; writers in the wild run on across metas and sysex,
    // so nothing clears it.
    runningStatus_ = status;
    event.data = reader.Here();
    event.data1 = reader.U8() & 0x7F;
    const bool twoBytes = status < 0xC0 || status >= 0xE0;
    if (twoBytes) event.data2 = reader.U8() & 0x7F;
    event.size = twoBytes ? 2 : 1;
  } else if (status == 0xF0 || status == 0xF7) {
    event.size = reader.VarLength();
    event.data = reader.Here();
    reader.Skip(event.size);
  } else if (status == 0xFF) {
    event.metaType = reader.U8();
    event.size = reader.VarLength();
    event.data = reader.Here();
    reader.Skip(event.size);
    if (event.metaType == 0x2F) ended_ = true;
  } else {
    event.data = reader.Here();
    event.size = status == 0xF2 ? 2 : (status == 0xF1 || status == 0xF3) ? 1 : 0;
    reader.Skip(event.size);
  }
  if (reader.failed) return ended_ = true, false;  // a truncated event is not an event
  position_ += reader.Position();
  return true;
}

uint32_t CountTrackEvents(const Track& track) {
  MidiEventWalker walker(track.data.data(), track.data.size());
  MidiEvent event;
  uint32_t count = 0;
  while (walker.Next(event)) ++count;
  return count;
}

uint8_t FirstChannelOf(const Track& track) {
  MidiEventWalker walker(track.data.data(), track.data.size());
  MidiEvent event;
  uint8_t channel = 255;
  while (walker.Next(event)) {
    if (event.status >= 0xF0) continue;
    const uint8_t mine = event.status & 0x0F;
    if (channel == 255) channel = mine;
    else if (channel != mine) return 254;
  }
  return channel;
}

std::string SongInfoLine(const Song& song) {
  static const char* const kFormatWords[] = {"single track", "multi track", "patterns"};
  char text[128];
  int used = std::snprintf(text, sizeof text, "Format %d (%s), ", int(song.format),
                           song.format < 3 ? kFormatWords[song.format] : "unknown");
  if (song.division & 0x8000)
    std::snprintf(text + used, sizeof text - used, "%d ticks/frame, %d frames/s", song.division & 0xFF,
                  (song.division >> 8) & 0x7F);
  else
    std::snprintf(text + used, sizeof text - used, "%d ticks/4th", int(song.division));
  return text;
}

double SongDurationSeconds(const Song& song) {
  // Tempo changes from every track, by absolute tick; the latest tick any track reaches.
  std::map<uint64_t, uint32_t> tempos;
  uint64_t lastTick = 0;
  for (uint32_t id : song.children) {
    const Track* track = song.collection->Find<Track>(id);
    if (!track) continue;
    MidiEventWalker walker(track->data.data(), track->data.size());
    MidiEvent event;
    uint64_t tick = 0;
    while (walker.Next(event)) {
      tick += event.delta;
      if (event.status == 0xFF && event.metaType == 0x51 && event.size == 3)
        tempos[tick] = uint32_t(event.data[0]) << 16 | uint32_t(event.data[1]) << 8 | event.data[2];
    }
    lastTick = std::max(lastTick, tick);
  }
  if (song.division & 0x8000) {
    // Time-code division: 29 stands for 29.97 frames a second.
    const int framesCode = (song.division >> 8) & 0x7F;
    const double framesPerSecond = framesCode == 29 ? 29.97 : framesCode;
    const double ticksPerFrame = song.division & 0xFF;
    return framesPerSecond > 0 && ticksPerFrame > 0 ? double(lastTick) / (framesPerSecond * ticksPerFrame) : 0.0;
  }
  if (song.division == 0) return 0.0;
  double seconds = 0;
  uint64_t tick = 0;
  uint32_t tempo = kDefaultTempo;
  for (const auto& [at, value] : tempos) {
    if (at >= lastTick) break;
    seconds += double(at - tick) * tempo / (1e6 * song.division);
    tick = at;
    tempo = value;
  }
  return seconds + double(lastTick - tick) * tempo / (1e6 * song.division);
}

Song* ReadMidi(Collection* collection, FileObject* file, uint64_t startOffset, uint64_t endOffset) {
  const int64_t fileSize = file->Size();
  if (fileSize >= 0) endOffset = std::min<uint64_t>(endOffset, uint64_t(fileSize));
  if (startOffset >= endOffset) {
    SetLastError(kCorruptMidi);
    return nullptr;
  }
  Song* song = nullptr;
  bool controlMark = false;
  bool controlExists = false;
  uint32_t tracksMet = 0;
  uint32_t chunkIndex = 0;
  for (uint64_t offset = startOffset; offset + 8 <= endOffset; ++chunkIndex) {
    uint8_t head[8];
    if (!file->ReadAt(offset, head, sizeof head)) break;
    const uint32_t length = BigEndian32(head + 4);
    const uint64_t body = offset + 8;
    offset = body + length;  // always advances by at least the head
    const uint64_t available = std::min<uint64_t>(length, endOffset - body);
    if (std::equal(head, head + 4, "MThd")) {
      uint8_t fields[6];
      if (song || available < sizeof fields || !file->ReadAt(body, fields, sizeof fields)) continue;
      song = new Song(collection);
      song->SetName(collection->GetName());
      song->format = uint16_t(fields[0] << 8 | fields[1]);
      song->division = uint16_t(fields[4] << 8 | fields[5]);  // the track count is not used
      song->parentId = collection->id;
    } else if (std::equal(head, head + 4, "MTrk") && song) {
      ++tracksMet;
      std::string name;
      uint8_t flags = 0;
      if (song->format == 0) {
        name = "Master Track";
      } else if (song->format == 1 && tracksMet == 1) {
        name = "Control Track";
        controlMark = controlExists = true;
      } else {
        name = TrackNumberName(tracksMet - (controlExists ? 1 : 0));
      }
      if (available < kMinTrackBytes) {
        controlMark = false;
        continue;  // counted, but not kept
      }
      Track* track = nullptr;
      try {
        std::vector<uint8_t> bytes(available);
        if (!file->ReadAt(body, bytes.data(), bytes.size())) continue;
        track = new Track(collection);
        track->data = std::move(bytes);
      } catch (const std::bad_alloc&) {
        continue;  // out of memory for one track: skip it and read on
      }
      if (song->format == 2) track->patternNumber = uint16_t(chunkIndex);
      if (controlMark) {
        // Only the first track is a candidate: one that plays notes is a music track after all, and
        // the tracks after it are numbered on from 2.
        if (HasNotes(*track)) {
          name = TrackNumberName(1);
          controlExists = false;
        } else {
          flags = kControlFlag;
        }
        controlMark = false;
      }
      track->SetName(name);
      track->flags = flags;
      track->firstChannel = FirstChannelOf(*track);
      track->parentId = song->id;
      song->children.push_back(track->id);
    }
  }
  if (!song) {
    SetLastError(kCorruptMidi);
    return nullptr;
  }
  if (song->format == 2) FixUpPatternNames(collection, song);
  return song;
}

bool ReadMidiFile(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  return ReadMidi(collection, file, 0, size > 0 ? uint64_t(size) : 0) != nullptr;
}

bool WriteMidi(Item* item, FileObject* file, const SaveOptions*) {
  const Song* song = nullptr;
  std::vector<const Track*> tracks;
  if (item->Type() == ItemType::Song) {
    song = static_cast<const Song*>(item);
    for (uint32_t id : song->children)
      if (const Track* track = item->collection->Find<Track>(id)) tracks.push_back(track);
  } else if (item->Type() == ItemType::Track) {
    tracks.push_back(static_cast<const Track*>(item));
    song = item->collection->Find<Song>(item->parentId);
  } else {
    SetLastError("The file format can not save this item");
    return false;
  }
  std::vector<uint8_t> out;
  out.insert(out.end(), {'M', 'T', 'h', 'd'});
  PutBigEndian(out, 6, 4);
  PutBigEndian(out, song ? song->format : 1, 2);
  PutBigEndian(out, uint32_t(tracks.size()), 2);
  PutBigEndian(out, song ? song->division : 0x180, 2);
  for (const Track* track : tracks) {
    out.insert(out.end(), {'M', 'T', 'r', 'k'});
    PutBigEndian(out, uint32_t(track->data.size()), 4);
    out.insert(out.end(), track->data.begin(), track->data.end());
  }
  if (!file->Write(out.data(), out.size())) {
    SetLastError("Writing to file failed");
    return false;
  }
  return true;
}

int32_t DetectMidi(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 4 && std::equal(head, head + 4, "MThd") ? 6 : 0;
}

}  // namespace orlin
