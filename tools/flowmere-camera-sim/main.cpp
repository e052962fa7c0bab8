// flowmere-camera-sim: runs the camera extension on the embedded camera service.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "Demo.h"
#include "ScriptRunner.h"

namespace {

constexpr const char* kUsage =
    "usage: flowmere-camera-sim demo [--seconds S] [--format I] [--fps F] [--jitter MS]\n"
    "                                [--snapshot FILE.png]\n"
    "                                [--container DIR | --no-container] [--tmp DIR]\n"
    "       flowmere-camera-sim run SCRIPT.jsonl [--container DIR | --no-container] [--tmp DIR]\n";

int usageError(const std::string& message) {
  std::fprintf(stderr, "flowmere-camera-sim: %s\n%s", message.c_str(), kUsage);
  return 2;
}

bool parseNumber(std::string_view text, double& value) {
  char* end = nullptr;
  const std::string copy(text);
  value = std::strtod(copy.c_str(), &end);
  return end != copy.c_str() && *end == '\0';
}

int runMode(const std::vector<std::string_view>& args) {
  if (args.size() < 2 || args[1].rfind("--", 0) == 0) {
    return usageError("run needs a script file");
  }
  flowmere::sim::ScriptOptions options;
  for (std::size_t i = 2; i < args.size(); ++i) {
    const std::string_view flag = args[i];
    if (flag == "--no-container") {
      options.noContainer = true;
    } else if ((flag == "--container" || flag == "--tmp") && i + 1 < args.size()) {
      const std::string value(args[++i]);
      if (flag == "--container") {
        options.container = value;
      } else {
        options.temporaryDirectory = value;
      }
    } else {
      return usageError("unknown or incomplete option '" + std::string(flag) + "'");
    }
  }
  if (options.container && options.noContainer) {
    return usageError("--container and --no-container exclude each other");
  }
  const std::string path(args[1]);
  std::ifstream script(path);
  if (!script) {
    std::fprintf(stderr, "flowmere-camera-sim: cannot read %s\n", path.c_str());
    return 2;
  }
  return flowmere::sim::runScript(script, path, options, std::cout, std::cerr);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h") {
    std::fputs(kUsage, args.empty() ? stderr : stdout);
    return args.empty() ? 2 : 0;
  }
  if (args[0] == "run") {
    return runMode(args);
  }
  if (args[0] != "demo") {
    return usageError("unknown mode '" + std::string(args[0]) + "'");
  }

  flowmere::sim::DemoOptions options;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string_view flag = args[i];
    if (flag == "--no-container") {
      options.noContainer = true;
      continue;
    }
    if (i + 1 >= args.size()) {
      return usageError("missing value after " + std::string(flag));
    }
    const std::string_view value = args[++i];
    double number = 0.0;
    if (flag == "--container") {
      options.container = std::string(value);
    } else if (flag == "--tmp") {
      options.temporaryDirectory = std::string(value);
    } else if (flag == "--snapshot") {
      options.snapshot = std::string(value);
    } else if (!parseNumber(value, number)) {
      return usageError("'" + std::string(value) + "' is not a number (after " + std::string(flag) +
                        ")");
    } else if (flag == "--seconds" && number > 0) {
      options.seconds = number;
    } else if (flag == "--format" && number >= 0 && number <= 9 &&
               number == static_cast<double>(static_cast<int>(number))) {
      options.formatIndex = static_cast<std::int64_t>(number);
    } else if (flag == "--fps" && number > 0 && number <= 1000) {
      options.fps = number;
    } else if (flag == "--jitter" && number >= 0) {
      options.jitterMilliseconds = number;
    } else {
      return usageError("bad value for " + std::string(flag) + ": " + std::string(value));
    }
  }
  if (options.container && options.noContainer) {
    return usageError("--container and --no-container exclude each other");
  }
  return flowmere::sim::runDemo(options);
}
