// Internal: the loop's delayed calls and timer armings, in one heap by due time,
// served by one libuv timer armed for the earliest of them.
#ifndef ZELSOCKET_SRC_LOOP_TIMER_QUEUE_H
#define ZELSOCKET_SRC_LOOP_TIMER_QUEUE_H

#include <uv.h>

#include <atomic>
#include <cstdint>
#include <limits>

#include "core/parking_lock.h"
#include "core/pod_vector.h"
#include "loop/call_queue.h"

namespace zelsocket {

class IOLoopImpl;
class TimerImpl;

// Due times are microseconds on platform::TickUs, counted from the call, and an
// entry runs once the clock has reached its due time: never early, and late by
// the wake-up of the loop when it is not busy.
//
// The heap belongs to the loop thread and takes no lock.  What other threads
// queue waits in an inbox under the queue's lock (a list push: nothing is
// allocated under the lock), and such a poster wakes the loop only when its
// entry comes due before the time the loop's timer is armed for: the loop
// drains the inbox whenever it re-arms, so a later entry is in the heap in time.
//
// An arming made on the loop thread does not read the clock itself: it waits
// at the tail of the heap's vector (its `due` still the delay), and one clock
// reading stamps all such armings when the running phase of the loop ends --
// before the poll can block (a prepare handle), right after the I/O callbacks
// (a check handle), or when the timers are served.  A delay counted so never
// starts before the call, and later only by what the loop ran after the call
// in the same phase.  The order of the unstamped armings does not matter, so a
// pop may move one of them into the hole it leaves.
class TimerQueue {
 public:
  // An arming made off the loop thread, on its way to the heap; allocated by
  // the arming thread before it takes any lock.
  struct Inbound {
    Inbound* next;
    std::int64_t due;
    std::uint32_t id;
    TimerImpl* timer;
  };

  explicit TimerQueue(IOLoopImpl* owner) : m_owner(owner) {}
  ~TimerQueue();
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;

  // Loop thread, as it starts: makes the handles and opens the queue.
  void Open(uv_loop_t* loop);
  // Loop thread, in the stop sequence: closes the handles and drops every
  // entry (calls told, timers' counts given back), logging their number.
  void Close();

  // Any thread: a delayed call.  Owns `item`; -1 (item deleted) when refused.
  int Delay(CallItem* item, int delayMs);

  // Loop thread, before an arming changes its timer: room for one more entry,
  // so that ArmLocal cannot fail to allocate.  May throw std::bad_alloc.
  void ReserveLocal() { m_heap.reserve(m_heap.size() + 1); }
  // Queues arming `id` of `timer`, already counted in the timer's entries, to
  // come due `delayMs` from now.  ArmLocal on the loop thread (after
  // ReserveLocal); ArmRemote on any other, with a node of its own that it
  // deletes when refused.  False when the loop refuses.
  bool ArmLocal(int delayMs, std::uint32_t id, TimerImpl* timer);
  bool ArmRemote(Inbound* node, int delayMs, std::uint32_t id, TimerImpl* timer);
  // Loop thread, inside a firing: re-arms at `due`, into the slot that the
  // firing's own entry left (so nothing is allocated).  False when refusing.
  bool RearmFromFiring(std::int64_t due, std::uint32_t id, TimerImpl* timer);

  // Loop thread: stamps the armings made on it, takes in what other threads
  // queued, and arms the loop's timer for the earliest entry.  The loop does
  // this itself at the end of each running phase; the benchmarks call it to
  // count that pass with the armings.
  void Settle();

 private:
  struct Entry {
    std::int64_t due;
    std::uint32_t id;  // 0: `target` is a delayed CallItem, else a TimerImpl
    void* target;
  };
  struct DueLater {
    bool operator()(const Entry& a, const Entry& b) const { return a.due > b.due; }
  };
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

  bool _AcceptingHere() const;
  bool _TakeInbound(CallList& calls, Inbound*& armings, std::int64_t* armedDue);
  void _AdmitInbound(CallList& calls, Inbound* armings);
  void _Stamp();
  void _PushStamped(const Entry& entry);
  Entry _PopTop();
  void _ArmTimer(std::int64_t earliest);
  void _Serve();
  template <typename Node>
  int _PushRemote(Node* node, std::int64_t due);
  static void _DropEntry(const Entry& entry);

  static void _OnTimer_Static(uv_timer_t* handle);
  static void _OnStamp_Static(uv_prepare_t* handle);
  static void _OnStampCheck_Static(uv_check_t* handle);
  static void _OnAsync_Static(uv_async_t* handle);

  IOLoopImpl* const m_owner;

  // Loop thread only: the heap in [0, m_heapSize), then the unstamped armings.
  PodVector<Entry> m_heap;
  std::size_t m_heapSize = 0;
  uv_timer_t* m_timer = nullptr;
  std::int64_t m_timerDue = kNever;  // what m_timer is armed for
  uv_prepare_t* m_stampPrepare = nullptr;
  uv_check_t* m_stampCheck = nullptr;
  bool m_open = false;  // written under m_lock, by the loop thread only

  ParkingLock m_lock;
  // Guarded by m_lock.
  CallList m_inCalls;
  Inbound* m_inArmings = nullptr;
  // The due time the loop's timer is armed for, as of the last drain of the
  // inbox: an entry due earlier needs a wake-up, a later one does not.
  std::int64_t m_armedDue = kNever;
  uv_async_t* m_async = nullptr;
  std::atomic<int> m_wakers{0};  // as in CallQueue
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_TIMER_QUEUE_H
