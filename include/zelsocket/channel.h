// Public header: the request-oriented UDP channel.
//
// A channel talks to one peer.  The application connects it by host name, then
// hands it datagrams with a schedule and gets a cookie for each.  The channel
// transmits each datagram at once and again on its schedule, until the
// application cancels the cookie (typically on seeing the answer in OnRecv) or
// the schedule runs out (OnTimeout).  The library adds no header and matches no
// answers: every received datagram is passed up as it came.
//
// Every accepted packet ends exactly once: by CancelSend, CancelAll or Close
// (silently), or with OnTimeout (schedule run out, ForceAllTimeout, failed
// connect, socket failure).
#ifndef ZELSOCKET_CHANNEL_H
#define ZELSOCKET_CHANNEL_H

#include "zelsocket/buffer.h"
#include "zelsocket/channel_option.h"
#include "zelsocket/export.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/ref_count.h"

namespace zelsocket {

class IOLoop;

// Implemented by the application.  The channel keeps a reference to it.  All
// callbacks run on the channel's loop thread; they may call any operation of
// the channel, and may release the last reference to it.
class ZELSOCKET_API IChannelSink : public IRefCount {
 public:
  // A Connect has ended: 0 when the socket is open and receiving, else the error
  // (-1 for a host that could not be resolved).  Packets that waited for the
  // connection have been transmitted before OnConnect(0); after a failure they
  // have all had OnTimeout first.
  virtual void OnConnect(int status) = 0;
  // The socket completed one transmission of the packet `cookie`; once for every
  // transmission, the first and each retransmission.
  virtual void OnSend(unsigned int cookie, IConstBuffer* buffer, const IPEndPoint& dest) = 0;
  // A datagram arrived.  `data` is valid during the call only.
  virtual void OnRecv(unsigned char* data, int length, const IPEndPoint& from) = 0;
  // The packet ended without being cancelled; `send` counts the transmissions
  // that the socket accepted.
  virtual void OnTimeout(unsigned int cookie, int send) = 0;
  // The socket failed and the channel closed it (all packets had OnTimeout
  // first).  The channel stays usable: Connect brings it back.
  virtual void OnClose() = 0;
};

// What a channel has done since it was made (IChannel::GetStats).  Latencies
// are in milliseconds, to within 3%.
struct ChannelStats {
  unsigned long long accepted = 0;         // packets that Send accepted
  unsigned long long transmissions = 0;    // datagrams the socket took, first ones and repeats
  unsigned long long retransmissions = 0;  // of those, the repeats
  unsigned long long cancelled = 0;        // packets ended by CancelSend
  unsigned long long timedOut = 0;         // packets ended with OnTimeout
  unsigned long long pending = 0;          // packets not ended yet
  // Time from Send to the CancelSend that ended a packet, over all of them.
  double latencyP50Ms = 0;
  double latencyP99Ms = 0;
  // The learning schedule (CreateAdaptiveSendOption) that a packet of this
  // channel used last, if any: its smoothed round trip, the round trip's
  // variation, and the wait after each transmission now (AdaptiveSendStats).
  bool adaptive = false;
  double srttMs = 0;
  double rttvarMs = 0;
  double rtoMs = 0;
};

class ZELSOCKET_API IChannel : public IRefCount {
 public:
  IChannel();
  IChannel(const IChannel& other);
  ~IChannel() override;
  IChannel& operator=(const IChannel& other);

  // Replaces the sink (null allowed) on the caller's thread.  Not synchronised
  // with callbacks: set it before Connect.
  virtual void SetSink(IChannelSink* sink) = 0;
  // Resolves `host` and opens a socket bound as `option` says (null: any port,
  // socket made past layered providers).  Always posted, also from the loop
  // thread; 0 says only that it was posted, and one OnConnect follows.  -1 for a
  // null host.  A new Connect on a connected channel makes a new socket; the old
  // one keeps carrying packets until the new one is up.
  virtual int Connect(const char* host, unsigned short port, const ChannelConnectOption* option) = 0;
  // Destination of packets sent from now on; pending packets keep theirs, and
  // GetDestAddr still gives the address of the last Connect.  0.
  virtual int ChangeDest(const IPEndPoint& dest) = 0;
  // The address resolved by the last Connect (unset before).  0, or -1 with no loop.
  virtual int GetDestAddr(IPEndPoint& dest) = 0;
  // Accepts a datagram with a schedule (null: 3000, 5000, 7000 ms, one shared
  // object) and writes its cookie (1, 2, 3, ...).  Buffer and schedule are held,
  // not copied: do not change them while the packet is pending.  On the loop
  // thread the result is final; from another thread 0 says the packet is on its
  // way, and a refusal there arrives as OnTimeout(cookie, 0).  -1 (cookie not
  // written) for a null or empty buffer or a schedule without intervals.
  virtual int Send(IConstBuffer* buffer, IChannelSendOption* option, unsigned int& cookie) = 0;
  // Ends one packet silently.  `retry` and `send` (each may be null) receive its
  // counts, or 0 for a cookie that is not pending.  Blocks until done.
  virtual void CancelSend(unsigned int cookie, int* retry, int* send) = 0;
  // Ends every packet silently.  Blocks until done.
  virtual void CancelAll() = 0;
  // Ends every packet with OnTimeout, all before this returns; the socket stays.
  virtual void ForceAllTimeout() = 0;
  // Closes the socket and drops every packet, with no callback.  Blocks until
  // done.  The channel may be connected again.
  virtual void Close() = 0;
  // Fills `stats`.  Blocks until done.  0, or -1 when the channel has no loop.
  virtual int GetStats(ChannelStats& stats) = 0;
};

// Makes a channel on `loop` (null: IOLoop::GetLoop() of the calling thread).
// The caller owns the one reference.  Releasing the last reference closes the
// channel on its loop thread, from any thread.  False only for a null `out`.
ZELSOCKET_API bool CreateUdpChannel(IChannel** out, IOLoop* loop = nullptr);
ZELSOCKET_API bool CreateUdpChannel(RefPtr<IChannel>& out, IOLoop* loop = nullptr);

// Value class owning one channel on IOLoop::GetLoop().
class ZELSOCKET_API UdpChannel {
 public:
  UdpChannel();
  virtual ~UdpChannel();
  UdpChannel(const UdpChannel&) = delete;
  UdpChannel& operator=(const UdpChannel&) = delete;

  operator IChannel*() const;  // NOLINT(google-explicit-constructor): no AddRef

  void SetSink(IChannelSink* sink);
  int Connect(const char* host, unsigned short port, const ChannelConnectOption* option);
  int ChangeDest(const IPEndPoint& dest);
  int GetDestAddr(IPEndPoint& dest);
  int Send(IConstBuffer* buffer, IChannelSendOption* option, unsigned int& cookie);
  void CancelSend(unsigned int cookie, int* retry, int* send);
  void CancelAll();
  void ForceAllTimeout();
  void Close();
  int GetStats(ChannelStats& stats);

 private:
  IChannel* _channel;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_CHANNEL_H
