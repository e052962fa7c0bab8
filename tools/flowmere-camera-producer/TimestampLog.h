#pragma once

// A per-frame time stamp record for latency measurements: appends one "frame_number time_ns"
// line per call to a file.

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace flowmere::producer {

// Appends "frame_number time_ns" lines through a 1 MiB stdio buffer, so a run of tens of
// thousands of frames reaches the file in a handful of writes and recording a frame makes no
// system call and no allocation. Not thread-safe: owned and called by one thread (the thread
// that records frames); it has no lock.
class TimestampLog {
 public:
  TimestampLog() = default;
  TimestampLog(const TimestampLog&) = delete;
  TimestampLog& operator=(const TimestampLog&) = delete;
  ~TimestampLog() { close(); }

  // Opens `path` for appending; false (with errno set) when it cannot be opened.
  bool open(const std::string& path) {
    close();
    file_ = std::fopen(path.c_str(), "a");
    if (!file_) {
      return false;
    }
    buffer_.resize(kBufferSize);
    std::setvbuf(file_, buffer_.data(), _IOFBF, buffer_.size());
    return true;
  }

  bool isOpen() const { return file_ != nullptr; }

  // Records one frame; does nothing when no file is open.
  void record(std::uint64_t frame, std::int64_t nanoseconds) {
    if (!file_) {
      return;
    }
    // At most 20 characters each (the 64-bit limits), a space and a newline.
    constexpr std::ptrdiff_t kField = 20;
    std::array<char, 2 * kField + 2> line{};
    char* end = std::to_chars(line.data(), line.data() + kField, frame).ptr;
    *end++ = ' ';
    end = std::to_chars(end, end + kField, nanoseconds).ptr;
    *end++ = '\n';
    std::fwrite(line.data(), 1, static_cast<std::size_t>(end - line.data()), file_);
  }

  // Writes out what is buffered and closes the file; false when a write failed.
  bool close() {
    if (!file_) {
      return true;
    }
    const bool ok = std::ferror(file_) == 0 && std::fflush(file_) == 0;
    const bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    return ok && closed;
  }

 private:
  static constexpr std::size_t kBufferSize = std::size_t{1} << 20;
  std::FILE* file_ = nullptr;
  std::vector<char> buffer_;  // stdio's buffer for file_; must outlive it
};

}  // namespace flowmere::producer
