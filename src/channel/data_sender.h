// Internal: the retransmission engine of a channel.
//
// Holds every accepted packet, transmits it at once and again each time the
// current interval of its schedule has passed, and tells its owner when the
// schedule has run out.  One one-shot Timer serves all packets: it is armed for
// the earliest live entry of the schedule (again when an earlier one appears),
// and runs only while something is scheduled.  Cancelling by cookie costs a map
// lookup: the packet's heap entry stays behind and is dropped when it reaches
// the top, or when the timer is armed and finds it there.
//
// The clock counts microseconds: a round trip on a LAN is a fraction of a
// millisecond, and a learning schedule's samples and waits (and the channel's
// answer latencies) would be mostly rounding in whole milliseconds.
//
// Everything runs on the thread of the loop given to the constructor; the timer
// and the posted pass are bound to that loop, so a sender made on any thread
// works.  Sink notifications run there too and may call back into the sender:
// records leave the maps before the call, and no position is held across it.
//
// A schedule without intervals cannot be scheduled; SendPacket refuses it.  A
// schedule changed under a pending packet (against the rules) so that the
// running interval is gone makes the packet time out on the next pass, instead
// of raising the out-of-range failure on the loop thread.
#ifndef ZELSOCKET_SRC_CHANNEL_DATA_SENDER_H
#define ZELSOCKET_SRC_CHANNEL_DATA_SENDER_H

#include <cstdint>
#include <map>
#include <vector>

#include "channel/latency_histogram.h"
#include "zelsocket/async.h"
#include "zelsocket/buffer.h"
#include "zelsocket/channel_option.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/timer.h"

namespace zelsocket {

class IOLoop;
class AdaptiveSendOptionImpl;

// Times are on the sender's clock (microseconds).
struct Packet {
  std::uint32_t cookie = 0;
  // When its latest transmission left, after createTick; UINT32_MAX when none
  // has, or too late to tell (71 minutes).
  std::uint32_t sentOffsetUs = UINT32_MAX;
  RefPtr<IConstBuffer> buffer;
  IPEndPoint dest;
  int retry = 0;  // intervals run out so far; index of the running interval
  int send = 0;   // transmissions the socket accepted
  RefPtr<IChannelSendOption> option;
  std::uint64_t requestTick = 0;
  std::uint64_t createTick = 0;
  std::int64_t createTime = 0;
  std::vector<std::int64_t> sendTimes;  // wall clock of each pass, oldest first
  std::uint64_t entry = 0;              // serial of its one live heap entry
  AdaptiveSendOptionImpl* adaptive = nullptr;  // `option`, when it learns
};

// What a sender has done since it was made.
struct SenderStats {
  std::uint64_t accepted = 0;
  std::uint64_t transmissions = 0;
  std::uint64_t retransmissions = 0;  // transmissions after a packet's first
  std::uint64_t cancelled = 0;        // by CancelPacket
  std::uint64_t timedOut = 0;         // schedule run out, or forced
  LatencyHistogram answered;          // requestTick to CancelPacket
};

class IDataSenderSink {
 public:
  virtual ~IDataSenderSink() = default;
  // The packet has left the sender; it is destroyed after this call.
  virtual void OnPacketTimeout(unsigned int cookie, int retry, int send) = 0;
};

class DataSender {
 public:
  using TickSource = std::uint64_t (*)();
  using WallClockSource = std::int64_t (*)();

  // `tick` and `wallClock` replace the system clocks (tests drive the sender
  // with a fake clock, in whole milliseconds as they write their timelines);
  // null keeps the system's, in microseconds.  SendPacket's `requestTick` is
  // in the unit of the clock in use.
  explicit DataSender(IOLoop* loop, TickSource tick = nullptr, WallClockSource wallClock = nullptr);
  virtual ~DataSender();
  DataSender(const DataSender&) = delete;
  DataSender& operator=(const DataSender&) = delete;

  // 0 when the datagram was handed to the socket.
  virtual int SendData(Packet* packet) = 0;

  bool SendPacket(IConstBuffer* buffer, IChannelSendOption* option, unsigned int cookie,
                  unsigned long long requestTick);
  bool CancelPacket(unsigned int cookie, int* send, int* retry);
  void CancelAllPackets();
  void ForceAllPacketsTimeout();
  void CancelForceAllPacketsTimeout();
  void _ResendAllPacketsWhenResumeFromPause();

  // Owned by the channel, which reads and writes them directly.
  bool m_paused = true;
  IPEndPoint m_dest;
  IDataSenderSink* m_sink = nullptr;

  const SenderStats& Stats() const { return m_stats; }
  // The learning schedule that a packet used last, for the channel's statistics.
  IChannelSendOption* LastAdaptive() const { return m_lastAdaptive.Get(); }

  size_t PacketCount() const { return m_packets.size(); }
  size_t ScheduleSize() const { return m_schedule.size(); }
  bool IsTimerRunning() const { return m_timer.IsRunning(); }
  // Where the timer is armed for, on the sender's clock; UINT64_MAX when it is not.
  std::uint64_t ArmedDueForTesting() const { return m_armedDue; }
  // One pass, as the timer runs it; for tests that drive the clock themselves.
  void RunPassForTesting() { _OnTimer(); }

 private:
  // A cookie alone does not identify an entry: a cookie may come back after
  // its packet ended, and must not revive the old packet's stale entries.
  struct ScheduleEntry {
    std::uint32_t cookie;
    std::uint64_t serial;
    std::uint64_t due;
  };
  struct LaterDue {
    bool operator()(const ScheduleEntry& a, const ScheduleEntry& b) const { return a.due > b.due; }
  };

  void _SendOnce(Packet* packet);
  void _Schedule(Packet* packet, std::uint64_t now);
  void _StartTimer();
  void _OnTimer();
  bool _CheckSchedule(Packet** expired);
  void _OnPacketTimeout(Packet* packet);
  void _CancelForceAll();
  void _CancelAll();
  void _LogPacket(bool info, const char* stage, Packet* packet);
  std::uint64_t _Now() const { return m_tick() * m_tickUs; }
  // Ends `packet` by the schedule when it is due to: count or deadline reached.
  bool _RunOut(const Packet* packet, std::uint64_t now) const;

  IOLoop* m_loop;
  TickSource m_tick;
  std::uint64_t m_tickUs;  // microseconds per tick of m_tick
  WallClockSource m_wallClock;
  // Keyed by the cookie read as signed, so that cookies past 2^31 come first in
  // key order (forced timeouts report in that order).
  using PacketMap = std::map<std::int32_t, Packet*>;
  static std::int32_t _Key(std::uint32_t cookie) { return static_cast<std::int32_t>(cookie); }

  PacketMap m_packets;
  std::vector<ScheduleEntry> m_schedule;  // min-heap on due
  std::uint64_t m_nextSerial = 0;
  // The packet that `entry` schedules, or null when the entry is stale.
  Packet* _Live(const ScheduleEntry& entry);
  Timer m_timer;
  std::uint64_t m_armedDue = UINT64_MAX;  // what m_timer is armed for
  Async m_async;
  PacketMap m_timeoutPackets;
  // The local time of the last creation second that was logged, as text: every
  // packet's end is logged, and packets of one second share it.
  std::int64_t m_dateSecond = -1;
  char m_dateText[80] = {};  // room for any six ints
  int m_dateLength = 0;
  SenderStats m_stats;
  RefPtr<IChannelSendOption> m_lastAdaptive;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CHANNEL_DATA_SENDER_H
