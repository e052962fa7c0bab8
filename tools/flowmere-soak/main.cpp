// flowmere-soak: the relay in real time for a long while, under restarts, format changes and busy
// camera clients, with the process's memory sampled throughout. Exit status 0 when every check
// held, 1 when one failed, 2 for a bad command line.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "CommandLine.h"
#include "LogFile.h"
#include "Soak.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FLOWMERE_SOAK_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define FLOWMERE_SOAK_ASAN 1
#endif

#if defined(FLOWMERE_SOAK_ASAN)
// AddressSanitizer keeps freed blocks in a quarantine (256 MB by default) to catch late uses. The
// relay frees a few hundred kilobytes a second, so the default quarantine would fill for minutes
// and read as resident-memory growth. A 4 MB quarantine fills within the warm-up and still holds
// the last several seconds of freed blocks. ASAN_OPTIONS overrides what it names.
extern "C" const char* __asan_default_options() {  // NOLINT(bugprone-reserved-identifier)
  return "quarantine_size_mb=4:detect_leaks=1";
}
#endif

namespace {

constexpr std::string_view kProgram = "flowmere-soak";
constexpr std::string_view kUsage =
    "usage: flowmere-soak [--seconds N] [--fps F] [--restart-every S] [--client-every S]\n"
    "                     [--rss-every S] [--rss-out FILE.csv] [--warmup S]\n"
    "                     [--rss-tolerance MIB] [--heap-tolerance MIB] [--progress S]\n"
    "                     [--seed N] [--dir DIR] [--keep-files] [--log FILE] [--verbose]\n"
    "       flowmere-soak --help | --version\n"
    "\n"
    "The relay in real time under producer restarts, format changes and busy camera clients,\n"
    "with memory sampled throughout. Exit status 0 when every check held, 1 when one failed.\n"
    "The extension's log goes to FILE (default: $XDG_STATE_HOME/flowmere/flowmere-soak.log);\n"
    "--verbose also copies it to stderr.\n";

double mib(std::uint64_t bytes) {
  return static_cast<double>(bytes) / 1048576.0;
}

void printSummary(const flowmere::soak::SoakOptions& options,
                  const flowmere::soak::SoakReport& report, const std::string& logPath) {
  using Count = unsigned long long;
  std::printf("\nSummary (%.1f s)\n", report.wallSeconds);
  std::printf("  frames pushed          %llu\n", static_cast<Count>(report.pushed));
  std::printf("  refused (queue full)   %llu\n", static_cast<Count>(report.refused));
  std::printf("  skipped (pool empty)   %llu\n", static_cast<Count>(report.poolExhausted));
  std::printf("  accepted by the sink   %llu\n", static_cast<Count>(report.sinkReceivedFrames));
  std::printf("  relayed                %llu\n", static_cast<Count>(report.relayed));
  std::printf("  sent to clients        %llu\n", static_cast<Count>(report.sent));
  std::printf("  producer restarts      %llu (%llu with a new format)\n",
              static_cast<Count>(report.producerRestarts),
              static_cast<Count>(report.formatChanges));
  std::printf("  client actions         %llu (%llu format sets refused as the rules require)\n",
              static_cast<Count>(report.clientActions), static_cast<Count>(report.clientRefusals));
  std::printf("  log lines              %llu%s%s\n", static_cast<Count>(report.logLines),
              logPath.empty() ? "" : " in ", logPath.c_str());
  std::printf("  consume errors         %llu\n", static_cast<Count>(report.consumeErrors));
  if (report.warmup && report.end) {
    std::printf(
        "  resident memory        warm-up (%.0f s) %.1f MiB, end %.1f MiB, max %.1f MiB "
        "(after warm-up %.1f MiB; %.1f MiB growth allowed)\n",
        report.warmup->seconds, mib(report.warmup->residentBytes), mib(report.end->residentBytes),
        mib(report.maxResidentBytes), mib(report.maxResidentAfterWarmupBytes),
        options.rssToleranceMiB);
    std::printf(
        "  live heap              warm-up %.2f MiB, end %.2f MiB, max after warm-up %.2f MiB "
        "(%.1f MiB growth allowed; from %s)\n",
        mib(report.warmup->heapBytes), mib(report.end->heapBytes),
        mib(report.maxHeapAfterWarmupBytes), options.heapToleranceMiB, report.heapSource.c_str());
  }
  std::printf("  memory samples         %zu%s%s\n", report.samples.size(),
              options.rssOut ? " in " : "", options.rssOut ? options.rssOut->c_str() : "");
  std::printf("  check failures         %llu\n", static_cast<Count>(report.failureCount));
  for (const std::string& failure : report.failures) {
    std::printf("    - %s\n", failure.c_str());
  }
  std::printf("Result: %s\n", report.failureCount == 0 ? "PASS" : "FAIL");
}

}  // namespace

int main(int argc, char** argv) {
  using flowmere::tools::badUsage;
  using flowmere::tools::parseNumber;
  flowmere::soak::SoakOptions options;
  std::optional<std::filesystem::path> logPath;
  for (int i = 1; i < argc; ++i) {
    const std::string_view flag = argv[i];
    if (flag == "--help" || flag == "-h") {
      return flowmere::tools::printUsage(kUsage);
    }
    if (flag == "--version") {
      return flowmere::tools::printVersion(kProgram);
    }
    if (flag == "--keep-files") {
      options.keepFiles = true;
      continue;
    }
    if (flag == "--verbose") {
      options.verbose = true;
      continue;
    }
    static constexpr std::string_view kValued[] = {
        "--seconds",   "--fps",    "--restart-every", "--client-every",
        "--rss-every", "--warmup", "--rss-tolerance", "--heap-tolerance",
        "--progress",  "--seed",   "--rss-out",       "--dir",
        "--log"};
    if (std::find(std::begin(kValued), std::end(kValued), flag) == std::end(kValued)) {
      return badUsage(kProgram, flag.rfind("--", 0) == 0
                                    ? "unknown option '" + std::string(flag) + "'"
                                    : "unexpected argument '" + std::string(flag) + "'");
    }
    if (i + 1 >= argc) {
      return badUsage(kProgram, std::string(flag) + " needs a value");
    }
    const std::string_view value = argv[++i];
    double number = 0.0;
    const bool numeric = parseNumber(value, number);
    const auto positive = [&](double& field) {
      if (!numeric || !(number > 0.0)) {
        return false;
      }
      field = number;
      return true;
    };
    const auto nonNegative = [&](double& field) {
      if (!numeric || !(number >= 0.0)) {
        return false;
      }
      field = number;
      return true;
    };
    bool ok = true;
    if (flag == "--seconds") {
      ok = positive(options.seconds);
    } else if (flag == "--fps") {
      ok = positive(options.fps);
    } else if (flag == "--restart-every") {
      ok = positive(options.restartEverySeconds);
    } else if (flag == "--client-every") {
      ok = positive(options.clientActionEverySeconds);
    } else if (flag == "--rss-every") {
      ok = positive(options.rssEverySeconds);
    } else if (flag == "--warmup") {
      ok = nonNegative(options.warmupSeconds);
    } else if (flag == "--rss-tolerance") {
      ok = nonNegative(options.rssToleranceMiB);
    } else if (flag == "--heap-tolerance") {
      ok = nonNegative(options.heapToleranceMiB);
    } else if (flag == "--progress") {
      ok = nonNegative(options.progressEverySeconds);
    } else if (flag == "--seed") {
      ok = numeric && number >= 0.0 && number == static_cast<double>(static_cast<long>(number));
      options.seed = static_cast<std::uint64_t>(number);
    } else if (flag == "--rss-out") {
      options.rssOut = std::string(value);
    } else if (flag == "--dir") {
      options.directory = std::string(value);
    } else if (flag == "--log") {
      logPath = std::string(value);
    }
    if (!ok) {
      return badUsage(kProgram, "bad value for " + std::string(flag) + ": " + std::string(value));
    }
  }
  if (!logPath) {
    logPath = flowmere::tools::defaultLogFile(kProgram, std::filesystem::temp_directory_path());
  }
  std::string problem;
  const std::shared_ptr<flowmere::tools::LogFile> log =
      flowmere::tools::LogFile::open(*logPath, problem);
  if (!log) {
    std::fprintf(stderr, "flowmere-soak: %s (choose another place with --log FILE)\n",
                 problem.c_str());
    return 1;
  }

  std::printf(
      "flowmere-soak: %.0f s at %.0f fps, producer restart every %.1f s (new format every "
      "second one), a client action every %.2f s on average, memory every %.1f s\n",
      options.seconds, options.fps, options.restartEverySeconds, options.clientActionEverySeconds,
      options.rssEverySeconds);
  std::fflush(stdout);
  const flowmere::soak::SoakReport report = flowmere::soak::runSoak(options, stdout, log);
  printSummary(options, report, log->path().string());
  return report.failureCount == 0 ? 0 : 1;
}
