// The real catalogue calls.  Built on Windows only.
#ifdef _WIN32

// winsock2.h (through the header) must come before anything that pulls in windows.h.
#include "socket/non_lsp_socket.h"

#include <objbase.h>

namespace zelsocket {

namespace {

class WinNonLspPlatform : public INonLspPlatform {
 public:
  int WSAEnumProtocolsW(int* protocols, ProtocolInfoW* buffer, EnumLength* length) override {
    return ::WSAEnumProtocolsW(protocols, buffer, length);
  }
  int WSAEnumProtocolsA(int* protocols, ProtocolInfoA* buffer, EnumLength* length) override {
    return ::WSAEnumProtocolsA(protocols, buffer, length);
  }
  SocketHandle WSASocketW(int af, int type, int protocol, ProtocolInfoW* info) override {
    return ::WSASocketW(af, type, protocol, info, 0, WSA_FLAG_OVERLAPPED);
  }
  SocketHandle Socket(int af, int type, int protocol) override { return ::socket(af, type, protocol); }
  int WSAGetLastError() override { return ::WSAGetLastError(); }
  int StringFromGUID2(const ProviderGuid& guid, wchar_t* text, int length) override {
    return ::StringFromGUID2(guid, text, length);
  }
};

}  // namespace

INonLspPlatform& NativeNonLspPlatform() {
  static WinNonLspPlatform* platform = new WinNonLspPlatform();
  return *platform;
}

void CloseSocketHandle(SocketHandle socket) {
  if (socket != kInvalidSocket) ::closesocket(socket);
}

}  // namespace zelsocket

#endif  // _WIN32
