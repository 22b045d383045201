// Locale mapping of key text on ICU.
//
// Choices where the Windows function leaves room:
// - Locales: 0, 0x0400 (user default), 0x0800 (system default) and 0x007F (invariant) are the
//   root locale with code page 1252. Any other identifier must be known to ICU, or the call fails
//   with 87. A locale whose language has no ANSI code page of its own (Hindi, ...) uses 1252.
// - A source length of 0 fails with 87, as an empty result could not be told from a failure.
//   Sources longer than kMaxSource bytes fail with 8 (not enough memory). A longer text that maps
//   to nothing (all symbols, say) returns 0 with lastMapError() 0.
// - Nothing is written to the destination when a call fails.
// - Sort keys: ICU's key under the locale, ending in its one zero byte, which counts in the size
//   (a source length of -1 adds no second zero). Strength: tertiary; NORM_IGNORECASE makes it
//   secondary; NORM_IGNORENONSPACE makes it primary, with ICU's case level on unless case is
//   ignored too, so accents are ignored but case still counts. NORM_IGNORESYMBOLS shifts blanks,
//   punctuation, symbols and currency signs so that they are ignored. NORM_IGNOREWIDTH and
//   NORM_IGNOREKANATYPE fold the text (full and half width forms to their plain form, hiragana
//   to katakana) before collation.
// - Word sort (the default, without SORT_STRINGSORT): hyphens and apostrophes are taken out of
//   the text before collation and only break ties, after everything else:
//   "coop" < "co-op" < "coopa". With SORT_STRINGSORT they are ordinary punctuation.
// - Text mappings: simple case mapping, the same in every locale (ß stays ß under uppercase;
//   Turkish I and i map as anywhere else, İ and ı stay). NORM_IGNORENONSPACE also drops spacing accents standing
//   alone, and NORM_IGNORESYMBOLS also white-space controls, the soft hyphen, superscripts,
//   fractions and the ordinal indicators (what Windows drops there).
//   NORM_IGNORECASE without a case flag means lowercase. A character whose mapped form has no
//   byte in the code page keeps its original form (the micro sign under uppercase in 1252).
//   NORM_IGNORENONSPACE decomposes the text and drops non-spacing marks; NORM_IGNORESYMBOLS drops
//   blanks, punctuation and symbols. Flags 0 copy the bytes unchanged. Anything else without a
//   byte in the code page (a broken double-byte sequence) becomes the code page's substitution
//   byte.
// - Invalid flags (1004): unknown bits, lowercase with uppercase, a case flag with LCMAP_SORTKEY,
//   SORT_STRINGSORT without LCMAP_SORTKEY.
// - ICU objects (locale data, collators, converters) are made once per locale, flag set and code
//   page and kept until the process ends. One mutex guards them and the whole call; the last
//   result is remembered, so the usual pair of calls (size, then fill) maps the text once.
#include "lowlevel/platform/lcmap.h"

#include <unicode/uchar.h>
#include <unicode/ucnv.h>
#include <unicode/ucol.h>
#include <unicode/uloc.h>
#include <unicode/unorm2.h>
#include <unicode/uset.h>
#include <unicode/utf16.h>

#include <climits>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace lowlevel {
namespace platform {
namespace {

constexpr uint32_t kErrorNotEnoughMemory = 8;
constexpr size_t kMaxSource = INT32_MAX / 4;

constexpr uint32_t kKnownFlags = kLcmapLowercase | kLcmapUppercase | kLcmapSortKey |
                                 kNormIgnoreCase | kNormIgnoreNonSpace | kNormIgnoreSymbols |
                                 kNormIgnoreKanaType | kNormIgnoreWidth | kSortStringSort;
constexpr uint32_t kCollatorFlags = kNormIgnoreCase | kNormIgnoreNonSpace | kNormIgnoreSymbols;

thread_local uint32_t tLastError = 0;

// Failure inside the mapping, carrying the error code for lastMapError.
struct MapFailure {
  uint32_t code;
};

bool isDefaultLocale(uint32_t lcid) {
  return lcid == 0 || lcid == 0x0400 || lcid == 0x0800 || lcid == 0x007F;
}

bool inList(const char* language, const char* const* list) {
  for (; *list != nullptr; ++list) {
    if (std::strcmp(language, *list) == 0) return true;
  }
  return false;
}

// The Windows ANSI code page of an ICU locale, from its script and, for Latin, its language.
int codePageOf(const std::string& locale) {
  UErrorCode status = U_ZERO_ERROR;
  char full[ULOC_FULLNAME_CAPACITY] = "";
  uloc_addLikelySubtags(locale.c_str(), full, sizeof full, &status);
  if (U_FAILURE(status)) return 1252;
  char language[ULOC_LANG_CAPACITY] = "";
  char script[ULOC_SCRIPT_CAPACITY] = "";
  uloc_getLanguage(full, language, sizeof language, &status);
  uloc_getScript(full, script, sizeof script, &status);
  if (U_FAILURE(status)) return 1252;
  static const std::pair<const char*, int> kScripts[] = {
      {"Cyrl", 1251}, {"Grek", 1253}, {"Hebr", 1255}, {"Arab", 1256}, {"Thai", 874}, {"Jpan", 932},
      {"Hira", 932},  {"Kana", 932},  {"Hans", 936},  {"Kore", 949},  {"Hang", 949}, {"Hant", 950}};
  for (const auto& entry : kScripts) {
    if (std::strcmp(script, entry.first) == 0) return entry.second;
  }
  static const char* const kCentral[] = {"cs", "sk", "pl", "hu", "sl",   "hr",
                                         "bs", "sr", "ro", "sq", nullptr};
  static const char* const kTurkic[] = {"tr", "az", "uz", nullptr};
  static const char* const kBaltic[] = {"lt", "lv", "et", nullptr};
  if (inList(language, kCentral)) return 1250;
  if (inList(language, kTurkic)) return 1254;
  if (inList(language, kBaltic)) return 1257;
  if (std::strcmp(language, "vi") == 0) return 1258;
  return 1252;
}

struct LocaleEntry {
  std::string icu;  // "" for root
  int codePage = 1252;
};

struct CodePageEntry {
  UConverter* converter = nullptr;
  USet* roundTrip = nullptr;  // made on first use by a case mapping
};

class MapCache {
 public:
  MapCache() = default;
  MapCache(const MapCache&) = delete;
  MapCache& operator=(const MapCache&) = delete;

  std::mutex mutex;

  // Scratch space, kept between calls so that short keys need no allocation.
  std::vector<UChar> text;
  std::vector<UChar> work;
  std::vector<uint8_t> key;

  // The last successful mapping.
  bool lastValid = false;
  uint32_t lastLcid = 0;
  uint32_t lastFlags = 0;
  bool lastTerminated = false;
  std::string lastSource;
  std::string lastResult;

  const LocaleEntry& locale(uint32_t lcid) {
    if (isDefaultLocale(lcid)) lcid = 0;
    auto found = locales_.find(lcid);
    if (found != locales_.end()) return found->second;
    LocaleEntry entry;
    if (lcid != 0) {
      UErrorCode status = U_ZERO_ERROR;
      char name[ULOC_FULLNAME_CAPACITY] = "";
      int32_t length = uloc_getLocaleForLCID(lcid, name, sizeof name, &status);
      if (U_FAILURE(status) || length <= 0 || length >= static_cast<int32_t>(sizeof name) ||
          std::strcmp(name, "root") == 0) {
        throw MapFailure{kErrorInvalidParameter};
      }
      entry.icu = name;
      entry.codePage = codePageOf(entry.icu);
    }
    return locales_.emplace(lcid, std::move(entry)).first->second;
  }

  CodePageEntry& codePage(int number) {
    auto found = codePages_.find(number);
    if (found != codePages_.end()) return found->second;
    std::string name = "windows-" + std::to_string(number);
    UErrorCode status = U_ZERO_ERROR;
    UConverter* converter = ucnv_open(name.c_str(), &status);
    if (U_FAILURE(status) || converter == nullptr) {
      if (converter != nullptr) ucnv_close(converter);
      throw MapFailure{status == U_MEMORY_ALLOCATION_ERROR ? kErrorNotEnoughMemory
                                                           : kErrorInvalidParameter};
    }
    CodePageEntry entry;
    entry.converter = converter;
    return codePages_.emplace(number, entry).first->second;
  }

  const USet* roundTrip(CodePageEntry& entry) {
    if (entry.roundTrip == nullptr) {
      UErrorCode status = U_ZERO_ERROR;
      USet* set = uset_openEmpty();
      if (set == nullptr) throw MapFailure{kErrorNotEnoughMemory};
      ucnv_getUnicodeSet(entry.converter, set, UCNV_ROUNDTRIP_SET, &status);
      if (U_FAILURE(status)) {
        uset_close(set);
        throw MapFailure{kErrorNotEnoughMemory};
      }
      uset_freeze(set);
      entry.roundTrip = set;
    }
    return entry.roundTrip;
  }

  const UCollator* collator(uint32_t lcid, uint32_t flags, const LocaleEntry& locale) {
    if (isDefaultLocale(lcid)) lcid = 0;
    flags &= kCollatorFlags;
    auto found = collators_.find({lcid, flags});
    if (found != collators_.end()) return found->second;
    UErrorCode status = U_ZERO_ERROR;
    UCollator* collator = ucol_open(locale.icu.c_str(), &status);
    if (U_FAILURE(status) || collator == nullptr) {
      if (collator != nullptr) ucol_close(collator);
      throw MapFailure{status == U_MEMORY_ALLOCATION_ERROR ? kErrorNotEnoughMemory
                                                           : kErrorInvalidParameter};
    }
    UColAttributeValue strength = UCOL_TERTIARY;
    if ((flags & kNormIgnoreNonSpace) != 0) {
      strength = UCOL_PRIMARY;
      if ((flags & kNormIgnoreCase) == 0)
        ucol_setAttribute(collator, UCOL_CASE_LEVEL, UCOL_ON, &status);
    } else if ((flags & kNormIgnoreCase) != 0) {
      strength = UCOL_SECONDARY;
    }
    ucol_setAttribute(collator, UCOL_STRENGTH, strength, &status);
    ucol_setAttribute(collator, UCOL_NORMALIZATION_MODE, UCOL_ON, &status);
    if ((flags & kNormIgnoreSymbols) != 0) {
      ucol_setAttribute(collator, UCOL_ALTERNATE_HANDLING, UCOL_SHIFTED, &status);
      ucol_setMaxVariable(collator, UCOL_REORDER_CODE_CURRENCY, &status);
    } else {
      ucol_setAttribute(collator, UCOL_ALTERNATE_HANDLING, UCOL_NON_IGNORABLE, &status);
    }
    if (U_FAILURE(status)) {
      ucol_close(collator);
      throw MapFailure{kErrorNotEnoughMemory};
    }
    collators_.emplace(std::make_pair(lcid, flags), collator);
    return collator;
  }

 private:
  std::map<uint32_t, LocaleEntry> locales_;
  std::map<int, CodePageEntry> codePages_;
  std::map<std::pair<uint32_t, uint32_t>, UCollator*> collators_;
};

// Never destroyed, so that it still serves calls made from other objects' destructors at exit.
MapCache& cache() {
  static MapCache* instance = new MapCache;
  return *instance;
}

int32_t toInt32(size_t value) {
  if (value > static_cast<size_t>(INT32_MAX)) throw MapFailure{kErrorNotEnoughMemory};
  return static_cast<int32_t>(value);
}

// Decodes `length` bytes of the code page into `out`.
void decode(UConverter* converter, const char* source, size_t length, std::vector<UChar>& out) {
  // One byte never gives more than one UTF-16 unit in the ANSI code pages; the retry covers the
  // rest.
  out.resize(length + 1);
  UErrorCode status = U_ZERO_ERROR;
  int32_t produced =
      ucnv_toUChars(converter, out.data(), toInt32(out.size()), source, toInt32(length), &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    out.resize(static_cast<size_t>(produced) + 1);
    status = U_ZERO_ERROR;
    produced =
        ucnv_toUChars(converter, out.data(), toInt32(out.size()), source, toInt32(length), &status);
  }
  if (U_FAILURE(status)) throw MapFailure{kErrorNotEnoughMemory};
  out.resize(static_cast<size_t>(produced));
}

// Encodes `text` into the code page, appending to `out`.
void encode(UConverter* converter, const std::vector<UChar>& text, std::string& out) {
  size_t start = out.size();
  out.resize(start + text.size() * 2 + 1);
  UErrorCode status = U_ZERO_ERROR;
  int32_t produced = ucnv_fromUChars(converter, &out[start], toInt32(out.size() - start),
                                     text.data(), toInt32(text.size()), &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    out.resize(start + static_cast<size_t>(produced) + 1);
    status = U_ZERO_ERROR;
    produced = ucnv_fromUChars(converter, &out[start], toInt32(out.size() - start), text.data(),
                               toInt32(text.size()), &status);
  }
  if (U_FAILURE(status)) throw MapFailure{kErrorNotEnoughMemory};
  out.resize(start + static_cast<size_t>(produced));
}

void normalize(const UNormalizer2* normalizer, const UChar* source, int32_t length,
               std::vector<UChar>& out) {
  out.resize(static_cast<size_t>(length) + 8);
  UErrorCode status = U_ZERO_ERROR;
  int32_t produced =
      unorm2_normalize(normalizer, source, length, out.data(), toInt32(out.size()), &status);
  if (status == U_BUFFER_OVERFLOW_ERROR) {
    out.resize(static_cast<size_t>(produced));
    status = U_ZERO_ERROR;
    produced =
        unorm2_normalize(normalizer, source, length, out.data(), toInt32(out.size()), &status);
  }
  if (U_FAILURE(status)) throw MapFailure{kErrorNotEnoughMemory};
  out.resize(static_cast<size_t>(produced));
}

const UNormalizer2* normalizer(const UNormalizer2* (*get)(UErrorCode*)) {
  UErrorCode status = U_ZERO_ERROR;
  const UNormalizer2* result = get(&status);
  if (U_FAILURE(status)) throw MapFailure{kErrorNotEnoughMemory};
  return result;
}

bool isWidthForm(UChar32 c) { return c == 0x3000 || (c >= 0xFF00 && c <= 0xFFEF); }

// Full- and half-width forms to their plain form; hiragana to katakana.
void foldWidthAndKana(uint32_t flags, std::vector<UChar>& text, std::vector<UChar>& work) {
  if ((flags & kNormIgnoreWidth) != 0) {
    const UNormalizer2* nfkc = normalizer(unorm2_getNFKCInstance);
    std::vector<UChar> run;
    work.clear();
    for (size_t i = 0; i < text.size();) {
      if (!isWidthForm(text[i])) {
        work.push_back(text[i++]);
        continue;
      }
      size_t end = i;
      while (end < text.size() && isWidthForm(text[end])) ++end;
      normalize(nfkc, &text[i], toInt32(end - i), run);
      work.insert(work.end(), run.begin(), run.end());
      i = end;
    }
    text.swap(work);
  }
  if ((flags & kNormIgnoreKanaType) != 0) {
    for (UChar& c : text) {
      if ((c >= 0x3041 && c <= 0x3096) || c == 0x309D || c == 0x309E)
        c = static_cast<UChar>(c + 0x60);
    }
  }
}

// Whether ignore-nonspace drops c: a non-spacing mark, or a spacing accent or mark standing alone
// (^ ` ¨ ¯ ´ · ¸ and the modifier letters among the diacritics), as Windows does.
bool nonSpaceCharacter(UChar32 c) {
  const uint32_t gc = U_GET_GC_MASK(c);
  return (gc & U_GC_MN_MASK) != 0 ||
         ((gc & (U_GC_SK_MASK | U_GC_LM_MASK | U_GC_PO_MASK)) != 0 &&
          u_hasBinaryProperty(c, UCHAR_DIACRITIC));
}

// Whether ignore-symbols drops c: blanks, punctuation and symbols, as Windows does also the
// controls that are white space, format characters (the soft hyphen), other numbers (² ¼),
// diacritic modifier letters, and what has only a compatibility form of a letter (ª º µ).
bool symbolCharacter(UChar32 c) {
  const uint32_t gc = U_GET_GC_MASK(c);
  if ((gc & (U_GC_P_MASK | U_GC_S_MASK | U_GC_Z_MASK | U_GC_CF_MASK | U_GC_NO_MASK)) != 0) return true;
  if ((gc & U_GC_CC_MASK) != 0) return u_isUWhiteSpace(c) != 0;
  if ((gc & U_GC_LM_MASK) != 0 && u_hasBinaryProperty(c, UCHAR_DIACRITIC)) return true;
  const int32_t type = u_getIntPropertyValue(c, UCHAR_DECOMPOSITION_TYPE);
  return type != U_DT_NONE && type != U_DT_CANONICAL && (gc & U_GC_L_MASK) != 0;
}

// Drops non-spacing marks (after decomposition) and/or blanks, punctuation and symbols.
void dropCharacters(uint32_t flags, std::vector<UChar>& text, std::vector<UChar>& work) {
  bool nonSpace = (flags & kNormIgnoreNonSpace) != 0;
  bool symbols = (flags & kNormIgnoreSymbols) != 0;
  if (!nonSpace && !symbols) return;
  if (nonSpace) {
    normalize(normalizer(unorm2_getNFDInstance), text.data(), toInt32(text.size()), work);
    text.swap(work);
  }
  work.clear();
  int32_t length = toInt32(text.size());
  for (int32_t i = 0; i < length;) {
    int32_t start = i;
    UChar32 c;
    U16_NEXT(text.data(), i, length, c);
    if (!(nonSpace && nonSpaceCharacter(c)) && !(symbols && symbolCharacter(c)))
      work.insert(work.end(), text.data() + start, text.data() + i);
  }
  if (nonSpace) {
    normalize(normalizer(unorm2_getNFCInstance), work.data(), toInt32(work.size()), text);
  } else {
    text.swap(work);
  }
}

bool encodable(const USet* set, const UChar* text, int32_t length) {
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U16_NEXT(text, i, length, c);
    if (!uset_contains(set, c)) return false;
  }
  return true;
}

// Simple case mapping, one character to one, the same in every locale (as Windows maps case
// unless asked for linguistic casing): ß stays ß under uppercase, Turkish I and i map as anywhere
// else, and no other letter becomes an ASCII one. A mapped character without a byte in the code
// page stays as it was.
void mapCase(MapCache& state, uint32_t flags, const USet* codePageSet) {
  std::vector<UChar>& text = state.text;
  std::vector<UChar>& mapped = state.work;
  const bool upper = (flags & kLcmapUppercase) != 0;
  mapped.clear();
  const int32_t length = toInt32(text.size());
  for (int32_t i = 0; i < length;) {
    const int32_t start = i;
    UChar32 c;
    U16_NEXT(text.data(), i, length, c);
    UChar32 to = upper ? u_toupper(c) : u_tolower(c);
    if (c > 0x7F && to <= 0x7F) to = c;  // İ, ı, ſ and the Kelvin sign keep their form
    UChar unit[U16_MAX_LENGTH];
    int32_t units = 0;
    bool failed = false;
    U16_APPEND(unit, units, U16_MAX_LENGTH, to, failed);
    if (to != c && !failed && encodable(codePageSet, unit, units)) {
      mapped.insert(mapped.end(), unit, unit + units);
    } else {
      mapped.insert(mapped.end(), text.data() + start, text.data() + i);
    }
  }
  text.swap(mapped);
}

void mapText(MapCache& state, uint32_t flags, CodePageEntry& codePage, std::string& out) {
  foldWidthAndKana(flags, state.text, state.work);
  dropCharacters(flags, state.text, state.work);
  if ((flags & (kLcmapLowercase | kLcmapUppercase | kNormIgnoreCase)) != 0) {
    mapCase(state, flags, state.roundTrip(codePage));
  }
  encode(codePage.converter, state.text, out);
}

// Takes hyphens and apostrophes out of the text and returns the tie-break tail that stands for
// them: per character two bytes of its position (base 254, from 2) and 2 for an apostrophe, 3 for a
// hyphen. No byte of the tail is 0 or 1, so it orders like a further collation level.
std::string takeOutWordBreaks(std::vector<UChar>& text) {
  std::string tail;
  size_t kept = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    UChar c = text[i];
    if (c != u'-' && c != u'\'') {
      text[kept++] = c;
      continue;
    }
    size_t position = i < 254 * 254 ? i : 254 * 254 - 1;
    tail.push_back(static_cast<char>(position / 254 + 2));
    tail.push_back(static_cast<char>(position % 254 + 2));
    tail.push_back(static_cast<char>(c == u'\'' ? 2 : 3));
  }
  text.resize(kept);
  return tail;
}

void sortKey(MapCache& state, uint32_t flags, const UCollator* collator, std::string& out) {
  foldWidthAndKana(flags, state.text, state.work);
  std::string tail;
  if ((flags & (kSortStringSort | kNormIgnoreSymbols)) == 0) tail = takeOutWordBreaks(state.text);
  std::vector<uint8_t>& key = state.key;
  if (key.size() < 256) key.resize(256);
  int32_t length = toInt32(state.text.size());
  int32_t needed =
      ucol_getSortKey(collator, state.text.data(), length, key.data(), toInt32(key.size()));
  if (needed > static_cast<int32_t>(key.size())) {
    key.resize(static_cast<size_t>(needed));
    needed = ucol_getSortKey(collator, state.text.data(), length, key.data(), toInt32(key.size()));
  }
  if (needed <= 0 || needed > static_cast<int32_t>(key.size()))
    throw MapFailure{kErrorNotEnoughMemory};
  out.assign(reinterpret_cast<const char*>(key.data()), static_cast<size_t>(needed));
  if (!tail.empty()) {
    out.back() = '\x01';  // the zero ending ICU's key becomes a level separator
    out += tail;
    out.push_back('\0');
  }
}

uint32_t checkFlags(uint32_t flags) {
  if ((flags & ~kKnownFlags) != 0) return kErrorInvalidFlags;
  if ((flags & kLcmapLowercase) != 0 && (flags & kLcmapUppercase) != 0) return kErrorInvalidFlags;
  bool sortKeyAsked = (flags & kLcmapSortKey) != 0;
  if (sortKeyAsked && (flags & (kLcmapLowercase | kLcmapUppercase)) != 0) return kErrorInvalidFlags;
  if (!sortKeyAsked && (flags & kSortStringSort) != 0) return kErrorInvalidFlags;
  return 0;
}

// Maps the source into state.lastResult, or reuses it when the call repeats the last one.
void map(MapCache& state, uint32_t lcid, uint32_t flags, const char* source, size_t length,
         bool terminated) {
  if (state.lastValid && state.lastLcid == lcid && state.lastFlags == flags &&
      state.lastTerminated == terminated && state.lastSource.size() == length &&
      std::memcmp(state.lastSource.data(), source, length) == 0) {
    return;
  }
  state.lastValid = false;
  const LocaleEntry& locale = state.locale(lcid);
  std::string& out = state.lastResult;
  out.clear();
  if (flags == 0) {
    out.assign(source, length);
  } else {
    CodePageEntry& codePage = state.codePage(locale.codePage);
    decode(codePage.converter, source, length, state.text);
    if ((flags & kLcmapSortKey) != 0) {
      sortKey(state, flags, state.collator(lcid, flags, locale), out);
    } else {
      mapText(state, flags, codePage, out);
    }
  }
  if (terminated && (flags & kLcmapSortKey) == 0) out.push_back('\0');
  state.lastSource.assign(source, length);
  state.lastLcid = lcid;
  state.lastFlags = flags;
  state.lastTerminated = terminated;
  state.lastValid = true;
}

int fail(uint32_t code) {
  tLastError = code;
  return 0;
}

}  // namespace

int lcMapString(uint32_t lcid, uint32_t mapFlags, const char* source, int sourceLength,
                char* destination, int capacity) {
  if (sourceLength < -1 || sourceLength == 0 || source == nullptr || capacity < 0 ||
      (destination == nullptr && capacity > 0)) {
    return fail(kErrorInvalidParameter);
  }
  if (uint32_t code = checkFlags(mapFlags)) return fail(code);
  bool terminated = sourceLength == -1;
  size_t length = terminated ? std::strlen(source) : static_cast<size_t>(sourceLength);
  if (length > kMaxSource) return fail(kErrorNotEnoughMemory);

  MapCache& state = cache();
  std::lock_guard<std::mutex> lock(state.mutex);
  try {
    map(state, lcid, mapFlags, source, length, terminated);
  } catch (const MapFailure& failure) {
    return fail(failure.code);
  } catch (const std::bad_alloc&) {
    state.lastValid = false;
    return fail(kErrorNotEnoughMemory);
  }
  const std::string& result = state.lastResult;
  if (result.empty()) return fail(0);  // the text maps to nothing: no error, but nothing to give
  if (result.size() > static_cast<size_t>(INT_MAX)) return fail(kErrorNotEnoughMemory);
  int size = static_cast<int>(result.size());
  if (capacity == 0) return size;
  if (size > capacity) return fail(kErrorInsufficientBuffer);
  std::memcpy(destination, result.data(), result.size());
  return size;
}

uint32_t lastMapError() { return tLastError; }

}  // namespace platform
}  // namespace lowlevel
