#include "formats/common/id3.h"

#include <cstring>
#include <string>
#include <vector>

#include "core/collection.h"
#include "core/text.h"

namespace orlin {

namespace {

struct FrameSlot {
  const char* id;      // version 2.3 and 2.4
  const char* shortId; // version 2.2
  ParamId slot;
};
constexpr FrameSlot kTextFrames[] = {
    {"TIT2", "TT2", kTextName},      {"TPE1", "TP1", kTextArtist},  {"TCOP", "TCR", kTextCopyright},
    {"TENC", "TEN", kTextEngineer},  {"TALB", "TAL", kTextProduct},
};

void AppendUtf8(std::string& out, uint32_t code) {
  if (code < 0x80) {
    out.push_back(char(code));
  } else if (code < 0x800) {
    out.push_back(char(0xC0 | code >> 6));
    out.push_back(char(0x80 | (code & 0x3F)));
  } else if (code < 0x10000) {
    out.push_back(char(0xE0 | code >> 12));
    out.push_back(char(0x80 | (code >> 6 & 0x3F)));
    out.push_back(char(0x80 | (code & 0x3F)));
  } else {
    out.push_back(char(0xF0 | code >> 18));
    out.push_back(char(0x80 | (code >> 12 & 0x3F)));
    out.push_back(char(0x80 | (code >> 6 & 0x3F)));
    out.push_back(char(0x80 | (code & 0x3F)));
  }
}

// One string of `encoding` from `p`; `used` gets the bytes taken, with the terminator.
std::string DecodeText(uint8_t encoding, const uint8_t* p, size_t size, size_t* used = nullptr) {
  std::string out;
  size_t at = 0;
  if (encoding == 1 || encoding == 2) {
    bool bigEndian = encoding == 2;
    if (encoding == 1 && size >= 2) {
      if (p[0] == 0xFE && p[1] == 0xFF) bigEndian = true, at = 2;
      else if (p[0] == 0xFF && p[1] == 0xFE) at = 2;
    }
    uint32_t pending = 0;
    for (; at + 1 < size; at += 2) {
      const uint32_t unit = bigEndian ? uint32_t(p[at] << 8 | p[at + 1]) : uint32_t(p[at] | p[at + 1] << 8);
      if (unit == 0) {
        at += 2;
        break;
      }
      if (unit >= 0xD800 && unit < 0xDC00) {
        pending = unit;
        continue;
      }
      if (unit >= 0xDC00 && unit < 0xE000 && pending) {
        AppendUtf8(out, 0x10000 + ((pending - 0xD800) << 10) + (unit - 0xDC00));
        pending = 0;
        continue;
      }
      AppendUtf8(out, unit);
    }
  } else {
    const size_t start = at;
    while (at < size && p[at]) ++at;
    const std::string_view bytes(reinterpret_cast<const char*>(p + start), at - start);
    out = encoding == 3 ? std::string(bytes) : NarrowToUtf8(bytes);
    if (at < size) ++at;
  }
  if (used) *used = std::min(at, size);
  return out;
}

uint32_t SyncSafe(const uint8_t* p) {
  return uint32_t(p[0] & 0x7F) << 21 | uint32_t(p[1] & 0x7F) << 14 | uint32_t(p[2] & 0x7F) << 7 | (p[3] & 0x7F);
}

}  // namespace

bool ReadId3Tag(const uint8_t* bytes, size_t size, TextItem& item) {
  if (size < 10 || std::memcmp(bytes, "ID3", 3) != 0) return false;
  const uint8_t version = bytes[3];
  if (version < 2 || version > 4) return false;
  const uint8_t flags = bytes[5];
  const size_t tagBytes = std::min<size_t>(SyncSafe(bytes + 6), size - 10);
  std::vector<uint8_t> body(bytes + 10, bytes + 10 + tagBytes);
  // Unsynchronisation puts a zero behind every 0xFF; 2.4 does it per frame, which is rare enough to
  // be read as it stands.
  if ((flags & 0x80) && version < 4) {
    std::vector<uint8_t> plain;
    plain.reserve(body.size());
    for (size_t i = 0; i < body.size(); ++i) {
      plain.push_back(body[i]);
      if (body[i] == 0xFF && i + 1 < body.size() && body[i + 1] == 0) ++i;
    }
    body.swap(plain);
  }
  size_t at = 0;
  if ((flags & 0x40) && version >= 3 && body.size() >= 4) {
    const uint32_t extended = version == 4 ? SyncSafe(body.data()) : uint32_t(body[0] << 24 | body[1] << 16 | body[2] << 8 | body[3]);
    at = version == 4 ? extended : extended + 4;
  }
  const size_t headBytes = version == 2 ? 6 : 10;
  const size_t idBytes = version == 2 ? 3 : 4;
  while (at + headBytes <= body.size()) {
    const uint8_t* head = body.data() + at;
    if (head[0] == 0) break;  // padding
    const std::string id(reinterpret_cast<const char*>(head), idBytes);
    size_t frameBytes;
    if (version == 2) frameBytes = size_t(head[3]) << 16 | size_t(head[4]) << 8 | head[5];
    else if (version == 4) frameBytes = SyncSafe(head + 4);
    else frameBytes = size_t(head[4]) << 24 | size_t(head[5]) << 16 | size_t(head[6]) << 8 | head[7];
    at += headBytes;
    if (frameBytes > body.size() - at) break;
    const uint8_t* frame = body.data() + at;
    at += frameBytes;
    if (frameBytes < 1) continue;
    const uint8_t encoding = frame[0];
    for (const FrameSlot& entry : kTextFrames) {
      if (id == (version == 2 ? entry.shortId : entry.id)) {
        const std::string text = DecodeText(encoding, frame + 1, frameBytes - 1);
        if (!text.empty()) item.SetText(entry.slot, text);
      }
    }
    if ((id == "COMM" || id == "COM") && frameBytes > 4) {
      size_t used = 0;
      DecodeText(encoding, frame + 4, frameBytes - 4, &used);  // the short description
      const std::string text = DecodeText(encoding, frame + 4 + used, frameBytes - 4 - used);
      if (!text.empty()) item.SetText(kTextComments, text);
    }
    if (id == "APIC" || id == "PIC") {
      size_t pos = 1;
      if (id == "PIC") {
        pos += 3;  // image format, three letters
      } else {
        while (pos < frameBytes && frame[pos]) ++pos;  // MIME type
        ++pos;
      }
      ++pos;  // picture type
      if (pos < frameBytes) {
        size_t used = 0;
        DecodeText(encoding, frame + pos, frameBytes - pos, &used);
        pos += used;
      }
      if (pos < frameBytes) item.SetImage(frame + pos, frameBytes - pos);
    }
  }
  return true;
}

}  // namespace orlin
