#pragma once

// Where a user's programs keep their settings: the home directory and the XDG configuration
// directory, taken from HOME and XDG_CONFIG_HOME (the tests point both at fixture trees).
//
// Pure values and functions: any thread.

#include <filesystem>
#include <optional>
#include <string>

namespace flowmere::status {

struct HomeDirectories {
  std::filesystem::path home;        // empty when HOME is not set
  std::filesystem::path configHome;  // $XDG_CONFIG_HOME, or $HOME/.config
};

// From the process environment.
HomeDirectories homeDirectoriesFromEnvironment();

// The whole of a file as text; none when it cannot be read.
std::optional<std::string> readTextFile(const std::filesystem::path& path);

}  // namespace flowmere::status
