#include "core/platform.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

#ifdef _WIN32
#include <windows.h>
#include <mutex>
#else
#include <signal.h>
#include <time.h>
#endif

namespace zelsocket {
namespace platform {

std::uint64_t TickUs() {
#ifdef _WIN32
  static const std::uint64_t frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return static_cast<std::uint64_t>(f.QuadPart);
  }();
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  auto ticks = static_cast<std::uint64_t>(now.QuadPart);
  // Split, so that the product cannot overflow.
  return ticks / frequency * 1000000u + ticks % frequency * 1000000u / frequency;
#else
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
#endif
}

std::int64_t WallClockSeconds() {
#ifdef _WIN32
  return _time64(nullptr);
#else
  return static_cast<std::int64_t>(time(nullptr));
#endif
}

bool LocalTime(std::int64_t seconds, std::tm* out) {
#ifdef _WIN32
  __time64_t t = seconds;
  return _localtime64_s(out, &t) == 0;
#else
  time_t t = static_cast<time_t>(seconds);
  return localtime_r(&t, out) != nullptr;
#endif
}

int AtomicAddFull(volatile int* value, int delta) {
#ifdef _WIN32
  return InterlockedExchangeAdd(reinterpret_cast<volatile LONG*>(value), delta) + delta;
#else
  return __atomic_add_fetch(value, delta, __ATOMIC_SEQ_CST);
#endif
}

#ifdef _WIN32
static DWORD g_slot = TLS_OUT_OF_INDEXES;
static std::once_flag g_slotOnce;
static DWORD Slot() {
  std::call_once(g_slotOnce, [] { g_slot = TlsAlloc(); });
  return g_slot;
}
void SetThreadSlot(void* value) { TlsSetValue(Slot(), value); }
void* GetThreadSlot() { return TlsGetValue(Slot()); }
#else
static thread_local void* t_slot = nullptr;
void SetThreadSlot(void* value) { t_slot = value; }
void* GetThreadSlot() { return t_slot; }
#endif

void BlockBrokenPipeOnThisThread() {
#ifndef _WIN32
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
#endif
}

namespace {

void AppendUtf8(std::string& out, std::uint32_t cp) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = 0xFFFD;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// wchar_t is UTF-32 on POSIX and UTF-16 on Windows; both are handled.
std::string WideToUtf8(const wchar_t* text) {
  std::string out;
  if (!text) return "(null)";
  for (const wchar_t* p = text; *p; ++p) {
    std::uint32_t cp = static_cast<std::uint32_t>(*p);
    if (sizeof(wchar_t) == 2 && cp >= 0xD800 && cp <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (static_cast<std::uint32_t>(p[1]) - 0xDC00);
      ++p;
    }
    AppendUtf8(out, cp);
  }
  return out;
}

bool HasWideString(const char* format) {
  for (const char* p = std::strchr(format, '%'); p; p = std::strchr(p, '%')) {
    ++p;
    if (*p == '%') { ++p; continue; }
    while (*p && !std::strchr("diouxXeEfFgGaAcsSpn", *p)) {
      if (p[0] == 'l' && (p[1] == 's' || p[1] == 'c')) return p[1] == 's';
      ++p;
    }
    if (*p == 'S') return true;
  }
  return false;
}

template <typename T>
void FormatOne(std::string& out, const std::string& conversion, T value) {
  char small[256];
  int n = std::snprintf(small, sizeof small, conversion.c_str(), value);
  if (n < 0) return;
  if (static_cast<std::size_t>(n) < sizeof small) {
    out.append(small, static_cast<std::size_t>(n));
  } else {
    std::string big(static_cast<std::size_t>(n) + 1, '\0');
    std::snprintf(&big[0], big.size(), conversion.c_str(), value);
    out.append(big.data(), static_cast<std::size_t>(n));
  }
}

// Formats one conversion at a time so that wide strings can be converted
// before they reach the C library, whose own conversion depends on the locale.
std::string FormatPiecewise(const char* format, va_list args) {
  std::string out;
  const char* p = format;
  while (*p) {
    if (*p != '%') {
      const char* next = std::strchr(p, '%');
      std::size_t len = next ? static_cast<std::size_t>(next - p) : std::strlen(p);
      out.append(p, len);
      p += len;
      continue;
    }
    if (p[1] == '%') {
      out += '%';
      p += 2;
      continue;
    }
    std::string conversion = "%";
    ++p;
    while (*p && std::strchr("-+ #0'", *p)) conversion += *p++;
    if (*p == '*') {
      conversion += std::to_string(va_arg(args, int));
      ++p;
    } else {
      while (*p >= '0' && *p <= '9') conversion += *p++;
    }
    if (*p == '.') {
      conversion += *p++;
      if (*p == '*') {
        conversion += std::to_string(va_arg(args, int));
        ++p;
      } else {
        while (*p >= '0' && *p <= '9') conversion += *p++;
      }
    }
    std::string length;
    while (*p && std::strchr("hljztL", *p)) length += *p++;
    char conv = *p;
    if (!conv) break;
    ++p;
    switch (conv) {
      case 'd':
      case 'i':
        if (length == "l") FormatOne(out, conversion + length + conv, va_arg(args, long));
        else if (length == "ll") FormatOne(out, conversion + length + conv, va_arg(args, long long));
        else if (length == "z" || length == "j" || length == "t")
          FormatOne(out, conversion + "ll" + conv, static_cast<long long>(va_arg(args, std::ptrdiff_t)));
        else FormatOne(out, conversion + length + conv, va_arg(args, int));
        break;
      case 'o': case 'u': case 'x': case 'X':
        if (length == "l") FormatOne(out, conversion + length + conv, va_arg(args, unsigned long));
        else if (length == "ll") FormatOne(out, conversion + length + conv, va_arg(args, unsigned long long));
        else if (length == "z" || length == "j" || length == "t")
          FormatOne(out, conversion + "ll" + conv, static_cast<unsigned long long>(va_arg(args, std::size_t)));
        else FormatOne(out, conversion + length + conv, va_arg(args, unsigned));
        break;
      case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A':
        if (length == "L") FormatOne(out, conversion + length + conv, va_arg(args, long double));
        else FormatOne(out, conversion + conv, va_arg(args, double));
        break;
      case 'c':
        FormatOne(out, conversion + conv, va_arg(args, int));
        break;
      case 'p':
        FormatOne(out, conversion + conv, va_arg(args, void*));
        break;
      case 'n':
        (void)va_arg(args, void*);  // never written: formats come from the library itself
        break;
      case 's':
        if (length == "l") {
          FormatOne(out, conversion + "s", WideToUtf8(va_arg(args, const wchar_t*)).c_str());
        } else {
          const char* s = va_arg(args, const char*);
          FormatOne(out, conversion + "s", s ? s : "(null)");
        }
        break;
      case 'S':
        FormatOne(out, conversion + "s", WideToUtf8(va_arg(args, const wchar_t*)).c_str());
        break;
      default:
        out += conversion;
        out += conv;
        break;
    }
  }
  return out;
}

}  // namespace

int FormatV(char* buffer, std::size_t size, const char* format, va_list args) {
  if (!HasWideString(format)) return std::vsnprintf(buffer, size, format, args);
  va_list copy;
  va_copy(copy, args);
  std::string text = FormatPiecewise(format, copy);
  va_end(copy);
  if (size > 0) {
    std::size_t n = text.size() < size - 1 ? text.size() : size - 1;
    std::memcpy(buffer, text.data(), n);
    buffer[n] = '\0';
  }
  return static_cast<int>(text.size());
}

}  // namespace platform
}  // namespace zelsocket
