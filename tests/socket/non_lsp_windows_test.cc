// CreateNonLSPSocket against the catalogue the system really has: the base
// providers it finds are the ones WSAEnumProtocolsW reports, its log line and
// listing name them, and the socket carries datagrams.  Windows (or Wine) only.
#include <gtest/gtest.h>

#ifdef _WIN32
#include <winsock2.h>  // before windows.h, which would pull in the old winsock.h
#include <ws2tcpip.h>
#include <windows.h>
#endif

#include <cstdio>
#include <string>
#include <vector>

#include "socket/non_lsp_socket.h"
#include "support/test_support.h"

namespace zelsocket {
namespace {

#ifdef _WIN32

// The text forms the log line and the listing should carry, made here
// without the library.
std::string Describe(const WSAPROTOCOL_INFOW& e, bool listing) {
  char name[512] = {0}, guid[64], out[1024];
  ::WideCharToMultiByte(CP_UTF8, 0, e.szProtocol, -1, name, sizeof name - 1, nullptr, nullptr);
  const GUID& g = e.ProviderId;
  std::snprintf(guid, sizeof guid, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3],
                g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  unsigned long id = e.dwCatalogEntryId;
  if (listing)
    std::snprintf(out, sizeof out,
                  "EntryId=%lu, Name=%s, ChainLen=%d, Version=%d, AF=%d, SockType=%d, Protocol=%d, Guid=%s", id, name,
                  e.ProtocolChain.ChainLen, e.iVersion, e.iAddressFamily, e.iSocketType, e.iProtocol, guid);
  else
    std::snprintf(out, sizeof out, "EntryId=%lu, ChainLen=%d, Name=%s, Guid=%s", id, e.ProtocolChain.ChainLen, name,
                  guid);
  return out;
}

TEST(NonLspWindowsTest, FindsTheBaseProvidersOfTheRealCatalogueLogsThemAndSends) {
  WSADATA wsa{};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &wsa), 0);
  int protocols[] = {IPPROTO_TCP, IPPROTO_UDP, 0};
  std::vector<WSAPROTOCOL_INFOW> catalogue;
  DWORD length = 0;
  int n = ::WSAEnumProtocolsW(protocols, nullptr, &length);
  catalogue.resize(length / sizeof(WSAPROTOCOL_INFOW) + 1);
  length = static_cast<DWORD>(catalogue.size() * sizeof(WSAPROTOCOL_INFOW));
  n = ::WSAEnumProtocolsW(protocols, catalogue.data(), &length);
  ASSERT_GT(n, 0) << ::WSAGetLastError();
  catalogue.resize(static_cast<size_t>(n));

  zstest::LogRecorder log;
  NonLspSocketFactory factory(NativeNonLspPlatform());
  for (int af : {AF_INET, AF_INET6}) {
    SCOPED_TRACE("af=" + std::to_string(af));
    const WSAPROTOCOL_INFOW* expected = nullptr;
    for (const auto& e : catalogue)
      if (!expected && e.iAddressFamily == af && e.iSocketType == SOCK_DGRAM &&
          IsEqualGUID(e.ProviderId, *BaseProviderId(af)))
        expected = &e;
    ASSERT_NE(expected, nullptr) << "the catalogue has no base UDP provider";
    SOCKET s = factory.CreateNonLSPSocket(af);
    ASSERT_NE(s, INVALID_SOCKET);
    const std::string line = "CreateNonLSPSocket, _GetBaseProviderInfo ok, af=" + std::to_string(af) +
                             ", type=2, protocol=17, " + Describe(*expected, false);
    EXPECT_EQ(1, log.Count(line)) << "expected: " << line;
    WSAPROTOCOL_INFOW actual{};  // the socket stands on that very entry
    int size = sizeof actual;
    ASSERT_EQ(0, ::getsockopt(s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&actual), &size));
    EXPECT_EQ(expected->dwCatalogEntryId, actual.dwCatalogEntryId);

    // A datagram to itself on loopback comes back intact.
    sockaddr_storage self{};
    self.ss_family = static_cast<ADDRESS_FAMILY>(af);
    if (af == AF_INET)
      reinterpret_cast<sockaddr_in*>(&self)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    else
      reinterpret_cast<sockaddr_in6*>(&self)->sin6_addr = in6addr_loopback;
    int selfLen = af == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    DWORD timeoutMs = 5000;
    ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeoutMs), sizeof timeoutMs);
    ASSERT_EQ(0, ::bind(s, reinterpret_cast<sockaddr*>(&self), selfLen));
    ASSERT_EQ(0, ::getsockname(s, reinterpret_cast<sockaddr*>(&self), &selfLen));
    const char payload[] = "past the layers";
    char got[64] = {0};
    EXPECT_EQ(::sendto(s, payload, sizeof payload, 0, reinterpret_cast<sockaddr*>(&self), selfLen),
              static_cast<int>(sizeof payload));
    EXPECT_EQ(::recvfrom(s, got, sizeof got, 0, nullptr, nullptr), static_cast<int>(sizeof payload));
    EXPECT_STREQ(got, payload);
    ::closesocket(s);

    // The record is cached: a second socket walks nothing and logs nothing.
    ::closesocket(factory.CreateNonLSPSocket(af));
    EXPECT_EQ(1, log.CountPrefix("CreateNonLSPSocket, _GetBaseProviderInfo ok, af=" + std::to_string(af) + ","));
  }
  // The listing that a failed lookup logs shows every entry.
  std::string listing = factory.LogWSAProtocols();
  for (const auto& e : catalogue) EXPECT_NE(listing.find(Describe(e, true) + "\n"), std::string::npos) << listing;
  EXPECT_EQ(0, log.CountPrefix("CreateNonLSPSocket, _GetBaseProviderInfo fail"));
  WSACleanup();
}

#endif

}  // namespace
}  // namespace zelsocket
