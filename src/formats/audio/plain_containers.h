// The old plain-audio containers: a header before plain samples (Sun/NeXT au, AVR, NIST SPHERE,
// IRCAM, Samplevision, Psion A-law) or samples spread over records (Creative VOC blocks, MIDI
// sample dump packets). The au writer is the one writer here.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

int32_t DetectAu(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadAu(Collection* collection, FileObject* file, uint32_t variant);
bool WriteAu(Item* item, FileObject* file, const SaveOptions* options);

int32_t DetectAvr(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadAvr(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectNist(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadNist(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectIrcam(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadIrcam(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectSamplevision(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadSamplevision(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectPsion(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadPsion(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectVoc(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadVoc(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectSds(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadSds(Collection* collection, FileObject* file, uint32_t variant);

int32_t DetectPaf(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadPaf(Collection* collection, FileObject* file, uint32_t variant);

}  // namespace orlin
