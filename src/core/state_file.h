// State files: whole snapshots of a Collection in the data folder ("Orlin Studio" under
// $XDG_DATA_HOME, or $ORLIN_DATA_DIR), the ring of saved states, and the "Last session" state kept
// across runs. A state is the items' flat records back to back; it is valid with the source files of
// its undecoded waves in place and, for those waves, with the same build of the program.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace orlin {

class Collection;

constexpr uint32_t kStateMagic = 0x74536C4F;  // "OlSt" as read little endian
constexpr uint32_t kStateVersion = 12070004;  // 12.7.0.4 as ((a*100+b)*100+c)*100+d
constexpr const char* kLastSessionState = "Last session";

// The folder of state files, made when missing; "" with the last-error text when it cannot be.
std::string DataFolder();
// `name` with ':' and '.' replaced by '_', plus ".ost", inside DataFolder().
std::string StateFilePath(const std::string& name);

// The whole collection as a state: the header, then every item's record by type (waves, synthesis
// models, regions, layers, instruments, tracks, songs, each in collection order) and last the
// collection. False with the last-error text when it would exceed 4 GiB or memory fails.
bool SerializeState(const Collection& collection, std::vector<uint8_t>& out);
// Checks magic and version first ("Wrong state version"), then every record's bounds, all before the
// collection is touched; then clears it and builds the items. False with the last-error text.
bool DeserializeState(Collection& collection, const uint8_t* bytes, size_t size);

// Waves read from records of another build (another program of the family, or before an update)
// have no decoder: each one's source file is read again and the decoder of the wave whose samples
// lie at the same place is taken. Returns how many were found; DeserializeState calls it.
int RelinkDecoders(Collection& collection);

// Writes to a temporary name in the same folder, flushes it to the disk and renames it over `path`,
// so that a crash at any moment leaves the old file or the new one, never a part.
bool WriteFileAtomically(const std::string& path, const void* bytes, size_t size);

// Saves/loads the state `name` in the data folder.
bool SaveStateFile(const Collection& collection, const std::string& name);
bool LoadStateFile(Collection& collection, const std::string& name);
// Loads a state file at any path (for `orlin states`).
bool LoadStateFromPath(Collection& collection, const std::string& path);
void DeleteStateFile(const std::string& name);

struct StateFileInfo {
  std::string name;  // the file name without ".ost" (':' and '.' appear as '_')
  std::string path;
  uint64_t bytes = 0;
  int64_t modifiedSeconds = 0;  // since the epoch
};
// The .ost files of the data folder, newest first.
std::vector<StateFileInfo> ListStateFiles();

// The ring of 32 saved states.
class StateRing {
 public:
  static constexpr int kSlots = 32;

  // Takes a state named "Saved state HH:MM.SS" by the local time; the name, or "" on failure.
  std::string SaveState(Collection& collection);
  // Saves under a given name and pushes it (start-up pushes "Last session" this way after loading it).
  bool SaveNamedState(Collection& collection, const std::string& name);
  // Records an already written state as the newest.
  void Push(const std::string& name);
  // Loads the state `offset` slots from the current one (negative into the past) and makes it the
  // current one. False when there is none or it cannot be read.
  bool LoadState(Collection& collection, int offset);
  bool NextState(Collection& collection) { return LoadState(collection, 1); }
  bool PrevState(Collection& collection) { return LoadState(collection, -1); }
  // Oldest first.
  std::vector<std::string> Names() const;
  int CurrentIndex() const { return current_; }
  // Deletes every file of the ring (at exit without persistent state) and empties it.
  void DeleteAll();

 private:
  std::array<std::string, kSlots> names_;
  int oldest_ = -1;
  int newest_ = -1;
  int current_ = -1;
};

// "Last session": taken at shutdown when app.bPersistentState is on, and restored at start. The
// load pushes it to `ring` when it worked; a missing file is no failure (false, no error text).
bool SaveLastSession(const Collection& collection);
bool RestoreLastSession(Collection& collection, StateRing* ring);

}  // namespace orlin
