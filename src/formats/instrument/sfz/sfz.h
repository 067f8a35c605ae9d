// SFZ text instruments: the pre-processor (#define, #include), the tokenizer, the reader that turns
// <global>/<master>/<group>/<region> levels into regions with waves and articulation, and the writer
// of the v1 and v2 dialects with their wave folders. The format is loose: unknown opcodes are skipped,
// and what the model cannot hold goes to a parse log with line and column.
#pragma once
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "core/format_table.h"

namespace orlin {

// Writer variants: bit 8 asks for a wave sub-folder, bit 9 for the version-2 dialect.
constexpr uint32_t kSfzVariantSubFolder = 0x100;
constexpr uint32_t kSfzVariantVersion2 = 0x200;

// Opcode units against the model's, shared by reader and writer. Each opcode keeps the meaning other
// players give it (docs/sfz.md lists where that differs from a plain copy of the number).
namespace sfz_units {
// ampeg_sustain and ampeg_start are percent of linear amplitude; a V-ENV level is normalised dB
// (1.0 is 0 dB, 0.0 is -96 dB and silence).
constexpr double kEnvelopeRangeDb = 96.0;
inline double PercentFromLevel(double level) {
  return level <= 0.0 ? 0.0 : 100.0 * std::pow(10.0, (level - 1.0) * kEnvelopeRangeDb / 20.0);
}
inline double LevelFromPercent(double percent) {
  if (percent <= 0.0) return 0.0;
  const double level = 1.0 + 20.0 * std::log10(percent / 100.0) / kEnvelopeRangeDb;
  return level < 0.0 ? 0.0 : level;
}
// amp_veltrack=100 is the curve a SoundFont's default velocity modulator gives (960 cB, which the
// model holds as 38.4 dB of "Velocity to Volume"); it is also what an SFZ region plays without the opcode.
constexpr double kVelocityTrackDbPerPercent = 0.384;
constexpr double kDefaultVelocityTrackDb = 100.0 * kVelocityTrackDbPerPercent;
// `cutoff` is the frequency at velocity 0 and fil_veltrack (cents) adds to it up to velocity 127. The
// model's cutoff stands 1/24 of its velocity track above the full-velocity value (soundfont_params.cpp).
// A track of 24 semitones is a SoundFont's default velocity modulator, which SoundFont players apply
// on their own (FluidSynth only from velocity 64 up) and SFZ players do not have: such a region is
// written at its full-velocity cutoff without fil_veltrack, which sounds as the bank does in both.
constexpr double kSoundFontVelocityTrack = 24.0;
inline double FullVelocityCutoff(double modelCutoff, double trackSemitones) {
  return modelCutoff * std::exp2(-trackSemitones / 24.0);
}
inline bool WritesVelocityTrack(double trackSemitones) {
  return trackSemitones != 0.0 && std::fabs(trackSemitones - kSoundFontVelocityTrack) > 0.005;
}
inline double SfzCutoff(double modelCutoff, double trackSemitones) {
  const double full = FullVelocityCutoff(modelCutoff, trackSemitones);
  return WritesVelocityTrack(trackSemitones) ? full * std::exp2(-trackSemitones / 12.0) : full;
}
// Reading: the cutoff and fil_veltrack as given, into the model's mid-velocity convention.
inline double ModelCutoff(double sfzCutoff, double trackSemitones) {
  return sfzCutoff * std::exp2(trackSemitones / 8.0);
}
}  // namespace sfz_units

// One entry of the parse log: what could not be carried into the model, and where.
struct SfzLogEntry {
  int line = 0;
  int column = 0;
  std::string text;
};

enum class SfzTokenKind : uint8_t { Header, Opcode, Comment, BlankLine };

struct SfzToken {
  SfzTokenKind kind = SfzTokenKind::Opcode;
  std::string key;    // header name, opcode key (lower case), or comment text
  std::string value;  // opcode value
  int line = 1;
  int column = 1;
};

// Applies #define and #include to `text`; `folder` is where included files are looked for.
// Include depth is limited so that a file including itself ends. The expanded text may reach a fixed
// multiple of the bytes read; past it the first form fails with "Too much text from #define and
// #include (over N bytes) for this file" and leaves `out` empty, the second gives what stood by then.
bool PreprocessSfz(const std::string& text, const std::string& folder, std::vector<SfzLogEntry>* log,
                   std::string& out);
std::string PreprocessSfz(const std::string& text, const std::string& folder, std::vector<SfzLogEntry>* log);
// Splits pre-processed text into headers, opcodes, comments and blank-line marks.
std::vector<SfzToken> TokenizeSfz(const std::string& text);
// "c4" -> 60, "C#-1" -> 1, "36" -> 36; false when neither a number nor a note name.
bool ParseSfzKey(const std::string& value, int& key);

int32_t DetectSfz(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadSfz(Collection* collection, FileObject* file, uint32_t variant);
// As ReadSfz on a file path, with the parse log handed back (for `orlin info --log` and tests).
bool ReadSfzFile(Collection* collection, const std::string& path, std::vector<SfzLogEntry>* log);
bool WriteSfz(Item* item, FileObject* file, const SaveOptions* options);

}  // namespace orlin
