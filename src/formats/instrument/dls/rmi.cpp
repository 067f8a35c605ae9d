// RIFF-MIDI: a Standard MIDI File in the "data" chunk of a RIFF "RMID" form, optionally with a DLS bank
// as a nested "RIFF" "DLS " chunk and an INFO list. The same reader takes the songs of the lRMI list of
// an MLS bank. A SoundFont bank nested in the form (a later convention) is not read: the song is.
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/text.h"
#include "formats/common/riff.h"
#include "formats/instrument/dls/dls.h"
#include "formats/song/midi.h"

namespace orlin {

namespace {

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

constexpr uint32_t kVariantSongOnly = 1, kVariantLevel1 = 2;

void PutBigEndian32(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(value >> shift));
}

// The song as a Standard MIDI File, its tracks' bytes as they stand.
std::vector<uint8_t> SmfBytes(const Song& song) {
  const std::vector<Track*> tracks = ChildrenOf<Track>(song);
  std::vector<uint8_t> out = {'M', 'T', 'h', 'd', 0, 0, 0, 6};
  out.push_back(uint8_t(song.format >> 8));
  out.push_back(uint8_t(song.format));
  out.push_back(uint8_t(tracks.size() >> 8));
  out.push_back(uint8_t(tracks.size()));
  out.push_back(uint8_t(song.division >> 8));
  out.push_back(uint8_t(song.division));
  for (const Track* track : tracks) {
    out.insert(out.end(), {'M', 'T', 'r', 'k'});
    PutBigEndian32(out, uint32_t(track->data.size()));
    out.insert(out.end(), track->data.begin(), track->data.end());
  }
  return out;
}

}  // namespace

int32_t DetectRmi(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 12 && std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "RMID", 4) == 0 ? 6 : 0;
}

bool ReadRmiAt(Collection* collection, FileObject& file, uint64_t start, uint64_t end) {
  RiffCursor cursor;
  if (!cursor.Open(file, start, end) || cursor.tag != FourCC("RIFF") || cursor.form != FourCC("RMID"))
    return Fail("Invalid or corrupt Midi file");
  Song* song = nullptr;
  std::string name;
  std::vector<uint8_t> body;
  while (cursor.Step()) {
    if (cursor.id == FourCC("data") && !song) {
      song = ReadMidi(collection, &file, cursor.position, cursor.position + cursor.chunkSize);
      if (!song) return false;
    } else if (cursor.id == FourCC("RIFF")) {
      uint8_t form[4];
      if (cursor.Read(form, 4) && std::memcmp(form, "DLS ", 4) == 0 &&
          !ReadDlsBank(collection, file, cursor.position - 12, cursor.limit, true))
        return false;
    } else if (cursor.id == FourCC("LIST") && cursor.ReadBody(body, 1u << 20)) {
      ByteReader list(body);
      if (list.U32() != FourCC("INFO")) continue;
      while (list.CanRead(8)) {
        const uint32_t id = list.U32();
        const uint32_t size = list.U32();
        ByteReader text = list.Sub(size);
        list.Skip(std::min<size_t>(size & 1, list.Remaining()));
        if (id == FourCC("INAM")) {
          std::string_view bytes(reinterpret_cast<const char*>(text.Data()), text.Size());
          name = NarrowToUtf8(bytes.substr(0, bytes.find('\0')));
        }
      }
    }
  }
  if (!song) return Fail("Invalid or corrupt Midi file");
  if (!name.empty()) song->SetName(name);
  return true;
}

bool ReadRmi(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  if (size < 12) return Fail("Invalid or corrupt Midi file");
  return ReadRmiAt(collection, *file, 0, uint64_t(size));
}

bool WriteRmi(Item* item, FileObject* file, const SaveOptions* options) {
  if (!item) return Fail("The file format can not save this item");
  Song* song = nullptr;
  if (item->Type() == ItemType::Song) {
    song = static_cast<Song*>(item);
  } else if (item->Type() == ItemType::Collection) {
    for (Song* first : item->collection->All<Song>()) {
      song = first;
      break;
    }
  }
  if (!song) return Fail("The file format can not save this item");
  const uint32_t variant = options ? options->variant : 0;
  RiffWriter riff;
  riff.Begin(FourCC("RIFF"), FourCC("RMID"));
  const std::vector<uint8_t> smf = SmfBytes(*song);
  riff.Chunk(FourCC("data"), smf.data(), smf.size());
  const bool withBank = variant != kVariantSongOnly && item->Type() == ItemType::Collection &&
                        item->collection->CountOf(ItemType::Instrument) > 0;
  if (withBank) {
    std::vector<uint8_t> bank;
    SaveOptions bankOptions = options ? *options : SaveOptions{};
    if (!BuildDlsImage(item, bankOptions, variant == kVariantLevel1 ? 1 : 2, bank)) return false;
    // The bank goes in as it stands: a "RIFF" chunk of form "DLS ".
    riff.Body().Append(bank.data(), bank.size());
    if (bank.size() & 1) riff.Body().U8(0);
    riff.UpdateOuterSize();
  }
  const size_t info = riff.Open(FourCC("LIST"));
  riff.Body().Append("INFO");
  std::string name = Utf8ToNarrow(song->GetName());
  name.push_back('\0');
  riff.Chunk(FourCC("INAM"), name.data(), name.size());
  const char software[] = "Orlin Studio";
  riff.Chunk(FourCC("ISFT"), software, sizeof software);
  riff.Close(info);
  if (!file->Write(riff.Bytes().data(), riff.Bytes().size())) return Fail("Writing to file failed");
  return true;
}

}  // namespace orlin
