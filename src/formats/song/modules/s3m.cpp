// ScreamTracker 3 modules: a 96-byte header with "SCRM" at 44, the order list, then 16-bit parapointers
// (in 16-byte units) to the instruments. Only sample instruments (type 1) with plain data are taken.
// Samples are unsigned unless the header's sample-format word says signed; 16-bit samples are little
// endian, and stereo ones lie left block, then right block. Packing 4 is the 4-bit ADPCM form some later
// trackers write: a 16-entry table of signed 8-bit steps, then one nibble a sample, low nibble first.
#include <algorithm>
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/song/modules/module_common.h"
#include "formats/song/modules/modules.h"
#include "formats/song/span_reader.h"

namespace orlin {

namespace {

constexpr size_t kSignatureOffset = 44;
constexpr size_t kHeaderBytes = 96;
constexpr uint16_t kSignedSamples = 1;  // sample-format word: 1 signed, 2 unsigned

constexpr uint8_t kPackedAdpcm = 4;
constexpr size_t kAdpcmTableBytes = 16;

bool DecodeAdpcm4(Waveform* wave, FileObject* file) {
  if (!wave->AllocSamples()) return false;
  float* samples = wave->Data()->samples;
  std::vector<uint8_t> packed(kAdpcmTableBytes + (size_t(wave->length) + 1) / 2, 0);
  // A short read leaves zeros: silence to the end of the sample.
  const int64_t size = file->Size();
  const uint64_t available = size > int64_t(wave->sourceOffset) ? uint64_t(size) - wave->sourceOffset : 0;
  if (!file->ReadAt(wave->sourceOffset, packed.data(), size_t(std::min<uint64_t>(packed.size(), available)))) return false;
  int8_t value = 0;
  for (uint32_t i = 0; i < wave->length; ++i) {
    const uint8_t byte = packed[kAdpcmTableBytes + i / 2];
    value = int8_t(value + int8_t(packed[(i & 1) ? byte >> 4 : byte & 0x0F]));
    samples[i] = float(value) * (1.0f / 128.0f);
  }
  return true;
}

bool HasSignature(const uint8_t* head, size_t bytes) {
  return bytes >= kSignatureOffset + 4 && std::memcmp(head + kSignatureOffset, "SCRM", 4) == 0;
}

// One sample instrument record at `pointer` ("SCRS" at 76): a wave pointing at its data, or false when
// the record holds no plain or ADPCM sample.
bool ReadSampleRecord(Collection* collection, const std::vector<uint8_t>& bytes, uint32_t pointer,
                      bool signedSamples) {
  SpanReader record(bytes.data(), bytes.size());
  record.Seek(pointer);
  const uint8_t type = record.U8();
  record.Skip(12);  // DOS file name
  const uint32_t memoryHigh = record.U8();
  const uint32_t memoryLow = record.U16le();
  const uint32_t length = record.U32le();
  const uint32_t loopStart = record.U32le();
  const uint32_t loopEnd = record.U32le();
  record.Skip(2);  // volume, reserved
  const uint8_t packing = record.U8();
  const uint8_t flags = record.U8();
  const uint32_t rate = record.U32le();
  record.Skip(12);
  const std::string name = record.Text(28);
  // Packing 1 (an ADPCM scheme of the tracker itself) was never in use.
  if (record.failed || type != 1 || packing == 1) return false;
  ModuleSample sample;
  sample.name = name;
  sample.offset = (memoryHigh << 16 | memoryLow) * 16;
  sample.frames = length;
  sample.storage = (flags & 4) ? kStoragePcm16 : kStoragePcm8;
  sample.flags = signedSamples ? 0 : kSourceUnsigned;
  sample.channels = (flags & 2) ? 2 : 1;
  sample.rate = rate;
  if (flags & 1) {
    sample.loopType = 1;
    sample.loopStart = loopStart;
    sample.loopEnd = loopEnd;  // exclusive, as stored
  }
  if (packing != kPackedAdpcm) {
    MakeModuleWave(collection, sample, bytes.size());
  } else if (length > 0 && sample.offset < bytes.size()) {
    auto* wave = new Waveform(collection);
    wave->SetNameNarrow(TrimName(name));
    wave->SetPcmSourceByFormat(kStorageCompressed, 0);
    wave->bits = 8;
    wave->decoder = DecodeAdpcm4;
    wave->sourceOffset = sample.offset;
    wave->length = length;
    wave->sampleRate = rate ? rate : 8363;
    if ((flags & 1) && loopEnd > loopStart && loopStart < length) {
      wave->loop.type = 1;
      wave->loop.start = float(loopStart);
      wave->loop.end = float(std::min(loopEnd, length));
    }
  }
  return true;
}

}  // namespace

int32_t DetectS3mModule(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return HasSignature(head, headBytes) ? 6 : 0;
}

bool ReadS3mModule(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  if (bytes.size() < kHeaderBytes || !HasSignature(bytes.data(), bytes.size())) {
    SetLastError("Not an S3M module!");
    return false;
  }
  SpanReader reader(bytes.data(), bytes.size());
  const std::string title = reader.Text(28);
  if (!IsBlank(title)) collection->SetNameNarrow(TrimName(title));
  reader.Seek(0x20);
  const uint32_t orders = reader.U16le();
  const uint32_t instruments = reader.U16le();
  reader.Seek(0x2A);
  const uint16_t sampleFormat = reader.U16le();
  reader.Seek(kHeaderBytes + orders);
  std::vector<uint32_t> pointers(instruments);
  for (uint32_t& pointer : pointers) pointer = uint32_t(reader.U16le()) * 16;
  if (reader.failed) {
    SetLastError("Not an S3M module!");
    return false;
  }
  for (uint32_t pointer : pointers) ReadSampleRecord(collection, bytes, pointer, sampleFormat == kSignedSamples);
  return true;
}

// ---- ScreamTracker 3 sample (.s3i): one sample instrument record as a module holds it, its data
// where the record's pointer says; the tracker saves its samples unsigned.

namespace {
constexpr size_t kSampleRecordBytes = 80;
}  // namespace

int32_t DetectS3iSample(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= kSampleRecordBytes && head[0] == 1 && std::memcmp(head + 76, "SCRS", 4) == 0 ? 6 : 0;
}

bool ReadS3iSample(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  if (!DetectS3iSample(bytes.data(), 0, uint32_t(bytes.size()), 0) || !ReadSampleRecord(collection, bytes, 0, false)) {
    SetLastError("Not a ScreamTracker 3 sample");
    return false;
  }
  return true;
}

}  // namespace orlin
