// The retransmission engine, then the channel over a scripted socket, then end
// to end: dnsmasq by name in a network namespace of the test's own.
#include <gtest/gtest.h>

#include <stdexcept>

#include "channel/fake_clock_sender.h"
#include "channel/udp_channel_impl.h"
#include "core/platform.h"
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

// Defaults append, counts below 1 are clamped (a copy of 0 too), intervals are
// as given; out-of-range indexes throw; copies are objects of their own, and a
// schedule copied onto itself or nowhere stays as it was.
TEST(ChannelOptionTest, Schedules) {
  using O = ChannelSendOption;
  const struct { const char* name; std::function<void(O&)> op; int perSend; std::vector<int> intervals; } rows[] = {
      {"empty", [](O&) {}, 0, {}},
      {"udp", [](O& o) { o.SetDefaultForUdp(); }, 1, {3000, 5000, 7000}},
      {"udp appends", [](O& o) { o.AddSendInterval(9), o.SetDefaultForUdp(); }, 1, {9, 3000, 5000, 7000}},
      {"tcp", [](O& o) { o.SetDefaultForTcp(); }, 1, {1}},
      {"reset", [](O& o) { o.SetDefaultForUdp(), o.Reset(); }, 0, {}},
      {"clamped", [](O& o) { o.SetPacketPerSend(0), o.AddSendInterval(-1); }, 1, {-1}},
      {"per send", [](O& o) { o.SetPacketPerSend(3); }, 3, {}},
      {"assigned", [](O& o) { o.SetDefaultForUdp(), o = O(); }, 1, {}},
      {"copied", [](O& o) { o.AddSendInterval(9), o = O(o); }, 1, {9}},
      {"assigned apart", [](O& o) { O a; a.SetDefaultForTcp(), o = a, a.AddSendInterval(5); }, 1, {1}},
      {"copied apart", [](O& o) { o.SetDefaultForTcp(), O(o).AddSendInterval(5); }, 1, {1}},
  };
  for (const auto& row : rows) {
    O o;
    row.op(o);
    IChannelSendOption* self = o;
    self->CopyTo(self), self->CopyTo(nullptr);  // onto itself, or nowhere: nothing changes
    std::vector<int> intervals;
    for (int i = 0; i < o.GetSendCount(); ++i) intervals.push_back(o.GetSendInterval(i));
    EXPECT_EQ(std::make_tuple(intervals, o.GetPacketPerSend(), o.IsValid()),
              std::make_tuple(row.intervals, row.perSend, row.perSend != 0 && !row.intervals.empty())) << row.name;
    EXPECT_THROW(o.GetSendInterval(o.GetSendCount()), std::out_of_range) << row.name;
    EXPECT_THROW(o.GetSendInterval(-1), std::out_of_range) << row.name;
  }
}

// A scripted IUdp: it records what it is asked and reports only when the test
// says so.  Every socket the channel makes (on the loop thread) is in `made`.
struct Script { std::vector<int> openResults; int startRecvResult = 0; bool none = false; };
class FakeUdp : public IUdp, public RefCountBase {
 public:
  struct Datagram { RefPtr<IConstBuffer> buffer; IPEndPoint dest; void* ctx; };
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void SetSink(IUdpSink* s) override {
    if (!given) given = s;
    sink = s;
  }
  int Open(const UdpOpenOptions& options) override { return Open(options.bindAddress); }
  int Open(const IPEndPoint& address) override {  // the next of the open results, 0 once they run out
    openPorts.push_back(address.GetPort());
    int rc = openPorts.size() <= config.openResults.size() ? config.openResults[openPorts.size() - 1] : 0;
    open = rc == 0;
    return rc;
  }
  int Send(IConstBuffer* b, const IPEndPoint& dest, void* ctx) override { return sent.push_back({b, dest, ctx}), 0; }
  int Recv(IMutableBuffer*, void*) override { return -1; }
  int StartRecv(IMutableBuffer* buffer, void*) override { return recvBuffer = buffer, config.startRecvResult; }
  int CancelRecv() override { return 0; }
  int Close() override { return open = false, 0; }
  bool IsOpen() override { return open; }
  int GetLocalAddress(IPEndPoint&) override { return -1; }
  int SetSendBufferSize(unsigned int) override { return -1; }
  int SetRecvBufferSize(unsigned int) override { return -1; }

  void CompleteSend(int status) { sink->OnSend(status, sent[0].buffer, sent[0].dest, sent[0].ctx); }  // the first one
  void FailRecv(int status) {
    recvBuffer->Resize(0);
    if (sink) sink->OnRecv(status, recvBuffer, IPEndPoint(), nullptr);
  }
  static bool Make(RefPtr<IUdp>& out, IOLoop*) {
    if (next.none) return false;
    made.emplace_back().Attach(new FakeUdp());
    return out = made.back().Get(), true;
  }
  static inline Script next;  // of the sockets to come
  static inline std::vector<RefPtr<FakeUdp>> made;

  RefPtr<IUdpSink> sink, given;  // the sink now, and the first one given
  IMutableBuffer* recvBuffer = nullptr;
  Script config = next;
  std::vector<unsigned short> openPorts;
  std::vector<Datagram> sent;
  bool open = false;
};

// Host names come from a table: "held.test" waits, any other name fails.
class ChannelTest : public zstest::LoopFixture {
 protected:
  void SetUp() override {
    LoopFixture::SetUp();
    FakeUdp::next = {};
    UdpChannelImpl::SetUdpFactoryForTesting(&FakeUdp::Make);
    channel = NewChannel();
  }
  void TearDown() override {
    channel = nullptr;
    OnLoop([] { FakeUdp::made.clear(); });
    LoopFixture::TearDown();
    UdpChannelImpl::SetUdpFactoryForTesting(nullptr);
  }
  RefPtr<IChannel> NewChannel() {
    RefPtr<IChannel> c;
    EXPECT_TRUE(CreateUdpChannel(c, &loop));
    c->SetSink(sink);
    return c;
  }
  void ConnectOk() {
    size_t before = sink->Count("connect");
    ASSERT_EQ(channel->Connect("127.0.0.1", 9000, nullptr), 0);
    ASSERT_TRUE(sink->Wait("connect", before + 1));
    ASSERT_EQ(sink->Of("connect").back().status, 0);
  }
  unsigned SendOk(IChannelSendOption* option, IConstBuffer* data = zstest::Buf("req")) {
    unsigned cookie = 0;
    EXPECT_EQ(channel->Send(data, option, cookie), 0);
    return cookie;
  }
  size_t SentBy(size_t socket) {  // datagrams the channel's socket was given
    size_t n = 0;
    zstest::OnLoop(loop, [&] { n = FakeUdp::made.size() > socket ? FakeUdp::made[socket]->sent.size() : 0; });
    return n;
  }

  zstest::FakeResolver resolver{{{"held.test", "hold"}}};
  RefPtr<IChannel> channel;
  RefPtr<IChannelSendOption> longSchedule = Schedule({10000});
};

TEST_F(ChannelTest, SenderDefaultTimelineItsLogLineAndTheFollowingPass) {
  std::unique_ptr<FakeClockSender> sender;
  OnLoop([&] {
    sender.reset(new FakeClockSender(&loop));
    RefPtr<IChannelSendOption> udp = Schedule({});
    udp->SetDefaultForUdp();
    const std::uint64_t start = g_tick;
    const std::int64_t created = g_wall;
    EXPECT_TRUE(sender->SendPacket(zstest::Buf("req"), udp, 7, start - 5));  // requested 5 ms before it was made
    // Milliseconds on, and the wall clock's seconds with them; the log line pins the time of each.
    const int steps[][2] = {{2999, 2}, {1, 1}, {4999, 5}, {1, 0}, {6999, 7}, {1, 0}};
    for (const auto& step : steps) g_tick += step[0], g_wall += step[1], sender->RunPassForTesting();
    EXPECT_EQ(sender->sent, (std::vector<std::uint64_t>{start, start + 3000, start + 8000}));
    EXPECT_EQ(sender->timeouts, (std::vector<Timeout>{{7, 3, 3, start + 15000}}));
    // Delays in ms; send times after the local time of creation, in whole seconds from it.
    std::tm local{};
    char date[32] = "";
    if (platform::LocalTime(created, &local)) std::strftime(date, sizeof date, "%Y/%m/%d %H:%M:%S", &local);
    EXPECT_EQ(log.Count("timeout, cookie=7, retry=3, send=3, send-count=3, send-delay=5, recv-delay=15000, "
                        "total-delay=15005, send-time=" + std::string(date) + ",0,3,8"), 1);
    // Two packets due at once (no pass is posted before them: none was due): a
    // pass ends one, and the pass it posts at once the other.
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

// Refused at once: a null or empty buffer, a schedule without intervals, a null
// host.  Packets sent before Connect time out before a failed OnConnect, or
// leave once before a successful one.
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
  for (int i = 0; i < 2; ++i) SendOk(longSchedule);
  size_t sentAtConnect = 99;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "connect") sentAtConnect = FakeUdp::made[0]->sent.size();
  });
  ConnectOk();
  EXPECT_EQ(sentAtConnect, 2u);
}

TEST_F(ChannelTest, SocketFailuresReachOnConnect) {
  // Bind ports, what the sockets answer, then the status and the ports tried.
  const struct { unsigned short min, max; Script socket; int status; std::vector<unsigned short> tried; } cases[] = {
      {5000, 5002, {{-98, -98, -98, 0}}, -98, {5000, 5001, 5002}},  // every port of the range, in order
      {5000, 5002, {{-98, 0}}, 0, {5000, 5001}},
      {5000, 10, {{-98, 0}}, -98, {5000}},  // max below min: min alone
      {0, 0, {{}, -9}, -9, {0}},            // the receive could not be armed
      {0, 0, {{}, 0, true}, -1, {}},        // no socket could be made
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    OnLoop([&] { FakeUdp::made.clear(); });
    FakeUdp::next = cases[i].socket;
    ChannelConnectOption option;
    option.bindPortMin = cases[i].min;
    option.bindPortMax = cases[i].max;
    ASSERT_EQ(channel->Connect("127.0.0.1", 9000, &option), 0);
    ASSERT_TRUE(sink->Wait("connect", i + 1));
    EXPECT_EQ(sink->Of("connect")[i].status, cases[i].status) << i;
    OnLoop([&] {
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
  ConnectOk();
  SendOk(Schedule({20, 10000}));
  EXPECT_EQ(channel->ChangeDest(IPEndPoint("127.0.0.2", 9001)), 0);
  SendOk(longSchedule);
  ASSERT_TRUE(zstest::WaitUntil([&] { return SentBy(0) == 3; }));
  OnLoop([&] {
    std::vector<std::string> sent;
    for (const auto& d : FakeUdp::made[0]->sent) sent.push_back(zstest::Text(d.dest));
    EXPECT_EQ(sent, (std::vector<std::string>{"127.0.0.1:9000", "127.0.0.2:9001", "127.0.0.1:9000"}));
  });
  EXPECT_EQ(channel->GetDestAddr(dest), 0);
  EXPECT_EQ(zstest::Text(dest), "127.0.0.1:9000");
}

// Released on another thread with a resolution in flight, after its loop has
// stopped, or connected: its socket is closed, the answer or a late report of
// the socket finds nobody, and the pending packet and the sink are let go.
TEST_F(ChannelTest, ReleasedResolvingStoppedOrConnected) {
  RefPtr<IMutableBuffer> data = zstest::Buf("req");
  for (const char* how : {"resolving", "stopped", "connected"}) {
    channel = NewChannel();
    const int resolving = how[0] == 'r' ? channel->Connect("held.test", 9000, nullptr) : 0;
    ASSERT_EQ(resolving, 0);
    if (how[0] == 'c') ConnectOk();
    sink->Clear();
    SendOk(longSchedule, data);
    zstest::Drain(loop);
    const int stopped = how[0] == 's' ? loop.Stop() : 0;
    channel = nullptr;
    const int started = how[0] == 's' ? loop.Start() : 0;
    ASSERT_EQ(std::make_pair(stopped, started), std::make_pair(0, 0));
    OnLoop([&] {
      resolver.FailHeld();
      for (auto& socket : FakeUdp::made) EXPECT_FALSE(socket->IsOpen()) << how;
      for (auto& socket : FakeUdp::made) socket->given->OnSend(0, data, IPEndPoint("127.0.0.1", 9000), nullptr);
      for (auto& socket : FakeUdp::made) socket->given->OnRecv(0, data, IPEndPoint("127.0.0.1", 9000), nullptr);
      FakeUdp::made.clear();
    });
    zstest::Drain(loop);
    EXPECT_EQ(sink->Events().size(), 0u) << how;
    EXPECT_EQ(zstest::CountOf(data), 1) << how;
    EXPECT_EQ(zstest::CountOf(static_cast<IChannelSink*>(sink.Get())), 1) << how;
  }
}

// CancelSend ends one packet silently and gives its counts (0 for a cookie not
// pending, and null pointers are fine); ForceAllTimeout ends the rest inside the
// call and keeps the socket; Close ends what is left silently.
TEST_F(ChannelTest, CancelForceAllTimeoutAndClose) {
  ConnectOk();
  unsigned first = SendOk(longSchedule);
  SendOk(longSchedule);
  int retry = -1, send = -1;
  channel->CancelSend(first, &retry, &send);
  EXPECT_EQ(std::make_pair(retry, send), std::make_pair(0, 1));
  channel->CancelSend(first, &retry, &send);
  EXPECT_EQ(std::make_pair(retry, send), std::make_pair(0, 0));
  channel->CancelSend(first, nullptr, nullptr);
  channel->ForceAllTimeout();
  EXPECT_EQ(sink->Kinds(), (std::vector<std::string>{"connect:0", "timeout:1"}));
  EXPECT_EQ(sink->Of("timeout")[0].cookie, first + 1);
  unsigned last = SendOk(longSchedule);
  EXPECT_EQ(SentBy(0), 3u);
  channel->Close();
  channel->CancelSend(last, &retry, &send);
  EXPECT_EQ(send, 0);
  EXPECT_EQ(sink->Events().size(), 2u);
}

// A failed send or receive report ends every pending packet with OnTimeout,
// then OnClose; the channel stays usable: a Send is accepted but not
// transmitted, and Connect brings the channel back.
TEST_F(ChannelTest, SocketFailureTimesEveryPacketOutThenCloses) {
  for (bool receiveFails : {false, true}) {
    sink->Clear();
    channel = NewChannel();
    ConnectOk();
    for (int i = 0; i < 2; ++i) SendOk(longSchedule);
    OnLoop([&] { receiveFails ? FakeUdp::made.back()->FailRecv(-104) : FakeUdp::made.back()->CompleteSend(-5); });
    EXPECT_EQ(sink->Kinds(), (std::vector<std::string>{"connect:0", "timeout:1", "timeout:1", "close:0"}));
    SendOk(longSchedule);
    zstest::Drain(loop);
    EXPECT_EQ(SentBy(FakeUdp::made.size() - 1), 2u) << receiveFails;
    ConnectOk();
    EXPECT_EQ(SentBy(FakeUdp::made.size() - 1), 1u) << receiveFails;
  }
}

// The wrapper owns its channel: once it goes, so does the channel, which lets
// go of its sink (on the default loop, whose thread outlives the test).
TEST_F(ChannelTest, WrapperReleasesItsChannel) {
  auto own = zstest::NewRecorder();
  UdpChannel().SetSink(own);
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(static_cast<IChannelSink*>(own.Get())) == 1; }));
}

// The road of a request: the name through the resolver of a namespace of the
// test's own, which asks dnsmasq; then a DNS query to dnsmasq, answered and
// cancelled.  A name nobody knows fails the next Connect.
TEST(UdpChannelNetnsTest, ConnectsByNameAndAsksDnsmasq) {
  if (!zstest::InNamespace()) return zstest::RerunInNamespace();
  zstest::ChildProcess dnsmasq;
  std::string why = zstest::StartDnsmasq(dnsmasq);
  if (!why.empty()) GTEST_SKIP() << why;
  RefPtr<IChannel> channel;
  ASSERT_TRUE(CreateUdpChannel(channel, nullptr));
  auto sink = zstest::NewRecorder();
  channel->SetSink(sink);
  unsigned cookie = 0;  // written and read on the loop thread
  int sends = -1;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "recv") channel->CancelSend(cookie, nullptr, &sends);
  });
  ASSERT_EQ(channel->Connect("dns.test", 53, nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 1, std::chrono::seconds(20)));
  IPEndPoint dest;
  channel->GetDestAddr(dest);
  EXPECT_EQ(zstest::Text(dest), "127.0.0.1:53");
  // Id 0x1234, one question: the A record (type 1, class IN) of example.test.
  const std::string query("\x12\x34\1\0\0\1\0\0\0\0\0\0\7example\4test\0\0\1\0\1", 30);
  zstest::OnLoop(*IOLoop::DefaultLoop(), [&] { EXPECT_EQ(channel->Send(zstest::Buf(query), nullptr, cookie), 0); });
  ASSERT_TRUE(sink->Wait("recv", 1));
  std::string answer = sink->Of("recv")[0].data;
  EXPECT_EQ(answer.substr(answer.size() - 4), std::string("\x0a\x01\x02\x03", 4));  // the A record: 10.1.2.3
  EXPECT_EQ(sends, 1);  // cancelled while pending
  ASSERT_EQ(channel->Connect("nothing.invalid", 53, nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 2, std::chrono::seconds(20)));
  channel->Close();
  EXPECT_EQ(sink->Kinds(), (std::vector<std::string>{"connect:0", "send:0", "recv:" + std::to_string(answer.size()),
                                                     "connect:-1"}));
}

}  // namespace
}  // namespace zelsocket
