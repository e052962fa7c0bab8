#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "common/PosixFileManager.h"
#include "metrics/ScratchDirectory.h"
#include "metrics/StateFiles.h"

namespace flowmere {
namespace {

namespace fs = std::filesystem;
using common::PosixFileManager;
using metrics_test::readFile;

class StateFilesTest : public ::testing::Test {
 protected:
  fs::path root() const { return scratch.path(); }
  fs::path containerState() const { return root() / "containers" / "group" / "state"; }
  fs::path fallbackState() const { return root() / "tmp" / "state"; }
  void putFile(const fs::path& file) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "in the way";
  }
  static auto entries(const fs::path& directory) {
    return std::distance(fs::directory_iterator(directory), fs::directory_iterator());
  }

  metrics_test::ScratchDirectory scratch;
  PosixFileManager files{root() / "containers", root() / "tmp"};
  StateFiles state{files, "group", "state"};
};

TEST_F(StateFilesTest, ContainerDirectoryIsUsedAndExistingFilesAreReplacedWhole) {
  putFile(containerState() / "frames_received");
  const mode_t umask = ::umask(077);
  state.writeStateFile("0", "frames_received");
  ::umask(umask);
  EXPECT_EQ(readFile(containerState() / "frames_received"), "0");
  struct stat status {};
  ASSERT_EQ(::stat((containerState() / "frames_received").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644U) << "readers in other processes need read access";
  EXPECT_EQ(entries(containerState()), 1) << "an auxiliary file was left behind";
  EXPECT_FALSE(fs::exists(fallbackState()));
}

TEST_F(StateFilesTest, FallbackIsUsedWhenTheContainerIsMissingOrUnusable) {
  PosixFileManager noContainer(std::nullopt, root() / "tmp");
  StateFiles(noContainer, "group", "state").writeStateFile("1", "a");
  EXPECT_EQ(readFile(fallbackState() / "a"), "1");

  putFile(root() / "parent-is-a-file");
  PosixFileManager badParent(root() / "parent-is-a-file", root() / "tmp");
  StateFiles(badParent, "group", "state").writeStateFile("2", "b");
  EXPECT_EQ(readFile(fallbackState() / "b"), "2");

  // Resolved on every write: once a file takes the state directory's name, the fallback is used.
  state.writeStateFile("3", "c");
  EXPECT_EQ(readFile(containerState() / "c"), "3");
  fs::remove_all(containerState());
  putFile(containerState());
  state.writeStateFile("4", "c");
  EXPECT_EQ(readFile(fallbackState() / "c"), "4");
  EXPECT_EQ(readFile(containerState()), "in the way");
}

TEST_F(StateFilesTest, NothingIsWrittenWhenNeitherDirectoryCanBeCreated) {
  putFile(root() / "file");
  PosixFileManager blocked(root() / "file" / "containers", root() / "file" / "tmp");
  StateFiles nowhere(blocked, "group", "state");
  EXPECT_FALSE(nowhere.stateDirectoryURL().has_value());
  nowhere.writeStateFile("0", "frames_received");
  EXPECT_EQ(entries(root()), 1);
  EXPECT_EQ(readFile(root() / "file"), "in the way");
}

// Two writers replace one file while a reader reads it: every read is one writer's whole text.
TEST_F(StateFilesTest, ConcurrentReaderNeverSeesAPartialOrMixedFile) {
  const std::string first(6000, 'a');
  const std::string second(9000, 'b');
  state.writeStateFile(first, "extension_status");
  std::atomic<int> writersLeft{2};
  const auto writer = [&](const std::string& text) {
    for (int i = 0; i < 2000; ++i) {
      state.writeStateFile(text, "extension_status");
    }
    writersLeft.fetch_sub(1);
  };
  std::thread a(writer, std::cref(first));
  std::thread b(writer, std::cref(second));
  int bad = 0;
  do {
    const std::optional<std::string> text = readFile(containerState() / "extension_status");
    bad += (!text || (*text != first && *text != second)) ? 1 : 0;
  } while (writersLeft.load() > 0);
  a.join();
  b.join();
  EXPECT_EQ(bad, 0);
  EXPECT_EQ(entries(containerState()), 1);
}

}  // namespace
}  // namespace flowmere
