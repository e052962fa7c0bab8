// Faults injected while frames flow, in virtual time: the state directory unusable and usable
// again, a full disk (the embedded file layer's switch, and a real write that the kernel cuts
// short), and a platform that answers every consume request with an error for ten seconds. In
// each case the relay must keep relaying, the failure must show exactly where it is meant to
// (persistence failures nowhere, consume errors in the log and the status), and the counts must
// be right once the fault is gone.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "reliability/FrameFeeder.h"
#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

namespace fs = std::filesystem;
using reliability::FrameFeeder;
using testing::ExtensionHarness;

// 1280x720 BGRA: small enough to keep the tests quick.
constexpr std::size_t kFormat = 2;

std::optional<std::string> readFile(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    return std::nullopt;
  }
  return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

// Puts a regular file where a directory should be. The process runs as root in CI, so taking
// permissions away would not stop its writes; an entry of the wrong kind does.
void blockWithFile(const fs::path& path) {
  fs::remove_all(path);
  fs::create_directories(path.parent_path());
  std::ofstream(path) << "in the way";
}

std::vector<std::string> directoryEntries(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Log lines of a healthy relay: the per-frame lines at their cadence and the waiting line (with
// its status) that follows each frame's empty polls. Anything else is returned.
std::vector<std::string> linesBesidesTheFrameCadence(ExtensionHarness& harness) {
  static const std::vector<std::string> kRoutine = {
      "[VANE-EXT] sink received frame=", "[VANE-EXT] source send frame=",
      "[VANE-EXT] sink waiting polls=", "sink waiting for buffers polls="};
  std::vector<std::string> others;
  const std::scoped_lock lock(harness.mutex);
  for (const std::string& line : harness.logs) {
    if (std::none_of(kRoutine.begin(), kRoutine.end(),
                     [&](const std::string& prefix) { return line.rfind(prefix, 0) == 0; })) {
      others.push_back(line);
    }
  }
  return others;
}

class FaultInjectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    harness.sourcePlatformStream().setStreamingClients({viewer});
    ASSERT_TRUE(harness.sourcePlatformStream().start().ok());
    ASSERT_TRUE(harness.startProducer(producer, kFormat).ok());
  }

  [[nodiscard]] fs::path containerFile(const std::string& name) const {
    return harness.containerStateDirectory() / name;
  }
  [[nodiscard]] std::size_t relayed() const { return harness.scheduledOutputs.size(); }

  // Forgets what the harness recorded so far; later checks look at what follows.
  void clearRecords() {
    harness.clearRecords();
    acceptedBeforeClear = feeder.acceptedSequenceNumbers().size();
  }

  // Every push accepted since the last `clearRecords` was delivered once, in order, and sent to
  // the client.
  void expectEveryPushRelayed() {
    std::vector<std::uint64_t> delivered;
    for (const auto& output : harness.scheduledOutputs) {
      delivered.push_back(output.sequenceNumber);
    }
    const auto& accepted = feeder.acceptedSequenceNumbers();
    EXPECT_EQ(delivered, std::vector<std::uint64_t>(
                             accepted.begin() + static_cast<std::ptrdiff_t>(acceptedBeforeClear),
                             accepted.end()));
    EXPECT_EQ(harness.sent.size(), harness.scheduledOutputs.size());
  }

  ExtensionHarness harness;
  std::shared_ptr<const platform::Client> producer = harness.makeClient(4242, "producer");
  std::shared_ptr<const platform::Client> viewer = harness.makeClient(7, "viewer");
  FrameFeeder feeder{harness.service(), producer, kFormat};
  std::size_t acceptedBeforeClear = 0;
};

// --- The state directory ---------------------------------------------------------------------

// Neither the container's state directory nor the fallback can be created: values are dropped
// without a word, the relay goes on, and the first write after the directory comes back lands
// with the current count.
TEST_F(FaultInjectionTest, StateDirectoryUnusableThenUsableAgain) {
  feeder.feedFor(1.0);
  ASSERT_EQ(relayed(), 30U);
  ASSERT_EQ(readFile(containerFile("bridge_frames_received")), "30");
  clearRecords();

  blockWithFile(harness.containerStateDirectory());
  blockWithFile(harness.fallbackStateDirectory());
  feeder.feedFor(2.0);
  EXPECT_EQ(relayed(), 60U);
  EXPECT_TRUE(harness.fileWrites.empty());
  EXPECT_EQ(linesBesidesTheFrameCadence(harness), std::vector<std::string>{});
  // The settings suite is written as before.
  EXPECT_EQ(harness.lastSetting("bridge_frames_received"),
            platform::PropertyValue(std::int64_t{90}));
  // Nothing was written beside or over the entries in the way.
  EXPECT_EQ(readFile(harness.containerStateDirectory()), "in the way");
  EXPECT_EQ(readFile(harness.fallbackStateDirectory()), "in the way");
  EXPECT_EQ(directoryEntries(harness.containerStateDirectory().parent_path()),
            (std::vector<std::string>{"com.flowmere.av.state"}));

  fs::remove(harness.containerStateDirectory());
  fs::remove(harness.fallbackStateDirectory());
  feeder.feedFor(1.0);
  EXPECT_EQ(relayed(), 90U);
  expectEveryPushRelayed();
  EXPECT_EQ(readFile(containerFile("bridge_frames_received")), "120");
  EXPECT_EQ(readFile(containerFile("bridge_latency_average_ms")), "0.000000");
  EXPECT_EQ(readFile(containerFile("bridge_extension_status")), "sink waiting for buffers polls=1");
  // Written only by a reset and lost with the old directory: a dropped value is not retried.
  EXPECT_FALSE(fs::exists(containerFile("bridge_last_frame_number")));
  EXPECT_FALSE(fs::exists(harness.fallbackStateDirectory()));
  EXPECT_EQ(linesBesidesTheFrameCadence(harness), std::vector<std::string>{});
}

// The directory is resolved for every value: while the container's state directory cannot be
// made the values go to the fallback, and once it can they go back.
TEST_F(FaultInjectionTest, LostContainerStateDirectorySendsValuesToTheFallbackAndBack) {
  feeder.feedFor(1.0);
  clearRecords();
  blockWithFile(harness.containerStateDirectory());
  feeder.feedFor(1.0);
  EXPECT_EQ(readFile(harness.fallbackStateDirectory() / "bridge_frames_received"), "60");
  EXPECT_EQ(readFile(harness.containerStateDirectory()), "in the way");

  fs::remove(harness.containerStateDirectory());
  feeder.feedFor(1.0);
  EXPECT_EQ(readFile(containerFile("bridge_frames_received")), "90");
  EXPECT_EQ(readFile(harness.fallbackStateDirectory() / "bridge_frames_received"), "60");
  expectEveryPushRelayed();
  EXPECT_EQ(linesBesidesTheFrameCadence(harness), std::vector<std::string>{});
}

// --- A full disk -----------------------------------------------------------------------------

// Every file write fails: the files keep their last whole content, statuses still reach the log
// and the suite, a producer restart in the middle counts from zero again, and after the disk has
// room the files catch up with the recorder's counts.
TEST_F(FaultInjectionTest, FullDiskKeepsTheLastFilesAndCatchesUpAfterwards) {
  feeder.feedFor(1.0);
  ASSERT_EQ(readFile(containerFile("bridge_frames_received")), "30");
  clearRecords();

  harness.service().setFailFileWrites(true);
  feeder.feedFor(1.0);
  ASSERT_TRUE(harness.sinkPlatformStream().stop().ok());
  ASSERT_TRUE(harness.startProducer(producer).ok());
  feeder.feedFor(1.0);
  EXPECT_EQ(relayed(), 60U);
  EXPECT_TRUE(harness.fileWrites.empty());
  EXPECT_EQ(readFile(containerFile("bridge_frames_received")), "30");
  EXPECT_EQ(readFile(containerFile("bridge_extension_status")), "sink waiting for buffers polls=1");
  EXPECT_EQ(directoryEntries(harness.containerStateDirectory()),
            (std::vector<std::string>{"bridge_extension_status", "bridge_frames_received",
                                      "bridge_last_frame_number", "bridge_latency_average_ms"}));
  // The restart's statuses are logged and reach the suite although no file takes them.
  EXPECT_EQ(harness.logsStartingWith("sink stopped", false).size(), 1U);
  EXPECT_EQ(harness.logsStartingWith("sink started clients=0 hasClient=true", false).size(), 1U);
  EXPECT_EQ(harness.lastSetting("bridge_frames_received"),
            platform::PropertyValue(std::int64_t{30}));

  harness.service().setFailFileWrites(false);
  feeder.feedFor(1.0);
  EXPECT_EQ(relayed(), 90U);
  expectEveryPushRelayed();
  EXPECT_EQ(readFile(containerFile("bridge_frames_received")), "60");
  EXPECT_EQ(readFile(containerFile("bridge_last_frame_number")), "0");
}

// Ignores SIGXFSZ and limits the size of any file this process writes, for the scope's life.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    previousHandler_ = ::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &previous_);
    rlimit limited = previous_;
    limited.rlim_cur = bytes;
    ok_ = ::setrlimit(RLIMIT_FSIZE, &limited) == 0;
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &previous_);
    ::signal(SIGXFSZ, previousHandler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  [[nodiscard]] bool ok() const { return ok_; }

 private:
  rlimit previous_{};
  sighandler_t previousHandler_ = SIG_DFL;
  bool ok_ = false;
};

// The real file layer when the kernel refuses the data (EFBIG after a short write, as with a
// full disk): the half-written auxiliary file is removed, the target keeps its whole old text.
TEST_F(FaultInjectionTest, WritesCutShortByTheKernelLeaveNoPartialOrStrayFiles) {
  feeder.feedFor(1.0);
  clearRecords();
  {
    // One byte fits; every value written here is longer ("31" and up, "0.000000").
    const FileSizeLimit limit(1);
    ASSERT_TRUE(limit.ok());
    feeder.feedFor(1.0);
  }
  EXPECT_EQ(relayed(), 30U);
  EXPECT_TRUE(harness.fileWrites.empty());
  EXPECT_EQ(readFile(containerFile("bridge_frames_received")), "30");
  EXPECT_EQ(readFile(containerFile("bridge_latency_average_ms")), "0.000000");
  EXPECT_EQ(directoryEntries(harness.containerStateDirectory()).size(), 4U)
      << ::testing::PrintToString(directoryEntries(harness.containerStateDirectory()));
  EXPECT_EQ(linesBesidesTheFrameCadence(harness), std::vector<std::string>{});

  feeder.feedFor(1.0);
  EXPECT_EQ(readFile(containerFile("bridge_frames_received")), "90");
  expectEveryPushRelayed();
}

// --- Consume errors --------------------------------------------------------------------------

// For ten seconds every consume answer is an error (answers take 5 ms, so that is 2000 of them):
// each is logged and published as the status, the next request follows at once, nothing is
// delivered, the producer's queue fills and refuses; afterwards the queued frames and the new
// ones are relayed and counted.
TEST_F(FaultInjectionTest, ConsumeErrorsForTenSecondsThenRecovery) {
  constexpr int kErrors = 2000;
  const std::string description = "The producer's buffer queue is unavailable.";
  feeder.feedFor(1.0);
  ASSERT_EQ(relayed(), 30U);
  const std::int64_t emptyPollsBefore = harness.sink().snapshot().emptyPolls;
  clearRecords();

  harness.service().setConsumeAnswerDelay(std::chrono::milliseconds(5));
  harness.service().failNextConsumeRequests(kErrors, description);
  const std::int64_t faultStart = harness.nowNanoseconds();
  feeder.feedFor(10.0);

  EXPECT_EQ(relayed(), 0U);
  EXPECT_EQ(feeder.pushed(), 30U + 3U);  // the queue holds three
  EXPECT_EQ(feeder.refused(), 297U);
  // The run began at the chain's next poll, up to 2 ms after the switch, so its last error may
  // still be on its way. Every line logged is an error's line or its status, in pairs.
  const std::string line = "[VANE-EXT] sink consumeSampleBuffer result=error error=" + description +
                           " clients=count=0 clients=[]";
  const std::string status = "consume error: " + description;
  ASSERT_GE(harness.logs.size(), 2U * (kErrors - 1));
  for (std::size_t i = 0; i < harness.logs.size(); ++i) {
    ASSERT_EQ(harness.logs[i], i % 2 == 0 ? line : status) << "line " << i;
  }
  EXPECT_EQ(readFile(containerFile("bridge_extension_status")), "consume error: " + description);
  EXPECT_EQ(harness.lastSetting("bridge_extension_status"),
            platform::PropertyValue("consume error: " + description));
  // An error leaves the waiting count alone.
  EXPECT_EQ(harness.sink().snapshot().emptyPolls, emptyPollsBefore);

  feeder.feedFor(2.0);
  feeder.idleFor(0.5);
  // The errors took 10 s: no back-off stretched them. The three frames queued before the
  // fault are the first delivered after it.
  ASSERT_GE(relayed(), 3U);
  EXPECT_GE(harness.scheduledOutputTimes[0], faultStart + 10'000'000'000);
  EXPECT_LE(harness.scheduledOutputTimes[0], faultStart + 10'010'000'000);
  EXPECT_EQ(harness.scheduledOutputs[0].sequenceNumber, 31U);
  EXPECT_EQ(harness.scheduledOutputs[2].sequenceNumber, 33U);
  EXPECT_EQ(relayed() + 30, feeder.pushed());
  EXPECT_EQ(harness.sent.size(), relayed());
  EXPECT_EQ(harness.sink().snapshot().receivedFrames, feeder.pushed());
  EXPECT_EQ(readFile(containerFile("bridge_frames_received")), std::to_string(feeder.pushed()));
  EXPECT_EQ(harness.logsStartingWith("sink consumeSampleBuffer").size(),
            static_cast<std::size_t>(kErrors));
  EXPECT_EQ(harness.logsStartingWith(status, false).size(), static_cast<std::size_t>(kErrors));
}

}  // namespace
}  // namespace flowmere
