// Runs arbitrary action scripts against the whole extension on the embedded service in virtual
// time: sets, starts and stops on both streams, pushes of any size and time stamp (NaN, infinite,
// negative, huge), consume errors. The runner checks the relay's invariants after every action
// and aborts when one breaks; the sanitizers catch the rest.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>

#include "ScriptRunner.h"

namespace {

// Discards everything written to it.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char* /*s*/, std::streamsize n) override { return n; }
};

// Scripts that would only be slow, not wrong, are skipped: many frames or far-off times.
bool withinBudget(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    const auto json = nlohmann::json::parse(line, nullptr, false);
    if (!json.is_object()) {
      continue;
    }
    const auto count = json.find("count");
    if (count != json.end() && count->is_number() && count->get<double>() > 200) {
      return false;
    }
    const auto at = json.find("at");
    if (at != json.end() && at->is_number() && at->get<double>() > 5) {
      return false;
    }
    const auto width = json.find("width");
    const auto height = json.find("height");
    if (width != json.end() && height != json.end() && width->is_number() && height->is_number() &&
        width->get<double>() * height->get<double>() > 4096.0 * 2160.0) {
      return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > 8192) {
    return 0;
  }
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (!withinBudget(text)) {
    return 0;
  }
  static const std::filesystem::path temporary =
      std::filesystem::temp_directory_path() / ("flowmere-fuzz-" + std::to_string(::getpid()));
  flowmere::sim::ScriptOptions options;
  options.noContainer = true;
  options.temporaryDirectory = temporary;
  options.checkInvariants = true;
  std::istringstream script(text);
  NullBuffer nothing;
  std::ostream out(&nothing);
  std::ostream errors(&nothing);
  flowmere::sim::runScript(script, "fuzz", options, out, errors);
  return 0;
}
