// ThreadSanitizer builds only.  The uninstrumented system libuv closes descriptors through
// syscall(SYS_close, fd), unseen by the sanitizer, which then takes a reused descriptor for the
// old one and reports a race between unrelated creations.  This syscall() comes before libc's,
// for libuv too, and sends closes through the intercepted close().
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
