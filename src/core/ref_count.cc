#include "zelsocket/ref_count.h"

#include "core/platform.h"

namespace zelsocket {

int AtomicAdd(volatile int* value, int delta) { return platform::AtomicAddFull(value, delta); }

RefCountBase::RefCountBase() : _count(1) {}

RefCountBase::~RefCountBase() { _count.store(-1, std::memory_order_relaxed); }

// A new reference can only come from an existing one, so the increment needs no
// ordering; the decrement orders every use of the object before its deletion.
int RefCountBase::InternalAddRef() { return _count.fetch_add(1, std::memory_order_relaxed) + 1; }

bool RefCountBase::InternalTryAddRef() {
  int count = _count.load(std::memory_order_relaxed);
  while (count > 0) {
    if (_count.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) return true;
  }
  return false;
}

int RefCountBase::InternalRelease() {
  int count = _count.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (count == 0) delete this;
  return count;
}

}  // namespace zelsocket
