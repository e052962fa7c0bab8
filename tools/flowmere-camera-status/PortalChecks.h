#pragma once

// The doctor's checks on the desktop's camera portal, over the session bus (sd-bus):
//
// - `portal`: xdg-desktop-portal is on the bus (running, or started on demand) with its Camera
//   interface, a backend that implements camera access (org.freedesktop.impl.portal.Access) is
//   installed, and its IsCameraPresent property is true;
// - `portal-permission`: what the permission store holds for the camera (table "devices", id
//   "camera"): which apps are allowed, which are denied and how to reset them.
//
// Asks only (Properties.Get, PermissionStore.Lookup, the bus's name lists); writes nothing.
// Asking may start the portal or the permission store, as any camera client would. The query
// functions block for at most a few seconds; the check functions are pure: any thread.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "DoctorCheck.h"

namespace flowmere::status {

struct PortalBackend {
  std::string file;      // "gtk.portal"
  std::string dbusName;  // "org.freedesktop.impl.portal.desktop.gtk"
  bool onBus = false;    // running, or activatable on the session bus
};

struct PortalFacts {
  std::string busProblem;     // no session bus; empty when connected
  bool portalOnBus = false;   // org.freedesktop.portal.Desktop owned or activatable
  std::string cameraProblem;  // the Camera interface did not answer; empty when it did
  bool noCameraInterface = false;
  std::optional<bool> cameraPresent;
  std::vector<PortalBackend> accessBackends;
};

struct PermissionFacts {
  std::string problem;  // the permission store could not be asked
  bool noBus = false;   // because there is no session bus
  bool storeOnBus = false;
  // App id ("" for programs outside a sandbox) and its permissions ("yes", "no", ...).
  std::vector<std::pair<std::string, std::vector<std::string>>> entries;
};

// The D-Bus name of a portal backend file's text ([portal] DBusName=, Interfaces=) when it
// implements org.freedesktop.impl.portal.Access; none otherwise or when it does not parse.
std::optional<std::string> accessBackendName(std::string_view portalFileText);

// The directories xdg-desktop-portal reads backend files from: $XDG_DESKTOP_PORTAL_DIR, else
// <each of $XDG_DATA_DIRS>/xdg-desktop-portal/portals.
std::vector<std::filesystem::path> portalBackendDirectories();

// Both queries on the session bus ($DBUS_SESSION_BUS_ADDRESS).
void queryPortal(PortalFacts& portal, PermissionFacts& permissions);

// `serviceRunning`: whether the camera's nodes are on PipeWire (the service check).
Check portalCheck(const PortalFacts& facts, bool serviceRunning);
Check permissionCheck(const PermissionFacts& facts);

}  // namespace flowmere::status
