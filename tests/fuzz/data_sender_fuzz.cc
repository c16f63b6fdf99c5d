// Drives the data sender with a byte string of operations (packets, cancels, clock ticks, forced timeouts, pause
// and resume, a changing destination, a refusing socket, a sink that calls back in) against a reference model.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <vector>

#include "channel/data_sender.h"
#include "zelsocket/buffer.h"
#include "zelsocket/channel_option.h"
#include "zelsocket/io_loop.h"
#include "zelsocket/log.h"

using namespace zelsocket;

namespace {

std::uint64_t g_now = 0;
std::uint64_t FakeTick() { return g_now; }
std::int64_t FakeWallClock() { return static_cast<std::int64_t>(g_now / 1000); }

#define CHECK(cond) \
  ((cond) ? (void)0 : (std::fprintf(stderr, "check failed: %s (line %d)\n", #cond, __LINE__), std::abort()))

struct ModelPacket {
  std::vector<int> intervals;
  int retry = 0;
  std::uint64_t due = 0;
  int calls = 0;               // SendData calls expected so far
  int seen = 0, accepted = 0;  // SendData calls made, and those the socket took
  unsigned short port = 0;     // the destination it keeps once it has one; 0: none yet
  bool ended = false;
};

class Harness : public DataSender, public IDataSenderSink {
 public:
  explicit Harness(IOLoop* loop) : DataSender(loop, FakeTick, FakeWallClock) { m_sink = this; }

  int SendData(Packet* packet) override {
    auto it = model.find(packet->cookie);
    CHECK(it != model.end() && !it->second.ended);     // never a transmission after the end
    CHECK(packet->dest.GetPort() == it->second.port);  // a later destination is not its own
    ++it->second.seen;
    return refuse ? -1 : (++it->second.accepted, 0);
  }

  void OnPacketTimeout(unsigned int cookie, int retry, int send) override {
    auto it = model.find(cookie);
    CHECK(it != model.end() && !it->second.ended && send == it->second.accepted);
    // Forced: where it stands; else the model must agree that its schedule ran out.
    CHECK(forcing ? retry == it->second.retry
                  : expiring.count(cookie) == 1 && retry == static_cast<int>(it->second.intervals.size()));
    it->second.ended = true;
    ++timeouts;
    if (cancelAllOnNextTimeout) {
      cancelAllOnNextTimeout = false;
      for (auto& [c, other] : model) other.ended = true;  // the rest go silently
      CancelAllPackets();
    }
  }

  // The transmission a pass or a resume makes, as the model sees it.
  void ModelSendOnce(ModelPacket& p) {
    if (!m_paused && m_dest.IsValid()) {
      if (p.port == 0) p.port = m_dest.GetPort();
      ++p.calls;
    }
    p.due = g_now + static_cast<std::uint64_t>(static_cast<std::int64_t>(p.intervals[p.retry]));
  }

  // Advances every live packet through the pass at g_now; those whose schedule
  // runs out are left in `expiring` for the sender to report.
  void ModelPass() {
    expiring.clear();
    for (auto& [cookie, p] : model)
      while (!p.ended && p.due <= g_now && !expiring.count(cookie))
        ++p.retry < static_cast<int>(p.intervals.size()) ? ModelSendOnce(p) : (void)expiring.insert(cookie);
  }

  bool Live(unsigned cookie) { return model.count(cookie) && !model[cookie].ended; }
  std::map<unsigned, ModelPacket> model;
  std::set<unsigned> expiring;
  bool refuse = false, forcing = false, cancelAllOnNextTimeout = false;
  int timeouts = 0;
};

void Run(const std::uint8_t* data, std::size_t size) {
  g_now = 1000000;
  std::size_t at = 0;
  auto next = [&]() -> std::uint8_t { return at < size ? data[at++] : 0; };
  Harness sender(IOLoop::CurrentLoop());
  Buffer payload;
  payload.CopyFrom("x", 1);

  while (at < size) {
    switch (next() % 10) {
      case 0: {  // a packet with a schedule of 0 to 4 intervals
        unsigned cookie = next() % 16 + 1;
        int count = next() % 5;
        ChannelSendOption option;
        option.SetPacketPerSend(1);
        ModelPacket p;
        p.port = sender.m_dest.GetPort();
        for (int i = 0; i < count; ++i) p.intervals.push_back(next() * 4), option.AddSendInterval(p.intervals.back());
        bool expectOk = !sender.Live(cookie) && count > 0;
        if (expectOk) sender.model[cookie] = p;  // known before the call, which transmits at once
        CHECK(sender.SendPacket(payload, option, cookie, g_now) == expectOk);
        if (expectOk) sender.ModelSendOnce(sender.model[cookie]);
        break;
      }
      case 1: {
        unsigned cookie = next() % 16 + 1;
        int send = -1, retry = -1, live = sender.Live(cookie);
        CHECK(sender.CancelPacket(cookie, &send, &retry) == live);
        CHECK(live ? send == sender.model[cookie].accepted && retry == sender.model[cookie].retry
                   : send == 0 && retry == 0);
        if (live) sender.model[cookie].ended = true;
        break;
      }
      case 2: {  // time passes; the pass repeats as the posted pass would, until quiet
        g_now += next() * 8u;
        sender.ModelPass();
        for (int guard = 0, before = -1; guard <= 17 && before != sender.timeouts; ++guard)  // 16 cookies at most
          before = sender.timeouts, sender.RunPassForTesting();
        for (unsigned cookie : sender.expiring) CHECK(sender.model[cookie].ended);
        break;
      }
      case 3:
        sender.forcing = true, sender.ForceAllPacketsTimeout(), sender.forcing = false;
        for (auto& [cookie, p] : sender.model) CHECK(p.ended);
        break;
      case 4:
        for (auto& [cookie, p] : sender.model) p.ended = true;
        sender.CancelAllPackets();
        break;
      case 5: sender.m_paused = true; break;
      case 6:
        if (!sender.m_paused) break;
        sender.m_paused = false;
        for (auto& [cookie, p] : sender.model)
          if (!p.ended) sender.ModelSendOnce(p);
        sender._ResendAllPacketsWhenResumeFromPause();
        break;
      case 7:  // none (port 0 is no destination), or one of two ports
        sender.m_dest = IPEndPoint("127.0.0.1", static_cast<unsigned short>(next() % 3 * 9));
        break;
      case 8: sender.refuse = !sender.refuse; break;
      default: sender.cancelAllOnNextTimeout = true; break;
    }
    // Exact for live packets; one that a sink's cancel-all ended half way through
    // a pass may have missed transmissions the model counted.
    std::size_t live = 0;
    for (auto& [cookie, p] : sender.model) {
      CHECK(p.ended ? p.seen <= p.calls : p.seen == p.calls);
      live += !p.ended;
    }
    CHECK(sender.PacketCount() == live);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The whole input runs on the loop thread in one call, so that neither the sender's timer nor
  // its posted pass can interleave with it.
  static IOLoop* loop = (SetLogCallback([](LOG_LEVEL, const char*, const char*) {}), IOLoop::DefaultLoop());
  loop->SyncCall([data, size] { Run(data, size); });
  // Runs the passes it posted: freed during the next input, they would look like a leak to libFuzzer.
  loop->SyncCall([] {});
  return 0;
}
