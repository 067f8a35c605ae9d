// What the Korg readers share: big-endian words and the fixed-width names of their records.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/last_error.h"

namespace orlin::korg {

inline uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }

inline bool Fail(const std::string& text) {
  SetLastError(text);
  return false;
}

// A name field: up to its first zero, trailing blanks dropped.
inline std::string Field(const uint8_t* bytes, size_t size) {
  std::string text(reinterpret_cast<const char*>(bytes), size);
  text = text.substr(0, text.find('\0'));
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

}  // namespace orlin::korg
