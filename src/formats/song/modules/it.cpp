// Impulse Tracker: modules ("IMPM"), single instruments (.iti, "IMPI") and single samples (.its, "IMPS").
// Samples and, in instrument mode, instruments with their 120-key maps are taken; patterns are skipped.
// An instrument head of version under 512 has the old layout. Loop ends are exclusive as stored.
// Samples packed with the 2.14 scheme (and its 2.15 double-delta form) are decoded by the decoder here:
// blocks of a 16-bit byte count, then a bit stream of variable-width deltas, least significant bit first.
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

constexpr char kNotImpulse[] = "Not an Impulse Tracker file";
constexpr size_t kModuleHeaderBytes = 0xC0;
constexpr size_t kSampleHeaderBytes = 0x50;
constexpr size_t kInstrumentHeaderBytes = 554;
constexpr size_t kKeyMapOffset = 0x40;
constexpr int kKeys = 120;
constexpr uint16_t kNewLayoutVersion = 512;
constexpr uint16_t kInstrumentModeFlag = 4;

enum SampleFlag : uint8_t {
  kHasSample = 1, kSixteenBit = 2, kStereo = 4, kCompressed = 8, kLoop = 16, kPingPongLoop = 64,
};

// Bits of one packed block, least significant first; past the end it yields zeros and says so.
class BlockBits {
 public:
  explicit BlockBits(const std::vector<uint8_t>& block) : block_(block) {}
  uint32_t Read(int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i) {
      if (position_ >= block_.size() * 8) {
        exhausted = true;
        return 0;
      }
      value |= uint32_t((block_[position_ >> 3] >> (position_ & 7)) & 1) << i;
      ++position_;
    }
    return value;
  }
  bool exhausted = false;

 private:
  const std::vector<uint8_t>& block_;
  size_t position_ = 0;
};

// Decodes one block into `out` (every `stride`-th float); the width changes ride in the stream.
template <bool kSixteenBit>
void DecodePackedBlock(BlockBits& bits, bool doubleDelta, uint32_t frames, float* out, uint32_t stride) {
  constexpr int kFullWidth = kSixteenBit ? 17 : 9;
  constexpr int kSampleBits = kFullWidth - 1;
  constexpr int kWidthFieldBits = kSixteenBit ? 4 : 3;
  constexpr float kScale = kSixteenBit ? 1.0f / 32768.0f : 1.0f / 128.0f;
  int width = kFullWidth;
  int32_t delta = 0, delta2 = 0;
  for (uint32_t frame = 0; frame < frames && !bits.exhausted;) {
    uint32_t value = bits.Read(width);
    if (width < 7) {
      // The one value with only the top bit set announces a new width.
      if (value == 1u << (width - 1)) {
        value = bits.Read(kWidthFieldBits) + 1;
        width = int(value) < width ? int(value) : int(value) + 1;
        continue;
      }
    } else if (width < kFullWidth) {
      // A band of values just under the top of the range announces a new width.
      const uint32_t border = ((kSixteenBit ? 0xFFFFu : 0xFFu) >> (kFullWidth - width)) - (kSixteenBit ? 8 : 4);
      if (value > border && value <= border + (kSixteenBit ? 16 : 8)) {
        value -= border;
        width = int(value) < width ? int(value) : int(value) + 1;
        continue;
      }
    } else if (width == kFullWidth) {
      if (value & (1u << kSampleBits)) {
        width = int((value + 1) & 0xFF);
        if (width < 1 || width > kFullWidth) return;  // a width past the sample size: a broken stream
        continue;
      }
    } else {
      return;  // a width past the sample size: a broken stream
    }
    const int shift = 32 - std::min(width, kSampleBits);
    const int32_t step = int32_t(value << shift) >> shift;
    delta += step;
    delta2 += delta;
    const int32_t sample = doubleDelta ? delta2 : delta;
    out[size_t(frame) * stride] = float(kSixteenBit ? int16_t(sample) : int8_t(sample)) * kScale;
    ++frame;
  }
}

bool DecodePacked(Waveform* wave, FileObject* file, bool doubleDelta) {
  if (!wave->AllocSamples()) return false;
  float* samples = wave->Data()->samples;
  const bool sixteenBit = wave->bits == 16;
  const uint32_t channels = wave->channels;
  const uint32_t blockFrames = sixteenBit ? 0x4000 : 0x8000;
  std::fill(samples, samples + size_t(wave->length) * channels, 0.0f);
  uint64_t offset = wave->sourceOffset;
  std::vector<uint8_t> block;
  // Each channel is packed whole, the left before the right.
  for (uint32_t channel = 0; channel < channels; ++channel)
    for (uint32_t done = 0; done < wave->length;) {
      uint8_t size[2];
      if (!file->ReadAt(offset, size, 2)) return true;  // a short file ends the sample only
      block.resize(size[0] | size[1] << 8);
      offset += 2;
      if (!file->ReadAt(offset, block.data(), block.size())) return true;
      offset += block.size();
      const uint32_t frames = std::min(blockFrames, wave->length - done);
      BlockBits bits(block);
      float* out = samples + size_t(done) * channels + channel;
      if (sixteenBit) DecodePackedBlock<true>(bits, doubleDelta, frames, out, channels);
      else DecodePackedBlock<false>(bits, doubleDelta, frames, out, channels);
      done += frames;
    }
  return true;
}

bool DecodePacked214(Waveform* wave, FileObject* file) { return DecodePacked(wave, file, false); }
bool DecodePacked215(Waveform* wave, FileObject* file) { return DecodePacked(wave, file, true); }

bool HasTag(const std::vector<uint8_t>& bytes, size_t offset, const char* tag) {
  return offset + 4 <= bytes.size() && std::memcmp(bytes.data() + offset, tag, 4) == 0;
}

// A sample header at `offset`; null when absent, packed or empty.
Waveform* ReadSampleHeader(Collection* collection, const std::vector<uint8_t>& bytes, size_t offset) {
  if (!HasTag(bytes, offset, "IMPS")) return nullptr;
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(offset + 0x12);
  const uint8_t flags = reader.U8();
  reader.U8();  // volume
  const std::string name = reader.Text(26);
  const uint8_t convert = reader.U8();
  reader.U8();  // default pan
  const uint32_t length = reader.U32le();
  const uint32_t loopStart = reader.U32le();
  const uint32_t loopEnd = reader.U32le();
  const uint32_t rate = reader.U32le();
  reader.Skip(8);  // sustain loop
  const uint32_t pointer = reader.U32le();
  if (reader.failed || !(flags & kHasSample)) return nullptr;
  ModuleSample sample;
  sample.name = name;
  sample.offset = pointer;
  sample.frames = length;
  sample.storage = (flags & kSixteenBit) ? kStoragePcm16 : kStoragePcm8;
  sample.flags = (convert & 1) ? 0 : kSourceUnsigned;  // bit 0 of the conversion byte: signed samples
  sample.channels = (flags & kStereo) ? 2 : 1;
  sample.rate = rate;
  if (flags & kLoop) {
    sample.loopType = (flags & kPingPongLoop) ? 3 : 1;
    sample.loopStart = loopStart;
    sample.loopEnd = loopEnd;
  }
  if (!(flags & kCompressed)) return MakeModuleWave(collection, sample, bytes.size());
  // Packed data has no size of its own: the wave keeps the stated length, and decoding stops at the
  // file's end.
  if (length == 0 || pointer >= bytes.size()) return nullptr;
  auto* wave = new Waveform(collection);
  wave->SetNameNarrow(TrimName(name));
  wave->SetPcmSourceByFormat(kStorageCompressed, 0);
  wave->bits = (flags & kSixteenBit) ? 16 : 8;
  wave->decoder = (convert & 4) ? DecodePacked215 : DecodePacked214;  // bit 2: the double-delta form
  wave->channels = sample.channels;
  wave->sourceOffset = pointer;
  wave->length = length;
  wave->sampleRate = rate ? rate : 8363;
  if (sample.loopType && loopEnd > loopStart && loopStart < length) {
    wave->loop.type = sample.loopType;
    wave->loop.start = float(loopStart);
    wave->loop.end = float(std::min(loopEnd, length));
  }
  return wave;
}

// An instrument head at `offset`; `waves` holds the module's samples by number less one.
void ReadInstrument(Collection* collection, const std::vector<uint8_t>& bytes, size_t offset, int number,
                    const std::vector<Waveform*>& waves) {
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(offset + 0x1C);
  const uint16_t version = reader.U16le();
  reader.Seek(offset + 0x20);
  const std::string name = reader.Text(26);
  reader.Seek(offset + 0x3E);
  const uint16_t midiBank = reader.U16le();
  reader.Seek(offset + kKeyMapOffset);
  uint8_t notes[kKeys];
  uint8_t samples[kKeys];
  for (int key = 0; key < kKeys; ++key) notes[key] = reader.U8(), samples[key] = reader.U8();
  if (reader.failed) return;
  auto* instrument = new Instrument(collection);
  instrument->SetNameNarrow(TrimName(name));
  if (version < kNewLayoutVersion) {
    instrument->SetPatch(0, 0, number & 0x7F, false);
  } else {
    // The MIDI bank word: 0xFFFF means none; else low byte minor bank, high byte major bank.
    const int major = midiBank == 0xFFFF ? 0 : (midiBank >> 8) & 0x7F;
    const int minor = midiBank == 0xFFFF ? 0 : midiBank & 0x7F;
    instrument->SetPatch(major, minor, number & 0x7F, false);
  }
  // Runs of keys on the same sample with the same transposition make one region each.
  for (int key = 0; key < kKeys;) {
    const int shift = int(notes[key]) - key;
    int end = key;
    while (end + 1 < kKeys && samples[end + 1] == samples[key] && int(notes[end + 1]) - (end + 1) == shift) ++end;
    const int s = samples[key];
    if (s > 0 && s <= int(waves.size()) && waves[s - 1] && notes[key] < kKeys)
      instrument->AddRegion(waves[s - 1]->id, PackRange(key, std::min(end, 127)), kFullRange, std::clamp(60 - shift, 0, 127));
    key = end + 1;
  }
}

}  // namespace

// The one check of a module's head that detection and reading share: "IMPM", and a file long enough
// for the header with its order list and its instrument and sample pointer tables. A cut file is then
// not announced as a module that the reader goes on to refuse.
bool ItModuleHeadComplete(const uint8_t* head, size_t headBytes, uint64_t fileSize) {
  if (headBytes < 0x26 || std::memcmp(head, "IMPM", 4) != 0) return false;
  const uint64_t orders = head[0x20] | head[0x21] << 8, instruments = head[0x22] | head[0x23] << 8,
                 samples = head[0x24] | head[0x25] << 8;
  return fileSize >= kModuleHeaderBytes + orders + 4 * (instruments + samples);
}

int32_t DetectItModule(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t fileSize) {
  return ItModuleHeadComplete(head, headBytes, fileSize ? fileSize : headBytes) ? 6 : 0;
}
int32_t DetectItInstrument(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 4 && std::memcmp(head, "IMPI", 4) == 0 ? 6 : 0;
}
int32_t DetectItSample(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 4 && std::memcmp(head, "IMPS", 4) == 0 ? 6 : 0;
}

bool ReadItModule(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  if (!ItModuleHeadComplete(bytes.data(), bytes.size(), bytes.size())) {
    SetLastError(kNotImpulse);
    return false;
  }
  SpanReader reader(bytes.data(), bytes.size());
  reader.Seek(4);
  const std::string title = reader.Text(26);
  if (!IsBlank(title)) collection->SetNameNarrow(TrimName(title));
  reader.Seek(0x20);
  const uint32_t orders = reader.U16le();
  const uint32_t instruments = reader.U16le();
  const uint32_t samples = reader.U16le();
  reader.Seek(0x2C);
  const uint16_t flags = reader.U16le();
  reader.Seek(kModuleHeaderBytes + orders);
  std::vector<uint32_t> instrumentPointers(instruments), samplePointers(samples);
  for (uint32_t& pointer : instrumentPointers) pointer = reader.U32le();
  for (uint32_t& pointer : samplePointers) pointer = reader.U32le();
  if (reader.failed) {
    SetLastError(kNotImpulse);
    return false;
  }
  std::vector<Waveform*> waves;
  for (uint32_t pointer : samplePointers) waves.push_back(ReadSampleHeader(collection, bytes, pointer));
  if (flags & kInstrumentModeFlag)
    for (uint32_t i = 0; i < instruments; ++i)
      if (HasTag(bytes, instrumentPointers[i], "IMPI"))
        ReadInstrument(collection, bytes, instrumentPointers[i], int(i), waves);
  return true;
}

bool ReadItInstrument(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  if (!HasTag(bytes, 0, "IMPI")) {
    SetLastError(kNotImpulse);
    return false;
  }
  // The instrument's own samples follow its head; their data pointers are file offsets.
  const uint32_t sampleCount = bytes.size() > 0x1E ? bytes[0x1E] : 0;
  std::vector<Waveform*> waves;
  for (uint32_t s = 0; s < sampleCount; ++s)
    waves.push_back(ReadSampleHeader(collection, bytes, kInstrumentHeaderBytes + s * kSampleHeaderBytes));
  ReadInstrument(collection, bytes, 0, 0, waves);
  return true;
}

bool ReadItSample(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  if (!HasTag(bytes, 0, "IMPS")) {
    SetLastError(kNotImpulse);
    return false;
  }
  ReadSampleHeader(collection, bytes, 0);
  return true;
}

}  // namespace orlin
