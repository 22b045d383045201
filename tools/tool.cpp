#include "tools/tool.h"

#include "lowlevel/files/file.h"
#include "lowlevel/files/filelimit.h"

#include <unistd.h>

#include <cstdio>
#include <cctype>
#include <climits>
#include <cstdlib>

int fail(int code, const std::string& message) {
  std::fprintf(stderr, "lowlevel: %s\n", message.c_str());
  return code;
}

bool beyondFileLimit(const std::string& located) {
  std::string path = located;
  if (!ZFile::ResolvePath(path, false, false)) return false;
  ZFileBase probe;  // the bare handle: only the file objects above it refuse long files
  return probe.Open(path, 0x8000, 0) && fileBeyondLimit(probe.GetHandle());
}

std::string cannotOpen(const std::string& shown, const std::string& located) {
  if (beyondFileLimit(located)) return shown + " is larger than 2147483647 bytes, the 2 GiB limit";
  return "cannot open " + shown;
}

Progress::Progress(const std::string& what, int64_t total)
    : m_sWhat(what), m_nTotal(total), m_bActive(isatty(2) != 0) {}

Progress::~Progress() {
  if (m_bActive && m_nLast >= 0) std::fprintf(stderr, "\r\033[K");
}

void Progress::update(int64_t done) {
  if (!m_bActive) return;
  int64_t percent = m_nTotal > 0 ? done * 100 / m_nTotal : -1;
  int64_t mark = percent >= 0 ? percent : done / 10000;
  if (mark == m_nLast) return;
  m_nLast = mark;
  if (percent >= 0) {
    std::fprintf(stderr, "\r%s: %lld%%", m_sWhat.c_str(), static_cast<long long>(percent));
  } else {
    std::fprintf(stderr, "\r%s: %lld", m_sWhat.c_str(), static_cast<long long>(done));
  }
  std::fflush(stderr);
}

bool parseInt32(const std::string& text, int32_t* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  long long v = std::strtoll(text.c_str(), &end, 0);
  if (*end != '\0' || v < INT32_MIN || v > UINT32_MAX) return false;
  *value = static_cast<int32_t>(static_cast<uint32_t>(v));
  return true;
}

bool parseKey(const std::string& text, KeyForm form, std::string* bytes, int32_t* longKey,
              std::string* error) {
  switch (form) {
    case KeyForm::Text:
      if (text.empty()) {
        *error = "empty key";
        return false;
      }
      *bytes = text;
      return true;
    case KeyForm::Long:
      if (!parseInt32(text, longKey)) {
        *error = "not a 32-bit number: " + text;
        return false;
      }
      return true;
    case KeyForm::Hex: {
      std::string h = text.rfind("0x", 0) == 0 ? text.substr(2) : text;
      if (h.empty() || h.size() % 2 != 0) {
        *error = "hex key needs an even number of digits: " + text;
        return false;
      }
      bytes->clear();
      for (size_t i = 0; i < h.size(); i += 2) {
        char pair[3] = {h[i], h[i + 1], 0};
        char* end = nullptr;
        long b = std::strtol(pair, &end, 16);
        if (*end != '\0' || !std::isxdigit(static_cast<unsigned char>(pair[0]))) {
          *error = "not a hex key: " + text;
          return false;
        }
        bytes->push_back(static_cast<char>(b));
      }
      return true;
    }
  }
  return false;
}

bool parseMapFlags(const std::string& text, uint32_t* flags, std::string* error) {
  static const struct { const char* name; uint32_t value; } names[] = {
      {"lowercase", 0x100},        {"uppercase", 0x200},      {"sortkey", 0x400},
      {"ignorecase", 0x1},         {"ignorenonspace", 0x2},   {"ignoresymbols", 0x4},
      {"ignorekanatype", 0x10000}, {"ignorewidth", 0x20000},  {"stringsort", 0x1000}};
  int32_t number;
  if (parseInt32(text, &number)) {
    *flags = static_cast<uint32_t>(number);
    return true;
  }
  *flags = 0;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    std::string word = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    bool known = false;
    for (const auto& n : names) {
      if (word == n.name) {
        *flags |= n.value;
        known = true;
      }
    }
    if (!known) {
      *error = "unknown map flag '" + word + "'";
      return false;
    }
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return true;
}

void printJson(const nlohmann::json& j) { std::printf("%s\n", j.dump(2).c_str()); }

namespace {
std::string g_location;
}  // namespace

void setLocation(const std::string& location) { g_location = location; }

std::string locate(const std::string& path) {
  std::string located = path;
  if (!g_location.empty()) ZFile::BuildPath(located, g_location.c_str());
  return located;
}
