// The UDP and TCP sockets against echo peers on loopback.
#include <gtest/gtest.h>
#include <uv.h>

#include <csignal>
#include <cstring>
#include <tuple>

#include "socket/udp_impl.h"
#include "socket/uv_tcp_recv.h"
#include "support/peers.h"
#include "support/recorder.h"

namespace zelsocket {
namespace {

using zstest::Buf;
using zstest::Ctx;
using zstest::Event;

class SocketTest : public zstest::LoopFixture {
 protected:
  void SetUp() override {
    LoopFixture::SetUp();
    ASSERT_TRUE(CreateUdp(udp, &loop));
    ASSERT_TRUE(CreateTcp(tcp, &loop));
    udp->SetSink(sink);
    tcp->SetSink(sink);
  }
  void TearDown() override {
    if (tcp) tcp->Close();
    tcp = nullptr;
    udp = nullptr;
    LoopFixture::TearDown();  // a handle left open would keep the loop's storage, which ASan reports
  }
  RefPtr<IUdp> udp;
  RefPtr<ITcp> tcp;
  zstest::UdpEchoPeer peer;
  const IPEndPoint to{"127.0.0.1", peer.Port()};
};

// Refused at once, and never reported: bad arguments on either thread, and
// sound ones too once the loop has stopped.
TEST_F(SocketTest, RefusalsComeAtOnceWithoutAReport) {
  RefPtr<IMutableBuffer> b = Buf("data");
  IPEndPoint address;
  const struct { const char* name; bool sound; std::function<int()> call; } rows[] = {
      {"udp send null", false, [&] { return udp->Send(nullptr, to, nullptr); }},
      {"udp send port 0", false, [&] { return udp->Send(b, IPEndPoint(IPAddress::Loopback, 0), nullptr); }},
      {"udp send unset", false, [&] { return udp->Send(b, IPEndPoint(), nullptr); }},
      {"udp recv null", false, [&] { return udp->Recv(nullptr, nullptr); }},
      {"udp start null", false, [&] { return udp->StartRecv(nullptr, nullptr); }},
      {"udp open unset", false, [&] { return udp->Open(IPEndPoint()); }},
      {"udp local closed", false, [&] { return udp->GetLocalAddress(address); }},
      {"udp buffer size", false, [&] { return udp->SetRecvBufferSize(1 << 20); }},
      {"tcp send buffer", false, [&] { return tcp->SetSendBufferSize(1 << 20); }},
      {"tcp recv buffer", false, [&] { return tcp->SetRecvBufferSize(1 << 20); }},
      {"tcp connect port 0", false, [&] { return tcp->Connect(IPEndPoint("127.0.0.1", 0), nullptr); }},
      {"tcp send null", false, [&] { return tcp->Send(nullptr, nullptr); }},
      {"tcp send empty", false, [&] { return tcp->Send(Buf(), nullptr); }},
      {"tcp recv null", false, [&] { return tcp->Recv(nullptr, nullptr); }},
      {"tcp recv closed", false, [&] { return tcp->Recv(b, nullptr); }},
      {"udp send", true, [&] { return udp->Send(b, to, nullptr); }},
      {"udp recv", true, [&] { return udp->Recv(b, nullptr); }},
      {"udp start", true, [&] { return udp->StartRecv(b, nullptr); }},
      {"udp open", true, [&] { return udp->Open(IPEndPoint("127.0.0.1", 0)); }},
      {"tcp connect", true, [&] { return tcp->Connect(to, nullptr); }},
      {"tcp send", true, [&] { return tcp->Send(b, nullptr); }},
  };
  for (const char* phase : {"on the loop", "off the loop", "stopped"}) {
    const int stopped = phase[0] == 's' ? loop.Stop() : 0;
    ASSERT_EQ(stopped, 0);
    for (const auto& row : rows) {
      if (row.sound && phase[0] != 's') continue;
      int result = 0;
      phase[1] == 'n' ? OnLoop([&] { result = row.call(); }) : void(result = row.call());
      EXPECT_EQ(result, -1) << row.name << ", " << phase;
    }
  }
  ASSERT_EQ(loop.Start(), 0);
  UdpOpenOptions plain;  // a plain socket is IPv4 whatever the bind address says: libuv's error, handle freed
  plain.bindAddress = IPEndPoint("::1", 0);
  plain.nonLspSocket = false;
  EXPECT_LT(udp->Open(plain), -1);
  EXPECT_EQ(tcp->Open(IPEndPoint()), UV_EINVAL);
  RefPtr<UvTcpRecv> recvOp;  // checks the handle on its own, before anything else
  recvOp.Attach(new UvTcpRecv());
  OnLoop([&] { EXPECT_EQ(recvOp->Recv(nullptr, b, nullptr, sink), -1); });
  zstest::Drain(loop);
  EXPECT_EQ(sink->Events().size(), 0u);
}

// Factories refuse a null out and give the caller the one reference; the TCP
// value class releases the socket it made, and with it the sink.
template <typename T, typename Make>
void CheckFactory(const char* name, Make make) {
  T* made = nullptr;
  EXPECT_FALSE(make(static_cast<T**>(nullptr))) << name;
  ASSERT_TRUE(make(&made)) << name;
  ASSERT_NE(made, nullptr) << name;
  EXPECT_EQ(made->Release(), 0) << name;
}

TEST_F(SocketTest, FactoriesAndTheValueClass) {
  CheckFactory<IUdp>("udp", [&](IUdp** out) { return CreateUdp(out, &loop); });
  CheckFactory<ITcp>("tcp", [&](ITcp** out) { return CreateTcp(out, &loop); });
  CheckFactory<IChannel>("channel", [&](IChannel** out) { return CreateUdpChannel(out, &loop); });
  CheckFactory<IMutableBuffer>("buffer", [](IMutableBuffer** out) { return CreateBuffer(out); });
  CheckFactory<IChannelSendOption>("option", [](IChannelSendOption** out) { return CreateChannelSendOption(out); });
  auto other = zstest::NewRecorder();
  {
    UvTcp owned(&loop), borrowed(owned), assigned;
    assigned = borrowed;  // a borrower too
    EXPECT_EQ(static_cast<ITcp*>(assigned), static_cast<ITcp*>(owned));
    borrowed.SetSink(other);
    EXPECT_EQ(borrowed.Accept(to, nullptr), 0);  // no listening side: nothing happens
  }
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(static_cast<ITcpSink*>(other.Get())) == 1; }));
}

class FamilyTest : public SocketTest, public ::testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Loopback, FamilyTest, ::testing::Values("127.0.0.1", "::1"));

// Sends back to back, every report in order; receives served once and in
// order, re-armed as each completes; closed or cancelled ones never reported;
// the end of the stream is an empty read, for every later receive too; a write
// after it fails with an error, not a signal that ends the process (SIGPIPE is
// left at its default).
TEST_P(FamilyTest, TcpEchoesInOrderToTheEndOfTheStream) {
  zstest::TcpEchoPeer peer(GetParam());
  const IPEndPoint server(GetParam(), peer.Port());
  const std::vector<std::string> parts = {"alpha-", "beta-", std::string(100000, 'x'), "-omega"};
  const IPEndPoint any(std::strchr(GetParam(), ':') ? "::" : "0.0.0.0", 0);  // the implicit open is IPv4
  ASSERT_EQ(tcp->Open(any), 0);
  OnLoop([&] { tcp->Connect(server, Ctx(7)), tcp->Connect(server, Ctx(8)); });  // the second finds the first busy
  ASSERT_TRUE(sink->Wait("connect", 2));
  EXPECT_EQ(sink->Kinds(), (std::vector<std::string>{"connect:-1", "connect:0"}));
  IPEndPoint remote;
  EXPECT_EQ(tcp->GetRemoteAddress(remote), 0);
  EXPECT_EQ(remote.GetAddress().GetString(), GetParam());

  long next = 1;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "recv" && !e.data.empty()) tcp->Recv(Buf(), Ctx(next++));
  });
  for (size_t i = 0; i < parts.size(); ++i) ASSERT_EQ(tcp->Send(Buf(parts[i]), Ctx(10 + i)), 0);
  OnLoop([&] { tcp->Recv(Buf(), Ctx(next++)), tcp->Recv(Buf(), Ctx(next++)); });
  const std::string all = parts[0] + parts[1] + parts[2] + parts[3];
  std::string echoed;
  ASSERT_TRUE(zstest::WaitUntil([&] {
    echoed.clear();
    for (const Event& e : sink->Of("recv")) echoed += e.data;
    return echoed.size() >= all.size();
  }));
  EXPECT_EQ(zstest::Mismatch(echoed, all), "");
  std::vector<std::pair<int, void*>> sends;
  for (const Event& e : sink->Of("send")) sends.emplace_back(e.status, e.ctx);
  EXPECT_EQ(sends, (decltype(sends){{0, Ctx(10)}, {0, Ctx(11)}, {0, Ctx(12)}, {0, Ctx(13)}}));
  sink->SetHook(nullptr);
  const size_t served = sink->Count("recv");
  // Closed with two receives armed it connects again; a send lets its buffer go.
  ASSERT_EQ(tcp->Close(), 0);
  tcp->SetSink(sink);
  RefPtr<IMutableBuffer> again = Buf("again");
  ASSERT_EQ(tcp->Open(any), 0);
  ASSERT_EQ(tcp->Connect(server, nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 3));  // libuv on Windows refuses reads and writes before it (ENOTCONN)
  ASSERT_EQ(tcp->Send(again, nullptr), 0);
  ASSERT_EQ(tcp->Recv(Buf(), Ctx(50)), 0);
  ASSERT_TRUE(sink->Wait("recv", served + 1));
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(again) == 1; }));
  ASSERT_EQ(tcp->Recv(Buf(), Ctx(98)), 0);
  ASSERT_EQ(tcp->Recv(Buf(), Ctx(99)), 0);
  ASSERT_EQ(tcp->CancelRecv(), 0);
  ASSERT_EQ(tcp->Send(Buf(std::string(1, zstest::TcpEchoPeer::kHangUp)), nullptr), 0);
  ASSERT_EQ(tcp->Recv(Buf(), Ctx(51)), 0);
  ASSERT_EQ(tcp->Recv(Buf(), Ctx(52)), 0);
  ASSERT_TRUE(sink->Wait("recv", served + 3));
  zstest::Drain(loop);
  std::vector<Event> r = sink->Of("recv");
  ASSERT_EQ(r.size(), served + 3);
  for (size_t i = 0; i < r.size(); ++i) {
    void* ctx = Ctx(i < served ? long(i) + 1 : 50 + long(i - served));
    EXPECT_EQ(std::make_tuple(r[i].status, r[i].ctx, r[i].onLoop, i < served ? "" : r[i].data),
              std::make_tuple(0, ctx, true, i == served ? "again" : "")) << i;
  }
#ifdef SIGPIPE
  ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);
#endif
  int failed = 0;  // the first write may still go out: the peer answers it with a reset
  for (size_t n = 1; n <= 50 && failed == 0; ++n) {
    ASSERT_EQ(tcp->Send(Buf("ping"), nullptr), 0);
    ASSERT_TRUE(sink->Wait("send", parts.size() + 2 + n));
    failed = sink->Of("send").back().status;
  }
  EXPECT_LT(failed, 0);
#ifdef SIGPIPE
  EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);  // the process-wide setting stays the application's
#endif
}

TEST_F(SocketTest, TcpRefusalsLibuvErrorsAndTheSendLimit) {
  IPEndPoint local;
  EXPECT_EQ(tcp->GetRemoteAddress(local), -1);  // closed
  EXPECT_EQ(tcp->Open(IPEndPoint("::", 0)), 0);
  EXPECT_EQ(tcp->Open(IPEndPoint("127.0.0.1", 0)), -1);  // kept as it was
  EXPECT_EQ(tcp->GetLocalAddress(local), 0);
  EXPECT_EQ(local.GetSockAddr()->sa_family, AF_INET6);
  EXPECT_LT(tcp->GetRemoteAddress(local), 0);  // not connected: libuv's error
  unsigned short refused = zstest::TcpEchoPeer().Port();
  // An IPv6 socket refuses an IPv4 destination before any request; reopened as IPv4 the kernel refuses.
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", refused), Ctx(2)), 0);
  ASSERT_TRUE(sink->Wait("connect", 1));
  EXPECT_EQ(tcp->Close(), 0);  // lets the sink go
  tcp->SetSink(sink);
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", refused), Ctx(3)), 0);
  ASSERT_TRUE(sink->Wait("connect", 2));
  EXPECT_TRUE(tcp->IsOpen());  // the implicit open stays
  EXPECT_EQ(tcp->Close(), 0);
  tcp->SetSink(sink);
  // Opened by a send, never connected: libuv's errors.  The queue takes a buffer while it and those queued
  // (not the one in flight) fit in 1048576.
  OnLoop([&] {  // all posted before the first runs
    const std::pair<long, int> sends[] = {{5, 5}, {6, 1048577}, {7, 600000}, {8, 448577}, {9, 448576}};
    for (auto [ctx, size] : sends) EXPECT_EQ(tcp->Send(Buf(std::string(size, 'z')), Ctx(ctx)), 0) << ctx;
    EXPECT_EQ(tcp->Recv(Buf(), Ctx(4)), 0);
  });
  ASSERT_TRUE(sink->Wait("send", 5));
  ASSERT_TRUE(sink->Wait("recv", 1));
  std::map<void*, Event> by;
  for (const Event& e : sink->Events()) by[e.ctx] = e;
  EXPECT_EQ(sink->Events().size(), 8u);
  EXPECT_EQ(std::make_tuple(by[Ctx(2)].status, by[Ctx(3)].status, by[Ctx(3)].address.GetPort()),
            std::make_tuple(-1, UV_ECONNREFUSED, refused));
  for (long refusedCtx : {6, 8}) EXPECT_EQ(by[Ctx(refusedCtx)].status, -1) << refusedCtx;
  for (long failedCtx : {4, 5, 7, 9}) EXPECT_LT(by[Ctx(failedCtx)].status, -1) << failedCtx;  // libuv's own errors
}

// The last release of a socket whose writes are stuck in flight (the peer
// reads nothing), made on another thread, closes it on its loop thread at
// once and lets its sink go.
TEST_F(SocketTest, TcpReleasedElsewhereWithWritesInFlightLetsTheSinkGoPromptly) {
  zstest::TcpEchoPeer deaf("127.0.0.1", true);
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", deaf.Port()), nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 1));
  ASSERT_EQ(sink->Of("connect")[0].status, 0);
  // Writes of 256 KiB, each sent when the last is reported, until one stays in
  // flight: the peer's window and both buffers are full.
  auto chunk = Buf(std::string(256 * 1024, 'x'));
  size_t sent = 0;
  for (; sent < 400; ++sent) {
    ASSERT_EQ(tcp->Send(chunk, nullptr), 0);
    if (!sink->Wait("send", sent + 1, std::chrono::milliseconds(300))) break;
  }
  ASSERT_LT(sent, 400u) << "100 MiB went out to a peer that reads nothing";
  auto began = std::chrono::steady_clock::now();
  std::thread([&] { tcp = nullptr; }).join();
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(2));
  auto references = [&] { return zstest::CountOf(static_cast<ITcpSink*>(sink.Get())); };
  EXPECT_TRUE(zstest::WaitUntil([&] { return references() == 2; }, std::chrono::milliseconds(2000)))
      << references() << " references: the test's, the UDP socket's and the TCP socket's";
}

// One receive at a time, refused in its report while another is armed or the
// socket is closed; an empty datagram completes none; a sink may arm the next;
// cancelled, a receive reports nothing and what comes meanwhile waits.  Every
// datagram is offered 12288 bytes at least, and a longer one is cut.  Reports
// come later, on the loop thread, in order.
TEST_P(FamilyTest, UdpReceivesOneAtATimeAndReportsLaterInOrder) {
  zstest::UdpEchoPeer peer(nullptr, GetParam());
  const IPEndPoint to(GetParam(), peer.Port());
  ASSERT_EQ(udp->Recv(Buf(), Ctx(1)), 0);
  ASSERT_TRUE(sink->Wait("recv", 1));
  ASSERT_EQ(udp->Open(IPEndPoint(GetParam(), 0)), 0);
  IPEndPoint local;
  EXPECT_EQ(udp->GetLocalAddress(local), std::strchr(GetParam(), ':') ? -1 : 0);  // IPv4 only
  int rearm = 99, startWhileArmed = 99;
  size_t reportsDuringCall = 99;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "recv" && e.ctx == Ctx(2)) rearm = udp->Recv(Buf(), Ctx(4));
  });
  ASSERT_EQ(udp->Recv(Buf(), Ctx(2)), 0);
  ASSERT_EQ(udp->Recv(Buf(), Ctx(3)), 0);
  OnLoop([&] {
    startWhileArmed = udp->StartRecv(Buf(), Ctx(5));
    EXPECT_EQ(udp->Send(Buf(""), to, Ctx(10)), 0);
    EXPECT_EQ(udp->Send(Buf("one"), to, Ctx(11)), 0);
    reportsDuringCall = sink->Count("send");
  });
  EXPECT_EQ(std::make_pair(startWhileArmed, reportsDuringCall), std::make_pair(-1, size_t{0}));
  ASSERT_EQ(udp->Send(Buf("two"), to, Ctx(12)), 0);
  ASSERT_TRUE(sink->Wait("recv", 4));
  ASSERT_TRUE(sink->Wait("send", 3));
  EXPECT_EQ(rearm, 0);
  ASSERT_EQ(udp->StartRecv(Buf(), Ctx(6)), 0);
  EXPECT_EQ(udp->CancelRecv(), 0);
  ASSERT_EQ(udp->Send(Buf(std::string(20000, 'w')), to, nullptr), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return peer.Received() == 4; }));
  ASSERT_EQ(udp->Recv(Buf(), Ctx(7)), 0);
  ASSERT_TRUE(sink->Wait("recv", 5));
  RefPtr<IMutableBuffer> large = Buf();
  large->Reserve(65536);
  ASSERT_EQ(udp->Recv(large, Ctx(8)), 0);
  ASSERT_EQ(udp->Send(Buf(std::string(30000, 'q')), to, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 6));
  const std::vector<std::pair<long, std::string>> want = {
      {1, ""}, {3, ""}, {2, "one"}, {4, "two"}, {7, std::string(12288, 'w')}, {8, std::string(30000, 'q')}};
  std::vector<Event> r = sink->Of("recv");
  ASSERT_EQ(r.size(), want.size());
  for (size_t i = 0; i < r.size(); ++i) {
    EXPECT_EQ(std::make_tuple(r[i].ctx, zstest::Mismatch(r[i].data, want[i].second), r[i].onLoop, r[i].status),
              std::make_tuple(Ctx(want[i].first), "", true, i < 2 ? -1 : 0)) << i;
    EXPECT_EQ(std::make_tuple(r[i].address.GetAddress().GetString(), r[i].address.GetPort()),
              std::make_tuple(std::string(i < 2 ? "" : GetParam()), i < 2 ? 0 : peer.Port())) << i;
  }
}

// The datagram in libuv is not counted; the queue takes one while at most 131072
// bytes are queued; refused on the loop thread at once, from another in the report.
TEST_F(SocketTest, UdpSendQueueAcceptsWhileAtMostTheLimitIsQueued) {
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  EXPECT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), -1);  // already open
  auto* impl = static_cast<UdpImpl*>(udp.Get());
  int accepted = 0, refusedHere = 99, foreign = 99;
  OnLoop([&] {
    auto send = [&](size_t n, long ctx) { accepted += udp->Send(Buf(std::string(n, 'd')), to, Ctx(ctx)) == 0; };
    send(1000, 1);
    for (int i = 0; i < 64; ++i) send(1, 2);
    send(65504, 3);
    send(65504, 4);
    EXPECT_EQ(impl->QueuedBytes(), 131072);
    send(60000, 5);                                 // at the limit: accepted
    refusedHere = udp->Send(Buf("w"), to, Ctx(6));  // over it: refused here
    std::thread other([&] { foreign = udp->Send(Buf("v"), to, Ctx(7)); });
    other.join();
  });
  EXPECT_EQ(std::make_tuple(accepted, refusedHere, foreign), std::make_tuple(68, -1, 0));
  ASSERT_TRUE(sink->Wait("send", 69));
  for (const Event& e : sink->Of("send")) EXPECT_EQ(e.status != 0, e.ctx == Ctx(7)) << e.ctx;  // the foreign one alone
  EXPECT_EQ(impl->QueuedBytes(), 0);
}

TEST_F(SocketTest, UdpCloseSilencesQueuedAndPostedSends) {
  std::atomic<int> queued{0}, posted{0}, marker{0};
  zstest::UdpEchoPeer mute([&](const std::string& d) {
    queued += d == "queued";
    posted += d == "posted";
    marker += d == "marker";
    return false;
  });
  const IPEndPoint to("127.0.0.1", mute.Port());
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  ASSERT_EQ(udp->StartRecv(Buf(), nullptr), 0);
  OnLoop([&] {
    for (int i = 1; i <= 5; ++i) udp->Send(Buf("queued"), to, Ctx(i));
    std::thread other([&] { udp->Send(Buf("posted"), to, Ctx(6)); });  // runs after Close
    other.join();
    udp->Close();
    udp->Send(Buf("after close"), to, Ctx(7));  // reopens implicitly
  });
  ASSERT_TRUE(sink->Wait("send", 1));
  ASSERT_EQ(udp->Send(Buf("marker"), to, Ctx(8)), 0);
  // The marker went last: once it is in, whatever the socket sent before it is too.
  ASSERT_TRUE(sink->Wait("send", 2));
  ASSERT_TRUE(zstest::WaitUntil([&] { return marker == 1; }));
  std::vector<std::pair<void*, int>> reported;
  for (const Event& e : sink->Of("send")) reported.emplace_back(e.ctx, e.status);
  EXPECT_EQ(reported, (decltype(reported){{Ctx(7), 0}, {Ctx(8), 0}}));
  EXPECT_EQ(posted, 0);
  EXPECT_LE(queued, 1);  // the one already in libuv
  IPEndPoint self;  // the reopened socket receives again
  ASSERT_EQ(udp->GetLocalAddress(self), 0);
  ASSERT_EQ(udp->Recv(Buf(), Ctx(9)), 0);
  ASSERT_EQ(udp->Send(Buf("self"), self, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 1));
  EXPECT_EQ(sink->Of("recv")[0].data, "self");
}

}  // namespace
}  // namespace zelsocket
