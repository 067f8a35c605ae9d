// The road of a file into the collection and of an item out of it. The only code that calls the
// readers and writers of the format table.
#pragma once
#include <cstdint>
#include <string>

#include "core/collection.h"
#include "core/format_table.h"

namespace orlin {

enum class OpenMode { Replace = 101, Merge = 103, ReplaceWaves = 151 };

// True while a reader runs (new instruments show their names on the status line) or a save runs.
bool LoadingInProgress();
bool SavingInProgress();

// Clears `collection` and reads `path` into it; false with the last-error text.
bool LoadFile(Collection& collection, const std::string& path, bool allowUnknown);
// Reads `path` with the reader of `row` whatever detection says (a headerless file the user knows);
// row 0 reads it as raw data. False with the last-error text.
bool LoadFileAsRow(Collection& collection, const std::string& path, int32_t row);
// Opens a file or every file of a folder; false if any failed.
bool OpenFile(Collection& collection, const std::string& path, OpenMode mode);
bool MergeFile(Collection& collection, const std::string& path);
// Moves all items of `source` into `target` with new ids; patches that clash are stepped.
void MergeCollection(Collection& target, Collection& source);
// Replaces the samples of same-named waves; `replacedCount` gets how many.
bool ReplaceWavesFromFile(Collection& collection, const std::string& path, int* replacedCount = nullptr);

// Finds a file named inside another file: as given, beside `sourcePath`, its file part there, under
// a folder remembered from an earlier answer; then asks the user. False when not found.
bool LocateFile(const std::string& sourcePath, const std::string& name, std::string& pathOut);
// Forgets the folder remembered by LocateFile (at the start of each load).
void ResetLocateFolder();

// One prepared write of an item. Every file it writes goes through a SaveTransaction: on failure no
// partial file is left and the old files are untouched; LastSavedPaths() lists what was written.
bool SaveItem(Item* item, int32_t row, const std::string& path, const SaveOptions& options, bool noItemCheck = false);
// SaveItem with the reporting of a save. The old file stays in place, whole, until the new one is
// complete and renamed over it, so it is its own backup; no ".bak" is made.
bool SaveWithBackup(Item* item, const std::string& path, int32_t row, const SaveOptions& options, bool showStatus);
// "Save collection": to the source file and row when that row holds a collection.
bool SaveCollection(Collection& collection);

// Naming modes of "Save all in multiple files".
enum SaveAllMode : int32_t {
  kSaveAllBaseNumber = 210,
  kSaveAllNumberBase = 211,
  kSaveAllBaseName = 212,
  kSaveAllName = 213,
  kSaveAllNumberName = 214,
  kSaveAllSourceName = 215,
  kSaveAllPrompt = 216,
  kSaveAllPatchName = 218,
};
const char* SaveAllModeText(int32_t mode);

// Answers to a name collision in SaveAll.
enum class CollisionAnswer { Overwrite = 0, Skip = 1, Rename = 2, CancelAll = 3 };

struct SaveAllRequest {
  std::string folder;    // base folder
  std::string baseName;  // "foo" of the naming modes
  int32_t row = -1;
  SaveOptions options;
  int32_t mode = kSaveAllName;
  bool subFolders = false;
};
struct SaveAllResult {
  int saved = 0;
  int failed = 0;
  bool cancelled = false;
  std::string message;  // "Done: Saved 3 files." ...
};
// "Save all in multiple files": each instrument, wave or song by the row's mask, named by the mode.
bool SaveAll(Collection& collection, const SaveAllRequest& request, SaveAllResult& result);

// Builds a file name from an item name: characters a file system refuses are replaced, an
// extension known for writing is removed; "noname" when nothing remains.
std::string FileNameFromItemName(std::string_view name);
// The name SaveAll gives item number `number` (from 1) in `mode`, without extension.
std::string SaveAllFileName(const Item& item, int32_t mode, std::string_view baseName, int number);

}  // namespace orlin
