// What every codec glue layer gives: a decoding stream of float frames with its tags, and the
// tags an encoder writes. Streams read through a FileObject, so they work at any source offset.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orlin {
class FileObject;
class TextItem;
}  // namespace orlin

namespace orlin::addons {

// The text fields a compressed file carries, and its front-cover picture.
struct AudioTags {
  std::string title, artist, comments, copyright, album;
  std::vector<uint8_t> picture;  // the image file's bytes (PNG, JPEG...)
  std::string pictureMime;
};
void TagsToItem(const AudioTags& tags, TextItem& item);
AudioTags TagsFromItem(const TextItem& item);
// Vorbis-comment style "KEY=value" pairs, as FLAC, Ogg Vorbis and Opus store them.
void AddVorbisComment(AudioTags& tags, std::string_view comment);
std::vector<std::pair<std::string, std::string>> VorbisComments(const AudioTags& tags);
// The FLAC picture block, as a METADATA_BLOCK_PICTURE comment holds it in base 64.
bool ParsePictureBlock(const uint8_t* data, size_t size, AudioTags& tags);
std::vector<uint8_t> MakePictureBlock(const AudioTags& tags);
std::string Base64Encode(const std::vector<uint8_t>& bytes);
std::vector<uint8_t> Base64Decode(std::string_view text);

// A decoder open on one stream. Frames come back interleaved and in order.
class AudioStream {
 public:
  virtual ~AudioStream() = default;
  // Up to `frames` frames into `out`; 0 at the end. Negative on a decoding error.
  virtual int64_t Read(float* out, uint32_t frames) = 0;
  virtual bool Seek(uint64_t frame) = 0;

  uint32_t channels = 0;
  uint32_t rate = 0;
  uint64_t frames = 0;  // total length; 0 when unknown
  uint32_t bits = 16;   // bits of the source for lossless codecs
  bool lossless = false;
  AudioTags tags;
};

// Decodes everything from the stream's position into `out`, at most `limit` frames.
bool ReadAllFrames(AudioStream& stream, std::vector<float>& out, uint64_t limit);

// A stereo or mono float signal to encode.
struct EncodeInput {
  const float* samples = nullptr;  // interleaved
  uint32_t frames = 0;
  uint32_t channels = 1;
  uint32_t rate = 44100;
  AudioTags tags;
};

}  // namespace orlin::addons
