#include "formats/audio/plain_containers.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"
#include "core/save_choice.h"
#include "formats/common/byte_reader.h"

namespace orlin {

namespace {

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

uint16_t Be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }
uint32_t Le32(const uint8_t* p) { return uint32_t(p[3]) << 24 | p[2] << 16 | p[1] << 8 | p[0]; }

uint64_t FileBytes(FileObject& file) {
  const int64_t size = file.Size();
  return size > 0 ? uint64_t(size) : 0;
}

Waveform* NewWave(Collection* collection, FileObject& file) {
  auto* wave = new Waveform(collection);
  wave->SetName(std::filesystem::path(file.Path()).stem().string());
  return wave;
}

// Points `wave` at plain samples from `offset`: `frames` is cut to the bytes the file holds.
void SetPlain(Waveform& wave, uint32_t storage, uint32_t flags, uint32_t channels, uint32_t rate, uint64_t offset,
              uint64_t frames, uint64_t fileBytes) {
  wave.SetPcmSourceByFormat(storage, flags);
  wave.channels = uint8_t(channels);
  wave.sampleRate = rate ? rate : 44100;
  wave.sourceOffset = offset;
  const uint64_t frameBytes = uint64_t(BitsOf(storage) / 8) * channels;
  const uint64_t present = offset < fileBytes && frameBytes ? (fileBytes - offset) / frameBytes : 0;
  wave.length = uint32_t(std::min<uint64_t>({frames, present, 0xFFFFFFFF}));
}

bool ReadHead(FileObject& file, std::vector<uint8_t>& head, size_t want) {
  head.assign(std::min<uint64_t>(want, FileBytes(file)), 0);
  return !head.empty() && file.ReadAt(0, head.data(), head.size());
}

// Reads the whole of a small record-structured file; the formats here hold a few megabytes at most.
bool ReadAll(FileObject& file, std::vector<uint8_t>& bytes) {
  const uint64_t size = FileBytes(file);
  if (size >= 0x40000000) return Fail("Wave is too big!");
  try {
    bytes.resize(size_t(size));
  } catch (const std::bad_alloc&) {
    return Fail("Out of memory");
  }
  return bytes.empty() || file.ReadAt(0, bytes.data(), bytes.size()) ? true : Fail("Reading from file failed");
}

}  // namespace

// ---- Sun/NeXT/DEC au ----------------------------------------------------------------------------------
// ".snd", data offset, data size (all ones: to the end), encoding, rate, channels; big-endian, or
// little-endian behind the DEC magic ".sd\0" written backwards.

namespace {

struct AuEncoding {
  uint32_t code;
  uint32_t storage;
};
constexpr AuEncoding kAuEncodings[] = {
    {1, kStorageMuLaw}, {2, kStoragePcm8}, {3, kStoragePcm16}, {4, kStoragePcm24}, {5, kStoragePcm32},
    {6, kStorageFloat32}, {7, kStorageFloat64}, {27, kStorageALaw},
};

}  // namespace

int32_t DetectAu(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (headBytes < 24) return 0;
  return std::memcmp(head, ".snd", 4) == 0 || std::memcmp(head, "dns.", 4) == 0 ? 6 : 0;
}

bool ReadAu(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> head;
  if (!ReadHead(*file, head, 24) || head.size() < 24 || !DetectAu(head.data(), 0, 24, 0))
    return Fail("Not a Sun/NeXT audio file");
  const bool little = head[0] == 'd';
  auto word = [&](size_t at) { return little ? Le32(head.data() + at) : Be32(head.data() + at); };
  const uint32_t offset = word(4), dataBytes = word(8), encoding = word(12), rate = word(16), channels = word(20);
  uint32_t storage = kStorageMixed;
  for (const AuEncoding& entry : kAuEncodings)
    if (entry.code == encoding) storage = entry.storage;
  if (storage == kStorageMixed) return Fail("Unknown sample format or compression");
  if (channels == 0 || channels > 2) return Fail("Can't handle > 2 channel files");
  const uint64_t fileBytes = FileBytes(*file);
  uint64_t available = offset < fileBytes ? fileBytes - offset : 0;
  if (dataBytes != 0xFFFFFFFF) available = std::min<uint64_t>(available, dataBytes);
  auto* wave = NewWave(collection, *file);
  SetPlain(*wave, storage, little ? 0 : kSourceBigEndian, channels, rate, offset,
           available / (uint64_t(BitsOf(storage) / 8) * channels), fileBytes);
  return true;
}

bool WriteAu(Item* item, FileObject* file, const SaveOptions* options) {
  if (!item || item->Type() != ItemType::Waveform) return Fail("The file format can not save this item");
  Waveform& wave = *static_cast<Waveform*>(item);
  double rate = 0;
  const uint32_t storage = ChooseSaveFormat(wave, *options, rate);
  uint32_t code = 0;
  for (const AuEncoding& entry : kAuEncodings)
    if (entry.storage == storage) code = entry.code;
  if (!code) return Fail("Unsupported subformat");
  const uint32_t channels = ChooseChannels(wave, *options);
  if (!wave.GetSamplesForRead() && wave.length) return false;
  const uint64_t bytes = SampleBytes(wave.Data() ? wave.Data()->frames : 0, storage, channels);
  ByteWriter head;
  head.Append(".snd");
  head.U32Be(28);  // header plus a four-byte empty annotation, as most writers leave
  head.U32Be(bytes < 0xFFFFFFFF ? uint32_t(bytes) : 0xFFFFFFFF);
  head.U32Be(code);
  head.U32Be(wave.sampleRate);
  head.U32Be(channels);
  head.U32Be(0);
  if (!file->Write(head.Bytes().data(), head.Size())) return Fail("Writing to file failed");
  return WriteSamples(*file, wave, storage, channels, kSourceBigEndian);
}

// ---- AVR: "2BIT", name, mono/stereo word, bits, signed word, loop word, MIDI note, rate (low 24
// bits), frames, loop start and end; 128-byte head, big-endian ----------------------------------------

int32_t DetectAvr(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 128 && std::memcmp(head, "2BIT", 4) == 0 ? 6 : 0;
}

bool ReadAvr(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> head;
  if (!ReadHead(*file, head, 128) || head.size() < 128 || !DetectAvr(head.data(), 0, 128, 0))
    return Fail("Not an AVR file");
  const uint32_t channels = Be16(head.data() + 12) ? 2 : 1;
  const uint32_t bits = Be16(head.data() + 14);
  const bool isSigned = Be16(head.data() + 16) != 0;
  const bool looped = Be16(head.data() + 18) != 0;
  const uint32_t note = Be16(head.data() + 20);
  const uint32_t rate = Be32(head.data() + 22) & 0xFFFFFF;
  const uint32_t frames = Be32(head.data() + 26);
  if (bits != 8 && bits != 16) return Fail("Unknown sample format or compression");
  auto* wave = NewWave(collection, *file);
  std::string name(reinterpret_cast<const char*>(head.data() + 4), 8);
  name.resize(std::strlen(name.c_str()));
  if (!name.empty()) wave->SetNameNarrow(name);
  SetPlain(*wave, bits == 8 ? kStoragePcm8 : kStoragePcm16,
           (bits == 16 ? kSourceBigEndian : 0) | (isSigned ? 0 : kSourceUnsigned), channels, rate, 128, frames,
           FileBytes(*file));
  // The MIDI word holds a key split in its high byte and the note in its low one; 0xFFFF is none.
  if ((note & 0xFF) <= 127 && note != 0xFFFF) wave->rootKey = uint8_t(note & 0xFF);
  const uint32_t loopStart = Be32(head.data() + 30), loopEnd = Be32(head.data() + 34);
  if (looped && loopStart < loopEnd && loopEnd <= wave->length) {
    wave->loop.type = 1;
    wave->loop.start = float(loopStart);
    wave->loop.end = float(loopEnd);
  }
  return true;
}

// ---- NIST SPHERE: a text head of "name -type value" lines up to "end_head" -------------------------

int32_t DetectNist(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 16 && std::memcmp(head, "NIST_1A\n", 8) == 0 ? 6 : 0;
}

bool ReadNist(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> head;
  if (!ReadHead(*file, head, 4096) || !DetectNist(head.data(), 0, uint32_t(head.size()), 0))
    return Fail("Not a NIST SPHERE file");
  const std::string text(head.begin(), head.end());
  const uint64_t headBytes = std::strtoull(text.c_str() + 8, nullptr, 10);
  auto field = [&](const char* name) -> std::string {
    const std::string key = std::string("\n") + name + " ";
    const size_t at = text.find(key);
    if (at == std::string::npos) return "";
    const size_t type = at + key.size();
    const size_t value = text.find(' ', type);
    const size_t end = text.find('\n', type);
    if (value == std::string::npos || end == std::string::npos || value > end) return "";
    return text.substr(value + 1, end - value - 1);
  };
  const uint32_t channels = uint32_t(std::strtoul(field("channel_count").c_str(), nullptr, 10));
  const uint32_t bytes = uint32_t(std::strtoul(field("sample_n_bytes").c_str(), nullptr, 10));
  const uint32_t rate = uint32_t(std::strtoul(field("sample_rate").c_str(), nullptr, 10));
  const std::string countText = field("sample_count");
  const std::string coding = field("sample_coding");
  const std::string order = field("sample_byte_format");
  if (channels == 0 || channels > 2) return Fail("Can't handle > 2 channel files");
  uint32_t storage = kStorageMixed;
  if (coding.rfind("ulaw", 0) == 0 || coding.rfind("mu-law", 0) == 0) storage = kStorageMuLaw;
  else if (coding.rfind("alaw", 0) == 0) storage = kStorageALaw;
  else if (coding.empty() || coding.rfind("pcm", 0) == 0)
    storage = bytes == 1 ? kStoragePcm8 : bytes == 2 ? kStoragePcm16 : bytes == 3 ? kStoragePcm24 : bytes == 4 ? kStoragePcm32 : kStorageMixed;
  if (storage == kStorageMixed) return Fail("Unknown sample format or compression");
  // "10" is big-endian, "01" little-endian; "shortpack" files name their order the same way.
  const bool bigEndian = order.rfind("10", 0) == 0;
  const uint64_t fileBytes = FileBytes(*file);
  const uint64_t frames = countText.empty() ? ~uint64_t(0) : std::strtoull(countText.c_str(), nullptr, 10);
  auto* wave = NewWave(collection, *file);
  SetPlain(*wave, storage, bigEndian ? kSourceBigEndian : 0, channels, rate, headBytes ? headBytes : 1024, frames,
           fileBytes);
  return true;
}

// ---- IRCAM / BICSF: a 1024-byte head of magic, float rate, channels and encoding, in the byte order
// the magic names (its third byte 1 or 3 little-endian, 2 or 4 big-endian) --------------------------

int32_t DetectIrcam(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (headBytes < 16) return 0;
  const bool forward = head[0] == 0x64 && head[1] == 0xA3 && head[2] >= 1 && head[2] <= 4 && head[3] == 0;
  const bool backward = head[3] == 0x64 && head[2] == 0xA3 && head[1] >= 1 && head[1] <= 4 && head[0] == 0;
  return forward || backward ? 6 : 0;
}

bool ReadIrcam(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> head;
  if (!ReadHead(*file, head, 1024) || !DetectIrcam(head.data(), 0, uint32_t(head.size()), 0))
    return Fail("Not an IRCAM sound file");
  const uint8_t kind = head[0] == 0x64 ? head[2] : head[1];
  const bool little = kind == 1 || kind == 3;
  auto word = [&](size_t at) { return little ? Le32(head.data() + at) : Be32(head.data() + at); };
  const uint32_t rateBits = word(4);
  float rate;
  std::memcpy(&rate, &rateBits, 4);
  const uint32_t channels = word(8);
  const uint32_t encoding = word(12);
  uint32_t storage = kStorageMixed;
  switch (encoding) {
    case 1: storage = kStoragePcm8; break;
    case 2: storage = kStoragePcm16; break;
    case 3: storage = kStoragePcm24; break;
    case 4: storage = kStorageFloat32; break;
    case 8: storage = kStorageFloat64; break;
    case 0x40004: storage = kStoragePcm32; break;
    case 0x10001: storage = kStorageALaw; break;
    case 0x20001: storage = kStorageMuLaw; break;
    default: return Fail("Unknown sample format or compression");
  }
  if (channels == 0 || channels > 2) return Fail("Can't handle > 2 channel files");
  auto* wave = NewWave(collection, *file);
  const uint32_t hz = std::isfinite(rate) && rate >= 1 && rate < 1e7 ? uint32_t(std::lround(rate)) : 44100;
  SetPlain(*wave, storage, little ? 0 : kSourceBigEndian, channels, hz, 1024, ~uint64_t(0), FileBytes(*file));
  return true;
}

// ---- Samplevision: "SOUND SAMPLE DATA " and a version, comment and name, the count of 16-bit
// little-endian samples, the samples, then eight loops, eight markers, the MIDI note and the rate ----

namespace {
constexpr size_t kSmpHeadBytes = 112;
constexpr size_t kSmpTrailerBytes = 2 + 8 * 11 + 8 * 14 + 1 + 4 + 4 + 4;
}  // namespace

int32_t DetectSamplevision(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 22 && std::memcmp(head, "SOUND SAMPLE DATA ", 18) == 0 ? 6 : 0;
}

bool ReadSamplevision(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> head;
  if (!ReadHead(*file, head, kSmpHeadBytes + 4) || head.size() < kSmpHeadBytes + 4 ||
      !DetectSamplevision(head.data(), 0, uint32_t(head.size()), 0))
    return Fail("Not a Samplevision file");
  const uint32_t count = Le32(head.data() + kSmpHeadBytes);
  const uint64_t fileBytes = FileBytes(*file);
  auto* wave = NewWave(collection, *file);
  std::string name(reinterpret_cast<const char*>(head.data() + 82), 30);
  while (!name.empty() && (name.back() == ' ' || name.back() == '\0')) name.pop_back();
  if (!name.empty()) wave->SetNameNarrow(name);
  SetPlain(*wave, kStoragePcm16, 0, 1, 44100, kSmpHeadBytes + 4, count, fileBytes);
  std::vector<uint8_t> tail(kSmpTrailerBytes);
  const uint64_t tailAt = kSmpHeadBytes + 4 + uint64_t(count) * 2;
  if (tailAt + tail.size() > fileBytes || !file->ReadAt(tailAt, tail.data(), tail.size())) return true;
  ByteReader reader(tail);
  reader.Skip(2);
  bool haveLoop = false;
  for (int i = 0; i < 8; ++i) {
    const uint32_t start = reader.U32(), end = reader.U32();
    const uint8_t type = reader.U8();
    reader.U16();  // repeat count
    // The first loop that is set becomes the wave's loop; its end is the last sample, inclusive.
    if (!haveLoop && type != 0 && start != 0xFFFFFFFF && start < end && end < wave->length) {
      haveLoop = true;
      wave->loop.type = type == 2 ? 3 : 1;
      wave->loop.start = float(start);
      wave->loop.end = float(end + 1);
    }
  }
  for (int i = 0; i < 8; ++i) {
    const std::string_view label = reader.Text(10);
    const uint32_t position = reader.U32();
    if (position == 0xFFFFFFFF || position > wave->length) continue;
    Marker marker;
    marker.start = position;
    std::string text(label);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) text.pop_back();
    marker.name = text;
    marker.id = NextMarkerId();
    wave->markers.push_back(marker);
  }
  const uint8_t note = reader.U8();
  const uint32_t rate = reader.U32();
  if (note <= 127) wave->rootKey = note;
  if (rate > 0 && rate < 10000000) wave->sampleRate = rate;
  return true;
}

// ---- Psion A-law: "ALawSoundFile**", version, sample count, then 8 kHz A-law from byte 32 -----------

int32_t DetectPsion(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 32 && std::memcmp(head, "ALawSoundFile**", 15) == 0 ? 6 : 0;
}

bool ReadPsion(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> head;
  if (!ReadHead(*file, head, 32) || head.size() < 32 || !DetectPsion(head.data(), 0, 32, 0))
    return Fail("Not a Psion A-law file");
  auto* wave = NewWave(collection, *file);
  SetPlain(*wave, kStorageALaw, 0, 1, 8000, 32, Be32(head.data() + 18), FileBytes(*file));
  return true;
}

// ---- Creative VOC: a head naming where the blocks start, then typed blocks with 24-bit sizes -----------

namespace {

struct VocLayout {
  uint32_t storage = kStoragePcm8;
  uint32_t flags = kSourceUnsigned;
  uint32_t channels = 1;
  uint32_t rate = 0;
  std::vector<std::pair<uint64_t, uint64_t>> runs;  // sample bytes: offset and count
  int64_t loopStartByte = -1, loopEndByte = -1;
  std::vector<uint64_t> markerBytes;
  bool unsupported = false;
};

// Walks the blocks. Blocks 1 (8-bit), 2 (more of the same), 8 (rate and channels for the next 1) and 9
// (any width) carry sound; 4 is a marker, 6 and 7 bracket a repeated part, which becomes the loop.
VocLayout WalkVoc(const std::vector<uint8_t>& bytes) {
  VocLayout layout;
  size_t at = bytes.size() >= 22 ? bytes[20] | bytes[21] << 8 : bytes.size();
  uint64_t total = 0;
  bool haveExtended = false;
  for (int guard = 0; at + 1 <= bytes.size() && guard < 1000000; ++guard) {
    const uint8_t type = bytes[at];
    if (type == 0 || at + 4 > bytes.size()) break;
    size_t size = bytes[at + 1] | bytes[at + 2] << 8 | size_t(bytes[at + 3]) << 16;
    const size_t body = at + 4;
    size = std::min(size, bytes.size() - body);
    const uint8_t* p = bytes.data() + body;
    if (type == 1 && size >= 2) {
      if (p[1] != 0) layout.unsupported = true;  // Creative ADPCM
      if (!haveExtended && !layout.rate) layout.rate = uint32_t(1000000 / (256 - p[0]));
      layout.runs.emplace_back(body + 2, size - 2);
      total += size - 2;
    } else if (type == 2) {
      layout.runs.emplace_back(body, size);
      total += size;
    } else if (type == 8 && size >= 4 && !layout.rate) {
      haveExtended = true;
      const uint32_t constant = uint32_t(p[0] | p[1] << 8);
      layout.channels = p[3] ? 2 : 1;
      if (constant < 65536) layout.rate = uint32_t(256000000 / (layout.channels * (65536 - constant)));
    } else if (type == 9 && size >= 12) {
      layout.rate = p[0] | p[1] << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
      const uint32_t bits = p[4];
      layout.channels = std::clamp<uint32_t>(p[5], 1, 2);
      const uint32_t codec = uint32_t(p[6] | p[7] << 8);
      if (codec == 0 && bits == 8) layout.storage = kStoragePcm8, layout.flags = kSourceUnsigned;
      else if (codec == 4 && bits == 16) layout.storage = kStoragePcm16, layout.flags = 0;
      else if (codec == 6) layout.storage = kStorageALaw, layout.flags = 0;
      else if (codec == 7) layout.storage = kStorageMuLaw, layout.flags = 0;
      else layout.unsupported = true;
      layout.runs.emplace_back(body + 12, size - 12);
      total += size - 12;
    } else if (type == 4) {
      layout.markerBytes.push_back(total);
    } else if (type == 6) {
      layout.loopStartByte = int64_t(total);
    } else if (type == 7 && layout.loopStartByte >= 0 && layout.loopEndByte < 0) {
      layout.loopEndByte = int64_t(total);
    }
    at = body + size;
  }
  return layout;
}

uint32_t VocFrameBytes(const VocLayout& layout) { return BitsOf(layout.storage) / 8 * layout.channels; }

// The decoder gathers the sample runs of all blocks and converts them in one go.
bool DecodeVocSamples(Waveform* wave, FileObject* file) {
  std::vector<uint8_t> bytes;
  if (!file || !file->IsOpen()) return Fail("Reading from file failed");
  if (!ReadAll(*file, bytes)) return false;
  const VocLayout layout = WalkVoc(bytes);
  if (wave->length == 0) return Fail("Zero length");
  std::vector<uint8_t> joined;
  joined.reserve(size_t(wave->length) * VocFrameBytes(layout));
  for (const auto& [offset, count] : layout.runs) joined.insert(joined.end(), bytes.begin() + ptrdiff_t(offset), bytes.begin() + ptrdiff_t(offset + count));
  joined.resize(size_t(wave->length) * VocFrameBytes(layout), layout.storage == kStoragePcm8 ? 0x80 : 0);
  if (!wave->AllocSamples()) return Fail("Out of memory");
  DecodeSampleBlock(layout.storage, layout.flags, joined.data(), size_t(wave->length) * layout.channels,
                    wave->Data()->samples);
  return true;
}

}  // namespace

int32_t DetectVoc(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 26 && std::memcmp(head, "Creative Voice File\x1A", 20) == 0 ? 6 : 0;
}

bool ReadVoc(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!ReadAll(*file, bytes)) return false;
  if (!DetectVoc(bytes.data(), 0, uint32_t(std::min<size_t>(bytes.size(), 32768)), 0))
    return Fail("Not a Creative Voice file");
  const VocLayout layout = WalkVoc(bytes);
  if (layout.unsupported) return Fail("Unknown sample format or compression");
  uint64_t total = 0;
  for (const auto& run : layout.runs) total += run.second;
  auto* wave = NewWave(collection, *file);
  wave->SetPcmSourceByFormat(layout.storage, layout.flags);
  wave->channels = uint8_t(layout.channels);
  wave->sampleRate = layout.rate ? layout.rate : 8000;
  wave->sourceOffset = layout.runs.empty() ? 0 : layout.runs.front().first;
  wave->length = uint32_t(std::min<uint64_t>(total / VocFrameBytes(layout), 0xFFFFFFFF));
  wave->decoder = DecodeVocSamples;
  const uint32_t frameBytes = VocFrameBytes(layout);
  if (layout.loopStartByte >= 0) {
    const uint64_t start = uint64_t(layout.loopStartByte) / frameBytes;
    const uint64_t end = layout.loopEndByte >= 0 ? uint64_t(layout.loopEndByte) / frameBytes : wave->length;
    if (start < end && end <= wave->length) {
      wave->loop.type = 1;
      wave->loop.start = float(start);
      wave->loop.end = float(end);
    }
  }
  for (uint64_t at : layout.markerBytes) {
    Marker marker;
    marker.start = uint32_t(std::min<uint64_t>(at / frameBytes, wave->length));
    marker.id = NextMarkerId();
    wave->markers.push_back(marker);
  }
  return true;
}

// ---- MIDI sample dump: a 21-byte dump header, then 127-byte data packets of 120 bytes each; a
// sample takes as many 7-bit bytes as its width needs, from the top bits down, offset binary -------------

namespace {

constexpr size_t kSdsHeaderBytes = 21, kSdsPacketBytes = 127, kSdsPacketData = 120;

uint32_t Seven3(const uint8_t* p) { return (p[0] & 0x7F) | (p[1] & 0x7F) << 7 | uint32_t(p[2] & 0x7F) << 14; }

bool DecodeSdsSamples(Waveform* wave, FileObject* file) {
  std::vector<uint8_t> bytes;
  if (!file || !file->IsOpen()) return Fail("Reading from file failed");
  if (!ReadAll(*file, bytes)) return false;
  if (bytes.size() < kSdsHeaderBytes || wave->length == 0) return Fail("Zero length");
  const uint32_t bits = std::clamp<uint32_t>(bytes[6], 8, 28);
  const uint32_t perSample = (bits + 6) / 7;
  float* out = wave->AllocSamples();
  if (!out) return Fail("Out of memory");
  std::fill(out, out + wave->length, 0.0f);
  const double scale = 1.0 / double(uint64_t(1) << (perSample * 7 - 1));
  uint64_t done = 0;
  for (size_t at = kSdsHeaderBytes; at + kSdsPacketBytes <= bytes.size() && done < wave->length;) {
    if (bytes[at] != 0xF0 || bytes[at + 3] != 0x02) {
      ++at;  // handshake bytes or other messages between packets
      continue;
    }
    const uint8_t* data = bytes.data() + at + 5;
    for (size_t k = 0; k + perSample <= kSdsPacketData && done < wave->length; k += perSample) {
      uint64_t value = 0;
      for (uint32_t b = 0; b < perSample; ++b) value = value << 7 | (data[k + b] & 0x7F);
      // The bits below the stated width are kept: they are zero from a true 16-bit source.
      out[done++] = float(double(value) * scale - 1.0);
    }
    at += kSdsPacketBytes;
  }
  return true;
}

}  // namespace

int32_t DetectSds(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= kSdsHeaderBytes && head[0] == 0xF0 && head[1] == 0x7E && head[3] == 0x01 && head[20] == 0xF7 ? 6
                                                                                                                   : 0;
}

bool ReadSds(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> head;
  if (!ReadHead(*file, head, kSdsHeaderBytes) || head.size() < kSdsHeaderBytes ||
      !DetectSds(head.data(), 0, uint32_t(head.size()), 0))
    return Fail("Not a MIDI sample dump");
  const uint32_t bits = head[6];
  if (bits < 8 || bits > 28) return Fail("Unknown sample format or compression");
  const uint32_t period = Seven3(head.data() + 7);  // nanoseconds a sample
  const uint32_t words = Seven3(head.data() + 10);
  const uint32_t loopStart = Seven3(head.data() + 13), loopEnd = Seven3(head.data() + 16);
  const uint8_t loopType = head[19];
  auto* wave = NewWave(collection, *file);
  wave->SetPcmSourceByFormat(bits <= 8 ? kStoragePcm8 : bits <= 16 ? kStoragePcm16 : bits <= 24 ? kStoragePcm24 : kStoragePcm32, 0);
  wave->bits = uint8_t(bits);
  wave->channels = 1;
  wave->sampleRate = period ? uint32_t(std::lround(1e9 / period)) : 44100;
  const uint64_t perSample = (bits + 6) / 7;
  const uint64_t packets = (FileBytes(*file) - kSdsHeaderBytes) / kSdsPacketBytes;
  wave->length = uint32_t(std::min<uint64_t>(words, packets * (kSdsPacketData / perSample)));
  wave->sourceOffset = kSdsHeaderBytes;
  wave->decoder = DecodeSdsSamples;
  // The loop end is the last sample of the loop; type 0 forward, 1 alternating, 0x7F none.
  if (loopType != 0x7F && loopStart < loopEnd && loopEnd < wave->length) {
    wave->loop.type = loopType == 1 ? 3 : 1;
    wave->loop.start = float(loopStart);
    wave->loop.end = float(loopEnd + 1);
  }
  return true;
}

// ---- Ensoniq PARIS: " paf" (or "fap " little-endian), version, byte order (0 big, 1 little), rate,
// format (0 16-bit, 1 24-bit, 2 8-bit), channels; samples from byte 2048. 24-bit data comes in
// blocks of 32 bytes a channel, ten 3-byte samples each, whose 32-bit words are in the file's order ----

namespace {

constexpr uint64_t kPafDataOffset = 2048;
constexpr uint32_t kPafBlockBytes = 32, kPafBlockFrames = 10;

bool DecodePaf24(Waveform* wave, FileObject* file) {
  if (!file || !file->IsOpen()) return Fail("Reading from file failed");
  if (wave->length == 0) return Fail("Zero length");
  const uint32_t channels = wave->channels;
  const bool bigEndian = wave->sourceFormat & kSourceBigEndian;
  const uint64_t blocks = (uint64_t(wave->length) + kPafBlockFrames - 1) / kPafBlockFrames;
  const uint64_t blockBytes = uint64_t(kPafBlockBytes) * channels;
  if (blocks * blockBytes >= 0x40000000) return Fail("Wave is too big!");
  std::vector<uint8_t> bytes(size_t(blocks * blockBytes), 0);
  const uint64_t fileBytes = FileBytes(*file);
  const uint64_t present = std::min<uint64_t>(bytes.size(), fileBytes > kPafDataOffset ? fileBytes - kPafDataOffset : 0);
  if (present && !file->ReadAt(kPafDataOffset, bytes.data(), size_t(present))) return Fail("Reading from file failed");
  float* out = wave->AllocSamples();
  if (!out) return Fail("Out of memory");
  for (uint64_t frame = 0; frame < wave->length; ++frame) {
    const uint8_t* block = bytes.data() + frame / kPafBlockFrames * blockBytes;
    for (uint32_t c = 0; c < channels; ++c) {
      // Byte k of the channel's part, read as the little-endian words it was laid out in.
      auto at = [&](uint32_t k) { return block[c * kPafBlockBytes + (bigEndian ? (k & ~3u) + 3 - (k & 3) : k)]; };
      const uint32_t first = uint32_t(frame % kPafBlockFrames) * 3;
      int32_t value = int32_t(at(first) | at(first + 1) << 8 | uint32_t(at(first + 2)) << 16);
      if (value & 0x800000) value -= 0x1000000;
      out[frame * channels + c] = float(value) * (1.0f / 8388608.0f);
    }
  }
  return true;
}

}  // namespace

int32_t DetectPaf(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 28 && (std::memcmp(head, " paf", 4) == 0 || std::memcmp(head, "fap ", 4) == 0) ? 6 : 0;
}

bool ReadPaf(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> head;
  if (!ReadHead(*file, head, 28) || head.size() < 28 || !DetectPaf(head.data(), 0, 28, 0))
    return Fail("Not an Ensoniq PARIS file");
  const bool littleHead = head[0] == 'f';
  auto word = [&](size_t at) { return littleHead ? Le32(head.data() + at) : Be32(head.data() + at); };
  const bool bigEndian = word(8) == 0;
  const uint32_t rate = word(12), format = word(16), channels = word(20);
  if (channels == 0 || channels > 2) return Fail("Can't handle > 2 channel files");
  const uint64_t fileBytes = FileBytes(*file);
  const uint64_t dataBytes = fileBytes > kPafDataOffset ? fileBytes - kPafDataOffset : 0;
  auto* wave = NewWave(collection, *file);
  if (format == 1) {
    wave->SetPcmSourceByFormat(kStoragePcm24, bigEndian ? kSourceBigEndian : 0);
    wave->channels = uint8_t(channels);
    wave->sampleRate = rate ? rate : 44100;
    wave->sourceOffset = kPafDataOffset;
    wave->length = uint32_t(std::min<uint64_t>(dataBytes / (uint64_t(kPafBlockBytes) * channels) * kPafBlockFrames, 0xFFFFFFFF));
    wave->decoder = DecodePaf24;
    return true;
  }
  if (format != 0 && format != 2) {
    delete wave;
    return Fail("Unknown sample format or compression");
  }
  SetPlain(*wave, format == 0 ? kStoragePcm16 : kStoragePcm8, format == 0 && bigEndian ? kSourceBigEndian : 0, channels,
           rate, kPafDataOffset, ~uint64_t(0), fileBytes);
  return true;
}

}  // namespace orlin
