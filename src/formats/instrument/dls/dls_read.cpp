// Reading DLS banks. The walk is recursive: every LIST is followed into, so that banks nested in other
// forms (RIFF-MIDI, MLS, GigaStudio) read alike. Waves are found through the pool cue table, whose
// offsets count from the first byte after "wvpl"; without one the table index is taken as a wave
// number. Region wsmp chunks override the wave's root, tune, gain and loop for that region only, and a
// region wsmp without loops plays the wave unlooped.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/text.h"
#include "core/user_interface.h"
#include "formats/audio/wav.h"
#include "formats/common/riff.h"
#include "formats/instrument/dls/dls.h"

namespace orlin {

namespace {

constexpr ParamId kKeyGroup = 202, kNoteExclusion = 203;
constexpr uint32_t kDrumBit = 0x80000000u;
// Deeper nesting than any real bank has: a forged file cannot recurse for ever.
constexpr int kMaxDepth = 16;
// Bytes of a chunk body we read into memory at most (connection lists, wsmp, 3lnk, INFO text).
constexpr uint64_t kMaxBodyBytes = 1u << 20;

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

struct ParseState {
  Collection* collection = nullptr;
  FileObject* file = nullptr;
  DlsBank* bank = nullptr;
  DlsInstrument* instrument = nullptr;
  DlsRegion* region = nullptr;
  std::vector<DlsConnection>* connections = nullptr;  // the articulation list being read
  bool inDimensionList = false;                       // GigaStudio 3ewl: one dimension region
};

std::string InfoString(const std::vector<uint8_t>& body) {
  std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
  return NarrowToUtf8(text.substr(0, text.find('\0')));
}

void ReadInfo(ParseState& state, RiffCursor& list) {
  std::vector<uint8_t> body;
  std::string name, artist, comments, copyright, engineer, product, source;
  while (list.Step()) {
    if (!list.ReadBody(body, kMaxBodyBytes)) break;
    const std::string text = InfoString(body);
    if (text.empty()) continue;
    switch (list.id) {
      case FourCC("INAM"): name = text; break;
      case FourCC("IART"): artist = text; break;
      case FourCC("ICMT"): comments = text; break;
      case FourCC("ICOP"): copyright = text; break;
      case FourCC("IENG"): engineer = text; break;
      case FourCC("IPRD"): product = text; break;
      case FourCC("ISRC"): source = text; break;
      default: break;
    }
  }
  if (product.empty()) product = source;  // ISRC stands in only for a missing product
  if (state.region) return;                // region names are generated
  if (state.instrument) {
    DlsInstrument& ins = *state.instrument;
    if (!name.empty()) ins.name = name;
    if (!artist.empty()) ins.artist = artist;
    if (!comments.empty()) ins.comments = comments;
    if (!copyright.empty()) ins.copyright = copyright;
    if (!engineer.empty()) ins.engineer = engineer;
    if (!product.empty()) ins.product = product;
    return;
  }
  Collection& c = *state.collection;
  if (!name.empty()) c.SetName(name);
  if (!artist.empty()) c.SetText(kTextArtist, artist);
  if (!comments.empty()) c.SetText(kTextComments, comments);
  if (!copyright.empty()) c.SetText(kTextCopyright, copyright);
  if (!engineer.empty()) c.SetText(kTextEngineer, engineer);
  if (!product.empty() && c.GetText(kTextProduct).empty()) c.SetText(kTextProduct, product);
}

void ReadConnections(ParseState& state, const std::vector<uint8_t>& body) {
  if (!state.connections) return;
  ByteReader reader(body);
  const uint32_t headBytes = reader.U32();
  const uint32_t count = reader.U32();
  if (reader.Failed() || headBytes < 8 || !reader.Seek(headBytes)) return;
  for (uint32_t i = 0; i < count && reader.CanRead(12); ++i) {
    DlsConnection block;
    block.source = reader.U16();
    block.control = reader.U16();
    block.destination = reader.U16();
    block.transform = reader.U16();
    block.scale = reader.I32();
    state.connections->push_back(block);
  }
  if (state.region) state.region->hasConnections = true;
}

// The wave's own wsmp again, with the tune folded the way the rest of the bank reads it.
void ApplyWaveSample(Waveform& wave, const DlsSampleInfo& info) {
  if (!info.present) return;
  int note = info.unityNote < 128 ? info.unityNote : wave.rootKey;
  int fine = info.fineTune;
  FoldFineTune(note, fine);
  wave.rootKey = uint8_t(note);
  wave.fineTune = int8_t(fine);
  wave.gain = float(info.attenuation * 1.5258789e-6);
  if (info.loopCount >= 1 && info.loopLength > 0) {
    wave.loop.type = 1;
    wave.loop.release = info.loopType == 1 ? 1 : 0;
    wave.loop.start = float(info.loopStart);
    wave.loop.end = float(uint64_t(info.loopStart) + info.loopLength);
  } else {
    wave.loop = LoopInfo();
  }
}

void ReadWave(ParseState& state, uint64_t head, uint64_t end) {
  DlsBank& bank = *state.bank;
  const size_t number = bank.waves.size();
  Waveform* wave = ReadEmbeddedWave(state.collection, *state.file, head, end, "");
  if (wave) {
    if (wave->GetName().empty() || wave->GetName() == wave->GetText(kTextSourceFile)) {
      char name[32];
      std::snprintf(name, sizeof name, "Wave %zu", number);
      wave->SetName(name);
    }
    RiffCursor walk;
    std::vector<uint8_t> body;
    if (walk.Open(*state.file, head, end))
      while (walk.Step())
        if (walk.id == FourCC("wsmp") && walk.ReadBody(body, kMaxBodyBytes)) {
          ApplyWaveSample(*wave, ParseWaveSample(body.data(), body.size()));
          break;
        }
  }
  bank.waves.push_back(wave);  // a wave that cannot be read leaves its slot empty
  bank.waveOffsets.push_back(head - bank.wavePoolBody);
}

void Walk(ParseState& state, RiffCursor& cursor, int depth);

void WalkList(ParseState& state, uint64_t head, uint64_t limit, int depth) {
  RiffCursor list;
  if (depth > kMaxDepth || !list.Open(*state.file, head, limit)) return;
  DlsBank& bank = *state.bank;
  const uint32_t form = list.form;
  if (form == FourCC("INFO")) {
    ReadInfo(state, list);
  } else if (form == FourCC("ins ")) {
    bank.instruments.emplace_back();
    state.instrument = &bank.instruments.back();
    state.connections = nullptr;
    Walk(state, list, depth + 1);
    state.instrument = nullptr;
  } else if (form == FourCC("rgn ") || form == FourCC("rgn2")) {
    if (!state.instrument) return;
    state.instrument->regions.emplace_back();
    state.region = &state.instrument->regions.back();
    Walk(state, list, depth + 1);
    state.region = nullptr;
  } else if (form == FourCC("lart") || form == FourCC("lar2")) {
    std::vector<DlsConnection>* saved = state.connections;
    state.connections = state.region       ? &state.region->connections
                        : state.instrument ? &state.instrument->connections
                                           : &bank.globalConnections;
    Walk(state, list, depth + 1);
    state.connections = saved;
  } else if (form == FourCC("wvpl")) {
    bank.haveWavePool = true;
    bank.wavePoolBody = head + 12;
    Walk(state, list, depth + 1);
  } else if (form == FourCC("wave")) {
    ReadWave(state, head, list.limit);
  } else if (form == FourCC("lRMI")) {
    // Songs stored in an MLS bank: each a whole RMID form.
    while (list.Step())
      if (list.id == FourCC("RIFF")) ReadRmiAt(state.collection, *state.file, list.position - 8, list.limit);
  } else if (form == FourCC("3ewl")) {
    if (!state.region) return;
    state.region->gigExtensions.emplace_back();
    state.region->gigSamples.emplace_back();
    state.inDimensionList = true;
    Walk(state, list, depth + 1);
    state.inDimensionList = false;
  } else {
    Walk(state, list, depth + 1);
  }
}

void ReadRegionHeader(DlsRegion& region, const std::vector<uint8_t>& body) {
  ByteReader reader(body);
  region.loKey = reader.U16();
  region.hiKey = reader.U16();
  region.loVelocity = reader.U16();
  region.hiVelocity = reader.U16();
  region.options = reader.U16();
  region.keyGroup = reader.U16();
  if (body.size() >= 14) region.layer = reader.U16();
  if (region.loVelocity == 0 && region.hiVelocity == 0) region.hiVelocity = 127;  // level-1 writers leave it empty
}

void Walk(ParseState& state, RiffCursor& cursor, int depth) {
  std::vector<uint8_t> body;
  while (cursor.Step()) {
    const uint32_t id = cursor.id;
    if (id == FourCC("LIST")) {
      WalkList(state, cursor.position - 8, cursor.limit, depth);
      continue;
    }
    if (id == FourCC("ptbl")) {
      state.bank->poolTableOffset = cursor.position - 8;
      continue;
    }
    const bool wanted = id == FourCC("insh") || id == FourCC("rgnh") || id == FourCC("wlnk") || id == FourCC("wsmp") ||
                        id == FourCC("art1") || id == FourCC("art2") || id == FourCC("3lnk") || id == FourCC("3ewa");
    if (!wanted || !cursor.ReadBody(body, kMaxBodyBytes)) continue;
    ByteReader reader(body);
    DlsRegion* region = state.region;
    if (id == FourCC("insh") && state.instrument) {
      state.instrument->regionCount = reader.U32();
      state.instrument->bank = reader.U32();
      state.instrument->program = reader.U32();
    } else if (id == FourCC("rgnh") && region) {
      ReadRegionHeader(*region, body);
    } else if (id == FourCC("wlnk") && region) {
      const uint16_t options = reader.U16();
      const uint16_t phaseGroup = reader.U16();
      const uint32_t channel = reader.U32();
      const uint32_t index = reader.U32();
      if (reader.Failed()) continue;
      if (state.inDimensionList) {
        region->gigTableIndices.push_back(index);
        continue;
      }
      region->linkOptions = options;
      region->phaseGroup = phaseGroup;
      region->channel = channel;
      region->tableIndex = index;
    } else if (id == FourCC("wsmp") && region) {
      if (state.inDimensionList && !region->gigSamples.empty()) region->gigSamples.back() = ParseWaveSample(body.data(), body.size());
      else region->sample = ParseWaveSample(body.data(), body.size());
    } else if (id == FourCC("art1") || id == FourCC("art2")) {
      ReadConnections(state, body);
    } else if (id == FourCC("3lnk") && region) {
      region->gigLink = body;
    } else if (id == FourCC("3ewa") && region && state.inDimensionList && !region->gigExtensions.empty()) {
      region->gigExtensions.back() = body;
    }
  }
}

}  // namespace

void FoldFineTune(int& note, int& fineTuneCents) {
  if (fineTuneCents > 100 || fineTuneCents < -100) {
    while (fineTuneCents > 50) fineTuneCents -= 100, --note;
    while (fineTuneCents < -50) fineTuneCents += 100, ++note;
  }
  note = std::clamp(note, 0, 127);
}

DlsSampleInfo ParseWaveSample(const uint8_t* data, size_t size) {
  DlsSampleInfo info;
  ByteReader reader(data, size);
  const uint32_t headBytes = reader.U32();
  info.unityNote = reader.U16();
  info.fineTune = reader.I16();
  info.attenuation = reader.I32();
  info.options = reader.U32();
  info.loopCount = reader.U32();
  if (reader.Failed()) return info;
  info.present = true;
  // The loop record stands behind a head of cbSize bytes; well-formed files say 20.
  if (info.loopCount >= 1 && headBytes >= 20 && reader.Seek(headBytes)) {
    reader.U32();  // record size
    info.loopType = reader.U32();
    info.loopStart = reader.U32();
    info.loopLength = reader.U32();
    if (reader.Failed()) info.loopCount = 0;
  } else {
    info.loopCount = 0;
  }
  return info;
}

int32_t DetectDls(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (headBytes < 12 || std::memcmp(head, "RIFF", 4) != 0) return 0;
  return std::memcmp(head + 8, "DLS ", 4) == 0 || std::memcmp(head + 8, "MLS ", 4) == 0 ? 6 : 0;
}

bool ParseDlsBank(Collection* collection, FileObject& file, uint64_t startOffset, uint64_t endOffset, DlsBank& bank) {
  RiffCursor cursor;
  if (!cursor.Open(file, startOffset, endOffset) || cursor.tag != FourCC("RIFF") ||
      (cursor.form != FourCC("DLS ") && cursor.form != FourCC("MLS ")))
    return Fail("Not a RIFF DLS file");
  ParseState state;
  state.collection = collection;
  state.file = &file;
  state.bank = &bank;
  Walk(state, cursor, 0);
  return true;
}

bool ReadDlsCueTable(FileObject& file, const DlsBank& bank, uint64_t fileEnd, bool embedded,
                     std::vector<uint32_t>& cues, bool& haveCues) {
  haveCues = false;
  cues.clear();
  if (!bank.poolTableOffset || (!embedded && bank.poolTableOffset + 16 > fileEnd)) return true;
  uint8_t head[16];
  if (!file.ReadAt(bank.poolTableOffset, head, sizeof head)) return Fail("Could not read pool cue table");
  ByteReader reader(head, sizeof head);
  reader.Skip(4);
  const uint32_t chunkBytes = reader.U32();
  const uint32_t headBytes = reader.U32();
  const uint32_t count = reader.U32();
  const uint64_t tableAt = bank.poolTableOffset + 8 + headBytes;
  if (uint64_t(count) * 4 + headBytes > chunkBytes) return Fail("Could not read pool cue table");
  // GigaStudio v3 tables hold 8 bytes an entry: an extension file number, then the offset.
  const bool wide = uint64_t(chunkBytes) - headBytes == uint64_t(count) * 8;
  const size_t entryBytes = wide ? 8 : 4;
  if (fileEnd && tableAt + uint64_t(count) * entryBytes > fileEnd) return Fail("Could not read pool cue table");
  std::vector<uint8_t> table(size_t(count) * entryBytes);
  if (count && !file.ReadAt(tableAt, table.data(), table.size())) return Fail("Could not read pool cue table");
  ByteReader entries(table);
  for (uint32_t i = 0; i < count; ++i) {
    if (wide) entries.U32();
    cues.push_back(entries.U32());
  }
  haveCues = true;
  return true;
}

Waveform* ResolveDlsWave(const DlsBank& bank, const std::vector<uint32_t>& cues, bool haveCues, uint32_t index,
                         bool& warnedCue, bool& warnedWave) {
  if (!haveCues) return index < bank.waves.size() ? bank.waves[index] : nullptr;
  if (index >= cues.size()) {
    if (!warnedCue) Ui().Warn("Warning", "Missing cue");
    warnedCue = true;
    return nullptr;
  }
  for (size_t w = 0; w < bank.waves.size(); ++w)
    if (bank.waveOffsets[w] == cues[index] && bank.waves[w]) return bank.waves[w];
  if (!warnedWave) Ui().Warn("Warning", "Missing wave");
  warnedWave = true;
  return nullptr;
}

void ApplyRegionSample(Region& region, const Waveform& wave, const DlsSampleInfo& sample, float& tuneOffset,
                       float& gainOffset) {
  if (!sample.present) return;
  int note = sample.unityNote < 128 ? sample.unityNote : wave.rootKey;
  int fine = sample.fineTune;
  FoldFineTune(note, fine);
  if (note != wave.rootKey) {
    region.rootKey = uint8_t(note);
    region.overrideFlags |= Region::kOverrideRoot;
  }
  tuneOffset = (fine - wave.fineTune) * 0.01f;
  const float gain = float(sample.attenuation * 1.5258789e-6);
  if (std::fabs(gain - wave.gain) > 0.005f) gainOffset = gain - wave.gain;
  const bool looped = sample.loopCount >= 1 && sample.loopLength > 0;
  if (!looped) {
    region.loop.type = 0;
    region.overrideFlags |= Region::kOverrideLoopType;
    return;
  }
  const float start = float(sample.loopStart), end = float(uint64_t(sample.loopStart) + sample.loopLength);
  if (wave.loop.type == 0 || start != wave.loop.start || end != wave.loop.end) {
    region.loop.type = 1;
    region.loop.start = start;
    region.loop.end = end;
    region.overrideFlags |= Region::kOverrideLoopType | Region::kOverrideLoopStart | Region::kOverrideLoopEnd;
  }
  const uint8_t release = sample.loopType == 1 ? 1 : 0;
  if (release != wave.loop.release) {
    region.loop.release = release;
    region.overrideFlags |= Region::kOverrideLoopRelease;
  }
}

bool ReadDlsBank(Collection* collection, FileObject& file, uint64_t startOffset, uint64_t endOffset, bool embedded) {
  DlsBank bank;
  if (!ParseDlsBank(collection, file, startOffset, endOffset, bank)) return false;
  std::vector<uint32_t> cues;
  bool haveCues = false;
  const int64_t fileSize = file.Size();
  if (!ReadDlsCueTable(file, bank, fileSize > 0 ? uint64_t(fileSize) : 0, embedded, cues, haveCues)) return false;
  if (!haveCues && !bank.instruments.empty())
    Ui().Warn("Warning",
              "DLS parser warning: Mandatory 'ptbl' chunk is missing, will attempt to read file anyway, but may not be "
              "correct!");

  for (const DlsInstrument& source : bank.instruments) {
    auto* instrument = new Instrument(collection);
    const bool drum = source.bank & kDrumBit;
    const int major = (source.bank >> 8) & 0x7F, minor = source.bank & 0x7F;
    instrument->SetPatch(major, minor, int(source.program & 0x7F), drum);
    if (!source.name.empty()) {
      instrument->SetName(source.name);
    } else {
      char name[64];
      std::snprintf(name, sizeof name, "%s %d-%d: %d", drum ? "Drums" : "Instrument", major, minor,
                    int(source.program & 0x7F));
      instrument->SetName(name);
    }
    if (!source.artist.empty()) instrument->SetText(kTextArtist, source.artist);
    if (!source.comments.empty()) instrument->SetText(kTextComments, source.comments);
    if (!source.copyright.empty()) instrument->SetText(kTextCopyright, source.copyright);
    if (!source.engineer.empty()) instrument->SetText(kTextEngineer, source.engineer);
    if (!source.product.empty()) instrument->SetText(kTextProduct, source.product);
    // The player's own defaults, the collection's list, then the instrument's own list.
    instrument->articulation.Set(kDlsVelocityToVolumeParam, kDlsVelocityToVolume);
    if (!bank.globalConnections.empty()) ApplyConnections(bank.globalConnections, instrument->articulation);
    ApplyConnections(source.connections, instrument->articulation);

    for (const DlsRegion& r : source.regions) {
      bool warnedCue = false, warnedWave = false;
      Waveform* wave = ResolveDlsWave(bank, cues, haveCues, r.tableIndex, warnedCue, warnedWave);
      const uint32_t keys = PackRange(std::min<int>(r.loKey, 127), std::min<int>(r.hiKey, 127));
      const uint32_t velocities = PackRange(std::min<int>(r.loVelocity, 127), std::min<int>(r.hiVelocity, 127));
      Region* region = instrument->AddRegion(wave ? wave->id : kNoWave, keys, velocities, -1, r.layer);
      if (r.keyGroup) region->SetParam(kKeyGroup, float(r.keyGroup));
      if (r.options & 1) region->SetParam(kNoteExclusion, 1.0f);
      region->phaseGroup = r.phaseGroup;
      region->phaseMaster = r.linkOptions & 1;
      float tuneOffset = 0.0f, gainOffset = 0.0f;  // what the region's wsmp says beyond the wave's
      if (wave) ApplyRegionSample(*region, *wave, r.sample, tuneOffset, gainOffset);
      // Region lists stand in for the instrument's; a level-2 region keeps them at its own level.
      Articulation& art = region->articulation;
      if (r.hasConnections) {
        // A region's list stands in for the instrument's whole: what it leaves unsaid is the player's default.
        art.Set(kDlsVelocityToVolumeParam, kDlsVelocityToVolume);
        ApplyConnections(r.connections, art);
        for (ParamId id = 0; id < kArticulationParamCount; ++id)
          if (!art.IsSet(id)) art.Set(id, art.Get(id));
      }
      const Articulation& above = instrument->articulation;
      if (tuneOffset != 0.0f)
        art.Set(kParamMasterTune, (art.IsSet(kParamMasterTune) ? art : above).Get(kParamMasterTune) + tuneOffset);
      if (gainOffset != 0.0f)
        art.Set(kParamMasterVolume, (art.IsSet(kParamMasterVolume) ? art : above).Get(kParamMasterVolume) + gainOffset);
    }
  }
  return true;
}

bool ReadDls(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  if (size < 12) return Fail("Not a RIFF DLS file");
  return ReadDlsBank(collection, *file, 0, uint64_t(size), false);
}

}  // namespace orlin
