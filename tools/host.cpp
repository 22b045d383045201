#include "tools/host.h"

#include <cctype>
#include <cstdio>
#include <fstream>

namespace {

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return std::string();
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

bool ToolHost::load(const std::string& path, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = "cannot read host configuration " + path;
    return false;
  }
  std::string base;
  size_t slash = path.find_last_of('/');
  if (slash != std::string::npos) base = path.substr(0, slash + 1);
  auto absolute = [&](const std::string& dir) {
    if (dir.empty() || dir[0] == '/' || dir[0] == '\\' || dir.find(':') != std::string::npos) {
      return dir;
    }
    return base + dir;
  };
  std::string section, line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    std::string t = trim(line);
    if (t.empty() || t[0] == ';' || t[0] == '#') continue;
    if (t[0] == '[') {
      if (t.back() != ']') {
        *error = path + ":" + std::to_string(number) + ": malformed section header";
        return false;
      }
      section = lower(trim(t.substr(1, t.size() - 2)));
      continue;
    }
    size_t eq = t.find('=');
    if (eq == std::string::npos) {
      *error = path + ":" + std::to_string(number) + ": expected NAME = VALUE";
      return false;
    }
    std::string key = trim(t.substr(0, eq));
    std::string value = t.substr(eq + 1);
    // A comment may follow a value after white space: "cd = disc/   ; the default volume".
    for (size_t i = 1; i < value.size(); ++i) {
      if ((value[i] == ';' || value[i] == '#') && (value[i - 1] == ' ' || value[i - 1] == '\t')) {
        value.erase(i);
        break;
      }
    }
    value = trim(value);
    if (section == "directories") {
      std::string k = lower(key);
      if (k == "program") m_sExeDir = absolute(value);
      else if (k == "install") m_sInstallDir = absolute(value);
      else if (k == "update") m_sUpdateDir = absolute(value);
      else {
        *error = path + ":" + std::to_string(number) + ": unknown directory " + key;
        return false;
      }
    } else if (section == "volumes") {
      std::string k = lower(key);
      int volume;
      if (k == "cd") {
        volume = eCDVolDefault;
      } else {
        char* end = nullptr;
        long n = std::strtol(k.c_str(), &end, 10);
        if (k.empty() || *end != '\0' || n < 1 || n > 999) {
          *error = path + ":" + std::to_string(number) + ": volumes are cd or 1, 2, ...";
          return false;
        }
        volume = static_cast<int>(n) + 1;
      }
      m_mVolumes[volume] = absolute(value);
    } else if (section == "locations") {
      m_mLocations[key] = absolute(value);
    } else {
      *error = path + ":" + std::to_string(number) + ": entry outside [directories], [volumes] or [locations]";
      return false;
    }
  }
  return true;
}

const char* ToolHost::getDirectoryByIniName(const char* name) {
  if (name == nullptr) return nullptr;
  auto it = m_mLocations.find(name);
  return it == m_mLocations.end() ? nullptr : it->second.c_str();
}

int ToolHost::getCdCount() {
  int count = 0;
  for (const auto& entry : m_mVolumes) {
    if (entry.first >= eCDVolFirst && entry.first - 1 > count) count = entry.first - 1;
  }
  return count;
}

const char* ToolHost::getCdPath(eCDVolType volume, bool, bool) {
  auto it = m_mVolumes.find(static_cast<int>(volume));
  return it == m_mVolumes.end() ? nullptr : answer(it->second);
}

const char* ToolHost::requestCdVolume(eCDVolType, bool) {
  // A command-line run cannot ask anyone to insert a volume: give up at once.
  return nullptr;
}

void ToolHost::reporter(const char* message, const char* function, ZEReporterFlag flag,
                        const char* sourceModule, int line) {
  ++m_nReports;
  if (quiet) return;
  std::fprintf(stderr, "lowlevel: %s: %s: %s [%s:%d]\n",
               flag == eReportWarning ? "warning" : "error", function ? function : "",
               message ? message : "", sourceModule ? sourceModule : "", line);
}
