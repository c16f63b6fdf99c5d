// Socket creation past layered providers: over a catalogue in memory, so that
// it is tested where none exists, and on Windows over the system's own.
#include "socket/non_lsp_socket.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <future>
#include <mutex>

#include "support/test_support.h"

namespace zelsocket {
namespace {

ProtocolInfoW Entry(const ProviderGuid& id, unsigned entryId, int af, int chainLen = 1) {
  ProtocolInfoW e = {};
  e.ProviderId = id;
  e.dwCatalogEntryId = entryId;
  e.ProtocolChain.ChainLen = chainLen;
  e.iAddressFamily = af;
  e.iSocketType = 2;
  e.iProtocol = 17;
  std::wcsncpy(e.szProtocol, L"entry", 255);
  return e;
}

// `demands`: the lengths that successive walks claim to need before one fits
// (a catalogue that grows while it is read), and what each walk was `offered`.
struct FakePlatform : INonLspPlatform {
  std::vector<ProtocolInfoW> catalogue;
  std::vector<EnumLength> demands, offered;
  bool refuseWSASocket = false, listingStuck = false;
  int refuseProtocol = -1;  // of plain sockets; -2: every one
  std::mutex mutex;
  std::vector<std::string> creations;
  int lastError = 0;

  int WSAEnumProtocolsW(int*, ProtocolInfoW* buffer, EnumLength* length) override {
    std::lock_guard<std::mutex> lock(mutex);
    offered.push_back(*length);
    EnumLength needed = static_cast<EnumLength>(catalogue.size() * sizeof(ProtocolInfoW));
    if (offered.size() <= demands.size()) needed = std::max(needed, demands[offered.size() - 1]);
    if (*length < needed) return (*length = needed, lastError = kEnumNoBuffers, -1);
    if (!catalogue.empty()) std::memcpy(buffer, catalogue.data(), catalogue.size() * sizeof(ProtocolInfoW));
    return static_cast<int>(catalogue.size());
  }
  // The listing: the same entries, narrow.
  int WSAEnumProtocolsA(int*, ProtocolInfoA* buffer, EnumLength* length) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (listingStuck) return (lastError = kEnumNoBuffers, -1);  // asks for no more than it was given
    EnumLength needed = static_cast<EnumLength>(catalogue.size() * sizeof(ProtocolInfoA));
    if (*length < needed) return (*length = needed, lastError = kEnumNoBuffers, -1);
    for (const ProtocolInfoW& w : catalogue) {
      ProtocolInfoA& a = *buffer++;
      std::memcpy(&a, &w, offsetof(ProtocolInfoA, szProtocol));
      for (int i = 0; i < 256; ++i) a.szProtocol[i] = static_cast<char>(w.szProtocol[i]);  // the names are ASCII
    }
    return static_cast<int>(catalogue.size());
  }
  SocketHandle WSASocketW(int af, int type, int protocol, ProtocolInfoW* info) override {
    Log("W", af, type, protocol, info ? " entry=" + std::to_string(info->dwCatalogEntryId) : " null");
    return (lastError = 10047, refuseWSASocket ? kInvalidSocket : 100);
  }
  SocketHandle Socket(int af, int type, int protocol) override {
    Log("S", af, type, protocol, "");
    return (lastError = 10043, refuseProtocol == -2 || refuseProtocol == protocol ? kInvalidSocket : 200 + protocol);
  }
  void Log(const char* what, int af, int type, int protocol, const std::string& tail) {
    std::lock_guard<std::mutex> lock(mutex);
    std::string args = std::to_string(af) + " " + std::to_string(type) + " " + std::to_string(protocol);
    creations.push_back(what + (" " + args) + tail);
  }
  int WSAGetLastError() override { return lastError; }
  int StringFromGUID2(const ProviderGuid& guid, wchar_t* text, int length) override {
    return NativeNonLspPlatform().StringFromGUID2(guid, text, length);
  }
};

TEST(NonLspSocketTest, GrowsTheBufferAndPicksTheBaseEntryPastLayeredOnes) {
  zstest::LogRecorder log;
  FakePlatform fake;
  const ProviderGuid layered = {0xE70F1AA0, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}};  // the base's first field
  fake.catalogue = {Entry(layered, 1001, AF_INET, 2), Entry(*BaseProviderId(AF_INET), 1002, AF_INET6),
                    Entry(*BaseProviderId(AF_INET), 1003, AF_INET), Entry(*BaseProviderId(AF_INET6), 1004, AF_INET6)};
  fake.demands = {9000, 20000};
  NonLspSocketFactory factory(fake);
  EXPECT_EQ(factory.CreateNonLSPSocket(AF_INET), SocketHandle(100));
  EXPECT_EQ(fake.offered, (std::vector<EnumLength>{8192, 9000, 20000}));
  EXPECT_EQ(fake.creations, (std::vector<std::string>{"W 2 2 17 entry=1003"}));
  // The log line that support relies on names the entry and the provider.
  EXPECT_EQ(log.Count("CreateNonLSPSocket, _GetBaseProviderInfo ok, af=2, type=2, protocol=17, EntryId=1003, "
                      "ChainLen=1, Name=entry, Guid={E70F1AA0-AB8B-11CF-8CA3-00805F48A192}"),
            1);

  // Concurrent first lookups of a family walk once between them and share the record.
  NonLspSocketFactory fresh(fake);
  auto other = std::async(std::launch::async, [&] { return fresh._GetProviderInfo(AF_INET6); });
  const ProtocolInfoW* mine = fresh._GetProviderInfo(AF_INET6);
  EXPECT_EQ(mine, other.get());
  EXPECT_EQ(fake.offered.size(), 3u + 1);
  ASSERT_NE(mine, nullptr);
  EXPECT_EQ(mine->dwCatalogEntryId, 1004u);  // the IPv4 base id does not count for IPv6
  fake.listingStuck = true;  // a walk that cannot get on has failed, and the listing says so
  EXPECT_EQ(fresh.LogWSAProtocols(), "");
  EXPECT_EQ(log.Count("LogWSAProtocols, WSAEnumProtocolsA fail, ret=-1, err=10055"), 1);
}

// Without a base entry the provider socket is made with no record; when that
// fails, a plain UDP socket; when that fails, a plain socket of protocol 0.  A
// lookup's outcome, found or not, is kept: a second socket walks nothing, and a
// failed lookup logs the catalogue once.
TEST(NonLspSocketTest, FallbackChainAndTheKeptOutcomeOfTheLookup) {
  const struct { bool refuseWSASocket; int refuseProtocol, af; SocketHandle made; std::vector<std::string> creations; }
      cases[] = {  // the creations of one socket
      {false, -1, AF_INET6, 100, {"W " + std::to_string(AF_INET6) + " 2 17 null"}},  // 23 on Windows
      {true, -1, AF_INET, 217, {"W 2 2 17 entry=9", "S 2 2 17"}},
      {true, 17, AF_INET, 200, {"W 2 2 17 entry=9", "S 2 2 17", "S 2 2 0"}},
      {true, -2, 0, kInvalidSocket, {"W 0 2 17 null", "S 0 2 17", "S 0 2 0"}},
  };
  for (const auto& c : cases) {
    zstest::LogRecorder log;
    FakePlatform fake;
    fake.catalogue = {Entry(*BaseProviderId(AF_INET), 9, AF_INET)};
    fake.refuseWSASocket = c.refuseWSASocket;
    fake.refuseProtocol = c.refuseProtocol;
    NonLspSocketFactory factory(fake);
    EXPECT_EQ(factory.CreateNonLSPSocket(c.af), c.made) << c.creations.back();
    EXPECT_EQ(factory.CreateNonLSPSocket(c.af), c.made) << c.creations.back();
    std::vector<std::string> twice(c.creations);
    twice.insert(twice.end(), c.creations.begin(), c.creations.end());
    EXPECT_EQ(fake.creations, twice);
    EXPECT_EQ(fake.offered.size(), c.af == 0 ? 0u : 1u);  // family 0 never walks
    const std::string failed = "CreateNonLSPSocket, _GetBaseProviderInfo fail, af=" + std::to_string(c.af) +
                               ", type=2, protocol=17, Protocol List:\nEntryId=9, Name=entry, ChainLen=1, Version=0, "
                               "AF=2, SockType=2, Protocol=17, Guid={E70F1AA0-AB8B-11CF-8CA3-00805F48A192}\n\n";
    EXPECT_EQ(log.Count(failed), c.af == AF_INET6 ? 1 : 0) << c.creations.back();
  }
}

#ifdef _WIN32
// Over the catalogue the system really has, each socket stands on the base
// provider of its family, found by the walk rather than by a fallback.
TEST(NonLspSocketTest, StandsOnTheBaseProviderOfTheRealCatalogue) {
  WSADATA wsa{};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &wsa), 0);
  zstest::LogRecorder log;
  NonLspSocketFactory factory(NativeNonLspPlatform());
  for (int af : {AF_INET, AF_INET6}) {
    SOCKET s = factory.CreateNonLSPSocket(af);
    WSAPROTOCOL_INFOW actual{};
    int size = sizeof actual;
    EXPECT_EQ(0, ::getsockopt(s, SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&actual), &size)) << af;
    EXPECT_TRUE(IsEqualGUID(actual.ProviderId, *BaseProviderId(af))) << af;
    EXPECT_EQ(actual.ProtocolChain.ChainLen, 1) << af;
    EXPECT_EQ(1, log.CountPrefix("CreateNonLSPSocket, _GetBaseProviderInfo ok, af=" + std::to_string(af) + ","));
    ::closesocket(s);
  }
  WSACleanup();
}
#endif

}  // namespace
}  // namespace zelsocket
