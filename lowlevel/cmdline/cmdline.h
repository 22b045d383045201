// ZCmdLine: a line of parameters (names, each with an optional value) held as one text.
//
// The text is the master copy. The list of entries is a cache, made from the text by Scan on the
// first read after a change and thrown away by every edit, so a run of edits costs no parsing.
//
// Grammar. Parameters are separated by blanks (code 32 only; a tab is an ordinary character). A
// parameter is a name, optionally followed directly by the separator ("=" unless changed) and a
// value. A name or a value that begins with one of the openers " < { [ runs to its closer " > } ],
// which is dropped with the opener; inside it, delimiters of the same pair nest (except the quote,
// which never nests) and all other characters are plain text. A bare name ends at a blank or the
// separator, a bare value only at a blank. Delimiters count only as the first character of a name or
// value. There are no escapes. A text that ends inside a delimited name or value is reported once
// per scan ("Badly formed ZCmdLine: '<text>'", function "ZCmdLine", error, module "cmdline"); the
// name or value then runs to the end of the text and the entry is kept.
//
// Names are compared whole, ignoring the case of ASCII letters, and as C texts (up to a NUL byte).
//
// The walk cursor is a signed 16-bit number, so a walk with FindFirst/FindNext gives at most the
// first 32767 entries of a line: on a longer line the walk ends there, FindNext then behaving as at
// the end of the entries. Nothing else is limited by it: lookups by name, Remove and ReplaceValue
// see every entry, and a rebuild keeps every entry.
//
// An object is used by one thread at a time; even the lookups change it (they may scan).
#ifndef LOWLEVEL_CMDLINE_CMDLINE_H
#define LOWLEVEL_CMDLINE_CMDLINE_H

#include <cstdint>
#include <string>

#include "lowlevel/cmdline/pointervector.h"
#include "lowlevel/lowlevel_export.h"

class LOWLEVEL_EXPORT ZCmdLine {
 public:
  // One parameter of the line, without its delimiters. An empty value and no value are the same.
  struct EntryInfo {
    std::string m_sName;
    std::string m_sValue;
  };

  // An empty line.
  ZCmdLine();
  // The given text.
  explicit ZCmdLine(const std::string& text);
  // The first text, one blank, and the second text; the blank is there even if a text is empty.
  ZCmdLine(const std::string& first, const std::string& second);
  // The other's text and separator, not scanned, cursor 0.
  ZCmdLine(const ZCmdLine& other);
  ~ZCmdLine();

  // Take the other's text and separator; the entries must be scanned afresh. The cursor stays.
  ZCmdLine& operator=(const ZCmdLine& other);
  // Take the text and keep the separator; the entries must be scanned afresh. The cursor stays.
  ZCmdLine& operator=(const std::string& text);

  // Makes `separator` the character between a name and its value; the entries must be scanned
  // afresh. A separator of code 0 is refused and changes nothing: it could not be told from the end
  // of a C text, and a rebuild would write it into the text.
  void UseSeparator(char separator);

  // Parses the text into the entries unless they already match it. Cheap when nothing changed, so
  // every reading operation calls it. Does not move the cursor.
  void Scan();

  // Scans, moves the cursor to the first entry and gives it as FindNext does.
  bool FindFirst(std::string& name, std::string& value);
  // Gives the entry at the cursor and moves the cursor on. Never scans: after an edit it returns
  // false and leaves both outputs alone until FindFirst or a lookup has scanned again. At the end
  // of the entries (or of the walk, see above) it empties both outputs and returns false.
  bool FindNext(std::string& name, std::string& value);

  // The value of the first entry of that name (later duplicates are never seen). Scans; does not
  // move the cursor. Not found: false and an empty value. An entry without a value gives true and
  // an empty value. A null name finds nothing.
  bool GetValue(const char* name, std::string& value);
  bool GetValue(const std::string& name, std::string& value);
  // GetValue, then the value read as a number ("0x" hexadecimal, else decimal; a text that is no
  // number reads as 0 and still gives true). Not found: false and `value` left alone.
  bool GetLongValue(const char* name, int32_t& value);
  bool GetLongValue(const std::string& name, int32_t& value);
  bool GetIntValue(const char* name, int& value);
  bool GetIntValue(const std::string& name, int& value);

  // Appends a blank and the parameter to the text as it stands, with no checks.
  void AddParam(const std::string& parameter);
  // Appends a blank, the name, the separator and the value: in { } when bBrace is set, bare
  // otherwise. An existing entry of that name stays and is found first.
  void AddParam(const std::string& name, const std::string& value, bool bBrace);
  // Remove of the name, then AddParam(name, value, true): the entry ends up last, once.
  void SetValue(const std::string& name, const std::string& value);
  // As SetValue, with the number written in decimal.
  void SetLongValue(const std::string& name, const int32_t& value);
  // Gives every entry of that name the new value and rebuilds the text. Not found: false, and the
  // text and the entries stay as they were.
  bool ReplaceValue(const std::string& name, const std::string& value);
  // Drops every entry of that name and rebuilds the text. Not found: false and the text stays byte
  // for byte, though the next read scans again.
  //
  // A rebuild writes each entry as name, or as name, separator, "{" value "}" when the value is not
  // empty, separated by single blanks. It does not quote names: a name with a blank or the separator
  // in it, or one that begins with an opener, reads back differently, as does a value with
  // unmatched braces; an entry with neither name nor value vanishes.
  bool Remove(const std::string& name);

  // The text, never null; valid until the next edit. Does not scan.
  const char* Get() const { return m_sCmdLine.c_str(); }
  // A copy of the whole text. Does not scan.
  std::string GetCommand() const { return m_sCmdLine; }

 protected:
  // Not scanned, separator "=", cursor 0.
  void CommonInit();
  char cSep() const { return m_cSep; }
  void Copy(const ZCmdLine& other) { *this = other; }
  void Copy(const std::string& text) { *this = text; }

 private:
  // The line made from the entries, in order, as described at Remove. Entries named `name` are
  // dropped when newValue is null and take *newValue otherwise; `found` tells whether there was one.
  std::string Rebuild(const char* name, const std::string* newValue, bool& found) const;
  // Moves the cursor to where a walk over all entries stops.
  void CursorToEnd();

  std::string m_sCmdLine;
  char m_cSep;
  bool m_bScanned;
  PointerVector<EntryInfo> m_vParams;
  int16_t m_nCursor;
};

#endif
