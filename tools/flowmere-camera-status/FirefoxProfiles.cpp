#include "FirefoxProfiles.h"

#include <regex>
#include <set>
#include <sstream>
#include <system_error>

namespace flowmere::status {

namespace {

struct Root {
  bool underConfig;
  const char* directory;
  const char* label;
};

constexpr Root kRoots[] = {
    {false, ".mozilla/firefox", ""},
    {true, "mozilla/firefox", ""},
    {false, ".var/app/org.mozilla.firefox/.mozilla/firefox", " (Flatpak)"},
    {false, ".var/app/org.mozilla.firefox/config/mozilla/firefox", " (Flatpak)"},
    {false, "snap/firefox/common/.mozilla/firefox", " (Snap)"},
};

// The label of the longest root directory `root` ends with (".mozilla/firefox" ends the Flatpak
// and Snap ones too).
std::string rootLabel(const std::filesystem::path& root) {
  std::string label;
  std::size_t longest = 0;
  const std::string text = root.string();
  for (const Root& candidate : kRoots) {
    const std::string suffix = candidate.directory;
    if (suffix.size() > longest && text.size() >= suffix.size() &&
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0) {
      longest = suffix.size();
      label = candidate.label;
    }
  }
  return label;
}

}  // namespace

std::optional<std::vector<FirefoxProfileEntry>> parseProfilesIni(
    std::string_view text, const std::filesystem::path& iniDirectory) {
  std::vector<FirefoxProfileEntry> profiles;
  struct Section {
    bool isProfile = false;
    std::string name;
    std::string path;
    bool relative = true;
  } section;
  auto flush = [&] {
    if (section.isProfile && !section.path.empty()) {
      const std::filesystem::path path =
          section.relative ? iniDirectory / section.path : std::filesystem::path(section.path);
      profiles.push_back({section.name.empty() ? section.path : section.name, path});
    }
    section = Section{};
  };
  std::istringstream lines{std::string(text)};
  std::string raw;
  while (std::getline(lines, raw)) {
    const std::string_view line = trimBlanks(raw);
    if (line.empty() || line.front() == ';' || line.front() == '#') {
      continue;
    }
    if (line.front() == '[') {
      if (line.back() != ']') {
        return std::nullopt;
      }
      flush();
      section.isProfile = line.rfind("[Profile", 0) == 0;
      continue;
    }
    const auto equals = line.find('=');
    if (equals == std::string_view::npos || equals == 0) {
      return std::nullopt;
    }
    const std::string_view key = trimBlanks(line.substr(0, equals));
    const std::string_view value = trimBlanks(line.substr(equals + 1));
    if (key == "Name") {
      section.name = value;
    } else if (key == "Path") {
      section.path = value;
    } else if (key == "IsRelative") {
      section.relative = value != "0";
    }
  }
  flush();
  return profiles;
}

FirefoxPref firefoxPref(std::string_view prefsText, std::string_view name) {
  static const std::regex statement(
      R"re(^(user_pref|pref|sticky_pref|lockPref)\(\s*"((?:[^"\\]|\\.)*)"\s*,\s*(.*?)\s*\)\s*;\s*(//.*)?$)re");
  FirefoxPref value = FirefoxPref::kUnset;
  std::istringstream lines{std::string(prefsText)};
  std::string raw;
  bool inComment = false;
  while (std::getline(lines, raw)) {
    std::string_view line = trimBlanks(raw);
    if (inComment) {
      const auto end = line.find("*/");
      if (end == std::string_view::npos) {
        continue;
      }
      inComment = false;
      line = trimBlanks(line.substr(end + 2));
    }
    if (line.rfind("/*", 0) == 0) {
      const auto end = line.find("*/", 2);
      if (end == std::string_view::npos) {
        inComment = true;
        continue;
      }
      line = trimBlanks(line.substr(end + 2));
    }
    if (line.empty() || line.rfind("//", 0) == 0 || line.front() == '#') {
      continue;
    }
    std::smatch match;
    const std::string text(line);
    if (!std::regex_match(text, match, statement)) {
      return FirefoxPref::kUnreadable;
    }
    if (match[2].str() != name) {
      continue;
    }
    const std::string setting = match[3].str();
    if (setting == "true") {
      value = FirefoxPref::kTrue;
    } else if (setting == "false") {
      value = FirefoxPref::kFalse;
    } else {
      return FirefoxPref::kUnreadable;  // not a boolean: Firefox ignores it, so say so
    }
  }
  return inComment ? FirefoxPref::kUnreadable : value;
}

std::vector<std::filesystem::path> findFirefoxRoots(const HomeDirectories& directories) {
  std::vector<std::filesystem::path> roots;
  std::set<std::filesystem::path> seen;
  for (const Root& candidate : kRoots) {
    const std::filesystem::path& base =
        candidate.underConfig ? directories.configHome : directories.home;
    if (base.empty()) {
      continue;
    }
    const std::filesystem::path root = base / candidate.directory;
    std::error_code error;
    if (std::filesystem::exists(root / "profiles.ini", error) &&
        seen.insert(std::filesystem::weakly_canonical(root, error)).second) {
      roots.push_back(root);
    }
  }
  return roots;
}

Check firefoxCheck(const HomeDirectories& directories) {
  Check check;
  check.id = "firefox";
  const std::vector<std::filesystem::path> roots = findFirefoxRoots(directories);
  if (roots.empty()) {
    check.found = "no Firefox profile found (nothing to check)";
    return check;
  }
  std::vector<std::string> found;
  std::vector<std::string> fixes;
  auto warn = [&](std::string what, std::string fix) {
    check.result = worse(check.result, CheckResult::kWarn);
    found.push_back(std::move(what));
    fixes.push_back(std::move(fix));
  };
  for (const std::filesystem::path& root : roots) {
    const std::filesystem::path ini = root / "profiles.ini";
    const std::optional<std::string> text = readTextFile(ini);
    const auto profiles = text ? parseProfilesIni(*text, root) : std::nullopt;
    if (!profiles) {
      warn("cannot parse " + ini.string(), "check " + ini.string());
      continue;
    }
    if (profiles->empty()) {
      found.push_back(ini.string() + " lists no profile");
      continue;
    }
    const std::string label = rootLabel(root);
    for (const FirefoxProfileEntry& profile : *profiles) {
      const std::string who = "Firefox" + label + " profile " + profile.name;
      FirefoxPref value = FirefoxPref::kUnset;
      std::string broken;
      for (const char* file : {"prefs.js", "user.js"}) {
        const std::optional<std::string> prefs = readTextFile(profile.path / file);
        if (!prefs) {
          continue;
        }
        const FirefoxPref reading = firefoxPref(*prefs, kFirefoxCameraPref);
        if (reading == FirefoxPref::kUnreadable) {
          broken = (profile.path / file).string();
        } else if (reading != FirefoxPref::kUnset) {
          value = reading;  // user.js, read last, wins
        }
      }
      if (!broken.empty()) {
        std::string problem = who;
        problem += ": cannot parse ";
        problem += broken;
        warn(problem, "check " + broken);
      } else if (value == FirefoxPref::kTrue) {
        std::string line = who;
        line += ": ";
        line += kFirefoxCameraPref;
        line += " is true";
        found.push_back(std::move(line));
      } else {
        warn(who + ": " + std::string(kFirefoxCameraPref) +
                 (value == FirefoxPref::kFalse ? " is false" : " is not set (false)") +
                 ", so it lists no PipeWire camera",
             "in Firefox" + label + " open about:config and set " +
                 std::string(kFirefoxCameraPref) + " to true, or with Firefox closed add " +
                 "user_pref(\"" + std::string(kFirefoxCameraPref) + "\", true); to " +
                 (profile.path / "user.js").string());
      }
    }
  }
  check.found += joinFindings(found);
  check.fix += joinFindings(fixes);
  return check;
}

}  // namespace flowmere::status
