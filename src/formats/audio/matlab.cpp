// Matlab and GNU Octave MAT-files (level 4 and level 5) as audio: one numeric matrix is the wave, a
// 1x1 variable named like a rate ("samplerate", "fs", "sr", "rate") is its sample rate.
//
// Level 4 is a run of variables, each a 20-byte head (the type word MOPT, rows, columns, the imaginary
// flag, the name's length), the name and the column-major data. Level 5 has a 128-byte head ending in
// the version and "IM" or "MI" for the byte order, then tagged elements, a matrix being a tag of type
// 14 around its array flags, dimensions, name and real part; type 15 is a zlib-packed element.
//
// Which matrix is the wave: the one named "wavedata" (as libsndfile names it), else the largest real
// numeric one with at most two rows or two columns. Two rows make a column-major stereo matrix,
// frames interleaved; two columns make left then right. Integers are taken as PCM of their width
// (unsigned ones as offset binary), floats as samples of -1..1, which is how audio tools write them.
#include "formats/audio/matlab.h"

#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"

namespace orlin {

namespace {

constexpr size_t kLevel5HeadBytes = 128;
constexpr uint64_t kMaxInflatedBytes = 0x20000000;  // 512 MB: a packed wave beyond this is refused
constexpr uint32_t kMaxVariables = 4096;

// Level 5 data types; level 4 precisions are mapped onto them.
enum MatType : uint32_t {
  kMiInt8 = 1, kMiUint8 = 2, kMiInt16 = 3, kMiUint16 = 4, kMiInt32 = 5, kMiUint32 = 6, kMiSingle = 7,
  kMiDouble = 9, kMiMatrix = 14, kMiCompressed = 15,
};

uint32_t TypeBytes(uint32_t type) {
  switch (type) {
    case kMiInt8: case kMiUint8: return 1;
    case kMiInt16: case kMiUint16: return 2;
    case kMiInt32: case kMiUint32: case kMiSingle: return 4;
    case kMiDouble: return 8;
    default: return 0;
  }
}

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

struct Variable {
  std::string name;
  uint64_t rows = 0, columns = 0;
  uint32_t type = 0;        // a MatType
  bool bigEndian = false;
  bool complex = false;
  uint64_t offset = 0;      // of the real part, in the file or in `memory`
  std::shared_ptr<std::vector<uint8_t>> memory;  // set when the element was packed
  uint64_t packedAt = 0;    // then the file offset of the packed element
  uint64_t Count() const { return rows * columns; }
};

uint32_t Read32(const uint8_t* p, bool bigEndian) {
  return bigEndian ? uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]
                   : uint32_t(p[3]) << 24 | p[2] << 16 | p[1] << 8 | p[0];
}

// One number of `type` as its value (not scaled to -1..1), for the rate.
double NumberAt(const uint8_t* p, uint32_t type, bool bigEndian) {
  uint8_t b[8];
  const uint32_t n = TypeBytes(type);
  for (uint32_t i = 0; i < n; ++i) b[i] = bigEndian ? p[n - 1 - i] : p[i];
  switch (type) {
    case kMiInt8: return int8_t(b[0]);
    case kMiUint8: return b[0];
    case kMiInt16: { int16_t v; std::memcpy(&v, b, 2); return v; }
    case kMiUint16: { uint16_t v; std::memcpy(&v, b, 2); return v; }
    case kMiInt32: { int32_t v; std::memcpy(&v, b, 4); return v; }
    case kMiUint32: { uint32_t v; std::memcpy(&v, b, 4); return v; }
    case kMiSingle: { float v; std::memcpy(&v, b, 4); return v; }
    case kMiDouble: { double v; std::memcpy(&v, b, 8); return v; }
    default: return 0;
  }
}

// Bounds-checked reads of a range of the file or of an inflated element.
class Source {
 public:
  Source(FileObject& file, uint64_t size) : file_(&file), size_(size) {}
  explicit Source(std::shared_ptr<std::vector<uint8_t>> memory) : memory_(std::move(memory)), size_(memory_->size()) {}
  uint64_t Size() const { return size_; }
  bool Read(uint64_t at, void* out, size_t count) const {
    if (at > size_ || count > size_ - at) return false;
    if (memory_) {
      std::memcpy(out, memory_->data() + at, count);
      return true;
    }
    return file_->ReadAt(at, out, count);
  }
  const std::shared_ptr<std::vector<uint8_t>>& Memory() const { return memory_; }

 private:
  FileObject* file_ = nullptr;
  std::shared_ptr<std::vector<uint8_t>> memory_;
  uint64_t size_ = 0;
};

// ---- level 4

// The type word in either byte order: its thousands digit says which (0 little, 1 big endian).
bool Level4Type(const uint8_t* head, bool& bigEndian, uint32_t& precision, uint32_t& kind) {
  for (bool big : {false, true}) {
    const uint32_t word = Read32(head, big);
    if (word >= 2000 || (word / 1000 == 1) != big || (word / 100) % 10 != 0) continue;
    bigEndian = big;
    precision = (word / 10) % 10;
    kind = word % 10;
    return precision <= 5 && kind <= 2;
  }
  return false;
}

constexpr uint32_t kLevel4Types[] = {kMiDouble, kMiSingle, kMiInt32, kMiInt16, kMiUint16, kMiUint8};

bool ReadLevel4(FileObject& file, uint64_t fileBytes, std::vector<Variable>& variables) {
  uint64_t at = 0;
  while (at + 20 <= fileBytes && variables.size() < kMaxVariables) {
    uint8_t head[20];
    if (!file.ReadAt(at, head, 20)) return Fail("Reading from file failed");
    Variable v;
    uint32_t precision = 0, kind = 0;
    if (!Level4Type(head, v.bigEndian, precision, kind)) break;
    v.type = kLevel4Types[precision];
    v.rows = Read32(head + 4, v.bigEndian);
    v.columns = Read32(head + 8, v.bigEndian);
    v.complex = Read32(head + 12, v.bigEndian) != 0;
    const uint32_t nameBytes = Read32(head + 16, v.bigEndian);
    if (nameBytes > 4096 || at + 20 + nameBytes > fileBytes) break;
    std::string name(nameBytes, '\0');
    if (nameBytes && !file.ReadAt(at + 20, name.data(), nameBytes)) return Fail("Reading from file failed");
    v.name = name.substr(0, name.find('\0'));
    v.offset = at + 20 + nameBytes;
    const uint64_t dataBytes = v.Count() * TypeBytes(v.type) * (v.complex ? 2 : 1);
    if (kind == 0) variables.push_back(v);
    if (dataBytes > fileBytes - v.offset) break;  // the last variable may be cut short; the wave is cut with it
    at = v.offset + dataBytes;
  }
  return true;
}

// ---- level 5

struct Tag {
  uint32_t type = 0;
  uint64_t bytes = 0;
  uint64_t data = 0;  // where the data starts
  uint64_t next = 0;  // where the next element starts (8-byte aligned)
};

bool ReadTag(const Source& source, uint64_t at, bool bigEndian, Tag& tag) {
  uint8_t head[8];
  if (!source.Read(at, head, 8)) return false;
  const uint32_t first = Read32(head, bigEndian);
  if (first >> 16) {  // the small form: type and size in one word, up to four data bytes beside them
    tag.type = first & 0xFFFF;
    tag.bytes = first >> 16;
    if (tag.bytes > 4) return false;
    tag.data = at + 4;
    tag.next = at + 8;
    return true;
  }
  tag.type = first;
  tag.bytes = Read32(head + 4, bigEndian);
  tag.data = at + 8;
  // An element may claim more than the file holds (libsndfile's own claim its last one 8 bytes too
  // long): it keeps what is there.
  tag.bytes = std::min(tag.bytes, source.Size() - std::min(source.Size(), tag.data));
  tag.next = tag.data + ((tag.bytes + 7) & ~uint64_t(7));
  return true;
}

// A matrix element's parts: flags, dimensions, name, real part.
bool ReadMatrix(const Source& source, const Tag& matrix, bool bigEndian, Variable& v) {
  const uint64_t end = matrix.data + matrix.bytes;
  Tag part;
  uint8_t word[8];
  // array flags
  if (!ReadTag(source, matrix.data, bigEndian, part) || part.bytes < 8 || !source.Read(part.data, word, 8)) return false;
  const uint32_t flags = Read32(word, bigEndian);
  v.complex = flags & 0x800;
  const uint32_t arrayClass = flags & 0xFF;
  if (arrayClass < 6 || arrayClass > 13) return false;  // cells, structures, objects, chars, sparse
  // dimensions: exactly two used; more are taken only when they are 1
  if (!ReadTag(source, part.next, bigEndian, part) || part.bytes < 8 || part.bytes > 64) return false;
  uint8_t dims[64];
  if (!source.Read(part.data, dims, size_t(part.bytes))) return false;
  v.rows = Read32(dims, bigEndian);
  v.columns = Read32(dims + 4, bigEndian);
  for (uint64_t d = 8; d + 4 <= part.bytes; d += 4)
    if (Read32(dims + d, bigEndian) != 1) return false;
  // name
  if (!ReadTag(source, part.next, bigEndian, part) || part.bytes > 4096) return false;
  v.name.assign(size_t(part.bytes), '\0');
  if (part.bytes && !source.Read(part.data, v.name.data(), size_t(part.bytes))) return false;
  // real part: any numeric type, whatever the class says
  if (!ReadTag(source, part.next, bigEndian, part) || part.next > end + 8) return false;
  v.type = part.type;
  v.bigEndian = bigEndian;
  v.offset = part.data;
  v.memory = source.Memory();
  const uint32_t typeBytes = TypeBytes(v.type);
  if (!typeBytes) return false;
  // A part shorter than rows x columns keeps what it has, as a cut file does.
  const uint64_t present = part.bytes / typeBytes;
  if (v.Count() > present) {
    if (v.rows <= 2) v.columns = v.rows ? present / v.rows : 0;
    else if (v.columns <= 2) v.rows = v.columns ? present / v.columns : 0;
    else return false;
  }
  return true;
}

// Inflates a packed element whole; a stream that ends early keeps what came.
bool Inflate(const Source& source, const Tag& tag, std::vector<uint8_t>& out) {
  const uint64_t packedBytes = std::min<uint64_t>(tag.bytes, source.Size() - std::min(source.Size(), tag.data));
  if (packedBytes > kMaxInflatedBytes) return false;
  std::vector<uint8_t> packed(static_cast<size_t>(packedBytes));
  if (!source.Read(tag.data, packed.data(), packed.size())) return false;
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK) return false;
  stream.next_in = packed.data();
  stream.avail_in = uInt(packed.size());
  int status = Z_OK;
  try {
    while (status == Z_OK) {
      if (out.size() >= kMaxInflatedBytes) break;
      const size_t have = out.size();
      out.resize(std::min<size_t>(std::max<size_t>(have * 2, 65536), kMaxInflatedBytes));
      stream.next_out = out.data() + have;
      stream.avail_out = uInt(out.size() - have);
      status = inflate(&stream, Z_NO_FLUSH);
      out.resize(out.size() - stream.avail_out);
    }
  } catch (const std::bad_alloc&) {
    inflateEnd(&stream);
    return false;
  }
  inflateEnd(&stream);
  return !out.empty();
}

bool ReadLevel5(FileObject& file, uint64_t fileBytes, bool bigEndian, std::vector<Variable>& variables) {
  const Source whole(file, fileBytes);
  uint64_t at = kLevel5HeadBytes;
  Tag tag;
  while (at + 8 <= fileBytes && variables.size() < kMaxVariables && ReadTag(whole, at, bigEndian, tag)) {
    Variable v;
    if (tag.type == kMiMatrix) {
      if (ReadMatrix(whole, tag, bigEndian, v)) variables.push_back(std::move(v));
    } else if (tag.type == kMiCompressed) {
      auto inflated = std::make_shared<std::vector<uint8_t>>();
      Tag inner;
      if (Inflate(whole, tag, *inflated)) {
        const Source packed(inflated);
        if (ReadTag(packed, 0, bigEndian, inner) && inner.type == kMiMatrix && ReadMatrix(packed, inner, bigEndian, v)) {
          v.packedAt = at;
          variables.push_back(std::move(v));
        }
      }
      tag.next = tag.data + tag.bytes;  // packed elements are not padded
    }
    if (tag.next <= at) break;
    at = tag.next;
  }
  return true;
}

// ---- the wave

bool IsRateName(std::string name) {
  for (char& c : name) c = char(std::tolower(static_cast<unsigned char>(c)));
  return name == "samplerate" || name == "fs" || name == "sr" || name == "rate" || name == "samplingrate";
}

const Variable* ChooseWave(const std::vector<Variable>& variables) {
  const Variable* best = nullptr;
  for (const Variable& v : variables) {
    if (v.complex || v.Count() < 2 || std::min(v.rows, v.columns) > 2) continue;
    if (v.name == "wavedata") return &v;
    if (!best || v.Count() > best->Count()) best = &v;
  }
  return best;
}

uint32_t StorageOf(uint32_t type, uint32_t& flags) {
  flags = 0;
  switch (type) {
    case kMiUint8: flags = kSourceUnsigned; return kStoragePcm8;
    case kMiInt8: return kStoragePcm8;
    case kMiUint16: flags = kSourceUnsigned; return kStoragePcm16;
    case kMiInt16: return kStoragePcm16;
    case kMiUint32: flags = kSourceUnsigned; return kStoragePcm32;
    case kMiInt32: return kStoragePcm32;
    case kMiSingle: return kStorageFloat32;
    default: return kStorageFloat64;
  }
}

// A packed wave is decoded at once from its inflated bytes; the file no longer holds it as samples.
bool FillFromMemory(Waveform& wave, const Variable& v, uint32_t storage, uint32_t flags) {
  float* samples = wave.AllocSamples();
  if (!samples) return false;
  const uint32_t typeBytes = TypeBytes(v.type);
  const uint64_t count = uint64_t(wave.length) * wave.channels;
  const uint8_t* data = v.memory->data() + v.offset;
  if (wave.channels == 2 && v.columns == 2) {  // left column, then right column
    std::vector<float> column(wave.length);
    for (uint32_t c = 0; c < 2; ++c) {
      DecodeSampleBlock(storage, flags, data + uint64_t(c) * v.rows * typeBytes, wave.length, column.data());
      for (uint32_t i = 0; i < wave.length; ++i) samples[2 * uint64_t(i) + c] = column[i];
    }
    return true;
  }
  DecodeSampleBlock(storage, flags, data, size_t(count), samples);
  return true;
}

bool FileIsBigEndian(FileObject& file) {
  uint8_t order[2] = {};
  return file.ReadAt(126, order, 2) && order[0] == 'M' && order[1] == 'I';
}

// A packed matrix is inflated again whenever its samples are wanted; the wave's source offset is
// where its packed element starts.
bool DecodePackedMatrix(Waveform* wave, FileObject* file) {
  const int64_t size = file->Size();
  const Source whole(*file, size > 0 ? uint64_t(size) : 0);
  const bool bigEndian = FileIsBigEndian(*file);
  Tag tag, inner;
  auto inflated = std::make_shared<std::vector<uint8_t>>();
  Variable v;
  if (!ReadTag(whole, wave->sourceOffset, bigEndian, tag) || tag.type != kMiCompressed || !Inflate(whole, tag, *inflated))
    return Fail("Reading from file failed");
  const Source packed(inflated);
  if (!ReadTag(packed, 0, bigEndian, inner) || !ReadMatrix(packed, inner, bigEndian, v)) return Fail("Reading from file failed");
  const uint64_t frames = std::min(v.rows, v.columns) == v.rows && v.rows <= 2 && v.columns > v.rows ? v.columns : v.rows;
  if (frames < wave->length) return Fail("Reading from file failed");
  uint32_t flags = 0;
  const uint32_t storage = StorageOf(v.type, flags);
  if (v.bigEndian) flags |= kSourceBigEndian;
  return FillFromMemory(*wave, v, storage, flags);
}

}  // namespace

int32_t DetectMatlab(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (headBytes >= kLevel5HeadBytes && std::memcmp(head, "MATLAB 5.0 MAT-file", 19) == 0) return 6;
  if (headBytes < 20) return 0;
  bool bigEndian = false;
  uint32_t precision = 0, kind = 0;
  if (!Level4Type(head, bigEndian, precision, kind) || kind != 0) return 0;
  const uint32_t nameBytes = Read32(head + 16, bigEndian);
  if (nameBytes < 2 || nameBytes > 64 || headBytes < 20 + nameBytes || head[20 + nameBytes - 1] != 0) return 0;
  for (uint32_t i = 0; i + 1 < nameBytes; ++i)
    if (!std::isalnum(head[20 + i]) && head[20 + i] != '_') return 0;
  return 4;
}

bool ReadMatlab(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  const uint64_t fileBytes = size > 0 ? uint64_t(size) : 0;
  std::vector<uint8_t> head(size_t(std::min<uint64_t>(fileBytes, kLevel5HeadBytes)));
  if (head.empty() || !file->ReadAt(0, head.data(), head.size())) return Fail("Reading from file failed");
  std::vector<Variable> variables;
  if (head.size() == kLevel5HeadBytes && std::memcmp(head.data(), "MATLAB 5.0 MAT-file", 19) == 0) {
    const bool bigEndian = head[126] == 'M' && head[127] == 'I';
    if (!bigEndian && !(head[126] == 'I' && head[127] == 'M')) return Fail("Not a Matlab MAT-file");
    if (!ReadLevel5(*file, fileBytes, bigEndian, variables)) return false;
  } else {
    if (!DetectMatlab(head.data(), 0, uint32_t(head.size()), fileBytes)) return Fail("Not a Matlab MAT-file");
    if (!ReadLevel4(*file, fileBytes, variables)) return false;
  }
  const Variable* chosen = ChooseWave(variables);
  if (!chosen) return Fail("No numeric matrix of one or two channels in the file");
  const Variable& v = *chosen;

  uint32_t rate = 44100;
  for (const Variable& r : variables) {
    if (r.Count() != 1 || !IsRateName(r.name)) continue;
    uint8_t bytes[8] = {};
    const Source source = r.memory ? Source(r.memory) : Source(*file, fileBytes);
    if (!source.Read(r.offset, bytes, TypeBytes(r.type))) continue;
    const double value = NumberAt(bytes, r.type, r.bigEndian);
    if (value >= 1 && value <= 10000000) rate = uint32_t(std::lround(value));
    break;
  }

  auto* wave = new Waveform(collection);
  wave->SetName(std::filesystem::path(file->Path()).stem().string());
  uint32_t flags = 0;
  const uint32_t storage = StorageOf(v.type, flags);
  if (v.bigEndian) flags |= kSourceBigEndian;
  const bool channelsInRows = v.rows <= 2 && v.columns > v.rows;
  wave->channels = uint8_t(channelsInRows ? v.rows : v.columns);
  const uint64_t frames = channelsInRows ? v.columns : v.rows;
  wave->length = uint32_t(std::min<uint64_t>(frames, 0xFFFFFFFF));
  wave->sampleRate = rate;
  if (v.memory) {
    wave->SetPcmSourceByFormat(kStorageCompressed, 0);
    wave->bits = uint8_t(std::min<uint32_t>(TypeBytes(v.type) * 8, 32));
    wave->decoder = DecodePackedMatrix;
    wave->sourceOffset = v.packedAt;
    return true;
  }
  const uint64_t typeBytes = TypeBytes(v.type);
  wave->sourceOffset = v.offset;
  uint64_t present = v.offset < fileBytes ? (fileBytes - v.offset) / (typeBytes * wave->channels) : 0;
  // Two columns lie left block, then right block: the source's sequential stereo.
  if (wave->channels == 2 && !channelsInRows) {
    flags |= kSourceSequentialStereo;
    wave->sourceOffsetB = v.offset + v.rows * typeBytes;
    present = wave->sourceOffsetB < fileBytes ? (fileBytes - wave->sourceOffsetB) / typeBytes : 0;
  }
  wave->SetPcmSourceByFormat(storage, flags);
  if (present < wave->length) wave->length = uint32_t(present);
  if (wave->length == 0) return Fail("Zero length");
  return true;
}

}  // namespace orlin
