#include "lowlevel/files/filebase.h"

#include "lowlevel/platform/io.h"

namespace io = lowlevel::platform;

// The system's critical-error prompt that reads and closes would guard against does not exist on
// POSIX systems, so reads and closes go straight to the handle.

ZFileBase::ZFileBase() : m_nHandle(-1), m_bOwnsHandle(true) {}

ZFileBase::ZFileBase(int handle) : m_nHandle(handle < 0 ? -1 : handle), m_bOwnsHandle(false) {}

ZFileBase::ZFileBase(const ZFileBase& other)
    : m_nHandle(io::dup(other.m_nHandle)), m_bOwnsHandle(true) {}

ZFileBase::ZFileBase(const std::string& path, unsigned short openFlags,
                     unsigned short permissionMode)
    : m_nHandle(-1), m_bOwnsHandle(true) {
  ZFileBase::Open(path, openFlags, permissionMode);
}

ZFileBase::~ZFileBase() {
  if (m_bOwnsHandle) ZFileBase::Close();
}

ZFileBase& ZFileBase::operator=(const ZFileBase& other) {
  m_nHandle = other.m_nHandle;
  m_bOwnsHandle = other.m_bOwnsHandle;
  return *this;
}

bool ZFileBase::Open(const std::string& path, unsigned short openFlags,
                     unsigned short permissionMode) {
  if (IsOpen()) return false;
  m_nHandle = io::open(path.c_str(), openFlags, permissionMode);
  if (m_nHandle < -1) m_nHandle = -1;
  return m_nHandle > -1;
}

bool ZFileBase::Close() {
  bool wasOpen = IsOpen();
  bool closed = wasOpen && io::close(m_nHandle) == 0;
  m_nHandle = -1;
  return closed;
}

int ZFileBase::GetHandle() {
  io::syncPosition(m_nHandle);  // whoever takes the handle sees the object's position
  return m_nHandle;
}

int32_t ZFileBase::Position() { return io::tell(m_nHandle); }

int32_t ZFileBase::Length() { return io::filelength(m_nHandle); }

int32_t ZFileBase::Seek(int32_t offset, int origin) { return io::lseek(m_nHandle, offset, origin); }

int ZFileBase::Read(void* buffer, int count) {
  if (count < 0) return -1;
  return io::read(m_nHandle, buffer, static_cast<unsigned>(count));
}

int ZFileBase::Write(const void* buffer, int count) {
  if (count < 0) return -1;
  return io::write(m_nHandle, buffer, static_cast<unsigned>(count));
}

// Flush stands for running the system's close-time handling while the handle stays open. On
// POSIX systems every write already reaches the system's cache and closing a duplicate adds
// nothing (it would only drop the process's record locks on the file), so there is nothing to do.
void ZFileBase::Flush() {}

int32_t ZFileBase::SeekToBegin() { return Seek(0, 0); }

int32_t ZFileBase::SeekToEnd() { return Seek(0, 2); }
