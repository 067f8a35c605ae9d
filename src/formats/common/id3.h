// The ID3v2 tag reader that every container holding such a tag shares (AIFF's "ID3 " chunk, MPEG
// streams, WAVE's id3 chunk): text frames to the info slots, comments, and the attached picture.
#pragma once
#include <cstddef>
#include <cstdint>

namespace orlin {

class TextItem;

// Reads the tag that starts at `bytes` ("ID3", versions 2.2 to 2.4) into `item`; frames the reader
// does not know are passed over. False when the bytes hold no tag.
bool ReadId3Tag(const uint8_t* bytes, size_t size, TextItem& item);

}  // namespace orlin
