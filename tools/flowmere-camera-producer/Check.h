#pragma once

// The producer's `check` subcommand: verifies captured PNG frames against the test pattern.

namespace flowmere::producer {

// Runs `flowmere-camera-producer check [--allow-gaps] FRAME.png...`; argv[1] is "check". Each
// frame must be the pattern exactly, for the frame number written in it; without --allow-gaps the
// numbers must also follow one another without a gap. Returns the exit status: 0 when all pass,
// 1 when one does not, 2 for a bad command line. Main thread only.
int runCheck(int argc, char** argv);

}  // namespace flowmere::producer
