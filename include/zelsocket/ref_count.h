// Public header: intrusive reference counting.
//
// Every shared object of the library (buffers, sockets, channels, send options)
// is born with a count of 1 that belongs to its creator, and deletes itself when
// the last reference is released, on whichever thread that happens.
#ifndef ZELSOCKET_REF_COUNT_H
#define ZELSOCKET_REF_COUNT_H

#include <atomic>

#include "zelsocket/export.h"

namespace zelsocket {

// Adds `delta` to `*value` atomically with full ordering and returns the value
// after the addition.
ZELSOCKET_API int AtomicAdd(volatile int* value, int delta);

// Root of every counted interface.  A count is never part of an object's value:
// copying an IRefCount copies nothing.
class ZELSOCKET_API IRefCount {
 public:
  IRefCount() = default;
  IRefCount(const IRefCount&) {}
  IRefCount& operator=(const IRefCount&) { return *this; }
  virtual ~IRefCount() = default;

  // Both return the count after the change.  Safe from any thread.
  virtual int AddRef() = 0;
  virtual int Release() = 0;
};

// Holds the count.  Starts at 1; the object deletes itself through its virtual
// destructor when InternalRelease brings the count to 0.
class ZELSOCKET_API RefCountBase {
 public:
  RefCountBase();
  RefCountBase(const RefCountBase&) = delete;
  RefCountBase& operator=(const RefCountBase&) = delete;
  virtual ~RefCountBase();

 protected:
  int InternalAddRef();
  int InternalRelease();
  // Adds a reference only while one is still held by someone (count above 0).
  // A completion that reaches an object whose last reference is already gone,
  // while its destructor is on the way, gets false and must leave it alone.
  bool InternalTryAddRef();

 private:
  std::atomic<int> _count;
};

// Concrete base for counted classes without a public interface of their own.
class ZELSOCKET_API RefCount : public IRefCount, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
};

// Owning smart pointer over anything with AddRef/Release.  Not thread-safe
// itself: two threads may hold two RefPtrs to one object, not share one RefPtr.
template <typename T>
class RefPtr {
 public:
  RefPtr() = default;
  RefPtr(T* p) : _p(p) {  // NOLINT(google-explicit-constructor): raw pointers convert by design
    if (_p) _p->AddRef();
  }
  RefPtr(const RefPtr& other) : RefPtr(other._p) {}
  RefPtr(RefPtr&& other) noexcept : _p(other._p) { other._p = nullptr; }
  template <typename U>
  RefPtr(const RefPtr<U>& other) : RefPtr(other.Get()) {}  // NOLINT: upcast
  virtual ~RefPtr() {
    if (_p) _p->Release();
    _p = nullptr;
  }

  RefPtr& operator=(T* p) {
    // AddRef first, so that assigning the pointer already held cannot destroy it.
    if (p) p->AddRef();
    T* old = _p;
    _p = p;
    if (old) old->Release();
    return *this;
  }
  RefPtr& operator=(const RefPtr& other) { return *this = other._p; }
  RefPtr& operator=(RefPtr&& other) noexcept {
    if (this != &other) {
      T* old = _p;
      _p = other._p;
      other._p = nullptr;
      if (old) old->Release();
    }
    return *this;
  }

  // Takes over a reference that the caller already owns: no AddRef.
  void Attach(T* p) {
    T* old = _p;
    _p = p;
    if (old) old->Release();
  }
  // Gives up the reference without releasing it.
  T* Detach() {
    T* p = _p;
    _p = nullptr;
    return p;
  }

  T* Get() const { return _p; }
  T* operator->() const { return _p; }
  T& operator*() const { return *_p; }
  operator T*() const { return _p; }  // NOLINT(google-explicit-constructor)

 private:
  T* _p = nullptr;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_REF_COUNT_H
