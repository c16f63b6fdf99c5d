// Internal: debug assertions and test seams.  Kept in debug builds and in builds
// configured with ZELSOCKET_DCHECK (the test builds), compiled out otherwise.
#ifndef ZELSOCKET_SRC_CORE_CHECK_H
#define ZELSOCKET_SRC_CORE_CHECK_H

#include <atomic>

namespace zelsocket {
[[noreturn]] void DcheckFailed(const char* condition, const char* file, int line);
}  // namespace zelsocket

#if !defined(NDEBUG) || defined(ZELSOCKET_ENABLE_DCHECK)
#define ZS_CHECKED_BUILD 1
#define ZS_DCHECK(condition) \
  ((condition) ? (void)0 : ::zelsocket::DcheckFailed(#condition, __FILE__, __LINE__))
#else
#define ZS_CHECKED_BUILD 0
#define ZS_DCHECK(condition) ((void)0)
#endif

// First line of every function that touches libuv state: it runs on the thread
// of `loop` (an IOLoop*) and nowhere else.
#define ZS_ASSERT_LOOP_THREAD(loop) ZS_DCHECK((loop)->IsLoopThread())

// Seams: points where the test suite can hold a thread, to show that nothing
// else waits for it.  Empty unless a test sets the hook.
#if ZS_CHECKED_BUILD
namespace zelsocket {
namespace seam {
// A thread that posted a call from off the loop and is about to wake the loop.
extern std::atomic<void (*)()> g_beforeCallWake;
}  // namespace seam
}  // namespace zelsocket
#define ZS_SEAM(hook)                                                                    \
  do {                                                                                   \
    if (void (*zs_seam_fn)() = ::zelsocket::seam::hook.load(std::memory_order_acquire)) \
      zs_seam_fn();                                                                      \
  } while (0)
#else
#define ZS_SEAM(hook) ((void)0)
#endif

#endif  // ZELSOCKET_SRC_CORE_CHECK_H
