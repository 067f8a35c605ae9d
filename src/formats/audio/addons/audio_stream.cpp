// What the codec glue layers share: tags and pictures, file callbacks, whole-stream and packet reads.
#include "formats/audio/addons/audio_stream.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "core/collection.h"
#include "core/last_error.h"

namespace orlin::addons {

namespace {

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Upper(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c >= 'a' && c <= 'z') c = char(c - 32);
  return out;
}

uint32_t BigEndian32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }

void PutBigEndian32(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(value >> shift));
}

}  // namespace

void TagsToItem(const AudioTags& tags, TextItem& item) {
  if (!tags.title.empty()) item.SetText(kTextName, tags.title);
  if (!tags.artist.empty()) item.SetText(kTextArtist, tags.artist);
  if (!tags.comments.empty()) item.SetText(kTextComments, tags.comments);
  if (!tags.copyright.empty()) item.SetText(kTextCopyright, tags.copyright);
  if (!tags.album.empty()) item.SetText(kTextProduct, tags.album);
  if (!tags.picture.empty()) item.SetImage(tags.picture.data(), tags.picture.size());
}

AudioTags TagsFromItem(const TextItem& item) {
  AudioTags tags;
  tags.title = item.GetText(kTextName);
  tags.artist = item.GetText(kTextArtist);
  tags.comments = item.GetText(kTextComments);
  tags.copyright = item.GetText(kTextCopyright);
  tags.album = item.GetText(kTextProduct);
  tags.picture = item.GetImage();
  if (!tags.picture.empty()) tags.pictureMime = item.ImageMimeType();
  return tags;
}

void AddVorbisComment(AudioTags& tags, std::string_view comment) {
  const size_t equals = comment.find('=');
  if (equals == std::string_view::npos) return;
  const std::string key = Upper(comment.substr(0, equals));
  const std::string_view value = comment.substr(equals + 1);
  if (key == "TITLE") tags.title = value;
  else if (key == "ARTIST") tags.artist = value;
  else if (key == "COMMENT" || key == "DESCRIPTION") tags.comments = value;
  else if (key == "COPYRIGHT") tags.copyright = value;
  else if (key == "ALBUM") tags.album = value;
  else if (key == "METADATA_BLOCK_PICTURE") {
    const std::vector<uint8_t> block = Base64Decode(value);
    ParsePictureBlock(block.data(), block.size(), tags);
  }
}

std::vector<std::pair<std::string, std::string>> VorbisComments(const AudioTags& tags) {
  std::vector<std::pair<std::string, std::string>> out;
  if (!tags.title.empty()) out.emplace_back("TITLE", tags.title);
  if (!tags.artist.empty()) out.emplace_back("ARTIST", tags.artist);
  if (!tags.comments.empty()) out.emplace_back("COMMENT", tags.comments);
  if (!tags.copyright.empty()) out.emplace_back("COPYRIGHT", tags.copyright);
  if (!tags.album.empty()) out.emplace_back("ALBUM", tags.album);
  if (!tags.picture.empty()) out.emplace_back("METADATA_BLOCK_PICTURE", Base64Encode(MakePictureBlock(tags)));
  return out;
}

bool ParsePictureBlock(const uint8_t* data, size_t size, AudioTags& tags) {
  // type, MIME, description, width, height, depth, colours, data: every length is checked
  // against what is left, as the block comes from the file.
  size_t at = 4;
  auto take32 = [&](uint32_t& value) {
    if (size < 4 || at > size - 4) return false;
    value = BigEndian32(data + at);
    at += 4;
    return true;
  };
  uint32_t mimeLength = 0, descriptionLength = 0, dataLength = 0, unused = 0;
  if (!take32(mimeLength) || mimeLength > size - at) return false;
  const std::string mime(reinterpret_cast<const char*>(data + at), mimeLength);
  at += mimeLength;
  if (!take32(descriptionLength) || descriptionLength > size - at) return false;
  at += descriptionLength;
  for (int i = 0; i < 4; ++i)
    if (!take32(unused)) return false;
  if (!take32(dataLength) || dataLength > size - at) return false;
  tags.picture.assign(data + at, data + at + dataLength);
  tags.pictureMime = mime;
  return true;
}

std::vector<uint8_t> MakePictureBlock(const AudioTags& tags) {
  std::vector<uint8_t> out;
  PutBigEndian32(out, 3);  // front cover
  const std::string mime = tags.pictureMime.empty() ? "image/png" : tags.pictureMime;
  PutBigEndian32(out, uint32_t(mime.size()));
  out.insert(out.end(), mime.begin(), mime.end());
  PutBigEndian32(out, 0);  // no description
  for (int i = 0; i < 4; ++i) PutBigEndian32(out, 0);  // size and depth unknown
  PutBigEndian32(out, uint32_t(tags.picture.size()));
  out.insert(out.end(), tags.picture.begin(), tags.picture.end());
  return out;
}

std::string Base64Encode(const std::vector<uint8_t>& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const uint32_t n = uint32_t(bytes[i]) << 16 | (i + 1 < bytes.size() ? uint32_t(bytes[i + 1]) << 8 : 0) |
                       (i + 2 < bytes.size() ? bytes[i + 2] : 0);
    out += kBase64Alphabet[n >> 18 & 63];
    out += kBase64Alphabet[n >> 12 & 63];
    out += i + 1 < bytes.size() ? kBase64Alphabet[n >> 6 & 63] : '=';
    out += i + 2 < bytes.size() ? kBase64Alphabet[n & 63] : '=';
  }
  return out;
}

std::vector<uint8_t> Base64Decode(std::string_view text) {
  std::vector<uint8_t> out;
  uint32_t buffer = 0;
  int held = 0;
  for (char c : text) {
    const char* at = std::strchr(kBase64Alphabet, c);
    if (c == '\0' || !at) continue;  // '=' padding and line breaks
    buffer = buffer << 6 | uint32_t(at - kBase64Alphabet);
    held += 6;
    if (held >= 8) {
      held -= 8;
      out.push_back(uint8_t(buffer >> held));
    }
  }
  return out;
}

bool ReadAllFrames(AudioStream& stream, std::vector<float>& out, uint64_t limit) {
  const uint32_t channels = std::max<uint32_t>(stream.channels, 1);
  out.clear();
  // The stated length is only a hint: a forged header must not reserve what the data never fills.
  constexpr uint64_t kMostReserved = 1u << 22;
  out.reserve(size_t(std::min<uint64_t>({stream.frames ? stream.frames : 65536, limit, kMostReserved})) * channels);
  std::vector<float> chunk(4096 * channels);
  uint64_t done = 0;
  while (done < limit) {
    const int64_t got = stream.Read(chunk.data(), uint32_t(std::min<uint64_t>(4096, limit - done)));
    if (got < 0) return false;
    if (got == 0) break;
    out.insert(out.end(), chunk.begin(), chunk.begin() + got * channels);
    done += uint64_t(got);
  }
  return true;
}

int64_t FileSource::Seek(int64_t offset, int whence) {
  int64_t target = offset;
  if (whence == SEEK_CUR) target += Tell();
  else if (whence == SEEK_END) target += file->Size() - int64_t(base);
  if (target < 0 || !file->Seek(base + uint64_t(target))) return -1;
  return target;
}

bool ReadRestOfFile(FileObject& file, std::vector<uint8_t>& out) {
  const int64_t size = file.Size();
  const uint64_t at = file.Tell();
  if (size <= 0 || uint64_t(size) <= at) {
    SetLastError("Zero length");
    return false;
  }
  out.resize(size_t(uint64_t(size) - at));
  if (file.Read(out.data(), out.size()) != out.size()) {
    SetLastError("Reading from file failed");
    return false;
  }
  return true;
}

int64_t PacketStream::Read(float* out, uint32_t wanted) {
  uint32_t done = 0;
  while (done < wanted) {
    if (pendingAt < pending.size()) {
      const size_t take = std::min<size_t>((pending.size() - pendingAt) / channels, wanted - done);
      std::copy_n(pending.begin() + ptrdiff_t(pendingAt), take * channels, out + size_t(done) * channels);
      pendingAt += take * channels;
      done += uint32_t(take);
      continue;
    }
    if (!DecodePacket()) break;
  }
  return done;
}

bool PacketStream::SkipFrames(uint64_t frames) {
  constexpr uint32_t kChunkFrames = 4096;
  std::vector<float> dropped(size_t(kChunkFrames) * channels);
  while (frames > 0) {
    const int64_t got = Read(dropped.data(), uint32_t(std::min<uint64_t>(frames, kChunkFrames)));
    if (got <= 0) return false;
    frames -= uint64_t(got);
  }
  return true;
}

namespace {

void PutLe32(std::vector<uint8_t>& out, uint32_t value) {
  for (int i = 0; i < 4; ++i) out.push_back(uint8_t(value >> (8 * i)));
}

std::vector<uint8_t> Chunk(const char* id, const std::vector<uint8_t>& body) {
  std::vector<uint8_t> chunk(id, id + 4);
  PutLe32(chunk, uint32_t(body.size()));
  chunk.insert(chunk.end(), body.begin(), body.end());
  if (body.size() & 1) chunk.push_back(0);
  return chunk;
}

}  // namespace

std::vector<std::vector<uint8_t>> ForeignRiffChunks(const EncodeInput& input, uint32_t bits, bool isFloat) {
  const uint32_t blockAlign = input.channels * (bits / 8);
  std::vector<uint8_t> format;
  format.push_back(isFloat ? 3 : 1), format.push_back(0);
  format.push_back(uint8_t(input.channels)), format.push_back(0);
  PutLe32(format, input.rate);
  PutLe32(format, input.rate * blockAlign);
  format.push_back(uint8_t(blockAlign)), format.push_back(0);
  format.push_back(uint8_t(bits)), format.push_back(0);
  std::vector<std::vector<uint8_t>> chunks = {{}, Chunk("fmt ", format)};
  // The kept chunks one by one (they are whole chunks, padded).
  const std::vector<uint8_t>& kept = input.keptChunks;
  for (size_t at = 0; at + 8 <= kept.size();) {
    const uint32_t bytes = uint32_t(kept[at + 4] | kept[at + 5] << 8 | kept[at + 6] << 16 | uint32_t(kept[at + 7]) << 24);
    const size_t end = std::min(kept.size(), at + 8 + size_t(bytes) + (bytes & 1));
    chunks.emplace_back(kept.begin() + long(at), kept.begin() + long(end));
    at = end;
  }
  const uint64_t dataBytes = uint64_t(input.frames) * blockAlign;
  uint64_t riffBytes = 4 + 8 + dataBytes + (dataBytes & 1);
  for (size_t i = 1; i < chunks.size(); ++i) riffBytes += chunks[i].size();
  std::vector<uint8_t>& head = chunks[0];
  head = {'R', 'I', 'F', 'F'};
  PutLe32(head, uint32_t(std::min<uint64_t>(riffBytes, 0xFFFFFFFF)));
  head.insert(head.end(), {'W', 'A', 'V', 'E'});
  std::vector<uint8_t> data = {'d', 'a', 't', 'a'};
  PutLe32(data, uint32_t(std::min<uint64_t>(dataBytes, 0xFFFFFFFF)));
  chunks.push_back(std::move(data));
  return chunks;
}

}  // namespace orlin::addons
