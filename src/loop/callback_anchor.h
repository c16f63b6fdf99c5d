// Internal: counted adapters that stand between a queue (or a libuv request) and
// an owner that may die first.  The queue holds a reference to the anchor, never
// to the owner; the owner disconnects the anchor when it goes, and whatever
// reaches the anchor after that does nothing.
#ifndef ZELSOCKET_SRC_LOOP_CALLBACK_ANCHOR_H
#define ZELSOCKET_SRC_LOOP_CALLBACK_ANCHOR_H

#include <atomic>

#include "zelsocket/io_loop.h"
#include "zelsocket/ref_count.h"

namespace zelsocket {

template <typename Owner>
class CallbackAnchor : public RefCountBase, public IAsyncCallback {
 public:
  using Method = void (Owner::*)(void*);

  // `dropped` (optional) receives the data of a call that a stopping loop drops.
  CallbackAnchor(Owner* target, Method method, Method dropped = nullptr)
      : m_target(target), m_method(method), m_dropped(dropped) {}

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnAsyncCall(void* data) override {
    Owner* target = m_target.load(std::memory_order_acquire);
    if (target && m_method) (target->*m_method)(data);
  }
  void OnAsyncCallDropped(void* data) override {
    Owner* target = m_target.load(std::memory_order_acquire);
    if (target && m_dropped) (target->*m_dropped)(data);
  }

  void Disconnect() { m_target.store(nullptr, std::memory_order_release); }

 private:
  std::atomic<Owner*> m_target;
  const Method m_method;
  const Method m_dropped;
};

template <typename Owner>
class WorkCallbackAnchor : public RefCountBase, public IWorkCallback {
 public:
  using WorkMethod = void (Owner::*)(void*);
  using AfterWorkMethod = void (Owner::*)(int, void*);

  WorkCallbackAnchor(Owner* target, WorkMethod work, AfterWorkMethod afterWork, WorkMethod dropped)
      : m_target(target), m_work(work), m_afterWork(afterWork), m_dropped(dropped) {}

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void OnWork(void* data) override {
    Owner* target = m_target.load(std::memory_order_acquire);
    if (target && m_work) (target->*m_work)(data);
  }
  void OnAfterWork(int status, void* data) override {
    Owner* target = m_target.load(std::memory_order_acquire);
    if (target && m_afterWork) (target->*m_afterWork)(status, data);
  }
  void OnWorkDropped(void* data) override {
    Owner* target = m_target.load(std::memory_order_acquire);
    if (target && m_dropped) (target->*m_dropped)(data);
  }

  void Disconnect() { m_target.store(nullptr, std::memory_order_release); }

 private:
  std::atomic<Owner*> m_target;
  const WorkMethod m_work;
  const AfterWorkMethod m_afterWork;
  const WorkMethod m_dropped;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_CALLBACK_ANCHOR_H
