// The sample flow: block encoders against the per-sample encoder they replaced (kept here as the
// reference), the generic decoder's streaming twin against its whole-wave decode, and the layer
// placement and compaction that must stay what the overlap rule gives while running in linear time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "core/collection.h"
#include "core/fixup.h"
#include "core/pcm.h"
#include "core/region_grid.h"
#include "core/wave_stream.h"
#include "test_support.h"

namespace orlin {
namespace {

// The encoder as it stood before the block loops, one call per sample: the bytes it gives are the
// contract.
uint8_t ReferenceMuLaw(int sample) {
  constexpr int kBias = 0x84, kClip = 32635;
  const int sign = sample < 0 ? 0x80 : 0;
  int magnitude = std::min(sample < 0 ? -sample : sample, kClip) + kBias;
  int exponent = 7;
  for (int mask = 0x4000; !(magnitude & mask) && exponent > 0; mask >>= 1) --exponent;
  const int mantissa = (magnitude >> (exponent + 3)) & 15;
  return uint8_t(~(sign | (exponent << 4) | mantissa));
}
uint8_t ReferenceALaw(int sample) {
  const int sign = sample >= 0 ? 0x80 : 0;
  int magnitude = std::min(sample < 0 ? -sample - 1 : sample, 32767) >> 3;
  uint8_t code;
  if (magnitude < 32) {
    code = uint8_t(magnitude >> 1);
  } else {
    int exponent = 1;
    while (magnitude >= (32 << exponent) && exponent < 7) ++exponent;
    code = uint8_t((exponent << 4) | ((magnitude >> exponent) & 15));
  }
  return uint8_t((code | sign) ^ 0x55);
}
void ReferenceStore(uint8_t* out, float value, uint32_t storage, bool isUnsigned, bool bigEndian, int32_t& delta) {
  auto clampRound = [](double v, double scale, double lo, double hi) {
    // A NaN (the mean of two infinities) went through the cast as the lowest 64-bit integer, which
    // is what x86 gives; spelt out here so that the reference itself stays defined.
    if (std::isnan(v)) return std::numeric_limits<int64_t>::min();
    return int64_t(std::clamp(std::nearbyint(v * scale), lo, hi));
  };
  auto putBytes = [&](uint64_t raw, int count) {
    for (int k = 0; k < count; ++k) out[bigEndian ? count - 1 - k : k] = uint8_t(raw >> (8 * k));
  };
  switch (storage) {
    case kStoragePcm8: out[0] = uint8_t(clampRound(value, 128, -128, 127) ^ (isUnsigned ? 0x80 : 0)); break;
    case kStorageMuLaw: out[0] = ReferenceMuLaw(int(clampRound(value, 32768, -32768, 32767))); break;
    case kStorageALaw: out[0] = ReferenceALaw(int(clampRound(value, 32768, -32768, 32767))); break;
    case kStorageDelta8: {
      const int32_t sample = int32_t(clampRound(value, 128, -128, 127));
      out[0] = uint8_t(int8_t(sample - delta) ^ (isUnsigned ? 0x80 : 0));
      delta = sample;
      break;
    }
    case kStoragePcm16: putBytes(uint16_t(clampRound(value, 32768, -32768, 32767) ^ (isUnsigned ? 0x8000 : 0)), 2); break;
    case kStorageDelta16: {
      const int32_t sample = int32_t(clampRound(value, 32768, -32768, 32767));
      putBytes(uint16_t(int16_t(sample - delta) ^ (isUnsigned ? 0x8000 : 0)), 2);
      delta = sample;
      break;
    }
    case kStoragePcm24:
      putBytes(uint32_t(clampRound(value, 8388608, -8388608, 8388607) ^ (isUnsigned ? 0x800000 : 0)) & 0xFFFFFF, 3);
      break;
    case kStoragePcm32:
      putBytes(uint32_t(clampRound(value, 2147483648.0, -2147483648.0, 2147483647.0) ^ (isUnsigned ? 0x80000000u : 0)), 4);
      break;
    case kStorageFloat32: {
      uint32_t raw;
      std::memcpy(&raw, &value, 4);
      putBytes(raw, 4);
      break;
    }
    case kStorageFloat64: {
      const double wide = value;
      uint64_t raw;
      std::memcpy(&raw, &wide, 8);
      putBytes(raw, 8);
      break;
    }
    default: break;
  }
}

std::vector<uint8_t> ReferenceEncode(const std::vector<float>& samples, uint32_t sourceChannels, uint32_t storage,
                                     uint32_t channels, uint32_t flags) {
  const bool isUnsigned = flags & kSourceUnsigned, bigEndian = flags & kSourceBigEndian;
  const size_t width = BitsOf(storage) / 8;
  std::vector<uint8_t> out;
  int32_t deltas[2] = {0, 0};
  for (size_t f = 0; f < samples.size() / sourceChannels; ++f) {
    const float* frame = samples.data() + f * sourceChannels;
    for (uint32_t c = 0; c < channels; ++c) {
      float value;
      if (channels == sourceChannels) value = frame[c];
      else if (channels == 1) value = 0.5f * (frame[0] + frame[1]);
      else value = frame[0];
      uint8_t bytes[8];
      ReferenceStore(bytes, value, storage, isUnsigned, bigEndian, deltas[c]);
      out.insert(out.end(), bytes, bytes + width);
    }
  }
  return out;
}

// Values that find rounding and clamping faults: ties at every scale, the ends of the range and
// past them, infinities, and noise; long enough to cross several blocks.
std::vector<float> HardValues(uint32_t channels) {
  std::vector<float> values = {0.0f, -0.0f, 1.0f, -1.0f, 1.5f, -1.5f, 0.99999994f, -0.99999994f,
                               std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                               std::numeric_limits<float>::denorm_min()};
  for (double scale : {128.0, 32768.0, 8388608.0, 2147483648.0})
    for (double k : {0.5, 1.5, 2.5, -0.5, -1.5, -2.5, 127.5, -128.5, 32767.5, -32768.5, 100.49, -100.51})
      values.push_back(float(k / scale));
  test::SeededRandom random(7);
  while (values.size() < 140000) values.push_back(random.Uniform(-1.2f, 1.2f));
  values.resize(values.size() / channels * channels);
  return values;
}

TEST(SampleBlocks, EveryStorageEncodesTheBytesThePerSampleEncoderGave) {
  const uint32_t storages[] = {kStoragePcm8,    kStoragePcm16,  kStoragePcm24, kStoragePcm32,  kStorageFloat32,
                               kStorageFloat64, kStorageMuLaw,  kStorageALaw,  kStorageDelta8, kStorageDelta16};
  for (uint32_t sourceChannels : {1u, 2u}) {
    const std::vector<float> samples = HardValues(sourceChannels);
    Collection collection;
    auto* wave = new Waveform(&collection);
    wave->channels = uint8_t(sourceChannels);
    wave->length = uint32_t(samples.size() / sourceChannels);
    std::copy(samples.begin(), samples.end(), wave->AllocSamples());
    for (uint32_t storage : storages)
      for (uint32_t channels : {1u, 2u})
        for (uint32_t flags : {0u, kSourceUnsigned, kSourceBigEndian, kSourceUnsigned | kSourceBigEndian}) {
          std::vector<uint8_t> ours;
          ASSERT_TRUE(AppendSamples(ours, *wave, storage, channels, flags));
          const std::vector<uint8_t> reference = ReferenceEncode(samples, sourceChannels, storage, channels, flags);
          ASSERT_EQ(ours.size(), reference.size()) << StorageName(storage);
          EXPECT_TRUE(ours == reference) << StorageName(storage) << " from " << sourceChannels << " to " << channels
                                         << " channels, flags " << std::hex << flags;
        }
  }
}

// A generic PCM wave decoded whole and streamed in blocks gives the same floats, for interleaved and
// sequential stereo, packed 12-bit pairs and delta storage; a file cut short ends the stream early.
TEST(SampleBlocks, StreamedGenericPcmMatchesTheWholeDecode) {
  test::ScratchDir dir;
  test::SeededRandom random(11);
  std::vector<uint8_t> bytes(300001);
  for (uint8_t& b : bytes) b = uint8_t(random.Next() >> 56);
  test::WriteBytes(dir.File("raw.bin"), bytes);
  struct Case {
    uint32_t storage, channels, flags;
    uint64_t offsetB;
  };
  const Case cases[] = {{kStoragePcm16, 2, 0, 0},           {kStoragePcm24, 1, kSourceBigEndian, 0},
                        {kStoragePcm12, 1, 0, 0},           {kStorageDelta16, 2, kSourceUnsigned, 0},
                        {kStoragePcm8, 2, kSourceSequentialStereo, 0},
                        {kStoragePcm16, 2, kSourceSequentialStereo, 150001}};
  for (const Case& c : cases) {
    Collection collection;
    collection.SetText(kTextSourceFile, dir.File("raw.bin"));
    auto* whole = new Waveform(&collection);
    whole->SetPcmSourceByFormat(c.storage, c.flags);
    whole->channels = uint8_t(c.channels);
    whole->sourceOffset = 1;
    whole->sourceOffsetB = c.offsetB;
    whole->length = uint32_t((bytes.size() - 1) * 8 / (BitsOf(c.storage) * c.channels) / 2);
    auto* streamed = new Waveform(&collection, *whole, false, "copy");
    ASSERT_NE(whole->GetSamplesForRead(), nullptr) << StorageName(c.storage);
    std::unique_ptr<WaveStream> stream = OpenWaveStream(*streamed);
    ASSERT_TRUE(stream);
    EXPECT_EQ(streamed->Data(), nullptr) << "streaming must not decode the wave whole";
    std::vector<float> got, block(1000 * c.channels);
    for (int64_t n; (n = stream->Read(block.data(), 1000)) > 0;) got.insert(got.end(), block.begin(), block.begin() + n * c.channels);
    ASSERT_EQ(got.size(), size_t(whole->length) * c.channels) << StorageName(c.storage);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), whole->Data()->samples)) << StorageName(c.storage);
  }
  // A length past the end of the file: the stream stops where the data stops.
  Collection collection;
  collection.SetText(kTextSourceFile, dir.File("raw.bin"));
  auto* forged = new Waveform(&collection);
  forged->SetPcmSourceByFormat(kStoragePcm16, 0);
  forged->length = 0x7FFFFFFF;
  std::unique_ptr<WaveStream> stream = OpenWaveStream(*forged);
  ASSERT_TRUE(stream);
  std::vector<float> block(65536);
  uint64_t total = 0;
  for (int64_t n; (n = stream->Read(block.data(), 65536)) > 0;) total += uint64_t(n);
  EXPECT_EQ(total, bytes.size() / 2);
}

// Placement by the grids gives the layers the region-by-region overlap test gives.
TEST(LayerPlacement, PlacerChoosesAsTheOverlapTestAndCompactionMergesAsBefore) {
  test::SeededRandom random(5);
  Collection reference, placed;
  auto* a = new Instrument(&reference);
  auto* b = new Instrument(&placed);
  LayerPlacer placer(*b);
  for (int i = 0; i < 400; ++i) {
    const int lo = int(random.Next() % 128), span = int(random.Next() % 24);
    const int vlo = int(random.Next() % 4) * 32;
    const uint32_t keys = PackRange(lo, std::min(lo + span, 127)), velocities = PackRange(vlo, vlo + 31);
    a->AddRegion(kNoWave, keys, velocities, -1);
    placer.AddRegion(kNoWave, keys, velocities, -1);
  }
  auto shape = [](Instrument& instrument) {
    std::vector<std::vector<std::pair<int, int>>> layers;
    for (Layer* layer : ChildrenOf<Layer>(instrument)) {
      layers.emplace_back();
      for (Region* region : ChildrenOf<Region>(*layer)) layers.back().emplace_back(region->range.loKey, region->range.loVelocity);
    }
    return layers;
  };
  EXPECT_EQ(shape(*a), shape(*b));
  EXPECT_GT(a->children.size(), 3u);

  // Compaction: every region on a layer of its own, then merged. The reference is the pairwise rule
  // spelt out with the model's own overlap test: each layer goes to the first earlier standing layer
  // it does not collide with.
  Collection spread;
  auto* c = new Instrument(&spread);
  std::vector<std::pair<uint32_t, uint32_t>> rects;
  for (int i = 0; i < 300; ++i) {
    const int lo = int(random.Next() % 128), span = int(random.Next() % 40);
    const int vlo = int(random.Next() % 8) * 16;
    rects.emplace_back(PackRange(lo, std::min(lo + span, 127)), PackRange(vlo, vlo + 15 + int(random.Next() % 2) * 16));
    auto* layer = new Layer(&spread);
    layer->parentId = c->id;
    c->children.push_back(layer->id);
    auto* region = new Region(&spread, MakeId(ItemType::Region, kNextFreeIndex), kNoWave, rects.back().first,
                              rects.back().second, -1);
    region->parentId = layer->id;
    layer->children.push_back(region->id);
  }
  std::vector<std::vector<size_t>> expected;
  for (size_t i = 0; i < rects.size(); ++i) {
    bool placed = false;
    for (auto& group : expected) {
      const bool collides = std::any_of(group.begin(), group.end(), [&](size_t j) {
        const auto touch = [](uint32_t x, uint32_t y) {
          return int(x & 0xFF) <= int(y >> 8) && int(y & 0xFF) <= int(x >> 8);
        };
        return touch(rects[i].first, rects[j].first) && touch(rects[i].second, rects[j].second);
      });
      if (!collides) {
        group.push_back(i);
        placed = true;
        break;
      }
    }
    if (!placed) expected.push_back({i});
  }
  EXPECT_EQ(CompactLayers(*c, false, false), int(rects.size() - expected.size()));
  const std::vector<Layer*> layers = ChildrenOf<Layer>(*c);
  ASSERT_EQ(layers.size(), expected.size());
  for (size_t l = 0; l < layers.size(); ++l) {
    const std::vector<Region*> regions = ChildrenOf<Region>(*layers[l]);
    ASSERT_EQ(regions.size(), expected[l].size()) << "layer " << l;
    for (size_t r = 0; r < regions.size(); ++r)
      EXPECT_EQ(PackRange(regions[r]->range.loKey, regions[r]->range.hiKey), rects[expected[l][r]].first);
  }
}

}  // namespace
}  // namespace orlin
