#include "core/last_error.h"

namespace orlin {

namespace {
thread_local std::string lastErrorText;
}

void SetLastError(std::string_view text) {
  lastErrorText.assign(text.substr(0, kLastErrorMaxChars));
}

const std::string& LastError() { return lastErrorText; }

void ClearLastError() { lastErrorText.clear(); }

}  // namespace orlin
