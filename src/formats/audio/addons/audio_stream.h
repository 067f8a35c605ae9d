// What every codec glue layer gives: a decoding stream of float frames with its tags, and the
// tags an encoder writes. Streams read through a FileObject, so they work at any source offset.
#pragma once
#include "core/file_object.h"
#include <cstdint>
#include <functional>
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
  // The chunks of a WAVE the file was made of, as FLAC and WavPack keep them (a RIFF head, "fmt ",
  // the head of "data", "smpl", "cue "...): where a loop and markers may be. Empty when none.
  std::vector<uint8_t> keptChunks;
};

// Decodes everything from the stream's position into `out`, at most `limit` frames.
bool ReadAllFrames(AudioStream& stream, std::vector<float>& out, uint64_t limit);

// A stereo or mono float signal to encode: whole in memory, or, for encoders that take it so, pulled
// in blocks from `pull` (up to the frames asked for, 0 at the end, negative on a failure).
struct EncodeInput {
  const float* samples = nullptr;  // interleaved
  std::function<int64_t(float* out, uint32_t frames)> pull;
  uint32_t frames = 0;  // with `pull`, the length stated ahead; the frames pulled decide
  uint32_t channels = 1;
  uint32_t rate = 44100;
  AudioTags tags;
  // Whole WAVE chunks (smpl, cue, LIST) for containers that keep a WAVE's chunks; empty: none.
  std::vector<uint8_t> keptChunks;
};

// The head of a WAVE around `input.keptChunks`, chunk by chunk, as FLAC (one APPLICATION "riff"
// block each) and WavPack (one header wrapper) keep a WAVE's own: the RIFF head, "fmt ", each kept
// chunk, and the head of "data" sized for `input.frames`.
std::vector<std::vector<uint8_t>> ForeignRiffChunks(const EncodeInput& input, uint32_t bits, bool isFloat);

// A file seen from a position onward, as the codec libraries' read/seek/tell callbacks want it:
// offsets are relative to `base`. Seek takes SEEK_SET, SEEK_CUR or SEEK_END; false when it fails.
struct FileSource {
  FileObject* file;
  uint64_t base;
  size_t Read(void* buffer, size_t bytes) { return bytes ? file->Read(buffer, bytes) : 0; }
  // The new position relative to `base`, or -1.
  int64_t Seek(int64_t offset, int whence);
  int64_t Tell() const { return int64_t(file->Tell() - base); }
};

// The rest of `file` from its position into memory; false with the last-error text.
bool ReadRestOfFile(FileObject& file, std::vector<uint8_t>& out);

// A stream whose decoder gives whole packets of frames: Read hands them out in the sizes asked for.
class PacketStream : public AudioStream {
 public:
  int64_t Read(float* out, uint32_t frames) override;

 protected:
  // Decodes the next packet into `pending`; false at the end.
  virtual bool DecodePacket() = 0;
  // Decodes and drops `frames` frames (a seek lands on a packet before the target); false at the end.
  bool SkipFrames(uint64_t frames);
  void DropPending() {
    pending.clear();
    pendingAt = 0;
  }
  std::vector<float> pending;  // interleaved frames not yet handed out
  size_t pendingAt = 0;
};

}  // namespace orlin::addons
