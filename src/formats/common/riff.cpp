#include "formats/common/riff.h"

#include <algorithm>

#include "core/file_object.h"

namespace orlin {

namespace {

uint32_t Le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
uint64_t Le64(const uint8_t* p) { return uint64_t(Le32(p)) | uint64_t(Le32(p + 4)) << 32; }

// Bodies read whole into memory are read in steps, so a forged size costs no large allocation
// before the file proves it holds the bytes.
bool ReadInSteps(FileObject& file, uint64_t offset, uint64_t count, std::vector<uint8_t>& out) {
  constexpr uint64_t kStep = 1 << 20;
  out.clear();
  for (uint64_t done = 0; done < count;) {
    const uint64_t take = std::min(kStep, count - done);
    out.resize(size_t(done + take));
    if (!file.ReadAt(offset + done, out.data() + done, size_t(take))) return false;
    done += take;
  }
  return true;
}

}  // namespace

bool RiffCursor::Open(FileObject& fileIn, uint64_t start, uint64_t end) {
  file = &fileIn;
  uint8_t head[12];
  if (end < start + 12 || !file->ReadAt(start, head, 12)) return false;
  tag = Le32(head);
  headSize = Le32(head + 4);
  form = Le32(head + 8);
  bodyStart = start;
  limit = std::min(end, start + 8 + uint64_t(headSize));
  next = start + 12;
  position = next;
  size = 0;
  chunks = 0;
  return true;
}

bool RiffCursor::Step() {
  if (next + 8 > limit || ++chunks > kMaxChunks) return false;
  uint8_t head[8];
  if (!file->ReadAt(next, head, 8)) return false;
  id = Le32(head);
  rawSize = Le32(head + 4);
  position = next + 8;
  size = std::min<uint64_t>(rawSize, limit - position);
  chunkSize = size;
  next = position + uint64_t(rawSize) + (rawSize & 1);
  return true;
}

bool RiffCursor::Read(void* buffer, uint64_t count) {
  if (count > size || !file->ReadAt(position, buffer, size_t(count))) return false;
  position += count;
  size -= count;
  return true;
}

bool RiffCursor::ReadBody(std::vector<uint8_t>& out, uint64_t maxBytes) {
  const uint64_t count = std::min(size, maxBytes);
  if (!ReadInSteps(*file, position, count, out)) return false;
  position += count;
  size -= count;
  return true;
}

void RiffCursor::Skip(uint64_t count) {
  count = std::min(count, size);
  position += count;
  size -= count;
}

bool W64Cursor::Open(FileObject& fileIn, uint64_t start, uint64_t end) {
  file = &fileIn;
  uint8_t head[40];
  if (end < start + 40 || !file->ReadAt(start, head, 40)) return false;
  std::copy(head, head + 16, tag.begin());
  const uint64_t outerSize = Le64(head + 16);
  std::copy(head + 24, head + 40, form.begin());
  bodyStart = start;
  // The outer size counts its own head; a size too small to hold the form is taken as "to the end".
  limit = outerSize >= 40 && outerSize <= end - start ? start + outerSize : end;
  next = start + 40;
  position = next;
  size = 0;
  chunks = 0;
  return true;
}

bool W64Cursor::Step() {
  if (next + 24 > limit || ++chunks > kMaxChunks) return false;
  uint8_t head[24];
  if (!file->ReadAt(next, head, 24)) return false;
  std::copy(head, head + 16, id.begin());
  const uint64_t written = Le64(head + 16);
  position = next + 24;
  // Sizes count the head; one smaller than a head is broken, and ends the walk at the limit.
  const uint64_t body = written >= 24 ? written - 24 : limit - position;
  size = std::min(body, limit - position);
  chunkSize = size;
  const uint64_t padded = body > UINT64_MAX - 8 ? UINT64_MAX : (body + 7) & ~uint64_t(7);
  next = padded > UINT64_MAX - position ? UINT64_MAX : position + padded;
  return true;
}

bool W64Cursor::Read(void* buffer, uint64_t count) {
  if (count > size || !file->ReadAt(position, buffer, size_t(count))) return false;
  position += count;
  size -= count;
  return true;
}

bool W64Cursor::ReadBody(std::vector<uint8_t>& out, uint64_t maxBytes) {
  const uint64_t count = std::min(size, maxBytes);
  if (!ReadInSteps(*file, position, count, out)) return false;
  position += count;
  size -= count;
  return true;
}

void RiffWriter::Begin(uint32_t tag, uint32_t form) {
  writer_.Bytes().clear();
  writer_.U32(tag);
  writer_.U32(4);
  writer_.U32(form);
}

size_t RiffWriter::Open(uint32_t id) {
  const size_t head = writer_.Size();
  writer_.U32(id);
  writer_.U32(0);
  return head;
}

void RiffWriter::Close(size_t head, uint8_t pad) {
  const uint64_t body = writer_.Size() - head - 8;
  writer_.PatchU32(head + 4, body > 0xFFFFFFFFull ? 0xFFFFFFFFu : uint32_t(body));
  if (body & 1) writer_.U8(pad);
  UpdateOuterSize();
}

void RiffWriter::Chunk(uint32_t id, const void* data, size_t count, uint8_t pad) {
  const size_t head = Open(id);
  writer_.Append(data, count);
  Close(head, pad);
}

void RiffWriter::UpdateOuterSize() {
  const uint64_t outer = writer_.Size() - 8;
  writer_.PatchU32(4, outer > 0xFFFFFFFFull ? 0xFFFFFFFFu : uint32_t(outer));
}

}  // namespace orlin
