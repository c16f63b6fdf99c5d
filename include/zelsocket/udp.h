// Public header: the UDP socket.
//
// An IUdp belongs to one IOLoop; everything that touches its libuv handle runs
// on that loop's thread.  Operations that need an answer at once (SetSink, Open,
// CancelRecv, Close) block on IOLoop::SyncCall when called from another thread;
// data-carrying operations (Send, Recv, StartRecv) hop through the socket's own
// Async and report through IUdpSink.  On the loop thread every operation runs
// directly.  All sink callbacks run on the loop thread.
#ifndef ZELSOCKET_UDP_H
#define ZELSOCKET_UDP_H

#include "zelsocket/buffer.h"
#include "zelsocket/export.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/ref_count.h"

namespace zelsocket {

class IOLoop;

// Implemented by the application.  The socket keeps a reference to its sink.
class ZELSOCKET_API IUdpSink : public IRefCount {
 public:
  // One report for every datagram accepted by Send, unless Close comes first.
  // `status` is 0, -1 or a negative libuv error; `ctx` is Send's.
  virtual void OnSend(int status, IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) = 0;
  // A datagram arrived in `buffer` (its length is the datagram's size; the
  // caller's buffer itself, no copy), or a receive failed (length 0, `from`
  // unset).  After StartRecv the same buffer is reused for the next datagram.
  virtual void OnRecv(int status, IMutableBuffer* buffer, const IPEndPoint& from, void* ctx) = 0;
};

struct ZELSOCKET_API UdpOpenOptions {
  UdpOpenOptions();
  UdpOpenOptions(const UdpOpenOptions& other);
  ~UdpOpenOptions();
  UdpOpenOptions& operator=(const UdpOpenOptions& other);

  IPEndPoint bindAddress;     // local address; port 0 binds any free port
  bool nonLspSocket = true;   // create the socket past layered providers (Windows)
};

class ZELSOCKET_API IUdp : public IRefCount {
 public:
  IUdp();
  IUdp(const IUdp& other);
  ~IUdp() override;
  IUdp& operator=(const IUdp& other);

  // Blocks until the loop thread uses the new sink: no callback reaches the old
  // one afterwards.  Null is allowed.
  virtual void SetSink(IUdpSink* sink) = 0;
  // Opens and binds; the kernel receive buffer is set to 512 KiB (128 KiB as a
  // fallback).  -1 when already open or the socket has no running loop, else a
  // libuv error or 0.
  virtual int Open(const UdpOpenOptions& options) = 0;
  virtual int Open(const IPEndPoint& address) = 0;
  // Queues a datagram for `dest` (opening an IPv4 socket on 0.0.0.0 first if
  // needed).  -1 at once for a null buffer, an invalid `dest` or no loop.  On the
  // loop thread a refusal (queue over 128 KiB, open failed) is the result; from
  // another thread it arrives as OnSend with that status.
  virtual int Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx) = 0;
  // Arms one receive into `buffer`, offered its whole capacity and at least 12288
  // bytes (Reserve more for larger datagrams: a longer one is cut without
  // notice).  One receive at a time; the socket must be open.  On the loop
  // thread a refusal is the result (-1); from another thread it arrives as
  // OnRecv with that status and an unset address.
  virtual int Recv(IMutableBuffer* buffer, void* ctx) = 0;
  // Like Recv, but stays armed: every datagram is delivered into the same buffer.
  virtual int StartRecv(IMutableBuffer* buffer, void* ctx) = 0;
  // Disarms the receive without a report.
  virtual int CancelRecv() = 0;
  // Drops the queue and silences every later callback of this socket.
  virtual int Close() = 0;
  // These two run on the caller's thread without a hop; racing them with Close
  // on another thread is the caller's risk.
  virtual bool IsOpen() = 0;
  // IPv4 sockets only; -1 when closed or not IPv4.
  virtual int GetLocalAddress(IPEndPoint& address) = 0;
  // Not supported: always -1.
  virtual int SetSendBufferSize(unsigned int size) = 0;
  virtual int SetRecvBufferSize(unsigned int size) = 0;
};

// Creates a closed socket on `loop` (null: IOLoop::GetLoop()).  The caller owns
// the one reference.  False only for a null `out`.
ZELSOCKET_API bool CreateUdp(IUdp** out, IOLoop* loop = nullptr);
ZELSOCKET_API bool CreateUdp(RefPtr<IUdp>& out, IOLoop* loop = nullptr);

// Value class owning one socket.
class ZELSOCKET_API Udp {
 public:
  explicit Udp(IOLoop* loop = nullptr);
  ~Udp();
  Udp(const Udp&) = delete;
  Udp& operator=(const Udp&) = delete;

  operator IUdp*();  // NOLINT(google-explicit-constructor): no AddRef

  void SetSink(IUdpSink* sink);
  int Open(const IPEndPoint& address);
  int Send(IConstBuffer* buffer, const IPEndPoint& dest, void* ctx);
  int Recv(IMutableBuffer* buffer, void* ctx);
  int StartRecv(IMutableBuffer* buffer, void* ctx);
  int CancelRecv();
  int Close();
  bool IsOpen();
  int GetLocalAddress(IPEndPoint& address);
  int SetSendBufferSize(unsigned int size);
  int SetRecvBufferSize(unsigned int size);

 private:
  explicit Udp(IUdp* udp);
  IUdp* _udp;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_UDP_H
