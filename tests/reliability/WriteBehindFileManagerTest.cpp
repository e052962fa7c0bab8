// The state files written behind the relay: what the writer thread leaves on disk once the
// writes are flushed or the file layer is gone, whatever the interleaving of the callers.

#include <gtest/gtest.h>
#include <stdlib.h>  // mkdtemp

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/WriteBehindFileManager.h"

namespace flowmere::common {
namespace {

namespace fs = std::filesystem;

class WriteBehindFileManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "write-behind.XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    directory_ = pattern;
  }
  void TearDown() override { fs::remove_all(directory_); }

  [[nodiscard]] PosixFileManager posix() const { return PosixFileManager(directory_, directory_); }
  [[nodiscard]] std::string path(const std::string& name) const {
    return (directory_ / name).string();
  }
  [[nodiscard]] std::string read(const std::string& name) const {
    std::ifstream file(directory_ / name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }

  fs::path directory_;
};

// Two threads each write their own file and a shared one many times; after a flush every file
// holds its last accepted text, and no auxiliary file is left behind.
TEST_F(WriteBehindFileManagerTest, AFlushLeavesEachFileWithItsLastText) {
  WriteBehindFileManager files(posix());
  constexpr int kWrites = 20'000;
  std::vector<std::thread> writers;
  writers.reserve(2);
  for (int writer = 0; writer < 2; ++writer) {
    writers.emplace_back([&, writer] {
      const std::string own = path("own-" + std::to_string(writer));
      const std::string shared = path("shared");
      for (int index = 1; index <= kWrites; ++index) {
        ASSERT_TRUE(files.writeStringAtomicallyToPath(own, std::to_string(index)));
        ASSERT_TRUE(files.writeStringAtomicallyToPath(shared, std::to_string(writer * index)));
      }
    });
  }
  for (auto& thread : writers) {
    thread.join();
  }
  // The writers' last writes of the shared file race; one more from here is the last for sure.
  ASSERT_TRUE(files.writeStringAtomicallyToPath(path("shared"), "last"));
  files.flush();
  EXPECT_EQ(read("own-0"), std::to_string(kWrites));
  EXPECT_EQ(read("own-1"), std::to_string(kWrites));
  EXPECT_EQ(read("shared"), "last");
  for (const auto& entry : fs::directory_iterator(directory_)) {
    EXPECT_NE(entry.path().filename().string().front(), '.') << entry.path();
  }
}

// Writes accepted just before the file layer goes are on disk when its destructor returns.
TEST_F(WriteBehindFileManagerTest, DestructionWritesWhatIsPending) {
  {
    WriteBehindFileManager files(posix());
    for (int index = 0; index < 100; ++index) {
      ASSERT_TRUE(
          files.writeStringAtomicallyToPath(path("status"), "received " + std::to_string(index)));
    }
  }
  EXPECT_EQ(read("status"), "received 99");
}

// Rounds of writes are `spacing` apart: writes that come within it wait for the next round,
// which takes only each file's newest text, and a flush or the destructor does not wait for it.
// (An hour's spacing keeps the writer from starting a round on its own while the test runs.)
TEST_F(WriteBehindFileManagerTest, WritesWithinTheSpacingWaitForTheNextRound) {
  {
    WriteBehindFileManager files(posix(), std::chrono::hours(1));
    ASSERT_TRUE(files.writeStringAtomicallyToPath(path("status"), "received 1"));
    files.flush();
    ASSERT_EQ(read("status"), "received 1");
    ASSERT_TRUE(files.writeStringAtomicallyToPath(path("status"), "received 30"));
    ASSERT_TRUE(files.writeStringAtomicallyToPath(path("count"), "30"));
    ASSERT_TRUE(files.writeStringAtomicallyToPath(path("status"), "received 60"));
    EXPECT_EQ(read("status"), "received 1");
    EXPECT_FALSE(fs::exists(directory_ / "count"));
    files.flush();
    EXPECT_EQ(read("status"), "received 60");
    EXPECT_EQ(read("count"), "30");
    ASSERT_TRUE(files.writeStringAtomicallyToPath(path("status"), "sink stopped"));
  }
  EXPECT_EQ(read("status"), "sink stopped");
}

// A write that fails on the writer thread (its directory is a file) neither blocks a flush nor
// keeps the other files from being written; a target without a file name is refused at once.
TEST_F(WriteBehindFileManagerTest, FailedWritesAreDroppedAndNeverBlockAFlush) {
  std::ofstream(directory_ / "not-a-directory") << "x";
  WriteBehindFileManager files(posix());
  EXPECT_TRUE(files.writeStringAtomicallyToPath(path("not-a-directory/status"), "lost"));
  EXPECT_TRUE(files.writeStringAtomicallyToPath(path("status"), "kept"));
  EXPECT_FALSE(files.writeStringAtomicallyToPath(path("dir") + "/", "nameless"));
  EXPECT_FALSE(files.writeStringAtomicallyToPath("", "nameless"));
  files.flush();
  EXPECT_EQ(read("status"), "kept");
  EXPECT_EQ(read("not-a-directory"), "x");
}

}  // namespace
}  // namespace flowmere::common
