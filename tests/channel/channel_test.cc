// The retransmission engine, then the channel over a scripted socket (with a
// property that a reference model judges), then over real sockets: dnsmasq on
// loopback and by name in a namespace of its own, and a closed port.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <tuple>

#include "channel/data_sender.h"
#include "channel/udp_channel_impl.h"
#include "support/fake_resolver.h"
#include "support/process.h"
#include "support/recorder.h"
#include "zelsocket/channel_option.h"

namespace zelsocket {
namespace {

using zstest::Event;

// One datagram per due entry, with these waits in milliseconds.
RefPtr<IChannelSendOption> Schedule(const std::vector<int>& intervals) {
  RefPtr<IChannelSendOption> o;
  CreateChannelSendOption(o);
  o->SetPacketPerSend(1);
  for (int i : intervals) o->AddSendInterval(i);
  return o;
}

// Defaults append, values below 1 are clamped, intervals are taken as given;
// out-of-range indexes throw; copies are objects of their own.
TEST(ChannelSendOptionTest, Schedules) {
  using Op = std::function<void(ChannelSendOption&)>;
  const struct { const char* name; Op op; int perSend; std::vector<int> intervals; } rows[] = {
      {"empty", [](ChannelSendOption&) {}, 0, {}},
      {"udp", [](ChannelSendOption& o) { o.SetDefaultForUdp(); }, 1, {3000, 5000, 7000}},
      {"udp appends", [](ChannelSendOption& o) { o.AddSendInterval(9), o.SetDefaultForUdp(); }, 1, {9, 3000, 5000, 7000}},
      {"tcp", [](ChannelSendOption& o) { o.SetDefaultForTcp(); }, 1, {1}},
      {"reset", [](ChannelSendOption& o) { o.SetDefaultForUdp(), o.Reset(); }, 0, {}},
      {"clamped", [](ChannelSendOption& o) { o.SetPacketPerSend(0), o.AddSendInterval(-1); }, 1, {-1}},
      {"per send", [](ChannelSendOption& o) { o.SetPacketPerSend(3); }, 3, {}},
      {"assigned", [](ChannelSendOption& o) { o.SetDefaultForUdp(), o = ChannelSendOption(); }, 1, {}},  // 0 copies as 1
      {"copied", [](ChannelSendOption& o) { o.AddSendInterval(9), o = ChannelSendOption(o); }, 1, {9}},
  };
  for (const auto& row : rows) {
    ChannelSendOption o;
    row.op(o);
    std::vector<int> intervals;
    for (int i = 0; i < o.GetSendCount(); ++i) intervals.push_back(o.GetSendInterval(i));
    EXPECT_EQ(intervals, row.intervals) << row.name;
    EXPECT_EQ(o.GetPacketPerSend(), row.perSend) << row.name;
    EXPECT_EQ(o.IsValid(), row.perSend != 0 && !row.intervals.empty()) << row.name;
    EXPECT_THROW(o.GetSendInterval(o.GetSendCount()), std::out_of_range) << row.name;
    EXPECT_THROW(o.GetSendInterval(-1), std::out_of_range) << row.name;
  }
  ChannelSendOption a, b;
  a.SetDefaultForTcp();
  b = a;
  ChannelSendOption c(b);
  b.AddSendInterval(5);
  static_cast<IChannelSendOption*>(c)->CopyTo(c);  // onto itself: nothing changes
  static_cast<IChannelSendOption*>(c)->CopyTo(nullptr);
  EXPECT_EQ(a.GetSendCount(), 1);
  EXPECT_EQ(c.GetSendCount(), 1);
  EXPECT_FALSE(CreateChannelSendOption(static_cast<IChannelSendOption**>(nullptr)));
}

// A scripted IUdp: it records what it is asked to do and reports only when the
// test says so, which makes the orders of events exact.  Every socket the
// channel makes is in `made`, set up from the `next` values; the channel makes
// them on the loop thread, and the test reads them there.
class FakeUdp : public IUdp, public RefCountBase {
 public:
  struct Datagram {
    RefPtr<IConstBuffer> buffer;
    IPEndPoint dest;
    void* ctx;
  };
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void SetSink(IUdpSink* s) override { sink = s; }
  int Open(const UdpOpenOptions& options) override { return Open(options.bindAddress); }
  int Open(const IPEndPoint& address) override {  // the next of `openResults`, 0 once they run out
    openPorts.push_back(address.GetPort());
    int rc = openPorts.size() <= openResults.size() ? openResults[openPorts.size() - 1] : 0;
    open = rc == 0;
    return rc;
  }
  int Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) override {
    sent.push_back(Datagram{buffer, dest, ctx});
    return 0;
  }
  int Recv(IMutableBuffer*, void*) override { return -1; }
  int StartRecv(IMutableBuffer* buffer, void*) override {
    recvBuffer = buffer;
    return startRecvResult;
  }
  int CancelRecv() override { return 0; }
  int Close() override {
    open = false;
    return 0;
  }
  bool IsOpen() override { return open; }
  int GetLocalAddress(IPEndPoint&) override { return -1; }
  int SetSendBufferSize(unsigned int) override { return -1; }
  int SetRecvBufferSize(unsigned int) override { return -1; }

  void CompleteSend(int status) {  // reports the oldest unreported datagram
    Datagram d = sent[reported++];
    if (sink) sink->OnSend(status, d.buffer, d.dest, d.ctx);
  }
  void Deliver(const std::string& data, const IPEndPoint& from) {
    recvBuffer->CopyFrom(data.data(), static_cast<int>(data.size()));
    if (sink) sink->OnRecv(0, recvBuffer, from, nullptr);
  }
  void FailRecv(int status) {
    recvBuffer->Resize(0);
    if (sink) sink->OnRecv(status, recvBuffer, IPEndPoint(), nullptr);
  }
  static bool Make(RefPtr<IUdp>& out, IOLoop*) {
    if (noSocket) return false;
    made.emplace_back().Attach(new FakeUdp());
    out = made.back().Get();
    return true;
  }
  static void Reset(std::vector<int> openResults = {}, int startRecvResult = 0, bool none = false) {
    made.clear();
    nextOpenResults = std::move(openResults);
    nextStartRecvResult = startRecvResult;
    noSocket = none;
  }
  static inline std::vector<RefPtr<FakeUdp>> made;
  static inline std::vector<int> nextOpenResults;
  static inline int nextStartRecvResult = 0;
  static inline bool noSocket = false;

  RefPtr<IUdpSink> sink;
  IMutableBuffer* recvBuffer = nullptr;
  std::vector<int> openResults = nextOpenResults;
  std::vector<unsigned short> openPorts;
  int startRecvResult = nextStartRecvResult;
  std::vector<Datagram> sent;
  size_t reported = 0;
  bool open = false;
};

// Host names come from a table: "nothing.test" fails, "held.test" waits.
class ChannelTest : public zstest::LoopFixture {
 protected:
  void SetUp() override {
    LoopFixture::SetUp();
    FakeUdp::Reset();
    UdpChannelImpl::SetUdpFactoryForTesting(&FakeUdp::Make);
    channel = NewChannel();
  }
  void TearDown() override {
    channel = nullptr;
    OnLoop([] { FakeUdp::Reset(); });
    LoopFixture::TearDown();
    UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  }
  RefPtr<IChannel> NewChannel(IChannelSink* to = nullptr) {
    RefPtr<IChannel> c;
    EXPECT_TRUE(CreateUdpChannel(c, &loop));
    c->SetSink(to ? to : sink.Get());
    return c;
  }
  void ConnectOk(IChannel* c, unsigned short port = 9000) {
    size_t before = sink->Count("connect");
    ASSERT_EQ(c->Connect("127.0.0.1", port, nullptr), 0);
    ASSERT_TRUE(sink->Wait("connect", before + 1));
    ASSERT_EQ(sink->Of("connect").back().status, 0);
  }
  unsigned SendOk(IChannelSendOption* option, IChannel* c = nullptr, IConstBuffer* data = zstest::Buf("req")) {
    unsigned cookie = 0;
    EXPECT_EQ((c ? c : channel.Get())->Send(data, option, cookie), 0);
    return cookie;
  }

  zstest::FakeResolver resolver{{{"held.test", "hold"}}};
  RefPtr<IChannel> channel;
  RefPtr<IChannelSendOption> longSchedule = Schedule({10000});
};

// The engine runs on the loop thread with a fake clock: its own timer finds
// nothing due until the test moves the clock and runs a pass.  The fuzz target
// checks each packet's counts; this, the default timeline and its log line.
std::uint64_t g_tick = 1000000;
std::int64_t g_wall = 1700000000;
using Timeout = std::tuple<unsigned, int, int>;  // cookie, retry, send

class Sender : public DataSender, public IDataSenderSink {
 public:
  explicit Sender(IOLoop* loop) : DataSender(loop, [] { return g_tick; }, [] { return g_wall; }) {
    m_sink = this;
    m_paused = false;
    m_dest = IPEndPoint("127.0.0.1", 4000);
  }
  int SendData(Packet*) override {
    sent.push_back(g_tick);
    return 0;
  }
  void OnPacketTimeout(unsigned int c, int retry, int send) override { timeouts.emplace_back(c, retry, send); }
  std::vector<std::uint64_t> sent;  // the clock at each transmission
  std::vector<Timeout> timeouts;
};

TEST_F(ChannelTest, SenderDefaultTimelineItsLogLineAndTheOrderOfTimeouts) {
  std::unique_ptr<Sender> sender;
  OnLoop([&] {
    sender.reset(new Sender(&loop));
    RefPtr<IChannelSendOption> udp = Schedule({});
    udp->SetDefaultForUdp();
    const std::uint64_t start = g_tick;
    EXPECT_TRUE(sender->SendPacket(zstest::Buf("req"), udp, 7, start - 5));  // requested 5 ms before it was made
    // Milliseconds on, and the wall clock's seconds with them; the log line pins the time of each.
    const int steps[][2] = {{2999, 2}, {1, 1}, {4999, 5}, {1, 0}, {6999, 7}};
    for (const auto& step : steps) g_tick += step[0], g_wall += step[1], sender->RunPassForTesting();
    EXPECT_EQ(sender->timeouts.size(), 0u);
    g_tick += 1;
    sender->RunPassForTesting();
    EXPECT_EQ(sender->sent, (std::vector<std::uint64_t>{start, start + 3000, start + 8000}));
    EXPECT_EQ(sender->timeouts, (std::vector<Timeout>{{7, 3, 3}}));
    // Delays in ms; send times in whole seconds after the packet's creation.
    const std::string line =
        "timeout, cookie=7, retry=3, send=3, send-count=3, send-delay=5, recv-delay=15000, "
        "total-delay=15005, send-time=";
    EXPECT_EQ(log.CountIf([&](const zstest::LogLine& l) {
      return l.level == LOG_LEVEL_INFO && l.tag == "data_sender" && l.message.rfind(line, 0) == 0 &&
             l.message.substr(l.message.size() - 6) == ",0,3,8";
    }), 1);
    // Cookies are keyed as signed 32-bit values: past 2^31 they time out first.
    sender->timeouts.clear();
    for (unsigned c : {1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0x7FFFFFFEu, 0x80000001u})
      EXPECT_TRUE(sender->SendPacket(zstest::Buf("req"), Schedule({1000}), c, g_tick));
    sender->ForceAllPacketsTimeout();
    std::vector<unsigned> order;
    for (const Timeout& t : sender->timeouts) order.push_back(std::get<0>(t));
    EXPECT_EQ(order, (std::vector<unsigned>{0x80000000u, 0x80000001u, 0xFFFFFFFFu, 1u, 0x7FFFFFFEu, 0x7FFFFFFFu}));
    // Two packets due at once: one pass ends one, and the pass it posts right away the other.
    sender->timeouts.clear();
    for (unsigned c : {20u, 21u}) EXPECT_TRUE(sender->SendPacket(zstest::Buf("req"), Schedule({100}), c, g_tick));
    g_tick += 100;
    sender->RunPassForTesting();
    EXPECT_EQ(sender->timeouts.size(), 1u);
  });
  zstest::Drain(loop);  // well before the sender's own 100 ms timer
  OnLoop([&] {
    EXPECT_EQ(sender->timeouts.size(), 2u);
    sender.reset();
  });
}

// Refused at once: a null or empty buffer, a schedule without intervals, a
// null host.  Packets accepted before Connect time out before a failed
// OnConnect, or leave once before a successful one.
TEST_F(ChannelTest, RefusalsAndPacketsThatWaitForConnect) {
  unsigned cookie = 77;
  EXPECT_EQ(channel->Send(nullptr, nullptr, cookie), -1);
  EXPECT_EQ(channel->Send(zstest::Buf(""), nullptr, cookie), -1);
  EXPECT_EQ(channel->Send(zstest::Buf("x"), Schedule({}), cookie), -1);
  EXPECT_EQ(channel->Connect(nullptr, 9000, nullptr), -1);
  EXPECT_EQ(cookie, 77u);
  EXPECT_EQ(SendOk(longSchedule), 1u);
  EXPECT_EQ(SendOk(nullptr), 2u);
  ASSERT_EQ(channel->Connect("nothing.test", 9000, nullptr), 0);
  ASSERT_EQ(channel->Connect("", 9000, nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 2));
  EXPECT_EQ(sink->Kinds(), (std::vector<std::string>{"timeout:0", "timeout:0", "connect:-1", "connect:-1"}));
  EXPECT_EQ(log.CountPrefix("timeout, cookie=2, retry=0, send=0, send-count=3,"), 1);  // the library's schedule
  SendOk(longSchedule);
  SendOk(longSchedule);
  size_t sentAtConnect = 99;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "connect") sentAtConnect = FakeUdp::made[0]->sent.size();
  });
  ConnectOk(channel);
  EXPECT_EQ(sentAtConnect, 2u);
}

TEST_F(ChannelTest, SocketFailuresReachOnConnect) {
  struct Case {
    unsigned short min, max;
    std::vector<int> openResults;
    int startRecvResult;
    bool noSocket;
    int status;
    std::vector<unsigned short> tried;
  } cases[] = {
      {5000, 5002, {-98, -98, -98, 0}, 0, false, -98, {5000, 5001, 5002}},  // every port of the range, in order
      {5000, 5002, {-98, 0}, 0, false, 0, {5000, 5001}},
      {5000, 10, {-98, 0}, 0, false, -98, {5000}},  // max below min: min alone
      {0, 0, {}, -9, false, -9, {0}},               // the receive could not be armed
      {0, 0, {}, 0, true, -1, {}},                  // no socket could be made
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    FakeUdp::Reset(cases[i].openResults, cases[i].startRecvResult, cases[i].noSocket);
    ChannelConnectOption option;
    option.bindPortMin = cases[i].min;
    option.bindPortMax = cases[i].max;
    ASSERT_EQ(channel->Connect("127.0.0.1", 9000, &option), 0);
    ASSERT_TRUE(sink->Wait("connect", i + 1));
    EXPECT_EQ(sink->Of("connect")[i].status, cases[i].status) << i;
    zstest::OnLoop(loop, [&] {
      EXPECT_EQ(FakeUdp::made.empty() ? std::vector<unsigned short>() : FakeUdp::made[0]->openPorts, cases[i].tried)
          << i;
    });
  }
}

// New packets go to the new destination, pending ones keep theirs, and
// GetDestAddr keeps the connected address.
TEST_F(ChannelTest, ChangeDestMovesOnlyNewPackets) {
  IPEndPoint dest;
  EXPECT_EQ(channel->GetDestAddr(dest), 0);
  EXPECT_FALSE(dest.IsValid());
  ConnectOk(channel, 9000);
  SendOk(Schedule({20, 10000}));
  EXPECT_EQ(channel->ChangeDest(IPEndPoint("127.0.0.2", 9001)), 0);
  SendOk(longSchedule);
  OnLoop([] {});
  ASSERT_TRUE(zstest::WaitUntil([&] {
    size_t n = 0;
    zstest::OnLoop(loop, [&] { n = FakeUdp::made[0]->sent.size(); });
    return n == 3;
  }));
  OnLoop([&] {
    std::vector<std::string> sent;
    for (const auto& d : FakeUdp::made[0]->sent)
      sent.push_back(d.dest.GetAddress().GetString() + ":" + std::to_string(d.dest.GetPort()));
    EXPECT_EQ(sent, (std::vector<std::string>{"127.0.0.1:9000", "127.0.0.2:9001", "127.0.0.1:9000"}));
  });
  EXPECT_EQ(channel->GetDestAddr(dest), 0);
  EXPECT_EQ(dest.GetAddress().GetString(), "127.0.0.1");
  EXPECT_EQ(dest.GetPort(), 9000);
}

// The last reference goes inside OnTimeout (from ForceAllTimeout and from the
// timer) and inside OnRecv; a batch in progress finishes first, and the
// channel lets go of its sink.
TEST_F(ChannelTest, LastReferenceMayGoInsideCallbacks) {
  struct Case {
    const char* kind;
    std::function<void(IChannel*)> trigger;
    size_t events;
  } cases[] = {{"timeout", [](IChannel* c) { c->ForceAllTimeout(); }, 2},
               {"recv", [](IChannel*) { FakeUdp::made.back()->Deliver("x", IPEndPoint("127.0.0.1", 9000)); }, 1},
               {"timeout", nullptr, 1}};  // the last: the timer's
  for (const Case& c : cases) {
    auto s = zstest::NewRecorder();
    RefPtr<IChannel> owner = NewChannel(s);
    size_t connects = sink->Count("connect");
    ASSERT_EQ(owner->Connect("127.0.0.1", 9000, nullptr), 0);
    ASSERT_TRUE(s->Wait("connect", 1));
    SendOk(c.trigger ? longSchedule.Get() : Schedule({20}).Get(), owner);
    if (c.trigger) SendOk(longSchedule, owner);
    IChannel* raw = owner.Detach();
    s->SetHook([&, kind = std::string(c.kind)](const Event& e) {
      if (e.kind == kind && raw) std::exchange(raw, nullptr)->Release();
    });
    if (c.trigger) OnLoop([&] { c.trigger(raw); });
    ASSERT_TRUE(s->Wait(c.kind, c.events)) << c.kind;
    EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(static_cast<IChannelSink*>(s.Get())) == 1; }));
    EXPECT_EQ(sink->Count("connect"), connects);
    s->SetHook(nullptr);
  }
}

// Released on another thread with a resolution in flight, or after its loop
// has stopped: the answer finds nobody, and the pending packet and the sink
// are let go.
TEST_F(ChannelTest, ReleaseWithAResolutionInFlightOrAfterTheStop) {
  RefPtr<IMutableBuffer> data = zstest::Buf("req");
  ASSERT_EQ(channel->Connect("held.test", 9000, nullptr), 0);
  SendOk(longSchedule, channel, data);
  zstest::Drain(loop);
  channel = nullptr;
  OnLoop([&] { resolver.FailHeld(); });
  zstest::Drain(loop);
  EXPECT_EQ(sink->Events().size(), 0u);
  EXPECT_EQ(zstest::CountOf(data), 1);
  EXPECT_EQ(zstest::CountOf(static_cast<IChannelSink*>(sink.Get())), 1);
  channel = NewChannel();
  SendOk(longSchedule, channel, data);
  zstest::Drain(loop);
  ASSERT_EQ(loop.Stop(), 0);
  channel = nullptr;
  EXPECT_EQ(zstest::CountOf(data), 1);
  EXPECT_EQ(zstest::CountOf(static_cast<IChannelSink*>(sink.Get())), 1);
  ASSERT_EQ(loop.Start(), 0);
}

// Property: every accepted packet ends exactly once (CancelSend, OnTimeout, or
// silently by CancelAll or Close); after its end only OnSend for a datagram
// already in the socket names it.  A reference model judges each callback of
// random operations, socket reports and answers over a scripted socket.
class Model : public IChannelSink, public RefCountBase {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int status) override { ++stats["connect"], connected = status == 0; }
  void OnSend(unsigned int cookie, IConstBuffer*, const IPEndPoint&) override {
    ++stats["send"];
    if (!pending.count(cookie) && !(ended.count(cookie) && ended[cookie].count(completing)))
      Fail("OnSend after the end, or of a cookie never accepted", cookie);
  }
  void OnRecv(unsigned char*, int, const IPEndPoint&) override { ++stats["recv"]; }
  void OnTimeout(unsigned int cookie, int) override {
    ++stats["timeout"];
    if (!pending.count(cookie)) return Fail("OnTimeout of a packet not pending", cookie);
    End(cookie);
  }
  void OnClose() override {
    ++stats["close"];
    connected = false;
    if (!expectingClose || !pending.empty()) Fail("OnClose without a socket failure, or before a timeout", 0);
  }
  void Accept(unsigned int cookie) {
    if (!pending.insert(cookie).second || ended.count(cookie)) Fail("cookie given twice", cookie);
  }
  void End(unsigned int cookie) {
    pending.erase(cookie);
    std::set<size_t>& inSocket = ended[cookie];  // its datagrams the socket still held
    for (size_t i = socket ? socket->reported : 0; socket && i < socket->sent.size(); ++i)
      if (socket->sent[i].ctx == reinterpret_cast<void*>(static_cast<uintptr_t>(cookie))) inSocket.insert(i);
  }
  void EndAll() {
    for (unsigned int c : std::set<unsigned int>(pending)) End(c);
  }
  void Fail(const std::string& what, unsigned int cookie) { failures.push_back(what + " " + std::to_string(cookie)); }

  std::set<unsigned int> pending;
  std::map<unsigned int, std::set<size_t>> ended;
  std::vector<std::string> failures;
  std::map<std::string, int> stats;
  RefPtr<FakeUdp> socket;
  size_t completing = 0;  // index of the datagram whose report is being delivered
  bool connected = false, expectingClose = false;
};

TEST_F(ChannelTest, EveryAcceptedPacketEndsExactlyOnce) {
  // Long schedules end by operations; short ones time out meanwhile.
  RefPtr<IChannelSendOption> schedules[] = {Schedule({60000, 60000}), Schedule({30, 40})};
  std::map<std::string, int> total;
  for (unsigned seed = 1; seed <= 60; ++seed) {
    std::mt19937 random(seed);
    auto pick = [&random](size_t n) { return random() % n; };
    RefPtr<Model> model;
    model.Attach(new Model());
    channel = NewChannel();
    channel->SetSink(model);
    for (int step = 0; step < 120; ++step) {
      size_t op = pick(100);
      unsigned int cookie = 0;
      bool connected = false;
      if (op < 15 && channel->Send(zstest::Buf("q"), schedules[pick(3) == 0], cookie) == 0) {
        loop.SyncCall([&] { model->Accept(cookie); });  // the hop ran before this later call
      } else if (op >= 93) {                            // Connect when idle, and wait for OnConnect
        loop.SyncCall([&] { model->connected || channel->Connect("127.0.0.1", 9, nullptr); });
        zstest::WaitUntil([&] { return loop.SyncCall([&] { connected = model->connected; }), connected; });
        loop.SyncCall([&] { model->socket = FakeUdp::made.back(); });
      }
      loop.SyncCall([&] {
        RefPtr<FakeUdp> socket = model->connected ? model->socket : nullptr;
        const int closes = model->stats["close"];
        if (op < 30) {  // from the loop thread this time
          if (op >= 15 && channel->Send(zstest::Buf("q"), schedules[pick(3) == 0], cookie) == 0) model->Accept(cookie);
        } else if (op < 45) {  // CancelSend of a pending, an ended or an unknown cookie
          cookie = !model->pending.empty() && pick(4) ? *std::next(model->pending.begin(), pick(model->pending.size()))
                   : model->ended.empty()             ? 987654321u
                                                      : model->ended.begin()->first;
          bool wasPending = model->pending.count(cookie);
          int retry = -1, send = -1;
          channel->CancelSend(cookie, &retry, &send);
          if (wasPending) model->End(cookie);
          if (!wasPending && (retry || send)) model->Fail("CancelSend found an ended packet", cookie);
        } else if (op < 52) {
          channel->CancelAll();
          model->EndAll();
        } else if (op < 58) {
          channel->ForceAllTimeout();  // each pending packet: OnTimeout, inside this call
          if (!model->pending.empty()) model->Fail("pending after ForceAllTimeout", 0);
        } else if (op < 63) {
          channel->Close();
          model->EndAll();
          model->connected = false;
        } else if (op < 85 && socket && socket->reported < socket->sent.size()) {
          // Now and then an error, which fails the socket: OnTimeout for each, then OnClose.
          model->completing = socket->reported;
          model->expectingClose = pick(12) == 0;
          socket->CompleteSend(model->expectingClose ? -5 : 0);
        } else if (op < 93 && socket && socket->recvBuffer) {
          model->expectingClose = pick(8) == 0;
          model->expectingClose ? socket->FailRecv(-104) : socket->Deliver("answer", IPEndPoint("127.0.0.1", 9));
        }
        if (model->expectingClose && model->stats["close"] != closes + 1) model->Fail("no OnClose after a failure", 0);
        model->expectingClose = false;
      });
    }
    loop.SyncCall([&] {
      channel->ForceAllTimeout();
      channel->Close();
      if (!model->pending.empty()) model->Fail("never ended", *model->pending.begin());
      for (auto& [k, n] : model->stats) total[k] += n;
      total["accepted"] += static_cast<int>(model->ended.size());
      FakeUdp::made.clear();
      model->socket = nullptr;
    });
    ASSERT_TRUE(model->failures.empty()) << "seed " << seed << ": " << model->failures[0];
    log.Clear();  // of the per-packet lines
  }
  // The sequences must have reached every kind of event, or they prove little.
  for (auto [kind, least] : std::map<std::string, int>{
           {"accepted", 1200}, {"send", 100}, {"timeout", 100}, {"close", 5}, {"connect", 60}, {"recv", 20}})
    EXPECT_GT(total[kind], least) << kind;
}

// Real sockets from here on: the channel makes its socket at Connect.
TEST_F(ChannelTest, DnsQueryOnLoopback) {
  UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  zstest::ChildProcess dnsmasq;
  unsigned short port = 0;
  std::string why = zstest::StartDnsmasq(dnsmasq, &port);
  if (!why.empty()) GTEST_SKIP() << why;
  std::atomic<unsigned> cookie{0};  // sent from the loop thread: known before any answer
  int sends = -1;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "recv") channel->CancelSend(cookie, nullptr, &sends);
  });
  ConnectOk(channel, port);
  // Id 0x1234, one question: the A record (type 1, class IN) of example.test.
  const std::string query("\x12\x34\1\0\0\1\0\0\0\0\0\0\7example\4test\0\0\1\0\1", 30);
  OnLoop([&] { cookie = SendOk(Schedule({300, 300, 300, 300}), nullptr, zstest::Buf(query)); });
  ASSERT_TRUE(sink->Wait("recv", 1));
  std::string answer = sink->Of("recv")[0].data;
  EXPECT_EQ(answer.substr(0, 2), "\x12\x34");
  EXPECT_EQ(answer.substr(answer.size() - 4), std::string("\x0a\x01\x02\x03", 4));  // the A record: 10.1.2.3
  EXPECT_GE(sends, 1);  // cancelled while pending
}

// A datagram to a closed port comes back as ICMP "port unreachable": Linux
// reports it on a later receive of a connected socket, Windows on any socket's
// next receive.  Neither may end the receive the channel keeps armed.
TEST_F(ChannelTest, ClosedPortLeavesTheChannelOpenUntilThePortAnswers) {
  UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  RefPtr<IUdp> echo;
  IPEndPoint closed;
  ASSERT_TRUE(CreateUdp(echo, &loop));
  ASSERT_EQ(echo->Open(IPEndPoint("127.0.0.1", 0)), 0);
  echo->GetLocalAddress(closed);
  echo->Close();
  ConnectOk(channel, closed.GetPort());
  unsigned cookie = SendOk(Schedule(std::vector<int>(30, 100)));
  ASSERT_TRUE(sink->Wait("send", 2));  // the second after the first one's report
  auto echoSink = zstest::NewRecorder();
  echoSink->SetHook([&](const Event& e) {
    if (e.kind == "recv") echo->Send(zstest::Buf(e.data), e.address, nullptr);
  });
  ASSERT_TRUE(CreateUdp(echo, &loop));
  echo->SetSink(echoSink);
  ASSERT_EQ(echo->Open(closed), 0) << "port " << closed.GetPort() << " was taken meanwhile";
  ASSERT_EQ(echo->StartRecv(zstest::Buf(std::string(2048, '\0')), nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 1));
  int send = -1;
  channel->CancelSend(cookie, nullptr, &send);
  EXPECT_GE(send, 3);
  EXPECT_EQ(sink->Count("close"), 0u);
  EXPECT_EQ(sink->Count("timeout"), 0u);
  echo->Close();
}

// The wrapper owns its channel: once it goes, so does the channel, which lets
// go of its sink (on the default loop, whose thread outlives the test).
TEST_F(ChannelTest, WrapperReleasesItsChannel) {
  auto own = zstest::NewRecorder();
  {
    UdpChannel wrapper;
    wrapper.SetSink(own);
  }
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(static_cast<IChannelSink*>(own.Get())) == 1; }));
}

// By name through the resolver of a namespace of its own, which asks dnsmasq.
TEST(UdpChannelNetnsTest, ConnectsByNameThroughDnsmasqInANamespace) {
  if (!zstest::InNamespace()) return zstest::RerunInNamespace();
  zstest::ChildProcess dnsmasq;
  unsigned short port = 53;
  std::string why = zstest::StartDnsmasq(dnsmasq, &port);
  if (!why.empty()) GTEST_SKIP() << why;
  RefPtr<IChannel> channel;
  ASSERT_TRUE(CreateUdpChannel(channel, nullptr));
  auto sink = zstest::NewRecorder();
  channel->SetSink(sink);
  IPEndPoint dest;
  ASSERT_EQ(channel->Connect("example.test", 7777, nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 1, std::chrono::seconds(20)));
  channel->GetDestAddr(dest);
  EXPECT_EQ(dest.GetAddress().GetString() + ":" + std::to_string(dest.GetPort()), "10.1.2.3:7777");
  ASSERT_EQ(channel->Connect("nothing.invalid", 7777, nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 2, std::chrono::seconds(20)));
  channel->Close();
  EXPECT_EQ(sink->Kinds(), (std::vector<std::string>{"connect:0", "connect:-1"}));  // nothing else
}

}  // namespace
}  // namespace zelsocket
