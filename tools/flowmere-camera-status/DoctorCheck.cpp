#include "DoctorCheck.h"

namespace flowmere::status {

std::string_view checkResultName(CheckResult result) {
  switch (result) {
    case CheckResult::kOk:
      return "ok";
    case CheckResult::kWarn:
      return "warn";
    case CheckResult::kFail:
      return "fail";
  }
  return "fail";
}

CheckResult worse(CheckResult first, CheckResult second) {
  return static_cast<int>(first) >= static_cast<int>(second) ? first : second;
}

}  // namespace flowmere::status
