// Public header: thin lock wrappers and small utilities used by the library and
// available to applications.  None of them is reference counted or copyable
// unless stated.
#ifndef ZELSOCKET_SYNC_H
#define ZELSOCKET_SYNC_H

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <functional>

#include "zelsocket/export.h"

namespace zelsocket {

// Counting semaphore, initial count 0.  The constructor throws a heap-allocated
// std::bad_alloc by pointer (catch std::bad_alloc*) if the system refuses it.
class ZELSOCKET_API Semaphore {
 public:
  Semaphore();
  ~Semaphore();
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void Post();
  void Wait();  // no time limit

 private:
  uv_sem_t _sem;
};

// Reader-writer lock.  Construction failure throws like Semaphore's.
class ZELSOCKET_API Rwlock {
 public:
  Rwlock();
  ~Rwlock();
  Rwlock(const Rwlock&) = delete;
  Rwlock& operator=(const Rwlock&) = delete;

  void RLock();
  void RUnlock();
  void WLock();
  void WUnlock();

 private:
  uv_rwlock_t _lock;
};

class ZELSOCKET_API Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock();
  void Unlock();

 private:
  uv_mutex_t _mutex;
};

// Holds a Mutex from construction to destruction.
class ZELSOCKET_API AutoMutexLock {
 public:
  explicit AutoMutexLock(Mutex& mutex);
  ~AutoMutexLock();
  AutoMutexLock(const AutoMutexLock&) = delete;
  AutoMutexLock& operator=(const AutoMutexLock&) = delete;

 private:
  Mutex* _mutex;
};

// Per-owner source of 32-bit cookies: 1, 2, 3, ... 4294967295, then 1 again; 0 is
// never returned, so it can stand for "no cookie".  Lock-free and safe from any
// thread; concurrent callers get distinct values.
class ZELSOCKET_API CookieMgr {
 public:
  CookieMgr() = default;
  // Starts after `last`: the first GetCookie returns last + 1 (skipping 0).
  explicit CookieMgr(std::uint32_t last) : _counter(last) {}
  ~CookieMgr() = default;
  CookieMgr(const CookieMgr&) = delete;
  CookieMgr& operator=(const CookieMgr&) = delete;

  std::uint32_t GetCookie();

 private:
  std::atomic<std::uint32_t> _counter{0};
};

// Runs its function when it goes out of scope, on every path out.  There is no
// way to dismiss it.  An empty function does nothing.
class ZELSOCKET_API ScopeExit {
 public:
  explicit ScopeExit(std::function<void()> fn);
  ~ScopeExit();
  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;

 private:
  std::function<void()>* _fn;
};

// A word of flags.  Not thread-safe: keep it on one thread or under a lock.
class ZELSOCKET_API BitFlag {
 public:
  BitFlag() = default;
  ~BitFlag() { _word = 0xDEAD; }
  BitFlag(const BitFlag& other) = default;
  BitFlag& operator=(const BitFlag& other) {
    _word = other._word;
    return *this;
  }

  void SetFlag(unsigned mask) { _word |= mask; }
  void ResetFlag(unsigned mask) { _word &= ~mask; }
  // True when at least one bit of `mask` is set.
  bool IsFlagOn(unsigned mask) const { return (_word & mask) != 0; }
  BitFlag& operator+=(unsigned mask) {
    SetFlag(mask);
    return *this;
  }
  BitFlag& operator-=(unsigned mask) {
    ResetFlag(mask);
    return *this;
  }
  void ResetAll() { _word = 0; }

 private:
  std::uint32_t _word = 0;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SYNC_H
