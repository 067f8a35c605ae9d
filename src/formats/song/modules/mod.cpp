// The classic Amiga module: 15 or 31 sample records, an order list, 64-row patterns of 4-byte cells, then
// the signed 8-bit samples. It is converted whole: samples become waves with an instrument each, and
// the patterns a format 1 Song with a control track and one track per channel. The ID at 1080 gives the
// channel count; without a known ID the file is an old 15-sample module. FLT8 patterns are read as plain
// 8-channel patterns.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/song/midi.h"
#include "formats/song/modules/module_common.h"
#include "formats/song/modules/modules.h"
#include "formats/song/span_reader.h"

namespace orlin {

namespace {

constexpr size_t kIdOffset = 1080;
constexpr size_t kTitleBytes = 20;
constexpr size_t kSampleRecordBytes = 30;
constexpr int kRows = 64;
constexpr int kOrderSlots = 128;
constexpr uint16_t kDivision = 96;            // MIDI ticks a quarter note
constexpr uint32_t kMidiTicksPerTick = 4;     // a row of speed 6 is then a sixteenth note
constexpr int kReferencePeriod = 428;         // the period of the key a sample's own rate stands for
constexpr int kRootKey = 60;

struct ModId {
  char id[5];
  uint8_t channels;
};
constexpr ModId kModIds[] = {
    {"M.K.", 4}, {"M!K!", 4}, {"4CHN", 4}, {"FLT4", 4}, {"6CHN", 6}, {"8CHN", 8}, {"FLT8", 8}, {"CD81", 8},
    {"OCTA", 8}, {"EX08", 8}, {"10CH", 10}, {"12CH", 12}, {"14CH", 14}, {"16CH", 16}, {"24CH", 24}, {"32CH", 32},
};

// MIDI channels in the order module channels take them, leaving out the drum channel.
constexpr uint8_t kChannelOrder[15] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14, 15};

int ChannelsOfId(const uint8_t* id) {
  for (const ModId& known : kModIds)
    if (std::memcmp(known.id, id, 4) == 0) return known.channels;
  return 0;
}

// 8287.137 Hz times 2^(f/96) for the signed four-bit fine tune f, rounded as the rate field is.
uint32_t FineTuneRate(uint8_t fineTuneByte) {
  const int f = int8_t(uint8_t(fineTuneByte << 4)) / 16;
  return uint32_t(std::exp(f * 0.0072202831 + 3.4657359) * 258.973028125 + 0.499);
}

int KeyOfPeriod(int period) {
  const int key = int(std::lround(kRootKey + 12.0 * std::log2(double(kReferencePeriod) / period)));
  return std::clamp(key, 0, 127);
}

struct SampleHead {
  std::string name;
  uint32_t bytes = 0;
  uint8_t fineTune = 0;
  uint8_t volume = 0;
  uint32_t loopStart = 0;
  uint32_t loopLength = 0;
};

// Events of one track at absolute ticks, in time order.
class TrackBuilder {
 public:
  void Add(uint64_t tick, std::initializer_list<uint8_t> bytes) {
    PutDelta(tick);
    data.insert(data.end(), bytes);
  }
  void Meta(uint64_t tick, uint8_t type, const std::string& payload) {
    PutDelta(tick);
    data.insert(data.end(), {0xFF, type});
    PutVarLength(uint32_t(payload.size()));
    data.insert(data.end(), payload.begin(), payload.end());
  }
  std::vector<uint8_t> data;

 private:
  void PutVarLength(uint32_t value) {
    uint8_t groups[5];
    int count = 0;
    do groups[count++] = value & 0x7F, value >>= 7;
    while (value);
    while (count > 1) data.push_back(groups[--count] | 0x80);
    data.push_back(groups[0]);
  }
  void PutDelta(uint64_t tick) {
    PutVarLength(uint32_t(tick - lastTick_));
    lastTick_ = tick;
  }
  uint64_t lastTick_ = 0;
};

std::string TempoBytes(uint32_t tempo) {
  const uint32_t microseconds = 60000000u / tempo;  // a quarter is 24 ticks of 2.5/tempo seconds
  return {char(microseconds >> 16), char(microseconds >> 8), char(microseconds)};
}

struct ChannelState {
  int sample = 0;     // 1-based, 0 none yet
  int program = -1;   // last program sent
  int key = -1;       // sounding key
  int volume = 64;
  int expression = 127;
};

void BuildSong(Collection* collection, const std::vector<uint8_t>& bytes, size_t patternStart, int channels,
               int patterns, const std::vector<uint8_t>& orders, const std::vector<SampleHead>& samples,
               const std::vector<bool>& hasWave, const std::string& title) {
  TrackBuilder control;
  std::vector<TrackBuilder> tracks(channels);
  std::vector<ChannelState> state(channels);
  control.Meta(0, 0x03, "Control Track");
  control.Meta(0, 0x01, "Created from a MOD by Orlin Studio v12.7");
  control.Meta(0, 0x58, std::string{4, 2, 96, 8});
  int speed = 6;
  int tempo = 125;
  control.Meta(0, 0x51, TempoBytes(tempo));
  for (int c = 0; c < channels; ++c) tracks[c].Add(0, {uint8_t(0xB0 | kChannelOrder[c % 15]), 121, 0});

  const size_t patternBytes = size_t(kRows) * channels * 4;
  uint64_t tick = 0;
  int startRow = 0;
  bool stopped = false;
  for (size_t order = 0; order < orders.size() && !stopped;) {
    const int pattern = orders[order];
    const size_t at = patternStart + size_t(pattern) * patternBytes;
    if (pattern >= patterns || at + patternBytes > bytes.size()) {
      ++order, startRow = 0;
      continue;
    }
    char step[32];
    std::snprintf(step, sizeof step, "%d <- P%d", int(order), pattern);
    control.Meta(tick, 0x06, step);
    int breakRow = -1;
    int jumpOrder = -1;
    for (int row = startRow; row < kRows && breakRow < 0 && jumpOrder < 0 && !stopped; ++row) {
      const uint8_t* cells = bytes.data() + at + size_t(row) * channels * 4;
      // Speed and tempo take effect on the row that sets them.
      for (int c = 0; c < channels; ++c) {
        const uint8_t* cell = cells + c * 4;
        if ((cell[2] & 0x0F) != 0x0F) continue;
        if (cell[3] == 0) stopped = true;
        else if (cell[3] < 32) speed = cell[3];
        else if (cell[3] != tempo) tempo = cell[3], control.Meta(tick, 0x51, TempoBytes(tempo));
      }
      if (stopped) break;
      for (int c = 0; c < channels; ++c) {
        const uint8_t* cell = cells + c * 4;
        const uint8_t midiChannel = kChannelOrder[c % 15];
        ChannelState& channel = state[c];
        const int sample = (cell[0] & 0xF0) | (cell[2] >> 4);
        const int period = (cell[0] & 0x0F) << 8 | cell[1];
        const int effect = cell[2] & 0x0F;
        const int parameter = cell[3];
        if (sample > 0 && sample <= int(samples.size())) {
          channel.sample = sample;
          channel.volume = std::min<int>(samples[sample - 1].volume, 64);
        }
        if (effect == 0x0C) channel.volume = std::min(parameter, 64);
        if (effect == 0x0D) breakRow = std::min((parameter >> 4) * 10 + (parameter & 0x0F), kRows - 1);
        if (effect == 0x0B) jumpOrder = parameter;
        // A tone portamento slides to the note instead of striking it.
        const bool strikes = period != 0 && effect != 0x03 && effect != 0x05;
        const bool playable = channel.sample > 0 && hasWave[channel.sample - 1];
        if (strikes || (effect == 0x0C && channel.volume == 0)) {
          if (channel.key >= 0) tracks[c].Add(tick, {uint8_t(0x80 | midiChannel), uint8_t(channel.key), 64});
          channel.key = -1;
        }
        if (strikes && playable && channel.volume > 0) {
          if (channel.program != channel.sample - 1) {
            channel.program = channel.sample - 1;
            tracks[c].Add(tick, {uint8_t(0xC0 | midiChannel), uint8_t(channel.program)});
          }
          if (channel.expression != 127) {
            channel.expression = 127;
            tracks[c].Add(tick, {uint8_t(0xB0 | midiChannel), 11, 127});
          }
          channel.key = KeyOfPeriod(period);
          const int velocity = std::max(1, channel.volume * 127 / 64);
          tracks[c].Add(tick, {uint8_t(0x90 | midiChannel), uint8_t(channel.key), uint8_t(velocity)});
        } else if (effect == 0x0C && channel.key >= 0) {
          // A volume change under a sounding note: the expression controller.
          channel.expression = channel.volume * 127 / 64;
          tracks[c].Add(tick, {uint8_t(0xB0 | midiChannel), 11, uint8_t(channel.expression)});
        }
      }
      tick += uint64_t(speed) * kMidiTicksPerTick;
    }
    // Jumps go forward only, so every song ends.
    if (jumpOrder >= 0) {
      if (size_t(jumpOrder) <= order) break;
      order = size_t(jumpOrder);
    } else {
      ++order;
    }
    startRow = breakRow >= 0 ? breakRow : 0;
  }

  auto* song = new Song(collection);
  song->SetNameNarrow(IsBlank(title) ? collection->GetName() : TrimName(title));
  song->format = 1;
  song->division = kDivision;
  song->parentId = collection->id;
  auto addTrack = [&](TrackBuilder& builder, const std::string& name, uint8_t flags) {
    builder.Meta(tick, 0x2F, "");
    auto* track = new Track(collection);
    track->SetName(name);
    track->data = std::move(builder.data);
    track->flags = flags;
    track->firstChannel = FirstChannelOf(*track);
    track->parentId = song->id;
    song->children.push_back(track->id);
  };
  addTrack(control, "Control Track", 254);
  for (int c = 0; c < channels; ++c) {
    if (state[c].key >= 0) tracks[c].Add(tick, {uint8_t(0x80 | kChannelOrder[c % 15]), uint8_t(state[c].key), 64});
    addTrack(tracks[c], "Track " + std::to_string(c + 1), 0);
  }
}

}  // namespace

// An old 15-sample module has no signature: a guess when its records hold plausible values.
bool LooksLikeOldModule(const uint8_t* head, uint32_t headBytes) {
  constexpr size_t kOrdersOffset = kTitleBytes + 15 * kSampleRecordBytes;  // song length, restart, orders
  if (headBytes < kOrdersOffset + 2 + kOrderSlots) return false;
  for (int i = 0; i < 15; ++i) {
    const uint8_t* record = head + kTitleBytes + i * kSampleRecordBytes;
    if (record[24] > 15 || record[25] > 64) return false;  // fine tune is a nibble, volume at most 64
  }
  const uint8_t songLength = head[kOrdersOffset];
  if (songLength == 0 || songLength > kOrderSlots) return false;
  for (int i = 0; i < kOrderSlots; ++i)
    if (head[kOrdersOffset + 2 + i] >= 64) return false;
  return true;
}

int32_t DetectModModule(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (headBytes >= kIdOffset + 4 && ChannelsOfId(head + kIdOffset)) return 6;
  return LooksLikeOldModule(head, headBytes) ? 2 : 0;
}

bool ReadModModule(Collection* collection, FileObject* file, uint32_t) {
  std::vector<uint8_t> bytes;
  if (!LoadModuleBytes(file, bytes)) return false;
  int channels = bytes.size() >= kIdOffset + 4 ? ChannelsOfId(bytes.data() + kIdOffset) : 0;
  const int sampleCount = channels ? 31 : 15;
  if (!channels) channels = 4;
  SpanReader reader(bytes.data(), bytes.size());
  const std::string title = reader.Text(kTitleBytes);
  std::vector<SampleHead> samples(sampleCount);
  for (SampleHead& sample : samples) {
    sample.name = reader.Text(22);
    sample.bytes = uint32_t(reader.U16be()) * 2;  // lengths are stored in words
    sample.fineTune = reader.U8();
    sample.volume = reader.U8();
    sample.loopStart = uint32_t(reader.U16be()) * 2;
    sample.loopLength = uint32_t(reader.U16be()) * 2;
  }
  const uint8_t songLength = reader.U8();
  reader.U8();  // restart position, unused
  std::vector<uint8_t> allOrders(kOrderSlots);
  for (uint8_t& order : allOrders) order = reader.U8();
  if (reader.failed) {
    SetLastError("Not a MOD file");
    return false;
  }
  if (songLength == 0) {
    SetLastError("Zero song length");
    return false;
  }
  const size_t patternStart = reader.Position() + (sampleCount == 31 ? 4 : 0);
  // Every slot of the order list counts for the pattern count, used or not.
  const int patterns = *std::max_element(allOrders.begin(), allOrders.end()) + 1;
  const std::vector<uint8_t> orders(allOrders.begin(), allOrders.begin() + std::min<int>(songLength, kOrderSlots));

  uint64_t offset = patternStart + uint64_t(patterns) * kRows * channels * 4;
  std::vector<bool> hasWave(sampleCount, false);
  for (int i = 0; i < sampleCount; ++i) {
    const SampleHead& head = samples[i];
    ModuleSample sample;
    sample.name = head.name;
    sample.offset = offset;
    sample.frames = head.bytes;
    sample.storage = kStoragePcm8;
    sample.rate = FineTuneRate(head.fineTune);
    if (head.loopLength > 2) {  // a one-word loop is the "no loop" mark
      sample.loopType = 1;
      sample.loopStart = head.loopStart;
      sample.loopEnd = head.loopStart + head.loopLength;
    }
    offset += head.bytes;
    Waveform* wave = MakeModuleWave(collection, sample, bytes.size());
    if (!wave) continue;
    hasWave[i] = true;
    char fallback[16];
    std::snprintf(fallback, sizeof fallback, "No %d", i + 1);
    MakeSingleWaveInstrument(collection, IsBlank(head.name) ? std::string(fallback) : head.name, wave, i);
  }
  BuildSong(collection, bytes, patternStart, channels, patterns, orders, samples, hasWave, title);
  return true;
}

}  // namespace orlin
