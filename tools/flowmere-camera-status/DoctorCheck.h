#pragma once

// One line of `flowmere-camera-status doctor`: which check, its result, what it found and, for a
// problem, the exact command or setting that fixes it.
//
// Pure values: any thread.

#include <string>
#include <string_view>

namespace flowmere::status {

enum class CheckResult {
  kOk,
  kWarn,  // something a user may want to change; the camera can still work
  kFail,  // the camera cannot work for (some) camera clients until it is fixed
};

struct Check {
  std::string id;  // "service", "pipewire", ... (the doctor's fixed list)
  CheckResult result = CheckResult::kOk;
  std::string found;  // what the check saw, in one sentence or a few joined by "; "
  std::string fix;    // empty when there is nothing to do
};

// "ok", "warn", "fail".
std::string_view checkResultName(CheckResult result);

// The worse of two results.
CheckResult worse(CheckResult first, CheckResult second);

}  // namespace flowmere::status
