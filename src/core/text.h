// Text at the file edge. In memory every string is UTF-8; legacy 8-bit fields are Windows-1252.
#pragma once
#include <string>
#include <string_view>

namespace orlin {

// Bytes from a file: kept when they are valid UTF-8, else read as Windows-1252.
std::string NarrowToUtf8(std::string_view bytes);
// For fixed-width legacy fields: Windows-1252, characters it cannot hold become '_'.
std::string Utf8ToNarrow(std::string_view utf8);
bool IsValidUtf8(std::string_view bytes);

std::string ToUpperAscii(std::string_view text);
std::string ToLowerAscii(std::string_view text);
bool EqualsIgnoreCase(std::string_view a, std::string_view b);

// "C-1" .. "G9": 60 is "C4".
std::string NoteName(int key);

}  // namespace orlin
