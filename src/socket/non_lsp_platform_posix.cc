// POSIX has no provider catalogue: both enumerations find no entries, so every
// lookup ends in the fallback chain, which makes ordinary datagram sockets.
#ifndef _WIN32

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cwchar>

#include "socket/non_lsp_socket.h"

namespace zelsocket {

namespace {

class PosixNonLspPlatform : public INonLspPlatform {
 public:
  int WSAEnumProtocolsW(int*, ProtocolInfoW*, EnumLength*) override { return 0; }
  int WSAEnumProtocolsA(int*, ProtocolInfoA*, EnumLength*) override { return 0; }
  // There is no provider to choose, so `info` (always null here) changes nothing.
  SocketHandle WSASocketW(int af, int type, int protocol, ProtocolInfoW*) override {
    return Socket(af, type, protocol);
  }
  SocketHandle Socket(int af, int type, int protocol) override {
    int s = ::socket(af, type | SOCK_CLOEXEC, protocol);
    return s < 0 ? kInvalidSocket : s;
  }
  int WSAGetLastError() override { return errno; }
  int StringFromGUID2(const ProviderGuid& g, wchar_t* text, int length) override {
    int n = std::swprintf(text, static_cast<std::size_t>(length),
                          L"{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2, g.Data3,
                          g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6],
                          g.Data4[7]);
    return n < 0 ? 0 : n + 1;
  }
};

}  // namespace

INonLspPlatform& NativeNonLspPlatform() {
  static PosixNonLspPlatform* platform = new PosixNonLspPlatform();
  return *platform;
}

void CloseSocketHandle(SocketHandle socket) {
  if (socket != kInvalidSocket) ::close(socket);
}

}  // namespace zelsocket

#endif  // !_WIN32
