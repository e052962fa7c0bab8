#pragma once

// The file that takes the extension's log lines when a program runs the camera service
// in-process, so that the terminal keeps the program's own progress and summary. Each line is
// written whole, with its newline, by one system call at once: `tail -f` follows it, and a crash
// loses nothing already logged.
//
// Threading: any thread, no lock. Lines written from two threads at once each land whole (the
// file is opened for appending); the line count is atomic.

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace flowmere::tools {

class LogFile {
 public:
  // Creates or empties `path` (and creates its missing parent directories). Null, with `problem`
  // saying why, when that fails.
  static std::shared_ptr<LogFile> open(const std::filesystem::path& path, std::string& problem);

  LogFile(std::filesystem::path path, int descriptor);
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // Appends `line` and a newline. Errors are dropped: a full disk must not stop the camera.
  void write(std::string_view line);

  [[nodiscard]] const std::filesystem::path& path() const { return path_; }
  [[nodiscard]] std::uint64_t lineCount() const { return lineCount_.load(); }

 private:
  const std::filesystem::path path_;
  const int descriptor_;
  std::atomic<std::uint64_t> lineCount_{0};
};

// Where a program's log goes unless told otherwise: $XDG_STATE_HOME/flowmere/NAME.log, else
// $HOME/.local/state/flowmere/NAME.log, else `fallbackDirectory`/NAME.log. Reads the environment:
// call it from main before any thread starts.
std::filesystem::path defaultLogFile(std::string_view name,
                                     const std::filesystem::path& fallbackDirectory);

}  // namespace flowmere::tools
