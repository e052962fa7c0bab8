// The state files under concurrent use, on real threads: two writers replace the same file
// 100 000 times between them while a reader reads it without pause. Every read must be one
// writer's whole text. No sleeping and no timing: the reader simply reads until both writers are
// done, however long that takes on the machine at hand.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>  // mkdtemp
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "VendorIdentifiers.h"
#include "common/PosixFileManager.h"
#include "metrics/StateFiles.h"

namespace flowmere {
namespace {

namespace fs = std::filesystem;

constexpr int kWritesPerWriter = 50'000;
constexpr std::string_view kFileName = "bridge_extension_status";
constexpr std::array<char, 2> kFiller = {'a', 'b'};

// Writer w's text number i: "w i n " then n filler characters of the writer's own, then '$'.
// Lengths vary from write to write and differ between the writers, so a text cut short, a text
// with another's tail or two texts run together all fail `parseText`.
std::string makeText(int writer, int index) {
  const int length = (index * 7919 + writer * 613) % 3001 + writer;
  std::string text =
      std::to_string(writer) + ' ' + std::to_string(index) + ' ' + std::to_string(length) + ' ';
  text.append(static_cast<std::size_t>(length), kFiller[static_cast<std::size_t>(writer)]);
  text.push_back('$');
  return text;
}

struct ParsedText {
  int writer = -1;
  int index = -1;
};

std::optional<ParsedText> parseText(std::string_view text) {
  ParsedText parsed;
  int length = -1;
  const char* position = text.data();
  const char* const end = text.data() + text.size();
  for (int* field : {&parsed.writer, &parsed.index, &length}) {
    const auto [next, error] = std::from_chars(position, end, *field);
    if (error != std::errc() || next == end || *next != ' ') {
      return std::nullopt;
    }
    position = next + 1;
  }
  if (parsed.writer < 0 || parsed.writer > 1 || length < 0 ||
      end - position != static_cast<std::ptrdiff_t>(length) + 1 || end[-1] != '$') {
    return std::nullopt;
  }
  const char filler = kFiller[static_cast<std::size_t>(parsed.writer)];
  if (std::any_of(position, end - 1, [filler](char c) { return c != filler; })) {
    return std::nullopt;
  }
  return parsed;
}

// The file's whole content as one open sees it; none when it cannot be opened or read.
std::optional<std::string> readOnce(const std::string& path, std::string& buffer) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return std::nullopt;
  }
  buffer.clear();
  std::array<char, 4096> chunk{};
  bool failed = false;
  for (;;) {
    const ssize_t count = ::read(descriptor, chunk.data(), chunk.size());
    if (count == 0) {
      break;
    }
    if (count < 0) {
      if (errno == EINTR) {
        continue;
      }
      failed = true;
      break;
    }
    buffer.append(chunk.data(), static_cast<std::size_t>(count));
  }
  ::close(descriptor);
  return failed ? std::nullopt : std::optional<std::string>(buffer);
}

// Two writers replace one state file through the state-file writer while a reader reads it:
// every read is one writer's whole text, a writer's texts are seen in the order it wrote them,
// the file is never missing, and no auxiliary file is left behind.
// A fresh directory on tmpfs (/dev/shm) when there is one, else under the test temporary
// directory; removed with its content on destruction. The rename that replaces a file is atomic
// on any local file system; tmpfs only keeps 100 000 of them quick (on ext4 each waits for the
// new file's data). Test thread only.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    const bool tmpfs = fs::is_directory("/dev/shm");
    std::string pattern =
        (tmpfs ? std::string("/dev/shm/") : ::testing::TempDir()) + "flowmere-state-XXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) {
      path_ = pattern;
    }
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    if (!path_.empty()) {
      fs::remove_all(path_, ignored);
    }
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  [[nodiscard]] const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

TEST(StateFilesConcurrencyTest, HundredThousandWritesNeverShowAPartialOrMixedText) {
  ScratchDirectory directory;
  ASSERT_FALSE(directory.path().empty());
  common::PosixFileManager files(directory.path() / "containers", directory.path() / "tmp");
  StateFiles state(files, std::string(kApplicationGroupIdentifier),
                   std::string(kStateDirectoryName));
  const std::optional<fs::path> stateDirectory = state.stateDirectoryURL();
  ASSERT_TRUE(stateDirectory.has_value());
  const std::string path = (*stateDirectory / kFileName).string();
  state.writeStateFile(makeText(0, 0), kFileName);

  std::atomic<int> writersLeft{2};
  const auto writer = [&](int id) {
    for (int i = 1; i <= kWritesPerWriter; ++i) {
      state.writeStateFile(makeText(id, i), kFileName);
    }
    writersLeft.fetch_sub(1);
  };
  std::thread first(writer, 0);
  std::thread second(writer, 1);

  std::int64_t reads = 0;
  std::int64_t missing = 0;
  std::int64_t malformed = 0;
  std::int64_t outOfOrder = 0;
  std::array<int, 2> lastSeen = {0, 0};
  std::array<std::int64_t, 2> readsPerWriter = {0, 0};
  std::string firstBad;
  std::string buffer;
  do {
    ++reads;
    const std::optional<std::string> text = readOnce(path, buffer);
    if (!text) {
      ++missing;
      continue;
    }
    const std::optional<ParsedText> parsed = parseText(*text);
    if (!parsed) {
      ++malformed;
      if (firstBad.empty()) {
        firstBad = text->substr(0, 80);
      }
      continue;
    }
    const auto writerIndex = static_cast<std::size_t>(parsed->writer);
    ++readsPerWriter[writerIndex];
    if (parsed->index < lastSeen[writerIndex]) {
      ++outOfOrder;
    }
    lastSeen[writerIndex] = parsed->index;
  } while (writersLeft.load() > 0);
  first.join();
  second.join();

  EXPECT_EQ(missing, 0) << "of " << reads << " reads";
  EXPECT_EQ(malformed, 0) << "of " << reads << " reads; the first: " << firstBad;
  EXPECT_EQ(outOfOrder, 0);
  // The last rename wins: the file ends with one writer's final text.
  const std::optional<std::string> last = readOnce(path, buffer);
  EXPECT_TRUE(last == makeText(0, kWritesPerWriter) || last == makeText(1, kWritesPerWriter));
  std::vector<std::string> entries;
  for (const auto& entry : fs::directory_iterator(*stateDirectory)) {
    entries.push_back(entry.path().filename().string());
  }
  EXPECT_EQ(entries, std::vector<std::string>{std::string(kFileName)});
  RecordProperty("reads", std::to_string(reads));
  RecordProperty("reads_of_writer_0", std::to_string(readsPerWriter[0]));
  RecordProperty("reads_of_writer_1", std::to_string(readsPerWriter[1]));
}

}  // namespace
}  // namespace flowmere
