// Every file a save writes goes through one SaveTransaction: it is written under a unique hidden name
// in its target's folder and renamed over the target only when every file of the save is complete.
// A crash, a signal, a full disk or a failing writer therefore never leaves a partial file under a
// user's name, and the old files stay whole until the last byte of the new ones is on disk. The
// pipeline opens one transaction per save; a writer that makes further files (an SFZ kit's waves)
// asks the current transaction for each of them.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "core/file_object.h"

namespace orlin {

class SaveTransaction {
 public:
  SaveTransaction();
  SaveTransaction(const SaveTransaction&) = delete;
  SaveTransaction& operator=(const SaveTransaction&) = delete;
  // Removes every temporary that was not committed.
  ~SaveTransaction();

  // A new, empty file that will become `targetPath` on Commit. `primary` marks the file the user
  // named (the caller has already asked about replacing it); for any other file that exists and that
  // this save did not create the user is asked whether to replace it, keep it (the new file then takes
  // a free name beside it) or cancel. `finalPathOut` gets the name the file will have. Null with the
  // last-error text (which names the path and the reason) on failure or cancel.
  FileObject* Create(const std::string& targetPath, bool primary, std::string* finalPathOut = nullptr);
  // The name `file` (one of ours) will have after Commit; its own path otherwise.
  std::string FinalPathOf(const FileObject* file) const;
  // Targets that exist now and that Commit will replace.
  std::vector<std::string> ReplacedTargets() const;
  // Syncs every file and renames it over its target, the primary file last. False with the last-error
  // text; the files renamed before a failure are whole, the rest are removed.
  bool Commit();
  // Removes every temporary; the targets stay as they were.
  void Abort();
  // Final paths, in the order written, after a successful Commit.
  const std::vector<std::string>& CommittedPaths() const { return committed_; }

  // The transaction of the save running on this thread, or null.
  static SaveTransaction* Current();

 private:
  struct Entry;
  std::vector<std::unique_ptr<Entry>> entries_;
  std::vector<std::string> committed_;
  SaveTransaction* previous_ = nullptr;
};

// For writers that make further files: a new file for `path` in the save running on this thread
// (null with the last-error text outside a save, or when the user cancels), and `finalPathOut` the
// name it will have, which differs from `path` when the user kept a file of that name.
FileObject* CreateSaveFile(const std::string& path, std::string* finalPathOut = nullptr);
// The name a file handed to a writer will have when the save completes.
std::string SavePathOf(const FileObject& file);

// Whether a read-only target may be replaced (the command line's --force). Off by default: a file the
// user made read-only is refused with a message.
void SetReplaceReadOnly(bool allowed);
bool ReplaceReadOnly();

// Installs handlers for SIGINT, SIGTERM and SIGHUP that remove the temporaries of every save in
// progress and then end the process as the signal would have. Programs call it once at start.
void RemoveTemporariesOnInterrupt();

// The files the last successful save on this thread wrote, in order.
const std::vector<std::string>& LastSavedPaths();
void SetLastSavedPaths(std::vector<std::string> paths);

// "TEXT \"PATH\": REASON" with REASON from errno `code`; the one form every file error takes.
std::string FileErrorText(const char* text, const std::string& path, int code);

}  // namespace orlin
