#pragma once

// `flowmere-camera-status doctor`: which of the usual reasons keeps a program from seeing the
// camera applies here. The checks, in this order: service, pipewire, wireplumber, portal,
// portal-permission, chromium, firefox, v4l2, producer. Each says ok, warn or fail, what it
// found and, for a problem, the command or setting that fixes it.
//
// It reads files and asks the session bus and PipeWire; it changes nothing. `runDoctor` runs
// PipeWire's loop and sd-bus calls on the calling thread (pw_init must have been called); the
// output functions are pure.

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "DoctorCheck.h"

namespace flowmere::status {

std::vector<Check> runDoctor(std::chrono::milliseconds pipeWireTimeout);

// One line per check ("ok    service       ..."), with its fix on the next line.
void printDoctor(const std::vector<Check>& checks, std::FILE* out);

// {"checks": [{"id", "result", "found", "fix"}]}; fix is null when there is nothing to do.
nlohmann::json doctorJson(const std::vector<Check>& checks);

// 0 when no check failed, 1 otherwise.
int doctorExitStatus(const std::vector<Check>& checks);

}  // namespace flowmere::status
