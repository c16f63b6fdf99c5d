#include "zelsocket/sync.h"

#include <new>

namespace zelsocket {

Semaphore::Semaphore() {
  if (uv_sem_init(&_sem, 0) != 0) throw std::bad_alloc();
}
Semaphore::~Semaphore() { uv_sem_destroy(&_sem); }
void Semaphore::Post() { uv_sem_post(&_sem); }
void Semaphore::Wait() { uv_sem_wait(&_sem); }

Rwlock::Rwlock() {
  if (uv_rwlock_init(&_lock) != 0) throw std::bad_alloc();
}
Rwlock::~Rwlock() { uv_rwlock_destroy(&_lock); }
void Rwlock::RLock() { uv_rwlock_rdlock(&_lock); }
void Rwlock::RUnlock() { uv_rwlock_rdunlock(&_lock); }
void Rwlock::WLock() { uv_rwlock_wrlock(&_lock); }
void Rwlock::WUnlock() { uv_rwlock_wrunlock(&_lock); }

Mutex::Mutex() { uv_mutex_init(&_mutex); }
Mutex::~Mutex() { uv_mutex_destroy(&_mutex); }
void Mutex::Lock() { uv_mutex_lock(&_mutex); }
void Mutex::Unlock() { uv_mutex_unlock(&_mutex); }

AutoMutexLock::AutoMutexLock(Mutex& mutex) : _mutex(&mutex) { _mutex->Lock(); }
AutoMutexLock::~AutoMutexLock() { _mutex->Unlock(); }

std::uint32_t CookieMgr::GetCookie() {
  for (;;) {
    std::uint32_t cookie = _counter.fetch_add(1, std::memory_order_relaxed) + 1;
    if (cookie != 0) return cookie;
  }
}

ScopeExit::ScopeExit(std::function<void()> fn) : _fn(new std::function<void()>(std::move(fn))) {}
ScopeExit::~ScopeExit() {
  if (*_fn) (*_fn)();
  delete _fn;
}

}  // namespace zelsocket
