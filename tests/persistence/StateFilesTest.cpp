#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "common/PosixFileManager.h"
#include "metrics/StateFiles.h"
#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

namespace fs = std::filesystem;

std::optional<std::string> readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return std::nullopt;
  }
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

class StateFilesTest : public ::testing::Test {
 protected:
  fs::path root() const { return directory.path(); }
  testing::TemporaryDirectory directory;
};

TEST_F(StateFilesTest, WritesIntoTheContainerAndReplacesExistingFiles) {
  common::PosixFileManager files(root() / "containers", root() / "tmp");
  StateFiles state(files, "group.test", "com.test.state");
  state.writeStateFile("waiting", "bridge_extension_status");
  state.writeStateFile("0", "bridge_frames_received");
  state.writeStateFile("received 1", "bridge_extension_status");
  const fs::path dir = root() / "containers" / "group.test" / "com.test.state";
  EXPECT_EQ(readFile(dir / "bridge_extension_status"), "received 1");
  // Exactly the text: one byte, no newline.
  EXPECT_EQ(fs::file_size(dir / "bridge_frames_received"), 1U);
  EXPECT_FALSE(fs::exists(root() / "tmp" / "com.test.state"));
  // No auxiliary file is left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 2);
}

TEST_F(StateFilesTest, FallsBackToTheTemporaryDirectoryWithoutAUsableContainer) {
  // No container granted at all.
  common::PosixFileManager noContainer(std::nullopt, root() / "tmp");
  StateFiles(noContainer, "group.test", "state").writeStateFile("a", "key");
  EXPECT_EQ(readFile(root() / "tmp" / "state" / "key"), "a");

  // A container whose state directory cannot be created (a file is in the way).
  common::PosixFileManager blocked(root() / "containers", root() / "tmp");
  fs::create_directories(root() / "containers" / "group.test");
  std::ofstream(root() / "containers" / "group.test" / "state") << "not a directory";
  StateFiles(blocked, "group.test", "state").writeStateFile("b", "key");
  EXPECT_EQ(readFile(root() / "tmp" / "state" / "key"), "b");
}

TEST_F(StateFilesTest, NeitherDirectoryCreatableWritesNothingAndCarriesOn) {
  std::ofstream(root() / "file") << "x";
  common::PosixFileManager files(root() / "file" / "containers", root() / "file" / "tmp");
  StateFiles state(files, "group.test", "state");
  EXPECT_FALSE(state.stateDirectoryURL().has_value());
  state.writeStateFile("a", "key");  // must not throw or crash
  EXPECT_EQ(std::distance(fs::directory_iterator(root()), fs::directory_iterator()), 1);
}

// Two writers replacing one file while a reader reads it: every read is one whole text.
TEST_F(StateFilesTest, ReaderNeverSeesAPartialFileWhileTwoWritersRace) {
  common::PosixFileManager files(root() / "containers", root() / "tmp");
  StateFiles state(files, "group.test", "state");
  const std::string first(4096, 'a');
  const std::string second(8192, 'b');
  state.writeStateFile(first, "status");
  const fs::path path = root() / "containers" / "group.test" / "state" / "status";

  std::atomic<int> writersLeft{2};
  auto writer = [&](const std::string& text) {
    for (int i = 0; i < 1500; ++i) {
      state.writeStateFile(text, "status");
    }
    --writersLeft;
  };
  std::thread a(writer, first);
  std::thread b(writer, second);
  int reads = 0;
  while (writersLeft.load() > 0 || reads < 100) {
    const auto text = readFile(path);
    ASSERT_TRUE(text.has_value());
    ASSERT_TRUE(*text == first || *text == second)
        << "partial or mixed text of " << text->size() << " bytes";
    ++reads;
  }
  a.join();
  b.join();
}

}  // namespace
}  // namespace flowmere
