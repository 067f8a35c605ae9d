// Tracker modules. The classic four-channel module becomes waves, instruments and a Song of MIDI tracks;
// every other module gives only what a sample library wants: its samples, and its instruments with their
// key maps where the format has instruments. Patterns of those are skipped by design.
#pragma once
#include <cstdint>

#include "core/format_table.h"

namespace orlin {

bool ReadModModule(Collection* collection, FileObject* file, uint32_t variant);
int32_t DetectModModule(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

bool ReadXmModule(Collection* collection, FileObject* file, uint32_t variant);
int32_t DetectXmModule(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

// A single Fast Tracker 2 instrument with its samples.
bool ReadXiInstrument(Collection* collection, FileObject* file, uint32_t variant);
int32_t DetectXiInstrument(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

bool ReadS3mModule(Collection* collection, FileObject* file, uint32_t variant);
int32_t DetectS3mModule(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadS3iSample(Collection* collection, FileObject* file, uint32_t variant);
int32_t DetectS3iSample(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

// Impulse Tracker: whole modules, single instruments (.iti) and single samples (.its).
bool ReadItModule(Collection* collection, FileObject* file, uint32_t variant);
int32_t DetectItModule(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadItInstrument(Collection* collection, FileObject* file, uint32_t variant);
int32_t DetectItInstrument(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);
bool ReadItSample(Collection* collection, FileObject* file, uint32_t variant);
int32_t DetectItSample(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

// The smaller sample-only formats, one reader and detector per kind.
enum class ModuleKind {
  Composer669, ExtremeTracker, VelvetStudio, XTracker, DigitalSound, Farandole, Digitrakker, OctaMed,
  MultiTracker, Oktalyzer, ProtrackerStudio, PolyTracker, ScreamTracker2, UltraTracker, UnrealMusic,
};
template <ModuleKind kind>
bool ReadOtherModule(Collection* collection, FileObject* file, uint32_t variant);
template <ModuleKind kind>
int32_t DetectOtherModule(const uint8_t* head, uint32_t variant, uint32_t headBytes, uint64_t fileSize);

}  // namespace orlin
