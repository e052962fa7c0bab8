#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <vector>

#include "common/PosixFileManager.h"
#include "metrics/VANEProbeExtensionMetrics.h"
#include "support/ExtensionHarness.h"

namespace flowmere {
namespace {

// Records suite writes and log lines in order, with the file writes interleaved.
struct Recorder final : platform::SettingsSuite, platform::Log {
  std::vector<std::string> events;
  void setInteger(std::string_view key, std::int64_t value) override {
    events.push_back("suite " + std::string(key) + "=" + std::to_string(value));
  }
  void setDouble(std::string_view key, double value) override {
    events.push_back("suite " + std::string(key) + "=" + std::to_string(value));
  }
  void setObject(std::string_view key, std::string_view value) override {
    events.push_back("suite " + std::string(key) + "=" + std::string(value));
  }
  void write(std::string_view message) override { events.push_back("log " + std::string(message)); }
};

struct RecordingFiles final : platform::FileManager {
  RecordingFiles(Recorder& events, const std::filesystem::path& root)
      : recorder(events), posix(root / "containers", root / "tmp") {}
  std::optional<std::filesystem::path> containerURLForSecurityApplicationGroupIdentifier(
      std::string_view id) override {
    return posix.containerURLForSecurityApplicationGroupIdentifier(id);
  }
  bool createDirectory(const std::filesystem::path& directory) override {
    return posix.createDirectory(directory);
  }
  bool writeStringAtomically(const std::filesystem::path& file, std::string_view text) override {
    recorder.events.push_back("file " + file.filename().string() + "=" + std::string(text));
    return posix.writeStringAtomically(file, text);
  }
  std::filesystem::path temporaryDirectory() override { return posix.temporaryDirectory(); }
  Recorder& recorder;
  common::PosixFileManager posix;
};

class MetricsRecorderTest : public ::testing::Test {
 protected:
  VANEProbeExtensionMetrics make(const std::string& space, bool withSuite = true) {
    auto suite = std::shared_ptr<platform::SettingsSuite>(&recorder, [](auto*) {});
    return VANEProbeExtensionMetrics(withSuite ? suite : nullptr, space,
                                     std::make_shared<StateFiles>(files, "group.test", "state"),
                                     recorder);
  }
  std::vector<std::string> take() { return std::exchange(recorder.events, {}); }

  testing::TemporaryDirectory directory;
  Recorder recorder;
  RecordingFiles files{recorder, directory.path()};
};

TEST_F(MetricsRecorderTest, ResetPublishesStartValuesSuiteBeforeFileAndDoesNotLog) {
  auto metrics = make("bridge");
  metrics.reset();
  EXPECT_EQ(
      take(),
      (std::vector<std::string>{
          "suite bridge_frames_received=0", "file bridge_frames_received=0",
          "suite bridge_last_frame_number=0", "file bridge_last_frame_number=0",
          "suite bridge_latency_average_ms=0.000000", "file bridge_latency_average_ms=0.000000",
          "suite bridge_extension_status=waiting", "file bridge_extension_status=waiting"}));
}

TEST_F(MetricsRecorderTest, StatusComesAtTheFirstFrameAndEveryThirtiethAfterAReset) {
  auto metrics = make("bridge");
  std::vector<std::string> statuses;
  for (int frame = 1; frame <= 61; ++frame) {
    metrics.recordFrameReceived();
    for (const std::string& event : take()) {
      if (event.rfind("file bridge_extension_status=", 0) == 0) {
        statuses.push_back(event.substr(event.find('=') + 1));
      }
      EXPECT_EQ(event.rfind("log ", 0), std::string::npos) << "a frame record logged: " << event;
    }
  }
  EXPECT_EQ(statuses, (std::vector<std::string>{"received 1", "received 30", "received 60"}));
  // The window holds the newest 30 samples, never more.
  EXPECT_EQ(metrics.snapshot().recentLatencies.size(), 30U);

  metrics.reset();
  EXPECT_EQ(metrics.snapshot().framesReceived, 0);
  EXPECT_TRUE(metrics.snapshot().recentLatencies.empty());
  take();
  metrics.recordFrameReceived();
  EXPECT_EQ(
      take(),
      (std::vector<std::string>{
          "suite bridge_frames_received=1", "file bridge_frames_received=1",
          "suite bridge_latency_average_ms=0.000000", "file bridge_latency_average_ms=0.000000",
          "suite bridge_extension_status=received 1", "file bridge_extension_status=received 1"}));
}

TEST_F(MetricsRecorderTest, NamespaceShapesKeysAndFileNames) {
  EXPECT_EQ(make("camera").namespacedKey("frames_received"), "frames_received");
  EXPECT_EQ(make("bridge").namespacedKey("frames_received"), "bridge_frames_received");
  EXPECT_EQ(make("").namespacedKey("frames_received"), "_frames_received");
  // Only the exact word "camera" drops the prefix.
  EXPECT_EQ(make("cameras").namespacedKey("x"), "cameras_x");
  auto metrics = make("camera");
  metrics.setStatus("hello");
  EXPECT_EQ(take(), (std::vector<std::string>{"log hello", "suite extension_status=hello",
                                              "file extension_status=hello"}));
}

TEST_F(MetricsRecorderTest, WithoutASuiteTheFilesAreStillWritten) {
  auto metrics = make("bridge", /*withSuite=*/false);
  metrics.reset();
  metrics.setStatus("sink stopped");
  for (const std::string& event : take()) {
    EXPECT_EQ(event.rfind("suite", 0), std::string::npos) << event;
  }
  EXPECT_FALSE(metrics.snapshot().hasDefaults);
}

// "%.6f" must not follow the process locale, or readers would see "0,000000".
TEST_F(MetricsRecorderTest, DoubleTextIgnoresACommaDecimalLocale) {
  const char* chosen = nullptr;
  for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8"}) {
    if (std::setlocale(LC_ALL, name) != nullptr) {
      chosen = name;
      break;
    }
  }
  if (chosen == nullptr) {
    GTEST_SKIP() << "no locale with a decimal comma is installed";
  }
  auto metrics = make("bridge");
  metrics.recordDouble("latency_average_ms", 1234.5);
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ(take().back(), "file bridge_latency_average_ms=1234.500000");
}

}  // namespace
}  // namespace flowmere
