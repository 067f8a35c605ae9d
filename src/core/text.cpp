#include "core/text.h"

#include <cstdint>

namespace orlin {

namespace {

// Code points of Windows-1252 bytes 0x80-0x9F; zero where the code page leaves the byte undefined.
constexpr uint16_t kCp1252High[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(char(cp));
  } else if (cp < 0x800) {
    out.push_back(char(0xC0 | (cp >> 6)));
    out.push_back(char(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(char(0xE0 | (cp >> 12)));
    out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(char(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(char(0xF0 | (cp >> 18)));
    out.push_back(char(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(char(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(char(0x80 | (cp & 0x3F)));
  }
}

// Decodes one code point; returns bytes used, 0 on a malformed sequence.
size_t DecodeUtf8(std::string_view s, size_t i, uint32_t& cp) {
  const auto b0 = uint8_t(s[i]);
  size_t need;
  if (b0 < 0x80) { cp = b0; return 1; }
  if ((b0 & 0xE0) == 0xC0) { cp = b0 & 0x1F; need = 2; }
  else if ((b0 & 0xF0) == 0xE0) { cp = b0 & 0x0F; need = 3; }
  else if ((b0 & 0xF8) == 0xF0) { cp = b0 & 0x07; need = 4; }
  else return 0;
  if (i + need > s.size()) return 0;
  for (size_t k = 1; k < need; ++k) {
    const auto b = uint8_t(s[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  // Overlong forms and surrogates are not valid UTF-8.
  static constexpr uint32_t kMinForLength[5] = {0, 0, 0x80, 0x800, 0x10000};
  if (cp < kMinForLength[need] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return need;
}

}  // namespace

bool IsValidUtf8(std::string_view bytes) {
  uint32_t cp;
  for (size_t i = 0; i < bytes.size();) {
    const size_t n = DecodeUtf8(bytes, i, cp);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string NarrowToUtf8(std::string_view bytes) {
  if (IsValidUtf8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() + bytes.size() / 2);
  for (char c : bytes) {
    const auto b = uint8_t(c);
    if (b >= 0x80 && b < 0xA0) {
      const uint16_t cp = kCp1252High[b - 0x80];
      AppendUtf8(out, cp ? cp : b);
    } else {
      AppendUtf8(out, b);
    }
  }
  return out;
}

std::string Utf8ToNarrow(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size());
  for (size_t i = 0; i < utf8.size();) {
    uint32_t cp;
    size_t n = DecodeUtf8(utf8, i, cp);
    if (n == 0) {  // not UTF-8 after all: the byte stands for itself
      out.push_back(utf8[i]);
      ++i;
      continue;
    }
    i += n;
    if (cp < 0x80 || (cp >= 0xA0 && cp <= 0xFF)) {
      out.push_back(char(cp));
      continue;
    }
    char mapped = '_';
    for (int k = 0; k < 32; ++k)
      if (kCp1252High[k] == cp) mapped = char(0x80 + k);
    out.push_back(mapped);
  }
  return out;
}

std::string ToUpperAscii(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'a' && c <= 'z') c = char(c - 'a' + 'A');
  return out;
}

std::string ToLowerAscii(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  return out;
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ToUpperAscii(a) == ToUpperAscii(b);
}

std::string NoteName(int key) {
  static constexpr const char* kNames[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
  if (key < 0 || key > 127) return "?";
  return std::string(kNames[key % 12]) + std::to_string(key / 12 - 1);
}

}  // namespace orlin
