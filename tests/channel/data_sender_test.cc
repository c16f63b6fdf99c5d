// The retransmission engine on a real loop.  The fuzz target checks every
// packet's counts against a model; these cases check what it does not see:
// the timeline and log line of the default schedule, the order of a resume,
// the posted pass after a timeout, and the real timer.
#include "channel/data_sender.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/sync.h"

namespace zelsocket {
namespace {

std::atomic<std::uint64_t> g_tick{1000000};
std::atomic<std::int64_t> g_wall{1700000000};
std::uint64_t FakeTick() { return g_tick.load(); }
std::int64_t FakeWall() { return g_wall.load(); }

using Timeout = std::tuple<unsigned, int, int>;  // cookie, retry, send

// Records what the sender transmits and reports; `hook` lets a report call back in.
class Sender : public DataSender, public IDataSenderSink {
 public:
  Sender(IOLoop* loop, TickSource tick, WallClockSource wall) : DataSender(loop, tick, wall) { m_sink = this; }
  int SendData(Packet* packet) override {
    sent.push_back(packet->cookie);
    return 0;
  }
  void OnPacketTimeout(unsigned int cookie, int retry, int send) override {
    timeouts.emplace_back(cookie, retry, send);
    if (hook) hook(cookie);
  }
  std::vector<unsigned> sent;
  std::vector<Timeout> timeouts;
  std::function<void(unsigned)> hook;
};

RefPtr<IChannelSendOption> Schedule(std::vector<int> intervals) {
  RefPtr<IChannelSendOption> o;
  CreateChannelSendOption(o);
  for (int i : intervals) o->AddSendInterval(i);
  return o;
}

// Driven by a fake clock: the sender's own timer keeps running but finds
// nothing due until a test moves the clock and runs a pass itself.
class DataSenderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(loop.Start(), 0);
    sender.reset(new Sender(&loop, &FakeTick, &FakeWall));
    sender->m_dest = IPEndPoint("127.0.0.1", 4000);
    sender->m_paused = false;
    payload->CopyFrom("req", 3);
  }
  void TearDown() override {
    OnLoop([this] { sender.reset(); });
    EXPECT_EQ(loop.Stop(), 0);
  }
  void OnLoop(const std::function<void()>& fn) { ASSERT_EQ(loop.SyncCall(fn), 0); }
  void AdvanceAndPass(int ms) {
    g_tick += static_cast<std::uint64_t>(ms);
    OnLoop([this] { sender->RunPassForTesting(); });
    OnLoop([] {});  // and the pass that one may have posted
  }
  bool Send(unsigned cookie, IChannelSendOption* option, std::uint64_t requestTick = FakeTick()) {
    bool ok = false;
    OnLoop([&] { ok = sender->SendPacket(payload, option, cookie, requestTick); });
    return ok;
  }

  zstest::LogRecorder log;
  IOLoop loop;
  std::unique_ptr<Sender> sender;
  RefPtr<IMutableBuffer> payload = [] {
    RefPtr<IMutableBuffer> b;
    CreateBuffer(b);
    return b;
  }();
};

TEST_F(DataSenderTest, DefaultScheduleSendsAt0And3And8SecondsAndTimesOutAt15) {
  RefPtr<IChannelSendOption> udp = Schedule({});
  udp->SetDefaultForUdp();
  ASSERT_TRUE(Send(7, udp, FakeTick() - 5));  // requested 5 ms before it was made
  // Milliseconds to move on, the wall clock's seconds with them, transmissions by then.
  for (auto [ms, seconds, transmissions] :
       std::vector<std::tuple<int, int, size_t>>{{2999, 3, 1}, {1, 0, 2}, {4999, 5, 2}, {1, 0, 3}, {6999, 7, 3}}) {
    g_wall += seconds;
    AdvanceAndPass(ms);
    EXPECT_EQ(sender->sent.size(), transmissions) << "after " << ms << " ms more";
  }
  EXPECT_TRUE(sender->timeouts.empty());
  AdvanceAndPass(1);
  EXPECT_EQ(sender->timeouts, (std::vector<Timeout>{{7, 3, 3}}));

  // The line that records how the packet ended: delays in ms, send times in
  // whole seconds after its creation.
  int found = 0;
  for (const auto& line : log.Lines()) {
    if (line.message.rfind("timeout, cookie=7, ", 0) != 0) continue;
    ++found;
    EXPECT_EQ(line.level, LOG_LEVEL_INFO);
    EXPECT_EQ(line.tag, "data_sender");
    EXPECT_NE(line.message.find("retry=3, send=3, send-count=3, send-delay=5, recv-delay=15000, total-delay=15005, "
                                "send-time="),
              std::string::npos)
        << line.message;
    EXPECT_EQ(line.message.substr(line.message.size() - 6), ",0,3,8") << line.message;
  }
  EXPECT_EQ(found, 1);
  // Nothing scheduled: the timer is not armed again.
  EXPECT_TRUE(zstest::WaitUntil([&] {
    bool running = true;
    OnLoop([&] { running = sender->IsTimerRunning() || sender->ScheduleSize() != 0; });
    return !running;
  }));
}

TEST_F(DataSenderTest, ASecondExpiryComesFromThePassPostedByTheFirst) {
  RefPtr<IChannelSendOption> o = Schedule({100});
  ASSERT_TRUE(Send(1, o));
  ASSERT_TRUE(Send(2, o));
  g_tick += 100;
  size_t inPass = 0;
  OnLoop([&] {
    sender->RunPassForTesting();
    inPass = sender->timeouts.size();
  });
  EXPECT_EQ(inPass, 1u);
  // The posted pass precedes this later call in the loop's one call queue.
  size_t next = 0;
  OnLoop([&] { next = sender->timeouts.size(); });
  EXPECT_EQ(next, 2u);
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
  AdvanceAndPass(100);  // packet 2 uses up its first interval while paused: due again at 400
  g_tick += 50;
  OnLoop([&] {
    sender->m_paused = false;
    sender->_ResendAllPacketsWhenResumeFromPause();
  });
  EXPECT_EQ(sender->sent, (std::vector<unsigned>{1, 2}));  // due 300, then due 400
  AdvanceAndPass(299);                                     // the running interval restarts from the resume
  EXPECT_EQ(sender->sent.size(), 2u);
  AdvanceAndPass(1);
  EXPECT_EQ(sender->sent, (std::vector<unsigned>{1, 2, 1}));
  EXPECT_EQ(sender->timeouts, (std::vector<Timeout>{{2, 2, 1}}));
  bool ok = true;
  OnLoop([&] { ok = sender->SendPacket(nullptr, slow, 8, 0) || sender->SendPacket(payload, nullptr, 9, 0); });
  EXPECT_FALSE(ok);
  OnLoop([&] { sender.reset(); });  // packet 1 is still live: dropped without a report
  EXPECT_EQ(log.CountPrefix("cancel, cookie=1,"), 1);
}

// The real clock and timer, on a loop that is not the creating thread's.
TEST(DataSenderRealClock, TheTimerOfTheGivenLoopDrivesTheSchedule) {
  IOLoop loop;
  ASSERT_EQ(loop.Start(), 0);
  auto sender = std::make_unique<Sender>(&loop, nullptr, nullptr);
  std::atomic<bool> onLoopThread{false};
  Semaphore done;
  sender->hook = [&](unsigned) {
    onLoopThread = loop.IsLoopThread();
    done.Post();
  };
  sender->m_dest = IPEndPoint("127.0.0.1", 4000);
  sender->m_paused = false;
  RefPtr<IChannelSendOption> o = Schedule({30, 30});
  RefPtr<IMutableBuffer> b;
  CreateBuffer(b);
  ASSERT_EQ(loop.SyncCall([&] { sender->SendPacket(b, o, 1, 0); }), 0);
  done.Wait();
  EXPECT_TRUE(onLoopThread);
  ASSERT_EQ(loop.SyncCall([&] {
    EXPECT_EQ(sender->sent.size(), 2u);
    EXPECT_EQ(std::get<1>(sender->timeouts.at(0)), 2);
    sender.reset();
  }),
            0);
  EXPECT_EQ(loop.Stop(), 0);
}

}  // namespace
}  // namespace zelsocket
