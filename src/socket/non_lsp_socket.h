// Internal: datagram sockets created on the system's own base provider, past
// any layered providers that other software has put into the socket catalogue.
//
// The lookup (catalogue walk, one cached record per address family, fallback
// chain) is written once, over INonLspPlatform; the Windows implementation of
// that interface makes the real catalogue calls, the POSIX one has no catalogue
// at all.  On POSIX every walk therefore finds nothing: the "fail" line is logged
// once per family and each socket comes from the fallback chain, which yields a
// plain datagram socket ready for uv_udp_open.
#ifndef ZELSOCKET_SRC_SOCKET_NON_LSP_SOCKET_H
#define ZELSOCKET_SRC_SOCKET_NON_LSP_SOCKET_H

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#endif

#include <atomic>
#include <cstdint>
#include <string>

#include "zelsocket/sync.h"

namespace zelsocket {

#ifdef _WIN32
using SocketHandle = SOCKET;
constexpr SocketHandle kInvalidSocket = INVALID_SOCKET;
using ProviderGuid = GUID;
using ProtocolInfoW = WSAPROTOCOL_INFOW;
using ProtocolInfoA = WSAPROTOCOL_INFOA;
using EnumLength = DWORD;
#else
using SocketHandle = int;
constexpr SocketHandle kInvalidSocket = -1;

struct ProviderGuid {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};

// The fields of the catalogue record that the lookup reads, under their
// Windows names, so that one piece of logic serves both platforms.
struct ProtocolChainInfo {
  int ChainLen;
};

struct ProtocolInfoW {
  ProviderGuid ProviderId;
  std::uint32_t dwCatalogEntryId;
  ProtocolChainInfo ProtocolChain;
  int iVersion;
  int iAddressFamily;
  int iSocketType;
  int iProtocol;
  wchar_t szProtocol[256];
};

struct ProtocolInfoA {
  ProviderGuid ProviderId;
  std::uint32_t dwCatalogEntryId;
  ProtocolChainInfo ProtocolChain;
  int iVersion;
  int iAddressFamily;
  int iSocketType;
  int iProtocol;
  char szProtocol[256];
};

using EnumLength = std::uint32_t;
#endif

// The error that an enumeration gives when the buffer is too small.
constexpr int kEnumNoBuffers = 10055;

// The platform operations the lookup needs, under the names of the calls they
// stand for.  Implementations must be safe to call from any loop thread.
class INonLspPlatform {
 public:
  virtual ~INonLspPlatform() = default;

  // Fills `buffer` with the entries of the 0-terminated `protocols` and returns
  // their number, or -1; a buffer that is too small fails with kEnumNoBuffers
  // and `*length` set to the size needed.
  virtual int WSAEnumProtocolsW(int* protocols, ProtocolInfoW* buffer, EnumLength* length) = 0;
  virtual int WSAEnumProtocolsA(int* protocols, ProtocolInfoA* buffer, EnumLength* length) = 0;
  // A socket on the provider `info` names (null: the default one).
  virtual SocketHandle WSASocketW(int af, int type, int protocol, ProtocolInfoW* info) = 0;
  virtual SocketHandle Socket(int af, int type, int protocol) = 0;
  virtual int WSAGetLastError() = 0;
  // Writes the GUID in braces; returns the characters written with the NUL, 0 if it did not fit.
  virtual int StringFromGUID2(const ProviderGuid& guid, wchar_t* text, int length) = 0;
};

// The ProviderId of the base provider of `af` (AF_INET or AF_INET6), else null.
const ProviderGuid* BaseProviderId(int af);

// The platform this build runs on; lives for the whole process.
INonLspPlatform& NativeNonLspPlatform();
// The platform's socket close, for a socket that never reached a handle.
void CloseSocketHandle(SocketHandle socket);

// The lookup and its cache.  One process-wide instance serves the library; tests
// make their own over a fake platform.  Thread-safe.
class NonLspSocketFactory {
 public:
  explicit NonLspSocketFactory(INonLspPlatform& platform);
  ~NonLspSocketFactory();
  NonLspSocketFactory(const NonLspSocketFactory&) = delete;
  NonLspSocketFactory& operator=(const NonLspSocketFactory&) = delete;

  // A datagram socket of family `af`, or kInvalidSocket when every attempt failed.
  SocketHandle CreateNonLSPSocket(int af);
  // The catalogue as text, one line per entry.
  std::string LogWSAProtocols();

  // The cached base-provider record of `af`, or null.  Records stay until the
  // factory goes.
  const ProtocolInfoW* _GetProviderInfo(int af);
  bool _GetBaseProviderInfo(int af, int type, ProtocolInfoW* info);

 private:
  enum CellState { kNotLookedUp = 0, kFound = 1, kFailed = 2 };
  struct Cell {
    // Written once under the lock, `record` before `state`; read without it.
    std::atomic<int> state{kNotLookedUp};
    ProtocolInfoW* record = nullptr;
  };

  Cell* _CellOf(int af);
  std::wstring _GuidText(const ProviderGuid& guid);

  INonLspPlatform& m_platform;
  Mutex m_providerLock;
  Cell m_cells[2];
};

// The process-wide lookup over the native platform.
SocketHandle CreateNonLSPSocket(int af);

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_SOCKET_NON_LSP_SOCKET_H
