#include "PortalChecks.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <system_error>

#include "HomeDirectories.h"

namespace flowmere::status {

namespace {

constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kCameraInterface = "org.freedesktop.portal.Camera";
constexpr const char* kStoreName = "org.freedesktop.impl.portal.PermissionStore";
constexpr const char* kStorePath = "/org/freedesktop/impl/portal/PermissionStore";
constexpr std::uint64_t kCallTimeoutMicroseconds = 5'000'000;

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct MessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;

// An sd_bus_error that frees itself.
struct BusError {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  BusError() = default;
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;
  ~BusError() { sd_bus_error_free(&error); }
  [[nodiscard]] std::string text(int result) const {
    if (error.message != nullptr) {
      return error.message;
    }
    return std::error_code(-result, std::generic_category()).message();
  }
};

// The names the bus has now, or can start on demand.
std::set<std::string> busNames(sd_bus* bus, const char* method) {
  std::set<std::string> names;
  BusError error;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                         "org.freedesktop.DBus", method, &error.error, &reply, "") < 0) {
    return names;
  }
  Message owned(reply);
  char** list = nullptr;
  if (sd_bus_message_read_strv(reply, &list) >= 0 && list != nullptr) {
    for (char** name = list; *name != nullptr; ++name) {
      names.insert(*name);
      std::free(*name);
    }
    std::free(list);
  }
  return names;
}

void queryCamera(sd_bus* bus, PortalFacts& facts) {
  BusError error;
  int present = 0;
  const int result = sd_bus_get_property_trivial(bus, kPortalName, kPortalPath, kCameraInterface,
                                                 "IsCameraPresent", &error.error, 'b', &present);
  if (result < 0) {
    facts.cameraProblem = error.text(result);
    facts.noCameraInterface = sd_bus_error_has_name(&error.error, SD_BUS_ERROR_UNKNOWN_INTERFACE) ||
                              sd_bus_error_has_name(&error.error, SD_BUS_ERROR_UNKNOWN_PROPERTY) ||
                              sd_bus_error_has_name(&error.error, SD_BUS_ERROR_INVALID_ARGS);
    return;
  }
  facts.cameraPresent = present != 0;
}

void queryPermissions(sd_bus* bus, const std::set<std::string>& names, PermissionFacts& facts) {
  facts.storeOnBus = names.count(kStoreName) != 0;
  if (!facts.storeOnBus) {
    facts.problem =
        "the portal's permission store (" + std::string(kStoreName) + ") is not on the session bus";
    return;
  }
  BusError error;
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call_method(bus, kStoreName, kStorePath, kStoreName, "Lookup",
                                        &error.error, &reply, "ss", "devices", "camera");
  if (result < 0) {
    // A table or id nobody has written yet: no app has been asked.
    if (sd_bus_error_has_name(&error.error, "org.freedesktop.portal.Error.NotFound")) {
      return;
    }
    facts.problem = "the permission store did not answer: " + error.text(result);
    return;
  }
  Message owned(reply);
  if (sd_bus_message_enter_container(reply, 'a', "{sas}") < 0) {
    facts.problem = "the permission store's answer is not a{sas}";
    return;
  }
  while (sd_bus_message_enter_container(reply, 'e', "sas") > 0) {
    const char* app = nullptr;
    char** values = nullptr;
    if (sd_bus_message_read(reply, "s", &app) < 0 || sd_bus_message_read_strv(reply, &values) < 0) {
      facts.problem = "the permission store's answer does not parse";
      return;
    }
    std::vector<std::string> permissions;
    if (values != nullptr) {
      for (char** value = values; *value != nullptr; ++value) {
        permissions.emplace_back(*value);
        std::free(*value);
      }
      std::free(values);
    }
    facts.entries.emplace_back(app ? app : "", std::move(permissions));
    sd_bus_message_exit_container(reply);
  }
  sd_bus_message_exit_container(reply);
}

std::string appLabel(const std::string& app) {
  return app.empty() ? "programs outside a sandbox (app id \"\")" : app;
}

}  // namespace

std::optional<std::string> accessBackendName(std::string_view portalFileText) {
  std::istringstream lines{std::string(portalFileText)};
  std::string raw;
  std::string name;
  bool access = false;
  bool inPortal = false;
  while (std::getline(lines, raw)) {
    const std::string_view line = trimBlanks(raw);
    if (line.empty() || line.front() == '#') {
      continue;
    }
    if (line.front() == '[') {
      inPortal = line == "[portal]";
      continue;
    }
    const auto equals = line.find('=');
    if (!inPortal || equals == std::string_view::npos) {
      continue;
    }
    const std::string_view key = trimBlanks(line.substr(0, equals));
    const std::string_view value = trimBlanks(line.substr(equals + 1));
    if (key == "DBusName") {
      name = value;
    } else if (key == "Interfaces") {
      std::string_view rest = value;
      while (!rest.empty()) {
        const auto semicolon = rest.find(';');
        if (trimBlanks(rest.substr(0, semicolon)) == "org.freedesktop.impl.portal.Access") {
          access = true;
        }
        rest =
            semicolon == std::string_view::npos ? std::string_view{} : rest.substr(semicolon + 1);
      }
    }
  }
  if (!access || name.empty()) {
    return std::nullopt;
  }
  return name;
}

std::vector<std::filesystem::path> portalBackendDirectories() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the doctor reads it before any thread starts.
  if (const char* directory = std::getenv("XDG_DESKTOP_PORTAL_DIR");
      directory != nullptr && *directory != '\0') {
    return {directory};
  }
  const char* dataDirs = std::getenv("XDG_DATA_DIRS");  // NOLINT(concurrency-mt-unsafe)
  std::string list =
      dataDirs != nullptr && *dataDirs != '\0' ? dataDirs : "/usr/local/share:/usr/share";
  std::vector<std::filesystem::path> directories;
  std::istringstream parts(list);
  std::string part;
  while (std::getline(parts, part, ':')) {
    if (!part.empty()) {
      directories.push_back(std::filesystem::path(part) / "xdg-desktop-portal" / "portals");
    }
  }
  return directories;
}

void queryPortal(PortalFacts& portal, PermissionFacts& permissions) {
  sd_bus* raw = nullptr;
  const int result = sd_bus_open_user(&raw);
  Bus bus(raw);
  if (result < 0) {
    portal.busProblem =
        "no session bus: " + std::error_code(-result, std::generic_category()).message();
    permissions.problem = portal.busProblem;
    permissions.noBus = true;
    return;
  }
  sd_bus_set_method_call_timeout(bus.get(), kCallTimeoutMicroseconds);
  std::set<std::string> names = busNames(bus.get(), "ListNames");
  for (const std::string& name : busNames(bus.get(), "ListActivatableNames")) {
    names.insert(name);
  }
  portal.portalOnBus = names.count(kPortalName) != 0;
  std::set<std::string> seenFiles;
  for (const std::filesystem::path& directory : portalBackendDirectories()) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
      const std::string file = entry->path().filename().string();
      if (entry->path().extension() != ".portal" || !seenFiles.insert(file).second) {
        continue;
      }
      const std::optional<std::string> text = readTextFile(entry->path());
      if (const auto name = text ? accessBackendName(*text) : std::nullopt) {
        portal.accessBackends.push_back({file, *name, names.count(*name) != 0});
      }
    }
  }
  if (portal.portalOnBus) {
    queryCamera(bus.get(), portal);
  }
  queryPermissions(bus.get(), names, permissions);
}

Check portalCheck(const PortalFacts& facts, bool serviceRunning) {
  Check check;
  check.id = "portal";
  constexpr const char* kInstall =
      "sudo apt install xdg-desktop-portal xdg-desktop-portal-gtk (or your desktop's backend: "
      "xdg-desktop-portal-gnome, xdg-desktop-portal-kde), then log out and in";
  if (!facts.busProblem.empty()) {
    check.result = CheckResult::kFail;
    check.found = facts.busProblem;
    check.fix =
        "run the doctor inside your desktop session (DBUS_SESSION_BUS_ADDRESS must name "
        "its bus)";
    return check;
  }
  std::string backends;
  for (const PortalBackend& backend : facts.accessBackends) {
    backends +=
        (backends.empty() ? "" : ", ") + backend.file + (backend.onBus ? "" : " (not on the bus)");
  }
  const bool backendOnBus = std::any_of(facts.accessBackends.begin(), facts.accessBackends.end(),
                                        [](const PortalBackend& backend) { return backend.onBus; });
  const std::string backendText = backends.empty()
                                      ? "no portal backend implements camera access (Access)"
                                      : "camera access backends: " + backends;
  if (!facts.portalOnBus) {
    check.result = CheckResult::kFail;
    check.found = "xdg-desktop-portal is not on the session bus; " + backendText +
                  ": browsers and sandboxed apps find no camera";
    check.fix = kInstall;
    return check;
  }
  if (facts.noCameraInterface) {
    check.result = CheckResult::kFail;
    check.found =
        "xdg-desktop-portal has no Camera interface (" + facts.cameraProblem + "); " + backendText;
    check.fix = std::string(
                    "the portal offers the camera only with a backend that implements "
                    "Access and with PipeWire running: ") +
                kInstall +
                "; set XDG_CURRENT_DESKTOP to your desktop; then systemctl --user "
                "restart xdg-desktop-portal";
    return check;
  }
  if (!facts.cameraProblem.empty()) {
    check.result = CheckResult::kFail;
    check.found = "xdg-desktop-portal did not answer: " + facts.cameraProblem + "; " + backendText;
    check.fix =
        "systemctl --user restart xdg-desktop-portal; its log: journalctl --user -u "
        "xdg-desktop-portal";
    return check;
  }
  check.found = "xdg-desktop-portal answers with its Camera interface; " + backendText;
  if (!backendOnBus) {
    check.result = CheckResult::kWarn;
    check.fix = kInstall;
  }
  if (facts.cameraPresent.value_or(false)) {
    check.found += "; IsCameraPresent is true";
    if (!serviceRunning) {
      // xdg-desktop-portal 1.16 does not forget a camera node that went away.
      check.found +=
          " (not for this camera, whose service is not running: another camera, or "
          "one the portal remembers after it left)";
    }
  } else {
    check.result = CheckResult::kFail;
    check.found += "; IsCameraPresent is false: the portal sees no camera";
    check.fix =
        "start the camera service (see the service check); the portal counts only a "
        "Video/Source node with role Camera that WirePlumber lets it see";
  }
  return check;
}

Check permissionCheck(const PermissionFacts& facts) {
  Check check;
  check.id = "portal-permission";
  if (!facts.problem.empty()) {
    check.result = CheckResult::kWarn;
    check.found = facts.problem + ": cannot tell which apps may use the camera";
    check.fix = facts.noBus
                    ? "run the doctor inside your desktop session (DBUS_SESSION_BUS_ADDRESS "
                      "must name its bus)"
                    : "sudo apt install xdg-desktop-portal (it brings the permission store)";
    return check;
  }
  if (facts.entries.empty()) {
    check.found = "no app has been asked for the camera yet (table devices, id camera is empty)";
    return check;
  }
  std::string allowed;
  std::string denied;
  bool hostDenied = false;
  for (const auto& [app, permissions] : facts.entries) {
    const bool no = std::find(permissions.begin(), permissions.end(), "no") != permissions.end();
    const bool yes = std::find(permissions.begin(), permissions.end(), "yes") != permissions.end();
    if (no) {
      denied += (denied.empty() ? "" : ", ") + appLabel(app);
      hostDenied = hostDenied || app.empty();
      check.fix += std::string(check.fix.empty() ? "" : "; ") + "gdbus call --session --dest " +
                   kStoreName + " --object-path " + kStorePath + " --method " + kStoreName +
                   ".DeletePermission devices camera '" + app + "'";
    } else if (yes) {
      allowed += (allowed.empty() ? "" : ", ") + appLabel(app);
    }
  }
  check.found = "camera allowed for " + (allowed.empty() ? std::string("no app") : allowed);
  if (!denied.empty()) {
    check.result = hostDenied ? CheckResult::kFail : CheckResult::kWarn;
    check.found += "; DENIED for " + denied + " (the portal then refuses without asking)";
    check.fix +=
        " (the app is asked again next time; for a Flatpak app also: flatpak "
        "permission-remove devices camera APP_ID)";
  }
  return check;
}

}  // namespace flowmere::status
