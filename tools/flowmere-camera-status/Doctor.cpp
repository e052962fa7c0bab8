#include "Doctor.h"

#include <cstdlib>

#include "CameraGraph.h"
#include "ChromiumProfiles.h"
#include "FirefoxProfiles.h"
#include "GraphChecks.h"
#include "HomeDirectories.h"
#include "PortalChecks.h"
#include "V4l2Check.h"

namespace flowmere::status {

std::vector<Check> runDoctor(std::chrono::milliseconds pipeWireTimeout) {
  const CameraGraph graph = queryCameraGraph(pipeWireTimeout);
  PortalFacts portal;
  PermissionFacts permissions;
  queryPortal(portal, permissions);
  const HomeDirectories home = homeDirectoriesFromEnvironment();
  const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): before any thread
  return {
      serviceCheck(graph),
      pipeWireCheck(graph),
      wirePlumberCheck(graph),
      portalCheck(portal, graph.serviceRunning()),
      permissionCheck(permissions),
      chromiumCheck(home),
      firefoxCheck(home),
      v4l2Check(findProgram("pw-v4l2", path ? path : "/usr/bin:/bin"),
                scanVideoDevices("/dev", "/sys/class/video4linux"), graph.sourceSerial),
      producerCheck(graph),
  };
}

void printDoctor(const std::vector<Check>& checks, std::FILE* out) {
  int failed = 0;
  int warned = 0;
  for (const Check& check : checks) {
    std::fprintf(out, "%-5s %-18s %s\n", std::string(checkResultName(check.result)).c_str(),
                 check.id.c_str(), check.found.c_str());
    if (!check.fix.empty()) {
      std::fprintf(out, "%-24s fix: %s\n", "", check.fix.c_str());
    }
    failed += check.result == CheckResult::kFail ? 1 : 0;
    warned += check.result == CheckResult::kWarn ? 1 : 0;
  }
  if (failed == 0 && warned == 0) {
    std::fprintf(out, "Every check passed.\n");
  } else {
    std::fprintf(out, "%d failed, %d with a warning.\n", failed, warned);
  }
}

nlohmann::json doctorJson(const std::vector<Check>& checks) {
  nlohmann::json list = nlohmann::json::array();
  for (const Check& check : checks) {
    list.push_back({{"id", check.id},
                    {"result", std::string(checkResultName(check.result))},
                    {"found", check.found},
                    {"fix", check.fix.empty() ? nlohmann::json() : nlohmann::json(check.fix)}});
  }
  return {{"checks", list}};
}

int doctorExitStatus(const std::vector<Check>& checks) {
  for (const Check& check : checks) {
    if (check.result == CheckResult::kFail) {
      return 1;
    }
  }
  return 0;
}

}  // namespace flowmere::status
