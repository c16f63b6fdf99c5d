// TCP receives delivered from the read callback, with reading left on between
// receives: each receive once and in order, bytes that come with no receive
// armed kept for the next one, end of stream as an empty read, cancelling, and
// sinks that close or release the socket inside OnRecv.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/buffer.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/tcp.h"

using namespace zelsocket;

namespace {

// One accepted connection on 127.0.0.1, written to and closed by the test.
class Peer {
 public:
  Peer() : m_listen(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    m_ok = ::bind(m_listen, reinterpret_cast<sockaddr*>(&a), len) == 0 && ::listen(m_listen, 1) == 0 &&
           ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) == 0;
    m_port = ntohs(a.sin_port);
  }
  ~Peer() {
    if (m_conn >= 0) ::close(m_conn);
    ::close(m_listen);
  }
  IPEndPoint EndPoint() const { return IPEndPoint("127.0.0.1", m_port); }
  bool Accept() {
    pollfd p{m_listen, POLLIN, 0};
    if (!m_ok || ::poll(&p, 1, 5000) != 1) return false;
    m_conn = ::accept(m_listen, nullptr, nullptr);
    return m_conn >= 0;
  }
  bool Write(const std::string& s) {
    return ::send(m_conn, s.data(), s.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(s.size());
  }
  void Close() {
    ::close(m_conn);
    m_conn = -1;
  }

 private:
  int m_listen;
  int m_conn = -1;
  bool m_ok = false;
  unsigned short m_port = 0;
};

struct Delivery {
  int status;
  std::string data;
  void* ctx;
  bool onLoopThread;
};

class Sink : public RefCountBase, public ITcpSink {
 public:
  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }
  void OnConnect(int status, const IPEndPoint&, void*) override { connected.set_value(status); }
  void OnSend(int, IConstBuffer*, void*) override {}
  void OnRecv(int status, IMutableBuffer* buffer, void* ctx) override {
    {
      std::lock_guard<std::mutex> lock(mutex);
      got.push_back(Delivery{status, std::string(reinterpret_cast<const char*>(buffer->GetBuf()),
                                                 static_cast<std::size_t>(buffer->GetLength())),
                             ctx, loop && loop->IsLoopThread()});
    }
    if (onRecv) onRecv(status, buffer);
  }
  std::size_t Count() {
    std::lock_guard<std::mutex> lock(mutex);
    return got.size();
  }
  std::vector<Delivery> Got() {
    std::lock_guard<std::mutex> lock(mutex);
    return got;
  }
  std::promise<int> connected;
  IOLoop* loop = nullptr;
  std::function<void(int, IMutableBuffer*)> onRecv;  // on the loop thread
  std::mutex mutex;
  std::vector<Delivery> got;
};

void* Ctx(int n) { return reinterpret_cast<void*>(static_cast<std::intptr_t>(n)); }

RefPtr<IMutableBuffer> NewBuffer() {
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  return b;
}

class TcpReceive : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    sink.Attach(new Sink());
    sink->loop = &loop;
    ASSERT_TRUE(CreateTcp(tcp, &loop));
    tcp->SetSink(sink);
    auto connected = sink->connected.get_future();
    ASSERT_EQ(tcp->Connect(peer.EndPoint(), nullptr), 0);
    ASSERT_TRUE(peer.Accept());
    ASSERT_EQ(connected.get(), 0);
  }
  void TearDown() override {
    if (tcp) tcp->Close();
    tcp = nullptr;
    loop.Stop();
  }
  // Lets the loop go round a few times: bytes that came are read by then.
  void Settle() {
    for (int i = 0; i < 3; ++i) loop.SyncCall([] {});
  }
  bool WaitFor(std::size_t n) {
    return zstest::WaitUntil([&] { return sink->Count() >= n; });
  }

  IOLoop loop;
  Peer peer;
  RefPtr<Sink> sink;
  RefPtr<ITcp> tcp;
};

TEST_F(TcpReceive, QueuedReceivesAreServedOnceInOrderAndBytesWithoutOneWaitForTheNext) {
  ASSERT_EQ(tcp->Recv(NewBuffer(), Ctx(1)), 0);
  ASSERT_EQ(tcp->Recv(NewBuffer(), Ctx(2)), 0);
  ASSERT_TRUE(peer.Write("first"));
  ASSERT_TRUE(WaitFor(1));
  ASSERT_TRUE(peer.Write("second"));
  ASSERT_TRUE(WaitFor(2));
  // Nothing is armed now: these bytes stay with the system, not lost and not
  // delivered to anyone.
  ASSERT_TRUE(peer.Write("third"));
  Settle();
  EXPECT_EQ(sink->Count(), 2u);
  ASSERT_EQ(tcp->Recv(NewBuffer(), Ctx(3)), 0);
  ASSERT_TRUE(WaitFor(3));
  // End of stream is an empty read, and stays one for every later receive.
  peer.Close();
  ASSERT_EQ(tcp->Recv(NewBuffer(), Ctx(4)), 0);
  ASSERT_TRUE(WaitFor(4));
  ASSERT_EQ(tcp->Recv(NewBuffer(), Ctx(5)), 0);
  ASSERT_TRUE(WaitFor(5));
  Settle();
  std::vector<Delivery> got = sink->Got();
  ASSERT_EQ(got.size(), 5u);
  const std::vector<std::string> data = {"first", "second", "third", "", ""};
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].ctx, Ctx(static_cast<int>(i) + 1)) << i;
    EXPECT_EQ(got[i].status, 0) << i;
    EXPECT_EQ(got[i].data, data[i]) << i;
    EXPECT_TRUE(got[i].onLoopThread) << i;
  }
}

TEST_F(TcpReceive, AReceiveArmedInsideOnRecvTakesTheNextBytes) {
  constexpr int kMessages = 50;
  std::atomic<int> answered{0};
  RefPtr<IMutableBuffer> in = NewBuffer();
  sink->onRecv = [&](int status, IMutableBuffer*) {
    if (status == 0 && answered.fetch_add(1) + 1 < kMessages) tcp->Recv(in, Ctx(7));
  };
  ASSERT_EQ(tcp->Recv(in, Ctx(7)), 0);
  for (int i = 0; i < kMessages; ++i) {
    ASSERT_TRUE(peer.Write("m" + std::to_string(i)));
    ASSERT_TRUE(zstest::WaitUntil([&] { return answered.load() > i; })) << i;
  }
  Settle();
  std::vector<Delivery> got = sink->Got();
  ASSERT_EQ(got.size(), static_cast<std::size_t>(kMessages));
  for (int i = 0; i < kMessages; ++i) EXPECT_EQ(got[static_cast<std::size_t>(i)].data, "m" + std::to_string(i));
}

TEST_F(TcpReceive, CancelRecvDropsArmedAndQueuedReceivesAndTheNextOneGetsTheBytes) {
  ASSERT_EQ(tcp->Recv(NewBuffer(), Ctx(1)), 0);
  ASSERT_EQ(tcp->Recv(NewBuffer(), Ctx(2)), 0);
  ASSERT_EQ(tcp->CancelRecv(), 0);
  ASSERT_TRUE(peer.Write("after"));
  Settle();
  EXPECT_EQ(sink->Count(), 0u);
  ASSERT_EQ(tcp->Recv(NewBuffer(), Ctx(3)), 0);
  ASSERT_TRUE(WaitFor(1));
  Settle();
  std::vector<Delivery> got = sink->Got();
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].ctx, Ctx(3));
  EXPECT_EQ(got[0].data, "after");
}

// The delivery runs inside libuv's read callback: closing the socket, or
// letting its last reference go, must be safe there, with receives still queued.
enum class InsideOnRecv { kClose, kRelease, kCancelRecv };

class TcpReceiveInside : public TcpReceive, public ::testing::WithParamInterface<InsideOnRecv> {};

TEST_P(TcpReceiveInside, TheSinkMayEndTheSocketFromOnRecv) {
  std::atomic<int> calls{0};
  ITcp* raw = tcp;
  sink->onRecv = [&, raw](int, IMutableBuffer*) {
    if (calls.fetch_add(1) != 0) return;
    switch (GetParam()) {
      case InsideOnRecv::kClose: raw->Close(); break;
      case InsideOnRecv::kRelease: raw->Release(); break;
      case InsideOnRecv::kCancelRecv: raw->CancelRecv(); break;
    }
  };
  // The test's reference becomes the sink's, and its Release the last one.
  if (GetParam() == InsideOnRecv::kRelease) tcp.Detach();
  ASSERT_EQ(raw->Recv(NewBuffer(), Ctx(1)), 0);
  ASSERT_EQ(raw->Recv(NewBuffer(), Ctx(2)), 0);
  // Exactly the size libuv asks for, so that libuv would go on reading into the
  // next receive within the same callback if the sink did not stop it.
  ASSERT_TRUE(peer.Write(std::string(65536, 'x') + "tail"));
  ASSERT_TRUE(WaitFor(1));
  Settle();
  EXPECT_EQ(calls.load(), 1);  // the second receive never came
  EXPECT_EQ(sink->Got()[0].ctx, Ctx(1));
  EXPECT_EQ(sink->Got()[0].status, 0);
}

INSTANTIATE_TEST_SUITE_P(Ends, TcpReceiveInside,
                         ::testing::Values(InsideOnRecv::kClose, InsideOnRecv::kRelease, InsideOnRecv::kCancelRecv));

}  // namespace
