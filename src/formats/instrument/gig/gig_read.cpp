// Reading GigaStudio banks. The DLS walk gathers the records; each region's dimension table then spreads
// its dimension regions over the model: velocity zones become velocity ranges, every other dimension
// (layer, key switch, round robin, release trigger, controllers) a layer of its own named after its zones,
// so nothing is lost and the tree reads as the GigaStudio editor lists it. A stereo wave under a
// sample-channel dimension plays once, from its first zone. Packed waves decode frame by frame.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/user_interface.h"
#include "formats/common/riff.h"
#include "formats/instrument/dls/dls.h"
#include "formats/instrument/gig/gig.h"

namespace orlin {

namespace {

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

constexpr uint8_t kDimSampleChannel = 0x80, kDimVelocity = 0x82, kDimReleaseTrigger = 0x84;
constexpr ParamId kTriggerType = 189, kPan = 51;
constexpr uint32_t kDrumBit = 0x80000000u;

// Packed frames: bytes of a frame by mode (head included), without the head, the head, bits a sample.
constexpr int kFrameBytes[6] = {4096, 2052, 768, 524, 396, 268};
constexpr int kFrameBytesNoHead[6] = {4096, 2048, 768, 512, 384, 256};
constexpr int kHeadBytes[6] = {0, 4, 0, 12, 12, 12};
constexpr int kSampleBits[6] = {16, 8, 24, 16, 12, 8};

int32_t Get16(const uint8_t* p) { return int16_t(uint16_t(p[0] | p[1] << 8)); }
int32_t Get24(const uint8_t* p) {
  const int32_t x = p[0] | p[1] << 8 | p[2] << 16;
  return x & 0x800000 ? x - 0x1000000 : x;
}
int32_t Get12Low(const uint8_t* p) {
  const int32_t x = p[0] | (p[1] & 0x0F) << 8;
  return x & 0x800 ? x - 0x1000 : x;
}
int32_t Get12High(const uint8_t* p) {
  const int32_t x = p[1] >> 4 | p[2] << 4;
  return x & 0x800 ? x - 0x1000 : x;
}
// Wrapping arithmetic: forged frames may overflow, which must not be undefined.
int32_t Wrap(int64_t value) { return int32_t(uint32_t(uint64_t(value))); }

// One channel of a 24-bit frame: a third-order predictor whose third difference is stored.
void Decode24(int mode, const uint8_t* head, const uint8_t* data, uint32_t samples, uint32_t truncatedBits, float* out,
              uint32_t outStep) {
  int32_t y = 0, dy = 0, ddy = 0, dddy = 0;
  if (mode != 2) {
    y = Get24(head);
    dy = Wrap(int64_t(y) - Get24(head + 3));
    ddy = Get24(head + 6);
    dddy = Get24(head + 9);
  }
  for (uint32_t k = 0; k < samples; ++k) {
    int32_t value;
    if (mode == 2) {
      value = Get24(data + 3 * size_t(k));
    } else {
      int32_t delta;
      if (mode == 3) delta = Get16(data + 2 * size_t(k));
      else if (mode == 4) delta = (k & 1) ? Get12High(data + 3 * size_t(k / 2)) : Get12Low(data + 3 * size_t(k / 2));
      else delta = int8_t(data[k]);
      dddy = Wrap(int64_t(dddy) - delta);
      ddy = Wrap(int64_t(ddy) - dddy);
      dy = Wrap(-int64_t(dy) - ddy);
      y = Wrap(int64_t(y) + dy);
      value = y;
    }
    // The stored value keeps 24 bits after the shift back of the truncated ones.
    const int32_t shifted = Wrap(int64_t(uint32_t(value) << (truncatedBits & 31)));
    const int32_t wide = (shifted & 0x800000) ? (shifted & 0xFFFFFF) - 0x1000000 : (shifted & 0xFFFFFF);
    out[size_t(k) * outStep] = float(wide) / 8388608.0f;
  }
}

// One channel of a 16-bit frame: mode 0 plain words, mode 1 second differences of 8 bits.
void Decode16(int mode, const uint8_t* head, const uint8_t* data, uint32_t step, uint32_t samples, float* out,
              uint32_t outStep) {
  int32_t y = mode ? Get16(head) : 0, dy = mode ? Get16(head + 2) : 0;
  for (uint32_t k = 0; k < samples; ++k) {
    const uint8_t* at = data + size_t(k) * step;
    int16_t value;
    if (mode == 0) {
      value = int16_t(Get16(at));
    } else {
      dy = Wrap(int64_t(dy) - int8_t(*at));
      y = Wrap(int64_t(y) - dy);
      value = int16_t(y);
    }
    out[size_t(k) * outStep] = float(value) / 32768.0f;
  }
}

// Walks the frames; `out` may be null to count.
uint32_t WalkFrames(const uint8_t* data, size_t size, uint32_t channels, uint32_t bits, uint32_t truncatedBits,
                    float* out, uint32_t maxFrames) {
  const bool wide = bits == 24;
  const uint32_t perFrame = wide ? 256 : 2048;
  const uint32_t stereo = channels == 2 ? 1 : 0;
  size_t pos = 0;
  uint32_t frames = 0;
  while (pos + 1 + stereo <= size && frames < maxFrames) {
    const int left = data[pos], right = stereo ? data[pos + 1] : 0;
    const bool modesOk = wide ? (left >= 2 && left <= 5 && (!stereo || (right >= 2 && right <= 5)))
                              : (left <= 1 && (!stereo || right <= 1));
    if (!modesOk) break;
    pos += 1 + stereo;
    const size_t remaining = size - pos;
    const size_t frameBytes = size_t(kFrameBytes[left]) + (stereo ? kFrameBytes[right] : 0);
    const size_t heads = size_t(kHeadBytes[left]) + (stereo ? kHeadBytes[right] : 0);
    const bool last = remaining <= frameBytes;
    uint32_t samples = perFrame;
    if (last) {
      if (remaining < heads) break;
      samples = uint32_t(((remaining - heads) * 8) / uint32_t(kSampleBits[left] + (stereo ? kSampleBits[right] : 0)));
    }
    samples = std::min(samples, maxFrames - frames);
    const uint8_t* headLeft = data + pos;
    const uint8_t* headRight = headLeft + kHeadBytes[left];
    const uint8_t* body = headRight + (stereo ? kHeadBytes[right] : 0);
    size_t rightOffset = 0;
    if (wide && stereo) {
      rightOffset = last ? (size_t(samples + ((left == 4 && (samples & 1)) ? 1 : 0)) * kSampleBits[left]) >> 3
                         : size_t(kFrameBytesNoHead[left]);
    }
    auto bytesFor = [samples](int mode) {
      return mode == 4 ? (size_t(samples) + 1) / 2 * 3 : size_t(samples) * uint32_t(kSampleBits[mode]) / 8;
    };
    const size_t dataBytes = wide ? (stereo ? rightOffset + bytesFor(right) : bytesFor(left))
                                  : size_t(samples) * uint32_t((2 - left) + (stereo ? 2 - right : 0));
    const size_t need = size_t(body - data) + dataBytes;
    if (need > size) break;  // a frame that claims more bytes than there are
    if (out && samples) {
      float* at = out + size_t(frames) * channels;
      if (wide) {
        Decode24(left, headLeft, body, samples, truncatedBits, at, channels);
        if (stereo) Decode24(right, headRight, body + rightOffset, samples, truncatedBits, at + 1, channels);
      } else {
        const uint32_t step = uint32_t((2 - left) + (stereo ? 2 - right : 0));
        Decode16(left, headLeft, body, step, samples, at, channels);
        if (stereo) Decode16(right, headRight, body + (2 - left), step, samples, at + 1, channels);
      }
    }
    frames += samples;
    if (last) break;
    pos = size_t(body - data) + kFrameBytesNoHead[left] + (stereo ? kFrameBytesNoHead[right] : 0);
  }
  return frames;
}

// sourceOffset: the packed data; sourceOffsetB: its size; interfaceState[2]: truncated bits.
bool DecodePackedWave(Waveform* wave, FileObject* file) {
  if (!file || wave->length == 0) return Fail("Zero length");
  if (wave->sourceOffsetB >= 0x40000000) return Fail("Wave is too big!");
  std::vector<uint8_t> bytes(size_t(wave->sourceOffsetB) + 16, 0);  // zero tail: last frames may read a byte on
  if (!file->ReadAt(wave->sourceOffset, bytes.data(), size_t(wave->sourceOffsetB))) return Fail("Reading from file failed");
  if (!wave->AllocSamples()) return false;
  float* out = wave->Data()->samples;
  std::fill(out, out + size_t(wave->length) * wave->channels, 0.0f);
  WalkFrames(bytes.data(), size_t(wave->sourceOffsetB), wave->channels, wave->bits, wave->interfaceState[2], out,
             wave->length);
  return true;
}

// A packed wave of the pool: its ewav chunk, and the data chunk the WAVE reader took for plain samples.
void SetUpPackedWave(FileObject& file, Waveform& wave, uint64_t listHead, uint64_t limit) {
  RiffCursor walk;
  if (!walk.Open(file, listHead, limit)) return;
  bool packed = false;
  uint32_t truncated = 0;
  uint64_t dataAt = 0, dataBytes = 0;
  std::vector<uint8_t> body;
  while (walk.Step()) {
    if (walk.id == FourCC("ewav") && walk.ReadBody(body, 256)) {
      packed = true;
      ByteReader reader(body);
      const uint32_t version = reader.U32();
      if (version > 2 && wave.bits == 24 && reader.Seek(wave.channels == 2 ? 84 : 64)) truncated = reader.U32();
    } else if (walk.id == FourCC("data") && !dataAt) {
      dataAt = walk.position;
      dataBytes = walk.chunkSize;
    }
  }
  if (!packed || !dataAt) return;
  wave.sourceOffset = dataAt;
  wave.sourceOffsetB = dataBytes;
  wave.interfaceState[2] = std::min<uint32_t>(truncated, 8);
  wave.decoder = &DecodePackedWave;
  wave.bits = wave.bits == 24 ? 24 : 16;
  std::vector<uint8_t> bytes(size_t(std::min<uint64_t>(dataBytes, 0x40000000)) + 16, 0);
  if (!file.ReadAt(dataAt, bytes.data(), bytes.size() - 16)) return;
  wave.length = CountGigFrames(bytes.data(), bytes.size() - 16, wave.channels, wave.bits);
}

struct Dimension {
  uint8_t type = 0, bits = 0, zones = 0, position = 0;
};

std::string LayerLabel(const std::vector<Dimension>& dims, uint32_t index) {
  std::string label;
  for (const Dimension& d : dims) {
    if (d.type == kDimVelocity || d.type == kDimSampleChannel) continue;
    const uint32_t value = (index >> d.position) & ((1u << d.bits) - 1);
    if (!label.empty()) label += ", ";
    label += std::string(GigDimensionName(d.type)) + " " + std::to_string(value + 1);
  }
  return label;
}

void ApplyDimensionRegion(const std::vector<uint8_t>& ewa, Articulation& art) {
  if (ewa.size() < 140) return;
  ByteReader r(ewa);
  auto timeAt = [&](size_t at) {
    r.Seek(at);
    const int32_t raw = r.I32();
    return float(std::exp2(double(raw) / (1200.0 * 65536.0)));
  };
  art.Set(kParamFirstEnvelope + 5, timeAt(28));   // attack
  art.Set(kParamFirstEnvelope + 13, timeAt(32));  // decay 1
  r.Seek(38);
  const double sustain = std::clamp(r.U16() / 1000.0, 0.0, 1.0);
  // The level is linear; the model's V-ENV level is decibels over 96.
  art.Set(kParamFirstEnvelope + 16, sustain <= 0.0 ? 0.0f : float(std::max(0.0, 1.0 + 20.0 * std::log10(sustain) / 96.0)));
  art.Set(kParamFirstEnvelope + 17, timeAt(40));  // release
  r.Seek(109);
  const uint8_t pan = r.U8();
  const int signedPan = pan < 64 ? pan : -(int(pan) - 63);
  if (signedPan) art.Set(kPan, float(signedPan) / 64.0f);
}

}  // namespace

const char* GigDimensionName(uint8_t type) {
  switch (type) {
    case 0x80: return "Sample channel";
    case 0x81: return "Layer";
    case 0x82: return "Velocity";
    case 0x83: return "Channel aftertouch";
    case 0x84: return "Release trigger";
    case 0x85: return "Keyswitch";
    case 0x86: return "Round robin";
    case 0x87: return "Random";
    case 0x88: return "Smart MIDI";
    case 0x89: return "Round robin keyboard";
    case 0x01: return "Modwheel";
    case 0x02: return "Breath";
    case 0x04: return "Foot";
    case 0x05: return "Portamento time";
    case 0x40: return "Sustain pedal";
    case 0x41: return "Portamento";
    case 0x42: return "Sostenuto pedal";
    case 0x43: return "Soft pedal";
    default: return "Controller";
  }
}

uint32_t CountGigFrames(const uint8_t* data, size_t size, uint32_t channels, uint32_t bits) {
  return WalkFrames(data, size, channels, bits, 0, nullptr, 0xFFFFFFFFu);
}

uint32_t DecodeGigFrames(const uint8_t* data, size_t size, uint32_t channels, uint32_t bits, uint32_t truncatedBits,
                         float* out, uint32_t maxFrames) {
  return WalkFrames(data, size, channels, bits, truncatedBits, out, maxFrames);
}

int32_t DetectGig(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize) {
  if (DetectDls(head, variant, headBytes, fileSize) == 0) return 0;
  // The extension chunks show within the first instrument.
  const std::string_view text(reinterpret_cast<const char*>(head), headBytes);
  for (const char* tag : {"3lnk", "3gri", "3ewa", "3prg", "einf"})
    if (text.find(tag) != std::string_view::npos) return 6;
  return 2;
}

bool ReadGig(Collection* collection, FileObject* file, uint32_t) {
  const int64_t fileSize = file->Size();
  if (fileSize < 12) return Fail("Not a RIFF DLS file");
  DlsBank bank;
  if (!ParseDlsBank(collection, *file, 0, uint64_t(fileSize), bank)) return false;
  for (size_t w = 0; w < bank.waves.size(); ++w)
    if (bank.waves[w]) SetUpPackedWave(*file, *bank.waves[w], bank.wavePoolBody + bank.waveOffsets[w], uint64_t(fileSize));
  std::vector<uint32_t> cues;
  bool haveCues = false;
  if (!ReadDlsCueTable(*file, bank, uint64_t(fileSize), false, cues, haveCues)) return false;

  for (const DlsInstrument& source : bank.instruments) {
    auto* instrument = new Instrument(collection);
    const bool drum = source.bank & kDrumBit;
    instrument->SetPatch((source.bank >> 8) & 0x7F, source.bank & 0x7F, int(source.program & 0x7F), drum);
    instrument->SetName(source.name.empty() ? "Instrument" : source.name);
    // The default velocity response (non-linear, depth 3) is taken as the DLS player's curve.
    instrument->articulation.Set(kDlsVelocityToVolumeParam, kDlsVelocityToVolume);
    if (!source.comments.empty()) instrument->SetText(kTextComments, source.comments);
    if (!source.copyright.empty()) instrument->SetText(kTextCopyright, source.copyright);
    std::map<uint32_t, int> layerOfCombination;  // non-velocity dimension bits -> layer hint
    for (const DlsRegion& r : source.regions) {
      // 3lnk: count, then 5 (v2) or 8 (v3) dimension records of 8 bytes, then the pool indices.
      ByteReader link(r.gigLink);
      const uint32_t count = std::min<uint32_t>(link.U32(), 256);
      const bool version3 = r.gigLink.size() >= 68 + 4 * size_t(count) && r.gigLink.size() >= 1092;
      const int records = version3 ? 8 : 5;
      std::vector<Dimension> dims;
      uint8_t position = 0;
      for (int d = 0; d < records; ++d) {
        link.Seek(4 + 8 * size_t(d));
        Dimension dim;
        dim.type = link.U8();
        dim.bits = link.U8();
        link.Skip(2);
        dim.zones = link.U8();
        if (link.Failed() || dim.type == 0 || dim.bits == 0 || dim.bits > 7) continue;
        if (dim.zones == 0) dim.zones = uint8_t(1u << dim.bits);
        dim.position = position;
        position = uint8_t(position + dim.bits);
        dims.push_back(dim);
      }
      const size_t poolAt = version3 ? 68 : 44;
      const uint32_t regions = std::max<uint32_t>(count, 1);
      if (r.gigLink.empty()) {
        // A plain DLS region: its own wsmp and wave link.
        bool warnedCue = true, warnedWave = true;
        Waveform* wave = ResolveDlsWave(bank, cues, haveCues, r.tableIndex, warnedCue, warnedWave);
        if (wave)
          instrument->AddRegion(wave->id, PackRange(std::min<int>(r.loKey, 127), std::min<int>(r.hiKey, 127)),
                                PackRange(std::min<int>(r.loVelocity, 127), std::min<int>(r.hiVelocity, 127)), -1);
        continue;
      }
      for (uint32_t i = 0; i < regions && i < r.gigExtensions.size(); ++i) {
        int loVelocity = r.loVelocity, hiVelocity = std::min<int>(r.hiVelocity, 127);
        bool skip = false, release = false;
        for (const Dimension& d : dims) {
          const uint32_t value = (i >> d.position) & ((1u << d.bits) - 1);
          if (value >= d.zones) skip = true;
          if (d.type == kDimReleaseTrigger && value == 1) release = true;
          if (d.type == kDimVelocity && value < d.zones) {
            // Upper limits: gig v3 keeps them per dimension region (byte 140 + dimension), v2 one byte at
            // 124; without them the zones split evenly.
            auto upperOf = [&](uint32_t zone) {
              const uint32_t other = (i & ~(((1u << d.bits) - 1) << d.position)) | (zone << d.position);
              if (other < r.gigExtensions.size()) {
                const std::vector<uint8_t>& ewa = r.gigExtensions[other];
                const size_t slot = size_t(&d - dims.data());
                if (ewa.size() >= 148 && ewa[140 + slot]) return int(ewa[140 + slot]);
                if (!version3 && ewa.size() > 124 && ewa[124]) return int(ewa[124]);
              }
              return int((zone + 1) * 128 / d.zones) - 1;
            };
            hiVelocity = std::min(upperOf(value), 127);
            loVelocity = value == 0 ? 0 : std::min(upperOf(value - 1) + 1, 127);
          }
        }
        if (skip || loVelocity > hiVelocity) continue;
        link.Seek(poolAt + 4 * size_t(i));
        const uint32_t poolIndex = link.U32();
        bool warnedCue = true, warnedWave = true;  // one warning a file is enough for a bank of thousands
        Waveform* wave = link.Ok() ? ResolveDlsWave(bank, cues, haveCues, poolIndex, warnedCue, warnedWave) : nullptr;
        if (!wave) continue;
        bool secondChannel = false;
        for (const Dimension& d : dims)
          if (d.type == kDimSampleChannel && ((i >> d.position) & 1) && wave->channels == 2) secondChannel = true;
        if (secondChannel) continue;  // the stereo wave plays both channels from the first zone
        uint32_t combination = 0;
        for (const Dimension& d : dims)
          if (d.type != kDimVelocity && d.type != kDimSampleChannel)
            combination |= ((i >> d.position) & ((1u << d.bits) - 1)) << d.position;
        auto found = layerOfCombination.find(combination);
        if (found == layerOfCombination.end())
          found = layerOfCombination.emplace(combination, int(layerOfCombination.size())).first;
        Region* region = instrument->AddRegion(wave->id, PackRange(std::min<int>(r.loKey, 127), std::min<int>(r.hiKey, 127)),
                                               PackRange(loVelocity, hiVelocity), -1, found->second);
        if (Layer* layer = collection->Find<Layer>(region->parentId)) {
          const std::string label = LayerLabel(dims, combination);
          if (!label.empty()) layer->SetName(label);
        }
        if (release) region->SetParam(kTriggerType, 1.0f);
        if (r.keyGroup) region->SetParam(202, float(r.keyGroup));
        // The dimension region's wsmp rules root, tune and loop, as the DLS region's does.
        float tuneOffset = 0.0f, gainOffset = 0.0f;
        if (i < r.gigSamples.size()) ApplyRegionSample(*region, *wave, r.gigSamples[i], tuneOffset, gainOffset);
        if (tuneOffset != 0.0f) region->articulation.Set(kParamMasterTune, tuneOffset);
        if (gainOffset != 0.0f) region->articulation.Set(kParamMasterVolume, gainOffset);
        ApplyDimensionRegion(r.gigExtensions[i], region->articulation);
      }
    }
  }
  return true;
}

}  // namespace orlin
