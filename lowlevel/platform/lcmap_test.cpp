#include "lowlevel/platform/lcmap.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace lowlevel {
namespace platform {
namespace {

constexpr uint32_t kEnglish = 0x0409;
constexpr uint32_t kTurkish = 0x041F;
constexpr uint32_t kRussian = 0x0419;
constexpr uint32_t kGreek = 0x0408;
constexpr uint32_t kJapanese = 0x0411;
constexpr uint32_t kKeyNoCase = kLcmapSortKey | kNormIgnoreCase;

// Maps `text` with the size call first, then the fill call, and checks that both agree.
std::string mapped(uint32_t lcid, uint32_t flags, const std::string& text) {
  int needed = lcMapString(lcid, flags, text.data(), static_cast<int>(text.size()), nullptr, 0);
  EXPECT_GT(needed, 0) << "error " << lastMapError();
  if (needed <= 0) return "<failed>";
  std::string out(static_cast<size_t>(needed) + 4, '#');
  int written = lcMapString(lcid, flags, text.data(), static_cast<int>(text.size()), &out[0],
                            static_cast<int>(out.size()));
  EXPECT_EQ(written, needed);
  EXPECT_EQ(out.substr(static_cast<size_t>(needed)), "####");  // nothing beyond the result
  out.resize(static_cast<size_t>(needed));
  return out;
}

// How the keys of neighbouring texts compare: "<", "=" or ">" for each pair, joined.
std::string order(uint32_t lcid, uint32_t flags, std::initializer_list<std::string> texts) {
  std::string out, previous;
  for (const std::string& text : texts) {
    std::string key = mapped(lcid, flags, text);
    if (&text != texts.begin()) out += key == previous ? "=" : previous < key ? "<" : ">";
    previous = key;
  }
  return out;
}

TEST(LcMapSortKey, OrdersTextsAsTheLocaleDoesDefaultsToTheRoot) {
  EXPECT_EQ("<<", order(kEnglish, kKeyNoCase, {"apple", "Banana", "cherry"}));
  // Accents rank after the plain word and before any longer one; case is ignored.
  EXPECT_EQ("=<=<", order(kEnglish, kKeyNoCase,
                          {"RESUME", "resume", "r\xE9sum\xE9", "R\xC9SUM\xC9", "resumes"}));
  // Case counts without the flag; accents are ignored, case kept, with ignore-nonspace alone.
  EXPECT_EQ("<", order(kEnglish, kLcmapSortKey, {"resume", "Resume"}));
  EXPECT_EQ("=<", order(kEnglish, kLcmapSortKey | kNormIgnoreNonSpace,
                        {"r\xE9sum\xE9", "resume", "Resume"}));
  std::string accented = mapped(kEnglish, kKeyNoCase, "r\xE9sum\xE9");
  EXPECT_EQ(accented.find('\0'), accented.size() - 1);  // a key ends in its only zero byte
  // Hyphens: word sort, string sort and symbols ignored.
  EXPECT_EQ("<<", order(kEnglish, kLcmapSortKey, {"coop", "co-op", "coopa"}));
  EXPECT_EQ("<", order(kEnglish, kLcmapSortKey | kSortStringSort, {"co-op", "coop"}));
  EXPECT_EQ("==",
            order(kEnglish, kLcmapSortKey | kNormIgnoreSymbols, {"co-op", "coop", "c o,o$p!"}));
  // Default identifiers are the root locale.
  const std::string text = "Stra\xDF" "e", root = mapped(0, kLcmapSortKey, text);
  for (uint32_t lcid : {0x0400u, 0x0800u, 0x007Fu}) {
    EXPECT_EQ(mapped(lcid, kLcmapSortKey, text), root) << lcid;
  }
  // Texts with -1 give the same key: the key's own zero is the terminator.
  char key[64];
  int size = lcMapString(0, kLcmapSortKey, text.c_str(), -1, key, sizeof key);
  EXPECT_EQ(std::string(key, static_cast<size_t>(size)), root);
}

TEST(LcMapText, MappingsFollowLocaleAndCodePage) {
  const struct { uint32_t lcid, flags; std::string in, out; } cases[] = {
      {kEnglish, kLcmapLowercase, "\xC4\xD6\xDC xY", "\xE4\xF6\xFC xy"},
      // Simple case mapping: sharp s stays, y diaeresis becomes 0x9F, micro has no capital in 1252.
      {kEnglish, kLcmapUppercase, "\xE4\xF6\xFC\xB5\xDF\xFF", "\xC4\xD6\xDC\xB5\xDF\x9F"},
      {kEnglish, kNormIgnoreCase, "AbC", "abc"},
      // Turkish in 1254 as any locale: dotted capital I (0xDD) and dotless small i (0xFD) stay.
      {kTurkish, kLcmapUppercase, "i\xFD", "I\xFD"}, {kTurkish, kLcmapLowercase, "I\xDD", "i\xDD"},
      {kEnglish, kLcmapUppercase, "i", "I"}, {kEnglish, kLcmapLowercase, "I", "i"},
      // Cyrillic in 1251, Greek in 1253 (no final sigma: one letter to one).
      {kRussian, kLcmapUppercase, "\xE0\xE1\xE2\xB8", "\xC0\xC1\xC2\xA8"},
      {kRussian, kLcmapLowercase, "\xC0\xC1\xC2\xA8", "\xE0\xE1\xE2\xB8"},
      {kGreek, kLcmapLowercase, "\xD3\xC4\xD3\xD3 \xD3", "\xF3\xE4\xF3\xF3 \xF3"},
      // Removals and foldings.
      {kEnglish, kNormIgnoreNonSpace, "R\xE9sum\xE9 ^`\xB4\xB7", "Resume "},
      {kEnglish, kNormIgnoreSymbols, "a b-c!d$e\xA7" "f\t\xAD\xB2\xBD\xAA\x88", "abcdef"},
      {kEnglish, kNormIgnoreSymbols | kLcmapUppercase, "\xE9-t\xE9", "\xC9T\xC9"},
      // Flags 0 copy every byte, also those the code page leaves unassigned.
      {kEnglish, 0, std::string("a\x81\0b", 4), std::string("a\x81\0b", 4)},
      // Code page 932: full-width A B to A B; hiragana a to katakana a.
      {kJapanese, kNormIgnoreWidth, "\x82\x60\x82\x61", "AB"},
      {kJapanese, kNormIgnoreKanaType, "\x82\xA0", "\x83\x41"},
  };
  for (const auto& c : cases) EXPECT_EQ(mapped(c.lcid, c.flags, c.in), c.out) << c.in;
  EXPECT_EQ(mapped(kJapanese, kLcmapSortKey | kNormIgnoreWidth, "\x82\x60"),
            mapped(kJapanese, kLcmapSortKey, "A"));
}

TEST(LcMapProtocol, SizesTerminatorAndRepeatedCalls) {
  char out[16];
  EXPECT_EQ(lcMapString(kEnglish, kLcmapLowercase, "ABC", -1, nullptr, 0), 4);
  ASSERT_EQ(lcMapString(kEnglish, kLcmapLowercase, "ABC", -1, out, 4), 4);
  EXPECT_EQ(std::string(out, 4), std::string("abc\0", 4));
  EXPECT_EQ(lcMapString(kEnglish, kLcmapLowercase, "ABC", 3, out, 3), 3);
  // The same buffer with new content, and the same text with other flags, map afresh.
  char text[] = "ABC";
  ASSERT_EQ(lcMapString(kEnglish, kLcmapLowercase, text, 3, out, sizeof out), 3);
  text[1] = 'X';
  ASSERT_EQ(lcMapString(kEnglish, kLcmapLowercase, text, 3, out, sizeof out), 3);
  EXPECT_EQ(std::string(out, 3), "axc");
  ASSERT_EQ(lcMapString(kRussian, kLcmapLowercase, "\xC0", 1, out, sizeof out), 1);
  ASSERT_EQ(lcMapString(kEnglish, kLcmapLowercase, "\xC0", 1, out, sizeof out), 1);
  EXPECT_EQ(out[0], '\xE0');
  ASSERT_EQ(lcMapString(kEnglish, kLcmapUppercase, text, 3, out, sizeof out), 3);
  EXPECT_EQ(std::string(out, 3), "AXC");
}

TEST(LcMapErrors, EachFailureHasItsCode) {
  char out[8] = "-------";
  const uint32_t P = 87, F = 1004, B = 122;  // as Windows: invalid parameter, flags, buffer
  const uint32_t E = kEnglish, L = kLcmapLowercase;
  // The last call maps to nothing: 0, and no error.
  const struct { uint32_t code, lcid, flags; const char* source; int length; char* destination;
                 int capacity; } cases[] = {
      {P, 0x1234, L, "a", 1, out, 8}, {P, 0xFFFFFFFF, kLcmapSortKey, "a", 1, out, 8},
      {P, E, L, nullptr, 1, out, 8}, {P, E, L, "a", 0, out, 8}, {P, E, L, "a", -2, out, 8},
      {P, E, L, "a", 1, out, -1}, {P, E, L, "a", 1, nullptr, 8}, {F, E, 0x8, "a", 1, out, 8},
      {F, E, L | kLcmapUppercase, "a", 1, out, 8}, {F, E, kLcmapSortKey | L, "a", 1, out, 8},
      {F, E, kSortStringSort, "a", 1, out, 8}, {B, E, L, "ABCDEFGH", 8, out, 7},
      {B, E, L, "ABC", -1, out, 3}, {0, E, kNormIgnoreSymbols, "!?", 2, out, 8}};
  for (const auto& c : cases) {
    EXPECT_EQ(lcMapString(c.lcid, c.flags, c.source, c.length, c.destination, c.capacity), 0);
    EXPECT_EQ(lastMapError(), c.code) << "case " << (&c - cases);
  }
  EXPECT_EQ(std::string(out), "-------");  // a failed call writes nothing
  // The error belongs to the thread that failed.
  EXPECT_EQ(lcMapString(E, 0x8, "a", 1, out, 8), 0);
  std::thread([] { lcMapString(kEnglish, kLcmapLowercase, "a", 1, nullptr, 1); }).join();
  EXPECT_EQ(lastMapError(), F);
}

}  // namespace
}  // namespace platform
}  // namespace lowlevel
