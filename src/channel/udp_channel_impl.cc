#include "channel/udp_channel_impl.h"

#include "channel/adaptive_send_option.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "core/check.h"
#include "loop/async_impl.h"
#include "loop/run_on_loop.h"
#include "core/logging.h"
#include "core/platform.h"
#include "zelsocket/io_loop.h"

namespace zelsocket {

namespace {

bool DefaultUdpFactory(RefPtr<IUdp>& out, IOLoop* loop) { return CreateUdp(out, loop); }

std::atomic<UdpChannelImpl::UdpFactory> g_udpFactory{&DefaultUdpFactory};

}  // namespace

IChannel::IChannel() = default;
IChannel::IChannel(const IChannel& other) = default;
IChannel::~IChannel() = default;
IChannel& IChannel::operator=(const IChannel& other) = default;

void UdpChannelImpl::SetUdpFactoryForTesting(UdpFactory factory) {
  g_udpFactory.store(factory ? factory : &DefaultUdpFactory);
}

UdpChannelImpl::UdpChannelImpl(IOLoop* loop)
    : m_loop(loop ? loop : IOLoop::GetLoop()),
      m_async(m_loop),
      m_udpSink(new UdpSinkAnchor<UdpChannelImpl>(this, &UdpChannelImpl::_OnSend, &UdpChannelImpl::_OnRecv)),
      m_sender(new UdpDataSender(m_loop)),
      m_hostResolveSink(new HostResolveSinkAnchor<UdpChannelImpl>(this, &UdpChannelImpl::_OnHostResolve)) {
  // RefPtr took its own references; the creators' ones go.
  m_udpSink->Release();
  m_hostResolveSink->Release();
  m_sender->m_sink = this;
}

UdpChannelImpl::~UdpChannelImpl() {
  m_udpSink->Disconnect();
  m_hostResolveSink->Disconnect();
  m_async.Cancel();
  // The sender's timer and posted pass run on the loop thread, as do socket
  // reports: tear both down there, so that nothing of ours runs afterwards.
  auto teardown = [this] {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_Close");
    _CloseSocketUnchecked(false, false);
    m_sender.reset();
  };
  RunFinalOnLoop(m_loop, teardown);
  delete m_connectOption;
}

bool UdpChannelImpl::_Keep(RefPtr<UdpChannelImpl>& keep) {
  if (!InternalTryAddRef()) return false;
  keep.Attach(this);
  return true;
}

void UdpChannelImpl::SetSink(IChannelSink* sink) { m_sink = sink; }

int UdpChannelImpl::Connect(const char* host, unsigned short port, const ChannelConnectOption* option) {
  if (!host) return -1;
  ChannelConnectOption* copy = nullptr;
  if (option) {
    copy = new ChannelConnectOption();
    *copy = *option;
  }
  // The copy belongs to the posted call; a call that never runs must free it.
  auto owned = std::make_shared<std::unique_ptr<ChannelConnectOption>>(copy);
  RefPtr<UdpChannelImpl> self(this);
  std::string hostCopy(host);
  int rc = m_async.AsyncCall([self, hostCopy, port, owned] { self->_AsyncConnect(hostCopy, port, owned->release()); });
  if (rc != 0) LogInfo(tag::kUdpChannel, "UdpChannelImpl::Connect, AsyncCall fail.");
  return rc;
}

void UdpChannelImpl::_AsyncConnect(std::string host, unsigned short port, ChannelConnectOption* option) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  m_udp = nullptr;
  if (option != m_connectOption) {
    delete m_connectOption;
    m_connectOption = option;
  }
  m_host = std::move(host);
  m_port = port;
  if (!m_hostResolveSink->Resolve(m_host.c_str(), nullptr)) {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_AsyncConnect, HostResolve fail.");
    _OnConnect(-1);
  }
}

void UdpChannelImpl::_OnHostResolve(int status, const char* host, const IPAddress& address, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  RefPtr<UdpChannelImpl> self;
  if (!_Keep(self)) return;

  if (status != 0) {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_OnHostResolve fail, host=%s, ret=%d", host, status);
    _OnConnect(status);
    return;
  }
  m_dest = IPEndPoint(address, m_port);
  m_sender->m_dest = m_dest;

  RefPtr<IUdp> udp;
  g_udpFactory.load()(udp, m_loop);
  if (!udp) {
    LogInfo(tag::kUdpChannel, "_OnHostResolve, udp open fail, err=%d", -1);
    _OnConnect(-1);
    return;
  }
  udp->SetSink(m_udpSink);

  int rc;
  if (!m_connectOption) {
    rc = udp->Open(IPEndPoint(IPAddress::Any, 0));
  } else {
    unsigned int first = m_connectOption->bindPortMin;
    unsigned int last = std::max(m_connectOption->bindPortMin, m_connectOption->bindPortMax);
    rc = -1;
    for (unsigned int p = first; p <= last; ++p) {
      UdpOpenOptions open;
      open.bindAddress = IPEndPoint(m_connectOption->bindAddress, static_cast<unsigned short>(p));
      open.nonLspSocket = m_connectOption->nonLspSocket != 0;
      rc = udp->Open(open);
      if (rc == 0) break;
    }
  }
  if (rc != 0) {
    LogInfo(tag::kUdpChannel, "_OnHostResolve, udp open fail, err=%d", rc);
    udp->SetSink(nullptr);
    _OnConnect(rc);
    return;
  }
  rc = udp->StartRecv(m_recvBuffer, nullptr);
  if (rc != 0) {
    LogInfo(tag::kUdpChannel, "_OnHostResolve, udp recv fail, err=%d", rc);
    udp->SetSink(nullptr);
    udp->Close();
    _OnConnect(rc);
    return;
  }
  m_udp = udp;
  _OnConnect(0);
}

void UdpChannelImpl::_OnConnect(int status) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  RefPtr<UdpChannelImpl> self(this);
  if (status == 0) {
    m_sender->m_udp = m_udp;
    bool wasPaused = m_sender->m_paused;
    m_sender->m_paused = false;
    if (wasPaused) m_sender->_ResendAllPacketsWhenResumeFromPause();
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_OnConnect, ok");
  } else {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_OnConnect, fail, ret=%d", status);
    _CloseSocket(true, false);
  }
  RefPtr<IChannelSink> sink(m_sink);
  if (sink) sink->OnConnect(status);
}

int UdpChannelImpl::ChangeDest(const IPEndPoint& dest) {
  IPEndPoint copy(dest);
  RunOnLoop(m_loop, [this, &copy] { _ChangeDest(copy); });
  return 0;
}

void UdpChannelImpl::_ChangeDest(const IPEndPoint& dest) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  m_sender->m_dest = dest;
}

int UdpChannelImpl::GetDestAddr(IPEndPoint& dest) {
  IPEndPoint result;
  if (!RunOnLoop(m_loop, [this, &result] { _GetDestAddr(result); })) return -1;
  dest = result;
  return 0;
}

void UdpChannelImpl::_GetDestAddr(IPEndPoint& dest) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  dest = m_dest;
}

int UdpChannelImpl::Send(IConstBuffer* buffer, IChannelSendOption* option, unsigned int& cookie) {
  if (!buffer || buffer->GetLength() == 0) {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::Send, buffer is NULL.");
    return -1;
  }
  // A schedule without intervals could never be scheduled; refuse it here,
  // where the caller still learns of it, rather than time it out at once.
  if (option && option->GetSendCount() <= 0) {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::Send, option has no interval.");
    return -1;
  }
  if (!m_loop) return -1;
  cookie = m_cookieMgr.GetCookie();
  unsigned long long tick = platform::TickUs();
  if (m_loop->IsLoopThread()) return _SendData(buffer, option, cookie, tick);
  RefPtr<UdpChannelImpl> self(this);
  RefPtr<IConstBuffer> bufferRef(buffer);
  RefPtr<IChannelSendOption> optionRef(option);
  unsigned int c = cookie;
  return AsyncImpl::Of(&m_async)->Post(
      [self, bufferRef, optionRef, c, tick] { self->_AsyncSend(bufferRef, optionRef, c, tick); });
}

void UdpChannelImpl::_AsyncSend(RefPtr<IConstBuffer> buffer, RefPtr<IChannelSendOption> option, unsigned int cookie,
                                unsigned long long tick) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  int rc = _SendData(buffer, option, cookie, tick);
  if (rc != 0) {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_AsyncSend, _SendData fail, ret=%d", rc);
    OnPacketTimeout(cookie, 0, 0);
  }
}

int UdpChannelImpl::_SendData(IConstBuffer* buffer, IChannelSendOption* option, unsigned int cookie,
                              unsigned long long tick) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  if (!buffer) {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_SendData, buffer is NULL.");
    return -1;
  }
  if (!option) {
    if (!m_defaultOption) {
      CreateChannelSendOption(m_defaultOption);
      m_defaultOption->SetDefaultForUdp();
    }
    option = m_defaultOption;
  }
  if (m_sender->SendPacket(buffer, option, cookie, tick)) return 0;
  LogInfo(tag::kUdpChannel, "UdpChannelImpl::_SendData, SendPacket fail.");
  return -1;
}

void UdpChannelImpl::OnPacketTimeout(unsigned int cookie, int retry, int send) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  // From the sender's timer, possibly while the last reference is going away on
  // another thread: a dying channel reports nothing more.
  RefPtr<UdpChannelImpl> self;
  if (!_Keep(self)) return;
  RefPtr<IChannelSink> sink(m_sink);
  if (sink) sink->OnTimeout(cookie, send);
}

void UdpChannelImpl::CancelSend(unsigned int cookie, int* retry, int* send) {
  int r = 0;
  int s = 0;
  RunOnLoop(m_loop, [this, cookie, &r, &s] { _CancelSend(cookie, &r, &s); });
  if (retry) *retry = r;
  if (send) *send = s;
}

void UdpChannelImpl::_CancelSend(unsigned int cookie, int* retry, int* send) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  m_sender->CancelPacket(cookie, send, retry);
}

void UdpChannelImpl::CancelAll() {
  RunOnLoop(m_loop, [this] { _CancelAll(); });
}

void UdpChannelImpl::_CancelAll() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  LogInfo(tag::kUdpChannel, "UdpChannelImpl::_CancelAll");
  m_sender->CancelAllPackets();
}

void UdpChannelImpl::ForceAllTimeout() {
  RefPtr<UdpChannelImpl> self(this);
  RunOnLoop(m_loop, [this] { _ForceAllTimeout(); });
}

void UdpChannelImpl::_ForceAllTimeout() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  RefPtr<UdpChannelImpl> self(this);
  m_sender->ForceAllPacketsTimeout();
}

void UdpChannelImpl::Close() {
  RunOnLoop(m_loop, [this] { _Close(); });
}

void UdpChannelImpl::_Close() {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  LogInfo(tag::kUdpChannel, "UdpChannelImpl::_Close");
  _CloseSocket(false, false);
}

int UdpChannelImpl::GetStats(ChannelStats& stats) {
  ChannelStats result;
  if (!RunOnLoop(m_loop, [this, &result] { _GetStats(result); })) return -1;
  stats = result;
  return 0;
}

void UdpChannelImpl::_GetStats(ChannelStats& stats) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  const SenderStats& s = m_sender->Stats();
  stats.accepted = s.accepted;
  stats.transmissions = s.transmissions;
  stats.retransmissions = s.retransmissions;
  stats.cancelled = s.cancelled;
  stats.timedOut = s.timedOut;
  stats.pending = m_sender->PacketCount();
  stats.latencyP50Ms = s.answered.Percentile(0.50) / 1000;
  stats.latencyP99Ms = s.answered.Percentile(0.99) / 1000;
  AdaptiveSendStats adaptive;
  stats.adaptive = GetAdaptiveSendStats(m_sender->LastAdaptive(), adaptive);
  stats.srttMs = adaptive.srttMs;
  stats.rttvarMs = adaptive.rttvarMs;
  stats.rtoMs = adaptive.rtoMs;
}

void UdpChannelImpl::_CloseSocket(bool forceAllTimeout, bool notifyOnClose) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  _CloseSocketUnchecked(forceAllTimeout, notifyOnClose);
}

void UdpChannelImpl::_CloseSocketUnchecked(bool forceAllTimeout, bool notifyOnClose) {
  LogInfo(tag::kUdpChannel, "UdpChannelImpl::_CloseSocket, forceAllTimeout=%u, notifyOnClose=%u",
          static_cast<unsigned>(forceAllTimeout), static_cast<unsigned>(notifyOnClose));
  if (m_udp) {
    m_udp->SetSink(nullptr);
    m_udp->Close();
    m_udp = nullptr;
  }
  // Without a flag no sink is called, and the destructor uses this path.
  RefPtr<UdpChannelImpl> self;
  if (forceAllTimeout || notifyOnClose) self = this;
  m_sender->m_udp = nullptr;
  m_sender->m_paused = true;
  m_sender->m_dest = IPEndPoint();
  if (forceAllTimeout) {
    m_sender->ForceAllPacketsTimeout();
  } else if (m_loop && m_loop->IsLoopThread()) {
    m_sender->CancelAllPackets();
  }
  if (notifyOnClose) {
    RefPtr<IChannelSink> sink(m_sink);
    if (sink) sink->OnClose();
  }
}

void UdpChannelImpl::_OnSend(int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  RefPtr<UdpChannelImpl> self;
  if (!_Keep(self)) return;
  if (status != 0) {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_OnSend fail, ret=%d", status);
    _CloseSocket(true, true);
    return;
  }
  RefPtr<IChannelSink> sink(m_sink);
  if (sink) sink->OnSend(static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(ctx)), buffer, dest);
}

void UdpChannelImpl::_OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void* ctx) {
  ZS_ASSERT_LOOP_THREAD(m_loop);
  RefPtr<UdpChannelImpl> self;
  if (!_Keep(self)) return;
  if (status != 0) {
    LogInfo(tag::kUdpChannel, "UdpChannelImpl::_OnRecv fail, ret=%d", status);
    _CloseSocket(true, true);
    return;
  }
  RefPtr<IChannelSink> sink(m_sink);
  if (sink) sink->OnRecv(buffer->GetBuf(), buffer->GetLength(), from);
}

bool CreateUdpChannel(IChannel** out, IOLoop* loop) {
  if (!out) return false;
  *out = nullptr;
  *out = new UdpChannelImpl(loop);
  return true;
}

bool CreateUdpChannel(RefPtr<IChannel>& out, IOLoop* loop) {
  out = nullptr;
  IChannel* channel = nullptr;
  if (!CreateUdpChannel(&channel, loop)) return false;
  out.Attach(channel);
  return true;
}

UdpChannel::UdpChannel() : _channel(nullptr) { CreateUdpChannel(&_channel, nullptr); }

UdpChannel::~UdpChannel() {
  if (_channel) _channel->Release();
  _channel = nullptr;
}

UdpChannel::operator IChannel*() const { return _channel; }

void UdpChannel::SetSink(IChannelSink* sink) { _channel->SetSink(sink); }
int UdpChannel::Connect(const char* host, unsigned short port, const ChannelConnectOption* option) {
  return _channel->Connect(host, port, option);
}
int UdpChannel::ChangeDest(const IPEndPoint& dest) { return _channel->ChangeDest(dest); }
int UdpChannel::GetDestAddr(IPEndPoint& dest) { return _channel->GetDestAddr(dest); }
int UdpChannel::Send(IConstBuffer* buffer, IChannelSendOption* option, unsigned int& cookie) {
  return _channel->Send(buffer, option, cookie);
}
void UdpChannel::CancelSend(unsigned int cookie, int* retry, int* send) { _channel->CancelSend(cookie, retry, send); }
void UdpChannel::CancelAll() { _channel->CancelAll(); }
void UdpChannel::ForceAllTimeout() { _channel->ForceAllTimeout(); }
void UdpChannel::Close() { _channel->Close(); }
int UdpChannel::GetStats(ChannelStats& stats) { return _channel->GetStats(stats); }

}  // namespace zelsocket
