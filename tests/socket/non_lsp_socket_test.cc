#include "socket/non_lsp_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace zelsocket {
namespace {

const ProviderGuid kLayered = {0x12345678, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}};

ProtocolInfoW Entry(const ProviderGuid& id, unsigned entryId, int af, int type, int protocol, int chainLen,
                    const wchar_t* name) {
  ProtocolInfoW e = {};
  e.ProviderId = id;
  e.dwCatalogEntryId = entryId;
  e.ProtocolChain.ChainLen = chainLen;
  e.iVersion = 2;
  e.iAddressFamily = af;
  e.iSocketType = type;
  e.iProtocol = protocol;
  std::wcsncpy(e.szProtocol, name, 255);
  return e;
}

// A catalogue in memory.  `demands` lists the lengths that successive calls
// claim to need before one fits (a catalogue that grows while it is read).
class FakePlatform : public INonLspPlatform {
 public:
  std::vector<ProtocolInfoW> catalogue;
  std::vector<EnumLength> demands;
  std::vector<EnumLength> offeredW;
  std::atomic<int> walksW{0};
  std::atomic<int> walksA{0};
  bool failEnumA = false;
  bool refuseWSASocket = false;
  int refuseSocketProtocol = -1;  // -2: refuse every plain socket
  std::mutex mutex;
  std::vector<std::string> creations;  // "W af type protocol info?" / "S af type protocol"
  int lastError = 0;

  int WSAEnumProtocolsW(int* protocols, ProtocolInfoW* buffer, EnumLength* length) override {
    walksW++;
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(protocols[0], 6);
    EXPECT_EQ(protocols[1], 17);
    EXPECT_EQ(protocols[2], 0);
    offeredW.push_back(*length);
    std::size_t attempt = offeredW.size() - 1;
    EnumLength needed = static_cast<EnumLength>(catalogue.size() * sizeof(ProtocolInfoW));
    if (attempt < demands.size()) needed = std::max(needed, demands[attempt]);
    if (*length < needed) {
      *length = needed;
      lastError = kEnumNoBuffers;
      return -1;
    }
    if (!catalogue.empty()) std::memcpy(buffer, catalogue.data(), catalogue.size() * sizeof(ProtocolInfoW));
    return static_cast<int>(catalogue.size());
  }

  int WSAEnumProtocolsA(int*, ProtocolInfoA* buffer, EnumLength* length) override {
    walksA++;
    std::lock_guard<std::mutex> lock(mutex);
    if (failEnumA) {
      lastError = 10022;
      return -1;
    }
    EnumLength needed = static_cast<EnumLength>(catalogue.size() * sizeof(ProtocolInfoA));
    if (*length < needed) {
      *length = needed;
      lastError = kEnumNoBuffers;
      return -1;
    }
    for (std::size_t i = 0; i < catalogue.size(); ++i) {
      ProtocolInfoA& a = buffer[i];
      const ProtocolInfoW& w = catalogue[i];
      a.ProviderId = w.ProviderId;
      a.dwCatalogEntryId = w.dwCatalogEntryId;
      a.ProtocolChain.ChainLen = w.ProtocolChain.ChainLen;
      a.iVersion = w.iVersion;
      a.iAddressFamily = w.iAddressFamily;
      a.iSocketType = w.iSocketType;
      a.iProtocol = w.iProtocol;
      for (int k = 0; k < 256; ++k) a.szProtocol[k] = static_cast<char>(w.szProtocol[k]);
    }
    return static_cast<int>(catalogue.size());
  }

  SocketHandle WSASocketW(int af, int type, int protocol, ProtocolInfoW* info) override {
    std::lock_guard<std::mutex> lock(mutex);
    creations.push_back("W " + std::to_string(af) + " " + std::to_string(type) + " " + std::to_string(protocol) +
                        (info ? " entry=" + std::to_string(info->dwCatalogEntryId) : " null"));
    if (refuseWSASocket) {
      lastError = 10047;
      return kInvalidSocket;
    }
    return 100;
  }

  SocketHandle Socket(int af, int type, int protocol) override {
    std::lock_guard<std::mutex> lock(mutex);
    creations.push_back("S " + std::to_string(af) + " " + std::to_string(type) + " " + std::to_string(protocol));
    if (refuseSocketProtocol == -2 || refuseSocketProtocol == protocol) {
      lastError = 10043;
      return kInvalidSocket;
    }
    return 200 + protocol;
  }

  int WSAGetLastError() override { return lastError; }

  int StringFromGUID2(const ProviderGuid& guid, wchar_t* text, int length) override {
    return NativeNonLspPlatform().StringFromGUID2(guid, text, length);
  }
};

int CountPrefix(const zstest::LogRecorder& log, const std::string& prefix) { return log.CountPrefix(prefix); }

TEST(NonLspSocketTest, GrowsTheBufferAndPicksTheBaseEntryPastLayeredOnes) {
  zstest::LogRecorder log;
  FakePlatform fake;
  fake.catalogue.push_back(Entry(kLayered, 1001, AF_INET, 2, 17, 2, L"Layered UDP"));
  fake.catalogue.push_back(Entry(*BaseProviderId(AF_INET), 1002, AF_INET, 1, 6, 1, L"Base TCP/IP"));
  fake.catalogue.push_back(Entry(*BaseProviderId(AF_INET), 1003, AF_INET, 2, 17, 1, L"Base UDP/IP"));
  fake.catalogue.push_back(Entry(*BaseProviderId(AF_INET6), 1004, AF_INET6, 2, 17, 1, L"Base UDP/IPv6"));
  fake.demands = {9000, 20000};  // two refusals, each asking for more

  NonLspSocketFactory factory(fake);
  const ProtocolInfoW* info = factory._GetProviderInfo(AF_INET);
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->dwCatalogEntryId, 1003u);
  EXPECT_EQ(fake.offeredW, (std::vector<EnumLength>{8192, 9000, 20000}));
  EXPECT_EQ(log.Count("CreateNonLSPSocket, _GetBaseProviderInfo ok, af=2, type=2, protocol=17, EntryId=1003, "
                      "ChainLen=1, Name=Base UDP/IP, Guid={E70F1AA0-AB8B-11CF-8CA3-00805F48A192}"),
            1);

  EXPECT_NE(factory.CreateNonLSPSocket(AF_INET), kInvalidSocket);
  const ProtocolInfoW* info6 = factory._GetProviderInfo(AF_INET6);
  ASSERT_NE(info6, nullptr);
  EXPECT_EQ(info6->dwCatalogEntryId, 1004u);
  EXPECT_EQ(factory._GetProviderInfo(AF_INET), info);
  EXPECT_EQ(fake.walksW.load(), 3 + 1);  // three attempts for IPv4, one for IPv6, none again
  EXPECT_EQ(fake.creations, (std::vector<std::string>{"W 2 2 17 entry=1003"}));
  EXPECT_EQ(CountPrefix(log, "CreateNonLSPSocket, _GetBaseProviderInfo ok"), 2);
}

TEST(NonLspSocketTest, MissingBaseEntryIsLookedUpOnceAndListed) {
  zstest::LogRecorder log;
  FakePlatform fake;
  fake.catalogue.push_back(Entry(kLayered, 7, AF_INET, 2, 17, 2, L"Layered UDP"));
  // The right family and type under the IPv4 base id does not count for IPv6.
  fake.catalogue.push_back(Entry(*BaseProviderId(AF_INET), 8, AF_INET6, 2, 17, 1, L"Odd"));
  NonLspSocketFactory factory(fake);

  EXPECT_EQ(factory.CreateNonLSPSocket(AF_INET6), 100);
  EXPECT_EQ(factory.CreateNonLSPSocket(AF_INET6), 100);
  EXPECT_EQ(fake.walksW.load(), 1);
  EXPECT_EQ(fake.walksA.load(), 1);
  EXPECT_EQ(fake.creations, (std::vector<std::string>{"W 10 2 17 null", "W 10 2 17 null"}));
  EXPECT_EQ(log.Count("CreateNonLSPSocket, _GetBaseProviderInfo fail, af=10, type=2, protocol=17, Protocol List:\n"
                      "EntryId=7, Name=Layered UDP, ChainLen=2, Version=2, AF=2, SockType=2, Protocol=17, "
                      "Guid={12345678-1111-2222-0102-030405060708}\n"
                      "EntryId=8, Name=Odd, ChainLen=1, Version=2, AF=10, SockType=2, Protocol=17, "
                      "Guid={E70F1AA0-AB8B-11CF-8CA3-00805F48A192}\n\n"),
            1);
  for (const auto& line : log.Lines()) {
    EXPECT_EQ(line.tag, "non_lsp_socket");
    EXPECT_EQ(line.level, LOG_LEVEL_INFO);
  }
}

TEST(NonLspSocketTest, FailedListingLeavesTheListEmpty) {
  zstest::LogRecorder log;
  FakePlatform fake;
  fake.failEnumA = true;
  NonLspSocketFactory factory(fake);
  EXPECT_EQ(factory.LogWSAProtocols(), "");
  EXPECT_EQ(log.Count("LogWSAProtocols, WSAEnumProtocolsA fail, ret=-1, err=10022"), 1);
  EXPECT_EQ(factory._GetProviderInfo(AF_INET), nullptr);  // empty catalogue
  EXPECT_EQ(log.Count("CreateNonLSPSocket, _GetBaseProviderInfo fail, af=2, type=2, protocol=17, Protocol List:\n\n"),
            1);
}

TEST(NonLspSocketTest, ConcurrentLookupsWalkOnceAndShareTheRecord) {
  zstest::LogRecorder log;
  FakePlatform fake;
  fake.catalogue.push_back(Entry(*BaseProviderId(AF_INET6), 55, AF_INET6, 2, 17, 1, L"Base UDP/IPv6"));
  NonLspSocketFactory factory(fake);

  constexpr int kThreads = 8;
  std::atomic<int> ready{0};
  std::vector<const ProtocolInfoW*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      ready++;
      while (ready.load() < kThreads) std::this_thread::yield();
      seen[i] = factory._GetProviderInfo(AF_INET6);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(fake.walksW.load(), 1);
  EXPECT_EQ(CountPrefix(log, "CreateNonLSPSocket, _GetBaseProviderInfo ok"), 1);
  ASSERT_NE(seen[0], nullptr);
  for (const auto* p : seen) EXPECT_EQ(p, seen[0]);
}

TEST(NonLspSocketTest, FallbackChainAndUnknownFamilies) {
  zstest::LogRecorder log;
  FakePlatform fake;
  fake.catalogue.push_back(Entry(*BaseProviderId(AF_INET), 9, AF_INET, 2, 17, 1, L"Base UDP/IP"));
  fake.refuseWSASocket = true;
  NonLspSocketFactory factory(fake);

  EXPECT_EQ(factory.CreateNonLSPSocket(AF_INET), 217);
  EXPECT_EQ(log.CountPrefix("CreateNonLSPSocket, WSASocket fail, af=2, type=2, protocol=17, info=0x"), 1);

  fake.refuseSocketProtocol = 17;
  EXPECT_EQ(factory.CreateNonLSPSocket(AF_INET), 200);
  EXPECT_EQ(log.Count("CreateNonLSPSocket, socket fail, af=2, type=2, protocol=17, err=10043"), 1);

  fake.refuseSocketProtocol = -2;
  fake.creations.clear();
  EXPECT_EQ(factory.CreateNonLSPSocket(0), kInvalidSocket);
  EXPECT_EQ(fake.creations, (std::vector<std::string>{"W 0 2 17 null", "S 0 2 17", "S 0 2 0"}));
  EXPECT_EQ(log.Count("CreateNonLSPSocket, socket fail, af=0, type=2, protocol=0, err=10043"), 1);
  EXPECT_EQ(fake.walksW.load(), 1);  // family 0 never walks
  EXPECT_EQ(factory._GetProviderInfo(12345), nullptr);
  EXPECT_EQ(fake.walksW.load(), 1);
}

TEST(NonLspSocketTest, NativePlatformGivesUsableDatagramSockets) {
  zstest::LogRecorder log;
  for (int af : {AF_INET, AF_INET6}) {
    for (int round = 0; round < 2; ++round) {
      SocketHandle s = CreateNonLSPSocket(af);
      ASSERT_NE(s, kInvalidSocket);
      int type = 0;
      socklen_t len = sizeof type;
      ASSERT_EQ(getsockopt(s, SOL_SOCKET, SO_TYPE, &type, &len), 0);
      EXPECT_EQ(type, SOCK_DGRAM);
      int domain = 0;
      len = sizeof domain;
      ASSERT_EQ(getsockopt(s, SOL_SOCKET, SO_DOMAIN, &domain, &len), 0);
      EXPECT_EQ(domain, af);
      CloseSocketHandle(s);
    }
  }
  // No catalogue here: at most one "fail" line for each family, ever.
  EXPECT_LE(log.CountPrefix("CreateNonLSPSocket, _GetBaseProviderInfo fail, af=2,"), 1);
  EXPECT_LE(log.CountPrefix("CreateNonLSPSocket, _GetBaseProviderInfo fail, af=10,"), 1);
  EXPECT_EQ(log.CountPrefix("CreateNonLSPSocket, WSASocket fail"), 0);
}

}  // namespace
}  // namespace zelsocket
