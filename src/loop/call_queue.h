// Internal: the queue of posted calls (AsyncCall, SyncCall, Async's posts and
// the teardowns of RunFinal), and how the loop thread serves it.
#ifndef ZELSOCKET_SRC_LOOP_CALL_QUEUE_H
#define ZELSOCKET_SRC_LOOP_CALL_QUEUE_H

#include <uv.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "core/parking_lock.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {

class IOLoopImpl;

// What a SyncCall from another thread waits on.  Lives on the caller's stack.
struct SyncWait {
  Semaphore sem;
  bool dropped = false;  // written before the post, read after the wait
};

// A queued call, run or dropped once and then deleted by the loop.  The
// library's own posters derive from it to keep their target in the same
// allocation.
struct CallItem {
  CallItem() = default;
  CallItem(const CallItem&) = delete;
  CallItem& operator=(const CallItem&) = delete;
  virtual ~CallItem() = default;
  virtual void Run() {
    if (cb) cb->OnAsyncCall(data);
    else if (fn) fn();
  }
  virtual void Drop() {
    if (cb) cb->OnAsyncCallDropped(data);
  }
  CallItem* next = nullptr;  // link in whichever list holds the item
  SyncWait* sync = nullptr;
  bool final = false;        // a teardown: run, never dropped
  std::int64_t due = 0;      // a delayed call from another thread: its due time
  void* data = nullptr;
  std::function<void()> fn;
  RefPtr<IAsyncCallback> cb;
};

// Runs the item, deletes it, then wakes a SyncCall caller: the item, and what
// its function captured, is gone before that caller goes on.
void RunCallItem(CallItem* item);
// Tells the item it was dropped, deletes it, then wakes a SyncCall caller with -1.
void DropCallItem(CallItem* item);

// Items linked through CallItem::next, first in first out.  A push moves no
// memory, so none is allocated under the lock that guards a list.
class CallList {
 public:
  CallList() = default;
  CallList(const CallList&) = delete;
  CallList& operator=(const CallList&) = delete;

  bool empty() const { return m_head == nullptr; }
  CallItem* front() const { return m_head; }
  std::size_t size() const { return m_size; }
  void push(CallItem* item) {
    item->next = nullptr;
    if (m_tail) m_tail->next = item;
    else m_head = item;
    m_tail = item;
    ++m_size;
  }
  CallItem* pop() {
    CallItem* item = m_head;
    if (item) {
      m_head = item->next;
      if (!m_head) m_tail = nullptr;
      item->next = nullptr;
      --m_size;
    }
    return item;
  }
  // Moves every item of `other` behind this list's.
  void splice(CallList& other) {
    if (other.empty()) return;
    if (m_tail) m_tail->next = other.m_head;
    else m_head = other.m_head;
    m_tail = other.m_tail;
    m_size += other.m_size;
    other.m_head = other.m_tail = nullptr;
    other.m_size = 0;
  }
  bool remove(CallItem* item);

 private:
  CallItem* m_head = nullptr;
  CallItem* m_tail = nullptr;
  std::size_t m_size = 0;
};

// Serving: each loop iteration takes what is queued (a snapshot: calls that
// its targets post wait for the next iteration) and serves it for at most a
// budget of time; what is left waits, ahead of anything newer, for the next
// iteration, after the loop's timers and a poll for I/O.  Every call is
// checked against a stop before it starts.
//
// Waking: a post from another thread wakes the loop unless a wake-up that has
// already been sent, or the loop itself, is known to bring the next batch.  A
// poster that has not yet sent its wake-up does not count, so a poster that
// stalls between queueing and waking holds up nobody but itself.
class CallQueue {
 public:
  static constexpr std::size_t kCacheLine = 64;

  explicit CallQueue(IOLoopImpl* owner) : m_owner(owner) {}
  ~CallQueue();
  CallQueue(const CallQueue&) = delete;
  CallQueue& operator=(const CallQueue&) = delete;

  // Loop thread, as it starts: makes the handles and opens the queue.
  void Open(uv_loop_t* loop);
  // Any thread but, for `sync`, the loop's.  Queues `item`, which is owned
  // from here on (and deleted when refused).  -1 when the queue is closed or
  // the wake-up failed; `sync` waits for the item and gives -1 if a stop
  // dropped it.
  int Post(CallItem* item, bool sync);
  // Any thread but the loop's: runs `fn` on the loop thread and waits, through
  // the queue while it is open, else through the list that the loop thread
  // runs after its last pass.  False when neither takes it any more.
  bool RunFinal(const std::function<void()>& fn);
  // Loop thread, in the stop sequence: closes the queue and its handles, drops
  // every call not started (teardowns run instead) and logs their number.
  void Close();
  // Loop thread, after its last pass: runs the teardowns that came after Close.
  void RunLateFinals();

 private:
  enum class Accepted { kQueued, kLate, kRefused };
  Accepted _Push(CallItem* item, bool& wake, std::uint64_t& generation, uv_async_t*& async);
  int _Wake(CallItem* item, std::uint64_t generation, uv_async_t* async);
  void _ArmService();
  void _Serve();

  static void _OnAsync_Static(uv_async_t* handle);
  static void _OnCheck_Static(uv_check_t* handle);
  static void _OnIdle_Static(uv_idle_t* handle);

  IOLoopImpl* const m_owner;

  // What posters write lives on cache lines of its own: a loop thread that
  // read a field beside it for every call it runs (the stop flag, its batch)
  // would miss in its cache each time a poster on another CPU took the lock.
  alignas(kCacheLine) ParkingLock m_lock;
  // Guarded by m_lock.
  CallList m_queue;
  CallList m_late;  // teardowns after Close, for RunLateFinals
  bool m_open = false;
  bool m_lateOpen = false;
  // A batch will come without a further wake-up: one was sent, or the loop
  // thread has armed its service.  Cleared by the loop when it finds the queue
  // empty, which also moves the generation on, so that a poster whose wake-up
  // was consumed before it could say so does not set it again.
  bool m_serviceDue = false;
  std::uint64_t m_generation = 0;
  uv_async_t* m_async = nullptr;

  // Posters between reading m_async and the end of their uv_async_send; Close
  // waits for none before it closes the handle.
  std::atomic<int> m_wakers{0};

  // Loop thread only.
  alignas(kCacheLine) uv_check_t* m_check = nullptr;  // serves a batch after the poll
  uv_idle_t* m_idle = nullptr;    // keeps the poll from blocking while calls wait
  CallList m_batch;               // taken from m_queue, not yet started
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_LOOP_CALL_QUEUE_H
