// The UDP and TCP sockets against echo peers on loopback.
#include <gtest/gtest.h>
#include <uv.h>

#include <csignal>
#include <cstring>

#include "socket/udp_impl.h"
#include "socket/uv_tcp_recv.h"
#include "socket/uv_udp_recv.h"
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
    if (phase[0] == 's') ASSERT_EQ(loop.Stop(), 0);
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
  ASSERT_EQ(tcp->Connect(server, Ctx(7)), 0);
  ASSERT_TRUE(sink->Wait("connect", 1));
  IPEndPoint remote;
  EXPECT_EQ(tcp->GetRemoteAddress(remote), 0);
  EXPECT_EQ(remote.GetAddress().GetString(), GetParam());

  long next = 1;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "recv" && !e.data.empty()) tcp->Recv(Buf(), Ctx(next++));
  });
  for (size_t i = 0; i < parts.size(); ++i) ASSERT_EQ(tcp->Send(Buf(parts[i]), Ctx(10 + i)), 0);
  OnLoop([&] {
    tcp->Recv(Buf(), Ctx(next++));
    tcp->Recv(Buf(), Ctx(next++));
  });
  const std::string all = parts[0] + parts[1] + parts[2] + parts[3];
  std::string echoed;
  ASSERT_TRUE(zstest::WaitUntil([&] {
    echoed.clear();
    for (const Event& e : sink->Of("recv")) echoed += e.data;
    return echoed.size() >= all.size();
  }));
  EXPECT_EQ(zstest::Mismatch(echoed, all), "");
  std::vector<Event> sends = sink->Of("send");
  ASSERT_EQ(sends.size(), parts.size());
  for (size_t i = 0; i < parts.size(); ++i) {
    EXPECT_EQ(sends[i].status, 0) << i;
    EXPECT_EQ(sends[i].ctx, Ctx(10 + long(i))) << i;
  }
  sink->SetHook(nullptr);
  const size_t served = sink->Count("recv");
  // Closed with two receives armed it connects again; a send lets its buffer go.
  ASSERT_EQ(tcp->Close(), 0);
  tcp->SetSink(sink);
  RefPtr<IMutableBuffer> again = Buf("again");
  ASSERT_EQ(tcp->Open(any), 0);
  ASSERT_EQ(tcp->Connect(server, nullptr), 0);
  ASSERT_TRUE(sink->Wait("connect", 2));  // libuv on Windows refuses reads and writes before it (ENOTCONN)
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
    EXPECT_EQ(r[i].status, 0) << i;
    EXPECT_EQ(r[i].ctx, Ctx(i < served ? long(i) + 1 : 50 + long(i - served))) << i;
    EXPECT_TRUE(r[i].onLoop) << i;
    if (i >= served) EXPECT_EQ(r[i].data, i == served ? "again" : "") << i;
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
  // libuv refuses an IPv4 destination for an IPv6 socket before any request;
  // once closed and reopened as IPv4, the kernel refuses later: libuv's status.
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", refused), Ctx(2)), 0);
  ASSERT_TRUE(sink->Wait("connect", 1));
  EXPECT_EQ(tcp->Close(), 0);  // lets the sink go
  tcp->SetSink(sink);
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", refused), Ctx(3)), 0);
  ASSERT_TRUE(sink->Wait("connect", 2));
  EXPECT_TRUE(tcp->IsOpen());  // the implicit open stays
  EXPECT_EQ(tcp->Close(), 0);
  tcp->SetSink(sink);
  // Opened by a send, never connected: libuv's errors.  The queue takes a
  // buffer while it and those queued (not the one in flight) fit in 1048576.
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
  EXPECT_EQ(by[Ctx(2)].status, -1);
  EXPECT_EQ(by[Ctx(3)].status, UV_ECONNREFUSED);
  EXPECT_EQ(by[Ctx(3)].address.GetPort(), refused);
  EXPECT_LT(by[Ctx(4)].status, 0);
  for (long refusedCtx : {6, 8}) EXPECT_EQ(by[Ctx(refusedCtx)].status, -1) << refusedCtx;
  for (long failedCtx : {5, 7, 9}) EXPECT_LT(by[Ctx(failedCtx)].status, -1) << failedCtx;  // libuv's own errors
}

// The sink closes the socket, drops its last reference or cancels receiving
// inside each kind of report.  The first echo is larger than one read, so that
// libuv would go on into the next receive in the same callback unless stopped.
TEST_F(SocketTest, TcpCloseReleaseOrCancelInsideEachReport) {
  zstest::TcpEchoPeer peer;
  for (std::string kind : {"connect", "send", "recv"}) {
    for (std::string action : {"close", "release", "cancel"}) {
      if (action == "cancel" && kind != "recv") continue;
      SCOPED_TRACE(kind + " " + action);
      auto s = zstest::NewRecorder();
      ITcp* raw = nullptr;
      ASSERT_TRUE(CreateTcp(&raw, &loop));
      raw->SetSink(s);
      s->SetHook([&, kind, action](const Event& e) {
        if (e.kind != kind || e.ctx != Ctx(1)) return;
        if (action == "close") raw->Close();
        if (action == "release") raw->Release();
        if (action == "cancel") raw->CancelRecv();
      });
      const int ended = peer.Ended();
      OnLoop([&] {  // queued together, so no report can come between them
        raw->Connect(IPEndPoint("127.0.0.1", peer.Port()), Ctx(kind == "connect" ? 1 : 2));
        raw->Send(Buf(std::string(65540, 'x')), Ctx(kind == "send" ? 1 : 2));
        raw->Send(Buf("two"), Ctx(2));
        raw->Recv(Buf(), Ctx(kind == "recv" ? 1 : 2));
        raw->Recv(Buf(), Ctx(3));
      });
      ASSERT_TRUE(s->Wait(kind, 1));
      if (action == "cancel") zstest::Drain(loop), raw->Close();
      EXPECT_TRUE(zstest::WaitUntil([&] { return peer.Ended() == ended + 1; }));
      zstest::Drain(loop);
      // Nothing after the report that ended it.  A cancelled receive ends no
      // send, and on Windows a send's report may come after the bytes it echoed.
      if (action != "cancel") EXPECT_EQ(s->Events().back().kind, kind);
      EXPECT_EQ(s->Count("recv"), kind == "recv" ? 1u : 0u);
      if (action != "release") raw->Release();
    }
  }
}

// The last reference goes on one thread while another stops the loop, so that
// it meets every stage of the stop with reads and writes due; the sink is let go.
TEST_F(SocketTest, LastReleaseOfABusySocketRacesStop) {
  zstest::TcpEchoPeer tcpPeer;
  for (int round = 0; round < 60; ++round) {
    ASSERT_TRUE(round == 0 || loop.Start() == 0);
    auto s = zstest::NewRecorder();
    RefPtr<IRefCount> object;
    if (round % 3 == 0) {
      ASSERT_TRUE(CreateTcp(tcp, &loop));
      tcp->SetSink(s);
      ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", tcpPeer.Port()), nullptr), 0);
      ASSERT_TRUE(s->Wait("connect", 1));
      ASSERT_EQ(tcp->Send(Buf(std::string(4096, 'x')), nullptr), 0);
      ASSERT_EQ(tcp->Recv(Buf(), nullptr), 0);
      object.Attach(tcp.Detach());
    } else if (round % 3 == 1) {
      ASSERT_TRUE(CreateUdp(udp, &loop));
      udp->SetSink(s);
      ASSERT_EQ(udp->Open(IPEndPoint("127.0.0.1", 0)), 0);
      ASSERT_EQ(udp->StartRecv(Buf(), nullptr), 0);
      for (int i = 0; i < 20; ++i) udp->Send(Buf("datagram"), to, nullptr);
      object.Attach(udp.Detach());
    } else {
      RefPtr<IChannel> c;
      unsigned cookie = 0;
      ASSERT_TRUE(CreateUdpChannel(c, &loop));
      ASSERT_EQ(c->Connect("127.0.0.1", to.GetPort(), nullptr), 0);
      for (int i = 0; i < 5; ++i) ASSERT_EQ(c->Send(Buf("request"), nullptr, cookie), 0);
      object = c.Get();
    }
    std::thread releaser([&] { object = nullptr; });
    EXPECT_EQ(loop.Stop(), 0);
    releaser.join();
    EXPECT_EQ(zstest::CountOf(static_cast<IUdpSink*>(s.Get())), 1);  // let go: it cannot be called again
  }
  ASSERT_EQ(loop.Start(), 0);
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
  EXPECT_EQ(startWhileArmed, -1);
  EXPECT_EQ(reportsDuringCall, 0u);
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
    EXPECT_EQ(r[i].ctx, Ctx(want[i].first)) << i;
    EXPECT_EQ(zstest::Mismatch(r[i].data, want[i].second), "") << i;
    EXPECT_TRUE(r[i].onLoop) << i;
    EXPECT_EQ(r[i].status, i < 2 ? -1 : 0) << i;
    EXPECT_EQ(r[i].address.GetPort(), i < 2 ? 0 : peer.Port()) << i;
    EXPECT_EQ(r[i].address.GetAddress().GetString(), i < 2 ? "" : GetParam()) << i;
  }
}

// The datagram in libuv is not counted; the queue takes one while at most 131072
// bytes are queued; refused on the loop thread at once, from another in the report.
TEST_F(SocketTest, UdpSendQueueAcceptsWhileAtMostTheLimitIsQueued) {
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
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
  EXPECT_EQ(accepted, 68);
  EXPECT_EQ(refusedHere, -1);
  EXPECT_EQ(foreign, 0);
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
  std::vector<void*> reported;
  for (const Event& e : sink->Of("send")) reported.push_back(e.ctx);
  EXPECT_EQ(reported, (std::vector<void*>{Ctx(7), Ctx(8)}));
  EXPECT_EQ(posted, 0);
  EXPECT_LE(queued, 1);  // the one already in libuv
}

// A UDP sink may drop the last reference to its socket; the TCP value class
// releases the socket it created, and with it the sink.
TEST_F(SocketTest, SinksAreLetGo) {
  tcp->Close();  // lets the sink go
  IUdp* raw = udp.Detach();
  ASSERT_EQ(raw->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  ASSERT_EQ(raw->StartRecv(Buf(), nullptr), 0);
  raw->AddRef();
  sink->SetHook([&](const Event&) { raw->Release(); });  // one in OnSend, the last in OnRecv
  ASSERT_EQ(raw->Send(Buf("x"), to, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 1));
  EXPECT_EQ(sink->Events().size(), 2u);
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(static_cast<IUdpSink*>(sink.Get())) == 1; }));
  auto other = zstest::NewRecorder();
  {
    UvTcp owned(&loop), borrowed(owned);
    borrowed.SetSink(other);
  }
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(static_cast<ITcpSink*>(other.Get())) == 1; }));
}

// The window between taking a datagram and handing it over: a receive
// cancelled there lets go of its buffer and never reports; a continuous one
// cancelled inside its report stops there.
TEST_F(SocketTest, UdpCancelledReceiveLetsGoAndNeverReports) {
  uv_udp_t* handle = nullptr;
  RefPtr<UvUdpRecv> recvOp;
  RefPtr<IMutableBuffer> taken = Buf();
  OnLoop([&] {
    handle = static_cast<uv_udp_t*>(std::calloc(1, sizeof(uv_udp_t)));
    uv_udp_init(loop.Loop(), handle);
    ASSERT_EQ(uv_udp_bind(handle, IPEndPoint(IPAddress::Loopback, 0).GetSockAddr(), 0), 0);
    recvOp.Attach(new UvUdpRecv(&loop));
    ASSERT_EQ(recvOp->Recv(handle, false, taken, sink, Ctx(3)), 0);
    UvUdpRecv::_RecvCallback(handle, 4, nullptr, to.GetSockAddr(), 0);  // taken, its delivery posted
    recvOp->Cancel();
    EXPECT_EQ(zstest::CountOf(taken), 1);
    ASSERT_EQ(recvOp->Recv(handle, true, Buf(), sink, Ctx(4)), 0);
    sink->SetHook([&](const Event&) { recvOp->Cancel(); });
    uv_buf_t x = uv_buf_init(const_cast<char*>("x"), 1);
    for (int i = 0; i < 2; ++i) ASSERT_EQ(uv_udp_try_send(handle, &x, 1, to.GetSockAddr()), 1);  // two echoes
  });
  ASSERT_TRUE(sink->Wait("recv", 1));
  ASSERT_TRUE(zstest::WaitUntil([&] { return peer.Received() == 2; }));
  zstest::Drain(loop);
  ASSERT_EQ(sink->Events().size(), 1u);
  EXPECT_EQ(sink->Events()[0].ctx, Ctx(4));
  OnLoop([&] {
    EXPECT_FALSE(uv_is_active(reinterpret_cast<uv_handle_t*>(handle)));
    recvOp->Cancel();
    uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* h) { std::free(h); });
  });
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(recvOp.Get()) == 1; }));  // the records are gone
}

}  // namespace
}  // namespace zelsocket
