// The TCP socket and its operations against an echo peer and a real HTTP
// server on loopback.
#include <gtest/gtest.h>
#include <uv.h>

#include <future>
#include <random>

#include "socket/uv_tcp_connect.h"
#include "socket/uv_tcp_recv.h"
#include "socket/uv_tcp_send.h"
#include "support/peers.h"
#include "support/process.h"
#include "support/recorder.h"

namespace zelsocket {
namespace {

using zstest::Buf;
using zstest::Ctx;
using zstest::Event;

class TcpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    ASSERT_TRUE(CreateTcp(tcp, &loop));
    tcp->SetSink(sink);
  }
  void TearDown() override {
    if (tcp) tcp->Close();
    tcp = nullptr;
    loop.Stop();  // a handle left open would keep the loop's storage, which ASan reports
  }
  void ConnectTo(unsigned short port, zstest::Recorder* s = nullptr) {
    s = s ? s : sink.Get();
    ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", port), Ctx(100)), 0);
    ASSERT_TRUE(s->Wait("connect", 1));
    ASSERT_EQ(s->Of("connect")[0].status, 0);
  }

  zstest::LogRecorder log;
  IOLoop loop;
  RefPtr<zstest::Recorder> sink = zstest::NewRecorder();
  RefPtr<ITcp> tcp;
};

class TcpFamilyTest : public TcpTest, public ::testing::WithParamInterface<const char*> {};

// Buffers sent back to back; receives queued two at a time and re-armed as
// each completes; every report in order.
TEST_P(TcpFamilyTest, EchoesInOrder) {
  zstest::TcpEchoPeer peer(GetParam());
  const std::vector<std::string> parts = {"alpha-", "beta-", std::string(100000, 'x'), "-omega"};
  std::string all;
  for (const std::string& p : parts) all += p;
  if (std::string(GetParam()) == "::1") {
    ASSERT_EQ(tcp->Open(IPEndPoint("::", 0)), 0);  // the implicit open is IPv4
  }
  ASSERT_EQ(tcp->Connect(IPEndPoint(GetParam(), peer.Port()), Ctx(7)), 0);
  ASSERT_TRUE(sink->Wait("connect", 1));
  Event connected = sink->Of("connect")[0];
  EXPECT_EQ(connected.status, 0);
  EXPECT_EQ(connected.ctx, Ctx(7));
  EXPECT_EQ(connected.address.GetPort(), peer.Port());
  IPEndPoint remote;
  ASSERT_EQ(tcp->GetRemoteAddress(remote), 0);
  EXPECT_EQ(remote.GetAddress().GetString(), GetParam());

  long next = 1;
  sink->hook = [&](const Event& e) {
    if (e.kind == "recv" && e.status == 0 && !e.data.empty()) tcp->Recv(Buf(), Ctx(next++));
  };
  for (size_t i = 0; i < parts.size(); ++i) ASSERT_EQ(tcp->Send(Buf(parts[i]), Ctx(10 + i)), 0);
  loop.SyncCall([&] {
    tcp->Recv(Buf(), Ctx(next++));
    tcp->Recv(Buf(), Ctx(next++));
  });
  std::string echoed;
  ASSERT_TRUE(zstest::WaitUntil([&] {
    echoed.clear();
    for (const Event& e : sink->Of("recv")) echoed += e.data;
    return echoed.size() >= all.size();
  }));
  EXPECT_TRUE(echoed == all);
  std::vector<Event> recvs = sink->Of("recv"), sends = sink->Of("send");
  for (size_t i = 0; i < recvs.size(); ++i) EXPECT_EQ(recvs[i].ctx, Ctx(static_cast<long>(i) + 1));
  ASSERT_EQ(sends.size(), parts.size());
  for (size_t i = 0; i < parts.size(); ++i) {
    EXPECT_EQ(sends[i].status, 0);
    EXPECT_EQ(sends[i].ctx, Ctx(10 + static_cast<long>(i)));
    EXPECT_EQ(sends[i].data, parts[i]);
  }
  EXPECT_EQ(tcp->Close(), 0);
  EXPECT_FALSE(tcp->IsOpen());
}

INSTANTIATE_TEST_SUITE_P(Loopback, TcpFamilyTest, ::testing::Values("127.0.0.1", "::1"));

TEST_F(TcpTest, OpenAndConnectFailures) {
  EXPECT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", 0), Ctx(1)), -1);
  EXPECT_EQ(tcp->Open(IPEndPoint()), UV_EINVAL);
  EXPECT_FALSE(tcp->IsOpen());
  EXPECT_EQ(tcp->Open(IPEndPoint("::", 0)), 0);
  EXPECT_EQ(tcp->Open(IPEndPoint("127.0.0.1", 0)), -1);  // kept as it was
  IPEndPoint local;
  ASSERT_EQ(tcp->GetLocalAddress(local), 0);
  EXPECT_EQ(local.GetSockAddr()->sa_family, AF_INET6);
  EXPECT_LT(tcp->GetRemoteAddress(local), 0);  // not connected: libuv's error

  // libuv refuses an IPv4 destination for an IPv6 socket before any request.
  unsigned short refused = 0;
  {
    zstest::TcpEchoPeer gone;
    refused = gone.Port();
  }
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", refused), Ctx(2)), 0);
  ASSERT_TRUE(sink->Wait("connect", 1));
  EXPECT_EQ(sink->Of("connect")[0].status, -1);
  EXPECT_EQ(sink->Of("connect")[0].ctx, Ctx(2));

  // The kernel refuses later: libuv's status, with the destination.
  EXPECT_EQ(tcp->Close(), 0);  // lets the sink go
  tcp->SetSink(sink);
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", refused), Ctx(3)), 0);
  ASSERT_TRUE(sink->Wait("connect", 2));
  Event e = sink->Of("connect")[1];
  EXPECT_EQ(e.status, UV_ECONNREFUSED);
  EXPECT_EQ(e.address.GetPort(), refused);
  EXPECT_EQ(e.ctx, Ctx(3));
  EXPECT_TRUE(tcp->IsOpen());  // the implicit open stays
}

TEST_F(TcpTest, UnconnectedSocketReportsLibuvErrorsAndTheQueueLimit) {
  EXPECT_EQ(tcp->Send(nullptr, Ctx(1)), -1);
  EXPECT_EQ(tcp->Send(Buf(), Ctx(1)), -1);
  EXPECT_EQ(tcp->Recv(nullptr, Ctx(1)), -1);
  EXPECT_EQ(tcp->Recv(Buf(), Ctx(1)), -1);        // closed
  ASSERT_EQ(tcp->Send(Buf("hello"), Ctx(1)), 0);  // opens, does not connect
  EXPECT_TRUE(tcp->IsOpen());
  ASSERT_EQ(tcp->Send(Buf(std::string(1048577, 'z')), Ctx(2)), 0);  // over 1 MiB on its own
  ASSERT_EQ(tcp->Send(Buf(std::string(1048576, 'z')), Ctx(4)), 0);  // exactly 1 MiB: accepted
  ASSERT_EQ(tcp->Recv(Buf(), Ctx(3)), 0);
  ASSERT_TRUE(sink->Wait("send", 3));
  ASSERT_TRUE(sink->Wait("recv", 1));
  std::map<void*, int> status;
  for (const Event& e : sink->Of("")) status[e.ctx] = e.status;
  EXPECT_LT(status[Ctx(1)], -1);  // libuv's own error
  EXPECT_EQ(status[Ctx(2)], -1);
  EXPECT_LT(status[Ctx(3)], 0);
  EXPECT_LT(status[Ctx(4)], -1);
  EXPECT_EQ(sink->Count(""), 4u);
}

TEST_F(TcpTest, CloseSilencesEverythingAndTheSocketCanBeReopened) {
  zstest::TcpEchoPeer peer;
  ConnectTo(peer.Port());
  loop.SyncCall([&] {
    tcp->Send(Buf(std::string(1048576, 'a')), Ctx(1));
    tcp->Send(Buf("queued"), Ctx(2));
    tcp->Recv(Buf(), Ctx(3));
    tcp->Recv(Buf(), Ctx(4));
    EXPECT_EQ(tcp->Close(), 0);
  });
  EXPECT_TRUE(zstest::WaitUntil([&] { return peer.Ended() == 1; }));
  zstest::Drain(loop);
  EXPECT_EQ(sink->Count(""), 1u);  // OnConnect only

  auto second = zstest::NewRecorder();
  tcp->SetSink(second);
  ConnectTo(peer.Port(), second.Get());
  ASSERT_EQ(tcp->Send(Buf("again"), Ctx(5)), 0);
  ASSERT_EQ(tcp->Recv(Buf(), Ctx(6)), 0);
  ASSERT_TRUE(second->Wait("recv", 1));
  EXPECT_EQ(second->Of("recv")[0].data, "again");
  EXPECT_EQ(sink->Count(""), 1u);
}

// The sink closes the socket, or drops its last reference, inside each kind
// of report; released without Close, the socket closes its handle.
TEST_F(TcpTest, CloseOrLastReleaseInsideEachReport) {
  zstest::TcpEchoPeer peer;
  int ended = 0;
  for (const char* kind : {"connect", "send", "recv"}) {
    for (bool release : {false, true}) {
      SCOPED_TRACE(std::string(kind) + (release ? " release" : " close"));
      auto s = zstest::NewRecorder();
      ITcp* raw = nullptr;
      ASSERT_TRUE(CreateTcp(&raw, &loop));
      raw->SetSink(s);
      s->hook = [&, kind, release](const Event& e) {
        if (e.kind != kind || e.ctx != Ctx(1)) return;
        if (release)
          raw->Release();
        else
          raw->Close();
      };
      loop.SyncCall([&] {  // queued together, so no report can come between them
        raw->Connect(IPEndPoint("127.0.0.1", peer.Port()), Ctx(std::string(kind) == "connect" ? 1 : 2));
        raw->Send(Buf("one"), Ctx(std::string(kind) == "send" ? 1 : 2));
        raw->Send(Buf("two"), Ctx(2));
        raw->Recv(Buf(), Ctx(std::string(kind) == "recv" ? 1 : 2));
        raw->Recv(Buf(), Ctx(3));
      });
      ASSERT_TRUE(s->Wait(kind, 1));
      EXPECT_TRUE(zstest::WaitUntil([&] { return peer.Ended() == ended + 1; }));
      ended = peer.Ended();
      zstest::Drain(loop);
      std::vector<Event> after = s->Of("");
      EXPECT_EQ(after.back().kind, kind);  // nothing after the report that ended it
      if (!release) raw->Release();
    }
  }
}

// The last reference goes on another thread with reports in flight: the
// socket closes its handle, and its sink is let go and never called again.
TEST_F(TcpTest, ReleaseOnAnotherThreadWithReportsInFlight) {
  zstest::TcpEchoPeer peer;
  for (int round = 0; round < 10; ++round) {
    auto s = zstest::NewRecorder();
    RefPtr<ITcp> t;
    ASSERT_TRUE(CreateTcp(t, &loop));
    t->SetSink(s);
    t->Connect(IPEndPoint("127.0.0.1", peer.Port()), nullptr);
    for (int i = 0; i < 4; ++i) t->Send(Buf(std::string(20000, 'r')), nullptr);
    t->Recv(Buf(), nullptr);
    if (round % 2) s->Wait("recv", 1);
    t = nullptr;
    EXPECT_TRUE(zstest::WaitUntil([&] { return s->AddRef() == 2 && s->Release() == 1; }));
    size_t events = s->Count("");
    zstest::Drain(loop);
    EXPECT_EQ(s->Count(""), events);
  }
  EXPECT_TRUE(zstest::WaitUntil([&] { return peer.Ended() == 10; }));
}

// Reads are delivered from libuv's read callback itself: a receive cancelled
// before the bytes come gets nothing, and the one armed after it gets them.
TEST_F(TcpTest, OperationsCancelledInFlight) {
  zstest::TcpEchoPeer peer;
  uv_tcp_t* handle = nullptr;
  RefPtr<UvTcpConnect> connectOp;
  RefPtr<UvTcpSend> sendOp;
  RefPtr<UvTcpRecv> recvOp;
  connectOp.Attach(new UvTcpConnect());
  sendOp.Attach(new UvTcpSend());
  recvOp.Attach(new UvTcpRecv());
  auto stream = [&] { return reinterpret_cast<uv_stream_t*>(handle); };
  loop.SyncCall([&] {
    handle = static_cast<uv_tcp_t*>(std::calloc(1, sizeof(uv_tcp_t)));
    uv_tcp_init(loop.Loop(), handle);
    EXPECT_TRUE(connectOp->Connect(handle, IPEndPoint("127.0.0.1", peer.Port()), Ctx(1), sink));
  });
  ASSERT_TRUE(sink->Wait("connect", 1));
  RefPtr<IMutableBuffer> data = Buf("lost");
  int countAfterCancel = 0;
  int rearm = -2;
  loop.SyncCall([&] {
    ASSERT_EQ(sendOp->Send(stream(), data, Ctx(2), sink), 0);
    EXPECT_EQ(sendOp->Send(stream(), data, Ctx(3), sink), -1);  // one at a time
    sendOp->Cancel();
    countAfterCancel = data->AddRef() - 1;
    data->Release();
    for (bool nullHandle : {true, false})  // each argument is checked on its own
      EXPECT_EQ(recvOp->Recv(nullHandle ? nullptr : stream(), nullHandle ? Buf().Get() : nullptr, Ctx(9), sink), -1);
    EXPECT_EQ(recvOp->Recv(stream(), Buf(), Ctx(9), nullptr), -1);
    ASSERT_EQ(recvOp->Recv(stream(), Buf(), Ctx(4), sink), 0);
    recvOp->Cancel();
    rearm = recvOp->Recv(stream(), Buf().Get(), Ctx(5), sink);
  });
  EXPECT_EQ(countAfterCancel, 2);  // the record holds the buffer until libuv reports
  ASSERT_TRUE(zstest::WaitUntil([&] {
    bool done = false;
    loop.SyncCall([&] { done = !sendOp->IsBusy(); });
    return done;
  }));
  EXPECT_EQ(rearm, 0);
  EXPECT_EQ(data->AddRef() - 1, 1);
  data->Release();
  ASSERT_TRUE(sink->Wait("recv", 1));  // the cancelled write went out and came back
  loop.SyncCall([&] {
    recvOp->Cancel();
    uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* h) { std::free(h); });
  });
  zstest::Drain(loop);
  EXPECT_EQ(sink->Count(""), 2u);  // connect, and the receive armed after the cancel
  EXPECT_EQ(sink->Of("recv")[0].ctx, Ctx(5));
  EXPECT_EQ(sink->Of("recv")[0].data, "lost");
}

std::string RandomBytes(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string out(n, '\0');
  for (char& c : out) c = static_cast<char>(gen() & 0xff);
  return out;
}

// A server nobody here wrote; HTTP/1.0, so its close ends each response.
TEST_F(TcpTest, FetchesFilesFromARealHttpServer) {
  const std::map<std::string, std::string> files = {{"small.bin", RandomBytes(1500, 1)},
                                                    {"large.bin", RandomBytes(4 << 20, 2)}};
  zstest::ChildProcess server;
  unsigned short port = 0;
  std::string why = zstest::StartHttpServer(server, files, &port);
  if (!why.empty()) GTEST_SKIP() << why;
  for (const auto& [name, body] : files) {
    auto s = zstest::NewRecorder();
    RefPtr<ITcp> client;
    ASSERT_TRUE(CreateTcp(client, &loop));
    client->SetSink(s);
    std::string response;
    std::promise<int> done;
    s->hook = [&](const Event& e) {
      if (e.kind != "recv") return;
      if (e.status != 0 || e.data.empty()) return done.set_value(e.status);
      response += e.data;
      client->Recv(Buf(), nullptr);
    };
    ASSERT_EQ(client->Connect(IPEndPoint("127.0.0.1", port), nullptr), 0);
    ASSERT_EQ(client->Send(Buf("GET /" + name + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n"), nullptr), 0);
    ASSERT_EQ(client->Recv(Buf(), nullptr), 0);
    std::future<int> result = done.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(result.get(), 0);
    size_t headerEnd = response.find("\r\n\r\n");
    ASSERT_NE(headerEnd, std::string::npos);
    EXPECT_NE(response.substr(0, headerEnd).find(" 200 "), std::string::npos);
    EXPECT_TRUE(response.substr(headerEnd + 4) == body) << name;
  }
}

}  // namespace
}  // namespace zelsocket
