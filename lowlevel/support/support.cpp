#include "lowlevel/support/support.h"

#include <climits>

namespace {

// Built by constant initialisation, so it is in place before any other code of the library runs.
ZlowLevelSupport g_defaultSupport;
ZlowLevelSupport* g_support = &g_defaultSupport;

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

int32_t decimalToLong(const char* p) {
  while (isBlank(*p)) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') {
    negative = *p == '-';
    ++p;
  }
  int64_t value = 0;
  const int64_t limit = negative ? -static_cast<int64_t>(INT32_MIN) : INT32_MAX;
  bool saturated = false;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (!saturated) {
      value = value * 10 + (*p - '0');
      if (value >= limit) {
        value = limit;
        saturated = true;
      }
    }
  }
  return static_cast<int32_t>(negative ? -value : value);
}

}  // namespace

namespace lowlevel {
ZlowLevelSupport& support() { return *g_support; }
}  // namespace lowlevel

void setLowLevelSupportPtr(ZlowLevelSupport* support) {
  g_support = support != nullptr ? support : &g_defaultSupport;
}

void reporterLL(const char* message, const char* function, ZEReporterFlag flag,
                const char* sourceModule, int line) {
  g_support->reporter(message, function, flag, sourceModule, line);
}

void reporterLL(const std::string& message, const std::string& function, ZEReporterFlag flag,
                const char* sourceModule, int line) {
  reporterLL(message.c_str(), function.c_str(), flag, sourceModule, line);
}

int32_t convertStringToLong(const char* text) {
  if (text == nullptr) return 0;
  if (text[0] == '0' && text[1] == 'x') {
    uint32_t result = 0;
    for (const char* p = text + 2; *p != '\0'; ++p) {
      result <<= 4;
      unsigned char c = static_cast<unsigned char>(*p);
      if (c >= 'a' && c <= 'z') c = static_cast<unsigned char>(c - 'a' + 'A');
      int digit = c >= 'A' ? c - 0x37 : c - 0x30;
      result |= static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(digit)));
    }
    return static_cast<int32_t>(result);
  }
  return decimalToLong(text);
}
