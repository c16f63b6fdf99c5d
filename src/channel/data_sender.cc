#include "channel/data_sender.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "channel/adaptive_send_option.h"
#include "core/check.h"
#include "core/logging.h"
#include "core/platform.h"
#include "zelsocket/io_loop.h"

namespace zelsocket {

namespace {

std::uint32_t Low32(std::uint64_t value) { return static_cast<std::uint32_t>(value); }

}  // namespace

DataSender::DataSender(IOLoop* loop, TickSource tick, WallClockSource wallClock)
    : m_loop(loop ? loop : IOLoop::GetLoop()),
      m_tick(tick ? tick : &platform::TickUs),
      m_tickUs(tick ? 1000 : 1),
      m_wallClock(wallClock ? wallClock : &platform::WallClockSeconds),
      m_timer(m_loop),
      m_async(m_loop) {}

DataSender::~DataSender() {
  // Also reached off the loop thread when the loop has already stopped.
  _CancelAll();
  m_timer.Cancel();
  m_async.Cancel();
}

bool DataSender::SendPacket(IConstBuffer* buffer, IChannelSendOption* option, unsigned int cookie,
                            unsigned long long requestTick) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (!buffer || !option) return false;
  // Without an interval there is no first wait to schedule.
  if (option->GetSendCount() <= 0) return false;
  if (m_packets.count(_Key(cookie)) != 0) {
    LogInfo(tag::kDataSender, "DataSender::SendPacket, same cookie found, cookie=%u", cookie);
    return false;
  }
  auto* packet = new Packet();
  packet->cookie = cookie;
  packet->buffer = buffer;
  packet->dest = m_dest;
  packet->option = option;
  packet->requestTick = requestTick * m_tickUs;
  packet->createTick = _Now();
  packet->createTime = m_wallClock();
  packet->adaptive = AsAdaptive(option);
  if (packet->adaptive && m_lastAdaptive.Get() != option) m_lastAdaptive = option;
  m_packets.emplace(_Key(cookie), packet);
  ++m_stats.accepted;
  _SendOnce(packet);
  _StartTimer();
  return true;
}

void DataSender::_SendOnce(Packet* packet) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  // Read before the hand-over, and the wait counts from here too: on loopback
  // the answer can be back before the socket call returns.
  const std::uint64_t now = _Now();
  if (!m_paused && m_dest.IsValid()) {
    if (!packet->dest.IsValid()) packet->dest = m_dest;
    const std::uint64_t offset = now - packet->createTick;
    if (SendData(packet) == 0) {
      ++m_stats.transmissions;
      if (packet->send++ > 0) ++m_stats.retransmissions;
      packet->sentOffsetUs = offset < UINT32_MAX ? static_cast<std::uint32_t>(offset) : UINT32_MAX;
    }
  }
  packet->sendTimes.push_back(m_wallClock());
  _Schedule(packet, now);
}

void DataSender::_Schedule(Packet* packet, std::uint64_t now) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  // A schedule shortened under the packet: let the next pass end it.
  std::uint64_t due = now;
  if (packet->adaptive) {
    // Read afresh: what other packets taught since the last transmission counts.
    due = std::min(now + packet->adaptive->IntervalUs(), packet->createTick + packet->adaptive->DeadlineUs());
  } else if (packet->retry < packet->option->GetSendCount()) {
    due = now + static_cast<std::uint64_t>(static_cast<std::int64_t>(packet->option->GetSendInterval(packet->retry)) *
                                           static_cast<std::int64_t>(1000));
  }
  packet->entry = ++m_nextSerial;
  m_schedule.push_back(ScheduleEntry{packet->cookie, packet->entry, due});
  std::push_heap(m_schedule.begin(), m_schedule.end(), LaterDue());
}

void DataSender::_StartTimer() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  // Stale entries on top would wake the loop for nothing: they go now, as a
  // pass would drop them.  Those due after the armed time can wait for it.
  while (!m_schedule.empty() && m_schedule.front().due < m_armedDue && !_Live(m_schedule.front())) {
    std::pop_heap(m_schedule.begin(), m_schedule.end(), LaterDue());
    m_schedule.pop_back();
  }
  if (m_schedule.empty() || m_schedule.front().due >= m_armedDue) return;
  m_armedDue = m_schedule.front().due;
  const std::uint64_t now = _Now();
  // Whole milliseconds, rounded up: the timer never fires before the due time.
  const std::uint64_t waitMs = m_armedDue > now ? (m_armedDue - now + 999) / 1000 : 0;
  // A refused arming (a stopping loop) is not tried again, as no pass will come.
  m_timer.SetTimeout(static_cast<int>(std::min<std::uint64_t>(waitMs, INT32_MAX)), 0, [this] {
    m_armedDue = UINT64_MAX;
    _OnTimer();
  });
}

bool DataSender::_RunOut(const Packet* packet, std::uint64_t now) const {
  if (packet->retry >= packet->option->GetSendCount()) return true;
  return packet->adaptive && now - packet->createTick >= packet->adaptive->DeadlineUs();
}

void DataSender::_OnTimer() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  Packet* expired = nullptr;
  if (_CheckSchedule(&expired)) m_async.AsyncCall([this] { _OnTimer(); });
  _StartTimer();
  if (expired) {
    // The sink may destroy this sender: nothing of it is touched after the call.
    std::unique_ptr<Packet> owned(expired);
    _OnPacketTimeout(expired);
  }
}

bool DataSender::_CheckSchedule(Packet** expired) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  *expired = nullptr;
  const std::uint64_t now = _Now();
  while (!m_schedule.empty()) {
    if (m_schedule.front().due > now) return false;
    std::pop_heap(m_schedule.begin(), m_schedule.end(), LaterDue());
    ScheduleEntry entry = m_schedule.back();
    m_schedule.pop_back();
    Packet* packet = _Live(entry);
    if (!packet) continue;  // stale: its packet ended since it was scheduled
    // The first wait of a packet that left has run out unanswered.
    if (++packet->retry == 1 && packet->adaptive && packet->send > 0) packet->adaptive->OnFirstLoss();
    if (_RunOut(packet, now)) {
      if (packet->adaptive && packet->send > 0) packet->adaptive->OnTimedOut();
      m_packets.erase(_Key(entry.cookie));
      *expired = packet;
      return !m_schedule.empty();
    }
    _SendOnce(packet);
  }
  return false;
}

Packet* DataSender::_Live(const ScheduleEntry& entry) {
  auto it = m_packets.find(_Key(entry.cookie));
  return it != m_packets.end() && it->second->entry == entry.serial ? it->second : nullptr;
}

void DataSender::_OnPacketTimeout(Packet* packet) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  _LogPacket(false, "timeout", packet);
  ++m_stats.timedOut;
  if (m_sink) m_sink->OnPacketTimeout(packet->cookie, packet->retry, packet->send);
}

bool DataSender::CancelPacket(unsigned int cookie, int* send, int* retry) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  *send = 0;
  *retry = 0;
  auto it = m_packets.find(_Key(cookie));
  if (it == m_packets.end()) {
    LogInfo(tag::kDataSender, "DataSender::CancelPacket, packet not found, cookie=%u", cookie);
    return false;
  }
  std::unique_ptr<Packet> packet(it->second);
  m_packets.erase(it);
  const std::uint64_t now = _Now();
  ++m_stats.cancelled;
  m_stats.answered.Record(now - std::min(now, packet->requestTick));
  // Karn's rule: only an answer to the one transmission times the round trip.
  if (packet->adaptive && packet->send == 1 && packet->sentOffsetUs != UINT32_MAX) {
    packet->adaptive->OnAnswered(now - std::min(now, packet->createTick + packet->sentOffsetUs));
  }
  _LogPacket(true, "recv", packet.get());
  *send = packet->send;
  *retry = packet->retry;
  LogDebug(tag::kDataSender, "DataSender::CancelPacket, ok, cookie=%u, send=%u, retry=%u", cookie,
           static_cast<unsigned>(packet->send), static_cast<unsigned>(packet->retry));
  return true;
}

void DataSender::CancelForceAllPacketsTimeout() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  _CancelForceAll();
}

void DataSender::_CancelForceAll() {
  LogInfo(tag::kDataSender, "DataSender::CancelForceAllPacketsTimeout, count=%u",
          static_cast<unsigned>(m_timeoutPackets.size()));
  PacketMap batch;
  batch.swap(m_timeoutPackets);
  for (auto& entry : batch) {
    _LogPacket(false, "cancel_timeout", entry.second);
    delete entry.second;
  }
}

void DataSender::CancelAllPackets() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  _CancelAll();
}

void DataSender::_CancelAll() {
  _CancelForceAll();
  m_schedule.clear();
  LogInfo(tag::kDataSender, "DataSender::CancelAllPackets, count=%u", static_cast<unsigned>(m_packets.size()));
  PacketMap all;
  all.swap(m_packets);
  for (auto& entry : all) {
    _LogPacket(false, "cancel", entry.second);
    delete entry.second;
  }
}

void DataSender::ForceAllPacketsTimeout() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  m_schedule.clear();
  LogInfo(tag::kDataSender, "DataSender::ForceAllPacketsTimeout, packet-count=%u, timeout-count=%u",
          static_cast<unsigned>(m_packets.size()), static_cast<unsigned>(m_timeoutPackets.size()));
  CancelForceAllPacketsTimeout();
  m_timeoutPackets.swap(m_packets);
  // The owner holds a reference for the whole batch, so this sender outlives
  // every notification; a notification that cancels empties m_timeoutPackets.
  while (!m_timeoutPackets.empty()) {
    auto it = m_timeoutPackets.begin();
    std::unique_ptr<Packet> packet(it->second);
    m_timeoutPackets.erase(it);
    _OnPacketTimeout(packet.get());
  }
}

void DataSender::_ResendAllPacketsWhenResumeFromPause() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  std::vector<ScheduleEntry> entries;
  entries.reserve(m_schedule.size());
  while (!m_schedule.empty()) {
    std::pop_heap(m_schedule.begin(), m_schedule.end(), LaterDue());
    entries.push_back(m_schedule.back());
    m_schedule.pop_back();
  }
  LogInfo(tag::kDataSender, "DataSender::_ResendAllPacketsWhenResumeFromPause, queue-count=%u, packet-count=%u",
          static_cast<unsigned>(entries.size()), static_cast<unsigned>(m_packets.size()));
  for (const ScheduleEntry& entry : entries) {
    if (Packet* packet = _Live(entry)) _SendOnce(packet);
  }
  _StartTimer();
}

void DataSender::_LogPacket(bool info, const char* stage, Packet* packet) {
  if (packet->createTime != m_dateSecond) {
    std::tm local{};
    m_dateSecond = packet->createTime;
    m_dateLength = 0;
    if (platform::LocalTime(packet->createTime, &local)) {
      m_dateLength = std::snprintf(m_dateText, sizeof(m_dateText), "%04d/%02d/%02d %02d:%02d:%02d",
                                   local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                                   local.tm_min, local.tm_sec);
      if (m_dateLength < 0 || m_dateLength >= static_cast<int>(sizeof(m_dateText))) m_dateLength = 0;
    }
    m_dateText[m_dateLength] = '\0';
  }
  char sendTime[1024];
  std::memcpy(sendTime, m_dateText, static_cast<std::size_t>(m_dateLength) + 1);
  int used = m_dateLength;
  for (std::int64_t stamp : packet->sendTimes) {
    if (used < 0 || used >= static_cast<int>(sizeof(sendTime)) - 1) break;
    int delta = static_cast<std::int32_t>(Low32(static_cast<std::uint64_t>(stamp)) -
                                          Low32(static_cast<std::uint64_t>(packet->createTime)));
    int n = std::snprintf(sendTime + used, sizeof(sendTime) - static_cast<size_t>(used), ",%d", delta);
    if (n < 0) break;
    used += n;
  }
  std::uint32_t now = Low32(_Now() / 1000);
  std::uint32_t created = Low32(packet->createTick / 1000);
  std::uint32_t requested = Low32(packet->requestTick / 1000);
  const char* format =
      "%s, cookie=%u, retry=%u, send=%u, send-count=%u, send-delay=%u, recv-delay=%u, total-delay=%u, "
      "send-time=%s";
  auto sendCount = static_cast<unsigned>(packet->option ? packet->option->GetSendCount() : 0);
  if (info) {
    LogDebug(tag::kDataSender, format, stage, packet->cookie, static_cast<unsigned>(packet->retry),
             static_cast<unsigned>(packet->send), sendCount, created - requested, now - created, now - requested,
             sendTime);
  } else {
    LogInfo(tag::kDataSender, format, stage, packet->cookie, static_cast<unsigned>(packet->retry),
            static_cast<unsigned>(packet->send), sendCount, created - requested, now - created, now - requested,
            sendTime);
  }
}

}  // namespace zelsocket
