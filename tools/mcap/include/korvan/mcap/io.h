// Where recordings go to and come from: a Sink takes the writer's bytes in order, a Source
// gives a reader random access to a recording. Files and memory buffers are provided; each
// object is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "korvan/mcap/types.h"

namespace tarvik::korvan::mcap {

class Sink {
 public:
  virtual ~Sink() = default;
  // Appends bytes. A sink may keep them in memory until Flush().
  virtual Status Write(const void* data, size_t size) = 0;
  // Hands everything written so far to the operating system (or wherever the sink stores it),
  // so that it survives the process being killed.
  virtual Status Flush() = 0;
  // Flushes and releases the sink; later writes fail.
  virtual Status Close() = 0;
};

// Appends to a new file (truncated if it exists). Writes are buffered up to Flush(), which
// passes them to the kernel: a killed process loses only what it wrote since its last Flush.
class FileSink : public Sink {
 public:
  // Null with `status` set when the file cannot be created.
  static std::unique_ptr<FileSink> Create(const std::string& path, Status* status);
  ~FileSink() override;

  Status Write(const void* data, size_t size) override;
  Status Flush() override;
  Status Close() override;
  // Also asks the kernel to put the data on the disk (fsync).
  Status Sync();

 private:
  FileSink(int fd, std::string path);
  Status WriteAll(const char* data, size_t size);

  int fd_;
  std::string path_;
  std::string buffer_;
};

// Collects everything in memory: tests, benchmarks, and recordings sent elsewhere.
class BufferSink : public Sink {
 public:
  Status Write(const void* data, size_t size) override;
  Status Flush() override { return Status(); }
  Status Close() override { return Status(); }
  const std::string& data() const { return data_; }
  std::string& data() { return data_; }

 private:
  std::string data_;
};

class Source {
 public:
  virtual ~Source() = default;
  virtual uint64_t size() const = 0;
  // Reads exactly `size` bytes at `offset` into `out` (resized); false when they are not all
  // there or the read fails.
  virtual bool Read(uint64_t offset, size_t size, std::string* out) const = 0;
};

// A file opened for reading; its size is taken at Open.
class FileSource : public Source {
 public:
  static std::unique_ptr<FileSource> Open(const std::string& path, Status* status);
  ~FileSource() override;
  uint64_t size() const override { return size_; }
  bool Read(uint64_t offset, size_t size, std::string* out) const override;

 private:
  FileSource(int fd, uint64_t size) : fd_(fd), size_(size) {}
  int fd_;
  uint64_t size_;
};

// Bytes in memory; the caller keeps them alive while the source is used.
class BufferSource : public Source {
 public:
  explicit BufferSource(std::string_view bytes) : bytes_(bytes) {}
  uint64_t size() const override { return bytes_.size(); }
  bool Read(uint64_t offset, size_t size, std::string* out) const override;

 private:
  std::string_view bytes_;
};

}  // namespace tarvik::korvan::mcap
