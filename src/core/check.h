// Internal: debug assertions.  Kept in debug builds and in builds configured with
// ZELSOCKET_DCHECK (the test builds), compiled out otherwise.
#ifndef ZELSOCKET_SRC_CORE_CHECK_H
#define ZELSOCKET_SRC_CORE_CHECK_H

namespace zelsocket {
[[noreturn]] void DcheckFailed(const char* condition, const char* file, int line);
}  // namespace zelsocket

#if !defined(NDEBUG) || defined(ZELSOCKET_ENABLE_DCHECK)
#define ZS_DCHECK(condition) \
  ((condition) ? (void)0 : ::zelsocket::DcheckFailed(#condition, __FILE__, __LINE__))
#else
#define ZS_DCHECK(condition) ((void)0)
#endif

// First line of every function that touches libuv state: it runs on the thread
// of `loop` (an IOLoop*) and nowhere else.
#define ZS_ASSERT_LOOP_THREAD(loop) ZS_DCHECK((loop)->IsLoopThread())

#endif  // ZELSOCKET_SRC_CORE_CHECK_H
