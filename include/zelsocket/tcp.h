// Public header: the TCP client socket.
//
// An ITcp belongs to one IOLoop; everything that touches its libuv handle runs on
// that loop's thread.  Open, CancelRecv, Close and the address queries need an
// answer at once: on the loop thread they run directly, elsewhere they block on
// IOLoop::SyncCall.  Connect, Send and Recv always hop through the socket's own
// Async, also on the loop thread, so no sink callback ever runs inside them; a
// failure known before the hop is their result, a failure after it reaches the
// sink.  All sink callbacks run on the loop thread.  There is no listening side.
#ifndef ZELSOCKET_TCP_H
#define ZELSOCKET_TCP_H

#include "zelsocket/buffer.h"
#include "zelsocket/export.h"
#include "zelsocket/ip_address.h"
#include "zelsocket/ref_count.h"

namespace zelsocket {

class IOLoop;

// Implemented by the application.  The socket keeps a reference to its sink, so
// AddRef and Release must work.  `status` is 0, -1 or a negative libuv error;
// `ctx` is the pointer given to the operation, untouched.  `address` and
// `buffer` are valid during the call; keep a reference to keep the buffer.
class ZELSOCKET_API ITcpSink : public IRefCount {
 public:
  // Once for every Connect that returned 0, unless Close comes first.  `address`
  // is the destination, on failure too; unset when the attempt never started
  // (the implicit open failed, or a connect was already in progress).
  virtual void OnConnect(int status, const IPEndPoint& address, void* ctx) = 0;
  // Never called: the socket has no listening side.  The slot is kept for
  // applications written against a listening interface.
  virtual void OnAccept(int /*status*/, void* /*a*/, void* /*b*/, void* /*ctx*/) {}
  // Once for every Send that returned 0, unless Close comes first.  -1 when the
  // buffer did not fit into the 1 MiB send queue.
  virtual void OnSend(int status, IConstBuffer* buffer, void* ctx) = 0;
  // Once for every Recv that returned 0, unless CancelRecv or Close comes first.
  // Data: status 0 and the buffer's length is the number of bytes read (the
  // buffer was grown to the size libuv asked for; a short read is normal).  End
  // of stream: status 0 and length 0.  Read error: the error and length 0.
  virtual void OnRecv(int status, IMutableBuffer* buffer, void* ctx) = 0;
};

class ZELSOCKET_API ITcp : public IRefCount {
 public:
  ITcp();
  ITcp(const ITcp& other);
  ~ITcp() override;
  ITcp& operator=(const ITcp& other);

  // Replaces the sink on the calling thread, without a hop: call it before the
  // first operation, or on the loop thread.  Null is allowed: reports then go
  // nowhere, but the queues keep moving.
  virtual void SetSink(ITcpSink* sink) = 0;
  // Creates the handle and binds it to `address` (port 0: any free port).  0, a
  // libuv error, or -1 when already open (the socket stays as it was) or the
  // socket has no loop.
  virtual int Open(const IPEndPoint& address) = 0;
  // Connects, opening an IPv4 socket on 0.0.0.0 first if closed (an IPv6
  // destination needs an Open with an IPv6 address first).  -1 at once for an
  // invalid address (port 0 included); else the result of the hop, and the
  // outcome arrives as OnConnect.  A failed attempt leaves the socket open.
  virtual int Connect(const IPEndPoint& address, void* ctx) = 0;
  // No listening side: returns 0 and does nothing.
  virtual int Accept(const IPEndPoint& address, void* ctx) = 0;
  // Queues `buffer` (held by reference, not copied; do not change it until
  // OnSend).  Opens the socket first if closed, blocking on the loop.  -1 for a
  // null or empty buffer.  Buffers go out in order, one write at a time; one
  // that would bring the queue past 1 MiB (itself counted, the buffer in flight
  // not) is dropped and reported as OnSend(-1).
  virtual int Send(IConstBuffer* buffer, void* ctx) = 0;
  // Queues one read into `buffer`; requests are served one at a time, in order.
  // -1 for a null buffer or a closed socket.  The socket reads from the system
  // only while a request waits.
  virtual int Recv(IMutableBuffer* buffer, void* ctx) = 0;
  // Drops every pending receive without a report; bytes already read and not
  // yet delivered are lost.  0 (-1 without a loop).
  virtual int CancelRecv() = 0;
  // Drops the sink first, then the queues and the handle: no callback of this
  // socket runs afterwards, not even for the write in flight.  No half-close:
  // wait for OnSend before Close if the bytes matter.  0 (-1 without a loop).
  // The socket may be opened again; set the sink again first.
  virtual int Close() = 0;
  // Reads the handle pointer on the calling thread.
  virtual bool IsOpen() = 0;
  // IPv4 and IPv6.  A libuv error, or -1 (and `address` unset) when closed.
  virtual int GetLocalAddress(IPEndPoint& address) = 0;
  virtual int GetRemoteAddress(IPEndPoint& address) = 0;
  // Not supported: always -1, nothing changes.
  virtual int SetSendBufferSize(unsigned int size) = 0;
  virtual int SetRecvBufferSize(unsigned int size) = 0;
};

// Creates a closed socket on `loop` (null: IOLoop::GetLoop(), resolved once).
// The caller owns the one reference.  False only for a null `out`.  Releasing
// the last reference of an open socket closes it like Close (blocking on the
// loop when it happens on another thread); stop the loop only after that.
ZELSOCKET_API bool CreateTcp(ITcp** out, IOLoop* loop = nullptr);
// Releases what `out` held, then stores the new socket with its first reference.
ZELSOCKET_API bool CreateTcp(RefPtr<ITcp>& out, IOLoop* loop = nullptr);

// Value class over an ITcp pointer.  Default-constructed or assigned, it only
// borrows the pointer (no AddRef, no Release).  Constructed from a loop, it
// creates a socket of its own and releases that reference when destroyed or
// assigned over.  The forwarders do not check the pointer.
class ZELSOCKET_API UvTcp {
 public:
  UvTcp();
  explicit UvTcp(IOLoop* loop);
  UvTcp(const UvTcp& other);  // borrows other's pointer
  ~UvTcp();
  UvTcp& operator=(const UvTcp& other);

  operator ITcp*() const;  // NOLINT(google-explicit-constructor): no AddRef

  void SetSink(ITcpSink* sink);
  int Open(const IPEndPoint& address);
  int Connect(const IPEndPoint& address, void* ctx);
  int Accept(const IPEndPoint& address, void* ctx);
  int Send(IConstBuffer* buffer, void* ctx);
  int Recv(IMutableBuffer* buffer, void* ctx);
  int CancelRecv();
  int Close();
  bool IsOpen();
  int GetLocalAddress(IPEndPoint& address);
  int GetRemoteAddress(IPEndPoint& address);
  int SetSendBufferSize(unsigned int size);
  int SetRecvBufferSize(unsigned int size);

 private:
  ITcp* _tcp;
  bool _owned;
};

}  // namespace zelsocket

#endif  // ZELSOCKET_TCP_H
