// The text layer of SFZ: #define and #include on the whole text, then tokens. A "/" at the start of a
// token opens a comment to the line end (so "//" and a lone "/" both do); a `sample` value runs to the
// line end because file names may hold blanks, but stops before a following "key=" opcode, header or
// comment on the same line, as hand-written files put several opcodes behind it.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <unordered_map>

#include "core/file_object.h"
#include "core/last_error.h"
#include "formats/instrument/sfz/sfz.h"

namespace orlin {

namespace {

constexpr int kMaxIncludeDepth = 16;  // a file including itself ends here
constexpr size_t kMaxDefines = 4096;
constexpr size_t kMaxDefineName = 64;
// The text #define and #include may expand to: a fixed multiple of the bytes read from the file and
// its includes, so that doubling defines and includes that multiply stop early and in bounded memory.
constexpr size_t kExpansionPerInputByte = 8;
constexpr size_t kExpansionFloor = 1u << 20;

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\b' || c == '\0' || c == '\r'; }
bool IsKeyChar(char c) { return std::isalnum(uint8_t(c)) || c == '_' || c == '$' || c == '#'; }

struct Preprocessor {
  // Names with their values; at a "$" the longest name that stands there wins.
  std::unordered_map<std::string, std::string> defines;
  std::vector<size_t> nameLengths;  // distinct name lengths, longest first
  std::vector<SfzLogEntry>* log;
  std::unordered_map<std::string, std::string> included;  // path -> text of files included so far
  size_t inputBytes = 0;
  size_t produced = 0;  // bytes of output and of define values
  bool overBudget = false;

  size_t Budget() const { return kExpansionPerInputByte * inputBytes + kExpansionFloor; }
  bool Spend(size_t bytes) {
    produced += bytes;
    if (produced > Budget()) overBudget = true;
    return !overBudget;
  }

  void Log(int line, int column, std::string text) {
    if (log) log->push_back({line, column, std::move(text)});
  }

  std::string Substitute(const std::string& line) {
    if (line.find('$') == std::string::npos || defines.empty()) return line;
    std::string out;
    out.reserve(line.size());
    for (size_t i = 0; i < line.size() && !overBudget;) {
      bool replaced = false;
      if (line[i] == '$') {
        for (size_t length : nameLengths) {
          if (i + length > line.size()) continue;
          auto found = defines.find(line.substr(i, length));
          if (found == defines.end()) continue;
          if (found->second.size() > length && !Spend(found->second.size() - length)) break;
          out += found->second;
          i += length;
          replaced = true;
          break;
        }
      }
      if (!replaced) out += line[i++];
    }
    return out;
  }

  void Define(const std::string& name, std::string value) {
    if (!Spend(value.size())) return;
    auto found = defines.find(name);
    if (found != defines.end()) {
      found->second = std::move(value);
      return;
    }
    defines.emplace(name, std::move(value));
    if (std::find(nameLengths.begin(), nameLengths.end(), name.size()) == nameLengths.end()) {
      nameLengths.push_back(name.size());
      std::sort(nameLengths.rbegin(), nameLengths.rend());
    }
  }

  void Run(const std::string& text, const std::filesystem::path& folder, int depth, std::string& out) {
    size_t at = 0;
    int lineNumber = 0;
    while (at <= text.size() && !overBudget) {
      size_t end = text.find('\n', at);
      if (end == std::string::npos) end = text.size();
      ++lineNumber;
      std::string line = text.substr(at, end - at);
      const bool lastLine = end >= text.size();
      at = end + 1;
      size_t first = 0;
      while (first < line.size() && IsBlank(line[first])) ++first;
      if (line.compare(first, 7, "#define") == 0) {
        // "#define $name value": the value is what stands up to the next blank.
        size_t p = first + 7;
        while (p < line.size() && IsBlank(line[p])) ++p;
        size_t nameEnd = p;
        while (nameEnd < line.size() && !IsBlank(line[nameEnd])) ++nameEnd;
        size_t v = nameEnd;
        while (v < line.size() && IsBlank(line[v])) ++v;
        size_t valueEnd = v;
        while (valueEnd < line.size() && !IsBlank(line[valueEnd])) ++valueEnd;
        std::string name = line.substr(p, nameEnd - p);
        if (name.size() > 1 && name[0] == '$' && name.size() <= kMaxDefineName && defines.size() < kMaxDefines) {
          Define(name, Substitute(line.substr(v, valueEnd - v)));
        } else {
          Log(lineNumber, int(first) + 1, "#define without a $name of up to 64 characters");
        }
        out += '\n';
        continue;
      }
      line = Substitute(line);
      if (line.compare(first, 8, "#include") == 0) {
        const size_t open = line.find('"', first + 8);
        const size_t close = open == std::string::npos ? open : line.find('"', open + 1);
        if (!Spend(1)) break;
        out += '\n';
        if (close == std::string::npos) {
          Log(lineNumber, int(first) + 1, "#include without a quoted file name");
          continue;
        }
        std::string name = line.substr(open + 1, close - open - 1);
        std::replace(name.begin(), name.end(), '\\', '/');
        if (depth >= kMaxIncludeDepth) {
          Log(lineNumber, int(first) + 1, "#include nested too deep: " + name);
          continue;
        }
        const std::filesystem::path path = (folder / name).lexically_normal();
        // A file included again is read once, and its bytes count once towards the budget, so that
        // includes that multiply cannot buy themselves room.
        auto cached = included.find(path.string());
        if (cached == included.end()) {
          std::string content;
          // A file that cannot be opened leaves the directive out; devices and folders are never read.
          std::error_code error;
          if (!std::filesystem::is_regular_file(path, error) || !ReadWholeFile(path.string(), content)) continue;
          inputBytes += content.size();
          cached = included.emplace(path.string(), std::move(content)).first;
        }
        const std::string& includedText = cached->second;
        Run(includedText, path.parent_path(), depth + 1, out);
        if (!out.empty() && out.back() != '\n') out += '\n';
        continue;
      }
      if (!Spend(line.size() + 1)) break;
      out += line;
      if (!lastLine) out += '\n';
    }
  }
};

}  // namespace

bool PreprocessSfz(const std::string& text, const std::string& folder, std::vector<SfzLogEntry>* log,
                   std::string& out) {
  Preprocessor pre;
  pre.log = log;
  out.clear();
  out.reserve(text.size());
  pre.inputBytes = text.size();
  pre.Run(text, folder, 0, out);
  if (pre.overBudget) {
    SetLastError("Too much text from #define and #include (over " + std::to_string(pre.Budget()) +
                 " bytes) for this file");
    out.clear();
    return false;
  }
  return true;
}

std::string PreprocessSfz(const std::string& text, const std::string& folder, std::vector<SfzLogEntry>* log) {
  std::string out;
  PreprocessSfz(text, folder, log, out);
  return out;
}

std::vector<SfzToken> TokenizeSfz(const std::string& text) {
  std::vector<SfzToken> tokens;
  int line = 1;
  size_t lineStart = 0;
  size_t i = 0;
  int newlinesInRow = 0;
  size_t lineEnd = std::string::npos;  // end of the line at hand, once found
  auto token = [&](SfzTokenKind kind, size_t at) {
    SfzToken t;
    t.kind = kind;
    t.line = line;
    t.column = int(at - lineStart) + 1;
    return t;
  };
  const size_t size = text.size();
  while (i < size) {
    const char c = text[i];
    if (c == '\n') {
      ++newlinesInRow;
      if (newlinesInRow == 2) tokens.push_back(token(SfzTokenKind::BlankLine, i));
      ++line;
      lineStart = ++i;
      continue;
    }
    if (IsBlank(c)) {
      ++i;
      continue;
    }
    newlinesInRow = 0;
    const size_t start = i;
    // The line's end is found once per line, not once per token: a line of a million opcodes stays linear.
    if (lineEnd == std::string::npos || lineEnd < i) {
      lineEnd = text.find('\n', i);
      if (lineEnd == std::string::npos) lineEnd = size;
    }
    if (c == '/') {
      SfzToken t = token(SfzTokenKind::Comment, start);
      size_t p = i;
      while (p < lineEnd && (text[p] == '/' || IsBlank(text[p]))) ++p;
      size_t e = lineEnd;
      while (e > p && IsBlank(text[e - 1])) --e;
      t.key = text.substr(p, e - p);
      tokens.push_back(std::move(t));
      i = lineEnd;
      continue;
    }
    if (c == '<') {
      const size_t close = text.find('>', i);
      if (close != std::string::npos && close < lineEnd) {
        SfzToken t = token(SfzTokenKind::Header, start);
        std::string name = text.substr(i + 1, close - i - 1);
        for (char& ch : name) ch = char(std::tolower(uint8_t(ch)));
        t.key = std::move(name);
        tokens.push_back(std::move(t));
        i = close + 1;
        continue;
      }
    }
    // key=value
    size_t p = i;
    while (p < lineEnd && !IsBlank(text[p]) && text[p] != '=') ++p;
    if (p >= lineEnd || text[p] != '=') {
      // A word without "=" before the blank or line end is skipped.
      while (i < lineEnd && !IsBlank(text[i])) ++i;
      continue;
    }
    SfzToken t = token(SfzTokenKind::Opcode, start);
    t.key = text.substr(i, p - i);
    for (char& ch : t.key) ch = char(std::tolower(uint8_t(ch)));
    size_t v = p + 1;
    size_t e = v;
    if (t.key == "sample") {
      // To the line end, less a following opcode, header or comment.
      e = lineEnd;
      for (size_t q = v; q < lineEnd; ++q) {
        if (!IsBlank(text[q])) continue;
        size_t r = q;
        while (r < lineEnd && IsBlank(text[r])) ++r;
        if (r >= lineEnd) break;
        if (text[r] == '<' || text[r] == '/') {
          e = q;
          break;
        }
        size_t k = r;
        while (k < lineEnd && IsKeyChar(text[k])) ++k;
        if (k > r && k < lineEnd && text[k] == '=') {
          e = q;
          break;
        }
      }
      while (e > v && IsBlank(text[e - 1])) --e;
    } else {
      while (e < lineEnd && !IsBlank(text[e])) ++e;
    }
    t.value = text.substr(v, e - v);
    tokens.push_back(std::move(t));
    i = e;
  }
  return tokens;
}

bool ParseSfzKey(const std::string& value, int& key) {
  if (value.empty()) return false;
  size_t at = 0;
  const char first = char(std::tolower(uint8_t(value[0])));
  if (first >= 'a' && first <= 'g') {
    static constexpr int kSemitones[7] = {9, 11, 0, 2, 4, 5, 7};  // a b c d e f g
    int semitone = kSemitones[first - 'a'];
    at = 1;
    if (at < value.size() && value[at] == '#') {
      ++semitone;
      ++at;
    } else if (at < value.size() && value[at] == 'b') {
      --semitone;
      ++at;
    }
    bool negative = false;
    if (at < value.size() && value[at] == '-') {
      negative = true;
      ++at;
    }
    if (at >= value.size() || !std::isdigit(uint8_t(value[at]))) return false;
    int octave = 0;
    while (at < value.size() && std::isdigit(uint8_t(value[at])) && octave < 100) octave = octave * 10 + (value[at++] - '0');
    if (negative) octave = -octave;
    key = (octave + 1) * 12 + semitone;  // c4 is key 60
    return true;
  }
  char* end = nullptr;
  const long number = std::strtol(value.c_str(), &end, 10);
  if (end == value.c_str()) return false;
  key = int(std::clamp<long>(number, -1000, 1000));
  return true;
}

int32_t DetectSfz(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  const std::string_view text(reinterpret_cast<const char*>(head), std::min<uint32_t>(headBytes, 1024));
  return text.find("<region>") != std::string_view::npos ? 4 : 2;
}

}  // namespace orlin
