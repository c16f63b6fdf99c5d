// One recording sink for every sink interface of the library, a fixture with a
// running loop, and a resolver of the tests' own.
#ifndef ZELSOCKET_TESTS_SUPPORT_RECORDER_H
#define ZELSOCKET_TESTS_SUPPORT_RECORDER_H

#include <uv.h>

#include <map>

#include "address/host_addr_cache.h"
#include "support/test_support.h"
#include "zelsocket/channel.h"
#include "zelsocket/host_resolve.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/tcp.h"
#include "zelsocket/udp.h"

namespace zstest {

using zelsocket::IConstBuffer;
using zelsocket::IMutableBuffer;
using zelsocket::IPEndPoint;

struct Event {
  std::string kind;  // connect, send, recv, timeout, close, resolve
  int status = 0;    // a channel's timeout: its send count
  unsigned cookie = 0;
  std::string data{};  // bytes sent or received; the host of a resolution
  IPEndPoint address{};
  void* ctx = nullptr;
  bool onLoop = false;  // recorded on a loop thread
};

// Each callback runs the hook first, so that who waits for an event sees its effect.
class Recorder : public zelsocket::RefCountBase,
                 public zelsocket::IUdpSink,
                 public zelsocket::ITcpSink,
                 public zelsocket::IChannelSink,
                 public zelsocket::IHostResolveSink,
                 public Trace<Event> {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnSend(int s, IConstBuffer* b, const IPEndPoint& a, void* x) override { Add({"send", s, 0, Bytes(b), a, x}); }
  void OnRecv(int s, IMutableBuffer* b, const IPEndPoint& a, void* x) override { Add({"recv", s, 0, Bytes(b), a, x}); }
  void OnConnect(int s, const IPEndPoint& a, void* x) override { Add({"connect", s, 0, "", a, x}); }
  void OnSend(int s, IConstBuffer* b, void* x) override { Add({"send", s, 0, Bytes(b), {}, x}); }
  void OnRecv(int s, IMutableBuffer* b, void* x) override { Add({"recv", s, 0, Bytes(b), {}, x}); }
  void OnConnect(int s) override { Add({"connect", s}); }
  void OnSend(unsigned c, IConstBuffer* b, const IPEndPoint& a) override { Add({"send", 0, c, Bytes(b), a}); }
  void OnRecv(unsigned char* d, int n, const IPEndPoint& a) override {
    Add({"recv", n, 0, std::string(reinterpret_cast<char*>(d), static_cast<size_t>(n)), a});
  }
  void OnTimeout(unsigned c, int send) override { Add({"timeout", send, c}); }
  void OnClose() override { Add({"close"}); }
  void OnHostResolve(int err, const char* host, const zelsocket::IPAddress& a, void* x) override {
    Add({"resolve", err, 0, host, IPEndPoint(a, 1), x});
  }

  // Runs inside each callback; may be replaced while the library calls.
  void SetHook(std::function<void(const Event&)> hook) {
    std::lock_guard<std::mutex> lock(m_hookMutex);
    m_hook = std::move(hook);
  }
  std::vector<Event> Of(const std::string& kind) const {  // all for an empty kind
    std::vector<Event> out;
    for (const Event& e : Events())
      if (kind.empty() || e.kind == kind) out.push_back(e);
    return out;
  }
  size_t Count(const std::string& kind) const { return Of(kind).size(); }
  bool Wait(const std::string& kind, size_t n, std::chrono::milliseconds t = std::chrono::milliseconds(5000)) const {
    return WaitUntil([&] { return Count(kind) >= n; }, t);
  }
  std::vector<std::string> Kinds() const {  // "kind:status" of every event, to compare whole sequences
    std::vector<std::string> out;
    for (const Event& e : Events()) out.push_back(e.kind + ":" + std::to_string(e.status));
    return out;
  }

 private:
  static std::string Bytes(const IConstBuffer* b) {
    return b && b->GetLength() > 0 ? std::string(reinterpret_cast<const char*>(b->GetBuf()), b->GetLength()) : "";
  }
  void Add(Event e) {
    e.onLoop = zelsocket::IOLoop::CurrentLoop() != nullptr;
    std::unique_lock<std::mutex> lock(m_hookMutex);
    auto hook = m_hook;  // called unlocked: it may replace itself
    lock.unlock();
    if (hook) hook(e);
    Trace<Event>::Add(std::move(e));
  }
  std::mutex m_hookMutex;
  std::function<void(const Event&)> m_hook;
};

inline zelsocket::RefPtr<Recorder> NewRecorder() {
  zelsocket::RefPtr<Recorder> r;
  r.Attach(new Recorder());
  return r;
}

inline zelsocket::RefPtr<IMutableBuffer> Buf(const std::string& data = std::string()) {
  zelsocket::RefPtr<IMutableBuffer> b;
  zelsocket::CreateBuffer(b);
  b->CopyFrom(data.data(), static_cast<int>(data.size()));
  return b;
}

inline void* Ctx(long n) { return reinterpret_cast<void*>(n); }
inline std::string Text(const IPEndPoint& e) { return e.GetAddress().GetString() + ":" + std::to_string(e.GetPort()); }
// How many references `object` has.
inline int CountOf(zelsocket::IRefCount* object) { return object->AddRef(), object->Release(); }

// A started loop, stopped after the test, with a log recorder and a sink.
class LoopFixture : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loop.Start(), 0); }
  void TearDown() override { EXPECT_EQ(loop.Stop(), 0); }
  void OnLoop(const std::function<void()>& fn) { zstest::OnLoop(loop, fn); }

  LogRecorder log;  // also keeps the per-packet and per-datagram lines off the output
  zelsocket::IOLoop loop;
  zelsocket::RefPtr<Recorder> sink = NewRecorder();
};

// Host names answered from a table instead of the machine's resolver, through
// the cache's lookup seam, so that no unit test depends on the machine.  A name
// in the table resolves to its address, any other fails; the answer is posted
// to the loop, so Drain waits for it.  "refuse" fails at once; "hold" waits
// for FailHeld.
class FakeResolver {
 public:
  explicit FakeResolver(std::map<std::string, std::string> table) {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_table = std::move(table);
    s_lookups.clear();
    zelsocket::HostAddrCache::SetLookupForTesting(&Lookup);
  }
  ~FakeResolver() { zelsocket::HostAddrCache::SetLookupForTesting(nullptr); }
  int Lookups(const std::string& host) const {
    std::lock_guard<std::mutex> lock(s_mutex);
    return static_cast<int>(std::count(s_lookups.begin(), s_lookups.end(), host));
  }
  // Fails the held lookups; on the thread of their loop.
  void FailHeld() {
    std::vector<std::pair<uv_getaddrinfo_t*, uv_getaddrinfo_cb>> held;
    std::unique_lock<std::mutex> lock(s_mutex);
    held.swap(s_held);
    lock.unlock();
    for (auto& [req, done] : held) done(req, UV_EAI_NONAME, nullptr);
  }

 private:
  static int Lookup(uv_loop_t* loop, uv_getaddrinfo_t* req, uv_getaddrinfo_cb done, const char* host, const char*,
                    const addrinfo*) {
    std::lock_guard<std::mutex> lock(s_mutex);
    s_lookups.push_back(host);
    std::string answer = s_table.count(host) ? s_table[host] : "";
    if (answer == "refuse") return UV_EAI_FAIL;
    if (answer == "hold") return s_held.emplace_back(req, done), 0;
    // A numeric lookup without a callback runs at once and never asks a
    // resolver; its result is one that the library's uv_freeaddrinfo can free.
    uv_getaddrinfo_t numeric;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_flags = AI_NUMERICHOST;
    int status = uv_getaddrinfo(loop, &numeric, nullptr, answer.empty() ? "-" : answer.c_str(), nullptr, &hints);
    addrinfo* result = status == 0 ? numeric.addrinfo : nullptr;
    return zelsocket::IOLoop::CurrentLoop()->AsyncCall([=] { done(req, status, result); });
  }
  static inline std::mutex s_mutex;
  static inline std::map<std::string, std::string> s_table;
  static inline std::vector<std::string> s_lookups;
  static inline std::vector<std::pair<uv_getaddrinfo_t*, uv_getaddrinfo_cb>> s_held;
};

}  // namespace zstest

#endif  // ZELSOCKET_TESTS_SUPPORT_RECORDER_H
