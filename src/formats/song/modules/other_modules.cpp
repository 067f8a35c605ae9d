// The smaller module formats of the sample road. Each has its signature and its refusal text; 669,
// MultiTracker, ScreamTracker 2, Farandole, UltraTracker, Oktalyzer, PolyTracker and OctaMED samples
// are read. The rest (Extreme and Velvet AMS, XTracker, DSM, Digitrakker, PSM, Unreal packages) are
// recognised and skipped: their samples sit behind packing or containers not read here.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/song/modules/module_common.h"
#include "formats/song/modules/modules.h"
#include "formats/song/span_reader.h"

namespace orlin {

namespace {

using Bytes = std::vector<uint8_t>;

bool TagAt(const uint8_t* head, size_t size, size_t offset, const char* tag, size_t tagBytes) {
  return offset + tagBytes <= size && std::memcmp(head + offset, tag, tagBytes) == 0;
}

bool HasSignature(ModuleKind kind, const uint8_t* head, size_t size) {
  switch (kind) {
    case ModuleKind::Composer669: return TagAt(head, size, 0, "if", 2) || TagAt(head, size, 0, "JN", 2);
    case ModuleKind::ExtremeTracker: return TagAt(head, size, 0, "Extreme", 7);
    case ModuleKind::VelvetStudio: return TagAt(head, size, 0, "AMShdr\x1A", 7);
    case ModuleKind::XTracker: return TagAt(head, size, 0, "DDMF", 4);
    case ModuleKind::DigitalSound: return TagAt(head, size, 0, "RIFF", 4) && TagAt(head, size, 8, "DSMF", 4);
    case ModuleKind::Farandole: return TagAt(head, size, 0, "FAR\xFE", 4);
    case ModuleKind::Digitrakker: return TagAt(head, size, 0, "DMDL", 4);
    case ModuleKind::OctaMed:
      return TagAt(head, size, 0, "MMD", 3) && size > 3 && head[3] >= '0' && head[3] <= '3';
    case ModuleKind::MultiTracker: return TagAt(head, size, 0, "MTM", 3);
    case ModuleKind::Oktalyzer: return TagAt(head, size, 0, "OKTASONG", 8);
    case ModuleKind::ProtrackerStudio: return TagAt(head, size, 0, "PSM ", 4) || TagAt(head, size, 0, "PSM\xFE", 4);
    case ModuleKind::PolyTracker: return TagAt(head, size, 44, "PTMF", 4);
    case ModuleKind::ScreamTracker2: return size > 29 && head[28] == 0x1A && head[29] == 2;
    case ModuleKind::UltraTracker: return TagAt(head, size, 0, "MAS_UTrack_V00", 14);
    case ModuleKind::UnrealMusic: return TagAt(head, size, 0, "\xC1\x83\x2A\x9E", 4) || TagAt(head, size, 0, "\x9E\x2A\x83\xC1", 4);
  }
  return false;
}

const char* RefusalText(ModuleKind kind) {
  switch (kind) {
    case ModuleKind::Composer669: return "Not a 669 module";
    case ModuleKind::ExtremeTracker: return "Not an Extreme Tracker module";
    case ModuleKind::VelvetStudio: return "Not a Velvet Studio module";
    case ModuleKind::XTracker: return "Not an XTracker module";
    case ModuleKind::DigitalSound: return "Not a Digital Sound Module";
    case ModuleKind::Farandole: return "Not a Farandole module";
    case ModuleKind::Digitrakker: return "Not a Digitrakker module";
    case ModuleKind::OctaMed: return "Not an OctaMED module";
    case ModuleKind::MultiTracker: return "Not a MultiTracker module";
    case ModuleKind::Oktalyzer: return "Not an Oktalyzer module";
    case ModuleKind::ProtrackerStudio: return "Not a Protracker Studio module";
    case ModuleKind::PolyTracker: return "Not a Poly Tracker module";
    case ModuleKind::ScreamTracker2: return "Not a ScreamTracker v2 module";
    case ModuleKind::UltraTracker: return "Not an UltraTracker module";
    case ModuleKind::UnrealMusic: return "Not an Unreal Tournament music file";
  }
  return "";
}

// The fine-tune rule of Amiga modules, from a base rate.
uint32_t NibbleTunedRate(double base, uint8_t fineTune) {
  const int f = int8_t(uint8_t(fineTune << 4)) / 16;
  return uint32_t(std::lround(base * std::pow(2.0, f / 96.0)));
}

void SetLoop(ModuleSample& sample, uint32_t start, uint32_t end, uint8_t type = 1) {
  if (end > start && end <= sample.frames) sample.loopType = type, sample.loopStart = start, sample.loopEnd = end;
}

void Read669(Collection* collection, const Bytes& bytes) {
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(110);
  const uint32_t samples = reader.U8();
  const uint32_t patterns = reader.U8();
  constexpr size_t kHeaderBytes = 0x1F1, kRecordBytes = 25, kPatternBytes = 64 * 8 * 3;
  uint64_t data = kHeaderBytes + uint64_t(samples) * kRecordBytes + uint64_t(patterns) * kPatternBytes;
  reader.Seek(kHeaderBytes);
  for (uint32_t i = 0; i < samples && !reader.failed; ++i) {
    ModuleSample sample;
    sample.name = reader.Text(13);
    sample.frames = reader.U32le();
    const uint32_t loopStart = reader.U32le();
    const uint32_t loopEnd = reader.U32le();
    if (reader.failed) break;
    sample.offset = data;
    sample.flags = kSourceUnsigned;
    SetLoop(sample, loopStart, loopEnd);
    data += sample.frames;
    MakeModuleWave(collection, sample, bytes.size());
  }
}

void ReadMtm(Collection* collection, const Bytes& bytes) {
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(24);
  const uint32_t tracks = reader.U16le();
  const uint32_t lastPattern = reader.U8();
  reader.U8();  // last order
  const uint32_t commentBytes = reader.U16le();
  const uint32_t samples = reader.U8();
  constexpr size_t kHeaderBytes = 66, kRecordBytes = 37, kOrderBytes = 128, kTrackBytes = 192, kPatternBytes = 64;
  uint64_t data = kHeaderBytes + uint64_t(samples) * kRecordBytes + kOrderBytes + uint64_t(tracks) * kTrackBytes +
                  uint64_t(lastPattern + 1) * kPatternBytes + commentBytes;
  reader.Seek(kHeaderBytes);
  for (uint32_t i = 0; i < samples && !reader.failed; ++i) {
    ModuleSample sample;
    sample.name = reader.Text(22);
    const uint32_t lengthBytes = reader.U32le();
    const uint32_t loopStart = reader.U32le();
    const uint32_t loopEnd = reader.U32le();
    const uint8_t fineTune = reader.U8();
    reader.U8();  // volume
    const bool sixteenBit = reader.U8() & 1;
    if (reader.failed) break;
    const uint32_t width = sixteenBit ? 2 : 1;
    sample.storage = sixteenBit ? kStoragePcm16 : kStoragePcm8;
    sample.flags = sixteenBit ? 0 : kSourceUnsigned;
    sample.offset = data;
    sample.frames = lengthBytes / width;
    sample.rate = NibbleTunedRate(8363.0, fineTune);
    SetLoop(sample, loopStart / width, loopEnd / width);
    data += lengthBytes;
    MakeModuleWave(collection, sample, bytes.size());
  }
}

void ReadStm(Collection* collection, const Bytes& bytes) {
  constexpr size_t kHeaderBytes = 48, kSamples = 31;
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(kHeaderBytes);
  for (size_t i = 0; i < kSamples && !reader.failed; ++i) {
    ModuleSample sample;
    sample.name = reader.Text(12);
    reader.Skip(2);  // zero, instrument disk
    sample.offset = uint64_t(reader.U16le()) * 16;
    sample.frames = reader.U16le();
    const uint32_t loopStart = reader.U16le();
    const uint32_t loopEnd = reader.U16le();  // 0xFFFF: no loop
    reader.Skip(2);                           // volume, reserved
    sample.rate = reader.U16le();
    reader.Skip(6);
    if (reader.failed) break;
    if (loopEnd != 0xFFFF) SetLoop(sample, loopStart, loopEnd);
    MakeModuleWave(collection, sample, bytes.size());
  }
}

void ReadFar(Collection* collection, const Bytes& bytes) {
  constexpr size_t kPatternLengths = 98 + 256 + 3;
  constexpr int kMaxSamples = 64;
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(47);
  const uint32_t headerBytes = reader.U16le();
  reader.Seek(96);
  const uint32_t textBytes = reader.U16le();
  reader.Seek(kPatternLengths + textBytes);
  uint64_t patternBytes = 0;
  for (int p = 0; p < 256; ++p) patternBytes += reader.U16le();
  reader.Seek(size_t(std::min<uint64_t>(headerBytes + patternBytes, bytes.size())));
  uint8_t map[kMaxSamples / 8];
  for (uint8_t& bits : map) bits = reader.U8();
  for (int i = 0; i < kMaxSamples && !reader.failed; ++i) {
    if (!(map[i / 8] & (1 << (i % 8)))) continue;
    ModuleSample sample;
    sample.name = reader.Text(32);
    const uint32_t lengthBytes = reader.U32le();
    reader.Skip(2);  // fine tune, volume
    const uint32_t loopStart = reader.U32le();
    const uint32_t loopEnd = reader.U32le();
    const bool sixteenBit = reader.U8() & 1;
    const bool looped = reader.U8() & 8;
    if (reader.failed) break;
    const uint32_t width = sixteenBit ? 2 : 1;
    sample.storage = sixteenBit ? kStoragePcm16 : kStoragePcm8;
    sample.offset = reader.Position();
    sample.frames = lengthBytes / width;
    if (looped) SetLoop(sample, loopStart / width, loopEnd / width);
    MakeModuleWave(collection, sample, bytes.size());
    reader.Skip(lengthBytes);
  }
}

void ReadUlt(Collection* collection, const Bytes& bytes) {
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(14);
  const int version = reader.U8() - '0';
  reader.Seek(47);
  reader.Skip(size_t(reader.U8()) * 32);  // song text
  const uint32_t samples = reader.U8();
  std::vector<ModuleSample> records(samples);
  for (ModuleSample& sample : records) {
    sample.name = reader.Text(32);
    reader.Skip(12);  // DOS file name
    const uint32_t loopStart = reader.U32le();
    const uint32_t loopEnd = reader.U32le();
    const uint32_t sizeStart = reader.U32le();
    const uint32_t sizeEnd = reader.U32le();
    reader.U8();  // volume
    const uint8_t flags = reader.U8();
    sample.rate = version >= 4 ? reader.U16le() : 8363;
    reader.Skip(2);  // fine tune
    sample.storage = (flags & 4) ? kStoragePcm16 : kStoragePcm8;
    sample.frames = sizeEnd > sizeStart ? sizeEnd - sizeStart : 0;
    if (flags & 8) SetLoop(sample, loopStart, loopEnd, (flags & 16) ? 3 : 1);
  }
  reader.Skip(256);  // orders
  const uint32_t channels = reader.U8() + 1u;
  const uint32_t patterns = reader.U8() + 1u;
  if (version >= 3) reader.Skip(channels);
  // Pattern data: one track of 64 rows per channel and pattern, with 0xFC runs of a repeated event.
  for (uint64_t track = 0; track < uint64_t(channels) * patterns && !reader.failed; ++track)
    for (uint32_t row = 0; row < 64 && !reader.failed;) {
      if (reader.CanRead(7) && reader.Here()[0] == 0xFC) {
        reader.U8();
        const uint32_t repeat = reader.U8();
        reader.Skip(5);
        row += std::max<uint32_t>(repeat, 1);
      } else {
        reader.Skip(5);
        ++row;
      }
    }
  uint64_t data = reader.Position();
  for (ModuleSample& sample : records) {
    sample.offset = data;
    data += uint64_t(sample.frames) * (sample.storage == kStoragePcm16 ? 2 : 1);
    if (!reader.failed) MakeModuleWave(collection, sample, bytes.size());
  }
}

void ReadOkt(Collection* collection, const Bytes& bytes) {
  // Big-endian chunks after the eight-byte signature; SAMP holds 32-byte records, and each sample with
  // a length has its data in the next SBOD chunk.
  std::vector<ModuleSample> records;
  size_t nextBody = 0;
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(8);
  while (reader.CanRead(8)) {
    const std::string id(reinterpret_cast<const char*>(reader.Here()), 4);
    reader.Skip(4);
    const uint32_t length = reader.U32be();
    const size_t body = reader.Position();
    if (id == "SAMP") {
      SpanReader samp(bytes.data() + body, std::min<size_t>(length, bytes.size() - body));
      while (samp.CanRead(32)) {
        ModuleSample sample;
        sample.name = samp.Text(20);
        sample.frames = samp.U32be();
        const uint32_t loopStart = uint32_t(samp.U16be()) * 2;
        const uint32_t loopLength = uint32_t(samp.U16be()) * 2;
        samp.Skip(4);  // pad, volume, mode
        sample.rate = 8287;
        if (loopLength > 2) SetLoop(sample, loopStart, loopStart + loopLength);
        records.push_back(sample);
      }
    } else if (id == "SBOD") {
      while (nextBody < records.size() && records[nextBody].frames == 0) ++nextBody;
      if (nextBody < records.size()) {
        records[nextBody].offset = body;
        records[nextBody].frames = std::min(records[nextBody].frames, length);
        MakeModuleWave(collection, records[nextBody++], bytes.size());
      }
    }
    if (length > reader.Remaining()) break;
    reader.Skip(length);
  }
}

void ReadPtm(Collection* collection, const Bytes& bytes) {
  constexpr size_t kHeaderBytes = 608, kRecordBytes = 80;
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(34);
  const uint32_t samples = reader.U16le();
  for (uint32_t i = 0; i < samples; ++i) {
    SpanReader record(bytes.data(), bytes.size());
    record.Seek(kHeaderBytes + i * kRecordBytes);
    const uint8_t type = record.U8();
    record.Skip(13);  // file name, volume
    const uint32_t rate = record.U16le();
    record.Skip(2);  // segment
    const uint32_t offset = record.U32le();
    const uint32_t lengthBytes = record.U32le();
    const uint32_t loopStart = record.U32le();
    const uint32_t loopEnd = record.U32le();
    record.Seek(kHeaderBytes + i * kRecordBytes + 48);
    const std::string name = record.Text(28);
    // Only plain 8-bit samples: the 16-bit kind is delta coded over bytes.
    if (record.failed || (type & 3) != 1 || (type & 16)) continue;
    ModuleSample sample;
    sample.name = name;
    sample.storage = kStorageDelta8;
    sample.offset = offset;
    sample.frames = lengthBytes;
    sample.rate = rate;
    if (type & 4) SetLoop(sample, loopStart, loopEnd, (type & 8) ? 3 : 1);
    MakeModuleWave(collection, sample, bytes.size());
  }
}

// OctaMED: big-endian offsets at fixed places of the head; the song's 63 sample records hold the loops,
// the sample array points at each instrument's data (a length and a type word, then the samples), and
// the expansion block's instrument info holds the names. Multi-octave instruments keep their octaves
// one after another, each twice the length of the one before.
void ReadMed(Collection* collection, const Bytes& bytes) {
  constexpr size_t kRecordBytes = 8, kSampleCountOffset = 787, kNameBytes = 40;
  // Octaves stored for the multi-octave types 1 to 7.
  constexpr int kOctaves[8] = {1, 5, 3, 2, 4, 6, 7, 1};
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(8);
  const uint32_t song = reader.U32be();
  reader.Seek(24);
  const uint32_t sampleArray = reader.U32be();
  reader.Seek(32);
  const uint32_t expansion = reader.U32be();
  reader.Seek(size_t(song) + kSampleCountOffset);
  const uint32_t count = reader.U8();
  uint32_t infoOffset = 0, infoEntries = 0, infoSize = 0;
  if (expansion) {
    SpanReader info(bytes.data(), bytes.size());
    info.Seek(size_t(expansion) + 20);
    infoOffset = info.U32be();
    infoEntries = info.U16be();
    infoSize = info.U16be();
    if (info.failed) infoEntries = 0;
  }
  for (uint32_t i = 0; i < count && !reader.failed; ++i) {
    SpanReader record(bytes.data(), bytes.size());
    record.Seek(size_t(song) + i * kRecordBytes);
    const uint32_t loopStart = uint32_t(record.U16be()) * 2;  // in words
    const uint32_t loopLength = uint32_t(record.U16be()) * 2;
    record.Seek(size_t(sampleArray) + i * 4);
    const uint32_t pointer = record.U32be();
    if (record.failed || pointer == 0) continue;
    record.Seek(pointer);
    const uint32_t lengthBytes = record.U32be();
    const int16_t type = int16_t(record.U16be());
    if (record.failed || type < 0) continue;  // synthetic and hybrid instruments hold no plain sample
    std::string name;
    if (i < infoEntries && infoSize >= kNameBytes) {
      SpanReader names(bytes.data(), bytes.size());
      names.Seek(size_t(infoOffset) + size_t(i) * infoSize);
      name = names.Text(kNameBytes);
    }
    const bool sixteenBit = type & 0x10;
    const uint8_t channels = (type & 0x20) ? 2 : 1;
    const uint32_t width = (sixteenBit ? 2 : 1) * channels;
    const int octaves = kOctaves[type & 7];
    // Octave k (from the shortest) is 2^k units long; the whole is 2^octaves - 1 units.
    const uint32_t unit = lengthBytes / width / ((1u << octaves) - 1);
    uint64_t offset = pointer + 6u;
    for (int octave = 0; octave < octaves; ++octave) {
      ModuleSample sample;
      sample.name = name;
      sample.storage = sixteenBit ? kStoragePcm16 : kStoragePcm8;
      sample.flags = sixteenBit ? kSourceBigEndian : 0;
      sample.channels = channels;
      sample.offset = offset;
      sample.frames = octaves == 1 ? lengthBytes / width : unit << octave;
      if (loopLength > 2) SetLoop(sample, (loopStart / width) << octave, ((loopStart + loopLength) / width) << octave);
      MakeModuleWave(collection, sample, bytes.size());
      offset += uint64_t(sample.frames) * width;
    }
  }
}

}  // namespace

template <ModuleKind kind>
int32_t DetectOtherModule(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  // Two-byte and header-byte signatures are weak.
  const bool weak = kind == ModuleKind::Composer669 || kind == ModuleKind::ScreamTracker2;
  return HasSignature(kind, head, headBytes) ? (weak ? 2 : 6) : 0;
}

template <ModuleKind kind>
bool ReadOtherModule(Collection* collection, FileObject* file, uint32_t) {
  Bytes bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  if (!HasSignature(kind, bytes.data(), bytes.size())) {
    SetLastError(RefusalText(kind));
    return false;
  }
  switch (kind) {
    case ModuleKind::Composer669: Read669(collection, bytes); break;
    case ModuleKind::MultiTracker: ReadMtm(collection, bytes); break;
    case ModuleKind::ScreamTracker2: ReadStm(collection, bytes); break;
    case ModuleKind::Farandole: ReadFar(collection, bytes); break;
    case ModuleKind::UltraTracker: ReadUlt(collection, bytes); break;
    case ModuleKind::Oktalyzer: ReadOkt(collection, bytes); break;
    case ModuleKind::PolyTracker: ReadPtm(collection, bytes); break;
    case ModuleKind::OctaMed: ReadMed(collection, bytes); break;
    default: break;  // recognised and skipped
  }
  return true;
}

#define ORLIN_MODULE_KIND(kind)                                                                  \
  template bool ReadOtherModule<ModuleKind::kind>(Collection*, FileObject*, uint32_t);           \
  template int32_t DetectOtherModule<ModuleKind::kind>(const uint8_t*, uint32_t, uint32_t, uint64_t);
ORLIN_MODULE_KIND(Composer669)
ORLIN_MODULE_KIND(ExtremeTracker)
ORLIN_MODULE_KIND(VelvetStudio)
ORLIN_MODULE_KIND(XTracker)
ORLIN_MODULE_KIND(DigitalSound)
ORLIN_MODULE_KIND(Farandole)
ORLIN_MODULE_KIND(Digitrakker)
ORLIN_MODULE_KIND(OctaMed)
ORLIN_MODULE_KIND(MultiTracker)
ORLIN_MODULE_KIND(Oktalyzer)
ORLIN_MODULE_KIND(ProtrackerStudio)
ORLIN_MODULE_KIND(PolyTracker)
ORLIN_MODULE_KIND(ScreamTracker2)
ORLIN_MODULE_KIND(UltraTracker)
ORLIN_MODULE_KIND(UnrealMusic)
#undef ORLIN_MODULE_KIND

}  // namespace orlin
