#pragma once

// A fresh directory under the test temporary directory, removed with everything in it on
// destruction; plus a whole-file reader. Test thread only (the path itself may be read anywhere).

#include <gtest/gtest.h>
#include <stdlib.h>  // mkdtemp

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

namespace flowmere::metrics_test {

class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string pattern = ::testing::TempDir() + "flowmere-metrics-XXXXXX";
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr) << pattern;
    path_ = pattern;
  }
  ~ScratchDirectory() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// The file's whole content, byte for byte; none when it cannot be opened.
inline std::optional<std::string> readFile(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

}  // namespace flowmere::metrics_test
