// Fast Tracker 2 modules: a 60-byte head, a header of its own stated size, patterns skipped by their
// sizes, then instruments, each with its sample headers followed by the delta-coded sample data. Only
// samples and instruments are taken; an instrument's 96-entry key map becomes one region per run of keys
// on the same sample. Stereo samples (a later tracker's extension) lie left block, then right block.
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

constexpr char kXmSignature[] = "Extended Module: ";
constexpr size_t kSignatureBytes = 17;
constexpr size_t kHeadBytes = 60;
constexpr size_t kInstrumentHeadBytes = 29;
constexpr size_t kSampleHeaderBytes = 40;
constexpr int kKeyMapEntries = 96;
constexpr int kKeyOffset = 12;  // key map entry 0 is C-0, which plays as MIDI key 12
constexpr uint32_t kMaxInstruments = 256;
constexpr uint32_t kMaxSamplesPerInstrument = 256;

bool HasSignature(const uint8_t* head, size_t bytes) {
  return bytes >= kSignatureBytes && std::memcmp(head, kXmSignature, kSignatureBytes) == 0;
}

// Base rate 8363 Hz moved by the relative note and the fine tune in 128ths of a semitone.
uint32_t XmRate(int8_t relativeNote, int8_t fineTune) {
  return uint32_t(std::lround(8363.0 * std::pow(2.0, (relativeNote + fineTune / 128.0) / 12.0)));
}

// The sample headers at the reader, then their delta-coded data, as waves; and an instrument named
// `name` whose regions follow the 96-entry key map. Shared by modules and single instruments (.xi).
// With `lastTakesRest`, a last sample of length 0 takes what the file still holds: libsndfile writes
// its single-sample instruments so.
bool ReadInstrumentSamples(Collection* collection, SpanReader& reader, uint64_t fileBytes, const uint8_t* keyMap,
                           uint32_t sampleCount, uint32_t sampleHeaderSize, const std::string& name, int program,
                           bool lastTakesRest) {
  if (sampleHeaderSize < kSampleHeaderBytes) sampleHeaderSize = kSampleHeaderBytes;
  std::vector<ModuleSample> samples(sampleCount);
  for (ModuleSample& sample : samples) {
    const size_t headStart = reader.Position();
    const uint32_t lengthBytes = reader.U32le();
    const uint32_t loopStartBytes = reader.U32le();
    const uint32_t loopLengthBytes = reader.U32le();
    reader.U8();  // volume
    const int8_t fineTune = int8_t(reader.U8());
    const uint8_t type = reader.U8();
    reader.U8();  // panning
    const int8_t relativeNote = int8_t(reader.U8());
    reader.U8();  // reserved
    sample.name = reader.Text(22);
    reader.Seek(headStart + sampleHeaderSize);
    const bool sixteenBit = type & 0x10;
    sample.channels = (type & 0x20) ? 2 : 1;
    const uint32_t frameBytes = (sixteenBit ? 2 : 1) * sample.channels;
    sample.storage = sixteenBit ? kStorageDelta16 : kStorageDelta8;
    sample.frames = lengthBytes / frameBytes;
    sample.rate = XmRate(relativeNote, fineTune);
    const uint8_t loopKind = type & 3;
    if (loopKind != 0 && loopLengthBytes != 0) {
      sample.loopType = loopKind == 2 ? 3 : 1;  // ping-pong plays alternating
      sample.loopStart = loopStartBytes / frameBytes;
      sample.loopEnd = (loopStartBytes + loopLengthBytes) / frameBytes;
    }
    sample.offset = lengthBytes;  // the byte count for now; the data follows all headers
  }
  if (reader.failed) return false;
  std::vector<Waveform*> waves(sampleCount, nullptr);
  uint64_t dataOffset = reader.Position();
  for (uint32_t s = 0; s < sampleCount; ++s) {
    uint64_t lengthBytes = samples[s].offset;
    samples[s].offset = dataOffset;
    if (lengthBytes == 0 && lastTakesRest && s + 1 == sampleCount && dataOffset < fileBytes) {
      lengthBytes = fileBytes - dataOffset;
      const uint32_t frameBytes = (samples[s].storage == kStorageDelta16 ? 2 : 1) * samples[s].channels;
      samples[s].frames = uint32_t(std::min<uint64_t>(lengthBytes / frameBytes, 0xFFFFFFFF));
    }
    waves[s] = MakeModuleWave(collection, samples[s], fileBytes);
    dataOffset += lengthBytes;
  }
  reader.Seek(size_t(std::min<uint64_t>(dataOffset, fileBytes)));

  auto* instrument = new Instrument(collection);
  instrument->SetNameNarrow(TrimName(name));
  instrument->SetPatch(0, 0, program, false);
  // Runs of keys on the same sample make one region; the outer runs reach to the keyboard's ends.
  for (int key = 0; key < kKeyMapEntries;) {
    int end = key;
    while (end + 1 < kKeyMapEntries && keyMap[end + 1] == keyMap[key]) ++end;
    const uint8_t s = keyMap[key];
    if (s < sampleCount && waves[s]) {
      const int lo = key == 0 ? 0 : key + kKeyOffset;
      const int hi = end == kKeyMapEntries - 1 ? 127 : end + kKeyOffset;
      instrument->AddRegion(waves[s]->id, PackRange(lo, hi), kFullRange, 60);
    }
    key = end + 1;
  }
  return true;
}

}  // namespace

int32_t DetectXmModule(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return HasSignature(head, headBytes) ? 6 : 0;
}

bool ReadXmModule(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  if (bytes.size() < kHeadBytes || !HasSignature(bytes.data(), bytes.size())) {
    SetLastError("Not an XM - Extended Module file");
    return false;
  }
  const std::string_view title(reinterpret_cast<const char*>(bytes.data()) + kSignatureBytes, 20);
  if (!IsBlank(title)) collection->SetNameNarrow(TrimName(title));
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(kHeadBytes);
  const uint32_t headerSize = reader.U32le();
  reader.Skip(6);  // song length, restart position, channels
  const uint32_t patterns = reader.U16le();
  const uint32_t instruments = std::min<uint32_t>(reader.U16le(), kMaxInstruments);
  if (reader.failed) {
    SetLastError("Not an XM - Extended Module file");
    return false;
  }
  reader.Seek(kHeadBytes + std::max<size_t>(headerSize, 4));
  for (uint32_t p = 0; p < patterns && !reader.failed; ++p) {
    const size_t start = reader.Position();
    const uint32_t patternHeaderSize = reader.U32le();
    reader.Skip(3);  // packing type, rows
    const uint32_t packedSize = reader.U16le();
    reader.Seek(start + std::max<size_t>(patternHeaderSize, 9) + packedSize);
  }
  for (uint32_t i = 0; i < instruments && !reader.failed; ++i) {
    const size_t start = reader.Position();
    const uint32_t instrumentSize = reader.U32le();
    const std::string name = reader.Text(22);
    reader.U8();  // type
    const uint32_t sampleCount = std::min<uint32_t>(reader.U16le(), kMaxSamplesPerInstrument);
    if (reader.failed) break;
    if (sampleCount == 0) {
      reader.Seek(start + std::max<size_t>(instrumentSize, kInstrumentHeadBytes));
      continue;
    }
    uint32_t sampleHeaderSize = reader.U32le();
    uint8_t keyMap[kKeyMapEntries];
    for (uint8_t& entry : keyMap) entry = reader.U8();
    reader.Seek(start + std::max<size_t>(instrumentSize, kInstrumentHeadBytes + 4 + kKeyMapEntries));
    if (!ReadInstrumentSamples(collection, reader, bytes.size(), keyMap, sampleCount, sampleHeaderSize, name,
                               int(i & 0x7F), false))
      break;
  }
  return true;
}

// ---- Fast Tracker 2 instrument (.xi): "Extended Instrument: ", the name, 0x1A, the tracker's name and
// version, then the instrument header of a module without its size and name fields (key map,
// envelopes, vibrato, fade-out, 22 reserved bytes), the sample count, the sample headers and the data.

namespace {
constexpr char kXiSignature[] = "Extended Instrument: ";
constexpr size_t kXiSignatureBytes = 21;
constexpr size_t kXiKeyMapAt = 0x42;
constexpr size_t kXiSampleCountAt = 0x128;
}  // namespace

int32_t DetectXiInstrument(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= kXiSignatureBytes && std::memcmp(head, kXiSignature, kXiSignatureBytes) == 0 ? 6 : 0;
}

bool ReadXiInstrument(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  if (bytes.size() < kXiSampleCountAt + 2 || !DetectXiInstrument(bytes.data(), 0, uint32_t(bytes.size()), 0)) {
    SetLastError("Not a Fast Tracker 2 instrument");
    return false;
  }
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(kXiSignatureBytes);
  const std::string name = reader.Text(22);
  uint8_t keyMap[kKeyMapEntries];
  std::memcpy(keyMap, bytes.data() + kXiKeyMapAt, kKeyMapEntries);
  reader.Seek(kXiSampleCountAt);
  const uint32_t sampleCount = std::min<uint32_t>(reader.U16le(), kMaxSamplesPerInstrument);
  if (sampleCount == 0) {
    SetLastError("No samples in instrument");
    return false;
  }
  return ReadInstrumentSamples(collection, reader, bytes.size(), keyMap, sampleCount, kSampleHeaderBytes, name, 0,
                               true);
}

}  // namespace orlin
