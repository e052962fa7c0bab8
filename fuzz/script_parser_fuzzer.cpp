// Feeds arbitrary bytes to the simulator's script checker: it must accept or refuse every input
// with a message, never crash, hang or leak.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "ScriptRunner.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::istringstream script(std::string(reinterpret_cast<const char*>(data), size));
  const auto error = flowmere::sim::validateScript(script);
  if (error && error->empty()) {
    __builtin_trap();  // a refusal must say why
  }
  return 0;
}
