// Feeds arbitrary bytes to the simulator's script parser: it must accept or refuse every input
// with a message, never crash, hang or leak.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "ScriptParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream script(std::string(reinterpret_cast<const char*>(data), size));
  const flowmere::sim::ParsedScript parsed = flowmere::sim::parseScript(script);
  // A refusal says where and why: "line N: reason".
  const std::size_t colon = parsed.error.find(": ");
  if (!parsed.ok() && (colon == std::string::npos || colon + 2 == parsed.error.size())) {
    __builtin_trap();
  }
  return 0;
}
