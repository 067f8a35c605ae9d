// "Ascii text audio": sample values as text, one frame a line, channels in columns separated by
// blanks, tabs, commas or semicolons. Lines starting with ';', '#' or '%' are comments, except sox's
// "; Sample Rate N" and "; Channels N", which name the rate and the channels; a file with those has
// the time in its first column (sox's .dat layout), which is dropped. Values within -1..1 are taken as
// they are; a file holding larger values is integer PCM of the smallest width that holds its peak
// (8, 16, 24 or 32 bits) and is scaled by it. More than two value columns: "Too many channels".
#include "formats/audio/text_audio.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"

namespace orlin {

namespace {

constexpr uint64_t kMaxTextBytes = 0x10000000;  // 256 MB of text, some 30 million values

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

bool IsComment(std::string_view line) { return !line.empty() && (line[0] == ';' || line[0] == '#' || line[0] == '%'); }

bool IsSeparator(char c) { return c == ' ' || c == '\t' || c == ',' || c == ';' || c == '\r'; }

// The numbers of one line; false when something else stands in it.
bool ParseNumbers(std::string_view line, std::vector<double>& out) {
  out.clear();
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && IsSeparator(line[i])) ++i;
    if (i >= line.size()) break;
    size_t end = i;
    while (end < line.size() && !IsSeparator(line[end])) ++end;
    const std::string token(line.substr(i, end - i));
    char* stop = nullptr;
    const double value = std::strtod(token.c_str(), &stop);
    if (stop != token.c_str() + token.size() || !std::isfinite(value)) return false;
    out.push_back(value);
    i = end;
  }
  return true;
}

// "; Sample Rate 44100" gives 44100 for key "Sample Rate".
bool HeaderValue(std::string_view line, std::string_view key, double& value) {
  size_t i = 1;
  while (i < line.size() && line[i] == ' ') ++i;
  if (line.substr(i, key.size()) != key) return false;
  const std::string rest(line.substr(i + key.size()));
  char* stop = nullptr;
  value = std::strtod(rest.c_str(), &stop);
  return stop != rest.c_str();
}

}  // namespace

int32_t DetectTextAudio(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  const std::string_view text(reinterpret_cast<const char*>(head), headBytes);
  if (text.substr(0, 14) == "; Sample Rate ") return 6;
  // Otherwise: the first lines that are not comments are numbers, one to three a line.
  std::vector<double> numbers;
  size_t at = 0;
  int lines = 0;
  while (at < text.size() && lines < 4) {
    const size_t end = text.find('\n', at);
    if (end == std::string_view::npos) break;  // a cut last line says nothing
    const std::string_view line = text.substr(at, end - at);
    at = end + 1;
    if (IsComment(line) || line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
    if (!ParseNumbers(line, numbers) || numbers.empty() || numbers.size() > 3) return 0;
    ++lines;
  }
  return lines >= 2 ? 4 : 0;
}

namespace {

struct TextAudio {
  std::vector<float> values;  // interleaved
  int columns = 0;
  double rate = 0;
};

bool ParseTextAudio(FileObject& file, TextAudio& out) {
  const int64_t size = file.Size();
  if (size <= 0) return Fail("Zero length");
  if (uint64_t(size) > kMaxTextBytes) return Fail("Wave is too big!");
  std::string text;
  try {
    text.resize(size_t(size));
  } catch (const std::bad_alloc&) {
    return Fail("Out of memory");
  }
  if (!file.ReadAt(0, text.data(), text.size())) return Fail("Reading from file failed");

  int namedChannels = 0;
  int columns = -1;
  double peak = 0;
  std::vector<double> numbers;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    const std::string_view line(text.data() + at, end - at);
    at = end + 1;
    if (IsComment(line)) {
      double value = 0;
      if (HeaderValue(line, "Sample Rate", value) && value >= 1 && value <= 10000000) out.rate = value;
      if (HeaderValue(line, "Channels", value) && value >= 1 && value <= 64) namedChannels = int(value);
      continue;
    }
    if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
    if (!ParseNumbers(line, numbers)) return Fail("Not a text audio file: a line holds something other than numbers");
    // sox's layout puts the time first.
    const size_t skip = namedChannels > 0 && numbers.size() == size_t(namedChannels) + 1 ? 1 : 0;
    const int count = int(numbers.size() - skip);
    if (columns < 0) {
      if (count > 2) return Fail("Too many channels");
      columns = count;
    }
    // A line with fewer values than the first one is padded with silence; extra values are ignored.
    try {
      for (int c = 0; c < columns; ++c) {
        const double value = size_t(c) + skip < numbers.size() ? numbers[size_t(c) + skip] : 0.0;
        peak = std::max(peak, std::fabs(value));
        out.values.push_back(float(value));
      }
    } catch (const std::bad_alloc&) {
      return Fail("Out of memory");
    }
  }
  if (columns <= 0 || out.values.empty() || out.values.size() / size_t(columns) > 0xFFFFFFFF) return Fail("Zero length");
  out.columns = columns;
  // Integer PCM: scale by the width that holds the peak.
  if (peak > 1.0) {
    double full = 128.0;
    for (double width : {128.0, 32768.0, 8388608.0, 2147483648.0}) {
      full = width;
      if (peak <= width) break;
    }
    for (float& v : out.values) v = float(v / full);
  }
  return true;
}

// The text is parsed again when the samples are wanted, so that a wave dropped from memory comes back.
bool DecodeTextAudio(Waveform* wave, FileObject* file) {
  TextAudio audio;
  if (!ParseTextAudio(*file, audio)) return false;
  if (audio.columns != wave->channels) return Fail("Reading from file failed");
  float* samples = wave->AllocSamples();
  if (!samples) return false;
  const size_t count = std::min(audio.values.size(), size_t(wave->length) * wave->channels);
  std::copy_n(audio.values.begin(), count, samples);
  std::fill(samples + count, samples + size_t(wave->length) * wave->channels, 0.0f);
  return true;
}

}  // namespace

bool ReadTextAudio(Collection* collection, FileObject* file, uint32_t) {
  TextAudio audio;
  if (!ParseTextAudio(*file, audio)) return false;
  auto* wave = new Waveform(collection);
  wave->SetName(std::filesystem::path(file->Path()).stem().string());
  wave->SetPcmSourceByFormat(kStorageAsciiText, 0);
  wave->bits = 32;
  wave->decoder = DecodeTextAudio;
  wave->channels = uint8_t(audio.columns);
  wave->length = uint32_t(audio.values.size() / size_t(audio.columns));
  wave->sampleRate = audio.rate > 0 ? uint32_t(std::lround(audio.rate)) : 44100;
  return true;
}

}  // namespace orlin
