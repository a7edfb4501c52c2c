#include "korvan/mcap/io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarvik::korvan::mcap {

namespace {

// Writes go straight to the kernel above this size instead of through the buffer.
constexpr size_t kBufferSize = 64 * 1024;

std::string ErrnoText(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

std::unique_ptr<FileSink> FileSink::Create(const std::string& path, Status* status) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    *status = Status::Error(ErrnoText("cannot create", path));
    return nullptr;
  }
  *status = Status();
  return std::unique_ptr<FileSink>(new FileSink(fd, path));
}

FileSink::FileSink(int fd, std::string path) : fd_(fd), path_(std::move(path)) {
  buffer_.reserve(kBufferSize);
}

FileSink::~FileSink() {
  Close();
}

Status FileSink::WriteAll(const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd_, data, size);
    if (n < 0) {
      if (errno == EINTR)
        continue;
      return Status::Error(ErrnoText("cannot write", path_));
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return Status();
}

Status FileSink::Write(const void* data, size_t size) {
  if (fd_ < 0)
    return Status::Error("write to closed file " + path_);
  const char* bytes = static_cast<const char*>(data);
  if (buffer_.size() + size <= kBufferSize) {
    buffer_.append(bytes, size);
    return Status();
  }
  Status status = Flush();
  if (!status.ok())
    return status;
  if (size < kBufferSize) {
    buffer_.append(bytes, size);
    return Status();
  }
  return WriteAll(bytes, size);
}

Status FileSink::Flush() {
  if (fd_ < 0)
    return Status::Error("flush of closed file " + path_);
  Status status = WriteAll(buffer_.data(), buffer_.size());
  buffer_.clear();
  return status;
}

Status FileSink::Sync() {
  Status status = Flush();
  if (status.ok() && ::fsync(fd_) != 0)
    status = Status::Error(ErrnoText("cannot sync", path_));
  return status;
}

Status FileSink::Close() {
  if (fd_ < 0)
    return Status();
  Status status = Flush();
  if (::close(fd_) != 0 && status.ok())
    status = Status::Error(ErrnoText("cannot close", path_));
  fd_ = -1;
  return status;
}

Status BufferSink::Write(const void* data, size_t size) {
  data_.append(static_cast<const char*>(data), size);
  return Status();
}

std::unique_ptr<FileSource> FileSource::Open(const std::string& path, Status* status) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *status = Status::Error(ErrnoText("cannot open", path));
    return nullptr;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    *status = Status::Error("not a regular file: " + path);
    ::close(fd);
    return nullptr;
  }
  *status = Status();
  return std::unique_ptr<FileSource>(new FileSource(fd, static_cast<uint64_t>(st.st_size)));
}

FileSource::~FileSource() {
  ::close(fd_);
}

bool FileSource::Read(uint64_t offset, size_t size, std::string* out) const {
  if (offset > size_ || size > size_ - offset)
    return false;
  out->resize(size);
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::pread(fd_, out->data() + done, size - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool BufferSource::Read(uint64_t offset, size_t size, std::string* out) const {
  if (offset > bytes_.size() || size > bytes_.size() - offset)
    return false;
  out->assign(bytes_.data() + offset, size);
  return true;
}

}  // namespace tarvik::korvan::mcap
