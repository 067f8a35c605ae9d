#include "formats/audio/raw.h"

#include "core/collection.h"
#include "core/file_object.h"
#include "core/last_error.h"
#include "core/pcm.h"
#include "core/save_choice.h"

namespace orlin {

namespace {

// DVD rows carry their rate in the variant's top bits: 1 44.1 kHz, 2 48 kHz, 3 96 kHz, 4 192 kHz.
constexpr uint32_t kDvdRateShift = 28;
constexpr uint32_t kDvdRates[] = {0, 44100, 48000, 96000, 192000};

uint32_t DvdRate(uint32_t variant) {
  const uint32_t code = (variant >> kDvdRateShift) & 7;
  return code < 5 ? kDvdRates[code] : 0;
}

}  // namespace

bool ReadRawPcm(Collection* collection, FileObject* file, uint32_t variant) {
  const uint32_t sourceWord = variant & 0x0FFFFFFF;
  const uint32_t storage = StorageFromMask(sourceWord & kSourceStorageMask);
  const uint32_t bits = BitsOf(storage);
  const int64_t size = file->Size();
  if (bits == 0 || size <= 0) {
    SetLastError("File is of zero size");
    return false;
  }
  const uint32_t rate = DvdRate(variant);
  auto* wave = new Waveform(collection);
  wave->SetPcmSourceByFormat(storage, sourceWord);
  wave->channels = rate ? 2 : 1;
  wave->sampleRate = rate ? rate : 44100;
  wave->sourceOffset = 0;
  const uint64_t frames = uint64_t(size) * 8 / (uint64_t(bits) * wave->channels);
  wave->length = uint32_t(std::min<uint64_t>(frames, 0xFFFFFFFF));
  return true;
}

bool WriteRawPcm(Item* item, FileObject* file, const SaveOptions* options) {
  auto* wave = static_cast<Waveform*>(item);
  const uint32_t sourceWord = options->variant & 0x0FFFFFFF;
  double rate = 0;
  const uint32_t storage = ChooseSaveFormat(*wave, *options, rate);
  const uint32_t channels = ChooseChannels(*wave, *options);
  return WriteSamples(*file, *wave, storage, channels, sourceWord & ~kSourceStorageMask);
}

}  // namespace orlin
