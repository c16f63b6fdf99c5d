// Internal: the logging routines every component uses.
#ifndef ZELSOCKET_SRC_CORE_LOGGING_H
#define ZELSOCKET_SRC_CORE_LOGGING_H

#include <cstdarg>

#include "zelsocket/log.h"

// Lets GNU compilers check log formats against their arguments.  MinGW's plain
// `printf` archetype is the Microsoft one, which knows no %zu or %lld; its C++
// runtime formats the GNU way, which `gnu_printf` checks.  Other compilers skip it.
#if defined(__MINGW32__)
#define ZS_PRINTF_FORMAT(fmt_index, first_arg) __attribute__((format(gnu_printf, fmt_index, first_arg)))
#elif defined(__GNUC__)
#define ZS_PRINTF_FORMAT(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))
#else
#define ZS_PRINTF_FORMAT(fmt_index, first_arg)
#endif

namespace zelsocket {

// One tag per component.
namespace tag {
constexpr const char kLoop[] = "Loop";
constexpr const char kAsync[] = "async";
constexpr const char kTimer[] = "timer";
constexpr const char kWork[] = "work";
constexpr const char kHostResolve[] = "host_resolve";
constexpr const char kNonLspSocket[] = "non_lsp_socket";
constexpr const char kOp[] = "op";
constexpr const char kUdp[] = "udp";
constexpr const char kTcp[] = "tcp";
constexpr const char kDataSender[] = "data_sender";
constexpr const char kUdpChannel[] = "udp_channel";
}  // namespace tag

// Formats into a line of its own (cut to 2047 characters) and hands it to the
// log callback, or writes it and a newline to standard output.
void LogWrite(LOG_LEVEL level, const char* tag, const char* format, va_list args);

void LogError(const char* tag, const char* format, ...) ZS_PRINTF_FORMAT(2, 3);
void LogInfo(const char* tag, const char* format, ...) ZS_PRINTF_FORMAT(2, 3);
void LogDebug(const char* tag, const char* format, ...) ZS_PRINTF_FORMAT(2, 3);

// Formats into `buffer` (at most size - 1 characters, always terminated).
// Returns the number of characters written, -1 when the text did not fit, and 0
// without touching anything for a null buffer or a size below 1.
int FormatToBuffer(char* buffer, int size, const char* format, ...) ZS_PRINTF_FORMAT(3, 4);

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CORE_LOGGING_H
