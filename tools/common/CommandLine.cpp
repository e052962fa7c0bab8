#include "CommandLine.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "FlowmereVersion.h"

namespace flowmere::tools {

int badUsage(std::string_view program, std::string_view message) {
  std::fprintf(stderr, "%.*s: %.*s (see %.*s --help)\n", static_cast<int>(program.size()),
               program.data(), static_cast<int>(message.size()), message.data(),
               static_cast<int>(program.size()), program.data());
  return kBadUsageExitStatus;
}

int printVersion(std::string_view program) {
  std::printf("%.*s %.*s\n", static_cast<int>(program.size()), program.data(),
              static_cast<int>(kProjectVersion.size()), kProjectVersion.data());
  return 0;
}

int printUsage(std::string_view usage) {
  std::fwrite(usage.data(), 1, usage.size(), stdout);
  return 0;
}

bool parseNumber(std::string_view text, double& value) {
  double parsed = 0.0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, parsed);
  if (text.empty() || error != std::errc() || stop != end || !std::isfinite(parsed)) {
    return false;
  }
  value = parsed;
  return true;
}

}  // namespace flowmere::tools
