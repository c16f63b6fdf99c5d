// Public header: the growable, reference-counted byte buffer in which all data
// travels through the library.
//
// Send operations take an IConstBuffer, receive operations an IMutableBuffer.
// A socket or channel keeps its own reference while an operation on the buffer is
// in flight, so the caller may release its reference right after the call; it
// must not change the contents until the matching sink callback.  Only the count
// is thread-safe: one thread at a time may use the contents.
#ifndef ZELSOCKET_BUFFER_H
#define ZELSOCKET_BUFFER_H

#include "zelsocket/export.h"
#include "zelsocket/ref_count.h"

namespace zelsocket {

class ZELSOCKET_API IConstBuffer : public IRefCount {
 public:
  virtual const unsigned char* GetBuf() const = 0;  // null until storage exists
  virtual int GetLength() const = 0;                // valid bytes
  virtual int GetCapacity() const = 0;              // allocated bytes
  virtual bool IsEmpty() const = 0;                 // length is 0
  // Own length minus `length` when they differ (bytes not looked at); else memcmp.
  virtual int Compare(const void* data, int length) const = 0;
};

class ZELSOCKET_API IMutableBuffer : public IConstBuffer {
 public:
  using IConstBuffer::GetBuf;
  virtual unsigned char* GetBuf() = 0;
  // Sets the length, growing the storage exactly as Reserve does.  Bytes that a
  // growth adds are not cleared; shrinking keeps the capacity.
  virtual bool Resize(int size) = 0;
  // Grows the storage to exactly `size` bytes (at least 16); never shrinks.
  virtual bool Reserve(int size) = 0;
  // Replaces the contents.  A length of 0 changes nothing.
  virtual bool CopyFrom(const void* data, int length) = 0;
  // Appends; when the total does not fit, the storage grows to twice the total.
  // Totals of 2^30 bytes or more are refused.
  virtual bool Append(const void* data, int length) = 0;
  // The source of CopyFrom/Append must not lie inside the buffer itself.
  // All four return false only when memory is exhausted, leaving the buffer as it was.
};

// Makes an empty buffer (no storage yet).  The caller owns the one reference and
// ends it with Release.  False only for a null `out`.
ZELSOCKET_API bool CreateBuffer(IMutableBuffer** out);
// Releases what `out` held, then stores a new buffer with a count of 1.
ZELSOCKET_API bool CreateBuffer(RefPtr<IMutableBuffer>& out);

// Value class over one buffer object of its own; copies copy the bytes, never
// share the object.  Converts to the interface pointers (without AddRef) so that
// it can be handed straight to Send and Recv.
class ZELSOCKET_API Buffer {
 public:
  Buffer();
  Buffer(const Buffer& other);
  ~Buffer();
  Buffer& operator=(const Buffer& other);

  unsigned char* GetBuf();
  const unsigned char* GetBuf() const;
  int GetLength() const;
  int GetCapacity() const;
  bool IsEmpty() const;
  int Compare(const void* data, int length) const;
  bool Resize(int size);
  bool Reserve(int size);
  bool CopyFrom(const void* data, int length);
  bool Append(const void* data, int length);

  operator IConstBuffer*();              // NOLINT(google-explicit-constructor)
  operator IMutableBuffer*();            // NOLINT(google-explicit-constructor)
  operator const IConstBuffer*() const;  // NOLINT(google-explicit-constructor)
  operator const IMutableBuffer*() const;  // NOLINT(google-explicit-constructor)

 private:
  IMutableBuffer* _buffer;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_BUFFER_H
