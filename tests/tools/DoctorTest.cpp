// The doctor's pure parts: the Chromium, Firefox and portal-backend parsers on file contents, the
// browser checks on the fixture homes in tests/tools/doctor-fixtures (enabled, disabled, broken),
// the checks drawn from the PipeWire graph and the permission store, and the JSON output.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "ChromiumProfiles.h"
#include "Doctor.h"
#include "FirefoxProfiles.h"
#include "GraphChecks.h"
#include "PortalChecks.h"
#include "V4l2Check.h"

namespace flowmere::status {
namespace {

const std::filesystem::path kFixtures = FLOWMERE_DOCTOR_FIXTURES;

HomeDirectories fixtureHome(const std::string& name) {
  const std::filesystem::path home = kFixtures / name / "home";
  return {home, home / ".config"};
}

TEST(ChromiumFlag, ReadsTheLabsExperimentEntry) {
  EXPECT_EQ(
      pipeWireCameraFlag(
          R"({"browser":{"enabled_labs_experiments":["a@1","enable-webrtc-pipewire-camera@1"]}})"),
      ChromiumFlag::kEnabled);
  EXPECT_EQ(pipeWireCameraFlag(
                R"({"browser":{"enabled_labs_experiments":["enable-webrtc-pipewire-camera@2"]}})"),
            ChromiumFlag::kDisabled);
  EXPECT_EQ(pipeWireCameraFlag(R"({"browser":{"enabled_labs_experiments":["other@1"]}})"),
            ChromiumFlag::kDefault);
  EXPECT_EQ(pipeWireCameraFlag(R"({"browser":{}})"), ChromiumFlag::kDefault);
  EXPECT_EQ(pipeWireCameraFlag(R"({})"), ChromiumFlag::kDefault);
  // A longer flag that merely starts with the same letters is another flag.
  EXPECT_EQ(pipeWireCameraFlag(
                R"({"browser":{"enabled_labs_experiments":["enable-webrtc-pipewire-cameraX@1"]}})"),
            ChromiumFlag::kDefault);
}

TEST(ChromiumFlag, SaysWhenLocalStateDoesNotParse) {
  EXPECT_EQ(pipeWireCameraFlag("{\"browser\":"), ChromiumFlag::kUnreadable);
  EXPECT_EQ(pipeWireCameraFlag(""), ChromiumFlag::kUnreadable);
  EXPECT_EQ(pipeWireCameraFlag("[1,2]"), ChromiumFlag::kUnreadable);
  EXPECT_EQ(pipeWireCameraFlag(R"({"browser":{"enabled_labs_experiments":"x"}})"),
            ChromiumFlag::kUnreadable);
  EXPECT_EQ(pipeWireCameraFlag(R"({"browser":{"enabled_labs_experiments":[3]}})"),
            ChromiumFlag::kUnreadable);
}

TEST(ChromiumFlag, FindsTheFeatureInAFlagsFile) {
  EXPECT_TRUE(flagsFileEnablesPipeWireCamera("--enable-features=WebRtcPipeWireCamera\n"));
  EXPECT_TRUE(flagsFileEnablesPipeWireCamera("--a --enable-features=X,WebRtcPipeWireCamera,Y"));
  EXPECT_TRUE(flagsFileEnablesPipeWireCamera("--enable-webrtc-pipewire-camera"));
  EXPECT_FALSE(flagsFileEnablesPipeWireCamera("# --enable-features=WebRtcPipeWireCamera"));
  EXPECT_FALSE(flagsFileEnablesPipeWireCamera("--enable-features=WebRtcPipeWireCapturer"));
  EXPECT_FALSE(flagsFileEnablesPipeWireCamera("--disable-features=WebRtcPipeWireCamera"));
}

TEST(FirefoxPrefs, LastSettingWinsAndCommentsAreSkipped) {
  constexpr const char* kPrefs = R"(// Mozilla User Preferences
/* a block
   comment */
user_pref("browser.startup.homepage", "a \"quoted\" ; page");
user_pref("media.webrtc.camera.allow-pipewire", false);
user_pref("media.webrtc.camera.allow-pipewire", true);
)";
  EXPECT_EQ(firefoxPref(kPrefs, kFirefoxCameraPref), FirefoxPref::kTrue);
  EXPECT_EQ(
      firefoxPref(R"(user_pref("media.webrtc.camera.allow-pipewire", false);)", kFirefoxCameraPref),
      FirefoxPref::kFalse);
  EXPECT_EQ(firefoxPref(R"(user_pref("other", true);)", kFirefoxCameraPref), FirefoxPref::kUnset);
  EXPECT_EQ(firefoxPref("", kFirefoxCameraPref), FirefoxPref::kUnset);
}

TEST(FirefoxPrefs, SaysWhenAFileDoesNotParse) {
  EXPECT_EQ(
      firefoxPref("user_pref(\"media.webrtc.camera.allow-pipewire\", true\n", kFirefoxCameraPref),
      FirefoxPref::kUnreadable);
  EXPECT_EQ(firefoxPref("this is not a prefs file", kFirefoxCameraPref), FirefoxPref::kUnreadable);
  EXPECT_EQ(firefoxPref("/* never closed", kFirefoxCameraPref), FirefoxPref::kUnreadable);
  EXPECT_EQ(
      firefoxPref(R"(user_pref("media.webrtc.camera.allow-pipewire", "yes");)", kFirefoxCameraPref),
      FirefoxPref::kUnreadable);
}

TEST(FirefoxProfilesIni, ResolvesRelativeAndAbsolutePaths) {
  const auto profiles = parseProfilesIni(
      "[Install1]\nDefault=a.default\n\n[Profile1]\nName=work\nIsRelative=0\nPath=/srv/ff/work\n"
      "\n[Profile0]\nName=default\nIsRelative=1\nPath=a.default\n[General]\nVersion=2\n",
      "/home/u/.mozilla/firefox");
  ASSERT_TRUE(profiles.has_value());
  ASSERT_EQ(profiles->size(), 2U);
  EXPECT_EQ((*profiles)[0].name, "work");
  EXPECT_EQ((*profiles)[0].path, "/srv/ff/work");
  EXPECT_EQ((*profiles)[1].path, "/home/u/.mozilla/firefox/a.default");
  EXPECT_FALSE(parseProfilesIni("garbage without sections or keys", "/x").has_value());
  EXPECT_FALSE(parseProfilesIni("[Profile0\nPath=x\n", "/x").has_value());
  EXPECT_TRUE(parseProfilesIni("", "/x").value().empty());
}

TEST(BrowserChecks, EveryProfileOnIsOk) {
  const HomeDirectories home = fixtureHome("enabled");
  const Check chromium = chromiumCheck(home);
  EXPECT_EQ(chromium.id, "chromium");
  EXPECT_EQ(chromium.result, CheckResult::kOk) << chromium.found;
  EXPECT_NE(chromium.found.find("Chromium: PipeWire camera on (chrome://flags)"), std::string::npos)
      << chromium.found;
  EXPECT_NE(chromium.found.find("Google Chrome: PipeWire camera on ("), std::string::npos)
      << chromium.found;
  EXPECT_TRUE(chromium.fix.empty());
  const Check firefox = firefoxCheck(home);
  EXPECT_EQ(firefox.result, CheckResult::kOk) << firefox.found;
  EXPECT_NE(firefox.found.find("Firefox profile default-esr: " + std::string(kFirefoxCameraPref) +
                               " is true"),
            std::string::npos)
      << firefox.found;
  // The Flatpak profile's user.js overrides its prefs.js.
  EXPECT_NE(firefox.found.find("Firefox (Flatpak) profile default-release"), std::string::npos)
      << firefox.found;
}

TEST(BrowserChecks, ProfilesWithTheFeatureOffWarnWithTheFix) {
  const HomeDirectories home = fixtureHome("disabled");
  const Check chromium = chromiumCheck(home);
  EXPECT_EQ(chromium.result, CheckResult::kWarn);
  EXPECT_NE(chromium.found.find("Chromium: PipeWire camera off (the default)"), std::string::npos)
      << chromium.found;
  EXPECT_NE(chromium.found.find("Brave (Flatpak): PipeWire camera disabled in chrome://flags"),
            std::string::npos)
      << chromium.found;
  EXPECT_NE(chromium.fix.find("chrome://flags/#enable-webrtc-pipewire-camera"), std::string::npos);
  EXPECT_NE(chromium.fix.find("--enable-features=WebRtcPipeWireCamera"), std::string::npos);
  const Check firefox = firefoxCheck(home);
  EXPECT_EQ(firefox.result, CheckResult::kWarn);
  EXPECT_NE(firefox.found.find("default-esr: media.webrtc.camera.allow-pipewire is false"),
            std::string::npos)
      << firefox.found;
  EXPECT_NE(firefox.found.find("Firefox (Snap) profile default: "
                               "media.webrtc.camera.allow-pipewire is not set"),
            std::string::npos)
      << firefox.found;
  EXPECT_NE(firefox.fix.find("about:config"), std::string::npos);
  EXPECT_NE(firefox.fix.find("user_pref(\"media.webrtc.camera.allow-pipewire\", true);"),
            std::string::npos);
}

TEST(BrowserChecks, FilesThatDoNotParseWarnWithTheirPath) {
  const HomeDirectories home = fixtureHome("broken");
  const Check chromium = chromiumCheck(home);
  EXPECT_EQ(chromium.result, CheckResult::kWarn);
  EXPECT_NE(
      chromium.found.find("cannot parse " + (home.configHome / "chromium/Local State").string()),
      std::string::npos)
      << chromium.found;
  const Check firefox = firefoxCheck(home);
  EXPECT_EQ(firefox.result, CheckResult::kWarn);
  EXPECT_NE(firefox.found.find("cannot parse " +
                               (home.home / ".mozilla/firefox/k3x9.default-esr/prefs.js").string()),
            std::string::npos)
      << firefox.found;
  EXPECT_NE(firefox.found.find(
                "cannot parse " +
                (home.home / "snap/firefox/common/.mozilla/firefox/profiles.ini").string()),
            std::string::npos)
      << firefox.found;
}

TEST(BrowserChecks, NoProfileAtAllIsOkWithANote) {
  const HomeDirectories home{kFixtures / "no-such-home", kFixtures / "no-such-home/.config"};
  const Check chromium = chromiumCheck(home);
  EXPECT_EQ(chromium.result, CheckResult::kOk);
  EXPECT_NE(chromium.found.find("nothing to check"), std::string::npos);
  const Check firefox = firefoxCheck(home);
  EXPECT_EQ(firefox.result, CheckResult::kOk);
  EXPECT_NE(firefox.found.find("nothing to check"), std::string::npos);
  // And with no HOME at all.
  EXPECT_EQ(chromiumCheck(HomeDirectories{}).result, CheckResult::kOk);
  EXPECT_EQ(firefoxCheck(HomeDirectories{}).result, CheckResult::kOk);
}

TEST(PortalBackends, FindsTheAccessImplementation) {
  EXPECT_EQ(accessBackendName("[portal]\nDBusName=org.freedesktop.impl.portal.desktop.gtk\n"
                              "Interfaces=org.freedesktop.impl.portal.FileChooser;"
                              "org.freedesktop.impl.portal.Access;\nUseIn=gnome\n"),
            "org.freedesktop.impl.portal.desktop.gtk");
  EXPECT_FALSE(accessBackendName("[portal]\nDBusName=org.freedesktop.impl.portal.desktop.wlr\n"
                                 "Interfaces=org.freedesktop.impl.portal.Screenshot;\n")
                   .has_value());
  EXPECT_FALSE(accessBackendName("not a portal file").has_value());
}

CameraGraph runningCamera() {
  CameraGraph graph;
  graph.sourceNode = 40;
  graph.sinkNode = 41;
  graph.sourceMediaClass = "Video/Source";
  graph.sourceMediaRole = "Camera";
  graph.sourceSerial = 97;
  graph.clientApplications = {"pipewire", "WirePlumber", "flowmere-camera-extension"};
  return graph;
}

TEST(GraphChecks, ARunningCameraWithAProducer) {
  CameraGraph graph = runningCamera();
  graph.producers.push_back({50, "flowmere-camera-producer", "flowmere-camera-producer", 1234});
  graph.clients.push_back({60, "chromium-camera", "Chromium", 99});
  graph.sinkFormat = GraphVideoFormat{1280, 720, "BGRA", 30.0, "", 2};
  EXPECT_EQ(serviceCheck(graph).result, CheckResult::kOk);
  EXPECT_EQ(pipeWireCheck(graph).result, CheckResult::kOk);
  EXPECT_EQ(wirePlumberCheck(graph).result, CheckResult::kOk);
  const Check producer = producerCheck(graph);
  EXPECT_EQ(producer.result, CheckResult::kOk);
  EXPECT_NE(producer.found.find("1280x720 BGRA at 30 fps"), std::string::npos) << producer.found;
  EXPECT_NE(producer.found.find("1 capturing now: chromium-camera (Chromium) pid 99"),
            std::string::npos)
      << producer.found;
}

TEST(GraphChecks, WhatIsMissingFails) {
  CameraGraph noPipeWire;
  noPipeWire.problem = "PipeWire is not running for this user";
  EXPECT_EQ(pipeWireCheck(noPipeWire).result, CheckResult::kFail);
  EXPECT_EQ(serviceCheck(noPipeWire).result, CheckResult::kFail);
  EXPECT_EQ(wirePlumberCheck(noPipeWire).result, CheckResult::kFail);

  CameraGraph noService;
  noService.clientApplications = {"WirePlumber"};
  const Check service = serviceCheck(noService);
  EXPECT_EQ(service.result, CheckResult::kFail);
  EXPECT_NE(service.fix.find("systemctl --user enable --now flowmere-camera-extension"),
            std::string::npos);
  EXPECT_EQ(producerCheck(noService).result, CheckResult::kWarn);

  CameraGraph noManager = runningCamera();
  noManager.clientApplications = {"pipewire"};
  EXPECT_EQ(wirePlumberCheck(noManager).result, CheckResult::kFail);

  CameraGraph wrongRole = runningCamera();
  wrongRole.sourceMediaRole.clear();
  EXPECT_EQ(serviceCheck(wrongRole).result, CheckResult::kFail);

  const Check waiting = producerCheck(runningCamera());
  EXPECT_EQ(waiting.result, CheckResult::kWarn);
  EXPECT_NE(waiting.fix.find("flowmere-camera-producer"), std::string::npos);
}

TEST(PortalChecks, CameraPresentOrNot) {
  PortalFacts facts;
  facts.portalOnBus = true;
  facts.cameraPresent = true;
  facts.accessBackends.push_back({"gtk.portal", "org.freedesktop.impl.portal.desktop.gtk", true});
  EXPECT_EQ(portalCheck(facts, true).result, CheckResult::kOk);
  facts.cameraPresent = false;
  EXPECT_EQ(portalCheck(facts, true).result, CheckResult::kFail);
  PortalFacts absent;
  const Check check = portalCheck(absent, false);
  EXPECT_EQ(check.result, CheckResult::kFail);
  EXPECT_NE(check.found.find("not on the session bus"), std::string::npos);
  EXPECT_NE(check.fix.find("xdg-desktop-portal"), std::string::npos);
}

TEST(PortalChecks, DeniedAppsAreListedWithTheirReset) {
  PermissionFacts facts;
  EXPECT_EQ(permissionCheck(facts).result, CheckResult::kOk);  // nobody asked yet
  facts.entries = {{"org.mozilla.firefox", {"yes"}}, {"com.example.Meet", {"no"}}};
  Check check = permissionCheck(facts);
  EXPECT_EQ(check.result, CheckResult::kWarn);
  EXPECT_NE(check.found.find("allowed for org.mozilla.firefox"), std::string::npos);
  EXPECT_NE(check.found.find("DENIED for com.example.Meet"), std::string::npos);
  EXPECT_NE(check.fix.find("DeletePermission devices camera 'com.example.Meet'"),
            std::string::npos);
  facts.entries.push_back({"", {"no"}});
  check = permissionCheck(facts);
  EXPECT_EQ(check.result, CheckResult::kFail);
  EXPECT_NE(check.found.find("programs outside a sandbox"), std::string::npos);
  EXPECT_NE(check.fix.find("DeletePermission devices camera ''"), std::string::npos);
}

TEST(V4l2, LoopbackDevicesAndTheCommandLine) {
  EXPECT_TRUE(isLoopbackDevice("Dummy video device (0x0000)", ""));
  EXPECT_TRUE(isLoopbackDevice("OBS Virtual Camera", "v4l2loopback"));
  EXPECT_FALSE(isLoopbackDevice("Integrated Camera: Integrated C", "uvcvideo"));
  const Check fine =
      v4l2Check("/usr/bin/pw-v4l2", {{"/dev/video0", "Integrated Camera", false}}, 97);
  EXPECT_EQ(fine.result, CheckResult::kOk);
  EXPECT_NE(fine.found.find("PIPEWIRE_V4L2_TARGET=97 pw-v4l2 ffmpeg -f v4l2 -i /dev/video0"),
            std::string::npos)
      << fine.found;
  const Check loop =
      v4l2Check("/usr/bin/pw-v4l2", {{"/dev/video2", "Dummy video device", true}}, 97);
  EXPECT_EQ(loop.result, CheckResult::kWarn);
  EXPECT_NE(loop.found.find("second camera"), std::string::npos);
  const Check missing = v4l2Check("", {}, std::nullopt);
  EXPECT_EQ(missing.result, CheckResult::kWarn);
  EXPECT_NE(missing.fix.find("sudo apt install pipewire-v4l2"), std::string::npos);
}

TEST(DoctorOutput, JsonAndExitStatus) {
  std::vector<Check> checks = {{"service", CheckResult::kOk, "fine", ""},
                               {"portal", CheckResult::kWarn, "hm", "do this"}};
  const nlohmann::json json = doctorJson(checks);
  ASSERT_EQ(json["checks"].size(), 2U);
  EXPECT_EQ(json["checks"][0]["result"], "ok");
  EXPECT_TRUE(json["checks"][0]["fix"].is_null());
  EXPECT_EQ(json["checks"][1]["fix"], "do this");
  EXPECT_EQ(doctorExitStatus(checks), 0);
  checks.push_back({"v4l2", CheckResult::kFail, "x", "y"});
  EXPECT_EQ(doctorExitStatus(checks), 1);
}

}  // namespace
}  // namespace flowmere::status
