#pragma once

// Reads a simulator script: one JSON object a line, `"do"` naming the verb and an optional `"at"`
// (script seconds, never earlier than the line before); blank lines and lines starting with `#`
// are skipped. Every line is checked and converted to a typed action before anything runs, so a
// malformed script runs nothing. The verbs and their fields are in one table, in
// ScriptParser.cpp. Any thread; no state outside the call.

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "ScriptActions.h"

namespace flowmere::sim {

struct ParsedScript {
  std::vector<Action> actions;
  // Empty, or why the script was refused: "line N: reason".
  std::string error;

  [[nodiscard]] bool ok() const { return error.empty(); }
};

[[nodiscard]] ParsedScript parseScript(std::istream& script);

// The verbs a script may use, in the order of the table (for help texts).
[[nodiscard]] std::vector<std::string_view> scriptVerbs();

}  // namespace flowmere::sim
