// AIFF, AIFF-C and MAUD. Quirks kept on purpose: COMM may follow the sound data; the frame count of
// "ima4" counts packets of 64 frames; MARK positions lie between samples, so a loop's end marker is
// already the first frame after the loop; the markers that the INST loops use are taken out of the
// marker list (the writer puts them back), and a release loop that is not the sustain loop becomes a
// section marker "ReleaseLoop".
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
#include "formats/audio/coded_source.h"
#include "formats/audio/codecs/codecs.h"
#include "formats/audio/iff.h"
#include "formats/audio/iff_chunks.h"
#include "formats/common/id3.h"

namespace orlin {

double ReadExtended(const uint8_t* p) {
  const int exponent = ((p[0] & 0x7F) << 8 | p[1]);
  uint64_t mantissa = 0;
  for (int k = 0; k < 8; ++k) mantissa = mantissa << 8 | p[2 + k];
  if (exponent == 0 || exponent == 0x7FFF || mantissa == 0) return 0.0;
  const double value = std::ldexp(double(mantissa), exponent - 16383 - 63);
  return p[0] & 0x80 ? -value : value;
}

void WriteExtended(double value, uint8_t* p) {
  std::memset(p, 0, 10);
  if (!(value > 0) || !std::isfinite(value)) return;  // rates are positive; anything else is 0
  int exponent = 0;
  const double fraction = std::frexp(value, &exponent);  // value = fraction * 2^exponent, fraction in [0.5, 1)
  const uint64_t mantissa = uint64_t(std::ldexp(fraction, 64));
  const int biased = exponent - 1 + 16383;
  p[0] = uint8_t(biased >> 8);
  p[1] = uint8_t(biased);
  for (int k = 0; k < 8; ++k) p[2 + k] = uint8_t(mantissa >> (56 - 8 * k));
}

namespace {

bool Fail(const std::string& text) {
  SetLastError(text);
  return false;
}

uint16_t Be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }

// How the samples of a compression type are read.
enum class Road { Pcm, Coded, Unknown };

struct Compression {
  uint32_t type;
  Road road;
  uint32_t storage;  // for the PCM road; the generic decoder's storage number
  uint32_t flags;    // source word flags
};

// The types read through the generic decoder. "NONE"/"twos" take their width from COMM.
constexpr Compression kPlainTypes[] = {
    {IffId("NONE"), Road::Pcm, kStorageMixed, kSourceBigEndian},
    {IffId("none"), Road::Pcm, kStorageMixed, kSourceBigEndian},
    {IffId("twos"), Road::Pcm, kStorageMixed, kSourceBigEndian},
    {IffId("sowt"), Road::Pcm, kStorageMixed, 0},
    {IffId("raw "), Road::Pcm, kStoragePcm8, kSourceUnsigned},
    {IffId("in24"), Road::Pcm, kStoragePcm24, kSourceBigEndian},
    {IffId("in32"), Road::Pcm, kStoragePcm32, kSourceBigEndian},
    {IffId("fl32"), Road::Pcm, kStorageFloat32, kSourceBigEndian},
    {IffId("FL32"), Road::Pcm, kStorageFloat32, kSourceBigEndian},
    {IffId("fl64"), Road::Pcm, kStorageFloat64, kSourceBigEndian},
    {IffId("FL64"), Road::Pcm, kStorageFloat64, kSourceBigEndian},
    {IffId("ulaw"), Road::Pcm, kStorageMuLaw, 0},
    {IffId("ULAW"), Road::Pcm, kStorageMuLaw, 0},
    {IffId("alaw"), Road::Pcm, kStorageALaw, 0},
    {IffId("ALAW"), Road::Pcm, kStorageALaw, 0},
};

// The coded types and what the frame count of COMM means for them.
struct CodedType {
  uint32_t type;
  uint32_t storage;  // the storage number the wave reports
  codecs::DecodeFunction decode;
  uint32_t bitsPerSample;  // G.72x code width, the DWVW word (0: from COMM)
};

uint64_t DecodeGsmRaw(const uint8_t* bytes, size_t count, const codecs::CodecParams&, float* out, uint64_t maxFrames) {
  return codecs::DecodeGsm(bytes, count, codecs::GsmFraming::Raw33, out, maxFrames);
}

const CodedType kCodedTypes[] = {
    {IffId("G721"), kStorageAdpcm4, codecs::DecodeG726, 4},
    {IffId("G723"), kStorageAdpcm3, codecs::DecodeG726, 3},
    {IffId("G726"), kStorageAdpcm2, codecs::DecodeG726, 2},
    {IffId("G722"), kStorageAdpcm4, codecs::DecodeG722, 8},
    {IffId("GSM "), kStorageGsm, DecodeGsmRaw, 0},
    {IffId("gsm "), kStorageGsm, DecodeGsmRaw, 0},
    {IffId("IMA4"), kStorageAdpcm4, codecs::DecodeAppleIma, 4},
    {IffId("ima4"), kStorageAdpcm4, codecs::DecodeAppleIma, 4},
    {IffId("DWVW"), kStorageMixed, codecs::DecodeDwvw, 0},
};

const CodedType* FindCoded(uint32_t type) {
  for (const CodedType& coded : kCodedTypes)
    if (coded.type == type) return &coded;
  return nullptr;
}

bool IsIma(uint32_t type) { return type == IffId("IMA4") || type == IffId("ima4"); }
bool IsGsm(uint32_t type) { return type == IffId("GSM ") || type == IffId("gsm "); }

// COMM as the decoder reads it back: the wave keeps only the chunk's offset.
struct CommInfo {
  uint32_t channels = 0;
  uint32_t frames = 0;
  uint32_t sampleSize = 0;
  double rate = 0;
  uint32_t compression = IffId("NONE");
};

CommInfo ParseComm(const uint8_t* body, size_t size, bool aifc) {
  CommInfo comm;
  if (size < 18) return comm;
  comm.channels = Be16(body);
  comm.frames = Be32(body + 2);
  comm.sampleSize = Be16(body + 6);
  comm.rate = ReadExtended(body + 8);
  if (aifc && size >= 22) comm.compression = Be32(body + 18);
  return comm;
}

// Bytes that hold the frames of a coded stream.
uint64_t CodedBytes(const CodedType& coded, uint64_t frames, uint32_t channels, uint32_t bits) {
  if (IsIma(coded.type)) return (frames + 63) / 64 * codecs::kAppleImaPacketBytes * channels;
  if (IsGsm(coded.type)) return (frames + 159) / 160 * 33;
  if (coded.type == IffId("G722")) return (frames + 1) / 2;
  if (coded.decode == codecs::DecodeDwvw) return ~uint64_t(0);  // variable: up to the end of the data
  return (frames * channels * bits + 7) / 8;
}

// The decoder of coded AIFC data: sourceOffsetB is the COMM body, which names the type again.
bool DecodeAifcSamples(Waveform* wave, FileObject* file) {
  if (!file || !file->IsOpen()) return Fail("Reading from file failed");
  uint8_t body[22];
  if (!file->ReadAt(wave->sourceOffsetB, body, sizeof body)) return Fail("Reading from file failed");
  const CommInfo comm = ParseComm(body, sizeof body, true);
  const CodedType* coded = FindCoded(comm.compression);
  if (!coded) return Fail("Unsupported compression type: " + IffIdText(comm.compression));
  codecs::CodecParams params;
  params.channels = std::clamp<uint32_t>(comm.channels, 1, 2);
  params.bitsPerSample = coded->bitsPerSample ? coded->bitsPerSample : comm.sampleSize;
  return DecodeCodedRange(wave, file, coded->decode, params,
                          CodedBytes(*coded, wave->length, params.channels, params.bitsPerSample));
}

struct AiffMarker {
  uint16_t id;
  uint32_t position;
  std::string name;
};

struct InstLoop {
  uint16_t mode = 0;
  uint16_t begin = 0;
  uint16_t end = 0;
};

struct AiffParser {
  Waveform* wave = nullptr;
  uint32_t form = 0;
  bool haveComm = false;
  CommInfo comm;
  uint64_t commOffset = 0;
  bool haveData = false;
  uint64_t dataOffset = 0;
  uint64_t dataBytes = 0;
  // MAUD
  bool haveMaud = false;
  uint32_t maudCompression = 0;
  std::vector<AiffMarker> markers;
  bool haveInst = false;
  uint8_t baseNote = 60;
  int8_t detune = 0;
  int16_t gain = 0;
  InstLoop sustain, release;
};

void ParseMark(AiffParser& parser, const std::vector<uint8_t>& body) {
  ByteReader reader(body);
  const uint32_t count = reader.U16Be();
  for (uint32_t i = 0; i < count && reader.CanRead(7) && parser.markers.size() < kMaxMarkers; ++i) {
    AiffMarker marker;
    marker.id = reader.U16Be();
    marker.position = reader.U32Be();
    const uint8_t length = reader.U8();
    const std::string_view name = reader.Text(length);
    // The count byte and the text together take an even number of bytes.
    if (!(length & 1)) reader.Skip(1);
    if (reader.Failed()) break;
    marker.name = NarrowToUtf8(name);
    parser.markers.push_back(std::move(marker));
  }
}

void ParseInst(AiffParser& parser, const std::vector<uint8_t>& body) {
  if (body.size() < 20) return;
  parser.haveInst = true;
  parser.baseNote = body[0];
  parser.detune = int8_t(body[1]);
  parser.gain = int16_t(Be16(body.data() + 6));
  parser.sustain = {Be16(body.data() + 8), Be16(body.data() + 10), Be16(body.data() + 12)};
  parser.release = {Be16(body.data() + 14), Be16(body.data() + 16), Be16(body.data() + 18)};
}

// MHDR: samples, stored and unpacked bits, clock and divider, channel information, channels,
// compression (0 none, 2 A-law, 3 mu-law).
void ParseMaudHeader(AiffParser& parser, const std::vector<uint8_t>& body) {
  if (body.size() < 20) return;
  const uint32_t samples = Be32(body.data());
  const uint32_t bits = Be16(body.data() + 4);
  const uint32_t clock = Be32(body.data() + 8);
  const uint32_t divider = Be16(body.data() + 12);
  const uint32_t channels = Be16(body.data() + 16);
  parser.haveComm = true;
  parser.haveMaud = true;
  parser.comm.channels = channels;
  parser.comm.frames = channels ? samples / channels : 0;
  parser.comm.sampleSize = bits;
  parser.comm.rate = divider ? double(clock) / divider : 0;
  parser.maudCompression = Be16(body.data() + 18);
}

void Settle(AiffParser& parser) {
  Waveform& wave = *parser.wave;
  auto find = [&](uint16_t id) -> const AiffMarker* {
    for (const AiffMarker& marker : parser.markers)
      if (marker.id == id) return &marker;
    return nullptr;
  };
  std::vector<uint16_t> used;
  if (parser.haveInst) {
    if (parser.baseNote <= 127) wave.rootKey = parser.baseNote;
    wave.fineTune = int8_t(std::clamp<int>(parser.detune, -50, 50));
    wave.gain = float(parser.gain);
    const AiffMarker* begin = find(parser.sustain.begin);
    const AiffMarker* end = find(parser.sustain.end);
    if (parser.sustain.mode && begin && end && begin->position < end->position) {
      wave.loop.type = parser.sustain.mode == 2 ? 3 : 1;
      wave.loop.start = float(begin->position);
      wave.loop.end = float(end->position);
      used.push_back(begin->id);
      used.push_back(end->id);
    }
    begin = find(parser.release.begin);
    end = find(parser.release.end);
    if (parser.release.mode && parser.release.begin != parser.release.end && begin && end &&
        begin->position < end->position) {
      if (wave.loop.type && wave.loop.start == float(begin->position) && wave.loop.end == float(end->position)) {
        wave.loop.release = 1;
      } else {
        Marker marker;
        marker.section = 1;
        marker.start = begin->position;
        marker.end = end->position;
        marker.name = "ReleaseLoop";
        marker.id = NextMarkerId();
        wave.markers.push_back(marker);
      }
      used.push_back(begin->id);
      used.push_back(end->id);
    }
  }
  for (const AiffMarker& entry : parser.markers) {
    if (std::find(used.begin(), used.end(), entry.id) != used.end()) continue;
    if (wave.markers.size() >= kMaxMarkers) break;
    Marker marker;
    marker.start = entry.position;
    marker.name = entry.name;
    marker.id = NextMarkerId();
    wave.markers.push_back(marker);
  }
  std::stable_sort(wave.markers.begin(), wave.markers.end(),
                   [](const Marker& a, const Marker& b) { return a.start < b.start; });
}

// Chooses the sample road from COMM (or MHDR) and points the wave at the data.
bool SetSource(AiffParser& parser) {
  Waveform& wave = *parser.wave;
  const CommInfo& comm = parser.comm;
  if (comm.channels > 2) return Fail("Can't handle > 2 channel files");
  if (comm.channels == 0) return Fail("Unknown sample format or compression");
  wave.channels = uint8_t(comm.channels);
  wave.sampleRate = uint32_t(std::clamp(std::lround(comm.rate), 1L, long(0x7FFFFFFF)));
  wave.sourceOffset = parser.dataOffset;
  uint32_t storage = kStorageMixed;
  uint32_t flags = 0;
  if (parser.haveMaud) {
    if (parser.maudCompression == 2) storage = kStorageALaw;
    else if (parser.maudCompression == 3) storage = kStorageMuLaw;
    else if (parser.maudCompression != 0) return Fail("Unknown sample format or compression");
    else if (comm.sampleSize == 8) storage = kStoragePcm8, flags = kSourceUnsigned;
    else if (comm.sampleSize == 16) storage = kStoragePcm16, flags = kSourceBigEndian;
    else return Fail("Unknown sample format or compression");
  } else {
    const Compression* plain = nullptr;
    for (const Compression& entry : kPlainTypes)
      if (entry.type == comm.compression) plain = &entry;
    if (!plain) {
      const CodedType* coded = FindCoded(comm.compression);
      if (!coded) return Fail("Unsupported compression type: " + IffIdText(comm.compression));
      uint64_t frames = comm.frames;
      if (IsIma(coded->type)) frames *= codecs::kAppleImaPacketFrames;
      if (IsGsm(coded->type)) frames = (frames + 159) / 160 * 160;
      if (coded->decode == codecs::DecodeDwvw && (comm.sampleSize < 2 || comm.sampleSize > 24))
        return Fail("Unknown sample format or compression");
      wave.length = uint32_t(std::min<uint64_t>(frames, 0xFFFFFFFF));
      wave.sourceFormat = coded->storage == kStorageMixed ? 0 : 1u << coded->storage;
      wave.bits = uint8_t(coded->storage == kStorageMixed ? comm.sampleSize : BitsOf(coded->storage));
      wave.sourceOffsetB = parser.commOffset;
      wave.decoder = DecodeAifcSamples;
      return true;
    }
    storage = plain->storage;
    flags = plain->flags;
    if (storage == kStorageMixed) {
      const uint32_t bits = comm.sampleSize;
      if (bits == 0 || bits > 32) return Fail("Unknown sample format or compression");
      // Narrower samples stand left-justified in whole bytes, so they read as the byte width.
      storage = bits <= 8 ? kStoragePcm8 : bits <= 16 ? kStoragePcm16 : bits <= 24 ? kStoragePcm24 : kStoragePcm32;
    }
  }
  wave.SetPcmSourceByFormat(storage, flags);
  if (wave.bits == 0) wave.bits = uint8_t(BitsOf(storage));
  const uint64_t frameBytes = uint64_t(BitsOf(storage) / 8) * comm.channels;
  // A file cut short keeps the frames that are there.
  wave.length = uint32_t(std::min<uint64_t>(comm.frames, frameBytes ? parser.dataBytes / frameBytes : 0));
  return true;
}

bool ParseAiff(Waveform& wave, FileObject& file, uint64_t start, uint64_t end) {
  IffWalker walker(file, start, end);
  uint32_t magic = 0, form = 0;
  if (!walker.ReadHead(magic, form) || magic != IffId("FORM")) return Fail("No FORM starting IFF file");
  if (form != IffId("AIFF") && form != IffId("AIFC") && form != IffId("MAUD"))
    return Fail("Not an AIFF, AIFC, MAUD type IFF-FORM");
  AiffParser parser;
  parser.wave = &wave;
  parser.form = form;
  const bool aifc = form == IffId("AIFC");
  int chunks = 0;
  while (walker.Step() && ++chunks < 100000) {
    const uint32_t id = walker.Id();
    if (id == IffId("COMM") && !parser.haveComm && form != IffId("MAUD")) {
      const std::vector<uint8_t> body = walker.Body(64);
      if (body.size() < 18) continue;
      parser.haveComm = true;
      parser.comm = ParseComm(body.data(), body.size(), aifc);
      parser.commOffset = walker.BodyOffset();
    } else if (id == IffId("MHDR") && form == IffId("MAUD") && !parser.haveComm) {
      ParseMaudHeader(parser, walker.Body(64));
    } else if (id == IffId("SSND") && !parser.haveData && walker.Size() >= 8) {
      uint8_t head[8];
      if (!file.ReadAt(walker.BodyOffset(), head, 8)) continue;
      const uint64_t offset = Be32(head);
      parser.haveData = true;
      parser.dataOffset = walker.BodyOffset() + 8 + offset;
      parser.dataBytes = walker.Size() - 8 > offset ? walker.Size() - 8 - offset : 0;
    } else if (id == IffId("MDAT") && form == IffId("MAUD") && !parser.haveData) {
      parser.haveData = true;
      parser.dataOffset = walker.BodyOffset();
      parser.dataBytes = walker.Size();
    } else if (id == IffId("MARK")) {
      ParseMark(parser, walker.Body());
    } else if (id == IffId("INST")) {
      ParseInst(parser, walker.Body(64));
    } else if (id == IffId("ID3 ") || id == IffId("id3 ")) {
      const std::vector<uint8_t> body = walker.Body();
      ReadId3Tag(body.data(), body.size(), wave);
    } else {
      for (const IffTextChunk& text : kIffTextChunks)
        if (text.id == id) ReadIffText(wave, text.slot, walker.Body(1 << 16));
    }
  }
  if (!parser.haveComm) return Fail("Unknown sample format or compression");
  if (!parser.haveData) return Fail("No SSND data");
  if (!SetSource(parser)) return false;
  Settle(parser);
  return true;
}

// ---- writing ----------------------------------------------------------------------------------------

// Marker ids of the loops; plain markers follow them.
constexpr uint16_t kLoopBeginId = 1, kLoopEndId = 2, kReleaseBeginId = 3, kReleaseEndId = 4;

void AppendPascal(ByteWriter& out, std::string_view text) {
  const std::string narrow = Utf8ToNarrow(text).substr(0, 255);
  out.U8(uint8_t(narrow.size()));
  out.Append(narrow);
  if (!(narrow.size() & 1)) out.U8(0);
}

}  // namespace

bool ParseEmbeddedAiff(Waveform& wave, FileObject& file, uint64_t startOffset, uint64_t endOffset) {
  return ParseAiff(wave, file, startOffset, endOffset);
}

int32_t DetectAiff(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 12 && std::memcmp(head, "FORM", 4) == 0 && std::memcmp(head + 8, "AIFF", 4) == 0 ? 6 : 0;
}

int32_t DetectAifc(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 12 && std::memcmp(head, "FORM", 4) == 0 && std::memcmp(head + 8, "AIFC", 4) == 0 ? 6 : 0;
}

int32_t DetectMaud(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 12 && std::memcmp(head, "FORM", 4) == 0 && std::memcmp(head + 8, "MAUD", 4) == 0 ? 6 : 0;
}

bool ReadAiff(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  if (size <= 0) return Fail("No FORM starting IFF file");
  auto* wave = new Waveform(collection);
  wave->SetName(std::filesystem::path(file->Path()).stem().string());
  if (!ParseAiff(*wave, *file, 0, uint64_t(size))) {
    delete wave;
    return false;
  }
  return true;
}

bool WriteAiffToMemory(Waveform& wave, std::vector<uint8_t>& out, uint32_t caps) {
  SaveOptions options;
  options.caps = caps;
  double rate = 0;
  uint32_t storage = ChooseSaveFormat(wave, options, rate);
  if (storage != kStoragePcm8 && storage != kStoragePcm24 && storage != kStoragePcm32) storage = kStoragePcm16;
  const uint32_t channels = ChooseChannels(wave, options);
  if (!wave.GetSamplesForRead() && wave.length) return false;
  const uint32_t frames = wave.Data() ? wave.Data()->frames : 0;
  const uint32_t bits = BitsOf(storage);

  IffWriter iff;
  iff.Begin(IffId("AIFF"));
  ByteWriter comm;
  comm.U16Be(uint16_t(channels));
  comm.U32Be(frames);
  comm.U16Be(uint16_t(bits));
  uint8_t extended[10];
  WriteExtended(double(wave.sampleRate), extended);
  comm.Append(extended, 10);
  iff.Chunk(IffId("COMM"), comm.Bytes().data(), comm.Size());

  const bool haveLoop = wave.loop.type != 0;
  const Marker* release = nullptr;
  for (const Marker& marker : wave.markers)
    if (marker.section && marker.name == "ReleaseLoop" && marker.end > marker.start) release = &marker;
  size_t plainMarkers = 0;
  for (const Marker& marker : wave.markers)
    if (&marker != release) ++plainMarkers;
  const size_t markerCount = (haveLoop ? 2 : 0) + (release ? 2 : 0) + plainMarkers;
  if (markerCount) {
    ByteWriter mark;
    mark.U16Be(uint16_t(std::min<size_t>(markerCount, 0xFFFF)));
    auto add = [&](uint16_t id, double position, std::string_view name) {
      mark.U16Be(id);
      mark.U32Be(uint32_t(std::clamp(std::floor(position + 0.5), 0.0, double(frames))));
      AppendPascal(mark, name);
    };
    if (haveLoop) {
      add(kLoopBeginId, wave.loop.start, release ? "sust loop begin" : "beg loop");
      add(kLoopEndId, std::min<double>(wave.loop.end, frames), release ? "sust loop end" : "end loop");
    }
    if (release) {
      add(kReleaseBeginId, release->start, "rel loop begin");
      add(kReleaseEndId, release->end, "rel loop end");
    }
    uint32_t id = 5;
    for (const Marker& marker : wave.markers)
      if (&marker != release && id <= 0xFFFF) add(uint16_t(id++), marker.start, marker.name);
    iff.Chunk(IffId("MARK"), mark.Bytes().data(), mark.Size());
  }
  if (wave.rootKey != 60 || wave.fineTune != 0 || haveLoop || release || wave.gain != 0.0f) {
    // AIFF detunes by at most 50 cents; a larger fine tune moves the base note. The detune is added
    // when the note plays, as the fine tune is, so 100 cents less detune is one base note lower.
    int note = wave.rootKey, cents = wave.fineTune;
    while (cents > 50 && note > 0) cents -= 100, --note;
    while (cents < -50 && note < 127) cents += 100, ++note;
    ByteWriter inst;
    inst.U8(uint8_t(note));
    inst.U8(uint8_t(int8_t(std::clamp(cents, -50, 50))));
    inst.U8(0);    // low note
    inst.U8(127);  // high note
    inst.U8(1);    // low velocity
    inst.U8(127);  // high velocity
    inst.U16Be(uint16_t(int16_t(std::clamp<long>(std::lround(wave.gain), -32768, 32767))));
    const uint16_t mode = wave.loop.type == 3 ? 2 : 1;
    inst.U16Be(haveLoop ? mode : 0);
    inst.U16Be(haveLoop ? kLoopBeginId : 0);
    inst.U16Be(haveLoop ? kLoopEndId : 0);
    if (release) {
      inst.U16Be(1);
      inst.U16Be(kReleaseBeginId);
      inst.U16Be(kReleaseEndId);
    } else if (haveLoop && wave.loop.release) {
      inst.U16Be(mode);
      inst.U16Be(kLoopBeginId);
      inst.U16Be(kLoopEndId);
    } else {
      inst.U16Be(0);
      inst.U16Be(0);
      inst.U16Be(0);
    }
    iff.Chunk(IffId("INST"), inst.Bytes().data(), inst.Size());
  }
  const size_t ssnd = iff.Open(IffId("SSND"));
  iff.Body().U32Be(0);  // offset
  iff.Body().U32Be(0);  // block size
  if (!AppendSamples(iff.Bytes(), wave, storage, channels, kSourceBigEndian)) return false;
  iff.Close(ssnd);
  WriteIffTexts(iff, wave);
  if (!iff.Finish()) return Fail("Wave too big - use 64-bit version!");
  out = std::move(iff.Bytes());
  return true;
}

bool WriteAiff(Item* item, FileObject* file, const SaveOptions* options) {
  if (!item || item->Type() != ItemType::Waveform) return Fail("The file format can not save this item");
  std::vector<uint8_t> image;
  if (!WriteAiffToMemory(*static_cast<Waveform*>(item), image, options->caps)) return false;
  if (!file->Write(image.data(), image.size())) return Fail("Writing to file failed");
  return true;
}

}  // namespace orlin
