#pragma once

// `flowmere-camera-sim run`: a script of producer and client actions (ScriptParser.h reads it),
// run in virtual time on the embedded camera service, with every observable event printed as one
// JSON object per line. The same script gives the same output, byte for byte. Runs on the
// caller's thread.

#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>

namespace flowmere::sim {

struct ScriptOptions {
  std::optional<std::filesystem::path> container;
  bool noContainer = false;
  std::filesystem::path temporaryDirectory = "/tmp";
  // After every action, check the relay's invariants and abort with a message on stderr when one
  // breaks (for fuzzing): both stored format indices are valid; while the producer pins the
  // source, the source's index equals the pin; the sink's received count and the source's sent
  // count never go back; no more than one consume request is outstanding.
  bool checkInvariants = false;
};

// Runs the script read from `script` (named `scriptName` in error messages), writing events to
// `out`. Returns 0, or 2 after writing "<name>:<line>: <reason>" to `errors` for a malformed
// line (events of the lines before it have been written).
int runScript(std::istream& script, const std::string& scriptName, const ScriptOptions& options,
              std::ostream& out, std::ostream& errors);

}  // namespace flowmere::sim
