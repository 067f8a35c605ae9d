#include "formats/common/generic_rows.h"

#include "core/collection.h"
#include "core/file_object.h"
#include "core/user_interface.h"

namespace orlin {

namespace {
// Per thread: one batch worker's "skip all" must not silence another's.
thread_local bool skipAllUnrecognized = false;
}  // namespace

void ResetUnrecognizedAnswers() { skipAllUnrecognized = false; }

bool ReadUnrecognized(Collection* collection, FileObject* file, uint32_t) {
  if (skipAllUnrecognized) return true;
  const int answer = Ui().Ask(
      "Unrecognized file",
      "The selected file can not be detected as any of the supported import types. Select OK to read it as raw "
      "data...\n\nYou'll need to adjust the data format on the 'Source' tab of the waveform properties.",
      {"OK", "Skip", "Skip all"});
  if (answer == 2) skipAllUnrecognized = true;
  if (answer != 0) return true;  // skipped: nothing created
  const int64_t size = file->Size();
  auto* wave = new Waveform(collection);
  wave->SetPcmSourceByFormat(kStoragePcm8, 0);
  wave->sampleRate = 44100;
  wave->channels = 1;
  wave->sourceOffset = 0;
  // size * 8 / (bits * channels), with 8-bit mono
  wave->length = uint32_t(std::min<int64_t>(size, 0xFFFFFFFF));
  return true;
}

int32_t DetectZip(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (headBytes < 4) return 0;
  const uint32_t first = uint32_t(head[0]) | uint32_t(head[1]) << 8 | uint32_t(head[2]) << 16 | uint32_t(head[3]) << 24;
  // Local file header, end of central directory (empty archive), or a spanned archive's marker.
  return (first == 0x04034B50 || first == 0x06054B50 || first == 0x08074B50) ? 6 : 0;
}

bool ReadZipArchive(Collection*, FileObject* file, uint32_t) {
  const std::string path = file->Path();
  file->Close();
  Ui().OpenExternally(path);
  return true;
}

}  // namespace orlin
