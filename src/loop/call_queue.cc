#include "loop/call_queue.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <thread>

#include "core/check.h"
#include "core/logging.h"
#include "core/platform.h"
#include "loop/io_loop_impl.h"
#include "loop/uv_handles.h"

#if defined(__GNUC__) || defined(__clang__)
#define ZS_PREFETCH(p) __builtin_prefetch(p)
#elif defined(_MSC_VER) && (defined(_M_X64) || defined(_M_IX86))
#include <xmmintrin.h>
#define ZS_PREFETCH(p) _mm_prefetch(reinterpret_cast<const char*>(p), _MM_HINT_T0)
#else
#define ZS_PREFETCH(p) ((void)(p))
#endif

namespace zelsocket {

namespace {

// The longest a batch of queued calls keeps the loop from its timers and I/O,
// plus the one call running when it runs out.  A millisecond keeps a timer or
// a datagram waiting behind a flood for about that long, and costs the flood
// one loop iteration (a few microseconds: the timer check and a poll that does
// not block) per millisecond of calls.
constexpr std::uint64_t kBatchBudgetUs = 1000;
// Calls run between two looks at the clock at most: bounds how far a run of
// calls that suddenly take long can overshoot the budget.
constexpr std::uint64_t kMaxCallsBetweenLooks = 32;

}  // namespace

void RunCallItem(CallItem* item) {
  item->Run();
  SyncWait* sync = item->sync;
  delete item;
  if (sync) sync->sem.Post();
}

void DropCallItem(CallItem* item) {
  item->Drop();
  SyncWait* sync = item->sync;
  delete item;
  if (sync) {
    sync->dropped = true;
    sync->sem.Post();
  }
}

bool CallList::remove(CallItem* item) {
  CallItem* prev = nullptr;
  for (CallItem* it = m_head; it; prev = it, it = it->next) {
    if (it != item) continue;
    if (prev) prev->next = it->next;
    else m_head = it->next;
    if (m_tail == it) m_tail = prev;
    it->next = nullptr;
    --m_size;
    return true;
  }
  return false;
}

CallQueue::~CallQueue() { ZS_DCHECK(m_queue.empty() && m_batch.empty() && m_late.empty()); }

void CallQueue::Open(uv_loop_t* loop) {
  ZS_DCHECK(m_owner->IsLoopThread());
  auto* async = NewLoopHandle<uv_async_t>(this);
  uv_async_init(loop, async, _OnAsync_Static);
  m_check = NewLoopHandle<uv_check_t>(this);
  uv_check_init(loop, m_check);
  m_idle = NewLoopHandle<uv_idle_t>(this);
  uv_idle_init(loop, m_idle);
  std::lock_guard<ParkingLock> guard(m_lock);
  m_async = async;
  m_open = true;
  m_lateOpen = true;
  m_serviceDue = false;
}

CallQueue::Accepted CallQueue::_Push(CallItem* item, bool& wake, std::uint64_t& generation, uv_async_t*& async) {
  const bool onLoop = m_owner->IsLoopThread();
  std::lock_guard<ParkingLock> guard(m_lock);
  if (!m_open) {
    if (!item->final || !m_lateOpen) return Accepted::kRefused;
    m_late.push(item);
    return Accepted::kLate;
  }
  m_queue.push(item);
  wake = !m_serviceDue;
  // The loop thread arms the service itself, at no cost: it needs nobody.
  if (onLoop) m_serviceDue = true;
  else if (wake) m_wakers.fetch_add(1, std::memory_order_relaxed);
  generation = m_generation;
  async = m_async;
  return Accepted::kQueued;
}

int CallQueue::Post(CallItem* item, bool sync) {
  std::optional<SyncWait> wait;  // a semaphore is made for a caller who waits, not for every post
  if (sync) item->sync = &wait.emplace();
  bool wake = false;
  std::uint64_t generation = 0;
  uv_async_t* async = nullptr;
  switch (_Push(item, wake, generation, async)) {
    case Accepted::kRefused:
      delete item;  // outside the lock: it may hold the application's objects
      return -1;
    case Accepted::kLate:
      break;
    case Accepted::kQueued:
      if (!wake) break;
      if (!sync && m_owner->IsLoopThread()) {
        _ArmService();
        return 0;
      }
      if (_Wake(sync ? item : nullptr, generation, async) != 0) return -1;
      break;
  }
  if (!sync) return 0;
  wait->sem.Wait();
  return wait->dropped ? -1 : 0;
}

// A failed wake-up leaves a posted item queued for a later one; a SyncCall
// caller takes its item back unless the loop has it already.
int CallQueue::_Wake(CallItem* syncItem, std::uint64_t generation, uv_async_t* async) {
  ZS_SEAM(g_beforeCallWake);
  int rc = uv_async_send(async);
  bool removed = false;
  {
    std::lock_guard<ParkingLock> guard(m_lock);
    // Sent: the next batch is on its way, unless the loop has since served
    // the queue to the end, in which case the wake-up is spent.
    if (rc == 0 && m_generation == generation) m_serviceDue = true;
    if (rc != 0 && syncItem) removed = m_queue.remove(syncItem);
  }
  m_wakers.fetch_sub(1, std::memory_order_release);
  if (rc == 0) return 0;
  LogError(tag::kLoop, "IoLoop.AsyncCallSafe, uv_async_send fail.");
  if (!syncItem) return -1;
  if (removed) {
    delete syncItem;
    return -1;
  }
  return 0;  // the loop has it: wait for it
}

bool CallQueue::RunFinal(const std::function<void()>& fn) {
  ZS_DCHECK(!m_owner->IsLoopThread());
  auto* item = new CallItem();
  item->final = true;
  item->fn = fn;
  return Post(item, true) == 0;
}

void CallQueue::_OnAsync_Static(uv_async_t* handle) { static_cast<CallQueue*>(handle->data)->_ArmService(); }

void CallQueue::_OnCheck_Static(uv_check_t* handle) { static_cast<CallQueue*>(handle->data)->_Serve(); }

// Only its being active matters: it makes the poll return at once.
void CallQueue::_OnIdle_Static(uv_idle_t* /*handle*/) {}

// The batch comes in the check phase.  The idle handle keeps the poll from
// blocking before it: a wake-up is mostly handled right after the poll, but
// libuv on Windows defers what it cannot finish there to the next iteration,
// ahead of the poll.  _Serve stops it once the queue is empty.
void CallQueue::_ArmService() {
  ZS_DCHECK(m_owner->IsLoopThread());
  if (!m_check) return;
  uv_check_start(m_check, _OnCheck_Static);
  uv_idle_start(m_idle, _OnIdle_Static);
}

void CallQueue::_Serve() {
  ZS_DCHECK(m_owner->IsLoopThread());
  if (m_batch.empty()) {
    std::lock_guard<ParkingLock> guard(m_lock);
    m_batch.splice(m_queue);
  }
  const std::uint64_t start = platform::TickUs();
  std::uint64_t served = 0, nextLook = 1;
  // Once a stop has begun, what is left is the stop's to drop.  libuv on POSIX
  // serves the stop's wake-up ahead of this one, on Windows in the order they
  // were sent; either way no call starts after the stop began.
  while (!m_owner->StopBegun()) {
    CallItem* item = m_batch.pop();
    if (!item) break;
    // Items were written on other CPUs: fetch the next while this one runs,
    // as a walk over an array of pointers would let the processor do.
    ZS_PREFETCH(m_batch.front());
    RunCallItem(item);
    if (++served < nextLook) continue;
    // The clock is read again when, at the pace so far, about half of what is
    // left of the budget has gone: every call while calls are long, every few
    // dozen while they take nanoseconds (a clock read costs as much as a
    // short call).
    const std::uint64_t elapsed = platform::TickUs() - start;
    if (elapsed >= kBatchBudgetUs) break;
    const std::uint64_t pace = elapsed / served;
    const std::uint64_t stride = pace ? (kBatchBudgetUs - elapsed) / (2 * pace) : kMaxCallsBetweenLooks;
    nextLook = served + std::max<std::uint64_t>(1, std::min(stride, kMaxCallsBetweenLooks));
  }
  if (!m_check) return;  // a target cannot stop the loop, but stay safe
  bool more = !m_batch.empty();
  if (!more) {
    std::lock_guard<ParkingLock> guard(m_lock);
    more = !m_queue.empty();
    if (!more) {
      m_serviceDue = false;
      ++m_generation;
    }
  }
  if (more) {
    uv_idle_start(m_idle, _OnIdle_Static);
  } else {
    uv_check_stop(m_check);
    uv_idle_stop(m_idle);
  }
}

void CallQueue::Close() {
  ZS_DCHECK(m_owner->IsLoopThread());
  if (!m_check) return;
  CallList pending;
  {
    std::lock_guard<ParkingLock> guard(m_lock);
    m_open = false;
    m_serviceDue = false;
    pending.splice(m_queue);
  }
  // Taken before the stop but not started: they were queued first.
  m_batch.splice(pending);
  LogInfo(tag::kLoop, "IOLoopImpl::_AsyncStop, pending-async-call=%u", static_cast<unsigned>(m_batch.size()));
  while (m_wakers.load(std::memory_order_acquire) != 0) std::this_thread::yield();
  uv_async_t* async = m_async;  // no poster reads it any more
  m_async = nullptr;
  CloseLoopHandle(async);
  CloseLoopHandle(m_check);
  CloseLoopHandle(m_idle);
  // Dropped outside the lock: what an item owns may post again (and be refused).
  // A teardown is run, not dropped: its caller cannot go on without it.
  while (CallItem* item = m_batch.pop()) {
    if (item->final) RunCallItem(item);
    else DropCallItem(item);
  }
}

void CallQueue::RunLateFinals() {
  ZS_DCHECK(m_owner->IsLoopThread());
  CallList late;
  {
    std::lock_guard<ParkingLock> guard(m_lock);
    m_lateOpen = false;
    late.splice(m_late);
  }
  while (CallItem* item = late.pop()) RunCallItem(item);
}

}  // namespace zelsocket
