// The 536 rows of the format table, in their fixed order. Rows of one extension stand together;
// a row whose handlers are not written yet has null functions and the lookups pass over it.
// The comment after each row says where its mask, caps and variant come from (see docs/formats.md).
#include "core/format_table.h"
#include "formats/audio/addons/addon_rows.h"
#include "formats/audio/codec_raw.h"
#include "formats/audio/iff.h"
#include "formats/audio/matlab.h"
#include "formats/audio/plain_containers.h"
#include "formats/audio/raw.h"
#include "formats/audio/text_audio.h"
#include "formats/audio/w64.h"
#include "formats/audio/wav.h"
#include "formats/common/generic_rows.h"
#include "formats/instrument/dls/dls.h"
#include "formats/instrument/gig/gig.h"
#include "formats/instrument/korg/korg.h"
#include "formats/instrument/sfz/sfz.h"
#include "formats/instrument/soundfont/soundfont.h"
#include "formats/song/midi.h"
#include "formats/song/modules/modules.h"

namespace orlin {

namespace {

constexpr FormatEntry kFormatRows[kFormatRowCount] = {
    /*   0 */ {"*", ReadUnrecognized, nullptr, DetectByExtensionOnly, "Unrecognized", 0x01, 0x00000000, 0x0, nullptr},  // unknown file read as raw 8-bit data
    /*   1 */ {"32", nullptr, nullptr, nullptr, "Raw Yamaha DX7 voice", 0x82, 0x00000000, 0x0, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /*   2 */ {"3g2", ReadMediaContainer, nullptr, DetectIsoMedia, "3GPP project 2", 0x01, 0x00120000, 0x0, nullptr},  // 3GPP2 container: AMR/AAC speech and audio codecs
    /*   3 */ {"3gp", ReadMediaContainer, Write3gp, DetectIsoMedia, "3GPP", 0x01, 0x00120000, 0x1408, AmrSettings},  // 3GPP: AMR/AAC speech and audio, mono
    /*   4 */ {"404", nullptr, nullptr, nullptr, "Muon DS404 bank", 0x91, 0x00300004, 0x0, nullptr},  // Muon DS404 bank: sample-based synth, 16-bit samples
    /*   5 */ {"404", nullptr, nullptr, nullptr, "Muon DS404 patch", 0x11, 0x00300004, 0x1, nullptr},  // Muon DS404 patch: one instrument with its samples
    /*   6 */ {"669", ReadOtherModule<ModuleKind::Composer669>, nullptr, DetectOtherModule<ModuleKind::Composer669>, "669 module", 0xD1, 0x00000000, 0x0, nullptr},
    /*   7 */ {"a3s", nullptr, nullptr, nullptr, "Yamaha A3000 sample", 0x01, 0x00300004, 0x0, nullptr},  // Yamaha A3000 sample: 16-bit linear, mono or stereo
    /*   8 */ {"aac", ReadAacStream, nullptr, DetectAacStream, "MPEG 2/4 AAC", 0x01, 0x00320000, 0x0, nullptr},  // AAC: lossy codec with bit-rate settings
    /*   9 */ {"aac", nullptr, WriteAacStream, nullptr, "MPEG 2 AAC - Low Complexity", 0x01, 0x00320000, 0x0, AacSettings},  // AAC: lossy codec with bit-rate settings
    /*  10 */ {"aac", nullptr, WriteAacStream, nullptr, "MPEG 2 AAC - Main Profile", 0x01, 0x00320000, 0x1, AacSettings},  // AAC: lossy codec with bit-rate settings
    /*  11 */ {"aac", nullptr, WriteAacStream, nullptr, "MPEG 4 AAC - Low Complexity", 0x01, 0x00320000, 0x3, AacSettings},  // AAC: lossy codec with bit-rate settings
    /*  12 */ {"aac", nullptr, WriteAacStream, nullptr, "MPEG 4 AAC - Main Profile", 0x01, 0x00320000, 0x4, AacSettings},  // AAC: lossy codec with bit-rate settings
    /*  13 */ {"ads", nullptr, nullptr, nullptr, "PlayStation 2 sound", 0x01, 0x00302000, 0x0, nullptr},  // PlayStation 2 stream: Sony 4-bit ADPCM, mono or interleaved stereo
    /*  14 */ {"afc", ReadAiff, nullptr, DetectAifc, "Compressed AIFF", 0x01, 0x00307FF5, 0x0, nullptr},  // AIFF-C: PCM 8-32, float 32/64, mu/A-law, GSM, G.72x and IMA ADPCM
    /*  15 */ {"aif", ReadAiff, WriteAiff, DetectAiff, "Audio interchange", 0x01, 0x00300035, 0x0, nullptr},  // AIFF: big-endian PCM 8, 16, 24, 32-bit, mono or stereo
    /*  16 */ {"aiff", ReadAiff, WriteAiff, DetectAiff, "Audio interchange", 0x01, 0x00300035, 0x0, nullptr},  // AIFF: big-endian PCM 8, 16, 24, 32-bit, mono or stereo
    /*  17 */ {"aifc", ReadAiff, nullptr, DetectAifc, "Compressed AIFF", 0x01, 0x00307FF5, 0x0, nullptr},  // AIFF-C: PCM 8-32, float 32/64, mu/A-law, GSM, G.72x and IMA ADPCM
    /*  18 */ {"ais", nullptr, nullptr, nullptr, "Velvet Studio instrument", 0x11, 0x00100005, 0x0, nullptr},  // Velvet Studio instrument: 8/16-bit mono samples
    /*  19 */ {"akai", nullptr, nullptr, nullptr, "AKAI S-series disk image", 0x91, 0x00100006, 0x0, nullptr},  // AKAI S-series disk: 12-bit (S900) and 16-bit (S1000/S3000) mono samples
    /*  20 */ {"akp", nullptr, nullptr, nullptr, "AKAI S5000 program", 0x91, 0x00300004, 0x0, nullptr},  // AKAI S5000/S6000 program: 16-bit WAV samples, mono or stereo
    /*  21 */ {"alaw", ReadG711Raw, WriteRawPcm, DetectByExtensionOnly, "G.711 A-law", 0x01, 0x00300200, 0x200, nullptr},  // G.711 A-law raw stream
    /*  22 */ {"alw", ReadG711Raw, WriteRawPcm, DetectByExtensionOnly, "G.711 A-law", 0x01, 0x00300200, 0x200, nullptr},  // G.711 A-law raw stream
    /*  23 */ {"amr", ReadAmr, WriteAmr, DetectAmr, "MIME AMR file storage", 0x01, 0x00120000, 0x0, AmrSettings},  // AMR: 8 kHz mono speech codec with bit-rate modes
    /*  24 */ {"ams", ReadOtherModule<ModuleKind::ExtremeTracker>, nullptr, DetectOtherModule<ModuleKind::ExtremeTracker>, "Extreme Tracker module", 0xD1, 0x00000000, 0x0, nullptr},
    /*  25 */ {"ams", ReadOtherModule<ModuleKind::VelvetStudio>, nullptr, DetectOtherModule<ModuleKind::VelvetStudio>, "Velvet Studio module", 0xD1, 0x00000000, 0x1, nullptr},
    /*  26 */ {"ape", ReadApe, nullptr, DetectApe, "Monkey Audio lossless", 0x01, 0x00300015, 0x0, nullptr},  // Monkey's Audio: lossless 8/16/24-bit, mono or stereo
    /*  27 */ {"apex", nullptr, nullptr, nullptr, "AVM Sample Studio bank", 0x91, 0x00300004, 0x0, nullptr},  // AVM Sample Studio bank: 16-bit samples
    /*  28 */ {"arl", nullptr, nullptr, nullptr, "Aureal 'Aspen' bank", 0x91, 0x00100005, 0x0, nullptr},  // Aureal bank: DLS-like, 8/16-bit mono samples
    /*  29 */ {"ase", nullptr, nullptr, nullptr, "Velvet Studio sample", 0x01, 0x00100005, 0x0, nullptr},  // Velvet Studio sample: 8/16-bit mono
    /*  30 */ {"asf", ReadMediaContainer, nullptr, DetectAsf, "ActiveMovie streaming", 0x01, 0x00320000, 0x0, nullptr},  // ASF container: Windows Media lossy codecs
    /*  31 */ {"atak1a", nullptr, nullptr, nullptr, "Soundscape audio-take", 0x01, 0x00100014, 0x0, nullptr},  // Soundscape take: one mono track per file, 16/24-bit
    /*  32 */ {"au", ReadAu, WriteAu, DetectAu, "Sun/NeXT/DEC audio", 0x01, 0x00300375, 0x0, nullptr},  // Sun/NeXT audio: PCM 8-32, float, mu/A-law
    /*  33 */ {"avi", ReadMediaContainer, nullptr, DetectAvi, "Audio video interleave", 0x01, 0x00322315, 0x0, nullptr},  // AVI audio stream: WAVE format tags (PCM, G.711, ADPCM, MPEG)
    /*  34 */ {"avr", ReadAvr, nullptr, DetectAvr, "Audio Visual Research", 0x01, 0x00300005, 0x0, nullptr},  // AVR: 8/16-bit signed or unsigned, mono or stereo
    /*  35 */ {"bin", nullptr, nullptr, nullptr, "Roland D-50 VST bank", 0x82, 0x00000000, 0x0, nullptr},  // LA synthesis patches: synthesis-model parameters, no sample data
    /*  36 */ {"bn4", nullptr, nullptr, nullptr, "Yamaha DX100/DX21/DX27 voice SysEx", 0x82, 0x00000000, 0x0, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /*  37 */ {"bnk", nullptr, nullptr, nullptr, "AdLib bank", 0x82, 0x00000000, 0x0, nullptr},  // AdLib OPL2 instrument bank: FM parameters, no samples
    /*  38 */ {"bnk", nullptr, nullptr, nullptr, "Yamaha DX100/DX21/DX27 voice SysEx", 0x82, 0x00000000, 0x1, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /*  39 */ {"bnk", nullptr, nullptr, nullptr, "Yamaha DX11/TX81z voice SysEx", 0x82, 0x00000000, 0x2, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /*  40 */ {"bwf", ReadWav, nullptr, DetectBroadcastWav, "Broadcast wave", 0x01, 0x00320075, 0x0, nullptr},  // Broadcast WAVE: PCM or MPEG audio with bext chunk
    /*  41 */ {"c01", nullptr, nullptr, nullptr, "Typhoon wave", 0x01, 0x00100002, 0x0, nullptr},  // TX16W wave (Typhoon OS): 12-bit mono samples
    /*  42 */ {"caf", ReadMediaContainer, WriteCaf, DetectCaf, "Apple CoreAudio", 0x01, 0x00300014, 0x0, nullptr},  // Core Audio Format: PCM 8-32, float 32/64, mu/A-law, IMA4, AAC
    /*  43 */ {"caff", ReadMediaContainer, nullptr, DetectCaf, "Apple CoreAudio", 0x01, 0x003223F5, 0x0, nullptr},  // Core Audio Format: PCM 8-32, float 32/64, mu/A-law, IMA4, AAC
    /*  44 */ {"cda", nullptr, nullptr, nullptr, "Audio CD track", 0x01, 0x00200004, 0x0, nullptr},  // Red Book audio: 16-bit stereo at 44.1 kHz
    /*  45 */ {"cdr", nullptr, nullptr, nullptr, "Audio CD raw data", 0x01, 0x00200004, 0x0, nullptr},  // Red Book raw data: 16-bit stereo at 44.1 kHz
    /*  46 */ {"cmf", nullptr, nullptr, nullptr, "Creative Labs music", 0x60, 0x00080000, 0x0, nullptr},  // Creative Music File: MIDI-like events with OPL instruments
    /*  47 */ {"cod", nullptr, nullptr, nullptr, "3GPP AMR if-format 2'", 0x01, 0x00120000, 0x0, nullptr},  // AMR IF2 storage: 8 kHz mono speech codec
    /*  48 */ {"dbk", nullptr, nullptr, nullptr, "FXpansion DR-005 drums", 0x91, 0x00300014, 0x0, nullptr},  // drum-machine kit referencing WAV samples
    /*  49 */ {"dcm", nullptr, nullptr, nullptr, "DCM module", 0x91, 0x00100001, 0x0, nullptr},  // tracker module: 8-bit mono samples, patterns not kept
    /*  50 */ {"dvd-16-44", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "LPCM 16-bit 44kHz stereo", 0x01, 0x00200004, 0x11000004, nullptr},  // DVD LPCM: 16-bit, stereo only
    /*  51 */ {"dvd-16-48", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "LPCM 16-bit 48kHz stereo", 0x01, 0x00200004, 0x21000004, nullptr},  // DVD LPCM: 16-bit, stereo only
    /*  52 */ {"dvd-16-96", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "LPCM 16-bit 96kHz stereo", 0x01, 0x00200004, 0x31000004, nullptr},  // DVD LPCM: 16-bit, stereo only
    /*  53 */ {"dvd-16-192", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "LPCM 16-bit 192kHz stereo", 0x01, 0x00200004, 0x41000004, nullptr},  // DVD LPCM: 16-bit, stereo only
    /*  54 */ {"dvd-24-44", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "LPCM 24-bit 44kHz stereo", 0x01, 0x00200010, 0x11000010, nullptr},  // DVD LPCM: 24-bit, stereo only
    /*  55 */ {"dvd-24-48", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "LPCM 24-bit 48kHz stereo", 0x01, 0x00200010, 0x21000010, nullptr},  // DVD LPCM: 24-bit, stereo only
    /*  56 */ {"dvd-24-96", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "LPCM 24-bit 96kHz stereo", 0x01, 0x00200010, 0x31000010, nullptr},  // DVD LPCM: 24-bit, stereo only
    /*  57 */ {"dvd-24-192", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "LPCM 24-bit 192kHz stereo", 0x01, 0x00200010, 0x41000010, nullptr},  // DVD LPCM: 24-bit, stereo only
    /*  58 */ {"dewf", nullptr, nullptr, nullptr, "SoundCap/SoundEdit", 0x01, 0x00100001, 0x0, nullptr},  // SoundCap/SoundEdit: 8-bit mono
    /*  59 */ {"dig", nullptr, nullptr, nullptr, "Digilink", 0x01, 0x00300005, 0x0, nullptr},  // Digilink sample: 8/16-bit
    /*  60 */ {"dig", nullptr, nullptr, nullptr, "Sound Designer I", 0x01, 0x00100004, 0x1, nullptr},  // Sound Designer I: 16-bit mono
    /*  61 */ {"dlp", ReadDls, nullptr, DetectDls, "DirectMusic Producer", 0x91, 0x00100005, 0x0, nullptr},  // DirectMusic Producer DLS project: 8/16-bit PCM mono waves
    /*  62 */ {"dls", ReadDls, nullptr, DetectDls, "DownLoadable Sounds", 0x91, 0x00100005, 0x0, nullptr},  // DLS: 8/16-bit PCM mono waves
    /*  63 */ {"dls", nullptr, WriteDls, nullptr, "DownLoadable Sounds level 1", 0x91, 0x00100005, 0x1, nullptr},  // DLS level 1: 8/16-bit PCM, mono
    /*  64 */ {"dls", nullptr, WriteDls, nullptr, "DownLoadable Sounds level 2", 0x91, 0x02100005, 0x2, nullptr},  // DLS level 2: 8/16-bit PCM mono, stereo as linked mono pairs
    /*  65 */ {"dls", nullptr, WriteDls, nullptr, "DownLoadable Sounds level 2+", 0x91, 0x02122375, 0x3, nullptr},  // DLS with own extensions: compressed waves, stereo as linked mono pairs
    /*  66 */ {"dls", nullptr, WriteDls, nullptr, "DownLoadable Sounds level 2++", 0x91, 0x00322375, 0x4, nullptr},  // DLS with own extensions: PCM 8-32, float, G.711, ADPCM, compressed, stereo waves
    /*  67 */ {"dmf", ReadOtherModule<ModuleKind::XTracker>, nullptr, DetectOtherModule<ModuleKind::XTracker>, "XTracker module", 0xD1, 0x00000000, 0x0, nullptr},
    /*  68 */ {"dmg", nullptr, nullptr, nullptr, "ChkSys AKAI S-series", 0x91, 0x00100006, 0x0, nullptr},  // AKAI S-series disk: 12/16-bit mono samples
    /*  69 */ {"dr8", nullptr, nullptr, nullptr, "FXpansion DR-008 drums", 0x91, 0x00300014, 0x0, nullptr},  // drum-machine kit referencing or embedding WAV samples
    /*  70 */ {"dr8", nullptr, nullptr, nullptr, "FXpansion DR-008 drums, Embedded WAVs", 0x91, 0x00300014, 0x1, nullptr},  // drum-machine kit referencing or embedding WAV samples
    /*  71 */ {"dr8", nullptr, nullptr, nullptr, "FXpansion DR-008 drums, External WAVs", 0x91, 0x00300014, 0x2, nullptr},  // drum-machine kit referencing or embedding WAV samples
    /*  72 */ {"dro", nullptr, nullptr, nullptr, "DOSBox Raw OP", 0x60, 0x00000000, 0x0, nullptr},  // OPL register capture: timed register writes, not MIDI
    /*  73 */ {"dsf", nullptr, nullptr, nullptr, "XTracker sample", 0x01, 0x00100005, 0x0, nullptr},  // tracker sample: 8/16-bit mono
    /*  74 */ {"dsm", ReadOtherModule<ModuleKind::DigitalSound>, nullptr, DetectOtherModule<ModuleKind::DigitalSound>, "Digital Sound Module", 0xD1, 0x00000000, 0x0, nullptr},
    /*  75 */ {"dslibrary", nullptr, nullptr, nullptr, "Decent Sampler Library", 0x91, 0x00300014, 0x0, nullptr},  // Decent Sampler library: zip of preset and WAV/FLAC samples
    /*  76 */ {"dspreset", nullptr, nullptr, nullptr, "Decent Sampler Preset", 0x91, 0x00300014, 0x0, nullptr},  // Decent Sampler preset: XML referencing WAV/FLAC samples
    /*  77 */ {"dss", ReadMediaContainer, nullptr, DetectDss, "Olympus DSS", 0x01, 0x00120000, 0x0, nullptr},  // Olympus dictation: proprietary lossy mono codec
    /*  78 */ {"dtm", nullptr, nullptr, nullptr, "DigiTrekker module", 0x91, 0x00300005, 0x0, nullptr},  // tracker module: 8/16-bit samples, mono or stereo, patterns not kept
    /*  79 */ {"dwd", nullptr, nullptr, nullptr, "DiamondWare digitized", 0x01, 0x00300005, 0x0, nullptr},  // DiamondWare digitized: 8/16-bit, mono or stereo
    /*  80 */ {"dx7", nullptr, nullptr, nullptr, "Yamaha DX7 voice SysEx", 0x82, 0x00000000, 0x0, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /*  81 */ {"dx7", nullptr, nullptr, nullptr, "Raw Yamaha DX7 32-voice", 0x82, 0x00000000, 0x1, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /*  82 */ {"eda", nullptr, nullptr, nullptr, "Ensoniq ASR disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /*  83 */ {"ede", nullptr, nullptr, nullptr, "Ensoniq EPS disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /*  84 */ {"edk", nullptr, nullptr, nullptr, "Ensoniq KT disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /*  85 */ {"edm", nullptr, nullptr, nullptr, "Ensoniq Mirage disk image", 0x91, 0x00100001, 0x0, nullptr},  // Ensoniq Mirage disk: 8-bit mono samples
    /*  86 */ {"edq", nullptr, nullptr, nullptr, "Ensoniq SQ1/SQ2/KS32 disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /*  87 */ {"edv", nullptr, nullptr, nullptr, "Ensoniq VFX-SD disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /*  88 */ {"edx", nullptr, nullptr, nullptr, "Ensoniq disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /*  89 */ {"efa", nullptr, nullptr, nullptr, "Ensoniq ASR instrument", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq instrument: 16-bit mono samples with layers
    /*  90 */ {"efe", nullptr, nullptr, nullptr, "Ensoniq EPS instrument", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq instrument: 16-bit mono samples with layers
    /*  91 */ {"efk", nullptr, nullptr, nullptr, "Ensoniq KT instrument", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq instrument: 16-bit mono samples with layers
    /*  92 */ {"efq", nullptr, nullptr, nullptr, "Ensoniq SQ1/SQ2/KS32 instrument", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq instrument: 16-bit mono samples with layers
    /*  93 */ {"efs", nullptr, nullptr, nullptr, "Ensoniq SQ80 instrument", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq instrument: 16-bit mono samples with layers
    /*  94 */ {"efv", nullptr, nullptr, nullptr, "Ensoniq VFX-SD instrument", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq instrument: 16-bit mono samples with layers
    /*  95 */ {"efx", nullptr, nullptr, nullptr, "Ensoniq instrument", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq instrument: 16-bit mono samples with layers
    /*  96 */ {"emb", nullptr, nullptr, nullptr, "Everest embedded bank", 0x91, 0x00100004, 0x0, nullptr},  // embedded sample bank
    /*  97 */ {"emd", nullptr, nullptr, nullptr, "ABT extended module", 0x91, 0x00100001, 0x0, nullptr},  // tracker module: 8-bit mono samples, patterns not kept
    /*  98 */ {"emy", nullptr, nullptr, nullptr, "EMelody ring-tone", 0x60, 0x00080000, 0x0, nullptr},  // EMelody text ring-tone: monophonic note list
    /*  99 */ {"emy", nullptr, nullptr, nullptr, "EMelody simplified", 0x60, 0x00080000, 0x1, nullptr},  // EMelody text ring-tone: monophonic note list
    /* 100 */ {"esps", nullptr, nullptr, nullptr, "ESPS", 0x01, 0x003000C4, 0x0, nullptr},  // ESPS sampled data: 16-bit, float, double
    /* 101 */ {"eui", nullptr, nullptr, nullptr, "Ensoniq EPS/ASR-10 disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /* 102 */ {"exs", nullptr, nullptr, nullptr, "Logic EXS24 instrument", 0x91, 0x00300014, 0x0, nullptr},  // EXS24 instrument: zones referencing WAV/AIFF samples
    /* 103 */ {"f2r", nullptr, nullptr, nullptr, "Farandole linear module", 0x91, 0x00100005, 0x0, nullptr},  // tracker module: 8/16-bit mono samples, patterns not kept
    /* 104 */ {"f32", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Floating point (32-bit)", 0x01, 0x00300040, 0x40, nullptr},  // raw 32-bit float
    /* 105 */ {"f3r", nullptr, nullptr, nullptr, "Farandole blocked linear module", 0x91, 0x00100005, 0x0, nullptr},  // tracker module: 8/16-bit mono samples, patterns not kept
    /* 106 */ {"f64", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Floating point (64-bit)", 0x01, 0x00300080, 0x80, nullptr},  // raw 64-bit float
    /* 107 */ {"far", ReadOtherModule<ModuleKind::Farandole>, nullptr, DetectOtherModule<ModuleKind::Farandole>, "Farandole module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 108 */ {"fff", nullptr, nullptr, nullptr, "Gravis UltraSound PnP", 0x91, 0x00100005, 0x0, nullptr},  // InterWave FFF bank: 8/16-bit mono patches
    /* 109 */ {"flac", ReadFlac, WriteFlac, DetectFlac, "Free lossless audio codec", 0x01, 0x00300014, 0x0, nullptr},  // FLAC: lossless 8/16/24-bit, mono or stereo
    /* 110 */ {"flac", ReadFlac, WriteFlac, DetectFlac, "Free lossless audio codec (default)", 0x01, 0x00300014, 0x1, nullptr},  // FLAC: lossless 8/16/24-bit, mono or stereo
    /* 111 */ {"flac", ReadFlac, WriteFlac, DetectFlac, "Free lossless audio codec (max comp)", 0x01, 0x00300014, 0x2, nullptr},  // FLAC: lossless 8/16/24-bit, mono or stereo
    /* 112 */ {"fnk", nullptr, nullptr, nullptr, "FunkTracker module", 0x91, 0x00100001, 0x0, nullptr},  // tracker module: 8-bit mono samples, patterns not kept
    /* 113 */ {"for", nullptr, nullptr, nullptr, "Kurzweil Forte", 0x91, 0x02100004, 0x3, nullptr},  // Kurzweil object file: 16-bit samples, stereo as paired mono samples
    /* 114 */ {"fsb", nullptr, nullptr, nullptr, "FMOD SoundSystem bank", 0x81, 0x00322005, 0x0, nullptr},  // FMOD sound bank: PCM, ADPCM and MPEG waves
    /* 115 */ {"fse", nullptr, nullptr, nullptr, "Kurzweil Forte SE", 0x91, 0x02100004, 0x0, nullptr},  // Kurzweil object file: 16-bit samples, stereo as paired mono samples
    /* 116 */ {"fsm", nullptr, nullptr, nullptr, "Farandole sample", 0x01, 0x00100005, 0x0, nullptr},  // tracker sample: 8/16-bit mono
    /* 117 */ {"fzb", nullptr, nullptr, nullptr, "Casio FZ-1 bank dump", 0x91, 0x00100004, 0x0, nullptr},  // Casio FZ-1 dump: 16-bit mono samples
    /* 118 */ {"fzf", nullptr, nullptr, nullptr, "Casio FZ-1 full dump", 0x91, 0x00100004, 0x0, nullptr},  // Casio FZ-1 dump: 16-bit mono samples
    /* 119 */ {"fzv", nullptr, nullptr, nullptr, "Casio FZ-1 voice dump", 0x11, 0x00100004, 0x0, nullptr},  // Casio FZ-1 voice dump: one voice with its sample
    /* 120 */ {"g01", nullptr, nullptr, nullptr, "Yamaha SY85 all", 0x91, 0x00100004, 0x0, nullptr},  // Yamaha SY85 all data: voices and 16-bit mono samples
    /* 121 */ {"g721", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.721 ADPCM", 0x01, 0x00102000, 0x80140, nullptr},  // G.721: 32 kbit/s 4-bit ADPCM, mono
    /* 122 */ {"g721", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.721 ADPCM - Big Endian", 0x01, 0x00102000, 0x80141, nullptr},  // G.721: 32 kbit/s 4-bit ADPCM, mono
    /* 123 */ {"g721", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.721 ADPCM - Little Endian", 0x01, 0x00102000, 0x80142, nullptr},  // G.721: 32 kbit/s 4-bit ADPCM, mono
    /* 124 */ {"g721-4", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.721 4-bit ADPCM", 0x01, 0x00102000, 0x80140, nullptr},  // G.721: 32 kbit/s 4-bit ADPCM, mono
    /* 125 */ {"g721-4", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.721 ADPCM - Big Endian", 0x01, 0x00102000, 0x80141, nullptr},  // G.721: 32 kbit/s 4-bit ADPCM, mono
    /* 126 */ {"g721-4", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.721 ADPCM - Little Endian", 0x01, 0x00102000, 0x80142, nullptr},  // G.721: 32 kbit/s 4-bit ADPCM, mono
    /* 127 */ {"g722", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 ADPCM", 0x01, 0x00102000, 0x100280, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 128 */ {"g722", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 ADPCM - Big Endian", 0x01, 0x00102000, 0x100281, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 129 */ {"g722", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 ADPCM - Little Endian", 0x01, 0x00102000, 0x100282, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 130 */ {"g722-6", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 48 kbit/s ADPCM", 0x01, 0x00102000, 0x100260, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 131 */ {"g722-6", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 48 kbit/s ADPCM - Big Endian", 0x01, 0x00102000, 0x100261, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 132 */ {"g722-6", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 48 kbit/s ADPCM - Little Endian", 0x01, 0x00102000, 0x100262, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 133 */ {"g722-7", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 56 kbit/s ADPCM", 0x01, 0x00102000, 0x100270, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 134 */ {"g722-7", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 56 kbit/s ADPCM - Big Endian", 0x01, 0x00102000, 0x100271, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 135 */ {"g722-7", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 56 kbit/s ADPCM - Little Endian", 0x01, 0x00102000, 0x100272, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 136 */ {"g722-8", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 64 kbit/ ADPCM", 0x01, 0x00102000, 0x100280, nullptr},  // G.722 sub-band ADPCM at 48/56/64 kbit/s: codec of its own, no storage choice
    /* 137 */ {"g723", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 ADPCM", 0x01, 0x00101000, 0x80130, nullptr},  // G.723: 24 and 40 kbit/s, 3/5-bit ADPCM, mono
    /* 138 */ {"g723", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 ADPCM - Big Endian", 0x01, 0x00101000, 0x80131, nullptr},  // G.723: 24 and 40 kbit/s, 3/5-bit ADPCM, mono
    /* 139 */ {"g723", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 ADPCM - Little Endian", 0x01, 0x00101000, 0x80132, nullptr},  // G.723: 24 and 40 kbit/s, 3/5-bit ADPCM, mono
    /* 140 */ {"g723-3", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 3-bit ADPCM", 0x01, 0x00101000, 0x80130, nullptr},  // G.723: 24 kbit/s 3-bit ADPCM, mono
    /* 141 */ {"g723-3", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 3-bit ADPCM - Big Endian", 0x01, 0x00101000, 0x80131, nullptr},  // G.723: 24 kbit/s 3-bit ADPCM, mono
    /* 142 */ {"g723-3", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 3-bit ADPCM - Little Endian", 0x01, 0x00101000, 0x80132, nullptr},  // G.723: 24 kbit/s 3-bit ADPCM, mono
    /* 143 */ {"g723-5", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 5-bit ADPCM", 0x01, 0x00104000, 0x80150, nullptr},  // G.723: 40 kbit/s 5-bit ADPCM, mono
    /* 144 */ {"g723-5", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 5-bit ADPCM - Big Endian", 0x01, 0x00104000, 0x80151, nullptr},  // G.723: 40 kbit/s 5-bit ADPCM, mono
    /* 145 */ {"g723-5", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.723 5-bit ADPCM - Little Endian", 0x01, 0x00104000, 0x80152, nullptr},  // G.723: 40 kbit/s 5-bit ADPCM, mono
    /* 146 */ {"g726", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 ADPCM", 0x01, 0x00102000, 0x80140, nullptr},  // G.726: 16-40 kbit/s, 2 to 5-bit ADPCM, mono
    /* 147 */ {"g726", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 ADPCM - Big Endian", 0x01, 0x00102000, 0x80141, nullptr},  // G.726: 16-40 kbit/s, 2 to 5-bit ADPCM, mono
    /* 148 */ {"g726", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 ADPCM - Little Endian", 0x01, 0x00102000, 0x80142, nullptr},  // G.726: 16-40 kbit/s, 2 to 5-bit ADPCM, mono
    /* 149 */ {"g726-2", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 2-bit ADPCM", 0x01, 0x00100800, 0x80120, nullptr},  // G.726: 16 kbit/s 2-bit ADPCM, mono
    /* 150 */ {"g726-2", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 2-bit ADPCM - Big Endian", 0x01, 0x00100800, 0x80121, nullptr},  // G.726: 16 kbit/s 2-bit ADPCM, mono
    /* 151 */ {"g726-2", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 2-bit ADPCM - Little Endian", 0x01, 0x00100800, 0x80122, nullptr},  // G.726: 16 kbit/s 2-bit ADPCM, mono
    /* 152 */ {"g726-3", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 3-bit ADPCM", 0x01, 0x00101000, 0x80130, nullptr},  // G.726: 24 kbit/s 3-bit ADPCM, mono
    /* 153 */ {"g726-3", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 3-bit ADPCM - Big Endian", 0x01, 0x00101000, 0x80131, nullptr},  // G.726: 24 kbit/s 3-bit ADPCM, mono
    /* 154 */ {"g726-3", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 3-bit ADPCM - Little Endian", 0x01, 0x00101000, 0x80132, nullptr},  // G.726: 24 kbit/s 3-bit ADPCM, mono
    /* 155 */ {"g726-4", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 4-bit ADPCM", 0x01, 0x00102000, 0x80140, nullptr},  // G.726: 32 kbit/s 4-bit ADPCM, mono
    /* 156 */ {"g726-4", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 4-bit ADPCM - Big Endian", 0x01, 0x00102000, 0x80141, nullptr},  // G.726: 32 kbit/s 4-bit ADPCM, mono
    /* 157 */ {"g726-4", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 4-bit ADPCM - Little Endian", 0x01, 0x00102000, 0x80142, nullptr},  // G.726: 32 kbit/s 4-bit ADPCM, mono
    /* 158 */ {"g726-5", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 5-bit ADPCM", 0x01, 0x00104000, 0x80150, nullptr},  // G.726: 40 kbit/s 5-bit ADPCM, mono
    /* 159 */ {"g726-5", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 5-bit ADPCM - Big Endian", 0x01, 0x00104000, 0x80151, nullptr},  // G.726: 40 kbit/s 5-bit ADPCM, mono
    /* 160 */ {"g726-5", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "G.726 5-bit ADPCM - Little Endian", 0x01, 0x00104000, 0x80152, nullptr},  // G.726: 40 kbit/s 5-bit ADPCM, mono
    /* 161 */ {"gdm", nullptr, nullptr, nullptr, "Bells, Whistles, Sound Boards module", 0x91, 0x00100005, 0x0, nullptr},  // tracker module: 8/16-bit mono samples, patterns not kept
    /* 162 */ {"gig", ReadGig, WriteGig, DetectGig, "GigaStudio/GigaSampler", 0x91, 0x00300014, 0x0, nullptr},  // GigaStudio: DLS-based, 16/24-bit waves, mono or stereo
    /* 163 */ {"gig", nullptr, WriteGig, nullptr, "GigaStudio v1 - Normal", 0x91, 0x00300004, 0x1, nullptr},  // GigaStudio v1/v2: 16-bit waves, mono or stereo
    /* 164 */ {"gig", nullptr, WriteGig, nullptr, "GigaStudio v1 - Compressed", 0x91, 0x00300004, 0x2, nullptr},  // GigaStudio v1/v2: 16-bit waves, lossless packed
    /* 165 */ {"gig", nullptr, WriteGig, nullptr, "GigaStudio v3 - Normal", 0x91, 0x00300014, 0x3, nullptr},  // GigaStudio v3: 16/24-bit waves, mono or stereo
    /* 166 */ {"gig", nullptr, WriteGig, nullptr, "GigaStudio v3 - Compressed", 0x91, 0x00300014, 0x4, nullptr},  // GigaStudio v3: 16/24-bit waves, lossless packed
    /* 167 */ {"gi!", ReadGig, nullptr, DetectGig, "GigaStudio/GSImport split", 0x91, 0x00300014, 0x0, nullptr},  // GigaStudio split: DLS-based, 16/24-bit waves
    /* 168 */ {"gkh", nullptr, nullptr, nullptr, "Ensoniq EPS disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /* 169 */ {"gsm", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "Raw GSM 06.10", 0x01, 0x00100400, 0x80400, nullptr},  // GSM 06.10 full-rate: 33-byte frames, 8 kHz mono
    /* 170 */ {"gsm", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "Raw GSM 06.10 'byte aligned'", 0x01, 0x00100400, 0x80410, nullptr},  // GSM 06.10 full-rate: 33-byte frames, 8 kHz mono
    /* 171 */ {"gsm", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "USR GSM without header", 0x01, 0x00100400, 0x80420, nullptr},  // GSM 06.10 full-rate: 33-byte frames, 8 kHz mono
    /* 172 */ {"gsm", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "USR GSM without header (alternative)", 0x01, 0x00100400, 0x80430, nullptr},  // GSM 06.10 full-rate: 33-byte frames, 8 kHz mono
    /* 173 */ {"gsm", ReadWav, nullptr, DetectUsrGsmWav, "USR GSM with header", 0x01, 0x00100400, 0x4, nullptr},  // GSM 06.10 full-rate: 33-byte frames, 8 kHz mono
    /* 174 */ {"hcom", nullptr, nullptr, nullptr, "Sound Tools HCOM", 0x01, 0x00100001, 0x0, nullptr},  // HCOM: Huffman-packed 8-bit mono
    /* 175 */ {"hd", nullptr, nullptr, nullptr, "PlayStation 2 SCEI set", 0x91, 0x00102000, 0x0, nullptr},  // PlayStation 2 sound set: Sony 4-bit ADPCM mono waves
    /* 176 */ {"ibk", nullptr, nullptr, nullptr, "Creative FM bank", 0x82, 0x00000000, 0x0, nullptr},  // Creative FM bank: OPL parameters, no samples
    /* 177 */ {"iff", ReadSvx, WriteSvx, DetectSvx, "Interchange file format", 0x01, 0x00300005, 0x0, nullptr},  // IFF 8SVX/16SV: 8/16-bit, mono or stereo (CHAN)
    /* 178 */ {"imf", nullptr, nullptr, nullptr, "id Software Music Format (560Hz)", 0x60, 0x00000000, 0x0, nullptr},  // OPL register capture: timed register writes, not MIDI
    /* 179 */ {"img", nullptr, nullptr, nullptr, "Ensoniq EPS/ASR-10 disk image", 0x91, 0x00100004, 0x0, nullptr},  // Ensoniq disk image: 16-bit mono samples with instruments
    /* 180 */ {"imy", nullptr, nullptr, nullptr, "iMelody ring-tone format", 0x60, 0x00080000, 0x0, nullptr},  // iMelody text ring-tone: monophonic note list
    /* 181 */ {"imy", nullptr, nullptr, nullptr, "iMelody ring-tone - Full v1.2", 0x60, 0x00080000, 0x1, nullptr},  // iMelody text ring-tone: monophonic note list
    /* 182 */ {"imy", nullptr, nullptr, nullptr, "iMelody - Simplified v1.0", 0x60, 0x00080000, 0x2, nullptr},  // iMelody text ring-tone: monophonic note list
    /* 183 */ {"ini", nullptr, nullptr, nullptr, "Gravis ini bank setup + .PAT's", 0x91, 0x00100005, 0x0, nullptr},  // Gravis patch set: 8/16-bit mono patches
    /* 184 */ {"ini", nullptr, nullptr, nullptr, "IBM MWave DSP synth", 0x91, 0x00100004, 0x1, nullptr},  // MWave synth setup
    /* 185 */ {"inrs", nullptr, nullptr, nullptr, "INRS-Telecommunications", 0x01, 0x00100004, 0x0, nullptr},  // INRS: 16-bit mono
    /* 186 */ {"ins", nullptr, nullptr, nullptr, "Ad Lib instrument", 0x02, 0x00000000, 0x0, nullptr},  // AdLib instrument: one FM voice, no samples
    /* 187 */ {"ins", nullptr, nullptr, nullptr, "Ensoniq EPS intrument", 0x91, 0x00100004, 0x1, nullptr},  // Ensoniq instrument: 16-bit mono samples with layers
    /* 188 */ {"ins", nullptr, nullptr, nullptr, "Sample Cell II Mac", 0x91, 0x00300004, 0x2, nullptr},  // SampleCell instrument: references 16-bit sound files
    /* 189 */ {"ins", nullptr, nullptr, nullptr, "Sample Cell II PC", 0x91, 0x00300004, 0x3, nullptr},  // SampleCell instrument: references 16-bit sound files
    /* 190 */ {"ins", nullptr, nullptr, nullptr, "Cakewalk instrument definition", 0x90, 0x00000000, 0x4, nullptr},  // instrument definition text: patch and note names only, no audio
    /* 191 */ {"iso", nullptr, nullptr, nullptr, "Sampler CD disk image", 0x91, 0x00300006, 0x0, nullptr},  // sampler CD image: per-format sampler data
    /* 192 */ {"ist", nullptr, nullptr, nullptr, "Digitrakker insrument", 0x11, 0x00100005, 0x0, nullptr},  // tracker instrument: 8/16-bit mono samples
    /* 193 */ {"it", ReadItModule, nullptr, DetectItModule, "Impulse Tracker module", 0x91, 0x00300005, 0x0, nullptr},  // tracker module: 8/16-bit samples, mono or stereo, patterns not kept
    /* 194 */ {"iti", ReadItInstrument, nullptr, DetectItInstrument, "Impulse Tracker instrument", 0x11, 0x00300005, 0x0, nullptr},  // Impulse Tracker instrument: 8/16-bit samples, mono or stereo
    /* 195 */ {"its", ReadItSample, nullptr, DetectItSample, "Impulse Tracker sample", 0x01, 0x00300005, 0x0, nullptr},  // Impulse Tracker sample: 8/16-bit, mono or stereo
    /* 196 */ {"kawai12", nullptr, nullptr, nullptr, "KAWAI R-series ROM-dump", 0x91, 0x00100002, 0x0, nullptr},  // KAWAI ROM dump: 12-bit mono samples
    /* 197 */ {"k25", nullptr, nullptr, nullptr, "Kurzweil K2500", 0x91, 0x02100004, 0x0, nullptr},  // Kurzweil object file: 16-bit samples, stereo as paired mono samples
    /* 198 */ {"k26", nullptr, nullptr, nullptr, "Kurzweil K2600", 0x91, 0x02100004, 0x0, nullptr},  // Kurzweil object file: 16-bit samples, stereo as paired mono samples
    /* 199 */ {"kdt", nullptr, nullptr, nullptr, "Konami KDT1 song", 0x60, 0x00080000, 0x0, nullptr},  // game song data: note events
    /* 200 */ {"kft", nullptr, nullptr, nullptr, "Korg T-series wave", 0x01, 0x00100004, 0x0, nullptr},  // Korg T-series wave: 16-bit mono
    /* 201 */ {"kit", nullptr, nullptr, nullptr, "NI Battery v1 drums", 0x91, 0x00300014, 0x0, nullptr},  // Battery kit: cells referencing WAV samples
    /* 202 */ {"kmp", nullptr, nullptr, nullptr, "Korg PA-series keymaps", 0x91, 0x02100004, 0x0, nullptr},  // Korg PA keymap: 16-bit mono samples, stereo as pairs
    /* 203 */ {"kmp", ReadKorgKeymap, nullptr, DetectKorgKeymap, "Korg keymap", 0x91, 0x02100005, 0x1, nullptr},  // Korg keymap: KSF samples 8/16-bit mono, stereo as -L/-R pairs
    /* 204 */ {"kmp", ReadKorgKeymap, nullptr, DetectKorgKeymap, "Korg Trinity keymap", 0x91, 0x02100005, 0x3B, nullptr},  // Korg keymap: KSF samples 8/16-bit mono, stereo as -L/-R pairs
    /* 205 */ {"kmp", ReadKorgKeymap, nullptr, DetectKorgKeymap, "Korg Triton keymap", 0x91, 0x02100005, 0x50, nullptr},  // Korg keymap: KSF samples 8/16-bit mono, stereo as -L/-R pairs
    /* 206 */ {"kmp", ReadKorgKeymap, nullptr, DetectKorgKeymap, "Korg M3 keymap", 0x91, 0x02100005, 0x75, nullptr},  // Korg keymap: KSF samples 8/16-bit mono, stereo as -L/-R pairs
    /* 207 */ {"kmp", ReadKorgKeymap, nullptr, DetectKorgKeymap, "Korg M3 Xpanded keymap", 0x91, 0x02100005, 0x75, nullptr},  // Korg keymap: KSF samples 8/16-bit mono, stereo as -L/-R pairs
    /* 208 */ {"kmp", ReadKorgKeymap, nullptr, DetectKorgKeymap, "Korg Kronos keymap", 0x91, 0x02100005, 0x68, nullptr},  // Korg keymap: KSF samples 8/16-bit mono, stereo as -L/-R pairs
    /* 209 */ {"kr1", nullptr, nullptr, nullptr, "Kurzweil K2000/K2500/K2600 split", 0x91, 0x02100004, 0x1, nullptr},  // Kurzweil object file: 16-bit samples, stereo as paired mono samples
    /* 210 */ {"krz", nullptr, nullptr, nullptr, "Kurzweil K2000 file", 0x91, 0x02100004, 0x0, nullptr},  // Kurzweil object file: 16-bit samples, stereo as paired mono samples
    /* 211 */ {"krz", nullptr, nullptr, nullptr, "Kurzweil K2000/K2500/K2600", 0x91, 0x02100004, 0x0, nullptr},  // Kurzweil object file: 16-bit samples, stereo as paired mono samples
    /* 212 */ {"ksc", ReadKorgScript, nullptr, DetectKorgScript, "Korg script", 0x91, 0x02100005, 0x0, nullptr},  // Korg script: lists KMP/KSF files, 8/16-bit mono, stereo as pairs
    /* 213 */ {"ksc", ReadKorgScript, nullptr, DetectKorgScript, "Korg Trinity script", 0x91, 0x02100005, 0x3B, nullptr},  // Korg script: lists KMP/KSF files, 8/16-bit mono, stereo as pairs
    /* 214 */ {"ksc", ReadKorgScript, nullptr, DetectKorgScript, "Korg Triton script", 0x91, 0x02100005, 0x50, nullptr},  // Korg script: lists KMP/KSF files, 8/16-bit mono, stereo as pairs
    /* 215 */ {"ksc", ReadKorgScript, nullptr, DetectKorgScript, "Korg M3 script", 0x91, 0x02100005, 0x75, nullptr},  // Korg script: lists KMP/KSF files, 8/16-bit mono, stereo as pairs
    /* 216 */ {"ksc", ReadKorgScript, nullptr, DetectKorgScript, "Korg M3 Xpanded script", 0x91, 0x02100005, 0x75, nullptr},  // Korg script: lists KMP/KSF files, 8/16-bit mono, stereo as pairs
    /* 217 */ {"ksc", ReadKorgScript, nullptr, DetectKorgScript, "Korg Kronos script", 0x91, 0x02100005, 0x68, nullptr},  // Korg script: lists KMP/KSF files, 8/16-bit mono, stereo as pairs
    /* 218 */ {"ksf", ReadKorgSample, nullptr, DetectKorgSample, "Korg sample", 0x01, 0x00100005, 0x0, nullptr},  // Korg KSF sample: 8/16-bit mono
    /* 219 */ {"ksf", ReadKorgSample, nullptr, DetectKorgSample, "Korg Trinity sample", 0x01, 0x00100005, 0x3B, nullptr},  // Korg KSF sample: 8/16-bit mono
    /* 220 */ {"ksf", ReadKorgSample, nullptr, DetectKorgSample, "Korg Triton sample", 0x01, 0x00100005, 0x50, nullptr},  // Korg KSF sample: 8/16-bit mono
    /* 221 */ {"ksf", ReadKorgSample, nullptr, DetectKorgSample, "Korg M3 sample", 0x01, 0x00100005, 0x75, nullptr},  // Korg KSF sample: 8/16-bit mono
    /* 222 */ {"ksf", ReadKorgSample, nullptr, DetectKorgSample, "Korg M3 Xpanded sample", 0x01, 0x00100005, 0x75, nullptr},  // Korg KSF sample: 8/16-bit mono
    /* 223 */ {"ksf", ReadKorgSample, nullptr, DetectKorgSample, "Korg Kronos sample", 0x01, 0x00100005, 0x68, nullptr},  // Korg KSF sample: 8/16-bit mono
    /* 224 */ {"m4a", ReadMediaContainer, WriteM4a, DetectIsoMedia, "iTunes MPEG-4 audio", 0x01, 0x00320000, 0x0, AacSettings},  // MPEG-4 audio: AAC with bit-rate settings
    /* 225 */ {"m4r", ReadMediaContainer, nullptr, DetectIsoMedia, "iPhone ring-tone", 0x01, 0x00320000, 0x0, nullptr},  // MPEG-4 audio ring-tone: AAC
    /* 226 */ {"map", nullptr, nullptr, nullptr, "NI Reaktor", 0x91, 0x00300014, 0x0, nullptr},  // Reaktor sample map: zones with embedded or linked WAV samples
    /* 227 */ {"map", nullptr, nullptr, nullptr, "NI Reaktor - Embedded", 0x91, 0x00300014, 0x1, nullptr},  // Reaktor sample map: zones with embedded or linked WAV samples
    /* 228 */ {"map", nullptr, nullptr, nullptr, "NI Reaktor - Linked", 0x91, 0x00300014, 0x2, nullptr},  // Reaktor sample map: zones with embedded or linked WAV samples
    /* 229 */ {"mat", ReadMatlab, nullptr, DetectMatlab, "Matlab binary vars", 0x01, 0x003000E5, 0x0, nullptr},  // MAT-file: numeric arrays of 8/16/32-bit ints or floats
    /* 230 */ {"maud", ReadAiff, nullptr, DetectMaud, "MAUD sample", 0x01, 0x00300305, 0x0, nullptr},  // MAUD: 8/16-bit, A/mu-law, mono or stereo
    /* 231 */ {"mdl", ReadOtherModule<ModuleKind::Digitrakker>, nullptr, DetectOtherModule<ModuleKind::Digitrakker>, "Digitrakker module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 232 */ {"med", ReadOtherModule<ModuleKind::OctaMed>, nullptr, DetectOtherModule<ModuleKind::OctaMed>, "OctaMED module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 233 */ {"mid", ReadMidiFile, WriteMidi, DetectMidi, "Standard MIDI", 0x60, 0x00080000, 0x0, nullptr},  // Standard MIDI File: format 0/1/2 tracks
    /* 234 */ {"mka", ReadMediaContainer, WriteMka, DetectMatroska, "Matriska audio", 0x01, 0x00300014, 0x0, nullptr},  // Matroska: PCM or lossy audio tracks
    /* 235 */ {"mkv", ReadMediaContainer, nullptr, DetectMatroska, "Matriska video", 0x01, 0x00320054, 0x0, nullptr},  // Matroska: PCM or lossy audio tracks
    /* 236 */ {"mld", nullptr, nullptr, nullptr, "i-Melody", 0x60, 0x00080000, 0x0, nullptr},  // MLD ring-tone: note events
    /* 237 */ {"mls", ReadDls, nullptr, DetectDls, "Miles Sound System", 0x91, 0x00102005, 0x0, nullptr},  // Miles bank: DLS with compressed waves
    /* 238 */ {"mmf", nullptr, nullptr, nullptr, "Synthetic music mobile", 0x60, 0x00080000, 0x0, nullptr},  // SMAF: sequence of note events
    /* 239 */ {"mod", ReadModModule, nullptr, DetectModModule, "Tracker module", 0xD1, 0x00100001, 0x0, nullptr},  // ProTracker module: 8-bit mono samples, patterns as song
    /* 240 */ {"mov", ReadMediaContainer, nullptr, DetectQuickTime, "Apple QuickTime movie", 0x01, 0x003223F5, 0x0, nullptr},  // QuickTime audio: PCM, float, G.711, IMA4, AAC
    /* 241 */ {"mp1", ReadMpegAudio, nullptr, DetectMpegLayer1, "MPEG layer I", 0x01, 0x00320000, 0x0, nullptr},  // MPEG audio layer I
    /* 242 */ {"mp2", ReadMpegAudio, nullptr, DetectMpegLayer2, "MPEG layer II", 0x01, 0x00320000, 0x0, nullptr},  // MPEG audio layer II
    /* 243 */ {"mp2", ReadMpegAudio, WriteMp2, DetectMpegLayer2, "MPEG layer II - CBR", 0x01, 0x00320000, 0x1, Mp2Settings},  // MPEG audio layer II: CBR bit rates
    /* 244 */ {"mp3", ReadMpegAudio, nullptr, DetectMpegLayer3, "MPEG layer III", 0x01, 0x00320000, 0x0, nullptr},  // MPEG audio layer III
    /* 245 */ {"mp3", ReadMpegAudio, WriteMp3, DetectMpegLayer3, "MPEG layer III - CBR", 0x01, 0x00320000, 0x1, Mp3Settings},  // MPEG layer III: CBR bit-rate list
    /* 246 */ {"mp3", ReadMpegAudio, WriteMp3, DetectMpegLayer3, "MPEG layer III - ABR", 0x01, 0x00320000, 0x2, Mp3Settings},  // MPEG layer III: ABR bit-rate list
    /* 247 */ {"mp3", ReadMpegAudio, WriteMp3, DetectMpegLayer3, "MPEG layer III - VBR", 0x01, 0x00320000, 0x3, Mp3Settings},  // MPEG layer III: VBR quality list
    /* 248 */ {"mp4", ReadMediaContainer, nullptr, DetectIsoMedia, "MPEG-4 base media", 0x01, 0x00320000, 0x0, nullptr},  // MPEG-4 base media: AAC
    /* 249 */ {"mpa", ReadMpegAudio, nullptr, DetectMpegAnyLayer, "MPEG audio", 0x01, 0x00320000, 0x0, nullptr},  // MPEG audio elementary stream
    /* 250 */ {"mpc", ReadMediaContainer, nullptr, DetectMusepack, "Musepack", 0x01, 0x00320000, 0x0, nullptr},  // Musepack: lossy codec
    /* 251 */ {"mpg", ReadMpegAudio, nullptr, DetectMpegAnyLayer, "MPEG audio", 0x01, 0x00320000, 0x0, nullptr},  // MPEG audio elementary stream
    /* 252 */ {"mpeg", ReadMediaContainer, nullptr, DetectMpegSystem, "MPEG system stream", 0x01, 0x00320000, 0x0, nullptr},  // MPEG system stream: MPEG audio
    /* 253 */ {"mpg", ReadMediaContainer, nullptr, DetectMpegSystem, "MPEG system stream", 0x01, 0x00320000, 0x1, nullptr},  // MPEG system stream: MPEG audio
    /* 254 */ {"mss", nullptr, nullptr, nullptr, "MSS DLS 1 + XMI", 0xD1, 0x00180005, 0x0, nullptr},  // DLS level 1 bank with an XMI song
    /* 255 */ {"mt2", nullptr, nullptr, nullptr, "MadTracker 2 module", 0x91, 0x00300005, 0x0, nullptr},  // tracker module: 8/16-bit samples, mono or stereo, patterns not kept
    /* 256 */ {"mti", nullptr, nullptr, nullptr, "MadTracker 2 instrument", 0x11, 0x00300005, 0x0, nullptr},  // MadTracker instrument: 8/16-bit samples
    /* 257 */ {"mtm", ReadOtherModule<ModuleKind::MultiTracker>, nullptr, DetectOtherModule<ModuleKind::MultiTracker>, "MultiTracker module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 258 */ {"mus", nullptr, nullptr, nullptr, "Doom/Heretic music", 0x60, 0x00080000, 0x0, nullptr},  // MUS: compact MIDI-like events
    /* 259 */ {"mus", nullptr, nullptr, nullptr, "Musifile MPEG layer II", 0x01, 0x00320000, 0x1, nullptr},  // MPEG layer II audio
    /* 260 */ {"mus10", nullptr, nullptr, nullptr, "Mus10", 0x01, 0x00100006, 0x0, nullptr},  // Mus10 sound: packed 12/16-bit
    /* 261 */ {"ncw", nullptr, nullptr, nullptr, "NI Kontakt Compressed", 0x01, 0x00300074, 0x0, nullptr},  // Kontakt lossless packed sample: 16/24/32-bit and float
    /* 262 */ {"nist", ReadNist, nullptr, DetectNist, "NIST Sphere", 0x01, 0x00300335, 0x0, nullptr},  // NIST SPHERE: PCM 8-32, mu/A-law, mono or stereo
    /* 263 */ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v1 Bank", 0x91, 0x00300075, 0x0, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 264 */ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v2/3/4 Bank", 0x91, 0x00300075, 0x1, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 265 */ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v5/6/7 Bank", 0x91, 0x00300075, 0x2, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 266 */ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v3 Bank (waves in subfolder)", 0x91, 0x00300075, 0x2, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 267 */ {"nkb", nullptr, nullptr, nullptr, "NI Kontakt v3 Bank (monolith)", 0x91, 0x00300075, 0xA, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 268 */ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v1 Instrument", 0x91, 0x00300075, 0x0, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 269 */ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v2/3/4 Instrument", 0x91, 0x00300075, 0x1, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 270 */ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v5/6/7 Instrument", 0x91, 0x00300075, 0x2, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 271 */ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v3 Instrument (waves in subfolder)", 0x91, 0x00300075, 0x0, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 272 */ {"nki", nullptr, nullptr, nullptr, "NI Kontakt v3 Instrument (monolith)", 0x91, 0x00300075, 0x8, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 273 */ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v1 Multi", 0x91, 0x00300075, 0x0, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 274 */ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v2/3/4 Multi", 0x91, 0x00300075, 0x1, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 275 */ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v5/6/7 Multi", 0x91, 0x00300075, 0x2, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 276 */ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v3 Multi (waves in subfolder)", 0x91, 0x00300075, 0x1, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 277 */ {"nkm", nullptr, nullptr, nullptr, "NI Kontakt v3 Multi (monolith)", 0x91, 0x00300075, 0x9, nullptr},  // Kontakt: zones referencing WAV samples, PCM 8-32 and float, mono or stereo
    /* 278 */ {"nsmpproj", nullptr, nullptr, nullptr, "Nord Sample Editor project", 0x91, 0x00300004, 0x0, nullptr},  // Nord sample project: 16-bit samples
    /* 279 */ {"nvf", nullptr, nullptr, nullptr, "Creative Labs Nomad", 0x01, 0x00102000, 0x0, nullptr},  // Nomad voice file: 4-bit ADPCM mono
    /* 280 */ {"o01", nullptr, nullptr, nullptr, "Typhoon voice", 0x91, 0x00100002, 0x0, nullptr},  // TX16W voice (Typhoon OS): 12-bit mono samples
    /* 281 */ {"ogg", ReadOggVorbis, WriteOggVorbis, DetectOggVorbis, "Ogg Vorbis", 0x01, 0x00320000, 0x0, OggVorbisSettings},  // Ogg Vorbis: lossy, quality settings
    /* 282 */ {"okt", ReadOtherModule<ModuleKind::Oktalyzer>, nullptr, DetectOtherModule<ModuleKind::Oktalyzer>, "Oktalyzer module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 283 */ {"opus", ReadOpus, WriteOpus, DetectOpus, "Opus", 0x01, 0x00320000, 0x0, OpusSettings},  // Opus: lossy, bit-rate settings
    /* 284 */ {"opus", ReadOpus, nullptr, DetectOpus, "Opus (Music)", 0x01, 0x00320000, 0x1, nullptr},  // Opus: lossy, bit-rate settings
    /* 285 */ {"opus", ReadOpus, nullptr, DetectOpus, "Opus (Voice)", 0x01, 0x00320000, 0x2, nullptr},  // Opus voice mode: lossy, bit-rate settings
    /* 286 */ {"osp", nullptr, nullptr, nullptr, "Orion Sampler program", 0x91, 0x00300014, 0x0, nullptr},  // Orion sampler program: WAV samples
    /* 287 */ {"out", nullptr, nullptr, nullptr, "Roland S-5xx series floppy disk image", 0x91, 0x00100002, 0x0, nullptr},  // Roland S-5xx disk: 12-bit mono samples
    /* 288 */ {"out", nullptr, nullptr, nullptr, "Roland S-7xx series floppy disk image", 0x91, 0x00100004, 0x1, nullptr},  // Roland S-7xx disk: 16-bit mono samples
    /* 289 */ {"p", nullptr, nullptr, nullptr, "AKAI S900/S950 program", 0x91, 0x00100002, 0x0, nullptr},  // AKAI S900/S950 program: 12-bit mono samples
    /* 290 */ {"p", nullptr, nullptr, nullptr, "AKAI S1000 program", 0x91, 0x02100004, 0x1, nullptr},  // AKAI S1000/S3000 program: 16-bit mono samples, stereo as pairs
    /* 291 */ {"p", nullptr, nullptr, nullptr, "AKAI S3000 program", 0x91, 0x02100004, 0x3, nullptr},  // AKAI S1000/S3000 program: 16-bit mono samples, stereo as pairs
    /* 292 */ {"p1", nullptr, nullptr, nullptr, "AKAI S1000 program", 0x91, 0x02100004, 0x1, nullptr},  // AKAI S1000/S3000 program: 16-bit mono samples, stereo as pairs
    /* 293 */ {"p3", nullptr, nullptr, nullptr, "AKAI S3000 program", 0x91, 0x02100004, 0x3, nullptr},  // AKAI S1000/S3000 program: 16-bit mono samples, stereo as pairs
    /* 294 */ {"p9", nullptr, nullptr, nullptr, "AKAI S900/S950 program", 0x91, 0x00100002, 0x0, nullptr},  // AKAI S900/S950 program: 12-bit mono samples
    /* 295 */ {"p9", nullptr, nullptr, nullptr, "AKAI S900 program", 0x91, 0x00100002, 0x0, nullptr},  // AKAI S900/S950 program: 12-bit mono samples
    /* 296 */ {"p9", nullptr, nullptr, nullptr, "AKAI S950 program", 0x91, 0x00100002, 0x1, nullptr},  // AKAI S900/S950 program: 12-bit mono samples
    /* 297 */ {"p3k", nullptr, nullptr, nullptr, "Kurzweil PC3K", 0x91, 0x02100004, 0x2, nullptr},  // Kurzweil object file: 16-bit samples, stereo as paired mono samples
    /* 298 */ {"pac", nullptr, nullptr, nullptr, "SB Studio II", 0x81, 0x00100001, 0x0, nullptr},  // SB Studio package: 8-bit mono sounds
    /* 299 */ {"paf", ReadPaf, nullptr, DetectPaf, "Ensoniq PARIS", 0x01, 0x00300014, 0x0, nullptr},  // PARIS audio: 16/24-bit
    /* 300 */ {"pat", nullptr, nullptr, nullptr, "Gravis Ultrasound patch", 0x11, 0x00100005, 0x0, nullptr},  // Gravis patch: 8/16-bit mono samples
    /* 301 */ {"pbf", nullptr, nullptr, nullptr, "TB Pinnacle bank", 0x91, 0x00100004, 0x0, nullptr},  // Turtle Beach bank
    /* 302 */ {"pcg", nullptr, nullptr, nullptr, "Korg Trinity bank", 0x90, 0x02100005, 0x3B, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 303 */ {"pcg", nullptr, nullptr, nullptr, "Korg Triton bank", 0x90, 0x02100005, 0x50, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 304 */ {"pcg", nullptr, nullptr, nullptr, "Korg Triton LE bank", 0x90, 0x02100005, 0x63, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 305 */ {"pcg", nullptr, nullptr, nullptr, "Korg M3 bank", 0x90, 0x02100005, 0x75, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 306 */ {"pcg", nullptr, nullptr, nullptr, "Korg M50 bank", 0x90, 0x02100005, 0x85, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 307 */ {"pcg", nullptr, nullptr, nullptr, "Korg Oasys bank", 0x90, 0x02100005, 0x5, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 308 */ {"pcg", nullptr, nullptr, nullptr, "Korg Kronos bank", 0x90, 0x02100005, 0x68, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 309 */ {"pcg", nullptr, nullptr, nullptr, "Korg Trinity bank - Bank A..D", 0x90, 0x02100005, 0x3B, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 310 */ {"pcg", nullptr, nullptr, nullptr, "Korg Trinity bank - Bank C..D", 0x90, 0x02100005, 0x23B, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 311 */ {"pcg", nullptr, nullptr, nullptr, "Korg Triton bank - Bank A..E", 0x90, 0x02100005, 0x50, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 312 */ {"pcg", nullptr, nullptr, nullptr, "Korg Triton bank - Bank C..E", 0x90, 0x02100005, 0x250, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 313 */ {"pcg", nullptr, nullptr, nullptr, "Korg Triton bank - Bank E", 0x90, 0x02100005, 0x450, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 314 */ {"pcg", nullptr, nullptr, nullptr, "Korg Triton LE file - Bank A..D", 0x90, 0x02100005, 0x63, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 315 */ {"pcg", nullptr, nullptr, nullptr, "Korg Triton LE file - Bank C..D", 0x90, 0x02100005, 0x263, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 316 */ {"pcg", nullptr, nullptr, nullptr, "Korg M3 bank - Bank A..G", 0x90, 0x02100005, 0x75, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 317 */ {"pcg", nullptr, nullptr, nullptr, "Korg M3 bank - Bank D..G", 0x90, 0x02100005, 0x375, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 318 */ {"pcg", nullptr, nullptr, nullptr, "Korg M3 Xpanded bank - Bank A..G", 0x90, 0x02100005, 0x75, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 319 */ {"pcg", nullptr, nullptr, nullptr, "Korg M3 Xpanded bank - Bank D..G", 0x90, 0x02100005, 0x375, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 320 */ {"pcg", nullptr, nullptr, nullptr, "Korg M50 bank - Bank A..E", 0x90, 0x02100005, 0x85, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 321 */ {"pcg", nullptr, nullptr, nullptr, "Korg M50 bank - Bank C..E", 0x90, 0x02100005, 0x285, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 322 */ {"pcg", nullptr, nullptr, nullptr, "Korg Kronos bank", 0x90, 0x02100005, 0x68, nullptr},  // Korg PCG bank: KSF samples 8/16-bit mono, stereo as pairs
    /* 323 */ {"pcm", nullptr, nullptr, nullptr, "Korg PA-series PCM wave set", 0x91, 0x02100004, 0x0, nullptr},  // Korg PA wave set: 16-bit samples
    /* 324 */ {"pcm", nullptr, nullptr, nullptr, "OKI MSM6376 PCM", 0x01, 0x00102000, 0x1, nullptr},  // OKI ADPCM: 4-bit mono
    /* 325 */ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC1000 program", 0x91, 0x00300004, 0x0, nullptr},  // MPC1000 program: 16-bit WAV samples
    /* 326 */ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC2000 program", 0x91, 0x00300004, 0x1, nullptr},  // MPC program: 16-bit SND samples
    /* 327 */ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC2000XL program", 0x91, 0x00300004, 0x2, nullptr},  // MPC program: 16-bit SND samples
    /* 328 */ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC2000 program", 0x91, 0x00300004, 0x3, nullptr},  // MPC program: 16-bit SND samples
    /* 329 */ {"pgm", nullptr, nullptr, nullptr, "AKAI MPC3000 program", 0x91, 0x00300004, 0x4, nullptr},  // MPC program: 16-bit SND samples
    /* 330 */ {"plm", nullptr, nullptr, nullptr, "DisorderTracker2 module", 0x91, 0x00100005, 0x0, nullptr},  // tracker module: 8/16-bit mono samples, patterns not kept
    /* 331 */ {"pls", nullptr, nullptr, nullptr, "DisorderTracker2 sample", 0x01, 0x00100005, 0x0, nullptr},  // tracker sample: 8/16-bit mono
    /* 332 */ {"ppf", nullptr, nullptr, nullptr, "TB Pinnacle program", 0x91, 0x00100004, 0x0, nullptr},  // Turtle Beach program/bank
    /* 333 */ {"prg", nullptr, nullptr, nullptr, "WAVmaker program", 0x91, 0x00100004, 0x0, nullptr},  // WAVmaker program
    /* 334 */ {"psb", nullptr, nullptr, nullptr, "TB Pinnacle bank", 0x91, 0x00100004, 0x0, nullptr},  // Turtle Beach program/bank
    /* 335 */ {"psion", ReadPsion, nullptr, DetectPsion, "PSION A-law", 0x01, 0x00100200, 0x0, nullptr},  // Psion A-law: 8 kHz mono
    /* 336 */ {"psm", ReadOtherModule<ModuleKind::ProtrackerStudio>, nullptr, DetectOtherModule<ModuleKind::ProtrackerStudio>, "Protracker Studio module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 337 */ {"ptm", ReadOtherModule<ModuleKind::PolyTracker>, nullptr, DetectOtherModule<ModuleKind::PolyTracker>, "Poly Tracker module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 338 */ {"ra", ReadMediaContainer, nullptr, DetectRealAudio, "RealAudio - Music", 0x01, 0x00320000, 0x0, nullptr},  // RealAudio: lossy codec
    /* 339 */ {"ra", ReadMediaContainer, nullptr, DetectRealAudio, "RealAudio - Voice", 0x01, 0x00120000, 0x1, nullptr},  // RealAudio voice: lossy mono codec
    /* 340 */ {"raw", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Signed 8-bit PCM", 0x01, 0x00300001, 0x1, nullptr},  // raw signed 8-bit PCM
    /* 341 */ {"raw", nullptr, nullptr, nullptr, "Rdos Raw OPL capture", 0x60, 0x00000000, 0x1, nullptr},  // OPL register capture: timed register writes, not MIDI
    /* 342 */ {"rif", ReadWav, nullptr, DetectRockwellRif, "Rockwell ADPCM (HotFax/Quicklink)", 0x01, 0x00103800, 0x0, nullptr},  // Rockwell ADPCM in WAVE: 2/3/4-bit, mono
    /* 343 */ {"rol", nullptr, nullptr, nullptr, "AdLib Visual Composer song", 0x60, 0x00080000, 0x0, nullptr},  // AdLib Visual Composer: note events
    /* 344 */ {"rom", nullptr, nullptr, nullptr, "Roland D-50 PCM ROM", 0x91, 0x00100002, 0x0, nullptr},  // sample ROM dump: 12-bit mono
    /* 345 */ {"rom", nullptr, nullptr, nullptr, "Roland MT-32 PCM ROM", 0x91, 0x00100004, 0x1, nullptr},  // sample ROM dump: 16-bit mono
    /* 346 */ {"rom", nullptr, nullptr, nullptr, "Roland MT-32 Control ROM", 0x82, 0x00000000, 0x2, nullptr},  // control ROM: synthesis parameters, no samples
    /* 347 */ {"rmi", ReadRmi, WriteRmi, DetectRmi, "RIFF-MIDI (DLS optional)", 0xD1, 0x02180005, 0x0, nullptr},  // RIFF-MIDI: MIDI song with optional DLS bank
    /* 348 */ {"rmi", nullptr, WriteRmi, nullptr, "RIFF-MIDI w no instruments", 0x60, 0x00080000, 0x1, nullptr},  // RIFF-MIDI: MIDI song only
    /* 349 */ {"rmi", nullptr, WriteRmi, nullptr, "RIFF-MIDI w DLS level 1 instruments", 0xD1, 0x00180005, 0x2, nullptr},  // RIFF-MIDI with DLS level 1: 8/16-bit mono waves
    /* 350 */ {"rmi", nullptr, WriteRmi, nullptr, "RIFF-MIDI w DLS level 2 instruments", 0xD1, 0x02180005, 0x3, nullptr},  // RIFF-MIDI with DLS level 2: 8/16-bit mono, stereo as pairs
    /* 351 */ {"rockwell", ReadCodecRaw, nullptr, DetectByExtensionOnly, "Rockwell ADPCM", 0x01, 0x00103800, 0x640, nullptr},  // Rockwell ADPCM: 2/3/4-bit, mono
    /* 352 */ {"rockwell-2", ReadCodecRaw, nullptr, DetectByExtensionOnly, "Rockwell 2-bit ADPCM", 0x01, 0x00100800, 0x620, nullptr},  // Rockwell ADPCM: 2-bit, mono
    /* 353 */ {"rockwell-3", ReadCodecRaw, nullptr, DetectByExtensionOnly, "Rockwell 3-bit ADPCM", 0x01, 0x00101000, 0x630, nullptr},  // Rockwell ADPCM: 3-bit, mono
    /* 354 */ {"rockwell-4", ReadCodecRaw, nullptr, DetectByExtensionOnly, "Rockwell 4-bit ADPCM", 0x01, 0x00102000, 0x640, nullptr},  // Rockwell ADPCM: 4-bit, mono
    /* 355 */ {"s", nullptr, nullptr, nullptr, "AKAI S900/S950 sample", 0x01, 0x00100002, 0x0, nullptr},  // AKAI S900/S950 sample: 12-bit mono
    /* 356 */ {"s", nullptr, nullptr, nullptr, "AKAI S1000 sample", 0x01, 0x00100004, 0x1, nullptr},  // AKAI S1000/S3000 sample: 16-bit mono
    /* 357 */ {"s", nullptr, nullptr, nullptr, "AKAI S3000 sample", 0x01, 0x00100004, 0x3, nullptr},  // AKAI S1000/S3000 sample: 16-bit mono
    /* 358 */ {"s1", nullptr, nullptr, nullptr, "AKAI S1000 sample", 0x01, 0x00100004, 0x1, nullptr},  // AKAI S1000/S3000 sample: 16-bit mono
    /* 359 */ {"s3", nullptr, nullptr, nullptr, "AKAI S3000 sample", 0x01, 0x00100004, 0x3, nullptr},  // AKAI S1000/S3000 sample: 16-bit mono
    /* 360 */ {"s9", nullptr, nullptr, nullptr, "AKAI S900/S950 sample", 0x01, 0x00100002, 0x0, nullptr},  // AKAI S900/S950 sample: 12-bit mono
    /* 361 */ {"s1a", nullptr, nullptr, nullptr, "Yamaha EX5 all", 0x91, 0x02100004, 0x0, nullptr},  // Yamaha EX5 all data: voices and 16-bit samples
    /* 362 */ {"s1m", nullptr, nullptr, nullptr, "Yamaha EX5 waves", 0x81, 0x02100004, 0x0, nullptr},  // Yamaha EX5 waves: 16-bit samples
    /* 363 */ {"s1v", nullptr, nullptr, nullptr, "Yamaha EX5 voices", 0x91, 0x02100004, 0x0, nullptr},  // Yamaha EX5 voices with 16-bit samples
    /* 364 */ {"s1v", nullptr, nullptr, nullptr, "Yamaha EX5 voices (RAM samples)", 0x91, 0x02100004, 0x0, nullptr},  // Yamaha EX5 voices with 16-bit samples
    /* 365 */ {"s1v", nullptr, nullptr, nullptr, "Yamaha EX5 voices (FLASH samples)", 0x91, 0x02100004, 0x1, nullptr},  // Yamaha EX5 voices with 16-bit samples
    /* 366 */ {"s3i", ReadS3iSample, nullptr, DetectS3iSample, "ScreamTracker v3 sample", 0x01, 0x00300005, 0x0, nullptr},  // ScreamTracker 3 sample: 8/16-bit, mono or stereo
    /* 367 */ {"s3m", ReadS3mModule, nullptr, DetectS3mModule, "ScreamTracker v3 module", 0x91, 0x00300005, 0x0, nullptr},  // tracker module: 8/16-bit samples, mono or stereo, patterns not kept
    /* 368 */ {"s3p", nullptr, nullptr, nullptr, "AKAI MESA II/PC S-series program", 0x91, 0x02100004, 0x0, nullptr},  // AKAI S-series program (PC editor): 16-bit mono samples
    /* 369 */ {"sam", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Signed 8-bit PCM", 0x01, 0x00300001, 0x1, nullptr},  // raw signed 8-bit PCM
    /* 370 */ {"sb", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Signed bytes (8-bit)", 0x01, 0x00300001, 0x1, nullptr},  // raw signed 8-bit PCM
    /* 371 */ {"sbk", ReadSoundFont, WriteSbk, DetectSbk, "SoundFont v1", 0x91, 0x02100004, 0x0, nullptr},  // SoundFont 1: 16-bit mono samples, stereo as linked pairs
    /* 372 */ {"sbi", nullptr, nullptr, nullptr, "Creative FM instrument", 0x02, 0x00000000, 0x0, nullptr},  // Creative FM instrument: one OPL voice, no samples
    /* 373 */ {"sd", nullptr, nullptr, nullptr, "Sound Designer I", 0x01, 0x00100004, 0x0, nullptr},  // Sound Designer I: 16-bit mono
    /* 374 */ {"sc2", nullptr, nullptr, nullptr, "Sample Cell II PC", 0x91, 0x00300004, 0x0, nullptr},  // SampleCell instrument: references 16-bit sound files
    /* 375 */ {"sd2", nullptr, nullptr, nullptr, "Sound Designer II data", 0x01, 0x00300015, 0x0, nullptr},  // Sound Designer II: 8/16/24-bit, mono or stereo
    /* 376 */ {"sd2", nullptr, nullptr, nullptr, "Sound Designer II flat", 0x01, 0x00300015, 0x1, nullptr},  // Sound Designer II: 8/16/24-bit, mono or stereo
    /* 377 */ {"sdk", nullptr, nullptr, nullptr, "Roland S-5xx disk image", 0x91, 0x00100002, 0x0, nullptr},  // Roland S-5xx disk: 12-bit mono samples
    /* 378 */ {"sdk", nullptr, nullptr, nullptr, "Roland S-7xx disk image", 0x91, 0x00100004, 0x1, nullptr},  // Roland S-7xx disk: 16-bit mono samples
    /* 379 */ {"sds", ReadSds, nullptr, DetectSds, "MIDI SDS", 0x01, 0x0010001F, 0x0, nullptr},  // MIDI Sample Dump Standard: 8 to 28-bit mono
    /* 380 */ {"sds", ReadWav, nullptr, DetectSmartSoundSds, "SmartSound SDS", 0x01, 0x00300005, 0x1, nullptr},  // SmartSound: RIFF WAVE form with SDSS tag
    /* 381 */ {"sdw", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Signed dwords (32-bit)", 0x01, 0x00300020, 0x20, nullptr},  // raw signed 32-bit PCM
    /* 382 */ {"seq", nullptr, nullptr, nullptr, "PlayStation music", 0x60, 0x00080000, 0x0, nullptr},  // PlayStation sequence: MIDI-like events
    /* 383 */ {"sdx", nullptr, nullptr, nullptr, "SDX compact MIDI SDS", 0x01, 0x0010001F, 0x0, nullptr},  // compact Sample Dump Standard: 8 to 28-bit mono
    /* 384 */ {"sf", ReadIrcam, nullptr, DetectIrcam, "IRCAM / MTU sound", 0x01, 0x003003E5, 0x0, nullptr},  // IRCAM/BICSF: 8/16/32-bit, float, double, mu/A-law
    /* 385 */ {"sf2", ReadSoundFont, WriteSf2, DetectSf2, "SoundFont v2 bank", 0x91, 0x02100014, 0x0, nullptr},  // SoundFont 2: 16/24-bit mono samples, stereo as linked pairs
    /* 386 */ {"sf2pack", ReadSoundFont, nullptr, DetectSf2Pack, "MIDI Converter Studio", 0x91, 0x02100014, 0x0, nullptr},  // SoundFont 2 with WavPack-packed sample chunk
    /* 387 */ {"sf3", ReadSoundFont, WriteSf3, DetectSf3, "Compressed SoundFont", 0x91, 0x02120014, 0x3, Sf3Settings},  // SoundFont 3: 16/24-bit or Vorbis/FLAC mono samples, stereo as pairs
    /* 388 */ {"sfark", ReadSfArk, nullptr, DetectSfArk, "Melody Machine SF", 0x91, 0x02100014, 0x0, nullptr},  // sfArk: packed SoundFont 2
    /* 389 */ {"sfd", nullptr, nullptr, nullptr, "SoundStage data", 0x01, 0x00300005, 0x0, nullptr},  // SoundStage sound data
    /* 390 */ {"sfi", nullptr, nullptr, nullptr, "SoundStage info", 0x01, 0x00300005, 0x0, nullptr},  // SoundStage sound info
    /* 391 */ {"sfr", nullptr, nullptr, nullptr, "Sonic Foundry sample", 0x01, 0x00300005, 0x0, nullptr},  // Sonic Foundry sample
    /* 392 */ {"sfz", ReadSfz, nullptr, DetectSfz, "SFZ instrument", 0x91, 0x00320075, 0x0, nullptr},  // SFZ: text regions referencing WAV (or Ogg/FLAC) samples
    /* 393 */ {"sfz", nullptr, WriteSfz, DetectSfz, "rgc:audio SFZ v1 (waves in same folder)", 0x91, 0x00320075, 0x1, nullptr},  // SFZ: text regions referencing WAV (or Ogg/FLAC) samples
    /* 394 */ {"sfz", nullptr, WriteSfz, DetectSfz, "rgc:audio SFZ v1 (waves in sub-folder)", 0x91, 0x00320075, 0x2, nullptr},  // SFZ: text regions referencing WAV (or Ogg/FLAC) samples
    /* 395 */ {"sfz", nullptr, WriteSfz, DetectSfz, "Cakewalk SFZ v2 (waves in same folder)", 0x91, 0x00320075, 0x3, nullptr},  // SFZ: text regions referencing WAV (or Ogg/FLAC) samples
    /* 396 */ {"sfz", nullptr, WriteSfz, DetectSfz, "Cakewalk SFZ v2 (waves in sub-folder)", 0x91, 0x00320075, 0x4, nullptr},  // SFZ: text regions referencing WAV (or Ogg/FLAC) samples
    /* 397 */ {"shn", ReadMediaContainer, nullptr, DetectShorten, "Shorten lossless", 0x01, 0x00300105, 0x0, nullptr},  // Shorten: lossless 8/16-bit and mu-law
    /* 398 */ {"smd", nullptr, nullptr, nullptr, "J-Phone / SmdEd song", 0x60, 0x00080000, 0x0, nullptr},  // SMD song: note events
    /* 399 */ {"smp", nullptr, nullptr, nullptr, "AdLib Gold sample", 0x01, 0x00100005, 0x0, nullptr},  // AdLib Gold sample
    /* 400 */ {"smp", ReadSamplevision, nullptr, DetectSamplevision, "Samplevision", 0x01, 0x00100004, 0x1, nullptr},  // Samplevision: 16-bit mono
    /* 401 */ {"smp", nullptr, nullptr, nullptr, "Avalon sample", 0x01, 0x00100004, 0x2, nullptr},  // Avalon sample: 16-bit mono
    /* 402 */ {"snd", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Unsigned 8-bit PCM", 0x01, 0x00300001, 0x800001, nullptr},  // raw unsigned 8-bit PCM
    /* 403 */ {"snd", nullptr, nullptr, nullptr, "AKAI MPC sample", 0x01, 0x00300004, 0x1, nullptr},  // MPC sample: 16-bit, mono or stereo
    /* 404 */ {"snd", nullptr, nullptr, nullptr, "AKAI MPC60 'type 0' sample", 0x01, 0x00100002, 0x2, nullptr},  // MPC60 sample: 12-bit mono
    /* 405 */ {"snd", nullptr, nullptr, nullptr, "AKAI MPC60 'type 2' sample", 0x01, 0x00100002, 0x3, nullptr},  // MPC60 sample: 12-bit mono
    /* 406 */ {"snd", nullptr, nullptr, nullptr, "AKAI MPC2000 'type 4' sample", 0x01, 0x00300004, 0x4, nullptr},  // MPC2000 sample: 16-bit, mono or stereo
    /* 407 */ {"snd", nullptr, nullptr, nullptr, "AKAI MPC3000 'type 2' sample", 0x01, 0x00100004, 0x5, nullptr},  // MPC3000 sample: 16-bit mono
    /* 408 */ {"sndr", nullptr, nullptr, nullptr, "Sounder", 0x01, 0x00100001, 0x0, nullptr},  // Sounder: 8-bit mono
    /* 409 */ {"sndt", nullptr, nullptr, nullptr, "Sndtool", 0x01, 0x00100001, 0x0, nullptr},  // Sndtool: 8-bit mono
    /* 410 */ {"sou", nullptr, nullptr, nullptr, "SB Studio II", 0x01, 0x00100001, 0x0, nullptr},  // SB Studio sound: 8-bit mono
    /* 411 */ {"spd", nullptr, nullptr, nullptr, "Speech data", 0x01, 0x00100004, 0x0, nullptr},  // speech data
    /* 412 */ {"spl", nullptr, nullptr, nullptr, "Digitrakker sample", 0x01, 0x00300005, 0x0, nullptr},  // tracker sample: 8/16-bit
    /* 413 */ {"sppack", nullptr, nullptr, nullptr, "SPPack sample", 0x01, 0x00300005, 0x0, nullptr},  // SPPack sample
    /* 414 */ {"sq", nullptr, nullptr, nullptr, "PlayStation 2 SCEI sequence", 0x60, 0x00080000, 0x0, nullptr},  // PlayStation 2 sequence: MIDI-like events
    /* 415 */ {"ss2", nullptr, nullptr, nullptr, "PlayStation 2 sound", 0x01, 0x00302004, 0x0, nullptr},  // PlayStation 2 stream: 16-bit or Sony ADPCM, interleaved stereo
    /* 416 */ {"stm", ReadOtherModule<ModuleKind::ScreamTracker2>, nullptr, DetectOtherModule<ModuleKind::ScreamTracker2>, "ScreamTracker v2 module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 417 */ {"sts", nullptr, nullptr, nullptr, "Creamware STS program", 0x91, 0x02100004, 0x5, nullptr},  // STS program: AKAI S1000-style keygroups with embedded waves
    /* 418 */ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v0", 0x60, 0x00080000, 0x0, nullptr},  // sequencer file: note events
    /* 419 */ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v1", 0x60, 0x00080000, 0x1, nullptr},  // sequencer file: note events
    /* 420 */ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v2", 0x60, 0x00080000, 0x2, nullptr},  // sequencer file: note events
    /* 421 */ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v3", 0x60, 0x00080000, 0x3, nullptr},  // sequencer file: note events
    /* 422 */ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer v4", 0x60, 0x00080000, 0x4, nullptr},  // sequencer file: note events
    /* 423 */ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer 'STcf'", 0x60, 0x00080000, 0x5, nullptr},  // sequencer file: note events
    /* 424 */ {"svq", nullptr, nullptr, nullptr, "Roland Sequencer 'RSVQ'", 0x60, 0x00080000, 0x6, nullptr},  // sequencer file: note events
    /* 425 */ {"svx", ReadSvx, WriteSvx, DetectSvx, "Interchange file format", 0x01, 0x00300005, 0x0, nullptr},  // IFF 8SVX/16SV: 8/16-bit, mono or stereo (CHAN)
    /* 426 */ {"sw", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Signed words (16-bit) - Little Endian", 0x01, 0x00300004, 0x4, nullptr},  // raw signed 16-bit PCM
    /* 427 */ {"sw", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Signed words (16-bit) - Big Endian", 0x01, 0x00300004, 0x1000004, nullptr},  // raw signed 16-bit PCM
    /* 428 */ {"sxt", nullptr, nullptr, nullptr, "Propellerheads Reason NN-XT", 0x91, 0x00300014, 0x0, nullptr},  // NN-XT patch: zones referencing WAV/AIFF samples
    /* 429 */ {"syx", nullptr, nullptr, nullptr, "Yamaha DX100/DX21/DX27 voice SysEx", 0x82, 0x00000000, 0x0, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /* 430 */ {"syx", nullptr, nullptr, nullptr, "Yamaha DX11/TX81z voice SysEx", 0x82, 0x00000000, 0x1, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /* 431 */ {"syx", nullptr, nullptr, nullptr, "Yamaha DX7 voice SysEx", 0x82, 0x00000000, 0x2, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /* 432 */ {"syx", nullptr, nullptr, nullptr, "Yamaha DX7II/DX200 voice SysEx", 0x82, 0x00000000, 0x3, nullptr},  // FM voice data: synthesis-model parameters, no sample data
    /* 433 */ {"syx", nullptr, nullptr, nullptr, "Roland D-50 patch SysEx", 0x82, 0x00000000, 0x4, nullptr},  // LA synthesis patches: synthesis-model parameters, no samples
    /* 434 */ {"syx", nullptr, nullptr, nullptr, "Roland MT-32 SysEx", 0x82, 0x00000000, 0x5, nullptr},  // LA synthesis SysEx: timbre and patch parameters, no samples
    /* 435 */ {"t01", nullptr, nullptr, nullptr, "Yamaha SY99 all", 0x91, 0x00100004, 0x0, nullptr},  // Yamaha SY99 all data: voices and samples
    /* 436 */ {"tak1a", nullptr, nullptr, nullptr, "Soundscape audio-take", 0x01, 0x00100014, 0x0, nullptr},  // Soundscape take: one mono track per file, 16/24-bit
    /* 437 */ {"tvd", nullptr, nullptr, nullptr, "Yamaha Tyros 2 drums", 0x91, 0x02100004, 0x82, nullptr},  // Tyros custom voice: 16-bit samples, stereo as pairs
    /* 438 */ {"tvn", nullptr, nullptr, nullptr, "Yamaha Tyros 2 voices", 0x91, 0x02100004, 0x2, nullptr},  // Tyros custom voice: 16-bit samples, stereo as pairs
    /* 439 */ {"txbank", nullptr, nullptr, nullptr, "Cwitec TX16Wx bank", 0x91, 0x00300014, 0x0, nullptr},  // TX16Wx bank: WAV samples, mono or stereo
    /* 440 */ {"txprog", nullptr, nullptr, nullptr, "Cwitec TX16Wx program", 0x91, 0x00300014, 0x0, nullptr},  // TX16Wx program: WAV samples, mono or stereo
    /* 441 */ {"txt", nullptr, nullptr, nullptr, "Ascii text parameter descriptions", 0xF3, 0x00040000, 0x0, nullptr},  // parameter listing as text
    /* 442 */ {"txt", ReadTextAudio, nullptr, DetectTextAudio, "Ascii text audio", 0x01, 0x00340000, 0x1, nullptr},  // sample values as text
    /* 443 */ {"txt", nullptr, nullptr, nullptr, "Nokring ring-tone", 0x60, 0x00080000, 0x2, nullptr},  // Nokring text ring-tone: note list
    /* 444 */ {"txt", nullptr, nullptr, nullptr, "Steinberg LM-4 bank", 0x91, 0x00300014, 0x3, nullptr},  // LM-4 drum bank: text referencing WAV samples
    /* 445 */ {"u255law", ReadG711Raw, WriteRawPcm, DetectByExtensionOnly, "Exponential mu-law", 0x01, 0x00300100, 0x100, nullptr},  // mu-law 8-bit
    /* 446 */ {"uasset", nullptr, nullptr, nullptr, "Unreal Engine asset", 0x01, 0x00320004, 0x0, nullptr},  // engine sound asset: 16-bit PCM or Ogg Vorbis
    /* 447 */ {"uax", nullptr, nullptr, nullptr, "Unreal Tournament", 0x81, 0x00100005, 0x0, nullptr},  // game sound package: 8/16-bit waves
    /* 448 */ {"ub", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Unsigned bytes (8-bit)", 0x01, 0x00300001, 0x800001, nullptr},  // raw unsigned 8-bit PCM
    /* 449 */ {"udw", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Unsigned dwords (32-bit)", 0x01, 0x00300020, 0x800020, nullptr},  // raw unsigned 32-bit PCM
    /* 450 */ {"ulaw", ReadG711Raw, WriteRawPcm, DetectByExtensionOnly, "G.711 mu-law", 0x01, 0x00300100, 0x100, nullptr},  // G.711 mu-law raw stream
    /* 451 */ {"ult", ReadOtherModule<ModuleKind::UltraTracker>, nullptr, DetectOtherModule<ModuleKind::UltraTracker>, "UltraTracker module", 0xD1, 0x00000000, 0x0, nullptr},
    /* 452 */ {"ulw", ReadG711Raw, WriteRawPcm, DetectByExtensionOnly, "G.711 mu-law", 0x01, 0x00300100, 0x100, nullptr},  // G.711 mu-law raw stream
    /* 453 */ {"umx", ReadOtherModule<ModuleKind::UnrealMusic>, nullptr, DetectOtherModule<ModuleKind::UnrealMusic>, "Unreal Tournament music", 0x60, 0x00000000, 0x0, nullptr},
    /* 454 */ {"uni", nullptr, nullptr, nullptr, "MikMod Unimod", 0x91, 0x00300005, 0x0, nullptr},  // MikMod module: 8/16-bit samples
    /* 455 */ {"uvd", nullptr, nullptr, nullptr, "Yamaha Tyros 3 drums", 0x91, 0x02100004, 0x83, nullptr},  // Tyros custom voice: 16-bit samples, stereo as pairs
    /* 456 */ {"uvn", nullptr, nullptr, nullptr, "Yamaha Tyros 3 voices", 0x91, 0x02100004, 0x3, nullptr},  // Tyros custom voice: 16-bit samples, stereo as pairs
    /* 457 */ {"uw", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Unsigned words (16-bit) - Little Endian", 0x01, 0x00300004, 0x800004, nullptr},  // raw unsigned 16-bit PCM
    /* 458 */ {"uw", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Unsigned words (16-bit) - Bit Endian", 0x01, 0x00300004, 0x1800004, nullptr},  // raw unsigned 16-bit PCM
    /* 459 */ {"uwf", nullptr, nullptr, nullptr, "UltraTracker wave", 0x01, 0x00100005, 0x0, nullptr},  // tracker sample: 8/16-bit mono
    /* 460 */ {"v8", ReadRawPcm, WriteRawPcm, DetectByExtensionOnly, "Covox 8-bit", 0x01, 0x00300001, 0x800001, nullptr},  // raw unsigned 8-bit PCM
    /* 461 */ {"vab", nullptr, nullptr, nullptr, "PlayStation bank", 0x91, 0x00102000, 0x0, nullptr},  // PlayStation bank: Sony 4-bit ADPCM mono waves
    /* 462 */ {"vag", nullptr, nullptr, nullptr, "PlayStation sound", 0x01, 0x00102000, 0x0, nullptr},  // PlayStation VAG: Sony 4-bit ADPCM mono
    /* 463 */ {"vap", nullptr, nullptr, nullptr, "Annotated speech", 0x01, 0x00100004, 0x0, nullptr},  // annotated speech
    /* 464 */ {"vm1", nullptr, nullptr, nullptr, "Panasonic voice", 0x01, 0x00102000, 0x0, nullptr},  // Panasonic voice: ADPCM mono
    /* 465 */ {"voc", ReadVoc, nullptr, DetectVoc, "SoundBlaster voice", 0x01, 0x00303B05, 0x0, nullptr},  // Creative VOC: PCM 8/16, G.711, Creative 2/3/4-bit ADPCM
    /* 466 */ {"voc", ReadVoc, nullptr, DetectVoc, "SoundBlaster voice - Old Style", 0x01, 0x00303801, 0x1, nullptr},  // Creative VOC (old blocks): 8-bit and Creative ADPCM
    /* 467 */ {"vox", ReadCodecRaw, nullptr, DetectByExtensionOnly, "Dialogic 4-bit ADPCM", 0x01, 0x00102000, 0x80340, nullptr},  // Dialogic ADPCM: 4-bit mono
    /* 468 */ {"vox-6k", ReadCodecRaw, nullptr, DetectByExtensionOnly, "Dialogic 4-bit ADPCM (6000 Hz)", 0x01, 0x00102000, 0x60340, nullptr},  // Dialogic ADPCM: 4-bit mono
    /* 469 */ {"vox-8k", ReadCodecRaw, nullptr, DetectByExtensionOnly, "Dialogic 4-bit ADPCM (8000 Hz)", 0x01, 0x00102000, 0x80340, nullptr},  // Dialogic ADPCM: 4-bit mono
    /* 470 */ {"vox", nullptr, nullptr, nullptr, "Talking Technology Inc", 0x01, 0x00102000, 0x1, nullptr},  // Talking Technology ADPCM
    /* 471 */ {"vsb", nullptr, nullptr, nullptr, "Virtual Sampler bank", 0x91, 0x00300014, 0x0, nullptr},  // Virtual Sampler bank: WAV samples
    /* 472 */ {"w01", nullptr, nullptr, nullptr, "Yamaha TX16W wave", 0x01, 0x00100002, 0x0, nullptr},  // TX16W wave: 12-bit mono
    /* 473 */ {"w01", nullptr, nullptr, nullptr, "Yamaha SY99 wave", 0x01, 0x00100004, 0x1, nullptr},  // Yamaha SY99 wave: 16-bit mono
    /* 474 */ {"w2a", nullptr, nullptr, nullptr, "Yamaha Motif 6/7/8 all", 0x91, 0x00300004, 0x0, nullptr},  // Motif data: 16-bit samples, mono or stereo
    /* 475 */ {"w2v", nullptr, nullptr, nullptr, "Yamaha Motif 6/7/8 voices", 0x91, 0x00300004, 0x0, nullptr},  // Motif data: 16-bit samples, mono or stereo
    /* 476 */ {"w2w", nullptr, nullptr, nullptr, "Yamaha Motif 6/7/8 waves", 0x81, 0x00300004, 0x2, nullptr},  // Motif data: 16-bit samples, mono or stereo
    /* 477 */ {"w3v", nullptr, nullptr, nullptr, "Yamaha Motif 6/7/8 data", 0x91, 0x00300004, 0x0, nullptr},  // Motif data: 16-bit samples, mono or stereo
    /* 478 */ {"w4ksnd", nullptr, nullptr, nullptr, "Wusik 4000 instrument", 0x91, 0x00300014, 0x0, nullptr},  // Wusik instrument
    /* 479 */ {"w7a", nullptr, nullptr, nullptr, "Yamaha Motif ES all", 0x91, 0x00300004, 0x1, nullptr},  // Motif data: 16-bit samples, mono or stereo
    /* 480 */ {"w7v", nullptr, nullptr, nullptr, "Yamaha Motif ES voices", 0x91, 0x00300004, 0x1, nullptr},  // Motif data: 16-bit samples, mono or stereo
    /* 481 */ {"w7w", nullptr, nullptr, nullptr, "Yamaha Motif ES waves", 0x81, 0x00300004, 0x3, nullptr},  // Motif data: 16-bit samples, mono or stereo
    /* 482 */ {"w8v", nullptr, nullptr, nullptr, "Yamaha Motif ES data", 0x91, 0x00300004, 0x1, nullptr},  // Motif data: 16-bit samples, mono or stereo
    /* 483 */ {"w64", ReadW64, WriteW64, DetectW64, "Wave-64", 0x01, 0x00300375, 0x0, nullptr},  // Wave64: PCM 8-32, float, A/mu-law
    /* 484 */ {"wav", ReadWav, WriteWav, DetectWav, "Microsoft wave", 0x01, 0x00327F75, 0x0, Mp3Settings},  // WAVE: PCM 8-32, float, A/mu-law, GSM, ADPCM 2-5 bit, MPEG
    /* 485 */ {"wav", ReadWav, nullptr, DetectBroadcastWav, "Broadcast wave", 0x01, 0x00320075, 0x1, nullptr},  // Broadcast WAVE: PCM or MPEG audio with bext chunk
    /* 486 */ {"wa!", nullptr, nullptr, nullptr, "GigaStudio compr wave", 0x01, 0x00300014, 0x0, nullptr},  // GigaStudio wave: lossless packed 16/24-bit
    /* 487 */ {"wfb", nullptr, nullptr, nullptr, "TB WaveFront bank", 0x91, 0x00100004, 0x0, nullptr},  // WaveFront bank/program: 16-bit samples
    /* 488 */ {"wfd", nullptr, nullptr, nullptr, "TB WaveFront drums", 0x91, 0x00100004, 0x0, nullptr},  // WaveFront bank/program: 16-bit samples
    /* 489 */ {"wfp", nullptr, nullptr, nullptr, "TB WaveFront program", 0x91, 0x00100004, 0x0, nullptr},  // WaveFront bank/program: 16-bit samples
    /* 490 */ {"wlf", nullptr, nullptr, nullptr, "iD music (700Hz)", 0x60, 0x00000000, 0x0, nullptr},  // OPL register capture: timed register writes, not MIDI
    /* 491 */ {"wma", ReadMediaContainer, WriteWma, DetectAsf, "Windows Media audio", 0x01, 0x00320000, 0x0, WmaSettings},  // Windows Media audio: lossy, bit-rate settings
    /* 492 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 4", 0x01, 0x00320000, 0x1, nullptr},  // Windows Media audio: lossy, bit-rate settings
    /* 493 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 9 CBR", 0x01, 0x00320000, 0x2, nullptr},  // Windows Media audio: lossy, bit-rate settings
    /* 494 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 9 ABR", 0x01, 0x00320000, 0x3, nullptr},  // Windows Media audio: lossy, bit-rate settings
    /* 495 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 9 VBR", 0x01, 0x00320000, 0x4, nullptr},  // Windows Media audio: lossy, bit-rate settings
    /* 496 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 9 Voice", 0x01, 0x00120000, 0x5, nullptr},  // Windows Media voice: lossy mono
    /* 497 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 9 Lossless", 0x01, 0x00300014, 0x6, nullptr},  // Windows Media lossless: 16/24-bit
    /* 498 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 9 Pro CBR 24-bit", 0x01, 0x00320000, 0x7, nullptr},  // Windows Media Pro: lossy 24-bit
    /* 499 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 9 Pro ABR 24-bit", 0x01, 0x00320000, 0x8, nullptr},  // Windows Media Pro: lossy 24-bit
    /* 500 */ {"wma", ReadMediaContainer, nullptr, DetectAsf, "Windows Media audio 9 Pro VBR 24-bit", 0x01, 0x00320000, 0x9, nullptr},  // Windows Media Pro: lossy 24-bit
    /* 501 */ {"wmv", ReadMediaContainer, nullptr, DetectAsf, "Windows Media video", 0x01, 0x00320000, 0x0, nullptr},  // Windows Media audio: lossy, bit-rate settings
    /* 502 */ {"wrf", nullptr, nullptr, nullptr, "Westacott WinRanX", 0x01, 0x00100004, 0x0, nullptr},  // WinRanX sample
    /* 503 */ {"wrk", nullptr, nullptr, nullptr, "CakeWalk work", 0x60, 0x00080000, 0x0, nullptr},  // Cakewalk work: MIDI tracks
    /* 504 */ {"wusikpack", nullptr, nullptr, nullptr, "Wusikstation pack", 0x91, 0x00300014, 0x0, nullptr},  // Wusikstation pack
    /* 505 */ {"wusiksnd", nullptr, nullptr, nullptr, "Wusikstation v3 sound", 0x91, 0x00300014, 0x0, nullptr},  // Wusikstation sound
    /* 506 */ {"wusiksnd", nullptr, nullptr, nullptr, "Wusikstation v4 sound", 0x91, 0x00300014, 0x1, nullptr},  // Wusikstation sound
    /* 507 */ {"wusiksnd", nullptr, nullptr, nullptr, "Wusikstation v5 sound", 0x91, 0x00300014, 0x2, nullptr},  // Wusikstation sound
    /* 508 */ {"x0a", nullptr, nullptr, nullptr, "Yamaha Motif XS all", 0x91, 0x00300004, 0x0, nullptr},  // Motif XS/XF data: 16-bit samples, mono or stereo
    /* 509 */ {"x0v", nullptr, nullptr, nullptr, "Yamaha Motif XS voices", 0x91, 0x00300004, 0x0, nullptr},  // Motif XS/XF data: 16-bit samples, mono or stereo
    /* 510 */ {"x0w", nullptr, nullptr, nullptr, "Yamaha Motif XS waves", 0x81, 0x00300004, 0x0, nullptr},  // Motif XS/XF data: 16-bit samples, mono or stereo
    /* 511 */ {"x3a", nullptr, nullptr, nullptr, "Yamaha Motif XF all", 0x91, 0x00300004, 0x0, nullptr},  // Motif XS/XF data: 16-bit samples, mono or stereo
    /* 512 */ {"x3v", nullptr, nullptr, nullptr, "Yamaha Motif XF voices", 0x91, 0x00300004, 0x0, nullptr},  // Motif XS/XF data: 16-bit samples, mono or stereo
    /* 513 */ {"x3w", nullptr, nullptr, nullptr, "Yamaha Motif XF waves", 0x81, 0x00300004, 0x0, nullptr},  // Motif XS/XF data: 16-bit samples, mono or stereo
    /* 514 */ {"xml", nullptr, nullptr, nullptr, "1010 Music sampler preset", 0x91, 0x00300014, 0x0, nullptr},  // 1010music preset: XML referencing WAV samples
    /* 515 */ {"xml", nullptr, nullptr, nullptr, "1010 Music sampler (multisample)", 0x91, 0x00300014, 0x1, nullptr},  // 1010music preset: XML referencing WAV samples
    /* 516 */ {"xml", nullptr, nullptr, nullptr, "1010 Music sampler (simple 4x4 pads)", 0x91, 0x00300014, 0x2, nullptr},  // 1010music preset: XML referencing WAV samples
    /* 517 */ {"xpm", nullptr, nullptr, nullptr, "AKAI new MPC-line instrument", 0x91, 0x00300014, 0x0, nullptr},  // MPC keygroup program: WAV samples
    /* 518 */ {"xpn", nullptr, nullptr, nullptr, "AKAI new MPC-line expansion", 0x91, 0x00300014, 0x0, nullptr},  // MPC expansion: zip of programs and WAV samples
    /* 519 */ {"wv", ReadWavPack, WriteWavPack, DetectWavPack, "WavPack lossless", 0x01, 0x00300054, 0x0, nullptr},  // WavPack: lossless 8-32 bit and float
    /* 520 */ {"xdb", nullptr, nullptr, nullptr, "Dream SND-series bank set", 0x91, 0x00100004, 0x0, nullptr},  // Dream synth chip sound set
    /* 521 */ {"xdb", nullptr, nullptr, nullptr, "Dream SND5000 bank (relocatable)", 0x91, 0x00100004, 0x1, nullptr},  // Dream synth chip sound set
    /* 522 */ {"xdb", nullptr, nullptr, nullptr, "Dream SND5000 bank (fixed)", 0x91, 0x00100004, 0x2, nullptr},  // Dream synth chip sound set
    /* 523 */ {"xdb", nullptr, nullptr, nullptr, "Dream SND5000 bank (NAND)", 0x91, 0x00100004, 0x3, nullptr},  // Dream synth chip sound set
    /* 524 */ {"xdd", nullptr, nullptr, nullptr, "Dream SND-series drum set", 0x91, 0x00100004, 0x0, nullptr},  // Dream synth chip sound set
    /* 525 */ {"xdd", nullptr, nullptr, nullptr, "Dream SND5000 drum set (standard)", 0x91, 0x00100004, 0x1, nullptr},  // Dream synth chip sound set
    /* 526 */ {"xdd", nullptr, nullptr, nullptr, "Dream SND5000 drum set (NAND)", 0x91, 0x00100004, 0x2, nullptr},  // Dream synth chip sound set
    /* 527 */ {"xdi", nullptr, nullptr, nullptr, "Dream SND-series instrument", 0x91, 0x00100004, 0x0, nullptr},  // Dream synth chip sound set
    /* 528 */ {"xdi", nullptr, nullptr, nullptr, "Dream SND5000 instrument (standard)", 0x91, 0x00100004, 0x1, nullptr},  // Dream synth chip sound set
    /* 529 */ {"xdi", nullptr, nullptr, nullptr, "Dream SND5000 instrument (NAND)", 0x91, 0x00100004, 0x2, nullptr},  // Dream synth chip sound set
    /* 530 */ {"xi", ReadXiInstrument, nullptr, DetectXiInstrument, "Fast Tracker 2 instrument", 0x11, 0x00118000, 0x0, nullptr},  // FastTracker 2 instrument: delta-coded 8/16-bit mono samples
    /* 531 */ {"xm", ReadXmModule, nullptr, DetectXmModule, "Fast Tracker 2 module", 0x91, 0x00118000, 0x0, nullptr},  // FastTracker 2 module: delta-coded 8/16-bit mono samples
    /* 532 */ {"xmi", nullptr, nullptr, nullptr, "MSS extended MIDI", 0x60, 0x00080000, 0x0, nullptr},  // extended MIDI: MIDI events with branching
    /* 533 */ {"xrni", nullptr, nullptr, nullptr, "Renoise instrument", 0x91, 0x00300014, 0x0, nullptr},  // Renoise instrument: zip with FLAC/WAV samples
    /* 534 */ {"yadpcm", ReadCodecRaw, WriteCodecRaw, DetectByExtensionOnly, "Raw Yamaha 4-bit ADPCM", 0x01, 0x00102000, 0x540, nullptr},  // Yamaha 4-bit ADPCM, mono or stereo
    /* 535 */ {"zip", ReadZipArchive, nullptr, DetectZip, "ZIP archive", 0x00, 0x00000000, 0x0, nullptr},  // ZIP archive: handed to the system, no items
};

}  // namespace

const FormatEntry* FormatRows() { return kFormatRows; }

}  // namespace orlin
