// Wave-64 reader and writer. Chunk sizes count their 24-byte head and bodies are padded to 8. The
// markers chunk is a count and 32-byte records, each followed by its UTF-16 name: a negative length
// marks a point, a region whose name is "Loop" becomes the loop. Root key and fine tune travel in a
// smpl chunk with the container's id tail, as no Wave-64 chunk of its own holds them. All chunks
// stand ahead of data, as common readers take data to run to the end of the file.
#include "formats/audio/w64.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"
#include "core/save_choice.h"
#include "core/text.h"
#include "formats/audio/wav.h"
#include "formats/common/byte_reader.h"
#include "formats/common/riff.h"

namespace orlin {

namespace {

// The ids: a four-letter code followed by one of two fixed tails.
constexpr uint8_t kRiffTail[12] = {0x2E, 0x91, 0xCF, 0x11, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00};
constexpr uint8_t kListTail[12] = {0x2F, 0x91, 0xCF, 0x11, 0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00};
constexpr uint8_t kWaveTail[12] = {0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
constexpr Guid kMarkersId = {0x56, 0x62, 0xF7, 0xAB, 0x2D, 0x39, 0xD2, 0x11,
                             0x86, 0xC7, 0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
constexpr uint64_t kMaxChunkRead = 1u << 20;
constexpr uint32_t kMarkerRecordBytes = 32;

Guid MakeId(const char (&code)[5], const uint8_t (&tail)[12]) {
  Guid id{};
  std::memcpy(id.data(), code, 4);
  std::memcpy(id.data() + 4, tail, 12);
  return id;
}

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

bool ParseFormat(Waveform& wave, ByteReader body, uint32_t& blockAlign) {
  uint32_t tag = body.U16();
  const uint32_t channels = body.U16();
  wave.sampleRate = body.U32();
  body.U32();  // bytes per second
  blockAlign = body.U16();
  uint32_t bits = body.CanRead(2) ? body.U16() : 16;
  if (body.Failed() || channels == 0) return Fail("Reading from file failed");
  if (channels > 2) return Fail("Multi-channel is not support!");
  if (tag == 0xFFFE) {
    body.U16();  // cbSize
    const uint32_t valid = body.U16();
    body.U32();  // channel mask
    uint8_t guid[16];
    body.Read(guid, 16);
    static const uint8_t kSubTail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    if (body.Failed() || guid[2] || guid[3] || std::memcmp(guid + 4, kSubTail, 12) != 0)
      return Fail("Unsupported 'Extensible' subformat GUID");
    tag = uint32_t(guid[0] | guid[1] << 8);
    if (valid && (valid + 7) / 8 != (bits + 7) / 8) return Fail("Unsupported compression type");
  }
  wave.channels = uint8_t(channels);
  switch (tag) {
    case 1:
      if (bits == 0 || bits > 32) return Fail("Unsupported compression type");
      wave.SetPcmSource((bits + 7) / 8 * 8, bits <= 8 ? kSourceUnsigned : 0);
      break;
    case 3:
      if (bits != 32 && bits != 64) return Fail("Unsupported bits/sample for IEEE floating point samples");
      wave.SetPcmSourceByFormat(bits == 32 ? kStorageFloat32 : kStorageFloat64, 0);
      break;
    case 6: wave.SetPcmSourceByFormat(kStorageALaw, 0); bits = 8; break;
    case 7: wave.SetPcmSourceByFormat(kStorageMuLaw, 0); bits = 8; break;
    default: return Fail("Unsupported compression type");
  }
  wave.bits = uint8_t(bits);
  return true;
}

void ParseMarkers(Waveform& wave, ByteReader body) {
  const uint32_t count = body.U32();
  for (uint32_t i = 0; i < count && body.CanRead(kMarkerRecordBytes) && wave.markers.size() < kMaxMarkers; ++i) {
    body.U32();  // flags
    body.U32();  // id
    const uint64_t position = body.U64();
    const int64_t length = body.I64();
    body.U32();  // reserved
    const uint32_t nameChars = body.U32();
    std::u16string wide;
    for (uint32_t c = 0; c < nameChars && body.CanRead(2); ++c) wide.push_back(char16_t(body.U16()));
    std::string name;
    for (char16_t unit : wide) {
      // Names are UCS-2 in practice; surrogates become '_'.
      const uint32_t code = unit >= 0xD800 && unit < 0xE000 ? '_' : unit;
      if (code < 0x80) name += char(code);
      else if (code < 0x800) name += {char(0xC0 | code >> 6), char(0x80 | (code & 0x3F))};
      else name += {char(0xE0 | code >> 12), char(0x80 | ((code >> 6) & 0x3F)), char(0x80 | (code & 0x3F))};
    }
    while (!name.empty() && name.back() == '\0') name.pop_back();
    const uint32_t start = uint32_t(std::min<uint64_t>(position, 0xFFFFFFFF));
    if (length >= 0 && name == "Loop" && wave.loop.type == 0) {
      wave.loop.type = 1;
      wave.loop.start = float(start);
      wave.loop.end = float(double(start) + double(length));
      continue;
    }
    Marker marker;
    marker.section = length >= 0 ? 1 : 0;
    marker.start = start;
    marker.end = length >= 0 ? uint32_t(std::min<uint64_t>(uint64_t(start) + uint64_t(length), 0xFFFFFFFF)) : start;
    marker.name = name;
    marker.id = NextMarkerId();
    wave.markers.push_back(std::move(marker));
  }
}

void ParseList(Waveform& wave, ByteReader body) {
  const uint32_t count = body.U32();
  for (uint32_t i = 0; i < count && body.CanRead(8); ++i) {
    const uint32_t tag = body.U32();
    const uint32_t size = body.U32();
    std::string_view text = body.Text(std::min<size_t>(size, body.Remaining()));
    text = text.substr(0, text.find('\0'));
    for (const InfoTag& info : kInfoTags)
      if (info.chunkId == tag && !text.empty()) wave.SetText(info.slot, NarrowToUtf8(text));
  }
}

bool ParseW64(Waveform& wave, FileObject& file, uint64_t end) {
  W64Cursor cursor;
  if (!cursor.Open(file, 0, end) || cursor.tag != MakeId("riff", kRiffTail) || cursor.form != MakeId("wave", kWaveTail))
    return Fail("Not a Sonic Foundry/Sony Wave64 file");
  bool haveFormat = false, haveData = false;
  uint32_t blockAlign = 0;
  uint64_t dataBytes = 0, factFrames = 0;
  std::vector<uint8_t> body;
  while (cursor.Step()) {
    const Guid id = cursor.id;
    if (id == MakeId("data", kWaveTail)) {
      if (haveData) continue;
      haveData = true;
      wave.sourceOffset = cursor.position;
      dataBytes = cursor.chunkSize;
      continue;
    }
    const bool isFormat = id == MakeId("fmt ", kWaveTail);
    if ((isFormat && haveFormat) || !cursor.ReadBody(body, kMaxChunkRead)) continue;
    ByteReader reader(body);
    if (isFormat) {
      if (!ParseFormat(wave, reader, blockAlign)) return false;
      haveFormat = true;
    } else if (id == MakeId("fact", kWaveTail)) {
      factFrames = body.size() >= 8 ? reader.U64() : reader.U32();
    } else if (id == MakeId("smpl", kWaveTail)) {
      ReadSamplerChunk(wave, body.data(), body.size());
    } else if (id == kMarkersId) {
      ParseMarkers(wave, reader);
    } else if (id == MakeId("list", kListTail)) {
      ParseList(wave, reader);
    }
  }
  if (!haveFormat) return Fail("Couldn't find fmt chunk!");
  if (!haveData) return Fail("Couldn't find data chunk!");
  const uint64_t frameBytes = std::max<uint64_t>(blockAlign, uint64_t(wave.channels) * ((wave.bits + 7) / 8));
  uint64_t frames = dataBytes / std::max<uint64_t>(frameBytes, 1);
  if (factFrames) frames = std::min(frames, factFrames);
  wave.length = uint32_t(std::min<uint64_t>(frames, 0xFFFFFFFF));
  return true;
}

// Wave-64 chunks in memory: a head with a placeholder size, back-patched, then padded to 8.
class W64Writer {
 public:
  size_t Open(const Guid& id) {
    const size_t head = writer_.Size();
    writer_.Append(id.data(), 16);
    writer_.U64(0);
    return head;
  }
  // The last chunk of a file goes without its pad: common readers would take the pad as samples.
  void Close(size_t head, bool pad = true) {
    writer_.PatchU64(head + 16, writer_.Size() - head);
    if (pad) writer_.Fill(0, (8 - writer_.Size() % 8) % 8);
  }
  void Chunk(const Guid& id, const std::vector<uint8_t>& body) {
    const size_t head = Open(id);
    writer_.Append(body.data(), body.size());
    Close(head);
  }
  ByteWriter& Body() { return writer_; }

 private:
  ByteWriter writer_;
};

}  // namespace

int32_t DetectW64(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (headBytes < 40) return 0;
  return std::memcmp(head, "riff", 4) == 0 && std::memcmp(head + 4, kRiffTail, 12) == 0 &&
                 std::memcmp(head + 24, "wave", 4) == 0 && std::memcmp(head + 28, kWaveTail, 12) == 0
             ? 6
             : 0;
}

bool ReadW64(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  if (size <= 0) return Fail("Not a Sonic Foundry/Sony Wave64 file");
  auto* wave = new Waveform(collection);
  wave->SetName(std::filesystem::path(file->Path()).stem().string());
  if (!ParseW64(*wave, *file, uint64_t(size))) {
    delete wave;
    return false;
  }
  return true;
}

bool WriteW64(Item* item, FileObject* file, const SaveOptions* options) {
  if (!item || item->Type() != ItemType::Waveform) return Fail("The file format can not save this item");
  Waveform& wave = *static_cast<Waveform*>(item);
  SaveOptions choice = *options;
  if (!(choice.caps & kCapsStorageMask)) choice.caps |= kWaveWritableStorage;
  if (!(choice.caps & kCapsChannelMask)) choice.caps |= kCapsChannelMask;
  double rate = 0.0;
  const uint32_t storage = ChooseSaveFormat(wave, choice, rate);
  const uint32_t channels = ChooseChannels(wave, choice);
  uint16_t tag = 1, bits = 16;
  uint32_t flags = 0;
  switch (storage) {
    case kStoragePcm8: bits = 8; flags = kSourceUnsigned; break;
    case kStoragePcm16: bits = 16; break;
    case kStoragePcm24: bits = 24; break;
    case kStoragePcm32: bits = 32; break;
    case kStorageFloat32: tag = 3; bits = 32; break;
    case kStorageMuLaw: tag = 7; bits = 8; break;
    case kStorageALaw: tag = 6; bits = 8; break;
    default: return Fail("Unsupported subformat");
  }
  if (!wave.GetSamplesForRead() && wave.length) return false;
  const uint32_t frames = wave.Data() ? wave.Data()->frames : 0;

  W64Writer w64;
  const size_t outer = w64.Open(MakeId("riff", kRiffTail));
  const Guid form = MakeId("wave", kWaveTail);
  w64.Body().Append(form.data(), 16);
  ByteWriter format;
  const uint16_t blockAlign = uint16_t(bits / 8 * channels);
  format.U16(tag);
  format.U16(uint16_t(channels));
  format.U32(wave.sampleRate);
  format.U32(blockAlign * wave.sampleRate);
  format.U16(blockAlign);
  format.U16(bits);
  w64.Chunk(MakeId("fmt ", kWaveTail), format.Bytes());
  if (tag != 1) {
    ByteWriter fact;
    fact.U64(frames);
    w64.Chunk(MakeId("fact", kWaveTail), fact.Bytes());
  }
  ByteWriter list;
  uint32_t entries = 0;
  list.U32(0);
  auto addText = [&](uint32_t chunkId, const std::string& text) {
    list.U32(chunkId);
    list.U32(uint32_t(text.size() + 1));
    list.Append(text);
    list.U8(0);
    ++entries;
  };
  for (const InfoTag& info : kInfoTags) {
    const std::string text = Utf8ToNarrow(wave.GetText(info.slot));
    if (!text.empty()) addText(info.chunkId, text);
    if (info.slot == kTextName) addText(FourCC("ISFT"), kSoftwareTag);
  }
  list.PatchU32(0, entries);
  w64.Chunk(MakeId("list", kListTail), list.Bytes());

  ByteWriter markers;
  uint32_t markerCount = 0;
  markers.U32(0);
  auto addMarker = [&](uint64_t position, int64_t length, const std::string& name) {
    std::u16string wide;
    for (size_t i = 0; i < name.size();) {
      // UTF-8 to UTF-16 for the basic plane; anything else becomes '_'.
      const uint8_t lead = uint8_t(name[i]);
      uint32_t code = '_';
      size_t step = 1;
      if (lead < 0x80) code = lead;
      else if ((lead & 0xE0) == 0xC0 && i + 1 < name.size()) { code = (lead & 0x1F) << 6 | (name[i + 1] & 0x3F); step = 2; }
      else if ((lead & 0xF0) == 0xE0 && i + 2 < name.size()) {
        code = (lead & 0x0F) << 12 | (name[i + 1] & 0x3F) << 6 | (name[i + 2] & 0x3F);
        step = 3;
      } else if ((lead & 0xF8) == 0xF0) step = 4;
      wide.push_back(char16_t(code));
      i += step;
    }
    markers.U32(0);  // flags
    markers.U32(markerCount);
    markers.U64(position);
    markers.U64(uint64_t(length));
    markers.U32(0);  // reserved
    markers.U32(uint32_t(wide.size()));
    for (char16_t unit : wide) markers.U16(uint16_t(unit));
    ++markerCount;
  };
  if (wave.loop.type != 0) {
    const double start = std::max(0.0, double(wave.loop.start));
    const double end = std::min(double(wave.loop.end), double(wave.length));
    addMarker(uint64_t(start + 0.5), int64_t(std::max(0.0, end - start) + 0.5), "Loop");
  }
  for (const Marker& marker : wave.markers)
    addMarker(marker.start, marker.section ? int64_t(marker.end) - int64_t(marker.start) : -1, marker.name);
  if (markerCount) {
    markers.PatchU32(0, markerCount);
    w64.Chunk(kMarkersId, markers.Bytes());
  }
  w64.Chunk(MakeId("smpl", kWaveTail), SamplerChunkBody(wave));
  const size_t data = w64.Open(MakeId("data", kWaveTail));
  if (!AppendSamples(w64.Body().Bytes(), wave, storage, channels, flags)) return false;
  w64.Close(data, false);

  w64.Body().PatchU64(outer + 16, w64.Body().Size() - outer);
  const std::vector<uint8_t>& image = w64.Body().Bytes();
  if (!file->Write(image.data(), image.size())) return Fail("Writing to file failed");
  return true;
}

}  // namespace orlin
