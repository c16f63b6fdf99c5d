// The UDP and TCP sockets against echo peers and a real HTTP server on loopback.
#include <gtest/gtest.h>
#include <uv.h>

#include <csignal>
#include <cstring>
#include <random>

#include "socket/udp_impl.h"
#include "socket/uv_tcp_recv.h"
#include "socket/uv_udp_recv.h"
#include "support/peers.h"
#include "support/process.h"
#include "support/recorder.h"

namespace zelsocket {
namespace {

using zstest::Buf;
using zstest::Ctx;
using zstest::Event;

class SocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    ASSERT_TRUE(CreateUdp(udp, &loop) && CreateTcp(tcp, &loop));
    udp->SetSink(sink);
    tcp->SetSink(sink);
  }
  void TearDown() override {
    if (tcp) tcp->Close();
    tcp = nullptr, udp = nullptr;
    loop.Stop();  // a handle left open would keep the loop's storage, which ASan reports
  }
  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(loop.SyncCall(fn), 0); }
  zstest::LogRecorder log;  // also keeps the per-datagram lines off the output
  IOLoop loop;
  RefPtr<zstest::Recorder> sink = zstest::NewRecorder();
  RefPtr<IUdp> udp;
  RefPtr<ITcp> tcp;
  zstest::UdpEchoPeer peer;
  const IPEndPoint to{"127.0.0.1", peer.Port()};
};

// Refused at once, on any thread, with no report.
TEST_F(SocketTest, BadInputIsRefusedAtOnceWithoutAReport) {
  RefPtr<IMutableBuffer> b = Buf("data");
  const std::vector<std::function<int()>> calls = {
      [&] { return udp->Send(nullptr, to, nullptr); },
      [&] { return udp->Send(b, IPEndPoint(IPAddress::Loopback, 0), nullptr); },
      [&] { return udp->Send(b, IPEndPoint(), nullptr); },
      [&] { return udp->Recv(nullptr, nullptr); },
      [&] { return udp->StartRecv(nullptr, nullptr); },
      [&] { return udp->Open(IPEndPoint()); },
      [&] { return tcp->Connect(IPEndPoint("127.0.0.1", 0), nullptr); },
      [&] { return tcp->Send(nullptr, nullptr); },
      [&] { return tcp->Send(Buf(), nullptr); },
      [&] { return tcp->Recv(nullptr, nullptr); },
  };
  for (bool onLoop : {false, true}) {
    for (size_t i = 0; i < calls.size(); ++i) {
      int result = 0;
      auto call = [&] { result = calls[i](); };
      onLoop ? OnLoop(call) : call();
      EXPECT_EQ(result, -1) << i << (onLoop ? " on the loop" : "");
    }
  }
  UdpOpenOptions plain;  // a plain socket is IPv4 whatever the bind address says: libuv's error, handle freed
  plain.bindAddress = IPEndPoint("::1", 0);
  plain.nonLspSocket = false;
  EXPECT_LT(udp->Open(plain), -1);
  EXPECT_EQ(tcp->Open(IPEndPoint()), UV_EINVAL);
  RefPtr<UvTcpRecv> recvOp;  // checks the handle on its own, before anything else
  recvOp.Attach(new UvTcpRecv());
  OnLoop([&] { EXPECT_EQ(recvOp->Recv(nullptr, b, nullptr, sink), -1); });
  zstest::Drain(loop);
  EXPECT_EQ(sink->Count(""), 0u);
}

class FamilyTest : public SocketTest, public ::testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Loopback, FamilyTest, ::testing::Values("127.0.0.1", "::1"));

// Sends back to back, every report in order; receives served once and in
// order, re-armed as each completes; closed or cancelled ones never reported;
// the end of the stream is an empty read, for every later receive too.
TEST_P(FamilyTest, TcpEchoesInOrderToTheEndOfTheStream) {
  zstest::TcpEchoPeer peer(GetParam());
  const std::vector<std::string> parts = {"alpha-", "beta-", std::string(100000, 'x'), "-omega"};
  const IPEndPoint any(std::strchr(GetParam(), ':') ? "::" : "0.0.0.0", 0);  // the implicit open is IPv4
  ASSERT_EQ(tcp->Open(any), 0);
  ASSERT_EQ(tcp->Connect(IPEndPoint(GetParam(), peer.Port()), Ctx(7)), 0);
  ASSERT_TRUE(sink->Wait("connect", 1));
  IPEndPoint remote;
  EXPECT_TRUE(tcp->GetRemoteAddress(remote) == 0 && remote.GetAddress().GetString() == GetParam());

  long next = 1;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "recv" && !e.data.empty()) tcp->Recv(Buf(), Ctx(next++));
  });
  for (size_t i = 0; i < parts.size(); ++i) ASSERT_EQ(tcp->Send(Buf(parts[i]), Ctx(10 + i)), 0);
  OnLoop([&] { tcp->Recv(Buf(), Ctx(next++)), tcp->Recv(Buf(), Ctx(next++)); });
  std::string echoed, all = parts[0] + parts[1] + parts[2] + parts[3];
  ASSERT_TRUE(zstest::WaitUntil([&] {
    echoed.clear();
    for (const Event& e : sink->Of("recv")) echoed += e.data;
    return echoed.size() >= all.size();
  }));
  EXPECT_TRUE(echoed == all);
  std::vector<Event> sends = sink->Of("send");
  ASSERT_EQ(sends.size(), parts.size());
  for (size_t i = 0; i < parts.size(); ++i)
    EXPECT_TRUE(sends[i].status == 0 && sends[i].ctx == Ctx(10 + long(i)) && sends[i].data == parts[i]) << i;

  sink->SetHook(nullptr);
  const size_t served = sink->Count("recv");
  // Closed with two receives armed it connects again; a send lets its buffer go.
  ASSERT_EQ(tcp->Close(), 0);
  tcp->SetSink(sink);
  RefPtr<IMutableBuffer> again = Buf("again");
  // Waits for the connection: libuv on Windows refuses reads and writes before it (ENOTCONN).
  ASSERT_TRUE(tcp->Open(any) == 0 && tcp->Connect(IPEndPoint(GetParam(), peer.Port()), nullptr) == 0);
  ASSERT_TRUE(sink->Wait("connect", 2));
  ASSERT_TRUE(tcp->Send(again, nullptr) == 0 && tcp->Recv(Buf(), Ctx(50)) == 0 && sink->Wait("recv", served + 1));
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(again) == 1; }));
  ASSERT_TRUE(tcp->Recv(Buf(), Ctx(98)) == 0 && tcp->Recv(Buf(), Ctx(99)) == 0);
  ASSERT_EQ(tcp->CancelRecv(), 0);
  ASSERT_EQ(tcp->Send(Buf(std::string(1, zstest::TcpEchoPeer::kHangUp)), nullptr), 0);
  ASSERT_TRUE(tcp->Recv(Buf(), Ctx(51)) == 0 && tcp->Recv(Buf(), Ctx(52)) == 0);
  ASSERT_TRUE(sink->Wait("recv", served + 3));
  zstest::Drain(loop);
  std::vector<Event> r = sink->Of("recv");
  ASSERT_EQ(r.size(), served + 3);
  for (size_t i = 0; i < r.size(); ++i) {
    EXPECT_TRUE(r[i].status == 0 && r[i].ctx == Ctx(i < served ? long(i) + 1 : 50 + long(i - served)) && r[i].onLoop &&
                (i < served || r[i].data == (i == served ? "again" : "")))
        << i << " of " << r.size() << ": status " << r[i].status << ", ctx " << r[i].ctx << ", " << r[i].data.size()
        << " bytes";
  }
}

TEST_F(SocketTest, TcpRefusalsAndLibuvErrors) {
  EXPECT_EQ(tcp->Open(IPEndPoint("::", 0)), 0);
  EXPECT_EQ(tcp->Open(IPEndPoint("127.0.0.1", 0)), -1);  // kept as it was
  IPEndPoint local;
  EXPECT_TRUE(tcp->GetLocalAddress(local) == 0 && local.GetSockAddr()->sa_family == AF_INET6);
  EXPECT_LT(tcp->GetRemoteAddress(local), 0);  // not connected: libuv's error

  unsigned short refused = zstest::TcpEchoPeer().Port();
  // libuv refuses an IPv4 destination for an IPv6 socket before any request;
  // once closed and reopened as IPv4, the kernel refuses later: libuv's status.
  ASSERT_TRUE(tcp->Connect(IPEndPoint("127.0.0.1", refused), Ctx(2)) == 0 && sink->Wait("connect", 1));
  EXPECT_EQ(tcp->Close(), 0);  // lets the sink go
  tcp->SetSink(sink);
  ASSERT_TRUE(tcp->Connect(IPEndPoint("127.0.0.1", refused), Ctx(3)) == 0 && sink->Wait("connect", 2));
  EXPECT_TRUE(tcp->IsOpen());  // the implicit open stays
  EXPECT_EQ(tcp->Close(), 0);
  tcp->SetSink(sink);
  // Opened by a send, never connected: libuv's errors, and the queue limit of 1 MiB.
  ASSERT_EQ(tcp->Send(Buf("hello"), Ctx(5)), 0);
  EXPECT_EQ(tcp->Recv(Buf(), Ctx(4)), 0);
  ASSERT_EQ(tcp->Send(Buf(std::string(1048577, 'z')), Ctx(6)), 0);
  ASSERT_EQ(tcp->Send(Buf(std::string(1048576, 'z')), Ctx(7)), 0);  // exactly 1 MiB: accepted
  ASSERT_TRUE(sink->Wait("send", 3) && sink->Wait("recv", 1));
  std::map<void*, Event> by;
  for (const Event& e : sink->Of("")) by[e.ctx] = e;
  EXPECT_EQ(sink->Count(""), 6u);
  EXPECT_TRUE(by[Ctx(2)].status == -1 && by[Ctx(6)].status == -1 && by[Ctx(4)].status < 0);
  EXPECT_TRUE(by[Ctx(3)].status == UV_ECONNREFUSED && by[Ctx(3)].address.GetPort() == refused);
  EXPECT_TRUE(by[Ctx(5)].status < -1 && by[Ctx(7)].status < -1);  // libuv's own errors
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
        action == "close" ? raw->Close() : action == "release" ? raw->Release() : raw->CancelRecv();
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
      EXPECT_TRUE(action == "cancel" || s->Of("").back().kind == kind);
      EXPECT_EQ(s->Count("recv"), kind == "recv" ? 1u : 0u);
      if (action != "release") raw->Release();
    }
  }
}

// A server nobody here wrote; HTTP/1.0, so its close ends the response.  A
// write after that meets the broken pipe: an error, not a signal that ends
// the process (SIGPIPE left at its default).
TEST_F(SocketTest, TcpFetchesAFileFromARealHttpServerAndWritesIntoItsClose) {
  std::string body(4 << 20, 0);
  std::mt19937 random(1);  // no period that a misplaced read could hide in
  std::generate(body.begin(), body.end(), [&] { return char(random()); });
  zstest::ChildProcess server;
  unsigned short port = 0;
  std::string why = zstest::StartHttpServer(server, {{"large.bin", body}}, &port);
  if (!why.empty()) GTEST_SKIP() << why;
#ifdef SIGPIPE  // its default action ends the process
  ASSERT_NE(std::signal(SIGPIPE, SIG_DFL), SIG_ERR);
#endif
  std::atomic<bool> ended{false};
  sink->SetHook([&](const Event& e) {
    if (e.kind == "recv" && (e.status != 0 || e.data.empty())) ended = true;
    if (e.kind == "recv" && !ended) tcp->Recv(Buf(), nullptr);
  });
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", port), nullptr), 0);
  ASSERT_EQ(tcp->Send(Buf("GET /large.bin HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n"), nullptr), 0);
  ASSERT_EQ(tcp->Recv(Buf(), nullptr), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return ended.load(); }, std::chrono::seconds(60)));
  std::string response;
  for (const Event& e : sink->Of("recv")) response += e.data;
  EXPECT_EQ(response.compare(0, 13, "HTTP/1.0 200 "), 0) << response.substr(0, 100);
  EXPECT_TRUE(response.size() > body.size() && response.substr(response.size() - body.size()) == body);
  // The first write may still go out (the server answers it with a reset).
  int failed = 0;
  for (size_t n = 2; n <= 50 && failed == 0; ++n) {
    ASSERT_EQ(tcp->Send(Buf("ping"), nullptr), 0);
    ASSERT_TRUE(sink->Wait("send", n));
    failed = sink->Of("send").back().status;
  }
  EXPECT_LT(failed, 0);
#ifdef SIGPIPE  // the process-wide setting stays the application's
  EXPECT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
#endif
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
      ASSERT_TRUE(tcp->Connect(IPEndPoint("127.0.0.1", tcpPeer.Port()), nullptr) == 0 && s->Wait("connect", 1));
      ASSERT_TRUE(tcp->Send(Buf(std::string(4096, 'x')), nullptr) == 0 && tcp->Recv(Buf(), nullptr) == 0);
      object.Attach(tcp.Detach());
    } else if (round % 3 == 1) {
      ASSERT_TRUE(CreateUdp(udp, &loop));
      udp->SetSink(s);
      ASSERT_TRUE(udp->Open(IPEndPoint("127.0.0.1", 0)) == 0 && udp->StartRecv(Buf(), nullptr) == 0);
      for (int i = 0; i < 20; ++i) udp->Send(Buf("datagram"), to, nullptr);
      object.Attach(udp.Detach());
    } else {
      RefPtr<IChannel> c;
      unsigned cookie = 0;
      ASSERT_TRUE(CreateUdpChannel(c, &loop) && c->Connect("127.0.0.1", to.GetPort(), nullptr) == 0);
      for (int i = 0; i < 5; ++i) ASSERT_EQ(c->Send(Buf("request"), nullptr, cookie), 0);
      object = c.Get();
    }
    std::thread releaser([&] { object = nullptr; });
    EXPECT_EQ(loop.Stop(), 0);
    releaser.join();
    EXPECT_EQ(zstest::CountOf(static_cast<IUdpSink*>(s.Get())), 1);  // let go: it cannot be called again
  }
}

// One receive at a time, refused in its report while another is armed or the
// socket is closed; an empty datagram completes none; a sink may arm the next;
// cancelled, a receive reports nothing and what comes meanwhile waits.  A fresh
// buffer takes the least size, cutting longer datagrams.  Reports come later, on
// the loop thread, in order.
TEST_P(FamilyTest, UdpReceivesOneAtATimeAndReportsLaterInOrder) {
  zstest::UdpEchoPeer peer(nullptr, GetParam());
  const IPEndPoint to(GetParam(), peer.Port());
  ASSERT_TRUE(udp->Recv(Buf(), Ctx(1)) == 0 && sink->Wait("recv", 1));
  ASSERT_EQ(udp->Open(IPEndPoint(GetParam(), 0)), 0);
  int rearm = 99, startWhileArmed = 99;
  size_t reportsDuringCall = 99;
  sink->SetHook([&](const Event& e) {
    if (e.kind == "recv" && e.ctx == Ctx(2)) rearm = udp->Recv(Buf(), Ctx(4));
  });
  ASSERT_TRUE(udp->Recv(Buf(), Ctx(2)) == 0 && udp->Recv(Buf(), Ctx(3)) == 0);
  OnLoop([&] {
    startWhileArmed = udp->StartRecv(Buf(), Ctx(5));
    ASSERT_TRUE(udp->Send(Buf(""), to, Ctx(10)) == 0 && udp->Send(Buf("one"), to, Ctx(11)) == 0);
    reportsDuringCall = sink->Count("send");
  });
  EXPECT_TRUE(startWhileArmed == -1 && reportsDuringCall == 0);
  ASSERT_EQ(udp->Send(Buf("two"), to, Ctx(12)), 0);
  ASSERT_TRUE(sink->Wait("recv", 4) && sink->Wait("send", 3));
  EXPECT_EQ(rearm, 0);
  ASSERT_EQ(udp->StartRecv(Buf(), Ctx(6)), 0);
  EXPECT_EQ(udp->CancelRecv(), 0);
  ASSERT_EQ(udp->Send(Buf(std::string(20000, 'w')), to, nullptr), 0);
  ASSERT_TRUE(zstest::WaitUntil([&] { return peer.Received() == 4; }));
  ASSERT_EQ(udp->Recv(Buf(), Ctx(7)), 0);
  ASSERT_TRUE(sink->Wait("recv", 5));
  RefPtr<IMutableBuffer> large = Buf();
  large->Reserve(65536);
  ASSERT_TRUE(udp->Recv(large, Ctx(8)) == 0 && udp->Send(Buf(std::string(30000, 'q')), to, nullptr) == 0);
  ASSERT_TRUE(sink->Wait("recv", 6));
  const std::vector<std::pair<long, std::string>> want = {{1, ""},
                                                          {3, ""},
                                                          {2, "one"},
                                                          {4, "two"},
                                                          {7, std::string(UvUdpRecv::kMinRecvSize, 'w')},
                                                          {8, std::string(30000, 'q')}};
  std::vector<Event> r = sink->Of("recv");
  ASSERT_EQ(r.size(), want.size());
  for (size_t i = 0; i < r.size(); ++i) {
    EXPECT_TRUE(r[i].ctx == Ctx(want[i].first) && r[i].data == want[i].second && r[i].onLoop) << i;
    EXPECT_EQ(r[i].status, i < 2 ? -1 : 0) << i;
    EXPECT_TRUE(i < 2 ||
                (r[i].address.GetPort() == peer.Port() && r[i].address.GetAddress().GetString() == GetParam()));
  }
  // The empty datagram is skipped with its line; a long one is cut without a word.
  EXPECT_EQ(log.CountPrefix("UvUdpRecv::_RecvCallback"), 1);
  EXPECT_EQ(log.CountPrefix("UvUdpRecv::_RecvCallback, nread=0"), 1);
}

// The datagram in libuv is not counted; the queue takes one while at most the limit
// is queued; refused on the loop thread at once, from another in the report.
TEST_F(SocketTest, UdpSendQueueAcceptsWhileAtMostTheLimitIsQueued) {
  ASSERT_EQ(udp->Open(IPEndPoint(IPAddress::Loopback, 0)), 0);
  auto* impl = static_cast<UdpImpl*>(udp.Get());
  int accepted = 0, refusedHere = 99, foreign = 99;
  OnLoop([&] {
    auto send = [&](size_t n, long ctx) { accepted += udp->Send(Buf(std::string(n, 'd')), to, Ctx(ctx)) == 0; };
    send(1000, 1);
    for (int i = 0; i < 64; ++i) send(1, 2);
    send(65504, 3), send(65504, 4);
    EXPECT_EQ(impl->QueuedBytes(), UdpImpl::kMaxQueuedBytes);
    send(60000, 5);                                 // at the limit: accepted
    refusedHere = udp->Send(Buf("w"), to, Ctx(6));  // over it: refused here
    std::thread other([&] { foreign = udp->Send(Buf("v"), to, Ctx(7)); });
    other.join();
  });
  EXPECT_TRUE(accepted == 68 && refusedHere == -1 && foreign == 0);
  ASSERT_TRUE(sink->Wait("send", 69));
  for (const Event& e : sink->Of("send")) EXPECT_EQ(e.status != 0, e.ctx == Ctx(7));  // only the foreign one failed
  EXPECT_EQ(impl->QueuedBytes(), 0);
}

TEST_F(SocketTest, UdpCloseSilencesQueuedAndPostedSends) {
  std::atomic<int> queued{0}, posted{0}, marker{0};
  zstest::UdpEchoPeer mute([&](const std::string& d) {
    queued += d == "queued", posted += d == "posted", marker += d == "marker";
    return false;
  });
  const IPEndPoint to("127.0.0.1", mute.Port());
  ASSERT_TRUE(udp->Open(IPEndPoint(IPAddress::Loopback, 0)) == 0 && udp->StartRecv(Buf(), nullptr) == 0);
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
  ASSERT_TRUE(sink->Wait("send", 2) && zstest::WaitUntil([&] { return marker == 1; }));
  std::vector<Event> sends = sink->Of("send");
  EXPECT_TRUE(sends.size() == 2 && sends[0].ctx == Ctx(7) && sends[1].ctx == Ctx(8));
  EXPECT_EQ(posted, 0);
  EXPECT_LE(queued, 1);  // the one already in libuv
}

// A UDP sink may drop the last reference to its socket; the TCP value class
// releases the socket it created, and with it the sink.
TEST_F(SocketTest, SinksAreLetGo) {
  tcp->Close();  // lets the sink go
  IUdp* raw = udp.Detach();
  ASSERT_TRUE(raw->Open(IPEndPoint(IPAddress::Loopback, 0)) == 0 && raw->StartRecv(Buf(), nullptr) == 0);
  raw->AddRef();
  sink->SetHook([&](const Event&) { raw->Release(); });  // one in OnSend, the last in OnRecv
  ASSERT_EQ(raw->Send(Buf("x"), to, nullptr), 0);
  ASSERT_TRUE(sink->Wait("recv", 1));
  EXPECT_EQ(sink->Count(""), 2u);
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
  EXPECT_EQ(sink->Count(""), 1u);
  EXPECT_EQ(sink->Of("recv")[0].ctx, Ctx(4));
  OnLoop([&] {
    EXPECT_FALSE(uv_is_active(reinterpret_cast<uv_handle_t*>(handle)));
    recvOp->Cancel();
    uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* h) { std::free(h); });
  });
  EXPECT_TRUE(zstest::WaitUntil([&] { return zstest::CountOf(recvOp.Get()) == 1; }));  // the records are gone
}

}  // namespace
}  // namespace zelsocket
