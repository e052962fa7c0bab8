// The `check` subcommand: reads each captured PNG frame, finds the frame number in the pattern's
// counter blocks, and compares every pixel with the pattern of that number.

#include "Check.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "FramePattern.h"
#include "PngReader.h"
#include "ProducerOptions.h"

namespace flowmere::producer {

int runCheck(int argc, char** argv) {
  bool allowGaps = false;
  std::vector<std::string> files;
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--allow-gaps") == 0) {
      allowGaps = true;
    } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
      return tools::badUsage(kProgram, std::string("unknown option '") + argv[i] + "' for check");
    } else {
      files.emplace_back(argv[i]);
    }
  }
  if (files.empty()) {
    return tools::badUsage(kProgram, "check needs PNG frames to check");
  }
  std::sort(files.begin(), files.end());
  std::map<std::uint32_t, int> seen;
  int bad = 0;
  for (const std::string& path : files) {
    std::string error;
    const RgbImage image = readPng(path, error);
    if (image.pixels.empty()) {
      std::fprintf(stderr, "%s: %s\n", path.c_str(), error.c_str());
      ++bad;
      continue;
    }
    const auto counter =
        pattern::readCounter(image.width, image.height,
                             [&](std::uint32_t x, std::uint32_t y) { return image.at(x, y); });
    if (!counter) {
      std::fprintf(stderr, "%s: no frame counter\n", path.c_str());
      ++bad;
      continue;
    }
    std::size_t wrong = 0;
    for (std::uint32_t y = 0; y < image.height; ++y) {
      for (std::uint32_t x = 0; x < image.width; ++x) {
        wrong += image.at(x, y) == pattern::patternPixel(x, y, image.width, *counter) ? 0 : 1;
      }
    }
    if (wrong > 0) {
      std::fprintf(stderr, "%s: frame %u has %zu pixels that differ from the pattern\n",
                   path.c_str(), *counter, wrong);
      ++bad;
    }
    ++seen[*counter];
  }
  std::size_t gaps = 0;
  std::size_t repeats = 0;
  std::uint32_t previous = 0;
  bool first = true;
  for (const auto& [number, count] : seen) {
    if (!first && number != previous + 1) {
      gaps += number - previous - 1;
    }
    repeats += static_cast<std::size_t>(count - 1);
    previous = number;
    first = false;
  }
  std::printf("checked %zu files: frames %u..%u, %zu distinct, %zu missing, %zu repeated, %d bad\n",
              files.size(), seen.empty() ? 0 : seen.begin()->first,
              seen.empty() ? 0 : seen.rbegin()->first, seen.size(), gaps, repeats, bad);
  return bad == 0 && (allowGaps || gaps == 0) ? 0 : 1;
}

}  // namespace flowmere::producer
