// Socket creation past layered providers, over a catalogue in memory, so that
// the walk and the fallback chain are tested where no catalogue exists.
#include "socket/non_lsp_socket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>

#include "support/test_support.h"

namespace zelsocket {
namespace {

const ProviderGuid kLayered = {0x12345678, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}};

ProtocolInfoW Entry(const ProviderGuid& id, unsigned entryId, int af, int chainLen) {
  ProtocolInfoW e = {};
  e.ProviderId = id;
  e.dwCatalogEntryId = entryId;
  e.ProtocolChain.ChainLen = chainLen;
  e.iVersion = 2;
  e.iAddressFamily = af;
  e.iSocketType = 2;
  e.iProtocol = 17;
  std::wcsncpy(e.szProtocol, L"entry", 255);
  return e;
}

// `demands`: the lengths that successive walks claim to need before one fits
// (a catalogue that grows while it is read).
class FakePlatform : public INonLspPlatform {
 public:
  std::vector<ProtocolInfoW> catalogue;
  std::vector<EnumLength> demands, offered;
  std::atomic<int> walks{0};
  bool refuseWSASocket = false;
  int refuseSocketProtocol = -1;  // -2: every plain socket
  std::mutex mutex;
  std::vector<std::string> creations;
  int lastError = 0;

  int WSAEnumProtocolsW(int*, ProtocolInfoW* buffer, EnumLength* length) override {
    walks++;
    std::lock_guard<std::mutex> lock(mutex);
    offered.push_back(*length);
    EnumLength needed = static_cast<EnumLength>(catalogue.size() * sizeof(ProtocolInfoW));
    if (offered.size() <= demands.size()) needed = std::max(needed, demands[offered.size() - 1]);
    if (*length < needed) {
      *length = needed;
      lastError = kEnumNoBuffers;
      return -1;
    }
    if (!catalogue.empty()) std::memcpy(buffer, catalogue.data(), catalogue.size() * sizeof(ProtocolInfoW));
    return static_cast<int>(catalogue.size());
  }
  int WSAEnumProtocolsA(int*, ProtocolInfoA*, EnumLength*) override {
    lastError = 10022;
    return -1;
  }
  SocketHandle WSASocketW(int af, int type, int protocol, ProtocolInfoW* info) override {
    std::lock_guard<std::mutex> lock(mutex);
    creations.push_back("W " + std::to_string(af) + " " + std::to_string(type) + " " + std::to_string(protocol) +
                        (info ? " entry=" + std::to_string(info->dwCatalogEntryId) : " null"));
    lastError = 10047;
    return refuseWSASocket ? kInvalidSocket : 100;
  }
  SocketHandle Socket(int af, int type, int protocol) override {
    std::lock_guard<std::mutex> lock(mutex);
    creations.push_back("S " + std::to_string(af) + " " + std::to_string(type) + " " + std::to_string(protocol));
    lastError = 10043;
    return refuseSocketProtocol == -2 || refuseSocketProtocol == protocol ? kInvalidSocket : 200 + protocol;
  }
  int WSAGetLastError() override { return lastError; }
  int StringFromGUID2(const ProviderGuid& guid, wchar_t* text, int length) override {
    return NativeNonLspPlatform().StringFromGUID2(guid, text, length);
  }
};

TEST(NonLspSocketTest, GrowsTheBufferAndPicksTheBaseEntryPastLayeredOnes) {
  zstest::LogRecorder log;
  FakePlatform fake;
  fake.catalogue = {Entry(kLayered, 1001, AF_INET, 2), Entry(*BaseProviderId(AF_INET), 1002, AF_INET6, 1),
                    Entry(*BaseProviderId(AF_INET), 1003, AF_INET, 1),
                    Entry(*BaseProviderId(AF_INET6), 1004, AF_INET6, 1)};
  fake.demands = {9000, 20000};
  NonLspSocketFactory factory(fake);
  EXPECT_EQ(factory.CreateNonLSPSocket(AF_INET), 100);
  EXPECT_EQ(fake.offered, (std::vector<EnumLength>{8192, 9000, 20000}));
  const ProtocolInfoW* info6 = factory._GetProviderInfo(AF_INET6);
  ASSERT_NE(info6, nullptr);
  EXPECT_EQ(info6->dwCatalogEntryId, 1004u);  // the IPv4 base id does not count for IPv6
  EXPECT_EQ(factory.CreateNonLSPSocket(AF_INET), 100);
  EXPECT_EQ(fake.walks.load(), 3 + 1);  // found once per family, never again
  EXPECT_EQ(fake.creations, (std::vector<std::string>{"W 2 2 17 entry=1003", "W 2 2 17 entry=1003"}));
  // The log line that support relies on names the entry and the provider.
  EXPECT_EQ(log.Count("CreateNonLSPSocket, _GetBaseProviderInfo ok, af=2, type=2, protocol=17, EntryId=1003, "
                      "ChainLen=1, Name=entry, Guid={E70F1AA0-AB8B-11CF-8CA3-00805F48A192}"),
            1);
}

TEST(NonLspSocketTest, ConcurrentLookupsWalkOnceAndShareTheRecord) {
  FakePlatform fake;
  fake.catalogue = {Entry(*BaseProviderId(AF_INET6), 55, AF_INET6, 1)};
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
  EXPECT_EQ(fake.walks.load(), 1);
  ASSERT_NE(seen[0], nullptr);
  for (const auto* p : seen) EXPECT_EQ(p, seen[0]);
}

// Without a base entry the provider socket is made with no record; when that
// fails, a plain UDP socket; when that fails, a plain socket of protocol 0.
TEST(NonLspSocketTest, FallbackChain) {
  struct Case {
    bool missingEntry, refuseWSASocket;
    int refuseSocketProtocol, af;
    SocketHandle result;
    std::vector<std::string> creations;
  };
  const Case cases[] = {
      {true, false, -1, AF_INET6, 100, {"W " + std::to_string(AF_INET6) + " 2 17 null"}},  // 23 on Windows
      {false, true, -1, AF_INET, 217, {"W 2 2 17 entry=9", "S 2 2 17"}},
      {false, true, 17, AF_INET, 200, {"W 2 2 17 entry=9", "S 2 2 17", "S 2 2 0"}},
      {false, true, -2, 0, kInvalidSocket, {"W 0 2 17 null", "S 0 2 17", "S 0 2 0"}},
  };
  for (const Case& c : cases) {
    FakePlatform fake;
    if (!c.missingEntry) fake.catalogue = {Entry(*BaseProviderId(AF_INET), 9, AF_INET, 1)};
    fake.refuseWSASocket = c.refuseWSASocket;
    fake.refuseSocketProtocol = c.refuseSocketProtocol;
    NonLspSocketFactory factory(fake);
    EXPECT_EQ(factory.CreateNonLSPSocket(c.af), c.result) << c.creations.back();
    EXPECT_EQ(fake.creations, c.creations);
    EXPECT_EQ(fake.walks.load(), c.af == 0 ? 0 : 1);  // family 0 never walks
  }
}

#ifdef SO_DOMAIN
TEST(NonLspSocketTest, NativePlatformGivesDatagramSocketsOfTheFamily) {
  zstest::LogRecorder log;
  for (int af : {AF_INET, AF_INET6}) {
    SocketHandle s = CreateNonLSPSocket(af);
    ASSERT_NE(s, kInvalidSocket);
    int type = 0, domain = 0;
    socklen_t len = sizeof type;
    ASSERT_EQ(getsockopt(s, SOL_SOCKET, SO_TYPE, &type, &len), 0);
    len = sizeof domain;
    ASSERT_EQ(getsockopt(s, SOL_SOCKET, SO_DOMAIN, &domain, &len), 0);
    EXPECT_EQ(type, SOCK_DGRAM);
    EXPECT_EQ(domain, af);
    CloseSocketHandle(s);
  }
}
#endif

}  // namespace
}  // namespace zelsocket
