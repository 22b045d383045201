// ZFileBase: a thin class over one integer file handle of the platform layer. It adds a rule for who
// closes the handle and the shape of virtual operations that the file classes above it override.
// It buffers nothing and reports nothing: failure is told only by results (false, -1).
#ifndef LOWLEVEL_FILES_FILEBASE_H
#define LOWLEVEL_FILES_FILEBASE_H

#include <cstdint>
#include <string>

#include "lowlevel/lowlevel_export.h"

class LOWLEVEL_EXPORT ZFileBase {
 public:
  // Closed (handle -1) and owning.
  ZFileBase();
  // Wraps a handle opened elsewhere; not owning. A negative handle counts as closed.
  explicit ZFileBase(int handle);
  // A duplicate of the other's handle, owning it whatever the other's ownership; it shares the
  // other's file position. A copy of a closed file is closed.
  ZFileBase(const ZFileBase& other);
  // Closed and owning, then ZFileBase::Open with the same arguments; test IsOpen afterwards.
  ZFileBase(const std::string& path, unsigned short openFlags, unsigned short permissionMode);
  // Closes the handle when owning.
  virtual ~ZFileBase();
  // Copies the handle number and the ownership as they are: no duplicate is made and the handle this
  // object held is not closed first. Afterwards only one of the two may use or close that handle.
  ZFileBase& operator=(const ZFileBase& other);

  // Opens the path with the platform's open flags and permission mode (see platform/io.h). False,
  // leaving the open file alone, when the object is open already.
  virtual bool Open(const std::string& path, unsigned short openFlags,
                    unsigned short permissionMode);
  // Closes the handle, owned or not. True only when the file was open and the close succeeded;
  // the object is closed afterwards in every case.
  virtual bool Close();
  virtual int GetHandle();
  // The current position, -1 on failure.
  virtual int32_t Position();
  // The size in bytes, -1 on failure.
  virtual int32_t Length();
  // Origin 0 from the beginning, 1 from the current position, 2 from the end. The new position, -1
  // on failure.
  virtual int32_t Seek(int32_t offset, int origin);
  // The bytes read, 0 at the end of the file, -1 on failure.
  virtual int Read(void* buffer, int count);
  // The bytes written, -1 on failure.
  virtual int Write(const void* buffer, int count);
  // Makes the system's close-time handling of the file run while the handle stays open. Does
  // nothing on a closed file, and nothing at all on POSIX systems, where writes already reach the
  // system's cache.
  virtual void Flush();

  bool IsOpen() const { return m_nHandle > -1; }
  // Virtual Seek to 0 from the beginning / end.
  int32_t SeekToBegin();
  int32_t SeekToEnd();

 protected:
  int m_nHandle;
  bool m_bOwnsHandle;
};

#endif
