// ThreadSanitizer builds only.  The system libuv is not instrumented and closes
// descriptors through syscall(SYS_close, fd), which the sanitizer does not see;
// when the kernel hands the number out again it takes the new descriptor for
// the old one and reports a race between two unrelated creations.  Defining
// syscall() here puts our definition ahead of libc's for libuv too: closes go
// through close(), which the sanitizer intercepts, and everything else goes on
// to the real syscall.
#if defined(__SANITIZE_THREAD__)

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

extern "C" long syscall(long number, ...) {
  va_list args;
  va_start(args, number);
  long a[6];
  for (long& arg : a) arg = va_arg(args, long);
  va_end(args);
  if (number == SYS_close) return close(static_cast<int>(a[0]));
  using Real = long (*)(long, ...);
  static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "syscall"));
  return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

#endif
