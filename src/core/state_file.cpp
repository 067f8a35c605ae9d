// State files: the snapshot form, its crash-safe write, the data folder and the ring of saved states.
// A state is read into a scratch collection first, so that a damaged file leaves the user's model
// untouched; only a complete read replaces it.
#include "core/state_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>

#include "core/byte_stream.h"
#include "core/collection.h"
#include "core/last_error.h"
#include "core/pipeline.h"

namespace orlin {

namespace fs = std::filesystem;

namespace {

constexpr size_t kHeaderBytes = 12;
constexpr size_t kIoPiece = 0x10000000;  // reads and writes go in pieces of at most 256 MiB
constexpr ItemType kRecordOrder[] = {ItemType::Waveform, ItemType::SynthesisModel, ItemType::Region, ItemType::Layer,
                                     ItemType::Instrument, ItemType::Track, ItemType::Song};

bool WriteAll(int descriptor, const uint8_t* bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(descriptor, bytes, std::min(size, kIoPiece));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    size -= size_t(written);
  }
  return true;
}

uint32_t ReadU32(const uint8_t* at) {
  ByteSource source(at, at + 4);
  return source.U32();
}

// Header and records; false with the error text at 4 GiB or more, which the format cannot hold.
bool StateSize(const std::vector<Item*>& items, uint64_t& total) {
  total = kHeaderBytes;
  for (const Item* item : items) total += item->SerializedSize();
  if (total < (uint64_t(1) << 32)) return true;
  SetLastError("The collection is too large for a state file");
  return false;
}

std::string SafeFileName(const std::string& name) {
  std::string out = name;
  for (char& c : out)
    if (c == ':' || c == '.' || c == '/' || c == '\0') c = '_';  // '/' too: a name is never a path here
  return out;
}

}  // namespace

std::string DataFolder() {
  fs::path folder;
  if (const char* dir = std::getenv("ORLIN_DATA_DIR"); dir && *dir) {
    folder = dir;
  } else {
    fs::path base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg) base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home) base = fs::path(home) / ".local" / "share";
    else base = fs::temp_directory_path();
    folder = base / "Orlin Studio";
  }
  std::error_code error;
  fs::create_directories(folder, error);
  if (!fs::is_directory(folder, error)) {
    SetLastError("Could not create the data folder " + folder.string());
    return {};
  }
  return folder.string();
}

std::string StateFilePath(const std::string& name) {
  const std::string folder = DataFolder();
  if (folder.empty()) return {};
  return (fs::path(folder) / (SafeFileName(name) + ".ost")).string();
}

bool SerializeState(const Collection& collection, std::vector<uint8_t>& out) {
  const std::vector<Item*> items = collection.AllItems();
  uint64_t total = 0;
  if (!StateSize(items, total)) return false;
  try {
    out.resize(size_t(total));
  } catch (const std::bad_alloc&) {
    SetLastError("Out of memory");
    return false;
  }
  ByteSink sink(out.data());
  sink.U32(kStateMagic);
  sink.U32(kStateVersion);
  sink.U32(uint32_t(items.size()));
  uint8_t* at = sink.Here();
  for (ItemType type : kRecordOrder)
    for (const Item* item : items)
      if (item->Type() == type) at = item->Serialize(at);
  at = collection.Serialize(at);
  if (at != out.data() + out.size()) {  // a record longer or shorter than its size: never written
    SetLastError("Internal error: item record sizes disagree");
    return false;
  }
  return true;
}

bool DeserializeState(Collection& collection, const uint8_t* bytes, size_t size) {
  ByteSource header(bytes, bytes + size);
  const uint32_t magic = header.U32();
  const uint32_t version = header.U32();
  const uint32_t count = header.U32();
  if (!header.Ok() || magic != kStateMagic || version != kStateVersion) {
    SetLastError("Wrong state version");
    return false;
  }
  if (count == 0 || count - 1 > header.Remaining() / 24) {  // a record is at least 24 bytes
    SetLastError("State file damaged");
    return false;
  }
  // Built aside: the user's collection changes only once every record has been read.
  auto scratch = std::make_unique<Collection>();
  const uint8_t* at = header.Here();
  const uint8_t* end = bytes + size;
  for (uint32_t i = 0; i + 1 < count; ++i) {
    if (end - at < 4) break;
    uint32_t id;
    std::memcpy(&id, at, 4);
    Item* item = scratch->FindItem(id) ? nullptr : scratch->CreateItem(id);
    if (!item || item->id != id) {
      at = nullptr;
      break;
    }
    at = item->Deserialize(at, end);
    if (!at) break;
  }
  const uint8_t* collectionRecord = at;
  if (at && (end - at < 4 || ReadU32(at) != kCollectionId)) at = nullptr;
  if (at) at = scratch->Deserialize(at, end);
  if (!at) {
    SetLastError("State file damaged");
    return false;
  }
  collection.Clear();
  collection.TakeItemsFrom(*scratch);
  collection.Deserialize(collectionRecord, end);
  RelinkDecoders(collection);
  return true;
}

int RelinkDecoders(Collection& collection) {
  // Waves by source file; each file is read once, its waves matched by where their samples lie.
  std::map<std::string, std::vector<Waveform*>> byFile;
  for (Waveform* wave : collection.All<Waveform>())
    if (wave->flag == kFlagDecoderToFind) byFile[wave->GetSourcePath()].push_back(wave);
  int found = 0;
  for (auto& [path, waves] : byFile) {
    Collection source;
    if (!path.empty() && path[0] != '<' && LoadFile(source, path, false)) {
      for (Waveform* wave : waves)
        for (const Waveform* candidate : source.All<Waveform>())
          if (candidate->decoder && candidate->sourceOffset == wave->sourceOffset &&
              candidate->sourceOffsetB == wave->sourceOffsetB && candidate->sourceFormat == wave->sourceFormat &&
              candidate->length == wave->length && candidate->channels == wave->channels) {
            wave->decoder = candidate->decoder;
            ++found;
            break;
          }
    }
    for (Waveform* wave : waves) wave->flag = 0;
  }
  return found;
}

namespace {

// Writes through `produce(descriptor)` to a temporary name, flushes, renames over `path` and flushes
// the folder: a crash at any moment leaves the old file or the new one.
template <typename Producer>
bool WriteAtomically(const std::string& path, Producer produce) {
  const std::string temporary = path + ".tmp" + std::to_string(::getpid());
  const int descriptor = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    SetLastError("Could not create file");
    return false;
  }
  bool ok = produce(descriptor);
  // On the disk before the rename, or a power cut could leave the new name over an empty file.
  ok = ok && ::fdatasync(descriptor) == 0;
  ok = ::close(descriptor) == 0 && ok;
  ok = ok && ::rename(temporary.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(temporary.c_str());
    SetLastError("Writing to file failed");
    return false;
  }
  const std::string folder = fs::path(path).parent_path().string();
  const int folderDescriptor = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderDescriptor >= 0) {
    ::fsync(folderDescriptor);
    ::close(folderDescriptor);
  }
  return true;
}

// The state written record by record through one reused buffer: no copy of the whole collection is
// ever held in memory, and the buffer's pages stay warm.
bool WriteStateStream(const Collection& collection, int descriptor) {
  constexpr size_t kBufferBytes = size_t(8) << 20;
  const std::vector<Item*> items = collection.AllItems();
  uint64_t total = 0;
  if (!StateSize(items, total)) return false;
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[kBufferBytes]);
  std::unique_ptr<uint8_t[]> large;  // for a record bigger than the buffer
  if (!buffer) {
    SetLastError("Out of memory");
    return false;
  }
  size_t used = 0;
  auto flush = [&]() {
    const bool ok = WriteAll(descriptor, buffer.get(), used);
    used = 0;
    return ok;
  };
  ByteSink head(buffer.get());
  head.U32(kStateMagic);
  head.U32(kStateVersion);
  head.U32(uint32_t(items.size()));
  used = kHeaderBytes;
  auto put = [&](const Item& item) {
    const size_t size = item.SerializedSize();
    if (size > kBufferBytes) {
      if (!flush()) return false;
      large.reset(new (std::nothrow) uint8_t[size]);
      if (!large) return false;
      if (item.Serialize(large.get()) != large.get() + size) return false;
      const bool ok = WriteAll(descriptor, large.get(), size);
      large.reset();
      return ok;
    }
    if (used + size > kBufferBytes && !flush()) return false;
    if (item.Serialize(buffer.get() + used) != buffer.get() + used + size) return false;
    used += size;
    return true;
  };
  for (ItemType type : kRecordOrder)
    for (const Item* item : items)
      if (item->Type() == type && !put(*item)) return false;
  return put(collection) && flush();
}

}  // namespace

bool WriteFileAtomically(const std::string& path, const void* bytes, size_t size) {
  return WriteAtomically(path, [&](int descriptor) { return WriteAll(descriptor, static_cast<const uint8_t*>(bytes), size); });
}

bool SaveStateFile(const Collection& collection, const std::string& name) {
  const std::string path = StateFilePath(name);
  if (path.empty()) return false;
  std::string error;
  const bool ok = WriteAtomically(path, [&](int descriptor) {
    if (WriteStateStream(collection, descriptor)) return true;
    error = LastError();
    return false;
  });
  if (!ok && !error.empty()) SetLastError(error);
  return ok;
}

bool LoadStateFromPath(Collection& collection, const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    SetLastError("Could not open file");
    return false;
  }
  struct stat info {};
  if (::fstat(descriptor, &info) != 0 || info.st_size <= 0 || uint64_t(info.st_size) >= (uint64_t(1) << 32)) {
    ::close(descriptor);
    SetLastError("Wrong state version");
    return false;
  }
  // Mapped, not read: the records are copied out of the page cache once, into the items.
  const size_t size = size_t(info.st_size);
  void* mapping = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, descriptor, 0);
  ::close(descriptor);
  if (mapping == MAP_FAILED) {
    SetLastError("Reading from file failed");
    return false;
  }
  ::madvise(mapping, size, MADV_SEQUENTIAL);
  const bool ok = DeserializeState(collection, static_cast<const uint8_t*>(mapping), size);
  ::munmap(mapping, size);
  return ok;
}

bool LoadStateFile(Collection& collection, const std::string& name) {
  const std::string path = StateFilePath(name);
  return !path.empty() && LoadStateFromPath(collection, path);
}

void DeleteStateFile(const std::string& name) {
  const std::string path = StateFilePath(name);
  if (!path.empty()) ::unlink(path.c_str());
}

std::vector<StateFileInfo> ListStateFiles() {
  std::vector<StateFileInfo> out;
  const std::string folder = DataFolder();
  if (folder.empty()) return out;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
    if (!entry.is_regular_file(error) || entry.path().extension() != ".ost") continue;
    struct stat info {};
    if (::stat(entry.path().c_str(), &info) != 0) continue;
    out.push_back({entry.path().stem().string(), entry.path().string(), uint64_t(info.st_size), int64_t(info.st_mtime)});
  }
  std::sort(out.begin(), out.end(), [](const StateFileInfo& a, const StateFileInfo& b) {
    return a.modifiedSeconds != b.modifiedSeconds ? a.modifiedSeconds > b.modifiedSeconds : a.name < b.name;
  });
  return out;
}

// ---------------------------------------------------------------------------------------------
// The ring of saved states

void StateRing::Push(const std::string& name) {
  if (current_ >= 0) {
    // States after the current one are forgotten, and their files go.
    for (int at = current_; at != newest_;) {
      at = (at + 1) % kSlots;
      DeleteStateFile(names_[size_t(at)]);
      names_[size_t(at)].clear();
    }
  }
  const int next = current_ < 0 ? 0 : (current_ + 1) % kSlots;
  if (oldest_ >= 0 && next == oldest_) {
    DeleteStateFile(names_[size_t(oldest_)]);
    oldest_ = (oldest_ + 1) % kSlots;
  }
  if (oldest_ < 0) oldest_ = next;
  names_[size_t(next)] = name;
  current_ = newest_ = next;
}

bool StateRing::SaveNamedState(Collection& collection, const std::string& name) {
  if (!SaveStateFile(collection, name)) return false;
  Push(name);
  return true;
}

std::string StateRing::SaveState(Collection& collection) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char name[40];
  std::snprintf(name, sizeof name, "Saved state %02d:%02d.%02d", local.tm_hour, local.tm_min, local.tm_sec);
  return SaveNamedState(collection, name) ? std::string(name) : std::string();
}

bool StateRing::LoadState(Collection& collection, int offset) {
  if (current_ < 0) {
    SetLastError("No saved state");
    return false;
  }
  // Steps stay between oldest and newest.
  int at = current_;
  for (int step = 0; step < std::abs(offset); ++step) {
    const int next = offset > 0 ? (at == newest_ ? -1 : (at + 1) % kSlots) : (at == oldest_ ? -1 : (at + kSlots - 1) % kSlots);
    if (next < 0) {
      SetLastError("No saved state");
      return false;
    }
    at = next;
  }
  if (!LoadStateFile(collection, names_[size_t(at)])) return false;
  current_ = at;
  return true;
}

std::vector<std::string> StateRing::Names() const {
  std::vector<std::string> out;
  if (oldest_ < 0) return out;
  for (int at = oldest_;; at = (at + 1) % kSlots) {
    out.push_back(names_[size_t(at)]);
    if (at == newest_) break;
  }
  return out;
}

void StateRing::DeleteAll() {
  for (const std::string& name : Names()) DeleteStateFile(name);
  names_ = {};
  oldest_ = newest_ = current_ = -1;
}

bool SaveLastSession(const Collection& collection) { return SaveStateFile(collection, kLastSessionState); }

bool RestoreLastSession(Collection& collection, StateRing* ring) {
  const std::string path = StateFilePath(kLastSessionState);
  std::error_code error;
  if (path.empty() || !fs::exists(path, error)) return false;  // a first start: nothing to say
  if (!LoadStateFromPath(collection, path)) return false;
  if (ring) ring->Push(kLastSessionState);
  return true;
}

}  // namespace orlin
