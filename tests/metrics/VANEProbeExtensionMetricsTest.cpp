#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdio>
#include <map>

#include "VendorIdentifiers.h"
#include "metrics/VANEProbeExtensionMetrics.h"

namespace flowmere {
namespace {

using Events = std::vector<std::string>;

// Suite, log and file manager in one, appending to one journal so that tests see the order in
// which the recorder reaches them. Doubles are journaled in shortest form (locale-independent).
// Test thread only.
class Journal final : public platform::SettingsSuite,
                      public platform::Log,
                      public platform::FileManager {
 public:
  Events events;
  std::filesystem::path lastFile;

  void setInteger(std::string_view key, std::int64_t value) override {
    add("suite ", key, std::to_string(value));
  }
  void setDouble(std::string_view key, double value) override {
    char text[64];
    add("suite ", key, {text, std::to_chars(text, text + sizeof text, value).ptr});
  }
  void setObject(std::string_view key, std::string_view value) override {
    add("suite ", key, value);
  }
  void write(std::string_view message) override { add("log", "", message); }
  std::optional<std::filesystem::path> containerURLForSecurityApplicationGroupIdentifier(
      std::string_view group) override {
    return std::filesystem::path("/container") / group;
  }
  bool createDirectory(const std::filesystem::path& /*directory*/) override { return true; }
  bool writeStringAtomically(const std::filesystem::path& file, std::string_view text) override {
    lastFile = file;
    add("file ", file.filename().native(), text);
    return true;
  }
  std::filesystem::path temporaryDirectory() override { return "/tmp-fallback"; }
  Events take() { return std::exchange(events, {}); }

 private:
  void add(std::string_view kind, std::string_view key, std::string_view value) {
    events.push_back(std::string(kind).append(key).append(" ").append(value));
  }
};

class MetricsTest : public ::testing::Test {
 protected:
  VANEProbeExtensionMetrics make(const std::string& space, bool withSuite = true) {
    std::shared_ptr<platform::SettingsSuite> suite(&journal, [](platform::SettingsSuite*) {});
    return VANEProbeExtensionMetrics(withSuite ? suite : nullptr, space, stateFiles, journal);
  }
  // Records `frames` frames; returns the status texts written, by frame number.
  std::map<int, std::string> statusesOver(VANEProbeExtensionMetrics& metrics, int frames) {
    std::map<int, std::string> statuses;
    for (int frame = 1; frame <= frames; ++frame) {
      metrics.recordFrameReceived();
      for (const std::string& event : journal.take()) {
        if (event.rfind("file bridge_extension_status ", 0) == 0) {
          statuses[frame] = event.substr(29);
        }
      }
    }
    return statuses;
  }

  Journal journal;
  std::shared_ptr<StateFiles> stateFiles = std::make_shared<StateFiles>(
      journal, std::string(kApplicationGroupIdentifier), std::string(kStateDirectoryName));
};

TEST_F(MetricsTest, ResetAndTheFirstFramePublishSuiteBeforeFile) {
  auto metrics = make("bridge");
  metrics.reset();
  EXPECT_EQ(
      journal.take(),
      (Events{"suite bridge_frames_received 0", "file bridge_frames_received 0",
              "suite bridge_last_frame_number 0", "file bridge_last_frame_number 0",
              "suite bridge_latency_average_ms 0", "file bridge_latency_average_ms 0.000000",
              "suite bridge_extension_status waiting", "file bridge_extension_status waiting"}));
  EXPECT_EQ(journal.lastFile,
            "/container/group.com.flowmere.av.shared/com.flowmere.av.state/"
            "bridge_extension_status");
  metrics.recordFrameReceived();
  EXPECT_EQ(journal.take(),
            (Events{"suite bridge_frames_received 1", "file bridge_frames_received 1",
                    "suite bridge_latency_average_ms 0", "file bridge_latency_average_ms 0.000000",
                    "suite bridge_extension_status received 1",
                    "file bridge_extension_status received 1"}));
}

TEST_F(MetricsTest, StatusOnTheFirstAndEveryThirtiethFrameWindowOfThirtyResetStartsOver) {
  auto metrics = make("bridge");
  metrics.reset();
  journal.take();
  using Statuses = std::map<int, std::string>;
  EXPECT_EQ(statusesOver(metrics, 61),
            (Statuses{{1, "received 1"}, {30, "received 30"}, {60, "received 60"}}));
  EXPECT_EQ(metrics.snapshot().recentLatencies.size(), 30U);

  metrics.reset();
  EXPECT_EQ(journal.take()[7], "file bridge_extension_status waiting");
  EXPECT_EQ(metrics.snapshot().framesReceived, 0);
  EXPECT_TRUE(metrics.snapshot().recentLatencies.empty());
  EXPECT_EQ(statusesOver(metrics, 31), (Statuses{{1, "received 1"}, {30, "received 30"}}));
  EXPECT_EQ(metrics.snapshot().recentLatencies, std::vector<double>(30, 0.0));
}

TEST_F(MetricsTest, NamespaceShapesKeysAndFileNames) {
  for (const auto& [space, prefix] : std::map<std::string, std::string>{
           {"camera", ""}, {"bridge", "bridge_"}, {"", "_"}, {"Camera", "Camera_"}}) {
    auto metrics = make(space);
    EXPECT_EQ(metrics.namespacedKey("frames_received"), prefix + "frames_received");
    journal.take();
    metrics.reset();
    metrics.recordDouble("custom_ms", 2.5);
    const Events events = journal.take();
    ASSERT_EQ(events.size(), 10U);
    EXPECT_EQ(events[3], "file " + prefix + "last_frame_number 0");
    EXPECT_EQ(events[7], "file " + prefix + "extension_status waiting");
    EXPECT_EQ(events[8], "suite " + prefix + "custom_ms 2.5");
    EXPECT_EQ(events[9], "file " + prefix + "custom_ms 2.500000");
  }
}

TEST_F(MetricsTest, WithoutASuiteTheSameFilesAreWrittenAndOnlySetStatusLogs) {
  const auto run = [this](bool withSuite) {
    auto metrics = make("bridge", withSuite);
    metrics.reset();
    for (int i = 0; i < 31; ++i) {
      metrics.recordFrameReceived();
    }
    metrics.setStatus("sink stopped");
    Events events = journal.take();
    std::erase_if(events, [](const std::string& e) { return e.rfind("suite", 0) == 0; });
    return events;
  };
  const Events withoutSuite = run(false);
  EXPECT_EQ(withoutSuite, run(true));
  // The only log line is the bare status text, written before the status is published.
  EXPECT_EQ(withoutSuite.end()[-2], "log sink stopped");
  EXPECT_EQ(std::count(withoutSuite.begin(), withoutSuite.end(), "log sink stopped"), 1);
  EXPECT_EQ(withoutSuite.size(), 4U + 31 * 2 + 2 + 2);  // reset, frames, two statuses, setStatus

  auto metrics = make("camera");
  metrics.setStatus("sink stopped");
  EXPECT_EQ(journal.take(), (Events{"log sink stopped", "suite extension_status sink stopped",
                                    "file extension_status sink stopped"}));
}

TEST_F(MetricsTest, DoubleTextIsPrintfFixedSixEvenUnderACommaLocale) {
  auto metrics = make("camera");
  // 0.0078125 is an exact tie at the seventh decimal, which printf rounds to even.
  for (const double value : {-0.0, 1.0 / 3.0, 0.0078125, 2.5e-7, 1234.5, -2.25, 1e20}) {
    metrics.recordDouble("x", value);
    char expected[64];
    std::snprintf(expected, sizeof expected, "%.6f", value);
    EXPECT_EQ(journal.take().back(), std::string("file x ") + expected);
  }

  // The test runs alone on its thread: setlocale and localeconv have no other caller meanwhile.
  // NOLINTBEGIN(concurrency-mt-unsafe)
  bool comma = false;
  for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "de_DE.utf8", "fr_FR.utf8"}) {
    comma = comma ||
            (std::setlocale(LC_ALL, name) != nullptr && *std::localeconv()->decimal_point == ',');
  }
  if (!comma) {
    std::setlocale(LC_ALL, "C");
    GTEST_SKIP() << "no locale with a decimal comma is installed";
  }
  metrics.recordDouble("latency_average_ms", 1234.5);
  metrics.reset();
  std::setlocale(LC_ALL, "C");
  // NOLINTEND(concurrency-mt-unsafe)
  const Events events = journal.take();
  EXPECT_EQ(events[1], "file latency_average_ms 1234.500000");
  EXPECT_EQ(events[7], "file latency_average_ms 0.000000");
}

}  // namespace
}  // namespace flowmere
