#include "core/logging.h"

#include <atomic>
#include <cstdio>

#include "core/platform.h"

namespace zelsocket {

namespace {
constexpr int kLineSize = 2048;
std::atomic<LogCallback> g_logCallback{nullptr};
}  // namespace

void SetLogCallback(LogCallback callback) { g_logCallback.store(callback, std::memory_order_release); }

void LogWrite(LOG_LEVEL level, const char* tag, const char* format, va_list args) {
  // On the stack: a line this size is past the allocator's per-thread cache,
  // and the channel logs the end of every packet.
  char line[kLineSize];
  platform::FormatV(line, kLineSize, format, args);
  line[kLineSize - 1] = '\0';
  LogCallback callback = g_logCallback.load(std::memory_order_acquire);
  if (callback) {
    callback(level, tag, line);
  } else {
    std::printf("%s\n", line);
  }
}

#define ZS_DEFINE_LOG(name, level)                       \
  void name(const char* tag, const char* format, ...) {  \
    va_list args;                                        \
    va_start(args, format);                              \
    LogWrite(level, tag, format, args);                  \
    va_end(args);                                        \
  }
ZS_DEFINE_LOG(LogError, LOG_LEVEL_ERROR)
ZS_DEFINE_LOG(LogInfo, LOG_LEVEL_INFO)
ZS_DEFINE_LOG(LogDebug, LOG_LEVEL_DEBUG)
#undef ZS_DEFINE_LOG

int FormatToBuffer(char* buffer, int size, const char* format, ...) {
  if (!buffer || size <= 0) return 0;
  buffer[0] = '\0';
  va_list args;
  va_start(args, format);
  int n = platform::FormatV(buffer, static_cast<std::size_t>(size), format, args);
  va_end(args);
  buffer[size - 1] = '\0';
  return (n < 0 || n > size - 1) ? -1 : n;
}

}  // namespace zelsocket
