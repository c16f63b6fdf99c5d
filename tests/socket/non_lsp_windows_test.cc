// CreateNonLSPSocket against the socket catalogue the system really has: the
// base providers it finds must be the ones WSAEnumProtocolsW reports, its log
// line must name them, and the socket must carry datagrams.  The fallback chain
// is covered with a fake catalogue elsewhere; this needs Windows (or Wine).
#include <gtest/gtest.h>

#ifdef _WIN32
#include <winsock2.h>
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

struct WsaSession {
  WsaSession() { started = WSAStartup(MAKEWORD(2, 2), &data) == 0; }
  ~WsaSession() {
    if (started) WSACleanup();
  }
  WSADATA data{};
  bool started = false;
};

std::vector<WSAPROTOCOL_INFOW> Catalogue() {
  int protocols[] = {IPPROTO_TCP, IPPROTO_UDP, 0};
  DWORD length = 0;
  std::vector<WSAPROTOCOL_INFOW> entries;
  if (::WSAEnumProtocolsW(protocols, nullptr, &length) != SOCKET_ERROR || ::WSAGetLastError() != WSAENOBUFS)
    return entries;
  entries.resize(length / sizeof(WSAPROTOCOL_INFOW) + 1);
  length = static_cast<DWORD>(entries.size() * sizeof(WSAPROTOCOL_INFOW));
  int n = ::WSAEnumProtocolsW(protocols, entries.data(), &length);
  entries.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return entries;
}

// The text forms the log line should carry, made here without the library.
std::string Utf8(const wchar_t* text) {
  char out[512] = {0};
  ::WideCharToMultiByte(CP_UTF8, 0, text, -1, out, sizeof out - 1, nullptr, nullptr);
  return out;
}

std::string GuidText(const GUID& g) {
  char out[64];
  std::snprintf(out, sizeof out, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2],
                g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return out;
}

// Sends one datagram from `sender` to a plain socket on the loopback address of
// `af` and reads it back; empty when it arrived intact.
std::string RoundTrip(SOCKET sender, int af) {
  sockaddr_storage any{};
  int len;
  if (af == AF_INET) {
    auto* a = reinterpret_cast<sockaddr_in*>(&any);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    len = sizeof(sockaddr_in);
  } else {
    auto* a = reinterpret_cast<sockaddr_in6*>(&any);
    a->sin6_family = AF_INET6;
    a->sin6_addr = in6addr_loopback;
    len = sizeof(sockaddr_in6);
  }
  SOCKET receiver = ::socket(af, SOCK_DGRAM, IPPROTO_UDP);
  if (receiver == INVALID_SOCKET) return "no receiver socket";
  struct Closer {
    SOCKET s;
    ~Closer() { ::closesocket(s); }
  } closer{receiver};
  DWORD timeoutMs = 5000;
  ::setsockopt(receiver, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&timeoutMs), sizeof timeoutMs);
  if (::bind(receiver, reinterpret_cast<sockaddr*>(&any), len) != 0) return "bind receiver";
  if (::bind(sender, reinterpret_cast<sockaddr*>(&any), len) != 0) return "bind sender";
  sockaddr_storage to{}, from{}, senderAddr{};
  int toLen = sizeof to, fromLen = sizeof from, senderLen = sizeof senderAddr;
  ::getsockname(receiver, reinterpret_cast<sockaddr*>(&to), &toLen);
  ::getsockname(sender, reinterpret_cast<sockaddr*>(&senderAddr), &senderLen);
  const char payload[] = "past the layers";
  if (::sendto(sender, payload, sizeof payload, 0, reinterpret_cast<sockaddr*>(&to), toLen) != sizeof payload)
    return "sendto: " + std::to_string(::WSAGetLastError());
  char got[64] = {0};
  int n = ::recvfrom(receiver, got, sizeof got, 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
  if (n != sizeof payload || std::string(got) != payload) return "recvfrom: " + std::to_string(::WSAGetLastError());
  // The port in the family's address block sits at the same offset for both.
  if (reinterpret_cast<sockaddr_in*>(&from)->sin_port != reinterpret_cast<sockaddr_in*>(&senderAddr)->sin_port)
    return "came from another port";
  return "";
}

TEST(NonLspWindowsTest, FindsTheBaseProvidersOfTheRealCatalogueLogsThemAndSends) {
  WsaSession wsa;
  ASSERT_TRUE(wsa.started);
  std::vector<WSAPROTOCOL_INFOW> catalogue = Catalogue();
  ASSERT_FALSE(catalogue.empty());
  for (const auto& e : catalogue) {
    std::printf("catalogue: EntryId=%lu, Name=%s, ChainLen=%d, AF=%d, SockType=%d, Protocol=%d, Guid=%s\n",
                static_cast<unsigned long>(e.dwCatalogEntryId), Utf8(e.szProtocol).c_str(),
                e.ProtocolChain.ChainLen, e.iAddressFamily, e.iSocketType, e.iProtocol,
                GuidText(e.ProviderId).c_str());
  }

  zstest::LogRecorder log;
  NonLspSocketFactory factory(NativeNonLspPlatform());
  for (int af : {AF_INET, AF_INET6}) {
    SCOPED_TRACE("af=" + std::to_string(af));
    const WSAPROTOCOL_INFOW* expected = nullptr;
    for (const auto& e : catalogue) {
      if (e.iAddressFamily == af && e.iSocketType == SOCK_DGRAM && IsEqualGUID(e.ProviderId, *BaseProviderId(af))) {
        expected = &e;
        break;
      }
    }
    ASSERT_NE(expected, nullptr) << "the catalogue has no base UDP provider";

    SOCKET s = factory.CreateNonLSPSocket(af);
    ASSERT_NE(s, INVALID_SOCKET);
    char line[1024];
    std::snprintf(line, sizeof line,
                  "CreateNonLSPSocket, _GetBaseProviderInfo ok, af=%d, type=2, protocol=17, EntryId=%lu, "
                  "ChainLen=%d, Name=%s, Guid=%s",
                  af, static_cast<unsigned long>(expected->dwCatalogEntryId), expected->ProtocolChain.ChainLen,
                  Utf8(expected->szProtocol).c_str(), GuidText(expected->ProviderId).c_str());
    EXPECT_EQ(1, log.Count(line)) << "expected: " << line;
    for (const auto& l : log.Lines())
      if (l.message.find("af=" + std::to_string(af)) != std::string::npos) std::printf("logged: %s\n", l.message.c_str());

    // The socket stands on that very entry of the catalogue.
    WSAPROTOCOL_INFOW actual{};
    int size = sizeof actual;
    ASSERT_EQ(0, ::getsockopt(s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&actual), &size))
        << ::WSAGetLastError();
    EXPECT_EQ(expected->dwCatalogEntryId, actual.dwCatalogEntryId);
    EXPECT_EQ("", RoundTrip(s, af));
    ::closesocket(s);

    // The record is cached: a second socket walks nothing and logs nothing.
    const ProtocolInfoW* cached = factory._GetProviderInfo(af);
    ASSERT_NE(cached, nullptr);
    EXPECT_EQ(expected->dwCatalogEntryId, cached->dwCatalogEntryId);
    SOCKET again = factory.CreateNonLSPSocket(af);
    EXPECT_NE(again, INVALID_SOCKET);
    ::closesocket(again);
    EXPECT_EQ(1, log.CountPrefix("CreateNonLSPSocket, _GetBaseProviderInfo ok, af=" + std::to_string(af) + ","));
  }
  // The narrow listing (what a failed lookup logs) shows every entry as well.
  std::string listing = factory.LogWSAProtocols();
  for (const auto& e : catalogue) {
    char entry[512];
    std::snprintf(entry, sizeof entry,
                  "EntryId=%lu, Name=%s, ChainLen=%d, Version=%d, AF=%d, SockType=%d, Protocol=%d, Guid=%s\n",
                  static_cast<unsigned long>(e.dwCatalogEntryId), Utf8(e.szProtocol).c_str(), e.ProtocolChain.ChainLen,
                  e.iVersion, e.iAddressFamily, e.iSocketType, e.iProtocol, GuidText(e.ProviderId).c_str());
    EXPECT_NE(std::string::npos, listing.find(entry)) << "missing: " << entry << "in:\n" << listing;
  }
  EXPECT_EQ(0, log.CountPrefix("CreateNonLSPSocket, _GetBaseProviderInfo fail"));
  EXPECT_EQ(0, log.CountPrefix("CreateNonLSPSocket, WSASocket fail"));
}

#else

TEST(NonLspWindowsTest, FindsTheBaseProvidersOfTheRealCatalogueLogsThemAndSends) {
  GTEST_SKIP() << "the socket provider catalogue exists on Windows only";
}

#endif

}  // namespace
}  // namespace zelsocket
