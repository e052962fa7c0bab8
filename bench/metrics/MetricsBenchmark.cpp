// The cost of VANEProbeExtensionMetrics::recordFrameReceived on the caller's thread, with the
// real SQLite settings suite and real state files in a scratch directory, split into the suite
// part (state files going to a file manager that does nothing), the file part (no suite) and both,
// next to the recorder's own cost (neither); the file parts also with the files written behind the
// caller on a writer thread, as the PipeWire service writes them.
//
// Counters: `per_frame` is the caller's time per recorded frame; `rows_per_frame` is how many row
// updates the suite's writer thread stored per frame (coalescing makes it far below the three
// values a frame writes).

#include <benchmark/benchmark.h>
#include <stdlib.h>  // mkdtemp

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "VendorIdentifiers.h"
#include "common/PosixFileManager.h"
#include "common/SqliteSettingsSuite.h"
#include "common/WriteBehindFileManager.h"
#include "metrics/VANEProbeExtensionMetrics.h"

namespace flowmere {
namespace {

// Accepts every write and does no I/O. No state; any thread.
class NullFileManager final : public platform::FileManager {
 public:
  std::optional<std::filesystem::path> containerURLForSecurityApplicationGroupIdentifier(
      std::string_view /*groupIdentifier*/) override {
    return std::filesystem::path("/nonexistent/container");
  }
  bool createDirectory(const std::filesystem::path& /*directory*/) override { return true; }
  bool writeStringAtomically(const std::filesystem::path& /*file*/,
                             std::string_view /*text*/) override {
    return true;
  }
  std::filesystem::path temporaryDirectory() override { return "/nonexistent/tmp"; }

  // The text forms, which the state files use, likewise.
  bool containerPathForSecurityApplicationGroupIdentifier(std::string_view /*groupIdentifier*/,
                                                          std::string& path) override {
    path.assign("/nonexistent/container");
    return true;
  }
  bool createDirectoryAtPath(const std::string& /*directory*/) override { return true; }
  bool writeStringAtomicallyToPath(const std::string& /*file*/,
                                   std::string_view /*text*/) override {
    return true;
  }
  void temporaryDirectoryPath(std::string& path) override { path.assign("/nonexistent/tmp"); }
};

// Discards every line. Any thread.
class NullLog final : public platform::Log {
 public:
  void write(std::string_view /*message*/) override {}
};

// A scratch directory under $TMPDIR (or /tmp), removed on destruction. One thread.
class BenchmarkDirectory {
 public:
  BenchmarkDirectory() {
    const char* base = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                          "/flowmere-metrics-bench-XXXXXX";
    if (::mkdtemp(pattern.data()) != nullptr) {
      path_ = pattern;
    }
  }
  ~BenchmarkDirectory() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
  }
  BenchmarkDirectory(const BenchmarkDirectory&) = delete;
  BenchmarkDirectory& operator=(const BenchmarkDirectory&) = delete;
  [[nodiscard]] const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// kNeither: no suite and the do-nothing file manager, the recorder's own cost (counters, window,
// number texts, state file paths), which the other three include.
enum class Parts { kNeither, kSuite, kFiles, kBoth };
// Files written in place by the caller (as the embedded service does), or handed to the writer
// thread of the PipeWire service's file layer.
enum class FileWrites { kInPlace, kBehind };

void recordFrames(benchmark::State& state, Parts parts, FileWrites writes = FileWrites::kInPlace) {
  BenchmarkDirectory directory;
  if (directory.path().empty()) {
    state.SkipWithError("no scratch directory");
    return;
  }
  NullFileManager nullFiles;
  common::PosixFileManager posixFiles(directory.path() / "containers", directory.path() / "tmp");
  std::optional<common::WriteBehindFileManager> behindFiles;
  if (writes == FileWrites::kBehind) {
    behindFiles.emplace(posixFiles);
  }
  platform::FileManager& files =
      parts == Parts::kSuite || parts == Parts::kNeither
          ? static_cast<platform::FileManager&>(nullFiles)
          : (behindFiles ? static_cast<platform::FileManager&>(*behindFiles) : posixFiles);
  std::shared_ptr<common::SqliteSettingsSuite> suite;
  if (parts == Parts::kSuite || parts == Parts::kBoth) {
    suite = common::SqliteSettingsSuite::open(common::SqliteSettingsSuite::defaultDatabaseFile(
        directory.path() / "containers" / kApplicationGroupIdentifier));
    if (!suite) {
      state.SkipWithError("cannot open the settings database");
      return;
    }
  }
  NullLog log;
  VANEProbeExtensionMetrics metrics(
      suite, "bridge",
      std::make_shared<StateFiles>(files, std::string(kApplicationGroupIdentifier),
                                   std::string(kStateDirectoryName)),
      log);
  metrics.reset();

  for (auto _ : state) {
    metrics.recordFrameReceived();
  }
  if (behindFiles) {
    // Written on the writer thread meanwhile, at whatever pace the disk allows; outside the
    // timing, which is the caller's.
    behindFiles->flush();
  }

  // One frame per iteration, inverted: seconds per frame.
  state.counters["per_frame"] = benchmark::Counter(
      1.0, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  if (suite) {
    suite->flush();
    state.counters["rows_per_frame"] = benchmark::Counter(static_cast<double>(suite->rowsStored()),
                                                          benchmark::Counter::kAvgIterations);
  }
}

void BM_RecordFrameRecorderOnly(benchmark::State& state) {
  recordFrames(state, Parts::kNeither);
}
void BM_RecordFrameSuiteOnly(benchmark::State& state) {
  recordFrames(state, Parts::kSuite);
}
void BM_RecordFrameFilesOnly(benchmark::State& state) {
  recordFrames(state, Parts::kFiles);
}
void BM_RecordFrameSuiteAndFiles(benchmark::State& state) {
  recordFrames(state, Parts::kBoth);
}
void BM_RecordFrameFilesBehind(benchmark::State& state) {
  recordFrames(state, Parts::kFiles, FileWrites::kBehind);
}
void BM_RecordFrameSuiteAndFilesBehind(benchmark::State& state) {
  recordFrames(state, Parts::kBoth, FileWrites::kBehind);
}

BENCHMARK(BM_RecordFrameRecorderOnly)->UseRealTime();
BENCHMARK(BM_RecordFrameSuiteOnly)->UseRealTime();
BENCHMARK(BM_RecordFrameFilesOnly)->UseRealTime();
BENCHMARK(BM_RecordFrameSuiteAndFiles)->UseRealTime();
BENCHMARK(BM_RecordFrameFilesBehind)->UseRealTime();
BENCHMARK(BM_RecordFrameSuiteAndFilesBehind)->UseRealTime();

}  // namespace
}  // namespace flowmere

BENCHMARK_MAIN();
