#include "formats/audio/iff_chunks.h"

#include <algorithm>

#include "core/text.h"

namespace orlin {

std::string IffIdText(uint32_t id) {
  std::string text(4, ' ');
  for (int k = 0; k < 4; ++k) {
    const char c = char(id >> (24 - 8 * k));
    text[k] = c >= 32 && c < 127 ? c : '?';
  }
  return text;
}

IffWalker::IffWalker(FileObject& file, uint64_t start, uint64_t end) : file_(file), next_(start), limit_(end) {}

bool IffWalker::ReadHead(uint32_t& magic, uint32_t& form) {
  uint8_t head[12];
  if (next_ + 12 > limit_ || !file_.ReadAt(next_, head, 12)) return false;
  magic = uint32_t(head[0]) << 24 | head[1] << 16 | head[2] << 8 | head[3];
  const uint32_t size = uint32_t(head[4]) << 24 | head[5] << 16 | head[6] << 8 | head[7];
  form = uint32_t(head[8]) << 24 | head[9] << 16 | head[10] << 8 | head[11];
  // The form ends at its own size unless the range ends first; some writers leave the size 0 or
  // too large, and then the range decides.
  if (size >= 4) limit_ = std::min(limit_, next_ + 8 + uint64_t(size));
  next_ += 12;
  return true;
}

bool IffWalker::Step() {
  uint8_t head[8];
  if (next_ + 8 > limit_ || !file_.ReadAt(next_, head, 8)) return false;
  id_ = uint32_t(head[0]) << 24 | head[1] << 16 | head[2] << 8 | head[3];
  size_ = uint32_t(head[4]) << 24 | head[5] << 16 | head[6] << 8 | head[7];
  body_ = next_ + 8;
  if (size_ > limit_ - body_) size_ = limit_ - body_;
  next_ = body_ + size_ + (size_ & 1);
  return true;
}

std::vector<uint8_t> IffWalker::Body(size_t cap) const {
  std::vector<uint8_t> bytes(size_t(std::min<uint64_t>(size_, cap)));
  if (!bytes.empty() && !file_.ReadAt(body_, bytes.data(), bytes.size())) bytes.clear();
  return bytes;
}

void IffWriter::Begin(uint32_t form) {
  writer_.U32Be(IffId("FORM"));
  writer_.U32Be(0);
  writer_.U32Be(form);
}

size_t IffWriter::Open(uint32_t id) {
  const size_t head = writer_.Size();
  writer_.U32Be(id);
  writer_.U32Be(0);
  return head;
}

void IffWriter::Close(size_t head, uint8_t pad) {
  const uint64_t size = writer_.Size() - head - 8;
  PatchBe(head + 4, uint32_t(std::min<uint64_t>(size, 0xFFFFFFFF)));
  if (size & 1) writer_.U8(pad);
}

void IffWriter::Chunk(uint32_t id, const void* data, size_t count) {
  const size_t head = Open(id);
  writer_.Append(data, count);
  Close(head);
}

bool IffWriter::Finish() {
  const uint64_t size = writer_.Size() - 8;
  if (size > 0xFFFFFFFF) return false;
  PatchBe(4, uint32_t(size));
  return true;
}

void IffWriter::PatchBe(size_t at, uint32_t value) {
  std::vector<uint8_t>& bytes = writer_.Bytes();
  if (at + 4 > bytes.size()) return;
  for (int k = 0; k < 4; ++k) bytes[at + k] = uint8_t(value >> (24 - 8 * k));
}

const IffTextChunk kIffTextChunks[4] = {
    {IffId("NAME"), kTextName},
    {IffId("AUTH"), kTextArtist},
    {IffId("(c) "), kTextCopyright},
    {IffId("ANNO"), kTextComments},
};

void ReadIffText(TextItem& item, ParamId slot, const std::vector<uint8_t>& body) {
  size_t length = 0;
  while (length < body.size() && body[length]) ++length;
  std::string text = NarrowToUtf8(std::string_view(reinterpret_cast<const char*>(body.data()), length));
  if (text.empty()) return;
  if (slot == kTextComments && !item.GetText(kTextComments).empty()) text = item.GetText(kTextComments) + "\n" + text;
  item.SetText(slot, text);
}

void WriteIffTexts(IffWriter& writer, const TextItem& item) {
  for (const IffTextChunk& chunk : kIffTextChunks) {
    const std::string text = Utf8ToNarrow(item.GetText(chunk.slot));
    if (!text.empty()) writer.Chunk(chunk.id, text.data(), text.size());
  }
}

}  // namespace orlin
