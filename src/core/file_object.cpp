#include "core/file_object.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <cerrno>

#include "core/last_error.h"
#include "core/save_transaction.h"

namespace orlin {

FileObject::FileObject(FileObject&& other) noexcept
    : descriptor_(other.descriptor_), owned_(other.owned_), path_(std::move(other.path_)) {
  other.descriptor_ = -1;
}

FileObject& FileObject::operator=(FileObject&& other) noexcept {
  if (this != &other) {
    Close();
    descriptor_ = other.descriptor_;
    owned_ = other.owned_;
    path_ = std::move(other.path_);
    other.descriptor_ = -1;
  }
  return *this;
}

FileObject::~FileObject() { Close(); }

bool FileObject::Open(const std::string& path, FileMode mode) {
  Close();
  path_ = path;
  if (mode == FileMode::Read) {
    descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor_ >= 0) {
      struct stat info;
      // A folder opens on Linux but is no file to read.
      if (::fstat(descriptor_, &info) != 0 || S_ISDIR(info.st_mode)) {
        Close();
        errno = EISDIR;
      }
    }
    if (descriptor_ < 0) {
      const int code = errno;
      SetLastError(FileErrorText("Could not open file", path, code));
      errno = code;
      return false;
    }
  } else {
    const int flags = mode == FileMode::CreateNew ? O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC
                                                  : O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC;
    descriptor_ = ::open(path.c_str(), flags, 0666);
    if (descriptor_ < 0) {
      const int code = errno;
      SetLastError(FileErrorText("Could not create file", path, code));
      errno = code;
      return false;
    }
  }
  owned_ = true;
  return true;
}

void FileObject::Close() {
  if (descriptor_ >= 0 && owned_) ::close(descriptor_);
  descriptor_ = -1;
}

size_t FileObject::Read(void* buffer, size_t bytes) {
  if (descriptor_ < 0) return 0;
  size_t done = 0;
  auto* out = static_cast<char*>(buffer);
  while (done < bytes) {
    const ssize_t n = ::read(descriptor_, out + done, bytes - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += size_t(n);
  }
  return done;
}

bool FileObject::ReadAt(uint64_t offset, void* buffer, size_t bytes) {
  if (descriptor_ < 0) return false;
  size_t done = 0;
  auto* out = static_cast<char*>(buffer);
  while (done < bytes) {
    const ssize_t n = ::pread(descriptor_, out + done, bytes - done, off_t(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += size_t(n);
  }
  return true;
}

bool FileObject::Write(const void* buffer, size_t bytes) {
  if (descriptor_ < 0) return false;
  // A full disk or a file-size limit must fail the write, not kill the process.
  static const bool ignoreSizeSignal = [] {
    ::signal(SIGXFSZ, SIG_IGN);
    return true;
  }();
  (void)ignoreSizeSignal;
  size_t done = 0;
  const auto* in = static_cast<const char*>(buffer);
  while (done < bytes) {
    const ssize_t n = ::write(descriptor_, in + done, bytes - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += size_t(n);
  }
  return true;
}

bool FileObject::Sync() { return descriptor_ >= 0 && ::fsync(descriptor_) == 0; }

int FileObject::Descriptor() const { return descriptor_; }

bool FileObject::Seek(uint64_t offset) {
  return descriptor_ >= 0 && ::lseek(descriptor_, off_t(offset), SEEK_SET) >= 0;
}

uint64_t FileObject::Tell() const {
  if (descriptor_ < 0) return 0;
  const off_t at = ::lseek(descriptor_, 0, SEEK_CUR);
  return at < 0 ? 0 : uint64_t(at);
}

int64_t FileObject::Size() const {
  struct stat info;
  if (descriptor_ < 0 || ::fstat(descriptor_, &info) != 0) return -1;
  return int64_t(info.st_size);
}

bool ReadWholeFile(const std::string& path, std::string& out) {
  FileObject file;
  if (!file.Open(path, FileMode::Read)) return false;
  const int64_t size = file.Size();
  if (size < 0) return false;
  out.resize(size_t(size));
  return file.ReadAt(0, out.data(), out.size());
}

}  // namespace orlin
