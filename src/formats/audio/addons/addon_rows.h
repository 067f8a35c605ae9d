// The format rows served by codec add-ons: FLAC, Ogg Vorbis, Opus and MPEG audio. Readers only
// describe the wave; its samples are decoded through the add-on on first use.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

int32_t DetectFlac(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadFlac(Collection* collection, FileObject* file, uint32_t variant);
bool WriteFlac(Item* item, FileObject* file, const SaveOptions* options);

int32_t DetectOggVorbis(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadOggVorbis(Collection* collection, FileObject* file, uint32_t variant);
bool WriteOggVorbis(Item* item, FileObject* file, const SaveOptions* options);
double OggVorbisSettings(uint32_t index, uint32_t variant, std::string* labelOut);

int32_t DetectOpus(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadOpus(Collection* collection, FileObject* file, uint32_t variant);
bool WriteOpus(Item* item, FileObject* file, const SaveOptions* options);
double OpusSettings(uint32_t index, uint32_t variant, std::string* labelOut);

// MPEG audio rows; the detectors' variant-independent layer comes from the function.
int32_t DetectMpegLayer1(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectMpegLayer2(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectMpegLayer3(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectMpegAnyLayer(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadMpegAudio(Collection* collection, FileObject* file, uint32_t variant);
bool WriteMp3(Item* item, FileObject* file, const SaveOptions* options);
bool WriteMp2(Item* item, FileObject* file, const SaveOptions* options);
double Mp3Settings(uint32_t index, uint32_t variant, std::string* labelOut);
double Mp2Settings(uint32_t index, uint32_t variant, std::string* labelOut);

int32_t DetectWavPack(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadWavPack(Collection* collection, FileObject* file, uint32_t variant);
bool WriteWavPack(Item* item, FileObject* file, const SaveOptions* options);

// Media containers and codecs read through FFmpeg: one detector per signature family.
int32_t DetectIsoMedia(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectQuickTime(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectMatroska(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectAvi(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectAsf(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectRealAudio(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectCaf(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectMusepack(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectShorten(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectDss(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectApe(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectAmr(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectAacStream(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
int32_t DetectMpegSystem(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadMediaContainer(Collection* collection, FileObject* file, uint32_t variant);
bool ReadAacStream(Collection* collection, FileObject* file, uint32_t variant);  // ADTS through FAAD2
bool ReadApe(Collection* collection, FileObject* file, uint32_t variant);
bool ReadAmr(Collection* collection, FileObject* file, uint32_t variant);

bool WriteAacStream(Item* item, FileObject* file, const SaveOptions* options);  // ADTS; variant 1, 4: Main
bool WriteM4a(Item* item, FileObject* file, const SaveOptions* options);
bool WriteWma(Item* item, FileObject* file, const SaveOptions* options);
bool WriteMka(Item* item, FileObject* file, const SaveOptions* options);
bool WriteCaf(Item* item, FileObject* file, const SaveOptions* options);
bool WriteAmr(Item* item, FileObject* file, const SaveOptions* options);
bool Write3gp(Item* item, FileObject* file, const SaveOptions* options);
double AacSettings(uint32_t index, uint32_t variant, std::string* labelOut);
double WmaSettings(uint32_t index, uint32_t variant, std::string* labelOut);
double AmrSettings(uint32_t index, uint32_t variant, std::string* labelOut);

}  // namespace orlin
