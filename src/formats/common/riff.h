// Chunk walkers and the chunk writer of RIFF-style files. A walk always advances by head + size +
// pad, so a forged size can end it but never stall it; a chunk reaching past the limit is cut to it,
// and the number of chunks is capped. Wave-64 has the same walk with 16-byte ids, 64-bit sizes that
// count the 24-byte head, and bodies padded to 8.
#pragma once
#include <array>
#include <cstdint>
#include <vector>

#include "formats/common/byte_reader.h"

namespace orlin {

class FileObject;

// No sensible file has more chunks; a forged one stops here rather than walking for ever.
constexpr uint32_t kMaxChunks = 1u << 20;

class RiffCursor {
 public:
  // Reads the 12-byte head at `start` (tag, size, form) and limits the walk to `end` and to the
  // head's own size. False when the head cannot be read.
  bool Open(FileObject& file, uint64_t start, uint64_t end);
  // Moves to the next chunk head; false at the end of the walk.
  bool Step();
  // Reads from the current chunk; fails when the chunk holds fewer bytes or the file is short.
  bool Read(void* buffer, uint64_t count);
  // Reads the rest of the chunk, at most `maxBytes` of it.
  bool ReadBody(std::vector<uint8_t>& out, uint64_t maxBytes);
  void Skip(uint64_t count);

  FileObject* file = nullptr;
  uint64_t position = 0;   // current read offset
  uint64_t next = 0;       // offset of the next chunk head
  uint64_t limit = 0;      // end of the walk, exclusive
  uint64_t bodyStart = 0;  // offset of the outer head
  uint64_t size = 0;       // bytes left in the current chunk
  uint64_t chunkSize = 0;  // the current chunk's size as cut to the limit
  uint32_t id = 0;         // current chunk id
  uint32_t tag = 0;        // outer tag ("RIFF", "RF64", "LIST" ...)
  uint32_t form = 0;       // outer form word
  uint32_t headSize = 0;   // the size field of the outer head as written
  uint32_t rawSize = 0;    // the size field of the current chunk as written
  uint32_t chunks = 0;
};

using Guid = std::array<uint8_t, 16>;

class W64Cursor {
 public:
  bool Open(FileObject& file, uint64_t start, uint64_t end);
  bool Step();
  bool Read(void* buffer, uint64_t count);
  bool ReadBody(std::vector<uint8_t>& out, uint64_t maxBytes);

  FileObject* file = nullptr;
  uint64_t position = 0;
  uint64_t next = 0;
  uint64_t limit = 0;
  uint64_t bodyStart = 0;
  uint64_t size = 0;
  uint64_t chunkSize = 0;
  Guid id{};
  Guid tag{};
  Guid form{};
  uint32_t chunks = 0;
};

// A RIFF form built in memory. Chunk scopes write a placeholder size and back-patch it with the pad;
// the outer size is brought up to date whenever a chunk closes, so the image is always well formed.
class RiffWriter {
 public:
  void Begin(uint32_t tag, uint32_t form);
  // Opens a chunk; returns its head offset for Close.
  size_t Open(uint32_t id);
  // Back-patches the chunk's size and pads an odd body with `pad`.
  void Close(size_t head, uint8_t pad = 0);
  // A whole chunk in one call.
  void Chunk(uint32_t id, const void* data, size_t count, uint8_t pad = 0);
  ByteWriter& Body() { return writer_; }
  std::vector<uint8_t>& Bytes() { return writer_.Bytes(); }
  // Sets the outer size word; past 32 bits it stays all ones.
  void UpdateOuterSize();

 private:
  ByteWriter writer_;
};

}  // namespace orlin
