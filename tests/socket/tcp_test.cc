// The TCP socket against real peers on loopback.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <uv.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <future>
#include <random>
#include <string>
#include <vector>

#include "socket/tcp_peer.h"
#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/tcp.h"

using zelsocket::CreateBuffer;
using zelsocket::CreateTcp;
using zelsocket::IMutableBuffer;
using zelsocket::IOLoop;
using zelsocket::IPAddress;
using zelsocket::IPEndPoint;
using zelsocket::ITcp;
using zelsocket::RefPtr;
using zstest::RecordingSink;
using zstest::TcpEvent;
using zstest::TcpPeer;

namespace {

RefPtr<IMutableBuffer> MakeBuffer(const std::string& data = std::string()) {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  b->CopyFrom(data.data(), static_cast<int>(data.size()));
  return b;
}

void* Ctx(long n) { return reinterpret_cast<void*>(n); }

class TcpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    sink.Attach(new RecordingSink());
    ASSERT_TRUE(CreateTcp(tcp, &loop));
    tcp->SetSink(sink);
  }
  void TearDown() override {
    if (tcp) tcp->Close();
    tcp = nullptr;
    // Every handle must be closed by now: the loop's storage is only freed
    // when uv_loop_close succeeds, so a leaked handle shows up under ASan.
    if (loop.Loop()) loop.Stop();
  }

  // Connects to `peer` and waits for the successful report.
  void ConnectTo(TcpPeer& peer) {
    ASSERT_TRUE(peer.Ok());
    ASSERT_EQ(tcp->Connect(peer.EndPoint(), Ctx(100)), 0);
    ASSERT_TRUE(peer.Accept());
    ASSERT_TRUE(sink->WaitFor(TcpEvent::kConnect, 1));
    ASSERT_EQ(sink->Of(TcpEvent::kConnect)[0].status, 0);
  }

  void RunEcho(bool ipv6);

  // Small kernel buffers (the peer's are small too) keep a large write pending
  // for as long as the peer does not read.
  void ShrinkSendBuffer(TcpPeer& peer) {
    IPEndPoint local;
    ASSERT_EQ(tcp->GetLocalAddress(local), 0);
    int fd = zstest::FindSocketFd(local.GetPort(), peer.Port());
    ASSERT_GE(fd, 0);
    int small = 4096;
    ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
  }

  IOLoop loop;
  RefPtr<RecordingSink> sink;
  RefPtr<ITcp> tcp;
};

// Send several buffers back to back, keep two receives queued, and see the
// peer's close as an empty read.
void TcpTest::RunEcho(bool ipv6) {
  TcpPeer peer(ipv6);
  ASSERT_TRUE(peer.Ok());
  const std::vector<std::string> parts = {"alpha-", "beta-", std::string(100000, 'x'), "-omega"};
  std::string all;
  for (const std::string& p : parts) all += p;
  peer.EchoInBackground(all.size());

  if (ipv6) {
    ASSERT_EQ(tcp->Open(IPEndPoint("::", 0)), 0);  // the implicit open is IPv4
  }
  ASSERT_EQ(tcp->Connect(peer.EndPoint(), Ctx(7)), 0);
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kConnect, 1));
  TcpEvent connected = sink->Of(TcpEvent::kConnect)[0];
  EXPECT_EQ(connected.status, 0);
  EXPECT_EQ(connected.ctx, Ctx(7));
  EXPECT_EQ(connected.port, peer.Port());

  IPEndPoint local, remote;
  EXPECT_EQ(tcp->GetLocalAddress(local), 0);
  EXPECT_EQ(tcp->GetRemoteAddress(remote), 0);
  EXPECT_NE(local.GetPort(), 0);
  EXPECT_EQ(remote.GetPort(), peer.Port());
  EXPECT_EQ(remote.GetAddress().GetString(), ipv6 ? "::1" : "127.0.0.1");

  for (std::size_t i = 0; i < parts.size(); ++i) ASSERT_EQ(tcp->Send(MakeBuffer(parts[i]), Ctx(10 + i)), 0);
  // Two receives queued at once; each further one is queued as one completes,
  // until the peer's close arrives as an empty read.
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(1)), 0);
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(2)), 0);
  std::string echoed;
  std::size_t seen = 0;
  long next = 3;
  bool eof = false;
  while (!eof) {
    ASSERT_TRUE(sink->WaitFor(TcpEvent::kRecv, seen + 1)) << "echoed " << echoed.size();
    std::vector<TcpEvent> recvs = sink->Of(TcpEvent::kRecv);
    for (; seen < recvs.size(); ++seen) {
      EXPECT_EQ(recvs[seen].ctx, Ctx(static_cast<long>(seen) + 1));  // served in order
      EXPECT_EQ(recvs[seen].status, 0);
      if (recvs[seen].data.empty()) eof = true;
      echoed += recvs[seen].data;
      if (!eof) {
        ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(next++)), 0);
      }
    }
  }
  EXPECT_EQ(echoed, all);
  EXPECT_TRUE(tcp->IsOpen());  // end of stream does not close the socket

  std::vector<TcpEvent> sends = sink->Of(TcpEvent::kSend);
  ASSERT_EQ(sends.size(), parts.size());
  for (std::size_t i = 0; i < parts.size(); ++i) {
    EXPECT_EQ(sends[i].status, 0);
    EXPECT_EQ(sends[i].ctx, Ctx(10 + static_cast<long>(i)));
    EXPECT_EQ(sends[i].data, parts[i]);
  }
  EXPECT_EQ(tcp->Close(), 0);
  EXPECT_FALSE(tcp->IsOpen());
}

TEST_F(TcpTest, EchoOverIPv4) { RunEcho(false); }

TEST_F(TcpTest, EchoOverIPv6) { RunEcho(true); }

TEST_F(TcpTest, RefusedConnectionReportsTheErrorAndTheDestination) {
  unsigned short port = zstest::RefusedPort();
  ASSERT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", port), Ctx(5)), 0);
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kConnect, 1));
  TcpEvent e = sink->Of(TcpEvent::kConnect)[0];
  EXPECT_EQ(e.status, UV_ECONNREFUSED);
  EXPECT_EQ(e.port, port);
  EXPECT_EQ(e.ctx, Ctx(5));
  EXPECT_TRUE(tcp->IsOpen());  // the implicit open stays
}

TEST_F(TcpTest, RefusalsBeforeTheHopAreResultsOnly) {
  zstest::LogRecorder log;
  EXPECT_EQ(tcp->Connect(IPEndPoint("127.0.0.1", 0), Ctx(1)), -1);
  EXPECT_EQ(tcp->Connect(IPEndPoint(), Ctx(1)), -1);
  EXPECT_EQ(tcp->Send(nullptr, Ctx(1)), -1);
  EXPECT_EQ(tcp->Send(MakeBuffer(), Ctx(1)), -1);
  EXPECT_EQ(log.Count("TcpImpl::Send, buffer is empty"), 2);
  EXPECT_EQ(tcp->Recv(nullptr, Ctx(1)), -1);
  EXPECT_EQ(log.Count("TcpImpl::Recv, buffer is NULL."), 1);
  EXPECT_EQ(tcp->Recv(MakeBuffer(), Ctx(1)), -1);  // closed
  EXPECT_EQ(log.Count("TcpImpl::Recv, IsOpen false."), 1);
  EXPECT_FALSE(tcp->IsOpen());  // none of these opened the socket

  IPEndPoint a("1.2.3.4", 5), b("1.2.3.4", 5);
  EXPECT_EQ(tcp->GetLocalAddress(a), -1);
  EXPECT_EQ(tcp->GetRemoteAddress(b), -1);
  EXPECT_FALSE(a.IsValid() || b.IsValid());
  EXPECT_EQ(tcp->Accept(IPEndPoint("127.0.0.1", 1), Ctx(1)), 0);
  EXPECT_EQ(tcp->SetSendBufferSize(65536), -1);
  EXPECT_EQ(tcp->SetRecvBufferSize(65536), -1);
  EXPECT_EQ(tcp->Close(), 0);  // closed already
  EXPECT_FALSE(CreateTcp(static_cast<ITcp**>(nullptr), nullptr));

  EXPECT_EQ(tcp->Open(IPEndPoint("127.0.0.1", 0)), 0);
  IPEndPoint local;
  ASSERT_EQ(tcp->GetLocalAddress(local), 0);
  EXPECT_EQ(tcp->Open(IPEndPoint("127.0.0.1", 0)), -1);  // kept as it was
  IPEndPoint again;
  ASSERT_EQ(tcp->GetLocalAddress(again), 0);
  EXPECT_EQ(again.GetPort(), local.GetPort());
  // Not connected: the remote address is libuv's error.
  EXPECT_LT(tcp->GetRemoteAddress(again), 0);
  zstest::Drain(loop);
  EXPECT_TRUE(sink->Total() == 0);

  // An unset bind address fails in libuv; the socket stays closed.
  EXPECT_EQ(tcp->Close(), 0);
  EXPECT_LT(tcp->Open(IPEndPoint()), 0);
  EXPECT_FALSE(tcp->IsOpen());
  EXPECT_EQ(log.CountPrefix("Open, uv_tcp_bind fail, err="), 1);
}

TEST_F(TcpTest, NotConnectedSocketReportsLibuvErrorsThroughTheSink) {
  zstest::LogRecorder log;
  // Send opens the socket implicitly but does not connect it.
  ASSERT_EQ(tcp->Send(MakeBuffer("hello"), Ctx(1)), 0);
  EXPECT_TRUE(tcp->IsOpen());
  // One buffer over the limit is dropped even with nothing queued.
  ASSERT_EQ(tcp->Send(MakeBuffer(std::string(1048577, 'z')), Ctx(3)), 0);
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kSend, 2));
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(2)), 0);
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kRecv, 1));
  zstest::Drain(loop);
  std::vector<TcpEvent> sends = sink->Of(TcpEvent::kSend);
  ASSERT_EQ(sends.size(), 2u);  // each buffer exactly once, in either order
  if (sends[0].ctx != Ctx(1)) std::swap(sends[0], sends[1]);
  EXPECT_EQ(sends[0].ctx, Ctx(1));
  EXPECT_LT(sends[0].status, 0);
  EXPECT_NE(sends[0].status, -1);  // libuv's own error
  EXPECT_EQ(sends[1].ctx, Ctx(3));
  EXPECT_EQ(sends[1].status, -1);
  EXPECT_EQ(log.Count("TcpImpl::Send, buffer overflowed, drop data, queue-size=0, data-size=1048577"), 1);
  std::vector<TcpEvent> recvs = sink->Of(TcpEvent::kRecv);
  ASSERT_EQ(recvs.size(), 1u);
  EXPECT_LT(recvs[0].status, 0);
  EXPECT_EQ(recvs[0].ctx, Ctx(2));
}

TEST_F(TcpTest, SecondConnectWhileOneIsInProgressFailsAlone) {
  TcpPeer peer(false, 0, 0);
  ASSERT_TRUE(peer.Ok());
  ASSERT_TRUE(peer.FillBacklog());  // the first attempt stays in progress
  ASSERT_EQ(tcp->Connect(peer.EndPoint(), Ctx(1)), 0);
  ASSERT_EQ(tcp->Connect(peer.EndPoint(), Ctx(2)), 0);
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kConnect, 1));
  TcpEvent refused = sink->Of(TcpEvent::kConnect)[0];
  EXPECT_EQ(refused.status, -1);
  EXPECT_EQ(refused.ctx, Ctx(2));
  EXPECT_EQ(refused.port, 0);  // unset end point
  // Room in the backlog: the first attempt completes on its next SYN.
  ASSERT_TRUE(peer.Accept());
  ASSERT_TRUE(peer.Accept());
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kConnect, 2));
  TcpEvent connected = sink->Of(TcpEvent::kConnect)[1];
  EXPECT_EQ(connected.status, 0);
  EXPECT_EQ(connected.ctx, Ctx(1));
  EXPECT_EQ(connected.port, peer.Port());
}

// The queue takes up to 1 MiB including the new buffer; the write in flight is
// not counted; a dropped buffer disturbs nothing else.
TEST_F(TcpTest, SendQueueLimitCountsTheNewBufferAndDropsOnlyTheOverflow) {
  zstest::LogRecorder log;
  TcpPeer peer(false, 4096);
  ConnectTo(peer);
  ShrinkSendBuffer(peer);

  const int kMiB = 1048576;
  std::string inFlight(kMiB, 'a');  // exactly 1 MiB goes out on an idle socket
  std::string big(kMiB - 1, 'b');
  ASSERT_EQ(tcp->Send(MakeBuffer(inFlight), Ctx(1)), 0);
  ASSERT_EQ(tcp->Send(MakeBuffer(big), Ctx(2)), 0);
  ASSERT_EQ(tcp->Send(MakeBuffer("c"), Ctx(3)), 0);  // 1048576 queued: accepted
  ASSERT_EQ(tcp->Send(MakeBuffer("d"), Ctx(4)), 0);  // 1048577: dropped
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kSend, 1));
  zstest::Drain(loop);
  std::vector<TcpEvent> sends = sink->Of(TcpEvent::kSend);
  ASSERT_EQ(sends.size(), 1u);
  EXPECT_EQ(sends[0].status, -1);
  EXPECT_EQ(sends[0].ctx, Ctx(4));
  EXPECT_EQ(log.Count("TcpImpl::Send, buffer overflowed, drop data, queue-size=1048576, data-size=1"), 1);

  // The peer reads now: what was in flight and queued arrives whole and in order.
  std::string expected = inFlight + big + "c";
  std::string got = peer.Read(expected.size(), 20000);
  EXPECT_EQ(got.size(), expected.size());
  EXPECT_TRUE(got == expected);
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kSend, 4));
  sends = sink->Of(TcpEvent::kSend);
  ASSERT_EQ(sends.size(), 4u);
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(sends[i].status, 0);
    EXPECT_EQ(sends[i].ctx, Ctx(i));
  }
}

TEST_F(TcpTest, CloseSilencesEverythingAndTheSocketCanBeReopened) {
  TcpPeer peer(false, 4096);
  ConnectTo(peer);
  ShrinkSendBuffer(peer);
  // A pending write, queued buffers, a pending and a queued receive.
  ASSERT_EQ(tcp->Send(MakeBuffer(std::string(1048576, 'a')), Ctx(1)), 0);
  ASSERT_EQ(tcp->Send(MakeBuffer(std::string(1000000, 'b')), Ctx(2)), 0);
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(3)), 0);
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(4)), 0);
  zstest::Drain(loop);
  EXPECT_EQ(tcp->Close(), 0);
  EXPECT_FALSE(tcp->IsOpen());
  EXPECT_TRUE(peer.WaitEof());
  peer.Write("late");  // may fail: the connection is gone
  zstest::Drain(loop);
  EXPECT_EQ(sink->Total(), 1u);  // only OnConnect

  // Reopen on the same object: a new sink, and the full budget again.
  RefPtr<RecordingSink> second;
  second.Attach(new RecordingSink());
  tcp->SetSink(second);
  TcpPeer peer2;
  ASSERT_TRUE(peer2.Ok());
  ASSERT_EQ(tcp->Connect(peer2.EndPoint(), Ctx(5)), 0);
  ASSERT_TRUE(peer2.Accept());
  ASSERT_TRUE(second->WaitFor(TcpEvent::kConnect, 1));
  EXPECT_EQ(second->Of(TcpEvent::kConnect)[0].status, 0);
  ASSERT_EQ(tcp->Send(MakeBuffer(std::string(1048576, 'n')), Ctx(6)), 0);
  ASSERT_TRUE(second->WaitFor(TcpEvent::kSend, 1));
  EXPECT_EQ(second->Of(TcpEvent::kSend)[0].status, 0);
  EXPECT_EQ(peer2.Read(1048576, 20000).size(), 1048576u);
  EXPECT_EQ(sink->Total(), 1u);
}

TEST_F(TcpTest, CloseFromInsideOnSendAndOnRecvIsSafe) {
  TcpPeer peer;
  ConnectTo(peer);
  sink->SetHook([&](const TcpEvent& e) {
    if (e.kind == TcpEvent::kSend && e.ctx == Ctx(1)) tcp->Close();
  });
  // Queued from the loop thread, so that no report (and no Close) can come
  // between them and reopen the socket through the next Send.
  loop.SyncCall([&] {
    EXPECT_EQ(tcp->Send(MakeBuffer("one"), Ctx(1)), 0);
    EXPECT_EQ(tcp->Send(MakeBuffer("two"), Ctx(2)), 0);
    EXPECT_EQ(tcp->Send(MakeBuffer("three"), Ctx(3)), 0);
  });
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kSend, 1));
  zstest::Drain(loop);
  EXPECT_FALSE(tcp->IsOpen());
  EXPECT_EQ(sink->Count(TcpEvent::kSend), 1u);

  // Reconnect and close from inside the first of two receives.
  RefPtr<RecordingSink> second;
  second.Attach(new RecordingSink());
  second->SetHook([&](const TcpEvent& e) {
    if (e.kind == TcpEvent::kRecv) tcp->Close();
  });
  tcp->SetSink(second);
  TcpPeer peer2;
  ASSERT_EQ(tcp->Connect(peer2.EndPoint(), Ctx(4)), 0);
  ASSERT_TRUE(peer2.Accept());
  ASSERT_TRUE(second->WaitFor(TcpEvent::kConnect, 1));
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(5)), 0);
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(6)), 0);
  ASSERT_TRUE(peer2.Write("data"));
  ASSERT_TRUE(second->WaitFor(TcpEvent::kRecv, 1));
  ASSERT_TRUE(peer2.Write("more"));
  zstest::Drain(loop);
  std::vector<TcpEvent> recvs = second->Of(TcpEvent::kRecv);
  ASSERT_EQ(recvs.size(), 1u);
  EXPECT_EQ(recvs[0].data, "data");
  EXPECT_EQ(recvs[0].ctx, Ctx(5));
  EXPECT_FALSE(tcp->IsOpen());
  EXPECT_TRUE(peer2.WaitEof());
}

TEST_F(TcpTest, CancelRecvDropsQueuedReadsAndLaterReadsWork) {
  TcpPeer peer;
  ConnectTo(peer);
  EXPECT_EQ(tcp->CancelRecv(), 0);  // nothing pending
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(1)), 0);
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(2)), 0);
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(3)), 0);
  zstest::Drain(loop);
  EXPECT_EQ(tcp->CancelRecv(), 0);
  ASSERT_TRUE(peer.Write("after"));
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(4)), 0);
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kRecv, 1));
  zstest::Drain(loop);
  std::vector<TcpEvent> recvs = sink->Of(TcpEvent::kRecv);
  ASSERT_EQ(recvs.size(), 1u);
  EXPECT_EQ(recvs[0].ctx, Ctx(4));
  EXPECT_EQ(recvs[0].status, 0);
  EXPECT_EQ(recvs[0].data, "after");
}

// The socket survives a sink that drops the last reference inside a callback;
// released without Close, it closes its own handle (a leak would keep the loop
// from closing, which ASan reports).
TEST_F(TcpTest, SinkReleasingTheLastReferenceInsideCallbacks) {
  for (TcpEvent::Kind kind : {TcpEvent::kConnect, TcpEvent::kSend, TcpEvent::kRecv}) {
    TcpPeer peer;
    ASSERT_TRUE(peer.Ok());
    RefPtr<RecordingSink> s;
    s.Attach(new RecordingSink());
    ITcp* raw = nullptr;
    ASSERT_TRUE(CreateTcp(&raw, &loop));
    raw->SetSink(s);
    std::atomic<bool> released{false};
    s->SetHook([&, kind](const TcpEvent& e) {
      if (e.kind == kind && !released.exchange(true)) raw->Release();
    });
    ASSERT_EQ(raw->Connect(peer.EndPoint(), Ctx(1)), 0);
    ASSERT_TRUE(peer.Accept());
    if (kind != TcpEvent::kConnect) {
      ASSERT_TRUE(s->WaitFor(TcpEvent::kConnect, 1));
      if (kind == TcpEvent::kSend) {
        // From the loop thread: the first report must not release the socket
        // while this thread is still calling it.
        loop.SyncCall([&] {
          EXPECT_EQ(raw->Send(MakeBuffer("x"), Ctx(2)), 0);
          EXPECT_EQ(raw->Send(MakeBuffer("y"), Ctx(3)), 0);
        });
      } else {
        ASSERT_EQ(raw->Recv(MakeBuffer(), Ctx(2)), 0);
        ASSERT_EQ(raw->Recv(MakeBuffer(), Ctx(3)), 0);
        ASSERT_TRUE(peer.Write("z"));
      }
    }
    ASSERT_TRUE(zstest::WaitUntil([&] { return released.load(); })) << kind;
    zstest::Drain(loop);
    EXPECT_TRUE(peer.WaitEof()) << kind;  // the handle was closed
    EXPECT_EQ(s->Count(kind), 1u) << kind;
  }
}

TEST_F(TcpTest, ReleaseWithoutCloseFromAnotherThreadClosesTheHandle) {
  TcpPeer peer;
  ConnectTo(peer);
  ASSERT_EQ(tcp->Recv(MakeBuffer(), Ctx(1)), 0);
  ASSERT_EQ(tcp->Send(MakeBuffer("bye"), Ctx(2)), 0);
  ASSERT_TRUE(sink->WaitFor(TcpEvent::kSend, 1));
  tcp = nullptr;  // the test thread holds the last reference
  EXPECT_TRUE(peer.Read(3) == "bye");
  EXPECT_TRUE(peer.WaitEof());
  zstest::Drain(loop);
  EXPECT_EQ(sink->Count(TcpEvent::kRecv), 0u);
}

// A real HTTP server, which nobody here wrote, serving files from a temporary
// directory on 127.0.0.1.  The child is killed and reaped on every path.
class HttpServer {
 public:
  HttpServer() {
    char tmpl[] = "/tmp/zs_http_XXXXXX";
    if (mkdtemp(tmpl)) m_dir = tmpl;
    // A port found free is handed over; if another process takes it first, the
    // server exits and the next port is tried.
    for (int attempt = 0; attempt < 5 && !m_dir.empty() && m_port == 0; ++attempt) {
      unsigned short port = zstest::RefusedPort();
      std::string portText = std::to_string(port);
      const char* argv[] = {"python3", "-m", "http.server", portText.c_str(), "--bind", "127.0.0.1",
                            "--directory", m_dir.c_str(), nullptr};
      posix_spawn_file_actions_t quiet;
      posix_spawn_file_actions_init(&quiet);
      posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
      posix_spawn_file_actions_addopen(&quiet, 2, "/dev/null", O_WRONLY, 0);
      if (posix_spawnp(&m_pid, "python3", &quiet, nullptr, const_cast<char**>(argv), environ) != 0) m_pid = -1;
      posix_spawn_file_actions_destroy(&quiet);
      bool up = m_pid > 0 && zstest::WaitUntil([&] {
        if (::waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = -1;  // exited
        int s = ::socket(AF_INET, SOCK_STREAM, 0);
        IPEndPoint ep("127.0.0.1", port);
        bool ok = m_pid > 0 && ::connect(s, ep.GetSockAddr(), sizeof(sockaddr_in)) == 0;
        ::close(s);
        return ok || m_pid <= 0;
      }, std::chrono::milliseconds(15000));
      if (up && m_pid > 0) m_port = port;
      else Kill();
    }
  }
  ~HttpServer() {
    Kill();
    for (const std::string& f : m_files) std::remove((m_dir + "/" + f).c_str());
    if (!m_dir.empty()) ::rmdir(m_dir.c_str());
  }
  unsigned short Port() const { return m_port; }
  void AddFile(const std::string& name, const std::string& body) {
    std::ofstream(m_dir + "/" + name, std::ios::binary) << body;
    m_files.push_back(name);
  }

 private:
  void Kill() {
    if (m_pid > 0) ::kill(m_pid, SIGKILL), ::waitpid(m_pid, nullptr, 0);
    m_pid = -1;
  }
  std::string m_dir;
  std::vector<std::string> m_files;
  pid_t m_pid = -1;
  unsigned short m_port = 0;
};

std::string RandomBytes(std::size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::string out(n, '\0');
  for (char& c : out) c = static_cast<char>(gen() & 0xff);
  return out;
}

TEST_F(TcpTest, FetchesFilesFromARealHttpServer) {
  HttpServer server;
  ASSERT_NE(server.Port(), 0) << "python3 -m http.server did not start";
  const std::string small = RandomBytes(1500, 1);
  const std::string large = RandomBytes(10 * 1024 * 1024, 2);
  server.AddFile("small.bin", small);
  server.AddFile("large.bin", large);

  for (const auto& file : {std::make_pair(std::string("small.bin"), small), std::make_pair(std::string("large.bin"), large)}) {
    RefPtr<RecordingSink> s;
    s.Attach(new RecordingSink());
    RefPtr<ITcp> client;
    ASSERT_TRUE(CreateTcp(client, &loop));
    client->SetSink(s);
    // Reads are re-armed from inside each report until the server closes.
    std::string response;
    std::promise<int> done;
    s->SetHook([&](const TcpEvent& e) {
      if (e.kind != TcpEvent::kRecv) return;
      if (e.status != 0 || e.data.empty()) {
        done.set_value(e.status);
        return;
      }
      response += e.data;
      client->Recv(MakeBuffer(), nullptr);
    });
    ASSERT_EQ(client->Connect(IPEndPoint("127.0.0.1", server.Port()), nullptr), 0);
    ASSERT_TRUE(s->WaitFor(TcpEvent::kConnect, 1));
    ASSERT_EQ(s->Of(TcpEvent::kConnect)[0].status, 0);
    std::string request = "GET /" + file.first + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    ASSERT_EQ(client->Send(MakeBuffer(request), nullptr), 0);
    ASSERT_EQ(client->Recv(MakeBuffer(), nullptr), 0);
    std::future<int> result = done.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    EXPECT_EQ(result.get(), 0);
    client->Close();
    std::size_t headerEnd = response.find("\r\n\r\n");
    ASSERT_NE(headerEnd, std::string::npos);
    EXPECT_NE(response.substr(0, headerEnd).find(" 200 "), std::string::npos) << response.substr(0, headerEnd);
    std::string body = response.substr(headerEnd + 4);
    EXPECT_EQ(body.size(), file.second.size());
    EXPECT_TRUE(body == file.second) << file.first;
    ASSERT_EQ(s->Count(TcpEvent::kSend), 1u);
    EXPECT_EQ(s->Of(TcpEvent::kSend)[0].status, 0);
  }
}

TEST(UvTcpTest, OwnsWhatItCreatesAndBorrowsWhatItIsGiven) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  {
    zelsocket::UvTcp owner(&loop);
    ASSERT_NE(static_cast<ITcp*>(owner), nullptr);
    EXPECT_EQ(owner.Open(IPEndPoint("127.0.0.1", 0)), 0);
    zelsocket::UvTcp borrower;
    EXPECT_EQ(static_cast<ITcp*>(borrower), nullptr);
    borrower = owner;
    EXPECT_TRUE(borrower.IsOpen());
    IPEndPoint a, b;
    EXPECT_EQ(owner.GetLocalAddress(a), 0);
    EXPECT_EQ(borrower.GetLocalAddress(b), 0);
    EXPECT_EQ(a.GetPort(), b.GetPort());
    EXPECT_EQ(borrower.SetSendBufferSize(1), -1);
    EXPECT_EQ(borrower.Accept(a, nullptr), 0);
  }  // the owner releases its socket (and closes its handle); the borrower nothing
  EXPECT_EQ(loop.Stop(), 0);
}

}  // namespace
