// Maps a fixed corpus through lcMapString and prints one line per result, so that the output of one
// system can be compared line by line with another's:
//   T <lcid> <flags> <source hex> <result hex | !error>   a text mapping, byte for byte
//   S <lcid> <flags> <list> <order>                      the order that sort keys give a word list
// Sort keys themselves differ between systems; only the order they give is printed ("2<0=1").
#include <algorithm>
#include <cstdio>
#include <numeric>
#include <string>
#include <vector>

#include "lowlevel/platform/lcmap.h"

using namespace lowlevel::platform;

namespace {

// Word lists in the locale's ANSI code page (1254 for Turkish, 1252 for the rest).
const std::vector<std::pair<const char*, std::vector<std::string>>> kLists = {
    {"en", {"apple", "Apple", "co-op", "coop", "coopa", "can't", "cant", "r\xE9sum\xE9", "resume",
            "Resume", "naive", "na\xEFve", "zebra", "Zoo", "a b", "ab", "a-b", "10", "9", "$5"}},
    {"de", {"M\xFCller", "Mueller", "Muller", "m\xFCller", "Stra\xDF" "e", "Strasse", "Strase",
            "\xC4rger", "Arger", "Aerger", "\xF6l", "Ol", "oel", "Zu", "\xFC" "ber", "uber"}},
    {"fr", {"c\xF4t\xE9", "cot\xE9", "c\xF4te", "cote", "C\xF4te", "\xE9l\xE8ve", "eleve", "\xC9l\xE8ve",
            "p\xE9" "che", "p\xEA" "che", "peche", "\x9C" "uvre", "oeuvre", "\xE7" "a", "ca"}},
    {"sv", {"\xE5sna", "\xE4pple", "\xF6l", "zebra", "asna", "apple", "ol", "\xC5sa", "\xC4ra",
            "\xD6rn", "v\xE5g", "wag", "vag", "y", "\xFC", "u"}},
    {"tr", {"\xFD" "s\xFDk", "isik", "I\xFEIK", "\xDD" "stanbul", "istanbul", "Istanbul",
            "\xE7" "ay", "cay", "\xF0" "a", "ga", "\xFE" "ey", "sey", "\xF6z", "oz", "\xFC", "u"}},
};

const uint32_t kLocales[] = {0x0000, 0x0409, 0x0407, 0x041D, 0x041F};
const uint32_t kTextFlags[] = {kLcmapLowercase, kLcmapUppercase, kNormIgnoreCase,
                               kNormIgnoreNonSpace, kNormIgnoreSymbols, kNormIgnoreWidth,
                               kNormIgnoreKanaType, kLcmapLowercase | kNormIgnoreNonSpace,
                               kLcmapUppercase | kNormIgnoreSymbols};
constexpr uint32_t kKey = kLcmapSortKey;
const uint32_t kKeyFlags[] = {kKey, kKey | kNormIgnoreCase, kKey | kNormIgnoreNonSpace,
                              kKey | kNormIgnoreCase | kNormIgnoreNonSpace, kKey | kNormIgnoreSymbols,
                              kKey | kSortStringSort, kKey | kNormIgnoreCase | kSortStringSort,
                              kKey | kNormIgnoreWidth | kNormIgnoreKanaType};

std::string hex(const std::string& bytes) {
  std::string out;
  char b[4];
  for (unsigned char c : bytes) std::snprintf(b, sizeof b, "%02X", c), out += b;
  return out.empty() ? "-" : out;
}

// The mapping in hex, or "!" and the error code. Hex keys order as the keys do.
std::string map(uint32_t lcid, uint32_t flags, const std::string& text) {
  char out[1024];
  int n = lcMapString(lcid, flags, text.data(), static_cast<int>(text.size()), out, sizeof out);
  return n > 0 ? hex(std::string(out, static_cast<size_t>(n))) : "!" + std::to_string(lastMapError());
}

}  // namespace

int main() {
  std::vector<std::string> texts;
  for (int c = 1; c < 256; ++c) {
    texts.push_back(std::string(1, static_cast<char>(c)));
    texts.push_back("a" + std::string(1, static_cast<char>(c)) + "Z");
  }
  for (const auto& list : kLists) texts.insert(texts.end(), list.second.begin(), list.second.end());
  for (uint32_t lcid : kLocales) {
    for (uint32_t flags : kTextFlags) {
      for (const std::string& text : texts)
        std::printf("T %04X %08X %s %s\n", lcid, flags, hex(text).c_str(), map(lcid, flags, text).c_str());
    }
    for (uint32_t flags : kKeyFlags) {
      for (const auto& list : kLists) {
        std::vector<std::string> keys;
        for (const std::string& word : list.second) keys.push_back(map(lcid, flags, word));
        std::vector<size_t> order(keys.size());
        std::iota(order.begin(), order.end(), 0);
        std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return keys[a] < keys[b]; });
        std::string text = std::to_string(order[0]);
        for (size_t i = 1; i < order.size(); ++i)
          text += (keys[order[i]] == keys[order[i - 1]] ? "=" : "<") + std::to_string(order[i]);
        std::printf("S %04X %08X %s %s\n", lcid, flags, list.first, text.c_str());
      }
    }
  }
  return 0;
}
