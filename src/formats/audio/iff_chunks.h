// What the IFF sound forms share: a chunk walk over a file range, a big-endian chunk writer, and
// the text chunks that fill the info slots.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/file_object.h"
#include "formats/common/byte_reader.h"

namespace orlin {

// A big-endian four-letter id as it reads in the file ("FORM" is 0x464F524D).
constexpr uint32_t IffId(const char (&text)[5]) {
  return uint32_t(uint8_t(text[0])) << 24 | uint32_t(uint8_t(text[1])) << 16 | uint32_t(uint8_t(text[2])) << 8 |
         uint32_t(uint8_t(text[3]));
}
std::string IffIdText(uint32_t id);

// Walks the chunks of one FORM between `start` (its head) and `end`. A chunk running past the form's
// end is cut there, and the walk ends after it.
class IffWalker {
 public:
  IffWalker(FileObject& file, uint64_t start, uint64_t end);
  // Reads the 12-byte head; false when it is not there.
  bool ReadHead(uint32_t& magic, uint32_t& form);
  bool Step();
  uint32_t Id() const { return id_; }
  uint64_t BodyOffset() const { return body_; }
  uint64_t Size() const { return size_; }
  // The chunk's body, at most `cap` bytes of it.
  std::vector<uint8_t> Body(size_t cap = 1 << 24) const;

 private:
  FileObject& file_;
  uint64_t next_;
  uint64_t limit_;
  uint64_t body_ = 0;
  uint64_t size_ = 0;
  uint32_t id_ = 0;
};

// Builds a FORM in memory; chunk sizes are patched when a chunk closes, odd bodies padded.
class IffWriter {
 public:
  void Begin(uint32_t form);
  size_t Open(uint32_t id);
  void Close(size_t head, uint8_t pad = 0);
  void Chunk(uint32_t id, const void* data, size_t count);
  ByteWriter& Body() { return writer_; }
  // Sets the FORM size; false when it does not fit in 32 bits.
  bool Finish();
  std::vector<uint8_t>& Bytes() { return writer_.Bytes(); }

 private:
  void PatchBe(size_t at, uint32_t value);
  ByteWriter writer_;
};

// The text chunks of the IFF sound forms and their slots.
struct IffTextChunk {
  uint32_t id;
  ParamId slot;
};
extern const IffTextChunk kIffTextChunks[4];
// Sets the slot of a text chunk; ANNO bodies add to the comments.
void ReadIffText(TextItem& item, ParamId slot, const std::vector<uint8_t>& body);
// Writes NAME, AUTH, (c) and ANNO for the texts that are set.
void WriteIffTexts(IffWriter& writer, const TextItem& item);

}  // namespace orlin
