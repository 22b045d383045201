#include "lowlevel/files/file.h"

#include "lowlevel/platform/io.h"

#include <algorithm>

std::vector<ZFile*> ZFile::m_vCdFiles;
std::vector<ZFile*> ZFile::m_vNonCdFiles;

namespace {

bool takeOut(std::vector<ZFile*>& list, ZFile* file) {
  auto it = std::find(list.begin(), list.end(), file);
  if (it == list.end()) return false;
  list.erase(it);
  return true;
}

bool contains(const std::vector<ZFile*>& list, const ZFile* file) {
  return std::find(list.begin(), list.end(), file) != list.end();
}

}  // namespace

ZFile::ZFile()
    : ZCompressedFileBase(), m_eCdVolType(eCDVolNone), m_nOpenFlags(0), m_nPermission(0),
      m_bReopenPending(false), m_lSavedPosition(0) {}

ZFile::ZFile(int handle)
    : ZCompressedFileBase(handle), m_eCdVolType(eCDVolNone), m_nOpenFlags(0), m_nPermission(0),
      m_bReopenPending(false), m_lSavedPosition(0) {}

ZFile::ZFile(const ZFile& other)
    : ZCompressedFileBase(other), m_eCdVolType(other.m_eCdVolType), m_sPath(other.m_sPath),
      m_nOpenFlags(other.m_nOpenFlags), m_nPermission(other.m_nPermission),
      m_bReopenPending(other.m_bReopenPending), m_lSavedPosition(other.m_lSavedPosition) {}

ZFile::ZFile(const std::string& path, unsigned short openFlags, unsigned short permissionMode)
    : ZFile(path, std::string(), openFlags, permissionMode) {}

ZFile::ZFile(const std::string& path, const std::string& location, unsigned short openFlags,
             unsigned short permissionMode)
    : ZCompressedFileBase(), m_eCdVolType(eCDVolNone), m_sPath(path), m_nOpenFlags(openFlags),
      m_nPermission(permissionMode), m_bReopenPending(false), m_lSavedPosition(0) {
  ZFile::Open(path, location, openFlags, permissionMode);
}

ZFile::~ZFile() { RemoveObject(); }

ZFile& ZFile::operator=(const ZFile& other) {
  if (this == &other) return *this;
  // The left side leaves the lists and becomes what a copy of the right side would be.
  RemoveObject();
  ZCompressedFileBase::operator=(other);
  m_eCdVolType = other.m_eCdVolType;
  m_sPath = other.m_sPath;
  m_nOpenFlags = other.m_nOpenFlags;
  m_nPermission = other.m_nPermission;
  m_bReopenPending = other.m_bReopenPending;
  m_lSavedPosition = other.m_lSavedPosition;
  return *this;
}

bool ZFile::Open(const std::string& path, unsigned short openFlags,
                 unsigned short permissionMode) {
  return Open(path, std::string(), openFlags, permissionMode);
}

bool ZFile::Open(const std::string& path, const std::string& location, unsigned short openFlags,
                 unsigned short permissionMode) {
  if (IsOpen()) {
    Close();
  } else {
    RemoveObject();  // a failed open or a parked file is still listed
  }
  m_sPath = path;
  m_nOpenFlags = openFlags;
  m_nPermission = permissionMode;
  m_bReopenPending = false;
  BuildPath(m_sPath, location.c_str());
  return OpenInternal(true);
}

bool ZFile::OpenInternal(bool addToList) {
  if (IsOpen()) return false;
  std::string working = m_sPath;
  if (!ResolvePath(working, m_eCdVolType, false, false)) return false;
  if (addToList) {
    AddObject();
  } else if (contains(m_vCdFiles, this) || contains(m_vNonCdFiles, this)) {
    AddObject();  // a listed file whose volume type changed on re-resolution moves lists
  }
  if (ZCompressedFileBase::Open(working, m_nOpenFlags, m_nPermission)) return true;
  if (!IsCdFile()) return false;
  working = m_sPath;
  eCDVolType volume = m_eCdVolType;
  if (!ResolvePath(working, volume, true, false)) return false;
  return ZCompressedFileBase::Open(working, m_nOpenFlags, m_nPermission);
}

bool ZFile::ReopenInternal() {
  if (!m_bReopenPending) return false;
  if (IsOpen()) {
    m_bReopenPending = false;
    return false;
  }
  bool reopened = OpenInternal(false);
  m_bReopenPending = !IsOpen();
  if (IsOpen()) Seek(m_lSavedPosition, 0);
  return reopened;
}

bool ZFile::CloseInternal() { return ZCompressedFileBase::Close(); }

void ZFile::AddObject() {
  // Taking the object out first keeps it at most once in at most one list, whatever list it stood
  // in before.
  takeOut(m_vCdFiles, this);
  takeOut(m_vNonCdFiles, this);
  (IsCdFile() ? m_vCdFiles : m_vNonCdFiles).push_back(this);
}

bool ZFile::RemoveObject() {
  // The list that the volume type names first, then the other: the type may have changed since the
  // object was listed.
  bool found = IsCdFile() ? takeOut(m_vCdFiles, this) || takeOut(m_vNonCdFiles, this)
                          : takeOut(m_vNonCdFiles, this) || takeOut(m_vCdFiles, this);
  if (!found) return false;
  m_eCdVolType = eCDVolNone;
  m_bReopenPending = false;
  return true;
}

bool ZFile::Close() {
  RemoveObject();
  return CloseInternal();
}

int ZFile::GetHandle() {
  ReopenInternal();
  lowlevel::platform::syncPosition(m_nHandle);  // whoever takes the handle sees the object's position
  return m_nHandle;
}

template <class Operation>
auto ZFile::withRetry(Operation operation) -> decltype(operation()) {
  ReopenInternal();
  if (!IsOpen()) return -1;
  auto result = operation();
  if (result >= 0) return result;
  if (lowlevel::support().requestCdVolume(m_eCdVolType, false) == nullptr) return result;
  ReopenInternal();
  if (!IsOpen()) return result;
  return operation();
}

int32_t ZFile::Position() {
  return withRetry([this] { return ZCompressedFileBase::Position(); });
}

int32_t ZFile::Length() {
  return withRetry([this] { return ZCompressedFileBase::Length(); });
}

int32_t ZFile::Seek(int32_t offset, int origin) {
  return withRetry([this, offset, origin] { return ZCompressedFileBase::Seek(offset, origin); });
}

int ZFile::Read(void* buffer, int count) {
  return withRetry([this, buffer, count] { return ZCompressedFileBase::Read(buffer, count); });
}

void ZFile::CloseAll(eFileTypes types) {
  auto park = [](std::vector<ZFile*>& list) {
    for (size_t i = 0; i < list.size(); ++i) {
      ZFile* file = list[i];
      if (!file->IsOpen()) continue;
      int32_t position = file->ZCompressedFileBase::Position();
      file->m_lSavedPosition = position < 0 ? 0 : position;
      file->m_bReopenPending = true;
      file->CloseInternal();
    }
  };
  if (types == eAllFiles || types == eCdFiles) park(m_vCdFiles);
  if (types == eAllFiles || types == eNonCdFiles) park(m_vNonCdFiles);
}
