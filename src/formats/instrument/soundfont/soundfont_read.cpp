// Reading SoundFont banks: the RIFF tables, the samples (left in the file and decoded on first use,
// 24-bit through sm24), and the walk of presets and instruments that intersects their key and
// velocity ranges, sums their generators and places each zone as a Region on a Layer. Version-1
// banks keep their sample names in snam and 16-byte sample records without rate or pitch.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <cstdio>
#include <map>
#include <memory>
#include <unistd.h>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"
#include "core/region_grid.h"
#include "core/user_interface.h"
#include "formats/audio/addons/flac_addon.h"
#include "formats/audio/addons/vorbis_addon.h"
#include "formats/audio/addons/wavpack_addon.h"
#include "formats/common/riff.h"
#include "formats/instrument/soundfont/soundfont.h"

namespace orlin {

namespace {

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

constexpr uint16_t kGenInstrument = 41;
constexpr uint16_t kGenKeyRange = 43;
constexpr uint16_t kGenVelocityRange = 44;
constexpr uint16_t kGenSampleId = 53;
constexpr uint16_t kGenSampleModes = 54;
constexpr uint16_t kGenExclusiveClass = 57;
constexpr uint16_t kGenRootKey = 58;
constexpr uint16_t kTypeRight = 2;
constexpr uint16_t kTypeLeft = 4;
constexpr uint16_t kTypeRom = 0x8000;
constexpr uint16_t kTypeCompressed = 0x30;
constexpr ParamId kParamKeyGroup = 202;
// No table of a sane bank comes near this; it keeps a forged size from costing memory.
constexpr uint64_t kMaxTableBytes = 64ull << 20;

std::string FieldName(ByteReader& reader, size_t width) {
  std::string_view raw = reader.Text(width);
  const size_t end = raw.find('\0');
  std::string name(raw.substr(0, end));
  while (!name.empty() && name.back() == ' ') name.pop_back();
  return name;
}

int32_t DetectSfbk(const uint8_t* head, uint32_t headBytes, uint32_t form, int major) {
  if (headBytes < 34 || std::memcmp(head, "RIFF", 4) != 0) return 0;
  uint32_t found = 0;
  std::memcpy(&found, head + 8, 4);
  if (found != form) return 0;
  const int fileMajor = head[32] | head[33] << 8;
  return fileMajor == major ? 6 : 2;
}

template <typename Record, typename Parse>
void ReadTable(const std::vector<uint8_t>& body, size_t recordSize, std::vector<Record>& out, Parse parse) {
  ByteReader reader(body);
  const size_t count = body.size() / recordSize;
  out.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    ByteReader record = reader.Sub(recordSize);
    out.push_back(parse(record));
  }
}

std::string InfoText(const std::vector<uint8_t>& body) {
  std::string text(body.begin(), std::find(body.begin(), body.end(), uint8_t(0)));
  return text;
}

// 24-bit samples: the high 16 bits in smpl, the low byte in sm24 at the same sample number.
bool DecodeSample24(Waveform* wave, FileObject* file) {
  if (wave->length == 0 || !file) return Fail("Zero length");
  std::vector<uint8_t> high(size_t(wave->length) * 2), low(wave->length);
  if (!file->ReadAt(wave->sourceOffset, high.data(), high.size()) ||
      !file->ReadAt(wave->sourceOffsetB, low.data(), low.size()))
    return Fail("Reading from file failed");
  if (!wave->AllocSamples()) return false;
  float* out = wave->Data()->samples;
  for (uint32_t i = 0; i < wave->length; ++i) {
    const int32_t value = int32_t(uint32_t(high[2 * i]) << 16 | uint32_t(high[2 * i + 1]) << 24 | uint32_t(low[i]) << 8) >> 8;
    out[i] = float(value) / 8388608.0f;
  }
  return true;
}

// Compressed samples are whole Ogg Vorbis or FLAC streams lying between sourceOffset and
// sourceOffsetB. The codec readers take a file of their own, so the stream is copied out first.
bool DecodeCompressedSample(Waveform* wave, FileObject* file) {
  if (!file || wave->sourceOffsetB <= wave->sourceOffset || wave->length == 0) return Fail("Zero length");
  std::vector<uint8_t> bytes(size_t(wave->sourceOffsetB - wave->sourceOffset));
  if (!file->ReadAt(wave->sourceOffset, bytes.data(), bytes.size())) return Fail("Reading from file failed");
  const bool ogg = std::memcmp(bytes.data(), "OggS", 4) == 0;
  if (!ogg && std::memcmp(bytes.data(), "fLaC", 4) != 0) return Fail("Unknown compressed sample data");
  char pattern[] = "/tmp/orlin-sf3-XXXXXX";
  const int fd = mkstemp(pattern);
  if (fd < 0) return Fail("Could not create file");
  close(fd);
  const std::string path = pattern;
  bool ok = false;
  {
    FileObject temp;
    if (temp.Open(path, FileMode::Create) && temp.Write(bytes.data(), bytes.size())) {
      temp.Close();
      FileObject stream;
      if (stream.Open(path, FileMode::Read)) {
        std::unique_ptr<addons::AudioStream> decoder =
            ogg ? addons::OpenVorbisStream(stream) : addons::OpenFlacStream(stream);
        std::vector<float> frames;
        // The stream's own header stated the length: the frames that decode decide, so that a forged
        // header is not padded out to gigabytes of silence.
        if (decoder && addons::ReadAllFrames(*decoder, frames, wave->length) && decoder->channels >= 1 &&
            !frames.empty() && (wave->length = std::min<uint32_t>(wave->length, uint32_t(frames.size() / decoder->channels))) &&
            wave->AllocSamples()) {
          float* out = wave->Data()->samples;
          const size_t count = frames.size() / decoder->channels;
          for (uint32_t i = 0; i < wave->length; ++i) out[i] = i < count ? frames[size_t(i) * decoder->channels] : 0.0f;
          ok = true;
        }
      }
    }
  }
  std::remove(path.c_str());
  return ok;
}

// A packed bank's smpl chunk is one WavPack stream of all samples back to back; a sample is the run
// of frames from its shdr start (kept in sourceOffsetB), decoded from the stream at sourceOffset.
bool DecodePackedSample(Waveform* wave, FileObject* file) {
  if (!file || !file->IsOpen() || wave->length == 0) return Fail("Zero length");
  const uint64_t position = file->Tell();
  bool ok = false;
  if (file->Seek(wave->sourceOffset)) {
    std::unique_ptr<addons::AudioStream> stream = addons::OpenWavPackStream(*file);
    std::vector<float> frames;
    if (stream && stream->channels >= 1 && wave->sourceOffsetB + wave->length <= stream->frames &&
        stream->Seek(wave->sourceOffsetB) && addons::ReadAllFrames(*stream, frames, wave->length) &&
        !frames.empty() && (wave->length = std::min<uint32_t>(wave->length, uint32_t(frames.size() / stream->channels))) &&
        wave->AllocSamples()) {
      float* out = wave->Data()->samples;
      const size_t count = frames.size() / stream->channels;
      for (uint32_t i = 0; i < wave->length; ++i) out[i] = i < count ? frames[size_t(i) * stream->channels] : 0.0f;
      ok = true;
    } else if (stream) {
      SetLastError("Reading from file failed");
    }
  }
  file->Seek(position);
  return ok;
}

// Length and rate from a compressed sample's own header: FLAC's STREAMINFO, or Vorbis's identification
// header and the granule position of the stream's last page. False when neither is there.
bool ProbeCompressedSample(FileObject& file, uint64_t start, uint64_t end, uint32_t& frames, uint32_t& rate) {
  if (end <= start + 64) return false;
  uint8_t head[64];
  if (!file.ReadAt(start, head, sizeof head)) return false;
  if (std::memcmp(head, "fLaC", 4) == 0) {
    // STREAMINFO body at 8: rate 20 bits, channels 3, bits 5, total samples 36.
    const uint8_t* info = head + 8;
    rate = uint32_t(info[10]) << 12 | uint32_t(info[11]) << 4 | info[12] >> 4;
    const uint64_t total = uint64_t(info[13] & 0x0F) << 32 | uint64_t(info[14]) << 24 | uint64_t(info[15]) << 16 |
                           uint64_t(info[16]) << 8 | info[17];
    frames = uint32_t(std::min<uint64_t>(total, 0xFFFFFFFFu));
    return rate && frames;
  }
  if (std::memcmp(head, "OggS", 4) != 0) return false;
  // First page: 27-byte head, segment table, then "\x01vorbis", version, channels, rate.
  const size_t segments = head[26];
  const size_t packet = 27 + segments;
  if (packet + 16 > sizeof head || std::memcmp(head + packet, "\x01vorbis", 7) != 0) return false;
  rate = uint32_t(head[packet + 12]) | uint32_t(head[packet + 13]) << 8 | uint32_t(head[packet + 14]) << 16 |
         uint32_t(head[packet + 15]) << 24;
  // The last page's granule position counts the stream's frames.
  const uint64_t tailSize = std::min<uint64_t>(end - start, 65536);
  std::vector<uint8_t> tail(static_cast<size_t>(tailSize));
  if (!file.ReadAt(end - tailSize, tail.data(), tail.size())) return false;
  for (size_t at = tail.size() >= 27 ? tail.size() - 27 : 0; at + 27 <= tail.size(); --at) {
    if (std::memcmp(tail.data() + at, "OggS", 4) == 0) {
      uint64_t granule = 0;
      for (int k = 0; k < 8; ++k) granule |= uint64_t(tail[at + 6 + size_t(k)]) << (8 * k);
      frames = uint32_t(std::min<uint64_t>(granule, 0xFFFFFFFFu));
      return rate && frames;
    }
    if (at == 0) break;
  }
  return false;
}

// Some writers leave an odd-sized chunk without its pad byte. When the padded position holds no
// chunk this format knows but the unpadded one does, the walk goes on from the unpadded one.
void StepOverMissingPad(RiffCursor& cursor) {
  if (!(cursor.rawSize & 1) || cursor.next < 1) return;
  auto known = [&](uint64_t at) {
    uint8_t id[4];
    if (!cursor.file->ReadAt(at, id, 4)) return false;
    for (const char* tag : {"LIST", "smpl", "sm24", "snam", "phdr", "pbag", "pmod", "pgen", "inst", "ibag", "imod",
                            "igen", "shdr"})
      if (std::memcmp(id, tag, 4) == 0) return true;
    return false;
  };
  if (!known(cursor.next) && known(cursor.next - 1)) --cursor.next;
}

}  // namespace

int32_t DetectSf2(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return DetectSfbk(head, headBytes, FourCC("sfbk"), 2);
}
int32_t DetectSf3(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return DetectSfbk(head, headBytes, FourCC("sfbk"), 3);
}
int32_t DetectSbk(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return DetectSfbk(head, headBytes, FourCC("sfbk"), 1);
}
int32_t DetectSf2Pack(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return DetectSfbk(head, headBytes, FourCC("sfpk"), 2);
}

bool ReadSoundFontTables(FileObject& file, SoundFontFile& out) {
  const int64_t fileSize = file.Size();
  RiffCursor riff;
  if (fileSize < 12 || !riff.Open(file, 0, uint64_t(fileSize)) || riff.tag != FourCC("RIFF"))
    return Fail("Not a SoundFont2 file");
  if (riff.form != FourCC("sfbk") && riff.form != FourCC("sfpk")) return Fail("Not a Sound Font file");
  out.packed = riff.form == FourCC("sfpk");
  std::vector<uint8_t> snam;
  std::vector<uint8_t> body;
  bool sawInfo = false;
  while (riff.Step()) {
    StepOverMissingPad(riff);
    if (riff.id != FourCC("LIST")) continue;
    RiffCursor list;
    if (!list.Open(file, riff.position - 8, riff.position + riff.size)) continue;
    while (list.Step()) {
      StepOverMissingPad(list);
      const uint32_t id = list.id;
      if (list.form == FourCC("sdta")) {
        if (id == FourCC("smpl") && !out.sampleDataOffset) {
          out.sampleDataOffset = list.position;
          out.sampleCount = list.size / 2;
          out.sampleBytes = list.size;
        } else if (id == FourCC("sm24") && !out.sample24Offset) {
          out.sample24Offset = list.position;
        } else if (id == FourCC("snam") && snam.empty()) {
          list.ReadBody(snam, kMaxTableBytes);
        }
        continue;
      }
      if (!list.ReadBody(body, kMaxTableBytes)) continue;
      if (list.form == FourCC("INFO")) {
        if (id == FourCC("ifil") && body.size() >= 4) {
          sawInfo = true;
          out.versionMajor = uint16_t(body[0] | body[1] << 8);
          out.versionMinor = uint16_t(body[2] | body[3] << 8);
        } else if (id == FourCC("INAM")) out.bankName = InfoText(body);
        else if (id == FourCC("IENG")) out.engineer = InfoText(body);
        else if (id == FourCC("ICOP")) out.copyright = InfoText(body);
        else if (id == FourCC("ICMT")) out.comment = InfoText(body);
        else if (id == FourCC("IPRD")) out.product = InfoText(body);
        continue;
      }
      if (list.form != FourCC("pdta")) continue;
      auto bag = [](ByteReader& r) { SfBag b; b.firstGenerator = r.U16(); b.firstModulator = r.U16(); return b; };
      auto modulator = [](ByteReader& r) {
        SfModulator m;
        m.source = r.U16(); m.destination = r.U16(); m.amount = r.I16(); m.amountSource = r.U16(); m.transform = r.U16();
        return m;
      };
      auto generator = [](ByteReader& r) { SfGenerator g; g.op = r.U16(); g.amount = r.I16(); return g; };
      if (id == FourCC("phdr") && out.presets.empty()) {
        ReadTable(body, 38, out.presets, [](ByteReader& r) {
          SfPresetHeader p;
          p.name = FieldName(r, 20);
          p.preset = r.U16(); p.bank = r.U16(); p.firstBag = r.U16();
          p.library = r.U32(); p.genre = r.U32(); p.morphology = r.U32();
          return p;
        });
      } else if (id == FourCC("pbag") && out.presetBags.empty()) ReadTable(body, 4, out.presetBags, bag);
      else if (id == FourCC("ibag") && out.instrumentBags.empty()) ReadTable(body, 4, out.instrumentBags, bag);
      else if (id == FourCC("pmod") && out.presetModulators.empty()) ReadTable(body, 10, out.presetModulators, modulator);
      else if (id == FourCC("imod") && out.instrumentModulators.empty()) ReadTable(body, 10, out.instrumentModulators, modulator);
      else if (id == FourCC("pgen") && out.presetGenerators.empty()) ReadTable(body, 4, out.presetGenerators, generator);
      else if (id == FourCC("igen") && out.instrumentGenerators.empty()) ReadTable(body, 4, out.instrumentGenerators, generator);
      else if (id == FourCC("inst") && out.instruments.empty()) {
        ReadTable(body, 22, out.instruments, [](ByteReader& r) {
          SfInstrumentHeader h;
          h.name = FieldName(r, 20);
          h.firstBag = r.U16();
          return h;
        });
      } else if (id == FourCC("shdr") && out.samples.empty()) {
        if (out.versionMajor == 1) {
          // Version 1: start, end, loop start, loop end; names in snam; rate and key fixed.
          ReadTable(body, 16, out.samples, [](ByteReader& r) {
            SfSampleHeader s;
            s.start = r.U32(); s.end = r.U32(); s.startLoop = r.U32(); s.endLoop = r.U32();
            s.rate = 44100;
            return s;
          });
        } else {
          ReadTable(body, 46, out.samples, [](ByteReader& r) {
            SfSampleHeader s;
            s.name = FieldName(r, 20);
            s.start = r.U32(); s.end = r.U32(); s.startLoop = r.U32(); s.endLoop = r.U32();
            s.rate = r.U32(); s.pitch = r.U8(); s.correction = r.I8(); s.link = r.U16(); s.type = r.U16();
            return s;
          });
        }
      }
    }
  }
  if (!sawInfo) return Fail(out.packed ? "Not a SoundFont2 file" : "Not a Sound Font v2.x file");
  if (out.versionMajor == 1) {
    // The last record of snam-less tables is the terminator; the names come from snam by index.
    for (size_t i = 0; i < out.samples.size(); ++i) {
      if (snam.size() >= (i + 1) * 20) {
        ByteReader r(snam.data() + i * 20, 20);
        out.samples[i].name = FieldName(r, 20);
      } else if (i + 1 == out.samples.size()) {
        out.samples[i].name = "EOS";
      }
    }
  }
  out.compressed = out.versionMajor == 3;
  if (out.compressed || out.versionMajor == 1) out.sample24Offset = 0;
  return true;
}

Waveform* ReadOneSample(Collection* collection, FileObject* file, uint32_t index, const SfSampleHeader& header,
                        const SoundFontFile& bank, const std::string& romSource) {
  if (header.end <= header.start) return nullptr;
  const bool compressed = bank.compressed && (header.type & kTypeCompressed);
  if (!compressed && !bank.packed && uint64_t(header.end) > bank.sampleCount) return nullptr;
  auto* wave = new Waveform(collection);
  wave->SetNameNarrow(header.name);
  wave->sampleRate = header.rate ? header.rate : 44100;
  wave->channels = 1;
  wave->fineTune = header.correction;
  if (header.pitch > 254) {
    wave->rootKey = 60;
    wave->interfaceState[1] |= kSfUnpitched;
  } else {
    wave->rootKey = std::min<uint8_t>(header.pitch, 127);
  }
  if (compressed) {
    // Each sample is a whole Ogg or FLAC stream; offsets count bytes and loops are already relative.
    wave->sourceOffset = bank.sampleDataOffset + header.start;
    wave->sourceOffsetB = bank.sampleDataOffset + header.end;
    uint32_t frames = 0, rate = 0;
    if (!file || wave->sourceOffsetB > bank.sampleDataOffset + bank.sampleBytes ||
        !ProbeCompressedSample(*file, wave->sourceOffset, wave->sourceOffsetB, frames, rate)) {
      delete wave;
      return nullptr;
    }
    wave->length = frames;
    wave->sampleRate = rate;
    wave->bits = 16;
    wave->decoder = &DecodeCompressedSample;
    if (header.endLoop > header.startLoop) {
      wave->loop.start = float(header.startLoop);
      wave->loop.end = float(header.endLoop);
    }
  } else if (bank.packed) {
    wave->length = header.end - header.start;
    wave->sourceOffset = bank.sampleDataOffset;
    wave->sourceOffsetB = header.start;
    wave->bits = 16;
    wave->decoder = &DecodePackedSample;
    if (header.endLoop > header.startLoop) {
      wave->loop.start = float(int64_t(header.startLoop) - int64_t(header.start));
      wave->loop.end = float(int64_t(header.endLoop) - int64_t(header.start));
    }
  } else {
    wave->length = header.end - header.start;
    wave->sourceOffset = bank.sampleDataOffset + 2ull * header.start;
    if (header.endLoop > header.startLoop) {
      wave->loop.start = float(int64_t(header.startLoop) - int64_t(header.start));
      wave->loop.end = float(int64_t(header.endLoop) - int64_t(header.start));
    }
    if (bank.sample24Offset) {
      wave->SetPcmSourceByFormat(kStoragePcm24, 0);
      wave->sourceOffsetB = bank.sample24Offset + header.start;
      wave->decoder = &DecodeSample24;
    } else {
      wave->SetPcmSourceByFormat(kStoragePcm16, 0);
    }
  }
  if (!romSource.empty()) wave->SetText(kTextSourceFile, romSource);
  wave->interfaceState[0] = index;
  return wave;
}

namespace {

struct ReadState {
  Collection* collection;
  FileObject* file;
  SoundFontFile bank;
  std::vector<Waveform*> waves;  // by shdr index; null where missing or skipped
  // Stereo pairs seen in this preset: sample index -> the layer its region went to.
  std::map<uint32_t, uint32_t> pairLayers;
};

void ApplyGenerators(const std::vector<SfGenerator>& gens, size_t first, size_t last, ZoneGenerators& g,
                     bool& hasKey, int& loKey, int& hiKey, int& loVel, int& hiVel, int& link, uint16_t linkOp) {
  for (size_t i = first; i < last && i < gens.size(); ++i) {
    const SfGenerator& gen = gens[i];
    if (gen.op >= kSfGeneratorCount) continue;
    if (gen.op == kGenKeyRange) {
      loKey = uint16_t(gen.amount) & 0xFF, hiKey = uint16_t(gen.amount) >> 8;
      hasKey = true;
    } else if (gen.op == kGenVelocityRange) {
      loVel = uint16_t(gen.amount) & 0xFF, hiVel = uint16_t(gen.amount) >> 8;
    } else if (gen.op == linkOp) {
      link = uint16_t(gen.amount);
    }
    g[gen.op] = gen.amount;
  }
}

void ApplyModulators(const std::vector<SfModulator>& mods, size_t first, size_t last, ZoneModulators& m) {
  for (size_t i = first; i < last && i < mods.size(); ++i) {
    int16_t amount = 0;
    const int slot = ModulatorSlot(mods[i], amount);
    if (slot >= 0) m[size_t(slot)] = amount;
  }
}

// A zone's key, velocity and arrays after applying its bag on top of the level's defaults.
struct Zone {
  ZoneGenerators g;
  ZoneModulators m;
  int loKey = 0, hiKey = 127, loVel = 0, hiVel = 127;
  int link = -1;  // instrument or sample index
};

Zone ReadZone(const std::vector<SfBag>& bags, size_t bagIndex, const std::vector<SfGenerator>& gens,
              const std::vector<SfModulator>& mods, const Zone& defaults, uint16_t linkOp) {
  Zone zone = defaults;
  zone.link = -1;
  const SfBag& bag = bags[bagIndex];
  const size_t genEnd = bagIndex + 1 < bags.size() ? bags[bagIndex + 1].firstGenerator : gens.size();
  const size_t modEnd = bagIndex + 1 < bags.size() ? bags[bagIndex + 1].firstModulator : mods.size();
  bool hasKey = false;
  ApplyGenerators(gens, bag.firstGenerator, genEnd, zone.g, hasKey, zone.loKey, zone.hiKey, zone.loVel, zone.hiVel,
                  zone.link, linkOp);
  ApplyModulators(mods, bag.firstModulator, modEnd, zone.m);
  return zone;
}

Layer* NewLayer(Instrument* instrument, const Layer* copyFrom) {
  auto* layer = new Layer(instrument->collection);
  if (copyFrom) {
    layer->articulation = copyFrom->articulation;
    layer->range = copyFrom->range;
    layer->drumFlag = copyFrom->drumFlag;
  }
  layer->parentId = instrument->id;
  instrument->children.push_back(layer->id);
  return layer;
}

void PlaceRegion(ReadState& state, Instrument* instrument, LayerPlacer& placer, Layer*& current, const Zone& preset,
                 const Zone& inst) {
  const int loKey = std::max(preset.loKey, inst.loKey), hiKey = std::min(preset.hiKey, inst.hiKey);
  const int loVel = std::max(preset.loVel, inst.loVel), hiVel = std::min(preset.hiVel, inst.hiVel);
  if (loKey > hiKey || loVel > hiVel) return;  // the two ranges do not meet
  const uint32_t sampleIndex = uint32_t(inst.link);
  if (sampleIndex >= state.waves.size() || !state.waves[sampleIndex]) return;
  Waveform* wave = state.waves[sampleIndex];
  const SfSampleHeader& header = state.bank.samples[sampleIndex];
  const uint32_t keyRange = PackRange(loKey, std::min(hiKey, 127));
  const uint32_t velocityRange = PackRange(loVel, std::min(hiVel, 127));

  Layer* layer = nullptr;
  const bool stereo = header.type & (kTypeLeft | kTypeRight);
  if (stereo) {
    // The second member of a pair joins its partner's layer when it fits there.
    auto partner = state.pairLayers.find(header.link);
    if (partner != state.pairLayers.end()) {
      Layer* partnerLayer = state.collection->Find<Layer>(partner->second);
      if (partnerLayer && partnerLayer->parentId == instrument->id && !placer.Overlaps(*partnerLayer, keyRange, velocityRange))
        layer = partnerLayer;
    }
  }
  if (!layer) {
    if (!current) current = NewLayer(instrument, nullptr);
    if (placer.Overlaps(*current, keyRange, velocityRange)) current = NewLayer(instrument, current);
    layer = current;
  }
  placer.Occupy(*layer, keyRange, velocityRange);
  if (stereo) state.pairLayers[sampleIndex] = layer->id;

  auto* region = new Region(state.collection, MakeId(ItemType::Region, kNextFreeIndex), wave->id, keyRange,
                            velocityRange, -1);
  region->parentId = layer->id;
  layer->children.push_back(region->id);

  ZoneGenerators g;
  ZoneModulators m;
  for (int i = 0; i < kSfGeneratorCount; ++i) g[size_t(i)] = int16_t(std::clamp(inst.g[size_t(i)] + preset.g[size_t(i)], -32768, 32767));
  for (int i = 0; i < kSfModulatorSlots; ++i) m[size_t(i)] = int16_t(std::clamp(inst.m[size_t(i)] + preset.m[size_t(i)], -32768, 32767));
  // Ranges, sample, modes, class and root key are instrument-only; the preset adds nothing to them.
  const int exclusiveClass = inst.g[kGenExclusiveClass];
  if (exclusiveClass > 0) region->SetParam(kParamKeyGroup, float(exclusiveClass));
  const int rootOverride = inst.g[kGenRootKey];
  if (rootOverride >= 0 && rootOverride < 128) {
    region->rootKey = uint8_t(rootOverride);
    region->overrideFlags |= Region::kOverrideRoot;
  }
  // Offsets: fine generator plus the coarse one in 32768-sample steps.
  region->startOffset = g[0] + g[4] * 32768;
  region->endOffset = g[1] + g[12] * 32768;
  const int loopStartShift = g[2] + g[45] * 32768, loopEndShift = g[3] + g[50] * 32768;
  if (loopStartShift || loopEndShift) {
    region->loop.start = float(std::lround(wave->loop.start) + loopStartShift);
    region->loop.end = float(std::lround(wave->loop.end == kLoopEndUnset ? 0 : wave->loop.end) + loopEndShift);
    region->overrideFlags |= Region::kOverrideLoopStart | Region::kOverrideLoopEnd;
  }
  const bool waveHasLoop = wave->loop.end != kLoopEndUnset && wave->loop.end > wave->loop.start;
  switch (inst.g[kGenSampleModes] & 3) {
    case 1:
    case 3:
      if (wave->loop.type == 0 && waveHasLoop) wave->loop.type = 1;
      if ((inst.g[kGenSampleModes] & 3) == 3) {
        region->loop.release = 1;
        region->overrideFlags |= Region::kOverrideLoopRelease;
      }
      break;
    default:  // 0 and 2: the zone plays without its loop
      region->loop.type = 0;
      region->overrideFlags |= Region::kOverrideLoopType;
      break;
  }
  // The members of a linked pair keep the pan their zones give them, as players sound them; a pair
  // panned hard left and right is what the stereo normaliser joins into one stereo wave.
  ZoneToArticulation(g, m, region->articulation);
}

// Forged banks may point bags and zones backwards so that ranges overlap and one table entry is
// walked again and again; the standard has them rising, and a range that runs backwards is empty.
template <typename Record, typename Field>
void MakeRising(std::vector<Record>& records, Field field) {
  for (size_t i = 1; i < records.size(); ++i) records[i].*field = std::max(records[i].*field, records[i - 1].*field);
}

// The regions and generator reads the preset × instrument walk will make, counted before any item
// exists, against what the bank's own zones can justify: a region stands for a pair of zones, and real
// banks reuse an instrument in a handful of presets, not in thousands.
bool WithinBudget(const SoundFontFile& bank) {
  constexpr uint64_t kRegionsPerZone = 4, kRegionFloor = 16384;
  constexpr uint64_t kReadsPerTableEntry = 64, kReadFloor = 1u << 22;
  const uint64_t zones = bank.presetBags.size() + bank.instrumentBags.size();
  const uint64_t regionBudget = kRegionsPerZone * zones + kRegionFloor;
  const uint64_t readBudget =
      kReadsPerTableEntry * (zones + bank.presetGenerators.size() + bank.instrumentGenerators.size()) + kReadFloor;
  auto bagEnd = [](const auto& headers, size_t index, size_t bagCount) {
    return std::min<size_t>(headers[index + 1].firstBag, bagCount);
  };
  auto generatorsOf = [](const std::vector<SfBag>& bags, size_t bag, size_t generatorCount) -> uint64_t {
    const size_t first = bags[bag].firstGenerator;
    const size_t last = bag + 1 < bags.size() ? bags[bag + 1].firstGenerator : generatorCount;
    return last > first ? std::min(last, generatorCount) - std::min(first, generatorCount) : 0;
  };
  // Per instrument: its zones and the generators a walk over them reads.
  std::vector<uint64_t> instrumentZones(bank.instruments.size(), 0), instrumentReads(bank.instruments.size(), 0);
  for (size_t i = 0; i + 1 < bank.instruments.size(); ++i)
    for (size_t b = bank.instruments[i].firstBag; b < bagEnd(bank.instruments, i, bank.instrumentBags.size()); ++b) {
      ++instrumentZones[i];
      instrumentReads[i] += 1 + generatorsOf(bank.instrumentBags, b, bank.instrumentGenerators.size());
    }
  uint64_t regions = 0, reads = 0;
  for (size_t p = 0; p + 1 < bank.presets.size(); ++p) {
    for (size_t b = bank.presets[p].firstBag; b < bagEnd(bank.presets, p, bank.presetBags.size()); ++b) {
      reads += 1 + generatorsOf(bank.presetBags, b, bank.presetGenerators.size());
      // The zone's instrument: the last instrument generator of its range, as ReadZone takes it.
      const size_t first = bank.presetBags[b].firstGenerator;
      const size_t last = b + 1 < bank.presetBags.size() ? bank.presetBags[b + 1].firstGenerator
                                                         : bank.presetGenerators.size();
      int64_t link = -1;
      for (size_t g = first; g < last && g < bank.presetGenerators.size(); ++g)
        if (bank.presetGenerators[g].op == kGenInstrument) link = uint16_t(bank.presetGenerators[g].amount);
      if (link < 0 || size_t(link) + 1 >= bank.instruments.size()) continue;
      regions += instrumentZones[size_t(link)];
      reads += instrumentReads[size_t(link)];
    }
  }
  if (regions > regionBudget) {
    SetLastError("Too many regions (" + std::to_string(regions) + ") for this file");
    return false;
  }
  if (reads > readBudget) {
    SetLastError("Too many zone generators (" + std::to_string(reads) + ") for this file");
    return false;
  }
  return true;
}

void ReadPresets(ReadState& state) {
  const SoundFontFile& bank = state.bank;
  Zone start;
  start.g = DefaultZoneGenerators();
  start.m = DefaultZoneModulators();
  Zone presetStart;
  presetStart.g.fill(0);
  presetStart.m.fill(0);
  if (bank.presets.empty()) return;
  for (size_t p = 0; p + 1 < bank.presets.size(); ++p) {
    const SfPresetHeader& header = bank.presets[p];
    if (header.name == "EOP") break;
    auto* instrument = new Instrument(state.collection);
    instrument->SetNameNarrow(header.name);
    const bool drum = header.bank == 128;
    instrument->SetPatch(header.bank & 0x7F, 0, header.preset & 0x7F, drum);
    state.pairLayers.clear();
    Layer* current = nullptr;
    LayerPlacer placer(*instrument);
    const size_t bagEnd = std::min<size_t>(bank.presets[p + 1].firstBag, bank.presetBags.size());
    Zone presetGlobal = presetStart;
    for (size_t b = header.firstBag; b < bagEnd; ++b) {
      const Zone presetZone = ReadZone(bank.presetBags, b, bank.presetGenerators, bank.presetModulators, presetGlobal,
                                       kGenInstrument);
      if (presetZone.link < 0) {
        if (b == header.firstBag) presetGlobal = presetZone;
        continue;
      }
      const size_t instIndex = size_t(presetZone.link);
      if (instIndex + 1 >= bank.instruments.size()) continue;
      const SfInstrumentHeader& inst = bank.instruments[instIndex];
      if (inst.name == "EOI") continue;
      const size_t instBagEnd = std::min<size_t>(bank.instruments[instIndex + 1].firstBag, bank.instrumentBags.size());
      Zone instGlobal = start;
      for (size_t ib = inst.firstBag; ib < instBagEnd; ++ib) {
        const Zone instZone = ReadZone(bank.instrumentBags, ib, bank.instrumentGenerators, bank.instrumentModulators,
                                       instGlobal, kGenSampleId);
        if (instZone.link < 0) {
          if (ib == inst.firstBag) instGlobal = instZone;
          continue;
        }
        PlaceRegion(state, instrument, placer, current, presetZone, instZone);
      }
    }
  }
}

}  // namespace

bool ReadSoundFont(Collection* collection, FileObject* file, uint32_t) {
  ReadState state{collection, file, {}, {}, {}};
  if (!ReadSoundFontTables(*file, state.bank)) return false;
  SoundFontFile& bank = state.bank;
  MakeRising(bank.presets, &SfPresetHeader::firstBag);
  MakeRising(bank.instruments, &SfInstrumentHeader::firstBag);
  MakeRising(bank.presetBags, &SfBag::firstGenerator);
  MakeRising(bank.presetBags, &SfBag::firstModulator);
  MakeRising(bank.instrumentBags, &SfBag::firstGenerator);
  MakeRising(bank.instrumentBags, &SfBag::firstModulator);
  if (!WithinBudget(bank)) return false;
  if (!bank.bankName.empty()) collection->SetNameNarrow(bank.bankName);
  if (!bank.engineer.empty()) collection->SetText(kTextEngineer, bank.engineer);
  if (!bank.copyright.empty()) collection->SetText(kTextCopyright, bank.copyright);
  if (!bank.comment.empty()) collection->SetText(kTextComments, bank.comment);
  if (!bank.product.empty()) collection->SetText(kTextProduct, bank.product);

  // Samples in shdr order until the terminator.
  state.waves.assign(bank.samples.size(), nullptr);
  bool romAsked = false, romUse = false;
  SoundFontFile romBank;
  FileObject romFile;
  std::string romPath;
  for (size_t i = 0; i < bank.samples.size(); ++i) {
    SfSampleHeader& header = bank.samples[i];
    if (header.name == "EOS" || i + 1 == bank.samples.size()) break;  // the last record ends the table
    if (header.type & kTypeRight || header.type & kTypeLeft) ++bank.stereoPairs;
    if (header.type & kTypeRom) {
      if (!romAsked) {
        romAsked = true;
        const int answer = Ui().Ask("Question",
                                    "This SoundFont references ROM waveforms.\n\nWould you like to skip these, or load "
                                    "them from \"1mgm.sf2\"?\n(i.e. the AWE32 ROM equivalent from the SB Live-drivers)",
                                    {"Skip", "Use 1mgm.sf2"});
        if (answer == 1) {
          romPath = "1mgm.sf2";
          if (!std::filesystem::exists(romPath) && !Ui().LocateFile("Please locate 1mgm.sf2", "*.sf2", romPath))
            romPath.clear();
          if (!romPath.empty()) {
            if (romFile.Open(romPath, FileMode::Read) && ReadSoundFontTables(romFile, romBank)) {
              romUse = true;
            } else {
              Ui().Warn("Error!", "Invalid 1mgm.sf2 - skipping ROM");
            }
          }
        }
      }
      if (!romUse) continue;
      // The offsets count from the ROM bank's sample data, 846 bytes past the start of its smpl.
      SoundFontFile view = romBank;
      view.sampleDataOffset = romBank.sampleDataOffset;
      Waveform* wave = ReadOneSample(collection, &romFile, uint32_t(i), header, view,
                                     std::filesystem::absolute(romPath).string());
      state.waves[i] = wave;
      continue;
    }
    state.waves[i] = ReadOneSample(collection, file, uint32_t(i), header, bank, std::string());
  }
  ReadPresets(state);
  return true;
}

}  // namespace orlin
