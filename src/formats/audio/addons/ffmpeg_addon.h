// FFmpeg (libavformat, libavcodec, libavutil) as one more add-on: it reads the audio of media
// containers (MPEG-4, Matroska, AVI, ASF, RealMedia, CAF...) and codecs no other add-on covers
// (Monkey's Audio, WMA, Musepack, Shorten...), and encodes AAC, WMA, ALAC, AMR and FLAC in the
// containers that carry them.
#pragma once
#include <memory>

#include "formats/audio/addons/audio_stream.h"

namespace orlin::addons {

constexpr const char* kFfmpegMissing = "You need to install the FFmpeg libraries (libavformat, libavcodec) add-on";
constexpr const char* kApeMissing = "Could not load MACDLL.dll - Please install the APE codec add-on!";
constexpr const char* kAacEncoderMissing =
    "You need to install the free libfaac.dll add-on before you can write AAC-compressed data";
constexpr const char* kAmrMissing = "You need to install the free AMR.dll add-on";

// Opens the first audio stream of the file (from its current position). `missingText` is the
// last-error text when the libraries cannot be loaded.
std::unique_ptr<AudioStream> OpenFfmpegStream(FileObject& file, const char* missingText = kFfmpegMissing);

struct FfmpegEncodeRequest {
  const char* container;  // libavformat muxer name: "ipod", "adts", "asf", "matroska", "caf", "amr"...
  const char* codec;      // libavcodec encoder name: "aac", "wmav2", "flac", "alac", "libopencore_amrnb"
  int bitRate = 0;        // bit/s for lossy codecs
  int profile = -99;      // codec profile where the row asks for one (FF_PROFILE_UNKNOWN: -99)
  uint32_t bits = 16;     // sample width for lossless codecs
  const char* missingText = kFfmpegMissing;
};
bool EncodeWithFfmpeg(FileObject& file, const EncodeInput& input, const FfmpegEncodeRequest& request);

}  // namespace orlin::addons
