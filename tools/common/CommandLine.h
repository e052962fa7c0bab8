#pragma once

// The command-line conventions every program shares: `--help` prints the usage on stdout and
// exits 0, `--version` prints the program's name and the project version and exits 0, and a
// command line the program cannot accept gets one line on stderr and exit status 2.
//
// Any thread (the programs call these from main).

#include <string_view>

namespace flowmere::tools {

// The exit status for a command line the program cannot accept.
inline constexpr int kBadUsageExitStatus = 2;

// "PROGRAM: MESSAGE (see PROGRAM --help)" on stderr; returns kBadUsageExitStatus.
int badUsage(std::string_view program, std::string_view message);

// "PROGRAM VERSION" on stdout; returns 0.
int printVersion(std::string_view program);

// `usage` on stdout as it is; returns 0.
int printUsage(std::string_view usage);

// A finite number spelling the whole of `text` ("30", "0.5", "1e3"); false for anything else.
bool parseNumber(std::string_view text, double& value);

}  // namespace flowmere::tools
