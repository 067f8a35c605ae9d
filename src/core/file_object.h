// An open file: its descriptor, its path, and whether the descriptor is ours to close.
// All reads and writes take explicit offsets or the current position; sizes are 64-bit.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace orlin {

// CreateNew makes a file that must not exist yet (the temporaries of a save), readable and writable.
enum class FileMode { Read = 0, Create = 2, CreateNew = 3 };

class FileObject {
 public:
  FileObject() = default;
  FileObject(const FileObject&) = delete;
  FileObject& operator=(const FileObject&) = delete;
  FileObject(FileObject&& other) noexcept;
  FileObject& operator=(FileObject&& other) noexcept;
  ~FileObject();

  // Opens `path`; false with the last-error text "Could not open file" / "Could not create file", the
  // path and the system's reason; errno stays that of the failure.
  bool Open(const std::string& path, FileMode mode);
  void Close();
  bool IsOpen() const { return descriptor_ >= 0; }
  const std::string& Path() const { return path_; }

  // Reads up to `bytes`; returns how many were read (short at the end of the file).
  size_t Read(void* buffer, size_t bytes);
  // Reads exactly `bytes` at `offset`; false if fewer are there.
  bool ReadAt(uint64_t offset, void* buffer, size_t bytes);
  bool Write(const void* buffer, size_t bytes);
  bool Seek(uint64_t offset);
  // Waits until what was written is on the disk.
  bool Sync();
  int Descriptor() const;
  uint64_t Tell() const;
  // -1 when the size cannot be had.
  int64_t Size() const;

 private:
  int descriptor_ = -1;
  bool owned_ = true;
  std::string path_;
};

// Reads a whole file into memory (for text formats and small banks); false on failure.
bool ReadWholeFile(const std::string& path, std::string& out);

}  // namespace orlin
