// Counts the system calls that one thread makes through the libc wrappers that
// libuv and the library use (reads, writes, epoll, socket messages), by
// interposing them in the benchmark binary.  Futex calls of contended locks go
// through pthread internals and are not seen; the vDSO clock is no system call.
//
// No system header that declares these functions is included here: with
// _FORTIFY_SOURCE some of them are inline wrappers that a definition would clash
// with.
#include <dlfcn.h>

namespace {
thread_local bool t_counting = false;
long g_count = 0;

inline void Tick() {
  if (t_counting) __atomic_fetch_add(&g_count, 1, __ATOMIC_RELAXED);
}

template <typename Fn>
Fn Next(const char* name) {
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" {

void zsbench_CountSyscallsOnThisThread(bool on) { t_counting = on; }
long zsbench_SyscallCount() { return __atomic_load_n(&g_count, __ATOMIC_RELAXED); }

struct iovec;
struct msghdr;
struct epoll_event;
struct sockaddr;

#define ZSBENCH_WRAP(ret, name, params, args)              \
  ret name params {                                        \
    static auto real = Next<ret(*) params>(#name);         \
    Tick();                                                \
    return real args;                                      \
  }

ZSBENCH_WRAP(long, read, (int fd, void* b, unsigned long n), (fd, b, n))
ZSBENCH_WRAP(long, write, (int fd, const void* b, unsigned long n), (fd, b, n))
ZSBENCH_WRAP(long, readv, (int fd, const iovec* v, int n), (fd, v, n))
ZSBENCH_WRAP(long, writev, (int fd, const iovec* v, int n), (fd, v, n))
ZSBENCH_WRAP(long, recvmsg, (int fd, msghdr* m, int f), (fd, m, f))
ZSBENCH_WRAP(long, sendmsg, (int fd, const msghdr* m, int f), (fd, m, f))
ZSBENCH_WRAP(long, sendto, (int fd, const void* b, unsigned long n, int f, const sockaddr* a, unsigned l),
             (fd, b, n, f, a, l))
ZSBENCH_WRAP(long, recvfrom, (int fd, void* b, unsigned long n, int f, sockaddr* a, unsigned* l), (fd, b, n, f, a, l))
ZSBENCH_WRAP(int, epoll_wait, (int fd, epoll_event* e, int n, int t), (fd, e, n, t))
ZSBENCH_WRAP(int, epoll_pwait, (int fd, epoll_event* e, int n, int t, const void* s), (fd, e, n, t, s))
ZSBENCH_WRAP(int, epoll_ctl, (int fd, int op, int f, epoll_event* e), (fd, op, f, e))

}  // extern "C"
