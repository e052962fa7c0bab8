#include "HomeDirectories.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>

namespace flowmere::status {

HomeDirectories homeDirectoriesFromEnvironment() {
  HomeDirectories directories;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the doctor reads it before any thread starts.
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    directories.home = home;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): as above.
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && *config == '/') {
    directories.configHome = config;
  } else if (!directories.home.empty()) {
    directories.configHome = directories.home / ".config";
  }
  return directories;
}

std::optional<std::string> readTextFile(const std::filesystem::path& path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    return std::nullopt;
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return std::nullopt;
  }
  std::ostringstream text;
  text << file.rdbuf();
  if (file.bad()) {
    return std::nullopt;
  }
  return text.str();
}

}  // namespace flowmere::status
