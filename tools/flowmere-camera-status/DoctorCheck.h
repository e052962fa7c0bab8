#pragma once

// One line of `flowmere-camera-status doctor`: which check, its result, what it found and, for a
// problem, the exact command or setting that fixes it.
//
// Pure values: any thread.

#include <string>
#include <string_view>
#include <vector>

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

// Several findings (or fixes) as one field: joined by "; ".
std::string joinFindings(const std::vector<std::string>& parts);

// `text` without its leading and trailing blanks (spaces, tabs, line ends): for the ini-style
// files the checks read.
std::string_view trimBlanks(std::string_view text);

}  // namespace flowmere::status
