#include "lowlevel/cmdline/cmdline.h"

#include <cstddef>
#include <memory>

#include "lowlevel/support/support.h"

namespace {

const char kBlank = ' ';
const int16_t kCursorLimit = INT16_MAX;  // a walk gives entries 0 .. kCursorLimit - 1

// The closer of an opener, or 0 when `c` opens nothing.
char CloserOf(char c) {
  switch (c) {
    case '"': return '"';
    case '<': return '>';
    case '{': return '}';
    case '[': return ']';
    default: return 0;
  }
}

// ASCII case folding, as the C locale does it.
char FoldUpper(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

// Two C texts equal but for the case of ASCII letters.
bool EqualNoCase(const char* a, const char* b) {
  for (;; ++a, ++b) {
    if (FoldUpper(*a) != FoldUpper(*b)) return false;
    if (*a == '\0') return true;
  }
}

// Reads a delimited name or value whose opener stands just before `pos`. Leaves `pos` after the
// closer and returns where the content ends; at the end of the text, returns the text's length and
// sets `unterminated`. The closer is tested first, so a quote (its own closer) never nests.
size_t ReadDelimited(const std::string& text, size_t& pos, char opener, char closer,
                     bool& unterminated) {
  const size_t length = text.size();
  size_t depth = 1;
  for (; pos < length; ++pos) {
    const char c = text[pos];
    if (c == closer) {
      if (depth == 1) return pos++;
      --depth;
    } else if (c == opener) {
      ++depth;
    }
  }
  unterminated = true;
  return length;
}

// Makes `part` the bytes [begin, end) of `text`. A string that held a much longer text before gives
// its memory back, so reusing entries never keeps more than a fresh scan would, give or take half.
void AssignPart(std::string& part, const std::string& text, size_t begin, size_t end) {
  const size_t size = end - begin;
  if (part.capacity() > 2 * size + 256) std::string().swap(part);
  part.assign(text, begin, size);
}

}  // namespace

ZCmdLine::ZCmdLine() { CommonInit(); }

ZCmdLine::ZCmdLine(const std::string& text) : m_sCmdLine(text) { CommonInit(); }

ZCmdLine::ZCmdLine(const std::string& first, const std::string& second)
    : m_sCmdLine(first + kBlank + second) {
  CommonInit();
}

ZCmdLine::ZCmdLine(const ZCmdLine& other)
    : m_sCmdLine(other.m_sCmdLine), m_cSep(other.m_cSep), m_bScanned(false), m_nCursor(0) {}

ZCmdLine::~ZCmdLine() = default;

void ZCmdLine::CommonInit() {
  m_bScanned = false;
  m_cSep = '=';
  m_nCursor = 0;
}

ZCmdLine& ZCmdLine::operator=(const ZCmdLine& other) {
  m_sCmdLine = other.m_sCmdLine;
  m_cSep = other.m_cSep;
  m_bScanned = false;
  return *this;
}

ZCmdLine& ZCmdLine::operator=(const std::string& text) {
  m_sCmdLine = text;
  m_bScanned = false;
  return *this;
}

void ZCmdLine::UseSeparator(char separator) {
  if (separator == '\0') return;
  m_cSep = separator;
  m_bScanned = false;
}

void ZCmdLine::Scan() {
  if (m_bScanned) return;
  m_bScanned = true;

  // The entries of the last scan are filled anew in place, and those left over are deleted: the
  // same result as making every entry afresh, without freeing and allocating them all again.
  const std::string& text = m_sCmdLine;
  const size_t length = text.size();
  const char sep = m_cSep;
  bool unterminated = false;
  size_t count = 0;
  size_t pos = 0;
  for (;;) {
    while (pos < length && text[pos] == kBlank) ++pos;
    if (pos >= length) break;

    size_t nameStart = pos, nameEnd;
    char closer = CloserOf(text[pos]);
    if (closer != 0) {
      const char opener = text[pos++];
      nameStart = pos;
      nameEnd = ReadDelimited(text, pos, opener, closer, unterminated);
    } else {
      while (pos < length && text[pos] != kBlank && text[pos] != sep) ++pos;
      nameEnd = pos;
    }

    size_t valueStart = pos, valueEnd = pos;
    if (pos < length && text[pos] == sep) {
      valueStart = valueEnd = ++pos;
      if (pos < length) {
        closer = CloserOf(text[pos]);
        if (closer != 0) {
          const char opener = text[pos++];
          valueStart = pos;
          valueEnd = ReadDelimited(text, pos, opener, closer, unterminated);
        } else {
          while (pos < length && text[pos] != kBlank) ++pos;
          valueEnd = pos;
        }
      }
    }

    EntryInfo* entry = count < m_vParams.size() ? m_vParams[count] : nullptr;
    if (entry == nullptr) {
      std::unique_ptr<EntryInfo> fresh(new EntryInfo);
      if (count < m_vParams.size()) {
        m_vParams[count] = fresh.get();
      } else {
        m_vParams.push_back(fresh.get());
      }
      entry = fresh.release();
    }
    AssignPart(entry->m_sName, text, nameStart, nameEnd);
    AssignPart(entry->m_sValue, text, valueStart, valueEnd);
    ++count;
  }
  while (m_vParams.size() > count) {
    delete m_vParams.back();
    m_vParams.pop_back();
  }

  // An unterminated name or value runs to the end of the text, so it is the last entry and the scan
  // is over. Reporting only now means a reporter that edits this line touches nothing in use.
  if (unterminated) {
    reporterLL("Badly formed ZCmdLine: '" + m_sCmdLine + "'", "ZCmdLine", eReportError, "cmdline",
               __LINE__);
  }
}

bool ZCmdLine::FindFirst(std::string& name, std::string& value) {
  Scan();
  m_nCursor = 0;
  return FindNext(name, value);
}

bool ZCmdLine::FindNext(std::string& name, std::string& value) {
  if (!m_bScanned) return false;
  if (m_nCursor >= 0 && m_nCursor < kCursorLimit &&
      static_cast<size_t>(m_nCursor) < m_vParams.size()) {
    const EntryInfo* entry = m_vParams[static_cast<size_t>(m_nCursor)];
    ++m_nCursor;
    name = entry->m_sName;
    value = entry->m_sValue;
    return true;
  }
  name.clear();
  value.clear();
  return false;
}

bool ZCmdLine::GetValue(const char* name, std::string& value) {
  if (name == nullptr) {
    value.clear();
    return false;
  }
  const std::string key(name);  // `name` may point into `value`
  Scan();
  value.clear();
  for (const EntryInfo* entry : m_vParams) {
    if (EqualNoCase(entry->m_sName.c_str(), key.c_str())) {
      value = entry->m_sValue;
      return true;
    }
  }
  return false;
}

bool ZCmdLine::GetValue(const std::string& name, std::string& value) {
  return GetValue(name.c_str(), value);
}

bool ZCmdLine::GetLongValue(const char* name, int32_t& value) {
  std::string text;
  if (!GetValue(name, text)) return false;
  value = convertStringToLong(text.c_str());
  return true;
}

bool ZCmdLine::GetLongValue(const std::string& name, int32_t& value) {
  return GetLongValue(name.c_str(), value);
}

bool ZCmdLine::GetIntValue(const char* name, int& value) {
  int32_t number = 0;
  if (!GetLongValue(name, number)) return false;
  value = number;
  return true;
}

bool ZCmdLine::GetIntValue(const std::string& name, int& value) {
  return GetIntValue(name.c_str(), value);
}

void ZCmdLine::AddParam(const std::string& parameter) {
  m_sCmdLine += kBlank;
  m_sCmdLine += parameter;
  m_bScanned = false;
}

void ZCmdLine::AddParam(const std::string& name, const std::string& value, bool bBrace) {
  m_sCmdLine += kBlank;
  m_sCmdLine += name;
  m_sCmdLine += m_cSep;
  if (bBrace) m_sCmdLine += '{';
  m_sCmdLine += value;
  if (bBrace) m_sCmdLine += '}';
  m_bScanned = false;
}

void ZCmdLine::SetValue(const std::string& name, const std::string& value) {
  Remove(name);
  AddParam(name, value, true);
}

void ZCmdLine::SetLongValue(const std::string& name, const int32_t& value) {
  const std::string number = std::to_string(value);
  Remove(name);
  AddParam(name, number, true);
}

std::string ZCmdLine::Rebuild(const char* name, const std::string* newValue, bool& found) const {
  found = false;
  std::string line;
  for (const EntryInfo* entry : m_vParams) {
    const std::string* value = &entry->m_sValue;
    if (EqualNoCase(entry->m_sName.c_str(), name)) {
      found = true;
      if (newValue == nullptr) continue;
      value = newValue;
    }
    if (!line.empty()) line += kBlank;
    line += entry->m_sName;
    if (!value->empty()) {
      line += m_cSep;
      line += '{';
      line += *value;
      line += '}';
    }
  }
  return line;
}

void ZCmdLine::CursorToEnd() {
  const size_t count = m_vParams.size();
  m_nCursor = count < static_cast<size_t>(kCursorLimit) ? static_cast<int16_t>(count) : kCursorLimit;
}

bool ZCmdLine::ReplaceValue(const std::string& name, const std::string& value) {
  Scan();
  bool found = false;
  std::string line = Rebuild(name.c_str(), &value, found);
  CursorToEnd();
  if (!found) return false;
  m_sCmdLine.swap(line);
  m_bScanned = false;
  return true;
}

bool ZCmdLine::Remove(const std::string& name) {
  Scan();
  bool found = false;
  std::string line = Rebuild(name.c_str(), nullptr, found);
  CursorToEnd();
  if (found) m_sCmdLine.swap(line);
  m_bScanned = false;
  return found;
}
