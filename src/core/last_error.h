// The one last-error text of the thread: an operation that fails returns false (or null) and leaves
// its reason here; the caller decides how to show it.
#pragma once
#include <string>
#include <string_view>

namespace orlin {

// Longer texts are cut, as the stored text holds at most 256 characters.
constexpr size_t kLastErrorMaxChars = 256;

void SetLastError(std::string_view text);
const std::string& LastError();
void ClearLastError();

}  // namespace orlin
