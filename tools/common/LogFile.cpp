#include "LogFile.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace flowmere::tools {

std::shared_ptr<LogFile> LogFile::open(const std::filesystem::path& path, std::string& problem) {
  std::error_code error;
  if (path.has_parent_path()) {
    std::filesystem::create_directories(path.parent_path(), error);
    if (error) {
      problem = "cannot create " + path.parent_path().string() + ": " + error.message();
      return nullptr;
    }
  }
  const int descriptor =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0644);
  if (descriptor < 0) {
    problem = "cannot write " + path.string() + ": " +
              std::error_code(errno, std::generic_category()).message();
    return nullptr;
  }
  return std::make_shared<LogFile>(path, descriptor);
}

LogFile::LogFile(std::filesystem::path path, int descriptor)
    : path_(std::move(path)), descriptor_(descriptor) {}

LogFile::~LogFile() {
  ::close(descriptor_);
}

void LogFile::write(std::string_view line) {
  char newline = '\n';
  iovec parts[2] = {{const_cast<char*>(line.data()), line.size()}, {&newline, 1}};
  // A short write to a regular file means the disk is full; the rest of the line is dropped.
  while (::writev(descriptor_, parts, 2) < 0 && errno == EINTR) {
  }
  lineCount_.fetch_add(1, std::memory_order_relaxed);
}

std::filesystem::path defaultLogFile(std::string_view name,
                                     const std::filesystem::path& fallbackDirectory) {
  const std::string file = std::string(name) + ".log";
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read from main before any thread starts.
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state != '\0') {
    return std::filesystem::path(state) / "flowmere" / file;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): as above.
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    return std::filesystem::path(home) / ".local" / "state" / "flowmere" / file;
  }
  return fallbackDirectory / file;
}

}  // namespace flowmere::tools
