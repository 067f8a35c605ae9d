// Korg samples (.ksf). "SMP1" comes first: a 16-byte name, then the start (a bank byte and a 24-bit
// address), the alternate start, the loop start and the loop end (inclusive), each using its low 28
// bits. "SMD1" holds the sample format (rate, attributes, loop tune in cents, channels, bits, frames)
// and then the big-endian samples; a file that carries the format in a chunk of its own ("SMF1")
// has nothing but samples in "SMD1". "SNO1" is the sample's number, "NAME" a long name.
//
// The name field marks two kinds of files without samples: "SKIPPEDSAMPL" (a hole a keymap keeps)
// and "INTERNAL" (a reference to the instrument's ROM). Attribute bit 0 is 12 dB of gain, bit 7 no
// loop; with bit 5 clear the loop runs. Starts under 3 are the sample's start; an alternate start
// above 3 becomes the marker "AltStart".
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/user_interface.h"
#include "formats/instrument/korg/korg.h"
#include "formats/instrument/korg/korg_fields.h"

namespace orlin {

namespace {

constexpr size_t kSmp1Bytes = 32;
constexpr size_t kFormatBytes = 12;
constexpr uint32_t kAddressMask = 0x0FFFFFFF;

using korg::Be32;
using korg::Fail;
using korg::Field;

}  // namespace

int32_t DetectKorgSample(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  return headBytes >= 8 && std::memcmp(head, "SMP1", 4) == 0 ? 6 : 0;
}

bool ReadKorgSample(Collection* collection, FileObject* file, uint32_t) {
  const int64_t size = file->Size();
  const uint64_t fileBytes = size > 0 ? uint64_t(size) : 0;
  uint8_t head[8];
  if (fileBytes < 8 + kSmp1Bytes || !file->ReadAt(0, head, 8) || std::memcmp(head, "SMP1", 4) != 0)
    return Fail("Not a Korg sample file");
  uint8_t smp1[kSmp1Bytes];
  if (!file->ReadAt(8, smp1, kSmp1Bytes)) return Fail("Not a Korg sample file");
  if (std::memcmp(smp1, "SKIPPEDS", 8) == 0) return Fail("Skipped");
  if (std::memcmp(smp1, "INTERNAL", 8) == 0) return Fail("Skipping ROM waveform reference");
  uint32_t start = Be32(smp1 + 16) & 0x00FFFFFF;  // the top byte is the bank
  uint32_t alternateStart = Be32(smp1 + 20) & kAddressMask;
  const uint32_t loopStart = Be32(smp1 + 24) & kAddressMask;
  const uint32_t loopEndInclusive = Be32(smp1 + 28) & kAddressMask;
  if (start < 3) start = 0;
  if (alternateStart <= 3) alternateStart = 0;

  // The rest of the chunks: the format and where the samples lie.
  std::string longName;
  uint8_t format[kFormatBytes] = {};
  bool haveFormat = false;
  uint64_t dataAt = 0, dataBytes = 0;
  bool haveData = false;
  uint64_t at = 8 + Be32(head + 4);
  while (at + 8 <= fileBytes) {
    uint8_t chunk[8];
    if (!file->ReadAt(at, chunk, 8)) break;
    const uint64_t bytes = std::min<uint64_t>(Be32(chunk + 4), fileBytes - at - 8);
    const uint64_t body = at + 8;
    if (std::memcmp(chunk, "SMF1", 4) == 0 && bytes >= kFormatBytes) {
      haveFormat = file->ReadAt(body, format, kFormatBytes);
    } else if (std::memcmp(chunk, "SMD1", 4) == 0) {
      if (!haveFormat) {
        if (bytes < kFormatBytes || !file->ReadAt(body, format, kFormatBytes)) break;
        haveFormat = true;
        dataAt = body + kFormatBytes, dataBytes = bytes - kFormatBytes;
      } else {
        dataAt = body, dataBytes = bytes;
      }
      haveData = true;
    } else if (std::memcmp(chunk, "NAME", 4) == 0 && bytes > 0 && bytes <= 256) {
      std::vector<uint8_t> text(size_t(bytes), 0);
      if (file->ReadAt(body, text.data(), text.size())) longName = Field(text.data(), text.size());
    }
    at = body + bytes;
  }
  if (!haveData || !haveFormat) {
    Ui().Warn("Warning", "Warning! Encountered a KSF file with no sample data");
    return true;
  }
  const uint32_t rate = Be32(format);
  const uint8_t attributes = format[4];
  const int8_t loopTune = int8_t(format[5]);
  const uint32_t channels = std::clamp<uint32_t>(format[6], 1, 2);
  const uint32_t bits = format[7] == 8 ? 8 : 16;
  uint64_t frames = Be32(format + 8);
  if (bits == 8 && (attributes & 0x10)) Ui().Warn("Warning", "Warning! Korg 8-bit compression is not handled correctly.");

  auto* wave = new Waveform(collection);
  std::string name = longName.empty() ? Field(smp1, 16) : longName;
  if (name.empty()) name = std::filesystem::path(file->Path()).stem().string();
  wave->SetNameNarrow(name);
  wave->SetPcmSourceByFormat(bits == 8 ? kStoragePcm8 : kStoragePcm16, bits == 16 ? kSourceBigEndian : 0);
  wave->channels = uint8_t(channels);
  wave->sampleRate = rate ? rate : 48000;
  const uint64_t frameBytes = uint64_t(bits / 8) * channels;
  frames = std::min(frames, dataBytes / frameBytes);
  start = uint32_t(std::min<uint64_t>(start, frames));
  wave->sourceOffset = dataAt + start * frameBytes;
  wave->length = uint32_t(std::min<uint64_t>(frames - start, 0xFFFFFFFF));
  if (attributes & 1) wave->gain = 12.0f;
  const bool loopRuns = !(attributes & 0x80) && !(attributes & 0x20);
  if (loopRuns && loopStart >= start && loopStart + 4 < loopEndInclusive && loopEndInclusive < frames) {
    wave->loop.type = 1;
    wave->loop.start = float(loopStart - start);
    wave->loop.end = float(loopEndInclusive + 1 - start);
    wave->loop.tune = float(loopTune) * 0.01f;
  }
  if (alternateStart > start && alternateStart < frames) {
    Marker marker;
    marker.start = alternateStart - start;
    marker.name = "AltStart";
    marker.id = NextMarkerId();
    wave->markers.push_back(marker);
  }
  wave->SetText(kTextSourceFile, file->Path());
  return true;
}

}  // namespace orlin
