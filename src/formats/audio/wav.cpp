// RIFF WAVE reader and writer. Quirks kept on purpose: the first fmt, data and smpl chunk win; a fact
// count only ever shortens plain PCM, float and G.711 data; smpl stores the loop end inclusive and the
// fine tune as a negative pitch fraction, so a positive tune is written one note lower; LIST adtl cue
// labels "Loop Range", "Loop Start" and "Loop End" set the loop of a file without smpl.
#include "formats/audio/wav.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"
#include "core/save_choice.h"
#include "core/text.h"
#include "formats/audio/addons/mpeg_addon.h"
#include "formats/audio/codecs/codecs.h"
#include "formats/common/byte_reader.h"
#include "formats/common/riff.h"

namespace orlin {

const InfoTag kInfoTags[6] = {{FourCC("INAM"), kTextName},      {FourCC("IART"), kTextArtist},
                              {FourCC("IPRD"), kTextProduct},   {FourCC("ICOP"), kTextCopyright},
                              {FourCC("ICMT"), kTextComments},  {FourCC("IENG"), kTextEngineer}};
const char kSoftwareTag[] = "Orlin Studio v12.7";

int64_t RoundSampler(double value) {
  return value >= 0 ? int64_t(value + 0.499) : -int64_t(-value + 0.499);
}

namespace {

constexpr uint32_t kTagPcm = 1, kTagMsAdpcm = 2, kTagFloat = 3, kTagALaw = 6, kTagMuLaw = 7, kTagImaAdpcm = 17,
                   kTagDialogic = 23, kTagYamaha = 32, kTagGsm = 49, kTagRockwell = 59, kTagMpeg = 80,
                   kTagMp3 = 85, kTagG722 = 101, kTagRockwell2 = 768, kTagUsrGsm = 771, kTagUsrGsmRecords = 0x303,
                   kTagGsmAlt = 4096, kTagExtensible = 0xFFFE;
// The decoder folds the G.72x tags into this one; the codec takes its width from wBitsPerSample.
constexpr uint32_t kTagG72xFamily = 69;
// The G.72x tags the writer uses: G.723 (3 and 5 bits), G.721 (4 bits), G.726 (2 bits).
constexpr uint32_t kTagG723 = 20, kTagG721 = 64, kTagG726 = 100;
constexpr uint32_t kG72xTags[] = {20, 64, 66, 69, 89, 100, 133, 139, 147, 291, 320, 16963, 41221, 41223};
constexpr uint32_t kAacTags[] = {176, 255, 384, 8198, 8199, 16707, 41222};
constexpr uint32_t kVorbisTags[] = {26447, 26448, 26449, 26479, 26480, 26481};

// Bytes of one value of a LIST INFO text we read at most.
constexpr uint64_t kMaxInfoBytes = 0x100000;
// Samples decode from one buffer of the whole data chunk, so it must stay under this.
constexpr uint64_t kMaxDecodeBytes = 0x40000000;
// The RIFF size words are 32 bits: the data and the chunks around it must fit under them.
constexpr uint64_t kMaxWriteDataBytes = 0xFFFFFFFFull - (1u << 20);
constexpr double kTwoPow32 = 4294967296.0;

template <size_t N>
bool InList(const uint32_t (&list)[N], uint32_t tag) {
  return std::find(std::begin(list), std::end(list), tag) != std::end(list);
}

bool IsPlainTag(uint32_t tag) { return tag == kTagPcm || tag == kTagFloat || tag == kTagALaw || tag == kTagMuLaw; }

struct CueRecord {
  uint32_t id;
  uint32_t sampleOffset;
};
struct LabelRecord {
  uint32_t id;
  std::string text;
};
struct RangeRecord {
  uint32_t id;
  uint32_t length;
};

// The state of one parse; see ParseWave.
struct RiffWaveParser {
  Waveform* wave = nullptr;
  RiffCursor cursor;
  uint32_t formatTag = 0;
  uint8_t containerBits = 0;
  uint16_t fileChannels = 0;
  uint16_t blockAlign = 0;
  uint64_t skipBytes = 0;
  bool smplSeen = false;
  bool dataSeen = false;
  bool fmtSeen = false;
  uint64_t headerOffset = 0;
  uint64_t dataBytes = 0;
  uint32_t factFrames = 0;
  uint64_t ds64RiffSize = 0, ds64DataSize = 0, ds64SampleCount = 0;
  uint32_t ds64TableLength = 0;
  std::vector<CueRecord> cues;
  std::vector<LabelRecord> labels;
  std::vector<RangeRecord> ranges;
  // AKAI sample trim read from smpl, applied once the length is known.
  uint32_t akaiStart = 0, akaiEnd = 0;
};

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

// --- fmt --------------------------------------------------------------------------------------------

bool ParseFmt(RiffWaveParser& parser, ByteReader body) {
  Waveform& wave = *parser.wave;
  wave.bits = 16;
  wave.dataFormat = 1;
  wave.length = 0;
  uint32_t tag = body.U16();
  parser.fileChannels = body.U16();
  const uint32_t rate = body.U32();
  const uint32_t averageBytes = body.U32();
  parser.blockAlign = body.U16();
  if (body.Failed()) return Fail("Reading from file failed");
  wave.sampleRate = rate;
  wave.channels = uint8_t(parser.fileChannels < 3 ? parser.fileChannels : 2);
  ByteReader extension = body;  // from wBitsPerSample on
  const uint16_t bitsPerSample = body.CanRead(2) ? body.U16() : 16;
  const uint16_t extraBytes = body.CanRead(2) ? body.U16() : 0;
  ByteReader extra = body.Sub(extraBytes);
  if (tag == kTagExtensible) {
    uint8_t guid[16];
    extension.U16();  // wBitsPerSample, read again below
    extension.U16();  // cbSize
    const uint16_t validBits = extension.U16();
    extension.U32();  // channel mask: unusual masks are not looked at
    extension.Read(guid, 16);
    static const uint8_t kGuidTail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    if (extension.Failed() || guid[2] != 0 || guid[3] != 0 || std::memcmp(guid + 4, kGuidTail, 12) != 0)
      return Fail("Unsupported 'Extensible' subformat GUID");
    tag = uint32_t(guid[0] | guid[1] << 8);
    parser.containerBits = uint8_t(std::min<uint32_t>(bitsPerSample, 255));
    wave.bits = uint8_t(std::min<uint32_t>(validBits ? validBits : bitsPerSample, 255));
  } else {
    wave.bits = uint8_t(std::min<uint32_t>(bitsPerSample, 255));
  }
  parser.formatTag = tag;
  const uint32_t bits = wave.bits;
  auto storageWord = [&](uint32_t storage) { wave.sourceFormat = 1u << storage; };
  auto compressedFormat = [&](double kbit) { wave.dataFormat = DataFormatFromRate(kbit); };
  if (tag == kTagPcm) {
    wave.dataFormat = bits < 9 ? 0 : bits <= 16 ? 1 : bits <= 24 ? 2 : 3;
    const uint32_t container = parser.containerBits ? parser.containerBits : bits;
    const uint32_t bytes = (container + 7) / 8;
    const bool sameBytes = (bits + 7) / 8 == bytes;
    if (bits == 0) return Fail("Reading from file failed");
    if (parser.fileChannels <= 2 && sameBytes && bytes <= 4) {
      wave.SetPcmSource(bytes * 8, bytes == 1 ? kSourceUnsigned : 0);
      wave.bits = uint8_t(bits);
    } else {
      storageWord(bytes <= 1 ? kStoragePcm8 : bytes == 2 ? kStoragePcm16 : bytes == 3 ? kStoragePcm24 : kStoragePcm32);
      wave.decoder = &DecodeWaveSamples;
    }
    return true;
  }
  if (tag == kTagFloat) {
    if (bits != 32 && bits != 64) return Fail("Unsupported bits/sample for IEEE floating point samples");
    if (parser.fileChannels <= 2) {
      wave.SetPcmSourceByFormat(bits == 32 ? kStorageFloat32 : kStorageFloat64, 0);
    } else {
      storageWord(bits == 32 ? kStorageFloat32 : kStorageFloat64);
      wave.decoder = &DecodeWaveSamples;
    }
    wave.bits = uint8_t(bits);
    wave.dataFormat = 4;
    return true;
  }
  if (tag == kTagALaw || tag == 370 || tag == kTagMuLaw || tag == 369) {
    const bool aLaw = tag == kTagALaw || tag == 370;
    const uint32_t storage = aLaw ? kStorageALaw : kStorageMuLaw;
    parser.formatTag = aLaw ? kTagALaw : kTagMuLaw;
    if (parser.fileChannels <= 2) {
      wave.SetPcmSourceByFormat(storage, 0);
    } else {
      storageWord(storage);
      wave.decoder = &DecodeWaveSamples;
    }
    wave.bits = 8;
    wave.dataFormat = aLaw ? 6 : 5;
    return true;
  }
  // Compressed kinds: described here, decoded by DecodeWaveSamples.
  wave.decoder = &DecodeWaveSamples;
  if (tag == kTagMsAdpcm) {
    if (bits != 4 || extraBytes < 4) return Fail("Unsupported or invalid MS ADPCM file");
    wave.dataFormat = 7;
    storageWord(kStorageAdpcm4);
  } else if (tag == kTagImaAdpcm) {
    if (bits < 2 || bits > 4) return Fail("Unsupported or invalid IMA ADPCM file");
    wave.dataFormat = 7;
    storageWord(kStorageAdpcm2 + bits - 2);
  } else if (InList(kG72xTags, tag)) {
    if (bits < 2 || bits > 5) return Fail("Invalid no bits/sample for CCITT G.721/.723/.726 ADPCM encoding");
    wave.dataFormat = 7;
    storageWord(kStorageAdpcm2 + bits - 2);
  } else if (tag == kTagDialogic) {
    if (parser.fileChannels != 1) return Fail("Can only handle mono Dialogic ADPCM format");
    if (bits != 4) return Fail("Unsupported or invalid Dialogic ADPCM file");
    wave.dataFormat = 7;
    storageWord(kStorageAdpcm4);
  } else if (tag == kTagYamaha) {
    if (parser.fileChannels > 2) return Fail("> 2ch Yamaha ADPCM not supported");
    if (bits != 4) return Fail("Unsupported bits/sample for Yamaha ADPCM format");
    wave.dataFormat = 7;
    storageWord(kStorageAdpcm4);
  } else if (tag == kTagGsm || tag == kTagUsrGsm || tag == kTagGsmAlt) {
    if (parser.fileChannels != 1) return Fail("Can only handle (the standard!) mono GSM");
    wave.bits = 2;
    wave.dataFormat = kDataFormatDefault;
    storageWord(kStorageGsm);
  } else if (tag == kTagRockwell || tag == kTagRockwell2) {
    if (bits < 2 || bits > 4) return Fail("Unsupported or invalid Rockwell ADPCM file");
    if (parser.fileChannels != 1) return Fail("Can only handle mono Rockwell ADPCM format");
    wave.dataFormat = 7;
    storageWord(kStorageAdpcm2 + bits - 2);
  } else if (tag == kTagMpeg) {
    extra.U16();  // layer
    const uint32_t headBitRate = extra.U32();
    const uint16_t mode = extra.U16();
    if ((mode & 8) && (mode & 7)) return Fail("Can't handle mixed channel mode MPEG streams");
    wave.bits = 1;
    compressedFormat(headBitRate < 8000 ? 128.0 : headBitRate / 1000.0);
    storageWord(kStorageCompressed);
  } else if (tag == kTagMp3) {
    extra.U16();  // wID
    extra.U32();  // fdwFlags
    const uint16_t blockSize = extra.U16();
    wave.bits = 1;
    const double perFrame = 144000.0 / (rate < 28000 ? 2 : 1);
    compressedFormat(double(blockSize) * rate / perFrame);
    storageWord(kStorageCompressed);
  } else if (tag == kTagG722) {
    wave.bits = 4;
    wave.dataFormat = 7;
    storageWord(kStorageAdpcm4);
  } else if (InList(kAacTags, tag) || InList(kVorbisTags, tag)) {
    wave.bits = 1;
    compressedFormat(averageBytes * 8.0 / 1000.0);
    storageWord(kStorageCompressed);
  } else {
    return Fail("Unsupported compression type");
  }
  if (wave.bits == 0) return Fail("Reading from file failed");
  return true;
}

// --- smpl, inst, wsmp, mesa -------------------------------------------------------------------------

void ParseSmpl(RiffWaveParser& parser, ByteReader body) {
  Waveform& wave = *parser.wave;
  const uint32_t manufacturer = body.U32();
  const uint32_t product = body.U32();
  body.U32();  // sample period
  const uint32_t unityNote = body.U32();
  const uint32_t pitchFraction = body.U32();
  body.U32();  // SMPTE format
  body.U32();  // SMPTE offset
  const uint32_t loopCount = body.U32();
  const uint32_t samplerBytes = body.U32();
  if (body.Failed()) return;
  parser.smplSeen = true;
  bool haveLoop = false;
  uint32_t loopType = 0, loopStart = 0, loopEnd = 0, loopFraction = 0;
  if (loopCount >= 1) {
    body.U32();  // cue id
    loopType = body.U32();
    loopStart = body.U32();
    loopEnd = body.U32();
    loopFraction = body.U32();
    body.U32();  // play count
    haveLoop = body.Ok();
    // Further loops are skipped; the model holds one.
    body.Skip(std::min<uint64_t>(uint64_t(loopCount - 1) * 24, body.Remaining()));
  }
  bool cwdt = false;
  if (samplerBytes == 28 && body.CanRead(28)) {
    ByteReader extra = body.Sub(28);
    if (extra.U32() == FourCC("CWDT")) {
      cwdt = true;
      wave.loop.tune = float(extra.I8()) * 0.01f;
    }
  }
  if (unityNote < 128) wave.rootKey = uint8_t(unityNote);
  if (wave.rootKey == 0) {
    // Some writers store the note big-endian.
    const uint32_t swapped = __builtin_bswap32(unityNote);
    if (swapped >= 1 && swapped <= 127) wave.rootKey = uint8_t(swapped);
  }
  wave.fineTune = int8_t(-RoundSampler(double(pitchFraction) * 100.0 / kTwoPow32));
  if (haveLoop) {
    if (cwdt && loopEnd > 0) --loopEnd;
    wave.loop.start = float(loopStart);
    wave.loop.end = float(double(loopEnd) + 1.0 + loopFraction / kTwoPow32);
    wave.loop.type = loopType == 1 ? 3 : loopType == 2 ? 2 : loopType == 255 ? 0 : 1;
  }
  // AKAI MPC sampler block: its own root, tune, loop mode and a trim of the sample.
  if ((manufacturer & 0xFFFFFF) == 71 && product == 94 && samplerBytes == 18) {
    uint8_t block[18];
    if (!body.Read(block, 18)) return;
    if (std::memcmp(block, "loop", 4) == 0) {
      body.Skip(6);
      if (!body.Read(block, 18)) return;
    }
    if (block[0] < 3 && block[1] == 0) {
      wave.rootKey = uint8_t(std::clamp(int(block[2]) - int(int8_t(block[3])), 0, 127));
      wave.fineTune = int8_t(block[4]);
      switch (block[6]) {
        case 0: case 1: wave.loop.type = 0; break;
        case 2: wave.loop.type = 1; break;
        case 3: wave.loop.type = 1; wave.loop.release = 1; break;
        default: break;
      }
      parser.akaiStart = uint32_t(block[10] | block[11] << 8 | block[12] << 16 | uint32_t(block[13]) << 24);
      parser.akaiEnd = uint32_t(block[14] | block[15] << 8 | block[16] << 16 | uint32_t(block[17]) << 24);
    }
  }
}

void ParseInst(RiffWaveParser& parser, ByteReader body) {
  Waveform& wave = *parser.wave;
  const uint8_t note = body.U8();
  const int8_t tune = body.I8();
  const int8_t gain = body.I8();
  if (body.Failed()) return;
  if (wave.rootKey == 60 && wave.fineTune == 0) {
    if (note < 128) wave.rootKey = note;
    wave.fineTune = tune;
  }
  wave.gain = float(gain);
}

// The DLS wave-sample record: unity note, fine tune, attenuation and one loop.
void ParseWsmp(RiffWaveParser& parser, ByteReader body) {
  Waveform& wave = *parser.wave;
  const uint32_t headBytes = body.U32();
  const uint16_t unityNote = body.U16();
  const int16_t fineTune = body.I16();
  const int32_t gain = body.I32();  // 1/655360 dB
  body.U32();                       // options
  const uint32_t loops = body.U32();
  if (body.Failed()) return;
  if (unityNote < 128) wave.rootKey = uint8_t(unityNote);
  wave.fineTune = int8_t(std::clamp<int>(fineTune, -128, 127));
  wave.gain = float(gain / 655360.0);
  if (loops >= 1 && headBytes >= 20 && body.Seek(headBytes)) {
    body.U32();  // record size
    const uint32_t type = body.U32();
    const uint32_t start = body.U32();
    const uint32_t length = body.U32();
    if (body.Ok() && length > 0) {
      wave.loop.type = 1;
      wave.loop.release = type == 1 ? 1 : 0;  // loop-and-release
      wave.loop.start = float(start);
      wave.loop.end = float(uint64_t(start) + length);
    }
  }
}

// An AKAI S1000-family sample header carried in a wave.
void ParseMesa(RiffWaveParser& parser, ByteReader body) {
  uint8_t header[141];
  if (!body.Read(header, sizeof header)) return;
  Waveform& wave = *parser.wave;
  std::string name;
  for (int i = 0; i < 12; ++i) {
    const uint8_t code = header[3 + i];
    if (code <= 9) name += char('0' + code);
    else if (code == 10) name += ' ';
    else if (code <= 36) name += char('A' + code - 11);
    else if (code == 38) name += '+';
    else if (code == 39) name += '-';
    else if (code == 40) name += '.';
    else name += '_';
  }
  wave.SetName(name);
  auto u16 = [&](int at) { return uint32_t(header[at] | header[at + 1] << 8); };
  auto u32 = [&](int at) { return u16(at) | u16(at + 2) << 16; };
  wave.rootKey = uint8_t(std::clamp(int(header[2]) - int(int8_t(header[21])), 0, 127));
  wave.fineTune = int8_t(header[20]);
  if (header[16] > 0) {
    wave.loop.type = 1;
    wave.loop.start = float(u32(38));
    wave.loop.end = float(double(u32(38)) + u32(44) + u16(42) / 65536.0);
    wave.loop.release = header[19] == 1 ? 1 : 0;
  }
  if (u16(138)) wave.sampleRate = u16(138);
  wave.loop.tune = float(int8_t(header[140])) * 0.01f;
}

// --- LIST, cue --------------------------------------------------------------------------------------

std::string InfoText(std::string_view bytes) {
  const size_t end = bytes.find('\0');
  return NarrowToUtf8(bytes.substr(0, end));
}

void ParseList(RiffWaveParser& parser, ByteReader body) {
  const uint32_t kind = body.U32();
  uint32_t records = 0;
  while (body.CanRead(8) && ++records < kMaxChunks) {
    const uint32_t id = body.U32();
    const uint32_t size = body.U32();
    ByteReader record = body.Sub(size);
    body.Skip(std::min<size_t>(size & 1, body.Remaining()));
    if (kind == FourCC("INFO")) {
      if (size == 0) continue;
      for (const InfoTag& tag : kInfoTags)
        if (tag.chunkId == id) {
          const std::string text = InfoText(record.Text(std::min<size_t>(record.Remaining(), kMaxInfoBytes)));
          if (!text.empty()) parser.wave->SetText(tag.slot, text);
          break;
        }
    } else if (kind == FourCC("adtl")) {
      if (id == FourCC("labl") && size >= 4) {
        const uint32_t cueId = record.U32();
        parser.labels.push_back({cueId, InfoText(record.Text(record.Remaining()))});
      } else if (id == FourCC("ltxt") && size >= 20) {
        const uint32_t cueId = record.U32();
        parser.ranges.push_back({cueId, record.U32()});
      }
    }
  }
}

void ParseCue(RiffWaveParser& parser, ByteReader body) {
  const uint32_t count = body.U32();
  if (body.Failed() || uint64_t(count) * 24 > body.Remaining()) return;  // a short list is dropped whole
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t id = body.U32();
    body.Skip(16);  // position, "data", chunk start, block start
    parser.cues.push_back({id, body.U32()});
  }
}

// After the walk: cue records become loop points or markers.
void MergeCues(RiffWaveParser& parser) {
  Waveform& wave = *parser.wave;
  bool mayLoop = !parser.smplSeen && wave.loop.type == 0;
  for (const CueRecord& cue : parser.cues) {
    const std::string* text = nullptr;
    for (const LabelRecord& label : parser.labels)
      if (label.id == cue.id) {
        text = &label.text;
        break;
      }
    uint32_t rangeLength = 0;
    for (const RangeRecord& range : parser.ranges)
      if (range.id == cue.id) {
        rangeLength = range.length;
        break;
      }
    if (text && *text == "Loop Range") {
      if (mayLoop && rangeLength) {
        wave.loop.type = 1;
        wave.loop.start = float(cue.sampleOffset);
        wave.loop.end = float(uint64_t(cue.sampleOffset) + rangeLength);
        mayLoop = false;
      }
      continue;
    }
    if (text && *text == "Loop Start") {
      if (mayLoop) wave.loop.start = float(cue.sampleOffset);
      continue;
    }
    if (text && *text == "Loop End") {
      if (mayLoop) wave.loop.end = float(cue.sampleOffset);
      continue;
    }
    if (wave.markers.size() >= kMaxMarkers) continue;
    Marker marker;
    marker.section = rangeLength ? 1 : 0;
    marker.start = cue.sampleOffset;
    marker.end = uint32_t(std::min<uint64_t>(uint64_t(cue.sampleOffset) + rangeLength, 0xFFFFFFFF));
    if (text) marker.name = *text;
    marker.id = NextMarkerId();
    wave.markers.push_back(std::move(marker));
  }
  std::stable_sort(wave.markers.begin(), wave.markers.end(),
                   [](const Marker& a, const Marker& b) { return a.start < b.start; });
}

// The length in frames, from fact or from the data size.
void SettleLength(RiffWaveParser& parser) {
  Waveform& wave = *parser.wave;
  const uint32_t tag = parser.formatTag;
  const uint64_t channels = std::max<uint32_t>(parser.fileChannels, 1);
  const uint32_t bitsForSize = parser.containerBits ? parser.containerBits : std::max<uint32_t>(wave.bits, 1);
  auto clamp32 = [](uint64_t frames) { return uint32_t(std::min<uint64_t>(frames, 0xFFFFFFFF)); };
  if (parser.factFrames) {
    wave.length = parser.factFrames;
    if (IsPlainTag(tag)) {
      const uint64_t bytesPerFrame = channels * ((bitsForSize + 7) / 8);
      wave.length = clamp32(std::min<uint64_t>(wave.length, parser.dataBytes / bytesPerFrame));
    } else {
      // A codec delivers no more frames than its data holds at its densest: half the stated bits per
      // sample (GSM's 2 stand for 1.625), and for a bit rate's one bit an eighth (MPEG packs up to 64
      // frames in a byte), plus one codec frame of slack. A forged count beyond that is cut, not decoded.
      constexpr uint64_t kCodecFrameSlack = 1152;
      const double bitsPerFrame = double(channels) * (wave.bits <= 1 ? 0.125 : double(wave.bits) / 2);
      const uint64_t most = uint64_t(double(parser.dataBytes) * 8.0 / bitsPerFrame) + kCodecFrameSlack;
      wave.length = clamp32(std::min<uint64_t>(wave.length, most));
    }
  } else if (parser.containerBits) {
    wave.length = clamp32(parser.dataBytes * 8 / (uint64_t(parser.containerBits) * channels));
  } else if (wave.bits == 1 && wave.dataFormat >= 8 && wave.dataFormat <= 20) {
    wave.length = clamp32(uint64_t(std::llround(double(parser.dataBytes) * 8.0 * wave.sampleRate /
                                                (DataFormatRate(wave.dataFormat) * 1000.0))));
  } else if (tag == kTagUsrGsmRecords) {
    wave.length = clamp32(parser.dataBytes / 38 * 160);
  } else {
    double bitsPerSample = std::max<uint32_t>(wave.bits, 1);
    if (tag == kTagPcm) bitsPerSample = double((wave.bits + 7) / 8 * 8);
    if (tag == kTagGsm || tag == kTagGsmAlt) bitsPerSample = 1.625;  // 65 bytes per 320 samples
    wave.length = clamp32(uint64_t(std::llround(double(parser.dataBytes) * 8.0 / (double(channels) * bitsPerSample))));
  }
  if (parser.akaiEnd > parser.akaiStart && parser.akaiEnd - parser.akaiStart < wave.length) {
    parser.skipBytes = uint64_t(parser.akaiStart) * ((uint64_t(wave.bits) * channels + 7) / 8);
    wave.length = parser.akaiEnd - parser.akaiStart;
  }
}

bool ParseWave(Waveform& wave, FileObject& file, uint64_t start, uint64_t end) {
  RiffWaveParser parser;
  parser.wave = &wave;
  RiffCursor& cursor = parser.cursor;
  if (!cursor.Open(file, start, end)) return Fail("Not a RIFF-WAVE file");
  const bool riffWave = (cursor.tag == FourCC("RIFF") || cursor.tag == FourCC("RF64") || cursor.tag == FourCC("SDSS")) &&
                        cursor.form == FourCC("WAVE");
  const bool nestedWave = cursor.tag == FourCC("LIST") && cursor.form == FourCC("wave");
  if (!riffWave && !nestedWave) return Fail("Not a RIFF-WAVE file");
  std::vector<uint8_t> body;
  while (cursor.Step()) {
    const uint32_t id = cursor.id;
    if (id == FourCC("data")) {
      if (parser.dataSeen) continue;
      parser.dataSeen = true;
      wave.sourceOffset = cursor.position;
      parser.dataBytes = cursor.chunkSize;
      if (cursor.rawSize == 0xFFFFFFFF && parser.ds64DataSize)
        parser.dataBytes = std::min(parser.ds64DataSize, cursor.limit - cursor.position);
      // RF64 data reaches past 4 GiB: the next head is behind the ds64 size, not the 32-bit one.
      if (cursor.rawSize == 0xFFFFFFFF) cursor.next = cursor.position + parser.dataBytes + (parser.dataBytes & 1);
      // Lengths are counted from the bytes the file really holds, not from what a cut or forged
      // chunk head claims.
      const int64_t fileSize = file.Size();
      if (fileSize > 0) parser.dataBytes = std::min<uint64_t>(parser.dataBytes, uint64_t(fileSize) - std::min<uint64_t>(uint64_t(fileSize), cursor.position));
      continue;
    }
    if (id == FourCC("atem")) {
      // Trailing data of unknown kind follows: whatever the RIFF size said, walk to the file's end.
      const int64_t fileSize = file.Size();
      if (fileSize > 0) cursor.limit = std::max(cursor.limit, std::min<uint64_t>(end, uint64_t(fileSize)));
      continue;
    }
    const bool wanted = id == FourCC("ds64") || id == FourCC("fmt ") || id == FourCC("fact") || id == FourCC("LIST") ||
                        id == FourCC("cue ") || id == FourCC("smpl") || id == FourCC("inst") ||
                        id == FourCC("wsmp") || id == FourCC("mesa");
    if (!wanted || (id == FourCC("fmt ") && parser.fmtSeen) || (id == FourCC("smpl") && parser.smplSeen)) continue;
    const uint64_t headerAt = cursor.position;
    if (!cursor.ReadBody(body, id == FourCC("LIST") ? UINT64_MAX >> 1 : 1u << 20)) break;
    ByteReader reader(body);
    if (id == FourCC("ds64")) {
      if (body.size() < 28) continue;
      parser.ds64RiffSize = reader.U64();
      parser.ds64DataSize = reader.U64();
      parser.ds64SampleCount = reader.U64();
      parser.ds64TableLength = reader.U32();
      if (cursor.headSize == 0xFFFFFFFF && parser.ds64RiffSize)
        cursor.limit = std::min(end, cursor.bodyStart + 8 + parser.ds64RiffSize);
    } else if (id == FourCC("fmt ")) {
      parser.fmtSeen = true;
      parser.headerOffset = headerAt;
      if (!ParseFmt(parser, reader)) return false;
    } else if (id == FourCC("fact")) {
      const uint32_t count = reader.U32();
      if (reader.Ok() && count) parser.factFrames = count;
    } else if (id == FourCC("LIST")) {
      ParseList(parser, reader);
    } else if (id == FourCC("cue ")) {
      ParseCue(parser, reader);
    } else if (id == FourCC("smpl")) {
      ParseSmpl(parser, reader);
    } else if (id == FourCC("inst")) {
      if (body.size() >= 7) ParseInst(parser, reader);
    } else if (id == FourCC("wsmp")) {
      ParseWsmp(parser, reader);
    } else if (id == FourCC("mesa")) {
      ParseMesa(parser, reader);
    }
  }
  if (!parser.dataSeen || !parser.fmtSeen) return Fail("No wave data found!");
  SettleLength(parser);
  wave.sourceOffset += parser.skipBytes;
  // The format record is found again through this offset by DecodeWaveSamples.
  wave.sourceOffsetB = parser.headerOffset;
  MergeCues(parser);
  return true;
}

// --- decoding ---------------------------------------------------------------------------------------

}  // namespace

const char* WaveTagName(uint32_t tag) {
  if (InList(kG72xTags, tag)) return "CCITT G.72x ADPCM";
  if (InList(kAacTags, tag)) return "AAC";
  if (InList(kVorbisTags, tag)) return "Ogg Vorbis";
  switch (tag) {
    case kTagPcm: return "PCM";
    case kTagMsAdpcm: return "MS ADPCM";
    case kTagFloat: return "IEEE float";
    case kTagALaw: case 370: return "A-law";
    case kTagMuLaw: case 369: return "Mu-law";
    case kTagImaAdpcm: return "IMA ADPCM";
    case kTagDialogic: return "Dialogic ADPCM";
    case kTagYamaha: return "Yamaha ADPCM";
    case kTagGsm: case kTagUsrGsm: case kTagGsmAlt: return "GSM 6.10";
    case kTagRockwell: case kTagRockwell2: return "Rockwell ADPCM";
    case kTagMpeg: return "MPEG audio";
    case kTagMp3: return "MP3";
    case kTagG722: return "G.722";
    default: return "";
  }
}

namespace {

// The G.72x tags whose fmt extension may name a leading header inside the data chunk.
bool MayNameLeadingHeader(uint32_t tag) { return tag == kTagG723 || tag == kTagG721; }

// Bytes that hold `frames` frames of `codec`, counted in whole blocks (or bytes for stream codecs);
// 0 when one block gives no frame, which leaves the caller with the whole data.
uint64_t BytesForFrames(const codecs::WaveCodec& codec, const codecs::CodecParams& params, uint64_t frames) {
  const uint64_t unit = std::max<uint64_t>(params.blockAlign, 1);
  const uint64_t perUnit = codec.frames(unit, params);
  if (perUnit == 0) return 0;
  return (frames + perUnit - 1) / perUnit * unit;
}

// The data chunk's own size when its head stands right before the samples, else the rest of the file.
uint64_t DataBytesAvailable(const Waveform& wave, FileObject& file) {
  const int64_t fileSize = file.Size();
  uint64_t available = fileSize > int64_t(wave.sourceOffset) ? uint64_t(fileSize) - wave.sourceOffset : 0;
  uint8_t head[8];
  if (wave.sourceOffset >= 8 && file.ReadAt(wave.sourceOffset - 8, head, 8) && std::memcmp(head, "data", 4) == 0) {
    const uint32_t chunkBytes = uint32_t(head[4] | head[5] << 8 | head[6] << 16 | uint32_t(head[7]) << 24);
    if (chunkBytes != 0xFFFFFFFF) available = std::min<uint64_t>(available, chunkBytes);
  }
  return available;
}

// MPEG frames (tags 80 and 85) through the MPEG decoder; a stream shorter than the fact count cuts
// the wave's length to what came.
bool DecodeMpegSamples(Waveform* wave, FileObject* file) {
  const uint64_t available = DataBytesAvailable(*wave, *file);
  if (available >= kMaxDecodeBytes) return Fail("Wave is too big!");
  std::vector<uint8_t> bytes(static_cast<size_t>(available));
  if (!file->ReadAt(wave->sourceOffset, bytes.data(), bytes.size())) return Fail("Reading from file failed");
  std::unique_ptr<addons::AudioStream> stream = addons::OpenMpegMemoryStream(std::move(bytes));
  if (!stream) return false;
  const uint32_t streamChannels = std::max<uint32_t>(stream->channels, 1);
  if (uint64_t(wave->length) * streamChannels * sizeof(float) >= kMaxDecodeBytes) return Fail("Wave is too big!");
  std::vector<float> decoded;
  if (!addons::ReadAllFrames(*stream, decoded, wave->length)) return false;
  const uint64_t frames = decoded.size() / streamChannels;
  if (frames == 0) return Fail("Zero length");
  wave->length = uint32_t(std::min<uint64_t>(frames, wave->length ? wave->length : frames));
  wave->channels = uint8_t(std::min<uint32_t>(streamChannels, 2));
  float* samples = wave->AllocSamples();
  if (!samples) return Fail("Out of memory");
  for (uint64_t frame = 0; frame < wave->length; ++frame)
    for (uint32_t c = 0; c < wave->channels; ++c) samples[frame * wave->channels + c] = decoded[frame * streamChannels + c];
  return true;
}

// Compressed data through a built-in codec. `format` is the whole fmt payload; the data chunk is
// read only as far as the wave's length needs, and frames the bytes do not reach are silence.
bool DecodeCodedSamples(Waveform* wave, FileObject* file, uint32_t tag, const std::vector<uint8_t>& format) {
  if (tag == kTagMpeg || tag == kTagMp3) return DecodeMpegSamples(wave, file);
  const codecs::WaveCodec* codec = codecs::FindWaveCodec(InList(kG72xTags, tag) ? kTagG72xFamily : tag);
  if (!codec) {
    const std::string name = WaveTagName(tag);
    SetLastError("No built-in decoder for " + (name.empty() ? std::string("this") : name) + " data");
    return false;
  }
  ByteReader fmt(format.data(), format.size());
  fmt.U16();  // tag, taken by the caller (Extensible resolved)
  const uint32_t fileChannels = fmt.U16();
  fmt.Skip(8);  // rate, average bytes
  codecs::CodecParams params;
  params.channels = std::max<uint32_t>(fileChannels, 1);
  params.blockAlign = fmt.U16();
  params.bitsPerSample = fmt.CanRead(2) ? fmt.U16() : 4;
  const uint32_t extraBytes = fmt.CanRead(2) ? fmt.U16() : 0;
  params.extension = format.data() + std::min<size_t>(format.size(), 18);
  params.extensionBytes = std::min<size_t>(extraBytes, format.size() - std::min<size_t>(format.size(), 18));
  // G.722 in WAVE is always the 64 kbit/s mode, eight bits a byte, whatever wBitsPerSample says.
  if (tag == kTagG722) params.bitsPerSample = 8;
  if (wave->length == 0) return Fail("Zero length");
  const uint32_t keptChannels = std::min<uint32_t>(params.channels, 2);
  if (uint64_t(wave->length) * params.channels * sizeof(float) >= kMaxDecodeBytes) return Fail("Wave is too big!");

  uint64_t available = DataBytesAvailable(*wave, *file);
  // Some G.721/G.723 writers put a header of their own ahead of the codes and name its size.
  uint64_t skip = 0;
  if (MayNameLeadingHeader(tag) && params.extensionBytes >= 2)
    skip = std::min<uint64_t>(params.extension[0] | params.extension[1] << 8, available);
  uint64_t byteCount = available - skip;
  if (const uint64_t needed = BytesForFrames(*codec, params, wave->length)) byteCount = std::min(byteCount, needed);
  if (byteCount >= kMaxDecodeBytes) return Fail("Wave is too big!");
  std::vector<uint8_t> bytes;
  try {
    bytes.resize(size_t(byteCount));
  } catch (const std::bad_alloc&) {
    return Fail("Out of memory");
  }
  if (!file->ReadAt(wave->sourceOffset + skip, bytes.data(), bytes.size())) return Fail("Reading from file failed");
  wave->channels = uint8_t(keptChannels);
  float* samples = wave->AllocSamples();
  if (!samples) return Fail("Out of memory");
  if (params.channels == keptChannels) {
    codecs::DecodeAndPad(*codec, bytes.data(), bytes.size(), params, samples, wave->length);
    return true;
  }
  // More than two channels: decode them all, keep the first two of each frame. Only the frames the
  // bytes reach are decoded, so a wide forged layout costs no more than its data; the rest is silence.
  // No codec here packs more than eight samples into a byte, whatever its frame count claims for a
  // layout it was never meant for.
  const uint64_t densest = uint64_t(bytes.size()) * 8 / params.channels;
  const uint64_t decoded = std::min<uint64_t>({wave->length, codec->frames(bytes.size(), params), densest});
  std::vector<float> all;
  try {
    all.resize(size_t(decoded) * params.channels);
  } catch (const std::bad_alloc&) {
    return Fail("Out of memory");
  }
  codecs::DecodeAndPad(*codec, bytes.data(), bytes.size(), params, all.data(), decoded);
  for (uint64_t frame = 0; frame < decoded; ++frame)
    for (uint32_t c = 0; c < keptChannels; ++c) samples[frame * keptChannels + c] = all[frame * params.channels + c];
  std::fill(samples + decoded * keptChannels, samples + uint64_t(wave->length) * keptChannels, 0.0f);
  return true;
}

// The whole fmt payload that starts at `offset`; its size comes from the chunk head before it.
bool ReadFormatRecord(FileObject* file, uint64_t offset, std::vector<uint8_t>& format) {
  uint8_t size[4];
  if (offset < 4 || !file->ReadAt(offset - 4, size, 4)) return Fail("Reading from file failed");
  // cbSize is 16 bits, so nothing past 18 + 65535 bytes belongs to the format.
  constexpr uint32_t kMaxFormatBytes = 18 + 0xFFFF;
  const uint32_t bytes = std::min<uint32_t>(uint32_t(size[0] | size[1] << 8 | size[2] << 16 | uint32_t(size[3]) << 24),
                                            kMaxFormatBytes);
  const int64_t fileSize = file->Size();
  const uint64_t present = fileSize > int64_t(offset) ? uint64_t(fileSize) - offset : 0;
  format.assign(size_t(std::min<uint64_t>(bytes, present)), 0);
  if (format.size() < 14 || !file->ReadAt(offset, format.data(), format.size())) return Fail("Reading from file failed");
  return true;
}

}  // namespace

bool DecodeWaveSamples(Waveform* wave, FileObject* file) {
  if (!file->IsOpen()) return Fail("Reading from file failed");
  std::vector<uint8_t> record;
  if (!ReadFormatRecord(file, wave->sourceOffsetB, record)) return false;
  ByteReader format(record.data(), record.size());
  uint32_t tag = format.U16();
  const uint32_t channels = format.U16();
  format.U32();
  format.U32();
  const uint32_t blockAlign = format.U16();
  uint32_t bits = format.CanRead(2) ? format.U16() : 16;
  if (tag == kTagExtensible) {
    if (record.size() < 26) return Fail("Reading from file failed");
    tag = uint32_t(record[24] | record[25] << 8);
  }
  if (!IsPlainTag(tag) && tag != 370 && tag != 369) return DecodeCodedSamples(wave, file, tag, record);
  if (wave->length == 0) return Fail("Zero length");
  if (channels == 0) return Fail("No channels");
  const uint32_t bytesPerSample = std::max<uint32_t>((bits + 7) / 8, 1);
  const uint64_t frameBytes = std::max<uint64_t>(blockAlign, uint64_t(bytesPerSample) * channels);
  const uint64_t total = frameBytes * wave->length;
  if (total >= kMaxDecodeBytes) return Fail("Wave is too big!");
  std::vector<uint8_t> bytes;
  try {
    bytes.resize(size_t(total));
  } catch (const std::bad_alloc&) {
    return Fail("Out of memory");
  }
  if (!file->ReadAt(wave->sourceOffset, bytes.data(), bytes.size())) return Fail("Reading from file failed");
  // Samples wider than four bytes keep their top four; the first two channels of each frame are kept.
  const uint32_t keptBytes = std::min<uint32_t>(bytesPerSample, tag == kTagFloat && bytesPerSample == 8 ? 8 : 4);
  const uint32_t keptChannels = std::min<uint32_t>(channels, 2);
  wave->channels = uint8_t(keptChannels);
  uint32_t storage;
  uint32_t flags = 0;
  if (tag == kTagFloat) storage = keptBytes == 8 ? kStorageFloat64 : kStorageFloat32;
  else if (tag == kTagALaw || tag == 370) storage = kStorageALaw;
  else if (tag == kTagMuLaw || tag == 369) storage = kStorageMuLaw;
  else {
    storage = keptBytes == 1 ? kStoragePcm8 : keptBytes == 2 ? kStoragePcm16 : keptBytes == 3 ? kStoragePcm24 : kStoragePcm32;
    if (keptBytes == 1) flags = kSourceUnsigned;
  }
  // Pack the kept samples together in place: each frame shrinks, so writes never overtake reads.
  size_t packed = 0;
  const uint32_t skipLow = bytesPerSample - keptBytes;
  for (uint64_t frame = 0; frame < wave->length; ++frame) {
    const uint8_t* from = bytes.data() + frame * frameBytes;
    for (uint32_t c = 0; c < keptChannels; ++c) {
      std::memmove(bytes.data() + packed, from + c * bytesPerSample + skipLow, keptBytes);
      packed += keptBytes;
    }
  }
  if (!wave->AllocSamples()) return Fail("Out of memory");
  DecodeSampleBlock(storage, flags, bytes.data(), size_t(wave->length) * keptChannels, wave->Data()->samples);
  return true;
}

// --- detection and reading --------------------------------------------------------------------------

namespace {

bool HasWaveSignature(const uint8_t* head, uint32_t headBytes) {
  return headBytes >= 12 && (std::memcmp(head, "RIFF", 4) == 0 || std::memcmp(head, "RF64", 4) == 0) &&
         std::memcmp(head + 8, "WAVE", 4) == 0;
}

std::string StemOf(const std::string& path) { return std::filesystem::path(path).stem().string(); }

}  // namespace

int32_t DetectWav(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return HasWaveSignature(head, headBytes) ? 6 : 0;
}

int32_t DetectBroadcastWav(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (!HasWaveSignature(head, headBytes)) return 0;
  uint64_t at = 12;
  for (int chunk = 0; chunk < 4 && at + 8 <= headBytes; ++chunk) {
    if (std::memcmp(head + at, "bext", 4) == 0) return 6;
    if (std::memcmp(head + at, "data", 4) == 0) return 2;
    const uint32_t size = uint32_t(head[at + 4] | head[at + 5] << 8 | head[at + 6] << 16 | uint32_t(head[at + 7]) << 24);
    at += 8 + uint64_t(size) + (size & 1);
  }
  return 2;
}

int32_t DetectRockwellRif(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return HasWaveSignature(head, headBytes) && headBytes >= 22 && head[20] == 0 && head[21] == 3 ? 6 : 0;
}

int32_t DetectUsrGsmWav(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return HasWaveSignature(head, headBytes) && headBytes >= 22 && head[20] == (kTagUsrGsm & 0xFF) &&
                 head[21] == (kTagUsrGsm >> 8)
             ? 6
             : 0;
}

int32_t DetectSmartSoundSds(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 12 && std::memcmp(head, "SDSS", 4) == 0 && std::memcmp(head + 8, "WAVE", 4) == 0 ? 4 : 0;
}

bool ParseEmbeddedWave(Waveform& wave, FileObject& file, uint64_t startOffset, uint64_t endOffset) {
  return ParseWave(wave, file, startOffset, endOffset);
}

Waveform* ReadEmbeddedWave(Collection* collection, FileObject& file, uint64_t startOffset, uint64_t endOffset,
                           std::string_view name) {
  auto* wave = new Waveform(collection);
  wave->SetName(name);
  if (!ParseWave(*wave, file, startOffset, endOffset)) {
    delete wave;
    return nullptr;
  }
  return wave;
}

bool ReadWav(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  if (size <= 0) return Fail("Not a RIFF-WAVE file");
  auto* wave = new Waveform(collection);
  wave->SetName(StemOf(file->Path()));
  if (!ParseWave(*wave, *file, 0, uint64_t(size))) {
    delete wave;
    return false;
  }
  return true;
}

// --- writing ----------------------------------------------------------------------------------------

namespace {

struct FmtChoice {
  uint16_t tag;
  uint16_t bitsPerSample;
  uint32_t flags;  // source-word flags for the sample writer
};

bool ChooseFmt(uint32_t storage, FmtChoice& out) {
  switch (storage) {
    case kStoragePcm8: out = {kTagPcm, 8, kSourceUnsigned}; return true;
    case kStoragePcm16: out = {kTagPcm, 16, 0}; return true;
    case kStoragePcm24: out = {kTagPcm, 24, 0}; return true;
    case kStoragePcm32: out = {kTagPcm, 32, 0}; return true;
    case kStorageFloat32: out = {kTagFloat, 32, 0}; return true;
    case kStorageMuLaw: out = {kTagMuLaw, 8, 0}; return true;
    case kStorageALaw: out = {kTagALaw, 8, 0}; return true;
    // The coded kinds are mono. ADPCM 2-bit goes under the G.726 tag, 3- and 5-bit under the G.723
    // one and 4-bit under the G.721 one, each with its code width in wBitsPerSample.
    case kStorageGsm: out = {kTagGsm, 0, 0}; return true;
    case kStorageAdpcm2: out = {kTagG726, 2, 0}; return true;
    case kStorageAdpcm3: out = {kTagG723, 3, 0}; return true;
    case kStorageAdpcm4: out = {kTagG721, 4, 0}; return true;
    case kStorageAdpcm5: out = {kTagG723, 5, 0}; return true;
    case kStorageCompressed: out = {kTagMp3, 0, 0}; return true;
    default: return false;  // 12/20-bit, 64-bit float and delta have no tag here
  }
}

bool IsCodedStorage(uint32_t storage) { return storage >= kStorageGsm && storage <= kStorageAdpcm5; }

// GSM pairs of frames: 65 bytes for 320 samples.
constexpr uint32_t kGsmBlockBytes = 65, kGsmBlockFrames = 320;

// The wave mixed to mono and run through the coder of `storage` (GSM or G.72x).
bool EncodeCoded(Waveform& wave, uint32_t storage, uint32_t bits, std::vector<uint8_t>& out) {
  const float* samples = wave.GetSamplesForRead();
  if (!samples) return wave.length == 0;
  const uint64_t frames = wave.Data()->frames;
  const uint32_t channels = std::max<uint32_t>(wave.Data()->channels, 1);
  std::vector<float> mono(frames);
  for (uint64_t i = 0; i < frames; ++i) {
    float sum = 0;
    for (uint32_t c = 0; c < channels; ++c) sum += samples[i * channels + c];
    mono[i] = sum / float(channels);
  }
  out = storage == kStorageGsm ? codecs::EncodeGsm(mono.data(), frames, codecs::GsmFraming::Wave65)
                               : codecs::EncodeG726(mono.data(), frames, bits);
  return true;
}

// Frames of delay an MP3 decoder adds ahead of the signal, as the fmt record and fact count state it.
constexpr uint16_t kMp3CodecDelay = 1104;

// The wave as constant-rate MP3 frames; `rate` is the chosen setting in kbit/s. The bit rate falls back
// to 128 kbit/s outside 8..320. Rates MP3 cannot carry are refused rather than resampled.
bool EncodeMp3(Waveform& wave, double rate, uint32_t channels, std::vector<uint8_t>& out, int& kbit) {
  kbit = int(std::lround(rate > 0 ? rate : DataFormatRate(wave.dataFormat) ? DataFormatRate(wave.dataFormat) : 128));
  if (kbit < 8 || kbit > 320) kbit = 128;
  static constexpr uint32_t kMp3Rates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};
  if (std::find(std::begin(kMp3Rates), std::end(kMp3Rates), wave.sampleRate) == std::end(kMp3Rates))
    return Fail(("MP3 can not hold a sample rate of " + std::to_string(wave.sampleRate) + " Hz").c_str());
  const float* samples = wave.GetSamplesForRead();
  if (!samples) return false;
  const uint32_t frames = wave.Data()->frames;
  const uint32_t sourceChannels = wave.Data()->channels;
  std::vector<float> converted;
  if (channels != sourceChannels) {
    // Mixed to mono, or mono doubled, as the channel choice asks.
    converted.resize(size_t(frames) * channels);
    for (size_t frame = 0; frame < frames; ++frame)
      for (uint32_t c = 0; c < channels; ++c)
        converted[frame * channels + c] = channels == 1 ? 0.5f * (samples[frame * 2] + samples[frame * 2 + 1])
                                                        : samples[frame];
    samples = converted.data();
  }
  addons::EncodeInput input;
  input.samples = samples;
  input.frames = frames;
  input.channels = channels;
  input.rate = wave.sampleRate;
  return addons::EncodeMp3ToMemory(input, addons::Mp3Mode::Cbr, kbit, false, out);
}

std::vector<uint8_t> SmplBody(const Waveform& wave, uint32_t variant) {
  const bool cwdt = variant == kWaveVariantCwdt;
  const bool haveLoop = wave.loop.type != 0;
  ByteWriter body;
  body.U32(0);  // manufacturer
  body.U32(0);  // product
  body.U32(cwdt || wave.sampleRate == 0 ? 0 : uint32_t(RoundSampler(1e9 / wave.sampleRate)));
  // smpl has no positive fine tune: a positive one is written a note lower.
  int unity = wave.rootKey;
  int fine = wave.fineTune;
  if (fine > 0) {
    if (unity == 0) fine = 0;
    else {
      --unity;
      fine -= 100;
    }
  }
  body.U32(uint32_t(unity));
  body.U32(uint32_t(RoundSampler(-fine * 42949672.96)));
  body.U32(0);  // SMPTE format
  body.U32(0);  // SMPTE offset
  body.U32(haveLoop || cwdt ? 1 : 0);
  body.U32(cwdt ? 28 : 0);
  if (haveLoop || cwdt) {
    const double start = std::floor(double(wave.loop.start) + 0.5);
    const double length = double(wave.loop.end) - double(wave.loop.start);
    const double roundedLength = std::floor(length + 0.5);
    double end = start + roundedLength - 1;
    double fraction = (length - roundedLength) * kTwoPow32;
    if (fraction < 0) {
      fraction += kTwoPow32;
      end -= 1;
    }
    if (cwdt && haveLoop) end += 1;
    body.U32(0);  // cue id
    const uint32_t type = !haveLoop ? 255 : wave.loop.type == 3 ? 1 : wave.loop.type == 2 ? 2 : 0;
    body.U32(type);
    body.U32(haveLoop ? uint32_t(std::max(start, 0.0)) : 0);
    body.U32(haveLoop ? uint32_t(std::max(end, 0.0)) : 0);
    body.U32(haveLoop ? uint32_t(std::min(fraction, kTwoPow32 - 1)) : 0);
    body.U32(0);  // play count: for ever
  }
  if (cwdt) {
    body.U32(FourCC("CWDT"));
    body.U8(uint8_t(int8_t(std::clamp<int64_t>(RoundSampler(wave.loop.tune * 100.0), -50, 50))));
    body.U16(0xDA1B);
    body.U8(8);
    body.U32(haveLoop ? wave.loop.release : 2);
    body.U32(0);
    body.U32(wave.length);
    body.U32(0);
    body.U32(wave.rootKey);
  }
  return std::move(body.Bytes());
}

void WriteSmpl(RiffWriter& riff, const Waveform& wave, uint32_t variant) {
  const std::vector<uint8_t> body = SmplBody(wave, variant);
  riff.Chunk(FourCC("smpl"), body.data(), body.size());
}

void WriteInfoList(RiffWriter& riff, const Waveform& wave, uint32_t variant) {
  static const struct {
    uint32_t id;
    ParamId slot;
  } kWriteOrder[] = {{FourCC("INAM"), kTextName},        {FourCC("IART"), kTextArtist},
                     {FourCC("ICMT"), kTextComments},    {FourCC("ICOP"), kTextCopyright},
                     {FourCC("IENG"), kTextEngineer},    {FourCC("IPRD"), kTextProduct}};
  const size_t list = riff.Open(FourCC("LIST"));
  riff.Body().U32(FourCC("INFO"));
  const size_t empty = riff.Body().Size();
  for (const auto& entry : kWriteOrder) {
    const std::string text = Utf8ToNarrow(wave.GetText(entry.slot));
    if (!text.empty()) {
      std::string bytes = text;
      bytes.push_back('\0');
      riff.Chunk(entry.id, bytes.data(), bytes.size());
    }
    // The name row always runs, so the software tag is written even for a wave without a name.
    if (entry.slot == kTextName && variant != kWaveVariantCwdt) {
      char software[20] = {};
      std::memcpy(software, kSoftwareTag, sizeof kSoftwareTag - 1);
      riff.Chunk(FourCC("ISFT"), software, sizeof software);
    }
  }
  if (riff.Body().Size() == empty) riff.Bytes().resize(list);  // nothing to hold: no LIST
  else riff.Close(list);
  riff.UpdateOuterSize();
}

void WriteMarkers(RiffWriter& riff, const Waveform& wave) {
  ByteWriter cue;
  cue.U32(uint32_t(wave.markers.size()));
  for (size_t i = 0; i < wave.markers.size(); ++i) {
    cue.U32(uint32_t(i));  // id
    cue.U32(uint32_t(i));  // position
    cue.U32(FourCC("data"));
    cue.U32(0);  // chunk start
    cue.U32(0);  // block start
    cue.U32(wave.markers[i].start);
  }
  riff.Chunk(FourCC("cue "), cue.Bytes().data(), cue.Size());
  const size_t list = riff.Open(FourCC("LIST"));
  riff.Body().U32(FourCC("adtl"));
  for (size_t i = 0; i < wave.markers.size(); ++i) {
    const Marker& marker = wave.markers[i];
    if (!marker.name.empty()) {
      ByteWriter label;
      label.U32(uint32_t(i));
      std::string text = Utf8ToNarrow(marker.name).substr(0, 254);
      label.Append(text);
      label.U8(0);
      riff.Chunk(FourCC("labl"), label.Bytes().data(), label.Size());
    }
    if (marker.section) {
      ByteWriter range;
      range.U32(uint32_t(i));
      range.U32(marker.end > marker.start ? marker.end - marker.start : 0);
      range.U32(FourCC("rgn "));
      range.U16(0);  // country
      range.U16(0);  // language
      range.U16(0);  // dialect
      range.U16(0);  // code page
      riff.Chunk(FourCC("ltxt"), range.Bytes().data(), range.Size());
    }
  }
  riff.Close(list);
}

void WriteInst(RiffWriter& riff, const Waveform& wave) {
  const uint8_t inst[7] = {wave.rootKey, uint8_t(wave.fineTune),
                           uint8_t(int8_t(std::clamp<long>(std::lround(wave.gain), -64, 64))), 0, 127, 1, 127};
  riff.Chunk(FourCC("inst"), inst, sizeof inst);
}

}  // namespace

std::vector<uint8_t> SamplerChunkBody(const Waveform& wave) { return SmplBody(wave, 0); }

void ReadSamplerChunk(Waveform& wave, const uint8_t* body, size_t size) {
  RiffWaveParser parser;
  parser.wave = &wave;
  ParseSmpl(parser, ByteReader(body, size));
}

std::vector<uint8_t> WaveMetadataChunks(const Waveform& wave) {
  // Written inside a RIFF head of its own, which keeps the outer size the writer patches off the
  // first chunk, and then left out.
  RiffWriter riff;
  riff.Begin(FourCC("RIFF"), FourCC("WAVE"));
  if (wave.loop.type != 0 || wave.rootKey != 60 || wave.fineTune != 0) WriteSmpl(riff, wave, 0);
  if (!wave.markers.empty()) WriteMarkers(riff, wave);
  return std::vector<uint8_t>(riff.Bytes().begin() + 12, riff.Bytes().end());
}

void ReadWaveMetadataChunks(Waveform& wave, const uint8_t* chunks, size_t size) {
  RiffWaveParser parser;
  parser.wave = &wave;
  ByteReader walk(chunks, size);
  // Past a RIFF head when there is one; the head of "data" stands alone, without its samples.
  if (walk.CanRead(12) && std::memcmp(chunks, "RIFF", 4) == 0) walk.Skip(12);
  uint32_t count = 0;
  while (walk.CanRead(8) && ++count < kMaxChunks) {
    const uint32_t id = walk.U32();
    const uint32_t bytes = walk.U32();
    if (id == FourCC("data")) continue;
    ByteReader body = walk.Sub(bytes);
    walk.Skip(std::min<size_t>(bytes & 1, walk.Remaining()));
    if (id == FourCC("smpl") && !parser.smplSeen) ParseSmpl(parser, body);
    else if (id == FourCC("cue ")) ParseCue(parser, body);
    else if (id == FourCC("LIST")) ParseList(parser, body);
  }
  MergeCues(parser);
}

namespace {

// Writes the wave as a whole image into `out`, or, with `file`, streams plain samples straight to
// the file between a head and a tail written from memory, so that a wave of any length is written
// in a few blocks of memory. Codes of the ADPCM and MPEG codecs are made whole first.
bool WriteWave(Waveform& wave, std::vector<uint8_t>& out, FileObject* file, const WaveWriteParams& params) {
  if (wave.Type() != ItemType::Waveform) return Fail("The file format can not save this item");
  SaveOptions options;
  options.caps = params.caps;
  // A row without a storage list takes everything this writer holds.
  if (!(options.caps & kCapsStorageMask)) options.caps |= kWaveWritableStorage;
  if (!(options.caps & kCapsChannelMask)) options.caps |= kCapsChannelMask;
  options.variant = params.variant;
  options.rate = params.rate;
  double rate = 0.0;
  const uint32_t storage = ChooseSaveFormat(wave, options, rate);
  const bool coded = IsCodedStorage(storage);
  const uint32_t channels = coded ? 1 : ChooseChannels(wave, options);
  FmtChoice fmt{};
  if (!ChooseFmt(storage, fmt)) return Fail("Unsupported subformat");
  const bool extensible = params.variant == kWaveVariantExtensible;
  const bool bare = params.variant == kWaveVariantBare;
  if (extensible && fmt.tag != kTagPcm && fmt.tag != kTagFloat) return Fail("Unsupported subformat");
  const bool mp3 = storage == kStorageCompressed;
  const bool streamed = file && !coded && !mp3;
  if (!streamed && !wave.GetSamplesForRead() && wave.length) return false;
  const uint32_t frames = streamed ? wave.length : wave.Data() ? wave.Data()->frames : 0;
  std::vector<uint8_t> codes;
  if (coded && !EncodeCoded(wave, storage, fmt.bitsPerSample, codes)) return false;
  int kbit = 0;
  if (mp3 && !EncodeMp3(wave, rate, channels, codes, kbit)) return false;
  const uint32_t bytesPerSample = fmt.bitsPerSample / 8;
  const uint64_t dataBytes = coded || mp3 ? codes.size() : uint64_t(frames) * channels * bytesPerSample;
  // The format's 32-bit sizes are the only limit on length.
  if (dataBytes > kMaxWriteDataBytes) return Fail("Wave too big - use 64-bit version!");

  RiffWriter riff;
  riff.Begin(FourCC("RIFF"), FourCC("WAVE"));
  ByteWriter format;
  uint16_t blockAlign = uint16_t(bytesPerSample * channels);
  uint32_t averageBytes = blockAlign * wave.sampleRate;
  if (storage == kStorageGsm) {
    blockAlign = kGsmBlockBytes;
    averageBytes = uint32_t(wave.sampleRate * (double(kGsmBlockBytes) / kGsmBlockFrames));
  } else if (mp3) {
    blockAlign = 1;
    averageBytes = uint32_t(kbit * 1000 / 8);
  } else if (coded) {
    blockAlign = uint16_t(16 * fmt.bitsPerSample);  // 16 bytes per code bit: whole codes in every block
    averageBytes = uint32_t((uint64_t(fmt.bitsPerSample) * wave.sampleRate + 7) / 8);
  }
  format.U16(extensible ? kTagExtensible : fmt.tag);
  format.U16(uint16_t(channels));
  format.U32(wave.sampleRate);
  format.U32(averageBytes);
  format.U16(blockAlign);
  format.U16(fmt.bitsPerSample);
  if (extensible) {
    format.U16(22);  // cbSize
    format.U16(fmt.bitsPerSample);
    format.U32(channels == 1 ? 4 : 3);  // front centre, or front left and right
    static const uint8_t kGuidTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
    format.U16(fmt.tag);
    format.Append(kGuidTail, sizeof kGuidTail);
  } else if (fmt.tag == kTagALaw || fmt.tag == kTagMuLaw) {
    format.U16(0);  // cbSize
  } else if (fmt.tag == kTagGsm) {
    format.U16(2);  // cbSize
    format.U16(kGsmBlockFrames);
  } else if (fmt.tag == kTagMp3) {
    // MPEGLAYER3WAVEFORMAT: the size of a frame at this rate, one frame a block, and the encoder's delay.
    const uint32_t perFrame = 144000 / (wave.sampleRate < 28000 ? 2 : 1);
    format.U16(12);  // cbSize
    format.U16(1);   // wID: MPEG
    format.U32(0);   // fdwFlags
    format.U16(uint16_t((wave.sampleRate / 2 + uint64_t(perFrame) * uint32_t(kbit)) / wave.sampleRate));
    format.U16(1);   // nFramesPerBlock
    format.U16(kMp3CodecDelay);
  } else if (fmt.tag == kTagG721 || fmt.tag == kTagG723) {
    format.U16(2);  // cbSize
    format.U16(0);  // no leading header ahead of the codes
  }
  riff.Chunk(FourCC("fmt "), format.Bytes().data(), format.Size());
  size_t factAt = 0;
  if (fmt.tag != kTagPcm || extensible) {
    ByteWriter fact;
    fact.U32(mp3 ? frames + kMp3CodecDelay : frames);
    factAt = riff.Bytes().size() + 8;
    riff.Chunk(FourCC("fact"), fact.Bytes().data(), fact.Size());
  }
  if (bare) WriteSmpl(riff, wave, params.variant);
  const size_t data = riff.Open(FourCC("data"));
  // Silence for unsigned 8-bit samples is 0x80, so the pad byte is too.
  const uint8_t pad = storage == kStoragePcm8 ? 0x80 : 0;
  auto writeTail = [&](RiffWriter& to) {
    if (bare) return;
    WriteInfoList(to, wave, params.variant);
    if (!wave.markers.empty()) WriteMarkers(to, wave);
    // Gain has no place in smpl; inst carries it, and agrees with smpl on root and tune.
    if (wave.gain != 0.0f) WriteInst(to, wave);
    WriteSmpl(to, wave, params.variant);
  };
  if (!streamed) {
    if (coded || mp3) riff.Bytes().insert(riff.Bytes().end(), codes.begin(), codes.end());
    else if (!AppendSamples(riff.Bytes(), wave, storage, channels, fmt.flags)) return false;
    riff.Close(data, pad);
    writeTail(riff);
    if (file) return file->Write(riff.Bytes().data(), riff.Bytes().size()) || Fail("Writing to file failed");
    out = std::move(riff.Bytes());
    return true;
  }
  // Head, samples as they are decoded, pad and tail; then the sizes, which count the frames that
  // really came: a source whose data ends early gives a shorter, consistent file.
  const uint64_t start = file->Tell();
  if (!file->Write(riff.Bytes().data(), riff.Bytes().size())) return Fail("Writing to file failed");
  uint64_t written = 0;
  if (!WriteSamples(*file, wave, storage, channels, fmt.flags, &written)) return false;
  const uint64_t sampleBytes = written * channels * bytesPerSample;
  if ((sampleBytes & 1) && !file->Write(&pad, 1)) return Fail("Writing to file failed");
  RiffWriter tail;
  tail.Begin(FourCC("RIFF"), FourCC("WAVE"));
  writeTail(tail);
  constexpr size_t kFormHead = 12;
  if (tail.Bytes().size() > kFormHead && !file->Write(tail.Bytes().data() + kFormHead, tail.Bytes().size() - kFormHead))
    return Fail("Writing to file failed");
  const uint64_t end = file->Tell();
  auto patch = [&](uint64_t at, uint64_t value) {
    uint8_t bytes[4];
    const uint32_t word = uint32_t(std::min<uint64_t>(value, 0xFFFFFFFFull));
    for (int k = 0; k < 4; ++k) bytes[k] = uint8_t(word >> (8 * k));
    return file->Seek(start + at) && file->Write(bytes, 4);
  };
  bool ok = patch(4, end - start - 8) && patch(data + 4, sampleBytes);
  if (factAt) ok = ok && patch(factAt, written);
  if (!ok || !file->Seek(end)) return Fail("Writing to file failed");
  return true;
}

}  // namespace

bool WriteWaveToMemory(Waveform& wave, std::vector<uint8_t>& out, const WaveWriteParams& params) {
  return WriteWave(wave, out, nullptr, params);
}

bool WriteWaveToFile(Waveform& wave, FileObject& file, const WaveWriteParams& params) {
  std::vector<uint8_t> unused;
  return WriteWave(wave, unused, &file, params);
}

bool WriteWav(Item* item, FileObject* file, const SaveOptions* options) {
  if (!item || item->Type() != ItemType::Waveform) return Fail("The file format can not save this item");
  WaveWriteParams params{options->caps, options->variant, options->rate};
  return WriteWaveToFile(*static_cast<Waveform*>(item), *file, params);
}

}  // namespace orlin
