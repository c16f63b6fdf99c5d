// Internal: the one implementation of IChannel.
//
// All state belongs to the loop thread; public operations hop there (posted for
// Connect and for Send from other threads, SyncCall for the rest).  The channel
// may die on any thread: its destructor tears the socket and the sender down on
// the loop thread.  Loop-thread entry points that do not come from the
// application (socket reports, the resolver, the sender's timer) take a
// reference only if the channel is not already dying (_Keep), so that a
// last Release on another thread cannot be undone by a callback in flight.
#ifndef ZELSOCKET_SRC_CHANNEL_UDP_CHANNEL_IMPL_H
#define ZELSOCKET_SRC_CHANNEL_UDP_CHANNEL_IMPL_H

#include <atomic>
#include <memory>
#include <string>

#include "channel/host_resolve_sink_anchor.h"
#include "channel/udp_data_sender.h"
#include "socket/udp_sink_anchor.h"
#include "zelsocket/async.h"
#include "zelsocket/buffer.h"
#include "zelsocket/channel.h"
#include "zelsocket/sync.h"
#include "zelsocket/udp.h"

namespace zelsocket {

class UdpChannelImpl : public IChannel, public RefCountBase, public IDataSenderSink {
 public:
  using UdpFactory = bool (*)(RefPtr<IUdp>& out, IOLoop* loop);

  explicit UdpChannelImpl(IOLoop* loop);
  ~UdpChannelImpl() override;

  int AddRef() override { return InternalAddRef(); }
  int Release() override { return InternalRelease(); }

  void SetSink(IChannelSink* sink) override;
  int Connect(const char* host, unsigned short port, const ChannelConnectOption* option) override;
  int ChangeDest(const IPEndPoint& dest) override;
  int GetDestAddr(IPEndPoint& dest) override;
  int Send(IConstBuffer* buffer, IChannelSendOption* option, unsigned int& cookie) override;
  void CancelSend(unsigned int cookie, int* retry, int* send) override;
  void CancelAll() override;
  void ForceAllTimeout() override;
  void Close() override;
  int GetStats(ChannelStats& stats) override;

  void OnPacketTimeout(unsigned int cookie, int retry, int send) override;

  // Test hook: where new sockets come from (null: CreateUdp).
  static void SetUdpFactoryForTesting(UdpFactory factory);
  // Test hook: the sender, for its counts.  Loop thread only.
  UdpDataSender* SenderForTesting() { return m_sender.get(); }

 private:
  // A reference for an entry point that does not come from the application;
  // false once the last reference is gone.
  bool _Keep(RefPtr<UdpChannelImpl>& keep);

  void _AsyncConnect(std::string host, unsigned short port, ChannelConnectOption* option);
  void _OnHostResolve(int status, const char* host, const IPAddress& address, void* ctx);
  void _OnConnect(int status);
  void _AsyncSend(RefPtr<IConstBuffer> buffer, RefPtr<IChannelSendOption> option, unsigned int cookie,
                  unsigned long long tick);
  int _SendData(IConstBuffer* buffer, IChannelSendOption* option, unsigned int cookie, unsigned long long tick);
  void _ChangeDest(const IPEndPoint& dest);
  void _GetDestAddr(IPEndPoint& dest);
  void _CancelSend(unsigned int cookie, int* retry, int* send);
  void _CancelAll();
  void _ForceAllTimeout();
  void _Close();
  void _GetStats(ChannelStats& stats);
  void _CloseSocket(bool forceAllTimeout, bool notifyOnClose);
  void _CloseSocketUnchecked(bool forceAllTimeout, bool notifyOnClose);
  void _OnSend(int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx);
  void _OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void* ctx);

  IOLoop* m_loop;
  std::string m_host;
  unsigned short m_port = 0;
  ChannelConnectOption* m_connectOption = nullptr;
  IPEndPoint m_dest;
  RefPtr<IChannelSink> m_sink;
  Async m_async;
  RefPtr<IUdp> m_udp;
  RefPtr<UdpSinkAnchor<UdpChannelImpl>> m_udpSink;
  Buffer m_recvBuffer;
  std::unique_ptr<UdpDataSender> m_sender;  // destroyed on the loop thread
  CookieMgr m_cookieMgr;
  RefPtr<IChannelSendOption> m_defaultOption;
  RefPtr<HostResolveSinkAnchor<UdpChannelImpl>> m_hostResolveSink;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_SRC_CHANNEL_UDP_CHANNEL_IMPL_H
