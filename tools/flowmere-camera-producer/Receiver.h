#pragma once

// The producer's `receive` subcommand: a camera client on pw_stream that reads the frame number
// the test pattern writes into each frame and records when each frame arrived.

namespace flowmere::producer {

// Runs `flowmere-camera-producer receive [--target NODE] [--seconds N] [--timestamps FILE]`;
// argv[1] is "receive". Returns the process's exit status. Main thread only.
int runReceiver(int argc, char** argv);

}  // namespace flowmere::producer
