// Temporaries are named ".NAME.orlin-PID-N.part" beside their target: hidden, never a name a user
// gives a file of their own, unique per process and per file, and made with O_EXCL so that two saves
// (or a user's file) can never share one. rename() over the target is atomic, so concurrent saves to
// one name each leave a whole file and the last rename wins. A process killed mid-save leaves only its
// temporary, which the next save to that name removes once the process is gone. An interrupt
// (Ctrl-C, SIGTERM, SIGHUP) removes the temporaries at once: their names wait in a fixed table that
// the signal handler can walk without allocating or locking.
#include "core/save_transaction.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "core/last_error.h"
#include "core/user_interface.h"

namespace fs = std::filesystem;

namespace orlin {

namespace {

thread_local SaveTransaction* currentTransaction = nullptr;
thread_local std::vector<std::string> lastSavedPaths;
std::atomic<bool> replaceReadOnly{false};
std::atomic<uint32_t> temporaryCounter{0};

constexpr const char* kTemporaryTag = ".orlin-";
constexpr const char* kTemporarySuffix = ".part";

// Temporaries being written, for the signal handler. A slot is 0 free, 1 being filled, 2 in use.
constexpr int kLiveSlots = 64;
constexpr size_t kLivePathBytes = 4096;
struct LiveTemporary {
  std::atomic<int> state{0};
  char path[kLivePathBytes];
};
LiveTemporary liveTemporaries[kLiveSlots];

int RememberTemporary(const std::string& path) {
  if (path.size() >= kLivePathBytes) return -1;
  for (int slot = 0; slot < kLiveSlots; ++slot) {
    int expected = 0;
    if (!liveTemporaries[slot].state.compare_exchange_strong(expected, 1)) continue;
    std::memcpy(liveTemporaries[slot].path, path.c_str(), path.size() + 1);
    liveTemporaries[slot].state.store(2);
    return slot;
  }
  return -1;  // more than 64 files at once: the rest are swept by the next save, as after a kill
}

void ForgetTemporary(int& slot) {
  if (slot >= 0) liveTemporaries[slot].state.store(0);
  slot = -1;
}

void RemoveTemporariesAndDie(int signal) {
  for (LiveTemporary& live : liveTemporaries)
    if (live.state.load() == 2) ::unlink(live.path);
  ::signal(signal, SIG_DFL);
  ::raise(signal);
}

std::string TemporaryPrefix(const fs::path& target) { return "." + target.filename().string() + kTemporaryTag; }

// Removes temporaries of `target` left by processes that no longer run (a kill -9 or a power cut).
void RemoveStaleTemporaries(const fs::path& target) {
  const std::string prefix = TemporaryPrefix(target);
  std::error_code error;
  fs::path folder = target.parent_path();
  if (folder.empty()) folder = ".";
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(prefix, 0) != 0 || name.size() < prefix.size() + 5 ||
        name.compare(name.size() - 5, 5, kTemporarySuffix) != 0)
      continue;
    const long pid = std::strtol(name.c_str() + prefix.size(), nullptr, 10);
    if (pid > 0 && pid != long(getpid()) && ::kill(pid_t(pid), 0) != 0 && errno == ESRCH)
      fs::remove(entry.path(), error);
  }
}

bool IsTaken(const fs::path& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

// "name 2.ext", "name 3.ext" ...: the first name beside `target` that nothing holds.
fs::path FreeNameBeside(const fs::path& target, const std::vector<std::string>& reserved) {
  const std::string stem = target.stem().string();
  const std::string extension = target.extension().string();
  for (int n = 2;; ++n) {
    const fs::path candidate = target.parent_path() / (stem + " " + std::to_string(n) + extension);
    if (!IsTaken(candidate) && std::find(reserved.begin(), reserved.end(), candidate.string()) == reserved.end())
      return candidate;
  }
}

}  // namespace

std::string FileErrorText(const char* text, const std::string& path, int code) {
  std::string out = std::string(text) + " \"" + path + "\"";
  if (code != 0) out += std::string(": ") + std::strerror(code);
  return out;
}

void SetReplaceReadOnly(bool allowed) { replaceReadOnly = allowed; }
bool ReplaceReadOnly() { return replaceReadOnly; }
const std::vector<std::string>& LastSavedPaths() { return lastSavedPaths; }
void SetLastSavedPaths(std::vector<std::string> paths) { lastSavedPaths = std::move(paths); }

struct SaveTransaction::Entry {
  FileObject file;
  std::string temporaryPath;
  std::string finalPath;
  bool primary = false;
  bool replaces = false;  // the target exists now
  mode_t mode = 0;        // the replaced file's permissions, kept by the new one
  bool device = false;    // the target is no regular file (/dev/null, a pipe): copied into it at the end
  int liveSlot = -1;      // where the signal handler finds the temporary
};

SaveTransaction::SaveTransaction() : previous_(currentTransaction) { currentTransaction = this; }

SaveTransaction::~SaveTransaction() {
  Abort();
  currentTransaction = previous_;
}

SaveTransaction* SaveTransaction::Current() { return currentTransaction; }

FileObject* SaveTransaction::Create(const std::string& targetPath, bool primary, std::string* finalPathOut) {
  fs::path target = targetPath;
  std::error_code error;
  // A link is followed, so the file it points to is replaced and the link stays.
  if (fs::is_symlink(target, error) && fs::is_regular_file(target, error)) target = fs::weakly_canonical(target, error);
  auto entry = std::make_unique<Entry>();
  entry->primary = primary;
  std::vector<std::string> reserved;
  for (const auto& other : entries_) reserved.push_back(other->finalPath);
  // Two files of one save never share a name: the later one takes a free name.
  if (std::find(reserved.begin(), reserved.end(), target.string()) != reserved.end())
    target = FreeNameBeside(target, reserved);

  struct stat info;
  if (::stat(target.c_str(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) {
      SetLastError(FileErrorText("Could not create file", target.string(), EISDIR));
      return nullptr;
    }
    entry->device = !S_ISREG(info.st_mode);
    if (!entry->device) {
      if (::access(target.c_str(), W_OK) != 0 && !ReplaceReadOnly()) {
        SetLastError("Could not create file \"" + target.string() + "\": the file is read-only");
        return nullptr;
      }
      if (!primary) {
        switch (Ui().AskReplaceFile(target.string())) {
          case ReplaceAnswer::Replace: break;
          case ReplaceAnswer::KeepAndRename: target = FreeNameBeside(target, reserved); break;
          case ReplaceAnswer::Cancel:
            SetLastError("Save cancelled: \"" + target.string() + "\" was kept");
            return nullptr;
        }
      }
      entry->replaces = IsTaken(target);
      entry->mode = info.st_mode & 07777;
    }
  }
  entry->finalPath = target.string();

  fs::path folder = entry->device ? fs::temp_directory_path(error) : target.parent_path();
  if (folder.empty()) folder = ".";
  RemoveStaleTemporaries(target);
  for (int attempt = 0;; ++attempt) {
    const std::string name = TemporaryPrefix(target) + std::to_string(getpid()) + "-" +
                             std::to_string(temporaryCounter.fetch_add(1)) + kTemporarySuffix;
    entry->temporaryPath = (folder / name).string();
    if (entry->file.Open(entry->temporaryPath, FileMode::CreateNew)) {
      entry->liveSlot = RememberTemporary(entry->temporaryPath);
      break;
    }
    const int code = errno;
    if (code != EEXIST || attempt > 1000) {
      // The message names the file the user asked for, not our temporary.
      SetLastError(FileErrorText("Could not create file", entry->finalPath, code));
      return nullptr;
    }
  }
  if (finalPathOut) *finalPathOut = entry->finalPath;
  entries_.push_back(std::move(entry));
  return &entries_.back()->file;
}

FileObject* CreateSaveFile(const std::string& path, std::string* finalPathOut) {
  SaveTransaction* transaction = SaveTransaction::Current();
  if (!transaction) {
    SetLastError(FileErrorText("Could not create file", path, 0) + ": no save in progress");
    return nullptr;
  }
  return transaction->Create(path, false, finalPathOut);
}

std::string SavePathOf(const FileObject& file) {
  const SaveTransaction* transaction = SaveTransaction::Current();
  return transaction ? transaction->FinalPathOf(&file) : file.Path();
}

std::string SaveTransaction::FinalPathOf(const FileObject* file) const {
  for (const auto& entry : entries_)
    if (&entry->file == file) return entry->finalPath;
  return file ? file->Path() : std::string();
}

std::vector<std::string> SaveTransaction::ReplacedTargets() const {
  std::vector<std::string> out;
  for (const auto& entry : entries_)
    if (entry->replaces) out.push_back(entry->finalPath);
  return out;
}

namespace {

// Copies a finished temporary into a device or pipe target.
bool CopyInto(FileObject& source, const std::string& target) {
  const int out = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
  if (out < 0) return SetLastError(FileErrorText("Could not create file", target, errno)), false;
  std::vector<char> buffer(1 << 16);
  uint64_t offset = 0;
  bool ok = true;
  for (;;) {
    const ssize_t n = ::pread(source.Descriptor(), buffer.data(), buffer.size(), off_t(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    for (ssize_t done = 0; done < n && ok;) {
      const ssize_t w = ::write(out, buffer.data() + done, size_t(n - done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        SetLastError(FileErrorText("Writing to file failed", target, errno));
        ok = false;
      } else {
        done += w;
      }
    }
    if (!ok) break;
    offset += uint64_t(n);
  }
  ::close(out);
  return ok;
}

}  // namespace

bool SaveTransaction::Commit() {
  // Every byte on the disk before any old file is replaced.
  for (const auto& entry : entries_) {
    if (!entry->device && !entry->file.Sync()) {
      SetLastError(FileErrorText("Writing to file failed", entry->finalPath, errno));
      Abort();
      return false;
    }
    if (entry->replaces) ::fchmod(entry->file.Descriptor(), entry->mode);
  }
  // The file the user named comes last, so it never refers to a file not yet in place.
  std::stable_partition(entries_.begin(), entries_.end(), [](const auto& entry) { return !entry->primary; });
  std::vector<std::string> folders;
  for (auto& entry : entries_) {
    if (entry->device) {
      if (!CopyInto(entry->file, entry->finalPath)) {
        Abort();
        return false;
      }
      entry->file.Close();
      ::unlink(entry->temporaryPath.c_str());
    } else {
      entry->file.Close();
      if (::rename(entry->temporaryPath.c_str(), entry->finalPath.c_str()) != 0) {
        SetLastError(FileErrorText("Could not create file", entry->finalPath, errno));
        Abort();
        return false;
      }
      folders.push_back(fs::path(entry->finalPath).parent_path().string());
    }
    entry->temporaryPath.clear();
    ForgetTemporary(entry->liveSlot);
    committed_.push_back(entry->finalPath);
  }
  // The renames themselves reach the disk with their folders.
  std::sort(folders.begin(), folders.end());
  folders.erase(std::unique(folders.begin(), folders.end()), folders.end());
  for (const std::string& folder : folders) {
    const int descriptor = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
      ::fsync(descriptor);
      ::close(descriptor);
    }
  }
  entries_.clear();
  return true;
}

void SaveTransaction::Abort() {
  for (auto& entry : entries_) {
    entry->file.Close();
    if (!entry->temporaryPath.empty()) ::unlink(entry->temporaryPath.c_str());
    ForgetTemporary(entry->liveSlot);
  }
  entries_.clear();
}

void RemoveTemporariesOnInterrupt() {
  struct sigaction action {};
  action.sa_handler = RemoveTemporariesAndDie;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESETHAND;
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &action, nullptr);
}

}  // namespace orlin
