// flowmere-camera-sim: runs the camera extension on the embedded camera service.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "CommandLine.h"
#include "Demo.h"
#include "LogFile.h"
#include "ScriptParser.h"
#include "ScriptRunner.h"

namespace {

using flowmere::tools::parseNumber;

constexpr std::string_view kProgram = "flowmere-camera-sim";
constexpr std::string_view kUsage =
    "usage: flowmere-camera-sim demo [--seconds S] [--format I] [--fps F] [--jitter MS]\n"
    "                                [--snapshot FILE.png] [--log FILE] [--verbose]\n"
    "                                [--container DIR | --no-container] [--tmp DIR]\n"
    "       flowmere-camera-sim run SCRIPT.jsonl [--container DIR | --no-container] [--tmp DIR]\n"
    "       flowmere-camera-sim --help | --version\n"
    "\n"
    "demo: the relay in real time, a producer pushing a test pattern and a camera client\n"
    "  receiving it, with a progress line a second and a summary. The extension's log goes to\n"
    "  FILE (default: $XDG_STATE_HOME/flowmere/flowmere-camera-sim-demo.log); --verbose also\n"
    "  copies it to stderr.\n"
    "run: plays a script in virtual time and prints every observable event as one JSON object\n"
    "  per line, the extension's log lines included.\n";

// The usage, with the script verbs listed from the parser's table, wrapped at 100 columns.
std::string usage() {
  std::string text(kUsage);
  std::string line = "  Script verbs:";
  for (const std::string_view verb : flowmere::sim::scriptVerbs()) {
    if (line.size() + verb.size() + 2 > 100) {
      text += line + '\n';
      line = "   ";
    }
    line += ' ';
    line += verb;
    line += ',';
  }
  line.back() = '.';
  return text + line + '\n';
}

int badUsage(const std::string& message) {
  return flowmere::tools::badUsage(kProgram, message);
}

int runMode(const std::vector<std::string_view>& args) {
  if (args.size() < 2 || args[1].rfind("--", 0) == 0) {
    return badUsage("run needs a script file");
  }
  flowmere::sim::ScriptOptions options;
  for (std::size_t i = 2; i < args.size(); ++i) {
    const std::string_view flag = args[i];
    if (flag == "--no-container") {
      options.noContainer = true;
    } else if (flag == "--container" || flag == "--tmp") {
      if (i + 1 >= args.size()) {
        return badUsage(std::string(flag) + " needs a value");
      }
      const std::string value(args[++i]);
      if (flag == "--container") {
        options.container = value;
      } else {
        options.temporaryDirectory = value;
      }
    } else {
      return badUsage("unknown option '" + std::string(flag) + "' for run");
    }
  }
  if (options.container && options.noContainer) {
    return badUsage("--container and --no-container exclude each other");
  }
  const std::string path(args[1]);
  std::ifstream script(path);
  if (!script) {
    std::fprintf(stderr, "flowmere-camera-sim: cannot read %s\n", path.c_str());
    return 2;
  }
  return flowmere::sim::runScript(script, path, options, std::cout, std::cerr);
}

int demoMode(const std::vector<std::string_view>& args) {
  flowmere::sim::DemoOptions options;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string_view flag = args[i];
    if (flag == "--no-container") {
      options.noContainer = true;
      continue;
    }
    if (flag == "--verbose") {
      options.verbose = true;
      continue;
    }
    if (flag.rfind("--", 0) != 0) {
      return badUsage("unexpected argument '" + std::string(flag) + "' for demo");
    }
    static constexpr std::string_view kValued[] = {"--container", "--tmp",     "--snapshot",
                                                   "--log",       "--seconds", "--format",
                                                   "--fps",       "--jitter"};
    if (std::find(std::begin(kValued), std::end(kValued), flag) == std::end(kValued)) {
      return badUsage("unknown option '" + std::string(flag) + "' for demo");
    }
    if (i + 1 >= args.size()) {
      return badUsage(std::string(flag) + " needs a value");
    }
    const std::string_view value = args[++i];
    double number = 0.0;
    if (flag == "--container") {
      options.container = std::string(value);
    } else if (flag == "--tmp") {
      options.temporaryDirectory = std::string(value);
    } else if (flag == "--snapshot") {
      options.snapshot = std::string(value);
    } else if (flag == "--log") {
      options.logFile = std::string(value);
    } else if (!parseNumber(value, number)) {
      return badUsage("'" + std::string(value) + "' is not a number (after " + std::string(flag) +
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
      return badUsage("bad value for " + std::string(flag) + ": " + std::string(value));
    }
  }
  if (options.container && options.noContainer) {
    return badUsage("--container and --no-container exclude each other");
  }
  if (!options.logFile) {
    options.logFile =
        flowmere::tools::defaultLogFile("flowmere-camera-sim-demo", options.temporaryDirectory);
  }
  return flowmere::sim::runDemo(options);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  // --help and --version answer wherever they stand, before anything else is checked.
  for (const std::string_view arg : args) {
    if (arg == "--help" || arg == "-h") {
      return flowmere::tools::printUsage(usage());
    }
    if (arg == "--version") {
      return flowmere::tools::printVersion(kProgram);
    }
  }
  if (args.empty()) {
    return badUsage("a mode is needed: demo or run");
  }
  if (args[0] == "run") {
    return runMode(args);
  }
  if (args[0] == "demo") {
    return demoMode(args);
  }
  return badUsage(args[0].rfind("--", 0) == 0 ? "unknown option '" + std::string(args[0]) + "'"
                                              : "unknown mode '" + std::string(args[0]) + "'");
}
