#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "channel/channel_test_util.h"
#include "channel/fake_udp.h"
#include "channel/udp_data_sender.h"
#include "support/test_support.h"
#include "zelsocket/io_loop.h"

using namespace zelsocket;

namespace {

using zstest::Bytes;
using zstest::Schedule;

std::atomic<std::uint64_t> g_tick{1000000};
std::atomic<std::int64_t> g_wall{1700000000};

std::uint64_t FakeTick() { return g_tick.load(); }
std::int64_t FakeWall() { return g_wall.load(); }

struct Timeout {
  unsigned int cookie;
  int retry;
  int send;
};

class RecordingSink : public IDataSenderSink {
 public:
  void OnPacketTimeout(unsigned int cookie, int retry, int send) override {
    timeouts.push_back(Timeout{cookie, retry, send});
    if (hook) hook(cookie);
  }
  std::vector<Timeout> timeouts;
  std::function<void(unsigned int)> hook;
};

// A sender on a loop of its own, driven by a fake clock.  The sender's real
// timer keeps running too, but with the clock held still it finds nothing due;
// tests advance the clock and run a pass themselves.
class DataSenderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, loop.Start());
    sender.reset(new UdpDataSender(&loop, &FakeTick, &FakeWall));
    udp.Attach(new zstest::FakeUdp());
    sender->m_udp = RefPtr<IUdp>(udp.Get());
    sender->m_sink = &sink;
    sender->m_dest = IPEndPoint("127.0.0.1", 4000);
    sender->m_paused = false;
  }
  void TearDown() override {
    OnLoop([this] { sender.reset(); });
    EXPECT_EQ(0, loop.Stop());
  }
  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(0, loop.SyncCall(fn)); }
  void Advance(int ms) { g_tick += static_cast<std::uint64_t>(ms); }
  void Pass() {
    OnLoop([this] { sender->RunPassForTesting(); });
  }
  bool Send(unsigned int cookie, IChannelSendOption* option, const std::string& text = "req") {
    bool ok = false;
    RefPtr<IConstBuffer> b = Bytes(text);
    OnLoop([&] { ok = sender->SendPacket(b, option, cookie, FakeTick()); });
    return ok;
  }
  size_t Sent() {
    size_t n = 0;
    OnLoop([&] { n = udp->sent.size(); });
    return n;
  }

  zstest::LogRecorder log;
  IOLoop loop;
  std::unique_ptr<UdpDataSender> sender;
  RefPtr<zstest::FakeUdp> udp;
  RecordingSink sink;
};

TEST_F(DataSenderTest, RetransmitsOnScheduleThenTimesOutWithItsLogLine) {
  RefPtr<IChannelSendOption> o = Schedule({3000, 5000, 7000});
  g_wall = 1700000000;
  ASSERT_TRUE(Send(7, o));
  EXPECT_EQ(1u, Sent());
  EXPECT_EQ(reinterpret_cast<void*>(7), udp->sent[0].ctx);

  Advance(2999);
  g_wall += 3;
  Pass();
  EXPECT_EQ(1u, Sent());  // not due yet
  Advance(1);
  Pass();
  EXPECT_EQ(2u, Sent());
  Advance(5000);
  g_wall += 5;
  Pass();
  EXPECT_EQ(3u, Sent());
  Advance(6999);
  Pass();
  EXPECT_TRUE(sink.timeouts.empty());
  Advance(1);
  g_wall += 7;
  Pass();
  ASSERT_EQ(1u, sink.timeouts.size());
  EXPECT_EQ(7u, sink.timeouts[0].cookie);
  EXPECT_EQ(3, sink.timeouts[0].retry);
  EXPECT_EQ(3, sink.timeouts[0].send);
  EXPECT_EQ(3u, Sent());

  // Delays are tick differences: the packet was made at its request tick and
  // lived 15000 ms; the send times are whole seconds after creation.
  int found = 0;
  for (const auto& line : log.Lines()) {
    if (line.message.rfind("timeout, cookie=7,", 0) != 0) continue;
    ++found;
    EXPECT_EQ(LOG_LEVEL_INFO, line.level);
    EXPECT_EQ("data_sender", line.tag);
    EXPECT_NE(std::string::npos,
              line.message.find("retry=3, send=3, send-count=3, send-delay=0, recv-delay=15000, total-delay=15000, "
                                "send-time="))
        << line.message;
    EXPECT_NE(std::string::npos, line.message.find(",0,3,8")) << line.message;
    EXPECT_EQ(line.message.size() - 6, line.message.find(",0,3,8"));
  }
  EXPECT_EQ(1, found);
  bool timerStopped = false;
  OnLoop([&] { timerStopped = sender->ScheduleSize() == 0 && sender->PacketCount() == 0; });
  EXPECT_TRUE(timerStopped);
}

TEST_F(DataSenderTest, OneIntervalMeansOneTransmission) {
  RefPtr<IChannelSendOption> o = Schedule({50});
  ASSERT_TRUE(Send(1, o));
  Advance(50);
  Pass();
  ASSERT_EQ(1u, sink.timeouts.size());
  EXPECT_EQ(1, sink.timeouts[0].retry);
  EXPECT_EQ(1, sink.timeouts[0].send);
  EXPECT_EQ(1u, Sent());
}

TEST_F(DataSenderTest, CancelStopsRetransmissionAndLeavesAStaleEntry) {
  RefPtr<IChannelSendOption> o = Schedule({100, 100, 100});
  ASSERT_TRUE(Send(1, o));
  ASSERT_TRUE(Send(2, o));
  Advance(100);
  Pass();
  EXPECT_EQ(4u, Sent());
  int send = -1, retry = -1;
  bool ok = false;
  OnLoop([&] { ok = sender->CancelPacket(1, &send, &retry); });
  EXPECT_TRUE(ok);
  EXPECT_EQ(2, send);
  EXPECT_EQ(1, retry);
  size_t scheduled = 0;
  OnLoop([&] { scheduled = sender->ScheduleSize(); });
  EXPECT_EQ(2u, scheduled);  // the cancelled packet's entry stays until it surfaces

  // Unknown, already cancelled: false and zero counts.
  OnLoop([&] { ok = sender->CancelPacket(1, &send, &retry); });
  EXPECT_FALSE(ok);
  EXPECT_EQ(0, send);
  EXPECT_EQ(0, retry);
  EXPECT_EQ(1, log.Count("DataSender::CancelPacket, packet not found, cookie=1"));

  Advance(100);
  Pass();
  EXPECT_EQ(5u, Sent());  // only packet 2 again
  EXPECT_EQ(reinterpret_cast<void*>(2), udp->sent[4].ctx);
  OnLoop([&] { ok = sender->CancelPacket(2, &send, &retry); });
  Advance(1000);
  Pass();
  EXPECT_TRUE(sink.timeouts.empty());
  OnLoop([&] { scheduled = sender->ScheduleSize(); });
  EXPECT_EQ(0u, scheduled);
  // With nothing scheduled the timer is not re-armed.
  EXPECT_TRUE(zstest::WaitUntil([&] {
    bool running = true;
    OnLoop([&] { running = sender->IsTimerRunning(); });
    return !running;
  }));
  EXPECT_EQ(1, log.CountPrefix("recv, cookie=1, retry=1, send=2, send-count=3,"));
}

TEST_F(DataSenderTest, RefusesDuplicatesNullsAndEmptySchedules) {
  RefPtr<IChannelSendOption> o = Schedule({100, 100});
  ASSERT_TRUE(Send(5, o));
  Advance(60);
  EXPECT_FALSE(Send(5, o));
  EXPECT_EQ(1, log.Count("DataSender::SendPacket, same cookie found, cookie=5"));
  EXPECT_EQ(1u, Sent());
  Advance(40);
  Pass();  // the first packet's schedule is untouched: due at 100
  EXPECT_EQ(2u, Sent());

  RefPtr<IChannelSendOption> empty = Schedule({});
  EXPECT_FALSE(Send(6, empty));
  bool ok = true;
  OnLoop([&] { ok = sender->SendPacket(nullptr, o, 8, 0); });
  EXPECT_FALSE(ok);
  RefPtr<IConstBuffer> b = Bytes("x");
  OnLoop([&] { ok = sender->SendPacket(b, nullptr, 9, 0); });
  EXPECT_FALSE(ok);
  size_t count = 0;
  OnLoop([&] { count = sender->PacketCount(); });
  EXPECT_EQ(1u, count);
}

TEST_F(DataSenderTest, PausedOrWithoutDestNothingLeavesButTheScheduleRuns) {
  OnLoop([&] { sender->m_paused = true; });
  RefPtr<IChannelSendOption> o = Schedule({100, 100});
  ASSERT_TRUE(Send(1, o));
  Advance(100);
  Pass();
  Advance(100);
  Pass();
  ASSERT_EQ(1u, sink.timeouts.size());
  EXPECT_EQ(2, sink.timeouts[0].retry);
  EXPECT_EQ(0, sink.timeouts[0].send);
  EXPECT_EQ(0u, Sent());

  OnLoop([&] {
    sender->m_paused = false;
    sender->m_dest = IPEndPoint();
  });
  ASSERT_TRUE(Send(2, o));
  EXPECT_EQ(0u, Sent());
  // A refusing socket: the schedule goes on as if the datagram had left.
  OnLoop([&] {
    sender->m_dest = IPEndPoint("127.0.0.1", 4000);
    udp->sendResult = -1;
  });
  Advance(100);
  Pass();
  Advance(100);
  Pass();
  ASSERT_EQ(2u, sink.timeouts.size());
  EXPECT_EQ(0, sink.timeouts[1].send);
  EXPECT_EQ(2, sink.timeouts[1].retry);
}

TEST_F(DataSenderTest, ResumeSendsEachLivePacketOnceInDueOrder) {
  OnLoop([&] { sender->m_paused = true; });
  RefPtr<IChannelSendOption> slow = Schedule({300, 300});
  RefPtr<IChannelSendOption> fast = Schedule({100, 300});
  ASSERT_TRUE(Send(1, slow));
  ASSERT_TRUE(Send(2, fast));
  ASSERT_TRUE(Send(3, slow));
  int s, r;
  OnLoop([&] { sender->CancelPacket(3, &s, &r); });
  Advance(100);
  Pass();  // packet 2 uses up its first interval while paused: due again at 400
  Advance(50);
  OnLoop([&] {
    sender->m_paused = false;
    sender->_ResendAllPacketsWhenResumeFromPause();
  });
  ASSERT_EQ(2u, Sent());
  EXPECT_EQ(reinterpret_cast<void*>(1), udp->sent[0].ctx);  // due 300
  EXPECT_EQ(reinterpret_cast<void*>(2), udp->sent[1].ctx);  // due 400
  EXPECT_EQ(1, log.Count("DataSender::_ResendAllPacketsWhenResumeFromPause, queue-count=3, packet-count=2"));
  // retry is unchanged, and the running interval restarts from the resume.
  Advance(299);
  Pass();
  EXPECT_EQ(2u, Sent());
  EXPECT_TRUE(sink.timeouts.empty());
  Advance(1);
  Pass();
  EXPECT_EQ(3u, Sent());  // packet 1's second transmission
  ASSERT_EQ(1u, sink.timeouts.size());
  EXPECT_EQ(2u, sink.timeouts[0].cookie);
  EXPECT_EQ(1, sink.timeouts[0].send);
}

TEST_F(DataSenderTest, TwoExpiriesInOnePassAreReportedOnePerPass) {
  RefPtr<IChannelSendOption> o = Schedule({100});
  ASSERT_TRUE(Send(1, o));
  ASSERT_TRUE(Send(2, o));
  Advance(100);
  size_t inPass = 0;
  OnLoop([&] {
    sender->RunPassForTesting();
    inPass = sink.timeouts.size();
  });
  EXPECT_EQ(1u, inPass);
  // The second comes from the pass posted by the first, which the loop's one
  // call queue runs before this later call: no tick is waited for.
  size_t next = 0;
  OnLoop([&] { next = sink.timeouts.size(); });
  EXPECT_EQ(2u, next);
}

TEST_F(DataSenderTest, ForcedBatchCanBeCutShortAndIgnoresNewPackets) {
  RefPtr<IChannelSendOption> o = Schedule({1000});
  for (unsigned int c = 1; c <= 4; ++c) ASSERT_TRUE(Send(c, o));
  RefPtr<IConstBuffer> b = Bytes("new");
  bool sentFromSink = false;
  sink.hook = [&](unsigned int cookie) {
    if (cookie == 1) sentFromSink = sender->SendPacket(b, o, 10, FakeTick());
    if (cookie == 2) sender->CancelAllPackets();
  };
  bool found = true;
  OnLoop([&] {
    sender->ForceAllPacketsTimeout();
    int s, r;
    found = sender->CancelPacket(3, &s, &r);
  });
  ASSERT_EQ(2u, sink.timeouts.size());
  EXPECT_EQ(1u, sink.timeouts[0].cookie);
  EXPECT_EQ(2u, sink.timeouts[1].cookie);
  EXPECT_TRUE(sentFromSink);
  EXPECT_FALSE(found);
  EXPECT_EQ(1, log.CountPrefix("cancel_timeout, cookie=3,"));
  EXPECT_EQ(1, log.CountPrefix("cancel_timeout, cookie=4,"));
  // Packet 10 was transmitted and then cancelled with the rest by CancelAll.
  EXPECT_EQ(5u, Sent());
  EXPECT_EQ(1, log.CountPrefix("cancel, cookie=10,"));

  // A packet sent from a plain timeout notification is scheduled normally.
  sink.hook = [&](unsigned int cookie) {
    if (cookie == 20) sender->SendPacket(b, o, 21, FakeTick());
  };
  ASSERT_TRUE(Send(20, o));
  Advance(1000);
  Pass();
  Advance(1000);
  Pass();
  ASSERT_EQ(4u, sink.timeouts.size());
  EXPECT_EQ(21u, sink.timeouts[3].cookie);
  EXPECT_EQ(1, sink.timeouts[3].send);
}

TEST_F(DataSenderTest, PendingPacketsKeepTheirDestination) {
  RefPtr<IChannelSendOption> o = Schedule({100, 100});
  ASSERT_TRUE(Send(1, o));
  OnLoop([&] { sender->m_dest = IPEndPoint("127.0.0.1", 5000); });
  ASSERT_TRUE(Send(2, o));
  Advance(100);
  Pass();
  ASSERT_EQ(4u, Sent());
  for (const auto& d : udp->sent) {
    unsigned short expected = d.ctx == reinterpret_cast<void*>(1) ? 4000 : 5000;
    EXPECT_EQ(expected, d.dest.GetPort());
  }
}

TEST_F(DataSenderTest, DestructionDropsEverythingSilently) {
  RefPtr<IChannelSendOption> o = Schedule({100});
  ASSERT_TRUE(Send(1, o));
  ASSERT_TRUE(Send(2, o));
  OnLoop([&] { sender.reset(); });
  EXPECT_TRUE(sink.timeouts.empty());
  EXPECT_EQ(1, log.Count("DataSender::CancelAllPackets, count=2"));
}

// The real clock and timer, on a loop that is not the creating thread's.
TEST(DataSenderRealClockTest, TimerRunsOnTheGivenLoop) {
  IOLoop loop;
  ASSERT_EQ(0, loop.Start());
  RecordingSink sink;
  std::atomic<int> done{0};
  std::atomic<bool> onLoopThread{false};
  sink.hook = [&](unsigned int) {
    onLoopThread = loop.IsLoopThread();
    ++done;
  };
  std::unique_ptr<UdpDataSender> sender(new UdpDataSender(&loop));
  sender->m_sink = &sink;
  RefPtr<IChannelSendOption> o = Schedule({30, 30});
  RefPtr<IConstBuffer> b = Bytes("x");
  ASSERT_EQ(0, loop.SyncCall([&] { sender->SendPacket(b, o, 1, 0); }));
  EXPECT_TRUE(zstest::WaitUntil([&] { return done.load() == 1; }));
  EXPECT_TRUE(onLoopThread);
  ASSERT_EQ(0, loop.SyncCall([&] {
    EXPECT_EQ(2, sink.timeouts.at(0).retry);
    sender.reset();
  }));
  EXPECT_EQ(0, loop.Stop());
}

}  // namespace
