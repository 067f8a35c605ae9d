// sfArk archives: a packed SoundFont that the sfArk add-on unpacks into a real .sf2 beside the
// archive, which is then read as any bank, its waves pointing at the unpacked file. The header's
// compression byte tells version-1 archives (methods 0-2), which the add-on cannot unpack, from the
// version-2 ones (3-7).
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <unordered_set>

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/user_interface.h"
#include "formats/audio/addons/sfark_addon.h"
#include "formats/instrument/soundfont/soundfont.h"

namespace orlin {

namespace {

namespace fs = std::filesystem;

constexpr size_t kSignatureAt = 26;
constexpr size_t kMethodAt = 31;
constexpr uint8_t kFirstV2Method = 3;
constexpr uint8_t kLastV2Method = 7;
// The add-on's codes for a version it cannot take and a feature it does not have.
constexpr int kSfArkIncompatible = -5;
constexpr int kSfArkUnsupported = -6;

bool Fail(const char* text) {
  SetLastError(text);
  return false;
}

}  // namespace

int32_t DetectSfArk(const uint8_t* head, uint32_t, uint32_t headBytes, uint64_t) {
  if (headBytes < kMethodAt + 1 || std::memcmp(head + kSignatureAt, "sfArk", 5) != 0) return 0;
  return 6;
}

std::string SfArkTargetPath(const std::string& archive) {
  const fs::path source(archive);
  const fs::path folder = source.parent_path();
  const std::string stem = source.stem().string();
  fs::path candidate = folder / (stem + ".sf2");
  std::error_code error;
  for (int number = 1; fs::exists(candidate, error); ++number)
    candidate = folder / (stem + " " + std::to_string(number) + ".sf2");
  return candidate.string();
}

bool ReadSfArk(Collection* collection, FileObject* file, uint32_t) {
  uint8_t head[kMethodAt + 1] = {};
  // An archive behind self-extractor code has no signature at 0; the add-on finds its header.
  if (file->ReadAt(0, head, sizeof head) && std::memcmp(head + kSignatureAt, "sfArk", 5) == 0) {
    if (head[kMethodAt] < kFirstV2Method) return Fail("sfArk v1 files are not supported");
    if (head[kMethodAt] > kLastV2Method) return Fail("Unknown sfArk compression type");
  }
  const std::string target = SfArkTargetPath(file->Path());
  SetStatus("Decompressing sfArk", StatusMode::ProgressLabel);
  const int result = addons::UnpackSfArk(file->Path(), target);
  if (result != 0) {
    std::error_code error;
    fs::remove(target, error);  // what a failed unpack leaves is not a bank
    if (result == addons::kSfArkNotLoaded) return Fail(addons::kSfArkMissing);
    if (result == kSfArkIncompatible || result == kSfArkUnsupported) return Fail("Unsupported sfArk compression");
    return Fail("sfArk decompression failed");
  }
  SetStatus("Reading SF2", StatusMode::ProgressLabel);
  FileObject unpacked;
  if (!unpacked.Open(target, FileMode::Read)) return false;
  std::unordered_set<uint32_t> before;
  for (Waveform* wave : collection->All<Waveform>()) before.insert(wave->id);
  if (!ReadSoundFont(collection, &unpacked, 0)) return false;
  // The waves decode later from the unpacked bank, not from the archive.
  for (Waveform* wave : collection->All<Waveform>())
    if (!before.count(wave->id)) wave->SetText(kTextSourceFile, target);
  return true;
}

}  // namespace orlin
