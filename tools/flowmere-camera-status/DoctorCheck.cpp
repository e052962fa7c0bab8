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

std::string joinFindings(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) {
    if (!joined.empty()) {
      joined += "; ";
    }
    joined += part;
  }
  return joined;
}

std::string_view trimBlanks(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) {
    return {};
  }
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

}  // namespace flowmere::status
