// Shared pieces of the benchmarks: process CPU time, heap use, and a raw libuv
// loop thread that serves a mutex-protected queue the way a hand-written
// program would, as the baseline for the library's own loop.
#ifndef ZELSOCKET_BENCH_BENCH_SUPPORT_H
#define ZELSOCKET_BENCH_BENCH_SUPPORT_H

#include <malloc.h>
#include <time.h>
#include <uv.h>

#include <atomic>
#include <cstdlib>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

#include "zelsocket/io_loop.h"
#include "zelsocket/log.h"

namespace zsbench {

// CPU seconds used by the whole process (all threads).
inline double ProcessCpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

inline std::size_t HeapInUse() { return mallinfo2().uordblks; }

// One running loop shared by the cases of a program, started on first use.
inline zelsocket::IOLoop* SharedLoop() {
  static zelsocket::IOLoop* loop = [] {
    auto* l = new zelsocket::IOLoop();
    l->Start();
    return l;
  }();
  return loop;
}

// A libuv loop on its own thread.  Post() queues a function under a mutex and
// wakes the loop; the loop serves either one item per wake-up (sending itself
// another wake-up while items remain) or the whole queue per wake-up.
class RawLoop {
 public:
  enum class Mode { kOnePerWakeup, kDrain };

  explicit RawLoop(Mode mode) : m_mode(mode) {
    uv_loop_init(&m_loop);
    uv_async_init(&m_loop, &m_async, OnAsync);
    uv_async_init(&m_loop, &m_stop, [](uv_async_t* h) {
      auto* self = static_cast<RawLoop*>(h->data);
      uv_close(reinterpret_cast<uv_handle_t*>(&self->m_async), nullptr);
      uv_close(reinterpret_cast<uv_handle_t*>(&self->m_stop), nullptr);
    });
    m_async.data = this;
    m_stop.data = this;
    uv_thread_create(&m_thread, [](void* arg) { uv_run(&static_cast<RawLoop*>(arg)->m_loop, UV_RUN_DEFAULT); }, this);
  }

  ~RawLoop() {
    uv_async_send(&m_stop);
    uv_thread_join(&m_thread);
    uv_loop_close(&m_loop);
    for (auto* item : m_queue) delete item;
  }

  void Post(std::function<void()> fn) {
    auto* item = new std::function<void()>(std::move(fn));
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_queue.push_back(item);
    }
    uv_async_send(&m_async);
  }

  uv_loop_t* Loop() { return &m_loop; }

 private:
  static void OnAsync(uv_async_t* handle) {
    auto* self = static_cast<RawLoop*>(handle->data);
    if (self->m_mode == Mode::kDrain) {
      std::deque<std::function<void()>*> batch;
      {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        batch.swap(self->m_queue);
      }
      for (auto* item : batch) {
        (*item)();
        delete item;
      }
      return;
    }
    std::function<void()>* item = nullptr;
    bool more = false;
    {
      std::lock_guard<std::mutex> lock(self->m_mutex);
      if (!self->m_queue.empty()) {
        item = self->m_queue.front();
        self->m_queue.pop_front();
        more = !self->m_queue.empty();
      }
    }
    if (item) (*item)();
    if (more) uv_async_send(handle);
    delete item;
  }

  Mode m_mode;
  uv_loop_t m_loop;
  uv_async_t m_async;
  uv_async_t m_stop;
  uv_thread_t m_thread;
  std::mutex m_mutex;
  std::deque<std::function<void()>*> m_queue;
};

inline void QuietLog(zelsocket::LOG_LEVEL, const char*, const char*) {}

}  // namespace zsbench

// The library's log lines are formatted as always (their cost is part of the
// measure) but not written out: they would interleave with the tables.  The
// pool is sized at its first use, for our cases and the baselines alike.
#define ZSBENCH_MAIN()                                              \
  int main(int argc, char** argv) {                                 \
    setenv("UV_THREADPOOL_SIZE", "4", 0);                           \
    zelsocket::SetLogCallback(zsbench::QuietLog);                   \
    benchmark::Initialize(&argc, argv);                             \
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1; \
    benchmark::RunSpecifiedBenchmarks();                            \
    benchmark::Shutdown();                                          \
    return 0;                                                       \
  }

#endif  // ZELSOCKET_BENCH_BENCH_SUPPORT_H
